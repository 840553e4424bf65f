#include "surface/StatusButton.h"

namespace {

class UnseenButton final : public StatusButton
{
public:
    void setImage(const MenuBarFrames::Frame&, const MenuBarFrames::Image&) override { }
    void setTitle(const QString&) override { }
    void setLabel(const QString&) override { }
    void setHighlighted(bool) override { }
    void setWide(bool) override { }
};

} // namespace

std::unique_ptr<StatusButton> StatusButton::unseen()
{
    return std::make_unique<UnseenButton>();
}

#include "surface/StatusButton.h"

namespace {

class UnseenButton final : public StatusButton
{
public:
    explicit UnseenButton(QRect place)
        : m_place(place)
    {
    }
    void setImage(const MenuBarFrames::Frame&, const MenuBarFrames::Image&) override { }
    void setTitle(const QString&) override { }
    void setLabel(const QString&) override { }
    void setHighlighted(bool) override { }
    void setWide(bool) override { }
    QRect place() const override { return m_place; }

private:
    QRect m_place;
};

} // namespace

std::unique_ptr<StatusButton> StatusButton::unseen(QRect place)
{
    return std::make_unique<UnseenButton>(place);
}

#pragma once

#include "surface/StatusButton.h"

#include <memory>

/// The status item in the macOS menu bar: template images, the count beside
/// the icon in medium monospaced digits, square until a title needs room.
class MacStatusButton : public StatusButton
{
    Q_OBJECT

public:
    /// `autosaveName` keeps the item's place in the menu bar across launches.
    explicit MacStatusButton(const QString& autosaveName, QObject* parent = nullptr);
    ~MacStatusButton() override;

    void setImage(const MenuBarFrames::Frame& frame, const MenuBarFrames::Image& image) override;
    void setTitle(const QString& title) override;
    void setLabel(const QString& label) override;
    void setHighlighted(bool highlighted) override;
    void setWide(bool wide) override;
    QRect place() const override;

private:
    struct Native;
    std::unique_ptr<Native> m_native;
};

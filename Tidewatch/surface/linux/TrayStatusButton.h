#pragma once

#include "surface/StatusButton.h"

#include <QHash>
#include <QIcon>
#include <QSystemTrayIcon>

/// The status item on desktops with a system tray. The tray has no title
/// beside its icon, so the count lives in the tool tip, whose label already
/// says how many need you; and it has no highlight to hold.
class TrayStatusButton : public StatusButton
{
    Q_OBJECT

public:
    explicit TrayStatusButton(QObject* parent = nullptr);

    void setImage(const MenuBarFrames::Frame& frame, const MenuBarFrames::Image& image) override;
    void setTitle(const QString& title) override;
    void setLabel(const QString& label) override;
    void setHighlighted(bool highlighted) override;
    void setWide(bool wide) override;
    QRect place() const override;

private:
    QIcon iconFor(const MenuBarFrames::Frame& frame, const MenuBarFrames::Image& image);

    QSystemTrayIcon m_tray;
    /// One icon per frame, tinted once: a tick then only swaps icons.
    QHash<QString, QIcon> m_icons;
};

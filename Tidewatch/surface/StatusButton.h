#pragma once

#include "surface/MenuBarFrames.h"

#include <QObject>
#include <QRect>
#include <QString>

#include <memory>

/// The system's menu bar (or tray) item as the icon sees it. Each setter is
/// called only when its value changes, so an implementation may pass it on
/// to the system without comparing.
class StatusButton : public QObject
{
    Q_OBJECT

public:
    using QObject::QObject;
    ~StatusButton() override = default;

    /// Makes this system's item: an NSStatusItem under the autosave name on
    /// macOS, a tray icon elsewhere. It shows nothing until the first image.
    static std::unique_ptr<StatusButton> create(const QString& autosaveName);
    /// A button on no screen (or said to stand at `place`), for renders and checks that
    /// read the icon's state instead.
    static std::unique_ptr<StatusButton> unseen(QRect place = {});

    /// `image` is the frame's template image, black on transparent.
    virtual void setImage(const MenuBarFrames::Frame& frame, const MenuBarFrames::Image& image) = 0;
    /// The count beside the icon; empty for none.
    virtual void setTitle(const QString& title) = 0;
    /// The tool tip, which is the accessibility label too.
    virtual void setLabel(const QString& label) = 0;
    /// Held down while the panel is open.
    virtual void setHighlighted(bool highlighted) = 0;
    /// A title stands beside the icon: the item's length follows its content
    /// rather than staying square.
    virtual void setWide(bool wide) = 0;
    /// The item's place on the screen in global coordinates; empty when it
    /// has none there, or the system won't tell.
    virtual QRect place() const { return {}; }

Q_SIGNALS:
    /// Left or right button, alike. `anchor` is the item's place on the
    /// screen in global coordinates, or empty when the system won't tell.
    void clicked(QRect anchor);
};

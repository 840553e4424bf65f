#pragma once

#include "base/Clock.h"
#include "model/DismissedNotices.h"

#include <QObject>
#include <QRect>

#include <memory>

class AppModel;
class PopoverModel;
class QQuickView;

/// The dark panel that hangs under the status item. Its views exist only
/// while it is open: closing destroys them, and every timer of theirs with them.
class MenuPanel : public QObject
{
    Q_OBJECT

public:
    /// The panel's width, in points.
    static constexpr int kWidth = 360;

    MenuPanel(AppModel& model, const Clock& clock, QObject* parent = nullptr);
    ~MenuPanel() override;

    /// Where the panel stands: 5 under the anchor, its middle under the
    /// anchor's, 8 inside the screen's free area; its height follows the
    /// content up to what the screen leaves, never under 320.
    static QRect placement(const QRect& anchor, const QRect& available, int contentHeight);

    bool isOpen() const { return m_view != nullptr; }

public Q_SLOTS:
    /// Opens under the anchor (under the pointer when the anchor is empty), or closes.
    void toggle(QRect anchor);
    void open(QRect anchor);
    void close();

Q_SIGNALS:
    void openChanged(bool open);

private:
    void fit();

    AppModel& m_model;
    const Clock& m_clock;
    DismissedNotices m_dismissed;
    std::unique_ptr<PopoverModel> m_popover;
    std::unique_ptr<QQuickView> m_view;
    QRect m_anchor;
    QRect m_available;
};

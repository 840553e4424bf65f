#include "model/DismissedNotices.h"

DismissedNotices::DismissedNotices(QObject* parent)
    : QObject(parent)
{
    m_undoTimer.setSingleShot(true);
    m_undoTimer.setInterval(undoMilliseconds);
    connect(&m_undoTimer, &QTimer::timeout, this, [this] {
        m_undo.reset();
        Q_EMIT changed();
    });
}

bool DismissedNotices::visible(const Notice& notice) const
{
    const auto found = m_keys.constFind(notice.id);
    return found == m_keys.constEnd() || *found != notice.key;
}

QList<Notice> DismissedNotices::visibleOf(const QList<Notice>& notices) const
{
    QList<Notice> shown;
    for (const Notice& notice : notices) {
        if (visible(notice))
            shown << notice;
    }
    return shown;
}

void DismissedNotices::dismiss(const Notice& notice)
{
    m_keys.insert(notice.id, notice.key);
    m_undo = notice;
    m_undoTimer.start();
    Q_EMIT changed();
}

void DismissedNotices::undoDismiss()
{
    if (!m_undo)
        return;
    m_keys.remove(m_undo->id);
    m_undo.reset();
    m_undoTimer.stop();
    Q_EMIT changed();
}

std::optional<QString> DismissedNotices::undoLine() const
{
    if (!m_undo)
        return std::nullopt;
    return QStringLiteral("Dismissed: ") + m_undo->title;
}

#pragma once

#include "model/Notice.h"

#include <QHash>
#include <QObject>
#include <QTimer>

#include <optional>

/// The notices waved away in this run of the program, and the last one's
/// undo offer. Kept in memory only: after a relaunch every notice is back.
class DismissedNotices : public QObject
{
    Q_OBJECT

public:
    /// How long the undo offer stands.
    static constexpr int undoMilliseconds = 5000;

    explicit DismissedNotices(QObject* parent = nullptr);

    /// Shown unless this very occurrence (its key) was dismissed.
    bool visible(const Notice& notice) const;
    QList<Notice> visibleOf(const QList<Notice>& notices) const;

    void dismiss(const Notice& notice);
    /// Brings the last dismissed notice back, while the offer stands.
    void undoDismiss();

    const std::optional<Notice>& undo() const { return m_undo; }
    /// "Dismissed: " and the notice's title, while the offer stands.
    std::optional<QString> undoLine() const;

Q_SIGNALS:
    void changed();

private:
    QHash<QString, QString> m_keys;
    std::optional<Notice> m_undo;
    QTimer m_undoTimer;
};

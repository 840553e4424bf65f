#pragma once

#include "base/Clock.h"

#include <atomic>

/// A clock that moves only when the test moves it.
class ManualClock final : public Clock
{
public:
    explicit ManualClock(QDateTime start = QDateTime::fromSecsSinceEpoch(1760007200, Qt::UTC))
        : m_msecs(start.toMSecsSinceEpoch())
    {
    }

    QDateTime now() const override { return QDateTime::fromMSecsSinceEpoch(m_msecs.load(), Qt::UTC); }
    void set(const QDateTime& moment) { m_msecs = moment.toMSecsSinceEpoch(); }
    void advance(double seconds) { m_msecs += qint64(seconds * 1000); }

private:
    std::atomic<qint64> m_msecs;
};

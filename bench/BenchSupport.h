#pragma once

// What every benchmark measures with: CPU time, the main thread's timer
// wake-ups, and the real event loop run for a while or until something holds.

#include <QCoreApplication>
#include <QElapsedTimer>
#include <QEvent>
#include <QTimer>

#include <functional>

#include <sys/resource.h>

namespace bench {

/// User and system CPU seconds this process has used.
inline double cpuSeconds()
{
    rusage usage{};
    getrusage(RUSAGE_SELF, &usage);
    return double(usage.ru_utime.tv_sec + usage.ru_stime.tv_sec)
        + double(usage.ru_utime.tv_usec + usage.ru_stime.tv_usec) / 1e6;
}

/// Counts every timer event the main thread delivers, to any object.
class WakeCounter : public QObject
{
public:
    bool eventFilter(QObject*, QEvent* event) override
    {
        if (event->type() == QEvent::Timer)
            ++wakes;
        return false;
    }
    qint64 wakes = 0;
};

/// The event loop, for exactly this long.
inline void runFor(double seconds)
{
    QTimer::singleShot(int(seconds * 1000), QCoreApplication::instance(), &QCoreApplication::quit);
    QCoreApplication::exec();
}

/// The event loop until `done` holds; false when it didn't within the limit.
inline bool waitUntil(const std::function<bool()>& done, int limitMs)
{
    QElapsedTimer waited;
    waited.start();
    while (!done()) {
        if (waited.elapsed() > limitMs)
            return false;
        QCoreApplication::processEvents(QEventLoop::AllEvents | QEventLoop::WaitForMoreEvents, 50);
    }
    return true;
}

} // namespace bench

#pragma once

// What every benchmark measures with: CPU time, the main thread's timer
// wake-ups, and the real event loop run for a while or until something holds.

#include <QCoreApplication>
#include <QElapsedTimer>
#include <QEvent>
#include <QFile>
#include <QJsonDocument>
#include <QJsonObject>
#include <QTimer>

#include <algorithm>
#include <chrono>
#include <functional>
#include <vector>

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

/// A monotonic clock in nanoseconds, comparable across threads.
inline qint64 steadyNanos()
{
    return std::chrono::duration_cast<std::chrono::nanoseconds>(std::chrono::steady_clock::now().time_since_epoch())
        .count();
}

/// The value below which `fraction` of the values lie; 0 for none.
inline double percentile(std::vector<double> values, double fraction)
{
    if (values.empty())
        return 0;
    std::sort(values.begin(), values.end());
    return values.at(std::min(values.size() - 1, size_t(fraction * double(values.size()))));
}

/// One of the real hook payloads the service's tests keep; empty when it can't be read.
inline QJsonObject claudeFixture(const QString& name)
{
    QFile file(QStringLiteral(TIDEWATCH_SOURCE_DIR "/daemon/test/fixtures/claude/") + name);
    if (!file.open(QIODevice::ReadOnly))
        return {};
    return QJsonDocument::fromJson(file.readAll()).object();
}

} // namespace bench

// The whole app against an idle service: the model with its read loop and
// feed, and the status item, with the panel closed. Prints CPU and the
// main thread's timer wake-ups per second beside a bare event loop, then the
// resident memory once the service holds 500 sessions.

#include "AppIdle.h"

#include "../BenchSupport.h"
#include "ScratchFolder.h"
#include "ServiceProcess.h"
#include "base/Clock.h"
#include "model/AppModel.h"
#include "surface/StatusItemController.h"

#include <QCoreApplication>
#include <QElapsedTimer>
#include <QEvent>
#include <QFile>
#include <QJsonArray>
#include <QJsonObject>
#include <QTimer>

#include <cstdio>

#include <sys/resource.h>

namespace {

using bench::cpuSeconds;
using bench::runFor;
using bench::waitUntil;
using bench::WakeCounter;

double residentMegabytes()
{
    QFile status(QStringLiteral("/proc/self/status"));
    if (!status.open(QIODevice::ReadOnly))
        return 0;
    for (const QByteArray& line : status.readAll().split('\n')) {
        if (line.startsWith("VmRSS:"))
            return line.mid(6).trimmed().split(' ').value(0).toDouble() / 1024;
    }
    return 0;
}

QJsonObject session(int index)
{
    return QJsonObject{{QStringLiteral("id"), QStringLiteral("s%1").arg(index)},
        {QStringLiteral("title"), QStringLiteral("Tidy the release notes %1").arg(index)},
        {QStringLiteral("cwd"), QStringLiteral("/home/someone/projects/p%1").arg(index % 40)},
        {QStringLiteral("state"), QStringLiteral("idle")}, {QStringLiteral("lastActivityAt"), 1760000000000.0 + index}};
}

} // namespace

int runAppIdle(double seconds)
{
    ScratchFolder scratch;
    ServiceProcess service(scratch.path());
    if (!service.start()) {
        std::printf("FAILED: the service didn't start: %s\n", qPrintable(service.lastError()));
        return 1;
    }
    WakeCounter counter;
    QCoreApplication::instance()->installEventFilter(&counter);

    double cpu = cpuSeconds();
    counter.wakes = 0;
    runFor(seconds);
    const double bareCpu = cpuSeconds() - cpu;
    const qint64 bareWakes = counter.wakes - 1;

    AppModel model(service.environment(), Clock::system());
    model.setClaudeLook([] { return true; });
    StatusItemController statusItem(model, service.environment());
    statusItem.install();
    model.start();
    if (!waitUntil([&] { return model.feedLive() && model.snapshot(); }, 15000)) {
        std::puts("FAILED: the app never heard the service.");
        return 1;
    }
    // Settled: the first reads and the look for Claude Code are behind it.
    runFor(2);
    cpu = cpuSeconds();
    counter.wakes = 0;
    runFor(seconds);
    const double appCpu = cpuSeconds() - cpu;
    const qint64 appWakes = counter.wakes - 1;

    std::printf("idle for %.0f s, panel closed          %12s %14s\n", seconds, "CPU ms/s", "wakes/s");
    std::printf("  bare event loop                      %12.3f %14.2f\n", bareCpu / seconds * 1000,
        double(bareWakes) / seconds);
    std::printf(
        "  app against an idle service          %12.3f %14.2f\n", appCpu / seconds * 1000, double(appWakes) / seconds);

    const double before = residentMegabytes();
    for (int i = 0; i < 500; ++i)
        service.qa("POST", QStringLiteral("/qa/sessions"), session(i));
    if (!waitUntil([&] { return model.snapshot() && model.snapshot()->sessions.items.size() == 500; }, 30000)) {
        std::puts("FAILED: the 500 sessions never reached the model.");
        return 1;
    }
    runFor(seconds);
    std::printf("resident memory: %.1f MB idle, %.1f MB with 500 sessions after %.0f s\n", before, residentMegabytes(),
        seconds);
    return 0;
}

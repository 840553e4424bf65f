// What the menu bar's planet costs. For each state it runs the animator on
// the real event loop for a while and prints, per second: timer events that
// woke the main thread, ticks, images handed to the button, and CPU time.
// A bare event loop doing nothing runs first as the floor. Then a fixed
// number of ticks on a hand-stepped clock, with no waiting, for callgrind:
//
//   valgrind --tool=callgrind --toggle-collect='MenuBarIconAnimator::tick()' bench_idle --seconds 0
//
// Options: --seconds N (each timed state, default 10), --ticks N (default 100000).
// With --app: the whole app against the real service instead (AppIdle.cpp).

#include "../BenchSupport.h"
#include "AppIdle.h"
#include "base/Clock.h"
#include "surface/MenuBarFrames.h"
#include "surface/MenuBarIconAnimator.h"
#include "surface/StatusButton.h"

#include <QApplication>
#include <QElapsedTimer>
#include <QEvent>
#include <QTimer>

#include <atomic>
#include <cstdio>

#include <sys/resource.h>

namespace {

using bench::cpuSeconds;
using bench::runFor;
using bench::WakeCounter;

/// A button that only counts what it is handed.
class CountingButton final : public StatusButton
{
public:
    void setImage(const MenuBarFrames::Frame&, const MenuBarFrames::Image&) override { ++images; }
    void setTitle(const QString&) override { ++words; }
    void setLabel(const QString&) override { ++words; }
    void setHighlighted(bool) override { }
    void setWide(bool) override { }
    qint64 images = 0;
    qint64 words = 0;
};

class SteppedClock final : public Clock
{
public:
    QDateTime now() const override { return QDateTime::fromMSecsSinceEpoch(msecs, Qt::UTC); }
    qint64 msecs = 1760007200000;
};

MenuBarIconAnimator::Look lookWith(int working, bool reduceMotion, bool seen = true)
{
    MenuBarIconAnimator::Look look;
    look.working = working;
    look.reduceMotion = reduceMotion;
    look.seen = seen;
    return look;
}

void printRow(const char* state, double seconds, qint64 wakes, qint64 ticks, qint64 images, double cpu)
{
    const double per = seconds > 0 ? 1 / seconds : 0;
    std::printf("%-34s %9.1f %9.1f %9.1f %12.3f\n", state, double(wakes) * per, double(ticks) * per,
        double(images) * per, cpu * per * 1000);
}

} // namespace

int main(int argc, char** argv)
{
    QApplication app(argc, argv);
    double seconds = 10;
    qint64 steps = 100000;
    const QStringList args = app.arguments();
    for (int i = 1; i + 1 < args.size(); ++i) {
        if (args[i] == QLatin1StringView("--seconds"))
            seconds = args[i + 1].toDouble();
        else if (args[i] == QLatin1StringView("--ticks"))
            steps = args[i + 1].toLongLong();
    }

    if (args.contains(QLatin1StringView("--app")))
        return runAppIdle(seconds);

    QElapsedTimer building;
    building.start();
    for (const MenuBarFrames::Frame& frame : MenuBarFrames::all())
        MenuBarFrames::shared().image(frame);
    std::printf("building the 37 images once: %.1f ms\n\n", double(building.nsecsElapsed()) / 1e6);

    WakeCounter counter;
    app.installEventFilter(&counter);

    if (seconds > 0) {
        std::printf("%-34s %9s %9s %9s %12s\n", "per second", "wakes", "ticks", "images", "CPU ms");
        {
            const double cpu = cpuSeconds();
            counter.wakes = 0;
            runFor(seconds);
            printRow("bare event loop", seconds, counter.wakes - 1, 0, 0, cpuSeconds() - cpu);
        }
        struct State {
            const char* name;
            MenuBarIconAnimator::Look look;
        };
        const State states[] = {
            {"idle, service up", lookWith(0, false)},
            {"two sessions working", lookWith(2, false)},
            {"working, Reduce Motion", lookWith(2, true)},
            {"working, screen locked", lookWith(2, false, false)},
        };
        for (const State& state : states) {
            CountingButton button;
            MenuBarIconAnimator icon(Clock::system());
            icon.setButton(&button);
            icon.apply(state.look);
            button.images = 0;
            const double cpu = cpuSeconds();
            counter.wakes = 0;
            runFor(seconds);
            // The animator's timer is the only other one: each of its wakes is a tick.
            printRow(state.name, seconds, counter.wakes - 1, counter.wakes - 1, button.images, cpuSeconds() - cpu);
        }
        std::printf("\n(wakes leave out the one timer that ends each run)\n\n");
    }

    // Ticks back to back on a clock stepped by hand: the work of a tick alone.
    CountingButton button;
    SteppedClock clock;
    MenuBarIconAnimator icon(clock);
    icon.setButton(&button);
    icon.apply(lookWith(2, false));
    button.images = 0;
    QElapsedTimer timing;
    timing.start();
    for (qint64 i = 0; i < steps; ++i) {
        clock.msecs += 75;
        icon.tick();
    }
    const double nanos = double(timing.nsecsElapsed());
    std::printf("%lld ticks while turning: %.0f ns a tick, %lld images handed over (%.1f%% of ticks)\n",
        static_cast<long long>(steps), steps > 0 ? nanos / double(steps) : 0.0, static_cast<long long>(button.images),
        steps > 0 ? 100.0 * double(button.images) / double(steps) : 0.0);
    return 0;
}

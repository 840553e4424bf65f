#include "app/OneShot.h"

#include "app/FeedSelfTest.h"
#include "app/StreamSelfTest.h"
#include "awake/BackpackSetup.h"
#include "awake/BackpackSteps.h"
#include "base/UserAccount.h"
#include "setup/NodeInstaller.h"
#include "setup/ServiceInstaller.h"
#include "setup/ServiceSteps.h"

#include <QSemaphore>
#include <QThreadPool>

#include <cstdio>

namespace {

void printLine(const QString& line)
{
    std::fputs(line.toLocal8Bit().constData(), stdout);
    std::fputc('\n', stdout);
    std::fflush(stdout);
}

// A switch the program knows but whose work this build doesn't carry yet.
int notInThisBuild(const char* name)
{
    printLine(QStringLiteral("Tidewatch: this build doesn’t do %1 yet.").arg(QLatin1StringView(name)));
    return 1;
}

// The download check: a real install into folder, told line by line, with
// the percentage every ten points.
int downloadNode(const QString& folder)
{
    int lastPercent = -10;
    NodeInstaller::Observer observer;
    observer.line = printLine;
    observer.progress = [&lastPercent](double fraction) {
        const int percent = int(fraction * 100);
        if (percent - lastPercent < 10)
            return;
        lastPercent = percent;
        printLine(QStringLiteral("downloading… %1%").arg(percent));
    };
    const Outcome<QString> installed
        = NodeInstaller::install(folder, NodeInstaller::configuredSite(Environment::current()), observer);
    if (!installed.ok()) {
        printLine(QStringLiteral("FAILED: ") + installed.sentence());
        return 1;
    }
    printLine(installed.value());
    return 0;
}

// One setup action without a window; a script reads its lines as they come.
int runStep(const QString& name)
{
    const Environment& environment = Environment::current();
    if (name == QLatin1StringView("backpack"))
        return BackpackSteps::setUp(environment, account::userName(), printLine);
    if (name == QLatin1StringView("uninstall-backpack"))
        return BackpackSteps::remove(environment, printLine);
    if (name == QLatin1StringView("service"))
        return ServiceSteps::service(ServiceInstaller(), printLine);
    if (name == QLatin1StringView("integration"))
        return ServiceSteps::integration(environment, printLine);
    if (name == QLatin1StringView("tailscale"))
        return ServiceSteps::tailscale(environment, printLine);
    if (name == QLatin1StringView("uninstall-service"))
        return ServiceSteps::uninstallService(ServiceInstaller(), printLine);
    printLine(QStringLiteral("Unknown step '%1'. Use one of: %2")
                  .arg(name, CommandLine::runStepNames().join(QStringLiteral(", "))));
    return 64;
}

} // namespace

int runOffMainThread(const std::function<int()>& work)
{
    struct Box {
        int code = 1;
    } box;
    QSemaphore done;
    QThreadPool::globalInstance()->start([&] {
        box.code = work();
        done.release();
    });
    done.acquire();
    return box.code;
}

int runOneShot(const CommandLine& line)
{
    using Work = CommandLine::Work;
    switch (line.work) {
    case Work::Normal:
        return 0;
    case Work::RunStepUsage:
        printLine(CommandLine::runStepUsage());
        return 64;
    case Work::Stream:
        return runOffMainThread(runStreamSelfTest);
    case Work::SelfTest:
        return notInThisBuild("--selftest");
    case Work::RunStep:
        return runOffMainThread([&line] { return runStep(*line.value); });
    case Work::RenderIconset:
        return 1; // drawn by the program's entry, which has the screen library
    case Work::NodeDownload:
        return runOffMainThread([&line] { return downloadNode(*line.value); });
    case Work::SdkFetch:
        return runOffMainThread([&line] {
            return ServiceSteps::sdkFetchCheck(Environment::current(), line.value, line.nodePath, printLine);
        });
    case Work::BackpackScripts: {
        // Prints, runs nothing.
        const auto [text, nameable] = BackpackSetup::printScripts(account::userName());
        printLine(text);
        return nameable ? 0 : 1;
    }
    case Work::WindowCapture:
        return notInThisBuild("--window-capture-selftest");
    case Work::Snapshots:
        return notInThisBuild("--snapshots");
    case Work::FeedSelfTest:
        return runFeedSelfTest(line.seconds, line.signIn, line.open);
    case Work::LensGuideSelfTest:
        return notInThisBuild("--lens-guide-selftest");
    case Work::RenderLensGuide:
        return notInThisBuild("--render-lens-guide");
    case Work::RenderPopover:
        return notInThisBuild("--render-popover");
    }
    return 1;
}

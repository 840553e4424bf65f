#include "app/DebugCapture.h"
#include "app/OneShot.h"
#include "entry/CommandLine.h"
#include "entry/Environment.h"
#include "model/AppModel.h"
#include "platform/Platform.h"
#include "setup/MoveToApplications.h"
#include "surface/BundledFonts.h"
#include "surface/IconsetRender.h"
#include "surface/MenuPanel.h"
#include "surface/PopoverRender.h"
#include "surface/StatusItemController.h"

#include <QApplication>
#include <QCoreApplication>
#include <QElapsedTimer>
#include <QFile>
#include <QGuiApplication>

#include <cstdio>
#include <optional>

namespace {

QStringList argumentList(int argc, char** argv)
{
    QStringList list;
    for (int i = 0; i < argc; ++i)
        list << QString::fromLocal8Bit(argv[i]);
    return list;
}

// The app as launched, checked from inside: once the service was read, the
// panel opens and the page it shows is written to the report, one line each.
int runPopoverSelfTest(AppModel& model, MenuPanel& panel, const QString& reportPath)
{
    QElapsedTimer waited;
    waited.start();
    while (!model.firstPollDone() && waited.elapsed() < 20000)
        QCoreApplication::processEvents(QEventLoop::AllEvents | QEventLoop::WaitForMoreEvents, 50);
    QStringList report;
    bool ok = model.firstPollDone();
    report << (ok ? QStringLiteral("read: done") : QStringLiteral("read: the service was never read"));
    panel.open(QRect());
    ok = ok && panel.isOpen();
    report << (panel.isOpen() ? QStringLiteral("panel: open") : QStringLiteral("panel: didn’t open"));
    panel.close();
    QString error;
    if (const std::optional<PopoverRender::Rendered> page = PopoverRender::render(model, Clock::system(), &error))
        report << QStringLiteral("page:") << page->twin;
    else {
        report << QStringLiteral("page: ") + error;
        ok = false;
    }
    QFile file(reportPath);
    if (!file.open(QIODevice::WriteOnly | QIODevice::Truncate)
        || file.write((report.join(QLatin1Char('\n')) + QLatin1Char('\n')).toUtf8()) < 0) {
        std::printf("Tidewatch: couldn’t write the report %s.\n", qPrintable(reportPath));
        return 1;
    }
    return ok ? 0 : 1;
}

int startApplication(const CommandLine& line, int& argc, char** argv)
{
    platform::drawOffscreenWithoutDisplay();
    QApplication application(argc, argv);
    QApplication::setApplicationName(QStringLiteral("Tidewatch"));
    QApplication::setQuitOnLastWindowClosed(false);
    BundledFonts::load(BundledFonts::folder());

    // A test copy, and the copy relaunched from Applications, run beside the real one.
    // A second launch of the real one shows this one's panel instead.
    const Environment& environment = Environment::current();
    MenuPanel* shownPanel = nullptr;
    if (!environment.isTestCopy() && !line.moved && platform::handOverToRunningInstance(&application, [&shownPanel] {
            if (shownPanel)
                shownPanel->open(QRect());
        }))
        return 0;
    platform::becomeAccessory();

    AppModel model(environment, Clock::system());
    QObject::connect(&model, &AppModel::quitWanted, &application, &QCoreApplication::quit);
    StatusItemController statusItem(model, environment);
    MenuPanel panel(model, Clock::system());
    shownPanel = &panel;
    QObject::connect(&statusItem, &StatusItemController::clicked, &panel, &MenuPanel::toggle);
    QObject::connect(&panel, &MenuPanel::openChanged, &statusItem, &StatusItemController::setPanelOpen);
    statusItem.install();
    model.start();
    if (line.popoverSelfTestReport)
        return runPopoverSelfTest(model, panel, *line.popoverSelfTestReport);

    std::optional<DebugCapture> capture;
    if (const std::optional<QString> folder = environment.debugCaptureFolder()) {
        capture.emplace(model, panel, statusItem, Clock::system(), *folder);
        capture->start();
    }
    // The move comes after the status item, so the person sees what asks to be moved.
    if (MoveToApplications::offerAtStart(environment))
        return 0;
    // The setup window opens here, once there is one, when setupCompleted is false.
    return application.exec();
}

} // namespace

int main(int argc, char** argv)
{
    const CommandLine line = CommandLine::scan(argumentList(argc, argv));
    // Drawing wants the screen library, which the one-shot work below never links.
    if (line.work == CommandLine::Work::RenderIconset) {
        platform::drawOffscreenWithoutDisplay();
        QGuiApplication application(argc, argv);
        return renderIconset(*line.value);
    }
    if (line.work == CommandLine::Work::RenderPopover || line.work == CommandLine::Work::Snapshots) {
        platform::drawOffscreenWithoutDisplay();
        QApplication application(argc, argv);
        BundledFonts::load(BundledFonts::folder());
        return line.work == CommandLine::Work::Snapshots
            ? PopoverRender::renderSnapshots(*line.value)
            : PopoverRender::renderPopover(*line.value, line.live, line.page.value_or(QString()));
    }
    if (line.isOneShot()) {
        QCoreApplication application(argc, argv);
        return runOneShot(line);
    }
    return startApplication(line, argc, argv);
}

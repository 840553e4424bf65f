#include "entry/CommandLine.h"
#include "entry/Environment.h"
#include "entry/OneShot.h"
#include "model/AppModel.h"
#include "platform/Platform.h"
#include "surface/IconsetRender.h"
#include "surface/MenuPanel.h"
#include "surface/PopoverRender.h"
#include "surface/StatusItemController.h"

#include <QApplication>
#include <QCoreApplication>
#include <QGuiApplication>

#include <cstdio>

namespace {

QStringList argumentList(int argc, char** argv)
{
    QStringList list;
    for (int i = 0; i < argc; ++i)
        list << QString::fromLocal8Bit(argv[i]);
    return list;
}

// With no screen to show on (a server, CI) the program still runs, drawing offscreen.
void chooseHeadlessWhenNoDisplay()
{
#if !defined(Q_OS_MACOS)
    if (qEnvironmentVariableIsEmpty("QT_QPA_PLATFORM") && qEnvironmentVariableIsEmpty("DISPLAY")
        && qEnvironmentVariableIsEmpty("WAYLAND_DISPLAY"))
        qputenv("QT_QPA_PLATFORM", "offscreen");
#endif
}

int startApplication(const CommandLine& line, int& argc, char** argv)
{
    chooseHeadlessWhenNoDisplay();
    QApplication application(argc, argv);
    QApplication::setApplicationName(QStringLiteral("Tidewatch"));
    QApplication::setQuitOnLastWindowClosed(false);

    // A test copy, and the copy relaunched from Applications, run beside the real one.
    const Environment& environment = Environment::current();
    if (!environment.isTestCopy() && !line.moved && platform::handOverToRunningInstance(&application, [] {}))
        return 0;
    platform::becomeAccessory();

    if (line.popoverSelfTestReport) {
        std::puts("Tidewatch: this build doesn’t do --popover-selftest yet.");
        return 1;
    }

    AppModel model(environment, Clock::system());
    StatusItemController statusItem(model, environment);
    MenuPanel panel(model, Clock::system());
    QObject::connect(&statusItem, &StatusItemController::clicked, &panel, &MenuPanel::toggle);
    QObject::connect(&panel, &MenuPanel::openChanged, &statusItem, &StatusItemController::setPanelOpen);
    statusItem.install();
    model.start();
    return application.exec();
}

} // namespace

int main(int argc, char** argv)
{
    const CommandLine line = CommandLine::scan(argumentList(argc, argv));
    // Drawing wants the screen library, which the one-shot work below never links.
    if (line.work == CommandLine::Work::RenderIconset) {
        chooseHeadlessWhenNoDisplay();
        QGuiApplication application(argc, argv);
        return renderIconset(*line.value);
    }
    if (line.work == CommandLine::Work::RenderPopover || line.work == CommandLine::Work::Snapshots) {
        chooseHeadlessWhenNoDisplay();
        QApplication application(argc, argv);
        return line.work == CommandLine::Work::Snapshots ? PopoverRender::renderSnapshots(*line.value)
                                                         : PopoverRender::renderPopover(*line.value, line.live);
    }
    if (line.isOneShot()) {
        QCoreApplication application(argc, argv);
        return runOneShot(line);
    }
    return startApplication(line, argc, argv);
}

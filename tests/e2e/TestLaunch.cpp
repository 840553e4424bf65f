#include "app/DebugCapture.h"
#include "surface/MenuPanel.h"
#include "surface/StatusButton.h"
#include "surface/StatusItemController.h"

#include "Launch.h"
#include "LiveModel.h"
#include "RealPlaces.h"
#include "ScratchFolder.h"

#include <QApplication>
#include <QFile>
#include <QProcess>
#include <QSignalSpy>
#include <QTest>

using namespace Qt::StringLiterals;

namespace {

bool isPng(const QString& path)
{
    QFile file(path);
    return file.open(QIODevice::ReadOnly) && file.read(8) == QByteArray("\x89PNG\r\n\x1a\n", 8);
}

const QStringList kMissingWindows{u"providers: this build has no such window, nothing drawn"_s,
    u"providers editor: this build has no such window, nothing drawn"_s,
    u"setup: this build has no such window, nothing drawn"_s};

} // namespace

/// The built program launched as a person's machine runs it: its one-shot
/// switches, a second copy handing over to the first, and the debug capture
/// tour against the real service as a test copy, with what it writes.
class TestLaunch : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void oneShotExitCodes_data();
    void oneShotExitCodes();
    void secondLaunchHandsOver();
    void theLaunchedAppWalksTheTourAndStaysUp();
    void theTourFindsTheItemWhereItStands();
};

void TestLaunch::oneShotExitCodes_data()
{
    QTest::addColumn<QStringList>("arguments");
    QTest::addColumn<int>("code");
    QTest::addColumn<QString>("output");

    QTest::newRow("--run-step last prints the one usage line and exits 64")
        << QStringList{QStringLiteral("--run-step")} << 64
        << "Usage: Tidewatch --run-step "
           "<service|integration|tailscale|uninstall-service|backpack|uninstall-backpack>\n";
    QTest::newRow("a switch whose work isn't in this build fails, never succeeds")
        << QStringList{QStringLiteral("--window-capture-selftest")} << 1 << QString();
    QTest::newRow("a render into a folder that can't be made fails")
        << QStringList{QStringLiteral("--render-popover"), QStringLiteral("/proc/no/such/folder")} << 1 << QString();
    QTest::newRow("the streaming check passes") << QStringList{QStringLiteral("--selftest-stream")} << 0 << QString();
    QTest::newRow("the Backpack scripts are printed, nothing is run")
        << QStringList{QStringLiteral("--backpack-scripts")} << 0 << QString();
}

void TestLaunch::oneShotExitCodes()
{
    QFETCH(QStringList, arguments);
    QFETCH(int, code);
    QFETCH(QString, output);
    ScratchFolder scratch;
    const LaunchResult outcome = launch(arguments, launchEnvironment(scratch));
    QVERIFY2(outcome.code == code, qPrintable(outcome.output));
    if (!output.isEmpty())
        QCOMPARE(outcome.output, output);
}

void TestLaunch::secondLaunchHandsOver()
{
    ScratchFolder scratch;
    const QProcessEnvironment real = launchEnvironment(scratch);

    QProcess first;
    first.setProcessEnvironment(real);
    first.start(QStringLiteral(TIDEWATCH_BINARY), {});
    QVERIFY(first.waitForStarted());
    // The first copy owns the lock once its socket is listening.
    QTRY_VERIFY_WITH_TIMEOUT(QFile::exists(scratch.file(QStringLiteral("runtime/tidewatch.socket"))), 20000);

    const LaunchResult second = launch({}, real, 20000);
    QCOMPARE(second.code, 0);
    QCOMPARE(first.state(), QProcess::Running);

    // A copy relaunched from Applications, and a test copy, run beside it.
    for (const QProcessEnvironment& beside : {real,
             launchEnvironment(scratch, {{QStringLiteral("TIDEWATCH_LOGS"), scratch.file(QStringLiteral("logs/"))}})}) {
        QProcess other;
        other.setProcessEnvironment(beside);
        other.start(QStringLiteral(TIDEWATCH_BINARY),
            beside.contains(QStringLiteral("TIDEWATCH_LOGS")) ? QStringList{} : QStringList{QStringLiteral("--moved")});
        QVERIFY(other.waitForStarted());
        QVERIFY2(!other.waitForFinished(1500), "a copy that may run beside the first ended");
        other.kill();
        other.waitForFinished();
    }

    first.kill();
    first.waitForFinished();
}

void TestLaunch::theLaunchedAppWalksTheTourAndStaysUp()
{
    LiveModel live;
    QVERIFY(live.ok());
    live.seed(
        R"([["/qa/sessions", {"id": "w1", "title": "Tour session", "state": "working", "lastActivityAt": "@now"}]])");
    // Folders that aren't there yet: the capture makes them with their parents.
    const QString folder = live.scratch.path() + u"/capture/deep/er"_s;
    QHash<QString, QString> variables = live.service.variables();
    variables.insert(u"TIDEWATCH_DEBUG_CAPTURE"_s, folder);

    QProcess app;
    app.setProcessEnvironment(launchEnvironment(live.scratch, variables));
    app.setProcessChannelMode(QProcess::MergedChannels);
    app.start(QStringLiteral(TIDEWATCH_BINARY), {});
    QVERIFY(app.waitForStarted());
    // The tour waits its 6 seconds for the first reads to settle.
    QTRY_VERIFY_WITH_TIMEOUT(QFile::exists(folder + u"/report.txt"_s), 40000);

    // The offscreen platform has no tray, so the item has no place to be found at.
    const QStringList report = textLines(folder + u"/report.txt"_s);
    QCOMPARE(report,
        QStringList({u"status item: NOT found"_s, u"popover: open"_s, u"live-popover.png: written"_s})
            + kMissingWindows);
    QVERIFY(isPng(folder + u"/live-popover.png"_s));
    const QStringList twin = textLines(folder + u"/live-popover.txt"_s);
    QVERIFY2(twin.contains(u"Tour session"_s), qPrintable(twin.join(u'\n')));

    QVERIFY2(!app.waitForFinished(1500), qPrintable(u"the tour ended the app: "_s + app.readAll()));
    app.kill();
    app.waitForFinished();
}

void TestLaunch::theTourFindsTheItemWhereItStands()
{
    LiveModel live;
    QVERIFY(live.ok());
    QVERIFY(live.startModel());
    StatusItemController item(
        live.model(), live.model().environment(),
        [](const QString&) {
            return StatusButton::unseen({1204, 0, 24, 22});
        },
        Clock::system());
    item.install();
    MenuPanel panel(live.model(), Clock::system());
    const QString folder = live.scratch.path() + u"/capture"_s;
    DebugCapture capture(live.model(), panel, item, Clock::system(), folder, std::chrono::milliseconds(0));
    QSignalSpy finished(&capture, &DebugCapture::finished);
    capture.start();
    QVERIFY(finished.wait(20000));

    QCOMPARE(textLines(folder + u"/report.txt"_s),
        QStringList({u"status item: found (1204,0 24x22)"_s, u"popover: open"_s, u"live-popover.png: written"_s})
            + kMissingWindows);
    QVERIFY(isPng(folder + u"/live-popover.png"_s));
    QVERIFY2(!panel.isOpen(), "a panel the tour opened is closed again");
}

TIDEWATCH_E2E_MAIN_WITH(QApplication, TestLaunch)
#include "TestLaunch.moc"

#include "Launch.h"
#include "RealPlaces.h"
#include "ScratchFolder.h"

#include <QProcess>
#include <QTest>

class TestLaunch : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void oneShotExitCodes_data();
    void oneShotExitCodes();
    void secondLaunchHandsOver();
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

TIDEWATCH_E2E_MAIN(TestLaunch)
#include "TestLaunch.moc"

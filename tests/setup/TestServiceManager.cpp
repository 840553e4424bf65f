#include "setup/ServiceInstaller.h"
#include "setup/ServiceManager.h"

#include <QTest>

using Kind = platform::ServiceManagerKind;
using Step = ServiceInstaller::Progress::Step;

Q_DECLARE_METATYPE(Kind)
Q_DECLARE_METATYPE(Step)

namespace {

const QString kLabel = QStringLiteral("com.harbourlab.tidewatch.daemon");

ServiceManager managerFor(Kind kind, bool testCopy)
{
    const QString tool
        = kind == Kind::Launchd ? QStringLiteral("/bin/launchctl") : QStringLiteral("/usr/bin/systemctl");
    const QString file = kind == Kind::Launchd ? QStringLiteral("/Users/p/Library/LaunchAgents/") + kLabel + ".plist"
                                               : QStringLiteral("/t/support/systemd/") + kLabel + ".service";
    return ServiceManager(kind, tool, {kLabel, file, 501, testCopy});
}

QStringList spelled(const QList<ServiceManager::Command>& commands)
{
    QStringList lines;
    for (const ServiceManager::Command& command : commands) {
        lines << QStringLiteral("%1 %2 (%3 s)")
                     .arg(command.program, command.arguments.join(QLatin1Char(' ')))
                     .arg(command.limitSeconds);
    }
    return lines;
}

} // namespace

/// The command lines of launchctl and systemctl --user for the service's
/// job, and the reading of what the tools answer.
class TestServiceManager : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void commands_data();
    void commands();
    void readings_data();
    void readings();
    void noUserSession_data();
    void noUserSession();
    void progressLines_data();
    void progressLines();
};

void TestServiceManager::commands_data()
{
    QTest::addColumn<Kind>("kind");
    QTest::addColumn<bool>("testCopy");
    QTest::addColumn<QString>("operation");
    QTest::addColumn<QStringList>("expected");

    const QString unit = kLabel + QStringLiteral(".service");
    // The test copy's and launchd's lines are proven against the fake manager end to end.
    QTest::newRow("systemd stops and disables") << Kind::Systemd << false << "unload"
                                                << QStringList{"/usr/bin/systemctl --user stop " + unit + " (15 s)",
                                                       "/usr/bin/systemctl --user disable " + unit + " (15 s)"};
    QTest::newRow("a test copy's runtime link goes with disable --runtime")
        << Kind::Systemd << true << "unload"
        << QStringList{"/usr/bin/systemctl --user stop " + unit + " (15 s)",
               "/usr/bin/systemctl --user disable --runtime " + unit + " (15 s)"};
    QTest::newRow("systemd reloads, then enables and starts at once")
        << Kind::Systemd << false << "load"
        << QStringList{"/usr/bin/systemctl --user daemon-reload (15 s)",
               "/usr/bin/systemctl --user enable --now " + unit + " (15 s)"};
}

void TestServiceManager::commands()
{
    QFETCH(Kind, kind);
    QFETCH(bool, testCopy);
    QFETCH(QString, operation);
    QFETCH(QStringList, expected);
    const ServiceManager manager = managerFor(kind, testCopy);
    QCOMPARE(spelled(operation == QLatin1StringView("load") ? manager.load() : manager.unload()), expected);
}

void TestServiceManager::readings_data()
{
    QTest::addColumn<Kind>("kind");
    QTest::addColumn<int>("status");
    QTest::addColumn<bool>("timedOut");
    QTest::addColumn<QString>("output");
    QTest::addColumn<bool>("knows");
    QTest::addColumn<bool>("letGo");
    QTest::addColumn<int>("pid");

    QTest::newRow("launchd: a running job")
        << Kind::Launchd << 0 << false << "gui/501/x = {\n\tstate = running\n\tpid = 4242\n}" << true << false << 4242;
    QTest::newRow("launchd: loaded, waiting to run again")
        << Kind::Launchd << 0 << false << "gui/501/x = {\n\tstate = waiting\n}" << true << false << -1;
    QTest::newRow("launchd: no such job")
        << Kind::Launchd << 113 << false << "Could not find service \"x\" in domain for user gui: 501" << false << true
        << -1;
    QTest::newRow("launchd: print ran out of time") << Kind::Launchd << 0 << true << "pid = 77" << false << true << -1;
    QTest::newRow("systemd: running") << Kind::Systemd << 0 << false
                                      << "LoadState=loaded\nActiveState=active\nMainPID=918" << true << false << 918;
    QTest::newRow("systemd: properties in the manager's own order")
        << Kind::Systemd << 0 << false << "MainPID=918\nActiveState=active\nLoadState=loaded" << true << false << 918;
    QTest::newRow("systemd: between restarts the job is still kept")
        << Kind::Systemd << 0 << false << "LoadState=loaded\nActiveState=activating\nMainPID=0" << true << false << -1;
    QTest::newRow("systemd: stopping is not yet let go")
        << Kind::Systemd << 0 << false << "LoadState=loaded\nActiveState=deactivating\nMainPID=918" << true << false
        << 918;
    QTest::newRow("systemd: a stopped unit is known to the manager but kept by nobody")
        << Kind::Systemd << 0 << false << "LoadState=loaded\nActiveState=inactive\nMainPID=0" << false << true << -1;
    QTest::newRow("systemd: a unit that gave up")
        << Kind::Systemd << 0 << false << "LoadState=loaded\nActiveState=failed\nMainPID=0" << false << true << -1;
    QTest::newRow("systemd answers show for any name: not-found is unknown")
        << Kind::Systemd << 0 << false << "LoadState=not-found\nActiveState=inactive\nMainPID=0" << false << true << -1;
    QTest::newRow("systemd: no bus to ask") << Kind::Systemd << 1 << false << "" << false << true << -1;
}

void TestServiceManager::readings()
{
    QFETCH(Kind, kind);
    QFETCH(int, status);
    QFETCH(bool, timedOut);
    QFETCH(QString, output);
    QFETCH(bool, knows);
    QFETCH(bool, letGo);
    QFETCH(int, pid);
    const ServiceManager manager = managerFor(kind, false);
    const ShellResult probe{status, output, QString(), timedOut};
    QCOMPARE(manager.knows(probe), knows);
    QCOMPARE(manager.hasLetGo(probe), letGo);
    QCOMPARE(manager.pid(probe), pid < 0 ? std::nullopt : std::optional<int>(pid));
}

void TestServiceManager::noUserSession_data()
{
    QTest::addColumn<QString>("said");
    QTest::addColumn<bool>("noSession");

    // What systemctl 252 (Debian 12) prints in a container, and what others print.
    QTest::newRow("no bus at all") << "Failed to connect to bus: No medium found" << true;
    QTest::newRow("no runtime folder")
        << "Failed to connect to bus: $DBUS_SESSION_BUS_ADDRESS and $XDG_RUNTIME_DIR not defined (consider using "
           "--machine=<user>@.host --user to connect to bus of other user)"
        << true;
    QTest::newRow("newer systemd's words")
        << "Failed to connect to user scope bus via local transport: No such file or directory" << true;
    QTest::newRow("a unit that fails is no missing session")
        << "Job for x.service failed because the control process exited with error code." << false;
}

void TestServiceManager::noUserSession()
{
    QFETCH(QString, said);
    QFETCH(bool, noSession);
    QCOMPARE(ServiceManager::noUserSession(ShellResult{1, QString(), said, false}), noSession);
}

void TestServiceManager::progressLines_data()
{
    QTest::addColumn<Kind>("kind");
    QTest::addColumn<Step>("step");
    QTest::addColumn<QString>("line");

    // systemd's lines are proven by the run steps' own output.
    QTest::newRow("getting Node.js") << Kind::Launchd << Step::GettingNode
                                     << "  getting Node.js (no stable one on this computer)";
    QTest::newRow("the launch agent") << Kind::Launchd << Step::Writing << "  writing the launch agent";
    QTest::newRow("launchd's start") << Kind::Launchd << Step::Starting << "  launchctl bootout + bootstrap";
    QTest::newRow("waiting prints nothing") << Kind::Launchd << Step::Waiting << "";
}

void TestServiceManager::progressLines()
{
    QFETCH(Kind, kind);
    QFETCH(Step, step);
    QFETCH(QString, line);
    QCOMPARE(ServiceInstaller::progressLine({step, std::nullopt}, managerFor(kind, false)), line);
}

QTEST_GUILESS_MAIN(TestServiceManager)
#include "TestServiceManager.moc"

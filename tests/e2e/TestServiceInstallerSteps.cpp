#include "FakeManager.h"
#include "FreePorts.h"
#include "Launch.h"
#include "NodeSite.h"
#include "RealPlaces.h"
#include "ScratchFolder.h"
#include "ServiceBundle.h"
#include "ServiceProcess.h"

#include "base/Clock.h"
#include "base/UserAccount.h"
#include "entry/Preferences.h"
#include "model/AppModel.h"
#include "platform/Platform.h"
#include "setup/ClaudeSDK.h"
#include "setup/ServiceInstaller.h"
#include "setup/ServiceSteps.h"

#include <QDir>
#include <QFile>
#include <QJsonDocument>
#include <QJsonObject>
#include <QRegularExpression>
#include <QSysInfo>
#include <QTest>
#include <QTimer>

#include <csignal>

using namespace Qt::StringLiterals;

using Kind = platform::ServiceManagerKind;
using Step = ServiceInstaller::Progress::Step;

namespace {

bool alive(int pid)
{
    return pid > 0 && ::kill(pid_t(pid), 0) == 0;
}

QStringList lines(const QString& output)
{
    return output.split(QLatin1Char('\n'), Qt::SkipEmptyParts);
}

} // namespace

/// The headless steps as a script runs them: the built program, copied with
/// a service bundle of its own, installs its test copy's service from
/// nothing (Node.js from a local site, the SDK from npm, a systemd that
/// behaves like the real one), updates it, has the app's model find that
/// its Node.js went away, repair and restart it, and takes it off again;
/// and the Backpack steps on a scratch rule that the real visudo checks.
class TestServiceInstallerSteps : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void initTestCase();
    void cleanupTestCase();

    void refusalsComeFirst_data();
    void refusalsComeFirst();
    void serviceFromNothing();
    void updateKeepsTheSdk();
    void repairBringsBackAServiceWhoseNodeIsGone();
    void uninstallLeavesTheDataAndNothingElse();
    void sdkFetchCheckFetchesForReal();
    void backpackRemoveRestoresWhatItFound_data();
    void backpackRemoveRestoresWhatItFound();
    void backpackSetUpTwiceAsksOnce();

private:
    LaunchResult run(const QStringList& arguments, const QHash<QString, QString>& extra = {});
    /// A Backpack step where nothing answers on the ports: the service is down throughout.
    LaunchResult backpack(const QString& step, const QHash<QString, QString>& extra = {});
    QString rule() const { return m_scratch->file(QStringLiteral("sudoers.d/tidewatch")); }
    Environment environment() const;
    ServiceInstaller installer() const;

    std::unique_ptr<ScratchFolder> m_scratch;
    std::unique_ptr<FakeManager> m_manager;
    std::unique_ptr<NodeSite> m_site;
    QString m_program;
    QString m_bundle;
    QHash<QString, QString> m_variables;
};

void TestServiceInstallerSteps::initTestCase()
{
    m_scratch = std::make_unique<ScratchFolder>();
    m_manager = std::make_unique<FakeManager>(*m_scratch);
    m_site = std::make_unique<NodeSite>(*m_scratch);
    QVERIFY2(m_site->isValid(), qPrintable(m_site->problem()));
    m_program = installProgramCopy(*m_scratch, QStringLiteral("install"));
    m_bundle = QFileInfo(m_program).dir().absoluteFilePath(QStringLiteral("../share/tidewatch/daemon"));
    const QList<int> ports = freePorts(2);
    m_variables = {{QStringLiteral("TIDEWATCH_SUPPORT"), m_scratch->file(QStringLiteral("support"))},
        {QStringLiteral("TIDEWATCH_API_PORT"), QString::number(ports.value(0))},
        {QStringLiteral("TIDEWATCH_LOCAL_PORT"), QString::number(ports.value(1))}};

    // The test copy's own preferences name the site and the outside tools;
    // no folder here holds a Node.js that stays put.
    Preferences preferences(environment());
    preferences.setText(QStringLiteral("nodeDistributionSite"), m_site->base().toString());
    preferences.setText(QStringLiteral("outsideTools/systemctl"), m_manager->systemctl());
    preferences.setText(QStringLiteral("outsideTools/serviceManager"), QStringLiteral("systemd"));
    preferences.setText(QStringLiteral("outsideTools/nodeFolders"), m_scratch->file(QStringLiteral("no-node")));
    m_scratch->write(u"bin/pmset"_s,
        QStringLiteral("#!/bin/sh\necho \"$@\" >> '%1'\n").arg(m_scratch->file(u"pmset-calls"_s)).toUtf8(), 0755);
}

void TestServiceInstallerSteps::cleanupTestCase()
{
    m_manager.reset();
    m_site.reset();
    m_scratch.reset();
}

Environment TestServiceInstallerSteps::environment() const
{
    // As the launched program sees itself: the launch's variables, the real home.
    const QProcessEnvironment launched = launchEnvironment(*m_scratch, m_variables);
    QHash<QString, QString> variables;
    for (const QString& key : launched.keys())
        variables.insert(key, launched.value(key));
    return Environment(variables, account::homeDirectory());
}

ServiceInstaller TestServiceInstallerSteps::installer() const
{
    ServiceInstaller::Parts parts;
    parts.environment = environment();
    parts.tools = OutsideTools::current(parts.environment);
    parts.bundledDaemon = m_bundle;
    return ServiceInstaller(parts);
}

LaunchResult TestServiceInstallerSteps::run(const QStringList& arguments, const QHash<QString, QString>& extra)
{
    QHash<QString, QString> variables = m_variables;
    variables.insert(extra);
    return launch(arguments, launchEnvironment(*m_scratch, variables), 150000, m_program);
}

LaunchResult TestServiceInstallerSteps::backpack(const QString& step, const QHash<QString, QString>& extra)
{
    QHash<QString, QString> variables{{u"TIDEWATCH_SUPPORT"_s, m_scratch->file(u"backpack"_s)},
        {u"TIDEWATCH_API_PORT"_s, u"9"_s}, {u"TIDEWATCH_LOCAL_PORT"_s, u"9"_s}, {u"TIDEWATCH_SUDOERS"_s, rule()},
        {u"TIDEWATCH_PMSET"_s, m_scratch->file(u"bin/pmset"_s)}};
    variables.insert(extra);
    return run({u"--run-step"_s, step}, variables);
}

void TestServiceInstallerSteps::refusalsComeFirst_data()
{
    QTest::addColumn<QString>("step");
    QTest::addColumn<QString>("apiPort");
    QTest::addColumn<QString>("sudoers");
    QTest::addColumn<int>("code");
    QTest::addColumn<QString>("said");

    const QString ports = QStringLiteral(
        "FAILED: This test copy needs ports of its own. Set TIDEWATCH_API_PORT and TIDEWATCH_LOCAL_PORT to two other "
        "free ports (47371 and 47372, say) before it manages a background service.");
    const QString none;
    QTest::newRow("installing on the real port") << u"service"_s << u"47321"_s << none << 1 << ports;
    QTest::newRow("uninstalling on the real port") << u"uninstall-service"_s << u"47321"_s << none << 1 << ports;
    QTest::newRow("an isolated test copy still leaves Claude Code's settings alone")
        << u"integration"_s << none << none << 1 << u"FAILED: "_s + ServiceSteps::integrationRefusal();
    QTest::newRow("and phone access") << u"tailscale"_s << none << none << 1
                                      << u"FAILED: "_s + ServiceSteps::tailscaleRefusal();
    // Every Backpack refusal is the setup's own test; here, that both steps stop on one before they act.
    QTest::newRow("Backpack set up, a test copy on the real path")
        << u"backpack"_s << none << none << 1
        << u"FAILED: This is a test copy (a TIDEWATCH_ variable is set), so it leaves Backpack mode’s permission to "
           "your real Tidewatch. Set TIDEWATCH_SUDOERS to a scratch path to test it."_s;
    QTest::newRow("Backpack removed, into /etc")
        << u"uninstall-backpack"_s << none << u"/etc/sudoers.d/tidewatch"_s << 1
        << u"FAILED: TIDEWATCH_SUDOERS points into /etc: a test never touches sudo’s own folder."_s;
    QTest::newRow("an unknown step names the known ones")
        << u"backpak"_s << none << none << 64
        << u"Unknown step 'backpak'. Use one of: service, integration, tailscale, uninstall-service, backpack, "
           "uninstall-backpack"_s;
}

void TestServiceInstallerSteps::refusalsComeFirst()
{
    QFETCH(QString, step);
    QFETCH(QString, apiPort);
    QFETCH(QString, sudoers);
    QFETCH(int, code);
    QFETCH(QString, said);
    QHash<QString, QString> extra{{u"TIDEWATCH_SUDOERS"_s, sudoers}};
    if (!apiPort.isEmpty())
        extra.insert(QStringLiteral("TIDEWATCH_API_PORT"), apiPort);
    const LaunchResult result = run({QStringLiteral("--run-step"), step}, extra);
    QCOMPARE(result.output.trimmed(), said);
    QCOMPARE(result.code, code);
    QVERIFY(m_manager->calls().isEmpty());
}

void TestServiceInstallerSteps::serviceFromNothing()
{
    const Environment environment = this->environment();
    const LaunchResult result = run({QStringLiteral("--run-step"), QStringLiteral("service")});
    const QString shown = ServiceSteps::shortened(environment.supportFolder(), environment.home());
    QCOMPARE(lines(result.output),
        (QStringList{QStringLiteral("Test copy: its own service, folder and log (") + shown + QLatin1Char(')'),
            QStringLiteral("Installing the background service…"),
            QStringLiteral("  label  ") + environment.serviceLabel(),
            QStringLiteral("  unit  ") + installer().jobFile(),
            QStringLiteral("  daemon  ") + environment.daemonFolder(),
            QStringLiteral("  getting Node.js (no stable one on this computer)"),
            QStringLiteral("  copying the daemon"),
            QStringLiteral("  fetching Claude Code’s SDK from npm (about 2 MB)"),
            QStringLiteral("  writing the systemd unit"), QStringLiteral("  systemctl --user stop + start"),
            QStringLiteral("OK: running as %1 (protocol 1)").arg(QSysInfo::machineHostName()),
            QStringLiteral("  Claude Code’s SDK %1 is there").arg(*ClaudeSDK::wanted(m_bundle))}));
    QCOMPARE(result.code, 0);
    QVERIFY(installer().servicePID());
    // Where the service's shell integration runs the agents from.
    QVERIFY(QFileInfo(environment.installedRelay()).isExecutable());
}

void TestServiceInstallerSteps::updateKeepsTheSdk()
{
    const std::optional<int> before = installer().servicePID();
    QVERIFY(before);
    QFile stamp(m_bundle + QStringLiteral("/.tidewatch-build"));
    QVERIFY(stamp.open(QIODevice::WriteOnly | QIODevice::Truncate));
    stamp.write("newer\n");
    stamp.close();
    QVERIFY(installer().updateAvailable());
    {
        // The app offers it as the notice's "Update".
        AppModel model(environment(), Clock::system());
        model.setServiceInstaller([this] { return this->installer(); });
        model.setClaudeLook([] { return false; });
        model.start();
        QTRY_VERIFY_WITH_TIMEOUT(model.serviceUpdate(), 10000);
    }

    const LaunchResult result = run({QStringLiteral("--run-step"), QStringLiteral("service")});
    QVERIFY2(result.code == 0, qPrintable(result.output));
    QVERIFY2(!result.output.contains(QStringLiteral("getting Node.js")), qPrintable(result.output));
    QVERIFY2(!result.output.contains(QStringLiteral("fetching")), qPrintable(result.output));
    QVERIFY(result.output.contains(QStringLiteral("  copying the daemon\n")));
    QVERIFY(!installer().updateAvailable());
    const std::optional<int> after = installer().servicePID();
    QVERIFY(after && after != before);
}

void TestServiceInstallerSteps::repairBringsBackAServiceWhoseNodeIsGone()
{
    ServiceInstaller installer = this->installer();
    const std::optional<QString> node = installer.installedNodePath();
    QVERIFY(node);
    const std::optional<int> pid = installer.servicePID();
    QVERIFY(pid);
    // Its Node.js deleted and the process killed: the manager can't start it again.
    QVERIFY(QDir(QFileInfo(*node).dir().absoluteFilePath(QStringLiteral(".."))).removeRecursively());
    ::kill(pid_t(*pid), SIGKILL);

    // The app's model finds out on its own reads and repairs from there.
    AppModel model(environment(), Clock::system());
    model.setServiceInstaller([this] { return this->installer(); });
    model.setClaudeLook([] { return false; });
    QList<Step> steps;
    connect(&model, &AppModel::repairingChanged, &model, [&] {
        if (model.repairing() && (steps.isEmpty() || steps.last() != model.repairing()->step))
            steps << model.repairing()->step;
    });
    model.start();
    QTRY_COMPARE_WITH_TIMEOUT(model.serviceNodeGone(), node, 20000);
    QVERIFY(!model.serviceUp());

    model.repairService();
    QVERIFY(model.repairing());
    QTRY_VERIFY_WITH_TIMEOUT(!model.repairing(), 150000);
    QCOMPARE(model.noteText(), QString());
    QTRY_VERIFY_WITH_TIMEOUT(model.health(), 20000);
    QCOMPARE(model.serviceNodeGone(), std::nullopt);
    QCOMPARE(steps.first(), Step::GettingNode);
    QCOMPARE(steps.last(), Step::Waiting);
    QVERIFY(steps.contains(Step::Copying));
    QCOMPARE(installer.installedNodePath(), node);
    QVERIFY(!alive(*pid));

    // Restart from the panel: a new process, answering before the flag drops.
    const std::optional<int> repaired = installer.servicePID();
    QVERIFY(repaired);
    model.restartService();
    QVERIFY(model.restarting());
    QTRY_VERIFY_WITH_TIMEOUT(!model.restarting(), 40000);
    QVERIFY(installer.probeHealth());
    const std::optional<int> restarted = installer.servicePID();
    QVERIFY(restarted && restarted != repaired);
    QCOMPARE(model.noteText(), QString());
}

void TestServiceInstallerSteps::uninstallLeavesTheDataAndNothingElse()
{
    ServiceInstaller installer = this->installer();
    const std::optional<int> pid = installer.servicePID();
    QVERIFY(pid);
    const Environment environment = this->environment();

    const LaunchResult result = run({QStringLiteral("--run-step"), QStringLiteral("uninstall-service")});
    QCOMPARE(lines(result.output),
        (QStringList{QStringLiteral("Uninstalling this test copy’s service (launch agent and daemon copy; data kept)…"),
            QStringLiteral("OK: uninstalled")}));
    QCOMPARE(result.code, 0);
    // What stays and goes is the installer's own test; here, that the step ran it.
    QVERIFY(!alive(*pid));
    QVERIFY(!QFileInfo::exists(installer.jobFile()));
    QVERIFY(QFileInfo::exists(environment.daemonLog()));

    // Twice is harmless.
    QCOMPARE(run({QStringLiteral("--run-step"), QStringLiteral("uninstall-service")}).code, 0);
}

void TestServiceInstallerSteps::sdkFetchCheckFetchesForReal()
{
    const QString folder = m_scratch->file(QStringLiteral("sdk-check/daemon"));
    // The Node.js the site gave, kept with the data: npm comes with it.
    const QString node
        = environment().nodeFolder() + QLatin1Char('/') + m_site->version() + QStringLiteral("/bin/node");
    const LaunchResult result = run({QStringLiteral("--selftest-sdk-fetch"), folder, QStringLiteral("--node"), node});
    const QString wanted = *ClaudeSDK::wanted(m_bundle);
    const QStringList said = lines(result.output);
    QCOMPARE(said.size(), 3);
    QCOMPARE(said.at(0), QStringLiteral("copying the service into %1…").arg(folder));
    QCOMPARE(said.at(1), QStringLiteral("fetching Claude Code’s SDK %1 with %2…").arg(wanted, node));
    QVERIFY2(QRegularExpression(
                 QStringLiteral("^OK: Claude Code’s SDK %1 in \\d+\\.\\d s$").arg(QRegularExpression::escape(wanted)))
                 .match(said.at(2))
                 .hasMatch(),
        qPrintable(result.output));
    QCOMPARE(result.code, 0);
    QCOMPARE(ClaudeSDK::installedVersion(folder), std::optional<QString>(wanted));
}

void TestServiceInstallerSteps::backpackSetUpTwiceAsksOnce()
{
    const LaunchResult first = backpack(u"backpack"_s);
    QCOMPARE(first.code, 0);
    QCOMPARE(first.output,
        QStringLiteral("Setting up Backpack mode: a sudoers rule for exactly pmset -a disablesleep 0 and 1…\n"
                       "  rule  %1\n"
                       "OK: set up (choose Backpack in the menu bar, on the phone or on the glasses)\n")
            .arg(rule()));
    QCOMPARE(fileMode(rule()), 0440);

    // The second run finds the rule and runs no script.
    const LaunchResult second = backpack(u"backpack"_s);
    QCOMPARE(second.code, 0);
    QVERIFY2(second.output.endsWith(QStringLiteral("OK: already set up\n")), qPrintable(second.output));
}

void TestServiceInstallerSteps::backpackRemoveRestoresWhatItFound_data()
{
    QTest::addColumn<QByteArray>("awake");
    QTest::addColumn<QString>("announced");
    QTest::addColumn<QByteArray>("pmsetCalls");
    QTest::addColumn<QByteArray>("kept");

    // Which saved values are worth restoring is the setup's own test; here, that the step restores and says so.
    QTest::newRow("switched from 1: back to 1")
        << QByteArray(R"({"mode":"backpack","until":1760007200,"minBattery":20,"backpack":{"prev":1,"applied":true}})")
        << u"  SleepDisabled back to 1, as Backpack found it\n"_s << QByteArray("-a disablesleep 1\n")
        << QByteArray(R"({"mode":"working","minBattery":20})");
    QTest::newRow("not switched: nothing to restore")
        << QByteArray(R"({"mode":"working","backpack":{"prev":0,"applied":false}})") << QString() << QByteArray()
        << QByteArray(R"({"mode":"working"})");
    QTest::newRow("no record at all") << QByteArray() << QString() << QByteArray() << QByteArray();
}

void TestServiceInstallerSteps::backpackRemoveRestoresWhatItFound()
{
    QFETCH(QByteArray, awake);
    QFETCH(QString, announced);
    QFETCH(QByteArray, pmsetCalls);
    QFETCH(QByteArray, kept);
    QFile calls(m_scratch->file(u"pmset-calls"_s));
    QFile record(m_scratch->file(u"backpack/awake.json"_s));
    calls.remove();
    record.remove();

    const LaunchResult absent = backpack(u"uninstall-backpack"_s);
    QCOMPARE(absent.code, 0);
    QCOMPARE(absent.output, QStringLiteral("OK: not set up\n"));
    QCOMPARE(backpack(u"backpack"_s).code, 0);
    if (!awake.isEmpty())
        m_scratch->write(u"backpack/awake.json"_s, awake);
    const LaunchResult removed = backpack(u"uninstall-backpack"_s);
    QCOMPARE(removed.code, 0);
    QCOMPARE(removed.output,
        QStringLiteral("Removing Backpack mode’s rule (%1)…\n").arg(rule()) + announced
            + QStringLiteral("OK: removed\n"));
    QVERIFY(!QFile::exists(rule()));
    QCOMPARE(calls.open(QIODevice::ReadOnly) ? calls.readAll() : QByteArray(), pmsetCalls);
    // With the service down, its record loses Backpack here, privately.
    QCOMPARE(record.open(QIODevice::ReadOnly) ? QJsonDocument::fromJson(record.readAll()).object() : QJsonObject(),
        QJsonDocument::fromJson(kept).object());
    if (!kept.isEmpty())
        QCOMPARE(fileMode(record.fileName()), 0600);
}

TIDEWATCH_E2E_MAIN(TestServiceInstallerSteps)
#include "TestServiceInstallerSteps.moc"

#include "FakeManager.h"
#include "FreePorts.h"
#include "NodeSite.h"
#include "RealPlaces.h"
#include "ScratchFolder.h"
#include "ServiceBundle.h"
#include "ServiceProcess.h"

#include "entry/Preferences.h"
#include "setup/ClaudeSDK.h"
#include "setup/ServiceInstaller.h"
#include "setup/ServiceKeeper.h"
#include "setup/Uninstaller.h"

#include <QDir>
#include <QEventLoop>
#include <QFile>
#include <QProcess>
#include <QTest>
#include <QThread>
#include <QTimer>

#include <csignal>
#include <unistd.h>

using Step = ServiceInstaller::Progress::Step;
using Kind = platform::ServiceManagerKind;

namespace {

bool alive(int pid)
{
    return pid > 0 && ::kill(pid_t(pid), 0) == 0;
}

/// Where the service's Node.js comes from in a row.
enum class Node { Site, Stable, Nvm };

/// One test copy in a scratch folder, with a fake service manager, a local
/// Node.js site and a service bundle of its own that carries its SDK (the
/// SDK's fetch is proven by the run steps).
struct Rig {
    ScratchFolder scratch;
    FakeManager manager{scratch};
    NodeSite site{scratch};
    QList<int> ports = freePorts(2);
    QString bundle = makeServiceBundle(scratch, QStringLiteral("bundle/daemon"));
    Kind kind = Kind::Systemd;
    Node node = Node::Stable;

    Rig()
    {
        const QString package = QStringLiteral("bundle/daemon/node_modules/@anthropic-ai/claude-agent-sdk/");
        scratch.write(package + QStringLiteral("package.json"),
            QStringLiteral(R"({"name":"@anthropic-ai/claude-agent-sdk","version":"%1","main":"sdk.mjs"})")
                .arg(*ClaudeSDK::wanted(bundle))
                .toUtf8());
        scratch.write(package + QStringLiteral("sdk.mjs"), {});
    }

    /// Every user folder in the scratch home; a test copy of its own unless `testCopy` is false.
    Environment environment(bool testCopy = true, const QHash<QString, QString>& extra = {}) const
    {
        const QString home = scratch.file(QStringLiteral("a home/"));
        QHash<QString, QString> variables{{QStringLiteral("XDG_DATA_HOME"), home + QStringLiteral(".local/share")},
            {QStringLiteral("XDG_STATE_HOME"), home + QStringLiteral(".local/state")},
            {QStringLiteral("XDG_CONFIG_HOME"), home + QStringLiteral(".config")}};
        // Blanks, quotes, a dollar sign and a percent sign: each means something
        // to systemd or a shell, and must reach the service as it is.
        if (testCopy) {
            variables.insert(
                {{QStringLiteral("TIDEWATCH_SUPPORT"), scratch.file(QStringLiteral("it's \"support\" $HOME %h"))},
                    {QStringLiteral("TIDEWATCH_API_PORT"), QString::number(ports.value(0))},
                    {QStringLiteral("TIDEWATCH_LOCAL_PORT"), QString::number(ports.value(1))}});
        }
        variables.insert(extra);
        return Environment(variables, QDir::cleanPath(home));
    }

    ServiceInstaller::Parts parts() const
    {
        ServiceInstaller::Parts parts;
        parts.environment = environment();
        parts.tools = manager.tools(kind);
        parts.bundledDaemon = bundle;
        parts.nodeSite = site.base();
        if (node == Node::Stable)
            parts.tools.nodeFolders = {{QFileInfo(ServiceProcess::nodeProgram()).path(), QStringLiteral("pinned")}};
        return parts;
    }

    /// Node.js only from nvm: good enough by version, not one that stays put.
    QString nvmNode() const
    {
        return scratch.file(
            QStringLiteral("a home/.nvm/versions/node/") + site.version() + QStringLiteral("/bin/node"));
    }
};

struct Run {
    std::optional<Outcome<Health>> result;
    QList<ServiceInstaller::Progress> progress;
    QList<double> pauses;

    bool ok() const { return result && result->ok(); }
    QString sentence() const { return result && !result->ok() ? result->sentence() : QString(); }
    /// The steps as a console shows them: each once, when it begins.
    QList<Step> steps() const
    {
        QList<Step> begun;
        for (const auto& p : progress) {
            if (!begun.contains(p.step))
                begun << p.step;
        }
        return begun;
    }
    QList<int> tenths() const
    {
        QList<int> rounded;
        for (double value : pauses)
            rounded << qRound(value * 10);
        return rounded;
    }
};

Run installAll(ServiceInstaller::Parts parts, bool realPauses = true)
{
    Run run;
    if (!realPauses) {
        // Counted, not waited for: a short breath keeps polling loops from spinning.
        parts.pause = [&run](double seconds) {
            run.pauses << seconds;
            QThread::msleep(50);
        };
    }
    runWhileServing(
        [&] {
            ServiceInstaller installer(parts);
            run.result = installer.installAll([&run](const ServiceInstaller::Progress& p) { run.progress << p; });
        },
        120000);
    return run;
}

/// What an uninstall did by the app's own hands.
struct Hands {
    QStringList said;
    int loginItemRemovals = 0;
    int backpackRemovals = 0;
    std::optional<QString> loginItemFailure;

    Uninstaller::Hands hands()
    {
        return {[this] { ++backpackRemovals; },
            [this] {
                ++loginItemRemovals;
                return loginItemFailure;
            },
            [this](const QString& line) { said << line; }};
    }
};

/// Copied and written as an install leaves them, but never started: an
/// environment that isn't a test copy has the real ports.
ServiceInstaller placedDown(const Rig& rig, const Environment& environment)
{
    ServiceInstaller::Parts parts = rig.parts();
    parts.environment = environment;
    parts.tools = rig.manager.tools(Kind::Systemd);
    // Down: and no probe ever goes to the real ports.
    parts.health = [](double) { return std::optional<Health>(); };
    ServiceInstaller installer(parts);
    if (!environment.refusalSentence()) {
        const bool copied = installer.copyDaemon().ok() && installer.writeJobFile(ServiceProcess::nodeProgram()).ok();
        if (!copied)
            QTest::qFail("the service couldn't be put in place", __FILE__, __LINE__);
        QDir().mkpath(environment.nodeFolder() + QStringLiteral("/v22.23.3/bin"));
        QDir().mkpath(environment.logFolder());
        QFile(environment.daemonLog()).open(QIODevice::WriteOnly);
    }
    return installer;
}

} // namespace

Q_DECLARE_METATYPE(Kind)
Q_DECLARE_METATYPE(Node)

/// The service put on this machine for real — Node.js from a local site (or
/// one that stays put, or nvm's), the daemon copied, a job started by a
/// systemd or launchd that behaves like the real one — restarted, taken back
/// after the manager let it go, and taken off again; and every failure on
/// the way told in its sentence; and the uninstall in its order, where what
/// couldn't be done becomes a note and nothing stops the rest.
class TestServiceInstaller : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void installRestartUninstall_data();
    void installRestartUninstall();
    void failuresLeaveTheirSentence_data();
    void failuresLeaveTheirSentence();
    void aRefusedStartIsTriedFourTimes();
    void anotherCopyOnThePortIsNamed();
    void withoutAUserSessionTheCommandGivenRunsTheService();
    void aDownServiceLeavesOneNoteAndTheRestGoes_data();
    void aDownServiceLeavesOneNoteAndTheRestGoes();
    void aCopyThatMayNotManageTouchesNothing();
};

void TestServiceInstaller::installRestartUninstall_data()
{
    QTest::addColumn<Kind>("kind");
    QTest::addColumn<Node>("node");

    QTest::newRow("systemd, Node.js downloaded from the site") << Kind::Systemd << Node::Site;
    QTest::newRow("systemd, offline with nvm's Node.js") << Kind::Systemd << Node::Nvm;
    QTest::newRow("launchd, a Node.js that stays put") << Kind::Launchd << Node::Stable;
}

void TestServiceInstaller::installRestartUninstall()
{
    QFETCH(Kind, kind);
    QFETCH(Node, node);
    Rig rig;
    rig.kind = kind;
    rig.node = node;
    QVERIFY2(rig.site.isValid(), qPrintable(rig.site.problem()));
    const Environment environment = rig.environment();
    QString nodePath = QFileInfo(ServiceProcess::nodeProgram()).path() + QStringLiteral("/node");
    if (node == Node::Nvm) {
        rig.site.answer404ForArchive();
        nodePath = rig.nvmNode();
        QVERIFY(QFile::link(QFileInfo(ServiceProcess::nodeProgram()).canonicalFilePath(), nodePath));
    } else if (node == Node::Site) {
        nodePath = environment.nodeFolder() + QLatin1Char('/') + rig.site.version() + QStringLiteral("/bin/node");
    }

    const Run first = installAll(rig.parts());
    QVERIFY2(first.ok(), qPrintable(first.sentence()));
    const QList<Step> rest{Step::Copying, Step::Writing, Step::Starting, Step::Waiting};
    QCOMPARE(first.steps(), node == Node::Stable ? rest : QList<Step>{Step::GettingNode} + rest);
    if (node == Node::Site) {
        QCOMPARE(first.progress.at(0).fraction, std::nullopt);
        QVERIFY2(first.progress.contains(ServiceInstaller::Progress{Step::GettingNode, 1.0}),
            "the download's last fraction is never swallowed");
    }

    // The service runs on that Node.js, under the manager, listening on its port.
    ServiceInstaller installer(rig.parts());
    QCOMPARE(installer.installedNodePath(), std::optional<QString>(nodePath));
    const std::optional<int> pid = installer.servicePID();
    QVERIFY(pid);
    QCOMPARE(installer.pidOnPort(environment.apiPort()), pid);
    QCOMPARE(QFileInfo(QStringLiteral("/proc/%1/exe").arg(*pid)).canonicalFilePath(),
        QFileInfo(nodePath).canonicalFilePath());
    QCOMPARE(QDir(environment.appFolder()).entryList(QDir::AllEntries | QDir::Hidden | QDir::NoDotAndDotDot),
        QStringList{QStringLiteral("daemon")});
    QVERIFY2(
        !QFileInfo::exists(environment.daemonFolder() + QStringLiteral("/test")), "the service's tests stay behind");
    QCOMPARE(installer.state(first.result->value()),
        (ServiceInstaller::State{true, true, true, first.result->value().name, false, true}));
    const QStringList calls = rig.manager.calls();
    if (kind == Kind::Systemd) {
        // A test copy's unit is linked for this boot from its own folder, never enabled.
        QCOMPARE(fileMode(installer.jobFile()), 0644);
        QVERIFY(calls.contains(QStringLiteral("systemctl --user link --runtime ") + installer.jobFile()));
        QVERIFY(!calls.join(QLatin1Char('\n')).contains(QStringLiteral(" enable ")));
    } else {
        const QString domain = QStringLiteral("gui/%1").arg(::getuid());
        const QString address = domain + QLatin1Char('/') + environment.serviceLabel();
        QCOMPARE(calls.mid(0, 2),
            (QStringList{
                QStringLiteral("launchctl bootout ") + address, QStringLiteral("launchctl print ") + address}));
        QVERIFY(
            calls.contains(QStringLiteral("launchctl bootstrap ") + domain + QLatin1Char(' ') + installer.jobFile()));
    }

    QVERIFY(installer.restart());
    QVERIFY(installer.pollHealth(20));
    const std::optional<int> restarted = installer.servicePID();
    QVERIFY(restarted && restarted != pid);
    QVERIFY(!alive(*pid));

    // A job the manager let go: the keeper takes it back and waits for its answer.
    installer.stop();
    QVERIFY(!installer.servicePID());
    ServiceKeeper keeper([&rig] { return ServiceInstaller(rig.parts()); });
    QEventLoop loop;
    std::optional<ServiceKeeper::Note> note;
    QVERIFY(keeper.restart([&](ServiceKeeper::Note said) {
        note = said;
        loop.quit();
    }));
    QVERIFY2(!keeper.restart([](ServiceKeeper::Note) {}), "one job at a time");
    QTimer::singleShot(60000, &loop, &QEventLoop::quit);
    loop.exec();
    QVERIFY(note);
    QCOMPARE(*note, std::nullopt);
    const std::optional<int> kept = installer.servicePID();
    QVERIFY(kept && installer.pollHealth(5));

    // And back to nothing; the data stays.
    runWhileServing([&] { installer.uninstall(); }, 60000);
    QVERIFY(!QFileInfo::exists(installer.jobFile()));
    QVERIFY(!QFileInfo::exists(environment.appFolder()));
    QVERIFY(!alive(*kept));
    QVERIFY(QFileInfo::exists(nodePath));
    QVERIFY(QFileInfo::exists(environment.adminTokenFile()));
    QVERIFY(!installer.state(std::nullopt).managerKeepsJob);
    QVERIFY(!installer.restart());
}

void TestServiceInstaller::failuresLeaveTheirSentence_data()
{
    QTest::addColumn<QString>("fault");
    QTest::addColumn<QString>("sentence");
    QTest::addColumn<bool>("serviceTouched");

    const QString noNode = QStringLiteral("Tidewatch couldn’t get Node.js for the background service. ");
    QTest::newRow("a tampered archive is thrown away") << "tampered"
                                                       << noNode
            + "The download didn’t match the Node.js site’s checksum, so Tidewatch threw it away. Try again; if "
              "it keeps happening, your network may be altering downloads."
                                                       << false;
    QTest::newRow("an app without the service")
        << "no bundle"
        << "This copy of Tidewatch doesn’t include the background service. Rebuild it with mac/build.sh." << false;
    QTest::newRow("a service that never answers names the end of its log")
        << "silent"
        << "The background service started but isn’t answering yet.\n\nLast lines of its log:\nwarming up\nstill "
           "warming up"
        << true;
}

void TestServiceInstaller::failuresLeaveTheirSentence()
{
    QFETCH(QString, fault);
    QFETCH(QString, sentence);
    QFETCH(bool, serviceTouched);

    Rig rig;
    QVERIFY2(rig.site.isValid(), qPrintable(rig.site.problem()));
    if (fault == QLatin1StringView("tampered")) {
        rig.site.tamperWithArchive();
        rig.node = Node::Site;
    }
    ServiceInstaller::Parts parts = rig.parts();
    if (fault == QLatin1StringView("no bundle"))
        parts.bundledDaemon = rig.scratch.file(QStringLiteral("nothing-here"));
    if (fault == QLatin1StringView("silent")) {
        rig.scratch.write(QStringLiteral("bundle/daemon/src/main.js"),
            "console.log('warming up');\nconsole.error('still warming up');\nsetInterval(() => {}, 1000);\n");
        parts.healthLimit = 3;
    }

    const Run run = installAll(parts, false);
    QVERIFY(run.result && !run.ok());
    QCOMPARE(run.sentence(), sentence);
    const Environment& environment = parts.environment;
    QCOMPARE(QFileInfo::exists(ServiceInstaller(parts).jobFile()), serviceTouched);
    QCOMPARE(QFileInfo::exists(environment.daemonFolder()), serviceTouched);
    QVERIFY2(
        QDir(environment.nodeFolder()).entryList({QStringLiteral(".staging-*")}, QDir::Dirs | QDir::Hidden).isEmpty(),
        "no staging folder is left");
    // KeepAlive keeps trying: the job stays with the manager.
    if (serviceTouched)
        QVERIFY(ServiceInstaller(parts).state(std::nullopt).managerKeepsJob);
}

void TestServiceInstaller::aRefusedStartIsTriedFourTimes()
{
    Rig rig;
    rig.manager.refuse(10);
    const Run refused = installAll(rig.parts(), false);
    QVERIFY(refused.result && !refused.ok());
    const QString unitName = rig.environment().serviceLabel() + QStringLiteral(".service");
    QCOMPARE(refused.sentence(),
        QStringLiteral("systemd didn’t accept the background service (Job for %1 failed because the control "
                       "process exited with error code.\nSee \"systemctl --user status %1\" and \"journalctl "
                       "--user -xeu %1\" for details.).")
            .arg(unitName));
    QCOMPARE(refused.tenths(), (QList<int>{6, 12, 18, 24}));
    // What stays: everything on disk, nothing running.
    QVERIFY(QFileInfo::exists(ServiceInstaller(rig.parts()).jobFile()));
    QVERIFY(!ServiceInstaller(rig.parts()).servicePID());

    // Refused twice, then taken: 0.6 + 1.2 s of pauses before the third try.
    rig.manager.refuse(2);
    const Run taken = installAll(rig.parts(), false);
    QVERIFY2(taken.ok(), qPrintable(taken.sentence()));
    QCOMPARE(taken.tenths().mid(0, 2), (QList<int>{6, 12}));
    QVERIFY(!taken.tenths().contains(18));
}

void TestServiceInstaller::anotherCopyOnThePortIsNamed()
{
    Rig rig;
    const Environment environment = rig.environment();
    // A copy started by hand in a terminal, on the API port the installed one wants.
    QProcess byHand;
    QProcessEnvironment variables = QProcessEnvironment::systemEnvironment();
    variables.insert(QStringLiteral("TIDEWATCH_SUPPORT"), rig.scratch.file(QStringLiteral("by-hand")));
    variables.insert(QStringLiteral("TIDEWATCH_API_PORT"), QString::number(environment.apiPort()));
    variables.insert(QStringLiteral("TIDEWATCH_LOCAL_PORT"), QString::number(freePorts(3).last()));
    byHand.setProcessEnvironment(variables);
    byHand.setWorkingDirectory(rig.bundle);
    byHand.start(ServiceProcess::nodeProgram(), {QStringLiteral("src/main")});
    QVERIFY(byHand.waitForStarted());
    QVERIFY(ServiceInstaller(rig.parts()).pollHealth(20));

    const Run run = installAll(rig.parts(), false);
    QCOMPARE(run.sentence(),
        QStringLiteral("Another copy of the service (process %1, started outside Tidewatch, maybe in a Terminal "
                       "window) is using port %2, so the background service can’t take over. Quit that copy, "
                       "then try again.")
            .arg(byHand.processId())
            .arg(environment.apiPort()));
    QVERIFY2(byHand.state() == QProcess::Running, "the other copy is never ended");
    byHand.terminate();
    byHand.waitForFinished();
}

void TestServiceInstaller::withoutAUserSessionTheCommandGivenRunsTheService()
{
    Rig rig;
    rig.manager.dropBus();
    const Run run = installAll(rig.parts(), false);
    const QString opening = QStringLiteral(
        "This Linux has no systemd user session (a container or WSL may run without one), so nothing can keep the "
        "background service running. Start it by hand with:\n");
    QVERIFY2(run.sentence().startsWith(opening), qPrintable(run.sentence()));
    QVERIFY2(run.pauses.isEmpty(), "a missing session isn't retried");

    // The command, as a person would paste it, really starts this copy's service.
    QProcess shell;
    shell.start(QStringLiteral("/bin/sh"), {QStringLiteral("-c"), run.sentence().mid(opening.size()) + " echo $!"});
    QVERIFY(shell.waitForFinished());
    const int pid = QString::fromUtf8(shell.readAllStandardOutput()).trimmed().toInt();
    ServiceInstaller installer(rig.parts());
    const std::optional<Health> health = installer.pollHealth(20);
    const std::optional<int> listening = installer.pidOnPort(rig.environment().apiPort());
    ::kill(pid_t(pid), SIGTERM);
    QVERIFY2(health, qPrintable(installer.logTail(5).join(QLatin1Char('\n'))));
    QCOMPARE(listening, std::optional<int>(pid));
}

void TestServiceInstaller::aDownServiceLeavesOneNoteAndTheRestGoes_data()
{
    QTest::addColumn<bool>("deleteData");
    QTest::newRow("data kept") << false;
    QTest::newRow("data deleted when asked") << true;
}

void TestServiceInstaller::aDownServiceLeavesOneNoteAndTheRestGoes()
{
    QFETCH(bool, deleteData);
    Rig rig;
    const Environment environment = rig.environment(false);
    ServiceInstaller installer = placedDown(rig, environment);
    Preferences(environment).setFlag(Preferences::loginItemWanted, true);
    Hands hands;
    hands.loginItemFailure = QStringLiteral("the login items can’t be changed now");

    const QStringList notes = Uninstaller(installer, hands.hands()).run(deleteData);
    QCOMPARE(notes.size(), 1);
    QVERIFY2(notes.first().startsWith(QStringLiteral("Tidewatch couldn’t remove its hooks from Claude Code (")),
        qPrintable(notes.first()));
    QVERIFY(notes.first().endsWith(QStringLiteral(
        "). They point at Tidewatch’s local address, so they do nothing once the service is gone; install and "
        "uninstall again to remove them cleanly.")));

    // The rest went all the same.
    QVERIFY(!QFileInfo::exists(installer.jobFile()));
    QVERIFY(!QFileInfo::exists(environment.appFolder()));
    QCOMPARE(hands.loginItemRemovals, 1);
    QCOMPARE(hands.said,
        QStringList{QStringLiteral("Tidewatch: login item change failed: the login items can’t be changed now")});
    QCOMPARE(hands.backpackRemovals, 0);
    QCOMPARE(QFileInfo::exists(environment.supportFolder()), !deleteData);
    QCOMPARE(QFileInfo::exists(environment.nodeFolder()), !deleteData);
    QCOMPARE(QFileInfo::exists(environment.logFolder()), !deleteData);
    QVERIFY(!Preferences(environment).flag(Preferences::loginItemWanted));
}

void TestServiceInstaller::aCopyThatMayNotManageTouchesNothing()
{
    Rig rig;
    const Environment environment
        = rig.environment(false, {{QStringLiteral("TIDEWATCH_API_PORT"), QStringLiteral("47321")}});
    const QString unit = rig.scratch.write(QStringLiteral("unit-of-someone-else"), "[Service]\n");
    Hands hands;
    QCOMPARE(Uninstaller(placedDown(rig, environment), hands.hands()).run(true),
        QStringList{*environment.refusalSentence()});
    QCOMPARE(hands.loginItemRemovals, 0);
    QVERIFY(rig.manager.calls().isEmpty());
    QVERIFY(QFileInfo::exists(unit));
}

TIDEWATCH_E2E_MAIN(TestServiceInstaller)
#include "TestServiceInstaller.moc"

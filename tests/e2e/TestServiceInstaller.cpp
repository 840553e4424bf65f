#include "FakeManager.h"
#include "FreePorts.h"
#include "NodeSite.h"
#include "ScratchFolder.h"
#include "ServiceBundle.h"
#include "ServiceProcess.h"

#include "setup/ClaudeSDK.h"
#include "setup/ServiceInstaller.h"
#include "setup/ServiceJob.h"

#include <QDir>
#include <QFile>
#include <QProcess>
#include <QTest>
#include <QThread>

#include <csignal>
#include <memory>
#include <optional>

using Step = ServiceInstaller::Progress::Step;
using Kind = platform::ServiceManagerKind;

namespace {

bool alive(int pid)
{
    return pid > 0 && ::kill(pid_t(pid), 0) == 0;
}

QString readText(const QString& path)
{
    QFile file(path);
    return file.open(QIODevice::ReadOnly) ? QString::fromUtf8(file.readAll()) : QString();
}

/// One test copy in a scratch folder, with a fake systemd, a local Node.js
/// site and a service bundle of its own.
struct Rig {
    ScratchFolder scratch;
    FakeManager manager{scratch};
    NodeSite site{scratch};
    QList<int> ports = freePorts(2);
    QString bundle = makeServiceBundle(scratch, QStringLiteral("bundle/daemon"));

    Environment environment() const
    {
        const QString home = scratch.file(QStringLiteral("home/"));
        // A blank, a dollar sign and a percent sign: each means something to
        // systemd or a shell, and must reach the service as it is.
        return Environment({{QStringLiteral("TIDEWATCH_SUPPORT"), scratch.file(QStringLiteral("support $HOME %h"))},
                               {QStringLiteral("TIDEWATCH_API_PORT"), QString::number(ports.value(0))},
                               {QStringLiteral("TIDEWATCH_LOCAL_PORT"), QString::number(ports.value(1))},
                               {QStringLiteral("XDG_DATA_HOME"), home + QStringLiteral(".local/share")},
                               {QStringLiteral("XDG_STATE_HOME"), home + QStringLiteral(".local/state")},
                               {QStringLiteral("XDG_CONFIG_HOME"), home + QStringLiteral(".config")}},
            QDir::cleanPath(home));
    }

    ServiceInstaller::Parts parts() const
    {
        ServiceInstaller::Parts parts;
        parts.environment = environment();
        parts.tools = manager.tools(Kind::Systemd);
        parts.bundledDaemon = bundle;
        parts.nodeSite = site.base();
        return parts;
    }

    /// The pinned Node.js as one that stays put, so nothing is downloaded.
    ServiceInstaller::Parts partsWithStableNode() const
    {
        ServiceInstaller::Parts with = parts();
        with.tools.nodeFolders = {{QFileInfo(ServiceProcess::nodeProgram()).path(), QStringLiteral("pinned")}};
        return with;
    }

    /// The SDK as if it came with the bundle, so that no fetch is made.
    void bundleCarriesSdk() const
    {
        const QString package = bundle + QStringLiteral("/node_modules/@anthropic-ai/claude-agent-sdk");
        QDir().mkpath(package);
        QFile manifest(package + QStringLiteral("/package.json"));
        manifest.open(QIODevice::WriteOnly);
        manifest.write(QStringLiteral(R"({"name":"@anthropic-ai/claude-agent-sdk","version":"%1","main":"sdk.mjs"})")
                           .arg(*ClaudeSDK::wanted(bundle))
                           .toUtf8());
        QFile entry(package + QStringLiteral("/sdk.mjs"));
        entry.open(QIODevice::WriteOnly);
    }

    QString unit() const { return ServiceInstaller(parts()).jobFile(); }
};

struct Run {
    std::optional<Outcome<Health>> result;
    QList<ServiceInstaller::Progress> progress;
    QList<double> pauses;

    bool ok() const { return result && result->ok(); }
    /// What went wrong, for a failed check's message.
    QByteArray why() const
    {
        return !result ? QByteArray("it never ended") : result->ok() ? QByteArray() : result->sentence().toUtf8();
    }

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

QList<int> tenths(const QList<double>& seconds)
{
    QList<int> rounded;
    for (double value : seconds)
        rounded << qRound(value * 10);
    return rounded;
}

} // namespace

/// The service put on this machine for real — Node.js downloaded and
/// verified, the daemon copied, its SDK fetched from npm, a unit started by a
/// systemd that behaves like the real one — and taken off again; and every
/// failure on the way told in its sentence.
class TestServiceInstaller : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void fromNothingToRunningAndBack();
    void failuresLeaveTheirSentence_data();
    void failuresLeaveTheirSentence();
    void aRefusedStartIsTriedFourTimes();
    void nvmNodeServesWhenOffline();
    void anotherCopyOnThePortIsNamed();
    void withoutAUserSessionTheCommandGivenRunsTheService();
};

void TestServiceInstaller::fromNothingToRunningAndBack()
{
    Rig rig;
    QVERIFY2(rig.site.isValid(), qPrintable(rig.site.problem()));
    const Environment environment = rig.environment();

    Run first = installAll(rig.parts());
    QVERIFY2(first.ok(), first.why());
    QCOMPARE(first.steps(),
        (QList<Step>{
            Step::GettingNode, Step::Copying, Step::FetchingSDK, Step::Writing, Step::Starting, Step::Waiting}));
    QCOMPARE(first.progress.at(0).fraction, std::nullopt);
    bool reachedTheEnd = false;
    for (const auto& p : first.progress)
        reachedTheEnd = reachedTheEnd || (p.step == Step::GettingNode && p.fraction == 1.0);
    QVERIFY2(reachedTheEnd, "the download's last fraction is never swallowed");

    // The service runs on the Node.js that came from the site, under the manager.
    const QString node = environment.nodeFolder() + QLatin1Char('/') + rig.site.version() + QStringLiteral("/bin/node");
    ServiceInstaller installer(rig.parts());
    QCOMPARE(installer.installedNodePath(), std::optional<QString>(node));
    QCOMPARE(fileMode(rig.unit()), 0644);
    QCOMPARE(readText(environment.nodePathNote()), node + QLatin1Char('\n'));
    const std::optional<int> pid = installer.servicePID();
    QVERIFY(pid);
    QCOMPARE(installer.pidOnPort(environment.apiPort()), pid);
    QCOMPARE(
        QFileInfo(QStringLiteral("/proc/%1/exe").arg(*pid)).canonicalFilePath(), QFileInfo(node).canonicalFilePath());
    QCOMPARE(ClaudeSDK::installedVersion(environment.daemonFolder()), ClaudeSDK::wanted(rig.bundle));
    QCOMPARE(QDir(environment.appFolder()).entryList(QDir::AllEntries | QDir::Hidden | QDir::NoDotAndDotDot),
        QStringList{QStringLiteral("daemon")});
    QVERIFY2(
        !QFileInfo::exists(environment.daemonFolder() + QStringLiteral("/test")), "the service's tests stay behind");
    QCOMPARE(installer.state(first.result->value()),
        (ServiceInstaller::State{true, true, true, first.result->value().name, false, true}));
    // A test copy's unit is linked for this boot from its own folder, never enabled.
    const QStringList calls = rig.manager.calls();
    QVERIFY(calls.contains(QStringLiteral("systemctl --user link --runtime ") + rig.unit()));
    QVERIFY(!calls.join(QLatin1Char('\n')).contains(QStringLiteral(" enable ")));

    // An update with the same pin: no download, the SDK comes across, the service restarts on the new files.
    QFile stamp(rig.bundle + QStringLiteral("/.tidewatch-build"));
    QVERIFY(stamp.open(QIODevice::WriteOnly | QIODevice::Truncate));
    stamp.write("update-under-test\n");
    stamp.close();
    QVERIFY(installer.updateAvailable());
    Run second = installAll(rig.parts());
    QVERIFY2(second.ok(), second.why());
    QCOMPARE(second.steps(), (QList<Step>{Step::Copying, Step::Writing, Step::Starting, Step::Waiting}));
    QVERIFY(!installer.updateAvailable());
    QCOMPARE(ClaudeSDK::installedVersion(environment.daemonFolder()), ClaudeSDK::wanted(rig.bundle));
    const std::optional<int> newPid = installer.servicePID();
    QVERIFY(newPid && newPid != pid);
    QVERIFY(!alive(*pid));

    // And back to nothing; the data stays.
    runWhileServing([&] { installer.uninstall(); }, 60000);
    QVERIFY(!QFileInfo::exists(rig.unit()));
    QVERIFY(!QFileInfo::exists(environment.appFolder()));
    QVERIFY(!alive(*newPid));
    QVERIFY(QFileInfo::exists(node));
    QVERIFY(QFileInfo::exists(environment.adminTokenFile()));
    QCOMPARE(rig.manager.ask(Kind::Systemd,
                 {QStringLiteral("--user"), QStringLiteral("show"), QStringLiteral("-p"), QStringLiteral("LoadState"),
                     ServiceJob::specFor(environment, node).label + QStringLiteral(".service")}),
        QStringLiteral("LoadState=not-found\n"));
    QVERIFY(!installer.state(std::nullopt).managerKeepsJob);

    // Nothing went where the real install lives, nor into the user's unit or autostart folders.
    for (const QString& real : {environment.realSupportFolder(), environment.realLogFolder(),
             environment.home() + QStringLiteral("/.config/systemd"),
             environment.home() + QStringLiteral("/.config/autostart")})
        QVERIFY2(!QFileInfo::exists(real), qPrintable(real));
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
    QTest::newRow("a missing archive") << "404" << noNode + "the Node.js site answered 404 for the download." << false;
    QTest::newRow("a checksum list without the file")
        << "no checksum" << noNode + "the Node.js site’s checksum list has no entry for %file." << false;
    QTest::newRow("a release list of the wrong shape")
        << "index" << noNode + "the Node.js site sent an unexpected release list." << false;
    QTest::newRow("an app without the service")
        << "no bundle"
        << "This copy of Tidewatch doesn’t include the background service. Rebuild it with mac/build.sh." << false;
    QTest::newRow("a service that never answers names the end of its log")
        << "silent"
        << "The background service started but isn’t answering yet.\n\nLast lines of its log:\nwarming up\nstill "
           "warming up"
        << true;
    QTest::newRow("a test copy on the real ports is refused before anything")
        << "real ports"
        << "This test copy needs ports of its own. Set TIDEWATCH_API_PORT and TIDEWATCH_LOCAL_PORT to two other free "
           "ports (47371 and 47372, say) before it manages a background service."
        << false;
}

void TestServiceInstaller::failuresLeaveTheirSentence()
{
    QFETCH(QString, fault);
    QFETCH(QString, sentence);
    QFETCH(bool, serviceTouched);

    Rig rig;
    QVERIFY2(rig.site.isValid(), qPrintable(rig.site.problem()));
    rig.bundleCarriesSdk();
    ServiceInstaller::Parts parts = rig.partsWithStableNode();
    if (fault == QLatin1StringView("tampered"))
        rig.site.tamperWithArchive();
    else if (fault == QLatin1StringView("404"))
        rig.site.answer404ForArchive();
    else if (fault == QLatin1StringView("no checksum"))
        rig.site.dropChecksumLine();
    else if (fault == QLatin1StringView("index"))
        rig.site.breakIndex();
    if (fault == QLatin1StringView("tampered") || fault == QLatin1StringView("404")
        || fault == QLatin1StringView("no checksum") || fault == QLatin1StringView("index"))
        parts = rig.parts();
    if (fault == QLatin1StringView("no bundle"))
        parts.bundledDaemon = rig.scratch.file(QStringLiteral("nothing-here"));
    if (fault == QLatin1StringView("silent")) {
        QFile main(rig.bundle + QStringLiteral("/src/main.js"));
        QVERIFY(main.open(QIODevice::WriteOnly | QIODevice::Truncate));
        main.write("console.log('warming up');\nconsole.error('still warming up');\nsetInterval(() => {}, 1000);\n");
        main.close();
        parts.healthLimit = 3;
    }
    if (fault == QLatin1StringView("real ports")) {
        QHash<QString, QString> variables = parts.environment.variables();
        variables.insert(QStringLiteral("TIDEWATCH_API_PORT"), QStringLiteral("47321"));
        parts.environment = Environment(variables, parts.environment.home());
    }
    sentence.replace(QStringLiteral("%file"), rig.site.file());

    const Run run = installAll(parts, false);
    QVERIFY(run.result);
    QVERIFY(!run.result->ok());
    QCOMPARE(run.result->sentence(), sentence);
    const Environment& environment = parts.environment;
    QCOMPARE(QFileInfo::exists(ServiceInstaller(parts).jobFile()), serviceTouched);
    QCOMPARE(QFileInfo::exists(environment.daemonFolder()), serviceTouched);
    QVERIFY2(
        QDir(environment.nodeFolder()).entryList({QStringLiteral(".staging-*")}, QDir::Dirs | QDir::Hidden).isEmpty(),
        "no staging folder is left");
    if (serviceTouched) {
        // KeepAlive keeps trying: the job stays with the manager.
        QVERIFY(ServiceInstaller(parts).state(std::nullopt).managerKeepsJob);
    }
}

void TestServiceInstaller::aRefusedStartIsTriedFourTimes()
{
    Rig rig;
    rig.bundleCarriesSdk();
    rig.manager.refuse(10);
    const Run refused = installAll(rig.partsWithStableNode(), false);
    QVERIFY(refused.result && !refused.result->ok());
    const QString unitName = rig.environment().serviceLabel() + QStringLiteral(".service");
    QCOMPARE(refused.result->sentence(),
        QStringLiteral("systemd didn’t accept the background service (Job for %1 failed because the control "
                       "process exited with error code.\nSee \"systemctl --user status %1\" and \"journalctl "
                       "--user -xeu %1\" for details.).")
            .arg(unitName));
    QCOMPARE(tenths(refused.pauses), (QList<int>{6, 12, 18, 24}));
    // What stays: everything on disk, nothing running.
    QVERIFY(QFileInfo::exists(rig.unit()));
    QVERIFY(!ServiceInstaller(rig.partsWithStableNode()).servicePID());

    // Refused twice, then taken: 0.6 + 1.2 s of pauses before the third try.
    rig.manager.refuse(2);
    const Run taken = installAll(rig.partsWithStableNode(), false);
    QVERIFY2(taken.ok(), taken.why());
    QCOMPARE(tenths(taken.pauses.mid(0, 2)), (QList<int>{6, 12}));
    QVERIFY(!tenths(taken.pauses).contains(18));
}

void TestServiceInstaller::nvmNodeServesWhenOffline()
{
    Rig rig;
    rig.bundleCarriesSdk();
    rig.site.answer404ForArchive();
    // Node.js only from nvm: good enough by version, not one that stays put.
    const QString nvmNode = rig.scratch.file(
        QStringLiteral("home/.nvm/versions/node/") + rig.site.version() + QStringLiteral("/bin/node"));
    QVERIFY(QFile::link(QFileInfo(ServiceProcess::nodeProgram()).canonicalFilePath(), nvmNode));

    const Run run = installAll(rig.parts());
    QVERIFY2(run.ok(), run.why());
    QCOMPARE(run.steps().first(), Step::GettingNode);
    QCOMPARE(ServiceInstaller(rig.parts()).installedNodePath(), std::optional<QString>(nvmNode));
    QVERIFY(ServiceInstaller(rig.parts()).servicePID());
}

void TestServiceInstaller::anotherCopyOnThePortIsNamed()
{
    Rig rig;
    rig.bundleCarriesSdk();
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
    QVERIFY(ServiceInstaller(rig.partsWithStableNode()).pollHealth(20));

    const Run run = installAll(rig.partsWithStableNode(), false);
    QVERIFY(run.result && !run.result->ok());
    QCOMPARE(run.result->sentence(),
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
    rig.bundleCarriesSdk();
    rig.manager.dropBus(true);
    const Run run = installAll(rig.partsWithStableNode(), false);
    QVERIFY(run.result && !run.result->ok());
    const QString opening = QStringLiteral(
        "This Linux has no systemd user session (a container or WSL may run without one), so nothing can keep the "
        "background service running. Start it by hand with:\n");
    QVERIFY2(run.result->sentence().startsWith(opening), qPrintable(run.result->sentence()));
    QVERIFY2(run.pauses.isEmpty(), "a missing session isn't retried");

    // The command, as a person would paste it, really starts this copy's service.
    const QString command = run.result->sentence().mid(opening.size());
    QProcess shell;
    shell.start(QStringLiteral("/bin/sh"), {QStringLiteral("-c"), command + QStringLiteral(" echo $!")});
    QVERIFY(shell.waitForFinished());
    const int pid = QString::fromUtf8(shell.readAllStandardOutput()).trimmed().toInt();
    ServiceInstaller installer(rig.partsWithStableNode());
    const std::optional<Health> health = installer.pollHealth(20);
    const std::optional<int> listening = installer.pidOnPort(rig.environment().apiPort());
    ::kill(pid_t(pid), SIGTERM);
    QVERIFY2(health, qPrintable(installer.logTail(5).join(QLatin1Char('\n'))));
    QCOMPARE(listening, std::optional<int>(pid));
}

QTEST_GUILESS_MAIN(TestServiceInstaller)
#include "TestServiceInstaller.moc"

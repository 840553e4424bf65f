#include "FakeManager.h"
#include "FreePorts.h"
#include "ScratchFolder.h"
#include "ServiceBundle.h"
#include "ServiceProcess.h"

#include "setup/ClaudeSDK.h"
#include "setup/ServiceInstaller.h"
#include "setup/ServiceJob.h"
#include "setup/ServiceKeeper.h"

#include <QDir>
#include <QEventLoop>
#include <QFile>
#include <QTest>
#include <QTimer>

#include <csignal>
#include <unistd.h>

using Kind = platform::ServiceManagerKind;

namespace {

bool alive(int pid)
{
    return pid > 0 && ::kill(pid_t(pid), 0) == 0;
}

} // namespace

/// The macOS road on this machine: the property list, launchctl's bootout,
/// bootstrap, print and kickstart as the installer drives them, against a
/// launchctl that really starts the program the property list names.
class TestServiceInstallerLaunchd : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void init();
    void cleanup();
    void installsRestartsAndRemoves();
    void restartTakesAJobBackThatLaunchdLetGo();

private:
    ServiceInstaller::Parts parts() const;
    void install();

    std::unique_ptr<ScratchFolder> m_scratch;
    std::unique_ptr<FakeManager> m_manager;
    QString m_bundle;
    QList<int> m_ports;
};

void TestServiceInstallerLaunchd::init()
{
    m_scratch = std::make_unique<ScratchFolder>();
    m_manager = std::make_unique<FakeManager>(*m_scratch);
    m_bundle = makeServiceBundle(*m_scratch, QStringLiteral("bundle/daemon"));
    m_ports = freePorts(2);
    // The SDK comes with this bundle: these tests are about launchd.
    const QString package = m_bundle + QStringLiteral("/node_modules/@anthropic-ai/claude-agent-sdk");
    m_scratch->write(QStringLiteral("bundle/daemon/node_modules/@anthropic-ai/claude-agent-sdk/package.json"),
        QStringLiteral(R"({"name":"@anthropic-ai/claude-agent-sdk","version":"%1"})")
            .arg(*ClaudeSDK::wanted(m_bundle))
            .toUtf8());
    m_scratch->write(QStringLiteral("bundle/daemon/node_modules/@anthropic-ai/claude-agent-sdk/index.js"), "");
}

void TestServiceInstallerLaunchd::cleanup()
{
    m_manager.reset();
    m_scratch.reset();
}

ServiceInstaller::Parts TestServiceInstallerLaunchd::parts() const
{
    const QString home = m_scratch->file(QStringLiteral("home/"));
    ServiceInstaller::Parts parts;
    parts.environment = Environment({{QStringLiteral("TIDEWATCH_SUPPORT"), m_scratch->file(QStringLiteral("support"))},
                                        {QStringLiteral("TIDEWATCH_API_PORT"), QString::number(m_ports.value(0))},
                                        {QStringLiteral("TIDEWATCH_LOCAL_PORT"), QString::number(m_ports.value(1))},
                                        {QStringLiteral("XDG_DATA_HOME"), home + QStringLiteral(".local/share")},
                                        {QStringLiteral("XDG_STATE_HOME"), home + QStringLiteral(".local/state")},
                                        {QStringLiteral("XDG_CONFIG_HOME"), home + QStringLiteral(".config")}},
        QDir::cleanPath(home));
    parts.tools = m_manager->tools(Kind::Launchd);
    parts.tools.nodeFolders = {{QFileInfo(ServiceProcess::nodeProgram()).path(), QStringLiteral("pinned")}};
    parts.bundledDaemon = m_bundle;
    return parts;
}

void TestServiceInstallerLaunchd::install()
{
    std::optional<Outcome<Health>> result;
    runWhileServing([&] { result = ServiceInstaller(parts()).installAll([](const auto&) {}); }, 60000);
    QVERIFY(result);
    QVERIFY2(result->ok(), qPrintable(result->ok() ? QString() : result->sentence()));
}

void TestServiceInstallerLaunchd::installsRestartsAndRemoves()
{
    install();
    ServiceInstaller installer(parts());
    const QString plist = installer.jobFile();
    QVERIFY(plist.endsWith(QLatin1Char('/') + installer.environment().serviceLabel() + QStringLiteral(".plist")));
    QCOMPARE(installer.installedNodePath(),
        std::optional<QString>(QFileInfo(ServiceProcess::nodeProgram()).path() + QStringLiteral("/node")));
    const QString domain = QStringLiteral("gui/%1").arg(::getuid());
    const QString address = domain + QLatin1Char('/') + installer.environment().serviceLabel();
    const QStringList calls = m_manager->calls();
    QCOMPARE(calls.mid(0, 2),
        (QStringList{QStringLiteral("launchctl bootout ") + address, QStringLiteral("launchctl print ") + address}));
    QVERIFY(calls.contains(QStringLiteral("launchctl bootstrap ") + domain + QLatin1Char(' ') + plist));

    // print's pid line is the process that listens.
    const std::optional<int> pid = installer.servicePID();
    QVERIFY(pid);
    QCOMPARE(installer.pidOnPort(installer.environment().apiPort()), pid);
    QVERIFY(installer.state(std::nullopt).managerKeepsJob);

    QVERIFY(installer.restart());
    QVERIFY(installer.pollHealth(20));
    const std::optional<int> restarted = installer.servicePID();
    QVERIFY(restarted && restarted != pid);
    QVERIFY(!alive(*pid));

    installer.uninstall();
    QVERIFY(!QFileInfo::exists(plist));
    QVERIFY(!installer.state(std::nullopt).managerKeepsJob);
    QVERIFY(!alive(*restarted));
    QVERIFY(!installer.restart());
}

void TestServiceInstallerLaunchd::restartTakesAJobBackThatLaunchdLetGo()
{
    install();
    ServiceInstaller installer(parts());
    installer.stop();
    QVERIFY(!installer.servicePID());

    // kickstart finds no job; the keeper bootstraps it anew and waits for its answer.
    ServiceKeeper keeper([this] { return ServiceInstaller(parts()); });
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
    QVERIFY(!keeper.busy());
    QVERIFY(installer.servicePID());
    QVERIFY(installer.pollHealth(5));
}

QTEST_GUILESS_MAIN(TestServiceInstallerLaunchd)
#include "TestServiceInstallerLaunchd.moc"

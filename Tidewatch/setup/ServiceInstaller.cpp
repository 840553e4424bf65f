#include "setup/ServiceInstaller.h"

#include "base/AtomicFile.h"
#include "base/Shell.h"
#include "entry/Preferences.h"
#include "link/DaemonClient.h"
#include "setup/ClaudeSDK.h"
#include "setup/LoginItem.h"
#include "setup/NodeInstaller.h"
#include "setup/ServiceJob.h"
#include "text/Machine.h"

#include <QDir>
#include <QDirIterator>
#include <QElapsedTimer>
#include <QFile>
#include <QFileInfo>
#include <QThread>
#include <QUuid>

#include <array>
#include <string>

#include <unistd.h>

namespace {

constexpr double kHealthTimeout = 1.5;
constexpr double kHealthInterval = 0.7;
constexpr double kSettle = 1.5;
constexpr int kLetGoChecks = 20;
constexpr double kLetGoInterval = 0.25;
constexpr int kStartAttempts = 4;
constexpr double kStartPause = 0.6;
constexpr double kXattrLimit = 30;
constexpr double kLsofLimit = 8;
constexpr int kLogLines = 12;

bool isExecutableFile(const QString& path)
{
    const QFileInfo info(path);
    return info.isFile() && info.isExecutable();
}

bool hasEntry(const QString& daemonFolder)
{
    // `node src/main` finds the entry by its extension.
    return QFileInfo::exists(daemonFolder + QStringLiteral("/src/main.js"))
        || QFileInfo::exists(daemonFolder + QStringLiteral("/src/main"));
}

} // namespace

std::optional<QString> ServiceInstaller::copyServiceFolder(const QString& from, const QString& to)
{
    if (!QDir().mkpath(to))
        return QStringLiteral("Tidewatch couldn’t create its folder %1.").arg(to);
    QDirIterator it(
        from, QDir::AllEntries | QDir::Hidden | QDir::System | QDir::NoDotAndDotDot, QDirIterator::Subdirectories);
    while (it.hasNext()) {
        it.next();
        const QFileInfo source = it.fileInfo();
        const QString relative = QDir(from).relativeFilePath(source.filePath());
        if (relative == QLatin1StringView("test") || relative.startsWith(QLatin1StringView("test/")))
            continue;
        const QString target = to + QLatin1Char('/') + relative;
        if (source.isSymLink()) {
            // As written, relative or not: a link inside the package stays inside the copy.
            std::array<char, 4096> buffer{};
            const ssize_t length
                = ::readlink(QFile::encodeName(source.filePath()).constData(), buffer.data(), buffer.size());
            if (length <= 0
                || ::symlink(std::string(buffer.data(), size_t(length)).c_str(), QFile::encodeName(target).constData())
                    != 0)
                return QStringLiteral("Tidewatch couldn’t copy %1.").arg(source.filePath());
        } else if (source.isDir()) {
            if (!QDir().mkpath(target))
                return QStringLiteral("Tidewatch couldn’t create its folder %1.").arg(target);
        } else if (!QFile::copy(source.filePath(), target)) {
            return QStringLiteral("Tidewatch couldn’t copy %1.").arg(source.filePath());
        }
    }
    return std::nullopt;
}

namespace {

// One word for a POSIX shell.
QString shellWord(const QString& word)
{
    QString quoted = word;
    quoted.replace(QLatin1Char('\''), QStringLiteral("'\\''"));
    return QLatin1Char('\'') + quoted + QLatin1Char('\'');
}

} // namespace

ServiceInstaller::ServiceInstaller()
    : ServiceInstaller(Parts{})
{
}

ServiceInstaller::ServiceInstaller(Parts parts)
    : m_parts(std::move(parts))
    , m_manager(m_parts.tools.system.manager, m_parts.tools.serviceManagerTool(),
          {m_parts.environment.serviceLabel(), jobFile(), unsigned(::getuid()), m_parts.environment.isTestCopy()})
{
    if (m_parts.nodeSite.isEmpty())
        m_parts.nodeSite = NodeInstaller::configuredSite(m_parts.environment);
    if (!m_parts.health) {
        m_parts.health = [environment = m_parts.environment](
                             double timeout) { return DaemonClient::healthBlocking(environment, timeout); };
    }
    if (!m_parts.pause)
        m_parts.pause = [](double seconds) { QThread::msleep(qRound64(seconds * 1000)); };
}

ServiceInstaller ServiceInstaller::forCopy(const Environment& environment)
{
    Parts parts;
    parts.environment = environment;
    parts.tools = OutsideTools::current(environment);
    parts.bundledDaemon = environment.bundledDaemonFolder();
    parts.bundledRelay = environment.bundledRelay();
    return ServiceInstaller(std::move(parts));
}

QString ServiceInstaller::jobFile() const
{
    return m_parts.environment.serviceUnitFolder() + QLatin1Char('/') + m_parts.environment.serviceLabel()
        + ServiceManager::fileSuffix(m_parts.tools.system.manager);
}

std::optional<QString> ServiceInstaller::refusal() const
{
    return m_parts.environment.refusalSentence();
}

Detection ServiceInstaller::detection() const
{
    Detection::Places places = Detection::Places::forThisSystem();
    places.systemFolders = m_parts.tools.nodeFolders;
    return Detection(m_parts.environment, places);
}

ShellResult ServiceInstaller::run(const ServiceManager::Command& command) const
{
    return Shell::run(command.program, command.arguments, std::nullopt, QString(), command.limitSeconds);
}

QString ServiceInstaller::progressLine(const Progress& progress, const ServiceManager& manager)
{
    switch (progress.step) {
    case Progress::Step::GettingNode:
        return QStringLiteral("  getting Node.js (no stable one on %1)").arg(machine::thisMachine());
    case Progress::Step::Copying:
        return QStringLiteral("  copying the daemon");
    case Progress::Step::FetchingSDK:
        return QStringLiteral("  fetching Claude Code’s SDK from npm (about 2 MB)");
    case Progress::Step::Writing:
        return manager.kind() == platform::ServiceManagerKind::Launchd ? QStringLiteral("  writing the launch agent")
                                                                       : QStringLiteral("  writing the systemd unit");
    case Progress::Step::Starting:
        return QStringLiteral("  ") + manager.startWords();
    case Progress::Step::Waiting:
        return {};
    }
    return {};
}

Outcome<Health> ServiceInstaller::installAll(const ProgressSink& progress)
{
    if (const std::optional<QString> refused = refusal())
        return Outcome<Health>::failure(*refused);
    const ServiceNodeChoice choice = detection().chooseServiceNode(installedNodePath());
    QString nodePath;
    if (choice.stable) {
        nodePath = choice.stable->path;
    } else {
        progress({Progress::Step::GettingNode, std::nullopt});
        NodeInstaller::Observer observer;
        observer.progress = [&progress](double fraction) { progress({Progress::Step::GettingNode, fraction}); };
        const Outcome<QString> fetched = NodeInstaller::install(
            m_parts.environment.nodeFolder(), m_parts.nodeSite, observer, m_parts.tools.system.tar);
        if (fetched.ok()) {
            nodePath = fetched.value();
        } else if (choice.versioned) {
            // The last resort beats no service at all.
            nodePath = choice.versioned->path;
        } else {
            return Outcome<Health>::failure(
                QStringLiteral("Tidewatch couldn’t get Node.js for the background service. ") + fetched.sentence());
        }
    }

    const bool firstInstall = !QFileInfo::exists(jobFile());
    Outcome<Health> installed = install(nodePath, progress);
    if (installed.ok() && firstInstall && !m_parts.environment.isTestCopy()) {
        // An update or repair leaves the login item alone, so a person's choice stands.
        Preferences(m_parts.environment).setFlag(Preferences::loginItemWanted, true);
        LoginItem::reconcile(m_parts.environment);
    }
    return installed;
}

Outcome<Health> ServiceInstaller::install(const QString& nodePath, const ProgressSink& progress)
{
    const auto fail = [](const QString& sentence) { return Outcome<Health>::failure(sentence); };
    if (const std::optional<QString> refused = refusal())
        return fail(*refused);

    progress({Progress::Step::Copying, std::nullopt});
    if (const Outcome<bool> copied = copyDaemon(); !copied.ok())
        return fail(copied.sentence());
    if (const Outcome<bool> copied = copyRelay(); !copied.ok())
        return fail(copied.sentence());
    if (const std::optional<QString> failure = detection().recordNodePath(nodePath))
        return fail(*failure);

    const QString daemonFolder = m_parts.environment.daemonFolder();
    if (!ClaudeSDK::state(daemonFolder).isCurrent()) {
        progress({Progress::Step::FetchingSDK, std::nullopt});
        // A service without the SDK starts all the same; the sentence waits in lastProblem().
        ClaudeSDK::ensure(m_parts.environment, daemonFolder, nodePath);
    }

    progress({Progress::Step::Writing, std::nullopt});
    if (const Outcome<bool> written = writeJobFile(nodePath); !written.ok())
        return fail(written.sentence());

    progress({Progress::Step::Starting, std::nullopt});
    stop();
    if (const Outcome<bool> started = start(); !started.ok())
        return fail(started.sentence());

    progress({Progress::Step::Waiting, std::nullopt});
    const std::optional<Health> health = pollHealth(m_parts.healthLimit);
    if (!health) {
        QString sentence = QStringLiteral("The background service started but isn’t answering yet.");
        if (const QStringList tail = logTail(kLogLines); !tail.isEmpty())
            sentence += QStringLiteral("\n\nLast lines of its log:\n") + tail.join(QLatin1Char('\n'));
        return fail(sentence);
    }

    m_parts.pause(kSettle);
    const int port = m_parts.environment.apiPort();
    const std::optional<int> onPort = pidOnPort(port);
    const std::optional<int> ours = servicePID();
    if (onPort && ours != onPort) {
        return fail(QStringLiteral("Another copy of the service (process %1, started outside Tidewatch, maybe in a "
                                   "Terminal window) is using port %2, so the background service can’t take over. "
                                   "Quit that copy, then try again.")
                        .arg(*onPort)
                        .arg(port));
    }
    return *health;
}

Outcome<bool> ServiceInstaller::copyDaemon()
{
    const auto fail = [](const QString& sentence) { return Outcome<bool>::failure(sentence); };
    if (!m_parts.bundledDaemon || !hasEntry(*m_parts.bundledDaemon)) {
        return fail(QStringLiteral(
            "This copy of Tidewatch doesn’t include the background service. Rebuild it with mac/build.sh."));
    }
    if (const std::optional<QString> failure = m_parts.environment.ensureSupportFolder())
        return fail(*failure);
    const QString app = m_parts.environment.appFolder();
    if (!QDir().mkpath(app))
        return fail(QStringLiteral("Tidewatch couldn’t create its folder %1.").arg(app));

    const QString staging = app + QStringLiteral("/.daemon-") + QUuid::createUuid().toString(QUuid::WithoutBraces);
    const auto cleanUp = [&staging] {
        if (QFileInfo::exists(staging))
            QDir(staging).removeRecursively();
    };
    if (const std::optional<QString> failure = copyServiceFolder(*m_parts.bundledDaemon, staging)) {
        cleanUp();
        return fail(*failure);
    }
    if (!m_parts.tools.system.xattr.isEmpty()) {
        // Only this private copy loses the mark, never the app.
        Shell::run(m_parts.tools.system.xattr, {QStringLiteral("-dr"), QStringLiteral("com.apple.quarantine"), staging},
            std::nullopt, QString(), kXattrLimit);
    }
    const QString daemon = m_parts.environment.daemonFolder();
    ClaudeSDK::carryOver(daemon, staging);

    if (QFileInfo::exists(daemon)) {
        if (const std::optional<QString> failure = platform::swapFolders(staging, daemon)) {
            cleanUp();
            return fail(QStringLiteral("Tidewatch couldn’t put the new service in place: %1.").arg(*failure));
        }
    } else if (!QDir().rename(staging, daemon)) {
        cleanUp();
        return fail(QStringLiteral("Tidewatch couldn’t move the service into %1.").arg(daemon));
    }
    // After a swap the staging path holds the replaced copy.
    cleanUp();
    return true;
}

Outcome<bool> ServiceInstaller::copyRelay()
{
    if (!m_parts.bundledRelay)
        return true;
    const QString target = m_parts.environment.installedRelay();
    QFile bundled(*m_parts.bundledRelay);
    // Put in place by a rename, so that a terminal starting now runs the old copy or the new, never a part.
    if (!QDir().mkpath(QFileInfo(target).path()) || !bundled.open(QIODevice::ReadOnly)
        || writeFileAtomically(target, bundled.readAll(), 0755)) {
        return Outcome<bool>::failure(QStringLiteral("Tidewatch couldn’t put its terminal relay in %1.").arg(target));
    }
    return true;
}

Outcome<bool> ServiceInstaller::writeJobFile(const QString& nodePath)
{
    const QString folder = QFileInfo(jobFile()).path();
    if (!QDir().mkpath(folder))
        return Outcome<bool>::failure(QStringLiteral("Tidewatch couldn’t create its folder %1.").arg(folder));
    const QString logs = m_parts.environment.logFolder();
    if (!QDir().mkpath(logs))
        return Outcome<bool>::failure(QStringLiteral("Tidewatch couldn’t create its folder %1.").arg(logs));
    const ServiceJob::Spec spec = ServiceJob::specFor(m_parts.environment, nodePath);
    const QString text = m_manager.kind() == platform::ServiceManagerKind::Launchd ? ServiceJob::launchAgentPlist(spec)
                                                                                   : ServiceJob::systemdUnit(spec);
    if (const std::optional<QString> failure = writeFileAtomically(jobFile(), text.toUtf8(), 0644))
        return Outcome<bool>::failure(*failure);
    return true;
}

void ServiceInstaller::stop()
{
    if (refusal())
        return;
    for (const ServiceManager::Command& command : m_manager.unload())
        run(command);
    for (int check = 0; check < kLetGoChecks; ++check) {
        if (m_manager.hasLetGo(run(m_manager.probe())))
            return;
        m_parts.pause(kLetGoInterval);
    }
}

Outcome<bool> ServiceInstaller::start()
{
    if (const std::optional<QString> refused = refusal())
        return Outcome<bool>::failure(*refused);
    ShellResult last;
    for (int attempt = 1; attempt <= kStartAttempts; ++attempt) {
        bool accepted = true;
        for (const ServiceManager::Command& command : m_manager.load()) {
            last = run(command);
            if (last.timedOut || last.status != 0) {
                accepted = false;
                break;
            }
        }
        if (accepted)
            return true;
        if (ServiceManager::noUserSession(last)) {
            const QString node = installedNodePath().value_or(QStringLiteral("node"));
            return Outcome<bool>::failure(
                QStringLiteral("This Linux has no systemd user session (a container or WSL may run without one), "
                               "so nothing can keep the background service running. Start it by hand with:\n")
                + commandByHand(node));
        }
        m_parts.pause(kStartPause * attempt);
    }
    const QString cause = last.combined().isEmpty() ? QStringLiteral("exit %1").arg(last.status) : last.combined();
    return Outcome<bool>::failure(
        m_manager.name() + QStringLiteral(" didn’t accept the background service (") + cause + QStringLiteral(")."));
}

bool ServiceInstaller::restart()
{
    if (refusal())
        return false;
    const ShellResult result = run(m_manager.restart());
    return !result.timedOut && result.status == 0;
}

void ServiceInstaller::uninstall()
{
    if (refusal())
        return;
    stop();
    QFile::remove(jobFile());
    for (const ServiceManager::Command& command : m_manager.forget())
        run(command);
    QDir(m_parts.environment.appFolder()).removeRecursively();
}

ServiceInstaller::State ServiceInstaller::state(const std::optional<Health>& health) const
{
    State state;
    state.jobFileExists = QFileInfo::exists(jobFile());
    state.installedDaemon = hasEntry(m_parts.environment.daemonFolder());
    state.healthy = health.has_value();
    state.daemonName = health ? health->name : std::nullopt;
    state.updateAvailable = updateAvailable();
    state.managerKeepsJob = m_manager.knows(run(m_manager.probe()));
    return state;
}

bool ServiceInstaller::updateAvailable() const
{
    return ServiceJob::updateAvailable(m_parts.bundledDaemon, m_parts.environment.daemonFolder());
}

std::optional<QString> ServiceInstaller::installedNodePath() const
{
    QFile file(jobFile());
    if (!file.open(QIODevice::ReadOnly))
        return std::nullopt;
    return ServiceJob::nodePathOf(QString::fromUtf8(file.readAll()));
}

std::optional<QString> ServiceInstaller::serviceNodeGone() const
{
    std::optional<QString> node = installedNodePath();
    if (!node || isExecutableFile(*node))
        return std::nullopt;
    return node;
}

QStringList ServiceInstaller::logTail(int count) const
{
    QFile file(m_parts.environment.daemonLog());
    if (count <= 0 || !file.open(QIODevice::ReadOnly))
        return {};
    // The end is what matters; a log can be long.
    constexpr qint64 kWindow = qint64{64} * 1024;
    if (file.size() > kWindow)
        file.seek(file.size() - kWindow);
    QStringList lines;
    for (const QString& line : QString::fromUtf8(file.readAll()).split(QLatin1Char('\n'))) {
        if (!line.trimmed().isEmpty())
            lines << line;
    }
    return lines.mid(qMax(0, int(lines.size()) - count));
}

std::optional<int> ServiceInstaller::pidOnPort(int port) const
{
    if (m_parts.tools.system.lsof.isEmpty())
        return std::nullopt;
    const ShellResult result = Shell::run(m_parts.tools.system.lsof,
        {QStringLiteral("-nP"), QStringLiteral("-iTCP:%1").arg(port), QStringLiteral("-sTCP:LISTEN"),
            QStringLiteral("-t")},
        std::nullopt, QString(), kLsofLimit);
    if (result.timedOut)
        return std::nullopt;
    return ServiceJob::pidFromLsof(result.out);
}

std::optional<int> ServiceInstaller::servicePID() const
{
    return m_manager.pid(run(m_manager.probe()));
}

std::optional<Health> ServiceInstaller::probeHealth() const
{
    const std::optional<Health> health = m_parts.health(kHealthTimeout);
    return health && health->ok.value_or(false) ? health : std::nullopt;
}

std::optional<Health> ServiceInstaller::pollHealth(double limitSeconds) const
{
    QElapsedTimer clock;
    clock.start();
    while (clock.elapsed() < qint64(limitSeconds * 1000)) {
        std::optional<Health> health = m_parts.health(kHealthTimeout);
        if (health && health->ok.value_or(false))
            return health;
        m_parts.pause(kHealthInterval);
    }
    return std::nullopt;
}

QString ServiceInstaller::commandByHand(const QString& nodePath) const
{
    QStringList words;
    const Environment::Variables variables = m_parts.environment.serviceEnvironment();
    QStringList keys = variables.keys();
    keys.sort();
    for (const QString& key : keys)
        words << key + QLatin1Char('=') + shellWord(variables.value(key));
    words << shellWord(nodePath) << shellWord(m_parts.environment.daemonFolder() + QStringLiteral("/src/main"));
    return words.join(QLatin1Char(' ')) + QStringLiteral(" >> ") + shellWord(m_parts.environment.daemonLog())
        + QStringLiteral(" 2>&1 &");
}

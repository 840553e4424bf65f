#include "setup/ClaudeSDK.h"

#include "text/Machine.h"
#include <QDir>
#include <QDirIterator>
#include <QFile>
#include <QFileInfo>
#include <QJsonDocument>
#include <QJsonObject>
#include <QMutex>

#include <sys/stat.h>

namespace ClaudeSDK {

namespace {

QString packageFolder(const QString& daemonFolder)
{
    return daemonFolder + QStringLiteral("/node_modules/") + kPackage;
}

// The file a package's manifest names as its entry.
QString entryFile(const QJsonObject& manifest)
{
    const QJsonValue exports = manifest.value(QLatin1StringView("exports"));
    if (exports.isString())
        return exports.toString();
    if (exports.isObject()) {
        const QJsonValue root = exports.toObject().value(QLatin1StringView("."));
        if (root.isString())
            return root.toString();
        if (root.isObject()) {
            for (const char* condition : {"import", "node", "default"}) {
                const QJsonValue target = root.toObject().value(QLatin1StringView(condition));
                if (target.isString())
                    return target.toString();
                if (!target.isUndefined())
                    break;
            }
        }
        return {};
    }
    const QJsonValue main = manifest.value(QLatin1StringView("main"));
    return main.isString() ? main.toString() : QStringLiteral("index.js");
}

QString withTilde(const QString& path, const QString& home)
{
    return path.startsWith(home + QLatin1Char('/')) ? QLatin1Char('~') + path.mid(home.size()) : path;
}

QMutex problemLock;
std::optional<QString> problem;

void remember(const Outcome& outcome)
{
    QMutexLocker locker(&problemLock);
    problem = outcome.ready ? std::nullopt : std::optional<QString>(outcome.failure);
}

} // namespace

std::optional<QString> wanted(const QString& daemonFolder)
{
    QFile file(daemonFolder + QStringLiteral("/sdk-version"));
    if (!file.open(QIODevice::ReadOnly))
        return std::nullopt;
    const QString text = QString::fromUtf8(file.readAll()).trimmed();
    return text.isEmpty() ? std::nullopt : std::optional<QString>(text);
}

std::optional<QString> installedVersion(const QString& daemonFolder)
{
    const QString folder = packageFolder(daemonFolder);
    QFile file(folder + QStringLiteral("/package.json"));
    if (!file.open(QIODevice::ReadOnly))
        return std::nullopt;
    const QJsonObject manifest = QJsonDocument::fromJson(file.readAll()).object();
    if (manifest.value(QLatin1StringView("name")).toString() != kPackage)
        return std::nullopt;
    // A half-written package has its manifest but not its code.
    const QString entry = entryFile(manifest);
    if (entry.isEmpty() || !QFileInfo(QDir(folder).filePath(entry)).isFile())
        return std::nullopt;
    const QJsonValue version = manifest.value(QLatin1StringView("version"));
    return version.isString() ? std::optional<QString>(version.toString()) : std::nullopt;
}

State state(const QString& daemonFolder)
{
    return {wanted(daemonFolder), installedVersion(daemonFolder)};
}

std::optional<Npm> findNpm(const QString& nodePath)
{
    const QString bin = QFileInfo(nodePath).path();
    const QFileInfo npm(bin + QStringLiteral("/npm"));
    if (npm.exists()) {
        const QString resolved = npm.canonicalFilePath();
        // A script runs on this Node.js, whatever its first line names.
        if (resolved.endsWith(QLatin1StringView(".js")))
            return Npm{nodePath, {resolved}};
        return Npm{npm.filePath(), {}};
    }
    const QString cli = QFileInfo(bin).path() + QStringLiteral("/lib/node_modules/npm/bin/npm-cli.js");
    if (QFileInfo(cli).isFile())
        return Npm{nodePath, {cli}};
    return std::nullopt;
}

QStringList arguments(const QString& cacheFolder)
{
    return {QStringLiteral("install"), QStringLiteral("--no-save"), QStringLiteral("--ignore-scripts"),
        QStringLiteral("--no-audit"), QStringLiteral("--no-fund"), QStringLiteral("--omit=dev"),
        QStringLiteral("--omit=optional"), QStringLiteral("--prefer-offline"),
        QStringLiteral("--update-notifier=false"), QStringLiteral("--fetch-retries=2"),
        QStringLiteral("--fetch-retry-mintimeout=2000"), QStringLiteral("--fetch-retry-maxtimeout=8000"),
        QStringLiteral("--fetch-timeout=60000"), QStringLiteral("--loglevel=error"), QStringLiteral("--cache"),
        cacheFolder};
}

Shell::Environment environment(const QString& nodePath)
{
    Shell::Environment variables = Shell::environment();
    const QString inherited = variables.value(QStringLiteral("PATH"), Shell::searchPath());
    variables.insert(QStringLiteral("PATH"), QFileInfo(nodePath).path() + QLatin1Char(':') + inherited);
    variables.insert(QStringLiteral("npm_config_update_notifier"), QStringLiteral("false"));
    return variables;
}

QString sentence(const ShellResult& result, const std::optional<QString>& pinned, double limitSeconds,
    const QString& daemonFolderForPeople)
{
    const QString text = result.combined();
    const auto holds = [&text](std::initializer_list<const char*> words) {
        return std::any_of(
            words.begin(), words.end(), [&text](const char* word) { return text.contains(QLatin1StringView(word)); });
    };
    if (result.timedOut) {
        return QStringLiteral(
            "npm didn’t finish within %1 minutes. Check the internet connection, then fetch it again.")
            .arg(int(limitSeconds / 60));
    }
    if (holds({"ENOTFOUND", "ECONNREFUSED", "ETIMEDOUT", "EAI_AGAIN", "ECONNRESET", "ENETUNREACH", "EHOSTUNREACH",
            "ERR_SOCKET_TIMEOUT"})) {
        return QStringLiteral("Tidewatch couldn’t reach npm: %1 looks offline (or a proxy is in the way). Fetch "
                              "it again once it’s online.")
            .arg(machine::thisMachine());
    }
    if (holds({"EINTEGRITY"})) {
        return QStringLiteral("The download didn’t match the checksum in the service’s package lock, so npm threw it "
                              "away. Fetch it again; if it keeps happening, your network may be altering downloads.");
    }
    if (holds({"EACCES", "EPERM"})) {
        return QStringLiteral("npm wasn’t allowed to write in Tidewatch’s folder (") + daemonFolderForPeople
            + QStringLiteral("). Fetch it again; if it keeps happening, check that folder’s owner.");
    }
    if (result.status == 0) {
        return QStringLiteral("npm finished, but Claude Code’s SDK") + (pinned ? QLatin1Char(' ') + *pinned : QString())
            + QStringLiteral(" isn’t in the service’s folder.");
    }
    std::optional<QString> code;
    std::optional<QString> detail;
    for (QString line : text.split(QLatin1Char('\n'), Qt::SkipEmptyParts)) {
        line.remove(QStringLiteral("npm error ")).remove(QStringLiteral("npm ERR! "));
        line = line.trimmed();
        if (line.isEmpty())
            continue;
        if (line.startsWith(QLatin1StringView("code "))) {
            if (!code)
                code = line.mid(5);
            continue;
        }
        // npm's bookkeeping lines aren't its message.
        if (!detail && !line.startsWith(QLatin1StringView("at "))
            && !line.startsWith(QLatin1StringView("A complete log")) && !line.startsWith(QLatin1StringView("errno")))
            detail = line;
    }
    QStringList parts;
    if (code)
        parts << *code;
    if (detail)
        parts << *detail;
    const QString words
        = parts.isEmpty() ? QStringLiteral("exit %1").arg(result.status) : parts.join(QStringLiteral(": ")).left(160);
    return QStringLiteral("npm stopped with an error (") + words + QStringLiteral("). Fetch it again in a moment.");
}

Outcome fetch(const Environment& environment, const QString& daemonFolder, const QString& nodePath, double limitSeconds)
{
    if (!QFileInfo::exists(daemonFolder + QStringLiteral("/package-lock.json"))) {
        return {std::nullopt,
            QStringLiteral("This copy of the service has no package lock to fetch Claude Code’s SDK "
                           "with. Rebuild the app with mac/build.sh.")};
    }
    const std::optional<Npm> npm = findNpm(nodePath);
    if (!npm) {
        return {std::nullopt,
            QStringLiteral("There’s no npm next to the Node.js the service runs on (")
                + withTilde(nodePath, environment.home())
                + QStringLiteral("), so Claude Code’s SDK couldn’t be fetched.")};
    }
    const QString cache = environment.supportFolder() + QStringLiteral("/npm-cache");
    QDir().mkpath(cache);
    ::chmod(QFile::encodeName(cache).constData(), 0700);
    // npm must not stumble over the wreck of an interrupted fetch.
    if (!installedVersion(daemonFolder) && QFileInfo::exists(packageFolder(daemonFolder)))
        QDir(packageFolder(daemonFolder)).removeRecursively();

    const ShellResult result = Shell::run(
        npm->program, npm->prefix + arguments(cache), ClaudeSDK::environment(nodePath), daemonFolder, limitSeconds);
    const std::optional<QString> pinned = wanted(daemonFolder);
    const std::optional<QString> version = installedVersion(daemonFolder);
    if (!result.timedOut && result.status == 0 && version && (!pinned || pinned == version))
        return {version, {}};
    return {std::nullopt, sentence(result, pinned, limitSeconds, withTilde(daemonFolder, environment.home()))};
}

Outcome ensure(const Environment& environment, const QString& daemonFolder, const QString& nodePath)
{
    const State now = state(daemonFolder);
    Outcome outcome = now.isCurrent() ? Outcome{now.installed, {}} : fetch(environment, daemonFolder, nodePath);
    remember(outcome);
    return outcome;
}

void carryOver(const QString& oldFolder, const QString& newFolder)
{
    if (!installedVersion(oldFolder) || QFileInfo::exists(packageFolder(newFolder)))
        return;
    const QString from = packageFolder(oldFolder);
    const QString to = packageFolder(newFolder);
    QDir().mkpath(QFileInfo(to).path());
    QDirIterator entries(from, QDir::AllEntries | QDir::Hidden | QDir::NoDotAndDotDot, QDirIterator::Subdirectories);
    QDir().mkpath(to);
    while (entries.hasNext()) {
        const QString source = entries.next();
        const QString target = to + source.mid(from.size());
        if (entries.fileInfo().isDir())
            QDir().mkpath(target);
        else
            QFile::copy(source, target);
    }
}

std::optional<QString> lastProblem()
{
    QMutexLocker locker(&problemLock);
    return problem;
}

} // namespace ClaudeSDK

#include "setup/Detection.h"

#include "base/AtomicFile.h"
#include "base/Shell.h"

#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QJsonDocument>
#include <QJsonObject>

namespace {

constexpr double kNodeVersionLimit = 6;
constexpr double kToolLimit = 8;

bool isExecutableFile(const QString& path)
{
    const QFileInfo info(path);
    return info.isFile() && info.isExecutable();
}

// The folders of a parent whose names parse as versions, newest first.
QList<std::pair<NodeVersion, QString>> versionFolders(const QString& parent, bool needsLeadingV)
{
    QList<std::pair<NodeVersion, QString>> found;
    for (const QString& name : QDir(parent).entryList(QDir::Dirs | QDir::NoDotAndDotDot)) {
        if (needsLeadingV && !name.startsWith(QLatin1Char('v')))
            continue;
        if (const std::optional<NodeVersion> version = NodeVersion::parse(name))
            found.append({*version, parent + QLatin1Char('/') + name});
    }
    std::stable_sort(found.begin(), found.end(), [](const auto& a, const auto& b) { return a.first > b.first; });
    return found;
}

QString foundByForPath(const QString& path)
{
    if (path.contains(QLatin1StringView("/.nvm/")))
        return QStringLiteral("nvm (npm)");
    if (path.contains(QLatin1StringView("/.volta/")))
        return QStringLiteral("Volta");
    if (path.contains(QLatin1StringView("/.bun/")))
        return QStringLiteral("Bun");
    if (path.contains(QLatin1StringView("/.npm-global/")))
        return QStringLiteral("npm");
    return QStringLiteral("Homebrew");
}

} // namespace

std::optional<NodeVersion> NodeCandidate::parsedVersion() const
{
    return version ? NodeVersion::parse(*version) : std::nullopt;
}

bool NodeCandidate::meetsFloor() const
{
    const std::optional<NodeVersion> parsed = parsedVersion();
    return parsed && parsed->meetsFloor();
}

Detection::Places Detection::Places::forThisSystem()
{
    return {platform::loginShell(), platform::systemToolFolders(),
        {QStringLiteral("/usr/local/bin/tailscale"), QStringLiteral("/opt/homebrew/bin/tailscale"),
            QStringLiteral("/usr/bin/tailscale")}};
}

Detection::Detection(Environment environment, Places places)
    : m_environment(std::move(environment))
    , m_places(std::move(places))
{
}

QList<std::pair<NodeVersion, QString>> Detection::nvmVersions() const
{
    return versionFolders(m_environment.home() + QStringLiteral("/.nvm/versions/node"), false);
}

QStringList Detection::searchDirectories() const
{
    QStringList folders;
    for (const platform::ToolFolder& system : m_places.systemFolders)
        folders << system.folder;
    const QString home = m_environment.home();
    folders << home + QStringLiteral("/.local/bin") << home + QStringLiteral("/.npm-global/bin")
            << home + QStringLiteral("/.volta/bin") << home + QStringLiteral("/.bun/bin");
    for (const auto& [version, folder] : nvmVersions())
        folders << folder + QStringLiteral("/bin");
    return folders;
}

std::optional<QString> Detection::findTool(const QString& name) const
{
    for (const QString& folder : searchDirectories()) {
        const QString candidate = folder + QLatin1Char('/') + name;
        if (isExecutableFile(candidate))
            return candidate;
    }
    return std::nullopt;
}

std::optional<NodeCandidate> Detection::probeNode(const QString& path, const QString& source) const
{
    if (!isExecutableFile(path))
        return std::nullopt;
    const ShellResult result
        = Shell::run(path, {QStringLiteral("--version")}, std::nullopt, QString(), kNodeVersionLimit);
    NodeCandidate candidate{path, source, std::nullopt};
    if (!result.timedOut && result.status == 0)
        candidate.version = result.out;
    return candidate;
}

QList<NodeCandidate> Detection::nodeCandidates() const
{
    QList<std::pair<QString, QString>> places;
    for (const auto& [version, folder] : versionFolders(m_environment.nodeFolder(), true))
        places.append({folder + QStringLiteral("/bin/node"), QStringLiteral("downloaded by Tidewatch")});
    for (const platform::ToolFolder& system : m_places.systemFolders)
        places.append({system.folder + QStringLiteral("/node"), system.label});

    QFile note(m_environment.nodePathNote());
    if (note.open(QIODevice::ReadOnly)) {
        const QString recorded = QString::fromUtf8(note.readAll()).trimmed();
        if (!recorded.isEmpty())
            places.append({recorded,
                recorded.contains(QLatin1StringView("/.nvm/")) ? QStringLiteral("nvm") : QStringLiteral("recorded")});
    } else if (const auto nvm = nvmVersions(); !nvm.isEmpty()) {
        // An nvm Node.js is taken only when nothing was recorded at all.
        places.append({nvm.first().second + QStringLiteral("/bin/node"), QStringLiteral("nvm")});
    }

    QList<NodeCandidate> candidates;
    QStringList seen;
    for (const auto& [path, source] : places) {
        if (seen.contains(path))
            continue;
        seen << path;
        if (std::optional<NodeCandidate> candidate = probeNode(path, source))
            candidates << *candidate;
    }
    return candidates;
}

std::pair<std::optional<NodeCandidate>, QList<NodeCandidate>> Detection::bestNode() const
{
    const QList<NodeCandidate> all = nodeCandidates();
    const auto best = std::find_if(all.begin(), all.end(), [](const NodeCandidate& c) { return c.meetsFloor(); });
    return {best == all.end() ? std::nullopt : std::optional<NodeCandidate>(*best), all};
}

bool Detection::isStableNode(const QString& path) const
{
    if (path.startsWith(m_environment.nodeFolder() + QLatin1Char('/')))
        return true;
    return std::any_of(m_places.systemFolders.begin(), m_places.systemFolders.end(),
        [&](const platform::ToolFolder& system) { return path == system.folder + QStringLiteral("/node"); });
}

ServiceNodeChoice Detection::chooseServiceNode(const std::optional<QString>& installedServiceNode) const
{
    ServiceNodeChoice choice;
    choice.all = nodeCandidates();
    if (installedServiceNode) {
        const QString label = isStableNode(*installedServiceNode) ? QStringLiteral("the service’s")
                                                                  : QStringLiteral("the service’s (nvm)");
        // A working service is left on what it runs on.
        if (std::optional<NodeCandidate> current = probeNode(*installedServiceNode, label);
            current && current->meetsFloor()) {
            choice.stable = current;
            return choice;
        }
    }
    for (const NodeCandidate& candidate : choice.all) {
        if (!candidate.meetsFloor())
            continue;
        if (!choice.versioned)
            choice.versioned = candidate;
        if (!choice.stable && isStableNode(candidate.path))
            choice.stable = candidate;
    }
    return choice;
}

std::optional<QString> Detection::recordNodePath(const QString& path) const
{
    if (std::optional<QString> refusal = m_environment.refusalSentence())
        return refusal;
    if (std::optional<QString> failure = m_environment.ensureSupportFolder())
        return failure;
    return writeFileAtomically(m_environment.nodePathNote(), path.toUtf8() + '\n');
}

std::optional<QString> Detection::pathFromShellOutput(const QString& output)
{
    const QStringList lines = output.split(QLatin1Char('\n'), Qt::SkipEmptyParts);
    for (qsizetype i = lines.size() - 1; i >= 0; --i) {
        const QString line = lines.at(i).trimmed();
        if (line.startsWith(QLatin1Char('/')))
            return line;
    }
    return std::nullopt;
}

std::optional<QString> Detection::viaLoginShell(const QString& name) const
{
    const ShellResult result = Shell::run(m_places.loginShell,
        {QStringLiteral("-lc"), QStringLiteral("command -v ") + name}, std::nullopt, QString(), kToolLimit);
    if (result.timedOut || result.status != 0)
        return std::nullopt;
    // Only the last path-like line counts: a greeting that looks like a path is not tried.
    std::optional<QString> path = pathFromShellOutput(result.out);
    if (path && isExecutableFile(*path))
        return path;
    return std::nullopt;
}

std::pair<std::optional<bool>, std::optional<QString>> Detection::readClaudeSignIn() const
{
    const QString home = m_environment.home();
    QFile settings(home + QStringLiteral("/.claude/settings.json"));
    if (settings.open(QIODevice::ReadOnly)) {
        const QJsonValue helper
            = QJsonDocument::fromJson(settings.readAll()).object().value(QLatin1StringView("apiKeyHelper"));
        if (helper.isString() && !helper.toString().isEmpty())
            return {true, std::nullopt};
    }
    QFile account(m_environment.agentSettingsFile());
    if (!account.open(QIODevice::ReadOnly))
        return {false, std::nullopt};
    const QJsonDocument document = QJsonDocument::fromJson(account.readAll());
    if (!document.isObject())
        return {std::nullopt, std::nullopt};
    const QJsonObject object = document.object();
    const QJsonValue oauth = object.value(QLatin1StringView("oauthAccount"));
    if (oauth.isObject()) {
        const QJsonValue email = oauth.toObject().value(QLatin1StringView("emailAddress"));
        return {true, email.isString() ? std::optional<QString>(email.toString()) : std::nullopt};
    }
    return {object.contains(QLatin1StringView("primaryApiKey")), std::nullopt};
}

ClaudeDetection Detection::detectClaude() const
{
    ClaudeDetection detection;
    const QString local = m_environment.userBinariesFolder() + QStringLiteral("/claude");
    if (isExecutableFile(local)) {
        detection.path = local;
        detection.foundBy = QStringLiteral("~/.local/bin");
    } else if (const std::optional<QString> viaShell = viaLoginShell(QStringLiteral("claude"))) {
        detection.path = viaShell;
        detection.foundBy = QStringLiteral("your shell");
    } else if (const std::optional<QString> found = findTool(QStringLiteral("claude"))) {
        detection.path = found;
        detection.foundBy = foundByForPath(*found);
    }
    if (detection.path) {
        const ShellResult result
            = Shell::run(*detection.path, {QStringLiteral("--version")}, std::nullopt, QString(), kToolLimit);
        if (!result.timedOut && result.status == 0 && !result.out.isEmpty())
            detection.version = result.out.section(QLatin1Char(' '), 0, 0, QString::SectionSkipEmpty);
    }
    std::tie(detection.signedIn, detection.account) = readClaudeSignIn();
    return detection;
}

std::optional<CodexFound> Detection::findCodex() const
{
    std::optional<QString> path = viaLoginShell(QStringLiteral("codex"));
    if (!path)
        path = findTool(QStringLiteral("codex"));
    if (!path)
        return std::nullopt;
    CodexFound found{*path, std::nullopt};
    const ShellResult result = Shell::run(*path, {QStringLiteral("--version")}, std::nullopt, QString(), kToolLimit);
    // The tool's own name comes first on that line.
    if (!result.timedOut && result.status == 0 && !result.out.isEmpty())
        found.version = result.out.section(QLatin1Char(' '), -1, -1, QString::SectionSkipEmpty);
    return found;
}

std::optional<QString> Detection::tailscaleCLI() const
{
    for (const QString& path : m_places.tailscaleCLIs) {
        if (isExecutableFile(path))
            return path;
    }
    return std::nullopt;
}

#include "entry/Environment.h"

#include "base/UserAccount.h"
#include "platform/Platform.h"

#include <QDir>
#include <QFileInfo>
#include <QProcessEnvironment>

#include <sys/stat.h>

#include <array>
#include <cerrno>
#include <cstring>

namespace {

const QString kSupport = QStringLiteral("TIDEWATCH_SUPPORT");
const QString kLogs = QStringLiteral("TIDEWATCH_LOGS");
const QString kApiPort = QStringLiteral("TIDEWATCH_API_PORT");
const QString kLocalPort = QStringLiteral("TIDEWATCH_LOCAL_PORT");

QString absoluteFolder(const QString& path)
{
    return QDir::cleanPath(QDir(path).absolutePath());
}

// The path with symbolic links resolved as far as it exists; the part that
// doesn't exist yet is kept as written.
QString resolvedPath(const QString& path)
{
    QString existing = absoluteFolder(path);
    QStringList rest;
    while (!QFileInfo::exists(existing)) {
        const QString parent = QFileInfo(existing).path();
        if (parent == existing)
            break;
        rest.prepend(QFileInfo(existing).fileName());
        existing = parent;
    }
    QString resolved = QFileInfo(existing).canonicalFilePath();
    if (resolved.isEmpty())
        resolved = existing;
    for (const QString& part : rest)
        resolved += QLatin1Char('/') + part;
    return QDir::cleanPath(resolved);
}

// Components folded to lower case: the default file system on macOS ignores
// case, so two spellings of one folder must compare equal.
QStringList foldedComponents(const QString& path)
{
    QStringList parts = resolvedPath(path).split(QLatin1Char('/'), Qt::SkipEmptyParts);
    for (QString& part : parts)
        part = part.toLower();
    return parts;
}

bool startsWith(const QStringList& whole, const QStringList& prefix)
{
    if (prefix.size() > whole.size())
        return false;
    for (qsizetype i = 0; i < prefix.size(); ++i) {
        if (whole.at(i) != prefix.at(i))
            return false;
    }
    return true;
}

struct FileIdentity {
    dev_t device = 0;
    ino_t inode = 0;
    bool operator==(const FileIdentity&) const = default;
};

std::optional<FileIdentity> identityOf(const QString& path)
{
    struct stat info {
    };
    if (::stat(QFile::encodeName(path).constData(), &info) != 0)
        return std::nullopt;
    return FileIdentity{info.st_dev, info.st_ino};
}

Environment::Variables processVariables()
{
    Environment::Variables variables;
    const QProcessEnvironment system = QProcessEnvironment::systemEnvironment();
    for (const QString& key : system.keys())
        variables.insert(key, system.value(key));
    return variables;
}

} // namespace

const Environment& Environment::current()
{
    static const Environment environment(processVariables(), account::homeDirectory());
    return environment;
}

Environment::Environment(Variables variables, QString home)
    : m_variables(std::move(variables))
    , m_home(std::move(home))
{
    m_testCopy = !variable(kSupport).isEmpty() || !variable(kLogs).isEmpty() || !variable(kApiPort).isEmpty()
        || !variable(kLocalPort).isEmpty();

    const platform::RealFolders real = platform::realFolders(m_home, m_variables);
    m_realSupport = real.support;
    m_realLogs = real.logs;

    m_support = supportIsOverridden() ? absoluteFolder(variable(kSupport)) : m_realSupport;
    if (!variable(kLogs).isEmpty())
        m_logs = absoluteFolder(variable(kLogs));
    else if (m_testCopy)
        m_logs = m_support + QStringLiteral("/logs");
    else
        m_logs = m_realLogs;

    m_apiPort = parsePort(variable(kApiPort)).value_or(defaultApiPort);
    m_localPort = parsePort(variable(kLocalPort)).value_or(defaultLocalPort);

    if (m_testCopy) {
        const bool launchd = platform::serviceUnitSuffix() == QStringLiteral(".plist");
        m_serviceUnits = m_support + (launchd ? QStringLiteral("/launchd") : QStringLiteral("/systemd"));
        m_serviceLabel = QStringLiteral("com.harbourlab.tidewatch.daemon.test-") + QString::number(m_apiPort);
    } else {
        m_serviceUnits = real.serviceUnits;
        m_serviceLabel = QStringLiteral("com.harbourlab.tidewatch.daemon");
    }
}

std::optional<int> Environment::parsePort(const QString& text)
{
    qsizetype index = 0;
    bool negative = false;
    if (!text.isEmpty() && (text.front() == QLatin1Char('+') || text.front() == QLatin1Char('-'))) {
        negative = text.front() == QLatin1Char('-');
        index = 1;
    }
    if (index >= text.size())
        return std::nullopt;
    qint64 value = 0;
    for (; index < text.size(); ++index) {
        const QChar c = text.at(index);
        if (c < QLatin1Char('0') || c > QLatin1Char('9'))
            return std::nullopt;
        value = value * 10 + (c.unicode() - '0');
        if (value > qint64(std::numeric_limits<int>::max()) + (negative ? 1 : 0))
            return std::nullopt;
    }
    return int(negative ? -value : value);
}

bool Environment::isIsolated() const
{
    const auto reserved = [](int port) { return port == defaultApiPort || port == defaultLocalPort; };
    return !variable(kApiPort).isEmpty() && !variable(kLocalPort).isEmpty() && m_testCopy && supportIsOverridden()
        && !reserved(m_apiPort) && !reserved(m_localPort) && m_localPort != m_apiPort && !isRealFolder(m_support)
        && !isRealFolder(m_logs);
}

bool Environment::isRealFolder(const QString& location) const
{
    const QStringList place = foldedComponents(location);
    const std::array roots{m_realSupport, m_realLogs};
    for (const QString& root : roots) {
        const QStringList rootParts = foldedComponents(root);
        // Equal, containing the root, or inside it: all three would let a
        // test copy reach what the real install owns.
        if (startsWith(rootParts, place) || startsWith(place, rootParts))
            return true;
    }

    // Another path to the same place (a hard link to a folder, a bind mount,
    // a firmlink) shows only in the file system's own identity.
    std::vector<FileIdentity> rootIds;
    for (const QString& root : roots) {
        if (const auto id = identityOf(root))
            rootIds.push_back(*id);
    }
    if (rootIds.empty())
        return false;
    QString ancestor = absoluteFolder(location);
    while (true) {
        if (const auto id = identityOf(ancestor)) {
            if (std::find(rootIds.begin(), rootIds.end(), *id) != rootIds.end())
                return true;
        }
        const QString parent = QFileInfo(ancestor).path();
        if (parent == ancestor)
            return false;
        ancestor = parent;
    }
}

std::optional<QString> Environment::refusalSentence() const
{
    if (!m_testCopy || isIsolated())
        return std::nullopt;
    if (!supportIsOverridden() || isRealFolder(m_support)) {
        return QStringLiteral("This test copy uses the real support folder. Set TIDEWATCH_SUPPORT to a test folder "
                              "before it manages a background service.");
    }
    if (isRealFolder(m_logs)) {
        return QStringLiteral("This test copy uses the real log folder. Set TIDEWATCH_LOGS to a test folder (or "
                              "leave it out) before it manages a background service.");
    }
    return QStringLiteral("This test copy needs ports of its own. Set TIDEWATCH_API_PORT and TIDEWATCH_LOCAL_PORT "
                          "to two other free ports (47371 and 47372, say) before it manages a background service.");
}

Environment::Variables Environment::serviceEnvironment() const
{
    if (!m_testCopy)
        return {};
    return {
        {kSupport, m_support},
        {kLogs, m_logs},
        {kApiPort, QString::number(m_apiPort)},
        {kLocalPort, QString::number(m_localPort)},
    };
}

std::optional<QString> Environment::ensureSupportFolder() const
{
    QString built;
    for (const QString& part : m_support.split(QLatin1Char('/'), Qt::SkipEmptyParts)) {
        built += QLatin1Char('/') + part;
        const QByteArray path = QFile::encodeName(built);
        if (::mkdir(path.constData(), 0700) != 0 && errno != EEXIST) {
            return QStringLiteral("Tidewatch couldn’t create its folder %1: %2.")
                .arg(built, QString::fromLocal8Bit(std::strerror(errno)));
        }
    }
    if (::chmod(QFile::encodeName(m_support).constData(), 0700) != 0) {
        return QStringLiteral("Tidewatch couldn’t protect its folder %1: %2.")
            .arg(m_support, QString::fromLocal8Bit(std::strerror(errno)));
    }
    return std::nullopt;
}

QString Environment::serviceUnitFile() const
{
    return m_serviceUnits + QLatin1Char('/') + m_serviceLabel + platform::serviceUnitSuffix();
}

std::optional<QString> Environment::bundledDaemonFolder() const
{
    const QString resources = platform::resourceFolder();
    if (resources.isEmpty())
        return std::nullopt;
    const QString daemon = resources + QStringLiteral("/daemon");
    // `node src/main` resolves the entry file by its extension.
    if (!QFileInfo::exists(daemon + QStringLiteral("/src/main.js"))
        && !QFileInfo::exists(daemon + QStringLiteral("/src/main")))
        return std::nullopt;
    return daemon;
}

std::optional<QString> Environment::bundledRelay() const
{
    const QString executable = platform::executablePath();
    if (executable.isEmpty())
        return std::nullopt;
    const QString relay = QFileInfo(executable).dir().absoluteFilePath(QStringLiteral("tidewatch-term"));
    if (!QFileInfo(relay).isExecutable())
        return std::nullopt;
    return relay;
}

QString Environment::healthUrl() const
{
    return QStringLiteral("http://127.0.0.1:%1/v1/health").arg(m_apiPort);
}

QString Environment::localBase() const
{
    return QStringLiteral("http://127.0.0.1:%1").arg(m_localPort);
}

QString Environment::feedUrl() const
{
    return QStringLiteral("ws://127.0.0.1:%1/v1/ws?client=mac").arg(m_apiPort);
}

QString Environment::preferencesDomain() const
{
    return m_testCopy ? QStringLiteral("com.harbourlab.tidewatch.test") : QStringLiteral("com.harbourlab.tidewatch");
}

std::optional<QString> Environment::debugCaptureFolder() const
{
    const QString name = QStringLiteral("TIDEWATCH_DEBUG_CAPTURE");
    if (!hasVariable(name))
        return std::nullopt;
    return variable(name);
}

#include "platform/Platform.h"

#include <QDir>
#include <QFileInfo>

#include <pwd.h>
#include <unistd.h>

#include <array>
#include <climits>

namespace platform {

namespace {

// An XDG variable counts only when it holds an absolute path; anything else
// falls back to the default the base directory rules give.
QString xdgFolder(const QHash<QString, QString>& variables, const char* name, const QString& fallback)
{
    const QString value = variables.value(QString::fromLatin1(name));
    return QDir::isAbsolutePath(value) ? QDir::cleanPath(value) : fallback;
}

} // namespace

QString executablePath()
{
    std::array<char, PATH_MAX> buffer{};
    const ssize_t length = readlink("/proc/self/exe", buffer.data(), buffer.size() - 1);
    if (length <= 0)
        return {};
    return QString::fromLocal8Bit(buffer.data(), length);
}

RealFolders realFolders(const QString& home, const QHash<QString, QString>& variables)
{
    const QString data = xdgFolder(variables, "XDG_DATA_HOME", home + QStringLiteral("/.local/share"));
    const QString state = xdgFolder(variables, "XDG_STATE_HOME", home + QStringLiteral("/.local/state"));
    const QString config = xdgFolder(variables, "XDG_CONFIG_HOME", home + QStringLiteral("/.config"));
    return {
        data + QStringLiteral("/Tidewatch"),
        state + QStringLiteral("/Tidewatch/logs"),
        config + QStringLiteral("/systemd/user"),
    };
}

QString serviceUnitSuffix()
{
    return QStringLiteral(".service");
}

QString resourceFolder()
{
    const QString executable = executablePath();
    if (executable.isEmpty())
        return {};
    const QString folder = QFileInfo(executable).dir().absoluteFilePath(QStringLiteral("../share/tidewatch"));
    return QFileInfo(folder).isDir() ? QDir::cleanPath(folder) : QString();
}

QString preferencesFile(const QString& domain, const QString& home, const QHash<QString, QString>& variables)
{
    const QString config = xdgFolder(variables, "XDG_CONFIG_HOME", home + QStringLiteral("/.config"));
    return config + QStringLiteral("/Tidewatch/") + domain + QStringLiteral(".conf");
}

QString loginShell()
{
    if (QFileInfo(QStringLiteral("/bin/zsh")).isExecutable())
        return QStringLiteral("/bin/zsh");
    const passwd* entry = getpwuid(getuid());
    if (entry && entry->pw_shell && entry->pw_shell[0] == '/')
        return QString::fromLocal8Bit(entry->pw_shell);
    return QStringLiteral("/bin/sh");
}

QList<ToolFolder> systemToolFolders()
{
    return {{QStringLiteral("/usr/local/bin"), QStringLiteral("/usr/local")},
        {QStringLiteral("/usr/bin"), QStringLiteral("your system’s packages")}};
}

void becomeAccessory()
{
    // A tray program on Linux has no Dock to stay out of.
}

QString machineNoun()
{
    return QStringLiteral("computer");
}

bool programIsBundle()
{
    return false;
}

bool lidSleepNeedsRoot()
{
    return false;
}

void drawOffscreenWithoutDisplay()
{
    if (qEnvironmentVariableIsEmpty("QT_QPA_PLATFORM") && qEnvironmentVariableIsEmpty("DISPLAY")
        && qEnvironmentVariableIsEmpty("WAYLAND_DISPLAY"))
        qputenv("QT_QPA_PLATFORM", "offscreen");
}

} // namespace platform

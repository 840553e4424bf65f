#include "platform/Platform.h"
#include "platform/Services.h"

#include "base/AtomicFile.h"
#include "base/UserAccount.h"

#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QStandardPaths>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <fcntl.h>

namespace platform {

namespace {

QString autostartEntry()
{
    const QString configured = qEnvironmentVariable("XDG_CONFIG_HOME");
    const QString config = QDir::isAbsolutePath(configured) ? QDir::cleanPath(configured)
                                                            : account::homeDirectory() + QStringLiteral("/.config");
    return config + QStringLiteral("/autostart/tidewatch.desktop");
}

// Exec= takes its words in double quotes, with the four specials escaped and
// a percent sign doubled so no field code expands.
QString desktopWord(QString word)
{
    word.replace(QLatin1Char('\\'), QStringLiteral("\\\\"))
        .replace(QLatin1Char('"'), QStringLiteral("\\\""))
        .replace(QLatin1Char('`'), QStringLiteral("\\`"))
        .replace(QLatin1Char('$'), QStringLiteral("\\$"))
        .replace(QLatin1Char('%'), QStringLiteral("%%"));
    return QLatin1Char('"') + word + QLatin1Char('"');
}

// The person's own choice of terminal wins over the system's default, when it is there to run.
QString chosenTerminal()
{
    const QString named = qEnvironmentVariable("TERMINAL").trimmed();
    QString found = named.isEmpty() || named.size() > 4096 ? QString()
        : QDir::isAbsolutePath(named)                      ? named
                                                           : QStandardPaths::findExecutable(named);
    if (!found.isEmpty() && QFileInfo(found).isExecutable())
        return found;
    return QStringLiteral("/usr/bin/x-terminal-emulator");
}

} // namespace

SystemTools systemTools()
{
    SystemTools tools;
    tools.manager = ServiceManagerKind::Systemd;
    tools.launchctl = QStringLiteral("/bin/launchctl");
    tools.systemctl = QStringLiteral("/usr/bin/systemctl");
    tools.lsof = QStringLiteral("/usr/bin/lsof");
    tools.tar = QStringLiteral("/usr/bin/tar");
    tools.terminalKind = TerminalKind::Emulator;
    tools.terminal = chosenTerminal();
    return tools;
}

std::optional<QString> swapFolders(const QString& first, const QString& second)
{
    const QByteArray a = QFile::encodeName(first);
    const QByteArray b = QFile::encodeName(second);
    if (::renameat2(AT_FDCWD, a.constData(), AT_FDCWD, b.constData(), RENAME_EXCHANGE) != 0)
        return QString::fromLocal8Bit(std::strerror(errno));
    return std::nullopt;
}

bool loginItemEnabled()
{
    return QFileInfo(autostartEntry()).isFile();
}

std::optional<QString> registerLoginItem()
{
    const QString executable = executablePath();
    if (executable.isEmpty())
        return QStringLiteral("the program can’t tell where it lives");
    const QString entry = autostartEntry();
    if (!QDir().mkpath(QFileInfo(entry).path()))
        return QStringLiteral("couldn’t create %1").arg(QFileInfo(entry).path());
    const QByteArray text = QStringLiteral("[Desktop Entry]\nType=Application\nName=Tidewatch\n"
                                           "Comment=Your coding agents in the menu bar\nExec=%1\n"
                                           "Icon=tidewatch\nTerminal=false\nX-GNOME-Autostart-enabled=true\n")
                                .arg(desktopWord(executable))
                                .toUtf8();
    return writeFileAtomically(entry, text, 0644);
}

std::optional<QString> unregisterLoginItem()
{
    const QString entry = autostartEntry();
    if (QFileInfo::exists(entry) && !QFile::remove(entry))
        return QStringLiteral("couldn’t remove %1").arg(entry);
    return std::nullopt;
}

bool programCanOpenAtLogin()
{
    // The autostart entry names the executable itself, wherever it was installed.
    return true;
}

QString applicationBundle()
{
    return {};
}

} // namespace platform

namespace platform {

// Linux has no Applications folder to move into; the offer is never made.
bool confirmMove(const QString&, const QString&, const QString&, const QString&)
{
    return false;
}

std::optional<QString> moveBundle(const QString&, const QString&)
{
    return QStringLiteral("this system keeps programs where its package manager puts them");
}

void showMoveFailure(const QString&)
{
}

} // namespace platform

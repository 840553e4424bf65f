#include "platform/Platform.h"

#import <AppKit/AppKit.h>
#import <Foundation/Foundation.h>

#include <QDir>
#include <QFileInfo>

#include <mach-o/dyld.h>
#include <pwd.h>
#include <unistd.h>

#include <climits>

namespace platform {

QString executablePath()
{
    char buffer[PATH_MAX];
    uint32_t size = sizeof buffer;
    if (_NSGetExecutablePath(buffer, &size) != 0)
        return {};
    return QFileInfo(QString::fromUtf8(buffer)).canonicalFilePath();
}

RealFolders realFolders(const QString& home, const QHash<QString, QString>&)
{
    return {
        home + QStringLiteral("/Library/Application Support/Tidewatch"),
        home + QStringLiteral("/Library/Logs/Tidewatch"),
        home + QStringLiteral("/Library/LaunchAgents"),
    };
}

QString serviceUnitSuffix()
{
    return QStringLiteral(".plist");
}

QString resourceFolder()
{
    NSString* path = NSBundle.mainBundle.resourcePath;
    return path ? QString::fromNSString(path) : QString();
}

QString preferencesFile(const QString&, const QString&, const QHash<QString, QString>&)
{
    // User defaults: QSettings' native format on macOS is that store.
    return {};
}

QString loginShell()
{
    return QStringLiteral("/bin/zsh");
}

QList<ToolFolder> systemToolFolders()
{
    return {{QStringLiteral("/opt/homebrew/bin"), QStringLiteral("Homebrew")},
        {QStringLiteral("/usr/local/bin"), QStringLiteral("/usr/local")}};
}

void becomeAccessory()
{
    [NSApp setActivationPolicy:NSApplicationActivationPolicyAccessory];
}

QString machineNoun()
{
    return QStringLiteral("Mac");
}

bool programIsBundle()
{
    return true;
}

bool lidSleepNeedsRoot()
{
    return true;
}

void drawOffscreenWithoutDisplay()
{
}

} // namespace platform

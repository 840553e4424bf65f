#include "platform/Services.h"

#include "base/Shell.h"

#import <Foundation/Foundation.h>
#import <ServiceManagement/ServiceManagement.h>

#include <QFile>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <unistd.h>

namespace platform {

SystemTools systemTools()
{
    SystemTools tools;
    tools.manager = ServiceManagerKind::Launchd;
    tools.launchctl = QStringLiteral("/bin/launchctl");
    tools.systemctl = QStringLiteral("/bin/systemctl");
    tools.lsof = QStringLiteral("/usr/sbin/lsof");
    tools.xattr = QStringLiteral("/usr/bin/xattr");
    tools.tar = QStringLiteral("/usr/bin/tar");
    tools.terminalKind = TerminalKind::CommandFile;
    tools.terminal = QStringLiteral("/usr/bin/open");
    return tools;
}

std::optional<QString> swapFolders(const QString& first, const QString& second)
{
    const QByteArray a = QFile::encodeName(first);
    const QByteArray b = QFile::encodeName(second);
    if (::renamex_np(a.constData(), b.constData(), RENAME_SWAP) != 0)
        return QString::fromLocal8Bit(std::strerror(errno));
    return std::nullopt;
}

bool loginItemEnabled()
{
    return SMAppService.mainAppService.status == SMAppServiceStatusEnabled;
}

std::optional<QString> registerLoginItem()
{
    NSError* error = nil;
    if ([SMAppService.mainAppService registerAndReturnError:&error])
        return std::nullopt;
    return QString::fromNSString(error.localizedDescription ?: @"unknown");
}

std::optional<QString> unregisterLoginItem()
{
    NSError* error = nil;
    if ([SMAppService.mainAppService unregisterAndReturnError:&error])
        return std::nullopt;
    return QString::fromNSString(error.localizedDescription ?: @"unknown");
}

bool programCanOpenAtLogin()
{
    // SMAppService.mainApp registers the bundle; a bare executable has none to register.
    return applicationBundle().endsWith(QLatin1StringView(".app"));
}

QString applicationBundle()
{
    NSString* path = NSBundle.mainBundle.bundlePath;
    return path ? QString::fromNSString(path) : QString();
}

} // namespace platform

#import <AppKit/AppKit.h>

namespace platform {

bool confirmMove(const QString& title, const QString& text, const QString& moveButton, const QString& keepButton)
{
    [NSApp activateIgnoringOtherApps:YES];
    NSAlert* alert = [[NSAlert alloc] init];
    alert.messageText = title.toNSString();
    alert.informativeText = text.toNSString();
    [alert addButtonWithTitle:moveButton.toNSString()];
    [alert addButtonWithTitle:keepButton.toNSString()];
    return [alert runModal] == NSAlertFirstButtonReturn;
}

std::optional<QString> moveBundle(const QString& bundle, const QString& destination)
{
    NSFileManager* files = NSFileManager.defaultManager;
    NSString* target = destination.toNSString();
    NSString* identifier = NSBundle.mainBundle.bundleIdentifier;
    // A copy that runs from the destination is asked to quit, then ended.
    for (NSRunningApplication* running in [NSRunningApplication runningApplicationsWithBundleIdentifier:identifier]) {
        if (![running.bundleURL.path isEqualToString:target] || running.processIdentifier == getpid())
            continue;
        [running terminate];
        for (int wait = 0; wait < 50 && !running.terminated; ++wait)
            [NSThread sleepForTimeInterval:0.1];
        if (!running.terminated)
            [running forceTerminate];
    }
    NSError* error = nil;
    if ([files fileExistsAtPath:target]
        && ![files trashItemAtURL:[NSURL fileURLWithPath:target] resultingItemURL:nil error:&error])
        return QString::fromNSString(error.localizedDescription);
    if (![files copyItemAtPath:bundle.toNSString() toPath:target error:&error])
        return QString::fromNSString(error.localizedDescription);
    Shell::run(QStringLiteral("/usr/bin/xattr"),
        {QStringLiteral("-dr"), QStringLiteral("com.apple.quarantine"), destination}, std::nullopt, QString(), 30);
    NSWorkspaceOpenConfiguration* configuration = [NSWorkspaceOpenConfiguration configuration];
    configuration.createsNewApplicationInstance = YES;
    configuration.arguments = @[ @"--moved" ];
    [NSWorkspace.sharedWorkspace openApplicationAtURL:[NSURL fileURLWithPath:target]
                                        configuration:configuration
                                    completionHandler:nil];
    return std::nullopt;
}

void showMoveFailure(const QString& text)
{
    NSAlert* alert = [[NSAlert alloc] init];
    alert.messageText = QStringLiteral("Tidewatch couldn't move itself.").toNSString();
    alert.informativeText = text.toNSString();
    [alert runModal];
}

} // namespace platform

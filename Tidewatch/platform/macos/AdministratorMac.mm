#include "base/Shell.h"
#include "platform/Platform.h"

#import <Foundation/Foundation.h>

#include <QCoreApplication>
#include <QMetaObject>

namespace platform {

AdminRun runAsAdministrator(const QString&, const QString& appleScriptSource, bool inApp)
{
    if (!inApp) {
        const ShellResult result = Shell::run(QStringLiteral("/usr/bin/osascript"),
            {QStringLiteral("-e"), appleScriptSource}, std::nullopt, QString(), 300);
        if (!result.timedOut && result.status == 0)
            return {AdminRun::Result::Done, {}};
        if (result.combined().contains(QStringLiteral("-128")))
            return {AdminRun::Result::Cancelled, {}};
        return {AdminRun::Result::Failed, result.combined()};
    }
    AdminRun run;
    // NSAppleScript belongs to the main thread.
    QMetaObject::invokeMethod(
        qApp,
        [&] {
            NSAppleScript* script = [[NSAppleScript alloc] initWithSource:appleScriptSource.toNSString()];
            if (!script) {
                run = {AdminRun::Result::Failed, QStringLiteral("The setup couldn't start.")};
                return;
            }
            NSDictionary* error = nil;
            [script executeAndReturnError:&error];
            if (!error) {
                run = {AdminRun::Result::Done, {}};
            } else if ([error[NSAppleScriptErrorNumber] intValue] == -128) {
                run = {AdminRun::Result::Cancelled, {}};
            } else {
                NSString* message = error[NSAppleScriptErrorMessage];
                run = {AdminRun::Result::Failed, message ? QString::fromNSString(message) : QString()};
            }
        },
        Qt::BlockingQueuedConnection);
    return run;
}

} // namespace platform

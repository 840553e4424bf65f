#include "platform/Platform.h"

#import <AppKit/AppKit.h>

#include <QObject>

namespace platform {

bool handOverToRunningInstance(QObject*, std::function<void()>)
{
    NSString* identifier = NSBundle.mainBundle.bundleIdentifier;
    if (identifier == nil)
        return false;
    const pid_t me = NSProcessInfo.processInfo.processIdentifier;
    for (NSRunningApplication* other in [NSRunningApplication runningApplicationsWithBundleIdentifier:identifier]) {
        if (other.processIdentifier == me)
            continue;
        [other activateWithOptions:0];
        return true;
    }
    // Reopening is the application delegate's own callback on macOS.
    return false;
}

} // namespace platform

#include "surface/macos/WorkspaceSignals.h"

#include "surface/ScreenWatch.h"

#import <AppKit/AppKit.h>

#include <functional>

#if __has_feature(objc_arc)
#define TW_RELEASE(object) ((void)0)
#else
#define TW_RELEASE(object) [(object) release]
#endif

struct WorkspaceSignals::Observers {
    NSMutableArray* workspace = nil;
    NSMutableArray* distributed = nil;
};

void ScreenWatch::listen()
{
    if (m_listening)
        return;
    m_listening = true;
    new WorkspaceSignals(this);
}

WorkspaceSignals::WorkspaceSignals(ScreenWatch* watch)
    : QObject(watch)
    , m_observers(new Observers)
{
    m_observers->workspace = [[NSMutableArray alloc] init];
    m_observers->distributed = [[NSMutableArray alloc] init];
    QPointer<ScreenWatch> weak(watch);
    NSNotificationCenter* workspace = NSWorkspace.sharedWorkspace.notificationCenter;
    NSNotificationCenter* distributed = NSDistributedNotificationCenter.defaultCenter;
    const auto observe
        = [](NSNotificationCenter* center, NSMutableArray* into, NSString* name, std::function<void()> effect) {
              id token = [center addObserverForName:name
                                             object:nil
                                              queue:NSOperationQueue.mainQueue
                                         usingBlock:^(NSNotification* note) {
                                             (void)note;
                                             effect();
                                         }];
              [into addObject:token];
          };
    const auto readMotion = [weak] {
        if (weak)
            weak->setReduceMotion(NSWorkspace.sharedWorkspace.accessibilityDisplayShouldReduceMotion);
    };
    readMotion();
    observe(workspace, m_observers->workspace, NSWorkspaceAccessibilityDisplayOptionsDidChangeNotification, readMotion);
    observe(workspace, m_observers->workspace, NSWorkspaceScreensDidSleepNotification, [weak] {
        if (weak)
            weak->setDisplaysAsleep(true);
    });
    observe(workspace, m_observers->workspace, NSWorkspaceScreensDidWakeNotification, [weak] {
        if (weak)
            weak->setDisplaysAsleep(false);
    });
    observe(workspace, m_observers->workspace, NSWorkspaceSessionDidResignActiveNotification, [weak] {
        if (weak)
            weak->setSessionInactive(true);
    });
    observe(workspace, m_observers->workspace, NSWorkspaceSessionDidBecomeActiveNotification, [weak] {
        if (weak)
            weak->setSessionInactive(false);
    });
    observe(distributed, m_observers->distributed, @"com.apple.screenIsLocked", [weak] {
        if (weak)
            weak->setScreenLocked(true);
    });
    observe(distributed, m_observers->distributed, @"com.apple.screenIsUnlocked", [weak] {
        if (weak)
            weak->setScreenLocked(false);
    });
}

WorkspaceSignals::~WorkspaceSignals()
{
    for (id token in m_observers->workspace)
        [NSWorkspace.sharedWorkspace.notificationCenter removeObserver:token];
    for (id token in m_observers->distributed)
        [NSDistributedNotificationCenter.defaultCenter removeObserver:token];
    TW_RELEASE(m_observers->workspace);
    TW_RELEASE(m_observers->distributed);
    delete m_observers;
}

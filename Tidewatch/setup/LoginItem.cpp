#include "setup/LoginItem.h"

#include "entry/Preferences.h"
#include "platform/Services.h"

namespace LoginItem {

bool isEnabled(const Environment& environment)
{
    return !environment.isTestCopy() && platform::loginItemEnabled();
}

bool reconcile(const Environment& environment)
{
    if (environment.isTestCopy())
        return false;
    if (Preferences(environment).flag(Preferences::loginItemWanted) && platform::programCanOpenAtLogin()
        && !platform::loginItemEnabled())
        platform::registerLoginItem();
    return platform::loginItemEnabled();
}

Change set(const Environment& environment, bool on)
{
    if (environment.isTestCopy())
        return {};
    Change change;
    change.failure = on ? platform::registerLoginItem() : platform::unregisterLoginItem();
    Preferences(environment).setFlag(Preferences::loginItemWanted, on);
    change.enabled = platform::loginItemEnabled();
    return change;
}

QString failureLine(const QString& reason)
{
    return QStringLiteral("Tidewatch: login item change failed: ") + reason;
}

} // namespace LoginItem

#include "setup/MoveToApplications.h"

#include "entry/Preferences.h"
#include "platform/Services.h"

#include <QFileInfo>

namespace MoveToApplications {

Situation situation(const Environment& environment)
{
    Situation now;
    now.bundle = platform::applicationBundle();
    now.resolved = now.bundle.isEmpty() ? QString() : QFileInfo(now.bundle).canonicalFilePath();
    now.home = environment.home();
    now.declined = Preferences(environment).flag(Preferences::moveToApplicationsDeclined);
    now.noMoveVariable = environment.hasVariable(QStringLiteral("TIDEWATCH_NO_MOVE"));
    now.testCopy = environment.isTestCopy();
    return now;
}

bool isTranslocated(const QString& path)
{
    return path.contains(QLatin1StringView("/AppTranslocation/"));
}

bool shouldOffer(const Situation& situation)
{
    if (!situation.bundle.endsWith(QLatin1StringView(".app")))
        return false;
    const QString resolved = situation.resolved.isEmpty() ? situation.bundle : situation.resolved;
    if (resolved.startsWith(QLatin1StringView("/Applications/"))
        || resolved.startsWith(situation.home + QStringLiteral("/Applications/")))
        return false;
    // Moving is the way out of translocation, so a refusal doesn't count there.
    if (situation.declined && !isTranslocated(resolved))
        return false;
    return !situation.noMoveVariable && !situation.testCopy;
}

QString destination()
{
    return QStringLiteral("/Applications/Tidewatch.app");
}

QString title()
{
    return QStringLiteral("Move Tidewatch to Applications?");
}

QString text()
{
    return QStringLiteral("Tidewatch lives in your menu bar and opens when you log in. Keeping it in the Applications "
                          "folder makes sure it always starts from the same place.");
}

QString moveButton()
{
    return QStringLiteral("Move to Applications");
}

QString keepButton()
{
    return QStringLiteral("Not Now");
}

QString failureText(const QString& reason)
{
    return reason
        + QStringLiteral("\n\nYou can drag Tidewatch into Applications in Finder later. Setup continues from here.");
}

bool offerAtStart(const Environment& environment)
{
    const Situation now = situation(environment);
    if (!shouldOffer(now))
        return false;
    if (!platform::confirmMove(title(), text(), moveButton(), keepButton())) {
        Preferences(environment).setFlag(Preferences::moveToApplicationsDeclined, true);
        return false;
    }
    // A failed move isn't a refusal: the offer comes again next time.
    if (const std::optional<QString> failure = platform::moveBundle(now.bundle, destination())) {
        platform::showMoveFailure(failureText(*failure));
        return false;
    }
    return true;
}

} // namespace MoveToApplications

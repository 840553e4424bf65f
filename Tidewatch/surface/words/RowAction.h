#pragma once

#include "link/Account.h"
#include "link/Provider.h"
#include "link/Session.h"

#include <QDateTime>
#include <QList>
#include <QLocale>
#include <QString>

/// One of the buttons beneath an idle session.
struct RowAction {
    enum class Act {
        Continue, ///< tell it to carry on now
        CancelResume, ///< don't carry on by itself after the limit
        ContinueNow, ///< carry on now though a resume is armed
        ArmResume, ///< carry on by itself once the limit lifts
        TopUp, ///< open the provider's credits page
        FixKey, ///< paste a new key for the provider
        TryAgain, ///< try the provider again now
    };

    Act act = Act::Continue;
    QString title;
    QString help;

    bool operator==(const RowAction&) const = default;
};

namespace SessionWords {

/// The buttons beneath an idle session, in order; none while the model is
/// already continuing it.
QList<RowAction> actions(const Session& session, const Provider* provider, const Account* account, const QDateTime& now,
    const QLocale& locale, bool continuing);

} // namespace SessionWords

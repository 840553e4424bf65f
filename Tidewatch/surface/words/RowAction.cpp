#include "surface/words/RowAction.h"

#include "surface/words/SessionFacts.h"
#include "surface/words/StateLine.h"

using namespace Qt::StringLiterals;
using namespace SessionFacts;

namespace SessionWords {

QList<RowAction> actions(const Session& session, const Provider* provider, const Account* account, const QDateTime& now,
    const QLocale& locale, bool continuing)
{
    using Act = RowAction::Act;
    if (continuing || !isState(session, u"idle"))
        return {};
    const bool hasWords = blockedWords(session, provider, account, now, locale).has_value();
    if (!hasWords && session.stoppedForAway.value_or(false))
        return {{Act::Continue, u"Continue"_s, u"Tell it you’re back, so it carries on"_s}};
    if (!session.blocked)
        return {};
    const Session::Blocked& blocked = *session.blocked;
    const QString resume = resumeState(blocked);
    const RowAction continueNow{
        Act::ContinueNow, u"Continue now"_s, u"Carry on now, without waiting for the time it named"_s};
    if (resume == u"ready"_s)
        return {{Act::Continue, u"Continue"_s, u"Carry on where the limit stopped it"_s}};
    if (resume == u"armed"_s) {
        if (blocked.resume->canCancel.value_or(false))
            return {{Act::CancelResume, u"Don’t"_s, u"Don’t carry on by itself after the limit"_s}, continueNow};
        return {continueNow};
    }
    if (resume == u"off"_s && blocked.resume->canArm.value_or(false))
        return {{Act::ArmResume, u"Continue automatically"_s, u"Carry on by itself once the limit lifts"_s}};
    if (blocked.kind == u"provider"_s && provider && provider->status) {
        const QString state = provider->status->state.value_or(QString());
        if (state == u"no_credit"_s && provider->kind == u"openrouter"_s)
            return {{Act::TopUp, u"Top up"_s, u"Top up OpenRouter in the browser"_s}};
        if (state == u"bad_key"_s)
            return {{Act::FixKey, u"Fix key"_s, u"Paste a new key for "_s + provider->name}};
        if (state == u"down"_s || state == u"limited"_s)
            return {{Act::TryAgain, u"Try again"_s, u"Try %1 again now"_s.arg(provider->name)}};
    }
    return {};
}

} // namespace SessionWords

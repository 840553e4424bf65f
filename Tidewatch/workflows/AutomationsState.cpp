#include "workflows/AutomationsState.h"

#include <algorithm>

using namespace Qt::StringLiterals;

namespace {

constexpr qsizetype kMostUpcoming = 3;

QString nameOr(const std::optional<QString>& name)
{
    return name ? *name : u"Automation"_s;
}

} // namespace

AutomationsState AutomationsState::fromStatus(const AutomationsStatus& status)
{
    AutomationsState state;
    state.paused = status.paused;
    state.count = status.count;
    if (status.next && status.next->at)
        state.upcoming.append(Next{status.next->id, nameOr(status.next->name), *status.next->at});
    for (const AutomationsStatus::Run& run : status.running)
        state.running.append(Running{run.id, nameOr(run.name), run.sessionId, run.startedAt, false});
    return state;
}

AutomationsState AutomationsState::fromSnapshot(const AutomationsSnapshot& snapshot)
{
    AutomationsState state;
    state.paused = snapshot.paused;
    state.features = snapshot.features;
    state.count = snapshot.list.size();
    qint64 enabled = 0;
    for (const AutomationsSnapshot::Item& item : snapshot.list) {
        // Only an explicit false is off.
        const bool on = item.enabled.value_or(true);
        if (on)
            ++enabled;
        const QString name = nameOr(item.name);
        const std::optional<AutomationsSnapshot::LastRun>& run = item.lastRun;
        const bool needsYou = run && run->state == u"needs_you"_s;
        // A run at work counts even when its automation has since been turned off.
        if (run && (run->state == u"running"_s || needsYou)) {
            std::optional<QString> sessionId;
            if (run->sessionIds && !run->sessionIds->isEmpty())
                sessionId = run->sessionIds->last();
            state.running.append(Running{item.id, name, sessionId, run->startedAt, needsYou});
        }
        if (on && item.nextAt)
            state.upcoming.append(Next{item.id, name, *item.nextAt});
        else if (on)
            state.eventNames.append(name);
        if (needsYou && run->id && run->ask) {
            const AutomationsSnapshot::Ask& ask = *run->ask;
            if (ask.stepId && ask.answers && !ask.answers->isEmpty() && ask.until) {
                state.asks.append(WFAskItem{*run->id, item.id.value_or(QString()), name, *ask.stepId,
                    ask.question.value_or(QString()), *ask.answers, ask.defaultAnswer.value_or(QString()), *ask.until});
            }
        }
    }
    state.enabled = enabled;
    std::stable_sort(
        state.upcoming.begin(), state.upcoming.end(), [](const Next& a, const Next& b) { return a.at < b.at; });
    if (state.upcoming.size() > kMostUpcoming)
        state.upcoming.resize(kMostUpcoming);
    return state;
}

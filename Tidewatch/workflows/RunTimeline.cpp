#include "workflows/RunTimeline.h"

#include <algorithm>

using namespace Qt::StringLiterals;

namespace RunTimeline {

bool isAtWork(const QString& state)
{
    return state == u"queued"_s || state == u"waiting"_s || state == u"running"_s || state == u"needs_you"_s;
}

int tickSeconds(const QString& state)
{
    return isAtWork(state) ? 1 : 60;
}

bool offersRetry(const QString& state)
{
    return state == u"failed"_s || state == u"skipped"_s || state == u"stopped"_s;
}

Retry retry(const WFRun& run, const QList<WFStep>& steps)
{
    const std::optional<qsizetype> failed = run.firstFailed();
    if (!failed || *failed == 0)
        return Retry{};
    const QString& id = run.steps.at(*failed).id;
    const bool stillThere
        = std::any_of(steps.cbegin(), steps.cend(), [&](const WFStep& step) { return step.id == id; });
    return stillThere ? Retry{failed, id} : Retry{};
}

} // namespace RunTimeline

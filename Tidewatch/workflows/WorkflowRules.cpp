#include "workflows/WorkflowRules.h"

#include <algorithm>

using namespace Qt::StringLiterals;

namespace WorkflowRules {

bool knowsStepKind(const QString& kind)
{
    static const QStringList kinds{u"start"_s, u"continue"_s, u"ask"_s, u"shell"_s, u"notify"_s, u"say"_s};
    return kinds.contains(kind);
}

bool knowsOutputKind(const QString& kind)
{
    static const QStringList kinds{u"notify"_s, u"say"_s, u"webhook"_s, u"file"_s};
    return kinds.contains(kind);
}

bool isEditable(const WFAutomation& automation)
{
    if (!automation.steps || automation.steps->isEmpty())
        return false;
    const QList<WFOutput> outputs = automation.outputs.value_or(QList<WFOutput>());
    return std::all_of(automation.steps->cbegin(), automation.steps->cend(),
               [](const WFStep& step) { return knowsStepKind(step.kind); })
        && std::all_of(
            outputs.cbegin(), outputs.cend(), [](const WFOutput& output) { return knowsOutputKind(output.kind); });
}

Confirmation needsConfirmation(const QList<WFStep>& steps)
{
    Confirmation needs;
    for (const WFStep& step : steps) {
        needs.shell = needs.shell || step.kind == u"shell"_s;
        needs.bypass = needs.bypass || (step.kind == u"start"_s && step.permissionMode == u"bypassPermissions"_s);
    }
    return needs;
}

bool runsOnCodex(const QList<WFStep>& steps)
{
    const auto start
        = std::find_if(steps.cbegin(), steps.cend(), [](const WFStep& step) { return step.kind == u"start"_s; });
    return start != steps.cend() && start->providerId == u"codex"_s;
}

} // namespace WorkflowRules

#include "model/AutomationActions.h"

#include "model/ActionCalls.h"
#include "workflows/WorkflowWords.h"

void AutomationActions::setPausedChoice(std::optional<bool> choice)
{
    if (m_pausedChoice == choice)
        return;
    m_pausedChoice = choice;
    Q_EMIT pausedChoiceChanged();
}

void AutomationActions::setPaused(ActionCalls& calls, bool paused)
{
    setPausedChoice(paused);
    calls.runWith<PausedReply>(
        ServiceCalls::setAutomationsPaused(paused), [this](PausedReply) { Q_EMIT readWanted(true); },
        [this, paused](const DaemonError& error) {
            setPausedChoice(std::nullopt);
            Q_EMIT failed((paused ? QStringLiteral("Couldn’t pause automations. ")
                                  : QStringLiteral("Couldn’t resume automations. "))
                + error.errorDescription());
        });
}

void AutomationActions::answer(ActionCalls& calls, const WFAskItem& ask, const QString& answer)
{
    calls.runWith<WFRunReply>(
        ServiceCalls::answerAsk(ask.runId, ask.stepId, answer), [this](const WFRunReply&) { Q_EMIT readWanted(false); },
        [this](const DaemonError& error) {
            Q_EMIT failed(WorkflowWords::answerFailure(error));
            // Answered elsewhere: the read takes the ask away here too.
            if (error.code == QStringLiteral("not_asking"))
                Q_EMIT readWanted(false);
        });
}

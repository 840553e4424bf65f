#include "workflows/RunWords.h"

#include "text/Machine.h"
#include "text/TimeWords.h"
#include "workflows/StepWords.h"

#include <QHash>
#include <QTimeZone>

#include <algorithm>

using namespace Qt::StringLiterals;

namespace WorkflowWords {

namespace {

// The fields a step and a run share, which their failure words are made of.
Result failureOf(
    const QString& state, const std::optional<QString>& reason, const std::optional<QString>& result, bool codex)
{
    Result words;
    words.tone = state == u"failed"_s ? Tone::Failed : state == u"skipped"_s ? Tone::Skipped : Tone::Stopped;
    static const QHash<QString, QString> plain{{u"no_project"_s, u"Its project folder is gone"_s},
        {u"outside_projects"_s, u"Its folder is outside your projects folder"_s},
        {u"no_session"_s, u"The session it works in is gone"_s}, {u"no_model"_s, u"Its model isn’t offered any more"_s},
        {u"budget"_s, u"Stopped: it reached its budget"_s}, {u"by_user"_s, u"Stopped by you"_s},
        {u"away"_s, u"Stopped: nobody answered"_s}, {u"timeout"_s, u"Stopped: it ran past its time"_s},
        {u"limited"_s, u"Stopped: your usage limit is reached"_s}, {u"target_busy"_s, u"That session stayed busy"_s}};
    const QString why = reason.value_or(QString());
    const bool hasResult = result && !result->isEmpty();
    if (plain.contains(why)) {
        words.text = plain.value(why);
    } else if (why == u"no_provider"_s) {
        words.text = codex ? u"Codex isn’t set up on %1"_s.arg(machine::thisMachine()) : u"Its provider is gone"_s;
    } else if (why == u"start_failed"_s) {
        words.text = codex ? u"Codex didn’t start"_s : u"Claude Code didn’t start"_s;
    } else if (why == u"signed_out"_s && codex) {
        words.text = u"Codex is signed out on %1"_s.arg(machine::theMachine());
    } else if (why == u"error"_s) {
        words.text = hasResult ? u"Failed: "_s + *result : u"Failed"_s;
    } else if (hasResult) {
        words.text = state == u"failed"_s ? u"Failed: "_s + *result : *result;
    } else {
        words.text = state == u"failed"_s ? u"Failed"_s : state == u"skipped"_s ? u"Skipped"_s : u"Stopped"_s;
    }
    return words;
}

// "Exited N" and the last line of what it said, when there is one.
QString exited(qint64 code, const std::optional<QString>& result)
{
    const std::optional<QString> last = lastLine(result.value_or(QString()));
    return u"Exited %1"_s.arg(code) + (last ? u": "_s + *last : QString());
}

Result doneStep(const WFRunStep& step)
{
    Result words{QString(), step.quiet == true ? Tone::Quiet : Tone::Ok, std::nullopt};
    const QString kind = step.kind.value_or(QString());
    if (step.answer)
        words.text = answerWords(step.answer->text, step.answer->by);
    else if (kind == u"shell"_s)
        words.text = exited(step.exit.value_or(0), step.result);
    else if (step.quiet == true)
        words.text = u"Nothing new."_s;
    else if (kind == u"notify"_s || kind == u"say"_s)
        words.text = u"Sent"_s;
    else
        words.text = step.result && !step.result->isEmpty() ? *step.result : u"Done"_s;
    return words;
}

Result endedStep(const WFRunStep& step, bool codex)
{
    const QString kind = step.kind.value_or(QString());
    const QString reason = step.reason.value_or(QString());
    const bool shell = kind == u"shell"_s;
    if (step.state == u"failed"_s) {
        Result words{QString(), Tone::Failed, std::nullopt};
        if (reason == u"exit"_s || (shell && step.exit.value_or(0) != 0))
            words.text = exited(step.exit.value_or(1), step.result);
        else if (shell && reason == u"timeout"_s)
            words.text = u"Stopped: it ran past its time"_s;
        else
            words.text = failure(step, codex).text;
        return words;
    }
    if (step.state == u"stopped"_s) {
        if (shell && reason == u"ended"_s)
            return Result{u"Stopped: Tidewatch restarted while it ran"_s, Tone::Stopped, std::nullopt};
        return Result{failure(step, codex).text, Tone::Stopped, std::nullopt};
    }
    static const QHash<QString, QString> skipped{{u"guard"_s, u"Skipped: its condition didn’t hold"_s},
        {u"failed_before"_s, u"Skipped: a step before it failed"_s}, {u"not_reached"_s, u"Not reached"_s}};
    return Result{skipped.value(reason, failure(step, codex).text), Tone::Skipped, std::nullopt};
}

} // namespace

Result failure(const WFRunStep& step, bool codex)
{
    return failureOf(step.state, step.reason, step.result, codex);
}

Result failure(const WFRun& run, bool codex)
{
    return failureOf(run.state, run.reason, run.result, codex);
}

Result stepResult(const WFRunStep& step, const QDateTime& now, bool codex)
{
    Result words;
    const QString& state = step.state;
    if (state == u"pending"_s) {
        words = Result{u"Not yet"_s, Tone::Pending, std::nullopt};
    } else if (state == u"running"_s) {
        const std::optional<QString> time = stepDuration(step, now);
        words = Result{step.startedAt ? u"Working for "_s + *time : u"Working"_s, Tone::Active, std::nullopt};
    } else if (state == u"waiting"_s) {
        words = Result{step.reason == u"target_busy"_s ? u"Waiting for that session to be free"_s
                                                       : u"Waiting for your limit to reset"_s,
            Tone::Active, std::nullopt};
    } else if (state == u"needs_you"_s) {
        words
            = Result{step.kind == u"ask"_s ? u"Waiting for your answer"_s : u"Needs you"_s, Tone::Alert, std::nullopt};
    } else if (state == u"done"_s) {
        words = doneStep(step);
    } else if (state == u"failed"_s || state == u"stopped"_s || state == u"skipped"_s) {
        words = endedStep(step, codex);
    } else {
        words = failure(step, codex);
    }
    if (step.reused == true)
        words.note = u"From the run it retried"_s;
    return words;
}

Result outputResult(const WFRunOutput& output)
{
    const bool hasError = output.error && !output.error->isEmpty();
    if (output.state == u"pending"_s)
        return Result{hasError ? u"Trying again: "_s + *output.error : u"Sending"_s, Tone::Active, std::nullopt};
    if (output.state == u"sent"_s)
        return Result{u"Sent"_s, Tone::Ok, std::nullopt};
    if (output.state == u"failed"_s)
        return Result{hasError ? u"Didn’t go: "_s + *output.error : u"Didn’t go"_s, Tone::Failed, std::nullopt};
    return Result{u"Not sent"_s, Tone::Skipped, std::nullopt};
}

Result runResult(const WFRun& run, const QDateTime& now, bool codex)
{
    const QString& state = run.state;
    if (state == u"queued"_s)
        return Result{u"In line"_s, Tone::Active, std::nullopt};
    if (state == u"waiting"_s)
        return Result{u"Waiting for your limit to reset"_s, Tone::Active, std::nullopt};
    if (state == u"running"_s)
        return Result{u"Working"_s, Tone::Active, std::nullopt};
    if (state == u"needs_you"_s)
        return Result{run.ask ? u"Asking: "_s + run.ask->question : u"Needs you"_s, Tone::Alert, std::nullopt};
    if (state == u"done"_s) {
        if (run.quiet == true)
            return Result{u"Nothing new."_s, Tone::Quiet, std::nullopt};
        return Result{run.result && !run.result->isEmpty() ? *run.result : u"Done"_s, Tone::Ok, std::nullopt};
    }
    const auto same = std::find_if(
        run.steps.cbegin(), run.steps.cend(), [&](const WFRunStep& step) { return step.state == state; });
    if (same != run.steps.cend())
        return stepResult(*same, now, codex);
    return failure(run, codex);
}

QString timelineTitle(const WFRunStep& step, const QList<WFStep>& configured)
{
    const auto found = std::find_if(
        configured.cbegin(), configured.cend(), [&](const WFStep& candidate) { return candidate.id == step.id; });
    if (found == configured.cend())
        return kindName(step.kind.value_or(QString()));
    if (found->kind == u"notify"_s || found->kind == u"say"_s)
        return kindName(found->kind);
    const QString detail = clip(stepDetail(*found), 56);
    return detail.isEmpty() ? stepTitle(*found) : detail;
}

QString timelineOutputName(const WFRunOutput& output, const QList<WFOutput>& configured)
{
    const auto found = std::find_if(
        configured.cbegin(), configured.cend(), [&](const WFOutput& candidate) { return candidate.id == output.id; });
    return found == configured.cend() ? goneOutputName(output.kind.value_or(QString())) : outputName(*found);
}

std::optional<QString> stepDuration(const WFRunStep& step, const QDateTime& now)
{
    if (!step.startedAt || step.state == u"pending"_s || step.state == u"skipped"_s)
        return std::nullopt;
    const qint64 end = step.endedAt ? step.endedAt->msecsSinceEpoch : now.toMSecsSinceEpoch();
    return span(double(end - step.startedAt->msecsSinceEpoch) / 1000.0);
}

QString runTime(const FlexDate& startedAt, const QDateTime& now, const QLocale& locale)
{
    if (startedAt.toDateTime().toTimeZone(now.timeZone()).date() == now.date())
        return u"Today "_s + TimeWords::clockTime(startedAt, now, locale);
    return TimeWords::weekdayTime(startedAt, now, locale);
}

QString retryLabel()
{
    return u"A retry"_s;
}

QString toldLabel()
{
    return u"Told"_s;
}

QString retryButton()
{
    return u"Retry"_s;
}

QString runsCount(std::optional<qint64> runCount)
{
    return runCount.value_or(0) >= 1 ? u"%1 runs"_s.arg(*runCount) : u"none yet"_s;
}

QString noRuns()
{
    return u"None yet."_s;
}

RetryDialog retryDialog(qsizetype number)
{
    return RetryDialog{u"Retry"_s, u"Retry from step %1?"_s.arg(number),
        u"The steps before it are kept, with what they said. Or run it all again."_s, u"From step %1"_s.arg(number),
        u"From the start"_s};
}

} // namespace WorkflowWords

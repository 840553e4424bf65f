#include "link/DaemonError.h"
#include "workflows/RunWords.h"
#include "workflows/StepWords.h"
#include "workflows/TriggerWords.h"
#include "workflows/WorkflowRules.h"
#include "workflows/WorkflowWords.h"

#include "Fixture.h"
#include "GoldenTest.h"

#include <QJsonArray>

using namespace Qt::StringLiterals;

// The automations' words, in tests/data/words/workflow-words.txt.
namespace {

const QString kNone = u"—"_s;
const QLocale kUs(u"en_US"_s);

std::optional<QString> given(const QString& text)
{
    return text.isEmpty() ? std::nullopt : std::optional<QString>(text);
}

QString toneName(WorkflowWords::Tone tone)
{
    static const QStringList names{
        u"ok"_s, u"quiet"_s, u"skipped"_s, u"failed"_s, u"stopped"_s, u"active"_s, u"alert"_s, u"pending"_s};
    return names.at(int(tone));
}

QString said(const WorkflowWords::Result& result)
{
    return result.text + u" ("_s + toneName(result.tone) + u')' + (result.note ? u" | "_s + *result.note : QString());
}

// An automation of these steps and outputs (JSON lists), on a cron trigger.
WFAutomation automation(const QString& steps, const QString& outputs = u"[]"_s)
{
    return Fixture::record<WFAutomation>((uR"({"id":"au","name":"A","trigger":{"kind":"cron"},"steps":)"_s + steps
        + uR"(,"outputs":)"_s + (outputs.isEmpty() ? u"[]"_s : outputs) + u'}')
                                             .toUtf8());
}

// A run's timeline: each step's title, result and time, then what it told.
QString timeline(const QStringList& in)
{
    const WFRun run = Fixture::record<WFRun>(in.at(0).toUtf8());
    const WFAutomation now = automation(in.value(1, u"[]"_s), in.value(2));
    const bool codex = WorkflowRules::runsOnCodex(*now.steps);
    QStringList lines;
    for (const WFRunStep& step : run.steps) {
        const std::optional<QString> time = WorkflowWords::stepDuration(step, Fixture::now());
        lines << WorkflowWords::timelineTitle(step, *now.steps) + u": "_s
                + said(WorkflowWords::stepResult(step, Fixture::now(), codex))
                + (time ? u" ["_s + *time + u']' : QString());
    }
    if (!run.outputs.isEmpty())
        lines << WorkflowWords::toldLabel();
    for (const WFRunOutput& output : run.outputs) {
        lines << WorkflowWords::timelineOutputName(output, *now.outputs) + u": "_s
                + said(WorkflowWords::outputResult(output));
    }
    return lines.join(u" / "_s);
}

QString askWords(const QString& section, const QStringList& in)
{
    if (section == u"countdown"_s) {
        WFAskItem ask;
        ask.defaultAnswer = in.value(1);
        ask.until = Fixture::at(in.at(0).toDouble());
        return WorkflowWords::countdown(ask, Fixture::now()).value_or(kNone);
    }
    if (section == u"answer"_s)
        return WorkflowWords::answerWords(in.at(0), given(in.value(1)));
    if (section == u"already answered"_s)
        return WorkflowWords::alreadyAnswered(Fixture::maybe<WFRun>(in.value(0).toUtf8()));
    const QString run = in.value(3);
    const DaemonError error = run.isEmpty()
        ? DaemonError::server(in.at(0).toInt(), given(in.at(1)), in.at(2))
        : DaemonError::detail(in.at(0).toInt(), given(in.at(1)), in.at(2), std::nullopt, Fixture::json(run.toUtf8()));
    return WorkflowWords::answerFailure(error);
}

QString recordWords(const QString& section, const QStringList& in)
{
    const QByteArray text = in.value(0).toUtf8();
    if (section == u"guard"_s)
        return WorkflowWords::guardWords(Fixture::maybe<WFGuard>(text));
    if (section == u"trigger"_s)
        return WorkflowWords::triggerWords(Fixture::record<WFTrigger>(text));
    if (section == u"kind name"_s)
        return WorkflowWords::kindName(in.at(0));
    if (section == u"step"_s) {
        const WFStep step = Fixture::record<WFStep>(text);
        return WorkflowWords::stepTitle(step) + u" | "_s + WorkflowWords::stepDetail(step);
    }
    if (section == u"output name"_s) {
        const WFOutput output = Fixture::record<WFOutput>(text);
        return WorkflowWords::outputName(output) + u" | gone: "_s + WorkflowWords::goneOutputName(output.kind);
    }
    if (section == u"card"_s)
        return WorkflowWords::automationWords(Fixture::record<WFAutomation>(text));
    if (section == u"placeholder"_s) {
        const QList<WFStep> before = *automation(in.value(1, u"[]"_s)).steps;
        return WorkflowWords::placeholderChip(in.at(0), before) + u" | "_s
            + WorkflowWords::placeholderWords(in.at(0), before);
    }
    if (section == u"failure"_s) {
        return said(WorkflowWords::failure(Fixture::record<WFRunStep>(text), in.value(1) == u"codex"_s)) + u" | run: "_s
            + said(WorkflowWords::failure(Fixture::record<WFRun>(text), in.value(1) == u"codex"_s));
    }
    if (section == u"step result"_s)
        return said(
            WorkflowWords::stepResult(Fixture::record<WFRunStep>(text), Fixture::now(), in.value(1) == u"codex"_s));
    if (section == u"output result"_s)
        return said(WorkflowWords::outputResult(Fixture::record<WFRunOutput>(text)));
    if (section == u"run result"_s)
        return said(WorkflowWords::runResult(Fixture::record<WFRun>(text), Fixture::now(), in.value(1) == u"codex"_s));
    if (section == u"timeline"_s)
        return timeline(in);
    return askWords(section, in);
}

QString words(const QString& section, const QStringList& in)
{
    if (section == u"clip"_s) {
        const QString text = Fixture::json("[" + in.at(1).toUtf8() + "]").toArray().at(0).toString();
        return WorkflowWords::clip(text, in.at(0).toInt());
    }
    if (section == u"last line"_s)
        return WorkflowWords::lastLine(Fixture::json("[" + in.at(0).toUtf8() + "]").toArray().at(0).toString())
            .value_or(kNone);
    if (section == u"span"_s)
        return WorkflowWords::span(in.at(0).toDouble());
    if (section == u"run time"_s)
        return WorkflowWords::runTime(Fixture::at(in.at(0).toDouble()), Fixture::now(), kUs);
    if (section == u"runs"_s) {
        const std::optional<qint64> count
            = in.at(0).isEmpty() ? std::nullopt : std::optional<qint64>(in.at(0).toLongLong());
        return WorkflowWords::runsCount(count) + u" | "_s + WorkflowWords::noRuns() + u" | "_s
            + WorkflowWords::retryLabel() + u" | "_s + WorkflowWords::retryButton();
    }
    if (section == u"retry dialog"_s) {
        const WorkflowWords::RetryDialog dialog = WorkflowWords::retryDialog(in.at(0).toLongLong());
        return QStringList{dialog.kicker, dialog.title, dialog.body, dialog.confirm, dialog.second}.join(u" | "_s);
    }
    return recordWords(section, in);
}

} // namespace

int main(int argc, char** argv)
{
    return GoldenTest::main(argc, argv, {u"workflow-words.txt"_s}, [](const QString& section, const QStringList& in) {
        // No word of the automations holds a middle dot.
        const QString text = words(section, in);
        return text.contains(u'·') ? u"holds a middle dot: "_s + text : text;
    });
}

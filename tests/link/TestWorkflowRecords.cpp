#include "link/WFAutomation.h"
#include "link/WFInput.h"
#include "workflows/NewRecords.h"
#include "workflows/RunTimeline.h"
#include "workflows/WorkflowRules.h"

#include "Fixture.h"
#include "GoldenTest.h"

#include <QHash>
#include <QRegularExpression>
#include <QSet>

using namespace Qt::StringLiterals;

// The automation records read from the service's JSON and written back in
// its key order, byte for byte, in tests/data/words/workflow-records.txt.
namespace {

const QString kNone = u"—"_s;

template <class T> QString encoded(const T& record)
{
    JsonWriter out;
    record.write(out);
    return QString::fromUtf8(out.text());
}

// A fresh id stands as its prefix and "<id>" once it has the right form.
QString withoutId(QString text, const QString& prefix)
{
    static const QRegularExpression id(u"\"(st|ou)_[0-9a-f]{8}\""_s);
    const QRegularExpressionMatch match = id.match(text);
    if (!match.hasMatch() || match.captured(1) + u'_' != prefix)
        return u"no fresh id in "_s + text;
    return text.replace(match.capturedStart(), match.capturedLength(), u"\""_s + prefix + u"<id>\""_s);
}

QString flag(const std::optional<bool>& value)
{
    return value ? (*value ? u"true"_s : u"false"_s) : kNone;
}

QString automationSummary(const std::optional<WFAutomation>& read)
{
    if (!read)
        return u"unreadable"_s;
    const WFAutomation& a = *read;
    QStringList steps, outputs;
    for (const WFStep& step : a.steps.value_or(QList<WFStep>()))
        steps << step.kind + (step.guard ? u" if "_s + step.guard->on : QString());
    for (const WFOutput& output : a.outputs.value_or(QList<WFOutput>())) {
        outputs << output.kind + (output.preset ? u' ' + *output.preset : QString())
                + (output.last4 ? u" …"_s + *output.last4 : QString());
    }
    QStringList said{a.id + u' ' + a.name,
        u"trigger "_s + a.trigger.kind + (a.trigger.last4 ? u" …"_s + *a.trigger.last4 : QString()),
        u"steps "_s + (a.steps ? steps.join(u", "_s) : u"none sent"_s),
        u"outputs "_s + (a.outputs ? outputs.join(u", "_s) : u"none sent"_s),
        u"budget "_s + (a.budget ? encoded(*a.budget) : kNone), u"enabled "_s + flag(a.enabled),
        WorkflowRules::isEditable(a) ? u"editable"_s : u"left to the phone"_s};
    return said.join(u" | "_s);
}

QString runSummary(const std::optional<WFRun>& read)
{
    if (!read)
        return u"unreadable"_s;
    QStringList steps, outputs;
    for (const WFRunStep& step : read->steps)
        steps << step.id + u' ' + step.state + (step.exit ? u" exit "_s + QString::number(*step.exit) : QString());
    for (const WFRunOutput& output : read->outputs)
        outputs << output.id + u' ' + output.state;
    const std::optional<qsizetype> failed = read->firstFailed();
    return QStringList{read->id + u' ' + read->state, u"steps "_s + steps.join(u", "_s),
        u"outputs "_s + outputs.join(u", "_s),
        u"ask "_s + (read->ask ? read->ask->stepId + u": "_s + read->ask->answers.join(u'/') : kNone),
        u"fired by "_s + (read->fired ? read->fired->by.value_or(kNone) : kNone),
        u"first failed "_s + (failed ? QString::number(*failed) : kNone)}
        .join(u" | "_s);
}

QString reply(const QString& kind, const QByteArray& text)
{
    const QJsonValue value = Fixture::json(text);
    if (kind == u"list"_s) {
        const std::optional<WFListReply> list = WFListReply::fromJson(value);
        if (!list)
            return u"unreadable"_s;
        return QString::number(list->automations.size()) + u" automations, paused "_s + flag(list->paused)
            + u", features "_s + (list->features ? list->features->join(u',') : kNone);
    }
    if (kind == u"runs"_s) {
        const std::optional<WFRunsReply> runs = WFRunsReply::fromJson(value);
        if (!runs)
            return u"unreadable"_s;
        return Fixture::ids(runs->runs).join(u", "_s) + u" of "_s + QString::number(runs->total.value_or(-1))
            + u", skipped "_s + QString::number(runs->skipped.value_or(-1));
    }
    if (kind == u"saved"_s) {
        const std::optional<WFSaved> saved = WFSaved::fromJson(value);
        if (!saved)
            return u"unreadable"_s;
        return (saved->automation ? saved->automation->id : kNone) + u", token "_s + saved->token.value_or(kNone);
    }
    QStringList next;
    for (const FlexDate& at : Fixture::record<WFCheckReply>(text).next)
        next << QString::number((at.msecsSinceEpoch - Fixture::kNowMs) / 1000);
    return u"next +"_s + next.join(u" +"_s) + u" s"_s;
}

// A save's body: the automation read from the service, sent back with the
// agreements named in `confirm`.
QString input(const QByteArray& automation, const QString& confirm)
{
    const WFAutomation read = Fixture::record<WFAutomation>(automation);
    WFInput body;
    body.name = read.name;
    body.enabled = read.enabled.value_or(true);
    body.onlyOnce = read.onlyOnce.value_or(false);
    body.trigger = read.trigger;
    body.steps = read.steps.value_or(QList<WFStep>());
    body.outputs = read.outputs.value_or(QList<WFOutput>());
    body.budget = read.budget;
    body.templateName = read.templateName;
    body.confirmShell = confirm.contains(u"shell"_s);
    body.confirmBypass = confirm.contains(u"bypass"_s);
    body.confirmPaid = confirm.contains(u"paid"_s);
    return QString::fromUtf8(body.toJson());
}

QString freshIds(const QString& prefix)
{
    QSet<QString> seen;
    QSet<QChar> digits;
    const QRegularExpression form(u"^"_s + prefix + u"[0-9a-f]{8}$"_s);
    for (int i = 0; i < 2000; ++i) {
        const QString id = prefix == u"st_"_s ? NewRecords::stepId() : NewRecords::outputId();
        if (!form.match(id).hasMatch())
            return u"not an id: "_s + id;
        seen.insert(id);
        for (const QChar c : id.mid(3))
            digits.insert(c);
    }
    return u"%1 different, %2 digits used"_s.arg(seen.size()).arg(digits.size());
}

QString records(const QString& section, const QStringList& in)
{
    const QByteArray text = in.value(0).toUtf8();
    if (section == u"trigger"_s)
        return encoded(Fixture::record<WFTrigger>(text));
    if (section == u"step"_s)
        return encoded(Fixture::record<WFStep>(text));
    if (section == u"output"_s)
        return encoded(Fixture::record<WFOutput>(text));
    if (section == u"budget"_s)
        return encoded(Fixture::record<WFBudget>(text));
    if (section == u"input"_s)
        return input(text, in.value(1));
    if (section == u"automation"_s)
        return automationSummary(WFAutomation::fromJson(Fixture::json(text)));
    if (section == u"run"_s)
        return runSummary(WFRun::fromJson(Fixture::json(text)));
    if (section == u"reply"_s)
        return reply(in.at(0), in.value(1).toUtf8());
    if (section == u"new trigger"_s)
        return encoded(NewRecords::trigger(in.at(0)));
    if (section == u"new step"_s) {
        const std::optional<WFStep> before = Fixture::maybe<WFStep>(in.value(3).toUtf8());
        const QString provider = in.value(2);
        return withoutId(
            encoded(NewRecords::step(in.at(0), in.value(1),
                provider.isEmpty() ? std::nullopt : std::optional<QString>(provider), before ? &*before : nullptr)),
            u"st_"_s);
    }
    if (section == u"new output"_s)
        return withoutId(encoded(NewRecords::output(in.at(0))), u"ou_"_s);
    if (section == u"fresh ids"_s)
        return freshIds(in.at(0));
    if (section == u"confirmation"_s) {
        const WFAutomation read
            = Fixture::record<WFAutomation>(R"({"id":"a","name":"a","trigger":{"kind":"cron"},"steps":)" + text + "}");
        const WorkflowRules::Confirmation needs = WorkflowRules::needsConfirmation(*read.steps);
        return u"shell "_s + flag(needs.shell) + u", bypass "_s + flag(needs.bypass) + u", Codex "_s
            + flag(WorkflowRules::runsOnCodex(*read.steps));
    }
    if (section == u"retry"_s) {
        const WFRun run = Fixture::record<WFRun>(text);
        const WFAutomation now = Fixture::record<WFAutomation>(
            R"({"id":"a","name":"a","trigger":{"kind":"cron"},"steps":)" + in.value(1).toUtf8() + "}");
        const RunTimeline::Retry retry = RunTimeline::retry(run, *now.steps);
        return (RunTimeline::offersRetry(run.state) ? u"offers Retry"_s : u"no button"_s) + u", redraws every "_s
            + QString::number(RunTimeline::tickSeconds(run.state)) + u" s, "_s
            + (retry.index ? u"asks about step %1 (%2)"_s.arg(*retry.index + 1).arg(retry.stepId)
                           : u"from the start at once"_s);
    }
    return u"no render for the section "_s + section;
}

} // namespace

int main(int argc, char** argv)
{
    return GoldenTest::main(argc, argv, {u"workflow-records.txt"_s}, records);
}

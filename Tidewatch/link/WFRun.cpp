#include "link/WFRun.h"

#include <utility>

using namespace Qt::StringLiterals;

std::optional<WFAnswer> WFAnswer::fromJson(const QJsonValue& value)
{
    const std::optional<Lenient::Fields> fields = Lenient::Fields::open(value);
    if (!fields)
        return std::nullopt;
    std::optional<QString> text = fields->string("text"_L1);
    if (!text)
        return std::nullopt;
    return WFAnswer{std::move(*text), fields->string("by"_L1), fields->date("at"_L1)};
}

std::optional<WFFired> WFFired::fromJson(const QJsonValue& value)
{
    const std::optional<Lenient::Fields> fields = Lenient::Fields::open(value);
    if (!fields)
        return std::nullopt;
    return WFFired{
        fields->string("by"_L1), fields->date("at"_L1), fields->string("sessionId"_L1), fields->string("detail"_L1)};
}

std::optional<WFRunStep> WFRunStep::fromJson(const QJsonValue& value)
{
    const std::optional<Lenient::Fields> fields = Lenient::Fields::open(value);
    std::optional<std::pair<QString, QString>> named = fields ? fields->stringPair("id"_L1, "state"_L1) : std::nullopt;
    if (!named)
        return std::nullopt;
    WFRunStep step;
    step.id = std::move(named->first);
    step.kind = fields->string("kind"_L1);
    step.state = std::move(named->second);
    step.reason = fields->string("reason"_L1);
    step.startedAt = fields->date("startedAt"_L1);
    step.endedAt = fields->date("endedAt"_L1);
    step.result = fields->string("result"_L1);
    step.quiet = fields->boolean("quiet"_L1);
    step.sessionIds = fields->strings("sessionIds"_L1);
    step.exit = fields->integer("exit"_L1);
    step.answer = fields->record<WFAnswer>("answer"_L1);
    step.reused = fields->boolean("reused"_L1);
    return step;
}

std::optional<WFRunOutput> WFRunOutput::fromJson(const QJsonValue& value)
{
    const std::optional<Lenient::Fields> fields = Lenient::Fields::open(value);
    std::optional<std::pair<QString, QString>> named = fields ? fields->stringPair("id"_L1, "state"_L1) : std::nullopt;
    if (!named)
        return std::nullopt;
    return WFRunOutput{std::move(named->first), fields->string("kind"_L1), std::move(named->second),
        fields->string("error"_L1), fields->date("at"_L1)};
}

std::optional<WFRunAsk> WFRunAsk::fromJson(const QJsonValue& value)
{
    const std::optional<Lenient::Fields> fields = Lenient::Fields::open(value);
    if (!fields)
        return std::nullopt;
    std::optional<QString> stepId = fields->string("stepId"_L1);
    std::optional<QString> question = fields->string("question"_L1);
    std::optional<QStringList> answers = fields->strings("answers"_L1);
    std::optional<QString> defaultAnswer = fields->string("default"_L1);
    std::optional<FlexDate> until = fields->date("until"_L1);
    if (!stepId || !question || !answers || !defaultAnswer || !until)
        return std::nullopt;
    return WFRunAsk{std::move(*stepId), std::move(*question), std::move(*answers), std::move(*defaultAnswer), *until};
}

std::optional<WFRun> WFRun::fromJson(const QJsonValue& value)
{
    const std::optional<Lenient::Fields> fields = Lenient::Fields::open(value);
    std::optional<std::pair<QString, QString>> named = fields ? fields->stringPair("id"_L1, "state"_L1) : std::nullopt;
    if (!named)
        return std::nullopt;
    WFRun run;
    const QJsonValue ask = fields->value("ask"_L1);
    if (!ask.isUndefined() && !ask.isNull()) {
        // A question that can't be answered as asked would be worse than no run.
        run.ask = WFRunAsk::fromJson(ask);
        if (!run.ask)
            return std::nullopt;
    }
    run.id = std::move(named->first);
    run.automationId = fields->string("automationId"_L1);
    run.name = fields->string("name"_L1);
    run.fired = fields->record<WFFired>("fired"_L1);
    run.state = std::move(named->second);
    run.reason = fields->string("reason"_L1);
    run.until = fields->date("until"_L1);
    run.startedAt = fields->date("startedAt"_L1);
    run.endedAt = fields->date("endedAt"_L1);
    run.result = fields->string("result"_L1);
    run.quiet = fields->boolean("quiet"_L1);
    run.sessionIds = fields->strings("sessionIds"_L1);
    run.steps = fields->records<WFRunStep>("steps"_L1).value_or(QList<WFRunStep>());
    run.step = fields->integer("step"_L1);
    run.outputs = fields->records<WFRunOutput>("outputs"_L1).value_or(QList<WFRunOutput>());
    run.retryOf = fields->string("retryOf"_L1);
    run.retryFrom = fields->string("retryFrom"_L1);
    return run;
}

std::optional<qsizetype> WFRun::firstFailed() const
{
    for (qsizetype i = 0; i < steps.size(); ++i) {
        if (steps.at(i).state == u"failed"_s || steps.at(i).state == u"stopped"_s)
            return i;
    }
    return std::nullopt;
}

std::optional<WFRunReply> WFRunReply::fromJson(const QJsonValue& value)
{
    const std::optional<Lenient::Fields> fields = Lenient::Fields::open(value);
    if (!fields)
        return std::nullopt;
    return WFRunReply{fields->record<WFRun>("run"_L1)};
}

std::optional<WFRunsReply> WFRunsReply::fromJson(const QJsonValue& value)
{
    const std::optional<Lenient::Fields> fields = Lenient::Fields::open(value);
    if (!fields)
        return std::nullopt;
    std::optional<QList<WFRun>> runs = fields->records<WFRun>("runs"_L1);
    if (!runs)
        return std::nullopt;
    return WFRunsReply{std::move(*runs), fields->integer("total"_L1), fields->integer("skipped"_L1)};
}

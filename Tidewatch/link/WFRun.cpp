#include "link/WFRun.h"

#include <utility>

using namespace Qt::StringLiterals;

namespace {

// The two keys a run and each of its steps can't be read without.
std::optional<std::pair<QString, QString>> idAndState(const std::optional<Lenient::Fields>& fields)
{
    if (!fields)
        return std::nullopt;
    std::optional<QString> id = fields->string("id"_L1);
    std::optional<QString> state = fields->string("state"_L1);
    if (!id || !state)
        return std::nullopt;
    return std::pair{std::move(*id), std::move(*state)};
}

} // namespace

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

std::optional<WFRunStep> WFRunStep::fromJson(const QJsonValue& value)
{
    const std::optional<Lenient::Fields> fields = Lenient::Fields::open(value);
    std::optional<std::pair<QString, QString>> named = idAndState(fields);
    if (!named)
        return std::nullopt;
    return WFRunStep{std::move(named->first), fields->string("kind"_L1), std::move(named->second),
        fields->record<WFAnswer>("answer"_L1)};
}

std::optional<WFRun> WFRun::fromJson(const QJsonValue& value)
{
    const std::optional<Lenient::Fields> fields = Lenient::Fields::open(value);
    std::optional<std::pair<QString, QString>> named = idAndState(fields);
    if (!named)
        return std::nullopt;
    WFRun run;
    run.id = std::move(named->first);
    run.automationId = fields->string("automationId"_L1);
    run.state = std::move(named->second);
    run.sessionIds = fields->strings("sessionIds"_L1);
    run.steps = fields->records<WFRunStep>("steps"_L1).value_or(QList<WFRunStep>());
    return run;
}

std::optional<WFRunReply> WFRunReply::fromJson(const QJsonValue& value)
{
    const std::optional<Lenient::Fields> fields = Lenient::Fields::open(value);
    if (!fields)
        return std::nullopt;
    return WFRunReply{fields->record<WFRun>("run"_L1)};
}

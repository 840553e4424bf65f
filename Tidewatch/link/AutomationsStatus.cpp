#include "link/AutomationsStatus.h"

using namespace Qt::StringLiterals;

std::optional<AutomationsStatus::Next> AutomationsStatus::Next::fromJson(const QJsonValue& value)
{
    const std::optional<Lenient::Fields> fields = Lenient::Fields::open(value);
    if (!fields)
        return std::nullopt;
    Next next;
    next.id = fields->string("id"_L1);
    next.name = fields->string("name"_L1);
    next.at = fields->date("at"_L1);
    return next;
}

std::optional<AutomationsStatus::Run> AutomationsStatus::Run::fromJson(const QJsonValue& value)
{
    const std::optional<Lenient::Fields> fields = Lenient::Fields::open(value);
    if (!fields)
        return std::nullopt;
    Run run;
    run.id = fields->string("id"_L1);
    run.name = fields->string("name"_L1);
    run.sessionId = fields->string("sessionId"_L1);
    run.startedAt = fields->date("startedAt"_L1);
    return run;
}

std::optional<AutomationsStatus> AutomationsStatus::fromJson(const QJsonValue& value)
{
    const std::optional<Lenient::Fields> fields = Lenient::Fields::open(value);
    if (!fields)
        return std::nullopt;
    AutomationsStatus status;
    status.paused = fields->boolean("paused"_L1).value_or(false);
    status.count = fields->integer("count"_L1).value_or(0);
    status.next = fields->record<Next>("next"_L1);
    status.running = fields->records<Run>("running"_L1).value_or(QList<Run>());
    return status;
}

#include "link/AutomationsSnapshot.h"

using namespace Qt::StringLiterals;

std::optional<AutomationsSnapshot::Ask> AutomationsSnapshot::Ask::fromJson(const QJsonValue& value)
{
    const std::optional<Lenient::Fields> fields = Lenient::Fields::open(value);
    if (!fields)
        return std::nullopt;
    Ask ask;
    ask.stepId = fields->string("stepId"_L1);
    ask.question = fields->string("question"_L1);
    ask.answers = fields->strings("answers"_L1);
    ask.defaultAnswer = fields->string("default"_L1);
    ask.until = fields->date("until"_L1);
    return ask;
}

std::optional<AutomationsSnapshot::LastRun> AutomationsSnapshot::LastRun::fromJson(const QJsonValue& value)
{
    const std::optional<Lenient::Fields> fields = Lenient::Fields::open(value);
    if (!fields)
        return std::nullopt;
    LastRun run;
    run.id = fields->string("id"_L1);
    run.state = fields->string("state"_L1);
    run.sessionIds = fields->strings("sessionIds"_L1);
    run.startedAt = fields->date("startedAt"_L1);
    run.ask = fields->record<Ask>("ask"_L1);
    return run;
}

std::optional<AutomationsSnapshot::Item> AutomationsSnapshot::Item::fromJson(const QJsonValue& value)
{
    const std::optional<Lenient::Fields> fields = Lenient::Fields::open(value);
    if (!fields)
        return std::nullopt;
    Item item;
    item.id = fields->string("id"_L1);
    item.name = fields->string("name"_L1);
    item.enabled = fields->boolean("enabled"_L1);
    item.nextAt = fields->date("nextAt"_L1);
    item.lastRun = fields->record<LastRun>("lastRun"_L1);
    return item;
}

std::optional<AutomationsSnapshot> AutomationsSnapshot::fromJson(const QJsonValue& value)
{
    const std::optional<Lenient::Fields> fields = Lenient::Fields::open(value);
    if (!fields)
        return std::nullopt;
    AutomationsSnapshot snapshot;
    snapshot.paused = fields->boolean("paused"_L1).value_or(false);
    snapshot.list = fields->records<Item>("list"_L1).value_or(QList<Item>());
    snapshot.features = fields->strings("features"_L1);
    return snapshot;
}

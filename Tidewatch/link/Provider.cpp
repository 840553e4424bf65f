#include "link/Provider.h"

using namespace Qt::StringLiterals;

std::optional<ProviderModels> ProviderModels::fromJson(const QJsonValue& value)
{
    const std::optional<Lenient::Fields> fields = Lenient::Fields::open(value);
    if (!fields)
        return std::nullopt;
    ProviderModels models;
    models.defaultModel = fields->string("default"_L1);
    models.opus = fields->string("opus"_L1);
    models.sonnet = fields->string("sonnet"_L1);
    models.haiku = fields->string("haiku"_L1);
    return models;
}

std::optional<ProviderStatus> ProviderStatus::fromJson(const QJsonValue& value)
{
    const std::optional<Lenient::Fields> fields = Lenient::Fields::open(value);
    if (!fields)
        return std::nullopt;
    ProviderStatus status;
    status.state = fields->string("state"_L1);
    status.text = fields->string("text"_L1);
    status.since = fields->date("since"_L1);
    status.resetsAt = fields->date("resetsAt"_L1);
    status.budget = fields->boolean("budget"_L1);
    return status;
}

std::optional<ProviderBalance> ProviderBalance::fromJson(const QJsonValue& value)
{
    const std::optional<Lenient::Fields> fields = Lenient::Fields::open(value);
    if (!fields)
        return std::nullopt;
    ProviderBalance balance;
    balance.remaining = fields->number("remaining"_L1);
    balance.usedToday = fields->number("usedToday"_L1);
    balance.freeLeft = fields->integer("freeLeft"_L1);
    balance.freeLimit = fields->integer("freeLimit"_L1);
    balance.checkedAt = fields->date("checkedAt"_L1);
    balance.error = fields->string("error"_L1);
    return balance;
}

std::optional<Provider> Provider::fromJson(const QJsonValue& value)
{
    const std::optional<Lenient::Fields> fields = Lenient::Fields::open(value);
    if (!fields)
        return std::nullopt;
    std::optional<QString> id = fields->string("id"_L1);
    std::optional<QString> name = fields->string("name"_L1);
    std::optional<QString> kind = fields->string("kind"_L1);
    if (!id || !name || !kind)
        return std::nullopt;
    Provider provider;
    provider.id = std::move(*id);
    provider.name = std::move(*name);
    provider.kind = std::move(*kind);
    provider.baseUrl = fields->string("baseUrl"_L1);
    provider.hasKey = fields->boolean("hasKey"_L1);
    provider.models = fields->record<ProviderModels>("models"_L1);
    provider.builtIn = fields->boolean("builtIn"_L1);
    provider.status = fields->record<ProviderStatus>("status"_L1);
    provider.balance = fields->record<ProviderBalance>("balance"_L1);
    return provider;
}

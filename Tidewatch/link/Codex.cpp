#include "link/Codex.h"

using namespace Qt::StringLiterals;

namespace {

std::optional<UsageWindow> codexWindow(const Lenient::Fields& fields, QLatin1StringView key)
{
    std::optional<UsageWindow> window = fields.record<UsageWindow>(key);
    // Codex reports "no reset" as 0.
    if (window && window->resetsAt && window->resetsAt->msecsSinceEpoch == 0)
        window->resetsAt.reset();
    return window;
}

} // namespace

std::optional<Codex::Account> Codex::Account::fromJson(const QJsonValue& value)
{
    const std::optional<Lenient::Fields> fields = Lenient::Fields::open(value);
    if (!fields)
        return std::nullopt;
    Account account;
    account.signedIn = fields->boolean("signedIn"_L1);
    account.type = fields->string("type"_L1);
    account.planType = fields->string("planType"_L1);
    return account;
}

std::optional<Codex::Limits> Codex::Limits::fromJson(const QJsonValue& value)
{
    const std::optional<Lenient::Fields> fields = Lenient::Fields::open(value);
    if (!fields)
        return std::nullopt;
    Limits limits;
    limits.fiveHour = codexWindow(*fields, "fiveHour"_L1);
    limits.sevenDay = codexWindow(*fields, "sevenDay"_L1);
    limits.limited = fields->boolean("limited"_L1).value_or(false);
    limits.observedAt = fields->date("observedAt"_L1);
    return limits;
}

std::optional<Codex> Codex::fromJson(const QJsonValue& value)
{
    const std::optional<Lenient::Fields> fields = Lenient::Fields::open(value);
    if (!fields)
        return std::nullopt;
    Codex codex;
    codex.available = fields->boolean("available"_L1).value_or(false);
    codex.enabled = fields->boolean("enabled"_L1).value_or(false);
    codex.connected = fields->boolean("connected"_L1).value_or(false);
    codex.version = fields->string("version"_L1);
    codex.min = fields->string("min"_L1);
    codex.path = fields->string("path"_L1);
    codex.problem = fields->string("problem"_L1);
    codex.account = fields->record<Account>("account"_L1);
    codex.usage = fields->record<Limits>("usage"_L1);
    return codex;
}

#include "link/Account.h"

using namespace Qt::StringLiterals;

std::optional<Account::Limit> Account::Limit::fromJson(const QJsonValue& value)
{
    const std::optional<Lenient::Fields> fields = Lenient::Fields::open(value);
    if (!fields)
        return std::nullopt;
    Limit limit;
    limit.window = fields->string("window"_L1);
    limit.label = fields->string("label"_L1);
    limit.resetsAt = fields->date("resetsAt"_L1);
    limit.autoResumeAt = fields->date("autoResumeAt"_L1);
    limit.usingCredits = fields->boolean("usingCredits"_L1);
    return limit;
}

std::optional<Account::Login> Account::Login::fromJson(const QJsonValue& value)
{
    const std::optional<Lenient::Fields> fields = Lenient::Fields::open(value);
    if (!fields)
        return std::nullopt;
    Login login;
    login.state = fields->string("state"_L1);
    login.url = fields->string("url"_L1);
    login.where = fields->string("where"_L1);
    login.error = fields->string("error"_L1);
    return login;
}

std::optional<Account> Account::fromJson(const QJsonValue& value)
{
    if (value.isUndefined() || value.isNull())
        return std::nullopt;
    Account account;
    const std::optional<Lenient::Fields> fields = Lenient::Fields::open(value);
    // A shape this app doesn't know yet still says there is an account.
    if (!fields)
        return account;
    // An empty word says no more about the account than no word at all.
    if (std::optional<QString> state = fields->string("state"_L1); state && !state->isEmpty())
        account.state = std::move(*state);
    account.plan = fields->string("plan"_L1);
    account.limit = fields->record<Limit>("limit"_L1);
    account.reason = fields->string("reason"_L1);
    account.text = fields->string("text"_L1);
    account.since = fields->date("since"_L1);
    account.login = fields->record<Login>("login"_L1);
    return account;
}

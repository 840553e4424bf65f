#include "link/ActionReplies.h"

#include "link/Lenient.h"

std::optional<AccountReply> AccountReply::fromJson(const QJsonValue& value)
{
    const std::optional<Lenient::Fields> fields = Lenient::Fields::open(value);
    if (!fields)
        return std::nullopt;
    return AccountReply{fields->record<Account>(QLatin1StringView("account"))};
}

std::optional<UsageReply> UsageReply::fromJson(const QJsonValue& value)
{
    const std::optional<Lenient::Fields> fields = Lenient::Fields::open(value);
    if (!fields)
        return std::nullopt;
    return UsageReply{fields->record<Usage>(QLatin1StringView("usage"))};
}

std::optional<CodexReply> CodexReply::fromJson(const QJsonValue& value)
{
    const std::optional<Lenient::Fields> fields = Lenient::Fields::open(value);
    if (!fields)
        return std::nullopt;
    return CodexReply{fields->has(QLatin1StringView("codex")), fields->record<Codex>(QLatin1StringView("codex"))};
}

std::optional<OpenedReply> OpenedReply::fromJson(const QJsonValue& value)
{
    const std::optional<Lenient::Fields> fields = Lenient::Fields::open(value);
    if (!fields)
        return std::nullopt;
    return OpenedReply{fields->string(QLatin1StringView("app")), fields->boolean(QLatin1StringView("already"))};
}

std::optional<AwakeReply> AwakeReply::fromJson(const QJsonValue& value)
{
    const std::optional<Lenient::Fields> fields = Lenient::Fields::open(value);
    if (!fields)
        return std::nullopt;
    return AwakeReply{fields->record<Awake>(QLatin1StringView("awake"))};
}

std::optional<PausedReply> PausedReply::fromJson(const QJsonValue& value)
{
    const std::optional<Lenient::Fields> fields = Lenient::Fields::open(value);
    if (!fields)
        return std::nullopt;
    return PausedReply{fields->boolean(QLatin1StringView("paused"))};
}

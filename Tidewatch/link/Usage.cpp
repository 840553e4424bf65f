#include "link/Usage.h"

using namespace Qt::StringLiterals;

std::optional<UsageWindow> UsageWindow::fromJson(const QJsonValue& value)
{
    const std::optional<Lenient::Fields> fields = Lenient::Fields::open(value);
    if (!fields)
        return std::nullopt;
    const std::optional<double> pct = fields->number("pct"_L1);
    if (!pct)
        return std::nullopt;
    UsageWindow window;
    window.pct = *pct;
    window.resetsAt = fields->date("resetsAt"_L1);
    return window;
}

std::optional<ModelWindow> ModelWindow::fromJson(const QJsonValue& value)
{
    const std::optional<Lenient::Fields> fields = Lenient::Fields::open(value);
    if (!fields)
        return std::nullopt;
    std::optional<QString> label = fields->string("label"_L1);
    const std::optional<double> pct = fields->number("pct"_L1);
    if (!label || !pct)
        return std::nullopt;
    ModelWindow window;
    window.label = std::move(*label);
    window.pct = *pct;
    window.resetsAt = fields->date("resetsAt"_L1);
    return window;
}

std::optional<UsageRate> UsageRate::fromJson(const QJsonValue& value)
{
    const std::optional<Lenient::Fields> fields = Lenient::Fields::open(value);
    if (!fields)
        return std::nullopt;
    UsageRate rate;
    rate.fiveHour = fields->number("fiveHour"_L1);
    rate.sevenDay = fields->number("sevenDay"_L1);
    rate.fiveHourEtaMs = fields->number("fiveHourEtaMs"_L1);
    rate.sevenDayEtaMs = fields->number("sevenDayEtaMs"_L1);
    rate.fiveHourLimitAt = fields->date("fiveHourLimitAt"_L1);
    rate.sevenDayLimitAt = fields->date("sevenDayLimitAt"_L1);
    return rate;
}

std::optional<Usage::Probe> Usage::Probe::fromJson(const QJsonValue& value)
{
    const std::optional<Lenient::Fields> fields = Lenient::Fields::open(value);
    if (!fields)
        return std::nullopt;
    Probe probe;
    probe.ok = fields->boolean("ok"_L1);
    probe.since = fields->date("since"_L1);
    return probe;
}

std::optional<Usage> Usage::fromJson(const QJsonValue& value)
{
    const std::optional<Lenient::Fields> fields = Lenient::Fields::open(value);
    if (!fields)
        return std::nullopt;
    Usage usage;
    usage.fiveHour = fields->record<UsageWindow>("fiveHour"_L1);
    usage.sevenDay = fields->record<UsageWindow>("sevenDay"_L1);
    usage.models = fields->records<ModelWindow>("models"_L1);
    usage.rate = fields->record<UsageRate>("rate"_L1);
    usage.source = fields->string("source"_L1);
    usage.observedAt = fields->date("observedAt"_L1);
    usage.modelsStale = fields->boolean("modelsStale"_L1);
    usage.probe = fields->record<Probe>("probe"_L1);
    return usage;
}

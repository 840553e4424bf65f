#include "surface/words/UsageWords.h"

#include "text/TimeWords.h"

#include <tuple>
#include <utility>

using namespace Qt::StringLiterals;

namespace UsageWords {

namespace {

bool isApiKey(const Codex& codex)
{
    return codex.account && codex.account->type == u"apiKey"_s;
}

bool limited(const Codex& codex)
{
    return codex.usage && codex.usage->limited;
}

/// What stale numbers are called, by the account's state: the heading's note and the line.
std::pair<QString, QString> staleWords(const Account* account)
{
    static const QList<std::tuple<QString, QString, QString>> words{
        {u"logged_out"_s, u"while signed out"_s, u"Not measured while signed out."_s},
        {u"no_subscription"_s, u"without a plan"_s, u"Not measured without a plan."_s},
        {u"on_hold"_s, u"while on hold"_s, u"Not measured while the account is on hold."_s},
    };
    const QString state = account ? account->state : QString();
    for (const auto& [named, note, line] : words) {
        if (named == state)
            return {note, line};
    }
    return {u"not measured"_s, u"Not measured right now."_s};
}

} // namespace

QString heading()
{
    return u"Usage"_s;
}

QList<Meter> claudeMeters(const std::optional<Usage>& usage, const QDateTime& now, bool brand)
{
    QList<Meter> meters;
    if (!usage)
        return meters;
    const std::optional<QString> chip = brand ? std::optional<QString>(u"Claude"_s) : std::nullopt;
    if (usage->fiveHour || usage->sevenDay) {
        const std::optional<UsageRate>& rate = usage->rate;
        MeterReading five
            = MeterReading::read(brand ? u"Claude 5-hour window"_s : u"5-hour window"_s, usage->fiveHour, now, false);
        if (rate)
            five.applyPace({rate->fiveHour, rate->fiveHourEtaMs, rate->fiveHourLimitAt, usage->observedAt}, now);
        MeterReading week
            = MeterReading::read(brand ? u"Claude weekly window"_s : u"Weekly window"_s, usage->sevenDay, now, false);
        if (rate)
            week.applyPace({rate->sevenDay, rate->sevenDayEtaMs, rate->sevenDayLimitAt, usage->observedAt}, now);
        meters.append({u"5 hours"_s, chip, five});
        meters.append({u"7 days"_s, chip, week});
    }
    if (usage->models) {
        for (const ModelWindow& model : *usage->models) {
            const UsageWindow window{model.pct, model.resetsAt};
            meters.append({u"7 days"_s, model.label, MeterReading::read(model.label + u" week"_s, window, now, true)});
        }
    }
    return meters;
}

QList<Meter> codexMeters(const Codex& codex, const QDateTime& now, bool brand)
{
    QList<Meter> meters;
    if (!codex.usage)
        return meters;
    const std::optional<QString> chip = brand ? std::optional<QString>(u"Codex"_s) : std::nullopt;
    if (codex.usage->fiveHour) {
        meters.append(
            {u"5 hours"_s, chip, MeterReading::read(u"Codex 5-hour window"_s, codex.usage->fiveHour, now, false)});
    }
    if (codex.usage->sevenDay) {
        meters.append(
            {u"7 days"_s, chip, MeterReading::read(u"Codex weekly window"_s, codex.usage->sevenDay, now, false)});
    }
    return meters;
}

std::optional<QString> claudeNote(const Usage& usage, const Account* account)
{
    if (usage.source == u"stale"_s)
        return staleWords(account).first;
    if (!usage.fiveHour && !usage.sevenDay)
        return u"waiting for numbers"_s;
    return std::nullopt;
}

std::optional<QString> codexAloneNote(const Codex& codex, bool cardTitle, const QDateTime& now)
{
    if (cardTitle)
        return std::nullopt;
    if (isApiKey(codex))
        return u"billed per use"_s;
    if (codexMeters(codex, now, false).isEmpty() && !limited(codex))
        return u"waiting for numbers"_s;
    return std::nullopt;
}

std::optional<QString> staleLine(const Usage& usage, const Account* account)
{
    if (usage.source != u"stale"_s)
        return std::nullopt;
    return staleWords(account).second;
}

std::optional<QString> claudeWaitingLine(const Usage& usage)
{
    if (usage.fiveHour || usage.sevenDay)
        return std::nullopt;
    return u"Waiting for the first numbers from Claude Code."_s;
}

std::optional<QString> probeLine(const Usage& usage, const QDateTime& now, const QLocale& locale)
{
    if (!usage.probe || usage.probe->ok != false || !usage.models || usage.models->isEmpty())
        return std::nullopt;
    const QString when = usage.probe->since ? TimeWords::timeOfDay(*usage.probe->since, now, locale) : u"a while"_s;
    return u"Per-model weeks not read since %1."_s.arg(when);
}

std::optional<QString> codexLeadLine(const Codex& codex, bool lead, const QDateTime& now)
{
    if (!lead || !codexMeters(codex, now, false).isEmpty() || limited(codex))
        return std::nullopt;
    if (isApiKey(codex))
        return u"Codex is on an API key: no windows, each turn is billed to it."_s;
    return u"Waiting for the first numbers from Codex."_s;
}

std::optional<QString> codexLimitedLine(const Codex& codex, const QList<Meter>& meters)
{
    if (!limited(codex))
        return std::nullopt;
    for (const Meter& meter : meters) {
        if (meter.reading.used && *meter.reading.used >= 100)
            return std::nullopt;
    }
    return u"Codex reached its limit"_s;
}

} // namespace UsageWords

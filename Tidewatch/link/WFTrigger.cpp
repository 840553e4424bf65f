#include "link/WFTrigger.h"

#include <QtGlobal>

#include <cmath>
#include <limits>

using namespace Qt::StringLiterals;

std::optional<WFAt> WFAt::fromJson(const QJsonValue& value)
{
    if (std::optional<QString> clock = Lenient::string(value))
        return WFAt{std::move(*clock)};
    if (std::optional<double> moment = Lenient::number(value))
        return WFAt{*moment};
    return std::nullopt;
}

void WFAt::write(JsonWriter& out) const
{
    if (const QString* text = clock()) {
        out.string(*text);
        return;
    }
    const double moment = std::trunc(std::get<double>(value));
    // 2^63 itself is the first double that doesn't fit.
    if (!std::isfinite(moment) || moment < -9.2233720368547758e18 || moment >= 9.2233720368547758e18)
        qFatal("A trigger's instant is not a whole number of milliseconds: %f", std::get<double>(value));
    out.integer(qint64(moment));
}

std::optional<WFTrigger> WFTrigger::fromJson(const QJsonValue& value)
{
    const std::optional<Lenient::Fields> fields = Lenient::Fields::open(value);
    if (!fields)
        return std::nullopt;
    std::optional<QString> kind = fields->string("kind"_L1);
    if (!kind)
        return std::nullopt;
    WFTrigger trigger;
    trigger.kind = std::move(*kind);
    trigger.at = fields->record<WFAt>("at"_L1);
    trigger.days = fields->integers("days"_L1);
    trigger.hours = fields->integer("hours"_L1);
    trigger.from = fields->string("from"_L1);
    trigger.to = fields->string("to"_L1);
    trigger.window = fields->string("window"_L1);
    trigger.afterLimit = fields->boolean("afterLimit"_L1);
    trigger.event = fields->string("event"_L1);
    trigger.projectPath = fields->string("projectPath"_L1);
    trigger.below = fields->integer("below"_L1);
    trigger.expr = fields->string("expr"_L1);
    trigger.path = fields->string("path"_L1);
    trigger.glob = fields->string("glob"_L1);
    trigger.repoPath = fields->string("repoPath"_L1);
    trigger.events = fields->strings("events"_L1);
    trigger.every = fields->integer("every"_L1);
    trigger.tool = fields->string("tool"_L1);
    trigger.last4 = fields->string("last4"_L1);
    trigger.createdAt = fields->date("createdAt"_L1);
    trigger.url = fields->string("url"_L1);
    trigger.command = fields->string("command"_L1);
    return trigger;
}

void WFTrigger::write(JsonWriter& out) const
{
    out.beginObject().key("kind"_L1).string(kind);
    if (kind == u"time"_s || kind == u"once"_s) {
        if (at)
            at->write(out.key("at"_L1));
        if (kind == u"time"_s)
            out.field("days"_L1, days);
    } else if (kind == u"every"_s) {
        out.field("hours"_L1, hours).field("from"_L1, from).fieldOrNull("to"_L1, to).field("days"_L1, days);
    } else if (kind == u"reset"_s) {
        out.field("window"_L1, window)
            .field("afterLimit"_L1, afterLimit)
            .fieldOrNull("from"_L1, from)
            .fieldOrNull("to"_L1, to);
    } else if (kind == u"limit"_s) {
        out.field("window"_L1, window);
    } else if (kind == u"session"_s) {
        out.field("event"_L1, event).fieldOrNull("projectPath"_L1, projectPath).field("from"_L1, from);
    } else if (kind == u"power"_s) {
        out.field("event"_L1, event).field("below"_L1, below);
    } else if (kind == u"cron"_s) {
        out.field("expr"_L1, expr);
    } else if (kind == u"file"_s) {
        out.field("path"_L1, path).fieldOrNull("glob"_L1, glob).field("event"_L1, event);
    } else if (kind == u"github"_s) {
        out.field("repoPath"_L1, repoPath).field("events"_L1, events).field("every"_L1, every);
    } else if (kind == u"hook"_s) {
        out.field("event"_L1, event)
            .fieldOrNull("tool"_L1, tool)
            .fieldOrNull("projectPath"_L1, projectPath)
            .field("from"_L1, from);
    }
    // A webhook's token and address are the service's, and a kind unknown
    // here has no fields this app may send: both go as their kind alone.
    out.endObject();
}

#include "link/WFAutomation.h"

using namespace Qt::StringLiterals;

namespace {

// A list whose every element must read; a missing list is none, and a list
// that isn't one or holds an unreadable element fails `ok`.
template <class T> std::optional<QList<T>> whole(const Lenient::Fields& fields, QLatin1StringView key, bool& ok)
{
    const QJsonValue value = fields.value(key);
    if (value.isUndefined() || value.isNull())
        return std::nullopt;
    if (!value.isArray()) {
        ok = false;
        return std::nullopt;
    }
    const QJsonArray array = value.toArray();
    QList<T> items;
    items.reserve(Lenient::reserveFor(array.size()));
    for (const QJsonValue element : array) {
        std::optional<T> item = T::fromJson(element);
        if (!item) {
            ok = false;
            return std::nullopt;
        }
        items.append(std::move(*item));
    }
    return items;
}

} // namespace

std::optional<WFBudget> WFBudget::fromJson(const QJsonValue& value)
{
    const std::optional<Lenient::Fields> fields = Lenient::Fields::open(value);
    if (!fields)
        return std::nullopt;
    return WFBudget{fields->integer("minutes"_L1), fields->integer("windowPct"_L1)};
}

void WFBudget::write(JsonWriter& out) const
{
    out.beginObject().fieldOrNull("minutes"_L1, minutes).fieldOrNull("windowPct"_L1, windowPct).endObject();
}

std::optional<WFAutomation> WFAutomation::fromJson(const QJsonValue& value)
{
    const std::optional<Lenient::Fields> fields = Lenient::Fields::open(value);
    if (!fields)
        return std::nullopt;
    std::optional<QString> id = fields->string("id"_L1);
    std::optional<QString> name = fields->string("name"_L1);
    std::optional<WFTrigger> trigger = fields->record<WFTrigger>("trigger"_L1);
    if (!id || !name || !trigger)
        return std::nullopt;
    bool ok = true;
    WFAutomation automation;
    automation.steps = whole<WFStep>(*fields, "steps"_L1, ok);
    automation.outputs = whole<WFOutput>(*fields, "outputs"_L1, ok);
    if (!ok)
        return std::nullopt;
    automation.id = std::move(*id);
    automation.name = std::move(*name);
    automation.enabled = fields->boolean("enabled"_L1);
    automation.onlyOnce = fields->boolean("onlyOnce"_L1);
    automation.trigger = std::move(*trigger);
    automation.budget = fields->record<WFBudget>("budget"_L1);
    automation.templateName = fields->string("template"_L1);
    automation.nextAt = fields->date("nextAt"_L1);
    automation.lastRun = fields->record<WFRun>("lastRun"_L1);
    automation.runCount = fields->integer("runCount"_L1);
    automation.paid = fields->boolean("paid"_L1);
    automation.problem = fields->string("problem"_L1);
    return automation;
}

std::optional<WFListReply> WFListReply::fromJson(const QJsonValue& value)
{
    const std::optional<Lenient::Fields> fields = Lenient::Fields::open(value);
    if (!fields)
        return std::nullopt;
    std::optional<QList<WFAutomation>> automations = fields->records<WFAutomation>("automations"_L1);
    if (!automations)
        return std::nullopt;
    return WFListReply{std::move(*automations), fields->boolean("paused"_L1), fields->strings("features"_L1)};
}

std::optional<WFSaved> WFSaved::fromJson(const QJsonValue& value)
{
    const std::optional<Lenient::Fields> fields = Lenient::Fields::open(value);
    if (!fields)
        return std::nullopt;
    return WFSaved{fields->record<WFAutomation>("automation"_L1), fields->string("token"_L1)};
}

std::optional<WFCheckReply> WFCheckReply::fromJson(const QJsonValue& value)
{
    const std::optional<Lenient::Fields> fields = Lenient::Fields::open(value);
    if (!fields)
        return std::nullopt;
    WFCheckReply reply;
    for (const QJsonValue time : fields->value("next"_L1).toArray()) {
        if (std::optional<double> ms = Lenient::number(time))
            reply.next.append(FlexDate::fromMSecsSinceEpoch(qint64(*ms)));
    }
    return reply;
}

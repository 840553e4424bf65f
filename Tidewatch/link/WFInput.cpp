#include "link/WFInput.h"

using namespace Qt::StringLiterals;

QByteArray WFInput::toJson() const
{
    JsonWriter out;
    out.beginObject().key("name"_L1).string(name);
    out.key("enabled"_L1).boolean(enabled).key("onlyOnce"_L1).boolean(onlyOnce);
    trigger.write(out.key("trigger"_L1));
    out.key("steps"_L1).beginArray();
    for (const WFStep& step : steps)
        step.write(out);
    out.endArray().key("outputs"_L1).beginArray();
    for (const WFOutput& output : outputs)
        output.write(out);
    out.endArray().key("budget"_L1);
    if (budget)
        budget->write(out);
    else
        out.null();
    out.field("template"_L1, templateName);
    const auto agreed = [](bool yes) { return yes ? std::optional<bool>(true) : std::nullopt; };
    out.field("confirmShell"_L1, agreed(confirmShell))
        .field("confirmBypass"_L1, agreed(confirmBypass))
        .field("confirmPaid"_L1, agreed(confirmPaid));
    return out.endObject().text();
}

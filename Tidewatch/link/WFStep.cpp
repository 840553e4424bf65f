#include "link/WFStep.h"

using namespace Qt::StringLiterals;

std::optional<WFGuard> WFGuard::fromJson(const QJsonValue& value)
{
    const std::optional<Lenient::Fields> fields = Lenient::Fields::open(value);
    if (!fields)
        return std::nullopt;
    std::optional<QString> on = fields->string("on"_L1);
    if (!on)
        return std::nullopt;
    return WFGuard{std::move(*on), fields->string("text"_L1)};
}

void WFGuard::write(JsonWriter& out) const
{
    out.beginObject().key("on"_L1).string(on).field("text"_L1, text).endObject();
}

std::optional<WFStep> WFStep::fromJson(const QJsonValue& value)
{
    const std::optional<Lenient::Fields> fields = Lenient::Fields::open(value);
    if (!fields)
        return std::nullopt;
    std::optional<std::pair<QString, QString>> named = fields->stringPair("id"_L1, "kind"_L1);
    if (!named)
        return std::nullopt;
    WFStep step;
    step.id = std::move(named->first);
    step.kind = std::move(named->second);
    step.guard = fields->record<WFGuard>("if"_L1);
    step.projectPath = fields->string("projectPath"_L1);
    step.prompt = fields->string("prompt"_L1);
    step.providerId = fields->string("providerId"_L1);
    step.model = fields->string("model"_L1);
    step.permissionMode = fields->string("permissionMode"_L1);
    step.allowedTools = fields->strings("allowedTools"_L1);
    step.target = fields->string("target"_L1);
    step.question = fields->string("question"_L1);
    step.answers = fields->strings("answers"_L1);
    step.defaultAnswer = fields->string("default"_L1);
    step.timeoutMin = fields->integer("timeoutMin"_L1);
    step.command = fields->string("command"_L1);
    step.timeoutSec = fields->integer("timeoutSec"_L1);
    step.text = fields->string("text"_L1);
    step.glasses = fields->boolean("glasses"_L1);
    return step;
}

void WFStep::write(JsonWriter& out) const
{
    out.beginObject().key("id"_L1).string(id).key("kind"_L1).string(kind).key("if"_L1);
    if (guard)
        guard->write(out);
    else
        out.null();
    if (kind == u"start"_s) {
        out.field("projectPath"_L1, projectPath)
            .field("prompt"_L1, prompt)
            .field("providerId"_L1, providerId)
            .fieldOrNull("model"_L1, model)
            .field("permissionMode"_L1, permissionMode)
            .field("allowedTools"_L1, allowedTools);
    } else if (kind == u"continue"_s) {
        out.field("target"_L1, target).field("prompt"_L1, prompt).fieldOrNull("providerId"_L1, providerId);
    } else if (kind == u"ask"_s) {
        out.field("question"_L1, question)
            .field("answers"_L1, answers)
            .field("default"_L1, defaultAnswer)
            .field("timeoutMin"_L1, timeoutMin);
    } else if (kind == u"shell"_s) {
        out.field("projectPath"_L1, projectPath).field("command"_L1, command).field("timeoutSec"_L1, timeoutSec);
    } else {
        out.field("text"_L1, text).field("glasses"_L1, glasses);
    }
    out.endObject();
}

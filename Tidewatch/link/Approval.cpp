#include "link/Approval.h"

using namespace Qt::StringLiterals;

std::optional<Question::Option> Question::Option::fromJson(const QJsonValue& value)
{
    const std::optional<Lenient::Fields> fields = Lenient::Fields::open(value);
    if (!fields)
        return std::nullopt;
    Option option;
    option.label = fields->string("label"_L1);
    option.description = fields->string("description"_L1);
    return option;
}

std::optional<Question> Question::fromJson(const QJsonValue& value)
{
    const std::optional<Lenient::Fields> fields = Lenient::Fields::open(value);
    if (!fields)
        return std::nullopt;
    Question question;
    question.question = fields->string("question"_L1);
    question.header = fields->string("header"_L1);
    question.multiSelect = fields->boolean("multiSelect"_L1);
    question.options = fields->records<Option>("options"_L1);
    return question;
}

std::optional<Approval> Approval::fromJson(const QJsonValue& value)
{
    const std::optional<Lenient::Fields> fields = Lenient::Fields::open(value);
    if (!fields)
        return std::nullopt;
    std::optional<QString> id = fields->string("id"_L1);
    if (!id)
        return std::nullopt;
    Approval approval;
    approval.id = std::move(*id);
    approval.sessionId = fields->string("sessionId"_L1);
    approval.createdAt = fields->date("createdAt"_L1);
    approval.expiresAt = fields->date("expiresAt"_L1);
    approval.kind = fields->string("kind"_L1);
    approval.toolName = fields->string("toolName"_L1);
    approval.summary = fields->string("summary"_L1);
    approval.input = fields->json("input"_L1);
    approval.reason = fields->string("reason"_L1);
    approval.canAlways = fields->boolean("canAlways"_L1);
    approval.canSession = fields->boolean("canSession"_L1);
    approval.questions = fields->records<Question>("questions"_L1);
    approval.plan = fields->string("plan"_L1);
    return approval;
}

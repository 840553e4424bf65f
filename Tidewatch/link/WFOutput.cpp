#include "link/WFOutput.h"

using namespace Qt::StringLiterals;

namespace {

// Only a secret that was typed in this edit holds something; an empty one
// lets the service keep the one it has.
std::optional<QString> typed(const std::optional<QString>& secret)
{
    return secret && !secret->isEmpty() ? secret : std::nullopt;
}

} // namespace

std::optional<WFOutput> WFOutput::fromJson(const QJsonValue& value)
{
    const std::optional<Lenient::Fields> fields = Lenient::Fields::open(value);
    if (!fields)
        return std::nullopt;
    std::optional<std::pair<QString, QString>> named = fields->stringPair("id"_L1, "kind"_L1);
    if (!named)
        return std::nullopt;
    WFOutput output;
    output.id = std::move(named->first);
    output.kind = std::move(named->second);
    output.text = fields->string("text"_L1);
    output.glasses = fields->boolean("glasses"_L1);
    output.preset = fields->string("preset"_L1);
    output.host = fields->string("host"_L1);
    output.last4 = fields->string("last4"_L1);
    output.path = fields->string("path"_L1);
    output.url = fields->string("url"_L1);
    output.botToken = fields->string("botToken"_L1);
    output.chatId = fields->string("chatId"_L1);
    return output;
}

void WFOutput::write(JsonWriter& out) const
{
    out.beginObject().key("id"_L1).string(id).key("kind"_L1).string(kind);
    out.fieldOrNull("text"_L1, text && !text->isEmpty() ? text : std::nullopt);
    if (kind == u"notify"_s) {
        out.field("glasses"_L1, glasses);
    } else if (kind == u"webhook"_s) {
        out.field("preset"_L1, preset)
            .field("url"_L1, typed(url))
            .field("botToken"_L1, typed(botToken))
            .field("chatId"_L1, typed(chatId));
    } else if (kind == u"file"_s) {
        out.field("path"_L1, path);
    }
    out.endObject();
}

#include "link/FeedMessage.h"

#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>

namespace Feed {

namespace {

template <class T> std::optional<Message> record(const QJsonObject& envelope, QLatin1StringView key)
{
    if (std::optional<T> value = T::fromJson(envelope.value(key)))
        return Message(std::move(*value));
    return std::nullopt;
}

} // namespace

std::optional<Message> readEnvelope(QByteArrayView text)
{
    const QJsonDocument document = QJsonDocument::fromJson(text.toByteArray());
    if (!document.isObject())
        return std::nullopt;
    const QJsonObject envelope = document.object();
    const QJsonValue typeValue = envelope.value(QLatin1StringView("t"));
    if (!typeValue.isString())
        return std::nullopt;
    const QString type = typeValue.toString();

    if (type == QLatin1StringView("snapshot"))
        return record<Snapshot>(envelope, QLatin1StringView("snapshot"));
    if (type == QLatin1StringView("session"))
        return record<Session>(envelope, QLatin1StringView("session"));
    if (type == QLatin1StringView("approval"))
        return record<Approval>(envelope, QLatin1StringView("approval"));
    if (type == QLatin1StringView("approval.resolved")) {
        const QJsonValue id = envelope.value(QLatin1StringView("id"));
        if (!id.isString())
            return std::nullopt;
        return Message(Resolved{id.toString()});
    }
    if (type == QLatin1StringView("usage"))
        return record<Usage>(envelope, QLatin1StringView("usage"));
    if (type == QLatin1StringView("account")) {
        // An account that doesn't read is an account in trouble of an unknown kind, not no news.
        const QJsonValue value = envelope.value(QLatin1StringView("account"));
        if (value.isUndefined())
            return std::nullopt;
        return Message(Account::fromJson(value).value_or(Account{}));
    }
    if (type == QLatin1StringView("battery")) {
        // Present but unreadable hides the battery; absent changes nothing.
        const QJsonValue value = envelope.value(QLatin1StringView("battery"));
        if (value.isUndefined())
            return std::nullopt;
        return Message(BatteryChange{Battery::fromJson(value)});
    }
    if (type == QLatin1StringView("awake"))
        return record<Awake>(envelope, QLatin1StringView("awake"));
    if (type == QLatin1StringView("guide"))
        return record<GuideState>(envelope, QLatin1StringView("guide"));
    if (type == QLatin1StringView("guide.show")) {
        std::optional<GuideState> guide = GuideState::fromJson(envelope.value(QLatin1StringView("guide")));
        if (!guide)
            return std::nullopt;
        const QJsonValue reason = envelope.value(QLatin1StringView("reason"));
        return Message(GuideShow{std::move(*guide), reason.isString() ? reason.toString() : QStringLiteral("phone")});
    }
    if (type == QLatin1StringView("stt"))
        return record<SttState>(envelope, QLatin1StringView("stt"));
    if (type == QLatin1StringView("devices"))
        return Message(DevicesChanged{});
    if (type == QLatin1StringView("providers")) {
        std::optional<QList<Provider>> providers
            = Lenient::records<Provider>(envelope.value(QLatin1StringView("providers")));
        if (!providers)
            return std::nullopt;
        return Message(ProvidersChange{std::move(*providers)});
    }
    if (type == QLatin1StringView("codex")) {
        const QJsonValue value = envelope.value(QLatin1StringView("codex"));
        if (value.isUndefined())
            return std::nullopt;
        return Message(CodexChange{Codex::fromJson(value)});
    }
    // Transcript events, agent records and whatever a newer service adds pass unread.
    return std::nullopt;
}

Frame readFrame(QByteArrayView text)
{
    if (text.startsWith(QByteArrayView(R"({"t":"ping")")))
        return {Frame::Kind::Ping, std::nullopt};
    if (text.startsWith(QByteArrayView(R"({"t":"telescope.window")")))
        return {Frame::Kind::Window, std::nullopt};
    if (text.startsWith(QByteArrayView(R"({"t":"speaking")")) || text.startsWith(QByteArrayView(R"({"t":"speech")")))
        return {Frame::Kind::Speech, std::nullopt};
    return {Frame::Kind::Message, readEnvelope(text)};
}

} // namespace Feed

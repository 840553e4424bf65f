#pragma once

#include "link/JsonWriter.h"
#include "link/Lenient.h"

#include <QString>

#include <optional>

/// A place an automation tells what came of a run. A webhook's secrets go one
/// way: `url`, `botToken` and `chatId` are sent when typed, and the service
/// shows them back only as `host` and `last4`, which are never sent.
struct WFOutput {
    QString id;
    /// "notify", "say", "webhook", "file", or a kind unknown here.
    QString kind;
    std::optional<QString> text;
    std::optional<bool> glasses;
    /// "ntfy", "slack", "discord", "telegram" or "post"; none is a plain web address.
    std::optional<QString> preset;
    std::optional<QString> host;
    std::optional<QString> last4;
    std::optional<QString> path;
    std::optional<QString> url;
    std::optional<QString> botToken;
    std::optional<QString> chatId;

    /// None without an id or a kind.
    static std::optional<WFOutput> fromJson(const QJsonValue& value);
    void write(JsonWriter& out) const;
    bool operator==(const WFOutput&) const = default;
};

#pragma once

#include "link/Lenient.h"

#include <QString>

#include <optional>

/// The model name a provider uses for each role.
struct ProviderModels {
    /// The wire key is "default".
    std::optional<QString> defaultModel;
    std::optional<QString> opus;
    std::optional<QString> sonnet;
    std::optional<QString> haiku;

    static std::optional<ProviderModels> fromJson(const QJsonValue& value);
    bool operator==(const ProviderModels&) const = default;
};

struct ProviderStatus {
    /// "ok", "limited", "no_credit", "bad_key", "down", or a newer word.
    std::optional<QString> state;
    std::optional<QString> text;
    std::optional<FlexDate> since;
    std::optional<FlexDate> resetsAt;
    /// The limit is a budget on the key.
    std::optional<bool> budget;

    static std::optional<ProviderStatus> fromJson(const QJsonValue& value);
    bool operator==(const ProviderStatus&) const = default;
};

struct ProviderBalance {
    std::optional<double> remaining;
    std::optional<double> usedToday;
    std::optional<qint64> freeLeft;
    std::optional<qint64> freeLimit;
    std::optional<FlexDate> checkedAt;
    std::optional<QString> error;

    static std::optional<ProviderBalance> fromJson(const QJsonValue& value);
    bool operator==(const ProviderBalance&) const = default;
};

/// A model provider for Claude Code.
struct Provider {
    QString id;
    QString name;
    /// "anthropic", "openrouter", or a newer word.
    QString kind;
    std::optional<QString> baseUrl;
    std::optional<bool> hasKey;
    std::optional<ProviderModels> models;
    std::optional<bool> builtIn;
    std::optional<ProviderStatus> status;
    std::optional<ProviderBalance> balance;

    /// None without string `id`, `name` and `kind`.
    static std::optional<Provider> fromJson(const QJsonValue& value);
    bool operator==(const Provider&) const = default;
};

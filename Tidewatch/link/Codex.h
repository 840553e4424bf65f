#pragma once

#include "link/Lenient.h"
#include "link/Usage.h"

#include <QString>

#include <optional>

/// Codex as the service sees it.
struct Codex {
    struct Account {
        std::optional<bool> signedIn;
        /// "chatgpt" and others.
        std::optional<QString> type;
        std::optional<QString> planType;

        static std::optional<Account> fromJson(const QJsonValue& value);
        bool operator==(const Account&) const = default;
    };

    /// Codex's usage windows. A window's reset at the moment 0 is read as no
    /// reset, never as a moment in 1970.
    struct Limits {
        std::optional<UsageWindow> fiveHour;
        std::optional<UsageWindow> sevenDay;
        bool limited = false;
        std::optional<FlexDate> observedAt;

        static std::optional<Limits> fromJson(const QJsonValue& value);
        bool operator==(const Limits&) const = default;
    };

    /// Codex is on this Mac.
    bool available = false;
    /// The user has switched it on.
    bool enabled = false;
    /// The service is talking to it.
    bool connected = false;
    /// Found version, lowest usable version, binary.
    std::optional<QString> version;
    std::optional<QString> min;
    std::optional<QString> path;
    /// What's wrong, in the service's words.
    std::optional<QString> problem;
    std::optional<Account> account;
    std::optional<Limits> usage;

    static std::optional<Codex> fromJson(const QJsonValue& value);
    bool operator==(const Codex&) const = default;
};

#pragma once

#include "link/Lenient.h"

#include <QString>

#include <optional>

/// The Claude Code account as the service sees it.
struct Account {
    /// The limit in force.
    struct Limit {
        /// "five_hour", "seven_day", or a newer word.
        std::optional<QString> window;
        std::optional<QString> label;
        std::optional<FlexDate> resetsAt;
        std::optional<FlexDate> autoResumeAt;
        std::optional<bool> usingCredits;

        static std::optional<Limit> fromJson(const QJsonValue& value);
        bool operator==(const Limit&) const = default;
    };

    /// A sign-in in progress.
    struct Login {
        /// "waiting_code" and others.
        std::optional<QString> state;
        std::optional<QString> url;
        /// "mac" and others.
        std::optional<QString> where;
        std::optional<QString> error;

        static std::optional<Login> fromJson(const QJsonValue& value);
        bool operator==(const Login&) const = default;
    };

    /// "ok", "limited", "logged_out", "no_subscription", "on_hold",
    /// "no_credit", a newer word, or "unknown" when the service doesn't say.
    QString state = QStringLiteral("unknown");
    std::optional<QString> plan;
    std::optional<Limit> limit;
    /// "expired", "not_logged_in" and the like.
    std::optional<QString> reason;
    /// The service's sentence.
    std::optional<QString> text;
    std::optional<FlexDate> since;
    std::optional<Login> login;

    /// None only when there is no value (absent or null); anything else that
    /// isn't an object is the unknown account.
    static std::optional<Account> fromJson(const QJsonValue& value);
    bool operator==(const Account&) const = default;
};

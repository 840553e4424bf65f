#pragma once

#include "link/Lenient.h"

#include <QList>
#include <QString>

#include <optional>

/// The local status's short account of automations. A key of another type
/// reads as absent: paused false, count 0, no next, nothing running.
struct AutomationsStatus {
    /// The next run.
    struct Next {
        std::optional<QString> id;
        std::optional<QString> name;
        std::optional<FlexDate> at;

        static std::optional<Next> fromJson(const QJsonValue& value);
        bool operator==(const Next&) const = default;
    };

    /// A run at work.
    struct Run {
        std::optional<QString> id;
        std::optional<QString> name;
        std::optional<QString> sessionId;
        std::optional<FlexDate> startedAt;

        static std::optional<Run> fromJson(const QJsonValue& value);
        bool operator==(const Run&) const = default;
    };

    bool paused = false;
    /// Automations the service knows.
    qint64 count = 0;
    std::optional<Next> next;
    /// The runs that read; others are dropped.
    QList<Run> running;

    /// None only when it isn't an object.
    static std::optional<AutomationsStatus> fromJson(const QJsonValue& value);
    bool operator==(const AutomationsStatus&) const = default;
};

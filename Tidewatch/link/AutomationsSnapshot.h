#pragma once

#include "link/Lenient.h"

#include <QList>
#include <QString>
#include <QStringList>

#include <optional>

/// The snapshot's account of automations: every automation with its last run.
/// A key of another type reads as absent; unreadable elements are dropped.
struct AutomationsSnapshot {
    /// A run that waits at an ask step.
    struct Ask {
        std::optional<QString> stepId;
        std::optional<QString> question;
        std::optional<QStringList> answers;
        /// The wire key is "default": the answer taken when time runs out.
        std::optional<QString> defaultAnswer;
        std::optional<FlexDate> until;

        static std::optional<Ask> fromJson(const QJsonValue& value);
        bool operator==(const Ask&) const = default;
    };

    struct LastRun {
        std::optional<QString> id;
        /// "running", "needs_you", or another word.
        std::optional<QString> state;
        std::optional<QStringList> sessionIds;
        std::optional<FlexDate> startedAt;
        std::optional<Ask> ask;

        static std::optional<LastRun> fromJson(const QJsonValue& value);
        bool operator==(const LastRun&) const = default;
    };

    struct Item {
        std::optional<QString> id;
        std::optional<QString> name;
        /// Only false is off.
        std::optional<bool> enabled;
        std::optional<FlexDate> nextAt;
        std::optional<LastRun> lastRun;

        static std::optional<Item> fromJson(const QJsonValue& value);
        bool operator==(const Item&) const = default;
    };

    bool paused = false;
    QList<Item> list;
    /// The service's feature flags; none from an older service.
    std::optional<QStringList> features;

    /// None only when it isn't an object.
    static std::optional<AutomationsSnapshot> fromJson(const QJsonValue& value);
    bool operator==(const AutomationsSnapshot&) const = default;
};

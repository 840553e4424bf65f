#pragma once

#include "link/AutomationsSnapshot.h"
#include "link/AutomationsStatus.h"
#include "link/Lenient.h"
#include "workflows/WFAskItem.h"

#include <QList>
#include <QString>
#include <QStringList>

#include <optional>

/// What the app knows of automations, from either the local status or the
/// snapshot: the one value the line and Settings read.
struct AutomationsState {
    /// A run to come.
    struct Next {
        std::optional<QString> id;
        QString name;
        FlexDate at;

        bool operator==(const Next&) const = default;
    };

    /// A run at work.
    struct Running {
        std::optional<QString> id;
        QString name;
        std::optional<QString> sessionId;
        std::optional<FlexDate> startedAt;
        /// It waits on the user.
        bool needsYou = false;

        bool operator==(const Running&) const = default;
    };

    /// Everything is paused.
    bool paused = false;
    /// Automations the service knows.
    qint64 count = 0;
    /// How many are on; none when the source doesn't say.
    std::optional<qint64> enabled;
    /// Soonest first; three at most from a snapshot.
    QList<Next> upcoming;
    QList<Running> running;
    /// Automations that are on and wait for an event rather than a time.
    QStringList eventNames;
    /// The service's feature flags; none from an older service.
    std::optional<QStringList> features;
    /// Runs waiting at an ask.
    QList<WFAskItem> asks;

    /// From the local status, which tells only the next run and what runs.
    static AutomationsState fromStatus(const AutomationsStatus& status);
    /// From the snapshot's list of every automation with its last run.
    static AutomationsState fromSnapshot(const AutomationsSnapshot& snapshot);

    bool operator==(const AutomationsState&) const = default;
};

#pragma once

#include "link/JsonWriter.h"
#include "link/Lenient.h"
#include "link/WFOutput.h"
#include "link/WFRun.h"
#include "link/WFStep.h"
#include "link/WFTrigger.h"

#include <QList>
#include <QString>
#include <QStringList>

#include <optional>

/// The limits of one run. Both keys are always sent, a missing one as null.
struct WFBudget {
    std::optional<qint64> minutes;
    /// Points of the 5-hour window.
    std::optional<qint64> windowPct;

    static std::optional<WFBudget> fromJson(const QJsonValue& value);
    void write(JsonWriter& out) const;
    bool operator==(const WFBudget&) const = default;
};

/// An automation as the service keeps it.
struct WFAutomation {
    QString id;
    QString name;
    /// Only false is off.
    std::optional<bool> enabled;
    std::optional<bool> onlyOnce;
    WFTrigger trigger;
    /// None from an older service. A step or output that doesn't read makes
    /// the whole automation unreadable: kept partly, it would lose the rest
    /// on its next save.
    std::optional<QList<WFStep>> steps;
    std::optional<QList<WFOutput>> outputs;
    std::optional<WFBudget> budget;
    /// The template it came from, sent back unchanged.
    std::optional<QString> templateName;
    std::optional<FlexDate> nextAt;
    std::optional<WFRun> lastRun;
    std::optional<qint64> runCount;
    /// It runs on a paid provider and the user agreed to that.
    std::optional<bool> paid;
    /// The service's sentence on why it can't run as it stands.
    std::optional<QString> problem;

    /// None without an id, a name or a trigger.
    static std::optional<WFAutomation> fromJson(const QJsonValue& value);
    bool operator==(const WFAutomation&) const = default;
};

/// `{automations, paused, features}`.
struct WFListReply {
    /// Unreadable automations are dropped.
    QList<WFAutomation> automations;
    std::optional<bool> paused;
    std::optional<QStringList> features;

    /// None without a list of automations.
    static std::optional<WFListReply> fromJson(const QJsonValue& value);
    bool operator==(const WFListReply&) const = default;
};

/// `{automation, token}`, after a save.
struct WFSaved {
    std::optional<WFAutomation> automation;
    /// A webhook trigger's whole token, present once.
    std::optional<QString> token;

    static std::optional<WFSaved> fromJson(const QJsonValue& value);
    bool operator==(const WFSaved&) const = default;
};

/// `{next}`: the next times of a cron expression.
struct WFCheckReply {
    QList<FlexDate> next;

    static std::optional<WFCheckReply> fromJson(const QJsonValue& value);
    bool operator==(const WFCheckReply&) const = default;
};

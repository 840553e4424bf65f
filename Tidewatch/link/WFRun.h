#pragma once

#include "link/Lenient.h"

#include <QList>
#include <QString>
#include <QStringList>

#include <optional>

/// Who answered an ask, and what.
struct WFAnswer {
    QString text;
    /// "mac", "glasses", "timeout", or another surface's word.
    std::optional<QString> by;
    std::optional<FlexDate> at;

    /// None without a text.
    static std::optional<WFAnswer> fromJson(const QJsonValue& value);
    bool operator==(const WFAnswer&) const = default;
};

/// One step of a run, as far as the app reads it.
struct WFRunStep {
    QString id;
    std::optional<QString> kind;
    QString state;
    std::optional<WFAnswer> answer;

    /// None without an id or a state.
    static std::optional<WFRunStep> fromJson(const QJsonValue& value);
    bool operator==(const WFRunStep&) const = default;
};

/// One run of an automation, as far as the app reads it: its state and the
/// answers its steps were given.
struct WFRun {
    QString id;
    std::optional<QString> automationId;
    /// "queued", "running", "needs_you", "done", or a step's ended state.
    QString state;
    std::optional<QStringList> sessionIds;
    /// Unreadable steps are dropped.
    QList<WFRunStep> steps;

    /// None without an id or a state.
    static std::optional<WFRun> fromJson(const QJsonValue& value);
    bool operator==(const WFRun&) const = default;
};

/// `{run}`, after a run was answered, started or retried.
struct WFRunReply {
    std::optional<WFRun> run;
    static std::optional<WFRunReply> fromJson(const QJsonValue& value);
    bool operator==(const WFRunReply&) const = default;
};

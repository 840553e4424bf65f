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

/// What fired a run.
struct WFFired {
    /// Such as "webhook".
    std::optional<QString> by;
    std::optional<FlexDate> at;
    std::optional<QString> sessionId;
    std::optional<QString> detail;

    static std::optional<WFFired> fromJson(const QJsonValue& value);
    bool operator==(const WFFired&) const = default;
};

/// One step of a run.
struct WFRunStep {
    QString id;
    std::optional<QString> kind;
    /// "pending", "running", "waiting", "needs_you", "done", "failed",
    /// "stopped", "skipped", or a word unknown here.
    QString state;
    std::optional<QString> reason;
    std::optional<FlexDate> startedAt;
    std::optional<FlexDate> endedAt;
    /// Two sentences of a reply, a command's last lines, or the answer.
    std::optional<QString> result;
    std::optional<bool> quiet;
    std::optional<QStringList> sessionIds;
    std::optional<qint64> exit;
    std::optional<WFAnswer> answer;
    /// Kept from the run it retried.
    std::optional<bool> reused;

    /// None without an id or a state.
    static std::optional<WFRunStep> fromJson(const QJsonValue& value);
    bool operator==(const WFRunStep&) const = default;
};

/// How telling one place went: "pending", "sent", "failed", or not sent.
struct WFRunOutput {
    QString id;
    std::optional<QString> kind;
    QString state;
    std::optional<QString> error;
    std::optional<FlexDate> at;

    /// None without an id or a state.
    static std::optional<WFRunOutput> fromJson(const QJsonValue& value);
    bool operator==(const WFRunOutput&) const = default;
};

/// The question a run waits on.
struct WFRunAsk {
    QString stepId;
    QString question;
    QStringList answers;
    /// The wire key is "default".
    QString defaultAnswer;
    FlexDate until;

    /// None unless all five keys read.
    static std::optional<WFRunAsk> fromJson(const QJsonValue& value);
    bool operator==(const WFRunAsk&) const = default;
};

/// One run of an automation.
struct WFRun {
    QString id;
    std::optional<QString> automationId;
    std::optional<QString> name;
    std::optional<WFFired> fired;
    /// "queued", "waiting", "running", "needs_you", "done", or a step's ended state.
    QString state;
    std::optional<QString> reason;
    std::optional<FlexDate> until;
    std::optional<FlexDate> startedAt;
    std::optional<FlexDate> endedAt;
    std::optional<QString> result;
    std::optional<bool> quiet;
    std::optional<QStringList> sessionIds;
    /// Unreadable steps are dropped.
    QList<WFRunStep> steps;
    /// The index of the step at work.
    std::optional<qint64> step;
    std::optional<WFRunAsk> ask;
    /// Unreadable outputs are dropped.
    QList<WFRunOutput> outputs;
    /// The run this one retries.
    std::optional<QString> retryOf;
    /// The id of the step it retried from.
    std::optional<QString> retryFrom;

    /// None without an id or a state, or with an ask that doesn't read.
    static std::optional<WFRun> fromJson(const QJsonValue& value);
    /// The index of the first step that failed or was stopped: where a retry may start.
    std::optional<qsizetype> firstFailed() const;
    bool operator==(const WFRun&) const = default;
};

/// `{run}`, after a run was answered, started or retried.
struct WFRunReply {
    std::optional<WFRun> run;
    static std::optional<WFRunReply> fromJson(const QJsonValue& value);
    bool operator==(const WFRunReply&) const = default;
};

/// `{runs, total, skipped}`: an automation's last runs.
struct WFRunsReply {
    /// Unreadable runs are dropped.
    QList<WFRun> runs;
    std::optional<qint64> total;
    /// The service's own count of runs it left out.
    std::optional<qint64> skipped;

    /// None without a list of runs.
    static std::optional<WFRunsReply> fromJson(const QJsonValue& value);
    bool operator==(const WFRunsReply&) const = default;
};

#pragma once

#include "link/Lenient.h"

#include <QString>
#include <QStringList>

#include <optional>

/// The plan to let a blocked session go on by itself.
struct Resume {
    /// "armed", "ready", "off", or a newer word.
    std::optional<QString> state;
    std::optional<FlexDate> at;
    /// Who armed it: "claude" or "tidewatch".
    std::optional<QString> by;
    std::optional<bool> canCancel;
    std::optional<bool> canArm;
    /// "back", "cancelled" and the like.
    std::optional<QString> why;

    static std::optional<Resume> fromJson(const QJsonValue& value);
    bool operator==(const Resume&) const = default;
};

/// Says that an automation started the session.
struct AutomationRef {
    std::optional<QString> id;
    std::optional<QString> name;
    std::optional<QString> runId;

    static std::optional<AutomationRef> fromJson(const QJsonValue& value);
    bool operator==(const AutomationRef&) const = default;
};

/// One agent session, as the service knows it.
struct Session {
    /// Its terminal and the clients attached to it on the Mac and the phone.
    struct TermLink {
        QString id;
        std::optional<qint64> mac;
        std::optional<qint64> phone;

        /// None without an id.
        static std::optional<TermLink> fromJson(const QJsonValue& value);
        bool operator==(const TermLink&) const = default;
    };

    /// Why the session waits.
    struct Blocked {
        /// "limit", "model", "provider", "logged_out", "no_subscription",
        /// "on_hold", "no_credit", or a newer word.
        std::optional<QString> kind;
        /// The service's own sentence.
        std::optional<QString> text;
        std::optional<FlexDate> resetsAt;
        std::optional<FlexDate> autoResumeAt;
        std::optional<Resume> resume;

        static std::optional<Blocked> fromJson(const QJsonValue& value);
        bool operator==(const Blocked&) const = default;
    };

    QString id;
    std::optional<QString> title;
    std::optional<QString> cwd;
    std::optional<QString> projectName;
    /// Where it started; "terminal" is the one with a terminal window.
    std::optional<QString> origin;
    /// "starting", "working", "idle", "needs_you", "error", "ended", or a newer word.
    std::optional<QString> state;
    /// "codex" for a Codex session.
    std::optional<QString> providerId;
    std::optional<QString> model;
    /// The agent's mode, such as "read-only" or "dontAsk".
    std::optional<QString> permissionMode;
    std::optional<FlexDate> createdAt;
    std::optional<FlexDate> lastActivityAt;
    /// What it is doing now.
    std::optional<QString> activity;
    /// Its last words.
    std::optional<QString> lastText;
    /// Messages waiting.
    std::optional<qint64> queued;
    std::optional<QStringList> pendingApprovalIds;
    /// Stopped because nobody was there.
    std::optional<bool> stoppedForAway;
    std::optional<TermLink> term;
    /// Sub-agents running now.
    std::optional<qint64> agentsRunning;
    std::optional<Blocked> blocked;
    /// Set when an automation started it.
    std::optional<AutomationRef> automation;
    /// Absent means Claude Code; "codex" means Codex.
    std::optional<QString> agent;
    /// Session ids across a switch between agents.
    std::optional<QString> switchedFrom;
    std::optional<QString> switchedTo;

    /// None when it isn't an object or has no string id.
    static std::optional<Session> fromJson(const QJsonValue& value);
    bool operator==(const Session&) const = default;
};

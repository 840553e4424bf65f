#pragma once

#include "link/JsonWriter.h"
#include "link/Lenient.h"

#include <QString>
#include <QStringList>

#include <optional>

/// The condition on a step: "ok", "failed", "quiet", "not_quiet",
/// "contains" with the words, "answer" with the answer.
struct WFGuard {
    QString on;
    std::optional<QString> text;

    /// None without `on`.
    static std::optional<WFGuard> fromJson(const QJsonValue& value);
    void write(JsonWriter& out) const;
    bool operator==(const WFGuard&) const = default;
};

/// One thing an automation does. Read whole, whatever its kind; sent with
/// `id`, `kind`, `if` and the keys of its kind.
struct WFStep {
    QString id;
    /// "start", "continue", "ask", "shell", "notify", "say", or a kind unknown here.
    QString kind;
    /// The wire key is "if"; none runs unless the step before failed.
    std::optional<WFGuard> guard;
    std::optional<QString> projectPath;
    std::optional<QString> prompt;
    /// "codex" for the Codex agent.
    std::optional<QString> providerId;
    std::optional<QString> model;
    /// Claude Code's mode on a Claude Code step, the sandbox on a Codex step.
    std::optional<QString> permissionMode;
    std::optional<QStringList> allowedTools;
    /// "trigger", "working", "limited" or "step:<id>".
    std::optional<QString> target;
    std::optional<QString> question;
    std::optional<QStringList> answers;
    /// The wire key is "default": the answer taken when the wait runs out.
    std::optional<QString> defaultAnswer;
    std::optional<qint64> timeoutMin;
    std::optional<QString> command;
    std::optional<qint64> timeoutSec;
    std::optional<QString> text;
    std::optional<bool> glasses;

    /// None without an id or a kind.
    static std::optional<WFStep> fromJson(const QJsonValue& value);
    void write(JsonWriter& out) const;
    bool operator==(const WFStep&) const = default;
};

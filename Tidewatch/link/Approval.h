#pragma once

#include "link/Lenient.h"

#include <QList>
#include <QString>

#include <optional>

/// One question an agent asks, with the answers it offers.
struct Question {
    struct Option {
        std::optional<QString> label;
        std::optional<QString> description;

        static std::optional<Option> fromJson(const QJsonValue& value);
        bool operator==(const Option&) const = default;
    };

    std::optional<QString> question;
    std::optional<QString> header;
    std::optional<bool> multiSelect;
    /// The options that read; others are dropped.
    std::optional<QList<Option>> options;

    static std::optional<Question> fromJson(const QJsonValue& value);
    bool operator==(const Question&) const = default;
};

/// One pending request of an agent: a tool to allow, questions or a plan.
struct Approval {
    QString id;
    /// The session that asks.
    std::optional<QString> sessionId;
    std::optional<FlexDate> createdAt;
    std::optional<FlexDate> expiresAt;
    /// "tool", "question", "plan", or a newer word.
    std::optional<QString> kind;
    std::optional<QString> toolName;
    /// One line.
    std::optional<QString> summary;
    /// The tool's input, uninterpreted; none when absent or null.
    std::optional<JSONValue> input;
    /// Why it asks.
    std::optional<QString> reason;
    /// Which wider answers are on offer.
    std::optional<bool> canAlways;
    std::optional<bool> canSession;
    /// The questions that read, for a question.
    std::optional<QList<Question>> questions;
    /// For a plan.
    std::optional<QString> plan;

    /// None when it isn't an object or has no string id.
    static std::optional<Approval> fromJson(const QJsonValue& value);
    bool operator==(const Approval&) const = default;
};

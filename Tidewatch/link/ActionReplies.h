#pragma once

#include "link/Account.h"
#include "link/Awake.h"
#include "link/Codex.h"
#include "link/Usage.h"

#include <QJsonValue>
#include <QString>

#include <optional>

// The replies of the app's actions. Each is as tolerant as the records: a key
// that doesn't read is absent, and only a reply that isn't an object fails.

/// `{account}`, after a sign-in starts.
struct AccountReply {
    std::optional<Account> account;
    static std::optional<AccountReply> fromJson(const QJsonValue& value);
    bool operator==(const AccountReply&) const = default;
};

/// `{usage}`, after usage was read afresh.
struct UsageReply {
    std::optional<Usage> usage;
    static std::optional<UsageReply> fromJson(const QJsonValue& value);
    bool operator==(const UsageReply&) const = default;
};

/// `{codex}`, after Codex was switched or looked at.
struct CodexReply {
    /// The key was there: a null or unreadable record clears Codex.
    bool present = false;
    std::optional<Codex> codex;
    static std::optional<CodexReply> fromJson(const QJsonValue& value);
    bool operator==(const CodexReply&) const = default;
};

/// Which app shows the terminal, and whether it was open already.
struct OpenedReply {
    std::optional<QString> app;
    std::optional<bool> already;
    static std::optional<OpenedReply> fromJson(const QJsonValue& value);
    bool operator==(const OpenedReply&) const = default;
};

/// `{awake}`, after a change of Stay awake.
struct AwakeReply {
    std::optional<Awake> awake;
    static std::optional<AwakeReply> fromJson(const QJsonValue& value);
    bool operator==(const AwakeReply&) const = default;
};

/// `{paused}`, after every automation was paused or resumed.
struct PausedReply {
    std::optional<bool> paused;
    static std::optional<PausedReply> fromJson(const QJsonValue& value);
    bool operator==(const PausedReply&) const = default;
};

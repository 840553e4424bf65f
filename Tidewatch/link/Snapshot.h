#pragma once

#include "link/Account.h"
#include "link/Approval.h"
#include "link/AutomationsSnapshot.h"
#include "link/Awake.h"
#include "link/Battery.h"
#include "link/ClaudeAgent.h"
#include "link/Codex.h"
#include "link/Lenient.h"
#include "link/Provider.h"
#include "link/Session.h"
#include "link/Usage.h"

#include <QString>

#include <optional>

/// The whole state of the service in one record: the reply of /v1/snapshot.
struct Snapshot {
    /// The machine.
    struct Mac {
        std::optional<QString> id;
        std::optional<QString> name;
        std::optional<QString> daemonVersion;
        std::optional<QString> claudeVersion;
        std::optional<Battery> battery;
        std::optional<Awake> awake;

        static std::optional<Mac> fromJson(const QJsonValue& value);
        bool operator==(const Mac&) const = default;
    };

    std::optional<Mac> mac;
    /// Claude Code's usage windows.
    std::optional<Usage> usage;
    /// All known sessions, in the service's order.
    FlexList<Session> sessions;
    /// All pending requests.
    FlexList<Approval> approvals;
    /// None from an older service.
    std::optional<Account> account;
    FlexList<Provider> providers;
    std::optional<AutomationsSnapshot> automations;
    std::optional<Codex> codex;
    std::optional<ClaudeAgent> claude;

    /// None only when it isn't an object.
    static std::optional<Snapshot> fromJson(const QJsonValue& value);
    bool operator==(const Snapshot&) const = default;
};

#include "link/Snapshot.h"

using namespace Qt::StringLiterals;

std::optional<Snapshot::Mac> Snapshot::Mac::fromJson(const QJsonValue& value)
{
    const std::optional<Lenient::Fields> fields = Lenient::Fields::open(value);
    if (!fields)
        return std::nullopt;
    Mac mac;
    mac.id = fields->string("id"_L1);
    mac.name = fields->string("name"_L1);
    mac.daemonVersion = fields->string("daemonVersion"_L1);
    mac.claudeVersion = fields->string("claudeVersion"_L1);
    mac.battery = fields->record<Battery>("battery"_L1);
    mac.awake = fields->record<Awake>("awake"_L1);
    return mac;
}

std::optional<Snapshot> Snapshot::fromJson(const QJsonValue& value)
{
    const std::optional<Lenient::Fields> fields = Lenient::Fields::open(value);
    if (!fields)
        return std::nullopt;
    Snapshot snapshot;
    snapshot.mac = fields->record<Mac>("mac"_L1);
    snapshot.usage = fields->record<Usage>("usage"_L1);
    snapshot.sessions = fields->list<Session>("sessions"_L1);
    snapshot.approvals = fields->list<Approval>("approvals"_L1);
    snapshot.account = fields->record<Account>("account"_L1);
    snapshot.providers = fields->list<Provider>("providers"_L1);
    snapshot.automations = fields->record<AutomationsSnapshot>("automations"_L1);
    snapshot.codex = fields->record<Codex>("codex"_L1);
    snapshot.claude = fields->record<ClaudeAgent>("claude"_L1);
    return snapshot;
}

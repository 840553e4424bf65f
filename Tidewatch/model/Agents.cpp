#include "model/Agents.h"

#include "model/TailscaleAction.h"

namespace Agents {

namespace {

bool isCodexSession(const Session& session)
{
    return session.agent == QStringLiteral("codex");
}

} // namespace

bool serviceSaysNoClaude(const Inputs& inputs)
{
    if (inputs.snapshot && inputs.snapshot->claude && inputs.snapshot->claude->available == false)
        return true;
    return inputs.status && inputs.status->claude && !inputs.status->claude->path;
}

bool claudeIsHere(const Inputs& inputs)
{
    if (inputs.snapshot && inputs.snapshot->claude && inputs.snapshot->claude->available == true)
        return true;
    if (inputs.status && inputs.status->claude && inputs.status->claude->path)
        return true;
    if (inputs.status && inputs.status->hooks && inputs.status->hooks->installed == true)
        return true;
    const QList<Session>& sessions = inputs.snapshot ? inputs.snapshot->sessions.items
        : inputs.status                              ? inputs.status->sessions.items
                                                     : QList<Session>{};
    if (std::any_of(sessions.begin(), sessions.end(), [](const Session& s) { return !isCodexSession(s); }))
        return true;
    if (!inputs.sample && inputs.detectionFound)
        return true;
    // A service older than Codex has no record at all, and Claude Code is there as always.
    if (!serviceSaysNoClaude(inputs))
        return true;
    if (inputs.sample)
        return false;
    return inputs.lookFound.value_or(true);
}

std::optional<Codex> trustedCodex(const Inputs& inputs)
{
    if (!inputs.serviceUp)
        return std::nullopt;
    if (inputs.snapshot)
        return inputs.snapshot->codex;
    if (inputs.status)
        return inputs.status->codex;
    return std::nullopt;
}

AgentsInUse agentsInUse(const Inputs& inputs)
{
    AgentsInUse agents;
    agents.claude = claudeIsHere(inputs);
    if (const std::optional<Codex> codex = trustedCodex(inputs)) {
        agents.codexAvailable = codex->available;
        agents.codexHere = codex->available || codex->path.has_value();
        agents.codexEnabled = codex->enabled;
    }
    return agents;
}

std::optional<SetupStep> setupGap(const AgentsInUse& agents, const std::optional<LocalStatus>& status, bool isTestCopy)
{
    if (!status)
        return std::nullopt;
    if (agents.claude) {
        // Only a status that says so counts: an older one without the record doesn't nag.
        const bool hooksMissing = status->hooks && status->hooks->installed == false;
        if (hooksMissing && !isTestCopy)
            return SetupStep::Connect;
    } else if (!agents.codexHere) {
        if (!isTestCopy)
            return SetupStep::Claude;
    } else if (!agents.codexEnabled) {
        return SetupStep::Codex;
    }
    const bool paired = !status->devices.items.isEmpty() || status->devices.count > 0;
    if (!isTestCopy && !paired && !routeInOrder(*status))
        return SetupStep::Tailscale;
    if (!paired)
        return SetupStep::Phone;
    return std::nullopt;
}

} // namespace Agents

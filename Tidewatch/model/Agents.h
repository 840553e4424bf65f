#pragma once

#include "link/Codex.h"
#include "link/LocalStatus.h"
#include "link/Snapshot.h"
#include "model/AgentsInUse.h"
#include "model/SetupStep.h"

#include <optional>

/// Which agents this Mac has, decided in one place from what the service
/// says, what the status says, and a local look as the last word.
namespace Agents {

/// What the decisions read, as the model holds it now.
struct Inputs {
    const std::optional<Snapshot>& snapshot;
    const std::optional<LocalStatus>& status;
    bool serviceUp = false;
    /// A sample instance shows made-up data and looks at nothing.
    bool sample = false;
    /// Setup's detection found Claude Code's binary.
    bool detectionFound = false;
    /// The last local look for Claude Code, when one was made.
    std::optional<bool> lookFound;
};

/// The service says plainly that Claude Code isn't here.
bool serviceSaysNoClaude(const Inputs& inputs);
bool claudeIsHere(const Inputs& inputs);
/// The Codex record to believe; none while the service is down.
std::optional<Codex> trustedCodex(const Inputs& inputs);
AgentsInUse agentsInUse(const Inputs& inputs);

/// The step of Setup the user should go to next, or none.
std::optional<SetupStep> setupGap(const AgentsInUse& agents, const std::optional<LocalStatus>& status, bool isTestCopy);

} // namespace Agents

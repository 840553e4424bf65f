#pragma once

/// Which agents this Mac has, and which of them leads. Everything worded for
/// "the agent" reads this one value, so that all of it changes together.
struct AgentsInUse {
    enum class Leader { None, Claude, Codex };

    /// Claude Code is here.
    bool claude = false;
    /// The Codex record says it is available.
    bool codexAvailable = false;
    /// Codex is on this Mac: available, or at least found (too old, say).
    bool codexHere = false;
    /// The user has Codex switched on.
    bool codexEnabled = false;

    Leader leader() const
    {
        if (claude)
            return Leader::Claude;
        return codexAvailable ? Leader::Codex : Leader::None;
    }
    /// Codex is in use beside Claude Code.
    bool codexBeside() const { return claude && codexAvailable && codexEnabled; }
    /// Codex is in use, and Claude Code isn't here.
    bool codexAlone() const { return !claude && codexAvailable && codexEnabled; }
    /// Some agent is on this Mac.
    bool agentHere() const { return claude || codexHere; }

    bool operator==(const AgentsInUse&) const = default;
};

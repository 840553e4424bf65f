#pragma once

#include "link/WFAutomation.h"

#include <QList>
#include <QString>

/// What this app decides about an automation by itself: whether it can edit
/// it, and which agreements a save needs.
namespace WorkflowRules {

/// The six step kinds this app knows.
bool knowsStepKind(const QString& kind);
/// The four output kinds this app knows.
bool knowsOutputKind(const QString& kind);

/// True when it has at least one step and every step and output is of a kind
/// known here; the rest is left to the phone. The trigger doesn't count.
bool isEditable(const WFAutomation& automation);

/// The agreements a save needs: to run a command, to run without asking.
struct Confirmation {
    bool shell = false;
    bool bypass = false;

    bool operator==(const Confirmation&) const = default;
};
Confirmation needsConfirmation(const QList<WFStep>& steps);

/// A run counts as Codex's when its automation's first `start` step runs on Codex.
bool runsOnCodex(const QList<WFStep>& steps);

} // namespace WorkflowRules

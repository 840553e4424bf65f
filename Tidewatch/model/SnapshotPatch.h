#pragma once

#include "link/FeedMessage.h"
#include "link/Snapshot.h"

#include <QString>

#include <optional>

/// What one feed message does to the snapshot the model holds. The feed says
/// what changed; this puts it in place, part by part, and tells whether
/// anything really changed, so an echo of what is already held redraws nothing.
namespace SnapshotPatch {

/// Applies the message in place and gives true when the snapshot changed. A
/// `snapshot` message replaces everything, even none. Every other message
/// needs a snapshot to patch: on none it changes nothing (the read that the
/// model asks for brings the whole picture). Messages for others (guide,
/// speech-to-text, devices) never touch it.
bool apply(std::optional<Snapshot>& snapshot, const Feed::Message& message);

/// The message may change which approvals are open, so answers held in view
/// are pruned after it.
bool touchesApprovals(const Feed::Message& message);

/// The message's type as the wire names it: "snapshot", "session",
/// "approval.resolved", "guide.show"…
QString typeName(const Feed::Message& message);

} // namespace SnapshotPatch

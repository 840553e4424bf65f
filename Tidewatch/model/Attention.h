#pragma once

#include "link/LocalStatus.h"
#include "link/Snapshot.h"
#include "model/AgentsInUse.h"
#include "model/Answered.h"
#include "model/NeedsYouItem.h"

#include <QDateTime>
#include <QHash>
#include <QList>

/// What waits on the user, and the moment after an answer: an answered
/// approval leaves the waiting list at once and stays folded in its place
/// until the service has let it go.
namespace Attention {

/// How long an answer shows folded, whatever the service says.
inline constexpr double foldSeconds = 1.6;
/// How long an answer keeps its approval hidden while the service still lists it.
inline constexpr double hideWhileListedSeconds = 30;

using AnsweredMap = QHash<QString, Answered>;

/// The approvals the service lists: the snapshot's, else the status's.
QList<Approval> openApprovals(const std::optional<Snapshot>& snapshot, const std::optional<LocalStatus>& status);

/// The open approvals not yet answered here, tool requests first, oldest first.
QList<Approval> waitingApprovals(
    const std::optional<Snapshot>& snapshot, const std::optional<LocalStatus>& status, const AnsweredMap& answered);

/// The waiting approvals and the answers of the last 1.6 seconds, in one
/// order, so an answered row folds where it stood.
QList<NeedsYouItem> needsYou(const std::optional<Snapshot>& snapshot, const std::optional<LocalStatus>& status,
    const AnsweredMap& answered, const QDateTime& now);

/// The answers still worth keeping: young ones, and those the service still lists.
AnsweredMap pruned(const AnsweredMap& answered, const QList<Approval>& open, const QDateTime& now);

/// "Codex" or "Claude Code": the agent that asked, for the sentence of a lost answer.
QString agentWord(const Approval& approval, const QList<Session>& sessions, const AgentsInUse& agents);

/// The note for an answer that didn't reach the service.
QString lostAnswerNote(const QString& agentWord, const QString& errorSentence);

} // namespace Attention

#include "model/Attention.h"

#include <algorithm>

namespace Attention {

namespace {

// Tool requests stand before questions and plans; among equals the oldest first.
bool before(const Approval& left, const Approval& right)
{
    const auto rank = [](const Approval& approval) {
        return !approval.kind || *approval.kind == QLatin1StringView("tool") ? 0 : 1;
    };
    if (rank(left) != rank(right))
        return rank(left) < rank(right);
    const qint64 leftAt = left.createdAt ? left.createdAt->msecsSinceEpoch : std::numeric_limits<qint64>::min();
    const qint64 rightAt = right.createdAt ? right.createdAt->msecsSinceEpoch : std::numeric_limits<qint64>::min();
    return leftAt < rightAt;
}

double secondsSince(const QDateTime& at, const QDateTime& now)
{
    return double(at.msecsTo(now)) / 1000.0;
}

} // namespace

QList<Approval> openApprovals(const std::optional<Snapshot>& snapshot, const std::optional<LocalStatus>& status)
{
    if (snapshot)
        return snapshot->approvals.items;
    if (status)
        return status->approvals.items;
    return {};
}

QList<Approval> waitingApprovals(
    const std::optional<Snapshot>& snapshot, const std::optional<LocalStatus>& status, const AnsweredMap& answered)
{
    QList<Approval> waiting;
    for (const Approval& approval : openApprovals(snapshot, status)) {
        if (!answered.contains(approval.id))
            waiting << approval;
    }
    std::stable_sort(waiting.begin(), waiting.end(), before);
    return waiting;
}

QList<NeedsYouItem> needsYou(const std::optional<Snapshot>& snapshot, const std::optional<LocalStatus>& status,
    const AnsweredMap& answered, const QDateTime& now)
{
    QList<NeedsYouItem> items;
    for (const Answered& done : answered) {
        if (secondsSince(done.at, now) < foldSeconds)
            items << NeedsYouItem::answered(done);
    }
    // The map has no order of its own; the click's moment gives a stable one before the sort.
    std::sort(items.begin(), items.end(),
        [](const NeedsYouItem& a, const NeedsYouItem& b) { return a.answer()->at < b.answer()->at; });
    for (const Approval& approval : waitingApprovals(snapshot, status, answered))
        items << NeedsYouItem::waiting(approval);
    std::stable_sort(items.begin(), items.end(),
        [](const NeedsYouItem& a, const NeedsYouItem& b) { return before(a.approval(), b.approval()); });
    return items;
}

AnsweredMap pruned(const AnsweredMap& answered, const QList<Approval>& open, const QDateTime& now)
{
    AnsweredMap kept;
    for (auto it = answered.begin(); it != answered.end(); ++it) {
        const double age = secondsSince(it->at, now);
        const bool listed = std::any_of(open.begin(), open.end(), [&](const Approval& a) { return a.id == it.key(); });
        // Showing a still-listed approval again would invite a second answer.
        if (age < foldSeconds || (age < hideWhileListedSeconds && listed))
            kept.insert(it.key(), *it);
    }
    return kept;
}

QString agentWord(const Approval& approval, const QList<Session>& sessions, const AgentsInUse& agents)
{
    const QString codex = QStringLiteral("Codex");
    const QString claude = QStringLiteral("Claude Code");
    if (approval.sessionId) {
        for (const Session& session : sessions) {
            if (session.id != *approval.sessionId)
                continue;
            return session.agent == codex.toLower() || session.providerId == codex.toLower() ? codex : claude;
        }
    }
    return agents.codexAlone() ? codex : claude;
}

QString lostAnswerNote(const QString& agentWord, const QString& errorSentence)
{
    return QStringLiteral("That answer didn’t reach ") + agentWord + QStringLiteral(". ") + errorSentence;
}

} // namespace Attention

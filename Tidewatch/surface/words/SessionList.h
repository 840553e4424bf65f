#pragma once

#include "link/Session.h"
#include "model/AgentsInUse.h"
#include "surface/words/Palette.h"

#include <QList>
#include <QString>

#include <optional>

/// One count in the seam above the sessions.
struct CountMark {
    QString text;
    /// The "need you" mark rather than the "working" one.
    bool needs = false;
    Ink ink = Ink::Green;

    bool operator==(const CountMark&) const = default;
};

namespace SessionWords {

/// The session's place in the list: lower comes first.
int rank(const Session& session);
/// The rows of the sessions section: ended sessions and those an automation
/// started are left out, the rest go by rank, then latest activity first.
QList<Session> ordered(const QList<Session>& sessions);
/// Counts as needing the user in the seam: it waits on an answer or an approval.
bool needsYou(const Session& session, bool hasApproval);
/// Counts as working: busy, or sub-agents at work, and no approval waiting.
bool isWorking(const Session& session, bool hasApproval);
/// At most two marks, "need you" first; none when both are 0.
QList<CountMark> countMarks(qint64 needs, qint64 working);
/// "Sessions"
QString seamLabel();
/// "all quiet", for the seam when nothing needs the user and nothing works.
QString seamQuiet();
/// "4 more", or "4 more on your phone" once a phone is paired; none for 0.
std::optional<QString> moreRows(qsizetype hidden, bool phonePaired);
/// What the section says with no session, by the agents in use.
QString emptyList(const AgentsInUse& agents);

} // namespace SessionWords

#include "surface/words/SessionList.h"

#include "surface/words/SessionFacts.h"

#include <algorithm>
#include <limits>

using namespace Qt::StringLiterals;
using namespace SessionFacts;

namespace SessionWords {

int rank(const Session& session)
{
    const QString state = session.state.value_or(QString());
    if (state == u"needs_you"_s)
        return 0;
    if (state == u"working"_s || state == u"starting"_s)
        return 1;
    if (state == u"idle"_s && session.agentsRunning.value_or(0) >= 1)
        return 1;
    if (state == u"error"_s)
        return 2;
    if (state == u"idle"_s || state == u"ended"_s)
        return 3;
    return 4;
}

QList<Session> ordered(const QList<Session>& sessions)
{
    QList<Session> rows;
    rows.reserve(sessions.size());
    for (const Session& session : sessions) {
        if (!isState(session, u"ended") && !session.automation)
            rows.append(session);
    }
    std::stable_sort(rows.begin(), rows.end(), [](const Session& a, const Session& b) {
        const int rankA = rank(a), rankB = rank(b);
        if (rankA != rankB)
            return rankA < rankB;
        const qint64 atA = a.lastActivityAt ? a.lastActivityAt->msecsSinceEpoch : std::numeric_limits<qint64>::min();
        const qint64 atB = b.lastActivityAt ? b.lastActivityAt->msecsSinceEpoch : std::numeric_limits<qint64>::min();
        return atA > atB;
    });
    return rows;
}

bool needsYou(const Session& session, bool hasApproval)
{
    return hasApproval || isState(session, u"needs_you");
}

bool isWorking(const Session& session, bool hasApproval)
{
    if (hasApproval)
        return false;
    if (isState(session, u"working") || isState(session, u"starting"))
        return true;
    return !isState(session, u"needs_you") && !isState(session, u"ended") && session.agentsRunning.value_or(0) >= 1;
}

QList<CountMark> countMarks(qint64 needs, qint64 working)
{
    QList<CountMark> marks;
    if (needs >= 1)
        marks.append({needs == 1 ? u"1 needs you"_s : u"%1 need you"_s.arg(needs), true, Ink::Amber});
    if (working >= 1)
        marks.append({u"%1 working"_s.arg(working), false, Ink::Green});
    return marks;
}

QString seamLabel()
{
    return u"Sessions"_s;
}

QString seamQuiet()
{
    return u"all quiet"_s;
}

std::optional<QString> moreRows(qsizetype hidden, bool phonePaired)
{
    if (hidden <= 0)
        return std::nullopt;
    return u"%1 more"_s.arg(hidden) + (phonePaired ? u" on your phone"_s : QString());
}

QString emptyList(const AgentsInUse& agents)
{
    if (agents.codexBeside())
        return u"Nothing running. Type claude or codex in a terminal, or start a session from your phone."_s;
    if (agents.claude)
        return u"Nothing running. Type claude in a terminal, or start a session from your phone."_s;
    if (agents.codexAlone())
        return u"Nothing running. Type codex in a terminal, or start a session from your phone."_s;
    if (agents.codexAvailable)
        return u"Nothing running. Start a Codex session from your phone."_s;
    return u"Nothing running."_s;
}

} // namespace SessionWords

#include "surface/words/SessionTitle.h"

#include "surface/words/ModelChip.h"
#include "surface/words/SessionFacts.h"
#include "text/TimeWords.h"

#include <QStringList>

using namespace Qt::StringLiterals;
using namespace SessionFacts;

namespace SessionWords {

QString title(const Session& session)
{
    QString own = trimmed(session.title);
    if (!own.isEmpty())
        return own;
    QString project = trimmed(session.projectName);
    if (!project.isEmpty())
        return project;
    return u"Untitled session"_s;
}

std::optional<QString> place(const Session& session, const QString& home)
{
    const auto bare = [](const QString& path) {
        qsizetype start = 0, end = path.size();
        while (start < end && path.at(start) == u'/')
            ++start;
        while (end > start && path.at(end - 1) == u'/')
            --end;
        return path.mid(start, end - start);
    };
    if (session.cwd && bare(*session.cwd) == bare(home))
        return u"Home"_s;
    if (session.projectName && !session.projectName->isEmpty())
        return *session.projectName;
    return std::nullopt;
}

QString stampHex(const QString& id)
{
    QString hex;
    for (const QChar c : id) {
        if (c.isLetterOrNumber()) {
            hex.append(c.toLower());
            if (hex.size() == 2)
                break;
        }
    }
    return hex.isEmpty() ? u"··"_s : hex;
}

SessionStamp stamp(const Session& session, const QDateTime& now)
{
    SessionStamp result;
    result.hex = stampHex(session.id);
    if (!session.lastActivityAt) {
        result.help = u"Session "_s + result.hex;
        return result;
    }
    const double age = -TimeWords::secondsFrom(now, *session.lastActivityAt);
    result.age = TimeWords::coarseAge(age);
    result.help = age < 60 ? u"Session %1, active just now"_s.arg(result.hex)
                           : u"Session %1, active %2 ago"_s.arg(result.hex, TimeWords::compactDuration(age));
    return result;
}

bool opensTerminal(const Session& session)
{
    // The service opens a new window on a session it started itself (origin mac, phone or automation).
    const bool startedByService = session.origin && *session.origin != u"terminal"_s;
    return session.term.has_value() || isCodexAgent(session) || startedByService;
}

QString openTitle(const Session& session)
{
    return session.term && session.term->mac.value_or(0) >= 1 ? u"Show"_s : u"Open"_s;
}

QString help(const Session& session)
{
    QString text;
    if (isCodexAgent(session))
        text += session.switchedFrom ? u"On Codex, continued from Claude Code. "_s : u"On Codex. "_s;
    else if (session.switchedTo)
        text += u"Continued from Codex. "_s;
    if (session.term && session.term->mac.value_or(0) >= 1)
        text += u"Bring its terminal window forward. "_s;
    else if (opensTerminal(session))
        text += u"Open it in a terminal window. "_s;
    else
        text += u"Not a shared terminal, so it opens only where it runs. "_s;
    return text;
}

QString spokenLabel(const Session& session, const Provider* provider, const QString& home)
{
    QStringList sentences;
    if (const std::optional<QString> where = place(session, home))
        sentences.append(*where + u'.');
    if (isCodexAgent(session))
        sentences.append(u"Codex."_s);
    sentences.append(u"Model: %1."_s.arg(chip(session, provider)));
    if (const std::optional<QString> tag = modeTag(session.permissionMode))
        sentences.append(u"Permission mode: %1."_s.arg(*tag));
    return sentences.join(u' ');
}

} // namespace SessionWords

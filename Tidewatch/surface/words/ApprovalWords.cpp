#include "surface/words/ApprovalWords.h"

#include "text/TimeWords.h"

#include <QJsonObject>

#include <algorithm>
#include <cmath>

using namespace Qt::StringLiterals;

namespace ApprovalWords {

namespace {

QString trimmed(const std::optional<QString>& text)
{
    return text ? text->trimmed() : QString();
}

bool isCodex(const Session* session)
{
    return session && (session->agent == u"codex"_s || session->providerId == u"codex"_s);
}

} // namespace

bool isToolRequest(const Approval& approval)
{
    return !approval.kind || *approval.kind == u"tool"_s;
}

QString toolName(const Approval& approval)
{
    QString name = trimmed(approval.toolName);
    if (!name.isEmpty())
        return name;
    const QString summary = trimmed(approval.summary);
    const qsizetype colon = summary.indexOf(u':');
    if (colon > 0) {
        QString before = summary.left(colon).trimmed();
        if (!before.isEmpty())
            return before;
    }
    return u"Tool"_s;
}

QString detail(const Approval& approval)
{
    if (approval.input && approval.input->isObject()) {
        const QJsonObject input = approval.input->toObject();
        for (const char* key : {"command", "file_path", "pattern", "query"}) {
            const QJsonValue value = input.value(QLatin1StringView(key));
            if (value.isString() && !value.toString().trimmed().isEmpty())
                return value.toString().trimmed();
        }
    }
    return trimmed(approval.summary);
}

CommandWell commandWell(const Approval& approval)
{
    return CommandWell{toolName(approval) == u"Bash"_s ? u"$"_s : u"›"_s, detail(approval)};
}

QList<ApprovalButton> buttons(const Approval& approval)
{
    QList<ApprovalButton> list{{u"Allow"_s, QString(), u"allow"_s}};
    if (approval.canAlways.value_or(false))
        list.append({u"Always"_s, u"Allow, and let Claude Code remember it for this kind of command"_s, u"always"_s});
    list.append({u"Deny"_s, QString(), u"deny"_s});
    if (approval.canSession.value_or(false)) {
        const QString tool = toolName(approval);
        const QString what = tool == u"WebFetch"_s ? u"web pages"_s
            : tool == u"WebSearch"_s               ? u"web searches"_s
                                                   : u"file reads"_s;
        list.append({u"Allow all %1 this session"_s.arg(what),
            u"This one, the others waiting in this session, and the rest of the session"_s, u"session"_s});
    }
    return list;
}

QString askSummary(const Approval& approval, const Session* session)
{
    const QString kind = approval.kind.value_or(QString());
    if (kind == u"question"_s && approval.questions && !approval.questions->isEmpty()) {
        const QString first = trimmed(approval.questions->first().question);
        if (!first.isEmpty()) {
            const qsizetype more = approval.questions->size() - 1;
            return more > 0 ? u"%1 (+%2 more)"_s.arg(first).arg(more) : first;
        }
    }
    if (kind == u"plan"_s)
        return u"A plan is ready"_s;
    QString summary = trimmed(approval.summary);
    if (!summary.isEmpty())
        return summary;
    return isCodex(session) ? u"Codex has a question"_s : u"Claude Code has a question"_s;
}

QString waitingLine(const Approval& approval, const Session* session)
{
    if (!isToolRequest(approval))
        return askSummary(approval, session);
    const QString summary = trimmed(approval.summary);
    return summary.isEmpty() ? detail(approval) : summary;
}

std::optional<ExpiryWords> expiry(const Approval& approval, const QDateTime& now)
{
    if (!approval.expiresAt)
        return std::nullopt;
    const double left = TimeWords::secondsFrom(now, *approval.expiresAt);
    if (!(left > 0))
        return std::nullopt;
    ExpiryWords words;
    if (left < 60) {
        words.text = u"under 1m left"_s;
        words.badge = u"auto-deny in under 1m"_s;
    } else {
        const qint64 minutes = qint64(std::min(left, 1e12) / 60);
        words.text = u"%1m left"_s.arg(minutes);
        words.badge = u"auto-deny in %1m"_s.arg(minutes);
    }
    words.emphasised = left < 120;
    words.ink = words.emphasised ? Ink::Amber : Ink::Muted;
    return words;
}

QString expiryHelp()
{
    return u"Unanswered approvals are denied after 10 minutes"_s;
}

QString foldedWords(const Approval& approval, const QString& decision)
{
    const bool denied = decision == u"deny"_s;
    if (approval.kind == u"plan"_s)
        return denied ? u"Kept planning"_s : u"Plan approved"_s;
    if (!isToolRequest(approval))
        return denied ? u"Skipped"_s : u"Answered"_s;
    if (decision == u"always"_s)
        return u"Always allowed"_s;
    if (decision == u"session"_s)
        return u"Allowed for this session"_s;
    return denied ? u"Denied"_s : u"Allowed"_s;
}

QString waitingHeading(qsizetype waiting)
{
    if (waiting <= 0)
        return u"answered"_s;
    return u"%1 waiting"_s.arg(waiting);
}

std::optional<QString> moreWaiting(qsizetype more)
{
    if (more <= 0)
        return std::nullopt;
    const bool several = more > 1;
    return u"%1 more waiting. Answer %2 on your phone or in %3"_s.arg(more).arg(
        several ? u"them"_s : u"it"_s, several ? u"their terminals."_s : u"its terminal."_s);
}

TerminalAnswerWords terminalAnswer(const Session* session, bool phonePaired)
{
    if (session && session->term) {
        const bool onMac = session->term->mac.value_or(0) >= 1;
        const bool onPhone = session->term->phone.value_or(0) >= 1;
        if (onPhone && !onMac)
            return {u"Answer it on your phone."_s, QString()};
        return {u"It’s waiting there."_s, u"Open terminal"_s};
    }
    if (session && session->origin == u"terminal"_s) {
        return {phonePaired ? u"Answer it on your phone, or in its terminal."_s : u"It’s waiting in its terminal."_s,
            QString()};
    }
    return {u"Answer it on your phone."_s, QString()};
}

} // namespace ApprovalWords

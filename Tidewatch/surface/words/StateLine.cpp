#include "surface/words/StateLine.h"

#include "surface/words/ApprovalWords.h"
#include "surface/words/SessionFacts.h"
#include "text/Machine.h"
#include "text/TimeWords.h"

#include <QRegularExpression>

using namespace Qt::StringLiterals;
using namespace SessionFacts;

Ink lineToneInk(LineTone tone)
{
    switch (tone) {
    case LineTone::Working:
        return Ink::Green;
    case LineTone::Attention:
        return Ink::Amber;
    case LineTone::Error:
        return Ink::Red;
    case LineTone::Plain:
        return Ink::Secondary;
    case LineTone::Quiet:
        return Ink::Muted;
    }
    return Ink::Muted;
}

double StateLine::opacity() const
{
    if (!blocked)
        return 1.0;
    return tone == LineTone::Attention ? 0.9 : 0.75;
}

namespace SessionWords {

namespace {

QString raiseFirst(QString text)
{
    if (!text.isEmpty())
        text[0] = text.at(0).toUpper();
    return text;
}

std::optional<BlockedWords> limitWords(
    const Session::Blocked& blocked, const Account* account, const QDateTime& now, const QLocale& locale)
{
    const QString resume = resumeState(blocked);
    // A limit that has lifted says nothing, unless a carry-on is still in hand.
    if (blocked.resetsAt && !after(blocked.resetsAt, now) && resume != u"armed"_s && resume != u"ready"_s)
        return std::nullopt;
    const QString name = limitName(blocked, account).toLower();
    if (resume == u"ready"_s)
        return BlockedWords{name + u" over, ready to continue"_s, false};
    if (after(blocked.autoResumeAt, now)) {
        return BlockedWords{
            u"%1 until %2, then carries on"_s.arg(name, TimeWords::timeOfDay(*blocked.autoResumeAt, now, locale)),
            false};
    }
    if (after(blocked.resetsAt, now))
        return BlockedWords{u"%1 until %2"_s.arg(name, TimeWords::timeOfDay(*blocked.resetsAt, now, locale)), false};
    if (blocked.kind != u"model"_s)
        return BlockedWords{u"paused at the "_s + name, false};
    return BlockedWords{u"this model isn’t available"_s, true};
}

} // namespace

std::optional<QString> plainLine(const std::optional<QString>& lastText)
{
    if (!lastText)
        return std::nullopt;
    static const QRegularExpression lineEnd(u"\r\n|\n|\r"_s);
    const QStringList lines = lastText->split(lineEnd);
    for (const QString& raw : lines) {
        QString line = raw.trimmed();
        qsizetype start = 0;
        while (start < line.size()) {
            const QChar c = line.at(start);
            if (c != u'#' && c != u'*' && c != u'-' && c != u' ' && c != u'\t')
                break;
            ++start;
        }
        line = line.mid(start).remove(u"**"_s).remove(u'`').trimmed();
        if (!line.isEmpty())
            return line;
    }
    return std::nullopt;
}

StateLine stateLine(const Session& session, const Approval* approval, const Provider* provider, const Account* account,
    const QDateTime& now, const QLocale& locale)
{
    if (approval)
        return StateLine{ApprovalWords::waitingLine(*approval, &session), LineTone::Attention};
    const auto activityOr = [&](const QString& fallback) {
        const QString activity = trimmed(session.activity);
        return activity.isEmpty() ? fallback : activity;
    };
    if (isState(session, u"needs_you"))
        return StateLine{activityOr(u"waiting for your answer"_s), LineTone::Attention};
    if (isState(session, u"starting"))
        return StateLine{activityOr(u"starting…"_s), LineTone::Working};
    if (isState(session, u"working")) {
        StateLine line{activityOr(u"working…"_s), LineTone::Working};
        line.thinking = line.text == u"Thinking"_s;
        return line;
    }
    if (isState(session, u"error"))
        return StateLine{u"stopped on an error"_s, LineTone::Error};
    if (const std::optional<BlockedWords> words = blockedWords(session, provider, account, now, locale)) {
        StateLine line{words->text, words->attention ? LineTone::Attention : LineTone::Plain};
        line.blocked = true;
        return line;
    }
    if (session.stoppedForAway.value_or(false))
        return StateLine{u"paused after 10 minutes without an answer"_s, LineTone::Attention};
    if (const std::optional<QString> line = plainLine(session.lastText))
        return StateLine{*line, LineTone::Plain};
    return StateLine{u"waiting for your next prompt"_s, LineTone::Quiet};
}

std::optional<BlockedWords> blockedWords(const Session& session, const Provider* provider, const Account* account,
    const QDateTime& now, const QLocale& locale)
{
    if (!isState(session, u"idle") || !session.blocked || !session.blocked->kind)
        return std::nullopt;
    const Session::Blocked& blocked = *session.blocked;
    const QString kind = *blocked.kind;
    if (kind == u"limit"_s || kind == u"model"_s)
        return limitWords(blocked, account, now, locale);
    if (kind == u"logged_out"_s)
        return BlockedWords{u"signed out on "_s + machine::theMachine(), true};
    if (kind == u"no_subscription"_s)
        return BlockedWords{u"can’t reply without a Claude plan"_s, true};
    if (kind == u"on_hold"_s)
        return BlockedWords{u"account on hold"_s, true};
    if (kind == u"no_credit"_s)
        return BlockedWords{u"out of usage credits"_s, true};
    if (kind == u"provider"_s)
        return providerWords(blocked, provider, now, locale);
    const QString text = trimmed(blocked.text);
    return BlockedWords{text.isEmpty() ? u"paused"_s : text, false};
}

QString accountLimitName(const Account::Limit& limit)
{
    const QString label = trimmed(limit.label);
    if (!label.isEmpty())
        return raiseFirst(label);
    const QString window = limit.window.value_or(QString());
    if (window == u"seven_day"_s)
        return u"Weekly limit"_s;
    if (window == u"model"_s)
        return u"Model limit"_s;
    if (window == u"credits"_s)
        return u"Usage credit limit"_s;
    return u"Session limit"_s;
}

QString limitName(const Session::Blocked& blocked, const Account* account)
{
    const bool modelBlock = blocked.kind == u"model"_s;
    if (account && account->limit && modelBlock == (account->limit->window == u"model"_s))
        return accountLimitName(*account->limit);
    if (blocked.text) {
        static const QRegularExpression hit(u"hit your ([^·]+?)\\s*(·|$)"_s);
        const QRegularExpressionMatch match = hit.match(*blocked.text);
        if (match.hasMatch()) {
            const QString name = match.captured(0).remove(u"hit your "_s).remove(u'·').trimmed();
            if (!name.isEmpty())
                return raiseFirst(name);
        }
    }
    return modelBlock ? u"Model limit"_s : u"Session limit"_s;
}

BlockedWords providerWords(
    const Session::Blocked& blocked, const Provider* provider, const QDateTime& now, const QLocale& locale)
{
    if (!provider) {
        const QString text = trimmed(blocked.text);
        return BlockedWords{text.isEmpty() ? u"its provider can’t reply"_s : text, true};
    }
    const QString& name = provider->name;
    const QString resume = resumeState(blocked);
    if (resume == u"armed"_s && after(blocked.resume->at, now)) {
        return BlockedWords{
            u"%1 carries on by itself at %2"_s.arg(name, TimeWords::timeOfDay(*blocked.resume->at, now, locale)),
            false};
    }
    if (resume == u"ready"_s)
        return BlockedWords{name + u" is ready to continue"_s, false};
    const QString state = provider->status ? provider->status->state.value_or(QString()) : QString();
    if (state == u"no_credit"_s) {
        const bool budget = provider->status->budget.value_or(false);
        return BlockedWords{name + (budget ? u" reached its budget"_s : u" is out of credits"_s), true};
    }
    if (state == u"bad_key"_s)
        return BlockedWords{name + u" refused its key"_s, true};
    if (state == u"limited"_s) {
        if (after(provider->status->resetsAt, now)) {
            return BlockedWords{u"%1 is rate limited until %2"_s.arg(
                                    name, TimeWords::timeOfDay(*provider->status->resetsAt, now, locale)),
                false};
        }
        return BlockedWords{name + u" is rate limited"_s, false};
    }
    if (state == u"down"_s)
        return BlockedWords{name + u" isn’t answering"_s, false};
    return BlockedWords{name + u" can’t reply"_s, true};
}

} // namespace SessionWords

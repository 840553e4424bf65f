#include "surface/words/SessionWords.h"

#include "surface/words/ApprovalWords.h"
#include "text/TimeWords.h"

#include <QRegularExpression>

#include <algorithm>
#include <limits>

using namespace Qt::StringLiterals;

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

QString trimmed(const std::optional<QString>& text)
{
    return text ? text->trimmed() : QString();
}

QString raiseFirst(QString text)
{
    if (!text.isEmpty())
        text[0] = text.at(0).toUpper();
    return text;
}

bool isState(const Session& session, QStringView state)
{
    return session.state && *session.state == state;
}

bool isCodexAgent(const Session& session)
{
    return session.agent == u"codex"_s;
}

bool after(const std::optional<FlexDate>& date, const QDateTime& now)
{
    return date && date->msecsSinceEpoch > now.toMSecsSinceEpoch();
}

QString resumeState(const Session::Blocked& blocked)
{
    return blocked.resume ? blocked.resume->state.value_or(QString()) : QString();
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

QString title(const Session& session)
{
    const QString own = trimmed(session.title);
    if (!own.isEmpty())
        return own;
    const QString project = trimmed(session.projectName);
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

QString modelChip(const QString& model)
{
    const QString whole = model.trimmed();
    QString tail = whole.mid(whole.lastIndexOf(u'/') + 1);
    if (tail.size() >= 8 && tail.startsWith(u"claude-"_s, Qt::CaseInsensitive))
        tail = tail.mid(7);
    tail = tail.trimmed();
    return tail.isEmpty() ? whole : tail;
}

std::optional<QString> modelFamily(const QString& model)
{
    const QString chip = modelChip(model);
    static const QRegularExpression blank(u"\\s"_s);
    static const QRegularExpression dashDigit(u"-\\d"_s);
    const qsizetype space = chip.indexOf(blank);
    QString family;
    if (space > 0) {
        family = chip.left(space);
    } else {
        const QRegularExpressionMatch match = dashDigit.match(chip);
        if (match.hasMatch())
            family = chip.left(match.capturedStart());
    }
    if (family.isEmpty())
        return std::nullopt;
    return family;
}

const Provider* providerOf(const Session& session, const QList<Provider>& providers)
{
    if (!session.providerId)
        return nullptr;
    for (const Provider& provider : providers) {
        if (provider.id == *session.providerId)
            return &provider;
    }
    return nullptr;
}

QString chip(const Session& session, const Provider* provider)
{
    if (!trimmed(session.model).isEmpty())
        return modelChip(*session.model);
    if (provider && provider->kind != u"anthropic"_s && provider->models
        && !trimmed(provider->models->defaultModel).isEmpty())
        return modelChip(*provider->models->defaultModel);
    return u"default model"_s;
}

std::optional<QString> modeTag(const std::optional<QString>& permissionMode)
{
    if (!permissionMode)
        return std::nullopt;
    static const QList<std::pair<QString, QString>> tags{
        {u"default"_s, u"ask first"_s},
        {u"acceptEdits"_s, u"accept edits"_s},
        {u"plan"_s, u"plan"_s},
        {u"auto"_s, u"auto"_s},
        {u"bypassPermissions"_s, u"bypass"_s},
        {u"dontAsk"_s, u"allowed only"_s},
        {u"read-only"_s, u"read only"_s},
        {u"workspace-write"_s, u"can edit"_s},
    };
    for (const auto& [mode, tag] : tags) {
        if (mode == *permissionMode)
            return tag;
    }
    return *permissionMode;
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
        return BlockedWords{u"signed out on the Mac"_s, true};
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

QList<RowAction> actions(const Session& session, const Provider* provider, const Account* account, const QDateTime& now,
    const QLocale& locale, bool continuing)
{
    using Act = RowAction::Act;
    if (continuing || !isState(session, u"idle"))
        return {};
    const bool hasWords = blockedWords(session, provider, account, now, locale).has_value();
    if (!hasWords && session.stoppedForAway.value_or(false))
        return {{Act::Continue, u"Continue"_s, u"Tell it you're back, so it carries on"_s}};
    if (!session.blocked)
        return {};
    const Session::Blocked& blocked = *session.blocked;
    const QString resume = resumeState(blocked);
    const RowAction continueNow{
        Act::ContinueNow, u"Continue now"_s, u"Carry on now, without waiting for the time it named"_s};
    if (resume == u"ready"_s)
        return {{Act::Continue, u"Continue"_s, u"Carry on where the limit stopped it"_s}};
    if (resume == u"armed"_s) {
        if (blocked.resume->canCancel.value_or(false))
            return {{Act::CancelResume, u"Don’t"_s, u"Don’t carry on by itself after the limit"_s}, continueNow};
        return {continueNow};
    }
    if (resume == u"off"_s && blocked.resume->canArm.value_or(false))
        return {{Act::ArmResume, u"Continue automatically"_s, u"Carry on by itself once the limit lifts"_s}};
    if (blocked.kind == u"provider"_s && provider && provider->status) {
        const QString state = provider->status->state.value_or(QString());
        if (state == u"no_credit"_s && provider->kind == u"openrouter"_s)
            return {{Act::TopUp, u"Top up"_s, u"Top up OpenRouter in the browser"_s}};
        if (state == u"bad_key"_s)
            return {{Act::FixKey, u"Fix key"_s, u"Paste a new key for "_s + provider->name}};
        if (state == u"down"_s || state == u"limited"_s)
            return {{Act::TryAgain, u"Try again"_s, u"Try %1 again now"_s.arg(provider->name)}};
    }
    return {};
}

SmallPrint smallPrint(const Session& session, bool speaking)
{
    SmallPrint print;
    const qint64 queued = session.queued.value_or(0);
    if (queued >= 1)
        print.queued = u"%1 queued"_s.arg(queued);
    const qint64 agents = session.agentsRunning.value_or(0);
    if (agents == 1)
        print.agents = u"1 agent"_s;
    else if (agents > 1)
        print.agents = u"%1 agents"_s.arg(agents);
    print.onPhone = session.term && session.term->phone.value_or(0) >= 1;
    print.speaking = speaking;
    return print;
}

QString phoneMarkHelp()
{
    return u"Open on a phone right now"_s;
}

QString speakingHelp()
{
    return u"Its reply is being read aloud"_s;
}

bool opensTerminal(const Session& session)
{
    return session.term.has_value() || isCodexAgent(session);
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

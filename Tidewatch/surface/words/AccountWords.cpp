#include "surface/words/AccountWords.h"

#include "surface/words/StateLine.h"
#include "text/Machine.h"
#include "text/TimeWords.h"

using namespace Qt::StringLiterals;

namespace AccountWords {

namespace {

// The vendor's page that explains a restricted account.
const QUrl kRestrictedPage(u"https://claude.ai/restricted"_s);

bool after(const std::optional<FlexDate>& date, const QDateTime& now)
{
    return date && date->msecsSinceEpoch > now.toMSecsSinceEpoch();
}

QString withText(const Account& account, const QString& help)
{
    QString text = account.text ? account.text->trimmed() : QString();
    if (text.isEmpty())
        return help;
    if (help.isEmpty())
        return text;
    return text + u"\n\n"_s + help;
}

AccountContent amber(const QString& title, std::optional<QString> detail, const QString& help)
{
    AccountContent card;
    card.title = title;
    card.detail = std::move(detail);
    card.amber = true;
    card.help = help;
    return card;
}

AccountContent withSignIn(AccountContent card, const QString& title, bool signingIn)
{
    card.action = title;
    card.act = AccountContent::Act::SignIn;
    card.busy = signingIn;
    return card;
}

std::optional<AccountContent> loginCard(const Account::Login& login, bool signingIn, bool setupSignIn)
{
    const QString state = login.state.value_or(QString());
    if (state == u"waiting_code"_s) {
        if (login.where == u"phone"_s) {
            return amber(u"Signing in on your phone"_s, u"It’s waiting for the code there."_s,
                u"A sign-in started on your phone is waiting for its code there."_s);
        }
        if (setupSignIn) {
            AccountContent card = amber(u"Signing in, in Setup"_s, u"Paste the code from the sign-in page there."_s,
                u"A sign-in started in Setup is waiting for the code its page shows."_s);
            card.action = u"Open setup"_s;
            card.act = AccountContent::Act::Setup;
            return card;
        }
        AccountContent card = amber(u"Signing in…"_s, u"Finish in your browser."_s,
            u"Approve Claude Code on the page in your browser. If it shows a code, paste it "
            "into the terminal window that opened."_s);
        const QUrl url(login.url.value_or(QString()));
        if (login.url && url.isValid() && !url.isEmpty()) {
            card.action = u"Open page"_s;
            card.act = AccountContent::Act::Open;
            card.url = url;
        }
        return card;
    }
    if (state == u"failed"_s) {
        const QString error = login.error ? login.error->trimmed() : QString();
        return withSignIn(amber(u"Sign-in didn’t finish"_s, u"Claude Code is still signed out."_s,
                              error.isEmpty() ? u"Claude Code didn’t finish signing in."_s : error),
            u"Try again"_s, signingIn);
    }
    return amber(
        u"Signing in…"_s, std::nullopt, u"Claude Code is signing in. Its terminal window shows how it’s going."_s);
}

std::optional<AccountContent> limitedCard(
    const Account& account, const QDateTime& now, const QLocale& locale, bool beside)
{
    if (!account.limit)
        return std::nullopt;
    const Account::Limit& limit = *account.limit;
    if (limit.resetsAt && !after(limit.resetsAt, now))
        return std::nullopt;
    const QString name = SessionWords::accountLimitName(limit);
    AccountContent card;
    if (limit.usingCredits.value_or(false)) {
        card.title = name + u" reached"_s;
        card.detail = u"Claude Code is on usage credits."_s;
        card.help = u"Claude Code carries on on usage credits."_s;
        return card;
    }
    card.title = name;
    if (after(limit.resetsAt, now))
        card.title += u" until "_s + TimeWords::timeOfDay(*limit.resetsAt, now, locale);
    // A moment within 20 hours reads "at 2:05 PM"; further off, the day alone.
    const auto when = [&](const FlexDate& date) {
        return TimeWords::withinClockRange(date, now) ? u"at "_s + TimeWords::clockTime(date, now, locale)
                                                      : TimeWords::weekdayTime(date, now, locale);
    };
    if (after(limit.autoResumeAt, now)) {
        card.detail = beside ? u"Claude Code’s sessions carry on by themselves then."_s
                             : u"Sessions carry on by themselves then."_s;
        card.help = u"Claude Code carries on by itself %1."_s.arg(when(*limit.autoResumeAt));
    } else if (after(limit.resetsAt, now)) {
        card.detail = u"Claude Code can reply again then."_s;
        card.help = u"It lifts %1."_s.arg(when(*limit.resetsAt));
    } else {
        card.detail = u"Claude Code can’t reply for now."_s;
    }
    return card;
}

QString noSubscriptionTitle(const QString& reason)
{
    if (reason == u"ended"_s || reason == u"trial_ended"_s)
        return u"Claude plan ended"_s;
    if (reason == u"downgraded"_s || reason == u"org_disabled"_s)
        return u"Plan doesn’t cover Claude Code"_s;
    if (reason == u"rejected"_s)
        return u"Claude plan may have ended"_s;
    return u"No Claude plan"_s;
}

QString noCreditTitle(const QString& reason)
{
    if (reason == u"spend_cap"_s)
        return u"Spending limit reached"_s;
    if (reason == u"api_credit"_s)
        return u"Credit balance too low"_s;
    return u"Out of usage credits"_s;
}

bool tooOld(const Codex& codex)
{
    return !codex.available && (codex.version || codex.min);
}

} // namespace

QString key(const Account& account)
{
    const std::optional<Account::Limit>& limit = account.limit;
    const QString window = limit ? limit->window.value_or(QString()) : QString();
    const QString resets
        = limit && limit->resetsAt ? QString::number(limit->resetsAt->msecsSinceEpoch / 1000) : QString();
    const QString login = account.login ? account.login->state.value_or(QString()) : QString();
    return QStringList{account.state, window, resets, login}.join(u'/');
}

std::optional<AccountContent> content(
    const Account& account, const QDateTime& now, const QLocale& locale, bool signingIn, bool beside, bool setupSignIn)
{
    std::optional<AccountContent> card;
    const QString state = account.state;
    const QString reason = account.reason.value_or(QString());
    if (account.login && account.login->state != u"ok"_s) {
        card = loginCard(*account.login, signingIn, setupSignIn);
    } else if (state == u"logged_out"_s) {
        card = withSignIn(amber(beside ? u"Claude Code is signed out"_s : u"Signed out"_s,
                              beside ? u"Its sessions can’t reply. Codex keeps working."_s
                                     : u"Sessions on your subscription can’t reply."_s,
                              u"Claude Code is signed out on %1, so sessions on your subscription can’t "
                              "reply. Sign in opens a terminal window and your browser."_s.arg(machine::thisMachine())),
            u"Sign in"_s, signingIn);
    } else if (state == u"no_subscription"_s) {
        card = withSignIn(
            amber(noSubscriptionTitle(reason), u"Renew Pro or Max on the Claude site, then sign in again."_s,
                u"Renew Pro or Max on the Claude site, then sign in again. Sessions on another "
                "provider"_s
                    + (beside ? u", and Codex’s,"_s : QString()) + u" keep working."_s),
            u"Sign in"_s, signingIn);
    } else if (state == u"on_hold"_s) {
        card = amber(beside ? u"Claude Code’s account is on hold"_s : u"Account on hold"_s,
            u"Anthropic has put this account on hold."_s,
            u"Anthropic has put this account on hold. The page explains why and how to appeal."_s);
        card->action = u"Details"_s;
        card->act = AccountContent::Act::Open;
        card->url = kRestrictedPage;
    } else if (state == u"no_credit"_s) {
        const std::optional<FlexDate> resets = account.limit ? account.limit->resetsAt : std::nullopt;
        card = amber(noCreditTitle(reason),
            after(resets, now) ? u"Claude Code can’t reply until %1."_s.arg(TimeWords::timeOfDay(*resets, now, locale))
                               : u"Claude Code can’t reply until you add credits."_s,
            u"Claude Code can’t reply until the limit resets or you add credits."_s);
    } else if (state == u"limited"_s) {
        card = limitedCard(account, now, locale, beside);
    }
    if (card) {
        card->help = withText(account, card->help);
        card->key = key(account);
    }
    return card;
}

std::optional<CodexCardWords> codexCard(const Codex& codex)
{
    if (tooOld(codex)) {
        const QString bracket = codex.version ? u" (this one is %1)"_s.arg(*codex.version) : QString();
        const QString need
            = codex.min ? u"Tidewatch needs Codex %1 or later"_s.arg(*codex.min) : u"Tidewatch needs a newer Codex"_s;
        return CodexCardWords{CodexCardWords::Case::TooOld, u"Codex needs an update"_s, true,
            need + bracket + u". Run codex update in a terminal."_s};
    }
    const QString problem = codex.problem ? codex.problem->trimmed() : QString();
    if (!problem.isEmpty()) {
        return CodexCardWords{
            CodexCardWords::Case::Unreachable, u"Can’t reach Codex"_s, false, problem + u" Tidewatch keeps trying."_s};
    }
    if (codex.account && codex.account->signedIn == false) {
        return CodexCardWords{CodexCardWords::Case::SignedOut, u"Codex is signed out"_s, true,
            u"Run codex login in a terminal; it shows here once you’re signed in."_s};
    }
    return std::nullopt;
}

std::optional<CodexAccountCardWords> codexAccountCard(const Codex& codex, bool lead)
{
    const std::optional<CodexCardWords> card = codexCard(codex);
    if (!lead || !card || !card->raisesDot)
        return std::nullopt;
    if (card->which == CodexCardWords::Case::TooOld) {
        return CodexAccountCardWords{card->title,
            codex.min ? u"Tidewatch needs Codex %1 or later. Run codex update."_s.arg(*codex.min)
                      : u"Run codex update in a terminal."_s,
            u"Open"_s, CodexAccountCardWords::Act::OpenSetup,
            card->detail + u" Setup’s Codex step has the line to copy."_s,
            u"too-old/"_s + codex.version.value_or(QString())};
    }
    return CodexAccountCardWords{card->title, u"Its sessions can’t reply until you sign in."_s, u"Sign in"_s,
        CodexAccountCardWords::Act::SignIn,
        u"Codex is signed out on %1. Sign in opens a terminal window running codex "
        "login, and your browser."_s.arg(machine::thisMachine()),
        u"signed-out"_s};
}

std::optional<CodexLine> codexLine(const Codex& codex, bool beside)
{
    const std::optional<CodexCardWords> card = codexCard(codex);
    if (!card)
        return std::nullopt;
    CodexLine line;
    line.text = card->title;
    line.label = beside ? u"Codex"_s : QString();
    line.ink = card->raisesDot ? Ink::Amber : Ink::Secondary;
    line.opacity = card->raisesDot ? 0.9 : 1.0;
    line.spoken = u"Codex: "_s + card->title;
    return line;
}

std::optional<QString> codexAccountWords(const Codex& codex)
{
    if (!codex.account || codex.account->signedIn != true)
        return std::nullopt;
    const QString type = codex.account->type.value_or(QString());
    if (type == u"apiKey"_s)
        return u"Signed in with an API key"_s;
    if (type != u"chatgpt"_s)
        return std::nullopt;
    const QString plan = codex.account->planType ? codex.account->planType->trimmed() : QString();
    return plan.isEmpty() ? u"Signed in with ChatGPT"_s : u"Signed in with ChatGPT "_s + planName(plan);
}

QString planName(const QString& planType)
{
    static const QList<std::pair<QString, QString>> names{
        {u"prolite"_s, u"Pro Lite"_s},
        {u"pro"_s, u"Pro"_s},
        {u"plus"_s, u"Plus"_s},
        {u"go"_s, u"Go"_s},
        {u"free"_s, u"Free"_s},
        {u"team"_s, u"Team"_s},
        {u"business"_s, u"Business"_s},
        {u"enterprise"_s, u"Enterprise"_s},
        {u"edu"_s, u"Edu"_s},
    };
    const QString lower = planType.toLower();
    for (const auto& [type, name] : names) {
        if (type == lower)
            return name;
    }
    QString raised = planType;
    if (!raised.isEmpty())
        raised[0] = raised.at(0).toUpper();
    return raised;
}

} // namespace AccountWords

#include "link/Account.h"
#include "link/Codex.h"
#include "surface/words/AccountWords.h"

#include "Fixture.h"

#include <QJsonDocument>
#include <QTest>
#include <QTimeZone>

using namespace Qt::StringLiterals;

namespace {

using Fixture::now;

constexpr auto account = &Fixture::record<Account>;
constexpr auto codex = &Fixture::record<Codex>;

} // namespace

class TestAccountWords : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void card_data();
    void card();
    void actions();
    void helpAndKey();
    void codexCard_data();
    void codexCard();
    void codexAccountWords_data();
    void codexAccountWords();
};

void TestAccountWords::card_data()
{
    QTest::addColumn<QByteArray>("account");
    QTest::addColumn<bool>("beside");
    QTest::addColumn<QString>("title");
    QTest::addColumn<QString>("detail");
    QTest::addColumn<bool>("amber");
    QTest::addColumn<QString>("help");

    const QString none;
    QTest::newRow("fine") << QByteArray(R"({"state":"ok","login":{"state":"ok"}})") << false << none << none << false
                          << none;
    QTest::newRow("a state not known") << QByteArray(R"({"state":"melting"})") << false << none << none << false
                                       << none;
    QTest::newRow("signed out, Claude Code alone")
        << QByteArray(R"({"state":"logged_out","reason":"expired"})") << false << u"Signed out"_s
        << u"Sessions on your subscription can’t reply."_s << true
        << u"Claude Code is signed out on this Mac, so sessions on your subscription can't reply. Sign in opens a "
           "terminal window and your browser."_s;
    QTest::newRow("signed out beside Codex")
        << QByteArray(R"({"state":"logged_out","reason":"expired"})") << true << u"Claude Code is signed out"_s
        << u"Its sessions can’t reply. Codex keeps working."_s << true
        << u"Claude Code is signed out on this Mac, so sessions on your subscription can't reply. Sign in opens a "
           "terminal window and your browser."_s;
    QTest::newRow("a sign-in runs first, whatever the state")
        << QByteArray(R"({"state":"logged_out","login":{}})") << false << u"Signing in…"_s << none << true
        << u"Claude Code is signing in. Its terminal window shows how it's going."_s;
    QTest::newRow("a code awaited on the phone")
        << QByteArray(R"({"state":"logged_out","login":{"state":"waiting_code","where":"phone"}})") << false
        << u"Signing in on your phone"_s << u"It’s waiting for the code there."_s << true
        << u"A sign-in started on your phone is waiting for its code there."_s;
    QTest::newRow("a failed sign-in keeps its error")
        << QByteArray(R"({"state":"logged_out","login":{"state":"failed","error":"Port busy."}})") << false
        << u"Sign-in didn’t finish"_s << u"Claude Code is still signed out."_s << true << u"Port busy."_s;
    QTest::newRow("a failed sign-in with a blank error")
        << QByteArray(R"({"state":"logged_out","login":{"state":"failed","error":"  "}})") << false
        << u"Sign-in didn’t finish"_s << u"Claude Code is still signed out."_s << true
        << u"Claude Code didn't finish signing in."_s;
    QTest::newRow("plan ended")
        << QByteArray(R"({"state":"no_subscription","reason":"trial_ended"})") << false << u"Claude plan ended"_s
        << u"Renew Pro or Max on the Claude site, then sign in again."_s << true
        << u"Renew Pro or Max on the Claude site, then sign in again. Sessions on another provider keep working."_s;
    QTest::newRow("plan doesn't cover it, beside Codex")
        << QByteArray(R"({"state":"no_subscription","reason":"org_disabled"})") << true
        << u"Plan doesn’t cover Claude Code"_s << u"Renew Pro or Max on the Claude site, then sign in again."_s << true
        << u"Renew Pro or Max on the Claude site, then sign in again. Sessions on another provider, and Codex's, keep "
           "working."_s;
    QTest::newRow("plan rejected")
        << QByteArray(R"({"state":"no_subscription","reason":"rejected"})") << false << u"Claude plan may have ended"_s
        << u"Renew Pro or Max on the Claude site, then sign in again."_s << true
        << u"Renew Pro or Max on the Claude site, then sign in again. Sessions on another provider keep working."_s;
    QTest::newRow("no plan, no reason")
        << QByteArray(R"({"state":"no_subscription"})") << false << u"No Claude plan"_s
        << u"Renew Pro or Max on the Claude site, then sign in again."_s << true
        << u"Renew Pro or Max on the Claude site, then sign in again. Sessions on another provider keep working."_s;
    QTest::newRow("on hold beside Codex")
        << QByteArray(R"({"state":"on_hold"})") << true << u"Claude Code’s account is on hold"_s
        << u"Anthropic has put this account on hold."_s << true
        << u"Anthropic has put this account on hold. The page explains why and how to appeal."_s;
    QTest::newRow("spending cap with a reset ahead")
        << QByteArray(R"({"state":"no_credit","reason":"spend_cap","limit":{"resetsAt":"@7200"}})") << false
        << u"Spending limit reached"_s << u"Claude Code can’t reply until 12:53 PM."_s << true
        << u"Claude Code can't reply until the limit resets or you add credits."_s;
    QTest::newRow("credit too low, reset passed")
        << QByteArray(R"({"state":"no_credit","reason":"api_credit","limit":{"resetsAt":"@-1"}})") << false
        << u"Credit balance too low"_s << u"Claude Code can’t reply until you add credits."_s << true
        << u"Claude Code can't reply until the limit resets or you add credits."_s;
    QTest::newRow("a session limit two hours ahead")
        << QByteArray(
               R"({"state":"limited","limit":{"window":"five_hour","label":"session limit","resetsAt":"@7200"}})")
        << false << u"Session limit until 12:53 PM"_s << u"Claude Code can reply again then."_s << false
        << u"It lifts at 12:53 PM."_s;
    QTest::newRow("a weekly limit days ahead, carrying on")
        << QByteArray(
               R"({"state":"limited","limit":{"window":"seven_day","resetsAt":"@172800","autoResumeAt":"@172860"}})")
        << true << u"Weekly limit until Sat 10:53 AM"_s << u"Claude Code’s sessions carry on by themselves then."_s
        << false << u"Claude Code carries on by itself Sat 10:54 AM."_s;
    QTest::newRow("a limit with no reset")
        << QByteArray(R"({"state":"limited","limit":{"window":"credits"}})") << false << u"Usage credit limit"_s
        << u"Claude Code can’t reply for now."_s << false << u""_s;
    QTest::newRow("a limit that lifted exactly now")
        << QByteArray(R"({"state":"limited","limit":{"window":"five_hour","resetsAt":"@0"}})") << false << none << none
        << false << none;
    QTest::newRow("limited without a limit")
        << QByteArray(R"({"state":"limited"})") << false << none << none << false << none;
    QTest::newRow("on usage credits") << QByteArray(
        R"({"state":"limited","limit":{"window":"five_hour","resetsAt":"@600","usingCredits":true}})")
                                      << false << u"Session limit reached"_s << u"Claude Code is on usage credits."_s
                                      << false << u"Claude Code carries on on usage credits."_s;
}

void TestAccountWords::card()
{
    QFETCH(QByteArray, account);
    QFETCH(bool, beside);
    QFETCH(QString, title);
    QFETCH(QString, detail);
    QFETCH(bool, amber);
    QFETCH(QString, help);
    const std::optional<AccountContent> card
        = AccountWords::content(::account(account), now(), QLocale(u"en_US"_s), false, beside);
    QCOMPARE(card.has_value(), !title.isNull());
    if (!card)
        return;
    QCOMPARE(card->title, title);
    QCOMPARE(card->detail.value_or(QString()), detail);
    QCOMPARE(card->amber, amber);
    QCOMPARE(card->help, help);
}

void TestAccountWords::actions()
{
    const QLocale en(u"en_US"_s);
    std::optional<AccountContent> card
        = AccountWords::content(account(R"({"state":"logged_out"})"), now(), en, true, false);
    QCOMPARE(card->action, u"Sign in"_s);
    QCOMPARE(card->act, AccountContent::Act::SignIn);
    QVERIFY(card->busy);

    card = AccountWords::content(account(R"({"state":"on_hold"})"), now(), en, false, false);
    QCOMPARE(card->act, AccountContent::Act::Open);
    QCOMPARE(card->url.path(), u"/restricted"_s);

    const Account waiting = account(R"({"state":"logged_out","login":{"state":"waiting_code","url":"https://x/y"}})");
    card = AccountWords::content(waiting, now(), en, false, false);
    QCOMPARE(card->detail, u"Finish in your browser."_s);
    QCOMPARE(card->action, u"Open page"_s);
    QCOMPARE(card->url, QUrl(u"https://x/y"_s));
    card = AccountWords::content(waiting, now(), en, false, false, true);
    QCOMPARE(card->title, u"Signing in, in Setup"_s);
    QCOMPARE(card->act, AccountContent::Act::Setup);
    card = AccountWords::content(
        account(R"({"state":"logged_out","login":{"state":"waiting_code"}})"), now(), en, false, false);
    QCOMPARE(card->action, std::nullopt);

    card = AccountWords::content(account(R"({"state":"no_credit"})"), now(), en, false, false);
    QCOMPARE(card->action, std::nullopt);
}

void TestAccountWords::helpAndKey()
{
    const Account limited = account(R"({"state":"limited","text":" You've hit your limit. ",
        "limit":{"window":"five_hour","resetsAt":"@7200"},"login":{"state":"ok"}})");
    const std::optional<AccountContent> card = AccountWords::content(limited, now(), QLocale(u"de_DE"_s), false, false);
    QCOMPARE(card->help, u"You've hit your limit.\n\nIt lifts at 12:53."_s);
    QCOMPARE(card->key, u"limited/five_hour/%1/ok"_s.arg(Fixture::kNowMs / 1000 + 7200));
    QCOMPARE(AccountWords::key(account(R"({"state":"logged_out"})")), u"logged_out///"_s);
    // A new reset is a new state: a dismissed card comes back.
    QVERIFY(AccountWords::key(limited)
        != AccountWords::key(account(R"({"state":"limited","limit":{"window":"five_hour","resetsAt":"@9000"},
                                             "login":{"state":"ok"}})")));
}

void TestAccountWords::codexCard_data()
{
    QTest::addColumn<QByteArray>("codex");
    QTest::addColumn<bool>("lead");
    QTest::addColumn<QString>("title");
    QTest::addColumn<bool>("dot");
    QTest::addColumn<QString>("detail");
    QTest::addColumn<QString>("line");
    QTest::addColumn<QString>("key");

    QTest::newRow("too old, both versions")
        << QByteArray(R"({"available":false,"version":"0.150.2","min":"0.163.0","account":{"signedIn":false}})") << true
        << u"Codex needs an update"_s << true
        << u"Tidewatch needs Codex 0.163.0 or later (this one is 0.150.2). Run codex update in a terminal."_s
        << u"Tidewatch needs Codex 0.163.0 or later. Run codex update."_s << u"too-old/0.150.2"_s;
    QTest::newRow("too old, no minimum")
        << QByteArray(R"({"version":"0.9"})") << true << u"Codex needs an update"_s << true
        << u"Tidewatch needs a newer Codex (this one is 0.9). Run codex update in a terminal."_s
        << u"Run codex update in a terminal."_s << u"too-old/0.9"_s;
    QTest::newRow("too old, no version") << QByteArray(R"({"min":"1.0"})") << true << u"Codex needs an update"_s << true
                                         << u"Tidewatch needs Codex 1.0 or later. Run codex update in a terminal."_s
                                         << u"Tidewatch needs Codex 1.0 or later. Run codex update."_s << u"too-old/"_s;
    QTest::newRow("unreachable raises no dot, so no card")
        << QByteArray(R"({"available":true,"problem":" Socket closed. ","account":{"signedIn":false}})") << true
        << u"Can’t reach Codex"_s << false << u"Socket closed. Tidewatch keeps trying."_s << u""_s << u""_s;
    QTest::newRow("a problem of blanks is none")
        << QByteArray(R"({"available":true,"problem":"  ","account":{"signedIn":false}})") << true
        << u"Codex is signed out"_s << true << u"Run codex login in a terminal; it shows here once you're signed in."_s
        << u"Its sessions can’t reply until you sign in."_s << u"signed-out"_s;
    QTest::newRow("signed out beside Claude Code has no card")
        << QByteArray(R"({"available":true,"account":{"signedIn":false}})") << false << u"Codex is signed out"_s << true
        << u"Run codex login in a terminal; it shows here once you're signed in."_s << u""_s << u""_s;
    QTest::newRow("not known to be signed out")
        << QByteArray(R"({"available":true,"account":{}})") << true << u""_s << false << u""_s << u""_s << u""_s;
    QTest::newRow("missing and never found")
        << QByteArray(R"({"available":false})") << true << u""_s << false << u""_s << u""_s << u""_s;
}

void TestAccountWords::codexCard()
{
    QFETCH(QByteArray, codex);
    QFETCH(bool, lead);
    QFETCH(QString, title);
    QFETCH(bool, dot);
    QFETCH(QString, detail);
    QFETCH(QString, line);
    QFETCH(QString, key);
    const Codex c = ::codex(codex);
    const std::optional<CodexCardWords> card = AccountWords::codexCard(c);
    QCOMPARE(card.has_value(), !title.isEmpty());
    if (!card)
        return;
    QCOMPARE(card->title, title);
    QCOMPARE(card->raisesDot, dot);
    QCOMPARE(card->detail, detail);
    const std::optional<CodexAccountCardWords> shown = AccountWords::codexAccountCard(c, lead);
    QCOMPARE(shown.has_value(), !line.isEmpty());
    if (shown) {
        QCOMPARE(shown->line, line);
        QCOMPARE(shown->key, key);
        if (shown->act == CodexAccountCardWords::Act::OpenSetup)
            QCOMPARE(shown->help, detail + u" Setup's Codex step has the line to copy."_s);
    }
    const CodexLine asLine = *AccountWords::codexLine(c, !lead);
    QCOMPARE(asLine.spoken, u"Codex: "_s + title);
    QCOMPARE(asLine.ink, dot ? Ink::Amber : Ink::Secondary);
    QCOMPARE(asLine.label, lead ? QString() : u"Codex"_s);
}

void TestAccountWords::codexAccountWords_data()
{
    QTest::addColumn<QByteArray>("account");
    QTest::addColumn<QString>("words");

    QTest::newRow("Pro Lite") << QByteArray(R"({"signedIn":true,"type":"chatgpt","planType":"prolite"})")
                              << "Signed in with ChatGPT Pro Lite";
    QTest::newRow("Plus in capitals") << QByteArray(R"({"signedIn":true,"type":"chatgpt","planType":"PLUS"})")
                                      << "Signed in with ChatGPT Plus";
    QTest::newRow("an unknown plan is raised")
        << QByteArray(R"({"signedIn":true,"type":"chatgpt","planType":"max"})") << "Signed in with ChatGPT Max";
    QTest::newRow("no plan") << QByteArray(R"({"signedIn":true,"type":"chatgpt","planType":" "})")
                             << "Signed in with ChatGPT";
    QTest::newRow("an API key") << QByteArray(R"({"signedIn":true,"type":"apiKey","planType":"pro"})")
                                << "Signed in with an API key";
    QTest::newRow("another way of signing in") << QByteArray(R"({"signedIn":true,"type":"sso"})") << "";
    QTest::newRow("signed out") << QByteArray(R"({"signedIn":false,"type":"chatgpt"})") << "";
}

void TestAccountWords::codexAccountWords()
{
    QFETCH(QByteArray, account);
    const Codex c = codex(R"({"available":true,"account":)" + account + "}");
    QTEST(AccountWords::codexAccountWords(c).value_or(QString()), "words");
}

QTEST_GUILESS_MAIN(TestAccountWords)
#include "TestAccountWords.moc"

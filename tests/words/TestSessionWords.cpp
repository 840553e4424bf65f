#include "link/Account.h"
#include "link/Provider.h"
#include "link/Session.h"
#include "surface/words/SessionWords.h"

#include "Fixture.h"

#include <QJsonDocument>
#include <QJsonObject>
#include <QTest>
#include <QTimeZone>

using namespace Qt::StringLiterals;

namespace {

using Fixture::json;
using Fixture::now;

constexpr auto session = &Fixture::record<Session>;
constexpr auto provider = &Fixture::maybe<Provider>;
constexpr auto account = &Fixture::maybe<Account>;

const QByteArray kOpenRouter = R"({"id":"or","name":"OpenRouter","kind":"openrouter"})";

QByteArray openRouter(const QByteArray& status)
{
    return R"({"id":"or","name":"OpenRouter","kind":"openrouter","status":)" + status + "}";
}

} // namespace

class TestSessionWords : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void order_data();
    void order();
    void titleAndPlace_data();
    void titleAndPlace();
    void modelChip_data();
    void modelChip();
    void sessionChipAndMode_data();
    void sessionChipAndMode();
    void stamp_data();
    void stamp();
    void plainLine_data();
    void plainLine();
    void stateLine_data();
    void stateLine();
    void blockedWords_data();
    void blockedWords();
    void timesFollowTheLocale_data();
    void timesFollowTheLocale();
    void limitName_data();
    void limitName();
    void providerWords_data();
    void providerWords();
    void actions_data();
    void actions();
    void rowHelpAndLabel_data();
    void rowHelpAndLabel();
    void counts_data();
    void counts();
    void sectionSentences();
    void noSentenceUsesTheMiddleDot();
};

void TestSessionWords::order_data()
{
    QTest::addColumn<QByteArray>("sessions");
    QTest::addColumn<QStringList>("ids");

    QTest::newRow("ranks: needs you, busy, error, idle, unknown")
        << QByteArray(R"([{"id":"u","state":"paused"},{"id":"i","state":"idle"},{"id":"e","state":"error"},
                          {"id":"w","state":"working"},{"id":"n","state":"needs_you"}])")
        << QStringList{"n", "w", "e", "i", "u"};
    QTest::newRow("an idle session with an agent at work ranks as busy")
        << QByteArray(R"([{"id":"i","state":"idle","lastActivityAt":"@-1"},
                          {"id":"a","state":"idle","agentsRunning":1,"lastActivityAt":"@-900"},
                          {"id":"s","state":"starting","lastActivityAt":"@-60"}])")
        << QStringList{"s", "a", "i"};
    QTest::newRow("ended sessions and automation runs are not rows") << QByteArray(
        R"([{"id":"x","state":"ended"},{"id":"a","state":"working","automation":{"id":"au"}},
                          {"id":"k","state":"idle"}])") << QStringList{"k"};
    QTest::newRow("within a rank the latest activity first, a missing date last") << QByteArray(
        R"([{"id":"none","state":"idle"},{"id":"old","state":"idle","lastActivityAt":"@-3600"},
                          {"id":"new","state":"idle","lastActivityAt":"@-5"}])") << QStringList{"new", "old", "none"};
    QTest::newRow("full ties keep the service's order") << QByteArray(
        R"([{"id":"b","state":"idle","lastActivityAt":"@-5"},{"id":"a","state":"idle","lastActivityAt":"@-5"},
                          {"id":"c","state":"idle"},{"id":"d","state":"idle"}])")
                                                        << QStringList{"b", "a", "c", "d"};
}

void TestSessionWords::order()
{
    QFETCH(QByteArray, sessions);
    QFETCH(QStringList, ids);
    QCOMPARE(Fixture::ids(SessionWords::ordered(FlexList<Session>::fromJson(json(sessions)).items)), ids);
}

void TestSessionWords::titleAndPlace_data()
{
    QTest::addColumn<QByteArray>("session");
    QTest::addColumn<QString>("title");
    QTest::addColumn<QString>("place");

    QTest::newRow("own title, trimmed") << QByteArray(R"({"id":"s","title":"  Fix the build \n","projectName":"p"})")
                                        << u"Fix the build"_s << u"p"_s;
    QTest::newRow("a title of blanks gives way to the project")
        << QByteArray(R"({"id":"s","title":" \t ","projectName":"tidewatch","cwd":"/work"})") << u"tidewatch"_s
        << u"tidewatch"_s;
    QTest::newRow("nothing to go by") << QByteArray(R"({"id":"s","title":"","projectName":""})")
                                      << u"Untitled session"_s << u""_s;
    QTest::newRow("the home folder is Home whatever the project says")
        << QByteArray(R"({"id":"s","cwd":"/Users/ann/","projectName":"ann"})") << u"ann"_s << u"Home"_s;
    QTest::newRow("a folder below home is not Home")
        << QByteArray(R"({"id":"s","cwd":"/Users/ann/src","projectName":"src"})") << u"src"_s << u"src"_s;
}

void TestSessionWords::titleAndPlace()
{
    QFETCH(QByteArray, session);
    QFETCH(QString, title);
    QFETCH(QString, place);
    const Session s = ::session(session);
    QCOMPARE(SessionWords::title(s), title);
    QCOMPARE(SessionWords::place(s, u"/Users/ann"_s).value_or(QString()), place);
}

void TestSessionWords::modelChip_data()
{
    QTest::addColumn<QString>("model");
    QTest::addColumn<QString>("chip");
    QTest::addColumn<QString>("family");

    QTest::newRow("vendor prefix dropped") << u"openai/gpt-5"_s << u"gpt-5"_s << u"gpt"_s;
    QTest::newRow("claude- dropped after the vendor")
        << u"anthropic/claude-sonnet-4.5"_s << u"sonnet-4.5"_s << u"sonnet"_s;
    QTest::newRow("claude- in capitals") << u"Claude-Haiku-4"_s << u"Haiku-4"_s << u"Haiku"_s;
    QTest::newRow("a bare family has no family") << u"opus"_s << u"opus"_s << u""_s;
    QTest::newRow("a blank makes the family") << u"Opus 5.5"_s << u"Opus 5.5"_s << u"Opus"_s;
    QTest::newRow("claude- with nothing after stays whole") << u"claude-"_s << u"claude-"_s << u""_s;
    QTest::newRow("nothing after the slash keeps the input") << u"openrouter/"_s << u"openrouter/"_s << u""_s;
    QTest::newRow("what follows claude- is trimmed") << u"x/claude-  fable-2"_s << u"fable-2"_s << u"fable"_s;
    QTest::newRow("a dash and digit at the start is no family") << u"-5x"_s << u"-5x"_s << u""_s;
    QTest::newRow("only blanks") << u"   "_s << u""_s << u""_s;
}

void TestSessionWords::modelChip()
{
    QFETCH(QString, model);
    QTEST(SessionWords::modelChip(model), "chip");
    QTEST(SessionWords::modelFamily(model).value_or(QString()), "family");
}

void TestSessionWords::sessionChipAndMode_data()
{
    QTest::addColumn<QByteArray>("session");
    QTest::addColumn<QByteArray>("provider");
    QTest::addColumn<QString>("chip");
    QTest::addColumn<QString>("mode");

    QTest::newRow("its own model") << QByteArray(R"({"id":"s","model":"claude-opus-5","permissionMode":"plan"})")
                                   << QByteArray() << u"opus-5"_s << u"plan"_s;
    QTest::newRow("a model of blanks falls to the provider's default")
        << QByteArray(R"({"id":"s","model":"  ","providerId":"or","permissionMode":"dontAsk"})")
        << QByteArray(R"({"id":"or","name":"OpenRouter","kind":"openrouter","models":{"default":"openai/gpt-5"}})")
        << u"gpt-5"_s << u"allowed only"_s;
    QTest::newRow("Anthropic's own default is not named")
        << QByteArray(R"({"id":"s","providerId":"an","permissionMode":"read-only"})")
        << QByteArray(R"({"id":"an","name":"Anthropic","kind":"anthropic","models":{"default":"claude-opus-5"}})")
        << u"default model"_s << u"read only"_s;
    QTest::newRow("a provider without a default")
        << QByteArray(R"({"id":"s","providerId":"or","permissionMode":"workspace-write"})") << kOpenRouter
        << u"default model"_s << u"can edit"_s;
    QTest::newRow("an unknown mode stands as it is")
        << QByteArray(R"({"id":"s","permissionMode":"yolo"})") << QByteArray() << u"default model"_s << u"yolo"_s;
    QTest::newRow("no mode, no tag") << QByteArray(R"({"id":"s"})") << QByteArray() << u"default model"_s << u""_s;
}

void TestSessionWords::sessionChipAndMode()
{
    QFETCH(QByteArray, session);
    QFETCH(QByteArray, provider);
    QFETCH(QString, chip);
    const Session s = ::session(session);
    const QList<Provider> providers = provider.isEmpty() ? QList<Provider>() : QList<Provider>{*::provider(provider)};
    QCOMPARE(SessionWords::chip(s, SessionWords::providerOf(s, providers)), chip);
    QTEST(SessionWords::modeTag(s.permissionMode).value_or(QString()), "mode");
}

void TestSessionWords::stamp_data()
{
    QTest::addColumn<QString>("id");
    QTest::addColumn<qint64>("ago");
    QTest::addColumn<QString>("hex");
    QTest::addColumn<QString>("age");
    QTest::addColumn<QString>("help");

    QTest::newRow("hex of an id") << u"c7f2a9"_s << 59ll << u"c7"_s << u"now"_s << u"Session c7, active just now"_s;
    QTest::newRow("no letter or digit") << u"·-·"_s << 60ll << u"··"_s << u"1m"_s << u"Session ··, active 1m ago"_s;
    QTest::newRow("capitals and marks skipped")
        << u"-A_9z"_s << 3599ll << u"a9"_s << u"59m"_s << u"Session a9, active 59m ago"_s;
    QTest::newRow("an hour") << u"s1"_s << 3600ll << u"s1"_s << u"1h"_s << u"Session s1, active 1h 0m ago"_s;
    QTest::newRow("days") << u"s1"_s << 2 * 86400ll + 3700 << u"s1"_s << u"2d"_s << u"Session s1, active 2d 1h ago"_s;
    QTest::newRow("activity ahead of the clock is now")
        << u"s1"_s << -300ll << u"s1"_s << u"now"_s << u"Session s1, active just now"_s;
}

void TestSessionWords::stamp()
{
    QFETCH(QString, id);
    QFETCH(qint64, ago);
    Session s;
    s.id = id;
    s.lastActivityAt = Fixture::at(-ago);
    const SessionStamp stamp = SessionWords::stamp(s, now());
    QTEST(stamp.hex, "hex");
    QTEST(stamp.age, "age");
    QTEST(stamp.help, "help");
}

void TestSessionWords::plainLine_data()
{
    QTest::addColumn<QString>("text");
    QTest::addColumn<QString>("line");

    QTest::newRow("a heading, then prose") << u"## Done\nThe build is green."_s << u"Done"_s;
    QTest::newRow("bold and code marks go") << u"\n\n  **All** `42` tests pass"_s << u"All 42 tests pass"_s;
    QTest::newRow("lines of marks only are skipped") << u"---\r\n# \r\n* - ok"_s << u"ok"_s;
    QTest::newRow("a dash inside stays") << u"- re-run it"_s << u"re-run it"_s;
    QTest::newRow("marks only") << u"###\n**\n``"_s << u""_s;
    QTest::newRow("empty") << u""_s << u""_s;
}

void TestSessionWords::plainLine()
{
    QFETCH(QString, text);
    QTEST(SessionWords::plainLine(text).value_or(QString()), "line");
}

void TestSessionWords::stateLine_data()
{
    QTest::addColumn<QByteArray>("session");
    QTest::addColumn<QByteArray>("approval");
    QTest::addColumn<QString>("text");
    QTest::addColumn<int>("tone");
    QTest::addColumn<bool>("blocked");
    QTest::addColumn<bool>("thinking");

    const int working = int(LineTone::Working), attention = int(LineTone::Attention), error = int(LineTone::Error),
              plain = int(LineTone::Plain), quiet = int(LineTone::Quiet);

    QTest::newRow("a tool approval reads its summary in amber")
        << QByteArray(R"({"id":"s","state":"needs_you","activity":"waiting"})")
        << QByteArray(R"({"id":"a","kind":"tool","summary":" Bash: git push origin main "})")
        << "Bash: git push origin main" << attention << false << false;
    QTest::newRow("a tool approval without a summary reads its detail")
        << QByteArray(R"({"id":"s","state":"working"})")
        << QByteArray(R"({"id":"a","toolName":"Read","summary":"  ","input":{"file_path":"/etc/hosts"}})")
        << "/etc/hosts" << attention << false << false;
    QTest::newRow("a plan waiting") << QByteArray(R"({"id":"s","state":"idle"})")
                                    << QByteArray(R"({"id":"a","kind":"plan","summary":"Plan"})") << "A plan is ready"
                                    << attention << false << false;
    QTest::newRow("needs you without words")
        << QByteArray(R"({"id":"s","state":"needs_you","activity":" "})") << QByteArray() << "waiting for your answer"
        << attention << false << false;
    QTest::newRow("starting") << QByteArray(R"({"id":"s","state":"starting"})") << QByteArray() << "starting…"
                              << working << false << false;
    QTest::newRow("working without words")
        << QByteArray(R"({"id":"s","state":"working"})") << QByteArray() << "working…" << working << false << false;
    QTest::newRow("Thinking pulses, trimmed") << QByteArray(R"({"id":"s","state":"working","activity":" Thinking\n"})")
                                              << QByteArray() << "Thinking" << working << false << true;
    QTest::newRow("Thinking with more words doesn't pulse")
        << QByteArray(R"({"id":"s","state":"working","activity":"Thinking…"})") << QByteArray() << "Thinking…"
        << working << false << false;
    QTest::newRow("error") << QByteArray(R"({"id":"s","state":"error","activity":"boom"})") << QByteArray()
                           << "stopped on an error" << error << false << false;
    QTest::newRow("a block comes before being away")
        << QByteArray(R"({"id":"s","state":"idle","stoppedForAway":true,"blocked":{"kind":"logged_out"}})")
        << QByteArray() << "signed out on the Mac" << attention << true << false;
    QTest::newRow("an unknown block is plain")
        << QByteArray(R"({"id":"s","state":"idle","blocked":{"kind":"mystery","text":" Waiting on disk "}})")
        << QByteArray() << "Waiting on disk" << plain << true << false;
    QTest::newRow("a block on a busy session is not read")
        << QByteArray(R"({"id":"s","state":"working","activity":"Editing","blocked":{"kind":"logged_out"}})")
        << QByteArray() << "Editing" << working << false << false;
    QTest::newRow("away") << QByteArray(R"({"id":"s","state":"idle","stoppedForAway":true,"lastText":"Done"})")
                          << QByteArray() << "paused after 10 minutes without an answer" << attention << false << false;
    QTest::newRow("a lifted limit falls through to the reply")
        << QByteArray(R"({"id":"s","state":"idle","lastText":"## Done\nThe build is green.",
                         "blocked":{"kind":"limit","resetsAt":"@-1"}})")
        << QByteArray() << "Done" << plain << false << false;
    QTest::newRow("nothing to say") << QByteArray(R"({"id":"s","state":"idle","lastText":" \n "})") << QByteArray()
                                    << "waiting for your next prompt" << quiet << false << false;
    QTest::newRow("an unknown state is quiet too") << QByteArray(R"({"id":"s","state":"dreaming"})") << QByteArray()
                                                   << "waiting for your next prompt" << quiet << false << false;
}

void TestSessionWords::stateLine()
{
    QFETCH(QByteArray, session);
    QFETCH(QByteArray, approval);
    QFETCH(int, tone);
    QFETCH(bool, blocked);
    const Session s = ::session(session);
    const std::optional<Approval> a = approval.isEmpty() ? std::nullopt : Approval::fromJson(json(approval));
    const StateLine line = SessionWords::stateLine(s, a ? &*a : nullptr, nullptr, nullptr, now(), QLocale(u"en_US"_s));
    QTEST(line.text, "text");
    QCOMPARE(int(line.tone), tone);
    QCOMPARE(line.blocked, blocked);
    QTEST(line.thinking, "thinking");
    if (blocked)
        QCOMPARE(line.opacity(), tone == int(LineTone::Attention) ? 0.9 : 0.75);
}

void TestSessionWords::blockedWords_data()
{
    QTest::addColumn<QByteArray>("blocked");
    QTest::addColumn<QByteArray>("account");
    QTest::addColumn<QString>("text");
    QTest::addColumn<bool>("attention");

    const QByteArray none;
    const QByteArray hit = R"("text":"You've hit your session limit · resets 2am")";
    // now is 10:53:20 UTC, a Thursday.
    QTest::newRow("a limit ahead names its end")
        << R"({"kind":"limit",)" + hit + R"(,"resetsAt":"@7200"})" << none << "session limit until 12:53 PM" << false;
    QTest::newRow("a planned carry-on") << R"({"kind":"limit",)" + hit
            + R"(,"resetsAt":"@7200","autoResumeAt":"@7260"})"
                                        << none << "session limit until 12:54 PM, then carries on" << false;
    QTest::newRow("ready to continue") << R"({"kind":"limit",)" + hit
            + R"(,"resetsAt":"@-60","resume":{"state":"ready"}})"
                                       << none << "session limit over, ready to continue" << false;
    QTest::newRow("a limit that lifted exactly now says nothing")
        << R"({"kind":"limit",)" + hit + R"(,"resetsAt":"@0"})" << none << "" << false;
    QTest::newRow("lifted with a carry-on armed still speaks")
        << R"({"kind":"limit",)" + hit + R"(,"resetsAt":"@0","autoResumeAt":"@30","resume":{"state":"armed"}})" << none
        << "session limit until 10:53 AM, then carries on" << false;
    QTest::newRow("lifted, armed, nothing ahead: paused at the limit")
        << QByteArray(R"({"kind":"limit","resetsAt":"@-5","resume":{"state":"armed"}})") << none
        << "paused at the session limit" << false;
    QTest::newRow("no reset known") << QByteArray(R"({"kind":"limit"})") << none << "paused at the session limit"
                                    << false;
    QTest::newRow("the account's label names the limit")
        << QByteArray(R"({"kind":"limit","resetsAt":"@600"})")
        << QByteArray(R"({"state":"limited","limit":{"window":"seven_day","label":"weekly limit"}})")
        << "weekly limit until 11:03 AM" << false;
    QTest::newRow("a model that needs credits isn't available")
        << QByteArray(R"({"kind":"model","text":"Fable 5 requires usage credits."})") << none
        << "this model isn’t available" << true;
    QTest::newRow("a model limit ahead") << QByteArray(R"({"kind":"model","resetsAt":"@3600"})") << none
                                         << "model limit until 11:53 AM" << false;
    QTest::newRow("signed out") << QByteArray(R"({"kind":"logged_out"})") << none << "signed out on the Mac" << true;
    QTest::newRow("no plan") << QByteArray(R"({"kind":"no_subscription"})") << none
                             << "can’t reply without a Claude plan" << true;
    QTest::newRow("on hold") << QByteArray(R"({"kind":"on_hold"})") << none << "account on hold" << true;
    QTest::newRow("no credit") << QByteArray(R"({"kind":"no_credit"})") << none << "out of usage credits" << true;
    QTest::newRow("a text of white space is missing")
        << QByteArray(R"({"kind":"later","text":" \n\t "})") << none << "paused" << false;
    QTest::newRow("a block without a kind says nothing") << QByteArray(R"({"text":"odd"})") << none << "" << false;
}

void TestSessionWords::blockedWords()
{
    QFETCH(QByteArray, blocked);
    QFETCH(QByteArray, account);
    QFETCH(QString, text);
    QFETCH(bool, attention);
    const Session s = session(R"({"id":"s","state":"idle","blocked":)" + blocked + "}");
    const std::optional<Account> a = ::account(account);
    const std::optional<BlockedWords> words
        = SessionWords::blockedWords(s, nullptr, a ? &*a : nullptr, now(), QLocale(u"en_US"_s));
    QCOMPARE(words.has_value(), !text.isEmpty());
    if (words) {
        QCOMPARE(words->text, text);
        QCOMPARE(words->attention, attention);
    }
}

void TestSessionWords::timesFollowTheLocale_data()
{
    QTest::addColumn<QString>("locale");
    QTest::addColumn<QString>("zone");
    QTest::addColumn<qint64>("ahead");
    QTest::addColumn<QString>("text");

    QTest::newRow("the clock of now's own zone")
        << u"de_DE"_s << u"Europe/Berlin"_s << 3600ll << u"session limit until 13:53"_s;
    QTest::newRow("the weekday of now's own zone")
        << u"en_US"_s << u"Pacific/Kiritimati"_s << 86400ll << u"session limit until Sat 12:53 AM"_s;
}

void TestSessionWords::timesFollowTheLocale()
{
    QFETCH(QString, locale);
    QFETCH(QString, zone);
    QFETCH(qint64, ahead);
    QFETCH(QString, text);
    Session s = session(R"({"id":"s","state":"idle","blocked":{"kind":"limit"}})");
    s.blocked->resetsAt = Fixture::at(ahead);
    const QDateTime inZone = now().toTimeZone(QTimeZone(zone.toUtf8()));
    QCOMPARE(SessionWords::blockedWords(s, nullptr, nullptr, inZone, QLocale(locale))->text, text);
}

void TestSessionWords::limitName_data()
{
    QTest::addColumn<QByteArray>("blocked");
    QTest::addColumn<QByteArray>("account");
    QTest::addColumn<QString>("name");

    const QByteArray none;
    QTest::newRow("the text up to the dot")
        << QByteArray(R"({"kind":"limit","text":"You've hit your session limit · resets 2am"})") << none
        << "Session limit";
    QTest::newRow("the text to its end") << QByteArray(R"({"kind":"limit","text":"You've hit your weekly limit"})")
                                         << none << "Weekly limit";
    QTest::newRow("the text's blanks before the dot go")
        << QByteArray(R"({"kind":"limit","text":"hit your Opus limit   · resets Monday"})") << none << "Opus limit";
    QTest::newRow("nothing named before the dot")
        << QByteArray(R"({"kind":"limit","text":"You've hit your  · resets 2am"})") << none << "Session limit";
    QTest::newRow("no match, a model") << QByteArray(R"({"kind":"model","text":"Not for you."})") << none
                                       << "Model limit";
    QTest::newRow("the account's label, raised")
        << QByteArray(R"({"kind":"limit","text":"You've hit your session limit"})")
        << QByteArray(R"({"state":"limited","limit":{"window":"five_hour","label":"  five-hour limit "}})")
        << "Five-hour limit";
    QTest::newRow("the account's window without a label")
        << QByteArray(R"({"kind":"limit"})") << QByteArray(R"({"state":"limited","limit":{"window":"credits"}})")
        << "Usage credit limit";
    QTest::newRow("a blank label falls to the window")
        << QByteArray(R"({"kind":"limit"})")
        << QByteArray(R"({"state":"limited","limit":{"window":"seven_day","label":" "}})") << "Weekly limit";
    QTest::newRow("a model block reads a model window")
        << QByteArray(R"({"kind":"model"})") << QByteArray(R"({"state":"limited","limit":{"window":"model"}})")
        << "Model limit";
    QTest::newRow("a model block ignores a session window")
        << QByteArray(R"({"kind":"model","text":"You've hit your Fable limit"})")
        << QByteArray(R"({"state":"limited","limit":{"window":"five_hour","label":"session limit"}})") << "Fable limit";
    QTest::newRow("a limit block ignores a model window")
        << QByteArray(R"({"kind":"limit"})")
        << QByteArray(R"({"state":"limited","limit":{"window":"model","label":"fable week"}})") << "Session limit";
}

void TestSessionWords::limitName()
{
    QFETCH(QByteArray, blocked);
    QFETCH(QByteArray, account);
    const std::optional<Session::Blocked> b = Session::Blocked::fromJson(json(blocked));
    const std::optional<Account> a = ::account(account);
    QTEST(SessionWords::limitName(*b, a ? &*a : nullptr), "name");
}

void TestSessionWords::providerWords_data()
{
    QTest::addColumn<QByteArray>("blocked");
    QTest::addColumn<QByteArray>("provider");
    QTest::addColumn<QString>("text");
    QTest::addColumn<bool>("attention");

    const QByteArray plain = R"({"kind":"provider"})";
    QTest::newRow("a removed provider keeps the service's words")
        << QByteArray(R"({"kind":"provider","text":" OpenRouter was removed. Move it to another provider. "})")
        << QByteArray() << "OpenRouter was removed. Move it to another provider." << true;
    QTest::newRow("a removed provider with no words") << plain << QByteArray() << "its provider can’t reply" << true;
    QTest::newRow("armed to carry on") << QByteArray(R"({"kind":"provider","resume":{"state":"armed","at":"@1800"}})")
                                       << openRouter(R"({"state":"limited"})")
                                       << "OpenRouter carries on by itself at 11:23 AM" << false;
    QTest::newRow("armed for a moment now past reads the status")
        << QByteArray(R"({"kind":"provider","resume":{"state":"armed","at":"@0"}})")
        << openRouter(R"({"state":"limited"})") << "OpenRouter is rate limited" << false;
    QTest::newRow("ready") << QByteArray(R"({"kind":"provider","resume":{"state":"ready"}})")
                           << openRouter(R"({"state":"no_credit"})") << "OpenRouter is ready to continue" << false;
    QTest::newRow("out of credits") << plain << openRouter(R"({"state":"no_credit"})") << "OpenRouter is out of credits"
                                    << true;
    QTest::newRow("a budget") << plain << openRouter(R"({"state":"no_credit","budget":true})")
                              << "OpenRouter reached its budget" << true;
    QTest::newRow("a refused key") << plain << openRouter(R"({"state":"bad_key"})") << "OpenRouter refused its key"
                                   << true;
    QTest::newRow("rate limited until") << plain << openRouter(R"({"state":"limited","resetsAt":"@120"})")
                                        << "OpenRouter is rate limited until 10:55 AM" << false;
    QTest::newRow("rate limited, reset past")
        << plain << openRouter(R"({"state":"limited","resetsAt":"@-1"})") << "OpenRouter is rate limited" << false;
    QTest::newRow("down") << plain << openRouter(R"({"state":"down"})") << "OpenRouter isn’t answering" << false;
    QTest::newRow("a new status word") << plain << openRouter(R"({"state":"melting"})") << "OpenRouter can’t reply"
                                       << true;
    QTest::newRow("no status") << plain << kOpenRouter << "OpenRouter can’t reply" << true;
}

void TestSessionWords::providerWords()
{
    QFETCH(QByteArray, blocked);
    QFETCH(QByteArray, provider);
    const std::optional<Session::Blocked> b = Session::Blocked::fromJson(json((blocked)));
    const std::optional<Provider> p = ::provider(provider);
    const BlockedWords words = SessionWords::providerWords(*b, p ? &*p : nullptr, now(), QLocale(u"en_US"_s));
    QTEST(words.text, "text");
    QTEST(words.attention, "attention");
}

void TestSessionWords::actions_data()
{
    QTest::addColumn<QByteArray>("session");
    QTest::addColumn<QByteArray>("provider");
    QTest::addColumn<bool>("continuing");
    QTest::addColumn<QStringList>("titles");
    QTest::addColumn<QString>("firstHelp");

    QTest::newRow("back from away") << QByteArray(R"({"id":"s","state":"idle","stoppedForAway":true})") << QByteArray()
                                    << false << QStringList{"Continue"} << "Tell it you're back, so it carries on";
    QTest::newRow("nothing while it is being continued")
        << QByteArray(R"({"id":"s","state":"idle","stoppedForAway":true})") << QByteArray() << true << QStringList()
        << "";
    QTest::newRow("nothing beneath a busy session")
        << QByteArray(R"({"id":"s","state":"working","stoppedForAway":true})") << QByteArray() << false << QStringList()
        << "";
    QTest::newRow("ready after the limit")
        << QByteArray(R"({"id":"s","state":"idle","blocked":{"kind":"limit","resume":{"state":"ready"}}})")
        << QByteArray() << false << QStringList{"Continue"} << "Carry on where the limit stopped it";
    QTest::newRow("armed and cancellable")
        << QByteArray(R"({"id":"s","state":"idle","blocked":{"kind":"limit","resetsAt":"@600",
                         "resume":{"state":"armed","canCancel":true}}})")
        << QByteArray() << false << QStringList{"Don’t", "Continue now"} << "Don’t carry on by itself after the limit";
    QTest::newRow("armed by the agent") << QByteArray(R"({"id":"s","state":"idle","blocked":{"kind":"limit",
                                                          "resume":{"state":"armed"}}})")
                                        << QByteArray() << false << QStringList{"Continue now"}
                                        << "Carry on now, without waiting for the time it named";
    QTest::newRow("can be armed") << QByteArray(R"({"id":"s","state":"idle","blocked":{"kind":"limit","resetsAt":"@60",
                                                    "resume":{"state":"off","canArm":true}}})")
                                  << QByteArray() << false << QStringList{"Continue automatically"}
                                  << "Carry on by itself once the limit lifts";
    QTest::newRow("OpenRouter out of credits")
        << QByteArray(R"({"id":"s","state":"idle","providerId":"or","blocked":{"kind":"provider"}})")
        << openRouter(R"({"state":"no_credit"})") << false << QStringList{"Top up"}
        << "Top up OpenRouter in the browser";
    QTest::newRow("another provider out of credits has no top-up")
        << QByteArray(R"({"id":"s","state":"idle","providerId":"z","blocked":{"kind":"provider"}})")
        << QByteArray(R"({"id":"z","name":"Zed","kind":"custom","status":{"state":"no_credit"}})") << false
        << QStringList() << "";
    QTest::newRow("a refused key") << QByteArray(
        R"({"id":"s","state":"idle","providerId":"or","blocked":{"kind":"provider"}})")
                                   << openRouter(R"({"state":"bad_key"})") << false << QStringList{"Fix key"}
                                   << "Paste a new key for OpenRouter";
    QTest::newRow("down") << QByteArray(R"({"id":"s","state":"idle","providerId":"or","blocked":{"kind":"provider"}})")
                          << openRouter(R"({"state":"down"})") << false << QStringList{"Try again"}
                          << "Try OpenRouter again now";
}

void TestSessionWords::actions()
{
    QFETCH(QByteArray, session);
    QFETCH(QByteArray, provider);
    QFETCH(bool, continuing);
    const Session s = ::session(session);
    const std::optional<Provider> p = ::provider(provider);
    const QList<RowAction> actions
        = SessionWords::actions(s, p ? &*p : nullptr, nullptr, now(), QLocale(u"en_US"_s), continuing);
    QStringList got;
    for (const RowAction& action : actions)
        got.append(action.title);
    QTEST(got, "titles");
    if (!actions.isEmpty())
        QTEST(actions.first().help, "firstHelp");
}

void TestSessionWords::rowHelpAndLabel_data()
{
    QTest::addColumn<QByteArray>("session");
    QTest::addColumn<bool>("opens");
    QTest::addColumn<QString>("button");
    QTest::addColumn<QString>("help");
    QTest::addColumn<QString>("label");

    QTest::newRow("Codex, continued, no terminal")
        << QByteArray(R"({"id":"c","agent":"codex","switchedFrom":"s1","projectName":"app","model":"gpt-5"})") << true
        << u"Open"_s << u"On Codex, continued from Claude Code. Open it in a terminal window. "_s
        << u"app. Codex. Model: gpt-5."_s;
    QTest::newRow("a terminal open on the Mac")
        << QByteArray(R"({"id":"s","cwd":"/Users/ann","term":{"id":"t","mac":1},"permissionMode":"default"})") << true
        << u"Show"_s << u"Bring its terminal window forward. "_s
        << u"Home. Model: default model. Permission mode: ask first."_s;
    QTest::newRow("went on in Codex, not shared")
        << QByteArray(R"({"id":"s","switchedTo":"c"})") << false << u"Open"_s
        << u"Continued from Codex. Not a shared terminal, so it opens only where it runs. "_s
        << u"Model: default model."_s;
}

void TestSessionWords::rowHelpAndLabel()
{
    QFETCH(QByteArray, session);
    QFETCH(QString, help);
    const Session s = ::session(session);
    QTEST(SessionWords::opensTerminal(s), "opens");
    QTEST(SessionWords::openTitle(s), "button");
    QCOMPARE(SessionWords::help(s), help);
    QTEST(SessionWords::spokenLabel(s, nullptr, u"/Users/ann/"_s), "label");
}

void TestSessionWords::counts_data()
{
    QTest::addColumn<qint64>("needs");
    QTest::addColumn<qint64>("working");
    QTest::addColumn<QStringList>("marks");

    QTest::newRow("one needs you") << 1ll << 0ll << QStringList{"1 needs you"};
    QTest::newRow("two need you, attention first") << 2ll << 1ll << QStringList{"2 need you", "1 working"};
    QTest::newRow("all quiet") << 0ll << 0ll << QStringList();
    QTest::newRow("negative counts are none") << -1ll << 3ll << QStringList{"3 working"};
}

void TestSessionWords::counts()
{
    QFETCH(qint64, needs);
    QFETCH(qint64, working);
    QStringList got;
    for (const CountMark& mark : SessionWords::countMarks(needs, working)) {
        got.append(mark.text);
        QCOMPARE(mark.ink, mark.needs ? Ink::Amber : Ink::Green);
    }
    QTEST(got, "marks");
}

void TestSessionWords::sectionSentences()
{
    const auto agents = [](bool claude, bool available, bool enabled) {
        return AgentsInUse{claude, available, available, enabled};
    };
    QCOMPARE(SessionWords::emptyList(agents(true, true, true)),
        u"Nothing running. Type claude or codex in a terminal, or start a session from your phone."_s);
    QCOMPARE(SessionWords::emptyList(agents(true, true, false)),
        u"Nothing running. Type claude in a terminal, or start a session from your phone."_s);
    QCOMPARE(SessionWords::emptyList(agents(false, true, true)),
        u"Nothing running. Type codex in a terminal, or start a session from your phone."_s);
    QCOMPARE(SessionWords::emptyList(agents(false, true, false)),
        u"Nothing running. Start a Codex session from your phone."_s);
    QCOMPARE(SessionWords::emptyList(AgentsInUse{false, false, true, true}), u"Nothing running."_s);

    QCOMPARE(SessionWords::moreRows(0, true), std::nullopt);
    QCOMPARE(SessionWords::moreRows(4, false), u"4 more"_s);
    QCOMPARE(SessionWords::moreRows(1, true), u"1 more on your phone"_s);

    Session busy;
    busy.state = u"idle"_s;
    busy.agentsRunning = 2;
    QVERIFY(SessionWords::isWorking(busy, false));
    QVERIFY(!SessionWords::isWorking(busy, true));
    QVERIFY(SessionWords::needsYou(busy, true));
    busy.state.reset();
    QVERIFY(SessionWords::isWorking(busy, false));
    busy.state = u"needs_you"_s;
    QVERIFY(!SessionWords::isWorking(busy, false));
    QVERIFY(SessionWords::needsYou(busy, false));
}

void TestSessionWords::noSentenceUsesTheMiddleDot()
{
    // The service's own sentences carry "·"; what the row says never does.
    const Session s = session(R"({"id":"s","state":"idle","blocked":{"kind":"limit",
        "text":"You've hit your session limit · resets 2am","resetsAt":"@600"}})");
    const StateLine line = SessionWords::stateLine(s, nullptr, nullptr, nullptr, now(), QLocale(u"en_US"_s));
    QVERIFY2(!line.text.contains(u'·'), qPrintable(line.text));
    QVERIFY(line.text.startsWith(u"session limit until "_s));
}

QTEST_GUILESS_MAIN(TestSessionWords)
#include "TestSessionWords.moc"

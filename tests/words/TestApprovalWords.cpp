#include "link/Approval.h"
#include "link/Session.h"
#include "surface/words/ApprovalWords.h"

#include "Fixture.h"

#include <QJsonDocument>
#include <QTest>
#include <QTimeZone>

using namespace Qt::StringLiterals;

namespace {

using Fixture::now;

constexpr auto approval = &Fixture::record<Approval>;
constexpr auto session = &Fixture::maybe<Session>;

} // namespace

class TestApprovalWords : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void card_data();
    void card();
    void buttons_data();
    void buttons();
    void askSummary_data();
    void askSummary();
    void expiry_data();
    void expiry();
    void folded_data();
    void folded();
    void waitingLines();
    void terminalAnswer_data();
    void terminalAnswer();
};

void TestApprovalWords::card_data()
{
    QTest::addColumn<QByteArray>("approval");
    QTest::addColumn<QString>("tool");
    QTest::addColumn<QString>("prompt");
    QTest::addColumn<QString>("detail");

    QTest::newRow("a shell command") << QByteArray(
        R"({"id":"a","toolName":"Bash","summary":"Bash: git push","input":{"command":"git push origin main"}})")
                                     << u"Bash"_s << u"$"_s << u"git push origin main"_s;
    QTest::newRow("the tool from the summary, the file from the input")
        << QByteArray(R"({"id":"a","summary":"Edit: main.cpp","input":{"file_path":"/src/main.cpp"}})") << u"Edit"_s
        << u"›"_s << u"/src/main.cpp"_s;
    QTest::newRow("Bash named only in the summary still has the shell prompt")
        << QByteArray(R"({"id":"a","toolName":" ","summary":"Bash: ls","input":{"command":"ls"}})") << u"Bash"_s
        << u"$"_s << u"ls"_s;
    QTest::newRow("a blank command gives way to the pattern")
        << QByteArray(R"({"id":"a","toolName":"Grep","input":{"command":"  ","pattern":"TODO","query":"q"}})")
        << u"Grep"_s << u"›"_s << u"TODO"_s;
    QTest::newRow("input of another shape reads the summary")
        << QByteArray(R"({"id":"a","toolName":"WebSearch","summary":" weather ","input":["x"]})") << u"WebSearch"_s
        << u"›"_s << u"weather"_s;
    QTest::newRow("no colon in the summary, no name")
        << QByteArray(R"({"id":"a","summary":"do it"})") << u"Tool"_s << u"›"_s << u"do it"_s;
    QTest::newRow("a colon first is no name")
        << QByteArray(R"({"id":"a","summary":": odd"})") << u"Tool"_s << u"›"_s << u": odd"_s;
}

void TestApprovalWords::card()
{
    QFETCH(QByteArray, approval);
    QFETCH(QString, prompt);
    QFETCH(QString, detail);
    const Approval a = ::approval(approval);
    QTEST(ApprovalWords::toolName(a), "tool");
    QCOMPARE(ApprovalWords::commandWell(a), (CommandWell{prompt, detail}));
}

void TestApprovalWords::buttons_data()
{
    QTest::addColumn<QByteArray>("approval");
    QTest::addColumn<QStringList>("titles");

    QTest::newRow("the least") << QByteArray(R"({"id":"a","toolName":"Bash"})") << QStringList{"Allow", "Deny"};
    QTest::newRow("always sits between") << QByteArray(R"({"id":"a","toolName":"Bash","canAlways":true})")
                                         << QStringList{"Allow", "Always", "Deny"};
    QTest::newRow("web pages for the session") << QByteArray(R"({"id":"a","toolName":"WebFetch","canSession":true})")
                                               << QStringList{"Allow", "Deny", "Allow all web pages this session"};
    QTest::newRow("web searches") << QByteArray(
        R"({"id":"a","toolName":"WebSearch","canSession":true,"canAlways":true})")
                                  << QStringList{"Allow", "Always", "Deny", "Allow all web searches this session"};
    QTest::newRow("file reads for anything else") << QByteArray(R"({"id":"a","summary":"Read: x","canSession":true})")
                                                  << QStringList{"Allow", "Deny", "Allow all file reads this session"};
}

void TestApprovalWords::buttons()
{
    QFETCH(QByteArray, approval);
    QStringList got;
    for (const ApprovalButton& button : ApprovalWords::buttons(::approval(approval))) {
        got.append(button.title);
        if (button.decision == u"always"_s)
            QCOMPARE(button.help, u"Allow, and let Claude Code remember it for this kind of command"_s);
        if (button.decision == u"session"_s)
            QCOMPARE(button.help, u"This one, the others waiting in this session, and the rest of the session"_s);
    }
    QTEST(got, "titles");
}

void TestApprovalWords::askSummary_data()
{
    QTest::addColumn<QByteArray>("approval");
    QTest::addColumn<QByteArray>("session");
    QTest::addColumn<QString>("summary");

    QTest::newRow("one question") << QByteArray(R"({"id":"a","kind":"question","questions":[{"question":" Which? "}]})")
                                  << QByteArray() << "Which?";
    QTest::newRow("three questions") << QByteArray(
        R"({"id":"a","kind":"question","questions":[{"question":"A?"},{"question":"B?"},{}]})")
                                     << QByteArray() << "A? (+2 more)";
    QTest::newRow("a question with no questions reads its summary")
        << QByteArray(R"({"id":"a","kind":"question","questions":[],"summary":"Pick one"})") << QByteArray()
        << "Pick one";
    QTest::newRow("a plan") << QByteArray(R"({"id":"a","kind":"plan","summary":"x"})") << QByteArray()
                            << "A plan is ready";
    QTest::newRow("a new kind without words")
        << QByteArray(R"({"id":"a","kind":"elicit","summary":"  "})") << QByteArray() << "Claude Code has a question";
    QTest::newRow("a new kind from Codex") << QByteArray(R"({"id":"a","kind":"elicit"})")
                                           << QByteArray(R"({"id":"s","agent":"codex"})") << "Codex has a question";
    QTest::newRow("a Codex provider is Codex too")
        << QByteArray(R"({"id":"a","kind":"elicit"})") << QByteArray(R"({"id":"s","providerId":"codex"})")
        << "Codex has a question";
}

void TestApprovalWords::askSummary()
{
    QFETCH(QByteArray, approval);
    QFETCH(QByteArray, session);
    const std::optional<Session> s = ::session(session);
    QTEST(ApprovalWords::askSummary(::approval(approval), s ? &*s : nullptr), "summary");
}

void TestApprovalWords::expiry_data()
{
    QTest::addColumn<double>("left");
    QTest::addColumn<QString>("text");
    QTest::addColumn<QString>("badge");
    QTest::addColumn<bool>("emphasised");

    QTest::newRow("expired exactly now shows nothing") << 0.0 << u""_s << u""_s << false;
    QTest::newRow("59 s") << 59.0 << u"under 1m left"_s << u"auto-deny in under 1m"_s << true;
    QTest::newRow("61 s") << 61.0 << u"1m left"_s << u"auto-deny in 1m"_s << true;
    QTest::newRow("119 s is still emphasised") << 119.0 << u"1m left"_s << u"auto-deny in 1m"_s << true;
    QTest::newRow("120 s is not") << 120.0 << u"2m left"_s << u"auto-deny in 2m"_s << false;
    QTest::newRow("minutes are cut, not rounded") << 599.9 << u"9m left"_s << u"auto-deny in 9m"_s << false;
}

void TestApprovalWords::expiry()
{
    QFETCH(double, left);
    QFETCH(QString, text);
    QFETCH(QString, badge);
    QFETCH(bool, emphasised);
    Approval a;
    a.expiresAt = Fixture::at(left);
    const std::optional<ExpiryWords> words = ApprovalWords::expiry(a, now());
    QCOMPARE(words.has_value(), !text.isEmpty());
    if (words) {
        QCOMPARE(words->text, text);
        QCOMPARE(words->badge, badge);
        QCOMPARE(words->emphasised, emphasised);
        QCOMPARE(words->ink, emphasised ? Ink::Amber : Ink::Muted);
    }
    QCOMPARE(ApprovalWords::expiry(Approval{}, now()), std::nullopt);
}

void TestApprovalWords::folded_data()
{
    QTest::addColumn<QString>("kind");
    QTest::addColumn<QString>("decision");
    QTest::addColumn<QString>("words");

    QTest::newRow("plan approved") << u"plan"_s << u"allow"_s << u"Plan approved"_s;
    QTest::newRow("plan denied") << u"plan"_s << u"deny"_s << u"Kept planning"_s;
    QTest::newRow("a question answered") << u"question"_s << u"allow"_s << u"Answered"_s;
    QTest::newRow("a question skipped") << u"question"_s << u"deny"_s << u"Skipped"_s;
    QTest::newRow("a new kind, always, is just answered") << u"elicit"_s << u"always"_s << u"Answered"_s;
    QTest::newRow("always") << u"tool"_s << u"always"_s << u"Always allowed"_s;
    QTest::newRow("session, kind missing") << u""_s << u"session"_s << u"Allowed for this session"_s;
    QTest::newRow("deny") << u"tool"_s << u"deny"_s << u"Denied"_s;
    QTest::newRow("a new decision word is allowed") << u"tool"_s << u"maybe"_s << u"Allowed"_s;
}

void TestApprovalWords::folded()
{
    QFETCH(QString, kind);
    QFETCH(QString, decision);
    Approval a;
    if (!kind.isEmpty())
        a.kind = kind;
    QTEST(ApprovalWords::foldedWords(a, decision), "words");
}

void TestApprovalWords::waitingLines()
{
    QCOMPARE(ApprovalWords::waitingHeading(0), u"answered"_s);
    QCOMPARE(ApprovalWords::waitingHeading(1), u"1 waiting"_s);
    QCOMPARE(ApprovalWords::waitingHeading(3), u"3 waiting"_s);
    QCOMPARE(ApprovalWords::moreWaiting(0), std::nullopt);
    QCOMPARE(ApprovalWords::moreWaiting(1), u"1 more waiting. Answer it on your phone or in its terminal."_s);
    QCOMPARE(ApprovalWords::moreWaiting(2), u"2 more waiting. Answer them on your phone or in their terminals."_s);
}

void TestApprovalWords::terminalAnswer_data()
{
    QTest::addColumn<QByteArray>("session");
    QTest::addColumn<bool>("paired");
    QTest::addColumn<QString>("text");
    QTest::addColumn<QString>("action");

    QTest::newRow("a shared terminal") << QByteArray(R"({"id":"s","term":{"id":"t","mac":1,"phone":1}})") << true
                                       << u"It's waiting there."_s << u"Open terminal"_s;
    QTest::newRow("a terminal open only on a phone")
        << QByteArray(R"({"id":"s","term":{"id":"t","phone":1}})") << true << u"Answer it on your phone."_s << u""_s;
    QTest::newRow("its own terminal, a phone paired") << QByteArray(R"({"id":"s","origin":"terminal"})") << true
                                                      << u"Answer it on your phone, or in its terminal."_s << u""_s;
    QTest::newRow("its own terminal, no phone")
        << QByteArray(R"({"id":"s","origin":"terminal"})") << false << u"It's waiting in its terminal."_s << u""_s;
    QTest::newRow("no session") << QByteArray() << true << u"Answer it on your phone."_s << u""_s;
}

void TestApprovalWords::terminalAnswer()
{
    QFETCH(QByteArray, session);
    QFETCH(bool, paired);
    QFETCH(QString, text);
    QFETCH(QString, action);
    const std::optional<Session> s = ::session(session);
    QCOMPARE(ApprovalWords::terminalAnswer(s ? &*s : nullptr, paired), (TerminalAnswerWords{text, action}));
}

QTEST_GUILESS_MAIN(TestApprovalWords)
#include "TestApprovalWords.moc"

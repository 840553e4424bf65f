#include "app/FeedSelfTest.h"

#include "LiveModel.h"
#include "RealPlaces.h"

#include <QJsonObject>
#include <QRegularExpression>
#include <QTest>
#include <QTimer>

using namespace Qt::StringLiterals;

class TestAppModelFeedSelfTest : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void aLiveFeedIsToldLineByLine();
    void aCopyThatIsntIsolatedRefuses_data();
    void aCopyThatIsntIsolatedRefuses();
    void nothingAnsweringFails();
};

void TestAppModelFeedSelfTest::aLiveFeedIsToldLineByLine()
{
    // The pinned Claude Code, found by the service, runs its real sign-in (offline, in the test copy's home).
    LiveModel live(false);
    if (!live.usePinnedClaude())
        QSKIP("Claude Code isn’t installed for the tests (npm ci in daemon/test/tools).");
    QVERIFY(live.restartService());
    const ServiceProcess& service = live.service;
    live.seed(R"([["/qa/sessions", {"id": "s1", "state": "idle"}],
                  ["/qa/snapshot", {"account": {"state": "logged_out"}}]])");
    QTimer::singleShot(800, [&service] { service.qa("POST", "/qa/feed/ping", QJsonObject{}); });

    QStringList lines;
    const int code
        = runFeedSelfTest(service.environment(), 2.5, true, true, [&lines](const QString& line) { lines << line; });
    QCOMPARE(code, 0);
    QCOMPARE(lines.value(0), QStringLiteral("live true"));
    QCOMPARE(lines.value(1), QStringLiteral("message snapshot 1 session, 0 approvals"));
    QVERIFY2(lines.contains("pong sent"), qPrintable(lines.join('\n')));
    QVERIFY2(lines.contains("sign-in: account logged_out, login waiting_code"), qPrintable(lines.join('\n')));
    // A session the service never saw run has no window to raise, and the service says so rather than pretend.
    QVERIFY2(lines.filter(QRegularExpression("^open: .+doesn’t know yet where this session runs")).size() == 1,
        qPrintable(lines.join('\n')));
    // Starting the sign-in puts Claude Code's page on the account, and the feed says so.
    QVERIFY2(lines.filter(QRegularExpression("^message account ")).size() >= 1, qPrintable(lines.join('\n')));
    const int messages = int(lines.filter(QRegularExpression("^message ")).size());
    QCOMPARE(lines.last(), QStringLiteral("OK: live, %1 messages in 2.5 s").arg(messages));
}

void TestAppModelFeedSelfTest::aCopyThatIsntIsolatedRefuses_data()
{
    QTest::addColumn<Environment::Variables>("variables");

    QTest::newRow("the real install") << Environment::Variables{};
    QTest::newRow("a test copy on the real ports")
        << Environment::Variables{{"TIDEWATCH_SUPPORT", "/tmp/tidewatch-selftest-support"}};
}

void TestAppModelFeedSelfTest::aCopyThatIsntIsolatedRefuses()
{
    QFETCH(Environment::Variables, variables);
    ScratchFolder scratch;
    QStringList lines;
    const int code = runFeedSelfTest(
        Environment(variables, scratch.path()), 1, true, true, [&lines](const QString& line) { lines << line; });
    QCOMPARE(code, 1);
    QCOMPARE(lines,
        QStringList{"FAILED: run this as a test copy with a folder and ports of its own (TIDEWATCH_SUPPORT, "
                    "TIDEWATCH_API_PORT, TIDEWATCH_LOCAL_PORT), so nothing of the real install is touched."});
}

void TestAppModelFeedSelfTest::nothingAnsweringFails()
{
    LiveModel live;
    ServiceProcess& service = live.service;
    QCOMPARE(service.stop(), 0);
    QStringList lines;
    const int code
        = runFeedSelfTest(service.environment(), 1.5, false, false, [&lines](const QString& line) { lines << line; });
    QCOMPARE(code, 1);
    QCOMPARE(lines, QStringList{"FAILED: the feed never went live in 1.5 s."});
}

TIDEWATCH_E2E_MAIN(TestAppModelFeedSelfTest)
#include "TestAppModelFeedSelfTest.moc"

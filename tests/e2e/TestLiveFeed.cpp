#include "PinnedClaude.h"
#include "app/FeedSelfTest.h"
#include "link/LiveFeed.h"

#include "LiveModel.h"
#include "RealPlaces.h"

#include <QJsonArray>
#include <QJsonObject>
#include <QRegularExpression>
#include <QTest>
#include <QTimer>

namespace {

/// Everything the feed delivered, in order, as short words.
struct Heard {
    QStringList events;
    QList<Feed::Message> messages;

    void take(const LiveFeed::Event& event)
    {
        if (event.kind == LiveFeed::Event::Kind::Live) {
            events << (event.live ? QStringLiteral("live") : QStringLiteral("down"));
            return;
        }
        messages << *event.message;
        events << QStringLiteral("message");
    }
    int count(const QString& word) const { return int(events.count(word)); }
};

/// How a working link is broken.
enum class Break { Dropped, ServiceGone, Silent };

} // namespace

Q_DECLARE_METATYPE(Break)

/// The feed against the real service, and the feed check the built program
/// runs from the command line.
class TestLiveFeed : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void init();
    void cleanup();

    void connectsAndHearsTheSnapshot();
    void framesOfAnyShapeAreHeardAndNoneHurts();
    void aBrokenLinkComesBack_data();
    void aBrokenLinkComesBack();
    void restartLeavesNoStaleEvent();
    void withoutATokenNothingIsHeard();

    void theSelfTestTellsALiveFeedLineByLine();
    void theSelfTestRefuses_data();
    void theSelfTestRefuses();

private:
    std::unique_ptr<LiveModel> m_live;
    ServiceProcess* m_service = nullptr;
    bool m_claude = false;
    std::unique_ptr<LiveFeed> m_feed;
    Heard m_heard;

    void startFeed(LiveFeed::Timing timing = LiveModel::quickFeed())
    {
        m_feed = std::make_unique<LiveFeed>(m_service->environment(), Clock::system(), timing);
        m_feed->setSink([this](const LiveFeed::Event& event) { m_heard.take(event); });
        m_feed->start();
    }
};

void TestLiveFeed::init()
{
    m_heard = {};
    // The self-test's sign-in runs the pinned Claude Code's own, offline, in the test copy's home.
    m_live = std::make_unique<LiveModel>(false);
    m_claude = m_live->usePinnedClaude();
    m_service = &m_live->service;
    QVERIFY(m_live->restartService());
}

void TestLiveFeed::cleanup()
{
    m_feed.reset();
    m_live.reset();
}

void TestLiveFeed::connectsAndHearsTheSnapshot()
{
    m_live->seed(R"([["/qa/sessions", {"id": "s1", "state": "working"}]])");
    startFeed();
    QTRY_COMPARE_WITH_TIMEOUT(m_heard.count(QStringLiteral("message")), 1, 10000);
    QCOMPARE(m_heard.events.first(), QStringLiteral("live"));
    const auto* snapshot = std::get_if<Snapshot>(&m_heard.messages.first());
    QVERIFY(snapshot);
    QCOMPARE(snapshot->sessions.items.first().id, QStringLiteral("s1"));
    QVERIFY(m_feed->heardAt());

    // A change of the service's state arrives as its own message.
    m_live->seed(R"([["/qa/sessions", {"id": "s1", "state": "idle"}]])");
    QTRY_COMPARE_WITH_TIMEOUT(m_heard.count(QStringLiteral("message")), 2, 10000);
    const auto* session = std::get_if<Session>(&m_heard.messages.last());
    QVERIFY(session);
    QCOMPARE(session->state, std::optional<QString>(QStringLiteral("idle")));
}

void TestLiveFeed::framesOfAnyShapeAreHeardAndNoneHurts()
{
    startFeed();
    QTRY_COMPARE_WITH_TIMEOUT(m_heard.count(QStringLiteral("message")), 1, 10000);
    QByteArrayList windows;
    m_feed->setWindowSink([&windows](const QByteArray& text) { windows << text; });

    const QStringList frames{
        QStringLiteral("not json at all"),
        QStringLiteral("{\"t\":\"session\",\"session\":7}"),
        QStringLiteral("{\"t\":\"event\",\"sessionId\":\"s1\"}"),
        QStringLiteral("[]"),
        QString(),
        QStringLiteral("{\"t\":\"telescope.window\",\"name\":\"w\"}"),
        QStringLiteral("{\"t\":\"approval\",\"approval\":{\"id\":\"ap1\",\"kind\":\"tool\"}}"),
    };
    for (const QString& frame : frames)
        m_service->qa("POST", QStringLiteral("/qa/feed/frame"), QJsonObject{{QStringLiteral("frame"), frame}});
    QTRY_COMPARE_WITH_TIMEOUT(m_heard.count(QStringLiteral("message")), 2, 10000);
    QVERIFY(std::get_if<Approval>(&m_heard.messages.last()));
    QCOMPARE(windows, QByteArrayList{"{\"t\":\"telescope.window\",\"name\":\"w\"}"});
    QCOMPARE(m_heard.count(QStringLiteral("down")), 0);
}

void TestLiveFeed::aBrokenLinkComesBack_data()
{
    QTest::addColumn<Break>("how");
    QTest::addColumn<int>("backWithinMs");

    QTest::newRow("dropped by the service: tried again after one second") << Break::Dropped << 5000;
    QTest::newRow("the service gone: silence while it is away, then back") << Break::ServiceGone << 10000;
    // The service pings far less often than the watchdog wants.
    QTest::newRow("silent: the watchdog closes it") << Break::Silent << 10000;
}

void TestLiveFeed::aBrokenLinkComesBack()
{
    QFETCH(Break, how);
    QFETCH(int, backWithinMs);
    LiveFeed::Timing timing = how == Break::Dropped ? LiveFeed::Timing{} : LiveModel::quickFeed();
    if (how == Break::Silent) {
        timing.watchdogEvery = 0.2;
        timing.silenceLimit = 0.6;
    }
    startFeed(timing);
    QTRY_COMPARE_WITH_TIMEOUT(m_heard.count(QStringLiteral("message")), 1, 10000);
    if (how == Break::Dropped)
        m_service->qa("POST", QStringLiteral("/qa/feed/drop"), QJsonObject{});
    if (how == Break::ServiceGone)
        QCOMPARE(m_service->stop(), 0);
    QTRY_COMPARE_WITH_TIMEOUT(m_heard.count(QStringLiteral("down")), 1, 10000);
    QVERIFY(!m_feed->heardAt());
    if (how == Break::ServiceGone) {
        // Refused attempts end in silence: no further events while it is away.
        QTest::qWait(1500);
        QCOMPARE(m_heard.events.size(), 3);
        QVERIFY2(m_service->start(), qPrintable(m_service->lastError()));
    }
    // The snapshot comes with the link again.
    QTRY_COMPARE_WITH_TIMEOUT(m_heard.count(QStringLiteral("live")), 2, backWithinMs);
    QTRY_COMPARE_WITH_TIMEOUT(m_heard.count(QStringLiteral("message")), 2, 5000);
    QVERIFY(std::get_if<Snapshot>(&m_heard.messages.last()));
}

void TestLiveFeed::restartLeavesNoStaleEvent()
{
    startFeed();
    QTRY_COMPARE_WITH_TIMEOUT(m_heard.count(QStringLiteral("message")), 1, 10000);
    m_heard = {};
    m_feed->start();
    m_feed->start();
    QTRY_COMPARE_WITH_TIMEOUT(m_heard.count(QStringLiteral("message")), 1, 10000);
    QTest::qWait(500);
    // The replaced connections' ends never reach the sink.
    QCOMPARE(m_heard.events, (QStringList{QStringLiteral("live"), QStringLiteral("message")}));
}

void TestLiveFeed::withoutATokenNothingIsHeard()
{
    QFile::remove(m_service->supportFolder() + QStringLiteral("/admin-token"));
    startFeed();
    QTest::qWait(1500);
    QVERIFY(m_heard.events.isEmpty());
    QVERIFY(!m_feed->heardAt());
}

void TestLiveFeed::theSelfTestTellsALiveFeedLineByLine()
{
    if (!m_claude)
        QSKIP(PinnedClaude::kMissing);
    m_live->seed(R"([["/qa/sessions", {"id": "s1", "state": "idle"}],
                     ["/qa/snapshot", {"account": {"state": "logged_out"}}]])");
    QTimer::singleShot(800, [this] { m_service->qa("POST", "/qa/feed/ping", QJsonObject{}); });

    QStringList lines;
    const int code
        = runFeedSelfTest(m_service->environment(), 2.5, true, true, [&lines](const QString& line) { lines << line; });
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

void TestLiveFeed::theSelfTestRefuses_data()
{
    QTest::addColumn<Environment::Variables>("variables");
    QTest::addColumn<bool>("thisCopyStopped");
    QTest::addColumn<QString>("said");

    const QString isolated = QStringLiteral(
        "FAILED: run this as a test copy with a folder and ports of its own (TIDEWATCH_SUPPORT, TIDEWATCH_API_PORT, "
        "TIDEWATCH_LOCAL_PORT), so nothing of the real install is touched.");
    QTest::newRow("the real install") << Environment::Variables{} << false << isolated;
    QTest::newRow("a test copy on the real ports")
        << Environment::Variables{{"TIDEWATCH_SUPPORT", "/tmp/tidewatch-selftest-support"}} << false << isolated;
    QTest::newRow("this copy with nothing answering")
        << Environment::Variables{} << true << QStringLiteral("FAILED: the feed never went live in 1.5 s.");
}

void TestLiveFeed::theSelfTestRefuses()
{
    QFETCH(Environment::Variables, variables);
    QFETCH(bool, thisCopyStopped);
    QFETCH(QString, said);
    if (thisCopyStopped)
        QCOMPARE(m_service->stop(), 0);
    QStringList lines;
    QCOMPARE(
        runFeedSelfTest(thisCopyStopped ? m_service->environment() : Environment(variables, m_live->scratch.path()),
            1.5, false, false, [&lines](const QString& line) { lines << line; }),
        1);
    QCOMPARE(lines, QStringList{said});
}

TIDEWATCH_E2E_MAIN(TestLiveFeed)
#include "TestLiveFeed.moc"

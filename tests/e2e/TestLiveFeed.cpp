#include "link/LiveFeed.h"

#include "LiveModel.h"
#include "RealPlaces.h"
#include "ScratchFolder.h"
#include "ServiceProcess.h"

#include <QJsonArray>
#include <QJsonObject>
#include <QTest>

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

} // namespace

class TestLiveFeed : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void init();
    void cleanup();

    void connectsAndHearsTheSnapshot();
    void framesOfAnyShapeAreHeardAndNoneHurts();
    void droppedLinkComesBackAfterASecond();
    void serviceGoneAndBack();
    void watchdogClosesASilentLink();
    void restartLeavesNoStaleEvent();
    void withoutATokenNothingIsHeard();

private:
    std::unique_ptr<ScratchFolder> m_scratch;
    std::unique_ptr<ServiceProcess> m_service;
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
    m_scratch = std::make_unique<ScratchFolder>();
    m_service = std::make_unique<ServiceProcess>(m_scratch->path());
    QVERIFY2(m_service->start(), qPrintable(m_service->lastError()));
}

void TestLiveFeed::cleanup()
{
    m_feed.reset();
    m_service.reset();
    m_scratch.reset();
}

void TestLiveFeed::connectsAndHearsTheSnapshot()
{
    m_service->qa("POST", QStringLiteral("/qa/sessions"),
        QJsonObject{
            {QStringLiteral("id"), QStringLiteral("s1")}, {QStringLiteral("state"), QStringLiteral("working")}});
    startFeed();
    QTRY_COMPARE_WITH_TIMEOUT(m_heard.count(QStringLiteral("message")), 1, 10000);
    QCOMPARE(m_heard.events.first(), QStringLiteral("live"));
    const auto* snapshot = std::get_if<Snapshot>(&m_heard.messages.first());
    QVERIFY(snapshot);
    QCOMPARE(snapshot->sessions.items.first().id, QStringLiteral("s1"));
    QVERIFY(m_feed->heardAt());

    // A change of the service's state arrives as its own message.
    m_service->qa("POST", QStringLiteral("/qa/sessions"),
        QJsonObject{{QStringLiteral("id"), QStringLiteral("s1")}, {QStringLiteral("state"), QStringLiteral("idle")}});
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

void TestLiveFeed::droppedLinkComesBackAfterASecond()
{
    startFeed(LiveFeed::Timing{});
    QTRY_COMPARE_WITH_TIMEOUT(m_heard.count(QStringLiteral("message")), 1, 10000);
    m_service->qa("POST", QStringLiteral("/qa/feed/drop"), QJsonObject{});
    QTRY_COMPARE_WITH_TIMEOUT(m_heard.count(QStringLiteral("down")), 1, 10000);
    QVERIFY(!m_feed->heardAt());
    // A link that worked is tried again after one second, and the snapshot comes with it.
    QTRY_COMPARE_WITH_TIMEOUT(m_heard.count(QStringLiteral("live")), 2, 5000);
    QTRY_COMPARE_WITH_TIMEOUT(m_heard.count(QStringLiteral("message")), 2, 5000);
    QVERIFY(std::get_if<Snapshot>(&m_heard.messages.last()));
}

void TestLiveFeed::serviceGoneAndBack()
{
    startFeed();
    QTRY_COMPARE_WITH_TIMEOUT(m_heard.count(QStringLiteral("live")), 1, 10000);
    QCOMPARE(m_service->stop(), 0);
    QTRY_COMPARE_WITH_TIMEOUT(m_heard.count(QStringLiteral("down")), 1, 10000);
    // Refused attempts end in silence: no further events while it is away.
    QTest::qWait(1500);
    QCOMPARE(m_heard.events.size(), 3);
    QVERIFY2(m_service->start(), qPrintable(m_service->lastError()));
    QTRY_COMPARE_WITH_TIMEOUT(m_heard.count(QStringLiteral("live")), 2, 10000);
    QTRY_COMPARE_WITH_TIMEOUT(m_heard.count(QStringLiteral("message")), 2, 5000);
}

void TestLiveFeed::watchdogClosesASilentLink()
{
    LiveFeed::Timing timing = LiveModel::quickFeed();
    timing.watchdogEvery = 0.2;
    timing.silenceLimit = 0.6;
    startFeed(timing);
    // The service pings far less often than that, so the link goes quiet and is closed, then comes back.
    QTRY_COMPARE_WITH_TIMEOUT(m_heard.count(QStringLiteral("down")), 1, 10000);
    QTRY_COMPARE_WITH_TIMEOUT(m_heard.count(QStringLiteral("live")), 2, 10000);
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

TIDEWATCH_E2E_MAIN(TestLiveFeed)
#include "TestLiveFeed.moc"

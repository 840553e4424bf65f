#include "LiveModel.h"
#include "RealPlaces.h"

#include <QElapsedTimer>
#include <QJsonArray>
#include <QJsonObject>
#include <QSignalSpy>
#include <QTest>

namespace {

/// The snapshot read refused once, in plain text.
const QJsonObject kBadGateway{
    {"route", "GET /v1/snapshot"}, {"status", 502}, {"body", "bad gateway"}, {"contentType", "text/plain"}};

/// The moments, in milliseconds since it was made, at which the model ended its reads.
class ReadLog : public QObject
{
public:
    explicit ReadLog(AppModel& model)
    {
        m_clock.start();
        connect(&model, &AppModel::readFinished, this, [this] { m_ends << m_clock.elapsed(); });
    }
    int count() const { return int(m_ends.size()); }
    QList<qint64> ends() const { return m_ends; }
    void clear() { m_ends.clear(); }

private:
    QElapsedTimer m_clock;
    QList<qint64> m_ends;
};

} // namespace

class TestAppModelLoop : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void init();
    void cleanup();

    void firstReadEndsTheFirstPollEvenWhenItFails_data();
    void firstReadEndsTheFirstPollEvenWhenItFails();
    void aSnapshotReadThatCrossesAFeedMessageIsDropped();
    void thePaceFollowsTheFeedAndThePopover_data();
    void thePaceFollowsTheFeedAndThePopover();
    void aFailedProbeWithAFreshFeedChangesNothing();
    void serviceGoneClearsThePictureAndItsReturnRestoresIt();
    void openingThePopoverReadsAtOnce();
    void aDevicesMessageReadsTheStatus();

private:
    std::unique_ptr<LiveModel> m_live;
    ServiceProcess* m_service = nullptr;
    AppModel* m_model = nullptr;

    // Each returns false after recording the failure, so that a test stops there rather than reads a model that isn't.
    bool startService() { return m_live->restartService(); }
    void startModel()
    {
        m_live->startModel(LiveModel::quickFeed(), false);
        m_model = &m_live->model();
    }
    /// The model has read once and hears the feed.
    bool startSettled()
    {
        if (!startService() || !m_live->startModel(LiveModel::quickFeed()))
            return false;
        m_model = &m_live->model();
        return true;
    }
};

void TestAppModelLoop::init()
{
    m_live = std::make_unique<LiveModel>(false);
    m_service = &m_live->service;
}

void TestAppModelLoop::cleanup()
{
    m_live.reset();
}

void TestAppModelLoop::firstReadEndsTheFirstPollEvenWhenItFails_data()
{
    QTest::addColumn<bool>("serviceRuns");
    QTest::addColumn<bool>("healthExpected");
    QTest::addColumn<QString>("lastError");

    QTest::newRow("nothing answers: no health, and no error sentence either") << false << false << QString();
    QTest::newRow("the snapshot is refused: health, and the refusal's sentence") << true << true << "bad gateway";
}

void TestAppModelLoop::firstReadEndsTheFirstPollEvenWhenItFails()
{
    QFETCH(bool, serviceRuns);
    QFETCH(bool, healthExpected);
    QFETCH(QString, lastError);
    if (serviceRuns) {
        QVERIFY(startService());
        // No feed either, so that the snapshot can only come from the read.
        m_service->qa("POST", "/qa/feed/refuse", QJsonObject({{"on", true}}));
        m_service->qa("POST", "/qa/faults", kBadGateway);
    }
    startModel();
    QSignalSpy firstPoll(m_model, &AppModel::firstPollDoneChanged);
    QTRY_VERIFY_WITH_TIMEOUT(m_model->firstPollDone(), 10000);
    QCOMPARE(firstPoll.count(), 1);
    QCOMPARE(m_model->health().has_value(), healthExpected);
    QVERIFY(!m_model->snapshot());
    QCOMPARE(m_model->lastErrorText(), lastError);
}

void TestAppModelLoop::aSnapshotReadThatCrossesAFeedMessageIsDropped()
{
    QVERIFY(startSettled());
    ReadLog reads(*m_model);
    // The service will answer this read late; meanwhile the feed tells of a session it never held.
    m_service->qa("POST", "/qa/faults", QJsonObject({{"route", "GET /v1/snapshot"}, {"delayMs", 2500}}));
    m_model->read(false);
    QTest::qWait(500);
    m_service->qa("POST", "/qa/feed/frame",
        QJsonObject({{"json",
            QJsonObject({{"t", "session"}, {"session", QJsonObject({{"id", "s9"}, {"state", "working"}})}})}}));
    QTRY_VERIFY_WITH_TIMEOUT(m_live->session("s9"), 5000);
    QTRY_COMPARE_WITH_TIMEOUT(reads.count(), 1, 10000);
    QVERIFY2(m_live->session("s9"), "the late reply overwrote the newer news of the feed");

    // A read that crosses nothing is believed, and the service never held s9.
    m_model->read(false);
    QTRY_COMPARE_WITH_TIMEOUT(reads.count(), 2, 10000);
    QVERIFY(!m_live->session("s9"));
}

void TestAppModelLoop::thePaceFollowsTheFeedAndThePopover_data()
{
    QTest::addColumn<bool>("killFeed");
    QTest::addColumn<bool>("popoverVisible");
    QTest::addColumn<int>("windowMs");
    QTest::addColumn<int>("fewest");
    QTest::addColumn<int>("most");

    QTest::newRow("feed live, hidden: no read for a minute") << false << false << 8000 << 0 << 0;
    QTest::newRow("feed live, shown: every 6 s") << false << true << 13000 << 1 << 3;
    QTest::newRow("feed dead, hidden: every 5 s") << true << false << 16000 << 2 << 4;
    QTest::newRow("feed dead, shown: every 1.5 s") << true << true << 7500 << 4 << 6;
}

void TestAppModelLoop::thePaceFollowsTheFeedAndThePopover()
{
    QFETCH(bool, killFeed);
    QFETCH(bool, popoverVisible);
    QFETCH(int, windowMs);
    QFETCH(int, fewest);
    QFETCH(int, most);
    QVERIFY(startSettled());
    ReadLog reads(*m_model);
    if (killFeed) {
        m_service->qa("POST", "/qa/feed/refuse", QJsonObject({{"on", true}}));
        m_service->qa("POST", "/qa/feed/drop", QJsonObject{});
        QTRY_VERIFY_WITH_TIMEOUT(!m_model->feedLive(), 5000);
        // The link's end asks for a read at once; the pace counts from there.
        QTRY_VERIFY_WITH_TIMEOUT(reads.count() >= 1, 5000);
    }
    if (popoverVisible) {
        m_model->setPopoverVisible(true);
        QTRY_VERIFY_WITH_TIMEOUT(reads.count() >= (killFeed ? 2 : 1), 5000);
    }
    QTRY_COMPARE_WITH_TIMEOUT(m_model->reading(), 0, 5000);
    reads.clear();
    QTest::qWait(windowMs);
    QVERIFY2(reads.count() >= fewest && reads.count() <= most,
        qPrintable(QStringLiteral("%1 reads in %2 ms").arg(reads.count()).arg(windowMs)));
    QCOMPARE(m_model->feedLive(), !killFeed);
}

void TestAppModelLoop::aFailedProbeWithAFreshFeedChangesNothing()
{
    QVERIFY(startSettled());
    m_model->setPopoverVisible(true);
    QTRY_COMPARE_WITH_TIMEOUT(m_model->reading(), 0, 5000);
    const std::optional<Snapshot> snapshot = m_model->snapshot();
    const std::optional<Health> health = m_model->health();
    QSignalSpy healthChanges(m_model, &AppModel::healthChanged);
    QSignalSpy snapshotChanges(m_model, &AppModel::snapshotChanged);
    QSignalSpy statusChanges(m_model, &AppModel::statusChanged);
    QSignalSpy errorChanges(m_model, &AppModel::lastErrorChanged);
    ReadLog reads(*m_model);

    // The probe now hangs until it gives up, while the feed goes on.
    m_service->qa("POST", "/qa/health", QJsonObject({{"answering", false}}));
    m_model->setPopoverVisible(false);
    m_model->setPopoverVisible(true);
    QTRY_VERIFY_WITH_TIMEOUT(m_model->failingSince(), 10000);
    reads.clear();
    // A second and third failure with the feed still fresh repeat the first:
    // each is tried again 2 seconds after the one before ended, and the probe itself waits 1.5.
    QTRY_COMPARE_WITH_TIMEOUT(reads.count(), 2, 15000);
    const qint64 gap = reads.ends().at(1) - reads.ends().at(0);
    QVERIFY2(gap >= 3000 && gap <= 6000, qPrintable(QStringLiteral("reads %1 ms apart").arg(gap)));
    QVERIFY(m_model->failingSince());
    QCOMPARE(healthChanges.count(), 0);
    QCOMPARE(snapshotChanges.count(), 0);
    QCOMPARE(statusChanges.count(), 0);
    QCOMPARE(errorChanges.count(), 0);
    QVERIFY(m_model->snapshot() == snapshot);
    QVERIFY(m_model->health() == health);
    QVERIFY(m_model->feedLive());

    m_service->qa("POST", "/qa/health", QJsonObject({{"answering", true}}));
    QTRY_VERIFY_WITH_TIMEOUT(!m_model->failingSince(), 8000);
    QVERIFY(m_model->health() == health);
}

void TestAppModelLoop::serviceGoneClearsThePictureAndItsReturnRestoresIt()
{
    QVERIFY(startSettled());
    // A refused snapshot read leaves its sentence beside the picture held.
    m_service->qa("POST", "/qa/faults", kBadGateway);
    m_model->read(false);
    QTRY_COMPARE_WITH_TIMEOUT(m_model->lastErrorText(), QStringLiteral("bad gateway"), 5000);
    QVERIFY(m_model->snapshot());

    QCOMPARE(m_service->stop(), 0);
    QTRY_VERIFY_WITH_TIMEOUT(!m_model->feedLive(), 10000);
    QTRY_VERIFY_WITH_TIMEOUT(
        !m_model->health() && !m_model->snapshot() && !m_model->status() && !m_model->lastError(), 10000);
    QVERIFY(m_model->firstPollDone());

    QVERIFY(startService());
    m_service->qa("POST", "/qa/sessions", QJsonObject({{"id", "back"}, {"state", "idle"}}));
    // Whichever comes first, the loop's read (every 5 s while the feed is dead) or the feed's own
    // retry, brings the other: an answer restarts the feed, and a message on a picture without
    // health asks for a read.
    QTRY_VERIFY_WITH_TIMEOUT(m_model->health() && m_model->feedLive() && m_model->status(), 15000);
    QTRY_VERIFY_WITH_TIMEOUT(m_live->session("back"), 5000);
}

void TestAppModelLoop::openingThePopoverReadsAtOnce()
{
    QVERIFY(startSettled());
    QTest::qWait(1000);
    ReadLog reads(*m_model);
    QElapsedTimer waited;
    waited.start();
    m_model->setPopoverVisible(true);
    QTRY_COMPARE_WITH_TIMEOUT(reads.count(), 1, 3000);
    QVERIFY2(waited.elapsed() < 2000, "the sleep of a minute wasn't cut short");
    // That read took the status with the feed live, so its count of clients includes this app.
    QVERIFY(m_model->statusCountsFeed());
    QVERIFY(m_model->status()->connectedClients.value_or(0) >= 1);
}

void TestAppModelLoop::aDevicesMessageReadsTheStatus()
{
    QVERIFY(startSettled());
    QCOMPARE(m_model->status()->devices.items.size(), 0);
    m_service->qa("POST", "/qa/devices", QJsonObject({{"id", "d1"}, {"name", "Pixel 8"}}));
    QTRY_COMPARE_WITH_TIMEOUT(m_model->status()->devices.items.size(), 1, 5000);
}

TIDEWATCH_E2E_MAIN(TestAppModelLoop)
#include "TestAppModelLoop.moc"

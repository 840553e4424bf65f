#include "model/ReadPace.h"

#include "ManualClock.h"

#include <QTest>

namespace {

using Seconds = QList<double>;

/// The read loop run in virtual time: it sleeps what the pace says, reads,
/// and sleeps again. The feed's last frame is the latest of `heard` not after
/// now. Gives the moments of the reads, in seconds from the start.
Seconds runLoop(ManualClock& clock, ReadPace pace, const Seconds& heard, double until)
{
    const QDateTime start = clock.now();
    const auto secondsNow = [&] { return start.msecsTo(clock.now()) / 1000.0; };
    Seconds reads;
    bool readNow = true;
    // A pace that never lets time pass would read forever; a bound shows it as a wrong count.
    while (secondsNow() <= until && reads.size() < 1000) {
        pace.heardAt.reset();
        for (double at : heard) {
            if (at <= secondsNow())
                pace.heardAt = start.addMSecs(qint64(at * 1000));
        }
        if (const std::optional<double> nap = pace.nap(readNow, clock.now())) {
            clock.advance(*nap);
            continue;
        }
        readNow = false;
        reads << secondsNow();
        pace.lastRead = clock.now();
    }
    return reads;
}

Seconds every(double step, double from, double to)
{
    Seconds moments;
    for (double at = from; at <= to; at += step)
        moments << at;
    return moments;
}

QDateTime ago(const ManualClock& clock, double seconds)
{
    return clock.now().addMSecs(-qint64(seconds * 1000));
}

} // namespace

class TestReadPace : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void readsOverTime_data();
    void readsOverTime();
    void aShortDueStillNaps();
    void withStatus_data();
    void withStatus();
    void feedBelieved_data();
    void feedBelieved();
    void nudge_data();
    void nudge();
    void usageRefresh_data();
    void usageRefresh();
    void claudeLook_data();
    void claudeLook();
};

void TestReadPace::readsOverTime_data()
{
    QTest::addColumn<bool>("feedLive");
    QTest::addColumn<bool>("popoverVisible");
    QTest::addColumn<bool>("failing");
    QTest::addColumn<Seconds>("heard");
    QTest::addColumn<double>("until");
    QTest::addColumn<Seconds>("reads");

    const Seconds pinged = every(25, 0, 400);
    QTest::newRow("feed live and hidden, pinged every 25 s: a read every 60 s")
        << true << false << false << pinged << 250.0 << Seconds{0, 60, 120, 180, 240};
    QTest::newRow("feed live and shown: every 6 s") << true << true << false << pinged << 20.0 << Seconds{0, 6, 12, 18};
    QTest::newRow("feed live and hidden, silent from the start: a read at 30 s, then the next after another 60")
        << true << false << false << Seconds{0} << 160.0 << Seconds{0, 30, 90, 150};
    QTest::newRow("feed falls silent after 100 s: one read at 130 s pulled forward, then the pace again")
        << true << false << false << every(25, 0, 100) << 250.0 << Seconds{0, 60, 120, 130, 190, 250};
    QTest::newRow("a silent feed that was never heard changes nothing")
        << true << false << false << Seconds{} << 130.0 << Seconds{0, 60, 120};
    QTest::newRow("feed dead and hidden: every 5 s")
        << false << false << false << Seconds{} << 16.0 << Seconds{0, 5, 10, 15};
    QTest::newRow("feed dead and shown: every 1.5 s")
        << false << true << false << Seconds{} << 4.6 << Seconds{0, 1.5, 3, 4.5};
    QTest::newRow("failing with the feed live: every 2 s")
        << true << false << true << pinged << 6.5 << Seconds{0, 2, 4, 6};
    QTest::newRow("failing with the popover open: every 2 s, slower than 1.5")
        << false << true << true << Seconds{} << 6.5 << Seconds{0, 2, 4, 6};
    QTest::newRow("silence is a live feed's rule only: a dead feed keeps its 5 s")
        << false << false << false << Seconds{0} << 36.0 << every(5, 0, 35);
}

void TestReadPace::readsOverTime()
{
    QFETCH(bool, feedLive);
    QFETCH(bool, popoverVisible);
    QFETCH(bool, failing);
    QFETCH(Seconds, heard);
    QFETCH(double, until);
    QFETCH(Seconds, reads);
    ManualClock clock;
    ReadPace pace;
    pace.feedLive = feedLive;
    pace.popoverVisible = popoverVisible;
    pace.failing = failing;
    const Seconds actual = runLoop(clock, pace, heard, until);
    QCOMPARE(actual.size(), reads.size());
    for (qsizetype i = 0; i < reads.size(); ++i)
        QVERIFY2(qAbs(actual.at(i) - reads.at(i)) < 0.01,
            qPrintable(QStringLiteral("read %1 at %2, expected %3").arg(i).arg(actual.at(i)).arg(reads.at(i))));
}

void TestReadPace::aShortDueStillNaps()
{
    ManualClock clock;
    ReadPace pace;
    pace.feedLive = true;
    pace.lastRead = clock.now().addMSecs(-59990);
    // 10 ms to go is rounded up to the shortest nap, never a busy loop.
    QCOMPARE(pace.nap(false, clock.now()), std::optional<double>(ReadPace::shortestNap));
    QCOMPARE(pace.nap(true, clock.now()), std::nullopt);
    clock.advance(0.01);
    QCOMPARE(pace.nap(false, clock.now()), std::nullopt);
}

void TestReadPace::withStatus_data()
{
    QTest::addColumn<bool>("statusNow");
    QTest::addColumn<bool>("feedLive");
    QTest::addColumn<bool>("popoverVisible");
    QTest::addColumn<double>("sinceStatus");
    QTest::addColumn<bool>("expected");

    QTest::newRow("asked for: always") << true << true << false << 0.0 << true;
    QTest::newRow("shown: not before 6 s") << false << true << true << 5.9 << false;
    QTest::newRow("shown: at 6 s") << false << true << true << 6.0 << true;
    QTest::newRow("hidden, feed live: not before 60 s") << false << true << false << 59.0 << false;
    QTest::newRow("hidden, feed live: at 60 s") << false << true << false << 60.0 << true;
    QTest::newRow("hidden, feed dead: at 30 s") << false << false << false << 30.0 << true;
    QTest::newRow("hidden, feed dead: not at 29 s") << false << false << false << 29.0 << false;
}

void TestReadPace::withStatus()
{
    QFETCH(bool, statusNow);
    QFETCH(bool, feedLive);
    QFETCH(bool, popoverVisible);
    QFETCH(double, sinceStatus);
    ManualClock clock;
    ReadPace pace;
    pace.feedLive = feedLive;
    pace.popoverVisible = popoverVisible;
    pace.lastStatus = ago(clock, sinceStatus);
    QTEST(pace.withStatus(statusNow, clock.now()), "expected");
}

void TestReadPace::feedBelieved_data()
{
    QTest::addColumn<double>("heardAgo");
    QTest::addColumn<bool>("believed");

    QTest::newRow("heard 29.9 s ago") << 29.9 << true;
    QTest::newRow("heard 30 s ago: no longer") << 30.0 << false;
    QTest::newRow("never heard") << -1.0 << false;
}

void TestReadPace::feedBelieved()
{
    QFETCH(double, heardAgo);
    ManualClock clock;
    const std::optional<QDateTime> heardAt = heardAgo < 0 ? std::nullopt : std::optional(ago(clock, heardAgo));
    QTEST(ReadPace::feedBelieved(heardAt, clock.now()), "believed");
}

void TestReadPace::nudge_data()
{
    QTest::addColumn<bool>("incomplete");
    QTest::addColumn<int>("reading");
    QTest::addColumn<double>("sinceNudge");
    QTest::addColumn<bool>("wanted");

    QTest::newRow("incomplete picture, idle, long since") << true << 0 << 100.0 << true;
    QTest::newRow("complete picture: never") << false << 0 << 100.0 << false;
    QTest::newRow("a read under way: it brings the picture") << true << 1 << 100.0 << false;
    QTest::newRow("nudged 1.9 s ago") << true << 0 << 1.9 << false;
    QTest::newRow("nudged 2 s ago") << true << 0 << 2.0 << true;
}

void TestReadPace::nudge()
{
    QFETCH(bool, incomplete);
    QFETCH(int, reading);
    QFETCH(double, sinceNudge);
    ManualClock clock;
    QTEST(ReadPace::nudgeWanted(incomplete, reading, ago(clock, sinceNudge), clock.now()), "wanted");
}

void TestReadPace::usageRefresh_data()
{
    QTest::addColumn<QString>("source");
    QTest::addColumn<double>("observedAgo");
    QTest::addColumn<double>("sinceAsk");
    QTest::addColumn<bool>("wanted");

    const double none = -1;
    QTest::newRow("stale source") << "stale" << none << 1000.0 << true;
    QTest::newRow("observed 301 s ago") << "official" << 301.0 << 1000.0 << true;
    QTest::newRow("observed 299 s ago") << "official" << 299.0 << 1000.0 << false;
    QTest::newRow("no observation time and not stale") << "official" << none << 1000.0 << false;
    QTest::newRow("stale, but asked 200 s ago") << "stale" << none << 200.0 << false;
    QTest::newRow("stale, asked 300 s ago") << "stale" << none << 300.0 << true;
    QTest::newRow("no usage at all") << QString() << none << 1000.0 << false;
}

void TestReadPace::usageRefresh()
{
    QFETCH(QString, source);
    QFETCH(double, observedAgo);
    QFETCH(double, sinceAsk);
    ManualClock clock;
    std::optional<Usage> usage;
    if (!source.isNull()) {
        usage.emplace();
        usage->source = source;
        if (observedAgo >= 0)
            usage->observedAt = FlexDate::fromDateTime(ago(clock, observedAgo));
    }
    QTEST(ReadPace::usageRefreshWanted(usage, ago(clock, sinceAsk), clock.now()), "wanted");
}

void TestReadPace::claudeLook_data()
{
    QTest::addColumn<bool>("serviceSaysNo");
    QTest::addColumn<bool>("looking");
    QTest::addColumn<double>("lookedAgo");
    QTest::addColumn<bool>("due");

    const double never = -1;
    QTest::newRow("the service says none and nobody looked yet") << true << false << never << true;
    QTest::newRow("the service finds Claude Code: no look") << false << false << never << false;
    QTest::newRow("a look under way") << true << true << never << false;
    QTest::newRow("looked 5 minutes ago") << true << false << 300.0 << false;
    QTest::newRow("looked over ten minutes ago") << true << false << 601.0 << true;
}

void TestReadPace::claudeLook()
{
    QFETCH(bool, serviceSaysNo);
    QFETCH(bool, looking);
    QFETCH(double, lookedAgo);
    ManualClock clock;
    const std::optional<QDateTime> lookedAt = lookedAgo < 0 ? std::nullopt : std::optional(ago(clock, lookedAgo));
    QTEST(ReadPace::claudeLookDue(serviceSaysNo, looking, lookedAt, clock.now()), "due");
}

QTEST_GUILESS_MAIN(TestReadPace)
#include "TestReadPace.moc"

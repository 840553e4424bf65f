#include "model/ReadPace.h"

#include "ManualClock.h"

#include <QTest>

#include <functional>

using namespace Qt::StringLiterals;

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

ReadPace paceOf(const ManualClock& clock, bool feedLive, bool popoverVisible, double sinceStatus)
{
    ReadPace pace;
    pace.feedLive = feedLive;
    pace.popoverVisible = popoverVisible;
    pace.lastStatus = ago(clock, sinceStatus);
    return pace;
}

std::optional<Usage> usageOf(const ManualClock& clock, const QString& source, std::optional<double> observedAgo)
{
    Usage usage;
    usage.source = source;
    if (observedAgo)
        usage.observedAt = FlexDate::fromDateTime(ago(clock, *observedAgo));
    return usage;
}

/// One decision of the pace, asked at the clock's now.
using Decision = std::function<bool(const ManualClock&)>;

} // namespace

Q_DECLARE_METATYPE(Decision)

class TestReadPace : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void readsOverTime_data();
    void readsOverTime();
    void decisions_data();
    void decisions();
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

void TestReadPace::decisions_data()
{
    QTest::addColumn<Decision>("decision");
    QTest::addColumn<bool>("expected");

    const auto row
        = [](const char* name, Decision decision, bool expected) { QTest::newRow(name) << decision << expected; };
    const auto withStatus = [](bool statusNow, bool feedLive, bool shown, double sinceStatus) {
        return Decision([=](const ManualClock& c) {
            return paceOf(c, feedLive, shown, sinceStatus).withStatus(statusNow, c.now());
        });
    };
    row("status asked for: always", withStatus(true, true, false, 0), true);
    row("status shown: not before 6 s", withStatus(false, true, true, 5.9), false);
    row("status shown: at 6 s", withStatus(false, true, true, 6), true);
    row("status hidden, feed live: not before 60 s", withStatus(false, true, false, 59), false);
    row("status hidden, feed live: at 60 s", withStatus(false, true, false, 60), true);
    row("status hidden, feed dead: at 30 s", withStatus(false, false, false, 30), true);
    row("status hidden, feed dead: not at 29 s", withStatus(false, false, false, 29), false);

    const auto believed = [](std::optional<double> heardAgo) {
        return Decision([=](const ManualClock& c) {
            return ReadPace::feedBelieved(heardAgo ? std::optional(ago(c, *heardAgo)) : std::nullopt, c.now());
        });
    };
    row("feed heard 29.9 s ago: believed", believed(29.9), true);
    row("feed heard 30 s ago: no longer", believed(30), false);
    row("feed never heard: not believed", believed(std::nullopt), false);

    const auto nudge = [](bool incomplete, int reading, double sinceNudge) {
        return Decision([=](const ManualClock& c) {
            return ReadPace::nudgeWanted(incomplete, reading, ago(c, sinceNudge), c.now());
        });
    };
    row("nudge: incomplete picture, idle, long since", nudge(true, 0, 100), true);
    row("nudge: complete picture, never", nudge(false, 0, 100), false);
    row("nudge: a read under way brings the picture", nudge(true, 1, 100), false);
    row("nudge: nudged 1.9 s ago", nudge(true, 0, 1.9), false);
    row("nudge: nudged 2 s ago", nudge(true, 0, 2), true);

    const auto usage = [](const QString& source, std::optional<double> observedAgo, double sinceAsk) {
        return Decision([=](const ManualClock& c) {
            const std::optional<Usage> held = source.isNull() ? std::nullopt : usageOf(c, source, observedAgo);
            return ReadPace::usageRefreshWanted(held, ago(c, sinceAsk), c.now());
        });
    };
    row("usage: stale source", usage(u"stale"_s, std::nullopt, 1000), true);
    row("usage: observed 301 s ago", usage(u"official"_s, 301, 1000), true);
    row("usage: observed 299 s ago", usage(u"official"_s, 299, 1000), false);
    row("usage: no observation time and not stale", usage(u"official"_s, std::nullopt, 1000), false);
    row("usage: stale, but asked 200 s ago", usage(u"stale"_s, std::nullopt, 200), false);
    row("usage: stale, asked 300 s ago", usage(u"stale"_s, std::nullopt, 300), true);
    row("usage: none at all", usage(QString(), std::nullopt, 1000), false);

    const auto look = [](bool serviceSaysNo, bool looking, std::optional<double> lookedAgo) {
        return Decision([=](const ManualClock& c) {
            return ReadPace::claudeLookDue(
                serviceSaysNo, looking, lookedAgo ? std::optional(ago(c, *lookedAgo)) : std::nullopt, c.now());
        });
    };
    row("Claude look: the service says none and nobody looked yet", look(true, false, std::nullopt), true);
    row("Claude look: the service finds it", look(false, false, std::nullopt), false);
    row("Claude look: one under way", look(true, true, std::nullopt), false);
    row("Claude look: looked 5 minutes ago", look(true, false, 300), false);
    row("Claude look: looked over ten minutes ago", look(true, false, 601), true);

    // 10 ms to go is rounded up to the shortest nap, never a busy loop.
    const auto naps = [](double sinceRead, bool readNow) {
        return Decision([=](const ManualClock& c) {
            ReadPace pace;
            pace.feedLive = true;
            pace.lastRead = ago(c, sinceRead);
            return pace.nap(readNow, c.now()) == std::optional<double>(ReadPace::shortestNap);
        });
    };
    row("10 ms before due: the shortest nap", naps(59.99, false), true);
    row("asked to read now: no nap", naps(59.99, true), false);
}

void TestReadPace::decisions()
{
    QFETCH(Decision, decision);
    ManualClock clock;
    QTEST(decision(clock), "expected");
}

QTEST_GUILESS_MAIN(TestReadPace)
#include "TestReadPace.moc"

#include "link/DaemonClient.h"
#include "phone/PopoverPairing.h"
#include "surface/words/PairWords.h"

#include "ManualClock.h"
#include "Offline.h"
#include "ScratchFolder.h"

#include <QJsonDocument>
#include <QSignalSpy>
#include <QTest>
#include <algorithm>

using namespace Qt::StringLiterals;

namespace {

/// Answers as the service would, at once and without a socket: each path's
/// reply is set by the test, and every request is kept.
class FakeService final : public DaemonClient
{
public:
    explicit FakeService(const Environment& environment)
        : DaemonClient(environment)
    {
    }

    struct Request {
        QString path;
        QJsonObject body;
    };

    void request(
        Method, const QString& path, std::optional<QJsonObject> body, double, Callback<QByteArray> done) override
    {
        requests.append({path, body.value_or(QJsonObject())});
        if (failures.contains(path))
            return done(failures.value(path));
        done(replies.value(path, "{}"));
    }

    qsizetype count(const QString& path) const
    {
        return std::count_if(requests.begin(), requests.end(), [&](const Request& r) { return r.path == path; });
    }
    QStringList cancelled() const
    {
        QStringList codes;
        for (const Request& r : requests) {
            if (r.path == u"/local/pair/cancel"_s)
                codes << r.body.value(u"code"_s).toString();
        }
        return codes;
    }

    QHash<QString, QByteArray> replies;
    QHash<QString, DaemonError> failures;
    QList<Request> requests;
};

const QString kStart = u"/local/pair/start"_s;
const QString kDevices = u"/local/devices"_s;
const QString kAddress = u"https://mac.tail1.ts.net"_s;

QByteArray code(const QString& code, double secondsLeft, const ManualClock& clock, const QString& url = kAddress)
{
    const qint64 ends = clock.now().toMSecsSinceEpoch() + qint64(secondsLeft * 1000);
    return QJsonDocument(QJsonObject{{u"code"_s, code}, {u"link"_s, u"https://tidewatch.example/pair#c="_s + code},
                             {u"expiresAt"_s, double(ends)}, {u"url"_s, url}})
        .toJson();
}

} // namespace

/// The pair page's watch loop, turn by turn, against a service that answers at once.
class TestPopoverPairing : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void codeDue_data();
    void codeDue();
    void needsAccessAsksNothing();
    void aTrailingSlashIsTheSameAddress();
    void aCodeForAnotherAddressIsStale();
    void aLanOnlyCodeSaysWiFi();
    void failuresAskAtMostEverySixSeconds();
    void aCodeNearItsEndIsReplacedAndWithdrawn();
    void aNewDevicePairsAndAnotherStartsAfresh();
    void stopWithdrawsTheCodeOnShow();
    void aSampleOnlyShows();

private:
    struct Rig {
        ScratchFolder scratch;
        ManualClock clock;
        FakeService service{nowhere(scratch)};
        PopoverPairing::Routes routes{kAddress, false};
        PopoverPairing pairing{&service, [this] { return routes; }, clock};
    };
};

void TestPopoverPairing::codeDue_data()
{
    QTest::addColumn<double>("secondsLeft");
    QTest::addColumn<bool>("fetching");
    QTest::addColumn<double>("sinceAttempt");
    QTest::addColumn<bool>("due");
    // secondsLeft < 0 stands for no code on show; NaN for a code without an end.
    QTest::newRow("no code yet: one is asked for") << -1.0 << false << 100.0 << true;
    QTest::newRow("19 s left: replaced") << 19.0 << false << 100.0 << true;
    QTest::newRow("21 s left: kept") << 21.0 << false << 100.0 << false;
    QTest::newRow("a request under way: never a second") << -1.0 << true << 100.0 << false;
    QTest::newRow("5 s after the last request: waits") << -1.0 << false << 5.0 << false;
    QTest::newRow("6 s after the last request: asks") << -1.0 << false << 6.0 << true;
    QTest::newRow("a code without an end lasts the page") << qQNaN() << false << 100.0 << false;
}

void TestPopoverPairing::codeDue()
{
    QFETCH(double, secondsLeft);
    QFETCH(bool, fetching);
    QFETCH(double, sinceAttempt);
    QFETCH(bool, due);
    const QDateTime now = QDateTime::fromSecsSinceEpoch(1760007200, Qt::UTC);
    std::optional<PairStart> pair;
    if (qIsNaN(secondsLeft) || secondsLeft >= 0) {
        pair = PairStart{u"B3X7N5"_s, u"l"_s, std::nullopt, std::nullopt};
        if (!qIsNaN(secondsLeft))
            pair->expiresAt = FlexDate::fromDateTime(now.addMSecs(qint64(secondsLeft * 1000)));
    }
    QCOMPARE(PopoverPairing::codeDue(pair, fetching, now.addMSecs(qint64(-sinceAttempt * 1000)), now), due);
}

void TestPopoverPairing::needsAccessAsksNothing()
{
    Rig rig;
    rig.routes = {};
    rig.pairing.start();
    rig.clock.advance(2);
    rig.pairing.turn();
    QCOMPARE(rig.pairing.phase(), PopoverPairing::Phase::NeedsAccess);
    QVERIFY(rig.service.requests.isEmpty());
    // A route that comes up starts again.
    rig.routes = {kAddress, false};
    rig.service.replies.insert(kStart, code(u"B3X7N5"_s, 600, rig.clock));
    rig.clock.advance(2);
    rig.pairing.turn();
    QCOMPARE(rig.pairing.phase(), PopoverPairing::Phase::Showing);
}

void TestPopoverPairing::aTrailingSlashIsTheSameAddress()
{
    Rig rig;
    rig.service.replies.insert(kStart, code(u"B3X7N5"_s, 600, rig.clock, kAddress + u'/'));
    rig.pairing.start();
    QCOMPARE(rig.pairing.phase(), PopoverPairing::Phase::Showing);
    QCOMPARE(rig.pairing.pair()->code, u"B3X7N5"_s);
    QVERIFY(!rig.pairing.localOnly());
}

void TestPopoverPairing::aCodeForAnotherAddressIsStale()
{
    Rig rig;
    rig.service.replies.insert(kStart, code(u"OLD111"_s, 600, rig.clock, u"https://192.168.1.24:47323"_s));
    rig.pairing.start();
    QCOMPARE(rig.pairing.phase(), PopoverPairing::Phase::Failed);
    QCOMPARE(rig.pairing.failure(), PopoverPairing::Failure::StaleAddress);
    QVERIFY(!rig.pairing.pair());
    QCOMPARE(rig.service.cancelled(), QStringList{u"OLD111"_s});
    const PairWords::Page words = PairWords::page(
        rig.pairing.phase(), rig.pairing.failure(), rig.pairing.detail(), false, rig.pairing.localOnly());
    QCOMPARE(words.lead, PairWords::staleAddress());
}

void TestPopoverPairing::aLanOnlyCodeSaysWiFi()
{
    Rig rig;
    rig.routes = {QString(), true};
    rig.service.replies.insert(kStart, code(u"K9P2QA"_s, 600, rig.clock, QString()));
    rig.pairing.start();
    QCOMPARE(rig.pairing.phase(), PopoverPairing::Phase::Showing);
    QVERIFY(rig.pairing.localOnly());
    const PairWords::Page words = PairWords::page(rig.pairing.phase(), rig.pairing.failure(), rig.pairing.detail(),
        rig.pairing.pair().has_value(), rig.pairing.localOnly());
    QVERIFY(words.showsCode);
    QVERIFY2(words.wifi.startsWith(u"Works on this Wi\u2011Fi."_s), qPrintable(words.wifi));
}

void TestPopoverPairing::failuresAskAtMostEverySixSeconds()
{
    Rig rig;
    rig.service.failures.insert(kStart, DaemonError::server(503, std::nullopt, u"Pairing is off just now."_s));
    rig.pairing.start();
    for (int turn = 0; turn < 15; ++turn) {
        rig.clock.advance(2);
        rig.pairing.turn();
    }
    // 30 s of turns every 2 s: at 0, 6, 12, 18, 24 and 30 s.
    QCOMPARE(rig.service.count(kStart), 6);
    QCOMPARE(rig.service.count(kDevices), 16);
    QCOMPARE(rig.pairing.phase(), PopoverPairing::Phase::Failed);
    QCOMPARE(rig.pairing.detail(), u"Pairing is off just now."_s);
}

void TestPopoverPairing::aCodeNearItsEndIsReplacedAndWithdrawn()
{
    Rig rig;
    rig.service.replies.insert(kStart, code(u"FIRST1"_s, 30, rig.clock));
    rig.pairing.start();
    rig.service.replies.insert(kStart, code(u"SECND2"_s, 600, rig.clock));
    rig.clock.advance(8);
    rig.pairing.turn();
    QCOMPARE(rig.pairing.pair()->code, u"FIRST1"_s);
    // A failure keeps the last code on screen.
    rig.service.failures.insert(kStart, DaemonError::notRunning());
    rig.clock.advance(3);
    rig.pairing.turn();
    QCOMPARE(rig.pairing.phase(), PopoverPairing::Phase::Failed);
    QCOMPARE(rig.pairing.pair()->code, u"FIRST1"_s);
    rig.service.failures.clear();
    rig.clock.advance(6);
    rig.pairing.turn();
    QCOMPARE(rig.pairing.phase(), PopoverPairing::Phase::Showing);
    QCOMPARE(rig.pairing.pair()->code, u"SECND2"_s);
    QCOMPARE(rig.service.cancelled(), QStringList{u"FIRST1"_s});
}

void TestPopoverPairing::aNewDevicePairsAndAnotherStartsAfresh()
{
    Rig rig;
    QSignalSpy paired(&rig.pairing, &PopoverPairing::paired);
    rig.service.replies.insert(kDevices, R"({"devices":[{"id":"a","name":"Old phone"}]})");
    rig.service.replies.insert(kStart, code(u"B3X7N5"_s, 600, rig.clock));
    rig.pairing.start();
    rig.service.replies.insert(kDevices, R"([{"id":"a"},{"id":"b","name":"Pixel 9"}])");
    rig.clock.advance(2);
    rig.pairing.turn();
    QCOMPARE(rig.pairing.phase(), PopoverPairing::Phase::Paired);
    QCOMPARE(rig.pairing.detail(), u"Pixel 9"_s);
    QCOMPARE(paired.count(), 1);
    QVERIFY(!rig.pairing.running());
    // The code the phone used is spent: nothing withdraws it.
    rig.pairing.stop();
    QVERIFY(rig.service.cancelled().isEmpty());
    // The same phone doesn't count twice.
    rig.pairing.start();
    rig.clock.advance(2);
    rig.pairing.turn();
    QCOMPARE(rig.pairing.phase(), PopoverPairing::Phase::Showing);
    QCOMPARE(paired.count(), 1);
}

void TestPopoverPairing::stopWithdrawsTheCodeOnShow()
{
    Rig rig;
    rig.service.replies.insert(kStart, code(u"B3X7N5"_s, 600, rig.clock));
    rig.pairing.start();
    rig.pairing.stop();
    QCOMPARE(rig.service.cancelled(), QStringList{u"B3X7N5"_s});
    QVERIFY(!rig.pairing.pair());
    const qsizetype asked = rig.service.requests.size();
    rig.clock.advance(2);
    rig.pairing.turn();
    QCOMPARE(rig.service.requests.size(), asked);
}

void TestPopoverPairing::aSampleOnlyShows()
{
    ManualClock clock;
    int routesRead = 0;
    PopoverPairing sample(
        nullptr,
        [&routesRead] {
            ++routesRead;
            return PopoverPairing::Routes{};
        },
        clock);
    sample.showSample(PopoverPairing::Phase::Paired, std::nullopt, false, u"Pixel 9"_s);
    sample.start();
    sample.turn();
    sample.stop();
    QCOMPARE(sample.phase(), PopoverPairing::Phase::Paired);
    QCOMPARE(routesRead, 0);
}

QTEST_GUILESS_MAIN(TestPopoverPairing)
#include "TestPopoverPairing.moc"

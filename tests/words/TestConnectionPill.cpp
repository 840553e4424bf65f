#include "surface/words/ConnectionPill.h"

#include "Fixture.h"

#include <QTest>

using namespace Qt::StringLiterals;

using Route = ConnectionPill::Look::Route;

namespace {

const QDateTime kNow = Fixture::now();
constexpr auto statusOf = &Fixture::maybe<LocalStatus>;

} // namespace

class TestConnectionPill : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void looks_data();
    void looks();
    void counts_data();
    void counts();
};

void TestConnectionPill::looks_data()
{
    QTest::addColumn<bool>("firstPollDone");
    QTest::addColumn<bool>("alive");
    QTest::addColumn<QByteArray>("status");
    QTest::addColumn<int>("dot");
    QTest::addColumn<QString>("word");
    QTest::addColumn<QString>("help");
    QTest::addColumn<int>("route");
    QTest::addColumn<bool>("glow");

    const QByteArray ready = R"({"tailscale":{"serveOn":true,"url":"https://mac.ts.net/"},"connectedClients":2)";
    QTest::newRow("before the first read") << false << false << QByteArray() << int(Ink::Muted) << u"checking"_s
                                           << u"Checking the background service"_s << int(Route::None) << false;
    QTest::newRow("the service gone") << true << false << QByteArray("{}") << int(Ink::Red) << u"service off"_s
                                      << u"The background service isn't answering"_s << int(Route::None) << false;
    QTest::newRow("no status yet") << true << true << QByteArray() << int(Ink::Muted) << u"connecting"_s
                                   << u"Asking the background service"_s << int(Route::None) << false;
    QTest::newRow("phone access on, a phone connected: it glows")
        << true << true << ready + "}" << int(Ink::Green) << u"tailnet"_s
        << u"Phone access is on at https://mac.ts.net. 1 connected right now."_s << int(Route::Tailnet) << true;
    // Key expiries in seconds from now: 13 and 15 days ahead, a day past.
    QTest::newRow("a key 13 days from running out")
        << true << true << ready + R"(,"tailscale":{"serveOn":true,"url":"https://mac.ts.net","keyExpiry":"@1123200"}})"
        << int(Ink::Amber) << u"tailnet"_s
        << u"This Mac's Tailscale key expires soon. Phone access is at https://mac.ts.net. 1 connected right now."_s
        << int(Route::Tailnet) << false;
    QTest::newRow("a key 15 days off is no worry")
        << true << true << ready + R"(,"tailscale":{"serveOn":true,"url":"https://mac.ts.net","keyExpiry":"@1296000"}})"
        << int(Ink::Green) << u"tailnet"_s << u"Phone access is on at https://mac.ts.net. 1 connected right now."_s
        << int(Route::Tailnet) << true;
    QTest::newRow("an expired key")
        << true << true << QByteArray(R"({"tailscale":{"serveOn":true,"url":"https://m","keyExpiry":"@-86400"}})")
        << int(Ink::Amber) << u"key expired"_s
        << u"This Mac's Tailscale key has expired. Phone access is at https://m. No phone is connected right now."_s
        << int(Route::Tailnet) << false;
    QTest::newRow("the built-in node serving")
        << true << true
        << QByteArray(
               R"({"tsnet":{"mode":"builtIn","url":"https://b.ts.net","helper":{"state":"Running","listening":"1"}}})")
        << int(Ink::Green) << u"tailnet"_s
        << u"Tidewatch's built-in Tailscale serves phone access at https://b.ts.net. No phone is connected right now."_s
        << int(Route::Tailnet) << false;
    QTest::newRow("the built-in node starting")
        << true << true << QByteArray(R"({"tsnet":{"mode":"builtIn"}})") << int(Ink::Muted) << u"Tailscale starting"_s
        << u"Tidewatch's built-in Tailscale is starting"_s << int(Route::None) << false;
    QTest::newRow("no tailnet but the local network: the Wi‑Fi word")
        << true << true << QByteArray(R"({"tailscale":{"installed":false},"lan":{"addresses":["192.168.1.24"]}})")
        << int(Ink::DimGreen) << QStringLiteral("Wi\u2011Fi")
        << QStringLiteral("Phones on this Wi\u2011Fi reach this Mac. Turn on Tailscale in Setup to reach it from anywhere. "
                          "No phone is connected right now.")
        << int(Route::Lan) << false;
    QTest::newRow("Tailscale signed out")
        << true << true << QByteArray(R"({"tailscale":{"loggedIn":false}})") << int(Ink::Amber)
        << u"Tailscale signed out"_s << u"Phones reach this Mac through Tailscale"_s << int(Route::None) << false;
    QTest::newRow("no Tailscale") << true << true << QByteArray(R"({"tailscale":{"installed":false}})")
                                  << int(Ink::Amber) << u"no Tailscale"_s
                                  << u"Tailscale isn't set up, so phones can't reach this Mac"_s << int(Route::None)
                                  << false;
    QTest::newRow("serving off") << true << true << QByteArray(R"({"tailscale":{"serveOn":false}})") << int(Ink::Amber)
                                 << u"phone access off"_s << u"Phone access isn't on yet"_s << int(Route::None)
                                 << false;
}

void TestConnectionPill::looks()
{
    QFETCH(bool, firstPollDone);
    QFETCH(bool, alive);
    QFETCH(QByteArray, status);
    const std::optional<LocalStatus> read = statusOf(status);
    const ConnectionPill::Look look = ConnectionPill::look({firstPollDone, alive, read, true}, kNow);
    QTEST(int(look.dot), "dot");
    QTEST(look.word, "word");
    QTEST(look.help, "help");
    QTEST(int(look.route), "route");
    QTEST(look.glow, "glow");
}

void TestConnectionPill::counts_data()
{
    QTest::addColumn<QByteArray>("devices");
    QTest::addColumn<int>("phones");
    QTest::addColumn<bool>("glasses");

    QTest::newRow("none") << QByteArray("[]") << 0 << false;
    QTest::newRow("two phones") << QByteArray(R"([{"id":"a"},{"id":"b","client":"android"}])") << 2 << false;
    QTest::newRow("glasses of their own") << QByteArray(R"([{"id":"a"},{"id":"g","client":"lens"}])") << 1 << true;
    QTest::newRow("glasses through a phone") << QByteArray(R"([{"id":"a","glasses":{"since":1760000000}}])") << 1 << true;
    QTest::newRow("glasses that were unlinked")
        << QByteArray(R"([{"id":"a","glasses":{"since":1760000000,"removedAt":1760001000}}])") << 1 << false;
}

void TestConnectionPill::counts()
{
    QFETCH(QByteArray, devices);
    const std::optional<LocalStatus> status
        = statusOf(R"({"tailscale":{"installed":false},"devices":)" + devices + "}");
    const ConnectionPill::Look look = ConnectionPill::look({true, true, status, false}, kNow);
    QTEST(look.phones, "phones");
    QTEST(look.glasses, "glasses");
    QCOMPARE(ConnectionPill::connectedSentence(0), QStringLiteral("No phone is connected right now."));
    QCOMPARE(ConnectionPill::connectedSentence(3), QStringLiteral("3 connected right now."));
}

QTEST_GUILESS_MAIN(TestConnectionPill)
#include "TestConnectionPill.moc"

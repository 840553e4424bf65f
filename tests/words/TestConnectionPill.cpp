#include "surface/words/ConnectionPill.h"

#include <QJsonDocument>
#include <QTest>

using Route = ConnectionPill::Look::Route;

namespace {

const QDateTime kNow = QDateTime::fromSecsSinceEpoch(1760007200, Qt::UTC);

std::optional<LocalStatus> statusOf(const QByteArray& json)
{
    if (json.isEmpty())
        return std::nullopt;
    QByteArray filled = json;
    // Key expiries are written as days from now.
    for (const char* days : {"-1", "13", "15"}) {
        filled.replace(QByteArray("\"in ") + days + " days\"",
                       QByteArray::number(kNow.toMSecsSinceEpoch() + qint64(QByteArray(days).toInt()) * 86400000));
    }
    return LocalStatus::fromJson(QJsonDocument::fromJson(filled).object());
}

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
    QTest::newRow("before the first read") << false << false << QByteArray() << int(Ink::Muted) << "checking"
                                           << "Checking the background service" << int(Route::None) << false;
    QTest::newRow("the service gone") << true << false << QByteArray("{}") << int(Ink::Red) << "service off"
                                      << "The background service isn't answering" << int(Route::None) << false;
    QTest::newRow("no status yet") << true << true << QByteArray() << int(Ink::Muted) << "connecting"
                                   << "Asking the background service" << int(Route::None) << false;
    QTest::newRow("phone access on, a phone connected: it glows")
        << true << true << ready + "}" << int(Ink::Green) << "tailnet"
        << "Phone access is on at https://mac.ts.net. 1 connected right now." << int(Route::Tailnet) << true;
    QTest::newRow("a key 13 days from running out")
        << true << true << ready + R"(,"tailscale":{"serveOn":true,"url":"https://mac.ts.net","keyExpiry":"in 13 days"}})"
        << int(Ink::Amber) << "tailnet"
        << "This Mac's Tailscale key expires soon. Phone access is at https://mac.ts.net. 1 connected right now."
        << int(Route::Tailnet) << false;
    QTest::newRow("a key 15 days off is no worry")
        << true << true << ready + R"(,"tailscale":{"serveOn":true,"url":"https://mac.ts.net","keyExpiry":"in 15 days"}})"
        << int(Ink::Green) << "tailnet" << "Phone access is on at https://mac.ts.net. 1 connected right now."
        << int(Route::Tailnet) << true;
    QTest::newRow("an expired key")
        << true << true << QByteArray(R"({"tailscale":{"serveOn":true,"url":"https://m","keyExpiry":"in -1 days"}})")
        << int(Ink::Amber) << "key expired"
        << "This Mac's Tailscale key has expired. Phone access is at https://m. No phone is connected right now."
        << int(Route::Tailnet) << false;
    QTest::newRow("the built-in node serving")
        << true << true << QByteArray(R"({"tsnet":{"mode":"builtIn","url":"https://b.ts.net","helper":{"state":"Running","listening":"1"}}})")
        << int(Ink::Green) << "tailnet"
        << "Tidewatch's built-in Tailscale serves phone access at https://b.ts.net. No phone is connected right now."
        << int(Route::Tailnet) << false;
    QTest::newRow("the built-in node starting") << true << true << QByteArray(R"({"tsnet":{"mode":"builtIn"}})")
                                                << int(Ink::Muted) << "Tailscale starting"
                                                << "Tidewatch's built-in Tailscale is starting" << int(Route::None) << false;
    QTest::newRow("no tailnet but the local network: the Wi‑Fi word")
        << true << true << QByteArray(R"({"tailscale":{"installed":false},"lan":{"addresses":["192.168.1.24"]}})")
        << int(Ink::DimGreen) << QStringLiteral("Wi\u2011Fi")
        << QStringLiteral("Phones on this Wi\u2011Fi reach this Mac. Turn on Tailscale in Setup to reach it from anywhere. "
                          "No phone is connected right now.")
        << int(Route::Lan) << false;
    QTest::newRow("Tailscale signed out") << true << true << QByteArray(R"({"tailscale":{"loggedIn":false}})")
                                          << int(Ink::Amber) << "Tailscale signed out"
                                          << "Phones reach this Mac through Tailscale" << int(Route::None) << false;
    QTest::newRow("no Tailscale") << true << true << QByteArray(R"({"tailscale":{"installed":false}})") << int(Ink::Amber)
                                  << "no Tailscale" << "Tailscale isn't set up, so phones can't reach this Mac"
                                  << int(Route::None) << false;
    QTest::newRow("serving off") << true << true << QByteArray(R"({"tailscale":{"serveOn":false}})") << int(Ink::Amber)
                                 << "phone access off" << "Phone access isn't on yet" << int(Route::None) << false;
}

void TestConnectionPill::looks()
{
    QFETCH(bool, firstPollDone);
    QFETCH(bool, alive);
    QFETCH(QByteArray, status);
    QFETCH(int, dot);
    QFETCH(QString, word);
    QFETCH(QString, help);
    QFETCH(int, route);
    QFETCH(bool, glow);
    const std::optional<LocalStatus> read = statusOf(status);
    const ConnectionPill::Look look = ConnectionPill::look({firstPollDone, alive, read, true}, kNow);
    QCOMPARE(int(look.dot), dot);
    QCOMPARE(look.word, word);
    QCOMPARE(look.help, help);
    QCOMPARE(int(look.route), route);
    QCOMPARE(look.glow, glow);
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
    QFETCH(int, phones);
    QFETCH(bool, glasses);
    const std::optional<LocalStatus> status = statusOf(R"({"tailscale":{"installed":false},"devices":)" + devices + "}");
    const ConnectionPill::Look look = ConnectionPill::look({true, true, status, false}, kNow);
    QCOMPARE(look.phones, phones);
    QCOMPARE(look.glasses, glasses);
    QCOMPARE(ConnectionPill::connectedSentence(0), QStringLiteral("No phone is connected right now."));
    QCOMPARE(ConnectionPill::connectedSentence(3), QStringLiteral("3 connected right now."));
}

QTEST_GUILESS_MAIN(TestConnectionPill)
#include "TestConnectionPill.moc"

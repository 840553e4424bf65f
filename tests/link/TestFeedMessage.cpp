#include "link/FeedMessage.h"
#include "link/LiveFeed.h"

#include <QTest>

using Kind = Feed::Frame::Kind;

namespace {

/// Which alternative a message holds, by the name a reader would use.
QString nameOf(const std::optional<Feed::Message>& message)
{
    if (!message)
        return QStringLiteral("none");
    static const char* const names[] = {"snapshot", "session", "approval", "resolved", "usage", "account", "battery",
        "awake", "guide", "guideShow", "stt", "providers", "codex", "devices"};
    return QString::fromLatin1(names[message->index()]);
}

} // namespace

class TestFeedMessage : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void frames_data();
    void frames();
    void payloads();
    void pauses_data();
    void pauses();
};

void TestFeedMessage::frames_data()
{
    QTest::addColumn<QByteArray>("text");
    QTest::addColumn<int>("kind");
    QTest::addColumn<QString>("message");

    const int ping = int(Kind::Ping);
    const int window = int(Kind::Window);
    const int speech = int(Kind::Speech);
    const int change = int(Kind::Message);

    QTest::newRow("a ping is answered and reaches no model") << QByteArray(R"({"t":"ping","x":1})") << ping << "none";
    QTest::newRow("a ping spelt with a blank is an ordinary unknown message")
        << QByteArray(R"({"t": "ping"})") << change << "none";
    QTest::newRow("a window request goes on untouched")
        << QByteArray(R"({"t":"telescope.window","name":"x"})") << window << "none";
    QTest::newRow("speaking goes to its own sink") << QByteArray(R"({"t":"speaking","on":true})") << speech << "none";
    QTest::newRow("speech too") << QByteArray(R"({"t":"speech"})") << speech << "none";
    QTest::newRow("transcript events pass unread")
        << QByteArray(R"({"t":"event","sessionId":"s1","event":{"id":"e1","kind":"assistant","text":"hi"}})") << change
        << "none";
    QTest::newRow("not JSON") << QByteArray("{\"t\":\"session\",") << change << "none";
    QTest::newRow("not an object") << QByteArray("[1,2]") << change << "none";
    QTest::newRow("no type") << QByteArray(R"({"session":{"id":"s"}})") << change << "none";
    QTest::newRow("a type that isn't a string") << QByteArray(R"({"t":7})") << change << "none";
    QTest::newRow("a snapshot that isn't an object gives nothing")
        << QByteArray(R"({"t":"snapshot","snapshot":[]})") << change << "none";
    QTest::newRow("a session whose block doesn't read still arrives")
        << QByteArray(R"({"t":"session","session":{"id":"s3","state":"idle","blocked":"soon"}})") << change
        << "session";
    QTest::newRow("a session without an id gives nothing")
        << QByteArray(R"({"t":"session","session":{"state":"idle"}})") << change << "none";
    QTest::newRow("an approval") << QByteArray(R"({"t":"approval","approval":{"id":"ap1"}})") << change << "approval";
    QTest::newRow("a resolution carries its id")
        << QByteArray(R"({"t":"approval.resolved","id":"ap1","sessionId":"s1","decision":"allow","by":"phone"})")
        << change << "resolved";
    QTest::newRow("a resolution without an id gives nothing")
        << QByteArray(R"({"t":"approval.resolved","id":5})") << change << "none";
    QTest::newRow("an account message without the key changes nothing")
        << QByteArray(R"({"t":"account"})") << change << "none";
    QTest::newRow("devices has no payload") << QByteArray(R"({"t":"devices"})") << change << "devices";
    QTest::newRow("providers") << QByteArray(R"({"t":"providers","providers":[{"id":"p","name":"P","kind":"x"}]})")
                               << change << "providers";
    QTest::newRow("providers that aren't a list give nothing")
        << QByteArray(R"({"t":"providers","providers":{}})") << change << "none";
    QTest::newRow("an awake state without a mode gives nothing")
        << QByteArray(R"({"t":"awake","awake":{"holding":true}})") << change << "none";
    QTest::newRow("usage") << QByteArray(R"({"t":"usage","usage":{"source":"official"}})") << change << "usage";
}

void TestFeedMessage::frames()
{
    QFETCH(QByteArray, text);
    const Feed::Frame frame = Feed::readFrame(text);
    QTEST(int(frame.kind), "kind");
    QTEST(nameOf(frame.message), "message");
}

void TestFeedMessage::payloads()
{
    const auto account = Feed::readEnvelope(R"({"t":"account","account":null})");
    QVERIFY(account);
    QCOMPARE(std::get<Account>(*account).state, QStringLiteral("unknown"));

    // A show request that doesn't say why came from the phone.
    const auto unsaid = Feed::readEnvelope(R"({"t":"guide.show","guide":{"step":"voice","seen":true,"done":false}})");
    QVERIFY(unsaid);
    QCOMPARE(std::get<Feed::GuideShow>(*unsaid).reason, QStringLiteral("phone"));
}

void TestFeedMessage::pauses_data()
{
    QTest::addColumn<QList<bool>>("heard");
    QTest::addColumn<QList<double>>("sleeps");

    QTest::newRow("a refused link backs off to 30 seconds and stays there")
        << QList<bool>{false, false, false, false, false, false, false} << QList<double>{1, 2, 4, 8, 16, 30, 30};
    QTest::newRow("a link that worked comes back after a second, then backs off from 2")
        << QList<bool>{false, false, false, true, false, false} << QList<double>{1, 2, 4, 1, 2, 4};
}

void TestFeedMessage::pauses()
{
    QFETCH(QList<bool>, heard);
    const LiveFeed::Timing timing;
    double delay = timing.firstDelay;
    QList<double> actual;
    for (bool wasHeard : heard) {
        const LiveFeed::Pause pause = LiveFeed::pause(wasHeard, delay, timing);
        actual << pause.sleep;
        delay = pause.nextDelay;
    }
    QTEST(actual, "sleeps");
}

QTEST_GUILESS_MAIN(TestFeedMessage)
#include "TestFeedMessage.moc"

#include "link/FeedMessage.h"
#include "link/LiveFeed.h"

#include "Golden.h"

#include <QTest>

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
    Golden::addRows({QStringLiteral("feed-frames.txt")});
}

void TestFeedMessage::frames()
{
    QFETCH(QString, input);
    static const QStringList kinds{
        QStringLiteral("ping"), QStringLiteral("window"), QStringLiteral("speech"), QStringLiteral("message")};
    const Feed::Frame frame = Feed::readFrame(input.toUtf8());
    QTEST(kinds.at(int(frame.kind)) + QStringLiteral(", ") + nameOf(frame.message), "expected");
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

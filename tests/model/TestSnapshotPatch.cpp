#include "model/SnapshotPatch.h"

#include "Fixture.h"

#include <QJsonDocument>
#include <QJsonObject>
#include <QTest>

namespace {

constexpr auto snapshotOf = &Fixture::maybe<Snapshot>;

const QByteArray kBase = R"({
  "mac":{"id":"m1","battery":{"percent":64,"charging":false}},
  "usage":{"fiveHour":{"pct":10}},
  "sessions":[{"id":"s1","state":"idle"},{"id":"s2","state":"working"},{"id":"s3","state":"idle"}],
  "approvals":[{"id":"ap1","sessionId":"s1","kind":"tool"},{"id":"ap2","sessionId":"s2","kind":"question"}],
  "account":{"state":"ok"},
  "providers":[{"id":"p1","name":"One","kind":"anthropic"}],
  "codex":{"available":true,"enabled":true}
})";

// The base with one part replaced by a JSON text, or taken out with an empty one.
QByteArray baseWith(const QString& key, const QByteArray& part)
{
    QJsonObject object = QJsonDocument::fromJson(kBase).object();
    if (part.isEmpty())
        object.remove(key);
    else
        object.insert(key, Fixture::json(part));
    return QJsonDocument(object).toJson(QJsonDocument::Compact);
}

} // namespace

class TestSnapshotPatch : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void patch_data();
    void patch();
};

void TestSnapshotPatch::patch_data()
{
    QTest::addColumn<QByteArray>("before");
    QTest::addColumn<QByteArray>("frame");
    QTest::addColumn<QByteArray>("after");
    QTest::addColumn<bool>("changed");

    const QByteArray none;
    QTest::newRow("a changed session keeps its place in the list")
        << kBase << QByteArray(R"({"t":"session","session":{"id":"s2","state":"needs_you"}})")
        << baseWith(
               "sessions", R"([{"id":"s1","state":"idle"},{"id":"s2","state":"needs_you"},{"id":"s3","state":"idle"}])")
        << true;
    QTest::newRow("a new session goes last")
        << kBase << QByteArray(R"({"t":"session","session":{"id":"s0","state":"starting"}})")
        << baseWith("sessions",
               R"([{"id":"s1","state":"idle"},{"id":"s2","state":"working"},{"id":"s3","state":"idle"},)"
               R"({"id":"s0","state":"starting"}])")
        << true;
    QTest::newRow("the same session again changes nothing")
        << kBase << QByteArray(R"({"t":"session","session":{"id":"s3","state":"idle"}})") << kBase << false;
    QTest::newRow("a session whose block doesn't read arrives without it")
        << kBase << QByteArray(R"({"t":"session","session":{"id":"s3","state":"idle","blocked":"soon"}})") << kBase
        << false;
    QTest::newRow("a changed approval is replaced where it stands")
        << kBase << QByteArray(R"({"t":"approval","approval":{"id":"ap1","sessionId":"s1","kind":"plan"}})")
        << baseWith("approvals",
               R"([{"id":"ap1","sessionId":"s1","kind":"plan"},{"id":"ap2","sessionId":"s2","kind":"question"}])")
        << true;
    QTest::newRow("a new approval goes last")
        << kBase << QByteArray(R"({"t":"approval","approval":{"id":"ap3"}})")
        << baseWith("approvals",
               R"([{"id":"ap1","sessionId":"s1","kind":"tool"},{"id":"ap2","sessionId":"s2","kind":"question"},)"
               R"({"id":"ap3"}])")
        << true;
    QTest::newRow("approval.resolved takes out that approval alone")
        << kBase
        << QByteArray(R"({"t":"approval.resolved","id":"ap1","sessionId":"s1","decision":"allow","by":"phone"})")
        << baseWith("approvals", R"([{"id":"ap2","sessionId":"s2","kind":"question"}])") << true;
    QTest::newRow("approval.resolved of an approval not held changes nothing")
        << kBase << QByteArray(R"({"t":"approval.resolved","id":"ap9"})") << kBase << false;
    QTest::newRow("usage is replaced whole") << kBase << QByteArray(R"({"t":"usage","usage":{"sevenDay":{"pct":80}}})")
                                             << baseWith("usage", R"({"sevenDay":{"pct":80}})") << true;
    QTest::newRow("account is replaced whole")
        << kBase << QByteArray(R"({"t":"account","account":{"state":"logged_out"}})")
        << baseWith("account", R"({"state":"logged_out"})") << true;
    QTest::newRow("an account that doesn't read is an unknown one")
        << kBase << QByteArray(R"({"t":"account","account":7})") << baseWith("account", R"({"state":"unknown"})")
        << true;
    QTest::newRow("battery null clears the battery")
        << kBase << QByteArray(R"({"t":"battery","battery":null})") << baseWith("mac", R"({"id":"m1"})") << true;
    QTest::newRow("battery without the key changes nothing")
        << kBase << QByteArray(R"({"t":"battery"})") << kBase << false;
    QTest::newRow("a battery that doesn't read hides it")
        << kBase << QByteArray(R"({"t":"battery","battery":{"percent":"low"}})") << baseWith("mac", R"({"id":"m1"})")
        << true;
    QTest::newRow("a battery on a snapshot without a mac gives it one")
        << baseWith("mac", "") << QByteArray(R"({"t":"battery","battery":{"percent":12}})")
        << baseWith("mac", R"({"battery":{"percent":12}})") << true;
    QTest::newRow("clearing a battery that isn't there changes nothing")
        << baseWith("mac", "") << QByteArray(R"({"t":"battery","battery":null})") << baseWith("mac", "") << false;
    QTest::newRow("awake sets the Mac's awake state")
        << kBase << QByteArray(R"({"t":"awake","awake":{"mode":"backpack","holding":true}})")
        << baseWith("mac",
               R"({"id":"m1","battery":{"percent":64,"charging":false},"awake":{"mode":"backpack","holding":true}})")
        << true;
    QTest::newRow("codex null clears Codex")
        << kBase << QByteArray(R"({"t":"codex","codex":null})") << baseWith("codex", "") << true;
    QTest::newRow("codex without the key changes nothing") << kBase << QByteArray(R"({"t":"codex"})") << kBase << false;
    QTest::newRow("a Codex record of odd fields still arrives")
        << kBase << QByteArray(R"({"t":"codex","codex":{"available":"yes","enabled":true,"version":"0.170.0"}})")
        << baseWith("codex", R"({"enabled":true,"version":"0.170.0"})") << true;
    QTest::newRow("providers replace the list")
        << kBase << QByteArray(R"({"t":"providers","providers":[{"id":"p2","name":"Two","kind":"openrouter"}]})")
        << baseWith("providers", R"([{"id":"p2","name":"Two","kind":"openrouter"}])") << true;
    QTest::newRow("a snapshot replaces everything")
        << kBase << QByteArray(R"({"t":"snapshot","snapshot":{"sessions":[{"id":"s9"}]}})")
        << QByteArray(R"({"sessions":[{"id":"s9"}]})") << true;
    QTest::newRow("a snapshot where there was none")
        << none << QByteArray(R"({"t":"snapshot","snapshot":{"sessions":[]}})") << QByteArray(R"({"sessions":[]})")
        << true;
    QTest::newRow("a session with no snapshot to patch changes nothing")
        << none << QByteArray(R"({"t":"session","session":{"id":"s1"}})") << none << false;
    QTest::newRow("devices, like the guide and speech-to-text, are not the snapshot's")
        << kBase << QByteArray(R"({"t":"devices"})") << kBase << false;
}

void TestSnapshotPatch::patch()
{
    QFETCH(QByteArray, before);
    QFETCH(QByteArray, frame);
    QFETCH(QByteArray, after);

    std::optional<Snapshot> snapshot = snapshotOf(before);
    bool didChange = false;
    if (const std::optional<Feed::Message> message = Feed::readEnvelope(frame))
        didChange = SnapshotPatch::apply(snapshot, *message);
    QTEST(didChange, "changed");
    QCOMPARE(snapshot.has_value(), !after.isEmpty());
    if (snapshot)
        QVERIFY(*snapshot == *snapshotOf(after));
}

QTEST_GUILESS_MAIN(TestSnapshotPatch)
#include "TestSnapshotPatch.moc"

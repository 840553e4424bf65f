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

    // The base, the frame, and the base with `key` set to `part` after it ("" takes the key out).
    const auto row = [](const char* name, const char* frame, const char* key, const QByteArray& part) {
        QTest::newRow(name) << kBase << QByteArray(frame) << baseWith(QString::fromLatin1(key), part) << true;
    };
    const auto same = [](const char* name, const char* frame, const QByteArray& before = kBase) {
        QTest::newRow(name) << before << QByteArray(frame) << before << false;
    };
    const QByteArray none;
    row("a changed session keeps its place in the list", R"({"t":"session","session":{"id":"s2","state":"needs_you"}})",
        "sessions", R"([{"id":"s1","state":"idle"},{"id":"s2","state":"needs_you"},{"id":"s3","state":"idle"}])");
    row("a new session goes last", R"({"t":"session","session":{"id":"s0","state":"starting"}})", "sessions",
        R"([{"id":"s1","state":"idle"},{"id":"s2","state":"working"},{"id":"s3","state":"idle"},)"
        R"({"id":"s0","state":"starting"}])");
    same("the same session again changes nothing", R"({"t":"session","session":{"id":"s3","state":"idle"}})");
    same("a session whose block doesn't read arrives without it",
        R"({"t":"session","session":{"id":"s3","state":"idle","blocked":"soon"}})");
    row("a changed approval is replaced where it stands",
        R"({"t":"approval","approval":{"id":"ap1","sessionId":"s1","kind":"plan"}})", "approvals",
        R"([{"id":"ap1","sessionId":"s1","kind":"plan"},{"id":"ap2","sessionId":"s2","kind":"question"}])");
    row("a new approval goes last", R"({"t":"approval","approval":{"id":"ap3"}})", "approvals",
        R"([{"id":"ap1","sessionId":"s1","kind":"tool"},{"id":"ap2","sessionId":"s2","kind":"question"},)"
        R"({"id":"ap3"}])");
    row("approval.resolved takes out that approval alone",
        R"({"t":"approval.resolved","id":"ap1","sessionId":"s1","decision":"allow","by":"phone"})", "approvals",
        R"([{"id":"ap2","sessionId":"s2","kind":"question"}])");
    same("approval.resolved of an approval not held changes nothing", R"({"t":"approval.resolved","id":"ap9"})");
    row("usage is replaced whole", R"({"t":"usage","usage":{"sevenDay":{"pct":80}}})", "usage",
        R"({"sevenDay":{"pct":80}})");
    row("account is replaced whole", R"({"t":"account","account":{"state":"logged_out"}})", "account",
        R"({"state":"logged_out"})");
    row("an account that doesn't read is an unknown one", R"({"t":"account","account":7})", "account",
        R"({"state":"unknown"})");
    row("battery null clears the battery", R"({"t":"battery","battery":null})", "mac", R"({"id":"m1"})");
    same("battery without the key changes nothing", R"({"t":"battery"})");
    row("a battery that doesn't read hides it", R"({"t":"battery","battery":{"percent":"low"}})", "mac",
        R"({"id":"m1"})");
    QTest::newRow("a battery on a snapshot without a mac gives it one")
        << baseWith("mac", "") << QByteArray(R"({"t":"battery","battery":{"percent":12}})")
        << baseWith("mac", R"({"battery":{"percent":12}})") << true;
    same("clearing a battery that isn't there changes nothing", R"({"t":"battery","battery":null})",
        baseWith("mac", ""));
    row("awake sets the Mac's awake state", R"({"t":"awake","awake":{"mode":"backpack","holding":true}})", "mac",
        R"({"id":"m1","battery":{"percent":64,"charging":false},"awake":{"mode":"backpack","holding":true}})");
    row("codex null clears Codex", R"({"t":"codex","codex":null})", "codex", "");
    same("codex without the key changes nothing", R"({"t":"codex"})");
    row("a Codex record of odd fields still arrives",
        R"({"t":"codex","codex":{"available":"yes","enabled":true,"version":"0.170.0"}})", "codex",
        R"({"enabled":true,"version":"0.170.0"})");
    row("providers replace the list", R"({"t":"providers","providers":[{"id":"p2","name":"Two","kind":"openrouter"}]})",
        "providers", R"([{"id":"p2","name":"Two","kind":"openrouter"}])");
    QTest::newRow("a snapshot replaces everything")
        << kBase << QByteArray(R"({"t":"snapshot","snapshot":{"sessions":[{"id":"s9"}]}})")
        << QByteArray(R"({"sessions":[{"id":"s9"}]})") << true;
    QTest::newRow("a snapshot where there was none")
        << none << QByteArray(R"({"t":"snapshot","snapshot":{"sessions":[]}})") << QByteArray(R"({"sessions":[]})")
        << true;
    same("a session with no snapshot to patch changes nothing", R"({"t":"session","session":{"id":"s1"}})", none);
    same("devices, like the guide and speech-to-text, are not the snapshot's", R"({"t":"devices"})");
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

#include "model/Attention.h"

#include "Fixture.h"

#include <QTest>

using namespace Attention;

namespace {

const QDateTime kNow = Fixture::now();

Approval approval(const QString& id, const QString& kind, std::optional<double> createdSecondsAgo,
    const QString& sessionId = QString())
{
    Approval made;
    made.id = id;
    if (!kind.isEmpty())
        made.kind = kind;
    if (createdSecondsAgo)
        made.createdAt = Fixture::at(-*createdSecondsAgo);
    if (!sessionId.isEmpty())
        made.sessionId = sessionId;
    return made;
}

Snapshot snapshotWith(const QList<Approval>& approvals)
{
    Snapshot snapshot;
    snapshot.approvals.items = approvals;
    snapshot.approvals.count = approvals.size();
    return snapshot;
}

Answered answeredAt(const Approval& approval, double secondsAgo, const QString& decision = QStringLiteral("allow"))
{
    return {approval, decision, kNow.addMSecs(-qint64(secondsAgo * 1000))};
}

QStringList ids(const QList<NeedsYouItem>& items)
{
    QStringList out;
    for (const NeedsYouItem& item : items)
        out << item.approval().id + (item.isAnswered() ? QStringLiteral("*") : QString());
    return out;
}

} // namespace

class TestAttention : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void order_data();
    void order();
    void answeredRowFoldsInPlace_data();
    void answeredRowFoldsInPlace();
    void prune_data();
    void prune();
    void statusIsTheFallback();
    void agentWord_data();
    void agentWord();
};

void TestAttention::order_data()
{
    QTest::addColumn<QList<Approval>>("approvals");
    QTest::addColumn<QStringList>("expected");

    QTest::newRow("a question comes after tools, whatever its age") << QList<Approval>{approval("q", "question", 500),
        approval("t1", "tool", 10), approval("t2", "", 20)} << QStringList{"t2", "t1", "q"};
    QTest::newRow("a plan ranks with questions, oldest first among them")
        << QList<Approval>{approval("p", "plan", 5), approval("q", "question", 50)} << QStringList{"q", "p"};
    QTest::newRow("no date counts as the distant past") << QList<Approval>{approval("dated", "tool", 1000),
        approval("undated", "tool", std::nullopt)} << QStringList{"undated", "dated"};
    QTest::newRow("equal keys keep the service's order")
        << QList<Approval>{approval("b", "tool", 30), approval("a", "tool", 30), approval("c", "tool", 30)}
        << QStringList{"b", "a", "c"};
    QTest::newRow("a newer word ranks as not a tool")
        << QList<Approval>{approval("x", "survey", 900), approval("t", "tool", 1)} << QStringList{"t", "x"};
}

void TestAttention::order()
{
    QFETCH(QList<Approval>, approvals);
    QTEST(ids(needsYou(snapshotWith(approvals), std::nullopt, {}, kNow)), "expected");
}

void TestAttention::answeredRowFoldsInPlace_data()
{
    QTest::addColumn<double>("answeredSecondsAgo");
    QTest::addColumn<bool>("stillListed");
    QTest::addColumn<QStringList>("expected");

    QTest::newRow("1.5 s later: still folded") << 1.5 << true << QStringList{"old*", "mid", "new"};
    QTest::newRow("1.6 s later and still listed: hidden, not back") << 1.6 << true << QStringList{"mid", "new"};
    QTest::newRow("gone from the service: simply gone") << 3.0 << false << QStringList{"mid", "new"};
}

void TestAttention::answeredRowFoldsInPlace()
{
    QFETCH(double, answeredSecondsAgo);
    QFETCH(bool, stillListed);
    const Approval old = approval("old", "tool", 300);
    QList<Approval> open{approval("new", "tool", 10), approval("mid", "tool", 100)};
    if (stillListed)
        open.prepend(old);
    const AnsweredMap answered{{"old", answeredAt(old, answeredSecondsAgo)}};
    QTEST(ids(needsYou(snapshotWith(open), std::nullopt, answered, kNow)), "expected");
    for (const Approval& waiting : waitingApprovals(snapshotWith(open), std::nullopt, answered))
        QVERIFY(waiting.id != "old");
}

void TestAttention::prune_data()
{
    QTest::addColumn<double>("age");
    QTest::addColumn<bool>("listed");
    QTest::addColumn<bool>("kept");

    QTest::newRow("young and gone: kept while it folds") << 1.0 << false << true;
    QTest::newRow("old enough and gone: dropped") << 1.7 << false << false;
    QTest::newRow("still listed 10 s on: kept, so it doesn't come back") << 10.0 << true << true;
    QTest::newRow("still listed 30 s on: dropped, so it comes back") << 30.0 << true << false;
}

void TestAttention::prune()
{
    QFETCH(double, age);
    QFETCH(bool, listed);
    const Approval asked = approval("a", "tool", 60);
    const AnsweredMap result
        = pruned({{"a", answeredAt(asked, age)}}, listed ? QList<Approval>{asked} : QList<Approval>{}, kNow);
    QTEST(result.contains("a"), "kept");
}

void TestAttention::statusIsTheFallback()
{
    LocalStatus status;
    status.approvals.items = {approval("from-status", "tool", 5)};
    QCOMPARE(ids(needsYou(std::nullopt, status, {}, kNow)), QStringList{"from-status"});
    // A snapshot always wins, even an empty one.
    QCOMPARE(ids(needsYou(Snapshot{}, status, {}, kNow)), QStringList{});
}

void TestAttention::agentWord_data()
{
    QTest::addColumn<QString>("sessionId");
    QTest::addColumn<bool>("codexAlone");
    QTest::addColumn<QString>("word");

    QTest::newRow("a Codex session by its agent") << "codex-s" << false << "Codex";
    QTest::newRow("a Codex session by its provider") << "provider-s" << false << "Codex";
    QTest::newRow("a Claude Code session") << "claude-s" << true << "Claude Code";
    QTest::newRow("an unknown session with Codex alone here") << "gone" << true << "Codex";
    QTest::newRow("an unknown session otherwise") << "gone" << false << "Claude Code";
}

void TestAttention::agentWord()
{
    QFETCH(QString, sessionId);
    QFETCH(bool, codexAlone);
    QFETCH(QString, word);
    const FlexList<Session> sessions = FlexList<Session>::fromJson(Fixture::json(R"([{"id":"codex-s","agent":"codex"},
        {"id":"provider-s","providerId":"codex"},{"id":"claude-s"}])"));
    AgentsInUse agents;
    agents.codexAvailable = agents.codexHere = agents.codexEnabled = codexAlone;
    const QString result = Attention::agentWord(approval("a", "tool", 1, sessionId), sessions.items, agents);
    QCOMPARE(result, word);
    QCOMPARE(lostAnswerNote(result, "It broke."), "That answer didn’t reach " + word + ". It broke.");
}

QTEST_GUILESS_MAIN(TestAttention)
#include "TestAttention.moc"

#include "LiveModel.h"
#include "RealPlaces.h"

#include <QRegularExpression>
#include <QTest>

/// What a person sees of the real service: the built program's live render
/// of the panel and of the status item.
class TestPopoverLive : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void theApprovalStandsFirstAndTheItemIsBadged();
};

void TestPopoverLive::theApprovalStandsFirstAndTheItemIsBadged()
{
    LiveModel live;
    QVERIFY(live.ok());
    live.seed(R"([
        ["/qa/sessions", {"id": "w1", "title": "Session w1", "state": "working", "lastActivityAt": "@now"}],
        ["/qa/sessions", {"id": "w2", "title": "Session w2", "state": "working", "lastActivityAt": "@now"}],
        ["/qa/sessions", {"id": "n1", "title": "Session n1", "state": "needs_you", "lastActivityAt": "@now"}],
        ["/qa/approvals", {"id": "a1", "sessionId": "n1", "kind": "tool", "toolName": "Bash",
                           "input": {"command": "rm -rf build"}, "canAlways": true, "createdAt": "@now"}]
    ])");
    QStringList item;
    const QStringList twin = live.liveRender(&item);
    const qsizetype allow = twin.indexOf(QStringLiteral("Allow"));
    QVERIFY2(allow > 0, qPrintable(twin.join(QLatin1Char('\n'))));
    QCOMPARE(twin.mid(allow, 3), (QStringList{"Allow", "Always", "Deny"}));
    QVERIFY2(allow < twin.indexOf(QStringLiteral("SESSIONS")), "the approval stands before the sessions");
    QVERIFY(twin.contains(QStringLiteral("$ rm -rf build")));

    QCOMPARE(item.size(), 3);
    QVERIFY2(QRegularExpression(QStringLiteral("^image: spin-\\d+-badge$")).match(item.at(0)).hasMatch(),
        qPrintable(item.at(0)));
    QCOMPARE(item.at(1), QStringLiteral("title: "));
    QCOMPARE(item.at(2), QStringLiteral("label: Tidewatch: 1 needs you, 2 sessions working"));
}

TIDEWATCH_E2E_MAIN(TestPopoverLive)
#include "TestPopoverLive.moc"

#include "Launch.h"
#include "LiveModel.h"
#include "RealPlaces.h"

#include <QFile>
#include <QRegularExpression>
#include <QTest>

namespace {

QStringList lines(const QString& path)
{
    QFile file(path);
    if (!file.open(QIODevice::ReadOnly))
        return {};
    return QString::fromUtf8(file.readAll()).split(QLatin1Char('\n'), Qt::SkipEmptyParts);
}

} // namespace

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
    const QString folder = live.scratch.file(QStringLiteral("renders"));
    const LaunchResult result = launch({QStringLiteral("--render-popover"), folder, QStringLiteral("--live")},
        launchEnvironment(live.scratch, live.service.variables()), 60000);
    QVERIFY2(result.code == 0, qPrintable(result.output));

    const QStringList twin = lines(folder + QStringLiteral("/live-popover.txt"));
    const qsizetype allow = twin.indexOf(QStringLiteral("Allow"));
    QVERIFY2(allow > 0, qPrintable(twin.join(QLatin1Char('\n'))));
    QCOMPARE(twin.mid(allow, 3), (QStringList{"Allow", "Always", "Deny"}));
    QVERIFY2(allow < twin.indexOf(QStringLiteral("SESSIONS")), "the approval stands before the sessions");
    QVERIFY(twin.contains(QStringLiteral("$ rm -rf build")));

    const QStringList item = lines(folder + QStringLiteral("/status-item.txt"));
    QCOMPARE(item.size(), 3);
    QVERIFY2(QRegularExpression(QStringLiteral("^image: spin-\\d+-badge$")).match(item.at(0)).hasMatch(),
        qPrintable(item.at(0)));
    QCOMPARE(item.at(1), QStringLiteral("title: "));
    QCOMPARE(item.at(2), QStringLiteral("label: Tidewatch: 1 needs you, 2 sessions working"));
}

TIDEWATCH_E2E_MAIN(TestPopoverLive)
#include "TestPopoverLive.moc"

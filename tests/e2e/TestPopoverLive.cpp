#include "surface/StatusItemController.h"

#include "Launch.h"
#include "ScratchFolder.h"
#include "ServiceProcess.h"
#include "model/AppModel.h"

#include <QFile>
#include <QJsonArray>
#include <QJsonObject>
#include <QRegularExpression>
#include <QTest>

namespace {

QJsonObject session(const QString& id, const QString& state)
{
    return {{QStringLiteral("id"), id}, {QStringLiteral("title"), QStringLiteral("Session ") + id},
        {QStringLiteral("state"), state}, {QStringLiteral("lastActivityAt"), QDateTime::currentMSecsSinceEpoch()}};
}

QStringList lines(const QString& path)
{
    QFile file(path);
    if (!file.open(QIODevice::ReadOnly))
        return {};
    return QString::fromUtf8(file.readAll()).split(QLatin1Char('\n'), Qt::SkipEmptyParts);
}

} // namespace

/// What a person sees of the real service: the live render and the status
/// item, then an answer given through the model.
class TestPopoverLive : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void init();
    void cleanup();
    void theApprovalStandsFirstAndTheItemIsBadged();
    void answeringFoldsTheCardAndClearsTheBadge();

private:
    std::unique_ptr<ScratchFolder> m_scratch;
    std::unique_ptr<ServiceProcess> m_service;
};

void TestPopoverLive::init()
{
    m_scratch = std::make_unique<ScratchFolder>();
    m_service = std::make_unique<ServiceProcess>(m_scratch->path());
    QVERIFY2(m_service->start(), qPrintable(m_service->lastError()));
    m_service->qa("POST", QStringLiteral("/qa/sessions"), session(QStringLiteral("w1"), QStringLiteral("working")));
    m_service->qa("POST", QStringLiteral("/qa/sessions"), session(QStringLiteral("w2"), QStringLiteral("working")));
    m_service->qa("POST", QStringLiteral("/qa/sessions"), session(QStringLiteral("n1"), QStringLiteral("needs_you")));
    m_service->qa("POST", QStringLiteral("/qa/approvals"),
        QJsonObject{{QStringLiteral("id"), QStringLiteral("a1")}, {QStringLiteral("sessionId"), QStringLiteral("n1")},
            {QStringLiteral("kind"), QStringLiteral("tool")}, {QStringLiteral("toolName"), QStringLiteral("Bash")},
            {QStringLiteral("input"), QJsonObject{{QStringLiteral("command"), QStringLiteral("rm -rf build")}}},
            {QStringLiteral("canAlways"), true}, {QStringLiteral("createdAt"), QDateTime::currentMSecsSinceEpoch()}});
}

void TestPopoverLive::cleanup()
{
    m_service.reset();
    m_scratch.reset();
}

void TestPopoverLive::theApprovalStandsFirstAndTheItemIsBadged()
{
    const QString folder = m_scratch->file(QStringLiteral("renders"));
    const LaunchResult result = launch({QStringLiteral("--render-popover"), folder, QStringLiteral("--live")},
        launchEnvironment(*m_scratch, m_service->variables()), 60000);
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

void TestPopoverLive::answeringFoldsTheCardAndClearsTheBadge()
{
    AppModel model(m_service->environment(), Clock::system());
    model.setClaudeLook([] { return true; });
    StatusItemController item(model, m_service->environment(),
        [](const QString&) { return StatusButton::unseen(); }, Clock::system());
    item.install();
    model.start();
    QTRY_VERIFY_WITH_TIMEOUT(model.waitingApprovals().size() == 1, 15000);
    QTRY_VERIFY_WITH_TIMEOUT(item.icon().shown() && item.icon().shown()->name().endsWith(QStringLiteral("-badge")), 5000);

    model.decide(model.waitingApprovals().first(), QStringLiteral("allow"));
    QVERIFY(model.needsYou().first().isAnswered());
    // Once the service resolves it the fold goes and the dot with it.
    QTRY_VERIFY_WITH_TIMEOUT(model.needsYou().isEmpty(), 8000);
    QTRY_VERIFY_WITH_TIMEOUT(!item.icon().shown()->name().endsWith(QStringLiteral("-badge")), 5000);
}

QTEST_MAIN(TestPopoverLive)
#include "TestPopoverLive.moc"

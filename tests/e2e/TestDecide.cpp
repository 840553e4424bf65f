#include "model/AppModel.h"

#include "ScratchFolder.h"
#include "ServiceProcess.h"

#include <QJsonArray>
#include <QJsonObject>
#include <QTest>

namespace {

QJsonObject approval(const QString& id, const QString& sessionId, const QString& kind = QStringLiteral("tool"))
{
    return {{QStringLiteral("id"), id},
            {QStringLiteral("sessionId"), sessionId},
            {QStringLiteral("kind"), kind},
            {QStringLiteral("toolName"), QStringLiteral("Bash")},
            {QStringLiteral("createdAt"), QDateTime::currentMSecsSinceEpoch()}};
}

QStringList waitingIds(const AppModel& model)
{
    QStringList ids;
    for (const NeedsYouItem& item : model.needsYou())
        ids << item.approval().id + (item.isAnswered() ? QStringLiteral("*") : QString());
    return ids;
}

} // namespace

/// The road of one approval, from the service to the model and back, against the real service.
class TestDecide : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void init();
    void cleanup();

    void pushedApprovalComesFirstAndFoldsOnAnswer();
    void answeredElsewhereShowsNoNote();
    void lostAnswerComesBackWithTheAgentsWord();

private:
    std::unique_ptr<ScratchFolder> m_scratch;
    std::unique_ptr<ServiceProcess> m_service;
    std::unique_ptr<AppModel> m_model;
};

void TestDecide::init()
{
    m_scratch = std::make_unique<ScratchFolder>();
    m_service = std::make_unique<ServiceProcess>(m_scratch->path());
    QVERIFY2(m_service->start(), qPrintable(m_service->lastError()));
    m_service->qa("POST", QStringLiteral("/qa/sessions"),
                  QJsonObject{{QStringLiteral("id"), QStringLiteral("s1")}, {QStringLiteral("state"), QStringLiteral("working")}});
    m_service->qa("POST", QStringLiteral("/qa/sessions"),
                  QJsonObject{{QStringLiteral("id"), QStringLiteral("x1")}, {QStringLiteral("agent"), QStringLiteral("codex")},
                              {QStringLiteral("state"), QStringLiteral("working")}});
    m_model = std::make_unique<AppModel>(m_service->environment(), Clock::system());
    m_model->setClaudeLook([] { return true; });
    m_model->start();
    QTRY_VERIFY_WITH_TIMEOUT(m_model->feedLive() && m_model->snapshot(), 15000);
}

void TestDecide::cleanup()
{
    m_model.reset();
    m_service.reset();
    m_scratch.reset();
}

void TestDecide::pushedApprovalComesFirstAndFoldsOnAnswer()
{
    m_service->qa("POST", QStringLiteral("/qa/approvals"), approval(QStringLiteral("q1"), QStringLiteral("s1"), QStringLiteral("question")));
    QTRY_COMPARE_WITH_TIMEOUT(waitingIds(*m_model), QStringList{QStringLiteral("q1")}, 5000);
    // A tool request pushed later still stands first.
    m_service->qa("POST", QStringLiteral("/qa/approvals"), approval(QStringLiteral("t1"), QStringLiteral("s1")));
    QTRY_COMPARE_WITH_TIMEOUT(waitingIds(*m_model), (QStringList{QStringLiteral("t1"), QStringLiteral("q1")}), 5000);

    const Approval asked = m_model->needsYou().first().approval();
    m_model->decide(asked, QStringLiteral("allow"));
    // Folded at once, in its place, before the service has said anything.
    QCOMPARE(waitingIds(*m_model), (QStringList{QStringLiteral("t1*"), QStringLiteral("q1")}));
    QVERIFY(m_model->waitingApprovals().size() == 1);

    // The service records the answer, resolves it, and the fold goes.
    QTRY_COMPARE_WITH_TIMEOUT(waitingIds(*m_model), QStringList{QStringLiteral("q1")}, 8000);
    const QJsonArray decisions = m_service->qa("GET", QStringLiteral("/qa/state")).toObject().value(QStringLiteral("decisions")).toArray();
    QCOMPARE(decisions.size(), 1);
    QCOMPARE(decisions.first().toObject().value(QStringLiteral("id")).toString(), QStringLiteral("t1"));
    QCOMPARE(decisions.first().toObject().value(QStringLiteral("decision")).toString(), QStringLiteral("allow"));
    QVERIFY(m_model->noteText().isEmpty());

    // An approval can't be answered twice.
    m_model->decide(asked, QStringLiteral("deny"));
    QTest::qWait(300);
    QCOMPARE(m_service->qa("GET", QStringLiteral("/qa/state")).toObject().value(QStringLiteral("decisions")).toArray().size(), 1);
}

void TestDecide::answeredElsewhereShowsNoNote()
{
    m_service->qa("POST", QStringLiteral("/qa/approvals"), approval(QStringLiteral("t2"), QStringLiteral("s1")));
    QTRY_COMPARE_WITH_TIMEOUT(waitingIds(*m_model), QStringList{QStringLiteral("t2")}, 5000);
    m_service->qa("POST", QStringLiteral("/qa/faults"),
                  QJsonObject{{QStringLiteral("route"), QStringLiteral("POST /v1/approvals/t2/decision")},
                              {QStringLiteral("status"), 409},
                              {QStringLiteral("body"), QStringLiteral(R"({"error":{"code":"already_resolved","message":"Answered on the phone."}})")}});
    m_model->decide(m_model->needsYou().first().approval(), QStringLiteral("allow"));
    QTest::qWait(1000);
    QVERIFY(m_model->noteText().isEmpty());
    QVERIFY(m_model->waitingApprovals().isEmpty());
}

void TestDecide::lostAnswerComesBackWithTheAgentsWord()
{
    m_service->qa("POST", QStringLiteral("/qa/approvals"), approval(QStringLiteral("c1"), QStringLiteral("x1")));
    m_service->qa("POST", QStringLiteral("/qa/approvals"), approval(QStringLiteral("c0"), QStringLiteral("s1")));
    QTRY_COMPARE_WITH_TIMEOUT(waitingIds(*m_model).size(), 2, 5000);
    const QStringList before = waitingIds(*m_model);
    m_service->qa("POST", QStringLiteral("/qa/faults"),
                  QJsonObject{{QStringLiteral("route"), QStringLiteral("POST /v1/approvals/c1/decision")},
                              {QStringLiteral("status"), 500},
                              {QStringLiteral("body"), QStringLiteral(R"({"error":{"code":"x","message":"nope"}})")}});
    Approval codexAsks;
    for (const NeedsYouItem& item : m_model->needsYou()) {
        if (item.approval().id == QStringLiteral("c1"))
            codexAsks = item.approval();
    }
    m_model->decide(codexAsks, QStringLiteral("deny"));
    QTRY_COMPARE_WITH_TIMEOUT(m_model->noteText(), QStringLiteral("That answer didn’t reach Codex. nope"), 5000);
    // Back in its place.
    QCOMPARE(waitingIds(*m_model), before);
}

QTEST_GUILESS_MAIN(TestDecide)
#include "TestDecide.moc"

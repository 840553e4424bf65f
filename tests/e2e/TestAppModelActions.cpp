#include "model/AppModel.h"

#include "ScratchFolder.h"
#include "ServiceProcess.h"

#include <QElapsedTimer>
#include <QJsonArray>
#include <QJsonObject>
#include <QSignalSpy>
#include <QTest>

namespace {

using Action = std::function<void(AppModel&)>;
/// What the model must show once the action has done its work.
using Effect = std::function<bool(const AppModel&)>;

QJsonObject object(std::initializer_list<std::pair<QString, QJsonValue>> fields)
{
    QJsonObject result;
    for (const auto& [key, value] : fields)
        result.insert(key, value);
    return result;
}

const Session* sessionOf(const AppModel& model, const QString& id)
{
    if (!model.snapshot())
        return nullptr;
    for (const Session& session : model.snapshot()->sessions.items) {
        if (session.id == id)
            return &session;
    }
    return nullptr;
}

} // namespace

Q_DECLARE_METATYPE(Action)
Q_DECLARE_METATYPE(Effect)

class TestAppModelActions : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void initTestCase();
    void init();
    void cleanupTestCase();

    void aFailureSaysWhatDidntHappen_data();
    void aFailureSaysWhatDidntHappen();
    void aSuccessShowsItsEffect_data();
    void aSuccessShowsItsEffect();
    void signOutTakesTheStatusAndReadsAMomentLater();

private:
    std::unique_ptr<ScratchFolder> m_scratch;
    std::unique_ptr<ServiceProcess> m_service;
    std::unique_ptr<AppModel> m_model;
};

void TestAppModelActions::initTestCase()
{
    m_scratch = std::make_unique<ScratchFolder>();
    m_service = std::make_unique<ServiceProcess>(m_scratch->path());
    QVERIFY2(m_service->start(), qPrintable(m_service->lastError()));
}

void TestAppModelActions::init()
{
    m_model.reset();
    m_service->qa("DELETE", "/qa/faults");
    m_service->qa("POST", "/qa/reset", QJsonObject{});
    m_service->qa("POST", "/qa/sessions", object({{"id", "s1"}, {"title", "Fix the tests"}, {"state", "needs_you"}}));
    m_service->qa("POST", "/qa/sessions",
        object({{"id", "s2"}, {"state", "idle"},
            {"blocked", object({{"kind", "limit"}, {"resume", object({{"state", "off"}})}})}}));
    m_service->qa("POST", "/qa/devices", object({{"id", "d1"}, {"name", "Pixel 8"}}));
    m_service->qa("POST", "/qa/devices", object({{"id", "d2"}, {"name", "Glasses"}, {"client", "lens"}}));
    m_service->qa("POST", "/qa/snapshot",
        object({{"codex", object({{"available", true}, {"enabled", false}})},
            {"account", object({{"state", "logged_out"}})}}));
    m_model = std::make_unique<AppModel>(m_service->environment(), Clock::system());
    m_model->setClaudeLook([] { return true; });
    m_model->start();
    QTRY_VERIFY_WITH_TIMEOUT(
        m_model->feedLive() && m_model->snapshot() && m_model->status() && m_model->reading() == 0, 15000);
}

void TestAppModelActions::cleanupTestCase()
{
    m_model.reset();
    m_service.reset();
    m_scratch.reset();
}

void TestAppModelActions::aFailureSaysWhatDidntHappen_data()
{
    QTest::addColumn<Action>("action");
    QTest::addColumn<QString>("route");
    QTest::addColumn<QString>("note");

    QTest::newRow("open a session's terminal")
        << Action([](AppModel& m) { m.openTerminal("s1"); }) << "POST /v1/sessions/s1/open"
        << "Couldn’t open its terminal. Nope.";
    QTest::newRow("continue a session") << Action([](AppModel& m) { m.continueSession("s1"); })
                                        << "POST /v1/sessions/s1/continue"
                                        << "Couldn’t continue it. Nope.";
    QTest::newRow("auto-continue") << Action([](AppModel& m) { m.setAutoContinue("s2", true); })
                                   << "POST /v1/sessions/s2/auto-continue"
                                   << "Didn’t go through. Nope.";
    QTest::newRow("check a provider") << Action([](AppModel& m) { m.checkProvider("p1", "OpenRouter"); })
                                      << "POST /v1/providers/p1/check"
                                      << "Couldn’t reach OpenRouter. Nope.";
    QTest::newRow("sign in") << Action([](AppModel& m) { m.signIn(); }) << "POST /v1/account/login"
                             << "Couldn’t start signing in. Nope.";
    QTest::newRow("forget a device") << Action([](AppModel& m) { m.forgetDevice("d1", "Pixel 8"); })
                                     << "DELETE /local/devices/d1"
                                     << "Couldn’t forget Pixel 8. Nope.";
    QTest::newRow("turn Codex on") << Action([](AppModel& m) { m.setCodexEnabled(true); }) << "POST /local/settings"
                                   << "Couldn’t turn Codex on. Nope.";
    QTest::newRow("turn Codex off") << Action([](AppModel& m) { m.setCodexEnabled(false); }) << "POST /local/settings"
                                    << "Couldn’t turn Codex off. Nope.";
    QTest::newRow("built-in Tailscale") << Action([](AppModel& m) { m.setBuiltInTailscale(true); })
                                        << "POST /local/settings"
                                        << "Couldn’t change that. Nope.";
    QTest::newRow("browse outside projects")
        << Action([](AppModel& m) { m.setBrowseOutsideProjects(true); }) << "POST /local/settings"
        << "Couldn’t change Browse outside projects. Nope.";
    QTest::newRow("Tailscale sign-out speaks in the service's words alone")
        << Action([](AppModel& m) { m.signOutTailscale(); }) << "POST /local/tsnet/logout"
        << "Nope.";
    QTest::newRow("refresh usage passes in silence")
        << Action([](AppModel& m) { m.refreshUsage(); }) << "POST /v1/usage/refresh" << QString();
    QTest::newRow("refresh Codex passes in silence")
        << Action([](AppModel& m) { m.refreshCodex(); }) << "POST /v1/codex/refresh" << QString();
}

void TestAppModelActions::aFailureSaysWhatDidntHappen()
{
    QFETCH(Action, action);
    QFETCH(QString, route);
    QFETCH(QString, note);
    m_service->qa("POST", "/qa/faults",
        object({{"route", route}, {"status", 500}, {"body", R"({"error":{"code":"x","message":"Nope."}})"}}));
    QSignalSpy reads(m_model.get(), &AppModel::readFinished);
    action(*m_model);
    if (note.isEmpty()) {
        QTRY_COMPARE_WITH_TIMEOUT(m_service->qa("GET", "/qa/faults").toArray().size(), 0, 5000);
        QTest::qWait(500);
        QVERIFY(!m_model->note());
    } else {
        QTRY_COMPARE_WITH_TIMEOUT(m_model->noteText(), note, 5000);
    }
    // A refused action reads nothing after it.
    QTest::qWait(300);
    QCOMPARE(reads.count(), 0);
}

void TestAppModelActions::aSuccessShowsItsEffect_data()
{
    QTest::addColumn<Action>("action");
    QTest::addColumn<Effect>("effect");
    QTest::addColumn<QString>("note");

    QTest::newRow("continue: the session works again") << Action(
        [](AppModel& m) { m.continueSession("s1"); }) << Effect([](const AppModel& m) {
        const Session* session = sessionOf(m, "s1");
        return session && session->state == QStringLiteral("working");
    }) << QString();
    QTest::newRow("auto-continue: the session is armed")
        << Action([](AppModel& m) { m.setAutoContinue("s2", true); }) << Effect([](const AppModel& m) {
               const Session* session = sessionOf(m, "s2");
               return session && session->blocked && session->blocked->resume
                   && session->blocked->resume->state == QStringLiteral("armed");
           })
        << QString();
    QTest::newRow("sign in: signing in, and the account from the reply") << Action(
        [](AppModel& m) { m.signIn(); }) << Effect([](const AppModel& m) {
        return m.signingIn() && m.snapshot()->account && m.snapshot()->account->login
            && m.snapshot()->account->login->state == QStringLiteral("waiting_code");
    }) << QString();
    QTest::newRow("forget a device: the list is read again") << Action(
        [](AppModel& m) { m.forgetDevice("d1", "Pixel 8"); }) << Effect([](const AppModel& m) {
        return m.deviceList() && m.deviceList()->size() == 1 && m.deviceList()->first().id == QStringLiteral("d2");
    }) << QString();
    QTest::newRow("refresh usage: the reading from the reply")
        << Action([](AppModel& m) { m.refreshUsage(); })
        << Effect([](const AppModel& m) { return m.snapshot()->usage && m.snapshot()->usage->observedAt.has_value(); })
        << QString();
    QTest::newRow("turn Codex on: the snapshot says so")
        << Action([](AppModel& m) { m.setCodexEnabled(true); })
        << Effect([](const AppModel& m) { return m.snapshot()->codex && m.snapshot()->codex->enabled; }) << QString();
    QTest::newRow("built-in Tailscale: the status says so")
        << Action([](AppModel& m) { m.setBuiltInTailscale(true); })
        << Effect([](const AppModel& m) { return m.status()->tsnet && m.status()->tsnet->enabled == true; })
        << QString();
    QTest::newRow("browse outside projects: the status says so, and a note tells what it means") << Action(
        [](AppModel& m) { m.setBrowseOutsideProjects(true); }) << Effect([](const AppModel& m) {
        return m.status()->files && m.status()->files->browseOutsideProjects == true;
    }) << "Phones can open sessions’ folders in your home folder too, read only";
    QTest::newRow("open a session's terminal: nothing more")
        << Action([](AppModel& m) { m.openTerminal("s1"); }) << Effect([](const AppModel&) { return true; })
        << QString();
}

void TestAppModelActions::aSuccessShowsItsEffect()
{
    QFETCH(Action, action);
    QFETCH(Effect, effect);
    QFETCH(QString, note);
    action(*m_model);
    QTRY_VERIFY_WITH_TIMEOUT(effect(*m_model), 10000);
    QTRY_COMPARE_WITH_TIMEOUT(m_model->noteText(), note, 5000);
    QTest::qWait(300);
    QCOMPARE(m_model->noteText(), note);
}

void TestAppModelActions::signOutTakesTheStatusAndReadsAMomentLater()
{
    // A status the reply brings is held at once, before the read that follows.
    m_service->qa("POST", "/qa/local", object({{"projectsRoot", "/Users/someone/Projects"}}));
    QSignalSpy reads(m_model.get(), &AppModel::readFinished);
    QElapsedTimer elapsed;
    elapsed.start();
    m_model->signOutTailscale();
    QTRY_COMPARE_WITH_TIMEOUT(m_model->status()->projectsRoot, std::optional<QString>("/Users/someone/Projects"), 5000);
    QCOMPARE(reads.count(), 0);
    QTRY_COMPARE_WITH_TIMEOUT(reads.count(), 1, 5000);
    QVERIFY2(elapsed.elapsed() >= 1100, "the read came before the node could settle");
    QVERIFY(!m_model->note());
}

QTEST_GUILESS_MAIN(TestAppModelActions)
#include "TestAppModelActions.moc"

#include "LiveModel.h"
#include "PinnedClaude.h"
#include "RealPlaces.h"
#include "surface/words/SettingsWords.h"

#include <QElapsedTimer>
#include <QJsonArray>
#include <QJsonObject>
#include <QSignalSpy>
#include <QTest>

using namespace Qt::StringLiterals;

namespace {

using Action = std::function<void(AppModel&)>;
/// What the model must show once the action has done its work.
using Effect = std::function<bool(const AppModel&)>;

QStringList waitingIds(const AppModel& model)
{
    QStringList ids;
    for (const NeedsYouItem& item : model.needsYou())
        ids << item.approval().id + (item.isAnswered() ? QStringLiteral("*") : QString());
    return ids;
}

Approval waiting(const AppModel& model, const QString& id)
{
    for (const NeedsYouItem& item : model.needsYou()) {
        if (item.approval().id == id)
            return item.approval();
    }
    return {};
}

std::optional<Awake> awake(const AppModel& model)
{
    return model.snapshot()->mac ? model.snapshot()->mac->awake : std::nullopt;
}

QJsonObject fault(const QString& route, int status, const QByteArray& body)
{
    return QJsonObject{{"route", route}, {"status", status}, {"body", QString::fromUtf8(body)}};
}

} // namespace

Q_DECLARE_METATYPE(Action)
Q_DECLARE_METATYPE(Effect)

/// What the model's actions do against the real service: each success shows
/// its effect, each refusal says what didn't happen, and an approval's answer
/// folds its card until the service resolves it.
class TestAppModelActions : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void initTestCase();
    void init();
    void cleanup() { m_live->stopModel(); }

    void aFailureSaysWhatDidntHappen_data();
    void aFailureSaysWhatDidntHappen();
    void aSuccessShowsItsEffect_data();
    void aSuccessShowsItsEffect();
    void signOutTakesTheStatusAndReadsAMomentLater();
    void anAnswerFoldsItsCardUntilTheServiceResolvesIt();
    void anAnswerThatDidntArriveComesBack_data();
    void anAnswerThatDidntArriveComesBack();
    void anAwakeChoiceShowsUntilTheServiceAnswers();

private:
    AppModel& model() const { return m_live->model(); }

    std::unique_ptr<LiveModel> m_live;
};

void TestAppModelActions::initTestCase()
{
    m_live = std::make_unique<LiveModel>(false);
    // Signing in runs the pinned Claude Code's own sign-in.
    QVERIFY2(m_live->usePinnedClaude(), PinnedClaude::kMissing);
    // Signing the built-in node out needs its helper: the stand-in, signed out from the start.
    m_live->service.setVariable(QStringLiteral("TIDEWATCH_TSNET_HELPER"),
        QStringLiteral(TIDEWATCH_SOURCE_DIR "/daemon/test/fakes/tsnet-helper"));
    QVERIFY(m_live->restartService());
}

void TestAppModelActions::init()
{
    m_live->service.qa("DELETE", "/qa/faults");
    m_live->service.qa("POST", "/qa/reset", QJsonObject{});
    m_live->seed(R"([
        ["/qa/sessions", {"id": "s1", "title": "Fix the tests", "state": "needs_you"}],
        ["/qa/sessions", {"id": "s2", "state": "idle", "blocked": {"kind": "limit", "resume": {"state": "off"}}}],
        ["/qa/sessions", {"id": "x1", "agent": "codex", "state": "working"}],
        ["/qa/devices", {"id": "d1", "name": "Pixel 8"}],
        ["/qa/devices", {"id": "d2", "name": "Glasses", "client": "lens"}],
        ["/qa/snapshot", {"codex": {"available": true, "enabled": false}, "account": {"state": "logged_out"}}]
    ])");
    QVERIFY(m_live->startModel());
    QVERIFY(awake(model()));
}

void TestAppModelActions::aFailureSaysWhatDidntHappen_data()
{
    QTest::addColumn<Action>("action");
    QTest::addColumn<QString>("route");
    QTest::addColumn<QString>("note");

    QTest::newRow("open a session's terminal")
        << Action([](AppModel& m) { m.openTerminal("s1"); }) << u"POST /v1/sessions/s1/open"_s
        << u"Couldn’t open its terminal. Nope."_s;
    QTest::newRow("continue a session") << Action([](AppModel& m) { m.continueSession("s1"); })
                                        << u"POST /v1/sessions/s1/continue"_s << u"Couldn’t continue it. Nope."_s;
    QTest::newRow("auto-continue") << Action([](AppModel& m) { m.setAutoContinue("s2", true); })
                                   << u"POST /v1/sessions/s2/auto-continue"_s << u"Didn’t go through. Nope."_s;
    QTest::newRow("check a provider") << Action([](AppModel& m) { m.checkProvider("p1", "OpenRouter"); })
                                      << u"POST /v1/providers/p1/check"_s << u"Couldn’t reach OpenRouter. Nope."_s;
    QTest::newRow("sign in") << Action([](AppModel& m) { m.signIn(); }) << u"POST /v1/account/login"_s
                             << u"Couldn’t start signing in. Nope."_s;
    QTest::newRow("forget a device") << Action([](AppModel& m) { m.forgetDevice("d1", "Pixel 8"); })
                                     << u"DELETE /local/devices/d1"_s << u"Couldn’t forget Pixel 8. Nope."_s;
    QTest::newRow("turn Codex off") << Action([](AppModel& m) { m.setCodexEnabled(false); })
                                    << u"POST /local/settings"_s << u"Couldn’t turn Codex off. Nope."_s;
    QTest::newRow("built-in Tailscale") << Action([](AppModel& m) { m.setBuiltInTailscale(true); })
                                        << u"POST /local/settings"_s << u"Couldn’t change that. Nope."_s;
    QTest::newRow("browse outside projects")
        << Action([](AppModel& m) { m.setBrowseOutsideProjects(true, SettingsWords::filesChanged(true)); })
        << u"POST /local/settings"_s << u"Couldn’t change Browse outside projects. Nope."_s;
    QTest::newRow("the private name") << Action([](AppModel& m) { m.setNameService(true); })
                                      << u"POST /local/settings"_s << u"Couldn’t change the private name. Nope."_s;
    QTest::newRow("Tailscale sign-out speaks in the service's words alone")
        << Action([](AppModel& m) { m.signOutTailscale(); }) << u"POST /local/tsnet/logout"_s << u"Nope."_s;
    QTest::newRow("a battery level out of range")
        << Action([](AppModel& m) { m.setMinBattery(99); }) << QString() << u"Couldn’t change the battery level. "_s;
    QTest::newRow("more time while none is offered")
        << Action([](AppModel& m) { m.extendBackpack(); }) << QString() << u"Couldn’t extend Backpack. "_s;
    QTest::newRow("refresh usage passes in silence")
        << Action([](AppModel& m) { m.refreshUsage(); }) << u"POST /v1/usage/refresh"_s << QString();
    QTest::newRow("refresh Codex passes in silence")
        << Action([](AppModel& m) { m.refreshCodex(); }) << u"POST /v1/codex/refresh"_s << QString();
}

void TestAppModelActions::aFailureSaysWhatDidntHappen()
{
    QFETCH(Action, action);
    QFETCH(QString, route);
    QFETCH(QString, note);
    // Without a route the service refuses by itself, in its own words after the opening.
    if (!route.isEmpty())
        m_live->service.qa("POST", "/qa/faults", fault(route, 500, R"({"error":{"code":"x","message":"Nope."}})"));
    const Awake before = *awake(model());
    QSignalSpy reads(&model(), &AppModel::readFinished);
    action(model());
    if (note.isEmpty()) {
        QTRY_VERIFY_WITH_TIMEOUT(m_live->service.faultsSpent(), 5000);
        QTest::qWait(500);
        QVERIFY(!model().note());
    } else if (route.isEmpty()) {
        QTRY_VERIFY_WITH_TIMEOUT(!model().noteText().isEmpty(), 5000);
        QVERIFY2(model().noteText().startsWith(note) && model().noteText().size() > note.size(),
            qPrintable(model().noteText()));
        QCOMPARE(*awake(model()), before);
    } else {
        QTRY_COMPARE_WITH_TIMEOUT(model().noteText(), note, 5000);
    }
    if (!route.isEmpty()) {
        // A refused action reads nothing after it.
        QTest::qWait(300);
        QCOMPARE(reads.count(), 0);
    }
}

void TestAppModelActions::aSuccessShowsItsEffect_data()
{
    QTest::addColumn<Action>("action");
    QTest::addColumn<Effect>("effect");
    QTest::addColumn<QString>("note");

    QTest::newRow("sign in: signing in, and the account from the reply") << Action(
        [](AppModel& m) { m.signIn(); }) << Effect([](const AppModel& m) {
        const auto& account = m.snapshot()->account;
        return m.signingIn() && account && account->login && account->login->state == QStringLiteral("waiting_code");
    }) << QString();
    QTest::newRow("forget a device: the list is read again") << Action(
        [](AppModel& m) { m.forgetDevice("d1", "Pixel 8"); }) << Effect([](const AppModel& m) {
        return m.deviceList() && m.deviceList()->size() == 1 && m.deviceList()->first().id == "d2";
    }) << QString();
    QTest::newRow("refresh usage: the reading from the reply")
        << Action([](AppModel& m) { m.refreshUsage(); })
        << Effect([](const AppModel& m) { return m.snapshot()->usage && m.snapshot()->usage->source == u"none"_s; })
        << QString();
    QTest::newRow("turn Codex on: the snapshot says so")
        << Action([](AppModel& m) { m.setCodexEnabled(true); })
        << Effect([](const AppModel& m) { return m.snapshot()->codex && m.snapshot()->codex->enabled; }) << QString();
    QTest::newRow("built-in Tailscale: the status says so")
        << Action([](AppModel& m) { m.setBuiltInTailscale(true); })
        << Effect([](const AppModel& m) { return m.status()->tsnet && m.status()->tsnet->enabled == true; })
        << QString();
    QTest::newRow("browse outside projects: the status says so, and a note tells what it means")
        << Action([](AppModel& m) { m.setBrowseOutsideProjects(true, SettingsWords::filesChanged(true)); })
        << Effect(
               [](const AppModel& m) { return m.status()->files && m.status()->files->browseOutsideProjects == true; })
        << "Phones can open sessions’ folders in your home folder too, read only";
    QTest::newRow("the private name: the status holds the choice")
        << Action([](AppModel& m) { m.setNameService(true); })
        << Effect([](const AppModel& m) { return m.status()->name && m.status()->name->setting == true; }) << QString();
    QTest::newRow("a battery level: the service holds it")
        << Action([](AppModel& m) { m.setMinBattery(25); })
        << Effect([](const AppModel& m) { return awake(m)->minBattery == 25; }) << QString();
}

void TestAppModelActions::aSuccessShowsItsEffect()
{
    QFETCH(Action, action);
    QFETCH(Effect, effect);
    QFETCH(QString, note);
    action(model());
    // As long as the app waits for the slowest of them: Claude Code's sign-in page, on a busy machine.
    QTRY_VERIFY2_WITH_TIMEOUT(effect(model()), qPrintable(model().noteText()), 20000);
    QTRY_COMPARE_WITH_TIMEOUT(model().noteText(), note, 5000);
    QTest::qWait(300);
    QCOMPARE(model().noteText(), note);
}

void TestAppModelActions::signOutTakesTheStatusAndReadsAMomentLater()
{
    // A status the reply brings is held at once, before the read that follows.
    m_live->service.qa("POST", "/qa/local", QJsonObject{{"projectsRoot", "/Users/someone/Projects"}});
    QSignalSpy reads(&model(), &AppModel::readFinished);
    QElapsedTimer elapsed;
    elapsed.start();
    model().signOutTailscale();
    QTRY_COMPARE_WITH_TIMEOUT(model().status()->projectsRoot, std::optional<QString>("/Users/someone/Projects"), 5000);
    QCOMPARE(reads.count(), 0);
    QTRY_COMPARE_WITH_TIMEOUT(reads.count(), 1, 5000);
    QVERIFY2(elapsed.elapsed() >= 1100, "the read came before the node could settle");
    QVERIFY(!model().note());
}

void TestAppModelActions::anAnswerFoldsItsCardUntilTheServiceResolvesIt()
{
    m_live->seed(R"([["/qa/approvals", {"id": "q1", "sessionId": "s1", "kind": "question", "createdAt": "@now"}]])");
    QTRY_COMPARE_WITH_TIMEOUT(waitingIds(model()), QStringList{"q1"}, 5000);
    // A tool request pushed later still stands first.
    m_live->seed(R"([["/qa/approvals", {"id": "t1", "sessionId": "s1", "kind": "tool", "createdAt": "@now"}]])");
    QTRY_COMPARE_WITH_TIMEOUT(waitingIds(model()), (QStringList{"t1", "q1"}), 5000);

    const Approval asked = waiting(model(), "t1");
    model().decide(asked, "allow");
    // Folded at once, in its place, before the service has said anything.
    QCOMPARE(waitingIds(model()), (QStringList{"t1*", "q1"}));
    QCOMPARE(model().waitingApprovals().size(), 1);
    QTRY_COMPARE_WITH_TIMEOUT(waitingIds(model()), QStringList{"q1"}, 8000);
    QVERIFY(model().noteText().isEmpty());

    // An approval can't be answered twice.
    const auto decisions = [this] { return m_live->service.qa("GET", "/qa/state")["decisions"].toArray().size(); };
    const qsizetype answered = decisions();
    model().decide(asked, "deny");
    QTest::qWait(300);
    QCOMPARE(decisions(), answered);
}

void TestAppModelActions::anAnswerThatDidntArriveComesBack_data()
{
    QTest::addColumn<int>("status");
    QTest::addColumn<QString>("note");
    QTest::addColumn<bool>("comesBack");

    QTest::newRow("answered elsewhere: no note, and the card goes") << 409 << QString() << false;
    QTest::newRow("lost: back in its place, with the agent's word")
        << 500 << u"That answer didn’t reach Codex. nope"_s << true;
}

void TestAppModelActions::anAnswerThatDidntArriveComesBack()
{
    QFETCH(int, status);
    QFETCH(QString, note);
    QFETCH(bool, comesBack);
    m_live->seed(R"([["/qa/approvals", {"id": "c1", "sessionId": "x1", "kind": "tool", "createdAt": "@now"}],
                    ["/qa/approvals", {"id": "c0", "sessionId": "s1", "kind": "tool", "createdAt": "@now"}]])");
    QTRY_COMPARE_WITH_TIMEOUT(waitingIds(model()).size(), 2, 5000);
    const QStringList before = waitingIds(model());
    m_live->service.qa("POST", "/qa/faults",
        fault("POST /v1/approvals/c1/decision", status,
            status == 409 ? R"({"error":{"code":"already_resolved","message":"Answered on the phone."}})"
                          : R"({"error":{"code":"x","message":"nope"}})"));
    model().decide(waiting(model(), "c1"), "deny");
    if (comesBack) {
        QTRY_COMPARE_WITH_TIMEOUT(model().noteText(), note, 5000);
        QCOMPARE(waitingIds(model()), before);
    } else {
        QTest::qWait(1000);
        QCOMPARE(model().noteText(), note);
        QCOMPARE(model().waitingApprovals().size(), 1);
        QCOMPARE(model().waitingApprovals().first().id, QStringLiteral("c0"));
    }
}

void TestAppModelActions::anAwakeChoiceShowsUntilTheServiceAnswers()
{
    QSignalSpy choice(&model(), &AppModel::awakeChoiceChanged);
    model().setAwake(Awake::Mode::Off);
    QCOMPARE(model().awakeChoice(), std::optional(Awake::Mode::Off));
    QTRY_COMPARE_WITH_TIMEOUT(awake(model())->mode, Awake::Mode::Off, 5000);
    QTRY_VERIFY_WITH_TIMEOUT(!model().awakeChoice(), 5000);
    QCOMPARE(choice.size(), 2);
}

TIDEWATCH_E2E_MAIN(TestAppModelActions)
#include "TestAppModelActions.moc"

#include "surface/StatusItemController.h"

#include "model/AppModel.h"

#include "ManualClock.h"
#include "Offline.h"
#include "RecordingButton.h"

#include <QSignalSpy>
#include <QTest>

using namespace Qt::StringLiterals;

namespace {

/// A controller over a model that reaches no service, making recording buttons:
/// `names` holds the names it made them under, `button` the last one.
struct Rig {
    Rig(const ScratchFolder& scratch, const Clock& clock)
        : environment(nowhere(scratch))
        , model(environment, clock)
        , controller(
              model, environment,
              [this](const QString& name) {
                  names << name;
                  auto made = std::make_unique<RecordingButton>();
                  button = made.get();
                  return made;
              },
              clock)
    {
    }

    Environment environment;
    AppModel model;
    QStringList names;
    RecordingButton* button = nullptr;
    StatusItemController controller;
};

} // namespace

class TestStatusItemController : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void installMakesOneItemHoweverOften();
    void clicksGoToThePanelsOwnerAndTheButtonHoldsWhileOpen();
    void theModelDrivesTheIcon();
    void theScreenDrivesTheTimer();
    void theHollowRingWaitsForTheFirstPoll();

private:
    ScratchFolder m_scratch;
    ManualClock m_clock;
};

void TestStatusItemController::installMakesOneItemHoweverOften()
{
    Rig rig(m_scratch, m_clock);
    QVERIFY(!rig.controller.isInstalled());
    rig.controller.install();
    rig.controller.install();
    rig.controller.install();
    // A test copy keeps a place of its own, beside the real one's.
    QCOMPARE(rig.names, QStringList{u"TidewatchTest"_s});
    QCOMPARE(StatusItemController::autosaveName(Environment({}, m_scratch.path())), u"Tidewatch"_s);
    // The first image by force, then the words; before the first poll it is all quiet.
    QCOMPARE(rig.button->take(), (QStringList{u"image spin-0"_s, u"label Tidewatch"_s}));
}

void TestStatusItemController::clicksGoToThePanelsOwnerAndTheButtonHoldsWhileOpen()
{
    Rig rig(m_scratch, m_clock);
    QSignalSpy clicked(&rig.controller, &StatusItemController::clicked);
    rig.controller.install();
    rig.button->take();

    Q_EMIT rig.button->clicked(QRect(1200, 0, 24, 22));
    Q_EMIT rig.button->clicked(QRect());
    QCOMPARE(clicked.size(), 2);
    QCOMPARE(clicked.at(0).at(0).toRect(), QRect(1200, 0, 24, 22));
    QVERIFY(clicked.at(1).at(0).toRect().isEmpty());

    rig.controller.setPanelOpen(true);
    rig.controller.setPanelOpen(true);
    rig.controller.setPanelOpen(false);
    QCOMPARE(rig.button->take(), (QStringList{u"highlight 1"_s, u"highlight 0"_s}));
}

void TestStatusItemController::theModelDrivesTheIcon()
{
    Rig rig(m_scratch, m_clock);
    rig.controller.install();

    rig.model.take(feedLive(true));
    rig.model.take(feedMessage(R"({"t":"snapshot","snapshot":{
        "sessions":[{"id":"a","state":"working"},{"id":"b","state":"idle","agentsRunning":1},
                    {"id":"c","state":"working"}],
        "approvals":[{"id":"p1","sessionId":"c","kind":"tool"}],
        "account":{"state":"ok"}}})"));
    QTRY_COMPARE(rig.controller.icon().labelText(), u"Tidewatch: 1 needs you, 2 sessions working"_s);
    QVERIFY(rig.controller.icon().shown()->badge);
    QVERIFY(rig.controller.icon().timerRunning());

    // The approval resolved: the badge goes, and its session counts as working again.
    rig.model.take(feedMessage(R"({"t":"approval.resolved","id":"p1"})"));
    QTRY_COMPARE(rig.controller.icon().labelText(), u"Tidewatch: 3 sessions working"_s);
    QVERIFY(!rig.controller.icon().shown()->badge);

    // Claude Code signed out, as the feed tells it.
    rig.model.take(feedMessage(R"({"t":"account","account":{"state":"logged_out"}})"));
    QTRY_COMPARE(rig.controller.icon().labelText(), u"Tidewatch: Claude Code is signed out, 3 sessions working"_s);
    QVERIFY(rig.controller.icon().shown()->badge);
    QCOMPARE(rig.controller.icon().title(), QString());
}

void TestStatusItemController::theScreenDrivesTheTimer()
{
    Rig rig(m_scratch, m_clock);
    rig.controller.install();
    rig.model.take(feedLive(true));
    rig.model.take(feedMessage(R"({"t":"snapshot","snapshot":{"sessions":[{"id":"a","state":"working"}]}})"));
    QTRY_VERIFY(rig.controller.icon().timerRunning());

    // Each way of being out of sight stops the planet at once; back in sight it turns again.
    for (auto hides :
        {&ScreenWatch::setScreenLocked, &ScreenWatch::setDisplaysAsleep, &ScreenWatch::setSessionInactive}) {
        (rig.controller.screen().*hides)(true);
        QTRY_VERIFY(!rig.controller.icon().timerRunning());
        QCOMPARE(rig.controller.icon().shown()->name(), u"spin-0"_s);
        (rig.controller.screen().*hides)(false);
        QTRY_VERIFY(rig.controller.icon().timerRunning());
    }

    rig.controller.screen().setReduceMotion(true);
    QTRY_COMPARE(rig.controller.icon().interval(), MenuBarIconAnimator::breathInterval);
}

void TestStatusItemController::theHollowRingWaitsForTheFirstPoll()
{
    Rig rig(m_scratch, m_clock);
    rig.controller.install();
    QCOMPARE(rig.controller.icon().shown()->name(), u"spin-0"_s);

    // One read that finds nobody: now the icon may say the service is gone.
    QSignalSpy finished(&rig.model, &AppModel::readFinished);
    rig.model.read(false);
    QVERIFY(finished.wait(20000));
    QVERIFY(rig.model.firstPollDone());
    QTRY_COMPARE(rig.controller.icon().shown()->name(), u"hollow"_s);
    QCOMPARE(rig.controller.icon().labelText(), u"Tidewatch: the background service isn’t running"_s);
    QVERIFY(!rig.controller.icon().timerRunning());
}

QTEST_GUILESS_MAIN(TestStatusItemController)
#include "TestStatusItemController.moc"

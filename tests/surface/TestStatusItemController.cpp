#include "surface/StatusItemController.h"

#include "model/AppModel.h"

#include "ManualClock.h"
#include "Offline.h"
#include "RecordingButton.h"

#include <QSignalSpy>
#include <QTest>

using namespace Qt::StringLiterals;

namespace {

/// Makes recording buttons and keeps the last one, with the names it was made under.
struct Buttons {
    QStringList names;
    RecordingButton* last = nullptr;

    StatusItemController::ButtonMaker maker()
    {
        return [this](const QString& name) {
            names << name;
            auto button = std::make_unique<RecordingButton>();
            last = button.get();
            return button;
        };
    }
};

} // namespace

class TestStatusItemController : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void autosaveName();
    void installMakesOneItemHoweverOften();
    void clicksGoToThePanelsOwnerAndTheButtonHoldsWhileOpen();
    void theModelDrivesTheIcon();
    void theScreenDrivesTheTimer();
    void theHollowRingWaitsForTheFirstPoll();

private:
    ScratchFolder m_scratch;
    ManualClock m_clock;
};

void TestStatusItemController::autosaveName()
{
    // A test copy's own place is proven by installing one below.
    QCOMPARE(StatusItemController::autosaveName(Environment({}, m_scratch.path())), u"Tidewatch"_s);
}

void TestStatusItemController::installMakesOneItemHoweverOften()
{
    const Environment environment = nowhere(m_scratch);
    AppModel model(environment, m_clock);
    Buttons buttons;
    StatusItemController controller(model, environment, buttons.maker(), m_clock);
    QVERIFY(!controller.isInstalled());
    controller.install();
    controller.install();
    controller.install();
    // A test copy keeps a place of its own.
    QCOMPARE(buttons.names, QStringList{u"TidewatchTest"_s});
    // The first image by force, then the words; before the first poll it is all quiet.
    QCOMPARE(buttons.last->take(), (QStringList{u"image spin-0"_s, u"label Tidewatch"_s}));
}

void TestStatusItemController::clicksGoToThePanelsOwnerAndTheButtonHoldsWhileOpen()
{
    const Environment environment = nowhere(m_scratch);
    AppModel model(environment, m_clock);
    Buttons buttons;
    StatusItemController controller(model, environment, buttons.maker(), m_clock);
    QSignalSpy clicked(&controller, &StatusItemController::clicked);
    controller.install();
    buttons.last->take();

    Q_EMIT buttons.last->clicked(QRect(1200, 0, 24, 22));
    Q_EMIT buttons.last->clicked(QRect());
    QCOMPARE(clicked.size(), 2);
    QCOMPARE(clicked.at(0).at(0).toRect(), QRect(1200, 0, 24, 22));
    QVERIFY(clicked.at(1).at(0).toRect().isEmpty());

    controller.setPanelOpen(true);
    controller.setPanelOpen(true);
    controller.setPanelOpen(false);
    QCOMPARE(buttons.last->take(), (QStringList{u"highlight 1"_s, u"highlight 0"_s}));
}

void TestStatusItemController::theModelDrivesTheIcon()
{
    const Environment environment = nowhere(m_scratch);
    AppModel model(environment, m_clock);
    Buttons buttons;
    StatusItemController controller(model, environment, buttons.maker(), m_clock);
    controller.install();

    model.take(feedLive(true));
    model.take(feedMessage(R"({"t":"snapshot","snapshot":{
        "sessions":[{"id":"a","state":"working"},{"id":"b","state":"idle","agentsRunning":1},
                    {"id":"c","state":"working"}],
        "approvals":[{"id":"p1","sessionId":"c","kind":"tool"}],
        "account":{"state":"ok"}}})"));
    QTRY_COMPARE(controller.icon().labelText(), u"Tidewatch: 1 needs you, 2 sessions working"_s);
    QVERIFY(controller.icon().shown()->badge);
    QVERIFY(controller.icon().timerRunning());

    // The approval resolved: the badge goes, and its session counts as working again.
    model.take(feedMessage(R"({"t":"approval.resolved","id":"p1"})"));
    QTRY_COMPARE(controller.icon().labelText(), u"Tidewatch: 3 sessions working"_s);
    QVERIFY(!controller.icon().shown()->badge);

    // Claude Code signed out, as the feed tells it.
    model.take(feedMessage(R"({"t":"account","account":{"state":"logged_out"}})"));
    QTRY_COMPARE(controller.icon().labelText(), u"Tidewatch: Claude Code is signed out, 3 sessions working"_s);
    QVERIFY(controller.icon().shown()->badge);
    QCOMPARE(controller.icon().title(), QString());
}

void TestStatusItemController::theScreenDrivesTheTimer()
{
    const Environment environment = nowhere(m_scratch);
    AppModel model(environment, m_clock);
    Buttons buttons;
    StatusItemController controller(model, environment, buttons.maker(), m_clock);
    controller.install();
    model.take(feedLive(true));
    model.take(feedMessage(R"({"t":"snapshot","snapshot":{"sessions":[{"id":"a","state":"working"}]}})"));
    QTRY_VERIFY(controller.icon().timerRunning());

    // Each way of being out of sight stops the planet at once; back in sight it turns again.
    for (auto hides :
        {&ScreenWatch::setScreenLocked, &ScreenWatch::setDisplaysAsleep, &ScreenWatch::setSessionInactive}) {
        (controller.screen().*hides)(true);
        QTRY_VERIFY(!controller.icon().timerRunning());
        QCOMPARE(controller.icon().shown()->name(), u"spin-0"_s);
        (controller.screen().*hides)(false);
        QTRY_VERIFY(controller.icon().timerRunning());
    }

    controller.screen().setReduceMotion(true);
    QTRY_COMPARE(controller.icon().interval(), MenuBarIconAnimator::breathInterval);
}

void TestStatusItemController::theHollowRingWaitsForTheFirstPoll()
{
    const Environment environment = nowhere(m_scratch);
    AppModel model(environment, m_clock);
    Buttons buttons;
    StatusItemController controller(model, environment, buttons.maker(), m_clock);
    controller.install();
    QCOMPARE(controller.icon().shown()->name(), u"spin-0"_s);

    // One read that finds nobody: now the icon may say the service is gone.
    QSignalSpy finished(&model, &AppModel::readFinished);
    model.read(false);
    QVERIFY(finished.wait(20000));
    QVERIFY(model.firstPollDone());
    QTRY_COMPARE(controller.icon().shown()->name(), u"hollow"_s);
    QCOMPARE(controller.icon().labelText(), u"Tidewatch: the background service isn’t running"_s);
    QVERIFY(!controller.icon().timerRunning());
}

QTEST_GUILESS_MAIN(TestStatusItemController)
#include "TestStatusItemController.moc"

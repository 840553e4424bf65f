#include "surface/MenuBarIconAnimator.h"

#include "Fixture.h"
#include "ManualClock.h"
#include "RecordingButton.h"

#include <QJsonArray>
#include <QSet>
#include <QTest>

#include <functional>

using Look = MenuBarIconAnimator::Look;
using namespace Qt::StringLiterals;

Q_DECLARE_METATYPE(MenuBarIconAnimator::Look)

namespace {

template <class T> QList<T> listOf(const QByteArray& json)
{
    QList<T> items;
    for (const QJsonValue& value : Fixture::json(json.isEmpty() ? "[]" : json).toArray()) {
        const std::optional<T> item = T::fromJson(value);
        if (!item)
            Fixture::undecodable(json);
        items << *item;
    }
    return items;
}

QString describe(const Look& look)
{
    return u"up=%1 working=%2 agents=%3 needsYou=%4"_s.arg(int(look.up))
        .arg(look.working)
        .arg(look.agents)
        .arg(look.needsYou);
}

// A look with the service up and the screen seen, as most rows want.
Look seenLook(int working = 0, int needsYou = 0)
{
    Look look;
    look.working = working;
    look.needsYou = needsYou;
    look.seen = true;
    return look;
}

/// Runs the animator's timer as the event loop would, in 5 ms slices of
/// the manual clock. `each` sees every slice, with the milliseconds run.
void run(MenuBarIconAnimator& icon, ManualClock& clock, int milliseconds, const std::function<void(int)>& each = {})
{
    int sinceFire = 0;
    double interval = icon.interval();
    for (int ms = 5; ms <= milliseconds; ms += 5) {
        clock.advance(0.005);
        // A timer started anew counts from its start.
        if (icon.interval() != interval) {
            interval = icon.interval();
            sinceFire = 0;
        }
        sinceFire += 5;
        if (icon.timerRunning() && sinceFire >= int(std::lround(icon.interval() * 1000))) {
            sinceFire = 0;
            icon.tick();
        }
        if (each)
            each(ms);
    }
}

} // namespace

class TestMenuBarIconAnimator : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void lookOfTheModel_data();
    void lookOfTheModel();
    void accountTrouble_data();
    void accountTrouble();
    void imageChoice_data();
    void imageChoice();
    void timerTable_data();
    void timerTable();
    void countTitleAndLabel_data();
    void countTitleAndLabel();
    void spinSteps_data();
    void spinSteps();
    void aStallAdvancesAtMostAQuarterSecond_data();
    void aStallAdvancesAtMostAQuarterSecond();

    void twoSessionsWorkingShowSixImagesInTwoSeconds();
    void workStoppingCoastsToTheRestFrameThenStopsTheTimer_data();
    void workStoppingCoastsToTheRestFrameThenStopsTheTimer();
    void lockedStopsAtOnceAndUnlockedTurnsAgain();
    void reduceMotionBreathesInsteadOfTurning();
    void aSecondWaitingThingGrowsTheItem();
    void theButtonIsTouchedOnlyOnAChange();

private:
    ManualClock m_clock;
};

void TestMenuBarIconAnimator::lookOfTheModel_data()
{
    QTest::addColumn<bool>("alive");
    QTest::addColumn<bool>("firstPollDone");
    QTest::addColumn<QByteArray>("sessions");
    QTest::addColumn<QByteArray>("approvals");
    QTest::addColumn<QString>("expected");

    QTest::newRow("idle with the service up") << true << true << QByteArray(R"([{"id":"a","state":"idle"}])")
                                              << QByteArray() << "up=1 working=0 agents=0 needsYou=0";
    QTest::newRow("before the first poll ends the service is never called gone")
        << false << false << QByteArray() << QByteArray() << "up=1 working=0 agents=0 needsYou=0";
    QTest::newRow("after the first poll, no health and no feed is gone")
        << false << true << QByteArray() << QByteArray() << "up=0 working=0 agents=0 needsYou=0";
    QTest::newRow("working and starting work; idle, error and a new word don't")
        << true << true
        << QByteArray(R"([{"id":"a","state":"working"},{"id":"b","state":"starting"},{"id":"c","state":"idle"},
                          {"id":"d","state":"error"},{"id":"e","state":"pondering"}])")
        << QByteArray() << "up=1 working=2 agents=0 needsYou=0";
    QTest::newRow("sub-agents make an idle or stateless session work, not an ended or waiting one")
        << true << true << QByteArray(R"([{"id":"a","state":"idle","agentsRunning":2},{"id":"b","agentsRunning":1},
                          {"id":"c","state":"ended","agentsRunning":3},{"id":"d","state":"needs_you","agentsRunning":1}])")
        << QByteArray() << "up=1 working=2 agents=4 needsYou=1";
    QTest::newRow("a negative or missing agent count adds nothing")
        << true << true
        << QByteArray(R"([{"id":"a","state":"working","agentsRunning":-4},{"id":"b","state":"working"}])")
        << QByteArray() << "up=1 working=2 agents=0 needsYou=0";
    QTest::newRow("a session with an approval waiting needs you and stops counting as working")
        << true << true << QByteArray(R"([{"id":"a","state":"working","agentsRunning":1}])")
        << QByteArray(R"([{"id":"p1","sessionId":"a"}])") << "up=1 working=0 agents=1 needsYou=1";
    QTest::newRow("two approvals on one session count once")
        << true << true << QByteArray(R"([{"id":"a","state":"needs_you"}])")
        << QByteArray(R"([{"id":"p1","sessionId":"a"},{"id":"p2","sessionId":"a"}])")
        << "up=1 working=0 agents=0 needsYou=1";
    QTest::newRow("approvals without a listed session count one each")
        << true << true << QByteArray(R"([{"id":"a","state":"working"}])")
        << QByteArray(R"([{"id":"p1"},{"id":"p2","sessionId":"gone"}])") << "up=1 working=1 agents=0 needsYou=2";
}

void TestMenuBarIconAnimator::lookOfTheModel()
{
    QFETCH(bool, alive);
    QFETCH(bool, firstPollDone);
    QFETCH(QByteArray, sessions);
    QFETCH(QByteArray, approvals);

    MenuBarIconAnimator::Inputs in;
    in.alive = alive;
    in.firstPollDone = firstPollDone;
    in.sessions = listOf<Session>(sessions);
    in.approvals = listOf<Approval>(approvals);
    in.reduceMotion = true;
    in.seen = false;
    const Look look = MenuBarIconAnimator::lookOf(in);
    QTEST(describe(look), "expected");
    // The screen's flags pass through untouched.
    QVERIFY(look.reduceMotion && !look.seen);
}

void TestMenuBarIconAnimator::accountTrouble_data()
{
    QTest::addColumn<bool>("alive");
    QTest::addColumn<bool>("claude");
    QTest::addColumn<QByteArray>("account");
    QTest::addColumn<QByteArray>("codex");
    QTest::addColumn<QString>("expected");

    const QByteArray signedOut = R"({"state":"logged_out"})";
    const QByteArray codexSignedOut = R"({"available":true,"enabled":true,"account":{"signedIn":false}})";
    const QByteArray codexFine = R"({"available":true,"enabled":true,"account":{"signedIn":true}})";

    QTest::newRow("Claude Code signed out while it leads")
        << true << true << signedOut << QByteArray() << "Claude Code is signed out";
    QTest::newRow("no plan") << true << true << QByteArray(R"({"state":"no_subscription","reason":"ended"})")
                             << QByteArray() << "no Claude plan";
    QTest::newRow("a limit reached raises no dot")
        << true << true << QByteArray(R"({"state":"limited","limit":{"window":"five_hour"}})") << QByteArray() << "";
    QTest::newRow("Claude Code leads, so Codex's sign-out is its own card's business")
        << true << true << QByteArray(R"({"state":"ok"})") << codexSignedOut << "";
    QTest::newRow("Codex alone and signed out")
        << true << false << QByteArray() << codexSignedOut << "Codex is signed out";
    QTest::newRow("a Codex too old to run leads nothing, so raises no dot")
        << true << false << QByteArray() << QByteArray(R"({"available":false,"version":"0.1.0","min":"0.40.0"})") << "";
    QTest::newRow("Codex alone and fine, Claude Code's sign-out means nothing")
        << true << false << signedOut << codexFine << "";
    QTest::newRow("the service gone: no account words at all") << false << true << signedOut << QByteArray() << "";
}

void TestMenuBarIconAnimator::accountTrouble()
{
    QFETCH(bool, alive);
    QFETCH(bool, claude);
    QFETCH(QByteArray, account);
    QFETCH(QByteArray, codex);
    QFETCH(QString, expected);

    MenuBarIconAnimator::Inputs in;
    in.alive = alive;
    in.firstPollDone = true;
    in.account = Fixture::maybe<Account>(account);
    in.codex = Fixture::maybe<Codex>(codex);
    in.agents.claude = claude;
    if (in.codex) {
        in.agents.codexAvailable = in.codex->available;
        in.agents.codexEnabled = in.codex->enabled;
        in.agents.codexHere = in.codex->available || in.codex->version.has_value();
    }
    const Look look = MenuBarIconAnimator::lookOf(in);
    QCOMPARE(look.account.value_or(QString()), expected);
    QCOMPARE(look.badged(), !expected.isEmpty());
}

void TestMenuBarIconAnimator::imageChoice_data()
{
    QTest::addColumn<Look>("look");
    QTest::addColumn<double>("phase");
    QTest::addColumn<double>("breath");
    QTest::addColumn<QString>("expected");

    Look down = seenLook(2, 3);
    down.up = false;
    down.account = u"Claude Code is signed out"_s;
    Look breathing = seenLook(1);
    breathing.reduceMotion = true;
    Look restingUnderReduceMotion = seenLook();
    restingUnderReduceMotion.reduceMotion = true;
    Look hiddenWork = breathing;
    hiddenWork.seen = false;
    Look accountOnly = seenLook();
    accountOnly.account = u"no Claude plan"_s;

    QTest::newRow("the service gone is the hollow ring, never badged") << down << 0.4 << 0.0 << "hollow";
    QTest::newRow("the spin's fraction picks the frame") << seenLook(1) << 2.35 << 0.0 << "spin-3";
    QTest::newRow("the end of a cycle is the last frame") << seenLook(1) << 0.999 << 0.0 << "spin-9";
    QTest::newRow("one waiting thing badges the frame") << seenLook(1, 1) << 1.5 << 0.0 << "spin-5-badge";
    QTest::newRow("account trouble alone badges it") << accountOnly << 0.0 << 0.0 << "spin-0-badge";
    QTest::newRow("work under Reduce Motion breathes") << breathing << 0.0 << 0.5 << "breath-4";
    QTest::newRow("the breath's end is its last frame") << breathing << 0.0 << 0.99 << "breath-7";
    QTest::newRow("no work under Reduce Motion rests") << restingUnderReduceMotion << 0.0 << 0.5 << "spin-0";
    QTest::newRow("work out of sight doesn't breathe") << hiddenWork << 0.0 << 0.5 << "spin-0";
}

void TestMenuBarIconAnimator::imageChoice()
{
    QFETCH(Look, look);
    QFETCH(double, phase);
    QFETCH(double, breath);
    QTEST(MenuBarIconAnimator::frameFor(look, IconMotion{phase, 1}, breath).name(), "expected");
}

void TestMenuBarIconAnimator::timerTable_data()
{
    QTest::addColumn<bool>("up");
    QTest::addColumn<bool>("seen");
    QTest::addColumn<bool>("work");
    QTest::addColumn<bool>("reduceMotion");
    QTest::addColumn<double>("speed");
    QTest::addColumn<double>("interval");

    QTest::newRow("the service gone: no timer, even mid-turn") << false << true << true << false << 0.6 << 0.0;
    QTest::newRow("out of sight and still turning: coast on") << true << false << true << false << 0.4 << 0.075;
    QTest::newRow("out of sight at rest: no timer, though work goes on")
        << true << false << true << false << 0.0 << 0.0;
    QTest::newRow("work in sight turns") << true << true << true << false << 0.0 << 0.075;
    QTest::newRow("work under Reduce Motion breathes slower") << true << true << true << true << 0.0 << 0.15;
    QTest::newRow("Reduce Motion turned on mid-turn finishes fast") << true << true << true << true << 0.3 << 0.075;
    QTest::newRow("no work but still turning: coast on") << true << true << false << false << 0.3 << 0.075;
    QTest::newRow("idle: no timer at all") << true << true << false << true << 0.0 << 0.0;
}

void TestMenuBarIconAnimator::timerTable()
{
    QFETCH(bool, up);
    QFETCH(bool, seen);
    QFETCH(bool, work);
    QFETCH(bool, reduceMotion);
    QFETCH(double, speed);

    Look look;
    look.up = up;
    look.agents = work ? 1 : 0;
    look.reduceMotion = reduceMotion;
    look.seen = seen;
    QTEST(MenuBarIconAnimator::intervalFor(look, speed), "interval");
}

void TestMenuBarIconAnimator::countTitleAndLabel_data()
{
    QTest::addColumn<Look>("look");
    QTest::addColumn<QString>("title");
    QTest::addColumn<QString>("label");

    Look down = seenLook(2, 4);
    down.up = false;
    down.account = u"Claude Code is signed out"_s;
    Look everything = seenLook(1, 3);
    everything.account = u"Codex is signed out"_s;
    everything.agents = 5;
    Look agentsOnly = seenLook();
    agentsOnly.agents = 2;

    QTest::newRow("idle is the bare name") << seenLook() << u""_s << u"Tidewatch"_s;
    QTest::newRow("one waiting thing: a dot, no number") << seenLook(0, 1) << u""_s << u"Tidewatch: 1 needs you"_s;
    QTest::newRow("two or more: the count") << seenLook(0, 2) << u"2"_s << u"Tidewatch: 2 need you"_s;
    QTest::newRow("one working") << seenLook(1) << u""_s << u"Tidewatch: 1 session working"_s;
    QTest::newRow("two working") << seenLook(2) << u""_s << u"Tidewatch: 2 sessions working"_s;
    QTest::newRow("account, then waiting, then working; agents add no words")
        << everything << u"3"_s << u"Tidewatch: Codex is signed out, 3 need you, 1 session working"_s;
    QTest::newRow("background agents alone say nothing") << agentsOnly << u""_s << u"Tidewatch"_s;
    QTest::newRow("the service gone says only that, and shows no count")
        << down << u""_s << u"Tidewatch: the background service isn’t running"_s;
}

void TestMenuBarIconAnimator::countTitleAndLabel()
{
    QFETCH(Look, look);
    QTEST(MenuBarIconAnimator::titleOf(look), "title");
    QTEST(MenuBarIconAnimator::labelOf(look), "label");
}

void TestMenuBarIconAnimator::spinSteps_data()
{
    QTest::addColumn<double>("phase");
    QTest::addColumn<double>("speed");
    QTest::addColumn<bool>("active");
    QTest::addColumn<double>("dt");
    QTest::addColumn<double>("expectedPhase");
    QTest::addColumn<double>("expectedSpeed");

    QTest::newRow("starting: half a ramp, and the new speed moves it at once")
        << 0.0 << 0.0 << true << 0.35 << 0.35 * 0.5 / 0.75 << 0.5;
    QTest::newRow("full speed is a cycle in 0.75 s") << 0.2 << 1.0 << true << 0.075 << 0.3 << 1.0;
    QTest::newRow("speed never passes full") << 0.0 << 0.95 << true << 0.25 << 0.25 / 0.75 << 1.0;
    QTest::newRow("slowing takes 1.2 s from full to nothing's worth") << 0.0 << 1.0 << false << 0.6 << 0.4 << 0.5;
    QTest::newRow("slowing stops at the crawl") << 0.2 << 0.35 << false << 0.25 << 0.3 << 0.3;
    QTest::newRow("at the crawl, crossing a whole cycle stops exactly on it")
        << 4.99 << 0.3 << false << 0.075 << 5.0 << 0.0;
    QTest::newRow("faster than the crawl it turns through the rest frame")
        << 0.95 << 1.0 << false << 0.075 << 1.04375 << 0.9375;
    QTest::newRow("at rest and inactive nothing moves") << 3.0 << 0.0 << false << 0.25 << 3.0 << 0.0;
    QTest::newRow("past 1000 cycles only the fraction is kept") << 1000.5 << 1.0 << true << 0.075 << 0.6 << 1.0;
}

void TestMenuBarIconAnimator::spinSteps()
{
    QFETCH(double, phase);
    QFETCH(double, speed);
    QFETCH(bool, active);
    QFETCH(double, dt);
    QFETCH(double, expectedPhase);
    QFETCH(double, expectedSpeed);

    IconMotion motion{phase, speed};
    motion.step(active, dt);
    QVERIFY2(qAbs(motion.phase - expectedPhase) < 1e-9, qPrintable(QString::number(motion.phase, 'g', 12)));
    QVERIFY2(qAbs(motion.speed - expectedSpeed) < 1e-9, qPrintable(QString::number(motion.speed, 'g', 12)));
}

void TestMenuBarIconAnimator::aStallAdvancesAtMostAQuarterSecond_data()
{
    QTest::addColumn<double>("gap");
    QTest::addColumn<double>("advance");

    QTest::newRow("a stall of ten seconds shows as a quarter second") << 10.0 << 0.25 / 0.75;
    QTest::newRow("a clock set back moves nothing") << -30.0 << 0.0;
}

void TestMenuBarIconAnimator::aStallAdvancesAtMostAQuarterSecond()
{
    QFETCH(double, gap);
    QFETCH(double, advance);

    MenuBarIconAnimator icon(m_clock);
    RecordingButton button;
    icon.setButton(&button);
    icon.apply(seenLook(1));
    // Up to full speed first, so the advance is speed times time alone.
    run(icon, m_clock, 1000);
    QCOMPARE(icon.motion().speed, 1.0);
    icon.tick();
    const double before = icon.motion().phase;
    m_clock.advance(gap);
    icon.tick();
    QVERIFY2(
        qAbs(icon.motion().phase - before - advance) < 1e-6, qPrintable(QString::number(icon.motion().phase - before)));
}

void TestMenuBarIconAnimator::twoSessionsWorkingShowSixImagesInTwoSeconds()
{
    MenuBarIconAnimator icon(m_clock);
    RecordingButton button;
    icon.setButton(&button);
    MenuBarIconAnimator::Inputs in;
    in.alive = in.firstPollDone = true;
    in.sessions = listOf<Session>(R"([{"id":"a","state":"working"},{"id":"b","state":"working"}])");
    icon.apply(MenuBarIconAnimator::lookOf(in));
    QCOMPARE(icon.interval(), 0.075);
    QVERIFY(icon.labelText().endsWith(u"2 sessions working"_s));

    // 40 samples, 50 ms apart, as a person glancing at the menu bar would.
    QSet<QString> seen;
    run(icon, m_clock, 2000, [&](int ms) {
        if (ms % 50 == 0)
            seen.insert(icon.shown()->name());
    });
    QVERIFY2(seen.size() >= 6, qPrintable(QStringList(seen.values()).join(u", "_s)));
}

void TestMenuBarIconAnimator::workStoppingCoastsToTheRestFrameThenStopsTheTimer_data()
{
    QTest::addColumn<int>("workedMs");

    QTest::newRow("stopped while starting up") << 200;
    QTest::newRow("stopped at full speed, mid-cycle") << 7320;
}

void TestMenuBarIconAnimator::workStoppingCoastsToTheRestFrameThenStopsTheTimer()
{
    QFETCH(int, workedMs);

    MenuBarIconAnimator icon(m_clock);
    RecordingButton button;
    icon.setButton(&button);
    icon.apply(seenLook(1));
    run(icon, m_clock, workedMs);
    icon.apply(seenLook(0));
    // Still turning: the timer stays to let it coast.
    QVERIFY(icon.timerRunning());
    const double stoppedAt = icon.motion().phase;

    int restedAt = -1;
    run(icon, m_clock, 5000, [&](int ms) {
        if (restedAt < 0 && !icon.timerRunning())
            restedAt = ms;
    });
    QVERIFY(restedAt > 0);
    // Down to the crawl in 0.84 s, then at most one more cycle at the crawl.
    QVERIFY2(restedAt <= 840 + 2500 + 100, qPrintable(QString::number(restedAt)));
    QCOMPARE(icon.motion().speed, 0.0);
    QCOMPARE(icon.motion().phase, std::floor(icon.motion().phase));
    QVERIFY(icon.motion().phase > stoppedAt);
    QCOMPARE(icon.shown()->name(), u"spin-0"_s);
    QCOMPARE(icon.interval(), 0.0);
}

void TestMenuBarIconAnimator::lockedStopsAtOnceAndUnlockedTurnsAgain()
{
    MenuBarIconAnimator icon(m_clock);
    RecordingButton button;
    icon.setButton(&button);
    icon.apply(seenLook(2));
    run(icon, m_clock, 1330);
    QVERIFY(icon.shown()->name() != u"spin-0"_s);

    Look locked = seenLook(2);
    locked.seen = false;
    icon.apply(locked);
    // No coasting out of sight: the rest frame at once and no timer.
    QVERIFY(!icon.timerRunning());
    QCOMPARE(icon.shown()->name(), u"spin-0"_s);
    button.take();
    run(icon, m_clock, 3000);
    QCOMPARE(button.calls, QStringList());

    icon.apply(seenLook(2));
    QCOMPARE(icon.interval(), 0.075);
    run(icon, m_clock, 600);
    QVERIFY(icon.motion().phase > std::floor(icon.motion().phase));
}

void TestMenuBarIconAnimator::reduceMotionBreathesInsteadOfTurning()
{
    MenuBarIconAnimator icon(m_clock);
    RecordingButton button;
    icon.setButton(&button);
    icon.apply(seenLook(1));
    run(icon, m_clock, 500);

    Look calm = seenLook(1);
    calm.reduceMotion = true;
    icon.apply(calm);
    // The turn snaps to rest rather than finishing: that would be motion too.
    QCOMPARE(icon.motion().speed, 0.0);
    QCOMPARE(icon.shown()->name(), u"breath-0"_s);
    QCOMPARE(icon.interval(), 0.15);
    button.take();

    // Two breaths: frames of 0.3 s from a timer of 0.15 s, so each image is
    // set once, in order, though every other tick changes nothing.
    int changes = 0;
    QString lastImage = icon.shown()->name();
    run(icon, m_clock, 4800, [&](int) {
        if (icon.shown()->name() != lastImage) {
            lastImage = icon.shown()->name();
            ++changes;
        }
    });
    const QStringList images = button.images();
    QCOMPARE(images.size(), changes);
    QVERIFY2(images.size() >= 15 && images.size() <= 16, qPrintable(images.join(u", "_s)));
    for (int i = 0; i < images.size(); ++i)
        QCOMPARE(images[i], u"image breath-%1"_s.arg((i + 1) % 8));
    QCOMPARE(icon.motion().phase, std::floor(icon.motion().phase));

    // Work ending stops the breath on the rest frame with no timer.
    Look idle = seenLook(0);
    idle.reduceMotion = true;
    run(icon, m_clock, 450);
    icon.apply(idle);
    QCOMPARE(icon.breath(), 0.0);
    QCOMPARE(icon.shown()->name(), u"spin-0"_s);
    QVERIFY(!icon.timerRunning());
}

void TestMenuBarIconAnimator::aSecondWaitingThingGrowsTheItem()
{
    MenuBarIconAnimator icon(m_clock);
    RecordingButton button;
    icon.setButton(&button);
    icon.setOnWidth([&button](bool wide) { button.setWide(wide); });
    icon.apply(seenLook());
    button.take();

    icon.apply(seenLook(0, 1));
    QCOMPARE(button.take(), (QStringList{"label Tidewatch: 1 needs you", "image spin-0-badge"}));
    icon.apply(seenLook(0, 2));
    QCOMPARE(button.take(), (QStringList{"title 2", "wide 1", "label Tidewatch: 2 need you"}));
    icon.apply(seenLook(0, 3));
    QCOMPARE(button.take(), (QStringList{"title 3", "label Tidewatch: 3 need you"}));
    icon.apply(seenLook());
    QCOMPARE(button.take(), (QStringList{"title ", "wide 0", "label Tidewatch", "image spin-0"}));
}

void TestMenuBarIconAnimator::theButtonIsTouchedOnlyOnAChange()
{
    MenuBarIconAnimator icon(m_clock);
    RecordingButton button;
    icon.setButton(&button);
    icon.apply(seenLook(1, 2));
    button.take();

    // The same look again, as a poll that found nothing new would bring.
    icon.apply(seenLook(1, 2));
    QCOMPARE(button.calls, QStringList());

    // Ticks that land on the frame already shown hand over no image: at the
    // start the planet moves less than a frame per tick.
    run(icon, m_clock, 750);
    const QStringList images = button.images();
    QCOMPARE(QSet<QString>(images.begin(), images.end()).size(), images.size());
    QVERIFY(images.size() < 10);
    QVERIFY(std::none_of(
        button.calls.begin(), button.calls.end(), [](const QString& call) { return !call.startsWith(u"image "_s); }));

    // The timer stays the same timer while the look changes but its interval doesn't.
    const double interval = icon.interval();
    icon.apply(seenLook(2, 2));
    QCOMPARE(icon.interval(), interval);
    QVERIFY(icon.timerRunning());
}

QTEST_GUILESS_MAIN(TestMenuBarIconAnimator)
#include "TestMenuBarIconAnimator.moc"

#include "surface/MenuBarIconAnimator.h"

#include "Fixture.h"
#include "Golden.h"
#include "ManualClock.h"
#include "RecordingButton.h"

#include <QJsonArray>
#include <QSet>
#include <QTest>

#include <functional>

using Look = MenuBarIconAnimator::Look;
using namespace Qt::StringLiterals;

namespace {

// A look written as in menu-bar-icon.txt: "down, hidden, reduce motion, working 1, agents 2, needs 3, account …".
Look lookFrom(const QString& words)
{
    Look look;
    look.seen = true;
    for (const QString& word : words.split(u", "_s, Qt::SkipEmptyParts)) {
        const int count = word.section(u' ', -1).toInt();
        if (word == u"down"_s)
            look.up = false;
        else if (word == u"hidden"_s)
            look.seen = false;
        else if (word == u"reduce motion"_s)
            look.reduceMotion = true;
        else if (word.startsWith(u"account "_s))
            look.account = word.mid(8);
        else if (word.startsWith(u"working"_s))
            look.working = count;
        else if (word.startsWith(u"agents"_s))
            look.agents = count;
        else
            look.needsYou = count;
    }
    return look;
}

Look seenLook(int working = 0, int needsYou = 0)
{
    return lookFrom(u"working %1, needs %2"_s.arg(working).arg(needsYou));
}

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

QString number(double value)
{
    return QString::number(qRound64(value * 1e9) / 1e9, 'g', 12);
}

QString render(const QString& section, const QStringList& in)
{
    MenuBarIconAnimator::Inputs inputs;
    const bool account = section == u"account"_s;
    inputs.alive = account ? in.at(0) != u"gone"_s : in.at(0).contains(u"alive"_s);
    inputs.firstPollDone = account || in.at(0).contains(u"polled"_s);
    if (section == u"look"_s) {
        inputs.sessions = listOf<Session>(in.value(1).toUtf8());
        inputs.approvals = listOf<Approval>(in.value(2).toUtf8());
        inputs.reduceMotion = true;
        inputs.seen = false;
        const Look look = MenuBarIconAnimator::lookOf(inputs);
        if (!look.reduceMotion || look.seen)
            return u"the screen's flags were lost"_s;
        return u"up=%1 working=%2 agents=%3 needsYou=%4"_s.arg(int(look.up))
            .arg(look.working)
            .arg(look.agents)
            .arg(look.needsYou);
    }
    if (account) {
        inputs.account = Fixture::maybe<Account>(in.value(1).toUtf8());
        inputs.codex = Fixture::maybe<Codex>(in.value(2).toUtf8());
        inputs.agents.claude = in.at(0) != u"codex"_s;
        if (inputs.codex) {
            inputs.agents.codexAvailable = inputs.codex->available;
            inputs.agents.codexEnabled = inputs.codex->enabled;
            inputs.agents.codexHere = inputs.codex->available || inputs.codex->version.has_value();
        }
        const Look look = MenuBarIconAnimator::lookOf(inputs);
        return look.account.value_or(u"—"_s) + (look.badged() ? u", badged"_s : QString());
    }
    if (section == u"spin"_s) {
        IconMotion motion{in.at(0).toDouble(), in.at(1).toDouble()};
        motion.step(in.at(2) == u"turning"_s, in.at(3).toDouble());
        return number(motion.phase) + u", "_s + number(motion.speed);
    }
    const Look look = lookFrom(in.at(0));
    if (section == u"frame"_s)
        return MenuBarIconAnimator::frameFor(look, IconMotion{in.at(1).toDouble(), 1}, in.at(2).toDouble()).name();
    if (section == u"timer"_s)
        return number(MenuBarIconAnimator::intervalFor(look, in.at(1).toDouble()));
    if (section == u"words"_s) {
        const QString title = MenuBarIconAnimator::titleOf(look);
        return (title.isEmpty() ? u"—"_s : title) + u" | "_s + MenuBarIconAnimator::labelOf(look);
    }
    return u"no words for the section "_s + section;
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
    void words_data();
    void words();
    void aStallAdvancesAtMostAQuarterSecond_data();
    void aStallAdvancesAtMostAQuarterSecond();

    void twoSessionsWorkingShowSixImagesInTwoSeconds();
    void workStoppingCoastsToTheRestFrameThenStopsTheTimer_data();
    void workStoppingCoastsToTheRestFrameThenStopsTheTimer();
    void lockedStopsAtOnceAndUnlockedTurnsAgain();
    void reduceMotionBreathesInsteadOfTurning();
    void theButtonIsTouchedOnlyOnAChange();

private:
    ManualClock m_clock;
};

void TestMenuBarIconAnimator::words_data()
{
    Golden::addRows({u"menu-bar-icon.txt"_s});
}

void TestMenuBarIconAnimator::words()
{
    QFETCH(QString, section);
    QFETCH(QString, input);
    QTEST(render(section, Golden::parts(input)).trimmed(), "expected");
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
    icon.apply(seenLook(2));
    QCOMPARE(icon.interval(), 0.075);

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

    icon.apply(lookFrom(u"working 2, hidden"_s));
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

    icon.apply(lookFrom(u"working 1, reduce motion"_s));
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
    run(icon, m_clock, 450);
    icon.apply(lookFrom(u"reduce motion"_s));
    QCOMPARE(icon.breath(), 0.0);
    QCOMPARE(icon.shown()->name(), u"spin-0"_s);
    QVERIFY(!icon.timerRunning());
}

void TestMenuBarIconAnimator::theButtonIsTouchedOnlyOnAChange()
{
    MenuBarIconAnimator icon(m_clock);
    RecordingButton button;
    icon.setButton(&button);
    icon.setOnWidth([&button](bool wide) { button.setWide(wide); });
    icon.apply(seenLook());
    button.take();

    // A second waiting thing grows the item.
    icon.apply(seenLook(0, 1));
    QCOMPARE(button.take(), (QStringList{"label Tidewatch: 1 needs you", "image spin-0-badge"}));
    icon.apply(seenLook(0, 2));
    QCOMPARE(button.take(), (QStringList{"title 2", "wide 1", "label Tidewatch: 2 need you"}));
    icon.apply(seenLook(0, 3));
    QCOMPARE(button.take(), (QStringList{"title 3", "label Tidewatch: 3 need you"}));
    icon.apply(seenLook());
    QCOMPARE(button.take(), (QStringList{"title ", "wide 0", "label Tidewatch", "image spin-0"}));

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

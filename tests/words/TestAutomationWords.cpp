#include "link/AutomationsSnapshot.h"
#include "link/AutomationsStatus.h"
#include "workflows/AutomationWords.h"
#include "workflows/AutomationsState.h"

#include "Fixture.h"

#include <QJsonDocument>
#include <QTest>
#include <QTimeZone>

using namespace Qt::StringLiterals;

namespace {

using Fixture::now;

AutomationsState fromSnapshot(const QByteArray& text)
{
    return AutomationsState::fromSnapshot(Fixture::record<AutomationsSnapshot>(text));
}

AutomationsState fromStatus(const QByteArray& text)
{
    return AutomationsState::fromStatus(Fixture::record<AutomationsStatus>(text));
}

QStringList names(const AutomationsState& state)
{
    QStringList list;
    for (const AutomationsState::Next& next : state.upcoming)
        list.append(next.name);
    return list;
}

} // namespace

class TestAutomationWords : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void fromStatus();
    void fromSnapshot();
    void asks_data();
    void asks();
    void upcomingSoonestThreeAtMost();
    void line_data();
    void line();
    void timesOfTheLine_data();
    void timesOfTheLine();
    void settingsLine_data();
    void settingsLine();
    void sessionChip();
};

void TestAutomationWords::fromStatus()
{
    AutomationsState state = ::fromStatus(
        R"({"paused":false,"count":3,"next":{"id":"au_1","name":"Morning brief","at":"@3600"},"running":[]})");
    QCOMPARE(state.count, 3);
    QCOMPARE(names(state), QStringList{u"Morning brief"_s});
    QVERIFY(state.running.isEmpty());
    QCOMPARE(state.enabled, std::nullopt);
    QCOMPARE(state.features, std::nullopt);

    state = ::fromStatus(R"({"paused":false,"count":2,"next":null,"running":[
        {"id":"au_1","name":"Morning brief","sessionId":"s9","startedAt":"@-90"},{"id":"au_2"}]})");
    QVERIFY(state.upcoming.isEmpty());
    QCOMPARE(state.running.size(), 2);
    QCOMPARE(state.running.at(0).sessionId, u"s9"_s);
    QCOMPARE(state.running.at(0).needsYou, false);
    QCOMPARE(state.running.at(1).name, u"Automation"_s);

    // A next run without a time isn't upcoming.
    QVERIFY(::fromStatus(R"({"count":1,"next":{"name":"x"}})").upcoming.isEmpty());
    // Keys of the wrong type read as absent: no automations, and no line.
    state = ::fromStatus(R"({"paused":"yes","count":"x","next":5,"running":"no"})");
    QCOMPARE(state, AutomationsState{});
    QCOMPARE(AutomationWords::line(state, now(), QLocale(u"en_US"_s)), std::nullopt);
}

void TestAutomationWords::fromSnapshot()
{
    const AutomationsState state = ::fromSnapshot(R"({"paused":true,"list":[
        {"id":"a","name":"A","enabled":true,"nextAt":"@600"},
        {"id":"b","name":"B","enabled":false,"nextAt":"@60"},
        {"id":"c","name":"C","nextAt":null,"lastRun":{"id":"r","state":"running","sessionIds":["s0","s1"],"startedAt":"@-60"}},
        "junk",
        {"id":"d","enabled":false,"lastRun":{"state":"needs_you"}}]})");
    QVERIFY(state.paused);
    QCOMPARE(state.count, 4);
    QCOMPARE(state.enabled, 2);
    QCOMPARE(names(state), QStringList{u"A"_s});
    QCOMPARE(state.running.size(), 2);
    QCOMPARE(state.running.at(0).name, u"C"_s);
    QCOMPARE(state.running.at(0).sessionId, u"s1"_s);
    QVERIFY(!state.running.at(0).needsYou);
    // A run of an automation turned off is still at work.
    QCOMPARE(state.running.at(1).name, u"Automation"_s);
    QVERIFY(state.running.at(1).needsYou);
    QCOMPARE(state.eventNames, QStringList{u"C"_s});
    QCOMPARE(state.features, std::nullopt);
    QVERIFY(state.asks.isEmpty());
    QCOMPARE(AutomationWords::line(state, now(), QLocale(u"en_US"_s))->text, u"Automations paused"_s);
}

void TestAutomationWords::asks_data()
{
    QTest::addColumn<QByteArray>("lastRun");
    QTest::addColumn<bool>("asks");

    const QByteArray full
        = R"("ask":{"stepId":"st_q","question":"Ship it?","answers":["Ship","Skip"],"default":"Skip","until":"@540"})";
    QTest::newRow("a full ask") << R"({"id":"ru_1","state":"needs_you",)" + full + "}" << true;
    QTest::newRow("a question alone is no ask")
        << QByteArray(R"({"id":"ru_1","state":"needs_you","ask":{"question":"?"}})") << false;
    QTest::newRow("no end time") << QByteArray(
        R"({"id":"ru_1","state":"needs_you","ask":{"stepId":"st_q","answers":["a"]}})")
                                 << false;
    QTest::newRow("no answers to give") << QByteArray(
        R"({"id":"ru_1","state":"needs_you","ask":{"stepId":"st_q","answers":[],"until":"@60"}})")
                                        << false;
    QTest::newRow("a run without an id") << R"({"state":"needs_you",)" + full + "}" << false;
    QTest::newRow("a run no longer waiting") << R"({"id":"ru_1","state":"done",)" + full + "}" << false;
}

void TestAutomationWords::asks()
{
    QFETCH(QByteArray, lastRun);
    QFETCH(bool, asks);
    const AutomationsState state = ::fromSnapshot(
        R"({"paused":false,"features":["steps","ask"],"list":[{"id":"au_a","name":"A","lastRun":)" + lastRun + "}]}");
    QCOMPARE(state.features, (QStringList{u"steps"_s, u"ask"_s}));
    QCOMPARE(state.asks.size(), asks ? 1 : 0);
    if (asks) {
        const WFAskItem& ask = state.asks.first();
        QCOMPARE(ask.runId, u"ru_1"_s);
        QCOMPARE(ask.automationId, u"au_a"_s);
        QCOMPARE(ask.stepId, u"st_q"_s);
        QCOMPARE(ask.answers, (QStringList{u"Ship"_s, u"Skip"_s}));
        QCOMPARE(ask.defaultAnswer, u"Skip"_s);
        QCOMPARE(ask.until, Fixture::at(540));
    }
}

void TestAutomationWords::upcomingSoonestThreeAtMost()
{
    const AutomationsState state = ::fromSnapshot(R"({"list":[
        {"name":"late","nextAt":"@4000"},{"name":"first","nextAt":"@100"},{"name":"tie-a","nextAt":"@200"},
        {"name":"tie-b","nextAt":"@200"},{"name":"off","enabled":false,"nextAt":"@1"}]})");
    QCOMPARE(names(state), (QStringList{u"first"_s, u"tie-a"_s, u"tie-b"_s}));
}

void TestAutomationWords::line_data()
{
    QTest::addColumn<QByteArray>("snapshot");
    QTest::addColumn<int>("kind");
    QTest::addColumn<QString>("text");
    QTest::addColumn<QString>("figure");
    QTest::addColumn<QString>("help");
    QTest::addColumn<bool>("needsYou");

    const int running = int(AutomationWords::Kind::Running), next = int(AutomationWords::Kind::Next),
              ready = int(AutomationWords::Kind::Ready);
    QTest::newRow("none at all") << QByteArray(R"({"list":[]})") << -1 << u""_s << u""_s << u""_s << false;
    QTest::newRow("all off") << QByteArray(R"({"list":[{"name":"A","enabled":false,"nextAt":"@60"}]})") << -1 << u""_s
                             << u""_s << u""_s << false;
    QTest::newRow("a fresh run reads a minute")
        << QByteArray(R"({"list":[{"name":"Brief","lastRun":{"state":"running","startedAt":"@-5"}}]})") << running
        << u"Brief"_s << u"1m"_s << u"Click to open its terminal."_s << false;
    QTest::newRow("a run waiting on you")
        << QByteArray(R"({"list":[{"name":"Brief","lastRun":{"state":"needs_you","startedAt":"@-7300"}}]})") << running
        << u"Brief"_s << u"2h"_s << u"It waits on you. Click to open its terminal."_s << true;
    QTest::newRow("all off, but one still runs")
        << QByteArray(R"({"list":[{"name":"Brief","enabled":false,"lastRun":{"state":"running"}}]})") << running
        << u"Brief"_s << u""_s << u"Click to open its terminal."_s << false;
    QTest::newRow("several runs") << QByteArray(
        R"({"list":[{"name":"A","lastRun":{"state":"running"}},{"name":"B","lastRun":{"state":"needs_you"}}]})")
                                  << running << u"2 automations running"_s << u""_s << u"A, B"_s << true;
    QTest::newRow("one next") << QByteArray(R"({"list":[{"name":"Brief","nextAt":"@3600"}]})") << next << u"Brief"_s
                              << u"11:53 AM"_s << u"Edit automations on your phone."_s << false;
    QTest::newRow("several next") << QByteArray(R"({"list":[{"name":"B","nextAt":"@86400"},{"name":"A","nextAt":"@600"},
                                  {"name":"C","nextAt":"@90000"},{"name":"D","nextAt":"@99999"}]})")
                                  << next << u"A"_s << u"11:03 AM"_s
                                  << u"Next up:\nA at 11:03 AM\nB at Fri 10:53 AM\nC at Fri 11:53 AM"_s << false;
    QTest::newRow("one waits for its event")
        << QByteArray(R"({"list":[{"name":"Carry on after the limit"},{"name":"Off","enabled":false}]})") << ready
        << u"Carry on after the limit"_s << u""_s << u"It runs when its moment comes."_s << false;
    QTest::newRow("several wait for events") << QByteArray(R"({"list":[{"name":"A"},{"name":"B"}]})") << ready
                                             << u"2 automations ready"_s << u""_s << u"A\nB"_s << false;
}

void TestAutomationWords::line()
{
    QFETCH(QByteArray, snapshot);
    QFETCH(int, kind);
    QFETCH(QString, text);
    QFETCH(QString, figure);
    QFETCH(QString, help);
    QFETCH(bool, needsYou);
    const std::optional<AutomationWords::Line> line
        = AutomationWords::line(::fromSnapshot(snapshot), now(), QLocale(u"en_US"_s));
    QCOMPARE(line.has_value(), kind >= 0);
    if (!line)
        return;
    QCOMPARE(int(line->kind), kind);
    QCOMPARE(line->text, text);
    QCOMPARE(line->figure ? line->figure->text : QString(), figure);
    QCOMPARE(line->help, help);
    QCOMPARE(line->needsYou, needsYou);
    QCOMPARE(line->tag.has_value(), text == u"Carry on after the limit"_s);
    for (const QString& words : {line->text, line->help, line->figure ? line->figure->text : QString()})
        QVERIFY2(!words.contains(u'·'), qPrintable(words));
}

void TestAutomationWords::timesOfTheLine_data()
{
    QTest::addColumn<QString>("locale");
    QTest::addColumn<qint64>("ahead");
    QTest::addColumn<QString>("time");

    // now is 10:53:20 UTC, 47,200 seconds before midnight.
    QTest::newRow("the last minute of today") << "en_US" << 47199ll << "11:59 PM";
    QTest::newRow("midnight is another day, though close") << "en_US" << 47200ll << "Fri 12:00 AM";
    QTest::newRow("24-hour locale, tomorrow") << "de_DE" << 14 * 3600ll << "Fr. 00:53";
}

void TestAutomationWords::timesOfTheLine()
{
    QFETCH(QString, locale);
    QFETCH(qint64, ahead);
    QFETCH(QString, time);
    QCOMPARE(AutomationWords::time(Fixture::at(ahead), now(), QLocale(locale)), time);
}

void TestAutomationWords::settingsLine_data()
{
    QTest::addColumn<QByteArray>("snapshot");
    QTest::addColumn<QString>("words");

    QTest::newRow("paused") << QByteArray(R"({"paused":true,"list":[]})") << "paused";
    QTest::newRow("none yet") << QByteArray(R"({"list":[]})") << "none yet";
    QTest::newRow("on, with the next") << QByteArray(R"({"list":[{"nextAt":"@600"},{"enabled":false}]})")
                                       << "1 on, next 11:03 AM";
    QTest::newRow("on, waiting for events") << QByteArray(R"({"list":[{},{}]})") << "2 on";
}

void TestAutomationWords::settingsLine()
{
    QFETCH(QByteArray, snapshot);
    QTEST(AutomationWords::settingsLine(::fromSnapshot(snapshot), now(), QLocale(u"en_US"_s)), "words");
    // The status doesn't say how many are on, so the count stands in.
    QCOMPARE(AutomationWords::settingsLine(::fromStatus(R"({"count":4})"), now(), QLocale(u"en_US"_s)), u"4 on"_s);
}

void TestAutomationWords::sessionChip()
{
    QCOMPARE(AutomationWords::chip(), u"Auto"_s);
    AutomationRef ref;
    QCOMPARE(AutomationWords::chipHelp(ref), u"Started by an automation"_s);
    ref.name = u"  "_s;
    QCOMPARE(AutomationWords::chipHelp(ref), u"Started by an automation"_s);
    ref.name = u"Morning brief"_s;
    QCOMPARE(AutomationWords::chipHelp(ref), u"Started by the automation “Morning brief”"_s);
    QCOMPARE(AutomationWords::foldedWords(), u"started by an automation"_s);
}

QTEST_GUILESS_MAIN(TestAutomationWords)
#include "TestAutomationWords.moc"

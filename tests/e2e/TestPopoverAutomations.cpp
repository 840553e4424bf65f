#include "LiveModel.h"
#include "RealPlaces.h"

#include "base/Clock.h"
#include "model/DismissedNotices.h"
#include "surface/PopoverModel.h"
#include "text/Machine.h"

#include <QGuiApplication>
#include <QJsonArray>
#include <QJsonObject>
#include <QTest>

using namespace Qt::StringLiterals;

namespace {

// Two automations: one at work in its own session, one waiting at an ask for
// about nine minutes more; `paused` for the whole set.
QByteArray automations(bool paused)
{
    return uR"([
        ["/qa/sessions", {"id": "s_auto", "title": "Nightly build", "state": "working", "lastActivityAt": "@now",
                          "automation": {"id": "au_build", "name": "Nightly build", "runId": "ru_build"}}],
        ["/qa/snapshot", {"automations": {"paused": %1, "features": ["steps", "ask"], "list": [
            {"id": "au_build", "name": "Nightly build",
             "lastRun": {"id": "ru_build", "state": "running", "sessionIds": ["s_auto"], "startedAt": "@now"}},
            {"id": "au_tidy", "name": "Nightly tidy",
             "lastRun": {"id": "ru_tidy", "state": "needs_you", "startedAt": "@now",
                         "steps": [{"id": "st_q", "kind": "ask", "state": "needs_you"}],
                         "ask": {"stepId": "st_q", "question": "Push the branch?", "answers": ["Push", "Skip"],
                                 "default": "Skip", "until": "@in530s"}}}
        ]}}]
    ])"_s.arg(paused ? u"true"_s : u"false"_s)
        .toUtf8();
}

QByteArray withTimes(QByteArray seed)
{
    const qint64 now = QDateTime::currentMSecsSinceEpoch();
    seed.replace("\"@in530s\"", QByteArray::number(now + 530000));
    // A run that started five minutes ago reads "5m".
    seed.replace("\"startedAt\": \"@now\"", "\"startedAt\": " + QByteArray::number(now - 300000));
    return seed;
}

QJsonObject kept(const LiveModel& live)
{
    return live.service.qa("GET", u"/qa/state"_s)[u"snapshot"_s][u"automations"_s].toObject();
}

QJsonObject lastRun(const LiveModel& live, int index)
{
    return kept(live)[u"list"_s].toArray().at(index)[u"lastRun"_s].toObject();
}

QVariantMap noticeOf(const PopoverModel& popover, const QString& id)
{
    for (const QVariant& notice : popover.page().value(u"notices"_s).toList()) {
        if (notice.toMap().value(u"id"_s) == id)
            return notice.toMap();
    }
    return {};
}

QString line(const PopoverModel& popover)
{
    return popover.page().value(u"automations"_s).toMap().value(u"text"_s).toString();
}

} // namespace

/// The automations as the panel shows them from the real service: the line
/// under the sessions, each ask as a notice, and what their buttons do there.
class TestPopoverAutomations : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void pausedWithAnAskReadsInTheLiveRender();
    void resumeAndAnswerChangeTheService();
    void theRunningLineOpensItsSessionsTerminal();
};

void TestPopoverAutomations::pausedWithAnAskReadsInTheLiveRender()
{
    LiveModel live;
    QVERIFY(live.ok());
    live.seed(withTimes(automations(true)));
    const QStringList twin = live.liveRender();
    const QString all = twin.join(u'\n');

    const qsizetype title = twin.indexOf(u"Nightly tidy"_s);
    QVERIFY2(title >= 0, qPrintable(all));
    QCOMPARE(twin.mid(title, 5),
        (QStringList{u"Nightly tidy"_s, u"Push the branch?"_s, u"Push"_s, u"Skip"_s, u"Skip in 9m"_s}));
    const qsizetype paused = twin.indexOf(u"Automations paused"_s);
    QVERIFY2(paused > title, qPrintable(all));
    QCOMPARE(twin.at(paused + 1), u"Resume"_s);
    QVERIFY2(paused > twin.indexOf(u"SESSIONS"_s), "the line stands under the sessions");
    QVERIFY2(!twin.contains(u"Nightly build"_s), "a session an automation started is the line’s, not a row");
}

void TestPopoverAutomations::resumeAndAnswerChangeTheService()
{
    LiveModel live;
    QVERIFY(live.ok());
    live.seed(withTimes(automations(true)));
    QVERIFY(live.startModel());
    AppModel& model = live.model();
    DismissedNotices dismissed;
    PopoverModel popover(model, dismissed, Clock::system());
    QCOMPARE(line(popover), u"Automations paused"_s);

    // Resume: the line moves on at once, the service is resumed, and the read after settles the choice.
    popover.resumeAutomations();
    QVERIFY(model.automationsPausedChoice() == std::optional<bool>(false));
    QTRY_COMPARE(line(popover), u"2 automations running"_s);
    QTRY_VERIFY(kept(live).value(u"paused"_s) == QJsonValue(false));
    QTRY_VERIFY(!model.automationsPausedChoice());
    QVERIFY(!model.automations()->paused);

    const QStringList twin = live.twin();
    QVERIFY2(twin.contains(u"2 automations running"_s), qPrintable(twin.join(u'\n')));
    QVERIFY(!twin.contains(u"Resume"_s));
    QVERIFY2(popover.page().value(u"automations"_s).toMap().value(u"sessionId"_s).toString().isEmpty(),
        "two runs: no one terminal to open");

    // An answer: the run is the Mac's answer on, and its notice goes.
    const WFAskItem asked = model.automations()->asks.value(0);
    QCOMPARE(
        noticeOf(popover, u"ask-ru_tidy"_s).value(u"choices"_s).toStringList(), (QStringList{u"Push"_s, u"Skip"_s}));
    popover.chooseNotice(u"ask-ru_tidy"_s, u"Push"_s);
    QTRY_COMPARE(lastRun(live, 1)[u"state"_s].toString(), u"running"_s);
    const QJsonObject answer = lastRun(live, 1)[u"steps"_s].toArray().at(0)[u"answer"_s].toObject();
    QCOMPARE(answer[u"text"_s].toString(), u"Push"_s);
    QCOMPARE(answer[u"by"_s].toString(), u"mac"_s);
    QTRY_VERIFY(noticeOf(popover, u"ask-ru_tidy"_s).isEmpty());
    QVERIFY(model.automations()->asks.isEmpty());

    // The same ask answered again, as from a card still open elsewhere, is told gently.
    model.answerAsk(asked, u"Skip"_s);
    QTRY_COMPARE(model.noteText(),
        u"Couldn’t send your answer. It was answered already: Answered Push on "_s + machine::theMachine());
    QCOMPARE(answer, lastRun(live, 1)[u"steps"_s].toArray().at(0)[u"answer"_s].toObject());
}

void TestPopoverAutomations::theRunningLineOpensItsSessionsTerminal()
{
    LiveModel live;
    QVERIFY(live.ok());
    live.seed(withTimes(uR"([
        ["/qa/sessions", {"id": "s_auto", "title": "Nightly build", "state": "working", "lastActivityAt": "@now",
                          "automation": {"id": "au_build", "name": "Nightly build", "runId": "ru_build"}}],
        ["/qa/snapshot", {"automations": {"paused": false, "list": [
            {"id": "au_build", "name": "Nightly build",
             "lastRun": {"id": "ru_build", "state": "running", "sessionIds": ["s_old", "s_auto"], "startedAt": "@now"}}
        ]}}]
    ])"_s.toUtf8()));
    const QStringList twin = live.liveRender();
    const qsizetype at = twin.indexOf(u"Nightly build"_s);
    QVERIFY2(at >= 0, qPrintable(twin.join(u'\n')));
    QCOMPARE(twin.at(at + 1), u"5m"_s);

    QVERIFY(live.startModel());
    DismissedNotices dismissed;
    PopoverModel popover(live.model(), dismissed, Clock::system());
    const QVariantMap shown = popover.page().value(u"automations"_s).toMap();
    QCOMPARE(shown.value(u"help"_s).toString(), u"Click to open its terminal."_s);
    QCOMPARE(shown.value(u"sessionId"_s).toString(), u"s_auto"_s);

    // The service's answer about that session (not a 404) is what proves the call came for it: it never
    // saw the session run, so it knows no window to raise, and the note says so.
    popover.openTerminal(shown.value(u"sessionId"_s).toString());
    QTRY_VERIFY(live.model().noteText().contains(u"doesn’t know yet where this session runs"_s));
}

TIDEWATCH_E2E_MAIN_WITH(QGuiApplication, TestPopoverAutomations)
#include "TestPopoverAutomations.moc"

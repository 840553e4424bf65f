#include "Golden.h"
#include "Launch.h"
#include "LiveModel.h"
#include "RealPlaces.h"

#include "base/Clock.h"
#include "model/DismissedNotices.h"
#include "setup/OutsideTools.h"
#include "surface/PopoverModel.h"
#include "text/Machine.h"

#include <QGuiApplication>
#include <QJsonArray>
#include <QJsonObject>
#include <QRegularExpression>
#include <QScopeGuard>
#include <QTest>

using namespace Qt::StringLiterals;

namespace {

const QString kFakes = QStringLiteral(TIDEWATCH_SOURCE_DIR) + u"/tests/fakes"_s;
const QString kGolden = u"popover-usage.txt"_s;

/// The usage section's lines of a twin: from its heading to what follows it.
QString usagePart(const QStringList& twin)
{
    const qsizetype from = twin.indexOf(u"USAGE"_s);
    if (from < 0)
        return u"no usage section in:\n"_s + twin.join(u'\n');
    qsizetype to = from + 1;
    while (to < twin.size() && twin.at(to) != u"STAY AWAKE"_s && twin.at(to) != u"Pair another phone"_s)
        ++to;
    return twin.mid(from, to - from).join(u" / "_s);
}

/// Seeds the /qa/snapshot parts of a case, the fake codex's place put in.
void seedParts(const LiveModel& live, QString parts)
{
    live.seed("[[\"/qa/snapshot\", " + parts.replace(u"<fake codex>"_s, kFakes + u"/codex.sh"_s).toUtf8() + "]]");
}

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

/// What a person sees of the real service: the built program's live render
/// of the panel and of the status item; the usage section word for word and
/// the Codex card's sign-in opening a terminal that runs codex login; the
/// automations' line under the sessions, each ask as a notice, and what
/// their buttons do there.
class TestPopoverLive : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void theApprovalStandsFirstAndTheItemIsBadged();
    void eachUsageStateReads_data();
    void eachUsageStateReads();
    void signInOpensATerminalRunningCodexLogin();
    void pausedWithAnAskReadsInTheLiveRender();
    void resumeAndAnswerChangeTheService();
    void theRunningLineOpensItsSessionsTerminal();
};

void TestPopoverLive::theApprovalStandsFirstAndTheItemIsBadged()
{
    LiveModel live;
    QVERIFY(live.ok());
    live.seed(R"([
        ["/qa/sessions", {"id": "w1", "title": "Session w1", "state": "working", "lastActivityAt": "@now"}],
        ["/qa/sessions", {"id": "w2", "title": "Session w2", "state": "working", "lastActivityAt": "@now"}],
        ["/qa/sessions", {"id": "n1", "title": "Session n1", "state": "needs_you", "lastActivityAt": "@now"}],
        ["/qa/approvals", {"id": "a1", "sessionId": "n1", "kind": "tool", "toolName": "Bash",
                           "input": {"command": "rm -rf build"}, "canAlways": true, "createdAt": "@now"}]
    ])");
    QStringList item;
    const QStringList twin = live.liveRender(&item);
    const qsizetype allow = twin.indexOf(QStringLiteral("Allow"));
    QVERIFY2(allow > 0, qPrintable(twin.join(QLatin1Char('\n'))));
    QCOMPARE(twin.mid(allow, 3), (QStringList{"Allow", "Always", "Deny"}));
    QVERIFY2(allow < twin.indexOf(QStringLiteral("SESSIONS")), "the approval stands before the sessions");
    QVERIFY(twin.contains(QStringLiteral("$ rm -rf build")));

    QCOMPARE(item.size(), 3);
    QVERIFY2(QRegularExpression(QStringLiteral("^image: spin-\\d+-badge$")).match(item.at(0)).hasMatch(),
        qPrintable(item.at(0)));
    QCOMPARE(item.at(1), QStringLiteral("title: "));
    QCOMPARE(item.at(2), QStringLiteral("label: Tidewatch: 1 needs you, 2 sessions working"));
}

void TestPopoverLive::eachUsageStateReads_data()
{
    QTest::addColumn<bool>("codexAlone");
    QTest::addColumn<QString>("input");
    QTest::addColumn<QString>("expected");
    for (const Golden::Row& row : Golden::read(kGolden)) {
        QTest::newRow(qPrintable(row.section + u": "_s + row.name))
            << (row.section == u"codex alone"_s) << row.input << row.expected;
    }
}

void TestPopoverLive::eachUsageStateReads()
{
    QFETCH(bool, codexAlone);
    QFETCH(QString, input);
    QFETCH(QString, expected);
    LiveModel live;
    QVERIFY(live.ok());
    seedParts(live, input);
    if (!codexAlone) {
        // The built program's own render, as a person sees it.
        QCOMPARE(usagePart(live.liveRender()), expected);
        return;
    }
    live.setClaudeHere(false);
    QVERIFY(live.startModel());
    QCOMPARE(usagePart(live.twin()), expected);
}

void TestPopoverLive::signInOpensATerminalRunningCodexLogin()
{
    LiveModel live;
    QVERIFY(live.ok());
    seedParts(live, uR"({"claude":{"available":false},"codex":{"available":true,"enabled":true,"path":"<fake codex>",
             "account":{"signedIn":false}}})"_s);
    live.setClaudeHere(false);
    QVERIFY(live.startModel());
    AppModel& model = live.model();

    const QString record = live.scratch.file(u"window"_s);
    const QString calls = live.scratch.file(u"codex-calls"_s);
    qputenv("FAKE_TERMINAL_RECORD", record.toUtf8());
    qputenv("FAKE_CODEX_RECORD", calls.toUtf8());
    OutsideTools tools = OutsideTools::current(live.service.environment());
    tools.system.terminalKind = platform::TerminalKind::Emulator;
    tools.system.terminal = kFakes + u"/terminal.sh"_s;
    OutsideTools::replace(tools);
    const auto restore = qScopeGuard([] { OutsideTools::replace(std::nullopt); });

    DismissedNotices dismissed;
    PopoverModel popover(model, dismissed, Clock::system());
    const QVariantMap card = popover.page().value(u"usage"_s).toMap().value(u"codexCard"_s).toMap();
    QCOMPARE(card.value(u"title"_s).toString(), u"Codex is signed out"_s);
    QCOMPARE(card.value(u"action"_s).toString(), u"Sign in"_s);

    popover.signInCodex();
    QVERIFY(model.codexBusy());
    QTRY_VERIFY_WITH_TIMEOUT(model.codexSignInOpened(), 10000);
    QVERIFY2(!model.codexError(), qPrintable(model.codexError().value_or(QString())));
    QVERIFY(!model.codexBusy());
    QTRY_VERIFY_WITH_TIMEOUT(QFile::exists(record + u".done"_s), 20000);
    const QString script = live.service.environment().supportFolder() + u"/terminal/codex-login.sh"_s;
    QCOMPARE(textLines(record + u".args"_s), (QStringList{u"-e"_s, script}));
    QVERIFY(textLines(record + u".script"_s).contains(u"'"_s + kFakes + u"/codex.sh' login"_s));
    QCOMPARE(textLines(calls), QStringList{u"login"_s});
    QCOMPARE(
        textLines(record + u".out"_s).value(0), u"Tidewatch: sign in to Codex below. Your browser opens for it."_s);

    // With the terminal opened, opening the panel and coming back to the app each ask for a fresh look at Codex.
    const QList<std::function<void()>> looks{
        [&] { model.setPopoverVisible(true); }, [&] { model.applicationBecameActive(); }};
    for (const std::function<void()>& look : looks) {
        live.service.qa(
            "POST", u"/qa/faults"_s, QJsonObject{{u"route"_s, u"POST /v1/codex/refresh"_s}, {u"times"_s, 1}});
        look();
        QTRY_VERIFY_WITH_TIMEOUT(live.service.faultsSpent(), 10000);
    }

    // Waved away, the card stays away for as long as Codex is signed out.
    popover.dismissCodexCard();
    popover.refresh();
    QVERIFY(!popover.page().value(u"usage"_s).toMap().contains(u"codexCard"_s));
    QCOMPARE(popover.page().value(u"undo"_s).toMap().value(u"text"_s).toString(), u"Dismissed: Codex is signed out"_s);
}

void TestPopoverLive::pausedWithAnAskReadsInTheLiveRender()
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

void TestPopoverLive::resumeAndAnswerChangeTheService()
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

void TestPopoverLive::theRunningLineOpensItsSessionsTerminal()
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

    // The service's answer about that session (not a 404) is what proves the call came for it; no window
    // can be raised yet, and the note says so.
    popover.openTerminal(shown.value(u"sessionId"_s).toString());
    QTRY_VERIFY(live.model().noteText().contains(u"can’t bring a terminal window forward"_s));
}

TIDEWATCH_E2E_MAIN_WITH(QGuiApplication, TestPopoverLive)
#include "TestPopoverLive.moc"

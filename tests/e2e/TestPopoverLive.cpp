#include "Golden.h"
#include "Launch.h"
#include "LiveModel.h"
#include "PinnedClaude.h"
#include "RealPlaces.h"
#include "StaticSite.h"

#include "base/Clock.h"
#include "model/DismissedNotices.h"
#include "setup/ClaudeSDK.h"
#include "setup/OutsideTools.h"
#include "surface/PopoverModel.h"
#include "surface/PopoverPages.h"
#include "surface/words/RowAction.h"
#include "text/Machine.h"

#include <QCryptographicHash>
#include <QDesktopServices>
#include <QDir>
#include <QFile>
#include <QGuiApplication>
#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>
#include <QProcess>
#include <QRegularExpression>
#include <QScopeGuard>
#include <QStandardPaths>
#include <QTest>

using namespace Qt::StringLiterals;

namespace {

const QString kWords = QStringLiteral("popover-notices.txt");
const QString kSdkFile = u"/sdk-0.0.7.tgz"_s;

/// The golden lines of a case, by its section and input.
QStringList expected(const QString& section, const QString& input)
{
    return Golden::lines(kWords, section, input);
}

/// A Node.js with npm beside it, as the service's Node.js has.
QString nodeWithNpm()
{
    for (const QString& node : {ServiceProcess::nodeProgram(), QStandardPaths::findExecutable(u"node"_s)}) {
        if (!node.isEmpty() && ClaudeSDK::findNpm(QFileInfo(node).absoluteFilePath()))
            return QFileInfo(node).absoluteFilePath();
    }
    return {};
}

/// Where the browser was asked to go.
class Browser : public QObject
{
    Q_OBJECT

public:
    QList<QUrl> opened;

public Q_SLOTS:
    void open(const QUrl& url) { opened << url; }
};

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
/// automations' line under the sessions, each ask as a notice; the notices,
/// the account card and the quick action; and what each button does there.
class TestPopoverLive : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void initTestCase();
    void cleanupTestCase();
    void theLiveRenderReadsEachNotice();
    void fetchBringsTheSDKIntoTheCopysOwnFolder();
    void aFailedFetchSaysWhyAndOffersItAgain();
    void fixOpensTheTailscaleAdminConsole();
    void tryAgainAsksTheProviderAgain();
    void theAccountButtonActsByItsKind_data();
    void theAccountButtonActsByItsKind();
    void theChecklistOpensInTheBrowserWithoutAToken();

    void theApprovalStandsFirstAndTheItemIsBadged();
    void eachUsageStateReads_data();
    void eachUsageStateReads();
    void signInOpensATerminalRunningCodexLogin();
    void pausedWithAnAskReadsInTheLiveRender();
    void resumeAndAnswerChangeTheService();
    void theRunningLineOpensItsSessionsTerminal();

private:
    /// The SDK's package as npm's registry hands it over, pinned by the
    /// lock of a service folder put where the installer puts it in this copy.
    void installServiceFolder();
    AppModel& model() { return m_live->model(); }

    std::unique_ptr<LiveModel> m_live;
    std::unique_ptr<StaticSite> m_site;
    std::unique_ptr<DismissedNotices> m_dismissed;
    std::unique_ptr<PopoverModel> m_popover;
    Browser m_browser;
    QString m_daemonFolder;
};

void TestPopoverLive::initTestCase()
{
    QDesktopServices::setUrlHandler(u"https"_s, &m_browser, "open");
    QDesktopServices::setUrlHandler(u"http"_s, &m_browser, "open");
    // Sign in runs the pinned Claude Code's own sign-in, offline, in the test copy's home.
    m_live = std::make_unique<LiveModel>(false);
    QVERIFY2(m_live->usePinnedClaude(), PinnedClaude::kMissing);
    QVERIFY(m_live->restartService());
    installServiceFolder();

    const QString expiry = QDateTime::currentDateTimeUtc().addSecs(5 * 86400 + 1800).toString(Qt::ISODateWithMs);
    const QJsonObject local{{"claude", QJsonObject{{"path", PinnedClaude::kProgram}, {"version", "2.1.0"}}},
        {"tailscale",
            QJsonObject{
                {"installed", true}, {"running", true}, {"loggedIn", true}, {"serveOn", true}, {"keyExpiry", expiry}}}};
    m_live->service.qa("POST", u"/qa/local"_s, local);
    m_live->seed(R"([
        ["/qa/snapshot", {"account": {"state": "on_hold"},
                          "providers": [{"id": "p1", "name": "OpenRouter", "kind": "openrouter",
                                         "status": {"state": "down"}}]}],
        ["/qa/sessions", {"id": "s3", "title": "Summarise the logs", "state": "idle", "providerId": "p1",
                          "blocked": {"kind": "provider"}, "lastActivityAt": "@now"}]
    ])");
    QVERIFY(m_live->startModel());
    QTRY_VERIFY_WITH_TIMEOUT(model().sdkLooked(), 5000);
    m_dismissed = std::make_unique<DismissedNotices>();
    m_popover = std::make_unique<PopoverModel>(model(), *m_dismissed, Clock::system());
}

void TestPopoverLive::cleanupTestCase()
{
    m_popover.reset();
    m_live.reset();
    QDesktopServices::unsetUrlHandler(u"https"_s);
    QDesktopServices::unsetUrlHandler(u"http"_s);
}

void TestPopoverLive::installServiceFolder()
{
    const Environment environment = m_live->service.environment();
    m_daemonFolder = environment.daemonFolder();
    const QString node = nodeWithNpm();
    QVERIFY2(!node.isEmpty(), "no Node.js with npm beside it on this machine");

    // The package, packed as npm packs one: a tarball whose one folder is "package".
    const ScratchFolder& scratch = m_live->scratch;
    scratch.write(u"registry/package/package.json"_s, R"({"name":"@anthropic-ai/claude-agent-sdk","version":"0.0.7"})");
    scratch.write(u"registry/package/index.js"_s, "export {};\n");
    QFile tarball(scratch.file(u"site"_s + kSdkFile));
    QVERIFY(
        QProcess::execute(u"tar"_s, {u"-C"_s, scratch.file(u"registry"_s), u"-czf"_s, tarball.fileName(), u"package"_s})
        == 0);
    QVERIFY(tarball.open(QIODevice::ReadOnly));
    const QByteArray integrity
        = "sha512-" + QCryptographicHash::hash(tarball.readAll(), QCryptographicHash::Sha512).toBase64();
    m_site = std::make_unique<StaticSite>(scratch.file(u"site"_s));

    // The service's folder as the installer leaves it: its manifest, its lock and its pin, with no SDK yet.
    const QJsonObject dependency{{"@anthropic-ai/claude-agent-sdk", "0.0.7"}};
    const QJsonObject manifest{{"name", "tidewatch-daemon"}, {"version", "1.0.0"}, {"dependencies", dependency}};
    const QJsonObject lock{{"name", "tidewatch-daemon"}, {"version", "1.0.0"}, {"lockfileVersion", 3},
        {"requires", true},
        {"packages",
            QJsonObject{{"", manifest},
                {"node_modules/@anthropic-ai/claude-agent-sdk",
                    QJsonObject{{"version", "0.0.7"}, {"resolved", m_site->base().toString() + kSdkFile},
                        {"integrity", QString::fromLatin1(integrity)}}}}}};
    const QString folder = QDir(scratch.path()).relativeFilePath(m_daemonFolder);
    scratch.write(folder + u"/package.json"_s, QJsonDocument(manifest).toJson());
    scratch.write(folder + u"/package-lock.json"_s, QJsonDocument(lock).toJson());
    scratch.write(folder + u"/sdk-version"_s, "0.0.7\n");
    // The job file names the Node.js the service runs on, whose npm fetches.
    QVERIFY(ServiceInstaller::forCopy(environment).writeJobFile(node).ok());
    QVERIFY(!environment.isRealFolder(m_daemonFolder));
}

void TestPopoverLive::theLiveRenderReadsEachNotice()
{
    const QStringList lines = m_live->liveRender();
    const QString all = lines.join(u'\n');
    for (const QString& input : {u"sdk missing"_s, u"key 5"_s, u"pair"_s, u"provider down"_s})
        QVERIFY2(Golden::containsRun(lines, expected(u"twin"_s, input)), qPrintable(input + u" in:\n"_s + all));
    QVERIFY2(Golden::containsRun(lines, expected(u"account"_s, u"details"_s)), qPrintable(all));
    // Buttons that have nothing to open yet aren't drawn.
    QVERIFY2(!lines.contains(u"Open"_s), qPrintable(all));
    QVERIFY(lines.contains(u"Testing checklist"_s));

    m_popover->noticeAction(u"setup"_s);
    QCOMPARE(m_popover->pages()->current(), PopoverPages::kPair);
    m_popover->pages()->show(PopoverPages::kMain);
}

void TestPopoverLive::fetchBringsTheSDKIntoTheCopysOwnFolder()
{
    QVERIFY(model().claudeSDK() && !model().claudeSDK()->installed);
    m_popover->noticeAction(u"sdk"_s);
    QVERIFY(model().fetchingSDK());
    m_popover->refresh();
    const QVariantMap sdk = noticeOf(*m_popover, u"sdk"_s);
    QCOMPARE(sdk.value(u"action"_s).toString(), u"Fetching…"_s);
    QVERIFY(sdk.value(u"busy"_s).toBool());
    QTRY_VERIFY_WITH_TIMEOUT(!model().fetchingSDK(), 120000);
    QVERIFY2(model().noteText().isEmpty(), qPrintable(model().noteText()));
    QCOMPARE(ClaudeSDK::installedVersion(m_daemonFolder), std::optional<QString>(u"0.0.7"_s));
    QVERIFY(model().claudeSDK()->isCurrent());
    QVERIFY(m_site->requests().contains(kSdkFile));
    QVERIFY(!m_live->twin().contains(expected(u"twin"_s, u"sdk missing"_s).first()));
}

void TestPopoverLive::aFailedFetchSaysWhyAndOffersItAgain()
{
    // The package goes, and the site now refuses it: the next fetch fails in npm's words.
    QVERIFY(QDir(m_daemonFolder + u"/node_modules"_s).removeRecursively());
    QDir(m_live->service.supportFolder() + u"/npm-cache"_s).removeRecursively();
    m_site->answer(kSdkFile, 404);
    model().checkSDK();
    QTRY_VERIFY_WITH_TIMEOUT(model().claudeSDK() && !model().claudeSDK()->installed, 5000);

    m_popover->noticeAction(u"sdk"_s);
    QTRY_VERIFY_WITH_TIMEOUT(!model().fetchingSDK(), 120000);
    const QString opening = expected(u"note"_s, u"fetch failed"_s).first();
    QVERIFY2(model().noteText().startsWith(opening), qPrintable(model().noteText()));
    QVERIFY2(model().noteText().endsWith(u"Fetch it again in a moment."_s), qPrintable(model().noteText()));
    QVERIFY(Golden::containsRun(m_live->twin(), expected(u"twin"_s, u"sdk failed"_s)));
}

void TestPopoverLive::fixOpensTheTailscaleAdminConsole()
{
    QVERIFY(Golden::containsRun(m_live->twin(), expected(u"twin"_s, u"key 5"_s)));
    m_browser.opened.clear();
    m_popover->noticeAction(u"key"_s);
    QCOMPARE(m_browser.opened, QList<QUrl>{QUrl(TailscaleStatus::adminConsole)});
}

void TestPopoverLive::tryAgainAsksTheProviderAgain()
{
    QVERIFY(Golden::containsRun(m_live->twin(), expected(u"twin"_s, u"provider down"_s)));
    // A planted answer stands in for the check, so its use proves the call was made.
    m_live->service.qa("POST", u"/qa/faults"_s,
        QJsonObject{{"route", "POST /v1/providers/p1/check"}, {"status", 500},
            {"body", R"({"error":{"code":"x","message":"Nope."}})"}});
    m_popover->rowAction(u"s3"_s, int(RowAction::Act::TryAgain));
    QTRY_VERIFY_WITH_TIMEOUT(m_live->service.faultsSpent(), 5000);
    QTRY_COMPARE_WITH_TIMEOUT(model().noteText(), u"Couldn’t reach OpenRouter. Nope."_s, 5000);
}

void TestPopoverLive::theAccountButtonActsByItsKind_data()
{
    QTest::addColumn<QString>("kind");
    QTest::addColumn<QByteArray>("account");
    QTest::addColumn<QString>("opens");

    QTest::newRow("Open page opens the sign-in page the account names")
        << "open" << QByteArray(R"({"state":"logged_out","login":{"state":"waiting_code","where":"mac",
                         "url":"https://claude.ai/oauth/authorize?code=true&state=t1"}})")
        << "https://claude.ai/oauth/authorize?code=true&state=t1";
    QTest::newRow("Details opens the page about restricted accounts")
        << "details" << QByteArray(R"({"state":"on_hold"})") << "https://claude.ai/restricted";
    QTest::newRow("Sign in starts the sign-in, which then waits in the browser")
        << "sign in" << QByteArray(R"({"state":"logged_out"})") << QString();
}

void TestPopoverLive::theAccountButtonActsByItsKind()
{
    QFETCH(QString, kind);
    QFETCH(QByteArray, account);
    QFETCH(QString, opens);
    m_live->service.qa("POST", u"/qa/snapshot"_s, QJsonObject{{"account", QJsonDocument::fromJson(account).object()}});
    const QStringList card = expected(u"account"_s, kind);
    QTRY_COMPARE_WITH_TIMEOUT(
        m_popover->page().value(u"account"_s).toMap().value(u"title"_s).toString(), card.first(), 5000);
    QVERIFY2(Golden::containsRun(m_live->twin(), card), qPrintable(m_live->twin().join(u'\n')));

    m_browser.opened.clear();
    m_popover->accountAction();
    if (!opens.isEmpty()) {
        QCOMPARE(m_browser.opened, QList<QUrl>{QUrl(opens)});
        return;
    }
    QVERIFY(m_browser.opened.isEmpty());
    QTRY_VERIFY2_WITH_TIMEOUT(model().signingIn(), qPrintable(m_live->twin().join(u"\n"_s)), 20000);
    QTRY_VERIFY_WITH_TIMEOUT(Golden::containsRun(m_live->twin(), expected(u"account"_s, u"open"_s).mid(0, 2)), 5000);
}

void TestPopoverLive::theChecklistOpensInTheBrowserWithoutAToken()
{
    // That the page answers without the token is the service's own test.
    m_browser.opened.clear();
    m_popover->quickAction(u"checklist"_s);
    QCOMPARE(m_browser.opened, QList<QUrl>{QUrl(m_live->service.environment().localBase() + u"/checklist"_s)});
}

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
    // Two real runs: one at work in a long command, one waiting at an ask, both while paused.
    const QString project = live.service.supportFolder() + u"/projects/app"_s;
    QVERIFY(QDir().mkpath(project));
    const auto save = [&](const QString& name, const QJsonArray& steps) {
        const QJsonObject body{{"name", name}, {"trigger", QJsonObject{{"kind", "webhook"}}}, {"steps", steps},
            {"outputs", QJsonArray()}, {"budget", QJsonValue::Null}, {"confirmShell", true}};
        return live.service.qa("POST", u"/v1/automations"_s, body)[u"automation"_s][u"id"_s].toString();
    };
    const QJsonObject working{{"id", "st_sh"}, {"kind", "shell"}, {"if", QJsonValue::Null}, {"projectPath", project},
        {"command", "sleep 120"}, {"timeoutSec", 600}};
    const QJsonObject ask{{"id", "st_q"}, {"kind", "ask"}, {"if", QJsonValue::Null}, {"question", "Push the branch?"},
        {"answers", QJsonArray{"Push", "Skip"}}, {"default", "Skip"}, {"timeoutMin", 10}};
    const QString build = save(u"Nightly build"_s, {working});
    const QString tidy = save(u"Nightly tidy"_s, {ask, working});
    live.service.qa("POST", u"/v1/automations/paused"_s, QJsonObject{{"paused", true}});
    for (const QString& id : {build, tidy})
        live.service.qa("POST", u"/v1/automations/%1/run"_s.arg(id), QJsonObject());

    QVERIFY(live.startModel());
    AppModel& model = live.model();
    DismissedNotices dismissed;
    PopoverModel popover(model, dismissed, Clock::system());
    QTRY_COMPARE(line(popover), u"Automations paused"_s);

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
    QTRY_COMPARE(model.automations()->asks.size(), 1);
    const WFAskItem asked = model.automations()->asks.value(0);
    const QString notice = u"ask-"_s + asked.runId;
    QCOMPARE(noticeOf(popover, notice).value(u"choices"_s).toStringList(), (QStringList{u"Push"_s, u"Skip"_s}));
    popover.chooseNotice(notice, u"Push"_s);
    QTRY_COMPARE(lastRun(live, 1)[u"state"_s].toString(), u"running"_s);
    const QJsonObject answer = lastRun(live, 1)[u"steps"_s].toArray().at(0)[u"answer"_s].toObject();
    QCOMPARE(answer[u"text"_s].toString(), u"Push"_s);
    QCOMPARE(answer[u"by"_s].toString(), u"mac"_s);
    QTRY_VERIFY(noticeOf(popover, notice).isEmpty());
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

    // The service's answer about that session (not a 404) is what proves the call came for it: it never
    // saw the session run, so it knows no window to raise, and the note says so.
    popover.openTerminal(shown.value(u"sessionId"_s).toString());
    QTRY_VERIFY(live.model().noteText().contains(u"doesn’t know yet where this session runs"_s));
}

TIDEWATCH_E2E_MAIN_WITH(QGuiApplication, TestPopoverLive)
#include "TestPopoverLive.moc"

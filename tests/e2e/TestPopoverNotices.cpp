#include "Golden.h"
#include "LiveModel.h"
#include "RealPlaces.h"
#include "StaticSite.h"

#include "model/DismissedNotices.h"
#include "setup/ClaudeSDK.h"
#include "surface/PopoverModel.h"
#include "surface/words/RowAction.h"

#include <QCryptographicHash>
#include <QDesktopServices>
#include <QDir>
#include <QFile>
#include <QGuiApplication>
#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>
#include <QProcess>
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

} // namespace

/// The notices, the account card and the quick action against the real
/// service: the words the panel reads for each state put into a test copy,
/// and what each button does when it is pressed.
class TestPopoverNotices : public QObject
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

void TestPopoverNotices::initTestCase()
{
    QDesktopServices::setUrlHandler(u"https"_s, &m_browser, "open");
    QDesktopServices::setUrlHandler(u"http"_s, &m_browser, "open");
    m_live = std::make_unique<LiveModel>();
    QVERIFY(m_live->ok());
    installServiceFolder();

    const QString expiry = QDateTime::currentDateTimeUtc().addSecs(5 * 86400 + 1800).toString(Qt::ISODateWithMs);
    const QJsonObject local{{"claude", QJsonObject{{"path", "/usr/local/bin/claude"}, {"version", "2.1.0"}}},
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

void TestPopoverNotices::cleanupTestCase()
{
    m_popover.reset();
    m_live.reset();
    QDesktopServices::unsetUrlHandler(u"https"_s);
    QDesktopServices::unsetUrlHandler(u"http"_s);
}

void TestPopoverNotices::installServiceFolder()
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

void TestPopoverNotices::theLiveRenderReadsEachNotice()
{
    const QStringList lines = m_live->liveRender();
    const QString all = lines.join(u'\n');
    for (const QString& input : {u"sdk missing"_s, u"key 5"_s, u"pair"_s, u"provider down"_s})
        QVERIFY2(Golden::containsRun(lines, expected(u"twin"_s, input)), qPrintable(input + u" in:\n"_s + all));
    QVERIFY2(Golden::containsRun(lines, expected(u"account"_s, u"details"_s)), qPrintable(all));
    // Buttons that have nothing to open yet aren't drawn.
    for (const QString& absent : {u"Pair"_s, u"Pair another phone"_s, u"Settings"_s, u"Open"_s})
        QVERIFY2(!lines.contains(absent), qPrintable(absent));
    QVERIFY(lines.contains(u"Testing checklist"_s));
}

void TestPopoverNotices::fetchBringsTheSDKIntoTheCopysOwnFolder()
{
    QVERIFY(model().claudeSDK() && !model().claudeSDK()->installed);
    m_popover->noticeAction(u"sdk"_s);
    QVERIFY(model().fetchingSDK());
    m_popover->refresh();
    QVariantMap sdk;
    for (const QVariant& notice : m_popover->page().value(u"notices"_s).toList()) {
        if (notice.toMap().value(u"id"_s) == u"sdk"_s)
            sdk = notice.toMap();
    }
    QCOMPARE(sdk.value(u"action"_s).toString(), u"Fetching…"_s);
    QVERIFY(sdk.value(u"busy"_s).toBool());
    QTRY_VERIFY_WITH_TIMEOUT(!model().fetchingSDK(), 120000);
    QVERIFY2(model().noteText().isEmpty(), qPrintable(model().noteText()));
    QCOMPARE(ClaudeSDK::installedVersion(m_daemonFolder), std::optional<QString>(u"0.0.7"_s));
    QVERIFY(model().claudeSDK()->isCurrent());
    QVERIFY(m_site->requests().contains(kSdkFile));
    QVERIFY(!m_live->twin().contains(expected(u"twin"_s, u"sdk missing"_s).first()));
}

void TestPopoverNotices::aFailedFetchSaysWhyAndOffersItAgain()
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

void TestPopoverNotices::fixOpensTheTailscaleAdminConsole()
{
    QVERIFY(Golden::containsRun(m_live->twin(), expected(u"twin"_s, u"key 5"_s)));
    m_browser.opened.clear();
    m_popover->noticeAction(u"key"_s);
    QCOMPARE(m_browser.opened, QList<QUrl>{QUrl(TailscaleStatus::adminConsole)});
}

void TestPopoverNotices::tryAgainAsksTheProviderAgain()
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

void TestPopoverNotices::theAccountButtonActsByItsKind_data()
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

void TestPopoverNotices::theAccountButtonActsByItsKind()
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
    QTRY_VERIFY_WITH_TIMEOUT(model().signingIn(), 5000);
    QTRY_VERIFY_WITH_TIMEOUT(Golden::containsRun(m_live->twin(), expected(u"account"_s, u"open"_s).mid(0, 2)), 5000);
}

void TestPopoverNotices::theChecklistOpensInTheBrowserWithoutAToken()
{
    // That the page answers without the token is the service's own test.
    m_browser.opened.clear();
    m_popover->quickAction(u"checklist"_s);
    QCOMPARE(m_browser.opened, QList<QUrl>{QUrl(m_live->service.environment().localBase() + u"/checklist"_s)});
}

TIDEWATCH_E2E_MAIN_WITH(QGuiApplication, TestPopoverNotices)
#include "TestPopoverNotices.moc"

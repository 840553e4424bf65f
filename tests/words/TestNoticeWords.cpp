#include "model/DismissedNotices.h"
#include "surface/words/NoticeWords.h"

#include "Fixture.h"

#include <QTest>

using namespace Qt::StringLiterals;

namespace {

const QDateTime kNow = Fixture::now();
using Fixture::ids;

WFAskItem ask(const QString& runId)
{
    WFAskItem item;
    item.runId = runId;
    item.name = QStringLiteral("Nightly tidy");
    item.question = QStringLiteral("Push the branch?");
    item.answers = {QStringLiteral("Push"), QStringLiteral("Skip")};
    item.defaultAnswer = QStringLiteral("Skip");
    item.until = Fixture::at(90);
    return item;
}

} // namespace

class TestNoticeWords : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void order();
    void setupWords_data();
    void setupWords();
    void keyExpiry_data();
    void keyExpiry();
    void busyWords();
    void dismissalFollowsTheKey();
    void undoBringsTheCardBack();
    void serviceDownCards_data();
    void serviceDownCards();
};

Q_DECLARE_METATYPE(ServiceDownInputs)

void TestNoticeWords::order()
{
    NoticeInputs inputs;
    inputs.serviceUp = true;
    inputs.lastError = QStringLiteral("The background service answered 500.");
    inputs.asks = {ask(QStringLiteral("r1")), ask(QStringLiteral("r2"))};
    inputs.serviceUpdate = true;
    inputs.sdk = NoticeInputs::Sdk::Missing;
    inputs.setupGap = SetupStep::Phone;
    inputs.keyExpiry = Fixture::at(3 * 86400);
    QCOMPARE(
        ids(buildNotices(inputs, kNow)), (QStringList{"error", "ask-r1", "ask-r2", "update", "sdk", "setup", "key"}));

    // Voice is offered only when Setup has nothing left to say.
    inputs.setupGap.reset();
    QVERIFY(ids(buildNotices(inputs, kNow)).contains(QStringLiteral("voice")));
    inputs.voiceAsked = true;
    QVERIFY(!ids(buildNotices(inputs, kNow)).contains(QStringLiteral("voice")));

    // A failed read speaks only while the service is up.
    inputs.serviceUp = false;
    QVERIFY(!ids(buildNotices(inputs, kNow)).contains(QStringLiteral("error")));

    const QList<Notice> notices = buildNotices(inputs, kNow);
    const Notice asked = notices.at(ids(notices).indexOf(QStringLiteral("ask-r1")));
    QCOMPARE(asked.key, QStringLiteral("r1"));
    QCOMPARE(asked.choices, (QStringList{"Push", "Skip"}));
    QCOMPARE(noticeFigure(asked, kNow), std::optional<QString>(QStringLiteral("Skip in 90s")));
}

void TestNoticeWords::setupWords_data()
{
    QTest::addColumn<int>("step");
    QTest::addColumn<bool>("codexTooOld");
    QTest::addColumn<QString>("title");
    QTest::addColumn<QString>("line");
    QTest::addColumn<QString>("action");

    QTest::newRow("no agent") << int(SetupStep::Claude) << false << u"No agent on this Mac yet"_s
                              << u"Install Claude Code or Codex, so there’s an agent to work with."_s << u"Open"_s;
    QTest::newRow("a Codex too old is updated first")
        << int(SetupStep::Codex) << true << u"Setup isn’t finished"_s
        << u"Update Codex with codex update, then turn it on in Setup."_s << u"Open"_s;
    QTest::newRow("a Codex that is off is turned on")
        << int(SetupStep::Codex) << false << u"Setup isn’t finished"_s
        << u"Turn on Codex, so your phone can start Codex sessions."_s << u"Open"_s;
    QTest::newRow("pairing is the friendly one")
        << int(SetupStep::Phone) << false << u"Pair your phone to get started"_s
        << u"Scan a code with Tidewatch for Android."_s << u"Pair"_s;
}

void TestNoticeWords::setupWords()
{
    QFETCH(int, step);
    QFETCH(bool, codexTooOld);
    QFETCH(QString, line);
    QFETCH(QString, action);
    NoticeInputs inputs;
    inputs.setupGap = SetupStep(step);
    inputs.codexTooOld = codexTooOld;
    const QList<Notice> notices = buildNotices(inputs, kNow);
    QCOMPARE(notices.size(), 1);
    QTEST(notices.first().title, "title");
    QCOMPARE(notices.first().line, std::optional<QString>(line));
    QCOMPARE(notices.first().action, std::optional<QString>(action));
}

void TestNoticeWords::keyExpiry_data()
{
    QTest::addColumn<double>("daysLeft");
    QTest::addColumn<QString>("title");

    QTest::newRow("15 days off: no warning") << 15.0 << "";
    QTest::newRow("13 days off: the time left") << 13.0 << "Tailscale key expires in 13d 0h";
    QTest::newRow("past: expired") << -1.0 << "This Mac’s Tailscale key has expired";
}

void TestNoticeWords::keyExpiry()
{
    QFETCH(double, daysLeft);
    NoticeInputs inputs;
    inputs.keyExpiry = Fixture::at(daysLeft * 86400);
    const QList<Notice> notices = buildNotices(inputs, kNow);
    QTEST(notices.isEmpty() ? QString() : notices.first().title, "title");
    if (!notices.isEmpty()) {
        // A renewed key is a new occurrence: the key is the expiry's day.
        QCOMPARE(notices.first().key, QString::number(inputs.keyExpiry->msecsSinceEpoch / 86400000));
    }
}

void TestNoticeWords::busyWords()
{
    NoticeInputs inputs;
    inputs.sdk = NoticeInputs::Sdk::Missing;
    QCOMPARE(buildNotices(inputs, kNow).first().action, std::optional<QString>(QStringLiteral("Fetch")));
    QCOMPARE(buildNotices(inputs, kNow).first().line,
             std::optional<QString>(QStringLiteral(
                 "Sessions the service runs itself, the “/” list and Rewind need it (about 2 MB from npm).")));
    inputs.sdkFetchFailed = true;
    QCOMPARE(buildNotices(inputs, kNow).first().action, std::optional<QString>(QStringLiteral("Fetch again")));
    inputs.fetchingSDK = true;
    const Notice fetching = buildNotices(inputs, kNow).first();
    QVERIFY(fetching.busy);
    QCOMPARE(fetching.action, std::optional<QString>(QStringLiteral("Fetching…")));
    QCOMPARE(noticeHelp(fetching),
             std::optional<QString>(QStringLiteral("Fetches it from npm into the background service, which keeps "
                                                   "running.\n\nDrag to the right to dismiss.")));

    NoticeInputs failing;
    failing.serviceUp = true;
    failing.lastError = QStringLiteral("x");
    failing.restarting = true;
    QCOMPARE(buildNotices(failing, kNow).first().action, std::optional<QString>(QStringLiteral("Restarting…")));
    QVERIFY(!noticeHelp(buildNotices(failing, kNow).first()));
}

void TestNoticeWords::dismissalFollowsTheKey()
{
    DismissedNotices dismissed;
    NoticeInputs inputs;
    inputs.setupGap = SetupStep::Connect;
    const Notice connect = buildNotices(inputs, kNow).first();
    dismissed.dismiss(connect);
    QVERIFY(dismissed.visibleOf(buildNotices(inputs, kNow)).isEmpty());
    // The next step is a new occurrence of the same notice.
    inputs.setupGap = SetupStep::Tailscale;
    QCOMPARE(ids(dismissed.visibleOf(buildNotices(inputs, kNow))), QStringList{QStringLiteral("setup")});
}

void TestNoticeWords::undoBringsTheCardBack()
{
    DismissedNotices dismissed;
    NoticeInputs inputs;
    inputs.serviceUpdate = true;
    inputs.setupGap = SetupStep::Phone;
    const QList<Notice> notices = buildNotices(inputs, kNow);
    dismissed.dismiss(notices.first());
    QCOMPARE(dismissed.undoLine(), std::optional<QString>(QStringLiteral("Dismissed: A newer service is ready")));
    QCOMPARE(ids(dismissed.visibleOf(notices)), QStringList{QStringLiteral("setup")});
    dismissed.undoDismiss();
    QCOMPARE(ids(dismissed.visibleOf(notices)), (QStringList{"update", "setup"}));
    QVERIFY(!dismissed.undo());

    // The offer ends by itself; the dismissal stays.
    dismissed.dismiss(notices.first());
    QTRY_VERIFY_WITH_TIMEOUT(!dismissed.undo(), DismissedNotices::undoMilliseconds + 2000);
    QCOMPARE(ids(dismissed.visibleOf(notices)), QStringList{QStringLiteral("setup")});
}

void TestNoticeWords::serviceDownCards_data()
{
    using Step = ServiceInstaller::Progress::Step;
    using Progress = ServiceInstaller::Progress;
    QTest::addColumn<ServiceDownInputs>("inputs");
    QTest::addColumn<QString>("title");
    QTest::addColumn<bool>("repairs");
    QTest::addColumn<QString>("action");
    QTest::addColumn<QString>("progress");

    const QString gone = QStringLiteral("/opt/node/bin/node");
    const QString goneTitle = QStringLiteral("The Node.js the service used is gone.");
    QTest::newRow("a gone Node.js outranks everything, also a missing job")
        << ServiceDownInputs{gone, false, std::nullopt, true} << goneTitle << true << "Repair" << QString();
    QTest::newRow("a repair that hasn't said how far it is only says it runs")
        << ServiceDownInputs{gone, true, Progress{Step::GettingNode, std::nullopt}, false} << goneTitle << true
        << "Repairing…" << QString();
    QTest::newRow("the download says how far, rounded and kept within 100")
        << ServiceDownInputs{gone, true, Progress{Step::GettingNode, 1.004}, false} << goneTitle << true
        << "Repairing…" << "Getting Node.js… 100%";
    QTest::newRow("later steps speak for themselves")
        << ServiceDownInputs{gone, true, Progress{Step::FetchingSDK, std::nullopt}, false} << goneTitle << true
        << "Repairing…" << "Fetching Claude Code’s SDK…";
    QTest::newRow("no job: setting up installs it")
        << ServiceDownInputs{std::nullopt, false, std::nullopt, false}
        << "Tidewatch isn't set up on this Mac yet." << true << "Set up" << QString();
    QTest::newRow("no job, installing")
        << ServiceDownInputs{std::nullopt, false, Progress{Step::Waiting, std::nullopt}, false}
        << "Tidewatch isn't set up on this Mac yet." << true << "Setting up…" << "Waiting for it to answer…";
    QTest::newRow("installed and silent: restart")
        << ServiceDownInputs{std::nullopt, true, std::nullopt, false} << "The background service isn't answering."
        << false << "Restart" << QString();
    QTest::newRow("restarting")
        << ServiceDownInputs{std::nullopt, true, std::nullopt, true} << "The background service isn't answering."
        << false << "Restarting…" << QString();
}

void TestNoticeWords::serviceDownCards()
{
    QFETCH(ServiceDownInputs, inputs);
    QFETCH(QString, title);
    QFETCH(bool, repairs);
    QFETCH(QString, action);
    QFETCH(QString, progress);
    const ServiceDownCard card = serviceDownCard(inputs);
    QCOMPARE(card.title, title);
    QCOMPARE(card.act == ServiceDownCard::Act::Repair, repairs);
    QCOMPARE(card.action, action);
    QCOMPARE(card.busy, action.endsWith(QStringLiteral("…")));
    QCOMPARE(card.progress.value_or(QString()), progress);
    if (inputs.serviceNodeGone) {
        QCOMPARE(card.line, QStringLiteral("It ran on /opt/node/bin/node. Repair gets Node.js and starts the service "
                                           "again; shared terminals keep running."));
    }
}

QTEST_GUILESS_MAIN(TestNoticeWords)
#include "TestNoticeWords.moc"

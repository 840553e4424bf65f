#include "model/AppModel.h"

#include "Fixture.h"
#include "ManualClock.h"
#include "Offline.h"

#include <QElapsedTimer>
#include <QSignalSpy>
#include <QTest>

using namespace Qt::StringLiterals;

class TestAppModel : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void feedMessagesPatchTheSnapshot();
    void echoesAndDevicesRedrawNothing();
    void liveEventsSetFeedLiveOnlyWhenItChanges();
    void messagesForOthersAreHandedOn();
    void aSampleIgnoresTheFeedAndActsOnNothing();
    void aFailedActionSpeaksThroughTheNote();
    void aSecondNoteShowsForItsOwnSixSeconds();
    void theDialogSlotHoldsOneQuestion_data();
    void theDialogSlotHoldsOneQuestion();

private:
    ScratchFolder m_scratch;
    ManualClock m_clock;
};

void TestAppModel::feedMessagesPatchTheSnapshot()
{
    AppModel model(nowhere(m_scratch), m_clock);
    QSignalSpy changed(&model, &AppModel::snapshotChanged);

    // Without a snapshot there is nothing to patch; the whole one comes first.
    model.take(feedMessage(R"({"t":"session","session":{"id":"s0"}})"));
    QVERIFY(!model.snapshot());
    model.take(feedMessage(R"({"t":"snapshot","snapshot":{"sessions":[{"id":"s1"},{"id":"s2"}],"approvals":[]}})"));
    model.take(feedMessage(R"({"t":"session","session":{"id":"s3","state":"working"}})"));
    model.take(feedMessage(R"({"t":"session","session":{"id":"s1","state":"idle"}})"));
    model.take(feedMessage(R"({"t":"approval","approval":{"id":"ap1","sessionId":"s3"}})"));
    QCOMPARE(Fixture::ids(model.snapshot()->sessions.items), (QStringList{"s1", "s2", "s3"}));
    QCOMPARE(model.snapshot()->sessions.items.first().state, std::optional<QString>("idle"));
    QCOMPARE(model.snapshot()->approvals.items.size(), 1);
    QCOMPARE(changed.count(), 4);
    // Every message counts, including the one that had nothing to patch.
    QCOMPARE(model.feedGeneration(), 5);
}

void TestAppModel::echoesAndDevicesRedrawNothing()
{
    AppModel model(nowhere(m_scratch), m_clock);
    const QByteArray whole = R"({"t":"snapshot","snapshot":{"sessions":[{"id":"s1","state":"idle"}]}})";
    model.take(feedMessage(whole));
    const qint64 generation = model.feedGeneration();
    QSignalSpy changed(&model, &AppModel::snapshotChanged);
    model.take(feedMessage(R"({"t":"devices"})"));
    // A devices message voids no snapshot read: it carries nothing a read could contradict.
    QCOMPARE(model.feedGeneration(), generation);
    model.take(feedMessage(whole));
    model.take(feedMessage(R"({"t":"session","session":{"id":"s1","state":"idle"}})"));
    model.take(feedMessage(R"({"t":"battery"})"));
    QCOMPARE(changed.count(), 0);
}

void TestAppModel::liveEventsSetFeedLiveOnlyWhenItChanges()
{
    AppModel model(nowhere(m_scratch), m_clock);
    QSignalSpy changed(&model, &AppModel::feedLiveChanged);
    model.take(feedLive(true));
    model.take(feedLive(true));
    QVERIFY(model.feedLive());
    QVERIFY(model.serviceUp());
    model.take(feedLive(false));
    QVERIFY(!model.feedLive());
    QVERIFY(!model.serviceUp());
    QCOMPARE(changed.count(), 2);
}

void TestAppModel::messagesForOthersAreHandedOn()
{
    AppModel model(nowhere(m_scratch), m_clock);
    QSignalSpy guides(&model, &AppModel::guideReceived);
    QSignalSpy shows(&model, &AppModel::guideShowRequested);
    QSignalSpy stts(&model, &AppModel::sttReceived);
    model.take(feedMessage(R"({"t":"guide","guide":{"step":"voice","seen":true,"done":false}})"));
    model.take(feedMessage(R"({"t":"guide","guide":"soon"})"));
    model.take(
        feedMessage(R"({"t":"guide.show","guide":{"step":"voice","seen":true,"done":false},"reason":"paired"})"));
    model.take(feedMessage(R"({"t":"stt","stt":{"provider":"x","ready":true}})"));
    QCOMPARE(guides.count(), 1);
    QCOMPARE(guides.first().first().value<GuideState>().step, QStringLiteral("voice"));
    QCOMPARE(shows.count(), 1);
    QCOMPARE(shows.first().at(1).toString(), QStringLiteral("paired"));
    QCOMPARE(stts.count(), 1);
}

void TestAppModel::aSampleIgnoresTheFeedAndActsOnNothing()
{
    AppModel model(nowhere(m_scratch), m_clock, {}, true);
    QSignalSpy notes(&model, &AppModel::noteChanged);
    QSignalSpy reads(&model, &AppModel::readFinished);
    model.start();
    model.take(feedLive(true));
    model.take(feedMessage(R"({"t":"snapshot","snapshot":{"sessions":[{"id":"s1"}]}})"));
    model.continueSession(QStringLiteral("s1"));
    model.forgetDevice(QStringLiteral("d1"), QStringLiteral("Pixel"));
    model.signIn();
    model.read(true);
    QTest::qWait(300);
    QVERIFY(!model.feedLive());
    QVERIFY(!model.snapshot());
    QVERIFY(!model.firstPollDone());
    QCOMPARE(reads.count(), 0);
    QCOMPARE(notes.count(), 0);
}

void TestAppModel::aFailedActionSpeaksThroughTheNote()
{
    AppModel model(nowhere(m_scratch), m_clock);
    model.continueSession(QStringLiteral("s1"));
    QTRY_COMPARE_WITH_TIMEOUT(
        model.noteText(), QStringLiteral("Couldn’t continue it. The background service isn’t running."), 5000);
}

void TestAppModel::aSecondNoteShowsForItsOwnSixSeconds()
{
    AppModel model(nowhere(m_scratch), m_clock);
    QElapsedTimer elapsed;
    elapsed.start();
    model.showNote(QStringLiteral("first"));
    QTest::qWait(3000);
    model.showNote(QStringLiteral("second"));
    const qint64 secondAt = elapsed.elapsed();
    // The first note's clearing comes at 6 s and must not take the second with it.
    QTest::qWait(int(secondAt + 4500 - elapsed.elapsed()));
    QCOMPARE(model.noteText(), QStringLiteral("second"));
    QTRY_VERIFY_WITH_TIMEOUT(!model.note(), 4000);
    QVERIFY2(elapsed.elapsed() - secondAt >= 5900, "the second note went before its 6 seconds");
}

void TestAppModel::theDialogSlotHoldsOneQuestion_data()
{
    QTest::addColumn<QString>("steps");
    QTest::addColumn<bool>("open");
    QTest::addColumn<bool>("working");
    QTest::addColumn<QString>("note");
    QTest::addColumn<QString>("calls");

    // Steps: c confirm, s success, f failure, x cancel, n a new dialog, 2 the secondary button.
    QTest::newRow("confirm works until the work ends") << u"c"_s << true << true << u""_s << u"confirm(true)"_s;
    QTest::newRow("success closes it without a word") << u"cs"_s << false << false << u""_s << u"confirm(true)"_s;
    QTest::newRow("a failure closes it and tells the note")
        << u"cf"_s << false << false << u"It failed."_s << u"confirm(true)"_s;
    QTest::newRow("a second confirm while working runs nothing")
        << u"cc"_s << true << true << u""_s << u"confirm(true)"_s;
    QTest::newRow("dismissal runs cancel") << u"x"_s << false << false << u""_s << u"cancel"_s;
    QTest::newRow("a new dialog is not closed by the old one's end")
        << u"cns"_s << true << false << u""_s << u"confirm(true)"_s;
    QTest::newRow("the secondary button runs its own action") << u"2"_s << false << false << u""_s << u"secondary"_s;
}

void TestAppModel::theDialogSlotHoldsOneQuestion()
{
    QFETCH(QString, steps);
    AppModel model(nowhere(m_scratch), m_clock);
    QStringList calls;
    GlassDialog::Finish pending;
    GlassDialog dialog;
    dialog.title = QStringLiteral("Forget Pixel");
    dialog.primary = QStringLiteral("Forget");
    dialog.confirm = [&](bool option, GlassDialog::Finish finish) {
        calls << QStringLiteral("confirm(%1)").arg(option ? "true" : "false");
        pending = std::move(finish);
    };
    dialog.cancel = [&] { calls << QStringLiteral("cancel"); };
    dialog.secondaryAction = [&] { calls << QStringLiteral("secondary"); };
    model.showDialog(dialog);

    for (const QChar step : steps) {
        // clang-format off
        switch (step.toLatin1()) {
        case 'c': model.confirmDialog(true); break;
        case 's': pending(std::nullopt); break;
        case 'f': pending(QStringLiteral("It failed.")); break;
        case 'x': model.cancelDialog(); break;
        case 'n': model.showDialog(GlassDialog{}); break;
        case '2': model.dialogSecondary(); break;
        }
        // clang-format on
    }
    QTEST(model.dialog().has_value(), "open");
    QTEST(model.dialogWorking(), "working");
    QTEST(model.noteText(), "note");
    QTEST(calls.join(QLatin1Char(' ')), "calls");
}

QTEST_GUILESS_MAIN(TestAppModel)
#include "TestAppModel.moc"

#include "model/AppModel.h"

#include "FreePorts.h"
#include "ManualClock.h"
#include "ScratchFolder.h"

#include <QElapsedTimer>
#include <QSignalSpy>
#include <QTest>

namespace {

/// A test copy whose service isn't there: nothing answers on its ports.
Environment nowhere(const ScratchFolder& scratch)
{
    const QList<int> ports = freePorts(2);
    return Environment({{QStringLiteral("TIDEWATCH_SUPPORT"), scratch.file(QStringLiteral("support"))},
                           {QStringLiteral("TIDEWATCH_API_PORT"), QString::number(ports.value(0))},
                           {QStringLiteral("TIDEWATCH_LOCAL_PORT"), QString::number(ports.value(1))}},
        scratch.path());
}

LiveFeed::Event message(const QByteArray& frame)
{
    return {LiveFeed::Event::Kind::Message, false, Feed::readEnvelope(frame)};
}

LiveFeed::Event live(bool up)
{
    return {LiveFeed::Event::Kind::Live, up, std::nullopt};
}

QStringList sessionIds(const AppModel& model)
{
    QStringList ids;
    if (model.snapshot()) {
        for (const Session& session : model.snapshot()->sessions.items)
            ids << session.id;
    }
    return ids;
}

} // namespace

class TestAppModel : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void feedMessagesPatchTheSnapshot();
    void anEchoRedrawsNothing();
    void devicesAskForAReadAndCountNoGeneration();
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
    model.take(message(R"({"t":"session","session":{"id":"s0"}})"));
    QVERIFY(!model.snapshot());
    model.take(message(R"({"t":"snapshot","snapshot":{"sessions":[{"id":"s1"},{"id":"s2"}],"approvals":[]}})"));
    model.take(message(R"({"t":"session","session":{"id":"s3","state":"working"}})"));
    model.take(message(R"({"t":"session","session":{"id":"s1","state":"idle"}})"));
    model.take(message(R"({"t":"approval","approval":{"id":"ap1","sessionId":"s3"}})"));
    QCOMPARE(sessionIds(model), (QStringList{"s1", "s2", "s3"}));
    QCOMPARE(model.snapshot()->sessions.items.first().state, std::optional<QString>("idle"));
    QCOMPARE(model.snapshot()->approvals.items.size(), 1);
    QCOMPARE(changed.count(), 4);
    // Every message counts, including the one that had nothing to patch.
    QCOMPARE(model.feedGeneration(), 5);
}

void TestAppModel::anEchoRedrawsNothing()
{
    AppModel model(nowhere(m_scratch), m_clock);
    const QByteArray whole = R"({"t":"snapshot","snapshot":{"sessions":[{"id":"s1","state":"idle"}]}})";
    model.take(message(whole));
    QSignalSpy changed(&model, &AppModel::snapshotChanged);
    model.take(message(whole));
    model.take(message(R"({"t":"session","session":{"id":"s1","state":"idle"}})"));
    model.take(message(R"({"t":"battery"})"));
    QCOMPARE(changed.count(), 0);
}

void TestAppModel::devicesAskForAReadAndCountNoGeneration()
{
    AppModel model(nowhere(m_scratch), m_clock);
    model.take(message(R"({"t":"snapshot","snapshot":{"sessions":[]}})"));
    const qint64 generation = model.feedGeneration();
    QSignalSpy changed(&model, &AppModel::snapshotChanged);
    model.take(message(R"({"t":"devices"})"));
    // A devices message voids no snapshot read: it carries nothing a read could contradict.
    QCOMPARE(model.feedGeneration(), generation);
    QCOMPARE(changed.count(), 0);
}

void TestAppModel::liveEventsSetFeedLiveOnlyWhenItChanges()
{
    AppModel model(nowhere(m_scratch), m_clock);
    QSignalSpy changed(&model, &AppModel::feedLiveChanged);
    model.take(live(true));
    model.take(live(true));
    QVERIFY(model.feedLive());
    QVERIFY(model.serviceUp());
    model.take(live(false));
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
    model.take(message(R"({"t":"guide","guide":{"step":"voice","seen":true,"done":false}})"));
    model.take(message(R"({"t":"guide","guide":"soon"})"));
    model.take(message(R"({"t":"guide.show","guide":{"step":"voice","seen":true,"done":false},"reason":"paired"})"));
    model.take(message(R"({"t":"stt","stt":{"provider":"x","ready":true}})"));
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
    model.take(live(true));
    model.take(message(R"({"t":"snapshot","snapshot":{"sessions":[{"id":"s1"}]}})"));
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
        model.noteText(), QStringLiteral("Couldn’t continue it. The background service isn't running."), 5000);
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
    QTest::newRow("confirm works until the work ends") << "c" << true << true << "" << "confirm(true)";
    QTest::newRow("success closes it without a word") << "cs" << false << false << "" << "confirm(true)";
    QTest::newRow("a failure closes it and tells the note") << "cf" << false << false << "It failed." << "confirm(true)";
    QTest::newRow("a second confirm while working runs nothing") << "cc" << true << true << "" << "confirm(true)";
    QTest::newRow("dismissal runs cancel") << "x" << false << false << "" << "cancel";
    QTest::newRow("a new dialog is not closed by the old one's end") << "cns" << true << false << "" << "confirm(true)";
    QTest::newRow("the secondary button runs its own action") << "2" << false << false << "" << "secondary";
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
        switch (step.toLatin1()) {
        case 'c': model.confirmDialog(true); break;
        case 's': pending(std::nullopt); break;
        case 'f': pending(QStringLiteral("It failed.")); break;
        case 'x': model.cancelDialog(); break;
        case 'n': model.showDialog(GlassDialog{}); break;
        case '2': model.dialogSecondary(); break;
        }
    }
    QTEST(model.dialog().has_value(), "open");
    QTEST(model.dialogWorking(), "working");
    QTEST(model.noteText(), "note");
    QTEST(calls.join(QLatin1Char(' ')), "calls");
}

QTEST_GUILESS_MAIN(TestAppModel)
#include "TestAppModel.moc"

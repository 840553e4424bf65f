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
    void theFeedPatchesAndCounts_data();
    void theFeedPatchesAndCounts();
    void messagesForOthersAreHandedOn();
    void aSampleIgnoresTheFeedAndActsOnNothing();
    void aSecondNoteShowsForItsOwnSixSeconds();
    void theDialogSlotHoldsOneQuestion_data();
    void theDialogSlotHoldsOneQuestion();

private:
    ScratchFolder m_scratch;
    ManualClock m_clock;
};

void TestAppModel::theFeedPatchesAndCounts_data()
{
    QTest::addColumn<QStringList>("frames");
    QTest::addColumn<QString>("sessions");
    QTest::addColumn<int>("snapshotChanges");
    QTest::addColumn<int>("feedLiveChanges");
    QTest::addColumn<qint64>("generation");

    // A frame is a feed message, or "up" and "down" for the socket's life.
    const QString whole = uR"({"t":"snapshot","snapshot":{"sessions":[{"id":"s1","state":"idle"}]}})"_s;
    QTest::newRow("messages patch the snapshot; the one before it has nothing to patch but counts")
        << QStringList{uR"({"t":"session","session":{"id":"s0"}})"_s,
               uR"({"t":"snapshot","snapshot":{"sessions":[{"id":"s1"},{"id":"s2"}],"approvals":[]}})"_s,
               uR"({"t":"session","session":{"id":"s3","state":"working"}})"_s,
               uR"({"t":"session","session":{"id":"s1","state":"idle"}})"_s,
               uR"({"t":"approval","approval":{"id":"ap1","sessionId":"s3"}})"_s}
        << u"s1:idle s2 s3:working"_s << 4 << 0 << qint64(5);
    QTest::newRow("echoes redraw nothing; devices and a frame that carries nothing void no read") << QStringList{whole,
        uR"({"t":"devices"})"_s, whole, uR"({"t":"session","session":{"id":"s1","state":"idle"}})"_s,
        uR"({"t":"battery"})"_s} << u"s1:idle"_s << 1 << 0 << qint64(3);
    QTest::newRow("the socket's life is told only when it changes")
        << QStringList{u"up"_s, u"up"_s, u"down"_s} << QString() << 0 << 2 << qint64(0);
}

void TestAppModel::theFeedPatchesAndCounts()
{
    QFETCH(QStringList, frames);
    AppModel model(nowhere(m_scratch), m_clock);
    QSignalSpy snapshotChanges(&model, &AppModel::snapshotChanged);
    QSignalSpy feedLiveChanges(&model, &AppModel::feedLiveChanged);
    for (const QString& frame : frames)
        model.take(frame == u"up"_s  ? feedLive(true)
                : frame == u"down"_s ? feedLive(false)
                                     : feedMessage(frame.toUtf8()));
    QStringList sessions;
    for (const Session& session : model.snapshot().value_or(Snapshot{}).sessions.items)
        sessions << session.id + (session.state ? u":"_s + *session.state : QString());
    QTEST(sessions.join(u' '), "sessions");
    QTEST(int(snapshotChanges.count()), "snapshotChanges");
    QTEST(int(feedLiveChanges.count()), "feedLiveChanges");
    QTEST(model.feedGeneration(), "generation");
    QCOMPARE(model.serviceUp(), model.feedLive());
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

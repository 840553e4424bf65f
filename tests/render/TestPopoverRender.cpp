#include "surface/PopoverRender.h"

#include "ScratchFolder.h"
#include "model/AppModel.h"

#include <QTest>

namespace {

/// The lines the twin must hold, in this order, with anything between them.
QString missingInOrder(const QStringList& twin, const QStringList& wanted)
{
    qsizetype at = 0;
    for (const QString& line : wanted) {
        const qsizetype found = twin.indexOf(line, at);
        if (found < 0)
            return line;
        at = found + 1;
    }
    return {};
}

} // namespace

/// Every sample state drawn headless, read back through its text twin.
class TestPopoverRender : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void samplesReadInOrder_data();
    void samplesReadInOrder();
    void everySampleDraws();
};

void TestPopoverRender::samplesReadInOrder_data()
{
    QTest::addColumn<QString>("sample");
    QTest::addColumn<QStringList>("lines");
    QTest::addColumn<QStringList>("absent");

    QTest::newRow("checking says only that") << "checking" << QStringList{"Checking the background service…"}
                                             << QStringList{"SESSIONS", "Testing checklist"};
    QTest::newRow("a service that is down is the whole page")
        << "service-down"
        << QStringList{"The background service isn’t answering.",
               "Your phone can’t reach your sessions until it’s back. Restarting usually fixes it; shared terminals "
               "keep running."}
        << QStringList{"SESSIONS"};
    QTest::newRow("not set up") << "not-set-up" << QStringList{"Tidewatch isn’t set up on this computer yet."}
                                << QStringList{"SESSIONS"};
    QTest::newRow("the approval stands first, its answers in order")
        << "working-with-approval"
        << QStringList{"1 WAITING", "Bash", "$ npm test -- --runInBand upload", "Allow", "Always", "Deny", "SESSIONS",
               "1 needs you", "2 working", "Fix flaky upload retry test", "Migrate settings to the new store"}
        << QStringList{"all quiet"};
    QTest::newRow("a question is answered where it was asked")
        << "ask"
        << QStringList{"Export one file per month, or one for the whole year?", "under 1m left", "Open terminal"}
        << QStringList{"Allow"};
    QTest::newRow("an answer folds in place")
        << "folded-answer" << QStringList{"Allowed", "Ship the hotfix"} << QStringList{"Allow", "1 WAITING"};
    QTest::newRow("a button with nothing to open yet isn't drawn")
        << "idle" << QStringList{"Pair your phone to get started", "Testing checklist", "Quit"}
        << QStringList{"Pair", "Pair another phone", "Settings"};
    QTest::newRow("a quiet page") << "idle" << QStringList{"SESSIONS", "all quiet", "Tidy the release notes", "Done"}
                                  << QStringList{"1 WAITING"};
    QTest::newRow("the session limit, and the week's pace")
        << "limits-with-pace"
        << QStringList{"session limit until 8:56 AM", "5-hour window: limit reached, resets in 50 minutes."}
        << QStringList{};
    QTest::newRow("Codex beside Claude Code: both sets of meters")
        << "codex-beside"
        << QStringList{"Port the parser to Rust", "Claude 5-hour window 22% used, resets in 3 hours 20 minutes.",
               "Codex 5-hour window 48% used, resets in 2 hours 13 minutes."}
        << QStringList{};
    QTest::newRow("Backpack with its battery level")
        << "backpack"
        << QStringList{"Plug it in or its sessions stop.", "52m left at this rate.", "STAY AWAKE", "While working",
               "Backpack", "Off", "Let it sleep at 20 percent battery"}
        << QStringList{"Keep working with the lid closed."};
}

void TestPopoverRender::samplesReadInOrder()
{
    QFETCH(QString, sample);
    QFETCH(QStringList, lines);
    QFETCH(QStringList, absent);
    ScratchFolder scratch;
    const Environment environment(
        {{QStringLiteral("TIDEWATCH_SUPPORT"), scratch.file(QStringLiteral("support"))}}, scratch.path());
    // A fixed moment on a whole minute, so the limit's time reads the same in every run.
    const QDateTime now = QDateTime(QDate(2025, 10, 9), QTime(8, 6, 0), Qt::LocalTime);
    struct Fixed : Clock {
        QDateTime at;
        QDateTime now() const override { return at; }
    } clock;
    clock.at = now;
    AppModel model(environment, clock, {}, true);
    QVERIFY(PopoverRender::showSample(model, sample, now));
    QString error;
    const std::optional<PopoverRender::Rendered> rendered = PopoverRender::render(model, clock, &error);
    QVERIFY2(rendered, qPrintable(error));
    const QString missing = missingInOrder(rendered->twin, lines);
    QVERIFY2(missing.isEmpty(),
        qPrintable(QStringLiteral("“%1” missing or out of order in:\n").arg(missing)
            + rendered->twin.join(QLatin1Char('\n'))));
    for (const QString& line : absent)
        QVERIFY2(!rendered->twin.contains(line), qPrintable(line));
}

void TestPopoverRender::everySampleDraws()
{
    // Drawn, not blank: the ground's colour fills the middle of every sample.
    ScratchFolder scratch;
    const Environment environment(
        {{QStringLiteral("TIDEWATCH_SUPPORT"), scratch.file(QStringLiteral("support"))}}, scratch.path());
    for (const QString& sample : PopoverRender::sampleNames()) {
        AppModel model(environment, Clock::system(), {}, true);
        QVERIFY(PopoverRender::showSample(model, sample, Clock::system().now()));
        QString error;
        const std::optional<PopoverRender::Rendered> rendered = PopoverRender::render(model, Clock::system(), &error);
        QVERIFY2(rendered, qPrintable(sample + QStringLiteral(": ") + error));
        QCOMPARE(rendered->image.width(), 360);
        QVERIFY2(rendered->image.height() >= 60, qPrintable(sample));
        QCOMPARE(rendered->image.pixelColor(3, rendered->image.height() / 2).alpha() > 0, true);
    }
}

QTEST_MAIN(TestPopoverRender)
#include "TestPopoverRender.moc"

#include "surface/PopoverRender.h"

#include "Golden.h"
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
    Golden::addRows({QStringLiteral("popover-samples.txt")});
}

void TestPopoverRender::samplesReadInOrder()
{
    QFETCH(QString, input);
    QFETCH(QString, expected);
    const QString& sample = input;
    const QStringList lines = expected.section(QStringLiteral(" | not: "), 0, 0).split(QStringLiteral(" / "));
    const QStringList absent
        = expected.section(QStringLiteral(" | not: "), 1, 1).split(QStringLiteral(" / "), Qt::SkipEmptyParts);
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
    const std::optional<PopoverRender::Rendered> rendered
        = PopoverRender::render(model, clock, &error, PopoverRender::samplePage(sample));
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
        const std::optional<PopoverRender::Rendered> rendered
            = PopoverRender::render(model, Clock::system(), &error, PopoverRender::samplePage(sample));
        QVERIFY2(rendered, qPrintable(sample + QStringLiteral(": ") + error));
        QCOMPARE(rendered->image.width(), 360);
        QVERIFY2(rendered->image.height() >= 60, qPrintable(sample));
        QCOMPARE(rendered->image.pixelColor(3, rendered->image.height() / 2).alpha() > 0, true);
    }
}

QTEST_MAIN(TestPopoverRender)
#include "TestPopoverRender.moc"

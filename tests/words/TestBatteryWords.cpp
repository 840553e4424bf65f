#include "surface/words/BatteryWords.h"

#include <QTest>

using namespace Qt::StringLiterals;

class TestBatteryWords : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void line_data();
    void line();
    void theNotificationRoundsThePercent();
};

void TestBatteryWords::line_data()
{
    QTest::addColumn<double>("percent");
    QTest::addColumn<int>("charging");
    QTest::addColumn<int>("onCharger");
    QTest::addColumn<double>("minutes");
    QTest::addColumn<QString>("text");
    QTest::addColumn<QString>("time");
    QTest::addColumn<bool>("critical");

    // -1 stands for a field the system didn't give.
    QTest::newRow("well charged on battery: nothing to say") << 64.0 << 0 << 0 << 212.0 << u""_s << u""_s << false;
    QTest::newRow("charging, however low: nothing to say") << 5.0 << 1 << 1 << -1.0 << u""_s << u""_s << false;
    QTest::newRow("20% on battery is low, with the time left")
        << 20.0 << 0 << 0 << 72.0 << u"Plug it in or its sessions stop."_s << u"1h 12m left at this rate."_s << false;
    QTest::newRow("21% is not") << 21.0 << 0 << 0 << 72.0 << u""_s << u""_s << false;
    QTest::newRow("10% is the empty glyph")
        << 10.0 << 0 << 0 << -1.0 << u"Plug it in or its sessions stop."_s << u""_s << true;
    QTest::newRow("low on a charger that can't keep up")
        << 15.0 << 0 << 1 << 40.0 << u"Use a stronger charger or its sessions stop."_s << u"40m left at this rate."_s
        << false;
    QTest::newRow("plugged in, full enough, not charging")
        << 80.0 << 0 << 1 << 500.0 << u"It's plugged in but not charging."_s << u""_s << false;
    QTest::newRow("unknown charging counts as not charging")
        << 12.0 << -1 << -1 << -1.0 << u"Plug it in or its sessions stop."_s << u""_s << false;
}

void TestBatteryWords::line()
{
    QFETCH(double, percent);
    QFETCH(int, charging);
    QFETCH(int, onCharger);
    QFETCH(double, minutes);
    QFETCH(QString, text);
    Battery battery;
    battery.percent = percent;
    if (charging >= 0)
        battery.charging = charging == 1;
    if (onCharger >= 0)
        battery.onAC = onCharger == 1;
    if (minutes >= 0)
        battery.minutesLeft = minutes;
    const std::optional<BatteryLine> said = BatteryWords::line(battery);
    QCOMPARE(said.has_value(), !text.isEmpty());
    if (!said)
        return;
    QCOMPARE(said->text, text);
    QTEST(said->time, "time");
    QTEST(said->critical, "critical");
    QCOMPARE(said->help, QStringLiteral("Your sessions run on this Mac, so they stop if it sleeps or shuts down."));
}

void TestBatteryWords::theNotificationRoundsThePercent()
{
    Battery battery;
    battery.percent = 17.6;
    QCOMPARE(BatteryWords::notification(battery), QStringLiteral("Your Mac is at 18%. Plug it in or its sessions stop."));
}

QTEST_GUILESS_MAIN(TestBatteryWords)
#include "TestBatteryWords.moc"

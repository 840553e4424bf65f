#include "awake/AwakeWords.h"
#include "link/Awake.h"

#include "Fixture.h"

#include <QJsonDocument>
#include <QTest>
#include <QTimeZone>

#include <limits>

using namespace Qt::StringLiterals;

namespace {

using Fixture::now;

constexpr auto awake = &Fixture::record<Awake>;

std::optional<Battery> battery(double percent)
{
    if (percent < 0)
        return std::nullopt;
    Battery b;
    b.percent = percent;
    return b;
}

} // namespace

class TestAwakeWords : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void duration_data();
    void duration();
    void extendLabel_data();
    void extendLabel();
    void phrase_data();
    void phrase();
    void sentence_data();
    void sentence();
    void minBattery_data();
    void minBattery();
    void backpackCountsAsSetUp_data();
    void backpackCountsAsSetUp();
    void theOfferNamesTheBatteryLevel();
};

void TestAwakeWords::duration_data()
{
    QTest::addColumn<double>("seconds");
    QTest::addColumn<QString>("words");

    QTest::newRow("seconds") << 30.0 << "30 seconds";
    QTest::newRow("one second keeps the plural") << 1.0 << "1 seconds";
    QTest::newRow("negative is 0") << -4.0 << "0 seconds";
    QTest::newRow("not a number is 0") << std::numeric_limits<double>::quiet_NaN() << "0 seconds";
    QTest::newRow("59.5 rounds to a minute") << 59.5 << "1 minute";
    QTest::newRow("90 s is two") << 90.0 << "2 minutes";
    QTest::newRow("hours stay minutes") << 7200.0 << "120 minutes";
}

void TestAwakeWords::duration()
{
    QFETCH(double, seconds);
    QTEST(AwakeWords::duration(seconds), "words");
}

void TestAwakeWords::extendLabel_data()
{
    QTest::addColumn<QByteArray>("awake");
    QTest::addColumn<QString>("label");

    QTest::newRow("ten minutes left") << QByteArray(
        R"({"mode":"backpack","holding":true,"until":"@600","extendable":true})")
                                      << "Backpack ends in 10 minutes";
    QTest::newRow("not extendable") << QByteArray(R"({"mode":"backpack","holding":true,"until":"@600"})") << "";
    QTest::newRow("not Backpack") << QByteArray(R"({"mode":"working","until":"@600","extendable":true})") << "";
    QTest::newRow("ends exactly now") << QByteArray(R"({"mode":"backpack","until":"@0","extendable":true})") << "";
    QTest::newRow("a bad until is none") << QByteArray(R"({"mode":"backpack","until":"soon","extendable":true})") << "";
}

void TestAwakeWords::extendLabel()
{
    QFETCH(QByteArray, awake);
    QTEST(AwakeWords::extendLabel(::awake(awake), now()).value_or(QString()), "label");
}

void TestAwakeWords::phrase_data()
{
    QTest::addColumn<QByteArray>("awake");
    QTest::addColumn<QString>("phrase");
    QTest::addColumn<bool>("highlighted");

    QTest::newRow("the warning goes before off")
        << QByteArray(R"({"mode":"off","sleepAt":"@120"})") << "sleeps in 2 minutes" << true;
    QTest::newRow("another app holds on")
        << QByteArray(R"({"mode":"backpack","sleepAt":"@30","sleepDisabledBy":"other"})") << "lets go in 30 seconds"
        << true;
    QTest::newRow("off, whatever holding says") << QByteArray(R"({"mode":"off","holding":true})") << "off" << false;
    QTest::newRow("let go for the battery")
        << QByteArray(R"({"mode":"backpack","reason":"battery"})") << "letting it sleep" << true;
    QTest::newRow("let go, kept by a named app")
        << QByteArray(R"({"mode":"working","reason":"hot","sleepDisabledBy":"other","otherApp":"Amphetamine"})")
        << "kept awake by Amphetamine" << true;
    QTest::newRow("let go, kept by an app without a name")
        << QByteArray(R"({"mode":"working","reason":"hot","sleepDisabledBy":"other"})") << "kept awake by another app"
        << true;
    QTest::newRow("a reason while holding is no release")
        << QByteArray(R"({"mode":"backpack","holding":true,"reason":"battery","lidClosed":true})")
        << "awake with the lid closed" << false;
    QTest::newRow("awake") << QByteArray(R"({"mode":"working","holding":true,"lidClosed":false})") << "awake" << false;
    QTest::newRow("idle") << QByteArray(R"({"mode":"working"})") << "sleeps when idle" << false;
    QTest::newRow("the permission is gone")
        << QByteArray(R"({"mode":"backpack","reason":"setup"})") << "sleeps when idle" << true;
}

void TestAwakeWords::phrase()
{
    QFETCH(QByteArray, awake);
    QFETCH(QString, phrase);
    const Awake a = ::awake(awake);
    QCOMPARE(AwakeWords::phrase(a, now()), phrase);
    QTEST(AwakeWords::isHighlighted(a), "highlighted");
}

void TestAwakeWords::sentence_data()
{
    QTest::addColumn<QByteArray>("awake");
    QTest::addColumn<double>("battery"); // negative: no reading
    QTest::addColumn<QString>("locale");
    QTest::addColumn<QString>("text");
    QTest::addColumn<bool>("warn");

    QTest::newRow("about to sleep on a low battery")
        << QByteArray(R"({"mode":"backpack","sleepAt":"@120","reason":"battery"})") << 15.0 << u"en_US"_s
        << u"Your Mac will sleep in 2 minutes: battery 15%"_s << true;
    QTest::newRow("about to sleep, no battery reading")
        << QByteArray(R"({"mode":"backpack","sleepAt":"@120","reason":"battery"})") << -1.0 << u"en_US"_s
        << u"Your Mac will sleep in 2 minutes: battery low"_s << true;
    QTest::newRow("about to sleep for no reason") << QByteArray(R"({"mode":"working","sleepAt":"@30"})") << -1.0
                                                  << u"en_US"_s << u"Your Mac will sleep in 30 seconds"_s << true;
    QTest::newRow("Backpack's time is up but another app holds on")
        << QByteArray(
               R"({"mode":"backpack","sleepAt":"@60","reason":"time","sleepDisabledBy":"other","otherApp":"Caffeine"})")
        << -1.0 << u"en_US"_s << u"Backpack ends in 1 minute, but Caffeine is still keeping your Mac awake"_s << true;
    QTest::newRow("letting go while another app holds on")
        << QByteArray(R"({"mode":"backpack","sleepAt":"@60","reason":"hot","sleepDisabledBy":"other"})") << -1.0
        << u"en_US"_s
        << u"Tidewatch lets go in 1 minute (it's running hot), but another app is still keeping your Mac awake"_s
        << true;
    QTest::newRow("letting go, no reason, another app")
        << QByteArray(R"({"mode":"backpack","sleepAt":"@60","sleepDisabledBy":"other"})") << -1.0 << u"en_US"_s
        << u"Tidewatch lets go in 1 minute, but another app is still keeping your Mac awake"_s << true;
    QTest::newRow("let go hot, another app holds on")
        << QByteArray(R"({"mode":"working","reason":"hot","sleepDisabledBy":"other","otherApp":"Zoom"})") << -1.0
        << u"en_US"_s << u"Tidewatch let go: it's running hot, but Zoom is still keeping your Mac awake"_s << true;
    QTest::newRow("let go at the battery reading")
        << QByteArray(R"({"mode":"backpack","reason":"battery","sleepDisabledBy":"other","minBattery":20})") << 19.6
        << u"en_US"_s << u"Tidewatch let go at 20%, but another app is still keeping your Mac awake"_s << true;
    QTest::newRow("let go at the set level without a reading")
        << QByteArray(R"({"mode":"backpack","reason":"battery","sleepDisabledBy":"other","minBattery":25})") << -1.0
        << u"en_US"_s << u"Tidewatch let go at 25%, but another app is still keeping your Mac awake"_s << true;
    QTest::newRow("let go for the battery")
        << QByteArray(R"({"mode":"backpack","reason":"battery"})") << 14.4 << u"en_US"_s
        << u"Letting it sleep: battery 14%. Plug it in to keep it awake."_s << true;
    QTest::newRow("let go for heat") << QByteArray(R"({"mode":"working","reason":"hot"})") << -1.0 << u"en_US"_s
                                     << u"Letting it sleep: it's running hot. It carries on once it cools down."_s
                                     << true;
    QTest::newRow("the permission is gone")
        << QByteArray(R"({"mode":"backpack","reason":"setup","holding":true})") << -1.0 << u"en_US"_s
        << u"Backpack mode's permission is gone. Set it up again in Settings."_s << true;
    QTest::newRow("the lid setting failed")
        << QByteArray(R"({"mode":"backpack","reason":"failed"})") << -1.0 << u"en_US"_s
        << u"macOS didn't take the lid-closed setting. Tidewatch tries again in a moment."_s << true;
    QTest::newRow("in the bag until, in a 24-hour locale")
        << QByteArray(R"({"mode":"backpack","holding":true,"until":"@28800","minBattery":15})") << 80.0 << u"de_DE"_s
        << u"Awake with the lid closed until 18:53. It sleeps at 15% battery."_s << false;
    QTest::newRow("in the bag until, more than 20 hours off, still the clock alone")
        << QByteArray(R"({"mode":"backpack","holding":true,"until":"@86400","minBattery":10})") << 80.0 << u"en_US"_s
        << u"Awake with the lid closed until 10:53 AM. It sleeps at 10% battery."_s << false;
    QTest::newRow("time's reason alone says nothing")
        << QByteArray(R"({"mode":"backpack","reason":"time"})") << -1.0 << u"en_US"_s << u""_s << false;
    QTest::newRow("all as chosen") << QByteArray(R"({"mode":"working","holding":true})") << 50.0 << u"en_US"_s << u""_s
                                   << false;
}

void TestAwakeWords::sentence()
{
    QFETCH(QByteArray, awake);
    QFETCH(double, battery);
    QFETCH(QString, locale);
    QFETCH(QString, text);
    QFETCH(bool, warn);
    const std::optional<AwakeLine> line
        = AwakeWords::sentence(::awake(awake), now(), ::battery(battery), QLocale(locale));
    QCOMPARE(line.has_value(), !text.isEmpty());
    if (line) {
        QCOMPARE(line->text, text);
        QCOMPARE(line->warn, warn);
    }
}

void TestAwakeWords::minBattery_data()
{
    QTest::addColumn<QByteArray>("awake");
    QTest::addColumn<bool>("plus");
    QTest::addColumn<bool>("minus");
    QTest::addColumn<QString>("text");

    QTest::newRow("missing is 15") << QByteArray(R"({"mode":"backpack"})") << true << true
                                   << "Let it sleep at 15 percent battery";
    QTest::newRow("50 has no plus") << QByteArray(R"({"mode":"backpack","minBattery":50})") << false << true
                                    << "Let it sleep at 50 percent battery";
    QTest::newRow("45 has") << QByteArray(R"({"mode":"backpack","minBattery":45})") << true << true
                            << "Let it sleep at 45 percent battery";
    QTest::newRow("5 has no minus") << QByteArray(R"({"mode":"backpack","minBattery":5})") << true << false
                                    << "Let it sleep at 5 percent battery";
    QTest::newRow("6 has") << QByteArray(R"({"mode":"backpack","minBattery":6})") << true << true
                           << "Let it sleep at 6 percent battery";
}

void TestAwakeWords::minBattery()
{
    QFETCH(QByteArray, awake);
    const MinBatteryControl control = AwakeWords::minBatteryControl(::awake(awake).minBattery);
    QTEST(control.canRaise, "plus");
    QTEST(control.canLower, "minus");
    QTEST(control.text, "text");
}

void TestAwakeWords::backpackCountsAsSetUp_data()
{
    QTest::addColumn<QByteArray>("awake");
    QTest::addColumn<bool>("ruleFile");
    QTest::addColumn<bool>("setUp");

    QTest::newRow("the service has it") << QByteArray(R"({"mode":"working","backpackReady":true})") << false << true;
    QTest::newRow("only the rule file is there") << QByteArray(R"({"mode":"working"})") << true << true;
    QTest::newRow("neither: the offer opens")
        << QByteArray(R"({"mode":"working","backpackReady":false})") << false << false;
}

void TestAwakeWords::backpackCountsAsSetUp()
{
    QFETCH(QByteArray, awake);
    QFETCH(bool, ruleFile);
    QTEST(AwakeWords::backpackSetUp(::awake(awake), ruleFile), "setUp");
}

void TestAwakeWords::theOfferNamesTheBatteryLevel()
{
    const BackpackOffer offer = AwakeWords::backpackOffer(20);
    QVERIFY2(
        offer.body.contains(QStringLiteral("lets it sleep at 20% battery or if it runs hot.")), qPrintable(offer.body));
    QCOMPARE(offer.enableBusy, QStringLiteral("Setting up…"));
}

QTEST_GUILESS_MAIN(TestAwakeWords)
#include "TestAwakeWords.moc"

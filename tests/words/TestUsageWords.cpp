#include "link/Account.h"
#include "link/Codex.h"
#include "link/Usage.h"
#include "surface/words/UsageWords.h"

#include "Fixture.h"

#include <QJsonDocument>
#include <QTest>
#include <QTimeZone>

using namespace Qt::StringLiterals;

namespace {

using Fixture::now;

constexpr auto in = &Fixture::at;

// The usage of the shared fixture: a busy 5-hour window, a spent week and
// two model weeks, one of them more than 20 hours from its reset.
Usage busy()
{
    Usage usage;
    usage.fiveHour = UsageWindow{64, in(3 * 3600)};
    usage.sevenDay = UsageWindow{100, in(2 * 86400)};
    usage.models = QList<ModelWindow>{{u"Fable"_s, 41, in(3 * 86400)}, {u"Sonnet"_s, 3, in(5 * 3600)}};
    usage.rate = UsageRate{};
    usage.rate->fiveHour = 0.8;
    usage.rate->fiveHourEtaMs = 2700000;
    usage.rate->fiveHourLimitAt = in(2700);
    usage.observedAt = in(-300);
    return usage;
}

MeterReading paced(double used, std::optional<double> resetIn, MeterReading::Rate rate)
{
    const std::optional<UsageWindow> window
        = UsageWindow{used, resetIn ? std::optional<FlexDate>(in(*resetIn)) : std::nullopt};
    MeterReading reading = MeterReading::read(u"5-hour window"_s, window, now(), false);
    reading.applyPace(rate, now());
    return reading;
}

} // namespace

class TestUsageWords : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void claudeMeters_data();
    void claudeMeters();
    void serviceLimitWins();
    void pace_data();
    void pace();
    void staleWindow_data();
    void staleWindow();
    void look_data();
    void look();
    void sentence_data();
    void sentence();
    void codexMeters();
    void notesAndLines();
};

void TestUsageWords::claudeMeters_data()
{
    QTest::addColumn<bool>("brand");
    QTest::addColumn<QStringList>("keys");
    QTest::addColumn<QStringList>("names");

    QTest::newRow("alone: no chips on the windows")
        << false << QStringList{"5 hours", "7 days", "Fable/7 days", "Sonnet/7 days"}
        << QStringList{"5-hour window", "Weekly window", "Fable week", "Sonnet week"};
    QTest::newRow("beside Codex: Claude on the windows, models keep their own")
        << true << QStringList{"Claude/5 hours", "Claude/7 days", "Fable/7 days", "Sonnet/7 days"}
        << QStringList{"Claude 5-hour window", "Claude weekly window", "Fable week", "Sonnet week"};
}

void TestUsageWords::claudeMeters()
{
    QFETCH(bool, brand);
    const QList<Meter> meters = UsageWords::claudeMeters(busy(), now(), brand);
    QStringList gotKeys, gotNames;
    for (const Meter& meter : meters) {
        gotKeys.append(meter.key());
        gotNames.append(meter.reading.name);
    }
    QTEST(gotKeys, "keys");
    QTEST(gotNames, "names");

    // A model week far off is a weekday; one within 20 hours counts down.
    QCOMPARE(meters.at(2).reading.tag()->kind, MeterReading::Tag::Kind::ResetOn);
    QCOMPARE(meters.at(3).reading.tag()->kind, MeterReading::Tag::Kind::Reset);
    // Only the 5-hour and weekly windows have a pace.
    QVERIFY(meters.at(0).reading.pace);
    QVERIFY(!meters.at(2).reading.pace);
}

void TestUsageWords::serviceLimitWins()
{
    const QList<Meter> meters = UsageWords::claudeMeters(busy(), now(), false);
    const MeterReading& five = meters.at(0).reading;
    QCOMPARE(five.tag()->kind, MeterReading::Tag::Kind::Limit);
    // The eta from the observation five minutes ago would say 40 minutes.
    QCOMPARE(*five.limitIn, 2700.0);
    QCOMPARE(*five.projected, 100.0);
    QVERIFY(five.sentence(now(), QLocale(u"en_US"_s))
                .startsWith(u"5-hour window 64% used, spending 0.8% a minute: at this pace you reach the limit in "
                            "about 45 minutes, before the reset in 3 hours."_s));

    Usage noWindows;
    noWindows.models = busy().models;
    QCOMPARE(UsageWords::claudeMeters(noWindows, now(), false).size(), 2);
    Usage oneWindow;
    oneWindow.sevenDay = UsageWindow{10, std::nullopt};
    const QList<Meter> both = UsageWords::claudeMeters(oneWindow, now(), false);
    QCOMPARE(both.size(), 2);
    QCOMPARE(both.at(0).reading.used, std::nullopt);
    QCOMPARE(UsageWords::claudeMeters(std::nullopt, now(), true), QList<Meter>());
}

void TestUsageWords::pace_data()
{
    QTest::addColumn<double>("used");
    QTest::addColumn<double>("resetIn"); // negative: no reset
    QTest::addColumn<double>("rate");
    QTest::addColumn<double>("etaMs"); // negative: none
    QTest::addColumn<double>("limitAt"); // seconds from now; negative: none
    QTest::addColumn<double>("observedAgo");
    QTest::addColumn<double>("projected"); // negative: none
    QTest::addColumn<double>("limitIn"); // negative: no limit first

    QTest::newRow("projected past 100 finds the limit")
        << 50.0 << 36000.0 << 0.1 << -1.0 << -1.0 << 0.0 << 100.0 << 30000.0;
    QTest::newRow("the limit counts from an earlier observation")
        << 50.0 << 36000.0 << 0.1 << -1.0 << -1.0 << 600.0 << 100.0 << 29400.0;
    QTest::newRow("an observation in the future counts from now")
        << 50.0 << 36000.0 << 0.1 << -1.0 << -1.0 << -600.0 << 100.0 << 30000.0;
    QTest::newRow("lasting to the reset") << 20.0 << 3600.0 << 0.05 << -1.0 << -1.0 << 0.0 << 23.0 << -1.0;
    QTest::newRow("the eta projects the limit") << 20.0 << 3600.0 << 0.05 << 600000.0 << -1.0 << 0.0 << 100.0 << 600.0;
    QTest::newRow("an eta already past is 0, never negative")
        << 20.0 << 3600.0 << 0.05 << 60000.0 << -1.0 << 600.0 << 100.0 << 0.0;
    QTest::newRow("a service limit after the reset doesn't come first")
        << 20.0 << 3600.0 << 0.05 << -1.0 << 7200.0 << 0.0 << 23.0 << -1.0;
    QTest::newRow("a service limit without a reset comes first")
        << 20.0 << -1.0 << 0.05 << -1.0 << 7200.0 << 0.0 << 100.0 << 7200.0;
    QTest::newRow("no reset, no eta: no projection") << 20.0 << -1.0 << 0.05 << -1.0 << -1.0 << 0.0 << -1.0 << -1.0;
    QTest::newRow("a rate under 0.005 is no pace")
        << 20.0 << 3600.0 << 0.004 << 600000.0 << 60.0 << 0.0 << -1.0 << -1.0;
    QTest::newRow("a spent window has no pace") << 100.0 << 3600.0 << 0.8 << 600000.0 << 60.0 << 0.0 << -1.0 << -1.0;
    QTest::newRow("a stale window has no pace") << 60.0 << 0.0 << 0.8 << 600000.0 << 60.0 << 0.0 << -1.0 << -1.0;
}

void TestUsageWords::pace()
{
    QFETCH(double, used);
    QFETCH(double, resetIn);
    QFETCH(double, rate);
    QFETCH(double, etaMs);
    QFETCH(double, limitAt);
    QFETCH(double, observedAgo);
    QFETCH(double, projected);
    QFETCH(double, limitIn);
    MeterReading::Rate r;
    r.perMinute = rate;
    if (etaMs >= 0)
        r.etaMs = etaMs;
    if (limitAt >= 0)
        r.limitAt = in(limitAt);
    r.observedAt = in(-observedAgo);
    const MeterReading reading = paced(used, resetIn >= 0 ? std::optional<double>(resetIn) : std::nullopt, r);
    QCOMPARE(reading.projected.has_value(), projected >= 0);
    if (projected >= 0)
        QVERIFY2(qAbs(*reading.projected - projected) < 1e-9, qPrintable(QString::number(*reading.projected)));
    QCOMPARE(reading.limitFirst, limitIn >= 0);
    QCOMPARE(reading.limitIn.has_value(), limitIn >= 0);
    if (limitIn >= 0)
        QVERIFY2(qAbs(*reading.limitIn - limitIn) < 1e-6, qPrintable(QString::number(*reading.limitIn)));
}

void TestUsageWords::staleWindow_data()
{
    QTest::addColumn<double>("resetIn");
    QTest::addColumn<double>("used");
    QTest::addColumn<bool>("hasReset");
    QTest::addColumn<QString>("tag");

    QTest::newRow("a reset in the past starts over") << -600.0 << 0.0 << false << "now";
    QTest::newRow("a reset exactly now has passed") << 0.0 << 0.0 << false << "now";
    QTest::newRow("a reset a moment ahead still counts") << 0.5 << 87.0 << true << "1m";
}

void TestUsageWords::staleWindow()
{
    QFETCH(double, resetIn);
    const MeterReading reading = MeterReading::read(u"w"_s, UsageWindow{87, in(resetIn)}, now(), false);
    QTEST(*reading.used, "used");
    QTEST(reading.resetAt.has_value(), "hasReset");
    QCOMPARE(*reading.resetIn, std::max(0.0, resetIn));
    QTEST(MeterWords::look(reading, now(), QLocale(u"en_US"_s)).tagText, "tag");
}

void TestUsageWords::look_data()
{
    QTest::addColumn<double>("used"); // negative: not measured
    QTest::addColumn<double>("projected"); // negative: none
    QTest::addColumn<QString>("percent");
    QTest::addColumn<Ink>("percentInk");
    QTest::addColumn<Ink>("barInk");
    QTest::addColumn<double>("ghost"); // negative: none
    QTest::addColumn<double>("fill");

    QTest::newRow("not measured") << -1.0 << -1.0 << "—" << Ink::Text << Ink::Muted << -1.0 << 0.0;
    QTest::newRow("truncated, not rounded") << 64.7 << -1.0 << "64%" << Ink::Text << Ink::Green << -1.0 << 0.647;
    QTest::newRow("79.99 is still green") << 79.99 << -1.0 << "79%" << Ink::Text << Ink::Green << -1.0 << 0.7999;
    QTest::newRow("amber from 80") << 80.0 << 90.0 << "80%" << Ink::Text << Ink::Amber << 0.9 << 0.8;
    QTest::newRow("spent is red") << 100.0 << -1.0 << "100%" << Ink::Red << Ink::Red << -1.0 << 1.0;
    QTest::newRow("over 100 fills the bar, no further")
        << 130.0 << -1.0 << "130%" << Ink::Red << Ink::Red << -1.0 << 1.0;
    QTest::newRow("a ghost half a point ahead shows")
        << 20.0 << 20.5 << "20%" << Ink::Text << Ink::Green << 0.205 << 0.2;
    QTest::newRow("a ghost under half a point doesn't")
        << 20.0 << 20.4 << "20%" << Ink::Text << Ink::Green << -1.0 << 0.2;
}

void TestUsageWords::look()
{
    QFETCH(double, used);
    QFETCH(double, projected);
    QFETCH(double, ghost);
    MeterReading reading;
    if (used >= 0)
        reading.used = used;
    if (projected >= 0)
        reading.projected = projected;
    const MeterLook look = MeterWords::look(reading, now(), QLocale(u"en_US"_s));
    QTEST(look.percent, "percent");
    QTEST(look.percentInk, "percentInk");
    QTEST(look.barInk, "barInk");
    QTEST(look.fill, "fill");
    QCOMPARE(look.ghost.has_value(), ghost >= 0);
    if (ghost >= 0)
        QVERIFY(qAbs(*look.ghost - ghost) < 1e-9);
}

void TestUsageWords::sentence_data()
{
    QTest::addColumn<QString>("locale");
    QTest::addColumn<double>("used");
    QTest::addColumn<double>("resetIn");
    QTest::addColumn<bool>("weekday");
    QTest::addColumn<double>("rate");
    QTest::addColumn<QString>("sentence");
    QTest::addColumn<QString>("tag");

    QTest::newRow("spent, with a reset") << u"en_US"_s << 100.0 << 5400.0 << false << 0.0
                                         << u"W: limit reached, resets in 1 hour 30 minutes."_s << u"1h 30m"_s;
    QTest::newRow("a small pace has two decimals, in any locale")
        << u"de_DE"_s << 12.4 << 3600.0 << false << 0.05
        << u"W 12% used, spending 0.05% a minute: at this pace it lasts until the reset in 1 hour."_s << u"1h 0m"_s;
    QTest::newRow("a model week more than 20 hours off is told by day")
        << u"en_US"_s << 41.0 << 2 * 86400.0 << true << 0.0 << u"W 41% used, resets on Saturday at 10:53 AM."_s
        << u"Sat 10:53 AM"_s;
    QTest::newRow("a model week 20 hours off counts down")
        << u"de_DE"_s << 41.0 << 72000.0 << true << 0.0 << u"W 41% used, resets in 20 hours."_s << u"20h 0m"_s;
    QTest::newRow("the tag rounds up to the minute")
        << u"en_US"_s << 41.6 << 61.0 << false << 0.0 << u"W 42% used, resets in 1 minute."_s << u"2m"_s;
    QTest::newRow("no reset known") << u"en_US"_s << 7.0 << -1.0 << false << 0.0 << u"W 7% used."_s << u""_s;
}

void TestUsageWords::sentence()
{
    QFETCH(QString, locale);
    QFETCH(double, used);
    QFETCH(double, resetIn);
    QFETCH(bool, weekday);
    QFETCH(double, rate);
    const std::optional<FlexDate> reset = resetIn >= 0 ? std::optional<FlexDate>(in(resetIn)) : std::nullopt;
    MeterReading reading = MeterReading::read(u"W"_s, UsageWindow{used, reset}, now(), weekday);
    if (rate > 0)
        reading.applyPace({rate, std::nullopt, std::nullopt, std::nullopt}, now());
    QTEST(reading.sentence(now(), QLocale(locale)), "sentence");
    QTEST(MeterWords::look(reading, now(), QLocale(locale)).tagText, "tag");
    QCOMPARE(MeterReading::read(u"W"_s, std::nullopt, now(), false).sentence(now(), QLocale(locale)),
        u"W not measured yet."_s);
}

void TestUsageWords::codexMeters()
{
    Codex codex;
    QVERIFY(UsageWords::codexMeters(codex, now(), true).isEmpty());
    codex.usage = Codex::Limits{};
    codex.usage->sevenDay = UsageWindow{100, in(3600)};
    codex.usage->limited = true;
    QList<Meter> meters = UsageWords::codexMeters(codex, now(), true);
    QCOMPARE(meters.size(), 1);
    QCOMPARE(meters.first().key(), u"Codex/7 days"_s);
    QCOMPARE(meters.first().reading.name, u"Codex weekly window"_s);
    QVERIFY(!meters.first().reading.pace);
    // The spent window is on show, so no line repeats it.
    QCOMPARE(UsageWords::codexLimitedLine(codex, meters), std::nullopt);
    codex.usage->sevenDay->pct = 40;
    codex.usage->fiveHour = UsageWindow{2, std::nullopt};
    meters = UsageWords::codexMeters(codex, now(), false);
    QCOMPARE(meters.first().key(), u"5 hours"_s);
    QCOMPARE(meters.first().reading.name, u"Codex 5-hour window"_s);
    QCOMPARE(UsageWords::codexLimitedLine(codex, meters), u"Codex reached its limit"_s);
}

void TestUsageWords::notesAndLines()
{
    Usage stale = busy();
    stale.source = u"stale"_s;
    Account account;
    account.state = u"logged_out"_s;
    QCOMPARE(UsageWords::claudeNote(stale, &account), u"while signed out"_s);
    QCOMPARE(UsageWords::staleLine(stale, &account), u"Not measured while signed out."_s);
    account.state = u"on_hold"_s;
    QCOMPARE(UsageWords::staleLine(stale, &account), u"Not measured while the account is on hold."_s);
    QCOMPARE(UsageWords::claudeNote(stale, nullptr), u"not measured"_s);
    QCOMPARE(UsageWords::staleLine(stale, nullptr), u"Not measured right now."_s);
    QCOMPARE(UsageWords::claudeNote(busy(), nullptr), std::nullopt);
    QCOMPARE(UsageWords::staleLine(busy(), nullptr), std::nullopt);
    QCOMPARE(UsageWords::claudeNote(Usage{}, nullptr), u"waiting for numbers"_s);
    QCOMPARE(UsageWords::claudeWaitingLine(Usage{}), u"Waiting for the first numbers from Claude Code."_s);

    Usage probed = busy();
    QCOMPARE(UsageWords::probeLine(probed, now(), QLocale(u"en_US"_s)), std::nullopt);
    probed.probe = Usage::Probe{false, std::nullopt};
    QCOMPARE(UsageWords::probeLine(probed, now(), QLocale(u"en_US"_s)), u"Per-model weeks not read since a while."_s);
    probed.probe->since = in(-2 * 3600);
    QCOMPARE(UsageWords::probeLine(probed, now(), QLocale(u"en_US"_s)), u"Per-model weeks not read since 8:53 AM."_s);
    probed.probe->since = in(-21 * 3600);
    QCOMPARE(UsageWords::probeLine(probed, now(), QLocale(u"de_DE"_s)), u"Per-model weeks not read since Mi. 13:53."_s);
    probed.models = QList<ModelWindow>();
    QCOMPARE(UsageWords::probeLine(probed, now(), QLocale(u"en_US"_s)), std::nullopt);

    Codex codex;
    QCOMPARE(UsageWords::codexAloneNote(codex, false, now()), u"waiting for numbers"_s);
    QCOMPARE(UsageWords::codexLeadLine(codex, true, now()), u"Waiting for the first numbers from Codex."_s);
    QCOMPARE(UsageWords::codexLeadLine(codex, false, now()), std::nullopt);
    codex.account = Codex::Account{true, u"apiKey"_s, std::nullopt};
    QCOMPARE(UsageWords::codexAloneNote(codex, false, now()), u"billed per use"_s);
    QCOMPARE(UsageWords::codexAloneNote(codex, true, now()), std::nullopt);
    QCOMPARE(UsageWords::codexLeadLine(codex, true, now()),
        u"Codex is on an API key: no windows, each turn is billed to it."_s);
    codex.account.reset();
    codex.usage = Codex::Limits{};
    codex.usage->limited = true;
    QCOMPARE(UsageWords::codexAloneNote(codex, false, now()), std::nullopt);
    QCOMPARE(UsageWords::codexLeadLine(codex, true, now()), std::nullopt);
}

QTEST_GUILESS_MAIN(TestUsageWords)
#include "TestUsageWords.moc"

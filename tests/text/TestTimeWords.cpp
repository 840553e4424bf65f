#include "text/TimeWords.h"

#include "Fixture.h"

#include <QTest>
#include <QTimeZone>

#include <limits>

using namespace Qt::StringLiterals;

using Fixture::now;

class TestTimeWords : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void durationWords_data();
    void durationWords();
    void compactDuration_data();
    void compactDuration();
    void coarseAge_data();
    void coarseAge();
    void timeOfDay_data();
    void timeOfDay();
};

void TestTimeWords::durationWords_data()
{
    QTest::addColumn<double>("seconds");
    QTest::addColumn<QString>("words");

    QTest::newRow("just under half a minute") << 29.0 << "less than a minute";
    QTest::newRow("half a minute rounds up") << 30.0 << "1 minute";
    QTest::newRow("negative") << -600.0 << "less than a minute";
    QTest::newRow("not a number") << std::numeric_limits<double>::quiet_NaN() << "less than a minute";
    QTest::newRow("90 s is two minutes") << 90.0 << "2 minutes";
    QTest::newRow("59.5 minutes is an hour") << 3570.0 << "1 hour";
    QTest::newRow("an hour and a minute") << 3660.0 << "1 hour 1 minute";
    QTest::newRow("hours and minutes") << 2 * 3600.0 + 11 * 60 << "2 hours 11 minutes";
    QTest::newRow("a day") << 86400.0 << "1 day";
    QTest::newRow("minutes past a day's hours are dropped") << 86400.0 + 59 * 60 << "1 day";
    QTest::newRow("rounding carries into the hour") << 86400.0 + 3599 << "1 day 1 hour";
    QTest::newRow("days and hours") << 3 * 86400.0 + 5 * 3600 + 20 * 60 << "3 days 5 hours";
}

void TestTimeWords::durationWords()
{
    QFETCH(double, seconds);
    QTEST(TimeWords::durationWords(seconds), "words");
}

void TestTimeWords::compactDuration_data()
{
    QTest::addColumn<double>("seconds");
    QTest::addColumn<QString>("text");

    QTest::newRow("seconds") << 45.0 << "45s";
    QTest::newRow("59.5 s rounds to a minute") << 59.5 << "1m";
    QTest::newRow("negative counts 0") << -5.0 << "0s";
    QTest::newRow("minutes are cut") << 119.0 << "1m";
    QTest::newRow("hours and minutes") << 7860.0 << "2h 11m";
    QTest::newRow("an hour shows its zero minutes") << 3600.0 << "1h 0m";
    QTest::newRow("a day shows its zero hours") << 86400.0 << "1d 0h";
    QTest::newRow("days and hours") << 2 * 86400.0 + 7199 << "2d 1h";
}

void TestTimeWords::compactDuration()
{
    QFETCH(double, seconds);
    QTEST(TimeWords::compactDuration(seconds), "text");
}

void TestTimeWords::coarseAge_data()
{
    QTest::addColumn<double>("seconds");
    QTest::addColumn<QString>("text");

    QTest::newRow("under a minute") << 59.9 << "now";
    QTest::newRow("a minute") << 60.0 << "1m";
    QTest::newRow("cut, not rounded") << 3599.0 << "59m";
    QTest::newRow("hours") << 3 * 3600.0 + 3599 << "3h";
    QTest::newRow("days") << 2 * 86400.0 + 86399 << "2d";
    QTest::newRow("negative") << -100.0 << "now";
}

void TestTimeWords::coarseAge()
{
    QFETCH(double, seconds);
    QTEST(TimeWords::coarseAge(seconds), "text");
}

void TestTimeWords::timeOfDay_data()
{
    QTest::addColumn<QString>("locale");
    QTest::addColumn<qint64>("offset");
    QTest::addColumn<QString>("text");

    QTest::newRow("en_US ahead") << "en_US" << 3600ll << "11:53 AM";
    QTest::newRow("en_US 20 hours ahead exactly") << "en_US" << 72000ll << "6:53 AM";
    QTest::newRow("en_US just beyond") << "en_US" << 72001ll << "Fri 6:53 AM";
    QTest::newRow("en_US 20 hours ago") << "en_US" << -72000ll << "2:53 PM";
    QTest::newRow("en_US more than 20 hours ago") << "en_US" << -72060ll << "Wed 2:52 PM";
    QTest::newRow("de_DE, 24 hours") << "de_DE" << 7200ll << "12:53";
    QTest::newRow("de_DE weekday") << "de_DE" << 86400ll << "Fr. 10:53";
}

void TestTimeWords::timeOfDay()
{
    QFETCH(QString, locale);
    QFETCH(qint64, offset);
    QTEST(TimeWords::timeOfDay(Fixture::at(offset), now(), QLocale(locale)), "text");
}

QTEST_GUILESS_MAIN(TestTimeWords)
#include "TestTimeWords.moc"

#include "text/TimeWords.h"

#include <QTimeZone>

#include <algorithm>
#include <cmath>

using namespace Qt::StringLiterals;

namespace TimeWords {

namespace {

constexpr double kClockRange = 72000;

QDateTime inZoneOf(const QDateTime& now, const FlexDate& date)
{
    const QDateTime utc = date.toDateTime();
    if (now.timeSpec() == Qt::LocalTime)
        return utc.toLocalTime();
    return utc.toTimeZone(now.timeZone());
}

QString counted(qint64 n, const char* one, const char* many)
{
    return QString::number(n) + u' ' + QLatin1StringView(n == 1 ? one : many);
}

// Whole seconds for the duration forms: rounded, never negative, never NaN.
qint64 wholeSeconds(double seconds)
{
    if (!(seconds > 0))
        return 0;
    if (seconds > 1e15)
        return qint64(1e15);
    return qint64(std::llround(seconds));
}

} // namespace

double secondsFrom(const QDateTime& now, const FlexDate& date)
{
    return double(date.msecsSinceEpoch - now.toMSecsSinceEpoch()) / 1000.0;
}

QString clockTime(const FlexDate& date, const QDateTime& now, const QLocale& locale)
{
    return locale.toString(inZoneOf(now, date).time(), QLocale::ShortFormat);
}

QString weekdayTime(const FlexDate& date, const QDateTime& now, const QLocale& locale)
{
    const QDateTime local = inZoneOf(now, date);
    return locale.dayName(local.date().dayOfWeek(), QLocale::ShortFormat) + u' '
        + locale.toString(local.time(), QLocale::ShortFormat);
}

QString fullWeekdayAtTime(const FlexDate& date, const QDateTime& now, const QLocale& locale)
{
    const QDateTime local = inZoneOf(now, date);
    return locale.dayName(local.date().dayOfWeek(), QLocale::LongFormat) + u" at "_s
        + locale.toString(local.time(), QLocale::ShortFormat);
}

bool withinClockRange(const FlexDate& date, const QDateTime& now)
{
    return std::abs(secondsFrom(now, date)) <= kClockRange;
}

QString timeOfDay(const FlexDate& date, const QDateTime& now, const QLocale& locale)
{
    return withinClockRange(date, now) ? clockTime(date, now, locale) : weekdayTime(date, now, locale);
}

QString sameDayTime(const FlexDate& date, const QDateTime& now, const QLocale& locale)
{
    const QDateTime local = inZoneOf(now, date);
    return local.date() == now.date() ? clockTime(date, now, locale) : weekdayTime(date, now, locale);
}

QString durationWords(double seconds)
{
    const double minutes = std::isfinite(seconds) ? std::round(seconds / 60) : 0;
    if (minutes < 1)
        return u"less than a minute"_s;
    const qint64 m = minutes > 1e12 ? qint64(1e12) : qint64(minutes);
    if (m < 60)
        return counted(m, "minute", "minutes");
    if (m < 1440) {
        const QString hours = counted(m / 60, "hour", "hours");
        return m % 60 == 0 ? hours : hours + u' ' + counted(m % 60, "minute", "minutes");
    }
    const QString days = counted(m / 1440, "day", "days");
    const qint64 hours = (m % 1440) / 60;
    return hours == 0 ? days : days + u' ' + counted(hours, "hour", "hours");
}

QString compactDuration(double seconds)
{
    const qint64 s = wholeSeconds(seconds);
    if (s >= 86400)
        return u"%1d %2h"_s.arg(s / 86400).arg(s % 86400 / 3600);
    if (s >= 3600)
        return u"%1h %2m"_s.arg(s / 3600).arg(s % 3600 / 60);
    if (s >= 60)
        return u"%1m"_s.arg(s / 60);
    return u"%1s"_s.arg(s);
}

QString coarseAge(double seconds)
{
    const qint64 s = std::isfinite(seconds) && seconds > 0 ? qint64(std::min(seconds, 1e15)) : 0;
    if (s < 60)
        return u"now"_s;
    if (s < 3600)
        return u"%1m"_s.arg(s / 60);
    if (s < 86400)
        return u"%1h"_s.arg(s / 3600);
    return u"%1d"_s.arg(s / 86400);
}

} // namespace TimeWords

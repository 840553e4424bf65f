#pragma once

#include "base/FlexDate.h"

#include <QDateTime>
#include <QLocale>
#include <QString>

// Times and durations as the popover and the phone say them. Every function
// takes `now`: a time of day is written in the zone `now` carries, so a test
// that hands in a UTC `now` gets UTC clock times.
namespace TimeWords {

/// How far `date` lies after `now`, in seconds; negative when it lies before.
double secondsFrom(const QDateTime& now, const FlexDate& date);

/// The locale's short time ("j:mm"): "2:05 PM" in en_US, "14:05" in de_DE.
QString clockTime(const FlexDate& date, const QDateTime& now, const QLocale& locale);
/// The short weekday and the short time ("EEE j:mm"): "Thu 2:05 PM".
QString weekdayTime(const FlexDate& date, const QDateTime& now, const QLocale& locale);
/// The full weekday, " at " and the short time: "Thursday at 2:05 PM".
QString fullWeekdayAtTime(const FlexDate& date, const QDateTime& now, const QLocale& locale);

/// The time of day of sentences: the clock time within 72,000 seconds (20
/// hours) of `now`, either way, and the weekday before it beyond that.
QString timeOfDay(const FlexDate& date, const QDateTime& now, const QLocale& locale);
/// The clock time when `date` falls on the same calendar day as `now`, and
/// the weekday before it otherwise.
QString sameDayTime(const FlexDate& date, const QDateTime& now, const QLocale& locale);
/// True when `date` lies within the 20 hours in which a clock time alone is clear.
bool withinClockRange(const FlexDate& date, const QDateTime& now);

/// "45 minutes", "1 hour 5 minutes", "2 days 3 hours"; "less than a minute"
/// below half a minute. Minutes beyond a whole day's hours are dropped.
QString durationWords(double seconds);
/// "2d 3h", "2h 11m", "12m", "45s"; negatives count 0.
QString compactDuration(double seconds);
/// A coarse age, cut down to its largest unit: "now" under a minute, then
/// "12m", "3h", "2d".
QString coarseAge(double seconds);

} // namespace TimeWords

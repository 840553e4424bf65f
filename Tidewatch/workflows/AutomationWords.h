#pragma once

#include "link/Session.h"
#include "workflows/AutomationsState.h"

#include <QDateTime>
#include <QLocale>
#include <QString>

#include <optional>

namespace AutomationWords {

enum class Kind { Paused, Running, Next, Ready };

/// The small picture before a figure.
enum class Glyph { Timer, Clock };

/// A glyph with a short text: a run's age, or the next run's time.
struct Figure {
    Glyph glyph = Glyph::Clock;
    QString text;

    bool operator==(const Figure&) const = default;
};

/// The one calm line about automations.
struct Line {
    Kind kind = Kind::Ready;
    QString text;
    std::optional<Figure> figure;
    /// "ready", beside a lone automation waiting for its event.
    std::optional<QString> tag;
    /// A run waits on the user.
    bool needsYou = false;
    /// The tool tip.
    QString help;
    /// A button's label: "Resume" while paused.
    std::optional<QString> action;

    bool operator==(const Line&) const = default;
};

/// The line, or none when there is nothing to say: no automations, or all off.
std::optional<Line> line(const AutomationsState& state, const QDateTime& now, const QLocale& locale);
/// The shorter words of Settings, as the phone says them: "2 on, next 9:00 AM".
QString settingsLine(const AutomationsState& state, const QDateTime& now, const QLocale& locale);
/// A time as the line tells it: the clock time on the same day as `now`,
/// with the weekday before it on any other.
QString time(const FlexDate& date, const QDateTime& now, const QLocale& locale);

/// The tool tip of the line's "Resume".
QString resumeHelp();

/// The chip of a session an automation started: "Auto".
QString chip();
/// The chip's tool tip, naming the automation when it has a name.
QString chipHelp(const AutomationRef& automation);
/// What a folded row says of such a session.
QString foldedWords();

} // namespace AutomationWords

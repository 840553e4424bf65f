#pragma once

#include "link/Lenient.h"
#include "link/Usage.h"
#include "surface/words/Palette.h"

#include <QDateTime>
#include <QLocale>
#include <QString>

#include <optional>
#include <variant>

/// One usage window read against `now`: how much is gone, when it starts
/// afresh, and, where the service reports a burn rate, where it ends up.
struct MeterReading {
    /// What the small tag shows: whichever comes first, the limit or the reset.
    struct Tag {
        enum class Kind {
            Limit, ///< seconds to the limit
            Reset, ///< seconds to the reset
            ResetOn, ///< the reset, more than 20 hours off, as a moment
        };
        Kind kind = Kind::Reset;
        /// Seconds, for Limit and Reset.
        double seconds = 0;
        /// The moment, for ResetOn.
        FlexDate at;

        bool operator==(const Tag&) const = default;
    };

    /// The spoken name of the window: "5-hour window".
    QString name;
    /// Percent of the window spent a minute; only where pace means something.
    std::optional<double> pace;
    /// When the window resets; absent once that moment is past.
    std::optional<FlexDate> resetAt;
    /// A reset more than 20 hours off is told as a weekday and time.
    bool weekday = false;
    /// Percent used, not below 0; absent when the window isn't measured.
    std::optional<double> used;
    /// Percent the window reaches at this pace by its reset, at most 100.
    std::optional<double> projected;
    /// At this pace the limit comes before the reset.
    bool limitFirst = false;
    /// Seconds to the limit, not below 0.
    std::optional<double> limitIn;
    /// Seconds to the reset, not below 0.
    std::optional<double> resetIn;

    /// A window read as it stands. A window past its reset has started over
    /// and reads 0%, whatever the last report said.
    static MeterReading read(
        const QString& name, const std::optional<UsageWindow>& window, const QDateTime& now, bool weekday);

    /// The rate of one window, as the service reports it.
    struct Rate {
        /// Percent a minute.
        std::optional<double> perMinute;
        /// Milliseconds to the limit, counted from the observation.
        std::optional<double> etaMs;
        /// The service's own moment of the limit; it wins over any estimate.
        std::optional<FlexDate> limitAt;
        /// When the numbers were observed.
        std::optional<FlexDate> observedAt;
    };
    /// Adds pace, projection and the limit to a reading; leaves it alone when
    /// the window is missing, spent, stale, or the rate is too small to matter.
    void applyPace(const Rate& rate, const QDateTime& now);

    std::optional<Tag> tag() const;
    /// The sentence a screen reader says for the meter.
    QString sentence(const QDateTime& now, const QLocale& locale) const;

    bool operator==(const MeterReading&) const = default;
};

/// How a meter is drawn: the views take these values as they are.
struct MeterLook {
    /// "64%", truncated; "—" when not measured.
    QString percent;
    /// Text, or red once the window is spent.
    Ink percentInk = Ink::Text;
    /// Muted unmeasured, red spent, amber from 80, green below.
    Ink barInk = Ink::Muted;
    /// The fill, 0 to 1; drawn at least 3 points wide when above 0.
    double fill = 0;
    /// Where the window ends up at this pace, 0 to 1, drawn under the fill
    /// at opacity 0.3; none when it wouldn't show beyond the fill.
    std::optional<double> ghost;
    /// The tag's text beside its glyph; empty without a tag.
    QString tagText;
    /// Red for the limit, muted for a reset.
    Ink tagInk = Ink::Muted;
    /// The limit's glyph rather than the reset's.
    bool limitGlyph = false;

    bool operator==(const MeterLook&) const = default;
};

namespace MeterWords {

MeterLook look(const MeterReading& reading, const QDateTime& now, const QLocale& locale);
/// A duration for a tag: raised to a whole minute, and at least one.
double tagSeconds(double seconds);

} // namespace MeterWords

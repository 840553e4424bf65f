#include "surface/words/MeterReading.h"

#include "text/TimeWords.h"

#include <algorithm>
#include <cmath>

using namespace Qt::StringLiterals;

namespace {

constexpr double kWeekdayBeyond = 72000;

// The pace in the sentence is written the same in every locale.
QString paceText(double pace)
{
    return QString::number(pace, 'f', pace >= 0.1 ? 1 : 2);
}

} // namespace

MeterReading MeterReading::read(
    const QString& name, const std::optional<UsageWindow>& window, const QDateTime& now, bool weekday)
{
    MeterReading reading;
    reading.name = name;
    reading.weekday = weekday;
    if (!window)
        return reading;
    const bool stale = window->resetsAt && TimeWords::secondsFrom(now, *window->resetsAt) <= 0;
    reading.used = stale ? 0.0 : std::max(0.0, window->pct);
    if (window->resetsAt) {
        reading.resetIn = std::max(0.0, TimeWords::secondsFrom(now, *window->resetsAt));
        if (!stale)
            reading.resetAt = window->resetsAt;
    }
    return reading;
}

void MeterReading::applyPace(const Rate& rate, const QDateTime& now)
{
    if (!used || *used >= 100 || !rate.perMinute || !(*rate.perMinute >= 0.005))
        return;
    // A window with a reset behind it is stale: it has started over.
    if (resetIn && !resetAt)
        return;
    const double perMinute = *rate.perMinute;
    pace = perMinute;
    const qint64 nowMs = now.toMSecsSinceEpoch();
    const qint64 baseMs = rate.observedAt ? std::min(nowMs, rate.observedAt->msecsSinceEpoch) : nowMs;

    std::optional<double> limitAfterBase;
    if (rate.etaMs) {
        projected = 100.0;
        limitAfterBase = *rate.etaMs / 1000.0;
    } else if (resetAt) {
        const double span = double(resetAt->msecsSinceEpoch - baseMs) / 1000.0;
        const double p = *used + perMinute * span / 60.0;
        if (p >= 100) {
            projected = 100.0;
            limitAfterBase = (100.0 - *used) / perMinute * 60.0;
        } else {
            projected = p;
        }
    }

    if (rate.limitAt && (!resetAt || *rate.limitAt < *resetAt)) {
        limitFirst = true;
        projected = 100.0;
        limitIn = std::max(0.0, TimeWords::secondsFrom(now, *rate.limitAt));
    } else if (limitAfterBase) {
        limitFirst = true;
        limitIn = std::max(0.0, double(baseMs - nowMs) / 1000.0 + *limitAfterBase);
    }
}

std::optional<MeterReading::Tag> MeterReading::tag() const
{
    if (limitFirst && limitIn)
        return Tag{Tag::Kind::Limit, *limitIn, {}};
    if (weekday && resetAt && resetIn && *resetIn > kWeekdayBeyond)
        return Tag{Tag::Kind::ResetOn, 0, *resetAt};
    if (resetIn)
        return Tag{Tag::Kind::Reset, *resetIn, {}};
    return std::nullopt;
}

QString MeterReading::sentence(const QDateTime& now, const QLocale& locale) const
{
    if (!used)
        return name + u" not measured yet."_s;
    const std::optional<Tag> shown = tag();
    QString when;
    if (shown && shown->kind == Tag::Kind::ResetOn)
        when = u"on "_s + TimeWords::fullWeekdayAtTime(shown->at, now, locale);
    else if (resetIn && *resetIn > 0)
        when = u"in "_s + TimeWords::durationWords(*resetIn);

    if (*used >= 100)
        return when.isEmpty() ? name + u": limit reached."_s : u"%1: limit reached, resets %2."_s.arg(name, when);
    const QString pct = QString::number(qint64(std::round(std::clamp(*used, 0.0, 100.0))));
    const QString head = u"%1 %2% used"_s.arg(name, pct);
    if (pace && !when.isEmpty()) {
        const QString spending = u"%1, spending %2% a minute: at this pace "_s.arg(head, paceText(*pace));
        if (limitFirst && limitIn) {
            return spending
                + u"you reach the limit in about %1, before the reset %2."_s.arg(
                    TimeWords::durationWords(*limitIn), when);
        }
        return spending + u"it lasts until the reset %1."_s.arg(when);
    }
    if (!when.isEmpty())
        return u"%1, resets %2."_s.arg(head, when);
    return head + u'.';
}

namespace MeterWords {

double tagSeconds(double seconds)
{
    if (!std::isfinite(seconds))
        return 60;
    return std::max(60.0, std::ceil(seconds / 60.0) * 60.0);
}

MeterLook look(const MeterReading& reading, const QDateTime& now, const QLocale& locale)
{
    MeterLook look;
    if (reading.used) {
        const double used = *reading.used;
        look.percent = QString::number(qint64(std::floor(std::min(used, 1e12)))) + u'%';
        look.percentInk = used >= 100 ? Ink::Red : Ink::Text;
        look.barInk = used >= 100 ? Ink::Red : used >= 80 ? Ink::Amber : Ink::Green;
        look.fill = std::clamp(used / 100.0, 0.0, 1.0);
        if (reading.projected && *reading.projected - used >= 0.5)
            look.ghost = std::clamp(*reading.projected / 100.0, 0.0, 1.0);
    } else {
        look.percent = u"—"_s;
    }
    if (const std::optional<MeterReading::Tag> tag = reading.tag()) {
        switch (tag->kind) {
        case MeterReading::Tag::Kind::Limit:
            look.tagText = TimeWords::compactDuration(tagSeconds(tag->seconds));
            look.tagInk = Ink::Red;
            look.limitGlyph = true;
            break;
        case MeterReading::Tag::Kind::Reset:
            look.tagText = tag->seconds > 0 ? TimeWords::compactDuration(tagSeconds(tag->seconds)) : u"now"_s;
            break;
        case MeterReading::Tag::Kind::ResetOn:
            look.tagText = TimeWords::weekdayTime(tag->at, now, locale);
            break;
        }
    }
    return look;
}

} // namespace MeterWords

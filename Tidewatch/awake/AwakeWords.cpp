#include "awake/AwakeWords.h"

#include "text/Machine.h"
#include "text/TimeWords.h"

#include <algorithm>
#include <cmath>

using namespace Qt::StringLiterals;

namespace AwakeWords {

namespace {

bool heldByOther(const Awake& awake)
{
    return awake.sleepDisabledBy == u"other"_s;
}

QString otherName(const Awake& awake)
{
    return awake.otherApp && !awake.otherApp->trimmed().isEmpty() ? awake.otherApp->trimmed() : u"another app"_s;
}

QString stillKept(const Awake& awake)
{
    return u", but %1 is still keeping %2 awake"_s.arg(otherName(awake), machine::yourMachine());
}

QString untilSleep(const Awake& awake, const QDateTime& now)
{
    return duration(TimeWords::secondsFrom(now, *awake.sleepAt));
}

} // namespace

bool isWarning(const Awake& awake)
{
    return awake.sleepAt.has_value();
}

bool isReleased(const Awake& awake)
{
    return !awake.holding && !awake.sleepAt && (awake.reason == u"battery"_s || awake.reason == u"hot"_s);
}

bool isHighlighted(const Awake& awake)
{
    return isWarning(awake) || isReleased(awake) || awake.reason == u"setup"_s;
}

QString duration(double seconds)
{
    const qint64 s = std::isfinite(seconds) && seconds > 0 ? std::llround(std::min(seconds, 1e12)) : 0;
    if (s < 60)
        return u"%1 seconds"_s.arg(s);
    if (s < 90)
        return u"1 minute"_s;
    return u"%1 minutes"_s.arg(std::llround(double(s) / 60));
}

std::optional<QString> extendLabel(const Awake& awake, const QDateTime& now)
{
    if (!awake.extendable || awake.mode != Awake::Mode::Backpack || !awake.until)
        return std::nullopt;
    const double left = TimeWords::secondsFrom(now, *awake.until);
    if (!(left > 0))
        return std::nullopt;
    return u"Backpack ends in "_s + duration(left);
}

QString phrase(const Awake& awake, const QDateTime& now)
{
    if (awake.sleepAt)
        return (heldByOther(awake) ? u"lets go in "_s : u"sleeps in "_s) + untilSleep(awake, now);
    if (awake.mode == Awake::Mode::Off)
        return u"off"_s;
    if (isReleased(awake))
        return heldByOther(awake) ? u"kept awake by "_s + otherName(awake) : u"letting it sleep"_s;
    if (awake.holding)
        return awake.lidClosed.value_or(false) ? u"awake with the lid closed"_s : u"awake"_s;
    return u"sleeps when idle"_s;
}

std::optional<QString> reasonWords(const Awake& awake, const std::optional<Battery>& battery)
{
    const QString reason = awake.reason.value_or(QString());
    if (reason == u"battery"_s) {
        if (!battery)
            return u"battery low"_s;
        return u"battery %1%"_s.arg(std::llround(battery->percent));
    }
    if (reason == u"hot"_s)
        return u"it’s running hot"_s;
    if (reason == u"time"_s)
        return u"8 hours are up"_s;
    return std::nullopt;
}

std::optional<AwakeLine> sentence(
    const Awake& awake, const QDateTime& now, const std::optional<Battery>& battery, const QLocale& locale)
{
    const std::optional<QString> why = reasonWords(awake, battery);
    if (awake.sleepAt) {
        const QString d = untilSleep(awake, now);
        if (heldByOther(awake) && awake.reason == u"time"_s)
            return AwakeLine{u"Backpack ends in "_s + d + stillKept(awake), true};
        if (heldByOther(awake)) {
            return AwakeLine{
                u"Tidewatch lets go in "_s + d + (why ? u" ("_s + *why + u')' : QString()) + stillKept(awake), true};
        }
        return AwakeLine{machine::YourMachine() + u" will sleep in "_s + d + (why ? u": "_s + *why : QString()), true};
    }
    if (isReleased(awake) && heldByOther(awake)) {
        const QString how = awake.reason == u"battery"_s
            ? u" at %1%"_s.arg(battery ? std::llround(battery->percent) : awake.minBattery)
            : u": it’s running hot"_s;
        return AwakeLine{u"Tidewatch let go"_s + how + stillKept(awake), true};
    }
    if (isReleased(awake)) {
        if (awake.reason == u"battery"_s)
            return AwakeLine{u"Letting it sleep: %1. Plug it in to keep it awake."_s.arg(*why), true};
        return AwakeLine{u"Letting it sleep: %1. It carries on once it cools down."_s.arg(*why), true};
    }
    if (awake.mode == Awake::Mode::Backpack) {
        if (awake.reason == u"setup"_s)
            return AwakeLine{u"Backpack mode’s permission is gone. Set it up again in Settings."_s, true};
        if (awake.reason == u"failed"_s)
            return AwakeLine{u"macOS didn’t take the lid-closed setting. Tidewatch tries again in a moment."_s, true};
        if (awake.holding && awake.until) {
            return AwakeLine{u"Awake with the lid closed until %1. It sleeps at %2% battery."_s
                                 .arg(TimeWords::clockTime(*awake.until, now, locale))
                                 .arg(awake.minBattery),
                false};
        }
    }
    return std::nullopt;
}

MinBatteryControl minBatteryControl(qint64 value)
{
    return MinBatteryControl{value, value < 50, value >= 6, u"Let it sleep at %1 percent battery"_s.arg(value)};
}

QString minBatteryCaption()
{
    return u"Below this, on its own battery, Tidewatch stops keeping %1 awake (2 minutes’ warning first)."_s.arg(
        machine::thisMachine());
}

QString modeTitle(Awake::Mode mode)
{
    switch (mode) {
    case Awake::Mode::Working:
        return u"While working"_s;
    case Awake::Mode::Backpack:
        return u"Backpack"_s;
    case Awake::Mode::Off:
        break;
    }
    return u"Off"_s;
}

QString modeHelp(Awake::Mode mode)
{
    switch (mode) {
    case Awake::Mode::Working:
        return u"Awake while sessions, agents or automations run, or a phone or the glasses are connected; it sleeps "
               u"as usual after."_s;
    case Awake::Mode::Backpack:
        return u"Awake with the lid closed, on battery, for up to 8 hours: Tidewatch keeps working in your bag."_s;
    case Awake::Mode::Off:
        break;
    }
    return u"Tidewatch never keeps %1 awake; it sleeps as macOS decides."_s.arg(machine::thisMachine());
}

bool backpackSetUp(const Awake& awake, bool ruleFileExists)
{
    return awake.backpackReady || ruleFileExists;
}

BackpackOffer backpackOffer(qint64 minBattery)
{
    return {u"Keep working with the lid closed."_s,
        u"Backpack mode keeps "_s + machine::thisMachine()
            + u" awake in your bag, on battery, for up to 8 hours, and lets it sleep at "_s
            + QString::number(minBattery)
            + u"% battery or if it runs hot. Your phone and glasses hear 2 minutes before.\n\nmacOS keeps a closed Mac "
              u"awake only with your password, once: Tidewatch adds a rule that lets it turn sleep off and back on, "
              u"and nothing else."_s,
        u"Enable Backpack mode"_s, u"Setting up…"_s, u"Not now"_s};
}

QString settingsCaption()
{
    return u"While working keeps it awake while sessions, agents or automations run, or a phone or the glasses are "
           u"connected. Backpack also keeps it awake with the lid closed, for up to 8 hours."_s;
}

QString permissionCaption(bool setUp)
{
    return setUp ? u"Removes the rule that lets Tidewatch turn sleep off. Asks for your password."_s
                 : u"Asks for your password once, to let Tidewatch keep %1 awake with the lid closed."_s.arg(
                     machine::thisMachine());
}

} // namespace AwakeWords

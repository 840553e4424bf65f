#include "surface/words/BatteryWords.h"

#include "text/Machine.h"
#include "text/TimeWords.h"

#include <cmath>

using namespace Qt::StringLiterals;

namespace BatteryWords {

namespace {

QString plugIn()
{
    return u"Plug it in or its sessions stop."_s;
}

} // namespace

std::optional<BatteryLine> line(const Battery& battery)
{
    const bool charging = battery.charging.value_or(false);
    const bool onCharger = battery.onAC.value_or(false);
    const bool low = battery.percent <= kLowPercent;
    if (charging || (!low && !onCharger))
        return std::nullopt;
    BatteryLine said;
    said.help = u"Your sessions run on %1, so they stop if it sleeps or shuts down."_s.arg(machine::thisMachine());
    said.critical = battery.percent <= kCriticalPercent;
    // A charger that doesn't keep up is a weak one when the battery is low, a resting one otherwise.
    if (onCharger)
        said.text = low ? u"Use a stronger charger or its sessions stop."_s : u"It’s plugged in but not charging."_s;
    else
        said.text = plugIn();
    if (battery.minutesLeft && *battery.minutesLeft > 0 && !(onCharger && !low))
        said.time = TimeWords::compactDuration(*battery.minutesLeft * 60) + u" left at this rate."_s;
    return said;
}

QString notification(const Battery& battery)
{
    return u"%1 is at %2%. "_s.arg(machine::YourMachine()).arg(std::lround(battery.percent)) + plugIn();
}

} // namespace BatteryWords

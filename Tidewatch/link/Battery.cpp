#include "link/Battery.h"

#include <algorithm>

using namespace Qt::StringLiterals;

std::optional<Battery> Battery::fromJson(const QJsonValue& value)
{
    const std::optional<Lenient::Fields> fields = Lenient::Fields::open(value);
    if (!fields)
        return std::nullopt;
    const std::optional<double> percent = fields->number("percent"_L1);
    if (!percent)
        return std::nullopt;
    Battery battery;
    battery.percent = std::clamp(*percent, 0.0, 100.0);
    battery.charging = fields->boolean("charging"_L1);
    battery.onAC = fields->boolean("onAC"_L1);
    battery.minutesLeft = fields->number("minutesLeft"_L1);
    return battery;
}

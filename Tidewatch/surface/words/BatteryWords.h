#pragma once

#include "link/Battery.h"

#include <QString>

#include <optional>

/// The line under the header when the battery puts the sessions at risk.
struct BatteryLine {
    QString text;
    /// "3h 12m left at this rate."; empty when the system gives no time.
    QString time;
    QString help;
    /// Nearly empty: the glyph shows no charge at all.
    bool critical = false;
    bool operator==(const BatteryLine&) const = default;
};

namespace BatteryWords {

/// At or under this, on its own battery, the line shows.
inline constexpr double kLowPercent = 20;
/// At or under this the glyph is the empty one.
inline constexpr double kCriticalPercent = 10;

/// None while the battery needs no saying: charging, or well charged and not on a charger that fails to charge it.
std::optional<BatteryLine> line(const Battery& battery);
/// The notification's words: "Your Mac is at 18%. Plug it in or its sessions stop."
QString notification(const Battery& battery);

} // namespace BatteryWords

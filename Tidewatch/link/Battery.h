#pragma once

#include "link/Lenient.h"

#include <optional>

/// The Mac's battery.
struct Battery {
    /// 0 to 100.
    double percent = 0;
    std::optional<bool> charging;
    std::optional<bool> onAC;
    std::optional<double> minutesLeft;

    /// None without a numeric `percent`; a percent out of range is clamped.
    static std::optional<Battery> fromJson(const QJsonValue& value);
    bool operator==(const Battery&) const = default;
};

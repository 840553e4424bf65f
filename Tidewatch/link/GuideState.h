#pragma once

#include "link/Lenient.h"

#include <QString>

#include <optional>

/// Where the glasses' guide stands.
struct GuideState {
    QString step;
    bool seen = false;
    bool done = false;

    /// None unless all three fields read.
    static std::optional<GuideState> fromJson(const QJsonValue& value);
    bool operator==(const GuideState&) const = default;
};

#pragma once

#include "link/Lenient.h"

#include <QString>

#include <optional>

/// The reply of /v1/health.
struct Health {
    std::optional<bool> ok;
    std::optional<qint64> protocol;
    std::optional<QString> name;

    static std::optional<Health> fromJson(const QJsonValue& value);
    bool operator==(const Health&) const = default;
};

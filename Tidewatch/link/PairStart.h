#pragma once

#include "link/Lenient.h"

#include <QString>

#include <optional>

/// The reply to a pairing start.
struct PairStart {
    std::optional<QString> code;
    QString link;
    std::optional<FlexDate> expiresAt;
    std::optional<QString> url;

    /// None without a string `link`.
    static std::optional<PairStart> fromJson(const QJsonValue& value);
    bool operator==(const PairStart&) const = default;
};

#pragma once

#include "link/Lenient.h"

#include <QString>

#include <optional>

/// The speech-to-text setting of the service.
struct SttState {
    std::optional<QString> provider;
    bool ready = false;
    std::optional<QString> error;
    /// The last four characters of the key.
    std::optional<QString> last4;

    /// None without a boolean `ready`.
    static std::optional<SttState> fromJson(const QJsonValue& value);
    bool operator==(const SttState&) const = default;
};

#pragma once

#include "link/Lenient.h"

#include <QString>

#include <optional>

/// Claude Code as the service sees it.
struct ClaudeAgent {
    std::optional<bool> available;
    std::optional<QString> version;

    static std::optional<ClaudeAgent> fromJson(const QJsonValue& value);
    bool operator==(const ClaudeAgent&) const = default;
};

#pragma once

#include <QString>

#include <compare>
#include <optional>

/// A Node.js version as `--version` and the release index write it.
struct NodeVersion {
    int major = 0;
    int minor = 0;
    int patch = 0;

    /// "v22.18.0", "22.18", "22.18.1-rc1"; none without a minor or with no
    /// leading number.
    static std::optional<NodeVersion> parse(const QString& text);

    /// The oldest Node.js the service runs on.
    static const NodeVersion floor;
    bool meetsFloor() const { return *this >= floor; }

    QString toString() const;

    // NOLINTNEXTLINE(modernize-use-nullptr): clang-tidy 14 flags the 0 of the defaulted comparison itself
    auto operator<=>(const NodeVersion&) const = default;
};

inline const NodeVersion NodeVersion::floor{22, 18, 0};

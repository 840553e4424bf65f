#pragma once

#include <QDateTime>
#include <QHashFunctions>
#include <QJsonValue>
#include <QStringView>

#include <compare>
#include <optional>

/// A moment from the service, kept to the millisecond. Read from epoch seconds,
/// epoch milliseconds (numbers above 1e11), the same as a numeric string, or ISO
/// 8601 with or without fractional seconds. Equal, ordered and hashed by moment.
struct FlexDate {
    /// Milliseconds since 1970-01-01T00:00:00Z.
    qint64 msecsSinceEpoch = 0;

    static FlexDate fromMSecsSinceEpoch(qint64 msecs) { return FlexDate{msecs}; }
    /// An invalid date time gives the moment 0.
    static FlexDate fromDateTime(const QDateTime& moment);

    /// The moment in UTC.
    QDateTime toDateTime() const;
    double toSecsSinceEpoch() const { return double(msecsSinceEpoch) / 1000.0; }

    /// A JSON number or string; none for anything else and for a moment
    /// outside ±100,000,000 days of 1970.
    static std::optional<FlexDate> fromJson(const QJsonValue& value);
    /// Seconds, or milliseconds when above 1e11.
    static std::optional<FlexDate> fromNumber(double number);
    /// A whole-string number (no blank before it) as fromNumber, else ISO 8601
    /// with a zone: "2025-10-09T10:53:20Z", "…20.123+02:00", "…20-0530".
    static std::optional<FlexDate> fromString(QStringView text);

    // NOLINTNEXTLINE(modernize-use-nullptr): clang-tidy 14 flags the 0 of the defaulted comparison itself
    auto operator<=>(const FlexDate&) const = default;
};

inline size_t qHash(const FlexDate& date, size_t seed = 0) noexcept
{
    return qHash(date.msecsSinceEpoch, seed);
}

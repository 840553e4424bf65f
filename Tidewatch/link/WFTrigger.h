#pragma once

#include "link/JsonWriter.h"
#include "link/Lenient.h"

#include <QList>
#include <QString>
#include <QStringList>

#include <optional>
#include <variant>

/// A trigger's time: a clock time such as "09:00", or an instant in
/// milliseconds since 1970.
struct WFAt {
    std::variant<QString, double> value;

    /// A string first, then a number; none for anything else.
    static std::optional<WFAt> fromJson(const QJsonValue& value);
    /// The clock as a string, the instant as a whole number. An instant that
    /// isn't finite or doesn't fit 64 bits is a programming fault and stops
    /// the program rather than send nonsense.
    void write(JsonWriter& out) const;
    const QString* clock() const { return std::get_if<QString>(&value); }
    bool operator==(const WFAt&) const = default;
};

/// When an automation starts. Read whole, whatever its kind; sent with only
/// the keys its kind sends, so that a kind this app has no form for still
/// survives an edit of the steps.
struct WFTrigger {
    QString kind;
    std::optional<WFAt> at;
    /// The service's weekday numbers, passed through.
    std::optional<QList<qint64>> days;
    std::optional<qint64> hours;
    std::optional<QString> from;
    std::optional<QString> to;
    std::optional<QString> window;
    std::optional<bool> afterLimit;
    std::optional<QString> event;
    std::optional<QString> projectPath;
    std::optional<qint64> below;
    std::optional<QString> expr;
    std::optional<QString> path;
    std::optional<QString> glob;
    std::optional<QString> repoPath;
    std::optional<QStringList> events;
    /// Minutes between looks on GitHub.
    std::optional<qint64> every;
    std::optional<QString> tool;
    // A saved webhook trigger's own: read, never sent.
    std::optional<QString> last4;
    std::optional<FlexDate> createdAt;
    std::optional<QString> url;
    std::optional<QString> command;

    /// None without a kind.
    static std::optional<WFTrigger> fromJson(const QJsonValue& value);
    void write(JsonWriter& out) const;
    bool operator==(const WFTrigger&) const = default;
};

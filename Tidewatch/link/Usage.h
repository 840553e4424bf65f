#pragma once

#include "link/Lenient.h"

#include <QList>
#include <QString>

#include <optional>

/// One usage window: how much of it is gone and when it starts afresh.
struct UsageWindow {
    /// Percent used; always finite.
    double pct = 0;
    std::optional<FlexDate> resetsAt;

    /// None without a finite `pct`.
    static std::optional<UsageWindow> fromJson(const QJsonValue& value);
    bool operator==(const UsageWindow&) const = default;
};

/// The window of one model family.
struct ModelWindow {
    QString label;
    double pct = 0;
    std::optional<FlexDate> resetsAt;

    /// None without a string `label` and a numeric `pct`.
    static std::optional<ModelWindow> fromJson(const QJsonValue& value);
    bool operator==(const ModelWindow&) const = default;
};

/// How fast the windows fill.
struct UsageRate {
    /// Percent a minute.
    std::optional<double> fiveHour;
    std::optional<double> sevenDay;
    /// Milliseconds to the limit.
    std::optional<double> fiveHourEtaMs;
    std::optional<double> sevenDayEtaMs;
    std::optional<FlexDate> fiveHourLimitAt;
    std::optional<FlexDate> sevenDayLimitAt;

    static std::optional<UsageRate> fromJson(const QJsonValue& value);
    bool operator==(const UsageRate&) const = default;
};

/// Claude Code's usage windows.
struct Usage {
    /// Whether the last probe of the numbers worked.
    struct Probe {
        std::optional<bool> ok;
        std::optional<FlexDate> since;

        static std::optional<Probe> fromJson(const QJsonValue& value);
        bool operator==(const Probe&) const = default;
    };

    std::optional<UsageWindow> fiveHour;
    std::optional<UsageWindow> sevenDay;
    /// The model windows that read; others are dropped.
    std::optional<QList<ModelWindow>> models;
    std::optional<UsageRate> rate;
    /// "official", "none", "stale", or a newer word.
    std::optional<QString> source;
    std::optional<FlexDate> observedAt;
    std::optional<bool> modelsStale;
    std::optional<Probe> probe;

    static std::optional<Usage> fromJson(const QJsonValue& value);
    bool operator==(const Usage&) const = default;
};

#pragma once

#include "link/Usage.h"

#include <QDateTime>

#include <optional>

/// When the read loop reads next and what the read includes, decided from the
/// model's state and now alone. The feed keeps the model current and the loop
/// keeps it honest: while the feed lives the loop idles, and when it dies the
/// next read comes within seconds.
struct ReadPace {
    /// A live feed is believed over a failed health probe while its last frame is younger than this.
    static constexpr double feedFreshSeconds = 30;
    /// A live feed silent this long is read behind at once.
    static constexpr double silenceSeconds = 30;
    /// The shortest sleep between two decisions.
    static constexpr double shortestNap = 0.05;
    static constexpr double nudgeEvery = 2;
    static constexpr double usageAskEvery = 300;
    static constexpr double usageOldAfter = 300;
    static constexpr double claudeLookEvery = 600;

    /// A failing run is under way: a failed probe while the feed was believed.
    bool failing = false;
    bool feedLive = false;
    bool popoverVisible = false;
    /// When the last read ended (1970 before the first).
    QDateTime lastRead = QDateTime::fromMSecsSinceEpoch(0, Qt::UTC);
    /// When the last read that included the status ended.
    QDateTime lastStatus = QDateTime::fromMSecsSinceEpoch(0, Qt::UTC);
    /// The last frame of the feed's current connection; none while nothing was heard.
    std::optional<QDateTime> heardAt;

    /// Seconds between reads: 2 while failing; with the feed live 6 shown, 60
    /// hidden; with it dead 1.5 shown, 5 hidden.
    double interval() const;
    /// When the next read is due: lastRead + interval(), or, when a live feed
    /// falls silent for 30 seconds, that moment if no read has come since.
    QDateTime due() const;
    /// Seconds between reads that include the status: 6 shown, else 60 with
    /// the feed live, else 30.
    double statusInterval() const;
    /// Whether this read includes the status.
    bool withStatus(bool statusNow, const QDateTime& now) const;
    /// How long to sleep before deciding again; none when a read runs now.
    std::optional<double> nap(bool readNow, const QDateTime& now) const;

    /// The feed still counts as proof of life for a failed probe.
    static bool feedBelieved(const std::optional<QDateTime>& heardAt, const QDateTime& now);
    /// A feed message on an incomplete picture asks for a read, at most every 2 seconds and never beside one.
    static bool nudgeWanted(bool pictureIncomplete, int reading, const QDateTime& lastNudge, const QDateTime& now);
    /// Opening the popover asks the service to refresh usage that is stale or
    /// older than 5 minutes, at most every 5 minutes.
    static bool usageRefreshWanted(const std::optional<Usage>& usage, const QDateTime& lastAsk, const QDateTime& now);
    /// A local look for Claude Code is due: the service says it isn't here and
    /// no look has been made in ten minutes.
    static bool claudeLookDue(
        bool serviceSaysNoClaude, bool looking, const std::optional<QDateTime>& lastLook, const QDateTime& now);
};

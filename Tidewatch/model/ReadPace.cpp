#include "model/ReadPace.h"

#include <algorithm>

namespace {

QDateTime after(const QDateTime& moment, double seconds)
{
    return moment.addMSecs(qint64(seconds * 1000));
}

double secondsBetween(const QDateTime& from, const QDateTime& to)
{
    return double(from.msecsTo(to)) / 1000.0;
}

} // namespace

double ReadPace::interval() const
{
    if (failing)
        return 2.0;
    if (feedLive)
        return popoverVisible ? 6.0 : 60.0;
    return popoverVisible ? 1.5 : 5.0;
}

QDateTime ReadPace::due() const
{
    QDateTime paced = after(lastRead, interval());
    if (!feedLive || !heardAt)
        return paced;
    // Only the first read of a silent stretch is pulled forward: once one has
    // ended after the silence began, the ordinary pace holds again.
    const QDateTime silence = after(*heardAt, silenceSeconds);
    if (lastRead < silence)
        return std::min(paced, silence);
    return paced;
}

double ReadPace::statusInterval() const
{
    if (popoverVisible)
        return 6.0;
    return feedLive ? 60.0 : 30.0;
}

bool ReadPace::withStatus(bool statusNow, const QDateTime& now) const
{
    return statusNow || now >= after(lastStatus, statusInterval());
}

std::optional<double> ReadPace::nap(bool readNow, const QDateTime& now) const
{
    const QDateTime next = due();
    if (readNow || now >= next)
        return std::nullopt;
    return std::max(shortestNap, secondsBetween(now, next));
}

bool ReadPace::feedBelieved(const std::optional<QDateTime>& heardAt, const QDateTime& now)
{
    return heardAt && secondsBetween(*heardAt, now) < feedFreshSeconds;
}

bool ReadPace::nudgeWanted(bool pictureIncomplete, int reading, const QDateTime& lastNudge, const QDateTime& now)
{
    return pictureIncomplete && reading == 0 && secondsBetween(lastNudge, now) >= nudgeEvery;
}

bool ReadPace::usageRefreshWanted(const std::optional<Usage>& usage, const QDateTime& lastAsk, const QDateTime& now)
{
    if (!usage || secondsBetween(lastAsk, now) < usageAskEvery)
        return false;
    if (usage->source == QStringLiteral("stale"))
        return true;
    return usage->observedAt && secondsBetween(usage->observedAt->toDateTime(), now) > usageOldAfter;
}

bool ReadPace::claudeLookDue(
    bool serviceSaysNoClaude, bool looking, const std::optional<QDateTime>& lastLook, const QDateTime& now)
{
    if (!serviceSaysNoClaude || looking)
        return false;
    return !lastLook || secondsBetween(*lastLook, now) > claudeLookEvery;
}

#pragma once

#include "link/WFRun.h"
#include "link/WFStep.h"

#include <QList>
#include <QString>

#include <optional>

/// The run list's decisions that need no screen: how often a row redraws,
/// whether it offers a retry, and where a retry starts.
namespace RunTimeline {

/// Queued, waiting, running or needing the user.
bool isAtWork(const QString& state);
/// Seconds between redraws of a run's row: 1 while it works, else 60.
int tickSeconds(const QString& state);
/// A run that failed, was skipped or was stopped offers "Retry".
bool offersRetry(const QString& state);

/// Where a retry starts: at once from the start, or after asking whether
/// to keep the steps before `index`.
struct Retry {
    /// The step to offer, from 0; none retries from the start at once.
    std::optional<qsizetype> index;
    /// That step's id, sent as `fromStep`.
    QString stepId;

    bool operator==(const Retry&) const = default;
};
/// Asks only when the first failed or stopped step isn't the first and is
/// still among the automation's steps now.
Retry retry(const WFRun& run, const QList<WFStep>& steps);

} // namespace RunTimeline

#pragma once

#include "link/WFAutomation.h"
#include "workflows/WorkflowWords.h"

#include <QDateTime>
#include <QList>
#include <QLocale>
#include <QString>

#include <optional>

namespace WorkflowWords {

/// Why a step went wrong, by its reason; `codex` tells that it ran on Codex.
Result failure(const WFRunStep& step, bool codex);
/// Why a run went wrong, by its own reason.
Result failure(const WFRun& run, bool codex);

/// A step of a run: "Working for 1m 30s", "Exited 1: npm ERR! boom".
Result stepResult(const WFRunStep& step, const QDateTime& now, bool codex);
/// How telling one place went: "Sent", "Didn’t go: Slack answered 404.".
Result outputResult(const WFRunOutput& output);
/// What came of a run: "In line", "Asking: Post this review?", "Done".
Result runResult(const WFRun& run, const QDateTime& now, bool codex);

/// A run step's title in the timeline, from the step configured with its id
/// now; the kind's name for a message step or one that is gone.
QString timelineTitle(const WFRunStep& step, const QList<WFStep>& configured);
/// A run output's name, from the output configured with its id now.
QString timelineOutputName(const WFRunOutput& output, const QList<WFOutput>& configured);
/// A step's time at work, from its start to its end or `now`; none before it
/// started, and for a step pending or skipped.
std::optional<QString> stepDuration(const WFRunStep& step, const QDateTime& now);

/// When a run started: "Today 9:00 AM", or the weekday and time.
QString runTime(const FlexDate& startedAt, const QDateTime& now, const QLocale& locale);
/// The label beside a run that retries another: "A retry".
QString retryLabel();
/// The label above a run's outputs: "Told".
QString toldLabel();
/// The button of a run that went wrong: "Retry".
QString retryButton();
/// The Runs section's count: "12 runs", or "none yet".
QString runsCount(std::optional<qint64> runCount);
/// The Runs section with no run in the list: "None yet.".
QString noRuns();

/// The question of a retry from step `number` (from 1): keep what the steps
/// before it said, or run it all again.
struct RetryDialog {
    QString kicker;
    QString title;
    QString body;
    /// Retries from the step.
    QString confirm;
    /// Retries from the start.
    QString second;

    bool operator==(const RetryDialog&) const = default;
};
RetryDialog retryDialog(qsizetype number);

} // namespace WorkflowWords

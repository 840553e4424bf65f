#pragma once

#include "link/DaemonError.h"
#include "link/WFRun.h"
#include "workflows/WFAskItem.h"

#include <QDateTime>
#include <QString>

#include <optional>

// The automations' vocabulary, in this file and in TriggerWords, StepWords
// and RunWords: pure functions from the records to sentences.
namespace WorkflowWords {

/// What a result line means; it picks the line's mark and colour.
enum class Tone { Ok, Quiet, Skipped, Failed, Stopped, Active, Alert, Pending };

/// The words of a step, an output or a run, with their tone.
struct Result {
    QString text;
    Tone tone = Tone::Ok;
    /// A second line, such as "From the run it retried".
    std::optional<QString> note;

    bool operator==(const Result&) const = default;
};

/// One line of at most `max` characters: line ends become single spaces,
/// and a longer text is cut at its last space and ends in "…".
QString clip(const QString& text, qsizetype max);

/// The last line that holds something, trimmed and clipped to 80; none for
/// a text without one.
std::optional<QString> lastLine(const QString& text);

/// A run's or a step's time at work: "45s", "3m 05s", "1h 05m".
QString span(double seconds);

/// The last component of a path: "p" of "/Users/me/p/".
QString lastComponent(const QString& path);

/// The default answer and the time left to it: "Skip in 9m", and in the last
/// two minutes in seconds, "Skip in 90s". None without a default.
std::optional<QString> countdown(const WFAskItem& ask, const QDateTime& now);

/// Who answered an ask, and what: "Answered Approve on your glasses".
/// `by` is "mac", "glasses", "timeout", or another surface's word.
QString answerWords(const QString& text, const std::optional<QString>& by);

/// A run that came back with a refused answer: "It was answered already: "
/// and the words of its first answered step, or "It was answered already.".
QString alreadyAnswered(const std::optional<WFRun>& run);

/// The sentence for one of the service's automation codes, such as
/// "bad_answer"; none for a code this app has no sentence for.
std::optional<QString> codeSentence(const QString& code);

/// The note of an answer that didn't go: "Couldn’t send your answer. " and
/// why, told gently when someone else answered first.
QString answerFailure(const DaemonError& error);

} // namespace WorkflowWords

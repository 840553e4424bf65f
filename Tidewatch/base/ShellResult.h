#pragma once

#include <QString>

/// What a finished child left behind. The streams are called out and err
/// because stdout and stderr are macros of the C library.
struct ShellResult {
    /// The exit code, or the signal's number when a signal ended it; -1 when
    /// the child couldn't start.
    int status = -1;
    /// Standard output, UTF-8 with invalid bytes repaired, trimmed at both
    /// ends. Empty also when a background process held the pipe past the end.
    QString out;
    /// Standard error, the same way; on a failed start, the system's
    /// description of why, untrimmed.
    QString err;
    /// The child outlived its time limit. Read this before status.
    bool timedOut = false;

    /// Output and error, each left out when empty, one line apart: what
    /// sentences and logs quote.
    QString combined() const;

    bool operator==(const ShellResult&) const = default;
};

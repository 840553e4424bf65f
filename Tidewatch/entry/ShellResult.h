#pragma once

#include <QString>

/// What a finished child left behind. `out` and `err` are its standard
/// output and error, UTF-8 with invalid bytes repaired, trimmed at both ends.
struct ShellResult {
    /// The exit status (the signal's number when a signal ended it); -1 when it couldn't start.
    int status = -1;
    QString out;
    /// On a failed start, the system's description of why, untrimmed.
    QString err;
    /// The child outlived its time limit. Read this before `status`.
    bool timedOut = false;

    /// Output and error, each left out when empty, one line apart: what
    /// sentences and logs quote.
    QString combined() const;

    bool operator==(const ShellResult&) const = default;
};

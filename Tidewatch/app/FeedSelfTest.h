#pragma once

#include "entry/Environment.h"

#include <QString>

#include <functional>

/// The refusal of a copy that isn't an isolated test copy.
QString feedSelfTestRefusal();

/// The feed's self-check: connects as the app does, prints one line per event
/// as it arrives ("live true", "live false", "message <t> <what>", "pong
/// sent"), listens `seconds` (0 means 10), and ends with one line, "OK: live,
/// N messages in S s" or "FAILED: …". With `signIn` it also starts Claude
/// Code’s sign-in on this computer and prints the account; with `open` it opens the
/// first session's terminal and prints the app. Gives 0 when the feed went
/// live, else 1. Runs its own event loop on the calling thread, and only in an
/// isolated test copy: the real install is never touched.
int runFeedSelfTest(double seconds, bool signIn, bool open);

/// The same on a given environment, each line handed to `print`.
int runFeedSelfTest(const Environment& environment, double seconds, bool signIn, bool open,
    const std::function<void(const QString&)>& print);

#pragma once

#include "ScratchFolder.h"

#include <QString>

#include <functional>

/// The service as the app ships it, made from daemon/ in a scratch folder:
/// its sources, hook program, package files, SDK pin, build stamp and the one
/// package it needs to run (ws), but no SDK, whatever the work tree holds.
/// Gives the folder.
QString makeServiceBundle(const ScratchFolder& scratch, const QString& relative);

/// The built program copied into a scratch folder as it is installed
/// (bin/Tidewatch beside share/tidewatch/daemon), so that the service it
/// ships is a bundle of the test's own. Gives the program's path.
QString installProgramCopy(const ScratchFolder& scratch, const QString& relative);

/// Runs work on a thread of its own while this thread's event loop goes on
/// (loopback sites in the test answer meanwhile); waits at most limitMs.
/// False when it didn't end in time.
bool runWhileServing(const std::function<void()>& work, int limitMs);

#pragma once

#include "entry/CommandLine.h"

#include <functional>

/// Does the one piece of work a one-shot switch asks for and gives the
/// process's exit code: 0 success, 1 failure, 64 usage.
int runOneShot(const CommandLine& line);

/// Runs work on the task pool while the calling thread waits on a semaphore,
/// and gives its code; 1 when the work ends without giving one.
int runOffMainThread(const std::function<int()>& work);

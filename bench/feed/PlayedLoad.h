#pragma once

/// Plays `sessions` Claude Code sessions of `calls` tool calls each through
/// the real service's hook route, at `rate` events a second (0: as fast as
/// the service takes them), with the app's feed and model receiving.
int runPlayedLoad(int sessions, int calls, double rate);

#pragma once

/// Measures the whole app against an idle service for `seconds` per state.
int runAppIdle(double seconds);

#pragma once

/// Runs a shell line through StreamingProcess that exercises every line rule
/// (LF, CR, CR LF, escapes, a last line without newline) while a background
/// child keeps the pipe open, prints each line and a verdict, and gives 0 when
/// the lines and the status came out as they must, else 1. Off the main thread.
int runStreamSelfTest();

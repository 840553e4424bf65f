#!/bin/sh
# Stands in for the codex program where only its login is asked for: it
# appends its arguments to FAKE_CODEX_RECORD as one line, says what the real
# one says when the browser sign-in succeeds, and ends with FAKE_CODEX_STATUS (0).
printf '%s\n' "$*" >> "${FAKE_CODEX_RECORD:?FAKE_CODEX_RECORD names where to record}"
[ "${FAKE_CODEX_STATUS:-0}" = 0 ] && echo "Successfully logged in"
exit "${FAKE_CODEX_STATUS:-0}"

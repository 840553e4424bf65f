#!/bin/sh
# Stands in for a terminal emulator (x-terminal-emulator -e SCRIPT): it keeps
# what it was given to open, then runs the script as the window would, with
# nobody at the keyboard. Everything goes beside FAKE_TERMINAL_RECORD:
#   .args    the arguments, one a line
#   .script  a copy of the script, as it was when the window opened
#   .out     what the window showed
#   .done    the script's exit status, written last
record=${FAKE_TERMINAL_RECORD:?FAKE_TERMINAL_RECORD names where to record}
printf '%s\n' "$@" > "$record.args.part" && mv "$record.args.part" "$record.args"
[ "$1" = "-e" ] && shift
cp "$1" "$record.script"
"$1" < /dev/null > "$record.out" 2>&1
printf '%s\n' "$?" > "$record.done.part" && mv "$record.done.part" "$record.done"

#!/usr/bin/env bash
# Runs the built tool as a user would and checks its report and exit status.
# Arguments: the command that runs the tool (an emulator and the program).
set -u
out=$(mktemp)
trap 'rm -f "$out"' EXIT
"$@" > "$out"
status=$?
fail=0
if [ "$status" -ne 0 ]; then
  echo "FAIL: exit status $status, expected 0"; fail=1
fi
# Windows text mode ends lines with CR LF; the report's lines are the same.
tr -d '\r' < "$out" > "$out.lf" && mv "$out.lf" "$out"
expected=$'HOSTkit information\n\n'
if [ "$(cat "$out"; echo x)" != "${expected}x" ]; then
  echo "FAIL: report differs from the expected text"; echo "--- got:"; cat -A "$out"; fail=1
fi
[ $fail -eq 0 ] && echo "report output: ok"
exit $fail

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
# The host block ends the report: its two lines, checked here for their form;
# tests/hostid/host_block_test.sh checks their values on machines made for it.
host_lines=$(tail -n 2 "$out")
if ! printf '%s\n' "$host_lines" | head -n 1 | grep -Eq '^Hostname {22} : HOSTNAME=' ||
   ! printf '%s\n' "$host_lines" | tail -n 1 |
     grep -Eq '^Hostid {24} : ([0-9a-f]{12}|"[0-9a-f]{12}( [0-9a-f]{12}){1,9}"|ffffffff)$'; then
  echo "FAIL: the host lines are missing or malformed"; printf '%s\n' "$host_lines" | cat -A; fail=1
fi
head -n -2 "$out" > "$out.head" && mv "$out.head" "$out"
expected=$'HOSTkit information\n\n'
if [ "$(cat "$out"; echo x)" != "${expected}x" ]; then
  echo "FAIL: report differs from the expected text"; echo "--- got:"; cat -A "$out"; fail=1
fi
[ $fail -eq 0 ] && echo "report output: ok"
exit $fail

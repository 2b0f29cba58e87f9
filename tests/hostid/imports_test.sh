#!/usr/bin/env bash
# The Windows tool loads its network libraries at run time: none of them may
# stand in its import table, or the program wouldn't start on a machine
# without them.
# Arguments: objdump, program.
set -u
objdump=$1 program=$2
imports=$("$objdump" -p "$program" | sed -n 's/^[[:space:]]*DLL Name: //p')
[ -n "$imports" ] || { echo "FAIL: no import table read from $program"; exit 1; }
echo "imports: $(echo $imports)"
if printf '%s\n' "$imports" | grep -Eiq '^(ws2_32|wsock32|iphlpapi|netapi32)\.dll$'; then
  echo "FAIL: a network library is imported at build time"
  exit 1
fi
echo "imports: ok"

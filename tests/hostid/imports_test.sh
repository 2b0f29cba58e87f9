#!/usr/bin/env bash
# The Windows tool loads its network libraries at run time: none of them may
# stand in its import table, or the program wouldn't start on a machine
# without them.
# Arguments: objdump, program.
imports=$("$1" -p "$2" | sed -n 's/^[[:space:]]*DLL Name: //p')
echo "imports:" $imports
[ -n "$imports" ] || { echo "FAIL: no import table read from $2" && exit 1; }
! grep -Eiq '^(ws2_32|wsock32|iphlpapi|netapi32)\.dll$' <<< "$imports" ||
  { echo "FAIL: a network library is imported at build time" && exit 1; }

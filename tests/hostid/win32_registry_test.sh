#!/usr/bin/env bash
# The physical test of the Windows build against a real registry: a Wine
# prefix of its own with adapter class entries added by `wine reg add`, then
# the test program in it.
# Arguments: wine-run script, test program.
set -u
wine_run=$1 program=$2
command -v wine > /dev/null || { echo "SKIP: wine is not installed"; exit 77; }
work=$(mktemp -d)
export WINEPREFIX=$work/prefix WINEARCH=win64 WINEDEBUG=-all
stop() { wineserver -k 2> /dev/null; wineserver -w 2> /dev/null; rm -rf "$work"; }
trap stop EXIT

"$wine_run" wineboot -i > /dev/null 2>&1
class='HKLM\SYSTEM\CurrentControlSet\Control\Class\{4D36E972-E325-11CE-BFC1-08002BE10318}'
add() {  # subkey instance [characteristics]
  "$wine_run" reg add "$class\\$1" /v NetCfgInstanceId /t REG_SZ /d "$2" /f > /dev/null || exit 1
  if [ $# -ge 3 ]; then
    "$wine_run" reg add "$class\\$1" /v Characteristics /t REG_DWORD /d "$3" /f > /dev/null || exit 1
  fi
}
add 9001 '{HOSTKIT-8001}' 0x8001
add 9002 '{HOSTKIT-8000}' 0x8000
add 9003 '{HOSTKIT-0084}' 0x84
add 9004 '{HOSTKIT-0001}' 0x1
add 9005 '{HOSTKIT-DUP}' 0x1
add 9006 '{HOSTKIT-DUP}' 0x4
add 9007 '{HOSTKIT-NOCH}'
add 9008 '{HOSTKIT-NOCH}' 0x4
# What the registry now holds, read back, so a failed add can't pass unseen.
"$wine_run" reg query "$class\\9001" /v Characteristics | tr -d '\r' | grep -q 0x8001 ||
  { echo "FAIL: the class entries were not written"; exit 1; }
"$wine_run" "$program"

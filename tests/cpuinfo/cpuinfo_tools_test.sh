#!/usr/bin/env bash
# The processor tools as a user runs them: cpuinfo-dump then cpuinfo-replay on
# this machine gives the processor block hostkit prints; hostkit pinned to one
# processor counts one of everything; cpuinfo-replay on lines of the machine
# table and its errors.
# Arguments: DATA_DIR HOSTKIT REPLAY DUMP [RUNNER]   (RUNNER: e.g. wine-run)
set -u
data=$1 hostkit=$2 replay=$3 dump=$4 runner=${5:-}
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
fail=0
run() { $runner "$@"; }
lf() { tr -d '\r'; }
check() {  # check NAME EXPECTED-FILE GOT-FILE
  if ! cmp -s "$2" "$3"; then
    echo "FAIL: $1"; diff "$2" "$3" | head -40; fail=1
  else
    echo "ok: $1"
  fi
}

# 1. Round trip on this machine. The processor block is what stands before the
# report's heading.
run "$hostkit" | lf > "$work/report" || { echo "FAIL: hostkit exit status"; fail=1; }
sed '/^HOSTkit information$/,$d' "$work/report" > "$work/block"
if run "$dump" "$work/machine"; then
  run "$replay" "$work/machine" | lf > "$work/replayed"
  check "dump then replay gives hostkit's processor block" "$work/block" "$work/replayed"
  # As many files as processors the system has online (up to 64).
  count=$(ls "$work/machine" | grep -c '^pu[0-9]*$')
  online=$(getconf _NPROCESSORS_ONLN)
  [ "$online" -gt 64 ] && online=64
  [ "$count" -eq "$online" ] || { echo "FAIL: $count processor files for $online processors"; fail=1; }
else
  echo "FAIL: cpuinfo-dump failed"; fail=1
fi

# 2. Pinned to processor 0 of several, the process mask differs from the
# system's: hostkit prints the block that the replay of this machine prints
# for a process restricted to processor 0, with no walk and counts of 1.
if [ "$(getconf _NPROCESSORS_ONLN)" -lt 2 ] || ! command -v taskset > /dev/null; then
  echo "skip: pinned run needs two processors and taskset"
else
  taskset -c 0 $runner "$hostkit" | lf | sed '/^HOSTkit information$/,$d' > "$work/pinned"
  run "$replay" --process-mask 1 "$work/machine" | lf > "$work/replayed.pinned"
  check "pinned run: the block of a restricted process" "$work/replayed.pinned" "$work/pinned"
fi

# 3. cpuinfo-replay prints the expected blocks of lines of the machine table
# (data/machines): a recorded machine, and a restricted process.
machine=$data/Intel-Core-2xXeon-E5345
run "$replay" "$machine" | lf > "$work/e5345"
check "replay of a recorded machine" "$machine.expected" "$work/e5345"
run "$replay" --process-mask 2 "$data/synthetic/four-packages" | lf > "$work/restricted"
check "replay with a restricted process" "$data/synthetic/four-packages.restricted.expected" "$work/restricted"

# 4. Help and version (0); bad arguments, folders that can't be read and
# malformed dumps, each breaking the format once (2), also a pu0 that isn't a
# regular file: a FIFO must not make it wait.
expect_status() {  # expect_status STATUS ARGS...
  local want=$1; shift
  timeout -k 5 20 $runner "$@" > /dev/null 2>&1
  local got=$?
  if [ "$got" -ne "$want" ]; then echo "FAIL: $* exited $got, expected $want"; fail=1; fi
}
for tool in "$replay" "$dump"; do
  expect_status 0 "$tool" --help
  expect_status 0 "$tool" --version
  expect_status 2 "$tool"
  expect_status 2 "$tool" --bogus
done
expect_status 2 "$replay" --process-mask
expect_status 2 "$replay" --process-mask zz "$machine"
expect_status 2 "$replay" --process-mask 0x100 "$machine"
expect_status 2 "$replay" --process-mask 1ffffffffffffffff "$machine"
expect_status 2 "$replay" a b
expect_status 2 "$replay" "$work/nothing-here"
for bad in "$data"/malformed/*/; do expect_status 2 "$replay" "$bad"; done
mkdir -p "$work/fifo" "$work/dir/pu0" && mkfifo "$work/fifo/pu0"
for dir in fifo dir; do expect_status 2 "$replay" "$work/$dir"; done
touch "$work/file" && expect_status 2 "$dump" "$work/file"

[ $fail -eq 0 ] && echo "cpuinfo tools: ok"
exit $fail

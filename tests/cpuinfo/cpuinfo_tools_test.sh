#!/usr/bin/env bash
# The processor tools as a user runs them: cpuinfo-dump then cpuinfo-replay on
# this machine gives the processor block hostkit prints; hostkit pinned to one
# processor counts one of everything; cpuinfo-replay on a recorded machine and
# its errors.
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
grep -qx "HOSTkit information" "$work/report" || { echo "FAIL: no heading in the report"; fail=1; }
if run "$dump" "$work/machine"; then
  [ -f "$work/machine/pu0" ] || { echo "FAIL: the dump wrote no pu0"; fail=1; }
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

# 2. Pinned to one processor of several: the process mask differs from the
# system's, nothing is counted.
if [ "$(getconf _NPROCESSORS_ONLN)" -lt 2 ]; then
  echo "skip: pinned run needs two processors"
elif ! command -v taskset > /dev/null; then
  echo "skip: pinned run needs taskset"
else
  taskset -c 0 $runner "$hostkit" | lf > "$work/pinned"
  sed -n '1,2p' "$work/pinned" > "$work/pinned.head"
  printf 'Begin CPU core counting\nNot all cpus enabled\n' > "$work/expected.head"
  check "pinned run: no walk" "$work/expected.head" "$work/pinned.head"
  grep -E '^(Logical CPUs|CPU Cores   |CPU sockets ) = ' "$work/pinned" > "$work/pinned.counts"
  printf 'Logical CPUs = 1\nCPU Cores    = 1\nCPU sockets  = 1\n' > "$work/expected.counts"
  check "pinned run: counts of 1" "$work/expected.counts" "$work/pinned.counts"
fi

# 3. A recorded machine: two E5345 packages of four cores (class 7, 8 logical,
# 8 cores, 2 sockets), then restricted to processors 1 and 2.
machine=$data/Intel-Core-2xXeon-E5345
run "$replay" "$machine" | lf | tail -n 4 > "$work/e5345"
printf 'VEGRA CPU id = 7\nLogical CPUs = 8\nCPU Cores    = 8\nCPU sockets  = 2\n' > "$work/expected"
check "replay of a recorded machine" "$work/expected" "$work/e5345"
run "$replay" --process-mask 0x6 "$machine" | lf > "$work/restricted"
sed -n '1,2p' "$work/restricted" > "$work/restricted.head"
printf 'Begin CPU core counting\nNot all cpus enabled\n' > "$work/expected.head"
check "replay with a restricted process" "$work/expected.head" "$work/restricted.head"
tail -n 3 "$work/restricted" > "$work/restricted.counts"
printf 'Logical CPUs = 1\nCPU Cores    = 1\nCPU sockets  = 1\n' > "$work/expected.counts"
check "replay with a restricted process: counts" "$work/expected.counts" "$work/restricted.counts"

# 4. Help and version (0); bad arguments and folders that can't be read (2),
# also a pu0 that isn't a regular file: a FIFO must not make it wait.
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
expect_status 2 "$replay" a b
expect_status 2 "$replay" "$work/nothing-here"
mkdir -p "$work/bad" "$work/fifo" "$work/dir/pu0" && printf '1 0 0 0 0 => 1 2 3\n' > "$work/bad/pu0"
mkfifo "$work/fifo/pu0"
for dir in bad fifo dir; do expect_status 2 "$replay" "$work/$dir"; done
touch "$work/file" && expect_status 2 "$dump" "$work/file"

[ $fail -eq 0 ] && echo "cpuinfo tools: ok"
exit $fail

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
mapfile -t lines < "$out"
n=0  # the next line to check
bad() { echo "FAIL: line $((n + 1)): $1"; echo "    got: '${lines[$n]:-<end of report>}'"; fail=1; }
expect_line() { [ "${lines[$n]:-}" = "$1" ] || bad "expected '$1'"; n=$((n + 1)); }
expect_match() { [[ "${lines[$n]:-}" =~ $1 ]] || bad "expected a line like /$1/"; n=$((n + 1)); }

# --- The processor block -----------------------------------------------------
# What the processor says of itself, from the kernel: an independent source for
# the vendor, family and model lines.
cpuinfo_field() { sed -n "s/^$1[[:space:]]*: //p" /proc/cpuinfo 2>/dev/null | head -n1; }
vendor=$(cpuinfo_field vendor_id)
family=$(cpuinfo_field 'cpu family')
model=$(cpuinfo_field model)

# Core counting: the walk's lines on Intel parts, nothing on others, or the
# restriction line alone.
expect_line "Begin CPU core counting"
walk='^(MaxLPPerCore = [0-9]+|MaxCorePerPhysicalProc = [0-9]+|dwAffinityMask 0x[0-9a-f]+|dwSystemAffinity 0x[0-9a-f]+|APIC_ID = [0-9]+|  AffinityMask = [0-9]+, Initial APIC = [0-9]+; Physical ID = [0-9]+, Core ID = [0-9]+,  SMT ID = [0-9]+|Number of logical CPU.s detected [0-9]+|New core detected with tblPkgID [0-9]+ tblCoreID [0-9]+)$'
if [ "${lines[$n]:-}" = "Not all cpus enabled" ]; then
  n=$((n + 1))
else
  while [[ "${lines[$n]:-}" =~ $walk ]]; do n=$((n + 1)); done
  expect_match '^End CPU core counting\. statusflag = [124-8]$'
fi

# Classification.
expect_line "Vegra system information:"
case "$vendor" in
  AuthenticAMD) expect_line "Vendor = AMD" ;;
  GenuineIntel) expect_line "Vendor = INTEL" ;;
  "") expect_match '^Vendor = ' ;;
  *) expect_line "Vendor = UNKNOWN, vendor id string = $vendor" ;;
esac
expect_match '^Cpu id family number          = [0-9]+$'
expect_match '^Cpu id extended family number = [0-9]+$'
if [ -n "$family" ]; then expect_line "Cpu id family                 = $family"; else expect_match '^Cpu id family  '; fi
expect_match '^Cpu id model number           = [0-9]+$'
expect_match '^Cpu id extended model         = [0-9]+$'
if [ -n "$model" ]; then expect_line "Cpu id  model                 = $model"; else expect_match '^Cpu id  model  '; fi
if [[ "${lines[$n]:-}" =~ ^(cpu\ type\ unknown\.|Cpu\ id\ num\ =\ [0-9]+)$ ]]; then n=$((n + 1)); fi
if [ "${lines[$n]:-}" = "Cache detection info:" ]; then
  n=$((n + 1))
  for i in 0 1 2 3; do expect_match "^  Cache_sizes\\[$i\\] = [0-9]+$"; done
fi
expect_match '^Vegra procid = [0-9]+$'
procid=${lines[$((n - 1))]#Vegra procid = }
expect_match '^L1 = [0-9]+$'
expect_match '^L2 = [0-9]+$'
expect_match '^HAS_SSE2: [01] $'
expect_match '^HAS_SSE3: [01] $'
expect_match '^proc name str = '

# The four lines, their equals signs aligned, the class as above.
expect_line "VEGRA CPU id = $procid"
expect_match '^Logical CPUs = [0-9]+$'
expect_match '^CPU Cores    = [0-9]+$'
expect_match '^CPU sockets  = [0-9]+$'

# --- The heading ---------------------------------------------------------------
expect_line "HOSTkit information"
expect_line ""

# --- The host block --------------------------------------------------------------
# The name as the system gives it; the identifier by its form, since its value
# depends on the adapters (tests/hostid/host_block_test.sh sets those up and
# checks the values).
expect_line "Hostname                       : HOSTNAME=$(hostname)"
expect_match '^Hostid {24} : ([0-9a-f]{12}|"[0-9a-f]{12}( [0-9a-f]{12}){1,9}"|ffffffff)$'
[ "${#lines[@]}" -eq "$n" ] || bad "expected the end of the report"

if [ $fail -ne 0 ]; then echo "--- got:"; cat -A "$out"; fi
[ $fail -eq 0 ] && echo "report output: ok"
exit $fail

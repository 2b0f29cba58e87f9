#!/usr/bin/env bash
# The tool as a user runs it on this machine: its exit status is 0, and the
# vendor, family and model lines of its processor block say what the kernel
# says of the processor, an independent source for the real CPUID. The rest
# of the report is checked elsewhere: the processor block against the replay
# of this machine's recording (tests/cpuinfo), the heading and the host block
# in namespaces made for the purpose (tests/hostid).
# Arguments: the command that runs the tool (an emulator and the program).
set -u
out=$(mktemp)
trap 'rm -f "$out"' EXIT
"$@" | tr -d '\r' > "$out"  # Windows text mode ends lines with CR LF
status=${PIPESTATUS[0]}
fail=0
[ "$status" -eq 0 ] || { echo "FAIL: exit status $status, expected 0"; fail=1; }
field() { sed -n "s/^$1[[:space:]]*: //p" /proc/cpuinfo | head -n1; }
case $(field vendor_id) in
  AuthenticAMD) vendor=AMD ;;
  GenuineIntel) vendor=INTEL ;;
  *) vendor="UNKNOWN, vendor id string = $(field vendor_id)" ;;
esac
for line in "Vendor = $vendor" "Cpu id family                 = $(field 'cpu family')" \
  "Cpu id  model                 = $(field model)" "HOSTkit information"; do
  grep -qxF "$line" "$out" || { echo "FAIL: no line '$line'"; fail=1; }
done
if [ $fail -ne 0 ]; then echo "--- got:"; cat -A "$out"; fi
[ $fail -eq 0 ] && echo "report output: ok"
exit $fail

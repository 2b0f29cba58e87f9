#!/usr/bin/env bash
# The host block of the report as a user sees it, on machines made for the
# purpose: each case runs the tool in a network and host-name namespace of its
# own (unshare -n -u) with a chosen host name and veth interfaces with chosen
# hardware addresses. The expected lines are computed from what `ip` reports
# in that namespace, by the rules of the report:
#   Hostname: "HOSTNAME=" and the host name (nothing behind it with HID_NO_NETWORK)
#   Hostid:   the interfaces with a 6-byte hardware address in interface
#             index order, loopback left out, doubles kept, the first ten;
#             12 lower-case hex digits each, several in one pair of quotes
#             with single blanks between, "ffffffff" when there is none.
# Both labels are padded to 30 columns and followed by " : ".
#
# Usage: host_block_test.sh PROGRAM [WINE_RUN]
#   With WINE_RUN, PROGRAM is hostkit.exe, run under Wine with a prefix and a
#   wineserver of its own inside each namespace.
set -u

if [ "${1:-}" = --inside ]; then
  inside=1
  shift
else
  inside=0
fi
program=$1
wine_run=${2:-}

skip() { echo "SKIP: $*"; exit 77; }

# ---------------------------------------------------------------- one case
# Runs in the namespace: sets it up, runs the tool, compares.
# Arguments: case name, host name, then one item for each interface:
#   NAME=MAC          a veth whose peer goes to a sink namespace
#   NAME=MAC,MAC2     a veth pair, both here, the peer with MAC2
#   NAME=tun          a tun device, without a hardware address
#   NAME=tap/MAC      a tap device; NAME=bridge/MAC a bridge
#   -=up              everything made so far goes up
# Extra environment for the tool comes in HOSTKIT_CASE_ENV.
run_case() {
  local name=$1 host=$2
  shift 2
  hostname "$host" || { echo "FAIL [$name]: can't set the host name"; return 1; }
  unshare -n sleep 600 &
  local sink=$!
  local i=0 item ifname mac peer_mac tries=0
  # The sink must have its own namespace before a peer is moved there.
  while [ "$(readlink /proc/$sink/ns/net 2> /dev/null)" = "$(readlink /proc/self/ns/net)" ] ||
        [ -z "$(readlink /proc/$sink/ns/net 2> /dev/null)" ]; do
    tries=$((tries + 1))
    [ $tries -lt 100 ] || { echo "FAIL [$name]: no sink namespace"; return 1; }
    sleep 0.05
  done
  for item in "$@"; do
    ifname=${item%%=*}
    mac=${item#*=}
    peer_mac=""
    i=$((i + 1))
    case $mac in
      up)  # every interface made so far goes up
        for ifname in $(ip -o link show | sed -n 's/^[0-9]*: \([^:@]*\).*/\1/p'); do
          ip link set "$ifname" up || { kill "$sink"; echo "FAIL [$name]: up $ifname"; return 1; }
        done
        continue ;;
      tun)  # a point-to-point device without a hardware address
        ip tuntap add dev "$ifname" mode tun ||
          { kill "$sink"; echo "SKIP [$name]: tun devices can't be made here"; return 0; }
        continue ;;
      tap/* | bridge/*)
        if [[ $mac == tap/* ]]; then
          ip tuntap add dev "$ifname" mode tap && ip link set "$ifname" address "${mac#*/}"
        else
          ip link add "$ifname" address "${mac#*/}" type bridge
        fi || { kill "$sink"; echo "FAIL [$name]: $item"; return 1; }
        continue ;;
      *,*)
        peer_mac=${mac#*,}
        mac=${mac%%,*} ;;
    esac
    if [ -n "$peer_mac" ]; then
      ip link add "$ifname" address "$mac" type veth peer name "hkp$i" address "$peer_mac" ||
        { kill "$sink"; echo "FAIL [$name]: veth $ifname"; return 1; }
    else
      ip link add "$ifname" address "$mac" type veth peer name "hkp$i" ||
        { kill "$sink"; echo "FAIL [$name]: veth $ifname"; return 1; }
      ip link set "hkp$i" netns "$sink" || { kill "$sink"; echo "FAIL [$name]: move"; return 1; }
    fi
  done

  # The expected lines, from the namespace as `ip` sees it.
  local ids=() line addr
  while read -r line; do
    if [[ $line =~ link/ether\ ([0-9a-f:]{17})\  ]]; then
      addr=${BASH_REMATCH[1]//:/}
      ids+=("$addr")
    fi
  done < <(ip -o link show)
  ids=("${ids[@]:0:10}")
  local expected_id
  case ${#ids[@]} in
    0) expected_id=ffffffff ;;
    1) expected_id=${ids[0]} ;;
    *) expected_id="\"${ids[*]}\"" ;;
  esac
  local expected_name="HOSTNAME=$(hostname)"
  [[ " ${HOSTKIT_CASE_ENV:-} " == *" HID_NO_NETWORK="* ]] && expected_name="HOSTNAME="
  local expected
  expected=$(printf '%-30s : %s\n%-30s : %s' Hostname "$expected_name" Hostid "$expected_id")

  local out status
  if [ -n "$wine_run" ]; then
    # A server started here serves this namespace only; the tool's adapters
    # come through it.
    wineserver -p 30
    out=$(env ${HOSTKIT_CASE_ENV:-} "$wine_run" "$program" | tr -d '\r')
    status=${PIPESTATUS[0]}
    wineserver -k 2> /dev/null
    wineserver -w 2> /dev/null
  else
    out=$(env ${HOSTKIT_CASE_ENV:-} "$program")
    status=$?
  fi
  kill "$sink" 2> /dev/null

  local fail=0
  [ "$status" -eq 0 ] || { echo "FAIL [$name]: exit status $status"; fail=1; }
  # The heading, an empty line, then the two host lines end the report.
  local tail4
  tail4=$(printf '%s\n' "$out" | tail -n 4)
  if [ "$tail4" != "$(printf 'HOSTkit information\n\n%s' "$expected")" ]; then
    echo "FAIL [$name]: the host block differs"
    echo "--- expected (after the heading and an empty line):"
    printf '%s\n' "$expected"
    echo "--- got:"
    printf '%s\n' "$out" | tail -n 4 | cat -A
    fail=1
  else
    echo "ok [$name]: ${#ids[@]} address(es), $(printf '%s\n' "$expected" | tail -n 1)"
  fi
  return $fail
}

if [ $inside -eq 1 ]; then
  run_case "${@:3}"
  exit $?
fi

# ------------------------------------------------------------- the driver
[ -x "$program" ] || [ -f "$program" ] || { echo "FAIL: no program $program"; exit 1; }
command -v unshare > /dev/null || skip "unshare is not installed"
command -v ip > /dev/null || skip "ip (iproute2) is not installed"
unshare -n -u true 2> /dev/null || skip "network and host-name namespaces aren't allowed here (needs root or CAP_SYS_ADMIN)"
unshare -n -u ip link add hktest type veth peer name hktest1 2> /dev/null ||
  skip "veth interfaces can't be made in a namespace here"

work=$(mktemp -d)
cleanup() {
  if [ -n "$wine_run" ]; then
    wineserver -k 2> /dev/null
    wineserver -w 2> /dev/null
  fi
  rm -rf "$work"
}
trap cleanup EXIT
if [ -n "$wine_run" ]; then
  command -v wine > /dev/null || skip "wine is not installed"
  export WINEPREFIX=$work/prefix WINEARCH=win64 WINEDEBUG=-all
  "$wine_run" wineboot -i > /dev/null 2>&1
  wineserver -w
fi

self=$(readlink -f "$0")
failed=0
case_() {  # name host [env...] -- interfaces...
  local name=$1 host=$2
  shift 2
  local env=()
  while [ $# -gt 0 ] && [ "$1" != -- ]; do env+=("$1"); shift; done
  shift
  HOSTKIT_CASE_ENV="${env[*]}" unshare -n -u bash "$self" --inside "$program" "$wine_run" \
    "$name" "$host" "$@" || failed=$((failed + 1))
}

case_ one alpha -- eth0=0a:1b:2c:3d:4e:5f
case_ several build-host-7 -- e1=02:00:00:00:00:01 e2=02:00:00:00:00:02,02:00:00:00:00:03 \
  e3=06:10:20:30:40:50
case_ same-address twin -- tw0=02:aa:bb:cc:dd:ee tw1=02:aa:bb:cc:dd:ee tw2=02:00:00:00:00:01
case_ high-bytes zeta -- x=fe:dc:ba:98:76:54 y=82:00:00:00:00:00
case_ last-three-zero z0 -- z=02:11:22:00:00:00
more=()
for i in $(seq 1 13); do more+=("m$i=02:00:00:00:01:$(printf %02x "$i")"); done
case_ more-than-ten many -- "${more[@]}"
case_ none lonely --
case_ no-network quiet HID_NO_NETWORK=1 -- n0=02:de:ad:be:ef:01
case_ no-network-empty quiet2 HID_NO_NETWORK= -- n0=02:de:ad:be:ef:01 n1=02:de:ad:be:ef:02
case_ long-name "$(printf 'h%.0s' $(seq 1 64))" -- l0=02:00:00:00:00:64
case_ kinds mixed -- t0=tun p0=tap/02:00:00:00:07:01 b0=bridge/02:00:00:00:07:02 \
  v0=02:00:00:00:07:03,02:00:00:00:07:04 -=up t1=tun v1=02:00:00:00:07:05
case_ no-netbios-no-matter nb HID_NO_NETBIOS=1 HID_DEBUG_HOSTID=1 -- q0=02:00:00:00:00:0b

if [ $failed -ne 0 ]; then
  echo "$failed case(s) failed"
  exit 1
fi
echo "host block: all cases passed"

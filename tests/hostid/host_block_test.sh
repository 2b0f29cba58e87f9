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
# Under Wine the tool also runs as Windows 98 (the NetBIOS route), 2000 (the
# IP helper route) and NT 4.0 (the transport route), each a copy of it that
# Wine's AppDefaults give that version. PROBE, built apart from hostkit,
# prints what Windows itself answers in the namespace (the ANSI code page,
# gethostname's bytes, GetAdaptersAddresses, Netbios), and the expected lines
# of 98 and 2000 follow from that answer by the rules of those routes. NT
# 4.0's transport list is damaged by Wine itself (see the README): its line
# must only be well formed.
#
# Usage: host_block_test.sh PROGRAM [WINE_RUN PROBE]
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
probe=${3:-}
# The locale a Linux user has; the native tool converts the host name from it.
export LC_ALL=C.UTF-8

skip() { echo "SKIP: $*"; exit 77; }

# ---------------------------------------------------------------- one case
# The Hostid value of a list of addresses: the first ten, quoted when there
# are several, "ffffffff" for none.
hostid_of() {
  case $# in
    0) echo ffffffff ;;
    1) echo "$1" ;;
    *) local ids=("${@:1:10}"); echo "\"${ids[*]}\"" ;;
  esac
}

# From the probe's answer ($answer): the IP helper route keeps the adapters
# with a 6-byte address whose description isn't one of the five loopback and
# tunnel names, in the list's order.
ip_helper_ids() {
  local kind length address description
  while read -r kind length address description; do
    [ "$kind" = adapter ] && [ "$length" = 6 ] || continue
    case $description in
      "MS LoopBack Driver" | "Microsoft Loopback Adapter" | "MS TCP Loopback interface" | \
        "Teredo Tunneling Pseudo-Interface" | "Loopback Pseudo-Interface") continue ;;
    esac
    echo "$address"
  done <<< "$answer"
}

# The NetBIOS route walks the LAN adapters in order until a status fails and
# keeps each first six bytes that aren't "DEST...", "...000000", " LOOP " or
# a double.
netbios_ids() {
  local kind lana reset status address seen=" "
  while read -r kind lana reset status address; do
    [ "$kind" = lana ] || continue
    [ "$status" = 0 ] || break
    [[ $address == 44455354* || $address == ??????000000 || $address == 204c4f4f5020 ||
       $seen == *" $address "* ]] && continue
    seen+="$address "
    echo "$address"
  done <<< "$answer"
}

# Runs $2 with the case's environment and compares the end of the report
# with host name $3 and identifier $4; an identifier "~RE" is a pattern.
check() {
  local label=$1 exe=$2 want_name=$3 want_id=$4 out status
  if [ -n "$wine_run" ]; then
    out=$(env ${HOSTKIT_CASE_ENV:-} "$wine_run" "$exe")
  else
    out=$(env ${HOSTKIT_CASE_ENV:-} "$exe")
  fi
  status=$?
  out=$(printf '%s\n' "${out//$'\r'/}" | tail -n 4)
  local id=${out##*Hostid* : } expected
  [[ $want_id == "~"* && $id =~ ${want_id#\~} ]] && want_id=$id
  expected=$(printf 'HOSTkit information\n\n%-30s : %s\n%-30s : %s' \
    Hostname "$want_name" Hostid "$want_id")
  if [ "$status" -ne 0 ] || [ "$out" != "$expected" ]; then
    echo "FAIL [$label]: exit status $status; expected, then got:"
    printf '%s\n' "$expected" "$out" | cat -A
    return 1
  fi
  echo "ok [$label]: $want_id"
}

# Runs in the namespace: sets it up, runs the tool, compares.
# Arguments: case name, host name, then one item for each interface:
#   NAME=MAC          a veth whose peer goes to a sink namespace
#   NAME=MAC+IP       the same, up, with the IPv4 address IP/24
#   NAME=MAC,MAC2     a veth pair, both here, the peer with MAC2
#   NAME=tun          a tun device, without a hardware address
#   NAME=tap/MAC      a tap device; NAME=bridge/MAC a bridge
#   -=up              everything made so far goes up
# Extra environment for the tool comes in HOSTKIT_CASE_ENV.
run_case() {
  local name=$1 host=$2
  shift 2
  # The kernel takes any bytes as the name; hostname(1) refuses non-ASCII.
  printf %s "$host" > /proc/sys/kernel/hostname ||
    { echo "FAIL [$name]: can't set the host name"; return 1; }
  unshare -n sleep 600 &
  local sink=$!
  local i=0 item ifname mac peer_mac address tries=0
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
    address=""
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
      *+*)
        address=${mac#*+}
        mac=${mac%%+*} ;;
    esac
    if [ -n "$peer_mac" ]; then
      ip link add "$ifname" address "$mac" type veth peer name "hkp$i" address "$peer_mac" ||
        { kill "$sink"; echo "FAIL [$name]: veth $ifname"; return 1; }
    else
      ip link add "$ifname" address "$mac" type veth peer name "hkp$i" &&
        ip link set "hkp$i" netns "$sink" || { kill "$sink"; echo "FAIL [$name]: veth $ifname"; return 1; }
    fi
    if [ -n "$address" ]; then
      ip addr add "$address/24" dev "$ifname" && ip link set "$ifname" up ||
        { kill "$sink"; echo "FAIL [$name]: address $item"; return 1; }
    fi
  done

  # The expected lines, from the namespace as `ip` sees it.
  local ids=() line
  while read -r line; do
    [[ $line =~ link/ether\ ([0-9a-f:]{17})\  ]] && ids+=("${BASH_REMATCH[1]//:/}")
  done < <(ip -o link show)
  local host_name="HOSTNAME=$(cat /proc/sys/kernel/hostname)"
  local no_name=0 no_netbios=0
  [[ " ${HOSTKIT_CASE_ENV:-} " == *" HID_NO_NETWORK="* ]] && no_name=1
  [[ " ${HOSTKIT_CASE_ENV:-} " == *" HID_NO_NETBIOS="* ]] && no_netbios=1
  [ $no_name -eq 1 ] && host_name="HOSTNAME="

  local fail=0
  if [ -z "$wine_run" ]; then
    check "$name" "$program" "$host_name" "$(hostid_of "${ids[@]}")" || fail=1
  else
    # A server started here serves this namespace only; the tool's adapters
    # come through it.
    wineserver -p 30
    local answer raw
    answer=$("$wine_run" "$probe")
    answer=${answer//$'\r'/}
    # Wine hands on the kernel's bytes as they are, and the tool reads them
    # in the ANSI code page Wine reports.
    raw=$(printf "$(sed -n 's/^name //p' <<< "$answer" | sed 's/../\\x&/g')")
    [ "$raw" = "$(cat /proc/sys/kernel/hostname)" ] ||
      { echo "FAIL [$name]: Windows names the host [$raw]"; fail=1; }
    if [ $no_name -eq 0 ]; then
      host_name="HOSTNAME=$(printf %s "$raw" | iconv -f "CP$(sed -n 's/^acp //p' <<< "$answer")" \
        -t UTF-8)" || host_name="HOSTNAME=$raw"
    fi
    local netbios=()
    [ $no_netbios -eq 1 ] || mapfile -t netbios < <(netbios_ids)
    mapfile -t ip_helper < <(ip_helper_ids)
    check "$name" "$program" "$host_name" "$(hostid_of "${ids[@]}")" || fail=1
    check "$name, 98" "$HOSTKIT_VERSIONS/hostkit-win98.exe" "$host_name" \
      "$(hostid_of "${netbios[@]}")" || fail=1
    check "$name, 2000" "$HOSTKIT_VERSIONS/hostkit-win2k.exe" "$host_name" \
      "$(hostid_of "${ip_helper[@]}")" || fail=1
    check "$name, NT 4.0" "$HOSTKIT_VERSIONS/hostkit-nt40.exe" "$host_name" \
      '~^(ffffffff|[0-9a-f]{12}|"[0-9a-f]{12}( [0-9a-f]{12}){1,9}")$' || fail=1
    wineserver -k 2> /dev/null
    wineserver -w 2> /dev/null
  fi
  kill "$sink" 2> /dev/null
  return $fail
}

if [ $inside -eq 1 ]; then
  run_case "${@:4}"
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
  [ -f "$probe" ] || { echo "FAIL: no probe $probe"; exit 1; }
  export WINEPREFIX=$work/prefix WINEARCH=win64 WINEDEBUG=-all
  "$wine_run" wineboot -i > /dev/null 2>&1
  # A copy of the tool for each older version, which Wine reports to it.
  export HOSTKIT_VERSIONS=$work
  for version in win98 win2k nt40; do
    cp "$program" "$work/hostkit-$version.exe"
    "$wine_run" reg add "HKCU\\Software\\Wine\\AppDefaults\\hostkit-$version.exe" \
      /v Version /d $version /f > /dev/null || { echo "FAIL: no version $version"; exit 1; }
  done
  wineserver -k
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
    "$probe" "$name" "$host" "$@" || failed=$((failed + 1))
}

case_ one alpha -- eth0=0a:1b:2c:3d:4e:5f
case_ several build-host-7 -- e1=02:00:00:00:00:01+10.0.1.1 \
  e2=02:00:00:00:00:02,02:00:00:00:00:03 e3=06:10:20:30:40:50+10.0.3.1
case_ same-address twin -- tw0=02:aa:bb:cc:dd:ee+10.0.4.1 tw1=02:aa:bb:cc:dd:ee+10.0.5.1 \
  tw2=02:00:00:00:00:01
case_ high-bytes zeta -- x=fe:dc:ba:98:76:54+10.0.6.1 y=82:00:00:00:00:00
case_ last-three-zero z0 -- z=02:11:22:00:00:00+10.0.7.1 z1=02:11:22:00:00:01+10.0.8.1
more=()
for i in $(seq 1 13); do more+=("m$i=02:00:00:00:01:$(printf %02x "$i")+10.1.$i.1"); done
case_ more-than-ten many -- "${more[@]}"
case_ none lonely --
case_ no-network quiet HID_NO_NETWORK=1 -- n0=02:de:ad:be:ef:01+10.0.9.1
case_ no-network-empty quiet2 HID_NO_NETWORK= -- n0=02:de:ad:be:ef:01 n1=02:de:ad:be:ef:02
case_ long-name "$(printf 'h%.0s' $(seq 1 64))" -- l0=02:00:00:00:00:64
case_ non-ascii "$(printf 'caf\xc3\xa9')" -- c0=02:00:00:00:00:e9+10.0.10.1
case_ kinds mixed -- t0=tun p0=tap/02:00:00:00:07:01 b0=bridge/02:00:00:00:07:02 \
  v0=02:00:00:00:07:03,02:00:00:00:07:04 -=up t1=tun v1=02:00:00:00:07:05
case_ no-netbios nb HID_NO_NETBIOS=1 HID_DEBUG_HOSTID=1 -- q0=02:00:00:00:00:0b+10.0.11.1

if [ $failed -ne 0 ]; then
  echo "$failed case(s) failed"
  exit 1
fi
echo "host block: all cases passed"

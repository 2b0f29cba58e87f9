#!/usr/bin/env bash
# The host block of the report as a user sees it, on the machines of
# host_block_cases.txt: each case runs the tool in a network and host-name
# namespace of its own (unshare -n -u) with a chosen host name and veth
# interfaces with chosen hardware addresses. The expected lines are computed
# from what `ip` reports in that namespace, by the rules of the report:
#   Hostname: "HOSTNAME=" and the host name (nothing behind it with HID_NO_NETWORK)
#   Hostid:   the interfaces with a 6-byte hardware address in interface
#             index order, loopback left out, doubles kept, the first ten;
#             12 lower-case hex digits each, several in one pair of quotes
#             with single blanks between, "ffffffff" when there is none.
# Both labels are padded to 30 columns and followed by " : ". Natively the
# name is converted from the locale's character set (UTF-8 here); a name that
# isn't valid in it stands as its raw bytes.
#
# Under Wine the tool also runs as Windows 98 (the NetBIOS route), 2000 (the
# IP helper route) and NT 4.0 (the transport route), each a copy of it that
# Wine's AppDefaults give that version. PROBE, built apart from hostkit,
# prints what Windows itself answers in the namespace (the ANSI code page,
# gethostname's bytes, GetAdaptersAddresses, Netbios), and the expected lines
# of 98 and 2000 and the host name follow from that answer by the rules of
# those routes. NT 4.0's transport list is damaged by Wine itself (see the
# README): its line must only be well formed.
#
# Usage: host_block_test.sh PROGRAM [WINE_RUN PROBE]
#   With WINE_RUN, PROGRAM is hostkit.exe, run under Wine with a prefix and a
#   wineserver of its own inside each namespace.
set -u
stop_wine() { wineserver -k && wineserver -w; } 2> /dev/null
inside=0
[ "${1:-}" = --inside ] && inside=1 && shift
program=$1 wine_run=${2:-} probe=${3:-}
# The locale a Linux user has; the native tool converts the host name from it.
export LC_ALL=C.UTF-8

# The Hostid value of a list of addresses: the first ten, quoted when there
# are several, "ffffffff" for none.
hostid_of() {
  local ids=("${@:1:10}")
  case $# in 0) echo ffffffff ;; 1) echo "$1" ;; *) echo "\"${ids[*]}\"" ;; esac
}

# From the probe's answer: the IP helper route keeps the adapters with a
# 6-byte address whose description isn't one of the five loopback and tunnel
# names, in the list's order. The NetBIOS route walks the LAN adapters in
# order until a status fails and keeps each first six bytes that aren't
# "DEST...", "...000000", " LOOP " or a double.
ip_helper_ids() {
  awk '$1 == "adapter" && $2 == 6 { d = $0; sub(/^[^ ]* [^ ]* [^ ]* ?/, "", d)
    if (d !~ /^(MS LoopBack Driver|Microsoft Loopback Adapter|MS TCP Loopback interface|Teredo Tunneling Pseudo-Interface|Loopback Pseudo-Interface)$/) print $3 }' <<< "$answer"
}
netbios_ids() {
  awk '$1 == "lana" { if ($4 != 0) exit; a = $5
    if (a !~ /^44455354/ && a !~ /000000$/ && a != "204c4f4f5020" && !(a in seen)) print a
    seen[a] = 1 }' <<< "$answer"
}

# Runs $2 with the case's environment and compares the end of the report
# with host name $3 and identifier $4; an identifier "~RE" is a pattern.
check() {
  local want_id=$4 out status expected
  out=$(env $environment ${wine_run:+"$wine_run"} "$2")
  status=$?
  out=$(printf '%s\n' "${out//$'\r'/}" | tail -n 4)
  local id=${out##*Hostid* : }
  [[ $want_id == "~"* && $id =~ ${want_id#\~} ]] && want_id=$id
  expected=$(printf 'HOSTkit information\n\n%-30s : %s\n%-30s : %s' Hostname "$3" Hostid "$want_id")
  if [ "$status" -ne 0 ] || [ "$out" != "$expected" ]; then
    echo "FAIL [$1]: exit status $status; expected, then got:"
    printf '%s\n' "$expected" "$out" | cat -A
    return 1
  fi
  echo "ok [$1]: $want_id"
}

# Runs in the namespace: sets it up as host_block_cases.txt describes, runs
# the tool, compares. Arguments: case, host name, the tool's environment,
# then the interfaces.
run_case() {
  local name=$1 environment=$3 i=0 sink item ifname form
  die() { echo "FAIL [$name]: $*" && exit 1; }
  # The kernel takes any bytes as the name; hostname(1) refuses non-ASCII.
  printf %b "$2" > /proc/sys/kernel/hostname || die "can't set the host name"
  shift 3
  # The sink names itself once its namespace stands.
  exec 3< <(unshare -n sh -c 'echo $$ && exec sleep 600')
  read -r sink <&3 || die "no sink namespace"
  trap "kill $sink 2> /dev/null" EXIT
  for item in "$@"; do
    ifname=${item%%=*} form=${item#*=} i=$((i + 1))
    case $form in
      up)
        for ifname in $(ip -br link | sed 's/[@ ].*//'); do
          ip link set "$ifname" up || die "can't set $ifname up"
        done ;;
      tun) ip tuntap add dev "$ifname" mode tun ;;
      tap/*) ip tuntap add dev "$ifname" mode tap && ip link set "$ifname" address "${form#*/}" ;;
      bridge/*) ip link add "$ifname" address "${form#*/}" type bridge ;;
      *,*) ip link add "$ifname" address "${form%,*}" type veth peer name "hkp$i" address "${form#*,}" ;;
      *)
        ip link add "$ifname" address "${form%+*}" type veth peer name "hkp$i" &&
          ip link set "hkp$i" netns "$sink" && if [[ $form == *+* ]]; then
            ip addr add "${form#*+}/24" dev "$ifname" && ip link set "$ifname" up
          fi ;;
    esac || die "can't make $item"
  done

  # The expected lines, from the namespace as `ip` sees it.
  local ids host_name answer raw netbios=() fail=0
  ids=($(ip -o link show | sed -n 's/.* link\/ether \([0-9a-f:]*\) .*/\1/p' | tr -d :))
  host_name="HOSTNAME=$(cat /proc/sys/kernel/hostname)"
  [[ " $environment" == *" HID_NO_NETWORK="* ]] && host_name="HOSTNAME="
  if [ -z "$wine_run" ]; then
    check "$name" "$program" "$host_name" "$(hostid_of "${ids[@]}")"
    return
  fi
  # A server started here serves this namespace only; the tool's adapters
  # come through it.
  wineserver -p 30
  answer=$("$wine_run" "$probe" | tr -d '\r')
  # Wine hands on the kernel's bytes as they are, and the tool reads them in
  # the ANSI code page Wine reports.
  raw=$(printf "$(sed -n 's/^name //p' <<< "$answer" | sed 's/../\\x&/g')")
  [ "$raw" = "$(cat /proc/sys/kernel/hostname)" ] ||
    { echo "FAIL [$name]: Windows names the host [$raw]" && fail=1; }
  [ "$host_name" = HOSTNAME= ] ||
    host_name="HOSTNAME=$(iconv -f "CP$(sed -n 's/^acp //p' <<< "$answer")" -t UTF-8 <<< "$raw")"
  [[ " $environment" == *" HID_NO_NETBIOS="* ]] || netbios=($(netbios_ids))
  check "$name" "$program" "$host_name" "$(hostid_of "${ids[@]}")" || fail=1
  check "$name, 98" "$work/hostkit-win98.exe" "$host_name" "$(hostid_of "${netbios[@]}")" || fail=1
  check "$name, 2000" "$work/hostkit-win2k.exe" "$host_name" "$(hostid_of $(ip_helper_ids))" ||
    fail=1
  check "$name, NT 4.0" "$work/hostkit-nt40.exe" "$host_name" \
    '~^(ffffffff|[0-9a-f]{12}|"[0-9a-f]{12}( [0-9a-f]{12}){1,9}")$' || fail=1
  stop_wine
  return $fail
}

if [ $inside -eq 1 ]; then
  run_case "${@:4}"
  exit
fi

# ------------------------------------------------------------- the driver
skip() { echo "SKIP: $*" && exit 77; }
[ -f "$program" ] || { echo "FAIL: no program $program" && exit 1; }
type unshare ip > /dev/null 2>&1 || skip "unshare or ip (iproute2) is not installed"
unshare -n -u true 2> /dev/null ||
  skip "network and host-name namespaces aren't allowed here (needs root or CAP_SYS_ADMIN)"
unshare -n -u ip link add hktest type veth peer name hktest1 2> /dev/null ||
  skip "veth interfaces can't be made in a namespace here"

export work=$(mktemp -d)
trap '[ -z "$wine_run" ] || stop_wine; rm -rf "$work"' EXIT
if [ -n "$wine_run" ]; then
  command -v wine > /dev/null || skip "wine is not installed"
  [ -f "$probe" ] || { echo "FAIL: no probe $probe" && exit 1; }
  export WINEPREFIX=$work/prefix WINEARCH=win64 WINEDEBUG=-all
  "$wine_run" wineboot -i > /dev/null 2>&1
  # A copy of the tool for each older version, which Wine reports to it.
  for version in win98 win2k nt40; do
    cp "$program" "$work/hostkit-$version.exe"
    "$wine_run" reg add "HKCU\\Software\\Wine\\AppDefaults\\hostkit-$version.exe" \
      /v Version /d $version /f > /dev/null || { echo "FAIL: no version $version" && exit 1; }
  done
  stop_wine
fi

failed=0
while read -r name host rest; do
  [[ -z $name || $name == "#"* ]] && continue
  environment=${rest%%--*} interfaces=${rest#*--}
  unshare -n -u bash "$0" --inside "$program" "$wine_run" "$probe" "$name" "$host" \
    "$environment" $interfaces < /dev/null || failed=$((failed + 1))
done < "$(dirname "$0")/host_block_cases.txt"
[ $failed -eq 0 ] || { echo "$failed case(s) failed" && exit 1; }
echo "host block: all cases passed"

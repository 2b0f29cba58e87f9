#!/usr/bin/env bash
# Installs what the native, sanitizer and Windows builds need on a Debian
# machine, and builds zstd for Windows from Debian's source package into
# .cache/ (ignored by git). Quick when everything is already there.
set -euo pipefail

root=$(cd "$(dirname "$0")/.." && pwd)
cache="$root/.cache"
zstd_prefix="$cache/zstd-mingw"

sudo_cmd=()
[ "$(id -u)" -eq 0 ] || sudo_cmd=(sudo)

packages=(
  build-essential cmake ninja-build pkg-config
  clang libclang-rt-14-dev
  zlib1g-dev libzstd-dev zstd gzip
  googletest libgtest-dev libbenchmark-dev
  g++-mingw-w64-x86-64 libz-mingw-w64-dev
  wine wine64
  iproute2 util-linux binutils-mingw-w64-x86-64
  dpkg-dev lintian mandoc
)

missing=()
for p in "${packages[@]}"; do
  dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q 'install ok installed' || missing+=("$p")
done
if [ ${#missing[@]} -gt 0 ]; then
  echo "setup: installing ${missing[*]}"
  "${sudo_cmd[@]}" apt-get update -qq
  DEBIAN_FRONTEND=noninteractive "${sudo_cmd[@]}" apt-get install -y -qq "${missing[@]}" >/dev/null
fi

# zstd for the Windows build: the same version as the native library, from
# Debian's source package, fetched through a temporary deb-src list so the
# machine's own apt configuration is left as it was.
if [ ! -f "$zstd_prefix/lib/libzstd.a" ]; then
  work=$(mktemp -d)
  trap 'rm -rf "$work"' EXIT
  suite=$(. /etc/os-release && echo "${VERSION_CODENAME:-bookworm}")
  cat > "$work/src.list" <<LIST
deb-src http://deb.debian.org/debian $suite main
LIST
  mkdir -p "$work/lists/partial"
  apt_opts=(-o "Dir::Etc::SourceList=$work/src.list" -o "Dir::Etc::SourceParts=-"
            -o "Dir::State::Lists=$work/lists" -o "APT::Sandbox::User=root")
  echo "setup: fetching the zstd source package"
  apt-get "${apt_opts[@]}" update -qq
  (cd "$work" && apt-get "${apt_opts[@]}" source -qq --download-only libzstd >/dev/null)
  (cd "$work" && dpkg-source -x --no-check ./libzstd_*.dsc src >/dev/null)
  echo "setup: building zstd with the mingw-w64 cross compiler"
  make -s -C "$work/src/lib" -j"$(nproc)" libzstd.a \
    CC=x86_64-w64-mingw32-gcc-posix AR=x86_64-w64-mingw32-ar \
    CFLAGS="-O2" >/dev/null
  mkdir -p "$zstd_prefix/lib" "$zstd_prefix/include"
  cp "$work/src/lib/libzstd.a" "$zstd_prefix/lib/"
  cp "$work/src/lib/zstd.h" "$work/src/lib/zstd_errors.h" "$work/src/lib/zdict.h" "$zstd_prefix/include/"
  basename "$work"/libzstd_*.dsc .dsc > "$zstd_prefix/VERSION"
fi
echo "setup: ready"

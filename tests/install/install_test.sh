#!/usr/bin/env bash
# Installs the build into a scratch prefix, then builds a C program against it
# twice, through find_package(hostkit) and through pkg-config, and runs both.
# Arguments: build-dir source-dir [toolchain-file emulator]
set -eu
build=$1 src=$2 toolchain=${3:-} emulator=${4:-}
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
prefix=$work/prefix

cmake --install "$build" --prefix "$prefix" > "$work/install.log"
for f in include/hostkit/cpub.h include/hostkit/cpuinfo.h include/hostkit/hostid.h \
         lib/cmake/hostkit/hostkitConfig.cmake lib/pkgconfig/hostkit.pc; do
  [ -f "$prefix/$f" ] || { echo "FAIL: $f not installed"; exit 1; }
done
ls "$prefix"/bin/hostkit* > /dev/null || { echo "FAIL: the tool is not installed"; exit 1; }

args=(-S "$src/tests/install/consumer" -B "$work/consumer" -G Ninja
      -DCMAKE_PREFIX_PATH="$prefix" -DCMAKE_BUILD_TYPE=Release)
[ -n "$toolchain" ] && args+=(-DCMAKE_TOOLCHAIN_FILE="$toolchain"
                              -Dhostkit_DIR="$prefix/lib/cmake/hostkit")
cmake "${args[@]}" > "$work/configure.log" || { cat "$work/configure.log"; exit 1; }
cmake --build "$work/consumer" > "$work/build.log" || { cat "$work/build.log"; exit 1; }
exe=$(ls "$work"/consumer/consumer "$work"/consumer/consumer.exe 2>/dev/null | head -n1)
$emulator "$exe" | tr -d '\r' | grep -qx "consumer: ok" || { echo "FAIL: consumer (cmake) did not run"; exit 1; }

if [ -z "$toolchain" ]; then
  export PKG_CONFIG_PATH="$prefix/lib/pkgconfig"
  # shellcheck disable=SC2046
  c++ -x c -std=c11 -Wall -Wextra -Wpedantic -Werror -c "$src/tests/install/consumer/main.c" \
      -o "$work/main.o" $(pkg-config --cflags hostkit)
  c++ "$work/main.o" -o "$work/consumer-pc" $(pkg-config --libs hostkit)
  "$work/consumer-pc" | grep -qx "consumer: ok" || { echo "FAIL: consumer (pkg-config) did not run"; exit 1; }
  # Another compiler, without link-time optimisation, links the same libraries.
  # shellcheck disable=SC2046
  clang++ -x c -std=c11 -Wall -Wextra -Wpedantic -Werror -O2 -c \
      "$src/tests/install/consumer/main.c" -o "$work/main-clang.o" $(pkg-config --cflags hostkit)
  # shellcheck disable=SC2046
  clang++ -fno-lto "$work/main-clang.o" -o "$work/consumer-clang" $(pkg-config --libs hostkit) \
      > "$work/clang.log" 2>&1 || { cat "$work/clang.log"; echo "FAIL: clang++ can't link the libraries"; exit 1; }
  "$work/consumer-clang" | grep -qx "consumer: ok" || { echo "FAIL: consumer (clang) did not run"; exit 1; }
fi
echo "install: ok"

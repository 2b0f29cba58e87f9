#!/usr/bin/env bash
# Builds everything and runs every test: native, native with AddressSanitizer
# and UndefinedBehaviorSanitizer, and the Windows build under Wine. Then the
# fuzz targets for a short fixed number of runs.
# Usage: scripts/test.sh [native|native-asan|windows|fuzz ...]   (default: all)
set -euo pipefail
root=$(cd "$(dirname "$0")/.." && pwd)
cd "$root"
bash scripts/setup.sh

presets=("$@")
[ ${#presets[@]} -gt 0 ] || presets=(native native-asan windows fuzz)
jobs=$(nproc)

# One wineserver for the whole Windows run, so each test process starts fast.
export WINEPREFIX="$root/.cache/wineprefix"
export WINEARCH=win64 WINEDEBUG=-all
wine_started=0
stop_wine() {
  if [ $wine_started -eq 1 ]; then wineserver -k 2>/dev/null || true; fi
}
trap stop_wine EXIT

failed=()
for preset in "${presets[@]}"; do
  echo "=== $preset"
  cmake --preset "$preset" > /dev/null
  cmake --build --preset "$preset" -j "$jobs"
  if [ "$preset" = fuzz ]; then
    bash scripts/fuzz.sh build/fuzz || failed+=("$preset")
    continue
  fi
  if [ "$preset" = windows ] && [ $wine_started -eq 0 ]; then
    # The persistent server first, then the boot: the services the boot
    # starts stay up under that server. Started by the first test program
    # instead, they would hold its output pipe open and stall the test
    # discovery. The server needs the prefix folder to exist.
    mkdir -p "$WINEPREFIX"
    wineserver -k 2> /dev/null || true
    wineserver -p
    wine_started=1
    scripts/wine-run wineboot > /dev/null 2>&1 || true
  fi
  retries=$root/build/$preset/wine-run-retries.log
  rm -f "$retries"
  HOSTKIT_WINE_RETRY_LOG=$retries ctest --preset "$preset" -j "$jobs" --output-on-failure ||
    failed+=("$preset")
  if [ -s "$retries" ]; then
    echo "Runs under Wine made again after failing for Wine's reasons:"
    cat "$retries"
  fi
done

if [ ${#failed[@]} -gt 0 ]; then
  echo "FAILED: ${failed[*]}"
  exit 1
fi
echo "all test runs passed: ${presets[*]}"

#!/usr/bin/env bash
# Runs every fuzz target in a build folder for a fixed number of runs.
# Usage: scripts/fuzz.sh BUILD_DIR [RUNS]
set -euo pipefail
build=$1
runs=${2:-20000}
status=0
found=0
for target in "$build"/fuzz/fuzz_*; do
  [ -x "$target" ] || continue
  found=1
  name=$(basename "$target")
  corpus=$(mktemp -d)
  # A failing input is kept beside the target, not in the working directory.
  if "$target" -runs="$runs" -max_len=4096 -artifact_prefix="$build/fuzz/" "$corpus" \
    > "$corpus.log" 2>&1; then
    echo "fuzz $name: $runs runs, ok"
  else
    echo "fuzz $name: FAILED"; tail -n 40 "$corpus.log"; status=1
  fi
  rm -rf "$corpus" "$corpus.log"
done
[ $found -eq 1 ] || echo "fuzz: no targets built"
exit $status

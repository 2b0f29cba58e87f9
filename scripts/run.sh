#!/usr/bin/env bash
# Builds hostkit natively and runs the report.
set -euo pipefail
root=$(cd "$(dirname "$0")/.." && pwd)
cd "$root"
bash scripts/setup.sh
cmake --preset native > /dev/null
cmake --build --preset native --target hostkit > /dev/null
exec build/native/src/report/hostkit

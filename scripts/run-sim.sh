#!/usr/bin/env bash
# Installs what is missing, builds aov-sim and runs it; arguments go to aov-sim
# (none: the embedded default scenario, five events). The build is quiet unless
# it fails, when its whole output, compiler errors included, is shown.
set -euo pipefail
cd "$(dirname "$0")/.."

bash scripts/install-deps.sh
log=$(mktemp)
trap 'rm -f "$log"' EXIT
if ! { cmake --preset debug && cmake --build --preset debug -j "$(nproc)" --target aov-sim; } \
    >"$log" 2>&1; then
  cat "$log" >&2
  echo "run-sim.sh: the build failed (output above)" >&2
  exit 1
fi
build/debug/tools/aov-sim/aov-sim "$@"

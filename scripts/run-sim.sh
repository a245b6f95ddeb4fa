#!/usr/bin/env bash
# Installs what is missing, builds aov-sim and runs it; arguments go to aov-sim
# (none: the embedded default scenario, five events).
set -euo pipefail
cd "$(dirname "$0")/.."

bash scripts/install-deps.sh
cmake --preset debug >/dev/null
cmake --build --preset debug -j "$(nproc)" --target aov-sim >/dev/null
exec build/debug/tools/aov-sim/aov-sim "$@"

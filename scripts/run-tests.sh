#!/usr/bin/env bash
# Installs what is missing, then configures, builds and runs every test of one
# preset: debug (default), asan (AddressSanitizer + UndefinedBehaviorSanitizer)
# or tsan (ThreadSanitizer).
set -euo pipefail
preset=${1:-debug}
cd "$(dirname "$0")/.."

bash scripts/install-deps.sh
cmake --preset "$preset"
cmake --build --preset "$preset" -j "$(nproc)"
ctest --preset "$preset" -j "$(nproc)"

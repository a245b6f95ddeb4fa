#!/usr/bin/env bash
# Installs what is missing, then configures, builds and runs every test of one
# preset: debug (default), asan (AddressSanitizer + UndefinedBehaviorSanitizer),
# tsan (ThreadSanitizer), libcxx (clang and libc++, as the device builds) or
# libcxx-asan (the same with AddressSanitizer, UndefinedBehaviorSanitizer and
# clang's integer conversion checks).
set -euo pipefail
preset=${1:-debug}
cd "$(dirname "$0")/.."

case $preset in
  libcxx*) bash scripts/install-deps.sh clang libc++-14-dev libc++abi-14-dev libclang-rt-14-dev ;;
  *) bash scripts/install-deps.sh ;;
esac
cmake --preset "$preset"
cmake --build --preset "$preset" -j "$(nproc)"
case $preset in
  libcxx*) bash scripts/check-stdlib.sh "build/$preset/hw/aov/libkelocam_aov_plat.so" libc++ ;;
esac
# A test binary that serves a FUSE node from its own thread can hang in its own
# exit after a failure (its close waits on the server it was): the watchdog
# frees it, so that ctest reports the failure instead of waiting for ever.
python3 scripts/fuse-watchdog.py --while-pid $$ &
watchdog=$!
trap 'kill "$watchdog" 2>/dev/null || true' EXIT
ctest --preset "$preset" -j "$(nproc)"

#!/usr/bin/env bash
# Builds the libFuzzer targets with clang and runs each for a while from its
# seed corpus. Usage: scripts/run-fuzz.sh [seconds-per-target]
set -euo pipefail
seconds=${1:-60}
cd "$(dirname "$0")/.."

bash scripts/install-deps.sh clang libclang-rt-14-dev
cmake --preset fuzz
cmake --build --preset fuzz -j "$(nproc)"
for target in catalogue_fuzz event_copy_fuzz; do
  work=$(mktemp -d)
  cp fuzz/corpus/$target/* "$work"/
  echo "== $target: ${seconds}s"
  ASAN_OPTIONS=detect_leaks=1 build/fuzz/fuzz/$target -max_total_time="$seconds" -print_final_stats=1 \
    "$work" 2>&1 | grep -E '^(#[0-9]+.*(DONE|pulse)|stat::number_of_executed_units|stat::peak_rss_mb|==.*ERROR|SUMMARY)' | tail -n 5
  rm -rf "$work"
done

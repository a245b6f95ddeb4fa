#!/usr/bin/env bash
# Builds the libFuzzer targets with clang and runs each for a while from its
# seed corpus (and its dictionary, if it has one). A target that finds a crash
# prints its whole report, leaves the input in build/fuzz/crashes/, and makes
# the script fail. Usage: scripts/run-fuzz.sh [seconds-per-target]
set -euo pipefail
seconds=${1:-60}
cd "$(dirname "$0")/.."

targets=(catalogue_fuzz event_copy_fuzz scenario_fuzz options_fuzz session_fuzz)
crashes=build/fuzz/crashes

bash scripts/install-deps.sh clang libclang-rt-14-dev
cmake --preset fuzz
cmake --build build/fuzz -j "$(nproc)" --target "${targets[@]}"
mkdir -p "$crashes"

status=0
for target in "${targets[@]}"; do
  work=$(mktemp -d)
  log=$(mktemp)
  cp fuzz/corpus/$target/* "$work"/
  dict=()
  if [ -f fuzz/$target.dict ]; then
    dict=(-dict=fuzz/$target.dict)
  fi
  echo "== $target: ${seconds}s"
  if ASAN_OPTIONS=detect_leaks=1 build/fuzz/fuzz/$target -max_total_time="$seconds" \
      -print_final_stats=1 -artifact_prefix="$crashes/$target-" "${dict[@]}" "$work" >"$log" 2>&1; then
    grep -E '^(#[0-9]+.*(DONE|pulse)|stat::number_of_executed_units|stat::peak_rss_mb)' "$log" | tail -n 4
  else
    echo "== $target FAILED; its whole report:"
    cat "$log"
    status=1
  fi
  rm -rf "$work" "$log"
done
exit "$status"

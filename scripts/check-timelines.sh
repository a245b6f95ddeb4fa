#!/usr/bin/env bash
# Builds aov-sim and aov-kdev (debug preset), records the timeline of the
# default scenario, of one with a failed dequeue and, as root with /dev/fuse,
# of the default scenario with the driver in aov-kdev, and checks each against
# its summary. The timelines stay in build/debug/timelines.
set -euo pipefail
cd "$(dirname "$0")/.."

cmake --preset debug >/dev/null
cmake --build --preset debug -j2 --target aov-sim aov-kdev
sim=build/debug/tools/aov-sim/aov-sim
out=build/debug/timelines
mkdir -p "$out"
rm -f "$out"/*.json
"$sim" --print-scenario |
  python3 -c 'import json, sys; d = json.load(sys.stdin); d["failures"] = {"dequeue": [2]}; print(json.dumps(d))' \
    >"$out/dequeue-failure-scenario.json"

check() {
  local name=$1
  shift
  "$sim" "$@" --timeline "$out/$name.json" >"$out/$name.log"
  # The summary's own counts: delivered events, kernel requests, library error lines.
  local delivered requests errors
  delivered=$(sed -n 's/.*summary: events delivered \([0-9]*\),.*/\1/p' "$out/$name.log")
  requests=$(sed -n 's/.*summary: kernel requests \([0-9]*\) .*/\1/p' "$out/$name.log")
  errors=$(sed -n 's/.*library error lines \([0-9]*\),.*/\1/p' "$out/$name.log")
  python3 scripts/check-timeline.py "$out/$name.json" --delivered "$delivered" \
    --requests "$requests" --errors "$errors"
}

check default --events 5
check dequeue-failure -s "$out/dequeue-failure-scenario.json" --events 5
if [[ $(id -u) -eq 0 && -c /dev/fuse ]]; then
  check fuse --kernel fuse --events 5
elif [ "${CI:-}" = true ]; then
  echo "check-timelines: the fuse timeline needs root and /dev/fuse, which CI has (CI=true)" >&2
  exit 1
else
  echo "check-timelines: skipped the fuse timeline (needs root and /dev/fuse)"
fi

#!/usr/bin/env bash
# Records the timelines (scripts/check-timelines.sh), then loads each into
# speedscope (npm, the version pinned in tools/viewer-check) in headless
# Chromium and checks that it imports without an error and draws every thread.
# Screenshots go to build/debug/timelines/screenshots.
set -euo pipefail
cd "$(dirname "$0")/.."

bash scripts/check-timelines.sh
# Debian's Chromium; Node.js and npm from Debian only where the machine has none.
bash scripts/install-deps.sh chromium
if ! command -v npm >/dev/null; then
  bash scripts/install-deps.sh nodejs npm
fi
viewer=build/viewer-check
mkdir -p "$viewer"
cp tools/viewer-check/package.json tools/viewer-check/package-lock.json "$viewer/"
(cd "$viewer" && timeout 300 npm ci --no-audit --no-fund --loglevel=error)
cp tools/viewer-check/check-speedscope.mjs "$viewer/"
shots=build/debug/timelines/screenshots
mkdir -p "$shots"
timelines=()
for name in default dequeue-failure fuse; do
  if [[ -f build/debug/timelines/$name.json ]]; then
    timelines+=("build/debug/timelines/$name.json")
  fi
done
timeout 300 node "$viewer/check-speedscope.mjs" "$viewer/node_modules/speedscope/dist/release" \
  "$shots" "${timelines[@]}"

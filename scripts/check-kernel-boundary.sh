#!/usr/bin/env bash
# Runs aov-sim with the driver in aov-kdev behind a FUSE node, under
# strace, and checks that the library's seven request codes reach the kernel
# as ioctl system calls on the descriptor it opened for /dev/kelo_aov.
# Needs root and /dev/fuse; says so and stops without failing where they lack,
# except in CI (CI=true), which has them: there it fails.
set -euo pipefail
cd "$(dirname "$0")/.."

if [ "$(id -u)" != 0 ] || [ ! -w /dev/fuse ]; then
  if [ "${CI:-}" = true ]; then
    echo "check-kernel-boundary: needs root and /dev/fuse, which CI has (CI=true)" >&2
    exit 1
  fi
  echo "check-kernel-boundary: skipped: needs root and /dev/fuse"
  exit 0
fi
bash scripts/install-deps.sh
cmake --preset debug >/dev/null
cmake --build --preset debug -j2 --target aov-sim aov-kdev
out=build/debug/kernel-boundary
mkdir -p "$out"
strace -f -X raw -e trace=openat,ioctl -o "$out/strace.txt" \
  build/debug/tools/aov-sim/aov-sim --kernel fuse --events 3 >"$out/aov-sim.log"

# The descriptor the library got for the node (aov-sim's own open, which
# creates the mount point, passes a mode as well).
fd=$(sed -n 's/.*openat(-100, "\/dev\/kelo_aov", [^),]*) = \([0-9]*\)$/\1/p' "$out/strace.txt" | head -n 1)
if [ -z "$fd" ]; then
  echo "check-kernel-boundary: no open of /dev/kelo_aov in $out/strace.txt" >&2
  exit 1
fi
status=0
for entry in START:0x40c84800 SENSOR_ON:0x41044801 SENSOR_OFF:0x41044802 \
  DEQUEUE_EVENT:0x80d84803 STOP:0x4804 ULPOSC3_ON:0x4809 ULPOSC3_OFF:0x480a; do
  name=${entry%%:*}
  code=${entry#*:}
  # Calls that strace splits around another thread's show "<unfinished ...>"
  # first and the result on a "resumed" line; count the calls themselves.
  calls=$(grep -cE "ioctl\($fd, $code([,) ]|$)" "$out/strace.txt" || true)
  printf '%-14s %-11s %s call(s) on fd %s\n' "$name" "$code" "$calls" "$fd"
  if [ "$calls" -eq 0 ]; then
    echo "check-kernel-boundary: $name ($code) never reached the kernel" >&2
    status=1
  fi
done
exit $status

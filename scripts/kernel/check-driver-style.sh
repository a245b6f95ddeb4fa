#!/usr/bin/env bash
# The driver's style and static checks: checkpatch.pl --strict (from Debian's
# linux-source) reports nothing, and sparse (make C=2) reports nothing.
# Usage: scripts/kernel/check-driver-style.sh [OUT_DIR]
set -euo pipefail
cd "$(dirname "$0")/../.."
out=$(realpath -m "${1:-build/kernel}")/style
mkdir -p "$out"

tarball=$(find /usr/src -maxdepth 1 -name 'linux-source-*.tar.xz' | sort -V | tail -n 1)
[ -n "$tarball" ] || { echo "check-driver-style: no linux-source tarball under /usr/src" >&2; exit 1; }
top=$(basename "$tarball" .tar.xz)
if [ ! -f "$out/$top/scripts/checkpatch.pl" ]; then
  tar -xJf "$tarball" -C "$out" "$top/scripts/checkpatch.pl" "$top/scripts/spelling.txt" \
    "$top/scripts/const_structs.checkpatch"
fi
status=0
if ! perl "$out/$top/scripts/checkpatch.pl" --strict --no-tree --terse --show-types -f \
  drivers/kelo_aov/kelo_aov.c drivers/kelo_aov/Kbuild drivers/kelo_aov/Makefile >"$out/checkpatch.txt" 2>&1; then
  status=1
fi
if grep -E 'ERROR|WARNING|CHECK' "$out/checkpatch.txt"; then
  echo "check-driver-style: checkpatch --strict reports the lines above" >&2
  status=1
fi

headers=$(find /usr/src -maxdepth 1 -name 'linux-headers-*-amd64' | sort -V | tail -n 1)
rm -rf "$out/module" && mkdir -p "$out/module"
cp drivers/kelo_aov/kelo_aov.c drivers/kelo_aov/Kbuild "$out/module/"
make -s -C "$headers" M="$out/module" AOV_INC="$PWD/hw/aov/inc" C=2 modules >"$out/sparse.txt" 2>&1 || status=1
if grep -v 'Skipping BTF' "$out/sparse.txt" | grep -E 'warning|error'; then
  echo "check-driver-style: sparse or the compiler reports the lines above" >&2
  status=1
fi
[ "$status" -ne 0 ] || echo "check-driver-style: checkpatch --strict and sparse report nothing"
exit "$status"

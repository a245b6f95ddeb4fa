#!/usr/bin/env bash
# Checks that a built libkelocam_aov_plat.so defines exactly the dynamic
# symbols listed in hw/aov/libkelocam_aov_plat.exports: its interface and
# nothing of the implementation, the host platform or the standard library.
# Usage: check-exports.sh LIB [nm-tool]
set -euo pipefail
lib=$1
nm_tool=${2:-nm}
list="$(dirname "$0")/../hw/aov/libkelocam_aov_plat.exports"

expected=$(grep -v -E '^\s*(#|$)' "$list" | LC_ALL=C sort)
actual=$("$nm_tool" -D --defined-only "$lib" | awk '{print $NF}' | LC_ALL=C sort)
if [ "$expected" != "$actual" ]; then
  echo "exports of $lib differ from $list (- listed, + defined):" >&2
  diff <(echo "$expected") <(echo "$actual") | grep -E "^[<>]" | sed "s/^</-/; s/^>/+/" | head -n 40 >&2
  exit 1
fi
echo "exports of $lib: ok ($(wc -l <<<"$actual") symbols, as listed)"

#!/usr/bin/env bash
# Checks which C++ standard library a built shared object needs: libc++ (with
# its ABI library) and no libstdc++, or the reverse.
# Usage: check-stdlib.sh LIB libc++|libstdc++ [readelf-tool]
set -euo pipefail
lib=$1
want=$2
readelf_tool=${3:-readelf}

needed=$("$readelf_tool" -d "$lib" | sed -n 's/.*(NEEDED).*\[\(.*\)\]/\1/p')
has() { grep -qx "$1" <<<"$needed"; }
case $want in
  libc++) has libc++.so.1 && ! has libstdc++.so.6 ;;
  libstdc++) has libstdc++.so.6 && ! has libc++.so.1 ;;
  *) echo "check-stdlib.sh: unknown standard library '$want'" >&2; exit 2 ;;
esac || {
  echo "$lib: expected $want only; it needs: $(echo $needed)" >&2
  exit 1
}
echo "$lib: links $want only ($(echo $needed))"

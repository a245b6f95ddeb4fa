#!/usr/bin/env bash
# The tree's dependency rules on #include lines (the build's own links and
# include folders are checked when it is configured, cmake/AOVLayering.cmake):
#   - platform/ includes nothing from hw/ (the platform is below the library);
#   - base/ includes nothing of the tree but base/;
#   - tools/common includes nothing of the simulator, the library's
#     implementation or a tool (base/ and the kernel-interface header only).
# That no tool includes another tool's headers is scripts/check-tool-includes.py's.
# A header counts as another part's when its name is found there and not in
# the including part itself. Prints each break and exits 1; 0 when none.
set -euo pipefail
cd "$(dirname "$0")/.."

status=0
broken() {
  echo "layering: $*" >&2
  status=1
}

# The headers a folder's files include with quotes, as "FILE<TAB>HEADER" lines.
includes_of() {
  grep -rHoE '^\s*#\s*include\s+"[^"]+"' --include='*.h' --include='*.c' --include='*.cpp' "$@" |
    sed -E 's/:\s*#\s*include\s+"([^"]+)"$/\t\1/'
}

# Whether a header named `name` (a path as written in the include) is in one
# of the folders after it.
has_header() {
  local name=$1
  shift
  local folder
  for folder in "$@"; do
    [ -d "$folder" ] || continue
    if [ -n "$(find "$folder" -path "*/$name" -print -quit)" ]; then
      return 0
    fi
  done
  return 1
}

while IFS=$'\t' read -r file header; do
  if [[ $header == *hw/* ]] || { has_header "$header" hw && ! has_header "$header" platform; }; then
    broken "$file includes $header, from hw/: the platform is below the library"
  fi
done < <(includes_of platform)

while IFS=$'\t' read -r file header; do
  if ! has_header "$header" base; then
    broken "$file includes $header, which is not in base/: base/ is under everything"
  fi
done < <(includes_of base)

tools=(tools/aov-*)
while IFS=$'\t' read -r file header; do
  has_header "$header" tools/common base && continue
  if has_header "$header" sim hw/aov/inc/sys hw/aov/src platform testing "${tools[@]}"; then
    broken "$file includes $header: tools/common stands on base/ and the kernel-interface header only"
  fi
done < <(includes_of tools/common)

if [ "$status" = 0 ]; then
  echo "layering: platform/, base/ and tools/common include only what they may"
fi
exit "$status"

#!/usr/bin/env bash
# Checks that every C and C++ file in the repository is formatted as
# .clang-format says; lists the files that are not and shows the changes.
set -euo pipefail
cd "$(dirname "$0")/.."

bash scripts/install-deps.sh clang-format
mapfile -t files < <(git ls-files '*.c' '*.cpp' '*.h')
bad=()
for file in "${files[@]}"; do
  if ! clang-format --dry-run --Werror "$file" >/dev/null 2>&1; then
    bad+=("$file")
  fi
done
if [ "${#bad[@]}" -gt 0 ]; then
  echo "not formatted as .clang-format says (fix with: clang-format -i FILE):" >&2
  for file in "${bad[@]}"; do
    echo "== $file" >&2
    diff -u "$file" <(clang-format "$file") | tail -n +3 | head -n 30 >&2 || true
  done
  exit 1
fi
echo "formatting: ${#files[@]} files as .clang-format says"

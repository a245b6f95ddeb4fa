#!/usr/bin/env bash
# Checks Android.bp three ways: bpfmt finds nothing to reformat; mini-soong
# turns it into a Makefile that builds libkelocam_aov_plat.so from the same
# sources as the CMake build; and that library exports exactly the listed
# symbols, as the CMake build's does.
#
# mini-soong covers only part of Soong. What it lacks is handed to make on its
# command line, taken from the Android.bp itself, so that what is checked is
# the module's sources, flags and exports:
#   - cc_library_headers and header_libs are skipped: the headers modules'
#     export_include_dirs (the platform's and base/'s) go into CPPFLAGS;
#   - version_script is skipped: it goes into LDFLAGS;
#   - cpp_std is skipped and C++11 forced: CXXFLAGS becomes the module's cpp_std;
#   - -Werror is dropped from cflags: it goes back into CFLAGS;
#   - the compiler is clang, as Soong's is (cflags hold clang-only warnings),
#     for both modules.
# Usage: check-android-bp.sh [cmake-build-dir] (default build/debug, built)
set -euo pipefail
cd "$(dirname "$0")/.."
cmake_build=${1:-build/debug}

bash scripts/install-deps.sh blueprint-tools mini-soong make clang

if ! bpfmt -d Android.bp >/dev/null || [ -n "$(bpfmt -d Android.bp)" ]; then
  echo "Android.bp: not as bpfmt formats it:" >&2
  bpfmt -d Android.bp >&2 || true
  exit 1
fi
echo "Android.bp: bpfmt finds nothing to change"

# One value of a module in Android.bp: bp_value MODULE PROPERTY.
bp_value() {
  python3 - "$1" "$2" <<'PY'
import re, sys
module, prop = sys.argv[1], sys.argv[2]
text = re.sub(r"//[^\n]*", "", open("Android.bp").read())
block = re.search(r'\{\s*name:\s*"%s",(.*?)\n\}' % re.escape(module), text, re.S)
if not block:
    sys.exit("Android.bp: no module " + module)
value = re.search(r"\n\s*%s:\s*(\[[^\]]*\]|\"[^\"]*\")" % re.escape(prop), block.group(1))
if not value:
    sys.exit("Android.bp: module %s has no %s" % (module, prop))
print(" ".join(re.findall(r'"([^"]*)"', value.group(1))))
PY
}
# Every file and directory the modules name must exist.
missing=$(grep -o -E '"[A-Za-z0-9_./-]+/[A-Za-z0-9_./-]+"' Android.bp | tr -d '"' | sort -u |
          while read -r path; do [ -e "$path" ] || echo "$path"; done)
if [ -n "$missing" ]; then
  echo "Android.bp names paths that do not exist:" >&2
  echo "$missing" >&2
  exit 1
fi

base_dirs=$(bp_value libkelocam_aov_base_headers export_include_dirs)
headers_dirs="$(bp_value libkelocam_aov_platform_headers export_include_dirs) $base_dirs"
version_script=$(bp_value libkelocam_aov_plat version_script)
cpp_std=$(bp_value kelocam_aov_defaults cpp_std)

# mini-soong writes paths relative to the Android.bp: work in a copy of the
# tree's top level inside the build directory.
out=build/android-bp
rm -rf "$out"
mkdir -p "$out"
cp Android.bp "$out"/
for dir in base hw platform session tests tools; do
  ln -s "$PWD/$dir" "$out/$dir"
done
(cd "$out" && mini-soong Android.bp Makefile 2>mini-soong.log)

make_vars=(CC=clang++
           "CPPFLAGS=$(printf -- '-I%s ' $headers_dirs)"
           "CFLAGS=-Werror -fPIC"
           "CXXFLAGS=-std=$cpp_std"
           "LDFLAGS=-Wl,--version-script=$version_script")
print_var() {
  make -s -C "$out" -f Makefile --eval 'print-%: ; @echo $($*)' "print-$1" "${make_vars[@]}"
}

# The library's sources, against those the CMake build compiles into it.
bp_srcs=$(print_var libkelocam_aov_plat_SRCS | tr ' ' '\n' | grep -v '^$' | LC_ALL=C sort)
cmake_srcs=$(python3 - "$cmake_build/compile_commands.json" <<'PY'
import json, os, sys
top = os.getcwd()
for entry in json.load(open(sys.argv[1])):
    if "/kelocam_aov_plat_objects.dir/" in entry["command"] + entry.get("output", ""):
        print(os.path.relpath(entry["file"], top))
PY
)
cmake_srcs=$(LC_ALL=C sort <<<"$cmake_srcs")
if [ "$bp_srcs" != "$cmake_srcs" ]; then
  echo "libkelocam_aov_plat sources differ (- CMake, + Android.bp):" >&2
  diff <(echo "$cmake_srcs") <(echo "$bp_srcs") | grep -E '^[<>]' | sed 's/^</-/; s/^>/+/' >&2
  exit 1
fi
echo "libkelocam_aov_plat: Android.bp and CMake compile the same $(wc -l <<<"$bp_srcs") sources"

make -C "$out" -f Makefile libkelocam_aov_plat.so "${make_vars[@]}" >"$out/make.log" 2>&1 || {
  cat "$out/make.log" >&2
  exit 1
}
lib=$out/libkelocam_aov_plat.so
bash scripts/check-exports.sh "$lib"
bash scripts/check-exports.sh "$cmake_build/hw/aov/libkelocam_aov_plat.so"

# The session recorder's preload library: it builds from the Android.bp's
# sources and exports exactly the calls it wraps.
rec_version_script=$(bp_value libaov_rec_preload version_script)
make -C "$out" -f Makefile libaov_rec_preload.so CC=clang++ "CXXFLAGS=-std=$cpp_std" \
  "CPPFLAGS=$(printf -- '-I%s ' $base_dirs)" \
  "CFLAGS=-Werror -fPIC -DAOV_REC_HAVE_ZSTD=1" "LDFLAGS=-Wl,--version-script=$rec_version_script" >"$out/make-rec.log" 2>&1 || {
  cat "$out/make-rec.log" >&2
  exit 1
}
# The calls it wraps are the global names of its version script.
wrapped=$(sed -n '/global:/,/local:/p' "$rec_version_script" | grep -o '^ *[A-Za-z_][A-Za-z0-9_]*;' | tr -d ' ;' | tr '\n' ' ')
wrapped=${wrapped% }
exported=$(nm -D --defined-only "$out/libaov_rec_preload.so" | awk '$2 ~ /^[TW]$/ {print $3}' | LC_ALL=C sort | tr '\n' ' ')
if [ "$exported" != "$(tr ' ' '\n' <<<"$wrapped" | LC_ALL=C sort | tr '\n' ' ')" ]; then
  echo "libaov_rec_preload.so exports: $exported; expected: $wrapped" >&2
  exit 1
fi
echo "libaov_rec_preload: built from Android.bp, exports the $(wc -w <<<"$wrapped") wrapped calls"

#!/usr/bin/env bash
# Installs a build under a fresh prefix and uses it as a user would: the
# layout, a project that finds the library through find_package, the tools run
# from the prefix (the library and the recorder's preload library found
# through their own folder), the man pages.
# Usage: check-installed-tree.sh BUILD_DIR SOURCE_DIR CXX_COMPILER EXPECT_MAN(0|1)
set -euo pipefail
build=$1 source=$2 cxx=$3 expect_man=$4

work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
prefix=$work/prefix
fail() { echo "check-installed-tree: $*" >&2; exit 1; }

cmake --install "$build" --prefix "$prefix" >"$work/install.log" || {
    cat "$work/install.log"; fail "cmake --install failed"; }

# Where each thing is: bin/, lib*/ (lib or a multiarch folder), include/, share/.
libdir=$(dirname "$(find "$prefix" -name libkelocam_aov_plat.so -print -quit)")
[ -f "$libdir/libkelocam_aov_plat.so" ] || fail "libkelocam_aov_plat.so not installed"
for header in IAOVDevice.h IAOVSensor.h EventObserver.h AOVExport.h aov_event.h user_param.h kelo_aov.h; do
    [ -f "$prefix/include/kelocam_aov_plat/$header" ] || fail "header $header not installed"
done
for internal in DevControl.h ThreadAnnotations.h Mutex.h; do
    [ ! -e "$prefix/include/kelocam_aov_plat/$internal" ] || fail "internal header $internal installed"
done
for config in kelocam_aov_platConfig.cmake kelocam_aov_platConfigVersion.cmake kelocam_aov_platTargets.cmake; do
    [ -f "$libdir/cmake/kelocam_aov_plat/$config" ] || fail "$config not installed"
done
[ -f "$libdir/aov-rec/libaov_rec_preload.so" ] || fail "the preload library is not in $libdir/aov-rec"
for doc in README.md compliance.md session-format.md; do
    [ -f "$prefix/share/doc/kelocam_aov_plat/$doc" ] || fail "doc $doc not installed"
done

# A consumer project configured against the prefix only.
consumer=$source/tests/install/consumer
cmake -S "$consumer" -B "$work/consumer" -G Ninja -DCMAKE_CXX_COMPILER="$cxx" \
    -DCMAKE_PREFIX_PATH="$prefix" >"$work/consumer.log" 2>&1 || {
    cat "$work/consumer.log"; fail "the consumer project does not find kelocam_aov_plat"; }
cmake --build "$work/consumer" >>"$work/consumer.log" 2>&1 || {
    cat "$work/consumer.log"; fail "the consumer project does not build against the install"; }
out=$("$work/consumer/aov_consumer") || fail "the consumer does not run: $out"
[ "$out" = "linked device 1 sensor 1, sensor_mode 24 bytes" ] || fail "the consumer printed: $out"
# The version file refuses a major version this install is not.
if cmake -S "$consumer" -B "$work/consumer2" -G Ninja -DCMAKE_CXX_COMPILER="$cxx" \
    -DCMAKE_PREFIX_PATH="$prefix" -DAOV_CONSUMER_WANTS=2.0 >"$work/consumer2.log" 2>&1; then
    fail "find_package(kelocam_aov_plat 2.0) accepted version 1"
fi

# The tools from the prefix: not found next to the build's files.
for tool in aov-sim aov-kdev aov-compliance aov-rec; do
    [ -x "$prefix/bin/$tool" ] || fail "$tool not installed"
    "$prefix/bin/$tool" --help >"$work/help.txt" 2>&1 || { cat "$work/help.txt"; fail "$tool --help failed"; }
done
events=$("$prefix/bin/aov-sim" --events 2 2>&1) || { echo "$events"; fail "aov-sim --events 2 failed"; }
rec=$("$prefix/bin/aov-rec" record -o "$work/none.rec" -- true 2>&1) || {
    echo "$rec"; fail "the installed aov-rec does not find its preload library"; }

if [ "$expect_man" = 1 ]; then
    for tool in aov-sim aov-kdev aov-compliance aov-rec; do
        page=$prefix/share/man/man1/$tool.1.gz
        [ -f "$page" ] || fail "no man page $page"
        title=$(gzip -dc "$page" | sed -n '/^\.TH /{p;q}')
        title=${title//\"/}
        [[ ${title,,} == ".th $tool "* ]] || fail "$page is not the man page of $tool: $title"
    done
fi
echo "check-installed-tree: the installed tree works"

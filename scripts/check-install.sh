#!/usr/bin/env bash
# Builds the desk tools' .deb from a build folder, installs it on this machine,
# runs each tool from PATH (--help, a short session, a check of an aov-kdev
# node), checks the man pages, and removes the package again, checking that
# none of its files is left. Root; /dev/fuse for the aov-kdev check.
# Usage: scripts/check-install.sh [BUILD_DIR]   (default build/debug, configured and built)
set -euo pipefail
cd "$(dirname "$0")/.."
build=${1:-build/debug}
package=kelocam-aov-tools
tools=(aov-sim aov-kdev aov-compliance aov-rec)

fail() { echo "check-install: $*" >&2; exit 1; }
[ "$(id -u)" = 0 ] || fail "needs root (it installs a package)"
[ -f "$build/CPackConfig.cmake" ] || fail "$build is not a configured build folder"
bash scripts/install-deps.sh
if dpkg-query -W -f='${Status}' "$package" 2>/dev/null | grep -q 'install ok installed'; then
    fail "$package is already installed: remove it first (apt-get purge $package)"
fi

cmake --build "$build" -j2 >/dev/null
rm -rf "$build/package"
cpack_log=$(realpath "$build")/cpack.log
(cd "$build" && timeout 120 cpack -G DEB >"$cpack_log" 2>&1) || {
    cat "$cpack_log"; fail "cpack could not build the .deb"; }
deb=$(find "$build/package" -maxdepth 1 -name "${package}_*.deb" -print -quit)
[ -n "$deb" ] || fail "cpack wrote no ${package}_*.deb into $build/package"
deb=$(realpath "$deb")
echo "check-install: $(basename "$deb"), depends: $(dpkg-deb -f "$deb" Depends)"

work=$(mktemp -d)
kdev_pid=
cleanup() {
    if [ -n "$kdev_pid" ]; then
        kill "$kdev_pid" 2>/dev/null || true
        umount -l "$work/mnt" 2>/dev/null || true
    fi
    if dpkg-query -W -f='${Status}' "$package" 2>/dev/null | grep -q 'install ok installed'; then
        DEBIAN_FRONTEND=noninteractive apt-get purge -y -qq "$package" >/dev/null || true
    fi
    rm -rf "$work"
}
trap cleanup EXIT

DEBIAN_FRONTEND=noninteractive timeout 120 apt-get install -y -qq --no-install-recommends "$deb" \
    >"$work/apt.log" 2>&1 || { cat "$work/apt.log"; fail "apt-get install of the .deb failed"; }
dpkg -L "$package" >"$work/files"
dpkg-deb -c "$deb" >"$work/contents"

cd "$work"
ran="--help, aov-sim --events 2"
for tool in "${tools[@]}"; do
    [ "$(command -v "$tool")" = "/usr/bin/$tool" ] || fail "$tool is not /usr/bin/$tool on PATH"
    timeout 30 "$tool" --help >"$work/help" 2>&1 || { cat "$work/help"; fail "$tool --help failed"; }
done
timeout 60 aov-sim --events 2 >"$work/sim.log" 2>&1 || { cat "$work/sim.log"; fail "aov-sim --events 2 failed"; }
timeout 30 aov-rec record -o "$work/none.rec" -- true >"$work/rec.log" 2>&1 || {
    cat "$work/rec.log"; fail "aov-rec record does not find its preload library"; }

if [ -c /dev/fuse ]; then
    mkdir "$work/mnt"
    aov-kdev --mount "$work/mnt" --quiet >"$work/kdev.log" 2>&1 &
    kdev_pid=$!
    for _ in $(seq 100); do
        [ -e "$work/mnt/kelo_aov" ] && break
        kill -0 "$kdev_pid" 2>/dev/null || { cat "$work/kdev.log"; fail "aov-kdev ended before serving its node"; }
        sleep 0.1
    done
    [ -e "$work/mnt/kelo_aov" ] || fail "aov-kdev did not serve $work/mnt/kelo_aov within 10 s"
    timeout 60 aov-compliance -d "$work/mnt/kelo_aov" >"$work/compliance.log" 2>&1 || {
        cat "$work/compliance.log"; fail "aov-compliance found faults in aov-kdev's node"; }
    # A session through the node, recorded by the installed recorder, then
    # summarised and retraced against the same node.
    AOV_REC_NODE=$work/mnt/kelo_aov timeout 60 aov-rec record -o "$work/session.rec" -- \
        aov-sim --node "$work/mnt/kelo_aov" --events 2 >"$work/rec.log" 2>&1 || {
        cat "$work/rec.log"; fail "aov-rec record of aov-sim --node failed"; }
    timeout 30 aov-rec info "$work/session.rec" >"$work/info.log" 2>&1 || {
        cat "$work/info.log"; fail "aov-rec info failed"; }
    grep -Eq '^  DEQUEUE_EVENT +2 ' "$work/info.log" || {
        cat "$work/info.log"; fail "the recording holds no 2 dequeues"; }
    timeout 60 aov-rec retrace "$work/session.rec" -d "$work/mnt/kelo_aov" >"$work/retrace.log" 2>&1 || {
        cat "$work/retrace.log"; fail "aov-rec retrace found differences"; }
    ran="$ran, aov-compliance, a recording and its retrace through an aov-kdev node"
    kill "$kdev_pid"
    timeout 10 tail --pid="$kdev_pid" -f /dev/null || fail "aov-kdev did not end within 10 s of SIGTERM"
    kdev_pid=
else
    echo "check-install: no /dev/fuse: aov-kdev and aov-compliance checked through --help only"
fi

# The man pages: where man finds them when man-db is there, else by path.
for tool in "${tools[@]}"; do
    page=/usr/share/man/man1/$tool.1.gz
    grep -q " \.$page\$" "$work/contents" || fail "the package has no $page"
    if command -v man >/dev/null && [ -e "$page" ]; then
        [ "$(man -w "$tool")" = "$page" ] || fail "man -w $tool is not $page"
    fi
done
grep -q ' \./usr/share/doc/kelocam_aov_plat/README\.md$' "$work/contents" || fail "the package has no README.md"

DEBIAN_FRONTEND=noninteractive timeout 60 apt-get purge -y -qq "$package" >"$work/apt.log" 2>&1 || {
    cat "$work/apt.log"; fail "apt-get purge failed"; }
status=$(dpkg-query -W -f='${Status}' "$package" 2>/dev/null || true)
case $status in
    "" | *not-installed) ;;
    *) fail "$package is still known to dpkg after apt-get purge ($status)" ;;
esac
left=()
while read -r path; do
    if [ -e "$path" ] && [ ! -d "$path" ]; then
        left+=("$path")
    fi
done <"$work/files"
[ "${#left[@]}" = 0 ] || fail "left after removal: ${left[*]}"
# A folder the package brought and no other package owns goes with it.
while read -r path; do
    if [ -d "$path" ] && ! dpkg -S "$path" >/dev/null 2>&1; then
        fail "folder left after removal: $path"
    fi
done <"$work/files"
echo "check-install: installed; from PATH: $ran; removed $(grep -c . "$work/files") paths cleanly"

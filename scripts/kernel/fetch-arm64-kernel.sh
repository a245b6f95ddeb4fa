#!/usr/bin/env bash
# Downloads Debian's arm64 kernel image and headers of the same version as the
# host's amd64 headers, and the arm64 busybox-static, unpacks them under DEST
# with dpkg -x (nothing installed) and prints DEST/root. The headers' scripts
# and common headers are pointed at the host's linux-kbuild and
# linux-headers-*-common of that version, so the module cross-builds.
set -euo pipefail
cd "$(dirname "$0")/../.."
dest=$(realpath -m "${1:-build/kernel/arm64-kernel}")
host=$(find /usr/src -maxdepth 1 -name 'linux-headers-*-amd64' | sort -V | tail -n 1)
[ -n "$host" ] || { echo "fetch-arm64-kernel: no amd64 headers under /usr/src" >&2; exit 1; }
abi=${host##*/linux-headers-}
abi=${abi%-amd64}
root=$dest/root
if [ -d "$root/usr/src/linux-headers-$abi-arm64" ] && [ -x "$root/bin/busybox" ]; then
  echo "$root"
  exit 0
fi
apt_dir=$dest/apt
mkdir -p "$apt_dir/lists/partial" "$apt_dir/cache/archives/partial" "$dest/debs"
apt_options=(-o APT::Architecture=arm64 -o APT::Architectures::=arm64
             -o Dir::State::Lists="$apt_dir/lists" -o Dir::Cache="$apt_dir/cache"
             -o Dir::State::status=/dev/null -o APT::Sandbox::User=root)
apt-get -qq "${apt_options[@]}" update >&2
rm -f "$dest"/debs/*.deb
(cd "$dest/debs" && apt-get -qq "${apt_options[@]}" download \
  "linux-image-$abi-arm64-unsigned:arm64" "linux-headers-$abi-arm64:arm64" "busybox-static:arm64" >&2)
rm -rf "$root.tmp"
for deb in "$dest"/debs/*.deb; do
  dpkg -x "$deb" "$root.tmp"
done
headers=$root.tmp/usr/src/linux-headers-$abi-arm64
ln -sfn "/usr/lib/linux-kbuild-${abi%%.0-*}/scripts" "$headers/scripts"
ln -sfn "/usr/lib/linux-kbuild-${abi%%.0-*}/tools" "$headers/tools"
rm -rf "$root"
mv "$root.tmp" "$root"
echo "$root"

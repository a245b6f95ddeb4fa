#!/usr/bin/env bash
# Downloads Debian's Arm64 libc++, libc++abi and libunwind packages and unpacks
# them under DEST (default build/arm64-libcxx-root) for the Arm64 libc++ cross
# build. Nothing is installed and dpkg's architectures are left alone: an arm64
# C library in the host's tree would be picked up by the emulator's loader.
# apt runs on a private package list for arm64 only.
set -euo pipefail
cd "$(dirname "$0")/.."
dest=$(realpath -m "${1:-build/arm64-libcxx-root}")
version=14
packages=(libc++1-$version libc++-$version-dev libc++abi1-$version libc++abi-$version-dev
          libunwind-$version libunwind-$version-dev)

if [ -e "$dest/root/usr/lib/aarch64-linux-gnu/libc++.so.1" ]; then
  exit 0
fi
apt_dir=$dest/apt
mkdir -p "$apt_dir/lists/partial" "$apt_dir/cache/archives/partial" "$dest/debs"
apt_options=(-o APT::Architecture=arm64 -o APT::Architectures::=arm64
             -o Dir::State::Lists="$apt_dir/lists" -o Dir::Cache="$apt_dir/cache"
             -o Dir::State::status=/dev/null -o APT::Sandbox::User=root)
apt-get -qq "${apt_options[@]}" update
(cd "$dest/debs" && apt-get -qq "${apt_options[@]}" download "${packages[@]/%/:arm64}")
rm -rf "$dest/root.tmp"
for deb in "$dest"/debs/*.deb; do
  dpkg -x "$deb" "$dest/root.tmp"
done
mv "$dest/root.tmp" "$dest/root"
echo "Arm64 libc++ unpacked under $dest/root"

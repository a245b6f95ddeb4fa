#!/usr/bin/env bash
# The Arm64 target, two ways:
#  - with the GNU cross toolchain and libstdc++: the library alone, and what it
#    exports;
#  - as the device builds it, with clang and libc++ (arm64-libcxx preset): the
#    library, its exports and standard library, and the unit tests run as
#    Arm64 programs under user-mode emulation.
set -euo pipefail
cd "$(dirname "$0")/.."

bash scripts/install-deps.sh g++-aarch64-linux-gnu binutils-aarch64-linux-gnu \
  libc6-dev-arm64-cross qemu-user-static clang
check_arm64() {
  local machine
  machine=$(aarch64-linux-gnu-readelf -h "$1" | grep Machine)
  echo "$1: $machine"
  grep -q AArch64 <<<"$machine"
  bash scripts/check-exports.sh "$1" aarch64-linux-gnu-nm
}

cmake --preset arm64
cmake --build --preset arm64 -j "$(nproc)" --target kelocam_aov_plat
check_arm64 build/arm64/hw/aov/libkelocam_aov_plat.so

bash scripts/fetch-arm64-libcxx.sh build/arm64-libcxx-root
cmake --preset arm64-libcxx
cmake --build --preset arm64-libcxx -j "$(nproc)"
check_arm64 build/arm64-libcxx/hw/aov/libkelocam_aov_plat.so
bash scripts/check-stdlib.sh build/arm64-libcxx/hw/aov/libkelocam_aov_plat.so libc++ \
  aarch64-linux-gnu-readelf
ctest --preset arm64-libcxx -j "$(nproc)"

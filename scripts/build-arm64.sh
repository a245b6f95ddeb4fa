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
cmake --build --preset arm64 -j "$(nproc)" --target kelocam_aov_plat aov_rec_preload
check_arm64 build/arm64/hw/aov/libkelocam_aov_plat.so
# The session recorder's preload library (without zstd here: its files are
# written uncompressed; the Android.bp module links the device's libzstd).
rec=build/arm64/tools/aov-rec/libaov_rec_preload.so
aarch64-linux-gnu-readelf -h "$rec" | grep -q AArch64
aarch64-linux-gnu-nm -D --defined-only "$rec" | grep -q ' T ioctl$'
echo "$rec: AArch64, wraps ioctl"

bash scripts/fetch-arm64-libcxx.sh build/arm64-libcxx-root
cmake --preset arm64-libcxx
cmake --build --preset arm64-libcxx -j "$(nproc)"
check_arm64 build/arm64-libcxx/hw/aov/libkelocam_aov_plat.so
bash scripts/check-stdlib.sh build/arm64-libcxx/hw/aov/libkelocam_aov_plat.so libc++ \
  aarch64-linux-gnu-readelf
ctest --preset arm64-libcxx -j "$(nproc)"

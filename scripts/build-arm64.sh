#!/usr/bin/env bash
# The Arm64 target, two ways:
#  - with the GNU cross toolchain and libstdc++: the library alone, and what it
#    exports; and aov-compliance as one static program to push to a device,
#    run under user-mode emulation with --help;
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

cmake --preset arm64 -DAOV_COMPLIANCE_STATIC=ON
cmake --build --preset arm64 -j "$(nproc)" --target kelocam_aov_plat aov-compliance aov_rec_preload
check_arm64 build/arm64/hw/aov/libkelocam_aov_plat.so
compliance=build/arm64/tools/aov-compliance/aov-compliance
aarch64-linux-gnu-readelf -h "$compliance" | grep -q AArch64
if aarch64-linux-gnu-readelf -d "$compliance" | grep -q NEEDED; then
  echo "$compliance: not static:" >&2
  aarch64-linux-gnu-readelf -d "$compliance" | grep NEEDED >&2
  exit 1
fi
echo "$compliance: static AArch64 program"
qemu-aarch64-static "$compliance" --help | head -n 1
# Under qemu-user the node's open and poll work, but its ioctls answer ENOSYS:
# the emulator passes on only the requests it knows. The run against a node
# is the host build's (tests/compliance).
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

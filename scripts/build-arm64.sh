#!/usr/bin/env bash
# Cross-builds the library for the Arm64 target, checks what it exports, then
# cross-builds the unit tests and runs them under user-mode emulation.
set -euo pipefail
cd "$(dirname "$0")/.."

bash scripts/install-deps.sh g++-aarch64-linux-gnu binutils-aarch64-linux-gnu libc6-dev-arm64-cross qemu-user-static
cmake --preset arm64
cmake --build --preset arm64 -j "$(nproc)" --target kelocam_aov_plat
lib=build/arm64/hw/aov/libkelocam_aov_plat.so
machine=$(aarch64-linux-gnu-readelf -h "$lib" | grep Machine)
echo "$lib: $machine"
grep -q AArch64 <<<"$machine"
bash scripts/check-exports.sh "$lib" aarch64-linux-gnu-nm

cmake --preset arm64-tests
cmake --build --preset arm64-tests -j "$(nproc)"
ctest --preset arm64-tests -j "$(nproc)"

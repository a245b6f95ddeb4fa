#!/usr/bin/env bash
# Cross-builds the library for the Arm64 target and checks what it exports.
set -euo pipefail
cd "$(dirname "$0")/.."

bash scripts/install-deps.sh g++-aarch64-linux-gnu binutils-aarch64-linux-gnu
cmake --preset arm64
cmake --build --preset arm64 -j "$(nproc)" --target kelocam_aov_plat
lib=build/arm64/hw/aov/libkelocam_aov_plat.so
file_info=$(aarch64-linux-gnu-readelf -h "$lib" | grep Machine)
echo "$lib: $file_info"
echo "$file_info" | grep -q AArch64
bash scripts/check-exports.sh "$lib" aarch64-linux-gnu-nm

#!/usr/bin/env bash
# Installs, if missing, the Debian packages of the kernel harness: the
# distribution kernel and its headers, QEMU for x86-64 and Arm64, a static
# busybox, sparse and the kernel source (for checkpatch.pl), and the Arm64
# cross compiler (run as root).
set -euo pipefail
cd "$(dirname "$0")/../.."
bash scripts/install-deps.sh linux-image-amd64 linux-headers-amd64 qemu-system-x86 qemu-system-arm \
  busybox-static sparse linux-source gcc-aarch64-linux-gnu libc6-dev-arm64-cross cpio make gcc \
  libc6-dev bc file xz-utils

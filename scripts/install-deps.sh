#!/usr/bin/env bash
# Installs the Debian packages the build needs, if any is missing (run as root).
# perl brings prove, the TAP consumer that reads aov-compliance's TAP in the tests;
# help2man writes the tools' man pages; dpkg-dev and file let CPack find the .deb's
# dependencies (dpkg-shlibdeps).
# Usage: scripts/install-deps.sh [extra-package ...]
set -euo pipefail

packages=(cmake ninja-build g++ pkg-config libgtest-dev libgmock-dev libbenchmark-dev nlohmann-json3-dev
  libcli11-dev libfuse3-dev fuse3 strace libzstd-dev perl python3
  help2man dpkg-dev file "$@")

missing=()
for package in "${packages[@]}"; do
  if ! dpkg-query -W -f='${Status}' "$package" 2>/dev/null | grep -q 'install ok installed'; then
    missing+=("$package")
  fi
done

if [ "${#missing[@]}" -gt 0 ]; then
  echo "Installing: ${missing[*]}"
  export DEBIAN_FRONTEND=noninteractive
  apt-get update -qq
  apt-get install -y -qq --no-install-recommends "${missing[@]}"
fi

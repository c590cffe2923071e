#!/usr/bin/env bash
# Builds everything for the device (32-bit ARM, arm-linux-gnueabihf) and runs the whole test
# suite under qemu-arm user-mode emulation.
set -euo pipefail
cd "$(dirname "$0")/.."
scripts/deps-armhf.sh
cmake --preset armhf >/dev/null
cmake --build --preset armhf
ctest --preset armhf -j"$(nproc)"

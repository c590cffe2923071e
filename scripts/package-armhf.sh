#!/usr/bin/env bash
# Builds what goes to the recorder: installs the cross packages when any is missing,
# cross-builds the module alone in build/armhf (preset armhf), checks what it needs from the
# device against cmake/device-needs.txt, and packs the install tree:
#   build/armhf/truckservice_<version>_armhf.deb
#   build/armhf/truckservice-<version>-armhf.tar.gz    the same tree
#   build/armhf/ship/libtruckservice.so.debug          the debug information, kept apart
# Extra arguments go to the configure step, e.g. a vendor toolchain for a fresh build folder:
#   scripts/package-armhf.sh -DTRUCK_CROSS_PREFIX=/opt/vendor/bin/arm-vendor-linux-gnueabihf-
set -euo pipefail
cd "$(dirname "$0")/.."
scripts/deps-armhf.sh
cmake --preset armhf "$@" >/dev/null
cmake --build --preset armhf --target truckservice
scripts/runtime-needs.sh --check build/armhf/libtruckservice.so
(cd build/armhf && cpack --config CPackConfig.cmake)
strings build/armhf/ship/libtruckservice.so | grep '^truckservice [0-9]'

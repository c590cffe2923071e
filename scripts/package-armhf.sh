#!/usr/bin/env bash
# Builds what goes to the recorder: installs the cross packages and lintian when any is missing,
# cross-builds the module alone in build/armhf (preset armhf), checks what it needs from the
# device against cmake/device-needs.txt, packs the install tree and holds the .deb to lintian
# (no error, no warning that the package does not override with its reason):
#   build/armhf/truckservice_<version>_armhf.deb
#   build/armhf/truckservice-<version>-armhf.tar.gz    the same tree
#   build/armhf/ship/libtruckservice.so.debug          the debug information, kept apart
# The packages' dates are the commit's (SOURCE_DATE_EPOCH, unless given), so the same commit
# and toolchain give the same bytes wherever they are built (scripts/check-reproducible.sh).
# Extra arguments go to the configure step, e.g. a vendor toolchain for a fresh build folder:
#   scripts/package-armhf.sh -DTRUCK_CROSS_PREFIX=/opt/vendor/bin/arm-vendor-linux-gnueabihf-
set -euo pipefail
cd "$(dirname "$0")/.."
scripts/deps-armhf.sh
scripts/deps.sh lintian
umask 022
if [ -z "${SOURCE_DATE_EPOCH:-}" ] && SOURCE_DATE_EPOCH="$(git log -1 --format=%ct 2>/dev/null)"; then
  export SOURCE_DATE_EPOCH
fi
cmake --preset armhf "$@" >/dev/null
cmake --build --preset armhf --target truckservice
scripts/runtime-needs.sh --check build/armhf/ship/libtruckservice.so
(cd build/armhf && cpack --config CPackConfig.cmake)
lintian --fail-on error,warning build/armhf/truckservice_*_armhf.deb
strings build/armhf/ship/libtruckservice.so | grep '^truckservice [0-9]'

#!/usr/bin/env bash
# The module alone, no tests, built through a toolchain under another prefix (links to Debian's
# cross tools, named as a vendor's would be): no command of its build may name Debian's prefix,
# and the vendor's compiler and strip must be the ones used. Then its runtime needs are checked.
set -euo pipefail
cd "$(dirname "$0")/.."

vendor="$PWD/build/vendor-tools"
mkdir -p "$vendor"
for tool in gcc g++ ar ranlib strip objcopy objdump nm readelf; do
  ln -sf "$(command -v arm-linux-gnueabihf-$tool)" "$vendor/arm-vendor-linux-gnueabihf-$tool"
done
cmake --preset armhf -B build/armhf-vendor -DTRUCK_CROSS_PREFIX="$vendor/arm-vendor-linux-gnueabihf-" \
  -DTRUCK_BUILD_TESTS=OFF >/dev/null
commands="$(ninja -C build/armhf-vendor -t commands truckservice)"
if grep -q 'arm-linux-gnueabihf-' <<<"$commands" || ! grep -q 'arm-vendor-linux-gnueabihf-g++' <<<"$commands" ||
   ! grep -q 'arm-vendor-linux-gnueabihf-strip' <<<"$commands"; then
  echo "check-vendor-toolchain: the vendor-prefixed build does not use the vendor's tools alone" >&2
  exit 1
fi
cmake --build build/armhf-vendor --target truckservice
scripts/runtime-needs.sh --check build/armhf-vendor/ship/libtruckservice.so

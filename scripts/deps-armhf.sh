#!/usr/bin/env bash
# Installs what the 32-bit ARM build and its emulated test run need, when any is missing:
# the cross compiler, the emulator, and jsoncpp/GoogleTest for armhf from Debian's multiarch
# packages. Debian 12.
set -euo pipefail
cd "$(dirname "$0")/.."
scripts/deps.sh

sudo=""
if [ "$(id -u)" -ne 0 ]; then
  sudo="sudo"
fi

packages=(g++-arm-linux-gnueabihf binutils-arm-linux-gnueabihf qemu-user
          libjsoncpp-dev:armhf libgtest-dev:armhf libgmock-dev:armhf)
missing=()
for p in "${packages[@]}"; do
  dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q "install ok installed" || missing+=("$p")
done
[ ${#missing[@]} -eq 0 ] && exit 0

if ! dpkg --print-foreign-architectures | grep -qx armhf; then
  $sudo dpkg --add-architecture armhf
fi
echo "Installing: ${missing[*]}"
# A mirror's armhf index is sometimes briefly out of step with the others; what matters is
# whether the packages install, so only the install below may fail the script.
$sudo apt-get update -qq || echo "apt-get update reported a problem; trying the install anyway"
DEBIAN_FRONTEND=noninteractive $sudo apt-get install -y -qq --no-install-recommends "${missing[@]}"

#!/usr/bin/env bash
# Installs the Debian packages the build needs, when any is missing. Debian 12. Further
# package names given as arguments are installed the same way. cairo and the DejaVu fonts draw
# the host's frames.
set -euo pipefail

packages=(cmake ninja-build g++ make pkg-config binutils python3 libjsoncpp-dev libgtest-dev libgmock-dev libbenchmark-dev
          libcairo2-dev fonts-dejavu-core "$@")
missing=()
for p in "${packages[@]}"; do
  dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q "install ok installed" || missing+=("$p")
done
[ ${#missing[@]} -eq 0 ] && exit 0

sudo=""
if [ "$(id -u)" -ne 0 ]; then
  sudo="sudo"
fi
echo "Installing: ${missing[*]}"
$sudo apt-get update -qq || echo "apt-get update reported a problem; trying the install anyway"
DEBIAN_FRONTEND=noninteractive $sudo apt-get install -y -qq --no-install-recommends "${missing[@]}"

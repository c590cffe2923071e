#!/usr/bin/env bash
# Builds the plug-in, the simulated device and the host, then runs the plug-in in the
# bundled demo device. Extra arguments go to truckhost (see: scripts/run.sh --help).
set -euo pipefail
cd "$(dirname "$0")/.."
scripts/deps.sh
cmake --preset default >/dev/null
cmake --build --preset default --target truckhost
if [ $# -eq 0 ]; then
  set -- --duration 10
fi
exec ./build/default/truckhost "$@"

#!/usr/bin/env bash
# Builds the plug-in, the simulated device and the host, then runs the plug-in in the
# bundled demo device. Without arguments it plays the demo drive (about a minute) and writes
# the frames of channel 0 to build/frames; arguments go to truckhost instead (see:
# scripts/run.sh --help).
set -euo pipefail
cd "$(dirname "$0")/.."
scripts/deps.sh
cmake --preset default >/dev/null
cmake --build --preset default --target truckhost
if [ $# -eq 0 ]; then
  set -- --duration 60 --script demo/scripts/drive.json --frames build/frames
fi
exec ./build/default/truckhost "$@"

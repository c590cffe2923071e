#!/usr/bin/env bash
# Builds the plug-in, the simulated device and the host, then runs the plug-in in the
# bundled demo device. Without a script, a replay or a device folder of its own it plays the
# demo drive (about a minute) with the options given, and writes the frames of channel 0 to
# build/frames unless told otherwise: `scripts/run.sh --duration 20` shows the drive's first
# 20 s. Relative paths are taken from the folder it was called from (see: scripts/run.sh --help).
set -euo pipefail
root="$(cd "$(dirname "$0")/.." && pwd)"
# Only the host's own output goes to standard output.
(cd "$root" && scripts/deps.sh && cmake --preset default >/dev/null &&
  cmake --build --preset default --target truckhost) >&2

has() {
  local name="$1" arg
  for arg in "${@:2}"; do
    [[ "$arg" == "$name" || "$arg" == "$name="* ]] && return 0
  done
  return 1
}
if ! has --script "$@" && ! has --sysroot "$@" && ! has --replay "$@"; then
  set -- --script "$root/demo/scripts/drive.json" "$@"
  has --duration "$@" || set -- --duration 60 "$@"
  has --frames "$@" || set -- --frames "$root/build/frames" "$@"
fi
exec "$root/build/default/truckhost" "$@"

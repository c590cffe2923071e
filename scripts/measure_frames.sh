#!/usr/bin/env bash
# The processor time the frames cost: the demo drive run twice with /usr/bin/time, once with
# the frames of the given channels (default 0) and once without, standard output not a
# terminal in both. Prints user+system seconds of each and the difference as a share of one
# core over the run.
set -euo pipefail
cd "$(dirname "$0")/.."
channels="${1:-0}"
duration=60
scripts/deps.sh time
cmake --preset default >/dev/null
cmake --build --preset default --target truckhost >/dev/null
out="$(mktemp -d)"
trap 'rm -rf "$out"' EXIT
run() {
  /usr/bin/time -f "%U %S" -o "$out/time" ./build/default/truckhost --duration "$duration" \
    --script demo/scripts/drive.json --log-level 0 "$@" >/dev/null 2>&1
  awk '{ printf "%.2f\n", $1 + $2 }' "$out/time"
}
without="$(run)"
with="$(run --frames "$out/frames" --channel "$channels")"
frames="$(ls "$out/frames" | wc -l)"
awk -v a="$without" -v b="$with" -v d="$duration" -v n="$frames" 'BEGIN {
  printf "without frames: %.2f s of processor time\n", a
  printf "with %d frames: %.2f s\n", n, b
  printf "frames cost: %.2f s, %.1f %% of one core over %d s\n", b - a, 100 * (b - a) / d, d
}'

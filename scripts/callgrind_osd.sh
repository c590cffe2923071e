#!/usr/bin/env bash
# Counts, under callgrind, the instructions of 1 000 OSD cycles (date/time line and speed line,
# each built and handed to the bus) and of 1 000 floor builds of the same two messages (one
# snprintf and one memcpy each), and prints both totals and their ratio. Only the work inside
# osd_run_cycles / osd_run_floor of bench/osd_cycles.cpp is counted, not setting up the business.
#
# Usage: scripts/callgrind_osd.sh [build directory]   (default build/default)
set -euo pipefail
cd "$(dirname "$0")/.."
build="${1:-build/default}"
count=1000

scripts/deps.sh valgrind
cmake -S . -B "$build" -G Ninja -DCMAKE_BUILD_TYPE=RelWithDebInfo -DTRUCK_BUILD_BENCH=ON >/dev/null
cmake --build "$build" --target osd_cycles

work="$(mktemp -d)"
trap 'rm -rf "$work"' EXIT

# Instructions executed inside the named function (and all it calls) during one run.
instructions() {
  local mode="$1" function="$2"
  if ! valgrind --tool=callgrind --callgrind-out-file="$work/$mode.out" --collect-atstart=no \
      --toggle-collect="*${function}*" "$build/bench/osd_cycles" "$mode" "$count" >"$work/$mode.log" 2>&1; then
    cat "$work/$mode.log" >&2
    exit 1
  fi
  awk '/^(summary|totals):/ { print $2; exit }' "$work/$mode.out"
}

cycles="$(instructions cycle osd_run_cycles)"
floor="$(instructions floor osd_run_floor)"
if [ -z "$cycles" ] || [ -z "$floor" ] || [ "$floor" -eq 0 ]; then
  echo "callgrind reported no instructions for the counted functions" >&2
  exit 1
fi
awk -v n="$count" -v c="$cycles" -v f="$floor" 'BEGIN {
  printf "%d OSD cycles:        %12d instructions (%d per cycle)\n", n, c, c / n
  printf "%d floor builds:      %12d instructions (%d per build)\n", n, f, f / n
  printf "cycle / floor:        %12.2f\n", c / f
}'

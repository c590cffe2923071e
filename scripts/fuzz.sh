#!/usr/bin/env bash
# Builds the fuzz targets with clang and runs each for SECONDS (default 60) from its committed
# corpus. New inputs go to build/fuzz/corpus-*, never into the repository.
set -euo pipefail
cd "$(dirname "$0")/.."
seconds="${1:-60}"
scripts/deps.sh clang libclang-rt-14-dev
cmake --preset fuzz >/dev/null
cmake --build --preset fuzz
for target in business_config cmdline osd_speed osd_swipe osd_j1939 osd_signal osd_param media_decode; do
  work="build/fuzz/corpus-$target"
  mkdir -p "$work"
  echo "fuzz_$target: ${seconds} s"
  "./build/fuzz/fuzz/fuzz_$target" -max_total_time="$seconds" -print_final_stats=1 "$work" "fuzz/corpus/$target"
done

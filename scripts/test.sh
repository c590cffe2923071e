#!/usr/bin/env bash
# Builds everything and runs the whole test suite. PRESET=asan or PRESET=tsan runs it under
# a sanitizer instead.
set -euo pipefail
cd "$(dirname "$0")/.."
preset="${PRESET:-default}"
scripts/deps.sh
cmake --preset "$preset" >/dev/null
cmake --build --preset "$preset"
ctest --preset "$preset" -j"$(nproc)"

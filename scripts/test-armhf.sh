#!/usr/bin/env bash
# Builds everything for the device (32-bit ARM, arm-linux-gnueabihf) and runs the whole test
# suite under qemu-arm user-mode emulation, then holds one simulated-clock run against the
# native build's.
set -euo pipefail
cd "$(dirname "$0")/.."
scripts/deps-armhf.sh
cmake --preset armhf >/dev/null
cmake --build --preset armhf
ctest --preset armhf -j"$(nproc)"

# On the simulated clock a run is the same on every machine: the native build and the device
# build under the emulator record the same bus log, but for the run line's plug-in path and
# version (each build's own commit).
native=build/default/truckhost
if [ ! -x "$native" ]; then
  cmake --preset default >/dev/null
  cmake --build --preset default --target truckhost truckservice
fi
sysroot="$(sed -n 's/^TRUCK_DEVICE_SYSROOT:PATH=//p' build/armhf/CMakeCache.txt)"
work="$(mktemp -d)"
trap 'rm -rf "$work"' EXIT
drive=(--clock sim --start-time 2026-03-08T07:59:00 --duration 120 --script demo/scripts/drive.json)
record() {
  local log="$work/$1.jsonl"
  shift
  "$@" "${drive[@]}" --bus-log "$log" >/dev/null 2>"$log.err" || { cat "$log.err"; exit 1; }
}
record native "$native"
record armhf qemu-arm -L "${sysroot:-/}" build/armhf/truckhost
python3 - "$work/native.jsonl" "$work/armhf.jsonl" <<'PY'
import json, sys
logs = [open(path).read().splitlines() for path in sys.argv[1:]]
for log in logs:
    run = json.loads(log[0])
    del run["plugin"], run["version"]
    log[0] = json.dumps(run, sort_keys=True)
for n in range(max(map(len, logs))):
    native, armhf = (log[n] if n < len(log) else "(nothing more)" for log in logs)
    if native != armhf:
        sys.exit(f"the bus logs of one sim run differ between the native and the device build at line {n + 1}:\n"
                 f"  native: {native}\n  armhf:  {armhf}")
print(f"the native and the device build record the same {len(logs[0])} lines of a sim run")
PY

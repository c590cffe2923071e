#!/usr/bin/env bash
# The host end to end: a short drive through the plug-in in the simulated device, read back
# from the host's change lines and frames. Arguments: the truckhost program, the script, and
# "frames" when the host draws them.
set -euo pipefail
host="$1"
script="$2"
frames="${3:-}"
work="$(mktemp -d)"
trap 'rm -rf "$work"' EXIT

args=(--duration 12 --script "$script" --log-level 0)
if [ "$frames" = frames ]; then
  args+=(--frames "$work/frames" --channel 0,2)
fi
"$host" "${args[@]}" >"$work/out" 2>"$work/err" || { cat "$work/out" "$work/err"; exit 1; }

failed=0
expect() {
  if ! grep -qF -- "$1" "$work/out"; then
    echo "missing from the host's lines: $1"
    failed=1
  fi
}
expect 'daylight saving: in force, shift 1 h'
expect 'time on ch 0-3: "03/08/2026 03:00:0'
expect 'speed on ch 0-3: "41KM/H (L R)" at 1024,30 size 1'
expect 'IO turn signal: left'
expect 'card record at 400,80: "DRIVER 0042 J.DOE"'
expect 'seven on no channel: "DRIVER 0042 J.DOE"'
expect ' AM" at 300,30'
expect 'at 250,768 size 1'
# Status lines go to standard error, so that standard output is the media side's alone.
if ! grep -q '^stop: 0' "$work/err" || grep -q '^st[ao][rp]' "$work/out"; then
  echo "the stop's status line is not on standard error alone"
  failed=1
fi
if grep -q 'cannot read' "$work/out"; then
  echo "the media side could not read a message the plug-in sent:"
  grep 'cannot read' "$work/out"
  failed=1
fi
# The zone moved the clock an hour on: 03:00 becomes 04:00.
if ! grep -qE 'time on ch 0-3: "03/08/2026 04:00:[0-9]{2} AM"' "$work/out"; then
  echo "no time line an hour on after the zone change"
  failed=1
fi
if [ "$frames" = frames ]; then
  for f in ch0_0001.png ch2_0001.png ch0_exit.png ch2_exit.png; do
    if [ "$(head -c 8 "$work/frames/$f" 2>/dev/null | od -An -tx1 | tr -d ' \n')" != 89504e470d0a1a0a ]; then
      echo "no PNG frame $f"
      failed=1
    fi
  done
fi
if [ "$failed" -ne 0 ]; then
  echo "--- host output"
  cat "$work/out"
fi
exit "$failed"

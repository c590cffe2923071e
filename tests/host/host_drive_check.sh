#!/usr/bin/env bash
# The host end to end: a short drive through the plug-in in the simulated device, read back
# from the host's change lines and frames. On the simulated clock the run is the same every
# time, so its change lines are pinned whole, each at its device tenth of a second.
# Arguments: the script, "frames" when the host draws them (else "none"), and the command that
# runs truckhost (the emulator's, then the program, on a cross build).
set -euo pipefail
script="$1"
frames="$2"
shift 2
work="$(mktemp -d)"
trap 'rm -rf "$work"' EXIT

args=(--clock sim --start-time 2026-03-08T07:59:50 --duration 12 --script "$script" --log-level 0)
if [ "$frames" = frames ]; then
  args+=(--frames "$work/frames" --channel 0,2)
fi
"$@" "${args[@]}" >"$work/out" 2>"$work/err" || { cat "$work/out" "$work/err"; exit 1; }

# The clock step at 0 ms puts the device at 01:59:57 (UTC, shown at -6 h); daylight saving
# starts at 02:00, the zone change at 5 s moves it an hour on in the 12-hour form, and the
# layout at 6 s moves the time and speed lines onto one row.
cat >"$work/expected" <<'EOF'
   0.1s  seven on no channel: "" at 400,80 size 1
   0.1s  daylight saving: not in force, shift 1 h
   0.1s  time on ch 0-3: "03/08/2026 01:59:57" at 300,30 size 1
   0.1s  speed on ch 0-3: "0KM/H" at 1024,30 size 1
   0.7s  speed on ch 0-3: "41KM/H" at 1024,30 size 1
   1.0s  IO turn signal: left
   1.2s  time on ch 0-3: "03/08/2026 01:59:58" at 300,30 size 1
   1.2s  speed on ch 0-3: "41KM/H (L)" at 1024,30 size 1
   1.7s  speed on ch 0-3: "41KM/H (L R)" at 1024,30 size 1
   2.0s  seven on no channel: "DRIVER 0042 J.DOE" at 400,80 size 1
   2.0s  card record at 400,80: "DRIVER 0042 J.DOE"
   2.2s  time on ch 0-3: "03/08/2026 01:59:59" at 300,30 size 1
   3.2s  daylight saving: in force, shift 1 h
   3.2s  time on ch 0-3: "03/08/2026 03:00:00" at 300,30 size 1
   4.2s  time on ch 0-3: "03/08/2026 03:00:01" at 300,30 size 1
   5.0s  parameters written: {"PARAMETER":{"MDVR":{"TIMEP":{"TIMEM":1,"TIMEZ":"-300"}}}}
   5.2s  time on ch 0-3: "03/08/2026 04:00:02 AM" at 300,30 size 1
   6.0s  parameters written: {"PARAMETER":{"MDVR":{"EOSD":[{"WME":1}]}}}
   6.1s  parameters written: {"PARAMETER":{"MDVR":{"EOSD":[{"COSD":[{"X":400,"Y":80},{"X":15,"Y":380}],"DX":30,"DY":180,"GX":35,"GY":700,"NX":30,"NY":105,"SX":1024,"SY":30,"TX":300,"TY":30,"VX":30,"VY":35}]}}}
   6.2s  time on ch 0-3: "03/08/2026 04:00:03 AM" at 300,30 size 1
   7.2s  parameters written: {"PARAMETER":{"MDVR":{"EOSD":[{"COSD":[{"X":180,"Y":768},{"X":1024,"Y":768}],"DX":465,"DY":768,"GX":0,"GY":768,"NX":545,"NY":768,"SX":610,"SY":768,"TX":250,"TY":768,"VX":385,"VY":768}]}}}
   7.2s  time on ch 0-3: "03/08/2026 04:00:04 AM" at 300,30 size 1
   7.3s  seven on no channel: "DRIVER 0042 J.DOE" at 180,768 size 1
   7.7s  time on ch 0-3: "03/08/2026 04:00:04 AM" at 250,768 size 1
   7.7s  speed on ch 0-3: "41KM/H (L R)" at 610,768 size 1
   7.7s  overlap: time and speed on ch 0-3
   8.2s  time on ch 0-3: "03/08/2026 04:00:05 AM" at 250,768 size 1
   9.2s  time on ch 0-3: "03/08/2026 04:00:06 AM" at 250,768 size 1
  10.2s  time on ch 0-3: "03/08/2026 04:00:07 AM" at 250,768 size 1
  11.2s  time on ch 0-3: "03/08/2026 04:00:08 AM" at 250,768 size 1
EOF
if [ "$frames" = frames ]; then
  # One frame per device second that ended before the stop, and one at exit, per channel.
  echo "24 frames written in $work/frames (ch 0,2, 1920x1080)" >>"$work/expected"
fi

failed=0
if ! diff -u "$work/expected" "$work/out"; then
  echo "the host's change lines differ from the drive's (above: - expected, + the host's)"
  failed=1
fi
# Status lines go to standard error, so that standard output is the media side's alone.
if ! grep -qx 'stop: 0, ucRunning 0' "$work/err"; then
  echo "no clean stop's status line on standard error:"
  cat "$work/err"
  failed=1
fi
if [ "$frames" = frames ]; then
  for f in ch0_0001.png ch2_0011.png ch0_exit.png ch2_exit.png; do
    if [ "$(head -c 8 "$work/frames/$f" 2>/dev/null | od -An -tx1 | tr -d ' \n')" != 89504e470d0a1a0a ]; then
      echo "no PNG frame $f"
      failed=1
    fi
  done
fi
exit "$failed"

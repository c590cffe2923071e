#!/usr/bin/env python3
"""The host as a new user tries it: product variants from one identity file, refusals before
start with their reasons, a plug-in named from the current folder, a restart in the same
process, a run recorded and replayed, a frame that cannot be written, the note when nothing is
drawn, the run's summary, the panel on a terminal, and the simulated clock. Only what is about
the real clock runs on it; the rest runs on the simulated clock, where its results are exact.

Arguments: the truckhost program, the demo folder (with device/ and global.bsn), and the drive
script to record."""
import concurrent.futures
import json
import os
import pty
import re
import shutil
import subprocess
import sys
import tempfile
import time

HOST, DEMO, DRIVE = sys.argv[1:4]
WORK = tempfile.mkdtemp()
failures = []
# The simulated clock from one device second, for runs that are the same every time.
SIM = ("--clock", "sim", "--start-time", "2026-05-01T10:00:00")


def run(*args, timeout=60, cwd=None):
    done = subprocess.run([HOST, *args], capture_output=True, text=True, timeout=timeout, cwd=cwd)
    return done.returncode, done.stdout, done.stderr


def check(ok, what, detail=""):
    if not ok:
        failures.append(f"{what}\n{detail}")


def write(name, text):
    path = os.path.join(WORK, name)
    with open(path, "w") as f:
        f.write(text)
    return path


def expect_refused(args, reason):
    rc, out, err = run(*args)
    check(rc == 2 and reason in err and "start:" not in err, f"{args}: exit 2 with '{reason}'", f"exit {rc}\n{err}")


def bus_lines(path):
    with open(path) as f:
        return [json.loads(line) for line in f]


# Refused before start, each with the reason a user can act on.
def refusals():
    not_json = write("not_json.bsn", "{\"PARAMETER\": ")
    expect_refused(["--sysroot", "/nonexistent/device"], "No such file or directory")
    expect_refused(["--sysroot", not_json], "is not a folder")
    expect_refused(["--param-store", not_json], "is not JSON: Line 1, Column 15: Syntax error: value, object or")
    expect_refused(["--param-store=/nonexistent.bsn"], "No such file or directory")
    expect_refused(["--device", write("big.json", '{"video_inputs": 65536}')], '"video_inputs" must be a whole number')
    expect_refused(["--device", write("typo.json", '{"product-type": 113}')], 'unknown key "product-type"')
    expect_refused(["--device", write("long.json", '{"serial_number": "0123456789ABCDEF"}')], "at most 15")
    expect_refused(["--script", "/nonexistent.json"], "cannot read the script '/nonexistent.json': No such file")
    expect_refused(["--replay", not_json], "")
    expect_refused(["--check"], "--replay")
    # What a recording fixes is not taken from the command line.
    for option, value in [("--device", not_json), ("--sysroot", DEMO), ("--param-store", not_json),
                          ("--start-time", "2026-01-01T00:00:00"), ("--script", DRIVE)]:
        expect_refused(["--replay", not_json, option, value], f"it takes no {option}\n")
    expect_refused(["--channel", "4"], "the device has 4 channel(s) (0 to 3)")
    expect_refused(["--duration=soon"], "--duration takes a number of seconds, not 'soon'")
    expect_refused(["--clock", "fast"], "--clock takes sim or real, not 'fast'")
    expect_refused(["--script", write("repeat0.json", '[{"at_ms": 0, "kind": "repeat"}]')],
                   "step 1: at_ms of a repeat must be above 0")

    rc, out, _ = run("--help")
    check(rc == 0 and "--opt=value" in out and all(f"  {s}  " in out for s in "0123"), "--help lists the exit statuses", out)
    # The step kinds of --help come from the parser's own table; the README's table follows it.
    kinds = [line.split()[0] for line in out.split(" Kinds:\n")[1].split("A malformed")[0].splitlines()]
    with open(os.path.join(DEMO, os.pardir, "README.md")) as f:
        rows = f.read().split("| kind | members |")[1].split("\n\n")[0].splitlines()[2:]
    check(kinds and kinds == [row.split("`")[1] for row in rows], "the README's table lists the kinds of --help", kinds)


# A product variant is one identity file away: 113 shows no speed line; 8 inputs and 4 IP
# cameras put every item on 12 channels. A plug-in named without a folder is the one in the
# current folder, not one of the library path.
def variants():
    os.symlink(os.path.join(os.path.dirname(HOST), "libtruckservice.so"), os.path.join(WORK, "variant.so"))
    rc, out, err = run(*SIM, "--device", write("p113.json", '{"product_type": 113}'), "--duration", "1.5",
                       "--plugin", "variant.so", cwd=WORK)
    check(rc == 0 and '   0.1s  time on ch 0-3: "05/01/2026 05:00:00" at 300,30 size 1\n' in out
          and "speed on" not in out, "product 113 draws the time alone, from a plug-in in the current folder", out + err)
    rc, out, err = run(*SIM, "--device", write("ch12.json", '{"video_inputs": 8, "ip_channels": 4}'),
                       "--duration", "1.5", "--channel", "11")
    check(rc == 0 and '   0.1s  speed on ch 0-11: "0KM/H" at 1024,30 size 1\n' in out
          and '   1.1s  time on ch 0-11: "05/01/2026 05:00:01" at 300,30 size 1\n' in out, "8 + 4 channels", out + err)


# A restart in the same process: stopped, started again, drawing again, no thread left, and
# each thread of each start counted apart in the summary.
def restart():
    restart = write("restart.json", '[{"at_ms": 1500, "kind": "restart", "gap_ms": 300}]')
    summary, log = os.path.join(WORK, "summary.json"), os.path.join(WORK, "restart.jsonl")
    rc, out, err = run(*SIM, "--script", restart, "--duration", "4", "--bus-log", log, "--summary", summary)
    check(rc == 0 and err.count("start: 0") == 2 and err.count("stop: 0,") == 2, "restart: two starts and stops", err)
    # A start's first messages come 150 ms after it, then every 500 ms. The second start comes
    # the stop's 120 ms and the 300 ms gap after the step: its first messages at 1500 + 420 + 150.
    times = sorted(set(m["t_ms"] for m in bus_lines(log) if m.get("name") == "overlay"))
    check(times == [150, 650, 1150, 2070, 2570, 3070, 3570, 4070], "overlays before and after the restart", times)
    with open(summary) as f:
        s = json.load(f)
    plugin = sorted(t["name"] for t in s["threads"] if t["owner"] == "plug-in")
    check(s["exit"] == 0 and plugin == ["truckosd", "truckosd#2", "truckservice", "truckservice#2"]
          and any(t["owner"] == "stand-in" for t in s["threads"]), "summary threads, the second run's numbered", s)
    # Each start sends its three items and the daylight saving state, each later cycle two items.
    check(s["messages"] == {"0x1210": 18, "0x402F": 2} and s["frames"] == 0, "summary counts the messages sent", s)


# On the real clock a recording is replayed with slack, as two runs' cycles fall apart by up to
# a cycle. The swipe is answered at once and lasts to the end, so the comparison keeps its
# slack for a loaded machine; the exact comparison is the simulated clock's.
def real_clock():
    swipe = write("swipe.json", '[{"at_ms": 1000, "kind": "swipe", "text": "DRIVER 0042 J.DOE"}]')
    record, summary = os.path.join(WORK, "real.jsonl"), os.path.join(WORK, "real-summary.json")
    rc, out, err = run("--script", swipe, "--duration", "3", "--bus-log", record, "--summary", summary)
    lines = bus_lines(record)
    check(rc == 0 and lines[0]["clock"] == "real" and any(m.get("name") == "card_record" for m in lines),
          "a real-clock recording", err)
    with open(summary) as f:
        s = json.load(f)
    host = sorted(t["name"] for t in s["threads"] if t["owner"] == "host")
    if os.environ.get("TRUCK_SANITIZE") == "thread":
        host.remove("truckhost")  # the sanitizer's own thread carries the process's name
    check(host == ["host-sampler", "host-script", "host-view", "truckhost"], "the host's threads, each named", s)
    rc, out, err = run("--replay", record, "--check")
    check(rc == 0 and "agrees" in err, "the replay of a real-clock recording agrees", err)


# A frame that cannot be written ends the run after a clean stop, with the system's reason.
def frames():
    frames = os.path.join(WORK, "frames")
    os.makedirs(os.path.join(frames, "ch0_0001.png"))
    write("frames/ch0_0042.png", "an earlier run's frame")
    rc, out, err = run(*SIM, "--frames", frames, "--duration", "5")
    check(rc == 1 and err.endswith(f"truckhost: cannot write {frames}/ch0_0001.png: Is a directory\n")
          and "stop: 0," in err, "an unwritable frame ends the run", err)
    check(not os.path.exists(os.path.join(frames, "ch0_0042.png")), "earlier frames are removed first")


# Nothing drawn, and the panel says why. Without a TIMEP group the plug-in draws from its first
# cycle on, so the note is seen on the real clock only, before that cycle.
def nothing_drawn():
    store = json.load(open(os.path.join(DEMO, "global.bsn")))
    del store["PARAMETER"]["MDVR"]["TIMEP"]
    rc, out, err = run("--param-store", write("no_timep.bsn", json.dumps(store)), "--duration", "2")
    check(rc == 0 and "nothing drawn: the parameter store has no TIMEP group" in out, "no TIMEP is said", out)
    device = os.path.join(WORK, "device")
    shutil.copytree(os.path.join(DEMO, "device"), device, ignore=shutil.ignore_patterns("global.bsn"))
    shutil.copy(os.path.join(DEMO, "global.bsn"), os.path.join(device, "mnt/tmpfs/global.bsn"))
    with open(os.path.join(device, "usr/local/cfg/truckbusiness.jsn"), "w") as f:
        f.write('{"BUSINESS_CONFIG": [{"BUSINESS_ENABLE": "false", "BUSINESS_ID": 7}]}')
    rc, out, err = run(*SIM, "--sysroot", device, "--duration", "2")
    check(rc == 0 and "nothing drawn: the device has no enabled business" in out, "no business is said", out)


# On a terminal the panel is redrawn in place; the status lines come out once it is left.
def terminal():
    master, slave = pty.openpty()
    host = subprocess.Popen([HOST, "--duration", "1.5"], stdin=subprocess.DEVNULL, stdout=slave, stderr=slave)
    os.close(slave)
    screen = b""
    while True:
        try:
            chunk = os.read(master, 65536)
        except OSError:  # EIO: the host's end of the terminal is closed
            break
        if not chunk:
            break
        screen += chunk
    os.close(master)
    rc = host.wait(timeout=60)
    after = screen[screen.rfind(b"\x1b[?25h"):].decode(errors="replace")
    check(rc == 0 and b"\x1b[?25h" in screen and "load: 0" in after and "start: 0" in after
          and "stop: 0, ucRunning 0" in after, "the status lines come after the panel", repr(screen[-600:]))


# On the simulated clock a run is the same every time and takes no device time to wait: the
# same command gives the same bus log byte for byte, which opens with the run and decodes what
# the plug-in sent, a script on repeat plays its steps at their shifted device times, a replay
# agrees on its recorded clock with no slack, and an hour of device time ends.
def simulated():
    logs = [os.path.join(WORK, f"sim{i}.jsonl") for i in (1, 2)]
    runs = [run("--clock", "sim", "--duration", "30", "--script", DRIVE, "--start-time", "2026-01-02T08:00:00",
                "--bus-log", log, "--stats") for log in logs]
    texts = [open(log).read() for log in logs]
    lines = bus_lines(logs[0])
    first = lines[0]
    check(all(r[0] == 0 for r in runs) and texts[0] == texts[1], "two sim runs of one command give one bus log",
          runs[0][2] + runs[1][2])
    check(first["kind"] == "run" and first["start_time"] == "2026-01-02T08:00:00" and first["clock"] == "sim"
          and first["device"]["video_inputs"] == 4 and first["params"]["PARAMETER"]["MDVR"]["TIMEP"]
          and first["version"].startswith("truckservice ") and lines[-1] == {"t_ms": 30060, "kind": "end", "exit": 0},
          "the bus log opens with the run and ends with the stop", json.dumps(first) + texts[0][-100:])
    ratio = re.search(r"\nclock: sim  device (\d+\.\d) s  wall \d+\.\d{3} s  \d+\.\d device s per wall s\n$", runs[0][2])
    check(ratio and ratio.group(1) == "30.1", "--stats tells device seconds, wall seconds and their ratio", runs[0][2])
    # Each state of the speed line at the cycle after its step, and the layout's move at 6 s.
    speed = [(m["t_ms"], m["fields"]) for m in lines if m.get("name") == "overlay" and m["fields"]["kind"] == 2]
    states = [(t, f["text"], f["mask"], f["x"], f["y"], f["font"]) for n, (t, f) in enumerate(speed)
              if n == 0 or f != speed[n - 1][1]]
    check(states == [(150, "0KM/H", 15, 1024, 30, 1), (700, "41KM/H", 15, 1024, 30, 1), (1200, "41KM/H (L)", 15, 1024, 30, 1),
                     (1700, "41KM/H (L R)", 15, 1024, 30, 1), (7700, "41KM/H (L R)", 15, 610, 768, 1)],
          "the speed line's states decoded, each at its device millisecond", states)

    # Its replay is the same run: it agrees with no slack, over the whole run or its first part,
    # and one time text changed in one line, a single cycle's, is the difference.
    rc, out, err = run("--replay", logs[0], "--check")
    check(rc == 0 and "agrees" in err, "a sim recording replays exactly", err)
    rc, out, err = run("--replay", logs[0], "--check", "--duration", "3")
    check(rc == 0 and "truckhost: comparing the first 3000 ms of the recording's 30060 ms\n" in err and "agrees" in err,
          "a shorter replay is compared over its span", err)
    at = [n for n, m in enumerate(lines) if m.get("name") == "overlay" and m["fields"]["kind"] == 0][20]
    old = lines[at]["fields"]["text"]
    new = old[:-1] + ("1" if old[-1] != "1" else "2")
    edited = [dict(m) for m in lines]
    edited[at] = dict(lines[at], hex=lines[at]["hex"].replace(old.encode().hex(), new.encode().hex()),
                      fields=dict(lines[at]["fields"], text=new))
    rc, out, err = run("--replay", write("sim-edited.jsonl", "".join(json.dumps(m) + "\n" for m in edited)), "--check")
    check(rc == 1 and f'recorded event 0x1210 (overlay) {{"font"' in err and f'"text":"{new}"' in err
          and f'"text":"{old}"' in err and f"at {lines[at]['t_ms']} ms" in err,
          "one overlay text changed in one line of a sim recording is the difference", err)
    # A hex edited without its fields is refused before start.
    edited[at] = dict(edited[at], fields=lines[at]["fields"])
    rc, out, err = run("--replay", write("sim-hex.jsonl", "".join(json.dumps(m) + "\n" for m in edited)), "--check")
    check(rc == 2 and err.endswith(f"sim-hex.jsonl: line {at + 1}: the fields do not match the hex\n")
          and "start:" not in err, "a recording whose fields do not match its hex is refused", err)

    repeat = write("repeat.json", '[{"at_ms": 100, "kind": "speed", "speed": 10, "unit": 0}, '
                                  '{"at_ms": 1000, "kind": "repeat"}, {"at_ms": 1500, "kind": "swipe", "text": "X"}]')
    log = os.path.join(WORK, "repeat.jsonl")
    rc, out, err = run(*SIM, "--duration", "3.1", "--script", repeat, "--bus-log", log)
    steps = [(m["t_ms"], m["step"], m["do"]["at_ms"]) for m in bus_lines(log) if m["kind"] == "script"]
    check(rc == 0 and steps == [(100, 1, 100), (1100, 1, 1100), (2100, 1, 2100)],
          "a repeat plays the steps before it again, shifted, on device time", steps)
    rc, out, err = run("--replay", log, "--check")
    check(rc == 0 and "agrees" in err, "a sim recording replays on its clock", err)
    expect_refused(["--replay", log, "--clock", "real"], "--replay runs on the recorded clock (sim); it takes no --clock real")

    began = time.monotonic()
    rc, out, err = run("--clock", "sim", "--duration", "3600", "--script", DRIVE, "--stats", timeout=200)
    check(rc == 0 and "clock: sim  device 3600." in err, "a device hour on the simulated clock ends", err[-400:])
    print(f"a device hour of the demo drive took {time.monotonic() - began:.1f} s of wall time")


# The runs are independent and mostly wait on the plug-in's cycles or on each other: they share
# the time. The runs on the real clock come first and alone, as those on the simulated clock
# keep the processor busy.
for cases in ([real_clock, terminal, nothing_drawn, refusals], [simulated, variants, restart, frames]):
    with concurrent.futures.ThreadPoolExecutor(max_workers=len(cases)) as pool:
        for future in [pool.submit(case) for case in cases]:
            future.result()
shutil.rmtree(WORK)
for failure in failures:
    print("FAILED:", failure, file=sys.stderr)
sys.exit(1 if failures else 0)

#!/usr/bin/env python3
"""The host as a new user tries it: product variants from one identity file, refusals before
start with their reasons, a plug-in named from the current folder, a restart in the same
process, a run recorded and replayed, a frame that cannot be written, the note when nothing is
drawn, the run's summary, the panel on a terminal, and the simulated clock.

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
    rc, out, err = run("--device", write("p113.json", '{"product_type": 113}'), "--duration", "2.5",
                       "--plugin", "variant.so", cwd=WORK)
    check(rc == 0 and 'time on ch 0-3: "' in out and "speed on" not in out,
          "product 113 draws the time alone, from a plug-in in the current folder", out + err)
    rc, out, err = run("--device", write("ch12.json", '{"video_inputs": 8, "ip_channels": 4}'), "--duration", "2.5",
                       "--channel", "11")
    check(rc == 0 and 'time on ch 0-11: "' in out and 'speed on ch 0-11: "0KM/H"' in out, "8 + 4 channels", out + err)


# A restart in the same process: stopped, started again, drawing again, no thread left, and
# each thread of each start counted apart in the summary.
def restart():
    restart = write("restart.json", '[{"at_ms": 1500, "kind": "restart", "gap_ms": 300}]')
    summary = os.path.join(WORK, "summary.json")
    rc, out, err = run("--script", restart, "--duration", "4", "--bus-log", os.path.join(WORK, "restart.jsonl"),
                       "--summary", summary, "--start-time", "2026-05-01T10:00:00")
    check(rc == 0 and err.count("start: 0") == 2 and err.count("stop: 0,") == 2, "restart: two starts and stops", err)
    times = [m["t_ms"] for m in bus_lines(os.path.join(WORK, "restart.jsonl")) if m.get("name") == "overlay"]
    check(any(t > 1800 for t in times) and any(t < 1500 for t in times), "overlays before and after the restart", times)
    with open(summary) as f:
        s = json.load(f)
    names = [t["name"] for t in s["threads"]]
    cycles = [t for t in s["threads"] if t["name"] in ("truckservice", "truckservice#2")]
    check(s["exit"] == 0 and len(cycles) == 2 and len(set(t["name"] for t in cycles)) == 2
          and all(t["owner"] == "plug-in" for t in cycles), "summary threads, the second run's numbered", names)
    host = sorted(t["name"] for t in s["threads"] if t["owner"] == "host")
    if os.environ.get("TRUCK_SANITIZE") == "thread":
        host.remove("truckhost")  # the sanitizer's own thread carries the process's name
    check(any(t["owner"] == "stand-in" for t in s["threads"]) and
          host == ["host-sampler", "host-script", "host-view", "truckhost"], "the host's threads, each named", s)
    check(s["messages"].get("0x1210", 0) > 0 and s["frames"] == 0, "summary counts the overlays sent", s)


# Record a run, replay it: the same device, clock and steps agree; a recorded text that the
# plug-in no longer sends is the first difference.
def record_and_replay():
    record = os.path.join(WORK, "drive.jsonl")
    rc, out, err = run("--script", DRIVE, "--duration", "7", "--bus-log", record)
    lines = bus_lines(record)
    first = lines[0]
    check(rc == 0 and first["kind"] == "run" and first["start_time"] and first["device"]["video_inputs"] == 4
          and first["params"]["PARAMETER"]["MDVR"]["TIMEP"] and first["version"].startswith("truckservice "),
          "the bus log opens with the run", json.dumps(first))
    speed = [m["fields"] for m in lines if m.get("name") == "overlay" and m["fields"]["kind"] == 2]
    check(speed and speed[-1]["text"].startswith("41KM/H") and speed[-1]["x"] == 1024 and speed[-1]["mask"] == 15
          and speed[-1]["font"] == 1 and speed[-1]["y"] == 30, "overlays decoded", speed[-1:])
    rc, out, err = run("--replay", record, "--check")
    check(rc == 0 and "agrees" in err, "the replay agrees with its recording", err)
    rc, out, err = run("--replay", record, "--check", "--duration", "3")
    check(rc == 0 and f"comparing the first 3000 ms of the recording's {lines[-1]['t_ms']} ms\n" in err,
          "a shorter replay is compared over its span", err)

    # A text the plug-in no longer sends is the first difference; a hex edited without its
    # fields is refused.
    def tampered(name, fields_too):
        path = os.path.join(WORK, name)
        with open(path, "w") as f:
            for m in lines:
                if m.get("name") == "overlay" and m["fields"]["kind"] == 2:
                    m = dict(m, hex=m["hex"].replace("4b4d2f48", "4d502f48"))  # KM/H -> MP/H
                    if fields_too:
                        m["fields"] = dict(m["fields"], text=m["fields"]["text"].replace("KM/H", "MP/H"))
                f.write(json.dumps(m) + "\n")
        return path
    rc, out, err = run("--replay", tampered("tampered.jsonl", True), "--check")
    check(rc == 1 and "differs" in err and "MP/H" in err, "a changed text is the first difference", err)
    first_speed = next(n for n, m in enumerate(lines, 1) if m.get("name") == "overlay" and m["fields"]["kind"] == 2)
    rc, out, err = run("--replay", tampered("edited.jsonl", False), "--check")
    check(rc == 2 and err.endswith(f"edited.jsonl: line {first_speed}: the fields do not match the hex\n")
          and "start:" not in err, "a recording whose fields do not match its hex is refused", err)


# A frame that cannot be written ends the run after a clean stop, with the system's reason.
def frames():
    frames = os.path.join(WORK, "frames")
    os.makedirs(os.path.join(frames, "ch0_0001.png"))
    write("frames/ch0_0042.png", "an earlier run's frame")
    rc, out, err = run("--frames", frames, "--duration", "5")
    check(rc == 1 and "Is a directory" in err and "stop: 0," in err, "an unwritable frame ends the run", err)
    check(not os.path.exists(os.path.join(frames, "ch0_0042.png")), "earlier frames are removed first")


# Nothing drawn, and the panel says why.
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
    rc, out, err = run("--sysroot", device, "--duration", "2")
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
# same command gives the same bus log byte for byte, a script on repeat plays its steps at their
# shifted device times, its replay agrees on its recorded clock, and an hour of device time ends.
def simulated():
    logs = [os.path.join(WORK, f"sim{i}.jsonl") for i in (1, 2)]
    runs = [run("--clock", "sim", "--duration", "30", "--script", DRIVE, "--start-time", "2026-01-02T08:00:00",
                "--bus-log", log, "--stats") for log in logs]
    texts = [open(log).read() for log in logs]
    check(all(r[0] == 0 for r in runs) and texts[0] == texts[1] and '"clock": "sim"' in texts[0].split("\n")[0],
          "two sim runs of one command give one bus log", runs[0][2] + runs[1][2])
    ratio = re.search(r"\nclock: sim  device (\d+\.\d) s  wall \d+\.\d{3} s  \d+\.\d device s per wall s\n$", runs[0][2])
    check(ratio and ratio.group(1) == f"{json.loads(texts[0].splitlines()[-1])['t_ms'] / 1000:.1f}",
          "--stats tells device seconds, wall seconds and their ratio", runs[0][2])

    # Its replay is the same run: it agrees with no slack, and one time text changed in one
    # line, a single cycle's, is the difference.
    rc, out, err = run("--replay", logs[0], "--check")
    check(rc == 0 and "agrees" in err, "a sim recording replays exactly", err)
    lines = bus_lines(logs[0])
    at = [n for n, m in enumerate(lines) if m.get("name") == "overlay" and m["fields"]["kind"] == 0][20]
    old = lines[at]["fields"]["text"]
    new = old[:-1] + ("1" if old[-1] != "1" else "2")
    lines[at] = dict(lines[at], hex=lines[at]["hex"].replace(old.encode().hex(), new.encode().hex()),
                     fields=dict(lines[at]["fields"], text=new))
    edited = write("sim-edited.jsonl", "".join(json.dumps(m) + "\n" for m in lines))
    rc, out, err = run("--replay", edited, "--check")
    check(rc == 1 and f'recorded event 0x1210 (overlay) {{"font"' in err and f'"text":"{new}"' in err
          and f'"text":"{old}"' in err and f"at {lines[at]['t_ms']} ms" in err,
          "one overlay text changed in one line of a sim recording is the difference", err)

    repeat = write("repeat.json", '[{"at_ms": 100, "kind": "speed", "speed": 10, "unit": 0}, '
                                  '{"at_ms": 1000, "kind": "repeat"}, {"at_ms": 1500, "kind": "swipe", "text": "X"}]')
    log = os.path.join(WORK, "repeat.jsonl")
    rc, out, err = run("--clock", "sim", "--duration", "3.1", "--script", repeat, "--bus-log", log)
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


CASES = [simulated, refusals, variants, restart, record_and_replay, frames, nothing_drawn, terminal]

# The runs are independent and mostly wait on the plug-in's cycles: they share the time.
with concurrent.futures.ThreadPoolExecutor(max_workers=len(CASES)) as pool:
    for future in [pool.submit(case) for case in CASES]:
        future.result()
shutil.rmtree(WORK)
for failure in failures:
    print("FAILED:", failure, file=sys.stderr)
sys.exit(1 if failures else 0)

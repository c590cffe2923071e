#!/usr/bin/python3
"""Mutation testing of the plug-in's own code against the test suite.

Finds mutation points from the code's syntax (libclang, Debian's python3-clang), writes one
mutant at a time into the tree, rebuilds incrementally in build/mutate, runs the suite until
the first failing test and restores the file byte for byte, also when interrupted.

    scripts/mutate.py --sample 100 --seed 1          # a seeded sample, per-file table at the end
    scripts/mutate.py --files osdservice --sample 20  # only files whose path matches
    scripts/mutate.py --list --files CommonMedia      # the points, without building

A mutant is caught when a test fails or times out; the score counts caught and timed-out
mutants against all that built, less those listed as equivalent in scripts/mutate-equivalent.txt.
"""

import argparse
import concurrent.futures
import json
import os
import random
import re
import shutil
import signal
import subprocess
import sys
import tempfile
import time
from dataclasses import dataclass, field

HERE = os.path.dirname(os.path.dirname(os.path.abspath(__file__)))
try:
    import clang.cindex as ci
except ImportError:
    # Debian's bindings, with the build's own packages; installed on first use like the rest.
    subprocess.run([os.path.join(HERE, "scripts", "deps.sh"), "python3-clang"], check=True, stdout=sys.stderr)
    import clang.cindex as ci

# The plug-in's own code; the stand-in, host, tests, benchmarks and fuzz targets are not mutated.
MUTATED_FOLDERS = ("include/", "truck_main/", "truck_TruckCBB/", "truck_mainbusiness/")
SOURCE_SUFFIXES = (".cpp", ".h")

# Scheduling hint only: the suites most likely to catch a mutant of a folder run first, so a
# caught mutant costs a few seconds. Every suite still runs for a mutant that survives them.
NEAR_SUITES = (
    ("truck_mainbusiness/basicservice/osdservice/", r"test_osd"),
    ("truck_mainbusiness/basicservice/servicemanage/",
     r"test_(service_spine|system_log|business_loading|device_info|storage_path|param_groups|plugin_module)"),
    ("truck_TruckCBB/CM/src/cbb_mempool", r"test_mempool"),
    ("truck_TruckCBB/CM/", r"test_(timer_wheel|message_hub|timestamp|mempool)"),
    ("truck_main/common/", r"test_(json_helpers|text_encoding|media_values|file_helpers)"),
)

SWAPS = {
    "<": ["<=", ">"], "<=": ["<", ">"], ">": [">=", "<"], ">=": [">", "<"],
    "==": ["!="], "!=": ["=="],
    "&&": ["||"], "||": ["&&"],
    "+": ["-"], "-": ["+"], "*": ["/"], "/": ["*"], "%": ["*"],
    "&": ["|"], "|": ["&"], "^": ["|"], "<<": [">>"], ">>": ["<<"],
    "+=": ["-="], "-=": ["+="], "|=": ["&="], "&=": ["|="], "*=": ["/="], "/=": ["*="],
}
K = ci.CursorKind
FUNCTION_KINDS = {K.FUNCTION_DECL, K.CXX_METHOD, K.CONSTRUCTOR, K.DESTRUCTOR, K.LAMBDA_EXPR,
                  K.FUNCTION_TEMPLATE, K.CONVERSION_FUNCTION}
# Expression statements whose removal is "a dropped call or statement".
REMOVABLE = {K.CALL_EXPR, K.BINARY_OPERATOR, K.COMPOUND_ASSIGNMENT_OPERATOR, K.UNARY_OPERATOR, K.BREAK_STMT,
             K.CONTINUE_STMT, K.CXX_DELETE_EXPR, K.UNEXPOSED_EXPR, K.CSTYLE_CAST_EXPR}
# Texts whose numbers are not behaviour a test could see, or that cannot build when changed.
SKIP_LINE = re.compile(r"static_assert|#\s*(include|define|if|pragma)|alignas|__attribute__")


@dataclass
class Mutant:
    path: str          # relative to the tree
    offset: int        # byte offset of the replaced text
    length: int
    replacement: str
    line: int
    function: str
    change: str        # e.g. "'<' -> '<='"
    outcome: str = ""  # caught, survived, timeout, build, equivalent
    killer: str = ""
    seconds: float = 0.0

    def key(self):
        return f"{self.path}:{self.function}: {self.change}"

    def where(self):
        return f"{self.path}:{self.line}"


# ---- finding mutation points -----------------------------------------------------------------

def load_compile_db(build_dir):
    db_file = os.path.join(build_dir, "compile_commands.json")
    return json.load(open(db_file)) if os.path.exists(db_file) else []


def compile_args(tree, db, path):
    """The flags the build uses for a source file, or those of a sibling for a header."""
    absolute = os.path.join(tree, path)
    chosen = None
    for entry in db:
        if os.path.realpath(entry["file"]) == os.path.realpath(absolute):
            chosen = entry
            break
        if chosen is None and "truck" in entry["file"] and "/tests/" not in entry["file"]:
            chosen = entry
    args = chosen["command"].split()[1:] if chosen else []
    kept = []
    skip_next = keep_next = False
    for arg in args:
        if skip_next:
            skip_next = False
            continue
        if arg in ("-o", "-c", "-MF", "-MT", "-MQ"):
            skip_next = True
            continue
        if arg == "-isystem":
            kept.append(arg)
            keep_next = True
            continue
        if keep_next:
            kept.append(arg)
            keep_next = False
            continue
        if arg.startswith(("-I", "-D", "-std")) or arg.startswith("-f") and "sanitize" not in arg:
            kept.append(arg)
    if path.endswith(".h"):
        kept += ["-x", "c++"]
    return kept + ["-std=c++17", "-I" + os.path.join(tree, "norvixsdk/include")]


def tokens_at(data, start, end):
    return data[start:end].decode("utf-8", "replace")


def enclosing_function(parents):
    """The function a point lies in, or the variable it initialises outside any function."""
    for cursor in reversed(parents):
        if cursor.kind in FUNCTION_KINDS and cursor.kind != K.LAMBDA_EXPR:
            owner = cursor.semantic_parent
            if owner is not None and owner.kind in (K.CLASS_DECL, K.STRUCT_DECL, K.CLASS_TEMPLATE):
                return f"{owner.spelling}::{cursor.spelling}"
            return cursor.spelling
    names = [c.spelling for c in parents if c.kind in (K.VAR_DECL, K.FIELD_DECL, K.ENUM_CONSTANT_DECL)]
    return names[-1] if names else "<file>"


def in_function_body(parents):
    return any(p.kind in FUNCTION_KINDS for p in parents)


def int_variants(text):
    match = re.fullmatch(r"(0[xX][0-9a-fA-F]+|\d+)([uUlL]*)", text)
    if not match:
        return []
    digits, suffix = match.groups()
    value = int(digits, 0)
    hex_form = digits.lower().startswith("0x")
    out = set()
    for v in (value + 1, value - 1, 0):
        if v < 0 or v == value:
            continue
        out.add((hex(v) if hex_form else str(v)) + suffix)
    return sorted(out)


class PointFinder:
    def __init__(self, tree, build_dir):
        self.tree = tree
        self.compile_db = load_compile_db(build_dir)
        self.index = ci.Index.create()

    def find(self, path):
        absolute = os.path.realpath(os.path.join(self.tree, path))
        data = open(absolute, "rb").read()
        unit = self.index.parse(absolute, args=compile_args(self.tree, self.compile_db, path))
        lines = data.split(b"\n")
        points = {}
        self._walk(unit.cursor, [], absolute, data, lines, path, points)
        return sorted(points.values(), key=lambda m: (m.offset, m.replacement))

    def _add(self, points, path, data, lines, start, end, replacement, change, parents):
        line = data.count(b"\n", 0, start) + 1
        text = lines[line - 1].decode("utf-8", "replace")
        if SKIP_LINE.search(text):
            return
        snippet = " ".join(text.split())[:60]
        change = " ".join(change.split())
        if len(change) > 60:
            change = change[:57] + "..."
        mutant = Mutant(path, start, end - start, replacement, line, enclosing_function(parents),
                        f"{change} in `{snippet}`")
        points[(start, end, replacement)] = mutant

    def _walk(self, cursor, parents, absolute, data, lines, path, points):
        for child in cursor.get_children():
            location = child.location
            if location.file is None or os.path.realpath(location.file.name) != absolute:
                continue
            try:
                self._visit(child, parents, data, lines, path, points)
            except (ValueError, IndexError):
                pass
            self._walk(child, parents + [child], absolute, data, lines, path, points)

    def _visit(self, cursor, parents, data, lines, path, points):
        extent = cursor.extent
        start, end = extent.start.offset, extent.end.offset
        if start >= end or end > len(data):
            return
        body = in_function_body(parents)
        kind = cursor.kind
        if body:
            self._statement_removal(cursor, parents, data, lines, path, points, start, end)
        if kind == K.INTEGER_LITERAL:
            text = tokens_at(data, start, end)
            for variant in int_variants(text):
                self._add(points, path, data, lines, start, end, variant, f"{text} -> {variant}", parents)
            return
        if not body:
            return
        if kind in (K.BINARY_OPERATOR, K.COMPOUND_ASSIGNMENT_OPERATOR):
            children = list(cursor.get_children())
            if len(children) != 2:
                return
            lhs_end, rhs_start = children[0].extent.end.offset, children[1].extent.start.offset
            between = tokens_at(data, lhs_end, rhs_start)
            operator = between.strip()
            if operator not in SWAPS or between.count(operator) != 1:
                return
            op_start = lhs_end + between.index(operator)
            for other in SWAPS[operator]:
                self._add(points, path, data, lines, op_start, op_start + len(operator), other,
                          f"'{operator}' -> '{other}'", parents)
            return
        if kind == K.UNARY_OPERATOR:
            text = tokens_at(data, start, end)
            if text.startswith("!") and not text.startswith("!="):
                self._add(points, path, data, lines, start, start + 1, "", "'!' dropped", parents)
            elif text.startswith("++") or text.startswith("--"):
                other = "--" if text.startswith("++") else "++"
                self._add(points, path, data, lines, start, start + 2, other, f"'{text[:2]}' -> '{other}'", parents)
            elif text.endswith("++") or text.endswith("--"):
                other = "--" if text.endswith("++") else "++"
                self._add(points, path, data, lines, end - 2, end, other, f"'{text[-2:]}' -> '{other}'", parents)
            return
        if kind in (K.IF_STMT, K.WHILE_STMT, K.DO_STMT, K.CONDITIONAL_OPERATOR):
            children = list(cursor.get_children())
            condition = children[1] if kind == K.DO_STMT and len(children) > 1 else (children[0] if children else None)
            if condition is None or not condition.kind.is_expression():
                return
            c_start, c_end = condition.extent.start.offset, condition.extent.end.offset
            text = tokens_at(data, c_start, c_end)
            if c_start >= c_end or "\n" in text and len(text) > 200:
                return
            self._add(points, path, data, lines, c_start, c_end, f"!({text})", "condition negated", parents)
            return
        if kind == K.RETURN_STMT:
            children = list(cursor.get_children())
            if len(children) != 1:
                return
            value = children[0]
            replacement = self._return_replacement(value, data)
            if replacement is not None:
                v_start, v_end = value.extent.start.offset, value.extent.end.offset
                self._add(points, path, data, lines, v_start, v_end, replacement,
                          f"return value -> {replacement}", parents)
            return
    def _statement_removal(self, cursor, parents, data, lines, path, points, start, end):
        parent = parents[-1] if parents else None
        if parent is None or parent.kind != K.COMPOUND_STMT or cursor.kind not in REMOVABLE:
            return
        semicolon = data.find(b";", end)
        if semicolon < 0 or data[end:semicolon].strip():
            return
        text = " ".join(tokens_at(data, start, semicolon).split())
        self._add(points, path, data, lines, start, semicolon + 1, ";", f"statement removed `{text[:50]}`", parents)

    def _return_replacement(self, value, data):
        type_kind = value.type.get_canonical().kind
        text = tokens_at(data, value.extent.start.offset, value.extent.end.offset).strip()
        T = ci.TypeKind
        if type_kind == T.BOOL:
            return "false" if text == "true" else ("true" if text == "false" else f"!({text})")
        if type_kind in (T.INT, T.LONG, T.LONGLONG, T.SHORT, T.CHAR_S, T.SCHAR):
            return "-1" if text == "0" else "0"
        if type_kind in (T.UINT, T.ULONG, T.ULONGLONG, T.USHORT, T.UCHAR, T.CHAR_U, T.ENUM):
            return "1" if text == "0" else "0"
        if type_kind == T.POINTER:
            return None if text in ("nullptr", "NULL", "0") else "nullptr"
        return None


# ---- running the suite -----------------------------------------------------------------------

@dataclass
class SuiteTest:
    name: str
    command: list
    cwd: str
    label: str
    env: dict = field(default_factory=dict)
    seconds: float = 1.0
    # A test judged by its output, as CTest judges it, rather than by its exit status.
    pass_rx: list = field(default_factory=list)
    fail_rx: list = field(default_factory=list)


# Labels tests/CMakeLists.txt gives to several suites.
SHARED_LABELS = ("threaded", "soak")


def list_tests(build_dir):
    out = subprocess.run(["ctest", "--test-dir", build_dir, "--show-only=json-v1", "-LE", "soak"],
                         check=True, capture_output=True, text=True).stdout
    tests = []
    for entry in json.loads(out)["tests"]:
        props = {p["name"]: p["value"] for p in entry.get("properties", [])}
        env = dict(item.split("=", 1) for item in props.get("ENVIRONMENT", []))
        # A suite's own label is its name; the shared ones (threaded, soak) name no suite.
        suite = [label for label in props.get("LABELS", []) if label not in SHARED_LABELS] or [""]
        tests.append(SuiteTest(entry["name"], entry["command"], props.get("WORKING_DIRECTORY", build_dir),
                               suite[0], env, pass_rx=props.get("PASS_REGULAR_EXPRESSION", []),
                               fail_rx=props.get("FAIL_REGULAR_EXPRESSION", [])))
    return tests


def start(test):
    """The test in a process group of its own, so that a time-out ends its children too; its
    output is kept only when its verdict is read from it."""
    output = tempfile.TemporaryFile() if test.pass_rx or test.fail_rx else None
    proc = subprocess.Popen(test.command, cwd=test.cwd, env=dict(os.environ, **test.env),
                            stdout=output or subprocess.DEVNULL,
                            stderr=subprocess.STDOUT if output else subprocess.DEVNULL, start_new_session=True)
    proc.output = output
    return proc


def passed(test, proc, code):
    """CTest's verdict: a match of a fail expression fails, pass expressions replace the exit status."""
    if proc.output is None:
        return code == 0
    proc.output.seek(0)
    text = proc.output.read().decode("utf-8", "replace")
    proc.output.close()
    if any(re.search(rx, text) for rx in test.fail_rx):
        return False
    return any(re.search(rx, text) for rx in test.pass_rx) if test.pass_rx else code == 0


def run_one(test, timeout):
    """'pass', 'fail' or 'timeout', and the seconds it took."""
    started = time.monotonic()
    proc = start(test)
    try:
        code = proc.wait(timeout=timeout)
    except subprocess.TimeoutExpired:
        kill_group(proc)
        return "timeout", time.monotonic() - started
    return ("pass" if passed(test, proc, code) else "fail"), time.monotonic() - started


def kill_group(proc):
    try:
        os.killpg(proc.pid, signal.SIGKILL)
    except ProcessLookupError:
        pass
    proc.wait()


def run_suite(tests, jobs, timeout_of):
    """Runs the tests in order on `jobs` workers until one fails; returns (outcome, test name)."""
    pending = list(tests)
    running = []  # (proc, test, started)
    try:
        return run_until_failure(pending, running, jobs, timeout_of)
    finally:
        for proc, _, _ in running:
            kill_group(proc)


def run_until_failure(pending, running, jobs, timeout_of):
    outcome = ("pass", "")
    while pending or running:
        while pending and len(running) < jobs and outcome[0] == "pass":
            test = pending.pop(0)
            running.append((start(test), test, time.monotonic()))
        if not running:
            break
        time.sleep(0.02)
        still = []
        for proc, test, started in running:
            code = proc.poll()
            if code is None and time.monotonic() - started > timeout_of(test):
                kill_group(proc)
                if outcome[0] == "pass":
                    outcome = ("timeout", test.name)
                continue
            if code is None:
                still.append((proc, test, started))
                continue
            if not passed(test, proc, code) and outcome[0] == "pass":
                outcome = ("fail", test.name)
        running[:] = still
        if outcome[0] != "pass":
            return outcome
    return outcome


def split_for(path, tests):
    """The suites nearest the file (run first, and built alone first), and the rest; each
    quickest first."""
    near = [rx for prefix, rx in NEAR_SUITES if path.startswith(prefix)]
    near_rx = re.compile(near[0]) if near else None
    by_time = sorted(tests, key=lambda test: test.seconds)
    first = [t for t in by_time if near_rx is not None and near_rx.search(t.label) is not None]
    return first, [t for t in by_time if t not in first]


def executable(test):
    return os.path.basename(test.command[0])


# ---- the tree, kept restorable -----------------------------------------------------------------

class Restorer:
    """Holds the original bytes of the file being mutated, in memory and in a backup file, so
    that an interrupted run (even a killed one) leaves the tree as it found it or can mend it."""

    def __init__(self, tree, build_dir):
        self.tree = tree
        self.backup_dir = os.path.join(build_dir, "mutate-backup")
        self.current = None

    def recover(self):
        if not os.path.isdir(self.backup_dir):
            return
        for name in os.listdir(self.backup_dir):
            meta = os.path.join(self.backup_dir, name)
            if not name.endswith(".path"):
                continue
            path = open(meta).read()
            shutil.copyfile(meta[:-5] + ".orig", os.path.join(self.tree, path))
            print(f"mutate: restored {path} from an interrupted run", file=sys.stderr)
        shutil.rmtree(self.backup_dir)

    def write(self, mutant):
        absolute = os.path.join(self.tree, mutant.path)
        original = open(absolute, "rb").read()
        os.makedirs(self.backup_dir, exist_ok=True)
        with open(os.path.join(self.backup_dir, "current.orig"), "wb") as f:
            f.write(original)
        with open(os.path.join(self.backup_dir, "current.path"), "w") as f:
            f.write(mutant.path)
        self.current = (absolute, original)
        mutated = original[:mutant.offset] + mutant.replacement.encode() + original[mutant.offset + mutant.length:]
        with open(absolute, "wb") as f:
            f.write(mutated)

    def restore(self):
        if self.current is None:
            return
        absolute, original = self.current
        with open(absolute, "wb") as f:
            f.write(original)
        self.current = None
        shutil.rmtree(self.backup_dir, ignore_errors=True)


# ---- the run ---------------------------------------------------------------------------------

def plugin_sources(tree, pattern):
    files = subprocess.run(["git", "-C", tree, "ls-files", "--", *MUTATED_FOLDERS], check=True,
                           capture_output=True, text=True).stdout.split()
    rx = re.compile(pattern) if pattern else None
    return [f for f in files if f.endswith(SOURCE_SUFFIXES) and (rx is None or rx.search(f))]


def configure(tree, build_dir):
    if not os.path.exists(os.path.join(build_dir, "build.ninja")):
        subprocess.run([os.path.join(tree, "scripts", "deps.sh")], check=True, stdout=sys.stderr)
        subprocess.run(["cmake", "--preset", "mutate"], cwd=tree, check=True, stdout=subprocess.DEVNULL)
    return build(build_dir, quiet=False)


def build(build_dir, quiet=True, targets=()):
    output = subprocess.DEVNULL if quiet else sys.stderr
    command = ["cmake", "--build", build_dir] + (["--target", *targets] if targets else [])
    result = subprocess.run(command, stdout=output, stderr=output)
    return result.returncode == 0


def try_mutant(build_dir, near, rest, jobs, timeout_of):
    """Builds and runs the near suites' programs alone first: most mutants fall there, and
    relinking every test program for them would cost more than running them. Only a mutant
    that survives them has the whole tree built and the rest of the suite run."""
    targets = sorted({executable(t) for t in near})
    if targets:
        if not build(build_dir, targets=targets):
            return "build", ""
        result, killer = run_suite(near, jobs, timeout_of)
        if result != "pass":
            return result, killer
    if not build(build_dir):
        return "build", ""
    return run_suite(rest, jobs, timeout_of)


def load_equivalents(tree):
    path = os.path.join(tree, "scripts", "mutate-equivalent.txt")
    keys = set()
    if os.path.exists(path):
        for line in open(path):
            line = line.rstrip("\n")
            if line and not line.startswith("#"):
                keys.add(line.split(" | ")[0].strip())
    return keys


def report(mutants, started, out):
    by_file = {}
    for m in mutants:
        by_file.setdefault(m.path, []).append(m)
    rows = [("file", "mutants", "caught", "survived", "timeout", "no build", "equiv")]
    totals = [0] * 6
    for path in sorted(by_file):
        ms = by_file[path]
        counts = [len(ms)] + [sum(m.outcome == o for m in ms) for o in ("caught", "survived", "timeout", "build",
                                                                         "equivalent")]
        totals = [a + b for a, b in zip(totals, counts)]
        rows.append((path, *map(str, counts)))
    rows.append(("total", *map(str, totals)))
    width = max(len(r[0]) for r in rows)
    for r in rows:
        print(f"{r[0]:<{width}}  " + "  ".join(f"{c:>8}" for c in r[1:]), file=out)
    survivors = [m for m in mutants if m.outcome == "survived"]
    if survivors:
        print("\nsurvived:", file=out)
        for m in survivors:
            print(f"  {m.where()}: {m.function}: {m.change}", file=out)
    _, caught, survived, timeout, _, _ = totals
    scored = caught + survived + timeout
    score = 100.0 * (caught + timeout) / scored if scored else 100.0
    elapsed = time.monotonic() - started
    # From the mutants' own times, so that mutants kept by --resume count at their own cost.
    per = sum(m.seconds for m in mutants) / len(mutants) if mutants else 0.0
    print(f"\nscore: {score:.1f}% caught ({caught + timeout} of {scored}; {timeout} by time-out), "
          f"{totals[4]} did not build, {totals[5]} equivalent; {elapsed / 60:.1f} min this run, "
          f"{per:.1f} s a mutant",
          file=out)
    return score


def main():
    parser = argparse.ArgumentParser(description=__doc__.split("\n\n")[0])
    parser.add_argument("--tree", default=HERE, help="the checkout to mutate (default: this one)")
    parser.add_argument("--build-dir", help="default: TREE/build/mutate (preset 'mutate')")
    parser.add_argument("--seed", type=int, default=1)
    parser.add_argument("--sample", type=int, default=0, help="mutants to try (default: every point)")
    parser.add_argument("--files", default="", help="regular expression on the file paths")
    parser.add_argument("--budget", type=float, default=0, help="minutes; no new mutant starts after them")
    parser.add_argument("--test-timeout", type=float, default=0,
                        help="seconds a test may take (default: 3 x its clean run + 10)")
    parser.add_argument("--jobs", type=int, default=os.cpu_count() or 2)
    parser.add_argument("--min-score", type=float, default=0, help="exit 1 below this percentage")
    parser.add_argument("--list", action="store_true", help="print the points and stop")
    parser.add_argument("--json", help="write every mutant and its outcome to this file")
    parser.add_argument("--resume", action="store_true",
                        help="with --json: keep the mutants that file already holds and try only the rest")
    parser.add_argument("--survivors-of", metavar="JSON",
                        help="try again only the survivors of an earlier run's --json, found by name")
    args = parser.parse_args()

    tree = os.path.abspath(args.tree)
    build_dir = os.path.abspath(args.build_dir or os.path.join(tree, "build", "mutate"))
    restorer = Restorer(tree, build_dir)
    restorer.recover()

    def on_signal(signum, _frame):
        raise KeyboardInterrupt(f"signal {signum}")
    # SIGINT too: a shell starts background jobs with it ignored, and the tree must still come back.
    for number in (signal.SIGINT, signal.SIGTERM, signal.SIGHUP):
        signal.signal(number, on_signal)

    started = time.monotonic()
    if not args.list or not os.path.exists(os.path.join(build_dir, "compile_commands.json")):
        if not configure(tree, build_dir):
            sys.exit("mutate: the unmutated tree does not build")

    finder = PointFinder(tree, build_dir)
    points = []
    for path in plugin_sources(tree, args.files):
        points += finder.find(path)
    if args.list:
        for m in points:
            print(f"{m.where()}: {m.function}: {m.change}")
        print(f"{len(points)} points", file=sys.stderr)
        return 0
    if args.survivors_of:
        wanted = {f"{m['path']}:{m['function']}: {m['change']}" for m in json.load(open(args.survivors_of))
                  if m["outcome"] == "survived"}
        points = [m for m in points if m.key() in wanted]
    rng = random.Random(args.seed)
    chosen = rng.sample(points, args.sample) if 0 < args.sample < len(points) else list(points)
    if not args.budget:
        # One file's mutants in a row: a file is compiled again only when the run moves on. Under
        # a time budget the sample keeps its random order, so that a cut run still spans every folder.
        chosen.sort(key=lambda m: (m.path, m.offset))
    equivalents = load_equivalents(tree)
    done = []
    if args.resume and args.json and os.path.exists(args.json):
        # A long sample may span several sittings: what an earlier run of the same sample tried
        # is kept as it was, found again by name, and counted in the report.
        earlier = {f"{m['path']}:{m['function']}: {m['change']}": m for m in json.load(open(args.json))}
        for mutant in chosen:
            record = earlier.get(mutant.key())
            if record is not None:
                mutant.outcome, mutant.killer, mutant.seconds = record["outcome"], record["killer"], record["seconds"]
                done.append(mutant)
        chosen = [m for m in chosen if m.outcome == ""]
        print(f"mutate: {len(done)} mutants kept from {args.json}", file=sys.stderr)

    def save():
        if args.json:
            with open(args.json + ".tmp", "w") as f:
                json.dump([m.__dict__ for m in done], f, indent=1)
            os.replace(args.json + ".tmp", args.json)

    tests = list_tests(build_dir)
    print(f"mutate: {len(points)} points, {len(chosen)} mutants, {len(tests)} tests; clean run first",
          file=sys.stderr)
    with concurrent.futures.ThreadPoolExecutor(max_workers=args.jobs) as pool:
        results = list(pool.map(lambda test: run_one(test, 600), tests))
    for test, (outcome, seconds) in zip(tests, results):
        test.seconds = seconds
        if outcome != "pass":
            sys.exit(f"mutate: {test.name} fails on the unmutated tree; fix the suite first")
    clean = sum(t.seconds for t in tests)
    print(f"mutate: clean suite {clean:.0f} s of test time", file=sys.stderr)

    def timeout_of(test):
        return args.test_timeout or 3 * test.seconds + 10

    try:
        for number, mutant in enumerate(chosen, 1):
            if args.budget and time.monotonic() - started > args.budget * 60:
                print(f"mutate: time budget spent after {len(done)} mutants", file=sys.stderr)
                break
            t0 = time.monotonic()
            restorer.write(mutant)
            try:
                near, rest = split_for(mutant.path, tests)
                result, killer = try_mutant(build_dir, near, rest, args.jobs, timeout_of)
                mutant.killer = killer
                mutant.outcome = {"pass": "survived", "fail": "caught", "timeout": "timeout", "build": "build"}[result]
                if mutant.outcome == "survived" and mutant.key() in equivalents:
                    mutant.outcome = "equivalent"
            finally:
                restorer.restore()
            mutant.seconds = time.monotonic() - t0
            done.append(mutant)
            save()  # after every mutant: a run cut off loses nothing that --resume cannot take up
            print(f"[{number}/{len(chosen)}] {mutant.outcome:<10} {mutant.seconds:5.1f}s {mutant.where()}: "
                  f"{mutant.change}" + (f"  ({mutant.killer})" if mutant.killer else ""), file=sys.stderr)
    except KeyboardInterrupt:
        restorer.restore()
        print("mutate: interrupted; the tree is restored", file=sys.stderr)
    finally:
        restorer.restore()
        build(build_dir)

    save()
    score = report(done, started, sys.stdout)
    return 1 if args.min_score and score < args.min_score else 0


if __name__ == "__main__":
    sys.exit(main())

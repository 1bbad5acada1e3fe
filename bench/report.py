#!/usr/bin/env python3
"""Runs the benchmarks of two builds and the peers side by side and writes the tables of docs/performance.md.

Every round runs every case of every build once, one after the other, each in a process of its own; figures are medians
over the rounds. So whatever else the machine does falls on all of them alike, and ratios can be trusted further than
the numbers. Instructions are counted once: they do not vary.

The build to compare with is made from the history of this repository with the benches of today; where the history is
not there (a source archive), its columns stay empty.
"""

import argparse
import datetime
import json
import os
import pathlib
import re
import resource
import shutil
import statistics
import subprocess
import sys
import time

ROOT = pathlib.Path(__file__).resolve().parent.parent
BEFORE, AFTER = "before", "after"
PATTERNS = "abcdef"
WHAT_PATTERN = {
    "a": "in order, shallow", "b": "5 % displaced by 1 to 5", "c": "2 % lost, depth 500", "d": "2 % lost, depth 2000",
    "e": "2 % come 250 late, depth 500", "f": "2 % come 1000 late, depth 2000",
}
SIMULATIONS = {
    "clean network": ["--seconds", "3600"],
    "2 % lost, 20 ms jitter, 80 ms round trip":
        ["--seconds", "3600", "--loss", "2%", "--jitter", "20", "--rtt", "80"],
}


def say(text):
    print(text, file=sys.stderr, flush=True)


def output(*command, **options):
    return subprocess.run(command, check=True, stdout=subprocess.PIPE, text=True, **options).stdout


# --- builds ----------------------------------------------------------------------------------------------------


def build_before(ref, scratch):
    """Builds the receiver of `ref` under today's benches. None where there is no such commit."""
    try:
        commit = output("git", "-C", str(ROOT), "rev-parse", "--verify", "--quiet", ref + "^{commit}").strip()
    except (subprocess.CalledProcessError, FileNotFoundError):
        say(f"report: {ref} is not in this repository's history; no figures from before")
        return None
    tree = scratch / "src"
    shutil.rmtree(tree, ignore_errors=True)
    tree.mkdir(parents=True)
    archive = subprocess.Popen(["git", "-C", str(ROOT), "archive", commit], stdout=subprocess.PIPE)
    subprocess.run(["tar", "-x", "-C", str(tree)], stdin=archive.stdout, check=True)
    if archive.wait() != 0:
        sys.exit("report: git archive failed")
    shutil.rmtree(tree / "bench", ignore_errors=True)
    shutil.copytree(ROOT / "bench", tree / "bench")
    build = scratch / "build"
    say(f"building {ref} in {build}")
    with open(scratch / "build.log", "w") as log:
        for command in (
            ["cmake", "-S", str(tree), "-B", str(build), "-G", "Ninja", "-DCMAKE_BUILD_TYPE=Release",
             "-DCMAKE_CXX_COMPILER=g++", "-DUDT_BUILD_TESTS=OFF"],
            ["cmake", "--build", str(build), "--target", "bench_path", "bench_idle", "bench_intake", "bench_memory",
             "bench_many", "path_once", "udtlab"],
        ):
            if subprocess.run(command, stdout=log, stderr=subprocess.STDOUT).returncode != 0:
                sys.exit(f"report: {ref} does not build, see {log.name}")
    return build


# --- running ---------------------------------------------------------------------------------------------------


class Results:
    """Values by side, case and counter, one per round."""

    def __init__(self, values=None):
        self.values = values or {}

    def add(self, side, case, counters):
        for name, value in counters.items():
            self.values.setdefault(side, {}).setdefault(case, {}).setdefault(name, []).append(value)

    def get(self, side, case, counter):
        series = self.values.get(side, {}).get(case, {}).get(counter)
        return statistics.median(series) if series else None

    def spread(self, side, case, counter):
        series = self.values.get(side, {}).get(case, {}).get(counter)
        return (max(series) - min(series)) / statistics.median(series) if series and len(series) > 1 else 0.0


def list_cases(program, pattern="."):
    if not program.exists():
        return []
    names = output(str(program), "--benchmark_list_tests=true").split("\n")
    return [name for name in names if name and re.search(pattern, name)]


def run_case(program, case, min_time):
    command = [str(program), f"--benchmark_filter=^{re.escape(case)}$", "--benchmark_format=json",
               f"--benchmark_min_time={min_time}"]
    # re.escape is more careful than the benchmark's own expressions allow.
    command[1] = command[1].replace("\\-", "-").replace("\\:", ":").replace("\\/", "/").replace("\\_", "_")
    text = output(*command, stderr=subprocess.DEVNULL)
    found = json.loads(text)["benchmarks"]
    if len(found) != 1:
        sys.exit(f"report: {program.name} has no case {case}")
    if found[0].get("error_occurred"):
        sys.exit(f"report: {program} {case}: {found[0]['error_message']}")
    scale = {"ns": 1.0, "us": 1e3, "ms": 1e6, "s": 1e9}[found[0]["time_unit"]]
    skip = {"iterations", "threads", "repetitions", "repetition_index", "family_index",
            "per_family_instance_index"}
    counters = {k: v for k, v in found[0].items() if isinstance(v, (int, float)) and k not in skip}
    counters["cpu_ns"] = found[0]["cpu_time"] * scale
    if "per_pkt" in counters:
        counters["ns_per_pkt"] = counters.pop("per_pkt") * 1e9
    return counters


def simulate(program, arguments):
    before = resource.getrusage(resource.RUSAGE_CHILDREN)
    start = time.monotonic()
    subprocess.run([str(program), "simulate", *arguments], check=True, stdout=subprocess.DEVNULL,
                   stderr=subprocess.DEVNULL)
    wall = time.monotonic() - start
    after = resource.getrusage(resource.RUSAGE_CHILDREN)
    return {"wall_s": wall, "cpu_s": after.ru_utime - before.ru_utime + after.ru_stime - before.ru_stime}


def rooms_to_count(results, side):
    """Those that take seconds, not hours, under callgrind."""
    for users in (1, 10, 50):
        for buffer_ms in (500, 2000, 6000):
            cost = results.get(side, f"Room/users:{users}/buffer_ms:{buffer_ms}/clock:0", "ns_per_pkt")
            if cost is not None and cost * users < 20000:
                yield f"room{users}:{buffer_ms}"


def count_instructions(build, seconds, cases):
    text = output(str(ROOT / "bench/count_instructions.sh"), "--seconds", str(seconds), str(build / "bench/path_once"),
                  *cases)
    return {line.split()[0]: float(line.split()[3]) for line in text.splitlines()[1:]}


def run_all(sides, options):
    results = Results()
    jobs = []  # (rounds, label, function)

    def add_case(side, program, case, rounds):
        jobs.append((rounds, f"{side} {case}", lambda: results.add(side, case, run_case(program, case, options.time))))

    peers = sides[AFTER] / "bench/peers/bench_peers"
    everything = re.compile(options.only)
    # The order within a round: a case of one build, then the same of the other.
    for name, pattern, rounds in (
        ("bench_path", r"^(Floor|Path)", options.rounds),
        ("bench_idle", ".", options.rounds),
        ("bench_intake", ".", options.rounds),
        ("bench_path", r"^Room", min(options.rounds, 3)),
        ("bench_memory", ".", 1),
        ("bench_many", ".", min(options.rounds, 3)),
    ):
        for case in list_cases(sides[AFTER] / "bench" / name, pattern):
            if not everything.search(case):
                continue
            for side, build in sides.items():
                if side == AFTER or case in list_cases(build / "bench" / name, pattern):
                    # A large room takes the receiver of before a minute to fill.
                    large = side == BEFORE and re.search(r"users:50/buffer_ms:6000", case)
                    add_case(side, build / "bench" / name, case, 1 if large else rounds)
    for case in list_cases(peers):
        if everything.search(case):
            add_case(AFTER, peers, case, options.rounds)
    if everything.search("simulate"):
        for what, arguments in SIMULATIONS.items():
            for side, build in sides.items():
                program = build / "lab/udtlab"
                if program.exists():
                    jobs.append((min(options.rounds, 3), f"{side} simulate: {what}",
                                 lambda side=side, program=program, what=what, arguments=arguments:
                                 results.add(side, "simulate: " + what, simulate(program, arguments))))

    start = time.monotonic()
    for number in range(options.rounds):
        due = [job for job in jobs if number < job[0]]
        for index, (_, label, function) in enumerate(due):
            if sys.stderr.isatty():
                print(f"\r  round {number + 1} of {options.rounds}, {index + 1} of {len(due)}: {label[:60]:60}",
                      end="", file=sys.stderr, flush=True)
            function()
        say(f"\r  round {number + 1} of {options.rounds} done after {time.monotonic() - start:.0f} s" + " " * 60)
    if everything.search("instructions"):
        for side, build in sides.items():
            streams = [f"{p}:312" for p in PATTERNS] + ["c:1000", "e:1000", "c:10000", "e:10000", "floor:312"]
            for seconds, cases in ((options.count_seconds, streams), (5, list(rooms_to_count(results, side)))):
                for case, value in (count_instructions(build, seconds, cases) if cases else {}).items():
                    results.add(side, case, {"instructions": value})
    return results


# --- machine ---------------------------------------------------------------------------------------------------


def machine():
    model = next((line.split(":", 1)[1].strip() for line in open("/proc/cpuinfo") if line.startswith("model name")),
                 "unknown processor")
    memory = next(int(line.split()[1]) for line in open("/proc/meminfo") if line.startswith("MemTotal"))
    system = "Linux"
    if os.path.exists("/etc/os-release"):
        system = re.search(r'PRETTY_NAME="?([^"\n]*)', open("/etc/os-release").read()).group(1)
    compiler = output("g++", "--version").splitlines()[0]
    return (f"{model}, {os.cpu_count()} cores, {memory / 2**20:.0f} GiB; {system}; {compiler}; load "
            f"{os.getloadavg()[0]:.1f} at the start")


# --- tables ----------------------------------------------------------------------------------------------------


def number(value, digits=None):
    if value is None:
        return ""
    if digits is None:
        digits = 0 if abs(value) >= 100 else 1 if abs(value) >= 10 else 2
    return f"{value:,.{digits}f}"


def table(header, rows):
    lines = ["| " + " | ".join(header) + " |", "|---|" + "--:|" * (len(header) - 1)]
    return "\n".join(lines + ["| " + " | ".join(row) + " |" for row in rows])


def ratio(value, to):
    if not value or not to:
        return ""
    digits = 2 if value < to else 1 if value < 10 * to else 0
    return f" (×{value / to:.{digits}f})"


def path_case(pattern, rate=312, clock=0, turns=0):
    return f"Path/pattern:{pattern}/rate:{rate}/clock:{clock}/turns:{turns}"


def targets_table(results):
    rows = []

    def row(what, unit, limit, value, digits=None, higher=False):
        before, after = value(BEFORE), value(AFTER)
        if after is None:
            return
        met = after >= limit if higher else after <= limit + 1e-9
        rows.append([what, unit, number(before, digits), number(after, digits),
                     ("at least " if higher else "at most ") + number(limit, digits), "yes" if met else "**no**"])

    def quotient(above, below):
        return lambda side: above(side) / below(side) if above(side) is not None and below(side) else None

    def path(pattern, clock=0):
        return lambda side: results.get(side, path_case(pattern, 312, clock), "ns_per_pkt")

    def counted(pattern):
        return lambda side: results.get(side, f"{pattern}:312", "instructions")

    def memory(case, counter):
        return lambda side: results.get(side, "Memory/" + case, counter)

    def intake(threads, counter):
        return lambda side: results.get(side, f"Intake/threads:{threads}/manual_time", counter)

    for pattern in "ce":
        row(f"whole path, {pattern}", "ns", 135, path(pattern), 0)
        row(f"whole path, {pattern}", "instructions", 1300, counted(pattern), 0)
        row(f"whole path, {pattern}, machine's clock", "ns", 300, path(pattern, 1), 0)
    row("flat in depth, d over c", "ratio", 1.10, quotient(path("d"), path("c")), 2)
    row("flat in depth, f over e", "ratio", 1.10, quotient(path("f"), path("e")), 2)
    row("flat in depth, d over c, instructions", "ratio", 1.10, quotient(counted("d"), counted("c")), 2)
    row("flat in depth, f over e, instructions", "ratio", 1.10, quotient(counted("f"), counted("e")), 2)
    for gaps in (0, 1):
        row(f"idle turn, 100 streams of 500 packets, {'2 % missing' if gaps else 'no gaps'}", "µs", 5.0,
            lambda side, gaps=gaps: (results.get(side, f"IdleTurn/gaps:{gaps}", "cpu_ns") or 0) / 1e3 or None, 2)
    row("allocations in steady state, c", "per packet", 0.0,
        memory("pattern:c/rate:312/iterations:3000", "mallocs/pkt"), 4)
    row("allocations in steady state, e", "per packet", 0.0,
        memory("pattern:e/rate:312/iterations:3000", "mallocs/pkt"), 4)
    row("bookkeeping per buffered packet, d", "bytes", 160,
        memory("pattern:d/rate:312/iterations:3000", "bytes/pkt"), 0)
    row("bookkeeping per buffered packet, 50 users at 6 s", "bytes", 160,
        memory("users:50/buffer_ms:6000/iterations:100", "bytes/pkt"), 0)
    row("intake, one network thread", "CPU ns", 80, intake(1, "cpu_ns/call"), 0)
    row("intake, calls/s of 4 threads over 1", "ratio", 2.5 if (os.cpu_count() or 1) >= 4 else 1.6,
        quotient(intake(4, "calls/s"), intake(1, "calls/s")), 2, higher=True)
    for what in SIMULATIONS:
        row(f"an hour of a 4-user call simulated, {what}", "s", 10,
            lambda side, what=what: results.get(side, "simulate: " + what, "wall_s"), 1)
    # Drive 2 is the library's pool; 1 is a bare loop of the bench, which shows what can be had at all.
    many = [c for c in results.values.get(AFTER, {}) if re.match(r"Many/receivers:1000/load:1/drive:2", c)]
    own = results.get(AFTER, "Many/receivers:1000/load:1/drive:0/iterations:1/manual_time", "us/recv/s")
    for case in many:
        pooled = results.get(AFTER, case, "us/recv/s")
        rows.append(["1000 receivers with a stream each, pooled over a thread each", "ratio", "",
                     number(pooled / own, 2), "at most 0.10", "yes" if pooled / own <= 0.1 else "**no**"])
    return table(["", "unit", "before", "now", "limit", "met"], rows)


def path_table(results):
    rows = []
    for rate in (312, 1000, 10000):
        for clock, turns, what in ((0, 0, "variable"), (1, 0, "machine's"), (0, 1, "variable, a turn per packet")):
            cells = []
            for pattern in PATTERNS:
                before, after = (results.get(side, path_case(pattern, rate, clock, turns), "ns_per_pkt")
                                 for side in (BEFORE, AFTER))
                cells.append(f"{number(before, 0)} → {number(after, 0)}" if before else number(after, 0))
            if any(cells):
                rows.append([f"{rate}/s, {what}", *cells])
        floor = results.get(AFTER, f"Floor/pattern:c/rate:{rate}", "ns_per_pkt")
        if floor:
            rows.append([f"{rate}/s, the bench itself", "", "", number(floor, 0), "", "", ""])
    counted = []
    for rate in (312, 1000, 10000):
        cells = []
        for pattern in PATTERNS:
            before, after = (results.get(side, f"{pattern}:{rate}", "instructions") for side in (BEFORE, AFTER))
            cells.append(f"{number(before, 0)} → {number(after, 0)}" if before else number(after, 0))
        if any(cells):
            counted.append([f"instructions, {rate}/s", *cells])
    floor = results.get(AFTER, "floor:312", "instructions")
    if floor:
        counted.append(["instructions, the bench itself", "", "", number(floor, 0), "", "", ""])
    return table(["", *PATTERNS], rows + counted)


def rooms_table(results):
    rows = []
    for users in (1, 10, 50):
        for clock, what in ((0, "variable"), (1, "machine's")):
            cells = []
            for buffer_ms in (500, 2000, 6000):
                case = f"Room/users:{users}/buffer_ms:{buffer_ms}/clock:{clock}"
                before, after = (results.get(side, case, "ns_per_pkt") for side in (BEFORE, AFTER))
                cells.append(f"{number(before, 0)} → {number(after, 0)}" if before else number(after, 0))
            if any(cells):
                rows.append([f"{users} user{'s' if users > 1 else ''}, ns, {what}", *cells])
        cells = []
        for buffer_ms in (500, 2000, 6000):
            before, after = (results.get(side, f"room{users}:{buffer_ms}", "instructions") for side in (BEFORE, AFTER))
            cells.append(f"{number(before, 0) or '-'} → {number(after, 0)}" if after else "")
        if any(cells):
            rows.append([f"{users} user{'s' if users > 1 else ''}, instructions", *cells])
    return table(["", "0.5 s", "2 s", "6 s"], rows)


def memory_table(results):
    rows = []
    for case in results.values.get(AFTER, {}):
        if not case.startswith("Memory/"):
            continue
        cells = []
        for counter in ("mallocs/pkt", "bytes/pkt", "peak_MB"):
            before, after = (results.get(side, case, counter) for side in (BEFORE, AFTER))
            digits = {"mallocs/pkt": 3, "bytes/pkt": 0, "peak_MB": 2}[counter]
            cells.append(f"{number(before, digits)} → {number(after, digits)}" if before is not None
                         else number(after, digits))
        name = re.sub(r"/iterations:\d+|/rate:312", "", case.removeprefix("Memory/"))
        rows.append([name, number(results.get(AFTER, case, "held"), 0), *cells])
    return table(["", "packets held", "allocations per packet", "bytes per packet held, over its record", "peak, MB"],
                 rows)


def threads_table(results):
    rows = []
    for threads in (1, 2, 4):
        case = f"Intake/threads:{threads}/manual_time"
        cells = []
        for counter, scale, digits in (("cpu_ns/call", 1, 0), ("bench_ns/call", 1, 0), ("calls/s", 1e-6, 2)):
            before, after = (results.get(side, case, counter) for side in (BEFORE, AFTER))
            if after is None:
                continue
            cells.append(f"{number(before * scale, digits)} → {number(after * scale, digits)}" if before
                         else number(after * scale, digits))
        if cells:
            rows.append([str(threads), *cells])
    return table(["network threads", "CPU ns per call", "the bench's own, beside it", "million calls/s, all threads"], rows)


def many_table(results):
    rows = []
    for case in results.values.get(AFTER, {}):
        match = re.match(r"Many/receivers:(\d+)/load:(\d)/drive:(\d+)", case)
        if not match:
            continue
        cells = []
        for counter, digits in (("cpu_pct", 1), ("us/recv/s", 0), ("rss_kB/recv", 1)):
            before, after = (results.get(side, case, counter) for side in (BEFORE, AFTER))
            cells.append(f"{number(before, digits)} → {number(after, digits)}" if before is not None
                         else number(after, digits))
        what = "one audio stream each" if match.group(2) == "1" else "idle"
        drive = {"0": "own threads", "1": "one bare loop", "2": "pooled"}.get(match.group(3), f"drive {match.group(3)}")
        late = results.get(AFTER, case, "late_us_p99")
        rows.append([f"{match.group(1)}, {what}, {drive}", *cells, number(late, 0)])
    return table(["receivers", "% of one core", "µs per receiver and second", "kB resident each", "lateness p99, µs"],
                 rows)


def peers_table(results):
    names = []
    for case in results.values.get(AFTER, {}):
        match = re.match(r"Peer/([^/]+)/", case)
        if match and match.group(1) not in names:
            names.append(match.group(1))
    own = [name for name in names if name.startswith("udtrecv")]
    others = sorted((name for name in names if name not in own),
                    key=lambda name: results.get(AFTER, f"Peer/{name}/pattern:c/process_time", "ns_per_pkt") or 0)
    what = {"udtrecv": "**udtrecv**, 312/s", "udtrecv-1000": "udtrecv, 1000/s", "udtrecv-10000": "udtrecv, 10000/s",
            "nobody": "the bench itself", "ring": "ring by sequence (floor)", "map-pool": "std::map + pool (floor)",
            "nack-alone": "a scheduler of requests alone, no buffer", "libre-jbuf": "libre jbuf",
            "ortp-queue": "oRTP queue", "speexdsp": "speexdsp (c at depth 150)",
            "gst-jitterbuffer": "GStreamer rtpjitterbuffer",
            "gst-retransmission": "GStreamer, do-retransmission, do-lost"}
    rows = []
    for name in own + others:
        cells = []
        for pattern in PATTERNS:
            value = results.get(AFTER, f"Peer/{name}/pattern:{pattern}/process_time", "ns_per_pkt")
            us = results.get(AFTER, f"Peer/udtrecv/pattern:{pattern}/process_time", "ns_per_pkt")
            cells.append("-" if value is None else number(value, 0) + ("" if name in own else ratio(value, us)))
        rows.append([what.get(name, name), *cells])
    before = [results.get(BEFORE, path_case(pattern), "ns_per_pkt") for pattern in PATTERNS]
    if any(before):
        us = [results.get(AFTER, f"Peer/udtrecv/pattern:{p}/process_time", "ns_per_pkt") for p in PATTERNS]
        rows.insert(1, ["udtrecv before, 312/s", *(number(b, 0) + ratio(b, u) for b, u in zip(before, us))])
    return table(["", *PATTERNS], rows)


def run_text(meta):
    before = f"`{meta['before']}`" if meta["before"] else "not in this copy's history"
    return (f"{meta['date']}, `{meta['command']}`: {meta['rounds']} rounds, {meta['minutes']:.0f} minutes. Now: `{meta['after']}`. "
            f"Before: {before}.\n{meta['machine']}.\n"
            f"The widest spread of a whole-path figure over the rounds was {100 * meta['spread']:.0f} % of its median.")


def write_document(path, results, meta):
    text = path.read_text()
    for name, content in (
        ("run", run_text(meta)), ("targets", targets_table(results)), ("path", path_table(results)),
        ("rooms", rooms_table(results)), ("memory", memory_table(results)), ("threads", threads_table(results)),
        ("many", many_table(results)), ("peers", peers_table(results)),
    ):
        begin, end = f"<!-- begin {name} -->\n", f"<!-- end {name} -->"
        if begin not in text or end not in text:
            sys.exit(f"report: {path} has no place for the table '{name}' ({begin.strip()} ... {end})")
        head, rest = text.split(begin, 1)
        text = head + begin + content + "\n" + end + rest.split(end, 1)[1]
    path.write_text(text)
    say(f"report: wrote {path}")


# --- main ------------------------------------------------------------------------------------------------------


def main():
    parser = argparse.ArgumentParser(description=__doc__, formatter_class=argparse.RawDescriptionHelpFormatter)
    parser.add_argument("--build", type=pathlib.Path, default=ROOT / "build/release", help="the build to measure")
    parser.add_argument("--before", default="f34939f", metavar="COMMIT",
                        help="the commit to compare with; 'none' for none (default %(default)s)")
    parser.add_argument("--scratch", type=pathlib.Path, default=ROOT / "out/before", help="where that one is built")
    parser.add_argument("--rounds", type=int, default=5)
    parser.add_argument("--time", type=float, default=0.2, help="seconds per case and round, at least")
    parser.add_argument("--count-seconds", type=int, default=20, help="of virtual time under callgrind")
    parser.add_argument("--only", default=".", metavar="REGEX",
                        help="run only such cases ('instructions' and 'simulate' are names as well); writes no document")
    parser.add_argument("--quick", action="store_true", help="one short round, to try it out; writes no document")
    parser.add_argument("--results", type=pathlib.Path, default=ROOT / "out/bench.json", help="all figures go here")
    parser.add_argument("--render", action="store_true", help="write the document again from --results, run nothing")
    parser.add_argument("--document", type=pathlib.Path, default=ROOT / "docs/performance.md")
    options = parser.parse_args()
    if options.quick:
        options.rounds, options.time, options.count_seconds = 1, 0.02, 5

    if options.render:
        stored = json.loads(options.results.read_text())
        write_document(options.document, Results(stored["values"]), stored["meta"])
        return

    if not (options.build / "bench/bench_path").exists():
        sys.exit(f"report: no benchmarks in {options.build}; ./run report builds them")
    start = time.monotonic()
    meta = {"machine": machine(), "rounds": options.rounds, "date": datetime.date.today().isoformat(),
            "command": "./run report", "before": None, "after": "a tree without history"}
    sides = {}
    if options.before != "none":
        build = build_before(options.before, options.scratch)
        if build is not None:
            sides[BEFORE] = build
            meta["before"] = options.before
    sides[AFTER] = options.build
    try:
        meta["after"] = output("git", "-C", str(ROOT), "describe", "--always", "--dirty", "--exclude=*").strip()
    except (subprocess.CalledProcessError, FileNotFoundError):
        pass

    results = run_all(sides, options)
    meta["minutes"] = (time.monotonic() - start) / 60
    meta["spread"] = max((results.spread(AFTER, path_case(p, rate, clock), "ns_per_pkt")
                          for p in PATTERNS for rate in (312, 1000) for clock in (0, 1)), default=0.0)
    options.results.parent.mkdir(parents=True, exist_ok=True)
    options.results.write_text(json.dumps({"meta": meta, "values": results.values}, indent=1) + "\n")
    for name, make in (("", targets_table), ("whole path, ns per packet", path_table), ("rooms", rooms_table),
                       ("memory", memory_table), ("intake", threads_table), ("many receivers", many_table),
                       ("peers", peers_table)):
        print(f"\n{name}\n{make(results)}" if name else make(results))
    if options.quick or options.only != ".":
        say(f"report: all figures are in {options.results}; {options.document.name} is left as it was")
    else:
        write_document(options.document, results, meta)


if __name__ == "__main__":
    main()

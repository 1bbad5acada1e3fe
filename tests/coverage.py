#!/usr/bin/env python3
"""tests/coverage.py BUILD OUT: prints by folder which share of the lines the tests of BUILD reached, from OUT/tests.profdata,
and writes the sources with their counts to OUT/html. Fails if a folder is below its least."""
import json
import os
import subprocess
import sys

# What is looked at, and the least share of its lines, in percent.
GROUPS = [("receiver", "udt/AVG", 95), ("all of udt/", "udt/", 95), ("common/, xplatform/", ("common/", "xplatform/"), 90),
          ("rtp/", "rtp/", 90), ("capture readers", "lab/capture/", 90), ("stats/", "stats/", 90), ("lab/", "lab/", 80)]


def programs(build):
    for folder, _, names in os.walk(build):
        for name in sorted(names):
            path = os.path.join(folder, name)
            if os.access(path, os.X_OK) and not name.endswith((".so", ".sh", ".py")) and open(path, "rb").read(4) == b"\x7fELF":
                # Other people's projects hold the library as they built it: other code of the same names.
                if "CMakeFiles" not in folder and "/outside" not in folder and ".so." not in name:
                    yield path


def main():
    build, out = sys.argv[1:3]
    objects = list(programs(build))
    common = [objects[0]] + [word for path in objects[1:] for word in ("-object", path)]
    common += [f"-instr-profile={out}/tests.profdata", "-ignore-filename-regex=(/usr/|/tests/|/fuzz/|/examples/|/bench/)"]

    def llvm_cov(*words):
        # It warns of functions that several programs have under one name; each counts where it was profiled.
        done = subprocess.run(["llvm-cov", *words, *common], capture_output=True, text=True)
        if done.returncode != 0:
            sys.exit(done.stderr)
        return done.stdout

    text = llvm_cov("export", "-summary-only")
    files = {os.path.relpath(os.path.normpath(f["filename"])): f["summary"]["lines"] for f in json.loads(text)["data"][0]["files"]}
    llvm_cov("show", "-format=html", f"-output-dir={out}/html")
    below = 0
    print(f"{'lines reached by the tests':<26}{'lines':>8}{'reached':>9}{'%':>8}{'least':>7}")
    for name, folder, least in GROUPS:
        counts = [lines for path, lines in files.items() if path.startswith(folder)]
        lines, reached = sum(c["count"] for c in counts), sum(c["covered"] for c in counts)
        share = 100.0 * reached / lines if lines else 0.0
        below += share < least
        print(f"{name:<26}{lines:>8}{reached:>9}{share:>8.1f}{least:>7}")
    print("\nleast reached:")
    reached = {path: lines for path, lines in files.items() if lines["count"] >= 20}
    for path, lines in sorted(reached.items(), key=lambda item: item[1]["percent"])[:8]:
        print(f"  {path:<40}{lines['count']:>6}{lines['percent']:>8.1f} %")
    print(f"\nline by line: {out}/html/index.html")
    return 1 if below else 0


if __name__ == "__main__":
    sys.exit(main())

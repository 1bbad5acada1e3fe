#!/usr/bin/env python3
"""docs/check_quotes.py PAGE...: every block of C++, C or Python in the pages stands, line by line, in a file of examples/.

Indentation may differ as a whole. So what the pages show is compiled and run.
"""
import pathlib
import re
import sys
import textwrap

ROOT = pathlib.Path(__file__).resolve().parent.parent
KINDS = {"cpp": ("*.cpp", "*.h"), "c": ("*.c", "*.h"), "python": ("*.py",)}


def excerpts(lines, count):
    for start in range(len(lines) - count + 1):
        yield textwrap.dedent("\n".join(lines[start:start + count])).strip("\n")


bad = 0
for page in sys.argv[1:]:
    text = pathlib.Path(page).read_text(encoding="utf-8")
    for match in re.finditer(r"^```(\w+)\n(.*?)^```$", text, re.M | re.S):
        kind, block = match.groups()
        if kind not in KINDS:
            continue
        block = textwrap.dedent(block).strip("\n")
        files = [file for pattern in KINDS[kind] for file in sorted((ROOT / "examples").glob(pattern))]
        if not any(block == one for file in files
                   for one in excerpts(file.read_text(encoding="utf-8").split("\n"), block.count("\n") + 1)):
            line = text.count("\n", 0, match.start()) + 1
            print(f"{page}:{line}: this block stands in no file of examples/:\n{textwrap.indent(block, '    ')}")
            bad += 1
sys.exit(1 if bad else 0)

#!/usr/bin/python3
"""Compares docs/kept.md with the marks "// kept: N" in the sources and with the tests that it names."""

import re
import sys
from pathlib import Path

TOP = Path(__file__).resolve().parents[2]
ROW = re.compile(r"^\| (\d+) \| (.+?) \| (.+?) \| (.+?) \|$", re.MULTILINE)
MARK = re.compile(r"// kept: (\d+(?:, \d+)*)$")
TEST = re.compile(r"^(?:TYPED_)?TEST(?:_F|_P)?\(\s*(\w+),\s*(\w+)\s*\)", re.MULTILINE)


def sources(tests):
    """Sources of the system, or those of its tests."""
    for folder in ("kova_ctlserver", "kovactl", "platform", "tests"):
        for path in sorted((TOP / folder).rglob("*")):
            if path.suffix in (".cpp", ".h") and ("tests" in path.relative_to(TOP).parts) == tests:
                yield path


def marks(faults):
    found = {}
    for path in sources(tests=False):
        for number, line in enumerate(path.read_text().split("\n"), 1):
            if "// kept:" not in line:
                continue
            place = f"{path.relative_to(TOP)}:{number}"
            mark = MARK.search(line)
            if not mark:
                faults.append(f"{place}: a mark ends its line and reads // kept: 7 or // kept: 7, 8")
            for kept in mark.group(1).split(", ") if mark else ():
                found.setdefault(int(kept), place)
    return found


def main():
    faults = []
    rows = ROW.findall((TOP / "docs/kept.md").read_text())
    marked = marks(faults)
    existing = {".".join(test) for path in sources(tests=True) for test in TEST.findall(path.read_text())}
    numbers = [int(row[0]) for row in rows]
    if sorted(numbers) != list(range(1, len(rows) + 1)):
        faults.append("docs/kept.md: the rows are not numbered from 1 without a gap")
    faults += [f"docs/kept.md: no source has the mark // kept: {kept}" for kept in numbers if kept not in marked]
    faults += [f"{marked[kept]}: docs/kept.md has no row {kept}" for kept in sorted(set(marked) - set(numbers))]
    named = 0
    for number, _, _, tests in rows:
        for test in tests.split(", "):
            named += 1
            if test.strip("`") not in existing:
                faults.append(f"docs/kept.md: row {number} names {test}, which is not a test")
    print(*faults, f"{len(rows)} rows, {len(marked)} marked, {named} tests named, {len(faults)} faults", sep="\n")
    return 1 if faults or not rows else 0


sys.exit(main())

#!/usr/bin/python3
"""Checks the names of tests: at most 60 characters and no articles. tests/arm64/left-out must name existing tests."""

import re
import sys
from pathlib import Path

TOP = Path(__file__).resolve().parents[2]
LONGEST = 60
ARTICLES = {"A", "An", "The"}
TEST = re.compile(r"^(?:TYPED_)?TEST(?:_F|_P)?\(\s*(\w+),\s*(\w+)\s*\)", re.MULTILINE)
CASE = re.compile(r"^case (\S+)$", re.MULTILINE)


def tests():
    for folder in ("bench", "camera", "kova_ctlserver", "kovactl", "platform", "tests"):
        for path in sorted((TOP / folder).rglob("*.cpp")):
            for suite, name in TEST.findall(path.read_text()):
                yield path.relative_to(TOP), suite, name


def plain(case):
    """The name without the instance and the value of a test with parameters."""
    return re.sub(r"^\w+/|/\w+$", "", case)


def faults_of(name):
    if len(name) > LONGEST:
        yield f"has {len(name)} characters, more than {LONGEST}"
    for article in sorted(ARTICLES.intersection(re.findall(r"[A-Z][a-z]*", name))):
        yield f'has the article "{article}"'


def main():
    faults = []
    existing = set()
    for path, suite, name in tests():
        existing.add(f"{suite}.{name}")
        faults += [f"{path}: {suite}.{name} {fault}" for fault in faults_of(name)]
    left_out = CASE.findall((TOP / "tests/arm64/left-out").read_text())
    faults += [f"tests/arm64/left-out: there is no test {case}" for case in left_out if plain(case) not in existing]
    print(*faults, f"{len(existing)} tests, {len(left_out)} left out on arm64, {len(faults)} faults", sep="\n")
    return 1 if faults or len(existing) < 1000 else 0


sys.exit(main())

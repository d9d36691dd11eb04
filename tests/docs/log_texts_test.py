#!/usr/bin/python3
"""Holds the tables of log texts in docs/operations.md to the texts that the daemon and the platform log."""

import re
import sys
from pathlib import Path

TOP = Path(__file__).resolve().parents[2]
SOURCES = sorted([*TOP.glob("kova_ctlserver/src/*.cpp"), *TOP.glob("platform/*/src/*.cpp")])

# What logs: the text is the first literal, for KOVA_LOG_IN the first behind the name of the operation.
CALL = re.compile(r"\b(KOVA_LOG_IN|KOVA_LOG|fail)\(")
LITERAL = re.compile(r'"((?:[^"\\]|\\.)*)"(?:\s*"((?:[^"\\]|\\.)*)")*')
# BusMonitor is the listener's side of the library.
LEFT_OUT = {"BusMonitor.cpp"}


def unquoted(match):
    return "".join(re.findall(r'"((?:[^"\\]|\\.)*)"', match.group(0))).replace('\\"', '"').replace("%.*s", "%s")


def arguments(source, start):
    """The text between the parenthesis before `start` and its counterpart."""
    depth, at = 1, start
    while depth > 0:
        literal = LITERAL.match(source, at)
        if literal:
            at = literal.end()
            continue
        depth += {"(": 1, ")": -1}.get(source[at], 0)
        at += 1
    return source[start : at - 1]


def logged():
    for path in SOURCES:
        if path.name in LEFT_OUT:
            continue
        source = path.read_text()
        for call in CALL.finditer(source):
            values = arguments(source, call.end())
            if call.group(1) == "KOVA_LOG_IN":
                values = values.partition(",")[2]
            literal = LITERAL.search(values)
            text = unquoted(literal) if literal else ""
            if re.sub(r"%[sd]", "", text).strip():
                yield text


def documented():
    page = (TOP / "docs/operations.md").read_text()
    for row in re.findall(r"^\| (`.*?) \| ", page[page.index("\n## The log") :], re.MULTILINE):
        yield from (name or plain for name, plain in re.findall(r"`` (.*?) ``|`([^`]+)`", row))


def literals():
    return {unquoted(match) for path in SOURCES for match in LITERAL.finditer(path.read_text())}


def main():
    texts, rows = set(logged()), set(documented())
    faults = [f"docs/operations.md lacks: {text}" for text in sorted(texts - rows)]
    faults += [f"nothing logs what docs/operations.md has: {text}" for text in sorted(rows - texts - literals())]
    print(*faults, f"{len(texts)} texts in the code, {len(rows)} in the table", sep="\n")
    return 1 if faults or len(texts) < 100 else 0


sys.exit(main())

#!/usr/bin/python3
"""Compares the tables of log texts in docs/operations.md with the texts that the daemon and the platform log."""

import re
import sys
from pathlib import Path

TOP = Path(__file__).resolve().parents[2]
FOLDERS = ("kova_ctlserver/src/*.cpp", "kova_ctlserver/include/*.h", "platform/*/src/*.cpp",
           "platform/utils/*/src/*.cpp")
SOURCES = sorted(path for folder in FOLDERS for path in TOP.glob(folder))

# Logging calls. The text is the first literal after ORIGIN arguments, which give the origin of the line.
CALL = re.compile(r"\b(KOVA_LOG(?:_IN|_AT|_LINE)?|logInternal|fail)\(")
ORIGIN = {"KOVA_LOG_IN": 1, "KOVA_LOG_AT": 1, "KOVA_LOG_LINE": 2, "logInternal": 4}
LITERAL = re.compile(r'"((?:[^"\\]|\\.)*)"(?:\s*"((?:[^"\\]|\\.)*)")*')
# BusMonitor runs in kovactl, not in the daemon.
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
            values = arguments(source, call.end()).split(",", ORIGIN.get(call.group(1), 0))[-1]
            literal = LITERAL.search(values)
            text = unquoted(literal) if literal else ""
            if re.sub(r"%[sd]", "", text).strip():
                yield text


def crash_texts():
    """The lines of the crash handler before the backtrace; it formats them without printf(3)."""
    source = (TOP / "platform/utils/crash/src/Crash.cpp").read_text()
    for name in ("headline", "build"):
        built = source[source.index(f"> {name};") : source.index(f"sink.line({name}")]
        parts = re.findall(r'\.append(Number|Hex)?\((?:"([^"\\]*)")?', built)
        yield "".join(literal or ("%d" if kind == "Number" else "%s") for kind, literal in parts)


def documented():
    page = (TOP / "docs/operations.md").read_text()
    for row in re.findall(r"^\| (`.*?) \| ", page[page.index("\n## The log") :], re.MULTILINE):
        yield from (name or plain for name, plain in re.findall(r"`` (.*?) ``|`([^`]+)`", row))


def literals():
    return {unquoted(match) for path in SOURCES for match in LITERAL.finditer(path.read_text())}


def main():
    texts, rows = {*crash_texts(), *logged()}, set(documented())
    faults = [f"docs/operations.md lacks: {text}" for text in sorted(texts - rows)]
    faults += [f"nothing logs what docs/operations.md has: {text}" for text in sorted(rows - texts - literals())]
    print(*faults, f"{len(texts)} texts in the code, {len(rows)} in the table", sep="\n")
    return 1 if faults or len(texts) < 100 else 0


sys.exit(main())

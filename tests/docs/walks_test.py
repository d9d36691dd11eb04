#!/usr/bin/python3
"""Compares docs/architecture.md with the sources: every function that it names exists, every walk is present, and its
table of platform/utils lists each public header with the folder that implements it."""

import re
import sys
from pathlib import Path

TOP = Path(__file__).resolve().parents[2]
PAGE = (TOP / "docs/architecture.md").read_text()
WALKS = ("request", "transfer", "factory reset")
UTILS = TOP / "platform/utils"
HEADER_ROW = re.compile(r"^\| (?:`(\w+)`|none: headers only) \| ((?:`\w+\.h`(?:, )?)+) \|", re.MULTILINE)
NAMED = re.compile(r"`((?:\w+::)?[a-zA-Z]\w*)`")


def sources():
    for folder in ("kova_ctlserver/src", "kova_ctlserver/include", "platform"):
        for path in sorted((TOP / folder).rglob("*")):
            if path.suffix in (".cpp", ".h") and "tests" not in path.relative_to(TOP).parts:
                yield re.sub(r"//[^\n]*", "", path.read_text())


def walk(name):
    start = PAGE.find(f"\n## The walk of a {name}\n")
    return PAGE[start : PAGE.find("\n## ", start + 1)] if start >= 0 else ""


def is_defined(name, code):
    """Whether a function is defined: a member by qualified name or inside its class, a free function by its name."""
    owner, _, function = name.rpartition("::")
    if not owner:
        return re.search(rf"\b{function}\b", code) is not None
    if re.search(rf"\b{owner}::{function}\b", code):
        return True
    body = re.search(rf"\b(?:class|struct) {owner}\b[^;{{]*{{.*?^}};", code, re.DOTALL | re.MULTILINE)
    return body is not None and re.search(rf"\b{function}\b", body.group(0)) is not None


def told_headers():
    """The folder of each header in the table; "" of one without sources."""
    return {header: folder for folder, headers in HEADER_ROW.findall(PAGE) for header in re.findall(r"\w+\.h", headers)}


def public_headers():
    """The same from the tree: the folder with a source of the header's name."""
    homes = {source.stem: source.parents[1].name for source in UTILS.glob("*/src/*.cpp")}
    return {header.name: homes.get(header.stem, "") for header in UTILS.glob("include/kova/utils/*.h")}


def header_faults():
    told, real = told_headers(), public_headers()
    for name in sorted(told.keys() | real.keys()):
        if told.get(name) != real.get(name):
            yield f"docs/architecture.md has {name} in {told.get(name)!r}, the tree has it in {real.get(name)!r}"


def main():
    code = "\n".join(sources())
    faults, count = [], 0
    for name in WALKS:
        functions = set(NAMED.findall(walk(name)))
        count += len(functions)
        faults += [f"docs/architecture.md has no walk of a {name}"] if not functions else []
        absent = sorted(function for function in functions if not is_defined(function, code))
        faults += [f"docs/architecture.md, walk of a {name}: the sources have no {function}" for function in absent]
    faults += header_faults()
    print(*faults, f"{len(public_headers())} headers, {count} functions in {len(WALKS)} walks, {len(faults)} faults", sep="\n")
    return 1 if faults else 0


sys.exit(main())

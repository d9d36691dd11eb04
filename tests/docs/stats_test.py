#!/usr/bin/python3
"""Compares the table of statistics sections in docs/bus.md with the code that fills them."""

import re
import sys
from pathlib import Path

TOP = Path(__file__).resolve().parents[2]
CODE = TOP / "kova_ctlserver/src/CtlServerStats.cpp"
RECORDS = TOP / "platform/utils/include/kova/utils/Stats.h"
PAGE = TOP / "docs/bus.md"

MEMBERS = re.compile(r"^  (std::array<[^;]*>|std::string|std::u?int\d+_t|float|double|bool) (\w+(?:, \w+)*);",
                     re.MULTILINE)  # fmt: skip
LOCAL = re.compile(r"const (std::u?int\d+_t|double|bool) (\w+) = ")
ARRAY = re.compile(r"std::array<([\w:]+),.*>")
# Alternatives: start of a section, start of a list in it, a value of the section, a value of the list.
STATEMENT = re.compile(
    r'auto& section = reply\["(?P<section>\w+)"\];|auto& usage = section\["(?P<list>\w+)"\];'
    r'|(?:section|reply\["(?P<own>\w+)"\])\["(?P<key>\w+)"\] = (?P<value>[^;]+);|usage\.pushToArray\((?P<item>[^;]+)\);'
)
HEADER = "| Section | Key | Type | Unit | Meaning |"


def member_types():
    types = {}
    for kind, names in MEMBERS.findall(RECORDS.read_text()):
        for name in names.split(", "):
            types.setdefault(name, set()).add(kind)
    for kind, name in LOCAL.findall(CODE.read_text()):
        types.setdefault(name, set()).add(kind)
    return types


def type_of(value, types):
    """The type as docs/bus.md names it; raises KeyError if unknown."""
    if value.startswith("static_cast<double>"):
        return "double"
    name = re.sub(r"^\(?(?:[\w.]+\.)?(\w+).*", r"\1", value)
    kinds = types[name]
    if len(kinds) != 1:
        raise KeyError(f"{name}, of several types")
    kind = ARRAY.sub(r"\1", *kinds)
    return kind.removeprefix("std::").removesuffix("_t")


def filled():
    """The values that the code fills, in its order, as (section, key, type)."""
    types, section, listed = member_types(), "", ""
    for match in STATEMENT.finditer(CODE.read_text()):
        section = match["section"] or match["own"] or section
        listed = match["list"] or listed
        if match["key"]:
            yield section, match["key"], type_of(match["value"], types)
        elif match["item"]:
            yield section, listed, "array of " + type_of(match["item"], types)


def told():
    lines = PAGE.read_text().split("\n")
    if HEADER not in lines:
        return
    for line in lines[lines.index(HEADER) + 2 :]:
        if not line.startswith("|"):
            return
        yield tuple(cell.strip().strip("`") for cell in line.strip("|").split("|"))


def main():
    there, rows = list(filled()), list(told())
    faults = [f"docs/bus.md lacks the row | `{section}` | `{key}` | {kind} | ..." for section, key, kind in there
              if (section, key, kind) not in [row[:3] for row in rows]]  # fmt: skip
    faults += [f"docs/bus.md: {row}: nothing fills it so" for row in rows if row[:3] not in there]
    faults += [f"docs/bus.md: {row}: says no meaning" for row in rows if len(row) != 5 or not row[4]]
    literals = re.findall(r'\["(\w+)"\]', CODE.read_text())
    read = {name for row in there for name in row[:2]}
    faults += [f"CtlServerStats.cpp: it is unclear what {name} is" for name in literals if name not in read]
    print(*faults, f"{len(there)} figures, {len(rows)} rows, {len(faults)} faults", sep="\n")
    return 1 if faults or len(there) < 15 else 0


if __name__ == "__main__":
    sys.exit(main())

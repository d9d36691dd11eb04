#!/usr/bin/env python3
"""Checks metrics on standard input against the rules of both text formats.

OpenMetrics 1.0: https://github.com/prometheus/OpenMetrics, "text format". The older text format of Prometheus, which
node_exporter's textfile collector reads, and the rules of "promtool check metrics" for names.
"""
import math
import re
import sys

NAME = r"[a-zA-Z_][a-zA-Z0-9_]*"
SAMPLE = re.compile(rf"({NAME})(\{{(.*)\}})? (\S+)")
LABEL = re.compile(rf'({NAME})="((?:[^"\\\n]|\\["\\n])*)"(,|$)')
# Units other than base units, and abbreviations.
BAD_WORDS = {"milliseconds", "minutes", "hours", "days", "kilobytes", "kibibytes", "bits", "percent", "ms", "s", "kb", "b"}


def fail(line, text):
    sys.exit(f"metrics: {text}: {line!r}")


def labels_of(line, text):
    labels = {}
    while text:
        match = LABEL.match(text)
        if not match:
            fail(line, "labels are malformed")
        name, value, comma = match.groups()
        if name in labels or name.startswith("__"):
            fail(line, "a label is reserved or duplicate")
        labels[name] = value
        text = text[match.end():]
        if comma and not text:
            fail(line, "labels end with a comma")
    return tuple(sorted(labels.items()))


def check(text):
    if not text.endswith("# EOF\n") or text.count("# EOF") != 1:
        fail(text[-20:], "the last line is not # EOF")
    if any(ord(c) < 0x20 and c != "\n" for c in text):
        fail(text, "contains a control character")
    helps, types, seen, families = {}, {}, set(), []
    for line in text.splitlines()[:-1]:
        match = re.fullmatch(rf"# (HELP|TYPE) ({NAME}) (.+)", line)
        if match:
            keyword, name, rest = match.groups()
            known = helps if keyword == "HELP" else types
            if name in known or name in families:
                fail(line, "a family is declared twice or after its samples")
            if keyword == "TYPE" and rest != "gauge":
                fail(line, "only gauges have the same declaration in both formats")
            known[name] = rest
            continue
        match = SAMPLE.fullmatch(line)
        if not match:
            fail(line, "not a sample")
        name, _, labels, value = match.groups()
        if not families or families[-1] != name:
            if name in families:
                fail(line, "the samples of a family are not contiguous")
            families.append(name)
        series = (name, labels_of(line, labels or ""))
        if series in seen:
            fail(line, "a series is duplicate")
        seen.add(series)
        if not math.isfinite(float(value)):
            fail(line, "the value is not a number")
        if name not in helps:
            fail(line, "the family has no help")
        if (name in types) == name.endswith("_total"):
            fail(line, "a counter has a type, or a gauge has none")
        if BAD_WORDS & set(name.split("_")) or not name.islower() or not name.startswith("kova_"):
            fail(line, "the name breaks the conventions")
    if set(helps) != set(families) or not set(types) <= set(families):
        fail("", "a family is declared without samples")
    print(len(seen))


if __name__ == "__main__":
    check(sys.stdin.read())

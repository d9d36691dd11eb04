"""Reads docs/board.md, whose tables are the contract between a board and the daemon."""

import re
from dataclasses import dataclass
from pathlib import Path

TOP = Path(__file__).resolve().parents[2]
PAGE = TOP / "docs/board.md"

HEADER = ["Name", "Need", "Form", "Code", "Use", "To do"]
# Heading -> kind of the rows below it.
KINDS = {
    "Tools": "path",
    "Services": "service",
    "Files of the firmware": "path",
    "Device description": "description",
    "Settings and account": "path",
    "Certificates and installed files": "path",
    "Service folders": "path",
    "Files that come and go": "path",
    "Kernel and log": "path",
    "Two system slots": "path",
    "Boot variables": "variable",
    "Environment": "environment",
    "Signals": "signal",
}
# The same for tables introduced by a sentence.
KINDS_BY_SENTENCE = {
    "Keys of `/etc/system.cfg`:": "setting",
    "Lines of `/etc/passwd` and `/etc/group`:": "account",
}
# Placeholders in names.
PLACEHOLDER = re.compile(r"(?<![A-Za-z])(?:NAME|N|PID|RANDOM)(?![A-Za-z])")

NEED = re.compile(r"(?:must|may|daemon|running|(?:running )?with \S+(?: or \S+)*|sysid(?: \d+)+)")
FORMS = {
    "path": ("program", "file", "folder", "link", "socket", "device", "root", "root or upload_owner", "not empty",
             "one line", "JSON object", "key=value lines", "account lines", "PEM certificate",
             "PEM certificate and key"),
    "service": ("service",),
    "description": ("text", "integer", "number", "boolean", "absolute path", "user"),
    "setting": ("any text", "text", "integer", "account name", "password hash", "zone name"),
    "account": ("account", "group"),
}  # fmt: skip
MODE_OR_MOUNT = re.compile(r"[01]?[0-7]{4}|rename from /\S+")


class Faulty(Exception):
    """The page does not have the expected format."""


@dataclass
class Row:
    line: int
    kind: str
    names: list
    need: str
    form: list
    code: list
    use: str
    todo: str

    @property
    def name(self):
        return " or ".join(self.names)

    @property
    def stands_for_many(self):
        return self.kind == "path" and any(PLACEHOLDER.search(name) for name in self.names)

    @property
    def is_checked(self):
        return bool(self.form) and not self.stands_for_many


def quoted(cell):
    return re.findall(r"`([^`]+)`", cell)


def faults_of(row):
    known = FORMS.get(row.kind, ())
    for word in row.form:
        if word not in known and not (row.kind == "path" and MODE_OR_MOUNT.fullmatch(word)):
            yield f'the form "{word}" is unknown'
    if not NEED.fullmatch(row.need):
        yield f'the need "{row.need}" is unknown'
    if not row.names or not row.code:
        yield "names and code stand in backticks"
    if row.is_checked and not row.todo:
        yield "what is checked tells what to do"


def read_row(number, kind, line):
    cells = [cell.strip() for cell in line.strip().strip("|").split("|")]
    if len(cells) != len(HEADER):
        raise Faulty(f"line {number}: a row has {len(HEADER)} cells")
    form = [word for word in cells[2].split(", ") if word]
    row = Row(number, kind, quoted(cells[0]), cells[1], form, quoted(cells[3]), cells[4], cells[5])
    for fault in faults_of(row):
        raise Faulty(f"line {number}: {fault}")
    return row


def read(text):
    """The rows of the page `text`; raises Faulty."""
    rows, kind, within = [], None, False
    for number, line in enumerate(text.split("\n"), 1):
        if line.startswith("#"):
            kind = KINDS.get(line.lstrip("# "))
        elif line in KINDS_BY_SENTENCE:
            kind = KINDS_BY_SENTENCE[line]
        elif not line.startswith("|"):
            within = False
        elif [cell.strip() for cell in line.strip("|").split("|")] == HEADER:
            within = True
            if kind is None:
                raise Faulty(f"line {number}: it is unknown what this table names")
        elif within and not line.startswith("|--"):
            rows.append(read_row(number, kind, line))
    if not rows:
        raise Faulty("there are no rows")
    return rows


def rows_of_page():
    return read(PAGE.read_text())

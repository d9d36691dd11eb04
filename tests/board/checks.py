"""Checks the rows of docs/board.md on a root file system, and reports what is missing or wrong."""

import re
import stat
from dataclasses import dataclass
from typing import NamedTuple

import forms
from roots import Unreadable

DESCRIPTION = "/usr/share/kova/camera_info.json"
STORE = "/etc/system.cfg"
ACCOUNTS, SHADOW, GROUPS = "/etc/passwd", "/etc/shadow", "/etc/group"
ZONES = "/usr/share/zoneinfo"
DAEMON = ("/usr/sbin/kova_ctlserver", "/usr/bin/kova_ctlserver")
UNITS = ("/etc/systemd/system", "/usr/lib/systemd/system", "/lib/systemd/system")
MOST_FIRST_LINE = 256
# The forms that concern the content of a file.
CONTENT = {"not empty", "one line", "JSON object", "key=value lines", "account lines", "PEM certificate",
           "PEM certificate and key"}  # fmt: skip


class Fault(NamedTuple):
    """What is wrong, and what to do about it if the row's advice does not apply."""

    text: str
    todo: str = ""


@dataclass
class Finding:
    verdict: str  # missing, wrong, or unread
    name: str
    text: str

    def __str__(self):
        return f"{self.verdict:8}{self.name}: {self.text}"


class Board:
    """A root, with parsed files that several rows need."""

    def __init__(self, root):
        self.root = root
        self.description = self._parsed(DESCRIPTION, forms.parse_description)
        self.settings = self._parsed(STORE, forms.parse_settings)
        self.processor = next((found for found in map(self.processor_of, DAEMON) if found), None)

    def text(self, path):
        """The content of a file; None if there is none."""
        content = self.root.read(path)
        return None if content is None else content.decode(errors="surrogateescape")

    def _parsed(self, path, parse):
        try:
            text = self.text(path)
        except Unreadable:
            return None
        return None if text is None else parse(text)

    def setting(self, key):
        """The effective value of a key, the last one; None if there is none."""
        return (self.settings or {}).get(key, [None])[-1]

    def upload_owner(self):
        """A set with the user id of "upload_owner"; empty without one."""
        owner = str((self.description or {}).get("upload_owner"))
        accounts = forms.accounts(self.text(ACCOUNTS) or "")
        named = next((line[2] for line in accounts if line[0] == owner and len(line) == 7), owner)
        return {int(named)} if re.fullmatch(r"\d{1,10}", named, re.ASCII) else set()

    def processor_of(self, path):
        """Class, byte order and machine of an ELF file; None for anything else."""
        try:
            head = self.root.read(path, 20) or b""
        except Unreadable:
            return None
        return (head[4:6], head[18:20]) if head.startswith(b"\x7fELF") and len(head) == 20 else None

    def hash_of(self, user):
        """The hash in the account's line, or in that of /etc/shadow; None without such a line."""
        for path in (ACCOUNTS, SHADOW):
            fields = next((line for line in forms.accounts(self.text(path) or "") if line[0] == user), [])
            if len(fields) < 2:
                return None
            if path == SHADOW or fields[1] != "x":
                return fields[1]
        return None

    def has_user(self, name):
        return any(line[0] == name for line in forms.accounts(self.text(ACCOUNTS) or ""))

    def has_zone(self, zone):
        name = re.fullmatch(r"(?!/)[A-Za-z0-9_+/-]{1,100}(?<!/)", zone, re.ASCII)
        path = f"{ZONES}/{zone}"
        if not name or self.root.node(path) is None:
            return zone in ("GMT", "UTC")
        return (self.root.read(path, 4) or b"") == b"TZif" and self.root.last_line(path) != b""


def owner_and_mode(board, row, node):
    if "root or upload_owner" in row.form and node.owner not in board.root.roots | board.upload_owner():
        yield Fault(f"belongs to user {node.owner}, who is not upload_owner of the device description")
    allowed = next((int(word, 8) for word in row.form if re.fullmatch(r"[01]?[0-7]{4}", word)), None)
    if "root" in row.form and node.owner not in board.root.roots:
        yield Fault(f"belongs to user {node.owner}", "chown root")
    if allowed is None:
        return
    command = f"chmod {allowed:04o}"
    if node.mode & 0o777 & ~allowed:
        yield Fault(f"mode {node.mode:04o} permits others too much", command)
    elif allowed & stat.S_ISVTX and node.mode & 0o002 and not node.mode & stat.S_ISVTX:
        yield Fault(f"mode {node.mode:04o} lets everyone remove the files of others", command)


def program_faults(board, path, node):
    if node.kind != "file":
        yield Fault(f"is a {node.kind}, not a program")
    elif node.size == 0:
        yield Fault("is empty")
    elif not node.mode & 0o111:
        yield Fault("is not executable", "chmod 0755")
    else:
        yield from executable_faults(board, path)


def executable_faults(board, path):
    head = board.root.read(path, MOST_FIRST_LINE) or b""
    if head.startswith(b"#!"):
        words = head[2:].split(b"\n")[0].split()
        interpreter = words[0].decode(errors="replace") if words else ""
        node = board.root.node(interpreter) if interpreter.startswith("/") else None
        if node is None or node.kind != "file" or not node.mode & 0o111:
            yield Fault(f"its interpreter {forms.shown(interpreter)} is not there", "install that")
    elif not head.startswith(b"\x7fELF"):
        yield Fault("is neither a program nor a script that begins with #!")
    elif board.processor and board.processor_of(path) != board.processor:
        yield Fault("is for another processor than the daemon", "build it for this board")


def content_faults(board, path, form):
    """Short descriptions of the faults of a file's content."""
    if form == "one line":
        lines = (board.text(path) or "").rstrip("\n").split("\n")
        return ["holds other than one line"] if len(lines) != 1 or not lines[0].strip() else []
    if form == "JSON object":
        return ["is no JSON object"] if forms.parse_description(board.text(path) or "") is None else []
    if form == "key=value lines":
        return forms.settings_faults(board.text(path) or "")
    if form == "account lines":
        return forms.accounts_faults(board.text(path) or "")
    if form == "PEM certificate":
        return forms.certificate_faults(board.root.pem(path)[0])
    if form == "PEM certificate and key":
        return forms.certificate_and_key_faults(*board.root.pem(path))
    if form.startswith("rename from ") and board.root.is_running:
        other = form.removeprefix("rename from ")
        same = board.root.mount_of(path) == board.root.mount_of(other)
        return [] if same else [f"is not on the mount of {other}"]
    return []


def path_faults(board, row, path, node):
    """The faults of an existing file."""
    kind = next((word for word in row.form if word in ("file", "folder", "link", "socket", "device")), None)
    if "program" in row.form:
        yield from program_faults(board, path, node)
    elif kind and node.kind != kind:
        yield Fault(f"is a {node.kind}, not a {kind}")
        return
    yield from owner_and_mode(board, row, node)
    if CONTENT.intersection(row.form) and node.size == 0:
        yield Fault("is empty")
        return
    for form in row.form:
        yield from map(Fault, content_faults(board, path, form))


# Each check returns a list of faults, or None if the thing is missing.


def check_path(board, row):
    follow = "link" not in row.form
    there = [(name, node) for name in row.names if (node := board.root.node(name, follow))]
    if not there:
        # A dangling link is a fault even if the file is optional.
        dangling = follow and any(board.root.node(name, follow=False) for name in row.names)
        return [Fault("is a link that leads nowhere")] if dangling else None
    return [fault for name, node in there for fault in path_faults(board, row, name, node)]


def check_service(board, row):
    name = row.names[0]
    path = f"/etc/sv/{name}/run"
    node = board.root.node(path)
    if node:
        return [Fault(f"{path} {fault.text}", fault.todo) for fault in program_faults(board, path, node)]
    units = (f"{folder}/{unit}.service" for folder in UNITS for unit in (name, name.replace("_", "-")))
    return [] if any(board.root.node(unit) for unit in units) else None


def check_description(board, row):
    if board.description is None:
        return []  # reported for the file
    if row.names[0] not in board.description:
        return None
    value = board.description[row.names[0]]
    words, fits = forms.DESCRIPTION_FORMS[row.form[0]]
    if not fits(value):
        return [Fault(f"{forms.shown(value)} is not {words}")]
    if row.form[0] == "user" and isinstance(value, str) and not value.isdigit() and not board.has_user(value):
        return [Fault(f"there is no user {forms.shown(value)} in {ACCOUNTS}")]
    return []


def check_setting(board, row):
    if board.settings is None:
        return []  # reported for the file
    values = board.settings.get(row.names[0])
    if not values:
        return None
    several = [Fault(f"{len(values)} lines have this key")] if len(values) > 1 else []
    return several + list(setting_faults(board, row.form[0], values[-1]))


def setting_faults(board, form, value):
    # Never show a hash.
    seen = "it" if form == "password hash" else forms.shown(value)
    if form == "zone name":
        if not board.has_zone(value):
            yield Fault(f"there is no time zone {seen}")
        return
    words, fits = forms.SETTING_FORMS[form]
    if not fits(value):
        yield Fault(f"{seen} is not {words}")


def check_group(board, name):
    lines = (board.text(GROUPS) or "").split("\n")
    return [] if any(line.startswith(f"{name}:") for line in lines) else None


def check_account(board, row):
    if row.form[0] == "group":
        return check_group(board, row.names[0])
    user = board.setting("users.1.name")
    if user is None or not board.text(ACCOUNTS):
        return []  # reported for the key and the file
    found = board.hash_of(user)
    if found is None:
        return [Fault(f"{ACCOUNTS} has no account of the name in {STORE}, or no hash for it")]
    if found == "":
        return [Fault("the account has no password, so everyone may log in")]
    stored = board.setting("users.1.password")
    is_renamed = may_be_renamed(board, user, stored or "", found)
    if stored in (None, found) or (is_renamed and board.root.is_running):
        return []
    todo = f"right if the account was renamed on a camera; in an image {row.todo}" if is_renamed else ""
    return [Fault(f"the hash of the account is not that in {STORE}", todo)]


def may_be_renamed(board, user, stored, found):
    """Whether the daemon may have written both hashes: a new name with the same password has a fresh salt."""
    written = f"{user}:{found}:0:0:Administrator:/etc/persistent:/bin/sh"
    hashes = [re.fullmatch(r"(!?)\$6\$([^$]+)\$[^$]+", text) for text in (stored, found)]
    return (
        (board.text(ACCOUNTS) or "").strip() == written
        and all(hashes)
        and hashes[0][1] == hashes[1][1]
        and hashes[0][2] != hashes[1][2]
    )


CHECKS = {
    "path": check_path,
    "service": check_service,
    "description": check_description,
    "setting": check_setting,
    "account": check_account,
}


def has(board, name):
    if name.startswith("/"):
        return board.root.node(name) is not None
    return bool((board.description or {}).get(name))


def is_needed(board, row):
    """Whether this board must have the row's thing."""
    words = row.need.split()
    if words[0] == "running":
        if not board.root.is_running:
            return False
        words = words[1:] or ["must"]
    if words[0] == "with":
        return any(has(board, word) for word in words[1::2])
    if words[0] == "sysid":
        return str((board.description or {}).get("sysid")) in words[1:]
    return words[0] == "must"


def is_looked_at(board, row):
    return row.is_checked and (board.root.is_running or not row.need.startswith("running"))


def check_row(board, row):
    try:
        faults = CHECKS[row.kind](board, row)
        if faults is None:
            return [Finding("missing", row.name, row.todo)] if is_needed(board, row) else []
    except Unreadable as error:
        return [Finding("unread", row.name, f"you may not read {error}: try again as root")]
    return [Finding("wrong", row.name, f"{fault.text}: {fault.todo or row.todo}") for fault in faults]


def check(root, rows):
    """The findings and the number of rows checked."""
    board = Board(root)
    wanted = [row for row in rows if is_looked_at(board, row)]
    return [finding for row in wanted for finding in check_row(board, row)], len(wanted)

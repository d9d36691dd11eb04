#!/usr/bin/python3
"""Compares docs/board.md with the sources: every name of the device in the sources is on the page, and vice versa."""

import re
import sys
from pathlib import Path

sys.dont_write_bytecode = True
TOP = Path(__file__).resolve().parents[2]
sys.path.insert(0, str(TOP / "tests/board"))

import checks  # noqa: E402
import contract  # noqa: E402

COMMENT_OR_LITERAL = re.compile(
    r"""//[^\n]*|/\*.*?\*/|(?m:^\s*\#\s*include[^\n]*)|"(?P<text>(?:\\.|[^"\\\n])*)"|(?<!\w)'(?:\\.|[^'\\\n])+'""",
    re.DOTALL,
)
PATH = re.compile(r"(?<![\w.*%<>/])/[A-Za-z.][\w.+-]*(?:/[\w.+-]+)*")
TOP_FOLDERS = ("bin", "boot", "dev", "etc", "home", "lib", "mnt", "opt", "proc", "root", "run", "sbin", "srv", "sys",
               "tmp", "usr", "var")  # fmt: skip
# Paths of objects on the bus: docs/bus.md.
OBJECTS = ("/kova", "/org/freedesktop/DBus", "/org/freedesktop/systemd1")
# Names on the system bus.
BUS_NAMES = ("org.freedesktop.systemd1",)
WORD = re.compile(r"[a-z]+(?:_[a-z0-9]+)+")
LOG_IDENTITY = re.compile(r'\bkLogIdentity(?:\[\])? = "\w+"')
# Functions of libcurl, and keys of another daemon's configuration.
WORDS_LEFT_OUT = re.compile(r"curl_\w+")
FILES_LEFT_OUT = ("WirelessKeys.cpp",)
SETTING = re.compile(r"[a-z]+(?:\.[a-z0-9]+)+")
DESCRIPTION_KEY = re.compile(r'\b(?:Required|optionalValue|Find)\((?:\w+, )?"(\w+)"')
NEEDED = re.compile(r"\bkNeeded(?:Units)?\{([^}]*)\}")
# Services, tools and configuration installed with the daemon.
INSTALLED = ("packaging/runit/*/run", "packaging/runit/service*", "packaging/systemd/*.service",
             "packaging/dbus/*.conf", "packaging/kova_*", "camera/adapters/rauc/fwupdate*",
             "camera/adapters/rauc/mark_good", "camera/adapters/rauc/bus.conf",
             "camera/adapters/rauc/*.service")  # fmt: skip
# Scripts whose commands are checked.
SCRIPTS = ("packaging/runit/*/run", "packaging/runit/service*", "packaging/kova_*")
NOT_A_COMMAND = re.compile(r"(?:^|\s)#[^\n]*|'[^']*'|\$\(\(.*?\)\)", re.MULTILINE)
BEFORE_CALL = r"(?:^|[|;&({`!]|\b(?:then|do|else|if|elif|until|while|exec)\b)"
CALL = re.compile(BEFORE_CALL + r"\s*(?:exec )?([a-z][\w-]*)(?=[\s;)]|$)", re.MULTILINE)
FUNCTION = re.compile(r"^(\w+)\(\) \{", re.MULTILINE)
SHELL_WORDS = set("begin case continue do done echo elif else esac exec exit export fi for if printf read readonly "
                  "return then umask until wait_for_socket while".split())  # fmt: skip
EVERYWHERE = re.compile(r"call what every root file system has: (.*?)\.\n", re.DOTALL)
INSTALLED_COMMENT = re.compile(r"^\s*#[^\n]*$|<!.*?>\n", re.MULTILINE | re.DOTALL)
ENVIRONMENT = re.compile(r"KOVA_[A-Z_]+")
ENVIRONMENT_CALL = re.compile(r'\b(?:getenv|setenv|unsetenv)\("(\w+)"')
SIGNAL = re.compile(r"\bSIG[A-Z0-9]+\b")


def without_comments(source):
    return COMMENT_OR_LITERAL.sub(lambda match: match[0] if match["text"] is not None else " ", source)


def literals_of(source):
    return [match["text"] for match in COMMENT_OR_LITERAL.finditer(source) if match["text"] is not None]


class Source:
    def __init__(self, path):
        text = LOG_IDENTITY.sub("", path.read_text())
        self.code = without_comments(text)
        self.literals = literals_of(text)
        self.paths = {found for text in self.literals for found in PATH.findall(text) if found not in OBJECTS}
        self.signals = set(SIGNAL.findall(COMMENT_OR_LITERAL.sub(" ", text)))


def sources():
    """The sources of the daemon, the image probe and the platform, by path from the top."""
    found = {}
    for folder in ("kova_ctlserver", "platform"):
        for path in sorted((TOP / folder).rglob("*")):
            if path.suffix in (".cpp", ".h") and "tests" not in path.relative_to(TOP).parts:
                found[str(path.relative_to(TOP))] = Source(path)
    return found


# --- from the sources to the page -----------------------------------------------------------------------------


def named_by(source, file):
    """The names of the device in a source, as (kind of row, name)."""
    for text in source.literals:
        if WORD.fullmatch(text) and not WORDS_LEFT_OUT.fullmatch(text) and Path(file).name not in FILES_LEFT_OUT:
            yield "word", text
        if SETTING.fullmatch(text) and text not in BUS_NAMES:
            yield "setting", text
        if ENVIRONMENT.fullmatch(text):
            yield "environment", text
        if ":0:0:" in text:
            yield "account", re.sub(r"%s:%s", "NAME:HASH", text).removesuffix("\\n")
    for path in source.paths:
        yield "path", path
    for signal in source.signals:
        yield "signal", signal
    for services in NEEDED.findall(source.code):
        yield from (("service", name) for name in re.findall(r'"([\w-]+)"', services))
    yield from (("environment", name) for name in ENVIRONMENT_CALL.findall(source.code))
    if re.search(r"cameraInfo|CameraInfo", source.code):
        yield from (("description", key) for key in DESCRIPTION_KEY.findall(source.code))


def holds_path(name, path):
    """Whether a row's name is the path of a literal, up to a placeholder; without a folder of the top the literal is a
    later part, such as "/down"."""
    is_whole = path.split("/")[1] in TOP_FOLDERS
    ends = rf"(?:$|(?={contract.PLACEHOLDER.pattern}))"
    return re.search(("^" if is_whole else "") + re.escape(path) + ends, name) is not None


def is_on_page(kind, name, rows):
    if kind == "path":
        return any(holds_path(own, name) for row in rows if row.kind == "path" for own in row.names)
    if kind == "word":
        return any(name in re.split(r"[/.]", own) for row in rows for own in row.names)
    return any(name in row.names for row in rows if row.kind == kind)


def is_there(path):
    """Whether there is a file or link; links of installed files lead to a file of the board, so they dangle here."""
    return path.is_symlink() or path.is_file()


def text_of(path):
    return str(path.readlink()) if path.is_symlink() else path.read_text()


def named_by_installed():
    """Paths in scripts and units, as (kind of row, path, file)."""
    for pattern in INSTALLED:
        for path in sorted(TOP.glob(pattern)):
            for name in PATH.findall(INSTALLED_COMMENT.sub(" ", path.read_text())):
                yield "path", re.sub(r"0{16}$", "", name), str(path.relative_to(TOP))
    # glob() skips dangling links.
    for path in sorted((TOP / "packaging/runit").rglob("*")):
        if path.is_symlink():
            yield "path", text_of(path), str(path.relative_to(TOP))


def called_by_installed():
    """Tools that the scripts call by name, as (name, file)."""
    for pattern in SCRIPTS:
        for path in sorted(TOP.glob(pattern)):
            text = NOT_A_COMMAND.sub(" ", path.read_text())
            for name in set(CALL.findall(text)) - SHELL_WORDS - set(FUNCTION.findall(text)):
                yield name, str(path.relative_to(TOP))


def faults_of_calls(rows):
    everywhere = EVERYWHERE.search(contract.PAGE.read_text())
    listed = set(contract.quoted(everywhere[1])) if everywhere else set()
    own = {Path(name).name for row in rows for name in row.names if "program" in row.form}
    called = sorted(called_by_installed())
    yield from (f"{file}: docs/board.md lacks the tool {name}" for name, file in called if name not in own | listed)
    unused = sorted(listed - {name for name, _ in called})
    yield from (f"no script calls {name}, which docs/board.md says" for name in unused)


# --- from the page to the sources -----------------------------------------------------------------------------


def is_made_of(text, parts):
    """Whether `text` is a sequence of `parts` with a "/" wherever one is needed."""
    if not text:
        return True
    return any(part and text.startswith(part) and is_made_of(text[len(part) :], parts) for part in {*parts, "/"})


def pieces_of(name):
    """The parts between the placeholders: "/etc/sv/" and "/down" of "/etc/sv/NAME/down"."""
    return [piece for piece in contract.PLACEHOLDER.split(name) if piece]


def parts_of(source):
    """The parts that paths are made of: literals, up to the first conversion of printf(3)."""
    return {text.split("%")[0] for text in source.literals} | source.paths


def path_is_in(name, own, scripts):
    parts = set().union(*map(parts_of, own)) if own else set()

    def is_in(piece):
        return any(piece in text for text in scripts) or is_made_of(piece, parts)

    # A script may start a program by its bare name.
    is_started = any(re.search(rf"(?<![\w/.]){re.escape(Path(name).name)}(?![\w.])", text) for text in scripts)
    return is_started or all(map(is_in, pieces_of(name)))


def has_part(names, source):
    """Whether the source contains a part of one of a row's paths."""
    parts = {part for part in parts_of(source) if len(part) > 2}
    return any(part in name or name in part for name in names for part in parts)


def faults_of(row, found):
    own = [found[file] for file in row.code if file in found]
    scripts = {file: text_of(TOP / file) for file in row.code if file not in found}
    if row.kind == "path":
        for name in row.names:
            if not path_is_in(name, own, scripts.values()):
                yield f"the code that it names has no {name}"
        for file in row.code:
            if file in found:
                there = has_part(row.names, found[file])
            else:
                there = any(word in scripts[file] for name in row.names for word in pieces_of(Path(name).name))
            if not there:
                yield f"{file} has nothing of it"
        return
    for file in row.code:
        if file in found:
            names = {name for _, name in named_by(found[file], file)} | set(found[file].literals)
            if not names & set(row.names):
                yield f"{file} has no {row.name}"
        elif not any(re.search(rf"\b{re.escape(name)}\b", scripts[file]) for name in row.names):
            yield f"{file} has no {row.name}"


# --- the check ------------------------------------------------------------------------------------------------


def faults_of_check(rows):
    """Faults of constants in board-check itself: each path that it reads must have a row."""
    names = {name for row in rows for name in row.names}
    constants = (checks.DESCRIPTION, checks.STORE, checks.ACCOUNTS, checks.SHADOW, checks.GROUPS, checks.ZONES)
    yield from (f"board-check reads {path}, which has no row" for path in (*constants, *checks.DAEMON)
                if path not in names)  # fmt: skip


def main():
    try:
        rows = contract.rows_of_page()
    except contract.Faulty as error:
        print(f"docs/board.md, {error}")
        return 1
    found = sources()
    named = sorted({(kind, name, file) for file, source in found.items() for kind, name in named_by(source, file)})
    named += sorted(set(named_by_installed()))
    faults = [f"{file}: docs/board.md lacks the {kind} {name}" for kind, name, file in named
              if not is_on_page(kind, name, rows)]  # fmt: skip
    for row in rows:
        absent = [file for file in row.code if not is_there(TOP / file)]
        said = [f"there is no {file}" for file in absent] or faults_of(row, found)
        faults += [f"docs/board.md:{row.line}: {row.name}: {fault}" for fault in said]
    names = [(row.kind, name) for row in rows for name in row.names]
    twice = sorted({name for name in names if names.count(name) > 1})
    faults += [f"docs/board.md names {name} twice" for _, name in twice]
    faults += faults_of_check(rows)
    faults += faults_of_calls(rows)
    if any("docs/board.md lacks the " in fault for fault in faults):
        print('A name belongs in the first column of a row, a word into any part of one: "How to read the tables".')
    print(*faults, f"{len(named)} names in the sources, {len(rows)} rows, {len(faults)} faults", sep="\n")
    return 1 if faults or len(named) < 100 else 0


if __name__ == "__main__":
    sys.exit(main())

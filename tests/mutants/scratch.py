"""A copy of the tracked files with a separate build, in which mutants are compiled and tested.

Every test program runs in a private root, even if the unchanged sources need none: this contains the damage of a
mutant. A booted camera already is a private root.
"""

import contextlib
import fcntl
import hashlib
import os
import re
import resource
import shlex
import shutil
import signal
import subprocess
import tempfile
import time
from dataclasses import dataclass, field
from pathlib import Path

FAILED_CASE = re.compile(r"^\[  FAILED  \] (\w+(?:/\w+)*\.[\w/]+)", re.MULTILINE)
ADD_TEST = re.compile(r"^add_test\((?:\[=\[)?\"?([\w.-]+)\"?(?:\]=\])? (.*)\)$", re.MULTILINE)
SYSTEM_LABEL = re.compile(r"^set_tests_properties\((?:\[=\[)?\"?([\w.-]+).*LABELS \"system[;\"]", re.MULTILINE)
PASSED = "[  PASSED  ]"
ENDED_EARLY = "0 before its last case"  # in place of a status
MAX_MEMORY = 4 << 30
MAX_STACK = 2 << 20  # of each thread: a test of the engine has a thousand
MAX_FILE = 1 << 30
MAX_BUILD_SECONDS = 900
SHARDS = 4  # parallel shards of a test program: most cases only wait


@dataclass
class Program:
    """A test as ctest knows it."""

    name: str
    target: str
    command: list
    system: bool
    inputs: set = field(default_factory=set)
    passes: bool | None = None  # on the unchanged sources; None if not tried yet
    seconds: float = 0.0
    tells: bool = False  # prints at its end that all cases passed; a run without that has ended early
    left_out: list = field(default_factory=list)


def end_group(process):
    try:
        os.killpg(process.pid, signal.SIGKILL)
    except ProcessLookupError:
        pass
    process.wait()


def as_from_terminal():
    """Resets signals that nohup(1) (SIGHUP) or a background job (SIGINT) ignores: tests send both."""
    for number in (signal.SIGHUP, signal.SIGINT, signal.SIGQUIT):
        signal.signal(number, signal.SIG_DFL)


def bound_resources():
    as_from_terminal()
    resource.setrlimit(resource.RLIMIT_DATA, (MAX_MEMORY, MAX_MEMORY))
    resource.setrlimit(resource.RLIMIT_STACK, (MAX_STACK, MAX_STACK))
    resource.setrlimit(resource.RLIMIT_FSIZE, (MAX_FILE, MAX_FILE))
    resource.setrlimit(resource.RLIMIT_CORE, (0, 0))


def first_end(processes, seconds):
    """The first status other than 0, or 0 once all have ended with 0; None on a time-out."""
    deadline = time.monotonic() + seconds
    while time.monotonic() < deadline:
        statuses = [process.poll() for process in processes]
        failed = [status for status in statuses if status]
        if failed or None not in statuses:
            return failed[0] if failed else 0
        time.sleep(0.01)
    return None


def run_together(commands, seconds, limits=None):
    """(status, output) of several commands, each with its environment. When one fails or after `seconds` (status None),
    kills all with their process groups."""
    with contextlib.ExitStack() as stack:
        outputs = [stack.enter_context(tempfile.TemporaryFile()) for _ in commands]
        processes = [
            subprocess.Popen(command, stdin=subprocess.DEVNULL, stdout=output, stderr=subprocess.STDOUT,
                             start_new_session=True, env=environment, preexec_fn=limits)
            for (command, environment), output in zip(commands, outputs)]
        try:
            status = first_end(processes, seconds)
        finally:
            for process in processes:
                end_group(process)
        for output in outputs:
            output.seek(0)
        return status, "".join(output.read(1 << 24).decode(errors="replace") for output in outputs)


def run(command, seconds, environment=None, limits=None):
    return run_together([(command, environment)], seconds, limits)


class Scratch:
    def __init__(self, source, folder):
        self.source = source
        self.tree = folder / "tree"
        self.build = self.tree / "build/release"
        self.objects = {}
        self.digests = {}
        self.originals = {}
        self.held = None  # the lock, to the end of the process

    def lock(self):
        """Allows one run at a time, because the tree holds one mutant."""
        self.tree.mkdir(parents=True, exist_ok=True)
        self.held = open(self.tree.parent / "lock", "w")
        try:
            fcntl.flock(self.held, fcntl.LOCK_EX | fcntl.LOCK_NB)
        except BlockingIOError:
            raise SystemExit(f"mutants: another run is at work in {self.tree.parent}") from None

    def copy(self):
        """Updates the tree; unchanged files keep their modification time, so that little is rebuilt."""
        listed = subprocess.run(["git", "ls-files", "-z"], cwd=self.source, check=True, capture_output=True)
        wanted = {name for name in os.fsdecode(listed.stdout).split("\0") if name and (self.source / name).exists()}
        for name in wanted:
            if not self.same(name):
                target = self.tree / name
                target.parent.mkdir(parents=True, exist_ok=True)
                target.unlink(missing_ok=True)
                shutil.copy(self.source / name, target, follow_symlinks=False)
        for root, folders, files in os.walk(self.tree):
            if Path(root) == self.tree and "build" in folders:
                folders.remove("build")
            for name in files:
                path = Path(root) / name
                if str(path.relative_to(self.tree)) not in wanted:
                    path.unlink()

    def same(self, name):
        ours, theirs = self.tree / name, self.source / name
        return (ours.is_file() and ours.is_symlink() == theirs.is_symlink()
                and ours.stat().st_mode == theirs.stat().st_mode and ours.read_bytes() == theirs.read_bytes())

    def configure(self):
        """Without debugging information, in which mutants that compile to the same code differ. Not in batches, because
        a mutant changes one file."""
        status, output = run(["cmake", "-S", str(self.tree), "--preset", "release", "-DKOVA_DEBUG_INFO=OFF",
                              "-DKOVA_BATCHES=OFF"], MAX_BUILD_SECONDS, {**os.environ, "PWD": str(self.tree)})
        if status != 0:
            raise SystemExit(f"mutants: configuring failed\n{output}")

    def ninja(self, *arguments):
        return run(["ninja", "-C", str(self.build), "-j", str(len(os.sched_getaffinity(0))), *arguments],
                   MAX_BUILD_SECONDS)

    def programs(self, system):
        """The test programs of this build, with the system tests only if `system`."""
        found, of_system = [], set()
        for path in sorted(self.build.glob("**/CTestTestfile.cmake")):
            text = path.read_text()
            of_system.update(SYSTEM_LABEL.findall(text))
            for name, command in ADD_TEST.findall(text):
                words = shlex.split(command)
                program = words[1] if words[0].endswith("/private-root") and len(words) > 1 else words[0]
                if program.startswith(f"{self.build}/"):
                    target = str(Path(program).relative_to(self.build))
                    found.append(Program(name, target, words[words.index(program):], name in of_system))
        return [program for program in found if system or not program.system]

    def prepare(self, programs, files):
        """Determines the inputs of the programs; builds and returns those that may contain one of the files."""
        for program in programs:
            program.inputs = set(self.ninja("-t", "inputs", program.target)[1].split("\n"))
        programs = [program for program in programs
                    if any(file.endswith(".h") or str(self.tree / file) in program.inputs for file in files)]
        if not programs:
            return []
        status, output = self.ninja(*sorted({program.target for program in programs}))
        if status != 0:
            raise SystemExit(f"mutants: the unchanged sources do not build\n{output[-4000:]}")
        current = ""
        for line in self.ninja("-t", "deps")[1].split("\n"):
            if line and not line.startswith((" ", "ninja")):
                current = line.split(": #deps")[0]
            elif line:
                path = os.path.normpath(self.build / line.strip())
                self.objects.setdefault(path, set()).add(current)
        return programs

    def objects_of(self, path):
        return self.objects.get(str(self.tree / path), set())

    def dependents(self, path, programs):
        """The programs that depend on this file. The system tests' own programs, which run outside the camera, contain
        the platform, so only the daemon's files are tried with them."""
        objects = self.objects_of(path)
        return [program for program in programs if objects & program.inputs
                and (not program.system or path.startswith("kova_ctlserver/"))]

    def digest(self, path):
        digest = hashlib.sha256()
        for name in sorted(self.objects_of(path)):
            digest.update((self.build / name).read_bytes() if (self.build / name).exists() else b"")
        return digest.hexdigest()

    def compile(self, path, programs):
        """Whether the file's objects that these programs need compile."""
        needed = self.objects_of(path) & set().union(*(program.inputs for program in programs))
        return self.ninja(*sorted(needed))[0] == 0

    def write(self, path, text):
        (self.tree / path).write_text(text)

    def original(self, path):
        if path not in self.originals:
            self.originals[path] = (self.tree / path).read_text()
        return self.originals[path]

    def restore(self, path):
        self.write(path, self.original(path))

    def test(self, program, seconds, only=None):
        """(status, output) of a test program, or of one of its cases; status None on a time-out."""
        environment = {**os.environ, "KOVA_BUILD": str(self.build), "GTEST_FAIL_FAST": "1"}
        if only:
            environment["GTEST_FILTER"] = only
        elif program.left_out:
            environment["GTEST_FILTER"] = "-" + ":".join(program.left_out)
        if not program.system:
            command = [str(self.tree / "tests/private-root"), *program.command]
            shards = 1 if only else SHARDS
            status, output = run_together(
                [(command, {**environment, "GTEST_TOTAL_SHARDS": str(shards), "GTEST_SHARD_INDEX": str(shard)})
                 for shard in range(shards)], seconds, bound_resources)
            return ENDED_EARLY if status == 0 and program.tells and output.count(PASSED) < shards else status, output
        environment["KOVA_CAMERA_MODE"] = "bwrap"
        with tempfile.TemporaryDirectory(prefix="kova-") as folder:
            environment["TMPDIR"] = folder
            command = ["unshare", "--pid", "--fork", "--kill-child", "--mount-proc"]
            command += [] if os.geteuid() == 0 else ["--user", "--map-root-user"]
            return run([*command, *program.command], seconds, environment)

    def timed(self, program, seconds):
        start = time.monotonic()
        status, output = self.test(program, seconds)
        return time.monotonic() - start, status, output

    def measure(self, program, seconds):
        """Measures a program on the unchanged sources and leaves out cases that fail there. False if the program is
        unusable."""
        retried = False
        while True:
            program.seconds, status, output = self.timed(program, seconds)
            if status == 0:
                program.tells = PASSED in output
                return True
            failed = set(FAILED_CASE.findall(output)) - set(program.left_out)
            if status is None or (not failed and retried):
                return False
            retried = retried or not failed
            program.left_out += sorted(failed)

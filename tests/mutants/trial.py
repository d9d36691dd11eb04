"""Tries mutants one by one in a scratch copy."""

import mutations
import scratch

# Time limit for a test program of another unit.
MAX_SECONDS_ELSEWHERE = 20
# What a test program may take besides four times its usual time before a mutant counts as an endless loop.
GRACE_SECONDS = 10
# The folders of a unit's tests, if outside the unit.
TESTS = {"kova_ctlserver/src": ("tests/unit", "tests/engine")}


def limit(program):
    """The seconds after which a mutant counts as an endless loop."""
    return GRACE_SECONDS + 4 * program.seconds


def is_of_unit(program, file):
    unit, tests = ("/".join(path.split("/")[:2]) for path in (file, program.target))
    return tests in TESTS.get(unit, (unit,))


def in_order(file, programs):
    """The programs in the order to try: those of the file's unit first, the system tests last."""
    return sorted(programs, key=lambda program: (program.system, not is_of_unit(program, file), program.seconds))


class Trial:
    """The verdicts on mutants: killed, survived, equivalent, does not compile."""

    def __init__(self, source, folder, system=False, timeout=180):
        self.copy = scratch.Scratch(source, folder)
        self.system = system
        self.timeout = timeout
        self.tests = {}

    def prepare(self, mutants):
        print("Building the unchanged sources", flush=True)
        self.copy.lock()
        self.copy.copy()
        self.copy.configure()
        files = sorted({mutant.path for mutant in mutants})
        programs = self.copy.prepare(self.copy.programs(self.system), files)
        self.tests = {file: self.copy.dependents(file, programs) for file in files}

    def is_worth(self, program, mutant, text):
        """Whether to try a mutant with this program; measures it on the unchanged sources before its first use."""
        own = program.system or is_of_unit(program, mutant.path)
        if not own and program.seconds >= MAX_SECONDS_ELSEWHERE:
            return False
        if program.passes is None:
            self.copy.restore(mutant.path)
            self.measure(program, self.timeout if own else min(self.timeout, MAX_SECONDS_ELSEWHERE), own)
            self.copy.write(mutant.path, text)
        return program.passes

    def measure(self, program, seconds, own):
        """A program too slow for mutants of other units is measured again for a mutant of its own unit."""
        program.passes = self.copy.ninja(program.target)[0] == 0 and self.copy.measure(program, seconds)
        if program.passes:
            if program.left_out:
                print(f"{program.name} without {', '.join(program.left_out)}: fails unchanged", flush=True)
        elif not own and program.seconds >= seconds:
            program.passes = None
        else:
            print(f"{program.name} does not pass on the unchanged sources: left out", flush=True)

    def verdict(self, mutant):
        programs = self.tests[mutant.path]
        if not programs:
            return "survived", "no test program has it"
        before = self.digest(mutant.path)
        text = mutations.mutated(self.copy.original(mutant.path), mutant)
        self.copy.write(mutant.path, text)
        try:
            if not self.copy.compile(mutant.path, programs):
                return "does not compile", ""
            if self.copy.digest(mutant.path) == before:
                return "equivalent", "the compiler makes the same of it"
            return self.tried(mutant, text)
        finally:
            self.copy.restore(mutant.path)

    def digest(self, path):
        """The digest of the unchanged file's objects."""
        if path not in self.copy.digests:
            if not self.copy.compile(path, self.tests[path]):
                raise SystemExit(f"mutants: {path} does not compile unchanged")
            self.copy.digests[path] = self.copy.digest(path)
        return self.copy.digests[path]

    def tried(self, mutant, text):
        tried = []
        for program in in_order(mutant.path, self.tests[mutant.path]):
            if not self.is_worth(program, mutant, text):
                continue
            tried.append(program.name)
            if self.copy.ninja(program.target)[0] != 0:
                return "does not compile", ""
            why = self.failure(program, mutant, text)
            if why is not None:
                return "killed", f"{program.name} {why}"
        return "survived", " ".join(tried)

    def failure(self, program, mutant, text):
        """How the program fails with the mutant, or None. A failure counts only if it repeats."""
        status, output = self.copy.test(program, limit(program))
        if status == 0:
            return None
        failed = scratch.FAILED_CASE.search(output)
        if status is None:
            self.measure_again(program, mutant, text)
        elif failed and self.copy.test(program, limit(program), failed.group(1))[0] not in (0, None):
            return failed.group(1)
        status, output = self.copy.test(program, limit(program))
        if status == 0:
            return None
        if status is None:
            return f"took longer than {limit(program):.0f} s"
        failed = scratch.FAILED_CASE.search(output)
        return failed.group(1) if failed else f"ended with {status}"

    def measure_again(self, program, mutant, text):
        """Raises the limit to the current time on the unchanged sources, as the machine may be busier by now."""
        self.copy.restore(mutant.path)
        self.copy.ninja(program.target)
        program.seconds = max(program.seconds, self.copy.timed(program, self.timeout)[0])
        self.copy.write(mutant.path, text)
        self.copy.ninja(program.target)

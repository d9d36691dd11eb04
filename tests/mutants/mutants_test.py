#!/usr/bin/python3
"""Tests which mutants a source yields, how they are tried, and that the list of equivalent mutants is up to date."""

import shutil
import subprocess
import sys
import tempfile
import time
import unittest
import unittest.mock
from pathlib import Path

sys.dont_write_bytecode = True
HERE = Path(__file__).resolve().parent

import mutations  # noqa: E402
import scratch  # noqa: E402
import trial  # noqa: E402

TOP = HERE.parents[1]


def after(line, before="{"):
    """The mutants of one line of a function."""
    mutants = mutations.mutants_of("a.cpp", f"{before}\n{line}\n")
    return [mutant.after.strip() for mutant in mutants if mutant.line == before.count("\n") + 2]


class Mutations(unittest.TestCase):
    def test_comparisons_move_their_bound_or_reverse(self):
        self.assertEqual(after("  return a < b;"), ["return a <= b;", "return a >= b;"])
        self.assertEqual(after("  return a >= b;"), ["return a > b;", "return a < b;"])
        self.assertEqual(after("  return a == b;"), ["return a != b;"])

    def test_templates_and_shifts_are_not_comparisons(self):
        for line in ("  std::vector<int> list;", "  out << in >> more;", "  std::map<int, std::vector<char>> map;",
                     "template <typename T>", "  bool operator<(const A& b);", "  p->q;"):
            self.assertEqual(after(line), [], line)

    def test_logic_is_swapped_also_at_the_end_of_a_line(self):
        self.assertEqual(after("  return a && b;"), ["return a || b;"])
        self.assertEqual(after("  return a ||"), ["return a &&"])
        self.assertEqual(after("void take(A&& a);"), [])

    def test_conditions_are_negated(self):
        self.assertEqual(after("  if (ready) {"), ["if (!(ready)) {"])
        self.assertEqual(after("  } else if (f(a)) {"), ["} else if (!(f(a))) {"])
        self.assertEqual(after("  if (const int e = f(); e) {"), ["if (const int e = f(); !(e)) {"])
        self.assertEqual(after("  if (!ready) {"), ["if (ready) {"])
        self.assertEqual(after("  if (auto* a = f()) {"), [])
        self.assertEqual(after("  if (many("), [])

    def test_numbers_change_by_one(self):
        self.assertEqual(after("  int a = 0;"), ["int a = 1;"])
        self.assertEqual(after("  int a = 1;"), ["int a = 0;"])
        self.assertEqual(after("  auto a = 41U;"), ["auto a = 42U;"])
        self.assertEqual(after("  auto a = 0x1f;"), ["auto a = 0x20;"])
        self.assertEqual(after("  mode_t a = 0644;"), ["mode_t a = 0645;"])
        self.assertEqual(after("  double v2 = 1.5;"), [])

    def test_boolean_literals_are_swapped(self):
        self.assertEqual(after("  return true;"), ["return false;"])
        self.assertEqual(after("  bool a = false;"), ["bool a = true;"])

    def test_calls_are_deleted(self):
        self.assertEqual(after("  list_.clear();"), [";"])
        self.assertEqual(after("  ::sync();", before="}"), [";"])
        self.assertEqual(after("  a->b(c(d)).e();", before="x;\n\n  // why"), [";"])

    def test_lookalikes_of_call_statements_stay(self):
        for line in ("  return f();", "  File file(path);", "  int f();", "  a = f();"):
            self.assertEqual(after(line), [], line)
        self.assertEqual(after("  f(a);", before="  call(b,"), [])
        self.assertEqual(after("    g(a));", before="  call(b,"), [])

    def test_comments_literals_and_preprocessor_stay(self):
        for line in ("  // a == 1 && true", "#if A == 1", '  const char* a = "x == 1 // true";', "  char a = '1';",
                     "  /* 1 */", '  auto a = R"(1 == 2)";', "  static_assert(sizeof(a) == 1);"):
            self.assertEqual(after(line), [], line)
        self.assertEqual(after("1 == 2 */", before="/*"), [])
        self.assertEqual(after('  return a == "//1";'), ['return a != "//1";'])

    def test_log_calls_stay(self):
        self.assertEqual(after('  KOVA_LOG(LOG_ERR, 0, "no");'), [])
        self.assertEqual(after("           a == 1);", before="  KOVA_LOG(LOG_ERR, 0,"), [])

    def test_mutants_are_applied_to_their_line_only(self):
        text = "  a = 1;\n  a = 1;\n"
        first, second = mutations.mutants_of("a.cpp", text)
        self.assertEqual(mutations.mutated(text, first), "  a = 0;\n  a = 1;\n")
        self.assertEqual(mutations.mutated(text, second), "  a = 1;\n  a = 0;\n")


class Equivalents(unittest.TestCase):
    def test_each_entry_is_a_mutant_of_the_sources(self):
        for path, before, changed in mutations.read_equivalents((HERE / "equivalent").read_text()):
            source = TOP / path
            self.assertTrue(source.is_file(), path)
            keys = {mutant.key() for mutant in mutations.mutants_of(path, source.read_text())}
            self.assertIn((path, before, changed), keys)

    def test_entries_are_read_whole(self):
        text = "# note\n\na.cpp\n  before: a < b: c\n  after: a <= b: c\n  because: of it\n"
        self.assertEqual(mutations.read_equivalents(text), {("a.cpp", "a < b: c", "a <= b: c"): "of it"})
        for wrong in ("a.cpp\n  before: a\n  after: b\n", text.replace("of it", ""), "a.cpp\n"):
            with self.assertRaises(ValueError):
                mutations.read_equivalents(wrong)


class Running(unittest.TestCase):
    def test_overdue_commands_end_with_their_children(self):
        with tempfile.TemporaryDirectory() as folder:
            child = Path(folder) / "child"
            status, _ = scratch.run(["sh", "-c", f"sleep 1000 & echo $! > {child}; wait"], 3)
            self.assertIsNone(status)
            state = Path(f"/proc/{child.read_text().strip()}/stat")
            deadline = time.monotonic() + 30
            while self.is_alive(state) and time.monotonic() < deadline:
                time.sleep(0.01)
            self.assertFalse(self.is_alive(state))

    @staticmethod
    def is_alive(state):
        try:
            return state.read_text().rsplit(")", 1)[1].split()[0] != "Z"
        except OSError:
            return False

    def test_status_and_output_are_kept(self):
        self.assertEqual(scratch.run(["sh", "-c", "echo out; echo err >&2; exit 3"], 60), (3, "out\nerr\n"))

    def test_first_failure_ends_all(self):
        start = time.monotonic()
        commands = [(["sleep", "60"], None), (["sh", "-c", "exit 4"], None)]
        self.assertEqual(scratch.run_together(commands, 60), (4, ""))
        self.assertLess(time.monotonic() - start, 30)

    def test_programs_run_in_private_root(self):
        copy = scratch.Scratch(TOP, Path("/nonexistent"))
        copy.tree = TOP
        with tempfile.TemporaryDirectory() as folder:
            program = scratch.Program("host", "host", ["/bin/sh", "-c", f"uname -n; [ ! -e {folder} ]"], False)
            self.assertEqual(copy.test(program, 60, "*"), (0, "kova-test\n"))
            self.assertEqual(copy.test(program, 60), (0, scratch.SHARDS * "kova-test\n"))


PROJECT = {
    "CMakePresets.json": """{"version": 6, "configurePresets": [
        {"name": "release", "generator": "Ninja", "binaryDir": "${sourceDir}/build/release",
         "cacheVariables": {"CMAKE_BUILD_TYPE": "Release"}}]}""",
    "CMakeLists.txt": """cmake_minimum_required(VERSION 3.25)
        project(small LANGUAGES CXX)
        enable_testing()
        add_library(small STATIC platform/small/src/small.cpp)
        add_executable(small_test main.cpp)
        target_link_libraries(small_test small)
        add_test(NAME small_test COMMAND small_test)
        add_test(NAME script COMMAND /bin/false)
        add_executable(slow_test slow.cpp)
        target_link_libraries(slow_test small)
        add_test(NAME slow_test COMMAND slow_test)""",
    "platform/small/src/small.cpp": """#include <unistd.h>
      int count(int n) {
        int found = 0;
        for (int i = 0; i < n; ++i) {
          usleep(1000);  // so that an endless loop takes no processor time
          found += i != 7 ? 1 : 0;
        }
        const bool unused = n == 5;
        static_cast<void>(unused);
        int few[] = {1, 2};
        return n < 9 ? found : few[1];
      }
      """,
    "main.cpp": "int count(int); int main() { return count(3) == 3 && count(5) == 5 ? 0 : 1; }",
    "slow.cpp": "#include <unistd.h>\nint count(int); int main() { sleep(5); return count(10) == 1; }",
}


class Order(unittest.TestCase):
    def test_tests_of_unit_come_first_and_system_tests_last(self):
        def program(target, seconds, system=False):
            return scratch.Program(target.split("/")[-1], target, [target], system, seconds=seconds)

        def names(file, *programs):
            return [program.name for program in trial.in_order(file, programs)]

        own = program("platform/utils/utils_test", 30)
        quick, slow = program("tests/suite/suite", 1), program("tests/engine/engine", 21)
        system = program("tests/system/System", 100, system=True)
        self.assertEqual(names("platform/utils/process/src/a.cpp", system, slow, quick, own),
                         ["utils_test", "suite", "engine", "System"])
        self.assertEqual(names("kova_ctlserver/src/a.cpp", system, slow, quick), ["engine", "suite", "System"])


class EarlyEnd(unittest.TestCase):
    def test_status_0_before_last_case_is_failure(self):
        copy = scratch.Scratch(TOP, Path("/nonexistent"))
        copy.tree = TOP
        program = scratch.Program("early", "early", ["/bin/sh", "-c", "exit 0"], False)
        self.assertEqual(copy.test(program, 60), (0, ""))
        program.tells = True
        self.assertEqual(copy.test(program, 60), (scratch.ENDED_EARLY, ""))
        program.command = ["/bin/echo", scratch.PASSED]
        self.assertTrue(copy.measure(program, 60))
        self.assertTrue(program.tells)


class Failures(unittest.TestCase):
    FAILED = (1, "[  FAILED  ] A.B (1 ms)\n")
    PASSED = (0, "")
    OVERDUE = (None, "")

    @staticmethod
    def failure(*results):
        """The verdict on these results of a program that took 1 s when it was measured and takes 30 s now."""
        trials = trial.Trial(TOP, Path("/nonexistent"))
        trials.copy = unittest.mock.Mock()
        trials.copy.test.side_effect = results
        trials.copy.timed.return_value = (30.0, 0, "")
        program = scratch.Program("program", "program", [], False, seconds=1.0)
        return trials.failure(program, mutations.Mutant("a.cpp", 1, "", "", ""), "")

    def test_failure_counts_when_it_is_seen_again(self):
        self.assertEqual(self.failure(self.FAILED, self.FAILED), "A.B")
        self.assertEqual(self.failure(self.FAILED, self.PASSED, self.FAILED), "A.B")
        self.assertIsNone(self.failure(self.FAILED, self.PASSED, self.PASSED))
        self.assertEqual(self.failure((9, ""), (9, "")), "ended with 9")

    def test_overdue_program_is_measured_again(self):
        self.assertIsNone(self.failure(self.OVERDUE, self.PASSED))
        self.assertEqual(self.failure(self.OVERDUE, self.OVERDUE), "took longer than 130 s")


class Trials(unittest.TestCase):
    def setUp(self):
        folder = tempfile.TemporaryDirectory()
        self.addCleanup(folder.cleanup)
        self.source = Path(folder.name) / "source"
        for name, text in PROJECT.items():
            path = self.source / name
            path.parent.mkdir(parents=True, exist_ok=True)
            path.write_text(text)
        (self.source / "tests").mkdir()
        shutil.copy(TOP / "tests/private-root", self.source / "tests")
        for command in (["init", "-q"], ["add", "."]):
            subprocess.run(["git", "-c", "init.defaultBranch=main", *command], cwd=self.source, check=True)
        self.trials = trial.Trial(self.source, Path(folder.name) / "mutants", timeout=20)

    def verdict(self, before, after):
        path = "platform/small/src/small.cpp"
        text = PROJECT[path]
        line = text[: text.index(before)].count("\n") + 1
        whole = text.split("\n")[line - 1]
        mutant = mutations.Mutant(path, line, "", whole, whole.replace(before, after, 1))
        if not self.trials.tests:
            self.trials.prepare([mutant])
        return self.trials.verdict(mutant)[0]

    def test_each_mutant_gets_its_verdict(self):
        self.assertEqual(self.verdict("i < n", "i <= n"), "killed")
        self.assertEqual(self.verdict("n < 9", "n <= 9"), "survived")
        self.assertEqual(self.verdict("i < n", "i >= n"), "killed")
        self.assertEqual(self.verdict("n == 5", "n != 5"), "equivalent")
        self.assertEqual(self.verdict("{1, 2}", "{1, 2"), "does not compile")
        with unittest.mock.patch.object(trial, "GRACE_SECONDS", 2):
            self.assertEqual(self.verdict("++i", "i"), "killed")
        self.assertEqual((self.source / "platform/small/src/small.cpp").read_text(),
                         PROJECT["platform/small/src/small.cpp"])


    def test_slow_programs_are_for_their_own_unit(self):
        with unittest.mock.patch.object(trial, "MAX_SECONDS_ELSEWHERE", 2):
            self.assertEqual(self.verdict("few[1]", "few[0]"), "survived")
        with unittest.mock.patch.dict(trial.TESTS, {"platform/small": ("slow_test",)}):
            self.assertEqual(self.verdict("few[1]", "few[0]"), "killed")

    def test_one_run_at_a_time(self):
        self.trials.copy.lock()
        self.addCleanup(self.trials.copy.held.close)
        with self.assertRaisesRegex(SystemExit, "another run"):
            scratch.Scratch(self.source, self.trials.copy.tree.parent).lock()


class CommandLine(unittest.TestCase):
    def listed(self, *words):
        return subprocess.run([str(HERE / "mutants"), *words, "--list"], cwd=TOP, capture_output=True, text=True, check=False)

    def test_seed_repeats_a_draw(self):
        first = self.listed("platform/utils", "5", "--seed", "3")
        self.assertEqual(first.returncode, 0, first.stderr)
        self.assertEqual(first.stdout.count("  + "), 5)
        self.assertEqual(first.stdout, self.listed("platform/utils", "5", "--seed", "3").stdout)
        self.assertNotEqual(first.stdout, self.listed("platform/utils", "5", "--seed", "4").stdout)

    def test_equivalent_mutants_are_not_drawn(self):
        known = mutations.read_equivalents((HERE / "equivalent").read_text())
        path, _, changed = next(iter(known))
        self.assertNotIn(f"  + {changed}\n", self.listed(path, "1000").stdout)

    def test_path_or_count_may_be_left_out(self):
        self.assertEqual(self.listed().stdout.count("  + "), 50)
        self.assertEqual(self.listed("7").stdout.count("  + "), 7)
        self.assertIn("no sources in nowhere", self.listed("nowhere").stderr)


if __name__ == "__main__":
    unittest.main()

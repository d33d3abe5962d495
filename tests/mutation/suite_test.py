"""How scripts/mutate runs tests: what counts as a failure, who is named, and that nothing is left running."""

import contextlib
import os
import signal
import stat
import sys
import tempfile
import textwrap
import threading
import time
import types
import unittest

SOURCE_DIR = os.path.abspath(sys.argv[1])
sys.path.insert(0, os.path.join(SOURCE_DIR, "tests", "mutation"))
import run  # noqa: E402
import suite  # noqa: E402
import trees  # noqa: E402

# A program that speaks like gtest's. Its cases are its functions.
PROGRAM = """\
#!{python}
import os, subprocess, sys, time
ran = []
{cases}
names = [n[5:] for n in list(globals()) if n.startswith("case_")]
if "--gtest_list_tests" in sys.argv:
    print("S.", *names, sep="\\n  ")
    sys.exit()
for argument in sys.argv[1:]:
    if argument.startswith("--gtest_filter=-"):
        names = [n for n in names if "S." + n not in argument[16:].split(":")]
    elif argument.startswith("--gtest_filter="):
        names = [n for n in names if "S." + n == argument[15:]]
failed = []
for name in names:
    print(f"[ RUN      ] S.{{name}}", flush=True)
    good = globals()["case_" + name]() is not False
    ran.append(name)
    print(f"[ {{'      OK' if good else ' FAILED '}} ] S.{{name}} (1 ms)", flush=True)
    failed += [] if good else [name]
    if failed and "--gtest_fail_fast" in sys.argv:
        break
sys.exit(1 if failed else 0)
"""


class RunnerTest(unittest.TestCase):
    def setUp(self):
        directory = tempfile.TemporaryDirectory()
        self.addCleanup(directory.cleanup)
        self.dir = directory.name
        self.runner = suite.Runner(types.SimpleNamespace(build=self.dir, path=self.dir), self.dir,
                                   threading.Event())

    def program(self, **cases):
        text = "".join(f"def case_{name}():\n{textwrap.indent(body, '    ')}\n" for name, body in cases.items())
        path = os.path.join(self.dir, "program")
        with open(path, "w", encoding="utf-8") as file:
            file.write(PROGRAM.format(python=sys.executable, cases=text))
        os.chmod(path, stat.S_IRWXU)
        test = suite.Test("program", ".", [path], True)
        test.cases, test.patience = [f"S.{name}" for name in cases], 60
        return test

    def test_a_program_without_a_failure_noticed_nothing(self):
        self.assertIsNone(self.runner.run(self.program(a="pass", b="pass")).failed)

    def test_the_first_failure_is_named_and_ends_the_run(self):
        result = self.runner.run(self.program(a="pass", b="return False", c="return False"))
        self.assertEqual("S.b", result.failed)

    def test_a_crash_names_the_case_that_ran(self):
        result = self.runner.run(self.program(a="pass", b="os.abort()"))
        self.assertEqual("S.b", result.failed)

    def test_an_exit_in_the_middle_is_a_failure_of_the_case_that_ran(self):
        self.assertEqual("S.a", self.runner.run(self.program(a="os._exit(3)")).failed)

    def test_a_hang_is_a_failure_of_the_case_that_ran(self):
        test = self.program(a="pass", b="time.sleep(600)")
        test.patience, test.seconds = 2, {"S.b": 0.0, "S.a": 60}
        result = self.runner.run(test)
        self.assertEqual(("S.b", True), (result.failed, result.was_stuck))

    def test_a_run_that_is_stopped_waits_for_nothing(self):
        threading.Timer(1, self.runner.stopped.set).start()
        with self.assertRaises(suite.Stopped):
            self.runner.run(self.program(a="time.sleep(600)"))

    def test_a_command_that_ends_badly_has_no_case_to_name(self):
        self.assertEqual("", self.runner.run(suite.Test("no", ".", ["false"], False)).failed)
        self.assertIsNone(self.runner.run(suite.Test("yes", ".", ["true"], False)).failed)

    def test_what_a_test_leaves_running_is_ended(self):
        number = os.path.join(self.dir, "number")
        body = f"child = subprocess.Popen(['sleep', '600']); open({number!r}, 'w').write(str(child.pid))"
        self.assertIsNone(self.runner.run(self.program(a=body)).failed)
        with open(number, encoding="ascii") as file:
            self.assertTrue(ends(int(file.read())))

    def test_the_trial_finds_the_cases_that_need_a_process_of_their_own(self):
        test = self.program(a="pass", b="return 'a' not in ran", c="pass")
        self.assertTrue(suite.try_out(self.runner, test))
        self.assertEqual((["S.a", "S.b", "S.c"], []), (test.apart, test.left_out))
        self.assertIsNone(self.runner.run(test).failed)

    def test_a_suite_that_ends_the_process_has_one_for_each_case(self):
        test = self.program(a="pass", b="'a' in ran and os.abort()", c="pass")
        suite.try_out(self.runner, test)
        self.assertEqual((["S.a", "S.b", "S.c"], []), (test.apart, test.left_out))
        self.assertIsNone(self.runner.run(test).failed)

    def test_the_trial_leaves_out_what_fails_anyway(self):
        test = self.program(a="pass", b="return False")
        self.assertTrue(suite.try_out(self.runner, test))
        self.assertEqual((["S.a"], ["S.b"]), (test.apart, test.left_out))
        self.assertIsNone(self.runner.run(test).failed)

    def test_a_command_that_fails_anyway_is_not_asked(self):
        self.assertFalse(suite.try_out(self.runner, suite.Test("no", ".", ["false"], False)))

    def test_the_trial_says_how_long_each_case_may_take(self):
        test = self.program(a="pass")
        suite.try_out(self.runner, test)
        self.assertAlmostEqual(suite.PATIENCE + 10 * 0.001, test.limit("S.a"))


class DiscoveryTest(unittest.TestCase):
    def test_programs_and_commands_are_found_before_anything_is_built(self):
        with tempfile.TemporaryDirectory() as root:
            def write(path, text):
                os.makedirs(os.path.dirname(os.path.join(root, path)), exist_ok=True)
                with open(os.path.join(root, path), "w", encoding="utf-8") as file:
                    file.write(text)
            write("build/tests/a/CTestTestfile.cmake", f'include("{root}/build/tests/a/b_test[1]_include.cmake")\n')
            write("build/tests/a/b_test[1]_include.cmake", f"  TEST_EXECUTABLE [==[{root}/build/bin/b_test]==]\n")
            write("build/tests/c/CTestTestfile.cmake", f'add_test([=[d]=] "{root}/scripts/d" "--seed" "1")\n')
            write("build/tests/docs/CTestTestfile.cmake", 'add_test([=[pages]=] "python3" "pages.py")\n')
            found = suite.discover(os.path.join(root, "build"), root)
        self.assertEqual([("b_test", "tests/a", ["@TREE@/build/bin/b_test"], True),
                          ("d", "tests/c", ["@TREE@/scripts/d", "--seed", "1"], False)],
                         [(t.name, t.folder, t.command, t.has_cases) for t in found])
        self.assertEqual([["b_test"], suite.STARTED], [t.targets() for t in found])


def ends(pid):
    """Whether the process is gone, or will be: nobody may have read yet that it was killed."""
    end = time.monotonic() + 30
    while time.monotonic() < end:
        try:
            with open(f"/proc/{pid}/stat", encoding="ascii") as file:
                if file.read().rpartition(")")[2].split()[0] == "Z":
                    return True
        except OSError:
            return True
        time.sleep(0.01)
    os.kill(pid, signal.SIGKILL)
    return False


class WorkerTest(unittest.TestCase):
    """What a worker makes of what builds and tests say; no compiler and no test takes part."""

    def worker(self, built=True, failures=(), unchanged=False, refused=(False,)):
        worker = run.Worker.__new__(run.Worker)
        worker.tree = types.SimpleNamespace(has_built=lambda targets: (built, "error"),
                                            is_affected=lambda target, path: target != "elsewhere",
                                            is_refused=lambda path, left=list(refused): left.pop(0))
        worker.refused_without = {}
        worker._without_mutant = lambda path: contextlib.nullcontext()
        left = list(failures)

        def result():
            return types.SimpleNamespace(failed=left.pop(0) if left else None, was_stuck=False, tail="")

        worker.runner = types.SimpleNamespace(run=lambda test: result(), run_case=lambda test, case: result())
        worker.tests = [suite.Test("own", "tests/a", [suite.TREE + "/build/bin/own"], True),
                        suite.Test("elsewhere", "tests/b", [suite.TREE + "/build/bin/elsewhere"], True),
                        suite.Test("whole", "tests/c", [suite.TREE + "/build/bin/whole"], True)]
        worker.tally = types.SimpleNamespace(note=lambda *_: None, score=lambda *_: 0)
        worker.near = False
        worker.say = lambda text: None
        worker._is_usable = lambda test, path: True
        worker._is_unchanged = lambda path: unchanged
        return worker

    def verdict(self, worker, path="a/b.cpp"):
        asked = []
        self.addCleanup(run.drawing.FOLDERS.pop, "sample", None)
        run.drawing.FOLDERS["sample"] = "a"
        return worker._ask("sample", path, asked), [a.split(" ")[0] for a in asked]

    def test_a_failure_that_comes_twice_is_noticed(self):
        self.assertEqual(({"verdict": run.NOTICED, "by": "own S.a"}, ["own"]),
                         self.verdict(self.worker(failures=["S.a", "S.a"])))

    def test_a_failure_that_comes_once_is_not(self):
        verdict, asked = self.verdict(self.worker(failures=["S.a"]))
        self.assertEqual(({"verdict": run.SURVIVED}, ["own", "own", "whole"]), (verdict, asked))

    def test_what_no_test_notices_has_survived_all_that_it_is_in(self):
        self.assertEqual(({"verdict": run.SURVIVED}, ["own", "whole"]), self.verdict(self.worker()))

    def test_a_first_look_asks_its_own_folder_alone(self):
        worker = self.worker()
        worker.near = True
        self.assertEqual(({"verdict": run.SURVIVED}, ["own"]), self.verdict(worker))

    def test_what_does_not_compile_asks_nobody(self):
        self.assertEqual(({"verdict": run.UNBUILT}, []), self.verdict(self.worker(built=False)))

    def test_what_the_optimizer_does_not_see_is_unchanged(self):
        self.assertEqual(run.UNCHANGED, self.verdict(self.worker(unchanged=True))[0]["verdict"])
        self.assertEqual(run.SURVIVED, self.verdict(self.worker(unchanged=True), "a/b.h")[0]["verdict"])


    def test_what_clang_refuses_does_not_compile(self):
        self.assertEqual(run.UNBUILT, self.verdict(self.worker(refused=(True, False)))[0]["verdict"])

    def test_what_clang_refuses_without_the_mutant_says_nothing_of_it(self):
        self.assertEqual(run.SURVIVED, self.verdict(self.worker(refused=(True, True)))[0]["verdict"])


class StateTest(unittest.TestCase):
    def resumed(self, outcome, tests):
        with tempfile.TemporaryDirectory() as directory:
            path = os.path.join(directory, "state.json")
            run.State(path, "these", resume=False).keep(7, outcome)
            return 7 in run.State(path, tests, resume=True).places

    def test_what_survived_other_tests_is_asked_again(self):
        self.assertFalse(self.resumed({"verdict": run.SURVIVED}, "others"))
        self.assertTrue(self.resumed({"verdict": run.SURVIVED}, "these"))

    def test_what_was_noticed_stays_noticed_and_what_has_no_candidate_has_none(self):
        self.assertTrue(self.resumed({"verdict": run.NOTICED}, "others"))
        self.assertTrue(self.resumed(None, "others"))


class BuildTest(unittest.TestCase):
    def test_a_command_that_does_not_end_is_ended(self):
        self.assertEqual((None, ""), trees.run_in_group(["sleep", "600"], 0.1))

    def test_the_code_and_all_output_come_back(self):
        self.assertEqual((3, "a\nb\n"), trees.run_in_group(["sh", "-c", "echo a; echo b >&2; exit 3"], 60))


if __name__ == "__main__":
    unittest.main(argv=sys.argv[:1])

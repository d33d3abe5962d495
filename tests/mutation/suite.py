"""The tests of a build, and how they are run here: quickly, up to the first one that fails.

A program's cases run in one process, which is quicker than ctest's one for each. A trial without a bug, when
the program is first needed, finds out which cases need a process of their own, how long each takes, and
how many processes a program is split into because it waits more than it works.

A hang is a failure: each case has a limit, of ten times what it took in the trial and some seconds more.
"""

import os
import re
import resource
import signal
import subprocess
import tempfile
import time

# Tests of texts, packages and what is made of them. A bug in the code is none of their business.
NOT_ASKED = ("tests/abi", "tests/bench", "tests/consumer", "tests/docs", "tests/layout", "tests/man", "tests/model",
             "tests/mutation", "tests/packaging", "tests/readme", "tests/appconfig/shared_object", "bench")
# What tests start that are no programs of the build themselves.
STARTED = ["configsrvd", "appcfg", "soak_worker", "history_worker", "history_check", "gateway-app", "gateway-network"]
# Measures, and fails at nothing that others do not fail at sooner.
MEASURING = ("overload_figures_can_be_made", "overload_attacks_can_be_measured")

# Seconds above the ten times of a case, or of a command, which is longer; and what the trial waits.
PATIENCE, COMMAND_PATIENCE, TRIAL_PATIENCE = 10, 30, 60
MOST_PROCESSES = 6
MOST_ATTEMPTS = 8
_LINE = re.compile(r"^\[ *(RUN|OK|FAILED|SKIPPED) *\] ([\w/]+\.[\w/]+)(?:.*\((\d+) ms\))?")


# Stands in a command for the tree, since each worker has its own.
TREE = "@TREE@"


class Test:
    """One program of gtest's, which says what its cases do, or one command of ctest's, which only ends."""

    def __init__(self, name, folder, command, has_cases):
        self.name = name
        self.folder = folder
        self.command = list(command)
        self.has_cases = has_cases
        self.cases = []     # all of them; known from the trial on, as is what follows
        self.apart = []     # those that fail when others run before them
        self.left_out = []  # those that fail although nothing is planted
        self.seconds = {}   # by case; "" is all of it
        self.processes = 1
        self.patience = PATIENCE
        self.usable = None  # until it was tried

    def targets(self):
        return [os.path.basename(self.command[0])] if self.command[0].startswith(TREE + "/build/") else list(STARTED)

    def expected(self):
        return self.seconds.get("", 10)

    def limit(self, case):
        return self.patience + 10 * self.seconds.get(case, 1)


def discover(build, root):
    """All tests of a build that are asked here. Nothing has to be built: what is never needed never is."""
    found = []
    for directory, folders, names in os.walk(build):
        folders[:] = sorted(f for f in folders if f != "CMakeFiles")
        folder = os.path.relpath(directory, build)
        if "CTestTestfile.cmake" in names and not any((folder + "/").startswith(f + "/") for f in NOT_ASKED):
            with open(os.path.join(directory, "CTestTestfile.cmake"), encoding="utf-8") as file:
                found += _tests_in(file.read(), folder, root)
    return [test for test in found if test.name not in MEASURING]


def _tests_in(text, folder, root):
    for match in re.finditer(r'^include\("(.*/([^/"]+)\[1\]_include\.cmake)"\)|^add_test\(\[=*\[(.*?)\]=*\] (".*")\)$',
                             text, re.M):
        described, program, name, command = match.groups()
        if program:
            with open(described, encoding="utf-8") as file:
                executable = re.search(r"TEST_EXECUTABLE \[==\[(.*?)\]==\]", file.read())
            words = [executable.group(1)]
        else:
            words = re.findall(r'"((?:[^"\\]|\\.)*)"', command)
        yield Test(program or name, folder, [w.replace(root, TREE) for w in words], bool(program))


def _limit_resources():
    resource.setrlimit(resource.RLIMIT_CORE, (0, 0))
    resource.setrlimit(resource.RLIMIT_AS, (16 << 30, 16 << 30))


class _Process:
    """A running test, its output followed in a file: a pipe would stay open as long as a child that it left."""

    def __init__(self, test, command, environment, cwd):
        self.test = test
        written, path = tempfile.mkstemp()
        self.out = open(path, encoding="utf-8", errors="replace")
        os.unlink(path)
        self.began = self.case_began = time.monotonic()
        self.case, self.tail, self.seconds, self.failed = "", "", {}, []
        self.busy = 0.0
        self.process = subprocess.Popen(command, stdin=subprocess.DEVNULL, stdout=written,
                                        stderr=subprocess.STDOUT, cwd=cwd, start_new_session=True,
                                        env=environment, preexec_fn=_limit_resources)
        os.close(written)
        self._rest = ""

    def is_over(self):
        pid, status, usage = os.wait4(self.process.pid, os.WNOHANG)
        self._follow()
        if pid == 0:
            return False
        self.process.returncode = os.waitstatus_to_exitcode(status)
        self.busy = usage.ru_utime + usage.ru_stime
        self._end_group()
        return True

    def failure(self):
        """The case that failed, or "" for one that cannot be named; None when all is well."""
        if self.failed:
            return self.failed[0]
        return self.case if self.process.returncode != 0 else None

    def is_stuck(self):
        return time.monotonic() - self.case_began > self.test.limit(self.case)

    def end(self):
        if self.process.returncode is None:
            self._end_group()
            _, status = os.waitpid(self.process.pid, 0)
            self.process.returncode = os.waitstatus_to_exitcode(status)
        self.out.close()

    def _end_group(self):
        try:
            os.killpg(self.process.pid, signal.SIGKILL)
        except ProcessLookupError:
            pass

    def _follow(self):
        lines = (self._rest + self.out.read()).split("\n")
        self._rest = lines.pop()
        self.tail = "\n".join((self.tail.splitlines() + lines)[-40:])
        for line in lines:
            self._note(_LINE.match(line))

    def _note(self, match):
        if match is None:
            return
        what, case, milliseconds = match.groups()
        if what == "RUN":
            self.case, self.case_began = case, time.monotonic()
            return
        if milliseconds is None:
            return  # the summary's line
        self.seconds[case] = int(milliseconds) / 1000
        if what == "FAILED":
            self.failed.append(case)
        self.case, self.case_began = "", time.monotonic()


class Result:
    def __init__(self):
        self.failed = None  # as _Process.failure()
        self.was_stuck = False
        self.seconds = {}
        self.busy = 0.0
        self.tail = ""


class Stopped(Exception):
    """The run is to end, and what is under way is not waited for."""


class Runner:
    """Runs tests of one tree, until `stopped` is set."""

    def __init__(self, tree, scratch, stopped):
        self.tree = tree
        self.stopped = stopped
        self.scratch = scratch  # for the tests' temporary files

    def run(self, test):
        """All cases, up to the first that fails."""
        result = Result()
        if not test.has_cases:
            return self._run([(test, [], {})], 1, result)
        together = len(test.cases) - len(test.apart) - len(test.left_out)
        if together > 0:
            arguments = ["--gtest_fail_fast", "--gtest_color=no"] + self._without(test.apart + test.left_out)
            shards = [{"GTEST_TOTAL_SHARDS": str(test.processes), "GTEST_SHARD_INDEX": str(i)}
                      for i in range(test.processes)] if test.processes > 1 else [{}]
            self._run([(test, arguments, shard) for shard in shards], test.processes, result)
        if result.failed is None and test.apart:
            self._run([(test, self._alone(case), {}) for case in test.apart], 2, result)
        return result

    def cases_of(self, test):
        command = self._command(test) + ["--gtest_list_tests"]
        listed = subprocess.run(command, capture_output=True, check=True, text=True, timeout=TRIAL_PATIENCE).stdout
        cases, suite = [], ""
        for line in listed.splitlines():
            name = line.split("#")[0].rstrip()
            if not name.startswith(" "):
                suite = name if name.endswith(".") else ""
            elif suite and "DISABLED_" not in suite + name:
                cases.append(suite + name.strip())
        return cases

    def run_case(self, test, case):
        return self._run([(test, self._alone(case), {})], 1, Result())

    def run_together(self, test):
        """All cases but those apart, in one process, up to the first that fails."""
        arguments = ["--gtest_fail_fast", "--gtest_color=no"] + self._without(test.apart)
        return self._run([(test, arguments, {})], 1, Result())

    @staticmethod
    def _without(cases):
        return ["--gtest_filter=-" + ":".join(cases)] if cases else []

    @staticmethod
    def _alone(case):
        return ["--gtest_color=no", "--gtest_filter=" + case]

    def _run(self, waiting, at_once, result):
        waiting, running = list(waiting)[::-1], []
        try:
            while (waiting or running) and result.failed is None:
                if self.stopped.is_set():
                    raise Stopped()
                while waiting and len(running) < at_once:
                    running.append(self._start(*waiting.pop()))
                for one in list(running):
                    if one.is_over():
                        running.remove(one)
                        self._take(one, result)
                    elif one.is_stuck():
                        one.end()
                        running.remove(one)
                        result.was_stuck, result.failed, result.tail = True, one.case, one.tail
                time.sleep(0.01)
        finally:
            for one in running:
                one.end()
        return result

    def _start(self, test, arguments, variables):
        environment = {**os.environ, "TMPDIR": self.scratch, **variables}
        cwd = os.path.join(self.tree.build, test.folder)
        os.makedirs(cwd, exist_ok=True)
        return _Process(test, self._command(test) + arguments, environment, cwd)

    def _command(self, test):
        return [word.replace(TREE, self.tree.path) for word in test.command]

    @staticmethod
    def _take(one, result):
        result.busy += one.busy
        result.seconds.update(one.seconds)
        result.seconds[""] = result.seconds.get("", 0) + time.monotonic() - one.began
        failed = one.failure()
        if failed is not None:
            result.failed, result.tail = failed, one.tail
        one.out.close()


def try_out(runner, test):
    """The trial: how a test is to be run, found on the tree as it is. False when it can only fail."""
    test.patience = TRIAL_PATIENCE
    if not test.has_cases:
        return _try_out_command(runner, test)
    test.cases = runner.cases_of(test)
    result = _try_together(runner, test)
    for case in list(test.apart):
        alone = runner.run_case(test, case)
        if alone.failed is not None and runner.run_case(test, case).failed is not None:
            test.apart.remove(case)
            test.left_out.append(case)
        result.seconds[case] = alone.seconds.get(case, 1)
        result.seconds[""] = result.seconds.get("", 0) + alone.seconds.get("", 1)
    test.seconds, test.patience = result.seconds, PATIENCE
    wall = result.seconds.get("", 1)
    if wall > 2:
        test.processes = max(1, min(MOST_PROCESSES, round(wall / max(result.busy, 0.1))))
    return True


def _try_together(runner, test):
    """Takes the suite apart of each case that fails, until the others get along. Up to the first failure: where
    nothing works any more, each further case would wait for its deadline."""
    for _ in range(MOST_ATTEMPTS):
        result = runner.run_together(test)
        if not result.failed:
            break
        suite = result.failed.split(".")[0] + "."
        test.apart += [case for case in test.cases if case.startswith(suite) and case not in test.apart]
    if result.failed is not None:
        test.apart = list(test.cases)
    return result


def _try_out_command(runner, test):
    for _ in range(2):
        result = runner.run(test)
        if result.failed is None:
            test.seconds, test.patience = result.seconds, COMMAND_PATIENCE
            return True
    return False

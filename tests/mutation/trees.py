"""A scratch worktree below build/mutate with a build of its own, in which one mutant at a time stands."""

import json
import os
import shlex
import shutil
import signal
import subprocess

BUILD_SECONDS = 3600  # from nothing, on a busy machine

# Quick to compile and link, and without the compiler's remarks: the tests are asked, not the warnings.
# Test files are compiled together, for none of them is ever edited here.
CMAKE_OPTIONS = ["-G", "Ninja", "-DCMAKE_BUILD_TYPE=Debug", "-DCMAKE_CXX_FLAGS_DEBUG=-O0 -w",
                 "-DAPPCONFIG_BENCH=OFF", "-DAPPCONFIG_UNITY_TESTS=ON",
                 "-DCMAKE_GTEST_DISCOVER_TESTS_DISCOVERY_MODE=PRE_TEST"]

CLANG = "clang++"
LOCK_WARNINGS = ["-Wthread-safety", "-Wthread-safety-beta"]


class CannotPrepare(Exception):
    pass


def run_in_group(command, seconds, **options):
    """subprocess.run for what may leave children: those are ended with it."""
    process = subprocess.Popen(command, stdin=subprocess.DEVNULL, stdout=subprocess.PIPE, stderr=subprocess.STDOUT,
                               text=True, errors="replace", start_new_session=True, **options)
    try:
        output, _ = process.communicate(timeout=seconds)
    except BaseException as error:
        os.killpg(process.pid, signal.SIGKILL)
        process.communicate()
        if isinstance(error, subprocess.TimeoutExpired):
            return None, ""
        raise
    return process.returncode, output


class Tree:
    def __init__(self, root, number):
        self.root = root
        self.path = os.path.join(root, "build", "mutate", f"tree-{number}")
        self.build = os.path.join(self.path, "build", "mutants")
        self.environment = {**os.environ, "CCACHE_BASEDIR": self.path, "CCACHE_NOHASHDIR": "1"}
        self._inputs = {}

    def prepare(self, commit):
        """Checks the commit out and configures its build."""
        if not os.path.exists(os.path.join(self.path, ".git")):
            shutil.rmtree(self.path, ignore_errors=True)
            self._git(self.root, "worktree", "prune")
            self._git(self.root, "worktree", "add", "--detach", self.path, commit)
        self._git(self.path, "checkout", "--force", "--detach", commit)
        options = list(CMAKE_OPTIONS)
        if shutil.which("ld.lld"):
            options += [f"-DCMAKE_{kind}_LINKER_FLAGS=-fuse-ld=lld" for kind in ("EXE", "SHARED", "MODULE")]
        self._must(["cmake", "-S", self.path, "-B", self.build, *options], 300)

    def has_built(self, targets):
        """Whether these could be built, and what the compiler said if not."""
        code, output = run_in_group(["ninja", "-C", self.build, *targets], BUILD_SECONDS, env=self.environment)
        return code == 0, output

    def write(self, path, text):
        with open(os.path.join(self.path, path), "w", encoding="utf-8") as file:
            file.write(text)

    def is_affected(self, target, path):
        """Whether the target is built from the file, by way of whatever it is linked with or needs to run."""
        inputs = self._inputs_of(target)
        if path.endswith(".cpp"):
            return os.path.join(self.path, path) in inputs
        includes = self._includes()
        return any(includes[o] is None or path in includes[o] for o in inputs if o in includes)

    def is_refused(self, path):
        """Whether Clang refuses a source, with the project's warnings and those of locks."""
        entry = self._compilation_of(path)
        if entry is None or not shutil.which(CLANG):
            return False
        words = shlex.split(entry["command"])
        first = next(place for place, word in enumerate(words) if word.startswith("-"))
        command = [CLANG, *(word for word in words[first:] if word != "-w"), *LOCK_WARNINGS, "-fsyntax-only"]
        code, _ = run_in_group(command, BUILD_SECONDS, cwd=entry["directory"], env=self.environment)
        return code != 0

    def object_code(self, path):
        """What the optimizer makes of a source, as bytes; None when that cannot be told."""
        entry = self._compilation_of(path)
        if entry is None:
            return None
        command = shlex.split(entry["command"].replace("-O0", "-O2"))
        made = os.path.join(self.build, "optimized.o")
        command[command.index("-o") + 1] = made
        code, _ = run_in_group(command, BUILD_SECONDS, cwd=entry["directory"], env=self.environment)
        if code != 0:
            return None
        with open(made, "rb") as file:
            return file.read()

    def _compilation_of(self, path):
        with open(os.path.join(self.build, "compile_commands.json"), encoding="utf-8") as file:
            entries = [e for e in json.load(file) if e["file"] == os.path.join(self.path, path)]
        return entries[0] if entries else None

    def _inputs_of(self, target):
        if target not in self._inputs:
            self._inputs[target] = set(self._ninja("inputs", target))
        return self._inputs[target]

    def _includes(self):
        """The project's files that each object is made of, as its last compilation found; None before that."""
        found = {}
        for line in self._ninja("targets", "all"):
            target = line.rsplit(": ", 1)[0]
            if target.endswith(".o"):
                found[target] = None
        for line in self._ninja("deps"):
            if line and not line[0].isspace():
                included = found[line.split(": ")[0]] = set()
            elif line:
                included.add(os.path.relpath(os.path.join(self.build, line.strip()), self.path))
        return found

    def _ninja(self, *tool):
        return run_in_group(["ninja", "-C", self.build, "-t", *tool], 60)[1].splitlines()

    def _git(self, where, *arguments):
        self._must(["git", "-C", where, *arguments], 300)

    def _must(self, command, seconds):
        code, output = run_in_group(command, seconds, env=self.environment)
        if code != 0:
            raise CannotPrepare(f"{' '.join(command)}\n{output[-4000:]}")

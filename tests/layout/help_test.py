"""Every script explains itself at once: --help prints its opening comment, and builds nothing.

Usage: help_test.py SOURCE_DIR
"""

import os
import re
import shutil
import subprocess
import sys
import tempfile
import unittest

TRAPS = ("apt-get", "apt", "cc", "c++", "cmake", "ctest", "dpkg-query", "g++", "make", "ninja", "sudo")
SOURCE_DIR = sys.argv[1] if len(sys.argv) > 1 else os.getcwd()


class HelpTest(unittest.TestCase):
    def setUp(self):
        directory = tempfile.TemporaryDirectory()
        self.addCleanup(directory.cleanup)
        # The scripts alone: there is nothing that could be built, and no dependency to ask for.
        self.root = directory.name
        shutil.copytree(os.path.join(SOURCE_DIR, "scripts"), os.path.join(self.root, "scripts"))
        self.called = os.path.join(self.root, "called")
        self.lay_traps()

    def lay_traps(self):
        """What builds, installs or asks for a password, each a program that only notes that it was called."""
        traps = os.path.join(self.root, "traps")
        os.mkdir(traps)
        for name in TRAPS:
            with open(os.path.join(traps, name), "w", encoding="utf-8") as file:
                file.write(f'#!/bin/sh\necho "{name} $*" >> "{self.called}"\nexit 1\n')
            os.chmod(file.name, 0o755)
        self.environment = {**os.environ, "PATH": traps + os.pathsep + os.environ["PATH"]}

    def run_script(self, name, *arguments):
        return subprocess.run([os.path.join(self.root, "scripts", name), *arguments], cwd=self.root, text=True,
                              capture_output=True, stdin=subprocess.DEVNULL, timeout=20, check=False,
                              env=self.environment)

    def what_was_called(self):
        if not os.path.exists(self.called):
            return ""
        with open(self.called, encoding="utf-8") as file:
            return file.read()

    def test_a_trap_notes_that_it_was_called(self):
        """Without this, the test below could not fail."""
        self.run_script("model")
        self.assertNotEqual("", self.what_was_called())

    def test_each_script_prints_what_it_does_and_how_it_is_called(self):
        names = sorted(os.listdir(os.path.join(self.root, "scripts")))
        self.assertIn("soak", names)
        for name in names:
            for option in ("--help", "-h"):
                with self.subTest(f"{name} {option}"):
                    done = self.run_script(name, option)
                    self.assertEqual(("", 0), (done.stderr, done.returncode))
                    self.assertIn(f"scripts/{name}", done.stdout)
                    self.assertNotIn("pipefail", done.stdout)
        self.assertEqual("", self.what_was_called())
        self.assertEqual(["scripts", "traps"], sorted(os.listdir(self.root)))

    def test_it_does_so_behind_other_arguments(self):
        done = self.run_script("soak", "--seconds", "5", "--help")
        self.assertEqual(0, done.returncode)
        self.assertIn("--seed", done.stdout)

    def test_soak_and_history_tell_every_option_of_their_drivers(self):
        for name in ("soak", "history"):
            with open(os.path.join(SOURCE_DIR, f"tests/{name}/{name}.py"), encoding="utf-8") as file:
                options = re.findall(r'^    add\("(--[a-z-]+)"', file.read(), re.M)
            self.assertIn("--seconds", options)
            told = re.findall(r"^  (--[a-z-]+)", self.run_script(name, "--help").stdout, re.M)
            self.assertEqual(options, told)


if __name__ == "__main__":
    unittest.main(argv=sys.argv[:1], verbosity=2)

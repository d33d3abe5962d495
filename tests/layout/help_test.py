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

SOURCE_DIR = sys.argv[1] if len(sys.argv) > 1 else os.getcwd()


class HelpTest(unittest.TestCase):
    def setUp(self):
        directory = tempfile.TemporaryDirectory()
        self.addCleanup(directory.cleanup)
        # The scripts alone: there is nothing that could be built, and no dependency to ask for.
        self.root = directory.name
        shutil.copytree(os.path.join(SOURCE_DIR, "scripts"), os.path.join(self.root, "scripts"))

    def run_script(self, name, *arguments):
        return subprocess.run([os.path.join(self.root, "scripts", name), *arguments], cwd=self.root, text=True,
                              capture_output=True, stdin=subprocess.DEVNULL, timeout=20, check=False)

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
        self.assertEqual(["scripts"], os.listdir(self.root))

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

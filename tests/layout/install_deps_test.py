"""What scripts/install-deps asks for: the sets, and no more than a script needs.

Usage: install_deps_test.py SOURCE_DIR
"""

import os
import re
import subprocess
import sys
import tempfile
import unittest

SOURCE_DIR = sys.argv[1] if len(sys.argv) > 1 else os.getcwd()
SCRIPTS = os.path.join(SOURCE_DIR, "scripts")


def install_deps(*arguments, **options):
    return subprocess.run([os.path.join(SCRIPTS, "install-deps"), *arguments], text=True, capture_output=True,
                          stdin=subprocess.DEVNULL, timeout=60, check=False, **options)


def packages(*sets):
    return install_deps("--list", *sets).stdout.split()


def all_sets():
    return re.search(r"^Sets: (.*)\.$", install_deps("--help").stdout, re.M).group(1).split(", ")


def calls():
    """Each shell script that installs something, with the sets that it names; "test" has them in a variable."""
    for name in sorted(os.listdir(SCRIPTS)):
        with open(os.path.join(SCRIPTS, name), encoding="utf-8") as file:
            for sets in re.findall(r"^[^#\n]*scripts/install-deps(?!\")([ a-z]*)", file.read(), re.M):
                yield name, sets.split()


class InstallDepsTest(unittest.TestCase):
    def on_a_bare_system(self, *arguments):
        """What apt-get is asked for where nothing is installed."""
        with tempfile.TemporaryDirectory() as directory:
            asked = os.path.join(directory, "asked")
            for name, script in {"dpkg-query": "exit 1", "apt-get": f'echo "$@" >> {asked}', "id": "echo 0"}.items():
                with open(os.path.join(directory, name), "w", encoding="utf-8") as file:
                    file.write(f"#!/bin/sh\n{script}\n")
                os.chmod(file.name, 0o755)
            done = install_deps(*arguments, env={**os.environ, "PATH": directory + os.pathsep + os.environ["PATH"]})
            self.assertEqual(0, done.returncode, done.stderr)
            with open(asked, encoding="utf-8") as file:
                last = file.read().splitlines()[-1]
        return [word for word in last.split() if not word.startswith("-") and word != "install"]

    def test_a_set_is_installed_with_the_sets_that_it_needs_and_nothing_else(self):
        self.assertEqual(packages("build"), self.on_a_bare_system("build"))
        self.assertEqual([*packages("build"), "spin"], self.on_a_bare_system("build", "model"))
        self.assertEqual(packages(*all_sets()), self.on_a_bare_system())
        for package in ("libgtest-dev", "clang", "valgrind", "lintian", "g++-arm-linux-gnueabihf"):
            self.assertNotIn(package, packages("build"))
            self.assertIn(package, packages())

    def test_no_package_stands_in_two_sets(self):
        self.assertEqual(len(set(packages())), len(packages()))
        self.assertEqual([], sorted(set(packages("build")) - set(packages("test"))))

    def test_each_set_has_packages_and_is_told_of(self):
        for name in all_sets():
            self.assertNotEqual([], packages(name), name)

    def test_a_set_that_is_none_installs_nothing(self):
        done = install_deps("biuld")
        self.assertEqual((2, ""), (done.returncode, done.stdout))
        self.assertIn('there is no set "biuld"', done.stderr)

    def test_every_script_names_the_sets_that_it_needs(self):
        found = dict(calls())
        self.assertEqual(["build"], found["demo"])
        for name, sets in calls():
            with self.subTest(name):
                self.assertTrue(sets or name == "test", "installs everything")
                self.assertEqual([], sorted(set(sets) - set(all_sets())))


if __name__ == "__main__":
    unittest.main(argv=sys.argv[:1], verbosity=2)

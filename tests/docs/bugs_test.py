"""Every entry of docs/bugs.md says when, by what and by which tests, and each test that it names exists.

A test is a TEST of GoogleTest (`Suite.Test`), a test of ctest, a function of a Python test (`test_...`) or a
script (`scripts/...`). They are looked for in the sources, so that nothing has to be built; whether a commit
exists is not asked, for an archive of the sources has none.

Usage: bugs_test.py SOURCE_DIR
"""

import glob
import os
import re
import sys
import unittest

SOURCE_DIR = os.path.abspath(sys.argv[1])
LABELS = ("Since:", "Found by:", "Mended:", "Held by:")


def read(path):
    with open(path, encoding="utf-8") as file:
        return file.read()


def texts(*patterns):
    """What the files below the sources that fit one of the patterns say."""
    for pattern in patterns:
        for path in glob.glob(os.path.join(SOURCE_DIR, pattern), recursive=True):
            yield read(path)


def known_names():
    """All that a page may name as a test."""
    known = set()
    for text in texts("tests/**/*.cpp"):
        known |= {f"{suite}.{test}" for suite, test in re.findall(r"^TEST(?:_F|_P)?\((\w+),\s*(\w+)\)", text, re.M)}
    for text in texts("tests/**/CMakeLists.txt", "bench/**/CMakeLists.txt"):
        known |= set(re.findall(r"add_test\(NAME ([\w.]+)\s", text))
    for text in texts("fuzz/CMakeLists.txt"):
        known |= {f"fuzz_{name}_corpus" for name in re.findall(r"appconfig_fuzz\((\w+)", text)}
    for text in texts("tests/**/*_test.py"):
        known |= set(re.findall(r"^    def (test_\w+)", text, re.M))
    return known | {f"scripts/{name}" for name in os.listdir(os.path.join(SOURCE_DIR, "scripts"))}


def entries(page):
    """The entries, each as one line."""
    found = re.findall(r"^- \*\*(.*?)(?=^- \*\*|^#|\Z)", page.partition("\n## ")[2], re.M | re.S)
    return [" ".join(entry.split()) for entry in found]


def names_in(entry):
    """What an entry calls tests. A script's arguments are its own business."""
    return [quoted.split()[0] for quoted in re.findall(r"`([^`]+)`", entry.partition("Held by:")[2])]


def problems(page, known):
    found = []
    for entry in entries(page):
        title = entry.partition("**")[0]
        found += [f"{title}: says {label!r} {entry.count(label)} times" for label in LABELS if entry.count(label) != 1]
        names = names_in(entry)
        found += [f"{title}: there is no test {name}" for name in names if name not in known]
        if not names and "Held by: no test; " not in entry:
            found.append(f"{title}: names no test, and does not say why there is none")
        if not re.search(r"Mended: (`[0-9a-f]{7,}`|with this entry).*?, \d{4}-\d\d-\d\d", entry):
            found.append(f"{title}: does not say by which commit and when it was mended")
    return found


class BugsPageTest(unittest.TestCase):
    def test_every_entry_is_whole_and_its_tests_exist(self):
        page = read(os.path.join(SOURCE_DIR, "docs/bugs.md"))
        self.assertGreater(len(entries(page)), 60)
        self.assertEqual([], problems(page, known_names()))

    def test_tests_of_each_kind_are_known(self):
        for name in ("FrameTest.AClaimOfFourGibibytesIsRefused", "ServerTest.TheSocketGoesWithTheServer",
                     "ProviderDeathTest.TheChangeItIsAskedAboutFailsLongBeforeTheDeadline", "layout.help", "soak",
                     "fuzz_store_corpus", "test_tests_of_each_kind_are_known", "scripts/model"):
            with self.subTest(name=name):
                self.assertIn(name, known_names())


ENTRY = """# A page

- **Before the first heading** nothing is an entry.

## Store

- **It was lost.** Whole.
  Since: 0.1.0, `1234567`. Found by: kills. Mended: `abcdef0`, 2026-11-21.
  Held by: `StoreTest.ItIsThere`,
  `scripts/kill-test --kills 8`
"""
KNOWN = {"StoreTest.ItIsThere", "scripts/kill-test"}


class ProblemsTest(unittest.TestCase):
    """A page that is wrong is found."""

    def assert_wrong(self, what, old, new):
        self.assertIn(old, ENTRY)
        found = problems(ENTRY.replace(old, new), KNOWN)
        self.assertEqual([f"It was lost.: {what}"], found)

    def test_an_entry_that_is_right_is_no_problem(self):
        self.assertEqual(1, len(entries(ENTRY)))
        self.assertEqual([], problems(ENTRY, KNOWN))

    def test_a_test_that_there_is_not_is_found(self):
        self.assert_wrong("there is no test StoreTest.ItIsGone", "ItIsThere", "ItIsGone")
        self.assert_wrong("there is no test scripts/kill", "kill-test", "kill")
        self.assert_wrong("there is no test soak", "StoreTest.ItIsThere", "soak")

    def test_the_second_of_several_entries_is_looked_at_too(self):
        page = ENTRY + ENTRY.partition("## Store\n")[2].replace("ItIsThere", "ItIsGone")
        self.assertEqual(["It was lost.: there is no test StoreTest.ItIsGone"], problems(page, KNOWN))

    def test_a_label_that_is_missing_or_there_twice_is_found(self):
        self.assert_wrong("says 'Found by:' 0 times", "Found by: kills. ", "")
        self.assert_wrong("says 'Since:' 2 times", "Whole.", "Since: ever.")

    def test_a_defect_that_nothing_holds_has_to_say_why(self):
        held = "`StoreTest.ItIsThere`,\n  `scripts/kill-test --kills 8`"
        self.assert_wrong("names no test, and does not say why there is none", held, "no test")
        self.assertEqual([], problems(ENTRY.replace(held, "no test; it takes a year."), KNOWN))

    def test_a_commit_or_a_date_that_is_missing_is_found(self):
        self.assert_wrong("does not say by which commit and when it was mended", ", 2026-11-21", "")
        self.assert_wrong("does not say by which commit and when it was mended", "`abcdef0`", "soon")
        self.assertEqual([], problems(ENTRY.replace("`abcdef0`", "with this entry"), KNOWN))


if __name__ == "__main__":
    unittest.main(argv=sys.argv[:1], verbosity=2)

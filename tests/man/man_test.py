"""The manual pages: no warnings, the options of --help and no others, examples that work, references
that lead to a page.

Usage: man_test.py SOURCE_DIR PROGRAM_DIR CXX
"""

import glob
import os
import re
import shutil
import subprocess
import sys
import tempfile
import unittest

SOURCE_DIR, PROGRAM_DIR = (os.path.abspath(argument) for argument in sys.argv[1:3])
CXX = sys.argv[3]
PAGES = sorted(glob.glob(os.path.join(SOURCE_DIR, "packaging/man/*")))
DEADLINE = 60


def text_of(page):
    with open(os.path.join(SOURCE_DIR, "packaging/man", page), encoding="utf-8") as file:
        return file.read()


def as_read(text):
    """Without the escapes that stand for one character, and without requests at the begin of lines."""
    text = text.replace("\\-", "-").replace("\\(dq", '"').replace("\\e", "\\")
    return re.sub(r"\\(.)", r"\1", text)


def section(page, title):
    return re.search(rf"^\.SH {title}\n(.*?)(?=^\.SH|\Z)", text_of(page), re.M | re.S).group(1)


def examples(page):
    """The texts between .nf and .fi, as a reader sees them."""
    found = re.findall(r"^\.nf\n(.*?)^\.fi$", text_of(page), re.M | re.S)
    return [text.replace("\\-", "-").replace("\\e", "\\") for text in found]


def options(text):
    return set(re.findall(r"(?<![\w-])--[a-z][a-z-]*", text))


def help_of(program, *words):
    return subprocess.run([os.path.join(PROGRAM_DIR, program), *words, "--help"], capture_output=True, text=True,
                          timeout=DEADLINE, check=True).stdout


def verbs():
    listed = re.search(r"^Verbs.*?:\n(.*?)\n\n", help_of("appcfg"), re.M | re.S).group(1)
    return [re.match(r"  (\S+(?: \S+)*)  ", line).group(1).split() for line in listed.splitlines()]


def warnings_of(page):
    """What the formatter has to say against a page. The rest of the environment is left out, because
    the reader's own settings are none of the page's."""
    done = subprocess.run(["man", "--warnings", "-E", "UTF-8", "-l", "-Tutf8", "-Z", page],
                          stdout=subprocess.DEVNULL, stderr=subprocess.PIPE, text=True, timeout=DEADLINE,
                          env={"PATH": os.environ["PATH"], "LC_ALL": "C.UTF-8", "MANWIDTH": "80"}, check=False)
    return done.stderr + ("" if done.returncode == 0 else f"ended with {done.returncode}")


class ManTest(unittest.TestCase):
    def setUp(self):
        directory = tempfile.TemporaryDirectory()
        self.addCleanup(directory.cleanup)
        self.directory = directory.name

    def file(self, name, text):
        path = os.path.join(self.directory, name)
        with open(path, "w", encoding="utf-8") as file:
            file.write(text)
        return path

    @unittest.skipUnless(shutil.which("man"), "man is not installed")
    def test_the_formatter_has_no_warnings(self):
        self.assertLessEqual(5, len(PAGES))
        for page in PAGES:
            with self.subTest(os.path.basename(page)):
                self.assertEqual("", warnings_of(page))

    @unittest.skipUnless(shutil.which("man"), "man is not installed")
    def test_a_mistake_in_a_page_is_a_warning(self):
        self.assertIn("nonsense", warnings_of(self.file("bad.1", text_of("appcfg.1") + ".nonsense\n")))

    def test_configsrvd_has_the_options_of_its_page_and_no_others(self):
        self.assertEqual(options(help_of("configsrvd")), options(as_read(section("configsrvd.8", "OPTIONS"))))

    def test_appcfg_has_the_options_of_its_page_and_no_others(self):
        every = options(help_of("appcfg")).union(*(options(help_of("appcfg", *verb)) for verb in verbs()))
        self.assertIn("--dry-run", every)
        self.assertEqual(every, options(as_read(text_of("appcfg.1"))))

    def test_no_page_shows_an_option_that_there_is_not(self):
        every = options(help_of("configsrvd")) | options(as_read(text_of("appcfg.1")))
        of_others = {"--cflags", "--libs"}  # pkg-config
        for page in PAGES:
            with self.subTest(os.path.basename(page)):
                self.assertEqual(set(), options(as_read(text_of(page))) - every - of_others)

    def test_configsrvd_ends_as_its_page_says(self):
        said = re.search(r"Exit codes:.*", help_of("configsrvd"), re.S).group(0)
        self.assertEqual(re.findall(r"(\d+) [a-z]", said),
                         re.findall(r"^\.B (\d+)$", section("configsrvd.8", "EXIT STATUS"), re.M))

    def test_references_lead_to_a_page_and_every_page_is_referred_to_by_all_others(self):
        names = {os.path.basename(page) for page in PAGES}
        for page in names:
            referred = {f"{name}.{number}" for name, number in re.findall(
                r"^\.BR ([\w\\-]+) \((\d)\)", section(page, "SEE ALSO"), re.M)}
            self.assertEqual({name.replace("-", "\\-") for name in names - {page}}, referred, page)

    def test_the_definitions_of_the_page_are_accepted(self):
        whole, _, refined, _ = examples("appconfig-definitions.5")
        os.mkdir(os.path.join(self.directory, "d"))
        self.file("d/10.toml", whole)
        self.file("d/20.toml", refined)
        done = subprocess.run([os.path.join(PROGRAM_DIR, "configsrvd"), "--check", os.path.join(self.directory, "d")],
                              capture_output=True, text=True, timeout=DEADLINE, check=False)
        self.assertEqual(("4 variables, no mistakes\n", ""), (done.stdout, done.stderr))

    def test_the_library_is_asked_for_in_its_present_version(self):
        with open(os.path.join(SOURCE_DIR, "VERSION"), encoding="utf-8") as file:
            minor = file.read().strip().rsplit(".", 1)[0]
        self.assertIn(f"find_package(appconfig {minor} REQUIRED)", text_of("libappconfig.3"))

    def test_the_program_of_the_page_is_one(self):
        program = self.file("program.cpp", examples("libappconfig.3")[1])
        done = subprocess.run([CXX, "-std=c++17", "-fsyntax-only", "-I", SOURCE_DIR, program], capture_output=True,
                              text=True, timeout=DEADLINE, check=False)
        self.assertEqual(("", 0), (done.stderr, done.returncode))


if __name__ == "__main__":
    unittest.main(argv=sys.argv[:1], verbosity=2)

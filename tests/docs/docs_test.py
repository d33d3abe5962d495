"""Every code block of the pages below docs/ does what the page says.

C++    a whole program was built by CMake (or this test would not run it); a quoted piece stands
       in the file that it names, letter by letter
TOML   `configsrvd --check` accepts what the page's blocks make together; a block in a directory
       mistakes.d is refused; one in no directory is read by the session alone
sh     the commands run in their order in a directory with the page's files, and print what the
       page shows; what a bare Debian system is needed for, `scripts/package --test` runs

Usage: docs_test.py SOURCE_DIR PROGRAM_DIR PAGE_PROGRAM_DIR
"""

import glob
import os
import re
import subprocess
import sys
import tempfile
import unittest

SOURCE_DIR, PROGRAM_DIR, PAGE_PROGRAM_DIR = (os.path.abspath(a) for a in sys.argv[1:4])
sys.path.insert(0, os.path.join(SOURCE_DIR, "tests/support"))

# pylint: disable=wrong-import-position
import pages  # noqa: E402
import session  # noqa: E402

DEADLINE = 60
PAGES = sorted(glob.glob(os.path.join(SOURCE_DIR, "docs/**/*.md"), recursive=True))
# What is not run here: pictures, and the bytes of frames, which tests/platform/messaging compares.
PLAIN = {"", "hex"}
RUN = {"cpp", "toml", "sh"}


def name_of(page):
    return os.path.relpath(page, SOURCE_DIR)


class PageTest(unittest.TestCase):
    def setUp(self):
        directory = tempfile.TemporaryDirectory()
        self.addCleanup(directory.cleanup)
        self.directory = directory.name
        self.environment = {
            **os.environ,
            "PATH": os.pathsep.join([PAGE_PROGRAM_DIR, PROGRAM_DIR, os.environ["PATH"]]),
            "APPCONFIG_RUNTIME_DIR": os.path.join(self.directory, "run"),
            "LC_ALL": "C.UTF-8",
        }

    def write_toml_files(self, blocks):
        """The page's TOML blocks as files; a block without a name comes after those before it."""
        named = []
        for number, block in enumerate(blocks):
            name = block.words[0] if block.words else f"definitions.d/{number:02}.toml"
            path = os.path.join(self.directory, name)
            os.makedirs(os.path.dirname(path), exist_ok=True)
            with open(path, "w", encoding="utf-8") as file:
                file.write(block.text)
            # A table of roles that its group may write is none; the mask of whoever tests may let it.
            os.chmod(path, 0o644)
            named.append(name)
        return named

    def check(self, directory):
        return subprocess.run(["configsrvd", "--check", directory], cwd=self.directory, env=self.environment,
                              capture_output=True, text=True, timeout=DEADLINE, check=False)

    def page_blocks(self, page, language):
        return [block for block in pages.blocks(page) if block.language == language and not block.is_for_debian]

    def run_session(self, page):
        self.write_toml_files(self.page_blocks(page, "toml"))
        shell = session.Shell(self.directory, self.environment)
        self.addCleanup(shell.close)
        for block in self.page_blocks(page, "sh"):
            for step in session.steps(block.text, block.line):
                printed = shell.print_of(step)
                self.assertTrue(
                    step.is_shown_by(printed),
                    f"{name_of(page)}:{step.line}: {step.command}\nshows\n{step.expected}\nbut prints\n{printed}")

    def test_every_block_is_of_a_kind_that_is_tested(self):
        for page in PAGES:
            for block in pages.blocks(page):
                if not block.is_for_debian:
                    self.assertIn(block.language, PLAIN | RUN, f"{name_of(page)}:{block.line}")

    def test_every_whole_program_was_built(self):
        for page in PAGES:
            for name in pages.programs(page):
                with self.subTest(page=name_of(page), program=name):
                    self.assertTrue(os.access(os.path.join(PAGE_PROGRAM_DIR, name), os.X_OK))

    def test_every_whole_program_is_run_by_its_page(self):
        for page in PAGES:
            commands = " ".join(block.text for block in pages.blocks(page) if block.language == "sh")
            for name in pages.programs(page):
                with self.subTest(page=name_of(page)):
                    self.assertRegex(commands, rf"\$ ([\w.]+/)?{re.escape(name)}\b")

    def test_every_quoted_piece_stands_in_its_file(self):
        for page in PAGES:
            for block in pages.blocks(page):
                if block.is_quoted:
                    with self.subTest(page=name_of(page), line=block.line):
                        with open(os.path.join(SOURCE_DIR, block.words[1]), encoding="utf-8") as file:
                            self.assertIn(block.text, file.read())

    def test_the_definitions_are_accepted_but_for_those_that_show_a_mistake(self):
        for page in PAGES:
            names = self.write_toml_files(self.page_blocks(page, "toml"))
            for directory in {os.path.dirname(name) for name in names if "/" in name}:
                with self.subTest(page=name_of(page), directory=directory):
                    done = self.check(directory)
                    expected = 3 if directory == "mistakes.d" else 0
                    self.assertEqual(expected, done.returncode, done.stderr)
            for name in names:
                os.remove(os.path.join(self.directory, name))


def add_session_tests():
    for page in PAGES:
        if any(block.language == "sh" and not block.is_for_debian for block in pages.blocks(page)):
            name = name_of(page)[:-len(".md")].replace("/", "_").replace("-", "_")

            def run(self, page=page):
                self.run_session(page)

            setattr(PageTest, f"test_the_session_of_{name}", run)


class SessionTest(unittest.TestCase):
    """The reader of sessions itself: it must see a page that is wrong."""

    def test_steps_are_commands_with_what_they_print(self):
        self.assertEqual([session.Step("a", "1\n2", 5), session.Step("b \\\n  c", "", 8)],
                         session.steps("$ a\n1\n2\n$ b \\\n  c\n", 5))

    def test_output_without_a_command_is_a_mistake(self):
        with self.assertRaises(ValueError):
            session.steps("lost\n$ a\n")

    def test_dots_stand_for_text_of_one_line(self):
        step = session.Step("a", "at ...: x\ny", 1)
        self.assertTrue(step.is_shown_by("at 12:30: x\ny"))
        self.assertFalse(step.is_shown_by("at 12\n30: x\ny"))
        self.assertFalse(step.is_shown_by("at 12: x"))
        self.assertFalse(session.Step("a", "", 1).is_shown_by("x"))

    def test_a_shell_prints_keeps_codes_and_waits_for_a_file(self):
        with tempfile.TemporaryDirectory() as directory:
            shell = session.Shell(directory, dict(os.environ))
            self.addCleanup(shell.close)
            self.assertEqual("1\n2", shell.print_of(session.Step("echo 1; echo 2 >&2", "", 1)))
            shell.print_of(session.Step("(exit 7)", "", 1))
            self.assertEqual("7", shell.print_of(session.Step("echo $?", "", 1)))
            shell.print_of(session.Step("(while [ ! -e go ]; do sleep 0.01; done; echo late > f) &", "", 1))
            shell.print_of(session.Step("touch f go", "", 1))
            self.assertEqual("late", shell.print_of(session.Step("cat f", "late", 1)))
            self.assertEqual("late", shell.print_of_once("cat f"))


if __name__ == "__main__":
    add_session_tests()
    unittest.main(argv=sys.argv[:1], verbosity=2)

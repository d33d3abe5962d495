"""The reference made of the public headers: no warnings, and what the headers say is on its pages.

Usage: doxygen_test.py SOURCE_DIR BUILD_DIR DOXYGEN
"""

import html
import os
import re
import subprocess
import sys
import tempfile
import unittest

SOURCE_DIR, BUILD_DIR, DOXYGEN = (os.path.abspath(argument) for argument in sys.argv[1:4])
# What applications, providers and message layers of one's own include; all else comes along.
ENTRIES = ("appconfig/manager/app_cfg_manager.h", "appconfig/manager/fresh_read.h",
           "appconfig/manager/reading.h",
           "appconfig/registry/registration.h", "appconfig/registry/subscription.h",
           "appconfig/registry/consumer_config_handler.h", "appconfig/registry/provider_config_handler.h",
           "platform/messaging/endpoint.h", "platform/messaging/msg.h",
           "platform/messaging/registration_refusals.h")
WITHOUT_A_PAGE = {"appconfig/core/export.h"}  # one macro
MAIN_PAGE = "docs/mainpage.dox"
# Plain values and tables, whose small accessors one comment describes together; doxygen gives that to the
# first of them alone.
DESCRIBED_TOGETHER = {
    "appconfig/cache/config_cache.h",
    "appconfig/cache/config_value.h",
    "appconfig/core/config_result.h",
    "appconfig/core/config_var.h",
    "appconfig/core/error.h",
    "appconfig/core/security_role.h",
    "platform/messaging/msg.h",
    "platform/messaging/registration_refusals.h",
}


def source(path):
    with open(os.path.join(SOURCE_DIR, path), encoding="utf-8") as file:
        return file.read()


def included_from(entries):
    found, queue = set(), list(entries)
    while queue:
        path = queue.pop()
        if path not in found:
            found.add(path)
            queue += re.findall(r'^#include "([^"]+)"', source(path), re.M)
    return found


def run_doxygen(output, doxyfile=None, undocumented="NO"):
    environment = {**os.environ, "DOXYGEN_OUTPUT": output, "DOXYGEN_VERSION": "test",
                   "DOXYGEN_UNDOCUMENTED": undocumented}
    return subprocess.run([DOXYGEN, doxyfile or "docs/Doxyfile"], cwd=SOURCE_DIR, env=environment,
                          capture_output=True, text=True, timeout=100, check=False)


def words(text):
    return re.sub(r"\s+", " ", text).strip()


class DoxygenTest(unittest.TestCase):
    @classmethod
    def setUpClass(cls):
        cls.directory = tempfile.TemporaryDirectory(dir=BUILD_DIR)
        cls.addClassCleanup(cls.directory.cleanup)
        cls.done = run_doxygen(cls.directory.name)
        pages = os.path.join(cls.directory.name, "html")
        cls.text = ""
        for name in sorted(os.listdir(pages)) if os.path.isdir(pages) else []:
            # The pages with the sources show every comment anyway.
            if name.endswith(".html") and not name.endswith("_source.html"):
                with open(os.path.join(pages, name), encoding="utf-8") as file:
                    cls.text += words(html.unescape(re.sub(r"<[^>]*>", "", file.read()))) + "\n"

    def test_there_are_no_warnings(self):
        self.assertEqual(("", 0), (self.done.stderr, self.done.returncode))

    def test_every_public_operation_has_a_comment_of_its_own(self):
        with tempfile.TemporaryDirectory(dir=BUILD_DIR) as directory:
            done = run_doxygen(directory, undocumented="YES")
        left = [line for line in done.stderr.splitlines()
                if re.sub(r":\d+: .*", "", line.replace(SOURCE_DIR + "/", "")) not in DESCRIBED_TOGETHER]
        self.assertEqual([], left)

    def test_a_member_without_a_comment_is_found(self):
        with tempfile.TemporaryDirectory(dir=BUILD_DIR) as directory:
            with open(os.path.join(directory, "bare.h"), "w", encoding="utf-8") as file:
                file.write("// Bare: a class with an operation that says nothing.\n#pragma once\n"
                           "class Bare {\n public:\n  // Said.\n  void said();\n\n  void bare();\n};\n")
            doxyfile = os.path.join(directory, "Doxyfile")
            with open(doxyfile, "w", encoding="utf-8") as file:
                file.write(source("docs/Doxyfile") + f"INPUT = {directory}/bare.h\n")
            done = run_doxygen(directory, doxyfile, undocumented="YES")
        self.assertNotEqual(0, done.returncode)
        self.assertIn("Member bare() (function) of class Bare is not documented", done.stderr)
        self.assertEqual(1, done.stderr.count("is not documented"), done.stderr)

    def test_the_main_page_is_there_with_the_program_of_the_readme(self):
        program = re.search(r"^```cpp\n(.*?)^```", source("README.md"), re.M | re.S).group(1)
        self.assertIn("\\code{.cpp}\n" + program + "\\endcode", source(MAIN_PAGE))
        self.assertIn("What you include", self.text)

    def test_every_public_header_is_part_of_it_and_nothing_else_is(self):
        listed = re.search(r"^INPUT +=((?:.*\\\n)*.*)", source("docs/Doxyfile"), re.M).group(1)
        self.assertEqual(included_from(ENTRIES) - WITHOUT_A_PAGE,
                         set(listed.replace("\\", "").split()) - {MAIN_PAGE})

    def test_the_opening_words_of_every_header_are_on_a_page(self):
        for path in sorted(included_from(ENTRIES) - WITHOUT_A_PAGE):
            with self.subTest(path):
                block = re.match(r"(?://.*\n)+", source(path)).group(0)
                opening = re.sub(r"^// ?", "", block, flags=re.M).split("\n\n")[0]
                self.assertIn(words(opening), self.text)

    def test_comments_on_members_are_on_a_page(self):
        for comment in (
            "Role of all requests from now on; returns the previous one.",  # a sentence over a member
            "No such variable: correct the name, or add a definition.",  # over a value of an enumeration
            "how an application hears that a variable changed",  # of a file's first block, at its class
            'int mtu = config->getConfigVarInt("net.eth", 0, "mtu", 0); // asks the service',  # an example
        ):
            with self.subTest(comment):
                self.assertIn(comment, self.text)

    def test_no_marks_of_comments_are_left_on_a_page(self):
        for mark in ("///", "\\verbatim", "\\file"):
            self.assertNotIn(mark, self.text)

    def test_a_header_that_is_not_there_is_a_failure(self):
        with tempfile.TemporaryDirectory(dir=BUILD_DIR) as directory:
            doxyfile = os.path.join(directory, "Doxyfile")
            with open(doxyfile, "w", encoding="utf-8") as file:
                file.write(source("docs/Doxyfile") + "INPUT += appconfig/core/gone.h\n")
            done = run_doxygen(directory, doxyfile)
            self.assertNotEqual(0, done.returncode)
            self.assertIn("gone.h", done.stderr)


if __name__ == "__main__":
    unittest.main(argv=sys.argv[:1], verbosity=2)

"""Plants each sort of damage that comments.py looks for, and what looks like damage and is none.

Usage: comments_test.py SOURCE_DIR
"""

import unittest

import comments

GOOD = """\
// ForkLock: a lock of the library that fork waits for, so that no child is made while one of the
// parent's other threads holds it: that thread would be missing in the child.
//
//   std::mutex guard;
//   guard.lock();       // before the fork
//
// Shape:    one object of static storage beside each mutex, or beside what knows all mutexes of a
//           sort. It is called before a fork, on the thread that forks.
//             network.hostname      group network, name hostname
//             sensors.temp[2]       group sensors, name temp
// Rules:    1. A user named in the table has that role, be it higher or lower than what follows. And
//              so it stays.
//           2. Otherwise root may claim any role.
// Threads:  any number of threads may read one.
// Owns:     nothing.
#pragma once

// Not so: a write without a result waits for nothing, so a read right after it still gives the old
// value. This sentence begins no line of its own.
// Done by hand: this one does, and the line before it is short.
int x;  // a comment  behind code is none of ours
"""


def lines(text):
    return "".join(f"// {line}".rstrip() + "\n" for line in text.split("\n"))


class FormTest(unittest.TestCase):
    def check(self, text, path="configsrv/log/log.h"):
        return comments.problems_of(path, text)

    def expect_one(self, problems, *texts):
        self.assertEqual(1, len(problems), problems)
        for text in texts:
            self.assertIn(text, problems[0])

    def planted(self, old, new):
        self.assertEqual(1, GOOD.count(old), old)
        return self.check(GOOD.replace(old, new))

    def test_a_comment_in_form_has_no_problem(self):
        self.assertEqual([], self.check(GOOD))

    def test_a_label_without_a_colon(self):
        self.expect_one(self.planted("// Threads:  any", "// Threads   any"), "log.h:14:", '"Threads" has no colon')

    def test_a_label_without_a_colon_that_fills_its_column(self):
        self.expect_one(self.check(lines("Rotation when another file has the name, or none, the next\n"
                                         "         line goes to the name")), '"Rotation" has no colon')

    def test_two_label_lines_joined(self):
        joined = self.planted("may read one.\n// Owns:     nothing.", "may read one. Owns:     nothing.")
        self.expect_one(joined, "log.h:14:", "two lines joined")

    def test_a_label_joined_to_the_line_before_it_and_its_columns_lost(self):
        self.expect_one(self.check(lines("Threads:  any number of threads may read one. Owns: nothing.")),
                        "two lines joined")

    def test_lines_of_a_table_joined(self):
        self.expect_one(self.check(lines("what a frame holds   its length   what is past it and goes on")),
                        "columns in the middle of a text")

    def test_lines_of_an_example_joined(self):
        self.expect_one(self.planted("//   std::mutex guard;\n//   guard.lock();",
                                     "//   std::mutex guard(made(\n//   7)); if (guard.lock())"),
                        "log.h:5:", "two lines of an example joined")

    def test_a_line_that_ends_early_though_the_sentence_goes_on(self):
        broken = self.planted("while one of the\n// parent's other threads", "while\n// one of the parent's other threads")
        self.expect_one(broken, "log.h:1:", '"one" would have fitted')

    def test_a_line_that_ends_early_behind_a_label(self):
        broken = self.planted("be it higher or lower than what follows. And\n//              so it stays",
                              "be it higher or\n//              lower than what follows. And so it stays")
        self.expect_one(broken, "log.h:11:", '"lower" would have fitted')

    def test_a_word_alone_on_a_line(self):
        left = self.check(lines(
            "A lock of the library that fork waits for, so that no child is ever made while one of its\n"
            "Threads holds.\n"
            "It would be missing in the child, and the lock would be held for ever by nobody who is there."))
        self.expect_one(left, "log.h:2:", "a short line alone")

    def test_a_line_that_is_too_long(self):
        self.expect_one(self.check(lines("some words " * 12)), "columns")

    def test_a_word_twice(self):
        self.expect_one(self.check(lines("What it was told of the the variable.")), '"the" is there twice')

    def test_a_word_twice_across_lines(self):
        self.expect_one(self.check(lines(
            "A lock of the library that fork waits for, so that no child is ever made while one of the\n"
            "the parent's threads holds it.")), "log.h:2:", '"the" is there twice')

    def test_marked_tables_are_left_alone(self):
        table = "// clang-format off\n// first column      second\n// which\n// goes on\n// clang-format on\n"
        self.assertEqual([], self.check(table))
        self.assertNotEqual([], self.check(table.replace("// clang-format off\n", "")))

    def test_text_behind_a_marked_table_is_looked_at_again(self):
        text = "// clang-format off\n// clang-format on\n// of the the variable\n"
        self.expect_one(self.check(text), "log.h:3:")

    def test_scripts_and_cmake_are_looked_at_by_their_own_mark(self):
        for path, text in (("x/CMakeLists.txt", "# of the the variable\n"), ("cmake/x.cmake", "# of the the variable\n"),
                           ("scripts/x", "#!/usr/bin/env bash\n# of the the variable\n")):
            with self.subTest(path):
                self.expect_one(self.check(text, path), "twice")
        self.assertEqual([], self.check("# of the the variable\n", "docs/x.md"))

    def test_a_definition_takes_labels_of_sources_as_they_are(self):
        self.assertEqual([], self.check(lines("Threads   any"), "configsrv/log/log.cpp"))


class SourcesTest(unittest.TestCase):
    OPENING = "// Log: lines on standard error, one write each, so that those of threads do not mix.\n"

    def check(self, path, text):
        return comments.problems_of(path, text)

    def test_a_long_source_opens_with_what_it_is_for(self):
        body = '#include "x.h"\n' * 61
        self.assertIn("opens with no comment", self.check("configsrv/log/log.cpp", body)[0])
        self.assertIn("too little", self.check("configsrv/log/log.cpp", "// The log.\n" + body)[0])
        self.assertEqual([], self.check("configsrv/log/log.cpp", self.OPENING + body))

    def test_a_short_source_and_a_test_need_no_opening(self):
        self.assertEqual([], self.check("configsrv/log/log.cpp", "int x;\n" * 60))
        self.assertEqual([], self.check("tests/configsrv/log_test.cpp", "int x;\n" * 600))

    def test_no_source_of_the_product_has_more_than_500_lines(self):
        for count, expected in ((500, 0), (501, 1)):
            text = self.OPENING + "int x;\n" * (count - 1)
            self.assertEqual(expected, len(self.check("tools/appcfg/get.cpp", text)))
            self.assertEqual(0, len(self.check("bench/processes/kill.cpp", text)))


if __name__ == "__main__":
    unittest.main(verbosity=2)

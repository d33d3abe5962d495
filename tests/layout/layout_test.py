"""Runs the rules of layout.py on this tree, and each rule on a tree made to break it.

Usage: layout_test.py SOURCE_DIR BUILD_DIR
"""

import os
import sys
import tempfile
import unittest

import layout

SOURCE_DIR, BUILD_DIR = os.getcwd(), ""


class ThisTreeTest(unittest.TestCase):
    @classmethod
    def setUpClass(cls):
        cls.tree = layout.Tree(SOURCE_DIR)

    def expect_none(self, problems):
        if problems:
            self.fail("\n" + "\n".join(problems))

    def test_it_is_not_empty(self):
        self.assertIn("tests/layout/layout.py", self.tree.files)
        self.assertIn("appconfig_core", layout.targets(self.tree))

    def test_no_target_links_upward(self):
        self.expect_none(layout.link_problems(self.tree))

    def test_no_file_includes_upward_or_past_its_link_list(self):
        self.expect_none(layout.include_problems(self.tree))

    def test_no_folders_form_a_ring(self):
        self.expect_none(layout.cycle_problems(self.tree))

    def test_every_source_is_in_a_target(self):
        self.expect_none(layout.orphan_problems(self.tree))

    def test_applications_see_no_generated_header(self):
        self.expect_none(layout.application_header_problems(self.tree))

    def test_the_architecture_page_has_the_same_table(self):
        self.expect_none(layout.document_problems(self.tree))

    def test_every_test_is_run(self):
        self.expect_none(layout.unrun_test_problems(self.tree, *layout.read_build(BUILD_DIR)))

    def test_every_header_is_guarded(self):
        self.expect_none(layout.pragma_problems(self.tree))

    def test_names_are_lower_snake(self):
        self.expect_none(layout.naming_problems(self.tree))

    def test_text_points_at_nothing_outside(self):
        self.expect_none(layout.text_problems(self.tree))

    def test_links_lead_somewhere(self):
        self.expect_none(layout.dead_link_problems(self.tree))

    def test_every_decision_is_in_the_index(self):
        self.expect_none(layout.unlisted_decision_problems(self.tree))


# A tree in which everything is right. Each test below changes one thing.
GOOD = {
    "appconfig/core/CMakeLists.txt": "appconfig_folder(core SOURCES key.cpp HEADERS error.h key.h)",
    "appconfig/core/error.h": "#pragma once\n",
    "appconfig/core/key.h": "#pragma once\n#include <string>\n",
    "appconfig/core/key.cpp": '#include "appconfig/core/key.h"\n',
    "appconfig/cache/CMakeLists.txt": "appconfig_folder(cache SOURCES cache.cpp HEADERS cache.h\n  USES core)",
    "appconfig/cache/cache.h": '#pragma once\n#include "appconfig/core/key.h"\n',
    "appconfig/cache/cache.cpp": '#include "appconfig/cache/cache.h"\n',
    "appconfig/registry/CMakeLists.txt":
        "appconfig_folder(registry SOURCES registrar.cpp USES core)\n"
        "appconfig_folder(registration SOURCES registration.cpp USES registry manager)\n",
    "appconfig/registry/registrar.cpp": '#include "appconfig/core/key.h"\n',
    "appconfig/registry/registration.cpp": '#include "appconfig/manager/app_cfg_manager.h"\n',
    "appconfig/manager/CMakeLists.txt":
        "appconfig_folder(manager SOURCES app_cfg_manager.cpp HEADERS app_cfg_manager.h USES cache core)",
    "appconfig/manager/app_cfg_manager.h": '#pragma once\n#include "appconfig/cache/cache.h"\n',
    "appconfig/manager/app_cfg_manager.cpp": '#include "appconfig/core/key.h"\n',
    "platform/schema/CMakeLists.txt": "appconfig_folder(schema SOURCES ids.cpp HEADERS message_ids.h USES core)",
    "platform/schema/message_ids.h": "#pragma once\n",
    "platform/schema/ids.cpp": '#include "appconfig/core/error.h"\n',
    "platform/messaging/CMakeLists.txt":
        "appconfig_folder(messaging SOURCES frame.cpp HEADERS endpoint.h INTERNAL internal/socket.h\n"
        "  USES_PRIVATELY schema)",
    "platform/messaging/endpoint.h": "#pragma once\n",
    "platform/messaging/internal/socket.h": "#pragma once\n",
    "platform/messaging/frame.cpp":
        '#include <sys/socket.h>\n#include "platform/messaging/internal/socket.h"\n'
        '#include "platform/schema/message_ids.h"\n',
    "examples/gateway/CMakeLists.txt":
        "add_executable(gateway main.cpp)\ntarget_link_libraries(gateway PRIVATE manager messaging)",
    "examples/gateway/main.cpp":
        '#include "appconfig/manager/app_cfg_manager.h"\n#include "platform/messaging/endpoint.h"\n',
    "tests/appconfig/core/CMakeLists.txt": "appconfig_test(core_test SOURCES key_test.cpp USES core)",
    "tests/appconfig/core/key_test.cpp": '#include <gtest/gtest.h>\n#include "appconfig/core/key.h"\n',
    "docs/architecture.md": "".join(
        f"| `{folder}` | text | {', '.join(f'`{a}`' for a in allowed)} |\n"
        for folder, allowed in layout.FOLDERS.items()
    ),
}


class MadeUpTreeTest(unittest.TestCase):
    def setUp(self):
        directory = tempfile.TemporaryDirectory()
        self.addCleanup(directory.cleanup)
        self.root = directory.name

    def tree(self, **changes):
        """The good tree with the files named in changes (by path, in a dict) replaced or added."""
        for path, text in {**GOOD, **changes.get("files", {})}.items():
            full = os.path.join(self.root, path)
            os.makedirs(os.path.dirname(full), exist_ok=True)
            with open(full, "w", encoding="utf-8") as file:
                file.write(text)
        return layout.Tree(self.root)

    def expect_one(self, problems, *texts):
        self.assertEqual(1, len(problems), problems)
        for text in texts:
            self.assertIn(text, problems[0])

    def build(self):
        """What a configured build says of the good tree's tests."""
        source = os.path.join(self.root, "tests/appconfig/core/key_test.cpp")
        return (
            [{"file": source, "command": f"c++ -o tests/CMakeFiles/core_test.dir/key_test.cpp.o -c {source}"}],
            {"tests": [{"name": "KeyTest.Folds", "command": ["build/bin/core_test", "--gtest_filter=x"]}]},
        )


class RuleTest(MadeUpTreeTest):
    def test_the_good_tree_breaks_no_rule(self):
        tree = self.tree()
        for rule in (
            layout.link_problems,
            layout.include_problems,
            layout.cycle_problems,
            layout.orphan_problems,
            layout.application_header_problems,
            layout.document_problems,
            layout.pragma_problems,
            layout.naming_problems,
            layout.text_problems,
            layout.dead_link_problems,
            layout.unlisted_decision_problems,
        ):
            self.assertEqual([], rule(tree), rule.__name__)
        self.assertEqual([], layout.unrun_test_problems(tree, *self.build()))

    def test_an_include_upward_is_found(self):
        tree = self.tree(files={"appconfig/core/key.cpp": '#include "appconfig/cache/cache.h"\n'})
        self.expect_one(layout.include_problems(tree), "appconfig/core/key.cpp", "appconfig/cache/cache.h")

    def test_a_link_upward_is_found(self):
        tree = self.tree(files={
            "appconfig/core/CMakeLists.txt": "appconfig_folder(core SOURCES key.cpp HEADERS error.h key.h USES cache)"})
        self.expect_one(layout.link_problems(tree), "core may not link cache")

    def test_a_private_link_upward_is_found(self):
        tree = self.tree(files={
            "appconfig/core/CMakeLists.txt":
                "appconfig_folder(core SOURCES key.cpp HEADERS error.h key.h USES_PRIVATELY cache)"})
        self.expect_one(layout.link_problems(tree), "core may not link cache")

    def test_a_link_line_added_elsewhere_is_found(self):
        tree = self.tree(files={"CMakeLists.txt": "target_link_libraries(core PRIVATE cache)"})
        self.expect_one(layout.link_problems(tree), "core may not link cache")

    def test_a_commented_link_line_is_none(self):
        tree = self.tree(files={"CMakeLists.txt": "# target_link_libraries(core PRIVATE cache)"})
        self.assertEqual([], layout.link_problems(tree))

    def test_an_include_without_its_link_is_found(self):
        tree = self.tree(files={
            "appconfig/cache/CMakeLists.txt": "appconfig_folder(cache SOURCES cache.cpp HEADERS cache.h)"})
        self.expect_one(layout.include_problems(tree), "cache does not link appconfig/core")

    def test_an_exception_holds_for_its_own_file_alone(self):
        tree = self.tree(files={
            "appconfig/registry/registrar.cpp": '#include "appconfig/manager/app_cfg_manager.h"\n'})
        self.expect_one(layout.include_problems(tree), "registry/registrar.cpp", "may not include")

    def test_an_exception_holds_for_its_own_target_alone(self):
        tree = self.tree(files={
            "appconfig/registry/CMakeLists.txt":
                "appconfig_folder(registry SOURCES registrar.cpp registration.cpp USES core manager)"})
        self.expect_one(layout.link_problems(tree), "registry may not link manager")

    def test_messaging_uses_nothing_of_the_schema_but_ids(self):
        tree = self.tree(files={"platform/messaging/frame.cpp": '#include "platform/schema/config_if.pb.h"\n'})
        self.expect_one(layout.include_problems(tree), "platform/messaging may include only", "config_if.pb.h")

    def test_the_schema_uses_nothing_of_core_but_error_codes(self):
        tree = self.tree(files={"platform/schema/ids.cpp": '#include "appconfig/core/key.h"\n'})
        self.expect_one(layout.include_problems(tree), "platform/schema may include only error.h")

    def test_an_example_includes_only_what_is_installed_for_it(self):
        tree = self.tree(files={
            "examples/gateway/main.cpp": '#include "platform/messaging/internal/socket.h"\n'})
        self.expect_one(layout.include_problems(tree), "examples/gateway/main.cpp", "may include only")

    def test_a_library_from_outside_stays_in_its_folder(self):
        tree = self.tree(files={"appconfig/cache/cache.cpp": "#include <sqlite3.h>\n"})
        self.expect_one(layout.include_problems(tree), "may not include <sqlite3.h>")

    def test_a_link_of_a_library_from_outside_stays_in_its_folder(self):
        tree = self.tree(files={
            "appconfig/cache/CMakeLists.txt":
                "appconfig_folder(cache SOURCES cache.cpp HEADERS cache.h USES core SQLite::SQLite3)"})
        self.expect_one(layout.link_problems(tree), "cache may not link SQLite::SQLite3")

    def test_core_does_no_input_or_output(self):
        tree = self.tree(files={"appconfig/core/key.cpp": "#include <unistd.h>\n"})
        self.expect_one(layout.include_problems(tree), "core includes the standard library alone")

    def test_an_include_relative_to_its_folder_is_found(self):
        tree = self.tree(files={"appconfig/core/key.cpp": '#include "key.h"\n'})
        self.expect_one(layout.include_problems(tree), '"key.h" is no file of the tree')

    def test_an_own_header_in_angle_brackets_is_found(self):
        tree = self.tree(files={"appconfig/cache/cache.cpp": "#include <appconfig/core/key.h>\n"})
        self.expect_one(layout.include_problems(tree), "goes in quotes")

    def test_product_code_includes_no_test(self):
        tree = self.tree(files={
            "tests/support/clock.h": "#pragma once\n",
            "appconfig/core/key.cpp": '#include "tests/support/clock.h"\n'})
        self.expect_one(layout.include_problems(tree), "may not include tests/support/clock.h")

    def test_a_folder_outside_the_table_is_found(self):
        tree = self.tree(files={"extra/thing.cpp": '#include "appconfig/core/key.h"\n'})
        self.expect_one(layout.include_problems(tree), "extra/thing.cpp", "no row")

    def test_a_ring_is_found(self):
        tree = self.tree(files={
            "configsrv/model/CMakeLists.txt": "appconfig_folder(model SOURCES m.cpp USES store)",
            "configsrv/store/CMakeLists.txt": "appconfig_folder(store SOURCES s.cpp USES model)"})
        self.expect_one(layout.cycle_problems(tree), "model -> store -> model")

    def test_a_source_in_no_target_is_found(self):
        tree = self.tree(files={"appconfig/core/lost.cpp": ""})
        self.expect_one(layout.orphan_problems(tree), "appconfig/core/lost.cpp")

    def test_a_header_in_no_target_is_found(self):
        tree = self.tree(files={"appconfig/core/lost.h": "#pragma once\n"})
        self.expect_one(layout.orphan_problems(tree), "appconfig/core/lost.h")

    def test_a_generated_header_on_its_way_to_applications_is_found(self):
        tree = self.tree(files={
            "appconfig/cache/cache.h": '#pragma once\n#include "platform/schema/config_if.pb.h"\n'})
        self.expect_one(layout.application_header_problems(tree), "appconfig/cache/cache.h", "config_if.pb.h")

    def test_a_row_that_the_architecture_page_tells_otherwise_is_found(self):
        text = GOOD["docs/architecture.md"].replace("`appconfig/cache` | text | `base`, `appconfig/core`",
                                                    "`appconfig/cache` | text | `platform/schema`")
        self.expect_one(layout.document_problems(self.tree(files={"docs/architecture.md": text})),
                        "row appconfig/cache")

    def test_a_row_that_the_architecture_page_lacks_is_found(self):
        rows = GOOD["docs/architecture.md"].splitlines()
        text = "\n".join(row for row in rows if not row.startswith("| `appconfig/core`"))
        self.expect_one(layout.document_problems(self.tree(files={"docs/architecture.md": text})),
                        "no row for appconfig/core")

    def test_a_header_without_its_guard_is_found(self):
        tree = self.tree(files={"appconfig/core/error.h": "// #pragma once is missing\n"})
        self.expect_one(layout.pragma_problems(tree), "appconfig/core/error.h")

    def test_a_name_in_camel_case_is_found(self):
        tree = self.tree(files={"appconfig/core/ConfigVar.cpp": ""})
        self.expect_one(layout.naming_problems(tree), "ConfigVar is not lower_snake")

    def test_a_folder_in_camel_case_is_found(self):
        tree = self.tree(files={"tests/appConfig/key_test.cpp": ""})
        self.expect_one(layout.naming_problems(tree), "appConfig is not lower_snake")


    def test_a_link_that_leads_nowhere_is_found(self):
        tree = self.tree(files={"docs/page.md": "[here](architecture.md) [there](gone.md) [web](https://a.b#c)"})
        self.expect_one(layout.dead_link_problems(tree), "docs/page.md: gone.md")

    def test_a_link_to_no_heading_is_found(self):
        tree = self.tree(files={
            "docs/page.md": "# A page's top\n[here](#a-pages-top) [there](other.md#what-is-there) [not](other.md#gone)",
            "docs/other.md": "## What is `there`\n"})
        self.expect_one(layout.dead_link_problems(tree), "docs/page.md: other.md#gone leads to no heading")

    def test_a_decision_that_the_index_lacks_is_found(self):
        tree = self.tree(files={
            "docs/decisions/README.md": "[a](a.md)", "docs/decisions/a.md": "", "docs/decisions/b.md": ""})
        self.expect_one(layout.unlisted_decision_problems(tree), "does not list b.md")


class RunTestsTest(MadeUpTreeTest):
    def test_a_test_in_no_target_is_found(self):
        tree = self.tree(files={"tests/appconfig/core/lost_test.cpp": ""})
        self.expect_one(layout.unrun_test_problems(tree, *self.build()), "lost_test.cpp", "in no CMake target")

    def test_a_test_that_is_built_but_not_run_is_found(self):
        compiled, _ = self.build()
        self.expect_one(layout.unrun_test_problems(self.tree(), compiled, {"tests": []}),
                        "built into core_test, which ctest does not run")

    def test_a_test_that_is_not_built_yet_is_no_problem(self):
        compiled, _ = self.build()
        listing = {"tests": [{"name": "core_test_NOT_BUILT"}]}
        self.assertEqual([], layout.unrun_test_problems(self.tree(), compiled, listing))

    def test_a_python_test_that_is_not_run_is_found(self):
        tree = self.tree(files={"tests/demo/demo_test.py": ""})
        self.expect_one(layout.unrun_test_problems(tree, *self.build()), "demo_test.py", "ctest does not run it")

    def test_a_test_outside_tests_is_found(self):
        tree = self.tree(files={"appconfig/core/key_test.cpp": ""})
        self.expect_one(layout.unrun_test_problems(tree, *self.build()), "tests live below tests/")

    def test_a_fuzz_program_whose_corpus_nobody_replays_is_found(self):
        tree = self.tree(files={"fuzz/key_fuzz.cpp": ""})
        self.expect_one(layout.unrun_test_problems(tree, *self.build()), "key_fuzz.cpp", "in no CMake target")

    def test_a_fuzz_program_outside_fuzz_is_found(self):
        tree = self.tree(files={"appconfig/core/key_fuzz.cpp": ""})
        self.expect_one(layout.unrun_test_problems(tree, *self.build()), "fuzz programs live in fuzz/")


class TextRuleTest(MadeUpTreeTest):
    # In two halves each, so that this file passes the rule that it tests.
    POINTING_OUTSIDE = (
        "see /ho" "me/ann/notes",
        "cd /wor" "k/main",
        "rm /tm" "p/appconfig.log",
        "as the sp" "ec says",
        "read sp" "ec.md",
        "the specification s" "ays so",
        "see Par" "t 4.2",
    )
    HARMLESS = (
        "directory=${TMPDIR:-/tmp}/appconfig",
        "https://example.org/ho" "me/page",
        'mkdtemp("/tm' 'p/appconfig-XXXXXX")',
        "part 4 of 5 was written",
        "the special case",
        "/run/appconfig, /etc/appconfig and /dev/null",
    )

    def test_text_that_points_outside_is_found(self):
        for text in self.POINTING_OUTSIDE:
            with self.subTest(text):
                self.expect_one(layout.text_problems(self.tree(files={"docs/page.md": "one\n" + text})),
                                "docs/page.md:2")

    def test_text_that_only_looks_like_it_is_not(self):
        for text in self.HARMLESS:
            with self.subTest(text):
                self.assertEqual([], layout.text_problems(self.tree(files={"docs/page.md": text})))


if __name__ == "__main__":
    SOURCE_DIR, BUILD_DIR = (os.path.abspath(argument) for argument in sys.argv[1:3])
    unittest.main(argv=sys.argv[:1], verbosity=2)

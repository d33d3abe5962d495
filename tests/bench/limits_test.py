"""When scripts/bench --check refuses, and what scripts/bench --write writes down."""

import os
import sys
import unittest
import unittest.mock

SOURCE_DIR = os.path.abspath(sys.argv[1])
sys.path.insert(0, os.path.join(SOURCE_DIR, "bench", "report"))
import instructions  # noqa: E402
import limits  # noqa: E402
import rows  # noqa: E402
import run  # noqa: E402

Figures = limits.Figures
WRITTEN = {"read": Figures(20000, 1250), "durable_write_10": Figures(252000, 24700)}


def judge(taken, floor=1250):
    return limits.judge("read", Figures(taken, floor), WRITTEN["read"])


class LimitTest(unittest.TestCase):
    def test_three_percent_more_are_allowed_and_no_more(self):
        for taken, passed in ((20000, True), (20600, True), (20601, False), (40000, False)):
            with self.subTest(taken):
                self.assertIs(passed, judge(taken).passed)

    def test_what_is_past_its_limit_says_how_far_and_what_to_do(self):
        [remark] = judge(21000).remarks
        self.assertRegex(remark, "^read takes 5.0% more .* scripts/bench --write")

    def test_what_fell_passes_and_is_to_be_written_down(self):
        verdict = judge(19000)
        self.assertTrue(verdict.passed)
        self.assertRegex(verdict.remarks[0], "^read takes 5.0% less .* scripts/bench --write")

    def test_what_stayed_has_no_remark(self):
        self.assertEqual([], judge(19500).remarks)

    def test_a_floor_that_moved_points_at_the_libraries(self):
        verdict = judge(20000, floor=1500)
        self.assertTrue(verdict.passed)
        self.assertRegex(verdict.remarks[0], "its floor took 1,250 .* takes 1,500 now, .* libraries")

    def test_an_operation_that_was_never_written_down_fails(self):
        verdict = limits.judge("new", Figures(1, 1), None)
        self.assertFalse(verdict.passed)
        self.assertRegex(verdict.remarks[0], "new is not in docs/performance.md")

    def test_an_operation_that_is_not_counted_any_more_fails(self):
        verdicts = limits.judge_all({"read": WRITTEN["read"]}, WRITTEN)
        self.assertEqual([("read", True), ("durable_write_10", False)], [(v.name, v.passed) for v in verdicts])


class TableTest(unittest.TestCase):
    PAGE = "before\n\n" + limits.table({"read": Figures(1, 1)}) + "\n- after\n"

    def test_what_is_written_is_read_again(self):
        self.assertEqual(WRITTEN, limits.written_down(limits.with_table(self.PAGE, WRITTEN)))

    def test_the_page_around_the_table_stays(self):
        page = limits.with_table(self.PAGE, WRITTEN)
        self.assertTrue(page.startswith("before\n\n| operation, all"))
        self.assertTrue(page.endswith("|\n\n- after\n"))
        self.assertIn("| read | 20,000 | 1,250 | 16.0 | 20,600 |\n", page)

    def test_a_page_without_the_table_is_left_alone(self):
        self.assertIsNone(limits.with_table("nothing\n", WRITTEN))
        self.assertEqual({}, limits.written_down("nothing\n"))

    def test_this_systems_page_has_each_operation(self):
        self.assertEqual([row.name for row in rows.COUNTED], list(limits.written_down(run.read_page())))


class Runner:
    def __init__(self):
        self.broken = []


class CheckTest(unittest.TestCase):
    def check(self, factor=1.0, must_count=True, why_not=None):
        """With the figures of this system's page, each times the factor."""
        page = limits.written_down(run.read_page())
        counted = {name: Figures(one.instructions * factor, one.floor) for name, one in page.items()}
        with unittest.mock.patch.object(run, "count_together", return_value=counted), \
                unittest.mock.patch.object(run, "count_instructions", return_value={}), \
                unittest.mock.patch.object(instructions, "why_not", return_value=why_not), \
                unittest.mock.patch("builtins.print") as printed:
            ended = run.check_instructions(Runner(), must_count)
        return ended, "\n".join(str(call.args[0]) for call in printed.call_args_list)

    def test_what_is_written_down_is_kept(self):
        ended, text = self.check()
        self.assertEqual(0, ended)
        self.assertNotIn("PAST IT", text)
        self.assertRegex(text, r"uncached_read: [\d,]+ instructions, limit [\d,]+ ")

    def test_a_figure_past_its_limit_ends_badly(self):
        ended, text = self.check(factor=1.04)
        self.assertEqual(1, ended)
        self.assertRegex(text, "durable_write: .* PAST IT")

    def test_a_machine_that_cannot_count_ends_well_unless_it_must(self):
        for must_count, expected in ((False, 0), (True, 1)):
            with self.subTest(must_count):
                ended, text = self.check(must_count=must_count, why_not="this machine is aarch64")
                self.assertEqual(expected, ended)
                self.assertIn("no instructions were counted: this machine is aarch64", text)


if __name__ == "__main__":
    unittest.main(argv=sys.argv[:1])

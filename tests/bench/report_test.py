"""What scripts/bench makes of the figures that the programs give it."""

import os
import sys
import unittest

SOURCE_DIR = os.path.abspath(sys.argv[1])
sys.path.insert(0, os.path.join(SOURCE_DIR, "bench", "report"))
import page  # noqa: E402
import rows  # noqa: E402
import run  # noqa: E402


def figures(p50, p99=0, switches=-1):
    return {"p50": p50, "p99": p99, "samples": 10, "switches": switches}


def row(pairs, limit=None, unit="us", compared="p50", placement=rows.PINNED):
    return run.finished_row("read", unit, placement, pairs, limit, compared)


class RowTest(unittest.TestCase):
    def test_a_ratio_is_taken_round_by_round(self):
        # The second round met other work, on both sides: its ratio is that of the others.
        pairs = [(figures(12), figures(10)), (figures(120), figures(100)), (figures(12), figures(10))]
        self.assertAlmostEqual(1.2, row(pairs)["ratio"])

    def test_a_figure_is_the_median_of_the_rounds(self):
        finished = row([(figures(12), figures(10)), (figures(99), figures(50)), (figures(14), figures(11))])
        self.assertEqual((14, 11, 3), (finished["p50"], finished["floor_p50"], finished["rounds"]))

    def test_the_spread_is_that_of_the_ratios(self):
        pairs = [(figures(10), figures(10)), (figures(15), figures(10)), (figures(20), figures(10))]
        self.assertAlmostEqual((2.0 - 1.0) / 1.5, row(pairs)["spread"])

    def test_one_round_has_no_spread(self):
        self.assertIsNone(row([(figures(10), figures(10))])["spread"])

    def test_a_row_without_a_floor_has_no_ratio(self):
        finished = row([(figures(764), None)], unit="bytes")
        self.assertEqual((764, None, None), (finished["p50"], finished["floor_p50"], finished["ratio"]))

    def test_a_rate_has_no_p99(self):
        self.assertIsNone(row([(figures(1000), figures(2000))], unit="requests/s")["p99"])

    def test_a_row_may_compare_its_p99(self):
        pairs = [(figures(10, 90), figures(10, 30))]
        self.assertAlmostEqual(3.0, row(pairs, compared="p99")["ratio"])

    def test_switches_that_were_not_counted_are_absent(self):
        finished = row([(figures(10, switches=2), figures(10))])
        self.assertEqual((2, None), (finished["switches"], finished["floor_switches"]))


class LimitTest(unittest.TestCase):
    def test_a_limit_holds_for_the_digits_that_are_shown(self):
        for p50, kept in ((14.0, True), (14.04, True), (14.06, False), (20, False)):
            with self.subTest(p50):
                self.assertIs(kept, row([(figures(p50), figures(10))], rows.Limit(1.4))["kept"])

    def test_a_rate_has_to_be_at_least_its_limit(self):
        limit = rows.Limit(0.6, rows.AT_LEAST)
        for p50, kept in ((7, True), (6, True), (5, False)):
            with self.subTest(p50):
                self.assertIs(kept, row([(figures(p50), figures(10))], limit)["kept"])

    def test_a_limit_may_be_one_of_the_figure_itself(self):
        limit = rows.Limit(250, of="p50")
        for p50, kept in ((249, True), (251, False)):
            with self.subTest(p50):
                self.assertIs(kept, row([(figures(p50), figures(1))], limit, "ms")["kept"])

    def test_a_limit_of_one_placement_says_nothing_of_the_other(self):
        limit = rows.Limit(1.4, placement=rows.PINNED)
        finished = row([(figures(99), figures(1))], limit, placement=rows.FREE)
        self.assertEqual((None, None), (finished["limit"], finished["kept"]))


class TableTest(unittest.TestCase):
    def test_no_two_rows_have_one_name(self):
        names = [r.name for r in rows.IN_PROCESS] + [r.case for r in rows.PROCESSES]
        self.assertEqual(sorted(set(names)), sorted(names))

    def test_counted_switches_make_a_row_of_their_own(self):
        read = next(r for r in rows.PROCESSES if r.switches)
        pairs = [(figures(10, switches=2.04), figures(9, switches=2))]
        finished = run.table_rows({(read, rows.PINNED): pairs}, {})
        self.assertEqual([read.case + "_pinned", read.case + "_switches_pinned"], [r["name"] for r in finished])
        self.assertEqual((2.04, True), (finished[1]["p50"], finished[1]["kept"]))


class InstructionsTest(unittest.TestCase):
    TEXT = next(r for r in rows.IN_PROCESS if r.name == "cached_text_1000_threads_1")
    COUNTS = {(TEXT.program, TEXT.ours): 1074.4, (TEXT.program, TEXT.floor): 996.36}

    def finished(self, measured_row, counts):
        [finished] = run.table_rows({(measured_row, None): [(figures(12), figures(10))]}, counts)
        return finished

    def test_a_row_has_its_own_and_its_floors(self):
        finished = self.finished(self.TEXT, self.COUNTS)
        self.assertEqual((1074.4, 996.36), (finished["instructions"], finished["floor_instructions"]))

    def test_what_was_not_counted_is_absent(self):
        finished = self.finished(self.TEXT, {})
        self.assertEqual((None, None), (finished["instructions"], finished["floor_instructions"]))

    def test_a_row_between_processes_has_none(self):
        finished = row([(figures(10), figures(10))])
        self.assertEqual((None, None), (finished["instructions"], finished["floor_instructions"]))

    def test_no_row_with_several_threads_is_counted(self):
        for measured_row in rows.IN_PROCESS:
            with self.subTest(measured_row.name):
                several = "threads_4" in measured_row.name or "while_notices" in measured_row.name
                self.assertIs(not several, measured_row.counted)

    def test_a_brief_run_counts_one_row_of_each_program(self):
        effort = run.Effort(quick=True)
        programs = [r.program for r in rows.IN_PROCESS if effort.counts(r)]
        self.assertEqual(sorted({r.program for r in rows.IN_PROCESS}), sorted(programs))

    def test_a_counted_operation_is_a_row_with_instructions_alone(self):
        counted = run.counted_row("uncached_read", run.limits.Figures(20198, 1254))
        self.assertEqual(("uncached_read_instructions", 20198, 1254, None, None),
                         tuple(counted[key] for key in ("name", "instructions", "floor_instructions", "p50", "kept")))
        self.assertIn("| 16.11 |", page.table([counted]))

    def test_the_page_has_both(self):
        heading, _, line = page.table([self.finished(self.TEXT, self.COUNTS)]).splitlines()
        self.assertTrue(heading.endswith("| instructions | of floor |"), heading)
        self.assertTrue(line.endswith("| 1,074 | 996 |"), line)


if __name__ == "__main__":
    unittest.main(argv=sys.argv[:1])

#!/usr/bin/env python3
"""Tests the arithmetic of script/bench: ratios, verdicts, growth, and the tables of the page."""
import pathlib
import sys
import unittest

ROOT = pathlib.Path(__file__).resolve().parents[2]
sys.path.insert(0, str(ROOT / "script"))
import bench_page  # noqa: E402
import bench_run  # noqa: E402
import bench_table  # noqa: E402
from bench_aims import AIMS, Aim, Spread, verdict  # noqa: E402


def rounds(*seconds, **counters):
    return [bench_run.Result(time, counters, 1) for time in seconds]


class VerdictTest(unittest.TestCase):
    def test_spread_decides(self):
        at_least, at_most = Aim("t", "w", at_least=2), Aim("t", "w", at_most=2)
        for aim, spread, expected in [
                (at_least, Spread(2, 3, 4), "reached"), (at_least, Spread(1.9, 3, 4), "undecided"),
                (at_least, Spread(1, 1.5, 2), "undecided"), (at_least, Spread(1, 1.5, 1.9), "missed"),
                (at_most, Spread(1, 1.5, 2), "reached"), (at_most, Spread(1, 1.5, 2.1), "undecided"),
                (at_most, Spread(2.1, 3, 4), "missed")]:
            with self.subTest(aim=aim, spread=spread):
                self.assertEqual(verdict(aim, spread), expected)

    def test_each_aim_is_written_once(self):
        names = [(aim.task, aim.who) for aim in AIMS]
        self.assertEqual(len(names), len(set(names)))


class RunTest(unittest.TestCase):
    def test_ratio_has_the_times_of_one_round(self):
        # Both are slow in the same round; times of different rounds would give 0.5 and 8.
        ratios = bench_run.ratios_of({"qx": rounds(4, 1, 2), "peer": rounds(8, 2, 4)})
        self.assertEqual(ratios, {"peer": Spread(2, 2, 2)})

    def test_growth_is_the_factor_of_each_real_doubling(self):
        # 3000 is not twice a size. Each size has its least time in another round.
        results = {"1000": rounds(1, 2, 2), "2000": rounds(22, 2.2, 22), "3000": rounds(9, 9, 9), "4000": rounds(44, 8.8, 5.5)}
        self.assertEqual([(size, round(factor, 9)) for size, factor in bench_run.growth_of(results)], [(2000, 2.2), (4000, 2.5)])
        self.assertEqual([(size, round(factor, 9)) for size, factor in bench_run.least_growth_of(results)],
                         [(2000, 1.1), (4000, 0.25)])

    def test_calls_of_the_timed_parts_count(self):
        trace = "\n".join([
            'execve("bench", ...) = 0', 'openat(AT_FDCWD, "before", O_RDONLY) = 3',
            "clock_gettime(CLOCK_THREAD_CPUTIME_ID, {tv_sec=0}) = 0", 'read(3, "a\\nread(", 8) = 8', "--- SIGUSR1 {} ---",
            "close(3) = 0", "clock_gettime(CLOCK_THREAD_CPUTIME_ID, {tv_sec=0}) = 0", "munmap(0x7f, 4096) = 0",
            "clock_gettime(CLOCK_THREAD_CPUTIME_ID, {tv_sec=0}) = 0", "brk(0x5555) = 0x5555",
            "clock_gettime(CLOCK_REALTIME, {tv_sec=0}) = 0",
            "clock_gettime(CLOCK_THREAD_CPUTIME_ID, {tv_sec=0}) = 0", "exit_group(0) = ?", "+++ exited with 0 +++"])
        self.assertEqual(bench_run.timed_calls(trace), 4)

    def test_trace_without_pairs_of_clock_reads_is_refused(self):
        for trace in ["", "read(3) = 0", bench_run.TIMER_READ + " {}) = 0"]:
            with self.subTest(trace=trace), self.assertRaises(SystemExit):
                bench_run.timed_calls(trace)

    def test_growth_of_calls_is_that_of_each_doubling(self):
        counts = {1000: 0, 2000: 3, 3000: 99, 10000: 4, 20000: 25, 100000: 16, 200000: 36, 2000000: 99}
        self.assertEqual(bench_run.call_growth_of(counts), [(2000, 1), (20000, 2.5), (200000, 2.25)])

    def test_threads_count_as_work_in_the_time_of_one(self):
        self.assertEqual(bench_run.threads_of({"1": rounds(2), "2": rounds(2.5)})["2"], Spread(1.6, 1.6, 1.6))

    def test_counters_keep_their_spread(self):
        self.assertEqual(bench_run.counters_of({"qx": rounds(1, faults=3.0) + rounds(1, faults=5.0)}), {"faults": Spread(3, 4, 5)})


def document(title, spread):
    return {"column": title, "source": "here", "processor": {"name": title, "family": "", "model": "", "wide": []}, "cores": 2,
            "rounds": 7, "tasks": {"what": {"values": {"pugixml": list(spread)}, "instructions": {"qx": 100, "pugixml": 150}},
                                   "grow_x": {"growth": [[10, 2.04], [20, 2.41]], "instruction_growth": [[20, 2.02]],
                                              "calls": [[5, 16], [10, 16], [20, 36]]}}}


class PageTest(unittest.TestCase):
    def test_each_file_is_a_column(self):
        page = "".join(f"<!-- table {name} -->\nold\n<!-- end -->\n" for name in ("sources", "values", "growth"))
        page = bench_page.with_tables(page, [document("A", (1.3, 1.4, 1.5)), document("B", (1.1, 1.2, 1.3))])
        self.assertNotIn("old", page)
        self.assertIn("| what | pugixml | at least 1.2 | 1.30 / 1.40 / 1.50, instructions 1.50 "
                      "| 1.10 / 1.20 / 1.30 **undecided**, instructions 1.50 |", page)
        self.assertIn("| x |" + 2 * " 2.04, 2.41 (instructions 2.02); calls 2.25 |", page)

    def test_document_without_growth_is_no_column_of_growth(self):
        without = document("A", (1, 2, 3))
        del without["tasks"]["grow_x"]
        table = bench_page.growth_table([without, document("B", (1, 2, 3))])
        self.assertEqual(table.splitlines()[0], "| task | B |")

    def test_rows_have_readable_names(self):
        names = {("threads_transfer", "1"): "1 thread", ("threads_transfer", "2"): "2 threads", ("a", "cp_a"): "`cp -a`",
                 ("a", "b_c"): "b c"}
        self.assertEqual({row: bench_page.who_text(*row) for row in names}, names)

    def test_page_without_a_mark_is_refused(self):
        with self.assertRaises(SystemExit):
            bench_page.with_tables("<!-- table sources -->\n<!-- end -->\n", [])

    def test_page_has_the_tables_of_the_results(self):
        before = bench_page.PAGE.read_text()
        self.assertEqual(bench_page.with_tables(before, bench_page.documents_in(bench_page.RESULTS)), before)


class AimsTest(unittest.TestCase):
    def test_growth_over_the_limit_is_missed(self):
        tasks = {"grow_fast": {"growth_least": [(2000, 2.3)]}, "grow_slow": {"growth_least": [(2000, 2.0), (20000, 2.31)]},
                 "grow_set_attributes": {"growth_least": [(2000, 4.0)]}, "grow_ini_limit": {"growth_least": [(2000, 4.0)]}}
        self.assertEqual(bench_table.missed_aims({"tasks": tasks}), ["grow_slow/20000"])

    def test_growth_of_system_calls_has_the_same_limit(self):
        tasks = {"grow_x": {"growth_least": [(20, 2.0)], "calls": [(10, 10), (20, 24)]},
                 "grow_y": {"growth_least": [(20, 2.0)], "calls": [(10, 10), (20, 23)]}}
        self.assertEqual(bench_table.missed_aims({"tasks": tasks}), ["grow_x/20 (system calls)"])

    def test_only_an_aim_that_every_round_misses_counts(self):
        for most, expected in [(1.1, ["what/pugixml"]), (1.3, [])]:
            self.assertEqual(bench_table.missed_aims({"tasks": {"what": {"values": {"pugixml": Spread(1, 1, most)}}}}), expected)


if __name__ == "__main__":
    unittest.main()

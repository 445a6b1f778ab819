#!/usr/bin/env python3
"""Tests how script/emulated_tests.py reads the list, the tests of a program and the log of ctest."""
import pathlib
import sys
import unittest

ROOT = pathlib.Path(__file__).resolve().parents[2]
sys.path.insert(0, str(ROOT / "script"))
sys.dont_write_bytecode = True
import emulated_tests  # noqa: E402


class EmulatedTestsTest(unittest.TestCase):
    def test_names_are_those_of_the_filter(self):
        listing = "Running main()\nPlain.\n  One\n  Two\nRows/Table.\n  Row/0  # GetParam() = 1\n"
        names = list(emulated_tests.names_in(listing))
        self.assertEqual(names, ["Plain.One", "Plain.Two", "Rows/Table.Row/0"])
        self.assertEqual(emulated_tests.matches("*Table.*", names), ["Rows/Table.Row/0"])
        self.assertEqual(emulated_tests.matches("Plain.Three", names), [])

    def test_failed_tests_are_not_counted_as_passed(self):
        log = ("[==========] 3 tests from 1 test suite ran. (5 ms total)\n[  PASSED  ] 3 tests.\n"
               "[==========] 2 tests from 2 test suites ran. (5 ms total)\n[  PASSED  ] 1 test.\n")
        self.assertEqual(emulated_tests.counts_in(log), (5, 4))

    def test_each_line_of_the_list_has_a_reason(self):
        lines = list(emulated_tests.entries(emulated_tests.LIST.read_text(encoding="utf-8")))
        self.assertEqual(len(lines), len({line[:2] for line in lines}))


if __name__ == "__main__":
    unittest.main()

#!/usr/bin/env python3
"""Tests script/plain_english.py: which texts it refuses, and which lines it reports."""
import pathlib
import sys
import unittest

sys.path.insert(0, str(pathlib.Path(__file__).resolve().parents[2] / "script"))
import plain_english  # noqa: E402

# Written in two parts, so that this file itself passes the check.
WORD, OTHER, BEHIND = "to" "ld", "an" "ew", "beh" "ind"
TELLS, THAT = "tel" "ls", "that"


def lines(path, text):
    return [line for line, _ in plain_english.findings(path, text)]


class CodeTest(unittest.TestCase):
    def test_word_in_a_comment_is_found_with_its_line(self):
        self.assertEqual(lines("base/A.h", f"int a;\n// is {WORD} here\n/* and\n {OTHER} */\n"), [2, 4])

    def test_word_in_code_is_not_found(self):
        self.assertEqual(lines("base/A.h", f"int {WORD} = 1; // 'x'\nchar c = '\"'; int {OTHER};\n"), [])

    def test_phrase_is_found_across_the_lines_of_a_comment(self):
        self.assertEqual(lines("base/A.h", f"// it {TELLS}\n// {THAT} much\n"), [1])
        self.assertEqual(lines("base/A.h", f"f();  // it {TELLS}\nint a;\n// {THAT} much\n"), [])

    def test_literals_count_except_in_the_module(self):
        text = f'auto a = "{WORD}";\n'
        self.assertEqual(lines("base/A.cpp", text), [])
        for path in ("base/tools/A.cpp", "tools/qxctl/A.cpp", "tests/base/A.cpp"):
            self.assertEqual(lines(path, text), [1], path)

    def test_behind_is_allowed_where_it_does_not_mean_after(self):
        for text in (f"right {BEHIND} it", f"the text {BEHIND} the header", f"stands {BEHIND}"):
            self.assertEqual(lines("base/A.h", f"// {text}\n"), [1], text)
        self.assertEqual(lines("base/A.h", f"// nothing is left\n//   {BEHIND}\n"), [])
        for text in (f"nothing is left {BEHIND}", f"the reader falls {BEHIND}", f"it lags {BEHIND}",
                     f"it leaves {BEHIND} nothing", f"the file {BEHIND} a link", f"the rule text-{BEHIND}-bracket"):
            self.assertEqual(lines("base/A.h", f"// {text}\n"), [], text)


class TestNameTest(unittest.TestCase):
    def test_words_of_a_name_are_checked(self):
        self.assertEqual(lines("tests/a/A.cpp", f"\nTEST(A, ItIs{WORD.capitalize()}Once) {{\n"), [2])
        self.assertEqual(lines("tests/a/A.cpp", "TEST_F(A, UntoldStories) {\n"), [])
        self.assertEqual(lines("tests/a/a.bats", f'@test "it is {WORD}" {{\n'), [1])

    def test_name_may_have_80_characters_with_its_suite(self):
        for length, found in ((80, []), (81, [1])):
            self.assertEqual(lines("tests/a/A.cpp", f"TEST(Suite, {'N' * (length - 6)}) {{\n"), found)


class PageTest(unittest.TestCase):
    def test_prose_is_checked_and_code_is_not(self):
        text = f"# {OTHER}\n\n```\na ` {WORD}\n```\n\n`{WORD}` <!-- {WORD} -->\n{WORD}\n"
        self.assertEqual(lines("docs/a.md", text), [1, 8])

    def test_a_part_of_a_page_can_be_left_out(self):
        text = f"<!-- plain-english: off -->\n{WORD}\n<!-- plain-english: on -->\n{WORD}\n"
        self.assertEqual(lines("docs/a.md", text), [4])


class SchemaTest(unittest.TestCase):
    def test_descriptions_are_checked_and_names_are_not(self):
        text = f'{{"{WORD}": {{\n"description": "{OTHER}"}},\n"title": "it is {WORD}"}}\n'
        self.assertEqual(lines("docs/schemas/a.schema.json", text), [2, 3])


class ScriptTest(unittest.TestCase):
    def test_comments_and_docstrings_are_checked(self):
        self.assertEqual(lines("script/a", "#!/bin/sh\n# %s\necho %s\n" % (WORD, WORD)), [2])
        self.assertEqual(lines("script/a.py", f'"""{WORD}"""\nx = "{WORD}"\n'), [1])


if __name__ == "__main__":
    unittest.main()

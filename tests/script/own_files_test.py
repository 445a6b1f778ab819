#!/usr/bin/env python3
"""Tests script/own_files.py in a clone and in an unpacked source archive, which lacks the folder .git."""
import pathlib
import subprocess
import sys
import tempfile
import unittest

sys.dont_write_bytecode = True
sys.path.insert(0, str(pathlib.Path(__file__).resolve().parents[2] / "script"))
import own_files

FILES = ["a.cpp", "a.h", "tools/b.cpp", "tools/deep/c.cpp", "build/made.cpp", "build-2/made.cpp", "tools/__pycache__/d.cpp"]
IGNORED = "/build/\n/build-*/\n__pycache__/\n"


class OwnFilesTest(unittest.TestCase):
    def setUp(self):
        temporary = tempfile.TemporaryDirectory()
        self.addCleanup(temporary.cleanup)
        self.root = pathlib.Path(temporary.name)
        for file in FILES:
            (self.root / file).parent.mkdir(parents=True, exist_ok=True)
            (self.root / file).write_text("")
        (self.root / ".gitignore").write_text(IGNORED)

    def git(self, *arguments):
        subprocess.run(["git", "-C", self.root, *arguments], check=True, capture_output=True)

    def found(self, *patterns):
        return sorted(own_files.own_files(*patterns, root=self.root))

    def check_patterns(self):
        self.assertEqual(self.found("*.cpp"), ["a.cpp", "tools/b.cpp", "tools/deep/c.cpp"])
        self.assertEqual(self.found("tools/*.cpp", "*.h"), ["a.h", "tools/b.cpp", "tools/deep/c.cpp"])
        self.assertEqual(self.found("*"), [".gitignore", "a.cpp", "a.h", "tools/b.cpp", "tools/deep/c.cpp"])

    def test_archive_has_all_files_except_for_those_of_builds(self):
        self.check_patterns()

    def test_clone_has_tracked_and_new_files_and_no_ignored_ones(self):
        self.git("init", "--quiet")
        self.git("add", "a.cpp")
        self.check_patterns()

    def test_removed_file_of_a_clone_is_not_listed(self):
        self.git("init", "--quiet")
        self.git("add", "a.cpp")
        (self.root / "a.cpp").unlink()
        self.assertEqual(self.found("*.cpp"), ["tools/b.cpp", "tools/deep/c.cpp"])


if __name__ == "__main__":
    unittest.main()

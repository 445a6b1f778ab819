#!/usr/bin/env python3
"""Tests script/release in small repositories: what it writes, and which trees it refuses to release."""
import datetime
import pathlib
import shutil
import subprocess
import tempfile
import unittest

ROOT = pathlib.Path(__file__).resolve().parents[2]
DEBIAN_ENTRY = """qxremconxfer ({}-1) unstable; urgency=medium

  * A version.

 -- A Developer <developer@example.org>  Sat, 21 Nov 2026 10:00:00 +0000
"""


class Repository:
    def __init__(self, directory):
        self.root = pathlib.Path(directory)
        self.write("CMakeLists.txt", "project(QXRemConXfer VERSION 1.2.3 LANGUAGES C CXX)\n")
        self.write("README.md", "install qxctl_1.2.3-1_amd64.deb\n")
        self.write("docs/page.md", "It prints 1.2.3. The number 11.2.3 and 1.2.34 are others.\n")
        self.write("CHANGELOG.md", "# Changelog\n\n## 1.2.3, 2026-11-21\n\n- A change.\n\n## 1.0.0, 2026-01-01\n\n- Another.\n")
        self.write("packaging/debian/changelog", DEBIAN_ENTRY.format("1.2.3"))
        (self.root / "script").mkdir()
        shutil.copy(ROOT / "script/release", self.root / "script/release")
        (self.root / "packaging/abi").mkdir()
        shutil.copy(ROOT / "packaging/abi/libqxreport.abi", self.root / "packaging/abi/libqxreport.abi")
        self.git("init", "--quiet", "--initial-branch", "main")
        self.git("config", "user.name", "A Developer")
        self.git("config", "user.email", "developer@example.org")
        self.commit()

    def write(self, name, text):
        path = self.root / name
        path.parent.mkdir(parents=True, exist_ok=True)
        path.write_text(text)

    def read(self, name):
        return (self.root / name).read_text()

    def replace(self, name, old, new):
        text = self.read(name)
        assert old in text, (name, old)
        self.write(name, text.replace(old, new))

    def git(self, *arguments):
        subprocess.run(["git", *arguments], cwd=self.root, check=True, capture_output=True)

    def commit(self, tag=None):
        self.git("add", "--all")
        self.git("commit", "--quiet", "--message", "tree: a change")
        if tag:
            self.git("tag", tag)

    def release(self, *arguments):
        return subprocess.run([self.root / "script/release", *arguments], capture_output=True, text=True, check=False)


class ReleaseTest(unittest.TestCase):
    def setUp(self):
        directory = tempfile.TemporaryDirectory()
        self.addCleanup(directory.cleanup)
        self.repository = Repository(directory.name)

    def refused(self, reason, *arguments):
        done = self.repository.release(*(arguments or ("check",)))
        self.assertEqual(done.returncode, 1, done.stderr)
        self.assertIn(reason, done.stderr.splitlines()[0])

    def accepted(self):
        done = self.repository.release("check")
        self.assertEqual((done.returncode, done.stdout, done.stderr), (0, "", ""))

    def test_a_tree_whose_versions_agree_is_accepted(self):
        self.accepted()

    def test_set_writes_the_version_into_every_file(self):
        self.repository.replace("CHANGELOG.md", "1.2.3, 2026-11-21", "1.2.3, unreleased")
        self.assertEqual(self.repository.release("set", "1.3.0").returncode, 0)
        today = datetime.datetime.now(datetime.timezone.utc)
        self.assertEqual(self.repository.read("CMakeLists.txt"), "project(QXRemConXfer VERSION 1.3.0 LANGUAGES C CXX)\n")
        self.assertEqual(self.repository.read("README.md"), "install qxctl_1.3.0-1_amd64.deb\n")
        self.assertEqual(self.repository.read("docs/page.md"), "It prints 1.3.0. The number 11.2.3 and 1.2.34 are others.\n")
        self.assertIn(f"# Changelog\n\n## 1.3.0, {today:%Y-%m-%d}\n\n- A change.\n", self.repository.read("CHANGELOG.md"))
        log = self.repository.read("packaging/debian/changelog")
        self.assertRegex(log, r"^qxremconxfer \(1\.3\.0-1\) unstable; urgency=medium\n\n  \* Version 1\.3\.0; .*\n\n"
                              r" -- A Developer <developer@example\.org>  \w{3}, \d\d \w{3} \d{4} [\d:]{8} \+0000\n\n")
        self.assertTrue(log.endswith(DEBIAN_ENTRY.format("1.2.3")))
        self.repository.commit()
        self.accepted()

    def test_set_refuses_what_is_no_version(self):
        for version in ["1.2", "v1.2.3", "1.2.3-rc1", "01.2.3", ""]:
            self.refused("is no version", "set", version)

    def test_set_refuses_a_changelog_without_new_entries(self):
        self.refused("no part named 'unreleased'", "set", "1.3.0")
        self.assertIn("1.2.3", self.repository.read("CMakeLists.txt"))

    def test_a_tree_that_does_not_agree_is_refused(self):
        for name, old, new, reason in [
            ("CMakeLists.txt", "1.2.3", "1.2.4", "packaging/debian/changelog has 1.2.3-1"),
            ("packaging/debian/changelog", "1.2.3-1", "1.2.4-1", "packaging/debian/changelog has 1.2.4-1"),
            ("CHANGELOG.md", "1.2.3, 2026-11-21", "1.2.3, unreleased", "begins with '## 1.2.3, unreleased'"),
            ("CHANGELOG.md", "1.2.3, 2026", "1.2.2, 2026", "begins with '## 1.2.2, 2026-11-21'"),
        ]:
            with self.subTest(name=name, new=new):
                self.repository.replace(name, old, new)
                self.repository.commit()
                self.refused(reason)
                self.repository.git("reset", "--quiet", "--hard", "HEAD~1")

    def test_a_file_that_is_not_committed_is_refused(self):
        self.repository.write("new.cpp", "")
        self.refused("not committed")

    def test_a_version_that_is_not_after_the_last_one_is_refused(self):
        self.repository.git("tag", "v1.10.0")
        self.repository.write("new.cpp", "")
        self.repository.commit()
        self.refused("version 1.2.3 is not after v1.10.0")

    def test_a_removed_function_is_refused_until_the_first_number_grows(self):
        self.repository.git("tag", "v1.2.2")
        self.repository.replace("packaging/abi/libqxreport.abi", "<elf-symbol name='qxreport_append'", "<elf-symbol name='qxreport_other'")
        self.repository.commit()
        self.refused("breaks users of v1.2.2")
        for name in ["CMakeLists.txt", "CHANGELOG.md", "packaging/debian/changelog"]:
            self.repository.replace(name, "1.2.3", "2.0.0")
        self.repository.commit()
        self.accepted()

    def test_an_added_function_is_accepted(self):
        self.repository.git("tag", "v1.2.2")
        symbol = "<elf-symbol name='qxreport_append'"
        line = next(line for line in self.repository.read("packaging/abi/libqxreport.abi").splitlines() if symbol in line)
        added = line.replace("qxreport_append", "qxreport_more")
        self.repository.replace("packaging/abi/libqxreport.abi", line, f"{line}\n{added}")
        self.repository.commit()
        self.accepted()


if __name__ == "__main__":
    unittest.main()

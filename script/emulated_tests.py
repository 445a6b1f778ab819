#!/usr/bin/env python3
"""Reports which tests run under the emulator, from the list tests/not-emulated.txt.

    emulated_tests.py programs       prints the programs of which all tests are left out, as a regular expression for ctest
    emulated_tests.py report BUILD   prints how many tests the last ctest of BUILD ran, and each test that was left out with
                                     its reason. Fails if a line of the list names no test. Run it with script/emulated:
                                     script/emulated script/emulated_tests.py report BUILD
"""
import fnmatch
import pathlib
import re
import subprocess
import sys

LIST = pathlib.Path(__file__).resolve().parents[1] / "tests/not-emulated.txt"


def entries(text):
    """The program, the test and the reason of each line of the list."""
    for line in text.splitlines():
        if line and not line.startswith("#"):
            program, test, reason = line.split(maxsplit=2)
            yield program, test, reason


def names_in(listing):
    """The full names in the output of --gtest_list_tests: "Suite." without blanks before it, its tests below, with blanks."""
    suite = ""
    for line in listing.splitlines():
        name = line.split("#")[0].rstrip()
        if not name.startswith(" "):
            suite = name
        elif suite.endswith("."):
            yield suite + name.strip()


def matches(pattern, names):
    return [name for name in names if fnmatch.fnmatchcase(name, pattern)]


def counts_in(log):
    """The number of tests that ran, and of those that passed, in all programs of GoogleTest in a log of ctest."""
    return tuple(sum(map(int, re.findall(shape, log, flags=re.M)))
                 for shape in (r"^\[=+\] (\d+) tests? from .* ran\.", r"^\[  PASSED  \] (\d+) tests?\."))


def report(build):
    log = (build / "Testing/Temporary/LastTest.log").read_text(encoding="utf-8", errors="replace")
    ran, passed = counts_in(log)
    print(f"== {passed} of {ran} tests passed; left out:")
    listed, stale = {}, []
    for program, test, reason in entries(LIST.read_text(encoding="utf-8")):
        path = build / "bin" / program
        if path.exists() and program not in listed and not program.endswith("_fuzz"):
            listing = subprocess.run([path, "--gtest_list_tests"], capture_output=True, text=True, check=True)
            listed[program] = list(names_in(listing.stdout))
        found = matches(test, listed.get(program, []))
        if test != "*" and not found:
            stale.append(f"{program} {test}")
        what = f"{program}, {'all' if test == '*' else test}"
        print(f"  {what}{f' ({len(found)})' if len(found) > 1 else ''}: {reason}")
    for entry in stale:
        print(f"tests/not-emulated.txt: there is no test {entry}")
    return 1 if stale else 0


def main():
    if sys.argv[1:] == ["programs"]:
        print("^(" + "|".join(program for program, test, _ in entries(LIST.read_text(encoding="utf-8")) if test == "*") + ")$")
        return 0
    return report(pathlib.Path(sys.argv[2]))


if __name__ == "__main__":
    sys.exit(main())

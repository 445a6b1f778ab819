#!/usr/bin/env python3
"""Tests what script/own_includes.py finds in a source that does not include the headers of the names that it uses."""
import pathlib
import sys

ROOT = pathlib.Path(__file__).resolve().parents[2]
sys.path.insert(0, str(ROOT / "script"))
sys.dont_write_bytecode = True

import own_includes

TEXT = "tools/qxctl/cli/text/Text.h"
HEADERS = [TEXT, "tools/qxctl/cli/text/Json.h", "base/File.h"]

#   source, what is found
ROWS = [
    ("#include <vector>\nstd::vector<int> numbers;", None),
    ("#include <string>\nstd::vector<int> numbers;", "names std::vector and does not include <vector>"),
    ("// std::vector<int>\nconst char* text = \"std::vector\";", None),
    ("#include <string>\nstd::string_view text;", None),
    ('#include "tools/qxctl/cli/text/Text.h"\nstd::string_view text;', None),
    ("#include <string>\nstd::string Name() { return Visible(text); }", f"names Visible and does not include {TEXT}"),
    (f'#include "{TEXT}"\nstd::string Name() {{ return Visible(text); }}', None),
    ("#include <string>\nstd::string Name() { return output.Visible(text); }", None),
    ("#include <string>\nstd::string Name() { return file::Visible(text); }", f"names Visible and does not include {TEXT}"),
    ("namespace {\nint Visible(int number) {\n  return 1;\n}\n}  // namespace\nauto text = Visible(1);", None),
    ("// Visible is a word of a comment.", None),
]


def main():
    wrong = 0
    for source, expected in ROWS:
        found = list(own_includes.findings(source, HEADERS))
        if found != ([expected] if expected else []):
            print(f"{source!r}: found {found}, expected {expected}")
            wrong += 1
    sys.exit(1 if wrong else 0)


if __name__ == "__main__":
    main()

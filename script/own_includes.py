#!/usr/bin/env python3
"""Checks that each source of the tools includes the headers of the names that it uses, itself or through the project's headers.

If sources are compiled together (QX_JOIN_SOURCES), the compiler does not notice a missing header. Two kinds of names are checked:
names of the standard library in the table below; and types, functions and constants that are defined only in headers which the
source does not include. The script does not notice if a header is included only through another one.
Prints one line for each finding, and exits 1 if there are any.
"""
import functools
import pathlib
import re
import sys

import join_sources
from own_files import own_files

ROOT = pathlib.Path(__file__).resolve().parent.parent
CODE = re.compile(r'//[^\n]*|R"\((?:.|\n)*?\)"|"(?:\\.|[^"\\\n])*"|\'(?:\\.|[^\'\\\n])+\'')
INCLUDE = re.compile(r'^#include ([<"])(.*?)[>"]', re.MULTILINE)
# A name that a header defines. It is in a namespace, so its definition begins at the start of a line.
DEFINED = re.compile(r"^(?:template <.*>\s*)?(?:\[\[nodiscard\]\] )?(?:(?:struct|class|enum class|enum)\s+(\w+)(?!\w*;)|using\s+(\w+)\s*=|"
                     r"(?!using|namespace|class|struct|enum|return|#)[A-Za-z_][\w:<>,*& ]*[ *&](\w+) ?[({=;\[])", re.MULTILINE)
STANDARD = {
    "algorithm": "sort stable_sort find_if any_of all_of none_of count_if lower_bound upper_bound partition_point max_element "
                 "min_element remove_if adjacent_find clamp",
    "array": "array", "atomic": "atomic", "charconv": "from_chars to_chars", "chrono": "chrono", "condition_variable": "condition_variable",
    "cstdint": "int8_t uint8_t int16_t uint16_t int32_t uint32_t int64_t uint64_t", "cstdio": "printf snprintf fputs fwrite fflush",
    "cstring": "memcpy memcmp memchr memset strlen strcmp strchr", "deque": "deque", "filesystem": "filesystem",
    "functional": "function", "map": "map multimap", "memory": "unique_ptr make_unique shared_ptr make_shared", "mutex": "mutex lock_guard",
    "optional": "optional nullopt", "set": "set multiset", "span": "span", "sstream": "ostringstream istringstream", "string": "string to_string stoi",
    "string_view": "string_view", "thread": "thread", "tuple": "tuple tie", "unordered_map": "unordered_map",
    "unordered_set": "unordered_set", "variant": "variant monostate visit", "vector": "vector",
}
HEADER_OF = {name: header for header, names in STANDARD.items() for name in names.split()}
BRINGS = {"string": {"string_view"}, "mutex": {"chrono"}}  # by the standard, <string> defines string_view


def code_of(text):
    return CODE.sub('""', text)


@functools.cache
def content(path):
    return (ROOT / path).read_text(encoding="utf-8")


@functools.cache
def defined_in(header):
    return {name for match in DEFINED.finditer(code_of(content(header))) for name in match.groups() if name}


@functools.cache
def words_of(header):
    return set(re.findall(r"\w+", code_of(content(header))))


def reached(text, own, system):
    """Collects the project's headers and the system's that `text` includes, directly or not."""
    for bracket, name in INCLUDE.findall(text):
        if bracket == "<":
            system.add(name)
        elif name not in own and (ROOT / name).exists():
            own.add(name)
            reached(content(name), own, system)


def findings(text, headers):
    own, system = set(), set()
    reached(text, own, system)
    system |= {brought for header in system for brought in BRINGS.get(header, ())}
    code = code_of(re.sub(r"^#.*", "", text, flags=re.MULTILINE))
    for name in sorted(set(re.findall(r"\bstd::(\w+)", code))):
        if name in HEADER_OF and HEADER_OF[name] not in system:
            yield f"names std::{name} and does not include <{HEADER_OF[name]}>"
    here = set().union(*map(words_of, own)) if own else set()
    types, others = join_sources.definitions(text)
    # The names of types, functions and constants of this project begin with a capital and a small letter. Members are
    # not checked.
    named = set(re.findall(r"(?<![\w.>])k?[A-Z]\w*[a-z]\w*", code)) - here - types - others
    for name in sorted(named):
        places = [header for header in headers if name in defined_in(header)]
        if places and not re.search(rf"^\s*(?!return\b|else\b)[\w:<>,*&\[\] ]*[\w>\]][ *&]+(?:\w+::)?{name}\b(?!::)|\b{name} =", code, re.MULTILINE):
            yield f"names {name} and does not include {' or '.join(places)}"


def main():
    files = own_files("*.h", "tools/*.cpp")
    headers = [file for file in files if file.endswith(".h") and not file.startswith(("tests/", "bench/", "fuzz/"))]
    found = [f"{file}: {finding}" for file in files if file.endswith(".cpp") for finding in findings(content(file), headers)]
    print("\n".join(found) if found else f"includes: {sum(file.endswith('.cpp') for file in files)} sources include what they name")
    sys.exit(1 if found else 0)


if __name__ == "__main__":
    main()

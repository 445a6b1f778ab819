"""Finds words of a private dialect in comments, docs, messages and test names, and test names that are too long.

script/house_style.py runs it. CONTRIBUTING.md ("Language") shows what to write instead.
"""
import re

TEST_NAME_MAX = 80

# The folders and pages that are checked. Add yours when it is clean.
CLEANED = {
    "CONTRIBUTING.md", "README.md", "bench", "docs/architecture.md", "docs/getting-started.md", "docs/installation.md",
    "docs/markup.md", "docs/performance.md", "docs/processes.md", "examples", "fuzz/markup", "markup", "process",
    "script/plain_english.py", "tests/markup", "tests/process", "tests/script/plain_english_test.py",
}

# The string literals of these folders may be prescribed texts.
MODULE_FOLDERS = {"base", "debug", "inifile", "markup", "process", "provider", "registry", "reportfile"}

# Allowed for what is left over or lags, and for what a link leads to. In any other sense, "after" is the word.
BEHIND = (r"(?<!left )(?<!leave )(?<!leaves )(?<!leaving )(?<!lag )(?<!lags )(?<!fall )(?<!falls )(?<!fell )"
          r"behind(?! (?:a|the|each|every|any|this|that) (?:symbolic |dangling )?link)")
WORDS = {
    "anew": r"anew",
    "told": r"told",
    "tells that": r"tells? that",
    "is none": r"(?:is|are|was|were) none",
    "meets a fault": r"(?:meets?|met) (?:a|the|no|its) faults?",
    "mends": r"mend(?:s|ed|ing)?",
    "put aside": r"puts? aside",
    "goes round": r"(?:go|goes|going|went|gone) round",
    "behind": BEHIND,
}
PATTERN = re.compile("|".join(rf"(?P<w{i}>\b{words}\b)" for i, words in enumerate(WORDS.values())), re.IGNORECASE)

CODE_TOKEN = re.compile(
    r'(?P<comment>//[^\n]*|/\*.*?\*/)|R"(?P<mark>[^()\s]*)\((?P<raw>.*?)\)(?P=mark)"'
    r"|(?P<text>\"(?:\\.|[^\"\\\n])*\")|(?<![0-9A-Fa-f])'(?:\\.|[^'\\\n])+'", re.DOTALL)
HASH_COMMENT = re.compile(r"(?:^|(?<=\s))#(?!!)(?P<comment>[^\n]*)|(?P<comment2>\"\"\".*?\"\"\")", re.DOTALL | re.MULTILINE)
TEST_NAME = re.compile(r"^\s*TEST(?:_F|_P)?\(\s*(?P<suite>\w+),\s*(?P<name>\w+)\)|^\s*TYPED_TEST(?:_P)?\(\s*(?P<suite2>\w+),"
                       r"\s*(?P<name2>\w+)\)|^@test \"(?P<sentence>[^\"]*)\"", re.MULTILINE)
SCRIPT_NAME = re.compile(r"\.(py|sh|bash|bats|cmake|dict)$|(^|/)(CMakeLists\.txt|Makefile)$")
HUMP = re.compile(r"(?<=[a-z0-9])(?=[A-Z])|(?<=[A-Z])(?=[A-Z][a-z])")


def is_cleaned(path):
    return any(path == clean or path.startswith(clean + "/") for clean in CLEANED)


def masked(text, spans):
    """The text with everything outside the spans replaced: a phrase goes across a line end, but not across code."""
    out = [char if char.isspace() else "\0" for char in text]
    for begin, end in spans:
        out[begin:end] = text[begin:end]
    return "".join(out)


def prose_of_code(text, with_literals):
    groups = ("comment", "raw", "text") if with_literals else ("comment",)
    spans = [match.span(group) for match in CODE_TOKEN.finditer(text) for group in groups if match[group] is not None]
    # The marks of comments and the quotes of joined literals do not interrupt a phrase.
    prose = masked(text, spans)
    return re.sub(r'//+|/\*+|\*+/|^\s*\*|"', lambda mark: " " * len(mark[0]), prose, flags=re.MULTILINE)


def prose_of_script(text):
    spans = [match.span(match.lastgroup) for match in HASH_COMMENT.finditer(text)]
    prose = masked(text, spans)
    return re.sub(r"^\0(?= )", " ", prose, flags=re.MULTILINE)  # the "#" of a comment that fills its line


def prose_of_page(text):
    """A page without fenced blocks, inline code, HTML comments, and what "plain-english: off" and "on" enclose."""
    blank = lambda match: re.sub(r"\S", "\0", match[0])  # noqa: E731
    text = re.sub(r"<!-- plain-english: off -->.*?<!-- plain-english: on -->", blank, text, flags=re.DOTALL)
    text = re.sub(r"^ *(```+).*?^ *\1`*$", blank, text, flags=re.DOTALL | re.MULTILINE)
    return re.sub(r"<!--.*?-->|`[^`\n]*\n?[^`\n]*`", blank, text, flags=re.DOTALL)


def prose_of(path, text):
    if path.endswith((".cpp", ".h", ".c")):
        folder = path.split("/")[0]
        return prose_of_code(text, with_literals=folder not in MODULE_FOLDERS or "/tools/" in path)
    if path.endswith((".md", ".scd")):
        return prose_of_page(text)
    if SCRIPT_NAME.search(path) or text.startswith("#!"):
        return prose_of_script(text)
    return ""


def findings(path, text):
    """Yields (line, what) for each find in one file."""
    prose = prose_of(path, text)
    # One space for each gap, so that the patterns need not know of line ends; `places` leads back.
    squeezed, places = [], []
    for match in re.finditer(r"\s+|\S", prose):
        squeezed.append(" " if match[0].isspace() else match[0])
        places.append(match.start())
    for match in PATTERN.finditer("".join(squeezed)):
        word = list(WORDS)[int(match.lastgroup[1:])]
        yield text.count("\n", 0, places[match.start()]) + 1, f'"{match[0]}" (see "{word}" in CONTRIBUTING.md, Language)'
    for match in TEST_NAME.finditer(text):
        line = text.count("\n", 0, match.start(match.lastgroup)) + 1
        suite, name = match["suite"] or match["suite2"], match["name"] or match["name2"]
        full = match["sentence"] or f"{suite}.{name}"
        if len(full) > TEST_NAME_MAX:
            yield line, f"test name of {len(full)} characters, at most {TEST_NAME_MAX}"
        for word in PATTERN.finditer(HUMP.sub(" ", name or full)):
            yield line, f'"{word[0]}" in a test name'

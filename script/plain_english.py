"""Finds words of a private dialect in comments, docs, messages and test names, and test names that are too long.

script/house_style.py runs it. CONTRIBUTING.md ("Language") shows what to write instead.
"""
import re

TEST_NAME_MAX = 80

# The string literals of these folders may be prescribed texts.
MODULE_FOLDERS = {"base", "debug", "inifile", "markup", "process", "provider", "registry", "reportfile"}

# The word that this expression excepts is allowed after words such as "left" and "lags", before the target of a link, and in a name such as
# text-behind-bracket, which is part of an interface. In any other sense, the word is "after".
ALLOWED_BEFORE_BEHIND = re.compile(r"\b(?:left|leav(?:e|es|ing)|lag(?:s|ging)?|falls?|fell)\s+$", re.IGNORECASE)
BEHIND = r"(?<!-)behind(?!-)(?!\s+(?:a|the|each|every|any|this|that)\s+(?:symbolic\s+|dangling\s+)?link)"
WORDS = {
    "anew": r"anew",
    "told": r"told",
    "tells that": r"tells?\s+that",
    "is none": r"(?:is|are|was|were)\s+none",
    "meets a fault": r"(?:meets?|met)\s+(?:a|the|no|its)\s+faults?",
    "mends": r"mend(?:s|ed|ing)?",
    "put aside": r"puts?\s+aside",
    "goes round": r"(?:go|goes|going|went|gone)\s+round",
    "behind": BEHIND,
}
PATTERN = re.compile("|".join(rf"(?P<w{i}>\b{words}\b)" for i, words in enumerate(WORDS.values())), re.IGNORECASE)

CODE_TOKEN = re.compile(
    r'(?P<comment>//[^\n]*|/\*.*?\*/)|R"(?P<mark>[^()\s]*)\((?P<raw>.*?)\)(?P=mark)"'
    r"|(?P<text>\"(?:\\.|[^\"\\\n])*\")|(?<![0-9A-Fa-f])'(?:\\.|[^'\\\n])+'", re.DOTALL)
HASH_COMMENT = re.compile(r"(?:^|(?<=\s))#(?!!)(?P<comment>[^\n]*)|(?P<comment2>\"\"\".*?\"\"\")", re.DOTALL | re.MULTILINE)
TEST_NAME = re.compile(r"^\s*TEST(?:_F|_P)?\(\s*(?P<suite>\w+),\s*(?P<name>\w+)\)|^\s*TYPED_TEST(?:_P)?\(\s*(?P<suite2>\w+),"
                       r"\s*(?P<name2>\w+)\)|^@test \"(?P<sentence>[^\"]*)\"", re.MULTILINE)
SCHEMA_TEXT = re.compile(r'"(?:description|title)":\s*"(?P<text>(?:\\.|[^"\\])*)"')
SCRIPT_NAME = re.compile(r"\.(py|sh|bash|bats|cmake|dict)$|(^|/)(CMakeLists\.txt|Makefile)$")
NOT_SPACE = re.compile(r"\S")
HUMP = re.compile(r"(?<=[a-z0-9])(?=[A-Z])|(?<=[A-Z])(?=[A-Z][a-z])")


def masked(text, spans):
    """The text with everything outside the spans replaced, so that a phrase can continue in the next line, but not across code."""
    parts, at = [], 0
    for begin, end in spans:
        parts += [NOT_SPACE.sub("\0", text[at:begin]), text[begin:end]]
        at = end
    return "".join(parts) + NOT_SPACE.sub("\0", text[at:])


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
    if path.endswith(".schema.json"):
        return masked(text, [match.span("text") for match in SCHEMA_TEXT.finditer(text)])
    if SCRIPT_NAME.search(path) or text.startswith("#!"):
        return prose_of_script(text)
    return ""


def finds_in(prose):
    for match in PATTERN.finditer(prose):
        if match[0].lower() != "behind" or not ALLOWED_BEFORE_BEHIND.search(prose[max(0, match.start() - 80):match.start()]):
            yield match


def findings(path, text):
    """Yields (line, what) for each find in one file."""
    for match in finds_in(prose_of(path, text)):
        word = list(WORDS)[int(match.lastgroup[1:])]
        said = " ".join(match[0].split())
        yield text.count("\n", 0, match.start()) + 1, f'"{said}" (see "{word}" in CONTRIBUTING.md, Language)'
    for match in TEST_NAME.finditer(text):
        line = text.count("\n", 0, match.start(match.lastgroup)) + 1
        suite, name = match["suite"] or match["suite2"], match["name"] or match["name2"]
        full = match["sentence"] or f"{suite}.{name}"
        if len(full) > TEST_NAME_MAX:
            yield line, f"test name of {len(full)} characters, at most {TEST_NAME_MAX}"
        for word in finds_in(HUMP.sub(" ", name or full)):
            yield line, f'"{word[0]}" in a test name'

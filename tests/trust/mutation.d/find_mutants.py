"""Finds the places where the module's sources can be changed on purpose, and the changes. They are found in clang's syntax tree,
so each place is an expression, and not a comment, a macro or a constant that the compiler needs."""
import collections
import json
import shlex

from clang.cindex import Cursor, CursorKind, Index, TokenKind  # noqa: F401

# `start` and `end` are byte offsets into the file; `before` and `after` are texts of the expression.
Mutant = collections.namedtuple("Mutant", "file line start end before after kind function")

OPERATORS = {"<": "<=", "<=": "<", ">": ">=", ">=": ">", "==": "!=", "!=": "==", "&&": "||", "||": "&&", "+": "-", "-": "+"}

# No change is made below these nodes: it would not compile, would change one of the program's own checks, or would change
# the size of another element of the same array.
CLOSED = {CursorKind.STATIC_ASSERT, CursorKind.ENUM_DECL, CursorKind.INIT_LIST_EXPR, CursorKind.FIELD_DECL,
          CursorKind.TYPE_ALIAS_DECL, CursorKind.PARM_DECL, CursorKind.CXX_UNARY_EXPR}
FUNCTIONS = {CursorKind.FUNCTION_DECL, CursorKind.CXX_METHOD, CursorKind.CONSTRUCTOR, CursorKind.DESTRUCTOR,
             CursorKind.FUNCTION_TEMPLATE}


def compile_arguments(build, file):
    """The arguments of the file's compile command that clang needs to read it; none if it is not part of the module."""
    for entry in json.load(open(f"{build}/compile_commands.json")):
        if entry["file"] == str(file) and "_tools.dir/" not in entry["command"]:
            words = shlex.split(entry["command"])
            return [w for w in words[1:] if w.startswith(("-I", "-D", "-std", "-isystem"))]
    return None


class Finder:
    def __init__(self, file, text):
        self.file, self.text, self.found, self.function = str(file), text, [], ""

    def source(self, extent):
        return self.text[extent.start.offset:extent.end.offset].decode()

    def add(self, cursor, after, kind):
        extent = cursor.extent
        before = self.source(extent)
        if before:
            self.found.append(Mutant(self.file, extent.start.line, extent.start.offset, extent.end.offset, before, after, kind,
                                     self.function))

    def is_constant(self, cursor):
        """Whether this is a constexpr variable or function, which must stay constexpr."""
        for token in cursor.get_tokens():
            if token.spelling in ("constexpr", "consteval", "constinit"):
                return True
            if token.spelling in ("{", "=", ";", "("):
                return False
        return False

    def binary(self, cursor):
        left, right = list(cursor.get_children())
        gap = self.text[left.extent.end.offset:right.extent.start.offset].decode().strip()
        if gap in OPERATORS:
            self.add(cursor, f"({self.source(left.extent)}) {OPERATORS[gap]} ({self.source(right.extent)})", "operator")

    def literal(self, cursor):
        text = self.source(cursor.extent)
        if text.isdigit():
            self.add(cursor, f"({text} + 1)", "constant")

    def boolean(self, cursor):
        text = self.source(cursor.extent)
        if text in ("true", "false"):
            self.add(cursor, "false" if text == "true" else "true", "constant")

    def negation(self, cursor):
        text = self.source(cursor.extent)
        if text.startswith("!") and not text.startswith("!="):
            self.add(cursor, f"static_cast<bool>({text[1:]})", "branch")

    def dropped_call(self, cursor):
        # reserve affects only speed, because a text or an array grows by itself. The others do nothing on this processor.
        if cursor.spelling not in ("reserve", "va_end", "__builtin_va_end"):
            self.add(cursor, "", "dropped call")

    def walk(self, cursor, parent, in_body):
        if cursor.location.file is not None and cursor.location.file.name != self.file:
            return
        kind = cursor.kind
        if kind in CLOSED:
            return
        if kind in FUNCTIONS:
            if self.is_constant(cursor):
                return
            self.function = cursor.spelling
        if kind == CursorKind.VAR_DECL and self.is_constant(cursor):
            return
        if in_body:
            if kind == CursorKind.BINARY_OPERATOR:
                self.binary(cursor)
            elif kind == CursorKind.INTEGER_LITERAL and parent.kind != CursorKind.VAR_DECL:
                self.literal(cursor)
            elif kind == CursorKind.CXX_BOOL_LITERAL_EXPR:
                self.boolean(cursor)
            elif kind == CursorKind.UNARY_OPERATOR:
                self.negation(cursor)
            elif kind == CursorKind.CALL_EXPR and parent.kind == CursorKind.COMPOUND_STMT:
                self.dropped_call(cursor)
        skipped = next(cursor.get_children(), None) if kind == CursorKind.CASE_STMT else None  # its label is a constant
        for child in cursor.get_children():
            if skipped is None or child != skipped:
                self.walk(child, cursor, in_body or kind == CursorKind.COMPOUND_STMT)


def find(build, file):
    """The places of one source; none of them is in the text of a macro."""
    arguments = compile_arguments(build, file)
    if arguments is None:
        return []
    text = open(file, "rb").read()
    finder = Finder(file, text)
    unit = Index.create().parse(str(file), args=arguments)
    finder.walk(unit.cursor, None, False)
    macros = [line for line, words in enumerate(text.decode().splitlines(), 1)
              if words.lstrip().startswith("#") or "QX_TRACE" in words or "static_assert" in words]
    return [m for m in finder.found if m.line not in macros and "QX_TRACE" not in m.before and "\n" not in m.before]

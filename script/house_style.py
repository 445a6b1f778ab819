#!/usr/bin/env python3
"""Checks rules that neither compiler nor formatter checks: line and function length, banned calls, include layers, words.

Runs with the tests. Prints one line for each finding, and exits 1 if there are any.
"""
import collections
import pathlib
import re
import sys

import plain_english
from own_files import own_files

ROOT = pathlib.Path(__file__).resolve().parent.parent
LINE_MAX = 120
FUNCTION_LINES_MAX = 70
FILE_LINES_MAX = 700
FOLDER_FILES_MAX = 30  # sources and headers of a folder in or below SURVEYED
SURVEYED = {"tools", "reportfile", "debug", "registry"}

# The one source that knows the argument parser.
PARSER_SOURCE = pathlib.Path("tools/qxctl/cli/line/Parser.cpp")

# The one folder that knows the client library of NATS.
NATS_FOLDER = pathlib.Path("tools/qxrelay/stream")

# The folders that a folder may include besides itself. "paths" is the lower layer of provider/. "debug/tools" is the
# part of debug/ that only programs need.
LAYERS = {
    "base": set(),
    "process": {"base"},
    "markup": set(),
    "debug": {"base", "process"},
    "registry": {"base", "process", "debug"},
    "inifile": {"base", "process", "debug"},
    "paths": {"base", "process", "debug", "registry", "inifile"},
    "reportfile": {"base", "process", "debug", "registry", "inifile", "paths"},
    "provider": {"base", "process", "debug", "markup", "registry", "inifile", "paths", "reportfile"},
}
MODULE = set(LAYERS)
LAYERS["base/tools"] = {"base"}
for folder in ("debug", "inifile", "registry", "reportfile", "provider"):
    LAYERS[f"{folder}/tools"] = LAYERS[folder] | {folder, "base/tools"}
# Code for a whole directory of reports: survey, backup, restore.
LAYERS["reportfile/tools/directory"] = LAYERS["reportfile/tools"] | {"reportfile/tools"}
# Dated backups, with the libraries for compression and checksums.
LAYERS["reportfile/tools/backup"] = LAYERS["reportfile/tools"] | {"reportfile/tools", "reportfile/tools/directory"}
# The library for agents, a layer above the module's folders.
LAYERS["sdk"] = {"base", "paths", "reportfile", "reportfile/tools"}
FOLDER_TOOLS = set(LAYERS) - MODULE  # the programs may include sdk, too
LAYERS["agent"] = {"base", "sdk"}

# The areas of the command line tool, and the other areas that each may include.
AREAS = {
    "cli": set(),
    "store": {"cli"},
    "slice": {"cli"},
    "chart": {"cli", "slice"},
    "module": {"cli", "store"},
    "fetch": {"cli", "store", "slice", "chart", "module"},
    "report": {"cli", "store", "slice", "chart", "fetch", "module"},
    "top": {"cli", "store", "slice", "chart"},
    "settings": {"cli", "store"},
    "trace": {"cli", "slice"},
    "trial": {"cli", "store", "module"},
    "doctor": {"cli", "store", "module"},
}
for area, others in AREAS.items():
    LAYERS[f"tools/qxctl/{area}"] = MODULE | FOLDER_TOOLS | {f"tools/qxctl/{other}" for other in [*others, "cli/text"]}
# The area cli has four parts: texts and documents, the descriptions of commands, the reader of a command line, and what programs
# with such a command line have in common.
LAYERS["tools/qxctl/cli/text"] = {"markup"}
LAYERS["tools/qxctl/cli/describe"] = {"tools/qxctl/cli", "tools/qxctl/cli/text"}
LAYERS["tools/qxctl/cli/line"] = {"tools/qxctl/cli", "tools/qxctl/cli/describe", "tools/qxctl/cli/text"}
LAYERS["tools/qxctl/cli/program"] = {"base", "tools/qxctl/cli", "tools/qxctl/cli/describe", "tools/qxctl/cli/line", "tools/qxctl/cli/text"}
LAYERS["tools/qxctl"] = MODULE | FOLDER_TOOLS | {f"tools/qxctl/{area}" for area in [*AREAS, "cli/describe", "cli/line", "cli/program", "cli/text"]}

# The areas of the relay. Only stream/ knows the library of NATS, and only its interfaces are used elsewhere.
RELAY = {
    "message": set(),
    "config": {"message"},
    "stream": {"message", "config"},
    "send": {"message", "config", "stream"},
    "receive": {"message", "config", "stream"},
    "status": {"message", "config", "stream", "send", "receive"},
    "cli": {"message", "config", "stream", "send", "receive", "status"},
}
for area, others in RELAY.items():
    LAYERS[f"tools/qxrelay/{area}"] = MODULE | FOLDER_TOOLS | {f"tools/qxrelay/{other}" for other in others}
# The metrics find numbers in records with the code of qxctl.
LAYERS["tools/qxrelay/status"] |= {"tools/qxctl/chart", "tools/qxctl/slice", "tools/qxctl/store", "tools/qxctl/cli/text"}
LAYERS["tools/qxrelay/cli"] |= {f"tools/qxctl/{part}" for part in ("cli", "cli/describe", "cli/line", "cli/program", "cli/text")}
LAYERS["tools/qxrelay"] = LAYERS["tools/qxrelay/cli"] | {"tools/qxrelay/cli"}

# The areas of the web view. web/ has pages, no sources.
VIEW = {
    "tasks": set(),
    "http": set(),
    "session": {"http"},
    "assets": {"http"},
    "report": set(),
    "live": {"http", "session", "report"},
    "api": {"tasks", "http", "session", "assets", "report", "live"},
    "cli": {"tasks", "http", "session", "assets", "report", "live", "api"},
}
for area, others in VIEW.items():
    LAYERS[f"tools/qxview/{area}"] = MODULE | FOLDER_TOOLS | {f"tools/qxview/{other}" for other in others} | {"tools/qxctl/cli/text"}
# The web view shows the documents of qxctl, and listens on the same addresses as the relay.
LAYERS["tools/qxview/http"] |= {"tools/qxrelay/config"}
LAYERS["tools/qxview/cli"] |= {"tools/qxctl/trace"}
for area in ("report", "live", "api"):
    LAYERS[f"tools/qxview/{area}"] |= {f"tools/qxctl/{other}" for other in ("store", "slice", "chart")}
LAYERS["tools/qxview/live"] |= {"tools/qxctl/top", "tools/qxctl/doctor", "tools/qxctl/trace", "tools/qxctl/cli"}
LAYERS["tools/qxview/cli"] |= {f"tools/qxctl/{part}" for part in ("store", "cli", "cli/describe", "cli/line", "cli/program")}
LAYERS["tools/qxview"] = LAYERS["tools/qxview/cli"] | {"tools/qxview/cli"}

TOP_FOLDERS = {layer.split("/")[0] for layer in LAYERS} - {"paths"}
PATHS_FILES = {"QXString.h", "ServerControlPaths.h", "ServerControlPaths.cpp"}

BANNED = [
    (r"\b(strcpy|strcat|sprintf|vsprintf|gets|strtok|atoi|atol|atof|rand|srand|alloca|tmpnam|mktemp)\s*\(", "unsafe call"),
    (r"\b(localtime|gmtime|asctime|ctime)\s*\(", "not safe with threads; use the _r form"),
    (r"\b(system|popen)\s*\(", "runs a shell"),
    (r"\bthread_local\b", "would keep the module mapped and breaks dlclose"),
    (r"#\s*include\s*<(iostream|regex|ranges)>", "too heavy for the module, or not usable with clang 14"),
]

# Files are opened, written, renamed and synced through base/File.h. FileCalls.cpp makes the calls.
FILE_CALL_NAMES = ("open openat openat2 creat fopen freopen fdopen tmpfile pread preadv preadv2 pwrite pwritev pwritev2 truncate "
                   "ftruncate copy_file_range sendfile splice rename renameat renameat2 link linkat unlink unlinkat mkdir mkdirat "
                   "mkstemp mkostemp mkstemps mkostemps fsync fdatasync sync syncfs sync_file_range flock")
FILE_CALLS = [
    (rf"(?<![\w.>])(std::|::)?({FILE_CALL_NAMES.replace(' ', '|')})\s*\(", "goes through base/File.h"),
    (rf"\bSYS_({FILE_CALL_NAMES.replace(' ', '|')})\b", "goes through base/File.h"),
    (r"\b(basic_)?([io]fstream|fstream|filebuf)\b", "goes through base/File.h"),
    (r"\b(fs|filesystem)::(rename|copy|copy_file|copy_symlink|resize_file|create_\w+)\s*\(", "goes through base/File.h"),
]
FILE_CALLERS = {
    "base/FileCalls.cpp": set(FILE_CALL_NAMES.split()),
    # These sources use files as streams, because the interface requires it. The descriptors come from base/File.h.
    "debug/LogFileSink.cpp": {"fdopen"},
    "inifile/ProfileWriter.cpp": {"fdopen"},
    "inifile/tools/ProfileEdit.cpp": {"fdopen"},
    "reportfile/StoreIo.cpp": {"fdopen"},
    # These calls are in a signal handler.
    "tools/qxctl/cli/Interrupt.cpp": {"unlinkat"},
}

# errno as an argument: the evaluation or the conversion of another argument may change its value first.
ERRNO_ARGUMENT = (r"(,\s*errno\b(?!\s*[=!<>]))|(\berrno\s*,)|^\s*errno\s*\)", "copy errno in the statement after the call, and pass the copy")

# Some folders may not call these functions, because a host's locale must not change how a document is parsed.
BANNED_IN = {
    "markup": [(r"\b(is(alnum|alpha|cntrl|digit|graph|lower|print|punct|space|upper|xdigit)|to(lower|upper)|"
                r"str(n?casecmp|coll|xfrm))\s*\(", "asks the locale; use markup/Ascii.h")],
}


def tracked(*patterns):
    return [pathlib.Path(path) for path in own_files(*patterns)]


def layer_of(path):
    if path.parts[0] == "provider" and path.name in PATHS_FILES:
        return "paths"
    if path.parts[0] not in TOP_FOLDERS:
        return path.parts[0]
    return "/".join(path.parts[:-1])


def code_of(line):
    """The line without its line comment and without the contents of its string literals."""
    line = re.sub(r'"(\\.|[^"\\])*"', '""', line)
    return line.split("//", 1)[0]


def check_lines(path, lines):
    for number, line in enumerate(lines, 1):
        if len(line) > LINE_MAX:
            yield number, f"{len(line)} characters, at most {LINE_MAX}"
        if line != line.rstrip() or "\t" in line:
            yield number, "tab or white space at the end"
        code = code_of(line)
        if path.suffix == ".h" and re.search(r"\busing namespace\b", code):
            yield number, "opens a namespace for everyone who includes this"
        if layer_of(path) not in LAYERS:
            continue
        for pattern, why in [*BANNED, ERRNO_ARGUMENT, *BANNED_IN.get(path.parts[0], [])]:
            if re.search(pattern, code):
                yield number, why
        yield from ((number, why) for why in check_file_calls(path, code))


def check_file_calls(path, code):
    if layer_of(path) == "markup":
        return
    allowed = FILE_CALLERS.get(str(path), set())
    for pattern, why in FILE_CALLS:
        for match in re.finditer(pattern, code):
            if re.sub(r"\W*\(?$", "", match.group(0)).split(":")[-1].removeprefix("SYS_") not in allowed:
                yield why


def check_layers(path, lines):
    layer = layer_of(path)
    if layer not in LAYERS:
        return
    for number, line in enumerate(lines, 1):
        match = re.match(r'\s*#\s*include\s*"([^"]+)"', line)
        if not match:
            continue
        target = layer_of(pathlib.Path(match.group(1)))
        if target == "provider" and layer == "paths":
            yield number, f"the lower floor of provider/ includes {match.group(1)} of the upper one"
        elif layer == "process" and target == "base" and match.group(1) != "base/File.h":
            yield number, f"process may include only base/File.h of base, not {match.group(1)}"
        elif target != layer and target not in LAYERS[layer]:
            yield number, f"{layer} may not include {match.group(1)}"


def check_parser(path, lines):
    for number, line in enumerate(lines, 1):
        if re.match(r"\s*#\s*include\s*<CLI/", line) and path != PARSER_SOURCE:
            yield number, f"includes the argument parser; only {PARSER_SOURCE} does"


def check_nats(path, lines):
    for number, line in enumerate(lines, 1):
        if re.match(r"\s*#\s*include\s*<(nats/|nats\.h)", line) and path.parent != NATS_FOLDER:
            yield number, f"includes the library of NATS; only {NATS_FOLDER} does"


def check_folders(paths):
    """Finds folders with more than FOLDER_FILES_MAX sources and headers."""
    counts = collections.Counter(path.parent for path in paths if path.parts[0] in SURVEYED)
    for folder, count in sorted(counts.items()):
        if count > FOLDER_FILES_MAX:
            yield f"{folder}: {count} sources and headers, at most {FOLDER_FILES_MAX}"


def check_functions(path, lines):
    """Finds functions over the limit. A definition starts in column 0; its body begins with '{' at the end of a line and ends
    with a single '}' in column 0."""
    start = None
    is_open = False
    for number, line in enumerate(lines, 1):
        if is_open:
            if line.startswith("}"):
                length = number - start + 1
                if not line.startswith("};") and length > FUNCTION_LINES_MAX:
                    yield start, f"function of {length} lines, at most {FUNCTION_LINES_MAX}"
                start, is_open = None, False
            continue
        if start is None and re.match(r"[A-Za-z_\[~]", line) and not re.match(r"(namespace|extern|#)\b", line):
            start = number
        if start is not None:
            code = code_of(line).rstrip()
            is_open = code.endswith("{")
            if code.endswith((";", "}")) or not code:
                start = None


def check_pragma(path, lines):
    if path.suffix == ".h" and not any(line.startswith(("#pragma once", "#ifndef")) for line in lines):
        yield 1, "header without #pragma once"


def main():
    paths = tracked("*.cpp", "*.h", "*.c")
    findings = list(check_folders(paths))
    for path in paths:
        lines = (ROOT / path).read_text(encoding="utf-8").split("\n")
        checks = [check_lines(path, lines), check_layers(path, lines), check_pragma(path, lines), check_parser(path, lines),
                  check_nats(path, lines)]
        if layer_of(path) in LAYERS:
            checks.append(check_functions(path, lines))
            if len(lines) > FILE_LINES_MAX:
                findings.append(f"{path}:1: {len(lines)} lines, at most {FILE_LINES_MAX}")
        for check in checks:
            findings.extend(f"{path}:{number}: {what}" for number, what in check)
    for path in tracked("*"):
        if (ROOT / path).is_file():
            text = (ROOT / path).read_text(encoding="utf-8", errors="replace")
            findings.extend(f"{path}:{line}: {what}" for line, what in plain_english.findings(str(path), text))
    print("\n".join(findings) if findings else "house style: clean")
    return 1 if findings else 0


if __name__ == "__main__":
    sys.exit(main())

#!/usr/bin/env python3
"""Checks whether built files have the requested protections: binaries.py BUILD-DIR QXRemConXfer [qxctl]

Prints one table row for each file, and fails if a property is missing. Only this script notices a flag that is in the build
files but has no effect, because a library was built with other flags or the linker ignores the flag.
"""
import json
import pathlib
import re
import subprocess
import sys

ROOT = pathlib.Path(__file__).resolve().parents[3]
SYMBOLS = ROOT / "tests/module/exported-symbols.txt"

# The libraries that the module may need: those of the language and the system.
MODULE_NEEDS = re.compile(r"(libstdc\+\+|libgcc_s|libm|libc|ld-linux[-a-z0-9_]*)\.so\.\d+")

# The folders whose sources ship, and those of them whose local variables are not zeroed first: their benchmarks would be a
# fifth slower (see cmake/QxTargets.cmake).
SHIPPED = {"base", "process", "debug", "markup", "inifile", "registry", "provider", "reportfile", "tools"}
SPEED_COUNTS = {"debug", "markup", "provider"}

# Calls that have a length-checked form. None of our code passes them a length that the compiler cannot see.
UNCHECKED = {"gets", "strcpy", "strcat", "sprintf", "vsprintf", "stpcpy"}


def output(*command):
    return subprocess.run(command, capture_output=True, text=True, check=True).stdout


class BuiltFile:
    def __init__(self, path):
        self.path = path
        self.header = output("readelf", "-hW", path)
        self.segments = output("readelf", "-lW", path)
        self.dynamic = output("readelf", "-dW", path)
        self.notes = output("readelf", "-nW", path)
        symbols = output("nm", "-D", "--undefined-only", path)
        self.imports = {line.split()[-1].split("@")[0] for line in symbols.splitlines()}

    def needs(self):
        return re.findall(r"\(NEEDED\).*\[(.*)\]", self.dynamic)

    def cet(self):
        found = re.search(r"x86 feature: (.*)", self.notes)
        return found.group(1).split(", ") if found else []


def names_no_build_folder(path, build):
    """A built file must not contain paths of the machine that built it: they would make two builds differ."""
    contents = pathlib.Path(path).read_bytes()
    return not any(str(folder).encode() in contents for folder in (ROOT, build.resolve()))


def common_checks(file):
    dynamic, segments = file.dynamic, file.segments
    yield "relocations read-only after start", "GNU_RELRO" in segments
    yield "all symbols bound at start", "BIND_NOW" in dynamic
    yield "position independent", bool(re.search(r"Type:\s+DYN ", file.header))
    yield "stack not executable", bool(re.search(r"GNU_STACK(\s+0x[0-9a-f]+){5} RW ", segments))
    yield "no segment both writable and executable", not re.search(r"LOAD.* RWE ", segments)
    yield "no relocations in code", "TEXTREL" not in dynamic
    yield "no library path", "RPATH" not in dynamic and "RUNPATH" not in dynamic
    yield "stack canaries", "__stack_chk_fail" in file.imports
    yield "length-checked calls", sum(name.endswith("_chk") for name in file.imports) >= 3
    yield "no call without its length check", not file.imports & UNCHECKED
    yield "checked indices of the standard library", any("__glibcxx_assert_fail" in name for name in file.imports)


def module_checks(file):
    yield from common_checks(file)
    yield "landing pads and shadow stack", file.cet() == ["IBT", "SHSTK"]
    yield "no initialiser of the C library's start files", not re.search(r"\((INIT|FINI)\)", file.dynamic)
    yield "nothing but the system's libraries needed", all(MODULE_NEEDS.fullmatch(name) for name in file.needs())
    yield "exports exactly the listed symbols", exported(file.path) == SYMBOLS.read_text().splitlines()


def tool_checks(file):
    yield from common_checks(file)
    yield "a position-independent program", "PIE" in file.dynamic
    # The C library's start file, which every program has, is not built with landing pads.
    yield "shadow stack", "SHSTK" in file.cet()


def exported(path):
    lines = output("nm", "-D", "--defined-only", path).splitlines()
    return sorted({line.split(" ", 1)[1] for line in lines})


def object_checks(archives):
    """The linker marks the files as requested, so a mark is true only if all objects in the file have it."""
    for archive in archives:
        text = output("readelf", "-nW", str(archive))
        for member in re.split(r"^File: ", text, flags=re.M)[1:]:
            name = member.splitlines()[0]
            yield f"{name} with landing pads and shadow stack", "x86 feature: IBT, SHSTK" in member


def command_checks(build):
    """Checks in the commands of the build the flags that leave no trace in a built file."""
    for command in json.loads((build / "compile_commands.json").read_text()):
        words = command["command"].split()
        source = pathlib.Path(command["file"])
        if not source.is_relative_to(ROOT) or source.relative_to(ROOT).parts[0] not in SHIPPED:
            continue
        name = source.relative_to(ROOT)
        yield f"{name}: length checks of level 3", "-D_FORTIFY_SOURCE=3" in words
        yield f"{name}: checked indices", "-D_GLIBCXX_ASSERTIONS" in words
        zeroed = "-ftrivial-auto-var-init=zero" in words
        yield f"{name}: local variables begin as zeros", zeroed or name.parts[0] in SPEED_COUNTS


def path_checks(build, files):
    for file in files:
        yield f"{file.name} names no folder of the build", names_no_build_folder(file, build)


def report(what, checks):
    checks = list(checks)
    missing = [name for name, holds in checks if not holds]
    for name in missing:
        print(f"hardening: {what}: not so: {name}", file=sys.stderr)
    print(f"| {what} | {len(checks) - len(missing)} of {len(checks)} properties | all |")
    return bool(checks) and not missing


def main():
    build = pathlib.Path(sys.argv[1])
    archives = sorted(archive for folder in SHIPPED for archive in build.glob(f"{folder}/**/libqx_*.a"))
    built = [build / "lib/QXRemConXfer.so"] + ([build / "bin/qxctl"] if "qxctl" in sys.argv[2:] else [])
    kept = [
        report("commands of the optimised build", command_checks(build)),
        report("built files and libraries: no path of the build", path_checks(build, built + archives)),
        report("built QXRemConXfer.so: protections, libraries, exports",
               module_checks(BuiltFile(str(build / "lib/QXRemConXfer.so")))),
        report("objects of the libraries: control-flow protection", object_checks(archives)),
    ]
    if "qxctl" in sys.argv[2:]:
        kept.append(report("built qxctl: protections", tool_checks(BuiltFile(str(build / "bin/qxctl")))))
    return 0 if all(kept) else 1


sys.exit(main())

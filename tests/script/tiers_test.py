#!/usr/bin/env python3
"""Compares the commands and modules that the scripts use with the packages of the script/bootstrap tiers that they install.

A script that works here only because a package was once installed by hand fails on a fresh machine. So each command
that a script calls must be a part of a bare Debian system, or belong to a package of the script's tiers; the same
holds for each module that a Python file imports. A command that is in none of the tables below is a finding, too: add it
with its package.

    tiers_test.py                    compares with the lists of script/bootstrap
    tiers_test.py --installed TIER   asks this machine, on which only that tier was installed (see script/fresh-machine)
"""
import ast
import importlib.util
import pathlib
import re
import shutil
import subprocess
import sys

ROOT = pathlib.Path(__file__).resolve().parents[2]

# The package of each command. None: every Debian system has the command (from an essential package or the shell).
BASE = """
. : [ [[ apt-cache apt-get awk basename bash break builtin cat cd chmod chown chroot cmp comm command continue cp cut date
declare diff dirname dpkg dpkg-query echo env eval exec exit export false find flock fold grep groupadd gzip head
hostname id install kill ln local ls mapfile mkdir mktemp mount mv nice nproc numfmt od printf pwd read readlink readonly
realpath return rev rm rmdir runuser sed seq set setpriv sh sha256sum shift shopt sleep sort source stat su sudo tail
tar tee test timeout touch tr trap true umask umount uname uniq unset unshare useradd wait wc while xargs yes
""".split()
COMMANDS = dict.fromkeys(BASE) | {
    "aarch64-linux-gnu-g++": "g++-aarch64-linux-gnu",
    "abidiff": "abigail-tools", "abidw": "abigail-tools", "analyze-build-14": "clang-tools", "bats": "bats",
    "chromedriver": "chromium-driver", "chromium": "chromium",
    "clang": "clang", "clang++": "clang", "clang-format": "clang-format", "clang-tidy": "clang-tidy", "cmake": "cmake",
    "cpack": "cmake", "cppcheck": "cppcheck", "ctest": "cmake", "deb-systemd-helper": None, "deb-systemd-invoke": None,
    "debootstrap": None, "dpkg-deb": None,
    "dpkg-parsechangelog": "dpkg-dev", "fish": "fish", "g++": "g++", "gcov": "g++", "gcovr": "gcovr", "git": None, "gnuplot": "gnuplot-nox",
    "ip": "iproute2",
    "lintian": "lintian", "llvm-symbolizer": "llvm", "make": "make", "man": None, "nats-server": "nats-server", "ninja": "ninja-build",
    "nm": "binutils",
    "objdump": "binutils", "pkg-config": "pkg-config", "pkgconf": "pkg-config", "python3": "python3", "readelf": "binutils",
    "scdoc": "scdoc", "skip": "bats", "shellcheck": "shellcheck", "strace": "strace", "strings": "binutils", "strip": "binutils",
    "systemctl": "systemd", "systemd-sysusers": "systemd", "systemd-tmpfiles": "systemd",
    "qxagent": None, "qxctl": None, "qxview": None,  # of the packages that a script tests
    "xz": "xz-utils", "zsh": "zsh",
}
# The other packages that a package depends on.
BRINGS = {"g++": {"binutils"}, "clang": {"binutils"}, "clang-tools": {"python3"}, "gcovr": {"python3"},
          "dpkg-dev": {"binutils", "make"}, "python3-jsonschema": {"python3"}, "python3-clang": {"python3"}}
MODULES = {"clang": "python3-clang", "jsonschema": "python3-jsonschema", "selenium": "python3-selenium"}

# The tiers of files that do not call script/bootstrap themselves, by the beginning of their path.
TIERS_OF = [
    ("tests/qxview/browser/", ["browser"]),
    ("tests/trust/", ["trust"]),
    ("tests/package/", ["test"]),
    ("packaging/debian/try", ["package"]),
    ("packaging/book/", ["package"]),
    ("packaging/debian/held-module.py", ["test"]),  # these run where the packages are installed
    ("packaging/debian/tests/", ["test"]),
    ("packaging/debian/agent/", ["test"]),
    ("packaging/debian/relay/", ["test"]),
    ("packaging/debian/tools/", ["test"]),
    ("packaging/debian/view/", ["test"]),
    ("packaging/abi/", ["test"]),
    ("script/bench", ["bench", "plot"]),  # the second only for --plot
    ("script/emulated", ["arm64"]),
    ("script/house_style.py", ["test"]),
    ("script/release", ["release", "arm64"]),
    ("script/join_sources.py", ["test"]),
    ("script/own_files.py", ["test"]),
    ("script/own_includes.py", ["test"]),
    ("script/plain_english.py", ["test"]),
    ("script/tidy.py", ["lint"]),
    ("tests/", ["test"]),
    ("examples/", ["test"]),
]
KEYWORDS = set("if then else elif fi while until do done ! exec time case esac for in { } function".split())
RUNNERS = set("xargs env timeout nice sudo exec quietly step command unshare setpriv chroot".split())


def packages_of(tiers):
    found = set()
    for tier in tiers:
        command = [str(ROOT / "script/bootstrap"), "--list", tier]
        listed = subprocess.run(command, capture_output=True, text=True, check=True)
        found |= set(listed.stdout.split())
    return found | {brought for package in found for brought in BRINGS.get(package, ())}


def without_quotes(text):
    """The script without its quoted texts, but with the commands that these texts substitute."""
    out, closers, i = [], [], 0
    while i < len(text):
        char = text[i]
        if char == "\\":
            i += 1
        elif text.startswith(("$((", "(("), i) and "))" in text[i:]:
            i = text.index("))", i) + 1
        elif text.startswith("$(", i):
            closers.append(")")
            out.append("\n")
            i += 1
        elif closers and char == closers[-1]:
            closers.pop()
            out.append("\n" if char == ")" else "''")
        elif closers and closers[-1] == "plain )" and char == ")":
            closers.pop()
            out.append(")")
        elif char == '"':
            closers.append('"')
        elif char == "(" and (not closers or closers[-1] != '"'):
            closers.append("plain )")
            out.append("(")
        elif char == "'" and (not closers or closers[-1] != '"'):
            i = text.index("'", i + 1)
            out.append("''")
        elif not closers or closers[-1] != '"':
            out.append(char)
        i += 1
    return "".join(out)


def code_of(text):
    """A shell script without comments, here-documents, quoted texts, lists of values and patterns of case."""
    text = re.sub(r"<<-?\s*'?(\w+)'?.*?\n.*?^\s*\1$", "", text, flags=re.M | re.S)
    text = re.sub(r"(^|\s)#.*", r"\1", text)
    text = text.replace("\\\n", " ")
    text = re.sub(r"\w+\+?=\([^()]*\)", "", text)
    text = without_quotes(text)
    return re.sub(r"^\s*[\w*.|\[\] -]+\)", "", text, flags=re.M)


def commands_in(text):
    code = code_of(text)
    functions = set(re.findall(r"^\s*(?:function\s+)?([\w-]+)\s*\(\)", code, flags=re.M))
    for piece in re.split(r"\$\(|\||&&|;;|;|\n|\(|\)|`|&", code):
        words = piece.split()
        while words and (words[0] in KEYWORDS or re.match(r"\w+\+?=", words[0]) or words[0] == "''"):
            if words[0] in {"for", "case", "function", "''"}:  # no command, or one that a variable names
                words = []
                break
            words.pop(0)
        if not words:
            continue
        name = words[0]
        if re.fullmatch(r"[a-z][\w.+-]*", name) and name not in functions:
            yield name
        if name in RUNNERS:
            yield from (word for word in words[1:] if word in COMMANDS)


def shell_findings(path, text, packages):
    called = set(commands_in(text))
    for name in sorted(called):
        if name not in COMMANDS:
            if not (ROOT / path).with_name(name).exists():
                yield f"{path}: calls {name}: add it to the table of this test, with its package"
        elif COMMANDS[name] and COMMANDS[name] not in packages:
            yield f"{path}: calls {name}, but its tiers lack {COMMANDS[name]}"


def python_findings(path, text, packages):
    if "python3" not in packages:
        yield f"{path}: its tiers lack python3"
    tree = ast.parse(text)
    for node in ast.walk(tree):
        names = []
        if isinstance(node, ast.Import):
            names = [alias.name for alias in node.names]
        elif isinstance(node, ast.ImportFrom) and node.level == 0:
            names = [node.module]
        for name in (name.split(".")[0] for name in names):
            if name in sys.stdlib_module_names or list(ROOT.glob(f"tests/**/{name}.py")) \
                    or (ROOT / f"sdk/python/{name}.py").exists() \
                    or list(ROOT.glob(f"examples/**/{name}.py")) \
                    or (ROOT / f"script/{name}.py").exists():
                continue
            if MODULES.get(name) not in packages:
                yield f"{path}: imports {name}, but its tiers lack {MODULES.get(name, 'a package for it')}"
        if isinstance(node, ast.Constant) and COMMANDS.get(node.value) and COMMANDS[node.value] not in packages:
            yield f"{path}: names the command {node.value}, but its tiers lack {COMMANDS[node.value]}"


def tiers_of(path, text):
    code = re.sub(r"(^|\s)#.*", "", text)
    named = {tier for line in re.findall(r"script/bootstrap\"?((?: +[a-z][a-z0-9-]*)+)", code) for tier in line.split()}
    if named:
        return sorted(named)
    return next((tiers for beginning, tiers in TIERS_OF if str(path).startswith(beginning)), [])


def scripts():
    folders = ["script", "tests", "packaging", "examples", ".ci"]
    for path in sorted(path for folder in folders for path in (ROOT / folder).rglob("*")):
        name = path.relative_to(ROOT)
        if not path.is_file() or "__pycache__" in path.parts or path == pathlib.Path(__file__).resolve():
            continue
        head = path.open("rb").read(64)
        if head.startswith(b"#!") or path.suffix in {".py", ".sh", ".bash"}:
            yield pathlib.Path(name), path.read_text(encoding="utf-8"), path.suffix == ".py" or b"python" in head


def missing_here(tier):
    """The commands and modules that the tier's scripts use and this machine does not have."""
    for path, text, is_python in scripts():
        if path.suffix == ".bats" or tier not in tiers_of(path, text):
            continue
        others = packages_of(set(tiers_of(path, text)) - {tier}) if len(tiers_of(path, text)) > 1 else set()
        if not is_python:
            for name in sorted(set(commands_in(text))):
                if COMMANDS.get(name) and COMMANDS[name] not in others and not shutil.which(name):
                    yield f"{path}: calls {name}, which is not here"
            continue
        imported = {node.module if isinstance(node, ast.ImportFrom) else alias.name
                    for node in ast.walk(ast.parse(text)) if isinstance(node, (ast.Import, ast.ImportFrom))
                    for alias in node.names}
        for name in sorted(name.split(".")[0] for name in imported):
            if name in MODULES and importlib.util.find_spec(name) is None:
                yield f"{path}: imports {name}, which is not here"


def main():
    if sys.argv[1:2] == ["--installed"]:
        missing = list(missing_here(sys.argv[2]))
        print("\n".join(missing) if missing else f"tiers: this machine has what {sys.argv[2]} needs")
        return 1 if missing else 0
    findings = []
    checked = 0
    for path, text, is_python in scripts():
        if str(path) == "script/bootstrap" or path.suffix == ".bats":
            continue
        packages = packages_of(tiers_of(path, text))
        findings.extend((python_findings if is_python else shell_findings)(path, text, packages))
        checked += 1
    print("\n".join(findings) if findings else f"tiers: {checked} scripts have what they call")
    return 1 if findings or checked < 20 else 0


if __name__ == "__main__":
    sys.exit(main())

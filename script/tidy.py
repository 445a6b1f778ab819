#!/usr/bin/env python3
"""clang-tidy over the sources on standard input: script/tidy.py BUILD_FOLDER [--analyser]

Most of clang-tidy's time goes into the system's headers, which each source includes again. So the sources of a folder are read
together, sixteen at a time, in a fraction of the time. With --analyser they are also analysed, along a third of the usual number
of paths; script/trust hardening follows them all. The analyser leaves out what a source includes, unless the name of that
source begins with UnifiedSource.

Sources that do not compile together are checked singly.
"""
import collections
import concurrent.futures
import json
import os
import pathlib
import re
import shlex
import subprocess
import sys

ROOT = pathlib.Path(__file__).resolve().parent.parent
SOURCES_AT_A_TIME = 16
INCLUDE = re.compile(r'^[ ]*#[ ]*include[ ]+[<"].*?[>"]', re.MULTILINE)
UNNAMED_NAMESPACE = re.compile(r"^namespace \{$(.*?)^\}  // namespace$", re.MULTILINE | re.DOTALL)
# A type, an alias, a constant or a function of one source, at the beginning of a line. Members ("Class::Name") are not meant.
DEFINITION = re.compile(r"^(?:(?:struct|class|enum class|enum|union)\s+(?P<type>\w+)|using\s+(?P<alias>\w+)\s*=|"
                        r"(?!using\b|namespace\b|extern\b)\w[\w:<>,*& \[\]]*[ *&](?P<name>\w+) ?[({=;\[])", re.MULTILINE)


def tidy(folder, source, *options):
    """The findings in a source, as text. Empty when there is nothing to report."""
    run = subprocess.run(["clang-tidy", "--quiet", "-p", str(folder), *options, str(source)], cwd=ROOT, capture_output=True,
                         text=True, check=False)
    if run.returncode == 0:
        return ""
    notes = [line for line in run.stderr.splitlines() if "warnings generated" not in line]
    return run.stdout + "\n".join(notes)


def definitions(text):
    own = "".join(UNNAMED_NAMESPACE.findall(text))
    return {name for match in DEFINITION.finditer(own) for name in match.groups() if name}


def joined(sources):
    """One source that includes the others, after all of their headers. A name that two of them define gets a number in each."""
    texts = [(ROOT / source).read_text() for source in sources]
    counts = collections.Counter(name for text in texts for name in definitions(text))
    shared = sorted(name for name, count in counts.items() if count > 1)
    lines = sorted({include for text in texts for include in INCLUDE.findall(text)})
    for number, source in enumerate(sources):
        lines += [f"#define {name} {name}_{number}" for name in shared]
        lines.append(f'#include "{source}"  // NOLINT(bugprone-suspicious-include)')
        lines += [f"#undef {name}" for name in shared]
    return "\n".join(lines) + "\n"


def groups(commands, sources):
    """Sources of one folder with the same flags, some at a time."""
    alike = collections.defaultdict(list)
    for source in sources:
        entry = commands[source]
        output = re.search(r" -o (\S+)", entry["command"]).group(1)
        flags = entry["command"].replace(entry["file"], "").replace(output, "")
        alike[(os.path.dirname(source), flags)].append(source)
    for members in alike.values():
        parts = -(-len(members) // SOURCES_AT_A_TIME)
        yield from (members[part::parts] for part in range(parts))


def write_joined(folder, commands, batches):
    """One joined source for each group, and the file that says how they are compiled. Returns their paths."""
    folder.mkdir(parents=True, exist_ok=True)
    paths, entries = [], []
    for number, sources in enumerate(batches):
        path = folder / f"UnifiedSource_{number}.cpp"
        path.write_text(joined(sources))
        entry = commands[sources[0]]
        arguments = [str(path) if argument == entry["file"] else argument for argument in shlex.split(entry["command"])]
        entries.append({"directory": entry["directory"], "file": str(path), "command": shlex.join(arguments)})
        paths.append(path)
    (folder / "compile_commands.json").write_text(json.dumps(entries))
    return paths


def check_joined(build, folder, path, sources, options):
    filter_ = f"--header-filter=^{re.escape(str(ROOT))}/(base|process|debug|markup|inifile|registry|provider|reportfile|sdk|tools)/.*$"
    found = tidy(folder, path, filter_, *options)
    if "[clang-diagnostic-error]" not in found:
        return found
    print(f"tidy: {len(sources)} sources from {sources[0]} on do not compile together; checked singly", file=sys.stderr)
    return "".join(tidy(build, source, *options) for source in sources)


def options_of(analyse):
    if not analyse:
        return ["--checks=-clang-analyzer-*"]
    # What .clang-tidy switches off must be switched off again after the wildcard.
    checks = "--checks=clang-analyzer-*,-clang-analyzer-valist.Uninitialized," \
             "-clang-analyzer-security.insecureAPI.DeprecatedOrUnsafeBufferHandling"
    return [checks, *(f"--extra-arg={word}" for word in ("-Xclang", "-analyzer-config", "-Xclang", "max-nodes=75000"))]


def main():
    build = ROOT / sys.argv[1]
    analyse = "--analyser" in sys.argv[2:]
    sources = sys.stdin.read().split()
    commands = {os.path.relpath(entry["file"], ROOT): entry for entry in json.loads((build / "compile_commands.json").read_text())}
    missing = [source for source in sources if source not in commands]
    if missing:
        sys.exit(f"tidy: {build.name} does not build {' '.join(missing)}")
    batches = list(groups(commands, sources))
    folder = build / ("joined-analysed" if analyse else "joined")
    with concurrent.futures.ThreadPoolExecutor(int(os.environ.get("QX_JOBS", os.cpu_count() or 1))) as pool:
        work = [pool.submit(check_joined, build, folder, path, batch, options_of(analyse))
                for path, batch in zip(write_joined(folder, commands, batches), batches)]
        found = [part.result() for part in work]
    print("".join(found), end="")
    sys.exit(1 if any(found) else 0)


if __name__ == "__main__":
    main()

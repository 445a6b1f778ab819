#!/usr/bin/env python3
"""clang-tidy over the sources on standard input: script/tidy.py BUILD_FOLDER [--analyser]

Most of clang-tidy's time goes into the system's headers, which each source includes again. So sources are read together, about
thirty-two of the module at a time, or a hundred of the tools. With --analyser those of the module are also analysed, along a
third of the usual number of paths; script/trust hardening follows them all. The analyser follows included code only if the name
of the including source begins with UnifiedSource.

Sources that do not compile together are checked in halves.
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

import join_sources

ROOT = pathlib.Path(__file__).resolve().parent.parent
SOURCES_AT_A_TIME = 32
TOOLS_AT_A_TIME = 112
# Optimisation, debug information, the version's text, and whether a program or a library is built.
ALIKE = re.compile(r"-O\d|-g\d?|-fPI[CE]|-DQX_VERSION=.*|-D\w+_EXPORTS")


def tidy(folder, source, *options):
    """The findings in a source, as text. Empty when there is nothing to report."""
    run = subprocess.run(["clang-tidy", "--quiet", "-p", str(folder), *options, str(source)], cwd=ROOT, capture_output=True,
                         text=True, check=False)
    if run.returncode == 0:
        return ""
    notes = [line for line in run.stderr.splitlines() if "warnings generated" not in line]
    return run.stdout + "\n".join(notes)


def flags_of(entry):
    """What decides whether two sources can be read together: all flags except those that change nothing for clang-tidy."""
    output = re.search(r" -o (\S+)", entry["command"]).group(1)
    words = entry["command"].replace(entry["file"], "").replace(output, "").split()
    return " ".join(word for word in words if not ALIKE.fullmatch(word))


def groups(commands, sources):
    """Sources with the same flags, in the order of their folders, some at a time. The tools', which are not analysed, apart."""
    alike = collections.defaultdict(list)
    for source in sorted(sources):
        alike[(flags_of(commands[source]), is_tool(source))].append(source)
    for members in alike.values():
        # A program has one main function. Its source comes first, because the first source's flags are used for all of them.
        mains = [source for source in members if source.endswith("/Main.cpp")]
        others = [source for source in members if source not in mains]
        at_a_time = TOOLS_AT_A_TIME if is_tool(members[0]) else SOURCES_AT_A_TIME
        parts = max(-(-len(members) // at_a_time), len(mains))
        ends = [len(others) * part // parts for part in range(parts + 1)]
        for part, (begin, end) in enumerate(zip(ends, ends[1:])):
            yield mains[part:part + 1] + others[begin:end]


def write_joined(folder, commands, sources):
    """One source that includes the others, and the file that says how it is compiled. Returns its path."""
    place = folder / f"{sources[0].replace('/', '_')}-{len(sources)}"
    place.mkdir(parents=True, exist_ok=True)
    path = place / "UnifiedSource.cpp"
    path.write_text(join_sources.joined(sources, ROOT))
    entry = commands[sources[0]]
    arguments = [str(path) if argument == entry["file"] else argument for argument in shlex.split(entry["command"])]
    entries = [{"directory": entry["directory"], "file": str(path), "command": shlex.join(arguments)}]
    (place / "compile_commands.json").write_text(json.dumps(entries))
    return path


def check(folder, commands, sources, options):
    """The findings in sources that are read together; if they do not compile together, those in each half."""
    filter_ = f"--header-filter=^{re.escape(str(ROOT))}/(base|process|debug|markup|inifile|registry|provider|reportfile|sdk|tools)/.*$"
    path = write_joined(folder, commands, sources)
    found = tidy(path.parent, path, filter_, *options)
    if "[clang-diagnostic-error]" not in found or len(sources) == 1:
        return found
    print(f"tidy: {len(sources)} sources from {sources[0]} on do not compile together; checked in halves", file=sys.stderr)
    half = len(sources) // 2
    return "".join(check(folder, commands, part, options) for part in (sources[:half], sources[half:]))


def options_of(analyse):
    # Here a name may shadow a name of another source, because the sources are joined. The compilers check each source.
    options = ["--extra-arg=-Wno-shadow"]
    if not analyse:
        return [*options, "--checks=-clang-analyzer-*"]
    # The wildcard enables all checks of the analyser, so those that .clang-tidy disables are disabled again after it.
    checks = "--checks=clang-analyzer-*,-clang-analyzer-valist.Uninitialized," \
             "-clang-analyzer-security.insecureAPI.DeprecatedOrUnsafeBufferHandling"
    limits = ("-Xclang", "-analyzer-config", "-Xclang", "max-nodes=75000")
    return [*options, checks, *(f"--extra-arg={word}" for word in limits)]


def is_tool(source):
    return source.startswith("tools/")


def main():
    build = ROOT / sys.argv[1]
    sources = sys.stdin.read().split()
    commands = {os.path.relpath(entry["file"], ROOT): entry for entry in json.loads((build / "compile_commands.json").read_text())}
    missing = [source for source in sources if source not in commands]
    if missing:
        sys.exit(f"tidy: {build.name} does not build {' '.join(missing)}")
    with concurrent.futures.ThreadPoolExecutor(int(os.environ.get("QX_JOBS", os.cpu_count() or 1))) as pool:
        work = []
        for batch in sorted(groups(commands, sources), key=lambda batch: is_tool(batch[0])):  # the analysed ones take longest
            analyse = "--analyser" in sys.argv[2:] and not is_tool(batch[0])
            work.append(pool.submit(check, build / "joined", commands, batch, options_of(analyse)))
        found = [part.result() for part in work]
    print("".join(found), end="")
    sys.exit(1 if any(found) else 0)


if __name__ == "__main__":
    main()

#!/usr/bin/env python3
"""Lists the files of this project whose path matches a pattern: script/own_files.py [--null] PATTERN...

Patterns are as in the shell, but a * also matches slashes. In a clone, the project's files are all that git does not ignore. The
source archive of a release is no clone: there, all files belong to the project, except for what builds make.

--null   ends each path with a null byte instead of a line feed
"""
import fnmatch
import os
import pathlib
import subprocess
import sys

ROOT = pathlib.Path(__file__).resolve().parent.parent
MADE_FOLDERS = ("build", "build-*", "__pycache__")


def matches(name, patterns):
    return any(fnmatch.fnmatchcase(name, pattern) for pattern in patterns)


def files_of_clone(root):
    out = subprocess.run(["git", "ls-files", "-z", "--cached", "--others", "--exclude-standard"], cwd=root, capture_output=True,
                         text=True, check=True).stdout
    return [path for path in out.split("\0") if path and os.path.lexists(root / path)]


def files_of_archive(root):
    found = []
    for folder, folders, files in os.walk(root):
        folders[:] = [name for name in folders if not matches(name, MADE_FOLDERS)]
        found += [os.path.relpath(os.path.join(folder, name), root) for name in files]
    return sorted(found)


def own_files(*patterns, root=ROOT):
    """The paths below `root`, as texts."""
    files = files_of_clone(root) if (root / ".git").exists() else files_of_archive(root)
    return [path for path in files if matches(path, patterns)]


if __name__ == "__main__":
    end = "\n"
    arguments = sys.argv[1:]
    if arguments[:1] == ["--null"]:
        end = "\0"
        arguments = arguments[1:]
    sys.stdout.write("".join(path + end for path in own_files(*arguments)))

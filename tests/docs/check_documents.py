#!/usr/bin/env python3
"""Checks the JSON documents of console sessions against their schemas: check_documents.py SCHEMAS < TRANSCRIPT

A transcript has commands after "$ ", each followed by its output. A command `qxctl a b --json` prints documents of the
schema SCHEMAS/qxctl-a-b.schema.json, one after the other, or one of SCHEMAS/qxctl-failure.schema.json; with `--format json`
those of SCHEMAS/qxctl-record.schema.json. `qxrelay` has schemas of its own, except for failures. Each fault is a line on standard output; with a fault the exit code is 1.
"""
import json
import pathlib
import re
import shlex
import sys

import jsonschema


PROGRAMS = ("qxctl", "qxrelay")
FAILURE_SCHEMA = "qxctl-failure"
RECORD_SCHEMA = "qxctl-record"
RECORD_OPTION = "--format json"


def steps(transcript):
    """Pairs of a command and what it printed."""
    command, output = None, []
    for line in transcript.splitlines(keepends=True):
        if line.startswith("$ "):
            if command is not None:
                yield command, "".join(output)
            command, output = line[2:].rstrip("\n"), []
        else:
            output.append(line)
    if command is not None:
        yield command, "".join(output)


def words_of(command):
    """Program and words of the first `qxctl ... --json` in a command line, or None: ["qxctl", "report", "info", ...]"""
    for part in re.split(r"&&|\|\||[;|<>()]", command):
        prints_json = "--json" in part.split() or RECORD_OPTION in part
        program = next((word for word in part.split() if word in PROGRAMS), None)
        if not prints_json or program is None:
            continue
        words = shlex.split(part.replace("'", "").replace('"', ""))
        return [word for word in words[words.index(program):] if not word.startswith("-")]
    return None


def schema_for(words, schemas):
    """The name of the schema of the longest beginning of `words` that has one, or None."""
    for count in range(len(words), 1, -1):
        name = "-".join(words[:count])
        if name in schemas:
            return name
    return None


def documents_in(output):
    """The JSON documents in an output; problems, which a terminal mixes in, are left out."""
    text = "".join(line for line in output.splitlines(keepends=True) if not line.startswith(tuple(f"{program}: " for program in PROGRAMS))).lstrip()
    decoder = json.JSONDecoder()
    while text[:1] in ("{", "["):
        document, end = decoder.raw_decode(text)
        yield document
        text = text[end:].lstrip()


def load_schemas(directory):
    suffix = ".schema.json"
    return {path.name[: -len(suffix)]: json.loads(path.read_text(encoding="utf-8"))
            for path in sorted(pathlib.Path(directory).glob("*" + suffix))}


def faults_of(command, output, schemas):
    words = words_of(command)
    if words is None:
        return
    try:
        documents = list(documents_in(output))
    except json.JSONDecodeError as error:
        yield f"prints no whole document: {error}"
        return
    is_of_records = RECORD_OPTION in command and "--json" not in command.split()
    name = RECORD_SCHEMA if is_of_records else schema_for(words, schemas)
    if documents and name is None:
        yield "prints a document that no schema describes"
    for document in documents if name else []:
        if "problem" in document:  # instead of the command's own document
            name = FAILURE_SCHEMA
        for error in jsonschema.Draft202012Validator(schemas[name]).iter_errors(document):
            yield f"{name}: {error.json_path}: {error.message}"


def main():
    schemas = load_schemas(sys.argv[1])
    faults = [f"{command}: {fault}" for command, output in steps(sys.stdin.read())
              for fault in faults_of(command, output, schemas)]
    print("".join(fault + "\n" for fault in faults), end="")
    return 1 if faults else 0


if __name__ == "__main__":
    sys.exit(main())

#!/usr/bin/env python3
"""Checks documents of qxview's API against their schemas: check_documents.py SCHEMAS < LINES

A line is the name of a schema, a blank and a document. Each fault is a line on standard output; with a fault the exit code
is 1.
"""
import json
import pathlib
import sys

import jsonschema


def main():
    schemas = {}
    for path in pathlib.Path(sys.argv[1]).glob("*.schema.json"):
        schema = json.loads(path.read_text(encoding="utf-8"))
        schemas[schema["$id"]] = schema
    faults = []
    for line in sys.stdin:
        name, _, text = line.partition(" ")
        schema = schemas["urn:qxremconxfer:" + name]
        resolver = jsonschema.RefResolver.from_schema(schema, store=schemas)
        validator = jsonschema.Draft202012Validator(schema, resolver=resolver)
        faults += [f"{name}: {error.json_path}: {error.message}" for error in validator.iter_errors(json.loads(text))]
    print("".join(fault + "\n" for fault in faults), end="")
    return 1 if faults else 0


if __name__ == "__main__":
    sys.exit(main())

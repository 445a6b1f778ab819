#!/usr/bin/env python3
"""An agent in Python: appends each argument as one record to the report "example".

    agent.py TEXT...
"""
import os
import sys

import qxreport


def main(texts):
    path = qxreport.path("example")
    os.makedirs(os.path.dirname(path), exist_ok=True)
    with qxreport.Writer(path, ring_size=100) as report:
        report.append_many(texts)  # all of them, or none if one of them cannot be a record


if __name__ == "__main__":
    try:
        main(map(os.fsencode, sys.argv[1:]))
    except (OSError, qxreport.ReportError) as error:
        sys.exit(f"agent.py: {error}")

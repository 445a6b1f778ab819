#!/usr/bin/env python3
"""held-module.py EXAMPLES REPORT: keeps the module loaded, like a host, while its package is replaced.

Loads the installed module and fetches the report. After each line of standard input, fetches the report again.
Each time it prints whether the mapped file was replaced, and the records.
"""
import os
import sys
import tempfile

sys.path.insert(0, os.path.join(sys.argv[1], "client-python"))
import fetch_report  # noqa: E402: the path is an argument


def show(module):
    """Prints one line: whether the mapped file was replaced, and the records."""
    with open("/proc/self/maps", encoding="utf-8") as maps:
        is_replaced = "QXRemConXfer.so (deleted)" in maps.read()
    records = "".join(fetch_report.records(module, sys.argv[2])).split("\n")[:-1]
    print("replaced" if is_replaced else "current", " ".join(record.strip() for record in records), flush=True)


def main():
    with tempfile.TemporaryDirectory() as traces:
        os.environ["QX_LOG_RINGBUF_DIR"] = traces
        with fetch_report.Module(fetch_report.INSTALLED_MODULE) as module:
            show(module)
            for _ in sys.stdin:
                show(module)


main()

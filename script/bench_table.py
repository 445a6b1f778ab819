#!/usr/bin/env python3
"""Runs every benchmark row in a process of its own and prints, for each task, the others' time in terms of ours.

A row is TASK/WHO; WHO is qx, a peer, or limit (the bare system calls and copies for the same bytes). Rows of one task run
interleaved, several rounds; the median of the CPU times counts. Tasks grow_SHAPE have sizes in WHO's place: they show what
ten times as much costs, where linear work costs ten times.
"""
import argparse
import json
import os
import pathlib
import platform
import re
import statistics
import subprocess
import sys

ROUNDS = 5


def rows_of(program):
    out = subprocess.run([program, "--benchmark_list_tests"], capture_output=True, text=True, check=True).stdout
    return out.split()


def run_row(program, row):
    """CPU seconds of one iteration; a row that measures other processes too says them itself, as its manual time."""
    out = subprocess.run([program, f"--benchmark_filter=^{re.escape(row)}$", "--benchmark_format=json"],
                         capture_output=True, text=True, check=True).stdout
    result = json.loads(out)["benchmarks"][0]
    if result.get("error_occurred"):
        raise SystemExit(f"{row}: {result['error_message']}")
    unit = {"ns": 1e-9, "us": 1e-6, "ms": 1e-3, "s": 1.0}[result["time_unit"]]
    return result["real_time" if row.endswith("/manual_time") else "cpu_time"] * unit


def measure(program, rows):
    times = {row: [] for row in rows}
    for _ in range(ROUNDS):
        for row in rows:
            times[row].append(run_row(program, row))
    return {row.split("/")[1]: statistics.median(samples) for row, samples in times.items()}


def print_growth(task, medians):
    sizes = sorted(medians, key=int)
    for small, large in zip(sizes, sizes[1:]):
        print(f"| {task} | {small} to {large} | {medians[large] / medians[small]:.1f} |")


def main():
    parser = argparse.ArgumentParser()
    parser.add_argument("bin")
    parser.add_argument("regex", nargs="?", default="")
    parser.add_argument("--raw", action="store_true")
    args = parser.parse_args()

    print(f"{platform.machine()}, {os.cpu_count()} cores, Linux {platform.release()}; CPU time, median of {ROUNDS} runs a row\n")
    print("| task | who | time of who / time of qx |")
    print("|---|---|---|")
    for program in sorted(pathlib.Path(args.bin).glob("*_bench")):
        tasks = {}
        for row in rows_of(program):
            tasks.setdefault(row.split("/", 1)[0], []).append(row)
        for task, rows in tasks.items():
            if not re.search(args.regex, task):
                continue
            medians = measure(program, rows)
            if task.startswith("grow_"):
                print_growth(task, medians)
                continue
            for who, seconds in medians.items():
                if who == "qx" and not args.raw:
                    continue
                raw = f" ({seconds * 1e6:.1f} us)" if args.raw else ""
                print(f"| {task} | {who} | {seconds / medians['qx']:.2f}{raw} |")
            sys.stdout.flush()


if __name__ == "__main__":
    main()

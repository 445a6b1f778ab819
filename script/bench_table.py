#!/usr/bin/env python3
"""Runs every benchmark row in a process of its own and prints the tables of docs/performance.md; with --plot it also draws
how cost grows.

A row is TASK/WHO. What a task's rows become depends on its name:
  grow_SHAPE/SIZE    how much more ten times as much costs (linear work: ten times)
  threads_WORK/COUNT how much more work so many threads do in the same time (real time; everything else is CPU time)
  memory_WHAT/qx, and every row with counters: the counters
  any other          WHO is qx, a peer, or limit (the bare system calls and copies for the same bytes): WHO's time in terms of ours
Rows of one task run interleaved, several rounds; the median counts.
"""
import argparse
import collections
import json
import os
import pathlib
import platform
import re
import statistics
import subprocess
import sys

ROUNDS = 5
GROWTH_ROUNDS = 3
SECONDS = {"ns": 1e-9, "us": 1e-6, "ms": 1e-3, "s": 1.0}
STANDARD_KEYS = {
    "name", "family_index", "per_family_instance_index", "run_name", "run_type", "repetitions", "repetition_index", "threads",
    "iterations", "real_time", "cpu_time", "time_unit", "items_per_second", "bytes_per_second"}

Row = collections.namedtuple("Row", "program name")
Result = collections.namedtuple("Result", "seconds counters")


def task_of(name):
    return name.split("/")[0]


def who_of(name):
    return name.split("/")[1]


def is_growth(task):
    return task.startswith("grow_")


def is_threads(task):
    return task.startswith("threads_")


def is_counted(task):
    return task.startswith("memory_") or task.endswith("_faults")


def tasks_of(directory, regex):
    """The rows of each task whose name matches, in the order of the programs."""
    tasks = {}
    for program in sorted(pathlib.Path(directory).glob("*_bench")):
        listed = subprocess.run([program, "--benchmark_list_tests"], capture_output=True, text=True, check=True).stdout
        for name in listed.split():
            if re.search(regex, task_of(name)):
                tasks.setdefault(task_of(name), []).append(Row(program, name))
    return tasks


def run_row(row):
    """Seconds of one iteration, and the row's counters. A row that also measures other processes reports its time itself."""
    command = [row.program, f"--benchmark_filter=^{re.escape(row.name)}$", "--benchmark_format=json"]
    if is_growth(task_of(row.name)):
        command.append("--benchmark_min_time=0.1")
    out = subprocess.run(command, capture_output=True, text=True, check=True).stdout
    result = json.loads(out)["benchmarks"][0]
    if result.get("error_occurred"):
        raise SystemExit(f"{row.name}: {result['error_message']}")
    clock = "real_time" if row.name.endswith(("/manual_time", "/real_time")) else "cpu_time"
    counters = {key: value for key, value in result.items() if key not in STANDARD_KEYS and isinstance(value, float)}
    return Result(result[clock] * SECONDS[result["time_unit"]], counters)


def measure(task, rows):
    """The median of each row, by WHO."""
    samples = {row: [] for row in rows}
    for _ in range(GROWTH_ROUNDS if is_growth(task) else ROUNDS):
        for row in rows:
            samples[row].append(run_row(row))
    medians = {}
    for row, results in samples.items():
        seconds = statistics.median(result.seconds for result in results)
        counters = {key: statistics.median(r.counters[key] for r in results) for key in results[0].counters}
        medians[who_of(row.name)] = Result(seconds, counters)
    return medians


def print_head(title, *columns):
    print(f"\n{title}\n\n| {' | '.join(columns)} |\n|{'---|' * len(columns)}")


def section(tasks, belongs, title, *columns):
    """Prints the head of a table, and measures one by one the tasks that belong to it."""
    mine = [task for task in tasks if belongs(task)]
    if mine:
        print_head(title, *columns)
    for task in mine:
        yield task, measure(task, tasks[task])
        sys.stdout.flush()


def print_ratios(tasks, raw):
    def is_ratio(task):
        return not (is_growth(task) or is_threads(task) or is_counted(task))

    for task, medians in section(tasks, is_ratio, "Time", "task", "who", "time of who / time of qx"):
        for who, result in medians.items():
            if who == "qx" and not raw:
                continue
            micro = f" ({result.seconds * 1e6:.2f} us)" if raw else ""
            print(f"| {task} | {who} | {result.seconds / medians['qx'].seconds:.2f}{micro} |")


def print_counters(tasks):
    for task, medians in section(tasks, is_counted, "Memory and page faults", "task", "what", "number"):
        for key, value in medians["qx"].counters.items():
            print(f"| {task} | {key.replace('_', ' ')} | {value:,.0f} |" if value >= 1 else f"| {task} | {key} | {value:.2f} |")


def print_threads(tasks):
    """{task: {threads: how much of one thread's work}}"""
    drawn = {}
    for task, medians in section(tasks, is_threads, "Threads", "task", "threads", "work in the time of one thread"):
        one = medians["1"].seconds
        drawn[task] = {int(who): int(who) * one / result.seconds for who, result in medians.items()}
        for count, work in drawn[task].items():
            print(f"| {task} | {count} | {work:.2f} |")
    return drawn


def print_growth(tasks):
    """{task: {size: the cost of a piece in terms of its cost at the smallest size}}"""
    drawn = {}
    columns = ["task", "1,000 to 10,000", "to 100,000", "to 1,000,000"]
    for task, medians in section(tasks, is_growth, "Growth: what ten times as much costs", *columns):
        sizes = sorted((int(who) for who in medians))
        seconds = {size: medians[str(size)].seconds for size in sizes}
        steps = [f"{seconds[large] / seconds[small]:.1f}" for small, large in zip(sizes, sizes[1:])]
        print(f"| {task.removeprefix('grow_')} | {' | '.join(steps + [''] * (3 - len(steps)))} |")
        drawn[task] = {size: seconds[size] / size / (seconds[sizes[0]] / sizes[0]) for size in sizes}
    return drawn


# File name, title, label of the x axis, and the tasks whose curves it shows.
DRAWINGS = [
    ("growth-transfer.svg", "A record of a whole transfer", "records in the report", r"^grow_transfer"),
    ("growth-markup.svg", "A piece of a parsed document", "pieces in the document", r"^grow_(?!transfer|registry|ini|set_attr)"),
    ("growth-settings.svg", "A value of a registry, a line of an INI file", "values or lines", r"^grow_(registry|ini)"),
]

GNUPLOT_HEAD = """
set terminal svg size 760,420 font 'sans-serif,12' background 'white'
set output '{path}'
set title '{title}'
set xlabel '{label}'
set key outside right top
set grid
"""


def draw(path, title, label, axes, curves):
    """One SVG. `curves` is {name: {x: y}}; gnuplot writes the same bytes for the same numbers."""
    script = GNUPLOT_HEAD.format(path=path, title=title, label=label) + axes
    for number, points in enumerate(curves.values()):
        script += f"$curve{number} << EOD\n" + "".join(f"{x} {y:.4f}\n" for x, y in sorted(points.items())) + "EOD\n"
    script += "plot " + ", ".join(f"$curve{number} using 1:2 with linespoints lw 2 title '{name}' noenhanced"
                                  for number, name in enumerate(curves)) + "\n"
    subprocess.run(["gnuplot", "-"], input=script, text=True, check=True)


def draw_all(directory, growth, threads):
    axes = "set ylabel 'cost of one, in terms of one of 1,000'\nset logscale x\nset xrange [1000:1000000]\nset yrange [0:*]\nset format x '10^{%L}'\n"
    for name, title, label, pattern in DRAWINGS:
        curves = {task.removeprefix("grow_"): points for task, points in growth.items() if re.search(pattern, task)}
        if curves:
            draw(directory / name, title, label, axes, curves)
    axes = "set ylabel 'work in the time of one thread'\nset yrange [0:*]\nset xtics 1\n"
    curves = {task.removeprefix("threads_"): points for task, points in threads.items()}
    if curves:
        draw(directory / "growth-threads.svg", f"Threads, each with its report ({os.cpu_count()} cores)", "threads", axes, curves)


def main():
    parser = argparse.ArgumentParser()
    parser.add_argument("bin")
    parser.add_argument("regex", nargs="?", default="")
    parser.add_argument("--raw", action="store_true", help="add the times themselves")
    parser.add_argument("--plot", metavar="DIR", type=pathlib.Path, help="draw growth into this directory")
    args = parser.parse_args()

    tasks = tasks_of(args.bin, args.regex)
    print(f"{platform.machine()}, {os.cpu_count()} cores, Linux {platform.release()}; "
          f"medians of {ROUNDS} runs a row ({GROWTH_ROUNDS} of growth), CPU time")
    print_ratios(tasks, args.raw)
    print_counters(tasks)
    threads = print_threads(tasks)
    growth = print_growth(tasks)
    if args.plot:
        draw_all(args.plot, growth, threads)


if __name__ == "__main__":
    main()

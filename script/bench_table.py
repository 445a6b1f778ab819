#!/usr/bin/env python3
"""Runs the benchmark programs of a directory and prints a table of each kind of row; see bench_run.py for the rows."""
import argparse
import json
import pathlib
import re
import subprocess
import sys

import bench_page
import bench_run
from bench_aims import aim_of, growth_missed, verdict


def print_ratio(task, part, raw):
    for who, spread in part["values"].items():
        micro = f" ({part['seconds'][who].median * 1e6:.2f} us)" if raw else ""
        print(f"| {task} | {who} | {bench_page.spread_text(spread)}{micro} | {bench_page.verdict_text(task, who, spread)} |")
    if raw:
        print(f"| {task} | qx | ({part['seconds']['qx'].median * 1e6:.2f} us) | |")
    if part.get("instructions"):
        print(f"| {task} | instructions | {bench_page.instructions_text(part['instructions'])} | |")


def print_steps(task, what, steps, missed=()):
    texts = [f"{factor:.2f} to {size:,}{' **missed**' if size in missed else ''}" for size, factor in steps]
    print(f"| {task} | {what} | {', '.join(texts)} | |")


def missed_sizes(task, steps):
    return [size for size, factor in steps if growth_missed(task, factor)]


def print_growth(task, part):
    print_steps(task, "doubling costs", part["growth"], missed_sizes(task, part["growth_least"]))
    if part.get("instruction_growth"):
        print_steps(task, "instructions", part["instruction_growth"])
    if part.get("calls"):
        growth = bench_run.call_growth_of(dict(part["calls"]))
        print_steps(task, "system calls", growth, missed_sizes(task, growth))


def print_part(task, part, raw):
    """The lines of one task."""
    if "growth" in part:
        print_growth(task, part)
    elif "seconds" in part:
        print_ratio(task, part, raw)
    else:
        for who, spread in part["values"].items():
            print(f"| {task} | {who} | {bench_page.spread_text(spread)} | {bench_page.verdict_text(task, who, spread)} |")
    sys.stdout.flush()


def missed_aims(document):
    """The rows and sizes that miss their aim in every round."""
    missed = [f"{task}/{who}" for task, part in document["tasks"].items() for who, spread in part.get("values", {}).items()
              if (aim := aim_of(task, who)) and verdict(aim, spread) == "missed"]
    for task, part in document["tasks"].items():
        missed += [f"{task}/{size}" for size in missed_sizes(task, part.get("growth_least", []))]
        missed += [f"{task}/{size} (system calls)"
                   for size in missed_sizes(task, bench_run.call_growth_of(dict(part.get("calls", []))))]
    return missed


# The charts: file name, title, label of the x axis, and the tasks whose curves the chart shows.
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
    """Draws one SVG. `curves` is {name: {x: y}}; gnuplot writes the same bytes for the same numbers."""
    script = GNUPLOT_HEAD.format(path=path, title=title, label=label) + axes
    for number, points in enumerate(curves.values()):
        script += f"$curve{number} << EOD\n" + "".join(f"{x} {y:.4f}\n" for x, y in sorted(points.items())) + "EOD\n"
    script += "plot " + ", ".join(f"$curve{number} using 1:2 with linespoints lw 2 title '{name}' noenhanced"
                                  for number, name in enumerate(curves)) + "\n"
    subprocess.run(["gnuplot", "-"], input=script, text=True, check=True)


def curves_of(tasks, pattern):
    """{name: {size: what doubling the input costs}}"""
    return {task.removeprefix("grow_"): dict(part["growth"]) for task, part in tasks.items()
            if "growth" in part and re.search(pattern, task)}


def draw_all(directory, document):
    axes = "set ylabel 'cost of twice the input'\nset logscale x\nset yrange [0:4]\nset format x '10^{%L}'\n"
    for name, title, label, pattern in DRAWINGS:
        if curves := curves_of(document["tasks"], pattern):
            draw(directory / name, title, label, axes, curves)
    curves = {task.removeprefix("threads_"): {int(who): spread.median for who, spread in part["values"].items()}
              for task, part in document["tasks"].items() if task.startswith("threads_")}
    axes = "set ylabel 'work in the time of one thread'\nset yrange [0:*]\nset xtics 1\n"
    if curves:
        title = f"Threads, each with its report ({document['cores']} cores)"
        draw(directory / "growth-threads.svg", title, "threads", axes, curves)


def arguments():
    parser = argparse.ArgumentParser()
    parser.add_argument("bin")
    parser.add_argument("regex", nargs="?", default="")
    parser.add_argument("--raw", action="store_true", help="add the times themselves")
    parser.add_argument("--aims", action="store_true", help="only rows with an aim; code 1 if one misses its aim in every round")
    parser.add_argument("--json", metavar="FILE", type=pathlib.Path, help="write the figures to this file, too")
    parser.add_argument("--plot", metavar="DIR", type=pathlib.Path, help="draw growth into this directory")
    return parser.parse_args()


def main():
    args = arguments()
    tasks = bench_run.tasks_of(args.bin, args.regex)
    if args.aims:
        tasks = {task: rows for task, rows in tasks.items() if bench_page.has_aim(task) or bench_run.is_growth(task)}
    print(f"{bench_page.processor_text(bench_run.processor())}; {bench_run.ROUNDS} rounds: minimum / median / maximum\n\n"
          "| task | who | time of who / time of qx | aim |\n|---|---|---|---|")
    document = bench_run.all_of(tasks, lambda task, part: print_part(task, part, args.raw))
    if args.json:
        args.json.write_text(json.dumps(document, indent=1) + "\n")
    if args.plot:
        draw_all(args.plot, document)
    missed = missed_aims(document)
    if args.aims and missed:
        print(f"\nmissed in every round: {', '.join(missed)}")
        sys.exit(1)


if __name__ == "__main__":
    main()

#!/usr/bin/env python3
"""Writes the tables of docs/performance.md from the files in bench/results, one column for each file.

script/bench_page.py          replaces the tables between the marks of the page
script/bench_page.py --check  ends with code 1 if the page has other tables
"""
import json
import pathlib
import re
import sys

from bench_aims import AIMS, Spread, aim_of, text_of, verdict
from bench_run import call_growth_of, is_threads

ROOT = pathlib.Path(__file__).resolve().parent.parent
PAGE = ROOT / "docs" / "performance.md"
RESULTS = ROOT / "bench" / "results"


def number_text(value):
    if value >= 1000:
        return f"{value:,.0f}"
    return f"{value:.2f}" if value < 10 else f"{value:.1f}"


def spread_text(spread):
    """"0.99 / 1.04 / 1.13", or one number if there was one run only."""
    values = [number_text(value) for value in spread]
    return values[0] if len(set(values)) == 1 else " / ".join(values)


def has_aim(task):
    return any(aim.task == task for aim in AIMS)


def verdict_text(task, who, spread):
    aim = aim_of(task, who)
    return f"{text_of(aim)}: {verdict(aim, spread)}" if aim else ""


def instructions_text(counts):
    """"qx 1,200, pugixml 1,500 (1.25)": the instructions of one iteration, and their ratio to ours."""
    ours = counts["qx"]
    return ", ".join(f"{who} {count:,.0f}" + (f" ({count / ours:.2f})" if who != "qx" else "") for who, count in counts.items())


def processor_text(processor):
    kind = ", ".join(text for text in (f"family {processor['family']}" if processor["family"] else "",
                                       f"model {processor['model']}" if processor["model"] else "", *processor["wide"]) if text)
    return f"{processor['name']} ({kind})" if kind else processor["name"]


def cell_of(document, task, who):
    part = document["tasks"].get(task, {})
    values = part.get("values", {}).get(who)
    if values is None:
        return "-"
    aim = aim_of(task, who)
    spread = Spread(*values)
    said = f" **{verdict(aim, spread)}**" if aim and verdict(aim, spread) != "reached" else ""
    counts = part.get("instructions", {})
    counted = f", instructions {counts[who] / counts['qx']:.2f}" if who in counts and "qx" in counts else ""
    return spread_text(spread) + said + counted


# The names of peers in the tables, where the benchmark's own name is not clear to a reader.
WHO_TEXTS = {"cp_a": "`cp -a`", "glib": "GLib", "sqlite": "SQLite", "lmdb": "LMDB", "lmdb_pugixml": "LMDB and pugixml",
             "strftime_snprintf": "strftime, snprintf", "strftime_snprintf_fflush": "strftime, snprintf, fflush",
             "by_one_thread": "one after the other"}


def who_text(task, who):
    if is_threads(task):
        return "1 thread" if who == "1" else f"{who} threads"
    return WHO_TEXTS.get(who, who.replace("_", " "))


def rows_of(documents, key):
    """Each (task, who) of any document, those of one task together."""
    found = {}
    for document in documents:
        for task, part in document["tasks"].items():
            for who in part.get(key, {}):
                found.setdefault(task, {})[who] = True
    return [(task, who) for task, whos in found.items() for who in whos]


def table(head, rows):
    return "\n".join(["| " + " | ".join(head) + " |", "|" + "---|" * len(head), *("| " + " | ".join(row) + " |" for row in rows)])


def columns(documents):
    return [document["column"] for document in documents]


def values_table(documents):
    rows = [(task, who_text(task, who), text_of(aim) if (aim := aim_of(task, who)) else "",
             *(cell_of(document, task, who) for document in documents)) for task, who in rows_of(documents, "values")]
    return table(["task", "compared with, or counted", "aim", *columns(documents)], rows)


def steps_text(part):
    """"1.98, 2.41 (instructions 2.00); calls 2.05": the factors of the time, and the greatest one of the system calls."""
    if "growth" not in part:
        return "-"
    counted = {size: f" (instructions {factor:.2f})" for size, factor in part.get("instruction_growth", [])}
    times = ", ".join(f"{factor:.2f}{counted.get(size, '')}" for size, factor in part["growth"])
    calls = [factor for _, factor in call_growth_of(dict(part.get("calls", [])))]
    return times + (f"; calls {max(calls):.2f}" if calls else "")


def growth_table(documents):
    documents = [document for document in documents if any("growth" in part for part in document["tasks"].values())]
    tasks = {task: True for document in documents for task, part in document["tasks"].items() if "growth" in part}
    return table(["task", *columns(documents)],
                 [(task.removeprefix("grow_"), *(steps_text(document["tasks"].get(task, {})) for document in documents))
                  for task in tasks])


def sources_table(documents):
    return table(["column", "processor", "cores", "rounds", "when and how"],
                 [(document["column"], processor_text(document["processor"]), str(document["cores"]), str(document["rounds"]),
                   document["source"]) for document in documents])


def with_tables(page, documents):
    tables = {"sources": sources_table(documents), "values": values_table(documents), "growth": growth_table(documents)}
    for name, text in tables.items():
        pattern = rf"(<!-- table {name} -->\n).*?(<!-- end -->)"
        page, count = re.subn(pattern, lambda match, text=text: match.group(1) + text + "\n" + match.group(2), page, flags=re.DOTALL)
        if count != 1:
            raise SystemExit(f"{PAGE.name} must have the marks of the table {name} once")
    return page


def documents_in(directory):
    return [json.loads(path.read_text()) for path in sorted(directory.glob("*.json"))]


def main():
    before = PAGE.read_text()
    after = with_tables(before, documents_in(RESULTS))
    if "--check" in sys.argv[1:]:
        if before != after:
            raise SystemExit("docs/performance.md differs from bench/results: run script/bench_page.py")
        return
    PAGE.write_text(after)


if __name__ == "__main__":
    main()

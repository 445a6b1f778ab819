"""Runs the rows of the benchmark programs, each in a process of its own, and records what they cost.

A row is TASK/WHO. The name of a task determines the result of its rows:
  grow_SHAPE/SIZE    the factor by which the time and the number of system calls grow when the input doubles (linear work: 2),
                     to each size whose half is a row
  threads_WORK/COUNT how much work COUNT threads do in the time of one (real time; everything else is processor time)
  memory_WHAT/qx, and every row with counters: the counters
  any other          WHO is qx, a peer, or a bare form of the same work: WHO's time divided by ours

The rows of a task run in turn, forwards and backwards, for several rounds. A ratio compares times of one round, so that both
sides have the same conditions.
"""
import collections
import json
import os
import pathlib
import platform
import re
import shutil
import statistics
import subprocess
import tempfile

from bench_aims import Spread, aim_of, growth_missed, verdict

ROUNDS = 7
GROWTH_ROUNDS = 11
SECONDS = {"ns": 1e-9, "us": 1e-6, "ms": 1e-3, "s": 1.0}
STANDARD_KEYS = {
    "name", "family_index", "per_family_instance_index", "run_name", "run_type", "repetitions", "repetition_index", "threads",
    "iterations", "real_time", "cpu_time", "time_unit", "items_per_second", "bytes_per_second"}

Row = collections.namedtuple("Row", "program name")
Result = collections.namedtuple("Result", "seconds counters iterations")


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


def run_row(row, prefix=(), seconds=None):
    """Runs a row once. A row that also measures other processes reports its time itself."""
    command = [*prefix, row.program, f"--benchmark_filter=^{re.escape(row.name)}$", "--benchmark_format=json"]
    if seconds is None and is_growth(task_of(row.name)):
        seconds = 0.1
    if seconds is not None:
        command.append(f"--benchmark_min_time={seconds}")
    out = subprocess.run(command, capture_output=True, text=True, check=True).stdout
    result = json.loads(out)["benchmarks"][0]
    if result.get("error_occurred"):
        raise SystemExit(f"{row.name}: {result['error_message']}")
    clock = "real_time" if row.name.endswith(("/manual_time", "/real_time")) else "cpu_time"
    counters = {key: value for key, value in result.items() if key not in STANDARD_KEYS and isinstance(value, float)}
    return Result(result[clock] * SECONDS[result["time_unit"]], counters, result["iterations"])


def measure(task, rows):
    """{WHO: a Result of each round}"""
    results = {who_of(row.name): [] for row in rows}
    for number in range(GROWTH_ROUNDS if is_growth(task) else ROUNDS):
        for row in rows if number % 2 == 0 else reversed(rows):
            results[who_of(row.name)].append(run_row(row))
    return results


def spread_of(values):
    return Spread(min(values), statistics.median(values), max(values))


def seconds_of(results):
    return [result.seconds for result in results]


def ratios_of(results):
    """{WHO: the spread of its time divided by ours}"""
    ours = seconds_of(results["qx"])
    return {who: spread_of([theirs / mine for theirs, mine in zip(seconds_of(rounds), ours)])
            for who, rounds in results.items() if who != "qx"}


def counters_of(results):
    return {key: spread_of([result.counters[key] for result in results["qx"]]) for key in results["qx"][0].counters}


def threads_of(results):
    """{number of threads: the spread of the work that they do while one thread does 1}"""
    one = seconds_of(results["1"])
    return {who: spread_of([int(who) * alone / time for alone, time in zip(one, seconds_of(rounds))])
            for who, rounds in results.items()}


def doublings(times):
    """[(size, the factor by which the time grows to it from half of it)]"""
    return [(size, times[size] / times[size // 2]) for size in sorted(times) if size % 2 == 0 and size // 2 in times]


def growth_of(results):
    """The factors of the least time of each size: other work on the machine only adds to a time."""
    return doublings({int(who): min(seconds_of(rounds)) for who, rounds in results.items()})


def least_growth_of(results):
    """The least factor of any round, for each size."""
    times = {int(who): seconds_of(rounds) for who, rounds in results.items()}
    by_round = [doublings({size: rounds[number] for size, rounds in times.items()}) for number in range(len(next(iter(times.values()))))]
    return [(steps[0][0], min(factor for _, factor in steps)) for steps in zip(*by_round)]


# A doubled input may cause some calls for memory that is larger at once. Fewer calls than this count as this many.
FEW_CALLS = 10


def call_growth_of(counts):
    """[(size, the factor by which the number of system calls grows to it from half of it)]"""
    return doublings({size: max(count, FEW_CALLS) for size, count in counts.items()})


# The benchmark library reads this clock when it starts or stops the time of a row. The kernel answers, so the calls of the
# timed part are those between two reads.
TIMER_READ = "clock_gettime(CLOCK_THREAD_CPUTIME_ID,"


def timed_calls(trace):
    """The number of system calls in the timed parts of a trace of strace."""
    reads = 0
    calls = 0
    for line in trace.splitlines():
        if line.startswith(TIMER_READ):
            reads += 1
        elif reads % 2 == 1 and re.match(r"\w+\(", line):
            calls += 1
    if reads == 0 or reads % 2 == 1:
        raise SystemExit(f"strace shows {reads} reads of the clock; there must be pairs")
    return calls


def calls_of(row):
    """System calls of the first iteration, or None without strace."""
    if shutil.which("strace") is None:
        return None
    with tempfile.TemporaryDirectory() as directory:
        out = pathlib.Path(directory) / "calls"
        run_row(row, ["strace", "-qq", "-o", str(out)], seconds=0)
        return timed_calls(out.read_text())


# The benchmark library calls these two functions before and after the loop of a row.
LOOP_BEGIN = "benchmark::State::StartKeepRunning()"
LOOP_END = "benchmark::State::FinishKeepRunning()"


def instructions_of(row, seconds=0.2):
    """Instructions of one iteration, or None without valgrind. With `seconds` 0 there is only one iteration."""
    if shutil.which("valgrind") is None:
        return None
    with tempfile.TemporaryDirectory() as directory:
        out = pathlib.Path(directory) / "counts"
        prefix = ["valgrind", "-q", "--tool=callgrind", f"--callgrind-out-file={out}",
                  f"--zero-before={LOOP_BEGIN}", f"--dump-before={LOOP_END}"]
        iterations = run_row(row, prefix, seconds).iterations
        # The library tries again with more iterations, and each attempt ends with a dump. The last dump belongs to the
        # result.
        dumps = sorted(pathlib.Path(directory).glob("counts.*"), key=lambda path: int(path.suffix[1:]))
        loops = [total for total in map(total_of, dumps) if total]
    return loops[-1] / iterations if loops else None


def total_of(dump):
    found = re.search(r"^(?:summary|totals): (\d+)", dump.read_text(), re.MULTILINE)
    return int(found.group(1)) if found else 0


def processor():
    """The processor's own name, its family and model, and its wide vector extensions."""
    fields = dict(re.findall(r"^([^\t:]+)\t*: (.*)$", pathlib.Path("/proc/cpuinfo").read_text().split("\n\n")[0], re.MULTILINE))
    wide = [flag for flag in ("avx2", "avx512bw", "asimd") if flag in (fields.get("flags") or fields.get("Features", "")).split()]
    return {"name": fields.get("model name", platform.machine()), "family": fields.get("cpu family", ""),
            "model": fields.get("model", ""), "wide": wide}


def all_of(tasks, report):
    """The whole document. `report` is called with each task and its part, as soon as it is measured."""
    document = {"processor": processor(), "cores": os.cpu_count(), "kernel": platform.release(), "rounds": ROUNDS, "tasks": {}}
    for task, rows in tasks.items():
        part = part_of(task, measure(task, rows))
        add_counts(task, rows, part)
        document["tasks"][task] = part
        report(task, part)
    return document


def part_of(task, results):
    if is_growth(task):
        return {"growth": growth_of(results), "growth_least": least_growth_of(results)}
    if is_threads(task):
        return {"values": threads_of(results)}
    if is_counted(task):
        return {"values": counters_of(results)}
    return {"values": ratios_of(results), "seconds": {who: spread_of(seconds_of(rounds)) for who, rounds in results.items()}}


def add_counts(task, rows, part):
    """Adds figures that do not depend on the load of the machine: counts of instructions and of system calls."""
    by_who = {who_of(row.name): row for row in rows}
    if is_growth(task):
        add_growth_counts(task, {int(size): row for size, row in by_who.items()}, part)
    elif "seconds" in part:
        add_instructions(task, by_who, part)


def add_instructions(task, by_who, part):
    """Counts the instructions of our row, and of each peer whose times do not decide its aim."""
    undecided = [who for who, spread in part["values"].items()
                 if (aim := aim_of(task, who)) and verdict(aim, spread) == "undecided"]
    if undecided:
        counts = {who: instructions_of(row) for who, row in by_who.items() if who in ["qx", *undecided]}
        part["instructions"] = {who: count for who, count in counts.items() if count is not None}


def add_growth_counts(task, by_size, part):
    """The system calls of each size, and the growth of the instructions where that of the time is over its aim."""
    calls = {size: calls_of(row) for size, row in by_size.items()}
    if None not in calls.values():
        part["calls"] = sorted(calls.items())
    slow = [size for size, factor in part["growth"] if growth_missed(task, factor)]
    counts = {size: instructions_of(by_size[size], seconds=0) for large in slow for size in (large // 2, large)}
    if slow and None not in counts.values():
        part["instruction_growth"] = [(size, counts[size] / counts[size // 2]) for size in slow]

"""The aims of the benchmarks, and whether a measured spread reaches an aim.

A ratio is the time of WHO for the work of TASK in terms of ours: above 1, ours is faster. WHO "limit" and "bare_calls" do only
the necessary calls and copies.
"""
import collections

Aim = collections.namedtuple("Aim", "task who at_least at_most", defaults=(None, None))
Spread = collections.namedtuple("Spread", "least median most")

AIMS = [
    Aim("transfer", "bare_calls", at_least=0.75),
    Aim("transfer", "limit", at_least=0.6),
    Aim("transfer", "lmdb_pugixml", at_least=8),
    Aim("what", "pugixml", at_least=1.2),
    Aim("append", "stdio", at_least=2.5),
    Aim("append", "sqlite", at_least=3.5),
    Aim("parse_cdata", "limit", at_least=0.8),
    Aim("parse_children", "pugixml", at_least=2.5),
    Aim("parse_request", "pugixml", at_least=1.2),
    Aim("build_children", "pugixml", at_least=1.5),
    Aim("build_cdata", "limit", at_least=0.6),
    Aim("escape", "pugixml", at_least=1.8),
    Aim("unescape", "pugixml", at_least=1.8),
    Aim("registry_load", "glib", at_least=2.5),
    Aim("registry_save", "fprintf", at_least=3),
    Aim("ini_read", "fgets", at_least=3),
    Aim("ini_read", "glib", at_least=20),
    Aim("trace_off", "limit", at_least=0.95),
    Aim("trace_log", "limit", at_least=0.77),
    Aim("trace_log", "spdlog", at_least=1.5),
    Aim("trace_ring", "strftime_snprintf", at_least=2.4),
    Aim("threads_transfer", "2", at_least=1.9),
    Aim("transfer_faults", "faults_per_chunk", at_most=10),
    Aim("memory_per_element", "bytes_per_element", at_most=50),
]


# The time and the system calls for twice the input, in each row of growth except for work that is known not to be linear, and
# for the bare reads, which are no work of ours.
GROWTH_AT_MOST = 2.3
GROWTH_WITHOUT_AIM = {"grow_set_attributes", "grow_ini_limit"}


def growth_missed(task, factor):
    return task not in GROWTH_WITHOUT_AIM and factor > GROWTH_AT_MOST


def aim_of(task, who):
    return next((aim for aim in AIMS if (aim.task, aim.who) == (task, who)), None)


def verdict(aim, spread):
    """"reached" or "missed" if every round says so, otherwise "undecided"."""
    if aim.at_least is not None:
        kept = [value >= aim.at_least for value in (spread.least, spread.most)]
    else:
        kept = [value <= aim.at_most for value in (spread.least, spread.most)]
    if all(kept):
        return "reached"
    return "undecided" if any(kept) else "missed"


def text_of(aim):
    return f"at least {aim.at_least:g}" if aim.at_least is not None else f"at most {aim.at_most:g}"

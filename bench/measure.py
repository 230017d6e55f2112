"""Runs the programs that are compared, and collects rows of medians, ranges and ratios."""
import os
import pathlib
import re
import statistics
import subprocess
import sys
import tempfile
import time

ROOT = pathlib.Path(__file__).resolve().parent.parent
CPUS = sorted(os.sched_getaffinity(0))


class Bench:
    """The options of a comparison and its rows so far."""

    def __init__(self, args):
        self.args = args
        self.out = args.build / "bench"
        self.rounds = args.rounds or (1 if args.smoke else 3 if args.quick else 5)
        self.ms = self.sized(300, 40, 1)
        self.table = ""  # the one that rows are added to
        self.rows = {}   # by title
        self.missing = set()

    def sized(self, full, quick, smoke):
        """The one of three values that fits the length of this comparison."""
        return smoke if self.args.smoke else quick if self.args.quick else full

    def selected(self, title):
        return self.args.only in title

    def program(self, name):
        """Where the peer is; None, and a note, when it is not there."""
        path = self.out / f"peers/peer_{name}"
        if path.exists():
            return path
        self.missing.add(name)
        return None

    def peer(self, text):
        """The command of "PROGRAM WORKLOAD [OPTION...]"; None when the program is not there."""
        name, workload, *options = text.split()
        path = self.program(name)
        return path and [path, workload, f"ms={self.ms}", *options]

    def measure(self, title, commands, metrics, cores=2):
        """{metric: {label: [value of each round]}}; `commands` is {label: command}."""
        print(f"  {title}", file=sys.stderr, flush=True)
        values = {metric: {label: [] for label in commands} for metric in metrics}
        for _ in range(self.rounds):
            for label, command in commands.items():
                result = execute(command, cores)
                for metric in metrics:
                    values[metric][label].append(result[metric])
        return values

    def add(self, title, unit, values, targets=(), bars=True, note=""):
        """A finished row. `targets`: (label, "times"), how often the own time goes into the label's, with a
        least value, or "time", the reverse, with a largest; (None, "is") bounds the own value itself."""
        series = {label: {"median": statistics.median(all_), "min": min(all_), "max": max(all_), "rounds": all_}
                  for label, all_ in values.items()}
        own = next(iter(series.values()))["median"]
        checks = []
        for label, kind, limit in targets:
            if label is not None and label not in series:
                continue
            other = series[label]["median"] if label is not None else 1
            ratio = other / own if kind == "times" else own / other
            met = None if limit is None else bool(ratio >= limit if kind == "times" else ratio <= limit)
            checks.append({"against": label, "kind": kind, "ratio": ratio, "limit": limit, "met": met})
        # Of several runs each ratio is the worst one.
        for check in self.rows.get(title, {"checks": []})["checks"]:
            for i, new in enumerate(checks):
                if new["against"] == check["against"] and badness(check) > badness(new):
                    checks[i] = check
        self.rows[title] = {"table": self.table, "title": title, "note": note, "unit": unit, "bars": bars,
                            "series": series, "checks": checks}


def badness(check):
    """By how much a target is missed, or how bad a ratio is that has none."""
    how_much = 1 / check["ratio"] if check["kind"] == "times" else check["ratio"]
    return check["met"] is False, how_much


def execute(command, cores=2):
    """Runs one process on so many cores; returns {metric: value} of what it prints, its "output", and what it
    took: "seconds", "processor" and "rss"."""
    # Of a process that this one forks, the kernel counts this one's memory, too: time(1) is smaller.
    with tempfile.NamedTemporaryFile("r") as usage:
        words = ["time", "-q", "-o", usage.name, "-f", "%U %S %M", "timeout", "1200", *map(str, command)]
        begin = time.monotonic()
        process = subprocess.run(words, stdout=subprocess.PIPE, stdin=subprocess.DEVNULL, text=True, check=False,
                                 preexec_fn=lambda: os.sched_setaffinity(0, CPUS[:cores]))
        seconds = time.monotonic() - begin
        if process.returncode != 0:
            sys.exit(f"failed with {process.returncode}: {' '.join(words)}\n{process.stdout[-1000:]}")
        user, system, rss = map(float, usage.read().split())
    values = {"seconds": seconds, "processor": user + system, "rss": rss, "output": process.stdout}
    # Lines of three words: the workload, the metric, the value.
    values.update((name, float(value)) for name, value in
                  re.findall(r"^\S+ (\S+) (-?\d+(?:\.\d+)?)$", process.stdout, re.MULTILINE))
    return values

#!/usr/bin/env python3
"""Compares vxrun and libvxbase with their peers on the same work. scripts/bench.sh builds everything and calls it.

Every row of the tables is one piece of work. The programs that do it take turns (A B A B ...), one
process each, and each ratio is one of medians out of the same run. Prints the tables as Markdown and
writes them as results.md, results.json and results.svg to the bench folder of the build.
"""
import argparse
import json
import os
import pathlib
import platform
import sys
import time

import engine
import report
import video
from measure import CPUS, ROOT, Bench

parser = argparse.ArgumentParser(description=__doc__, formatter_class=argparse.RawDescriptionHelpFormatter)
parser.add_argument("--quick", action="store_true", help="a few minutes: three rounds of short measurements")
parser.add_argument("--smoke", action="store_true", help="everything once, as briefly as possible: no figures")
parser.add_argument("--rounds", type=int, help="rounds (default 5; 3 with --quick)")
parser.add_argument("--runs", type=int, default=1, help="whole runs; the worst ratio of each is stated (default 1)")
parser.add_argument("--video", action="store_true", help="only the rows of vxrun")
parser.add_argument("--only", default="", metavar="TEXT", help="only rows whose title contains TEXT")
parser.add_argument("--build", type=pathlib.Path, default=ROOT / "build/release", help="where the programs are")
args = parser.parse_args()

if not args.smoke and len(CPUS) < 2:
    print("one core only: the rows of two cores run on it, too", file=sys.stderr)
bench = Bench(args)
tables = [(video.OWN, video.rows)] + ([] if args.video else [(engine.OWN, engine.rows)])
for _ in range(args.runs):
    for table, add_rows in tables:
        bench.table = table
        add_rows(bench)
rows = list(bench.rows.values())
if not rows:
    sys.exit("no such row")

(bench.out / "results.json").write_text(json.dumps({
    "date": time.strftime("%Y-%m-%d %H:%M:%S %z"), "machine": platform.processor() or platform.machine(),
    "kernel": platform.release(), "load": os.getloadavg(), "cores": len(CPUS), "runs": args.runs, "rounds": bench.rounds,
    "ms": bench.ms, "missing": sorted(bench.missing), "rows": rows}, indent=1) + "\n")
(bench.out / "results.svg").write_text(report.svg(rows, bench.rounds))
parts = [report.markdown([row for row in rows if row["table"] == table], table)
         for table, _ in tables if any(row["table"] == table for row in rows)]
targets = [check["met"] for row in rows for check in row["checks"] if check["met"] is not None]
parts.append(f"{sum(targets)} of {len(targets)} targets met. {bench.rounds} rounds, {bench.ms} ms per measurement of "
             f"libvxbase; Linux {platform.release()}, {len(CPUS)} cores, load {os.getloadavg()[1]:.1f} at the end")
if args.runs > 1:
    parts.append(f"{args.runs} runs: each ratio is the worst one, the times are the last run's.")
parts += [f"Left out, since it was not there: {name}" for name in sorted(bench.missing)]
(bench.out / "results.md").write_text("\n\n".join(parts) + "\n")
print(f"smoke run: {len(rows)} rows" if args.smoke else (bench.out / "results.md").read_text())
# What is beside the repository, and not installed, may be missing anywhere.
unbuilt = bench.missing - {video.FLUSTER}
if args.smoke and unbuilt:
    sys.exit(f"not there: {', '.join(sorted(unbuilt))}")

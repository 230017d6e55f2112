#!/usr/bin/env python3
"""Compares libvxbase with its peers on the same work. scripts/bench.sh builds everything and calls it.

Every row of the table is one piece of work. The programs that do it take turns (A B A B ...), one
process each, and each ratio is one of medians out of the same run. Prints the table as Markdown and
writes it as results.md, results.json and results.svg to the bench folder of the build.
"""
import argparse
import html
import json
import os
import pathlib
import platform
import statistics
import subprocess
import sys
import time

ROOT = pathlib.Path(__file__).resolve().parent.parent
OWN = "libvxbase"
COLORS = {OWN: "#d62728", "GStreamer": "#1f77b4", "Asio": "#2ca02c", "oneTBB": "#9467bd", "GLib": "#8c564b",
           "ffmpeg": "#1f77b4"}  # floors and the like are grey

parser = argparse.ArgumentParser(description=__doc__, formatter_class=argparse.RawDescriptionHelpFormatter)
parser.add_argument("--quick", action="store_true", help="about a minute: three rounds of short measurements")
parser.add_argument("--smoke", action="store_true", help="everything once, as briefly as possible: no figures")
parser.add_argument("--rounds", type=int, help="rounds (default 5; 3 with --quick)")
parser.add_argument("--only", default="", metavar="TEXT", help="only rows whose title contains TEXT")
parser.add_argument("--build", type=pathlib.Path, default=ROOT / "build/release", help="where the programs are")
args = parser.parse_args()

PROGRAMS = args.build / "bench/peers"
OUT = args.build / "bench"
ROUNDS = args.rounds or (1 if args.smoke else 3 if args.quick else 5)
MS = 1 if args.smoke else 40 if args.quick else 300
MANY = 10_000 if args.smoke else 300_000 if args.quick else 10_000_000  # works of the long run
FRAMES = 10 if args.smoke else 80 if args.quick else 300
CPUS = sorted(os.sched_getaffinity(0))
missing = set()
rows = []


# ---- Measuring ----------------------------------------------------------------------------------

def execute(command, cores=2):
    """Runs one process on so many cores; returns {metric: value} of what it prints, and what it took."""
    words = ["timeout", "1200", *map(str, command)]
    begin = time.monotonic()
    process = subprocess.Popen(words, stdout=subprocess.PIPE, stdin=subprocess.DEVNULL, text=True,
                               preexec_fn=lambda: os.sched_setaffinity(0, CPUS[:cores]))
    output = process.stdout.read()
    _, status, usage = os.wait4(process.pid, 0)
    seconds = time.monotonic() - begin
    process.returncode = os.waitstatus_to_exitcode(status)
    if process.returncode != 0:
        sys.exit(f"failed with {process.returncode}: {' '.join(words)}")
    values = {"seconds": seconds, "processor": usage.ru_utime + usage.ru_stime, "rss": usage.ru_maxrss}
    for line in output.splitlines():
        name = line.split()  # of the workload, of the metric; the value
        if len(name) == 3:
            values[name[1]] = float(name[2])
    return values


def program(name):
    """Where it is; None, and a note, when it is not there."""
    path = PROGRAMS / f"peer_{name}"
    if path.exists():
        return path
    missing.add(name)
    return None


def peer(text):
    """The command of "PROGRAM WORKLOAD [OPTION...]"; None when the program is not there."""
    name, workload, *options = text.split()
    path = program(name)
    return path and [path, workload, f"ms={MS}", *options]


def selected(title):
    return args.only in title


def measure(title, commands, metrics, cores=2):
    """{metric: {label: [value of each round]}}; `commands` is {label: command}."""
    print(f"  {title}", file=sys.stderr, flush=True)
    values = {metric: {label: [] for label in commands} for metric in metrics}
    for _ in range(ROUNDS):
        for label, command in commands.items():
            result = execute(command, cores)
            for metric in metrics:
                values[metric][label].append(result[metric])
    return values


def add(title, unit, values, targets=(), bars=True):
    """A finished row. `targets`: (label, "times"), how often the own time goes into the label's, with a
    least value, or "time", the reverse, with a largest; (None, "is") bounds the own value itself."""
    series = {label: {"median": statistics.median(all_), "min": min(all_), "max": max(all_), "rounds": all_}
              for label, all_ in values.items()}
    own = next(iter(series.values()))["median"]
    # What the rules (events, threads, libraries) alone reach stands beside a target that is missed.
    floor = next((label for label in series if label.endswith(" alone")), None)
    checks = []
    for label, kind, limit in targets:
        if label is not None and label not in series:
            continue
        other = series[label]["median"] if label is not None else 1
        def check(taken):
            ratio = other / taken if kind == "times" else taken / other
            return ratio, None if limit is None else bool(ratio >= limit if kind == "times" else ratio <= limit)
        ratio, met = check(own)
        checks.append({"against": label, "kind": kind, "ratio": ratio, "limit": limit, "met": met})
        if floor and met is not None:
            checks[-1]["floor"] = dict(zip(("ratio", "met"), check(series[floor]["median"])), label=floor)
    rows.append({"title": title, "unit": unit, "bars": bars, "series": series, "checks": checks})


def compare(title, own, others, cores=2, metrics=("ns_per_item",), names=("",)):
    """The usual row. `others`: {label: (command, kind, limit)}."""
    if not selected(title):
        return
    commands = {OWN: peer(own), **{label: peer(command) for label, (command, _, _) in others.items()}}
    commands = {label: command for label, command in commands.items() if command}
    values = measure(title, commands, metrics, cores)
    for metric, name in zip(metrics, names):
        # What is not the first metric is stated only.
        add(title + name, "ns", values[metric],
            [(label, kind, limit if metric == metrics[0] else None) for label, (_, kind, limit) in others.items()])


# ---- The rows -----------------------------------------------------------------------------------

def chains():
    def chain(title, options, gstreamer, asio, actor, cores=2):
        compare(title, f"vxbase chain {options}", {
            "GStreamer": (f"gstreamer chain {options}", "times", gstreamer),
            "Asio": (f"asio chain {options}", "times", asio),
            "oneTBB": (f"onetbb chain {options}", "times", None),
            "mutex + condvar": (f"floors chain_plain {options}", "times", None),
            "its rules alone": (f"rules chain {options}", "time", None),
            "its events alone": (f"rules chain_events {options}", "time", None),
            "bare actor": (f"floors chain {options}", "time", actor)}, cores)

    for n in 3, 5, 9:
        chain(f"chain of {n}, two cores", f"n={n}", 4, 4, 2.5)
    for n in 3, 5, 9:
        chain(f"chain of {n}, one core", f"n={n}", 2, 2, 2.5, cores=1)
    # Never slower: the rest is noise.
    # Where the kernel puts the threads decides for a while: measured longer, and where it has no
    # choice.
    chain("chain of 5 beside 2 busy threads", f"n=5 busy=2 ms={4 * MS}", 0.95, 0.95, None)
    chain("chain of 5 beside a busy thread, one core", "n=5 busy=1", 0.95, 0.95, None, cores=1)
    chain("chain of 5, 20 us of work per node", f"n=5 us=20 ms={4 * MS}", 0.95, 0.95, None)
    compare("fan-out to 4", "vxbase fanout n=4", {
        "GStreamer": ("gstreamer fanout n=4", "times", 4),
        "mutex + condvar": ("floors fanout_plain n=4", "times", None),
        "its rules alone": ("rules fanout n=4", "time", None),
        "bare actor": ("floors fanout n=4", "time", None)})


def events():
    compare("round trip of two nodes", "vxbase roundtrip", {
        "its events alone": ("vxbase roundtrip_events", "time", None),
        "GLib": ("glib roundtrip", "times", None),
        "Asio": ("asio roundtrip", "times", None),
        "mutex + condvar": ("floors roundtrip_plain", "times", None),
        "yield, then futex": ("floors roundtrip", "time", 1.3)},
        metrics=("ns_median", "ns_p99"), names=(", median", ", 99th percentile"))
    for n in 1, 2, 4:
        compare(f"posting, {n} producer{'s' if n > 1 else ''}", f"vxbase post n={n}", {
            "Asio": (f"asio post n={n}", "times", 2),
            "GLib": (f"glib post n={n}", "times", 4),
            "mutex + condvar": (f"floors post n={n}", "times", None)})


def pools():
    for back_end, workload in ("xcodec2", "pool"), ("dmabuf", "pool_dmabuf"):
        for n in 1, 2:
            compare(f"pool, {back_end}, {n} thread{'s' if n > 1 else ''}", f"vxbase {workload} n={n}", {
                "GStreamer": (f"gstreamer pool n={n}", "times", 3),
                "its rules alone": (f"rules pool n={n}", "time", None),
                "free list": (f"floors pool n={n}", "time", 1.2)})


def graph():
    compare("9-node graph built, started, stopped, destroyed", "vxbase lifecycle n=9",
            {"its threads alone": ("rules lifecycle n=9", "time", None),
             "10 threads": ("floors threads n=10", "time", 2)})

    title = "idle graph of 9 nodes, context switches in a second"
    if selected(title):
        values = measure(title, {OWN: peer("vxbase idle n=9")}, ["switches"])
        add(title, "", values["switches"], [(None, "is", 0)], bars=False)

    title = "allocations per work and hop"
    if selected(title):
        def allocations(nodes, works):
            command = peer(f"vxbase chain n={nodes} count={works} ms=0")
            return execute(["env", f"LD_PRELOAD={PROGRAMS}/count_malloc.so", *command])["allocations"]
        few, many = 2000, 10000
        def per_hop():
            per_work = [(allocations(n, many) - allocations(n, few)) / (many - few) for n in (3, 9)]
            return (per_work[1] - per_work[0]) / 6
        # How many works go in one event differs from run to run.
        add(title, "", {OWN: [per_hop() for _ in range(ROUNDS)]}, [(None, "is", 6)], bars=False)


def growth():
    title = "growth, one core, ns per hop by nodes"
    if selected(title):
        sizes = (65, 33, 17, 9, 5, 3)  # the first one is compared with the others
        values = measure(title, {f"{n} nodes": peer(f"vxbase chain n={n}") for n in sizes}, ["ns_per_item"], cores=1)
        hops = {f"{n} nodes": [ns / (n - 1) for ns in values["ns_per_item"][f"{n} nodes"]] for n in sizes}
        add(title, "ns", hops, [(f"{n} nodes", "time", 1.25) for n in sizes[1:]])

    title = "growth, one core, ns per work by works"
    if selected(title):
        sizes = [count for count in (MANY, 1_000_000, 100_000, 10_000, 1_000) if count <= MANY]
        commands = {f"{n:,} works": peer(f"vxbase chain n=3 count={n}") for n in sizes}
        values = measure(title, commands, ["ns_per_item", "rss"], cores=1)
        labels = list(commands)[1:]
        add(title, "ns", values["ns_per_item"], [(label, "time", 1.25) for label in labels])
        add("growth, memory of the process", "KiB", values["rss"], [(label, "time", 1.1) for label in labels])


def video():
    title = "vxrun, a frame of 1080p H.264 to framemd5"
    share = "graph's share of vxrun's processor time, %"
    if not selected(title) and not selected(share):
        return
    clip, sums, written = (OUT / f"clip{FRAMES}.mp4", OUT / f"clip{FRAMES}.framemd5", OUT / "written.framemd5")
    ffmpeg = ["ffmpeg", "-nostdin", "-v", "error", "-y"]
    def list_sums(target, threads):
        return [*ffmpeg, "-threads", threads, "-i", clip, "-an", "-f", "framemd5", target]
    if not clip.exists():
        part = clip.with_suffix(".part.mp4")
        execute([*ffmpeg, "-f", "lavfi", "-i", "testsrc2=size=1920x1080:rate=30", "-vf", "noise=alls=8:allf=t",
                 "-frames:v", FRAMES, "-c:v", "libx264", "-preset", "veryfast", "-pix_fmt", "yuv420p", part])
        part.rename(clip)
    execute(list_sums(sums, 2))
    for threads in 1, 2:
        vxrun = [args.build / "apps/vxrun/vxrun", ROOT / "apps/vxrun/graphs/decode.json", "--quiet", "--set",
                 f"reader.file={clip}", "--set", f"decoder.threads={threads}", "--set", f"check.expect={sums}"]
        # vxrun fails when one checksum of ffmpeg's list differs.
        row = f"{title}, {threads} decoder thread{'s' if threads > 1 else ''}"
        commands = {OWN: vxrun, "ffmpeg": list_sums(written, threads)}
        if program("libav"):
            commands["its libraries alone"] = [program("libav"), clip, threads]
        values = measure(row, commands, ["seconds", "processor"])
        scaled = {metric: {label: [s * 1e9 / FRAMES for s in all_] for label, all_ in values[metric].items()}
                  for metric in values}
        add(row, "ns", scaled["seconds"], [("ffmpeg", "times", 1.2), ("its libraries alone", "time", None)])
        add(row + ", processor time", "ns", scaled["processor"], [("ffmpeg", "times", None), ("its libraries alone", "time", None)])

    paced = measure(share, {OWN: peer("vxbase paced n=3")}, ["cpu_ns_per_item"])["cpu_ns_per_item"][OWN]
    frame = statistics.median(scaled["processor"][OWN])
    add(share, "", {OWN: [100 * ns / frame for ns in paced]}, [(None, "is", 2)], bars=False)


def gates():
    title = "log mask 0: gates' share of a hop, %"
    if selected(title):
        gate = measure(title, {OWN: peer("vxbase gates")}, ["gates_per_hop", "ns_per_gate"], cores=1)
        hop = measure(title, {OWN: peer("vxbase chain n=5")}, ["ns_per_item"], cores=1)["ns_per_item"][OWN]
        share = [100 * count * ns / (work / 4)
                 for count, ns, work in zip(gate["gates_per_hop"][OWN], gate["ns_per_gate"][OWN], hop)]
        add(title, "", {OWN: share}, [(None, "is", 1)], bars=False)


# ---- What is written ----------------------------------------------------------------------------

def number(value, unit):
    if unit == "ns" and value >= 1e4:
        return number(value / 1e3, "us") if value < 1e7 else number(value / 1e6, "ms")
    return (f"{value:,.0f}" if value >= 100 else f"{value:.3g}") + f" {unit}".rstrip()


def spread(series, unit):
    return number(series["median"], unit) + (f" ({number(series['min'], unit)} to {number(series['max'], unit)})"
                                             if ROUNDS > 1 else "")


def verdict(check):
    text = {None: "", True: "met", False: "**missed**"}[check["met"]]
    if check["met"] is False and "floor" in check:
        text += f"; {check['floor']['label']}: {check['floor']['ratio']:.2f}"
    return text


def limit(check):
    if check["limit"] is None:
        return ""
    return f"{'at least' if check['kind'] == 'times' else 'at most'} {check['limit']:g}"


def ratio(check):
    return "" if check["kind"] == "is" else f"{check['ratio']:.2f} times as {'fast' if check['kind'] == 'times' else 'much'}"


def markdown():
    lines = [("work", OWN, "beside", "", "ratio", "target", "")]
    for row in rows:
        first, own = next(iter(row["series"].items()))
        name = row["title"] if first == OWN else f"{row['title']}: {first}"
        for i, check in enumerate(row["checks"]):
            other = spread(row["series"][check["against"]], row["unit"]) if check["against"] else ""
            lines.append((name if i == 0 else "", spread(own, row["unit"]) if i == 0 else "", check["against"] or "",
                          other, ratio(check), limit(check), verdict(check)))
    widths = [max(len(line[i]) for line in lines) for i in range(7)]
    lines.insert(1, tuple("-" * width for width in widths))
    return "\n".join("| " + " | ".join(cell.ljust(width) for cell, width in zip(line, widths)) + " |" for line in lines)


def svg():
    """One group of bars per row, in two columns; each group has a scale of its own."""
    bar, name_width, length, column = 13, 130, 230, 620
    shown = [row for row in rows if row["bars"]]
    heights = [bar * len(row["series"]) + 28 for row in shown]
    parts, x, y, bottom = [], 10, 40, 40
    def text(at_x, at_y, what, extra=""):
        parts.append(f'<text x="{at_x:.0f}" y="{at_y:.0f}" {extra}>{html.escape(what)}</text>')
    for row, height in zip(shown, heights):
        if x == 10 and y - 40 >= sum(heights) / 2:
            x, y = 10 + column, 40
        text(x, y + 10, row["title"], 'font-weight="bold"')
        # A stray round may leave the picture.
        most = 1.3 * max(series["median"] for series in row["series"].values())
        scale = length / most
        checks = {check["against"]: check for check in row["checks"]}
        for i, (label, series) in enumerate(row["series"].items()):
            top, check = y + 15 + i * bar, checks.get(label)
            color = COLORS.get(label, COLORS[OWN] if i == 0 else "#999999")
            text(x + name_width - 5, top + 10, label, 'text-anchor="end"')
            parts.append(f'<rect x="{x + name_width}" y="{top}" width="{series["median"] * scale:.1f}" '
                         f'height="{bar - 2}" fill="{color}"/>')
            parts.append(f'<path d="M{x + name_width + series["min"] * scale:.1f} {top + bar / 2 - 1:.1f}'
                         f'h{(min(series["max"], most) - series["min"]) * scale:.1f}" stroke="black"/>')
            note = number(series["median"], row["unit"]) + (f", {ratio(check)}" if check else "")
            tone = {None: "black", True: "#070", False: "#b00"}[check and check["met"]]
            if tone != "black":
                note += f" ({limit(check)})"
            text(x + name_width + length + 6, top + 10, note, f'fill="{tone}"')
        y += height
        bottom = max(bottom, y)
    return (f'<svg xmlns="http://www.w3.org/2000/svg" width="{2 * column + 10}" height="{bottom}" '
            f'font-family="sans-serif" font-size="10.5"><rect width="100%" height="100%" fill="white"/>'
            f'<text x="10" y="22" font-size="15">{OWN} beside its peers: medians of {ROUNDS} interleaved rounds, '
            f'lines from least to most; shorter is better; '
            f'green: target met, red: missed</text>' + "".join(parts) + "</svg>\n")


if not args.smoke and len(CPUS) < 2:
    print("one core only: the rows of two cores run on it, too", file=sys.stderr)
for part in chains, events, pools, graph, growth, video, gates:
    part()
if not rows:
    sys.exit("no such row")
(OUT / "results.json").write_text(json.dumps({
    "date": time.strftime("%Y-%m-%d %H:%M:%S %z"), "machine": platform.processor() or platform.machine(),
    "kernel": platform.release(), "load": os.getloadavg(), "cores": len(CPUS), "rounds": ROUNDS, "ms": MS, "frames": FRAMES,
    "missing": sorted(missing), "rows": rows}, indent=1) + "\n")
(OUT / "results.svg").write_text(svg())
checks = [check["met"] for row in rows for check in row["checks"] if check["met"] is not None]
below = sum(not check["floor"]["met"] for row in rows for check in row["checks"] if check["met"] is False and "floor" in check)
summary = f"{sum(checks)} of {len(checks)} targets met; {below} of the others are missed by what stands alone, too. {ROUNDS} rounds of {MS} ms per measurement; "
summary += f"Linux {platform.release()}, {len(CPUS)} cores, load {os.getloadavg()[1]:.1f} at the end"
for name in sorted(missing):
    summary += f"\n\nLeft out, since it was not there when the benchmarks were built: {name}"
(OUT / "results.md").write_text(f"{markdown()}\n\n{summary}\n")
print(f"smoke run: {len(rows)} rows" if args.smoke else (OUT / "results.md").read_text())
if args.smoke and missing:
    sys.exit(f"not built: {', '.join(sorted(missing))}")

"""The rows of the engine alone: graphs, events and pools beside the libraries that one would use instead.

The engine may take 1.15 times what its rules alone take, and is never slower than GStreamer.
"""
from measure import execute

OWN = "libvxbase"
RULES = "its rules alone"


def rows(bench):
    for part in chains, events, pools, graph, growth, gates:
        part(bench)


def compare(bench, title, own, others, cores=2, metrics=("ns_per_item",), names=("",)):
    """The usual row. `others`: {label: (command, kind, limit)}."""
    if not bench.selected(title):
        return
    commands = {OWN: bench.peer(own), **{label: bench.peer(command) for label, (command, _, _) in others.items()}}
    commands = {label: command for label, command in commands.items() if command}
    values = bench.measure(title, commands, metrics, cores)
    for metric, name in zip(metrics, names):
        # What is not the first metric is stated only.
        bench.add(title + name, "ns", values[metric],
                  [(label, kind, limit if metric == metrics[0] else None) for label, (_, kind, limit) in others.items()])


def chains(bench):
    def chain(title, options, cores=2):
        compare(bench, title, f"vxbase chain {options}", {
            "GStreamer": (f"gstreamer chain {options}", "times", 1),
            "Asio": (f"asio chain {options}", "times", None),
            "oneTBB": (f"onetbb chain {options}", "times", None),
            "mutex + condvar": (f"floors chain_plain {options}", "times", None),
            RULES: (f"rules chain {options}", "time", 1.15),
            "its events alone": (f"rules chain_events {options}", "time", None),
            "bare actor": (f"floors chain {options}", "time", None)}, cores)

    for n in 3, 5, 9:
        chain(f"chain of {n}, two cores", f"n={n}")
    for n in 3, 5, 9:
        chain(f"chain of {n}, one core", f"n={n}", cores=1)
    # Where the kernel puts the threads decides for a while: measured longer, and where it has no
    # choice.
    chain("chain of 5 beside 2 busy threads", f"n=5 busy=2 ms={4 * bench.ms}")
    chain("chain of 5 beside a busy thread, one core", "n=5 busy=1", cores=1)
    chain("chain of 5, 20 us of work per node", f"n=5 us=20 ms={4 * bench.ms}")
    compare(bench, "fan-out to 4", "vxbase fanout n=4", {
        "GStreamer": ("gstreamer fanout n=4", "times", 1),
        "mutex + condvar": ("floors fanout_plain n=4", "times", None),
        RULES: ("rules fanout n=4", "time", 1.15),
        "bare actor": ("floors fanout n=4", "time", None)})


def events(bench):
    compare(bench, "round trip of two nodes", "vxbase roundtrip", {
        "its events alone": ("vxbase roundtrip_events", "time", None),
        "GLib": ("glib roundtrip", "times", None),
        "Asio": ("asio roundtrip", "times", None),
        "mutex + condvar": ("floors roundtrip_plain", "times", None),
        "yield, then futex": ("floors roundtrip", "time", None)},
        metrics=("ns_median", "ns_p99"), names=(", median", ", 99th percentile"))
    for n in 1, 2, 4:
        compare(bench, f"posting, {n} producer{'s' if n > 1 else ''}", f"vxbase post n={n}", {
            "Asio": (f"asio post n={n}", "times", 2),
            "GLib": (f"glib post n={n}", "times", 4),
            "mutex + condvar": (f"floors post n={n}", "times", None)})


def pools(bench):
    for back_end, workload in ("xcodec2", "pool"), ("dmabuf", "pool_dmabuf"):
        for n in 1, 2:
            compare(bench, f"pool, {back_end}, {n} thread{'s' if n > 1 else ''}", f"vxbase {workload} n={n}", {
                "GStreamer": (f"gstreamer pool n={n}", "times", 1),
                RULES: (f"rules pool n={n}", "time", 1.15),
                "free list": (f"floors pool n={n}", "time", 1.2 if n > 1 else None)})


def graph(bench):
    compare(bench, "9-node graph built, started, stopped, destroyed", "vxbase lifecycle n=9",
            {"its threads alone": ("rules lifecycle n=9", "time", None),
             "10 threads": ("floors threads n=10", "time", None)})

    title = "idle graph of 9 nodes, context switches in a second"
    if bench.selected(title):
        values = bench.measure(title, {OWN: bench.peer("vxbase idle n=9")}, ["switches"])
        bench.add(title, "", values["switches"], [(None, "is", 0)], bars=False)

    title = "allocations per work and hop"
    if bench.selected(title):
        def allocations(nodes, works):
            command = bench.peer(f"vxbase chain n={nodes} count={works} ms=0")
            return execute(["env", f"LD_PRELOAD={bench.out}/peers/count_malloc.so", *command])["allocations"]
        few, many = 2000, 10000
        def per_hop():
            per_work = [(allocations(n, many) - allocations(n, few)) / (many - few) for n in (3, 9)]
            return (per_work[1] - per_work[0]) / 6
        # How many works go in one event differs from run to run.
        bench.add(title, "", {OWN: [per_hop() for _ in range(bench.rounds)]}, [(None, "is", 6)], bars=False)


def growth(bench):
    title = "growth, one core, ns per hop by nodes"
    if bench.selected(title):
        sizes = (65, 33, 17, 9, 5, 3)  # the first one is compared with the others
        values = bench.measure(title, {f"{n} nodes": bench.peer(f"vxbase chain n={n}") for n in sizes}, ["ns_per_item"], cores=1)
        hops = {f"{n} nodes": [ns / (n - 1) for ns in values["ns_per_item"][f"{n} nodes"]] for n in sizes}
        bench.add(title, "ns", hops, [(f"{n} nodes", "time", 1.25) for n in sizes[1:]])

    title = "growth, one core, ns per work by works"
    if bench.selected(title):
        many = bench.sized(10_000_000, 300_000, 10_000)
        sizes = [count for count in (many, 1_000_000, 100_000, 10_000, 1_000) if count <= many]
        commands = {f"{n:,} works": bench.peer(f"vxbase chain n=3 count={n}") for n in sizes}
        values = bench.measure(title, commands, ["ns_per_item", "rss"], cores=1)
        labels = list(commands)[1:]
        bench.add(title, "ns", values["ns_per_item"], [(label, "time", 1.25) for label in labels])
        bench.add("growth, memory of the process", "KiB", values["rss"], [(label, "time", 1.1) for label in labels])


def gates(bench):
    title = "log mask 0: gates' share of a hop, %"
    if bench.selected(title):
        gate = bench.measure(title, {OWN: bench.peer("vxbase gates")}, ["gates_per_hop", "ns_per_gate"], cores=1)
        hop = bench.measure(title, {OWN: bench.peer("vxbase chain n=5")}, ["ns_per_item"], cores=1)["ns_per_item"][OWN]
        share = [100 * count * ns / (work / 4)
                 for count, ns, work in zip(gate["gates_per_hop"][OWN], gate["ns_per_gate"][OWN], hop)]
        bench.add(title, "", {OWN: share}, [(None, "is", 1)], bars=False)

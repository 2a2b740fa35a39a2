#!/usr/bin/env python3
"""Prints the ratio table of orvun_bench's JSON output with the targets.

    python3 scripts/bench-table.py RESULTS.json [MORE.json ...]

Values are medians over repetitions. A ratio is the median, over the
variant's repetitions, of its speed against the baseline's repetition that ran
nearest in time (run with --benchmark_enable_random_interleaving); above 1
the first-named variant is faster (for latencies: baseline time / library
time).
With several files (say a 2-CPU run and a pinned one) each gets a ratio
column; library and baseline values come from the first. Exits 1 when a
benchmark reported an error.
"""
import json
import os
import re
import statistics
import sys

# How a scenario's rows read a benchmark: the field, its display unit and a
# conversion from the field's value (time per unit, in the run's time unit, or
# a counter), and whether lower is better.
NS = {"ns": 1.0, "us": 1e3, "ms": 1e6, "s": 1e9}
MEASURES = {
    "tcp_rtt": ("p50_us", "median us", lambda v: v, True),
    "udp_rtt": ("p50_us", "median us", lambda v: v, True),
    "tcp_bulk": ("time_ns", "MiB/s", lambda ns: 65536 / 2**20 * 1e9 / ns, True),
    "tcp_small": ("time_ns", "messages/s", lambda ns: 1e9 / ns, True),
    "tcp_accept": ("time_ns", "connections/s", lambda ns: 1e9 / ns, True),
    "udp_rate_64": ("delivered_per_s", "delivered/s", lambda v: v, False),
    "udp_rate_1400": ("delivered_per_s", "delivered/s", lambda v: v, False),
    "profiler": ("time_ns", "ns per op", lambda ns: ns, True),
}

# scenario, variant, baseline, target (None: reported only)
RATIOS = [
    ("tcp_rtt", "library", "raw", 0.95),
    ("tcp_rtt", "library_profiling", "raw", 0.92),
    ("tcp_rtt", "library", "asio", 0.97),
    ("tcp_bulk", "library", "raw", 0.95),
    ("tcp_bulk", "library_profiling", "raw", 0.92),
    ("tcp_bulk", "library", "asio", 0.97),
    ("tcp_bulk", "library", "raw_copy", None),
    ("tcp_small", "library", "raw", 0.95),
    ("tcp_small", "library_profiling", "raw", 0.92),
    ("tcp_small", "library", "asio", 0.97),
    ("tcp_small", "raw_extra", "raw", None),
    ("tcp_small", "library_profiling", "raw_extra", None),
    ("tcp_small", "library_worker", "library", 10.0),
    ("tcp_small", "library_worker_profiling", "library_worker", 0.90),
]
for udp in ("udp_rtt", "udp_rate_64", "udp_rate_1400"):
    RATIOS += [
        (udp, "library", "raw_poll_thread", 0.90),
        (udp, "library_profiling", "raw_poll_thread", None),
        (udp, "library", "raw_blocking", None),
        (udp, "library", "asio", 0.97),
        (udp, "raw_poll_thread", "asio", None),  # the most a poll-then-receive loop allows
    ]
RATIOS += [
    ("tcp_accept", "library", "raw", 0.90),
    ("tcp_accept", "library_profiling", "raw", None),
    ("tcp_accept", "library", "raw_poll_lookup", None),
    ("tcp_accept", "library", "asio", 0.97),
]


def load(path):
    """{name: [fields of each repetition]} and the names of runs that failed."""
    with open(path) as f:
        runs = json.load(f)["benchmarks"]
    reps, failed = {}, set()
    for run in runs:
        name = re.sub(r"/(manual_time|real_time|min_time:[^/]*)", "", run["run_name"])
        if run.get("error_occurred"):
            failed.add(name)
        if run["run_type"] != "iteration":
            continue
        fields = {k: v for k, v in run.items() if isinstance(v, (int, float))}
        fields["time_ns"] = run["real_time"] * NS[run["time_unit"]]
        reps.setdefault(name, []).append(fields)
    return reps, failed


def median_of(reps, name, field):
    values = [r[field] for r in reps.get(name, []) if field in r]
    return statistics.median(values) if values else None


def paired(reps, a, b, field, lower):
    """Median over a's repetitions of its speed against b's repetition that
    ran nearest in time: the host's speed drifts, so this compares the two
    under the same conditions, as far as the run allows."""
    ratios = []
    for x in reps.get(a, []):
        near = min(reps.get(b, []), key=lambda y: abs(y.get("at_s", 0) - x.get("at_s", 0)), default=None)
        if near and x.get(field) and near.get(field):
            ratios.append(near[field] / x[field] if lower else x[field] / near[field])
    return statistics.median(ratios) if ratios else None


def fmt(v):
    return f"{v:.0f}" if abs(v) >= 100000 else f"{v:.2f}"


def rows(results):
    """(scenario, measure, library, baseline, [ratio per file], target[, values]) for every row."""
    first = results[0]

    def get(name, field="time_ns", r=None):
        return median_of(r or first, name, field)

    out = []
    for scenario, variant, baseline, target in RATIOS:
        field, unit, show, lower = MEASURES[scenario]
        a, b = f"{scenario}/{variant}", f"{scenario}/{baseline}"
        ratios = [paired(r, a, b, field, lower) for r in results]
        if ratios[0] is None:
            continue
        out.append((scenario, f"{unit}, {variant} / {baseline}", fmt(show(get(a, field))), fmt(show(get(b, field))),
                    ratios, target))

    def t(name, r=None):
        return get("profiler/" + name, "time_ns", r)

    def gain(a, b, r):  # throughput of b over a, paired in time
        return paired(r, "profiler/" + a, "profiler/" + b, "time_ns", False)

    for op, limit in (("scope_d1", 250), ("scope_d4", None), ("extra_d1", 150), ("extra_d4", None)):
        one, two = f"{op}/threads:1", f"{op}/threads:2"
        if t(one) is None:
            continue
        values = [t(one, r) for r in results]
        out.append(("profiler", f"{op}, ns per op, 1 thread", " / ".join(f"{v:.1f}" for v in values if v), "-",
                    [None] * len(results), ("<", limit) if limit else None, values))
        out.append(("profiler", f"{op}, throughput 2 threads / 1 thread", fmt(1e9 / t(two)), fmt(1e9 / t(one)),
                    [gain(one, two, r) for r in results], 1.5))
    for op in ("scope_d1_off", "extra_d1_off"):
        if t(f"{op}/threads:1"):
            out.append(("profiler", f"{op}, ns per op, 1 thread",
                        " / ".join(f"{t(f'{op}/threads:1', r):.1f}" for r in results), "-", [None] * len(results), None))
    hold1, hold2 = "shared_hold/threads:1", "shared_hold/threads:2"
    if t(hold1) and t(hold2):
        out.append(("profiler", "registry lock shared hold, throughput 2 threads / 1 thread", fmt(1e9 / t(hold2)),
                    fmt(1e9 / t(hold1)), [gain(hold1, hold2, r) for r in results], None))
        # Upper bounds the lock alone sets, even if everything else cost
        # nothing: a scope takes the shared mode twice, an extra once, and two
        # threads together cannot take it more often than the bare holds did.
        out.append(("profiler", "scope_d1, 2 threads / 1 thread, at most (registry lock)", "-", "-",
                    [t("scope_d1/threads:1", r) / (2 * t(hold2, r)) for r in results], None))
        out.append(("profiler", "extra_d1, 2 threads / 1 thread, at most (registry lock)", "-", "-",
                    [t("extra_d1/threads:1", r) / t(hold2, r) for r in results], None))
        worker = "tcp_small/library_worker"
        if get(worker):
            # Every worker-mode flush records "TCP TX": at least one bare hold.
            out.append(("tcp_small", "worker with profiling / worker, at most (one shared hold per flush)",
                        f"{get(worker):.1f} ns", f"{t(hold1):.1f} ns",
                        [get(worker, r=r) / (get(worker, r=r) + t(hold1, r)) for r in results], None))
    return out


def main(paths):
    results, failed = [], set()
    for path in paths:
        values, errors = load(path)
        results.append(values)
        failed |= errors
    names = [os.path.splitext(os.path.basename(p))[0] for p in paths]
    print("| scenario | measure | library | baseline | " + " | ".join(f"ratio, {n}" for n in names) +
          " | target | met |")
    print("|---|---|---:|---:|" + "---:|" * len(paths) + "---|---|")
    for row in rows(results):
        scenario, measure, library, baseline, ratios, target = row[:6]
        if target is None:
            target_text, met = "-", "-"
        elif isinstance(target, tuple):  # a limit on the value itself
            target_text = f"< {target[1]} ns"
            met = " / ".join("yes" if v < target[1] else "NO" for v in row[6])
        else:
            target_text = f"≥ {target:.2f}"
            met = " / ".join("-" if r is None else "yes" if r >= target else "NO" for r in ratios)
        cells = " | ".join("-" if r is None else f"{r:.2f}" for r in ratios)
        print(f"| {scenario} | {measure} | {library} | {baseline} | {cells} | {target_text} | {met} |")
    if not any("asio" in name for name in results[0]):
        print("\nBuilt without Boost's headers: the Asio rows are left out.")
    if failed:
        print("\nfailed: " + ", ".join(sorted(failed)), file=sys.stderr)
        return 1
    return 0


if __name__ == "__main__":
    if len(sys.argv) < 2:
        sys.exit(__doc__)
    sys.exit(main(sys.argv[1:]))

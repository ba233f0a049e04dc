#!/usr/bin/python3
"""Speed against rivals, in one sitting: each pair takes turns, so that what else the machine does meets both.

Pairs of programs of Google Benchmark are named by their two functions; others measure themselves. Every ratio is the median of
the rounds, with the least and the greatest behind it. A rival that is not installed leaves its row out.

usage: compare.py BUILD [--rounds N] [--size PIXELS]       (scripts/benchmark.sh builds and calls it)
"""

import argparse
import importlib.util
import json
import os
import statistics
import subprocess
import sys
import tempfile
import time

# What, program, ours, rival, what the rival is. The ratio is that of their times, rival over ours.
PAIRS = [
    ("reconstruction of 121 x 512 x 512", "bench_reconstruction", "reconstruct/512", "copyVolume/512", "memcpy of the volume"),
    ("search of 512 x 512 x 444 voxels", "bench_find_reflexes", "searchSpots/512/444", "countSpots/512/444",
     "one count over the volume"),
    ("reading 121 x 512 x 512", "bench_mrc_file", "readMRCFile", "plainRead", "a plain read"),
    ("writing 121 x 512 x 512", "bench_mrc_file", "writeMRCFile", "plainWrite", "a plain write"),
    ("DDSC of 100000 vectors", "bench_cell_finding", "ddsc/100000", "dbscan/100000", "DBSCAN"),
    ("FSC of 100000 vectors", "bench_cell_finding", "fsc/100000", "dbscan/100000", "DBSCAN"),
    ("Niggli reduction", "bench_niggli", "niggliNullStream", "niggliSpglib", "spglib"),
]


def benchmark_seconds(program, name):
    """Processor time of one call."""
    # The core narrates on the standard output, in the middle of a report there.
    with tempfile.NamedTemporaryFile(suffix=".json") as report:
        subprocess.run(
            [program, f"--benchmark_filter=^{name}$", f"--benchmark_out={report.name}", "--benchmark_out_format=json",
             "--benchmark_min_time=0.2"],
            check=True, capture_output=True,
        )
        entry = json.load(report)["benchmarks"][0]
    return entry["cpu_time"] * {"ns": 1e-9, "us": 1e-6, "ms": 1e-3, "s": 1.0}[entry["time_unit"]]


def row(what, rival, ratios, note=""):
    print(f"| {what} | {rival} | {statistics.median(ratios):.2f} | {min(ratios):.2f} to {max(ratios):.2f} | {note} |", flush=True)


def alternate(rounds, ours, theirs):
    """Ratios of the times of two functions that return seconds."""
    ratios, first = [], []
    for turn in range(rounds):
        pair = [ours, theirs] if turn % 2 == 0 else [theirs, ours]
        seconds = [function() for function in pair]
        if turn % 2:
            seconds.reverse()
        ratios.append(seconds[1] / seconds[0])
        first.append(seconds[0])
    return ratios, statistics.median(first)


def dbscan(build, rounds):
    if not importlib.util.find_spec("sklearn"):
        return
    script = os.path.join(os.path.dirname(__file__), "dbscan_vs_sklearn.py")
    for count in ("10000", "100000"):
        ratios = []
        for _ in range(rounds):
            text = subprocess.run([script, f"{build}/benchmarks/bench_cell_finding", count], check=True, capture_output=True,
                                  text=True).stdout
            ratios.append(float(text.split("ratio")[1].split(",")[0]))
        row(f"DBSCAN of {count} vectors", "scikit-learn", ratios)


def run_seconds(vrk, series, folder, *options):
    start = time.perf_counter()
    subprocess.run([vrk, "run", series, "-o", folder, *options], check=True, capture_output=True)
    return time.perf_counter() - start


def whole(vrk, size, rounds, folder):
    """One thread against all cores, and what the intensities and pictures cost."""
    series = os.path.join(folder, "series.mrc")
    subprocess.run([vrk, "simulate", "-o", series, "--cell", "7,9,12,90,90,90", "--size", str(size), "--write-axis", "--axis", "20"],
                   check=True, capture_output=True)
    result = os.path.join(folder, "result")
    name = f"`vrk run` of 121 x {size} x {size}"

    def timed(*options):
        return lambda: run_seconds(vrk, series, result, *options)

    cores = len(os.sched_getaffinity(0))
    ratios, seconds = alternate(rounds, timed(), timed("--jobs", "1"))
    row(name, f"itself with one thread, on {cores} cores", ratios, f"{seconds:.1f} s")
    ratios, seconds = alternate(rounds, timed("--jobs", "1", "--no-pictures", "--no-integration"), timed("--jobs", "1"))
    row(name + ", no intensities, no pictures", "the whole run, one thread", ratios, f"{seconds:.1f} s")


def main():
    parser = argparse.ArgumentParser(description=__doc__, formatter_class=argparse.RawDescriptionHelpFormatter)
    parser.add_argument("build")
    parser.add_argument("--rounds", type=int, default=5)
    parser.add_argument("--size", type=int, default=512)
    arguments = parser.parse_args()
    print("| what | against | times as fast | rounds | |\n|---|---|---|---|---|", flush=True)
    for what, program, ours, theirs, rival in PAIRS:
        path = f"{arguments.build}/benchmarks/{program}"
        ratios, seconds = alternate(arguments.rounds, lambda: benchmark_seconds(path, ours),
                                    lambda: benchmark_seconds(path, theirs))
        row(what, rival, ratios, f"{1e3 * seconds:.3g} ms")
    dbscan(arguments.build, arguments.rounds)
    with tempfile.TemporaryDirectory() as folder:
        whole(f"{arguments.build}/app/vrk", arguments.size, arguments.rounds, folder)


if __name__ == "__main__":
    sys.exit(main())

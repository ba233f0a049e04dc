#!/usr/bin/env python3
"""What it costs to run many series: vrk batch against the same runs by hand, the engine with jobs of a fixed length,
collecting many results, and a simulation of plans for more series and workers than one machine has.

    batch.py VRK engine [SERIES]          real series on two cores: vrk batch against xargs with vrk run
    batch.py VRK fixed [JOBS] [SECONDS]   vrk batch whole, only that the process of each run sleeps instead of running
    batch.py VRK collect [RESULTS]        table and page of copies of a result, each with another cell and axis
    batch.py VRK simulate                 throughput by the number of workers, reckoned

Prints a line a measurement. Works in a folder of its own under TMPDIR.
"""
import heapq
import json
import os
import random
import resource
import subprocess
import sys
import tempfile
import time
from pathlib import Path

OPTIONS = ["--no-pictures", "--no-integration"]


def vrk(program, *words, folder="."):
    return subprocess.run([program, *map(str, words)], cwd=folder, check=True, capture_output=True, text=True)


def one_series(program, path, size=64, seed=1):
    vrk(program, "simulate", "-o", path, "--size", size, "--dmin", "1.2", "--tilts", "-60:60:4", "--cell",
        "4,5,6,90,90,90", "--seed", seed, "--axis", "30", "--write-axis")


def cpu():
    usage = resource.getrusage(resource.RUSAGE_CHILDREN)
    return usage.ru_utime + usage.ru_stime


def engine(program, folder, count):
    """A batch against the same runs by xargs: wall time, which other work on the machine moves, and time of the cores."""
    (folder / "session").mkdir()
    for i in range(count):
        one_series(program, folder / "session" / f"s{i:04}.mrc", 64, i + 1)
    lines = "".join(f"{folder}/session/s{i:04}.mrc\n{folder}/hand/s{i:04}\n" for i in range(count))
    (folder / "hand").mkdir()
    start, used = time.time(), cpu()
    subprocess.run(["xargs", "-n", "2", "-P", "2", "sh", "-c",
                    f'"{program}" run "$0" -o "$1" {" ".join(OPTIONS)}'],
                   input=lines, text=True, check=True, capture_output=True)
    by_hand, hand_used = time.time() - start, cpu() - used
    start, used = time.time(), cpu()
    vrk(program, "batch", folder / "session", "-o", folder / "batch", "--jobs", 2, "--", *OPTIONS)
    batch, batch_used = time.time() - start, cpu() - used
    print(f"{count} series, 2 at a time: by hand {by_hand:.1f} s, {hand_used:.1f} s of CPU; batch {batch:.1f} s, "
          f"{batch_used:.1f} s of CPU: {(batch_used - hand_used) / count:.3f} s a series more", flush=True)


# The process that vrk makes of itself for each run sleeps and says that nothing was found.
SLEEP = """
#define _GNU_SOURCE
#include <dlfcn.h>
#include <stdlib.h>
#include <unistd.h>
pid_t fork(void) {
  const pid_t child = ((pid_t (*)(void))dlsym(RTLD_NEXT, "fork"))();
  if (child == 0) { sleep(atoi(getenv("SLEEP"))); _exit(3); }
  return child;
}
"""


def fixed(program, folder, jobs, seconds):
    """The workflow as vrk writes it: engine, start of vrk, plan, checksums and records, with runs of known length."""
    (folder / "session").mkdir()
    one_series(program, folder / "one.mrc")
    for i in range(jobs):
        os.link(folder / "one.mrc", folder / "session" / f"s{i:05}.mrc")
    out = folder / "out"
    start = time.time()
    vrk(program, "batch", folder / "session", "-o", out, "--jobs", 2, "--plan-only")
    planned = time.time() - start
    (folder / "sleep.c").write_text(SLEEP)
    subprocess.run(["cc", "-shared", "-fPIC", "-o", folder / "sleep.so", folder / "sleep.c", "-ldl"], check=True)
    stand_in = folder / "stand-in"
    stand_in.write_text(f'#!/bin/sh\nSLEEP={seconds} LD_PRELOAD="{folder}/sleep.so" exec "{program}" "$@"\n')
    stand_in.chmod(0o755)
    settings = json.loads((out / "workflow/settings.json").read_text())
    settings["program"] = str(stand_in)
    (out / "workflow/settings.json").write_text(json.dumps(settings))
    start = time.time()
    subprocess.run(["snakemake", "--snakefile", "workflow/Snakefile", "--keep-going", "--nolock", "--ignore-incomplete",
                    "--rerun-triggers", "mtime", "--scheduler", "greedy", "--latency-wait", "60", "--cores", "2"],
                   cwd=out, check=True, capture_output=True)
    took = time.time() - start
    records = [json.loads(path.read_text())["outcome"] for path in (out / "records").glob("*.json")]
    assert records == ["nothing found"] * jobs, "not all jobs were run"
    least = jobs * seconds / 2
    print(f"{jobs} jobs of {seconds} s, 2 at a time: plan {planned:.1f} s, {took:.1f} s of at least {least:.1f} s, "
          f"overhead {100 * ((planned + took) / least - 1):.2f} %, {cpu():.0f} s of CPU", flush=True)


def collect(program, folder, count):
    """Copies of one result with other cells (three phases and some odd ones), axes and orders in time."""
    random.seed(1)
    one_series(program, folder / "one.mrc")
    (folder / "session").mkdir()
    for i in range(count):
        os.link(folder / "one.mrc", folder / "session" / f"s{i:06}.mrc")
    out = folder / "out"
    start = time.time()
    vrk(program, "batch", folder / "session", "-o", out, "--plan-only", "--", *OPTIONS)
    planned = time.time() - start
    vrk(program, "batch", "-o", out, "--job", "s000000")
    record = json.loads((out / "records/s000000.json").read_text())
    summary = json.loads((out / "results/s000000/summary.json").read_text())
    phases = [(4, 5, 6, 90, 90, 90), (4.2, 5.5, 6.4, 90, 100, 90), (7, 7, 11, 90, 90, 120)]
    for i in range(count):
        name = f"s{i:06}"
        cell = phases[i % 3] if i % 50 else [random.uniform(4, 20) for _ in range(3)] + [90, 90, 90]
        for key, value in zip(("a", "b", "c", "alpha", "beta", "gamma"), cell):
            summary["cell"]["conventional"][key] = value * random.gauss(1, 0.004 if len(key) == 1 else 0.001)
        summary["tilt_axis"]["refined_deg"] = random.gauss(30, 0.1)
        summary["confidence"]["level"] = "high"
        (out / "results" / name).mkdir(exist_ok=True)
        (out / "results" / name / "summary.json").write_text(json.dumps(summary))
        (out / "records" / f"{name}.json").write_text(json.dumps(record))
    start = time.time()
    process = subprocess.Popen([program, "batch", "--collect", str(out)], stdout=subprocess.DEVNULL,
                               stderr=subprocess.DEVNULL)
    _, status, usage = os.wait4(process.pid, 0)
    took = time.time() - start
    assert status == 0
    crystals = json.loads((out / "crystals.json").read_text())
    page = (out / "batch.html").stat().st_size / 1e6
    print(f"{count} results: plan {planned:.1f} s, collected in {took:.1f} s ({usage.ru_utime + usage.ru_stime:.1f} s of "
          f"CPU), {usage.ru_maxrss / 1024:.0f} MiB, {len(crystals['clusters'])} clusters, page {page:.1f} MB", flush=True)


# What the simulation reckons with, measured on two busy cores; the last two are assumed.
PLAN = 0.0010        # s a series: found, its record compared, its line written
COLLECT = 0.0018     # s a result
SNAKEMAKE = 0.015    # s of the engine a job, one after another
START = 1.5          # s of the engine until the first job
UNIT = 0.12          # s to start the program and the shell around it, once for jobs in a row
JOB = 0.05           # s of a job in it: its process, checksum, records
SLURM_TASK = 1.0     # s of a task around its program
SLURM_RATE = 20.0    # tasks that a controller starts in a second
WAIT = 10.0          # s at most until sbatch --wait notices the end of an array


def simulated(seconds, workers, slurm):
    """Seconds of a batch by events: starts follow one another at the engine's rate, workers are taken when free."""
    series = len(seconds)
    ready, free, end = START + PLAN * series, [0.0] * workers, 0.0
    first = 0
    while first < series:
        # As vrk puts jobs in a row: up to four, fewer as the end comes near, two thousand units of very many.
        group = 1 if slurm else max(-(-series // 2000), min(4, (series - first) // (8 * workers)), 1)
        ready += 1 / SLURM_RATE if slurm else SNAKEMAKE
        begin = max(ready, heapq.heappop(free))
        done = begin + (SLURM_TASK if slurm else UNIT) + sum(t + JOB for t in seconds[first:first + group])
        heapq.heappush(free, done)
        end = max(end, done)
        first += group
    return end + (WAIT if slurm else 0) + COLLECT * series


def simulate():
    print("| series | workers | engine | hours | series an hour | of the workers' time |\n|---|---|---|---|---|---|")
    random.seed(2)
    for series in (1000, 100000):
        # Twenty seconds in the middle, a factor of 1.65 as standard deviation.
        seconds = [20 * random.lognormvariate(0, 0.5) for _ in range(series)]
        for workers in (2, 16, 64, 256, 1024):
            slurm = workers > 64
            took = simulated(seconds, workers, slurm)
            share = sum(seconds) / workers / took
            print(f"| {series:,} | {workers} | {'Slurm' if slurm else 'local'} | {took / 3600:.2f} | "
                  f"{series / took * 3600:,.0f} | {100 * share:.0f} % |")


def main():
    if len(sys.argv) < 3 or sys.argv[2] not in ("engine", "fixed", "collect", "simulate"):
        sys.exit(__doc__)
    program, what, numbers = os.path.realpath(sys.argv[1]), sys.argv[2], [int(n) for n in sys.argv[3:]]
    if what == "simulate":
        return simulate()
    with tempfile.TemporaryDirectory() as folder:
        if what == "engine":
            engine(program, Path(folder), *(numbers or [40]))
        elif what == "fixed":
            fixed(program, Path(folder), *(numbers + [500, 5][len(numbers):]))
        else:
            collect(program, Path(folder), *(numbers or [10000]))


if __name__ == "__main__":
    main()

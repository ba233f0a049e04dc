#!/usr/bin/env python3
"""Simulates series of two crystals, runs `vrk run` on them without options and counts how often both are found; runs
it on the same crystals alone, where a second one must not be reported, and compares the times.

Usage: crystals.py VRK [--cases N] [--seed S] [--size PIXELS] [--jobs J] [--only KIND] [--verbose]

A second crystal is found when its reduced cell has the true edges within 1.5 % and angles within 1 degree, and, where
its cell is that of the first one, when it is turned against the first one. Needs Python's standard library only.
"""
import argparse
import concurrent.futures
import json
import pathlib
import random
import subprocess
import sys
import tempfile

from confidence_matrix import BRAVAIS, random_cell, same_lattice

# name, intensity of the second crystal, further options as a function of the random numbers
KINDS = [
    ("equal, any orientation", lambda rng: {"second-crystal": rng.uniform(0.7, 1.0)}),
    ("another cell", lambda rng: {"second-crystal": rng.uniform(0.7, 1.0),
                                  "second-cell": ",".join(f"{x:.4f}" for x in random_cell(rng, "aP", 12.0)[0])}),
    ("split by 2 to 6 degrees", lambda rng: {"second-crystal": rng.uniform(0.7, 1.0), "second-turn": rng.uniform(2, 6)}),
    ("a weak one, 10 %", lambda rng: {"second-crystal": 0.1}),
    ("alone", lambda rng: {}),
]
KEYS = ("a", "b", "c", "alpha", "beta", "gamma")


def settings_of(kind, number, seed, size):
    """The options of a simulation. The same number gives the same first crystal for every kind."""
    rng = random.Random(f"{seed}/{number}")
    dmin = rng.uniform(0.8, 1.0) / (size / 512) ** 0.5
    cell, centring = random_cell(rng, rng.choice(BRAVAIS), size / 2 * dmin / 9)
    reach = rng.choice([50, 55, 60, 65])
    options = {"size": size, "seed": rng.randrange(1, 10**6), "cell": ",".join(f"{x:.4f}" for x in cell),
               "centring": centring, "dmin": dmin, "tilts": f"{-reach}:{reach}:1", "axis": rng.uniform(-90, 90),
               "peak": rng.uniform(3000, 20000), "asymmetry": 0.3, "ellipse": rng.uniform(0, 0.003)}
    return {**options, **kind(rng)}


def solve(vrk, options):
    """Summary of a run, its truth."""
    with tempfile.TemporaryDirectory(prefix="crystals") as temporary:
        series = pathlib.Path(temporary) / "series.mrc"
        arguments = [text for name, value in options.items() for text in (f"--{name}", str(value))]
        made = subprocess.run([vrk, "simulate", "-o", series, "--write-axis", "--json", *arguments], check=True,
                              stdout=subprocess.PIPE)
        done = subprocess.run([vrk, "run", series, "-o", pathlib.Path(temporary) / "out", "--no-pictures",
                               "--no-integration", "--json"], stdout=subprocess.PIPE, stderr=subprocess.DEVNULL)
        return json.loads(done.stdout) if done.returncode == 0 else None, json.loads(made.stdout)


def is_cell(crystal, truth):
    return same_lattice([crystal["reduced"][key] for key in KEYS], truth)


def judge(name, summary, truth):
    """Whether the first and the second crystal are right; a word on them."""
    if summary is None:
        return False, False, "no lattice"
    first = [truth["cell"]["primitive"][key] for key in KEYS]
    other = truth["settings"]["second_cell"]
    crystals = summary["crystals"]
    word = "; ".join(f"{100 * c['strong_share']:.0f} % {c['bravais']} {c['confidence']}"
                     + (f" turned by {c['turn_deg']:.1f}" if c["turn_deg"] else "") for c in crystals)
    if name == "alone":
        return is_cell(crystals[0], first), len(crystals) == 1, word
    if len(crystals) < 2:
        return is_cell(crystals[0], first), False, word
    if other:
        pairs = [(crystals[0], crystals[1]), (crystals[1], crystals[0])]
        return any(is_cell(a, first) for a, _ in pairs), any(is_cell(a, first) and is_cell(b, other)
                                                             for a, b in pairs), word
    return is_cell(crystals[0], first), is_cell(crystals[1], first) and crystals[1]["turn_deg"] > 1, word


def main():
    parser = argparse.ArgumentParser(description=__doc__.split("\n\n")[0])
    parser.add_argument("vrk")
    parser.add_argument("--cases", type=int, default=20, help="of each kind")
    parser.add_argument("--seed", default="1")
    parser.add_argument("--size", type=int, default=256)
    parser.add_argument("--jobs", type=int, default=1)
    parser.add_argument("--only", default="", help="only kinds whose name contains this")
    parser.add_argument("--verbose", action="store_true")
    options = parser.parse_args()
    print(f"{'kind':26} {'cases':>5} {'first right':>11} {'second right':>12} {'seconds':>8}")
    with concurrent.futures.ThreadPoolExecutor(options.jobs) as pool:
        for name, kind in [one for one in KINDS if options.only in one[0]]:
            series = [settings_of(kind, i, options.seed, options.size) for i in range(options.cases)]
            results = []
            for i, (summary, truth) in enumerate(pool.map(lambda settings: solve(options.vrk, settings), series)):
                first, second, word = judge(name, summary, truth)
                results.append((first, second, summary["seconds"]["total"] if summary else 0))
                if options.verbose:
                    print(f"  {i:3} {'right' if first else 'WRONG'} {'right' if second else 'WRONG'}  {word}", flush=True)
            seconds = sum(row[2] for row in results) / len(results)
            print(f"{name:26} {len(results):5} {sum(row[0] for row in results):11} "
                  f"{sum(row[1] for row in results):12} {seconds:8.1f}", flush=True)
    return 0


if __name__ == "__main__":
    sys.exit(main())

#!/usr/bin/env python3
"""Simulates series of two crystals, runs `vrk run` on them without options and counts how often both are found; runs
it on the same crystals alone, where a second one must not be reported, and compares the times. `vrk cell` is asked as
well, of the peaks that the run wrote.

Usage: crystals.py VRK [--cases N] [--seed S] [--size PIXELS] [--jobs J] [--only KIND] [--verbose]

A second crystal is found when its reduced cell has the true edges within 1.5 % and angles within 1 degree, and, where
its cell is that of the first one, when it is turned against the first one. The lattice type of the first crystal is
right when it is that of the simulation. Needs Python's standard library only.
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
    """Type and options of a simulation. The same number gives the same first crystal for every kind."""
    rng = random.Random(f"{seed}/{number}")
    dmin = rng.uniform(0.8, 1.0) / (size / 512) ** 0.5
    bravais = rng.choice(BRAVAIS)
    cell, centring = random_cell(rng, bravais, size / 2 * dmin / 9)
    reach = rng.choice([50, 55, 60, 65])
    options = {"size": size, "seed": rng.randrange(1, 10**6), "cell": ",".join(f"{x:.4f}" for x in cell),
               "centring": centring, "dmin": dmin, "tilts": f"{-reach}:{reach}:1", "axis": rng.uniform(-90, 90),
               "peak": rng.uniform(3000, 20000), "asymmetry": 0.3, "ellipse": rng.uniform(0, 0.003)}
    return bravais, {**options, **kind(rng)}


def crystals_of_cell(answer):
    """The crystals that `vrk cell` reports, in the words of a run's summary."""
    first = {"reduced": answer["cell"], "bravais": answer["lattice"]["bravais"], "turn_deg": None,
             "confidence": answer["confidence"]["level"], "strong_share": answer["reflections"]["fraction_indexed"],
             "reasons": answer["confidence"]["reasons"]}
    return [first] + [{"reduced": one["cell"], "bravais": one["bravais"], "turn_deg": one["turn_deg"],
                       "confidence": one["confidence"], "strong_share": one["share"]} for one in answer["crystals"]]


def solve(vrk, options):
    """Summary of a run, crystals of `vrk cell`, the truth."""
    with tempfile.TemporaryDirectory(prefix="crystals") as temporary:
        series = pathlib.Path(temporary) / "series.mrc"
        arguments = [text for name, value in options.items() for text in (f"--{name}", str(value))]
        made = subprocess.run([vrk, "simulate", "-o", series, "--write-axis", "--json", *arguments], check=True,
                              stdout=subprocess.PIPE)
        done = subprocess.run([vrk, "run", series, "-o", pathlib.Path(temporary) / "out", "--no-pictures",
                               "--no-integration", "--json"], stdout=subprocess.PIPE, stderr=subprocess.DEVNULL)
        truth = json.loads(made.stdout)
        if done.returncode != 0:
            return None, None, truth
        folder = pathlib.Path(temporary)
        listed = subprocess.run([vrk, "cell", folder / "out" / "peaks.txt", "-o", folder / "list.cell", "--json"],
                                stdout=subprocess.PIPE, stderr=subprocess.DEVNULL)
        crystals = crystals_of_cell(json.loads(listed.stdout)) if listed.returncode == 0 else None
        return json.loads(done.stdout), crystals, truth


def is_cell(crystal, truth):
    return same_lattice([crystal["reduced"][key] for key in KEYS], truth)


def judge(name, crystals, bravais, truth):
    """Whether cell and type of the first crystal and of the second one are right, and a word on them. Alone, a second
    one is right that is not reported."""
    if crystals is None:
        return [False] * 4, "no lattice"
    lattices = [([truth["cell"]["primitive"][key] for key in KEYS], bravais)]
    other = truth["settings"]["second_cell"]
    lattices.append((other, "aP") if other else lattices[0])
    if other and not is_cell(crystals[0], lattices[0][0]):
        lattices.reverse()
    right = []
    for crystal, (cell, kind) in zip(crystals, lattices):
        right += [is_cell(crystal, cell), is_cell(crystal, cell) and crystal["bravais"] == kind]
    if name == "alone":
        right[2:] = [len(crystals) == 1] * 2
    elif len(crystals) > 1 and not other and crystals[1]["turn_deg"] <= 1:
        right[2:] = [False] * 2
    word = "; ".join(f"{100 * c['strong_share']:.0f} % {c['bravais']} {c['confidence']}"
                     + (f" turned by {c['turn_deg']:.1f}" if c["turn_deg"] else "") for c in crystals)
    if any("axis was assumed" in reason for reason in crystals[0].get("reasons", [])):
        word += "; axis assumed"
    return (right + [False] * 4)[:4], word


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
    heads = [f"{command}: {what}" for command in ("run", "cell") for what in ("1st", "type", "2nd", "type")]
    print(f"{'kind':26} {'cases':>5} " + " ".join(f"{head:>10}" for head in heads) + f" {'seconds':>8}")
    with concurrent.futures.ThreadPoolExecutor(options.jobs) as pool:
        for name, kind in [one for one in KINDS if options.only in one[0]]:
            series = [settings_of(kind, i, options.seed, options.size) for i in range(options.cases)]
            counts, seconds = [0] * 8, 0.0
            answers = pool.map(lambda one: solve(options.vrk, one[1]), series)
            for i, ((bravais, _), (summary, listed, truth)) in enumerate(zip(series, answers)):
                right, word = judge(name, summary and summary["crystals"], bravais, truth)
                right_of_list, word_on_list = judge(name, listed, bravais, truth)
                counts = [count + one for count, one in zip(counts, right + right_of_list)]
                seconds += summary["seconds"]["total"] if summary else 0
                if options.verbose:
                    marks = ["".join("+" if one else "-" for one in part) for part in (right, right_of_list)]
                    print(f"  {i:3} {bravais} run {marks[0]} {word}\n         cell {marks[1]} {word_on_list}", flush=True)
            print(f"{name:26} {len(series):5} " + " ".join(f"{count:10}" for count in counts)
                  + f" {seconds / len(series):8.1f}", flush=True)
    return 0


if __name__ == "__main__":
    sys.exit(main())

#!/usr/bin/env python3
"""Simulates tilt series of known crystals, runs `vrk run` on them without options and compares the answers.

Usage: solve_matrix.py VRK [--only NAME] [--seed N] [--keep FOLDER]
Prints one line per case and a last line with the counts. Needs Python's standard library only.
"""
import argparse
import json
import math
import pathlib
import subprocess
import sys
import tempfile

# name, cell, centring, Bravais type, further options of the simulation, options of the run
CASES = [
    ("cP", "5.4,5.4,5.4,90,90,90", "P", "cP", [], []),
    ("cI", "12.0,12.0,12.0,90,90,90", "I", "cI", [], []),
    ("cF", "4.05,4.05,4.05,90,90,90", "F", "cF", ["--tilts", "-60:60:0.5"], []),
    ("tP", "20.1,20.1,13.4,90,90,90", "P", "tP", [], []),
    ("tI", "9.6,9.6,13.5,90,90,90", "I", "tI", [], []),
    ("hP", "9.9,9.9,5.4,90,90,120", "P", "hP", [], []),
    ("hR", "8.2,8.2,22.0,90,90,120", "R", "hR", [], []),
    ("oP", "13.2,19.7,20.1,90,90,90", "P", "oP", [], []),
    ("oI", "8.1,11.4,15.2,90,90,90", "I", "oI", [], []),
    ("oC", "8.3,12.7,15.1,90,90,90", "C", "oC", [], []),
    ("oF", "15.2,18.3,22.7,90,90,90", "F", "oF", [], []),
    ("mP", "7.1,9.3,14.2,90,101,90", "P", "mP", [], []),
    ("mC", "26.3,11.2,17.5,90,115,90", "C", "mC", [], []),
    ("aP", "6.3,8.4,11.2,75,82,68", "P", "aP", [], []),
    ("mP near oP", "8.0,11.0,14.0,90,91.2,90", "P", "mP", [], []),
    ("long axis 41 A", "9.2,13.1,41.0,90,90,90", "P", "oP", [], []),
    ("80 A, 1024", "7.3,11.9,80.0,90,90,90", "P", "oP", ["--size", "1024"], []),
    ("256 pixels", "11.0,11.0,7.5,90,90,90", "P", "tP", ["--size", "256"], []),
    ("wedge 60", "9.1,12.3,14.8,90,90,90", "P", "oP", ["--tilts", "-30:30:0.5"], []),
    ("steps of 2", "9.1,12.3,14.8,90,97,90", "P", "mP", ["--tilts", "-60:60:2"], []),
    ("precession", "10.2,10.2,12.9,90,90,90", "I", "tI", ["--mode", "precession"], []),
    ("stepwise", "10.2,12.7,8.9,90,90,90", "P", "oP", ["--mode", "stepwise"], []),
    ("weak", "12.0,12.0,12.0,90,90,90", "I", "cI", ["--peak", "600"], []),
    ("noisy", "8.3,12.7,15.1,90,90,90", "C", "oC", ["--noise", "3", "--peak", "3000"], []),
    ("drift", "7.1,9.3,14.2,90,101,90", "P", "mP", ["--drift", "4", "--jump", "6"], []),
    ("hot pixels", "9.9,9.9,5.4,90,90,120", "P", "hP", ["--hot-pixels", "60", "--zingers", "20"], []),
    ("missing frames", "13.2,9.7,20.1,90,90,90", "P", "oP", ["--missing", "12", "--blank", "4"], []),
    ("beam stop", "9.6,9.6,13.5,90,90,90", "I", "tI", ["--beam-stop"], []),
    ("detector cross", "15.2,18.3,22.7,90,90,90", "F", "oF", ["--cross"], []),
    ("second crystal", "11.2,12.6,15.3,90,90,90", "P", "oP", ["--second-crystal", "0.4"], []),
    ("axis given", "7.1,9.3,14.2,90,101,90", "P", "mP", ["--axis", "37.4", "--write-axis"], []),
    ("axis searched", "12.0,12.0,12.0,90,90,90", "I", "cI", ["--axis", "-12.3"], ["--tilt-axis", "search"]),
    ("axis searched, mP", "7.1,9.3,14.2,90,101,90", "P", "mP", ["--axis", "85"], ["--tilt-axis", "search"]),
]
MULTIPLICITY = {"P": 1, "A": 2, "B": 2, "C": 2, "I": 2, "F": 4, "R": 3}


def volume(cell):
    a, b, c, *angles = cell
    ca, cb, cg = (math.cos(math.radians(x)) for x in angles)
    return a * b * c * math.sqrt(1 - ca * ca - cb * cb - cg * cg + 2 * ca * cb * cg)


def compare(case, folder):
    """One line on the result, and whether the lattice, the type and the figures are right."""
    _, cell, centring, bravais, _, _ = case
    truth = [float(x) for x in cell.split(",")]
    found = json.loads((folder / "out" / "summary.json").read_text())
    primitive = volume(truth) / MULTIPLICITY[centring]
    ratio = found["cell"]["reduced"]["volume"] / primitive
    first = found["cell"]["conventional"]
    measured = found["cell"]["candidates"][0]
    same = abs(ratio - 1) < 0.02
    error = max(abs(m / t - 1) for m, t in zip(sorted(first[k] for k in "abc"), sorted(truth[:3]))) * 100
    angle = max(abs(m - t) for m, t in zip(sorted(measured[k] for k in ("alpha", "beta", "gamma")),
                                           sorted(truth[3:])))
    right = first["bravais"] == bravais
    indexed = found["reflections"]["fraction_indexed"]
    text = (f"{first['bravais']:3} V x {ratio:.4f}  d length {error:6.3f} %  d angle {angle:6.3f}  "
            f"{found['reflections']['found']:6d} found {100 * indexed:5.1f} % indexed  "
            f"{found['confidence']['level']:4}  {found['seconds']['total']:5.1f} s")
    return text, same, right, error < 0.05 and (angle < 0.03 or not right), indexed >= 0.95


def main():
    parser = argparse.ArgumentParser(description=__doc__.split("\n")[0])
    parser.add_argument("vrk")
    parser.add_argument("--only", default="")
    parser.add_argument("--seed", default="1")
    parser.add_argument("--keep", default="")
    options = parser.parse_args()
    counts = {"lattice": 0, "type": 0, "figures": 0, "indexed": 0}
    cases = [case for case in CASES if options.only in case[0]]
    for case in cases:
        name, cell, centring, _, simulate, run = case
        with tempfile.TemporaryDirectory(dir=options.keep or None) as temporary:
            folder = pathlib.Path(temporary)
            series = folder / "series.mrc"
            subprocess.run([options.vrk, "simulate", "-o", series, "--cell", cell, "--centring", centring, "--seed",
                            options.seed, *simulate], check=True, stdout=subprocess.DEVNULL)
            done = subprocess.run([options.vrk, "run", series, "-o", folder / "out", "--no-pictures", *run],
                                  stdout=subprocess.DEVNULL, stderr=subprocess.PIPE, text=True)
            if done.returncode != 0:
                print(f"FAIL {name:18} exit {done.returncode}: {done.stderr.strip().splitlines()[-1]}", flush=True)
                continue
            text, *right = compare(case, folder)
            for key, value in zip(counts, right):
                counts[key] += value
            marks = "".join("-" if ok else key[0] for key, ok in zip(counts, right))
            print(f"{marks} {name:18} {text}", flush=True)
    print(f"{len(cases)} cases:", ", ".join(f"{value} {key}" for key, value in counts.items()))
    return 0 if counts["lattice"] == len(cases) else 1


if __name__ == "__main__":
    sys.exit(main())

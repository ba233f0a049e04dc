#!/usr/bin/env python3
"""Runs simulated series of all lattice types and compares the intensities of reflections.hkl with the truth.

Needs numpy. Counts follow the time that a reflection takes through the Ewald sphere, as physics has it; orientations are
random. For each series: reflections, R of the amplitudes, correlation, and the width and mean of
(I - true) / sigma, over all and in the worst tenth by true intensity.
"""

import argparse
import itertools
import json
import math
import subprocess
import tempfile
from pathlib import Path

import numpy as np

CRYSTALS = [
    ("aP", "6.4,8.1,9.7,83,96,105", "P", []),
    ("mP", "9.7,6.4,11.9,90,104.5,90", "P", []),
    ("mC", "17.2,8.3,10.1,90,112,90", "C", []),
    ("oP", "7.3,9.9,12.8,90,90,90", "P", []),
    ("oC", "8.1,13.6,10.2,90,90,90", "C", []),
    ("oI", "9.2,11.7,14.9,90,90,90", "I", []),
    ("oF", "11.3,16.1,20.7,90,90,90", "F", []),
    ("tP", "8.7,8.7,12.1,90,90,90", "P", []),
    ("tI", "9.9,9.9,16.3,90,90,90", "I", []),
    ("hP", "9.1,9.1,13.7,90,90,120", "P", []),
    ("hR", "10.3,10.3,24.1,90,90,120", "R", []),
    ("cP", "9.6,9.6,9.6,90,90,90", "P", []),
    ("cI", "12.02,12.02,12.02,90,90,90", "I", []),
    ("cF", "14.6,14.6,14.6,90,90,90", "F", []),
    ("mP dim", "9.7,6.4,11.9,90,104.5,90", "P", ["--dose", "0.02"]),
    ("mP tilts 0.12 off", "9.7,6.4,11.9,90,104.5,90", "P", ["--tilt-jitter", "0.12"]),
    ("mP stop", "9.7,6.4,11.9,90,104.5,90", "P", ["--beam-stop", "--stop-width", "18"]),
    ("mP 1.4 % ellipse", "9.7,6.4,11.9,90,104.5,90", "P", ["--ellipse", "0.014", "--ellipse-azimuth", "25"]),
    ("cI 1.4 % ellipse", "12.02,12.02,12.02,90,90,90", "I", ["--ellipse", "0.014", "--ellipse-azimuth", "25"]),
    ("mP stepwise", "9.7,6.4,11.9,90,104.5,90", "P", ["--mode", "stepwise"]),
    ("mP precession", "9.7,6.4,11.9,90,104.5,90", "P", ["--mode", "precession", "--precession-angle", "0.9"]),
]


def metric(cell):
    a, b, c = cell[:3]
    ca, cb, cg = (math.cos(math.radians(x)) for x in cell[3:])
    return np.array([[a * a, a * b * cg, a * c * cb], [a * b * cg, b * b, b * c * ca], [a * c * cb, b * c * ca, c * c]])


def index_changes(found, true):
    """Integer matrices that take the indices of one setting to those of the other, cells equal within 1.5 %."""
    target, scale = metric(true), np.sqrt(np.outer(np.array(true[:3]) ** 2, np.array(true[:3]) ** 2))
    rows = [np.array(row) for row in itertools.product((-1, 0, 1), repeat=3)]
    start = metric(found)
    fitting = [[row for row in rows if abs(row @ start @ row / target[i, i] - 1) < 0.03] for i in range(3)]
    for matrix in itertools.product(*fitting):
        change = np.array(matrix)
        if round(np.linalg.det(change)) == 1 and np.all(abs(change @ start @ change.T - target) < 0.03 * scale):
            yield change


def read_hkl(path):
    indices, values = [], []
    for line in path.read_text().splitlines():
        hkl = [int(line[i:i + 4]) for i in (0, 4, 8)]
        if not any(hkl):
            break
        indices.append(hkl)
        values.append((float(line[12:20]), float(line[20:28])))
    return np.array(indices), np.array(values)


def compare(indices, values, truth):
    """The numbers of one series; the scale by least squares on the intensities."""
    pairs = [(truth[key], *value) for key, value in zip(map(tuple, indices), values) if key in truth]
    if len(pairs) < 20:
        return None
    true, found, sigma = np.array(pairs).T
    weight = 1 / (sigma**2 + (0.02 * found) ** 2)
    scale = np.sum(weight * true * found) / np.sum(weight * true * true)
    true = scale * true
    amplitudes = np.sqrt(np.maximum(found, 0)), np.sqrt(true)
    pull = (found - true) / sigma
    parts = [pull[part] for part in np.array_split(np.argsort(true), 10)]
    return {
        "reflections": len(pairs),
        "r": float(np.sum(abs(amplitudes[0] - amplitudes[1])) / np.sum(amplitudes[1])),
        "cc": float(np.corrcoef(true, found)[0, 1]),
        "width": float(np.std(pull)),
        "mean": float(np.mean(pull)),
        "worst_width": float(max((np.std(part) for part in parts), key=lambda x: abs(math.log(x)))),
        "worst_mean": float(max((np.mean(part) for part in parts), key=abs)),
    }


def measure(vrk, crystal, seed, size, folder):
    name, cell, centring, options = crystal
    series, result = folder / "series.mrc", folder / "result"
    subprocess.run([vrk, "simulate", "-o", series, "--cell", cell, "--centring", centring, "--seed", str(seed), "--size",
                    str(size), "--axis", "34", "--write-axis", "--list-reflections", *options],
                   check=True, stdout=subprocess.DEVNULL)
    run = subprocess.run([vrk, "run", series, "-o", result, "--no-pictures"], stdout=subprocess.DEVNULL,
                         stderr=subprocess.PIPE, text=True)
    if run.returncode != 0:
        return name, None, run.stderr.strip().splitlines()[-1]
    truth = json.loads((folder / "series.truth.json").read_text())
    summary = json.loads((result / "summary.json").read_text())
    true = {tuple(one["hkl"]): one["intensity"] for one in truth["reflections"]}
    indices, values = read_hkl(result / "reflections.hkl")
    found = summary["intensities"]["cell"] if summary["intensities"] else summary["cell"]["conventional"]
    found = [found[key] for key in ("a", "b", "c", "alpha", "beta", "gamma")]
    rated = [compare(indices @ change.T, values, true)
             for change in index_changes(found, [float(x) for x in cell.split(",")])]
    rated = [one for one in rated if one]
    if not rated:
        return name, None, "another cell: " + " ".join("%.3f" % x for x in found)
    best = max(rated, key=lambda one: (one["reflections"] > 0.9 * max(r["reflections"] for r in rated), one["cc"]))
    best["recorded"] = sum(1 for one in truth["reflections"] if one["counts"] > 0)
    best["measured"] = summary["intensities"] is not None
    best["seconds"] = summary["seconds"]
    return name, best, ""


def main():
    parser = argparse.ArgumentParser(description=__doc__, formatter_class=argparse.RawDescriptionHelpFormatter)
    parser.add_argument("vrk", help="the program")
    parser.add_argument("--size", type=int, default=512, help="pixels along an edge of a frame [512]")
    parser.add_argument("--seed", type=int, default=1, help="seed of the first series [1]")
    parser.add_argument("--only", help="series whose name has this in it")
    options = parser.parse_args()
    print("%-18s %6s %6s %6s %8s %6s %6s %6s %6s  %s" %
          ("series", "refl", "of", "R(F)", "CC", "width", "mean", "worst", "worst", "s integrate / total"))
    for number, crystal in enumerate(CRYSTALS):
        if options.only and options.only not in crystal[0]:
            continue
        with tempfile.TemporaryDirectory() as folder:
            name, one, why = measure(options.vrk, crystal, options.seed + number, options.size, Path(folder))
        if not one:
            print("%-18s %s" % (name, why), flush=True)
            continue
        print("%-18s %6d %6d %6.2f %8.5f %6.2f %6.2f %6.2f %6.2f  %.1f / %.1f%s" %
              (name, one["reflections"], one["recorded"], 100 * one["r"], one["cc"], one["width"], one["mean"],
               one["worst_width"], one["worst_mean"], one["seconds"]["integrate"], one["seconds"]["total"],
               "" if one["measured"] else "  (sums over the volume)"), flush=True)


main()

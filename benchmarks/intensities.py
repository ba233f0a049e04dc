#!/usr/bin/env python3
"""Runs simulated series of all lattice types and compares the intensities of reflections.hkl with the truth.

Needs numpy. Counts follow the time that a reflection takes through the Ewald sphere, as physics has it; orientations are
random. For each kind of series: reflections; R of the amplitudes of single observations; the R that counting
statistics leave to a measurement that knows everything but the intensities (Cramer-Rao bound of the simulated frames:
profiles, curves and background exact, no neighbours); R of the merged amplitudes in merged.cif; correlation; width and
mean of (I - true) / sigma, over all and in the worst tenth by true intensity; the largest errors of the ratios of edges
(per cent) and of angles (degrees), and how many of the free edges and angles lie within two standard uncertainties. The mean of a tenth scatters by one over the
root of its reflections: several seeds (--seeds) tell chance from bias.
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


def cell_errors(found, deviations, true, change):
    """Largest relative error of a ratio of edges and of an angle, free parameters, and those within two uncertainties.
    The scale of all edges is that of the pixel size, which a series takes as stated."""
    start = change @ metric(found) @ change.T
    edges = np.sqrt(np.diag(start))
    angles = [math.degrees(math.acos(start[i, j] / edges[i] / edges[j])) for i, j in ((1, 2), (0, 2), (0, 1))]
    relative = edges / np.array(true[:3])
    ratio = max(abs(relative[i] / relative[j] - 1) for i in range(3) for j in range(3))
    angle = max(abs(a - b) for a, b in zip(angles, true[3:]))
    order = [int(np.flatnonzero(row)[0]) for row in change] if np.all(np.sum(abs(change), axis=1) == 1) else []
    inside = [abs(value - goal) < 2 * deviations[offset + axis]
              for offset, values, goals in ((0, edges, true[:3]), (3, angles, true[3:]))
              for axis, value, goal in zip(order, values, goals) if deviations[offset + axis] > 0]
    return ratio, angle, len(inside), sum(inside)


def read_hkl(path):
    indices, values = [], []
    for line in path.read_text().splitlines():
        hkl = [int(line[i:i + 4]) for i in (0, 4, 8)]
        if not any(hkl):
            break
        indices.append(hkl)
        values.append((float(line[12:20]), float(line[20:28])))
    return np.array(indices), np.array(values)


def counting_errors(truth):
    """The true intensity of every reflection as counts per exposure, with the deviation that counting leaves it at
    least; infinite where nothing was recorded."""
    settings = truth["settings"]
    table = truth["reflections"]
    pixel, size, width = truth["pixel_size"] * 1e-10, settings["detector"]["size"], settings["rocking_width"]
    g = np.array([one["position"] for one in table]) * pixel
    counts = np.array([one["counts"] for one in table])
    reached = np.array([one["time"] for one in table])
    relative = np.array([one["intensity"] for one in table])
    shown = reached > 0
    intensity = relative * np.median(counts[shown] / (relative * reached)[shown])
    curvature = truth["handedness"] * truth["wavelength"] * np.sum(g**2, axis=1) / 2
    precession = np.linalg.norm(g, axis=1) * math.radians(settings["precession_angle_deg"])
    peak = 1 / (2 * math.pi * settings["spot_width_px"] ** 2)
    axis = math.radians(truth["axis_tilt_deg"])
    erf = np.vectorize(math.erf)
    information, time = np.zeros(len(g)), np.zeros(len(g))
    for tilt in truth["tilts"]:
        c, s = math.cos(math.radians(tilt)), math.sin(math.radians(tilt))
        along = math.cos(axis) * g[:, 1] + math.sin(axis) * g[:, 2]
        up = -math.sin(axis) * g[:, 1] + math.cos(axis) * g[:, 2]
        across, height = c * g[:, 0] + s * up, -s * g[:, 0] + c * up
        distance = math.cos(axis) * height + math.sin(axis) * along - curvature
        sweep = abs(across) * math.radians(settings["frame_rotation_deg"]) / 2
        reach = 4.5 * width + {"continuous": sweep, "precession": precession}.get(settings["mode"], 0)
        near = np.flatnonzero(abs(distance) < reach)
        x = distance[near] / width
        if settings["mode"] == "continuous":
            half = np.maximum(sweep[near] / width, 1e-3)
            share = math.sqrt(math.pi / 8) / half * (erf((x + half) / 2**0.5) - erf((x - half) / 2**0.5))
        elif settings["mode"] == "precession":
            steps = np.cos((np.arange(64) + 0.5) * math.pi / 64)
            share = np.mean(np.exp(-((x[:, None] + precession[near, None] / width * steps) ** 2) / 2), axis=1)
        else:
            share = np.exp(-(x**2) / 2)
        share *= settings["exposure"] * 0.0025 / width
        radius2 = np.sum(g[near] ** 2, axis=1) / pixel**2
        background = settings["exposure"] * settings["background"]["halo"] * 6000 / (1 + radius2 / (size / 64) ** 2)
        # Fisher's information of the counts of a Gaussian spot over an even background, in closed form.
        contrast = np.maximum(intensity[near] * share * peak / background, 1e-6)
        information[near] += share**2 * peak / background / contrast * (1 - np.log1p(contrast) / contrast)
        time[near] += share
    # The same times as the simulation's own, or this is not its geometry.
    known = np.max(abs(time - reached)) < 0.01 * np.max(reached)
    return intensity, np.where(information > 0, 1 / np.sqrt(np.maximum(information, 1e-30)), np.inf) if known else None


def r_value(found, true):
    return float(np.sum(abs(np.sqrt(np.maximum(found, 0)) - np.sqrt(true))) / np.sum(np.sqrt(true)))


def compare(indices, values, rows, true, least):
    """Observations of a series beside the truth: true, found, sigma, least sigma, on the true scale."""
    chosen = [(rows[key], *value) for key, value in zip(map(tuple, indices), values) if key in rows]
    if len(chosen) < 20:
        return None
    row, found, sigma = np.array(chosen).T
    row = row.astype(int)
    limit = least[row] if least is not None else np.full(len(row), np.nan)
    # Weights by the measured uncertainties would favour what came out too low.
    deviation = np.where(np.isfinite(limit), limit, np.sqrt(np.maximum(true[row], 1)))
    weight = 1 / (deviation**2 + (0.02 * true[row]) ** 2)
    scale = np.sum(weight * true[row] * found) / np.sum(weight * true[row] ** 2)
    return np.array([true[row], found / scale, sigma / scale, limit])


def statistics(table):
    """The numbers of all observations together."""
    true, found, sigma, least = table
    pull = (found - true) / sigma
    parts = [pull[part] for part in np.array_split(np.argsort(true), 10)]
    ideal = float("nan")
    if np.all(np.isfinite(least)):
        noise = np.random.default_rng(1)
        ideal = np.mean([r_value(true + least * noise.normal(size=len(true)), true) for _ in range(20)])
    return {
        "reflections": len(true),
        "r": r_value(found, true),
        "ideal": float(ideal),
        "cc": float(np.corrcoef(true, found)[0, 1]),
        "width": float(np.std(pull)),
        "mean": float(np.mean(pull)),
        "worst_width": float(max((np.std(part) for part in parts), key=lambda x: abs(math.log(x)))),
        "worst_mean": float(max((np.mean(part) for part in parts), key=abs)),
    }


def read_merged(path):
    """Indices and amplitudes of merged.cif."""
    rows = [line.split() for line in path.read_text().splitlines() if line[:1] in "-0123456789" and line]
    rows = [row for row in rows if len(row) == 7]
    return np.array([[int(x) for x in row[:3]] for row in rows]), np.array([float(row[5]) for row in rows])


def merged_r(indices, amplitudes, rows, true):
    chosen = [(math.sqrt(true[rows[key]]), f) for key, f in zip(map(tuple, indices), amplitudes) if key in rows]
    real, found = np.array(chosen).T
    found = found * np.sum(real * found) / np.sum(found * found)
    return float(np.sum(abs(found - real)) / np.sum(real))


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
    rows = {tuple(one["hkl"]): number for number, one in enumerate(truth["reflections"])}
    true, least = counting_errors(truth)
    indices, values = read_hkl(result / "reflections.hkl")
    found = summary["intensities"]["cell"] if summary["intensities"] else summary["cell"]["conventional"]
    found = [found[key] for key in ("a", "b", "c", "alpha", "beta", "gamma")]
    rated = []
    for change in index_changes(found, [float(x) for x in cell.split(",")]):
        table = compare(indices @ change.T, values, rows, true, least)
        if table is not None:
            rated.append((len(table[0]), float(np.corrcoef(table[0], table[1])[0, 1]), change, table))
    if not rated:
        return name, None, "another cell: " + " ".join("%.3f" % x for x in found)
    most = max(one[0] for one in rated)
    _, _, change, table = max(rated, key=lambda one: (one[0] > 0.9 * most, one[1]))
    if truth["settings"]["beam_stop"]:
        table[3] = float("nan")
    one = {"table": table, "recorded": sum(1 for one in truth["reflections"] if one["counts"] > 0),
           "measured": summary["intensities"] is not None, "seconds": summary["seconds"], "merged": float("nan"),
           "cell": (float("nan"), float("nan"), 0, 0)}
    if one["measured"]:
        deviations = [summary["intensities"]["esd"][key] for key in ("a", "b", "c", "alpha", "beta", "gamma")]
        one["cell"] = cell_errors(found, deviations, [float(x) for x in cell.split(",")], change)
        unique, amplitudes = read_merged(result / "merged.cif")
        one["merged"] = merged_r(unique @ change.T, amplitudes, rows, true)
    return name, one, ""


def main():
    parser = argparse.ArgumentParser(description=__doc__, formatter_class=argparse.RawDescriptionHelpFormatter)
    parser.add_argument("vrk", help="the program")
    parser.add_argument("--size", type=int, default=512, help="pixels along an edge of a frame [512]")
    parser.add_argument("--seed", type=int, default=1, help="seed of the first series [1]")
    parser.add_argument("--seeds", type=int, default=1, help="series of each kind, taken together [1]")
    parser.add_argument("--only", help="series whose name has this in it")
    options = parser.parse_args()
    print("%-18s %6s %6s %6s %6s %6s %8s %6s %6s %6s %6s %7s %7s %8s  %s" %
          ("series", "refl", "of", "R(F)", "ideal", "merged", "CC", "width", "mean", "worst", "worst", "ratio %",
           "angle", "in 2 su", "s integrate / total"))
    for number, crystal in enumerate(CRYSTALS):
        if options.only and options.only not in crystal[0]:
            continue
        series = []
        for repeat in range(options.seeds):
            with tempfile.TemporaryDirectory() as folder:
                name, one, why = measure(options.vrk, crystal, options.seed + number + 100 * repeat, options.size,
                                         Path(folder))
            if one:
                series.append(one)
            else:
                print("%-18s %s" % (name, why), flush=True)
        if not series:
            continue
        all_of = statistics(np.concatenate([one["table"] for one in series], axis=1))
        seconds = [np.mean([one["seconds"][step] for one in series]) for step in ("integrate", "total")]
        cells = np.array([one["cell"] for one in series])
        print("%-18s %6d %6d %6.2f %6.2f %6.2f %8.5f %6.2f %6.2f %6.2f %6.2f %7.4f %7.4f %3d / %2d  %.1f / %.1f%s" %
              (name, all_of["reflections"], sum(one["recorded"] for one in series), 100 * all_of["r"],
               100 * all_of["ideal"], 100 * np.mean([one["merged"] for one in series]), all_of["cc"],
               all_of["width"], all_of["mean"], all_of["worst_width"], all_of["worst_mean"],
               100 * np.max(cells[:, 0]), np.max(cells[:, 1]), np.sum(cells[:, 3]), np.sum(cells[:, 2]), *seconds,
               "" if all(one["measured"] for one in series) else "  (sums over the volume)"), flush=True)


main()

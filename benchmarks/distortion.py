#!/usr/bin/env python3
"""Distortion of the lenses: is it found, does it hide the lattice, and does a calibration help other crystals?

Usage: distortion.py VRK [--seeds N] [--keep FOLDER]
First, crystals with ties in series with an ellipse of 1 % along azimuths all around and an axis that is stated
wrongly by up to a degree: cell, type, strength,
azimuth and direction of the axis against the truth, the latter also in standard uncertainties. Then
calibrations, made on a known crystal A and applied to other crystals B. Needs the standard library only.
"""
import argparse
import json
import math
import pathlib
import subprocess
import sys
import tempfile

# name, cell, centring, Bravais type
TIED = [("cI", "11.9,11.9,11.9,90,90,90", "I", "cI"), ("cI 10", "10.3,10.3,10.3,90,90,90", "I", "cI"),
        ("cP", "8.7,8.7,8.7,90,90,90", "P", "cP"), ("tI", "9.6,9.6,13.5,90,90,90", "I", "tI"),
        ("hP", "9.9,9.9,7.4,90,90,120", "P", "hP"), ("oP", "8.2,10.7,13.1,90,90,90", "P", "oP")]
OTHERS = [("aP", "6.3,8.9,11.2,78,84,72", "P"), ("aP, all right angles nearly", "7.1,9.0,10.4,88,91.5,93", "P"),
          ("mP", "7.1,9.3,14.2,90,101,90", "P")]
KEYS = ("a", "b", "c", "alpha", "beta", "gamma")


class Bench:
    def __init__(self, vrk, folder):
        self.vrk, self.folder, self.count = vrk, folder, 0

    def call(self, *words):
        done = subprocess.run([self.vrk, *map(str, words)], capture_output=True, text=True, check=False)
        return json.loads(done.stdout) if done.returncode == 0 and done.stdout.startswith("{") else None

    def series(self, cell, centring, seed, *more):
        self.count += 1
        path = self.folder / f"s{self.count}.mrc"
        self.call("simulate", "-o", path, "--cell", cell, "--centring", centring, "--seed", seed, "--json", *more)
        return path

    def run(self, series, *more):
        return self.call("run", series, "-o", series.with_suffix(".out"), "--json", "--no-pictures",
                         "--no-integration", *more)


def errors(found, cell, reduced=False):
    """Largest relative error of an edge, per cent, and of an angle, degrees, edges in rising order."""
    truth = [float(x) for x in cell.split(",")]
    answer = [found["cell"]["reduced" if reduced else "conventional"][k] for k in KEYS]
    if reduced:
        truth = reduce_cell(truth)
    order = lambda c: sorted(zip(c[:3], c[3:]))
    pairs = list(zip(order(answer), order(truth)))
    # Two base vectors turned round make two angles 180 degrees less themselves.
    off = lambda a, t: min(abs(a - t), abs(180 - a - t)) if reduced else abs(a - t)
    return (100 * max(abs(a[0] / t[0] - 1) for a, t in pairs), max(off(a[1], t[1]) for a, t in pairs))


def reduce_cell(cell):
    reduced = BENCH.call("cell-info", *cell, "--json")["reduced"]
    return [reduced[k] for k in KEYS]


def ellipse(summary):
    """Strength, per cent, and azimuth in the frame, degrees."""
    terms = {t["name"]: t["value"] for t in summary["instrument"]["terms"]}
    c, s = terms.get("ellipse_cos", 0.0), terms.get("ellipse_sin", 0.0)
    return 100 * math.hypot(c, s), 0.5 * math.degrees(math.atan2(s, c)) + summary["tilt_axis"]["angle_deg"]


def turned(a, b):
    return abs(math.remainder(a - b, 180))


def found_again(seeds):
    """Crystals with ties: how far everything is off."""
    print("crystals with ties, ellipse of 1 %")
    print("case      azimuth seed  first  d length %  d angle  d strength %  d azimuth  d axis  in s.u.")
    good = 0
    for n, (name, cell, centring, bravais) in enumerate(TIED * seeds):
        azimuth, axis, seed = (37 * n + 11) % 180, (53 * n) % 90 - 30, 100 + n
        path = BENCH.series(cell, centring, seed, "--ellipse", 0.01, "--ellipse-azimuth", azimuth, "--axis", axis,
                            "--state-axis", axis + 0.5 * (n % 4) - 0.6)
        result = BENCH.run(path)
        if not result:
            print(f"{name:10}{azimuth:7}{seed:5}  nothing found")
            continue
        length, angle = errors(result, cell)
        strength, direction = ellipse(result)
        off = turned(result["tilt_axis"]["refined_deg"], axis)
        sigma = result["tilt_axis"]["refined_esd_deg"] or math.inf
        first = result["cell"]["conventional"]["bravais"]
        strength_off, azimuth_off = abs(strength - 1), turned(direction, azimuth)
        right = (first == bravais and length < 0.05 and angle < 0.03 and strength_off < 0.05 and azimuth_off < 2)
        good += right
        print(f"{name:10}{azimuth:7}{seed:5}  {first:5}{length:12.3f}{angle:9.3f}{strength_off:14.3f}"
              f"{azimuth_off:11.2f}{off:8.3f}{off / sigma:9.1f}{'' if right else '  <--'}")
    print(f"{good} of {len(TIED) * seeds} within 0.05 %, 0.03 degrees, 0.05 % of strength and 2 degrees of azimuth\n")


def applied():
    """Calibrations of A applied to B."""
    print("calibration on A, applied to B: largest error of an edge, per cent, and of an angle, degrees")
    lens = ["--ellipse", 0.014, "--ellipse-azimuth", 64, "--radial", 0.004, "--axis", 33, "--state-axis", 33.2,
            "--tilt-scale", 1.006, "--state-pixel", 1.015]
    cubic = BENCH.series(TIED[0][1], "I", 7, *lens)
    triclinic = BENCH.series(OTHERS[0][1], "P", 8, *lens)
    files = {}
    for name, sources, cell in (("cI, known cell", [cubic], TIED[0][1]),
                                ("aP, known cell", [triclinic], OTHERS[0][1]),
                                ("cI, no cell", [cubic], None)):
        path = BENCH.folder / f"{len(files)}.json"
        made = BENCH.call("calibrate", *sources, "-o", path, "--json", *(["--cell", cell] if cell else []))
        if not made:
            print(f"{name}: no calibration")
            continue
        files[name] = path
        value = lambda key: made[key] and f"{made[key]['value']:.5f}({made[key]['su']:.5f})"
        print(f"  {name:15} ellipse {value('ellipse')} along {value('ellipse_azimuth_deg')}, radial "
              f"{value('radial')}, tilts x {value('tilt_scale')}, axis {value('axis_angle_deg')}, pixel size x "
              f"{value('pixel_scale')}")
    print(f"  {'truth':15} ellipse 0.014 along 64, radial 0.004, tilts x 1.006, axis 33, pixel size x {1 / 1.015:.5f}")
    for n, (name, cell, centring) in enumerate(OTHERS):
        path = BENCH.series(cell, centring, 40 + n, *lens)
        plain = BENCH.run(path)
        line = f"  {name:30} plain " + ("nothing" if not plain else "%6.3f %6.3f" % errors(plain, cell, True))
        for source, file in files.items():
            result = BENCH.run(path, "--distortion", file)
            line += f"   by {source}: " + ("nothing" if not result else "%6.3f %6.3f" % errors(result, cell, True))
        print(line)


if __name__ == "__main__":
    parser = argparse.ArgumentParser(description=__doc__, formatter_class=argparse.RawDescriptionHelpFormatter)
    parser.add_argument("vrk")
    parser.add_argument("--seeds", type=int, default=2)
    parser.add_argument("--keep", type=pathlib.Path)
    options = parser.parse_args()
    with tempfile.TemporaryDirectory() as temporary:
        folder = options.keep or pathlib.Path(temporary)
        folder.mkdir(parents=True, exist_ok=True)
        BENCH = Bench(options.vrk, folder)
        found_again(options.seeds)
        applied()
    sys.exit(0)

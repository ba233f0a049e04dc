#!/usr/bin/env python3
"""Simulates sound and spoiled tilt series, runs `vrk run` on them without options and holds its confidence
against the truth: which share of the answers is right at each level?

Usage: confidence_matrix.py VRK [--cases N] [--seed S] [--jobs J] [--size PIXELS] [--only CLASS] [--verbose]
                                 [--save FILE]

Every other series is spoiled. All settings are drawn at random from the seed and the number of the case, so that the
first cases of a longer run are those of a shorter one. An answer is right when it is the true lattice: edges of the
reduced cell within 1.5 % and angles within 1 degree. A spoiled series may be solved, too; what it must not have is
high confidence in something else. Exit code 1 when 'high' is right in less than 99.5 % or 'fair' in less than 90 %.
Needs Python's standard library only.
"""
import argparse
import concurrent.futures
import itertools
import json
import math
import pathlib
import random
import shlex
import subprocess
import sys
import tempfile

LENGTH_LIMIT = 0.015
ANGLE_LIMIT = 1.0  # degrees
GOALS = {"high": 0.995, "fair": 0.90}
LEVELS = ["high", "fair", "low"]
BRAVAIS = ["aP", "mP", "mC", "oP", "oC", "oI", "oF", "tP", "tI", "hP", "hR", "cP", "cI", "cF"]
SPOILED = ["wrong axis", "wrong step", "two crystals", "noise only", "zone axis", "beam stop", "20-degree wedge"]


def random_cell(rng, bravais, longest):
    """Conventional cell of a type with edges up to a longest one: six numbers and the centring."""
    a, b, c = (4.5 * (longest / 4.5) ** rng.random() for _ in range(3))
    system, centring = bravais
    angles = [90.0, 90.0, 90.0]
    if system == "a":
        angles = [rng.uniform(70, 115) for _ in range(3)]
        if sum(angles) > 350 or 2 * max(angles) > sum(angles) - 10:
            return random_cell(rng, bravais, longest)
    elif system == "m":
        angles[1] = rng.uniform(91, 122)
    elif system == "h":
        b, angles[2] = a, 120.0
    elif system in "tc":
        b = a
        c = a if system == "c" else c
    return [a, b, c, *angles], centring


def metric(cell):
    a, b, c, *angles = cell
    ca, cb, cg = (math.cos(math.radians(x)) for x in angles)
    return [[a * a, a * b * cg, a * c * cb], [a * b * cg, b * b, b * c * ca], [a * c * cb, b * c * ca, c * c]]


def same_lattice(found, truth):
    """Whether vectors of the found lattice span it and have the edges and angles of the true reduced cell."""
    g = metric(found)

    def dot(p, q):
        return sum(p[i] * g[i][j] * q[j] for i in range(3) for j in range(3))

    vectors = [v for v in itertools.product(range(-3, 4), repeat=3) if any(v)]
    edges = [[v for v in vectors if abs(math.sqrt(dot(v, v)) / edge - 1) < LENGTH_LIMIT] for edge in truth[:3]]

    def angle_fits(p, q, angle):
        cosine = dot(p, q) / math.sqrt(dot(p, p) * dot(q, q))
        return abs(math.degrees(math.acos(max(-1.0, min(1.0, cosine)))) - angle) < ANGLE_LIMIT

    for p, q in itertools.product(edges[0], edges[1]):
        if not angle_fits(p, q, truth[5]):
            continue
        for r in edges[2]:
            determinant = (p[0] * (q[1] * r[2] - q[2] * r[1]) - p[1] * (q[0] * r[2] - q[2] * r[0])
                           + p[2] * (q[0] * r[1] - q[1] * r[0]))
            if abs(determinant) == 1 and angle_fits(q, r, truth[3]) and angle_fits(p, r, truth[4]):
                return True
    return False


class Case:
    """A series: its class and the options that simulate it."""

    def __init__(self, number, seed, size):
        self.number = number
        rng = random.Random(f"{seed}/{number}")
        half = number // 2
        self.kind = "sound" if number % 2 == 0 else SPOILED[half % len(SPOILED)]
        self.bravais = BRAVAIS[half % len(BRAVAIS)] if number % 2 == 0 else rng.choice(BRAVAIS)
        scale = size / 512
        dmin = rng.uniform(0.75, 1.0) / math.sqrt(scale)
        # Nodes of the longest axis are eight pixels apart.
        cell, centring = random_cell(rng, self.bravais, size / 2 * dmin / 8)
        reach = rng.choice([45, 50, 55, 60, 65])
        self.step = rng.choice([0.5, 0.7, 1.0, 1.0, 1.5])
        self.axis = rng.uniform(-90, 90)
        self.options = {
            "size": size, "seed": rng.randrange(1, 10**6), "cell": ",".join(f"{x:.4f}" for x in cell),
            "centring": centring, "dmin": dmin, "tilts": f"{-reach}:{reach}:{self.step}", "axis": self.axis,
            "kv": rng.choice([80, 120, 200, 200, 300]), "handedness": rng.choice([1, -1]),
            "mode": rng.choice(["continuous", "continuous", "continuous", "stepwise", "precession"]),
            "rocking": rng.uniform(0.0015, 0.004), "peak": 1500 * 20 ** rng.random(), "spot": rng.uniform(1.0, 1.5),
            "asymmetry": rng.uniform(0, 0.8), "background": 0.3 * 8 ** rng.random(), "drift": rng.uniform(0, 4) * scale,
            "jump": rng.choice([0, 0, 4]) * scale, "tilt-jitter": rng.uniform(0, 0.08),
            "ellipse": rng.uniform(0, 0.005), "ellipse-azimuth": rng.uniform(0, 180),
            "halo-gradient": rng.uniform(-0.2, 0.2), "hot-pixels": rng.choice([0, 0, 40]),
            "missing": rng.choice([0, 0, 0, 3])}
        self.flags = ["--write-axis"] + rng.choice([[], [], [], ["--cross"]])
        self.spoil(rng, scale, reach)
        self.summary = None

    def spoil(self, rng, scale, reach):
        options = self.options
        if self.kind == "wrong axis":
            options["state-axis"] = self.axis + rng.choice([-1, 1]) * 2 * 20 ** rng.random()
        elif self.kind == "wrong step":
            wrong = self.step * rng.choice([rng.uniform(0.7, 0.93), rng.uniform(1.07, 1.35)])
            # Tilts beyond 90 degrees are refused.
            options["state-step"] = min(wrong, 1.3 * self.step, (reach + 88) / (2 * reach) * self.step)
        elif self.kind == "two crystals":
            options["second-crystal"] = rng.uniform(0.8, 1.0)
        elif self.kind == "noise only":
            options["peak"] = 0
        elif self.kind == "zone axis":
            options["beam-along"] = rng.choice(["1,0,0", "0,1,0", "0,0,1", "1,1,0", "0,1,1"])
            options["off-zone"] = rng.choice([0, rng.uniform(0, 2)])
            # The less opposite spots and their neighbours differ, the more centres a pattern seems to have.
            options["asymmetry"] = rng.choice([0, 0.5])
            self.flags += rng.choice([[], ["--even"]])
            if rng.random() < 0.5:
                self.put_stop(rng, scale)
        elif self.kind == "beam stop":
            self.put_stop(rng, scale)
        elif self.kind == "20-degree wedge":
            first = rng.uniform(-60, 40)
            options["tilts"] = f"{first:.2f}:{first + 20:.2f}:{self.step}"

    def put_stop(self, rng, scale):
        self.options.update({
            "stop-direction": rng.uniform(0, 360), "stop-width": rng.choice([0, rng.uniform(8, 24)]) * scale,
            "stop-disc": rng.uniform(10, 26) * scale, "stop-transmission": rng.choice([0, 0, rng.uniform(0, 0.2)]),
            "stop-offset": f"{rng.uniform(-5, 5) * scale:.2f},{rng.uniform(-5, 5) * scale:.2f}",
            "stop-pedestal": rng.choice([0, 0, 50])})

    def simulation(self):
        arguments = []
        for name, value in self.options.items():
            arguments += [f"--{name}", f"{value:.6g}" if isinstance(value, float) else str(value)]
        return arguments + self.flags

    def run(self, vrk):
        """Level of the answer, whether it is right, and a word on it."""
        with tempfile.TemporaryDirectory(prefix="confidence") as temporary:
            folder = pathlib.Path(temporary)
            series = folder / "series.mrc"
            made = subprocess.run([vrk, "simulate", "-o", series, "--json", *self.simulation()], check=True,
                                  stdout=subprocess.PIPE)
            primitive = json.loads(made.stdout)["cell"]["primitive"]
            truth = [primitive[key] for key in ("a", "b", "c", "alpha", "beta", "gamma")]
            try:
                done = subprocess.run([vrk, "run", series, "-o", folder / "out", "--no-pictures", "--no-integration",
                                       "--json"],
                                      stdout=subprocess.PIPE, stderr=subprocess.PIPE, text=True, timeout=900)
            except subprocess.TimeoutExpired:
                return "failed", False, "longer than 900 s"
            if done.returncode == 3:
                return "none", False, done.stderr.strip().splitlines()[-1]
            if done.returncode != 0:
                return "failed", False, f"exit {done.returncode}: {done.stderr.strip()[-200:]}"
            summary = self.summary = json.loads(done.stdout)
        found = [summary["cell"]["reduced"][key] for key in ("a", "b", "c", "alpha", "beta", "gamma")]
        word = (" ".join(f"{x:.2f}" for x in found) + " for " + " ".join(f"{x:.2f}" for x in truth)
                + f", {100 * summary['reflections']['fraction_indexed']:.0f} % of {summary['reflections']['found']}")
        return summary["confidence"]["level"], same_lattice(found, truth), word


def print_table(results):
    print(f"\n{'class':16} {'cases':>5} {'right':>5}   " + "   ".join(f"{level:>11}" for level in LEVELS)
          + "   none failed")
    for kind in ["sound", *SPOILED, "all"]:
        rows = [row for row in results if kind in (row[0].kind, "all")]
        if not rows:
            continue
        shares = []
        for level in LEVELS:
            at = [right for _, (found, right, _) in rows if found == level]
            shares.append(f"{sum(at):>4} of {len(at):>3}")
        print(f"{kind:16} {len(rows):5} {sum(row[1][1] for row in rows):5}   "
              + "   ".join(f"{share:>11}" for share in shares)
              + "".join(f"   {sum(row[1][0] == level for row in rows):4}" for level in ("none", "failed")))


def print_crystals(results):
    """How often a second crystal was reported."""
    for title, is_meant in (("two crystals, both reported", lambda kind: kind == "two crystals"),
                            ("one crystal, a second one reported",
                             lambda kind: kind not in ("two crystals", "noise only"))):
        rows = [case.summary for case, _ in results if is_meant(case.kind) and case.summary]
        if rows:
            print(f"{title}: {sum(len(row.get('crystals', [])) > 1 for row in rows)} of {len(rows)}")


def print_levels(results):
    """Share of right answers per level; whether the goals are met."""
    met = True
    print()
    for level in LEVELS:
        right = [row[1][1] for row in results if row[1][0] == level]
        if not right:
            print(f"{level:5} no answers")
            continue
        share = sum(right) / len(right)
        goal = GOALS.get(level)
        print(f"{level:5} {100 * share:5.1f} % of {len(right)} right" + (f", wanted {100 * goal:.1f} %" if goal else ""))
        met = met and (goal is None or share >= goal)
    return met


def main():
    parser = argparse.ArgumentParser(description=__doc__.split("\n\n")[0])
    parser.add_argument("vrk")
    parser.add_argument("--cases", type=int, default=400)
    parser.add_argument("--seed", default="1")
    parser.add_argument("--jobs", type=int, default=1)
    parser.add_argument("--size", type=int, default=256)
    parser.add_argument("--only", default="", help="only classes whose name contains this")
    parser.add_argument("--save", help="file that gets a line of JSON for every case, with the summary of the run")
    parser.add_argument("--verbose", action="store_true", help="a line for every case")
    options = parser.parse_args()
    cases = [Case(i, options.seed, options.size) for i in range(options.cases)]
    cases = [case for case in cases if options.only in case.kind]
    results = []
    with concurrent.futures.ThreadPoolExecutor(options.jobs) as pool:
        for case, result in zip(cases, pool.map(lambda case: case.run(options.vrk), cases)):
            results.append((case, result))
            level, right, word = result
            if options.save:
                with open(options.save, "a", encoding="utf-8") as file:
                    print(json.dumps({"number": case.number, "kind": case.kind, "bravais": case.bravais,
                                      "simulation": shlex.join(case.simulation()), "level": level, "right": right,
                                      "word": word, "summary": case.summary}), file=file)
            misleading = level in GOALS and not right
            if misleading or level == "failed" or options.verbose:
                print(f"{case.number:3} {case.kind:16} {case.bravais} {level:6} {'right' if right else 'WRONG'}  {word}",
                      flush=True)
            if (misleading and level == "high") or level == "failed":
                print("      vrk simulate -o series.mrc", shlex.join(case.simulation()), flush=True)
    print_table(results)
    print()
    print_crystals(results)
    return 0 if print_levels(results) else 1


if __name__ == "__main__":
    sys.exit(main())

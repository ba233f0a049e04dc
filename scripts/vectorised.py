#!/usr/bin/env python3
"""Checks that the compiler makes vector code of the hot loops, by what it reports of them.

    scripts/vectorised.py [BUILD]        BUILD has compile_commands.json of GCC, optimised [build/release]

A loop that a change keeps from being vectorised gives the same results and takes several times as long, which no test
notices.
"""
import json
import pathlib
import re
import shlex
import subprocess
import sys

# Functions all of whose versions have a loop of at least 16 byte vectors, and one of at least 32.
LOOPS = {
    "src/foundation/detail/Selection.cpp": ["countShorts", "countKeys", "sumShorts", "findExtremes", "formKeys"],
    "src/processing/detail/RadialBackground.cpp": ["limitUnits", "subtractLevel", "subtractHalf"],
    "src/processing/detail/HotSpots.cpp": ["anyLeaves", "follow"],
    "src/processing/detail/SeriesMean.cpp": ["addPattern"],
    "src/processing/detail/OppositePixels.cpp": ["mix", "subtractOpposites", "findSizes"],
    "src/processing/detail/ReciprocalVolume.cpp": ["averageOf"],
    "src/cellfinding/detail/DensityLabels.cpp": ["uniteMarks"],
    "src/cellfinding/detail/DensitySteps.cpp": ["takeCensus", "countRim"],
    "src/cellfinding/detail/DistanceCounts.cpp": ["squareDistances", "findIntervals"],
    "src/cellfinding/detail/NeighbourRows.cpp": ["countWithin"],
    "src/cellfinding/detail/PotentialGrid.cpp": ["addWeighted"],
    "src/tiltaxis/detail/PairDirections.cpp": ["formVectors", "findBins"],
    "pipeline/latticesearch/PointsOnNodes.cpp": ["countNear"],
    "pipeline/latticesearch/PhasorSums.cpp": ["addTurned"],
    "pipeline/integration/BackgroundSums.cpp": ["sumPixels"],
}


def lines_of(source: str, function: str) -> range:
    """The lines of a function: from its name to the brace that closes it in the first column."""
    start = next(i for i, line in enumerate(source.splitlines(), 1)
                 if re.search(rf"\b{function}\(", line) and not line.startswith((" ", "/")))
    end = next(i for i, line in enumerate(source.splitlines(), 1) if i > start and line == "}")
    return range(start, end + 1)


def compiles(command: dict, name: str) -> bool:
    """Whether a command compiles a source, by itself or with those of its folder."""
    file = command["file"]
    return file.endswith(name) or (file.endswith(".cxx") and f"/{name}\"" in pathlib.Path(file).read_text())


def vectors_in(command: dict, name: str) -> list[tuple[int, int]]:
    """Line and bytes of each vectorised loop or block of a source."""
    arguments = [a for a in shlex.split(command["command"]) if a != "ccache"]
    output = arguments.index("-o")
    arguments[output + 1] = "/dev/null"
    report = subprocess.run(arguments + ["-fopt-info-vec"], cwd=command["directory"], text=True, check=True,
                            stderr=subprocess.PIPE).stderr
    found = re.findall(r"([^\s:]+):(\d+):\d+: optimized: .*vectorized using (\d+) byte vectors", report)
    return [(int(line), int(size)) for file, line, size in found if file.endswith(name)]


def main() -> int:
    root = pathlib.Path(__file__).resolve().parent.parent
    build = pathlib.Path(sys.argv[1]) if len(sys.argv) > 1 else root / "build" / "release"
    commands = json.loads((build / "compile_commands.json").read_text())
    missed = 0
    for name, functions in LOOPS.items():
        vectors = vectors_in(next(c for c in commands if compiles(c, name)), name)
        for function in functions:
            lines = lines_of((root / name).read_text(), function)
            sizes = {size for line, size in vectors if line in lines}
            good = 16 in sizes and bool(sizes & {32, 64})
            missed += not good
            print(f"{'vector code' if good else 'NO VECTOR CODE'}: {name} {function}, {sorted(sizes)} bytes")
    return 1 if missed else 0


if __name__ == "__main__":
    sys.exit(main())

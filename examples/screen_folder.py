"""A line for each series of a folder, two at a time: screen_folder.py FOLDER"""

import sys
import warnings
from concurrent.futures import ThreadPoolExecutor
from pathlib import Path

import vrkcore


def line_of(path):
    try:
        result = vrkcore.run(path, integrate=False)  # the cell is enough
    except vrkcore.Failure as failure:
        return f"{path.name}: {failure}"
    numbers = " ".join(f"{number:.5g}" for number in result.cell)
    return f"{path.name}: {result.bravais} {numbers}, confidence {result.confidence}"


warnings.simplefilter("ignore", vrkcore.VRKWarning)
with ThreadPoolExecutor(2) as pool:
    for line in pool.map(line_of, sorted(Path(sys.argv[1]).glob("*.mrc"))):
        print(line)

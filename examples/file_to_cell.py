"""From a file to a cell: file_to_cell.py SERIES.mrc"""

import sys

import vrkcore

result = vrkcore.run(sys.argv[1])
print(result.bravais, *(f"{number:.6g}" for number in result.cell))

"""The cell of reflections that another program found: own_reflections.py LIST PIXELSIZE

A line of the list is x y z intensity, in voxels from the origin; the pixel size is in 1/m per voxel.
"""

import sys

import numpy as np

import vrkcore

table = np.loadtxt(sys.argv[1])
found = vrkcore.find_cell(table[:, :3], table[:, 3], pixel_size=float(sys.argv[2]))
print(found.cell.bravais, *(f"{number:.6g}" for number in found.cell))
print(f"{found.indexed} of {len(table)} reflections, confidence {found.confidence}")

"""A reflection search of its own in the volume of a run, and the cell of what it finds: own_stage.py SERIES.mrc"""

import sys

import numpy as np

import vrkcore

series = vrkcore.Series.from_mrc(sys.argv[1])
volume = vrkcore.run(series, integrate=False).volume.astype(float)  # (z, y, x)

# Voxels above the noise that are the largest of their neighbours.
threshold = 8 * np.percentile(volume[volume > 0], 75)
inner = (slice(1, -1),) * 3
largest = volume[inner] > threshold
for axis in range(3):
    for step in (-1, 1):
        largest &= volume[inner] >= np.roll(volume, step, axis)[inner]
places = np.argwhere(largest) + 1
points = (places - (np.array(volume.shape) - 1) / 2)[:, ::-1]  # x, y, z from the origin
points = points[np.linalg.norm(points, axis=1) > 0.08 * volume.shape[2]]

found = vrkcore.find_cell(points, pixel_size=series.pixel_size)
print(found.cell.bravais, *(f"{number:.6g}" for number in found.cell))
print(f"{found.indexed} of {found.reflections} reflections, confidence {found.confidence}")

"""What a viewer shows first, a slice through the origin of a volume: volume_slice.py SERIES.mrc PICTURE.pgm"""

import sys

import numpy as np

import vrkcore

volume = vrkcore.run(sys.argv[1], integrate=False).volume  # (z, y, x), not copied
middle = volume[volume.shape[0] // 2]
with open(sys.argv[2], "wb") as picture:
    picture.write(b"P5\n%d %d\n255\n" % middle.shape[::-1])
    picture.write(np.clip(middle // 4, 0, 255).astype(np.uint8).tobytes())
print(f"{middle.shape[1]} x {middle.shape[0]} of {volume.shape[0]} slices")

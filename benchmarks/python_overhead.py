"""What a run costs in Python beyond the same run in the library, on 121 frames of 512 x 512.

PYTHONPATH=build/release/python benchmarks/python_overhead.py

The library's own time is the sum of its stages, which it measures itself.
"""

import statistics
import time

import vrkcore

series = vrkcore.simulate([7, 9, 12, 90, 90, 90], size=512, write_axis=True, axis=20)
shares = []
for _ in range(3):
    result = tables = None  # freeing them is not part of it
    start = time.perf_counter()
    result = vrkcore.run(series, progress=lambda share, name: None)
    tables = result.reflections, result.frames, result.intensities, result.merged, result.volume, result.summary
    whole = time.perf_counter() - start
    inside = result.summary["seconds"]["total"]
    shares.append((whole - inside) / inside)
    print(f"{whole:.2f} s, {inside:.2f} s of them in the stages: {100 * shares[-1]:.2f} % more")
print(f"overhead {100 * statistics.median(shares):.2f} %")

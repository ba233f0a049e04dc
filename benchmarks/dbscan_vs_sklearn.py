#!/usr/bin/python3
"""Compares DBSCAN with scikit-learn's (kd-tree, one thread) on the same half-space difference vectors.

Both times are processor time: ours with building the grid and the clusters, theirs with building the tree.

usage: dbscan_vs_sklearn.py build/release/benchmarks/bench_cell_finding [count ...]
"""

import os
import subprocess
import sys
import tempfile
import time

os.environ["OMP_NUM_THREADS"] = "1"
os.environ["OPENBLAS_NUM_THREADS"] = "1"

import numpy as np
from sklearn.cluster import DBSCAN

EPS = 3.0
MIN_POINTS = 20


def compare(program, count, folder):
    path = os.path.join(folder, "vectors")
    subprocess.run([program, "--make", str(count), path], check=True)
    vectors = np.fromfile(path).reshape(-1, 3)
    output = subprocess.run(
        [program, "--vectors", path, str(EPS), str(MIN_POINTS)], check=True, capture_output=True, text=True
    ).stdout
    ours = float(output.split("seconds")[1].split()[0])
    result = np.fromfile(path + ".labels").reshape(-1, 4)

    # The same order of points gives the same numbers to clusters and border points.
    ordered = np.ascontiguousarray(result[:, :3])
    assert np.array_equal(np.sort(ordered, axis=0), np.sort(vectors, axis=0))
    # scikit-learn counts distances equal to eps, too.
    radius = np.nextafter(EPS, 0.0)
    start = time.process_time()
    theirs = DBSCAN(eps=radius, min_samples=MIN_POINTS, algorithm="kd_tree", n_jobs=1).fit(ordered).labels_
    seconds = time.process_time() - start
    same = np.array_equal(theirs + 1, result[:, 3].astype(int))
    print(
        f"{count:8d} vectors: {theirs.max() + 1} clusters, {np.sum(theirs < 0)} noise, {ours:.4f} s, "
        f"scikit-learn {seconds:.3f} s, ratio {seconds / ours:.1f}, labels {'equal' if same else 'DIFFER'}",
        flush=True,
    )
    return same


def main():
    counts = [int(c) for c in sys.argv[2:]] or [10**4, 10**5, 10**6]
    with tempfile.TemporaryDirectory() as folder:
        if not all([compare(sys.argv[1], count, folder) for count in counts]):
            sys.exit(1)


if __name__ == "__main__":
    main()

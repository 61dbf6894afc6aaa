"""Curve self query from Python against the same query run from C++ in the same process.

    PYTHONPATH=build/python python3 bench/python/bench_curves.py [--quick]

Prints, per strand count, the median over repetitions of (C++ time / Python time) for
CurveTree.self_proximity(adjacency=3) (the Python time includes the record array), and the
median Python time in milliseconds.
"""

import sys
import time

import numpy as np

import quarrygeom as qg


def hair(strands, segments=24, seed=0):
    rng = np.random.default_rng(seed)
    roots = rng.random((strands, 1, 3))
    walk = np.cumsum(rng.normal(0, 0.02 / np.sqrt(segments), (strands, segments + 1, 3)), 1)
    pos = (roots + walk).reshape(-1, 3)
    return qg.CurveTree(qg.Curves([segments] * strands), pos, radii=np.full(len(pos), 0.002))


def main():
    quick = "--quick" in sys.argv
    reps = 3 if quick else 7
    for strands in ([2000] if quick else [2000, 20000]):
        tree = hair(strands)
        ratios, py_times = [], []
        for _ in range(reps):
            native = qg._quarrygeom._time_native_curve_self(tree, 3, 1)[0]
            t0 = time.perf_counter()
            res = tree.self_proximity(adjacency=3)
            py = time.perf_counter() - t0
            ratios.append(native / py)
            py_times.append(py)
        print(f"{strands} strands x 24 segments, {len(res)} contacts: C++ / Python {np.median(ratios):.3f}, "
              f"Python {1e3 * np.median(py_times):.2f} ms")


if __name__ == "__main__":
    main()

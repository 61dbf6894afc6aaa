"""Batched queries from Python against the same batched call made from C++, and per-call overhead.

    PYTHONPATH=build/python python3 bench/python/bench_batch.py [--quick]

For each mesh (the bunny, a cloth grid of 1,002,528 faces) and query (closest points, nearest ray
hit, all ray hits) it reports:
  - binding ratio: time of the C++ batched call (run from C++ through the module's timing hook, on
    copies of the same inputs) / time of the Python call; >= 1 means no cost added by the binding.
    Python and C++ runs alternate and the median of the per-pair ratios is reported.
  - thread scaling: time of the Python call on one thread (quarrygeom.set_multithreading(False))
    / on two workers (KORV_THREAD_COUNT=2, set by this script unless given), runs alternating,
    median of the per-pair ratios.
and the per-call overhead of a batch of one point against one single C++ query.
Figures are ratios of runs taken side by side, so that the machine's other load cancels out as
far as it can; the absolute times are printed for reference only.
"""

import argparse
import os
import statistics
import time

import numpy as np

os.environ.setdefault("KORV_THREAD_COUNT", "2")  # read when the library loads
import quarrygeom as qg  # noqa: E402
from quarrygeom import _quarrygeom as native  # noqa: E402
from quarrygeom.io import read_obj  # noqa: E402

HERE = os.path.dirname(os.path.abspath(__file__))
DATA = os.environ.get("QUARRYGEOM_DATA_DIR", os.path.join(HERE, "..", "..", "..", "shared", "data"))


def cloth_grid(n):
    x, y = np.meshgrid(np.linspace(0, 1, n + 1), np.linspace(0, 1, n + 1))
    verts = np.stack([x.ravel(), y.ravel(), np.zeros(x.size)], -1)
    i, j = np.meshgrid(np.arange(n), np.arange(n))
    a = (j * (n + 1) + i).ravel()
    return verts, np.concatenate([np.stack([a, a + 1, a + n + 2], -1), np.stack([a, a + n + 2, a + n + 1], -1)])


def scene(name, n_points, n_rays):
    verts, faces = read_obj(os.path.join(DATA, "meshes", "stanford-bunny.obj")) if name == "bunny" else cloth_grid(708)
    rng = np.random.default_rng(1)
    lo, hi = verts.min(0), verts.max(0)
    pad = 0.05 * np.linalg.norm(hi - lo)
    box = lambda n: lo - pad + rng.random((n, 3)) * (hi - lo + 2 * pad)  # noqa: E731
    tree = qg.Tree(qg.Mesh(verts, faces, name=name))
    return tree, box(n_points), box(n_rays), rng.normal(size=(n_rays, 3))


def python_call(tree, query, p, d):
    if query == "closest_points":
        return lambda: tree.closest_points(p)
    if query == "first_hit":
        return lambda: tree.first_hit(p, d)
    return lambda: tree.all_hits(p, d)


def timed(f):
    t0 = time.perf_counter()
    f()
    return time.perf_counter() - t0


def measure(name, reps, quick):
    """Per query: medians of the Python time, the C++ time, their ratio, and of the one-thread /
    two-worker ratio of the Python call, all from alternating runs."""
    n_points, n_rays = (20_000, 20_000) if quick else (100_000, 100_000)
    tree, pts, origins, dirs = scene(name, n_points, n_rays)
    out = {}
    for query in ["closest_points", "first_hit", "all_hits"]:
        p, d = (pts, None) if query == "closest_points" else (origins, dirs)
        call = python_call(tree, query, p, d)
        call(), native._time_native(tree, query, p, d, 1)  # warm: search box copy, caches
        py, cpp, ratios, scaling = [], [], [], []
        for _ in range(reps):
            a = timed(call)
            b = native._time_native(tree, query, p, d, 1)[0]
            qg.set_multithreading(False)
            one = timed(call)
            qg.set_multithreading(True)
            two = timed(call)
            py.append(a), cpp.append(b), ratios.append(b / a), scaling.append(one / two)
        out[query] = (len(p), statistics.median(py), statistics.median(cpp), statistics.median(ratios),
                      statistics.median(scaling))
    return out


def overhead(reps):
    """Microseconds per call: a batch of one point from Python, one single query from C++."""
    verts, faces = read_obj(os.path.join(DATA, "meshes", "stanford-bunny.obj"))
    tree = qg.Tree(qg.Mesh(verts, faces))
    pts = verts[::7] + 1e-3  # near the surface: cheap searches, so the call cost shows
    singles = [p.reshape(1, 3).copy() for p in pts]
    tree.closest_points(pts)
    py, cpp = [], []
    for _ in range(reps):
        t0 = time.perf_counter()
        for s in singles:
            tree.closest_points(s)
        py.append((time.perf_counter() - t0) / len(singles) * 1e6)
        cpp.append(native._time_native(tree, "closest_point_single", pts, None, 1)[0] / len(pts) * 1e6)
    return statistics.median(py), statistics.median(cpp)


def main():
    ap = argparse.ArgumentParser()
    ap.add_argument("--quick", action="store_true", help="smaller batches and fewer repetitions")
    args = ap.parse_args()
    reps = 3 if args.quick else 7
    print(f"load average before: {os.getloadavg()}, cores: {os.cpu_count()}, workers: {qg.worker_count()}")
    print("\n| mesh | query | batch | Python s (2 workers) | C++ s | C++ / Python | 1 thread / 2 workers |")
    print("|---|---|---|---|---|---|---|")
    for name in ["bunny", "grid1M"]:
        for query, (n, py, cpp, ratio, scaling) in measure(name, reps, args.quick).items():
            print(f"| {name} | {query} | {n} | {py:.4f} | {cpp:.4f} | {ratio:.3f} | {scaling:.2f} |")
    py, cpp = overhead(reps)
    print(f"\nper call, closest point near the bunny: batch of 1 from Python {py:.2f} us, "
          f"single C++ query {cpp:.2f} us, overhead {py - cpp:.2f} us")
    print(f"load average after: {os.getloadavg()}")


if __name__ == "__main__":
    main()

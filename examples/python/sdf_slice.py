"""Signed distance to the Stanford bunny on a 512 x 512 slice, drawn with its zero contour.

    PYTHONPATH=build/python python3 examples/python/sdf_slice.py [out.png]

The bunny comes from ../shared/data/meshes beside the source tree (QUARRYGEOM_DATA_DIR overrides
it); the picture goes to docs/images/sdf_slice.png unless another path is given.
"""

import os
import sys
import time

import matplotlib

matplotlib.use("Agg")
import matplotlib.pyplot as plt  # noqa: E402
import numpy as np  # noqa: E402

import quarrygeom as qg  # noqa: E402
from quarrygeom.io import read_obj  # noqa: E402

here = os.path.dirname(os.path.abspath(__file__))
root = os.path.join(here, "..", "..")
data = os.environ.get("QUARRYGEOM_DATA_DIR", os.path.join(root, "..", "shared", "data"))
out = sys.argv[1] if len(sys.argv) > 1 else os.path.join(root, "docs", "images", "sdf_slice.png")

vertices, faces = read_obj(os.path.join(data, "meshes", "stanford-bunny.obj"))
tree = qg.Tree(qg.Mesh(vertices, faces, name="bunny"))

# The slice: the plane z = middle of the bunny, over its x-y extent and a margin.
lo, hi = vertices.min(0), vertices.max(0)
margin = 0.15 * (hi - lo).max()
n = 512
x = np.linspace(lo[0] - margin, hi[0] + margin, n)
y = np.linspace(lo[1] - margin, hi[1] + margin, n)
X, Y = np.meshgrid(x, y)
points = np.stack([X.ravel(), Y.ravel(), np.full(X.size, 0.5 * (lo[2] + hi[2]))], axis=1)

start = time.perf_counter()
distance = tree.signed_distance(points).distance.reshape(n, n)
elapsed = time.perf_counter() - start
print(f"signed distance at {points.shape[0]} points in {elapsed:.3f} s "
      f"({qg.worker_count()} worker threads); inside: {(distance < 0).mean():.1%} of the slice")

limit = np.abs(distance).max()
fig, ax = plt.subplots(figsize=(6.4, 6.4 * (y[-1] - y[0]) / (x[-1] - x[0]) + 0.4), dpi=100)
image = ax.imshow(distance, origin="lower", extent=(x[0], x[-1], y[0], y[-1]), cmap="RdBu",
                  vmin=-limit, vmax=limit)
ax.contour(X, Y, distance, levels=[0.0], colors="black", linewidths=1.2)
ax.contour(X, Y, distance, levels=np.linspace(-limit, limit, 21), colors="grey", linewidths=0.3, alpha=0.6)
ax.set_title("Signed distance to the bunny, slice z = %.3f (black: zero)" % points[0, 2], fontsize=10)
ax.set_xlabel("x")
ax.set_ylabel("y")
fig.colorbar(image, ax=ax, shrink=0.8, label="signed distance (negative inside)")
fig.tight_layout()
os.makedirs(os.path.dirname(os.path.abspath(out)), exist_ok=True)
fig.savefig(out)
print("wrote", out)

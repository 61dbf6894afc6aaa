import os

import numpy as np
import pytest

from quarrygeom.io import read_obj

DATA = os.environ.get("QUARRYGEOM_DATA_DIR", os.path.join(os.path.dirname(__file__), "..", "..", "..", "shared", "data"))


def torus(n_major=40, n_minor=24, R=1.0, r=0.3):
    """Closed torus around z, outward oriented, as arrays."""
    u, v = np.meshgrid(np.arange(n_major), np.arange(n_minor), indexing="ij")
    a, b = 2 * np.pi * u / n_major, 2 * np.pi * v / n_minor
    verts = np.stack([(R + r * np.cos(b)) * np.cos(a), (R + r * np.cos(b)) * np.sin(a), r * np.sin(b)], -1).reshape(-1, 3)
    idx = lambda i, j: (i % n_major) * n_minor + (j % n_minor)  # noqa: E731
    faces = []
    for i in range(n_major):
        for j in range(n_minor):
            p, q, s, t = idx(i, j), idx(i + 1, j), idx(i + 1, j + 1), idx(i, j + 1)
            faces += [[p, q, s], [p, s, t]]
    return verts, np.array(faces)


def grid(n, m):
    """n x m quads in the unit square at z = 0, normals +z."""
    x, y = np.meshgrid(np.linspace(0, 1, n + 1), np.linspace(0, 1, m + 1))
    verts = np.stack([x.ravel(), y.ravel(), np.zeros(x.size)], -1)
    i, j = np.meshgrid(np.arange(n), np.arange(m))
    a = (j * (n + 1) + i).ravel()
    faces = np.concatenate([np.stack([a, a + 1, a + n + 2], -1), np.stack([a, a + n + 2, a + n + 1], -1)])
    return verts, faces


@pytest.fixture(scope="session")
def bunny_arrays():
    return read_obj(os.path.join(DATA, "meshes", "stanford-bunny.obj"))


@pytest.fixture(scope="session", params=["bunny", "torus"])
def shared_mesh(request, bunny_arrays):
    return bunny_arrays if request.param == "bunny" else torus()


def points_around(verts, n, seed, pad=0.1):
    rng = np.random.default_rng(seed)
    lo, hi = verts.min(0), verts.max(0)
    ext = hi - lo
    return lo - pad * ext + rng.random((n, 3)) * (1 + 2 * pad) * ext

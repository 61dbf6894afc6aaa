import numpy as np


def torus(n_major=40, n_minor=24, R=1.0, r=0.3):
    """Closed torus around z, outward oriented, as arrays."""
    u, v = np.meshgrid(np.arange(n_major), np.arange(n_minor), indexing="ij")
    a, b = 2 * np.pi * u / n_major, 2 * np.pi * v / n_minor
    verts = np.stack([(R + r * np.cos(b)) * np.cos(a), (R + r * np.cos(b)) * np.sin(a), r * np.sin(b)], -1).reshape(-1, 3)
    i, j = u.ravel(), v.ravel()
    p, q, s, t = [(x % n_major) * n_minor + y % n_minor for x, y in [(i, j), (i + 1, j), (i + 1, j + 1), (i, j + 1)]]
    return verts, np.concatenate([np.stack([p, q, s], -1), np.stack([p, s, t], -1)])


def points_around(verts, n, seed, pad=0.1):
    rng = np.random.default_rng(seed)
    lo, hi = verts.min(0), verts.max(0)
    return lo - pad * (hi - lo) + rng.random((n, 3)) * (1 + 2 * pad) * (hi - lo)


def ray_triangle(o, d, a, b, c, tmax=np.inf):
    """Two-sided crossings of rays (o, d) with triangles (rows broadcast): (parameter, barycentric, margin)
    where margin >= 0 means a hit and |margin| small means too close to call."""
    e1, e2 = b - a, c - a
    h = np.cross(d, e2)
    det = (e1 * h).sum(-1)
    inv = 1 / np.where(np.abs(det) > 1e-14, det, np.nan)
    s = o - a
    u = (s * h).sum(-1) * inv
    q = np.cross(s, e1)
    v = (q * d).sum(-1) * inv
    t = (q * e2).sum(-1) * inv
    margin = np.nan_to_num(np.minimum.reduce([u, v, 1 - u - v, t, tmax - t]), nan=-1)
    return t, np.stack([1 - u - v, u, v], -1), margin

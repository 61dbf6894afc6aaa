"""Batched point and ray queries against NumPy brute force, and disabled faces."""

import numpy as np

import quarrygeom as qg
from conftest import points_around, ray_triangle, torus

V, F = torus(16, 10)


def point_triangle_distance(p, a, b, c):
    """Distance of points to triangles (rows broadcast)."""
    def segment(x, y):
        t = np.clip(((p - x) * (y - x)).sum(-1) / ((y - x) ** 2).sum(-1), 0, 1)
        return np.linalg.norm(p - x - t[..., None] * (y - x), axis=-1)
    n = np.cross(b - a, c - a)
    n /= np.linalg.norm(n, axis=-1, keepdims=True)
    inside = (ray_triangle(p, n, a, b, c)[1] >= 0).all(-1)  # the projection lies within the triangle
    h = ((p - a) * n).sum(-1)
    return np.where(inside, np.abs(h), np.minimum.reduce([segment(a, b), segment(b, c), segment(c, a)]))


def winding(p, verts, faces):
    """Generalised winding number of closed triangle meshes around points (van Oosterom-Strackee)."""
    a, b, c = (verts[faces[:, k]][None] - p[:, None] for k in range(3))
    la, lb, lc = (np.linalg.norm(x, axis=-1) for x in (a, b, c))
    num = (a * np.cross(b, c)).sum(-1)
    den = la * lb * lc + (a * b).sum(-1) * lc + (b * c).sum(-1) * la + (c * a).sum(-1) * lb
    return 2 * np.arctan2(num, den).sum(1) / (4 * np.pi)


def test_point_queries_match_brute_force():
    tree = qg.Tree(qg.Mesh(V, F))
    pts = np.concatenate([points_around(V, 300, 1), V[::7] * 1.01])
    tri = [V[F[:, k]][None] for k in range(3)]
    dist = point_triangle_distance(pts[:, None], *tri)
    cp = tree.closest_points(pts)
    np.testing.assert_allclose(np.abs(cp.distance), dist.min(1), atol=1e-12)
    a, b, c = (V[F[cp.face, k]] for k in range(3))
    np.testing.assert_allclose(a * (1 - cp.s - cp.t)[:, None] + b * cp.s[:, None] + c * cp.t[:, None], cp.point, atol=1e-12)
    np.testing.assert_allclose(np.linalg.norm(cp.point - pts, axis=1), np.abs(cp.distance), atol=1e-12)
    normals = qg.Mesh(V, F).face_normals[cp.face]
    np.testing.assert_allclose(cp.normal, normals, atol=1e-12)
    behind = ((cp.point - pts) * normals).sum(1) > 1e-12
    assert ((cp.distance < 0) == behind).all()

    cv = tree.closest_vertices(pts)
    vd = np.linalg.norm(pts[:, None] - V[None], axis=2)
    np.testing.assert_array_equal(cv.vertex, vd.argmin(1))
    np.testing.assert_allclose(cv.distance, vd.min(1), atol=1e-14)

    inside = winding(pts, V, F) > 0.5
    np.testing.assert_array_equal(tree.inside(pts), inside)
    sd = tree.signed_distance(pts)
    np.testing.assert_allclose(sd.distance, np.where(inside, -1, 1) * dist.min(1), atol=1e-12)
    np.testing.assert_allclose(np.linalg.norm(sd.point - pts, axis=1), dist.min(1), atol=1e-12)


def test_ray_queries_match_brute_force():
    tree = qg.Tree(qg.Mesh(V, F))
    rng = np.random.default_rng(2)
    o, d = points_around(V, 300, 3), rng.normal(size=(300, 3))
    t, bary, margin = ray_triangle(o[:, None], d[:, None], *(V[F[:, k]][None] for k in range(3)))
    allh = tree.all_hits(o, d)
    assert allh.offsets[0] == 0 and allh.offsets[-1] == len(allh.hits)
    first = tree.first_hit(o, d)
    for i in range(len(o)):
        got = allh.hits["face"][allh.offsets[i]:allh.offsets[i + 1]]
        sure, maybe = set(np.flatnonzero(margin[i] > 1e-9)), set(np.flatnonzero(margin[i] > -1e-9))
        assert len(set(got)) == len(got) and sure <= set(got) <= maybe, i
        if len(got) == 0:
            assert first.face[i] == -1 and np.isinf(first.t[i]) and np.isnan(first.point[i]).all()
            continue
        best = min(got, key=lambda f: (t[i, f], f))
        assert first.face[i] == best
        np.testing.assert_allclose([first.t[i]], [t[i, best]], rtol=1e-12)
        np.testing.assert_allclose(first.point[i], o[i] + t[i, best] * d[i], atol=1e-12)
        np.testing.assert_allclose(first.barycentric[i], bary[i, best], atol=1e-12)
    corners = np.einsum("nk,nkj->nj", allh.hits["barycentric"], V[F[allh.hits["face"]]])
    np.testing.assert_allclose(allh.hits["point"], corners, atol=1e-12)


def test_disabled_faces_are_left_out_like_a_mesh_without_them():
    verts, faces = torus(24, 12)
    off = np.zeros(len(faces), bool)
    off[::3] = True
    mesh = qg.Mesh(verts, faces)
    mask = qg.DisabledMask(mesh, off)
    assert mask.count == off.sum() and (mask.faces == off).all()
    masked = qg.Tree(mesh, disabled=mask)
    pts = points_around(verts, 500, 5)
    a, b = masked.closest_points(pts, include_disabled=False), qg.Tree(qg.Mesh(verts, faces[~off])).closest_points(pts)
    np.testing.assert_array_equal(np.abs(a.distance), np.abs(b.distance))
    assert not off[a.face].any()
    assert off[masked.closest_points(pts, include_disabled=True).face].any()

"""Batched queries from Python against the library's single queries run from C++, and their arrays."""

import os
import subprocess
from types import SimpleNamespace

import numpy as np
import pytest

import quarrygeom as qg
from conftest import grid, points_around, torus


def cpp_reference(tmp_path, verts, faces, points, rays, end=None):
    """Runs the C++ reference program; returns per-point rows, per-ray hit faces and contacts."""
    exe = os.environ.get("QG_PY_REFERENCE")
    if not exe:
        pytest.skip("QG_PY_REFERENCE not set (run through ctest)")
    files = {}
    for name, arr in [("mesh", np.concatenate([[len(verts), len(faces)], verts.ravel(), faces.ravel()])),
                      ("points", points), ("rays", rays), ("end", np.zeros(0) if end is None else end)]:
        files[name] = tmp_path / (name + ".f64")
        np.asarray(arr, dtype=np.float64).tofile(files[name])
    out = tmp_path / "out.f64"
    subprocess.run([exe, files["mesh"], files["points"], files["rays"], files["end"], out], check=True)
    data = np.fromfile(out)
    rows = data[: 12 * len(points)].reshape(-1, 12)
    k, hits = 12 * len(points), []
    for _ in range(len(rays)):
        n = int(data[k])
        hits.append(data[k + 1: k + 1 + n].astype(int))
        k += 1 + n
    n = int(data[k])
    contacts = data[k + 1: k + 1 + 6 * n].reshape(-1, 6)
    return rows, hits, contacts


def test_batched_queries_equal_the_cpp_single_queries(tmp_path, shared_mesh):
    verts, faces = shared_mesh
    pts = np.concatenate([points_around(verts, 3000, 1), verts[::50], verts[faces[::70]].mean(1)])
    rng = np.random.default_rng(2)
    rays = np.concatenate([points_around(verts, 1000, 3), rng.normal(size=(1000, 3))], 1)
    rows, hits, _ = cpp_reference(tmp_path, verts, faces, pts, rays)

    tree = qg.Tree(qg.Mesh(verts, faces))
    cp = tree.closest_points(pts)
    np.testing.assert_array_equal(cp.distance, rows[:, 0])
    np.testing.assert_array_equal(cp.point, rows[:, 1:4])
    np.testing.assert_array_equal(cp.face, rows[:, 4])
    np.testing.assert_array_equal(np.stack([cp.s, cp.t], 1), rows[:, 5:7])
    cv = tree.closest_vertices(pts)
    np.testing.assert_array_equal(cv.vertex, rows[:, 7])
    np.testing.assert_array_equal(cv.distance, rows[:, 8])
    np.testing.assert_array_equal(tree.inside(pts), rows[:, 9] != 0)
    sd = tree.signed_distance(pts)
    np.testing.assert_array_equal(sd.distance, rows[:, 10])
    np.testing.assert_array_equal(sd.face, rows[:, 11])

    allh = tree.all_hits(rays[:, :3], rays[:, 3:])
    assert allh.offsets[-1] == len(allh.hits) == sum(len(h) for h in hits)
    np.testing.assert_array_equal(allh.hits["face"], np.concatenate(hits))
    np.testing.assert_array_equal(np.diff(allh.offsets), [len(h) for h in hits])
    # Nearest hit: the smallest ray parameter among all hits, ties to the smallest face.
    first = tree.first_hit(rays[:, :3], rays[:, 3:])
    ray = np.repeat(np.arange(len(rays)), np.diff(allh.offsets))
    d = rays[ray, 3:]
    t = ((allh.hits["point"] - rays[ray, :3]) * d).sum(1) / (d * d).sum(1)
    for i in range(len(rays)):
        s = slice(allh.offsets[i], allh.offsets[i + 1])
        if s.start == s.stop:
            assert first.face[i] == -1 and np.isinf(first.t[i]) and np.isnan(first.point[i]).all()
            continue
        best = np.lexsort((allh.hits["face"][s], t[s]))[0]
        # t comes from the triangle test itself, so it may differ from the point's in the last bit.
        assert first.face[i] == allh.hits["face"][s][best]
        assert first.t[i] == pytest.approx(t[s][best], rel=1e-12, abs=0)
        np.testing.assert_array_equal(first.point[i], allh.hits["point"][s][best])


def test_continuous_self_collision_equals_cpp(tmp_path):
    verts, faces = grid(16, 16)
    # A sheet folding over itself: the right half swings over and through the left half.
    end = verts.copy()
    right = verts[:, 0] > 0.5
    end[right, 0] = 1.0 - verts[right, 0] + 0.013
    end[right, 2] = -0.02
    _, _, contacts = cpp_reference(tmp_path, verts, faces, np.zeros((0, 3)), np.zeros((0, 6)), end)
    assert len(contacts) > 20
    tree = qg.Tree.swept(qg.Mesh(verts, faces), end)
    metrics = qg.Metrics()
    rec = tree.continuous_self(metrics=metrics)
    assert rec.dtype == qg.continuous_dtype
    ours = np.stack([rec["triangle1"], rec["triangle2"], rec["type"], rec["feature1"], rec["feature2"], rec["time"]], 1)
    key = lambda a: a[np.lexsort(a.T[::-1])]  # noqa: E731
    np.testing.assert_array_equal(key(ours), key(contacts))
    assert metrics.as_dict()["narrow_phase_successes"] > 0
    assert ((rec["time"] >= 0) & (rec["time"] <= 1)).all()
    np.testing.assert_allclose(np.linalg.norm(rec["normal"], axis=1), 1.0, rtol=1e-12)


QUERIES = {
    "closest_points": (lambda t, p: t.closest_points(p), {"distance": ("f8", ()), "point": ("f8", (3,)), "face": ("i4", ()),
                                                         "s": ("f8", ()), "t": ("f8", ()), "normal": ("f8", (3,))}),
    "closest_vertices": (lambda t, p: t.closest_vertices(p), {"vertex": ("i4", ()), "distance": ("f8", ())}),
    "signed_distance": (lambda t, p: t.signed_distance(p), {"distance": ("f8", ()), "face": ("i4", ()), "point": ("f8", (3,))}),
    "first_hit": (lambda t, p: t.first_hit(p, p + 1.0), {"face": ("i4", ()), "t": ("f8", ()), "point": ("f8", (3,)),
                                                         "barycentric": ("f8", (3,))}),
    "inside": (lambda t, p: SimpleNamespace(inside=t.inside(p)), {"inside": ("?", ())}),
}


@pytest.mark.parametrize("name", QUERIES)
@pytest.mark.parametrize("layout", ["float64", "fortran", "int", "strided", "single"])
def test_result_shapes_and_dtypes_for_any_input_layout(name, layout):
    verts, faces = torus(12, 8)
    tree = qg.Tree(qg.Mesh(verts, faces))
    base = points_around(verts, 10, 4)
    pts = {"float64": base, "fortran": np.asfortranarray(base), "int": np.round(base).astype(np.int16),
           "strided": np.repeat(base, 2, 0)[::2], "single": base[0]}[layout]
    query, fields = QUERIES[name]
    res = query(tree, pts)
    n = 1 if layout == "single" else 10
    reference = query(tree, np.ascontiguousarray(np.atleast_2d(pts), dtype=np.float64))
    for field, (dtype, tail) in fields.items():
        got = getattr(res, field)
        assert got.dtype == np.dtype(dtype) and got.shape == (n,) + tail, field
        np.testing.assert_array_equal(got, getattr(reference, field))


def test_disabled_faces_are_left_out_like_a_mesh_without_them():
    verts, faces = torus(24, 12)
    off = np.zeros(len(faces), bool)
    off[::3] = True
    mesh = qg.Mesh(verts, faces)
    mask = qg.DisabledMask(mesh, off)
    assert mask.count == off.sum() and (mask.faces == off).all()
    masked = qg.Tree(mesh, disabled=mask)
    subset = qg.Tree(qg.Mesh(verts, faces[~off]))
    pts = points_around(verts, 500, 5)
    a, b = masked.closest_points(pts, include_disabled=False), subset.closest_points(pts)
    np.testing.assert_array_equal(np.abs(a.distance), np.abs(b.distance))
    assert not off[a.face].any()
    assert off[masked.closest_points(pts, include_disabled=True).face].any()

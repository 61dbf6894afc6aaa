"""Array conversion at the binding layer: rejected input, any input layout, arrays back, the GIL."""

import threading
import time
from types import SimpleNamespace

import numpy as np
import pytest

import quarrygeom as qg
from conftest import points_around, torus

V, F = torus(10, 6)
MESH = qg.Mesh(V, F)
TREE = qg.Tree(MESH)
CURVES = qg.Curves([2, 3])  # 7 vertices
GOOD = np.zeros((7, 3))
NAN3 = np.where(np.arange(len(V))[:, None] == 3, np.nan, V)


@pytest.mark.parametrize("call, error", [
    (lambda: qg.Mesh(V[:, :2], F), ValueError),
    (lambda: qg.Mesh(V.ravel(), F), ValueError),
    (lambda: qg.Mesh(V, F[:, :2]), ValueError),
    (lambda: qg.Mesh(V.astype(complex), F), TypeError),
    (lambda: qg.Mesh(V.astype(str), F), TypeError),
    (lambda: qg.Mesh(V, F.astype(float)), TypeError),
    (lambda: qg.Mesh(NAN3, F), ValueError),
    (lambda: qg.Mesh(np.where(np.isnan(NAN3), np.inf, V), F), ValueError),
    (lambda: qg.Mesh(V, np.where(F == 5, len(V), F)), IndexError),
    (lambda: qg.Mesh(V, np.where(F == 5, -1, F)), IndexError),
    (lambda: qg.Mesh(V, np.concatenate([F, [[1, 1, 2]]])), ValueError),  # repeated vertex
    (lambda: qg.Mesh(V, [[0, 1, "x"]]), TypeError),
    (lambda: TREE.closest_points(np.zeros((4, 2))), ValueError),
    (lambda: TREE.closest_points([[0, 0, np.nan]]), ValueError),
    (lambda: TREE.signed_distance(np.zeros((2, 3), complex)), TypeError),
    (lambda: TREE.inside("points"), TypeError),
    (lambda: TREE.first_hit(np.zeros((3, 3)), np.ones((2, 3))), ValueError),
    (lambda: TREE.all_hits(np.zeros((1, 3)), [[np.inf, 0, 0]]), ValueError),
    (lambda: TREE.refit(V[:-1]), ValueError),
    (lambda: TREE.refit(thickness=0.1), ValueError),  # not a thickened tree
    (lambda: qg.Tree.thickened(MESH, -1.0), ValueError),
    (lambda: qg.Tree.swept(MESH, V[:3]), ValueError),
    (lambda: qg.Tree(qg.Mesh(np.zeros((0, 3)), np.zeros((0, 3), int))), ValueError),
    (lambda: qg.Tree(MESH, disabled=qg.DisabledMask(qg.Mesh(V, F))), ValueError),  # mask of another mesh
    (lambda: qg.DisabledMask(MESH, [len(F)]), IndexError),
    (lambda: qg.DisabledMask(MESH, np.ones(3, bool)), ValueError),
    (lambda: TREE.continuous_self(), ValueError),  # no end positions for a plain tree
    (lambda: TREE.self_proximity(0.1, tests=1 << 15), ValueError),
    (lambda: MESH.adjacency("faces_of_doom"), ValueError),
    (lambda: qg.orient3d(np.zeros(3), np.zeros(3), np.zeros(3), np.zeros(2)), ValueError),
    (lambda: qg.Curves([[1, 2]]), ValueError),
    (lambda: qg.Curves([1.5, 2]), TypeError),
    (lambda: qg.Curves([3, -1]), ValueError),
    (lambda: qg.Curves.ranges([0, 1], [0], [1, 2]), ValueError),
    (lambda: qg.CurveTree(CURVES, np.zeros((6, 3))), ValueError),
    (lambda: qg.CurveTree(CURVES, np.full((7, 3), "a")), TypeError),
    (lambda: qg.CurveTree(CURVES, np.where(np.eye(7, 3) > 0, np.nan, 0.0)), ValueError),
    (lambda: qg.CurveTree(CURVES, GOOD, radii=np.ones(6)), ValueError),
    (lambda: qg.CurveTree(CURVES, GOOD, radii=-np.ones(7)), ValueError),
    (lambda: qg.CurveTree(CURVES, GOOD, offset=np.nan), ValueError),
    (lambda: qg.CurveTree(CURVES, GOOD).refit(GOOD, radii=np.ones(7)), ValueError),
    (lambda: qg.CurveTree(CURVES, GOOD).self_proximity(adjacency=2), ValueError),
    (lambda: qg.CurveTree(CURVES, GOOD).intersections("tree"), TypeError),
])
def test_bad_input_raises(call, error):
    with pytest.raises(error):
        call()


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
    base = points_around(V, 10, 4)
    pts = {"float64": base, "fortran": np.asfortranarray(base), "int": np.round(base).astype(np.int16),
           "strided": np.repeat(base, 2, 0)[::2], "single": base[0]}[layout]
    query, fields = QUERIES[name]
    res = query(TREE, pts)
    reference = query(TREE, np.ascontiguousarray(np.atleast_2d(pts), dtype=np.float64))
    for field, (dtype, tail) in fields.items():
        got = getattr(res, field)
        assert got.dtype == np.dtype(dtype) and got.shape == (1 if layout == "single" else 10,) + tail, field
        np.testing.assert_array_equal(got, getattr(reference, field))


def test_arrays_back_from_the_mesh_and_tree():
    mesh = qg.Mesh(V, F, name="torus")
    assert (mesh.vertex_count, mesh.face_count, mesh.name) == (len(V), len(F), "torus")
    np.testing.assert_array_equal(mesh.positions, V)
    np.testing.assert_array_equal(mesh.faces, F)
    assert mesh.is_closed() and mesh.edge_count == len(F) * 3 // 2
    cross = np.cross(V[F[:, 1]] - V[F[:, 0]], V[F[:, 2]] - V[F[:, 1]])
    np.testing.assert_allclose(mesh.face_normals, cross / np.linalg.norm(cross, axis=1)[:, None], atol=1e-14)
    np.testing.assert_allclose(mesh.face_areas, np.linalg.norm(cross, axis=1) / 2, rtol=1e-14)
    e, ef = mesh.edges, mesh.edge_faces  # every edge's faces hold both its ends
    assert ((F[ef] == e[:, None, :1]).any(2) & (F[ef] == e[:, None, 1:]).any(2)).all()
    offsets, faces = mesh.adjacency("vertex_faces")
    for v in range(len(V)):
        np.testing.assert_array_equal(faces[offsets[v]:offsets[v + 1]], np.flatnonzero((F == v).any(1)))
    # The root box is the vertices' box rounded outwards to float; refit moves it with them.
    tree, shift = qg.Tree(mesh), np.array([3.0, -1.0, 0.5])
    np.testing.assert_allclose(tree.root_box, [V.min(0), V.max(0)], atol=1e-6)
    tree.refit(V + shift)
    np.testing.assert_array_equal(mesh.positions, V + shift)
    np.testing.assert_allclose(tree.root_box, [V.min(0) + shift, V.max(0) + shift], atol=1e-6)
    swept = qg.Tree.swept(qg.Mesh(V, F), V + shift)
    np.testing.assert_array_equal(swept.end_positions, V + shift)
    np.testing.assert_allclose(swept.root_box, [np.minimum(V.min(0), V.min(0) + shift),
                                                np.maximum(V.max(0), V.max(0) + shift)], atol=1e-6)
    thick = qg.Tree.thickened(qg.Mesh(V, F), 0.05)
    thick.refit(thickness=0.5)
    np.testing.assert_allclose(thick.root_box, [V.min(0) - 0.5, V.max(0) + 0.5], atol=1e-6)


def long_query(kind):
    verts, faces = torus(300, 150)
    tree = qg.Tree(qg.Mesh(verts, faces))
    if kind == "closest points":
        pts = points_around(verts, 50_000, 7)
        return lambda: tree.closest_points(pts)
    rng = np.random.default_rng(3)  # 2000 strands of 20 segments around the torus
    pos = (points_around(verts, 2000, 8)[:, None] + np.cumsum(rng.normal(0, 0.01, (2000, 21, 3)), 1)).reshape(-1, 3)
    hair = qg.CurveTree(qg.Curves([20] * 2000), pos, radii=np.full(len(pos), 0.003))
    return lambda: (hair.self_proximity(adjacency=3), hair.mesh_crossings(tree))


@pytest.mark.parametrize("kind", ["closest points", "curves"])
def test_another_python_thread_runs_during_a_long_query(kind):
    query = long_query(kind)
    query()  # the first query fills the mesh's caches
    ticks, stop = [0], threading.Event()

    def count():
        while not stop.is_set():
            ticks[0] += 1

    worker = threading.Thread(target=count)
    worker.start()
    try:
        t0, n0 = time.perf_counter(), ticks[0]
        time.sleep(0.1)  # the counter alone
        rate = (ticks[0] - n0) / (time.perf_counter() - t0)
        during, elapsed = 0, 0.0
        while elapsed < 0.3:
            n0, t0 = ticks[0], time.perf_counter()
            query()
            elapsed += time.perf_counter() - t0
            during += ticks[0] - n0
    finally:
        stop.set()
        worker.join()
    # Holding the GIL, the counter would only run in the switch intervals around the calls.
    assert during > 0.2 * rate * elapsed, (during, rate, elapsed)

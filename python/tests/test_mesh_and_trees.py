"""Meshes and trees from arrays: checked input, arrays back, refit, masks, threads."""

import threading
import time

import numpy as np
import pytest

import quarrygeom as qg
from conftest import points_around, torus

V, F = torus(10, 6)


@pytest.mark.parametrize("vertices, faces, error", [
    (V[:, :2], F, ValueError),                         # (V, 2)
    (V.ravel(), F, ValueError),                        # flat
    (V, F[:, :2], ValueError),                         # (F, 2)
    (V.astype(complex), F, TypeError),                 # complex coordinates
    (V.astype(str), F, TypeError),                     # text
    (V, F.astype(float), TypeError),                   # float indices
    (np.where(np.arange(len(V))[:, None] == 3, np.nan, V), F, ValueError),
    (np.where(np.arange(len(V))[:, None] == 3, np.inf, V), F, ValueError),
    (V, np.where(F == 5, len(V), F), IndexError),      # index past the end
    (V, np.where(F == 5, -1, F), IndexError),          # negative index
    (V, np.concatenate([F, [[1, 1, 2]]]), ValueError),  # repeated vertex
    ("vertices", F, TypeError),
    (V, [[0, 1, "x"]], TypeError),
])
def test_bad_mesh_input_raises(vertices, faces, error):
    with pytest.raises(error):
        qg.Mesh(vertices, faces)


MESH = qg.Mesh(V, F)
TREE = qg.Tree(MESH)


@pytest.mark.parametrize("call, error", [
    (lambda: TREE.closest_points(np.zeros((4, 2))), ValueError),
    (lambda: TREE.closest_points([[0, 0, np.nan]]), ValueError),
    (lambda: TREE.signed_distance(np.zeros((2, 3), complex)), TypeError),
    (lambda: TREE.inside("points"), TypeError),
    (lambda: TREE.first_hit(np.zeros((3, 3)), np.ones((2, 3))), ValueError),
    (lambda: TREE.all_hits(np.zeros((1, 3)), [[np.inf, 0, 0]]), ValueError),
    (lambda: TREE.refit(V[:-1]), ValueError),
    (lambda: TREE.refit(thickness=0.1), ValueError),           # not a thickened tree
    (lambda: qg.Tree.thickened(MESH, -1.0), ValueError),
    (lambda: qg.Tree.swept(MESH, V[:3]), ValueError),
    (lambda: qg.Tree(qg.Mesh(np.zeros((0, 3)), np.zeros((0, 3), int))), ValueError),
    (lambda: qg.Tree(MESH, disabled=qg.DisabledMask(qg.Mesh(V, F))), ValueError),  # mask of another mesh
    (lambda: qg.DisabledMask(MESH, [len(F)]), IndexError),
    (lambda: qg.DisabledMask(MESH, np.ones(3, bool)), ValueError),
    (lambda: TREE.continuous_self(), ValueError),             # no end positions for a plain tree
    (lambda: TREE.self_proximity(0.1, tests=1 << 15), ValueError),
    (lambda: MESH.adjacency("faces_of_doom"), ValueError),
    (lambda: qg.orient3d(np.zeros(3), np.zeros(3), np.zeros(3), np.zeros(2)), ValueError),
])
def test_bad_query_input_raises(call, error):
    with pytest.raises(error):
        call()


def test_arrays_back_from_the_mesh():
    mesh = qg.Mesh(V, F, name="torus")
    assert (mesh.vertex_count, mesh.face_count, mesh.name) == (len(V), len(F), "torus")
    np.testing.assert_array_equal(mesh.positions, V)
    np.testing.assert_array_equal(mesh.faces, F)
    assert mesh.is_closed() and mesh.edge_count == len(F) * 3 // 2
    cross = np.cross(V[F[:, 1]] - V[F[:, 0]], V[F[:, 2]] - V[F[:, 1]])
    np.testing.assert_allclose(mesh.face_normals, cross / np.linalg.norm(cross, axis=1)[:, None], atol=1e-14)
    np.testing.assert_allclose(mesh.face_areas, np.linalg.norm(cross, axis=1) / 2, rtol=1e-14)
    # Every edge joins the vertices it names, and its faces hold both ends.
    e, ef = mesh.edges, mesh.edge_faces
    assert ((F[ef] == e[:, None, :1]).any(2) & (F[ef] == e[:, None, 1:]).any(2)).all()
    offsets, faces = mesh.adjacency("vertex_faces")
    for v in range(len(V)):
        np.testing.assert_array_equal(faces[offsets[v]:offsets[v + 1]], np.flatnonzero((F == v).any(1)))
    np.testing.assert_allclose(np.linalg.norm(mesh.vertex_normals, axis=1), 1.0, rtol=1e-12)


@pytest.mark.parametrize("mode", ["plain", "thickened", "swept"])
def test_refit_from_python_moves_the_tree(mode):
    mesh = qg.Mesh(V, F)
    tree = {"plain": lambda: qg.Tree(mesh), "thickened": lambda: qg.Tree.thickened(mesh, 0.05),
            "swept": lambda: qg.Tree.swept(mesh, V)}[mode]()
    pts = points_around(V, 200, 6)
    before = tree.closest_points(pts)
    shift = np.array([3.0, -1.0, 0.5])
    box = tree.root_box
    tree.refit(V + shift)
    if mode == "swept":  # end positions moved; the boxes now enclose both placements
        np.testing.assert_array_equal(tree.end_positions, V + shift)
        union = [np.minimum(box[0], box[0] + shift), np.maximum(box[1], box[1] + shift)]
        np.testing.assert_allclose(tree.root_box, union, atol=1e-6)
        return
    np.testing.assert_array_equal(mesh.positions, V + shift)
    np.testing.assert_allclose(tree.root_box, box + shift, atol=1e-6)
    after = tree.closest_points(pts + shift)
    np.testing.assert_allclose(after.distance, before.distance, atol=1e-12)
    np.testing.assert_allclose(after.point, before.point + shift, atol=1e-12)
    if mode == "thickened":
        tree.refit(thickness=0.5)
        np.testing.assert_allclose(tree.root_box, box + shift + [[-0.45] * 3, [0.45] * 3], atol=1e-6)


def long_query(kind, verts, faces):
    tree = qg.Tree(qg.Mesh(verts, faces))
    if kind == "closest points":
        pts = points_around(verts, 50_000, 7)
        return lambda: tree.closest_points(pts)
    rng = np.random.default_rng(3)  # 2000 strands of 20 segments around the bunny
    pos = (points_around(verts, 2000, 8)[:, None] + np.cumsum(rng.normal(0, 0.004, (2000, 21, 3)), 1)).reshape(-1, 3)
    hair = qg.CurveTree(qg.Curves([20] * 2000), pos, radii=np.full(len(pos), 0.001))
    return lambda: (hair.self_proximity(adjacency=3), hair.mesh_crossings(tree))


@pytest.mark.parametrize("kind", ["closest points", "curves"])
def test_another_python_thread_runs_during_a_long_query(bunny_arrays, kind):
    query = long_query(kind, *bunny_arrays)
    query()  # the first query fills the mesh's caches, with the GIL released anyway
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
    # Holding the GIL, the counter would only run in the switch intervals around the calls (a few
    # ms); released, it counts through the calls, on whatever core share the workers leave it.
    assert during > 0.2 * rate * elapsed, (during, rate, elapsed)

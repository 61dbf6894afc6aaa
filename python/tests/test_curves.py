"""Curves, their tree and queries against brute-force NumPy references on small random strands."""

import numpy as np
import pytest

import quarrygeom as qg
from conftest import ray_triangle, torus

TOL = 1e-9


def strands(seed, counts, step=0.25, rmax=0.12):
    """Random-walk strands in about the unit cube and per-vertex radii."""
    rng = np.random.default_rng(seed)
    pos = []
    for c in (c for c in counts if c > 0):  # an empty strand has no vertex
        pos.append(rng.random(3) * 1.5 - 0.75 + np.cumsum(np.vstack([np.zeros(3), rng.normal(0, step, (c, 3))]), 0))
    pos = np.vstack(pos)
    return pos, rmax * rng.random(len(pos))


def closest(p0, p1, q0, q1):
    """Closest parameters and points of segment pairs (rows), non-parallel segments."""
    d1, d2, r = p1 - p0, q1 - q0, p0 - q0
    a, e = (d1 * d1).sum(1), (d2 * d2).sum(1)
    b, c, f = (d1 * d2).sum(1), (d1 * r).sum(1), (d2 * r).sum(1)
    s = np.clip((b * f - c * e) / (a * e - b * b), 0, 1)
    t = (b * s + f) / e
    s = np.where(t < 0, np.clip(-c / a, 0, 1), np.where(t > 1, np.clip((b - c) / a, 0, 1), s))
    t = np.clip(t, 0, 1)
    return s, t, p0 + s[:, None] * d1, q0 + t[:, None] * d2


def brute_pairs(pos_a, rad_a, seg_a, pos_b, rad_b, seg_b, keep):
    """{(i, j): (s, t, p, q, distance)} of touching segment pairs, and the pairs within TOL of the threshold."""
    i, j = np.nonzero(keep)
    s, t, p, q = closest(pos_a[seg_a[i, 0]], pos_a[seg_a[i, 1]], pos_b[seg_b[j, 0]], pos_b[seg_b[j, 1]])
    d = np.linalg.norm(p - q, axis=1)
    reach = rad_a[seg_a[i, 0]] * (1 - s) + rad_a[seg_a[i, 1]] * s + rad_b[seg_b[j, 0]] * (1 - t) + rad_b[seg_b[j, 1]] * t
    hits = {(a, b): (s[k], t[k], p[k], q[k], d[k]) for k, (a, b) in enumerate(zip(i, j)) if d[k] <= reach[k]}
    unsure = {(a, b) for k, (a, b) in enumerate(zip(i, j)) if abs(d[k] - reach[k]) < TOL}
    return hits, unsure


def check_records(res, hits, unsure, symmetric=False):
    assert res.dtype == qg.curve_contact_dtype
    got = {}
    for r in res:
        key = (int(r["index1"]), int(r["index2"]))
        ref = hits.get(key)
        if ref is None and symmetric:
            ref = hits.get(key[::-1])
            ref = ref and (ref[1], ref[0], ref[3], ref[2], ref[4])
        got[tuple(sorted(key)) if symmetric else key] = True
        if ref is None:
            assert key in unsure or key[::-1] in unsure, key
            continue
        np.testing.assert_allclose([r["parameter1"], r["parameter2"], r["distance"]], [ref[0], ref[1], ref[4]], atol=TOL)
        np.testing.assert_allclose(np.stack([r["point1"], r["point2"]]), np.stack([ref[2], ref[3]]), atol=TOL)
        if ref[4] > 1e-6:
            np.testing.assert_allclose(r["normal"], (ref[2] - ref[3]) / ref[4], atol=1e-7)
        assert r["index3"] == -1
    assert len(got) == len(res)  # each pair once
    want = {tuple(sorted(k)) if symmetric else k for k in hits} - {tuple(sorted(k)) if symmetric else k for k in unsure}
    assert want <= set(got)


@pytest.mark.parametrize("seed, adjacency, include_adjacent, with_radii", [
    (1, 1, False, True), (2, 3, False, True), (3, 3, True, True), (4, 1, False, False), (5, 3, False, False),
])
@pytest.mark.parametrize("threads", [True, False])
def test_self_proximity_matches_brute_force(seed, adjacency, include_adjacent, with_radii, threads):
    counts = [9, 1, 14, 6, 11, 0, 8]
    pos, rad = strands(seed, counts, step=0.4)
    if not with_radii:  # strand 1 (segment 9) exactly through the middle of segment 2
        pos[2:4] = np.round(pos[2:4] * 64) / 64
        mid = (pos[2] + pos[3]) / 2
        pos[10], pos[11] = mid - [0.25, 0.125, 0.5], mid + [0.25, 0.125, 0.5]
    curves = qg.Curves(counts)
    tree = qg.CurveTree(curves, pos, radii=rad if with_radii else None)
    seg, cur, num = curves.segment_vertices, curves.segment_curves, curves.segment_numbers
    r = rad if with_radii else np.zeros(len(pos))
    n = len(seg)
    keep = np.triu(np.ones((n, n), bool), 1)
    if not include_adjacent:
        same = cur[:, None] == cur[None, :]
        keep &= ~(same if adjacency == 1 else same & (np.abs(num[:, None] - num[None, :]) <= 2))
    hits, unsure = brute_pairs(pos, r, seg, pos, r, seg, keep)
    was = qg.multithreading()
    try:
        qg.set_multithreading(threads)
        res = tree.self_proximity(adjacency=adjacency, include_adjacent=include_adjacent)
    finally:
        qg.set_multithreading(was)
    if include_adjacent:
        assert len(hits) >= n - np.count_nonzero(counts)  # neighbours always touch
    check_records(res, hits, unsure, symmetric=True)
    # The same records as the curve-curve walk of the tree against itself, on the kept pairs.
    both = {(int(r["index1"]), int(r["index2"])): r.tobytes() for r in tree.intersections(tree)}
    assert sum(keep[i, j] for i, j in both if i < j) == len(res)
    assert all(both[(int(r["index1"]), int(r["index2"]))] == r.tobytes() for r in res)
    if not with_radii:
        assert (2, 9) in {tuple(sorted(k)) for k in res[["index1", "index2"]].tolist()}


@pytest.mark.parametrize("seed", [11, 12, 13])
def test_curve_curve_and_refit_match_brute_force(seed):
    ca, cb = qg.Curves([7, 7, 7, 7]), qg.Curves.single(25)
    pa, ra = strands(seed, [7] * 4, step=0.4, rmax=0.2)
    pb, rb = strands(seed + 100, [24], step=0.3, rmax=0.2)
    pb -= pb.mean(0)
    ta, tb = qg.CurveTree(ca, pa, radii=ra), qg.CurveTree(cb, pb, radii=rb, offset=0.01)
    moved = pa[::-1] * 0.5  # a different, denser arrangement, same topology
    for step in range(2):
        keep = np.ones((ca.segment_count, cb.segment_count), bool)
        hits, unsure = brute_pairs(pa, ra, ca.segment_vertices, pb, rb, cb.segment_vertices, keep)
        check_records(ta.intersections(tb), hits, unsure)
        pa, ra = moved, ra * 2
        ta.refit(pa, ra)
    np.testing.assert_array_equal(ta.positions, pa)
    np.testing.assert_array_equal(ta.radii, ra)


@pytest.mark.parametrize("seed", [21, 22])
def test_mesh_crossings_match_brute_force(seed):
    verts, faces = torus(16, 10)
    mesh_tree = qg.Tree(qg.Mesh(verts, faces))
    counts = [12, 5, 0, 9, 12]
    curves = qg.Curves(counts)
    pos, _ = strands(seed, counts, step=0.3)
    tree = qg.CurveTree(curves, pos)
    seg = curves.segment_vertices
    o, d = pos[seg[:, 0]], pos[seg[:, 1]] - pos[seg[:, 0]]
    t, bary, margin = ray_triangle(o[:, None], d[:, None], *(verts[faces[:, k]][None] for k in range(3)), tmax=1.0)
    hits = {(i, f): (t[i, f], o[i] + t[i, f] * d[i], bary[i, f])
            for i, f in zip(*np.nonzero(margin >= 0))}
    unsure = set(zip(*np.nonzero(np.abs(margin) < 1e-7)))
    res = tree.mesh_crossings(mesh_tree)
    got = {(int(r["index1"]), int(r["index2"])) for r in res}
    assert len(got) == len(res)
    assert set(hits) - unsure <= got <= set(hits) | unsure
    for r in res:
        ref = hits.get((r["index1"], r["index2"]))
        if ref is not None:
            np.testing.assert_allclose(r["parameter1"], ref[0], atol=1e-9)
            np.testing.assert_allclose(np.stack([r["point1"], r["point2"]]), np.stack([ref[1], ref[1]]), atol=1e-9)
            np.testing.assert_allclose(r["barycentric"], ref[2], atol=1e-9)
        assert r["distance"] == 0 and r["index3"] == -1
        np.testing.assert_allclose(np.linalg.norm(r["normal"]), 1.0)
    # One row per strand: a crossing of that strand, or -1 when it crosses nothing.
    first = tree.first_mesh_crossings(mesh_tree)
    assert len(first) == len(counts)
    for k, r in enumerate(first):
        own = {key for key in got if curves.segment_curves[key[0]] == k}
        assert (r["index1"] >= 0) == bool(own)
        if own:
            assert (r["index1"], r["index2"]) in own
            same = res[(res["index1"] == r["index1"]) & (res["index2"] == r["index2"])][0]
            assert same.tobytes() == r.tobytes()


def test_topology_of_the_constructors():
    c = qg.Curves.ranges([5, 2, 9], [1, 3, 0], [4, 3, 2])  # the middle curve is empty
    assert (c.curve_count, c.segment_count, c.vertex_count) == (3, 5, 7)
    np.testing.assert_array_equal(c.segment_vertices, [[0, 1], [1, 2], [2, 3], [4, 5], [5, 6]])
    np.testing.assert_array_equal(c.segment_curves, [0, 0, 0, 2, 2])
    np.testing.assert_array_equal(c.segment_numbers, [1, 2, 3, 0, 1])
    np.testing.assert_array_equal(c.logical_indices, [5, 2, 9])
    for empty in (qg.Curves([]), qg.Curves.single(1)):
        assert empty.segment_count == 0
        tree = qg.CurveTree(empty, np.zeros((empty.vertex_count, 3)))
        assert len(tree.self_proximity()) == 0


CURVES = qg.Curves([2, 3])  # 7 vertices
GOOD = np.zeros((7, 3))


@pytest.mark.parametrize("call, error", [
    (lambda: qg.Curves([[1, 2]]), ValueError),
    (lambda: qg.Curves([1.5, 2]), TypeError),
    (lambda: qg.Curves([3, -1]), ValueError),
    (lambda: qg.Curves.single(-2), ValueError),
    (lambda: qg.Curves.ranges([0, 1], [0], [1, 2]), ValueError),
    (lambda: qg.CurveTree(CURVES, np.zeros((6, 3))), ValueError),
    (lambda: qg.CurveTree(CURVES, np.zeros((7, 2))), ValueError),
    (lambda: qg.CurveTree(CURVES, np.full((7, 3), "a")), TypeError),
    (lambda: qg.CurveTree(CURVES, np.where(np.eye(7, 3) > 0, np.nan, 0.0)), ValueError),
    (lambda: qg.CurveTree(CURVES, GOOD, radii=np.ones(6)), ValueError),
    (lambda: qg.CurveTree(CURVES, GOOD, radii=-np.ones(7)), ValueError),
    (lambda: qg.CurveTree(CURVES, GOOD, radii=np.full(7, np.inf)), ValueError),
    (lambda: qg.CurveTree(CURVES, GOOD, offset=np.nan), ValueError),
    (lambda: qg.CurveTree(CURVES, GOOD).refit(np.zeros((8, 3))), ValueError),
    (lambda: qg.CurveTree(CURVES, GOOD).refit(GOOD, radii=np.ones(7)), ValueError),
    (lambda: qg.CurveTree(CURVES, GOOD).self_proximity(adjacency=2), ValueError),
    (lambda: qg.CurveTree(CURVES, GOOD).intersections("tree"), TypeError),
])
def test_bad_curve_input_raises(call, error):
    with pytest.raises(error):
        call()

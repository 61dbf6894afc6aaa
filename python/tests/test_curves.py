"""Curves, their tree and queries through the bindings against NumPy brute force on small random strands."""

import numpy as np
import pytest

import quarrygeom as qg
from conftest import ray_triangle, torus

TOL = 1e-9


def strands(seed, counts, step=0.25, rmax=0.12):
    """Random-walk strands in about the unit cube and per-vertex radii."""
    rng = np.random.default_rng(seed)
    pos = [rng.random(3) * 1.5 - 0.75 + np.cumsum(np.vstack([np.zeros(3), rng.normal(0, step, (c, 3))]), 0)
           for c in counts if c > 0]  # an empty strand has no vertex
    pos = np.vstack(pos)
    return pos, rmax * rng.random(len(pos))


def brute_pairs(pos_a, rad_a, seg_a, pos_b, rad_b, seg_b, keep):
    """{(i, j): (s, t, distance)} of touching segment pairs (non-parallel), and the pairs too close to call."""
    i, j = np.nonzero(keep)
    p0, q0 = pos_a[seg_a[i, 0]], pos_b[seg_b[j, 0]]
    d1, d2, r = pos_a[seg_a[i, 1]] - p0, pos_b[seg_b[j, 1]] - q0, p0 - q0
    a, e, b, c, f = ((x * y).sum(1) for x, y in [(d1, d1), (d2, d2), (d1, d2), (d1, r), (d2, r)])
    s = np.clip((b * f - c * e) / (a * e - b * b), 0, 1)
    t = (b * s + f) / e
    s = np.where(t < 0, np.clip(-c / a, 0, 1), np.where(t > 1, np.clip((b - c) / a, 0, 1), s))
    t = np.clip(t, 0, 1)
    d = np.linalg.norm(p0 + s[:, None] * d1 - q0 - t[:, None] * d2, axis=1)
    reach = rad_a[seg_a[i, 0]] * (1 - s) + rad_a[seg_a[i, 1]] * s + rad_b[seg_b[j, 0]] * (1 - t) + rad_b[seg_b[j, 1]] * t
    hits = {(x, y): (s[k], t[k], d[k]) for k, (x, y) in enumerate(zip(i, j)) if d[k] <= reach[k]}
    return hits, {(x, y) for k, (x, y) in enumerate(zip(i, j)) if abs(d[k] - reach[k]) < TOL}


def check_records(res, pos, hits, unsure, symmetric=False):
    assert res.dtype == qg.curve_contact_dtype
    got = set()
    for r in res:
        s, t, key = r["parameter1"], r["parameter2"], (int(r["index1"]), int(r["index2"]))
        if symmetric and key[0] > key[1]:
            s, t, key = t, s, key[::-1]
        got.add(key)
        if key not in hits:
            assert key in unsure, key
            continue
        np.testing.assert_allclose([s, t, r["distance"]], hits[key], atol=TOL)
        np.testing.assert_allclose(np.linalg.norm(r["point1"] - r["point2"]), r["distance"], atol=TOL)
        assert r["index3"] == -1
    assert len(got) == len(res)  # each pair once
    assert set(hits) - unsure <= got


@pytest.mark.parametrize("seed, adjacency, include_adjacent", [(1, 1, False), (2, 3, False), (3, 3, True)])
@pytest.mark.parametrize("threads", [True, False])
def test_self_proximity_matches_brute_force(seed, adjacency, include_adjacent, threads):
    counts = [9, 1, 14, 6, 11, 0, 8]
    pos, rad = strands(seed, counts, step=0.4)
    curves = qg.Curves(counts)
    tree = qg.CurveTree(curves, pos, radii=rad)
    seg, cur, num = curves.segment_vertices, curves.segment_curves, curves.segment_numbers
    n = len(seg)
    keep = np.triu(np.ones((n, n), bool), 1)
    if not include_adjacent:
        same = cur[:, None] == cur[None, :]
        keep &= ~(same if adjacency == 1 else same & (np.abs(num[:, None] - num[None, :]) <= 2))
    hits, unsure = brute_pairs(pos, rad, seg, pos, rad, seg, keep)
    was = qg.multithreading()
    try:
        qg.set_multithreading(threads)
        res = tree.self_proximity(adjacency=adjacency, include_adjacent=include_adjacent)
    finally:
        qg.set_multithreading(was)
    check_records(res, pos, hits, unsure, symmetric=True)
    # The same records as the curve-curve walk of the tree against itself, on the kept pairs.
    both = {(int(r["index1"]), int(r["index2"])): r.tobytes() for r in tree.intersections(tree)}
    assert sum(keep[i, j] for i, j in both if i < j) == len(res)
    assert all(both[(int(r["index1"]), int(r["index2"]))] == r.tobytes() for r in res)


def test_curve_curve_and_refit_match_brute_force():
    ca, cb = qg.Curves([7, 7, 7, 7]), qg.Curves.single(25)
    pa, ra = strands(11, [7] * 4, step=0.4, rmax=0.2)
    pb, rb = strands(111, [24], step=0.3, rmax=0.2)
    pb -= pb.mean(0)
    ta, tb = qg.CurveTree(ca, pa, radii=ra), qg.CurveTree(cb, pb, radii=rb, offset=0.01)
    for step in range(2):
        keep = np.ones((ca.segment_count, cb.segment_count), bool)
        check_records(ta.intersections(tb), pa, *brute_pairs(pa, ra, ca.segment_vertices, pb, rb, cb.segment_vertices, keep))
        pa, ra = pa[::-1] * 0.5, ra * 2  # a different, denser arrangement, same topology
        ta.refit(pa, ra)
    np.testing.assert_array_equal(ta.positions, pa)
    np.testing.assert_array_equal(ta.radii, ra)


def test_mesh_crossings_match_brute_force():
    verts, faces = torus(16, 10)
    mesh_tree = qg.Tree(qg.Mesh(verts, faces))
    counts = [12, 5, 0, 9, 12]
    curves = qg.Curves(counts)
    pos, _ = strands(21, counts, step=0.3)
    tree = qg.CurveTree(curves, pos)
    seg = curves.segment_vertices
    o, d = pos[seg[:, 0]], pos[seg[:, 1]] - pos[seg[:, 0]]
    t, bary, margin = ray_triangle(o[:, None], d[:, None], *(verts[faces[:, k]][None] for k in range(3)), tmax=1.0)
    unsure = set(zip(*np.nonzero(np.abs(margin) < 1e-7)))
    res = tree.mesh_crossings(mesh_tree)
    got = {(int(r["index1"]), int(r["index2"])) for r in res}
    hits = set(zip(*np.nonzero(margin >= 0)))
    assert len(got) == len(res) and hits - unsure <= got <= hits | unsure
    for r in res:
        i, f = r["index1"], r["index2"]
        if (i, f) not in unsure:
            np.testing.assert_allclose([r["parameter1"], *r["barycentric"]], [t[i, f], *bary[i, f]], atol=1e-9)
            np.testing.assert_allclose(np.stack([r["point1"], r["point2"]]), [o[i] + t[i, f] * d[i]] * 2, atol=1e-9)
    # One row per strand: a crossing of that strand, or -1 when it crosses nothing.
    first = tree.first_mesh_crossings(mesh_tree)
    assert len(first) == len(counts)
    for k, r in enumerate(first):
        own = {key for key in got if curves.segment_curves[key[0]] == k}
        assert (r["index1"] >= 0) == bool(own) and (not own or (r["index1"], r["index2"]) in own)


def test_topology_of_the_constructors():
    c = qg.Curves.ranges([5, 2, 9], [1, 3, 0], [4, 3, 2])  # the middle curve is empty
    assert (c.curve_count, c.segment_count, c.vertex_count) == (3, 5, 7)
    np.testing.assert_array_equal(c.segment_vertices, [[0, 1], [1, 2], [2, 3], [4, 5], [5, 6]])
    np.testing.assert_array_equal(c.segment_curves, [0, 0, 0, 2, 2])
    np.testing.assert_array_equal(c.segment_numbers, [1, 2, 3, 0, 1])
    np.testing.assert_array_equal(c.logical_indices, [5, 2, 9])
    for empty in (qg.Curves([]), qg.Curves.single(1)):
        assert empty.segment_count == 0
        assert len(qg.CurveTree(empty, np.zeros((empty.vertex_count, 3))).self_proximity()) == 0

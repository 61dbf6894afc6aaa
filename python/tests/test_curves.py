"""Curves, their tree and queries through the bindings, on small strands with known contacts."""

import numpy as np
import pytest

import quarrygeom as qg

# Strand A along x in two segments; strand B across its second segment, 0.1 above it. Radii 0.06
# at the closest points of each, so the two touch there (0.1 <= 0.12).
A = np.array([[0, 0, 0], [1, 0, 0], [2, 0, 0]], float)
B = np.array([[1.5, -1, 0.1], [1.5, 1, 0.1]])
RA, RB = np.full(3, 0.06), np.array([0.04, 0.08])
# Two triangles in the planes x = 0.25 and x = 1.75: they cross A's segments at a quarter and
# three quarters, at barycentric (1/4, 1/4, 1/2).
WALLS = qg.Mesh(np.array([[x, y, z] for x in (0.25, 1.75) for y, z in [(-1, -1), (1, -1), (0, 1)]], float),
                [[0, 1, 2], [3, 4, 5]])


def expect_touch(r, a, b):
    """The record of A's segment a touching B's segment b, in either order."""
    ends, normal = [[1.5, 0, 0], [1.5, 0, 0.1]], [0, 0, -1]
    if r["index1"] != a:
        a, b, ends, normal = b, a, ends[::-1], [0, 0, 1]
    assert (r["index1"], r["index2"], r["index3"]) == (a, b, -1)
    np.testing.assert_allclose([r["parameter1"], r["parameter2"], r["distance"], r["radius1"], r["radius2"]],
                               [0.5, 0.5, 0.1, 0.06, 0.06], atol=1e-12)
    np.testing.assert_allclose([r["point1"], r["point2"], r["normal"]], ends + [normal], atol=1e-12)


@pytest.mark.parametrize("threads", [True, False])
def test_self_proximity_leaves_adjacent_pairs_out(threads):
    tree = qg.CurveTree(qg.Curves([2, 1]), np.vstack([A, B]), radii=np.concatenate([RA, RB]))
    was = qg.multithreading()
    try:
        qg.set_multithreading(threads)
        for adjacency in (1, 3):
            res = tree.self_proximity(adjacency=adjacency)
            assert res.dtype == qg.curve_contact_dtype and len(res) == 1
            expect_touch(res[0], 1, 2)
            both = tree.self_proximity(adjacency=adjacency, include_adjacent=True)
            assert sorted(tuple(sorted(p)) for p in both[["index1", "index2"]].tolist()) == [(0, 1), (1, 2)]
    finally:
        qg.set_multithreading(was)


def test_intersections_and_refit():
    ta, tb = qg.CurveTree(qg.Curves.single(3), A, radii=RA), qg.CurveTree(qg.Curves([1]), B, radii=RB)
    res = ta.intersections(tb)
    assert len(res) == 1
    expect_touch(res[0], 1, 0)
    tb.refit(B + [0, 0, 0.5])  # 0.6 apart: free
    assert len(ta.intersections(tb)) == 0
    tb.refit(B + [0, 0, 0.5], RB * 10)  # radii 0.6 at the closest point: touching again
    assert len(ta.intersections(tb)) == 1
    np.testing.assert_array_equal(tb.positions, B + [0, 0, 0.5])
    np.testing.assert_array_equal(tb.radii, RB * 10)
    assert qg.CurveTree(qg.Curves([1]), B).radii is None


def test_mesh_crossings_and_first_crossing_per_strand():
    tree = qg.CurveTree(qg.Curves([2, 1]), np.vstack([A, B]))
    for mask, expected in [(None, {(0, 0): 0.25, (1, 1): 0.75}), ([True, False], {(1, 1): 0.75})]:
        faces = qg.Tree(WALLS) if mask is None else qg.Tree(WALLS, disabled=qg.DisabledMask(WALLS, mask))
        res = tree.mesh_crossings(faces, include_disabled=mask is None)
        assert {(int(r["index1"]), int(r["index2"])): r["parameter1"] for r in res} == pytest.approx(expected)
        for r in res:
            point = [0.25 + 1.5 * r["index2"], 0, 0]
            np.testing.assert_allclose([r["point1"], r["point2"], r["normal"], r["barycentric"]],
                                       [point, point, [1, 0, 0], [0.25, 0.25, 0.5]], atol=1e-12)
            assert (r["index3"], r["distance"]) == (-1, 0)
        first = tree.first_mesh_crossings(faces, include_disabled=mask is None)
        assert len(first) == 2 and first[1]["index1"] == -1  # strand B crosses nothing
        assert (int(first[0]["index1"]), int(first[0]["index2"])) in expected


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

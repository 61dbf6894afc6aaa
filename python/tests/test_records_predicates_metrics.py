"""Collision records of small scenes with known answers, predicates, metrics."""

import numpy as np
import pytest

import quarrygeom as qg

# Two triangles: a horizontal one at z = 0 and a vertical one through it.
CROSSING_V = np.array([[0, 0, 0], [2, 0, 0], [0, 2, 0], [0.5, 0.5, -1], [0.5, 0.5, 1], [1.0, 0.0, 0.5]], float)
CROSSING_F = np.array([[0, 1, 2], [3, 5, 4]])


def test_static_self_intersection_and_metrics():
    tree, m = qg.Tree(qg.Mesh(CROSSING_V, CROSSING_F)), qg.Metrics()
    res = tree.self_intersections(metrics=m)
    assert len(res.pairs) == 1 and res.pairs.dtype == qg.intersection_pair_dtype
    pair = res.pairs[0]
    assert {pair["triangle1"], pair["triangle2"]} == {0, 1}
    pts = res.points[pair["first_point"]: pair["first_point"] + pair["point_count"]]
    assert len(pts) >= 1  # on the horizontal triangle's plane and on the vertical one's
    np.testing.assert_allclose(pts[:, 2], 0.0, atol=1e-12)
    n = np.cross(CROSSING_V[5] - CROSSING_V[3], CROSSING_V[4] - CROSSING_V[3])
    np.testing.assert_allclose((pts - CROSSING_V[3]) @ n, 0.0, atol=1e-12)
    tree.self_intersections(metrics=m)  # counters accumulate
    d = m.as_dict()
    assert d["broad_phase_candidates"] > 0 and d["broad_phase_candidates"] % 2 == 0
    assert d["narrow_phase_prune_rate"] == pytest.approx(
        100 * (1 - d["narrow_phase_successes"] / d["narrow_phase_candidates"]))
    text = str(m).splitlines()
    assert text[0] == "BVH Metrics" and len(text) == 17
    assert text[1] == "  Number of Broad-Phase Candidates Examined:    " + f"{d['broad_phase_candidates']:>16}"
    m2 = same = qg.Metrics()
    m2 += m
    assert m2 is same and m2 == m and qg.Metrics().as_dict()["edge_edge_prune_rate"] == 100.0


BOTTOM = np.array([[0, 0, 0], [1, 0, 0], [0, 1, 0]], float)


def top(gap):
    """A small triangle whose lowest vertex is gap above (0.25, 0.25) of the unit triangle BOTTOM."""
    return np.array([[0.25, 0.25, gap], [0.35, 0.25, gap + 0.3], [0.25, 0.35, gap + 0.3]])


@pytest.mark.parametrize("kind", ["proximity", "continuous", "continuous self"])
def test_vertex_face_contact_records(kind):
    bottom, upper = qg.Mesh(BOTTOM, [[0, 1, 2]]), qg.Mesh(top(0.01), [[0, 1, 2]])
    if kind == "proximity":
        rec = qg.Tree.thickened(upper, 0.05).proximity(qg.Tree.thickened(bottom, 0.05), 0.05, tests=qg.VERTEX_FACE_TESTS,
                                                       object_index1=1, object_index2=0)
        assert rec.dtype == qg.proximity_dtype
        far = qg.Tree.thickened(qg.Mesh(top(0.2), [[0, 1, 2]]), 0.05)
        assert len(far.proximity(qg.Tree.thickened(bottom, 0.05), 0.05)) == 0  # farther apart than the distance
    elif kind == "continuous":  # the vertex passes z = 0 at a third of the step
        tb = qg.Tree.swept(upper, top(0.01) - [0, 0, 0.03])
        rec = tb.continuous(qg.Tree.swept(bottom, BOTTOM), tests=qg.VERTEX_FACE_TESTS, object_index1=1, object_index2=0)
    else:  # both in one mesh: the face comes first, the vertex is vertex 3
        both = qg.Mesh(np.concatenate([BOTTOM, top(0.01)]), [[0, 1, 2], [3, 4, 5]])
        rec = qg.Tree.swept(both, np.concatenate([BOTTOM, top(0.01) - [0, 0, 0.03]])).continuous_self(metrics=qg.Metrics())
    assert len(rec) == 1
    r = rec[0]
    if kind == "continuous self":
        assert (r["triangle1"], r["triangle2"], r["type"], r["feature1"], r["feature2"]) == (0, 1, qg.FACE_VERTEX, 3, 0)
        np.testing.assert_array_equal(r["vertices"], [0, 1, 2, 3])
        np.testing.assert_allclose(r["barycentric1"], [0.5, 0.25, 0.25], atol=1e-12)
    else:
        assert (r["object1"], r["object2"], r["triangle1"], r["triangle2"]) == (1, 0, 0, 0)
        assert r["type"] == qg.VERTEX_FACE and list(r["vertices"]) == [0, 0, 1, 2]
        np.testing.assert_allclose(r["barycentric2"], [0.5, 0.25, 0.25], atol=1e-12)
    if kind == "proximity":
        np.testing.assert_allclose(r["distance"], 0.01, atol=1e-12)
    else:
        assert rec.dtype == qg.continuous_dtype
        np.testing.assert_allclose(rec["time"], 1 / 3, rtol=1e-9)
    np.testing.assert_allclose(r["point"][:2], [0.25, 0.25], atol=1e-12)
    np.testing.assert_allclose(abs(r["normal"][2]), 1.0, atol=1e-12)


def test_predicates_vectorise_with_the_determinant_sign():
    # Positive when det(a - d, b - d, c - d) > 0 (d below abc), likewise in 2-D; exactness near
    # degenerate inputs is the C++ tests' business.
    rng = np.random.default_rng(1)
    for dim, orient in [(2, qg.orient2d), (3, qg.orient3d)]:
        pts = [rng.random((100, dim)) for _ in range(dim + 1)]
        want = np.sign(np.linalg.det(np.stack([p - pts[-1] for p in pts[:-1]], 1)))
        np.testing.assert_array_equal(np.sign(orient(*pts)), want)
        assert np.sign(orient(*[p[0] for p in pts])) == want[0]  # one point set: a number

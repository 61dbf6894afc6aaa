#include <gtest/gtest.h>
#include <cfloat>
#include <algorithm>
#include <cmath>
#include <vector>
#include <quarrygeom/core/GmMatrix.h>
#include "mesh_test_util.h"

namespace {

using meshtest::V;

void expectNear(const V& a, const V& b, double tol, int index = -1) {
    EXPECT_LE(std::max({std::fabs(a.x - b.x), std::fabs(a.y - b.y), std::fabs(a.z - b.z)}), tol) << a << b << index;
}

V safeUnit(const V& v) { return v / std::max(v.length(), DBL_EPSILON); }

// Face and vertex quantities straight from the positions.
struct Reference {
    const GmTriangleMesh& m;
    V p(const GmTriangleFace& f, int k) const { return m.getVertex(f.vertices[(k % 3 + 3) % 3]); }
    V cross(int f) const { return (p(m.getFace(f), 1) - p(m.getFace(f), 0)).cross(p(m.getFace(f), 2) - p(m.getFace(f), 1)); }
    // Corners weighted by their angle; corners straight to double precision add nothing.
    V angleWeighted(int v) const {
        V s;
        for (int f = 0; f < m.getNumberFaces(); ++f) {
            const GmTriangleFace& fc = m.getFace(f);
            const int k = fc.vertexSlot(v);
            if (k < 0) continue;
            const double d = safeUnit(p(fc, k + 1) - p(fc, k)).dot(safeUnit(p(fc, k + 2) - p(fc, k)));
            if (std::fabs(d) < 0.9999999999999998) s += safeUnit(cross(f)) * std::acos(d);
        }
        return safeUnit(s);
    }
    V areaWeighted(int v) const {
        V s;
        for (int f = 0; f < m.getNumberFaces(); ++f) s += m.getFace(f).hasVertex(v) ? cross(f) : V();
        return safeUnit(s);
    }
};

class MeshGeometry : public ::testing::TestWithParam<std::string> {};

// Lazily computed values (serial) and caches filled at once (parallel for large meshes)
// against the references; both give the same bits.
TEST_P(MeshGeometry, NormalsAreasAndEdgesMatchTheReference) {
    const GmTriangleMesh lazy = meshtest::build(meshtest::soupNamed(GetParam())), filled(lazy);
    ScopedThreading(true), filled.fillCaches();
    const Reference ref{lazy};
    ScopedThreading serial(false);
    for (int f = 0; f < lazy.getNumberFaces(); ++f) {
        ASSERT_TRUE(filled.isFaceDataCached(f));
        const GmTriangleFace& fc = lazy.getFace(f);
        expectNear(lazy.getFaceNormal(f), safeUnit(ref.cross(f)), 1e-15, f);
        EXPECT_NEAR(lazy.getFaceArea(f), ref.cross(f).length() / 2, 1e-15 * (1 + lazy.getFaceArea(f)));
        expectNear(lazy.getFaceCenter(f), (ref.p(fc, 0) + ref.p(fc, 1) + ref.p(fc, 2)) / 3.0, 1e-14, f);
        EXPECT_TRUE(filled.getFaceNormal(f) == lazy.getFaceNormal(f) && filled.getFaceArea(f) == lazy.getFaceArea(f)) << f;
    }
    for (int e = 0; e < lazy.getNumberEdges(); ++e) {
        ASSERT_TRUE(filled.isUnitEdgeCached(e));
        const GmTriangleEdge& ed = lazy.getEdge(e);
        expectNear(lazy.getUnitEdge(e), safeUnit(lazy.getVertex(ed.to) - lazy.getVertex(ed.from)), 1e-15, e);
        EXPECT_EQ(filled.getUnitEdge(e), lazy.getUnitEdge(e));
        auto normal = [&ref](int f) { return f >= 0 ? safeUnit(ref.cross(f)) : V(); };  // the recorded faces', summed
        expectNear(lazy.getEdgeNormal(e), normal(ed.firstFace) + normal(ed.secondFace), 1e-15, e);
        const V b(0.25, 2.0, 9.0);  // interpolated normals are not normalised
        expectNear(lazy.getBarycentricEdgeNormal(e, b), ref.angleWeighted(ed.from) * b.x + ref.angleWeighted(ed.to) * b.y, 1e-12, e);
        const GmTriangleFace& fc = lazy.getFace(e % lazy.getNumberFaces());
        expectNear(lazy.getBarycentricFaceNormal(fc.index, b), ref.angleWeighted(fc.vertices[0]) * b.x +
                   ref.angleWeighted(fc.vertices[1]) * b.y + ref.angleWeighted(fc.vertices[2]) * b.z, 1e-12, e);
    }
    for (int v = 0; v < lazy.getNumberVertices(); ++v) {
        ASSERT_TRUE(filled.isVertexNormalCached(v));
        expectNear(lazy.getVertexNormal(v), ref.angleWeighted(v), 1e-12, v);
        EXPECT_TRUE(lazy.getVertexAngleWeightedNormal(v) == lazy.getVertexNormal(v) && filled.getVertexNormal(v) == lazy.getVertexNormal(v));
        expectNear(lazy.getVertexAreaWeightedNormal(v), ref.areaWeighted(v), 1e-12, v);
    }
}

INSTANTIATE_TEST_SUITE_P(Meshes, MeshGeometry, ::testing::ValuesIn(meshtest::tableNames()),
                         [](const auto& info) { return info.param; });

TEST(MeshOrientation, RightSideOutAtTheLeftmostVertex) {
    for (const char* name : {"tetrahedron", "cube", "icosphere", "torus", "spot", "grid", "folded"}) {
        SCOPED_TRACE(name);
        qgtools::PolygonSoup flipped = meshtest::soupNamed(name);
        flipped.flip();
        const GmTriangleMesh m = meshtest::build(meshtest::soupNamed(name)), reversed = meshtest::build(flipped);
        const bool open = !m.isClosed();
        int leftmost = -2, lowest = 0;
        for (int v = 0; v < m.getNumberVertices(); ++v)
            if (m.getVertex(v).x < m.getVertex(lowest).x) lowest = v;  // ties: the lowest index
        EXPECT_TRUE(m.isRightSideOut(&leftmost) && leftmost == (open ? 0 : lowest)) << leftmost;
        // Open meshes count as right side out whatever their orientation.
        EXPECT_TRUE(reversed.isRightSideOut(&leftmost) == open && leftmost == (open ? 0 : lowest)) << leftmost;
    }
    int vertex = -2;
    EXPECT_TRUE(meshtest::build(meshtest::soupOf({}, {})).isRightSideOut(&vertex) && vertex == -1);
}

TEST(MeshGeometry, FaceLocalCoordinatesRoundTrip) {
    GmTriangleMesh m = meshtest::build(meshtest::soupOf(
        {V(0.3, -1.0, 2.0), V(2.0, 0.5, 1.0), V(-0.5, 1.5, 0.0), V(0, 0, 0), V(1, 0, 0)}, {{0, 1, 2}, {3, 4, 4}}));
    const V p1 = m.getVertex(0), p2 = m.getVertex(1), p3 = m.getVertex(2), n = m.getFaceNormal(0);
    for (double h : {-2.0, 0.0, 0.75})
        for (double w1 : {-0.5, 0.2, 1.3})
            for (double w2 : {0.1, 0.6}) {
                const V world = p1 * w1 + p2 * w2 + p3 * (1 - w1 - w2) + n * h;
                expectNear(m.WorldToFace(0, world), V(h, w1, w2), 1e-12);
                expectNear(m.FaceToWorld(0, V(h, w1, w2)), world, 1e-12);
                EXPECT_NEAR(m.GetDistanceToPlaneOfFace(0, world), h, 1e-12);
                expectNear(m.ProjectOnPlaneOfFace(0, world), world - n * h, 1e-12);
                expectNear(m.getFacePoint(0, V(w1, w2, h)), p1 * w1 + p2 * w2 + p3 * h, 1e-14);
            }
    // A face of zero area: zero weights, never NaN.
    const V q = m.WorldToFace(1, V(100, -50, 7));
    EXPECT_TRUE(q.y == 0.0 && q.z == 0.0 && std::isfinite(q.x)) << q;
}

TEST(MeshGeometry, CachesFollowPositionChanges) {
    GmTriangleMesh m = qgtools::makeClothGrid(2, 2);
    EXPECT_TRUE(m.isFaceDataReset() && m.isVertexNormalsReset() && m.isUnitEdgesReset());
    EXPECT_EQ(m.getFaceNormal(0), V(0, 0, 1));
    EXPECT_TRUE(m.isFaceDataCached(0) && !m.isFaceDataCached(1) && !m.isFaceDataReset() && m.isUnitEdgesReset());
    (void)m.getUnitEdge(0);
    EXPECT_FALSE(m.isUnitEdgesReset());
    // Into the xz plane, swapped in: every cached value follows.
    std::vector<V> pos = m.getVertices(), start = pos;
    for (V& p : pos) p = V(p.x, 0.0, p.y);
    const std::vector<V> moved = pos;
    m.swapVertices(pos);
    EXPECT_TRUE(m.getVertices() == moved && pos == start && m.isFaceDataReset() && !m.isFaceDataCached(0) && !m.isUnitEdgeCached(0));
    for (int i = 0; i < m.getNumberVertices(); ++i)
        EXPECT_TRUE(m.getFaceNormal(i % m.getNumberFaces()) == V(0, -1, 0) && m.getVertexNormal(i) == V(0, -1, 0)) << i;
    // Writing through the mutable reference needs an explicit setDirty.
    m.getWritableVertices()[0] = V(0, 0.5, 0);
    EXPECT_EQ(m.getFaceNormal(0), V(0, -1, 0));
    m.setDirty();
    EXPECT_NE(m.getFaceNormal(0), V(0, -1, 0));
    m.setVertex(0, 0, 0, 0);
    EXPECT_EQ(m.getFaceNormal(0), V(0, -1, 0));
    m.setVertices(m.getVertices());  // its own vector: no copy, still marked dirty
    EXPECT_FALSE(m.isFaceDataCached(0));
    double* copied = m.copyVertices();
    m.copyVertices(pos);
    EXPECT_TRUE(std::equal(copied, copied + 3 * pos.size(), &pos[0].x) && pos == m.getVertices());
    delete[] copied;
    m.setDirty();
    m.setDirty();  // repeated: every slot stays missing
    EXPECT_FALSE(m.isVertexNormalCached(0));
}

// Every vertex moves along its normal from before any vertex moved; a zero offset keeps
// the positions and the caches.
TEST(MeshGeometry, NormalOffsetMovesAlongTheStartNormals) {
    GmTriangleMesh m = meshtest::build(meshtest::soupNamed("folded"));
    const std::size_t nv = static_cast<std::size_t>(m.getNumberVertices());
    std::vector<double> d(nv, 0.0);
    const std::vector<V> start = m.getVertices();
    m.fillCaches();
    m.addNormalOffset(d);
    m.addNormalOffset(0.0);
    EXPECT_TRUE(m.getVertices() == start && !m.isVertexNormalsReset() && m.isVertexNormalCached(0));
    for (std::size_t v = 0; v < nv; v += 3) d[v] = 0.1 * static_cast<double>(v % 7) - 0.3;
    for (int uniform = 0; uniform < 2; ++uniform) {
        const std::vector<V> p0 = m.getVertices();
        std::vector<V> n0;
        for (int v = 0; v < m.getNumberVertices(); ++v) n0.push_back(m.getVertexNormal(v));
        uniform ? m.addNormalOffset(0.25) : m.addNormalOffset(d);
        EXPECT_TRUE(m.isVertexNormalsReset());
        for (std::size_t v = 0; v < nv; ++v)
            expectNear(m.getVertex(static_cast<int>(v)), p0[v] + n0[v] * (uniform ? 0.25 : d[v]), 1e-15, static_cast<int>(v));
    }
}

// Half the second moment of the face about ref by the edge-midpoint rule (exact for
// quadratics), with the mesh's own area; below an area of 1e-8 the vertex average of d d^T.
TEST(MeshGeometry, CovarianceMatrix) {
    GmTriangleMesh m = meshtest::build(meshtest::soupOf({V(0.3, -1.0, 2.0), V(2.0, 0.5, 1.0), V(-0.5, 1.5, 0.0), V(1, 1, 1), V(2, 2, 2),
                                                         V(3, 3, 3.5), V(0, 0, 0), V(1e-5, 0, 0), V(0, 1e-4, 0)},
                                                        {{0, 1, 2}, {3, 4, 5}, {6, 7, 8}}));
    const V ref(0.1, 0.2, -0.3);
    std::vector<V> pos = m.getVertices();
    for (V& p : pos) p = p * 2.0;  // other positions: the area still comes from the mesh
    for (int f = 0; f < 3; ++f) {
        const GmTriangleFace& fc = m.getFace(f);
        V d[3];
        for (int k = 0; k < 3; ++k) d[k] = pos[static_cast<std::size_t>(fc.vertices[k])] - ref;
        const V mids[3] = {(d[0] + d[1]) * 0.5, (d[1] + d[2]) * 0.5, (d[2] + d[0]) * 0.5};
        const bool tiny = f == 2;  // area 5e-10
        const GmMatrix c = m.getCovarianceMatrix(f, pos, ref);
        for (int r = 0; r < 3; ++r)
            for (int s = 0; s < 3; ++s) {
                double expected = 0.0;
                for (int k = 0; k < 3; ++k)
                    expected += tiny ? d[k][r] * d[k][s] / 3.0 : 0.5 * m.getFaceArea(f) / 3.0 * mids[k][r] * mids[k][s];
                EXPECT_NEAR(c(r, s), expected, 1e-12 * (1.0 + std::fabs(expected))) << f << ' ' << r << s;
            }
    }
}

}  // namespace

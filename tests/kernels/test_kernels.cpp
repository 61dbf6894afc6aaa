// Per-pair contact kernels (bit order, records, metrics, roles), static triangle intersection,
// proximity primitives, segment distance, the feature-test set and the mesh vertex-radius test.

#include <gtest/gtest.h>

#include <cmath>
#include <memory>
#include <random>
#include <sstream>
#include <stdexcept>
#include <string>
#include <vector>

#include <qgtools/shapes.h>
#include <quarrygeom/core/GmBVHMetrics.h>
#include <quarrygeom/mesh/GmAdjacentOrphanSet.h>
#include <quarrygeom/mesh/GmMeshTests.h>
#include <quarrygeom/mesh/GmTriangleMesh.h>
#include <quarrygeom/primitives/GmContactKernels.h>
#include <quarrygeom/primitives/GmPredicates.h>
#include <quarrygeom/primitives/GmProximityCheck.h>
#include <quarrygeom/primitives/GmSegmentDistance.h>

namespace {

using Vec = GmTVector<double>;
using GmIntersection::ComponentTests;
constexpr double kNoBound = 1.7976931348623157e308;

class CerrCapture {
public:
    CerrCapture() : _old(std::cerr.rdbuf(_buf.rdbuf())) {}
    ~CerrCapture() { std::cerr.rdbuf(_old); }
    std::string text() const { return _buf.str(); }

private:
    std::ostringstream _buf;
    std::streambuf* _old;
};

// Mesh of two separate triangles: face 0 = (0,0,0) (1,0,0) (0,1,0) and face 1 = the given corners.
GmTriangleMesh twoTriangles(const Vec& p, const Vec& q, const Vec& r) {
    GmTriangleMesh m;
    const int a = m.addVertex(Vec(0, 0, 0)), b = m.addVertex(Vec(1, 0, 0)), c = m.addVertex(Vec(0, 1, 0));
    const int d = m.addVertex(p), e = m.addVertex(q), f = m.addVertex(r);
    m.addFace(a, b, c);
    m.addFace(d, e, f);
    m.finishConstruction();
    return m;
}

std::vector<Vec> translated(const GmTriangleMesh& m, const std::vector<int>& which, const Vec& d) {
    std::vector<Vec> end = m.getVertices();
    for (int v : which) end[std::size_t(v)] += d;
    return end;
}

}  // namespace

// ---- Feature-test set ----------------------------------------------------------------------------

TEST(ComponentTests, ConstantsAndBitPositions) {
    EXPECT_EQ(GmIntersection::kVertexFaceTests.to_ulong(), 0x7u);
    EXPECT_EQ(GmIntersection::kFaceVertexTests.to_ulong(), 0x38u);
    EXPECT_EQ(GmIntersection::kEdgeEdgeTests.to_ulong(), 0x7fc0u);
    EXPECT_EQ(GmIntersection::kAllTests.to_ulong(), 0x7fffu);
    EXPECT_EQ((GmIntersection::kVertexFaceTests | GmIntersection::kFaceVertexTests | GmIntersection::kEdgeEdgeTests),
              GmIntersection::kAllTests);
    EXPECT_EQ(ComponentTests::edgeEdgeBit(0, 0), 6u);
    EXPECT_EQ(ComponentTests::edgeEdgeBit(2, 2), 14u);
    EXPECT_EQ(ComponentTests::faceVertexBit(1), 4u);
    ComponentTests t;
    EXPECT_TRUE(t.none());
    t.set(14).set(0);
    EXPECT_TRUE(t.test(14));
    EXPECT_TRUE(t[0]);
    EXPECT_EQ(t.count(), 2u);
    t.reset(0);
    EXPECT_EQ(t.to_ulong(), 0x4000u);
    EXPECT_EQ(ComponentTests(0xffffu).to_ulong(), 0x7fffu);  // only fifteen bits
}

TEST(ComponentTests, PositionsOutOfRangeThrow) {
    ComponentTests t;
    for (unsigned pos : {15u, 16u, 1000u}) {
        try {
            t.test(pos);
            FAIL() << "no exception for " << pos;
        } catch (const std::out_of_range& e) {
            EXPECT_STREQ(e.what(), "invalid bitset position");
        }
        EXPECT_THROW(t.set(pos), std::out_of_range);
        EXPECT_THROW(t.reset(pos), std::out_of_range);
    }
}

// ---- Continuous-time kernels ----------------------------------------------------------------------

TEST(ContinuousKernels, VertexFaceBitOrderFeaturesAndMetrics) {
    // Face 1 falls through the middle of face 0.
    GmTriangleMesh m = twoTriangles(Vec(0.2, 0.2, 1), Vec(0.3, 0.2, 1), Vec(0.2, 0.3, 1));
    const std::vector<Vec> end = translated(m, {3, 4, 5}, Vec(0, 0, -2));
    std::vector<GmContinuousTimeIntersectionInfo> out;
    GmBVHMetrics metrics;
    ASSERT_TRUE(GmContactKernels::continuousSelf(m, end, 1, 0, GmIntersection::kAllTests, metrics, kNoBound, nullptr,
                                                 7, out));
    ASSERT_EQ(out.size(), 3u);
    for (int k = 0; k < 3; ++k) {
        const GmContinuousTimeIntersectionInfo& r = out[std::size_t(k)];
        EXPECT_EQ(r.type, GmInterferenceType::VERTEX_FACE);
        EXPECT_EQ(r.feature1, 3 + k);  // bit order: vertex 1, 2, 3 of the first face
        EXPECT_EQ(r.feature2, 0);
        EXPECT_EQ(r.triangleIndex1, 1);
        EXPECT_EQ(r.triangleIndex2, 0);
        EXPECT_EQ(r.objectIndex1, 7);
        EXPECT_EQ(r.objectIndex2, 7);
        EXPECT_NEAR(r.time, 0.5, 1e-12);
        EXPECT_EQ(r.pointType, GmGeometry::INSIDE);
        EXPECT_NEAR(r.normal.z, 1.0, 1e-12);  // from triangle 2 (face 0) towards triangle 1
        EXPECT_EQ(r.vertexIndices[0], 3 + k);
        EXPECT_EQ(r.vertexIndices[1], 0);
        EXPECT_EQ(r.vertexIndices[2], 1);
        EXPECT_EQ(r.vertexIndices[3], 2);
        EXPECT_FALSE(r.pinched0);
        EXPECT_FALSE(r.pinched1);
        const Vec& w = r.barycentric2;
        EXPECT_NEAR(w.x + w.y + w.z, 1.0, 1e-12);
        EXPECT_NEAR(r.point.x, w.y, 1e-12);  // face 0: point = w1 (1,0,0) + w2 (0,1,0)
    }
    EXPECT_EQ(metrics.vertexFaceCandidates(), 6u);
    EXPECT_EQ(metrics.vertexFaceSuccesses(), 3u);
    EXPECT_LE(metrics.vertexFaceTests(), 6u);
    EXPECT_GE(metrics.vertexFaceTests(), 3u);
    EXPECT_EQ(metrics.edgeEdgeCandidates(), 9u);
    EXPECT_EQ(metrics.edgeEdgeSuccesses(), 0u);
    EXPECT_EQ(metrics.broadPhaseCandidates(), 0u);
    EXPECT_EQ(metrics.narrowPhaseTests(), 0u);

    // The same pair the other way round: face-vertex records, normal towards triangle 1 (face 0).
    out.clear();
    ASSERT_TRUE(GmContactKernels::continuousSelf(m, end, 0, 1, GmIntersection::kAllTests, metrics, kNoBound, nullptr,
                                                 -1, out));
    ASSERT_EQ(out.size(), 3u);
    for (int k = 0; k < 3; ++k) {
        const GmContinuousTimeIntersectionInfo& r = out[std::size_t(k)];
        EXPECT_EQ(r.type, GmInterferenceType::FACE_VERTEX);
        EXPECT_EQ(r.feature1, 3 + k);
        EXPECT_EQ(r.feature2, 0);
        EXPECT_EQ(r.vertexIndices[3], 3 + k);
        EXPECT_EQ(r.vertexIndices[0], 0);
        EXPECT_NEAR(r.normal.z, -1.0, 1e-12);
    }
    // One bit only; an appending call keeps the earlier records.
    ASSERT_TRUE(GmContactKernels::continuousSelf(m, end, 1, 0, ComponentTests(0x2u), metrics, kNoBound, nullptr, -1,
                                                 out));
    ASSERT_EQ(out.size(), 4u);
    EXPECT_EQ(out[3].feature1, 4);
    // The search bound cuts contacts at or after it; an empty mask runs nothing.
    const std::size_t before = out.size();
    EXPECT_FALSE(GmContactKernels::continuousSelf(m, end, 1, 0, GmIntersection::kAllTests, metrics, 0.5, nullptr, -1,
                                                  out));
    EXPECT_FALSE(GmContactKernels::continuousSelf(m, end, 1, 0, ComponentTests(), metrics, kNoBound, nullptr, -1, out));
    EXPECT_EQ(out.size(), before);
}

TEST(ContinuousKernels, EdgeEdgeRecord) {
    // A vertical triangle whose lower edge (corner 1 -> corner 2) crosses face 0's first edge.
    GmTriangleMesh m = twoTriangles(Vec(0.5, -0.5, 1), Vec(0.5, 0.3, 1), Vec(0.5, 0, 2));
    const std::vector<Vec> end = translated(m, {3, 4, 5}, Vec(0, 0, -1.5));
    std::vector<GmContinuousTimeIntersectionInfo> out;
    GmBVHMetrics metrics;
    ASSERT_TRUE(GmContactKernels::continuousSelf(m, end, 1, 0, GmIntersection::kAllTests, metrics, kNoBound, nullptr,
                                                 -1, out));
    ASSERT_EQ(out.size(), 2u);
    // Bit order: the vertex-face test of corner 2 (bit 1) comes before the edge pair (bit 6).
    EXPECT_EQ(out[0].type, GmInterferenceType::VERTEX_FACE);
    EXPECT_EQ(out[0].feature1, 4);
    const GmContinuousTimeIntersectionInfo& r = out[1];
    EXPECT_EQ(r.type, GmInterferenceType::EDGE_EDGE);
    EXPECT_NEAR(r.time, 2.0 / 3.0, 1e-12);
    const int e1 = m.getFace(1).edges[0], e2 = m.getFace(0).edges[0];
    EXPECT_EQ(r.feature1, e1);
    EXPECT_EQ(r.feature2, e2);
    EXPECT_EQ(r.edgeIndices[0], e1);
    EXPECT_EQ(r.edgeIndices[1], e2);
    EXPECT_EQ(r.vertexIndices[0], 3);
    EXPECT_EQ(r.vertexIndices[1], 4);
    EXPECT_EQ(r.vertexIndices[2], 0);
    EXPECT_EQ(r.vertexIndices[3], 1);
    EXPECT_NEAR(r.point.x, 0.5, 1e-12);
    EXPECT_NEAR(r.point.y, 0.0, 1e-12);
    EXPECT_NEAR(r.barycentric1.x, 0.375, 1e-12);  // (0.5,-0.5) -> (0.5,0.3) reaches y = 0 at s = 0.625
    EXPECT_NEAR(r.barycentric1.y, 0.625, 1e-12);
    EXPECT_NEAR(r.barycentric2.x, 0.5, 1e-12);
    EXPECT_NEAR(r.barycentric2.y, 0.5, 1e-12);
    EXPECT_EQ(r.pointType, GmGeometry::ON_EDGE_1);
    EXPECT_NEAR(r.normal.z, 1.0, 1e-12);  // crossing edges: their directions' cross product, towards edge 1
    EXPECT_EQ(metrics.edgeEdgeCandidates(), 9u);
    EXPECT_EQ(metrics.edgeEdgeSuccesses(), 1u);
    EXPECT_EQ(metrics.vertexFaceSuccesses(), 1u);
    // Only the edge-edge set.
    out.clear();
    ASSERT_TRUE(GmContactKernels::continuousSelf(m, end, 1, 0, GmIntersection::kEdgeEdgeTests, metrics, kNoBound,
                                                 nullptr, -1, out));
    ASSERT_EQ(out.size(), 1u);
    EXPECT_EQ(out[0].type, GmInterferenceType::EDGE_EDGE);
}

TEST(ContinuousKernels, OrphanPairSkipsSharedFeatures) {
    // Faces (0,1,2) and (0,3,4) share vertex 0; vertex 3 falls through face 0.
    GmTriangleMesh m;
    m.addVertex(Vec(0, 0, 0));
    m.addVertex(Vec(1, 0, 0));
    m.addVertex(Vec(0, 1, 0));
    m.addVertex(Vec(0.3, 0.3, 1));
    m.addVertex(Vec(-1, -1, 1));
    m.addFace(0, 1, 2);
    m.addFace(0, 3, 4);
    m.finishConstruction();
    const std::vector<Vec> end = translated(m, {3}, Vec(0, 0, -1.25));
    std::vector<GmContinuousTimeIntersectionInfo> out;
    GmBVHMetrics metrics;
    ASSERT_TRUE(GmContactKernels::continuousOrphan(m, end, 1, 0, GmIntersection::kAllTests, metrics, kNoBound,
                                                   nullptr, 2, out));
    // Only vertex 3 against face 0: the shared vertex and the edges through it are skipped.
    ASSERT_EQ(out.size(), 1u);
    EXPECT_EQ(out[0].type, GmInterferenceType::VERTEX_FACE);
    EXPECT_EQ(out[0].feature1, 3);
    EXPECT_NEAR(out[0].time, 0.8, 1e-12);
    EXPECT_EQ(metrics.vertexFaceCandidates(), 6u);
    EXPECT_LE(metrics.vertexFaceTests(), 4u);  // the two tests of vertex 0 are not run
    EXPECT_EQ(metrics.edgeEdgeCandidates(), 9u);
    EXPECT_LE(metrics.edgeEdgeTests(), 5u);  // the four pairs of edges through vertex 0 are not run
}

TEST(ContinuousKernels, ContactOnACommonFaceTakesTheMeshNormal) {
    // Face g = (0,1,2) joins vertex 0 (of face f1 = (0,4,5)) and edge 1-2 (of face f2 = (2,1,3)).
    // Vertex 0 falls onto that edge: the contact's elements lie on g, so the normal is the mesh's
    // normal of edge 1-2 (faces g and f2) instead of f2's face normal.
    GmTriangleMesh m;
    m.addVertex(Vec(1, 0.5, 1));
    m.addVertex(Vec(1, 0, 0));
    m.addVertex(Vec(1, 1, 0));
    m.addVertex(Vec(2, 0.5, 0));
    m.addVertex(Vec(0, 0, 5));
    m.addVertex(Vec(0, 1, 5));
    const int g = m.addFace(0, 1, 2);
    const int f2 = m.addFace(2, 1, 3);
    const int f1 = m.addFace(0, 4, 5);
    m.finishConstruction();
    (void)g;
    const std::vector<Vec> end = translated(m, {0}, Vec(0, 0, -2));
    std::vector<GmContinuousTimeIntersectionInfo> out;
    GmBVHMetrics metrics;
    ASSERT_TRUE(GmContactKernels::continuousSelf(m, end, f1, f2, ComponentTests(0x1u), metrics, kNoBound, nullptr, -1,
                                                 out));
    ASSERT_EQ(out.size(), 1u);
    EXPECT_EQ(out[0].pointType, GmGeometry::ON_EDGE_1);
    EXPECT_EQ(out[0].edgeIndices[1], m.getFace(f2).edges[0]);
    const double h = std::sqrt(0.5);
    EXPECT_NEAR(out[0].normal.x, h, 1e-12);
    EXPECT_NEAR(out[0].normal.y, 0.0, 1e-12);
    EXPECT_NEAR(out[0].normal.z, h, 1e-12);
    // Between two meshes there is no common face: the face's own normal.
    out.clear();
    ASSERT_TRUE(GmContactKernels::continuousMesh(m, end, m, end, f1, f2, ComponentTests(0x1u), metrics, kNoBound,
                                                 nullptr, nullptr, 0, 1, out));
    ASSERT_EQ(out.size(), 1u);
    EXPECT_NEAR(out[0].normal.z, 1.0, 1e-12);
}

TEST(ContinuousKernels, TwoMeshPairCarriesObjectIndices) {
    GmTriangleMesh a = twoTriangles(Vec(5, 5, 5), Vec(6, 5, 5), Vec(5, 6, 5));
    GmTriangleMesh b;
    b.addVertex(Vec(0.25, 0.25, 1));
    b.addVertex(Vec(3, 3, 1));
    b.addVertex(Vec(3, 4, 1));
    b.addFace(0, 1, 2);
    b.finishConstruction();
    const std::vector<Vec> endA = a.getVertices();
    const std::vector<Vec> endB = translated(b, {0, 1, 2}, Vec(0, 0, -2));
    std::vector<GmContinuousTimeIntersectionInfo> out;
    GmBVHMetrics metrics;
    ASSERT_TRUE(GmContactKernels::continuousMesh(a, endA, b, endB, 0, 0, GmIntersection::kFaceVertexTests, metrics,
                                                 kNoBound, nullptr, nullptr, 3, 9, out));
    ASSERT_EQ(out.size(), 1u);
    EXPECT_EQ(out[0].type, GmInterferenceType::FACE_VERTEX);
    EXPECT_EQ(out[0].objectIndex1, 3);
    EXPECT_EQ(out[0].objectIndex2, 9);
    EXPECT_EQ(out[0].triangleIndex1, 0);
    EXPECT_EQ(out[0].triangleIndex2, 0);
    EXPECT_EQ(out[0].feature1, 0);  // vertex 0 of mesh b
    EXPECT_EQ(out[0].vertexIndices[3], 0);
    EXPECT_NEAR(out[0].normal.z, -1.0, 1e-12);  // from triangle 2 (above at the start) towards triangle 1
    // The full set adds the two edges of b that sweep through face 0's long edge.
    out.clear();
    ASSERT_TRUE(GmContactKernels::continuousMesh(a, endA, b, endB, 0, 0, GmIntersection::kAllTests, metrics, kNoBound,
                                                 nullptr, nullptr, 3, 9, out));
    ASSERT_EQ(out.size(), 3u);
    EXPECT_EQ(out[1].type, GmInterferenceType::EDGE_EDGE);
    EXPECT_EQ(out[2].type, GmInterferenceType::EDGE_EDGE);
    EXPECT_EQ(out[1].feature1, a.getFace(0).edges[1]);
}

// ---- Proximity ------------------------------------------------------------------------------------

TEST(ProximityKernels, VertexFaceAndEdgeEdgeWithinDistance) {
    GmTriangleMesh m = twoTriangles(Vec(0.2, 0.2, 0.05), Vec(0.3, 0.2, 0.05), Vec(0.2, 0.3, 0.05));
    std::vector<GmProximityCheckInfo> out;
    GmBVHMetrics metrics;
    EXPECT_FALSE(GmContactKernels::proximitySelf(m, 1, 0, 0.01, GmIntersection::kAllTests, metrics, nullptr, 0, out));
    ASSERT_TRUE(GmContactKernels::proximitySelf(m, 1, 0, 0.1, GmIntersection::kAllTests, metrics, nullptr, 0, out));
    ASSERT_EQ(out.size(), 3u);
    for (const GmProximityCheckInfo& r : out) {
        EXPECT_EQ(r.type, GmInterferenceType::VERTEX_FACE);
        EXPECT_NEAR(r.distance, 0.05, 1e-12);
        EXPECT_NEAR(r.falloff, 0.5, 1e-12);
        EXPECT_NEAR(r.normal.z, 1.0, 1e-12);
        EXPECT_FALSE(r.pinched);
    }
    // Two-mesh proximity of an edge hovering over another edge.
    GmTriangleMesh b;
    b.addVertex(Vec(0.5, -1, 0.02));
    b.addVertex(Vec(0.5, -0.5, 0.02));
    b.addVertex(Vec(0.5, -0.75, 1));
    b.addFace(0, 1, 2);
    b.finishConstruction();
    out.clear();
    EXPECT_FALSE(GmContactKernels::proximityMesh(m, b, 0, 0, 0.4, GmIntersection::kEdgeEdgeTests, metrics, nullptr, 1,
                                                 2, out));
    ASSERT_TRUE(GmContactKernels::proximityMesh(m, b, 0, 0, 0.6, GmIntersection::kEdgeEdgeTests, metrics, nullptr, 1,
                                                2, out));
    ASSERT_FALSE(out.empty());
    EXPECT_EQ(out[0].type, GmInterferenceType::EDGE_EDGE);
    EXPECT_NEAR(out[0].distance, std::sqrt(0.5 * 0.5 + 0.02 * 0.02), 1e-12);
    EXPECT_EQ(out[0].objectIndex1, 1);
    EXPECT_EQ(out[0].objectIndex2, 2);
}

TEST(ProximityPrimitives, FallbackNormalAndMessages) {
    Vec n, q;
    double wa, wb, wc, d = 0.1;
    // A point on the face: the face's normal.
    ASSERT_TRUE(GmProximityCheck::pointFaceProximity(Vec(0.25, 0.25, 0), Vec(0, 0, 0), Vec(1, 0, 0), Vec(0, 1, 0), d, n,
                                                     q, wa, wb, wc));
    EXPECT_EQ(d, 0.0);
    EXPECT_NEAR(std::fabs(n.z), 1.0, 1e-15);
    EXPECT_NEAR(wa, 0.5, 1e-15);
    // A point on a zero-area face: the message, no contact.
    {
        CerrCapture cap;
        d = 0.1;
        EXPECT_FALSE(GmProximityCheck::pointFaceProximity(Vec(0.5, 0, 0), Vec(0, 0, 0), Vec(1, 0, 0), Vec(2, 0, 0), d, n,
                                                          q, wa, wb, wc));
        EXPECT_EQ(cap.text(), "Error in GmProximityCheck::pointFaceProximity() ... Unable to compute proximity normal.\n");
    }
    // Crossing segments: the cross product; overlapping collinear segments: the message.
    double s, t;
    d = 0.1;
    ASSERT_TRUE(GmProximityCheck::edgeEdgeProximity(Vec(-1, 0, 0), Vec(1, 0, 0), Vec(0, -1, 0), Vec(0, 1, 0), d, n, s, t));
    EXPECT_NEAR(std::fabs(n.z), 1.0, 1e-15);
    EXPECT_NEAR(s, 0.5, 1e-15);
    {
        CerrCapture cap;
        d = 0.1;
        EXPECT_FALSE(GmProximityCheck::edgeEdgeProximity(Vec(0, 0, 0), Vec(2, 0, 0), Vec(1, 0, 0), Vec(3, 0, 0), d, n, s, t));
        EXPECT_EQ(cap.text(), "Error in GmProximityCheck::edgeEdgeProximity() ... Unable to compute proximity normal.\n");
    }
}

// ---- Static triangle intersection ----------------------------------------------------------------

TEST(StaticKernels, IntersectionPoints) {
    std::vector<Vec> pts;
    // A vertical triangle piercing face (0,0,0) (1,0,0) (0,1,0) along x = 0.25, y from 0 to 0.5.
    ASSERT_TRUE(GmContactKernels::triangleTriangleIntersection(Vec(0, 0, 0), Vec(1, 0, 0), Vec(0, 1, 0),
                                                               Vec(0.25, -1, -1), Vec(0.25, 0.5, 1), Vec(0.25, 2, -1),
                                                               pts));
    ASSERT_EQ(pts.size(), 2u);
    for (const Vec& p : pts) {
        EXPECT_EQ(p.z, 0.0);
        EXPECT_NEAR(p.x, 0.25, 1e-15);
    }
    // Apart, touching at one vertex, coplanar overlapping.
    EXPECT_FALSE(GmContactKernels::triangleTriangleIntersection(Vec(0, 0, 0), Vec(1, 0, 0), Vec(0, 1, 0),
                                                                Vec(0, 0, 1), Vec(1, 0, 1), Vec(0, 1, 1), pts));
    EXPECT_TRUE(pts.empty());
    ASSERT_TRUE(GmContactKernels::triangleTriangleIntersection(Vec(0, 0, 0), Vec(1, 0, 0), Vec(0, 1, 0),
                                                               Vec(1, 0, 0), Vec(2, 0, 1), Vec(2, 1, -1), pts));
    ASSERT_EQ(pts.size(), 1u);
    EXPECT_EQ(pts[0], Vec(1, 0, 0));
    ASSERT_TRUE(GmContactKernels::triangleTriangleIntersection(Vec(0, 0, 0), Vec(2, 0, 0), Vec(0, 2, 0),
                                                               Vec(1, -1, 0), Vec(1, 1, 0), Vec(-1, 1, 0), pts));
    EXPECT_GE(pts.size(), 4u);  // corners of the overlap polygon
    // A shift far below one rounding unit still separates: the decision is exact.
    EXPECT_FALSE(GmContactKernels::triangleTriangleIntersection(Vec(0, 0, 0), Vec(1, 0, 0), Vec(0, 1, 0),
                                                                Vec(1, 0, 1e-300), Vec(2, 0, 1), Vec(2, 1, 1), pts));
}

TEST(StaticKernels, RandomPairsAgreeWithFloatingReferenceAwayFromTies) {
    std::mt19937 rng(99);
    std::uniform_real_distribution<double> u(-1, 1);
    int agreed = 0;
    for (int trial = 0; trial < 3000; ++trial) {
        Vec a[3], b[3];
        for (int k = 0; k < 3; ++k) {
            a[k] = Vec(u(rng), u(rng), u(rng));
            b[k] = Vec(u(rng), u(rng), u(rng)) * 0.7;
        }
        std::vector<Vec> pts;
        const bool hit = GmContactKernels::triangleTriangleIntersection(a[0], a[1], a[2], b[0], b[1], b[2], pts);
        // Reference: some edge of one triangle crosses the other's plane inside it (margin 1e-6).
        bool ref = false, tie = false;
        for (int side = 0; side < 2; ++side) {
            const Vec* p = side ? b : a;
            const Vec* t = side ? a : b;
            const Vec n = (t[1] - t[0]).cross(t[2] - t[0]);
            for (int k = 0; k < 3; ++k) {
                const double h0 = n.dot(p[k] - t[0]), h1 = n.dot(p[(k + 1) % 3] - t[0]);
                if (h0 * h1 > 0) continue;
                const Vec x = p[k] + (p[(k + 1) % 3] - p[k]) * (h0 / (h0 - h1));
                const double w0 = n.dot((t[1] - x).cross(t[2] - x)) / n.lengthSquared();
                const double w1 = n.dot((t[2] - x).cross(t[0] - x)) / n.lengthSquared();
                const double w2 = 1 - w0 - w1;
                const double mn = std::min({w0, w1, w2});
                if (mn > 1e-6) ref = true;
                if (std::fabs(mn) <= 1e-6) tie = true;
            }
        }
        if (tie) continue;
        ++agreed;
        EXPECT_EQ(hit, ref) << "trial " << trial;
        for (const Vec& p : pts) {
            Vec w;
            EXPECT_LE(GmSegmentDistance::pointTriangleDistanceSquared(p, a[0], a[1], a[2], w), 1e-20);
            EXPECT_LE(GmSegmentDistance::pointTriangleDistanceSquared(p, b[0], b[1], b[2], w), 1e-20);
        }
    }
    EXPECT_GT(agreed, 2500);
}

// A vertex of one triangle exactly on, or a few units of its last bit off, the other's tilted
// plane, far from the origin: floating-point plane distances are pure rounding noise there,
// so only exact sign decisions give the answer of the exact orientation predicate.
TEST(StaticKernels, PlaneDecisionsAtTheRoundingLimitAreExact) {
    std::mt19937 rng(7);
    // Coordinates are multiples of 2^-10 below 2^22: sums of four stay exact.
    std::uniform_int_distribution<long long> grid(-(1LL << 31), 1LL << 31);
    auto coordinate = [&] { return std::ldexp(static_cast<double>(grid(rng)), -10) + 3.0e6; };
    int touching = 0, apart = 0, across = 0;
    for (int trial = 0; trial < 4000; ++trial) {
        Vec b[3];
        for (Vec& v : b) v = Vec(coordinate(), coordinate(), coordinate());
        // p = b0/2 + b1/4 + b2/4 lies exactly on b's plane, well inside b; nudged by k * 2^-30.
        Vec p = (b[0] * 2.0 + b[1] + b[2]) * 0.25;
        const int k = static_cast<int>(trial % 7) - 3;
        p[trial % 3] += std::ldexp(static_cast<double>(k), -30);
        const double pSide = GmPredicates::orient3d(&b[0].x, &b[1].x, &b[2].x, &p.x);
        // The other two corners well off the plane on one side.
        const Vec n = (b[1] - b[0]).cross(b[2] - b[0]);
        const double sign = (trial / 7) % 2 ? 1.0 : -1.0;
        const Vec off = n / n.length() * (sign * 1000.0);
        const Vec q = p + off + Vec(1000, 0, 0), r = p + off + Vec(0, 1000, 0);
        const double qSide = GmPredicates::orient3d(&b[0].x, &b[1].x, &b[2].x, &q.x);
        const double rSide = GmPredicates::orient3d(&b[0].x, &b[1].x, &b[2].x, &r.x);
        ASSERT_TRUE(qSide != 0 && (qSide > 0) == (rSide > 0));
        // On the plane or across it, p's edges meet b right at p, inside b.
        const bool expected = pSide == 0 || (pSide > 0) != (qSide > 0);
        std::vector<Vec> pts;
        EXPECT_EQ(GmContactKernels::triangleTriangleIntersection(p, q, r, b[0], b[1], b[2], pts), expected)
            << "trial " << trial << " side " << pSide;
        EXPECT_EQ(GmContactKernels::triangleTriangleIntersection(b[0], b[1], b[2], r, p, q, pts), expected)
            << "trial " << trial << " side " << pSide;
        if (pSide == 0)
            ++touching;
        else if (expected)
            ++across;
        else
            ++apart;
    }
    // All three outcomes occur often.
    EXPECT_GT(touching, 300);
    EXPECT_GT(across, 300);
    EXPECT_GT(apart, 300);
}

TEST(StaticKernels, MeshPairRecord) {
    GmTriangleMesh m = twoTriangles(Vec(0.25, -1, -1), Vec(0.25, 0.5, 1), Vec(0.25, 2, -1));
    std::vector<GmIntersectionInfo> out;
    GmBVHMetrics metrics;
    ASSERT_TRUE(GmContactKernels::staticSelf(m, 1, 0, metrics, out));
    ASSERT_EQ(out.size(), 1u);
    EXPECT_EQ(out[0].triangleIndex1, 1);
    EXPECT_EQ(out[0].triangleIndex2, 0);
    EXPECT_EQ(out[0].points.size(), 2u);
}

// ---- Segment distance --------------------------------------------------------------------------------

TEST(SegmentDistance, MatchesDenseSampling) {
    std::mt19937 rng(5);
    std::uniform_real_distribution<double> u(-1, 1);
    for (int trial = 0; trial < 300; ++trial) {
        Vec p0(u(rng), u(rng), u(rng)), p1(u(rng), u(rng), u(rng)), q0(u(rng), u(rng), u(rng)), q1(u(rng), u(rng), u(rng));
        if (trial % 4 == 0) q1 = q0 + (p1 - p0) * 0.5;  // parallel
        double s, t;
        const double d2 = GmSegmentDistance::segmentSegmentDistanceSquared(p0, p1, q0, q1, s, t);
        EXPECT_NEAR(((p0 + (p1 - p0) * s) - (q0 + (q1 - q0) * t)).lengthSquared(), d2, 1e-12);
        double best = 1e300;
        for (int i = 0; i <= 200; ++i)
            for (int j = 0; j <= 200; ++j)
                best = std::min(best, ((p0 + (p1 - p0) * (i / 200.0)) - (q0 + (q1 - q0) * (j / 200.0))).length());
        EXPECT_LE(std::sqrt(d2), best + 1e-12);
        EXPECT_GE(std::sqrt(d2), best - 0.02);
    }
}

TEST(SegmentDistance, ExactIntersectionFlag) {
    using GmSegmentDistance::segmentSegment;
    EXPECT_TRUE(segmentSegment(Vec(-1, 0, 0), Vec(1, 0, 0), Vec(0, -1, 0), Vec(0, 1, 0)).intersect);
    EXPECT_FALSE(segmentSegment(Vec(-1, 0, 0), Vec(1, 0, 0), Vec(0, -1, 1e-300), Vec(0, 1, 1e-300)).intersect);
    EXPECT_TRUE(segmentSegment(Vec(0, 0, 0), Vec(1, 1, 1), Vec(1, 1, 1), Vec(2, 0, 5)).intersect);  // shared end
    EXPECT_TRUE(segmentSegment(Vec(0, 0, 0), Vec(2, 2, 2), Vec(1, 1, 1), Vec(3, 3, 3)).intersect);  // collinear overlap
    EXPECT_FALSE(segmentSegment(Vec(0, 0, 0), Vec(1, 1, 1), Vec(2, 2, 2), Vec(3, 3, 3)).intersect);  // collinear apart
    EXPECT_FALSE(segmentSegment(Vec(0, 0, 0), Vec(1, 0, 0), Vec(0, 1, 0), Vec(1, 1, 0)).intersect);  // parallel
    EXPECT_TRUE(segmentSegment(Vec(0.5, 0, 0), Vec(0.5, 0, 0), Vec(0, 0, 0), Vec(1, 0, 0)).intersect);  // point on seg
    const GmSegmentDistance::SegmentSegmentResult r =
        segmentSegment(Vec(-1, 0, 0), Vec(1, 0, 0), Vec(0, -1, 0), Vec(0, 1, 0));
    EXPECT_EQ(r.distanceSquared, 0.0);
    EXPECT_NEAR(r.s, 0.5, 1e-15);
}

// ---- Orphan entries and classification ------------------------------------------------------------

TEST(OrphanEntries, EachEntryGivesTheBitOfItsOneTest) {
    const GmTriangleMesh tet = qgtools::makeTetrahedron();
    const GmAdjacentOrphanSet* set = tet.getOrphanSet();
    ASSERT_NE(set, nullptr);
    ASSERT_GT(set->getNumberTests(), 0);
    for (const GmOrphanTest& t : *set) {
        const ComponentTests ct = GmContactKernels::orphanComponentTests(tet, t);
        ASSERT_EQ(ct.count(), 1u);
        const GmTriangleFace& f1 = tet.getFace(t.firstFace);
        const GmTriangleFace& f2 = tet.getFace(t.secondFace);
        if (t.isVertexFaceTest()) {
            const int k = t.firstFeatureSlot();
            EXPECT_EQ(ct.to_ulong(), 1u << k);
            EXPECT_EQ(f1.vertices[k], t.firstFeature);
        } else {
            int bit = -1;
            for (unsigned b = 6; b < 15; ++b)
                if (ct.test(b)) bit = int(b);
            ASSERT_GE(bit, 6);
            EXPECT_EQ(f1.edges[(bit - 6) / 3], t.firstFeature);
            EXPECT_EQ(f2.edges[(bit - 6) % 3], t.secondFeature);
        }
    }
}

TEST(OrphanEntries, BarycentricClassification) {
    using GmContactKernels::classifyBarycentric;
    EXPECT_EQ(classifyBarycentric(Vec(0.2, 0.3, 0.5)), GmGeometry::INSIDE);
    EXPECT_EQ(classifyBarycentric(Vec(1, 0, 0)), GmGeometry::ON_VERTEX_1);
    EXPECT_EQ(classifyBarycentric(Vec(1e-15, 1, 1e-15)), GmGeometry::ON_VERTEX_2);
    EXPECT_EQ(classifyBarycentric(Vec(0.5, 0.5, 0)), GmGeometry::ON_EDGE_1);
    EXPECT_EQ(classifyBarycentric(Vec(0, 0.5, 0.5)), GmGeometry::ON_EDGE_2);
    EXPECT_EQ(classifyBarycentric(Vec(0.5, 1e-14, 0.5)), GmGeometry::ON_EDGE_3);
    EXPECT_EQ(classifyBarycentric(Vec(0.5, 1e-13, 0.5)), GmGeometry::INSIDE);
}

// ---- Vertex-radius mesh test ------------------------------------------------------------------------

TEST(MeshTests, VertexRadiusSettings) {
    GmIntersection::MeshTests t;
    EXPECT_FALSE(t.hasAnyTests());
    auto pos = std::make_shared<std::vector<Vec>>(4, Vec());
    const float weights[4] = {1.0f, 2.0f, 3.0f, 4.0f};
    t.setVertexRadiusTest(pos, 0.5, weights);
    EXPECT_TRUE(t.doVertexRadiusTest());
    EXPECT_FLOAT_EQ(t.getVertexRadius(1), 1.0f);
    EXPECT_FLOAT_EQ(t.getVertexRadius(3), 2.0f);
    GmIntersection::MeshTests copy = t;  // shares the vectors
    EXPECT_EQ(copy.getVertexRadiusRefPos().get(), pos.get());
    t.setVertexRadiusTest(pos, -1.0);
    EXPECT_FALSE(t.hasAnyTests());
    EXPECT_FALSE(t.getVertexRadiusRefPos());
    t.setVertexRadiusTest(pos, 0.0);
    EXPECT_TRUE(t.doVertexRadiusTest());
    EXPECT_EQ(t.getVertexRadius(2), 0.0f);
    t.clearVertexRadiusTest();
    EXPECT_FALSE(t.hasAnyTests());
    t.setVertexRadiusTest(nullptr, 1.0);
    EXPECT_FALSE(t.hasAnyTests());
}

TEST(MeshTests, VertexRadiusPairTest) {
    auto pos = std::make_shared<std::vector<Vec>>(std::vector<Vec>{
        {0, 0, 0}, {1, 0, 0}, {0, 1, 0},              // triangle 0
        {0.2, 0.2, 0.3}, {0.4, 0.2, 0.3}, {0.2, 0.4, 0.3},  // 0.3 above
        {0.2, 0.2, 0}, {0.4, 0.2, 0}, {0.2, 0.4, 0},        // touching (coplanar, inside)
        {0.25, -1, -1}, {0.25, 0.5, 1}, {0.25, 2, -1}});     // piercing
    const int t0[3] = {0, 1, 2}, above[3] = {3, 4, 5}, touching[3] = {6, 7, 8}, piercing[3] = {9, 10, 11};
    GmIntersection::MeshTests t;
    EXPECT_TRUE(t.vertexRadiusTest(t0, above));  // test off: everything passes
    t.setVertexRadiusTest(pos, 0.25);
    EXPECT_FALSE(t.vertexRadiusTest(t0, above));
    t.setVertexRadiusTest(pos, 0.35);
    EXPECT_TRUE(t.vertexRadiusTest(t0, above));
    t.setVertexRadiusTest(pos, 0.0);
    EXPECT_FALSE(t.vertexRadiusTest(t0, above));
    EXPECT_TRUE(t.vertexRadiusTest(t0, touching));
    EXPECT_TRUE(t.vertexRadiusTest(t0, piercing));
    // Released reference positions: the pair is not filtered.
    std::weak_ptr<std::vector<Vec>> weak = pos;
    pos.reset();
    EXPECT_TRUE(weak.expired());
    EXPECT_TRUE(t.vertexRadiusTest(t0, above));
}

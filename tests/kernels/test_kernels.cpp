// Per-pair contact kernels (bit order, records, metrics, roles), static triangle intersection,
// proximity primitives, segment distance and the curve segment kernel, the feature-test set and
// the vertex-radius test.

#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <cfloat>
#include <cmath>
#include <iostream>
#include <initializer_list>
#include <limits>
#include <memory>
#include <random>
#include <sstream>
#include <stdexcept>
#include <string>
#include <utility>
#include <vector>

#include <qgtools/shapes.h>
#include <quarrygeom/quarrygeom.h>

#include "exact_reference.h"

namespace {

using Vec = GmTVector<double>;
constexpr double kNoBound = DBL_MAX;

// Captures std::cerr for its lifetime.
struct CerrCapture {
    std::ostringstream buf;
    std::streambuf* old = std::cerr.rdbuf(buf.rdbuf());
    ~CerrCapture() { std::cerr.rdbuf(old); }
};

using GmIntersection::ComponentTests;
using Records = std::vector<GmContinuousTimeIntersectionInfo>;

GmTriangleMesh makeMesh(std::initializer_list<Vec> vertices, std::initializer_list<std::array<int, 3>> faces) {
    GmTriangleMesh m;
    for (const Vec& v : vertices) m.addVertex(v);
    for (const auto& f : faces) m.addFace(f[0], f[1], f[2]);
    m.finishConstruction();
    return m;
}

// Face 0 = (0,0,0) (1,0,0) (0,1,0) and face 1 = p, q, r.
GmTriangleMesh twoTriangles(const Vec& p, const Vec& q, const Vec& r) {
    return makeMesh({{0, 0, 0}, {1, 0, 0}, {0, 1, 0}, p, q, r}, {{0, 1, 2}, {3, 4, 5}});
}

TEST(ComponentTests, BitPositionsAndRange) {
    EXPECT_EQ(GmIntersection::kVertexFaceTests.to_ulong(), 0x7u);
    EXPECT_EQ(GmIntersection::kFaceVertexTests.to_ulong(), 0x38u);
    EXPECT_EQ(GmIntersection::kEdgeEdgeTests.to_ulong(), 0x7fc0u);
    EXPECT_EQ(GmIntersection::kAllTests.to_ulong(), 0x7fffu);
    EXPECT_EQ(ComponentTests::edgeEdgeBit(0, 0), 6u);
    EXPECT_EQ(ComponentTests::edgeEdgeBit(2, 2), 14u);
    EXPECT_EQ(ComponentTests::faceVertexBit(1), 4u);
    ComponentTests t;
    t.set(14).set(0);
    EXPECT_TRUE(t.test(14) && t[0] && t.count() == 2u);
    EXPECT_EQ(t.reset(0).to_ulong(), 0x4000u);
    EXPECT_EQ(ComponentTests(0xffffu).to_ulong(), 0x7fffu);  // fifteen bits only
    try {
        t.test(15);
    } catch (const std::out_of_range& e) {
        EXPECT_STREQ(e.what(), "invalid bitset position");
    }
    for (unsigned pos : {15u, 1000u}) {
        EXPECT_THROW(t.test(pos), std::out_of_range);
        EXPECT_THROW(t.set(pos), std::out_of_range);
        EXPECT_THROW(t.reset(pos), std::out_of_range);
    }
}

// One pair of faces over a step: the mesh's vertices at the start, `end` at the end.
class ContinuousKernels : public ::testing::Test {
protected:
    void step(GmTriangleMesh mesh, std::initializer_list<int> moving, const Vec& d) {
        m = std::move(mesh);
        end = m.getVertices();
        for (int v : moving) end[v] += d;
    }
    bool self(int f1, int f2, ComponentTests tests = GmIntersection::kAllTests, double bound = kNoBound, int object = -1) {
        return GmContactKernels::continuousSelf(m, end, f1, f2, tests, metrics, bound, nullptr, object, out);
    }
    GmTriangleMesh m;
    std::vector<Vec> end;
    GmBVHMetrics metrics;
    Records out;
};

TEST_F(ContinuousKernels, VertexFaceRecordsBitOrderAndMetrics) {
    step(twoTriangles(Vec(0.2, 0.2, 1), Vec(0.3, 0.2, 1), Vec(0.2, 0.3, 1)), {3, 4, 5}, Vec(0, 0, -2));  // through face 0
    // Face 1 against face 0: vertex-face records; the other way round face-vertex records. The normal
    // points from triangle 2 towards triangle 1.
    for (const bool swapped : {false, true}) {
        out.clear();
        ASSERT_TRUE(swapped ? self(0, 1) : self(1, 0, GmIntersection::kAllTests, kNoBound, 7));
        ASSERT_EQ(out.size(), 3u);
        for (int k = 0; k < 3; ++k) {
            const GmContinuousTimeIntersectionInfo& r = out[k];
            EXPECT_EQ(r.type, swapped ? GmInterferenceType::FACE_VERTEX : GmInterferenceType::VERTEX_FACE);
            EXPECT_EQ(r.feature1 * 10 + r.feature2, (3 + k) * 10);  // bit order: corners 1, 2, 3 of face 1
            EXPECT_EQ(r.triangleIndex1 * 10 + r.triangleIndex2, swapped ? 1 : 10);
            EXPECT_EQ(r.objectIndex1 * 10 + r.objectIndex2, swapped ? -11 : 77);
            EXPECT_TRUE(std::fabs(r.time - 0.5) < 1e-12 && std::fabs(r.falloff - 0.5) < 1e-12) << r.time;
            EXPECT_EQ(r.pointType, GmGeometry::INSIDE);
            EXPECT_NEAR(r.normal.z, swapped ? -1.0 : 1.0, 1e-12);
            const std::vector<int> vf{3 + k, 0, 1, 2}, fv{0, 1, 2, 3 + k};
            EXPECT_EQ(std::vector<int>(r.vertexIndices, r.vertexIndices + 4), swapped ? fv : vf);
            EXPECT_FALSE(r.pinched0 || r.pinched1);
            const Vec& w = swapped ? r.barycentric1 : r.barycentric2;  // face 0: point = w1 (1,0,0) + w2 (0,1,0)
            EXPECT_NEAR((r.point - Vec(w.y, w.z, 0)).length() + std::fabs(w.x + w.y + w.z - 1.0), 0.0, 1e-12);
            EXPECT_NEAR((r.point - end[3 + k] * 0.5 - m.getVertices()[3 + k] * 0.5).length(), 0, 1e-12);
        }
        if (swapped) continue;
        EXPECT_EQ(metrics.vertexFaceCandidates() * 10 + metrics.vertexFaceSuccesses(), 63u);
        EXPECT_TRUE(metrics.vertexFaceTests() >= 3u && metrics.vertexFaceTests() <= 6u);
        EXPECT_EQ(metrics.edgeEdgeCandidates() * 10 + metrics.edgeEdgeSuccesses(), 90u);
        EXPECT_EQ(metrics.broadPhaseCandidates() + metrics.narrowPhaseTests(), 0u);
    }
    // One bit only; an appending call keeps the earlier records.
    ASSERT_TRUE(self(1, 0, ComponentTests(0x2u)));
    ASSERT_EQ(out.size(), 4u);
    EXPECT_EQ(out[3].feature1, 4);
    // The time bound cuts contacts at or after it; an empty set runs nothing.
    EXPECT_FALSE(self(1, 0, GmIntersection::kAllTests, 0.5) || self(1, 0, ComponentTests()));
    EXPECT_EQ(out.size(), 4u);
}

TEST_F(ContinuousKernels, EdgeEdgeRecord) {
    // A vertical triangle whose lower edge (corner 1 -> corner 2) crosses face 0's first edge.
    step(twoTriangles(Vec(0.5, -0.5, 1), Vec(0.5, 0.3, 1), Vec(0.5, 0, 2)), {3, 4, 5}, Vec(0, 0, -1.5));
    ASSERT_TRUE(self(1, 0));
    ASSERT_EQ(out.size(), 2u);
    // Bit order: the vertex-face test of corner 2 (bit 1) before the edge pair (bit 6).
    EXPECT_TRUE(out[0].type == GmInterferenceType::VERTEX_FACE && out[0].feature1 == 4);
    for (const auto& x : out) EXPECT_NEAR(x.falloff, 1.0 - x.time, 1e-12);
    const GmContinuousTimeIntersectionInfo& r = out[1];
    EXPECT_EQ(r.type, GmInterferenceType::EDGE_EDGE);
    EXPECT_NEAR(r.time, 2.0 / 3.0, 1e-12);
    const int e1 = m.getFace(1).edges[0], e2 = m.getFace(0).edges[0];
    EXPECT_EQ(r.feature1 * 1000 + r.feature2, e1 * 1000 + e2);
    EXPECT_EQ(r.edgeIndices[0] * 1000 + r.edgeIndices[1], e1 * 1000 + e2);
    EXPECT_EQ(std::vector<int>(r.vertexIndices, r.vertexIndices + 4), (std::vector<int>{3, 4, 0, 1}));
    EXPECT_NEAR((r.point - Vec(0.5, 0, 0)).length(), 0.0, 1e-12);
    // (0.5,-0.5) -> (0.5,0.3) reaches y = 0 at s = 0.625.
    EXPECT_NEAR((r.barycentric1 - Vec(0.375, 0.625, 0)).length() + (r.barycentric2 - Vec(0.5, 0.5, 0)).length(), 0.0, 1e-12);
    EXPECT_EQ(r.pointType, GmGeometry::ON_EDGE_1);
    EXPECT_NEAR(r.normal.z, 1.0, 1e-12);  // crossing edges: the edges' cross product, towards edge 1
    EXPECT_EQ(metrics.edgeEdgeCandidates() * 100 + metrics.edgeEdgeSuccesses() * 10 + metrics.vertexFaceSuccesses(), 911u);
    out.clear();
    ASSERT_TRUE(self(1, 0, GmIntersection::kEdgeEdgeTests));
    ASSERT_EQ(out.size(), 1u);
    EXPECT_EQ(out[0].type, GmInterferenceType::EDGE_EDGE);
}

TEST_F(ContinuousKernels, OrphanPairSkipsSharedFeatures) {
    // Faces (0,1,2) and (0,3,4) share vertex 0; vertex 3 falls through face 0.
    step(makeMesh({{0, 0, 0}, {1, 0, 0}, {0, 1, 0}, {0.3, 0.3, 1}, {-1, -1, 1}}, {{0, 1, 2}, {0, 3, 4}}), {3}, Vec(0, 0, -1.25));
    ASSERT_TRUE(GmContactKernels::continuousOrphan(m, end, 1, 0, GmIntersection::kAllTests, metrics, kNoBound, nullptr, 2, out));
    ASSERT_EQ(out.size(), 1u);
    EXPECT_TRUE(out[0].type == GmInterferenceType::VERTEX_FACE && out[0].feature1 == 3);
    EXPECT_NEAR(out[0].time, 0.8, 1e-12);
    EXPECT_EQ(metrics.vertexFaceCandidates() * 10 + metrics.edgeEdgeCandidates(), 69u);
    EXPECT_LE(metrics.vertexFaceTests(), 4u);  // not the two tests of vertex 0
    EXPECT_LE(metrics.edgeEdgeTests(), 5u);    // not the four pairs of edges through vertex 0
}

TEST_F(ContinuousKernels, ContactOnACommonFaceTakesTheMeshNormal) {
    // Face g = (0,1,2) joins vertex 0 (of f1 = (0,4,5)) and edge 1-2 (of f2 = (2,1,3)). Vertex 0
    // falls onto that edge: the contact lies on g, so the normal is the mesh's normal of edge 1-2
    // (faces g and f2) instead of f2's face normal; between two meshes it is the face normal.
    step(makeMesh({{1, 0.5, 1}, {1, 0, 0}, {1, 1, 0}, {2, 0.5, 0}, {0, 0, 5}, {0, 1, 5}}, {{0, 1, 2}, {2, 1, 3}, {0, 4, 5}}), {0},
         Vec(0, 0, -2));
    ASSERT_TRUE(self(2, 1, ComponentTests(0x1u)));
    ASSERT_TRUE(GmContactKernels::continuousMesh(m, end, m, end, 2, 1, ComponentTests(0x1u), metrics, kNoBound, nullptr, nullptr,
                                                 0, 1, out));
    ASSERT_EQ(out.size(), 2u);
    EXPECT_EQ(out[0].pointType, GmGeometry::ON_EDGE_1);
    EXPECT_EQ(out[0].edgeIndices[1], m.getFace(1).edges[0]);
    EXPECT_NEAR((out[0].normal - Vec(std::sqrt(0.5), 0, std::sqrt(0.5))).length(), 0.0, 1e-12);
    EXPECT_NEAR((out[1].normal - Vec(0, 0, 1)).length(), 0.0, 1e-12);
}

// A vertex at rest 5e-7 beside a face sweeping past it, within the in-plane contact tolerance:
// the pair kernel keeps the contact the primitive reports.
TEST_F(ContinuousKernels, ContactWithinTheInPlaneToleranceIsKept) {
    step(twoTriangles(Vec(0.5, -5e-7, 0.5), Vec(0.5, -2, 0.5), Vec(1, -2, 0.5)), {0, 1, 2}, Vec(0, 0, 1));
    const std::vector<Vec>& s = m.getVertices();
    Vec p, w, n;
    double t;
    ASSERT_TRUE(GmIntersection::pointFaceIntersection(s[3], s[0], s[1], s[2], end[3], end[0], end[1], end[2], kNoBound,
                                                      t, p, w, n));
    ASSERT_TRUE(self(1, 0, ComponentTests(0x1u)));
    EXPECT_EQ(out[0].time, t);
}

TEST_F(ContinuousKernels, TwoMeshPairCarriesObjectIndices) {
    step(makeMesh({{0.25, 0.25, 1}, {3, 3, 1}, {3, 4, 1}}, {{0, 1, 2}}), {0, 1, 2}, Vec(0, 0, -2));
    const GmTriangleMesh a = twoTriangles(Vec(5, 5, 5), Vec(6, 5, 5), Vec(5, 6, 5));
    for (const ComponentTests& tests : {GmIntersection::kFaceVertexTests, GmIntersection::kAllTests})
        ASSERT_TRUE(GmContactKernels::continuousMesh(a, a.getVertices(), m, end, 0, 0, tests, metrics, kNoBound, nullptr,
                                                     nullptr, 3, 9, out));
    // The face-vertex set finds the vertex; the full set adds the two edges of b sweeping through face 0's long edge.
    ASSERT_EQ(out.size(), 4u);
    EXPECT_TRUE(out[0].type == GmInterferenceType::FACE_VERTEX && out[1].type == GmInterferenceType::FACE_VERTEX);
    EXPECT_EQ(out[0].objectIndex1 * 10 + out[0].objectIndex2, 39);
    EXPECT_EQ(out[0].triangleIndex1 + out[0].triangleIndex2 + out[0].feature1 + out[0].vertexIndices[3], 0);
    EXPECT_NEAR(out[0].normal.z, -1.0, 1e-12);  // from triangle 2 (above at the start) towards triangle 1
    EXPECT_TRUE(out[2].type == GmInterferenceType::EDGE_EDGE && out[3].type == GmInterferenceType::EDGE_EDGE);
    EXPECT_EQ(out[2].feature1, a.getFace(0).edges[1]);
}

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
    // Two meshes: an edge hovering beside another edge.
    GmTriangleMesh b = makeMesh({{0.5, -1, 0.02}, {0.5, -0.5, 0.02}, {0.5, -0.75, 1}}, {{0, 1, 2}});
    out.clear();
    EXPECT_FALSE(GmContactKernels::proximityMesh(m, b, 0, 0, 0.4, GmIntersection::kEdgeEdgeTests, metrics, nullptr, 1, 2, out));
    ASSERT_TRUE(GmContactKernels::proximityMesh(m, b, 0, 0, 0.6, GmIntersection::kEdgeEdgeTests, metrics, nullptr, 1, 2, out));
    EXPECT_EQ(out[0].type, GmInterferenceType::EDGE_EDGE);
    EXPECT_NEAR(out[0].distance, std::sqrt(0.5 * 0.5 + 0.02 * 0.02), 1e-12);
    EXPECT_EQ(out[0].objectIndex1 * 10 + out[0].objectIndex2, 12);
}

// Features touching or 1e-13 apart on either side get the normal across the contact, towards the
// first feature, at every binary scale.
TEST(ProximityPrimitives, NormalsOfTouchingFeaturesCrossTheContactAtEveryScale) {
    const Vec a(-10, -10, 0), b(10, -10, 0), c(0, 10, 0);
    for (const int k : {-40, -20, 0, 20, 40}) {
        const double sc = std::ldexp(1.0, k);
        for (const double h : {0.0, 1e-13, -1e-13}) {
            Vec n, q;
            double d = 0.1 * sc, wa, wb, wc, s, t;
            ASSERT_TRUE(GmProximityCheck::pointFaceProximity(Vec(1, 0.5, h) * sc, a * sc, b * sc, c * sc, d, n, q, wa, wb, wc))
                << "2^" << k << " h " << h;
            EXPECT_NEAR(std::fabs(n.z), 1.0, 1e-15) << "2^" << k << " h " << h << ": " << n;
            EXPECT_TRUE(h == 0.0 || (n.z > 0.0) == (h > 0.0)) << "2^" << k << " h " << h;
            // Crossing segments in contact or just apart: the normal of their plane, from c-d to a-b.
            d = 0.1 * sc;
            ASSERT_TRUE(GmProximityCheck::edgeEdgeProximity(Vec(-5, 0.1, h) * sc, Vec(5, 0.2, h) * sc, Vec(0.3, -5, 0) * sc,
                                                            Vec(0.2, 5, 0) * sc, d, n, s, t));
            EXPECT_NEAR(std::fabs(n.z), 1.0, 1e-15) << "2^" << k << " h " << h << ": " << n;
            EXPECT_TRUE(h == 0.0 || (n.z > 0.0) == (h > 0.0)) << "2^" << k << " h " << h;
        }
    }
}

TEST(ProximityPrimitives, MessagesAndNonFiniteInput) {
    Vec n, q;
    double wa, wb, wc, d = 0.1, s, t;
    // A point on a zero-area face, overlapping collinear segments: no direction, the message.
    CerrCapture cap;
    EXPECT_FALSE(GmProximityCheck::pointFaceProximity(Vec(0.5, 0, 0), Vec(0, 0, 0), Vec(1, 0, 0), Vec(2, 0, 0), d, n, q, wa, wb, wc));
    d = 0.1;
    EXPECT_FALSE(GmProximityCheck::edgeEdgeProximity(Vec(0, 0, 0), Vec(2, 0, 0), Vec(1, 0, 0), Vec(3, 0, 0), d, n, s, t));
    EXPECT_EQ(cap.buf.str(),
              "Error in GmProximityCheck::pointFaceProximity() ... Unable to compute proximity normal.\n"
              "Error in GmProximityCheck::edgeEdgeProximity() ... Unable to compute proximity normal.\n");
    // Input that is not finite, or a bound that is not, never gives a contact.
    const double inf = std::numeric_limits<double>::infinity();
    const Vec a(0, 0, 0), b(1, 0, 0), c(0, 1, 0);
    for (const double bad : {std::numeric_limits<double>::quiet_NaN(), inf, -inf}) {
        const Vec x(bad, 0.2, 0.2);
        d = 1.0;
        EXPECT_FALSE(GmProximityCheck::pointFaceProximity(x, a, b, c, d, n, q, wa, wb, wc));
        d = 1.0;
        EXPECT_FALSE(GmProximityCheck::pointFaceProximity(Vec(0.2, 0.2, 0), a, x, c, d, n, q, wa, wb, wc));
        d = 1.0;
        EXPECT_FALSE(GmProximityCheck::edgeEdgeProximity(a, x, c, b, d, n, s, t));
        d = bad == inf ? -inf : bad;  // an infinite bound is a valid one
        EXPECT_FALSE(GmProximityCheck::pointFaceProximity(Vec(0.2, 0.2, 0), a, b, c, d, n, q, wa, wb, wc));
    }
}

TEST(StaticKernels, IntersectionPointsAndMeshRecord) {
    const Vec a(0, 0, 0), b(1, 0, 0), c(0, 1, 0);
    // The number of intersection points (at least, for the overlap polygon).
    const struct { const char* what; Vec p, q, r; std::size_t points; } cases[] = {
        {"piercing along x = 0.25", {0.25, -1, -1}, {0.25, 0.5, 1}, {0.25, 2, -1}, 2},
        {"touching at a corner", {1, 0, 0}, {2, 0, 1}, {2, 1, -1}, 1},
        {"1e-300 off the corner: the decision is exact", {1, 0, 1e-300}, {2, 0, 1}, {2, 1, 1}, 0},
        {"coplanar, overlapping", {0.5, -0.5, 0}, {0.5, 0.5, 0}, {-0.5, 0.5, 0}, 4},
        {"NaN", {0.2, 0.2, -1}, {0.2, 0.2, 1}, {std::nan(""), 0.2, 0}, 0},
        {"infinite", {0.2, 0.2, -1}, {0.2, 0.2, 1}, {HUGE_VAL, 0.2, 0}, 0},
        {"minus infinite", {0.2, 0.2, -1}, {0.2, 0.2, 1}, {-HUGE_VAL, 0.2, 0}, 0},
    };
    for (const auto& k : cases) {
        std::vector<Vec> pts;
        EXPECT_EQ(GmContactKernels::triangleTriangleIntersection(k.p, k.q, k.r, a, b, c, pts), k.points > 0) << k.what;
        EXPECT_EQ(GmContactKernels::triangleTriangleIntersection(a, b, c, k.p, k.q, k.r, pts), k.points > 0) << k.what;
        EXPECT_TRUE(k.points > 2 ? pts.size() >= k.points : pts.size() == k.points) << k.what << ": " << pts.size();
    }
    GmTriangleMesh m = twoTriangles(cases[0].p, cases[0].q, cases[0].r);
    std::vector<GmIntersectionInfo> out;
    GmBVHMetrics metrics;
    ASSERT_TRUE(GmContactKernels::staticSelf(m, 1, 0, metrics, out));
    ASSERT_EQ(out.size(), 1u);
    EXPECT_EQ(out[0].triangleIndex1 * 10 + out[0].triangleIndex2, 10);
    EXPECT_EQ(out[0].points.size(), 2u);
}

// The static pair test against exact rationals, in both orders, scaled by powers of two: integer
// grid pairs (coplanar, shared edges and vertices, zero area), random pairs, and vertices within
// rounding of the other's plane. Every intersection point lies on both triangles.

using Pair = std::array<Vec, 6>;

struct Family {
    std::vector<Pair> pairs;
    std::vector<int> exponents;  // scalings that stay exact
};

std::vector<Family> families() {
    std::mt19937 rng(5);
    std::uniform_int_distribution<int> g(-2, 2);
    std::uniform_real_distribution<double> u(-1.0, 1.0);
    auto vec = [&] { return Vec(u(rng), u(rng), u(rng)); };
    Family grid{{}, {-1000, -60, -20, 0, 20, 60, 900}}, noisy{{}, {-500, 0, 500}};
    // A third of the grid pairs forced into one plane, a third given a shared edge.
    for (int n = 0; n < 2000; ++n) {
        Pair p;
        for (Vec& v : p) v = Vec(g(rng), g(rng), g(rng));
        if (n % 3 == 1)
            for (Vec& v : p) v.z = 0.5 * v.x - v.y;
        if (n % 3 == 2) p[3] = p[1], p[4] = p[0];
        grid.pairs.push_back(p);
    }
    // A coplanar triangle strictly inside the other; an edge lying in the other's plane, and mirrored.
    grid.pairs.push_back({Vec(0, 0, 0), Vec(4, 0, 0), Vec(0, 4, 0), Vec(1, 1, 0), Vec(2, 1, 0), Vec(1, 2, 0)});
    grid.pairs.push_back({Vec(0, 0, 1), Vec(1, 0, 0.6), Vec(0.7, 0, 0), Vec(0.8, 0, 0), Vec(2.4, 0, 0), Vec(1.6, -1, 0.1)});
    grid.pairs.push_back({Vec(0.8, 0, 0), Vec(2.4, 0, 0), Vec(1.6, -1, 0.1), Vec(0, 0, 1), Vec(1, 0, 0.6), Vec(0.7, 0, 0)});
    // General position, and a vertex put on the other face by rounding, at random offsets.
    for (int n = 0; n < 200; ++n) {
        Pair p = {vec(), vec(), vec(), vec(), vec(), vec()};
        if (n % 2) p[3] = p[0] + (p[1] - p[0]) * (0.5 * std::fabs(u(rng))) + (p[2] - p[0]) * (0.5 * std::fabs(u(rng)));
        const Vec offset = vec() * 1e3;
        for (Vec& v : p) v += offset;
        noisy.pairs.push_back(p);
    }
    // Near 3e6 on a 2^-10 grid: p = b0/2 + b1/4 + b2/4 exactly on b's plane, well inside b, nudged by
    // k 2^-30 along an axis; q and r far off the plane on one side.
    std::uniform_int_distribution<long long> coarse(-(1LL << 31), 1LL << 31);
    for (int n = 0; n < 200; ++n) {
        Vec b[3];
        for (Vec& v : b) v = Vec(std::ldexp(double(coarse(rng)), -10), std::ldexp(double(coarse(rng)), -10),
                                 std::ldexp(double(coarse(rng)), -10)) + Vec(3e6, 3e6, 3e6);
        Vec p = (b[0] * 2.0 + b[1] + b[2]) * 0.25;
        p[n % 3] += std::ldexp(double(n % 7 - 3), -30);
        const Vec off = (b[1] - b[0]).cross(b[2] - b[0]).safeNormalized() * ((n / 7) % 2 ? 1000.0 : -1000.0);
        const Vec q = p + off + Vec(1000, 0, 0), r = p + off + Vec(0, 1000, 0);
        noisy.pairs.push_back(n % 2 ? Pair{p, q, r, b[0], b[1], b[2]} : Pair{b[0], b[1], b[2], r, p, q});
    }
    return {grid, noisy};
}

bool libraryMeets(const Vec* a, const Vec* b, std::vector<Vec>& pts) {
    return GmContactKernels::triangleTriangleIntersection(a[0], a[1], a[2], b[0], b[1], b[2], pts);
}

TEST(TrianglePairExact, AgreesWithRationalReferenceAtEveryScale) {
    int meeting = 0, total = 0;
    for (const Family& f : families()) {
        for (const Pair& p : f.pairs) {
            const bool want = qgtest::exactTrianglesMeet(qgtest::exact(p[0]), qgtest::exact(p[1]), qgtest::exact(p[2]),
                                                         qgtest::exact(p[3]), qgtest::exact(p[4]), qgtest::exact(p[5]));
            meeting += want;
            ++total;
            for (const int k : f.exponents) {
                const double sc = std::ldexp(1.0, k);
                Vec s[6];
                for (int i = 0; i < 6; ++i) s[i] = p[i] * sc;
                std::vector<Vec> pts;
                ASSERT_EQ(libraryMeets(&s[0], &s[3], pts), want) << "2^" << k << ": " << s[0] << s[1] << s[2] << " / " << s[3] << s[4] << s[5];
                if (k == 0) {
                    double size = 1.0;
                    for (const Vec& v : p) size = std::max({size, std::fabs(v.x), std::fabs(v.y), std::fabs(v.z)});
                    for (const Vec& x : pts) {
                        Vec w;
                        EXPECT_LE(GmSegmentDistance::pointTriangleDistanceSquared(x, p[0], p[1], p[2], w), 1e-20 * size * size) << x;
                        EXPECT_LE(GmSegmentDistance::pointTriangleDistanceSquared(x, p[3], p[4], p[5], w), 1e-20 * size * size) << x;
                    }
                }
                ASSERT_EQ(libraryMeets(&s[3], &s[0], pts), want) << "swapped, 2^" << k;
            }
        }
    }
    EXPECT_GT(meeting, total / 5);
    EXPECT_LT(meeting, total * 4 / 5);
}

TEST(SegmentDistance, DenseSamplingAndExactIntersectionFlag) {
    std::mt19937 rng(5);
    std::uniform_real_distribution<double> u(-1, 1);
    auto vec = [&] { return Vec(u(rng), u(rng), u(rng)); };
    for (int trial = 0; trial < 150; ++trial) {
        const Vec p0 = vec(), p1 = vec(), q0 = vec();
        const Vec q1 = trial % 4 == 0 ? q0 + (p1 - p0) * 0.5 : vec();  // parallel
        double s, t;
        const double d2 = GmSegmentDistance::segmentSegmentDistanceSquared(p0, p1, q0, q1, s, t);
        EXPECT_NEAR(((p0 + (p1 - p0) * s) - (q0 + (q1 - q0) * t)).lengthSquared(), d2, 1e-12);
        double best = 1e300;
        for (int i = 0; i <= 200; ++i)
            for (int j = 0; j <= 200; ++j)
                best = std::min(best, ((p0 + (p1 - p0) * (i / 200.0)) - (q0 + (q1 - q0) * (j / 200.0))).length());
        EXPECT_LE(std::sqrt(d2), best + 1e-12);
        EXPECT_GE(std::sqrt(d2), best - 0.02);
        GmSegmentSegmentInfo r;  // the curve kernel, radius 0.5 at every end: a contact within 1
        ASSERT_EQ(GmSegmentKernels::segmentSegment(p0, p1, 0.5, 0.5, q0, q1, 0.5, 0.5, r), d2 <= 1.0) << trial;
        if (d2 <= 1.0) {
            EXPECT_NEAR(r.distance, std::sqrt(d2), 1e-12) << trial;
            EXPECT_NEAR(r.normal.length(), 1.0, 1e-12) << trial;
        }
    }
    const struct { Vec p0, p1, q0, q1; bool meet; } cases[] = {
        {{-1, 0, 0}, {1, 0, 0}, {0, -1, 0}, {0, 1, 0}, true},               // crossing
        {{-1, 0, 0}, {1, 0, 0}, {0, -1, 1e-300}, {0, 1, 1e-300}, false},   // 1e-300 apart
        {{0, 0, 0}, {1, 1, 1}, {1, 1, 1}, {2, 0, 5}, true},                 // shared end
        {{0, 0, 0}, {2, 2, 2}, {1, 1, 1}, {3, 3, 3}, true},                 // collinear, overlapping
        {{0, 0, 0}, {1, 1, 1}, {2, 2, 2}, {3, 3, 3}, false},                // collinear, apart
        {{0, 0, 0}, {1, 0, 0}, {0, 1, 0}, {1, 1, 0}, false},                // parallel
        {{0, 0, 0}, {2, 0, 0}, {1, 1e-9, 0}, {3, 1e-9, 0}, false},          // parallel, overlapping, 1e-9 apart
        {{0.5, 0, 0}, {0.5, 0, 0}, {0, 0, 0}, {1, 0, 0}, true},             // a point on the segment
    };
    for (const auto& k : cases) {
        EXPECT_EQ(GmSegmentDistance::segmentSegment(k.p0, k.p1, k.q0, k.q1).intersect, k.meet) << k.q0;
        // The curve kernel without radii: the same, but 1e-300 apart is a touch within rounding.
        GmSegmentSegmentInfo r;
        const bool touch = GmSegmentKernels::segmentSegment(k.p0, k.p1, 0, 0, k.q0, k.q1, 0, 0, r);
        EXPECT_EQ(touch, k.meet || &k == &cases[1]) << k.q0;
        const bool unitNormal = k.p0 == k.p1 || std::fabs(r.normal.length() - 1.0) < 1e-15;
        EXPECT_TRUE(!k.meet || (r.distance == 0.0 && unitNormal)) << k.q0;
    }
    const auto r = GmSegmentDistance::segmentSegment(cases[0].p0, cases[0].p1, cases[0].q0, cases[0].q1);
    EXPECT_EQ(r.distanceSquared, 0.0);
    EXPECT_NEAR(r.s, 0.5, 1e-15);
}

TEST(OrphanEntries, BitOfEachEntryAndBarycentricClassification) {
    const GmTriangleMesh tet = qgtools::makeTetrahedron();
    const GmAdjacentOrphanSet* set = tet.getOrphanSet();
    ASSERT_NE(set, nullptr);
    ASSERT_GT(set->getNumberTests(), 0);
    for (const GmOrphanTest& t : *set) {
        const ComponentTests ct = GmContactKernels::orphanComponentTests(tet, t);
        ASSERT_EQ(ct.count(), 1u);
        unsigned bit = 0;
        while (!ct.test(bit)) ++bit;
        if (t.isVertexFaceTest()) {
            EXPECT_EQ(bit, unsigned(t.firstFeatureSlot()));
            EXPECT_EQ(tet.getFace(t.firstFace).vertices[bit], t.firstFeature);
        } else {
            ASSERT_GE(bit, 6u);
            EXPECT_EQ(tet.getFace(t.firstFace).edges[(bit - 6) / 3], t.firstFeature);
            EXPECT_EQ(tet.getFace(t.secondFace).edges[(bit - 6) % 3], t.secondFeature);
        }
    }
    const struct { Vec w; GmGeometry::PointOnTriType type; } cases[] = {
        {{0.2, 0.3, 0.5}, GmGeometry::INSIDE},     {{1, 0, 0}, GmGeometry::ON_VERTEX_1},
        {{1e-15, 1, 1e-15}, GmGeometry::ON_VERTEX_2}, {{0.5, 0.5, 0}, GmGeometry::ON_EDGE_1},
        {{0, 0.5, 0.5}, GmGeometry::ON_EDGE_2},    {{0.5, 1e-14, 0.5}, GmGeometry::ON_EDGE_3},
        {{0.5, 1e-13, 0.5}, GmGeometry::INSIDE},
    };
    for (const auto& k : cases) EXPECT_EQ(GmContactKernels::classifyBarycentric(k.w), k.type) << k.w;
}

TEST(MeshTests, VertexRadiusTest) {
    // Triangle 0, one 0.3 above it, one touching it (coplanar, inside), one piercing it.
    auto pos = std::make_shared<std::vector<Vec>>(std::vector<Vec>{{0, 0, 0}, {1, 0, 0}, {0, 1, 0}, {0.2, 0.2, 0.3},
        {0.4, 0.2, 0.3}, {0.2, 0.4, 0.3}, {0.2, 0.2, 0}, {0.4, 0.2, 0}, {0.2, 0.4, 0}, {0.25, -1, -1}, {0.25, 0.5, 1}, {0.25, 2, -1}});
    const int t0[3] = {0, 1, 2}, above[3] = {3, 4, 5}, touching[3] = {6, 7, 8}, piercing[3] = {9, 10, 11};
    GmIntersection::MeshTests t;
    EXPECT_TRUE(!t.hasAnyTests() && t.vertexRadiusTest(t0, above));  // off: everything passes
    const float weights[12] = {1, 2, 3, 4};
    t.setVertexRadiusTest(pos, 0.5, weights);
    EXPECT_TRUE(t.doVertexRadiusTest() && t.getVertexRadius(3) == 2.0f);  // radius * weight
    EXPECT_EQ(GmIntersection::MeshTests(t).getVertexRadiusRefPos().get(), pos.get());  // copies share
    const struct { double radius; const int* other; bool passes; } cases[] = {
        {0.25, above, false}, {0.35, above, true}, {0.0, above, false}, {0.0, touching, true}, {0.0, piercing, true}};
    for (const auto& k : cases) {
        t.setVertexRadiusTest(pos, k.radius);
        EXPECT_EQ(t.vertexRadiusTest(t0, k.other), k.passes) << k.radius;
    }
    EXPECT_EQ(t.getVertexRadius(2), 0.0f);
    GmIntersection::MeshTests cleared = t;
    cleared.clearVertexRadiusTest();
    EXPECT_FALSE(cleared.hasAnyTests());
    // Released reference positions: the pair is not filtered. A negative radius or no positions: off.
    std::weak_ptr<std::vector<Vec>> weak = pos;
    pos.reset();
    EXPECT_TRUE(weak.expired() && t.vertexRadiusTest(t0, above));
    t.setVertexRadiusTest(std::make_shared<std::vector<Vec>>(), -1.0);
    EXPECT_FALSE(t.hasAnyTests() || t.getVertexRadiusRefPos());
    t.setVertexRadiusTest(nullptr, 1.0);
    EXPECT_FALSE(t.hasAnyTests());
}

}  // namespace

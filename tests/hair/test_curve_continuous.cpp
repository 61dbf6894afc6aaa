// Continuous-time strand contacts: swept curve boxes, the pair kernels against constructed
// exact contacts, and the walks against brute force over all pairs (serial and parallel).

#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <random>
#include <vector>

#ifdef QG_TEST_HAVE_GMP
#include <gmpxx.h>
#endif

#include <quarrygeom/bvh/GmBoundingVolumeHierarchy.h>
#include <quarrygeom/curves/GmCurveContinuous.h>
#include <quarrygeom/mesh/GmTriangleMesh.h>
#include <quarrygeom/primitives/GmSegmentDistance.h>

#include "../curves/curves_test_util.h"
#include "qgtools/shapes.h"

using namespace curvetest;

namespace {

using Info = GmCurveContinuousInfo;

Vec lerp(const Vec& a, const Vec& b, double t) { return a + (b - a) * t; }

// A moving segment pair: a-b and c-d from 0 to 1.
struct Motion {
    Vec a0, b0, c0, d0, a1, b1, c1, d1;
    Motion scaled(double k) const { return {a0 * k, b0 * k, c0 * k, d0 * k, a1 * k, b1 * k, c1 * k, d1 * k}; }
};

#ifdef QG_TEST_HAVE_GMP
// Exact check that the pair meets at time t at parameters s and u.
bool meetsExactly(const Motion& m, double t, double s, double u) {
    for (int k = 0; k < 3; ++k) {
        const mpq_class T(t), S(s), U(u);
        auto at = [&](const Vec& p0, const Vec& p1) -> mpq_class { return mpq_class(p0[k]) + T * (mpq_class(p1[k]) - mpq_class(p0[k])); };
        const mpq_class a = at(m.a0, m.a1), b = at(m.b0, m.b1), c = at(m.c0, m.c1), d = at(m.d0, m.d1);
        if (a + S * (b - a) != c + U * (d - c)) return false;
    }
    return true;
}
#endif

// Random dyadic pair meeting at time t (0, 1/2 or 1) at parameter s along a-b and 1/2 along
// c-d: every coordinate a multiple of 2^-8, so the construction is exact in doubles. `plane`
// keeps all motion in z = 0.
Motion meeting(std::mt19937& rng, double t, double s, bool plane) {
    std::uniform_int_distribution<int> q(-256, 256);
    auto r = [&] { return Vec(q(rng) / 256.0, q(rng) / 256.0, plane ? 0.0 : q(rng) / 256.0); };
    Motion m{r(), r(), r(), r(), r(), r(), r(), r()};
    const Vec a = lerp(m.a0, m.a1, t), b = lerp(m.b0, m.b1, t), c = lerp(m.c0, m.c1, t);
    const Vec d = (a + (b - a) * s) * 2.0 - c;  // (c + d) / 2 == the point on a-b
    if (t == 0.0) m.d0 = d;
    else if (t == 1.0) m.d1 = d;
    else m.d1 = m.d0 + (d - m.d0) * 2.0;
    return m;
}

double distanceAt(const Motion& m, double t) {
    double s, u;
    return std::sqrt(GmSegmentDistance::segmentSegmentDistanceSquared(lerp(m.a0, m.a1, t), lerp(m.b0, m.b1, t),
                                                                      lerp(m.c0, m.c1, t), lerp(m.d0, m.d1, t), s, u));
}

bool query(const Motion& m, double sep, Info& out) {
    return GmCurveContinuous::segmentSegment(m.a0, m.b0, m.c0, m.d0, m.a1, m.b1, m.c1, m.d1, sep, out);
}

// Sanity of a reported contact: time in [0, 1], unit normal, the features within the
// separation (plus the touching tolerance, relative to size and motion) at the reported time
// and parameters.
void expectConsistent(const Motion& m, double sep, const Info& r) {
    EXPECT_GE(r.time, 0.0);
    EXPECT_LE(r.time, 1.0);
    EXPECT_NEAR(r.normal.length(), 1.0, 1e-12);
    const Vec a = lerp(m.a0, m.a1, r.time), b = lerp(m.b0, m.b1, r.time);
    const Vec c = lerp(m.c0, m.c1, r.time), d = lerp(m.d0, m.d1, r.time);
    const double size = std::max((m.b0 - m.a0).length(), (m.d0 - m.c0).length());
    const double speed = ((m.a1 - m.a0) - (m.c1 - m.c0)).length() + ((m.b1 - m.b0) - (m.d1 - m.d0)).length() +
                         ((m.a1 - m.a0) - (m.d1 - m.d0)).length() + ((m.b1 - m.b0) - (m.c1 - m.c0)).length();
    const double gap = ((a + (b - a) * r.parameter1) - (c + (d - c) * r.parameter2)).length();
    EXPECT_LE(gap, sep + 2e-6 * (size + speed) + 1e-300);
}

}  // namespace

// Swept leaf boxes hold each segment, padded by its radii, at both ends of the step (and so at
// every time between); refitSwept equals buildSwept; build() returns to the plain boxes.
TEST(CurveContinuous, SweptTreeBoxesEncloseBothPositions) {
    Strands s = randomWalks(5, 40, 12, 4.0, 0.2, 0.05);
    const GmCurves curves(s.segments);
    Positions end = s.positions;
    std::mt19937 rng(7);
    std::normal_distribution<double> g;
    for (Vec& p : end) p += Vec(g(rng), g(rng), g(rng)) * 0.3;

    GmCurveBoundingTree tree;
    tree.buildSwept(curves, s.positions, end, 0.01, &s.radii);
    ASSERT_EQ(tree.getEndPositions(), &end);
    const std::vector<GmAxisAlignedBox> boxes = leafBoxes(tree);
    for (const GmCurveSegment* seg : curves.getPrimitives()) {
        const GmAxisAlignedBox& box = boxes[seg->index];
        for (const Positions* p : {&s.positions, &end})
            for (std::uint64_t v : {seg->vertex0, seg->vertex1})
                for (int k = 0; k < 3; ++k) {
                    const double r = s.radii[v] + 0.01;
                    EXPECT_LE(double(box.getMin()[k]), (*p)[v][k] - r);
                    EXPECT_GE(double(box.getMax()[k]), (*p)[v][k] + r);
                }
    }
    GmCurveBoundingTree refitted;
    refitted.buildSwept(curves, s.positions, s.positions, 0.01, &s.radii);
    refitted.refitSwept(s.positions, end, 0.01, &s.radii);
    const std::vector<GmAxisAlignedBox> again = leafBoxes(refitted);
    for (std::size_t i = 0; i < boxes.size(); ++i) EXPECT_TRUE(again[i].getMin() == boxes[i].getMin() && again[i].getMax() == boxes[i].getMax());

    GmCurveBoundingTree plain(curves, s.positions, 0.01, &s.radii);
    refitted.refit(s.positions, 0.01, &s.radii);
    EXPECT_EQ(refitted.getEndPositions(), nullptr);
    const std::vector<GmAxisAlignedBox> p1 = leafBoxes(plain), p2 = leafBoxes(refitted);
    for (std::size_t i = 0; i < p1.size(); ++i) EXPECT_TRUE(p1[i].getMin() == p2[i].getMin() && p1[i].getMax() == p2[i].getMax());
}

// Constructed contacts (exact in doubles, checked with rationals) at the start, the middle and
// the end of the step, in general position and inside one plane, scaled by powers of two and
// with 1e-16 relative noise on the coordinates: never missed, reported no later than the contact.
TEST(CurveContinuous, ConstructedContactsAreNeverMissed) {
    std::mt19937 rng(11);
    std::uniform_real_distribution<double> noise(-1e-16, 1e-16);
    int cases = 0;
    for (double t : {0.0, 0.5, 1.0})
        for (double s : {0.0, 0.25, 0.5, 1.0})
            for (bool plane : {false, true})
                for (int rep = 0; rep < 20; ++rep) {
                    const Motion base = meeting(rng, t, s, plane);
#ifdef QG_TEST_HAVE_GMP
                    ASSERT_TRUE(meetsExactly(base, t, s, 0.5));
#endif
                    for (double scale : {0x1p-20, 1.0, 0x1p20})
                        for (bool noisy : {false, true}) {
                            Motion m = base.scaled(scale);
                            if (noisy)
                                for (Vec* v : {&m.a0, &m.b0, &m.c0, &m.d0, &m.a1, &m.b1, &m.c1, &m.d1})
                                    *v = Vec(v->x * (1 + noise(rng)), v->y * (1 + noise(rng)), v->z * (1 + noise(rng)));
                            Info r;
                            ASSERT_TRUE(query(m, 0.0, r)) << "t " << t << " s " << s << " plane " << plane
                                                          << " scale " << scale << " noisy " << noisy;
                            EXPECT_LE(r.time, t + 1e-9);
                            expectConsistent(m, 0.0, r);
                            ++cases;
                        }
                }
    EXPECT_EQ(cases, 3 * 4 * 2 * 20 * 3 * 2);
}

// Adversarial motions with a known closest approach h: parallel segments sliding through each
// other (h = 0), parallel segments passing at height h, crossing segments in one plane and in
// parallel planes. Reported exactly when h <= separation (margins of 20 %), scaled by powers of two.
TEST(CurveContinuous, KnownClosestApproachAgainstSeparation) {
    struct Case {
        const char* name;
        Motion m;
        double h;
    };
    const Case cases[] = {
        {"parallel sliding through", {{0, 0, 0}, {1, 0, 0}, {0.5, 1, 0}, {1.5, 1, 0}, {0, 0, 0}, {1, 0, 0}, {-0.5, -1, 0}, {0.5, -1, 0}}, 0.0},
        {"collinear sliding along", {{0, 0, 0}, {1, 0, 0}, {2, 0, 0}, {3, 0, 0}, {0, 0, 0}, {1, 0, 0}, {-1, 0, 0}, {0, 0, 0}}, 0.0},
        {"parallel passing at h", {{0, 0, 0}, {1, 0, 0}, {0, 1, 0.25}, {1, 1, 0.25}, {0, 0, 0}, {1, 0, 0}, {0, -1, 0.25}, {1, -1, 0.25}}, 0.25},
        {"crossing in one plane", {{0, 0, 0}, {1, 0, 0}, {0.5, 1, 0}, {0.5, 2, 0}, {0, 0, 0}, {1, 0, 0}, {0.5, -1, 0}, {0.5, 0.5, 0}}, 0.0},
        {"crossing over at h", {{0, 0, 0}, {1, 0, 0}, {0.5, 1, 0.5}, {0.5, 2, 0.5}, {0, 0, 0}, {1, 0, 0}, {0.5, -2, 0.5}, {0.5, -1, 0.5}}, 0.5},
        {"touching at the end", {{0, 0, 0}, {1, 0, 0}, {0.5, 2, 0}, {0.5, 3, 0}, {0, 0, 0}, {1, 0, 0}, {0.5, 0, 0}, {0.5, 1, 0}}, 0.0},
        {"touching at the start", {{0, 0, 0}, {1, 0, 0}, {1, 0, 0}, {2, 1, 0}, {0, 0, 0}, {1, 0, 0}, {3, 0, 0}, {4, 1, 0}}, 0.0},
    };
    for (const Case& c : cases)
        for (double scale : {0x1p-30, 1.0, 0x1p30})
            for (double sep : {0.0, 0.5 * c.h, 0.8 * c.h, 1.2 * c.h + 0.1}) {
                const Motion m = c.m.scaled(scale);
                Info r;
                const bool expected = c.h == 0.0 || sep >= c.h;
                EXPECT_EQ(query(m, sep * scale, r), expected) << c.name << " scale " << scale << " sep " << sep;
                if (expected) expectConsistent(m, sep * scale, r);
            }
}

// Random motions: a pair reported free stays above the separation at 1025 sampled times; a
// reported contact is within it at the reported time.
TEST(CurveContinuous, RandomMotionsAgainstSampledDistance) {
    std::mt19937 rng(3);
    std::uniform_real_distribution<double> u(-1.0, 1.0);
    int hits = 0;
    for (int k = 0; k < 2000; ++k) {
        auto r = [&] { return Vec(u(rng), u(rng), u(rng)); };
        const Motion m{r(), r(), r(), r(), r(), r(), r(), r()};
        const double sep = 0.05 * (k % 3);
        Info out;
        if (query(m, sep, out)) {
            ++hits;
            expectConsistent(m, sep, out);
            for (int j = 0; j / 1024.0 < out.time; ++j) EXPECT_GT(distanceAt(m, j / 1024.0), sep - 1e-12);
        } else {
            for (int j = 0; j <= 1024; ++j) ASSERT_GT(distanceAt(m, j / 1024.0), sep) << k;
        }
    }
    EXPECT_GT(hits, 100);
}

namespace {

// Strands on random walks with random motion (some strands fast) and radii.
struct Scene {
    Strands s;
    Positions end;
    Scene(unsigned seed, int curves, int segments) : s(randomWalks(seed, curves, segments, 2.0, 0.1, 0.01)) {
        std::mt19937 rng(seed + 1);
        std::normal_distribution<double> g;
        end = s.positions;
        for (std::size_t c = 0, v = 0; c < s.segments.size(); ++c) {
            const Vec drift = Vec(g(rng), g(rng), g(rng)) * (c % 5 == 0 ? 0.5 : 0.05);
            for (std::size_t k = 0; k <= s.segments[c]; ++k, ++v) end[v] += drift + Vec(g(rng), g(rng), g(rng)) * 0.01;
        }
    }
};

std::vector<Info> sorted(std::vector<Info> v) {
    GmCurveContinuous::sortRecords(v);
    return v;
}

void expectSame(const std::vector<Info>& a, const std::vector<Info>& b) {
    ASSERT_EQ(a.size(), b.size());
    for (std::size_t i = 0; i < a.size(); ++i) {
        EXPECT_EQ(a[i].index1, b[i].index1);
        EXPECT_EQ(a[i].index2, b[i].index2);
        EXPECT_EQ(a[i].index3, b[i].index3);
        EXPECT_EQ(a[i].time, b[i].time);
        EXPECT_EQ(a[i].parameter1, b[i].parameter1);
        EXPECT_EQ(a[i].parameter2, b[i].parameter2);
    }
}

}  // namespace

// Self walk on the swept tree: the visitor tests exactly the non-adjacent pairs whose leaf
// boxes overlap, and finds exactly the contacts of brute force over all non-adjacent pairs;
// the same records serially and in parallel.
TEST(CurveContinuous, StrandWalksMatchBruteForce) {
    ThreadingSwitch threads;
    const Scene sc(21, 80, 20);
    const GmCurves curves(sc.s.segments);
    GmCurveBoundingTree tree;
    tree.buildSwept(curves, sc.s.positions, sc.end, 0.0, &sc.s.radii);
    const std::vector<GmAxisAlignedBox> boxes = leafBoxes(tree);

    std::vector<Info> brute;
    std::uint64_t overlapping = 0;
    GmSegmentContinuousIntersector ref(brute, curves, sc.s.positions, sc.end, &sc.s.radii);
    const auto& prims = curves.getPrimitives();
    for (std::size_t i = 0; i < prims.size(); ++i)
        for (std::size_t j = i + 1; j < prims.size(); ++j) {
            if (ref.isAdjacent(*prims[i], *prims[j])) continue;
            if (boxes[i].overlaps(boxes[j])) ++overlapping;
            Info r;
            if (ref.test(*prims[i], *prims[j], r)) brute.push_back(r);
        }
    ASSERT_GT(brute.size(), 10u);

    for (bool parallel : {false, true}) {
        threads.set(parallel);
        std::vector<Info> found;
        GmSegmentContinuousIntersector v(found, curves, sc.s.positions, sc.end, &sc.s.radii);
        tree.selfIntersect(v);
        EXPECT_EQ(v.getNumberTests(), overlapping);
        // The walk hands a pair in either order.
        for (Info& r : found)
            if (r.index1 > r.index2) {
                Info swapped;
                ASSERT_TRUE(ref.test(*prims[std::size_t(r.index2)], *prims[std::size_t(r.index1)], swapped));
                r = swapped;
            }
        expectSame(sorted(found), sorted(brute));

    }
}

// Two swept trees: every pair with overlapping leaf boxes is tested, the contacts those of
// brute force over all pairs.
TEST(CurveContinuous, TwoTreeWalkMatchesBruteForce) {
    ThreadingSwitch threads;
    const Scene s1(41, 60, 20), s2(42, 60, 30);
    const GmCurves c1(s1.s.segments), c2(s2.s.segments);
    GmCurveBoundingTree t1, t2;
    t1.buildSwept(c1, s1.s.positions, s1.end, 0.0, &s1.s.radii);
    t2.buildSwept(c2, s2.s.positions, s2.end, 0.0, &s2.s.radii);
    const std::vector<GmAxisAlignedBox> b1 = leafBoxes(t1), b2 = leafBoxes(t2);
    std::vector<Info> brute;
    std::uint64_t overlapping = 0;
    GmSegmentContinuousIntersector ref(brute, c1, s1.s.positions, s1.end, &s1.s.radii);
    ref.setOther(c2, s2.s.positions, s2.end, &s2.s.radii);
    for (const GmCurveSegment* a : c1.getPrimitives())
        for (const GmCurveSegment* b : c2.getPrimitives()) {
            overlapping += b1[a->index].overlaps(b2[b->index]) ? 1 : 0;
            Info r;
            if (ref.test(*a, *b, r)) brute.push_back(r);
        }
    ASSERT_GT(brute.size(), 10u);
    for (bool parallel : {false, true}) {
        threads.set(parallel);
        std::vector<Info> found;
        GmSegmentContinuousIntersector w(found, c1, s1.s.positions, s1.end, &s1.s.radii);
        w.setOther(c2, s2.s.positions, s2.end, &s2.s.radii);
        t1.intersect(t2, w);
        EXPECT_EQ(w.getNumberTests(), overlapping);
        expectSame(sorted(found), sorted(brute));
    }
}

// Strands against a moving icosphere: the walk finds exactly the vertex-face and segment-edge
// contacts of brute force over all features (each vertex and edge once), serially and in parallel.
TEST(CurveContinuous, MeshWalkMatchesBruteForce) {
    ThreadingSwitch threads;
    GmTriangleMesh mesh = qgtools::makeIcosphere(2, 0.6, Vec(1, 1, 1));
    Positions meshEnd = mesh.getVertices();
    for (Vec& p : meshEnd) p += Vec(0.3, -0.2, 0.25);
    GmBoundingVolumeHierarchy faces(&mesh, meshEnd);
    const Scene sc(33, 120, 20);
    const GmCurves curves(sc.s.segments);
    GmCurveBoundingTree tree;
    tree.buildSwept(curves, sc.s.positions, sc.end, 0.0, &sc.s.radii);

    // Brute force: every curve vertex against every face, every segment against every edge.
    std::vector<Info> brute;
    const Positions& v0 = mesh.getVertices();
    for (std::uint64_t v = 0; v < curves.getNumberVertices(); ++v)
        for (int f = 0; f < mesh.getNumberFaces(); ++f) {
            const GmTriangleFace& face = mesh.getFace(f);
            const std::size_t i = std::size_t(face.vertices[0]), j = std::size_t(face.vertices[1]), k = std::size_t(face.vertices[2]);
            Info r;
            if (GmCurveContinuous::vertexFace(sc.s.positions[v], v0[i], v0[j], v0[k], sc.end[v], meshEnd[i], meshEnd[j],
                                              meshEnd[k], sc.s.radii[v], r)) {
                r.index3 = std::int64_t(v);
                brute.push_back(r);
            }
        }
    std::size_t vertexHits = brute.size(), edgeHits = 0;
    for (const GmCurveSegment* s : curves.getPrimitives())
        for (int e = 0; e < mesh.getNumberEdges(); ++e) {
            int a, b;
            mesh.getEdgeVertices(e, a, b);
            Info r;
            edgeHits += GmCurveContinuous::segmentSegment(sc.s.positions[s->vertex0], sc.s.positions[s->vertex1], v0[std::size_t(a)],
                                                          v0[std::size_t(b)], sc.end[s->vertex0], sc.end[s->vertex1],
                                                          meshEnd[std::size_t(a)], meshEnd[std::size_t(b)],
                                                          std::min(sc.s.radii[s->vertex0], sc.s.radii[s->vertex1]), r)
                            ? 1
                            : 0;
        }
    ASSERT_GT(vertexHits, 5u);
    ASSERT_GT(edgeHits, 5u);

    std::vector<Info> serial;
    for (bool parallel : {false, true}) {
        threads.set(parallel);
        std::vector<Info> found;
        GmSegmentMeshContinuousIntersector x(found, curves, sc.s.positions, sc.end, mesh, meshEnd, &sc.s.radii);
        x.intersect(tree, faces);
        std::size_t vf = 0, se = 0;
        for (const Info& r : found) (r.type == Info::VERTEX_FACE ? vf : se) += 1;
        EXPECT_EQ(vf, vertexHits);
        EXPECT_EQ(se, edgeHits);
        if (!parallel) serial = found;
        else expectSame(found, serial);
    }
}

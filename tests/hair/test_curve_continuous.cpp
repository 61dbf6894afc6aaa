// Continuous-time strand contacts: swept curve boxes, the pair kernel against constructed
// exact contacts and sampled distances, and the walks against brute force (serial and parallel).

#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <random>
#include <vector>

#ifdef QG_TEST_HAVE_GMP
#include <gmpxx.h>
#endif

#include <quarrygeom/quarrygeom.h>

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
    double distanceAt(double t) const {
        double s, u;
        return std::sqrt(GmSegmentDistance::segmentSegmentDistanceSquared(lerp(a0, a1, t), lerp(b0, b1, t),
                                                                          lerp(c0, c1, t), lerp(d0, d1, t), s, u));
    }
};

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
#ifdef QG_TEST_HAVE_GMP
    for (int k = 0; k < 3; ++k) {  // exactly: a + s (b - a) == (c + d) / 2 at time t
        const mpq_class T(t), S(s);
        auto at = [&](const Vec& p0, const Vec& p1) -> mpq_class { return mpq_class(p0[k]) + T * (mpq_class(p1[k]) - mpq_class(p0[k])); };
        const mpq_class pa = at(m.a0, m.a1), pb = at(m.b0, m.b1), pc = at(m.c0, m.c1), pd = at(m.d0, m.d1);
        EXPECT_EQ(pa + S * (pb - pa), pc + mpq_class(1, 2) * (pd - pc));
    }
#endif
    return m;
}

bool query(const Motion& m, double sep, Info& out) {
    return GmCurveContinuous::segmentSegment(m.a0, m.b0, m.c0, m.d0, m.a1, m.b1, m.c1, m.d1, sep, out);
}

// A reported contact: time in [0, 1], unit normal, the features within the separation (plus
// the touching tolerance, relative to size and motion) at the reported time and parameters.
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

// Strands on random walks with random motion (every fifth strand fast) and radii.
struct Scene {
    Strands s;
    Positions end;
    GmCurves curves;
    GmCurveBoundingTree tree;
    Scene(unsigned seed, int n, int segments)
        : s(randomWalks(seed, n, segments, 2.0, 0.1, 0.01)), end(s.positions), curves(s.segments) {
        std::mt19937 rng(seed + 1);
        std::normal_distribution<double> g;
        for (std::size_t c = 0, v = 0; c < s.segments.size(); ++c) {
            const Vec drift = Vec(g(rng), g(rng), g(rng)) * (c % 5 == 0 ? 0.5 : 0.05);
            for (std::size_t k = 0; k <= s.segments[c]; ++k, ++v) end[v] += drift + Vec(g(rng), g(rng), g(rng)) * 0.01;
        }
        tree.buildSwept(curves, s.positions, end, 0.0, &s.radii);
    }
};

}  // namespace

// Swept leaf boxes hold each segment, padded by its radii and the offset, at both ends of the
// step; refitSwept equals buildSwept; refit() returns to the plain boxes.
TEST(CurveContinuous, SweptTreeBoxesEncloseBothPositions) {
    const Scene sc(5, 40, 12);
    GmCurveBoundingTree tree;
    tree.buildSwept(sc.curves, sc.s.positions, sc.end, 0.01, &sc.s.radii);
    const std::vector<GmAxisAlignedBox> boxes = leafBoxes(tree);
    ASSERT_EQ(tree.getEndPositions(), &sc.end);
    for (const GmCurveSegment* seg : sc.curves.getPrimitives())
        for (const Positions* p : {&sc.s.positions, &sc.end})
            for (std::uint64_t v : {seg->vertex0, seg->vertex1})
                for (int k = 0; k < 3; ++k) {
                    EXPECT_LE(double(boxes[seg->index].getMin()[k]), (*p)[v][k] - sc.s.radii[v] - 0.01);
                    EXPECT_GE(double(boxes[seg->index].getMax()[k]), (*p)[v][k] + sc.s.radii[v] + 0.01);
                }
    auto same = [](const std::vector<GmAxisAlignedBox>& a, const std::vector<GmAxisAlignedBox>& b) {
        ASSERT_EQ(a.size(), b.size());
        for (std::size_t i = 0; i < a.size(); ++i) EXPECT_TRUE(a[i].getMin() == b[i].getMin() && a[i].getMax() == b[i].getMax()) << i;
    };
    GmCurveBoundingTree refitted;
    refitted.buildSwept(sc.curves, sc.s.positions, sc.s.positions, 0.01, &sc.s.radii);
    refitted.refitSwept(sc.s.positions, sc.end, 0.01, &sc.s.radii);
    same(leafBoxes(refitted), boxes);
    refitted.refit(sc.s.positions, 0.01, &sc.s.radii);
    EXPECT_EQ(refitted.getEndPositions(), nullptr);
    same(leafBoxes(refitted), leafBoxes(GmCurveBoundingTree(sc.curves, sc.s.positions, 0.01, &sc.s.radii)));
}

// Constructed contacts at the start, the middle and the end of the step, in general position
// and inside one plane, scaled by powers of two and with 1e-16 relative noise: never missed,
// reported no later than the contact.
TEST(CurveContinuous, ConstructedContactsAreNeverMissed) {
    std::mt19937 rng(11);
    std::uniform_real_distribution<double> noise(-1e-16, 1e-16);
    for (double t : {0.0, 0.5, 1.0})
        for (double s : {0.0, 0.25, 0.5, 1.0})
            for (bool plane : {false, true})
                for (int rep = 0; rep < 20; ++rep) {
                    const Motion base = meeting(rng, t, s, plane);
                    for (double scale : {0x1p-20, 1.0, 0x1p20})
                        for (bool noisy : {false, true}) {
                            Motion m = base.scaled(scale);
                            for (Vec* v : {&m.a0, &m.b0, &m.c0, &m.d0, &m.a1, &m.b1, &m.c1, &m.d1})
                                if (noisy) *v = Vec(v->x * (1 + noise(rng)), v->y * (1 + noise(rng)), v->z * (1 + noise(rng)));
                            Info r;
                            ASSERT_TRUE(query(m, 0.0, r)) << "t " << t << " s " << s << " plane " << plane
                                                          << " scale " << scale << " noisy " << noisy;
                            EXPECT_LE(r.time, t + 1e-9);
                            expectConsistent(m, 0.0, r);
                        }
                }
}

// Motions with a known closest approach h: parallel segments sliding through each other,
// passing at height h, crossing in one plane and in parallel planes, touching at either end.
// Reported exactly when h <= separation (margins of 20 %), scaled by powers of two.
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

// Random motions: a pair reported free stays above the separation at 1025 sampled times, a
// reported contact is within it at the reported time and not before.
TEST(CurveContinuous, RandomMotionsAgainstSampledDistance) {
    std::mt19937 rng(3);
    std::uniform_real_distribution<double> u(-1.0, 1.0);
    int hits = 0;
    for (int k = 0; k < 2000; ++k) {
        auto r = [&] { return Vec(u(rng), u(rng), u(rng)); };
        const Motion m{r(), r(), r(), r(), r(), r(), r(), r()};
        const double sep = 0.05 * (k % 3);
        Info out;
        const bool hit = query(m, sep, out);
        hits += hit;
        if (hit) expectConsistent(m, sep, out);
        for (int j = 0; j <= 1024 && (!hit || j / 1024.0 < out.time); ++j) ASSERT_GT(m.distanceAt(j / 1024.0), sep - (hit ? 1e-12 : 0)) << k;
    }
    EXPECT_GT(hits, 100);
}

// The self walk (near neighbours left out) and the two-tree walk on swept trees: the visitor
// tests exactly the pairs whose leaf boxes overlap and finds exactly the brute-force contacts,
// serially and in parallel.
TEST(CurveContinuous, StrandWalksMatchBruteForce) {
    const Scene s1(21, 80, 20), s2(42, 60, 30);
    for (bool self : {true, false}) {
        SCOPED_TRACE(self ? "self" : "two trees");
        const Scene& other = self ? s1 : s2;
        std::vector<Info> scratch;
        GmSegmentContinuousIntersector ref(scratch, s1.curves, s1.s.positions, s1.end, &s1.s.radii);
        if (!self) ref.setOther(other.curves, other.s.positions, other.end, &other.s.radii);
        const auto &p1 = s1.curves.getPrimitives(), &p2 = other.curves.getPrimitives();
        const auto brute = bruteForce(
            s1.tree, other.tree, [&](std::uint64_t a, std::uint64_t b) { return self && ref.isAdjacent(*p1[a], *p2[b]); },
            [&](std::uint64_t a, std::uint64_t b) {
                Info r;
                return ref.test(*p1[a], *p2[b], r);
            });
        ASSERT_GT(brute.first.size(), 10u);
        expectWalk<Info>(
            [&](std::vector<Info>& found) {
                GmSegmentContinuousIntersector v(found, s1.curves, s1.s.positions, s1.end, &s1.s.radii);
                if (self) {
                    s1.tree.selfIntersect(v);
                } else {
                    v.setOther(other.curves, other.s.positions, other.end, &other.s.radii);
                    s1.tree.intersect(other.tree, v);
                }
                return v.getNumberTests();
            },
            brute, self);
    }
}

// Strands against a moving icosphere: exactly the vertex-face and segment-edge contacts of
// brute force over all features (each vertex and edge once), serially and in parallel.
TEST(CurveContinuous, MeshWalkMatchesBruteForce) {
    ThreadingSwitch threads;
    GmTriangleMesh mesh = qgtools::makeIcosphere(2, 0.6, Vec(1, 1, 1));
    Positions meshEnd = mesh.getVertices();
    for (Vec& p : meshEnd) p += Vec(0.3, -0.2, 0.25);
    GmBoundingVolumeHierarchy faces(&mesh, meshEnd);
    const Scene sc(33, 120, 20);
    const Positions &c0 = sc.s.positions, &m0 = mesh.getVertices();
    std::multiset<std::tuple<int, std::int64_t, std::int64_t>> brute;  // (type, vertex or segment, face or edge)
    for (std::uint64_t v = 0; v < sc.curves.getNumberVertices(); ++v)
        for (int f = 0; f < mesh.getNumberFaces(); ++f) {
            const int* c = mesh.getFace(f).vertices;
            Info r;
            if (GmCurveContinuous::vertexFace(c0[v], m0[c[0]], m0[c[1]], m0[c[2]], sc.end[v], meshEnd[c[0]], meshEnd[c[1]],
                                              meshEnd[c[2]], sc.s.radii[v], r))
                brute.insert({Info::VERTEX_FACE, std::int64_t(v), f});
        }
    for (const GmCurveSegment* s : sc.curves.getPrimitives())
        for (int e = 0; e < mesh.getNumberEdges(); ++e) {
            int a, b;
            mesh.getEdgeVertices(e, a, b);
            Info r;
            if (GmCurveContinuous::segmentSegment(c0[s->vertex0], c0[s->vertex1], m0[a], m0[b], sc.end[s->vertex0],
                                                  sc.end[s->vertex1], meshEnd[a], meshEnd[b],
                                                  std::min(sc.s.radii[s->vertex0], sc.s.radii[s->vertex1]), r))
                brute.insert({Info::SEGMENT_EDGE, std::int64_t(s->index), e});
        }
    const auto vertexHits = std::count_if(brute.begin(), brute.end(), [](const auto& k) { return std::get<0>(k) == Info::VERTEX_FACE; });
    ASSERT_GT(vertexHits, 5);
    ASSERT_GT(std::ptrdiff_t(brute.size()) - vertexHits, 5);
    for (bool parallel : {false, true}) {
        threads.set(parallel);
        std::vector<Info> found;
        GmSegmentMeshContinuousIntersector x(found, sc.curves, c0, sc.end, mesh, meshEnd, &sc.s.radii);
        x.intersect(sc.tree, faces);
        std::multiset<std::tuple<int, std::int64_t, std::int64_t>> got;
        for (const Info& r : found)
            got.insert(r.type == Info::VERTEX_FACE ? std::make_tuple(int(r.type), r.index3, r.index2)
                                                   : std::make_tuple(int(r.type), r.index1, r.index3));
        EXPECT_EQ(got, brute);
    }
}

// Continuous-time vertex-face and edge-edge primitives: the root walk, degenerate motions,
// exact messages, and random configurations against a brute-force reference.

#include <gtest/gtest.h>

#include <cmath>
#include <iostream>
#include <random>
#include <sstream>
#include <string>
#include <vector>

#include <quarrygeom/primitives/GmIntersection.h>
#include <quarrygeom/primitives/GmPredicates.h>
#include <quarrygeom/primitives/GmSegmentDistance.h>

namespace {

using Vec = GmTVector<double>;
constexpr double kNoBound = 1.7976931348623157e308;

// Captures std::cerr for the lifetime of the object.
class CerrCapture {
public:
    CerrCapture() : _old(std::cerr.rdbuf(_buf.rdbuf())) {}
    ~CerrCapture() { std::cerr.rdbuf(_old); }
    std::string text() const { return _buf.str(); }

private:
    std::ostringstream _buf;
    std::streambuf* _old;
};

std::vector<double> walk(double c0, double c1, double c2, double c3) {
    double times[8];
    const int n = GmIntersection::detail::rootWalkTimes(c0, c1, c2, c3, times);
    return std::vector<double>(times, times + n);
}

// Monomial coefficients of k (t - r0)(t - r1)(t - r2).
void cubicFromRoots(double k, double r0, double r1, double r2, double c[4]) {
    c[3] = k;
    c[2] = -k * (r0 + r1 + r2);
    c[1] = k * (r0 * r1 + r0 * r2 + r1 * r2);
    c[0] = -k * r0 * r1 * r2;
}

bool vertexFace(const Vec* v, double& time, Vec& point, Vec& bary, Vec& n, double bound = kNoBound) {
    return GmIntersection::pointFaceIntersection(v[0], v[1], v[2], v[3], v[4], v[5], v[6], v[7], bound, time, point,
                                                 bary, n);
}
bool edgeEdge(const Vec* v, double& time, double& s, double& t, Vec& n, double bound = kNoBound) {
    return GmIntersection::edgeEdgeIntersection(v[0], v[1], v[2], v[3], v[4], v[5], v[6], v[7], bound, time, s, t, n);
}

bool finite(const Vec& v) { return std::isfinite(v.x) && std::isfinite(v.y) && std::isfinite(v.z); }

}  // namespace

// ---- The root walk ----------------------------------------------------------------------------

TEST(CcdRootWalk, PreCheckRejectsCubicsWithoutRootInUnitInterval) {
    EXPECT_TRUE(GmIntersection::detail::cubicRootPreCheckRejects(4, 1, 1, 1));  // rule 1
    EXPECT_TRUE(walk(4, 1, 1, 1).empty());
    EXPECT_TRUE(GmIntersection::detail::cubicRootPreCheckRejects(1, 2, -1, -1));      // rule 2
    EXPECT_TRUE(GmIntersection::detail::cubicRootPreCheckRejects(3, -3.5, 0.5, 0.3));  // rule 3: monotone, p(1) > 0
    EXPECT_TRUE(GmIntersection::detail::cubicRootPreCheckRejects(1, 1, 1, -2.5));     // rule 4
    EXPECT_FALSE(GmIntersection::detail::cubicRootPreCheckRejects(1, 1, 1, -3.5));    // rule 4 accepts: p(1) < 0
    EXPECT_FALSE(GmIntersection::detail::cubicRootPreCheckRejects(-0.5, 1, 0, 0));    // root at 0.5
    // The pre-check is sound on cubics with a root strictly inside (0, 1].
    std::mt19937 rng(7);
    std::uniform_real_distribution<double> u(-3.0, 3.0), r(0.01, 1.0);
    for (int i = 0; i < 2000; ++i) {
        double c[4];
        cubicFromRoots(u(rng), r(rng), u(rng), u(rng), c);
        EXPECT_FALSE(GmIntersection::detail::cubicRootPreCheckRejects(c[0], c[1], c[2], c[3]))
            << c[0] << " " << c[1] << " " << c[2] << " " << c[3];
    }
}

TEST(CcdRootWalk, RootJustAfterTheStepIsTestedAtTheEnd) {
    double c[4];
    // Roots 0.5 and 1.0000005: both are tested, the second clamped to 1.
    cubicFromRoots(1.0, -5.0, 0.5, 1.0000005, c);
    std::vector<double> t = walk(c[0], c[1], c[2], c[3]);
    ASSERT_EQ(t.size(), 2u);
    EXPECT_NEAR(t[0], 0.5, 1e-12);
    EXPECT_EQ(t[1], 1.0);
    // Only root 1.0000005 in reach, p(1) below 1e-12: solved although the pre-check would reject.
    cubicFromRoots(1e-7, 1.0000005, 2.0, 3.0, c);
    ASSERT_LE(std::fabs(c[0] + c[1] + c[2] + c[3]), 1e-12);
    t = walk(c[0], c[1], c[2], c[3]);
    ASSERT_EQ(t.size(), 1u);
    EXPECT_EQ(t[0], 1.0);
}

TEST(CcdRootWalk, FirstRootBeyondEndsTheSearch) {
    double c[4];
    cubicFromRoots(1e-8, 1.00001, 2.0, 3.0, c);
    ASSERT_LE(std::fabs(c[0] + c[1] + c[2] + c[3]), 1e-12);
    EXPECT_TRUE(walk(c[0], c[1], c[2], c[3]).empty());
}

TEST(CcdRootWalk, CubicVanishingAtTheEndIsSolvedWhateverThePreCheckSays) {
    const double c0 = 1.0 + 1e-13, c1 = -1.0;  // root at 1 + 1e-13
    EXPECT_TRUE(GmIntersection::detail::cubicRootPreCheckRejects(c0, c1, 0.0, 0.0));
    const std::vector<double> t = walk(c0, c1, 0.0, 0.0);
    ASSERT_EQ(t.size(), 1u);
    EXPECT_EQ(t[0], 1.0);
}

TEST(CcdRootWalk, NegativeRootsAreSkippedOrPassedOver) {
    double c[4];
    cubicFromRoots(1.0, -2e-6, 0.5, 3.0, c);  // below -1e-6: skipped
    std::vector<double> t = walk(c[0], c[1], c[2], c[3]);
    ASSERT_EQ(t.size(), 1u);
    EXPECT_NEAR(t[0], 0.5, 1e-12);
    cubicFromRoots(1.0, -5e-7, 0.5, 3.0, c);  // in (-1e-6, 0): refined, stays negative, passed over
    t = walk(c[0], c[1], c[2], c[3]);
    ASSERT_EQ(t.size(), 1u);
    EXPECT_NEAR(t[0], 0.5, 1e-12);
}

TEST(CcdRootWalk, DoubleRootIsNotLost) {
    // (t - 0.3)^2 (t - 4): a tangency at 0.3; the perturbed versions keep a candidate near 0.3.
    for (const double eps : {0.0, 1e-17, -1e-17, 1e-16}) {
        double c[4];
        cubicFromRoots(1.0, 0.3, 0.3, 4.0, c);
        c[0] += eps;
        const std::vector<double> t = walk(c[0], c[1], c[2], c[3]);
        ASSERT_FALSE(t.empty()) << eps;
        EXPECT_NEAR(t[0], 0.3, 1e-6) << eps;
    }
}

TEST(CcdRootWalk, NewtonRefinementStopsAtSmallResidual) {
    // Root of t - 0.25 from a rough start; exact roots are left alone.
    EXPECT_NEAR(GmIntersection::detail::refineCubicRoot(-0.25, 1.0, 0.0, 0.0, 0.3), 0.25, 1e-15);
    EXPECT_EQ(GmIntersection::detail::refineCubicRoot(-0.25, 1.0, 0.0, 0.0, 0.25), 0.25);
    // At most four steps: a far start on a cubic does not converge fully but stays finite.
    const double t = GmIntersection::detail::refineCubicRoot(-1.0, 0.0, 0.0, 1.0, 100.0);
    EXPECT_TRUE(std::isfinite(t));
    EXPECT_GT(t, 1.5);
}

// ---- Hand-made motions -----------------------------------------------------------------------

TEST(CcdVertexFace, VertexThroughFaceCenter) {
    // Face in z = 0, vertex falling from z = 1 to z = -1: contact at 0.5, normal +z.
    const Vec v[8] = {{0.2, 0.2, 1}, {0, 0, 0}, {1, 0, 0}, {0, 1, 0}, {0.2, 0.2, -1}, {0, 0, 0}, {1, 0, 0}, {0, 1, 0}};
    double time;
    Vec point, bary, n;
    ASSERT_TRUE(vertexFace(v, time, point, bary, n));
    EXPECT_NEAR(time, 0.5, 1e-12);
    EXPECT_NEAR(bary.x, 0.6, 1e-12);
    EXPECT_NEAR(bary.y, 0.2, 1e-12);
    EXPECT_NEAR(bary.z, 0.2, 1e-12);
    EXPECT_NEAR(point.x, 0.2, 1e-12);
    EXPECT_NEAR(n.z, 1.0, 1e-12);
    // Time bound at or before the contact: nothing.
    EXPECT_FALSE(vertexFace(v, time, point, bary, n, 0.5));
    EXPECT_TRUE(vertexFace(v, time, point, bary, n, 0.50001));
    // From below, the normal points down (towards the vertex's starting side).
    const Vec w[8] = {{0.2, 0.2, -1}, {0, 0, 0}, {1, 0, 0}, {0, 1, 0}, {0.2, 0.2, 1}, {0, 0, 0}, {1, 0, 0}, {0, 1, 0}};
    ASSERT_TRUE(vertexFace(w, time, point, bary, n));
    EXPECT_NEAR(n.z, -1.0, 1e-12);
    // Passing beside the face: nothing.
    const Vec m[8] = {{0.8, 0.8, 1}, {0, 0, 0}, {1, 0, 0}, {0, 1, 0}, {0.8, 0.8, -1}, {0, 0, 0}, {1, 0, 0}, {0, 1, 0}};
    EXPECT_FALSE(vertexFace(m, time, point, bary, n));
}

TEST(CcdVertexFace, GrazingAndSlidingContacts) {
    double time;
    Vec point, bary, n;
    // The face rises to touch the resting vertex exactly at the end of the step.
    const Vec a[8] = {{0.2, 0.2, 1}, {0, 0, 0}, {1, 0, 0}, {0, 1, 0}, {0.2, 0.2, 1}, {0, 0, 1}, {1, 0, 1}, {0, 1, 1}};
    ASSERT_TRUE(vertexFace(a, time, point, bary, n));
    EXPECT_EQ(time, 1.0);
    // Vertex sliding along the face's edge in its plane (coplanar throughout).
    const Vec b[8] = {{-1, 0, 0}, {0, 0, 0}, {1, 0, 0}, {0, 1, 0}, {2, 0, 0}, {0, 0, 0}, {1, 0, 0}, {0, 1, 0}};
    ASSERT_TRUE(vertexFace(b, time, point, bary, n));
    EXPECT_NEAR(time, 1.0 / 3.0, 1e-9);
    // Vertex moving in the face's plane but missing the face.
    const Vec c[8] = {{-1, 2, 0}, {0, 0, 0}, {1, 0, 0}, {0, 1, 0}, {2, 2, 0}, {0, 0, 0}, {1, 0, 0}, {0, 1, 0}};
    EXPECT_FALSE(vertexFace(c, time, point, bary, n));
    // Vertex lying inside the face from the start, in its plane.
    const Vec d[8] = {{0.2, 0.2, 0}, {0, 0, 0}, {1, 0, 0}, {0, 1, 0}, {0.3, 0.2, 0}, {0, 0, 0}, {1, 0, 0}, {0, 1, 0}};
    ASSERT_TRUE(vertexFace(d, time, point, bary, n));
    EXPECT_EQ(time, 0.0);
    // A face rotating through the resting vertex: its plane passes the vertex at t = 0.5.
    const Vec e[8] = {{0.25, 0.25, 0}, {0, 0, 1}, {1, 0, 1}, {0, 1, -1}, {0.25, 0.25, 0}, {0, 0, -1}, {1, 0, -1},
                      {0, 1, 1}};
    ASSERT_TRUE(vertexFace(e, time, point, bary, n));
    EXPECT_LE(time, 0.5 + 1e-6);
}

TEST(CcdVertexFace, SlidingAlongAnEdgeLineUnderRotation) {
    // A vertex sliding along the line of the face's first edge, entering the face at a corner at
    // t = 1/3; rotated at random so that rounding leaves the points only nearly collinear.
    std::mt19937 rng(31);
    std::uniform_real_distribution<double> u(-1.0, 1.0);
    for (int trial = 0; trial < 200; ++trial) {
        Vec ax(u(rng), u(rng), u(rng));
        ax = ax / ax.length();
        Vec ay(u(rng), u(rng), u(rng));
        ay = ay - ax * ax.dot(ay);
        ay = ay / ay.length();
        const Vec az = ax.cross(ay);
        const Vec o(u(rng), u(rng), u(rng));
        auto R = [&](double x, double y, double z) { return o + ax * x + ay * y + az * z; };
        const Vec v[8] = {R(-1, 0, 0), R(0, 0, 0), R(1, 0, 0), R(0, 1, 0),
                          R(2, 0, 0),  R(0, 0, 0), R(1, 0, 0), R(0, 1, 0)};
        double time;
        Vec point, bary, n;
        ASSERT_TRUE(vertexFace(v, time, point, bary, n)) << "trial " << trial;
        EXPECT_NEAR(time, 1.0 / 3.0, 1e-6) << "trial " << trial;
    }
}

TEST(CcdVertexFace, TangentialTouchUnderRotation) {
    // The face tilts through the horizontal while the vertex swings under it: the coplanarity
    // cubic is -(2t - 1)^2, a double root at t = 0.5 where the vertex touches the face inside
    // (weights 0.5, 0.25, 0.25) without crossing it. Rotated at random, rounding may turn the
    // double root into a complex pair; the contact must survive.
    std::mt19937 rng(77);
    std::uniform_real_distribution<double> u(-1.0, 1.0);
    int found = 0;
    for (int trial = 0; trial < 300; ++trial) {
        Vec ax(1, 0, 0), ay(0, 1, 0), az(0, 0, 1), o(0, 0, 0);
        if (trial > 0) {
            ax = Vec(u(rng), u(rng), u(rng));
            ax = ax / ax.length();
            ay = Vec(u(rng), u(rng), u(rng));
            ay = ay - ax * ax.dot(ay);
            ay = ay / ay.length();
            az = ax.cross(ay);
            o = Vec(u(rng), u(rng), u(rng)) * 10.0;
        }
        auto R = [&](double x, double y, double z) { return o + ax * x + ay * y + az * z; };
        const Vec v[8] = {R(-0.75, 0.25, -0.25), R(0, 0, 0), R(1, 0, -1), R(0, 1, 0),
                          R(1.25, 0.25, 0.25),   R(0, 0, 0), R(1, 0, 1),  R(0, 1, 0)};
        double time;
        Vec point, bary, n;
        const bool hit = vertexFace(v, time, point, bary, n);
        EXPECT_TRUE(hit) << "trial " << trial;
        if (hit) {
            ++found;
            EXPECT_NEAR(time, 0.5, 1e-6) << "trial " << trial;
            EXPECT_NEAR(bary.x, 0.5, 1e-6) << "trial " << trial;
        }
    }
    EXPECT_EQ(found, 300);
}

TEST(CcdVertexFace, TinyFaceAndFarVertexAreNotTakenForACoplanarMotion) {
    // A face 1e-7 across, a vertex passing through it from distance 1: the coplanarity cubic is
    // tiny relative to the vertex's travel but far above its rounding noise.
    const double h = 1e-7;
    const Vec v[8] = {{0.2 * h, 0.2 * h, 1}, {0, 0, 0}, {h, 0, 0}, {0, h, 0},
                      {0.2 * h, 0.2 * h, -1}, {0, 0, 0}, {h, 0, 0}, {0, h, 0}};
    double time;
    Vec point, bary, n;
    ASSERT_TRUE(vertexFace(v, time, point, bary, n));
    EXPECT_NEAR(time, 0.5, 1e-9);
    EXPECT_NEAR(bary.y, 0.2, 1e-6);
    // Beside the face: nothing.
    const Vec w[8] = {{2 * h, 2 * h, 1}, {0, 0, 0}, {h, 0, 0}, {0, h, 0}, {2 * h, 2 * h, -1}, {0, 0, 0}, {h, 0, 0}, {0, h, 0}};
    EXPECT_FALSE(vertexFace(w, time, point, bary, n));
}

TEST(CcdEdgeEdge, CrossingEdges) {
    // Edge a-b along x at z = 0, edge c-d along y dropping from z = 1 to z = -1.
    const Vec v[8] = {{-1, 0, 0}, {1, 0, 0}, {0.5, -1, 1}, {0.5, 1, 1}, {-1, 0, 0}, {1, 0, 0}, {0.5, -1, -1}, {0.5, 1, -1}};
    double time, s, t;
    Vec n;
    ASSERT_TRUE(edgeEdge(v, time, s, t, n));
    EXPECT_NEAR(time, 0.5, 1e-12);
    EXPECT_NEAR(s, 0.75, 1e-12);
    EXPECT_NEAR(t, 0.5, 1e-12);
    // Edge c-d started above: the normal points from c-d towards a-b, i.e. down.
    EXPECT_NEAR(n.z, -1.0, 1e-12);
    // Passing beyond the end of a-b: nothing.
    const Vec w[8] = {{-1, 0, 0}, {1, 0, 0}, {1.5, -1, 1}, {1.5, 1, 1}, {-1, 0, 0}, {1, 0, 0}, {1.5, -1, -1}, {1.5, 1, -1}};
    EXPECT_FALSE(edgeEdge(w, time, s, t, n));
}

TEST(CcdEdgeEdge, TangentialTouchUnderRotation) {
    // Edge c-d twists past edge a-b, meeting it at t = 0.5 without the four points changing
    // sides: the coplanarity cubic is a multiple of -(2t - 1)^2. Rotated at random.
    std::mt19937 rng(78);
    std::uniform_real_distribution<double> u(-1.0, 1.0);
    for (int trial = 0; trial < 300; ++trial) {
        Vec ax(1, 0, 0), ay(0, 1, 0), az(0, 0, 1), o(0, 0, 0);
        if (trial > 0) {
            ax = Vec(u(rng), u(rng), u(rng));
            ax = ax / ax.length();
            ay = Vec(u(rng), u(rng), u(rng));
            ay = ay - ax * ax.dot(ay);
            ay = ay / ay.length();
            az = ax.cross(ay);
            o = Vec(u(rng), u(rng), u(rng)) * 10.0;
        }
        auto R = [&](double x, double y, double z) { return o + ax * x + ay * y + az * z; };
        const Vec v[8] = {R(-1, 0, 0), R(1, 0, 0), R(0, -1.5, 0.5), R(0, -0.5, -0.5),
                          R(-1, 0, 0), R(1, 0, 0), R(0, 0.5, -0.5), R(0, 1.5, 0.5)};
        double time, s, t;
        Vec n;
        ASSERT_TRUE(edgeEdge(v, time, s, t, n)) << "trial " << trial;
        EXPECT_NEAR(time, 0.5, 1e-6) << "trial " << trial;
        EXPECT_NEAR(s, 0.5, 1e-6) << "trial " << trial;
        EXPECT_NEAR(t, 0.5, 1e-6) << "trial " << trial;
    }
}

TEST(CcdEdgeEdge, CoplanarThroughoutAndEndpointContacts) {
    double time, s, t;
    Vec n;
    // Both edges stay in z = 0; c-d sweeps across a-b: first touch when d reaches a-b at t = 0.25.
    const Vec v[8] = {{-1, 0, 0}, {1, 0, 0}, {0, 2, 0}, {0, 0.5, 0}, {-1, 0, 0}, {1, 0, 0}, {0, 0, 0}, {0, -1.5, 0}};
    ASSERT_TRUE(edgeEdge(v, time, s, t, n));
    EXPECT_NEAR(time, 0.25, 1e-9);
    EXPECT_NEAR(std::fabs(n.z), 1.0, 1e-12);
    // Coplanar throughout, never touching.
    const Vec w[8] = {{-1, 0, 0}, {1, 0, 0}, {3, 2, 0}, {3, 0.5, 0}, {-1, 0, 0}, {1, 0, 0}, {3, 0, 0}, {3, -1.5, 0}};
    EXPECT_FALSE(edgeEdge(w, time, s, t, n));
    // End point of c-d landing on a-b from above (a T-contact), not coplanar throughout.
    const Vec x[8] = {{-1, 0, 0}, {1, 0, 0}, {0.3, 0, 1}, {0.3, 0, 2}, {-1, 0, 0}, {1, 0, 0}, {0.3, 0, -1}, {0.3, 0, 0}};
    ASSERT_TRUE(edgeEdge(x, time, s, t, n));
    EXPECT_NEAR(time, 0.5, 1e-9);
}

// ---- Degenerate geometry and messages ----------------------------------------------------------

// Contacts whose own normal degenerates (a face of zero area at the contact, parallel edges
// that meet) take the direction between the features at the start of the step, else the one
// against their relative motion; at every scale, without a message.
TEST(CcdDegenerate, DegenerateContactsTakeTheFallbackNormal) {
    struct Case {
        const char* what;
        bool edgeEdge;
        Vec v[8];
        double time;
        Vec normal;
    };
    const Case cases[] = {
        {"vertex through a segment face", false,
         {{0.5, 0, 1}, {0, 0, 0}, {1, 0, 0}, {2, 0, 0}, {0.5, 0, -1}, {0, 0, 0}, {1, 0, 0}, {2, 0, 0}}, 0.5, {0, 0, 1}},
        {"face collapsing as the vertex arrives", false,
         {{0.25, 0, 1}, {0, 0, 0}, {1, 0, 0}, {0, 1, 0}, {0.25, 0, 0}, {0, 0, 0}, {1, 0, 0}, {0.5, 0, 0}}, 1.0, {0, 0, 1}},
        {"vertex leaving a segment face it starts on", false,
         {{0.5, 0, 0}, {0, 0, 0}, {1, 0, 0}, {2, 0, 0}, {0.5, 0, -1}, {0, 0, 0}, {1, 0, 0}, {2, 0, 0}}, 0.0, {0, 0, 1}},
        {"parallel edge landing on another", true,
         {{0, 0, 1}, {1, 0, 1}, {0.5, 0, 0}, {1.5, 0, 0}, {0, 0, 0}, {1, 0, 0}, {0.5, 0, 0}, {1.5, 0, 0}}, 1.0, {0, 0, 1}},
        {"parallel edges meeting inside their plane", true,
         {{0, 1, 0}, {1, 1, 0}, {0.5, 0, 0}, {1.5, 0, 0}, {0, -1, 0}, {1, -1, 0}, {0.5, 0, 0}, {1.5, 0, 0}}, 0.5, {0, 1, 0}},
        {"collinear edges parting", true,
         {{0, 0, 0}, {1, 0, 0}, {0.5, 0, 0}, {1.5, 0, 0}, {0, 0, -1}, {1, 0, -1}, {0.5, 0, 0}, {1.5, 0, 0}}, 0.0, {0, 0, 1}},
    };
    for (const Case& c : cases)
        for (int k : {-40, -20, 0, 20, 40}) {
            const double sc = std::ldexp(1.0, k);
            Vec v[8];
            for (int i = 0; i < 8; ++i) v[i] = c.v[i] * sc;
            CerrCapture cap;
            double time = -1, s, t;
            Vec point, bary, n;
            const bool hit = c.edgeEdge ? edgeEdge(v, time, s, t, n) : vertexFace(v, time, point, bary, n);
            ASSERT_TRUE(hit) << c.what << " at 2^" << k;
            EXPECT_NEAR(time, c.time, 1e-9) << c.what << " at 2^" << k;
            EXPECT_NEAR((n - c.normal).length(), 0.0, 1e-9) << c.what << " at 2^" << k << ": " << n;
            EXPECT_EQ(cap.text(), "") << c.what;
        }
}

// Only features that coincide for the whole step have no direction at all.
TEST(CcdDegenerate, FeaturesCoincidingThroughoutPrintTheMessage) {
    for (int k : {-40, 0, 40}) {
        const double sc = std::ldexp(1.0, k);
        // Two collinear edges overlapping throughout; a vertex resting on a segment face.
        const Vec e[8] = {Vec(0, 0, 0), Vec(2, 0, 0) * sc, Vec(1, 0, 0) * sc, Vec(3, 0, 0) * sc,
                          Vec(0, 0, 0), Vec(2, 0, 0) * sc, Vec(1, 0, 0) * sc, Vec(3, 0, 0) * sc};
        const Vec f[8] = {Vec(0.5, 0, 0) * sc, Vec(0, 0, 0), Vec(1, 0, 0) * sc, Vec(2, 0, 0) * sc,
                          Vec(0.5, 0, 0) * sc, Vec(0, 0, 0), Vec(1, 0, 0) * sc, Vec(2, 0, 0) * sc};
        double time = -7, s, t;
        Vec n, point, bary;
        CerrCapture cap;
        EXPECT_FALSE(edgeEdge(e, time, s, t, n));
        EXPECT_FALSE(vertexFace(f, time, point, bary, n));
        EXPECT_EQ(time, -7);  // outputs untouched on failure
        EXPECT_EQ(cap.text(),
                  "Error in GmIntersection::edgeEdgeIntersection() ... Unable to compute collision normal.\n"
                  "Error in GmIntersection::pointFaceIntersection() ... Unable to compute collision normal.\n")
            << "at 2^" << k;
    }
}

TEST(CcdDegenerate, CoordinatesOutsideTheRangeAreRefusedWithAMessage) {
    const double big = 0x1p520;
    const Vec e[8] = {Vec(-1, 0, 0) * big, Vec(1, 0, 0) * big, Vec(0, -1, 1) * big, Vec(0, 1, 1) * big,
                      Vec(-1, 0, 0) * big, Vec(1, 0, 0) * big, Vec(0, -1, -1) * big, Vec(0, 1, -1) * big};
    const Vec f[8] = {Vec(0.2, 0.2, 1) * big, Vec(0, 0, 0), Vec(1, 0, 0) * big, Vec(0, 1, 0) * big,
                      Vec(0.2, 0.2, -1) * big, Vec(0, 0, 0), Vec(1, 0, 0) * big, Vec(0, 1, 0) * big};
    double time, s, t;
    Vec n, point, bary;
    CerrCapture cap;
    EXPECT_FALSE(edgeEdge(e, time, s, t, n));
    EXPECT_FALSE(vertexFace(f, time, point, bary, n));
    EXPECT_EQ(cap.text(),
              "Error in GmIntersection::edgeEdgeIntersection() ... Coordinates outside the supported range.\n"
              "Error in GmIntersection::pointFaceIntersection() ... Coordinates outside the supported range.\n");
}

// Small or slender but genuine features have a normal: the degeneracy tests are relative to
// the rounding noise of the geometry, not to a fixed length.
TEST(CcdDegenerate, SmallFeaturesAtAnyScaleHaveANormal) {
    for (double scale : {1.0, 1e-4, 1e-8, 1e-9, 1e-12, 1e-20}) {
        CerrCapture cap;
        // Edge c-d along y dropping through edge a-b along x: an exact crossing at t = 0.5.
        const Vec e[8] = {Vec(-1, 0, 0) * scale, Vec(1, 0, 0) * scale, Vec(0.5, -1, 1) * scale,
                          Vec(0.5, 1, 1) * scale, Vec(-1, 0, 0) * scale, Vec(1, 0, 0) * scale,
                          Vec(0.5, -1, -1) * scale, Vec(0.5, 1, -1) * scale};
        double time, s, t;
        Vec n;
        ASSERT_TRUE(edgeEdge(e, time, s, t, n)) << "scale " << scale;
        EXPECT_NEAR(time, 0.5, 1e-9);
        EXPECT_NEAR(n.z, -1.0, 1e-9) << "scale " << scale;  // from c-d (above) towards a-b
        // A vertex dropping through the middle of a right triangle.
        const Vec f[8] = {Vec(0.2, 0.2, 1) * scale, Vec(0, 0, 0),          Vec(2, 0, 0) * scale,
                          Vec(0, 2, 0) * scale,     Vec(0.2, 0.2, -1) * scale, Vec(0, 0, 0),
                          Vec(2, 0, 0) * scale,     Vec(0, 2, 0) * scale};
        Vec point, bary;
        ASSERT_TRUE(vertexFace(f, time, point, bary, n)) << "scale " << scale;
        EXPECT_NEAR(time, 0.5, 1e-9);
        EXPECT_NEAR(n.z, 1.0, 1e-9) << "scale " << scale;  // towards the side the vertex came from
        EXPECT_EQ(cap.text(), "") << "scale " << scale;
    }
}

TEST(CcdDegenerate, ShortShallowCrossingHasANormal) {
    // Edges 10 micrometres long crossing exactly at an angle of 1e-6 rad: the cross product of
    // the edges is about 1e-16 long, yet far above the rounding noise of their directions.
    const double h = 5e-6, k = 1e-6;
    const Vec v[8] = {{-h, -h * k, h}, {h, h * k, h}, {-h, 0, 0}, {h, 0, 0},
                      {-h, -h * k, -h}, {h, h * k, -h}, {-h, 0, 0}, {h, 0, 0}};
    double time, s, t;
    Vec n;
    CerrCapture cap;
    ASSERT_TRUE(edgeEdge(v, time, s, t, n));
    EXPECT_NEAR(time, 0.5, 1e-9);
    EXPECT_NEAR(n.z, 1.0, 1e-9);  // from c-d towards a-b, which started above
    EXPECT_EQ(cap.text(), "");
}

TEST(CcdDegenerate, ParallelEdgesApartAreNoContact) {
    // Parallel edges approaching each other in their plane without touching: no contact and
    // no message.
    const Vec v[8] = {{0, 0, 0}, {2, 0, 0}, {0, 1, 0}, {2, 1, 0}, {0, 0, 0}, {2, 0, 0}, {0, 0.5, 0}, {2, 0.5, 0}};
    double time, s, t;
    Vec n;
    CerrCapture cap;
    EXPECT_FALSE(edgeEdge(v, time, s, t, n));
    EXPECT_EQ(cap.text(), "");
}

TEST(CcdDegenerate, NeverThrowsNorReturnsNaN) {
    const std::vector<std::vector<Vec>> cases = {
        std::vector<Vec>(8, Vec(0, 0, 0)),                                                   // all coincide
        std::vector<Vec>(8, Vec(1, 1, 1)),                                                   // all coincide elsewhere
        {{0, 0, 0}, {1, 0, 0}, {2, 0, 0}, {3, 0, 0}, {0, 0, 0}, {1, 0, 0}, {2, 0, 0}, {3, 0, 0}},  // collinear
        {{0, 0, 0}, {1e-300, 0, 0}, {0, 1e-300, 0}, {0, 0, 1e-300}, {0, 0, 0}, {0, 0, 0}, {0, 0, 0}, {0, 0, 0}},
        {{1e150, 0, 0}, {0, 1e150, 0}, {0, 0, 1e150}, {-1e150, 0, 0}, {0, 0, 1e150}, {1e150, 0, 0}, {0, 1e150, 0},
         {0, 0, -1e150}},
        {{0.5, 0.5, 0}, {0, 0, 0}, {1, 0, 0}, {0, 1, 0}, {0.5, 0.5, 0}, {0, 0, 0}, {1, 0, 0}, {0, 1, 0}},  // resting
    };
    CerrCapture cap;
    for (const auto& c : cases) {
        double time = 0, s = 0, t = 0;
        Vec point, bary, n;
        EXPECT_NO_THROW({
            if (vertexFace(c.data(), time, point, bary, n)) {
                EXPECT_TRUE(std::isfinite(time));
                EXPECT_TRUE(finite(point) && finite(bary) && finite(n));
            }
            if (edgeEdge(c.data(), time, s, t, n)) {
                EXPECT_TRUE(std::isfinite(time) && std::isfinite(s) && std::isfinite(t));
                EXPECT_TRUE(finite(n));
            }
        });
    }
    // Every message written is one of the two exact lines.
    std::istringstream lines(cap.text());
    std::string line;
    while (std::getline(lines, line))
        EXPECT_TRUE(line == "Error in GmIntersection::pointFaceIntersection() ... Unable to compute collision normal." ||
                    line == "Error in GmIntersection::edgeEdgeIntersection() ... Unable to compute collision normal.")
            << line;
}

// ---- Random motions against a brute-force reference ---------------------------------------------

namespace {

Vec lerp(const Vec& a, const Vec& b, double t) { return a + (b - a) * t; }

int orientAt(const Vec* v, double t) {
    Vec p[4];
    for (int k = 0; k < 4; ++k) p[k] = lerp(v[k], v[k + 4], t);
    const double o = GmPredicates::orient3d(&p[0].x, &p[1].x, &p[2].x, &p[3].x);
    return o > 0 ? 1 : (o < 0 ? -1 : 0);
}

// First time the four moving points become coplanar, found from exact signs at sampled times and
// bisection; -1 when no sign change is seen.
double referenceCoplanarTime(const Vec* v, int samples) {
    int prev = orientAt(v, 0.0);
    if (prev == 0) return 0.0;
    for (int i = 1; i <= samples; ++i) {
        const double t = double(i) / samples;
        const int cur = orientAt(v, t);
        if (cur == 0) return t;
        if (cur != prev) {
            double lo = double(i - 1) / samples, hi = t;
            for (int it = 0; it < 60; ++it) {
                const double mid = 0.5 * (lo + hi);
                const int o = orientAt(v, mid);
                if (o == 0) return mid;
                (o == prev ? lo : hi) = mid;
            }
            return 0.5 * (lo + hi);
        }
    }
    return -1.0;
}

struct RandomMotion {
    std::mt19937 rng;
    std::uniform_real_distribution<double> u{-1.0, 1.0};
    explicit RandomMotion(unsigned seed) : rng(seed) {}
    Vec vec() { return Vec(u(rng), u(rng), u(rng)); }
    double unit() { return 0.5 * (u(rng) + 1.0); }
    // Start and end positions of four points that pass through `contact` at time tc.
    void build(const Vec* contact, double tc, double speed, Vec* out) {
        for (int k = 0; k < 4; ++k) {
            const Vec vel = vec() * speed;
            out[k] = contact[k] - vel * tc;
            out[k + 4] = contact[k] + vel * (1.0 - tc);
        }
    }
};

}  // namespace

TEST(CcdRandom, VertexFaceAgreesWithReference) {
    RandomMotion rm(12345);
    int clear = 0;
    for (int trial = 0; trial < 1500; ++trial) {
        Vec c[4];
        c[1] = rm.vec();
        c[2] = rm.vec();
        c[3] = rm.vec();
        double w1 = rm.unit(), w2 = rm.unit();
        if (w1 + w2 > 1.0) { w1 = 1.0 - w1; w2 = 1.0 - w2; }
        c[0] = c[1] * (1.0 - w1 - w2) + c[2] * w1 + c[3] * w2;
        Vec v[8];
        // Order of the query: p, a, b, c.
        rm.build(c, rm.unit(), trial % 3 == 0 ? 0.05 : 1.0, v);
        double time, tref = referenceCoplanarTime(v, 1000);
        Vec point, bary, n;
        const bool hit = vertexFace(v, time, point, bary, n);
        if (tref >= 0.0) {
            // Clear contact at the reference time: the vertex well inside the face there.
            Vec p = lerp(v[0], v[4], tref), a = lerp(v[1], v[5], tref), b = lerp(v[2], v[6], tref),
                cc = lerp(v[3], v[7], tref);
            Vec w;
            GmSegmentDistance::pointTriangleDistanceSquared(p, a, b, cc, w);
            const Vec nrm = (b - a).cross(cc - a);
            const double wa = nrm.dot((b - p).cross(cc - p)) / nrm.lengthSquared();
            const double wb = nrm.dot((cc - p).cross(a - p)) / nrm.lengthSquared();
            const double wc = 1.0 - wa - wb;
            if (std::min({wa, wb, wc}) > 1e-3 && nrm.length() > 1e-3) {
                ++clear;
                EXPECT_TRUE(hit) << "trial " << trial << " tref " << tref;
                if (hit) {
                    EXPECT_LE(time, tref + 1e-6) << "trial " << trial;
                }
            }
        }
        if (hit) {
            // Soundness: at the reported time the vertex touches the face.
            const Vec p = lerp(v[0], v[4], time);
            Vec w;
            const double d2 = GmSegmentDistance::pointTriangleDistanceSquared(p, lerp(v[1], v[5], time),
                                                                              lerp(v[2], v[6], time),
                                                                              lerp(v[3], v[7], time), w);
            EXPECT_LE(std::sqrt(d2), 1e-5) << "trial " << trial;
            EXPECT_NEAR(n.length(), 1.0, 1e-12);
        }
    }
    EXPECT_GT(clear, 500);
}

TEST(CcdRandom, EdgeEdgeAgreesWithReference) {
    RandomMotion rm(777);
    int clear = 0;
    for (int trial = 0; trial < 1500; ++trial) {
        // Two segments crossing at time tc.
        Vec c[4];
        c[0] = rm.vec();
        c[1] = rm.vec();
        const Vec x = lerp(c[0], c[1], rm.unit());
        const Vec dir = rm.vec();
        const double f = rm.unit();
        c[2] = x - dir * f;
        c[3] = x + dir * (1.0 - f);
        Vec v[8];
        rm.build(c, rm.unit(), trial % 3 == 0 ? 0.05 : 1.0, v);
        double time, s, t, tref = referenceCoplanarTime(v, 1000);
        Vec n;
        const bool hit = edgeEdge(v, time, s, t, n);
        if (tref >= 0.0) {
            const Vec a = lerp(v[0], v[4], tref), b = lerp(v[1], v[5], tref), cc = lerp(v[2], v[6], tref),
                      d = lerp(v[3], v[7], tref);
            // Crossing with margin: the segments' line-line parameters well inside (0, 1).
            const Vec e1 = b - a, e2 = d - cc, r = a - cc;
            const double A = e1.dot(e1), B = e1.dot(e2), C = e2.dot(e2), D = e1.dot(r), E = e2.dot(r);
            const double den = A * C - B * B;
            if (den > 1e-6 * A * C) {
                const double ss = (B * E - C * D) / den, tt = (A * E - B * D) / den;
                if (ss > 1e-3 && ss < 1 - 1e-3 && tt > 1e-3 && tt < 1 - 1e-3) {
                    ++clear;
                    EXPECT_TRUE(hit) << "trial " << trial << " tref " << tref;
                    if (hit) {
                    EXPECT_LE(time, tref + 1e-6) << "trial " << trial;
                }
                }
            }
        }
        if (hit) {
            double s2, t2;
            const double d2 = GmSegmentDistance::segmentSegmentDistanceSquared(
                lerp(v[0], v[4], time), lerp(v[1], v[5], time), lerp(v[2], v[6], time), lerp(v[3], v[7], time), s2,
                t2);
            EXPECT_LE(std::sqrt(d2), 1e-5) << "trial " << trial;
            EXPECT_NEAR(n.length(), 1.0, 1e-12);
        }
    }
    EXPECT_GT(clear, 500);
}

namespace {

// Barycentric weights of p's projection on triangle a-b-c (in its plane).
Vec planeWeights(const Vec& p, const Vec& a, const Vec& b, const Vec& c) {
    const Vec n = (b - a).cross(c - a);
    const double n2 = n.lengthSquared();
    const double wa = n.dot((b - p).cross(c - p)) / n2, wb = n.dot((c - p).cross(a - p)) / n2;
    return Vec(wa, wb, 1.0 - wa - wb);
}

}  // namespace

// Motions inside one plane (tilted, so that rounding leaves the cubic as noise): whenever the
// vertex is clearly inside the face at a sampled time, a contact no later than that is reported.
TEST(CcdRandom, CoplanarMotionsAgainstSampling) {
    std::mt19937 rng(4242);
    std::uniform_real_distribution<double> u(-1.0, 1.0);
    int clear = 0;
    for (int trial = 0; trial < 600; ++trial) {
        Vec e1(u(rng), u(rng), u(rng)), e2(u(rng), u(rng), u(rng));
        e1 = e1 / e1.length();
        e2 = e2 - e1 * e1.dot(e2);
        e2 = e2 / e2.length();
        const Vec origin(u(rng), u(rng), u(rng));
        auto inPlane = [&](double x, double y) { return origin + e1 * x + e2 * y; };
        Vec vf[8], ee[8];
        for (int k = 0; k < 8; ++k) vf[k] = inPlane(u(rng), u(rng));
        for (int k = 0; k < 8; ++k) ee[k] = inPlane(u(rng), u(rng));
        // Reference: first sampled time with the vertex clearly inside the face.
        double tin = -1.0;
        for (int i = 0; i <= 400 && tin < 0.0; ++i) {
            const double t = i / 400.0;
            const Vec w = planeWeights(lerp(vf[0], vf[4], t), lerp(vf[1], vf[5], t), lerp(vf[2], vf[6], t),
                                       lerp(vf[3], vf[7], t));
            const Vec a = lerp(vf[1], vf[5], t), b = lerp(vf[2], vf[6], t), c = lerp(vf[3], vf[7], t);
            if (std::min({w.x, w.y, w.z}) > 1e-3 && (b - a).cross(c - a).length() > 1e-2) tin = t;
        }
        double time, s, t;
        Vec point, bary, n;
        CerrCapture cap;  // degenerate (zero-area) contacts may report their message
        const bool hit = vertexFace(vf, time, point, bary, n);
        if (tin >= 0.0) {
            ++clear;
            EXPECT_TRUE(hit) << "trial " << trial;
            if (hit) {
                EXPECT_LE(time, tin + 1e-9) << "trial " << trial;
            }
        }
        // Edge pairs: clearly crossing at a sampled time.
        double tcross = -1.0;
        for (int i = 0; i <= 400 && tcross < 0.0; ++i) {
            const double tt = i / 400.0;
            const Vec a = lerp(ee[0], ee[4], tt), b = lerp(ee[1], ee[5], tt), c = lerp(ee[2], ee[6], tt),
                      d = lerp(ee[3], ee[7], tt);
            const Vec wc = planeWeights(c, a, b, a + e1.cross(e2).cross(b - a));  // side of c w.r.t. a-b
            const Vec wd = planeWeights(d, a, b, a + e1.cross(e2).cross(b - a));
            const Vec wa = planeWeights(a, c, d, c + e1.cross(e2).cross(d - c));
            const Vec wb = planeWeights(b, c, d, c + e1.cross(e2).cross(d - c));
            if (wc.z * wd.z < -1e-4 && wa.z * wb.z < -1e-4) tcross = tt;
        }
        const bool hitEE = edgeEdge(ee, time, s, t, n);
        if (tcross >= 0.0) {
            ++clear;
            EXPECT_TRUE(hitEE) << "trial " << trial;
            if (hitEE) {
                EXPECT_LE(time, tcross + 1e-9) << "trial " << trial;
            }
        }
    }
    EXPECT_GT(clear, 200);
}

// The same random contacts far from the origin and at other scales.
TEST(CcdRandom, ContactsAtOtherScalesAndOffsets) {
    RandomMotion rm(2024);
    for (int trial = 0; trial < 600; ++trial) {
        const double scale = std::pow(10.0, -6 + (trial % 13));  // 1e-6 ... 1e6
        const Vec offset = rm.vec() * (trial % 2 ? 0.0 : 1000.0 * scale);
        Vec c[4];
        c[1] = rm.vec();
        c[2] = rm.vec();
        c[3] = rm.vec();
        c[0] = (c[1] + c[2] + c[3]) / 3.0;
        if ((c[2] - c[1]).cross(c[3] - c[1]).length() < 0.1) continue;
        Vec v[8];
        rm.build(c, 0.2 + 0.6 * rm.unit(), 1.0, v);
        for (Vec& x : v) x = x * scale + offset;
        double time;
        Vec point, bary, n;
        // The centroid reaches the face at tc; an earlier contact is allowed.
        EXPECT_TRUE(vertexFace(v, time, point, bary, n)) << "trial " << trial << " scale " << scale;
    }
}

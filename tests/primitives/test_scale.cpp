// Single-triangle primitives and proximity normals at every scale: a configuration scaled by 2^k
// gives the same answer (parameters equal, lengths scaled), touching features get a normal
// across the contact, and input that is not finite never hits.

#include <gtest/gtest.h>

#include <cmath>
#include <limits>
#include <random>

#include <quarrygeom/primitives/GmGeometry.h>
#include <quarrygeom/primitives/GmProximityCheck.h>

namespace {

using Vec = GmTVector<double>;

const int kExponents[] = {-1000, -300, -60, -40, -20, 0, 20, 40, 60, 300};
// Squared distances stay representable.
const int kSquaredExponents[] = {-480, -300, -60, -20, 0, 20, 60, 300, 480};

Vec randomVec(std::mt19937& rng) {
    std::uniform_real_distribution<double> u(-1.0, 1.0);
    const double x = u(rng), y = u(rng), z = u(rng);
    return Vec(x, y, z);
}

}  // namespace

TEST(ScaleFree, ClosestPointReturnsTheMeasuredDistanceAtEveryScale) {
    std::mt19937 rng(1);
    for (int n = 0; n < 400; ++n) {
        const Vec p = randomVec(rng), a = randomVec(rng), b = randomVec(rng);
        // Every fourth triangle has no area (c on the line a-b, up to rounding).
        const Vec c = n % 4 == 0 ? a + (b - a) * 0.37 : randomVec(rng);
        double s0, t0;
        const double d0 = GmGeometry::closestParametricPointOnTriangle(p, a, b, c, s0, t0);
        const Vec q = a + (b - a) * s0 + (c - a) * t0;
        EXPECT_NEAR(d0, (p - q).lengthSquared(), 1e-15 * (1.0 + d0)) << n;
        for (const int k : kSquaredExponents) {
            const double sc = std::ldexp(1.0, k);
            double s, t;
            const double d = GmGeometry::closestParametricPointOnTriangle(p * sc, a * sc, b * sc, c * sc, s, t);
            ASSERT_EQ(s, s0) << n << " at 2^" << k;
            ASSERT_EQ(t, t0) << n << " at 2^" << k;
            ASSERT_NEAR(d / sc / sc, d0, 1e-14 * (1.0 + d0)) << n << " at 2^" << k;
        }
    }
}

TEST(ScaleFree, RayTriangleHitsAtEveryScale) {
    std::mt19937 rng(2);
    int hits = 0;
    for (int n = 0; n < 400; ++n) {
        const Vec a = randomVec(rng), b = randomVec(rng), c = randomVec(rng), o = randomVec(rng) * 3.0;
        const Vec target = a * 0.2 + b * 0.3 + c * 0.5 + randomVec(rng) * (n % 2 ? 0.6 : 0.0);
        const Vec dir = target - o;
        Vec point0;
        double t0, u0, v0;
        const bool hit0 = GmGeometry::intersectRayTri(o, dir, a, b, c, point0, t0, u0, v0);
        hits += hit0;
        for (const int k : kExponents) {
            const double sc = std::ldexp(1.0, k);
            Vec point;
            double t, u, v;
            // Positions scaled; the direction once scaled with them and once kept.
            for (const double ds : {sc, 1.0}) {
                const bool hit = GmGeometry::intersectRayTri(o * sc, dir * ds, a * sc, b * sc, c * sc, point, t, u, v);
                ASSERT_EQ(hit, hit0) << n << " at 2^" << k;
                if (!hit) continue;
                EXPECT_EQ(u, u0) << n << " at 2^" << k;
                EXPECT_EQ(v, v0) << n << " at 2^" << k;
                EXPECT_NEAR(t * ds / sc, t0, 1e-12 * t0) << n << " at 2^" << k;
            }
        }
    }
    EXPECT_GT(hits, 150);
    // A triangle with edges of 1e-12 seen head-on.
    Vec point;
    double t, u, v;
    EXPECT_TRUE(GmGeometry::intersectRayTri(Vec(2e-13, 2e-13, 1), Vec(0, 0, -1), Vec(0, 0, 0), Vec(1e-12, 0, 0),
                                            Vec(0, 1e-12, 0), point, t, u, v));
    EXPECT_NEAR(t, 1.0, 1e-15);
}

TEST(ScaleFree, ProximityNormalsOfTouchingFeaturesCrossTheContact) {
    // A point lying on a large face, and points just above and below it.
    const Vec a(-10, -10, 0), b(10, -10, 0), c(0, 10, 0);
    for (const int k : {-40, -20, 0, 20, 40}) {
        const double sc = std::ldexp(1.0, k);
        for (const double h : {0.0, 1e-13, -1e-13}) {
            Vec n, q;
            double d = 0.1 * sc, wa, wb, wc;
            ASSERT_TRUE(GmProximityCheck::pointFaceProximity(Vec(1, 0.5, h) * sc, a * sc, b * sc, c * sc, d, n, q, wa,
                                                             wb, wc))
                << "2^" << k << " h " << h;
            EXPECT_NEAR(std::fabs(n.z), 1.0, 1e-15) << "2^" << k << " h " << h << ": " << n;
            if (h != 0.0) {
                EXPECT_EQ(n.z > 0.0, h > 0.0) << "2^" << k << " h " << h;
            }
        }
        // Crossing segments in contact or just apart: the normal of their plane, from c-d to a-b.
        for (const double h : {0.0, 1e-13, -1e-13}) {
            Vec n;
            double d = 0.1 * sc, s, t;
            ASSERT_TRUE(GmProximityCheck::edgeEdgeProximity(Vec(-5, 0.1, h) * sc, Vec(5, 0.2, h) * sc,
                                                            Vec(0.3, -5, 0) * sc, Vec(0.2, 5, 0) * sc, d, n, s, t));
            EXPECT_NEAR(std::fabs(n.z), 1.0, 1e-15) << "2^" << k << " h " << h << ": " << n;
            if (h != 0.0) {
                EXPECT_EQ(n.z > 0.0, h > 0.0) << "2^" << k << " h " << h;
            }
        }
    }
}

TEST(ScaleFree, InputThatIsNotFiniteNeverHits) {
    const double nan = std::numeric_limits<double>::quiet_NaN(), inf = std::numeric_limits<double>::infinity();
    const Vec a(0, 0, 0), b(1, 0, 0), c(0, 1, 0);
    for (const double bad : {nan, inf, -inf}) {
        const Vec x(bad, 0.2, 0.2);
        Vec point, n, q;
        double t, u, v, d = 1.0, wa, wb, wc, s;
        EXPECT_FALSE(GmGeometry::intersectRayTri(x, Vec(0, 0, -1), a, b, c, point, t, u, v));
        EXPECT_FALSE(GmGeometry::intersectRayTri(Vec(0.2, 0.2, 1), x, a, b, c, point, t, u, v));
        EXPECT_FALSE(GmGeometry::intersectRayTri(Vec(0.2, 0.2, 1), Vec(0, 0, -1), a, x, c, point, t, u, v));
        EXPECT_FALSE(GmProximityCheck::pointFaceProximity(x, a, b, c, d, n, q, wa, wb, wc));
        d = 1.0;
        EXPECT_FALSE(GmProximityCheck::pointFaceProximity(Vec(0.2, 0.2, 0), a, x, c, d, n, q, wa, wb, wc));
        d = 1.0;
        EXPECT_FALSE(GmProximityCheck::edgeEdgeProximity(a, x, c, b, d, n, s, t));
        d = bad == inf ? -inf : bad;  // an infinite bound is a valid one
        EXPECT_FALSE(GmProximityCheck::pointFaceProximity(Vec(0.2, 0.2, 0), a, b, c, d, n, q, wa, wb, wc));
    }
}

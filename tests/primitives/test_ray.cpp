#include <gtest/gtest.h>

#include <array>
#include <cfloat>
#include <cmath>
#include <random>

#include <quarrygeom/primitives/GmGeometry.h>

#ifdef QG_TEST_HAVE_GMP
#include <gmpxx.h>
#endif

using V = GmTVector<double>;

// ---- Ray-triangle -------------------------------------------------------------------------------

TEST(RayTriangle, HitReportsPointParameterAndWeights) {
    const V v0(0, 0, 0), v1(2, 0, 0), v2(0, 2, 0);
    V point;
    double t, u, v;
    // Direction of length 4: t is in units of the given direction.
    ASSERT_TRUE(GmGeometry::intersectRayTri(V(0.5, 0.25, 3), V(0, 0, -4), v0, v1, v2, point, t, u, v));
    EXPECT_NEAR(t, 0.75, 1e-15);
    EXPECT_NEAR(u, 0.25, 1e-15);
    EXPECT_NEAR(v, 0.125, 1e-15);
    EXPECT_NEAR(point.x, 0.5, 1e-15);
    EXPECT_NEAR(point.y, 0.25, 1e-15);
    EXPECT_EQ(point.z, 0.0);
    // Two-sided: the same triangle from below.
    ASSERT_TRUE(GmGeometry::intersectRayTri(V(0.5, 0.25, -1), V(0, 0, 1), v0, v1, v2, point, t, u, v));
    EXPECT_NEAR(t, 1.0, 1e-15);
}

TEST(RayTriangle, DegenerateRaysMiss) {
    const V v0(0, 0, 0), v1(1, 0, 0), v2(0, 1, 0);
    V point(7, 7, 7);
    double t = 9, u = 9, v = 9;
    EXPECT_FALSE(GmGeometry::intersectRayTri(V(0.2, 0.2, 1), V(0, 0, 0), v0, v1, v2, point, t, u, v));
    EXPECT_FALSE(GmGeometry::intersectRayTri(V(0.2, 0.2, 1), V(0, 0, 1e-17), v0, v1, v2, point, t, u, v));
    // Parallel to the plane, above it and within it.
    EXPECT_FALSE(GmGeometry::intersectRayTri(V(-1, 0.2, 1), V(1, 0, 0), v0, v1, v2, point, t, u, v));
    EXPECT_FALSE(GmGeometry::intersectRayTri(V(-1, 0.2, 0), V(1, 0, 0), v0, v1, v2, point, t, u, v));
    // A zero-area triangle is never hit.
    EXPECT_FALSE(GmGeometry::intersectRayTri(V(0.2, 0, 1), V(0, 0, -1), v0, v1, V(2, 0, 0), point, t, u, v));
    // Outputs are untouched on a miss.
    EXPECT_EQ(point, V(7, 7, 7));
    EXPECT_EQ(t, 9.0);
}

TEST(RayTriangle, OriginOnTriangleAndBehind) {
    const V v0(0, 0, 0), v1(1, 0, 0), v2(0, 1, 0);
    V point;
    double t, u, v;
    ASSERT_TRUE(GmGeometry::intersectRayTri(V(0.3, 0.3, 0), V(0, 0, 1), v0, v1, v2, point, t, u, v));
    EXPECT_EQ(t, 0.0);
    // Starting a hair behind (within the tolerance) still hits, with t clamped to 0.
    ASSERT_TRUE(GmGeometry::intersectRayTri(V(0.3, 0.3, 1e-15), V(0, 0, 1), v0, v1, v2, point, t, u, v));
    EXPECT_EQ(t, 0.0);
    // Clearly behind.
    EXPECT_FALSE(GmGeometry::intersectRayTri(V(0.3, 0.3, 1e-13), V(0, 0, 1), v0, v1, v2, point, t, u, v));
    EXPECT_FALSE(GmGeometry::intersectRayTri(V(0.3, 0.3, 1), V(0, 0, 1), v0, v1, v2, point, t, u, v));
}

TEST(RayTriangle, EdgesAndGrazingHitsAreClampedOntoTheTriangle) {
    const V v0(0, 0, 0), v1(1, 0, 0), v2(0, 1, 0);
    V point;
    double t, u, v;
    // Exactly through edge v1v2 (u + v = 1).
    ASSERT_TRUE(GmGeometry::intersectRayTri(V(0.5, 0.5, 1), V(0, 0, -1), v0, v1, v2, point, t, u, v));
    EXPECT_NEAR(u + v, 1.0, 1e-15);
    EXPECT_LE(u + v, 1.0);
    // Through each vertex.
    const V corners[3] = {v0, v1, v2};
    for (const V& c : corners) {
        ASSERT_TRUE(GmGeometry::intersectRayTri(c + V(0, 0, 2), V(0, 0, -1), v0, v1, v2, point, t, u, v));
        EXPECT_NEAR((point - c).length(), 0.0, 1e-15);
    }
    // Just outside edge v0v1 within the tolerance: clamped to v = 0 exactly.
    ASSERT_TRUE(GmGeometry::intersectRayTri(V(0.4, -1e-15, 1), V(0, 0, -1), v0, v1, v2, point, t, u, v));
    EXPECT_EQ(v, 0.0);
    EXPECT_EQ(point.y, 0.0);
    // Outside by more than the tolerance.
    EXPECT_FALSE(GmGeometry::intersectRayTri(V(0.4, -1e-13, 1), V(0, 0, -1), v0, v1, v2, point, t, u, v));
    EXPECT_FALSE(GmGeometry::intersectRayTri(V(0.6, 0.4 + 1e-13, 1), V(0, 0, -1), v0, v1, v2, point, t, u, v));
    EXPECT_FALSE(GmGeometry::intersectRayTri(V(-1e-13, 0.5, 1), V(0, 0, -1), v0, v1, v2, point, t, u, v));
}

TEST(RayTriangle, RandomRaysThroughAndPastTriangles) {
    std::mt19937_64 rng(31);
    std::uniform_real_distribution<double> uni(-1, 1), pos(0.05, 0.9);
    int hits = 0;
    for (int k = 0; k < 5000; ++k) {
        const V v0(uni(rng), uni(rng), uni(rng)), v1(uni(rng), uni(rng), uni(rng)), v2(uni(rng), uni(rng), uni(rng));
        const V n = (v1 - v0).cross(v2 - v0);
        if (n.length() < 1e-3) continue;
        // Target point with weights (w0, a, b).
        double a = pos(rng), b = pos(rng);
        const bool inside = (k % 2 == 0);
        if (inside) {
            if (a + b > 0.95) {
                a *= 0.5;
                b *= 0.5;
            }
        } else {
            a = 1.05 + 0.5 * pos(rng);  // outside across the edge opposite v1
        }
        const V target = v0 * (1 - a - b) + v1 * a + v2 * b;
        V dir(uni(rng), uni(rng), uni(rng));
        if (std::fabs(dir.dot(n)) < 0.05 * dir.length() * n.length()) continue;  // avoid grazing rays
        const double scale = 0.1 + 3 * pos(rng);
        const V origin = target - dir * scale;
        V point;
        double t, u, v;
        const bool hit = GmGeometry::intersectRayTri(origin, dir, v0, v1, v2, point, t, u, v);
        ASSERT_EQ(hit, inside) << k;
        if (!hit) continue;
        ++hits;
        EXPECT_NEAR(u, a, 1e-9) << k;
        EXPECT_NEAR(v, b, 1e-9) << k;
        EXPECT_NEAR(t, scale, 1e-9 * scale + 1e-9) << k;
        EXPECT_NEAR((point - target).length(), 0.0, 1e-9) << k;
        // The reverse ray starts past the triangle and misses.
        EXPECT_FALSE(GmGeometry::intersectRayTri(origin + dir * (2 * scale), dir, v0, v1, v2, point, t, u, v)) << k;
    }
    EXPECT_GT(hits, 1000);
}

// ---- Ray-box ------------------------------------------------------------------------------------

TEST(RayBox, EachOctantHitsAndMissesAlongEveryAxisPair) {
    const GmAxisAlignedBox box(1, 1, 1, 2, 2, 2);
    for (int cls = 0; cls < 8; ++cls) {
        const double sx = (cls & 4) ? 1 : -1, sy = (cls & 2) ? 1 : -1, sz = (cls & 1) ? 1 : -1;
        const V center(1.5, 1.5, 1.5);
        // Start on the side the ray comes from, aimed at the centre.
        const V dir(sx * 1.0, sy * 0.7, sz * 0.4);
        const V origin = center - dir * 3.0;
        GmRay ray(origin, dir);
        ASSERT_EQ(ray.getClassification(), cls);
        EXPECT_TRUE(GmGeometry::intersectRayBox(box, ray)) << cls;
        // Reversed ray from the same origin goes away from the box.
        EXPECT_FALSE(GmGeometry::intersectRayBox(box, GmRay(origin, -dir))) << cls;
        // Shifting the origin sideways along each axis by more than the box makes it miss
        // through one of the slope comparisons rather than the origin test.
        for (int axis = 0; axis < 3; ++axis) {
            for (double side : {-2.0, 2.0}) {
                V o = origin;
                o[axis] += side;
                EXPECT_FALSE(GmGeometry::intersectRayBox(box, GmRay(o, dir))) << cls << " axis " << axis << " " << side;
            }
        }
    }
}

TEST(RayBox, OriginInsideTheBoxAlwaysHits) {
    const GmAxisAlignedBox box(-1, -1, -1, 1, 1, 1);
    for (int cls = 0; cls < 8; ++cls) {
        const V dir((cls & 4) ? 1 : -1, (cls & 2) ? 1 : -1, (cls & 1) ? 1 : -1);
        EXPECT_TRUE(GmGeometry::intersectRayBox(box, GmRay(V(0.3, -0.2, 0.9), dir)));
    }
}

TEST(RayBox, EmptyBoxIsNeverHit) {
    const GmAxisAlignedBox empty;
    ASSERT_TRUE(empty.isEmpty());
    for (int cls = 0; cls < 8; ++cls) {
        const V dir((cls & 4) ? 1 : -1, (cls & 2) ? 1 : -1, (cls & 1) ? 1 : -1);
        EXPECT_FALSE(GmGeometry::intersectRayBox(empty, GmRay(V(0, 0, 0), dir))) << cls;
        EXPECT_FALSE(GmGeometry::intersectRayBox(empty, GmRay(V(1e30, -1e30, 1e30), dir))) << cls;
    }
}

TEST(RayBox, ZeroDirectionComponents) {
    const GmAxisAlignedBox box(0, 0, 0, 1, 1, 1);
    // Along +x only: y and z must lie within the box's range (closed).
    EXPECT_TRUE(GmGeometry::intersectRayBox(box, GmRay(V(-5, 0.5, 0.5), V(1, 0, 0))));
    EXPECT_TRUE(GmGeometry::intersectRayBox(box, GmRay(V(-5, 1.0, 0.0), V(1, 0, 0))));
    EXPECT_TRUE(GmGeometry::intersectRayBox(box, GmRay(V(-5, 0.0, 1.0), V(1, -0.0, 0))));
    EXPECT_FALSE(GmGeometry::intersectRayBox(box, GmRay(V(-5, 1.001, 0.5), V(1, 0, 0))));
    EXPECT_FALSE(GmGeometry::intersectRayBox(box, GmRay(V(-5, -0.001, 0.5), V(1, 0, 0))));
    EXPECT_FALSE(GmGeometry::intersectRayBox(box, GmRay(V(-5, 0.5, 1.001), V(1, 0, 0))));
    EXPECT_FALSE(GmGeometry::intersectRayBox(box, GmRay(V(5, 0.5, 0.5), V(1, 0, 0))));
    // Along -y only.
    EXPECT_TRUE(GmGeometry::intersectRayBox(box, GmRay(V(0.5, 9, 0.5), V(0, -2, 0))));
    EXPECT_FALSE(GmGeometry::intersectRayBox(box, GmRay(V(1.5, 9, 0.5), V(0, -2, 0))));
    EXPECT_FALSE(GmGeometry::intersectRayBox(box, GmRay(V(0.5, 9, -0.5), V(0, -2, 0))));
    // In the plane z = const with two moving axes.
    EXPECT_TRUE(GmGeometry::intersectRayBox(box, GmRay(V(-1, -1, 0.5), V(1, 1, 0))));
    EXPECT_FALSE(GmGeometry::intersectRayBox(box, GmRay(V(-1, -1, 1.5), V(1, 1, 0))));
    EXPECT_FALSE(GmGeometry::intersectRayBox(box, GmRay(V(-1, -1, -0.5), V(1, 1, 0))));
}

#ifdef QG_TEST_HAVE_GMP

namespace {

// Exact slab test in rational arithmetic: does o + t d, t >= 0, meet the closed box?
bool exactRayBox(const std::array<double, 6>& box, const V& o, const V& d) {
    mpq_class lo(0);
    mpq_class hi(0);
    bool hiInfinite = true;
    for (int i = 0; i < 3; ++i) {
        const mpq_class m(box[i]), M(box[i + 3]), oi(o[i]), di(d[i]);
        if (d[i] == 0.0) {
            if (oi < m || oi > M) return false;
            continue;
        }
        mpq_class t0 = (m - oi) / di, t1 = (M - oi) / di;
        if (t0 > t1) std::swap(t0, t1);
        if (t0 > lo) lo = t0;
        if (hiInfinite || t1 < hi) {
            hi = t1;
            hiInfinite = false;
        }
    }
    return hiInfinite || lo <= hi;
}

std::array<double, 6> toArray(const GmAxisAlignedBox& b) { return {b.minX, b.minY, b.minZ, b.maxX, b.maxY, b.maxZ}; }

// The box grown by a relative margin: a ray that misses even this box misses clearly.
std::array<double, 6> grown(const GmAxisAlignedBox& b, const V& o, double rel) {
    const double m = rel * (std::fabs(o.x) + std::fabs(o.y) + std::fabs(o.z) + b.maxX - b.minX + b.maxY - b.minY +
                            b.maxZ - b.minZ + std::fabs(b.minX) + std::fabs(b.minY) + std::fabs(b.minZ) + 1e-30);
    return {b.minX - m, b.minY - m, b.minZ - m, b.maxX + m, b.maxY + m, b.maxZ + m};
}

float randomCoord(std::mt19937_64& rng, float r) { return std::uniform_real_distribution<float>(-r, r)(rng); }

GmAxisAlignedBox randomBox(std::mt19937_64& rng, float r) {
    float a[3], b[3];
    for (int i = 0; i < 3; ++i) {
        a[i] = randomCoord(rng, r);
        b[i] = randomCoord(rng, r);
        if (a[i] > b[i]) std::swap(a[i], b[i]);
    }
    return GmAxisAlignedBox(a[0], a[1], a[2], b[0], b[1], b[2]);
}

}  // namespace

TEST(RayBoxExact, RandomRaysNeverMissAndOnlyClearlyMiss) {
    std::mt19937_64 rng(41);
    std::uniform_real_distribution<double> uni(-1, 1);
    int perClassHits[8] = {}, perClassMisses[8] = {};
    for (int k = 0; k < 40000; ++k) {
        const GmAxisAlignedBox box = randomBox(rng, 2.0f);
        V o(uni(rng) * 4, uni(rng) * 4, uni(rng) * 4);
        V d(uni(rng), uni(rng), uni(rng));
        // A third of the rays have one or two zero components (classified negative).
        if (k % 3 == 0) d[k % 7 % 3] = (k % 2) ? 0.0 : -0.0;
        if (k % 9 == 0) d[(k / 9) % 3] = 0.0;
        // Aim a quarter of the rays at a point of the box so that hits are common.
        if (k % 4 == 1) {
            const V target(box.minX + (box.maxX - box.minX) * 0.5 * (uni(rng) + 1),
                           box.minY + (box.maxY - box.minY) * 0.5 * (uni(rng) + 1),
                           box.minZ + (box.maxZ - box.minZ) * 0.5 * (uni(rng) + 1));
            d = target - o;
        }
        const GmRay ray(o, d);
        const bool exact = exactRayBox(toArray(box), o, d);
        const bool got = GmGeometry::intersectRayBox(box, ray);
        if (exact) {
            ASSERT_TRUE(got) << "missed a ray that meets the box, case " << k;
            perClassHits[ray.getClassification()]++;
        } else {
            perClassMisses[ray.getClassification()]++;
            if (!exactRayBox(grown(box, o, 1e-12), o, d)) {
                ASSERT_FALSE(got) << "accepted a ray that clearly misses, case " << k;
            }
        }
    }
    for (int c = 0; c < 8; ++c) {
        EXPECT_GT(perClassHits[c], 200) << c;
        EXPECT_GT(perClassMisses[c], 200) << c;
    }
}

TEST(RayBoxExact, RaysTouchingCornersEdgesAndFaces) {
    // Origins and directions are small integers, so the touching point o + d is exact; the box
    // has that point as a corner and extends away from it in random directions on each axis.
    std::mt19937_64 rng(42);
    std::uniform_int_distribution<int> coord(-8, 8), dirc(-3, 3), ext(1, 4), flip(0, 1);
    int touching = 0, perClass[8] = {};
    for (int k = 0; k < 20000; ++k) {
        const V o(coord(rng), coord(rng), coord(rng));
        V d(dirc(rng), dirc(rng), dirc(rng));
        if (d == V(0, 0, 0)) continue;
        const V c = o + d;
        double lo[3] = {}, hi[3] = {};
        for (int i = 0; i < 3; ++i) {
            const int e = ext(rng);
            // A degenerate (flat) box on some axes as well.
            const double extent = (k % 11 == 0 && i == 0) ? 0.0 : e;
            if (flip(rng)) {
                lo[i] = c[i];
                hi[i] = c[i] + extent;
            } else {
                lo[i] = c[i] - extent;
                hi[i] = c[i];
            }
        }
        const GmAxisAlignedBox box{float(lo[0]), float(lo[1]), float(lo[2]), float(hi[0]), float(hi[1]), float(hi[2])};
        // The ray passes through the corner c, so it meets the closed box.
        ASSERT_TRUE(exactRayBox(toArray(box), o, d));
        const GmRay ray(o, d);
        ASSERT_TRUE(GmGeometry::intersectRayBox(box, ray)) << "case " << k;
        ++touching;
        perClass[ray.getClassification()]++;
        // Moving the origin a clear step off the ray's line in a direction away from the box
        // gives an exact miss of the corner; check agreement whenever the exact test misses.
        V o2 = o;
        o2[k % 3] += flip(rng) ? 0.25 : -0.25;
        if (!exactRayBox(grown(box, o2, 1e-9), o2, d)) {
            EXPECT_FALSE(GmGeometry::intersectRayBox(box, GmRay(o2, d))) << "case " << k;
        }
    }
    EXPECT_GT(touching, 15000);
    for (int c = 0; c < 8; ++c) EXPECT_GT(perClass[c], 100) << c;
}

TEST(RayBoxExact, RaysAimedAtACornerThroughRounding) {
    // The origin is computed back from a float corner along a random direction, so the ray
    // passes within rounding of the corner: the exact test decides, and the box test must never
    // reject a ray that the exact test accepts.
    std::mt19937_64 rng(44);
    std::uniform_real_distribution<double> uni(-1, 1);
    int exactHits = 0;
    for (int k = 0; k < 40000; ++k) {
        const float cx = float(uni(rng) * 3), cy = float(uni(rng) * 3), cz = float(uni(rng) * 3);
        const V d(uni(rng), uni(rng), uni(rng));
        const V o = V(cx, cy, cz) - d * (0.5 + 2 * (uni(rng) + 1));
        // Box on the far side of the corner on every axis, so the corner is the only contact.
        const float ex = 0.5f;
        const GmAxisAlignedBox box{d.x > 0 ? cx - ex : cx, d.y > 0 ? cy : cy - ex, d.z > 0 ? cz - ex : cz,
                                   d.x > 0 ? cx : cx + ex, d.y > 0 ? cy + ex : cy, d.z > 0 ? cz : cz + ex};
        if (exactRayBox(toArray(box), o, d)) {
            ++exactHits;
            ASSERT_TRUE(GmGeometry::intersectRayBox(box, GmRay(o, d))) << k;
        }
    }
    EXPECT_GT(exactHits, 1000);
}

TEST(RayBoxExact, RaysGrazingAFaceWithZeroComponents) {
    std::mt19937_64 rng(43);
    std::uniform_int_distribution<int> coord(-8, 8), dirc(-3, 3);
    for (int k = 0; k < 5000; ++k) {
        const GmAxisAlignedBox box(-1, -2, -3, 2, 1, 0);
        const double mins[3] = {-1, -2, -3}, maxs[3] = {2, 1, 0};
        V o(coord(rng), coord(rng), coord(rng));
        V d(dirc(rng), dirc(rng), dirc(rng));
        const int flat = k % 3;
        d[flat] = 0.0;
        o[flat] = (k & 4) ? mins[flat] : maxs[flat];  // the ray slides in the plane of a face
        if (d == V(0, 0, 0)) continue;
        const bool exact = exactRayBox(toArray(box), o, d);
        const bool got = GmGeometry::intersectRayBox(box, GmRay(o, d));
        // Integer data: every miss is a clear one.
        ASSERT_EQ(got, exact) << k;
    }
}

#endif  // QG_TEST_HAVE_GMP

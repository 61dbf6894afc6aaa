// Ray-triangle: a table of hits, misses, edge, grazing and non-finite cases, random rays at every
// binary scale. Ray-box: against an exact rational slab test; the octant class. Closest point on
// a triangle against an independent reference (each edge and the interior in long double).

#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <cmath>
#include <limits>
#include <random>
#include <string>
#include <vector>

#include <gmpxx.h>

#include <quarrygeom/primitives/GmGeometry.h>

namespace {

using V = GmTVector<double>;
const double kAny = std::numeric_limits<double>::quiet_NaN();

TEST(RayTriangle, HitsMissesAndClampedEdgeHits) {
    const V unit[3] = {{0, 0, 0}, {1, 0, 0}, {0, 1, 0}}, two[3] = {{0, 0, 0}, {2, 0, 0}, {0, 2, 0}};
    const V tiny[3] = {{0, 0, 0}, {1e-12, 0, 0}, {0, 1e-12, 0}}, flat[3] = {{0, 0, 0}, {1, 0, 0}, {2, 0, 0}};
    const V bad[3] = {{0, 0, 0}, {HUGE_VAL, 0.2, 0.2}, {0, 1, 0}};
    struct Case {
        const char* what;
        V o, d;
        const V* tri;
        bool hit;
        double t = kAny, u = kAny, v = kAny;
        V point{kAny, kAny, kAny};
        double tol = 0.0;
    };
    const Case cases[] = {
        // t is in units of the given direction; two-sided.
        {"from above, direction of length 4", {0.5, 0.25, 3}, {0, 0, -4}, two, true, 0.75, 0.25, 0.125, {0.5, 0.25, 0}, 1e-15},
        {"from below", {0.5, 0.25, -1}, {0, 0, 1}, two, true, 1.0, 0.25, 0.125, {0.5, 0.25, 0}, 1e-15},
        {"through edge v1 v2", {0.5, 0.5, 1}, {0, 0, -1}, unit, true, 1, 0.5, 0.5, {0.5, 0.5, 0}, 1e-15},
        {"through v0", {0, 0, 2}, {0, 0, -1}, unit, true, 2, 0, 0, {0, 0, 0}, 1e-15},
        {"through v1", {1, 0, 2}, {0, 0, -1}, unit, true, 2, 1, 0, {1, 0, 0}, 1e-15},
        {"through v2", {0, 1, 2}, {0, 0, -1}, unit, true, 2, 0, 1, {0, 1, 0}, 1e-15},
        {"outside edge v0 v1 within the tolerance: clamped onto it", {0.4, -1e-15, 1}, {0, 0, -1}, unit, true, 1, kAny, 0.0,
         {kAny, 0.0, 0.0}, 0.0},
        {"origin on the triangle", {0.3, 0.3, 0}, {0, 0, 1}, unit, true, 0.0, kAny, kAny, {kAny, kAny, kAny}, 0.0},
        {"origin a hair behind: t clamped to 0", {0.3, 0.3, 1e-15}, {0, 0, 1}, unit, true, 0.0, kAny, kAny, {kAny, kAny, kAny}, 0.0},
        {"edges 1e-12 long, head-on", {2e-13, 2e-13, 1}, {0, 0, -1}, tiny, true, 1.0, 0.2, 0.2, {2e-13, 2e-13, 0}, 1e-15},
        {"outside edge v0 v1", {0.4, -1e-13, 1}, {0, 0, -1}, unit, false},
        {"outside edge v1 v2", {0.6, 0.4 + 1e-13, 1}, {0, 0, -1}, unit, false},
        {"outside edge v0 v2", {-1e-13, 0.5, 1}, {0, 0, -1}, unit, false},
        {"origin behind", {0.3, 0.3, 1e-13}, {0, 0, 1}, unit, false},
        {"origin far behind", {0.3, 0.3, 1}, {0, 0, 1}, unit, false},
        {"zero direction", {0.2, 0.2, 1}, {0, 0, 0}, unit, false},
        {"direction 1e-17 long", {0.2, 0.2, 1}, {0, 0, 1e-17}, unit, false},
        {"parallel above the plane", {-1, 0.2, 1}, {1, 0, 0}, unit, false},
        {"parallel in the plane", {-1, 0.2, 0}, {1, 0, 0}, unit, false},
        {"zero-area triangle", {0.2, 0, 1}, {0, 0, -1}, flat, false},
        {"origin not finite", {kAny, 0.2, 0.2}, {0, 0, -1}, unit, false},
        {"direction not finite in x", {0.2, 0.2, 1}, {-HUGE_VAL, 0.2, 0.2}, unit, false},
        {"direction not finite in y", {0.2, 0.2, 1}, {0.2, kAny, -1}, unit, false},
        {"direction not finite in z", {0.2, 0.2, 1}, {0.2, 0.2, kAny}, unit, false},
        {"vertex not finite", {0.2, 0.2, 1}, {0, 0, -1}, bad, false},
    };
    for (const auto& c : cases) {
        V point(7, 7, 7);
        double t = 9, u = 9, v = 9;
        const bool hit = GmGeometry::intersectRayTri(c.o, c.d, c.tri[0], c.tri[1], c.tri[2], point, t, u, v);
        ASSERT_EQ(hit, c.hit) << c.what;
        if (!hit) {
            EXPECT_TRUE(point == V(7, 7, 7) && t == 9.0) << c.what << ": outputs written on a miss";
            continue;
        }
        EXPECT_TRUE(u >= 0 && v >= 0 && u + v <= 1.0) << c.what;
        const double got[] = {t, u, v, point.x, point.y, point.z}, want[] = {c.t, c.u, c.v, c.point.x, c.point.y, c.point.z};
        for (int k = 0; k < 6; ++k) EXPECT_TRUE(std::isnan(want[k]) || std::fabs(got[k] - want[k]) <= c.tol) << c.what << " " << k;
    }
}

// Rays aimed at a point with weights (w0, a, b): inside the triangle a hit with those weights, at
// the distance of the aim; outside across the edge opposite v1 a miss; reversed past the
// triangle a miss. Scaled by 2^k (the direction with the positions or kept) the same answer.
TEST(RayTriangle, RandomRaysAtEveryScale) {
    std::mt19937_64 rng(31);
    std::uniform_real_distribution<double> uni(-1, 1), pos(0.05, 0.9);
    auto vec = [&] { return V(uni(rng), uni(rng), uni(rng)); };
    int hits = 0;
    for (int k = 0; k < 2000; ++k) {
        const V v0 = vec(), v1 = vec(), v2 = vec(), n = (v1 - v0).cross(v2 - v0);
        double a = pos(rng), b = pos(rng);
        const bool inside = k % 2 == 0;
        if (inside && a + b > 0.95) a *= 0.5, b *= 0.5;
        if (!inside) a = 1.05 + 0.5 * pos(rng);
        const V target = v0 * (1 - a - b) + v1 * a + v2 * b, dir = vec();
        if (n.length() < 1e-3 || std::fabs(dir.dot(n)) < 0.05 * dir.length() * n.length()) continue;  // not grazing
        const double dist = 0.1 + 3 * pos(rng);
        const V origin = target - dir * dist;
        V point;
        double t0, u0, w0;
        const bool hit = GmGeometry::intersectRayTri(origin, dir, v0, v1, v2, point, t0, u0, w0);
        ASSERT_EQ(hit, inside) << k;
        if (hit) {
            ++hits;
            EXPECT_NEAR(u0, a, 1e-9) << k;
            EXPECT_NEAR(w0, b, 1e-9) << k;
            EXPECT_NEAR(t0, dist, 1e-9 * dist + 1e-9) << k;
            EXPECT_NEAR((point - target).length(), 0.0, 1e-9) << k;
            V p2;
            double t2, u2, w2;
            EXPECT_FALSE(GmGeometry::intersectRayTri(origin + dir * (2 * dist), dir, v0, v1, v2, p2, t2, u2, w2)) << k;
        }
        for (const int e : {-1000, -300, -60, -20, 20, 60, 300}) {
            const double sc = std::ldexp(1.0, e);
            for (const double ds : {sc, 1.0}) {
                double t, u, w;
                ASSERT_EQ(GmGeometry::intersectRayTri(origin * sc, dir * ds, v0 * sc, v1 * sc, v2 * sc, point, t, u, w), hit)
                    << k << " at 2^" << e;
                if (!hit) continue;
                EXPECT_TRUE(u == u0 && w == w0) << k << " at 2^" << e;
                EXPECT_NEAR(t * ds / sc, t0, 1e-12 * t0) << k << " at 2^" << e;
            }
        }
    }
    EXPECT_GT(hits, 500);
}

// Exact slab test in rational arithmetic: does o + t d, t >= 0, meet the closed box?
bool exactRayBox(const std::array<double, 6>& box, const V& o, const V& d) {
    mpq_class lo(0), hi(0);
    bool bounded = false;
    for (int i = 0; i < 3; ++i) {
        const mpq_class m(box[i]), M(box[std::size_t(i) + 3]), oi(o[i]), di(d[i]);
        if (d[i] == 0.0) {
            if (oi < m || oi > M) return false;
            continue;
        }
        mpq_class t0 = (m - oi) / di, t1 = (M - oi) / di;
        if (t0 > t1) std::swap(t0, t1);
        if (t0 > lo) lo = t0;
        if (!bounded || t1 < hi) hi = t1, bounded = true;
    }
    return !bounded || lo <= hi;
}

std::array<double, 6> slabs(const GmAxisAlignedBox& b, double grow = 0.0) {
    return {b.minX - grow, b.minY - grow, b.minZ - grow, b.maxX + grow, b.maxY + grow, b.maxZ + grow};
}

struct BoxRay {
    GmAxisAlignedBox box;
    V o, d;
};

// Random boxes and rays (a third with zero components, a quarter aimed into the box); rays
// through a corner of a box extending away from it (small integers: the touch is exact; some
// boxes flat; a zero component slides in a face's plane), and moved a step off; rays computed
// back from a float corner (within rounding of it).
std::vector<BoxRay> boxRays() {
    std::mt19937_64 rng(41);
    std::uniform_real_distribution<double> uni(-1, 1);
    std::uniform_int_distribution<int> coord(-8, 8), dirc(-3, 3), ext(1, 4), flip(0, 1);
    std::vector<BoxRay> out;
    auto f = [&](double r) { return float(uni(rng) * r); };
    for (int k = 0; k < 20000; ++k) {
        float a[3], b[3];
        for (int i = 0; i < 3; ++i) {
            a[i] = f(2), b[i] = f(2);
            if (a[i] > b[i]) std::swap(a[i], b[i]);
        }
        const GmAxisAlignedBox box(a[0], a[1], a[2], b[0], b[1], b[2]);
        const V o(uni(rng) * 4, uni(rng) * 4, uni(rng) * 4);
        V d(uni(rng), uni(rng), uni(rng));
        if (k % 3 == 0) d[k % 7 % 3] = (k % 2) ? 0.0 : -0.0;
        if (k % 9 == 0) d[(k / 9) % 3] = 0.0;
        if (k % 4 == 1) d = V(a[0] + (b[0] - a[0]) * 0.5 * (uni(rng) + 1), a[1] + (b[1] - a[1]) * 0.5 * (uni(rng) + 1),
                              a[2] + (b[2] - a[2]) * 0.5 * (uni(rng) + 1)) - o;
        out.push_back({box, o, d});
    }
    for (int k = 0; k < 10000; ++k) {
        const V o(coord(rng), coord(rng), coord(rng)), d(dirc(rng), dirc(rng), dirc(rng)), c = o + d;
        if (d == V(0, 0, 0)) continue;
        double lo[3], hi[3];
        for (int i = 0; i < 3; ++i) {
            const double extent = (k % 11 == 0 && i == 0) ? 0.0 : ext(rng);
            const bool up = flip(rng);
            lo[i] = up ? c[i] : c[i] - extent;
            hi[i] = up ? c[i] + extent : c[i];
        }
        const GmAxisAlignedBox box{float(lo[0]), float(lo[1]), float(lo[2]), float(hi[0]), float(hi[1]), float(hi[2])};
        out.push_back({box, o, d});
        V o2 = o;
        o2[k % 3] += flip(rng) ? 0.25 : -0.25;
        out.push_back({box, o2, d});
    }
    for (int k = 0; k < 20000; ++k) {
        const float cx = f(3), cy = f(3), cz = f(3), e = 0.5f;
        const V d(uni(rng), uni(rng), uni(rng)), o = V(cx, cy, cz) - d * (0.5 + 2 * (uni(rng) + 1));
        out.push_back({GmAxisAlignedBox(d.x > 0 ? cx - e : cx, d.y > 0 ? cy : cy - e, d.z > 0 ? cz - e : cz,
                                        d.x > 0 ? cx : cx + e, d.y > 0 ? cy + e : cy, d.z > 0 ? cz : cz + e),
                       o, d});
    }
    return out;
}

// Never a miss of a ray that meets the box; a hit only within a few units of rounding of it.
TEST(RayBoxExact, AgreesWithExactSlabsUpToRounding) {
    int hits[8] = {}, misses[8] = {};
    for (const BoxRay& r : boxRays()) {
        const GmRay ray(r.o, r.d);
        const int cls = (r.d.x > 0 ? 4 : 0) | (r.d.y > 0 ? 2 : 0) | (r.d.z > 0 ? 1 : 0);
        ASSERT_EQ(ray.getClassification(), cls) << r.d;
        const bool got = GmGeometry::intersectRayBox(r.box, ray);
        if (exactRayBox(slabs(r.box), r.o, r.d)) {
            ++hits[cls];
            ASSERT_TRUE(got) << "missed a ray that meets the box: " << r.o << " " << r.d;
            continue;
        }
        ++misses[cls];
        const double m = 1e-12 * (r.o.length() + 2 * (r.box.maxX - r.box.minX + r.box.maxY - r.box.minY + r.box.maxZ - r.box.minZ) +
                                  std::fabs(r.box.minX) + std::fabs(r.box.minY) + std::fabs(r.box.minZ) + 1e-30);
        if (!exactRayBox(slabs(r.box, m), r.o, r.d)) {
            ASSERT_FALSE(got) << "accepted a ray that clearly misses: " << r.o << " " << r.d;
        }
    }
    for (int c = 0; c < 8; ++c) EXPECT_TRUE(hits[c] > 500 && misses[c] > 500) << c;
    // An empty box is never hit, from any octant.
    const GmAxisAlignedBox empty;
    ASSERT_TRUE(empty.isEmpty());
    for (int cls = 0; cls < 8; ++cls) {
        const V d((cls & 4) ? 1 : -1, (cls & 2) ? 1 : -1, (cls & 1) ? 1 : -1);
        EXPECT_FALSE(GmGeometry::intersectRayBox(empty, GmRay(V(0, 0, 0), d)) ||
                     GmGeometry::intersectRayBox(empty, GmRay(V(1e30, -1e30, 1e30), d))) << cls;
    }
}

using LD = long double;

// Squared distance from p to segment a-b, in long double.
LD segmentDist2(const V& p, const V& a, const V& b) {
    const LD ab[3] = {LD(b.x) - a.x, LD(b.y) - a.y, LD(b.z) - a.z}, ap[3] = {LD(p.x) - a.x, LD(p.y) - a.y, LD(p.z) - a.z};
    const LD len2 = ab[0] * ab[0] + ab[1] * ab[1] + ab[2] * ab[2];
    const LD u = len2 > 0 ? std::clamp<LD>((ap[0] * ab[0] + ap[1] * ab[1] + ap[2] * ab[2]) / len2, 0, 1) : 0;
    LD d2 = 0;
    for (int i = 0; i < 3; ++i) d2 += (ap[i] - u * ab[i]) * (ap[i] - u * ab[i]);
    return d2;
}

// The nearest of the three edges and, when the plane projection falls inside, the interior point.
LD referenceDist2(const V& p, const V& v0, const V& v1, const V& v2) {
    LD best = std::min({segmentDist2(p, v0, v1), segmentDist2(p, v0, v2), segmentDist2(p, v1, v2)});
    const LD e0[3] = {LD(v1.x) - v0.x, LD(v1.y) - v0.y, LD(v1.z) - v0.z}, e1[3] = {LD(v2.x) - v0.x, LD(v2.y) - v0.y, LD(v2.z) - v0.z};
    const LD w[3] = {LD(p.x) - v0.x, LD(p.y) - v0.y, LD(p.z) - v0.z};
    auto dot = [](const LD* a, const LD* b) { return a[0] * b[0] + a[1] * b[1] + a[2] * b[2]; };
    const LD a = dot(e0, e0), b = dot(e0, e1), c = dot(e1, e1), d = dot(e0, w), e = dot(e1, w), det = a * c - b * b;
    if (det > 1e-12L * a * c) {
        const LD s = (c * d - b * e) / det, t = (a * e - b * d) / det;
        LD d2 = 0;
        for (int i = 0; i < 3; ++i) d2 += (w[i] - s * e0[i] - t * e1[i]) * (w[i] - s * e0[i] - t * e1[i]);
        if (s >= 0 && t >= 0 && s + t <= 1) best = std::min(best, d2);
    }
    return best;
}

// Random triangles and points (every region, points in or near the plane), needles, slivers,
// zero-area and offset triangles: the distance is that of the reported (s, t) and of the
// reference; scaled by 2^k the same parameters and the distance scaled.
TEST(ClosestPointOnTriangle, AgreesWithReferenceAtEveryScale) {
    std::mt19937_64 rng(21);
    std::uniform_real_distribution<double> u(-1, 1);
    auto vec = [&](double r) { return V(u(rng), u(rng), u(rng)) * r; };
    int index = 0;
    auto check = [&](const char* family, const V& p, const V& v0, const V& v1, const V& v2) {
        const std::string what = std::string(family) + " " + std::to_string(index);
        double s = -1, t = -1;
        const double d2 = GmGeometry::closestParametricPointOnTriangle(p, v0, v1, v2, s, t);
        ASSERT_TRUE(d2 >= 0.0 && s >= 0.0 && t >= 0.0 && s + t <= 1.0 + 1e-15) << what << ": " << d2 << " " << s << " " << t;
        // Rounding of the coordinate differences adds an error proportional to the coordinates.
        const double size2 = std::max({(v0 - p).lengthSquared(), (v1 - p).lengthSquared(), (v2 - p).lengthSquared(),
                                       (v1 - v0).lengthSquared(), (v2 - v0).lengthSquared()});
        double coord = 0.0;
        for (const V* x : {&p, &v0, &v1, &v2}) coord = std::max({coord, std::fabs(x->x), std::fabs(x->y), std::fabs(x->z)});
        const double tol = 1e-10 * size2 + 1e-14 * coord * std::sqrt(size2) + 1e-300;
        EXPECT_NEAR(d2, (v0 + (v1 - v0) * s + (v2 - v0) * t - p).lengthSquared(), tol) << what;  // belongs to (s, t)
        EXPECT_NEAR(d2, double(referenceDist2(p, v0, v1, v2)), tol) << what;
        if (index % 4 == 0 && coord < 4.0)
            for (const int k : {-480, -300, -60, 60, 300, 480}) {
                const double sc = std::ldexp(1.0, k);
                double s2, t2;
                const double d = GmGeometry::closestParametricPointOnTriangle(p * sc, v0 * sc, v1 * sc, v2 * sc, s2, t2);
                ASSERT_TRUE(s2 == s && t2 == t) << what << " at 2^" << k;
                ASSERT_NEAR(d / sc / sc, d2, 1e-14 * (1.0 + d2)) << what << " at 2^" << k;
            }
        ++index;
    };
    for (int k = 0; k < 3000; ++k) {
        const V v0 = vec(1), v1 = vec(1), v2 = vec(1);
        V p = vec(k % 3 == 0 ? 3.0 : 1.0);
        if (k % 5 == 0) {  // in (or within 1e-9 of) the plane, where region boundaries matter most
            const V n = (v1 - v0).cross(v2 - v0);
            p = p - n * ((p - v0).dot(n) / n.lengthSquared()) + n * (1e-9 * u(rng));
        }
        check("random", p, v0, v1, v2);
    }
    for (const double w : {1e-3, 1e-6, 1e-9, 1e-12, 1e-15})
        for (int n = 0; n < 400; ++n) {  // the third vertex next to a point on or beyond the segment a-b
            const V a = vec(1), b = vec(1), perp = (b - a).cross(vec(1)).safeNormalized();
            const V c = a + (b - a) * ((n % 3 == 0) ? 1.5 : 0.5 * (u(rng) + 1)) + perp * (w * (b - a).length());
            const V p = n % 4 == 0 ? a + (b - a) * (0.5 * (u(rng) + 1)) + perp * (1e-3 * u(rng)) : vec(1.5);
            const V v[3] = {a, b, c};
            check("needle", p, v[n % 3], v[(n + 1) % 3], v[(n + 2) % 3]);
        }
    for (int k = 0; k < 1500; ++k) {
        const V a = vec(1), b = vec(1), p = k % 3 == 0 ? a + (b - a) * (1.5 * u(rng)) + vec(1e-6) : vec(1.5);
        const V tri[5][3] = {{a, a, a}, {a, b, b}, {a, a + (b - a) * 0.25, b}, {a + (b - a) * 0.5, a, b}, {a, b, a + (b - a) * 3.0}};
        check("zero area", p, tri[k % 5][0], tri[k % 5][1], tri[k % 5][2]);
    }
    for (int k = 0; k < 1000; ++k) {
        const double scale = (k % 2) ? 1e-7 : 1e5;
        const V offset = (k % 4 < 2) ? V(1e3, -2e3, 5e2) : V(0, 0, 0);
        check("scaled", offset + vec(2 * scale), offset + vec(scale), offset + vec(scale), offset + vec(scale));
    }
}

}  // namespace

// Closest point on a triangle: each region by hand, then random, needle, sliver, zero-area and
// offset triangles against an independent reference (each edge and the interior in long double)
// and a brute-force search; scaled by 2^k the same parameters and the distance scaled.

#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <random>
#include <string>
#include <vector>

#include <quarrygeom/primitives/GmGeometry.h>

namespace {

using V = GmTVector<double>;
using LD = long double;

V pointAt(const V& v0, const V& v1, const V& v2, double s, double t) { return v0 + (v1 - v0) * s + (v2 - v0) * t; }

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

// Brute force: a barycentric grid, then shrinking local searches around the best sample.
double bruteForceDist2(const V& p, const V& v0, const V& v1, const V& v2) {
    auto dist = [&](double s, double t) { return (pointAt(v0, v1, v2, s, t) - p).lengthSquared(); };
    double bestS = 0, bestT = 0, best = dist(0, 0);
    for (int i = 0; i <= 40; ++i) for (int j = 0; i + j <= 40; ++j)
            if (dist(i / 40.0, j / 40.0) < best) best = dist(i / 40.0, j / 40.0), bestS = i / 40.0, bestT = j / 40.0;
    for (double h = 1.0 / 40; h > 1e-10; h *= 0.5) for (int round = 0, improved = 1; improved && round < 8; ++round) {
            improved = 0;
            for (int di = -1; di <= 1; ++di) for (int dj = -1; dj <= 1; ++dj) {
                    double s = std::max(0.0, bestS + di * h), t = std::max(0.0, bestT + dj * h);
                    if (s + t > 1) s /= s + t, t = 1 - s;
                    if (dist(s, t) < best) best = dist(s, t), bestS = s, bestT = t, improved = 1;
                }
        }
    return best;
}

}  // namespace

TEST(ClosestPointOnTriangle, EachRegion) {
    const V unit[3] = {{0, 0, 0}, {1, 0, 0}, {0, 1, 0}}, off[3] = {{1, 2, 3}, {4, 2, 3}, {1, 6, 3}};
    const struct { const char* what; const V* tri; V p; double s, t, d2; } cases[] = {
        {"0: above the interior", unit, {0.25, 0.25, 2.0}, 0.25, 0.25, 4.0},
        {"1: beyond edge v1 v2", unit, {1.0, 1.0, 0.0}, 0.5, 0.5, 0.5},
        {"1: nearest point v2", unit, {0.2, 1.2, 0.0}, 0.0, 1.0, 0.08},
        {"2: beyond v2", unit, {-0.5, 2.0, 0.0}, 0.0, 1.0, 1.25},
        {"2: nearest point v2", unit, {-0.2, 1.5, 0.0}, 0.0, 1.0, 0.29},
        {"3: beyond edge v0 v2", unit, {-1.0, 0.5, 1.0}, 0.0, 0.5, 2.0},
        {"3: in the plane", unit, {-0.5, 0.5, 0.0}, 0.0, 0.5, 0.25},
        {"4: beyond v0", unit, {-1.0, -2.0, 0.0}, 0.0, 0.0, 5.0},
        {"4: through its second branch", unit, {-1.0, -0.5, 0.0}, 0.0, 0.0, 1.25},
        {"5: beyond edge v0 v1", unit, {0.5, -1.0, 0.0}, 0.5, 0.0, 1.0},
        {"6: beyond v1", unit, {3.0, -0.5, 0.0}, 1.0, 0.0, 4.25},
        {"6: nearest point v1", unit, {1.5, -0.2, 0.0}, 1.0, 0.0, 0.29},
        {"offset, beyond v1", off, {6, 1, 3}, 1.0, 0.0, 5.0},
        {"offset, beyond edge v1 v2", off, {4, 6, 3}, 0.36, 0.64, 144.0 / 25.0},
        {"offset, at v2", off, {1, 6, 3}, 0.0, 1.0, 0.0},
        {"offset, on edge v1 v2", off, {2.5, 4, 3}, 0.5, 0.5, 0.0},
    };
    for (const auto& c : cases) {
        double s, t;
        const double d2 = GmGeometry::closestParametricPointOnTriangle(c.p, c.tri[0], c.tri[1], c.tri[2], s, t);
        EXPECT_NEAR(s, c.s, 1e-15) << c.what;
        EXPECT_NEAR(t, c.t, 1e-15) << c.what;
        EXPECT_NEAR(d2, c.d2, 1e-12) << c.what;
        if (c.tri == off && (c.s == 1.0 || c.t == 1.0)) {  // a vertex, exactly
            EXPECT_TRUE(s == c.s && t == c.t) << c.what;
        }
    }
}

TEST(ClosestPointOnTriangle, AgreesWithReferenceAndBruteForceAtEveryScale) {
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
        EXPECT_NEAR(d2, (pointAt(v0, v1, v2, s, t) - p).lengthSquared(), tol) << what;  // belongs to (s, t)
        EXPECT_NEAR(d2, double(referenceDist2(p, v0, v1, v2)), tol) << what;
        if (index % 10 == 0) {
            EXPECT_LE(d2, bruteForceDist2(p, v0, v1, v2) + tol) << what;
        }
        if (index % 4 == 0 && coord < 4.0) for (const int k : {-480, -300, -60, 60, 300, 480}) {
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

#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <random>

#include <quarrygeom/primitives/GmGeometry.h>

using V = GmTVector<double>;

namespace {

V pointAt(const V& v0, const V& v1, const V& v2, double s, double t) { return v0 + (v1 - v0) * s + (v2 - v0) * t; }

// Independent reference: the closest point on each edge (segment projection in long double)
// and, when the plane projection falls inside, the interior point; the best of them.
long double segmentDist2(const V& p, const V& a, const V& b) {
    long double ab[3] = {(long double)b.x - a.x, (long double)b.y - a.y, (long double)b.z - a.z};
    long double ap[3] = {(long double)p.x - a.x, (long double)p.y - a.y, (long double)p.z - a.z};
    long double len2 = ab[0] * ab[0] + ab[1] * ab[1] + ab[2] * ab[2];
    long double u = 0;
    if (len2 > 0) u = std::min<long double>(1, std::max<long double>(0, (ap[0] * ab[0] + ap[1] * ab[1] + ap[2] * ab[2]) / len2));
    long double d2 = 0;
    for (int i = 0; i < 3; ++i) {
        const long double r = ap[i] - u * ab[i];
        d2 += r * r;
    }
    return d2;
}

long double referenceDist2(const V& p, const V& v0, const V& v1, const V& v2) {
    long double best = std::min({segmentDist2(p, v0, v1), segmentDist2(p, v0, v2), segmentDist2(p, v1, v2)});
    const long double e0[3] = {(long double)v1.x - v0.x, (long double)v1.y - v0.y, (long double)v1.z - v0.z};
    const long double e1[3] = {(long double)v2.x - v0.x, (long double)v2.y - v0.y, (long double)v2.z - v0.z};
    const long double w[3] = {(long double)p.x - v0.x, (long double)p.y - v0.y, (long double)p.z - v0.z};
    auto dotl = [](const long double* a, const long double* b) { return a[0] * b[0] + a[1] * b[1] + a[2] * b[2]; };
    const long double a = dotl(e0, e0), b = dotl(e0, e1), c = dotl(e1, e1), d = dotl(e0, w), e = dotl(e1, w);
    const long double det = a * c - b * b;
    if (det > 1e-12L * a * c) {
        const long double s = (c * d - b * e) / det, t = (a * e - b * d) / det;
        if (s >= 0 && t >= 0 && s + t <= 1) {
            long double d2 = 0;
            for (int i = 0; i < 3; ++i) {
                const long double r = w[i] - s * e0[i] - t * e1[i];
                d2 += r * r;
            }
            best = std::min(best, d2);
        }
    }
    return best;
}

// Brute force: a barycentric grid followed by shrinking local searches around the best sample.
double bruteForceDist2(const V& p, const V& v0, const V& v1, const V& v2) {
    auto dist = [&](double s, double t) { return (pointAt(v0, v1, v2, s, t) - p).lengthSquared(); };
    const int n = 40;
    double bestS = 0, bestT = 0, best = dist(0, 0);
    for (int i = 0; i <= n; ++i)
        for (int j = 0; i + j <= n; ++j) {
            const double s = double(i) / n, t = double(j) / n, d = dist(s, t);
            if (d < best) best = d, bestS = s, bestT = t;
        }
    for (double h = 1.0 / n; h > 1e-10; h *= 0.5) {
        bool improved = true;
        for (int round = 0; improved && round < 8; ++round) {
            improved = false;
            for (int di = -1; di <= 1; ++di)
                for (int dj = -1; dj <= 1; ++dj) {
                    double s = std::max(0.0, bestS + di * h), t = std::max(0.0, bestT + dj * h);
                    if (s + t > 1) {
                        const double k = s + t;
                        s /= k;
                        t /= k;
                    }
                    const double d = dist(s, t);
                    if (d < best) best = d, bestS = s, bestT = t, improved = true;
                }
        }
    }
    return best;
}

struct Case {
    V p, v0, v1, v2;
};

void checkCase(const Case& c, const char* what, int index, bool brute) {
    double s = -1, t = -1;
    const double d2 = GmGeometry::closestParametricPointOnTriangle(c.p, c.v0, c.v1, c.v2, s, t);
    ASSERT_FALSE(std::isnan(d2)) << what << " " << index;
    ASSERT_GE(d2, 0.0) << what << " " << index;
    ASSERT_GE(s, 0.0) << what << " " << index;
    ASSERT_GE(t, 0.0) << what << " " << index;
    ASSERT_LE(s + t, 1.0 + 1e-15) << what << " " << index;

    // Scale of the problem: all squared lengths involved.
    const double scale = std::max({(c.v0 - c.p).lengthSquared(), (c.v1 - c.p).lengthSquared(),
                                   (c.v2 - c.p).lengthSquared(), (c.v1 - c.v0).lengthSquared(),
                                   (c.v2 - c.v0).lengthSquared()});
    // Rounding of the coordinate differences adds an error proportional to the coordinates.
    const double coord = std::max({std::fabs(c.p.x), std::fabs(c.p.y), std::fabs(c.p.z), std::fabs(c.v0.x),
                                   std::fabs(c.v0.y), std::fabs(c.v0.z), std::fabs(c.v1.x), std::fabs(c.v1.y),
                                   std::fabs(c.v1.z), std::fabs(c.v2.x), std::fabs(c.v2.y), std::fabs(c.v2.z)});
    const double tol = 1e-10 * scale + 1e-14 * coord * std::sqrt(scale) + 1e-300;
    // The returned distance belongs to the returned parameters.
    const double direct = (pointAt(c.v0, c.v1, c.v2, s, t) - c.p).lengthSquared();
    EXPECT_NEAR(d2, direct, tol) << what << " " << index;
    // No point of the triangle is closer.
    const double ref = double(referenceDist2(c.p, c.v0, c.v1, c.v2));
    EXPECT_NEAR(d2, ref, tol) << what << " " << index;
    if (brute) {
        EXPECT_LE(d2, bruteForceDist2(c.p, c.v0, c.v1, c.v2) + tol) << what << " " << index;
    }
}

V randomPoint(std::mt19937_64& rng, double r) {
    std::uniform_real_distribution<double> u(-r, r);
    return V(u(rng), u(rng), u(rng));
}

}  // namespace

TEST(ClosestPointOnTriangle, EachRegionOfAUnitTriangle) {
    const V v0(0, 0, 0), v1(1, 0, 0), v2(0, 1, 0);
    struct Expect {
        V p;
        double s, t, d2;
    };
    const Expect cases[] = {
        {V(0.25, 0.25, 2.0), 0.25, 0.25, 4.0},     // region 0: above the interior, squared height
        {V(1.0, 1.0, 0.0), 0.5, 0.5, 0.5},         // region 1: beyond edge v1v2
        {V(-0.5, 2.0, 0.0), 0.0, 1.0, 1.25},       // region 2: beyond v2
        {V(-1.0, 0.5, 1.0), 0.0, 0.5, 2.0},        // region 3: beyond edge v0v2
        {V(-1.0, -2.0, 0.0), 0.0, 0.0, 5.0},       // region 4: beyond v0
        {V(0.5, -1.0, 0.0), 0.5, 0.0, 1.0},        // region 5: beyond edge v0v1
        {V(3.0, -0.5, 0.0), 1.0, 0.0, 4.25},       // region 6: beyond v1
        {V(0.2, 1.2, 0.0), 0.0, 1.0, 0.08},        // region 1, nearest point v2
        {V(-0.2, 1.5, 0.0), 0.0, 1.0, 0.29},       // region 2, nearest point v2
        {V(1.5, -0.2, 0.0), 1.0, 0.0, 0.29},       // region 6, nearest point v1
        {V(-0.5, 0.5, 0.0), 0.0, 0.5, 0.25},       // region 3, in the plane
        {V(-1.0, -0.5, 0.0), 0.0, 0.0, 1.25},      // region 4 through its second branch
    };
    int i = 0;
    for (const Expect& e : cases) {
        double s, t;
        const double d2 = GmGeometry::closestParametricPointOnTriangle(e.p, v0, v1, v2, s, t);
        EXPECT_NEAR(s, e.s, 1e-15) << i;
        EXPECT_NEAR(t, e.t, 1e-15) << i;
        EXPECT_NEAR(d2, e.d2, 1e-15) << i;
        ++i;
    }
}

TEST(ClosestPointOnTriangle, VertexAndEdgeConventions) {
    const V v0(1, 2, 3), v1(4, 2, 3), v2(1, 6, 3);
    double s, t;
    // Beyond vertex v1 along e0.
    double d2 = GmGeometry::closestParametricPointOnTriangle(V(6, 1, 3), v0, v1, v2, s, t);
    EXPECT_EQ(s, 1.0);
    EXPECT_EQ(t, 0.0);
    EXPECT_NEAR(d2, 5.0, 1e-12);
    // Beyond edge v1v2: s + t = 1.
    d2 = GmGeometry::closestParametricPointOnTriangle(V(4, 6, 3), v0, v1, v2, s, t);
    EXPECT_NEAR(s + t, 1.0, 1e-15);
    EXPECT_NEAR(d2, 144.0 / 25.0, 1e-12);
    // Points on the triangle are at distance zero.
    d2 = GmGeometry::closestParametricPointOnTriangle(v2, v0, v1, v2, s, t);
    EXPECT_EQ(d2, 0.0);
    EXPECT_EQ(s, 0.0);
    EXPECT_EQ(t, 1.0);
    d2 = GmGeometry::closestParametricPointOnTriangle(V(2.5, 4, 3), v0, v1, v2, s, t);
    EXPECT_NEAR(d2, 0.0, 1e-15);
    EXPECT_NEAR(s + t, 1.0, 1e-15);
}

TEST(ClosestPointOnTriangle, RandomTrianglesAgainstReferenceAndBruteForce) {
    std::mt19937_64 rng(21);
    std::uniform_real_distribution<double> u(-1, 1);
    for (int k = 0; k < 4000; ++k) {
        Case c{randomPoint(rng, k % 3 == 0 ? 3.0 : 1.0), randomPoint(rng, 1), randomPoint(rng, 1), randomPoint(rng, 1)};
        if (k % 5 == 0) {
            // Point in (or very near) the triangle's plane, where region boundaries matter most.
            const V n = (c.v1 - c.v0).cross(c.v2 - c.v0);
            c.p = c.p - n * ((c.p - c.v0).dot(n) / n.lengthSquared()) + n * (1e-9 * u(rng));
        }
        checkCase(c, "random", k, k % 10 == 0);
    }
}

TEST(ClosestPointOnTriangle, NeedleAndSliverTriangles) {
    std::mt19937_64 rng(22);
    std::uniform_real_distribution<double> u(-1, 1);
    const double widths[] = {1e-3, 1e-6, 1e-9, 1e-12, 1e-15};
    int k = 0;
    for (double w : widths) {
        for (int n = 0; n < 600; ++n, ++k) {
            const V a = randomPoint(rng, 1), b = randomPoint(rng, 1);
            V perp = (b - a).cross(randomPoint(rng, 1));
            perp = perp.safeNormalized();
            // Needle: third vertex next to a point of the segment (inside or outside it).
            const double along = (n % 3 == 0) ? 1.5 : 0.5 * (u(rng) + 1);
            const V c3 = a + (b - a) * along + perp * (w * (b - a).length());
            V p = randomPoint(rng, 1.5);
            if (n % 4 == 0) p = a + (b - a) * (0.5 * (u(rng) + 1)) + perp * (1e-3 * u(rng));  // hugging the needle
            const V verts[3] = {a, b, c3};
            const int r = n % 3;  // rotate the vertex roles
            checkCase(Case{p, verts[r], verts[(r + 1) % 3], verts[(r + 2) % 3]}, "needle", k, n % 20 == 0);
        }
    }
}

TEST(ClosestPointOnTriangle, ZeroAreaAndCollinearTriangles) {
    std::mt19937_64 rng(23);
    std::uniform_real_distribution<double> u(-1, 1);
    for (int k = 0; k < 1500; ++k) {
        const V a = randomPoint(rng, 1), b = randomPoint(rng, 1);
        V v[3];
        switch (k % 5) {
            case 0: v[0] = a, v[1] = a, v[2] = a; break;                  // a single point
            case 1: v[0] = a, v[1] = b, v[2] = b; break;                  // two coincident vertices
            case 2: v[0] = a, v[1] = a + (b - a) * 0.25, v[2] = b; break; // collinear, middle vertex
            case 3: v[0] = a + (b - a) * 0.5, v[1] = a, v[2] = b; break;  // collinear, rotated
            default: v[0] = a, v[1] = b, v[2] = a + (b - a) * 3.0; break; // collinear, outside
        }
        V p = randomPoint(rng, 1.5);
        if (k % 3 == 0) p = a + (b - a) * (1.5 * u(rng)) + randomPoint(rng, 1e-6);
        checkCase(Case{p, v[0], v[1], v[2]}, "degenerate", k, k % 10 == 0);
    }
}

TEST(ClosestPointOnTriangle, LargeOffsetsAndTinyTriangles) {
    std::mt19937_64 rng(24);
    for (int k = 0; k < 1000; ++k) {
        const double scale = (k % 2) ? 1e-7 : 1e5;
        const V offset = (k % 4 < 2) ? V(1e3, -2e3, 5e2) : V(0, 0, 0);
        Case c{offset + randomPoint(rng, 2 * scale), offset + randomPoint(rng, scale), offset + randomPoint(rng, scale),
               offset + randomPoint(rng, scale)};
        checkCase(c, "scaled", k, false);
    }
}

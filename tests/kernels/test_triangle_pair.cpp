// The static triangle-pair test against an exact rational reference, in both orders and scaled by
// powers of two: pairs on a small integer grid (coplanar, an edge in the other's plane, a vertex
// on the other face, shared edges and vertices, zero-area triangles), random pairs, and vertices
// within rounding of the other's plane near the origin and far from it, where floating-point
// plane distances are pure noise. Every intersection point lies on both triangles.

#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <cmath>
#include <limits>
#include <random>
#include <vector>

#include <qgtools/shapes.h>
#include <quarrygeom/quarrygeom.h>

#include "exact_reference.h"

namespace {

using Vec = GmTVector<double>;
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
    // An edge lying in the other triangle's plane, and mirrored.
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
    // Far from the origin (coordinates multiples of 2^-10 near 3e6): p = b0/2 + b1/4 + b2/4 lies
    // exactly on b's plane, well inside b, then nudged by k 2^-30 along an axis; q and r far off
    // the plane on one side.
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

}  // namespace

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
                for (int i = 0; i < 6; ++i) s[i] = p[std::size_t(i)] * sc;
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

TEST(TrianglePairExact, CleanSphereHasNoSelfIntersectionAtAnyScale) {
    for (const int k : {-500, -40, 0, 40, 500}) {
        GmTriangleMesh sphere = qgtools::makeIcosphere(2, 1.0);
        std::vector<Vec> v = sphere.getVertices();
        for (Vec& x : v) x *= std::ldexp(1.0, k);
        sphere.setVertices(v);
        GmBoundingTree tree(&sphere);
        std::vector<GmIntersectionInfo> found;
        GmBVHMetrics m;
        EXPECT_FALSE(tree.selfIntersect(found, false, false, false, m)) << "2^" << k;
        EXPECT_EQ(found.size(), 0u) << "2^" << k;
    }
}

TEST(TrianglePairExact, NonFiniteNeverMeets) {
    const double nan = std::numeric_limits<double>::quiet_NaN(), inf = std::numeric_limits<double>::infinity();
    const Vec a[3] = {{0, 0, 0}, {1, 0, 0}, {0, 1, 0}};
    for (const double bad : {nan, inf, -inf}) {
        const Vec b[3] = {{0.2, 0.2, -1}, {0.2, 0.2, 1}, {bad, 0.2, 0}};
        std::vector<Vec> pts;
        EXPECT_FALSE(libraryMeets(a, b, pts));
        EXPECT_FALSE(libraryMeets(b, a, pts));
    }
}

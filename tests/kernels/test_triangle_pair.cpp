// The static triangle-pair test against an exact rational reference, on random and degenerate
// pairs (coplanar, an edge in the other's plane, a vertex on the other face, shared edges and
// vertices, zero-area triangles), each scaled by powers of two.

#include <gtest/gtest.h>

#include <array>
#include <cmath>
#include <limits>
#include <random>
#include <vector>

#include <qgtools/shapes.h>
#include <quarrygeom/quarrygeom.h>

#ifdef QG_HAVE_GMP
#include "exact_reference.h"

namespace {

using Vec = GmTVector<double>;

bool exactTrianglesMeet(const Vec* a, const Vec* b) {
    return qgtest::exactTrianglesMeet(qgtest::exact(a[0]), qgtest::exact(a[1]), qgtest::exact(a[2]), qgtest::exact(b[0]),
                                      qgtest::exact(b[1]), qgtest::exact(b[2]));
}

bool libraryTrianglesMeet(const Vec* a, const Vec* b) {
    std::vector<Vec> pts;
    return GmContactKernels::triangleTriangleIntersection(a[0], a[1], a[2], b[0], b[1], b[2], pts);
}

// Random pairs on a small integer grid, where coplanar pairs, edges in the other's plane,
// vertices on the other face, shared vertices and edges and zero-area triangles all occur often;
// a third of the pairs are forced into one plane or given a shared edge.
std::vector<std::array<Vec, 6>> gridPairs(unsigned seed, int count) {
    std::mt19937 rng(seed);
    std::uniform_int_distribution<int> g(-2, 2);
    std::vector<std::array<Vec, 6>> out;
    for (int n = 0; n < count; ++n) {
        std::array<Vec, 6> p;
        for (Vec& v : p) v = Vec(g(rng), g(rng), g(rng));
        if (n % 3 == 1)
            for (Vec& v : p) v.z = 0.5 * v.x - v.y;  // all six in one plane
        if (n % 3 == 2) {
            p[3] = p[1];  // shared edge a1-a2 (as b0-b1 reversed)
            p[4] = p[0];
        }
        out.push_back(p);
    }
    return out;
}

}  // namespace

TEST(TrianglePairExact, AgreesWithRationalReferenceAtEveryScale) {
    std::vector<std::array<Vec, 6>> pairs = gridPairs(5, 2500);
    // The example of an edge lying in the other triangle's plane, and it mirrored.
    pairs.push_back({Vec(0, 0, 1), Vec(1, 0, 0.6), Vec(0.7, 0, 0), Vec(0.8, 0, 0), Vec(2.4, 0, 0), Vec(1.6, -1, 0.1)});
    pairs.push_back({Vec(0.8, 0, 0), Vec(2.4, 0, 0), Vec(1.6, -1, 0.1), Vec(0, 0, 1), Vec(1, 0, 0.6), Vec(0.7, 0, 0)});
    int meeting = 0;
    for (const auto& p : pairs) {
        const bool want = exactTrianglesMeet(&p[0], &p[3]);
        meeting += want;
        for (const int k : {-1000, -60, -20, 0, 20, 60, 900}) {
            const double sc = std::ldexp(1.0, k);
            Vec s[6];
            for (int i = 0; i < 6; ++i) s[i] = p[std::size_t(i)] * sc;
            ASSERT_EQ(libraryTrianglesMeet(&s[0], &s[3]), want)
                << "2^" << k << ": " << p[0] << p[1] << p[2] << " / " << p[3] << p[4] << p[5];
            ASSERT_EQ(libraryTrianglesMeet(&s[3], &s[0]), want) << "swapped, 2^" << k;
        }
    }
    EXPECT_GT(meeting, int(pairs.size()) / 5);
    EXPECT_LT(meeting, int(pairs.size()) * 4 / 5);
}

TEST(TrianglePairExact, RandomAndNearlyTouchingPairs) {
    // General position, and pairs whose vertex is moved onto the other's plane by rounding
    // (within an ulp of touching), at random offsets.
    std::mt19937 rng(9);
    std::uniform_real_distribution<double> u(-1.0, 1.0);
    for (int n = 0; n < 600; ++n) {
        Vec p[6];
        for (Vec& v : p) v = Vec(u(rng), u(rng), u(rng));
        if (n % 2) {
            const double s = std::fabs(u(rng)) * 0.5, t = std::fabs(u(rng)) * 0.5;
            p[3] = p[0] + (p[1] - p[0]) * s + (p[2] - p[0]) * t;  // on the face, up to rounding
        }
        const Vec offset(u(rng) * 1e3, u(rng) * 1e3, u(rng) * 1e3);
        for (Vec& v : p) v += offset;
        ASSERT_EQ(libraryTrianglesMeet(&p[0], &p[3]), exactTrianglesMeet(&p[0], &p[3])) << n;
    }
}

TEST(TrianglePairExact, CleanSphereHasNoSelfIntersectionAtAnyScale) {
    for (const int k : {-500, -160, -40, 0, 40, 160, 500}) {
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
        EXPECT_FALSE(libraryTrianglesMeet(a, b));
        EXPECT_FALSE(libraryTrianglesMeet(b, a));
    }
}

#endif  // QG_HAVE_GMP

// Orientation signs over the whole double range (subnormals included) against GMP, and the
// continuous-time edge-edge normal under power-of-two scaling.

#include <gtest/gtest.h>

#include <array>
#include <cmath>
#include <random>
#include <vector>

#include <quarrygeom/quarrygeom.h>

#ifdef QG_HAVE_GMP
#include "exact_reference.h"
#endif

namespace {

using Vec = GmTVector<double>;

#ifdef QG_HAVE_GMP
int sgnOf(double v) { return (v > 0) - (v < 0); }

// Exact sign of det(a - d, b - d, c - d) (of det(a - c, b - c) in x-y when d is null).
int exactOrient(const Vec& a, const Vec& b, const Vec& c, const Vec* d) {
    const qgtest::Exact o = qgtest::exact(d ? *d : c), p[3] = {qgtest::exact(a), qgtest::exact(b), qgtest::exact(c)};
    mpq_class m[3][3];
    for (std::size_t i = 0; i < 3; ++i)
        for (std::size_t k = 0; k < 3; ++k) m[i][k] = p[i][k] - o[k];
    if (!d) return sgn(m[0][0] * m[1][1] - m[0][1] * m[1][0]);
    return sgn(m[0][0] * (m[1][1] * m[2][2] - m[1][2] * m[2][1]) - m[0][1] * (m[1][0] * m[2][2] - m[1][2] * m[2][0]) +
               m[0][2] * (m[1][0] * m[2][1] - m[1][1] * m[2][0]));
}

TEST(PredicateRange, SignsExactAcrossTheWholeDoubleRange) {
    std::vector<std::array<Vec, 4>> cases = {
        {Vec(0x1.3cf57cb971324p-676, 0x1.005e32bb8cbp-575, -0x1.cd10a181a359p-76),
         Vec(0x1.c2f6d33629e34p-63, 0x1.49b4fc7f62p-175, -0x1.313c36454ff7ep+955),
         Vec(0x1.72cc5c95e78eep-2, 0x1.bfddb4c61ac42p-786, -0x1.d190a1c83cbdcp-288),
         Vec(0x1.3cf57cb971323p-676, 0x1.005e32bb8cbp-575, -0x1.cd10a181a359p-76)}};
    std::mt19937_64 rng(23);
    std::uniform_int_distribution<int> expo(-1074, 1000), pick(0, 7);
    std::uniform_real_distribution<double> mant(1.0, 2.0);
    auto coord = [&] { return (pick(rng) & 1 ? -1 : 1) * std::ldexp(mant(rng), expo(rng)); };
    for (int n = 0; n < 20000; ++n) {
        std::array<Vec, 4> q;
        for (Vec& v : q) v = Vec(coord(), coord(), coord());
        // Near-degenerate variants: d one unit in the last place from a, a copy of a coordinate.
        if (n % 3 == 1) q[3] = Vec(std::nextafter(q[0].x, 0.0), q[0].y, q[0].z);
        if (n % 3 == 2) q[3].y = q[0].y, q[2].z = q[1].z;
        cases.push_back(q);
    }
    int wrong3 = 0, wrong2 = 0;
    for (const auto& q : cases) {
        wrong3 += sgnOf(GmPredicates::orient3d(&q[0].x, &q[1].x, &q[2].x, &q[3].x)) != exactOrient(q[0], q[1], q[2], &q[3]);
        wrong2 += sgnOf(GmPredicates::orient2d(&q[0].x, &q[3].x, &q[2].x)) != exactOrient(q[0], q[3], q[2], nullptr);
    }
    EXPECT_EQ(wrong3, 0);  // the first case alone failed when a minor lost to underflow was scaled up
    EXPECT_EQ(wrong2, 0);
}
#endif

// Edges 1e-5 long crossing at shallow angles: the same time and normal at every power-of-two
// scale, across the edges' plane from c-d towards a-b (which starts above).
TEST(PredicateRange, EdgeEdgeNormalSameAtEveryScale) {
    const double h = 5e-6;
    for (double k : {1e-6, 1e-3, 1e-9})
        for (const Vec& o : {Vec(0, 0, 0), Vec(3e-5, -7e-5, 1e-5)}) {
            const Vec v[8] = {o + Vec(-h, -h * k, h), o + Vec(h, h * k, h),  o + Vec(-h, 0, 0), o + Vec(h, 0, 0),
                              o + Vec(-h, -h * k, -h), o + Vec(h, h * k, -h), o + Vec(-h, 0, 0), o + Vec(h, 0, 0)};
            double t0 = -1, time = -1, s, t;
            Vec n0, n;
            auto hit = [&](double sc, double& tm, Vec& nm) {
                return GmIntersection::edgeEdgeIntersection(v[0] * sc, v[1] * sc, v[2] * sc, v[3] * sc, v[4] * sc,
                                                            v[5] * sc, v[6] * sc, v[7] * sc, 1.0, tm, s, t, nm);
            };
            ASSERT_TRUE(hit(1.0, t0, n0));
            EXPECT_NEAR(n0.z, 1.0, 1e-9) << "angle " << k;
            for (int e = -40; e <= 40; ++e) {
                ASSERT_TRUE(hit(std::ldexp(1.0, e), time, n));
                EXPECT_TRUE(time == t0 && n.x == n0.x && n.y == n0.y && n.z == n0.z) << "angle " << k << " 2^" << e;
            }
        }
}

}  // namespace

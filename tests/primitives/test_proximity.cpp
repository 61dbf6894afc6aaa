// Proximity primitives at every binary scale: features touching or 1e-13 apart on either side get
// the normal across the contact, towards the first feature; input that is not finite, or a bound
// that is not, never gives a contact.

#include <gtest/gtest.h>

#include <cmath>
#include <limits>

#include <quarrygeom/primitives/GmProximityCheck.h>

using Vec = GmTVector<double>;

TEST(ProximityPrimitives, NormalsOfTouchingFeaturesCrossTheContactAtEveryScale) {
    const Vec a(-10, -10, 0), b(10, -10, 0), c(0, 10, 0);
    for (const int k : {-40, -20, 0, 20, 40}) {
        const double sc = std::ldexp(1.0, k);
        for (const double h : {0.0, 1e-13, -1e-13}) {
            Vec n, q;
            double d = 0.1 * sc, wa, wb, wc, s, t;
            ASSERT_TRUE(GmProximityCheck::pointFaceProximity(Vec(1, 0.5, h) * sc, a * sc, b * sc, c * sc, d, n, q, wa, wb, wc))
                << "2^" << k << " h " << h;
            EXPECT_NEAR(std::fabs(n.z), 1.0, 1e-15) << "2^" << k << " h " << h << ": " << n;
            EXPECT_TRUE(h == 0.0 || (n.z > 0.0) == (h > 0.0)) << "2^" << k << " h " << h;
            // Crossing segments in contact or just apart: the normal of their plane, from c-d to a-b.
            d = 0.1 * sc;
            ASSERT_TRUE(GmProximityCheck::edgeEdgeProximity(Vec(-5, 0.1, h) * sc, Vec(5, 0.2, h) * sc, Vec(0.3, -5, 0) * sc,
                                                            Vec(0.2, 5, 0) * sc, d, n, s, t));
            EXPECT_NEAR(std::fabs(n.z), 1.0, 1e-15) << "2^" << k << " h " << h << ": " << n;
            EXPECT_TRUE(h == 0.0 || (n.z > 0.0) == (h > 0.0)) << "2^" << k << " h " << h;
        }
    }
}

TEST(ProximityPrimitives, InputThatIsNotFiniteNeverHits) {
    const double inf = std::numeric_limits<double>::infinity();
    const Vec a(0, 0, 0), b(1, 0, 0), c(0, 1, 0);
    for (const double bad : {std::numeric_limits<double>::quiet_NaN(), inf, -inf}) {
        const Vec x(bad, 0.2, 0.2);
        Vec n, q;
        double d = 1.0, wa, wb, wc, s, t;
        EXPECT_FALSE(GmProximityCheck::pointFaceProximity(x, a, b, c, d, n, q, wa, wb, wc));
        d = 1.0;
        EXPECT_FALSE(GmProximityCheck::pointFaceProximity(Vec(0.2, 0.2, 0), a, x, c, d, n, q, wa, wb, wc));
        d = 1.0;
        EXPECT_FALSE(GmProximityCheck::edgeEdgeProximity(a, x, c, b, d, n, s, t));
        d = bad == inf ? -inf : bad;  // an infinite bound is a valid one
        EXPECT_FALSE(GmProximityCheck::pointFaceProximity(Vec(0.2, 0.2, 0), a, b, c, d, n, q, wa, wb, wc));
    }
}

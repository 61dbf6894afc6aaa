#include <gtest/gtest.h>

#include <cmath>
#include <limits>
#include <random>
#include <thread>
#include <vector>

#include <quarrygeom/primitives/GmPredicates.h>

#ifdef QG_TEST_HAVE_GMP
#include <gmpxx.h>
#endif

namespace {

int signOf(double v) { return (v > 0.0) - (v < 0.0); }

// The constants recomputed here at run time, the way the library derives them.
GmPredicates::Constants referenceConstants() {
    volatile double epsilon = 1.0, splitter = 1.0, check = 1.0;
    double lastcheck;
    bool everyOther = true;
    do {
        lastcheck = check;
        epsilon = epsilon * 0.5;
        if (everyOther) splitter = splitter * 2.0;
        everyOther = !everyOther;
        check = 1.0 + epsilon;
    } while (check != 1.0 && check != lastcheck);
    const double e = epsilon;
    return {e,
            splitter + 1.0,
            (3.0 + 8.0 * e) * e,
            (3.0 + 16.0 * e) * e,
            (2.0 + 12.0 * e) * e,
            (9.0 + 64.0 * e) * e * e,
            (7.0 + 56.0 * e) * e,
            (3.0 + 28.0 * e) * e,
            (26.0 + 288.0 * e) * e * e,
            (10.0 + 96.0 * e) * e,
            (4.0 + 48.0 * e) * e,
            (44.0 + 576.0 * e) * e * e,
            (16.0 + 224.0 * e) * e,
            (5.0 + 72.0 * e) * e,
            (71.0 + 1408.0 * e) * e * e};
}

void expectConstantsEqual(const GmPredicates::Constants& a, const GmPredicates::Constants& b) {
    EXPECT_EQ(a.epsilon, b.epsilon);
    EXPECT_EQ(a.splitter, b.splitter);
    EXPECT_EQ(a.resulterrbound, b.resulterrbound);
    EXPECT_EQ(a.ccwerrboundA, b.ccwerrboundA);
    EXPECT_EQ(a.ccwerrboundB, b.ccwerrboundB);
    EXPECT_EQ(a.ccwerrboundC, b.ccwerrboundC);
    EXPECT_EQ(a.o3derrboundA, b.o3derrboundA);
    EXPECT_EQ(a.o3derrboundB, b.o3derrboundB);
    EXPECT_EQ(a.o3derrboundC, b.o3derrboundC);
    EXPECT_EQ(a.iccerrboundA, b.iccerrboundA);
    EXPECT_EQ(a.iccerrboundB, b.iccerrboundB);
    EXPECT_EQ(a.iccerrboundC, b.iccerrboundC);
    EXPECT_EQ(a.isperrboundA, b.isperrboundA);
    EXPECT_EQ(a.isperrboundB, b.isperrboundB);
    EXPECT_EQ(a.isperrboundC, b.isperrboundC);
}

}  // namespace

TEST(Predicates, ConstantsMatchRuntimeDerivationAndSurviveRepeatedInit) {
    const GmPredicates::Constants before = GmPredicates::constants();
    EXPECT_EQ(before.splitter, 134217729.0);
    EXPECT_EQ(before.epsilon, std::ldexp(1.0, -53));
    EXPECT_EQ(1.0 + before.epsilon, 1.0);
    expectConstantsEqual(before, referenceConstants());
    GmPredicates::exactinit();
    GmPredicates::exactinit();
    expectConstantsEqual(before, GmPredicates::constants());
}

TEST(Predicates, SimpleOrientations) {
    const double a[3] = {0, 0, 0}, b[3] = {1, 0, 0}, c[3] = {0, 1, 0};
    EXPECT_GT(GmPredicates::orient2d(a, b, c), 0.0);  // counter-clockwise
    EXPECT_LT(GmPredicates::orient2d(a, c, b), 0.0);
    const double above[3] = {0.2, 0.2, 1.0}, below[3] = {0.2, 0.2, -1.0}, on[3] = {0.3, 0.4, 0.0};
    EXPECT_LT(GmPredicates::orient3d(a, b, c, above), 0.0);
    EXPECT_GT(GmPredicates::orient3d(a, b, c, below), 0.0);
    EXPECT_EQ(GmPredicates::orient3d(a, b, c, on), 0.0);
    // orient2d ignores z.
    const double cz[3] = {0, 1, 1e300};
    EXPECT_GT(GmPredicates::orient2d(a, b, cz), 0.0);
}

TEST(Predicates, CollinearPointsWhoseFastDeterminantIsNotZero) {
    // Points (x, 3x) with x a 51-bit integer times different powers of two lie exactly on one
    // line, but their differences round, so the fast determinant is mostly noise.
    std::mt19937_64 rng(10);
    std::uniform_int_distribution<long long> mant(1LL << 50, (1LL << 51) - 1);
    std::uniform_int_distribution<int> expo(-80, -30);
    int noisy = 0;
    for (int k = 0; k < 2000; ++k) {
        double x[3];
        for (double& v : x) v = std::ldexp(double(mant(rng)) * ((k & 1) ? -1.0 : 1.0), expo(rng));
        const double pa[3] = {x[0], 3.0 * x[0], 0}, pb[3] = {x[1], 3.0 * x[1], 0}, pc[3] = {x[2], 3.0 * x[2], 0};
        const double fast = (pa[0] - pc[0]) * (pb[1] - pc[1]) - (pa[1] - pc[1]) * (pb[0] - pc[0]);
        if (fast != 0.0) ++noisy;
        ASSERT_EQ(GmPredicates::orient2d(pa, pb, pc), 0.0) << k;
        ASSERT_EQ(GmPredicates::orient2d(pc, pa, pb), 0.0) << k;
    }
    EXPECT_GT(noisy, 100);  // the exact stages were needed
}

TEST(Predicates, CoplanarPointsNear1e15AndOneUlpPerturbation) {
    // Points on the plane z = x + 2y with integer coordinates near 1e15: exactly coplanar.
    const double pa[3] = {1e15, 1e15 + 7, 3e15 + 14};
    const double pb[3] = {1e15 + 3, 1e15 - 5, 3e15 - 7};
    const double pc[3] = {1e15 - 11, 1e15 + 2, 3e15 - 7};
    const double pd[3] = {1e15 + 1, 1e15 + 1, 3e15 + 3};
    EXPECT_EQ(GmPredicates::orient3d(pa, pb, pc, pd), 0.0);
    // Raising pd by one unit in the last place puts it above the plane (seen from where pa, pb, pc
    // run counter-clockwise, which the exact determinant below decides).
    double up[3] = {pd[0], pd[1], std::nextafter(pd[2], 1e300)};
    double down[3] = {pd[0], pd[1], std::nextafter(pd[2], -1e300)};
    const double ru = GmPredicates::orient3d(pa, pb, pc, up);
    const double rd = GmPredicates::orient3d(pa, pb, pc, down);
    EXPECT_NE(ru, 0.0);
    EXPECT_NE(rd, 0.0);
    EXPECT_EQ(signOf(ru), -signOf(rd));
#ifdef QG_TEST_HAVE_GMP
    auto exact = [](const double* a, const double* b, const double* c, const double* d) {
        mpq_class m[3][3];
        const double* p[3] = {a, b, c};
        for (int i = 0; i < 3; ++i)
            for (int j = 0; j < 3; ++j) m[i][j] = mpq_class(p[i][j]) - mpq_class(d[j]);
        mpq_class det = m[0][0] * (m[1][1] * m[2][2] - m[1][2] * m[2][1]) -
                        m[0][1] * (m[1][0] * m[2][2] - m[1][2] * m[2][0]) +
                        m[0][2] * (m[1][0] * m[2][1] - m[1][1] * m[2][0]);
        return sgn(det);
    };
    EXPECT_EQ(signOf(ru), exact(pa, pb, pc, up));
    EXPECT_EQ(signOf(rd), exact(pa, pb, pc, down));
    EXPECT_EQ(0, exact(pa, pb, pc, pd));
#endif
}

TEST(Predicates, ThreadsSeeTheSameConstantsAndResults) {
    const double pa[3] = {0.1, 0.2, 0.3}, pb[3] = {1.7, -0.4, 0.9}, pc[3] = {-0.6, 1.1, 0.25};
    const double pd[3] = {0.4, 0.3, 0.55};
    const double expected = GmPredicates::orient3d(pa, pb, pc, pd);
    std::vector<std::thread> threads;
    std::vector<double> got(4);
    for (int i = 0; i < 4; ++i)
        threads.emplace_back([&, i] {
            GmPredicates::exactinit();
            double r = 0;
            for (int k = 0; k < 1000; ++k) r = GmPredicates::orient3d(pa, pb, pc, pd);
            got[i] = r;
        });
    for (auto& t : threads) t.join();
    for (double r : got) EXPECT_EQ(r, expected);
}

#ifdef QG_TEST_HAVE_GMP

namespace {

int exactOrient2d(const double* a, const double* b, const double* c) {
    const mpq_class ax(a[0]), ay(a[1]), bx(b[0]), by(b[1]), cx(c[0]), cy(c[1]);
    return sgn((ax - cx) * (by - cy) - (ay - cy) * (bx - cx));
}

int exactOrient3d(const double* a, const double* b, const double* c, const double* d) {
    mpq_class m[3][3];
    const double* p[3] = {a, b, c};
    for (int i = 0; i < 3; ++i)
        for (int j = 0; j < 3; ++j) m[i][j] = mpq_class(p[i][j]) - mpq_class(d[j]);
    // Rows pa - pd, pb - pd, pc - pd; column order x, y, z.
    const mpq_class det = m[0][0] * (m[1][1] * m[2][2] - m[1][2] * m[2][1]) -
                          m[0][1] * (m[1][0] * m[2][2] - m[1][2] * m[2][0]) +
                          m[0][2] * (m[1][0] * m[2][1] - m[1][1] * m[2][0]);
    return sgn(det);
}

struct Counts {
    int positive = 0, negative = 0, zero = 0;
    void add(int s) { (s > 0 ? positive : (s < 0 ? negative : zero))++; }
};

double nudge(double v, int ulps) {
    const double dir = ulps > 0 ? std::numeric_limits<double>::infinity() : -std::numeric_limits<double>::infinity();
    for (int i = 0; i < std::abs(ulps); ++i) v = std::nextafter(v, dir);
    return v;
}

}  // namespace

TEST(PredicatesExact, Orient3dRandomInputs) {
    std::mt19937_64 rng(11);
    std::uniform_real_distribution<double> uni(-1.0, 1.0);
    Counts counts;
    for (int n = 0; n < 3000; ++n) {
        double p[4][3];
        for (auto& q : p)
            for (double& c : q) c = uni(rng);
        const int want = exactOrient3d(p[0], p[1], p[2], p[3]);
        counts.add(want);
        ASSERT_EQ(signOf(GmPredicates::orient3d(p[0], p[1], p[2], p[3])), want) << n;
    }
    EXPECT_GT(counts.positive, 1000);
    EXPECT_GT(counts.negative, 1000);
}

TEST(PredicatesExact, Orient3dNearlyCoplanarAtManyScales) {
    // Four points on a plane through random points, the fourth placed by rounding onto the
    // plane and then moved by a few ulps: the adaptive stages decide these.
    std::mt19937_64 rng(12);
    std::uniform_real_distribution<double> uni(-1.0, 1.0);
    std::uniform_int_distribution<int> ulps(-3, 3);
    const double scales[] = {1.0, 1e15, 1e-15, 3.7e7};
    Counts counts;
    int n = 0;
    for (double scale : scales) {
        for (int k = 0; k < 1500; ++k, ++n) {
            double a[3], b[3], c[3], d[3];
            for (int j = 0; j < 3; ++j) {
                a[j] = uni(rng) * scale;
                b[j] = uni(rng) * scale;
                c[j] = uni(rng) * scale;
            }
            // d = a + s (b - a) + t (c - a), rounded: lies within rounding of the plane.
            const double s = uni(rng), t = uni(rng);
            for (int j = 0; j < 3; ++j) d[j] = a[j] + s * (b[j] - a[j]) + t * (c[j] - a[j]);
            const int axis = k % 3;
            d[axis] = nudge(d[axis], ulps(rng));
            const int want = exactOrient3d(a, b, c, d);
            counts.add(want);
            ASSERT_EQ(signOf(GmPredicates::orient3d(a, b, c, d)), want) << "scale " << scale << " case " << k;
            // Permutations flip or keep the sign exactly.
            ASSERT_EQ(signOf(GmPredicates::orient3d(b, a, c, d)), -want);
            ASSERT_EQ(signOf(GmPredicates::orient3d(b, c, a, d)), want);
        }
    }
    EXPECT_GT(counts.positive, 100);
    EXPECT_GT(counts.negative, 100);
}

TEST(PredicatesExact, Orient3dExactlyCoplanarAndOneUlpOff) {
    // Integer points on z = p x + q y + r (exact in double up to 2^53), at several magnitudes,
    // scaled by powers of two so that they stay exactly coplanar.
    std::mt19937_64 rng(13);
    std::uniform_int_distribution<long long> small(-1000000, 1000000);
    std::uniform_int_distribution<int> coef(-4, 4);
    const int exponents[] = {0, -50, -100, 20};
    Counts perturbed;
    for (int e : exponents) {
        for (int k = 0; k < 800; ++k) {
            const long long base = (k % 2) ? 200000000000000LL : 0;  // coordinates near 2e14 .. 1e15
            const int pcoef = coef(rng), qcoef = coef(rng);
            double pts[4][3];
            for (auto& pt : pts) {
                const long long x = base + small(rng), y = base + small(rng);
                const long long z = pcoef * x + qcoef * y + 17;
                pt[0] = std::ldexp(static_cast<double>(x), e);
                pt[1] = std::ldexp(static_cast<double>(y), e);
                pt[2] = std::ldexp(static_cast<double>(z), e);
            }
            ASSERT_EQ(exactOrient3d(pts[0], pts[1], pts[2], pts[3]), 0);
            ASSERT_EQ(GmPredicates::orient3d(pts[0], pts[1], pts[2], pts[3]), 0.0) << e << " " << k;
            // Move one coordinate of one point by one ulp.
            const int which = k % 4, axis = (k / 4) % 3;
            pts[which][axis] = nudge(pts[which][axis], (k & 8) ? 1 : -1);
            const int want = exactOrient3d(pts[0], pts[1], pts[2], pts[3]);
            perturbed.add(want);
            ASSERT_EQ(signOf(GmPredicates::orient3d(pts[0], pts[1], pts[2], pts[3])), want) << e << " " << k;
        }
    }
    EXPECT_GT(perturbed.positive, 100);
    EXPECT_GT(perturbed.negative, 100);
}

TEST(PredicatesExact, Orient3dCoplanarWithRoundedDifferences) {
    // Points (x, y, x + y) with 20-bit x, y at binary scales far apart lie exactly on one plane,
    // yet their differences round: only the exact last stage can return zero. Moving a point
    // by one ulp then leaves a determinant far below the first-order error bounds.
    std::mt19937_64 rng(17);
    std::uniform_int_distribution<long long> mant(1 << 19, (1 << 20) - 1);
    std::uniform_int_distribution<int> expo(-60, 10);
    Counts perturbed;
    for (int k = 0; k < 3000; ++k) {
        double pts[4][3];
        for (auto& p : pts) {
            const int e = expo(rng);
            p[0] = std::ldexp(double(mant(rng)) * ((k & 1) ? -1 : 1), e);
            p[1] = std::ldexp(double(mant(rng)) * ((k & 2) ? -1 : 1), e);
            p[2] = p[0] + p[1];
        }
        ASSERT_EQ(exactOrient3d(pts[0], pts[1], pts[2], pts[3]), 0);
        ASSERT_EQ(GmPredicates::orient3d(pts[0], pts[1], pts[2], pts[3]), 0.0) << k;
        ASSERT_EQ(GmPredicates::orient3d(pts[3], pts[1], pts[0], pts[2]), 0.0) << k;
        pts[k % 4][(k / 4) % 3] = nudge(pts[k % 4][(k / 4) % 3], (k & 4) ? 1 : -1);
        const int want = exactOrient3d(pts[0], pts[1], pts[2], pts[3]);
        perturbed.add(want);
        ASSERT_EQ(signOf(GmPredicates::orient3d(pts[0], pts[1], pts[2], pts[3])), want) << k;
        ASSERT_EQ(signOf(GmPredicates::orient3d(pts[1], pts[0], pts[2], pts[3])), -want) << k;
    }
    EXPECT_GT(perturbed.positive, 500);
    EXPECT_GT(perturbed.negative, 500);
}

TEST(PredicatesExact, Orient3dDegenerateConfigurations) {
    std::mt19937_64 rng(14);
    std::uniform_real_distribution<double> uni(-1.0, 1.0);
    for (int k = 0; k < 500; ++k) {
        double a[3], b[3], d[3];
        for (int j = 0; j < 3; ++j) {
            a[j] = uni(rng);
            b[j] = uni(rng);
            d[j] = uni(rng);
        }
        // Repeated points and a collinear triple always give zero.
        EXPECT_EQ(GmPredicates::orient3d(a, a, b, d), 0.0);
        EXPECT_EQ(GmPredicates::orient3d(a, b, d, d), 0.0);
        double mid[3];
        for (int j = 0; j < 3; ++j) mid[j] = 0.5 * (a[j] + b[j]);
        const int want = exactOrient3d(a, b, mid, d);  // mid may be off the line by rounding
        EXPECT_EQ(signOf(GmPredicates::orient3d(a, b, mid, d)), want);
    }
}

TEST(PredicatesExact, Orient2dRandomAndNearlyCollinear) {
    std::mt19937_64 rng(15);
    std::uniform_real_distribution<double> uni(-1.0, 1.0);
    std::uniform_int_distribution<int> ulps(-2, 2);
    const double scales[] = {1.0, 1e15, 1e-15};
    Counts counts;
    for (double scale : scales) {
        for (int k = 0; k < 2000; ++k) {
            double a[3] = {uni(rng) * scale, uni(rng) * scale, 0}, b[3] = {uni(rng) * scale, uni(rng) * scale, 0};
            double c[3];
            if (k % 4 == 0) {
                c[0] = uni(rng) * scale;
                c[1] = uni(rng) * scale;
            } else {
                const double t = uni(rng) * 3.0;
                c[0] = nudge(a[0] + t * (b[0] - a[0]), ulps(rng));
                c[1] = nudge(a[1] + t * (b[1] - a[1]), ulps(rng));
            }
            c[2] = 0;
            const int want = exactOrient2d(a, b, c);
            counts.add(want);
            ASSERT_EQ(signOf(GmPredicates::orient2d(a, b, c)), want) << scale << " " << k;
            ASSERT_EQ(signOf(GmPredicates::orient2d(b, a, c)), -want);
        }
    }
    EXPECT_GT(counts.positive, 500);
    EXPECT_GT(counts.negative, 500);
}

TEST(PredicatesExact, Orient2dExactlyCollinearLargeCoordinates) {
    std::mt19937_64 rng(16);
    std::uniform_int_distribution<long long> step(-100000, 100000);
    Counts perturbed;
    for (int k = 0; k < 2000; ++k) {
        // Points x0 + i * (dx, dy) with integers near 1e15: exactly collinear.
        const long long x0 = 900000000000000LL + step(rng), y0 = -700000000000000LL + step(rng);
        const long long dx = step(rng) / 1000, dy = step(rng) / 1000;
        const long long i = step(rng) % 37, j = step(rng) % 41;
        double a[3] = {double(x0), double(y0), 0};
        double b[3] = {double(x0 + i * dx), double(y0 + i * dy), 0};
        double c[3] = {double(x0 + j * dx), double(y0 + j * dy), 0};
        ASSERT_EQ(GmPredicates::orient2d(a, b, c), 0.0);
        c[k % 2] = nudge(c[k % 2], (k & 2) ? 1 : -1);
        const int want = exactOrient2d(a, b, c);
        perturbed.add(want);
        ASSERT_EQ(signOf(GmPredicates::orient2d(a, b, c)), want);
    }
    EXPECT_GT(perturbed.positive + perturbed.negative, 1000);
}

TEST(PredicatesExact, EveryFiniteScaleAndMixedMagnitudes) {
    // Exactly coplanar (collinear) integer points, then one coordinate one ulp off, scaled by
    // 2^k from the subnormal range to near the largest double; and points whose coordinates
    // have unrelated exponents, with repeated points nudged by one ulp.
    std::mt19937_64 rng(17);
    std::uniform_int_distribution<int> small(-1000, 1000);
    for (int k = -1070; k <= 990; k += 23) {
        for (int n = 0; n < 20; ++n) {
            const long long p = small(rng), q = small(rng), r = small(rng);
            double pts[4][3];
            for (auto& x : pts) {
                const long long xi = small(rng), yi = small(rng);
                x[0] = std::ldexp(double(xi), k);
                x[1] = std::ldexp(double(yi), k);
                x[2] = std::ldexp(double(p * xi + q * yi + r * 1000), k);
            }
            ASSERT_EQ(exactOrient3d(pts[0], pts[1], pts[2], pts[3]), 0);
            ASSERT_EQ(signOf(GmPredicates::orient3d(pts[0], pts[1], pts[2], pts[3])), 0) << "2^" << k;
            pts[3][n % 3] = nudge(pts[3][n % 3], n % 2 ? 1 : -1);
            ASSERT_EQ(signOf(GmPredicates::orient3d(pts[0], pts[1], pts[2], pts[3])),
                      exactOrient3d(pts[0], pts[1], pts[2], pts[3]))
                << "2^" << k;
            const double a[2] = {pts[0][0], pts[0][1]};
            double b[2];
            // a, 2a and -a are collinear (exact multiples); then one ulp off.
            b[0] = 2.0 * a[0];
            b[1] = 2.0 * a[1];
            double c[2] = {-a[0], -a[1]};
            ASSERT_EQ(signOf(GmPredicates::orient2d(a, b, c)), 0) << "2^" << k;
            c[n % 2] = nudge(c[n % 2], 1);
            ASSERT_EQ(signOf(GmPredicates::orient2d(a, b, c)), exactOrient2d(a, b, c)) << "2^" << k;
        }
    }
    std::uniform_int_distribution<int> exponent(-1074, 1000);
    std::uniform_real_distribution<double> mant(-1.0, 1.0);
    for (int n = 0; n < 4000; ++n) {
        double pts[4][3];
        for (auto& x : pts)
            for (double& c : x) c = std::ldexp(mant(rng), exponent(rng));
        if (n % 2) {
            for (int j = 0; j < 3; ++j) pts[3][j] = pts[n % 3][j];
            pts[3][n % 3] = nudge(pts[3][n % 3], (n & 4) ? 1 : -1);
        }
        ASSERT_EQ(signOf(GmPredicates::orient3d(pts[0], pts[1], pts[2], pts[3])),
                  exactOrient3d(pts[0], pts[1], pts[2], pts[3]))
            << n;
        ASSERT_EQ(signOf(GmPredicates::orient2d(pts[0], pts[1], pts[3])), exactOrient2d(pts[0], pts[1], pts[3])) << n;
    }
    // Not finite: no sign at all.
    const double nan = std::numeric_limits<double>::quiet_NaN(), inf = std::numeric_limits<double>::infinity();
    const double o[3] = {0, 0, 0}, x[3] = {1, 0, 0}, y[3] = {0, 1, 0}, bad[2][3] = {{nan, 0, 1}, {inf, 0, 1}};
    for (const auto& z : bad) {
        EXPECT_TRUE(std::isnan(GmPredicates::orient3d(o, x, y, z)));
        EXPECT_TRUE(std::isnan(GmPredicates::orient2d(o, x, z)));
    }
}

#endif  // QG_TEST_HAVE_GMP

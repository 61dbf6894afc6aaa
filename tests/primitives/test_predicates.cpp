// Orientation predicates against exact rational arithmetic (GMP), with the sign under
// permutation, on families of points the adaptive stages must decide: random, within a few ulps
// of a plane or line, exactly coplanar or collinear with rounding differences (only the exact
// last stage gives zero), repeated points, every binary scale from the subnormals to near
// overflow, and unrelated magnitudes. Non-finite input has no sign.

#include <gtest/gtest.h>

#include <array>
#include <cmath>
#include <limits>
#include <random>
#include <string>
#include <thread>
#include <vector>

#include <gmpxx.h>

#include <quarrygeom/primitives/GmPredicates.h>

namespace {

using Point = std::array<double, 3>;
using Quad = std::array<Point, 4>;

int signOf(double v) { return (v > 0.0) - (v < 0.0); }

int exactOrient2d(const Point& a, const Point& b, const Point& c) {
    const mpq_class ax(a[0]), ay(a[1]), bx(b[0]), by(b[1]), cx(c[0]), cy(c[1]);
    return sgn((ax - cx) * (by - cy) - (ay - cy) * (bx - cx));
}

// Determinant of the rows a - d, b - d, c - d.
int exactOrient3d(const Point& a, const Point& b, const Point& c, const Point& d) {
    mpq_class m[3][3];
    const Point* p[3] = {&a, &b, &c};
    for (int i = 0; i < 3; ++i)
        for (int j = 0; j < 3; ++j) m[i][j] = mpq_class((*p[i])[j]) - mpq_class(d[j]);
    return sgn(m[0][0] * (m[1][1] * m[2][2] - m[1][2] * m[2][1]) - m[0][1] * (m[1][0] * m[2][2] - m[1][2] * m[2][0]) +
               m[0][2] * (m[1][0] * m[2][1] - m[1][1] * m[2][0]));
}

double nudge(double v, int ulps) {
    for (int i = 0; i < std::abs(ulps); ++i) v = std::nextafter(v, ulps > 0 ? INFINITY : -INFINITY);
    return v;
}

// The cases of one family; an exactly degenerate case is mostly followed by a copy with one
// coordinate one ulp off.
std::vector<Quad> family(int f, std::mt19937_64& rng) {
    std::uniform_real_distribution<double> u(-1.0, 1.0);
    std::vector<Quad> out;
    auto nudged = [&](Quad c, int i, int j, int ulps) {
        out.push_back(c);
        c[i][j] = nudge(c[i][j], ulps);
        out.push_back(c);
    };
    if (f == 0)  // random
        for (int n = 0; n < 3000; ++n)
            out.push_back({{{u(rng), u(rng), u(rng)}, {u(rng), u(rng), u(rng)}, {u(rng), u(rng), u(rng)}, {u(rng), u(rng), u(rng)}}});
    if (f == 1) {  // the third point within a few ulps of the line of the first two (in x, y), or the fourth of their plane
        std::uniform_int_distribution<int> ulps(-3, 3);
        for (const double scale : {1.0, 1e15, 1e-15, 3.7e7})
            for (int k = 0; k < 800; ++k) {
                Quad q;
                for (Point& x : q) x = {u(rng) * scale, u(rng) * scale, u(rng) * scale};
                const double s = u(rng) * 3.0, t = u(rng);
                for (int j = 0; j < 3; ++j) {
                    if (k % 2 && j < 2) q[2][j] = nudge(q[0][j] + s * (q[1][j] - q[0][j]), ulps(rng));
                    if (k % 2 == 0) q[3][j] = q[0][j] + s * (q[1][j] - q[0][j]) + t * (q[2][j] - q[0][j]);
                }
                q[3][k % 3] = nudge(q[3][k % 3], ulps(rng));
                out.push_back(q);
            }
    }
    if (f == 2) {  // integer points on a plane, near 0 or 2e14, scaled by 2^e
        std::uniform_int_distribution<long long> small(-1000000, 1000000);
        std::uniform_int_distribution<int> coef(-4, 4);
        for (const int e : {0, -50, -100, 20})
            for (int k = 0; k < 400; ++k) {
                const long long base = (k % 2) ? 200000000000000LL : 0, p = coef(rng), q = coef(rng);
                Quad c;
                for (Point& x : c) {
                    const long long xi = base + small(rng), yi = base + small(rng);
                    x = {std::ldexp(double(xi), e), std::ldexp(double(yi), e), std::ldexp(double(p * xi + q * yi + 17), e)};
                }
                nudged(c, k % 4, (k / 4) % 3, (k & 8) ? 1 : -1);
            }
    }
    if (f == 3) {  // (x, y, x + y) at exponents far apart, the first three on y = 3x in every other case
        std::uniform_int_distribution<long long> m20(1 << 19, (1 << 20) - 1), m51(1LL << 50, (1LL << 51) - 1);
        std::uniform_int_distribution<int> e20(-60, 10), e51(-80, -30);
        for (int k = 0; k < 2000; ++k) {
            Quad c;
            for (Point& x : c) {
                const int e = e20(rng);
                x[0] = std::ldexp(double(m20(rng)) * ((k & 1) ? -1 : 1), e);
                x[1] = std::ldexp(double(m20(rng)) * ((k & 2) ? -1 : 1), e);
                x[2] = x[0] + x[1];
            }
            for (int i = 0; i < 3 && k % 2; ++i) {
                c[i][0] = std::ldexp(double(m51(rng)) * ((k & 2) ? -1.0 : 1.0), e51(rng));
                c[i][1] = 3.0 * c[i][0];
            }
            nudged(c, k % 4, (k / 4) % 3, (k & 4) ? 1 : -1);
        }
    }
    if (f == 4)  // repeated points and midpoints
        for (int k = 0; k < 500; ++k) {
            const Point a{u(rng), u(rng), u(rng)}, b{u(rng), u(rng), u(rng)}, d{u(rng), u(rng), u(rng)};
            out.insert(out.end(), {{{a, a, b, d}}, {{a, b, d, d}}, {{a, b, {0.5 * (a[0] + b[0]), 0.5 * (a[1] + b[1]), 0.5 * (a[2] + b[2])}, d}}});
        }
    if (f == 5) {  // every binary scale: small integers on a plane; a, 2a and -a (collinear in x, y)
        std::uniform_int_distribution<int> small(-1000, 1000);
        for (int k = -1070; k <= 990; k += 23)
            for (int n = 0; n < 10; ++n) {
                const long long p = small(rng), q = small(rng), r = small(rng);
                Quad c;
                for (Point& x : c) {
                    const long long xi = small(rng), yi = small(rng);
                    x = {std::ldexp(double(xi), k), std::ldexp(double(yi), k), std::ldexp(double(p * xi + q * yi + r * 1000), k)};
                }
                Quad l = c;
                l[1] = {2.0 * c[0][0], 2.0 * c[0][1], c[1][2]};
                l[2] = {-c[0][0], -c[0][1], c[2][2]};
                nudged(c, 3, n % 3, n % 2 ? 1 : -1);
                nudged(l, 2, n % 2, 1);
            }
    }
    if (f == 6) {  // unrelated magnitudes within 2^1000 of each other, half with a point one ulp from another
        std::uniform_int_distribution<int> base(-1074, 0), exponent(0, 1000);
        for (int n = 0; n < 4000; ++n) {
            const int lowest = base(rng);
            Quad c;
            for (Point& x : c)
                for (double& v : x) v = std::ldexp(u(rng), lowest + exponent(rng));
            if (n % 2) c[3] = c[n % 3], c[3][n % 3] = nudge(c[3][n % 3], (n & 4) ? 1 : -1);
            out.push_back(c);
        }
    }
    return out;
}

TEST(PredicatesExact, SignsAgreeWithRationalArithmetic) {
    for (int f = 0; f < 7; ++f) {
            std::mt19937_64 rng(11);
        const std::vector<Quad> cases = family(f, rng);
        int counts[3] = {}, counts2[3] = {};
        for (std::size_t n = 0; n < cases.size(); ++n) {
            const Point &a = cases[n][0], &b = cases[n][1], &c = cases[n][2], &d = cases[n][3];
            const int want = exactOrient3d(a, b, c, d), want2 = exactOrient2d(a, b, c);
            ++counts[want + 1];
            ++counts2[want2 + 1];
            ASSERT_EQ(signOf(GmPredicates::orient3d(a.data(), b.data(), c.data(), d.data())), want) << "family " << f << " " << n;
            ASSERT_EQ(signOf(GmPredicates::orient3d(b.data(), a.data(), c.data(), d.data())), -want) << "family " << f << " " << n;
            ASSERT_EQ(signOf(GmPredicates::orient3d(b.data(), c.data(), a.data(), d.data())), want) << "family " << f << " " << n;
            ASSERT_EQ(signOf(GmPredicates::orient2d(a.data(), b.data(), c.data())), want2) << "family " << f << " " << n;
            ASSERT_EQ(signOf(GmPredicates::orient2d(c.data(), b.data(), a.data())), -want2) << "family " << f << " " << n;
        }
        // Each family reaches both signs, in three and in two dimensions.
        EXPECT_TRUE(counts[0] > 0 && counts[2] > 0 && counts2[0] > 0 && counts2[2] > 0) << "family " << f;
    }
    const double nan = std::numeric_limits<double>::quiet_NaN(), inf = std::numeric_limits<double>::infinity();
    const double o[3] = {0, 0, 0}, x[3] = {1, 0, 0}, y[3] = {0, 1, 0}, bad[2][3] = {{nan, 0, 1}, {inf, 0, 1}};
    for (const auto& z : bad) {
        EXPECT_TRUE(std::isnan(GmPredicates::orient3d(o, x, y, z)));
        EXPECT_TRUE(std::isnan(GmPredicates::orient2d(o, x, z)));
    }
}

TEST(Predicates, ConcurrentInitialisationAndUse) {
    // Threads initialising and evaluating at once see the same results as this one.
    const double pa[3] = {0.1, 0.2, 0.3}, pb[3] = {1.7, -0.4, 0.9}, pc[3] = {-0.6, 1.1, 0.25}, pd[3] = {0.4, 0.3, 0.55};
    const double expected = GmPredicates::orient3d(pa, pb, pc, pd);
    std::vector<double> results(4);
    std::vector<std::thread> threads;
    for (std::size_t i = 0; i < results.size(); ++i) threads.emplace_back([&, i] {
            GmPredicates::exactinit();
            for (int n = 0; n < 1000; ++n) results[i] = GmPredicates::orient3d(pa, pb, pc, pd);
        });
    for (auto& t : threads) t.join();
    for (const double r : results) EXPECT_EQ(r, expected);
}

}  // namespace

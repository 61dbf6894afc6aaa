#include <gtest/gtest.h>
#include <algorithm>
#include <cfloat>
#include <cmath>
#include <limits>
#include <random>
#include <vector>
#include <quarrygeom/core/GmPolynomial.h>

namespace {

using Coeffs = std::vector<double>;  // lowest degree first

// k-th Taylor coefficient of p at t (p^(k)(t) / k!), in long double; k = 0 evaluates p.
long double taylorLD(const Coeffs& c, int k, long double t) {
    long double y = 0.0L;
    for (int i = static_cast<int>(c.size()) - 1; i >= k; --i) {
        long double binom = 1.0L;
        for (int j = 0; j < k; ++j) binom = binom * (i - j) / (j + 1);
        y = y * t + binom * c[static_cast<std::size_t>(i)];
    }
    return y;
}
long double evalLD(const Coeffs& c, long double t) { return taylorLD(c, 0, t); }
// Sum of |c_i| |t|^i: the scale of the rounding errors of p(t).
long double magnitudeLD(const Coeffs& c, long double t) {
    return taylorLD({std::fabs(c[0]), std::fabs(c[1]), std::fabs(c[2]), std::fabs(c[3])}, 0, std::fabs(t));
}

// scale * (t - r0)(t - r1)(t - r2), expanded in long double and rounded once.
Coeffs fromRoots(double r0, double r1, double r2, double scale = 1.0) {
    const long double a = r0, b = r1, c = r2, s = scale;
    return {static_cast<double>(-s * a * b * c), static_cast<double>(s * (a * b + b * c + a * c)),
            static_cast<double>(-s * (a + b + c)), static_cast<double>(s)};
}

std::vector<double> solve(const Coeffs& c) {
    double roots[3] = {NAN, NAN, NAN};
    const int n = GmPolynomial::getRealCubicRoots(c[0], c[1], c[2], c[3], roots);
    EXPECT_TRUE(n >= 0 && n <= 3) << n;
    return std::vector<double>(roots, roots + std::max(0, std::min(n, 3)));
}

// How far a root r of the exact polynomial may move when p is perturbed by its rounding
// error: the smallest of (eps / |a_k|)^(1/k) over the Taylor coefficients a_k at r.
double rootTolerance(const Coeffs& c, double r) {
    const long double eps = 64.0L * DBL_EPSILON * magnitudeLD(c, r);
    long double tol = std::numeric_limits<long double>::infinity();
    for (int k = 1; k <= 3; ++k) {
        const long double ak = std::fabs(taylorLD(c, k, r));
        if (ak > 0.0L) tol = std::min(tol, std::pow(eps / ak, 1.0L / k));
    }
    return static_cast<double>(tol) + 4.0 * DBL_EPSILON * std::fabs(r);
}

// Every returned root is ascending, finite and has a residual within rounding noise;
// every expected root lies within its tolerance of a returned root.
void expectRootsCover(const Coeffs& c, const std::vector<double>& expected, const std::vector<double>& got, const char* what) {
    for (size_t i = 0; i < got.size(); ++i) {
        ASSERT_TRUE(std::isfinite(got[i])) << what;
        EXPECT_TRUE(i == 0 || got[i - 1] < got[i]) << what << ": roots must be strictly ascending";
        EXPECT_LE(std::fabs(evalLD(c, got[i])), 32.0L * DBL_EPSILON * magnitudeLD(c, got[i])) << what << ": residual of " << got[i];
    }
    for (double r : expected)
        EXPECT_TRUE(std::any_of(got.begin(), got.end(), [&](double g) { return std::fabs(g - r) <= rootTolerance(c, r); }))
            << what << ": expected root " << r << " not found";
}

// Exact and degenerate cases: roots known in closed form, ascending, each reported once.
TEST(CubicRoots, KnownRoots) {
    const double tiny = 4.9406564584124654e-324;
    const struct { Coeffs c; std::vector<double> roots; } cases[] = {  // NOLINT
        {{-6, 11, -6, 1}, {1, 2, 3}}, {{6, -11, 6, -1}, {1, 2, 3}},               // either sign of the leading term
        {{-3, 7, -5, 1}, {1, 3}}, {{0.5, -1.75, 1, 1}, {-2, 0.5}},               // double roots below and above
        {{-0.125, 0.75, -1.5, 1}, {0.5}}, {{0.125, 1.5, 6, 8}, {-0.25}},         // triple roots
        {{0, 0, 0, 5}, {0}}, {{0, 0, -2, 1}, {0, 2}}, {{0, -1, 0, 1}, {-1, 0, 1}},  // exact zero roots
        {{2, -3, 1, 0}, {1, 2}}, {{-1, 4, 0, 0}, {0.25}}, {{3, 0, 0, 0}, {}},    // lower degrees
        {{1, 0, 1, 0}, {}}, {{1, -2, 1, 0}, {1}}, {{2, -3, 1, tiny}, {1, 2}},    // last: the cubic's root is beyond the doubles
        {{0, 0, 0, 0}, {}}, {{-0.0, 0, -0.0, 0}, {}}, {{NAN, 1, 0, 1}, {}}, {{1, INFINITY, 0, 1}, {}},
        {{-6 * tiny, 11 * tiny, -6 * tiny, tiny}, {1, 2, 3}},  // subnormal coefficients
        {fromRoots(1e-6, 1.0, 1e6), {1e-6, 1.0, 1e6}}, {fromRoots(-1e-9, 1e-3, 2e7), {-1e-9, 1e-3, 2e7}},  // spread roots
        {fromRoots(-3e5, -2e-5, 4.0), {-3e5, -2e-5, 4.0}}, {fromRoots(1e-12, 2e-12, 1.0), {1e-12, 2e-12, 1.0}},
        {fromRoots(-1e100, 1.0, 1e100), {-1e100, 1.0, 1e100}},
    };
    for (const auto& k : cases) {
        const std::vector<double> got = solve(k.c);
        ASSERT_EQ(got.size(), k.roots.size()) << k.c[0] << ' ' << k.c[1] << ' ' << k.c[2] << ' ' << k.c[3];
        for (std::size_t i = 0; i < got.size(); ++i)  // a zero root is +0
            EXPECT_TRUE(std::fabs(got[i] - k.roots[i]) <= 1e-12 * std::fabs(k.roots[i]) + 1e-15 && !(k.roots[i] == 0.0 && std::signbit(got[i])))
                << got[i] << " for " << k.roots[i];
    }
}

// Clustered roots (near-double, near-triple, exact double and triple from rounded
// coefficients): none is lost. Well-separated roots are covered by the reference below.
TEST(CubicRoots, ClusteredRootsAreNotLost) {
    std::mt19937_64 rng(99);
    std::uniform_real_distribution<double> u(-1.0, 1.0);
    for (int trial = 0; trial < 24000; ++trial) {
        const double r0 = u(rng), d = std::pow(10.0, -2.0 - 12.0 * std::fabs(u(rng))) * (u(rng) < 0 ? -1 : 1);
        const double big = std::pow(10.0, 3.0 * u(rng)) * (u(rng) < 0 ? -1.0 : 1.0);
        const double sets[4][3] = {{r0, r0 + d, r0 + 0.5 + std::fabs(u(rng))}, {r0, r0 + d, r0 - 0.7 * d}, {r0, r0, u(rng)}, {big, big, big}};
        const double* r = sets[trial % 4];
        const Coeffs c = fromRoots(r[0], r[1], r[2], trial % 4 == 3 ? std::pow(10.0, 3.0 * u(rng)) : 1.0 + std::fabs(u(rng)));
        const std::vector<double> got = solve(c);
        ASSERT_GE(got.size(), 1u);
        expectRootsCover(c, {r[0], r[1], r[2]}, got, "cluster");
    }
}

TEST(CubicRoots, TinyLeadingCoefficientAddsOneLargeRoot) {
    // A tiny c3 adds one large root near -c2/c3 and leaves the others where they were.
    for (double eps : {1e-6, 1e-12, 1e-20, 1e-100, 1e-300, -1e-9, -1e-200}) {
        const Coeffs c = {2.0, -3.0, 1.0, eps};
        const std::vector<double> got = solve(c);
        ASSERT_EQ(got.size(), 3u) << eps;
        const std::size_t first = eps > 0 ? 1 : 0;  // the large root is first for eps > 0
        EXPECT_NEAR(got[first], 1.0, 1e-12 + 4.0 * std::fabs(eps));
        EXPECT_NEAR(got[first + 1], 2.0, 1e-12 + 16.0 * std::fabs(eps));
        EXPECT_NEAR(got[eps > 0 ? 0 : 2] * -eps, 1.0, 1e-5) << eps;
        expectRootsCover(c, {}, got, "tiny leading");
    }
}

TEST(CubicRoots, ScalingTheCoefficientsDoesNotMoveTheRoots) {
    std::mt19937_64 rng(2024);
    std::uniform_real_distribution<double> unit(-1.0, 1.0);
    for (int trial = 0; trial < 2000; ++trial) {
        const Coeffs c = {unit(rng), unit(rng), unit(rng), unit(rng)};
        const std::vector<double> base = solve(c);
        for (int e : {-1000, -300, -7, 9, 300, 1000})  // powers of two scale exactly: identical results
            ASSERT_EQ(solve({std::ldexp(c[0], e), std::ldexp(c[1], e), std::ldexp(c[2], e), std::ldexp(c[3], e)}), base) << e;
        // Other factors round the coefficients: the same roots to within their conditioning.
        for (double s : {1e-250, 3.7, 1e250}) {
            const Coeffs cs = {c[0] * s, c[1] * s, c[2] * s, c[3] * s};
            expectRootsCover(cs, {}, solve(cs), "scaled");
        }
    }
}

// Independent reference for random coefficients: Cardano / trigonometric form in long
// double, polished by Newton's method.
std::vector<long double> referenceRoots(const Coeffs& c) {
    const long double a = (long double)c[2] / c[3], b = (long double)c[1] / c[3], d = (long double)c[0] / c[3];
    const long double p = b - a * a / 3.0L, q = 2.0L * a * a * a / 27.0L - a * b / 3.0L + d;
    const long double disc = q * q / 4.0L + p * p * p / 27.0L;
    std::vector<long double> r;
    if (disc > 0) r.push_back(std::cbrt(-q / 2.0L + std::sqrt(disc)) + std::cbrt(-q / 2.0L - std::sqrt(disc)) - a / 3.0L);
    if (disc <= 0) {
        const long double m = 2.0L * std::sqrt(-p / 3.0L);
        const long double th = std::acos(std::max(-1.0L, std::min(1.0L, 3.0L * q / (p * m)))) / 3.0L;
        for (int k = 0; k < 3; ++k) r.push_back(m * std::cos(th - 2.0L * k * 3.14159265358979323846L / 3.0L) - a / 3.0L);
    }
    for (long double& x : r)
        for (int it = 0; it < 4; ++it) x -= taylorLD(c, 1, x) != 0.0L ? evalLD(c, x) / taylorLD(c, 1, x) : 0.0L;
    std::sort(r.begin(), r.end());
    return r;
}

TEST(CubicRoots, RandomCoefficientsMatchAnIndependentReference) {
    std::mt19937_64 rng(31337);
    std::uniform_real_distribution<double> unit(-1.0, 1.0);
    int compared = 0;
    for (int trial = 0; trial < 20000; ++trial) {
        Coeffs c = {unit(rng), unit(rng), unit(rng), unit(rng)};
        if (std::fabs(c[3]) < 0.05) continue;
        const std::vector<long double> ref = referenceRoots(c);
        // Skip cubics whose root count is ill-conditioned: near-double roots, or local
        // extrema close to zero.
        bool clear = true;
        for (long double x : ref) clear = clear && std::fabs(taylorLD(c, 1, x)) > 1e-6L;
        const long double da = 3.0L * c[3], db = 2.0L * c[2], dd = db * db - 4.0L * da * c[1];
        for (int s = -1; s <= 1 && dd > 0; s += 2) clear = clear && std::fabs(evalLD(c, (-db + s * std::sqrt(dd)) / (2.0L * da))) > 1e-6L;
        if (!clear) continue;
        ++compared;
        const std::vector<double> got = solve(c);
        ASSERT_EQ(got.size(), ref.size());
        for (size_t i = 0; i < ref.size(); ++i)
            EXPECT_NEAR(got[i], (double)ref[i], rootTolerance(c, (double)ref[i]));
    }
    EXPECT_GT(compared, 15000);
}

// Coefficients of unrelated magnitudes, some zero: no sign change of p on a fine
// logarithmic grid may be left without a reported root in or next to it.
TEST(CubicRoots, NoRootMissedForWildlyScaledCoefficients) {
    std::vector<long double> grid = {0.0L};
    for (int e = -80; e <= 80; ++e)
        for (int k = -9; k <= 9; ++k) grid.push_back(k * std::pow(10.0L, e));
    std::sort(grid.begin(), grid.end());
    grid.erase(std::unique(grid.begin(), grid.end()), grid.end());
    std::mt19937_64 rng(8080);
    std::uniform_real_distribution<double> unit(-1.0, 1.0);
    for (int trial = 0; trial < 1500; ++trial) {
        Coeffs c(4);
        for (double& x : c) x = unit(rng) > 0.85 ? 0.0 : unit(rng) * std::pow(10.0, 40.0 * unit(rng));
        const std::vector<double> got = solve(c);
        expectRootsCover(c, {}, got, "wild");
        int prevSign = 0;
        long double prevT = 0.0L;
        for (long double t : grid) {
            const long double y = evalLD(c, t);
            if (std::fabs(y) <= 1e-15L * magnitudeLD(c, t)) continue;  // too close to call
            const bool explained = std::any_of(got.begin(), got.end(), [&](double g) { return g >= prevT && g <= t; });
            EXPECT_TRUE(prevSign == 0 || (y > 0) == (prevSign > 0) || explained)
                << "sign change in [" << static_cast<double>(prevT) << ", " << static_cast<double>(t) << "] for " << c[0] << ' ' << c[1] << ' ' << c[2] << ' ' << c[3];
            prevSign = y > 0 ? 1 : -1;
            prevT = t;
        }
    }
}

TEST(QuadraticRoots, StableForCancellingCoefficients) {
    const struct { double c0, c1, c2; std::vector<double> roots; } cases[] = {  // NOLINT
        {1.0, -(1e9 + 1e-9), 1.0, {1e-9, 1e9}},  // the small root must not cancel away
        {-4, 0, 1, {-2, 2}}, {0, 0, 0, {}}, {0, 0, 3, {0}}};
    for (const auto& k : cases) {
        double roots[2];
        ASSERT_EQ(GmPolynomial::getRealQuadraticRoots(k.c0, k.c1, k.c2, roots), static_cast<int>(k.roots.size()));
        for (std::size_t i = 0; i < k.roots.size(); ++i) EXPECT_NEAR(roots[i], k.roots[i], 1e-15 * std::fabs(k.roots[i]));
    }
}

}  // namespace

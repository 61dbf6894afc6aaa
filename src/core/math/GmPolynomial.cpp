#include <quarrygeom/core/GmPolynomial.h>

#include <algorithm>
#include <cfloat>
#include <cmath>
#include <limits>

// Strategy: normalise the coefficients by a power of two, strip exact zero roots, make the
// leading coefficient positive, then
// - degree 1 and 2: closed form (the quadratic with the cancellation-free formula);
// - degree 3: split the line at the critical points into monotone pieces, decide from the
//   signs of the local extrema which pieces hold a root (an extremum within the evaluation
//   error of zero is itself a double root), bracket each root with bounds taken from the
//   local Taylor expansion and converge with Newton's method safeguarded by bisection.
// Every polynomial value is computed by Horner's rule together with its running error bound,
// so "zero" always means "zero to within the rounding error of this evaluation".

namespace {

constexpr double kUnitRoundoff = DBL_EPSILON * 0.5;
// Extrema this many evaluation-error bounds from zero count as touching zero.
constexpr double kTouchFactor = 4.0;

struct Value {
    double f;      // computed value
    double bound;  // bound on |f - exact value|
    bool isZero(double factor = 1.0) const { return std::isfinite(bound) && std::fabs(f) <= factor * bound; }
};

// Horner evaluation of c[0] + c[1] x + ... + c[n] x^n with a running error bound.
Value evaluate(const double* c, int n, double x) {
    double y = c[n];
    double mu = std::fabs(y) * 0.5;
    const double ax = std::fabs(x);
    for (int i = n - 1; i >= 0; --i) {
        y = y * x + c[i];
        mu = mu * ax + std::fabs(y);
    }
    return {y, kUnitRoundoff * (2.0 * mu - std::fabs(y))};
}

double derivative3(const double* c, double x) { return (3.0 * c[3] * x + 2.0 * c[2]) * x + c[1]; }

// Exact product: a * b == hi + lo.
void twoProduct(double a, double b, double& hi, double& lo) {
    hi = a * b;
#if defined(__FMA__) || defined(__FP_FAST_FMA)
    lo = std::fma(a, b, -hi);
#else
    // Veltkamp splitting (no hardware fused multiply-add; the library call is slow).
    constexpr double kSplit = 134217729.0;  // 2^27 + 1
    const double ta = kSplit * a, a1 = ta - (ta - a), a2 = a - a1;
    const double tb = kSplit * b, b1 = tb - (tb - b), b2 = b - b1;
    lo = ((a1 * b1 - hi) + a1 * b2 + a2 * b1) + a2 * b2;
#endif
}

// a*a - b*c with the rounding errors of both products compensated.
double diffOfProducts(double a, double b, double c) {
    double aaHi, aaLo, bcHi, bcLo;
    twoProduct(a, a, aaHi, aaLo);
    twoProduct(b, c, bcHi, bcLo);
    return (aaHi - bcHi) + (aaLo - bcLo);
}

double clampFinite(double x) {
    if (std::isnan(x)) return x;
    return std::max(-DBL_MAX, std::min(DBL_MAX, x));
}

class CubicSolver {
public:
    // c[3] > 0 and c[0] != 0.
    explicit CubicSolver(const double* c) {
        for (int i = 0; i < 4; ++i) _c[i] = c[i];
        // No root is closer to zero than this (Cauchy's bound applied to the reversed polynomial),
        // halved for safety against the rounding of the bound itself.
        const double m = std::max(std::fabs(c[1]), std::max(std::fabs(c[2]), std::fabs(c[3])));
        _rootFloor = 0.5 * (std::fabs(c[0]) / (std::fabs(c[0]) + m));
    }

    int solve(double roots[3]) {
        const double* c = _c;
        // Discriminant of the derivative (divided by 4): c2^2 - 3 c1 c3.
        // Computed with the coefficients scaled by 2^-k, k chosen so that neither term
        // underflows nor overflows; sq below is the square root of the unscaled value.
        const double t2 = std::fabs(c[2]), t13 = std::sqrt(3.0 * std::fabs(c[1])) * std::sqrt(std::fabs(c[3]));
        const double tMax = std::max(t2, t13);
        const int k = tMax > 0.0 ? std::max(-500, std::ilogb(tMax)) : 0;
        const double c2s = std::scalbn(c[2], -k);
        double disc = diffOfProducts(c2s, std::scalbn(3.0 * c[1], -k), std::scalbn(c[3], -k));
        const double discErr =
            16.0 * kUnitRoundoff * (c2s * c2s + std::fabs(std::scalbn(3.0 * c[1], -k) * std::scalbn(c[3], -k)));
        if (std::fabs(disc) <= discErr) disc = 0.0;

        int n = 0;
        if (disc > 0.0) {
            const double sq = std::scalbn(std::sqrt(disc), k);
            const double q = -(c[2] + std::copysign(sq, c[2]));
            double e1 = clampFinite(q / (3.0 * c[3]));
            double e2 = clampFinite(c[1] / q);
            if (e1 > e2) std::swap(e1, e2);
            const Value v1 = evaluate(c, 3, e1);  // local maximum
            const Value v2 = evaluate(c, 3, e2);  // local minimum
            const bool z1 = v1.isZero(kTouchFactor);
            const bool z2 = v2.isZero(kTouchFactor);
            const bool leftRoot = !z1 && v1.f > 0.0;
            const bool rightRoot = !z2 && v2.f < 0.0;
            if (leftRoot) {
                // p(e1 - d) = p(e1) - sq d^2 - c3 d^3: both terms bound the distance to the root.
                const double d = std::min(std::sqrt(v1.f / sq), std::cbrt(v1.f / c[3]));
                n += rootAlong(e1, v1.f, -1.0, d, roots + n);
            }
            if (z1) roots[n++] = e1;
            if (leftRoot && rightRoot) {
                double r;
                if (middleRoot(e1, v1.f, e2, v2.f, sq, r)) roots[n++] = r;
            }
            if (z2) roots[n++] = e2;
            if (rightRoot) {
                // p(e2 + d) = p(e2) + sq d^2 + c3 d^3.
                const double d = std::min(std::sqrt(-v2.f / sq), std::cbrt(-v2.f / c[3]));
                n += rootAlong(e2, v2.f, 1.0, d, roots + n);
            }
            if (n > 0) return n;
            // Inconsistent signs at the extrema (only possible within rounding noise):
            // fall through to the single-root search below, a cubic has at least one root.
        }

        // Monotone (or nearly so): one root, found from the inflection point.
        const double xi = clampFinite(-c[2] / (3.0 * c[3]));
        const Value vi = evaluate(c, 3, xi);
        if (vi.isZero(kTouchFactor)) {
            roots[0] = xi;
            return 1;
        }
        // p(xi + d) = p(xi) + p'(xi) d + c3 d^3 with p'(xi) >= 0.
        const double dir = vi.f > 0.0 ? -1.0 : 1.0;
        double d = std::cbrt(std::fabs(vi.f) / c[3]);
        const double slope = derivative3(c, xi);
        if (slope > 0.0) d = std::min(d, std::fabs(vi.f) / slope);
        return rootAlong(xi, vi.f, dir, d, roots);
    }

private:
    // Root on the ray from x0 (value f0, not zero) in direction dir, expected within distance d.
    // Widens the step until the sign changes; returns 0 when the root lies beyond the doubles.
    int rootAlong(double x0, double f0, double dir, double d, double* root) {
        d = std::max(d, 4.0 * DBL_EPSILON * std::max(std::fabs(x0), DBL_MIN));
        if (!(d <= DBL_MAX)) d = DBL_MAX;
        double near = x0, fNear = f0;
        for (int k = 0; k < 2200; ++k) {
            const double x = clampFinite(x0 + dir * d);
            const Value v = evaluate(_c, 3, x);
            if (v.f == 0.0 || v.isZero()) {
                *root = x;
                return 1;
            }
            if ((v.f > 0.0) != (fNear > 0.0)) {
                *root = dir > 0.0 ? refine(near, fNear, x, v.f, x) : refine(x, v.f, near, fNear, x);
                return 1;
            }
            if (std::fabs(x) == DBL_MAX) return 0;
            near = x;
            fNear = v.f;
            d *= 2.0;
        }
        return 0;
    }

    // The root between the two extrema: p(e1) > 0 > p(e2).
    bool middleRoot(double e1, double f1, double e2, double f2, double sq, double& root) {
        double a = e1, fa = f1, b = e2, fb = f2;
        // Quadratic estimates from each extremum; keep them when they tighten the bracket.
        const double guesses[2] = {e1 + std::sqrt(f1 / sq), e2 - std::sqrt(-f2 / sq)};
        double best = std::numeric_limits<double>::quiet_NaN(), bestAbs = HUGE_VAL;
        for (double g : guesses) {
            if (!(g > a && g < b)) continue;
            const Value v = evaluate(_c, 3, g);
            if (v.isZero()) {
                root = g;
                return true;
            }
            if (v.f > 0.0) { a = g; fa = v.f; } else { b = g; fb = v.f; }
            if (std::fabs(v.f) < bestAbs) { bestAbs = std::fabs(v.f); best = g; }
        }
        root = refine(a, fa, b, fb, best);
        return true;
    }

    // Next trial point when Newton's step is refused: the midpoint, or the geometric mean
    // when the bracket spans orders of magnitude on one side of zero. Returns a or b when
    // the bracket cannot be split any further.
    double split(double a, double b) const {
        if (a < 0.0 && b > 0.0) return 0.0;  // p(0) = c0 != 0 decides the side
        double m;
        const double lo = std::max(std::min(std::fabs(a), std::fabs(b)), _rootFloor);
        const double hi = std::max(std::fabs(a), std::fabs(b));
        if (hi > 4.0 * lo) {
            m = std::sqrt(lo) * std::sqrt(hi);
            if (b <= 0.0) m = -m;
            if (!(m > a && m < b)) m = 0.5 * a + 0.5 * b;
        } else {
            m = 0.5 * a + 0.5 * b;
        }
        if (!(m > a && m < b)) return a;
        return m;
    }

    // Root in [a, b] (a < b), where p(a) and p(b) have opposite signs; x is an optional start.
    // Newton steps are taken while they stay inside the bracket and shrink fast enough (to a
    // quarter of the step before last: slow, linear convergence from far away is cut short);
    // otherwise the bracket is split.
    double refine(double a, double fa, double b, double fb, double x) const {
        if (!(x >= a && x <= b)) x = split(a, b);
        if (!(x >= a && x <= b)) return std::fabs(fa) <= std::fabs(fb) ? a : b;
        double steps[2] = {HUGE_VAL, HUGE_VAL};  // the last two step lengths
        for (int it = 0; it < 400; ++it) {
            const Value v = evaluate(_c, 3, x);
            if (v.f == 0.0 || v.isZero()) return x;
            if ((v.f > 0.0) == (fa > 0.0)) { a = x; fa = v.f; } else { b = x; fb = v.f; }
            double next = x - v.f / derivative3(_c, x);
            const bool newtonOk = next > a && next < b && std::fabs(next - x) <= 0.25 * steps[1];
            if (!newtonOk) next = split(a, b);
            if (!(next > a && next < b)) return std::fabs(fa) <= std::fabs(fb) ? a : b;
            steps[1] = steps[0];
            steps[0] = std::fabs(next - x);
            x = next;
        }
        return std::fabs(fa) <= std::fabs(fb) ? a : b;
    }

    double _c[4];
    double _rootFloor;
};

int solveLinear(const double* c, double* roots) {
    const double r = -c[0] / c[1];
    if (!std::isfinite(r)) return 0;
    roots[0] = r;
    return 1;
}

// c[2] > 0, c[0] != 0.
int solveQuadratic(const double* c, double* roots) {
    const double v = -c[1] / (2.0 * c[2]);
    if (std::isfinite(v)) {
        const Value fv = evaluate(c, 2, v);
        if (fv.isZero(kTouchFactor)) {
            roots[0] = v;
            return 1;
        }
        if (fv.f > 0.0) return 0;  // the minimum lies above zero
    }
    const double disc = diffOfProducts(c[1], 4.0 * c[0], c[2]);
    if (!(disc > 0.0)) {
        if (!std::isfinite(v)) return 0;
        roots[0] = v;
        return 1;
    }
    const double q = -0.5 * (c[1] + std::copysign(std::sqrt(disc), c[1]));
    int n = 0;
    const double r1 = q / c[2];
    const double r2 = c[0] / q;
    if (std::isfinite(r1)) roots[n++] = r1;
    if (std::isfinite(r2)) roots[n++] = r2;
    return n;
}

// Roots of the polynomial of degree <= maxDegree given by coef (lowest first).
int solvePolynomial(const double* coef, int maxDegree, double* out) {
    double c[4] = {0.0, 0.0, 0.0, 0.0};
    for (int i = 0; i <= maxDegree; ++i) {
        if (!std::isfinite(coef[i])) return 0;
        c[i] = coef[i];
    }
    int n = maxDegree;
    while (n >= 0 && c[n] == 0.0) --n;
    if (n <= 0) return 0;  // zero polynomial or non-zero constant

    // Normalise by a power of two (exact) so that the largest coefficient lies in [1, 2).
    double m = 0.0;
    for (int i = 0; i <= n; ++i) m = std::max(m, std::fabs(c[i]));
    const int e = std::ilogb(m);
    if (e != 0) {
        if (e > -1000 && e < 1000) {
            const double f = std::ldexp(1.0, -e);  // multiplying by a power of two is exact
            for (int i = 0; i <= n; ++i) c[i] *= f;
        } else {
            for (int i = 0; i <= n; ++i) c[i] = std::scalbn(c[i], -e);
        }
    }
    while (n > 0 && c[n] == 0.0) --n;  // a leading coefficient lost to underflow

    // Exact zero roots: divide by t.
    bool zeroRoot = false;
    while (n > 0 && c[0] == 0.0) {
        zeroRoot = true;
        for (int i = 0; i < n; ++i) c[i] = c[i + 1];
        c[n--] = 0.0;
    }
    if (c[n] < 0.0)
        for (int i = 0; i <= n; ++i) c[i] = -c[i];

    double roots[4];
    int count = 0;
    switch (n) {
        case 1: count = solveLinear(c, roots); break;
        case 2: count = solveQuadratic(c, roots); break;
        case 3: count = CubicSolver(c).solve(roots); break;
        default: break;
    }
    if (zeroRoot) roots[count++] = 0.0;
    // Ascending, each value once, no negative zero.
    for (int i = 1; i < count; ++i)
        for (int j = i; j > 0 && roots[j] < roots[j - 1]; --j) std::swap(roots[j], roots[j - 1]);
    int written = 0;
    for (int i = 0; i < count; ++i) {
        const double r = roots[i] == 0.0 ? 0.0 : roots[i];
        if (written == 0 || r != out[written - 1]) out[written++] = r;
    }
    return written;
}

}  // namespace

namespace GmPolynomial {

int getRealCubicRoots(double c0, double c1, double c2, double c3, double roots[3]) {
    const double c[4] = {c0, c1, c2, c3};
    return solvePolynomial(c, 3, roots);
}

int getRealQuadraticRoots(double c0, double c1, double c2, double roots[2]) {
    const double c[3] = {c0, c1, c2};
    return solvePolynomial(c, 2, roots);
}

}  // namespace GmPolynomial

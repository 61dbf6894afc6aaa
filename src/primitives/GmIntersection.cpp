#include <quarrygeom/primitives/GmIntersection.h>

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <cstring>
#include <initializer_list>
#include <iostream>
#include <stdexcept>

#include <quarrygeom/core/GmPolynomial.h>
#include <quarrygeom/primitives/GmGeometry.h>
#include <quarrygeom/primitives/GmPredicates.h>
#include <quarrygeom/primitives/GmSegmentDistance.h>

#include "../core/GmDiagnostics.h"

namespace GmIntersection {

namespace {

using Vec = GmTVector<double>;

constexpr double kResidual = 1e-12;      // |p(t)| counted as zero by the pre-check gate and Newton
constexpr double kRootLow = -1e-6;       // roots below are skipped
constexpr double kRootHigh = 1.000001;   // roots above end the search
constexpr double kInPlaneTol = 1e-6;     // in-plane contact tolerance, relative to the features' size
constexpr double kUnitRound = 1.1102230246251565e-16;

// Whether u x v (of length crossLength) stands above the rounding noise of u and v, differences
// of positions of magnitude up to m interpolated over the step (each coordinate off by a few
// units of m's last place): only then does it give a direction. Zero-area faces and parallel
// edges fail; small or slender but genuine features pass at any scale and position.
inline bool crossAboveNoise(double crossLength, double uLength, double vLength, double m) {
    const double floor = 8.0 * kUnitRound * (m * (uLength + vLength) + uLength * vLength);
    return crossLength > floor && crossLength > 0.0 && std::isfinite(crossLength);
}

// Largest coordinate magnitude of a few points (the scale of their rounding noise).
inline double featureMagnitude(std::initializer_list<const Vec*> pts) {
    double m = 0.0;
    for (const Vec* p : pts) m = std::max(m, std::max(std::fabs(p->x), std::max(std::fabs(p->y), std::fabs(p->z))));
    return m;
}

// The fallback normal of a contact whose own normal degenerates: the first of the candidate
// directions that stands above the rounding noise of positions of magnitude m. False when
// neither does (the features coincide throughout the step).
inline bool fallbackDirection(const Vec& first, const Vec& second, double m, Vec& n) {
    const double noise = std::max(64.0 * kUnitRound * m, 0x1p-1000);
    for (const Vec* v : {&first, &second}) {
        const double len = v->length();
        if (len > noise && std::isfinite(len)) {
            n = *v / len;
            return true;
        }
    }
    return false;
}

// Whether the box of p, q is farther from the box of a, b, c on some axis than the in-plane
// tolerance (1e-6 of the longest edge, at most 2e-6 of the largest box extent) could bridge:
// a cheap rejection before the distance test.
inline bool clearlyApart(const Vec& p, const Vec& q, const Vec& a, const Vec& b, const Vec& c) {
    const Vec plo(std::min(p.x, q.x), std::min(p.y, q.y), std::min(p.z, q.z));
    const Vec phi(std::max(p.x, q.x), std::max(p.y, q.y), std::max(p.z, q.z));
    const Vec flo(std::min({a.x, b.x, c.x}), std::min({a.y, b.y, c.y}), std::min({a.z, b.z, c.z}));
    const Vec fhi(std::max({a.x, b.x, c.x}), std::max({a.y, b.y, c.y}), std::max({a.z, b.z, c.z}));
    const Vec gap1 = plo - fhi, gap2 = flo - phi, e1 = phi - plo, e2 = fhi - flo;
    const double gap = std::max({gap1.x, gap1.y, gap1.z, gap2.x, gap2.y, gap2.z});
    const double extent = std::max({e1.x, e1.y, e1.z, e2.x, e2.y, e2.z});
    return gap > 2e-6 * extent;
}

inline double evalCubic(const double c[4], double t) { return ((c[3] * t + c[2]) * t + c[1]) * t + c[0]; }

// Position at time t of a point moving from a to b (exactly a and b at the ends of the step).
inline Vec lerp(const Vec& a, const Vec& b, double t) { return t == 0.0 ? a : (t == 1.0 ? b : a + (b - a) * t); }

// The coplanarity cubic det(x1 + t v1, x2 + t v2, y + t w), lowest degree first. The vectors are
// first scaled by a power of two (exactly) so that their largest component lies in [0.5, 1): the
// coefficients, and with them every tolerance applied to them, are relative to the features' size.
struct Cubic {
    double c[4];
    double scale;  // the power of two applied to the differences
};

inline Vec absv(const Vec& v) { return Vec(std::fabs(v.x), std::fabs(v.y), std::fabs(v.z)); }
inline Vec crossAbs(const Vec& a, const Vec& b) {
    return Vec(a.y * b.z + a.z * b.y, a.z * b.x + a.x * b.z, a.x * b.y + a.y * b.x);
}
inline double maxAbs(const Vec& v) { return std::max(std::fabs(v.x), std::max(std::fabs(v.y), std::fabs(v.z))); }

enum class CubicStatus { Ok, AllCoincide, NotFinite, OutOfRange };

// Differences of positions (feature sizes, gaps, motions) beyond which the squared lengths of
// the in-plane tests would overflow; well outside the supported range.
constexpr double kLargestDifference = 0x1p500;

// 2^-e for the e with m * 2^-e in [0.5, 1) (m positive and finite), read from m's exponent bits;
// e is kept within [-1020, 1022] so that the factor is a finite normal number.
inline double inversePowerOfTwoAbove(double m) {
    std::uint64_t bits;
    std::memcpy(&bits, &m, sizeof bits);
    int e = int((bits >> 52) & 0x7ff) - 1022;
    e = std::min(std::max(e, -1020), 1022);
    const std::uint64_t out = std::uint64_t(1023 - e) << 52;
    double sc;
    std::memcpy(&sc, &out, sizeof sc);
    return sc;
}

inline void cubicCoefficients(const Vec& x1, const Vec& x2, const Vec& y, const Vec& e1, const Vec& e2,
                              const Vec& f, double c[4]) {
    const Vec v1 = e1 - x1, v2 = e2 - x2, w = f - y;
    const Vec n0 = x1.cross(x2);
    const Vec n1 = x1.cross(v2) + v1.cross(x2);
    const Vec n2 = v1.cross(v2);
    c[0] = n0.dot(y);
    c[1] = n0.dot(w) + n1.dot(y);
    c[2] = n1.dot(w) + n2.dot(y);
    c[3] = n2.dot(w);
}

// Builds the scaled cubic from the start differences x1, x2, y and the end differences e1, e2, f.
CubicStatus buildCubic(const Vec& x1, const Vec& x2, const Vec& y, const Vec& e1, const Vec& e2, const Vec& f,
                       Cubic& q) {
    const double m = std::max(std::max(std::max(maxAbs(x1), maxAbs(x2)), std::max(maxAbs(y), maxAbs(e1))),
                              std::max(maxAbs(e2), maxAbs(f)));
    if (!std::isfinite(m)) return CubicStatus::NotFinite;
    if (m > kLargestDifference) return CubicStatus::OutOfRange;
    if (!(m > 0.0)) return CubicStatus::AllCoincide;
    const double sc = inversePowerOfTwoAbove(m);
    q.scale = sc;
    if (sc >= 0x1p-300 && sc <= 0x1p300) {
        // Scaling by a power of two commutes with rounding: scale the four results instead of the
        // eighteen inputs, as long as nothing can overflow or underflow on the way.
        cubicCoefficients(x1, x2, y, e1, e2, f, q.c);
        const double sc3 = sc * sc * sc;
        for (double& c : q.c) c *= sc3;
    } else {
        cubicCoefficients(x1 * sc, x2 * sc, y * sc, e1 * sc, e2 * sc, f * sc, q.c);
    }
    return CubicStatus::Ok;
}

// Rounding noise of the scaled coefficients (each is a sum of a few dozen products of numbers
// below 2 in magnitude, computed from correctly rounded differences).
constexpr double kScaledNoise = 1024.0 * kUnitRound;

// A small sorted set of candidate contact times.
struct Candidates {
    double t[80];
    int n = 0;
    void add(double v) {
        if (n < 80 && v >= kRootLow && v <= kRootHigh) t[n++] = std::min(std::max(v, 0.0), 1.0);
    }
    void sort() { std::sort(t, t + n); }
};

// Real roots and the extremum of alpha + beta t + gamma t^2 (all three when the quadratic could
// have a double root hidden by rounding).
void addQuadraticEvents(double alpha, double beta, double gamma, Candidates& out) {
    if (gamma != 0.0) {
        out.add(-beta / (2.0 * gamma));
        const double disc = beta * beta - 4.0 * gamma * alpha;
        if (disc >= 0.0) {
            const double sq = std::sqrt(disc);
            const double qq = -0.5 * (beta + (beta >= 0.0 ? sq : -sq));
            if (qq != 0.0) {
                out.add(qq / gamma);
                out.add(alpha / qq);
            } else {
                out.add(0.0);
            }
        }
    } else if (beta != 0.0) {
        out.add(-alpha / beta);
    }
}

// Times at which the moving point p may lie on the moving segment a-b: the zeros (and extrema) of
// the components of (b - a) x (p - a), and, when p stays (nearly) on the segment's line
// throughout, the times at which it passes an end point.
void addVertexEdgeEvents(const Vec& p0, const Vec& a0, const Vec& b0, const Vec& p1, const Vec& a1,
                         const Vec& b1, Candidates& out) {
    const Vec e = b0 - a0, q = p0 - a0;
    const Vec ve = (b1 - a1) - e, vq = (p1 - a1) - q;
    const Vec c0 = e.cross(q), c1 = e.cross(vq) + ve.cross(q), c2 = ve.cross(vq);
    // Natural size of each component (products of the differences' sizes) and its rounding
    // noise: the differences are off by a few units in the last place of the positions (of
    // magnitude up to m, which may be far larger than the features), the products by a few
    // units of their own size.
    const Vec ae = absv(e), aq = absv(q), ave = absv(ve), avq = absv(vq);
    const Vec size = crossAbs(ae, aq) + crossAbs(ae, avq) + crossAbs(ave, aq) + crossAbs(ave, avq);
    const double m = featureMagnitude({&p0, &a0, &b0, &p1, &a1, &b1});
    const Vec se = ae + ave, sq = aq + avq;
    const double spread = (se.x + se.y + se.z) + (sq.x + sq.y + sq.z);
    bool nearLine = true;
    for (int k = 0; k < 3; ++k) {
        const double noise = 16.0 * kUnitRound * (m * spread + size[k]);
        const double big = std::max({std::fabs(c0[k]), std::fabs(c1[k]), std::fabs(c2[k])});
        if (big > 1e-10 * size[k] + noise) nearLine = false;
        if (big > noise) addQuadraticEvents(c0[k], c1[k], c2[k], out);
    }
    if (!nearLine) return;
    // (Nearly) collinear throughout: p meets an end point when a coordinate of p - a (or p - b)
    // vanishes.
    for (const Vec* x : {&a0, &b0}) {
        const Vec& x0 = *x;
        const Vec& x1 = (x == &a0) ? a1 : b1;
        const Vec d0 = p0 - x0, dv = (p1 - x1) - d0;
        for (int k = 0; k < 3; ++k)
            if (dv[k] != 0.0) out.add(-d0[k] / dv[k]);
    }
}

// Adds to the candidates of the root walk the extrema of the cubic in [0, 1] at which it comes
// within its rounding noise of zero: a double root there may have been lost by the solver.
void addNearDoubleRoots(const double* c, Candidates& out) {
    const double noise =
        kScaledNoise + 8.0 * kUnitRound * (std::fabs(c[0]) + std::fabs(c[1]) + std::fabs(c[2]) + std::fabs(c[3]));
    Candidates ext;
    addQuadraticEvents(c[1], 2.0 * c[2], 3.0 * c[3], ext);
    for (int i = 0; i < ext.n; ++i) {
        const double t = ext.t[i];
        if (std::fabs(evalCubic(c, t)) <= noise) out.add(t);
    }
}

// Walks the cubic's roots in [0, 1] in ascending order and calls test(t) at each candidate time
// until one reports a contact. Returns true with that time.
template <class Test, class Sign>
bool walkRoots(const Cubic& q, double timeBound, double& time, Test&& test, Sign&& exactSign) {
    double times[8];
    const int n = detail::rootWalkTimes(q.c[0], q.c[1], q.c[2], q.c[3], times);
    for (int i = 0; i < n; ++i) {
        if (!(times[i] < timeBound)) return false;
        if (test(times[i])) {
            time = times[i];
            return true;
        }
    }
    if (n > 0) return false;
    // Nothing to test. Unless the pre-check rejected the cubic, make sure that rounding did not
    // lose a crossing of the plane: the exact orientation signs at the two ends of the step
    // decide, and a sign change is located by bisection on the exact signs.
    const double* c = q.c;
    if (std::fabs(c[0] + c[1] + c[2] + c[3]) > kResidual && detail::cubicRootPreCheckRejects(c[0], c[1], c[2], c[3]))
        return false;
    const int s0 = exactSign(0.0), s1 = exactSign(1.0);
    double t;
    if (s0 == 0) {
        t = 0.0;
    } else if (s1 == 0) {
        t = 1.0;
    } else if (s0 != s1) {
        double lo = 0.0, hi = 1.0;
        for (int it = 0; it < 64 && hi - lo > 0.0; ++it) {
            const double mid = 0.5 * (lo + hi);
            if (!(mid > lo && mid < hi)) break;
            const int sm = exactSign(mid);
            if (sm == 0) {
                lo = hi = mid;
                break;
            }
            (sm == s0 ? lo : hi) = mid;
        }
        t = hi;
    } else {
        return false;
    }
    if (!(t < timeBound) || !test(t)) return false;
    time = t;
    return true;
}

// How far the four moving points are from staying in one plane.
enum class Planarity {
    General,     // the cubic decides
    Near,        // within 1e-10 (relative) of one plane throughout: the cubic's roots and the
                 // in-plane events are both tested
    Throughout,  // within rounding noise of one plane: only the in-plane events are tested
};

// The cheap gate on the scaled coefficients is followed by a bound on each coefficient from the
// magnitudes of the terms it was summed from (start differences x1, x2, y; end differences e1,
// e2, f), so that badly proportioned features (a tiny face, a far vertex) are judged by their
// own size.
Planarity planarity(const Cubic& q, const Vec& x1, const Vec& x2, const Vec& y, const Vec& e1, const Vec& e2,
                    const Vec& f) {
    constexpr double kNear = 1e-10;
    for (int i = 0; i < 4; ++i)
        if (std::fabs(q.c[i]) > 200.0 * kNear) return Planarity::General;
    const double sc = q.scale;
    const Vec mx1 = absv(x1) * sc, mx2 = absv(x2) * sc, my = absv(y) * sc;
    const Vec mv1 = absv(e1) * sc + mx1, mv2 = absv(e2) * sc + mx2, mw = absv(f) * sc + my;
    const Vec m0 = crossAbs(mx1, mx2);
    const Vec m1 = crossAbs(mx1, mv2) + crossAbs(mv1, mx2);
    const Vec m2 = crossAbs(mv1, mv2);
    const double mag[4] = {m0.dot(my), m0.dot(mw) + m1.dot(my), m1.dot(mw) + m2.dot(my), m2.dot(mw)};
    bool noise = true;
    for (int i = 0; i < 4; ++i) {
        const double a = std::fabs(q.c[i]);
        if (a > kNear * mag[i]) return Planarity::General;
        if (a > 32.0 * kUnitRound * mag[i]) noise = false;
    }
    return noise ? Planarity::Throughout : Planarity::Near;
}

// Adds the root walk's times unless the cubic is rounding noise.
void addRootTimes(const Cubic& q, Planarity pl, Candidates& cand) {
    if (pl == Planarity::Throughout) return;
    double times[8];
    const int n = detail::rootWalkTimes(q.c[0], q.c[1], q.c[2], q.c[3], times);
    for (int i = 0; i < n; ++i) cand.add(times[i]);
}

// Tests the candidate times in ascending order (below timeBound) until one passes.
template <class Test>
bool walkCandidates(Candidates& cand, double timeBound, double& time, Test&& test) {
    cand.sort();
    for (int i = 0; i < cand.n; ++i) {
        if (i > 0 && cand.t[i] == cand.t[i - 1]) continue;
        if (!(cand.t[i] < timeBound)) return false;
        if (test(cand.t[i])) {
            time = cand.t[i];
            return true;
        }
    }
    return false;
}

}  // namespace

namespace detail {

bool cubicRootPreCheckRejects(double c0, double c1, double c2, double c3) {
    const double a = std::fabs(c0), b = std::fabs(c1), c = std::fabs(c2), d = std::fabs(c3);
    if (a > b + c + d) return true;
    if (((c0 > 0.0 && c1 > 0.0) || (c0 < 0.0 && c1 < 0.0)) && a + b > c + d) return true;
    if (c0 * c1 < 0.0 && b > 2.0 * c + 3.0 * d && (c0 + c1 + c2 + c3) * c0 > 0.0) return true;
    if ((c0 >= 0.0 && c1 >= 0.0 && c2 >= 0.0) || (c0 < 0.0 && c1 < 0.0 && c2 < 0.0)) return a + b + c > d;
    return false;
}

int rootWalkTimes(double c0, double c1, double c2, double c3, double times[8]) {
    const double c[4] = {c0, c1, c2, c3};
    // A cubic the pre-check rejects has no root after the start; one that vanishes at t = 0
    // (the features coplanar as the step begins) still has that root.
    const double p1 = c0 + c1 + c2 + c3;
    if (std::fabs(p1) > kResidual && cubicRootPreCheckRejects(c0, c1, c2, c3)) {
        if (!(std::fabs(c0) <= kScaledNoise)) return 0;
        times[0] = 0.0;
        return 1;
    }

    double roots[3];
    const int n = GmPolynomial::getRealCubicRoots(c0, c1, c2, c3, roots);
    Candidates cand;
    double last = 0.0;
    for (int i = 0; i < n; ++i) {
        const double r = roots[i];
        if (r < kRootLow) continue;
        if (r > kRootHigh) break;
        const double t = refineCubicRoot(c0, c1, c2, c3, r);
        if (!(t > last) || t > kRootHigh) continue;
        last = std::min(std::max(last, t), 1.0);
        cand.t[cand.n++] = last;
    }
    // Times where the solver may have lost a double root, or a root at the very start.
    addNearDoubleRoots(c, cand);
    if (std::fabs(c0) <= kScaledNoise) cand.add(0.0);
    cand.sort();
    int m = 0;
    for (int i = 0; i < cand.n && m < 8; ++i)
        if (m == 0 || cand.t[i] != times[m - 1]) times[m++] = cand.t[i];
    return m;
}

bool vertexFaceCubic(const Vec& p0, const Vec& a0, const Vec& b0, const Vec& c0, const Vec& p1, const Vec& a1,
                     const Vec& b1, const Vec& c1, double coeffs[4]) {
    Cubic q;
    if (buildCubic(b0 - a0, c0 - a0, p0 - a0, b1 - a1, c1 - a1, p1 - a1, q) != CubicStatus::Ok) return false;
    std::copy(q.c, q.c + 4, coeffs);
    return true;
}

bool edgeEdgeCubic(const Vec& a0, const Vec& b0, const Vec& c0, const Vec& d0, const Vec& a1, const Vec& b1,
                   const Vec& c1, const Vec& d1, double coeffs[4]) {
    Cubic q;
    if (buildCubic(b0 - a0, d0 - c0, c0 - a0, b1 - a1, d1 - c1, c1 - a1, q) != CubicStatus::Ok) return false;
    std::copy(q.c, q.c + 4, coeffs);
    return true;
}

double refineCubicRoot(double c0, double c1, double c2, double c3, double t) {
    double p = ((c3 * t + c2) * t + c1) * t + c0;
    for (int it = 0; it < 4 && !(std::fabs(p) < kResidual); ++it) {
        const double dp = (3.0 * c3 * t + 2.0 * c2) * t + c1;
        if (dp == 0.0 || !std::isfinite(dp)) break;
        const double tn = t - p / dp;
        if (!std::isfinite(tn)) break;
        t = tn;
        p = ((c3 * t + c2) * t + c1) * t + c0;
    }
    return t;
}

}  // namespace detail

bool pointFaceIntersection(const Vec& p0, const Vec& a0, const Vec& b0, const Vec& c0, const Vec& p1,
                           const Vec& a1, const Vec& b1, const Vec& c1, double timeBound, double& time,
                           Vec& point, Vec& barycentric, Vec& normal) {
    Cubic q;
    const Vec x1 = b0 - a0, x2 = c0 - a0, y = p0 - a0, e1 = b1 - a1, e2 = c1 - a1, f = p1 - a1;
    const CubicStatus status = buildCubic(x1, x2, y, e1, e2, f, q);
    if (status == CubicStatus::NotFinite) return false;
    if (status == CubicStatus::OutOfRange) {
        GmDiagnostics::report(GmDiagnostics::Kind::RangePointFace,
                              "Error in GmIntersection::pointFaceIntersection() ... Coordinates outside the supported range.");
        return false;
    }

    Vec bary;
    auto inFace = [&](double t) {
        const Vec p = lerp(p0, p1, t), a = lerp(a0, a1, t), b = lerp(b0, b1, t), c = lerp(c0, c1, t);
        if (clearlyApart(p, p, a, b, c)) return false;
        const double d2 = GmSegmentDistance::pointTriangleDistanceSquared(p, a, b, c, bary);
        const double scale2 =
            std::max((b - a).lengthSquared(), std::max((c - a).lengthSquared(), (c - b).lengthSquared()));
        return d2 <= kInPlaneTol * kInPlaneTol * scale2;
    };
    double t;
    const Planarity pl =
        status == CubicStatus::AllCoincide ? Planarity::Throughout : planarity(q, x1, x2, y, e1, e2, f);
    if (pl == Planarity::General) {
        auto sign = [&](double tm) {
            const Vec p = lerp(p0, p1, tm), a = lerp(a0, a1, tm), b = lerp(b0, b1, tm), c = lerp(c0, c1, tm);
            const double o = GmPredicates::orient3d(&a.x, &b.x, &c.x, &p.x);
            return o > 0.0 ? 1 : (o < 0.0 ? -1 : 0);
        };
        if (!walkRoots(q, timeBound, t, inFace, sign)) return false;
    } else {
        // The vertex stays (nearly) in the face's plane: it is in the face from the start, or it
        // enters through an edge.
        Candidates cand;
        addRootTimes(q, pl, cand);
        cand.add(0.0);
        addVertexEdgeEvents(p0, a0, b0, p1, a1, b1, cand);
        addVertexEdgeEvents(p0, b0, c0, p1, b1, c1, cand);
        addVertexEdgeEvents(p0, c0, a0, p1, c1, a1, cand);
        if (!walkCandidates(cand, timeBound, t, inFace)) return false;
    }

    const Vec a = lerp(a0, a1, t), b = lerp(b0, b1, t), c = lerp(c0, c1, t);
    const Vec ab = b - a, ac = c - a;
    Vec n = ab.cross(ac);
    double len = n.length();
    const double m = std::max({absv(a).length(), absv(b).length(), absv(c).length()});
    if (crossAboveNoise(len, ab.length(), ac.length(), m)) {
        n /= len;
        // Towards the side of the face on which the vertex started (or against its motion when
        // it started in the plane).
        double side = n.dot(p0 - (a0 * bary.x + b0 * bary.y + c0 * bary.z));
        if (side == 0.0) side = -n.dot(p1 - (a1 * bary.x + b1 * bary.y + c1 * bary.z));
        if (side < 0.0) n = -n;
    } else {
        // The face has no area at the contact: the direction from the face to the vertex at the
        // start of the step, else against the vertex's motion relative to the face.
        double s0, t0;
        GmGeometry::closestParametricPointOnTriangle(p0, a0, b0, c0, s0, t0);
        const Vec q0 = a0 + (b0 - a0) * s0 + (c0 - a0) * t0;
        const Vec motion = (p1 - p0) - ((a1 - a0) * bary.x + (b1 - b0) * bary.y + (c1 - c0) * bary.z);
        if (!fallbackDirection(p0 - q0, -motion, featureMagnitude({&p0, &a0, &b0, &c0, &p1, &a1, &b1, &c1}), n)) {
            GmDiagnostics::report(GmDiagnostics::Kind::CollisionNormalPointFace,
                                  "Error in GmIntersection::pointFaceIntersection() ... Unable to compute collision normal.");
            return false;
        }
    }

    time = t;
    barycentric = bary;
    point = a * bary.x + b * bary.y + c * bary.z;
    normal = n;
    return true;
}

bool edgeEdgeIntersection(const Vec& a0, const Vec& b0, const Vec& c0, const Vec& d0, const Vec& a1,
                          const Vec& b1, const Vec& c1, const Vec& d1, double timeBound, double& time, double& s,
                          double& t, Vec& normal) {
    Cubic q;
    const Vec x1 = b0 - a0, x2 = d0 - c0, y = c0 - a0, e1 = b1 - a1, e2 = d1 - c1, f = c1 - a1;
    const CubicStatus status = buildCubic(x1, x2, y, e1, e2, f, q);
    if (status == CubicStatus::NotFinite) return false;
    if (status == CubicStatus::OutOfRange) {
        GmDiagnostics::report(GmDiagnostics::Kind::RangeEdgeEdge,
                              "Error in GmIntersection::edgeEdgeIntersection() ... Coordinates outside the supported range.");
        return false;
    }

    double ss = 0.0, tt = 0.0;
    auto cross = [&](double tm) {
        const Vec a = lerp(a0, a1, tm), b = lerp(b0, b1, tm), c = lerp(c0, c1, tm), d = lerp(d0, d1, tm);
        if (clearlyApart(a, b, c, d, d)) return false;
        const double d2 = GmSegmentDistance::segmentSegmentDistanceSquared(a, b, c, d, ss, tt);
        const double scale2 = std::max((b - a).lengthSquared(), (d - c).lengthSquared());
        return d2 <= kInPlaneTol * kInPlaneTol * scale2;
    };
    double tm;
    const Planarity pl =
        status == CubicStatus::AllCoincide ? Planarity::Throughout : planarity(q, x1, x2, y, e1, e2, f);
    if (pl == Planarity::General) {
        auto sign = [&](double u) {
            const Vec a = lerp(a0, a1, u), b = lerp(b0, b1, u), c = lerp(c0, c1, u), d = lerp(d0, d1, u);
            const double o = GmPredicates::orient3d(&a.x, &b.x, &c.x, &d.x);
            return o > 0.0 ? 1 : (o < 0.0 ? -1 : 0);
        };
        if (!walkRoots(q, timeBound, tm, cross, sign)) return false;
    } else {
        // The edges stay (nearly) in one plane: they cross from the start, or an end point of one
        // meets the other first.
        Candidates cand;
        addRootTimes(q, pl, cand);
        cand.add(0.0);
        addVertexEdgeEvents(a0, c0, d0, a1, c1, d1, cand);
        addVertexEdgeEvents(b0, c0, d0, b1, c1, d1, cand);
        addVertexEdgeEvents(c0, a0, b0, c1, a1, b1, cand);
        addVertexEdgeEvents(d0, a0, b0, d1, a1, b1, cand);
        if (!walkCandidates(cand, timeBound, tm, cross)) return false;
    }

    const Vec a = lerp(a0, a1, tm), b = lerp(b0, b1, tm), c = lerp(c0, c1, tm), d = lerp(d0, d1, tm);
    const Vec da = b - a, dc = d - c;
    Vec n = (a + da * ss) - (c + dc * tt);
    double len = n.length();
    // The closest-point direction is meaningful only above its own rounding noise: that of the
    // positions (magnitude m) and that of the closest points along the edges, which grows as
    // 1 / sin(angle) when the edges are close to parallel (their own branch when parallel).
    // Every term is relative to the features, so the decision is the same at any power-of-two
    // scale.
    const double m = std::max({absv(a).length(), absv(b).length(), absv(c).length(), absv(d).length()});
    const double la = da.length(), lc = dc.length();
    const Vec cr = da.cross(dc);
    const double crl = cr.length();
    const bool crossing = crossAboveNoise(crl, la, lc, m);
    const double along = 16.0 * kUnitRound * std::max(la, lc) * (crossing ? la * (lc / crl) : 1.0);
    const double noise = std::max(64.0 * kUnitRound * m, along);
    bool found = true;
    if (!(len > noise)) {
        double s2, t2;
        GmSegmentDistance::segmentSegmentDistanceSquared(a, b, c, d, s2, t2);
        n = (a + da * s2) - (c + dc * t2);
        len = n.length();
        if (!(len > noise)) {
            // The edges cross: the normal of the plane they span, unless they are parallel.
            n = cr;
            len = crl;
            found = crossing;
        }
    }
    if (found) {
        n /= len;
        // From edge c-d towards edge a-b as they stood at the start (against the motion when they
        // started in contact).
        double side = n.dot((a0 + (b0 - a0) * ss) - (c0 + (d0 - c0) * tt));
        if (side == 0.0) side = -n.dot((a1 + (b1 - a1) * ss) - (c1 + (d1 - c1) * tt));
        if (side < 0.0) n = -n;
    } else {
        // Parallel edges in contact: the direction between the edges at the start of the step,
        // else against the motion of a-b relative to c-d.
        double s0, t0;
        GmSegmentDistance::segmentSegmentDistanceSquared(a0, b0, c0, d0, s0, t0);
        const Vec start = (a0 + (b0 - a0) * s0) - (c0 + (d0 - c0) * t0);
        const Vec motion = ((a1 - a0) * (1.0 - ss) + (b1 - b0) * ss) - ((c1 - c0) * (1.0 - tt) + (d1 - d0) * tt);
        if (!fallbackDirection(start, -motion, featureMagnitude({&a0, &b0, &c0, &d0, &a1, &b1, &c1, &d1}), n)) {
            GmDiagnostics::report(GmDiagnostics::Kind::CollisionNormalEdgeEdge,
                                  "Error in GmIntersection::edgeEdgeIntersection() ... Unable to compute collision normal.");
            return false;
        }
    }

    time = tm;
    s = ss;
    t = tt;
    normal = n;
    return true;
}

// ---------------------------------------------------------------------------------------------
// ComponentTests

bool ComponentTests::test(unsigned pos) const {
    if (pos >= kSize) throw std::out_of_range("invalid bitset position");
    return ((_bits >> pos) & 1u) != 0;
}

ComponentTests& ComponentTests::set(unsigned pos, bool value) {
    if (pos >= kSize) throw std::out_of_range("invalid bitset position");
    if (value)
        _bits |= (1u << pos);
    else
        _bits &= ~(1u << pos);
    return *this;
}

ComponentTests& ComponentTests::reset(unsigned pos) { return set(pos, false); }

unsigned ComponentTests::count() const {
    unsigned n = 0;
    for (std::uint32_t b = _bits; b; b &= b - 1) ++n;
    return n;
}

}  // namespace GmIntersection

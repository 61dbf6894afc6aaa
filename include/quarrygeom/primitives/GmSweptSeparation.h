#pragma once

// Cheap conservative filters for the continuous-time vertex-face and edge-edge tests.
//
// Both tests look for a time at which four linearly moving points are coplanar: the sign of
// D(t) = det(x1(t), x2(t), y(t)), with x1, x2 spanning the face (or the two edge directions)
// and y from the face (edge) to the vertex (other edge), is a cubic in t. Written in Bernstein
// form over the step, its four control values bound it: when all four have one sign, the
// points never become coplanar and the test can report no contact. This is the deforming
// non-penetration test of the literature (the vertex's, or the edges', motion along the face
// normal, or the edges' common normal, compared at both ends of the step and at the two
// mixed terms).
//
// Margins, so that the filter never rejects a pair that the continuous tests would report:
//   - the step is widened by 1e-5 at both ends (the tests accept roots slightly outside it);
//   - the control values must clear 1e-5 * L^3, where L is the largest component of the six
//     difference vectors: far above their rounding errors, and some ten times the bound up to
//     which the tests treat four points as staying in one plane (and then test for contact by
//     the in-plane distance alone);
//   - the differences are taken exactly as the continuous tests take them, and non-finite input
//     is never rejected.
//
// Features that do become coplanar often pass beside each other (dense, nearly flat contact):
// vertexFaceBeside and edgeEdgeBeside look for a gap between the two features' swept hulls (the
// convex hulls of their corners' start and end positions, which hold the features at every
// time of the step) along the normal of one of the face's edges, or of either edge, within the
// start plane. The gap must exceed four times the in-plane contact tolerance (1e-6 of the
// longest edge), the hulls' widths times the same factor (roots slightly beyond the step) and
// the rounding of the projections.
//
// Header-only, so that the contact kernels inline it.

#include <algorithm>
#include <cmath>

#include <quarrygeom/core/GmTVector.h>

namespace GmSweptSeparation {

namespace detail {

using Vec = GmTVector<double>;

// Widening of the step at each end, and the margin relative to L^3.
constexpr double kWiden = 1e-5;
constexpr double kMargin = 1e-5;
// Side filters: four times the in-plane contact tolerance, and the rounding of a projection
// relative to the coordinates' magnitude.
constexpr double kInPlane = 4e-6;
constexpr double kRounding = 1e-14;

inline double maxAbs(const Vec& v) { return std::max(std::fabs(v.x), std::max(std::fabs(v.y), std::fabs(v.z))); }

// det(x1, x2, y) over the step, with start values x1, x2, y and end values e1, e2, f: true when
// its Bernstein control values over the widened step all clear the margin with one sign.
inline bool apart(const Vec& x1, const Vec& x2, const Vec& y, const Vec& e1, const Vec& e2, const Vec& f) {
    const Vec v1 = e1 - x1, v2 = e2 - x2, w = f - y;
    const Vec a0 = x1 - v1 * kWiden, a1 = e1 + v1 * kWiden;
    const Vec b0 = x2 - v2 * kWiden, b1 = e2 + v2 * kWiden;
    const Vec c0 = y - w * kWiden, c1 = f + w * kWiden;
    const double L = std::max({maxAbs(a0), maxAbs(a1), maxAbs(b0), maxAbs(b1), maxAbs(c0), maxAbs(c1)});
    const double m = kMargin * L * L * L;
    if (!(m > 0.0) || !std::isfinite(m)) return false;
    const Vec n00 = a0.cross(b0), n11 = a1.cross(b1), nm = a0.cross(b1) + a1.cross(b0);
    // Control values, the two middle ones times 3.
    const double d0 = n00.dot(c0);
    const double d3 = n11.dot(c1);
    const double d1 = nm.dot(c0) + n00.dot(c1);
    const double d2 = nm.dot(c1) + n11.dot(c0);
    const double m3 = 3.0 * m;
    return (d0 > m && d1 > m3 && d2 > m3 && d3 > m) || (d0 < -m && d1 < -m3 && d2 < -m3 && d3 < -m);
}

inline double norm1(const Vec& v) { return std::fabs(v.x) + std::fabs(v.y) + std::fabs(v.z); }

// Projections of n points onto u: their smallest and largest.
inline void project(const Vec* p, int n, const Vec& u, double& lo, double& hi) {
    lo = hi = p[0].dot(u);
    for (int k = 1; k < n; ++k) {
        const double d = p[k].dot(u);
        lo = std::min(lo, d);
        hi = std::max(hi, d);
    }
}

// Whether the points p (np of them) and q (nq) lie apart along u by more than the in-plane
// contact tolerance of features of length up to `length` can bridge. Every point of a moving
// feature lies, at every time of the step, in the convex hull of its corners' start and end
// positions, so that a gap between the two hulls along any direction holds throughout. The
// margin covers the tolerance (1e-6 of the longest edge), times up to 1e-6 beyond the ends of
// the step (as far again as the hull's own width along u) and the rounding of the projections.
inline bool hullsApart(const Vec* p, int np, const Vec* q, int nq, const Vec& u, double length) {
    double plo, phi, qlo, qhi;
    project(p, np, u, plo, phi);
    project(q, nq, u, qlo, qhi);
    const double gap = std::max(qlo - phi, plo - qhi);
    if (!(gap > 0.0)) return false;  // the usual case, and non-finite input
    double m = 0.0;
    for (int k = 0; k < np; ++k) m = std::max(m, maxAbs(p[k]));
    for (int k = 0; k < nq; ++k) m = std::max(m, maxAbs(q[k]));
    const double u1 = norm1(u);  // at least |u|, with length at least the longest edge's
    const double margin = kInPlane * (length * u1 + (phi - plo) + (qhi - qlo)) + kRounding * m * u1;
    return gap > margin;  // false for non-finite input
}

}  // namespace detail

// Vertex p against the face (a, b, c): start positions p0 ... c0, end positions p1 ... c1.
// True when the vertex stays clear of the face's plane over the whole step: no contact.
inline bool vertexFaceApart(const GmTVector<double>& p0, const GmTVector<double>& a0, const GmTVector<double>& b0,
                            const GmTVector<double>& c0, const GmTVector<double>& p1, const GmTVector<double>& a1,
                            const GmTVector<double>& b1, const GmTVector<double>& c1) {
    return detail::apart(b0 - a0, c0 - a0, p0 - a0, b1 - a1, c1 - a1, p1 - a1);
}

// Edge (a, b) against edge (c, d), positions as above. True when the two edges' lines stay
// clear of a common plane over the whole step: no contact.
inline bool edgeEdgeApart(const GmTVector<double>& a0, const GmTVector<double>& b0, const GmTVector<double>& c0,
                          const GmTVector<double>& d0, const GmTVector<double>& a1, const GmTVector<double>& b1,
                          const GmTVector<double>& c1, const GmTVector<double>& d1) {
    return detail::apart(b0 - a0, d0 - c0, c0 - a0, b1 - a1, d1 - c1, c1 - a1);
}

// Vertex p against the face (a, b, c), positions as above. True when the vertex's path stays
// beyond one of the face's edges (along the edge's outward normal in the face's start plane) by
// more than the contact tolerance over the whole step: no contact.
inline bool vertexFaceBeside(const GmTVector<double>& p0, const GmTVector<double>& a0, const GmTVector<double>& b0,
                             const GmTVector<double>& c0, const GmTVector<double>& p1, const GmTVector<double>& a1,
                             const GmTVector<double>& b1, const GmTVector<double>& c1) {
    using detail::Vec;
    const Vec n = (b0 - a0).cross(c0 - a0);
    const Vec p[2] = {p0, p1};
    const Vec f[6] = {a0, b0, c0, a1, b1, c1};
    const double length = std::max({detail::norm1(b0 - a0), detail::norm1(c0 - b0), detail::norm1(a0 - c0),
                                    detail::norm1(b1 - a1), detail::norm1(c1 - b1), detail::norm1(a1 - c1)});
    return detail::hullsApart(p, 2, f, 6, n.cross(b0 - a0), length) ||
           detail::hullsApart(p, 2, f, 6, n.cross(c0 - b0), length) ||
           detail::hullsApart(p, 2, f, 6, n.cross(a0 - c0), length);
}

// Edge (a, b) against edge (c, d), positions as above. True when one edge stays to one side of
// the other's line (along the normal of either edge within their common start plane) by more
// than the contact tolerance over the whole step: no contact.
inline bool edgeEdgeBeside(const GmTVector<double>& a0, const GmTVector<double>& b0, const GmTVector<double>& c0,
                           const GmTVector<double>& d0, const GmTVector<double>& a1, const GmTVector<double>& b1,
                           const GmTVector<double>& c1, const GmTVector<double>& d1) {
    using detail::Vec;
    const Vec e = b0 - a0, g = d0 - c0;
    const Vec n = e.cross(g);
    const Vec p[4] = {a0, b0, a1, b1};
    const Vec q[4] = {c0, d0, c1, d1};
    const double length = std::max({detail::norm1(e), detail::norm1(g), detail::norm1(b1 - a1), detail::norm1(d1 - c1)});
    return detail::hullsApart(p, 4, q, 4, n.cross(e), length) || detail::hullsApart(p, 4, q, 4, n.cross(g), length);
}

}  // namespace GmSweptSeparation

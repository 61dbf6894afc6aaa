#include <quarrygeom/primitives/GmGeometry.h>

#include <algorithm>
#include <cmath>
#include <limits>

#include "GmRayTriangle.h"

namespace GmGeometry {

namespace {

using Vec = GmTVector<double>;

// Triangles whose Gram determinant a c - b^2 is below this fraction of a c are too thin for the
// interior solution to be trusted on its own (rounding alone leaves about 1e-16 a c for a
// zero-area triangle); their edges are searched as well.
constexpr double kThinTriangle = 1e-14;

// Closest point on the segment from a to b: parameter u in [0, 1] and squared distance.
double closestOnSegment(const Vec& p, const Vec& a, const Vec& b, double& u) {
    const Vec ab = b - a;
    const double len2 = ab.lengthSquared();
    const double proj = (p - a).dot(ab);
    u = 0.0;
    if (len2 > 0.0 && proj > 0.0) u = proj >= len2 ? 1.0 : proj / len2;
    return (p - (a + ab * u)).lengthSquared();
}

// Best point on the three edges of the triangle, as (s, t); exact for zero-area triangles.
double closestOnEdges(const Vec& p, const Vec& v0, const Vec& v1, const Vec& v2, double& s, double& t) {
    double u;
    double best = closestOnSegment(p, v0, v1, u);
    s = u;
    t = 0.0;
    double d2 = closestOnSegment(p, v0, v2, u);
    if (d2 < best) {
        best = d2;
        s = 0.0;
        t = u;
    }
    d2 = closestOnSegment(p, v1, v2, u);
    if (d2 < best) {
        best = d2;
        s = 1.0 - u;
        t = u;
    }
    return best;
}

using RayTri::inversePowerOfTwoAbove;
using RayTri::kSquareHigh;
using RayTri::kSquareLow;
using RayTri::maxAbs;

double closestRegion(const Vec& e0, const Vec& e1, const Vec& diff, const Vec& p, const Vec& v0, const Vec& v1,
                     const Vec& v2, double& s, double& t);

}  // namespace

double closestParametricPointOnTriangle(const Vec& p, const Vec& v0, const Vec& v1, const Vec& v2, double& s,
                                        double& t) {
    const Vec e0 = v1 - v0;
    const Vec e1 = v2 - v0;
    const Vec diff = v0 - p;
    const double a = e0.dot(e0), c = e1.dot(e1), f = diff.dot(diff);
    // Positions relative to v0 throughout, so that a power-of-two scaling changes nothing.
    const Vec origin(0.0, 0.0, 0.0);
    if (std::max(a, std::max(c, f)) <= kSquareHigh && std::max(a, c) >= kSquareLow)
        return closestRegion(e0, e1, diff, origin - diff, origin, e0, e1, s, t);
    // Far from unit scale: the same computation on coordinates relative to v0, scaled by a power
    // of two (exact), so that the answer does not depend on the scale.
    const double m = std::max(maxAbs(e0), std::max(maxAbs(e1), maxAbs(diff)));
    s = t = 0.0;
    if (!(m > 0.0)) return m == 0.0 ? 0.0 : m;  // one point, or NaN
    if (!std::isfinite(m)) return std::numeric_limits<double>::quiet_NaN();
    const double sc = inversePowerOfTwoAbove(m);
    const Vec se0 = e0 * sc, se1 = e1 * sc, sdiff = diff * sc;
    const double d2 = closestRegion(se0, se1, sdiff, origin - sdiff, origin, se0, se1, s, t);
    return d2 / sc / sc;
}

namespace {

double closestRegion(const Vec& e0, const Vec& e1, const Vec& diff, const Vec& p, const Vec& v0, const Vec& v1,
                     const Vec& v2, double& s, double& t) {
    const double a = e0.dot(e0);
    const double b = e0.dot(e1);
    const double c = e1.dot(e1);
    const double d = e0.dot(diff);
    const double e = e1.dot(diff);
    const double f = diff.dot(diff);
    const double det = std::fabs(a * c - b * b);

    const bool thin = !(det > kThinTriangle * a * c);
    if (thin && !(det > 0.0)) return closestOnEdges(p, v0, v1, v2, s, t);

    s = b * e - c * d;
    t = b * d - a * e;
    double sqrDist;

    if (s + t <= det) {
        if (s < 0.0) {
            if (t < 0.0) {  // region 4
                if (d < 0.0) {
                    t = 0.0;
                    if (-d >= a) {
                        s = 1.0;
                        sqrDist = a + 2.0 * d + f;
                    } else {
                        s = -d / a;
                        sqrDist = d * s + f;
                    }
                } else {
                    s = 0.0;
                    if (e >= 0.0) {
                        t = 0.0;
                        sqrDist = f;
                    } else if (-e >= c) {
                        t = 1.0;
                        sqrDist = c + 2.0 * e + f;
                    } else {
                        t = -e / c;
                        sqrDist = e * t + f;
                    }
                }
            } else {  // region 3
                s = 0.0;
                if (e >= 0.0) {
                    t = 0.0;
                    sqrDist = f;
                } else if (-e >= c) {
                    t = 1.0;
                    sqrDist = c + 2.0 * e + f;
                } else {
                    t = -e / c;
                    sqrDist = e * t + f;
                }
            }
        } else if (t < 0.0) {  // region 5
            t = 0.0;
            if (d >= 0.0) {
                s = 0.0;
                sqrDist = f;
            } else if (-d >= a) {
                s = 1.0;
                sqrDist = a + 2.0 * d + f;
            } else {
                s = -d / a;
                sqrDist = d * s + f;
            }
        } else {  // region 0
            const double invDet = 1.0 / det;
            s *= invDet;
            t *= invDet;
            sqrDist = s * (a * s + b * t + 2.0 * d) + t * (b * s + c * t + 2.0 * e) + f;
        }
    } else {
        if (s < 0.0) {  // region 2
            const double tmp0 = b + d;
            const double tmp1 = c + e;
            if (tmp1 > tmp0) {
                const double numer = tmp1 - tmp0;
                const double denom = a - 2.0 * b + c;
                if (numer >= denom) {
                    s = 1.0;
                    t = 0.0;
                    sqrDist = a + 2.0 * d + f;
                } else {
                    s = numer / denom;
                    t = 1.0 - s;
                    sqrDist = s * (a * s + b * t + 2.0 * d) + t * (b * s + c * t + 2.0 * e) + f;
                }
            } else {
                s = 0.0;
                if (tmp1 <= 0.0) {
                    t = 1.0;
                    sqrDist = c + 2.0 * e + f;
                } else if (e >= 0.0) {
                    t = 0.0;
                    sqrDist = f;
                } else {
                    t = -e / c;
                    sqrDist = e * t + f;
                }
            }
        } else if (t < 0.0) {  // region 6
            const double tmp0 = b + e;
            const double tmp1 = a + d;
            if (tmp1 > tmp0) {
                const double numer = tmp1 - tmp0;
                const double denom = a - 2.0 * b + c;
                if (numer >= denom) {
                    t = 1.0;
                    s = 0.0;
                    sqrDist = c + 2.0 * e + f;
                } else {
                    t = numer / denom;
                    s = 1.0 - t;
                    sqrDist = s * (a * s + b * t + 2.0 * d) + t * (b * s + c * t + 2.0 * e) + f;
                }
            } else {
                t = 0.0;
                if (tmp1 <= 0.0) {
                    s = 1.0;
                    sqrDist = a + 2.0 * d + f;
                } else if (d >= 0.0) {
                    s = 0.0;
                    sqrDist = f;
                } else {
                    s = -d / a;
                    sqrDist = d * s + f;
                }
            }
        } else {  // region 1
            const double numer = c + e - b - d;
            if (numer <= 0.0) {
                s = 0.0;
                t = 1.0;
                sqrDist = c + 2.0 * e + f;
            } else {
                const double denom = a - 2.0 * b + c;
                if (numer >= denom) {
                    s = 1.0;
                    t = 0.0;
                    sqrDist = a + 2.0 * d + f;
                } else {
                    s = numer / denom;
                    t = 1.0 - s;
                    sqrDist = s * (a * s + b * t + 2.0 * d) + t * (b * s + c * t + 2.0 * e) + f;
                }
            }
        }
    }
    sqrDist = std::fabs(sqrDist);

    if (thin || std::isnan(sqrDist)) {
        // The region solution of a sliver can be far off (or undefined when det underflows);
        // keep whichever candidate is closer, measured directly.
        const double regionDist = (diff + e0 * s + e1 * t).lengthSquared();
        double es, et;
        const double edgeDist = closestOnEdges(p, v0, v1, v2, es, et);
        if (!(regionDist <= edgeDist)) {
            s = es;
            t = et;
            return edgeDist;
        }
        return regionDist;
    }
    return sqrDist;
}

}  // namespace

bool intersectRayTri(const Vec& origin, const Vec& direction, const Vec& v0, const Vec& v1, const Vec& v2,
                     Vec& point, double& t, double& u, double& v) {
    return RayTri::intersect(RayTri::Ray(origin, direction), v0, v1, v2, point, t, u, v);
}

}  // namespace GmGeometry

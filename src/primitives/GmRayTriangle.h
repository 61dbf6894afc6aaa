#pragma once

// The ray-triangle test split into its per-ray part (done once per ray) and its per-triangle
// part (not installed). GmGeometry::intersectRayTri is the two in sequence, so a walk that sets
// a ray up once and tests many triangles gets the same answers, bit for bit.

#include <algorithm>
#include <cfloat>
#include <cmath>

#include <quarrygeom/core/GmTVector.h>

namespace GmGeometry {
namespace RayTri {

using Vec = GmTVector<double>;

// Barycentric tolerance at edges and vertices.
constexpr double kTol = 100.0 * DBL_EPSILON;
// Squares of lengths beyond these are too close to overflow or underflow for products of up to
// four lengths: relative coordinates are then scaled by a power of two first.
constexpr double kSquareHigh = 0x1p400;
constexpr double kSquareLow = 0x1p-400;

inline double maxAbs(const Vec& v) { return std::max(std::fabs(v.x), std::max(std::fabs(v.y), std::fabs(v.z))); }

// 2^-e for the e with m 2^-e in [0.5, 1) (m positive and finite), kept a finite normal number.
inline double inversePowerOfTwoAbove(double m) {
    int e;
    std::frexp(m, &e);
    return std::ldexp(1.0, -std::min(std::max(e, -1020), 1020));
}

// The per-ray part: the unit direction, its length, the origin's largest coordinate.
struct Ray {
    Vec origin;
    Vec dir;              // unit direction
    double len = 0.0;     // length of the direction, after the scaling below
    double tScale = 1.0;  // parameters along dir / len are multiplied by this (a power of two)
    double originMax = 0.0;
    bool valid = false;   // finite origin, finite non-zero direction

    Ray() = default;
    Ray(const Vec& o, const Vec& direction) : origin(o) {
        if (!(std::isfinite(o.x) && std::isfinite(o.y) && std::isfinite(o.z))) return;
        if (!(std::isfinite(direction.x) && std::isfinite(direction.y) && std::isfinite(direction.z))) return;
        Vec d = direction;
        double l = d.length();
        if (!(l > 0.0) || !std::isfinite(l)) {
            // A very short or very long direction is rescaled (exactly); a zero one never hits.
            const double md = maxAbs(d);
            if (!(md > 0.0)) return;
            tScale = inversePowerOfTwoAbove(md);
            d *= tScale;
            l = d.length();
        }
        dir = d / l;
        len = l;
        originMax = maxAbs(o);
        valid = true;
    }
};

#if defined(__GNUC__)
#define QG_RAYTRI_INLINE inline __attribute__((always_inline))
#else
#define QG_RAYTRI_INLINE inline
#endif

// The triangle part, on coordinates relative to v0 (tvec = origin - v0): the clamped weights
// of v1 and v2 and the hit's advance along dir from the origin. Acceptance is decided on the
// numerators (the weights times |det|), so that the divisions are left to the triangles that
// are hit.
QG_RAYTRI_INLINE bool relative(const Vec& tvec, const Vec& dir, const Vec& edge1, const Vec& edge2, double a,
                               double c, double& uOut, double& vOut, double& along) {
    const Vec pvec = dir.cross(edge2);
    const double det = pvec.dot(edge1);
    const double ad = std::fabs(det);
    const double sign = det < 0.0 ? -1.0 : 1.0;
    const double un = sign * tvec.dot(pvec);
    const double low = -kTol * ad, high = (1.0 + kTol) * ad;
    // NaN fails every comparison.
    if (!(un >= low && un <= high)) return false;
    const Vec qvec = tvec.cross(edge1);
    const double vn = sign * dir.dot(qvec);
    if (!(vn >= low && std::min(ad, std::max(0.0, un)) + vn <= high)) return false;
    // Parallel to the plane (relative to the edges' lengths, so at any scale).
    if (!(ad > DBL_EPSILON * std::sqrt(a * c))) return false;

    const double uc = std::min(1.0, std::max(0.0, un / ad));
    const double vc = std::min(1.0 - uc, std::max(0.0, vn / ad));
    along = (edge1 * uc + edge2 * vc - tvec).dot(dir);
    uOut = uc;
    vOut = vc;
    return true;
}

// The ray of r against the triangle (v0, v1, v2); the outputs as GmGeometry::intersectRayTri.
// Coordinates relative to v0 are scaled by a power of two (exactly) when the squared edge
// lengths leave [2^-400, 2^400] or the origin lies beyond 2^200 from v0, so that no product
// overflows or underflows; the answer does not depend on the scale.
QG_RAYTRI_INLINE bool intersect(const Ray& r, const Vec& v0, const Vec& v1, const Vec& v2, Vec& point, double& t,
                                double& u, double& v) {
    if (!r.valid) return false;
    Vec edge1 = v1 - v0, edge2 = v2 - v0, tvec = r.origin - v0;
    double a = edge1.lengthSquared(), c = edge2.lengthSquared();
    const double e2 = std::max(a, c);
    double sc = 1.0;
    if (!(e2 >= kSquareLow && e2 <= kSquareHigh && maxAbs(tvec) <= 0x1p200)) {
        const double mr = std::max(maxAbs(edge1), std::max(maxAbs(edge2), maxAbs(tvec)));
        if (!(mr > 0.0) || !std::isfinite(mr)) return false;  // also NaN
        sc = inversePowerOfTwoAbove(mr);
        edge1 *= sc;
        edge2 *= sc;
        tvec *= sc;
        a = edge1.lengthSquared();
        c = edge2.lengthSquared();
    }
    double uc, vc, along;
    if (!relative(tvec, r.dir, edge1, edge2, a, c, uc, vc, along)) return false;
    // Behind the origin by more than the rounding of positions of magnitude m, the largest
    // coordinate of the origin and the vertices.
    const double m = std::max(std::max(r.originMax, maxAbs(v0)), std::max(maxAbs(v1), maxAbs(v2)));
    if (!std::isfinite(m) || along < -kTol * (m * sc)) return false;
    const Vec hit = v0 * (1.0 - uc - vc) + v1 * uc + v2 * vc;
    double tt = (hit - r.origin).dot(r.dir) / r.len;
    if (!(tt >= 0.0)) tt = 0.0;
    if (!std::isfinite(tt)) return false;
    point = hit;
    t = tt * r.tScale;
    u = uc;
    v = vc;
    return true;
}

#undef QG_RAYTRI_INLINE

}  // namespace RayTri
}  // namespace GmGeometry

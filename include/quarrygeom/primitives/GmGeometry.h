#pragma once

#include <cfloat>
#include <cmath>

#include <quarrygeom/core/GmAxisAlignedBox.h>
#include <quarrygeom/core/GmExport.h>
#include <quarrygeom/core/GmPointOnTriType.h>
#include <quarrygeom/core/GmRay.h>
#include <quarrygeom/core/GmTVector.h>

// Single-triangle tests: point-triangle distance, ray-triangle and ray-box.
namespace GmGeometry {

// Squared distance from p to the triangle (v0, v1, v2) and the parameters of the closest point
// q = v0 + s (v1 - v0) + t (v2 - v0), with s >= 0, t >= 0, s + t <= 1, by the seven-region
// method. Never negative, never NaN for finite input: for zero-area and sliver triangles, where
// the interior solution is unreliable, the three edges are searched as well and the closer
// candidate is returned, with the distance measured to the point returned. Scale-free: the
// computation runs on coordinates relative to v0, rescaled by a power of two when squared
// lengths would leave [2^-400, 2^400]. The caller derives the PointOnTriType from (s, t).
QUARRYGEOM_API double closestParametricPointOnTriangle(const GmTVector<double>& p, const GmTVector<double>& v0,
                                                       const GmTVector<double>& v1, const GmTVector<double>& v2,
                                                       double& s, double& t);

// Two-sided ray-triangle test. On a hit: point = origin + t * direction lies on the triangle,
// u and v are the weights of v1 and v2 (v0 has 1 - u - v). Rays that graze an edge or start on
// the triangle (within 100 DBL_EPSILON in the barycentric weights, and behind the origin by at
// most 100 DBL_EPSILON times the largest coordinate) count as hits; the weights are then
// clamped so that the point lies exactly on the triangle and t >= 0. Every tolerance is
// relative, so the answer does not depend on the scale or on the direction's length. A zero
// direction, a ray parallel to the plane (relative to the edges' lengths) or input that is not
// finite never hits.
QUARRYGEOM_API bool intersectRayTri(const GmTVector<double>& origin, const GmTVector<double>& direction,
                                    const GmTVector<double>& v0, const GmTVector<double>& v1,
                                    const GmTVector<double>& v2, GmTVector<double>& point, double& t, double& u,
                                    double& v);

// True when the ray (unbounded ahead of its origin) meets the closed box. The test is
// conservative: a ray that touches the box is never rejected, and a ray is rejected only when it
// misses by more than a few units of rounding. Uses the ray's octant class; a zero direction
// component (classified negative) is handled exactly.
inline bool intersectRayBox(const GmAxisAlignedBox& box, const GmRay& ray) {
    const int cls = ray.getClassification();
    if (static_cast<unsigned>(cls) > 7u) return false;
    const GmTVector<double>& o = ray.getOrigin();
    const GmTVector<double>& d = ray.getDirection();

    // Each axis is mirrored so that the ray advances along it: n is the offset of the slab's
    // entry plane from the origin, x that of its exit plane, ad the advance per unit parameter.
    // For a negative axis (min offset a, max offset b) that is n = -b, x = -a.
    const double ax = static_cast<double>(box.minX) - o.x, bx = static_cast<double>(box.maxX) - o.x;
    const double ay = static_cast<double>(box.minY) - o.y, by = static_cast<double>(box.maxY) - o.y;
    const double az = static_cast<double>(box.minZ) - o.z, bz = static_cast<double>(box.maxZ) - o.z;
    const bool px = (cls & 4) != 0, py = (cls & 2) != 0, pz = (cls & 1) != 0;
    const double nx = px ? ax : -bx, xx = px ? bx : -ax, dx = px ? d.x : -d.x;
    const double ny = py ? ay : -by, xy = py ? by : -ay, dy = py ? d.y : -d.y;
    const double nz = pz ? az : -bz, xz = pz ? bz : -az, dz = pz ? d.z : -d.z;

    // Origin test: the slab's exit plane must not lie behind the origin.
    if ((xx < 0.0) | (xy < 0.0) | (xz < 0.0)) return false;

    // Slope tests: the ray enters slab j after it has left slab i when n_j / d_j > x_i / d_i,
    // multiplied out as d_i n_j > d_j x_i. A small relative slack keeps touching rays.
    constexpr double kSlack = 4.0 * DBL_EPSILON;
    auto later = [kSlack](double l, double r) { return l - r > kSlack * (std::fabs(l) + std::fabs(r)); };
    return !(later(dx * ny, dy * xx) | later(dy * nx, dx * xy) | later(dx * nz, dz * xx) |
             later(dz * nx, dx * xz) | later(dy * nz, dz * xy) | later(dz * ny, dy * xz));
}

}  // namespace GmGeometry

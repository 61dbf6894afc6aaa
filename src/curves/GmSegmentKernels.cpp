#include <quarrygeom/curves/GmSegmentKernels.h>

#include <cfloat>
#include <algorithm>
#include <cmath>

#include <quarrygeom/primitives/GmGeometry.h>
#include <quarrygeom/primitives/GmSegmentDistance.h>

#include "GmSegmentRay.h"

namespace {

constexpr double kDegenerate = 2.220446049250313e-16;

// A unit vector perpendicular to d (any), +z when d is zero.
GmTVector<double> perpendicular(const GmTVector<double>& d) {
    const double ax = std::fabs(d.x), ay = std::fabs(d.y), az = std::fabs(d.z);
    if (!(d.length() > kDegenerate)) return GmTVector<double>(0, 0, 1);
    const GmTVector<double> axis = ax <= ay && ax <= az ? GmTVector<double>(1, 0, 0)
                                   : ay <= az           ? GmTVector<double>(0, 1, 0)
                                                        : GmTVector<double>(0, 0, 1);
    return d.cross(axis).safeNormalized();
}

}  // namespace

namespace GmSegmentKernels {

bool segmentSegment(const GmTVector<double>& p0, const GmTVector<double>& p1, double rp0, double rp1,
                    const GmTVector<double>& q0, const GmTVector<double>& q1, double rq0, double rq1,
                    GmSegmentSegmentInfo& out) {
    // Cheap rejection: the segments lie within half their lengths of their midpoints, so centres
    // farther apart than the half lengths plus the largest radii cannot give a contact (nor a
    // crossing). The margin covers the rounding of this bound.
    const GmTVector<double> centres = (p0 + p1) * 0.5 - (q0 + q1) * 0.5;
    const double reach = 0.5 * ((p1 - p0).length() + (q1 - q0).length()) + std::max(rp0, rp1) + std::max(rq0, rq1);
    if (centres.lengthSquared() > reach * reach * (1.0 + 1e-10)) return false;
    const GmSegmentDistance::SegmentSegmentResult r = GmSegmentDistance::segmentSegment(p0, p1, q0, q1);
    const double ra = rp0 + r.s * (rp1 - rp0);
    const double rb = rq0 + r.t * (rq1 - rq0);
    const double distance = std::sqrt(r.distanceSquared);
    if (!r.intersect && !(distance <= ra + rb)) return false;
    out.distance = distance;
    out.parameter1 = r.s;
    out.parameter2 = r.t;
    out.radius1 = ra;
    out.radius2 = rb;
    out.point1 = p0 + (p1 - p0) * r.s;
    out.point2 = q0 + (q1 - q0) * r.t;
    const GmTVector<double> d = out.point1 - out.point2;
    const double len = d.length();
    if (len > kDegenerate) {
        out.normal = d / len;
    } else {
        const GmTVector<double> c = (p1 - p0).cross(q1 - q0);
        const double lc = c.length();
        if (lc > kDegenerate)
            out.normal = c / lc;
        else
            out.normal = perpendicular((p1 - p0).length() > kDegenerate ? p1 - p0 : q1 - q0);
    }
    out.barycentric = GmTVector<double>(0, 0, 0);
    return true;
}

bool segmentTriangle(const GmTVector<double>& p0, const GmTVector<double>& p1, const GmTVector<double>& a,
                     const GmTVector<double>& b, const GmTVector<double>& c, double tolerance, GmSegmentFaceInfo& out) {
    return GmSegmentRay(p0, p1, tolerance).hit(a, b, c, out);
}

}  // namespace GmSegmentKernels

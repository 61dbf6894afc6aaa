#include <quarrygeom/primitives/GmProximityCheck.h>

#include <algorithm>
#include <cmath>
#include <iostream>

#include <quarrygeom/primitives/GmGeometry.h>
#include <quarrygeom/primitives/GmSegmentDistance.h>

#include "../core/GmDiagnostics.h"

namespace GmProximityCheck {

namespace {
constexpr double kDegenerateLength = 2.220446049250313e-16;
inline double clamp01(double v) { return v < 0.0 ? 0.0 : (v > 1.0 ? 1.0 : v); }
}  // namespace

bool pointFaceProximity(const GmTVector<double>& p, const GmTVector<double>& a, const GmTVector<double>& b,
                        const GmTVector<double>& c, double& distance, GmTVector<double>& normal,
                        GmTVector<double>& closestPoint, double& wa, double& wb, double& wc) {
    const double bound2 = distance * distance;
    double s, t;
    if (GmGeometry::closestParametricPointOnTriangle(p, a, b, c, s, t) > bound2) return false;
    const double w1 = clamp01(1.0 - s - t), w2 = clamp01(s), w3 = clamp01(t);
    const GmTVector<double> q = a * w1 + b * w2 + c * w3;
    const GmTVector<double> d = p - q;
    const double d2 = d.lengthSquared();
    if (d2 > bound2) return false;
    const double dist = std::sqrt(d2);
    GmTVector<double> n;
    if (dist > kDegenerateLength) {
        n = d / dist;
    } else {
        // The point lies on the triangle: the triangle's own unit normal.
        n = (b - a).cross(c - a);
        const double len = n.length();
        if (!(len > kDegenerateLength)) {
            GmDiagnostics::report(GmDiagnostics::Kind::ProximityNormalPointFace,
                                  "Error in GmProximityCheck::pointFaceProximity() ... Unable to compute proximity normal.");
            return false;
        }
        n /= len;
    }
    distance = dist;
    normal = n;
    closestPoint = q;
    wa = w1;
    wb = w2;
    wc = w3;
    return true;
}

bool edgeEdgeProximity(const GmTVector<double>& a, const GmTVector<double>& b, const GmTVector<double>& c,
                       const GmTVector<double>& d, double& distance, GmTVector<double>& normal, double& s,
                       double& t) {
    double ss, tt;
    const double d2 = GmSegmentDistance::segmentSegmentDistanceSquared(a, b, c, d, ss, tt);
    if (d2 > distance * distance) return false;
    const GmTVector<double> e1 = b - a, e2 = d - c;
    const GmTVector<double> v = (a + e1 * ss) - (c + e2 * tt);
    const double dist = std::sqrt(d2);
    const double len = v.length();
    GmTVector<double> n;
    if (len > kDegenerateLength) {
        n = v / len;
    } else {
        // Segments in contact: the normal of the plane they span.
        n = e1.cross(e2);
        const double cl = n.length();
        if (!(cl > kDegenerateLength * std::max(1.0, e1.length() * e2.length()))) {
            GmDiagnostics::report(GmDiagnostics::Kind::ProximityNormalEdgeEdge,
                                  "Error in GmProximityCheck::edgeEdgeProximity() ... Unable to compute proximity normal.");
            return false;
        }
        n /= cl;
    }
    distance = dist;
    normal = n;
    s = ss;
    t = tt;
    return true;
}

}  // namespace GmProximityCheck

#include <quarrygeom/primitives/GmProximityCheck.h>

#include <algorithm>
#include <cmath>
#include <iostream>

#include <quarrygeom/primitives/GmGeometry.h>
#include <quarrygeom/primitives/GmPredicates.h>
#include <quarrygeom/primitives/GmSegmentDistance.h>

#include "../core/GmDiagnostics.h"

namespace GmProximityCheck {

namespace {
constexpr double kUnitRound = 1.1102230246251565e-16;
// Distances above this fraction of the coordinates' magnitude give a direction accurate to
// about 1e-8 by themselves; below it the face or the edges' plane decide.
constexpr double kClear = 1e-8;
// Coordinates beyond which squared distances would overflow; well outside the supported range.
constexpr double kLargestCoordinate = 0x1p500;
inline double clamp01(double v) { return v < 0.0 ? 0.0 : (v > 1.0 ? 1.0 : v); }

inline double maxAbs(const GmTVector<double>& v) {
    return std::max(std::fabs(v.x), std::max(std::fabs(v.y), std::fabs(v.z)));
}

// Whether u x v (of length crossLength) stands above the rounding noise of u and v, differences
// of positions of magnitude up to m: only then does it give a direction (zero-area faces and
// parallel segments fail, small or slender features pass at any scale).
inline bool crossAboveNoise(double crossLength, double uLength, double vLength, double m) {
    const double floor = 8.0 * kUnitRound * (m * (uLength + vLength) + uLength * vLength);
    return crossLength > floor && crossLength > 0.0 && std::isfinite(crossLength);
}

// A distance is a direction only above the rounding noise of positions of magnitude m.
inline bool distanceAboveNoise(double dist, double m) { return dist > std::max(64.0 * kUnitRound * m, 0x1p-1000); }
}  // namespace

bool pointFaceProximity(const GmTVector<double>& p, const GmTVector<double>& a, const GmTVector<double>& b,
                        const GmTVector<double>& c, double& distance, GmTVector<double>& normal,
                        GmTVector<double>& closestPoint, double& wa, double& wb, double& wc) {
    if (!(distance >= 0.0)) return false;
    const double bound2 = distance * distance;
    double s, t;
    if (!(GmGeometry::closestParametricPointOnTriangle(p, a, b, c, s, t) <= bound2)) return false;
    const double w1 = clamp01(1.0 - s - t), w2 = clamp01(s), w3 = clamp01(t);
    const GmTVector<double> q = a * w1 + b * w2 + c * w3;
    const GmTVector<double> d = p - q;
    const double d2 = d.lengthSquared();
    if (!(d2 <= bound2)) return false;
    const double dist = std::sqrt(d2);
    const double m = std::max(std::max(maxAbs(p), maxAbs(a)), std::max(maxAbs(b), maxAbs(c)));
    if (!std::isfinite(m)) return false;
    if (m > kLargestCoordinate) {
        GmDiagnostics::report(GmDiagnostics::Kind::RangeProximityPointFace,
                              "Error in GmProximityCheck::pointFaceProximity() ... Coordinates outside the supported range.");
        return false;
    }
    GmTVector<double> n;
    if (dist > kClear * m) {
        // Far above the rounding of the coordinates: the closest-point direction is accurate.
        n = d / dist;
    } else {
        const GmTVector<double> ab = b - a, ac = c - a;
        const GmTVector<double> fn = ab.cross(ac);
        const double fl = fn.length();
        const bool face = crossAboveNoise(fl, ab.length(), ac.length(), m);
        if (face && w1 > 0.0 && w2 > 0.0 && w3 > 0.0) {
            // Closest point inside the face: the face's normal, turned towards p by the exact side
            // (kept as it is when p lies in the plane).
            n = fn / fl;
            if (GmPredicates::orient3d(&a.x, &b.x, &c.x, &p.x) > 0.0) n = -n;
        } else if (distanceAboveNoise(dist, m)) {
            n = d / dist;
        } else if (face) {
            // On the face's boundary: the face's normal.
            n = fn / fl;
        } else {
            GmDiagnostics::report(GmDiagnostics::Kind::ProximityNormalPointFace,
                                  "Error in GmProximityCheck::pointFaceProximity() ... Unable to compute proximity normal.");
            return false;
        }
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
    if (!(distance >= 0.0)) return false;
    double ss, tt;
    const double d2 = GmSegmentDistance::segmentSegmentDistanceSquared(a, b, c, d, ss, tt);
    if (!(d2 <= distance * distance)) return false;
    const GmTVector<double> e1 = b - a, e2 = d - c;
    const GmTVector<double> v = (a + e1 * ss) - (c + e2 * tt);
    const double dist = std::sqrt(d2);
    const double len = v.length();
    const double m = std::max(std::max(maxAbs(a), maxAbs(b)), std::max(maxAbs(c), maxAbs(d)));
    if (!std::isfinite(m)) return false;
    if (m > kLargestCoordinate) {
        GmDiagnostics::report(GmDiagnostics::Kind::RangeProximityEdgeEdge,
                              "Error in GmProximityCheck::edgeEdgeProximity() ... Coordinates outside the supported range.");
        return false;
    }
    GmTVector<double> n;
    if (len > kClear * m) {
        // Far above the rounding of the coordinates: the closest-point direction is accurate.
        n = v / len;
    } else {
        const GmTVector<double> cr = e1.cross(e2);
        const double cl = cr.length();
        const bool spans = crossAboveNoise(cl, e1.length(), e2.length(), m);
        if (spans && ss > 0.0 && ss < 1.0 && tt > 0.0 && tt < 1.0) {
            // Closest points inside both segments: the normal of the plane they span, from c-d
            // towards a-b by the exact side ((a - c) . (e1 x e2) = -orient3d(a, b, c, d)).
            n = cr / cl;
            if (GmPredicates::orient3d(&a.x, &b.x, &c.x, &d.x) > 0.0) n = -n;
        } else if (distanceAboveNoise(len, m)) {
            n = v / len;
        } else if (spans) {
            // Segments in contact: the normal of the plane they span.
            n = cr / cl;
        } else {
            GmDiagnostics::report(GmDiagnostics::Kind::ProximityNormalEdgeEdge,
                                  "Error in GmProximityCheck::edgeEdgeProximity() ... Unable to compute proximity normal.");
            return false;
        }
    }
    distance = dist;
    normal = n;
    s = ss;
    t = tt;
    return true;
}

}  // namespace GmProximityCheck

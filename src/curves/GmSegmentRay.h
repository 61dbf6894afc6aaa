#pragma once

// The segment-face test split into its per-segment set-up and its per-face part (not installed).
// GmSegmentKernels::segmentTriangle is the two in sequence, so a walk that sets a segment up
// once and tests many faces gets the same records, bit for bit.

#include <quarrygeom/core/GmTVector.h>
#include <quarrygeom/curves/GmPrimitiveInterferenceInfo.h>

#include "../primitives/GmRayTriangle.h"

class GmSegmentRay {
public:
    // The ray from p0 along p1 - p0; hits count up to the parameter tolerance / |p1 - p0| + 1 +
    // 1e-8. A zero-length segment never hits.
    GmSegmentRay(const GmTVector<double>& p0, const GmTVector<double>& p1, double tolerance) {
        const GmTVector<double> dir = p1 - p0;
        const double len = dir.length();
        if (!(len > 0.0)) return;
        _ray = GmGeometry::RayTri::Ray(p0, dir);
        _limit = tolerance / len + 1.0 + 1e-8;
        _valid = true;
    }

    // The segment against the triangle a-b-c: fills the record's geometric fields (not its
    // indices) as GmSegmentKernels::segmentTriangle describes.
    bool hit(const GmTVector<double>& a, const GmTVector<double>& b, const GmTVector<double>& c,
             GmSegmentFaceInfo& out) const {
        if (!_valid) return false;
        GmTVector<double> point;
        double t = 0.0, u = 0.0, v = 0.0;
        if (!GmGeometry::RayTri::intersect(_ray, a, b, c, point, t, u, v)) return false;
        if (!(t <= _limit)) return false;
        out.distance = 0.0;
        out.parameter1 = t;
        out.parameter2 = 0.0;
        out.radius1 = out.radius2 = 0.0;
        out.point1 = out.point2 = point;
        out.barycentric = GmTVector<double>(1.0 - u - v, u, v);
        const GmTVector<double> n = (b - a).cross(c - b);
        const double ln = n.length();
        out.normal = ln > kDegenerate ? n / ln : GmTVector<double>(0, 0, 0);
        return true;
    }

private:
    static constexpr double kDegenerate = 2.220446049250313e-16;

    GmGeometry::RayTri::Ray _ray;
    double _limit = 0.0;
    bool _valid = false;
};

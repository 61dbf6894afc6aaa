#pragma once

#include <quarrygeom/core/GmExport.h>
#include <quarrygeom/core/GmTVector.h>

// Closest points between two segments and between a point and a segment.
namespace GmSegmentDistance {

// Result of a segment-segment query: p0 + s (p1 - p0) and q0 + t (q1 - q0) are the closest
// points, distanceSquared their squared distance. intersect is true when the two segments meet
// (decided exactly: the four end points are coplanar and the segments cross or touch in that
// plane; for collinear segments, their overlap). Zero-length segments are handled as points.
struct SegmentSegmentResult {
    double distanceSquared = 0.0;
    double s = 0.0;
    double t = 0.0;
    bool intersect = false;
};

QUARRYGEOM_API SegmentSegmentResult segmentSegment(const GmTVector<double>& p0, const GmTVector<double>& p1,
                                                   const GmTVector<double>& q0, const GmTVector<double>& q1);

// Squared distance between the segments with their closest-point parameters, without the exact
// intersection decision (cheaper; used inside the collision kernels).
QUARRYGEOM_API double segmentSegmentDistanceSquared(const GmTVector<double>& p0, const GmTVector<double>& p1,
                                                    const GmTVector<double>& q0, const GmTVector<double>& q1,
                                                    double& s, double& t);

// Squared distance from p to the segment a-b, with the parameter of the closest point.
QUARRYGEOM_API double pointSegmentDistanceSquared(const GmTVector<double>& p, const GmTVector<double>& a,
                                                  const GmTVector<double>& b, double& t);

// Squared distance from p to the triangle a-b-c with the barycentric weights of a, b, c at the
// closest point. Degenerate triangles (zero area) are handled through their edges.
QUARRYGEOM_API double pointTriangleDistanceSquared(const GmTVector<double>& p, const GmTVector<double>& a,
                                                   const GmTVector<double>& b, const GmTVector<double>& c,
                                                   GmTVector<double>& barycentric);

}  // namespace GmSegmentDistance

#pragma once

#include <quarrygeom/core/GmExport.h>
#include <quarrygeom/core/GmTVector.h>
#include <quarrygeom/curves/GmPrimitiveInterferenceInfo.h>

// Narrow phase of the segment intersectors: tests on one pair of primitives. They fill the
// geometric fields of a record (not the indices) and report whether there is a contact.
namespace GmSegmentKernels {

// Segment p0-p1 with endpoint radii rp0, rp1 against segment q0-q1 with radii rq0, rq1. The radii
// vary linearly along each segment; the segments are in contact when they cross (decided
// exactly) or when the distance between their closest points does not exceed the sum of the
// radii there. Fills distance, parameter1/2, radius1/2, point1/2 and normal (from point2 to
// point1; for segments that meet: the normalised cross product of their directions, else any
// unit vector perpendicular to the first segment, else +z). Zero-length segments act as points.
QUARRYGEOM_API bool segmentSegment(const GmTVector<double>& p0, const GmTVector<double>& p1, double rp0, double rp1,
                                   const GmTVector<double>& q0, const GmTVector<double>& q1, double rq0, double rq1,
                                   GmSegmentSegmentInfo& out);

// Segment p0-p1 against triangle a-b-c: the ray from p0 along p1 - p0 (not normalised) meets
// the triangle (two-sided) at a ray parameter of at most tolerance / |p1 - p0| + 1 + 1e-8.
// A zero-length segment never hits. Fills point1 = point2 = the hit, parameter1 = the ray
// parameter, barycentric = the corner weights, distance 0 and normal = the triangle's unit
// normal ((b - a) x (c - b) direction; zero for a degenerate triangle).
QUARRYGEOM_API bool segmentTriangle(const GmTVector<double>& p0, const GmTVector<double>& p1,
                                    const GmTVector<double>& a, const GmTVector<double>& b,
                                    const GmTVector<double>& c, double tolerance, GmSegmentFaceInfo& out);

}  // namespace GmSegmentKernels

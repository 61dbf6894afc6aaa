#pragma once

#include <cstdint>
#include <ostream>

#include <quarrygeom/core/GmExport.h>
#include <quarrygeom/core/GmTVector.h>
#include <quarrygeom/curves/GmCurveSegment.h>

class GmTriangleFace;

// A contact between a curve segment (A) and a second primitive (B: another segment, or a face
// of a triangle mesh), as found by the segment intersectors.
//
//   index1      primitive index of the segment
//   index2      primitive index of the second segment, or the face index
//   index3      the mesh edge of an edge proximity; -1 otherwise
//   distance    distance between point1 and point2 (0 for a segment crossing a face)
//   parameter1  parameter of point1 along the segment, 0 at vertex0 and 1 at vertex1 (for a
//               segment against a face: the ray parameter of the hit)
//   parameter2  parameter of point2 along the second segment or the mesh edge; 0 on a face
//   radius1/2   radii at point1 / point2 (the endpoint radii interpolated linearly)
//   point1/2    closest points on the segment / on the second primitive
//   normal      unit vector from point2 towards point1 (see each intersector for fallbacks)
//   barycentric weights of the face's corners 1, 2, 3 at point2 (faces only)
template <class A, class B>
struct GmPrimitiveInterferenceInfo {
    std::int64_t index1 = -1;
    std::int64_t index2 = -1;
    std::int64_t index3 = -1;
    double distance = 0.0;
    double parameter1 = 0.0;
    double parameter2 = 0.0;
    double radius1 = 0.0;
    double radius2 = 0.0;
    GmTVector<double> point1;
    GmTVector<double> point2;
    GmTVector<double> normal;
    GmTVector<double> barycentric;
};

using GmSegmentSegmentInfo = GmPrimitiveInterferenceInfo<GmCurveSegment, GmCurveSegment>;
using GmSegmentFaceInfo = GmPrimitiveInterferenceInfo<GmCurveSegment, GmTriangleFace>;

// "Interference between segments 3 and 7:\n"
// "\tdistance d; parameters s, t; radii r1, r2\n"
// "\tpoint1 (..); point2 (..)\n"
// "\tnormal (..)\n"
QUARRYGEOM_API std::ostream& operator<<(std::ostream& os, const GmSegmentSegmentInfo& info);
// "Interference between segment 3 and face 7:\n" (" and face 7 edge 12:\n" for an edge proximity)
// "\tdistance d; parameter s\n"
// "\tpoint1 (..); point2 (..)\n"
// "\tnormal (..); barycentric (..)\n"
QUARRYGEOM_API std::ostream& operator<<(std::ostream& os, const GmSegmentFaceInfo& info);

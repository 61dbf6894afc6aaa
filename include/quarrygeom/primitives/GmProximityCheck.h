#pragma once

#include <quarrygeom/core/GmExport.h>
#include <quarrygeom/core/GmTVector.h>

// Static proximity primitives: features closer than a given distance.
namespace GmProximityCheck {

// Point p against the triangle a-b-c. `distance` is the bound on entry and, on success, the
// distance found. Returns true when the point is within the bound; then normal is the unit
// vector from the closest point towards p, closestPoint that point and wa, wb, wc its
// barycentric weights. When p lies on the triangle (no direction), the normal falls back to the
// triangle's unit normal; a zero-area triangle then gives no normal: a message goes to
// std::cerr and the result is false.
QUARRYGEOM_API bool pointFaceProximity(const GmTVector<double>& p, const GmTVector<double>& a,
                                       const GmTVector<double>& b, const GmTVector<double>& c, double& distance,
                                       GmTVector<double>& normal, GmTVector<double>& closestPoint, double& wa,
                                       double& wb, double& wc);

// Segment a-b against segment c-d within the bound `distance` (in: bound, out: distance found).
// On success s and t are the closest points' parameters along a-b and c-d and normal the unit
// vector from the point on c-d towards the point on a-b. Segments in contact (no direction) fall
// back to the normalised cross product of the edge directions; parallel segments in contact
// give no normal: a message goes to std::cerr and the result is false.
QUARRYGEOM_API bool edgeEdgeProximity(const GmTVector<double>& a, const GmTVector<double>& b,
                                      const GmTVector<double>& c, const GmTVector<double>& d, double& distance,
                                      GmTVector<double>& normal, double& s, double& t);

}  // namespace GmProximityCheck

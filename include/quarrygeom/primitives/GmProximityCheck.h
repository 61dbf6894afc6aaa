#pragma once

#include <quarrygeom/core/GmExport.h>
#include <quarrygeom/core/GmTVector.h>

// Static proximity primitives: features closer than a given distance.
namespace GmProximityCheck {

// Point p against the triangle a-b-c. `distance` is the bound on entry and, on success, the
// distance found. Returns true when the point is within the bound; then normal is the unit
// vector from the closest point towards p, closestPoint that point and wa, wb, wc its
// barycentric weights. When the closest point lies inside the triangle, the normal is the
// triangle's unit normal turned towards p by the exact side of p (kept as it is when p lies in
// the plane); otherwise the closest-point direction, unless that is within the rounding noise of
// the coordinates (relative to their size), when the triangle's normal is taken as well. A
// zero-area triangle touched by p gives no normal: a message goes to std::cerr and the result
// is false.
QUARRYGEOM_API bool pointFaceProximity(const GmTVector<double>& p, const GmTVector<double>& a,
                                       const GmTVector<double>& b, const GmTVector<double>& c, double& distance,
                                       GmTVector<double>& normal, GmTVector<double>& closestPoint, double& wa,
                                       double& wb, double& wc);

// Segment a-b against segment c-d within the bound `distance` (in: bound, out: distance found).
// On success s and t are the closest points' parameters along a-b and c-d and normal the unit
// vector from the point on c-d towards the point on a-b. With both closest points inside their
// segments the normal is the normalised cross product of the directions, turned by the exact
// side; segments in contact (a distance within the coordinates' rounding noise) take the cross
// product too; parallel segments in contact give no normal: a message goes to std::cerr and the
// result is false.
// Both primitives: a negative or NaN bound, or input that is not finite, gives no contact;
// coordinates above 2^500 are refused with "Coordinates outside the supported range.".
QUARRYGEOM_API bool edgeEdgeProximity(const GmTVector<double>& a, const GmTVector<double>& b,
                                      const GmTVector<double>& c, const GmTVector<double>& d, double& distance,
                                      GmTVector<double>& normal, double& s, double& t);

}  // namespace GmProximityCheck

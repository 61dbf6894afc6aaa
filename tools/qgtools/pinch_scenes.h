#pragma once

#include <vector>

#include <quarrygeom/core/GmTVector.h>
#include <quarrygeom/mesh/GmTriangleMesh.h>

#include "qgtools/mesh_io.h"

// Self-intersecting scenes with known answers, for the pinch classification's tests, benchmark
// and example.
namespace qgtools {

// Two icospheres of `level` put into one soup as they are: they overlap, and the parts of each
// inside the other stay in the mesh.
PolygonSoup overlappingSpheresSoup(int level, const GmTVector<double>& c1, double r1, const GmTVector<double>& c2,
                                   double r2);

// Membership of a closed convex polyhedron by its face planes: inside (or on) when behind every
// plane. Quick answers inside the inscribed ball and outside the circumscribed one.
class ConvexSolid {
public:
    ConvexSolid() = default;
    // The triangles [first, first + count) of soup, outward oriented, around centre.
    ConvexSolid(const PolygonSoup& soup, int first, int count, const GmTVector<double>& centre);
    bool contains(const GmTVector<double>& p) const;
    // Signed distance to the nearest face plane (negative inside); exact only far from edges.
    double planeDepth(const GmTVector<double>& p) const;

private:
    GmTVector<double> _centre;
    double _inner = 0.0, _outer = 0.0;
    std::vector<GmTVector<double>> _normals;
    std::vector<double> _offsets;
};

// A 2 x 2 sheet of 20 x 20 quads at z = 0 (normals +z) with a tongue attached along its edge
// x = 2 for y in [0.6, 1.4]: it turns up and back over the sheet, dives through the sheet
// between path points kFlapDive and kFlapDive + 1 (crossing z = 0 at x = 1.075) and ends below
// it. Tongue vertices are the path points (x, z) of flapPath() times 9 values of y, row by row
// after the sheet's 441 vertices (the first row is the sheet's edge).
GmTriangleMesh makeFlapSheet();
const std::vector<GmTVector<double>>& flapPath();  // (x, 0, z)
constexpr int kFlapDive = 10;

}  // namespace qgtools

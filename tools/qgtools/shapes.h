#pragma once

#include <string>

#include <quarrygeom/core/GmTVector.h>
#include <quarrygeom/mesh/GmTriangleMesh.h>

#include "qgtools/mesh_io.h"

// Shape generators for tests, benchmarks and examples. The *Soup functions return
// positions and triangles; the make* functions return finished meshes built from
// them without merging. Closed shapes are oriented outwards.
namespace qgtools {

// n x m quads in the plane z = origin.z, spanning [origin.x, origin.x + width] x
// [origin.y, origin.y + height]; (n + 1) * (m + 1) vertices, row by row (x fastest),
// each quad split along the same diagonal, normals +z. Interior vertices have valence 6.
PolygonSoup clothGridSoup(int n, int m, double width = 1.0, double height = 1.0,
                          const GmTVector<double>& origin = GmTVector<double>());
GmTriangleMesh makeClothGrid(int n, int m, double width = 1.0, double height = 1.0,
                             const GmTVector<double>& origin = GmTVector<double>());

// Icosahedron subdivided `level` times (20 * 4^level faces), vertices on the sphere.
PolygonSoup icosphereSoup(int level, double radius = 1.0, const GmTVector<double>& centre = GmTVector<double>());
GmTriangleMesh makeIcosphere(int level, double radius = 1.0, const GmTVector<double>& centre = GmTVector<double>());

// Axis-aligned box (8 vertices, 12 faces); the default is the unit cube [0, 1]^3.
PolygonSoup cubeSoup(const GmTVector<double>& minCorner = GmTVector<double>(0, 0, 0),
                     const GmTVector<double>& maxCorner = GmTVector<double>(1, 1, 1));
GmTriangleMesh makeCube(const GmTVector<double>& minCorner = GmTVector<double>(0, 0, 0),
                        const GmTVector<double>& maxCorner = GmTVector<double>(1, 1, 1));

// Regular tetrahedron with circumradius `size` (4 vertices, 4 faces, 6 edges).
PolygonSoup tetrahedronSoup(double size = 1.0, const GmTVector<double>& centre = GmTVector<double>());
GmTriangleMesh makeTetrahedron(double size = 1.0, const GmTVector<double>& centre = GmTVector<double>());

// Torus around the z axis: nMajor x nMinor quads, each split along the same
// diagonal, so every vertex has valence 6. Closed, genus 1.
PolygonSoup torusSoup(int nMajor, int nMinor, double majorRadius = 1.0, double minorRadius = 0.3);
GmTriangleMesh makeTorus(int nMajor, int nMinor, double majorRadius = 1.0, double minorRadius = 0.3);

// A strip bent through itself: the curve (s * (t^2 - 1), s * (t^3 - t)) in the xz
// plane for t in [-1.4, 1.45], extruded along y over `width`. The parts of the strip
// around t = -1 and t = 1 cross along the line x = z = 0, between faces that are far
// apart in the mesh. nu segments along the curve, nv across.
PolygonSoup foldedGridSoup(int nu, int nv, double scale = 1.0, double width = 1.0);
GmTriangleMesh makeFoldedGrid(int nu, int nv, double scale = 1.0, double width = 1.0);

// Parameter values of the folded strip's crossing (t = -1 and t = 1) and its range.
constexpr double kFoldedTMin = -1.4;
constexpr double kFoldedTMax = 1.45;

}  // namespace qgtools

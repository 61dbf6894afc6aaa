#pragma once

#include <array>
#include <ostream>
#include <string>
#include <vector>

#include <quarrygeom/core/GmTVector.h>
#include <quarrygeom/mesh/GmTriangleMesh.h>

namespace qgtools {

// Positions plus index triples, as read from a file or made by a generator.
struct PolygonSoup {
    std::vector<GmTVector<double>> positions;
    std::vector<std::array<int, 3>> triangles;

    int numVertices() const { return static_cast<int>(positions.size()); }
    int numTriangles() const { return static_cast<int>(triangles.size()); }
    // Reverses the orientation of every triangle.
    void flip();
};

// Reads an OBJ file (polygons triangulated as fans, all shapes concatenated) into
// a soup. Positions are kept exactly as in the file, indices as in the file.
// Returns false (and sets *error when given) if the file cannot be read.
bool loadObjSoup(const std::string& path, PolygonSoup& soup, std::string* error = nullptr);

// Fills `mesh` (which should be empty) from a soup and finishes it.
// merge = false: every position becomes a vertex, every triangle a face.
// merge = true: positions go through the mesh's tolerant merging (addVertex with
// the existed flag); triangles whose corners merge together are dropped; repeated
// triangles are added once (addFace with the existed flag).
void buildMesh(const PolygonSoup& soup, GmTriangleMesh& mesh, bool merge = false);
GmTriangleMesh meshFromSoup(const PolygonSoup& soup, bool merge = false, const std::string& name = std::string());

// Reads an OBJ file into a finished mesh (see buildMesh for merge); the mesh is
// named after the file. Returns false on a read error.
bool loadObj(const std::string& path, GmTriangleMesh& mesh, bool merge = false, std::string* error = nullptr);
// Same, throwing std::runtime_error on a read error.
GmTriangleMesh loadObjMesh(const std::string& path, bool merge = false);

// Writes "v" and "f" lines (1-based indices). `positions` overrides the mesh's own
// positions (e.g. one animation frame); it must have one entry per vertex.
void writeObj(std::ostream& os, const GmTriangleMesh& mesh, const std::vector<GmTVector<double>>* positions = nullptr);
bool writeObj(const std::string& path, const GmTriangleMesh& mesh,
              const std::vector<GmTVector<double>>* positions = nullptr);
bool writeObj(const std::string& path, const PolygonSoup& soup);

}  // namespace qgtools

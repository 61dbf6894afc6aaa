#include "GmBVHArgumentChecks.h"

#include <cmath>
#include <sstream>
#include <stdexcept>
#include <string>

#include <quarrygeom/mesh/GmTriangleMesh.h>

namespace GmBVHChecks {

namespace {

[[noreturn]] void fail(const char* op, const std::string& what) {
    throw std::invalid_argument(std::string("GmBoundingVolumeHierarchy::") + op + ": " + what);
}

}  // namespace

void mesh(const char* op, const GmTriangleMesh* mesh, int treeFaces) {
    if (mesh == nullptr || (treeFaces == 0 && mesh->getNumberFaces() == 0)) return;
    if (!mesh->isConstructionFinished())
        fail(op, "the mesh has vertices or faces added since its last finishConstruction() (call it before "
                 "building a hierarchy over the mesh)");
    if (mesh->getNumberFaces() != treeFaces)
        fail(op, "the mesh has " + std::to_string(mesh->getNumberFaces()) + " faces, the hierarchy was made for " +
                     std::to_string(treeFaces) + " (make a new hierarchy after changing the faces)");
}

void positionCount(const char* op, const char* what, const std::vector<GmTVector<double>>& positions,
                   const GmTriangleMesh& mesh) {
    if (positions.size() < static_cast<std::size_t>(mesh.getNumberVertices()))
        fail(op, std::string(what) + " has " + std::to_string(positions.size()) + " entries for a mesh of " +
                     std::to_string(mesh.getNumberVertices()) + " vertices");
}

void distance(const char* op, const char* what, double value) {
    if (value >= 0.0) return;  // false for NaN; +inf pads without end
    std::ostringstream os;
    os << what << " " << value << " is not >= 0";
    fail(op, os.str());
}

void throwNonFinite(const char* op, const char* what, const GmTVector<double>* p, std::size_t n) {
    for (std::size_t i = 0; i < n; ++i) {
        if (std::isfinite(p[i].x) && std::isfinite(p[i].y) && std::isfinite(p[i].z)) continue;
        std::ostringstream os;
        os << what << " " << i << " is not finite (" << p[i].x << ", " << p[i].y << ", " << p[i].z << ")";
        fail(op, os.str());
    }
    fail(op, std::string(what) + ": a coordinate is not finite");
}

void plain(const char* op, const GmTriangleMesh* m, int treeFaces) {
    mesh(op, m, treeFaces);
    if (m == nullptr) return;
    const std::vector<GmTVector<double>>& v = m->getVertices();
    finite(op, "mesh vertex", v, v.size());
}

void swept(const char* op, const GmTriangleMesh* m, int treeFaces, const std::vector<GmTVector<double>>& positions) {
    plain(op, m, treeFaces);
    if (m == nullptr) return;
    positionCount(op, "the position vector", positions, *m);
    finite(op, "position", positions, static_cast<std::size_t>(m->getNumberVertices()));
}

void query(const char* op, const GmTriangleMesh* m, int treeFaces, const std::vector<GmTVector<double>>* positions) {
    mesh(op, m, treeFaces);
    if (m != nullptr && positions != nullptr) positionCount(op, "the end position vector", *positions, *m);
}

void thickened(const char* op, const GmTriangleMesh* m, int treeFaces, double thickness) {
    distance(op, "thickness", thickness);
    plain(op, m, treeFaces);
}

}  // namespace GmBVHChecks

// Pinch flags of contact records.

#include "GmPinchFlags.h"

#include <quarrygeom/mesh/GmTriangleMesh.h>
#include <quarrygeom/pinch/SelfIntersectionInfo.h>

namespace {

using Vec = GmTVector<double>;

Vec pointOnFace(const GmTriangleMesh& mesh, int face, const Vec& w) {
    const GmTriangleFace& f = mesh.getFace(face);
    const std::vector<Vec>& V = mesh.getVertices();
    return V[static_cast<size_t>(f.vertices[0])] * w.x + V[static_cast<size_t>(f.vertices[1])] * w.y +
           V[static_cast<size_t>(f.vertices[2])] * w.z;
}

// Whether the contact feature on triangle `which` (0 or 1) of r lies on info's buried side.
bool featurePinched(const SelfIntersectionInfo& info, const GmTriangleMesh& mesh, const GmTriangleInterferenceInfo& r,
                    int which) {
    const bool vertexFeature = (which == 0 && r.type == GmInterferenceType::VERTEX_FACE) ||
                               (which == 1 && r.type == GmInterferenceType::FACE_VERTEX);
    if (vertexFeature) return info.pinchedVertex(which == 0 ? r.vertexIndices[0] : r.vertexIndices[3]);
    if (r.type != GmInterferenceType::VERTEX_FACE && r.type != GmInterferenceType::FACE_VERTEX &&
        r.type != GmInterferenceType::EDGE_EDGE)
        return false;
    const int face = which == 0 ? r.triangleIndex1 : r.triangleIndex2;
    if (face < 0 || face >= mesh.getNumberFaces()) return false;
    return info.pinchedAt(face, pointOnFace(mesh, face, which == 0 ? r.barycentric1 : r.barycentric2));
}

}  // namespace

namespace GmPinchFlags {

void mark(const SelfIntersectionInfo* info1, const SelfIntersectionInfo* info2, const GmTriangleMesh& mesh1,
          const GmTriangleMesh& mesh2, std::vector<GmContinuousTimeIntersectionInfo>& out, std::size_t from) {
    if (info1 != nullptr && info1->mesh != &mesh1) info1 = nullptr;
    if (info2 != nullptr && info2->mesh != &mesh2) info2 = nullptr;
    if (info1 == nullptr && info2 == nullptr) return;
    for (std::size_t i = from; i < out.size(); ++i) {
        GmContinuousTimeIntersectionInfo& r = out[i];
        if (info1 != nullptr) r.pinched0 = featurePinched(*info1, mesh1, r, 0);
        if (info2 != nullptr) r.pinched1 = featurePinched(*info2, mesh2, r, 1);
    }
}

void mark(const SelfIntersectionInfo* info, const GmTriangleMesh& mesh1, const GmTriangleMesh& mesh2,
          std::vector<GmProximityCheckInfo>& out, std::size_t from) {
    if (info == nullptr || (info->mesh != &mesh1 && info->mesh != &mesh2)) return;
    for (std::size_t i = from; i < out.size(); ++i) {
        GmProximityCheckInfo& r = out[i];
        r.pinched = (info->mesh == &mesh1 && featurePinched(*info, mesh1, r, 0)) ||
                    (info->mesh == &mesh2 && featurePinched(*info, mesh2, r, 1));
    }
}

}  // namespace GmPinchFlags

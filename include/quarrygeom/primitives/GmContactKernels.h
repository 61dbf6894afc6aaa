#pragma once

#include <cstdint>
#include <vector>

#include <quarrygeom/core/GmExport.h>
#include <quarrygeom/core/GmTVector.h>
#include <quarrygeom/primitives/GmInterferenceInfo.h>
#include <quarrygeom/primitives/GmIntersection.h>

class GmTriangleMesh;
class GmBVHMetrics;
class GmOrphanTest;
class SelfIntersectionInfo;

// Narrow phase of the collision queries: all feature tests of one triangle pair.
//
// Every kernel runs, in bit order, the tests whose bit is set in `tests` (see
// GmIntersection::ComponentTests), appends one record per contact to `out` and returns true when
// it appended anything. It counts into the vertex-face and edge-edge groups of `metrics`:
// a candidate per test whose bit is set, a test per primitive actually run (a candidate whose
// swept or padded feature boxes are apart is not run), a success per contact.
//
// Roles:
//   - self:   two faces of one mesh that share no vertex (the tree walk).
//   - orphan: two faces of one mesh that may share vertices (the orphan pass); tests between
//             features that share a vertex are skipped.
//   - mesh:   a face of mesh 1 against a face of mesh 2.
//
// Records: triangleIndex1/2 are the faces, objectIndex1/2 the caller's object indices.
//   VERTEX_FACE (bits 0-2): feature1 = the vertex (of face 1), feature2 = face 2,
//     vertexIndices = {vertex, face 2 corners}, barycentric2 = weights on face 2.
//   FACE_VERTEX (bits 3-5): feature1 = the vertex (of face 2), feature2 = face 1,
//     vertexIndices = {face 1 corners, vertex}, barycentric1 = weights on face 1.
//   EDGE_EDGE (bits 6-14): feature1/2 = the mesh edges, edgeIndices = {edge 1, edge 2},
//     vertexIndices = {edge 1 start, edge 1 end, edge 2 start, edge 2 end} in face corner order,
//     barycentric1/2 = corner weights of the contact on face 1 / face 2,
//     pointType = ON_EDGE_k of the edge on face 2.
//   pointType classifies the contact on the face (corner weights within 2.220446049250313e-14
//   of 0 or 1 give ON_VERTEX_k / ON_EDGE_k); edgeIndices holds the face's edge for ON_EDGE_k.
//   normal is a unit vector from triangle 2 towards triangle 1, as they stood at the start of
//   the step. For self and orphan pairs whose contact elements lie on one common face
//   (GmTriangleMesh::shareFace) the normal is the mesh's normal at the contact on the face side
//   (face, edge or vertex normal), turned to agree with that direction.
//   Pinch flags stay false when no SelfIntersectionInfo is given; with one (applied to the mesh
//   it was built for) pinched0 / pinched1 / pinched flag a contact feature on the
//   classification's buried side (SelfIntersectionInfo::pinchedAt, pinchedVertex).
//   Continuous records: time = contact time, distance = 0, falloff = 1 - time.
//   Proximity records: distance = the distance found, falloff = 1 - distance / bound,
//   time = 0, point = midpoint of the two closest points.
namespace GmContactKernels {

using Positions = std::vector<GmTVector<double>>;
using ComponentTests = GmIntersection::ComponentTests;

// ---- Continuous-time contact over a step (start: the mesh's vertices, end: `end`) ----------
QUARRYGEOM_API bool continuousSelf(const GmTriangleMesh& mesh, const Positions& end, int face1, int face2,
                                   const ComponentTests& tests, GmBVHMetrics& metrics, double timeBound,
                                   const SelfIntersectionInfo* info, int objectIndex,
                                   std::vector<GmContinuousTimeIntersectionInfo>& out);
QUARRYGEOM_API bool continuousOrphan(const GmTriangleMesh& mesh, const Positions& end, int face1, int face2,
                                     const ComponentTests& tests, GmBVHMetrics& metrics, double timeBound,
                                     const SelfIntersectionInfo* info, int objectIndex,
                                     std::vector<GmContinuousTimeIntersectionInfo>& out);
QUARRYGEOM_API bool continuousMesh(const GmTriangleMesh& mesh1, const Positions& end1,
                                   const GmTriangleMesh& mesh2, const Positions& end2, int face1, int face2,
                                   const ComponentTests& tests, GmBVHMetrics& metrics, double timeBound,
                                   const SelfIntersectionInfo* info1, const SelfIntersectionInfo* info2,
                                   int objectIndex1, int objectIndex2,
                                   std::vector<GmContinuousTimeIntersectionInfo>& out);

// ---- Each feature pair once (continuous-time self queries) ----------------------------------
// As continuousSelf and continuousOrphan, with the swept separation filter
// (GmSweptSeparation.h) run before each primitive: it skips the cubic of features that never
// become coplanar during the step and removes no contact.
//
// A query that tests each feature pair once (GmSelfContactRecords::EachFeaturePairOnce) also
// hands the walk pairs' kernel an ownership rule: of the tests in `tests`, those in
// surelyOwned run as usual; each other one runs only when, after its feature boxes have been
// found to meet, the rule says that this face pair owns it. Orphan pairs own their tests.
class QUARRYGEOM_API FeatureOwnership {
public:
    virtual ~FeatureOwnership() = default;
    // Bits (as in ComponentTests) of the tests that the pair (face1, face2) owns for certain.
    virtual std::uint32_t surelyOwned(int face1, int face2) const = 0;
    // Vertex `corner` (0-2) of face `vertexFace` against face `face`. `boxesMeet`: the vertex's
    // swept box and the face's swept box (unpadded) overlap.
    virtual bool vertexFace(int vertexFace, int corner, int face, bool boxesMeet) const = 0;
    // Edge `slot1` (0-2, corners slot1 and slot1 + 1) of face1 against edge `slot2` of face2.
    // `boxesMeet`: the two edges' swept boxes (unpadded) overlap.
    virtual bool edgeEdge(int face1, int slot1, int face2, int slot2, bool boxesMeet) const = 0;
};

QUARRYGEOM_API bool continuousSelfFiltered(const GmTriangleMesh& mesh, const Positions& end, int face1, int face2,
                                           const ComponentTests& tests, GmBVHMetrics& metrics, double timeBound,
                                           const SelfIntersectionInfo* info, int objectIndex,
                                           std::vector<GmContinuousTimeIntersectionInfo>& out,
                                           const FeatureOwnership* owner = nullptr);
QUARRYGEOM_API bool continuousOrphanFiltered(const GmTriangleMesh& mesh, const Positions& end, int face1, int face2,
                                             const ComponentTests& tests, GmBVHMetrics& metrics, double timeBound,
                                             const SelfIntersectionInfo* info, int objectIndex,
                                             std::vector<GmContinuousTimeIntersectionInfo>& out);

// ---- Proximity within `distance` at the mesh's current positions ----------------------------
QUARRYGEOM_API bool proximitySelf(const GmTriangleMesh& mesh, int face1, int face2, double distance,
                                  const ComponentTests& tests, GmBVHMetrics& metrics,
                                  const SelfIntersectionInfo* info, int objectIndex,
                                  std::vector<GmProximityCheckInfo>& out);
QUARRYGEOM_API bool proximityOrphan(const GmTriangleMesh& mesh, int face1, int face2, double distance,
                                    const ComponentTests& tests, GmBVHMetrics& metrics,
                                    const SelfIntersectionInfo* info, int objectIndex,
                                    std::vector<GmProximityCheckInfo>& out);
QUARRYGEOM_API bool proximityMesh(const GmTriangleMesh& mesh1, const GmTriangleMesh& mesh2, int face1, int face2,
                                  double distance, const ComponentTests& tests, GmBVHMetrics& metrics,
                                  const SelfIntersectionInfo* info, int objectIndex1, int objectIndex2,
                                  std::vector<GmProximityCheckInfo>& out);

// ---- Static triangle-triangle intersection at the mesh's current positions ------------------
// Appends one GmIntersectionInfo with the intersection points of the two triangles (their
// intersection segment's end points, or the corners of the overlap polygon of coplanar
// triangles) when they intersect. Touching counts. Every decision is exact (orientation
// predicates that are exact for all finite input, each triangle clipped in a projection that
// keeps its own area, zero-area triangles taken as their edges), so the answer does not depend
// on the scale; the points themselves are interpolated. Input that is not finite never meets.
// These kernels count nothing into the metrics (they run no vertex-face or edge-edge test).
QUARRYGEOM_API bool staticSelf(const GmTriangleMesh& mesh, int face1, int face2, GmBVHMetrics& metrics,
                               std::vector<GmIntersectionInfo>& out);
QUARRYGEOM_API bool staticMesh(const GmTriangleMesh& mesh1, const GmTriangleMesh& mesh2, int face1, int face2,
                               GmBVHMetrics& metrics, std::vector<GmIntersectionInfo>& out);

// The intersection points of two explicit triangles (empty when they do not meet).
QUARRYGEOM_API bool triangleTriangleIntersection(const GmTVector<double>& a0, const GmTVector<double>& a1,
                                                 const GmTVector<double>& a2, const GmTVector<double>& b0,
                                                 const GmTVector<double>& b1, const GmTVector<double>& b2,
                                                 std::vector<GmTVector<double>>& points);

// ---- Orphan entries -------------------------------------------------------------------------
// The component-test bit of an orphan entry's one test: vertex k of the first face against the
// second face gives bit k; an edge pair gives 6 + 3 i + j with i, j the edges' slots in the
// first and second face. Empty when the entry does not match the mesh.
QUARRYGEOM_API ComponentTests orphanComponentTests(const GmTriangleMesh& mesh, const GmOrphanTest& test);

// Classification of corner weights on a face (tolerance 2.220446049250313e-14).
QUARRYGEOM_API GmGeometry::PointOnTriType classifyBarycentric(const GmTVector<double>& w);

}  // namespace GmContactKernels

// The segment visitors of the curve tree's traversals.

#include <stdexcept>

#include <quarrygeom/curves/GmClosestEdgeEdgeProximityOnSingleSegment.h>
#include <quarrygeom/curves/GmFirstSegmentIntersection.h>
#include <quarrygeom/curves/GmSegmentIntersector.h>
#include <quarrygeom/curves/GmSegmentKernels.h>
#include <quarrygeom/curves/GmSegmentMeshIntersector.h>
#include <quarrygeom/curves/GmSegmentSelfIntersector.h>
#include <quarrygeom/mesh/GmTriangleMesh.h>

#include "GmSegmentRay.h"

namespace {

constexpr double kDegenerate = 2.220446049250313e-16;

inline double radius(const std::vector<double>* offsets, std::uint64_t v) {
    return offsets != nullptr ? (*offsets)[v] : 0.0;
}

// The segment-face test on a segment set up once: the face's corners from the mesh.
inline bool segmentFace(const GmSegmentRay& ray, std::uint64_t segment, const GmTriangleMesh& mesh, int face,
                        const int* corners, GmSegmentFaceInfo& out) {
    const std::vector<GmTVector<double>>& v = mesh.getVertices();
    if (!ray.hit(v[static_cast<std::size_t>(corners[0])], v[static_cast<std::size_t>(corners[1])],
                 v[static_cast<std::size_t>(corners[2])], out))
        return false;
    out.index1 = static_cast<std::int64_t>(segment);
    out.index2 = face;
    out.index3 = -1;
    return true;
}

// The segment's ray with tolerance 0.
inline GmSegmentRay segmentRay(const std::vector<GmTVector<double>>& p, const GmCurveSegment& s) {
    return GmSegmentRay(p[s.vertex0], p[s.vertex1], 0.0);
}

}  // namespace

GmSelfIntersectorBase::~GmSelfIntersectorBase() = default;

template class GmSegmentSelfIntersector<1>;
template class GmSegmentSelfIntersector<3>;

// ---- GmSegmentIntersector -----------------------------------------------------------------

GmSegmentIntersector::GmSegmentIntersector(std::vector<Record>& results, const GmCurves& curvesA,
                                           const GmCurves& curvesB, const std::vector<GmTVector<double>>& positionsA,
                                           const std::vector<GmTVector<double>>& positionsB,
                                           const std::vector<double>* offsetsA, const std::vector<double>* offsetsB)
    : results(&results), curvesA(&curvesA), curvesB(&curvesB), positionsA(&positionsA), positionsB(&positionsB),
      offsetsA(offsetsA), offsetsB(offsetsB) {}

void GmSegmentIntersector::operator()(const GmCurveSegment& a, const GmCurveSegment& b) {
    ++numberTests;
    const std::vector<GmTVector<double>>& pa = *positionsA;
    const std::vector<GmTVector<double>>& pb = *positionsB;
    Record r;
    if (!GmSegmentKernels::segmentSegment(pa[a.vertex0], pa[a.vertex1], radius(offsetsA, a.vertex0),
                                          radius(offsetsA, a.vertex1), pb[b.vertex0], pb[b.vertex1],
                                          radius(offsetsB, b.vertex0), radius(offsetsB, b.vertex1), r))
        return;
    r.index1 = static_cast<std::int64_t>(a.index);
    r.index2 = static_cast<std::int64_t>(b.index);
    results->push_back(r);
}

// ---- GmSegmentMeshIntersector -------------------------------------------------------------

GmSegmentMeshIntersector::GmSegmentMeshIntersector(std::vector<Record>& results, const GmCurves& curves,
                                                   const std::vector<GmTVector<double>>& positions,
                                                   const GmTriangleMesh& mesh)
    : results(&results), curves(&curves), positions(&positions), mesh(&mesh) {}

void GmSegmentMeshIntersector::operator()(const GmCurveSegment& segment, const GmTriangleFace& face) {
    test(segmentRay(*positions, segment), segment.index, face.index, face.vertices);
}

void GmSegmentMeshIntersector::test(const GmSegmentRay& ray, std::uint64_t segment, int face, const int* corners) {
    ++numberTests;
    Record r;
    if (segmentFace(ray, segment, *mesh, face, corners, r)) results->push_back(r);
}

// ---- GmFirstSegmentIntersection -----------------------------------------------------------

GmFirstSegmentIntersection::GmFirstSegmentIntersection(const std::vector<GmTVector<double>>& positions,
                                                       const GmTriangleMesh& mesh)
    : positions(&positions), mesh(&mesh) {}

GmFirstSegmentIntersection::GmFirstSegmentIntersection(const GmFirstSegmentIntersection& other)
    : GmIntersectorBase(other), records{other.records[0], other.records[1]}, scratch(other.scratch),
      best(other.best != nullptr ? &records[1 - other.scratch] : nullptr), positions(other.positions),
      mesh(other.mesh), numberTests(other.numberTests), numberIntersections(other.numberIntersections) {}

GmFirstSegmentIntersection& GmFirstSegmentIntersection::operator=(const GmFirstSegmentIntersection& other) {
    if (this == &other) return *this;
    GmIntersectorBase::operator=(other);
    records[0] = other.records[0];
    records[1] = other.records[1];
    scratch = other.scratch;
    best = other.best != nullptr ? &records[1 - other.scratch] : nullptr;
    positions = other.positions;
    mesh = other.mesh;
    numberTests = other.numberTests;
    numberIntersections = other.numberIntersections;
    return *this;
}

void GmFirstSegmentIntersection::operator()(const GmCurveSegment& segment, const GmTriangleFace& face) {
    if (skips(segment.index)) return;
    test(segmentRay(*positions, segment), segment.index, face.index, face.vertices);
}

void GmFirstSegmentIntersection::test(const GmSegmentRay& ray, std::uint64_t segment, int face, const int* corners) {
    ++numberTests;
    Record& r = records[scratch];
    if (!segmentFace(ray, segment, *mesh, face, corners, r)) return;
    ++numberIntersections;
    if (best != nullptr && !(best->parameter1 > r.parameter1)) return;
    best = &r;
    scratch = 1 - scratch;
}

// ---- GmClosestEdgeEdgeProximityOnSingleSegment ---------------------------------------------

GmClosestEdgeEdgeProximityOnSingleSegment::GmClosestEdgeEdgeProximityOnSingleSegment(
    const std::vector<GmTVector<double>>& positions, double distance, const std::vector<double>& offsets,
    const GmTriangleMesh& mesh)
    : positions(&positions), threshold0(0.0), threshold1(0.0), mesh(&mesh) {
    if (offsets.size() < 2)
        throw std::invalid_argument("GmClosestEdgeEdgeProximityOnSingleSegment: offsets need two values");
    threshold0 = distance + offsets[0];
    threshold1 = distance + offsets[1];
}

GmClosestEdgeEdgeProximityOnSingleSegment::GmClosestEdgeEdgeProximityOnSingleSegment(
    const GmClosestEdgeEdgeProximityOnSingleSegment& other)
    : GmIntersectorBase(other), result(other.result ? new Record(*other.result) : nullptr),
      positions(other.positions), threshold0(other.threshold0), threshold1(other.threshold1), mesh(other.mesh),
      numberTests(other.numberTests), numberProximities(other.numberProximities) {}

GmClosestEdgeEdgeProximityOnSingleSegment& GmClosestEdgeEdgeProximityOnSingleSegment::operator=(
    const GmClosestEdgeEdgeProximityOnSingleSegment& other) {
    if (this == &other) return *this;
    GmIntersectorBase::operator=(other);
    result.reset(other.result ? new Record(*other.result) : nullptr);
    positions = other.positions;
    threshold0 = other.threshold0;
    threshold1 = other.threshold1;
    mesh = other.mesh;
    numberTests = other.numberTests;
    numberProximities = other.numberProximities;
    return *this;
}

void GmClosestEdgeEdgeProximityOnSingleSegment::operator()(const GmCurveSegment& segment, const GmTriangleFace& face) {
    const std::vector<GmTVector<double>>& p = *positions;
    const std::vector<GmTVector<double>>& v = mesh->getVertices();
    for (int k = 0; k < 3; ++k) {
        const int edge = face.edges[k];
        if (edge < 0 || mesh->getEdge(edge).firstFace != face.index) continue;
        ++numberTests;
        const int c0 = face.vertices[k], c1 = face.vertices[(k + 1) % 3];
        GmSegmentSegmentInfo e;
        if (!GmSegmentKernels::segmentSegment(p[segment.vertex0], p[segment.vertex1], threshold0, threshold1,
                                              v[static_cast<std::size_t>(c0)], v[static_cast<std::size_t>(c1)], 0.0,
                                              0.0, e))
            continue;
        ++numberProximities;
        if (result && !(e.distance < result->distance)) continue;
        if (!result) result.reset(new Record);
        Record r;
        r.distance = e.distance;
        r.parameter1 = e.parameter1;
        r.parameter2 = e.parameter2;
        r.radius1 = e.radius1;
        r.radius2 = e.radius2;
        r.point1 = e.point1;
        r.point2 = e.point2;
        r.index1 = static_cast<std::int64_t>(segment.index);
        r.index2 = face.index;
        r.index3 = edge;
        const double s = r.parameter2;
        double w[3] = {0.0, 0.0, 0.0};
        w[k] = 1.0 - s;
        w[(k + 1) % 3] = s;
        r.barycentric = GmTVector<double>(w[0], w[1], w[2]);
        if (r.distance > kDegenerate)
            r.normal = (r.point1 - r.point2) / r.distance;
        else
            r.normal = mesh->getBarycentricFaceNormal(face.index, r.barycentric);
        *result = r;
    }
}

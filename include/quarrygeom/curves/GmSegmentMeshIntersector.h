#pragma once

#include <cstdint>
#include <vector>

#include <quarrygeom/core/GmExport.h>
#include <quarrygeom/core/GmTVector.h>
#include <quarrygeom/curves/GmCurves.h>
#include <quarrygeom/curves/GmIntersectorBase.h>
#include <quarrygeom/curves/GmPrimitiveInterferenceInfo.h>

class GmTriangleMesh;
class GmTriangleFace;
class GmSegmentRay;

// Visitor of the curve-triangle traversal: every segment that passes through a face
// (GmSegmentKernels::segmentTriangle with tolerance 0: the ray from vertex0 towards vertex1
// meets the face at a parameter of at most 1 + 1e-8). Every hit is appended (index1 the
// segment, index2 the face, index3 -1); every visit counts one test. The face corners are read
// from the mesh's vertices. Through the curve tree's traversal every segment's box descends the
// face hierarchy's wide copy (made by the first query with at least one segment per 64 faces,
// or by GmBoundingVolumeHierarchy::prepareRayQueries): the pairs and test count are those of the
// box overlaps of the two trees' leaves; the records come in no particular order.
class QUARRYGEOM_API GmSegmentMeshIntersector : public GmIntersectorBase {
public:
    using Record = GmSegmentFaceInfo;

    GmSegmentMeshIntersector(std::vector<Record>& results, const GmCurves& curves,
                             const std::vector<GmTVector<double>>& positions, const GmTriangleMesh& mesh);

    void operator()(const GmCurveSegment& segment, const GmTriangleFace& face);

    std::uint64_t getNumberTests() const { return numberTests; }

private:
    friend class GmCurveTraversal;
    // The visit on a segment set up once (index `segment`) and a face given by its index and
    // corners.
    void test(const GmSegmentRay& ray, std::uint64_t segment, int face, const int* corners);

    std::vector<Record>* results;
    const GmCurves* curves;
    const std::vector<GmTVector<double>>* positions;
    const GmTriangleMesh* mesh;
    std::uint64_t numberTests = 0;
};

#pragma once

#include <cstdint>
#include <vector>

#include <quarrygeom/core/GmExport.h>
#include <quarrygeom/core/GmTVector.h>
#include <quarrygeom/curves/GmIntersectorBase.h>
#include <quarrygeom/curves/GmPrimitiveInterferenceInfo.h>

class GmTriangleMesh;
class GmTriangleFace;
class GmSegmentRay;

// Visitor of the curve-triangle traversal that keeps one hit of a strand against a mesh (the
// same segment-face test as GmSegmentMeshIntersector). A visit returns at once when the kept
// hit's segment comes before the visited one; otherwise it counts a test, and a hit (counted)
// replaces the kept one only when the kept one's ray parameter is strictly greater.
//
// The curve tree's traversal (GmGenericBoundingTree<GmCurves>::intersect with a face hierarchy)
// hands it the segments in index order, each with its faces in the hierarchy's leaf order, and
// stops after the first segment that has a hit. So the kept hit is the first crossing along the
// strand: the lowest-numbered segment that crosses the mesh, at its smallest ray parameter (the
// first face in leaf order on a tie); the tests counted are those of the segments up to it (every
// segment when none crosses). Called directly in another order, the rules above still hold and
// the kept hit need not be the first crossing. The traversal runs on the calling thread.
//
// The traversal descends the hierarchy's wide copy (see
// GmBoundingVolumeHierarchy::prepareRayQueries, which makes it at once; otherwise it is made
// once enough queries have run): before that, a query walks node pairs from the roots and sorts
// the pairs into the same order, with the same result.
class QUARRYGEOM_API GmFirstSegmentIntersection : public GmIntersectorBase {
public:
    using Record = GmSegmentFaceInfo;

    GmFirstSegmentIntersection(const std::vector<GmTVector<double>>& positions, const GmTriangleMesh& mesh);
    GmFirstSegmentIntersection(const GmFirstSegmentIntersection& other);
    GmFirstSegmentIntersection& operator=(const GmFirstSegmentIntersection& other);

    void operator()(const GmCurveSegment& segment, const GmTriangleFace& face);

    // The kept hit; null when there was none.
    const Record* getResult() const { return best; }
    std::uint64_t getNumberIntersections() const { return numberIntersections; }
    std::uint64_t getNumberTests() const { return numberTests; }

private:
    friend class GmCurveTraversal;
    // Whether a visit of this segment returns at once (the kept hit's segment comes first).
    bool skips(std::uint64_t segment) const {
        return best != nullptr && static_cast<std::uint64_t>(best->index1) < segment;
    }
    // The visit after that check, on a segment set up once and a face given by its index and
    // corners.
    void test(const GmSegmentRay& ray, std::uint64_t segment, int face, const int* corners);

    Record records[2];
    int scratch = 0;
    const Record* best = nullptr;
    const std::vector<GmTVector<double>>* positions;
    const GmTriangleMesh* mesh;
    std::uint64_t numberTests = 0;
    std::uint64_t numberIntersections = 0;
};

#pragma once

#include <cstdint>
#include <memory>
#include <vector>

#include <quarrygeom/core/GmExport.h>
#include <quarrygeom/core/GmTVector.h>
#include <quarrygeom/curves/GmIntersectorBase.h>
#include <quarrygeom/curves/GmPrimitiveInterferenceInfo.h>

class GmTriangleMesh;
class GmTriangleFace;

// Visitor of the curve-triangle traversal for a set of one segment: the closest mesh edge
// within reach of the segment. The segment's reach is distance + offsets[0] at its first vertex
// and distance + offsets[1] at its second (linear in between); build the curve tree with at
// least that reach as its offset. Each mesh edge is tested once, from the first face that the
// mesh lists for it. The kept result is the closest contact so far (a later one replaces it only
// when strictly closer): index1 the segment, index2 the face, index3 the edge, point1 on the
// segment, point2 on the edge, barycentric the corner weights of point2 on the face, normal from
// point2 towards point1 (the mesh's barycentric face normal when they coincide).
class QUARRYGEOM_API GmClosestEdgeEdgeProximityOnSingleSegment : public GmIntersectorBase {
public:
    using Record = GmSegmentFaceInfo;

    // offsets must hold at least two values. Throws std::invalid_argument otherwise.
    GmClosestEdgeEdgeProximityOnSingleSegment(const std::vector<GmTVector<double>>& positions, double distance,
                                              const std::vector<double>& offsets, const GmTriangleMesh& mesh);
    GmClosestEdgeEdgeProximityOnSingleSegment(const GmClosestEdgeEdgeProximityOnSingleSegment& other);
    GmClosestEdgeEdgeProximityOnSingleSegment& operator=(const GmClosestEdgeEdgeProximityOnSingleSegment& other);

    void operator()(const GmCurveSegment& segment, const GmTriangleFace& face);

    // The closest contact; null when there was none.
    const Record* getResult() const { return result.get(); }
    std::uint64_t getNumberProximities() const { return numberProximities; }
    std::uint64_t getNumberTests() const { return numberTests; }

private:
    std::unique_ptr<Record> result;
    const std::vector<GmTVector<double>>* positions;
    double threshold0;
    double threshold1;
    const GmTriangleMesh* mesh;
    std::uint64_t numberTests = 0;
    std::uint64_t numberProximities = 0;
};

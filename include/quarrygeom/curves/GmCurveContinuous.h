#pragma once

#include <cstdint>
#include <vector>

#include <quarrygeom/core/GmExport.h>
#include <quarrygeom/core/GmTVector.h>
#include <quarrygeom/curves/GmCurves.h>
#include <quarrygeom/curves/GmIntersectorBase.h>

class GmCurveTraversal;
class GmTriangleMesh;
class GmTriangleFace;
class GmBoundingVolumeHierarchy;
template <class Topology>
class GmGenericBoundingTree;

// Continuous-time contacts of strands over one step: every vertex moves linearly from its start
// position (p0) to its end position (p1), t in [0, 1]. This extends the curve tree's visitors
// (which test one instant) to whole steps, on the library's continuous-time edge-edge and
// vertex-face primitives (GmIntersection.h), so a fast strand cannot pass through another strand
// or a thin part of a body between two steps unseen.
//
// Walk on a swept curve tree (GmGenericBoundingTree<GmCurves>::buildSwept / refitSwept over p0
// and p1, the per-vertex radii as the tree's offsets) and, against a body, a swept face
// hierarchy (GmBoundingVolumeHierarchy built over the mesh's vertices as start and the end
// positions).
//
// Minimum separation: with per-vertex radii r, a segment pair is in contact as soon as the
// distance between the moving segments falls to the sum of their radii, each segment taking the
// smaller of its two end radii (so the swept boxes, padded per vertex, always enclose it); a
// segment vertex against a face uses the vertex's radius, a segment against a mesh edge the
// segment's smaller end radius. Without radii, contact means touching.

// One contact over the step.
//   type        SEGMENT_SEGMENT, VERTEX_FACE (a segment vertex meets a face) or SEGMENT_EDGE (a
//               segment meets a mesh edge)
//   index1      primitive index of the segment
//   index2      the second segment's primitive index, or the face (VERTEX_FACE; for SEGMENT_EDGE
//               the face through which the edge was found)
//   index3      VERTEX_FACE: the curve vertex; SEGMENT_EDGE: the mesh edge; -1 otherwise
//   time        first time in [0, 1] of the contact
//   parameter1  parameter along the segment (0 at vertex0; 0 or 1 for VERTEX_FACE)
//   parameter2  parameter along the second segment or the mesh edge (0 for VERTEX_FACE)
//   distance    distance between the features at that time (0 for touching, up to the
//               separation with radii)
//   normal      unit vector from the second feature towards the first as they stood at the
//               start of the step (closest-point direction at the contact time; for features
//               that touch: the face normal or the cross product of the segments; then the
//               start direction, then against the relative motion)
//   barycentric VERTEX_FACE: the face corners' weights at the contact point
struct QUARRYGEOM_API GmCurveContinuousInfo {
    enum Type : std::int32_t { SEGMENT_SEGMENT = 0, VERTEX_FACE = 1, SEGMENT_EDGE = 2 };
    Type type = SEGMENT_SEGMENT;
    std::int64_t index1 = -1;
    std::int64_t index2 = -1;
    std::int64_t index3 = -1;
    double time = 0.0;
    double parameter1 = 0.0;
    double parameter2 = 0.0;
    double distance = 0.0;
    GmTVector<double> normal;
    GmTVector<double> barycentric;

    // Order by (index1, index2, type, index3): the serial and parallel queries give the same
    // records, in this order once sorted (GmCurveContinuous::sortRecords).
    bool operator<(const GmCurveContinuousInfo& o) const;
};

namespace GmCurveContinuous {

// Segment a-b against segment c-d, both moving linearly from (a0, b0, c0, d0) to (a1, b1, c1, d1).
// True when their distance falls to `separation` (>= 0) during the step: the first such time,
// the parameters along a-b and c-d, the distance and the normal (see GmCurveContinuousInfo).
// The touching contact comes from GmIntersection::edgeEdgeIntersection; approaches within the
// separation, and parallel segments that touch, from conservative advancement on the distance
// (steps that never pass a time at which the distance is within the separation; when it
// stalls after 256 steps, the touching contact if there is one, else the time reached: an
// approach is never dropped, at worst reported early). Only features that
// coincide for the whole step give no direction: "Unable to compute collision normal." goes to
// std::cerr and the result is false.
QUARRYGEOM_API bool segmentSegment(const GmTVector<double>& a0, const GmTVector<double>& b0,
                                   const GmTVector<double>& c0, const GmTVector<double>& d0,
                                   const GmTVector<double>& a1, const GmTVector<double>& b1,
                                   const GmTVector<double>& c1, const GmTVector<double>& d1, double separation,
                                   GmCurveContinuousInfo& out);

// Vertex p against face a-b-c, as above on GmIntersection::pointFaceIntersection and the
// point-triangle distance. Fills time, distance, normal and barycentric.
QUARRYGEOM_API bool vertexFace(const GmTVector<double>& p0, const GmTVector<double>& a0,
                               const GmTVector<double>& b0, const GmTVector<double>& c0,
                               const GmTVector<double>& p1, const GmTVector<double>& a1,
                               const GmTVector<double>& b1, const GmTVector<double>& c1, double separation,
                               GmCurveContinuousInfo& out);

// Sorts records into the order of GmCurveContinuousInfo::operator<.
QUARRYGEOM_API void sortRecords(std::vector<GmCurveContinuousInfo>& records);

}  // namespace GmCurveContinuous

// Visitor of the swept curve tree's self traversal (selfIntersect) or of two swept curve trees
// (intersect): segment pairs that meet during the step. As a self visitor it leaves out the
// near neighbours of GmSegmentSelfIntersector<3> (segments of one curve whose segment numbers
// differ by at most 2; intersectAdjacent brings them back). Positions p0 / p1 and the optional
// radii are indexed by the curve vertices; for two trees, `other*` are the second set's (the
// same vectors by default). Every visit counts one test. Hits go to processIntersection (which
// appends), except on the parallel two-tree walk, whose workers append to the result vector
// directly. The order of the records is not defined (sortRecords gives one order); with
// multithreading on, the pairs are tested on the worker threads: the same records.
class QUARRYGEOM_API GmSegmentContinuousIntersector : public GmSelfIntersectorBase {
public:
    using Record = GmCurveContinuousInfo;
    typedef std::vector<GmTVector<double>> Positions;

    GmSegmentContinuousIntersector(std::vector<Record>& results, const GmCurves& curves, const Positions& p0,
                                   const Positions& p1, const std::vector<double>* radii = nullptr);
    // Two sets: the second's positions and radii.
    void setOther(const GmCurves& curves, const Positions& p0, const Positions& p1,
                  const std::vector<double>* radii = nullptr);
    GmSegmentContinuousIntersector(const GmSegmentContinuousIntersector&) = default;
    GmSegmentContinuousIntersector& operator=(const GmSegmentContinuousIntersector&) = default;
    ~GmSegmentContinuousIntersector() override;

    virtual void processIntersection(const Record& record) { results->push_back(record); }

    void operator()(const GmCurveSegment& a, const GmCurveSegment& b) {
        ++numberTests;
        if (test(a, b, scratch)) processIntersection(scratch);
    }
    // The pair's test alone (no count, no report).
    bool test(const GmCurveSegment& a, const GmCurveSegment& b, Record& out) const;

    bool isAdjacent(const GmCurveSegment& a, const GmCurveSegment& b) const {
        if (a.curve != b.curve || curves != otherCurves) return false;
        const std::uint64_t sa = curves->getSegment(a.index), sb = curves->getSegment(b.index);
        return (sa > sb ? sa - sb : sb - sa) <= 2;
    }
    std::uint64_t getNumberTests() const { return numberTests; }

private:
    friend class GmCurveTraversal;

    std::vector<Record>* results;
    const GmCurves* curves;
    const Positions* p0;
    const Positions* p1;
    const std::vector<double>* radii;
    const GmCurves* otherCurves;
    const Positions* q0;
    const Positions* q1;
    const std::vector<double>* otherRadii;
    Record scratch;
    std::uint64_t numberTests = 0;
};

// Strands against a moving triangle mesh over the step: every segment vertex that meets a face
// (VERTEX_FACE) and every segment that meets a mesh edge (SEGMENT_EDGE). The mesh moves from
// its own vertices (start) to `meshEnd`. intersect() walks the swept curve tree against the
// swept face hierarchy (on the calling thread), collecting candidate pairs once per feature
// pair (a vertex through the first segment of its curve that holds it as vertex0, or the last
// segment; an edge through the lower-numbered of its faces), then tests them (on the worker
// threads with multithreading on) and appends the records sorted as sortRecords does. The same
// records serially and in parallel.
class QUARRYGEOM_API GmSegmentMeshContinuousIntersector : public GmIntersectorBase {
public:
    using Record = GmCurveContinuousInfo;
    typedef std::vector<GmTVector<double>> Positions;

    GmSegmentMeshContinuousIntersector(std::vector<Record>& results, const GmCurves& curves, const Positions& p0,
                                       const Positions& p1, const GmTriangleMesh& mesh, const Positions& meshEnd,
                                       const std::vector<double>* radii = nullptr);

    void intersect(const GmGenericBoundingTree<GmCurves>& tree, const GmBoundingVolumeHierarchy& faces);

    // Walk callback: records the candidate features of one segment-face pair.
    void operator()(const GmCurveSegment& segment, const GmTriangleFace& face);

    // Feature tests made by the last intersect().
    std::uint64_t getNumberTests() const { return numberTests; }

private:
    struct Candidate {
        std::int64_t segment;
        std::int32_t face;
        std::int32_t feature;  // 0 / 1: segment vertex0 / vertex1; 2 + k: the face's edge k
    };
    bool _test(const Candidate& c, Record& out) const;

    std::vector<Record>* results;
    const GmCurves* curves;
    const Positions* p0;
    const Positions* p1;
    const GmTriangleMesh* mesh;
    const Positions* meshEnd;
    const std::vector<double>* radii;
    std::vector<Candidate> candidates;
    std::uint64_t numberTests = 0;
};

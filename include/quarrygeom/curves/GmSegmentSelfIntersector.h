#pragma once

#include <cstdint>
#include <vector>

#include <quarrygeom/core/GmExport.h>
#include <quarrygeom/core/GmTVector.h>
#include <quarrygeom/curves/GmCurves.h>
#include <quarrygeom/curves/GmIntersectorBase.h>
#include <quarrygeom/curves/GmPrimitiveInterferenceInfo.h>
#include <quarrygeom/curves/GmSegmentKernels.h>

class GmCurveTraversal;

// Visitor of the curve tree's self traversal: segment pairs of one set within the sum of their
// radii (GmSegmentKernels::segmentSegment; radii from the per-vertex offsets, 0 when the pointer
// is null). Every hit is handed to processIntersection, which appends it to the result vector;
// derive and override it to handle hits otherwise. Every visit counts one test.
//
// Pairs that isAdjacent calls adjacent are left out by the traversal unless intersectAdjacent is
// set: for N = 1 any two segments of one curve (a curve is never tested against itself), for
// N = 3 segments of one curve whose segment numbers differ by at most 2.
//
// With multithreading on, the traversal tests pairs on worker threads and then calls
// processIntersection on the calling thread, once per hit, in no particular order.
template <int N>
class GmSegmentSelfIntersector : public GmSelfIntersectorBase {
    static_assert(N == 1 || N == 3, "GmSegmentSelfIntersector<1> or <3>");

public:
    using Record = GmSegmentSegmentInfo;

    // The vectors and the set are not owned and must outlive the visitor; offsets may be null.
    GmSegmentSelfIntersector(std::vector<Record>& results, const GmCurves& curves,
                             const std::vector<GmTVector<double>>& positions, const std::vector<double>* offsets)
        : results(&results), curves(&curves), positions(&positions), offsets(offsets) {}
    GmSegmentSelfIntersector(const GmSegmentSelfIntersector&) = default;
    GmSegmentSelfIntersector& operator=(const GmSegmentSelfIntersector&) = default;
    ~GmSegmentSelfIntersector() override = default;

    virtual void processIntersection(const Record& record) { results->push_back(record); }

    void operator()(const GmCurveSegment& a, const GmCurveSegment& b) {
        ++numberTests;
        if (test(a, b, scratch)) processIntersection(scratch);
    }

    // The segment-segment test alone (no count, no report): fills `out` on contact.
    bool test(const GmCurveSegment& a, const GmCurveSegment& b, Record& out) const {
        const std::vector<GmTVector<double>>& p = *positions;
        const double ra0 = offsets != nullptr ? (*offsets)[a.vertex0] : 0.0;
        const double ra1 = offsets != nullptr ? (*offsets)[a.vertex1] : 0.0;
        const double rb0 = offsets != nullptr ? (*offsets)[b.vertex0] : 0.0;
        const double rb1 = offsets != nullptr ? (*offsets)[b.vertex1] : 0.0;
        return testEnds(p[a.vertex0], p[a.vertex1], ra0, ra1, a.index, p[b.vertex0], p[b.vertex1], rb0, rb1, b.index,
                        out);
    }

    bool isAdjacent(const GmCurveSegment& a, const GmCurveSegment& b) const {
        if (a.curve != b.curve) return false;
        if (N == 1) return true;
        const std::uint64_t sa = curves->getSegment(a.index), sb = curves->getSegment(b.index);
        return (sa > sb ? sa - sb : sb - sa) <= 2;
    }

    std::uint64_t getNumberTests() const { return numberTests; }
    std::vector<Record>* getResults() const { return results; }
    const GmCurves* getCurves() const { return curves; }
    const std::vector<GmTVector<double>>* getPositions() const { return positions; }
    const std::vector<double>* getOffsets() const { return offsets; }

private:
    friend class GmCurveTraversal;

    // The test on the two segments' end positions, radii and indices.
    static bool testEnds(const GmTVector<double>& a0, const GmTVector<double>& a1, double ra0, double ra1,
                         std::uint64_t ia, const GmTVector<double>& b0, const GmTVector<double>& b1, double rb0,
                         double rb1, std::uint64_t ib, Record& out) {
        if (!GmSegmentKernels::segmentSegment(a0, a1, ra0, ra1, b0, b1, rb0, rb1, out)) return false;
        out.index1 = static_cast<std::int64_t>(ia);
        out.index2 = static_cast<std::int64_t>(ib);
        out.index3 = -1;
        return true;
    }

    std::vector<Record>* results;
    const GmCurves* curves;
    const std::vector<GmTVector<double>>* positions;
    const std::vector<double>* offsets;
    Record scratch;
    std::uint64_t numberTests = 0;
};

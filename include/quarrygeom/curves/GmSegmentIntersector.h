#pragma once

#include <cstdint>
#include <vector>

#include <quarrygeom/core/GmExport.h>
#include <quarrygeom/core/GmTVector.h>
#include <quarrygeom/curves/GmCurves.h>
#include <quarrygeom/curves/GmIntersectorBase.h>
#include <quarrygeom/curves/GmPrimitiveInterferenceInfo.h>

class GmCurveTraversal;

// Visitor of the curve-curve traversal: segment pairs of two sets within the sum of their radii
// (GmSegmentKernels::segmentSegment). Radii come from the per-vertex offsets of each set (0
// when the pointer is null). Every hit is appended to the result vector (index1 a segment of
// set A, index2 one of set B); every visit counts one test. The vectors are not owned and must
// outlive the visitor.
class QUARRYGEOM_API GmSegmentIntersector : public GmIntersectorBase {
public:
    using Record = GmSegmentSegmentInfo;

    GmSegmentIntersector(std::vector<Record>& results, const GmCurves& curvesA, const GmCurves& curvesB,
                         const std::vector<GmTVector<double>>& positionsA,
                         const std::vector<GmTVector<double>>& positionsB, const std::vector<double>* offsetsA,
                         const std::vector<double>* offsetsB);

    void operator()(const GmCurveSegment& a, const GmCurveSegment& b);

    std::uint64_t getNumberTests() const { return numberTests; }
    std::vector<Record>* getResults() const { return results; }

private:
    friend class GmCurveTraversal;

    std::vector<Record>* results;
    const GmCurves* curvesA;
    const GmCurves* curvesB;
    const std::vector<GmTVector<double>>* positionsA;
    const std::vector<GmTVector<double>>* positionsB;
    const std::vector<double>* offsetsA;
    const std::vector<double>* offsetsB;
    std::uint64_t numberTests = 0;
};

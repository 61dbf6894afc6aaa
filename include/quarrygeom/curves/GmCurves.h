#pragma once

#include <cstddef>
#include <cstdint>
#include <map>
#include <memory>
#include <vector>

#include <quarrygeom/core/GmExport.h>
#include <quarrygeom/curves/GmCurveSegment.h>

// Topology of a set of strands (polylines) as a list of segments; positions live outside, in a
// vector indexed by the set's own vertex numbering: the vertices of the set's curves are numbered
// consecutively, curve after curve, without gaps, so a curve of k segments takes k + 1 numbers.
//
// A set may take a sub-range of each caller curve's segments: curve c (its physical index, its
// place in the set) takes segments getStartSegment(c) .. getStopSegment(c) - 1 of the caller's
// curve getCurveLogicalIndex(c). Curves with stop <= start are kept in the curve list but add no
// segment, vertex or logical-index entry.
//
// Copies share the segment records (getPrimitive(i) of a copy is the same pointer as in its
// source); the records live as long as the last set that refers to them, so a copy stays valid
// after its source is gone. Queries do no range checks.
class QUARRYGEOM_API GmCurves {
public:
    // What getCurvePhysicalIndex returns for an unknown logical index. It is 1, which is also a
    // valid physical index: compare against the constant only where the logical index may be absent.
    static constexpr std::uint64_t kInvalidIndex = 1;

    // One curve of numberVertices vertices (logical index 0); 0 or 1 vertices give an empty set.
    explicit GmCurves(std::size_t numberVertices);
    // One curve per entry, curve i (logical index i) with stopSegments[i] segments.
    explicit GmCurves(const std::vector<std::size_t>& stopSegments);
    // Curve i takes segments startSegments[i] .. stopSegments[i] - 1 of caller curve
    // logicalIndices[i]. With duplicate logical indices the last curve is the one found by
    // getCurvePhysicalIndex. Throws std::invalid_argument when the three vectors differ in length.
    GmCurves(const std::vector<std::size_t>& logicalIndices, const std::vector<std::size_t>& startSegments,
             const std::vector<std::size_t>& stopSegments);
    GmCurves(const GmCurves& other);
    GmCurves& operator=(const GmCurves& other);
    ~GmCurves();

    std::uint64_t getNumberCurves() const { return curveLogicalIndex.size(); }
    std::uint64_t getNumberPrimitives() const { return primitives.size(); }
    std::uint64_t getNumberVertices() const { return numberVertices; }
    // stop - start (wraps around for a skipped curve whose stop is below its start).
    std::uint64_t getNumberSegments(std::uint64_t curve) const { return stopSegment[curve] - startSegment[curve]; }
    const GmCurveSegment* getPrimitive(std::uint64_t i) const { return primitives[i]; }
    const std::vector<const GmCurveSegment*>& getPrimitives() const { return primitives; }
    // Primitive index of the curve's own segment number `segment`.
    std::uint64_t getPrimitiveIndex(std::uint64_t curve, std::uint64_t segment) const {
        return curveFirstPrimitive[curve] + segment - startSegment[curve];
    }
    // The curve's own segment number of primitive i.
    std::uint64_t getSegment(std::uint64_t i) const { return primitiveSegment[i]; }
    std::uint64_t getStartSegment(std::uint64_t curve) const { return startSegment[curve]; }
    std::uint64_t getStopSegment(std::uint64_t curve) const { return stopSegment[curve]; }
    std::uint64_t getCurveLogicalIndex(std::uint64_t curve) const { return curveLogicalIndex[curve]; }
    // Physical index of a logical index, kInvalidIndex when it names no curve of the set.
    std::uint64_t getCurvePhysicalIndex(std::uint64_t logical) const;

private:
    void _build();

    std::vector<const GmCurveSegment*> primitives;
    std::uint64_t numberVertices = 0;
    std::vector<std::uint64_t> curveLogicalIndex;
    std::map<std::uint64_t, std::uint64_t> logicalToPhysical;
    std::vector<std::uint64_t> startSegment;
    std::vector<std::uint64_t> stopSegment;
    std::vector<std::uint64_t> primitiveSegment;
    std::vector<std::uint64_t> curveFirstPrimitive;
    // The records behind `primitives`, in one block in primitive order (the self traversal
    // relies on it), shared by copies.
    std::shared_ptr<const std::vector<GmCurveSegment>> _records;
};

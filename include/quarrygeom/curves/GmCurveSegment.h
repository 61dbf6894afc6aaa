#pragma once

#include <cstdint>
#include <ostream>

#include <quarrygeom/core/GmExport.h>

// One segment of a strand, made and owned by a GmCurves set: its primitive index in the set,
// the physical index of its curve and its two vertices in the set's vertex numbering
// (vertex1 == vertex0 + 1).
struct GmCurveSegment {
    std::uint64_t index = 0;
    std::uint64_t curve = 0;
    std::uint64_t vertex0 = 0;
    std::uint64_t vertex1 = 0;

    std::uint64_t getIndex() const { return index; }
    std::uint64_t getCurve() const { return curve; }
    std::uint64_t getVertex0() const { return vertex0; }
    std::uint64_t getVertex1() const { return vertex1; }
};

// "Curve segment[index] = (vertex0, vertex1)"; the curve is not printed. No newline.
QUARRYGEOM_API std::ostream& operator<<(std::ostream& os, const GmCurveSegment& segment);

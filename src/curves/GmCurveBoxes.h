#pragma once

// Leaf boxes of the curve tree (not installed): the one place where a segment's box is made.

#include <algorithm>
#include <vector>

#include <quarrygeom/core/GmAxisAlignedBox.h>
#include <quarrygeom/core/GmTVector.h>
#include <quarrygeom/curves/GmCurveSegment.h>

namespace GmCurveDetail {

// Padding added to every segment box besides the caller's offset.
constexpr double kPad = 1e-8;

// What a segment box is made of: the positions, the uniform offset and the optional per-vertex
// offsets; in swept mode also the end positions.
struct BoxInput {
    const std::vector<GmTVector<double>>* positions = nullptr;
    double offset = 0.0;
    const std::vector<double>* offsets = nullptr;
    const std::vector<GmTVector<double>>* endPositions = nullptr;
};

// Box of segment s: min / max over both ends of P -/+ r (and of E -/+ r in swept mode), padded
// by offset + 1e-8, computed in double and rounded outwards to float.
inline GmAxisAlignedBox segmentBox(const BoxInput& in, const GmCurveSegment& s) {
    const GmTVector<double>& a = (*in.positions)[s.vertex0];
    const GmTVector<double>& b = (*in.positions)[s.vertex1];
    const double pad = in.offset + kPad;
    double lo[3], hi[3];
    const double ra = in.offsets != nullptr ? (*in.offsets)[s.vertex0] : 0.0;
    const double rb = in.offsets != nullptr ? (*in.offsets)[s.vertex1] : 0.0;
    for (int k = 0; k < 3; ++k) {
        lo[k] = std::min(a[k] - ra, b[k] - rb);
        hi[k] = std::max(a[k] + ra, b[k] + rb);
    }
    if (in.endPositions != nullptr) {
        const GmTVector<double>& c = (*in.endPositions)[s.vertex0];
        const GmTVector<double>& d = (*in.endPositions)[s.vertex1];
        for (int k = 0; k < 3; ++k) {
            lo[k] = std::min(lo[k], std::min(c[k] - ra, d[k] - rb));
            hi[k] = std::max(hi[k], std::max(c[k] + ra, d[k] + rb));
        }
    }
    return GmAxisAlignedBox(GmAxisAlignedBox::padDown(lo[0], pad), GmAxisAlignedBox::padDown(lo[1], pad),
                            GmAxisAlignedBox::padDown(lo[2], pad), GmAxisAlignedBox::padUp(hi[0], pad),
                            GmAxisAlignedBox::padUp(hi[1], pad), GmAxisAlignedBox::padUp(hi[2], pad));
}

}  // namespace GmCurveDetail

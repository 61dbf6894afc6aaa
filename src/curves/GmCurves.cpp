#include <quarrygeom/curves/GmCurves.h>

#include <stdexcept>

std::ostream& operator<<(std::ostream& os, const GmCurveSegment& segment) {
    return os << "Curve segment[" << segment.index << "] = (" << segment.vertex0 << ", " << segment.vertex1 << ")";
}

GmCurves::GmCurves(std::size_t n) {
    if (n > 1) {
        curveLogicalIndex.push_back(0);
        startSegment.push_back(0);
        stopSegment.push_back(n - 1);
    }
    _build();
}

GmCurves::GmCurves(const std::vector<std::size_t>& stopSegments)
    : curveLogicalIndex(stopSegments.size()), startSegment(stopSegments.size(), 0),
      stopSegment(stopSegments.begin(), stopSegments.end()) {
    for (std::size_t i = 0; i < stopSegments.size(); ++i) curveLogicalIndex[i] = i;
    _build();
}

GmCurves::GmCurves(const std::vector<std::size_t>& logicalIndices, const std::vector<std::size_t>& startSegments,
                   const std::vector<std::size_t>& stopSegments) {
    if (logicalIndices.size() != startSegments.size() || logicalIndices.size() != stopSegments.size())
        throw std::invalid_argument("GmCurves: logical index, start and stop vectors differ in length");
    curveLogicalIndex.assign(logicalIndices.begin(), logicalIndices.end());
    startSegment.assign(startSegments.begin(), startSegments.end());
    stopSegment.assign(stopSegments.begin(), stopSegments.end());
    _build();
}

GmCurves::GmCurves(const GmCurves& other) = default;
GmCurves& GmCurves::operator=(const GmCurves& other) = default;
GmCurves::~GmCurves() = default;

std::uint64_t GmCurves::getCurvePhysicalIndex(std::uint64_t logical) const {
    const auto it = logicalToPhysical.find(logical);
    return it == logicalToPhysical.end() ? kInvalidIndex : it->second;
}

void GmCurves::_build() {
    const std::size_t curves = curveLogicalIndex.size();
    curveFirstPrimitive.assign(curves, 0);
    std::size_t total = 0;
    for (std::size_t c = 0; c < curves; ++c)
        if (stopSegment[c] > startSegment[c]) total += stopSegment[c] - startSegment[c];

    auto records = std::make_shared<std::vector<GmCurveSegment>>();
    records->reserve(total);
    primitives.clear();
    primitives.reserve(total);
    primitiveSegment.clear();
    primitiveSegment.reserve(total);
    std::uint64_t v = 0;
    for (std::size_t c = 0; c < curves; ++c) {
        const std::uint64_t s0 = startSegment[c], s1 = stopSegment[c];
        if (s1 <= s0) continue;
        curveFirstPrimitive[c] = records->size();
        for (std::uint64_t s = s0; s < s1; ++s) {
            records->push_back(GmCurveSegment{records->size(), c, v, v + 1});
            primitiveSegment.push_back(s);
            ++v;
        }
        logicalToPhysical[curveLogicalIndex[c]] = c;
        ++v;
    }
    numberVertices = v;
    for (const GmCurveSegment& s : *records) primitives.push_back(&s);
    _records = std::move(records);
}

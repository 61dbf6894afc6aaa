#include <quarrygeom/core/GmBVHMetrics.h>

#include <iomanip>

namespace {

void line(std::ostream& os, const char* label, std::uint32_t value) {
    os << label << std::setw(16) << value << '\n';
}

void rateLine(std::ostream& os, const char* label, double rate) {
    os << label << std::setw(16) << rate << "%\n";
}

}  // namespace

std::ostream& GmBVHMetrics::print(std::ostream& os) const {
    const std::ios_base::fmtflags flags = os.flags();
    const std::streamsize precision = os.precision();
    const char fill = os.fill();
    // Fixed notation with 4 decimals; decimal, right-aligned, no sign or base decorations
    // whatever the caller left set, so the report reads the same on any stream.
    os.flags(std::ios_base::dec | std::ios_base::fixed | std::ios_base::right | (flags & std::ios_base::unitbuf));
    os.precision(4);
    os.fill(' ');

    os << "BVH Metrics\n";
    line(os, "  Number of Broad-Phase Candidates Examined:    ", broadPhaseCandidates());
    line(os, "  Number of Broad-Phase Tests Performed:        ", broadPhaseTests());
    line(os, "  Number of Broad-Phase Tests that Succeeded:   ", broadPhaseSuccesses());
    rateLine(os, "  Broad-Phase Prune Rate:                       ", broadPhasePruneRate());
    line(os, "  Number of Narrow-Phase Candidates Examined:   ", narrowPhaseCandidates());
    line(os, "  Number of Narrow-Phase Tests Performed:       ", narrowPhaseTests());
    line(os, "  Number of Narrow-Phase Tests that Succeeded:  ", narrowPhaseSuccesses());
    rateLine(os, "  Narrow-Phase Prune Rate:                      ", narrowPhasePruneRate());
    line(os, "    Number of Vertex-Face Candidates Examined:  ", vertexFaceCandidates());
    line(os, "    Number of Vertex-Face Tests Performed:      ", vertexFaceTests());
    line(os, "    Number of Vertex-Face Tests that Succeeded: ", vertexFaceSuccesses());
    rateLine(os, "    Vertex-Face Prune Rate:                     ", vertexFacePruneRate());
    line(os, "    Number of Edge-Edge Candidates Examined:    ", edgeEdgeCandidates());
    line(os, "    Number of Edge-Edge Tests Performed:        ", edgeEdgeTests());
    line(os, "    Number of Edge-Edge Tests that Succeeded:   ", edgeEdgeSuccesses());
    rateLine(os, "    Edge-Edge Prune Rate:                       ", edgeEdgePruneRate());

    os.fill(fill);
    os.precision(precision);
    os.flags(flags);
    return os;
}

std::ostream& operator<<(std::ostream& os, const GmBVHMetrics& metrics) { return metrics.print(os); }

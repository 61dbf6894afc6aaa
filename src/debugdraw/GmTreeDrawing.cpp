// Debug drawing of hierarchy boxes into the host's current GL_LINES primitive.

#include <algorithm>
#include <cstdint>

#include <quarrygeom/bvh/GmBoundingVolumeHierarchy.h>
#include <quarrygeom/curves/GmGenericBoundingTree.h>

#ifdef QUARRYGEOM_HAVE_OPENGL
#include <GL/gl.h>
#endif

namespace {

#ifdef QUARRYGEOM_HAVE_OPENGL
// The twelve edges of a box as 24 vertices, each consecutive pair one segment.
void drawBox(const GmAxisAlignedBox& b) {
    const float m[3] = {b.minX, b.minY, b.minZ};
    const float M[3] = {b.maxX, b.maxY, b.maxZ};
    // Corners named by which coordinates take the maximum (x, y, z).
    static const unsigned char kSegments[12][2][3] = {
        {{0, 0, 0}, {1, 0, 0}}, {{0, 0, 0}, {0, 1, 0}}, {{0, 0, 0}, {0, 0, 1}}, {{0, 1, 0}, {1, 1, 0}},
        {{0, 1, 0}, {0, 1, 1}}, {{1, 0, 0}, {1, 1, 0}}, {{1, 1, 1}, {0, 1, 1}}, {{1, 1, 1}, {1, 0, 1}},
        {{1, 1, 1}, {1, 1, 0}}, {{1, 0, 1}, {0, 0, 1}}, {{1, 0, 1}, {1, 0, 0}}, {{0, 1, 1}, {0, 0, 1}}};
    for (const auto& segment : kSegments)
        for (const auto& c : segment) glVertex3f(c[0] ? M[0] : m[0], c[1] ? M[1] : m[1], c[2] ? M[2] : m[2]);
}
#endif

}  // namespace

void GmBoundingVolumeHierarchy::drawTree(int level) const {
#ifdef QUARRYGEOM_HAVE_OPENGL
    if (level < 0 || _nodes.empty()) return;
    int first, last;
    if (level < _depth)
        getRange(level, first, last);
    else
        getLeafRange(first, last);
    for (int i = first; i < last; ++i) drawBox(_nodes[static_cast<size_t>(i)].box);
#else
    (void)level;
#endif
}

void GmGenericBoundingTree<GmCurves>::drawTree(int level) const {
#ifdef QUARRYGEOM_HAVE_OPENGL
    if (level < 0 || nodes.empty()) return;
    if (static_cast<std::uint64_t>(level) >= depth) {
        for (const std::uint64_t pos : leaves) drawBox(nodes[pos].box);
        return;
    }
    const std::uint64_t first = (std::uint64_t(1) << level) - 1;
    const std::uint64_t last = std::min<std::uint64_t>(2 * first + 1, numberNodes);
    for (std::uint64_t i = first; i < last; ++i) drawBox(getNode(i).box);
#else
    (void)level;
#endif
}

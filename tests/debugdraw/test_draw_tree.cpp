// Tree drawing into a real OpenGL context (OSMesa, offscreen): the segments GL receives, read back
// through feedback mode, are the box edges of the level drawn, in order.

#include <gtest/gtest.h>

#include <GL/gl.h>

#include <array>
#include <cmath>
#include <cstdlib>
#include <string>
#include <vector>

#include <quarrygeom/bvh/bvh.h>
#include <quarrygeom/mesh/mesh.h>

#include "qgrender/offscreen_context.h"
#include "qgtools/shapes.h"

// Under LeakSanitizer: the GL driver keeps some of its own allocations past the context's end.
extern "C" __attribute__((visibility("default"))) const char* __lsan_default_suppressions() {
    return "leak:libOSMesa.so\nleak:libLLVM\n";
}

namespace {

using Vec = GmTVector<double>;
constexpr int kWidth = 256, kHeight = 192;

// The segments a level draws: the twelve edges of each of its boxes, in the order below (corners
// named by which coordinates take the maximum). A level holds the nodes of the tree's level range
// below its depth; at or beyond it, the leaves; a negative level or an empty tree draws nothing.
std::vector<std::array<Vec, 2>> levelEdges(const GmBoundingTree& tree, int faces, int level) {
    static const int kEdges[12][2][3] = {
        {{0, 0, 0}, {1, 0, 0}}, {{0, 0, 0}, {0, 1, 0}}, {{0, 0, 0}, {0, 0, 1}}, {{0, 1, 0}, {1, 1, 0}},
        {{0, 1, 0}, {0, 1, 1}}, {{1, 0, 0}, {1, 1, 0}}, {{1, 1, 1}, {0, 1, 1}}, {{1, 1, 1}, {1, 0, 1}},
        {{1, 1, 1}, {1, 1, 0}}, {{1, 0, 1}, {0, 0, 1}}, {{1, 0, 1}, {1, 0, 0}}, {{0, 1, 1}, {0, 0, 1}}};
    const GmBoundingVolumeHierarchy& h = *tree.getHierarchy();
    int first = 0, last = 0;
    if (faces > 0 && level >= h.getDepth()) h.getLeafRange(first, last);
    if (faces > 0 && level >= 0 && level < h.getDepth()) h.getRange(level, first, last);
    std::vector<std::array<Vec, 2>> edges;
    for (int i = first; i < last; ++i) {
        const GmAxisAlignedBox& b = h.getNode(i).box;
        auto corner = [&](const int* c) {
            return Vec(c[0] ? b.maxX : b.minX, c[1] ? b.maxY : b.minY, c[2] ? b.maxZ : b.minZ);
        };
        for (const auto& e : kEdges) edges.push_back({corner(e[0]), corner(e[1])});
    }
    return edges;
}

// GL feeds back the segments of drawTree in window coordinates; with an orthographic view of a
// known volume they map back to the drawn vertices, which must be the level's box edges in order.
TEST(DrawTree, GLReceivesTheBoxEdgesOfTheLevelInOrder) {
#ifndef QG_TEST_LIBRARY_DRAWS
    GTEST_SKIP() << "the library was built without OpenGL";
#endif
    setenv("LP_NUM_THREADS", "0", 0);  // rasterise on the calling thread
    qgrender::OffscreenContext context;
    std::string why;
    if (!context.create(kWidth, kHeight, &why)) GTEST_SKIP() << "no offscreen OpenGL context: " << why;
    context.makeCurrent();
    glViewport(0, 0, kWidth, kHeight);
    GmTriangleMesh sphere = qgtools::makeIcosphere(1);  // 80 faces: depth 7, a partly filled last level
    GmTriangleMesh single = qgtools::meshFromSoup({{Vec(0, 0, 0), Vec(1, 0, 0), Vec(0, 0.8, 0.6)}, {{0, 1, 2}}});
    GmTriangleMesh empty;
    empty.finishConstruction();
    const std::pair<GmTriangleMesh*, std::vector<int>> cases[] = {
        {&sphere, {0, 1, 3, 6, 7, 12, -1}}, {&single, {0, 1, 9, -1}}, {&empty, {0, 3}}};

    const double l = -1.25, r = 1.25, b = -1.25, t = 1.25, n = -2, f = 2;  // holds every box drawn
    glMatrixMode(GL_PROJECTION);
    glLoadIdentity();
    glOrtho(l, r, b, t, n, f);
    glMatrixMode(GL_MODELVIEW);
    glLoadIdentity();
    auto window = [&](const Vec& p) {
        return Vec((p.x - l) / (r - l) * kWidth, (p.y - b) / (t - b) * kHeight, 0.5 * (1 + (-2 * p.z - f - n) / (f - n)));
    };
    for (const auto& [mesh, levels] : cases) {
        GmBoundingTree tree(mesh);
        for (int level : levels) {
            std::vector<GLfloat> feedback(1 << 16);
            glFeedbackBuffer(static_cast<GLsizei>(feedback.size()), GL_3D, feedback.data());
            glRenderMode(GL_FEEDBACK);
            glBegin(GL_LINES);
            tree.drawTree(level);
            glEnd();
            const GLint values = glRenderMode(GL_RENDER);
            ASSERT_GE(values, 0) << "feedback buffer overflow";

            const auto expected = levelEdges(tree, mesh->getNumberFaces(), level);
            size_t segment = 0;
            int misplaced = 0;
            for (GLint k = 0; k < values; k += 7, ++segment) {
                const GLint token = static_cast<GLint>(feedback[static_cast<size_t>(k)]);
                ASSERT_TRUE(token == GL_LINE_TOKEN || token == GL_LINE_RESET_TOKEN) << "token " << token;
                ASSERT_LT(segment, expected.size()) << "extra segments at level " << level;
                for (int end = 0; end < 2; ++end) {
                    const Vec want = window(expected[segment][end]);
                    const GLfloat* got = &feedback[static_cast<size_t>(k + 1 + 3 * end)];
                    misplaced += std::abs(got[0] - want.x) > 1e-2 || std::abs(got[1] - want.y) > 1e-2 ||
                                 std::abs(got[2] - want.z) > 1e-5;
                }
            }
            EXPECT_EQ(misplaced, 0) << "vertices off the expected edges at level " << level;
            EXPECT_EQ(segment, expected.size()) << mesh->getNumberFaces() << " faces, level " << level;
        }
    }
}

}  // namespace

// Tree drawing: the vertices the library hands to glVertex3f, recorded by this program's own
// definition of that function (it takes precedence over the GL library's for the whole process).

#include <gtest/gtest.h>

#include <array>
#include <vector>

#include <quarrygeom/bvh/bvh.h>
#include <quarrygeom/mesh/mesh.h>

#include "qgtools/shapes.h"

namespace {

std::vector<std::array<float, 3>> g_vertices;

}  // namespace

extern "C" __attribute__((visibility("default"))) void glVertex3f(float x, float y, float z) {
    g_vertices.push_back({x, y, z});
}

namespace {

// The 24 vertices of one box in drawing order.
std::vector<std::array<float, 3>> boxVertices(const GmAxisAlignedBox& b) {
    const float m[3] = {b.minX, b.minY, b.minZ}, M[3] = {b.maxX, b.maxY, b.maxZ};
    auto v = [&](int x, int y, int z) { return std::array<float, 3>{x ? M[0] : m[0], y ? M[1] : m[1], z ? M[2] : m[2]}; };
    return {v(0, 0, 0), v(1, 0, 0), v(0, 0, 0), v(0, 1, 0), v(0, 0, 0), v(0, 0, 1), v(0, 1, 0), v(1, 1, 0),
            v(0, 1, 0), v(0, 1, 1), v(1, 0, 0), v(1, 1, 0), v(1, 1, 1), v(0, 1, 1), v(1, 1, 1), v(1, 0, 1),
            v(1, 1, 1), v(1, 1, 0), v(1, 0, 1), v(0, 0, 1), v(1, 0, 1), v(1, 0, 0), v(0, 1, 1), v(0, 0, 1)};
}

std::vector<std::array<float, 3>> expectedRange(const GmBoundingVolumeHierarchy& h, int first, int last) {
    std::vector<std::array<float, 3>> out;
    for (int i = first; i < last; ++i) {
        const auto box = boxVertices(h.getNode(i).box);
        out.insert(out.end(), box.begin(), box.end());
    }
    return out;
}

std::vector<std::array<float, 3>> drawn(const GmBoundingTree& tree, int level) {
    g_vertices.clear();
    tree.drawTree(level);
    return g_vertices;
}

class DrawTree : public ::testing::Test {
protected:
    void SetUp() override {
#ifndef QG_TEST_LIBRARY_DRAWS
        GTEST_SKIP() << "the library was built without OpenGL";
#endif
    }
};

TEST_F(DrawTree, LevelsBelowTheDepthDrawTheirNodes) {
    GmTriangleMesh mesh = qgtools::makeIcosphere(1);  // 80 faces: depth 7, a partly filled last level
    GmBoundingTree tree(&mesh);
    const GmBoundingVolumeHierarchy& h = *tree.getHierarchy();
    ASSERT_EQ(h.getDepth(), 7);

    const auto root = drawn(tree, 0);
    EXPECT_EQ(root.size(), 24u);
    EXPECT_EQ(root, boxVertices(h.getRoot().box));
    // Segments are the twelve box edges: each pair differs in exactly one coordinate.
    for (size_t k = 0; k < root.size(); k += 2) {
        int differing = 0;
        for (int a = 0; a < 3; ++a) differing += root[k][a] != root[k + 1][a];
        EXPECT_EQ(differing, 1) << "segment " << k / 2;
    }
    for (int level = 1; level < h.getDepth(); ++level) {
        int first, last;
        h.getRange(level, first, last);
        EXPECT_EQ(drawn(tree, level), expectedRange(h, first, last)) << "level " << level;
    }
}

TEST_F(DrawTree, TheDeepestLevelAndBeyondDrawEveryLeaf) {
    GmTriangleMesh mesh = qgtools::makeIcosphere(1);
    GmBoundingTree tree(&mesh);
    const GmBoundingVolumeHierarchy& h = *tree.getHierarchy();
    int first, last;
    h.getLeafRange(first, last);
    const auto leaves = expectedRange(h, first, last);
    ASSERT_EQ(leaves.size(), 80u * 24u);
    EXPECT_EQ(drawn(tree, h.getDepth()), leaves);
    EXPECT_EQ(drawn(tree, h.getDepth() + 5), leaves);
}

TEST_F(DrawTree, SingleFaceAndDegenerateInput) {
    GmTriangleMesh one;
    one.addVertex(GmTVector<double>(0, 0, 0));
    one.addVertex(GmTVector<double>(1, 0, 0));
    one.addVertex(GmTVector<double>(0, 2, 1));
    one.addFace(0, 1, 2);
    one.finishConstruction();
    GmBoundingTree tree(&one);
    const auto box = boxVertices(tree.getHierarchy()->getRoot().box);
    for (int level : {0, 1, 9}) EXPECT_EQ(drawn(tree, level), box) << "level " << level;
    EXPECT_TRUE(drawn(tree, -1).empty());

    GmTriangleMesh empty;
    empty.finishConstruction();
    GmBoundingTree none(&empty);
    EXPECT_TRUE(drawn(none, 0).empty());
}

}  // namespace

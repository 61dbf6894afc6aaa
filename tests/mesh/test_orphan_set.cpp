#include <gtest/gtest.h>
#include <algorithm>
#include <sstream>
#include <vector>
#include "mesh_test_util.h"

namespace {

// Orphaned pairs straight from their definition, by brute force over all pairs: a vertex
// v and a face g off v such that every enabled face around v shares a vertex with g; two
// edges without common endpoint, the second reached through a face around the first
// edge's faces, such that every enabled face pair of the two edges shares a vertex.
std::vector<GmOrphanTest> bruteForceOrphans(const GmTriangleMesh& m, const GmDisabledData* mask) {
    auto enabled = [mask](int f) { return !GmDisabledData::isDisabled(mask, f); };
    auto enabledOf = [&](const GmIndexList& l) {
        std::vector<int> out;
        for (int f : l)
            if (enabled(f)) out.push_back(f);
        return out;
    };
    auto contains = [](const GmIndexList& l, int g) { return std::find(l.begin(), l.end(), g) != l.end(); };
    std::vector<GmOrphanTest> out;
    for (int v = 0; v < m.getNumberVertices(); ++v) {
        const GmIndexList around = m.getNeighborFacesToVertex(v);
        const std::vector<int> on = enabledOf(around);
        for (int g = 0; g < m.getNumberFaces() && !on.empty(); ++g) {
            if (!enabled(g) || contains(around, g)) continue;
            bool all = true;
            for (int f : on) all = all && m.shareVertex(f, g);
            if (all) out.emplace_back(on[0], g, v, g, 1u << m.getFace(on[0]).vertexSlot(v));
        }
    }
    for (int e = 0; e < m.getNumberEdges(); ++e) {
        const GmIndexList fe = m.getNeighborFacesToEdge(e);
        const std::vector<int> on = enabledOf(fe);
        for (int e2 = e + 1; e2 < m.getNumberEdges() && !on.empty(); ++e2) {
            if (m.getEdge(e2).hasVertex(m.getEdge(e).from) || m.getEdge(e2).hasVertex(m.getEdge(e).to)) continue;
            int via = -1;  // smallest candidate face holding e2
            for (int g = 0; g < m.getNumberFaces() && via < 0; ++g) {
                bool touches = false;
                for (int f : on) touches = touches || m.shareVertex(f, g);
                if (enabled(g) && m.getFace(g).hasEdge(e2) && !contains(fe, g) && touches) via = g;
            }
            if (via < 0) continue;
            const std::vector<int> on2 = enabledOf(m.getNeighborFacesToEdge(e2));
            bool all = true;
            for (int f : on)
                for (int g : on2) all = all && m.shareVertex(f, g);
            if (all) out.emplace_back(on[0], on2.empty() ? via : on2[0], e, e2, 8u << m.getFace(on[0]).edgeSlot(e));
        }
    }
    return out;
}

std::string text(const GmAdjacentOrphanSet& s) {
    std::ostringstream os;
    os << s;
    return os.str();
}

TEST(OrphanSet, TetrahedronRecordsAndText) {
    GmTriangleMesh m = meshtest::build(meshtest::soupNamed("tetrahedron"));
    const GmAdjacentOrphanSet* s = m.getOrphanSet();
    ASSERT_NE(s, nullptr);
    EXPECT_EQ(s->getMesh(), &m);
    EXPECT_EQ(text(*s),
              "Orphan Data:\n"
              "  Number of Tests: 7\n"
              "  Vertex[0]-Face[2]\n"
              "  Vertex[1]-Face[3]\n"
              "  Vertex[2]-Face[1]\n"
              "  Vertex[3]-Face[0]\n"
              "  Edge[0]-Edge[5]\n"
              "  Edge[1]-Edge[3]\n"
              "  Edge[2]-Edge[4]\n");
    const std::vector<GmOrphanTest> expected = {
        {0, 2, 0, 2, 1u}, {0, 3, 1, 3, 2u}, {0, 1, 2, 1, 4u}, {1, 0, 3, 0, 2u}, {0, 2, 0, 5, 8u}, {0, 1, 1, 3, 16u}, {0, 1, 2, 4, 32u}};
    EXPECT_TRUE(s->getTests() == expected);
    EXPECT_EQ(s->getNumberVertexFaceTests(), 4);
    EXPECT_EQ(s->getNumberEdgeEdgeTests(), 3);
    EXPECT_TRUE(s->getTest(0).isVertexFaceTest());
    EXPECT_TRUE(s->getTest(6).isEdgeEdgeTest());
    EXPECT_EQ(s->getTest(6).firstFeatureSlot(), 2);
    m.setVertex(0, meshtest::V(2, 2, 2));  // built once and kept
    EXPECT_EQ(m.getOrphanSet(), s);
    EXPECT_EQ(text(*qgtools::makeTorus(40, 16).getOrphanSet()), "Orphan Data:\n  Number of Tests: 0\n");
}

// The mesh's own set and the sets of masks disabling every 2nd, 3rd or 5th face.
TEST(OrphanSet, MatchesBruteForceWithAndWithoutMasks) {
    std::vector<GmTriangleMesh> meshes = {qgtools::makeTorus(5, 3), qgtools::makeIcosphere(1)};
    for (const char* name : {"tetrahedron", "cube", "torus", "grid", "folded", "nonmanifold", "degenerate"})
        meshes.push_back(meshtest::build(meshtest::soupNamed(name)));
    std::size_t total = 0;
    for (GmTriangleMesh& m : meshes) {
        SCOPED_TRACE(m.getNumberFaces());
        total += m.getOrphanSet()->size();
        EXPECT_TRUE(m.getOrphanSet()->getTests() == bruteForceOrphans(m, nullptr)) << *m.getOrphanSet();
        EXPECT_TRUE(GmAdjacentOrphanSet(&m, nullptr).getTests() == m.getOrphanSet()->getTests());
        for (int stride : {2, 3, 5}) {
            GmDisabledData mask(&m);
            EXPECT_EQ(mask.getOrphanSet(), m.getOrphanSet());  // nothing disabled: the mesh's set
            for (int f = 0; f < m.getNumberFaces(); f += stride) mask.setFaceDisabled(f);
            const GmAdjacentOrphanSet* s = mask.getOrphanSet();
            ASSERT_NE(s, nullptr);
            EXPECT_NE(s, m.getOrphanSet());
            EXPECT_EQ(mask.getOrphanSet(), s);  // kept
            EXPECT_TRUE(s->getTests() == bruteForceOrphans(m, &mask)) << *s;
            mask.setDisabledCount(0);
            EXPECT_EQ(mask.getOrphanSet(), m.getOrphanSet());
        }
    }
    EXPECT_GT(total, 50u);
    EXPECT_EQ(GmDisabledData().getOrphanSet(), nullptr);
}

}  // namespace

#include <gtest/gtest.h>

#include <algorithm>
#include <sstream>
#include <vector>

#include <quarrygeom/mesh/mesh.h>

#include "qgtools/shapes.h"

namespace {

using V = GmTVector<double>;

// Orphaned pairs straight from their definition, by brute force over all pairs:
// a vertex v and a face g off v such that every enabled face around v shares a
// vertex with g; two edges without common endpoint, the second reached through a
// face around the first edge's faces, such that every enabled face pair of the two
// edges shares a vertex.
std::vector<GmOrphanTest> bruteForceOrphans(const GmTriangleMesh& m, const GmDisabledData* mask) {
    auto enabled = [mask](int f) { return !GmDisabledData::isDisabled(mask, f); };
    auto enabledOf = [&](const std::vector<int>& l) {
        std::vector<int> out;
        for (int f : l)
            if (enabled(f)) out.push_back(f);
        return out;
    };
    auto touches = [&m](const std::vector<int>& faces, int g) {
        for (int f : faces)
            if (m.shareVertex(f, g)) return true;
        return false;
    };
    std::vector<GmOrphanTest> out;
    for (int v = 0; v < m.getNumberVertices(); ++v) {
        const std::vector<int>& around = m.getNeighborFacesToVertex(v);
        const std::vector<int> on = enabledOf(around);
        if (on.empty()) continue;
        for (int g = 0; g < m.getNumberFaces(); ++g) {
            if (!enabled(g) || std::find(around.begin(), around.end(), g) != around.end()) continue;
            bool all = true;
            for (int f : on) all = all && m.shareVertex(f, g);
            if (all) out.emplace_back(on[0], g, v, g, 1u << m.getFace(on[0]).vertexSlot(v));
        }
    }
    for (int e = 0; e < m.getNumberEdges(); ++e) {
        const std::vector<int>& fe = m.getNeighborFacesToEdge(e);
        const std::vector<int> on = enabledOf(fe);
        if (on.empty()) continue;
        const GmTriangleEdge& ed = m.getEdge(e);
        for (int e2 = e + 1; e2 < m.getNumberEdges(); ++e2) {
            const GmTriangleEdge& ed2 = m.getEdge(e2);
            if (ed2.hasVertex(ed.from) || ed2.hasVertex(ed.to)) continue;
            int via = -1;  // smallest candidate face holding e2
            for (int g = 0; g < m.getNumberFaces() && via < 0; ++g)
                if (enabled(g) && m.getFace(g).hasEdge(e2) && std::find(fe.begin(), fe.end(), g) == fe.end() &&
                    touches(on, g))
                    via = g;
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

GmTriangleMesh fixedTetrahedron() {
    GmTriangleMesh m;
    m.addVertex(V(1, 1, 1));
    m.addVertex(V(1, -1, -1));
    m.addVertex(V(-1, 1, -1));
    m.addVertex(V(-1, -1, 1));
    m.addFace(0, 1, 2);
    m.addFace(0, 3, 1);
    m.addFace(1, 3, 2);
    m.addFace(0, 2, 3);
    m.finishConstruction();
    return m;
}

TEST(OrphanSet, Tetrahedron) {
    GmTriangleMesh m = fixedTetrahedron();
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
        {0, 2, 0, 2, 1u},  {0, 3, 1, 3, 2u},  {0, 1, 2, 1, 4u},  {1, 0, 3, 0, 2u},
        {0, 2, 0, 5, 8u},  {0, 1, 1, 3, 16u}, {0, 1, 2, 4, 32u},
    };
    EXPECT_TRUE(s->getTests() == expected);
    EXPECT_EQ(s->getNumberVertexFaceTests(), 4);
    EXPECT_EQ(s->getNumberEdgeEdgeTests(), 3);
    EXPECT_TRUE(s->getTest(0).isVertexFaceTest());
    EXPECT_TRUE(s->getTest(6).isEdgeEdgeTest());
    EXPECT_EQ(s->getTest(6).firstFeatureSlot(), 2);
    // Built once and kept; position changes leave it in place.
    m.setVertex(0, V(2, 2, 2));
    EXPECT_EQ(m.getOrphanSet(), s);
}

TEST(OrphanSet, ValenceSixTorusHasNone) {
    GmTriangleMesh m = qgtools::makeTorus(40, 16);
    const GmAdjacentOrphanSet* s = m.getOrphanSet();
    EXPECT_EQ(s->getNumberTests(), 0);
    EXPECT_EQ(text(*s), "Orphan Data:\n  Number of Tests: 0\n");
}

TEST(OrphanSet, IsolatedTriangleHasNone) {
    GmTriangleMesh m;
    m.addVertex(V(0, 0, 0));
    m.addVertex(V(1, 0, 0));
    m.addVertex(V(0, 1, 0));
    m.addFace(0, 1, 2);
    m.finishConstruction();
    EXPECT_TRUE(m.getOrphanSet()->empty());
    // Beside another mesh part it still adds nothing.
    GmTriangleMesh grid = qgtools::makeClothGrid(6, 6);
    const std::size_t base = grid.getOrphanSet()->size();
    const int a = grid.addVertex(V(5, 5, 5));
    grid.addVertex(V(6, 5, 5));
    grid.addVertex(V(5, 6, 5));
    grid.addFace(a, a + 1, a + 2);
    grid.finishConstruction();
    GmAdjacentOrphanSet fresh(&grid, nullptr);
    EXPECT_EQ(fresh.size(), base);
}

TEST(OrphanSet, MatchesBruteForceWithoutMask) {
    for (const GmTriangleMesh& m :
         {qgtools::makeCube(), qgtools::makeIcosphere(1), qgtools::makeTorus(5, 3), qgtools::makeTorus(6, 4),
          qgtools::makeClothGrid(4, 3), qgtools::makeFoldedGrid(10, 2), fixedTetrahedron()}) {
        SCOPED_TRACE(m.getName());
        GmAdjacentOrphanSet s(&m, nullptr);
        EXPECT_TRUE(s.getTests() == bruteForceOrphans(m, nullptr)) << s;
    }
}

TEST(OrphanSet, MaskLeavesDisabledFacesOut) {
    for (GmTriangleMesh m : {qgtools::makeIcosphere(1), qgtools::makeTorus(6, 4), qgtools::makeClothGrid(5, 4),
                             qgtools::makeCube()}) {
        SCOPED_TRACE(m.getName());
        for (int stride : {2, 3, 5}) {
            GmDisabledData mask(&m);
            for (int f = 0; f < m.getNumberFaces(); f += stride) mask.setFaceDisabled(f);
            const GmAdjacentOrphanSet* s = mask.getOrphanSet();
            ASSERT_NE(s, nullptr);
            EXPECT_NE(s, m.getOrphanSet());
            EXPECT_EQ(mask.getOrphanSet(), s);  // kept
            EXPECT_TRUE(s->getTests() == bruteForceOrphans(m, &mask)) << *s;
            for (const GmOrphanTest& t : *s) {
                EXPECT_FALSE(mask.isFaceDisabled(t.firstFace));
                EXPECT_FALSE(mask.isFaceDisabled(t.secondFace));
            }
        }
    }
}

TEST(OrphanSet, MaskWithZeroCountUsesTheMeshSet) {
    GmTriangleMesh m = fixedTetrahedron();
    GmDisabledData mask(&m);
    EXPECT_EQ(mask.getOrphanSet(), m.getOrphanSet());
    mask.setFaceDisabled(2);
    const GmAdjacentOrphanSet* masked = mask.getOrphanSet();
    EXPECT_NE(masked, m.getOrphanSet());
    // Without face 2, vertex 0's opposite face is gone; the others lose tests too.
    for (const GmOrphanTest& t : *masked) {
        EXPECT_NE(t.firstFace, 2);
        EXPECT_NE(t.secondFace, 2);
    }
    EXPECT_LT(masked->size(), m.getOrphanSet()->size());
    mask.setDisabledCount(0);
    EXPECT_EQ(mask.getOrphanSet(), m.getOrphanSet());
    GmDisabledData none;
    EXPECT_EQ(none.getOrphanSet(), nullptr);
}

TEST(OrphanSet, TestRecordsPointAtTheirFeatures) {
    std::size_t total = 0;
    for (const GmTriangleMesh& m : {fixedTetrahedron(), qgtools::makeCube(), qgtools::makeIcosphere(0),
                                    qgtools::makeTorus(5, 3), qgtools::makeClothGrid(3, 2)}) {
        const GmAdjacentOrphanSet* s = m.getOrphanSet();
        total += s->size();
        for (const GmOrphanTest& t : *s) {
            const GmTriangleFace& f1 = m.getFace(t.firstFace);
            const int k = t.firstFeatureSlot();
            ASSERT_GE(k, 0);
            if (t.isVertexFaceTest()) {
                EXPECT_EQ(f1.vertices[k], t.firstFeature);
                EXPECT_EQ(t.secondFace, t.secondFeature);
                EXPECT_FALSE(m.getFace(t.secondFace).hasVertex(t.firstFeature));
            } else {
                EXPECT_EQ(f1.edges[k], t.firstFeature);
                EXPECT_TRUE(m.getFace(t.secondFace).hasEdge(t.secondFeature));
                EXPECT_FALSE(m.incidentEdges(t.firstFeature, t.secondFeature));
                EXPECT_LT(t.firstFeature, t.secondFeature);
            }
        }
    }
    EXPECT_GT(total, 7u);
}

}  // namespace

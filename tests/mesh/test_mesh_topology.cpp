#include <gtest/gtest.h>
#include <algorithm>
#include <sstream>
#include <vector>
#include "mesh_test_util.h"

namespace {

using GmGeometry::PointOnTriType;
using Types = std::vector<PointOnTriType>;
const Types kAllTypes = {GmGeometry::INSIDE,    GmGeometry::ON_VERTEX_1, GmGeometry::ON_VERTEX_2, GmGeometry::ON_VERTEX_3,
                         GmGeometry::ON_EDGE_1, GmGeometry::ON_EDGE_2,   GmGeometry::ON_EDGE_3,   GmGeometry::INVALID,
                         static_cast<PointOnTriType>(-3)};

// The element a point type names on a face, from the face record: 'f' face, 'v' vertex, 'e' edge.
std::pair<char, int> component(const GmTriangleFace& f, PointOnTriType t) {
    if (t == GmGeometry::INSIDE) return {'f', f.index};
    if (t >= GmGeometry::ON_VERTEX_1 && t <= GmGeometry::ON_VERTEX_3) return {'v', f.vertices[t - GmGeometry::ON_VERTEX_1]};
    if (t >= GmGeometry::ON_EDGE_1 && t <= GmGeometry::ON_EDGE_3) return {'e', f.edges[t - GmGeometry::ON_EDGE_1]};
    return {'-', -1};
}

// Incidence queries against brute force over the face and edge records, for every face,
// edge, vertex and point type of the small meshes of the table.
class MeshTopology : public ::testing::TestWithParam<std::string> {};

TEST_P(MeshTopology, IncidenceMatchesBruteForce) {
    const GmTriangleMesh m = meshtest::build(meshtest::soupNamed(GetParam()));
    const int nf = m.getNumberFaces(), ne = m.getNumberEdges(), nv = m.getNumberVertices();
    auto onEdge = [&](int e, int v) { return m.getEdge(e).from == v || m.getEdge(e).to == v; };
    for (int f1 = 0; f1 < nf; ++f1) {
        const GmTriangleFace& a = m.getFace(f1);
        for (int f2 = 0; f2 < nf; ++f2) {
            const GmTriangleFace& b = m.getFace(f2);
            int sharedEdge = -1, sharedVertex = -1;  // the first in face order
            for (int k = 2; k >= 0; --k) {
                if (b.edges[0] == a.edges[k] || b.edges[1] == a.edges[k] || b.edges[2] == a.edges[k]) sharedEdge = a.edges[k];
                if (b.hasVertex(a.vertices[k])) sharedVertex = a.vertices[k];
            }
            ASSERT_TRUE(m.getSharedEdge(f1, f2) == sharedEdge && m.getSharedVertex(f1, f2) == sharedVertex &&
                        m.shareEdge(f1, f2) == (sharedEdge >= 0) && m.shareVertex(f1, f2) == (sharedVertex >= 0)) << f1 << ' ' << f2;
            for (PointOnTriType t : kAllTypes) {
                const auto c = component(a, t);
                const bool on = c.first == 'f' ? f1 == f2 : c.first == 'v' ? b.hasVertex(c.second)
                                                          : c.first == 'e' && (b.edges[0] == c.second || b.edges[1] == c.second || b.edges[2] == c.second);
                ASSERT_TRUE(m.triComponentIndex(f1, t) == c.second && m.isOnFace(f1, t, f2) == on) << f1 << ' ' << t << ' ' << f2;
            }
        }
        for (int e = 0; e < ne; ++e) {
            int other = -1;  // the first face vertex off the edge
            for (int k = 2; k >= 0; --k) other = onEdge(e, a.vertices[k]) ? other : a.vertices[k];
            ASSERT_TRUE(m.getOtherVertex(f1, e) == other &&
                        m.getOtherFace(f1, e) == (m.getEdge(e).firstFace == f1 ? m.getEdge(e).secondFace : m.getEdge(e).firstFace)) << f1 << ' ' << e;
        }
        for (int v = 0; v < nv; ++v) {
            int other = -1;  // the first face edge off the vertex
            for (int k = 2; k >= 0; --k) other = onEdge(a.edges[k], v) ? other : a.edges[k];
            ASSERT_EQ(m.getOtherEdge(f1, v), other) << f1 << ' ' << v;
        }
    }
    for (int e1 = 0; e1 < ne; ++e1)
        for (int e2 = 0; e2 < ne; ++e2)
            ASSERT_EQ(m.incidentEdges(e1, e2), onEdge(e2, m.getEdge(e1).from) || onEdge(e2, m.getEdge(e1).to)) << e1 << ' ' << e2;
}

// Boundary tests and shareFace, without and with a mask: a disabled face counts as missing.
// The faces of a point are its own face and, for a vertex, every face around it, for an edge
// its recorded faces.
TEST_P(MeshTopology, BoundaryAndShareFaceMatchBruteForce) {
    GmTriangleMesh m = meshtest::build(meshtest::soupNamed(GetParam()));
    const int nf = m.getNumberFaces(), ne = m.getNumberEdges();
    GmDisabledData mask(&m);
    for (int f = 1; f < nf; f += 3) mask.setFaceDisabled(f);
    for (const GmDisabledData* mk : {static_cast<const GmDisabledData*>(nullptr), static_cast<const GmDisabledData*>(&mask)}) {
        auto enabled = [&](int f) { return f >= 0 && !(mk && f % 3 == 1); };
        std::vector<bool> boundaryEdge(static_cast<std::size_t>(ne)), boundaryVertex(static_cast<std::size_t>(m.getNumberVertices()));
        for (int e = 0; e < ne; ++e) {
            const GmTriangleEdge& ed = m.getEdge(e);
            const bool b = !enabled(ed.firstFace) || !enabled(ed.secondFace);
            boundaryEdge[static_cast<std::size_t>(e)] = b;
            if (b) boundaryVertex[static_cast<std::size_t>(ed.from)] = boundaryVertex[static_cast<std::size_t>(ed.to)] = true;
            ASSERT_TRUE(m.isBoundaryEdge(e, mk) == b && m.isBoundaryEdge(ed, mk) == b && m.isBoundaryEdge(&ed, mk) == b) << e;
        }
        const bool any = std::find(boundaryEdge.begin(), boundaryEdge.end(), true) != boundaryEdge.end();
        EXPECT_TRUE(m.isClosed(mk) == (!any && !mk) && m.hasBoundaryEdges(mk) == (any || mk));
        for (int v = 0; v < m.getNumberVertices(); ++v)
            ASSERT_EQ(m.isBoundaryVertex(v, mk), boundaryVertex[static_cast<std::size_t>(v)]) << v;
        std::vector<std::vector<std::vector<int>>> facesOf(static_cast<std::size_t>(nf));  // [face][type]
        for (int f = 0; f < nf; ++f)
            for (PointOnTriType t : kAllTypes) {
                const auto c = component(m.getFace(f), t);
                std::vector<int> out;
                for (int g = 0; g < nf && c.first != '-'; ++g)
                    if (g == f || (c.first == 'v' && m.getFace(g).hasVertex(c.second)) ||
                        (c.first == 'e' && (m.getEdge(c.second).firstFace == g || m.getEdge(c.second).secondFace == g)))
                        out.push_back(g);
                facesOf[static_cast<std::size_t>(f)].push_back(out);
            }
        for (int f1 = 0; f1 < nf; ++f1)
            for (std::size_t t1 = 0; t1 < kAllTypes.size(); ++t1) {
                const auto c = component(m.getFace(f1), kAllTypes[t1]);
                const bool b = c.first == 'v' ? boundaryVertex[static_cast<std::size_t>(c.second)]
                                              : c.first == 'e' ? boundaryEdge[static_cast<std::size_t>(c.second)] : !enabled(f1);
                ASSERT_EQ(m.isBoundaryPoint(f1, kAllTypes[t1], mk), b) << f1 << ' ' << t1;
                if (nf > 130 || f1 % 2) continue;  // shareFace on a sample
                const std::vector<int>& first = facesOf[static_cast<std::size_t>(f1)][t1];
                for (int f2 = 0; f2 < nf; ++f2)
                    for (std::size_t t2 = 0; t2 < kAllTypes.size(); ++t2) {
                        bool expected = false;
                        for (int g : facesOf[static_cast<std::size_t>(f2)][t2])
                            expected = expected || (enabled(g) && std::find(first.begin(), first.end(), g) != first.end());
                        ASSERT_EQ(m.shareFace(f1, kAllTypes[t1], f2, kAllTypes[t2], mk), expected) << f1 << ' ' << t1 << ' ' << f2 << ' ' << t2;
                    }
            }
    }
}

INSTANTIATE_TEST_SUITE_P(Meshes, MeshTopology,
                         ::testing::Values("tetrahedron", "cube", "icosphere", "torus", "grid", "folded",
                                           "nonmanifold", "degenerate"),
                         [](const auto& info) { return std::string(info.param); });

// The disabled count decides whether a mask is in effect; the bits alone do not.
TEST(MeshMask, CountAndBits) {
    GmTriangleMesh m = qgtools::makeClothGrid(10, 10);  // 200 faces, 7 words
    GmDisabledData mask(&m);
    EXPECT_EQ(mask.getMesh(), &m);
    for (int f : {33, 33, 199}) mask.setFaceDisabled(f);
    EXPECT_EQ(mask.getWords(), std::vector<std::uint32_t>({0, 2, 0, 0, 0, 0, 1u << (199 % 32)}));
    EXPECT_TRUE(mask.getDisabledCount() == 2 && mask.isDisabled(33) && !mask.isFaceDisabled(32));
    mask.setFaceDisabled(33, false);
    mask.disableFaces({1, 2, 3});
    mask.enableFaces({1, 2});
    EXPECT_EQ(mask.getDisabledCount(), 2u);
    mask.setDisabledCount(0);
    EXPECT_TRUE(mask.isFaceDisabled(3) && !mask.isDisabled(3) && !GmDisabledData::isActive(&mask));
    EXPECT_FALSE(GmDisabledData::isDisabled(nullptr, 3));
    ASSERT_GE(m.getSharedEdge(2, 3), 0);
    EXPECT_TRUE(!m.isBoundaryEdge(m.getSharedEdge(2, 3), &mask) && m.shareFace(3, GmGeometry::INSIDE, 3, GmGeometry::INSIDE, &mask));
    const GmDisabledData copy(mask);
    mask.clear();
    EXPECT_TRUE(!mask.isFaceDisabled(3) && copy.isFaceDisabled(3) && copy.getWords()[6] != 0);
    mask.setWords(std::vector<std::uint32_t>(7, 0u), 1);  // count non-zero, every bit clear
    EXPECT_TRUE(!m.isClosed(&mask) && m.hasBoundaryEdges(&mask) && !m.isBoundaryEdge(m.getSharedEdge(2, 3), &mask));
    GmFrozenData frozen(&m);
    frozen.freezeFaces({5, 6, 64, 5});
    EXPECT_TRUE(frozen.getFrozenCount() == 3 && frozen.isFaceFrozen(64) && frozen.isFrozen(6) && frozen.getWords()[2] == 1u);
}

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
    ASSERT_TRUE(s != nullptr && s->getMesh() == &m);
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
    EXPECT_TRUE(s->getNumberVertexFaceTests() == 4 && s->getNumberEdgeEdgeTests() == 3 && s->getTest(0).isVertexFaceTest() &&
                s->getTest(6).isEdgeEdgeTest() && s->getTest(6).firstFeatureSlot() == 2);
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
            ASSERT_TRUE(s != nullptr && s != m.getOrphanSet() && mask.getOrphanSet() == s);  // its own, kept
            EXPECT_TRUE(s->getTests() == bruteForceOrphans(m, &mask)) << *s;
            mask.setDisabledCount(0);
            EXPECT_EQ(mask.getOrphanSet(), m.getOrphanSet());
        }
    }
    EXPECT_TRUE(total > 50u && GmDisabledData().getOrphanSet() == nullptr) << total;
}

}  // namespace

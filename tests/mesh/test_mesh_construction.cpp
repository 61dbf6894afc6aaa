#include <gtest/gtest.h>
#include <map>
#include "mesh_test_util.h"

namespace {

using meshtest::V;
using IntList = std::vector<int>;

// Every record and list of the mesh, whole and through the per-element accessors.
void expectMatchesReference(const GmTriangleMesh& m, const meshtest::RefMesh& r) {
    ASSERT_TRUE(m.isConstructionFinished());
    ASSERT_TRUE(m.getEdges() == r.edges);
    ASSERT_TRUE(m.getFaces() == r.faces);
    EXPECT_TRUE(m.getVertexToFacesLists() == r.v2f && m.getVertexToEdgesLists() == r.v2e &&
                m.getVertexToVerticesLists() == r.v2v && m.getFaceToFacesLists() == r.f2f && m.getEdgeToFacesLists() == r.e2f);
    EXPECT_TRUE(m.isClosed() == r.closed && m.hasBoundaryEdges() == !r.closed);
    for (std::size_t v = 0; v < r.v2f.size(); ++v) {
        const int i = static_cast<int>(v);
        ASSERT_TRUE(m.getNeighborFacesToVertex(i) == r.v2f[v] && m.getNeighborEdgesToVertex(i) == r.v2e[v] &&
                    m.getNeighborVerticesToVertex(i) == r.v2v[v] && m.getNeighborFacesToVertexCount(i) == r.v2f[v].size()) << v;
    }
    for (const GmTriangleFace& f : r.faces) {
        int e[3];
        m.getFaceEdges(f.index, e);
        ASSERT_TRUE(m.getNeighborFacesToFace(f.index) == r.f2f[static_cast<std::size_t>(f.index)]) << f.index;
        ASSERT_EQ(IntList({m.getFaceEdgeIndex1(f.index), m.getFaceEdgeIndex2(f.index), m.getFaceEdgeIndex3(f.index), e[0], e[1], e[2]}),
                  IntList({f.edges[0], f.edges[1], f.edges[2], f.edges[0], f.edges[1], f.edges[2]}));
        ASSERT_EQ(m.getFaceEdge2(f.index), r.edges[static_cast<std::size_t>(f.edges[1])]);
    }
    for (int e = 0; e < m.getNumberEdges(); ++e) {
        const GmTriangleEdge& re = r.edges[static_cast<std::size_t>(e)];
        int f1 = -2, f2 = -2;
        m.getEdgeFaces(e, f1, f2);
        ASSERT_TRUE(m.getNeighborFacesToEdge(e) == r.e2f[static_cast<std::size_t>(e)]) << e;
        ASSERT_EQ(IntList({f1, f2, m.getEdgeVertexIndexFrom(e), m.getEdgeVertexIndexTo(e)}),
                  IntList({re.firstFace, re.secondFace, re.from, re.to}));
    }
}

class MeshTable : public ::testing::TestWithParam<std::string> {};

TEST_P(MeshTable, SerialAndParallelBuildsMatchTheReference) {
    const qgtools::PolygonSoup& soup = meshtest::soupNamed(GetParam());
    const meshtest::RefMesh ref = meshtest::referenceBuild(soup);
    for (bool parallel : {false, true}) {
        SCOPED_TRACE(parallel ? "parallel" : "serial");
        expectMatchesReference(meshtest::build(soup, parallel), ref);
    }
}

INSTANTIATE_TEST_SUITE_P(Meshes, MeshTable, ::testing::ValuesIn(meshtest::tableNames()),
                         [](const auto& info) { return info.param; });

TEST(MeshConstruction, FinishAgainAfterMoreFacesRebuildsEverything) {
    const qgtools::PolygonSoup& soup = meshtest::soupNamed("largegrid");
    qgtools::PolygonSoup half = soup;
    half.triangles.resize(soup.triangles.size() / 2);
    GmTriangleMesh m = meshtest::build(half);
    m.fillCaches();
    ScopedThreading parallel(true);
    for (std::size_t i = half.triangles.size(); i < soup.triangles.size(); ++i)
        m.addFace(soup.triangles[i][0], soup.triangles[i][1], soup.triangles[i][2]);
    EXPECT_FALSE(m.isConstructionFinished());
    m.finishConstruction();
    expectMatchesReference(m, meshtest::referenceBuild(soup));
    EXPECT_TRUE(m.isFaceDataReset() && m.isVertexNormalsReset() && m.isUnitEdgesReset() && !m.isFaceDataCached(0));
    EXPECT_NEAR(m.getFaceArea(m.getNumberFaces() - 1), 0.5 / (40 * 30), 1e-15);
}

// Merging vertices: within 1e-8 per component (not by distance); the first position stays.
TEST(MeshConstruction, VertexMergingIsPerComponent) {
    const struct { V p; int index; bool existed; } steps[] = {  // NOLINT
        {V(1, 2, 3), 0, false}, {V(1 + 5e-9, 2 + 5e-9, 3 + 5e-9), 0, true}, {V(1 - 5e-9, 2 - 5e-9, 3 + 5e-9), 0, true},
        {V(1, 2 + 2e-8, 3), 1, false}, {V(1, 2, 3 - 1.5e-8), 2, false}, {V(1, 2, 3), 0, true}, {V(7, 7, 7), 3, false}};
    GmTriangleMesh m;
    EXPECT_EQ(m.addVertex(V(7, 7, 7)), 0);  // the plain form appends and leaves no lookup entry
    for (const auto& s : steps) {
        bool existed = !s.existed;
        EXPECT_EQ(m.addVertex(s.p, existed), s.index + 1) << s.p;
        EXPECT_EQ(existed, s.existed) << s.p;
    }
}

// Random triples over few vertices (shared edges, repeats in other orders, degenerate
// faces) against an ordered map keyed by the sorted triple.
TEST(MeshConstruction, FaceMergingMatchesAnOrderedMap) {
    GmTriangleMesh m;
    for (int i = 0; i < 12; ++i) m.addVertex(V(i, 0, 0));
    EXPECT_EQ(m.addFace(0, 1, 2), 0);  // the plain form neither consults nor fills the lookup
    std::map<std::array<int, 3>, int> reference;
    std::uint32_t state = 7;
    auto next = [&state] { return static_cast<int>(((state = state * 1664525u + 1013904223u) >> 10) % 12u); };
    for (int n = 0; n < 3000; ++n) {
        const int a = next(), b = next(), c = next();
        std::array<int, 3> key{a, b, c};
        std::sort(key.begin(), key.end());
        const auto found = reference.find(key);
        bool existed = found == reference.end();
        const int f = m.addFace(a, b, c, existed);
        ASSERT_EQ(existed, found != reference.end());
        ASSERT_EQ(f, existed ? found->second : m.getNumberFaces() - 1);
        reference.emplace(key, f);
    }
    EXPECT_EQ(static_cast<std::size_t>(m.getNumberFaces()), reference.size() + 1);
}

// Every triangle with its own corners: merging by position restores the shared mesh.
TEST(MeshConstruction, MergingByPositionRestoresTheSharedTopology) {
    const qgtools::PolygonSoup& shared = meshtest::soupNamed("icosphere");
    qgtools::PolygonSoup split, expected;  // expected: vertices numbered by first use
    std::map<int, int> renumber;
    for (const auto& t : shared.triangles) {
        std::array<int, 3> e{};
        for (std::size_t k = 0; k < 3; ++k) {
            split.positions.push_back(shared.positions[static_cast<std::size_t>(t[k])]);
            e[k] = renumber.emplace(t[k], expected.numVertices()).first->second;
            if (e[k] == expected.numVertices()) expected.positions.push_back(split.positions.back());
        }
        split.triangles.push_back({split.numVertices() - 3, split.numVertices() - 2, split.numVertices() - 1});
        expected.triangles.push_back(e);
    }
    const GmTriangleMesh plain = qgtools::meshFromSoup(split, false);
    EXPECT_EQ(plain.getNumberEdges(), 3 * plain.getNumberFaces());
    EXPECT_FALSE(plain.isClosed());
    GmTriangleMesh merged = qgtools::meshFromSoup(split, true);
    EXPECT_EQ(merged.getVertices(), expected.positions);
    expectMatchesReference(merged, meshtest::referenceBuild(expected));
}

TEST(MeshConstruction, AddEdgeFillsTheFirstFaceOnlyFromItsOwnDirection) {
    GmTriangleMesh m;
    for (int i = 0; i < 3; ++i) m.addVertex(V(i, 0, 0));
    const struct {
        int from, to, face, index;
        GmTriangleEdge expected;
    } steps[] = {{0, 1, -1, 0, {-1, -1, 0, 1}}, {0, 1, 5, 0, {5, -1, 0, 1}}, {1, 0, 6, 0, {5, 6, 0, 1}},
                 {0, 1, 7, 0, {5, 7, 0, 1}},    {2, 1, -1, 1, {-1, -1, 2, 1}}, {1, 2, 3, 1, {-1, 3, 2, 1}}};
    for (const auto& s : steps) {
        EXPECT_EQ(m.addEdge(s.from, s.to, s.face), s.index);
        EXPECT_EQ(m.getEdge(s.index), s.expected) << s.from << ' ' << s.to << ' ' << s.face;
    }
}

// Copies answer like their source, with their own orphan set and merging lookups; a
// moved-from mesh is empty and usable.
TEST(MeshConstruction, CopyAssignAndMove) {
    GmTriangleMesh src;
    bool existed = false;
    src.addFace(V(0, 0, 0), V(1, 0, 0), V(0, 1, 0), existed);
    src.addFace(V(1, 0, 0), V(1, 1, 0), V(0, 1, 0), existed);
    src.addFace(0, 1, src.addVertex(V(0, 0, 1), existed));
    src.finishConstruction();
    src.setName("src");
    const meshtest::RefMesh ref = meshtest::referenceBuild(meshtest::soupOf(src.getVertices(), {{0, 1, 2}, {1, 3, 2}, {0, 1, 4}}));
    GmTriangleMesh copy(src), assigned;
    assigned = src;
    assigned = static_cast<GmTriangleMesh&>(assigned);
    for (GmTriangleMesh* m : {&copy, &assigned}) {
        EXPECT_EQ(m->getName(), "src");
        expectMatchesReference(*m, ref);
        for (int v = 0; v < src.getNumberVertices(); ++v) EXPECT_EQ(m->getVertexNormal(v), src.getVertexNormal(v));
        ASSERT_NE(m->getOrphanSet(), src.getOrphanSet());
        EXPECT_TRUE(m->getOrphanSet()->getMesh() == m && m->getOrphanSet()->getTests() == src.getOrphanSet()->getTests());
        EXPECT_EQ(m->addFace(V(0, 1, 0), V(1, 0, 1e-9), V(0, 0, 0), existed), 0);  // other orientation
        EXPECT_TRUE(existed);
    }
    EXPECT_EQ(src.getNumberVertices(), 5);
    GmTriangleMesh moved(std::move(src));
    EXPECT_TRUE(moved.getNumberFaces() == 3 && moved.getOrphanSet()->getMesh() == &moved);
    EXPECT_EQ(src.getNumberFaces(), 0);  // NOLINT(bugprone-use-after-move)
    src.addFace(V(0, 0, 0), V(1, 0, 0), V(0, 1, 0), existed);
    src.finishConstruction();
    EXPECT_TRUE(!existed && src.getNumberEdges() == 3);
}

}  // namespace

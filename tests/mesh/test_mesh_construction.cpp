#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <map>
#include <sstream>

#include <quarrygeom/mesh/mesh.h>

#include "mesh_test_util.h"
#include "qgtools/data_dir.h"
#include "qgtools/mesh_io.h"
#include "qgtools/shapes.h"

namespace {

using V = GmTVector<double>;
using IntList = std::vector<int>;

GmTriangleMesh twoTriangles() {
    GmTriangleMesh m;
    m.addVertex(V(0, 0, 0));
    m.addVertex(V(1, 0, 0));
    m.addVertex(V(0, 1, 0));
    m.addVertex(V(1, 1, 0));
    m.addFace(0, 1, 2);
    m.addFace(2, 1, 3);
    m.finishConstruction();
    return m;
}

// Compares every record and list of a mesh with the reference construction.
void expectMatchesReference(const GmTriangleMesh& m, const meshtest::RefMesh& r) {
    ASSERT_EQ(m.getNumberEdges(), static_cast<int>(r.edges.size()));
    ASSERT_EQ(m.getNumberFaces(), static_cast<int>(r.faces.size()));
    EXPECT_TRUE(m.getEdges() == r.edges);
    EXPECT_TRUE(m.getFaces() == r.faces);
    EXPECT_TRUE(m.getVertexToFacesLists() == r.v2f);
    EXPECT_TRUE(m.getVertexToEdgesLists() == r.v2e);
    EXPECT_TRUE(m.getVertexToVerticesLists() == r.v2v);
    EXPECT_TRUE(m.getFaceToFacesLists() == r.f2f);
    EXPECT_TRUE(m.getEdgeToFacesLists() == r.e2f);
    EXPECT_EQ(m.isClosed(), r.closed);
}

TEST(MeshConstruction, Constants) {
    EXPECT_EQ(GmTriangleMesh::kInvalidIndex, -1);
    EXPECT_EQ(GmTriangleMesh::UninitializedDouble, 1.7976931348623157e308);
    std::uint64_t bits = 0;
    const double u = GmTriangleMesh::UninitializedDouble;
    std::memcpy(&bits, &u, sizeof bits);
    EXPECT_EQ(bits, 0x7FEFFFFFFFFFFFFFull);
    EXPECT_EQ(GmTriangleMesh::UninitializedVector, V(u, u, u));
}

TEST(MeshConstruction, EmptyMeshStartsClosedWithNoElements) {
    GmTriangleMesh m(10, 20);
    EXPECT_EQ(m.getName(), "");
    EXPECT_EQ(m.getNumberVertices(), 0);
    EXPECT_TRUE(m.isClosed());
    EXPECT_FALSE(m.isFaceDataReset());
    m.finishConstruction();
    EXPECT_TRUE(m.isClosed());
    GmTriangleMesh named("cloth");
    EXPECT_EQ(named.getName(), "cloth");
    named.setName("body");
    EXPECT_EQ(named.getName(), "body");
}

TEST(MeshConstruction, SingleTriangle) {
    GmTriangleMesh m;
    EXPECT_EQ(m.addVertex(V(0, 0, 0)), 0);
    EXPECT_EQ(m.addVertex(V(1, 0, 0)), 1);
    EXPECT_EQ(m.addVertex(V(0, 1, 0)), 2);
    EXPECT_EQ(m.addFace(0, 1, 2), 0);
    m.finishConstruction();
    ASSERT_EQ(m.getNumberEdges(), 3);
    for (int e = 0; e < 3; ++e) {
        EXPECT_EQ(m.getEdge(e).firstFace, 0);
        EXPECT_EQ(m.getEdge(e).secondFace, -1);
        EXPECT_EQ(m.getNeighborFacesToEdge(e), IntList({0}));
    }
    EXPECT_FALSE(m.isClosed());
    EXPECT_TRUE(m.hasBoundaryEdges());
    for (int v = 0; v < 3; ++v) {
        EXPECT_EQ(m.getNeighborVerticesToVertex(v).size(), 2u);
        EXPECT_EQ(m.getNeighborFacesToVertexCount(v), 1u);
        EXPECT_EQ(m.getNeighborEdgesToVertex(v).size(), 2u);
    }
    const GmTriangleFace& f = m.getFace(0);
    EXPECT_EQ(f.index, 0);
    EXPECT_EQ(f.reserved, 0);
    // Edge k joins vertex k to vertex k + 1, in the face's direction.
    EXPECT_EQ(m.getFaceEdge1(0).from, 0);
    EXPECT_EQ(m.getFaceEdge1(0).to, 1);
    EXPECT_EQ(m.getFaceEdge2(0).from, 1);
    EXPECT_EQ(m.getFaceEdge2(0).to, 2);
    EXPECT_EQ(m.getFaceEdge3(0).from, 2);
    EXPECT_EQ(m.getFaceEdge3(0).to, 0);
    EXPECT_TRUE(m.getNeighborFacesToFace(0).empty());
}

TEST(MeshConstruction, TwoTrianglesShareOneEdge) {
    GmTriangleMesh m = twoTriangles();
    ASSERT_EQ(m.getNumberEdges(), 5);
    const int shared = m.getSharedEdge(0, 1);
    ASSERT_GE(shared, 0);
    EXPECT_EQ(shared, m.getFaceEdgeIndex1(0) == shared ? m.getFaceEdgeIndex1(0) : m.getFaceEdgeIndex2(0));
    int f1 = -2, f2 = -2;
    m.getEdgeFaces(shared, f1, f2);
    EXPECT_EQ(f1, 0);
    EXPECT_EQ(f2, 1);
    EXPECT_EQ(m.getEdgeVertexIndexFrom(shared), 1);
    EXPECT_EQ(m.getEdgeVertexIndexTo(shared), 2);
    EXPECT_EQ(m.getNeighborFacesToFace(0), IntList({1}));
    EXPECT_EQ(m.getNeighborFacesToFace(1), IntList({0}));
    EXPECT_EQ(m.getNeighborFacesToEdge(shared), IntList({0, 1}));
    EXPECT_EQ(m.getNeighborVerticesToVertex(1), IntList({0, 2, 3}));
    EXPECT_EQ(m.getNeighborFacesToVertex(2), IntList({0, 1}));
    // Edges are numbered in creation order: (0,1) (1,2) (2,0) (1,3) (3,2).
    EXPECT_EQ(m.getFace(1).edges[0], 1);
    EXPECT_EQ(m.getFace(1).edges[1], 3);
    EXPECT_EQ(m.getFace(1).edges[2], 4);
    EXPECT_FALSE(m.isClosed());
}

TEST(MeshConstruction, MergingFaceLookupIgnoresOrderAndOrientation) {
    GmTriangleMesh m;
    for (int i = 0; i < 4; ++i) m.addVertex(V(i, i * i, 0));
    bool existed = true;
    EXPECT_EQ(m.addFace(0, 1, 2, existed), 0);
    EXPECT_FALSE(existed);
    EXPECT_EQ(m.addFace(2, 1, 0, existed), 0);
    EXPECT_TRUE(existed);
    EXPECT_EQ(m.addFace(1, 2, 0, existed), 0);
    EXPECT_TRUE(existed);
    EXPECT_EQ(m.addFace(1, 2, 3, existed), 1);
    EXPECT_FALSE(existed);
    EXPECT_EQ(m.getNumberFaces(), 2);
    // The plain addFace does not consult or fill the lookup.
    EXPECT_EQ(m.addFace(0, 1, 2), 2);
    EXPECT_EQ(m.addFace(0, 2, 3, existed), 3);
    EXPECT_FALSE(existed);
}

TEST(MeshConstruction, MergingFaceLookupMatchesAnOrderedMap) {
    // Random triples over few vertices: many faces share edges (non-manifold fans),
    // some repeat in other orders, some are degenerate.
    GmTriangleMesh m;
    for (int i = 0; i < 12; ++i) m.addVertex(V(i, 0, 0));
    std::map<std::array<int, 3>, int> reference;
    std::uint32_t state = 7;
    auto next = [&state]() {
        state = state * 1664525u + 1013904223u;
        return static_cast<int>((state >> 10) % 12u);
    };
    for (int n = 0; n < 3000; ++n) {
        const int a = next(), b = next(), c = next();
        std::array<int, 3> key{a, b, c};
        std::sort(key.begin(), key.end());
        bool existed = false;
        const int f = m.addFace(a, b, c, existed);
        auto it = reference.find(key);
        if (it == reference.end()) {
            ASSERT_FALSE(existed);
            ASSERT_EQ(f, m.getNumberFaces() - 1);
            reference.emplace(key, f);
        } else {
            ASSERT_TRUE(existed);
            ASSERT_EQ(f, it->second);
        }
    }
    EXPECT_EQ(static_cast<std::size_t>(m.getNumberFaces()), reference.size());
}

TEST(MeshConstruction, VertexMergingUsesPerComponentTolerance) {
    GmTriangleMesh m;
    bool existed = true;
    EXPECT_EQ(m.addVertex(V(1, 2, 3), existed), 0);
    EXPECT_FALSE(existed);
    EXPECT_EQ(m.addVertex(V(1 + 5e-9, 2 + 5e-9, 3 + 5e-9), existed), 0);
    EXPECT_TRUE(existed);
    EXPECT_EQ(m.addVertex(V(1 - 5e-9, 2 - 5e-9, 3 + 5e-9), existed), 0);
    EXPECT_TRUE(existed);
    EXPECT_EQ(m.addVertex(V(1, 2 + 2e-8, 3), existed), 1);
    EXPECT_FALSE(existed);
    EXPECT_EQ(m.addVertex(V(1, 2, 3 - 2e-8), existed), 2);
    EXPECT_FALSE(existed);
    EXPECT_EQ(m.getNumberVertices(), 3);
    // The stored position is the first one, not an average.
    EXPECT_EQ(m.getVertex(0), V(1, 2, 3));
    // The plain addVertex always appends and leaves no lookup entry.
    EXPECT_EQ(m.addVertex(V(7, 7, 7)), 3);
    EXPECT_EQ(m.addVertex(V(7, 7, 7), existed), 4);
    EXPECT_FALSE(existed);
}

TEST(MeshConstruction, ToleranceIsPerComponentNotADistance) {
    GmTriangleMesh m;
    bool existed = false;
    m.addVertex(V(0, 0, 0), existed);
    // Distance 1.7e-8 > 1e-8, but every component is within 1e-8.
    EXPECT_EQ(m.addVertex(V(1e-8, 1e-8, 1e-8), existed), 0);
    EXPECT_TRUE(existed);
    // Exactly 1e-8 apart still merges; clearly above does not.
    EXPECT_EQ(m.addVertex(V(0, 0, 1.5e-8), existed), 1);
    EXPECT_FALSE(existed);
}

TEST(MeshConstruction, MergingFaceFromPositions) {
    GmTriangleMesh m;
    bool existed = true;
    EXPECT_EQ(m.addFace(V(0, 0, 0), V(1, 0, 0), V(0, 1, 0), existed), 0);
    EXPECT_FALSE(existed);
    EXPECT_EQ(m.addFace(V(1, 0, 0), V(1, 1, 0), V(0, 1, 0), existed), 1);
    EXPECT_FALSE(existed);
    EXPECT_EQ(m.getNumberVertices(), 4);
    // Same triangle, nearly the same positions, other orientation.
    EXPECT_EQ(m.addFace(V(0, 1e-9, 0), V(0, 1, 0), V(1, 0, 0), existed), 0);
    EXPECT_TRUE(existed);
    EXPECT_EQ(m.getNumberVertices(), 4);
    // The non-merging form appends three vertices every time.
    EXPECT_EQ(m.addFace(V(0, 0, 0), V(1, 0, 0), V(0, 1, 0)), 2);
    EXPECT_EQ(m.getNumberVertices(), 7);
    m.finishConstruction();
    EXPECT_EQ(m.getNumberEdges(), 8);
}

TEST(MeshConstruction, ThirdFaceOnAnEdgeReplacesTheSecondFace) {
    GmTriangleMesh m;
    for (int i = 0; i < 5; ++i) m.addVertex(V(i, i % 2, i % 3));
    m.addFace(0, 1, 2);
    m.addFace(1, 0, 3);
    m.addFace(0, 1, 4);
    m.finishConstruction();
    const GmTriangleEdge& e = m.getEdge(0);
    EXPECT_EQ(e.from, 0);
    EXPECT_EQ(e.to, 1);
    EXPECT_EQ(e.firstFace, 0);
    EXPECT_EQ(e.secondFace, 2);
    EXPECT_EQ(m.getNeighborFacesToEdge(0), IntList({0, 2}));
    // Face 1 lost its record on the edge: no face-to-face link to face 0.
    EXPECT_TRUE(m.getNeighborFacesToFace(1).empty());
    EXPECT_EQ(m.getNeighborFacesToFace(0), IntList({2}));
    // Vertex-to-faces still lists all three.
    EXPECT_EQ(m.getNeighborFacesToVertex(0), IntList({0, 1, 2}));
}

TEST(MeshConstruction, AddEdgeFillsAMissingFirstFace) {
    GmTriangleMesh m;
    for (int i = 0; i < 3; ++i) m.addVertex(V(i, 0, 0));
    EXPECT_EQ(m.addEdge(0, 1, -1), 0);
    EXPECT_EQ(m.getEdge(0), GmTriangleEdge(-1, -1, 0, 1));
    // Same direction with a missing first face: the face becomes the first face.
    EXPECT_EQ(m.addEdge(0, 1, 5), 0);
    EXPECT_EQ(m.getEdge(0), GmTriangleEdge(5, -1, 0, 1));
    // Any later use sets the second face.
    EXPECT_EQ(m.addEdge(1, 0, 6), 0);
    EXPECT_EQ(m.getEdge(0), GmTriangleEdge(5, 6, 0, 1));
    EXPECT_EQ(m.addEdge(0, 1, 7), 0);
    EXPECT_EQ(m.getEdge(0), GmTriangleEdge(5, 7, 0, 1));
    // Opposite direction with a missing first face goes to the second face.
    EXPECT_EQ(m.addEdge(2, 1, -1), 1);
    EXPECT_EQ(m.addEdge(1, 2, 3), 1);
    EXPECT_EQ(m.getEdge(1), GmTriangleEdge(-1, 3, 2, 1));
}

TEST(MeshConstruction, HighValenceFanMatchesReference) {
    // Vertex 0 is on every face: its edge chain switches to the hashed form.
    qgtools::PolygonSoup soup;
    const int n = 300;
    soup.positions.emplace_back(0, 0, 0);
    for (int i = 0; i < n; ++i) soup.positions.emplace_back(std::cos(i * 0.02), std::sin(i * 0.02), 0);
    for (int i = 1; i < n; ++i) soup.triangles.push_back({0, i, i + 1});
    soup.triangles.push_back({0, n, 1});
    // Reuse every edge again with a second fan on the other side.
    for (int i = 1; i < n; ++i) soup.triangles.push_back({0, i + 1, i});
    GmTriangleMesh m = qgtools::meshFromSoup(soup);
    expectMatchesReference(m, meshtest::referenceBuild(soup));
    EXPECT_EQ(m.getNeighborVerticesToVertex(0).size(), static_cast<std::size_t>(n));
}

TEST(MeshConstruction, ShapesMatchReference) {
    for (const qgtools::PolygonSoup& soup :
         {qgtools::clothGridSoup(7, 5), qgtools::icosphereSoup(2), qgtools::cubeSoup(), qgtools::tetrahedronSoup(),
          qgtools::torusSoup(9, 7), qgtools::foldedGridSoup(20, 3)}) {
        GmTriangleMesh m = qgtools::meshFromSoup(soup);
        expectMatchesReference(m, meshtest::referenceBuild(soup));
    }
}

TEST(MeshConstruction, ScrambledFaceOrderMatchesReference) {
    // Faces in a pseudo-random order and random orientations exercise edge reuse in
    // every direction.
    qgtools::PolygonSoup soup = qgtools::icosphereSoup(3);
    std::uint32_t state = 12345;
    auto next = [&state]() {
        state = state * 1664525u + 1013904223u;
        return state >> 8;
    };
    for (std::size_t i = soup.triangles.size(); i > 1; --i) std::swap(soup.triangles[i - 1], soup.triangles[next() % i]);
    for (auto& t : soup.triangles)
        if (next() % 2) std::swap(t[0], t[1]);
    GmTriangleMesh m = qgtools::meshFromSoup(soup);
    expectMatchesReference(m, meshtest::referenceBuild(soup));
}

TEST(MeshConstruction, ClosedFlagOfShapes) {
    EXPECT_TRUE(qgtools::makeIcosphere(1).isClosed());
    EXPECT_TRUE(qgtools::makeCube().isClosed());
    EXPECT_TRUE(qgtools::makeTetrahedron().isClosed());
    EXPECT_TRUE(qgtools::makeTorus(8, 6).isClosed());
    EXPECT_FALSE(qgtools::makeClothGrid(3, 3).isClosed());
    EXPECT_FALSE(qgtools::makeFoldedGrid(10, 2).isClosed());
}

TEST(MeshConstruction, ClosedMeshEveryEdgeHasTwoFaces) {
    GmTriangleMesh m = qgtools::makeIcosphere(3);
    for (int e = 0; e < m.getNumberEdges(); ++e) {
        EXPECT_EQ(m.getNeighborFacesToEdge(e).size(), 2u);
        EXPECT_NE(m.getEdge(e).firstFace, m.getEdge(e).secondFace);
    }
    // Euler characteristic of a sphere.
    EXPECT_EQ(m.getNumberVertices() - m.getNumberEdges() + m.getNumberFaces(), 2);
    for (int f = 0; f < m.getNumberFaces(); ++f) EXPECT_EQ(m.getNeighborFacesToFace(f).size(), 3u);
}

TEST(MeshConstruction, VertexToVertexListsAreSymmetricAndMatchEdges) {
    GmTriangleMesh m = qgtools::makeTorus(12, 8);
    for (int v = 0; v < m.getNumberVertices(); ++v) {
        const IntList& nb = m.getNeighborVerticesToVertex(v);
        EXPECT_TRUE(std::is_sorted(nb.begin(), nb.end()));
        EXPECT_EQ(nb.size(), 6u);
        EXPECT_EQ(m.getNeighborEdgesToVertex(v).size(), nb.size());
        for (int u : nb) {
            const IntList& back = m.getNeighborVerticesToVertex(u);
            EXPECT_TRUE(std::binary_search(back.begin(), back.end(), v));
        }
    }
}

TEST(MeshConstruction, FinishAgainAfterAddingFaces) {
    GmTriangleMesh m = twoTriangles();
    EXPECT_GT(m.getFaceArea(0), 0.0);
    EXPECT_FALSE(m.isFaceDataReset());
    m.addVertex(V(2, 0, 0));
    m.addFace(1, 4, 3);
    // Lists are stale until the next finish.
    EXPECT_EQ(m.getNeighborFacesToVertex(1).size(), 2u);
    m.finishConstruction();
    EXPECT_EQ(m.getNeighborFacesToVertex(1), IntList({0, 1, 2}));
    EXPECT_EQ(m.getNeighborFacesToFace(1), IntList({0, 2}));
    EXPECT_TRUE(m.isFaceDataReset());
    EXPECT_TRUE(m.isVertexNormalsReset());
    EXPECT_TRUE(m.isUnitEdgesReset());
    for (int f = 0; f < m.getNumberFaces(); ++f) EXPECT_FALSE(m.isFaceDataCached(f));
    EXPECT_NEAR(m.getFaceArea(2), 0.5, 1e-15);
}

TEST(MeshConstruction, CopyAnswersLikeSourceAndOwnsItsOrphanSet) {
    GmTriangleMesh src = qgtools::makeTetrahedron();
    src.setName("tet");
    const GmAdjacentOrphanSet* srcSet = src.getOrphanSet();
    ASSERT_NE(srcSet, nullptr);
    EXPECT_EQ(srcSet->getMesh(), &src);
    GmTriangleMesh copy(src);
    EXPECT_EQ(copy.getName(), "tet");
    EXPECT_TRUE(copy.getEdges() == src.getEdges());
    EXPECT_TRUE(copy.getFaces() == src.getFaces());
    EXPECT_TRUE(copy.getVertexToFacesLists() == src.getVertexToFacesLists());
    EXPECT_EQ(copy.isClosed(), src.isClosed());
    for (int v = 0; v < src.getNumberVertices(); ++v) EXPECT_EQ(copy.getVertexNormal(v), src.getVertexNormal(v));
    const GmAdjacentOrphanSet* copySet = copy.getOrphanSet();
    EXPECT_NE(copySet, srcSet);
    EXPECT_EQ(copySet->getMesh(), &copy);
    EXPECT_TRUE(copySet->getTests() == srcSet->getTests());
    // Assignment, self-assignment.
    GmTriangleMesh other;
    other = src;
    EXPECT_TRUE(other.getFaces() == src.getFaces());
    EXPECT_NE(other.getOrphanSet(), srcSet);
    const GmAdjacentOrphanSet* before = other.getOrphanSet();
    GmTriangleMesh& alias = other;
    other = alias;
    const GmAdjacentOrphanSet* after = other.getOrphanSet();
    ASSERT_NE(after, nullptr);
    EXPECT_EQ(after->getMesh(), &other);
    EXPECT_TRUE(after->getTests() == srcSet->getTests());
    (void)before;
}

TEST(MeshConstruction, CopyKeepsTheMergingLookups) {
    GmTriangleMesh src;
    bool existed = false;
    src.addFace(V(0, 0, 0), V(1, 0, 0), V(0, 1, 0), existed);
    GmTriangleMesh copy(src);
    EXPECT_EQ(copy.addFace(V(0, 1, 0), V(1, 0, 0), V(0, 0, 0), existed), 0);
    EXPECT_TRUE(existed);
    EXPECT_EQ(copy.addVertex(V(1, 1e-9, 0), existed), 1);
    EXPECT_TRUE(existed);
    // Shared edge lookup: a new face on edge (1, 2) reuses it.
    copy.addVertex(V(1, 1, 0));
    copy.addFace(2, 1, 3);
    copy.finishConstruction();
    EXPECT_EQ(copy.getNumberEdges(), 5);
    // The source is unaffected.
    EXPECT_EQ(src.getNumberVertices(), 3);
}

TEST(MeshConstruction, MoveLeavesSourceEmpty) {
    GmTriangleMesh src = qgtools::makeCube();
    const int nf = src.getNumberFaces();
    src.getOrphanSet();
    GmTriangleMesh moved(std::move(src));
    EXPECT_EQ(moved.getNumberFaces(), nf);
    EXPECT_EQ(moved.getOrphanSet()->getMesh(), &moved);
    EXPECT_EQ(src.getNumberFaces(), 0);  // NOLINT(bugprone-use-after-move)
    src.addVertex(V(0, 0, 0));
    src.addVertex(V(1, 0, 0));
    src.addVertex(V(0, 1, 0));
    src.addFace(0, 1, 2);
    src.finishConstruction();
    EXPECT_EQ(src.getNumberEdges(), 3);
}

TEST(MeshConstruction, PositionsCopyAndSwap) {
    GmTriangleMesh m = twoTriangles();
    double* raw = m.copyVertices();
    for (int i = 0; i < m.getNumberVertices(); ++i) {
        EXPECT_EQ(raw[3 * i], m.getVertex(i).x);
        EXPECT_EQ(raw[3 * i + 1], m.getVertex(i).y);
        EXPECT_EQ(raw[3 * i + 2], m.getVertex(i).z);
    }
    delete[] raw;
    std::vector<V> out;
    m.copyVertices(out);
    EXPECT_EQ(out, m.getVertices());
    for (V& p : out) p.z += 1.0;
    std::vector<V> keep = out;
    m.swapVertices(out);
    EXPECT_EQ(m.getVertices(), keep);
    EXPECT_EQ(out[0], V(0, 0, 0));
    m.setVertices(out);
    EXPECT_EQ(m.getVertex(3), V(1, 1, 0));
    m.setVertex(3, 4, 5, 6);
    EXPECT_EQ(m.getVertex(3), V(4, 5, 6));
    // Own vector: no copy, still marked dirty.
    (void)m.getFaceNormal(0);
    m.setVertices(m.getVertices());
    EXPECT_FALSE(m.isFaceDataCached(0));
}

TEST(MeshConstruction, RealMeshesMatchReference) {
    for (const char* name : {"spot.obj", "stanford-bunny.obj"}) {
        SCOPED_TRACE(name);
        qgtools::PolygonSoup soup;
        std::string err;
        ASSERT_TRUE(qgtools::loadObjSoup(qgtools::dataDir() + "/meshes/" + name, soup, &err)) << err;
        GmTriangleMesh m = qgtools::meshFromSoup(soup);
        expectMatchesReference(m, meshtest::referenceBuild(soup));
    }
}

TEST(MeshConstruction, RealMeshClosedFlags) {
    GmTriangleMesh spot = qgtools::loadObjMesh(qgtools::dataDir() + "/meshes/spot.obj");
    EXPECT_EQ(spot.getNumberFaces(), 5856);
    EXPECT_EQ(spot.getNumberVertices(), 2930);
    EXPECT_TRUE(spot.isClosed());
    for (int e = 0; e < spot.getNumberEdges(); ++e) ASSERT_EQ(spot.getNeighborFacesToEdge(e).size(), 2u);
    GmTriangleMesh bunny = qgtools::loadObjMesh(qgtools::dataDir() + "/meshes/stanford-bunny.obj");
    EXPECT_EQ(bunny.getNumberFaces(), 69451);
    EXPECT_FALSE(bunny.isClosed());
    int boundary = 0;
    for (int e = 0; e < bunny.getNumberEdges(); ++e) boundary += bunny.isBoundaryEdge(e) ? 1 : 0;
    EXPECT_GT(boundary, 0);
}

TEST(MeshConstruction, MergedLoadOfADuplicatedSoup) {
    // Every triangle with its own three positions: merging must restore the shared topology.
    const qgtools::PolygonSoup shared = qgtools::icosphereSoup(2);
    qgtools::PolygonSoup split;
    for (const auto& t : shared.triangles) {
        const int base = split.numVertices();
        for (int k = 0; k < 3; ++k) split.positions.push_back(shared.positions[static_cast<std::size_t>(t[k])]);
        split.triangles.push_back({base, base + 1, base + 2});
    }
    GmTriangleMesh plain = qgtools::meshFromSoup(split, false);
    EXPECT_EQ(plain.getNumberEdges(), 3 * plain.getNumberFaces());
    EXPECT_FALSE(plain.isClosed());
    GmTriangleMesh merged = qgtools::meshFromSoup(split, true);
    EXPECT_EQ(merged.getNumberVertices(), shared.numVertices());
    EXPECT_EQ(merged.getNumberFaces(), shared.numTriangles());
    EXPECT_TRUE(merged.isClosed());
}

TEST(MeshConstruction, ObjRoundTrip) {
    GmTriangleMesh m = qgtools::makeIcosphere(1, 2.5, V(1, -2, 0.25));
    std::ostringstream os;
    qgtools::writeObj(os, m);
    const std::string path = ::testing::TempDir() + "qg_mesh_roundtrip.obj";
    ASSERT_TRUE(qgtools::writeObj(path, m));
    GmTriangleMesh back = qgtools::loadObjMesh(path);
    ASSERT_EQ(back.getNumberVertices(), m.getNumberVertices());
    EXPECT_TRUE(back.getFaces() == m.getFaces());
    // The linked OBJ reader parses numbers in single precision.
    for (int v = 0; v < m.getNumberVertices(); ++v)
        EXPECT_LT((back.getVertex(v) - m.getVertex(v)).length(), 1e-6) << v;
    std::remove(path.c_str());
    std::string err;
    GmTriangleMesh none;
    EXPECT_FALSE(qgtools::loadObj("/nonexistent/file.obj", none, false, &err));
}

}  // namespace

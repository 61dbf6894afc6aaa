#include <gtest/gtest.h>

#include <quarrygeom/mesh/mesh.h>

#include "mesh_test_util.h"
#include "qgtools/data_dir.h"
#include "qgtools/mesh_io.h"
#include "qgtools/shapes.h"

#if __has_include(<quarrygeom/core/tarnCollision.h>)
#include <quarrygeom/core/tarnCollision.h>
#define QG_TEST_HAVE_SWITCH 1
#endif

namespace {

// Restores the process-wide switch when a test ends.
class MultiThreadingScope {
public:
    explicit MultiThreadingScope(bool on) {
#ifdef QG_TEST_HAVE_SWITCH
        _old = tarnCollision::isMultiThreading();
        tarnCollision::setMultiThreading(on);
#else
        (void)on;
#endif
    }
    ~MultiThreadingScope() {
#ifdef QG_TEST_HAVE_SWITCH
        tarnCollision::setMultiThreading(_old);
#endif
    }

private:
    bool _old = true;
};

GmTriangleMesh build(const qgtools::PolygonSoup& soup, bool parallel) {
    MultiThreadingScope scope(parallel);
    return qgtools::meshFromSoup(soup);
}

void expectSameAdjacency(const GmTriangleMesh& a, const GmTriangleMesh& b) {
    EXPECT_TRUE(a.getEdges() == b.getEdges());
    EXPECT_TRUE(a.getFaces() == b.getFaces());
    EXPECT_TRUE(a.getVertexToFacesLists() == b.getVertexToFacesLists());
    EXPECT_TRUE(a.getVertexToEdgesLists() == b.getVertexToEdgesLists());
    EXPECT_TRUE(a.getVertexToVerticesLists() == b.getVertexToVerticesLists());
    EXPECT_TRUE(a.getFaceToFacesLists() == b.getFaceToFacesLists());
    EXPECT_TRUE(a.getEdgeToFacesLists() == b.getEdgeToFacesLists());
    EXPECT_EQ(a.isClosed(), b.isClosed());
}

TEST(ParallelConstruction, SerialAndParallelListsAreIdentical) {
    qgtools::PolygonSoup bunny;
    ASSERT_TRUE(qgtools::loadObjSoup(qgtools::dataDir() + "/meshes/stanford-bunny.obj", bunny));
    for (const qgtools::PolygonSoup& soup : {qgtools::clothGridSoup(150, 120), qgtools::icosphereSoup(4), bunny}) {
        ASSERT_GT(soup.numVertices(), 1000);
        const GmTriangleMesh serial = build(soup, false);
        const GmTriangleMesh parallel = build(soup, true);
        expectSameAdjacency(serial, parallel);
        const meshtest::RefMesh ref = meshtest::referenceBuild(soup);
        EXPECT_TRUE(parallel.getVertexToVerticesLists() == ref.v2v);
        EXPECT_TRUE(parallel.getFaceToFacesLists() == ref.f2f);
    }
}

TEST(ParallelConstruction, RebuildAfterMoreFacesIsIdenticalToAFreshBuild) {
    qgtools::PolygonSoup soup = qgtools::clothGridSoup(60, 40);
    qgtools::PolygonSoup half = soup;
    half.triangles.resize(soup.triangles.size() / 2);
    MultiThreadingScope scope(true);
    GmTriangleMesh grown = qgtools::meshFromSoup(half);
    for (std::size_t i = half.triangles.size(); i < soup.triangles.size(); ++i)
        grown.addFace(soup.triangles[i][0], soup.triangles[i][1], soup.triangles[i][2]);
    grown.finishConstruction();
    expectSameAdjacency(grown, qgtools::meshFromSoup(soup));
}

TEST(ParallelConstruction, FillCachesSerialAndParallelAgree) {
    GmTriangleMesh a = qgtools::makeIcosphere(4);
    GmTriangleMesh b(a);
    {
        MultiThreadingScope scope(false);
        a.fillCaches();
    }
    {
        MultiThreadingScope scope(true);
        b.fillCaches();
    }
    for (int v = 0; v < a.getNumberVertices(); ++v) ASSERT_EQ(a.getVertexNormal(v), b.getVertexNormal(v));
    for (int f = 0; f < a.getNumberFaces(); ++f) ASSERT_EQ(a.getFaceNormal(f), b.getFaceNormal(f));
    for (int e = 0; e < a.getNumberEdges(); ++e) ASSERT_EQ(a.getUnitEdge(e), b.getUnitEdge(e));
}

}  // namespace

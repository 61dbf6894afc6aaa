// Inside-mesh decisions against the winding number, boundary tests and inside-vertex records.

#include <gtest/gtest.h>

#include "bvh_test_util.h"

using namespace bvhtest;

namespace {

// Compares isInsideMesh with the winding number on random points that are not within
// minDistance of the surface (where both answers are well defined). Returns how many agreed.
int expectAgreesWithWinding(const GmTriangleMesh& mesh, int count, unsigned seed, double minDistance,
                            const std::string& name, int* insideCount = nullptr) {
    GmBoundingVolumeHierarchy h(const_cast<GmTriangleMesh*>(&mesh));
    std::mt19937 rng(seed);
    int checked = 0, inside = 0;
    for (int i = 0; i < count; ++i) {
        const V3 p = randomPointAround(mesh, rng, 0.1);
        if (bruteDistance(mesh, p) < minDistance) continue;
        const double w = windingNumber(mesh, p);
        if (std::fabs(w - std::round(w)) > 0.05) continue;  // only for open meshes
        const bool expected = std::round(w) >= 1.0;
        EXPECT_EQ(h.isInsideMesh(p, true), expected) << name << " at " << p << " winding " << w;
        inside += expected;
        ++checked;
    }
    if (insideCount) *insideCount = inside;
    return checked;
}

TEST(BvhInside, AgreesWithWindingNumberOnClosedMeshes) {
    std::vector<std::pair<std::string, GmTriangleMesh>> m;
    m.emplace_back("icosphere", qgtools::makeIcosphere(3));
    m.emplace_back("torus", qgtools::makeTorus(48, 20));
    m.emplace_back("cube", qgtools::makeCube(V3(-1, 0, 0), V3(1, 0.5, 3)));
    m.emplace_back("tetrahedron", qgtools::makeTetrahedron(1.3));
    m.emplace_back("spot", loadData("spot.obj"));
    for (auto& [name, mesh] : m) {
        ASSERT_TRUE(mesh.isClosed()) << name;
        int inside = 0;
        const int checked = expectAgreesWithWinding(mesh, 600, 31, 1e-6, name, &inside);
        EXPECT_GT(checked, 500) << name;
        EXPECT_GT(inside, 20) << name;
        EXPECT_LT(inside, checked - 20) << name;
    }
}

TEST(BvhInside, BunnyAwayFromItsHoles) {
    // The bunny is open at its base; points whose winding number is clearly 0 or 1 must agree.
    GmTriangleMesh bunny = loadData("stanford-bunny.obj");
    ASSERT_FALSE(bunny.isClosed());
    int inside = 0;
    const int checked = expectAgreesWithWinding(bunny, 80, 7, 1e-6, "bunny", &inside);
    EXPECT_GT(checked, 40);
    EXPECT_GT(inside, 3);
}

TEST(BvhInside, SurfacePointsCountAsInside) {
    GmTriangleMesh mesh = loadData("spot.obj");
    GmBoundingVolumeHierarchy h(&mesh);
    std::mt19937 rng(2);
    for (int i = 0; i < 200; ++i) {
        const int f = static_cast<int>(rng() % static_cast<unsigned>(mesh.getNumberFaces()));
        EXPECT_TRUE(h.isInsideMesh(mesh.getFaceVertex2(f), true)) << "vertex of face " << f;
        // The exact midpoint of an edge need not be representable; the centroid of an
        // axis-aligned face is checked below.
    }
    GmTriangleMesh cube = qgtools::makeCube();
    GmBoundingVolumeHierarchy hc(&cube);
    EXPECT_TRUE(hc.isInsideMesh(V3(0.25, 0.5, 1.0), true));   // top face
    EXPECT_TRUE(hc.isInsideMesh(V3(0.0, 0.5, 0.5), true));    // side face
    EXPECT_TRUE(hc.isInsideMesh(V3(1.0, 1.0, 0.5), true));    // an edge
    EXPECT_TRUE(hc.isInsideMesh(V3(1.0, 1.0, 1.0), true));    // a corner
    EXPECT_TRUE(hc.isInsideMesh(V3(0.5, 0.5, 0.5), true));
    EXPECT_FALSE(hc.isInsideMesh(V3(0.5, 0.5, 1.0 + 1e-6), true));
    EXPECT_FALSE(hc.isInsideMesh(V3(1.0 + 1e-6, 1.0, 1.0), true));
    EXPECT_TRUE(hc.isInsideMesh(V3(0.5, 0.5, 1.0 - 1e-6), true));
    EXPECT_FALSE(hc.isInsideMesh(V3(5, 5, 5), true));  // outside the root box
}

TEST(BvhInside, OpenBoundaryIsNeverInside) {
    // The unit cube without its top (z = 1): an open box.
    qgtools::PolygonSoup soup = qgtools::cubeSoup();
    qgtools::PolygonSoup open;
    open.positions = soup.positions;
    for (const auto& t : soup.triangles) {
        bool top = true;
        for (int k = 0; k < 3; ++k) top = top && soup.positions[static_cast<size_t>(t[k])].z == 1.0;
        if (!top) open.triangles.push_back(t);
    }
    ASSERT_EQ(open.triangles.size(), 10u);
    GmTriangleMesh box = qgtools::meshFromSoup(open);
    GmBoundingVolumeHierarchy h(&box);
    EXPECT_FALSE(h.isMeshClosed(true));
    EXPECT_TRUE(h.isInsideMesh(V3(0.5, 0.5, 0.1), true));    // near the bottom
    EXPECT_TRUE(h.isInsideMesh(V3(0.1, 0.5, 0.5), true));    // near a wall
    EXPECT_FALSE(h.isInsideMesh(V3(0.3, 0.5, 1.0), true));   // nearest to the open rim
    EXPECT_FALSE(h.isInsideMesh(V3(0.5, 0.5, 1.0), true));
    EXPECT_FALSE(h.isInsideMesh(V3(0.0, 0.5, 1.0), true));   // on the rim itself
    EXPECT_TRUE(h.isInsideMesh(V3(0.0, 0.5, 0.5), true));    // on a wall
    int rimEdge = -1;
    for (int e = 0; e < box.getNumberEdges(); ++e)
        if (box.getEdgeVertexFrom(e).z == 1.0 && box.getEdgeVertexTo(e).z == 1.0) rimEdge = e;
    ASSERT_GE(rimEdge, 0);
    EXPECT_TRUE(h.isBoundaryEdge(rimEdge, true));
    EXPECT_TRUE(h.isBoundaryVertex(box.getEdge(rimEdge).from, true));
}

TEST(BvhInside, DisabledFacesOpenTheMesh) {
    GmTriangleMesh mesh = qgtools::makeIcosphere(2);
    GmDisabledData disabled(&mesh);
    GmBoundingVolumeHierarchy h(&mesh, &disabled, nullptr);
    EXPECT_TRUE(h.isMeshClosed(false));  // count zero
    disabled.setFaceDisabled(0);
    EXPECT_FALSE(h.isMeshClosed(false));
    EXPECT_TRUE(h.isMeshClosed(true));
    const int e = mesh.getFace(0).edges[0];
    EXPECT_TRUE(h.isBoundaryEdge(e, false));
    EXPECT_FALSE(h.isBoundaryEdge(e, true));
    EXPECT_TRUE(h.isBoundaryVertex(mesh.getFace(0).vertices[0], false));
    EXPECT_TRUE(h.isBoundaryPoint(0, GmGeometry::INSIDE, false));
    EXPECT_FALSE(h.isBoundaryPoint(0, GmGeometry::INSIDE, true));
    // A far-away face stays interior.
    int far = -1;
    for (int f = 0; f < mesh.getNumberFaces(); ++f)
        if ((mesh.getFaceCenter(f) - mesh.getFaceCenter(0)).length() > 1.5) far = f;
    ASSERT_GE(far, 0);
    EXPECT_FALSE(h.isBoundaryPoint(far, GmGeometry::ON_EDGE_2, false));
}

TEST(BvhInside, ClosestFaceSet) {
    GmTriangleMesh mesh = qgtools::makeClothGrid(3, 3);
    GmBoundingVolumeHierarchy h(&mesh);
    std::vector<int> faces{99};
    EXPECT_EQ(h.getClosestFaceSet(4, GmGeometry::INSIDE, faces), 1);
    EXPECT_EQ(faces, (std::vector<int>{99, 4}));
    faces.clear();
    // Diagonal edge of quad (i, j) = (1, 1) is shared by faces 8 and 9 (edge 3 of face 8: v3-v1).
    EXPECT_EQ(h.getClosestFaceSet(8, GmGeometry::ON_EDGE_3, faces), 2);
    std::sort(faces.begin(), faces.end());
    EXPECT_EQ(faces, (std::vector<int>{8, 9}));
    faces.clear();
    EXPECT_EQ(h.getClosestFaceSet(0, GmGeometry::ON_EDGE_1, faces), 1);  // boundary edge y = 0
    faces = {1, 2, 3};
    const int v = mesh.getFace(8).vertices[0];
    EXPECT_EQ(h.getClosestFaceSet(8, GmGeometry::ON_VERTEX_1, faces), 6);
    EXPECT_EQ(faces, mesh.getNeighborFacesToVertex(v));
    faces.clear();
    EXPECT_EQ(h.getClosestFaceSet(8, GmGeometry::INVALID, faces), 0);
    EXPECT_TRUE(faces.empty());
}

TEST(BvhInside, PointsInsideMeshRecordsEveryInsideVertex) {
    GmTriangleMesh big = qgtools::makeIcosphere(3, 1.0);
    GmTriangleMesh probe = qgtools::makeTorus(16, 8, 0.8, 0.4);  // partly inside the sphere
    GmBoundingTree bigTree(&big), probeTree(&probe);
    std::vector<GmInsideInfo> results(1);
    EXPECT_TRUE(bigTree.pointsInsideMesh(probeTree, results, true, true, 3, 4));
    ASSERT_GT(results.size(), 1u);
    std::vector<int> expected;
    for (int v = 0; v < probe.getNumberVertices(); ++v)
        if (bigTree.isInsideMesh(probe.getVertex(v), true)) expected.push_back(v);
    ASSERT_EQ(results.size(), expected.size() + 1);
    EXPECT_LT(expected.size(), static_cast<size_t>(probe.getNumberVertices()));
    for (size_t k = 0; k < expected.size(); ++k) {
        const GmInsideInfo& r = results[k + 1];
        EXPECT_EQ(r.vertex, expected[k]);
        EXPECT_EQ(r.objectIndex1, 3);
        EXPECT_EQ(r.objectIndex2, 4);
        EXPECT_NEAR(r.distance, bruteDistance(big, probe.getVertex(r.vertex)), 1e-9);
        const V3 q = big.getFaceVertex1(r.closestFace) * r.barycentric.x +
                     big.getFaceVertex2(r.closestFace) * r.barycentric.y +
                     big.getFaceVertex3(r.closestFace) * r.barycentric.z;
        EXPECT_NEAR((q - r.closestPoint).length(), 0.0, 1e-12);
    }

    // The multi-object form: vertices of the probe against the sphere, with metrics.
    std::vector<GmInsideInfo> multi;
    std::vector<int> objects{7};
    GmBVHMetrics metrics;
    EXPECT_TRUE(probeTree.intersect({&bigTree}, {nullptr}, 2, objects, multi, false, true, metrics));
    EXPECT_EQ(multi.size(), expected.size());
    for (const GmInsideInfo& r : multi) {
        EXPECT_EQ(r.objectIndex1, 2);
        EXPECT_EQ(r.objectIndex2, 7);
    }
    // Nothing inside: false, vector cleared.
    GmTriangleMesh farAway = qgtools::makeIcosphere(1, 0.1, V3(10, 0, 0));
    GmBoundingTree farTree(&farAway);
    EXPECT_FALSE(bigTree.pointsInsideMesh(farTree, results, false, true));
    EXPECT_TRUE(results.empty());
}

}  // namespace

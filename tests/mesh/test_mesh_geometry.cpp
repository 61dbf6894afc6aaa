#include <gtest/gtest.h>

#include <cmath>
#include <vector>

#include <quarrygeom/mesh/mesh.h>

#include "qgtools/data_dir.h"
#include "qgtools/mesh_io.h"
#include "qgtools/shapes.h"

#include <quarrygeom/core/GmMatrix.h>

namespace {

using V = GmTVector<double>;

bool finite(const V& v) { return std::isfinite(v.x) && std::isfinite(v.y) && std::isfinite(v.z); }

void expectNear(const V& a, const V& b, double tol) {
    EXPECT_NEAR(a.x, b.x, tol);
    EXPECT_NEAR(a.y, b.y, tol);
    EXPECT_NEAR(a.z, b.z, tol);
}

// Corner-angle weighted vertex normal from positions alone.
V referenceAngleWeightedNormal(const GmTriangleMesh& m, int v) {
    V s;
    for (int f = 0; f < m.getNumberFaces(); ++f) {
        const GmTriangleFace& fc = m.getFace(f);
        const int k = fc.vertexSlot(v);
        if (k < 0) continue;
        const V p = m.getVertex(v);
        const V a = m.getVertex(fc.vertices[(k + 1) % 3]) - p;
        const V b = m.getVertex(fc.vertices[(k + 2) % 3]) - p;
        const V n = (m.getFaceVertex2(f) - m.getFaceVertex1(f)).cross(m.getFaceVertex3(f) - m.getFaceVertex2(f));
        if (n.length() == 0.0) continue;
        const double angle = std::atan2(a.cross(b).length(), a.dot(b));
        s += n / n.length() * angle;
    }
    return s / s.length();
}

TEST(MeshGeometry, FaceDataOfARightTriangle) {
    GmTriangleMesh m;
    m.addVertex(V(0, 0, 0));
    m.addVertex(V(2, 0, 0));
    m.addVertex(V(0, 3, 0));
    m.addFace(0, 1, 2);
    m.finishConstruction();
    EXPECT_DOUBLE_EQ(m.getFaceArea(0), 3.0);
    EXPECT_EQ(m.getFaceNormal(0), V(0, 0, 1));
    EXPECT_EQ(m.getFaceCenter(0), V(2.0 / 3.0, 1.0, 0));
    EXPECT_EQ(m.getUnitEdge(0), V(1, 0, 0));
    expectNear(m.getUnitEdge(1), V(-2, 3, 0) / std::sqrt(13.0), 1e-16);
    EXPECT_EQ(m.getVertexNormal(0), V(0, 0, 1));
    EXPECT_EQ(m.getVertexAreaWeightedNormal(2), V(0, 0, 1));
}

TEST(MeshGeometry, DegenerateFacesGiveZeroNormalsAndNoNaN) {
    GmTriangleMesh m;
    m.addVertex(V(0, 0, 0));    // 0
    m.addVertex(V(1, 0, 0));    // 1
    m.addVertex(V(2, 0, 0));    // 2 collinear with 0, 1
    m.addVertex(V(1, 1, 0));    // 3
    m.addVertex(V(1, 1, 0));    // 4 repeated position of 3
    m.addFace(0, 1, 2);         // zero area (collinear corners)
    m.addFace(0, 3, 4);         // zero area (two equal positions)
    m.addFace(1, 1, 3);         // repeated vertex index
    m.addFace(0, 1, 3);         // one good face
    m.finishConstruction();
    for (int f = 0; f < 3; ++f) {
        EXPECT_EQ(m.getFaceArea(f), 0.0);
        EXPECT_EQ(m.getFaceNormal(f), V(0, 0, 0));
        EXPECT_TRUE(finite(m.getFaceCenter(f)));
    }
    EXPECT_EQ(m.getFaceNormal(3), V(0, 0, 1));
    for (int e = 0; e < m.getNumberEdges(); ++e) EXPECT_TRUE(finite(m.getUnitEdge(e)));
    // Zero-length edges (1,1) and (3,4) give zero unit edges.
    const int e11 = m.getFace(2).edges[0];
    EXPECT_EQ(m.getUnitEdge(e11), V(0, 0, 0));
    for (int v = 0; v < m.getNumberVertices(); ++v) {
        const V n = m.getVertexNormal(v);
        EXPECT_TRUE(finite(n));
        EXPECT_TRUE(finite(m.getVertexAreaWeightedNormal(v)));
        // Only the good face has a normal to contribute; everything else is zero or +z.
        EXPECT_TRUE(n == V(0, 0, 0) || std::fabs(n.z - 1.0) < 1e-15) << v;
    }
    EXPECT_EQ(m.getVertexNormal(2), V(0, 0, 0));  // only on the collinear face
    EXPECT_EQ(m.getVertexNormal(4), V(0, 0, 0));
    EXPECT_EQ(m.getVertexNormal(0), V(0, 0, 1));
    // Face-local coordinates on a degenerate face: zero weights, never NaN.
    const V q = m.WorldToFace(0, V(100, -50, 7));
    EXPECT_EQ(q.y, 0.0);
    EXPECT_EQ(q.z, 0.0);
    EXPECT_TRUE(finite(q));
    EXPECT_EQ(m.getEdgeNormal(e11), V(0, 0, 0));
}

TEST(MeshGeometry, NonManifoldEdgeGivesFiniteResults) {
    // Three faces on edge (0, 1): the edge records the first and the last one.
    GmTriangleMesh m;
    m.addVertex(V(0, 0, 0));
    m.addVertex(V(1, 0, 0));
    m.addVertex(V(0.5, 1, 0));
    m.addVertex(V(0.5, -1, 0));
    m.addVertex(V(0.5, 0, 1));
    m.addFace(0, 1, 2);
    m.addFace(1, 0, 3);
    m.addFace(0, 1, 4);
    m.finishConstruction();
    EXPECT_FALSE(m.isClosed());
    for (int v = 0; v < m.getNumberVertices(); ++v) {
        EXPECT_TRUE(finite(m.getVertexNormal(v)));
        EXPECT_TRUE(finite(m.getVertexAreaWeightedNormal(v)));
    }
    for (int e = 0; e < m.getNumberEdges(); ++e) EXPECT_TRUE(finite(m.getEdgeNormal(e)));
    // Faces 0 and 2 (normals +z and -y) are recorded on the edge; face 1 is not.
    expectNear(m.getEdgeNormal(0), V(0, -1, 1), 1e-15);
    EXPECT_TRUE(m.shareFace(1, GmGeometry::ON_EDGE_1, 1, GmGeometry::INSIDE));
    EXPECT_TRUE(m.shareFace(1, GmGeometry::ON_EDGE_1, 2, GmGeometry::INSIDE));
    int v = -1;
    EXPECT_TRUE(m.isRightSideOut(&v));
    EXPECT_EQ(v, 0);
}

TEST(MeshGeometry, CollinearCornerContributesNothing) {
    // A sliver whose area is tiny but above the floor gets a unit normal (+z); its
    // corners are straight to double precision, so it adds nothing to the vertex
    // normals. Vertex 1 then takes the normal of the good face alone.
    GmTriangleMesh m;
    m.addVertex(V(0, 0, 0));
    m.addVertex(V(1, 0, 0));
    m.addVertex(V(2, 1e-9, 0));
    m.addVertex(V(1, 0, 1));
    m.addFace(0, 1, 2);  // sliver
    m.addFace(1, 0, 3);  // in the xz plane
    m.finishConstruction();
    EXPECT_NEAR(m.getFaceNormal(0).length(), 1.0, 1e-12);
    EXPECT_EQ(m.getFaceNormal(1), V(0, 1, 0));
    EXPECT_EQ(m.getVertexNormal(1), V(0, 1, 0));
    EXPECT_EQ(m.getVertexNormal(0), V(0, 1, 0));
    EXPECT_EQ(m.getVertexNormal(2), V(0, 0, 0));
    // The area-weighted normal has no such rule: the sliver's weight is ~1e-9.
    EXPECT_GT(m.getVertexAreaWeightedNormal(1).z, 0.0);
}

TEST(MeshGeometry, AngleWeightedNormalsMatchReference) {
    for (const GmTriangleMesh& m :
         {qgtools::makeIcosphere(2), qgtools::makeTorus(10, 7), qgtools::makeFoldedGrid(12, 3)}) {
        for (int v = 0; v < m.getNumberVertices(); ++v) {
            expectNear(m.getVertexNormal(v), referenceAngleWeightedNormal(m, v), 1e-12);
            EXPECT_EQ(m.getVertexAngleWeightedNormal(v), m.getVertexNormal(v));
        }
    }
}

TEST(MeshGeometry, AreaWeightedNormalMatchesReference) {
    GmTriangleMesh m = qgtools::makeFoldedGrid(9, 2);
    for (int v = 0; v < m.getNumberVertices(); ++v) {
        V s;
        for (int f : m.getNeighborFacesToVertex(v)) {
            const V c = (m.getFaceVertex2(f) - m.getFaceVertex1(f)).cross(m.getFaceVertex3(f) - m.getFaceVertex2(f));
            s += c * 0.5;  // area * unit normal
        }
        expectNear(m.getVertexAreaWeightedNormal(v), s / s.length(), 1e-12);
    }
}

TEST(MeshGeometry, SphereNormalsPointOutwards) {
    const V centre(0.5, -1.0, 2.0);
    GmTriangleMesh m = qgtools::makeIcosphere(3, 2.0, centre);
    for (int v = 0; v < m.getNumberVertices(); ++v) {
        const V radial = (m.getVertex(v) - centre) / 2.0;
        EXPECT_GT(m.getVertexNormal(v).dot(radial), 0.999);
        EXPECT_NEAR(m.getVertexNormal(v).length(), 1.0, 1e-14);
    }
    for (int f = 0; f < m.getNumberFaces(); ++f) EXPECT_GT(m.getFaceNormal(f).dot(m.getFaceCenter(f) - centre), 0.0);
    int leftmost = -2;
    EXPECT_TRUE(m.isRightSideOut(&leftmost));
    for (int v = 0; v < m.getNumberVertices(); ++v) EXPECT_GE(m.getVertex(v).x, m.getVertex(leftmost).x);
}

GmTriangleMesh reversed(const GmTriangleMesh& m) {
    qgtools::PolygonSoup soup;
    soup.positions = m.getVertices();
    for (const GmTriangleFace& f : m.getFaces()) soup.triangles.push_back({f.vertices[0], f.vertices[1], f.vertices[2]});
    soup.flip();
    return qgtools::meshFromSoup(soup);
}

TEST(MeshGeometry, RightSideOut) {
    int vertex = -5;
    GmTriangleMesh cube = qgtools::makeCube();
    EXPECT_TRUE(cube.isRightSideOut(&vertex));
    EXPECT_EQ(vertex, 0);  // ties at x = 0: the lowest index wins
    EXPECT_FALSE(reversed(cube).isRightSideOut(&vertex));
    EXPECT_EQ(vertex, 0);
    GmTriangleMesh sphere = qgtools::makeIcosphere(2);
    EXPECT_TRUE(sphere.isRightSideOut());
    EXPECT_FALSE(reversed(sphere).isRightSideOut());
    GmTriangleMesh torus = qgtools::makeTorus(16, 8);
    EXPECT_TRUE(torus.isRightSideOut());
    EXPECT_FALSE(reversed(torus).isRightSideOut());
    // Open meshes count as right side out with vertex 0, whatever their orientation.
    GmTriangleMesh grid = qgtools::makeClothGrid(4, 4, 1, 1, V(5, 5, 5));
    vertex = -5;
    EXPECT_TRUE(grid.isRightSideOut(&vertex));
    EXPECT_EQ(vertex, 0);
    EXPECT_TRUE(reversed(grid).isRightSideOut(nullptr));
    GmTriangleMesh empty;
    empty.finishConstruction();
    EXPECT_TRUE(empty.isRightSideOut(&vertex));
    EXPECT_EQ(vertex, -1);
}

TEST(MeshGeometry, RealClosedMeshOrientation) {
    GmTriangleMesh spot = qgtools::loadObjMesh(qgtools::dataDir() + "/meshes/spot.obj");
    ASSERT_TRUE(spot.isClosed());
    EXPECT_NE(spot.isRightSideOut(), reversed(spot).isRightSideOut());
}

TEST(MeshGeometry, FaceLocalCoordinatesRoundTrip) {
    GmTriangleMesh m;
    m.addVertex(V(0.3, -1.0, 2.0));
    m.addVertex(V(2.0, 0.5, 1.0));
    m.addVertex(V(-0.5, 1.5, 0.0));
    m.addFace(0, 1, 2);
    m.finishConstruction();
    const V p1 = m.getVertex(0), p2 = m.getVertex(1), p3 = m.getVertex(2);
    // Vertices map to unit weights.
    expectNear(m.WorldToFace(0, p1), V(0, 1, 0), 1e-14);
    expectNear(m.WorldToFace(0, p2), V(0, 0, 1), 1e-14);
    expectNear(m.WorldToFace(0, p3), V(0, 0, 0), 1e-14);
    const V n = m.getFaceNormal(0);
    for (double h : {-2.0, 0.0, 0.75})
        for (double w1 : {-0.5, 0.2, 1.3})
            for (double w2 : {0.1, 0.6}) {
                const V world = p1 * w1 + p2 * w2 + p3 * (1 - w1 - w2) + n * h;
                expectNear(m.WorldToFace(0, world), V(h, w1, w2), 1e-12);
                expectNear(m.FaceToWorld(0, V(h, w1, w2)), world, 1e-12);
                EXPECT_NEAR(m.GetDistanceToPlaneOfFace(0, world), h, 1e-12);
                expectNear(m.ProjectOnPlaneOfFace(0, world), world - n * h, 1e-12);
            }
    // getFacePoint uses the weights as given.
    expectNear(m.getFacePoint(0, V(1, 1, 1)), p1 + p2 + p3, 1e-15);
}

TEST(MeshGeometry, InterpolatedAndEdgeNormalsAreNotNormalised) {
    GmTriangleMesh grid = qgtools::makeClothGrid(3, 3);
    for (int v = 0; v < grid.getNumberVertices(); ++v) EXPECT_EQ(grid.getVertexNormal(v), V(0, 0, 1));
    EXPECT_EQ(grid.getBarycentricFaceNormal(4, V(0.2, 0.3, 0.5)), V(0, 0, 1));
    EXPECT_EQ(grid.getBarycentricFaceNormal(4, V(1, 1, 0)), V(0, 0, 2));
    EXPECT_EQ(grid.getBarycentricEdgeNormal(0, V(0.5, 0.5, 99)), V(0, 0, 1));
    EXPECT_EQ(grid.getBarycentricEdgeNormal(0, V(2, 1, 0)), V(0, 0, 3));
    int interior = 0, boundary = 0;
    for (int e = 0; e < grid.getNumberEdges(); ++e) {
        if (grid.getNeighborFacesToEdge(e).size() == 2) {
            EXPECT_EQ(grid.getEdgeNormal(e), V(0, 0, 2));
            ++interior;
        } else {
            EXPECT_EQ(grid.getEdgeNormal(e), V(0, 0, 1));
            ++boundary;
        }
    }
    EXPECT_EQ(boundary, 12);
    EXPECT_EQ(interior, grid.getNumberEdges() - 12);
}

TEST(MeshGeometry, CachesFollowPositionChanges) {
    GmTriangleMesh m = qgtools::makeClothGrid(2, 2);
    EXPECT_TRUE(m.isFaceDataReset());
    EXPECT_TRUE(m.isVertexNormalsReset());
    EXPECT_TRUE(m.isUnitEdgesReset());
    EXPECT_FALSE(m.isFaceDataCached(0));
    EXPECT_EQ(m.getFaceNormal(0), V(0, 0, 1));
    EXPECT_TRUE(m.isFaceDataCached(0));
    EXPECT_FALSE(m.isFaceDataCached(1));
    EXPECT_FALSE(m.isFaceDataReset());
    EXPECT_TRUE(m.isUnitEdgesReset());
    (void)m.getUnitEdge(0);
    EXPECT_FALSE(m.isUnitEdgesReset());
    // Rotate the grid into the xz plane: every cached value must follow.
    std::vector<V> pos = m.getVertices();
    for (V& p : pos) p = V(p.x, 0.0, p.y);
    m.setVertices(pos);
    EXPECT_TRUE(m.isFaceDataReset());
    EXPECT_FALSE(m.isFaceDataCached(0));
    EXPECT_FALSE(m.isUnitEdgeCached(0));
    for (int f = 0; f < m.getNumberFaces(); ++f) EXPECT_EQ(m.getFaceNormal(f), V(0, -1, 0));
    for (int v = 0; v < m.getNumberVertices(); ++v) EXPECT_EQ(m.getVertexNormal(v), V(0, -1, 0));
    // Writing through the mutable reference needs an explicit setDirty.
    m.getWritableVertices()[0] = V(0, 0.5, 0);
    EXPECT_EQ(m.getFaceNormal(0), V(0, -1, 0));
    m.setDirty();
    EXPECT_NE(m.getFaceNormal(0), V(0, -1, 0));
    m.setVertex(0, V(0, 0, 0));
    EXPECT_EQ(m.getFaceNormal(0), V(0, -1, 0));
    // Repeated setDirty without reads keeps every slot missing.
    m.setDirty();
    m.setDirty();
    EXPECT_FALSE(m.isVertexNormalCached(0));
}

TEST(MeshGeometry, FillCachesComputesEverySlot) {
    GmTriangleMesh m = qgtools::makeIcosphere(3);
    GmTriangleMesh lazy(m);
    m.fillCaches();
    for (int f = 0; f < m.getNumberFaces(); ++f) {
        ASSERT_TRUE(m.isFaceDataCached(f));
        EXPECT_EQ(m.getFaceNormal(f), lazy.getFaceNormal(f));
        EXPECT_EQ(m.getFaceArea(f), lazy.getFaceArea(f));
    }
    for (int e = 0; e < m.getNumberEdges(); ++e) ASSERT_TRUE(m.isUnitEdgeCached(e));
    for (int v = 0; v < m.getNumberVertices(); ++v) {
        ASSERT_TRUE(m.isVertexNormalCached(v));
        EXPECT_EQ(m.getVertexNormal(v), lazy.getVertexNormal(v));
    }
    EXPECT_FALSE(m.isFaceDataReset());
}

TEST(MeshGeometry, NormalOffsetMovesAlongStartNormals) {
    GmTriangleMesh sphere = qgtools::makeIcosphere(3, 1.0);
    const std::vector<V> before = sphere.getVertices();
    std::vector<V> normals;
    for (int v = 0; v < sphere.getNumberVertices(); ++v) normals.push_back(sphere.getVertexNormal(v));
    sphere.addNormalOffset(0.25);
    for (int v = 0; v < sphere.getNumberVertices(); ++v) {
        expectNear(sphere.getVertex(v), before[static_cast<std::size_t>(v)] + normals[static_cast<std::size_t>(v)] * 0.25,
                   1e-15);
        EXPECT_NEAR(sphere.getVertex(v).length(), 1.25, 1e-3);
    }
    EXPECT_TRUE(sphere.isVertexNormalsReset());
    // Per-vertex offsets: every vertex uses the normal from before any vertex moved.
    GmTriangleMesh grid = qgtools::makeFoldedGrid(8, 2);
    std::vector<V> n0;
    for (int v = 0; v < grid.getNumberVertices(); ++v) n0.push_back(grid.getVertexNormal(v));
    const std::vector<V> p0 = grid.getVertices();
    std::vector<double> d(static_cast<std::size_t>(grid.getNumberVertices()), 0.0);
    d[0] = 0.5;
    d[1] = -0.3;
    d[2] = 0.1;
    grid.addNormalOffset(d);
    for (int v = 0; v < grid.getNumberVertices(); ++v)
        EXPECT_EQ(grid.getVertex(v), p0[static_cast<std::size_t>(v)] + n0[static_cast<std::size_t>(v)] * d[static_cast<std::size_t>(v)]);
}

TEST(MeshGeometry, ZeroNormalOffsetKeepsTheCaches) {
    GmTriangleMesh m = qgtools::makeIcosphere(1);
    m.fillCaches();
    const std::vector<V> before = m.getVertices();
    m.addNormalOffset(std::vector<double>(static_cast<std::size_t>(m.getNumberVertices()), 0.0));
    m.addNormalOffset(0.0);
    EXPECT_EQ(m.getVertices(), before);
    EXPECT_FALSE(m.isFaceDataReset());
    EXPECT_FALSE(m.isVertexNormalsReset());
    for (int v = 0; v < m.getNumberVertices(); ++v) EXPECT_TRUE(m.isVertexNormalCached(v));
}

// Half the exact second moment of the triangle about ref, by the edge-midpoint rule
// (exact for quadratics): the covariance of a face of non-trivial area.
TEST(MeshGeometry, CovarianceMatrix) {
    GmTriangleMesh m;
    m.addVertex(V(0.3, -1.0, 2.0));
    m.addVertex(V(2.0, 0.5, 1.0));
    m.addVertex(V(-0.5, 1.5, 0.0));
    m.addVertex(V(1, 1, 1));
    m.addVertex(V(2, 2, 2));
    m.addVertex(V(3, 3, 3.5));
    m.addFace(0, 1, 2);
    m.addFace(3, 4, 5);  // area ~0.35
    m.addVertex(V(0, 0, 0));
    m.addVertex(V(1e-5, 0, 0));
    m.addVertex(V(0, 1e-4, 0));
    m.addFace(6, 7, 8);  // area 5e-10: below the 1e-8 threshold
    m.finishConstruction();
    const V ref(0.1, 0.2, -0.3);
    // Positions other than the mesh's own: the area still comes from the mesh.
    std::vector<V> pos = m.getVertices();
    for (V& p : pos) p = p * 2.0;
    for (int f = 0; f < 2; ++f) {
        const GmTriangleFace& fc = m.getFace(f);
        const double area = m.getFaceArea(f);
        const V d[3] = {pos[static_cast<std::size_t>(fc.vertices[0])] - ref,
                        pos[static_cast<std::size_t>(fc.vertices[1])] - ref,
                        pos[static_cast<std::size_t>(fc.vertices[2])] - ref};
        const V mids[3] = {(d[0] + d[1]) * 0.5, (d[1] + d[2]) * 0.5, (d[2] + d[0]) * 0.5};
        const GmMatrix c = m.getCovarianceMatrix(f, pos, ref);
        for (int r = 0; r < 3; ++r)
            for (int s = 0; s < 3; ++s) {
                double expected = 0.0;
                for (const V& q : mids) expected += 0.5 * area / 3.0 * q[r] * q[s];
                EXPECT_NEAR(c(r, s), expected, 1e-12 * (1.0 + std::fabs(expected)));
                EXPECT_EQ(c(r, s), c(s, r));
            }
    }
    // Tiny face: the vertex average of d d^T, whatever the area.
    const GmMatrix small = m.getCovarianceMatrix(2, m.getVertices(), V(1, 1, 1));
    const V d[3] = {V(-1, -1, -1), V(1e-5 - 1, -1, -1), V(-1, 1e-4 - 1, -1)};
    for (int r = 0; r < 3; ++r)
        for (int s = 0; s < 3; ++s)
            EXPECT_NEAR(small(r, s), (d[0][r] * d[0][s] + d[1][r] * d[1][s] + d[2][r] * d[2][s]) / 3.0, 1e-15);
}

}  // namespace

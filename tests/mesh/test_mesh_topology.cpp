#include <gtest/gtest.h>

#include <vector>

#include <quarrygeom/mesh/mesh.h>

#include "qgtools/shapes.h"

namespace {

using V = GmTVector<double>;
using GmGeometry::PointOnTriType;

const PointOnTriType kAllTypes[] = {GmGeometry::INSIDE,    GmGeometry::ON_VERTEX_1, GmGeometry::ON_VERTEX_2,
                                    GmGeometry::ON_VERTEX_3, GmGeometry::ON_EDGE_1,   GmGeometry::ON_EDGE_2,
                                    GmGeometry::ON_EDGE_3,   GmGeometry::INVALID};

// Faces (0,1,2) (2,1,3) (3,4,2) and a separate face (5,6,7).
GmTriangleMesh strip() {
    GmTriangleMesh m;
    for (int i = 0; i < 8; ++i) m.addVertex(V(i, (i * 7) % 3, (i * 5) % 4));
    m.addFace(0, 1, 2);
    m.addFace(2, 1, 3);
    m.addFace(3, 4, 2);
    m.addFace(5, 6, 7);
    m.finishConstruction();
    return m;
}

TEST(MeshTopology, OtherElements) {
    GmTriangleMesh m = strip();
    const int shared = m.getSharedEdge(0, 1);  // edge (1,2)
    EXPECT_EQ(m.getOtherFace(0, shared), 1);
    EXPECT_EQ(m.getOtherFace(1, shared), 0);
    // Not on the edge: the edge's first face.
    EXPECT_EQ(m.getOtherFace(3, shared), 0);
    const int boundary = m.getFaceEdgeIndex1(0);  // (0,1), one face
    EXPECT_EQ(m.getOtherFace(0, boundary), -1);
    EXPECT_EQ(m.getOtherVertex(0, shared), 0);
    EXPECT_EQ(m.getOtherVertex(1, shared), 3);
    // An edge that is not on the face: vertex 1 of the face.
    EXPECT_EQ(m.getOtherVertex(3, shared), 5);
    EXPECT_EQ(m.getOtherVertex(2, m.getFaceEdgeIndex1(3)), 3);
    EXPECT_EQ(m.getOtherEdge(0, 0), m.getFaceEdgeIndex2(0));
    EXPECT_EQ(m.getOtherEdge(0, 1), m.getFaceEdgeIndex3(0));
    EXPECT_EQ(m.getOtherEdge(0, 7), m.getFaceEdgeIndex1(0));
    // Degenerate face: every edge touches vertex 0.
    GmTriangleMesh d;
    d.addVertex(V(0, 0, 0));
    d.addVertex(V(1, 0, 0));
    d.addFace(0, 0, 1);
    d.finishConstruction();
    EXPECT_EQ(d.getOtherEdge(0, 0), -1);
    EXPECT_EQ(d.getOtherVertex(0, d.getFaceEdgeIndex2(0)), -1);
}

TEST(MeshTopology, SharedElements) {
    GmTriangleMesh m = strip();
    EXPECT_EQ(m.getSharedEdge(0, 0), m.getFaceEdgeIndex1(0));
    EXPECT_EQ(m.getSharedEdge(0, 2), -1);
    EXPECT_EQ(m.getSharedEdge(0, 3), -1);
    EXPECT_EQ(m.getSharedVertex(0, 1), 1);
    EXPECT_EQ(m.getSharedVertex(1, 0), 2);
    EXPECT_EQ(m.getSharedVertex(0, 2), 2);
    EXPECT_EQ(m.getSharedVertex(0, 3), -1);
    EXPECT_TRUE(m.shareEdge(0, 1));
    EXPECT_TRUE(m.shareEdge(2, 2));
    EXPECT_FALSE(m.shareEdge(0, 2));
    EXPECT_TRUE(m.shareVertex(0, 2));
    EXPECT_FALSE(m.shareVertex(0, 3));
    EXPECT_TRUE(m.incidentEdges(m.getFaceEdgeIndex1(0), m.getFaceEdgeIndex1(0)));
    EXPECT_TRUE(m.incidentEdges(m.getFaceEdgeIndex1(0), m.getFaceEdgeIndex2(0)));
    EXPECT_FALSE(m.incidentEdges(m.getFaceEdgeIndex1(0), m.getFaceEdgeIndex1(3)));
    // (0,1) and (3,4) have no endpoint in common.
    EXPECT_FALSE(m.incidentEdges(m.getFaceEdgeIndex1(0), m.getFaceEdgeIndex1(2)));
}

TEST(MeshTopology, ComponentIndexAndOnFace) {
    GmTriangleMesh m = strip();
    const GmTriangleFace& f = m.getFace(1);
    EXPECT_EQ(m.triComponentIndex(1, GmGeometry::INSIDE), 1);
    EXPECT_EQ(m.triComponentIndex(1, GmGeometry::ON_VERTEX_1), f.vertices[0]);
    EXPECT_EQ(m.triComponentIndex(1, GmGeometry::ON_VERTEX_3), f.vertices[2]);
    EXPECT_EQ(m.triComponentIndex(1, GmGeometry::ON_EDGE_2), f.edges[1]);
    EXPECT_EQ(m.triComponentIndex(1, GmGeometry::INVALID), -1);
    EXPECT_EQ(m.triComponentIndex(1, static_cast<PointOnTriType>(-3)), -1);
    EXPECT_TRUE(m.isOnFace(1, GmGeometry::INSIDE, 1));
    EXPECT_FALSE(m.isOnFace(1, GmGeometry::INSIDE, 0));
    // Vertex 1 of face 1 is vertex 2, which face 2 has.
    EXPECT_TRUE(m.isOnFace(1, GmGeometry::ON_VERTEX_1, 2));
    EXPECT_TRUE(m.isOnFace(1, GmGeometry::ON_VERTEX_2, 0));
    EXPECT_FALSE(m.isOnFace(1, GmGeometry::ON_VERTEX_3, 0));
    // Edge 1 of face 1 is (2,1), shared with face 0; edge 3 is (3,2), shared with face 2.
    EXPECT_TRUE(m.isOnFace(1, GmGeometry::ON_EDGE_1, 0));
    EXPECT_FALSE(m.isOnFace(1, GmGeometry::ON_EDGE_1, 2));
    EXPECT_TRUE(m.isOnFace(1, GmGeometry::ON_EDGE_3, 2));
    EXPECT_FALSE(m.isOnFace(1, GmGeometry::INVALID, 1));
    // Brute-force agreement with triComponentIndex for every face pair and type.
    for (int a = 0; a < m.getNumberFaces(); ++a)
        for (int b = 0; b < m.getNumberFaces(); ++b)
            for (PointOnTriType t : kAllTypes) {
                const int c = m.triComponentIndex(a, t);
                bool expected = false;
                if (t == GmGeometry::INSIDE) expected = a == b;
                else if (t >= GmGeometry::ON_VERTEX_1 && t <= GmGeometry::ON_VERTEX_3) expected = m.getFace(b).hasVertex(c);
                else if (t >= GmGeometry::ON_EDGE_1 && t <= GmGeometry::ON_EDGE_3) expected = m.getFace(b).hasEdge(c);
                EXPECT_EQ(m.isOnFace(a, t, b), expected);
            }
}

TEST(MeshTopology, ShareFace) {
    GmTriangleMesh m = strip();
    using namespace GmGeometry;
    EXPECT_TRUE(m.shareFace(0, INSIDE, 0, INSIDE));
    EXPECT_FALSE(m.shareFace(0, INSIDE, 1, INSIDE));
    // Shared edge of faces 0 and 1 against the inside of face 1.
    EXPECT_TRUE(m.shareFace(0, ON_EDGE_2, 1, INSIDE));
    EXPECT_TRUE(m.shareFace(1, INSIDE, 0, ON_EDGE_2));
    EXPECT_FALSE(m.shareFace(0, ON_EDGE_1, 1, INSIDE));
    // Vertex 2 (face 0 vertex 3) is on faces 0, 1, 2.
    EXPECT_TRUE(m.shareFace(0, ON_VERTEX_3, 2, INSIDE));
    EXPECT_TRUE(m.shareFace(0, ON_VERTEX_3, 2, ON_VERTEX_2));  // vertex 4 of face 2
    EXPECT_FALSE(m.shareFace(0, ON_VERTEX_1, 2, ON_VERTEX_2));
    EXPECT_FALSE(m.shareFace(0, ON_VERTEX_3, 3, INSIDE));
    EXPECT_FALSE(m.shareFace(0, INVALID, 0, INSIDE));
    EXPECT_FALSE(m.shareFace(0, INSIDE, 0, INVALID));
    // A mask removes the common face.
    GmDisabledData mask(&m);
    mask.setFaceDisabled(1);
    EXPECT_FALSE(m.shareFace(0, ON_EDGE_2, 1, INSIDE, &mask));
    EXPECT_TRUE(m.shareFace(0, ON_EDGE_2, 0, INSIDE, &mask));
    // Vertex 2 is still on face 2.
    EXPECT_TRUE(m.shareFace(0, ON_VERTEX_3, 1, ON_VERTEX_1, &mask));
    mask.setDisabledCount(0);  // count zero: the mask is ignored
    EXPECT_TRUE(m.shareFace(0, ON_EDGE_2, 1, INSIDE, &mask));
}

TEST(MeshTopology, ShareFaceMatchesBruteForce) {
    GmTriangleMesh m = qgtools::makeIcosphere(1);
    GmDisabledData mask(&m);
    for (int f = 0; f < m.getNumberFaces(); f += 3) mask.setFaceDisabled(f);
    // The faces of a classified point: its own face and every face holding the element.
    auto facesOf = [&m](int f, PointOnTriType t) {
        std::vector<int> out;
        const int c = m.triComponentIndex(f, t);
        if (c < 0) return out;
        for (int g = 0; g < m.getNumberFaces(); ++g) {
            const bool on = t == GmGeometry::INSIDE ? g == f : m.isOnFace(f, t, g);
            if (on) out.push_back(g);
        }
        return out;
    };
    for (const GmDisabledData* mk : {static_cast<const GmDisabledData*>(nullptr), static_cast<const GmDisabledData*>(&mask)})
        for (int f1 = 0; f1 < m.getNumberFaces(); f1 += 2)
            for (int f2 = 0; f2 < m.getNumberFaces(); ++f2)
                for (PointOnTriType t1 : kAllTypes)
                    for (PointOnTriType t2 : kAllTypes) {
                        bool expected = false;
                        for (int a : facesOf(f1, t1))
                            for (int b : facesOf(f2, t2))
                                if (a == b && !GmDisabledData::isDisabled(mk, a)) expected = true;
                        ASSERT_EQ(m.shareFace(f1, t1, f2, t2, mk), expected) << f1 << ' ' << t1 << ' ' << f2 << ' ' << t2;
                    }
}

TEST(MeshTopology, BoundaryTestsOnAnOpenMesh) {
    GmTriangleMesh m = qgtools::makeClothGrid(2, 2);
    // Vertex 4 is the centre of the 3x3 vertex grid.
    EXPECT_FALSE(m.isBoundaryVertex(4));
    EXPECT_TRUE(m.isBoundaryVertex(0));
    int interior = 0;
    for (int e = 0; e < m.getNumberEdges(); ++e) {
        const bool b = m.getEdge(e).secondFace < 0;
        EXPECT_EQ(m.isBoundaryEdge(e), b);
        EXPECT_EQ(m.isBoundaryEdge(m.getEdge(e)), b);
        EXPECT_EQ(m.isBoundaryEdge(&m.getEdge(e)), b);
        interior += b ? 0 : 1;
    }
    EXPECT_EQ(interior, 8);
    EXPECT_FALSE(m.isClosed());
    EXPECT_TRUE(m.hasBoundaryEdges());
    // Points on faces.
    for (int f = 0; f < m.getNumberFaces(); ++f) {
        EXPECT_FALSE(m.isBoundaryPoint(f, GmGeometry::INSIDE));
        EXPECT_FALSE(m.isBoundaryPoint(f, GmGeometry::INVALID));
        for (int k = 0; k < 3; ++k) {
            EXPECT_EQ(m.isBoundaryPoint(f, static_cast<PointOnTriType>(GmGeometry::ON_VERTEX_1 + k)),
                      m.isBoundaryVertex(m.getFace(f).vertices[k]));
            EXPECT_EQ(m.isBoundaryPoint(f, static_cast<PointOnTriType>(GmGeometry::ON_EDGE_1 + k)),
                      m.isBoundaryEdge(m.getFace(f).edges[k]));
        }
    }
    // Isolated vertex: no edges, not a boundary vertex.
    GmTriangleMesh iso = qgtools::makeClothGrid(1, 1);
    iso.addVertex(V(9, 9, 9));
    iso.finishConstruction();
    EXPECT_FALSE(iso.isBoundaryVertex(4));
}

TEST(MeshTopology, BoundaryTestsOnAClosedMeshWithMasks) {
    GmTriangleMesh m = qgtools::makeIcosphere(1);
    ASSERT_TRUE(m.isClosed());
    GmDisabledData mask(&m);
    for (const GmDisabledData* mk : {static_cast<const GmDisabledData*>(nullptr), static_cast<const GmDisabledData*>(&mask)}) {
        EXPECT_TRUE(m.isClosed(mk));
        EXPECT_FALSE(m.hasBoundaryEdges(mk));
        for (int e = 0; e < m.getNumberEdges(); ++e) EXPECT_FALSE(m.isBoundaryEdge(e, mk));
        for (int v = 0; v < m.getNumberVertices(); ++v) EXPECT_FALSE(m.isBoundaryVertex(v, mk));
        for (PointOnTriType t : kAllTypes) EXPECT_FALSE(m.isBoundaryPoint(0, t, mk));
    }
    // Bits set but count zero: still ignored.
    mask.setWords(std::vector<std::uint32_t>(3, 0xFFFFFFFFu), 0);
    EXPECT_TRUE(m.isClosed(&mask));
    EXPECT_FALSE(m.isBoundaryEdge(0, &mask));
    EXPECT_FALSE(m.isBoundaryPoint(0, GmGeometry::INSIDE, &mask));
    // Count non-zero, all bits clear: not closed, yet no edge is a boundary edge.
    mask.setWords(std::vector<std::uint32_t>(3, 0u), 1);
    EXPECT_FALSE(m.isClosed(&mask));
    EXPECT_TRUE(m.hasBoundaryEdges(&mask));
    for (int e = 0; e < m.getNumberEdges(); ++e) EXPECT_FALSE(m.isBoundaryEdge(e, &mask));
    EXPECT_FALSE(m.isBoundaryPoint(0, GmGeometry::INSIDE, &mask));
    // One disabled face: exactly its three edges and three vertices are on the boundary.
    mask.clear();
    mask.setFaceDisabled(7);
    EXPECT_EQ(mask.getDisabledCount(), 1u);
    const GmTriangleFace& f7 = m.getFace(7);
    for (int e = 0; e < m.getNumberEdges(); ++e) EXPECT_EQ(m.isBoundaryEdge(e, &mask), f7.hasEdge(e)) << e;
    for (int v = 0; v < m.getNumberVertices(); ++v) EXPECT_EQ(m.isBoundaryVertex(v, &mask), f7.hasVertex(v)) << v;
    EXPECT_TRUE(m.isBoundaryPoint(7, GmGeometry::INSIDE, &mask));
    EXPECT_FALSE(m.isBoundaryPoint(8, GmGeometry::INSIDE, &mask));
    EXPECT_FALSE(m.isBoundaryPoint(7, GmGeometry::INVALID, nullptr));
    EXPECT_FALSE(m.isClosed(&mask));
}

TEST(MeshTopology, MaskOnAnOpenMesh) {
    GmTriangleMesh m = qgtools::makeClothGrid(2, 1);  // faces 0..3
    GmDisabledData mask(&m);
    mask.setFaceDisabled(1);
    // Edge between faces 0 and 1 (the quad diagonal) becomes a boundary edge.
    const int diag = m.getSharedEdge(0, 1);
    ASSERT_GE(diag, 0);
    EXPECT_FALSE(m.isBoundaryEdge(diag));
    EXPECT_TRUE(m.isBoundaryEdge(diag, &mask));
    // The quads' common edge lies between faces 0 and 3, both enabled.
    const int middle = m.getSharedEdge(0, 3);
    ASSERT_GE(middle, 0);
    EXPECT_FALSE(m.isBoundaryEdge(middle, &mask));
    EXPECT_EQ(m.getSharedEdge(1, 2), -1);
    const int between23 = m.getSharedEdge(2, 3);
    EXPECT_FALSE(m.isBoundaryEdge(between23, &mask));
}

TEST(MeshTopology, MaskBookkeeping) {
    GmTriangleMesh m = qgtools::makeClothGrid(10, 10);  // 200 faces, 7 words
    GmDisabledData mask(&m);
    EXPECT_EQ(mask.getMesh(), &m);
    EXPECT_EQ(mask.getWords().size(), 7u);
    mask.setFaceDisabled(33);
    mask.setFaceDisabled(33);
    mask.setFaceDisabled(199);
    EXPECT_EQ(mask.getDisabledCount(), 2u);
    EXPECT_EQ(mask.getWords()[1], 2u);
    EXPECT_EQ(mask.getWords()[6], 1u << (199 % 32));
    EXPECT_TRUE(mask.isFaceDisabled(33));
    EXPECT_TRUE(mask.isDisabled(33));
    EXPECT_FALSE(mask.isFaceDisabled(32));
    mask.setFaceDisabled(33, false);
    EXPECT_EQ(mask.getDisabledCount(), 1u);
    mask.disableFaces({1, 2, 3});
    EXPECT_EQ(mask.getDisabledCount(), 4u);
    mask.enableFaces({1, 2});
    EXPECT_EQ(mask.getDisabledCount(), 2u);
    mask.setDisabledCount(0);
    EXPECT_TRUE(mask.isFaceDisabled(3));
    EXPECT_FALSE(mask.isDisabled(3));
    EXPECT_FALSE(GmDisabledData::isActive(&mask));
    EXPECT_FALSE(GmDisabledData::isDisabled(nullptr, 3));
    GmDisabledData copy(mask);
    EXPECT_EQ(copy.getWords(), mask.getWords());
    mask.clear();
    EXPECT_FALSE(mask.isFaceDisabled(3));
    EXPECT_TRUE(copy.isFaceDisabled(3));

    GmFrozenData frozen(&m);
    EXPECT_EQ(frozen.getCount(), 0u);
    frozen.setFaceFrozen(5);
    frozen.freezeFaces({5, 6, 64});
    EXPECT_EQ(frozen.getFrozenCount(), 3u);
    EXPECT_TRUE(frozen.isFaceFrozen(64));
    EXPECT_TRUE(frozen.isFrozen(6));
    EXPECT_EQ(frozen.getWords()[2], 1u);
    frozen.setWords({0xFu}, 200);
    EXPECT_EQ(frozen.getCount(), 4u);
    frozen.clear();
    EXPECT_FALSE(GmFrozenData::isActive(&frozen));
}

}  // namespace

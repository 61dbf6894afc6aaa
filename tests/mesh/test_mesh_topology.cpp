#include <gtest/gtest.h>

#include <algorithm>
#include <vector>

#include "mesh_test_util.h"

namespace {

using meshtest::V;
using GmGeometry::PointOnTriType;

const PointOnTriType kAllTypes[] = {GmGeometry::INSIDE,      GmGeometry::ON_VERTEX_1, GmGeometry::ON_VERTEX_2,
                                    GmGeometry::ON_VERTEX_3, GmGeometry::ON_EDGE_1,   GmGeometry::ON_EDGE_2,
                                    GmGeometry::ON_EDGE_3,   GmGeometry::INVALID,     static_cast<PointOnTriType>(-3)};

bool isVertexType(PointOnTriType t) { return t >= GmGeometry::ON_VERTEX_1 && t <= GmGeometry::ON_VERTEX_3; }
bool isEdgeType(PointOnTriType t) { return t >= GmGeometry::ON_EDGE_1 && t <= GmGeometry::ON_EDGE_3; }

// Incidence queries against brute force over the face records, for every face, edge,
// vertex and point type of the small meshes of the table, with and without a mask.
class MeshTopology : public ::testing::TestWithParam<std::string> {};

TEST_P(MeshTopology, IncidenceMatchesBruteForce) {
    const GmTriangleMesh m = meshtest::build(meshtest::soupNamed(GetParam()));
    const int nf = m.getNumberFaces(), ne = m.getNumberEdges(), nv = m.getNumberVertices();
    const auto& faces = m.getFaces();
    const auto& edges = m.getEdges();
    auto face = [&](int f) -> const GmTriangleFace& { return faces[static_cast<std::size_t>(f)]; };
    auto edge = [&](int e) -> const GmTriangleEdge& { return edges[static_cast<std::size_t>(e)]; };
    auto hasV = [&](int f, int v) { return face(f).vertices[0] == v || face(f).vertices[1] == v || face(f).vertices[2] == v; };
    auto hasE = [&](int f, int e) { return face(f).edges[0] == e || face(f).edges[1] == e || face(f).edges[2] == e; };
    auto onEdge = [&](int e, int v) { return edge(e).from == v || edge(e).to == v; };
    for (int f1 = 0; f1 < nf; ++f1) {
        const GmTriangleFace& a = face(f1);
        for (int f2 = 0; f2 < nf; ++f2) {
            int sharedEdge = -1, sharedVertex = -1;
            for (int k = 2; k >= 0; --k) {
                if (hasE(f2, a.edges[k])) sharedEdge = a.edges[k];
                if (hasV(f2, a.vertices[k])) sharedVertex = a.vertices[k];
            }
            ASSERT_EQ(m.getSharedEdge(f1, f2), sharedEdge) << f1 << ' ' << f2;
            ASSERT_EQ(m.getSharedVertex(f1, f2), sharedVertex) << f1 << ' ' << f2;
            ASSERT_EQ(m.shareEdge(f1, f2), sharedEdge >= 0);
            ASSERT_EQ(m.shareVertex(f1, f2), sharedVertex >= 0);
            for (PointOnTriType t : kAllTypes) {
                int c = -1;
                bool on = false;
                if (t == GmGeometry::INSIDE) {
                    c = f1;
                    on = f1 == f2;
                } else if (isVertexType(t)) {
                    c = a.vertices[t - GmGeometry::ON_VERTEX_1];
                    on = hasV(f2, c);
                } else if (isEdgeType(t)) {
                    c = a.edges[t - GmGeometry::ON_EDGE_1];
                    on = hasE(f2, c);
                }
                ASSERT_EQ(m.triComponentIndex(f1, t), c) << f1 << ' ' << t;
                ASSERT_EQ(m.isOnFace(f1, t, f2), on) << f1 << ' ' << t << ' ' << f2;
            }
        }
        for (int e = 0; e < ne; ++e) {
            int other = -1;
            for (int k = 2; k >= 0; --k)
                if (!onEdge(e, a.vertices[k])) other = a.vertices[k];
            ASSERT_EQ(m.getOtherVertex(f1, e), other) << f1 << ' ' << e;
            ASSERT_EQ(m.getOtherFace(f1, e), edge(e).firstFace == f1 ? edge(e).secondFace : edge(e).firstFace);
        }
        for (int v = 0; v < nv; ++v) {
            int other = -1;
            for (int k = 2; k >= 0; --k)
                if (!onEdge(a.edges[k], v)) other = a.edges[k];
            ASSERT_EQ(m.getOtherEdge(f1, v), other) << f1 << ' ' << v;
        }
    }
    for (int e1 = 0; e1 < ne; ++e1)
        for (int e2 = 0; e2 < ne; ++e2)
            ASSERT_EQ(m.incidentEdges(e1, e2), onEdge(e2, edge(e1).from) || onEdge(e2, edge(e1).to)) << e1 << ' ' << e2;
}

// Boundary tests and shareFace: a disabled face counts as missing. The faces of a point
// are its own face and, for a vertex, every face around it, for an edge its recorded faces.
TEST_P(MeshTopology, BoundaryAndShareFaceMatchBruteForce) {
    GmTriangleMesh m = meshtest::build(meshtest::soupNamed(GetParam()));
    const int nf = m.getNumberFaces(), ne = m.getNumberEdges();
    std::vector<bool> off(static_cast<std::size_t>(nf), false);
    GmDisabledData mask(&m);
    for (int f = 1; f < nf; f += 3) {
        mask.setFaceDisabled(f);
        off[static_cast<std::size_t>(f)] = true;
    }
    for (const GmDisabledData* mk : {static_cast<const GmDisabledData*>(nullptr), static_cast<const GmDisabledData*>(&mask)}) {
        auto enabled = [&](int f) { return f >= 0 && !(mk && off[static_cast<std::size_t>(f)]); };
        std::vector<bool> boundaryEdge(static_cast<std::size_t>(ne)), boundaryVertex(static_cast<std::size_t>(m.getNumberVertices()));
        bool anyBoundary = false;
        for (int e = 0; e < ne; ++e) {
            const GmTriangleEdge& ed = m.getEdge(e);
            const bool b = ed.firstFace < 0 || ed.secondFace < 0 || !enabled(ed.firstFace) || !enabled(ed.secondFace);
            boundaryEdge[static_cast<std::size_t>(e)] = b;
            if (b) boundaryVertex[static_cast<std::size_t>(ed.from)] = boundaryVertex[static_cast<std::size_t>(ed.to)] = true;
            anyBoundary = anyBoundary || b;
            ASSERT_EQ(m.isBoundaryEdge(e, mk), b) << e;
            ASSERT_EQ(m.isBoundaryEdge(ed, mk), b) << e;
            ASSERT_EQ(m.isBoundaryEdge(&ed, mk), b) << e;
        }
        EXPECT_EQ(m.isClosed(mk), !anyBoundary && !mk);
        EXPECT_EQ(m.hasBoundaryEdges(mk), anyBoundary || mk);
        for (int v = 0; v < m.getNumberVertices(); ++v)
            ASSERT_EQ(m.isBoundaryVertex(v, mk), boundaryVertex[static_cast<std::size_t>(v)]) << v;
        // faces[f][t]: the faces of the point (f, t); none for an unknown type.
        std::vector<std::vector<std::vector<int>>> facesOf(static_cast<std::size_t>(nf));
        for (int f = 0; f < nf; ++f)
            for (PointOnTriType t : kAllTypes) {
                std::vector<int> out;
                const GmTriangleFace& fc = m.getFace(f);
                const bool known = t == GmGeometry::INSIDE || isVertexType(t) || isEdgeType(t);
                for (int g = 0; g < nf && known; ++g) {
                    const GmTriangleFace& gc = m.getFace(g);
                    const GmTriangleEdge* ed = isEdgeType(t) ? &m.getEdge(fc.edges[t - GmGeometry::ON_EDGE_1]) : nullptr;
                    if (g == f || (isVertexType(t) && gc.hasVertex(fc.vertices[t - GmGeometry::ON_VERTEX_1])) ||
                        (ed && (ed->firstFace == g || ed->secondFace == g)))
                        out.push_back(g);
                }
                facesOf[static_cast<std::size_t>(f)].push_back(out);
            }
        for (int f1 = 0; f1 < nf; ++f1)
            for (const PointOnTriType& t1 : kAllTypes) {
                const GmTriangleFace& fc = m.getFace(f1);
                bool b = !enabled(f1);  // any other type: the face's own bit
                if (isVertexType(t1)) b = boundaryVertex[static_cast<std::size_t>(fc.vertices[t1 - GmGeometry::ON_VERTEX_1])];
                if (isEdgeType(t1)) b = boundaryEdge[static_cast<std::size_t>(fc.edges[t1 - GmGeometry::ON_EDGE_1])];
                ASSERT_EQ(m.isBoundaryPoint(f1, t1, mk), b) << f1 << ' ' << t1;
                if (nf > 130 || f1 % 2) continue;  // shareFace on a sample
                const std::vector<int>& first = facesOf[static_cast<std::size_t>(f1)][&t1 - kAllTypes];
                for (int f2 = 0; f2 < nf; ++f2)
                    for (const PointOnTriType& t2 : kAllTypes) {
                        bool expected = false;
                        for (int g : facesOf[static_cast<std::size_t>(f2)][&t2 - kAllTypes])
                            expected = expected || (enabled(g) && std::find(first.begin(), first.end(), g) != first.end());
                        ASSERT_EQ(m.shareFace(f1, t1, f2, t2, mk), expected) << f1 << ' ' << t1 << ' ' << f2 << ' ' << t2;
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
    EXPECT_EQ(mask.getWords().size(), 7u);
    mask.setFaceDisabled(33);
    mask.setFaceDisabled(33);
    mask.setFaceDisabled(199);
    EXPECT_EQ(mask.getDisabledCount(), 2u);
    EXPECT_EQ(mask.getWords()[1], 2u);
    EXPECT_EQ(mask.getWords()[6], 1u << (199 % 32));
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
    ASSERT_GE(m.getSharedEdge(2, 3), 0);
    EXPECT_FALSE(m.isBoundaryEdge(m.getSharedEdge(2, 3), &mask));
    EXPECT_TRUE(m.shareFace(3, GmGeometry::INSIDE, 3, GmGeometry::INSIDE, &mask));
    const GmDisabledData copy(mask);
    EXPECT_EQ(copy.getWords(), mask.getWords());
    mask.clear();
    EXPECT_FALSE(mask.isFaceDisabled(3));
    EXPECT_TRUE(copy.isFaceDisabled(3));
    // Count non-zero with every bit clear: not closed, yet no edge on the boundary.
    GmTriangleMesh sphere = qgtools::makeIcosphere(1);
    GmDisabledData empty(&sphere);
    empty.setWords(std::vector<std::uint32_t>(3, 0u), 1);
    EXPECT_FALSE(sphere.isClosed(&empty));
    EXPECT_TRUE(sphere.hasBoundaryEdges(&empty));
    for (int e = 0; e < sphere.getNumberEdges(); ++e) EXPECT_FALSE(sphere.isBoundaryEdge(e, &empty));

    GmFrozenData frozen(&m);
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

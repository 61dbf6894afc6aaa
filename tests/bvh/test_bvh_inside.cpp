// Inside decisions. The defined answer is the sign of the closest-point search (a point on the
// surface counts as inside); away from the surface it equals the winding number. The ray-parity
// shortcut must agree wherever it decides, and is refused on meshes where parity may differ.

#include <gtest/gtest.h>

#include "bvh_test_util.h"

using namespace bvhtest;

namespace {

// A hierarchy that also exposes the ray-parity decision on its own.
class ParityTree : public GmBoundingVolumeHierarchy {
public:
    using GmBoundingVolumeHierarchy::GmBoundingVolumeHierarchy;
    int byRays(const V3& p, bool includeDisabled) const { return insideByRayParity(p, includeDisabled); }
    bool inRootBox(const V3& p) const { return isInside(p); }
};

bool definedInside(const GmBoundingVolumeHierarchy& h, const V3& p, bool includeDisabled) {
    V3 closest, normal;
    int face = -1;
    bool pinched = false;
    return h.findClosestPoint(p, closest, face, normal, pinched, true, includeDisabled) <= 0.0;
}

GmTriangleMesh joined(const std::vector<qgtools::PolygonSoup>& parts) {
    qgtools::PolygonSoup all;
    for (const qgtools::PolygonSoup& s : parts) {
        const int base = all.numVertices();
        all.positions.insert(all.positions.end(), s.positions.begin(), s.positions.end());
        for (const auto& t : s.triangles) all.triangles.push_back({t[0] + base, t[1] + base, t[2] + base});
    }
    return qgtools::meshFromSoup(all);
}

const std::vector<V3> kUnitCube{V3(0, 0, 0), V3(1, 0, 0), V3(0, 1, 0), V3(1, 1, 0),
                                 V3(0, 0, 1), V3(1, 0, 1), V3(0, 1, 1), V3(1, 1, 1)};

typedef std::vector<std::pair<V3, bool>> Known;

struct InsideCase {
    std::string name;
    GmTriangleMesh mesh;
    bool certified;                          // the ray shortcut is allowed
    Known known = {};                        // exact points and their answers
};

// On the unit cube: exact points on and next to faces, edges and corners; grid points whose axis
// rays run through edges, corners and face diagonals; points on the lines through opposite face
// centres, whose rays along the line meet the crossing of the faces' diagonals.
Known unitCubePoints() {
    std::vector<V3> points{V3(0.25, 0.5, 1.0),       V3(1.0, 1.0, 0.5),         V3(1.0, 1.0, 1.0),
                           V3(0.5, 0.5, 1.0 - 1e-6), V3(0.5, 0.5, 1.0 + 1e-6), V3(1.0 + 1e-6, 1.0, 1.0),
                           V3(5, 5, 5)};
    for (const double a : {0.0, 0.25, 0.5, 1.0})
        for (const double b : {0.0, 0.25, 0.5, 1.0})
            for (const double c : {0.125, 0.625, 0.75, -0.5, 1.5})
                points.insert(points.end(), {V3(a, b, c), V3(c, a, b), V3(b, c, a)});
    for (const double t : {0.1, 0.2, 0.3, 0.7, 0.9})
        points.insert(points.end(), {V3(t, 0.5, 0.5), V3(0.5, t, 0.5), V3(0.5, 0.5, t), V3(t, t, 0.4),
                                     V3(t, 0.4, t), V3(0.4, t, t), V3(t, 1.0 - t, 0.3)});
    Known known;
    for (const V3& p : points)
        known.emplace_back(p, std::min({p.x, p.y, p.z}) >= 0.0 && std::max({p.x, p.y, p.z}) <= 1.0);
    return known;
}

std::vector<InsideCase> insideCases() {
    std::vector<InsideCase> c;
    for (NamedMesh& m : testMeshes())
        if (m.mesh.isClosed())
            c.push_back({m.name, std::move(m.mesh), true, m.name == "cube" ? unitCubePoints() : Known()});
    c.push_back({"tetrahedron", qgtools::makeTetrahedron(1.3), true});
    c.push_back({"three parts", joined({qgtools::icosphereSoup(2, 1.0), qgtools::icosphereSoup(2, 0.5, V3(2.6, 0, 0)),
                                        qgtools::cubeSoup(V3(0.5, 2.2, 0.3), V3(1.2, 2.6, 0.9))}),
                 true});
    c.push_back({"open box",  // the unit cube without its top; at the rim the nearest face is a side's outside
                 qgtools::meshFromSoup({kUnitCube,
                                        {{0, 2, 1}, {1, 2, 3}, {0, 1, 5}, {0, 5, 4}, {1, 3, 7},
                                         {1, 7, 5}, {3, 2, 6}, {3, 6, 7}, {2, 0, 4}, {2, 4, 6}}}),
                 false,
                 {{V3(0.5, 0.5, 0.1), true}, {V3(0.1, 0.5, 0.5), true}, {V3(0.3, 0.5, 1.0), false},
                  {V3(0.0, 0.5, 1.0), false}, {V3(0.0, 0.5, 0.5), true}}});
    c.push_back({"overlapping cubes",
                 joined({qgtools::cubeSoup(), qgtools::cubeSoup(V3(0.5, 0.5, 0.5), V3(1.5, 1.5, 1.5))}), false});
    qgtools::PolygonSoup inverted = qgtools::icosphereSoup(2);
    inverted.flip();
    c.push_back({"inverted sphere", qgtools::meshFromSoup(inverted), false});
    c.push_back({"nested spheres",
                 joined({qgtools::icosphereSoup(2, 1.0), qgtools::icosphereSoup(2, 0.5, V3(0.1, 0, 0))}), false});
    // Two tetrahedra sharing one vertex: every edge has two faces, the vertex two fans.
    c.push_back({"tetrahedra at one vertex",
                 qgtools::meshFromSoup({{V3(0, 0, 0), V3(1, 0, 0), V3(0, 1, 0), V3(0, 0, 1), V3(-1, 0, 0),
                                         V3(0, -1, 0), V3(0, 0, -1)},
                                        {{0, 2, 1}, {0, 1, 3}, {0, 3, 2}, {1, 2, 3}, {0, 4, 5}, {0, 6, 4},
                                         {0, 5, 6}, {4, 6, 5}}}),
                 false});
    // Closed, positive volume, no separate faces meet, yet adjacent faces overlap: a folded flap,
    // and a pyramid whose twisted apex fan pokes a base edge through a side face.
    c.push_back({"folded flap",
                 qgtools::meshFromSoup({{V3(0, 0, 0), V3(1, 0, 0), V3(0.5, 1, 0), V3(0.5, 0.8, 0), V3(0.5, 0.9, -1)},
                                        {{0, 1, 2}, {1, 0, 3}, {2, 1, 4}, {0, 2, 4}, {3, 0, 4}, {1, 3, 4}}}),
                 false});
    c.push_back({"twisted pyramid",
                 qgtools::meshFromSoup({{V3(0, 0, 1), V3(-1, 0, 0), V3(0, -1, 0), V3(1, 0, 0), V3(-0.5, -0.8, 0.1)},
                                        {{0, 1, 2}, {0, 2, 3}, {0, 3, 4}, {0, 4, 1}, {1, 4, 3}, {3, 2, 1}}}),
                 false});
    return c;
}

// Probes of every kind the inside test meets: uniform in the grown bounds, at small and larger
// distances either side of a face, on faces, vertices and edge midpoints, sharing coordinates with
// vertices (axis rays through vertices and edges); uniform includes points outside the root box.
struct Probes {
    std::vector<V3> uniform, near, away, aligned;  // near: on the surface too
};

Probes makeProbes(const GmTriangleMesh& mesh, unsigned seed) {
    Probes pr;
    std::mt19937 rng(seed);
    std::uniform_real_distribution<double> u(0.0, 1.0);
    const GmAxisAlignedBox b = meshBounds(mesh);
    const V3 mn(b.minX, b.minY, b.minZ), mx(b.maxX, b.maxY, b.maxZ);
    const double diag = (mx - mn).length();
    auto anyVertex = [&] { return mesh.getVertex(static_cast<int>(rng() % unsigned(mesh.getNumberVertices()))); };
    for (int i = 0; i < 400; ++i) pr.uniform.push_back(randomPointAround(mesh, rng, 0.1));
    for (int i = 0; i < 100; ++i) {
        const int f = static_cast<int>(rng() % static_cast<unsigned>(mesh.getNumberFaces()));
        double s = u(rng), t = u(rng);
        if (s + t > 1.0) s = 1.0 - s, t = 1.0 - t;
        const V3 q = mesh.getFaceVertex1(f) * (1.0 - s - t) + mesh.getFaceVertex2(f) * s + mesh.getFaceVertex3(f) * t;
        const V3 n = mesh.getFaceNormal(f);
        pr.near.push_back(q);
        for (const double d : {1e-12, 1e-10, 1e-8, -1e-12, -1e-10, -1e-8}) pr.near.push_back(q + n * (d * diag));
        for (const double d : {1e-6, 1e-4, -1e-6, -1e-4}) pr.away.push_back(q + n * (d * diag));
        const int e = static_cast<int>(rng() % static_cast<unsigned>(mesh.getNumberEdges()));
        pr.near.insert(pr.near.end(), {(mesh.getEdgeVertexFrom(e) + mesh.getEdgeVertexTo(e)) * 0.5, anyVertex()});
    }
    for (int i = 0; i < 150; ++i) {
        const V3 a = anyVertex(), c = anyVertex();
        const int k = static_cast<int>(rng() % 3u);
        V3 p = a, r = (a + c) * 0.5;
        p[k] = mn[k] + (mx[k] - mn[k]) * u(rng);  // the ray along k passes through vertex a
        r[k] = mn[k] + (mx[k] - mn[k]) * u(rng);  // near or through the edge a-c, when it is one
        pr.aligned.insert(pr.aligned.end(), {p, r, V3(a.x, c.y, mn.z + (mx.z - mn.z) * u(rng))});
    }
    return pr;
}

// isInsideMesh equals the defined answer, and so does the ray decision whenever it decides. On
// and near the surface of a certified mesh the defined answer is the exact crossings' (checked
// against exact signs in the scale test), elsewhere the search's.
// Returns the percentage of the probes in the root box that the rays decided.
int expectSameAnswers(const ParityTree& h, const std::vector<V3>& points, const std::string& what,
                      bool includeDisabled = true, bool nearSurface = false) {
    int inBox = 0, decided = 0;
    for (const V3& p : points) {
        const int r = h.byRays(p, includeDisabled);
        const bool exact = nearSurface && r >= 0 && h.insideQueriesPrepared(includeDisabled);
        const bool expected = exact ? r != 0 : definedInside(h, p, includeDisabled);
        EXPECT_EQ(h.isInsideMesh(p, includeDisabled), expected) << what << " at " << p;
        if (r >= 0) { EXPECT_EQ(r != 0, expected) << what << " (rays) at " << p; }
        if (h.inRootBox(p)) ++inBox, decided += r >= 0;
    }
    return inBox > 0 ? 100 * decided / inBox : 100;
}

TEST(BvhInside, DefinedAnswersOnEveryMesh) {
    for (InsideCase& c : insideCases()) {
        const GmTriangleMesh& mesh = c.mesh;
        const std::string& name = c.name;
        ParityTree h(&c.mesh);
        EXPECT_FALSE(h.insideQueriesPrepared(true)) << name;
        ASSERT_EQ(h.prepareInsideQueries(true), c.certified) << name;
        Probes pr = makeProbes(mesh, 11);
        for (const auto& [p, inside] : c.known) {
            EXPECT_EQ(h.isInsideMesh(p, true), inside) << name << " at " << p;
            pr.aligned.push_back(p);
        }
        const int uniform = expectSameAnswers(h, pr.uniform, name + " uniform");
        const int away = expectSameAnswers(h, pr.away, name + " away");
        const int aligned = expectSameAnswers(h, pr.aligned, name + " aligned", true, true);
        // On and very near the surface exact crossings decide on a certified mesh, the search on others.
        const int near = expectSameAnswers(h, pr.near, name + " near", true, true);
        if (!c.certified) {
            EXPECT_EQ(uniform + near, 0) << name;
            continue;
        }
        EXPECT_GT(near, 95) << name;
        EXPECT_GT(uniform, 95) << name;
        EXPECT_GT(away, 90) << name;
        // Closed mesh and points scaled by 2^k (exactly) give the same answers, before and after the check.
        for (const double scale : {0x1p-40, 0x1p40}) {
            GmTriangleMesh scaled = transformed(mesh, V3(), scale);
            GmBoundingVolumeHierarchy hs(&scaled);
            for (int round = 0; round < 2; ++round, hs.prepareInsideQueries(true))
                for (const V3& p : pr.uniform)
                    ASSERT_EQ(hs.isInsideMesh(p * scale, true), h.isInsideMesh(p, true)) << name << " " << scale << p;
        }
        if (mesh.getNumberVertices() > 8) { EXPECT_GT(aligned, 50) << name; }  // else most lie on the mesh
        for (const V3& p : pr.uniform)  // outside the root box the rays say outside
            if (!h.inRootBox(p)) { EXPECT_EQ(h.byRays(p, true), 0) << name << " at " << p; }
        for (const auto& [p, inside] : c.known)  // well away from the surface the rays decide
            if (bruteDistance(mesh, p) >= 0.1) { EXPECT_EQ(h.byRays(p, true), int(inside)) << name << " at " << p; }
        // Away from the surface the answer is the winding number's.
        int checked = 0, inside = 0;
        const double diag = meshBounds(mesh).getExtent().length();
        for (const V3& p : pr.uniform) {
            if (bruteDistance(mesh, p) < 1e-6 * diag) continue;
            const double w = windingNumber(mesh, p);
            EXPECT_EQ(h.isInsideMesh(p, true), w > 0.5) << name << " at " << p << " winding " << w;
            inside += w > 0.5;
            ++checked;
        }
        EXPECT_GT(inside, 10) << name;
        EXPECT_LT(inside, checked - 10) << name;
    }
}

TEST(BvhInside, BoundariesAndClosestFaceSets) {
    GmTriangleMesh mesh = qgtools::makeIcosphere(2);
    GmDisabledData disabled(&mesh);
    GmBoundingVolumeHierarchy h(&mesh, &disabled, nullptr);
    EXPECT_TRUE(h.isMeshClosed(false));  // count zero
    disabled.setFaceDisabled(0);
    for (const bool inc : {false, true}) {  // without face 0 its edges and vertices are boundaries
        EXPECT_EQ(h.isMeshClosed(inc), inc);
        EXPECT_EQ(h.isBoundaryEdge(mesh.getFace(0).edges[0], inc), !inc);
        EXPECT_EQ(h.isBoundaryVertex(mesh.getFace(0).vertices[0], inc), !inc);
        EXPECT_EQ(h.isBoundaryPoint(0, GmGeometry::INSIDE, inc), !inc);
    }
    int far = -1;
    for (int f = 0; f < mesh.getNumberFaces(); ++f)
        if ((mesh.getFaceCenter(f) - mesh.getFaceCenter(0)).length() > 1.5) far = f;
    ASSERT_GE(far, 0);
    EXPECT_FALSE(h.isBoundaryPoint(far, GmGeometry::ON_EDGE_2, false));

    // The faces sharing the feature a closest point lies on, against a scan of every face: appended
    // to the list, except that a vertex's replace it.
    GmTriangleMesh grid = qgtools::makeClothGrid(3, 3);
    GmBoundingVolumeHierarchy hg(&grid);
    for (int f = 0; f < grid.getNumberFaces(); ++f)
        for (int type = GmGeometry::INSIDE; type <= GmGeometry::INVALID; ++type) {
            const int* v = grid.getFace(f).vertices;
            const bool vertexType = type >= GmGeometry::ON_VERTEX_1 && type <= GmGeometry::ON_VERTEX_3;
            std::vector<int> expected, faces{99};
            for (int g = 0; g < grid.getNumberFaces() && type != GmGeometry::INVALID; ++g) {
                const int* w = grid.getFace(g).vertices;
                auto has = [&](int x) { return w[0] == x || w[1] == x || w[2] == x; };
                if (type == GmGeometry::INSIDE ? g == f
                    : vertexType               ? has(v[type - 1])
                                               : has(v[type - 4]) && has(v[(type - 3) % 3]))
                    expected.push_back(g);
            }
            EXPECT_EQ(hg.getClosestFaceSet(f, GmGeometry::PointOnTriType(type), faces), int(expected.size()));
            if (!vertexType) faces.erase(faces.begin());
            std::sort(faces.begin(), faces.end());
            EXPECT_EQ(faces, expected) << f << " " << type;
        }
}

TEST(BvhInside, PointsInsideMeshRecordsEveryInsideVertex) {
    GmTriangleMesh big = qgtools::makeIcosphere(3, 1.0);
    GmTriangleMesh probe = qgtools::makeTorus(32, 12, 0.8, 0.4);  // partly inside the sphere
    GmBoundingTree bigTree(&big), probeTree(&probe);
    // The records as the search gives them, vertex by vertex.
    std::vector<GmInsideInfo> expected;
    for (int v = 0; v < probe.getNumberVertices(); ++v) {
        GmInsideInfo r;
        V3 normal;
        bool pinched;
        const double d = bigTree.getHierarchy()->findClosestPoint(probe.getVertex(v), r.closestPoint, r.closestFace,
                                                                  normal, pinched, true, true);
        r.vertex = v;
        r.distance = -d;
        if (d <= 0.0) expected.push_back(r);
    }
    ASSERT_TRUE(expected.size() > 10u && expected.size() < static_cast<size_t>(probe.getNumberVertices()));
    for (const bool prepared : {false, true}) {
        if (prepared) { ASSERT_TRUE(bigTree.prepareInsideQueries(true)); }
        std::vector<GmInsideInfo> results(1);
        EXPECT_TRUE(bigTree.pointsInsideMesh(probeTree, results, true, true, 3, 4));  // appended
        ASSERT_EQ(results.size(), expected.size() + 1);
        for (size_t k = 0; k < expected.size(); ++k) {
            const GmInsideInfo &r = results[k + 1], &e = expected[k];
            EXPECT_TRUE(r.vertex == e.vertex && r.closestFace == e.closestFace && r.distance == e.distance &&
                        r.closestPoint == e.closestPoint && r.objectIndex1 == 3 && r.objectIndex2 == 4) << k;
            EXPECT_NEAR(r.distance, bruteDistance(big, probe.getVertex(r.vertex)), 1e-9);
            const V3 q = big.getFaceVertex1(r.closestFace) * r.barycentric.x +
                         big.getFaceVertex2(r.closestFace) * r.barycentric.y +
                         big.getFaceVertex3(r.closestFace) * r.barycentric.z;
            EXPECT_NEAR((q - r.closestPoint).length(), 0.0, 1e-12);
        }
        // The multi-object form.
        std::vector<GmInsideInfo> multi;
        std::vector<int> objects{7};
        GmBVHMetrics metrics;
        EXPECT_TRUE(probeTree.intersect({&bigTree}, {nullptr}, 2, objects, multi, false, true, metrics));
        ASSERT_EQ(multi.size(), expected.size());
        for (size_t k = 0; k < multi.size(); ++k)
            EXPECT_TRUE(multi[k].vertex == expected[k].vertex && multi[k].objectIndex1 == 2 && multi[k].objectIndex2 == 7);
    }
    // Vertices within rounding of the surface of a small sphere (2^-20): the same inside answers as
    // isInsideMesh, vertex by vertex.
    GmTriangleMesh small = qgtools::makeIcosphere(3, 0x1p-20), near;
    GmBoundingTree smallTree(&small);
    for (int k = 0; k < 3 * 400; ++k) {
        const int f = (k * 7919) % small.getNumberFaces();
        const double a = (k % 13) / 26.0, b = (k % 7) / 14.0;
        const V3 n = small.getFaceNormal(f) * (((k % 9) - 4) * 0x1p-72);
        near.addVertex(small.getFaceVertex1(f) * (1 - a - b) + small.getFaceVertex2(f) * a +
                       small.getFaceVertex3(f) * b + n);
        if (k % 3 == 2) near.addFace(k - 2, k - 1, k);
    }
    near.finishConstruction();
    GmBoundingTree nearTree(&near);
    std::vector<GmInsideInfo> nearResults;
    smallTree.pointsInsideMesh(nearTree, nearResults, false, true);
    std::vector<char> listed(static_cast<size_t>(near.getNumberVertices()), 0);
    for (const GmInsideInfo& r : nearResults) listed[static_cast<size_t>(r.vertex)] = 1;
    for (int v = 0; v < near.getNumberVertices(); ++v)
        EXPECT_EQ(listed[static_cast<size_t>(v)] != 0, smallTree.isInsideMesh(near.getVertex(v), true)) << v;
    // Nothing inside: false, the vector cleared.
    GmTriangleMesh farAway = qgtools::makeIcosphere(1, 0.1, V3(10, 0, 0));
    GmBoundingTree farTree(&farAway);
    std::vector<GmInsideInfo> results(2);
    EXPECT_FALSE(bigTree.pointsInsideMesh(farTree, results, false, true));
    EXPECT_TRUE(results.empty());
}

TEST(BvhInside, MasksRefitsAndCopiesDropTheCheck) {
    GmTriangleMesh mesh = qgtools::makeIcosphere(3);
    GmDisabledData mask(&mesh);
    mask.setFaceDisabled(7);
    ParityTree h(&mesh, &mask, nullptr);
    EXPECT_FALSE(h.prepareInsideQueries(false));
    EXPECT_TRUE(h.prepareInsideQueries(true));  // every face taking part
    const Probes pr = makeProbes(mesh, 3);
    EXPECT_EQ(expectSameAnswers(h, pr.uniform, "masked", false), 0);
    EXPECT_GT(expectSameAnswers(h, pr.uniform, "unmasked", true), 95);
    // Mask emptied behind the tree's back: the nodes still carry the flag, the search decides.
    mask.clear();
    EXPECT_EQ(expectSameAnswers(h, pr.uniform, "stale flags", false), 0);
    // Handing the mask over again refreshes the flags; disabling a face afterwards takes the ray
    // path away from includeDisabled false only.
    h.setDisabledData(&mask);
    EXPECT_FALSE(h.insideQueriesPrepared(true));
    EXPECT_TRUE(h.prepareInsideQueries(false));
    mask.setFaceDisabled(3);
    EXPECT_FALSE(h.insideQueriesPrepared(false));
    EXPECT_TRUE(h.insideQueriesPrepared(true));
    EXPECT_EQ(expectSameAnswers(h, pr.uniform, "disabled again", false), 0);

    GmBoundingVolumeHierarchy copy(h), assigned(&mesh);
    ASSERT_TRUE(assigned.prepareInsideQueries(true));
    assigned = h;
    EXPECT_FALSE(copy.insideQueriesPrepared(true) || assigned.insideQueriesPrepared(true));  // copies start without

    // Two spheres apart, moved into each other, and apart again.
    GmTriangleMesh two = joined({qgtools::icosphereSoup(2, 1.0), qgtools::icosphereSoup(2, 1.0, V3(3, 0, 0))});
    const std::vector<V3> apart = two.getVertices();
    std::vector<V3> together = apart;
    for (size_t k = together.size() / 2; k < together.size(); ++k) together[k].x -= 2.5;
    ParityTree ht(&two);
    ASSERT_TRUE(ht.prepareInsideQueries(true));
    for (const bool overlapping : {true, false}) {
        two.setVertices(overlapping ? together : apart);
        ht.refit();
        EXPECT_EQ(ht.prepareInsideQueries(true), !overlapping);
        const int decided = expectSameAnswers(ht, makeProbes(two, 9).uniform, "after a refit");
        EXPECT_TRUE(overlapping ? decided == 0 : decided > 95) << overlapping << " " << decided;
    }
    ht.build();
    EXPECT_FALSE(ht.insideQueriesPrepared(true));
}

}  // namespace

// Closest point and closest vertex against brute-force scans over every face / vertex.

#include <gtest/gtest.h>

#include <limits>

#include "bvh_test_util.h"

using namespace bvhtest;

namespace {

// Query points: random ones around the mesh, and points exactly on faces, edges and vertices.
std::vector<V3> queryPoints(const GmTriangleMesh& mesh, int count, unsigned seed) {
    std::mt19937 rng(seed);
    std::uniform_real_distribution<double> u(0.0, 1.0);
    std::vector<V3> pts;
    for (int i = 0; i < count; ++i) pts.push_back(randomPointAround(mesh, rng, 0.3));
    for (int i = 0; i < count / 4; ++i) {
        const int f = static_cast<int>(rng() % static_cast<unsigned>(mesh.getNumberFaces()));
        const V3 &a = mesh.getFaceVertex1(f), &b = mesh.getFaceVertex2(f), &c = mesh.getFaceVertex3(f);
        double s = u(rng), t = u(rng);
        if (s + t > 1) s = 1 - s, t = 1 - t;
        pts.push_back(a * (1 - s - t) + b * s + c * t);  // on the face
        pts.push_back(a * (1 - s) + b * s);                // on an edge
        pts.push_back(c);                                  // a vertex
    }
    return pts;
}

std::vector<std::pair<std::string, GmTriangleMesh>> meshes() {
    std::vector<std::pair<std::string, GmTriangleMesh>> m;
    m.emplace_back("icosphere3", qgtools::makeIcosphere(3));
    m.emplace_back("grid", qgtools::makeClothGrid(30, 20, 2.0, 1.0));
    m.emplace_back("torus", qgtools::makeTorus(40, 16));
    m.emplace_back("soup", randomSoup(500, 9));
    m.emplace_back("spot", loadData("spot.obj"));
    return m;
}

TEST(BvhClosestPoint, MatchesBruteForce) {
    for (auto& [name, mesh] : meshes()) {
        GmBoundingVolumeHierarchy h(&mesh);
        for (const V3& p : queryPoints(mesh, 400, 17)) {
            const double ref = bruteDistance(mesh, p);
            V3 closest, normal;
            int face = -1;
            double s = -1, t = -1;
            const double d = h.findClosestPoint(p, closest, normal, face, s, t, nullptr, true);
            ASSERT_GE(face, 0) << name;
            EXPECT_NEAR(std::fabs(d), ref, 1e-9) << name << " at " << p;
            // The reported point lies on the reported face with the reported parameters.
            const V3 q = mesh.getFaceVertex1(face) * (1 - s - t) + mesh.getFaceVertex2(face) * s +
                         mesh.getFaceVertex3(face) * t;
            EXPECT_NEAR((q - closest).length(), 0.0, 1e-12);
            // (The distance comes from the squared distance, which carries rounding of ~1e-17.)
            EXPECT_NEAR((closest - p).length(), std::fabs(d), 1e-8);
            EXPECT_EQ(normal, mesh.getFaceNormal(face));
            // Sign: negative exactly when p lies behind the face.
            EXPECT_EQ(std::signbit(d), (closest - p).dot(normal) > 0) << name;

            // The signed query without the inside check finds the same distance.
            bool pinched = true;
            int f2 = -1;
            V3 c2, n2;
            const double d2 = h.findClosestPoint(p, c2, f2, n2, pinched, false, true);
            EXPECT_FALSE(pinched);
            EXPECT_NEAR(std::fabs(d2), ref, 1e-9) << name;
            const double d3 = h.findClosestPointBruteForce(p, c2, f2, n2, true);
            EXPECT_NEAR(std::fabs(d3), ref, 1e-12) << name;
        }
    }
}

// Reference answer by scanning every face that `keep` admits: the smallest squared distance,
// and among exactly equal distances the smallest face index.
struct FaceAnswer {
    int face = -1;
    double d2 = DBL_MAX, s = 0.0, t = 0.0;
};
template <class Keep>
FaceAnswer scanFaces(const GmTriangleMesh& mesh, const V3& p, Keep keep) {
    FaceAnswer best;
    for (int f = 0; f < mesh.getNumberFaces(); ++f) {
        double s, t;
        const double d2 = GmGeometry::closestParametricPointOnTriangle(p, mesh.getFaceVertex1(f), mesh.getFaceVertex2(f),
                                                                       mesh.getFaceVertex3(f), s, t);
        if (d2 < best.d2 && keep(f, s, t)) best = FaceAnswer{f, d2, s, t};
    }
    return best;
}

GmTriangleMesh triangles(int count) {
    qgtools::PolygonSoup soup;
    for (int i = 0; i < count; ++i) {
        const V3 o(0.7 * i, 0.3 * (i % 2), 0.1 * i);
        for (const V3& v : {o, o + V3(1, 0, 0.2), o + V3(0.2, 1, 0)}) soup.positions.push_back(v);
        soup.triangles.push_back({3 * i, 3 * i + 1, 3 * i + 2});
    }
    return qgtools::meshFromSoup(soup);
}

TEST(BvhClosestPoint, SameFaceAndParametersAsScan) {
    // Not only the distance: the face (ties to the smallest index), its parameters and the
    // point are those of a scan, on meshes full of exact ties (grid and sphere vertices,
    // shared edges) and on small trees of every shape of the last two levels.
    auto all = meshes();
    for (int n = 1; n <= 24; ++n) all.emplace_back("triangles" + std::to_string(n), triangles(n));
    for (auto& [name, mesh] : all) {
        GmBoundingVolumeHierarchy h(&mesh);
        std::vector<V3> points = queryPoints(mesh, mesh.getNumberFaces() < 30 ? 40 : 150, 29);
        for (int v = 0; v < mesh.getNumberVertices(); v += 7) points.push_back(mesh.getVertex(v));
        for (const V3& p : points) {
            const FaceAnswer ref = scanFaces(mesh, p, [](int, double, double) { return true; });
            V3 closest, normal;
            int face = -1;
            double s = -1, t = -1;
            const double d = h.findClosestPoint(p, closest, normal, face, s, t, nullptr, true);
            ASSERT_EQ(face, ref.face) << name << " at " << p;
            EXPECT_EQ(std::fabs(d), std::sqrt(ref.d2)) << name;
            EXPECT_EQ(s, ref.s);
            EXPECT_EQ(t, ref.t);
            // The seeded search behind the signed queries agrees as well.
            GmGeometry::PointOnTriType type;
            bool pinched;
            int f2 = -1;
            V3 c2, n2;
            const double d2 = h.findClosestPointWithHint(p, c2, f2, n2, type, pinched, false, true, nullptr, 0, -1);
            EXPECT_EQ(f2, ref.face) << name << " at " << p;
            EXPECT_EQ(std::fabs(d2), std::sqrt(ref.d2));
            EXPECT_EQ(c2, closest);
        }
    }
}

TEST(BvhClosestPoint, EqualDistancesGoToTheSmallestFaceIndex) {
    // A grid vertex is at distance 0 from each of its faces; the answer is the first of them.
    GmTriangleMesh grid = qgtools::makeClothGrid(12, 9, 1.5, 1.0);
    GmBoundingVolumeHierarchy h(&grid);
    int checked = 0;
    for (int v = 0; v < grid.getNumberVertices(); ++v) {
        const GmIndexList faces = grid.getNeighborFacesToVertex(v);
        int expected = -1;
        for (const int f : faces) {
            double s, t;
            if (GmGeometry::closestParametricPointOnTriangle(grid.getVertex(v), grid.getFaceVertex1(f),
                                                             grid.getFaceVertex2(f), grid.getFaceVertex3(f), s,
                                                             t) == 0.0 &&
                (expected < 0 || f < expected))
                expected = f;
        }
        ASSERT_GE(expected, 0);
        V3 c, n;
        int face = -1;
        double s, t;
        EXPECT_EQ(h.findClosestPoint(grid.getVertex(v), c, n, face, s, t, nullptr, true), 0.0);
        EXPECT_EQ(face, expected) << "vertex " << v;
        checked += faces.size() > 1;
    }
    EXPECT_GT(checked, 50);
}

TEST(BvhClosestPoint, NormalTestsMatchFilteredScan) {
    // Each filter drops faces exactly as a scan applying it does, and the search still finds
    // the nearest face that remains.
    for (GmTriangleMesh mesh : {qgtools::makeIcosphere(3), qgtools::makeTorus(30, 12), loadData("spot.obj")}) {
        GmBoundingVolumeHierarchy h(&mesh);
        const V3 dir = V3(-0.2, 0.9, 0.4).safeNormalized();
        std::mt19937 rng(12);
        for (int i = 0; i < 150; ++i) {
            const V3 p = randomPointAround(mesh, rng, 0.3);
            for (const GmNormalTests& tests :
                 {GmNormalTests(0, 1.0, dir), GmNormalTests(-1, 0.0, V3()), GmNormalTests(1, 0.0, V3()),
                  GmNormalTests(1, 2.0, dir)}) {
                const FaceAnswer ref = scanFaces(mesh, p, [&](int f, double s, double t) {
                    const V3& n = mesh.getFaceNormal(f);
                    if (tests.directionWeight != 0.0 && n.dot(tests.direction) <= 1e-8) return false;
                    if (tests.sideMode == 0) return true;
                    const V3 c = mesh.getFaceVertex1(f) * (1 - s - t) + mesh.getFaceVertex2(f) * s +
                                 mesh.getFaceVertex3(f) * t;
                    const bool front = (c - p).dot(n) > 0.0;
                    return tests.sideMode < 0 ? !front : front;
                });
                V3 c, n;
                int face = -2;
                double s, t;
                GmNormalTests copy = tests;
                const double d = h.findClosestPoint(p, c, n, face, s, t, &copy, true);
                ASSERT_EQ(face, ref.face) << "side " << tests.sideMode << " weight " << tests.directionWeight;
                if (face >= 0) {
                    EXPECT_EQ(std::fabs(d), std::sqrt(ref.d2));
                }
            }
        }
    }
}

TEST(BvhClosestPoint, DisabledFacesMatchScan) {
    // Disabled faces scattered over the mesh (no whole subtree off) and a disabled band.
    GmTriangleMesh mesh = qgtools::makeTorus(40, 16);
    GmDisabledData scattered(&mesh), band(&mesh);
    for (int f = 0; f < mesh.getNumberFaces(); ++f) {
        if (f % 3 == 1) scattered.setFaceDisabled(f);
        if (mesh.getFaceCenter(f).y > 0.2) band.setFaceDisabled(f);
    }
    for (const GmDisabledData* mask : {&scattered, &band}) {
        GmBoundingVolumeHierarchy h(&mesh, mask, nullptr);
        for (const V3& p : queryPoints(mesh, 200, 33)) {
            const FaceAnswer ref = scanFaces(mesh, p, [&](int f, double, double) { return !mask->isFaceDisabled(f); });
            V3 c, n;
            int face = -1;
            double s, t;
            const double d = h.findClosestPoint(p, c, n, face, s, t, nullptr, false);
            ASSERT_EQ(face, ref.face);
            EXPECT_EQ(std::fabs(d), std::sqrt(ref.d2));
        }
    }
}

TEST(BvhClosestPoint, BunnyMatchesBruteForce) {
    GmTriangleMesh bunny = loadData("stanford-bunny.obj");
    GmBoundingVolumeHierarchy h(&bunny);
    for (const V3& p : queryPoints(bunny, 60, 5)) {
        V3 closest, normal;
        int face = -1;
        double s, t;
        const double d = h.findClosestPoint(p, closest, normal, face, s, t, nullptr, true);
        EXPECT_NEAR(std::fabs(d), bruteDistance(bunny, p), 1e-9);
    }
}

TEST(BvhClosestPoint, PointOnFaceEdgeVertexIsClassified) {
    GmTriangleMesh mesh = qgtools::makeIcosphere(2);
    GmBoundingVolumeHierarchy h(&mesh);
    V3 c, n;
    int face = -1;
    GmGeometry::PointOnTriType type = GmGeometry::INVALID;
    bool pinched;
    // Centroid of face 5: distance 0, INSIDE, counts as inside.
    const V3 centre = mesh.getFaceCenter(5);
    double d = h.findClosestPointWithHint(centre, c, face, n, type, pinched, false, true, nullptr, 0, -1);
    EXPECT_NEAR(d, 0.0, 1e-15);
    EXPECT_EQ(type, GmGeometry::INSIDE);
    EXPECT_TRUE(h.isInsideMesh(centre, true));
    // A vertex: a vertex type on one of its faces.
    const V3 v = mesh.getVertex(7);
    d = h.findClosestPointWithHint(v, c, face, n, type, pinched, false, true, nullptr, 0, -1);
    EXPECT_EQ(d, 0.0);
    ASSERT_GE(face, 0);
    ASSERT_TRUE(type >= GmGeometry::ON_VERTEX_1 && type <= GmGeometry::ON_VERTEX_3) << type;
    EXPECT_EQ(mesh.getFace(face).vertices[type - GmGeometry::ON_VERTEX_1], 7);
    // Just outside the vertex along its normal: the vertex normal decides (outside).
    const V3 out = v + mesh.getVertexNormal(7) * 1e-3;
    EXPECT_FALSE(h.isInsideMesh(out, true));
    EXPECT_TRUE(h.isInsideMesh(v - mesh.getVertexNormal(7) * 1e-3, true));
}

TEST(BvhClosestPoint, ClassifyWeights) {
    using G = GmGeometry::PointOnTriType;
    const double e = 1e-15;  // below the tolerance
    EXPECT_EQ(GmBoundingVolumeHierarchy::classifyWeights(0.2, 0.3, 0.5), G::INSIDE);
    EXPECT_EQ(GmBoundingVolumeHierarchy::classifyWeights(1, e, 0), G::ON_VERTEX_1);
    EXPECT_EQ(GmBoundingVolumeHierarchy::classifyWeights(0, 1, 0), G::ON_VERTEX_2);
    EXPECT_EQ(GmBoundingVolumeHierarchy::classifyWeights(e, 0, 1), G::ON_VERTEX_3);
    EXPECT_EQ(GmBoundingVolumeHierarchy::classifyWeights(0.5, 0.5, 0), G::ON_EDGE_1);
    EXPECT_EQ(GmBoundingVolumeHierarchy::classifyWeights(0, 0.5, 0.5), G::ON_EDGE_2);
    EXPECT_EQ(GmBoundingVolumeHierarchy::classifyWeights(0.5, 0, 0.5), G::ON_EDGE_3);
    EXPECT_EQ(GmBoundingVolumeHierarchy::classifyWeights(0.5, 0.5, 0.1), G::INVALID);
    EXPECT_EQ(GmBoundingVolumeHierarchy::classifyWeights(0.5, 0.5, 3e-14), G::INVALID);
    EXPECT_EQ(GmBoundingVolumeHierarchy::classifyWeights(0.5, 0.5 - 3e-14, 3e-14), G::INSIDE);
}

TEST(BvhClosestPoint, NormalTestsFilterFaces) {
    GmTriangleMesh mesh = qgtools::makeIcosphere(3);
    GmBoundingVolumeHierarchy h(&mesh);
    std::mt19937 rng(3);
    const V3 dir = V3(0.3, -0.5, 0.8).safeNormalized();
    for (int i = 0; i < 200; ++i) {
        const V3 p = randomPointAround(mesh, rng, 0.5);
        V3 c, n;
        int face;
        double s, t;
        // Direction filter: only faces whose normal points along dir.
        GmNormalTests facing(0, 1.0, dir);
        double d = h.findClosestPoint(p, c, n, face, s, t, &facing, true);
        const double refFacing = bruteDistance(mesh, p, [&](int f) { return mesh.getFaceNormal(f).dot(dir) <= 1e-8; });
        ASSERT_GE(face, 0);
        EXPECT_GT(n.dot(dir), 1e-8);
        EXPECT_NEAR(std::fabs(d), refFacing, 1e-9);
        // Side filter > 0 keeps faces that p lies behind: the answer is then negative.
        GmNormalTests behind(1, 0.0, V3());
        d = h.findClosestPoint(p, c, n, face, s, t, &behind, true);
        if (face >= 0) {
            EXPECT_LE(d, 0.0);
        }
        GmNormalTests front(-1, 0.0, V3());
        d = h.findClosestPoint(p, c, n, face, s, t, &front, true);
        if (face >= 0) {
            EXPECT_GE(d, 0.0);
        }
    }
}

TEST(BvhClosestPoint, HintWalkOnConvexMeshes) {
    // From a face that the outside point lies in front of, the walk over a convex mesh ends on
    // the closest face.
    for (GmTriangleMesh mesh : {qgtools::makeIcosphere(3), qgtools::makeCube(V3(-1, -2, -1), V3(2, 1, 0.5)),
                                qgtools::makeIcosphere(1, 2.0)}) {
        GmBoundingVolumeHierarchy h(&mesh);
        std::mt19937 rng(21);
        int tested = 0;
        for (int i = 0; i < 300; ++i) {
            const V3 p = randomPointAround(mesh, rng, 1.0);
            if (windingNumber(mesh, p) > 0.5) continue;
            int hint = -1;
            for (int tries = 0; tries < 100 && hint < 0; ++tries) {
                const int f = static_cast<int>(rng() % static_cast<unsigned>(mesh.getNumberFaces()));
                if ((p - mesh.getFaceCenter(f)).dot(mesh.getFaceNormal(f)) > 0) hint = f;
            }
            if (hint < 0) continue;
            V3 c, n;
            int face = -1;
            GmGeometry::PointOnTriType type;
            bool pinched;
            const double d = h.findClosestPointWithHint(p, c, face, n, type, pinched, false, true, nullptr, 0, hint);
            ASSERT_GE(face, 0);
            EXPECT_NEAR(std::fabs(d), bruteDistance(mesh, p), 1e-9) << "hint " << hint;
            ++tested;
        }
        EXPECT_GT(tested, 100);
    }
    // A hint whose closest point is interior to it stops at once, without searching the tree.
    GmTriangleMesh grid = qgtools::makeClothGrid(4, 4);
    GmBoundingVolumeHierarchy hg(&grid);
    V3 c, n;
    int face = -1;
    GmGeometry::PointOnTriType type;
    bool pinched;
    const V3 p = grid.getFaceCenter(0) + V3(0, 0, 2);
    EXPECT_NEAR(hg.findClosestPointWithHint(p, c, face, n, type, pinched, false, true, nullptr, 0, 0), 2.0, 1e-12);
    EXPECT_EQ(face, 0);
    EXPECT_EQ(type, GmGeometry::INSIDE);
    // From a far face of the grid the walk crosses edges and vertices towards the point.
    EXPECT_NEAR(std::fabs(hg.findClosestPointWithHint(V3(0.9, 0.95, 0.3), c, face, n, type, pinched, false, true,
                                                      nullptr, 0, 0)),
                0.3, 1e-12);
}

TEST(BvhClosestPoint, DisabledFacesAreSkipped) {
    GmTriangleMesh mesh = qgtools::makeClothGrid(16, 16);
    GmDisabledData disabled(&mesh);
    for (int f = 0; f < mesh.getNumberFaces(); ++f)
        if (mesh.getFaceCenter(f).x < 0.5) disabled.setFaceDisabled(f);
    GmBoundingVolumeHierarchy h(&mesh, &disabled, nullptr);
    std::mt19937 rng(8);
    for (int i = 0; i < 200; ++i) {
        const V3 p = randomPointAround(mesh, rng, 0.2);
        V3 c, n;
        int face;
        double s, t;
        const double d = h.findClosestPoint(p, c, n, face, s, t, nullptr, false);
        ASSERT_GE(face, 0);
        EXPECT_FALSE(disabled.isFaceDisabled(face));
        EXPECT_NEAR(std::fabs(d),
                    bruteDistance(mesh, p, [&](int f) { return disabled.isFaceDisabled(f); }), 1e-9);
        const double all = h.findClosestPoint(p, c, n, face, s, t, nullptr, true);
        EXPECT_NEAR(std::fabs(all), bruteDistance(mesh, p), 1e-9);
    }
    // Everything disabled: nothing is found.
    GmDisabledData everything(&mesh);
    for (int f = 0; f < mesh.getNumberFaces(); ++f) everything.setFaceDisabled(f);
    h.setDisabledData(&everything);
    V3 c, n;
    int face = 5;
    double s, t;
    EXPECT_EQ(h.findClosestPoint(V3(0.5, 0.5, 1), c, n, face, s, t, nullptr, false), DBL_MAX);
    EXPECT_EQ(face, -1);
}

TEST(BvhClosestVertex, MatchesBruteForce) {
    for (auto& [name, mesh] : meshes()) {
        GmBoundingVolumeHierarchy h(&mesh);
        GmBoundingTree tree(&mesh);
        for (const V3& p : queryPoints(mesh, 200, 4)) {
            double best = DBL_MAX;
            for (const V3& v : mesh.getVertices()) best = std::min(best, (v - p).length());
            int vertex = -1;
            const double d = h.findClosestVertex(p, vertex, true);
            ASSERT_GE(vertex, 0);
            EXPECT_NEAR(d, best, 1e-9) << name;
            EXPECT_NEAR((mesh.getVertex(vertex) - p).length(), d, 1e-12);
            int v2 = -1;
            EXPECT_EQ(tree.getNearestVertex(p, v2, true), d);
        }
    }
}

// Nearest vertex among those of the faces `keep` admits; ties to the smallest index.
template <class Keep>
int scanVertices(const GmTriangleMesh& mesh, const V3& p, Keep keep) {
    int best = -1;
    double bestD2 = DBL_MAX;
    for (int f = 0; f < mesh.getNumberFaces(); ++f) {
        if (!keep(f)) continue;
        for (const int v : mesh.getFace(f).vertices) {
            const double d2 = (mesh.getVertex(v) - p).lengthSquared();
            if (d2 < bestD2 || (d2 == bestD2 && v < best)) {
                best = v;
                bestD2 = d2;
            }
        }
    }
    return best;
}

TEST(BvhClosestVertex, SameVertexAsScan) {
    // The vertex itself, ties (cell centres of a grid are equidistant from four vertices) to
    // the smallest index; with disabled faces only vertices of enabled faces count.
    for (auto& [name, mesh] : meshes()) {
        GmDisabledData mask(&mesh);
        for (int f = 0; f < mesh.getNumberFaces(); ++f)
            if (mesh.getFaceCenter(f).x > 0.3) mask.setFaceDisabled(f);
        GmBoundingVolumeHierarchy h(&mesh, &mask, nullptr);
        std::vector<V3> points = queryPoints(mesh, 120, 6);
        for (int f = 0; f < mesh.getNumberFaces(); f += 5) points.push_back(mesh.getFaceCenter(f));
        for (const V3& p : points) {
            int vertex = -1;
            h.findClosestVertex(p, vertex, true);
            EXPECT_EQ(vertex, scanVertices(mesh, p, [](int) { return true; })) << name << " at " << p;
            h.findClosestVertex(p, vertex, false);
            EXPECT_EQ(vertex, scanVertices(mesh, p, [&](int f) { return !mask.isFaceDisabled(f); }))
                << name << " at " << p;
        }
    }
    GmTriangleMesh grid = qgtools::makeClothGrid(8, 8);
    GmBoundingVolumeHierarchy hg(&grid);
    int vertex = -1;
    EXPECT_NEAR(hg.findClosestVertex(V3(0.5625, 0.4375, 0.0), vertex, true), std::sqrt(2.0) / 16, 1e-15);
    EXPECT_EQ(vertex, 3 * 9 + 4);  // of (4, 3), (5, 3), (4, 4), (5, 4): row 3 first
}

// ---- Searches on the compact box copy ------------------------------------------------------

// The face and vertex searches of a prepared tree against scans: same face, parameters and
// vertex (ties to the smallest index), with and without disabled faces.
void expectSearchesMatchScans(const std::string& name, const GmTriangleMesh& mesh, const GmBoundingVolumeHierarchy& h,
                              const std::vector<V3>& points, const GmDisabledData* mask) {
    auto enabled = [&](int f) { return mask == nullptr || !mask->isFaceDisabled(f); };
    for (const V3& p : points) {
        for (const bool includeDisabled : {true, false}) {
            const FaceAnswer ref =
                scanFaces(mesh, p, [&](int f, double, double) { return includeDisabled || enabled(f); });
            V3 c, n;
            int face = -1;
            double s = -1, t = -1;
            const double d = h.findClosestPoint(p, c, n, face, s, t, nullptr, includeDisabled);
            ASSERT_EQ(face, ref.face) << name << " at " << p << " includeDisabled " << includeDisabled;
            EXPECT_EQ(std::fabs(d), std::sqrt(ref.d2)) << name;
            EXPECT_EQ(s, ref.s);
            EXPECT_EQ(t, ref.t);
            int vertex = -1;
            h.findClosestVertex(p, vertex, includeDisabled);
            EXPECT_EQ(vertex, scanVertices(mesh, p, [&](int f) { return includeDisabled || enabled(f); }))
                << name << " at " << p;
        }
    }
}

// Points around the mesh, on its features, outside its root box, and on the box's corners.
// (Equal distances go to the smallest face index while their rounding stays below the search
// slack, so the points stay within a few hundred units of the mesh.)
std::vector<V3> copyQueryPoints(const GmTriangleMesh& mesh, const GmBoundingVolumeHierarchy& h, unsigned seed) {
    std::vector<V3> points = queryPoints(mesh, 120, seed);
    const GmAxisAlignedBox& b = h.getRootBoundingVolume();
    const V3 mn(b.minX, b.minY, b.minZ), mx(b.maxX, b.maxY, b.maxZ), size = mx - mn;
    const double reach = std::max({size.x, size.y, size.z});
    for (const V3& dir : {V3(1, 0, 0), V3(0, -1, 0), V3(0, 0, 1), V3(-1, 1, -1)})
        for (const double k : {0.5, 3.0, 100.0})
            if (k * reach < 500.0) points.push_back((mn + mx) * 0.5 + dir * (k * reach));
    for (int corner = 0; corner < 8; ++corner)
        points.push_back(V3(corner & 1 ? mx.x : mn.x, corner & 2 ? mx.y : mn.y, corner & 4 ? mx.z : mn.z));
    return points;
}

GmTriangleMesh moved(GmTriangleMesh mesh, const V3& offset, double scale) {
    std::vector<V3> p = mesh.getVertices();
    for (V3& v : p) v = v * scale + offset;
    mesh.swapVertices(p);
    return mesh;
}

TEST(BvhPointSearchCopy, SameAnswersAsScans) {
    // Flat meshes (the grid spans no height), far from the origin, tiny and large ones, and
    // small trees of every shape of the last two levels.
    auto all = meshes();
    all.emplace_back("torus far away", moved(qgtools::makeTorus(40, 16), V3(3e6, -1e6, 5e5), 1.0));
    all.emplace_back("tiny sphere", moved(qgtools::makeIcosphere(3), V3(1e-3, 0, 0), 1e-6));
    all.emplace_back("large grid", moved(qgtools::makeClothGrid(24, 24), V3(0, 0, 0), 100.0));
    for (int n = 1; n <= 9; ++n) all.emplace_back("triangles" + std::to_string(n), triangles(n));
    for (auto& [name, mesh] : all) {
        GmDisabledData mask(&mesh);
        for (int f = 0; f < mesh.getNumberFaces(); ++f)
            if (f % 3 == 1 || mesh.getFaceCenter(f).x > mesh.getFaceCenter(0).x) mask.setFaceDisabled(f);
        GmBoundingVolumeHierarchy h(&mesh, &mask, nullptr);
        ASSERT_TRUE(h.preparePointSearches()) << name;
        expectSearchesMatchScans(name, mesh, h, copyQueryPoints(mesh, h, 41), &mask);
    }
}

TEST(BvhPointSearchCopy, FollowsRefitsMasksAndCopies) {
    GmTriangleMesh mesh = qgtools::makeTorus(30, 12);
    GmBoundingVolumeHierarchy h(&mesh);
    ASSERT_TRUE(h.preparePointSearches());
    const std::vector<V3> points = copyQueryPoints(mesh, h, 3);

    // Every vertex moves: the old copy would send the searches to the old places.
    std::vector<V3> p = jitteredPositions(mesh, 0.3, 5);
    mesh.swapVertices(p);
    h.refit();
    expectSearchesMatchScans("refit, on demand", mesh, h, points, nullptr);
    ASSERT_TRUE(h.preparePointSearches());
    expectSearchesMatchScans("refit, prepared", mesh, h, points, nullptr);

    // A mask set after the copy was made.
    GmDisabledData mask(&mesh);
    for (int f = 0; f < mesh.getNumberFaces(); f += 2) mask.setFaceDisabled(f);
    for (int f = 0; f < mesh.getNumberFaces() / 3; ++f) mask.setFaceDisabled(f);
    h.setDisabledData(&mask);
    expectSearchesMatchScans("mask", mesh, h, points, &mask);
    ASSERT_TRUE(h.preparePointSearches());
    expectSearchesMatchScans("mask, prepared", mesh, h, points, &mask);

    // Copies and assignments of a prepared tree, then rebuilt elsewhere.
    GmBoundingVolumeHierarchy copy(h);
    expectSearchesMatchScans("copy", mesh, copy, points, &mask);
    GmTriangleMesh other = qgtools::makeIcosphere(3);
    GmBoundingVolumeHierarchy assigned(&other);
    ASSERT_TRUE(assigned.preparePointSearches());
    assigned = h;
    expectSearchesMatchScans("assigned", mesh, assigned, points, &mask);
    mesh.swapVertices(p = jitteredPositions(mesh, 0.2, 6));
    h.build(&mask, nullptr);
    expectSearchesMatchScans("rebuilt", mesh, h, points, &mask);
}

TEST(BvhPointSearchCopy, InfiniteBoxesKeepTheNodeSearch) {
    // Boxes padded without end cannot be put on a grid; the searches read the nodes and find
    // what a scan finds.
    GmTriangleMesh mesh = qgtools::makeIcosphere(2);
    GmBoundingVolumeHierarchy h(&mesh, std::numeric_limits<double>::infinity());
    EXPECT_FALSE(h.preparePointSearches());
    std::mt19937 rng(2);
    for (int i = 0; i < 300; ++i) {
        const V3 q = randomPointAround(mesh, rng, 0.3);
        const FaceAnswer ref = scanFaces(mesh, q, [](int, double, double) { return true; });
        V3 c, n;
        int face = -1;
        double s, t;
        h.findClosestPoint(q, c, n, face, s, t, nullptr, true);
        EXPECT_EQ(face, ref.face) << q;
    }
}

TEST(BvhBadInput, NonFiniteQueriesReturnNothing) {
    GmTriangleMesh mesh = qgtools::makeIcosphere(2);
    GmBoundingTree tree(&mesh);
    const double nan = std::numeric_limits<double>::quiet_NaN(), inf = std::numeric_limits<double>::infinity();
    for (const V3& p : {V3(nan, 0, 0), V3(0, inf, 0), V3(-inf, nan, inf)}) {
        V3 c, n;
        int face = 3;
        double s, t;
        EXPECT_EQ(tree.findClosestPoint(p, c, n, face, s, t, nullptr, true), DBL_MAX);
        EXPECT_EQ(face, -1);
        bool pinched;
        face = 3;
        EXPECT_EQ(tree.findClosestPoint(p, c, face, n, pinched, false, true), DBL_MAX);
        EXPECT_EQ(face, -1);
        EXPECT_FALSE(tree.isInsideMesh(p, true));
        int v = 2;
        EXPECT_EQ(tree.getNearestVertex(p, v, true), DBL_MAX);
        EXPECT_EQ(v, -1);
        std::vector<GmPointIntersectionInfo> hits;
        EXPECT_FALSE(tree.intersect(GmRay(p, V3(1, 0, 0)), hits, false, true));
        EXPECT_FALSE(tree.intersect(GmRayAxis<0, 0, -1>(p), hits, false, true));
        EXPECT_FALSE(tree.intersect(GmRay(V3(0, 0, 0), p), hits, false, true));
    }
}

}  // namespace

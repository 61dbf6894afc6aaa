// Closest point and closest vertex against scans over every face: the same face (ties to the
// smallest index), parameters, distance and vertex, on the node walk and on the compact copy.

#include <gtest/gtest.h>

#include <limits>
#include <memory>

#include "bvh_test_util.h"

using namespace bvhtest;

namespace {

// Every query form against the scans, with and without the disabled faces, and normal filters;
// also on a fresh copy per point, whose first searches read the nodes, not the compact copy.
void expectMatchesScans(const std::string& name, const GmTriangleMesh& mesh, const GmBoundingVolumeHierarchy& h,
                        const std::vector<V3>& points, const GmDisabledData* mask, bool fresh = true) {
    auto enabled = [&](int f) { return mask == nullptr || !mask->isFaceDisabled(f); };
    // Far beyond the unit scale the scan's own squared distance carries rounding of its size.
    const double diag = meshBounds(mesh).getExtent().length(), tol = diag > 1e3 ? 1e-8 * diag : 0.0;
    for (const V3& p : points) {
        std::unique_ptr<GmBoundingVolumeHierarchy> copy(fresh ? new GmBoundingVolumeHierarchy(h) : nullptr);
        std::vector<const GmBoundingVolumeHierarchy*> trees{&h};
        if (copy) trees.push_back(copy.get());
        for (const bool inc : {true, false}) {
            SCOPED_TRACE(name + " includeDisabled " + std::to_string(inc));
            const FaceAnswer ref = scanFaces(mesh, p, [&](int f, double, double) { return inc || enabled(f); });
            const int refVertex = scanVertices(mesh, p, [&](int f) { return inc || enabled(f); });
            for (const GmBoundingVolumeHierarchy* tree : trees) {
                V3 closest, normal;
                int face = -1, vertex = -1;
                double s = -1, t = -1;
                const double d = tree->findClosestPoint(p, closest, normal, face, s, t, nullptr, inc);
                ASSERT_EQ(face, ref.face) << " at " << p;
                EXPECT_EQ(std::fabs(d), ref.distance());
                if (face >= 0) { EXPECT_TRUE(s == ref.s && t == ref.t) << s << " " << t << " at " << p; }
                const double vd = tree->findClosestVertex(p, vertex, inc);
                ASSERT_EQ(vertex, refVertex) << " at " << p;
                if (face < 0 || !inc) continue;
                EXPECT_NEAR(vd, (mesh.getVertex(vertex) - p).length(), 1e-12 * (1 + vd));
                // The point lies on the face at the parameters; the sign says which side p is on.
                const V3 q = mesh.getFaceVertex1(face) * (1 - s - t) + mesh.getFaceVertex2(face) * s +
                             mesh.getFaceVertex3(face) * t;
                EXPECT_NEAR((q - closest).length(), 0.0, 1e-12 * (1 + q.length()));
                EXPECT_EQ(normal, mesh.getFaceNormal(face));
                EXPECT_EQ(std::signbit(d), (closest - p).dot(normal) > 0);
            }
            if (!inc || ref.face < 0) continue;
            // The seeded search behind the signed queries.
            bool pinched = true;
            int f2 = -1;
            V3 c2, n2;
            EXPECT_NEAR(std::fabs(h.findClosestPoint(p, c2, f2, n2, pinched, false, true)), ref.distance(), tol);
            EXPECT_TRUE(!pinched && (tol > 0.0 || f2 == ref.face)) << " at " << p;
            if (!fresh) continue;
            // Normal filters drop faces exactly as a scan applying them does; a side filter fixes the sign.
            const V3 dir = V3(-0.2, 0.9, 0.4).safeNormalized();
            for (const GmNormalTests& tests : {GmNormalTests(0, 1.0, dir), GmNormalTests(-1, 0.0, V3()),
                                               GmNormalTests(1, 0.0, V3()), GmNormalTests(1, 2.0, dir)}) {
                const FaceAnswer fr = scanFaces(mesh, p, [&](int f, double s, double t) {
                    const V3& n = mesh.getFaceNormal(f);
                    if (tests.directionWeight != 0.0 && n.dot(tests.direction) <= 1e-8) return false;
                    const V3 c = mesh.getFaceVertex1(f) * (1 - s - t) + mesh.getFaceVertex2(f) * s +
                                 mesh.getFaceVertex3(f) * t;
                    return tests.sideMode == 0 || ((c - p).dot(n) > 0.0) == (tests.sideMode > 0);
                });
                GmNormalTests copy = tests;
                double s, t;
                const double d = h.findClosestPoint(p, c2, n2, f2, s, t, &copy, true);
                ASSERT_EQ(f2, fr.face) << "side " << tests.sideMode << " weight " << tests.directionWeight;
                if (f2 < 0) continue;
                EXPECT_EQ(std::fabs(d), fr.distance());
                if (tests.sideMode != 0 && d != 0.0) { EXPECT_EQ(d < 0.0, tests.sideMode > 0); }
            }
        }
    }
}

// The compact copy, made on demand, then follows a move of every vertex and a new mask; so do
// assigned trees. Boxes padded without end cannot be put on a grid: those searches read the nodes.
TEST(BvhClosestPoint, SameAnswersAsScans) {
    std::vector<NamedMesh> meshes = testMeshes();
    meshes.push_back({"torus far away", transformed(qgtools::makeTorus(40, 16), V3(3e6, -1e6, 5e5), 1.0)});
    for (int n = 1; n <= 12; ++n) meshes.push_back({"soup" + std::to_string(n), randomSoup(n, n)});  // every shape
    for (NamedMesh& m : meshes) {
        const GmTriangleMesh& mesh = m.mesh;
        GmDisabledData mask(&m.mesh), other(&m.mesh);
        for (int f = 0; f < mesh.getNumberFaces(); ++f) {
            if (f % 3 == 1 || mesh.getFaceCenter(f).x > mesh.getFaceCenter(0).x) mask.setFaceDisabled(f);
            if (f % 2 == 0 || f < mesh.getNumberFaces() / 3) other.setFaceDisabled(f);  // all of a single face
        }
        GmBoundingVolumeHierarchy h(&m.mesh, &mask, nullptr);
        const std::vector<V3> points = queryPoints(mesh, mesh.getNumberFaces() < 30 ? 40 : 80, 29);
        expectMatchesScans(m.name, mesh, h, points, &mask);
        const std::vector<V3> few(points.begin(), points.begin() + 40);
        m.mesh.setVertices(jitteredPositions(mesh, 0.02 * meshBounds(mesh).getExtent().length(), 5));
        h.refit();
        h.setDisabledData(&other);
        expectMatchesScans(m.name + " moved", mesh, h, few, &other, false);
        GmBoundingVolumeHierarchy assigned(&m.mesh), infinite(&m.mesh, std::numeric_limits<double>::infinity());
        ASSERT_TRUE(assigned.preparePointSearches());
        assigned = h;
        expectMatchesScans(m.name + " assigned", mesh, assigned, few, &other, false);
        EXPECT_FALSE(infinite.preparePointSearches());
        expectMatchesScans(m.name + " infinite boxes", mesh, infinite, few, nullptr, false);
    }
}

TEST(BvhClosestPoint, HintWalk) {
    V3 c, n;
    int face = -1;
    GmGeometry::PointOnTriType type;
    bool pinched;
    auto walk = [&](const GmBoundingVolumeHierarchy& h, const V3& p, int hint) {
        return h.findClosestPointWithHint(p, c, face, n, type, pinched, false, true, nullptr, 0, hint);
    };
    // From a face that an outside point lies in front of, the walk over a convex mesh ends on the
    // closest face.
    for (GmTriangleMesh mesh : {qgtools::makeIcosphere(3), qgtools::makeCube(V3(-1, -2, -1), V3(2, 1, 0.5)),
                                qgtools::makeIcosphere(1, 2.0)}) {
        GmBoundingVolumeHierarchy h(&mesh);
        std::mt19937 rng(21);
        int tested = 0;
        for (int i = 0; i < 600; ++i) {
            const V3 p = randomPointAround(mesh, rng, 1.0);
            const int hint = static_cast<int>(rng() % static_cast<unsigned>(mesh.getNumberFaces()));
            if ((p - mesh.getFaceCenter(hint)).dot(mesh.getFaceNormal(hint)) <= 0 || windingNumber(mesh, p) > 0.5)
                continue;
            EXPECT_NEAR(std::fabs(walk(h, p, hint)), bruteDistance(mesh, p), 1e-9) << "hint " << hint;
            ++tested;
        }
        EXPECT_GT(tested, 100);
    }
    // A hint whose closest point is interior to it stops there; from a far face of a grid the walk
    // crosses edges and vertices towards the point.
    GmTriangleMesh grid = qgtools::makeClothGrid(4, 4);
    GmBoundingVolumeHierarchy hg(&grid);
    EXPECT_NEAR(walk(hg, grid.getFaceCenter(0) + V3(0, 0, 2), 0), 2.0, 1e-12);
    EXPECT_TRUE(face == 0 && type == GmGeometry::INSIDE);
    EXPECT_NEAR(std::fabs(walk(hg, V3(0.9, 0.95, 0.3), 0)), 0.3, 1e-12);
    EXPECT_EQ(walk(hg, grid.getVertex(7), -1), 0.0);  // on a vertex: a vertex type naming it
    ASSERT_TRUE(face >= 0 && type >= GmGeometry::ON_VERTEX_1 && type <= GmGeometry::ON_VERTEX_3) << type;
    EXPECT_EQ(grid.getFace(face).vertices[type - GmGeometry::ON_VERTEX_1], 7);
}

TEST(BvhClosestPoint, ClassifyWeights) {
    using G = GmGeometry::PointOnTriType;
    const double e = 1e-15;  // below the tolerance
    const struct {
        double w1, w2, w3;
        G type;
    } cases[] = {{0.2, 0.3, 0.5, G::INSIDE},    {1, e, 0, G::ON_VERTEX_1},     {0, 1, 0, G::ON_VERTEX_2},
                 {e, 0, 1, G::ON_VERTEX_3},     {0.5, 0.5, 0, G::ON_EDGE_1},   {0, 0.5, 0.5, G::ON_EDGE_2},
                 {0.5, 0, 0.5, G::ON_EDGE_3},   {0.5, 0.5, 0.1, G::INVALID},   {0.5, 0.5, 3e-14, G::INVALID},
                 {0.5, 0.5 - 3e-14, 3e-14, G::INSIDE}};
    for (const auto& c : cases)
        EXPECT_EQ(GmBoundingVolumeHierarchy::classifyWeights(c.w1, c.w2, c.w3), c.type) << c.w1 << " " << c.w2 << " " << c.w3;
}

}  // namespace

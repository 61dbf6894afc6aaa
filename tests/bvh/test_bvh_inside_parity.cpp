// Inside test by ray parity: the answers equal the closest-point decision on meshes that allow
// it, meshes that do not are refused, the check follows refits and masks, and concurrent
// queries agree with serial ones.

#include <gtest/gtest.h>

#include <thread>

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

// The defined answer: the signed distance of the full closest-point search with the inside check.
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

qgtools::PolygonSoup shifted(qgtools::PolygonSoup s, const V3& offset) {
    for (V3& p : s.positions) p += offset;
    return s;
}

double signedVolume(const GmTriangleMesh& mesh) {
    double v = 0.0;
    for (int f = 0; f < mesh.getNumberFaces(); ++f)
        v += mesh.getFaceVertex1(f).dot(mesh.getFaceVertex2(f).cross(mesh.getFaceVertex3(f)));
    return v / 6.0;
}

// Query points of every kind the inside test meets: uniform in the grown bounds, on faces and
// at small distances on either side, at vertices and edge midpoints, points sharing
// coordinates with vertices (axis rays through vertices and edges), and outside the root box.
struct Probes {
    std::vector<V3> uniform, surface, near, away, aligned, outside;
};

Probes makeProbes(const GmTriangleMesh& mesh, unsigned seed) {
    Probes pr;
    std::mt19937 rng(seed);
    std::uniform_real_distribution<double> u(0.0, 1.0);
    const GmAxisAlignedBox b = meshBounds(mesh);
    const V3 mn(b.minX, b.minY, b.minZ), mx(b.maxX, b.maxY, b.maxZ);
    const double diag = (mx - mn).length();
    auto anyFace = [&] { return static_cast<int>(rng() % static_cast<unsigned>(mesh.getNumberFaces())); };
    auto anyVertex = [&] { return static_cast<int>(rng() % static_cast<unsigned>(mesh.getNumberVertices())); };

    for (int i = 0; i < 500; ++i) pr.uniform.push_back(randomPointAround(mesh, rng, 0.1));
    for (int i = 0; i < 120; ++i) {
        const int f = anyFace();
        double s = u(rng), t = u(rng);
        if (s + t > 1.0) {
            s = 1.0 - s;
            t = 1.0 - t;
        }
        const V3 q = mesh.getFaceVertex1(f) * (1.0 - s - t) + mesh.getFaceVertex2(f) * s + mesh.getFaceVertex3(f) * t;
        const V3 n = mesh.getFaceNormal(f);
        pr.surface.push_back(q);
        for (const double d : {1e-12, 1e-10, 1e-8}) {
            pr.near.push_back(q + n * (d * diag));
            pr.near.push_back(q - n * (d * diag));
        }
        for (const double d : {1e-6, 1e-4}) {
            pr.away.push_back(q + n * (d * diag));
            pr.away.push_back(q - n * (d * diag));
        }
    }
    for (int i = 0; i < 60; ++i) {
        pr.surface.push_back(mesh.getVertex(anyVertex()));
        const int e = static_cast<int>(rng() % static_cast<unsigned>(mesh.getNumberEdges()));
        pr.surface.push_back((mesh.getEdgeVertexFrom(e) + mesh.getEdgeVertexTo(e)) * 0.5);
    }
    for (int i = 0; i < 200; ++i) {
        const V3& a = mesh.getVertex(anyVertex());
        const V3& c = mesh.getVertex(anyVertex());
        const int k = static_cast<int>(rng() % 3u);
        V3 p = a;
        p[k] = mn[k] + (mx[k] - mn[k]) * u(rng);  // the ray along k passes through vertex a
        pr.aligned.push_back(p);
        V3 q(a.x, c.y, mn.z + (mx.z - mn.z) * u(rng));  // coordinates of two vertices
        pr.aligned.push_back(q);
        const V3 m = (a + c) * 0.5;
        V3 r = m;
        r[k] = mn[k] + (mx[k] - mn[k]) * u(rng);  // near or through the edge a-c, when it is one
        pr.aligned.push_back(r);
    }
    for (int i = 0; i < 40; ++i) {
        V3 p = randomPointAround(mesh, rng, 0.0);
        const int k = static_cast<int>(rng() % 3u);
        p[k] = (i % 2 ? mx[k] : mn[k]) + (i % 2 ? 1.0 : -1.0) * diag * (i % 4 < 2 ? 1e-3 : 2.0);
        pr.outside.push_back(p);
    }
    return pr;
}

// Every probe: isInsideMesh equals the defined answer, and so does the ray decision whenever it
// decides. Returns the percentage of the probes in the root box that the rays decided.
int expectSameAnswers(const ParityTree& h, const std::vector<V3>& points, const std::string& what,
                      bool includeDisabled = true) {
    int inBox = 0, decided = 0;
    for (const V3& p : points) {
        const bool expected = definedInside(h, p, includeDisabled);
        EXPECT_EQ(h.isInsideMesh(p, includeDisabled), expected) << what << " at " << p;
        const int r = h.byRays(p, includeDisabled);
        if (r >= 0) {
            EXPECT_EQ(r != 0, expected) << what << " (rays) at " << p;
        }
        if (h.inRootBox(p)) {
            ++inBox;
            decided += r >= 0;
        }
    }
    return inBox > 0 ? 100 * decided / inBox : 100;
}

std::vector<std::pair<std::string, GmTriangleMesh>> certifiedMeshes() {
    std::vector<std::pair<std::string, GmTriangleMesh>> m;
    m.emplace_back("icosphere", qgtools::makeIcosphere(3));
    m.emplace_back("torus", qgtools::makeTorus(48, 20));
    m.emplace_back("cube", qgtools::makeCube());
    m.emplace_back("spot", loadData("spot.obj"));
    m.emplace_back("three parts", joined({qgtools::icosphereSoup(2, 1.0), qgtools::icosphereSoup(2, 0.5, V3(2.6, 0, 0)),
                                          shifted(qgtools::torusSoup(24, 12, 0.7, 0.2), V3(0.5, 2.2, 0.3))}));
    return m;
}

// ---- Meshes that allow the ray test ------------------------------------------------------

TEST(BvhInsideParity, CertifiedMeshesGiveTheDefinedAnswers) {
    for (auto& [name, mesh] : certifiedMeshes()) {
        ParityTree h(&mesh);
        EXPECT_FALSE(h.insideQueriesPrepared(true)) << name;
        ASSERT_TRUE(h.prepareInsideQueries(true)) << name;
        EXPECT_TRUE(h.insideQueriesPrepared(true)) << name;
        EXPECT_TRUE(h.prepareInsideQueries(false)) << name;  // no mask

        const Probes pr = makeProbes(mesh, 11);
        EXPECT_GT(expectSameAnswers(h, pr.uniform, name + " uniform"), 95) << name;
        EXPECT_GT(expectSameAnswers(h, pr.away, name + " away"), 90) << name;
        // (The cube's aligned points lie on its surface.)
        const int aligned = expectSameAnswers(h, pr.aligned, name + " aligned");
        if (name != "cube") {
            EXPECT_GT(aligned, 50) << name;
        }
        expectSameAnswers(h, pr.outside, name + " outside");
        for (const V3& p : pr.outside) EXPECT_EQ(h.byRays(p, true), 0) << name << " at " << p;

        // On and very near the surface the search decides (distance 0 counts as inside).
        EXPECT_EQ(expectSameAnswers(h, pr.near, name + " near"), 0) << name;
        EXPECT_EQ(expectSameAnswers(h, pr.surface, name + " surface"), 0) << name;
        for (int v = 0; v < mesh.getNumberVertices(); v += 7)
            EXPECT_TRUE(h.isInsideMesh(mesh.getVertex(v), true)) << name;
    }
}

TEST(BvhInsideParity, RaysThroughEdgesAndVerticesTryAnotherAxis) {
    // The unit cube: faces split along diagonals, so many axis rays from points with shared
    // coordinates run through edges and corners.
    GmTriangleMesh cube = qgtools::makeCube();
    ParityTree h(&cube);
    ASSERT_TRUE(h.prepareInsideQueries(true));
    std::vector<V3> points;
    for (const double a : {0.0, 0.25, 0.5, 1.0})
        for (const double b : {0.0, 0.25, 0.5, 1.0})
            for (const double c : {0.125, 0.5, 0.75, -0.5, 1.5}) {
                points.emplace_back(a, b, c);
                points.emplace_back(c, a, b);
                points.emplace_back(b, c, a);
            }
    // On the planes of the face diagonals: the ray along one axis meets a diagonal edge.
    for (const double t : {0.2, 0.5, 0.7}) {
        points.emplace_back(t, t, 0.4);
        points.emplace_back(t, 0.4, t);
        points.emplace_back(0.4, t, t);
        points.emplace_back(t, 1.0 - t, 0.3);
    }
    expectSameAnswers(h, points, "cube");
    // On the line through the centres of two opposite faces both rays along it run through the
    // crossing of the faces' diagonals; the rays along the other axes decide.
    for (int k = 0; k < 3; ++k)
        for (const double t : {0.1, 0.3, 0.7, 0.9}) {
            V3 p(0.5, 0.5, 0.5);
            p[k] = t;
            EXPECT_EQ(h.byRays(p, true), 1) << p;
            EXPECT_TRUE(h.isInsideMesh(p, true)) << p;
        }
}

TEST(BvhInsideParity, AnswersDoNotDependOnScale) {
    // The same mesh and points scaled by 2^k (exactly) give the same answers, from the first
    // query on (before the check has run) and after it.
    GmTriangleMesh unit = loadData("spot.obj");
    ParityTree reference(&unit);
    std::mt19937 rng(6);
    std::vector<V3> points;
    for (int i = 0; i < 600; ++i) points.push_back(randomPointAround(unit, rng, 0.05));
    std::vector<char> expected;
    for (const V3& p : points) expected.push_back(definedInside(reference, p, true));
    for (const int k : {-40, -12, 12, 40}) {
        const double sc = std::ldexp(1.0, k);
        GmTriangleMesh mesh = loadData("spot.obj");
        std::vector<V3> v = mesh.getVertices();
        for (V3& x : v) x *= sc;
        mesh.setVertices(v);
        ParityTree h(&mesh);
        for (int round = 0; round < 2; ++round) {
            for (std::size_t i = 0; i < points.size(); ++i)
                ASSERT_EQ(h.isInsideMesh(points[i] * sc, true), expected[i] != 0)
                    << "2^" << k << " round " << round << " rays " << h.byRays(points[i] * sc, true) << " at " << points[i];
            ASSERT_TRUE(h.prepareInsideQueries(true));
        }
    }
    // A sphere of radius 3e-4: faces far below any absolute tolerance.
    const double r = 3e-4;
    GmTriangleMesh ball = qgtools::makeIcosphere(3, r);
    GmBoundingVolumeHierarchy tree(&ball);
    std::uniform_real_distribution<double> u(-1.0, 1.0);
    for (int i = 0; i < 200; ++i) {
        V3 d(u(rng), u(rng), u(rng));
        if (d.length() < 1e-3) continue;
        d /= d.length();
        EXPECT_TRUE(tree.isInsideMesh(d * (0.8 * r * std::fabs(u(rng))), true)) << d;
        EXPECT_FALSE(tree.isInsideMesh(d * (1.2 * r), true)) << d;
    }
}

TEST(BvhInsideParity, PointsInsideMeshRecordsUnchanged) {
    GmTriangleMesh big = qgtools::makeIcosphere(3, 1.0);
    GmTriangleMesh probe = qgtools::makeTorus(32, 12, 0.8, 0.4);  // partly inside the sphere
    GmBoundingVolumeHierarchy prepared(&big), probeTree(&probe);
    ASSERT_TRUE(prepared.prepareInsideQueries(true));
    // The records as the search gives them, vertex by vertex.
    std::vector<GmInsideInfo> a, b;
    for (int v = 0; v < probe.getNumberVertices(); ++v) {
        GmInsideInfo r;
        V3 normal;
        bool pinched;
        const double d = prepared.findClosestPoint(probe.getVertex(v), r.closestPoint, r.closestFace, normal, pinched,
                                                   true, true);
        if (!(d <= 0.0)) continue;
        r.vertex = v;
        r.distance = -d;
        a.push_back(r);
    }
    prepared.pointsInsideMesh(probeTree, b, false, true, 1, 2);
    ASSERT_GT(a.size(), 10u);
    ASSERT_LT(a.size(), static_cast<size_t>(probe.getNumberVertices()));
    ASSERT_EQ(a.size(), b.size());
    for (size_t k = 0; k < a.size(); ++k) {
        EXPECT_EQ(a[k].vertex, b[k].vertex);
        EXPECT_EQ(a[k].closestFace, b[k].closestFace);
        EXPECT_EQ(a[k].distance, b[k].distance);
        EXPECT_EQ(a[k].closestPoint, b[k].closestPoint);
        EXPECT_EQ(b[k].objectIndex1, 1);
        EXPECT_EQ(b[k].objectIndex2, 2);
    }
    // The multi-object form goes through the same rejection.
    std::vector<GmInsideInfo> multi;
    GmBVHMetrics metrics;
    probeTree.pointsInsideMeshes({&prepared}, {nullptr}, 0, {5}, multi, false, true, metrics);
    EXPECT_EQ(multi.size(), a.size());
}

// ---- Meshes that do not allow it ---------------------------------------------------------

// The check is refused, the rays never decide in the root box, and answers stay the defined ones.
void expectRefused(GmTriangleMesh& mesh, const std::string& name) {
    ParityTree h(&mesh);
    EXPECT_FALSE(h.prepareInsideQueries(true)) << name;
    EXPECT_FALSE(h.insideQueriesPrepared(true)) << name;
    const Probes pr = makeProbes(mesh, 5);
    EXPECT_EQ(expectSameAnswers(h, pr.uniform, name), 0) << name;
    expectSameAnswers(h, pr.away, name);
}

// No two faces without a shared vertex meet (so a refusal comes from the adjacent pairs).
bool onlyAdjacentFacesMeet(const GmTriangleMesh& mesh) {
    GmBoundingVolumeHierarchy h(const_cast<GmTriangleMesh*>(&mesh));
    std::vector<GmIntersectionInfo> hits;
    GmBVHMetrics m;
    return !h.selfIntersect(hits, false, false, true, m);
}

TEST(BvhInsideParity, RefusedWhereParityMayDiffer) {
    {
        qgtools::PolygonSoup soup = qgtools::cubeSoup(), open;
        open.positions = soup.positions;
        for (const auto& t : soup.triangles)
            if (!(soup.positions[static_cast<size_t>(t[0])].z == 1.0 &&
                  soup.positions[static_cast<size_t>(t[1])].z == 1.0 &&
                  soup.positions[static_cast<size_t>(t[2])].z == 1.0))
                open.triangles.push_back(t);
        GmTriangleMesh mesh = qgtools::meshFromSoup(open);
        expectRefused(mesh, "open box");
    }
    {
        GmTriangleMesh mesh = joined({qgtools::cubeSoup(), qgtools::cubeSoup(V3(0.5, 0.5, 0.5), V3(1.5, 1.5, 1.5))});
        ASSERT_TRUE(mesh.isClosed());
        expectRefused(mesh, "overlapping cubes");
    }
    {
        qgtools::PolygonSoup s = qgtools::icosphereSoup(2);
        s.flip();
        GmTriangleMesh mesh = qgtools::meshFromSoup(s);
        expectRefused(mesh, "inverted sphere");
    }
    {
        GmTriangleMesh mesh = joined({qgtools::icosphereSoup(2, 1.0), qgtools::icosphereSoup(2, 0.5, V3(0.1, 0, 0))});
        expectRefused(mesh, "nested spheres");
    }
    {
        // Two tetrahedra sharing one vertex: every edge has two faces, the vertex two fans.
        qgtools::PolygonSoup a = qgtools::tetrahedronSoup(1.0), s = a;
        const V3 tip = a.positions[0];
        for (size_t k = 1; k < a.positions.size(); ++k) s.positions.push_back(tip * 2.0 - a.positions[k]);
        for (const auto& t : a.triangles) {
            // The point reflection through the tip turns the orientation: swap two corners.
            std::array<int, 3> u = {t[0], t[2], t[1]};
            for (int& i : u)
                if (i != 0) i += 3;
            s.triangles.push_back(u);
        }
        GmTriangleMesh mesh = qgtools::meshFromSoup(s);
        ASSERT_TRUE(mesh.isClosed());
        ASSERT_GT(signedVolume(mesh), 0.0);
        expectRefused(mesh, "two tetrahedra at one vertex");
    }
}

TEST(BvhInsideParity, RefusedWhenAdjacentFacesOverlap) {
    {
        // A flap: faces (u, v, w1) and (v, u, w2) lie in one plane on the same side of u-v;
        // the rest closes the surface below. Positive volume, manifold, no separate faces meet.
        qgtools::PolygonSoup s;
        s.positions = {V3(0, 0, 0), V3(1, 0, 0), V3(0.5, 1, 0), V3(0.5, 0.8, 0), V3(0.5, 0.9, -1)};
        s.triangles = {{0, 1, 2}, {1, 0, 3}, {2, 1, 4}, {0, 2, 4}, {3, 0, 4}, {1, 3, 4}};
        GmTriangleMesh mesh = qgtools::meshFromSoup(s);
        ASSERT_TRUE(mesh.isClosed());
        ASSERT_GT(signedVolume(mesh), 0.0);
        ASSERT_TRUE(onlyAdjacentFacesMeet(mesh));
        expectRefused(mesh, "folded flap");
    }
    {
        // A pyramid whose apex fan is twisted: the base edge of one side face pokes through
        // the side face that shares only the apex with it.
        qgtools::PolygonSoup s;
        s.positions = {V3(0, 0, 1), V3(-1, 0, 0), V3(0, -1, 0), V3(1, 0, 0), V3(-0.5, -0.8, 0.1)};
        s.triangles = {{0, 1, 2}, {0, 2, 3}, {0, 3, 4}, {0, 4, 1}, {1, 4, 3}, {3, 2, 1}};
        GmTriangleMesh mesh = qgtools::meshFromSoup(s);
        ASSERT_TRUE(mesh.isClosed());
        ASSERT_GT(signedVolume(mesh), 0.0);
        ASSERT_TRUE(onlyAdjacentFacesMeet(mesh));
        expectRefused(mesh, "pyramid poked through at its apex");
    }
}

TEST(BvhInsideParity, DisabledFacesKeepTheSearch) {
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
    EXPECT_FALSE(h.insideQueriesPrepared(false));
    EXPECT_EQ(expectSameAnswers(h, pr.uniform, "stale flags", false), 0);
    // Handing the mask over again refreshes the flags and drops the check.
    h.setDisabledData(&mask);
    EXPECT_FALSE(h.insideQueriesPrepared(true));
    EXPECT_TRUE(h.prepareInsideQueries(false));
    EXPECT_GT(expectSameAnswers(h, pr.uniform, "mask cleared", false), 95);
    // Disabling a face afterwards takes the ray path away from includeDisabled false only.
    mask.setFaceDisabled(3);
    EXPECT_FALSE(h.insideQueriesPrepared(false));
    EXPECT_TRUE(h.insideQueriesPrepared(true));
    EXPECT_EQ(expectSameAnswers(h, pr.uniform, "disabled again", false), 0);
}

TEST(BvhInsideParity, RefitDropsTheCheck) {
    // Two spheres apart, then moved into each other, then apart again.
    GmTriangleMesh mesh = joined({qgtools::icosphereSoup(2, 1.0), qgtools::icosphereSoup(2, 1.0, V3(3, 0, 0))});
    const std::vector<V3> apart = mesh.getVertices();
    std::vector<V3> together = apart;
    for (size_t k = together.size() / 2; k < together.size(); ++k) together[k].x -= 2.5;
    ParityTree h(&mesh);
    ASSERT_TRUE(h.prepareInsideQueries(true));

    mesh.setVertices(together);
    h.refit();
    EXPECT_FALSE(h.insideQueriesPrepared(true));
    EXPECT_FALSE(h.prepareInsideQueries(true));
    const Probes pr = makeProbes(mesh, 9);
    EXPECT_EQ(expectSameAnswers(h, pr.uniform, "overlapping"), 0);

    mesh.setVertices(apart);
    h.refit();
    EXPECT_TRUE(h.prepareInsideQueries(true));
    EXPECT_GT(expectSameAnswers(h, makeProbes(mesh, 9).uniform, "apart"), 95);
    h.build();
    EXPECT_FALSE(h.insideQueriesPrepared(true));
}

TEST(BvhInsideParity, CopiesStartWithoutTheCheck) {
    GmTriangleMesh mesh = qgtools::makeIcosphere(2);
    GmBoundingVolumeHierarchy h(&mesh);
    ASSERT_TRUE(h.prepareInsideQueries(true));
    GmBoundingVolumeHierarchy copy(h);
    EXPECT_FALSE(copy.insideQueriesPrepared(true));
    EXPECT_TRUE(copy.prepareInsideQueries(true));
    GmTriangleMesh other = qgtools::makeTorus(16, 8);
    GmBoundingVolumeHierarchy assigned(&other);
    ASSERT_TRUE(assigned.prepareInsideQueries(true));
    assigned = h;
    EXPECT_FALSE(assigned.insideQueriesPrepared(true));
    GmBoundingTree facade(&mesh);
    EXPECT_FALSE(facade.insideQueriesPrepared(true));
    EXPECT_TRUE(facade.prepareInsideQueries(true));
    EXPECT_TRUE(facade.insideQueriesPrepared(true));
}

// ---- When the check is built ---------------------------------------------------------------

TEST(BvhInsideParity, BuiltLazilyOnceSearchesCostAsMuch) {
    GmTriangleMesh mesh = qgtools::makeIcosphere(4);
    ParityTree h(&mesh);
    std::mt19937 rng(4);
    // A few queries per refit never pay for the check.
    for (int round = 0; round < 3; ++round) {
        for (int i = 0; i < 7; ++i) h.isInsideMesh(randomPointAround(mesh, rng, 0.0), true);
        EXPECT_FALSE(h.insideQueriesPrepared(true)) << "round " << round;
        h.refit();
    }
    // Many queries do.
    int queries = 0;
    while (!h.insideQueriesPrepared(true) && queries < 1000000) {
        const V3 p = randomPointAround(mesh, rng, 0.0);
        EXPECT_EQ(h.isInsideMesh(p, true), definedInside(h, p, true)) << p;
        ++queries;
    }
    EXPECT_TRUE(h.insideQueriesPrepared(true)) << queries << " queries";
    EXPECT_GE(queries, 8);
}

TEST(BvhInsideParity, ConcurrentQueriesMatchSerialOnes) {
    GmTriangleMesh mesh = qgtools::makeIcosphere(3);
    mesh.fillCaches();  // the searches read cached normals; fill them before sharing the mesh
    std::mt19937 rng(8);
    std::vector<V3> points;
    for (int i = 0; i < 3000; ++i) points.push_back(randomPointAround(mesh, rng, 0.05));
    std::vector<char> serial;
    {
        GmBoundingVolumeHierarchy reference(&mesh);
        for (const V3& p : points) serial.push_back(definedInside(reference, p, true));
    }
    // A fresh tree: the check gets built by one of the threads while the others query.
    GmBoundingVolumeHierarchy h(&mesh);
    const int threads = 4;
    std::vector<std::vector<char>> answers(threads, std::vector<char>(points.size()));
    std::vector<std::thread> pool;
    for (int t = 0; t < threads; ++t)
        pool.emplace_back([&, t] {
            for (int round = 0; round < 2; ++round)
                for (size_t i = 0; i < points.size(); ++i) {
                    const size_t k = (i * 7 + static_cast<size_t>(t) * 131) % points.size();
                    answers[static_cast<size_t>(t)][k] = h.isInsideMesh(points[k], true);
                }
        });
    for (std::thread& th : pool) th.join();
    EXPECT_TRUE(h.insideQueriesPrepared(true));
    for (int t = 0; t < threads; ++t)
        for (size_t k = 0; k < points.size(); ++k)
            EXPECT_EQ(answers[static_cast<size_t>(t)][k], serial[k]) << "thread " << t << " at " << points[k];
}

}  // namespace

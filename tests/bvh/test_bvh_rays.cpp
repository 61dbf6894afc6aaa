// Ray and box queries against brute-force loops over every face.

#include <gtest/gtest.h>

#include <set>
#include <thread>

#include "bvh_test_util.h"

using namespace bvhtest;

namespace {

std::set<int> faceSet(const std::vector<GmPointIntersectionInfo>& hits) {
    std::set<int> s;
    for (const GmPointIntersectionInfo& h : hits) s.insert(h.triangleIndex);
    return s;
}

std::set<int> bruteRay(const GmTriangleMesh& mesh, const V3& o, const V3& d) {
    std::set<int> s;
    for (int f = 0; f < mesh.getNumberFaces(); ++f) {
        V3 point;
        double t, u, v;
        if (GmGeometry::intersectRayTri(o, d, mesh.getFaceVertex1(f), mesh.getFaceVertex2(f), mesh.getFaceVertex3(f),
                                        point, t, u, v))
            s.insert(f);
    }
    return s;
}

// The axis-ray triangle rule, for the ray along axis a with sign sgn.
bool axisHit(const V3& o, int a, int sgn, const V3& v1, const V3& v2, const V3& v3, V3& point, V3& w) {
    const int x = (a + 1) % 3, y = (a + 2) % 3;
    const double det = (v3[y] - v1[y]) * (v2[x] - v1[x]) - (v3[x] - v1[x]) * (v2[y] - v1[y]);
    if (std::fabs(det) <= 1e-8) return false;
    const double dx = o[x] - v1[x], dy = o[y] - v1[y];
    const double u = (dx * (v3[y] - v1[y]) - dy * (v3[x] - v1[x])) / det;
    if (u < -1e-8 || u > 1.00000001) return false;
    const double v = -(dx * (v2[y] - v1[y]) - dy * (v2[x] - v1[x])) / det;
    if (v < -1e-8 || u + v > 1.00000001) return false;
    point = v1 * (1 - u - v) + v2 * u + v3 * v;
    if (sgn < 0 ? point[a] > o[a] + 1e-8 : point[a] < o[a] - 1e-8) return false;
    w = V3(1 - u - v, u, v);
    return true;
}

template <int X, int Y, int Z>
void expectAxisRayMatches(const GmBoundingVolumeHierarchy& h, const GmTriangleMesh& mesh, const V3& o) {
    constexpr int a = GmRayAxis<X, Y, Z>::kAxis, sgn = GmRayAxis<X, Y, Z>::kSign;
    std::vector<GmPointIntersectionInfo> hits;
    h.intersect(GmRayAxis<X, Y, Z>(o), hits, false, true);
    std::set<int> expected;
    for (int f = 0; f < mesh.getNumberFaces(); ++f) {
        V3 p, w;
        if (axisHit(o, a, sgn, mesh.getFaceVertex1(f), mesh.getFaceVertex2(f), mesh.getFaceVertex3(f), p, w))
            expected.insert(f);
    }
    EXPECT_EQ(faceSet(hits), expected) << "axis " << a << " sign " << sgn << " from " << o;
    EXPECT_EQ(hits.size(), expected.size());
    for (const GmPointIntersectionInfo& r : hits) {
        V3 p, w;
        axisHit(o, a, sgn, mesh.getFaceVertex1(r.triangleIndex), mesh.getFaceVertex2(r.triangleIndex),
                mesh.getFaceVertex3(r.triangleIndex), p, w);
        EXPECT_EQ(r.point, p);
        EXPECT_EQ(r.barycentric, w);
        EXPECT_EQ(r.objectIndex, -1);
    }
}

TEST(BvhRays, GeneralRaysReportEveryFace) {
    std::vector<std::pair<std::string, GmTriangleMesh>> m;
    m.emplace_back("icosphere", qgtools::makeIcosphere(3));
    m.emplace_back("torus", qgtools::makeTorus(30, 12));
    m.emplace_back("soup", randomSoup(400, 2));
    m.emplace_back("spot", loadData("spot.obj"));
    for (auto& [name, mesh] : m) {
        GmBoundingVolumeHierarchy h(&mesh);
        std::mt19937 rng(12);
        std::normal_distribution<double> g;
        int withHits = 0;
        for (int i = 0; i < 300; ++i) {
            const V3 o = randomPointAround(mesh, rng, 0.2);
            // Half of the rays aim at a vertex, the others go anywhere.
            const V3 d = i % 2 ? V3(g(rng), g(rng), g(rng))
                               : mesh.getVertex(static_cast<int>(rng() % static_cast<unsigned>(mesh.getNumberVertices()))) - o;
            std::vector<GmPointIntersectionInfo> hits;
            const bool any = h.intersect(GmRay(o, d), hits, false, true);
            const std::set<int> expected = bruteRay(mesh, o, d);
            EXPECT_EQ(faceSet(hits), expected) << name;
            EXPECT_EQ(hits.size(), expected.size()) << name;  // one record per face
            EXPECT_EQ(any, !expected.empty());
            withHits += any;
            for (const GmPointIntersectionInfo& r : hits) {
                const V3 q = mesh.getFaceVertex1(r.triangleIndex) * r.barycentric.x +
                             mesh.getFaceVertex2(r.triangleIndex) * r.barycentric.y +
                             mesh.getFaceVertex3(r.triangleIndex) * r.barycentric.z;
                EXPECT_NEAR((q - r.point).length(), 0.0, 1e-12);
                EXPECT_NEAR(r.barycentric.x + r.barycentric.y + r.barycentric.z, 1.0, 1e-12);
            }
        }
        EXPECT_GT(withHits, 150) << name;
    }
}

TEST(BvhRays, RaysThroughVerticesEdgesAndAlongBoxFaces) {
    // Exact coordinates k / 16: rays start on vertices, edges and box faces, run along grid lines,
    // and have direction components that are zero, denormal, tiny or huge.
    GmTriangleMesh grid = qgtools::makeClothGrid(16, 16);
    GmTriangleMesh cube = qgtools::makeCube();
    const double comps[] = {0.0, -0.0, 1e-310, -1e-300, 1e-200, 0.25, -0.5, 1.0, -3.0, 1e250, -1e301};
    std::mt19937 rng(21);
    for (GmTriangleMesh* mesh : {&grid, &cube}) {
        GmBoundingVolumeHierarchy h(mesh);
        const GmAxisAlignedBox root = h.getRootBoundingVolume();
        int withHits = 0;
        for (int i = 0; i < 1500; ++i) {
            V3 o;
            for (int a = 0; a < 3; ++a) o[a] = (static_cast<int>(rng() % 40) - 12) / 16.0;
            if (i % 3 == 0) o = mesh->getVertex(static_cast<int>(rng() % static_cast<unsigned>(mesh->getNumberVertices())));
            if (i % 5 == 0) o[i % 3] = i % 2 ? root.minX : root.maxZ;  // on a face of the root box
            V3 d(comps[rng() % 11], comps[rng() % 11], comps[rng() % 11]);
            if (d.length() <= DBL_EPSILON) d[rng() % 3] = 1.0;
            std::vector<GmPointIntersectionInfo> hits;
            h.intersect(GmRay(o, d), hits, false, true);
            const std::set<int> expected = bruteRay(*mesh, o, d);
            EXPECT_EQ(faceSet(hits), expected) << "from " << o << " along " << d;
            EXPECT_EQ(hits.size(), expected.size());
            withHits += !expected.empty();
        }
        EXPECT_GT(withHits, 100);
    }
}

TEST(BvhRays, AxisRaysMatchTheirRule) {
    for (GmTriangleMesh mesh : {qgtools::makeIcosphere(3), loadData("spot.obj"), randomSoup(300, 4)}) {
        GmBoundingVolumeHierarchy h(&mesh);
        std::mt19937 rng(5);
        for (int i = 0; i < 100; ++i) {
            const V3 o = randomPointAround(mesh, rng, 0.1);
            expectAxisRayMatches<1, 0, 0>(h, mesh, o);
            expectAxisRayMatches<-1, 0, 0>(h, mesh, o);
            expectAxisRayMatches<0, 1, 0>(h, mesh, o);
            expectAxisRayMatches<0, -1, 0>(h, mesh, o);
            expectAxisRayMatches<0, 0, 1>(h, mesh, o);
            expectAxisRayMatches<0, 0, -1>(h, mesh, o);
        }
    }
}

TEST(BvhRays, SharedEdgesAndVerticesGiveOneRecordPerFace) {
    GmTriangleMesh grid = qgtools::makeClothGrid(8, 8);  // exact coordinates k / 8
    GmBoundingVolumeHierarchy h(&grid);
    std::vector<GmPointIntersectionInfo> hits;
    // Through the diagonal of quad (2, 3): faces 2 * (3 * 8 + 2) and the next one.
    const V3 onDiagonal(0.25 + 0.0625, 0.375 + 0.0625, 1.0);
    EXPECT_TRUE(h.intersect(GmRay(onDiagonal, V3(0, 0, -1)), hits, false, true));
    EXPECT_EQ(faceSet(hits), (std::set<int>{52, 53}));
    EXPECT_EQ(hits.size(), 2u);
    EXPECT_TRUE(h.intersect(GmRayAxis<0, 0, -1>(onDiagonal), hits, false, true));
    EXPECT_EQ(faceSet(hits), (std::set<int>{52, 53}));
    // Through a grid line between two quads.
    const V3 onLine(0.5, 0.4, -1.0);
    EXPECT_TRUE(h.intersect(GmRay(onLine, V3(0, 0, 2)), hits, false, true));
    EXPECT_EQ(faceSet(hits), bruteRay(grid, onLine, V3(0, 0, 2)));
    EXPECT_EQ(hits.size(), 2u);
    // Through an interior vertex: its six faces.
    const V3 onVertex(0.5, 0.5, 1.0);
    EXPECT_TRUE(h.intersect(GmRayAxis<0, 0, -1>(onVertex), hits, false, true));
    EXPECT_EQ(hits.size(), 6u);
    const V3 slanted(0.125, 0.25, -1), start(0.375, 0.25, 1);  // passes through (0.5, 0.5, 0)
    EXPECT_TRUE(h.intersect(GmRay(start, slanted), hits, false, true));
    EXPECT_EQ(faceSet(hits), bruteRay(grid, start, slanted));
    EXPECT_EQ(hits.size(), 6u);
}

TEST(BvhRays, AxisRayEdgeCases) {
    GmTriangleMesh grid = qgtools::makeClothGrid(4, 4);
    GmBoundingVolumeHierarchy h(&grid);
    std::vector<GmPointIntersectionInfo> hits;
    // Starting on the face: z equal to the origin's passes.
    EXPECT_TRUE(h.intersect(GmRayAxis<0, 0, -1>(V3(0.3, 0.6, 0.0)), hits, false, true));
    EXPECT_EQ(hits.size(), 1u);
    EXPECT_TRUE(h.intersect(GmRayAxis<0, 0, 1>(V3(0.3, 0.6, 0.0)), hits, false, true));
    // Face above the origin of a -z ray, below that of a +z ray: missed.
    EXPECT_FALSE(h.intersect(GmRayAxis<0, 0, -1>(V3(0.3, 0.6, -0.1)), hits, false, true));
    EXPECT_FALSE(h.intersect(GmRayAxis<0, 0, 1>(V3(0.3, 0.6, 0.1)), hits, false, true));
    // Seen edge-on: never hit, even through the face's plane.
    for (const V3& o : {V3(-1, 0.3, 0.0), V3(2, 0.3, 0.0)}) {
        EXPECT_FALSE(h.intersect(GmRayAxis<1, 0, 0>(o), hits, false, true));
        EXPECT_FALSE(h.intersect(GmRayAxis<-1, 0, 0>(o), hits, false, true));
    }
}

TEST(BvhRays, AppendMissAndDisabled) {
    GmTriangleMesh grid = qgtools::makeClothGrid(4, 4);
    GmDisabledData disabled(&grid);
    for (int f = 0; f < 16; ++f) disabled.setFaceDisabled(f);  // the lower half
    GmBoundingTree tree(&grid, &disabled, nullptr);
    std::vector<GmPointIntersectionInfo> hits(2);
    // A miss of the root box: false, cleared; with append: kept, and true because non-empty.
    EXPECT_FALSE(tree.intersect(GmRay(V3(5, 5, 5), V3(0, 0, 1)), hits, false, true));
    EXPECT_TRUE(hits.empty());
    hits.resize(2);
    EXPECT_TRUE(tree.intersect(GmRay(V3(5, 5, 5), V3(0, 0, 1)), hits, true, true));
    EXPECT_EQ(hits.size(), 2u);
    // Appended after the old records.
    EXPECT_TRUE(tree.intersect(GmRay(V3(0.3, 0.7, 1), V3(0, 0, -1)), hits, true, true));
    ASSERT_EQ(hits.size(), 3u);
    EXPECT_EQ(hits[2].triangleIndex >= 16, true);
    // Disabled faces give no records unless included.
    EXPECT_FALSE(tree.intersect(GmRay(V3(0.3, 0.2, 1), V3(0, 0, -1)), hits, false, false));
    EXPECT_FALSE(tree.intersect(GmRayAxis<0, 0, -1>(V3(0.3, 0.2, 1)), hits, false, false));
    EXPECT_TRUE(tree.intersect(GmRay(V3(0.3, 0.2, 1), V3(0, 0, -1)), hits, false, true));
    EXPECT_TRUE(tree.intersect(GmRay(V3(0.3, 0.7, 1), V3(0, 0, -1)), hits, false, false));
}

TEST(BvhRays, DegenerateRays) {
    GmTriangleMesh mesh = qgtools::makeIcosphere(2);
    GmBoundingTree tree(&mesh);
    std::vector<GmPointIntersectionInfo> hits;
    EXPECT_FALSE(tree.intersect(GmRay(V3(0, 0, 0), V3(0, 0, 0)), hits, false, true));
    EXPECT_FALSE(tree.intersect(GmRay(V3(0, 0, 0), V3(1e-300, 0, 0)), hits, false, true));
    EXPECT_TRUE(hits.empty());
}

// ---- Wide copy and first hit ----------------------------------------------------------------

// Rays of four kinds against a mesh: random, through a vertex, along an edge's line, and in
// the plane of a face (parallel to it).
std::vector<std::pair<V3, V3>> grazingRays(const GmTriangleMesh& mesh, unsigned seed, int count) {
    std::mt19937 rng(seed);
    std::normal_distribution<double> g;
    std::uniform_real_distribution<double> u(0.0, 1.0);
    std::vector<std::pair<V3, V3>> rays;
    const auto anyFace = [&] { return static_cast<int>(rng() % static_cast<unsigned>(mesh.getNumberFaces())); };
    for (int i = 0; i < count; ++i) {
        const int f = anyFace();
        const V3 a = mesh.getFaceVertex1(f), b = mesh.getFaceVertex2(f), c = mesh.getFaceVertex3(f);
        const V3 o = randomPointAround(mesh, rng, 0.2);
        switch (i % 4) {
            case 0: rays.emplace_back(o, V3(g(rng), g(rng), g(rng))); break;
            case 1: rays.emplace_back(o, a - o); break;
            case 2: rays.emplace_back(a - (b - a) * (0.5 + u(rng)), b - a); break;
            default: rays.emplace_back(a + (b - a) * (u(rng) - 0.5) + (c - a) * (u(rng) - 0.5) - (c - b), c - b); break;
        }
    }
    return rays;
}

// Nearest brute-force hit: smallest (t, face), with the triangle test's own outputs.
bool bruteFirst(const GmTriangleMesh& mesh, const V3& o, const V3& d, GmPointIntersectionInfo& best, double& bestT) {
    bool found = false;
    for (int f = 0; f < mesh.getNumberFaces(); ++f) {
        V3 point;
        double t, u, v;
        if (!GmGeometry::intersectRayTri(o, d, mesh.getFaceVertex1(f), mesh.getFaceVertex2(f), mesh.getFaceVertex3(f),
                                         point, t, u, v) ||
            (found && !(t < bestT)))
            continue;
        found = true;
        bestT = t;
        best.triangleIndex = f;
        best.point = point;
        best.barycentric = V3(1 - u - v, u, v);
    }
    return found;
}

void expectSameRecords(const std::vector<GmPointIntersectionInfo>& a, const std::vector<GmPointIntersectionInfo>& b,
                       const std::string& what) {
    ASSERT_EQ(a.size(), b.size()) << what;
    for (size_t i = 0; i < a.size(); ++i) {
        EXPECT_EQ(a[i].triangleIndex, b[i].triangleIndex) << what << " record " << i;
        EXPECT_EQ(a[i].objectIndex, b[i].objectIndex) << what;
        EXPECT_EQ(a[i].point, b[i].point) << what;
        EXPECT_EQ(a[i].barycentric, b[i].barycentric) << what;
    }
}

// The wide copy gives the binary walk's records in the same order, every face that brute force
// finds, and the nearest of them as first hit; after a refit and under a mask as well. The
// binary walk is read from fresh copies of the tree, which have not run enough queries to make
// their own wide copy.
TEST(BvhRays, WideCopyAndFirstHitMatchBinaryWalkAndBruteForce) {
    std::vector<std::pair<std::string, GmTriangleMesh>> meshes;
    meshes.emplace_back("grid", qgtools::makeClothGrid(24, 24));  // exact coordinates, flat
    meshes.emplace_back("torus", qgtools::makeTorus(30, 12));
    meshes.emplace_back("soup", randomSoup(400, 7));
    meshes.emplace_back("spot", loadData("spot.obj"));
    // Far from the unit scale, off the origin (up to where the 1e-8 box padding still covers the
    // triangle test's tolerance along the edges).
    for (double scale : {0x1p-12, 0x1p20}) {
        GmTriangleMesh m = qgtools::makeIcosphere(3);
        std::vector<V3> p = m.getVertices();
        for (V3& v : p) v = (v + V3(3, -1, 0.5)) * scale;
        m.setVertices(p);
        meshes.emplace_back("icosphere x " + std::to_string(scale), std::move(m));
    }
    for (auto& [name, mesh] : meshes) {
        GmDisabledData disabled(&mesh);
        for (int f = 0; f < mesh.getNumberFaces(); f += 3) disabled.setFaceDisabled(f);
        GmBoundingVolumeHierarchy wide(&mesh);
        for (int round = 0; round < 2; ++round) {
            if (round == 1) wide.refit(jitteredPositions(mesh, 1e-3 * (meshBounds(mesh).getExtent().length()), 3),
                                       &disabled, nullptr);  // swept boxes, a mask
            ASSERT_TRUE(wide.prepareRayQueries()) << name;
            int hitRays = 0;
            for (const auto& [o, d] : grazingRays(mesh, 40 + round, 240)) {
                const GmRay ray(o, d);
                const std::string what = name + " round " + std::to_string(round);
                for (bool include : {true, false}) {
                    if (!include && round == 0) continue;
                    std::vector<GmPointIntersectionInfo> a, b;
                    wide.intersect(ray, a, false, include);
                    GmBoundingVolumeHierarchy binary(wide);
                    binary.intersect(ray, b, false, include);
                    expectSameRecords(a, b, what);
                    if (include) {
                        EXPECT_EQ(faceSet(a), bruteRay(mesh, o, d)) << what << " from " << o << " along " << d;
                    }
                    hitRays += !a.empty();
                }
                GmPointIntersectionInfo first, expected;
                double t = -1, expectedT = -1;
                const bool any = wide.intersectFirst(ray, first, t, true);
                ASSERT_EQ(any, bruteFirst(mesh, o, d, expected, expectedT)) << name;
                GmPointIntersectionInfo slow;
                double slowT = -1;
                EXPECT_EQ(GmBoundingVolumeHierarchy(wide).intersectFirst(ray, slow, slowT, true), any);
                if (!any) continue;
                EXPECT_EQ(first.triangleIndex, expected.triangleIndex) << name;
                EXPECT_EQ(t, expectedT);
                EXPECT_EQ(first.point, expected.point);
                EXPECT_EQ(first.barycentric, expected.barycentric);
                EXPECT_EQ(slow.triangleIndex, expected.triangleIndex);
            }
            EXPECT_GT(hitRays, 50) << name;
        }
    }
}

// Threads querying one tree while its wide copy is made on demand get the records of a tree
// that never makes one.
TEST(BvhRays, ConcurrentQueriesWhileTheCopyIsMade) {
    GmTriangleMesh mesh = qgtools::makeTorus(40, 16);
    const GmBoundingVolumeHierarchy tree(&mesh);
    const std::vector<std::pair<V3, V3>> rays = grazingRays(mesh, 77, 400);
    std::vector<std::vector<GmPointIntersectionInfo>> expected(rays.size());
    for (size_t i = 0; i < rays.size(); ++i)
        GmBoundingVolumeHierarchy(tree).intersect(GmRay(rays[i].first, rays[i].second), expected[i], false, true);
    std::vector<std::vector<GmPointIntersectionInfo>> got[2];
    std::vector<std::thread> threads;
    for (int k = 0; k < 2; ++k)
        threads.emplace_back([&, k] {
            got[k].resize(rays.size());
            for (size_t i = 0; i < rays.size(); ++i)
                tree.intersect(GmRay(rays[i].first, rays[i].second), got[k][i], false, true);
        });
    for (std::thread& t : threads) t.join();
    for (int k = 0; k < 2; ++k)
        for (size_t i = 0; i < rays.size(); ++i) expectSameRecords(got[k][i], expected[i], "thread");
}

TEST(BvhRays, FirstHitTiesAndMisses) {
    GmTriangleMesh grid = qgtools::makeClothGrid(8, 8);  // exact coordinates k / 8
    GmBoundingTree tree(&grid);
    ASSERT_TRUE(tree.prepareRayQueries());
    GmPointIntersectionInfo hit;
    double t = 0;
    // Through the diagonal shared by faces 52 and 53, both at t = 1: the smaller index.
    EXPECT_TRUE(tree.intersectFirst(GmRay(V3(0.3125, 0.4375, 1.0), V3(0, 0, -1)), hit, t, true));
    EXPECT_EQ(hit.triangleIndex, 52);
    EXPECT_EQ(t, 1.0);
    EXPECT_EQ(hit.objectIndex, -1);
    EXPECT_FALSE(tree.intersectFirst(GmRay(V3(0.3, 0.4, 1.0), V3(0, 0, 1)), hit, t, true));  // facing away
    EXPECT_EQ(hit.triangleIndex, -1);
    EXPECT_EQ(t, DBL_MAX);
    EXPECT_FALSE(tree.intersectFirst(GmRay(V3(0.3, 0.4, 1.0), V3(0, 0, 0)), hit, true));  // no direction
}

TEST(BvhBox, RootOverlapOnly) {
    GmTriangleMesh mesh = qgtools::makeCube();
    GmBoundingVolumeHierarchy h(&mesh);
    const GmAxisAlignedBox r = h.getRootBoundingVolume();
    EXPECT_TRUE(h.intersect(GmAxisAlignedBox(0.4f, 0.4f, 0.4f, 0.6f, 0.6f, 0.6f)));  // inside, meets no face
    EXPECT_TRUE(h.intersect(GmAxisAlignedBox(r.maxX, 0, 0, 3, 1, 1)));             // touching
    EXPECT_TRUE(h.intersect(GmAxisAlignedBox(-3, -3, -3, r.minX, r.minY, r.minZ)));  // touching a corner
    EXPECT_FALSE(h.intersect(GmAxisAlignedBox(std::nextafter(r.maxX, 10.0f), 0, 0, 3, 1, 1)));
    EXPECT_FALSE(h.intersect(GmAxisAlignedBox()));  // the empty box
}

}  // namespace

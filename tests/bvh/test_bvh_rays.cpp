// Ray queries against brute-force loops over every face; the hierarchy's caches under threads.

#include <gtest/gtest.h>

#include <thread>

#include "bvh_test_util.h"

using namespace bvhtest;

namespace {

// Rays of every kind: random, through a vertex, along an edge's line, in the plane of a face,
// and from a vertex or a face along directions whose components are zero, denormal or huge.
std::vector<std::pair<V3, V3>> testRays(const GmTriangleMesh& mesh, unsigned seed, int count) {
    const double comps[] = {0.0, -0.0, 1e-310, -1e-300, 1e-200, 0.25, -0.5, 1.0, -3.0, 1e250, -1e301};
    std::mt19937 rng(seed);
    std::normal_distribution<double> g;
    std::uniform_real_distribution<double> u(0.0, 1.0);
    const std::vector<V3> starts = queryPoints(mesh, count, seed);
    std::vector<std::pair<V3, V3>> rays;
    for (int i = 0; i < count; ++i) {
        const int f = static_cast<int>(rng() % static_cast<unsigned>(mesh.getNumberFaces()));
        const V3 a = mesh.getFaceVertex1(f), b = mesh.getFaceVertex2(f), c = mesh.getFaceVertex3(f);
        const V3 o = randomPointAround(mesh, rng, 0.2);
        V3 d(comps[rng() % 11], comps[rng() % 11], comps[rng() % 11]);
        if (d.length() <= DBL_EPSILON) d[rng() % 3] = 1.0;
        switch (i % 5) {
            case 0: rays.emplace_back(o, V3(g(rng), g(rng), g(rng))); break;
            case 1: rays.emplace_back(o, a - o); break;
            case 2: rays.emplace_back(a - (b - a) * (0.5 + u(rng)), b - a); break;
            case 3: rays.emplace_back(a + (b - a) * (u(rng) - 0.5) + (c - a) * (u(rng) - 0.5) - (c - b), c - b); break;
            default: rays.emplace_back(starts[static_cast<size_t>(i) % starts.size()], d); break;
        }
    }
    return rays;
}

// The hits of an axis ray, by face, against the axis-ray triangle rule applied to every face.
template <class AxisRay>
void expectAxisRayMatches(const GmBoundingVolumeHierarchy& h, const GmTriangleMesh& mesh, const AxisRay& ray,
                          const GmDisabledData& mask, bool include) {
    constexpr int a = AxisRay::kAxis, sgn = AxisRay::kSign, x = (a + 1) % 3, y = (a + 2) % 3;
    const V3& o = ray.getOrigin();
    std::vector<GmPointIntersectionInfo> hits, expected;
    const bool any = h.intersect(ray, hits, false, include);
    for (int f = 0; f < mesh.getNumberFaces(); ++f) {
        const V3 &v1 = mesh.getFaceVertex1(f), &v2 = mesh.getFaceVertex2(f), &v3 = mesh.getFaceVertex3(f);
        const double det = (v3[y] - v1[y]) * (v2[x] - v1[x]) - (v3[x] - v1[x]) * (v2[y] - v1[y]);
        if ((!include && mask.isFaceDisabled(f)) || std::fabs(det) <= 1e-8) continue;
        const double dx = o[x] - v1[x], dy = o[y] - v1[y];
        const double u = (dx * (v3[y] - v1[y]) - dy * (v3[x] - v1[x])) / det;
        const double v = -(dx * (v2[y] - v1[y]) - dy * (v2[x] - v1[x])) / det;
        GmPointIntersectionInfo r;
        r.triangleIndex = f;
        r.point = v1 * (1 - u - v) + v2 * u + v3 * v;
        r.barycentric = V3(1 - u - v, u, v);
        if (u >= -1e-8 && u <= 1.00000001 && v >= -1e-8 && u + v <= 1.00000001 &&
            (sgn < 0 ? r.point[a] <= o[a] + 1e-8 : r.point[a] >= o[a] - 1e-8))
            expected.push_back(r);
    }
    EXPECT_EQ(any, !expected.empty());
    std::sort(hits.begin(), hits.end(), [](const auto& p, const auto& q) { return p.triangleIndex < q.triangleIndex; });
    expectSameRecords(hits, expected, "axis " + std::to_string(a) + " sign " + std::to_string(sgn));
}

// Every face brute force finds, one record each; the wide copy gives the records of the binary
// walk (fresh copies, too new to make their own) in its order; the first hit is the nearest, ties
// to the smallest face; axis rays follow their rule, also from points on faces (a face seen
// edge-on is never hit). All again after a refit to swept boxes under a mask.
TEST(BvhRays, AllHitsFirstHitAndAxisRaysMatchBruteForce) {
    for (NamedMesh& m : testMeshes()) {
        const GmTriangleMesh& mesh = m.mesh;
        GmDisabledData disabled(&m.mesh);
        for (int f = 0; f < mesh.getNumberFaces(); f += 3) disabled.setFaceDisabled(f);
        GmBoundingVolumeHierarchy wide(&m.mesh);
        for (int round = 0; round < 2; ++round) {
            const std::string what = m.name + " round " + std::to_string(round);
            if (round == 1)
                wide.refit(jitteredPositions(mesh, 1e-3 * meshBounds(mesh).getExtent().length(), 3), &disabled, nullptr);
            ASSERT_TRUE(wide.prepareRayQueries()) << what;
            int hitRays = 0;
            for (const auto& [o, d] : testRays(mesh, 40 + round, 250)) {
                const GmRay ray(o, d);
                for (const bool include : {true, false}) {
                    if (!include && round == 0) continue;
                    std::vector<double> ts;
                    const std::vector<GmPointIntersectionInfo> expected =
                        bruteRay(mesh, o, d, [&](int f) { return include || !disabled.isFaceDisabled(f); }, &ts);
                    std::vector<GmPointIntersectionInfo> a, b;
                    const bool any = wide.intersect(ray, a, false, include);
                    GmBoundingVolumeHierarchy(wide).intersect(ray, b, false, include);
                    expectSameRecords(a, b, what);
                    EXPECT_EQ(any, !expected.empty()) << what;
                    std::sort(a.begin(), a.end(), [](auto& p, auto& q) { return p.triangleIndex < q.triangleIndex; });
                    expectSameRecords(a, expected, what + " against brute force");
                    hitRays += any;
                    GmPointIntersectionInfo first, slow;
                    double t = -1, slowT = -1;
                    const size_t k = std::min_element(ts.begin(), ts.end()) - ts.begin();  // ties: smallest face
                    ASSERT_EQ(wide.intersectFirst(ray, first, t, include), any) << what;
                    ASSERT_EQ(GmBoundingVolumeHierarchy(wide).intersectFirst(ray, slow, slowT, include), any);
                    if (!any) {
                        EXPECT_TRUE(first.triangleIndex == -1 && t == DBL_MAX);
                        continue;
                    }
                    expectSameRecords({first, slow}, {expected[k], expected[k]}, what + " first hit");
                    EXPECT_TRUE(t == ts[k] && slowT == ts[k]);
                }
            }
            EXPECT_GT(hitRays, 50) << what;
            for (const V3& o : queryPoints(mesh, 40, 5 + round)) {
                SCOPED_TRACE(what);
                expectAxisRayMatches(wide, mesh, GmRayAxis<1, 0, 0>(o), disabled, round == 0);
                expectAxisRayMatches(wide, mesh, GmRayAxis<-1, 0, 0>(o), disabled, round == 0);
                expectAxisRayMatches(wide, mesh, GmRayAxis<0, 1, 0>(o), disabled, round == 0);
                expectAxisRayMatches(wide, mesh, GmRayAxis<0, -1, 0>(o), disabled, round == 0);
                expectAxisRayMatches(wide, mesh, GmRayAxis<0, 0, 1>(o), disabled, round == 0);
                expectAxisRayMatches(wide, mesh, GmRayAxis<0, 0, -1>(o), disabled, round == 0);
            }
        }
    }
}

TEST(BvhRays, FacadeAppendAndDegenerate) {
    GmTriangleMesh grid = qgtools::makeClothGrid(4, 4);
    GmDisabledData lower(&grid);
    for (int f = 0; f < 16; ++f) lower.setFaceDisabled(f);  // y < 0.5
    GmBoundingTree tree(&grid, &lower, nullptr);
    std::vector<GmPointIntersectionInfo> hits(2);
    // A miss of the root box: false and cleared; with append: kept, and true because non-empty.
    EXPECT_TRUE(!tree.intersect(GmRay(V3(5, 5, 5), V3(0, 0, 1)), hits, false, true) && hits.empty());
    hits.resize(2);
    EXPECT_TRUE(tree.intersect(GmRay(V3(5, 5, 5), V3(0, 0, 1)), hits, true, true) && hits.size() == 2u);
    EXPECT_TRUE(tree.intersect(GmRay(V3(0.3, 0.7, 1), V3(0, 0, -1)), hits, true, false));
    ASSERT_EQ(hits.size(), 3u);  // appended after the old records
    expectSameRecords({hits[2]}, bruteRay(grid, V3(0.3, 0.7, 1), V3(0, 0, -1), [](int) { return true; }), "append");
    // No direction, or one too small to normalise: nothing.
    EXPECT_FALSE(tree.intersect(GmRay(V3(0.3, 0.4, 1), V3(0, 0, 0)), hits, false, true));
    EXPECT_FALSE(tree.intersect(GmRay(V3(0.3, 0.4, 1), V3(0, 0, -1e-300)), hits, false, true));
    GmPointIntersectionInfo hit;
    EXPECT_FALSE(tree.intersectFirst(GmRay(V3(0.3, 0.4, 1.0), V3(0, 0, 0)), hit, true));
}

// Threads querying one fresh tree while it makes its caches on demand (the wide ray copy, the
// compact search boxes, the inside check) get the answers of fresh copies, which never make them.
TEST(BvhConcurrency, QueriesWhileCachesAreMade) {
    GmTriangleMesh mesh = qgtools::makeTorus(40, 16);
    mesh.fillCaches();  // the searches read cached normals; fill them before sharing the mesh
    const GmBoundingVolumeHierarchy tree(&mesh);
    const std::vector<std::pair<V3, V3>> rays = testRays(mesh, 77, 1500);
    struct Answer {
        std::vector<GmPointIntersectionInfo> hits;
        int face = -1;
        bool inside = false;
    };
    auto ask = [&](const GmBoundingVolumeHierarchy& h, size_t i, Answer& a) {
        h.intersect(GmRay(rays[i].first, rays[i].second), a.hits, false, true);
        V3 c, n;
        double s, t;
        h.findClosestPoint(rays[i].first, c, n, a.face, s, t, nullptr, true);
        a.inside = h.isInsideMesh(rays[i].first, true);
    };
    std::vector<Answer> expected(rays.size());
    for (size_t i = 0; i < rays.size(); ++i) ask(GmBoundingVolumeHierarchy(tree), i, expected[i]);
    const int threads = 4;
    std::vector<std::vector<Answer>> got(threads, std::vector<Answer>(rays.size()));
    std::vector<std::thread> pool;
    for (int k = 0; k < threads; ++k)
        pool.emplace_back([&, k] {
            for (int round = 0; round < 2; ++round)
                for (size_t i = 0; i < rays.size(); ++i) {
                    const size_t j = (i * 7 + static_cast<size_t>(k) * 131) % rays.size();
                    ask(tree, j, got[static_cast<size_t>(k)][j]);
                }
        });
    for (std::thread& t : pool) t.join();
    EXPECT_TRUE(tree.insideQueriesPrepared(true));
    for (int k = 0; k < threads; ++k)
        for (size_t i = 0; i < rays.size(); ++i) {
            const Answer &a = got[static_cast<size_t>(k)][i], &e = expected[i];
            expectSameRecords(a.hits, e.hits, "thread " + std::to_string(k));
            EXPECT_TRUE(a.face == e.face && a.inside == e.inside) << "thread " << k << " query " << i;
        }
}

}  // namespace

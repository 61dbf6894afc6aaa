// Batched point and ray queries: every entry equals the single query, bit for bit, on both
// execution paths (the single queries are checked against brute force in their own tests).

#include <gtest/gtest.h>

#include <cstring>
#include <limits>
#include <memory>

#include "bvh_test_util.h"

namespace {

using namespace bvhtest;

bool same(double a, double b) { return std::memcmp(&a, &b, sizeof a) == 0; }
bool same(const V3& a, const V3& b) { return same(a.x, b.x) && same(a.y, b.y) && same(a.z, b.z); }

// One batch of each kind on `mesh`; maskHalf disables every other face and queries without them,
// prefilled has the caller fill the mesh's caches and tell the batches so.
void expectBatchesMatch(GmTriangleMesh& mesh, bool parallel, bool maskHalf, bool prefilled) {
    GmDisabledData mask(&mesh);
    if (maskHalf)
        for (int f = 0; f < mesh.getNumberFaces(); f += 2) mask.setFaceDisabled(f);
    GmBoundingVolumeHierarchy tree(&mesh, maskHalf ? &mask : nullptr);
    const bool inc = !maskHalf;
    const std::vector<V3> pts = queryPoints(mesh, 500, 11);
    const std::size_t n = pts.size();
    std::vector<V3> dirs(n);
    std::mt19937 rng(3);
    std::normal_distribution<double> g;
    for (std::size_t i = 0; i < n; ++i) {  // every tenth direction zero, every tenth +z, some at vertices
        const V3 vertex = mesh.getVertex(static_cast<int>(i % static_cast<size_t>(mesh.getNumberVertices())));
        dirs[i] = i % 5 == 0 ? V3(0, 0, i % 10 == 0 ? 1.0 : 0.0) : i % 5 == 1 ? vertex - pts[i] : V3(g(rng), g(rng), g(rng));
    }

    if (prefilled) mesh.fillCaches();
    const bool fill = !prefilled;
    ScopedThreading threading(parallel);
    std::vector<double> dist(n), s(n), t(n), vdist(n), sdist(n), hitT(n);
    std::vector<V3> point(n), normal(n), sclosest(n), hitPoint(n), hitBary(n);
    std::vector<int> face(n), vertex(n), sface(n), hitFace(n);
    std::unique_ptr<bool[]> inside(new bool[n]);
    GmBatchQueries::findClosestPoints(
        tree, pts.data(), n, {dist.data(), point.data(), normal.data(), face.data(), s.data(), t.data()}, inc, fill);
    GmBatchQueries::findClosestVertices(tree, pts.data(), n, vertex.data(), vdist.data(), inc, fill);
    GmBatchQueries::isInsideMesh(tree, pts.data(), n, inside.get(), inc, fill);
    GmBatchQueries::signedDistances(tree, pts.data(), n, sdist.data(), sface.data(), sclosest.data(), inc, fill);
    GmBatchQueries::intersectFirst(tree, pts.data(), dirs.data(), n,
                                   {hitFace.data(), hitT.data(), hitPoint.data(), hitBary.data()}, inc, fill);
    std::vector<GmPointIntersectionInfo> all;
    std::vector<std::size_t> offsets;
    const std::size_t total = GmBatchQueries::intersectAll(tree, pts.data(), dirs.data(), n, all, offsets, inc, fill);
    ASSERT_TRUE(offsets.size() == n + 1 && offsets[n] == total && total == all.size());
    // Only the wanted outputs are written; an empty batch clears the lists.
    std::vector<double> distOnly(n, -1.0);
    GmBatchQueries::ClosestPointOutputs only;
    only.distance = distOnly.data();
    GmBatchQueries::findClosestPoints(tree, pts.data(), n, only, inc, fill);
    EXPECT_TRUE(std::equal(dist.begin(), dist.end(), distOnly.begin(), [](double a, double b) { return same(a, b); }));
    std::vector<GmPointIntersectionInfo> none(3);
    std::vector<std::size_t> noOffsets(5);
    EXPECT_EQ(GmBatchQueries::intersectAll(tree, nullptr, nullptr, 0, none, noOffsets, inc, fill), 0u);
    EXPECT_TRUE(none.empty() && noOffsets == std::vector<std::size_t>{0});
    GmBatchQueries::findClosestPoints(tree, nullptr, 0, {}, inc, fill);

    ScopedThreading serial(false);
    std::size_t misses = 0;
    for (std::size_t i = 0; i < n; ++i) {
        SCOPED_TRACE(i);
        V3 cl, nr;
        int f = -9;
        double ss = -1, tt = -1;
        const double d = tree.findClosestPoint(pts[i], cl, nr, f, ss, tt, nullptr, inc);
        EXPECT_TRUE(same(d, dist[i]) && same(cl, point[i]) && same(nr, normal[i]) && f == face[i] && same(ss, s[i]) &&
                    same(tt, t[i]));
        int v = -9;
        EXPECT_TRUE(same(tree.findClosestVertex(pts[i], v, inc), vdist[i]) && v == vertex[i]);
        EXPECT_EQ(tree.isInsideMesh(pts[i], inc), inside[i]);
        bool pinched = false;
        const double sd = tree.findClosestPoint(pts[i], cl, f, nr, pinched, false, inc);
        EXPECT_TRUE(same(sd, sdist[i]) && f == sface[i] && same(cl, sclosest[i]));

        const GmRay ray(pts[i], dirs[i]);
        std::vector<GmPointIntersectionInfo> hits;
        tree.intersect(ray, hits, false, inc);
        expectSameRecords({all.begin() + offsets[i], all.begin() + offsets[i + 1]}, hits, "all hits");
        GmPointIntersectionInfo first;
        double firstT = -1;
        if (tree.intersectFirst(ray, first, firstT, inc)) {
            EXPECT_TRUE(hitFace[i] == first.triangleIndex && same(hitT[i], firstT) && same(hitPoint[i], first.point) &&
                        same(hitBary[i], first.barycentric));
        } else {
            ++misses;
            EXPECT_TRUE(hitFace[i] == -1 && hitT[i] == std::numeric_limits<double>::infinity() &&
                        std::isnan(hitPoint[i].x) && std::isnan(hitBary[i].x));
        }
    }
    EXPECT_GT(misses, 0u);
    EXPECT_LT(misses, n);
}

TEST(BatchQueries, EveryEntryEqualsTheSingleQuery) {
    for (GmTriangleMesh mesh : {loadSpot(), qgtools::makeTorus(40, 24), randomSoup(600, 7)})
        for (int mode = 0; mode < 4; ++mode) {  // serial, parallel, parallel masked, parallel prefilled
            SCOPED_TRACE(std::to_string(mesh.getNumberFaces()) + " faces, mode " + std::to_string(mode));
            GmTriangleMesh copy = mesh;
            expectBatchesMatch(copy, mode > 0, mode == 2, mode == 3);
        }
}

}  // namespace

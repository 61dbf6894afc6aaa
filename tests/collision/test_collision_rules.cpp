// Traversal rules on small hand-made scenes: exact counters, single leaves, append semantics,
// adjacent pairs, disabled and frozen faces, the vertex-radius test.

#include "collision_test_util.h"

using namespace collisiontest;
using GmIntersection::ComponentTests;

namespace {

::testing::Environment* const serialByDefault = ::testing::AddGlobalTestEnvironment(new SerialByDefault);

// Three triangles that share no vertex and all cross the z axis: every pair intersects.
GmTriangleMesh threeCrossingTriangles() {
    GmTriangleMesh m;
    for (int k = 0; k < 3; ++k) {
        const double a = k * 2.0943951023931953;  // 120 degrees apart around z
        const Vec d(std::cos(a), std::sin(a), 0.0);
        const Vec e(-std::sin(a), std::cos(a), 0.0);
        const int v0 = m.addVertex(d * -0.5 + Vec(0, 0, -1) + e * 0.1 * k);
        const int v1 = m.addVertex(d * 0.5 + Vec(0, 0, -1) - e * 0.1 * k);
        const int v2 = m.addVertex(Vec(0, 0, 1) + e * 0.05 * (k + 1));
        m.addFace(v0, v1, v2);
    }
    m.finishConstruction();
    return m;
}

// Two triangles that share vertex 0 and pass through each other.
GmTriangleMesh piercingPairSharingAVertex() {
    GmTriangleMesh m;
    const int o = m.addVertex(Vec(0, 0, 0));
    const int a1 = m.addVertex(Vec(1, 0, 0)), a2 = m.addVertex(Vec(0, 1, 0));
    const int b1 = m.addVertex(Vec(0.5, 0.2, 0.5)), b2 = m.addVertex(Vec(0.2, 0.5, -0.5));
    m.addFace(o, a1, a2);
    m.addFace(o, b1, b2);
    m.finishConstruction();
    return m;
}

}  // namespace

TEST(CollisionRules, HandCountedMetricsOfThreeCrossingTriangles) {
    GmTriangleMesh m = threeCrossingTriangles();
    GmBoundingVolumeHierarchy tree(&m);
    ASSERT_EQ(tree.getNumberNodes(), 5);
    auto run = [&](std::vector<GmIntersectionInfo>& r, GmBVHMetrics& mm) {
        return tree.selfIntersect(r, false, false, false, mm);
    };
    auto [found, metrics] = serialAndParallel<GmIntersectionInfo>(run);
    // Descents from (1, 2) and (3, 4): (1, 2) overlaps and splits into two leaf pairs; (3, 4) is
    // a leaf pair. Four node pairs, all overlapping; three triangle pairs, all intersecting.
    EXPECT_EQ(found.size(), 3u);
    EXPECT_EQ(metrics.broadPhaseCandidates(), 4u);
    EXPECT_EQ(metrics.broadPhaseTests(), 4u);
    EXPECT_EQ(metrics.broadPhaseSuccesses(), 4u);
    EXPECT_EQ(metrics.narrowPhaseCandidates(), 3u);
    EXPECT_EQ(metrics.narrowPhaseTests(), 3u);
    EXPECT_EQ(metrics.narrowPhaseSuccesses(), 3u);
    std::set<FacePair> pairs;
    for (const auto& r : found)
        pairs.insert({std::min(r.triangleIndex1, r.triangleIndex2), std::max(r.triangleIndex1, r.triangleIndex2)});
    EXPECT_EQ(pairs, (std::set<FacePair>{{0, 1}, {0, 2}, {1, 2}}));
}

TEST(CollisionRules, SingleLeafTreeFindsNothingAndCountsNothing) {
    GmTriangleMesh m;
    m.addFace(Vec(0, 0, 0), Vec(1, 0, 0), Vec(0, 1, 0));
    m.finishConstruction();
    Positions end = m.getVertices();
    for (Vec& p : end) p.z += 1.0;
    GmBoundingVolumeHierarchy tree(&m, end);
    ThreadingSwitch sw;
    for (bool parallel : {false, true}) {
        sw.set(parallel);
        GmBVHMetrics metrics;
        std::vector<GmContinuousTimeIntersectionInfo> c;
        std::vector<GmProximityCheckInfo> p;
        std::vector<GmIntersectionInfo> s;
        EXPECT_FALSE(tree.continuousTimeSelfIntersect(c, end, GmIntersection::kAllTests, false, false, 0, metrics));
        EXPECT_FALSE(tree.selfProximityCheck(p, 1.0, GmIntersection::kAllTests, false, false, 0, 0.0, metrics));
        EXPECT_FALSE(tree.selfIntersect(s, false, false, false, metrics));
        EXPECT_TRUE(metrics == GmBVHMetrics());
    }
}

TEST(CollisionRules, EmptyMeshIsHarmless) {
    GmTriangleMesh empty;
    empty.finishConstruction();
    GmTriangleMesh other = threeCrossingTriangles();
    GmBoundingVolumeHierarchy te(&empty), to(&other);
    std::vector<GmIntersectionInfo> r(1);
    GmBVHMetrics m;
    EXPECT_FALSE(te.selfIntersect(r, false, false, false, m));
    EXPECT_TRUE(r.empty());
    EXPECT_FALSE(te.meshMeshIntersect(r, to, false, false, m));
    EXPECT_FALSE(to.meshMeshIntersect(r, te, false, false, m));
    EXPECT_TRUE(m == GmBVHMetrics());
}

TEST(CollisionRules, AppendKeepsOldRecordsAndReturnsWhetherTheVectorGrew) {
    GmTriangleMesh m = threeCrossingTriangles();
    GmBoundingVolumeHierarchy tree(&m);
    GmTriangleMesh far = qgtools::makeIcosphere(0, 0.1, Vec(10, 0, 0));
    GmBoundingVolumeHierarchy farTree(&far);
    ThreadingSwitch sw;
    for (bool parallel : {false, true}) {
        sw.set(parallel);
        GmIntersectionInfo marker;
        marker.triangleIndex1 = 77;
        std::vector<GmIntersectionInfo> r{marker};
        GmBVHMetrics metrics;
        EXPECT_TRUE(tree.selfIntersect(r, false, true, false, metrics));
        ASSERT_EQ(r.size(), 4u);
        EXPECT_EQ(r.front().triangleIndex1, 77);

        // Without append the vector is cleared first.
        EXPECT_TRUE(tree.selfIntersect(r, false, false, false, metrics));
        EXPECT_EQ(r.size(), 3u);
        // Counters only accumulate.
        EXPECT_EQ(metrics.narrowPhaseTests(), 6u);

        // Appending nothing returns false although the vector is not empty.
        std::vector<GmIntersectionInfo> kept{marker};
        EXPECT_FALSE(tree.meshMeshIntersect(kept, farTree, true, false, metrics));
        EXPECT_EQ(kept.size(), 1u);
        EXPECT_FALSE(tree.meshMeshIntersect(kept, farTree, false, false, metrics));
        EXPECT_TRUE(kept.empty());
    }
}

TEST(CollisionRules, AdjacentPairsOnlyThroughTheOrphanPass) {
    GmTriangleMesh m = piercingPairSharingAVertex();
    GmBoundingVolumeHierarchy plain(&m);
    std::vector<GmIntersectionInfo> stat;
    GmBVHMetrics ms;
    EXPECT_FALSE(plain.selfIntersect(stat, false, false, false, ms));
    // The single leaf pair shares a vertex: discarded before its box test.
    EXPECT_EQ(ms.broadPhaseCandidates(), 1u);
    EXPECT_EQ(ms.broadPhaseTests(), 0u);
    EXPECT_EQ(ms.narrowPhaseCandidates(), 0u);

    // Move the tip of the second triangle up through the first one.
    Positions end = m.getVertices();
    end[4] = Vec(0.2, 0.5, 0.5);
    GmBoundingVolumeHierarchy swept(&m, end);
    const GmAdjacentOrphanSet* orphans = m.getOrphanSet();
    ASSERT_GT(orphans->size(), 0u);
    for (ComponentTests tests : {GmIntersection::kAllTests, GmIntersection::kVertexFaceTests,
                                 GmIntersection::kFaceVertexTests, GmIntersection::kEdgeEdgeTests}) {
        auto run = [&](std::vector<GmContinuousTimeIntersectionInfo>& r, GmBVHMetrics& mm) {
            return swept.continuousTimeSelfIntersect(r, end, tests, false, false, 0, mm);
        };
        auto [found, metrics] = serialAndParallel<GmContinuousTimeIntersectionInfo>(run);
        std::vector<GmContinuousTimeIntersectionInfo> expected;
        for (const GmOrphanTest& t : *orphans) {
            GmBVHMetrics scratch;
            GmContactKernels::continuousOrphan(m, end, t.firstFace, t.secondFace,
                                               GmContactKernels::orphanComponentTests(m, t) & tests, scratch, DBL_MAX,
                                               nullptr, 0, expected);
        }
        EXPECT_EQ(sortedKeys(found), sortedKeys(expected)) << "tests " << tests.bits();
        EXPECT_EQ(metrics.narrowPhaseCandidates(), orphans->size());
        EXPECT_EQ(metrics.broadPhaseTests(), 0u);
        if (tests == GmIntersection::kAllTests) {
            // The tip crossing the first face is a vertex-face contact of an orphan entry.
            bool tipContact = false;
            for (const auto& r : found)
                if ((r.type == GmInterferenceType::VERTEX_FACE || r.type == GmInterferenceType::FACE_VERTEX) &&
                    r.feature1 == 4)
                    tipContact = true;
            EXPECT_TRUE(tipContact);
        }
        if (tests == GmIntersection::kVertexFaceTests) {
            for (const auto& r : found) EXPECT_EQ(r.type, GmInterferenceType::VERTEX_FACE);
        }
    }
}

TEST(CollisionRules, DisabledFacesArePrunedUnlessIncluded) {
    auto scene = makeFoldScene(16, 1.5, 3.4);
    GmTriangleMesh& mesh = scene->mesh;
    GmDisabledData disabled(&mesh);
    std::vector<int> off;
    for (int f = 0; f < mesh.getNumberFaces(); ++f)
        if (f % 3 == 0 || f < mesh.getNumberFaces() / 4) off.push_back(f);
    disabled.disableFaces(off);
    GmBoundingVolumeHierarchy masked(&mesh, scene->end, &disabled), unmasked(&mesh, scene->end);

    auto withMask = [&](std::vector<GmContinuousTimeIntersectionInfo>& r, GmBVHMetrics& m) {
        return masked.continuousTimeSelfIntersect(r, scene->end, GmIntersection::kAllTests, false, false, 0, m);
    };
    auto [found, metrics] = serialAndParallel<GmContinuousTimeIntersectionInfo>(withMask);
    ASSERT_FALSE(found.empty());
    for (const auto& r : found) {
        EXPECT_FALSE(disabled.isDisabled(r.triangleIndex1)) << r.triangleIndex1;
        EXPECT_FALSE(disabled.isDisabled(r.triangleIndex2)) << r.triangleIndex2;
    }
    // The orphan pass uses the mask's own orphan set.
    EXPECT_EQ(metrics.narrowPhaseCandidates(),
              overlappingLeafPairs(masked, true) + disabled.getOrphanSet()->size());

    // Every enabled-enabled contact of the unmasked query is still found.
    std::vector<GmContinuousTimeIntersectionInfo> all;
    GmBVHMetrics ma;
    unmasked.continuousTimeSelfIntersect(all, scene->end, GmIntersection::kAllTests, false, false, 0, ma);
    std::vector<GmContinuousTimeIntersectionInfo> enabledOnly;
    for (const auto& r : all)
        if (!disabled.isDisabled(r.triangleIndex1) && !disabled.isDisabled(r.triangleIndex2) &&
            !mesh.shareVertex(r.triangleIndex1, r.triangleIndex2))
            enabledOnly.push_back(r);
    std::vector<GmContinuousTimeIntersectionInfo> foundWalk;
    for (const auto& r : found)
        if (!mesh.shareVertex(r.triangleIndex1, r.triangleIndex2)) foundWalk.push_back(r);
    EXPECT_EQ(sortedKeys(foundWalk), sortedKeys(enabledOnly));

    // includeDisabled: the mask is ignored altogether.
    auto including = [&](std::vector<GmContinuousTimeIntersectionInfo>& r, GmBVHMetrics& m) {
        return masked.continuousTimeSelfIntersect(r, scene->end, GmIntersection::kAllTests, false, true, 0, m);
    };
    auto inc = serialAndParallel<GmContinuousTimeIntersectionInfo>(including);
    EXPECT_EQ(sortedKeys(inc.first), sortedKeys(all));
    EXPECT_TRUE(inc.second == ma);
}

TEST(CollisionRules, DisabledMaskWithZeroCountActsLikeNoMask) {
    GmTriangleMesh strip = qgtools::makeFoldedGrid(40, 6);
    GmDisabledData mask(&strip);
    for (int f = 0; f < strip.getNumberFaces(); f += 2) mask.setFaceDisabled(f);
    mask.setDisabledCount(0);
    GmBoundingVolumeHierarchy masked(&strip, &mask), plain(&strip);
    std::vector<GmIntersectionInfo> a, b;
    GmBVHMetrics ma, mb;
    masked.selfIntersect(a, false, false, false, ma);
    plain.selfIntersect(b, false, false, false, mb);
    EXPECT_FALSE(a.empty());
    EXPECT_EQ(sortedKeys(a), sortedKeys(b));
    EXPECT_TRUE(ma == mb);
}

TEST(CollisionRules, FrozenPairsArePrunedUnlessIgnored) {
    GmTriangleMesh strip = qgtools::makeFoldedGrid(40, 6);
    const int n = strip.getNumberFaces();
    GmFrozenData frozen(n);
    for (int f = 0; f < n; ++f) frozen.setFaceFrozen(f);
    GmBoundingVolumeHierarchy tree(&strip, nullptr, &frozen), plain(&strip);
    auto run = [&](std::vector<GmIntersectionInfo>& r, GmBVHMetrics& m) {
        return tree.selfIntersect(r, false, false, false, m);
    };
    auto allFrozen = serialAndParallel<GmIntersectionInfo>(run);
    EXPECT_TRUE(allFrozen.first.empty());
    // Each descent stops at its first pair: one candidate per internal node, nothing tested.
    EXPECT_EQ(allFrozen.second.broadPhaseCandidates(), std::uint32_t(tree.getNumberInternalNodes()));
    EXPECT_EQ(allFrozen.second.broadPhaseTests(), 0u);

    std::vector<GmIntersectionInfo> reference;
    GmBVHMetrics mr;
    plain.selfIntersect(reference, false, false, false, mr);
    ASSERT_FALSE(reference.empty());
    tree.setIgnoreFrozen(true);
    auto ignored = serialAndParallel<GmIntersectionInfo>(run);
    EXPECT_EQ(sortedKeys(ignored.first), sortedKeys(reference));
    EXPECT_TRUE(ignored.second == mr);

    // Half frozen: pairs of two frozen faces disappear, pairs with a moving face remain.
    tree.setIgnoreFrozen(false);
    GmFrozenData half(n);
    for (int f = 0; f < n / 2; ++f) half.setFaceFrozen(f);
    tree.setFrozenData(&half);
    auto partly = serialAndParallel<GmIntersectionInfo>(run);
    std::vector<GmIntersectionInfo> expected;
    for (const auto& r : reference)
        if (!(half.isFrozen(r.triangleIndex1) && half.isFrozen(r.triangleIndex2))) expected.push_back(r);
    EXPECT_EQ(sortedKeys(partly.first), sortedKeys(expected));
}

TEST(CollisionRules, VertexRadiusTestFiltersCandidates) {
    auto scene = makeFoldScene(16, 1.5, 3.4);
    GmTriangleMesh& mesh = scene->mesh;
    // Reference positions: the flat cloth, where folded-over faces are far apart; only pairs
    // within 0.15 of each other there may reach the kernel.
    auto ref = std::make_shared<Positions>(qgtools::makeClothGrid(16, 16, 1.0, 1.0).getVertices());
    GmBoundingVolumeHierarchy tree(&mesh, scene->end), filtered(&mesh, scene->end);
    GmIntersection::MeshTests tests;
    tests.setVertexRadiusTest(ref, 0.15);
    filtered.setMeshTests(tests);

    std::vector<GmContinuousTimeIntersectionInfo> all;
    GmBVHMetrics ma;
    tree.continuousTimeSelfIntersect(all, scene->end, GmIntersection::kAllTests, false, false, 0, ma);
    auto run = [&](std::vector<GmContinuousTimeIntersectionInfo>& r, GmBVHMetrics& m) {
        return filtered.continuousTimeSelfIntersect(r, scene->end, GmIntersection::kAllTests, false, false, 0, m);
    };
    auto [found, metrics] = serialAndParallel<GmContinuousTimeIntersectionInfo>(run);

    std::vector<GmContinuousTimeIntersectionInfo> expected;
    for (const auto& r : all) {
        const GmTriangleFace& f1 = mesh.getFace(r.triangleIndex1);
        const GmTriangleFace& f2 = mesh.getFace(r.triangleIndex2);
        if (tests.vertexRadiusTest(f1.vertices, f2.vertices)) expected.push_back(r);
    }
    EXPECT_LT(expected.size(), all.size()) << "the test should remove far-apart pairs";
    EXPECT_EQ(sortedKeys(found), sortedKeys(expected));
    // The same candidates are examined; fewer reach the kernel.
    EXPECT_EQ(metrics.narrowPhaseCandidates(), ma.narrowPhaseCandidates());
    EXPECT_LT(metrics.narrowPhaseTests(), metrics.narrowPhaseCandidates());
}

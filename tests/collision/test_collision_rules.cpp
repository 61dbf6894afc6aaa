// Traversal rules on small hand-made scenes: exact counters, degenerate trees, append semantics,
// adjacent pairs, disabled and frozen faces, the vertex-radius test.

#include "collision_test_util.h"

using namespace collisiontest;
using CT = GmContinuousTimeIntersectionInfo;
using ST = GmIntersectionInfo;

namespace {

// Meshes and trees are built serially; the queries under test switch the parallel path on.
class SerialByDefault : public ::testing::Environment {
public:
    void SetUp() override { tarnCollision::setMultiThreading(false); }
};
::testing::Environment* const serialByDefault = ::testing::AddGlobalTestEnvironment(new SerialByDefault);

// Three triangles that share no vertex and all cross the z axis: every pair intersects.
GmTriangleMesh threeCrossingTriangles() {
    GmTriangleMesh m;
    for (int k = 0; k < 3; ++k) {
        const double a = k * 2.0943951023931953;  // 120 degrees apart around z
        const Vec d(std::cos(a), std::sin(a), 0.0), e(-std::sin(a), std::cos(a), 0.0);
        m.addFace(d * -0.5 + Vec(0, 0, -1) + e * 0.1 * k, d * 0.5 + Vec(0, 0, -1) - e * 0.1 * k,
                  Vec(0, 0, 1) + e * 0.05 * (k + 1));
    }
    m.finishConstruction();
    return m;
}

template <class Record>
std::vector<Record> query(const std::function<bool(std::vector<Record>&, GmBVHMetrics&)>& run, GmBVHMetrics* m = nullptr) {
    std::vector<Record> r;
    GmBVHMetrics scratch;
    run(r, m ? *m : scratch);
    return r;
}

}  // namespace

TEST(CollisionRules, HandCountedMetricsOfThreeCrossingTriangles) {
    GmTriangleMesh m = threeCrossingTriangles();
    GmBoundingVolumeHierarchy tree(&m);
    ASSERT_EQ(tree.getNumberNodes(), 5);
    auto [found, metrics] = serialAndParallel<ST>(
        [&](std::vector<ST>& r, GmBVHMetrics& mm) { return tree.selfIntersect(r, false, false, false, mm); });
    // Descents from (1, 2) and (3, 4): (1, 2) overlaps and splits into two leaf pairs; (3, 4) is
    // a leaf pair. Four node pairs, all overlapping; three triangle pairs, all intersecting.
    EXPECT_EQ((std::vector<std::uint32_t>{metrics.broadPhaseCandidates(), metrics.broadPhaseTests(),
                                          metrics.broadPhaseSuccesses(), metrics.narrowPhaseCandidates(),
                                          metrics.narrowPhaseTests(), metrics.narrowPhaseSuccesses()}),
              (std::vector<std::uint32_t>{4, 4, 4, 3, 3, 3}));
    std::set<FacePair> pairs;
    for (const auto& r : found)
        pairs.insert({std::min(r.triangleIndex1, r.triangleIndex2), std::max(r.triangleIndex1, r.triangleIndex2)});
    EXPECT_EQ(found.size(), 3u);
    EXPECT_EQ(pairs, (std::set<FacePair>{{0, 1}, {0, 2}, {1, 2}}));
}

// A single leaf, an empty mesh and two meshes whose roots are apart: nothing found; only the
// roots of the apart meshes are examined. Appending keeps old records and returns whether the
// vector grew; counters accumulate.
TEST(CollisionRules, DegenerateTreesAndAppendSemantics) {
    GmTriangleMesh one, empty, other = threeCrossingTriangles();
    one.addFace(Vec(0, 0, 0), Vec(1, 0, 0), Vec(0, 1, 0));
    one.finishConstruction();
    empty.finishConstruction();
    Positions end = one.getVertices();
    for (Vec& p : end) p.z += 1.0;
    GmBoundingVolumeHierarchy leaf(&one, end), te(&empty), to(&other);
    GmTriangleMesh a = qgtools::makeIcosphere(2, 0.5), b = qgtools::makeIcosphere(2, 0.5, Vec(2, 0, 0));
    GmBoundingVolumeHierarchy ta(&a), tb(&b);
    ThreadingSwitch sw;
    for (bool parallel : {false, true}) {
        sw.set(parallel);
        GmBVHMetrics m;
        std::vector<CT> c;
        std::vector<GmProximityCheckInfo> p;
        std::vector<ST> s(1);
        EXPECT_FALSE(leaf.continuousTimeSelfIntersect(c, end, GmIntersection::kAllTests, false, false, 0, m));
        EXPECT_FALSE(leaf.selfProximityCheck(p, 1.0, GmIntersection::kAllTests, false, false, 0, 0.0, m));
        EXPECT_FALSE(leaf.selfIntersect(s, false, false, false, m));
        EXPECT_FALSE(te.selfIntersect(s, false, false, false, m));
        EXPECT_FALSE(te.meshMeshIntersect(s, to, false, false, m));
        EXPECT_FALSE(to.meshMeshIntersect(s, te, false, false, m));
        EXPECT_TRUE(s.empty());
        EXPECT_TRUE(m == GmBVHMetrics());
        ST marker;
        marker.triangleIndex1 = 77;
        s = {marker};
        EXPECT_FALSE(ta.meshMeshIntersect(s, tb, true, false, m));  // appending nothing
        EXPECT_EQ(s.size(), 1u);
        EXPECT_EQ(m.broadPhaseCandidates(), 1u);
        EXPECT_EQ(m.broadPhaseTests(), 1u);
        EXPECT_EQ(m.broadPhaseSuccesses(), 0u);
        EXPECT_TRUE(to.selfIntersect(s, false, true, false, m));
        ASSERT_EQ(s.size(), 4u);
        EXPECT_EQ(s.front().triangleIndex1, 77);
        EXPECT_TRUE(to.selfIntersect(s, false, false, false, m));  // cleared first
        EXPECT_EQ(s.size(), 3u);
        EXPECT_EQ(m.narrowPhaseTests(), 6u);
        EXPECT_FALSE(ta.meshMeshIntersect(s, tb, false, false, m));
        EXPECT_TRUE(s.empty());
    }
}

// Two triangles sharing vertex 0 (first corner of one, second of the other), the tip of the
// second moving up through the first and its far edge across the first's: the leaf pair is
// dropped before its box test; contacts come from the orphan entries only, each entry's one
// test ANDed with the caller's.
TEST(CollisionRules, AdjacentPairsOnlyThroughTheOrphanPass) {
    GmTriangleMesh m;
    m.addFace(Vec(0, 0, 0), Vec(1, 0, 0), Vec(0, 1, 0));
    const int o = 0, b1 = m.addVertex(Vec(0.9, 0.6, 0.5)), b2 = m.addVertex(Vec(0.2, 0.5, -0.5));
    m.addFace(b1, o, b2);
    m.finishConstruction();
    GmBoundingVolumeHierarchy plain(&m);
    GmBVHMetrics ms;
    EXPECT_TRUE(query<ST>([&](auto& r, auto& mm) { return plain.selfIntersect(r, false, false, false, mm); }, &ms).empty());
    EXPECT_EQ(ms.broadPhaseCandidates(), 1u);
    EXPECT_EQ(ms.broadPhaseTests(), 0u);
    EXPECT_EQ(ms.narrowPhaseCandidates(), 0u);

    Positions end = m.getVertices();
    end[std::size_t(b2)] = Vec(0.2, 0.5, 0.5);
    GmBoundingVolumeHierarchy swept(&m, end);
    const GmAdjacentOrphanSet* orphans = m.getOrphanSet();
    ASSERT_GT(orphans->size(), 0u);
    for (ComponentTests tests : {GmIntersection::kAllTests, GmIntersection::kVertexFaceTests,
                                 GmIntersection::kFaceVertexTests, GmIntersection::kEdgeEdgeTests}) {
        auto [found, metrics] = serialAndParallel<CT>([&](std::vector<CT>& r, GmBVHMetrics& mm) {
            return swept.continuousTimeSelfIntersect(r, end, tests, false, false, 0, mm);
        });
        std::vector<CT> expected;
        for (const GmOrphanTest& t : *orphans) {
            GmBVHMetrics scratch;
            GmContactKernels::continuousOrphan(m, end, t.firstFace, t.secondFace,
                                               GmContactKernels::orphanComponentTests(m, t) & tests, scratch, DBL_MAX,
                                               nullptr, 0, expected);
        }
        EXPECT_EQ(sortedKeys(found), sortedKeys(expected)) << "tests " << tests.bits();
        EXPECT_EQ(metrics.narrowPhaseCandidates(), orphans->size());
        EXPECT_EQ(metrics.broadPhaseTests(), 0u);
        const bool tip = std::any_of(found.begin(), found.end(), [&](const CT& r) {
            return r.type != GmInterferenceType::EDGE_EDGE && r.feature1 == b2;
        });
        EXPECT_TRUE(tip || tests != GmIntersection::kAllTests) << "the tip crossing the first face";
        const bool edges = std::any_of(found.begin(), found.end(), [](const CT& r) { return r.type == GmInterferenceType::EDGE_EDGE; });
        EXPECT_EQ(edges, (tests & GmIntersection::kEdgeEdgeTests).bits() != 0) << "the far edges crossing";
        for (const auto& r : found)
            EXPECT_TRUE(r.type == GmInterferenceType::VERTEX_FACE || tests != GmIntersection::kVertexFaceTests);
    }
}

TEST(CollisionRules, FrozenPairsArePrunedUnlessIgnored) {
    GmTriangleMesh strip = qgtools::makeFoldedGrid(40, 6);
    const int n = strip.getNumberFaces();
    GmFrozenData frozen(n), half(n);
    for (int f = 0; f < n; ++f) frozen.setFaceFrozen(f);
    for (int f = 0; f < n / 2; ++f) half.setFaceFrozen(f);
    GmBoundingVolumeHierarchy tree(&strip, nullptr, &frozen), plain(&strip);
    auto run = [&](std::vector<ST>& r, GmBVHMetrics& m) { return tree.selfIntersect(r, false, false, false, m); };
    auto allFrozen = serialAndParallel<ST>(run);
    EXPECT_TRUE(allFrozen.first.empty());
    // Each descent stops at its first pair: one candidate per internal node, nothing tested.
    EXPECT_EQ(allFrozen.second.broadPhaseCandidates(), std::uint32_t(tree.getNumberInternalNodes()));
    EXPECT_EQ(allFrozen.second.broadPhaseTests(), 0u);

    auto reference = serialAndParallel<ST>(
        [&](std::vector<ST>& r, GmBVHMetrics& m) { return plain.selfIntersect(r, false, false, false, m); });
    ASSERT_FALSE(reference.first.empty());
    tree.setIgnoreFrozen(true);
    auto ignored = serialAndParallel<ST>(run);
    EXPECT_EQ(sortedKeys(ignored.first), sortedKeys(reference.first));
    EXPECT_TRUE(ignored.second == reference.second);

    // Half frozen: pairs of two frozen faces disappear, pairs with a moving face remain.
    tree.setIgnoreFrozen(false);
    tree.setFrozenData(&half);
    std::vector<ST> expected;
    for (const auto& r : reference.first)
        if (!(half.isFrozen(r.triangleIndex1) && half.isFrozen(r.triangleIndex2))) expected.push_back(r);
    ASSERT_LT(expected.size(), reference.first.size());
    EXPECT_EQ(sortedKeys(serialAndParallel<ST>(run).first), sortedKeys(expected));
}

// Faces of a disabled mask are pruned (a mask with a zero count acts like none); the
// vertex-radius test keeps pairs near each other in the reference positions. Both against the
// unfiltered query's records.
TEST(CollisionRules, DisabledFacesAndVertexRadiusTestFilterTheRecords) {
    auto [mesh, end] = fold(16, 1.5, 3.4);
    GmDisabledData disabled(&mesh), zeroCount(&mesh);
    std::vector<int> off;
    for (int f = 0; f < mesh.getNumberFaces(); ++f)
        if (f % 3 == 0 || f < mesh.getNumberFaces() / 4) off.push_back(f);
    disabled.disableFaces(off);
    zeroCount.disableFaces(off);
    zeroCount.setDisabledCount(0);  // a mask with a zero count acts like none
    GmBoundingVolumeHierarchy masked(&mesh, end, &disabled), unmasked(&mesh, end),
        zero(&mesh, end, &zeroCount);
    auto runOn = [&](const GmBoundingVolumeHierarchy& t, bool include) {
        return [&t, include, &end = end](std::vector<CT>& r, GmBVHMetrics& m) {
            return t.continuousTimeSelfIntersect(r, end, GmIntersection::kAllTests, false, include, 0, m);
        };
    };
    GmBVHMetrics ma, mz;
    const std::vector<CT> all = query<CT>(runOn(unmasked, false), &ma);
    auto [found, metrics] = serialAndParallel<CT>(runOn(masked, false));
    ASSERT_FALSE(found.empty());
    std::vector<CT> walkFound, walkExpected;
    for (const auto& r : found) {
        EXPECT_FALSE(disabled.isDisabled(r.triangleIndex1) || disabled.isDisabled(r.triangleIndex2));
        if (!mesh.shareVertex(r.triangleIndex1, r.triangleIndex2)) walkFound.push_back(r);
    }
    for (const auto& r : all)
        if (!disabled.isDisabled(r.triangleIndex1) && !disabled.isDisabled(r.triangleIndex2) &&
            !mesh.shareVertex(r.triangleIndex1, r.triangleIndex2))
            walkExpected.push_back(r);
    EXPECT_EQ(sortedKeys(walkFound), sortedKeys(walkExpected));
    // The orphan pass uses the mask's own orphan set.
    EXPECT_EQ(metrics.narrowPhaseCandidates(), overlappingLeafPairs(masked, true) + disabled.getOrphanSet()->size());
    auto included = serialAndParallel<CT>(runOn(masked, true));
    EXPECT_EQ(sortedKeys(included.first), sortedKeys(all));
    EXPECT_TRUE(included.second == ma);
    EXPECT_EQ(sortedKeys(query<CT>(runOn(zero, false), &mz)), sortedKeys(all));
    EXPECT_TRUE(mz == ma);

    // Reference positions: the flat cloth, where folded-over faces are far apart; only pairs
    // within 0.15 of each other there may reach the kernel.
    auto ref = std::make_shared<Positions>(qgtools::makeClothGrid(16, 16, 1.0, 1.0).getVertices());
    GmBoundingVolumeHierarchy filtered(&mesh, end);
    GmIntersection::MeshTests tests;
    tests.setVertexRadiusTest(ref, 0.15);
    filtered.setMeshTests(tests);
    auto [near, nearMetrics] = serialAndParallel<CT>(runOn(filtered, false));
    std::vector<CT> expected;  // the unfiltered records, filtered
    for (const auto& r : all)
        if (tests.vertexRadiusTest(mesh.getFace(r.triangleIndex1).vertices, mesh.getFace(r.triangleIndex2).vertices))
            expected.push_back(r);
    EXPECT_LT(expected.size(), all.size()) << "the test should remove far-apart pairs";
    EXPECT_EQ(sortedKeys(near), sortedKeys(expected));
    // The same candidates are examined; fewer reach the kernel.
    EXPECT_EQ(nearMetrics.narrowPhaseCandidates(), ma.narrowPhaseCandidates());
    EXPECT_LT(nearMetrics.narrowPhaseTests(), nearMetrics.narrowPhaseCandidates());
}

// Self queries (continuous-time, proximity, static intersection) checked against brute force
// over all face pairs and against a reference orphan pass, serially and in parallel.

#include <regex>

#include "collision_test_util.h"

using namespace collisiontest;
using GmIntersection::ComponentTests;

namespace {

// Orphan pass reference: every entry of `set`, its one test ANDed with `tests`, through the
// orphan kernel in stored order.
template <class Record, class Kernel>
std::vector<std::string> orphanReference(const GmTriangleMesh& mesh, const GmAdjacentOrphanSet* set,
                                         ComponentTests tests, Kernel&& kernel, std::uint32_t* successes = nullptr) {
    std::vector<Record> out;
    std::uint32_t ok = 0;
    for (const GmOrphanTest& t : *set)
        if (kernel(t.firstFace, t.secondFace, GmContactKernels::orphanComponentTests(mesh, t) & tests, out)) ++ok;
    if (successes) *successes = ok;
    return sortedKeys(out);
}

template <class Record>
std::vector<Record> adjacentOnly(const GmTriangleMesh& mesh, const std::vector<Record>& records) {
    std::vector<Record> out;
    for (const Record& r : records)
        if (mesh.shareVertex(r.triangleIndex1, r.triangleIndex2)) out.push_back(r);
    return out;
}

template <class Record>
std::size_t distinctNonAdjacentPairs(const GmTriangleMesh& mesh, const std::vector<Record>& records) {
    std::set<FacePair> pairs;
    for (const Record& r : records)
        if (!mesh.shareVertex(r.triangleIndex1, r.triangleIndex2))
            pairs.insert({std::min(r.triangleIndex1, r.triangleIndex2), std::max(r.triangleIndex1, r.triangleIndex2)});
    return pairs.size();
}

// Full check of a continuous-time self query on a mesh and its end positions.
void checkContinuousSelf(GmTriangleMesh& mesh, const Positions& end, ComponentTests tests) {
    GmBoundingVolumeHierarchy tree(&mesh, end);
    auto run = [&](std::vector<GmContinuousTimeIntersectionInfo>& r, GmBVHMetrics& m) {
        return tree.continuousTimeSelfIntersect(r, end, tests, false, false, 3, m);
    };
    auto [found, metrics] = serialAndParallel<GmContinuousTimeIntersectionInfo>(run);
    ASSERT_FALSE(found.empty()) << "the scene should produce contacts";

    // Tree-walk pairs against all pairs.
    const std::vector<Box> boxes = faceBoxes(mesh, {&mesh.getVertices(), &end}, 1e-4);
    auto kernel = [&](int i, int j, std::vector<GmContinuousTimeIntersectionInfo>& out) {
        GmBVHMetrics scratch;
        return GmContactKernels::continuousSelf(mesh, end, i, j, tests, scratch, DBL_MAX, nullptr, 3, out);
    };
    const auto bf = bruteForceSelf<GmContinuousTimeIntersectionInfo>(mesh, boxes, kernel);
    expectMatchesBruteForce(&mesh, found, bf);

    // Adjacent pairs reach the kernel through the orphan pass only, with the orphan masks.
    std::uint32_t orphanSuccesses = 0;
    auto orphanKernel = [&](int i, int j, ComponentTests t, std::vector<GmContinuousTimeIntersectionInfo>& out) {
        GmBVHMetrics scratch;
        return GmContactKernels::continuousOrphan(mesh, end, i, j, t, scratch, DBL_MAX, nullptr, 3, out);
    };
    const GmAdjacentOrphanSet* orphans = mesh.getOrphanSet();
    EXPECT_EQ(sortedKeys(adjacentOnly(mesh, found)),
              orphanReference<GmContinuousTimeIntersectionInfo>(mesh, orphans, tests, orphanKernel, &orphanSuccesses));

    // Counters: every overlapping non-adjacent leaf pair and every orphan entry is a narrow-phase
    // candidate exactly once; with no mesh test each candidate is tested.
    EXPECT_EQ(metrics.narrowPhaseCandidates(), overlappingLeafPairs(tree) + orphans->size());
    EXPECT_EQ(metrics.narrowPhaseTests(), metrics.narrowPhaseCandidates());
    EXPECT_EQ(metrics.narrowPhaseSuccesses(), distinctNonAdjacentPairs(mesh, found) + orphanSuccesses);
    EXPECT_LE(metrics.broadPhaseSuccesses(), metrics.broadPhaseTests());
    EXPECT_LE(metrics.broadPhaseTests(), metrics.broadPhaseCandidates());
    EXPECT_GT(metrics.vertexFaceCandidates() + metrics.edgeEdgeCandidates(), 0u);
    for (const auto& r : found) {
        EXPECT_EQ(r.objectIndex1, 3);
        EXPECT_EQ(r.objectIndex2, 3);
    }
}

}  // namespace

TEST(CollisionSelfContinuous, FoldingClothMatchesBruteForce) {
    auto scene = makeFoldScene(20, 1.5, 3.4);
    checkContinuousSelf(scene->mesh, scene->end, GmIntersection::kAllTests);
}

TEST(CollisionSelfContinuous, FoldingClothVertexFaceTestsOnly) {
    auto scene = makeFoldScene(16, 1.5, 3.4);
    checkContinuousSelf(scene->mesh, scene->end, GmIntersection::kVertexFaceTests);
    GmBoundingVolumeHierarchy tree(&scene->mesh, scene->end);
    std::vector<GmContinuousTimeIntersectionInfo> found;
    GmBVHMetrics m;
    tree.continuousTimeSelfIntersect(found, scene->end, GmIntersection::kVertexFaceTests, false, false, -1, m);
    for (const auto& r : found) EXPECT_EQ(r.type, GmInterferenceType::VERTEX_FACE);
    EXPECT_EQ(m.edgeEdgeCandidates(), 0u);
}

TEST(CollisionSelfContinuous, FoldedSpotMatchesBruteForce) {
    GmTriangleMesh spot = qgtools::loadObjMesh(spotPath());
    ASSERT_GT(spot.getNumberFaces(), 5000);
    const Positions end = foldZ(spot.getVertices(), 0.5);
    CerrCapture cerr;
    checkContinuousSelf(spot, end, GmIntersection::kAllTests);
    // Edges that come to lie on one line where the upper half flattens (see foldZ) take the
    // direction between them at the start of the step: no contact goes without a normal.
    EXPECT_EQ(cerr.text(), "");
}

TEST(CollisionSelfProximity, NearlyFoldedClothMatchesBruteForce) {
    // Right half folded to 172 degrees: close to the left half near the hinge, farther away out.
    auto scene = makeFoldScene(20, 3.0, 3.0);
    GmTriangleMesh& mesh = scene->mesh;
    const double distance = 0.03;
    GmBoundingVolumeHierarchy tree(&mesh, distance);
    auto run = [&](std::vector<GmProximityCheckInfo>& r, GmBVHMetrics& m) {
        return tree.selfProximityCheck(r, distance, GmIntersection::kAllTests, false, false, 1, 0.0, m);
    };
    auto [found, metrics] = serialAndParallel<GmProximityCheckInfo>(run);
    ASSERT_FALSE(found.empty());
    for (const auto& r : found) EXPECT_LE(r.distance, distance);

    const std::vector<Box> boxes = faceBoxes(mesh, {&mesh.getVertices()}, distance + 1e-4);
    auto kernel = [&](int i, int j, std::vector<GmProximityCheckInfo>& out) {
        GmBVHMetrics scratch;
        return GmContactKernels::proximitySelf(mesh, i, j, distance, GmIntersection::kAllTests, scratch, nullptr, 1,
                                               out);
    };
    expectMatchesBruteForce(&mesh, found, bruteForceSelf<GmProximityCheckInfo>(mesh, boxes, kernel));

    auto orphanKernel = [&](int i, int j, ComponentTests t, std::vector<GmProximityCheckInfo>& out) {
        GmBVHMetrics scratch;
        return GmContactKernels::proximityOrphan(mesh, i, j, distance, t, scratch, nullptr, 1, out);
    };
    std::uint32_t orphanSuccesses = 0;
    EXPECT_EQ(sortedKeys(adjacentOnly(mesh, found)),
              orphanReference<GmProximityCheckInfo>(mesh, mesh.getOrphanSet(), GmIntersection::kAllTests,
                                                    orphanKernel, &orphanSuccesses));
    EXPECT_EQ(metrics.narrowPhaseCandidates(), overlappingLeafPairs(tree) + mesh.getOrphanSet()->size());
    EXPECT_EQ(metrics.narrowPhaseSuccesses(), distinctNonAdjacentPairs(mesh, found) + orphanSuccesses);
}

TEST(CollisionSelfStatic, FoldedStripMatchesBruteForce) {
    GmTriangleMesh strip = qgtools::makeFoldedGrid(80, 10);
    GmBoundingVolumeHierarchy tree(&strip);
    auto run = [&](std::vector<GmIntersectionInfo>& r, GmBVHMetrics& m) {
        return tree.selfIntersect(r, true, false, false, m);
    };
    auto [found, metrics] = serialAndParallel<GmIntersectionInfo>(run);
    ASSERT_FALSE(found.empty()) << "the strip crosses itself";

    const std::vector<Box> boxes = faceBoxes(strip, {&strip.getVertices()}, 1e-4);
    auto kernel = [&](int i, int j, std::vector<GmIntersectionInfo>& out) {
        GmBVHMetrics scratch;
        return GmContactKernels::staticSelf(strip, i, j, scratch, out);
    };
    expectMatchesBruteForce(&strip, found, bruteForceSelf<GmIntersectionInfo>(strip, boxes, kernel));
    // No orphan pass: adjacent pairs never reach the static kernel.
    EXPECT_TRUE(adjacentOnly(strip, found).empty());
    EXPECT_EQ(metrics.narrowPhaseCandidates(), overlappingLeafPairs(tree));
    EXPECT_EQ(metrics.narrowPhaseSuccesses(), found.size());
}

TEST(CollisionSelfStatic, FoldedSpotMatchesBruteForce) {
    GmTriangleMesh spot = qgtools::loadObjMesh(spotPath());
    spot.setVertices(foldZ(spot.getVertices(), 0.5));
    GmBoundingVolumeHierarchy tree(&spot);
    auto run = [&](std::vector<GmIntersectionInfo>& r, GmBVHMetrics& m) {
        return tree.selfIntersect(r, false, false, false, m);
    };
    auto [found, metrics] = serialAndParallel<GmIntersectionInfo>(run);
    ASSERT_FALSE(found.empty());
    const std::vector<Box> boxes = faceBoxes(spot, {&spot.getVertices()}, 1e-4);
    auto kernel = [&](int i, int j, std::vector<GmIntersectionInfo>& out) {
        GmBVHMetrics scratch;
        return GmContactKernels::staticSelf(spot, i, j, scratch, out);
    };
    expectMatchesBruteForce(&spot, found, bruteForceSelf<GmIntersectionInfo>(spot, boxes, kernel));
    EXPECT_EQ(metrics.narrowPhaseCandidates(), overlappingLeafPairs(tree));
}

TEST(CollisionSelfStatic, CleanMeshHasNoSelfIntersection) {
    GmTriangleMesh spot = qgtools::loadObjMesh(spotPath());
    GmBoundingVolumeHierarchy tree(&spot);
    auto run = [&](std::vector<GmIntersectionInfo>& r, GmBVHMetrics& m) {
        return tree.selfIntersect(r, false, false, false, m);
    };
    auto [found, metrics] = serialAndParallel<GmIntersectionInfo>(run);
    EXPECT_TRUE(found.empty());
    EXPECT_GT(metrics.narrowPhaseTests(), 0u) << "neighbouring faces' boxes overlap, so pairs are tested";
}

// Larger real mesh: serial and parallel agree on every query (no brute force at this size).
TEST(CollisionSelfParallel, BunnyQueriesAgreeSerialAndParallel) {
    GmTriangleMesh bunny = qgtools::loadObjMesh(qgtools::dataDir() + "/meshes/stanford-bunny.obj");
    ASSERT_GT(bunny.getNumberFaces(), 60000);
    // A small smooth displacement field on the bunny's scale (about 0.15 across).
    Positions end = bunny.getVertices();
    for (std::size_t i = 0; i < end.size(); ++i) {
        const Vec p = end[i];
        end[i] = p + Vec(std::sin(97 * p.y), std::cos(83 * p.z), std::sin(71 * p.x)) * 2e-3;
    }
    GmBoundingVolumeHierarchy swept(&bunny, end);
    auto ccd = [&](std::vector<GmContinuousTimeIntersectionInfo>& r, GmBVHMetrics& m) {
        return swept.continuousTimeSelfIntersect(r, end, GmIntersection::kAllTests, false, false, 0, m);
    };
    auto ccdResult = serialAndParallel<GmContinuousTimeIntersectionInfo>(ccd);
    EXPECT_GT(ccdResult.second.narrowPhaseTests(), 0u);

    GmBoundingVolumeHierarchy thick(&bunny, 5e-4);
    auto prox = [&](std::vector<GmProximityCheckInfo>& r, GmBVHMetrics& m) {
        return thick.selfProximityCheck(r, 5e-4, GmIntersection::kAllTests, false, false, 0, 0.0, m);
    };
    auto proxResult = serialAndParallel<GmProximityCheckInfo>(prox);
    EXPECT_FALSE(proxResult.first.empty());

    GmBoundingVolumeHierarchy plain(&bunny);
    auto stat = [&](std::vector<GmIntersectionInfo>& r, GmBVHMetrics& m) {
        return plain.selfIntersect(r, false, false, false, m);
    };
    auto statResult = serialAndParallel<GmIntersectionInfo>(stat);
    EXPECT_EQ(statResult.second.narrowPhaseCandidates(), statResult.second.narrowPhaseTests());
}

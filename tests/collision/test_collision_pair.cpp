// Two-mesh queries (static, continuous-time, proximity) against brute force over all face pairs,
// serially and in parallel, and through the GmBoundingTree facade.

#include "collision_test_util.h"

using namespace collisiontest;

namespace {

// Spot and a copy of it turned by 0.7 rad about z and moved by a fraction of its size.
struct SpotPair {
    GmTriangleMesh a, b;
    SpotPair() : a(qgtools::loadObjMesh(spotPath())), b(a) {
        b.setVertices(rotateShift(a.getVertices(), 0.7, Vec(0.25, 0.1, 0.05)));
    }
};

}  // namespace

TEST(CollisionPairStatic, SpotAgainstTurnedCopyMatchesBruteForce) {
    SpotPair s;
    GmBoundingVolumeHierarchy ta(&s.a), tb(&s.b);
    auto run = [&](std::vector<GmIntersectionInfo>& r, GmBVHMetrics& m) {
        return ta.meshMeshIntersect(r, tb, false, false, m);
    };
    auto [found, metrics] = serialAndParallel<GmIntersectionInfo>(run);
    ASSERT_FALSE(found.empty());
    const auto ba = faceBoxes(s.a, {&s.a.getVertices()}, 1e-4);
    const auto bb = faceBoxes(s.b, {&s.b.getVertices()}, 1e-4);
    auto kernel = [&](int i, int j, std::vector<GmIntersectionInfo>& out) {
        GmBVHMetrics scratch;
        return GmContactKernels::staticMesh(s.a, s.b, i, j, scratch, out);
    };
    expectMatchesBruteForce<GmIntersectionInfo>(nullptr, found, bruteForcePair<GmIntersectionInfo>(ba, bb, kernel));
    EXPECT_EQ(metrics.narrowPhaseSuccesses(), found.size());
    EXPECT_EQ(metrics.narrowPhaseTests(), metrics.narrowPhaseCandidates());
}

TEST(CollisionPairContinuous, ClothFallingOntoSphereMatchesBruteForce) {
    // A 24 x 24 cloth above a sphere moves down through the sphere's top in one step.
    GmTriangleMesh cloth = qgtools::makeClothGrid(24, 24, 1.6, 1.6, Vec(-0.8, -0.8, 0.55));
    GmTriangleMesh sphere = qgtools::makeIcosphere(3, 0.5);
    Positions clothEnd = cloth.getVertices();
    for (std::size_t i = 0; i < clothEnd.size(); ++i) clothEnd[i].z -= 0.2 + 0.01 * jitter(std::uint32_t(i));
    const Positions sphereEnd = sphere.getVertices();
    GmBoundingVolumeHierarchy tc(&cloth, clothEnd), ts(&sphere, sphereEnd);
    auto run = [&](std::vector<GmContinuousTimeIntersectionInfo>& r, GmBVHMetrics& m) {
        return tc.continuousTimeIntersect(r, clothEnd, ts, sphereEnd, nullptr, nullptr, GmIntersection::kAllTests,
                                          false, false, false, 0, 1, m);
    };
    auto [found, metrics] = serialAndParallel<GmContinuousTimeIntersectionInfo>(run);
    ASSERT_FALSE(found.empty());
    for (const auto& r : found) {
        EXPECT_EQ(r.objectIndex1, 0);
        EXPECT_EQ(r.objectIndex2, 1);
        EXPECT_GE(r.time, 0.0);
        EXPECT_LE(r.time, 1.0);
    }
    const auto bc = faceBoxes(cloth, {&cloth.getVertices(), &clothEnd}, 1e-4);
    const auto bs = faceBoxes(sphere, {&sphere.getVertices(), &sphereEnd}, 1e-4);
    auto kernel = [&](int i, int j, std::vector<GmContinuousTimeIntersectionInfo>& out) {
        GmBVHMetrics scratch;
        return GmContactKernels::continuousMesh(cloth, clothEnd, sphere, sphereEnd, i, j, GmIntersection::kAllTests,
                                                scratch, DBL_MAX, nullptr, nullptr, 0, 1, out);
    };
    expectMatchesBruteForce<GmContinuousTimeIntersectionInfo>(
        nullptr, found, bruteForcePair<GmContinuousTimeIntersectionInfo>(bc, bs, kernel));
}

TEST(CollisionPairProximity, ClothAboveSphereMatchesBruteForce) {
    GmTriangleMesh cloth = qgtools::makeClothGrid(24, 24, 1.6, 1.6, Vec(-0.8, -0.8, 0.51));
    GmTriangleMesh sphere = qgtools::makeIcosphere(3, 0.5);
    const double distance = 0.03;
    GmBoundingVolumeHierarchy tc(&cloth, distance), ts(&sphere, distance);
    auto run = [&](std::vector<GmProximityCheckInfo>& r, GmBVHMetrics& m) {
        return tc.proximityCheck(r, distance, ts, nullptr, GmIntersection::kAllTests, false, false, 0, 1, 0.0, m);
    };
    auto [found, metrics] = serialAndParallel<GmProximityCheckInfo>(run);
    ASSERT_FALSE(found.empty());
    const auto bc = faceBoxes(cloth, {&cloth.getVertices()}, distance + 1e-4);
    const auto bs = faceBoxes(sphere, {&sphere.getVertices()}, distance + 1e-4);
    auto kernel = [&](int i, int j, std::vector<GmProximityCheckInfo>& out) {
        GmBVHMetrics scratch;
        return GmContactKernels::proximityMesh(cloth, sphere, i, j, distance, GmIntersection::kAllTests, scratch,
                                               nullptr, 0, 1, out);
    };
    expectMatchesBruteForce<GmProximityCheckInfo>(nullptr, found,
                                                  bruteForcePair<GmProximityCheckInfo>(bc, bs, kernel));
}

TEST(CollisionPairStatic, DisjointMeshesFindNothing) {
    GmTriangleMesh a = qgtools::makeIcosphere(2, 0.5);
    GmTriangleMesh b = qgtools::makeIcosphere(2, 0.5, Vec(2, 0, 0));
    GmBoundingVolumeHierarchy ta(&a), tb(&b);
    std::vector<GmIntersectionInfo> r;
    GmBVHMetrics m;
    EXPECT_FALSE(ta.meshMeshIntersect(r, tb, false, false, m));
    EXPECT_TRUE(r.empty());
    // Only the roots are examined: their boxes are apart.
    EXPECT_EQ(m.broadPhaseCandidates(), 1u);
    EXPECT_EQ(m.broadPhaseTests(), 1u);
    EXPECT_EQ(m.broadPhaseSuccesses(), 0u);
}

TEST(CollisionPairFacade, ForwardsAndChoosesComponentTests) {
    GmTriangleMesh cloth = qgtools::makeClothGrid(12, 12, 1.6, 1.6, Vec(-0.8, -0.8, 0.55));
    GmTriangleMesh sphere = qgtools::makeIcosphere(2, 0.5);
    Positions clothEnd = cloth.getVertices();
    for (Vec& p : clothEnd) p.z -= 0.25;
    const Positions sphereEnd = sphere.getVertices();
    GmBoundingTree tc(&cloth, clothEnd), ts(&sphere, sphereEnd);

    std::vector<GmContinuousTimeIntersectionInfo> direct, viaBool, viaAll;
    GmBVHMetrics m1, m2, m3;
    tc.getHierarchy()->continuousTimeIntersect(direct, clothEnd, *ts.getHierarchy(), sphereEnd, nullptr, nullptr,
                                               GmIntersection::kVertexFaceTests, false, false, false, 0, 1, m1);
    tc.continuousTimeIntersect(viaBool, clothEnd, ts, sphereEnd, nullptr, nullptr, true, false, false, false, 0, 1,
                               m2);
    EXPECT_EQ(sortedKeys(direct), sortedKeys(viaBool));
    EXPECT_TRUE(m1 == m2);
    for (const auto& r : viaBool) EXPECT_EQ(r.type, GmInterferenceType::VERTEX_FACE);

    tc.continuousTimeIntersect(viaAll, clothEnd, ts, sphereEnd, nullptr, nullptr, GmIntersection::kAllTests, false,
                               false, false, 0, 1, m3);
    std::vector<GmContinuousTimeIntersectionInfo> viaFalse;
    GmBVHMetrics m4;
    tc.continuousTimeIntersect(viaFalse, clothEnd, ts, sphereEnd, nullptr, nullptr, false, false, false, false, 0, 1,
                               m4);
    EXPECT_EQ(sortedKeys(viaAll), sortedKeys(viaFalse));
    EXPECT_GT(viaAll.size(), viaBool.size());

    // Static and proximity forms of the facade give what the hierarchy gives.
    std::vector<GmIntersectionInfo> s1, s2;
    GmBVHMetrics n1, n2;
    GmBoundingTree pc(&cloth), ps(&sphere);
    cloth.setVertices(clothEnd);
    pc.refit();
    pc.meshMeshIntersect(s1, ps, false, false, n1);
    pc.getHierarchy()->meshMeshIntersect(s2, *ps.getHierarchy(), false, false, n2);
    EXPECT_FALSE(s1.empty());
    EXPECT_EQ(sortedKeys(s1), sortedKeys(s2));

    std::vector<GmProximityCheckInfo> p1, p2;
    GmBoundingTree xc(&cloth, 0.05), xs(&sphere, 0.05);
    xc.proximityCheck(p1, 0.05, xs, nullptr, true, false, false, 0, 1, 0.0, n1);
    xc.getHierarchy()->proximityCheck(p2, 0.05, *xs.getHierarchy(), nullptr, GmIntersection::kVertexFaceTests,
                                      false, false, 0, 1, 0.0, n2);
    EXPECT_EQ(sortedKeys(p1), sortedKeys(p2));
}

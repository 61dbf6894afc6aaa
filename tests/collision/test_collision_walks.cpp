// Self and two-mesh queries (static, continuous-time, proximity) against brute force over all
// face pairs and a reference orphan pass, serially and in parallel.

#include "collision_test_util.h"

using namespace collisiontest;
using CT = GmContinuousTimeIntersectionInfo;
using PX = GmProximityCheckInfo;
using ST = GmIntersectionInfo;

namespace {

template <class Record>
using Kernel = std::function<bool(int, int, std::vector<Record>&)>;
template <class Record>
using OrphanKernel = std::function<bool(int, int, ComponentTests, std::vector<Record>&)>;

ComponentTests testsOf(GmInterferenceType t) {
    return t == GmInterferenceType::VERTEX_FACE   ? GmIntersection::kVertexFaceTests
           : t == GmInterferenceType::FACE_VERTEX ? GmIntersection::kFaceVertexTests
                                                  : GmIntersection::kEdgeEdgeTests;
}

// Record fields shared by the contact kinds: object indices, a type the tests allow, the time in
// range and, given the meshes, an edge-edge record's vertices as consecutive corners of each face.
template <class Record>
void expectFields(const std::vector<Record>& found, int object1, int object2, ComponentTests tests,
                  const GmTriangleMesh* m1 = nullptr, const GmTriangleMesh* m2 = nullptr) {
    if constexpr (std::is_base_of_v<GmTriangleInterferenceInfo, Record>)
        for (const Record& r : found) {
            EXPECT_EQ(r.objectIndex1, object1);
            EXPECT_EQ(r.objectIndex2, object2);
            EXPECT_EQ((testsOf(r.type) & tests).bits(), testsOf(r.type).bits()) << int(r.type);
            EXPECT_TRUE(r.time >= 0.0 && r.time <= 1.0) << r.time;
            for (int k = 0; m1 != nullptr && r.type == GmInterferenceType::EDGE_EDGE && k < 2; ++k) {
                const int* c = (k == 0 ? m1 : m2)->getFace(k == 0 ? r.triangleIndex1 : r.triangleIndex2).vertices;
                const std::ptrdiff_t i = std::find(c, c + 3, r.vertexIndices[2 * k]) - c;
                EXPECT_TRUE(i < 3 && c[(i + 1) % 3] == r.vertexIndices[2 * k + 1]) << "edge " << k << " of " << key(r);
            }
        }
}

// A self query on `tree` (whose mesh is `mesh`) against the brute force over all non-adjacent
// pairs; adjacent pairs come from the orphan pass only (none when `orphan` is empty); exact
// candidate and success counters.
template <class Record>
void checkSelf(const GmTriangleMesh& mesh, const GmBoundingVolumeHierarchy& tree, const std::vector<Box>& boxes,
               const std::function<bool(std::vector<Record>&, GmBVHMetrics&)>& run, const Kernel<Record>& kernel,
               const OrphanKernel<Record>& orphan, ComponentTests tests, bool contacts, int object = 3) {
    auto [found, metrics] = serialAndParallel<Record>(run);
    ASSERT_EQ(!found.empty(), contacts);
    EXPECT_GT(metrics.narrowPhaseTests(), 0u);
    expectMatchesBruteForce(&mesh, found, bruteForce<Record>(&mesh, boxes, boxes, kernel));
    expectFields(found, object, object, tests, &mesh, &mesh);

    std::vector<Record> adjacent, reference;
    std::set<FacePair> pairs;
    for (const Record& r : found) {
        const int a = std::min(r.triangleIndex1, r.triangleIndex2), b = std::max(r.triangleIndex1, r.triangleIndex2);
        if (mesh.shareVertex(a, b)) adjacent.push_back(r);
        else pairs.insert({a, b});
    }
    std::uint32_t orphanCandidates = 0, orphanSuccesses = 0;
    if (orphan) {
        for (const GmOrphanTest& t : *mesh.getOrphanSet())
            orphanSuccesses += orphan(t.firstFace, t.secondFace, GmContactKernels::orphanComponentTests(mesh, t) & tests,
                                      reference);
        orphanCandidates = std::uint32_t(mesh.getOrphanSet()->size());
    }
    EXPECT_EQ(sortedKeys(adjacent), sortedKeys(reference));
    // Every overlapping non-adjacent leaf pair and every orphan entry is a candidate once; with
    // no mesh test each candidate is tested.
    EXPECT_EQ(metrics.narrowPhaseCandidates(), overlappingLeafPairs(tree) + orphanCandidates);
    EXPECT_EQ(metrics.narrowPhaseTests(), metrics.narrowPhaseCandidates());
    EXPECT_EQ(metrics.narrowPhaseSuccesses(), pairs.size() + orphanSuccesses);
    if ((tests & GmIntersection::kEdgeEdgeTests).bits() == 0) {
        EXPECT_EQ(metrics.edgeEdgeCandidates(), 0u);
    }
}

struct SelfScene {
    std::string name;
    std::function<std::pair<GmTriangleMesh, Positions>()> make;  // mesh at the start, end positions
    ComponentTests tests;
};


}  // namespace

TEST(CollisionSelf, ContinuousMatchesBruteForce) {
    const std::vector<SelfScene> scenes = {
        {"folding cloth", [] { return fold(20, 1.5, 3.4); }, GmIntersection::kAllTests},
        {"folding cloth, vertex-face only", [] { return fold(16, 1.5, 3.4); }, GmIntersection::kVertexFaceTests},
        {"folding cloth, edge-edge only", [] { return fold(12, 1.5, 3.4); }, GmIntersection::kEdgeEdgeTests},
        {"spot folded through itself",
         [] {
             GmTriangleMesh m = loadSpot();
             Positions end = foldZ(m.getVertices(), 0.5);
             return std::make_pair(std::move(m), std::move(end));
         },
         GmIntersection::kAllTests},
    };
    for (const SelfScene& s : scenes) {
        SCOPED_TRACE(s.name);
        auto [mesh, end] = s.make();
        GmBoundingVolumeHierarchy tree(&mesh, end);
        const Positions& start = mesh.getVertices();
        testing::internal::CaptureStderr();
        checkSelf<CT>(
            mesh, tree, faceBoxes(mesh, {&start, &end}, 1e-4),
            [&](std::vector<CT>& r, GmBVHMetrics& m) { return tree.continuousTimeSelfIntersect(r, end, s.tests, false, false, 3, m); },
            [&](int i, int j, std::vector<CT>& out) {
                GmBVHMetrics scratch;
                return GmContactKernels::continuousSelf(mesh, end, i, j, s.tests, scratch, DBL_MAX, nullptr, 3, out);
            },
            [&](int i, int j, ComponentTests t, std::vector<CT>& out) {
                GmBVHMetrics scratch;
                return GmContactKernels::continuousOrphan(mesh, end, i, j, t, scratch, DBL_MAX, nullptr, 3, out);
            },
            s.tests, true);
        // Parallel edges that touch take the direction between them at the start: no contact
        // goes without a normal, so nothing is printed.
        EXPECT_EQ(testing::internal::GetCapturedStderr(), "");
    }
}

TEST(CollisionSelf, ProximityMatchesBruteForce) {
    // Right half folded to 172 degrees: close to the left half near the hinge, farther out.
    GmTriangleMesh mesh = fold(20, 3.0, 3.0).first;
    const double distance = 0.03;
    GmBoundingVolumeHierarchy tree(&mesh, distance);
    checkSelf<PX>(
        mesh, tree, faceBoxes(mesh, {&mesh.getVertices()}, distance + 1e-4),
        [&](std::vector<PX>& r, GmBVHMetrics& m) {
            return tree.selfProximityCheck(r, distance, GmIntersection::kAllTests, false, false, 1, 0.0, m);
        },
        [&](int i, int j, std::vector<PX>& out) {
            GmBVHMetrics scratch;
            return GmContactKernels::proximitySelf(mesh, i, j, distance, GmIntersection::kAllTests, scratch, nullptr, 1, out);
        },
        [&](int i, int j, ComponentTests t, std::vector<PX>& out) {
            GmBVHMetrics scratch;
            return GmContactKernels::proximityOrphan(mesh, i, j, distance, t, scratch, nullptr, 1, out);
        },
        GmIntersection::kAllTests, true, 1);
}

// Static: no orphan pass, adjacent pairs never reach the kernel.
TEST(CollisionSelf, StaticMatchesBruteForce) {
    const std::vector<std::pair<std::string, std::function<GmTriangleMesh()>>> scenes = {
        {"folded strip", [] { return qgtools::makeFoldedGrid(80, 10); }},
        {"folded spot",
         [] {
             GmTriangleMesh m = loadSpot();
             m.setVertices(foldZ(m.getVertices(), 0.5));
             return m;
         }},
        {"clean spot", loadSpot},
    };
    for (const auto& [name, make] : scenes) {
        SCOPED_TRACE(name);
        GmTriangleMesh mesh = make();
        GmBoundingVolumeHierarchy tree(&mesh);
        checkSelf<ST>(
            mesh, tree, faceBoxes(mesh, {&mesh.getVertices()}, 1e-4),
            [&](std::vector<ST>& r, GmBVHMetrics& m) { return tree.selfIntersect(r, true, false, false, m); },
            [&](int i, int j, std::vector<ST>& out) {
                GmBVHMetrics scratch;
                return GmContactKernels::staticSelf(mesh, i, j, scratch, out);
            },
            nullptr, GmIntersection::kAllTests, name != "clean spot");
    }
}

namespace {

// Two meshes: each face pair is one call, first mesh first; no orphan pass.
template <class Record>
void checkPair(const std::function<bool(std::vector<Record>&, GmBVHMetrics&)>& run, const std::vector<Box>& boxes1,
               const std::vector<Box>& boxes2, const Kernel<Record>& kernel) {
    auto [found, metrics] = serialAndParallel<Record>(run);
    ASSERT_FALSE(found.empty());
    expectFields(found, 0, 1, GmIntersection::kAllTests);
    expectMatchesBruteForce<Record>(nullptr, found, bruteForce<Record>(nullptr, boxes1, boxes2, kernel));
    std::set<FacePair> pairs;
    for (const Record& r : found) pairs.insert({r.triangleIndex1, r.triangleIndex2});
    EXPECT_EQ(metrics.narrowPhaseSuccesses(), pairs.size());
    EXPECT_EQ(metrics.narrowPhaseTests(), metrics.narrowPhaseCandidates());
}

}  // namespace

// A cloth moving down through a sphere's top (continuous), the cloth just above it
// (proximity), spot against a turned copy (static).
TEST(CollisionPair, AllKindsMatchBruteForce) {
    GmTriangleMesh cloth = qgtools::makeClothGrid(24, 24, 1.6, 1.6, Vec(-0.8, -0.8, 0.55));
    GmTriangleMesh above = qgtools::makeClothGrid(24, 24, 1.6, 1.6, Vec(-0.8, -0.8, 0.51));
    GmTriangleMesh sphere = qgtools::makeIcosphere(3, 0.5), a = loadSpot(), b = a;
    Positions clothEnd = cloth.getVertices(), turned = a.getVertices();
    for (std::size_t i = 0; i < clothEnd.size(); ++i) clothEnd[i].z -= 0.2 + 0.01 * jitter(std::uint32_t(i));
    for (Vec& v : turned) v = Vec(std::cos(0.7) * v.x - std::sin(0.7) * v.y + 0.25, std::sin(0.7) * v.x + std::cos(0.7) * v.y + 0.1, v.z + 0.05);
    b.setVertices(turned);
    const Positions& sphereEnd = sphere.getVertices();
    const double d = 0.03;
    GmBoundingVolumeHierarchy tc(&cloth, clothEnd), ts(&sphere, sphereEnd), pa(&above, d), ps(&sphere, d), ta(&a), tb(&b);
    GmBVHMetrics scratch;
    checkPair<CT>(
        [&](std::vector<CT>& r, GmBVHMetrics& m) {
            return tc.continuousTimeIntersect(r, clothEnd, ts, sphereEnd, nullptr, nullptr, GmIntersection::kAllTests,
                                              false, false, false, 0, 1, m);
        },
        faceBoxes(cloth, {&cloth.getVertices(), &clothEnd}, 1e-4), faceBoxes(sphere, {&sphereEnd}, 1e-4),
        [&](int i, int j, std::vector<CT>& out) {
            return GmContactKernels::continuousMesh(cloth, clothEnd, sphere, sphereEnd, i, j, GmIntersection::kAllTests,
                                                    scratch, DBL_MAX, nullptr, nullptr, 0, 1, out);
        });
    checkPair<PX>(
        [&](std::vector<PX>& r, GmBVHMetrics& m) {
            return pa.proximityCheck(r, d, ps, nullptr, GmIntersection::kAllTests, false, false, 0, 1, 0.0, m);
        },
        faceBoxes(above, {&above.getVertices()}, d + 1e-4), faceBoxes(sphere, {&sphereEnd}, d + 1e-4),
        [&](int i, int j, std::vector<PX>& out) {
            return GmContactKernels::proximityMesh(above, sphere, i, j, d, GmIntersection::kAllTests, scratch, nullptr,
                                                   0, 1, out);
        });
    checkPair<ST>([&](std::vector<ST>& r, GmBVHMetrics& m) { return ta.meshMeshIntersect(r, tb, false, false, m); },
                  faceBoxes(a, {&a.getVertices()}, 1e-4), faceBoxes(b, {&turned}, 1e-4),
                  [&](int i, int j, std::vector<ST>& out) { return GmContactKernels::staticMesh(a, b, i, j, scratch, out); });
}

// The facade forwards to the hierarchy; `true` selects the vertex-face tests, `false` all.
TEST(CollisionPair, FacadeForwardsAndChoosesComponentTests) {
    GmTriangleMesh cloth = qgtools::makeClothGrid(12, 12, 1.6, 1.6, Vec(-0.8, -0.8, 0.55));
    GmTriangleMesh sphere = qgtools::makeIcosphere(2, 0.5);
    Positions clothEnd = cloth.getVertices();
    for (Vec& p : clothEnd) p.z -= 0.25;
    const Positions sphereEnd = sphere.getVertices();
    GmBoundingTree tc(&cloth, clothEnd), ts(&sphere, sphereEnd), xc(&cloth, 0.05), xs(&sphere, 0.05);
    for (bool vertexFace : {true, false}) {
        const ComponentTests tests = vertexFace ? GmIntersection::kVertexFaceTests : GmIntersection::kAllTests;
        std::vector<CT> direct, facade;
        std::vector<PX> p1, p2;
        GmBVHMetrics m1, m2;
        tc.getHierarchy()->continuousTimeIntersect(direct, clothEnd, *ts.getHierarchy(), sphereEnd, nullptr, nullptr,
                                                   tests, false, false, false, 0, 1, m1);
        tc.continuousTimeIntersect(facade, clothEnd, ts, sphereEnd, nullptr, nullptr, vertexFace, false, false, false,
                                   0, 1, m2);
        xc.getHierarchy()->proximityCheck(p1, 0.05, *xs.getHierarchy(), nullptr, tests, false, false, 0, 1, 0.0, m1);
        xc.proximityCheck(p2, 0.05, xs, nullptr, vertexFace, false, false, 0, 1, 0.0, m2);
        EXPECT_FALSE(facade.empty());
        EXPECT_EQ(sortedKeys(direct), sortedKeys(facade));
        EXPECT_EQ(sortedKeys(p1), sortedKeys(p2));
        EXPECT_TRUE(m1 == m2);
        expectFields(facade, 0, 1, tests);
    }
    std::vector<ST> s1, s2;
    GmBVHMetrics n1, n2;
    cloth.setVertices(clothEnd);
    GmBoundingTree pc(&cloth), ps(&sphere);
    pc.meshMeshIntersect(s1, ps, false, false, n1);
    pc.getHierarchy()->meshMeshIntersect(s2, *ps.getHierarchy(), false, false, n2);
    EXPECT_FALSE(s1.empty());
    EXPECT_EQ(sortedKeys(s1), sortedKeys(s2));
}

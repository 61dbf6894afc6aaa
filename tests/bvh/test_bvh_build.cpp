// Hierarchy layout, build and refit: the tree must be exactly the one its rules define.

#include <gtest/gtest.h>

#include <limits>

#include "bvh_test_util.h"

using namespace bvhtest;

namespace {

// Faces far beyond the float range, tiny ones, floats so large that the pad is lost in a double
// subtraction, and centres at -0 and +0.
GmTriangleMesh extremeMesh() {
    const double values[] = {0.0,     -0.0, 1e-30, -1e-30,    1e-45, 0.1,  -0.3,   1.0,     3.0e38,
                             -3.0e38, 1e39, -1e39, 12345.678, 1e9,   -1e9, 0x1p40, -0x1p40, 1e300};
    const unsigned count = sizeof values / sizeof values[0];
    qgtools::PolygonSoup s;
    std::mt19937 rng(4);
    auto any = [&] { return V3(values[rng() % count], values[rng() % count], values[rng() % count]); };
    for (int i = 0; i < 300; ++i) addTriangle(s, any(), any(), any());
    for (int i = 0; i < 40; ++i) {
        const double z = i % 2 ? -0.0 : 0.0;
        addTriangle(s, V3(z, i, 0), V3(z, i + 1, 1), V3(z, i, 2));
    }
    return qgtools::meshFromSoup(s);
}

// Split keys equal or a few units of rounding apart, far from the origin, in shuffled face order.
GmTriangleMesh nearlyEqualCentres(int n, int clusters, unsigned seed) {
    std::mt19937 rng(seed);
    std::uniform_real_distribution<double> u(-1.0, 1.0);
    qgtools::PolygonSoup s;
    for (int i = 0; i < n; ++i) {
        const double shift = static_cast<double>(rng() % static_cast<unsigned>(clusters)) * 1e-3;
        V3 c(1e6 + shift, -2.5e5 + shift, 3e4 - shift);
        for (int a = 0; a < 3; ++a)
            for (unsigned k = rng() % 8; k > 0; --k) c[a] = std::nextafter(c[a], 1e300);
        const V3 d(u(rng), u(rng), u(rng)), e(u(rng) * 1e-9, u(rng) * 1e-9, u(rng) * 1e-9);
        addTriangle(s, c + d, c - d, c + e);
    }
    return qgtools::meshFromSoup(s);
}

// Every mode (plain, swept, thick; masks) equals the reference node for node, serial and parallel.
// 70000 faces in 4000 clusters start and end the parallel build's chunks inside runs of equal
// keys; the small soups give every shape of the last two levels. Level k holds nodes [2^k - 1,
// min(2^(k+1) - 1, node count)) down to the depth ceil(log2 n); the leaves are the last n nodes.
TEST(BvhBuild, EqualsReferenceInEveryMode) {
    std::vector<NamedMesh> meshes = testMeshes();
    meshes.push_back({"extreme", extremeMesh()});
    meshes.push_back({"one cluster", nearlyEqualCentres(3000, 1, 8)});
    meshes.push_back({"clusters", nearlyEqualCentres(70000, 4000, 8)});
    for (int n = 1; n <= 40; ++n) meshes.push_back({"soup" + std::to_string(n), randomSoup(n, 100 + n)});
    for (NamedMesh& m : meshes) {
        GmTriangleMesh& mesh = m.mesh;
        const std::vector<V3> moved = jitteredPositions(mesh, 0.05, 7);
        GmDisabledData disabled(&mesh);
        GmFrozenData frozen(&mesh);
        for (int f = 0; f < mesh.getNumberFaces(); ++f) {
            if (f % 3 == 0 || f < mesh.getNumberFaces() / 4) disabled.setFaceDisabled(f);
            if (f < mesh.getNumberFaces() / 2) frozen.setFaceFrozen(f);
        }
        const int n = mesh.getNumberFaces();
        ScopedThreading serial(false);
        GmBoundingVolumeHierarchy h(&mesh);
        int depth = 0, first, last;
        while ((1 << depth) < n) ++depth;
        EXPECT_EQ(h.getDepth(), depth) << m.name;
        h.getLeafRange(first, last);
        EXPECT_TRUE(first == n - 1 && last == first + n) << m.name;
        for (int i = 0; i < h.getNumberNodes(); ++i) ASSERT_EQ(h.getNode(i).isLeaf(), i >= n - 1) << m.name << " " << i;
        for (int level = 0; level <= depth; ++level) {
            h.getRange(level, first, last);
            EXPECT_TRUE(first == (1 << level) - 1 && last == std::min((2 << level) - 1, 2 * n - 1)) << m.name << level;
        }
        const std::vector<RefNode> plain = referenceBuild(mesh, refLeaves(mesh, 0, nullptr, 0.0));
        const std::vector<RefNode> swept = referenceBuild(mesh, refLeaves(mesh, 1, &moved, 0.0, &disabled, &frozen));
        const std::vector<RefNode> thick = referenceBuild(mesh, refLeaves(mesh, 2, nullptr, 0.03, nullptr, &frozen));
        for (bool parallel : {false, true}) {
            ScopedThreading t(parallel);
            const std::string what = m.name + (parallel ? " parallel" : " serial");
            EXPECT_EQ(firstDifference(GmBoundingVolumeHierarchy(&mesh), plain), -1) << what;
            EXPECT_EQ(firstDifference(GmBoundingVolumeHierarchy(&mesh, moved, &disabled, &frozen), swept), -1) << what;
            EXPECT_EQ(firstDifference(GmBoundingVolumeHierarchy(&mesh, 0.03, nullptr, &frozen), thick), -1) << what;
        }
    }
}

// After each refit every node equals the reference refit of the unchanged shape, serial and
// parallel (the grid is above the parallel refit's size threshold); masks changed between
// refits, a zero-count mask, and masks set or cleared without a refit.
TEST(BvhRefit, EqualsReferenceOfTheSameShape) {
    for (const NamedMesh& m : {NamedMesh{"torus", qgtools::makeTorus(24, 12)},
                               NamedMesh{"grid", qgtools::makeClothGrid(260, 256, 3.0, 2.0)}})
        for (bool parallel : {false, true}) {
            ScopedThreading threading(parallel);
            GmTriangleMesh mesh = m.mesh;
            const std::string what = m.name + (parallel ? " parallel" : " serial");
            const std::vector<V3> moved = jitteredPositions(mesh, 0.05, 8);
            GmDisabledData disabled(&mesh), zeroCount(&mesh);
            GmFrozenData frozen(&mesh);
            std::mt19937 rng(1);
            for (int f = 0; f < mesh.getNumberFaces(); ++f) {
                if (rng() % 4 != 0 || f < mesh.getNumberFaces() / 8) disabled.setFaceDisabled(f);
                if (rng() % 3 != 0) frozen.setFaceFrozen(f);
            }
            zeroCount.setFaceDisabled(3);
            zeroCount.setDisabledCount(0);  // bits set, count zero: no mask
            GmBoundingVolumeHierarchy h(&mesh, &disabled, &frozen);
            std::vector<int> shape;
            for (const auto& n : h.getNodes()) shape.push_back(h.getFaceIndex(n));
            auto expectRefit = [&](const std::vector<RefNode>& leaves, const std::string& step) {
                EXPECT_EQ(firstDifference(h, referenceRefit(h, leaves)), -1) << what << ", " << step;
                for (size_t i = 0; i < shape.size(); ++i) ASSERT_EQ(h.getFaceIndex(h.getNodes()[i]), shape[i]) << step;
            };
            h.refit(moved, &disabled, nullptr);
            expectRefit(refLeaves(mesh, 1, &moved, 0.0, &disabled), "swept");
            h.refit(0.375, &zeroCount, &frozen);
            expectRefit(refLeaves(mesh, 2, nullptr, 0.375, nullptr, &frozen), "thick");

            // Faces enabled below disabled subtrees, and the mesh itself moved.
            h.refit(&disabled, &frozen);
            for (int f = 0; f < mesh.getNumberFaces() / 8; f += 97) disabled.setFaceDisabled(f, false);
            mesh.setVertices(moved);
            h.refit(&disabled, &frozen);
            expectRefit(refLeaves(mesh, 0, nullptr, 0.0, &disabled, &frozen), "plain after a move");

            // Masks cleared and set again change the flags only.
            h.setDisabledData(nullptr);
            h.setFrozenData(nullptr);
            expectRefit(refLeaves(mesh, 0, nullptr, 0.0), "masks cleared");
            h.setDisabledData(&disabled);
            h.setFrozenData(&frozen);
            expectRefit(refLeaves(mesh, 0, nullptr, 0.0, &disabled, &frozen), "masks set");
        }
}

// An empty mesh, and points that are not finite: every query finds nothing.
TEST(BvhLifecycle, QueriesThatFindNothing) {
    GmTriangleMesh empty, sphere = qgtools::makeIcosphere(2);
    empty.finishConstruction();
    GmBoundingVolumeHierarchy h(&empty);
    int first = -1, last = -1;
    h.getLeafRange(first, last);
    EXPECT_TRUE(h.empty() && h.getDepth() == -1 && first == 0 && last == 0);
    h.build();
    h.refit(std::vector<V3>());
    h.refit(0.5, nullptr, nullptr);
    h.setDisabledData(nullptr);
    EXPECT_FALSE(h.intersect(GmAxisAlignedBox(-1, -1, -1, 1, 1, 1)));
    GmBoundingTree emptyTree(&empty), sphereTree(&sphere);
    EXPECT_TRUE(emptyTree.getRootAxisAlignedBox().isEmpty());
    EXPECT_FALSE(emptyTree & GmAxisAlignedBox(-1, -1, -1, 1, 1, 1));
    const double nan = std::numeric_limits<double>::quiet_NaN(), inf = std::numeric_limits<double>::infinity();
    const std::pair<const GmBoundingTree*, V3> cases[] = {
        {&emptyTree, V3(0, 0, 0)}, {&sphereTree, V3(nan, 0, 0)}, {&sphereTree, V3(0, inf, 0)}, {&sphereTree, V3(-inf, nan, inf)}};
    for (const auto& [tree, p] : cases) {
        V3 c, n;
        int face = 3, v = 2;
        double s, t;
        bool pinched;
        EXPECT_TRUE(tree->findClosestPoint(p, c, n, face, s, t, nullptr, true) == DBL_MAX && face == -1) << p;
        face = 3;
        EXPECT_TRUE(tree->findClosestPoint(p, c, face, n, pinched, false, true) == DBL_MAX && face == -1) << p;
        EXPECT_TRUE(tree->getNearestVertex(p, v, true) == DBL_MAX && v == -1) << p;
        EXPECT_FALSE(tree->isInsideMesh(p, true));
        std::vector<GmPointIntersectionInfo> hits;
        EXPECT_FALSE(tree->intersect(GmRay(p, V3(1, 0, 0)), hits, false, true));
        EXPECT_FALSE(tree->intersect(GmRayAxis<0, 0, -1>(p), hits, false, true));
        EXPECT_FALSE(tree->intersect(GmRay(V3(0, 0, 0), p), hits, false, true));
    }
}

// Exposes the facade's protected parts.
class TestTree : public GmBoundingTree {
public:
    using GmBoundingTree::GmBoundingTree;
    using GmBoundingTree::reset;
};

TEST(BvhFacade, UpdateResetAndCopies) {
    GmTriangleMesh mesh = qgtools::makeIcosphere(2);
    TestTree tree(&mesh);
    const GmAxisAlignedBox root = tree.getRootAxisAlignedBox();
    // A box query tests the root box only: touching counts, the next float off does not.
    EXPECT_TRUE(tree & GmAxisAlignedBox(0.1f, 0.1f, 0.1f, 0.2f, 0.2f, 0.2f));  // inside, meets no face
    EXPECT_TRUE(tree & GmAxisAlignedBox(root.maxX, root.maxY, root.maxZ, 5, 5, 5));
    EXPECT_TRUE(tree.getHierarchy()->intersect(GmAxisAlignedBox(-3, -3, -3, root.minX, 0, 0)));
    EXPECT_FALSE(tree & GmAxisAlignedBox(std::nextafter(root.maxX, 10.0f), 0, 0, 5, 5, 5));
    EXPECT_FALSE(tree & GmAxisAlignedBox());  // the empty box

    // update refits only when asked.
    const std::vector<V3> moved = jitteredPositions(mesh, 0.5, 2);
    tree.update(moved, false);
    EXPECT_TRUE(sameBox(root, tree.getRootAxisAlignedBox()));
    tree.update(moved, true);
    EXPECT_EQ(firstDifference(*tree.getHierarchy(), referenceRefit(*tree.getHierarchy(), refLeaves(mesh, 1, &moved, 0))), -1);

    // reset follows a change of the face count; copies are new, equal and independent.
    GmTriangleMesh bigger = qgtools::makeIcosphere(3);
    mesh = bigger;
    tree.reset(0.0);
    const std::vector<RefNode> built = referenceBuild(mesh, refLeaves(mesh, 0, nullptr, 0));
    EXPECT_EQ(firstDifference(*tree.getHierarchy(), built), -1);
    GmBoundingTree deep(tree);
    EXPECT_NE(deep.getHierarchy(), tree.getHierarchy());
    EXPECT_EQ(firstDifference(*deep.getHierarchy(), built), -1);
    GmBoundingVolumeHierarchy h(&mesh, 0.1), copy(h);
    h.refit(0.5);
    EXPECT_EQ(firstDifference(copy, referenceBuild(mesh, refLeaves(mesh, 2, nullptr, 0.1))), -1);
    copy = h;
    EXPECT_EQ(firstDifference(copy, referenceBuild(mesh, refLeaves(mesh, 2, nullptr, 0.5))), -1);
}

}  // namespace

// Hierarchy layout, build and refit: the tree must be exactly the one its rules define.

#include <gtest/gtest.h>

#include <cstring>
#include <functional>
#include <memory>
#include <sstream>

#include "bvh_test_util.h"

using namespace bvhtest;

namespace {

struct NamedMesh {
    std::string name;
    GmTriangleMesh mesh;
};

std::vector<NamedMesh> buildMeshes() {
    std::vector<NamedMesh> m;
    m.push_back({"grid20x13", qgtools::makeClothGrid(20, 13)});
    m.push_back({"icosphere3", qgtools::makeIcosphere(3)});
    m.push_back({"cube", qgtools::makeCube()});
    m.push_back({"torus", qgtools::makeTorus(24, 12)});
    m.push_back({"soup777", randomSoup(777, 5)});
    m.push_back({"spot", loadData("spot.obj")});
    return m;
}

// ---- Layout -------------------------------------------------------------------------------

TEST(BvhLayout, CountsDepthAndRanges) {
    const int expectedDepth[] = {-1, 0, 1, 2, 2, 3, 3, 3, 3, 4};
    for (int n = 0; n <= 9; ++n) {
        GmTriangleMesh mesh = randomSoup(n, 11);
        GmBoundingVolumeHierarchy h(&mesh);
        EXPECT_EQ(h.getDepth(), expectedDepth[n]) << n;
        EXPECT_EQ(h.getNumberLeafNodes(), n);
        EXPECT_EQ(h.getNumberInternalNodes(), n > 0 ? n - 1 : 0);
        EXPECT_EQ(h.getNumberNodes(), n > 0 ? 2 * n - 1 : 0);
        EXPECT_EQ(h.empty(), n == 0);
        int first, last;
        h.getLeafRange(first, last);
        EXPECT_EQ(first, n > 0 ? n - 1 : 0);
        EXPECT_EQ(last, first + n);
        // Internal nodes have two children, leaves none; the leaves are exactly [first, last).
        for (int i = 0; i < h.getNumberNodes(); ++i) EXPECT_EQ(h.getNode(i).isLeaf(), i >= first) << n << " " << i;
    }
    GmTriangleMesh mesh = randomSoup(5, 3);  // 9 nodes: levels {0}, {1,2}, {3..6}, {7,8}
    GmBoundingVolumeHierarchy h(&mesh);
    int first, last;
    h.getRange(0, first, last);
    EXPECT_EQ(first, 0);
    EXPECT_EQ(last, 1);
    h.getRange(2, first, last);
    EXPECT_EQ(first, 3);
    EXPECT_EQ(last, 7);
    h.getRange(3, first, last);  // partly filled level ends at the node count
    EXPECT_EQ(first, 7);
    EXPECT_EQ(last, 9);
    EXPECT_EQ(GmBoundingVolumeHierarchy::getLeftIndex(4), 9);
    EXPECT_EQ(GmBoundingVolumeHierarchy::getRightIndex(4), 10);
}

TEST(BvhLayout, SmallTreesFollowTheSplitRules) {
    // Two faces: not sorted, face 0 left, face 1 right (face 1 lies left of face 0 in x).
    qgtools::PolygonSoup s;
    s.positions = {V3(5, 0, 0), V3(6, 0, 0), V3(5, 1, 0), V3(0, 0, 0), V3(1, 0, 0), V3(0, 1, 0)};
    s.triangles = {{0, 1, 2}, {3, 4, 5}};
    GmTriangleMesh two = qgtools::meshFromSoup(s);
    GmBoundingVolumeHierarchy h2(&two);
    EXPECT_EQ(h2.getFaceIndex(h2.getNode(1)), 0);
    EXPECT_EQ(h2.getFaceIndex(h2.getNode(2)), 1);

    // Three faces along x: leaves at nodes 2, 3, 4; node 1 holds the two smallest centres.
    s.positions.push_back(V3(10, 0, 0));
    s.positions.push_back(V3(11, 0, 0));
    s.positions.push_back(V3(10, 1, 0));
    s.triangles.push_back({6, 7, 8});
    GmTriangleMesh three = qgtools::meshFromSoup(s);
    GmBoundingVolumeHierarchy h3(&three);
    EXPECT_FALSE(h3.getNode(1).isLeaf());
    EXPECT_EQ(h3.getFaceIndex(h3.getNode(2)), 2);
    EXPECT_EQ(h3.getFaceIndex(h3.getNode(3)), 1);
    EXPECT_EQ(h3.getFaceIndex(h3.getNode(4)), 0);

    // Equal centres on the split axis: ordered by face index.
    qgtools::PolygonSoup t;
    for (int i = 0; i < 4; ++i) {
        const double y = 3.0 * (3 - i);
        t.positions.push_back(V3(0, y, 0));
        t.positions.push_back(V3(20, y, 0));
        t.positions.push_back(V3(10, y + 1, 0));
        t.triangles.push_back({3 * i, 3 * i + 1, 3 * i + 2});
    }
    // x extent 20 dominates, every centre has x = 10: leaves 3..6 hold faces 0..3 in order.
    GmTriangleMesh ties = qgtools::meshFromSoup(t);
    GmBoundingVolumeHierarchy ht(&ties);
    for (int i = 0; i < 4; ++i) EXPECT_EQ(ht.getFaceIndex(ht.getNode(3 + i)), i);
}

TEST(BvhLayout, AxisAlignedFaceGetsAThinBox) {
    GmTriangleMesh mesh = qgtools::makeClothGrid(1, 1);  // z = 0
    GmBoundingVolumeHierarchy h(&mesh);
    const GmAxisAlignedBox& b = h.getNode(1).box;
    EXPECT_LE(b.minZ, -1e-8);
    EXPECT_GE(b.maxZ, 1e-8);
    EXPECT_NEAR(static_cast<double>(b.maxZ) - b.minZ, 2e-8, 1e-14);
}

TEST(BvhLayout, LeafBoxesRoundOutwardsForAnyCoordinate) {
    // Zeros, tiny and huge values, values beyond the float range, both signs, and floats so large
    // that subtracting the pad in double gives them back.
    const double values[] = {0.0,     -0.0,     1e-30, -1e-30, 1e-45, 0.1,  -0.3,   1.0,       3.0e38,
                             -3.0e38, 1e39,     -1e39, 12345.678, 1e9, -1e9, 0x1p40, -0x1p40};
    const unsigned count = sizeof values / sizeof values[0];
    qgtools::PolygonSoup s;
    std::mt19937 rng(4);
    for (int i = 0; i < 80; ++i) {
        for (int k = 0; k < 3; ++k)
            s.positions.push_back(V3(values[rng() % count], values[rng() % count], values[rng() % count]));
        s.triangles.push_back({3 * i, 3 * i + 1, 3 * i + 2});
    }
    GmTriangleMesh mesh = qgtools::meshFromSoup(s);
    ScopedThreading serial(false);
    GmBoundingVolumeHierarchy h(&mesh);
    for (int i = 0; i < h.getNumberNodes(); ++i) {
        const auto& n = h.getNode(i);
        if (!n.isLeaf()) continue;
        const GmAxisAlignedBox ref = refFaceBox(mesh, n.primitive->index, 0, nullptr, 0.0);
        EXPECT_TRUE(sameBox(n.box, ref)) << i << ": " << n.box << " vs " << ref;
        // The padded face lies inside (differences of nearby doubles are exact).
        for (int c = 0; c < 3; ++c) {
            const V3& p = mesh.getVertex(mesh.getFace(n.primitive->index).vertices[c]);
            EXPECT_GE(p.x - double(n.box.minX), 1e-8) << i;
            EXPECT_GE(p.y - double(n.box.minY), 1e-8) << i;
            EXPECT_GE(p.z - double(n.box.minZ), 1e-8) << i;
            EXPECT_GE(double(n.box.maxX) - p.x, 1e-8) << i;
            EXPECT_GE(double(n.box.maxY) - p.y, 1e-8) << i;
            EXPECT_GE(double(n.box.maxZ) - p.z, 1e-8) << i;
        }
    }
}

// ---- Build equals the reference -----------------------------------------------------------

TEST(BvhBuild, EqualsReferenceInEveryMode) {
    ScopedThreading serial(false);
    for (NamedMesh& m : buildMeshes()) {
        const std::vector<V3> moved = jitteredPositions(m.mesh, 0.05, 7);
        {
            GmBoundingVolumeHierarchy h(&m.mesh);
            EXPECT_EQ(firstDifference(h, referenceBuild(m.mesh, 0, nullptr, 0.0)), -1) << m.name << " plain";
        }
        {
            GmBoundingVolumeHierarchy h(&m.mesh, moved);
            EXPECT_EQ(firstDifference(h, referenceBuild(m.mesh, 1, &moved, 0.0)), -1) << m.name << " swept";
        }
        {
            GmBoundingVolumeHierarchy h(&m.mesh, 0.03);
            EXPECT_EQ(firstDifference(h, referenceBuild(m.mesh, 2, nullptr, 0.03)), -1) << m.name << " thick";
        }
    }
}

TEST(BvhBuild, SmallSoupsOfEverySize) {
    ScopedThreading serial(false);
    for (int n = 1; n <= 70; ++n) {
        GmTriangleMesh mesh = randomSoup(n, 100 + n);
        GmBoundingVolumeHierarchy h(&mesh);
        EXPECT_EQ(firstDifference(h, referenceBuild(mesh, 0, nullptr, 0.0)), -1) << n;
    }
}

TEST(BvhBuild, BunnyEqualsReference) {
    GmTriangleMesh bunny = loadData("stanford-bunny.obj");
    ScopedThreading serial(false);
    GmBoundingVolumeHierarchy h(&bunny);
    EXPECT_EQ(firstDifference(h, referenceBuild(bunny, 0, nullptr, 0.0)), -1);
}

// Sort keys that are equal or a few units of rounding apart, far from the origin, in
// shuffled face order: the order must be exactly (centre, face index) on every axis.
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
        s.positions.push_back(c + d);
        s.positions.push_back(c - d);
        s.positions.push_back(c + e);
        s.triangles.push_back({3 * i, 3 * i + 1, 3 * i + 2});
    }
    return qgtools::meshFromSoup(s);
}

TEST(BvhBuild, NearlyEqualKeysFollowTheExactOrder) {
    // One cluster of 3000 faces; then 70000 faces in 4000 clusters, so that the parallel build's
    // chunks start and end inside runs of nearly equal keys.
    for (const auto& [n, clusters] : {std::pair<int, int>{3000, 1}, std::pair<int, int>{70000, 4000}}) {
        GmTriangleMesh mesh = nearlyEqualCentres(n, clusters, 8);
        int ties = 0;
        for (int f = 1; f < mesh.getNumberFaces(); ++f) ties += mesh.getFaceCenter(f).x == mesh.getFaceCenter(f - 1).x;
        if (clusters == 1) {
            EXPECT_GT(ties, 0);  // both exact ties and neighbouring doubles occur
        }
        const std::vector<RefNode> ref = referenceBuild(mesh, 0, nullptr, 0.0);
        for (bool parallel : {false, true}) {
            ScopedThreading t(parallel);
            GmBoundingVolumeHierarchy h(&mesh);
            EXPECT_EQ(firstDifference(h, ref), -1) << n << " " << parallel;
        }
    }
}

TEST(BvhBuild, ExtremeCoordinatesAndSignedZeros) {
    // Faces beyond the float range (infinite root box), tiny ones, and centres at -0 and +0.
    const double values[] = {0.0, -0.0, 1e-30, -1e-30, 0.1, -0.3, 1.0, 3.0e38, -3.0e38, 1e39, -1e39, 1e300};
    qgtools::PolygonSoup s;
    std::mt19937 rng(6);
    for (int i = 0; i < 400; ++i) {
        for (int k = 0; k < 3; ++k)
            s.positions.push_back(V3(values[rng() % 12], values[rng() % 12], values[rng() % 12]));
        s.triangles.push_back({3 * i, 3 * i + 1, 3 * i + 2});
    }
    for (int i = 0; i < 40; ++i) {  // centre x exactly -0 or +0
        const double z = i % 2 ? -0.0 : 0.0;
        s.positions.push_back(V3(z, i, 0));
        s.positions.push_back(V3(z, i + 1, 1));
        s.positions.push_back(V3(z, i, 2));
        s.triangles.push_back({1200 + 3 * i, 1200 + 3 * i + 1, 1200 + 3 * i + 2});
    }
    GmTriangleMesh mesh = qgtools::meshFromSoup(s);
    const std::vector<RefNode> ref = referenceBuild(mesh, 0, nullptr, 0.0);
    for (bool parallel : {false, true}) {
        ScopedThreading t(parallel);
        GmBoundingVolumeHierarchy h(&mesh);
        EXPECT_EQ(firstDifference(h, ref), -1) << parallel;
    }
}

TEST(BvhBuild, FlatRegionsNextToUprightOnes) {
    // A flat sheet whose normal axis is never split on, next to upright strips, a needle and a
    // few slivers: the axes in use change from one subtree to the next.
    qgtools::PolygonSoup s = qgtools::clothGridSoup(40, 30);
    auto add = [&](const V3& a, const V3& b, const V3& c) {
        const int i = s.numVertices();
        s.positions.push_back(a);
        s.positions.push_back(b);
        s.positions.push_back(c);
        s.triangles.push_back({i, i + 1, i + 2});
    };
    for (int i = 0; i < 12; ++i)
        for (int j = 0; j < 6; ++j) {
            const double x = 0.6 + i * 0.02, z = j * 0.05;
            add(V3(x, 0.5, z), V3(x + 0.02, 0.5, z), V3(x, 0.5, z + 0.05));  // upright in y = 0.5
            add(V3(0.2, 0.1 + i * 0.03, z), V3(0.2, 0.13 + i * 0.03, z), V3(0.2, 0.1 + i * 0.03, z + 0.05));
        }
    for (int i = 0; i < 20; ++i) add(V3(0.9, 0.9, i * 0.1), V3(0.9001, 0.9, i * 0.1 + 0.1), V3(0.9, 0.9001, i * 0.1));
    for (int i = 0; i < 10; ++i) add(V3(0.1 * i, 0.95, 0), V3(0.1 * i + 0.1, 0.95, 0), V3(0.1 * i, 0.95 + 1e-7, 0));
    GmTriangleMesh mesh = qgtools::meshFromSoup(s);
    const std::vector<V3> moved = jitteredPositions(mesh, 0.004, 3);
    const std::vector<RefNode> plain = referenceBuild(mesh, 0, nullptr, 0.0);
    const std::vector<RefNode> swept = referenceBuild(mesh, 1, &moved, 0.0);
    for (bool parallel : {false, true}) {
        ScopedThreading t(parallel);
        EXPECT_EQ(firstDifference(GmBoundingVolumeHierarchy(&mesh), plain), -1) << parallel;
        EXPECT_EQ(firstDifference(GmBoundingVolumeHierarchy(&mesh, moved), swept), -1) << parallel;
    }
}

TEST(BvhBuild, ParallelEqualsSerial) {
    std::vector<NamedMesh> meshes;
    meshes.push_back({"grid150", qgtools::makeClothGrid(150, 150)});  // many equal keys
    meshes.push_back({"icosphere5", qgtools::makeIcosphere(5)});
    meshes.push_back({"bunny", loadData("stanford-bunny.obj")});
    for (NamedMesh& m : meshes) {
        const std::vector<V3> moved = jitteredPositions(m.mesh, 0.01, 3);
        GmDisabledData disabled(&m.mesh);
        GmFrozenData frozen(&m.mesh);
        for (int f = 0; f < m.mesh.getNumberFaces(); f += 3) disabled.setFaceDisabled(f);
        for (int f = 0; f < m.mesh.getNumberFaces() / 2; ++f) frozen.setFaceFrozen(f);
        std::vector<GmBoundingVolumeHierarchy> serial, parallel;
        {
            ScopedThreading t(false);
            serial.emplace_back(&m.mesh, &disabled, &frozen);
            serial.emplace_back(&m.mesh, moved);
        }
        {
            ScopedThreading t(true);
            parallel.emplace_back(&m.mesh, &disabled, &frozen);
            parallel.emplace_back(&m.mesh, moved);
        }
        for (size_t k = 0; k < serial.size(); ++k)
            EXPECT_EQ(firstDifference(serial[k], parallel[k]), -1) << m.name << " " << k;
        if (m.name != "grid150") {
            EXPECT_EQ(firstDifference(serial[0], referenceBuild(m.mesh, 0, nullptr, 0.0, &disabled, &frozen)), -1);
        }
    }
}

// ---- Refit --------------------------------------------------------------------------------

// Every leaf box encloses its face padded by the mode's pad, tightly (within one float step);
// every internal box is the union of its children's; flags are the AND of the children's.
void expectEncloses(const GmBoundingVolumeHierarchy& h, const GmTriangleMesh& mesh, const std::vector<V3>* positions,
                    double pad, const std::string& what) {
    int bad = 0;
    for (int i = 0; i < h.getNumberNodes() && bad < 5; ++i) {
        const auto& node = h.getNode(i);
        if (!node.isLeaf()) {
            GmAxisAlignedBox u = h.getNode(2 * i + 1).box;
            u.expand(h.getNode(2 * i + 2).box);
            if (!sameBox(u, node.box)) ++bad, ADD_FAILURE() << what << " internal " << i;
            continue;
        }
        const GmTriangleFace& f = *node.primitive;
        for (int a = 0; a < 3; ++a) {
            double mn = DBL_MAX, mx = -DBL_MAX;
            for (int k = 0; k < 3; ++k) {
                mn = std::min(mn, mesh.getVertex(f.vertices[k])[a]);
                mx = std::max(mx, mesh.getVertex(f.vertices[k])[a]);
                if (positions) {
                    mn = std::min(mn, (*positions)[static_cast<size_t>(f.vertices[k])][a]);
                    mx = std::max(mx, (*positions)[static_cast<size_t>(f.vertices[k])][a]);
                }
            }
            const double lo = node.box.getMin()[a], hi = node.box.getMax()[a];
            const double stepLo = std::fabs(mn - pad) * 1.2e-7 + 1e-40, stepHi = std::fabs(mx + pad) * 1.2e-7 + 1e-40;
            if (!(lo <= mn - pad && lo >= mn - pad - stepLo && hi >= mx + pad && hi <= mx + pad + stepHi)) {
                ++bad;
                ADD_FAILURE() << what << " leaf " << i << " axis " << a << ": [" << lo << ", " << hi << "] vs ["
                              << mn - pad << ", " << mx + pad << "]";
            }
        }
    }
}

TEST(BvhRefit, EnclosesFacesInEveryMode) {
    for (bool parallel : {false, true}) {
        ScopedThreading t(parallel);
        GmTriangleMesh mesh = qgtools::makeIcosphere(4, 0.7, V3(3, -2, 1));
        GmBoundingVolumeHierarchy h(&mesh);
        expectEncloses(h, mesh, nullptr, 1e-8, "build plain");
        const std::vector<V3> moved = jitteredPositions(mesh, 0.2, 9);
        h.refit(moved);  // swept after a plain build covers both positions
        expectEncloses(h, mesh, &moved, 1e-8, "refit swept");
        h.refit(0.125);
        expectEncloses(h, mesh, nullptr, 0.125 + 1e-8, "refit thick");
        mesh.setVertices(moved);  // move the mesh itself
        h.refit();
        expectEncloses(h, mesh, nullptr, 1e-8, "refit plain");
    }
}

// A refit's boxes are those a fresh build gives the same faces: leaf for leaf by face, in every
// mode, serial and parallel (the grid is large enough for the parallel path).
TEST(BvhRefit, LeafBoxesEqualAFreshBuilds) {
    GmTriangleMesh mesh = qgtools::makeClothGrid(190, 190, 3.0, 2.0);
    const std::vector<V3> original = mesh.getVertices();
    const std::vector<V3> moved = jitteredPositions(mesh, 0.05, 8);
    for (int mode = 0; mode < 3; ++mode) {
        for (bool parallel : {false, true}) {
            ScopedThreading t(parallel);
            GmBoundingVolumeHierarchy h(&mesh);
            std::unique_ptr<GmBoundingVolumeHierarchy> fresh;
            if (mode == 0) {  // the mesh itself moved
                mesh.setVertices(moved);
                h.refit();
                fresh.reset(new GmBoundingVolumeHierarchy(&mesh));
            } else if (mode == 1) {
                h.refit(moved);
                fresh.reset(new GmBoundingVolumeHierarchy(&mesh, moved));
            } else {
                h.refit(0.375);
                fresh.reset(new GmBoundingVolumeHierarchy(&mesh, 0.375));
            }
            std::vector<GmAxisAlignedBox> byFace(static_cast<size_t>(mesh.getNumberFaces()));
            for (const auto& n : fresh->getNodes())
                if (n.isLeaf()) byFace[static_cast<size_t>(n.primitive->index)] = n.box;
            int bad = 0;
            for (const auto& n : h.getNodes())
                if (n.isLeaf() && !sameBox(n.box, byFace[static_cast<size_t>(n.primitive->index)])) ++bad;
            EXPECT_EQ(bad, 0) << "mode " << mode << (parallel ? " parallel" : " serial");
            EXPECT_TRUE(sameBox(h.getRootBoundingVolume(), fresh->getRootBoundingVolume()));
            if (mode == 0) expectEncloses(h, mesh, nullptr, 1e-8, "refit after a move");
            mesh.setVertices(original);
        }
    }
}

TEST(BvhRefit, ParallelEqualsSerialAndKeepsShape) {
    GmTriangleMesh mesh = qgtools::makeClothGrid(190, 180);  // above the parallel refit's size threshold
    GmBoundingVolumeHierarchy a(&mesh), b(&mesh);
    ASSERT_GE(a.getDepth(), 7);
    std::vector<const GmTriangleFace*> shape;
    for (const auto& n : a.getNodes()) shape.push_back(n.primitive);
    const std::vector<V3> moved = jitteredPositions(mesh, 0.3, 4);
    GmDisabledData disabled(&mesh);
    for (int f = 0; f < 2000; ++f) disabled.setFaceDisabled(f);
    {
        ScopedThreading t(false);
        a.refit(moved, &disabled, nullptr);
    }
    {
        ScopedThreading t(true);
        b.refit(moved, &disabled, nullptr);
    }
    EXPECT_EQ(firstDifference(a, b), -1);
    for (size_t i = 0; i < shape.size(); ++i) ASSERT_EQ(a.getNodes()[i].primitive, shape[i]);
    expectEncloses(b, mesh, &moved, 1e-8, "parallel swept");
}

// ---- Masks ----------------------------------------------------------------------------------

TEST(BvhMasks, FlagsAreTheAndOfTheFaces) {
    GmTriangleMesh mesh = qgtools::makeClothGrid(9, 7);
    GmDisabledData disabled(&mesh);
    GmFrozenData frozen(&mesh);
    std::mt19937 rng(1);
    for (int f = 0; f < mesh.getNumberFaces(); ++f) {
        if (rng() % 4 != 0) disabled.setFaceDisabled(f);
        if (rng() % 3 != 0) frozen.setFaceFrozen(f);
    }
    GmBoundingVolumeHierarchy h(&mesh, &disabled, &frozen);
    EXPECT_EQ(h.getDisabledData(), &disabled);
    EXPECT_EQ(h.getFrozenData(), &frozen);
    // Reference: a node's flag is set exactly when every face below it has its bit set.
    std::function<void(int, bool&, bool&)> below = [&](int i, bool& d, bool& fz) {
        const auto& n = h.getNode(i);
        if (n.isLeaf()) {
            d = disabled.isFaceDisabled(n.primitive->index);
            fz = frozen.isFaceFrozen(n.primitive->index);
            return;
        }
        bool d1, f1, d2, f2;
        below(2 * i + 1, d1, f1);
        below(2 * i + 2, d2, f2);
        d = d1 && d2;
        fz = f1 && f2;
    };
    int disabledInternal = 0;
    for (int i = 0; i < h.getNumberNodes(); ++i) {
        bool d, fz;
        below(i, d, fz);
        EXPECT_EQ(h.getNode(i).disabled, d) << i;
        EXPECT_EQ(h.getNode(i).frozen, fz) << i;
        if (d && !h.getNode(i).isLeaf()) ++disabledInternal;
    }
    EXPECT_GT(disabledInternal, 0);

    // Enabling one face under a disabled subtree enables that subtree after the next refit.
    int node = -1;
    for (int i = 0; i < h.getNumberInternalNodes(); ++i)
        if (h.getNode(i).disabled) node = i;
    ASSERT_GE(node, 0);
    int leaf = node;
    while (!h.getNode(leaf).isLeaf()) leaf = 2 * leaf + 1;
    disabled.setFaceDisabled(h.getNode(leaf).primitive->index, false);
    EXPECT_TRUE(h.getNode(node).disabled);
    h.refit(&disabled, &frozen);
    EXPECT_FALSE(h.getNode(node).disabled);
    EXPECT_FALSE(h.getNode(0).disabled);

    // Null masks clear every flag without touching the boxes.
    const std::vector<GmBoundingVolumeHierarchy::Node> before = h.getNodes();
    h.setDisabledData(nullptr);
    h.setFrozenData(nullptr);
    for (size_t i = 0; i < before.size(); ++i) {
        EXPECT_FALSE(h.getNodes()[i].disabled);
        EXPECT_FALSE(h.getNodes()[i].frozen);
        EXPECT_TRUE(sameBox(h.getNodes()[i].box, before[i].box));
    }
    // And setting them again restores the flags in place.
    h.setDisabledData(&disabled);
    h.setFrozenData(&frozen);
    for (size_t i = 0; i < before.size(); ++i) EXPECT_EQ(h.getNodes()[i].frozen, before[i].frozen);
}

TEST(BvhMasks, ZeroCountMaskActsAsNoMask) {
    GmTriangleMesh mesh = qgtools::makeClothGrid(4, 4);
    GmDisabledData disabled(&mesh);
    disabled.setFaceDisabled(3);
    disabled.setFaceDisabled(4);
    disabled.setDisabledCount(0);  // bits set, count zero
    GmBoundingVolumeHierarchy h(&mesh, &disabled, nullptr);
    for (const auto& n : h.getNodes()) EXPECT_FALSE(n.disabled);
    h.setDisabledData(&disabled);
    for (const auto& n : h.getNodes()) EXPECT_FALSE(n.disabled);
}

// ---- Lifecycle ------------------------------------------------------------------------------

TEST(BvhLifecycle, EmptyMeshIsHarmless) {
    GmTriangleMesh mesh;
    mesh.finishConstruction();
    GmBoundingVolumeHierarchy h(&mesh);
    EXPECT_TRUE(h.empty());
    EXPECT_EQ(h.getDepth(), -1);
    h.build();
    h.refit(std::vector<V3>());
    h.refit(0.5, nullptr, nullptr);
    h.setDisabledData(nullptr);
    EXPECT_FALSE(h.intersect(GmAxisAlignedBox(-1, -1, -1, 1, 1, 1)));
    std::vector<GmPointIntersectionInfo> hits;
    EXPECT_FALSE(h.intersect(GmRay(V3(0, 0, 0), V3(1, 0, 0)), hits, false, true));
    V3 c, n;
    int face = 7;
    double s, t;
    EXPECT_EQ(h.findClosestPoint(V3(0, 0, 0), c, n, face, s, t, nullptr, true), DBL_MAX);
    EXPECT_EQ(face, -1);
    EXPECT_FALSE(h.isInsideMesh(V3(0, 0, 0), true));
    int v = 3;
    EXPECT_EQ(h.findClosestVertex(V3(0, 0, 0), v, true), DBL_MAX);
    EXPECT_EQ(v, -1);

    GmBoundingTree tree(&mesh);
    EXPECT_TRUE(tree.getRootAxisAlignedBox().isEmpty());
    EXPECT_FALSE(tree & GmAxisAlignedBox(-1, -1, -1, 1, 1, 1));
    tree.update(true);
}

TEST(BvhLifecycle, CopiesAreIndependentAndEqual) {
    GmTriangleMesh mesh = qgtools::makeTorus(12, 8);
    GmBoundingVolumeHierarchy h(&mesh, 0.1);
    h.setIgnoreFrozen(true);
    GmBoundingVolumeHierarchy copy(h);
    EXPECT_EQ(firstDifference(h, copy), -1);
    EXPECT_TRUE(copy.ignoreFrozen());
    EXPECT_EQ(copy.getTriangleMesh(), &mesh);
    h.refit(0.5);
    EXPECT_NE(firstDifference(h, copy), -1);
    copy = h;
    EXPECT_EQ(firstDifference(h, copy), -1);
}

// Exposes the facade's protected parts.
class TestTree : public GmBoundingTree {
public:
    using GmBoundingTree::GmBoundingTree;
    using GmBoundingTree::reset;
    void release() { _hierarchy = nullptr; }
};

TEST(BvhFacade, UpdateResetAndShallowAssignment) {
    GmTriangleMesh mesh = qgtools::makeIcosphere(2);
    TestTree tree(&mesh);
    const GmAxisAlignedBox root = tree.getRootAxisAlignedBox();
    EXPECT_TRUE(sameBox(root, tree.getHierarchy()->getRootBoundingVolume()));
    EXPECT_TRUE(tree & GmAxisAlignedBox(root.maxX, root.maxY, root.maxZ, 5, 5, 5));  // touching
    EXPECT_FALSE(tree & GmAxisAlignedBox(root.maxX + 1e-3f, 0, 0, 5, 5, 5));

    const std::vector<V3> moved = jitteredPositions(mesh, 0.5, 2);
    tree.update(moved, false);
    EXPECT_TRUE(sameBox(root, tree.getRootAxisAlignedBox()));
    tree.update(moved, true);
    EXPECT_FALSE(sameBox(root, tree.getRootAxisAlignedBox()));
    tree.update(false);
    tree.update(true);
    EXPECT_TRUE(sameBox(root, tree.getRootAxisAlignedBox()));

    // reset follows a change of the face count.
    GmTriangleMesh bigger = qgtools::makeIcosphere(3);
    mesh = bigger;
    tree.reset(0.0);
    EXPECT_EQ(tree.getHierarchy()->getNumberLeafNodes(), bigger.getNumberFaces());
    EXPECT_EQ(tree.getTriangleMesh(), &mesh);

    // Assignment shares the hierarchy; the copy constructor makes a new one.
    TestTree other(&bigger);
    GmBoundingVolumeHierarchy* previous = other.getHierarchy();
    other = tree;
    EXPECT_EQ(other.getHierarchy(), tree.getHierarchy());
    other.release();
    delete previous;
    GmBoundingTree deep(tree);
    EXPECT_NE(deep.getHierarchy(), tree.getHierarchy());
    EXPECT_EQ(firstDifference(*deep.getHierarchy(), *tree.getHierarchy()), -1);
}

}  // namespace

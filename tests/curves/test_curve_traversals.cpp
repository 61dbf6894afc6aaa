// The curve tree's traversals against brute force over all primitive pairs, serial and
// parallel, and the visitors' own rules.

#include <algorithm>
#include <map>
#include <string>

#include <gtest/gtest.h>

#include <quarrygeom/quarrygeom.h>

#include "curves_test_util.h"
#include "qgtools/shapes.h"

using namespace curvetest;

namespace {

struct Scene {
    std::string name;
    Strands strands;
};

std::vector<Scene> scenes() {
    std::vector<Scene> out;
    out.push_back({"random", randomWalks(1, 60, 30, 4.0, 0.1, 0.02)});
    out.push_back({"tangled", randomWalks(2, 24, 50, 0.6, 0.08, 0.015)});
    for (double scale : {1.0, 0x1p-30, 0x1p30}) out.push_back({"degenerate " + std::to_string(scale), degenerate(scale)});
    return out;
}

// Flags on some leaves: (disabled, frozen) by segment index.
struct Flags {
    std::vector<char> disabled, frozen;
};
Flags flagLeaves(GmCurveBoundingTree& tree, bool on) {
    const std::uint64_t n = tree.getNumberLeafNodes();
    Flags f{std::vector<char>(n, 0), std::vector<char>(n, 0)};
    if (!on) return f;
    for (std::uint64_t i = n - 1; i < 2 * n - 1; ++i) {
        const std::uint64_t s = tree.getNode(i).primitive->index;
        f.disabled[s] = s % 7 == 3;
        f.frozen[s] = s % 3 != 0;
        tree.setNodeFlags(i, f.disabled[s], f.frozen[s]);
    }
    return f;
}

bool pruned(const Flags& f, std::uint64_t a, std::uint64_t b, bool intersectDisabled) {
    return (!intersectDisabled && (f.disabled[a] || f.disabled[b])) || (f.frozen[a] && f.frozen[b]);
}

template <int N>
void checkSelf(const Scene& scene, bool radii, bool adjacent, bool flags, bool intersectDisabled) {
    const Strands& s = scene.strands;
    const GmCurves curves(s.segments);
    const std::vector<double>* offsets = radii ? &s.radii : nullptr;
    GmCurveBoundingTree tree(curves, s.positions, 0.0, offsets);
    const Flags f = flagLeaves(tree, flags);
    const std::vector<GmAxisAlignedBox> boxes = leafBoxes(tree);

    std::vector<GmSegmentSegmentInfo> scratch;
    GmSegmentSelfIntersector<N> reference(scratch, curves, s.positions, offsets);
    std::multiset<Pair> expected;
    std::uint64_t expectedTests = 0;
    const std::uint64_t n = curves.getNumberPrimitives();
    for (std::uint64_t a = 0; a < n; ++a)
        for (std::uint64_t b = a + 1; b < n; ++b) {
            const GmCurveSegment& sa = *curves.getPrimitive(a);
            const GmCurveSegment& sb = *curves.getPrimitive(b);
            if (pruned(f, a, b, intersectDisabled) || (!adjacent && reference.isAdjacent(sa, sb))) continue;
            if (boxes[a].overlaps(boxes[b])) ++expectedTests;
            GmSegmentSegmentInfo r;
            if (reference.test(sa, sb, r)) {
                EXPECT_TRUE(boxes[a].overlaps(boxes[b])) << "boxes miss a contact " << a << " " << b;
                expected.insert(key(std::int64_t(a), std::int64_t(b)));
            }
        }

    ThreadingSwitch sw;
    for (bool parallel : {false, true}) {
        SCOPED_TRACE(parallel ? "parallel" : "serial");
        sw.set(parallel);
        std::vector<GmSegmentSegmentInfo> results;
        GmSegmentSelfIntersector<N> visitor(results, curves, s.positions, offsets);
        visitor.setIntersectAdjacent(adjacent);
        visitor.setIntersectDisabled(intersectDisabled);
        tree.selfIntersect(visitor);
        EXPECT_EQ(pairsOf(results, true), expected);
        EXPECT_EQ(visitor.getNumberTests(), expectedTests);
    }
}

}  // namespace

TEST(CurveTraversal, SelfFindsExactlyTheBruteForcePairs) {
    for (const Scene& scene : scenes())
        for (int config = 0; config < 6; ++config) {
            const bool radii = config != 1, adjacent = config == 2, flags = config >= 4, intersectDisabled = config == 5;
            SCOPED_TRACE(scene.name + " config " + std::to_string(config));
            checkSelf<1>(scene, radii, adjacent, flags, intersectDisabled);
            checkSelf<3>(scene, radii, adjacent, flags, intersectDisabled);
        }
}

TEST(CurveTraversal, SelfAdjacencyRules) {
    // One straight strand folded so that every segment touches every other one.
    const GmCurves curves(std::vector<std::size_t>{6});
    Positions p;
    for (int k = 0; k <= 6; ++k) p.push_back(Vec(k % 2, 0, 0));
    const GmCurveBoundingTree tree(curves, p, 0.0, nullptr);
    std::vector<GmSegmentSegmentInfo> r1, r3;
    GmSegmentSelfIntersector<1> v1(r1, curves, p, nullptr);
    GmSegmentSelfIntersector<3> v3(r3, curves, p, nullptr);
    tree.selfIntersect(v1);
    tree.selfIntersect(v3);
    EXPECT_TRUE(r1.empty());
    EXPECT_EQ(v1.getNumberTests(), 0u);
    std::multiset<Pair> expected;
    for (int a = 0; a < 6; ++a)
        for (int b = a + 3; b < 6; ++b) expected.insert(Pair(a, b));
    EXPECT_EQ(pairsOf(r3, true), expected);  // 0-3 is tested, 0-2 is not
    EXPECT_TRUE(v3.isAdjacent(*curves.getPrimitive(0), *curves.getPrimitive(2)));
    EXPECT_FALSE(v3.isAdjacent(*curves.getPrimitive(0), *curves.getPrimitive(3)));
    v1.setIntersectAdjacent(true);
    tree.selfIntersect(v1);
    EXPECT_EQ(r1.size(), 15u);  // every pair of segments of a folded strand meets
}

TEST(CurveTraversal, CurveCurveFindsExactlyTheBruteForcePairs) {
    const std::vector<Scene> all = scenes();
    for (std::size_t i = 0; i < all.size(); ++i) {
        const Strands& sa = all[i].strands;
        const Strands& sb = all[(i + 1) % all.size()].strands;
        for (bool radii : {false, true}) {
            SCOPED_TRACE(all[i].name + (radii ? " radii" : ""));
            const GmCurves ca(sa.segments), cb(sb.segments);
            const std::vector<double>* ra = radii ? &sa.radii : nullptr;
            const std::vector<double>* rb = radii ? &sb.radii : nullptr;
            const GmCurveBoundingTree ta(ca, sa.positions, 0.0, ra), tb(cb, sb.positions, 0.0, rb);
            const std::vector<GmAxisAlignedBox> ba = leafBoxes(ta), bb = leafBoxes(tb);
            std::multiset<Pair> expected;
            std::uint64_t expectedTests = 0;
            for (std::uint64_t a = 0; a < ca.getNumberPrimitives(); ++a)
                for (std::uint64_t b = 0; b < cb.getNumberPrimitives(); ++b) {
                    if (ba[a].overlaps(bb[b])) ++expectedTests;
                    const GmCurveSegment& x = *ca.getPrimitive(a);
                    const GmCurveSegment& y = *cb.getPrimitive(b);
                    GmSegmentSegmentInfo r;
                    if (GmSegmentKernels::segmentSegment(sa.positions[x.vertex0], sa.positions[x.vertex1],
                                                         radii ? sa.radii[x.vertex0] : 0, radii ? sa.radii[x.vertex1] : 0,
                                                         sb.positions[y.vertex0], sb.positions[y.vertex1],
                                                         radii ? sb.radii[y.vertex0] : 0, radii ? sb.radii[y.vertex1] : 0, r))
                        expected.insert(Pair(std::int64_t(a), std::int64_t(b)));
                }
            ThreadingSwitch sw;
            for (bool parallel : {false, true}) {
                sw.set(parallel);
                std::vector<GmSegmentSegmentInfo> results;
                GmSegmentIntersector visitor(results, ca, cb, sa.positions, sb.positions, ra, rb);
                ta.intersect(tb, visitor);
                EXPECT_EQ(pairsOf(results, false), expected) << parallel;
                EXPECT_EQ(visitor.getNumberTests(), expectedTests) << parallel;
            }
        }
    }
}

namespace {

// A body and strands that pass through it, touch it and stop short of it.
struct Body {
    GmTriangleMesh mesh = qgtools::makeIcosphere(2, 1.0);
    Strands strands = randomWalks(3, 40, 12, 2.4, 0.25, 0.0);
    Body() {
        for (Vec& p : strands.positions) p -= Vec(1.2, 1.2, 1.2);
    }
};

}  // namespace

TEST(CurveTraversal, CurveMeshFindsExactlyTheBruteForcePairs) {
    const Body body;
    const Strands& s = body.strands;
    const GmCurves curves(s.segments);
    const GmCurveBoundingTree tree(curves, s.positions, 0.0, nullptr);
    const GmBoundingTree faces(const_cast<GmTriangleMesh*>(&body.mesh));
    const GmBoundingVolumeHierarchy& h = *faces.getHierarchy();
    const std::vector<GmAxisAlignedBox> boxes = leafBoxes(tree);
    std::map<int, GmAxisAlignedBox> faceBoxes;
    int first, last;
    h.getLeafRange(first, last);
    for (int i = first; i < last; ++i) faceBoxes[h.getNode(i).primitive->index] = h.getNode(i).box;

    std::multiset<Pair> expected, candidates;
    std::uint64_t expectedTests = 0;
    const std::vector<Vec>& v = body.mesh.getVertices();
    for (std::uint64_t a = 0; a < curves.getNumberPrimitives(); ++a)
        for (int f = 0; f < body.mesh.getNumberFaces(); ++f) {
            const GmTriangleFace& face = body.mesh.getFace(f);
            if (boxes[a].overlaps(faceBoxes[f])) {
                ++expectedTests;
                candidates.insert(Pair(std::int64_t(a), 0));
            }
            const GmCurveSegment& seg = *curves.getPrimitive(a);
            GmSegmentFaceInfo r;
            if (GmSegmentKernels::segmentTriangle(s.positions[seg.vertex0], s.positions[seg.vertex1], v[face.vertices[0]],
                                                  v[face.vertices[1]], v[face.vertices[2]], 0.0, r))
                expected.insert(Pair(std::int64_t(a), f));
        }
    ASSERT_GT(expected.size(), 10u);

    std::vector<GmSegmentFaceInfo> results;
    GmSegmentMeshIntersector visitor(results, curves, s.positions, body.mesh);
    tree.intersect(faces, visitor);  // through the facade
    EXPECT_EQ(pairsOf(results, false), expected);
    EXPECT_EQ(visitor.getNumberTests(), expectedTests);

    std::vector<const GmCurveSegment*> segs;
    tree.getIntersectCandidates(h, segs);
    std::multiset<Pair> got;
    for (const GmCurveSegment* seg : segs) got.insert(Pair(std::int64_t(seg->index), 0));
    EXPECT_EQ(got, candidates);

    // Per strand, the first-hit visitor keeps a real hit exactly when the strand has one.
    for (std::uint64_t c = 0; c < curves.getNumberCurves(); ++c) {
        const GmCurves one(std::vector<std::size_t>{c}, std::vector<std::size_t>{0}, std::vector<std::size_t>{12});
        const std::uint64_t base = c * 13;
        const Positions p(s.positions.begin() + base, s.positions.begin() + base + 13);
        const GmCurveBoundingTree strand(one, p, 0.0, nullptr);
        GmFirstSegmentIntersection first(p, body.mesh);
        strand.intersect(h, first);
        std::multiset<Pair> hits;
        for (const Pair& e : expected)
            if (std::uint64_t(e.first) / 12 == c) hits.insert(Pair(e.first - std::int64_t(c * 12), e.second));
        EXPECT_EQ(first.getResult() != nullptr, !hits.empty()) << c;
        EXPECT_LE(first.getNumberIntersections(), hits.size());
        if (first.getResult() != nullptr) {
            EXPECT_EQ(hits.count(Pair(first.getResult()->index1, first.getResult()->index2)), 1u);
        }
        // The first-hit rule replayed over all crossings in walk order gives the same hit and count.
        std::vector<GmSegmentFaceInfo> all;
        GmSegmentMeshIntersector every(all, one, p, body.mesh);
        strand.intersect(h, every);
        const GmSegmentFaceInfo* best = nullptr;
        std::uint64_t taken = 0;
        for (const GmSegmentFaceInfo& r : all) {
            if (best != nullptr && best->index1 < r.index1) continue;
            ++taken;
            if (best == nullptr || best->parameter1 > r.parameter1) best = &r;
        }
        EXPECT_EQ(first.getNumberIntersections(), taken) << c;
        ASSERT_EQ(first.getResult() != nullptr, best != nullptr) << c;
        if (best != nullptr) {
            EXPECT_EQ(first.getResult()->index1, best->index1) << c;
            EXPECT_EQ(first.getResult()->index2, best->index2) << c;
        }
    }
}

TEST(CurveVisitors, SegmentFaceEndsAndFirstHitRules) {
    // One face in z = 0 and strands along z ending on it, short of it and beyond it.
    GmTriangleMesh mesh("face");
    mesh.addVertex(Vec(-1, -1, 0));
    mesh.addVertex(Vec(2, -1, 0));
    mesh.addVertex(Vec(-1, 2, 0));
    mesh.addFace(0, 1, 2);
    mesh.finishConstruction();
    const GmBoundingTree faces(&mesh);
    struct Case {
        double z0, z1;
        bool hit;
        std::uint64_t tests;  // 0 when the boxes are apart
    };
    for (const Case& c : {Case{1.0, 0.0, true, 1}, Case{1.0, 2e-8, false, 1}, Case{1.0, -1.0, true, 1},
                          Case{0.5, 0.25, false, 0}, Case{0.0, 0.0, false, 1}}) {
        SCOPED_TRACE(c.z1);
        const GmCurves one(std::size_t(2));
        const Positions p = {Vec(0.1, 0.2, c.z0), Vec(0.1, 0.2, c.z1)};
        const GmCurveBoundingTree tree(one, p, 0.0, nullptr);
        GmFirstSegmentIntersection first(p, mesh);
        tree.intersect(faces, first);
        EXPECT_EQ(first.getResult() != nullptr, c.hit);
        EXPECT_EQ(first.getNumberTests(), c.tests);
        if (c.hit) {
            EXPECT_DOUBLE_EQ(first.getResult()->parameter1, c.z0 / (c.z0 - c.z1));
        }
        GmFirstSegmentIntersection copy(first);
        EXPECT_EQ(copy.getResult() != nullptr, c.hit);
    }
    // Two segments crossing the face: the later segment is skipped once the earlier one hit,
    // an earlier hit with a larger parameter does not displace the kept one.
    const GmCurves strand(std::size_t(4));
    const Positions zig = {Vec(0.1, 0.1, 1), Vec(0.1, 0.1, -0.1), Vec(0.2, 0.1, 1), Vec(0.2, 0.1, -3)};
    GmFirstSegmentIntersection first(zig, mesh);
    first(*strand.getPrimitive(2), mesh.getFace(0));
    first(*strand.getPrimitive(0), mesh.getFace(0));
    first(*strand.getPrimitive(2), mesh.getFace(0));
    ASSERT_NE(first.getResult(), nullptr);
    EXPECT_EQ(first.getResult()->index1, 2);
    EXPECT_EQ(first.getNumberTests(), 3u);
    EXPECT_EQ(first.getNumberIntersections(), 3u);
}

TEST(CurveVisitors, ClosestEdgeProximityMatchesBruteForce) {
    const GmTriangleMesh mesh = qgtools::makeIcosphere(1, 1.0);
    const GmBoundingTree faces(const_cast<GmTriangleMesh*>(&mesh));
    std::mt19937 rng(7);
    std::uniform_real_distribution<double> u(-1.3, 1.3);
    const std::vector<Vec>& v = mesh.getVertices();
    for (int trial = 0; trial < 40; ++trial) {
        const Positions p = {Vec(u(rng), u(rng), u(rng)), Vec(u(rng), u(rng), u(rng))};
        const std::vector<double> offsets = {0.01 * (trial % 5), 0.02};
        const double distance = 0.05;
        double best = DBL_MAX;
        int found = 0;
        for (int e = 0; e < mesh.getNumberEdges(); ++e) {
            GmSegmentSegmentInfo r;
            if (GmSegmentKernels::segmentSegment(p[0], p[1], distance + offsets[0], distance + offsets[1],
                                                 v[mesh.getEdge(e).from], v[mesh.getEdge(e).to], 0, 0, r)) {
                best = std::min(best, r.distance);
                ++found;
            }
        }
        const GmCurves one(std::size_t(2));
        const GmCurveBoundingTree tree(one, p, distance + 0.04, nullptr);
        GmClosestEdgeEdgeProximityOnSingleSegment prox(p, distance, offsets, mesh);
        tree.intersect(faces, prox);
        ASSERT_EQ(prox.getResult() != nullptr, found > 0) << trial;
        EXPECT_EQ(prox.getNumberProximities(), std::uint64_t(found));
        if (found == 0) continue;
        const GmSegmentFaceInfo& r = *prox.getResult();
        EXPECT_EQ(r.distance, best);
        const GmTriangleEdge& edge = mesh.getEdge(static_cast<int>(r.index3));
        EXPECT_EQ(edge.firstFace, r.index2);
        const GmTriangleFace& f = mesh.getFace(static_cast<int>(r.index2));
        const Vec onFace = v[f.vertices[0]] * r.barycentric.x + v[f.vertices[1]] * r.barycentric.y +
                           v[f.vertices[2]] * r.barycentric.z;
        EXPECT_NEAR((onFace - r.point2).length(), 0.0, 1e-12);
        EXPECT_NEAR(r.normal.length(), 1.0, 1e-12);
    }
}

TEST(CurveKernels, SegmentContactAgainstSampling) {
    // The kernel's distance is the true segment distance (sampled densely) and its contact
    // decision follows the interpolated radii at the closest points.
    std::mt19937 rng(11);
    std::uniform_real_distribution<double> u(-1, 1);
    for (int trial = 0; trial < 200; ++trial) {
        const Vec p0(u(rng), u(rng), u(rng)), p1(u(rng), u(rng), u(rng)), q0(u(rng), u(rng), u(rng)),
            q1(u(rng), u(rng), u(rng));
        GmSegmentSegmentInfo r;
        const bool hit = GmSegmentKernels::segmentSegment(p0, p1, 0.5, 0.5, q0, q1, 0.5, 0.5, r);
        double sampled = DBL_MAX;
        for (int i = 0; i <= 200; ++i)
            for (int j = 0; j <= 200; ++j)
                sampled = std::min(sampled, ((p0 + (p1 - p0) * (i / 200.0)) - (q0 + (q1 - q0) * (j / 200.0))).length());
        if (hit) {
            EXPECT_LE(sampled, 1.0 + 2e-2);
            EXPECT_LE(r.distance, sampled + 1e-12);
            EXPECT_GE(r.distance, sampled - 2e-2);
            EXPECT_NEAR(r.normal.length(), 1.0, 1e-12);
        } else {
            EXPECT_GT(sampled, 1.0 - 1e-12);
        }
    }
    // Segments that meet without radii, parallel segments in contact, and zero-length ones.
    GmSegmentSegmentInfo r;
    EXPECT_TRUE(GmSegmentKernels::segmentSegment(Vec(0, 0, 0), Vec(2, 0, 0), 0, 0, Vec(1, -1, 0), Vec(1, 1, 0), 0, 0, r));
    EXPECT_EQ(r.distance, 0.0);
    EXPECT_NEAR(r.normal.length(), 1.0, 1e-15);
    EXPECT_TRUE(GmSegmentKernels::segmentSegment(Vec(0, 0, 0), Vec(2, 0, 0), 0, 0, Vec(1, 0, 0), Vec(3, 0, 0), 0, 0, r));
    EXPECT_NEAR(r.normal.length(), 1.0, 1e-15);
    EXPECT_FALSE(GmSegmentKernels::segmentSegment(Vec(0, 0, 0), Vec(2, 0, 0), 0, 0, Vec(1, 1e-9, 0), Vec(3, 1e-9, 0), 0, 0, r));
    EXPECT_TRUE(GmSegmentKernels::segmentSegment(Vec(1, 1, 1), Vec(1, 1, 1), 0, 0, Vec(0, 0, 0), Vec(2, 2, 2), 0, 0, r));
}

TEST(CurveTraversal, CurveMeshSkipsDisabledFacesUnlessAsked) {
    // Every crossing through a face that the mask disables is skipped, unless the visitor asks
    // for disabled faces.
    const Body body;
    GmTriangleMesh mesh = body.mesh;
    GmDisabledData mask(&mesh);
    for (int f = 0; f < mesh.getNumberFaces(); f += 3) mask.setFaceDisabled(f);
    const GmBoundingTree faces(&mesh, &mask);
    const Strands& s = body.strands;
    const GmCurves curves(s.segments);
    const GmCurveBoundingTree tree(curves, s.positions, 0.0, nullptr);
    for (bool include : {false, true}) {
        std::vector<GmSegmentFaceInfo> all, results;
        GmSegmentMeshIntersector reference(all, curves, s.positions, mesh);
        for (const GmCurveSegment* seg : curves.getPrimitives())
            for (int f = 0; f < mesh.getNumberFaces(); ++f)
                if (include || !mask.isDisabled(f)) reference(*seg, mesh.getFace(f));
        GmSegmentMeshIntersector visitor(results, curves, s.positions, mesh);
        visitor.setIntersectDisabled(include);
        tree.intersect(faces, visitor);
        EXPECT_EQ(pairsOf(results, false), pairsOf(all, false)) << include;
    }
}

// The curve tree's traversals against brute force over all primitive pairs, serial and
// parallel, and the visitors' own rules.

#include <algorithm>
#include <functional>
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
    std::vector<Scene> out = {{"random", randomWalks(1, 60, 30, 4.0, 0.1, 0.02)},
                              {"tangled", randomWalks(2, 24, 50, 0.6, 0.08, 0.015)}};
    for (double scale : {1.0, 0x1p-30, 0x1p30}) out.push_back({"degenerate " + std::to_string(scale), degenerate(scale)});
    return out;
}

// Self walk with radii or not, adjacent pairs tested or not, and leaves flagged disabled
// (s % 7 == 3) and frozen (s % 3 != 0): pairs of two frozen leaves are pruned, disabled ones
// unless the visitor intersects disabled leaves.
template <int N>
void checkSelf(const Strands& s, bool radii, bool adjacent, bool flags, bool intersectDisabled) {
    const GmCurves curves(s.segments);
    const std::vector<double>* offsets = radii ? &s.radii : nullptr;
    GmCurveBoundingTree tree(curves, s.positions, 0.0, offsets);
    const std::uint64_t n = curves.getNumberPrimitives();
    std::vector<char> disabled(n, 0), frozen(n, 0);
    for (std::uint64_t i = n - 1; flags && i < 2 * n - 1; ++i) {
        const std::uint64_t k = tree.getNode(i).primitive->index;
        disabled[k] = k % 7 == 3;
        frozen[k] = k % 3 != 0;
        tree.setNodeFlags(i, disabled[k], frozen[k]);
    }
    std::vector<GmSegmentSegmentInfo> scratch;
    GmSegmentSelfIntersector<N> reference(scratch, curves, s.positions, offsets);
    auto seg = [&](std::uint64_t k) -> const GmCurveSegment& { return *curves.getPrimitive(k); };
    auto skip = [&](std::uint64_t a, std::uint64_t b) {
        return (!intersectDisabled && (disabled[a] || disabled[b])) || (frozen[a] && frozen[b]) ||
               (!adjacent && reference.isAdjacent(seg(a), seg(b)));
    };
    auto hit = [&](std::uint64_t a, std::uint64_t b) {
        GmSegmentSegmentInfo r;
        return reference.test(seg(a), seg(b), r);
    };
    const auto brute = bruteForce(tree, tree, skip, hit);
    std::vector<Pair> serial;  // the serial record order: node k's children, k = 0, 1, ..., depth first
    std::function<void(std::uint64_t, std::uint64_t)> descend = [&](std::uint64_t a, std::uint64_t b) {
        const auto &na = tree.getNode(a), &nb = tree.getNode(b);
        if (!na.box.overlaps(nb.box)) return;
        if (na.primitive && nb.primitive) {
            const std::uint64_t x = na.primitive->index, y = nb.primitive->index;
            if (!skip(x, y) && hit(x, y)) serial.push_back(Pair(x, y));
        } else if (na.primitive || nb.primitive) {
            for (std::uint64_t c : {1, 2}) na.primitive ? descend(a, 2 * b + c) : descend(2 * a + c, b);
        } else {
            for (std::uint64_t c : {1, 2})
                for (std::uint64_t d : {1, 2}) descend(2 * a + c, 2 * b + d);
        }
    };
    for (std::uint64_t k = 0; k < tree.getNumberInternalNodes(); ++k) descend(2 * k + 1, 2 * k + 2);
    expectWalk<GmSegmentSegmentInfo>(
        [&](std::vector<GmSegmentSegmentInfo>& results) {
            GmSegmentSelfIntersector<N> visitor(results, curves, s.positions, offsets);
            visitor.setIntersectAdjacent(adjacent);
            visitor.setIntersectDisabled(intersectDisabled);
            tree.selfIntersect(visitor);
            if (!tarnCollision::isMultiThreading()) {
                std::vector<Pair> order;
                for (const GmSegmentSegmentInfo& r : results) order.push_back(Pair(r.index1, r.index2));
                EXPECT_EQ(order, serial);
            }
            return visitor.getNumberTests();
        },
        brute, true);
}

}  // namespace

TEST(CurveTraversal, SelfFindsExactlyTheBruteForcePairs) {
    for (const Scene& scene : scenes())
        for (int config = 0; config < 6; ++config) {
            const bool radii = config != 1, adjacent = config == 2, flags = config >= 4, intersectDisabled = config == 5;
            SCOPED_TRACE(scene.name + " config " + std::to_string(config));
            checkSelf<1>(scene.strands, radii, adjacent, flags, intersectDisabled);
            checkSelf<3>(scene.strands, radii, adjacent, flags, intersectDisabled);
        }
}

TEST(CurveTraversal, SelfAdjacencyRules) {
    // One strand folded back and forth on one line: every segment touches every other one.
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
    v1.setIntersectAdjacent(true);
    tree.selfIntersect(v1);
    EXPECT_EQ(r1.size(), 15u);
}

TEST(CurveTraversal, CurveCurveFindsExactlyTheBruteForcePairs) {
    const std::vector<Scene> all = scenes();
    for (std::size_t i = 0; i < all.size(); ++i)
        for (bool radii : {false, true}) {
            const Strands &sa = all[i].strands, &sb = all[(i + 1) % all.size()].strands;
            SCOPED_TRACE(all[i].name + (radii ? " radii" : ""));
            const GmCurves ca(sa.segments), cb(sb.segments);
            const std::vector<double>*ra = radii ? &sa.radii : nullptr, *rb = radii ? &sb.radii : nullptr;
            const GmCurveBoundingTree ta(ca, sa.positions, 0.0, ra), tb(cb, sb.positions, 0.0, rb);
            auto r = [&](const Strands& s, std::uint64_t v) { return radii ? s.radii[v] : 0.0; };
            auto kernel = [&](std::uint64_t a, std::uint64_t b, GmSegmentSegmentInfo& info) {
                const GmCurveSegment &x = *ca.getPrimitive(a), &y = *cb.getPrimitive(b);
                return GmSegmentKernels::segmentSegment(sa.positions[x.vertex0], sa.positions[x.vertex1], r(sa, x.vertex0),
                                                        r(sa, x.vertex1), sb.positions[y.vertex0], sb.positions[y.vertex1],
                                                        r(sb, y.vertex0), r(sb, y.vertex1), info);
            };
            const auto brute = bruteForce(ta, tb, [](std::uint64_t, std::uint64_t) { return false; },
                                          [&](std::uint64_t a, std::uint64_t b) {
                                              GmSegmentSegmentInfo info;
                                              return kernel(a, b, info);
                                          });
            expectWalk<GmSegmentSegmentInfo>(
                [&](std::vector<GmSegmentSegmentInfo>& results) {
                    GmSegmentIntersector visitor(results, ca, cb, sa.positions, sb.positions, ra, rb);
                    ta.intersect(tb, visitor);
                    for (const GmSegmentSegmentInfo& got : results) {  // the kernel's record, radii included
                        GmSegmentSegmentInfo want;
                        kernel(std::uint64_t(got.index1), std::uint64_t(got.index2), want);
                        EXPECT_TRUE(got.radius1 == want.radius1 && got.radius2 == want.radius2 && got.distance == want.distance);
                    }
                    return visitor.getNumberTests();
                },
                brute, false);
        }
}

// Strands that pass through a sphere, touch it and stop short of it, against the sphere's
// faces with every third face disabled: all crossings, or those through enabled faces.
TEST(CurveTraversal, CurveMeshFindsExactlyTheBruteForcePairs) {
    GmTriangleMesh mesh = qgtools::makeIcosphere(2, 1.0);
    Strands s = randomWalks(3, 40, 12, 2.4, 0.25, 0.0);
    for (Vec& p : s.positions) p -= Vec(1.2, 1.2, 1.2);
    GmDisabledData mask(&mesh);
    for (int f = 0; f < mesh.getNumberFaces(); f += 3) mask.setFaceDisabled(f);
    const GmCurves curves(s.segments);
    const GmCurveBoundingTree tree(curves, s.positions, 0.0, nullptr);
    const GmBoundingTree faces(&mesh), masked(&mesh, &mask);
    const GmBoundingVolumeHierarchy& h = *faces.getHierarchy();
    const std::vector<GmAxisAlignedBox> boxes = leafBoxes(tree);
    std::map<int, GmAxisAlignedBox> faceBoxes;
    int first, last;
    h.getLeafRange(first, last);
    for (int i = first; i < last; ++i) faceBoxes[h.getNode(i).primitive->index] = h.getNode(i).box;

    std::multiset<Pair> expected, enabled, candidates;
    std::uint64_t tests = 0;
    const std::vector<Vec>& v = mesh.getVertices();
    for (std::uint64_t a = 0; a < curves.getNumberPrimitives(); ++a)
        for (int f = 0; f < mesh.getNumberFaces(); ++f) {
            if (boxes[a].overlaps(faceBoxes[f])) ++tests, candidates.insert(Pair(std::int64_t(a), 0));
            const GmCurveSegment& seg = *curves.getPrimitive(a);
            const int* c = mesh.getFace(f).vertices;
            GmSegmentFaceInfo r;
            if (GmSegmentKernels::segmentTriangle(s.positions[seg.vertex0], s.positions[seg.vertex1], v[c[0]], v[c[1]],
                                                  v[c[2]], 0.0, r)) {
                expected.insert(Pair(std::int64_t(a), f));
                if (!mask.isDisabled(f)) enabled.insert(Pair(std::int64_t(a), f));
            }
        }
    ASSERT_GT(enabled.size(), 10u);
    ASSERT_LT(enabled.size(), expected.size());
    for (bool include : {false, true}) {
        std::vector<GmSegmentFaceInfo> results;
        GmSegmentMeshIntersector visitor(results, curves, s.positions, mesh);
        visitor.setIntersectDisabled(include);
        tree.intersect(masked, visitor);
        EXPECT_EQ(pairsOf(results, false), include ? expected : enabled) << include;
    }
    // Frozen nodes prune the pairs of frozen faces only, and leave the segments below them to
    // the paired walk: the root frozen against free faces (nothing pruned), one leaf frozen
    // against all faces frozen (that segment's pairs pruned).
    GmFrozenData allFrozen(&mesh);
    for (int f = 0; f < mesh.getNumberFaces(); ++f) allFrozen.setFaceFrozen(f);
    const GmBoundingTree still(&mesh, nullptr, &allFrozen);
    for (int config = 0; config < 3; ++config) {
        GmCurveBoundingTree t = tree;
        const std::uint64_t marked = std::uint64_t(expected.rbegin()->first), leaf = curves.getNumberPrimitives() - 1;
        std::uint64_t node = 0;
        for (std::uint64_t i = leaf; config == 2 && i < 2 * leaf + 1; ++i)
            if (t.getNode(i).primitive->index == marked) node = i;
        if (config > 0) t.setNodeFlags(node, false, true);
        std::multiset<Pair> want = expected;
        std::uint64_t wantTests = tests;
        if (config == 2) {
            want.erase(want.lower_bound(Pair(std::int64_t(marked), 0)), want.lower_bound(Pair(std::int64_t(marked) + 1, 0)));
            for (const auto& fb : faceBoxes) wantTests -= boxes[marked].overlaps(fb.second);
        }
        ASSERT_TRUE(config < 2 || want.size() < expected.size());
        expectWalk<GmSegmentFaceInfo>(
            [&](std::vector<GmSegmentFaceInfo>& results) {
                GmSegmentMeshIntersector visitor(results, curves, s.positions, mesh);
                t.intersect(config == 2 ? still : faces, visitor);
                return visitor.getNumberTests();
            },
            std::make_pair(want, wantTests), false);
    }

    // First crossing of each strand as its own set: the earliest segment that crosses, at its
    // smallest parameter, after a test of every overlapping pair of the segments up to it. Flags
    // on one segment's leaf or the root: none, root frozen, leaf disabled, leaf frozen; against
    // the faces, or all of them frozen.
    const std::size_t n = s.segments[0];
    for (int flags = 0; flags < 8; ++flags)
        for (std::size_t c = 0; c < s.segments.size(); ++c) {
            SCOPED_TRACE("flags " + std::to_string(flags) + " strand " + std::to_string(c));
            const bool onStill = flags >= 4;
            const bool prunedAll = flags == 5, prunedMarked = flags % 4 == 2 || flags == 7;
            const Positions p(s.positions.begin() + long(c * (n + 1)), s.positions.begin() + long((c + 1) * (n + 1)));
            const GmCurves one(n + 1);
            GmCurveBoundingTree t(one, p, 0.0, nullptr);
            const std::uint64_t marked = c % n;
            for (std::uint64_t i = n - 1; i < 2 * n - 1; ++i)
                if (t.getNode(i).primitive->index == marked && flags % 4 >= 2) t.setNodeFlags(i, flags % 4 == 2, flags % 4 == 3);
            if (flags % 4 == 1) t.setNodeFlags(0, false, true);
            std::uint64_t want = 0;
            int segment = -1;
            double parameter = DBL_MAX;
            std::set<int> at;  // faces hit at that parameter
            for (std::uint64_t k = 0; k < n && segment < 0 && !prunedAll; ++k) {
                if (prunedMarked && k == marked) continue;
                for (int f = 0; f < mesh.getNumberFaces(); ++f) {
                    want += boxes[c * n + k].overlaps(faceBoxes[f]);
                    const int* w = mesh.getFace(f).vertices;
                    GmSegmentFaceInfo r;
                    if (!GmSegmentKernels::segmentTriangle(p[k], p[k + 1], v[w[0]], v[w[1]], v[w[2]], 0.0, r)) continue;
                    if (r.parameter1 < parameter) at.clear();
                    if (r.parameter1 <= parameter) parameter = r.parameter1, at.insert(f), segment = int(k);
                }
            }
            GmFirstSegmentIntersection first(p, mesh);
            t.intersect(onStill ? still : faces, first);
            EXPECT_EQ(first.getNumberTests(), want);
            ASSERT_EQ(first.getResult() != nullptr, segment >= 0);
            if (segment < 0) continue;
            EXPECT_EQ(first.getResult()->index1, segment);
            EXPECT_EQ(first.getResult()->parameter1, parameter);
            EXPECT_EQ(at.count(int(first.getResult()->index2)), 1u);
        }
    std::vector<const GmCurveSegment*> segs;
    tree.getIntersectCandidates(h, segs);
    std::multiset<Pair> got;
    for (const GmCurveSegment* seg : segs) got.insert(Pair(std::int64_t(seg->index), 0));
    EXPECT_EQ(got, candidates);
}

TEST(CurveVisitors, SegmentFaceEndsAndFirstHitRules) {
    // One face in z = 0 and segments along z ending on it, short of it and beyond it.
    GmTriangleMesh mesh("face");
    mesh.addFace(Vec(-1, -1, 0), Vec(2, -1, 0), Vec(-1, 2, 0));
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
        EXPECT_TRUE(!c.hit || first.getResult()->parameter1 == c.z0 / (c.z0 - c.z1));
        GmFirstSegmentIntersection copy(first);
        EXPECT_EQ(copy.getResult() != nullptr, c.hit);
    }
    // The later segment is skipped once the earlier one hit; an earlier hit with a larger
    // parameter does not displace the kept one.
    const GmCurves strand(std::size_t(4));
    const Positions zig = {Vec(0.1, 0.1, 1), Vec(0.1, 0.1, -0.1), Vec(0.2, 0.1, 1), Vec(0.2, 0.1, -3)};
    GmFirstSegmentIntersection first(zig, mesh);
    for (int k : {2, 0, 2}) first(*strand.getPrimitive(std::uint64_t(k)), mesh.getFace(0));
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
    const double distance = 0.05;
    for (int trial = 0; trial < 40; ++trial) {
        const Positions p = {Vec(u(rng), u(rng), u(rng)), Vec(u(rng), u(rng), u(rng))};
        const std::vector<double> offsets = {0.01 * (trial % 5), 0.02};
        double best = DBL_MAX;
        std::uint64_t found = 0;
        for (int e = 0; e < mesh.getNumberEdges(); ++e) {
            GmSegmentSegmentInfo r;
            if (GmSegmentKernels::segmentSegment(p[0], p[1], distance + offsets[0], distance + offsets[1],
                                                 v[mesh.getEdge(e).from], v[mesh.getEdge(e).to], 0, 0, r))
                best = std::min(best, r.distance), ++found;
        }
        const GmCurves one(std::size_t(2));
        const GmCurveBoundingTree tree(one, p, distance + 0.04, nullptr);
        GmClosestEdgeEdgeProximityOnSingleSegment prox(p, distance, offsets, mesh);
        tree.intersect(faces, prox);
        ASSERT_EQ(prox.getResult() != nullptr, found > 0) << trial;
        EXPECT_EQ(prox.getNumberProximities(), found);
        if (found == 0) continue;
        const GmSegmentFaceInfo& r = *prox.getResult();
        EXPECT_EQ(r.distance, best);
        EXPECT_EQ(mesh.getEdge(static_cast<int>(r.index3)).firstFace, r.index2);
        const int* f = mesh.getFace(static_cast<int>(r.index2)).vertices;
        const Vec onFace = v[f[0]] * r.barycentric.x + v[f[1]] * r.barycentric.y + v[f[2]] * r.barycentric.z;
        EXPECT_NEAR((onFace - r.point2).length(), 0.0, 1e-12);
        EXPECT_NEAR(r.normal.length(), 1.0, 1e-12);
    }
}

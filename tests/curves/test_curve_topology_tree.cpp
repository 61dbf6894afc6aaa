// Curve topology, the segment tree's layout, boxes and checked input, and the text forms.

#include <algorithm>
#include <cfloat>
#include <limits>
#include <memory>
#include <sstream>
#include <stdexcept>

#include <gtest/gtest.h>

#include <quarrygeom/quarrygeom.h>

#include "curves_test_util.h"

using namespace curvetest;

TEST(CurveTopology, ConstructorsNumberSegmentsAndVertices) {
    struct CurvesCase {
        const char* name;
        std::shared_ptr<GmCurves> curves;
        std::uint64_t numberCurves, numberVertices;
        std::vector<std::uint64_t> primitiveCurve, primitiveSegment, vertex0;
    };
    const std::vector<CurvesCase> cases = {
        {"zero vertices", std::make_shared<GmCurves>(std::size_t(0)), 0, 0, {}, {}, {}},
        {"one vertex", std::make_shared<GmCurves>(std::size_t(1)), 0, 0, {}, {}, {}},
        {"two vertices", std::make_shared<GmCurves>(std::size_t(2)), 1, 2, {0}, {0}, {0}},
        {"stops 3, 0, 2", std::make_shared<GmCurves>(std::vector<std::size_t>{3, 0, 2}), 3, 7,
         {0, 0, 0, 2, 2}, {0, 1, 2, 0, 1}, {0, 1, 2, 4, 5}},
        {"ranges", std::make_shared<GmCurves>(std::vector<std::size_t>{7, 9}, std::vector<std::size_t>{2, 0},
                                              std::vector<std::size_t>{5, 1}),
         2, 6, {0, 0, 0, 1}, {2, 3, 4, 0}, {0, 1, 2, 4}},
    };
    for (const CurvesCase& c : cases) {
        SCOPED_TRACE(c.name);
        const GmCurves& s = *c.curves;
        EXPECT_EQ(s.getNumberCurves(), c.numberCurves);
        EXPECT_EQ(s.getNumberVertices(), c.numberVertices);
        ASSERT_EQ(s.getNumberPrimitives(), c.primitiveCurve.size());
        for (std::uint64_t i = 0; i < s.getNumberPrimitives(); ++i) {
            const GmCurveSegment& seg = *s.getPrimitive(i);
            EXPECT_EQ(seg.index, i);
            EXPECT_EQ(seg.curve, c.primitiveCurve[i]);
            EXPECT_EQ(seg.vertex0, c.vertex0[i]);
            EXPECT_EQ(seg.vertex1, seg.vertex0 + 1);
            EXPECT_EQ(s.getSegment(i), c.primitiveSegment[i]);
            EXPECT_EQ(s.getPrimitiveIndex(seg.curve, s.getSegment(i)), i);
        }
    }
    const GmCurves& stops = *cases[3].curves;
    EXPECT_EQ(stops.getCurvePhysicalIndex(1), GmCurves::kInvalidIndex);
    EXPECT_EQ(stops.getCurvePhysicalIndex(2), 2u);
    const GmCurves& ranges = *cases[4].curves;
    EXPECT_EQ(ranges.getPrimitiveIndex(0, 4), 2u);
    EXPECT_EQ(ranges.getCurvePhysicalIndex(9), 1u);
    EXPECT_EQ(ranges.getCurvePhysicalIndex(8), GmCurves::kInvalidIndex);
    EXPECT_EQ(GmCurves::kInvalidIndex, 1u);
    // A skipped curve whose stop is below its start wraps around.
    const GmCurves wrapped(std::vector<std::size_t>{0, 4}, std::vector<std::size_t>{5, 0}, std::vector<std::size_t>{2, 1});
    EXPECT_EQ(wrapped.getNumberSegments(0), std::numeric_limits<std::uint64_t>::max() - 2);
    EXPECT_EQ(wrapped.getNumberPrimitives(), 1u);
    // Duplicate logical indices: the last curve wins.
    const GmCurves dup(std::vector<std::size_t>{5, 5}, std::vector<std::size_t>{0, 0}, std::vector<std::size_t>{1, 1});
    EXPECT_EQ(dup.getCurvePhysicalIndex(5), 1u);
}

TEST(CurveTopology, CopiesShareRecordsAndOutliveTheirSource) {
    auto source = std::make_unique<GmCurves>(std::vector<std::size_t>{2, 3});
    GmCurves copy(*source);
    GmCurves assigned(std::size_t(5));
    assigned = *source;
    EXPECT_EQ(copy.getPrimitive(3), source->getPrimitive(3));
    source.reset();
    for (const GmCurves* c : {&copy, &assigned}) {
        ASSERT_EQ(c->getNumberPrimitives(), 5u);
        EXPECT_EQ(c->getPrimitive(4)->index, 4u);
        EXPECT_EQ(c->getPrimitive(4)->vertex0, 5u);
    }
    assigned = assigned;  // self-assignment keeps the records
    EXPECT_EQ(assigned.getPrimitive(2)->curve, 1u);
}

TEST(CurveTopology, TextFormsAndBadInput) {
    EXPECT_EQ((std::ostringstream() << GmCurveSegment{3, 9, 4, 5}).str(), "Curve segment[3] = (4, 5)");
    EXPECT_THROW(GmCurves(std::vector<std::size_t>{1, 2}, std::vector<std::size_t>{0}, std::vector<std::size_t>{1, 2}),
                 std::invalid_argument);
    EXPECT_THROW(GmCurves(std::vector<std::size_t>{1}, std::vector<std::size_t>{0}, std::vector<std::size_t>{1, 2}),
                 std::invalid_argument);

    GmSegmentSegmentInfo ss;
    ss.index1 = 3, ss.index2 = 7, ss.distance = 0.5, ss.parameter1 = 0.25, ss.parameter2 = 1;
    ss.radius1 = 0.125, ss.radius2 = 0.375, ss.point1 = Vec(1, 2, 3), ss.point2 = Vec(1, 2, 2.5), ss.normal = Vec(0, 0, 1);
    auto text = [](const auto& x) { return (std::ostringstream() << x).str(); };
    EXPECT_EQ(text(ss), "Interference between segments 3 and 7:\n\tdistance 0.5; parameters 0.25, 1; radii 0.125, 0.375\n"
                        "\tpoint1 " + text(ss.point1) + "; point2 " + text(ss.point2) + "\n\tnormal " + text(ss.normal) + "\n");
    GmSegmentFaceInfo sf;
    sf.index1 = 2, sf.index2 = 11;
    for (std::int64_t edge : {4, -1}) {
        sf.index3 = edge;
        const std::string t = text(sf);
        EXPECT_EQ(t.substr(0, t.find('\n')),
                  edge < 0 ? "Interference between segment 2 and face 11:" : "Interference between segment 2 and face 11 edge 4:");
    }
}

namespace {

// Box of a segment as documented, in double, before rounding.
void expectedBox(const Strands& s, const GmCurveSegment& seg, double offset, bool withRadii, double lo[3], double hi[3]) {
    const Vec& a = s.positions[seg.vertex0];
    const Vec& b = s.positions[seg.vertex1];
    const double ra = withRadii ? s.radii[seg.vertex0] : 0.0, rb = withRadii ? s.radii[seg.vertex1] : 0.0;
    for (int k = 0; k < 3; ++k) {
        lo[k] = std::min(a[k] - ra, b[k] - rb) - (offset + 1e-8);
        hi[k] = std::max(a[k] + ra, b[k] + rb) + (offset + 1e-8);
    }
}

// Every documented property of the layout and the boxes.
void checkTree(const GmCurveBoundingTree& tree, const Strands& s, double offset, bool withRadii) {
    const GmCurves& curves = *tree.getTopology();
    const std::uint64_t n = curves.getNumberPrimitives();
    std::uint64_t d = 0;
    while ((std::uint64_t(1) << d) < n) ++d;
    ASSERT_EQ(tree.getDepth(), d);
    ASSERT_EQ(tree.getNodes().size(), (std::uint64_t(2) << d) - 1);
    ASSERT_EQ(tree.getNumberNodes(), 2 * n - 1);
    ASSERT_EQ(tree.getNumberLeafNodes(), n);
    ASSERT_EQ(tree.getNumberInternalNodes(), n - 1);
    EXPECT_EQ(tree.stackHeight(), 8 * d);
    EXPECT_TRUE(std::is_sorted(tree.getLeaves().begin(), tree.getLeaves().end()));
    const std::uint64_t last = tree.getNodes().size() - 1;
    std::vector<int> seen(n, 0);
    for (std::uint64_t i = 0; i <= last; ++i) {
        const auto& node = tree.getNode(i);
        if (i >= 2 * n - 1) {  // unused slot: zero
            EXPECT_TRUE(node.primitive == nullptr && node.box.minX == 0.f && node.box.maxZ == 0.f) << i;
            continue;
        }
        EXPECT_FALSE(node.disabled || node.frozen);
        if (i >= n - 1) {  // leaf on one of the two deepest levels
            ASSERT_NE(node.primitive, nullptr) << i;
            const int level = 63 - __builtin_clzll(i + 1);
            EXPECT_GE(level + 1, static_cast<int>(d));
            EXPECT_TRUE(std::binary_search(tree.getLeaves().begin(), tree.getLeaves().end(), last - i));
            ++seen[node.primitive->index];
            double lo[3], hi[3];
            expectedBox(s, *node.primitive, offset, withRadii, lo, hi);
            const float got[6] = {node.box.minX, node.box.minY, node.box.minZ, node.box.maxX, node.box.maxY, node.box.maxZ};
            for (int k = 0; k < 3; ++k) {  // the nearest floats outside
                EXPECT_LE(double(got[k]), lo[k]);
                EXPECT_GT(double(std::nextafter(got[k], FLT_MAX)), lo[k]);
                EXPECT_GE(double(got[3 + k]), hi[k]);
                EXPECT_LT(double(std::nextafter(got[3 + k], -FLT_MAX)), hi[k]);
            }
            continue;
        }
        ASSERT_EQ(node.primitive, nullptr) << i;
        GmAxisAlignedBox u = tree.getNode(2 * i + 1).box;
        u.expand(tree.getNode(2 * i + 2).box);
        EXPECT_TRUE(u.minX == node.box.minX && u.minY == node.box.minY && u.minZ == node.box.minZ &&
                    u.maxX == node.box.maxX && u.maxY == node.box.maxY && u.maxZ == node.box.maxZ) << i;
    }
    for (std::uint64_t k = 0; k < n; ++k) EXPECT_EQ(seen[k], 1) << k;
}

// Left-balanced split on the longest axis by midpoint: every midpoint on the left is at most
// every midpoint on the right along the parent box's longest axis (checked at build).
void checkSplits(const GmCurveBoundingTree& tree, const Strands& s) {
    const std::uint64_t n = tree.getNumberLeafNodes();
    std::function<void(std::uint64_t, std::vector<std::uint64_t>&)> collect = [&](std::uint64_t i, std::vector<std::uint64_t>& out) {
        if (tree.getNode(i).primitive != nullptr) {
            out.push_back(tree.getNode(i).primitive->index);
            return;
        }
        collect(2 * i + 1, out);
        collect(2 * i + 2, out);
    };
    for (std::uint64_t i = 0; i + 1 < n; ++i) {
        std::vector<std::uint64_t> left, right;
        collect(2 * i + 1, left);
        collect(2 * i + 2, right);
        const std::uint64_t count = left.size() + right.size();
        std::uint64_t p = 1;
        while (2 * p <= count / 2) p *= 2;
        EXPECT_EQ(left.size(), count <= 2 ? 1 : std::min(count - p, 2 * p));
        int order[3];
        tree.getNode(i).box.getExtent().getIndexOrdering(order);
        auto mid = [&](std::uint64_t k) {
            const GmCurveSegment& seg = *tree.getTopology()->getPrimitive(k);
            return 0.5 * (s.positions[seg.vertex0][order[0]] + s.positions[seg.vertex1][order[0]]);
        };
        double maxLeft = -DBL_MAX, minRight = DBL_MAX;
        for (auto k : left) maxLeft = std::max(maxLeft, mid(k));
        for (auto k : right) minRight = std::min(minRight, mid(k));
        if (count > 2) {
            EXPECT_LE(maxLeft, minRight) << "node " << i;
        }
    }
}

}  // namespace

// Random strands of 1 ... 257 segments and the degenerate set scaled by powers of two: built
// with an offset, refit with radii (same leaves and order), copied, reset.
TEST(CurveTree, LayoutAndBoxesAfterBuildAndRefit) {
    std::vector<std::pair<Strands, Strands>> sets;
    for (unsigned n : {1, 2, 3, 5, 8, 13, 100, 257})
        sets.emplace_back(randomWalks(n, n < 4 ? 1 : 4, n < 4 ? int(n) : int(n) / 4, 3.0, 0.5, 0.1),
                          randomWalks(n + 99, n < 4 ? 1 : 4, n < 4 ? int(n) : int(n) / 4, 5.0, 0.7, 0.3));
    for (double scale : {1.0, 0x1p-20, 0x1p20}) sets.emplace_back(degenerate(scale), degenerate(scale * 3));
    for (const auto& [s, moved] : sets) {
        SCOPED_TRACE(s.positions.size());
        const GmCurves curves(s.segments);
        GmCurveBoundingTree tree(curves, s.positions, 0.25, nullptr);
        checkTree(tree, s, 0.25, false);
        checkSplits(tree, s);
        const std::vector<std::uint64_t> leaves = tree.getLeaves();
        std::vector<const GmCurveSegment*> prims;
        for (std::uint64_t i = 0; i < tree.getNumberNodes(); ++i) prims.push_back(tree.getNode(i).primitive);
        tree.refit(moved.positions, 0.0, &moved.radii);
        checkTree(tree, moved, 0.0, true);
        EXPECT_EQ(tree.getLeaves(), leaves);
        for (std::uint64_t i = 0; i < tree.getNumberNodes(); ++i) EXPECT_EQ(tree.getNode(i).primitive, prims[i]);
        EXPECT_EQ(tree.getOffsets(), &moved.radii);
        GmCurveBoundingTree copy(tree);
        tree.reset();
        EXPECT_TRUE(tree.empty());
        EXPECT_EQ(tree.getTopology(), nullptr);
        checkTree(copy, moved, 0.0, true);
    }
    const GmCurves empty(std::size_t(0));
    const GmCurveBoundingTree none(empty, Positions{}, 0.0, nullptr);
    EXPECT_TRUE(none.empty());
    EXPECT_EQ(none.getNumberLeafNodes(), 0u);
}

TEST(CurveTree, BadInputThrowsAndRefitKeepsTheTree) {
    const Strands s = randomWalks(5, 3, 6, 2.0, 0.3, 0.1);
    const GmCurves curves(s.segments);
    Positions shortPositions(s.positions.begin(), s.positions.end() - 1);
    std::vector<double> shortRadii(s.radii.begin(), s.radii.end() - 1);
    Positions nan = s.positions, inf = s.positions;
    nan[4].y = std::nan("");
    inf.back().z = HUGE_VAL;
    GmCurveBoundingTree tree(curves, s.positions, 0.1, nullptr);
    const std::vector<GmCurveBoundingTree::Node> before = tree.getNodes();
    const std::vector<std::pair<const Positions*, const std::vector<double>*>> bad = {
        {&shortPositions, nullptr}, {&s.positions, &shortRadii}, {&nan, nullptr}, {&inf, &s.radii}};
    for (const auto& b : bad) {
        EXPECT_THROW(tree.refit(*b.first, 0.1, b.second), std::invalid_argument);
        ASSERT_EQ(tree.getNodes().size(), before.size());
        for (std::size_t i = 0; i < before.size(); ++i) EXPECT_EQ(tree.getNodes()[i].box.maxX, before[i].box.maxX);
        GmCurveBoundingTree other;
        EXPECT_THROW(other.build(curves, *b.first, 0.1, b.second), std::invalid_argument);
        EXPECT_TRUE(other.empty());
    }
}

#pragma once

// Strand scenes and brute-force references for the curve tests.

#include <cmath>
#include <cstdint>
#include <random>
#include <set>
#include <utility>
#include <vector>

#include <quarrygeom/core/tarnCollision.h>
#include <quarrygeom/curves/curves.h>
#include <gtest/gtest.h>

#include "../support/threading.h"

namespace curvetest {

using Vec = GmTVector<double>;
using Positions = std::vector<Vec>;
using Pair = std::pair<std::int64_t, std::int64_t>;

// A set of strands with positions and per-vertex radii.
struct Strands {
    std::vector<std::size_t> segments;  // per curve
    Positions positions;
    std::vector<double> radii;
};

// Random walks: `curves` strands of `segments` steps of length `step` from random roots in a
// cube of side `side`; radii uniform in [0, maxRadius].
inline Strands randomWalks(unsigned seed, int curves, int segments, double side, double step, double maxRadius) {
    std::mt19937 rng(seed);
    std::uniform_real_distribution<double> u(0.0, 1.0);
    std::normal_distribution<double> g;
    Strands s;
    for (int c = 0; c < curves; ++c) {
        s.segments.push_back(static_cast<std::size_t>(segments));
        Vec p(side * u(rng), side * u(rng), side * u(rng));
        for (int k = 0; k <= segments; ++k) {
            s.positions.push_back(p);
            s.radii.push_back(maxRadius * u(rng));
            Vec d(g(rng), g(rng), g(rng));
            p += d.safeNormalized() * step;
        }
    }
    return s;
}

// Degenerate strands on a grid of powers of two: zero-length segments, collinear strands that
// overlap end to end, parallel strands at exactly their radii apart, crossing strands in one
// plane. Coordinates are scaled by `scale`.
inline Strands degenerate(double scale) {
    Strands s;
    auto add = [&](std::vector<Vec> pts, double r) {
        s.segments.push_back(pts.size() - 1);
        for (const Vec& p : pts) {
            s.positions.push_back(p * scale);
            s.radii.push_back(r * scale);
        }
    };
    add({{0, 0, 0}, {0, 0, 0}, {1, 0, 0}, {1, 0, 0}, {2, 0, 0}}, 0.0);         // zero-length segments
    add({{0.5, 0, 0}, {1.5, 0, 0}, {2.5, 0, 0}, {3.5, 0, 0}}, 0.0);            // collinear, overlapping
    add({{0, 0.25, 0}, {1, 0.25, 0}, {2, 0.25, 0}, {3, 0.25, 0}}, 0.125);      // parallel, touching radii
    add({{0, 0.5, 0}, {1, 0.5, 0}, {2, 0.5, 0}}, 0.125);                       // parallel, 0.25 apart
    add({{1, -1, 0}, {1, 0, 0}, {1, 1, 0}, {1, 2, 0}}, 0.0);                   // crossing in z = 0
    add({{0.75, 0.75, -1}, {0.75, 0.75, 0}, {0.75, 0.75, 1}}, 0.0);            // through the plane
    add({{3, 3, 3}, {3, 3, 3}, {3, 3, 3}}, 0.0);                               // a point strand
    add({{3, 3, 3}, {4, 4, 4}, {3, 3, 3}, {4, 4, 4}}, 0.0);                    // folding back on itself
    return s;
}

inline Pair key(std::int64_t a, std::int64_t b) { return a < b ? Pair(a, b) : Pair(b, a); }

template <class Records>
std::multiset<Pair> pairsOf(const Records& records, bool unordered) {
    std::multiset<Pair> out;
    for (const auto& r : records) out.insert(unordered ? key(r.index1, r.index2) : Pair(r.index1, r.index2));
    return out;
}

// Leaf box of a segment as the tree makes it, by the tree's own leaves (for brute-force counts).
inline std::vector<GmAxisAlignedBox> leafBoxes(const GmCurveBoundingTree& tree) {
    std::vector<GmAxisAlignedBox> boxes(tree.getTopology()->getNumberPrimitives());
    for (std::uint64_t pos : tree.getLeaves()) {
        const auto& node = tree.getNodes()[pos];
        boxes[node.primitive->index] = node.box;
    }
    return boxes;
}

// Brute force over the primitive pairs of two trees (a < b when both are one tree): `skip(a, b)`
// leaves a pair out, `hit(a, b)` is the reference contact test. Returns the pairs hit and the
// number of pairs kept whose leaf boxes overlap: the tests a walk makes.
template <class Skip, class Hit>
std::pair<std::multiset<Pair>, std::uint64_t> bruteForce(const GmCurveBoundingTree& t1, const GmCurveBoundingTree& t2,
                                                         Skip&& skip, Hit&& hit) {
    const std::vector<GmAxisAlignedBox> b1 = leafBoxes(t1), b2 = leafBoxes(t2);
    std::pair<std::multiset<Pair>, std::uint64_t> out{{}, 0};
    for (std::uint64_t a = 0; a < b1.size(); ++a)
        for (std::uint64_t b = &t1 == &t2 ? a + 1 : 0; b < b2.size(); ++b) {
            if (skip(a, b)) continue;
            out.second += b1[a].overlaps(b2[b]);
            if (hit(a, b)) {
                EXPECT_TRUE(b1[a].overlaps(b2[b])) << "boxes miss a contact " << a << " " << b;
                out.first.insert(Pair(std::int64_t(a), std::int64_t(b)));
            }
        }
    return out;
}

// Runs `walk(results) -> number of tests` serially and in parallel: the pairs found (unordered
// for a self walk) and the tests made are those of the brute force.
template <class Info, class Walk>
void expectWalk(Walk&& walk, const std::pair<std::multiset<Pair>, std::uint64_t>& brute, bool unordered) {
    ThreadingSwitch sw;
    for (bool parallel : {false, true}) {
        SCOPED_TRACE(parallel ? "parallel" : "serial");
        sw.set(parallel);
        std::vector<Info> results;
        EXPECT_EQ(walk(results), brute.second);
        EXPECT_EQ(pairsOf(results, unordered), brute.first);
    }
}

}  // namespace curvetest

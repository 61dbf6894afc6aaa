// Traversals of the curve tree: against itself, another curve tree and a face hierarchy, on the
// collision walk's descent (GmBVHCollisionWalk.h) with the curve rules as the pair step, and on
// the parallel frame when multithreading is on.

#include <algorithm>
#include <atomic>
#include <optional>
#include <type_traits>
#include <cstdint>
#include <vector>

#include <tbb/cache_aligned_allocator.h>

#include <quarrygeom/core/GmParallel.h>
#include <quarrygeom/curves/GmCurveContinuous.h>
#include <quarrygeom/curves/GmGenericBoundingTree.h>
#include <quarrygeom/mesh/GmTriangleMesh.h>

#include "../bvh/GmBVHCollisionWalk.h"
#include "GmCurveSelfWalk.h"

using GmBVHCollision::BasicNodePair;
using GmBVHCollision::childPairs;
using GmBVHCollision::descendPairs;
using GmBVHCollision::expandPairs;

namespace {

typedef GmGenericBoundingTree<GmCurves> CurveTree;
typedef CurveTree::Node CurveNode;
typedef GmBoundingVolumeHierarchy::Node FaceNode;

// Parallel walks: seeds are expanded on the calling thread until this many pairs remain and no
// internal node of a pair lies above kFrontierDepth; the self walk seeds the descents of the
// top kSplitNodes internal nodes and runs each deeper subtree as one item.
constexpr std::size_t kFrontierSize = 512;
constexpr int kFrontierDepth = 9;
constexpr std::uint64_t kSplitNodes = 127;

inline int heapDepth(std::uint64_t i) { return 63 - __builtin_clzll(i + 1); }

// Node access by heap index: the curve tree stores node i at lastIndex - i, the face hierarchy
// at i.
struct CurveNodes {
    const CurveNode* last;
    explicit CurveNodes(const CurveTree& t) : last(t.getNodes().data() + (t.getNodes().size() - 1)) {}
    const CurveNode& operator[](std::uint64_t i) const { return *(last - i); }
};
struct FaceNodes {
    const FaceNode* first;
    explicit FaceNodes(const GmBoundingVolumeHierarchy& h) : first(h.getNodes().data()) {}
    const FaceNode& operator[](std::uint64_t i) const { return first[i]; }
};

struct NoLeaves;

// Box overlap as GmAxisAlignedBox::overlaps, without branches: in the walk the outcome is
// hard to predict.
inline bool boxesOverlap(const GmAxisAlignedBox& a, const GmAxisAlignedBox& b) {
    return (a.minX <= b.maxX) & (b.minX <= a.maxX) & (a.minY <= b.maxY) & (b.minY <= a.maxY) & (a.minZ <= b.maxZ) &
           (b.minZ <= a.maxZ);
}

template <class Nodes, class Index>
inline void prefetchChildren(const Nodes& nodes, Index i) {
    __builtin_prefetch(&nodes[2 * i + 1]);
    __builtin_prefetch(&nodes[2 * i + 2]);
}

// No pruning beyond the flags and the boxes.
struct NoPrune {
    bool operator()(std::uint64_t) const { return false; }
};

// The curve rules of one node pair for the walk's descent. Pairs are handed to visit() only
// once their boxes are known to overlap (seeds through overlap(), child pairs by visit itself
// before it returns them); visit prunes on the flags, hands two leaves to `leaves` and returns
// the overlapping child pairs. The same pairs reach the visitor as when every pair is first
// tested on its own: both filters are free of side effects.
template <class NodesA, class NodesB, class Leaves, class Prune = NoPrune>
class CurveStep {
public:
    CurveStep(NodesA a, NodesB b, bool pruneDisabled, Leaves& leaves, Prune prune = Prune())
        : _a(a), _b(b), _pruneDisabled(pruneDisabled), _leaves(leaves), _prune(prune) {}

    template <class Index>
    bool overlap(Index a, Index b) const {
        return boxesOverlap(_a[a].box, _b[b].box);
    }

    template <class Index>
    int visit(Index a, Index b, BasicNodePair<Index> next[4]) {
        if (_prune(a)) return 0;
        const auto& na = _a[a];
        const auto& nb = _b[b];
        if (!passes(na, nb)) return 0;
        const bool leafA = na.primitive != nullptr;
        const bool leafB = nb.primitive != nullptr;
        if (leafA && leafB) {
            _leaves(a, b, na, nb);
            return 0;
        }
        // Overlapping child pairs in walk order. Leading pairs of two leaves are handled here,
        // before the rest is returned: the order of the descent, without the stack round trip.
        const int n = childPairs(a, leafA, b, leafB, next);
        int m = 0;
        for (int k = 0; k < n; ++k) {
            const Index ca = next[k].a, cb = next[k].b;
            const auto& xa = _a[ca];
            const auto& xb = _b[cb];
            if (!boxesOverlap(xa.box, xb.box)) continue;
            if (kLeavesHere && m == 0 && xa.primitive != nullptr && xb.primitive != nullptr) {
                if (!_prune(ca) && passes(xa, xb)) _leaves(ca, cb, xa, xb);
                continue;
            }
            // The pair is examined later: start loading the children it will read.
            if (xa.primitive == nullptr) prefetchChildren(_a, ca);
            if (xb.primitive == nullptr) prefetchChildren(_b, cb);
            next[m++] = next[k];
        }
        return m;
    }

private:
    // A step that only expands (NoLeaves) returns leaf pairs to its caller.
    static constexpr bool kLeavesHere = !std::is_same<Leaves, NoLeaves>::value;

    template <class NA, class NB>
    bool passes(const NA& na, const NB& nb) const {
        if (_pruneDisabled && (na.disabled || nb.disabled)) return false;
        return !(na.frozen && nb.frozen);
    }

    NodesA _a;
    NodesB _b;
    bool _pruneDisabled;
    Leaves& _leaves;
    Prune _prune;
};

// First crossing: once a hit is held, the visitor skips every segment numbered after the hit's
// (and the hit's segment number never grows), so a curve node whose segments all come after it
// is dropped with everything below it. minIndex: smallest segment index below each node.
struct AfterFirstHit {
    const std::uint64_t* minIndex;
    const GmFirstSegmentIntersection* visitor;
    bool operator()(std::uint64_t a) const {
        const GmSegmentFaceInfo* best = visitor->getResult();
        return best != nullptr && minIndex[a] > static_cast<std::uint64_t>(best->index1);
    }
};

// Smallest segment index below each node of a curve tree, by heap index.
void minSegmentIndex(const CurveTree& tree, std::vector<std::uint64_t>& out) {
    const CurveNodes nodes(tree);
    const std::uint64_t n = tree.getNodes().size();
    out.assign(n, ~std::uint64_t(0));
    for (std::uint64_t i = n; i-- > 0;) {
        if (nodes[i].primitive != nullptr)
            out[i] = nodes[i].primitive->index;
        else if (2 * i + 2 < n)
            out[i] = std::min(out[2 * i + 1], out[2 * i + 2]);
    }
}

// Two leaves of two trees (boxes overlapping): the visitor.
template <class X>
struct PairLeaves {
    X* visitor;
    template <class Index, class NA, class NB>
    void operator()(Index, Index, const NA& na, const NB& nb) const {
        (*visitor)(*na.primitive, *nb.primitive);
    }
};

// A leaf's segment as the self test reads it: gathered once per query by leaf, so that a
// leaf pair reads two records next to the nodes instead of the segments, positions and radii
// scattered in memory. The values are copies: the test gives the same bits.
struct LeafRecord {
    const GmCurveSegment* record;
};
struct LeafSegment : LeafRecord {
    std::uint64_t curve;
    std::uint64_t index;
    double r0, r1;
    double p0[3], p1[3];  // plain arrays: the gather buffer is left uninitialised
};

template <class X>
struct SelfLeaves;

// Visitors whose segment test runs on the gathered copies (positions and radii included); other
// self visitors get the segment records (and their leaves hold only those).
template <class X>
constexpr bool kTestsGathered =
    std::is_same<X, GmSegmentSelfIntersector<1>>::value || std::is_same<X, GmSegmentSelfIntersector<3>>::value;

template <class X>
using LeafOf = typename std::conditional<kTestsGathered<X>, LeafSegment, LeafRecord>::type;

// Uninitialised storage for the gathered leaves, from TBB's allocator (which keeps large blocks
// for reuse, so the buffer is not faulted in afresh per query).
template <class T>
class LeafBuffer {
public:
    explicit LeafBuffer(std::size_t n) : _n(n), _data(tbb::cache_aligned_allocator<T>().allocate(n)) {}
    ~LeafBuffer() { tbb::cache_aligned_allocator<T>().deallocate(_data, _n); }
    LeafBuffer(const LeafBuffer&) = delete;
    LeafBuffer& operator=(const LeafBuffer&) = delete;
    T* get() const { return _data; }

private:
    std::size_t _n;
    T* _data;
};

// Gathers the leaves' segments of `tree` with the visitor's positions and radii into `out`,
// indexed by heap index - internal node count (the leaves are the last heap indices);
// `loop` runs it over ranges of leaves (GmCurveSelfWalk::SerialLoop or ParallelLoop).
template <class X, class Loop>
void gatherLeaves(const CurveTree& tree, const X& visitor, LeafOf<X>* out, const Loop& loop) {
    const std::uint64_t last = tree.getNodes().size() - 1, internal = tree.getNumberInternalNodes();
    const std::uint64_t* leaves = tree.getLeaves().data();
    loop(tree.getNumberLeafNodes(), [&](std::uint64_t first, std::uint64_t end) {
        for (std::uint64_t k = first; k < end; ++k) {
            const std::uint64_t pos = leaves[k];
            const GmCurveSegment& s = *tree.getNodes()[pos].primitive;
            LeafOf<X>& l = out[last - pos - internal];
            l.record = &s;
            if constexpr (kTestsGathered<X>) {
                const std::vector<GmTVector<double>>& p = *visitor.getPositions();
                const std::vector<double>* r = visitor.getOffsets();
                l.curve = s.curve;
                l.index = s.index;
                l.r0 = r != nullptr ? (*r)[s.vertex0] : 0.0;
                l.r1 = r != nullptr ? (*r)[s.vertex1] : 0.0;
                for (int c = 0; c < 3; ++c) {
                    l.p0[c] = p[s.vertex0][c];
                    l.p1[c] = p[s.vertex1][c];
                }
            }
        }
    });
}

// Runs body(first, last) over ranges covering [0, n) on the workers of the parallel frame.
struct ParallelLoop {
    static constexpr std::uint64_t kChunk = std::uint64_t(1) << 10;
    template <class Body>
    void operator()(std::uint64_t n, Body&& body) const {
        const int chunks = static_cast<int>((n + kChunk - 1) / kChunk);
        GmParallel::parallelForRanges(0, chunks, [&](int first, int last) {
            body(static_cast<std::uint64_t>(first) * kChunk, std::min(static_cast<std::uint64_t>(last) * kChunk, n));
        });
    }
};

// Leaves of a step that expands inner pairs only (never called).
struct NoLeaves {
    template <class Index, class NA, class NB>
    void operator()(Index, Index, const NA&, const NB&) const {}
    template <class Index>
    void operator()(Index, Index) const {}
};

// Self visitors whose serial record order is defined: descent by descent in the order of the
// internal nodes. Other self visitors take the hits in walk order.
template <class X>
constexpr bool kOrderedSelf = kTestsGathered<X>;

// The hits of one descent in the serial walk's collection.
struct DescentHits {
    std::uint64_t descent;
    std::size_t begin, end;
};

// f(k) for the internal nodes k < internal of the subtree rooted at `root`, in pre-order: a
// descent only reads the nodes below its own, so the descents of a subtree run while its nodes
// are in cache. `pending` is scratch space.
template <class F>
void preorderInternal(std::uint64_t root, std::uint64_t internal, std::vector<std::uint64_t>& pending, F&& f) {
    pending.clear();
    if (root < internal) pending.push_back(root);
    while (!pending.empty()) {
        const std::uint64_t k = pending.back();
        pending.pop_back();
        f(k);
        if (2 * k + 2 < internal) pending.push_back(2 * k + 2);
        if (2 * k + 1 < internal) pending.push_back(2 * k + 1);
    }
}

}  // namespace

// Access to the visitors' result pointers and counters for the parallel walks.
class GmCurveTraversal {
public:
    // A worker's copy of a visitor: results to `out`, counting from 0.
    template <class X>
    static X workerCopy(const X& visitor, std::vector<typename X::Record>& out) {
        X copy(visitor);
        copy.results = &out;
        copy.numberTests = 0;
        return copy;
    }
    template <class X>
    static std::uint64_t tests(const X& v) {
        return v.numberTests;
    }
    template <class X>
    static void addTests(X& v, std::uint64_t n) {
        v.numberTests += n;
    }
    template <class X>
    static std::vector<typename X::Record>& results(X& v) {
        return *v.results;
    }
    // The self visitor's test on two gathered leaves.
    template <class X>
    static void test(X& v, const LeafOf<X>& a, const LeafOf<X>& b) {
        if constexpr (!kTestsGathered<X>) {
            v(*a.record, *b.record);
        } else {
            ++v.numberTests;
            const GmTVector<double> a0(a.p0[0], a.p0[1], a.p0[2]), a1(a.p1[0], a.p1[1], a.p1[2]);
            const GmTVector<double> b0(b.p0[0], b.p0[1], b.p0[2]), b1(b.p1[0], b.p1[1], b.p1[2]);
            if (X::testEnds(a0, a1, a.r0, a.r1, a.index, b0, b1, b.r0, b.r1, b.index, v.scratch))
                v.processIntersection(v.scratch);
        }
    }

    // Neighbour pruning of the self walk for this visitor (GmCurveSelfWalk::Adjacency).
    template <class X>
    static GmCurveSelfWalk::Adjacency adjacency(const CurveTree& tree, const X& visitor) {
        GmCurveSelfWalk::Adjacency adj;
        if (visitor.getIntersectAdjacent()) return adj;
        if constexpr (std::is_same<X, GmSegmentSelfIntersector<1>>::value)
            adj.window = 0;
        else if constexpr (std::is_same<X, GmSegmentSelfIntersector<3>>::value)
            adj.window = 2;
        else if (visitor.curves == tree.getTopology() && visitor.otherCurves == visitor.curves)
            adj.window = 2;
        return adj;
    }

    // Self traversal.
    template <class X>
    static void self(const CurveTree& tree, X& visitor) {
        using GmCurveSelfWalk::Index;
        using GmCurveSelfWalk::Pair;
        using GmCurveSelfWalk::SelfStep;
        const std::uint64_t internal = tree.getNumberInternalNodes();
        if (tree.empty() || internal == 0) return;
        const GmCurveSelfWalk::Adjacency adj = adjacency(tree, visitor);
        const bool pruneDisabled = !visitor.getIntersectDisabled();
        // The box copy and the gathered leaves, made by the path that runs (the parallel one
        // makes them on the workers).
        std::optional<GmCurveSelfWalk::WalkBoxes> boxCopy;
        std::optional<LeafBuffer<LeafOf<X>>> gathered;
        auto prepare = [&](const auto& loop) {
            boxCopy.emplace(tree, adj, loop);
            gathered.emplace(tree.getNumberLeafNodes());
            gatherLeaves(tree, visitor, gathered->get(), loop);
        };

        // Serial: the descents in pre-order (each subtree's descents together, while its nodes
        // are in cache). Visitors with a defined record order collect each descent's hits and
        // hand them over in descent order at the end.
        auto serial = [&] {
            prepare(GmCurveSelfWalk::SerialLoop());
            const GmCurveSelfWalk::WalkBoxes& boxes = *boxCopy;
            const LeafOf<X>* leaf = gathered->get();
            const bool skipAdjacent = !visitor.getIntersectAdjacent() && !boxes.prunesNeighbours();
            std::vector<Pair> stack;
            stack.reserve(tree.stackHeight() + 4);
            std::vector<std::uint64_t> pending;
            if constexpr (!kOrderedSelf<X>) {
                SelfLeaves<X> leaves{&visitor, skipAdjacent, leaf, internal};
                SelfStep<SelfLeaves<X>> step(boxes, tree, pruneDisabled, leaves);
                preorderInternal(0, internal, pending, [&](std::uint64_t k) {
                    const Index a = static_cast<Index>(2 * k + 1), b = static_cast<Index>(2 * k + 2);
                    if (step.overlap(a, b)) descendPairs(step, stack, a, b);
                });
            } else {
                std::vector<typename X::Record> hits;
                std::vector<DescentHits> spans;
                X worker = workerCopy(visitor, hits);
                SelfLeaves<X> leaves{&worker, skipAdjacent, leaf, internal};
                SelfStep<SelfLeaves<X>> step(boxes, tree, pruneDisabled, leaves);
                preorderInternal(0, internal, pending, [&](std::uint64_t k) {
                    const Index a = static_cast<Index>(2 * k + 1), b = static_cast<Index>(2 * k + 2);
                    const std::size_t before = hits.size();
                    if (step.overlap(a, b)) descendPairs(step, stack, a, b);
                    if (hits.size() != before) spans.push_back({k, before, hits.size()});
                });
                std::sort(spans.begin(), spans.end(),
                          [](const DescentHits& x, const DescentHits& y) { return x.descent < y.descent; });
                visitor.numberTests += worker.numberTests;
                for (const DescentHits& d : spans)
                    for (std::size_t i = d.begin; i < d.end; ++i) visitor.processIntersection(hits[i]);
            }
        };

        auto parallel = [&] {
            prepare(ParallelLoop());
            const GmCurveSelfWalk::WalkBoxes& boxes = *boxCopy;
            const LeafOf<X>* leaf = gathered->get();
            const bool skipAdjacent = !visitor.getIntersectAdjacent() && !boxes.prunesNeighbours();
            const std::uint64_t split = std::min(internal, kSplitNodes);
            std::vector<Pair> seeds;
            NoLeaves none;
            SelfStep<NoLeaves, false> top(boxes, tree, pruneDisabled, none);
            for (std::uint64_t k = 0; k < split; ++k) {
                const Index a = static_cast<Index>(2 * k + 1), b = static_cast<Index>(2 * k + 2);
                if (top.overlap(a, b)) seeds.push_back({a, b});
            }
            auto leafPair = [&top](const Pair& p) { return top.leaf(p.a) && top.leaf(p.b); };
            auto coarse = [&top](const Pair& p) {
                return (!top.leaf(p.a) && heapDepth(p.a) < kFrontierDepth) ||
                       (!top.leaf(p.b) && heapDepth(p.b) < kFrontierDepth);
            };
            const std::vector<Pair> frontier = expandPairs(top, std::move(seeds), kFrontierSize, leafPair, coarse);
            const int numFrontier = static_cast<int>(frontier.size());
            // Below the top nodes, one item per subtree rooted on the next level: its descents
            // in pre-order.
            const std::uint64_t firstRoot = split, lastRoot = std::min(internal, 2 * split + 1);
            const int numItems = numFrontier + static_cast<int>(lastRoot - firstRoot);

            GmParallel::ThreadResults<typename X::Record> local;
            std::atomic<std::uint64_t> count{0};
            GmParallel::parallelForRanges(0, numItems, [&](int first, int last) {
                X worker = workerCopy(visitor, local.records());
                SelfLeaves<X> leaves{&worker, skipAdjacent, leaf, internal};
                SelfStep<SelfLeaves<X>> step(boxes, tree, pruneDisabled, leaves);
                std::vector<Pair> stack;
                stack.reserve(tree.stackHeight() + 4);
                std::vector<std::uint64_t> pending;
                for (int k = first; k < last; ++k) {
                    if (k < numFrontier) {
                        const Pair& p = frontier[static_cast<std::size_t>(k)];
                        descendPairs(step, stack, p.a, p.b);
                        continue;
                    }
                    const std::uint64_t root = firstRoot + static_cast<std::uint64_t>(k - numFrontier);
                    preorderInternal(root, internal, pending, [&](std::uint64_t i) {
                        const Index a = static_cast<Index>(2 * i + 1), b = static_cast<Index>(2 * i + 2);
                        if (step.overlap(a, b)) descendPairs(step, stack, a, b);
                    });
                }
                count.fetch_add(worker.numberTests, std::memory_order_relaxed);
            });
            std::vector<typename X::Record> hits;
            GmBVHMetrics unused;
            local.mergeInto(hits, unused);
            visitor.numberTests += count.load();
            for (const typename X::Record& r : hits) visitor.processIntersection(r);
        };

        GmParallel::dispatch(serial, parallel);
    }

    // Curve-curve traversal.
    template <class X>
    static void curves(const CurveTree& a, const CurveTree& b, X& visitor) {
        typedef std::uint64_t Index;
        typedef BasicNodePair<Index> Pair;
        if (a.empty() || b.empty()) return;
        const CurveNodes na(a), nb(b);
        const bool pruneDisabled = !visitor.getIntersectDisabled();

        auto serial = [&] {
            PairLeaves<X> leaves{&visitor};
            CurveStep<CurveNodes, CurveNodes, PairLeaves<X>> step(na, nb, pruneDisabled, leaves);
            std::vector<Pair> stack;
            if (step.overlap(Index(0), Index(0))) descendPairs(step, stack, Index(0), Index(0));
        };

        auto parallel = [&] {
            NoLeaves none;
            CurveStep<CurveNodes, CurveNodes, NoLeaves> top(na, nb, pruneDisabled, none);
            auto leafPair = [&](const Pair& p) { return na[p.a].primitive != nullptr && nb[p.b].primitive != nullptr; };
            auto coarse = [](const Pair&) { return false; };
            std::vector<Pair> seeds;
            if (top.overlap(Index(0), Index(0))) seeds.push_back({0, 0});
            const std::vector<Pair> frontier = expandPairs(top, std::move(seeds), kFrontierSize, leafPair, coarse);
            std::vector<typename X::Record>& out = *visitor.results;
            GmParallel::ThreadResults<typename X::Record> local(out);
            std::atomic<std::uint64_t> count{0};
            GmParallel::parallelForRanges(0, static_cast<int>(frontier.size()), [&](int first, int last) {
                X worker = workerCopy(visitor, local.records());
                PairLeaves<X> leaves{&worker};
                CurveStep<CurveNodes, CurveNodes, PairLeaves<X>> step(na, nb, pruneDisabled, leaves);
                std::vector<Pair> stack;
                for (int k = first; k < last; ++k) {
                    const Pair& p = frontier[static_cast<std::size_t>(k)];
                    descendPairs(step, stack, p.a, p.b);
                }
                count.fetch_add(worker.numberTests, std::memory_order_relaxed);
            });
            GmBVHMetrics unused;
            local.mergeInto(out, unused);
            visitor.numberTests += count.load();
        };

        GmParallel::dispatch(serial, parallel);
    }

    // Curve-triangle traversal (always on the calling thread).
    template <class X>
    static void faces(const CurveTree& a, const GmBoundingVolumeHierarchy& b, X& visitor) {
        typedef std::uint64_t Index;
        if (a.empty() || b.empty()) return;
        PairLeaves<X> leaves{&visitor};
        std::vector<BasicNodePair<Index>> stack;
        stack.reserve(a.stackHeight() + 4);
        if constexpr (std::is_same<X, GmFirstSegmentIntersection>::value) {
            std::vector<std::uint64_t> minIndex;
            minSegmentIndex(a, minIndex);
            CurveStep<CurveNodes, FaceNodes, PairLeaves<X>, AfterFirstHit> step(
                CurveNodes(a), FaceNodes(b), !visitor.getIntersectDisabled(), leaves, AfterFirstHit{minIndex.data(), &visitor});
            if (step.overlap(Index(0), Index(0))) descendPairs(step, stack, Index(0), Index(0));
        } else {
            CurveStep<CurveNodes, FaceNodes, PairLeaves<X>> step(CurveNodes(a), FaceNodes(b),
                                                                !visitor.getIntersectDisabled(), leaves);
            if (step.overlap(Index(0), Index(0))) descendPairs(step, stack, Index(0), Index(0));
        }
    }
};

namespace {

// Two leaves of one tree (boxes overlapping): adjacent pairs are skipped, the others tested with
// the visitor's test on the gathered segments.
template <class X>
struct SelfLeaves {
    X* visitor;
    bool skipAdjacent;
    const LeafOf<X>* leaf;  // by heap index - internal
    std::uint64_t internal;
    template <class Index>
    void operator()(Index a, Index b) const {
        const LeafOf<X>& la = leaf[a - internal];
        const LeafOf<X>& lb = leaf[b - internal];
        if (skipAdjacent && adjacent(la, lb)) return;
        GmCurveTraversal::test(*visitor, la, lb);
    }
    // <1>: one curve. <3>: the rule reduces to the records: a set's segments lie in one array in
    // primitive order, a curve's segments have consecutive indices and segment numbers, so two
    // segments are adjacent exactly when at most two records apart and of one curve.
    bool adjacent(const LeafOf<X>& a, const LeafOf<X>& b) const {
        if constexpr (!kTestsGathered<X>) {
            return visitor->isAdjacent(*a.record, *b.record);
        } else {
            if (a.curve != b.curve) return false;
            if constexpr (std::is_same<GmSegmentSelfIntersector<3>, X>::value)
                return a.record - b.record <= 2 && b.record - a.record <= 2;
            return true;
        }
    }
};

}  // namespace

template <class Tree, class X>
void GmGenericBoundingTree<GmCurves>::intersect(const Tree& other, X& visitor) const {
    if constexpr (std::is_same<Tree, GmBoundingVolumeHierarchy>::value)
        GmCurveTraversal::faces(*this, other, visitor);
    else
        GmCurveTraversal::curves(*this, other, visitor);
}

template <class X>
void GmGenericBoundingTree<GmCurves>::selfIntersect(X& visitor) const {
    GmCurveTraversal::self(*this, visitor);
}

void GmGenericBoundingTree<GmCurves>::getIntersectCandidates(const GmBoundingVolumeHierarchy& hierarchy,
                                                             std::vector<const GmCurveSegment*>& segments) const {
    hierarchy.getCurveIntersectCandidates(*this, segments);
}

template QUARRYGEOM_API void GmGenericBoundingTree<GmCurves>::intersect<GmGenericBoundingTree<GmCurves>, GmSegmentIntersector>(
    const GmGenericBoundingTree<GmCurves>&, GmSegmentIntersector&) const;
template QUARRYGEOM_API void GmGenericBoundingTree<GmCurves>::intersect<GmBoundingVolumeHierarchy, GmSegmentMeshIntersector>(
    const GmBoundingVolumeHierarchy&, GmSegmentMeshIntersector&) const;
template QUARRYGEOM_API void GmGenericBoundingTree<GmCurves>::intersect<GmBoundingVolumeHierarchy, GmFirstSegmentIntersection>(
    const GmBoundingVolumeHierarchy&, GmFirstSegmentIntersection&) const;
template QUARRYGEOM_API void
GmGenericBoundingTree<GmCurves>::intersect<GmBoundingVolumeHierarchy, GmClosestEdgeEdgeProximityOnSingleSegment>(
    const GmBoundingVolumeHierarchy&, GmClosestEdgeEdgeProximityOnSingleSegment&) const;
template QUARRYGEOM_API void GmGenericBoundingTree<GmCurves>::selfIntersect<GmSegmentSelfIntersector<1>>(
    GmSegmentSelfIntersector<1>&) const;
template QUARRYGEOM_API void GmGenericBoundingTree<GmCurves>::selfIntersect<GmSegmentSelfIntersector<3>>(
    GmSegmentSelfIntersector<3>&) const;
template QUARRYGEOM_API void GmGenericBoundingTree<GmCurves>::intersect<GmGenericBoundingTree<GmCurves>, GmSegmentContinuousIntersector>(
    const GmGenericBoundingTree<GmCurves>&, GmSegmentContinuousIntersector&) const;
template QUARRYGEOM_API void GmGenericBoundingTree<GmCurves>::intersect<GmBoundingVolumeHierarchy, GmSegmentMeshContinuousIntersector>(
    const GmBoundingVolumeHierarchy&, GmSegmentMeshContinuousIntersector&) const;
template QUARRYGEOM_API void GmGenericBoundingTree<GmCurves>::selfIntersect<GmSegmentContinuousIntersector>(
    GmSegmentContinuousIntersector&) const;

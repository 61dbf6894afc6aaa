// Traversals of the curve tree: against itself, another curve tree and a face hierarchy, on the
// collision walk's descent (GmBVHCollisionWalk.h) with the curve rules as the pair step, and on
// the parallel frame when multithreading is on.

#include <algorithm>
#include <atomic>
#include <memory>
#include <optional>
#include <utility>
#include <type_traits>
#include <cstdint>
#include <vector>

#include <tbb/cache_aligned_allocator.h>

#include <quarrygeom/core/GmParallel.h>
#include <quarrygeom/curves/GmCurveContinuous.h>
#include <quarrygeom/curves/GmGenericBoundingTree.h>
#include <quarrygeom/mesh/GmTriangleMesh.h>

#include "../bvh/GmBVHCollisionWalk.h"
#include "../bvh/GmBVHRayTree.h"
#include "GmCurveSelfWalk.h"
#include "GmSegmentFaceWalk.h"
#include "GmSegmentRay.h"

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

// The face hierarchy's wide copy costs about 20 ns per face and saves a few hundred ns per
// segment that reaches the body: a query makes it at once from one segment per 64 faces.
constexpr std::uint64_t kSegmentsPerFace = 64;

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

// Two leaves of two trees (boxes overlapping): the visitor.
template <class X>
struct PairLeaves {
    X* visitor;
    template <class Index, class NA, class NB>
    void operator()(Index, Index, const NA& na, const NB& nb) const {
        (*visitor)(*na.primitive, *nb.primitive);
    }
};

// Two leaves of two trees (boxes overlapping): the visitor, for curve leaves from heap index
// `from` on.
template <class X>
struct LeavesFrom {
    X* visitor;
    std::uint64_t from;
    template <class NA, class NB>
    void operator()(std::uint64_t a, std::uint64_t, const NA& na, const NB& nb) const {
        if (a >= from) (*visitor)(*na.primitive, *nb.primitive);
    }
};

// Two leaves of the curve-triangle walk (boxes overlapping): the segment and the face node.
struct CollectLeaves {
    std::vector<std::pair<const GmCurveSegment*, std::uint64_t>>* pairs;
    template <class NA, class NB>
    void operator()(std::uint64_t, std::uint64_t b, const NA& na, const NB&) const {
        pairs->emplace_back(na.primitive, b);
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

    // Curve-triangle traversal (always on the calling thread). `wide`: the face hierarchy's
    // four-wide copy, or null.
    template <class X>
    static void faces(const CurveTree& a, const GmBoundingVolumeHierarchy& b, X& visitor,
                      const GmBVHDetail::RayTree* wide) {
        typedef std::uint64_t Index;
        if (a.empty() || b.empty()) return;
        constexpr bool kFirst = std::is_same<X, GmFirstSegmentIntersection>::value;
        // Segments from this one on (first crossing: by index; all crossings: by leaf heap
        // index) are left to the paired walk below; all of them without the wide copy.
        std::uint64_t from = 0;
        if constexpr (kFirst || std::is_same<X, GmSegmentMeshIntersector>::value) {
            if (wide != nullptr) from = segmentsAgainstFaces(a, b, *wide, visitor);
            if (from == kAllVisited) return;
        }
        const bool pruneDisabled = !visitor.getIntersectDisabled();
        std::vector<BasicNodePair<Index>> stack;
        stack.reserve(a.stackHeight() + 4);
        if constexpr (kFirst) {
            // The leaf pairs of the walk, visited in the order of the descent per segment.
            std::vector<std::pair<const GmCurveSegment*, Index>> pairs;
            CollectLeaves collect{&pairs};
            CurveStep<CurveNodes, FaceNodes, CollectLeaves> step(CurveNodes(a), FaceNodes(b), pruneDisabled, collect);
            if (step.overlap(Index(0), Index(0))) descendPairs(step, stack, Index(0), Index(0));
            const Index firstDeep = (Index(1) << b.getDepth()) - 1, shallow = Index(b.getNumberLeafNodes());
            auto rank = [&](Index face) { return face >= firstDeep ? face - firstDeep : face + shallow; };
            std::sort(pairs.begin(), pairs.end(), [&](const auto& x, const auto& y) {
                return x.first->index != y.first->index ? x.first->index < y.first->index : rank(x.second) < rank(y.second);
            });
            for (const auto& pr : pairs)
                if (pr.first->index >= from) visitor(*pr.first, *b.getNode(static_cast<long long>(pr.second)).primitive);
        } else {
            LeavesFrom<X> leaves{&visitor, from};
            CurveStep<CurveNodes, FaceNodes, LeavesFrom<X>> step(CurveNodes(a), FaceNodes(b), pruneDisabled, leaves);
            if (step.overlap(Index(0), Index(0))) descendPairs(step, stack, Index(0), Index(0));
        }
    }

private:
    static constexpr std::uint64_t kAllVisited = ~std::uint64_t(0);

    // Flags on the way from the root to node i of a curve tree: kPathPruned when a node is
    // disabled (and disabled nodes prune), kPathFrozen when a node is frozen.
    static constexpr int kPathPruned = 1, kPathFrozen = 2;
    static int nodeFlags(const CurveNode& node, bool pruneDisabled) {
        return (pruneDisabled && node.disabled ? kPathPruned : 0) | (node.frozen ? kPathFrozen : 0);
    }
    static int pathFlags(const CurveNodes& nodes, std::uint64_t i, bool pruneDisabled) {
        int flags = 0;
        for (;;) {
            flags |= nodeFlags(nodes[i], pruneDisabled);
            if (i == 0) return flags;
            i = (i - 1) / 2;
        }
    }

    // Curve-triangle traversal by segments: every segment's leaf box descends the face
    // hierarchy's wide copy (left to right) and meets the face leaves whose boxes overlap its
    // own, as in the paired walk (boxes enclose their children's, face flags are those of the
    // nodes), each segment set up once for its faces. The descents of the segments below one
    // curve node start from the face lanes that overlap the node's box. The first-crossing
    // visitor takes the segments in index order and stops at the first one past its kept hit,
    // so the hit it keeps is the first crossing along the strand.
    //
    // Curve flags on a segment's way from the root: a disabled node prunes all of its pairs, as
    // in the paired walk; at a frozen one the function returns, and the paired walk goes on from
    // that segment (the segments before it have the same pairs either way): from its index for
    // the first-crossing visitor, which takes segments in index order, from its leaf's heap
    // index for the mesh visitor, which takes leaves in heap order.
    template <class X>
    static std::uint64_t segmentsAgainstFaces(const CurveTree& a, const GmBoundingVolumeHierarchy& b,
                                              const GmBVHDetail::RayTree& wide, X& visitor) {
        using GmCurveDetail::BoxProbe;
        const bool pruneDisabled = !visitor.getIntersectDisabled();
        const GmBoundingVolumeHierarchy::LeafFace* leafFaces = b.getLeafFaces().data();
        const std::vector<GmTVector<double>>& p = *visitor.positions;
        const CurveNodes nodes(a);
        std::vector<GmCurveDetail::FaceLane> frontier;
        // A segment's descent; open() decides at the first face reached whether it is visited.
        auto segment = [&](const CurveNode& node, auto&& open) {
            const GmCurveSegment& s = *node.primitive;
            // Set up at the first face reached: most segments reach none.
            std::optional<GmSegmentRay> ray;
            GmCurveDetail::overlappingFaces(wide, frontier, BoxProbe(node.box, pruneDisabled), [&](std::int32_t entry) {
                if (!ray) {
                    if (!open()) return;
                    ray.emplace(p[s.vertex0], p[s.vertex1], 0.0);
                }
                const GmBoundingVolumeHierarchy::LeafFace& f = leafFaces[entry];
                visitor.test(*ray, s.index, f.face, f.vertices);
            });
        };
        auto always = [] { return true; };
        if constexpr (std::is_same<X, GmFirstSegmentIntersection>::value) {
            // Leaves by segment index: the set's records lie in one block in index order, so the
            // index is the record's place in it (no record is read for the order). The leaves
            // are nodes n - 1 ... 2n - 2, one block of the node array, asked for at once with the
            // first records. A segment's flags on its way from the root are read
            // when its descent first reaches a face: a disabled node prunes all its pairs, a
            // frozen one leaves it and the segments after it to the paired walk.
            const std::vector<CurveNode>& array = a.getNodes();
            const std::uint64_t n = a.getLeaves().size(), last = array.size() - 1;
            const std::uint64_t firstLeaf = last - (2 * n - 2), lastLeaf = last - (n - 1);
            const GmCurveSegment* base = a.getTopology()->getPrimitive(0);
            for (std::uint64_t pos = firstLeaf; pos <= lastLeaf; pos += 2) __builtin_prefetch(&array[pos]);
            for (std::uint64_t k = 0; k < std::min<std::uint64_t>(n, 8); k += 2) __builtin_prefetch(base + k);
            // A strand whose box reaches no face is done before its leaves are read.
            GmCurveDetail::faceFrontier(wide, BoxProbe(nodes[0].box, pruneDisabled), frontier);
            if (frontier.empty()) return kAllVisited;
            std::uint64_t small[64];
            std::vector<std::uint64_t> large(n > 64 ? n : 0);
            std::uint64_t* leafOf = n > 64 ? large.data() : small;  // heap index by segment index
            for (std::uint64_t pos = firstLeaf; pos <= lastLeaf; ++pos)
                leafOf[static_cast<std::uint64_t>(array[pos].primitive - base)] = last - pos;
            for (std::uint64_t k = 0; k < n && !visitor.skips(k); ++k) {
                const std::uint64_t i = leafOf[k];
                int flags = -1;  // not read yet
                segment(nodes[i], [&] {
                    if (flags < 0) flags = pathFlags(nodes, i, pruneDisabled);
                    return flags == 0;
                });
                if (flags == kPathFrozen) return k;
            }
        } else {
            // Flags on the way from the root, top down over the internal nodes (heap order).
            // Then the leaves n - 1 ... 2n - 2 in heap order (the node array backwards, left to
            // right on each of the two deepest levels), in runs of one group: the leaves below
            // one node about kGroupLevels levels above them, whose descents start from the face
            // lanes that overlap the group's box. Of a run, the leaves whose boxes reach those
            // lanes have their records and then their positions fetched ahead of their descents.
            // A frozen node on the way to such a leaf leaves it and the leaves after it to the
            // paired walk (which the function returns), once the leaves before it are done.
            const std::uint64_t n = a.getLeaves().size(), internal = n - 1;
            std::vector<unsigned char> path(internal);
            for (std::uint64_t i = 0; i < internal; ++i)
                path[i] = static_cast<unsigned char>((i == 0 ? 0 : path[(i - 1) / 2]) | nodeFlags(nodes[i], pruneDisabled));
            constexpr std::uint64_t kGroupLevels = 5;
            const std::uint64_t level = a.getDepth() > kGroupLevels ? a.getDepth() - kGroupLevels : 0;
            std::vector<const CurveNode*> run;
            auto finish = [&] {
                for (const CurveNode* leaf : run) {
                    __builtin_prefetch(&p[leaf->primitive->vertex0]);
                    __builtin_prefetch(&p[leaf->primitive->vertex1]);
                }
                for (const CurveNode* leaf : run) segment(*leaf, always);
                run.clear();
            };
            std::uint64_t group = ~std::uint64_t(0);
            int groupFlags = 0;
            for (std::uint64_t h = internal; h < 2 * n - 1; ++h) {
                const std::uint64_t g = ((h + 1) >> (heapDepth(h) - level)) - 1;
                if (g != group) {
                    finish();
                    group = g;
                    groupFlags = g == 0 ? 0 : path[(g - 1) / 2];
                    groupFlags |= nodeFlags(nodes[g], pruneDisabled);
                    frontier.clear();
                    if (!(groupFlags & kPathPruned))
                        GmCurveDetail::faceFrontier(wide, BoxProbe(nodes[g].box, pruneDisabled), frontier);
                }
                if (frontier.empty()) continue;
                const CurveNode& leaf = nodes[h];
                const int flags = (h == 0 ? 0 : path[(h - 1) / 2]) | nodeFlags(leaf, pruneDisabled);
                if ((flags & kPathPruned) || !GmCurveDetail::reachesFrontier(frontier, leaf.box)) continue;
                if (flags & kPathFrozen) {
                    finish();
                    return h;
                }
                __builtin_prefetch(leaf.primitive);
                run.push_back(&leaf);
            }
            finish();
        }
        return kAllVisited;
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
    if constexpr (std::is_same<Tree, GmBoundingVolumeHierarchy>::value) {
        // The face hierarchy's wide copy for the segment walks: made now when there are enough
        // segments to pay for it, else once enough queries have asked.
        const GmBVHDetail::RayTree* wide = nullptr;
        if constexpr (std::is_same<X, GmFirstSegmentIntersection>::value ||
                      std::is_same<X, GmSegmentMeshIntersector>::value) {
            if (!empty() && !other.empty()) {
                GmBVHDetail::RayTreeCache& cache = other._rayCache.get();
                wide = getNumberLeafNodes() * kSegmentsPerFace >= static_cast<std::uint64_t>(other.getNumberLeafNodes())
                           ? cache.make(other.getNodes(), false)
                           : cache.use(other.getNodes());
            }
        }
        GmCurveTraversal::faces(*this, other, visitor, wide);
    }
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

#pragma once

// The curve tree's self walk on a compact copy of its boxes (not installed).
//
// The copy is made per query: node i's box at position i + 1 as two float quadruples, so the
// siblings 2k + 1 and 2k + 2 share one 64-byte line and a node pair's four child pairs are
// tested from two lines with SSE. The fourth lane of each quadruple holds the lowest and the
// highest adjacency key below the node, so node pairs whose segment pairs are all near
// neighbours are dropped before the leaves (the same pairs reach the visitor, with the same
// test counts: those leaf pairs would be skipped untested).

#include <emmintrin.h>

#include <algorithm>
#include <atomic>
#include <cstdint>
#include <cstring>
#include <vector>

#include <tbb/cache_aligned_allocator.h>

#include <quarrygeom/curves/GmGenericBoundingTree.h>

#include "../bvh/GmBVHCollisionWalk.h"

namespace GmCurveSelfWalk {

typedef GmGenericBoundingTree<GmCurves> CurveTree;
typedef std::uint32_t Index;
typedef GmBVHCollision::BasicNodePair<Index> Pair;

// One node's box: minimum x, y, z and the lowest key; maximum x, y, z and the highest key.
struct alignas(32) WalkBox {
    float lo[3];
    std::uint32_t keyLo;
    float hi[3];
    std::uint32_t keyHi;
};
struct alignas(64) WalkBoxPair {
    WalkBox box[2];
};

// Touching counts as overlap; the same comparisons as the tree's boxes on the same floats.
inline bool overlap(const WalkBox& a, const WalkBox& b) {
    const __m128 le1 = _mm_cmple_ps(_mm_load_ps(a.lo), _mm_load_ps(b.hi));
    const __m128 le2 = _mm_cmple_ps(_mm_load_ps(b.lo), _mm_load_ps(a.hi));
    return (_mm_movemask_ps(_mm_and_ps(le1, le2)) & 7) == 7;
}

// Adjacency keys: with window w >= 0, two segments are near neighbours exactly when their keys
// differ by at most w; w < 0 turns the pruning off. For "same curve" (w = 0) a segment's key is
// the ordinal of its curve's block of primitive indices; for "same curve and at most two
// segments apart" (w = 2) its primitive index plus three times that ordinal (a curve's segments
// have consecutive indices, so segments of two curves are at least four apart).
struct Adjacency {
    int window = -1;
};

// Runs body(first, last) over consecutive ranges covering [0, n) on the calling thread.
struct SerialLoop {
    template <class Body>
    void operator()(std::uint64_t n, Body&& body) const {
        body(std::uint64_t(0), n);
    }
};

// The compact copy of one tree for one query. `loop` runs the per-node copy (serially or on the
// workers of a parallel query: see SerialLoop).
class WalkBoxes {
public:
    template <class Loop>
    WalkBoxes(const CurveTree& tree, Adjacency adjacency, const Loop& loop)
        : _internal(tree.getNumberInternalNodes()), _numPairs(tree.getNumberNodes() / 2 + 1) {
        const std::uint64_t count = tree.getNumberNodes();  // 2n - 1, heap indices 0 .. count - 1
        // Every slot but position 0 (never read) is written below.
        _pairs = tbb::cache_aligned_allocator<WalkBoxPair>().allocate(_numPairs);
        _box = _pairs->box;
        const std::vector<CurveTree::Node>& nodes = tree.getNodes();
        const std::uint64_t last = nodes.size() - 1;
        const std::uint64_t n = count - _internal;
        std::vector<std::uint32_t> block;
        _window = adjacency.window;
        if (_window >= 0 && 4 * n < (std::uint64_t(1) << 32)) {
            // Block ordinal of every primitive index.
            const std::vector<const GmCurveSegment*>& prims = tree.getTopology()->getPrimitives();
            block.resize(prims.size());
            std::uint32_t b = 0;
            for (std::size_t i = 0; i < prims.size(); ++i) {
                if (i > 0 && prims[i]->curve != prims[i - 1]->curve) ++b;
                block[i] = b;
            }
        } else {
            _window = -1;
        }
        std::atomic<bool> flags{false};
        loop(count, [&](std::uint64_t first, std::uint64_t end) {
            bool any = false;
            for (std::uint64_t i = first; i < end; ++i) {
                const CurveTree::Node& node = nodes[last - i];
                WalkBox& w = _box[i + 1];
                w.lo[0] = node.box.minX;
                w.lo[1] = node.box.minY;
                w.lo[2] = node.box.minZ;
                w.hi[0] = node.box.maxX;
                w.hi[1] = node.box.maxY;
                w.hi[2] = node.box.maxZ;
                any |= node.disabled || node.frozen;
                if (i >= _internal && _window >= 0) {
                    const std::uint64_t s = node.primitive->index;
                    const std::uint32_t key =
                        _window == 0 ? block[s] : static_cast<std::uint32_t>(s + 3 * block[s]);
                    w.keyLo = w.keyHi = key;
                } else {
                    w.keyLo = w.keyHi = 0;  // internal nodes: set below when pruning
                }
            }
            if (any) flags.store(true, std::memory_order_relaxed);
        });
        _flags = flags.load(std::memory_order_relaxed);
        if (_window >= 0)
            for (std::uint64_t i = _internal; i-- > 0;) {
                WalkBox& w = _box[i + 1];
                const WalkBox &l = _box[2 * i + 2], &r = _box[2 * i + 3];
                w.keyLo = std::min(l.keyLo, r.keyLo);
                w.keyHi = std::max(l.keyHi, r.keyHi);
            }
    }
    ~WalkBoxes() { tbb::cache_aligned_allocator<WalkBoxPair>().deallocate(_pairs, _numPairs); }
    WalkBoxes(const WalkBoxes&) = delete;
    WalkBoxes& operator=(const WalkBoxes&) = delete;

    const WalkBox& operator[](std::uint64_t i) const { return _box[i + 1]; }
    std::uint64_t internal() const { return _internal; }
    // Whether any node carries a flag (the walk then reads the tree's nodes for them).
    bool flags() const { return _flags; }
    // Whether node pairs of near neighbours are dropped (then no leaf pair of near neighbours is
    // left to skip).
    bool prunesNeighbours() const { return _window >= 0; }
    // Whether every segment pair of the two nodes is a pair of near neighbours.
    bool neighbours(Index a, Index b) const {
        if (_window < 0) return false;
        const WalkBox &x = (*this)[a], &y = (*this)[b];
        const std::uint32_t lo = std::min(x.keyLo, y.keyLo), hi = std::max(x.keyHi, y.keyHi);
        return hi - lo <= static_cast<std::uint32_t>(_window);
    }

private:
    // From TBB's allocator, which keeps large blocks for reuse: the copy is not faulted in afresh
    // per query.
    WalkBoxPair* _pairs = nullptr;
    WalkBox* _box = nullptr;  // position 0 unused
    std::uint64_t _internal;
    std::uint64_t _numPairs;
    int _window = -1;
    bool _flags = false;
};

// The pair step of the self walk for GmBVHCollision::descendPairs / expandPairs on the compact
// copy: the curve rules of CurveStep (flags, boxes, leaf pairs to `leaves`, child pairs in walk
// order, leading leaf pairs handled at once) plus the neighbour pruning. Leaves(a, b) receives
// two leaves' heap indices. A step with kLeavesHere false only expands.
template <class Leaves, bool kLeavesHere = true>
class SelfStep {
public:
    SelfStep(const WalkBoxes& boxes, const CurveTree& tree, bool pruneDisabled, Leaves& leaves)
        : _boxes(boxes),
          _last(tree.getNodes().data() + (tree.getNodes().size() - 1)),
          _internal(boxes.internal()),
          _pruneDisabled(pruneDisabled),
          _leaves(leaves) {}

    bool overlap(Index a, Index b) const { return GmCurveSelfWalk::overlap(_boxes[a], _boxes[b]); }
    bool leaf(Index i) const { return i >= _internal; }

    int visit(Index a, Index b, Pair next[4]) {
        if (!passes(a, b)) return 0;
        const bool leafA = leaf(a), leafB = leaf(b);
        if (leafA && leafB) {
            _leaves(a, b);
            return 0;
        }
        const int n = GmBVHCollision::childPairs(a, leafA, b, leafB, next);
        int m = 0;
        for (int k = 0; k < n; ++k) {
            const Index ca = next[k].a, cb = next[k].b;
            if (!overlap(ca, cb)) continue;
            const bool la = leaf(ca), lb = leaf(cb);
            if (kLeavesHere && m == 0 && la && lb) {
                if (passes(ca, cb)) _leaves(ca, cb);
                continue;
            }
            if (!la) __builtin_prefetch(&_boxes[2 * std::uint64_t(ca) + 1]);
            if (!lb) __builtin_prefetch(&_boxes[2 * std::uint64_t(cb) + 1]);
            next[m++] = next[k];
        }
        return m;
    }

private:
    bool passes(Index a, Index b) const {
        if (_boxes.neighbours(a, b)) return false;
        if (!_boxes.flags()) return true;
        const CurveTree::Node &na = *(_last - a), &nb = *(_last - b);
        if (_pruneDisabled && (na.disabled || nb.disabled)) return false;
        return !(na.frozen && nb.frozen);
    }

    const WalkBoxes& _boxes;
    const CurveTree::Node* _last;
    std::uint64_t _internal;
    bool _pruneDisabled;
    Leaves& _leaves;
};

}  // namespace GmCurveSelfWalk

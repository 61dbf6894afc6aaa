#pragma once

// The one tree walk behind the six collision traversals (not installed).
//
// A walk visits pairs of nodes, one from each of two trees (the same tree for self queries),
// prunes them by the node flags and by box overlap, and hands every surviving pair of leaves
// to a narrow phase. The narrow phase is a policy class:
//
//   struct Narrow {
//       using Record = ...;                  // record type of the results
//       static constexpr bool kOrphanPass;   // self queries: whether the orphan pass runs
//       bool pair(int face1, int face2, GmBVHMetrics&, std::vector<Record>&) const;
//   };
//
// and, for the self queries with an orphan pass, additionally
//
//       bool orphan(int face1, int face2, const ComponentTests& tests, GmBVHMetrics&,
//                   std::vector<Record>&) const;

#include <cstddef>
#include <utility>
#include <vector>

#include <quarrygeom/bvh/GmBoundingVolumeHierarchy.h>
#include <quarrygeom/core/GmBVHMetrics.h>
#include <quarrygeom/core/GmParallel.h>
#include <quarrygeom/mesh/GmMeshTests.h>
#include <quarrygeom/mesh/GmTriangleMesh.h>

// ThreadSanitizer cannot see the synchronisation inside TBB's (uninstrumented) scheduler; the
// parallel traversals state it: the calling thread publishes the query before the loops, and
// every loop body publishes its per-thread results before the loops return.
#if defined(__SANITIZE_THREAD__)
extern "C" void __tsan_acquire(void* addr);
extern "C" void __tsan_release(void* addr);
#define QG_TSAN_ACQUIRE(addr) __tsan_acquire(addr)
#define QG_TSAN_RELEASE(addr) __tsan_release(addr)
#else
#define QG_TSAN_ACQUIRE(addr) ((void)(addr))
#define QG_TSAN_RELEASE(addr) ((void)(addr))
#endif

namespace GmBVHCollision {

using Node = GmBoundingVolumeHierarchy::Node;

// A pair of nodes, one from each tree, by heap index.
template <class Index>
struct BasicNodePair {
    Index a;
    Index b;
};
using NodePair = BasicNodePair<int>;

// The pairs that replace a pair of overlapping nodes that are not both leaves, in walk order: a
// leaf against an internal node gives the leaf against each child, two internal nodes the four
// child pairs. Returns their number (2 or 4).
template <class Index>
inline int childPairs(Index a, bool leafA, Index b, bool leafB, BasicNodePair<Index> next[4]) {
    if (leafA) {
        next[0] = {a, 2 * b + 1};
        next[1] = {a, 2 * b + 2};
        return 2;
    }
    if (leafB) {
        next[0] = {2 * a + 1, b};
        next[1] = {2 * a + 2, b};
        return 2;
    }
    next[0] = {2 * a + 1, 2 * b + 1};
    next[1] = {2 * a + 1, 2 * b + 2};
    next[2] = {2 * a + 2, 2 * b + 1};
    next[3] = {2 * a + 2, 2 * b + 2};
    return 4;
}

// Depth-first descent from one pair with an explicit stack (cleared first). step.visit(a, b,
// next) examines a pair and returns the number of pairs that replace it; the first of them is
// continued at once, the others are pushed.
template <class Step, class Index>
void descendPairs(Step& step, std::vector<BasicNodePair<Index>>& stack, Index a, Index b) {
    BasicNodePair<Index> next[4];
    stack.clear();
    for (;;) {
        const int n = step.visit(a, b, next);
        if (n > 0) {
            for (int k = n - 1; k >= 1; --k) stack.push_back(next[k]);
            a = next[0].a;
            b = next[0].b;
            continue;
        }
        if (stack.empty()) return;
        a = stack.back().a;
        b = stack.back().b;
        stack.pop_back();
    }
}

// Breadth-first expansion of seed pairs for a parallel walk: while fewer than `target` pairs
// remain, or some pair is still `coarse`, every pair that is not two leaves is examined by
// step.visit (exactly as the descent would) and replaced by its child pairs. Stops when a round
// expands nothing. The pairs returned are still to be examined.
template <class Step, class Index, class LeafPair, class Coarse>
std::vector<BasicNodePair<Index>> expandPairs(Step& step, std::vector<BasicNodePair<Index>> pairs,
                                              std::size_t target, const LeafPair& leafPair,
                                              const Coarse& coarse) {
    std::vector<BasicNodePair<Index>> next;
    BasicNodePair<Index> children[4];
    for (;;) {
        const bool all = pairs.size() < target;
        next.clear();
        bool expanded = false;
        for (const BasicNodePair<Index>& p : pairs) {
            if (leafPair(p) || !(all || coarse(p))) {
                next.push_back(p);
                continue;
            }
            expanded = true;
            const int n = step.visit(p.a, p.b, children);
            next.insert(next.end(), children, children + n);
        }
        pairs.swap(next);
        if (!expanded) break;
    }
    return pairs;
}

// Query-wide, read-only description of one walk.
struct WalkSetup {
    const Node* nodes1 = nullptr;  // first tree (node a of a pair)
    const Node* nodes2 = nullptr;  // second tree (node b); equal to nodes1 for self queries
    bool pruneDisabled = true;     // skip nodes whose faces are all disabled
    bool pruneFrozen = true;       // skip pairs of nodes whose faces are all frozen
    bool skipAdjacent = true;      // faces of one mesh sharing a vertex are left out
    // Vertex-radius test: tests1 alone for a self walk, tests1 against tests2 for two meshes.
    // Null when no side has the test on.
    const GmIntersection::MeshTests* tests1 = nullptr;
    const GmIntersection::MeshTests* tests2 = nullptr;
    bool sameMeshTests = true;  // both faces belong to the mesh of tests1
};

// Whether two faces have a vertex in common (nine comparisons, no branches).
inline bool sharesVertex(const GmTriangleFace& f, const GmTriangleFace& g) {
    const int f0 = f.vertices[0], f1 = f.vertices[1], f2 = f.vertices[2];
    const int g0 = g.vertices[0], g1 = g.vertices[1], g2 = g.vertices[2];
    return ((f0 == g0) | (f0 == g1) | (f0 == g2)) | ((f1 == g0) | (f1 == g1) | (f1 == g2)) |
           ((f2 == g0) | (f2 == g1) | (f2 == g2));
}

// Walks node pairs for one worker: its own result vector, metrics and stack.
template <class Narrow>
class PairWalk {
public:
    using Record = typename Narrow::Record;
    using Local = typename GmParallel::ThreadResults<Record>::Local;

    PairWalk(const WalkSetup& setup, const Narrow& narrow, std::vector<Record>& out, GmBVHMetrics& metrics)
        : _s(setup), _narrow(narrow), _out(out), _metrics(metrics) {
        _stack.reserve(kStackReserve);
    }
    // A worker of a parallel walk: records go to its entry of the query's ThreadResults.
    PairWalk(const WalkSetup& setup, const Narrow& narrow, Local& local, GmBVHMetrics& metrics)
        : _s(setup), _narrow(narrow), _out(local.records()), _metrics(metrics), _local(&local) {
        _stack.reserve(kStackReserve);
    }

    // Examines one node pair: counts it, prunes it, tests its boxes and, for two leaves, runs
    // the narrow phase. The child pairs still to examine are written to `next`; returns their
    // number (0, 2 or 4).
    int visit(int a, int b, NodePair next[4]) {
        const Node& na = _s.nodes1[a];
        const Node& nb = _s.nodes2[b];
        _metrics.addBroadPhaseCandidate();
        if (_s.pruneDisabled && (na.disabled || nb.disabled)) return 0;
        if (_s.pruneFrozen && na.frozen && nb.frozen) return 0;

        const bool leafA = na.isLeaf();
        const bool leafB = nb.isLeaf();
        if (leafA && leafB) {
            const GmTriangleFace& fa = *na.primitive;
            const GmTriangleFace& fb = *nb.primitive;
            if (_s.skipAdjacent && sharesVertex(fa, fb)) return 0;
            _metrics.addBroadPhaseTest();
            if (!na.box.overlaps(nb.box)) return 0;
            _metrics.addBroadPhaseSuccess();
            _metrics.addNarrowPhaseCandidate();
            if (!passesMeshTests(fa, fb)) return 0;
            _metrics.addNarrowPhaseTest();
            if (_narrow.pair(fa.index, fb.index, _metrics, _out)) {
                _metrics.addNarrowPhaseSuccess();
                if (_local != nullptr) _local->flush();
            }
            return 0;
        }

        _metrics.addBroadPhaseTest();
        if (!na.box.overlaps(nb.box)) return 0;
        _metrics.addBroadPhaseSuccess();
        return childPairs(a, leafA, b, leafB, next);
    }

    // Depth-first descent from one pair (descendPairs).
    void descend(int a, int b) { descendPairs(*this, _stack, a, b); }

    // One entry of the orphan pass: the two faces and the entry's tests already combined with
    // the caller's.
    template <class Tests>
    void orphan(int face1, int face2, const Tests& tests) {
        _metrics.addNarrowPhaseCandidate();
        if (face1 < 0 || face2 < 0) return;
        const GmTriangleFace& fa = *_faceOf(face1);
        const GmTriangleFace& fb = *_faceOf(face2);
        if (!passesMeshTests(fa, fb)) return;
        _metrics.addNarrowPhaseTest();
        if (_narrow.orphan(face1, face2, tests, _metrics, _out)) {
            _metrics.addNarrowPhaseSuccess();
            if (_local != nullptr) _local->flush();
        }
    }

    void setFaces(const GmTriangleFace* faces) { _faces = faces; }

private:
    bool passesMeshTests(const GmTriangleFace& fa, const GmTriangleFace& fb) const {
        if (_s.tests1 == nullptr) return true;
        if (_s.sameMeshTests) return _s.tests1->vertexRadiusTest(fa.vertices, fb.vertices);
        return _s.tests1->vertexRadiusTest(fa.vertices, *_s.tests2, fb.vertices);
    }
    const GmTriangleFace* _faceOf(int f) const { return _faces + f; }

    const WalkSetup& _s;
    const Narrow& _narrow;
    std::vector<Record>& _out;
    GmBVHMetrics& _metrics;
    static constexpr std::size_t kStackReserve = 128;
    std::vector<NodePair> _stack;  // descent stack, reused from one descent to the next
    Local* _local = nullptr;                 // parallel walks: flushed after each contact
    const GmTriangleFace* _faces = nullptr;  // the mesh's faces, for the orphan pass
};

}  // namespace GmBVHCollision

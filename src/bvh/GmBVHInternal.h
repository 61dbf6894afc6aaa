#pragma once

// Shared helpers of the hierarchy's sources (not installed).

#include <algorithm>
#include <cfloat>
#include <cmath>
#include <cstdint>
#include <cstring>
#include <mutex>
#include <type_traits>
#include <vector>

#if defined(__SSE2__)
#include <emmintrin.h>
#endif

#include <quarrygeom/bvh/GmBoundingVolumeHierarchy.h>
#include <quarrygeom/mesh/GmDisabledData.h>
#include <quarrygeom/mesh/GmTriangleMesh.h>

namespace GmBVHDetail {

// Box padding (every leaf box, on every side, plus the thickness in thickened mode).
constexpr double kPad = 1e-8;

// Slack of the nearest-first searches on squared distances: relative, for the rounding of the
// box and face distances (boxes enclose their faces, so a box is never farther than its face).
constexpr double kSearchSlack = 0x1p-40;

// Nearest float at or below / at or above a double (the same values as
// GmAxisAlignedBox::roundDown / roundUp, without the library call per bound).
inline float floatDown(double v) {
    float f = static_cast<float>(v);
    if (static_cast<double>(f) > v) {
        std::uint32_t b;
        std::memcpy(&b, &f, sizeof b);
        b = f > 0.0f ? b - 1u : (f < 0.0f ? b + 1u : 0x80000001u);
        std::memcpy(&f, &b, sizeof f);
    }
    return f;
}
inline float floatUp(double v) {
    float f = static_cast<float>(v);
    if (static_cast<double>(f) < v) {
        std::uint32_t b;
        std::memcpy(&b, &f, sizeof b);
        b = f > 0.0f ? b + 1u : (f < 0.0f ? b - 1u : 0x00000001u);
        std::memcpy(&f, &b, sizeof f);
    }
    return f;
}

// The lock of a lazily built cache: with wait, once the mutex is free; without, only if it is
// free now (owns_lock() tells).
inline std::unique_lock<std::mutex> lockCache(std::mutex& m, bool wait) {
    if (wait) return std::unique_lock<std::mutex>(m);
    return std::unique_lock<std::mutex>(m, std::try_to_lock);
}

inline bool faceDisabled(const GmDisabledData* mask, int face) { return GmDisabledData::isDisabled(mask, face); }
inline bool faceFrozen(const GmFrozenData* mask, int face) { return mask != nullptr && mask->isFrozen(face); }

inline bool finite(const GmTVector<double>& p) {
    return std::isfinite(p.x) && std::isfinite(p.y) && std::isfinite(p.z);
}

// Squared distance from p to a float box widened to double; 0 inside.
inline double boxDistanceSquared(const GmAxisAlignedBox& b, const GmTVector<double>& p) {
    double d2 = 0.0;
    const double mn[3] = {b.minX, b.minY, b.minZ};
    const double mx[3] = {b.maxX, b.maxY, b.maxZ};
    for (int a = 0; a < 3; ++a) {
        const double c = p[a];
        if (c < mn[a]) {
            const double d = mn[a] - c;
            d2 += d * d;
        } else if (c > mx[a]) {
            const double d = c - mx[a];
            d2 += d * d;
        }
    }
    return d2;
}

// Hint that the Size bytes from p are read soon (no effect where unsupported). Always inlined,
// as is every function or lambda that issues hints: one that is not inlined and does nothing
// but read and hint counts as free of side effects, and GCC drops the calls to it.
#if defined(__GNUC__)
#define QG_BVH_ALWAYS_INLINE inline __attribute__((always_inline))
#define QG_BVH_INLINE_LAMBDA __attribute__((always_inline))
#else
#define QG_BVH_ALWAYS_INLINE inline
#define QG_BVH_INLINE_LAMBDA
#endif
template <size_t Size>
QG_BVH_ALWAYS_INLINE void prefetchBytes(const void* p) {
#if defined(__GNUC__)
    const char* c = static_cast<const char*>(p);
    for (size_t k = 0; k < Size; k += 64) __builtin_prefetch(c + k);
    if (Size % 64 != 0 || Size > 64) __builtin_prefetch(c + Size - 1);
#else
    (void)p;
#endif
}

// Query point for boxDistanceSquaredPair, each coordinate broadcast once per query.
struct PairQuery {
#if defined(__SSE2__)
    __m128d x, y, z;
    explicit PairQuery(const GmTVector<double>& p) : x(_mm_set1_pd(p.x)), y(_mm_set1_pd(p.y)), z(_mm_set1_pd(p.z)) {}
#else
    GmTVector<double> p;
    explicit PairQuery(const GmTVector<double>& q) : p(q) {}
#endif
};

#if defined(__SSE2__)
// One axis of boxDistanceSquared for two boxes at once: the distance outside [mn, mx], 0 inside.
// Equal to the scalar rule whenever mn <= mx.
inline __m128d axisGap(__m128d mn, __m128d mx, __m128d c) {
    return _mm_max_pd(_mm_max_pd(_mm_sub_pd(mn, c), _mm_sub_pd(c, mx)), _mm_setzero_pd());
}
#endif

// boxDistanceSquared of two boxes (adjacent siblings, say), with the same rounding, for boxes
// with min <= max on every axis (every box that a build or refit makes from finite positions).
inline void boxDistanceSquaredPair(const GmAxisAlignedBox& a, const GmAxisAlignedBox& b, const PairQuery& q,
                                   double& da, double& db) {
#if defined(__SSE2__)
    const __m128d gx = axisGap(_mm_set_pd(b.minX, a.minX), _mm_set_pd(b.maxX, a.maxX), q.x);
    const __m128d gy = axisGap(_mm_set_pd(b.minY, a.minY), _mm_set_pd(b.maxY, a.maxY), q.y);
    const __m128d gz = axisGap(_mm_set_pd(b.minZ, a.minZ), _mm_set_pd(b.maxZ, a.maxZ), q.z);
    const __m128d d2 = _mm_add_pd(_mm_add_pd(_mm_mul_pd(gx, gx), _mm_mul_pd(gy, gy)), _mm_mul_pd(gz, gz));
    da = _mm_cvtsd_f64(d2);
    db = _mm_cvtsd_f64(_mm_unpackhi_pd(d2, d2));
#else
    da = boxDistanceSquared(a, q.p);
    db = boxDistanceSquared(b, q.p);
#endif
}

// Pending subtrees of a depth-first search with their box distances. At most three entries per
// two levels of the current path, and levels stop at 31.
class DepthFirstStack {
public:
    bool empty() const { return _size == 0; }
    void push(double key, int node) {
        if (_size < kCapacity) _entries[_size++] = Entry{key, node};
    }
    void pop(double& key, int& node) {
        const Entry& e = _entries[--_size];
        key = e.key;
        node = e.node;
    }

private:
    struct Entry {
        double key;
        int node;
    };
    static constexpr int kCapacity = 64;
    Entry _entries[kCapacity];
    int _size = 0;
};

// Start loading `count` nodes from `first`, those of them that exist.
template <int Count, class Node>
QG_BVH_ALWAYS_INLINE void prefetchNodes(const Node* nodes, long long first, int numberNodes) {
    if (first + Count <= numberNodes) {
        prefetchBytes<Count * sizeof(Node)>(nodes + first);
    } else if (first < numberNodes) {
        prefetchBytes<sizeof(Node)>(nodes + first);
    }
}

// Start loading the three vertices of a face (a face record or a leaf-table entry: anything with
// vertices[3]). Reads `face` itself, so it is best called once that is in cache.
template <class Face>
QG_BVH_ALWAYS_INLINE void prefetchFaceVertices(const GmTVector<double>* vertices, const Face& face) {
    prefetchBytes<sizeof(GmTVector<double>)>(vertices + face.vertices[0]);
    prefetchBytes<sizeof(GmTVector<double>)>(vertices + face.vertices[1]);
    prefetchBytes<sizeof(GmTVector<double>)>(vertices + face.vertices[2]);
}

// Box source of walkNearestFirst over the node array itself.
template <class Node>
class NodeBoxSource {
public:
    NodeBoxSource(const Node* nodes, const GmTVector<double>& p) : _nodes(nodes), _q(p) {}
    bool disabled(long long node) const { return _nodes[node].disabled; }
    template <int Count>
    QG_BVH_ALWAYS_INLINE void prefetch(long long first, int numberNodes) const {
        prefetchNodes<Count>(_nodes, first, numberNodes);
    }
    // Squared distances of nodes first ... first + Count - 1 (Count even).
    template <int Count>
    QG_BVH_ALWAYS_INLINE void measure(long long first, double* d) const {
        for (int j = 0; j < Count; j += 2)
            boxDistanceSquaredPair(_nodes[first + j].box, _nodes[first + j + 1].box, _q, d[j], d[j + 1]);
    }

private:
    const Node* _nodes;
    PairQuery _q;
};

// Depth-first walk of a face hierarchy towards p, nearest subtree first, for nearest-primitive
// searches. A subtree is entered only while its squared box distance is not greater than the
// current bound (times 1 + kSearchSlack) (the others wait on a stack with their box distances and are checked
// again when taken), and with includeDisabled false disabled subtrees are skipped.
// leaf(i, bound) handles leaf node i and returns the bound, possibly lowered; leafHint(i) is
// called for a leaf as soon as it qualifies, ahead of its visit (to start loading its face).
//
// Below a node whose children are both internal a step measures the four grandchildren directly
// (contiguous in the heap layout) and skips the children's boxes: a box lies inside its
// parent's, so a grandchild within reach (or enabled) has a parent within reach (or enabled).
// Half the dependent steps from the root to a leaf, and fewer cache lines per query. (Steps of
// three levels measured faster only on the sphere and slower on the grid and the bunny.)
//
// The boxes below the root are read from `boxes` (a NodeBoxSource, or one whose distances are
// never larger: it then enters every subtree the node boxes would, and maybe some more).
// leafData (may be null) holds one record per leaf in leaf order; a node's records are loaded
// together with the boxes of its leaf children or grandchildren, ahead of leafHint.
template <class Node, class Boxes, class LeafData, class Leaf, class LeafHint>
inline void walkNearestFirst(const std::vector<Node>& tree, const Boxes& boxes, const LeafData* leafData,
                             const GmTVector<double>& p, bool includeDisabled, double bound, const Leaf& leaf,
                             const LeafHint& leafHint) {
    if (tree.empty()) return;
    const Node* nodes = tree.data();
    if (!includeDisabled && nodes[0].disabled) return;
    const int numberNodes = static_cast<int>(tree.size());
    const int firstLeaf = numberNodes / 2;  // 2n - 1 nodes, the last n of them leaves
    double limit = bound + bound * kSearchSlack;

    // Once a node qualifies, start loading what its visit reads: the face of a leaf, else the
    // boxes its step measures.
    auto lookAhead = [&](int i) QG_BVH_INLINE_LAMBDA {
        if (i >= firstLeaf) {
            leafHint(i);
            return;
        }
        long long first, last;
        if (2LL * i + 2 < firstLeaf) {
            first = 4LL * i + 3;
            last = first + 3;
            boxes.template prefetch<4>(first, numberNodes);
        } else {
            first = 2LL * i + 1;
            last = first + 1;
            boxes.template prefetch<2>(first, numberNodes);
        }
        if (leafData != nullptr && last >= firstLeaf) {
            first = std::max<long long>(first, firstLeaf) - firstLeaf;
            last = std::min<long long>(last, numberNodes - 1) - firstLeaf;
            prefetchBytes<sizeof(LeafData)>(leafData + first);
            prefetchBytes<sizeof(LeafData)>(leafData + last);
        }
    };
    // The qualifying ones of `Count` nodes from `first`, nearest first, in (foundKey, foundNode);
    // the others sort after them with an infinite key. A sorting network on registers: no
    // data-dependent branches, and no candidate round trip through memory.
    double foundKey[4];
    int foundNode[4];
    auto exchange = [&](int a, int b) QG_BVH_INLINE_LAMBDA {
        const double ka = foundKey[a], kb = foundKey[b];
        const int na = foundNode[a], nb = foundNode[b];
        const bool swap = kb < ka;
        foundKey[a] = swap ? kb : ka;
        foundKey[b] = swap ? ka : kb;
        foundNode[a] = swap ? nb : na;
        foundNode[b] = swap ? na : nb;
    };
    auto measure = [&](auto countTag, int first) QG_BVH_INLINE_LAMBDA {
        constexpr int Count = decltype(countTag)::value;
        double d[Count];
        boxes.template measure<Count>(first, d);
        int k = 0;
        for (int j = 0; j < Count; ++j) {
            const bool qualifies = !(d[j] > limit) && (includeDisabled || !boxes.disabled(first + j));
            foundKey[j] = qualifies ? d[j] : HUGE_VAL;
            foundNode[j] = first + j;
            if (qualifies) {
                lookAhead(first + j);
                ++k;
            }
        }
        exchange(0, 1);
        if constexpr (Count == 4) {
            exchange(2, 3);
            exchange(0, 2);
            exchange(1, 3);
            exchange(1, 2);
        }
        return k;
    };

    DepthFirstStack stack;
    int node = 0;
    double key = boxDistanceSquared(nodes[0].box, p);
    for (;;) {
        if (!(key > limit)) {
            if (node >= firstLeaf) {
                bound = leaf(node, bound);
                limit = bound + bound * kSearchSlack;
            } else {
                const int k = 2 * node + 2 < firstLeaf ? measure(std::integral_constant<int, 4>(), 4 * node + 3)
                                                       : measure(std::integral_constant<int, 2>(), 2 * node + 1);
                if (k > 0) {
                    for (int j = k - 1; j > 0; --j) stack.push(foundKey[j], foundNode[j]);
                    node = foundNode[0];
                    key = foundKey[0];
                    continue;
                }
            }
        }
        if (stack.empty()) break;
        stack.pop(key, node);
    }
}

}  // namespace GmBVHDetail

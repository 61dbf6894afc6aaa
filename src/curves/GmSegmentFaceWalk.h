#pragma once

// One segment box against the face hierarchy's four-wide copy (not installed): the face leaves
// whose boxes overlap it, as the curve-triangle traversal pairs them with the segment's leaf.

#include <algorithm>
#include <cstdint>
#include <vector>

#if defined(__SSE2__)
#include <xmmintrin.h>
#endif

#include <quarrygeom/core/GmAxisAlignedBox.h>

#include "../bvh/GmBVHRayTree.h"

namespace GmCurveDetail {

// One lane of a wide node: its box and child code (>= 0 a wide node, < 0 leaf entry ~code).
struct FaceLane {
    float lo[3], hi[3];
    std::int32_t code;
};

inline bool laneOverlaps(const FaceLane& l, const GmAxisAlignedBox& b) {
    return (l.lo[0] <= b.maxX) & (b.minX <= l.hi[0]) & (l.lo[1] <= b.maxY) & (b.minY <= l.hi[1]) &
           (l.lo[2] <= b.maxZ) & (b.minZ <= l.hi[2]);
}

// Overlap mask of the four lanes of n with the box (bit j: lane j; a NaN bound overlaps
// nothing), without the lanes flagged disabled when pruneDisabled.
class BoxProbe {
public:
    BoxProbe(const GmAxisAlignedBox& box, bool pruneDisabled)
        : _box(box), _disabledMask(pruneDisabled ? ~0u : 0u)
#if defined(__SSE2__)
          ,
          _lox(_mm_set1_ps(box.minX)), _loy(_mm_set1_ps(box.minY)), _loz(_mm_set1_ps(box.minZ)),
          _hix(_mm_set1_ps(box.maxX)), _hiy(_mm_set1_ps(box.maxY)), _hiz(_mm_set1_ps(box.maxZ))
#endif
    {
    }

    std::uint32_t operator()(const GmBVHDetail::RayNode& n) const {
#if defined(__SSE2__)
        const __m128 x = _mm_and_ps(_mm_cmple_ps(_mm_load_ps(n.lo[0]), _hix), _mm_cmple_ps(_lox, _mm_load_ps(n.hi[0])));
        const __m128 y = _mm_and_ps(_mm_cmple_ps(_mm_load_ps(n.lo[1]), _hiy), _mm_cmple_ps(_loy, _mm_load_ps(n.hi[1])));
        const __m128 z = _mm_and_ps(_mm_cmple_ps(_mm_load_ps(n.lo[2]), _hiz), _mm_cmple_ps(_loz, _mm_load_ps(n.hi[2])));
        const std::uint32_t mask = static_cast<std::uint32_t>(_mm_movemask_ps(_mm_and_ps(_mm_and_ps(x, y), z)));
#else
        std::uint32_t mask = 0;
        for (int j = 0; j < 4; ++j)
            mask |= static_cast<std::uint32_t>((n.lo[0][j] <= _box.maxX) & (_box.minX <= n.hi[0][j]) &
                                               (n.lo[1][j] <= _box.maxY) & (_box.minY <= n.hi[1][j]) &
                                               (n.lo[2][j] <= _box.maxZ) & (_box.minZ <= n.hi[2][j]))
                    << j;
#endif
        return mask & ~(n.disabled & _disabledMask);
    }

    const GmAxisAlignedBox& box() const { return _box; }

private:
    GmAxisAlignedBox _box;
    std::uint32_t _disabledMask;
#if defined(__SSE2__)
    __m128 _lox, _loy, _loz, _hix, _hiy, _hiz;
#endif
};

// Pending lanes of a descent: a wide node is never deeper than its binary node, so at most 3
// lanes wait per level of a hierarchy of 2^31 faces, plus the 4 of the node being expanded.
constexpr int kWideStack = 4 * 32 + 4;

// Calls leaf(entry) with the leaf-table entry of every face leaf below wide node `code` whose
// box overlaps the probe's box, in the hierarchy's left-to-right leaf order. Nodes flagged
// disabled are skipped with their subtrees when the probe prunes them (a node is disabled
// exactly when all its faces are). The copy's boxes are the node boxes, and a node's box
// encloses its children's, so the leaves reached are those whose own boxes overlap.
template <class Leaf>
inline void overlappingFaces(const GmBVHDetail::RayTree& tree, std::int32_t code, const BoxProbe& probe, Leaf&& leaf) {
    const GmBVHDetail::RayNode* nodes = tree.nodes();
    std::int32_t stack[kWideStack];
    int top = 0;
    for (;;) {
        if (code >= 0) {
            const GmBVHDetail::RayNode& n = nodes[code];
            // Lanes pushed last to first, so that they are taken left to right.
            for (std::uint32_t mask = probe(n); mask != 0;) {
                const int j = 31 - __builtin_clz(mask);
                stack[top++] = n.child[j];
                mask &= ~(1u << j);
            }
        } else {
            leaf(~code);
        }
        if (top == 0) return;
        code = stack[--top];
    }
}

// The start of the descents of the segments inside one box (a curve node's): the lanes that
// overlap it, expanded while larger than kExpand times its largest extent, left to right. A
// segment box inside it meets the same face leaves from these lanes as from the root.
inline void faceFrontier(const GmBVHDetail::RayTree& tree, const BoxProbe& probe, std::vector<FaceLane>& out) {
    constexpr float kExpand = 2.0f;
    const GmAxisAlignedBox& b = probe.box();
    const float limit = kExpand * std::max(b.maxX - b.minX, std::max(b.maxY - b.minY, b.maxZ - b.minZ));
    const GmBVHDetail::RayNode* nodes = tree.nodes();
    out.clear();
    std::int64_t stack[kWideStack];  // 4 * wide node + lane
    int top = 0;
    std::int32_t code = 0;
    for (;;) {
        if (code >= 0) {
            const GmBVHDetail::RayNode& n = nodes[code];
            for (std::uint32_t mask = probe(n); mask != 0;) {
                const int j = 31 - __builtin_clz(mask);
                stack[top++] = 4 * std::int64_t(code) + j;
                mask &= ~(1u << j);
            }
        }
        if (top == 0) return;
        const std::int64_t lane = stack[--top];
        const GmBVHDetail::RayNode& n = nodes[lane >> 2];
        const int j = static_cast<int>(lane & 3);
        code = n.child[j];
        const float extent = std::max(n.hi[0][j] - n.lo[0][j], std::max(n.hi[1][j] - n.lo[1][j], n.hi[2][j] - n.lo[2][j]));
        if (code < 0 || !(extent > limit)) {
            out.push_back(FaceLane{{n.lo[0][j], n.lo[1][j], n.lo[2][j]}, {n.hi[0][j], n.hi[1][j], n.hi[2][j]}, code});
            code = -1;  // nothing to expand
        }
    }
}

// Whether a box overlaps a lane of the frontier (so that its descent may reach a face).
inline bool reachesFrontier(const std::vector<FaceLane>& frontier, const GmAxisAlignedBox& box) {
    for (const FaceLane& l : frontier)
        if (laneOverlaps(l, box)) return true;
    return false;
}

// Calls leaf(entry) for every face leaf that overlaps the probe's box, starting from a frontier
// of a box that encloses it; left to right.
template <class Leaf>
inline void overlappingFaces(const GmBVHDetail::RayTree& tree, const std::vector<FaceLane>& frontier,
                             const BoxProbe& probe, Leaf&& leaf) {
    for (const FaceLane& l : frontier) {
        if (!laneOverlaps(l, probe.box())) continue;
        if (l.code < 0)
            leaf(~l.code);
        else
            overlappingFaces(tree, l.code, probe, leaf);
    }
}

}  // namespace GmCurveDetail

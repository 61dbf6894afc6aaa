#pragma once

// One segment box against the face hierarchy's four-wide copy (not installed): the face leaves
// whose boxes overlap it, as the curve-triangle traversal pairs them with the segment's leaf.

#include <cstdint>

#if defined(__SSE2__)
#include <xmmintrin.h>
#endif

#include <quarrygeom/core/GmAxisAlignedBox.h>

#include "../bvh/GmBVHRayTree.h"

namespace GmCurveDetail {

// Calls leaf(entry) with the leaf-table entry of every face leaf whose box overlaps `box`
// (touching counts; a NaN bound overlaps nothing), in the hierarchy's left-to-right leaf
// order. Nodes flagged disabled are skipped with their subtrees when pruneDisabled (a node is
// disabled exactly when all its faces are). The copy's boxes are the node boxes, and a node's
// box encloses its children's, so the leaves reached are those whose own boxes overlap.
template <class Leaf>
inline void overlappingFaces(const GmBVHDetail::RayTree& tree, const GmAxisAlignedBox& box, bool pruneDisabled,
                             Leaf&& leaf) {
    const GmBVHDetail::RayNode* nodes = tree.nodes();
    // A wide node is never deeper than its binary node: at most 3 pending lanes per level of a
    // hierarchy of 2^31 faces, plus the lanes of the node being expanded.
    std::int32_t stack[4 * 32 + 4];
    int top = 0;
    const std::uint32_t disabledMask = pruneDisabled ? ~0u : 0u;
#if defined(__SSE2__)
    const __m128 lox = _mm_set1_ps(box.minX), loy = _mm_set1_ps(box.minY), loz = _mm_set1_ps(box.minZ);
    const __m128 hix = _mm_set1_ps(box.maxX), hiy = _mm_set1_ps(box.maxY), hiz = _mm_set1_ps(box.maxZ);
#endif
    std::int32_t code = 0;  // the root wide node
    for (;;) {
        if (code >= 0) {
            const GmBVHDetail::RayNode& n = nodes[code];
#if defined(__SSE2__)
            const __m128 x = _mm_and_ps(_mm_cmple_ps(_mm_load_ps(n.lo[0]), hix), _mm_cmple_ps(lox, _mm_load_ps(n.hi[0])));
            const __m128 y = _mm_and_ps(_mm_cmple_ps(_mm_load_ps(n.lo[1]), hiy), _mm_cmple_ps(loy, _mm_load_ps(n.hi[1])));
            const __m128 z = _mm_and_ps(_mm_cmple_ps(_mm_load_ps(n.lo[2]), hiz), _mm_cmple_ps(loz, _mm_load_ps(n.hi[2])));
            std::uint32_t mask = static_cast<std::uint32_t>(_mm_movemask_ps(_mm_and_ps(_mm_and_ps(x, y), z)));
#else
            std::uint32_t mask = 0;
            for (int j = 0; j < 4; ++j)
                mask |= ((n.lo[0][j] <= box.maxX) & (box.minX <= n.hi[0][j]) & (n.lo[1][j] <= box.maxY) &
                         (box.minY <= n.hi[1][j]) & (n.lo[2][j] <= box.maxZ) & (box.minZ <= n.hi[2][j]))
                        << j;
#endif
            mask &= ~(n.disabled & disabledMask);
            // Lanes pushed last to first, so that they are taken left to right.
            while (mask != 0) {
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

}  // namespace GmCurveDetail

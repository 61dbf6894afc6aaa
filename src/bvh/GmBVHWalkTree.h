#pragma once

// A hierarchy for the walk of one query over the leaves of a tree (not installed).
//
// A swept tree is built on the boxes of the whole step: when a part of the mesh moves far, its
// boxes are tall and the build splits across the motion, so that its nodes become thin slabs
// (rings on a closed mesh) whose boxes overlap most of the tree. The walk then examines many
// times more node pairs than there are overlapping leaf pairs.
//
// walkHeap lays the same leaves (box, flags and face copied unchanged) out in a new complete
// heap of the same shape, in the order of a Morton curve through their box centres, and gives
// every inner node the union of its children's boxes and the AND of their flags. A walk over
// it reaches exactly the leaf pairs that a walk over the tree reaches (the pairs of distinct
// leaves whose boxes overlap, less the pruned ones), since every node's box holds its leaves'
// boxes in both; only the node pairs on the way and their order differ. Linear in the leaves
// (a radix sort of 30-bit codes).

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <vector>

#include <quarrygeom/bvh/GmBoundingVolumeHierarchy.h>

namespace GmBVHCollision {

namespace walktree {

using Node = GmBoundingVolumeHierarchy::Node;

// Cell (0 ... 1023) of c in [lo, lo + 1024 / scale); non-finite input goes to a border cell.
inline std::uint32_t cell(float c, float lo, float scale) {
    const float q = (c - lo) * scale;
    if (!(q > 0.0f)) return 0;
    return q >= 1023.0f ? 1023u : static_cast<std::uint32_t>(q);
}

// Spreads the ten low bits of v to every third bit.
inline std::uint32_t spread(std::uint32_t v) {
    v = (v | (v << 16)) & 0x030000FFu;
    v = (v | (v << 8)) & 0x0300F00Fu;
    v = (v | (v << 4)) & 0x030C30C3u;
    v = (v | (v << 2)) & 0x09249249u;
    return v;
}

inline float centre(float lo, float hi) { return 0.5f * lo + 0.5f * hi; }

// Sum of the inner nodes' box half-areas: the cost estimate of a self walk over the heap.
inline double innerArea(const Node* nodes, int internal) {
    double sum = 0.0;
    for (int i = 0; i < internal; ++i) {
        const GmAxisAlignedBox& b = nodes[i].box;
        const double x = double(b.maxX) - b.minX, y = double(b.maxY) - b.minY, z = double(b.maxZ) - b.minZ;
        sum += x * y + y * z + z * x;
    }
    return sum;
}

}  // namespace walktree

// The tree's leaves in a new heap ordered along a Morton curve (see above), with copies of
// their faces in leaf order (a leaf points at its copy, which keeps the face's index), so that
// the walk's leaf steps read neighbouring faces from neighbouring memory. Both empty for a
// tree with fewer than two leaves, and when the new heap's inner boxes have no less area in
// all than the tree's (a tree built on a mesh that moves little is usually the better one).
struct WalkHeap {
    std::vector<walktree::Node> nodes;
    std::vector<GmTriangleFace> faces;
};

inline WalkHeap walkHeap(const GmBoundingVolumeHierarchy& tree) {
    using walktree::Node;
    const std::vector<Node>& nodes = tree.getNodes();
    const int internal = tree.getNumberInternalNodes();
    const int n = internal + 1;
    WalkHeap out;
    std::vector<Node>& heap = out.nodes;
    if (internal < 1 || nodes.size() < static_cast<std::size_t>(2 * n - 1)) return out;
    const Node* leaves = nodes.data() + internal;

    // Morton codes of the leaf box centres over the root box.
    const GmAxisAlignedBox& root = nodes[0].box;
    const float ex = root.maxX - root.minX, ey = root.maxY - root.minY, ez = root.maxZ - root.minZ;
    const float extent = std::max({ex, ey, ez});
    const float scale = extent > 0.0f && std::isfinite(extent) ? 1024.0f / extent : 0.0f;
    std::vector<std::uint32_t> code(static_cast<std::size_t>(n)), codeTmp(static_cast<std::size_t>(n));
    std::vector<int> order(static_cast<std::size_t>(n)), orderTmp(static_cast<std::size_t>(n));
    for (int k = 0; k < n; ++k) {
        const GmAxisAlignedBox& b = leaves[k].box;
        const std::uint32_t x = walktree::cell(walktree::centre(b.minX, b.maxX), root.minX, scale);
        const std::uint32_t y = walktree::cell(walktree::centre(b.minY, b.maxY), root.minY, scale);
        const std::uint32_t z = walktree::cell(walktree::centre(b.minZ, b.maxZ), root.minZ, scale);
        code[static_cast<std::size_t>(k)] = walktree::spread(x) | (walktree::spread(y) << 1) | (walktree::spread(z) << 2);
        order[static_cast<std::size_t>(k)] = k;
    }
    // Stable radix sort, three passes of ten bits: equal codes keep their leaf order.
    for (int shift = 0; shift < 30; shift += 10) {
        std::uint32_t count[1025] = {};
        for (int k = 0; k < n; ++k) ++count[((code[static_cast<std::size_t>(k)] >> shift) & 1023u) + 1];
        for (int d = 0; d < 1024; ++d) count[d + 1] += count[d];
        for (int k = 0; k < n; ++k) {
            const std::uint32_t c = code[static_cast<std::size_t>(k)];
            const std::uint32_t to = count[(c >> shift) & 1023u]++;
            codeTmp[to] = c;
            orderTmp[to] = order[static_cast<std::size_t>(k)];
        }
        code.swap(codeTmp);
        order.swap(orderTmp);
    }

    // Node ranges as in the tree's build: a range of k > 2 leaves gives its left child
    // min(k - p, 2p) of them, p the largest power of two not above k / 2, so that the heap stays
    // complete with the tree's shape.
    heap.resize(static_cast<std::size_t>(2 * n - 1));
    out.faces.reserve(static_cast<std::size_t>(n));
    struct Range {
        int node, first, count;
    };
    std::vector<Range> stack;
    stack.push_back({0, 0, n});
    while (!stack.empty()) {
        const Range r = stack.back();
        stack.pop_back();
        if (r.count == 1) {
            Node& leaf = heap[static_cast<std::size_t>(r.node)];
            leaf = leaves[order[static_cast<std::size_t>(r.first)]];
            if (leaf.primitive != nullptr) {
                out.faces.push_back(*leaf.primitive);
                leaf.primitive = &out.faces.back();
            }
            continue;
        }
        int m = 1;
        if (r.count > 2) {
            int p = 1;
            while (2 * p <= r.count / 2) p *= 2;
            m = std::min(r.count - p, 2 * p);
        }
        stack.push_back({2 * r.node + 2, r.first + m, r.count - m});
        stack.push_back({2 * r.node + 1, r.first, m});  // taken first: faces in leaf order
    }
    for (int i = internal - 1; i >= 0; --i) {
        Node& node = heap[static_cast<std::size_t>(i)];
        const Node& a = heap[static_cast<std::size_t>(2 * i + 1)];
        const Node& b = heap[static_cast<std::size_t>(2 * i + 2)];
        node.box = a.box;
        node.box.expand(b.box);
        node.primitive = nullptr;
        node.disabled = a.disabled && b.disabled;
        node.frozen = a.frozen && b.frozen;
    }
    if (walktree::innerArea(heap.data(), internal) >= walktree::innerArea(nodes.data(), internal)) return WalkHeap();
    return out;
}

}  // namespace GmBVHCollision

// Four-wide ray copy of a face hierarchy: its shape, the boxes copied from the binary nodes,
// and the rule that decides when the copy is made.

#include <algorithm>
#include <cmath>
#include <limits>

#include "../core/GmHugePages.h"
#include "GmBVHRayTree.h"

namespace GmBVHDetail {

namespace {

// Making the copy costs about 20 ns per face (6 ns after a refit, when only the boxes are
// copied) and saves about 0.5 to 1 us per ray against the binary walk on large trees: it pays
// after one query per 30 to 100 faces. Counting from one per 64 keeps the cost of a copy that
// does not pay within about twice the queries' own.
constexpr long long kMinQueries = 16;
constexpr long long kFacesPerQuery = 64;

// Coordinates beyond this make the ray's float slab parameters overflow-prone: such trees keep
// to the binary walk.
constexpr float kLargest = 1.152921504606846976e18f;  // 2^60

float boxArea(const GmAxisAlignedBox& b) {
    const float x = b.maxX - b.minX, y = b.maxY - b.minY, z = b.maxZ - b.minZ;
    return x * y + y * z + z * x;
}

}  // namespace

void RayTree::clear() {
    _nodes.clear();
    _source.clear();
}

bool RayTree::assign(const std::vector<GmBoundingVolumeHierarchy::Node>& nodes) {
    clear();
    const std::int32_t count = static_cast<std::int32_t>(nodes.size());
    if (count < 3) return false;  // a single leaf: nothing to gain
    _leafBase = count / 2;
    // Shape first (lanes' binary nodes and child codes, in depth-first order), then the nodes.
    std::vector<std::int32_t> child;
    // Pending internal nodes with the lane that will point at their wide node (-1: the root).
    struct Pending {
        std::int32_t binary;
        std::int64_t lane;
    };
    std::vector<Pending> stack;
    stack.push_back(Pending{0, -1});
    while (!stack.empty()) {
        const Pending p = stack.back();
        stack.pop_back();
        const std::size_t w = _source.size() / 4;
        if (p.lane >= 0) child[static_cast<size_t>(p.lane)] = static_cast<std::int32_t>(w);
        std::int32_t lane[4] = {2 * p.binary + 1, 2 * p.binary + 2, -1, -1};
        int k = 2;
        while (k < 4) {
            int pick = -1;
            float best = -1.0f;
            for (int j = 0; j < k; ++j) {
                if (lane[j] >= _leafBase) continue;
                const float a = boxArea(nodes[static_cast<size_t>(lane[j])].box);
                if (pick < 0 || a > best) {
                    pick = j;
                    best = a;
                }
            }
            if (pick < 0) break;
            const std::int32_t b = lane[pick];
            for (int j = k; j > pick + 1; --j) lane[j] = lane[j - 1];
            lane[pick] = 2 * b + 1;
            lane[pick + 1] = 2 * b + 2;
            ++k;
        }
        for (int j = 0; j < 4; ++j) {
            _source.push_back(j < k ? lane[j] : -1);
            child.push_back(j < k && lane[j] >= _leafBase ? ~(lane[j] - _leafBase) : 0);
        }
        for (int j = k - 1; j >= 0; --j)
            if (lane[j] < _leafBase) stack.push_back(Pending{lane[j], static_cast<std::int64_t>(4 * w + j)});
    }
    const std::size_t used = _source.size() / 4;
    GmHugePages::resize(_nodes, used);
    for (std::size_t w = 0; w < used; ++w) {
        RayNode& node = _nodes[w];
        node.count = 0;
        for (int j = 0; j < 4; ++j) {
            node.child[j] = child[4 * w + static_cast<size_t>(j)];
            node.count += _source[4 * w + static_cast<size_t>(j)] >= 0 ? 1u : 0u;
        }
        node.disabled = 0;
        node.pad[0] = node.pad[1] = 0;
    }
    if (update(nodes)) return true;
    clear();
    return false;
}

bool RayTree::update(const std::vector<GmBoundingVolumeHierarchy::Node>& nodes) {
    constexpr float inf = std::numeric_limits<float>::infinity();
    bool ok = true;
    const std::int32_t* source = _source.data();
    const GmBoundingVolumeHierarchy::Node* binary = nodes.data();
    for (RayNode& node : _nodes) {
        std::uint32_t disabled = 0;
        for (int j = 0; j < 4; ++j) {
            const std::int32_t s = source[j];
            if (s < 0) {
                for (int a = 0; a < 3; ++a) {
                    node.lo[a][j] = inf;
                    node.hi[a][j] = -inf;
                }
                continue;
            }
            const GmBoundingVolumeHierarchy::Node& b = binary[s];
            node.lo[0][j] = b.box.minX;
            node.lo[1][j] = b.box.minY;
            node.lo[2][j] = b.box.minZ;
            node.hi[0][j] = b.box.maxX;
            node.hi[1][j] = b.box.maxY;
            node.hi[2][j] = b.box.maxZ;
            // NaN fails both comparisons.
            ok &= b.box.minX >= -kLargest && b.box.minY >= -kLargest && b.box.minZ >= -kLargest &&
                  b.box.maxX <= kLargest && b.box.maxY <= kLargest && b.box.maxZ <= kLargest;
            disabled |= b.disabled ? 1u << j : 0u;
        }
        node.disabled = disabled;
        source += 4;
    }
    return ok;
}

const RayTree* RayTreeCache::use(const std::vector<GmBoundingVolumeHierarchy::Node>& nodes) {
    const int status = _status.load(std::memory_order_acquire);
    if (status == kReady) return &_tree;
    if (status == kRefused) return nullptr;
    const long long faces = static_cast<long long>(nodes.size() + 1) / 2;
    const long long queries = _queries.fetch_add(1, std::memory_order_relaxed) + 1;
    if (queries < std::max(kMinQueries, faces / kFacesPerQuery)) return nullptr;
    return make(nodes, false);
}

const RayTree* RayTreeCache::make(const std::vector<GmBoundingVolumeHierarchy::Node>& nodes, bool wait) {
    const std::unique_lock<std::mutex> lock = lockCache(_mutex, wait);
    if (!lock.owns_lock()) return nullptr;
    int status = _status.load(std::memory_order_relaxed);
    if (status == kAbsent) {
        const bool ok = _tree.hasShape() ? _tree.update(nodes) : _tree.assign(nodes);
        if (!ok) _tree.clear();
        status = ok ? kReady : kRefused;
        _status.store(status, std::memory_order_release);
    }
    return status == kReady ? &_tree : nullptr;
}

void RayTreeCache::reset(bool keepShape) {
    std::lock_guard<std::mutex> lock(_mutex);
    if (!keepShape) _tree.clear();
    _status.store(kAbsent, std::memory_order_relaxed);
    _queries.store(0, std::memory_order_relaxed);
}

}  // namespace GmBVHDetail

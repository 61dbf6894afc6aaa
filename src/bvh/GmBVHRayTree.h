#pragma once

// Four-wide copy of a face hierarchy for ray queries (not installed).
//
// Every wide node stands for one internal node of the binary heap and holds up to four of the
// nodes below it: starting from its two children, the internal child with the largest box area
// is replaced by its own two children until there are four (or only leaves are left). Children
// keep their left-to-right order, so a depth-first walk over the copy meets the leaves in the
// order the binary walk meets them. Boxes are the binary nodes' float boxes, stored per axis
// and lane so that one ray is tested against four boxes at once.
//
// The shape depends only on the tree (made after a build); after a refit or a mask change only
// boxes and flags are copied again from the binary nodes.

#include <atomic>
#include <cstdint>
#include <mutex>
#include <vector>

#include "GmBVHInternal.h"

namespace GmBVHDetail {

struct alignas(64) RayNode {
    float lo[3][4];  // per axis, per lane; an empty lane holds +inf / -inf
    float hi[3][4];
    // Per lane: >= 0 a wide node, < 0 leaf-table entry ~child.
    std::int32_t child[4];
    std::uint32_t disabled;  // bit j: lane j's binary node is disabled
    std::uint32_t count;     // lanes in use
    std::uint32_t pad[2];
};
static_assert(sizeof(RayNode) == 128, "two cache lines per wide node");

class RayTree {
public:
    // Shape and boxes from the binary nodes. False (and left empty) when a box is not finite
    // or has a coordinate beyond 2^60: the ray queries then keep to the binary walk.
    bool assign(const std::vector<GmBoundingVolumeHierarchy::Node>& nodes);
    // Boxes and flags again from the binary nodes, the shape kept. False as for assign.
    bool update(const std::vector<GmBoundingVolumeHierarchy::Node>& nodes);
    bool hasShape() const { return !_nodes.empty(); }
    void clear();

    const RayNode* nodes() const { return _nodes.data(); }
    std::size_t size() const { return _nodes.size(); }

private:
    std::vector<RayNode> _nodes;
    std::vector<std::int32_t> _source;  // binary node of every lane (-1 empty), 4 per wide node
    std::int32_t _leafBase = 0;         // first binary leaf node
};

// The ray copy of one hierarchy, made once enough ray queries have run since the last build,
// refit or mask change to pay for it, or when asked.
class RayTreeCache {
public:
    // The copy, or null while it does not pay yet, while another thread makes it, or when the
    // boxes cannot be copied. Counts one query.
    const RayTree* use(const std::vector<GmBoundingVolumeHierarchy::Node>& nodes);
    // The copy, made now unless it is current (null when the boxes cannot be copied, or
    // without wait while another thread makes it).
    const RayTree* make(const std::vector<GmBoundingVolumeHierarchy::Node>& nodes, bool wait);
    // After a refit or a mask change (the shape stays valid) or a build (it does not); not
    // concurrent with use().
    void reset(bool keepShape);

private:
    enum Status { kAbsent = 0, kReady = 1, kRefused = 2 };
    std::mutex _mutex;
    std::atomic<int> _status{kAbsent};
    std::atomic<long long> _queries{0};
    RayTree _tree;  // written before _status turns kReady (release)
};

}  // namespace GmBVHDetail

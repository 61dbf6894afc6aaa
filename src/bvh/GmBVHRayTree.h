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
//
// The corners of every leaf's face are gathered too, in leaf order (nine doubles per face), so
// that a leaf costs one read where the face record and three vertices cost two dependent ones.
// They are the mesh's positions when the copy was made or brought up to date; the walk uses
// them while the mesh still holds its positions in the same storage (a swapVertices moves
// them, and the walk then reads the mesh's own).

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

// What the copy is made from.
struct RaySource {
    const std::vector<GmBoundingVolumeHierarchy::Node>& nodes;
    const std::vector<GmBoundingVolumeHierarchy::LeafFace>& leaves;
    const std::vector<GmTVector<double>>& vertices;
};

class RayTree {
public:
    // Shape and boxes from the binary nodes, the leaves' corners from the mesh. False (and left
    // empty) when a box is not finite or has a coordinate beyond 2^60: the ray queries then
    // keep to the binary walk.
    bool assign(const RaySource& source);
    // Boxes, flags and corners again, the shape kept. False as for assign.
    bool update(const RaySource& source);
    bool hasShape() const { return !_nodes.empty(); }
    void clear();

    const RayNode* nodes() const { return _nodes.data(); }
    std::size_t size() const { return _nodes.size(); }
    // Nine coordinates per leaf-table entry (its face's vertices 1, 2, 3), or null when the mesh
    // no longer holds the positions they were gathered from in the same storage.
    const double* corners(const std::vector<GmTVector<double>>& vertices) const {
        return vertices.data() == _gatheredFrom && vertices.size() == _gatheredCount ? _corners.data() : nullptr;
    }

private:
    void gather(const RaySource& source);

    std::vector<RayNode> _nodes;
    std::vector<double> _corners;
    const GmTVector<double>* _gatheredFrom = nullptr;
    std::size_t _gatheredCount = 0;
    std::vector<std::int32_t> _source;  // binary node of every lane (-1 empty), 4 per wide node
    std::int32_t _leafBase = 0;         // first binary leaf node
};

// The ray copy of one hierarchy, made once enough ray queries have run since the last build,
// refit or mask change to pay for it, or when asked.
class RayTreeCache {
public:
    // The copy, or null while it does not pay yet, while another thread makes it, or when the
    // boxes cannot be copied. Counts one query.
    const RayTree* use(const RaySource& source);
    // The copy, made now unless it is current (null when the boxes cannot be copied, or
    // without wait while another thread makes it).
    const RayTree* make(const RaySource& source, bool wait);
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

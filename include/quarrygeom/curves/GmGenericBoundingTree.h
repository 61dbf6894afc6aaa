#pragma once

#include <cstdint>
#include <vector>

#include <quarrygeom/bvh/GmBoundingTree.h>
#include <quarrygeom/bvh/GmBoundingVolumeHierarchy.h>
#include <quarrygeom/bvh/GmBoundingVolumeTreeNode.h>
#include <quarrygeom/core/GmAxisAlignedBox.h>
#include <quarrygeom/core/GmExport.h>
#include <quarrygeom/core/GmTVector.h>
#include <quarrygeom/curves/GmClosestEdgeEdgeProximityOnSingleSegment.h>
#include <quarrygeom/curves/GmCurves.h>
#include <quarrygeom/curves/GmFirstSegmentIntersection.h>
#include <quarrygeom/curves/GmSegmentIntersector.h>
#include <quarrygeom/curves/GmSegmentMeshIntersector.h>
#include <quarrygeom/curves/GmSegmentSelfIntersector.h>

template <class Topology>
class GmGenericBoundingTree;

// Bounding volume hierarchy over the segments of a GmCurves set, with the positions (and
// optional per-vertex radii) held by the caller. Built once per topology, refitted whenever the
// positions move, traversed against itself, another curve tree or a face hierarchy, handing
// candidate pairs to a visitor (GmSegmentIntersector, GmSegmentSelfIntersector<1/3>,
// GmSegmentMeshIntersector, GmFirstSegmentIntersection,
// GmClosestEdgeEdgeProximityOnSingleSegment).
//
// Layout: the face hierarchy's implicit heap (root 0, children 2i + 1 and 2i + 2) over n
// segments: 2n - 1 nodes, left-balanced, all leaves on the two deepest levels, internal nodes
// 0 .. n - 2. The node array has 2^(d+1) - 1 slots for depth d = ceil(log2 n), node i at array
// position lastIndex - i; unused slots stay zero. getLeaves() lists the leaves' array positions
// in ascending order.
//
// Boxes: a segment a-b gets min(P[a] - r[a], P[b] - r[b]) - pad and max(P[a] + r[a], P[b] + r[b])
// + pad with pad = offset + 1e-8 and r the per-vertex offsets (0 without them), computed in
// double and rounded outwards to float; internal nodes hold the union of their children. Build
// splits each node's segments on the longest axis of its box by segment midpoint: the left
// child takes the m segments with the smallest midpoints, m = min(n - p, 2p) with p the largest
// power of two not above n / 2.
//
// The tree keeps pointers to the set, the positions and the offsets (not owned): they must
// outlive it and not shrink. Node flags (disabled, frozen) are never set by the tree.
//
// Checked input (std::invalid_argument, the tree is left unchanged by refit and empty by build):
// positions or offsets with fewer entries than the set's vertices, and a non-finite position or
// offset among them.
template <>
class QUARRYGEOM_API GmGenericBoundingTree<GmCurves> {
public:
    typedef GmBoundingVolumeTreeNode<GmCurveSegment> Node;
    typedef std::vector<GmTVector<double>> Positions;

    GmGenericBoundingTree();
    GmGenericBoundingTree(const GmCurves& curves, const Positions& positions, double offset = 0.0,
                          const std::vector<double>* offsets = nullptr);
    GmGenericBoundingTree(const GmGenericBoundingTree&) = default;
    GmGenericBoundingTree& operator=(const GmGenericBoundingTree&) = default;
    ~GmGenericBoundingTree();

    // reset(), then the tree over the set's segments at these positions.
    void build(const GmCurves& curves, const Positions& positions, double offset = 0.0,
               const std::vector<double>* offsets = nullptr);
    // New boxes for the same shape: every leaf from the new positions, offset and offsets, then
    // every internal node from its children.
    void refit(const Positions& positions, double offset = 0.0, const std::vector<double>* offsets = nullptr);
    // Forget the set and the positions; no nodes, no leaves (capacity kept).
    void reset();

    // Swept mode (for the continuous-time visitors of GmCurveContinuous.h): each leaf box
    // encloses its segment at `positions` (start of the step) and at `endPositions` (end of the
    // step), both padded as above; a segment moving linearly between the two stays inside it.
    // The build splits on the start positions. build() and refit() return to the plain mode.
    // endPositions is checked like positions and kept by pointer like them.
    void buildSwept(const GmCurves& curves, const Positions& positions, const Positions& endPositions,
                    double offset = 0.0, const std::vector<double>* offsets = nullptr);
    void refitSwept(const Positions& positions, const Positions& endPositions, double offset = 0.0,
                    const std::vector<double>* offsets = nullptr);
    // The end positions of the swept mode, null in the plain mode.
    const Positions* getEndPositions() const { return endPositions; }

    // ---- Layout -------------------------------------------------------------------------
    static std::uint64_t getRootIndex() { return 0; }
    static std::uint64_t getLeftIndex(std::uint64_t i) { return 2 * i + 1; }
    static std::uint64_t getRightIndex(std::uint64_t i) { return 2 * i + 2; }
    const Node& getNode(std::uint64_t i) const { return nodes[lastIndex - i]; }
    const Node& getRoot() const { return getNode(0); }
    const GmAxisAlignedBox& getBoundingVolume() const { return getRoot().box; }
    std::uint64_t getNumberLeafNodes() const { return leaves.size(); }
    std::uint64_t getNumberInternalNodes() const { return numberNodes - leaves.size(); }
    std::uint64_t getNumberNodes() const { return numberNodes; }
    std::uint64_t getDepth() const { return depth; }
    std::uint64_t stackHeight() const { return 8 * depth; }
    bool empty() const { return nodes.empty(); }
    // The node array (node i at position size() - 1 - i) and the leaves' array positions.
    const std::vector<Node>& getNodes() const { return nodes; }
    const std::vector<std::uint64_t>& getLeaves() const { return leaves; }
    // Node flags, for hosts that mask segments out; the traversals prune on them.
    void setNodeFlags(std::uint64_t i, bool disabled, bool frozen);

    const GmCurves* getTopology() const { return topology; }
    const Positions* getPositions() const { return positions; }
    double getOffset() const { return offset; }
    const std::vector<double>* getOffsets() const { return offsets; }
    GmBoundingVolumeTreeVisitor<GmGenericBoundingTree<GmCurves>> getVisitor() const {
        return GmBoundingVolumeTreeVisitor<GmGenericBoundingTree<GmCurves>>(this);
    }

    // ---- Traversals ---------------------------------------------------------------------
    // Pairs of nodes are skipped when either is disabled (unless the visitor's
    // getIntersectDisabled()) or both are frozen, or when their boxes are apart (touching boxes
    // overlap). Two leaves go to the visitor; otherwise the internal side is replaced by its
    // children. The visitor is called on the calling thread unless stated otherwise.
    //
    // Curve-curve (Tree = GmGenericBoundingTree<GmCurves>, X = GmSegmentIntersector) and
    // curve-triangle (Tree = GmBoundingVolumeHierarchy, X = GmSegmentMeshIntersector,
    // GmFirstSegmentIntersection, GmClosestEdgeEdgeProximityOnSingleSegment), from the pair of
    // roots. With multithreading on (tarnCollision::isMultiThreading()), the curve-curve
    // traversal tests pairs on the worker threads of GmParallel: the same hits and test count,
    // the hits in another order. Curve-triangle traversals stay on the calling thread.
    template <class Tree, class X>
    void intersect(const Tree& other, X& visitor) const;
    // The same against the hierarchy of a GmBoundingTree facade (nothing when it has none).
    template <class X>
    void intersect(const GmBoundingTree& other, X& visitor) const {
        if (other.getHierarchy() != nullptr) intersect<GmBoundingVolumeHierarchy, X>(*other.getHierarchy(), visitor);
    }
    // Self traversal (X = GmSegmentSelfIntersector<1> or <3>): for each internal node, the pair
    // of its children; two leaves that the visitor's isAdjacent calls adjacent are skipped unless
    // getIntersectAdjacent(). Serial order of GmSegmentSelfIntersector<1/3>: internal nodes 0, 1,
    // ..., each descent depth first (the walk runs a subtree's descents together for locality and
    // hands the hits to processIntersection in this order when it is done). With multithreading
    // on, the same hits and test count, handed to processIntersection on the calling thread after
    // the parallel part, in another order. Other self visitors take the hits in walk order.
    template <class X>
    void selfIntersect(X& visitor) const;

    // Segments whose leaf boxes overlap leaf boxes of the face hierarchy (a segment once per
    // overlapping face leaf), appended to `segments`; no pruning on flags.
    void getIntersectCandidates(const GmBoundingVolumeHierarchy& hierarchy,
                                std::vector<const GmCurveSegment*>& segments) const;

    // Debug drawing of the boxes of one level (the leaves from the deepest level on) into the
    // host's current GL_LINES primitive.
    void drawTree(int level) const;

private:
    std::uint64_t _build();
    void _refit();
    void _check(const Positions& positions, const std::vector<double>* offsets) const;

    const GmCurves* topology = nullptr;
    const Positions* positions = nullptr;
    double offset = 0.0;
    const std::vector<double>* offsets = nullptr;
    const Positions* endPositions = nullptr;
    std::vector<Node> nodes;
    std::vector<std::uint64_t> leaves;
    std::uint64_t numberNodes = 0;
    std::uint64_t lastIndex = 0;
    std::uint64_t depth = 0;
};

using GmCurveBoundingTree = GmGenericBoundingTree<GmCurves>;

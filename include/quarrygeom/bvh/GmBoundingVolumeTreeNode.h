#pragma once

#include <quarrygeom/core/GmAxisAlignedBox.h>

// One node of an implicit, array-stored binary hierarchy: node i has children 2i + 1 and
// 2i + 2, the root is node 0. A leaf points at its primitive (a triangle face, a curve
// segment); an internal node holds null. The flags of an internal node are the AND of its
// children's, so a set flag means "every primitive below is disabled / frozen".
template <typename T>
struct GmBoundingVolumeTreeNode {
    GmAxisAlignedBox box;
    const T* primitive = nullptr;
    bool disabled = false;
    bool frozen = false;

    bool isLeaf() const { return primitive != nullptr; }
    const GmAxisAlignedBox& getBoundingVolume() const { return box; }
    const T* getPrimitive() const { return primitive; }
    bool isDisabled() const { return disabled; }
    bool isFrozen() const { return frozen; }
};

// Read-only view of a hierarchy for the traversals: node access by heap index and the
// index arithmetic, without exposing the tree's mutators.
template <typename Tree>
class GmBoundingVolumeTreeVisitor {
public:
    explicit GmBoundingVolumeTreeVisitor(const Tree* tree = nullptr) : _tree(tree) {}

    const Tree* getTree() const { return _tree; }
    bool empty() const { return _tree == nullptr || _tree->empty(); }
    decltype(auto) getNode(long long i) const { return _tree->getNode(i); }
    decltype(auto) getRoot() const { return _tree->getRoot(); }
    static long long getRootIndex() { return 0; }
    static long long getLeftIndex(long long i) { return 2 * i + 1; }
    static long long getRightIndex(long long i) { return 2 * i + 2; }

private:
    const Tree* _tree;
};

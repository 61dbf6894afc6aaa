#pragma once

#include "common.h"

namespace qgpy {

// A face hierarchy over a Python mesh, with the masks and (swept mode) end positions it was
// built with. Keeps the mesh and masks alive.
struct Tree {
    enum Mode { kPlain, kSwept, kThickened };
    MeshPtr mesh;
    std::shared_ptr<DisabledMask> disabled;
    std::shared_ptr<FrozenMask> frozen;
    Mode mode = kPlain;
    double thickness = 0.0;
    std::vector<V3> end;  // swept mode: positions at the end of the step
    std::unique_ptr<GmBoundingVolumeHierarchy> h;

    const GmDisabledData* disabledData() const { return disabled ? &disabled->data : nullptr; }
    const GmFrozenData* frozenData() const { return frozen ? &frozen->data : nullptr; }
};
typedef std::shared_ptr<Tree> TreePtr;
typedef py::class_<Tree, TreePtr> TreeClass;

// Registration: the class with its build and point and ray queries, then the collision queries.
TreeClass registerTrees(py::module_& m);
void registerCollision(py::module_& m, TreeClass& tree);
void registerTiming(py::module_& m);
// Curves, their tree and its queries (against itself, another curve tree, a face tree).
void registerCurves(py::module_& m);

}  // namespace qgpy

#pragma once

// Public headers of the bvh subsystem.
#include <quarrygeom/bvh/GmBoundingVolumeTreeNode.h>
#include <quarrygeom/bvh/GmNormalTests.h>
#include <quarrygeom/bvh/GmBoundingVolumeHierarchy.h>
#include <quarrygeom/bvh/GmBoundingTree.h>
#include <quarrygeom/bvh/GmBatchQueries.h>

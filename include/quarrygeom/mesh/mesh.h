#pragma once

// Public headers of the mesh subsystem.
#include <quarrygeom/mesh/GmTriangleMesh.h>
#include <quarrygeom/mesh/GmDisabledData.h>
#include <quarrygeom/mesh/GmAdjacentOrphanSet.h>
#include <quarrygeom/mesh/GmMeshTests.h>

#pragma once

// Umbrella header: every public class of QuarryMath and QuarryGeom.
#include <quarrygeom/core/core.h>
#include <quarrygeom/mesh/mesh.h>
#include <quarrygeom/primitives/primitives.h>
#include <quarrygeom/bvh/bvh.h>
#include <quarrygeom/curves/curves.h>
#include <quarrygeom/pinch/pinch.h>
#include <quarrygeom/debugdraw/debugdraw.h>

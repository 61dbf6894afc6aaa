#pragma once

// Public headers of the pinch subsystem.
#include <quarrygeom/pinch/SelfIntersectionInfo.h>
#include <quarrygeom/pinch/MultiIntersectionInfo.h>

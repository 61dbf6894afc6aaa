#pragma once

// Math layer and value types.
#include <quarrygeom/core/GmExport.h>
#include <quarrygeom/core/GmException.h>
#include <quarrygeom/core/GmTVector.h>
#include <quarrygeom/core/GmAxisAlignedBox.h>
#include <quarrygeom/core/GmRay.h>
#include <quarrygeom/core/GmPointOnTriType.h>
#include <quarrygeom/core/GmPolynomial.h>
#include <quarrygeom/core/GmMatrix.h>
#include <quarrygeom/core/GmTransformMatrix.h>
#include <quarrygeom/core/tarnCollision.h>
#include <quarrygeom/core/GmBVHMetrics.h>
#include <quarrygeom/core/GmParallel.h>

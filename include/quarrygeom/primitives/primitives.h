#pragma once

// Public headers of the primitives subsystem.
#include <quarrygeom/primitives/GmGeometry.h>
#include <quarrygeom/primitives/GmPredicates.h>
#include <quarrygeom/primitives/GmInterferenceInfo.h>
#include <quarrygeom/primitives/GmIntersection.h>
#include <quarrygeom/primitives/GmSegmentDistance.h>
#include <quarrygeom/primitives/GmProximityCheck.h>
#include <quarrygeom/primitives/GmContactKernels.h>
#include <quarrygeom/primitives/GmSweptSeparation.h>

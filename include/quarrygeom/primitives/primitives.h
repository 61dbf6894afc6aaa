#pragma once

// Public headers of the primitives subsystem.
#include <quarrygeom/primitives/GmGeometry.h>
#include <quarrygeom/primitives/GmPredicates.h>
#include <quarrygeom/primitives/GmInterferenceInfo.h>

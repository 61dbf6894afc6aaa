#pragma once

// Public headers of the primitives subsystem.
//
// Supported range: coordinates of magnitude up to 1e15 and feature sizes (edge lengths, gaps,
// motions over a step) from 1e-12 to 1e12. Within it the answers do not depend on the scale: a
// scene multiplied by a power of two gives the same contacts, times, parameters and normals.
// Beyond it:
//   - orient2d / orient3d and the static triangle-pair test are exact for every finite input;
//   - the point-triangle distance and the ray-triangle test rescale their input by a power of
//     two and stay scale-free as long as the squared distance they return is representable;
//   - the continuous-time and proximity primitives refuse coordinate differences (respectively
//     coordinates) above 2^500 with the message "Coordinates outside the supported range.";
// and input that is not finite never yields a contact or a hit.
#include <quarrygeom/primitives/GmGeometry.h>
#include <quarrygeom/primitives/GmPredicates.h>
#include <quarrygeom/primitives/GmInterferenceInfo.h>
#include <quarrygeom/primitives/GmIntersection.h>
#include <quarrygeom/primitives/GmSegmentDistance.h>
#include <quarrygeom/primitives/GmProximityCheck.h>
#include <quarrygeom/primitives/GmContactKernels.h>
#include <quarrygeom/primitives/GmSweptSeparation.h>

#pragma once

#include <quarrygeom/core/GmTVector.h>

// Optional filters of the closest-point search (GmBoundingVolumeHierarchy::findClosestPoint).
//  - direction filter: when directionWeight is not zero, faces whose unit normal has
//    dot(normal, direction) <= 1e-8 are skipped (only faces facing along direction count);
//  - side filter: with closest point q, query point p and face normal n, a face is "in front"
//    of p when dot(q - p, n) > 0. sideMode < 0 skips faces in front, sideMode > 0 skips faces
//    not in front, 0 keeps both.
struct GmNormalTests {
    int sideMode = 0;
    double directionWeight = 0.0;
    GmTVector<double> direction;

    GmNormalTests() = default;
    GmNormalTests(int side, double weight, const GmTVector<double>& dir)
        : sideMode(side), directionWeight(weight), direction(dir) {}
};

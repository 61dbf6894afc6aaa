#pragma once

#include <quarrygeom/core/GmExport.h>

// Real roots of low-degree polynomials with double coefficients.
//
// Coefficients are given lowest degree first. Roots are written in ascending order;
// the return value is their number. A multiple root (double or triple) is reported
// once. Common properties of the solvers:
// - The effective degree is that of the highest non-zero coefficient, so a zero leading
//   coefficient falls back to the lower degree. A tiny but non-zero leading coefficient
//   is kept: its extra root, of large magnitude, is reported as long as it is a finite
//   double, and the other roots keep their accuracy.
// - Results are invariant under scaling all coefficients by a common factor (the
//   coefficients are rescaled by a power of two internally), so widely scaled inputs
//   neither overflow nor underflow.
// - A root whose polynomial value lies within the rounding error of its evaluation is a
//   root: a local extremum that touches zero to within that error is reported as a
//   (double) root rather than lost.
// - The zero polynomial (all coefficients zero), a non-zero constant, and any
//   coefficient that is NaN or infinite give 0 roots.
namespace GmPolynomial {

// Real roots of c0 + c1 t + c2 t^2 + c3 t^3; returns 0 to 3.
QUARRYMATH_API int getRealCubicRoots(double c0, double c1, double c2, double c3, double roots[3]);

// Real roots of c0 + c1 t + c2 t^2; returns 0 to 2.
QUARRYMATH_API int getRealQuadraticRoots(double c0, double c1, double c2, double roots[2]);

}  // namespace GmPolynomial

#pragma once

#include <quarrygeom/core/GmExport.h>

// Orientation predicates with exact signs (adaptive-precision expansion arithmetic).
// Points are pointers to three consecutive doubles (x, y, z); orient2d reads x and y only.
// The sign of each result is exact for every finite input (coordinates that would make the
// expansion arithmetic overflow or underflow are evaluated in wide fixed-point arithmetic); its
// magnitude approximates the determinant, kept within the finite doubles so that the sign
// survives. Input that is not finite gives NaN. The floating-point filter allows for products
// lost to underflow, so inputs spread over the whole double range (subnormals included) get
// exact signs too; they are checked against exact rational arithmetic.
namespace GmPredicates {

// The machine constants and error bounds of the predicates (eps = 2^-53).
struct Constants {
    double epsilon;         // largest power of two with 1 + epsilon == 1
    double splitter;        // 2^27 + 1
    double resulterrbound;  // (3 + 8 eps) eps
    double ccwerrboundA;    // (3 + 16 eps) eps
    double ccwerrboundB;    // (2 + 12 eps) eps
    double ccwerrboundC;    // (9 + 64 eps) eps^2
    double o3derrboundA;    // (7 + 56 eps) eps
    double o3derrboundB;    // (3 + 28 eps) eps
    double o3derrboundC;    // (26 + 288 eps) eps^2
    double iccerrboundA;    // (10 + 96 eps) eps
    double iccerrboundB;    // (4 + 48 eps) eps
    double iccerrboundC;    // (44 + 576 eps) eps^2
    double isperrboundA;    // (16 + 224 eps) eps
    double isperrboundB;    // (5 + 72 eps) eps
    double isperrboundC;    // (71 + 1408 eps) eps^2
};

// The process-wide constants. They are fixed before any code of the library runs, so they
// may be read from any thread without initialisation.
QUARRYGEOM_API const Constants& constants();

// Makes sure the constants are computed. Idempotent and thread-safe; the predicates do not
// need it (the constants are in place when the library is loaded).
QUARRYGEOM_API void exactinit();

// Positive when pa, pb, pc are counter-clockwise in the x-y plane, negative when clockwise,
// zero when collinear.
QUARRYGEOM_API double orient2d(const double* pa, const double* pb, const double* pc);

// Positive when pd lies below the plane through pa, pb, pc, negative when above, zero when the
// four points are coplanar; "above" is the side from which pa, pb, pc appear counter-clockwise.
// The sign is that of the determinant with rows pa - pd, pb - pd, pc - pd.
QUARRYGEOM_API double orient3d(const double* pa, const double* pb, const double* pc, const double* pd);

}  // namespace GmPredicates

#pragma once

#include <cmath>

// The first, floating-point stage of orient3d (the bound of the adaptive predicate's stage A),
// inline for callers that want the common case without a call. det is the determinant with
// orient3d's sign; the result says whether its sign is certain (never true for non-finite
// input or when overflow or underflow could have changed the sign). permanent is what the
// adaptive stages continue from.
namespace GmOrient3dFilter {

constexpr double kEpsilon = 1.1102230246251565e-16;  // 2^-53
constexpr double kBoundA = (7.0 + 56.0 * kEpsilon) * kEpsilon;
// Underflow: a product below the normal range is off by up to 2^-1075 in absolute terms, and
// a 2x2 minor lost that way is still multiplied by its z difference, which can be as large as
// the double range allows. Each minor's sum of absolute products therefore carries a floor of
// 2^-1020 into the permanent: kBoundA times it exceeds the two products' loss (2^-1074) more
// than tenfold. Where rounding absorbs the floor, the minor is at least 2^-968, at most one of
// its products underflowed, and the loss (2^-1075) is below eps^2 / 2 of it, which the bound's
// extra eps^2 covers. 2^-1000 covers the last
// products and the permanent's own underflow. Overflow leaves det or permanent infinite or
// NaN, and the test fails. So no sign is called certain that underflow or overflow could have
// changed; the floors only make the adaptive stages' bounds a little more cautious.
constexpr double kMinorFloor = 0x1p-1020;
constexpr double kBoundFiltered = kBoundA + kEpsilon * kEpsilon;
constexpr double kUnderflowSlack = 0x1p-1000;

inline bool stageA(const double* pa, const double* pb, const double* pc, const double* pd, double& det,
                   double& permanent) {
    const double adx = pa[0] - pd[0], bdx = pb[0] - pd[0], cdx = pc[0] - pd[0];
    const double ady = pa[1] - pd[1], bdy = pb[1] - pd[1], cdy = pc[1] - pd[1];
    const double adz = pa[2] - pd[2], bdz = pb[2] - pd[2], cdz = pc[2] - pd[2];

    const double bdxcdy = bdx * cdy, cdxbdy = cdx * bdy;
    const double cdxady = cdx * ady, adxcdy = adx * cdy;
    const double adxbdy = adx * bdy, bdxady = bdx * ady;

    det = adz * (bdxcdy - cdxbdy) + bdz * (cdxady - adxcdy) + cdz * (adxbdy - bdxady);
    permanent = ((std::fabs(bdxcdy) + std::fabs(cdxbdy)) + kMinorFloor) * std::fabs(adz) +
                ((std::fabs(cdxady) + std::fabs(adxcdy)) + kMinorFloor) * std::fabs(bdz) +
                ((std::fabs(adxbdy) + std::fabs(bdxady)) + kMinorFloor) * std::fabs(cdz);
    const double bound = kBoundFiltered * permanent + kUnderflowSlack;
    return det > bound || -det > bound;
}

}  // namespace GmOrient3dFilter

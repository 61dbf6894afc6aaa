// Adaptive-precision orientation predicates.
//
// A determinant is first evaluated in plain floating point together with a bound on its
// rounding error; only when the result is too close to zero does the evaluation continue with
// expansion arithmetic (sums of non-overlapping doubles), first on the rounded coordinate
// differences, then with a first-order correction from their rounding errors, and finally
// exactly.
//
// The error-free transformations below (two-sum, two-product by splitting) require every
// operation to be rounded to double on its own: no x87 extended precision and no fused
// multiply-add contraction. x86-64 compilers use SSE2 for double arithmetic and do not emit FMA
// unless the target enables it (-mfma, -march=native); when FMA is available, the products use
// std::fma, whose tail is exact by definition, so the splitting never depends on contraction.

#include <quarrygeom/primitives/GmPredicates.h>

#include "GmExactProductSum.h"
#include "GmOrient3dFilter.h"

#include <cmath>
#include <limits>

namespace GmPredicates {

namespace {

constexpr Constants computeConstants() {
    // Halve epsilon until 1 + epsilon no longer changes (or stops changing); splitter grows by
    // one bit every other round, ending at 2^(ceil(p/2)) + 1 for a p-bit mantissa.
    double epsilon = 1.0;
    double splitter = 1.0;
    double check = 1.0;
    double lastcheck = 0.0;
    bool everyOther = true;
    do {
        lastcheck = check;
        epsilon *= 0.5;
        if (everyOther) splitter *= 2.0;
        everyOther = !everyOther;
        check = 1.0 + epsilon;
    } while (check != 1.0 && check != lastcheck);
    splitter += 1.0;

    const double e = epsilon;
    Constants c{};
    c.epsilon = e;
    c.splitter = splitter;
    c.resulterrbound = (3.0 + 8.0 * e) * e;
    c.ccwerrboundA = (3.0 + 16.0 * e) * e;
    c.ccwerrboundB = (2.0 + 12.0 * e) * e;
    c.ccwerrboundC = (9.0 + 64.0 * e) * e * e;
    c.o3derrboundA = (7.0 + 56.0 * e) * e;
    c.o3derrboundB = (3.0 + 28.0 * e) * e;
    c.o3derrboundC = (26.0 + 288.0 * e) * e * e;
    c.iccerrboundA = (10.0 + 96.0 * e) * e;
    c.iccerrboundB = (4.0 + 48.0 * e) * e;
    c.iccerrboundC = (44.0 + 576.0 * e) * e * e;
    c.isperrboundA = (16.0 + 224.0 * e) * e;
    c.isperrboundB = (5.0 + 72.0 * e) * e;
    c.isperrboundC = (71.0 + 1408.0 * e) * e * e;
    return c;
}

// Evaluated by the compiler: the table is part of the library image, so it is in place before
// any thread can read it and is never written at run time.
constexpr Constants kConstants = computeConstants();
static_assert(kConstants.splitter == 134217729.0, "IEEE double arithmetic expected");
static_assert(kConstants.epsilon == 1.0 / 9007199254740992.0, "IEEE double arithmetic expected");

constexpr double kSplitter = kConstants.splitter;

// ---- Error-free transformations --------------------------------------------------------------
// Each returns the rounded result and stores the rounding error in `err`, so that
// result + err equals the exact value.

inline double fastTwoSum(double a, double b, double& err) {  // needs |a| >= |b| (or a == 0)
    const double x = a + b;
    err = b - (x - a);
    return x;
}

inline double twoSum(double a, double b, double& err) {
    const double x = a + b;
    const double bv = x - a;
    const double av = x - bv;
    err = (a - av) + (b - bv);
    return x;
}

// Error of the already computed x = fl(a - b).
inline double twoDiffTail(double a, double b, double x) {
    const double bv = a - x;
    const double av = x + bv;
    return (a - av) + (bv - b);
}

inline double twoDiff(double a, double b, double& err) {
    const double x = a - b;
    err = twoDiffTail(a, b, x);
    return x;
}

// Splits a into hi + lo, each with at most 26 significant bits.
inline void split(double a, double& hi, double& lo) {
    const double c = kSplitter * a;
    const double big = c - a;
    hi = c - big;
    lo = a - hi;
}

#if defined(__FMA__) || defined(__FP_FAST_FMA)
inline double twoProduct(double a, double b, double& err) {
    const double x = a * b;
    err = std::fma(a, b, -x);
    return x;
}
// b already split into bhi + blo (unused with a fused multiply-add).
inline double twoProductPresplit(double a, double b, double, double, double& err) { return twoProduct(a, b, err); }
#else
inline double productTail(double a, double x, double bhi, double blo) {
    double ahi, alo;
    split(a, ahi, alo);
    const double e1 = x - ahi * bhi;
    const double e2 = e1 - alo * bhi;
    const double e3 = e2 - ahi * blo;
    return alo * blo - e3;
}
inline double twoProduct(double a, double b, double& err) {
    const double x = a * b;
    double bhi, blo;
    split(b, bhi, blo);
    err = productTail(a, x, bhi, blo);
    return x;
}
inline double twoProductPresplit(double a, double b, double bhi, double blo, double& err) {
    const double x = a * b;
    err = productTail(a, x, bhi, blo);
    return x;
}
#endif

// ---- Small fixed expansions (components in increasing magnitude) ----------------------------

// (a1 + a0) - b as three components x[0..2].
inline void twoOneDiff(double a1, double a0, double b, double x[3]) {
    double i;
    i = twoDiff(a0, b, x[0]);
    x[2] = twoSum(a1, i, x[1]);
}

// (a1 + a0) - (b1 + b0) as four components x[0..3].
inline void twoTwoDiff(double a1, double a0, double b1, double b0, double x[4]) {
    double t[3];
    twoOneDiff(a1, a0, b0, t);
    x[0] = t[0];
    double u[3];
    twoOneDiff(t[2], t[1], b1, u);
    x[1] = u[0];
    x[2] = u[1];
    x[3] = u[2];
}

// a*b - c*d exactly, as four components.
inline void productDifference(double a, double b, double c, double d, double x[4]) {
    double l0, r0;
    const double l1 = twoProduct(a, b, l0);
    const double r1 = twoProduct(c, d, r0);
    twoTwoDiff(l1, l0, r1, r0, x);
}

// ---- General expansions (zero components removed) -------------------------------------------

// h = e + f; h needs room for elen + flen components. Returns the length of h.
int expansionSum(int elen, const double* e, int flen, const double* f, double* h) {
    int ei = 0, fi = 0, hi = 0;
    double enow = e[0], fnow = f[0];
    double q, qnew, hh;
    // Take the smaller-magnitude head first.
    if ((fnow > enow) == (fnow > -enow)) {
        q = enow;
        if (++ei < elen) enow = e[ei];
    } else {
        q = fnow;
        if (++fi < flen) fnow = f[fi];
    }
    if (ei < elen && fi < flen) {
        if ((fnow > enow) == (fnow > -enow)) {
            qnew = fastTwoSum(enow, q, hh);
            if (++ei < elen) enow = e[ei];
        } else {
            qnew = fastTwoSum(fnow, q, hh);
            if (++fi < flen) fnow = f[fi];
        }
        q = qnew;
        if (hh != 0.0) h[hi++] = hh;
        while (ei < elen && fi < flen) {
            if ((fnow > enow) == (fnow > -enow)) {
                qnew = twoSum(q, enow, hh);
                if (++ei < elen) enow = e[ei];
            } else {
                qnew = twoSum(q, fnow, hh);
                if (++fi < flen) fnow = f[fi];
            }
            q = qnew;
            if (hh != 0.0) h[hi++] = hh;
        }
    }
    while (ei < elen) {
        qnew = twoSum(q, enow, hh);
        if (++ei < elen) enow = e[ei];
        q = qnew;
        if (hh != 0.0) h[hi++] = hh;
    }
    while (fi < flen) {
        qnew = twoSum(q, fnow, hh);
        if (++fi < flen) fnow = f[fi];
        q = qnew;
        if (hh != 0.0) h[hi++] = hh;
    }
    if (q != 0.0 || hi == 0) h[hi++] = q;
    return hi;
}

// h = b * e; h needs room for 2 elen components. Returns the length of h.
int scaleExpansion(int elen, const double* e, double b, double* h) {
    double bhi, blo;
    split(b, bhi, blo);
    double hh;
    double q = twoProductPresplit(e[0], b, bhi, blo, hh);
    int hi = 0;
    if (hh != 0.0) h[hi++] = hh;
    for (int i = 1; i < elen; ++i) {
        double p0;
        const double p1 = twoProductPresplit(e[i], b, bhi, blo, p0);
        double sum = twoSum(q, p0, hh);
        if (hh != 0.0) h[hi++] = hh;
        q = fastTwoSum(p1, sum, hh);
        if (hh != 0.0) h[hi++] = hh;
    }
    if (q != 0.0 || hi == 0) h[hi++] = q;
    return hi;
}

// Approximate value of an expansion.
double estimate(int elen, const double* e) {
    double q = e[0];
    for (int i = 1; i < elen; ++i) q += e[i];
    return q;
}

// Accumulates expansions into a running sum held in one of two buffers.
class Accumulator {
public:
    Accumulator(int len, const double* init) : _len(len) {
        for (int i = 0; i < len; ++i) _buf[0][i] = init[i];
    }
    void add(int len, const double* e) {
        _len = expansionSum(_len, _buf[_cur], len, e, _buf[1 - _cur]);
        _cur = 1 - _cur;
    }
    double mostSignificant() const { return _buf[_cur][_len - 1]; }

private:
    double _buf[2][192];
    int _len;
    int _cur = 0;
};

// ---- orient2d ---------------------------------------------------------------------------------

double orient2dAdaptive(const double* pa, const double* pb, const double* pc, double detsum) {
    const double acx = pa[0] - pc[0];
    const double bcx = pb[0] - pc[0];
    const double acy = pa[1] - pc[1];
    const double bcy = pb[1] - pc[1];

    // Stage B: exact determinant of the rounded differences.
    double bExp[4];
    productDifference(acx, bcy, acy, bcx, bExp);
    double det = estimate(4, bExp);
    double errbound = kConstants.ccwerrboundB * detsum;
    if (det >= errbound || -det >= errbound) return det;

    const double acxtail = twoDiffTail(pa[0], pc[0], acx);
    const double bcxtail = twoDiffTail(pb[0], pc[0], bcx);
    const double acytail = twoDiffTail(pa[1], pc[1], acy);
    const double bcytail = twoDiffTail(pb[1], pc[1], bcy);
    if (acxtail == 0.0 && acytail == 0.0 && bcxtail == 0.0 && bcytail == 0.0) return det;

    // Stage C: first-order correction from the tails.
    errbound = kConstants.ccwerrboundC * detsum + kConstants.resulterrbound * std::fabs(det);
    det += (acx * bcytail + bcy * acxtail) - (acy * bcxtail + bcx * acytail);
    if (det >= errbound || -det >= errbound) return det;

    // Stage D: the exact value.
    double u[4];
    double c1[8], c2[12], dExp[16];
    productDifference(acxtail, bcy, acytail, bcx, u);
    const int c1len = expansionSum(4, bExp, 4, u, c1);
    productDifference(acx, bcytail, acy, bcxtail, u);
    const int c2len = expansionSum(c1len, c1, 4, u, c2);
    productDifference(acxtail, bcytail, acytail, bcxtail, u);
    const int dlen = expansionSum(c2len, c2, 4, u, dExp);
    return dExp[dlen - 1];
}

// ---- orient3d ---------------------------------------------------------------------------------

// Cross term of the tails of one point with the heads of another:
// xtail * oy - ytail * ox, as an expansion of up to four components.
int tailCross(double xtail, double ytail, double ox, double oy, double out[4]) {
    if (xtail == 0.0) {
        if (ytail == 0.0) {
            out[0] = 0.0;
            return 1;
        }
        out[1] = twoProduct(-ytail, ox, out[0]);
        return 2;
    }
    if (ytail == 0.0) {
        out[1] = twoProduct(xtail, oy, out[0]);
        return 2;
    }
    productDifference(xtail, oy, ytail, ox, out);
    return 4;
}

double orient3dAdaptive(const double* pa, const double* pb, const double* pc, const double* pd,
                        double permanent) {
    const double adx = pa[0] - pd[0], bdx = pb[0] - pd[0], cdx = pc[0] - pd[0];
    const double ady = pa[1] - pd[1], bdy = pb[1] - pd[1], cdy = pc[1] - pd[1];
    const double adz = pa[2] - pd[2], bdz = pb[2] - pd[2], cdz = pc[2] - pd[2];

    // Stage B: exact determinant of the rounded differences.
    double bc[4], ca[4], ab[4];
    productDifference(bdx, cdy, cdx, bdy, bc);
    productDifference(cdx, ady, adx, cdy, ca);
    productDifference(adx, bdy, bdx, ady, ab);
    double adet[8], bdet[8], cdet[8], abdet[16];
    const int alen = scaleExpansion(4, bc, adz, adet);
    const int blen = scaleExpansion(4, ca, bdz, bdet);
    const int clen = scaleExpansion(4, ab, cdz, cdet);
    const int ablen = expansionSum(alen, adet, blen, bdet, abdet);
    double fin[192];
    const int finlen = expansionSum(ablen, abdet, clen, cdet, fin);

    double det = estimate(finlen, fin);
    double errbound = kConstants.o3derrboundB * permanent;
    if (det >= errbound || -det >= errbound) return det;

    const double adxtail = twoDiffTail(pa[0], pd[0], adx);
    const double bdxtail = twoDiffTail(pb[0], pd[0], bdx);
    const double cdxtail = twoDiffTail(pc[0], pd[0], cdx);
    const double adytail = twoDiffTail(pa[1], pd[1], ady);
    const double bdytail = twoDiffTail(pb[1], pd[1], bdy);
    const double cdytail = twoDiffTail(pc[1], pd[1], cdy);
    const double adztail = twoDiffTail(pa[2], pd[2], adz);
    const double bdztail = twoDiffTail(pb[2], pd[2], bdz);
    const double cdztail = twoDiffTail(pc[2], pd[2], cdz);
    if (adxtail == 0.0 && bdxtail == 0.0 && cdxtail == 0.0 && adytail == 0.0 && bdytail == 0.0 &&
        cdytail == 0.0 && adztail == 0.0 && bdztail == 0.0 && cdztail == 0.0)
        return det;

    // Stage C: first-order correction from the tails.
    errbound = kConstants.o3derrboundC * permanent + kConstants.resulterrbound * std::fabs(det);
    det += (adz * ((bdx * cdytail + cdy * bdxtail) - (bdy * cdxtail + cdx * bdytail)) +
            adztail * (bdx * cdy - bdy * cdx)) +
           (bdz * ((cdx * adytail + ady * cdxtail) - (cdy * adxtail + adx * cdytail)) +
            bdztail * (cdx * ady - cdy * adx)) +
           (cdz * ((adx * bdytail + bdy * adxtail) - (ady * bdxtail + bdx * adytail)) +
            cdztail * (adx * bdy - ady * bdx));
    if (det >= errbound || -det >= errbound) return det;

    // Stage D: the exact value. Writing each difference as head + tail, the 2x2 minor of b and c
    // is bc + (bt_c + ct_b) + (bdxtail cdytail - cdxtail bdytail), where p_q is the cross term
    // of p's tails with q's heads; likewise for the other two minors.
    Accumulator acc(finlen, fin);

    double at_b[4], at_c[4], bt_c[4], bt_a[4], ct_a[4], ct_b[4];
    const int at_blen = tailCross(adxtail, adytail, bdx, bdy, at_b);    // adxt bdy - adyt bdx
    const int at_clen = tailCross(-adxtail, -adytail, cdx, cdy, at_c);  // adyt cdx - adxt cdy
    const int bt_clen = tailCross(bdxtail, bdytail, cdx, cdy, bt_c);    // bdxt cdy - bdyt cdx
    const int bt_alen = tailCross(-bdxtail, -bdytail, adx, ady, bt_a);  // bdyt adx - bdxt ady
    const int ct_alen = tailCross(cdxtail, cdytail, adx, ady, ct_a);    // cdxt ady - cdyt adx
    const int ct_blen = tailCross(-cdxtail, -cdytail, bdx, bdy, ct_b);  // cdyt bdx - cdxt bdy

    double bct[8], cat[8], abt[8];
    const int bctlen = expansionSum(bt_clen, bt_c, ct_blen, ct_b, bct);
    const int catlen = expansionSum(ct_alen, ct_a, at_clen, at_c, cat);
    const int abtlen = expansionSum(at_blen, at_b, bt_alen, bt_a, abt);

    double w[16];
    int wlen = scaleExpansion(bctlen, bct, adz, w);
    acc.add(wlen, w);
    wlen = scaleExpansion(catlen, cat, bdz, w);
    acc.add(wlen, w);
    wlen = scaleExpansion(abtlen, abt, cdz, w);
    acc.add(wlen, w);

    double v[8];
    if (adztail != 0.0) acc.add(scaleExpansion(4, bc, adztail, v), v);
    if (bdztail != 0.0) acc.add(scaleExpansion(4, ca, bdztail, v), v);
    if (cdztail != 0.0) acc.add(scaleExpansion(4, ab, cdztail, v), v);

    // Products of two tails times a full z difference (head and tail).
    auto addTailProduct = [&acc](double t1, double t2, double z, double ztail) {
        double pr[2];
        pr[1] = twoProduct(t1, t2, pr[0]);
        double u[4];
        acc.add(scaleExpansion(2, pr, z, u), u);
        if (ztail != 0.0) acc.add(scaleExpansion(2, pr, ztail, u), u);
    };
    if (adxtail != 0.0) {
        if (bdytail != 0.0) addTailProduct(adxtail, bdytail, cdz, cdztail);
        if (cdytail != 0.0) addTailProduct(-adxtail, cdytail, bdz, bdztail);
    }
    if (bdxtail != 0.0) {
        if (cdytail != 0.0) addTailProduct(bdxtail, cdytail, adz, adztail);
        if (adytail != 0.0) addTailProduct(-bdxtail, adytail, cdz, cdztail);
    }
    if (cdxtail != 0.0) {
        if (adytail != 0.0) addTailProduct(cdxtail, adytail, bdz, bdztail);
        if (bdytail != 0.0) addTailProduct(-cdxtail, bdytail, adz, adztail);
    }

    if (adztail != 0.0) acc.add(scaleExpansion(bctlen, bct, adztail, w), w);
    if (bdztail != 0.0) acc.add(scaleExpansion(catlen, cat, bdztail, w), w);
    if (cdztail != 0.0) acc.add(scaleExpansion(abtlen, abt, cdztail, w), w);

    return acc.mostSignificant();
}

}  // namespace

// Products below this are too close to underflow for the floating-point stage's error bound.
constexpr double kFilterLow = 0x1p-900;

const Constants& constants() { return kConstants; }

void exactinit() {
    // The table is computed when the library is built and is read-only: nothing is left to do
    // at run time, and calling this any number of times from any thread is harmless.
}

namespace {

// The expansion arithmetic is exact as long as no product underflows or overflows: with every
// non-zero coordinate within [2^-200, 2^300] in magnitude, products of three differences (and
// of their rounding tails) stay far inside the double range. Other finite inputs are evaluated
// exactly in wide fixed-point arithmetic.
constexpr double kExpansionLow = 0x1p-200;
constexpr double kExpansionHigh = 0x1p300;

bool expansionSafe(const double* const* pts, int npts, int dims) {
    for (int i = 0; i < npts; ++i)
        for (int k = 0; k < dims; ++k) {
            const double a = std::fabs(pts[i][k]);
            if (!(a <= kExpansionHigh) || (a != 0.0 && a < kExpansionLow)) return false;
        }
    return true;
}

bool allFinite(const double* const* pts, int npts, int dims) {
    for (int i = 0; i < npts; ++i)
        for (int k = 0; k < dims; ++k)
            if (!std::isfinite(pts[i][k])) return false;
    return true;
}

// px qy - py qx
void addDet2(GmExactProductSum::Accumulator& acc, int sign, const double* p, const double* q) {
    acc.add(sign, p[0], q[1]);
    acc.add(-sign, p[1], q[0]);
}

// p . (q x r)
void addDet3(GmExactProductSum::Accumulator& acc, int sign, const double* p, const double* q, const double* r) {
    acc.add(sign, p[0], q[1], r[2]);
    acc.add(-sign, p[0], q[2], r[1]);
    acc.add(sign, p[1], q[2], r[0]);
    acc.add(-sign, p[1], q[0], r[2]);
    acc.add(sign, p[2], q[0], r[1]);
    acc.add(-sign, p[2], q[1], r[0]);
}

double orient2dWide(const double* pa, const double* pb, const double* pc) {
    // det(a - c, b - c) = det(a, b) - det(a, c) + det(b, c)
    GmExactProductSum::Accumulator acc;
    addDet2(acc, 1, pa, pb);
    addDet2(acc, -1, pa, pc);
    addDet2(acc, 1, pb, pc);
    return acc.approximate();
}

double orient3dWide(const double* pa, const double* pb, const double* pc, const double* pd) {
    // det(a - d, b - d, c - d) = det(a, b, c) - det(a, b, d) + det(a, c, d) - det(b, c, d)
    GmExactProductSum::Accumulator acc;
    addDet3(acc, 1, pa, pb, pc);
    addDet3(acc, -1, pa, pb, pd);
    addDet3(acc, 1, pa, pc, pd);
    addDet3(acc, -1, pb, pc, pd);
    return acc.approximate();
}

double orient2dSlow(const double* pa, const double* pb, const double* pc) {
    const double* pts[3] = {pa, pb, pc};
    if (!allFinite(pts, 3, 2)) return std::numeric_limits<double>::quiet_NaN();
    const double acx = pa[0] - pc[0], bcy = pb[1] - pc[1], acy = pa[1] - pc[1], bcx = pb[0] - pc[0];
    // A difference of doubles is zero only when they are equal: then the determinant is 0.
    if ((acx == 0.0 || bcy == 0.0) && (acy == 0.0 || bcx == 0.0)) return 0.0;
    if (!expansionSafe(pts, 3, 2)) return orient2dWide(pa, pb, pc);
    const double detsum = std::fabs(acx * bcy) + std::fabs(acy * bcx);
    return orient2dAdaptive(pa, pb, pc, detsum);
}

double orient3dSlow(const double* pa, const double* pb, const double* pc, const double* pd) {
    const double* pts[4] = {pa, pb, pc, pd};
    if (!allFinite(pts, 4, 3)) return std::numeric_limits<double>::quiet_NaN();
    if (!expansionSafe(pts, 4, 3)) return orient3dWide(pa, pb, pc, pd);
    double det, permanent;
    if (GmOrient3dFilter::stageA(pa, pb, pc, pd, det, permanent)) return det;
    return orient3dAdaptive(pa, pb, pc, pd, permanent);
}

}  // namespace

double orient2d(const double* pa, const double* pb, const double* pc) {
    const double detleft = (pa[0] - pc[0]) * (pb[1] - pc[1]);
    const double detright = (pa[1] - pc[1]) * (pb[0] - pc[0]);
    const double det = detleft - detright;
    // The published case split, taken only while the two products are far from underflow and
    // finite; everything else goes through the range-checked path.
    const double detsum = std::fabs(detleft) + std::fabs(detright);
    if (!(detsum >= kFilterLow && detsum <= DBL_MAX)) return orient2dSlow(pa, pb, pc);
    if ((detleft > 0.0 && detright <= 0.0) || (detleft < 0.0 && detright >= 0.0)) return det;
    const double errbound = kConstants.ccwerrboundA * detsum;
    if (det >= errbound || -det >= errbound) return det;
    return orient2dSlow(pa, pb, pc);
}

double orient3d(const double* pa, const double* pb, const double* pc, const double* pd) {
    static_assert(GmOrient3dFilter::kBoundA == kConstants.o3derrboundA, "one stage-A bound");
    double det, permanent;
    if (GmOrient3dFilter::stageA(pa, pb, pc, pd, det, permanent)) return det;
    return orient3dSlow(pa, pb, pc, pd);
}

}  // namespace GmPredicates

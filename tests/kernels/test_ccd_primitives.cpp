// Continuous-time vertex-face and edge-edge primitives: the cubic root walk, hand-made motions
// (scaled, rotated) with exact messages, generated hard cases checked in exact rational arithmetic,
// the ground-truth sample queries, and the swept separation filter against all of these.

#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <cfloat>
#include <cmath>
#include <filesystem>
#include <iostream>
#include <initializer_list>
#include <random>
#include <sstream>
#include <string>
#include <utility>
#include <vector>

#include <qgtools/ccd_queries.h>
#include <qgtools/data_dir.h>
#include <quarrygeom/primitives/GmIntersection.h>
#include <quarrygeom/primitives/GmSweptSeparation.h>

#include "exact_reference.h"

namespace {

using Vec = GmTVector<double>;
namespace detail = GmIntersection::detail;
constexpr double kNoBound = DBL_MAX;

// Captures std::cerr for its lifetime.
struct CerrCapture {
    std::ostringstream buf;
    std::streambuf* old = std::cerr.rdbuf(buf.rdbuf());
    ~CerrCapture() { std::cerr.rdbuf(old); }
};

// What a primitive reports; `time` keeps its sentinel unless the primitive writes it.
struct Contact {
    bool hit = false;
    double time = -7.0, s = 0, t = 0;
    Vec point, bary, normal;
};

// v: start positions of the four points, then their end positions (vertex-face p, a, b, c;
// edge-edge a, b, c, d).
inline Contact ccd(bool edgeEdge, const Vec* v, double bound = kNoBound) {
    Contact c;
    c.hit = edgeEdge ? GmIntersection::edgeEdgeIntersection(v[0], v[1], v[2], v[3], v[4], v[5], v[6], v[7], bound,
                                                            c.time, c.s, c.t, c.normal)
                     : GmIntersection::pointFaceIntersection(v[0], v[1], v[2], v[3], v[4], v[5], v[6], v[7], bound,
                                                             c.time, c.point, c.bary, c.normal);
    return c;
}

Vec lerp(const Vec& a, const Vec& b, double t) { return a + (b - a) * t; }

// Monomial coefficients of k (t - r0)(t - r1)(t - r2).
void cubicFromRoots(double k, double r0, double r1, double r2, double c[4]) {
    c[3] = k;
    c[2] = -k * (r0 + r1 + r2);
    c[1] = k * (r0 * r1 + r0 * r2 + r1 * r2);
    c[0] = -k * r0 * r1 * r2;
}

// Either filter: coplanarity ruled out, or one feature beside the other.
bool filterRejects(bool ee, const Vec* v) {
    return ee ? GmSweptSeparation::edgeEdgeApart(v[0], v[1], v[2], v[3], v[4], v[5], v[6], v[7]) ||
                    GmSweptSeparation::edgeEdgeBeside(v[0], v[1], v[2], v[3], v[4], v[5], v[6], v[7])
              : GmSweptSeparation::vertexFaceApart(v[0], v[1], v[2], v[3], v[4], v[5], v[6], v[7]) ||
                    GmSweptSeparation::vertexFaceBeside(v[0], v[1], v[2], v[3], v[4], v[5], v[6], v[7]);
}

// The reported contact is one: at the reported time the vertex is at the reported point, which the
// weights give on the face; or the edges' points at s and t coincide. The swept separation filter
// keeps it.
void expectTouching(bool ee, const Vec* v, const Contact& c, double tol, const std::string& where) {
    ASSERT_TRUE(std::isfinite(c.time) && c.time >= 0.0 && c.time <= 1.0) << where << " time " << c.time;
    EXPECT_NEAR(c.normal.length(), 1.0, 1e-12) << where;
    EXPECT_FALSE(filterRejects(ee, v)) << "filter rejects a contact: " << where;
    Vec p[4];
    for (int k = 0; k < 4; ++k) p[k] = lerp(v[k], v[k + 4], c.time);
    if (ee) {
        EXPECT_LE((lerp(p[0], p[1], c.s) - lerp(p[2], p[3], c.t)).length(), tol) << where;
    } else {
        EXPECT_NEAR(c.bary.x + c.bary.y + c.bary.z, 1.0, 1e-9) << where;
        EXPECT_LE((p[0] - c.point).length(), tol) << where;
        EXPECT_LE((p[1] * c.bary.x + p[2] * c.bary.y + p[3] * c.bary.z - c.point).length(), tol) << where;
    }
}

// A similarity x -> o + scale R x; random rigid motions.
struct Frame {
    Vec ax{1, 0, 0}, ay{0, 1, 0}, az{0, 0, 1}, o;
    double scale = 1.0;
    Vec dir(const Vec& d) const { return ax * d.x + ay * d.y + az * d.z; }
    Vec operator()(const Vec& p) const { return o + dir(p) * scale; }
};

Frame randomRigid(std::mt19937& rng) {
    std::uniform_real_distribution<double> u(-1.0, 1.0);
    Frame f;
    const Vec x(u(rng), u(rng), u(rng)), y(u(rng), u(rng), u(rng));
    f.ax = x.safeNormalized(), f.ay = (y - f.ax * f.ax.dot(y)).safeNormalized(), f.az = f.ax.cross(f.ay);
    f.o = Vec(u(rng), u(rng), u(rng)) * 10.0;
    return f;
}

// The pre-check rejects only cubics without a root in the step; the times the walk tests.
TEST(CcdRootWalk, PreCheckAndTimesTested) {
    const struct { double c[4]; bool rejects; } prechecks[] = {
        {{4, 1, 1, 1}, true},  {{1, 2, -1, -1}, true},   {{3, -3.5, 0.5, 0.3}, true}, {{1, 1, 1, -2.5}, true},
        {{1, 1, 1, -3.5}, false}, {{-0.5, 1, 0, 0}, false}, {{1.0 + 1e-13, -1.0, 0, 0}, true},
    };
    for (const auto& k : prechecks)
        EXPECT_EQ(detail::cubicRootPreCheckRejects(k.c[0], k.c[1], k.c[2], k.c[3]), k.rejects) << k.c[0] << " " << k.c[1];
    std::mt19937 rng(7);
    std::uniform_real_distribution<double> u(-3.0, 3.0), r(0.01, 1.0);
    for (int i = 0; i < 2000; ++i) {
        double c[4];
        cubicFromRoots(u(rng), r(rng), u(rng), u(rng), c);
        EXPECT_FALSE(detail::cubicRootPreCheckRejects(c[0], c[1], c[2], c[3])) << c[0] << " " << c[1] << " " << c[2];
    }
    // k (t - r0)(t - r1)(t - r2) + shift, and the times tested (all, or for a double root the first).
    const struct { const char* what; double k, r0, r1, r2, shift; std::vector<double> times; bool all; } cases[] = {
        {"root just after the step: clamped to 1", 1.0, -5.0, 0.5, 1.0000005, 0.0, {0.5, 1.0}, true},
        {"|p(1)| below 1e-12: solved although the pre-check rejects", 1e-7, 1.0000005, 2.0, 3.0, 0.0, {1.0}, true},
        {"first root beyond the step ends the search", 1e-8, 1.00001, 2.0, 3.0, 0.0, {}, true},
        {"root below -1e-6 skipped", 1.0, -2e-6, 0.5, 3.0, 0.0, {0.5}, true},
        {"root in (-1e-6, 0) passed over", 1.0, -5e-7, 0.5, 3.0, 0.0, {0.5}, true},
        {"double root", 1.0, 0.3, 0.3, 4.0, 0.0, {0.3}, false},
        {"double root lifted", 1.0, 0.3, 0.3, 4.0, 1e-16, {0.3}, false},
        {"double root lifted less", 1.0, 0.3, 0.3, 4.0, 1e-17, {0.3}, false},
        {"double root lowered", 1.0, 0.3, 0.3, 4.0, -1e-17, {0.3}, false},
    };
    for (const auto& k : cases) {
        double c[4], times[8];
        cubicFromRoots(k.k, k.r0, k.r1, k.r2, c);
        c[0] += k.shift;
        const int n = detail::rootWalkTimes(c[0], c[1], c[2], c[3], times);
        ASSERT_TRUE(k.all ? n == int(k.times.size()) : n >= 1) << k.what << ": " << n;
        for (int i = 0; i < std::min(n, int(k.times.size())); ++i)
            EXPECT_NEAR(times[i], k.times[i], k.all ? 1e-12 : 1e-6) << k.what;
    }
    double times[8];  // a cubic vanishing at 1 + 1e-13, which the pre-check rejects: tested at 1
    ASSERT_EQ(detail::rootWalkTimes(1.0 + 1e-13, -1.0, 0.0, 0.0, times), 1);
    EXPECT_EQ(times[0], 1.0);
    // Newton: converges from a rough start, leaves an exact root alone, stays finite far away.
    EXPECT_NEAR(detail::refineCubicRoot(-0.25, 1.0, 0.0, 0.0, 0.3), 0.25, 1e-15);
    EXPECT_EQ(detail::refineCubicRoot(-0.25, 1.0, 0.0, 0.0, 0.25), 0.25);
    const double far = detail::refineCubicRoot(-1.0, 0.0, 0.0, 1.0, 100.0);
    EXPECT_TRUE(std::isfinite(far) && far > 1.5);
}

enum : int { kScaled = 1, kRotated = 2 };
const std::string kNoNormalVF = "Error in GmIntersection::pointFaceIntersection() ... Unable to compute collision normal.\n";
const std::string kNoNormalEE = "Error in GmIntersection::edgeEdgeIntersection() ... Unable to compute collision normal.\n";

struct Motion {
    const char* what;
    bool ee;
    Vec v[8];
    double time;     // < 0: no contact
    Vec normal;      // zero: only unit length checked
    Vec param;       // weights (vertex-face) or (s, t, 0) (edge-edge); x < 0: not checked
    int frames;      // also run scaled by powers of two / under random rigid motions
    std::string message;  // std::cerr, exactly
    bool anySign;    // the normal's sign is not determined

    Motion(const char* w, bool e, std::initializer_list<Vec> pts, double t, const Vec& n = Vec(),
           const Vec& p = Vec(-1, 0, 0), int f = kScaled, std::string msg = "", bool any = false)
        : what(w), ee(e), time(t), normal(n), param(p), frames(f), message(std::move(msg)), anySign(any) {
        std::copy(pts.begin(), pts.end(), v);
    }
};

// Face (0,0,0) (1,0,0) (0,1,0) at rest in z = 0, and a vertex moving from p to q.
Motion vf(const char* what, const Vec& p, const Vec& q, double time, const Vec& normal = Vec(),
          const Vec& param = Vec(-1, 0, 0), int frames = kScaled) {
    return Motion(what, false, {p, {0, 0, 0}, {1, 0, 0}, {0, 1, 0}, q, {0, 0, 0}, {1, 0, 0}, {0, 1, 0}}, time, normal,
                  param, frames);
}

// Edge (-1,0,0) (1,0,0) at rest, and an edge moving from c0-d0 to c1-d1.
Motion ex(const char* what, const Vec& c0, const Vec& d0, const Vec& c1, const Vec& d1, double time,
          const Vec& normal = Vec(), const Vec& param = Vec(-1, 0, 0), int frames = kScaled, bool anySign = false) {
    return Motion(what, true, {{-1, 0, 0}, {1, 0, 0}, c0, d0, {-1, 0, 0}, {1, 0, 0}, c1, d1}, time, normal, param, frames,
                  "", anySign);
}

const double h7 = 1e-7, ss = 5e-6, sk = 1e-6, big = 0x1p520;  // a tiny face; a short, shallow crossing
const Vec o;
const Motion kMotions[] = {
    vf("vertex through the face", {0.2, 0.2, 1}, {0.2, 0.2, -1}, 0.5, {0, 0, 1}, {0.6, 0.2, 0.2}, kScaled | kRotated),
    vf("vertex beside the face", {0.8, 0.8, 1}, {0.8, 0.8, -1}, -1, {}, {-1, 0, 0}, kScaled | kRotated),
    vf("vertex sliding along the line of an edge", {-1, 0, 0}, {2, 0, 0}, 1.0 / 3.0, {}, {1, 0, 0}, kScaled | kRotated),
    vf("vertex moving in the plane beside the face", {-1, 2, 0}, {2, 2, 0}, -1),
    vf("vertex in the face from the start", {0.2, 0.2, 0}, {0.3, 0.2, 0}, 0.0),
    {"face rising to the resting vertex at the end", false,
     {{0.2, 0.2, 1}, o, {1, 0, 0}, {0, 1, 0}, {0.2, 0.2, 1}, {0, 0, 1}, {1, 0, 1}, {0, 1, 1}}, 1.0, {0, 0, 1}},
    {"face turning through the resting vertex", false,
     {{0.25, 0.25, 0}, {0, 0, 1}, {1, 0, 1}, {0, 1, -1}, {0.25, 0.25, 0}, {0, 0, -1}, {1, 0, -1}, {0, 1, 1}}, 0.5},
    // Coplanarity cubic -(2t - 1)^2: a touch without crossing, which rounding may turn into a complex pair.
    {"vertex touching a tilting face", false,
     {{-0.75, 0.25, -0.25}, o, {1, 0, -1}, {0, 1, 0}, {1.25, 0.25, 0.25}, o, {1, 0, 1}, {0, 1, 0}}, 0.5, {},
     {0.5, 0.25, 0.25}, kScaled | kRotated},
    // Tiny against the vertex's travel, but far above the cubic's rounding noise.
    {"vertex through a face 1e-7 across", false,
     {{0.2 * h7, 0.2 * h7, 1}, o, {h7, 0, 0}, {0, h7, 0}, {0.2 * h7, 0.2 * h7, -1}, o, {h7, 0, 0}, {0, h7, 0}}, 0.5,
     {0, 0, 1}, {0.6, 0.2, 0.2}},
    {"vertex beside a face 1e-7 across", false,
     {{2 * h7, 2 * h7, 1}, o, {h7, 0, 0}, {0, h7, 0}, {2 * h7, 2 * h7, -1}, o, {h7, 0, 0}, {0, h7, 0}}, -1},
    ex("edges crossing", {0.5, -1, 1}, {0.5, 1, 1}, {0.5, -1, -1}, {0.5, 1, -1}, 0.5, {0, 0, -1}, {0.75, 0.5, 0},
       kScaled | kRotated),
    ex("edge passing beyond the end of the other", {1.5, -1, 1}, {1.5, 1, 1}, {1.5, -1, -1}, {1.5, 1, -1}, -1, {}, {-1, 0, 0},
       kScaled | kRotated),
    // Coplanarity cubic a multiple of -(2t - 1)^2: the edges meet without the points changing sides.
    ex("edge twisting past the other", {0, -1.5, 0.5}, {0, -0.5, -0.5}, {0, 0.5, -0.5}, {0, 1.5, 0.5}, 0.5, {}, {0.5, 0.5, 0},
       kScaled | kRotated),
    ex("edges in one plane, one sweeping across the other", {0, 2, 0}, {0, 0.5, 0}, o, {0, -1.5, 0}, 0.25, {0, 0, 1},
       {-1, 0, 0}, kScaled, true),
    ex("edges in one plane, apart", {3, 2, 0}, {3, 0.5, 0}, {3, 0, 0}, {3, -1.5, 0}, -1),
    ex("end point landing on the other edge", {0.3, 0, 1}, {0.3, 0, 2}, {0.3, 0, -1}, {0.3, 0, 0}, 0.5, {}, {0.65, 0, 0}),
    ex("edge landing across the other at the end", {0.5, -1, 1}, {0.5, 1, 1}, {0.5, -1, 0}, {0.5, 1, 0}, 1.0, {0, 0, -1}),
    // Crossing at the start: against the relative motion.
    ex("edges crossing at the start, parting", {0.5, -1, 0}, {0.5, 1, 0}, {0.5, -1, -1}, {0.5, 1, -1}, 0.0, {0, 0, -1},
       {0.75, 0.5, 0}),
    // Edges 1e-5 long crossing at 1e-6 rad: their cross product is 1e-16 long, far above its noise.
    // Unscaled: from 2^10 up its normal currently comes out in the edges' plane.
    {"short, shallow crossing", true,
     {{-ss, -ss * sk, ss}, {ss, ss * sk, ss}, {-ss, 0, 0}, {ss, 0, 0}, {-ss, -ss * sk, -ss}, {ss, ss * sk, -ss}, {-ss, 0, 0},
      {ss, 0, 0}}, 0.5, {0, 0, 1}, {-1, 0, 0}, 0},
    {"parallel edges approaching, apart", true, {o, {2, 0, 0}, {0, 1, 0}, {2, 1, 0}, o, {2, 0, 0}, {0, 0.5, 0}, {2, 0.5, 0}}, -1},
    // Degenerate own normal: the direction between the features at the start, else against their motion.
    {"vertex through a segment face", false,
     {{0.5, 0, 1}, o, {1, 0, 0}, {2, 0, 0}, {0.5, 0, -1}, o, {1, 0, 0}, {2, 0, 0}}, 0.5, {0, 0, 1}},
    {"face collapsing as the vertex arrives", false,
     {{0.25, 0, 1}, o, {1, 0, 0}, {0, 1, 0}, {0.25, 0, 0}, o, {1, 0, 0}, {0.5, 0, 0}}, 1.0, {0, 0, 1}},
    {"vertex leaving a segment face it starts on", false,
     {{0.5, 0, 0}, o, {1, 0, 0}, {2, 0, 0}, {0.5, 0, -1}, o, {1, 0, 0}, {2, 0, 0}}, 0.0, {0, 0, 1}},
    {"parallel edge landing on another", true,
     {{0, 0, 1}, {1, 0, 1}, {0.5, 0, 0}, {1.5, 0, 0}, o, {1, 0, 0}, {0.5, 0, 0}, {1.5, 0, 0}}, 1.0, {0, 0, 1}},
    {"parallel edge landing obliquely: the start direction, not the motion", true,
     {{0, 0, 1}, {1, 0, 1}, {0.5, 0, 0}, {1.5, 0, 0}, {0.5, 0, 0}, {1.5, 0, 0}, {0.5, 0, 0}, {1.5, 0, 0}}, 1.0, {0, 0, 1}},
    {"parallel edges meeting inside their plane", true,
     {{0, 1, 0}, {1, 1, 0}, {0.5, 0, 0}, {1.5, 0, 0}, {0, -1, 0}, {1, -1, 0}, {0.5, 0, 0}, {1.5, 0, 0}}, 0.5, {0, 1, 0}},
    {"collinear edges parting", true,
     {o, {1, 0, 0}, {0.5, 0, 0}, {1.5, 0, 0}, {0, 0, -1}, {1, 0, -1}, {0.5, 0, 0}, {1.5, 0, 0}}, 0.0, {0, 0, 1}},
    // No direction at all: features that coincide for the whole step.
    {"collinear edges overlapping throughout", true, {o, {2, 0, 0}, {1, 0, 0}, {3, 0, 0}, o, {2, 0, 0}, {1, 0, 0}, {3, 0, 0}},
     -1, {}, {-1, 0, 0}, kScaled, kNoNormalEE},
    {"vertex resting on a segment face", false, {{0.5, 0, 0}, o, {1, 0, 0}, {2, 0, 0}, {0.5, 0, 0}, o, {1, 0, 0}, {2, 0, 0}},
     -1, {}, {-1, 0, 0}, kScaled, kNoNormalVF},
    {"edges crossing beyond 2^500", true,
     {{-big, 0, 0}, {big, 0, 0}, {0, -big, big}, {0, big, big}, {-big, 0, 0}, {big, 0, 0}, {0, -big, -big}, {0, big, -big}},
     -1, {}, {-1, 0, 0}, 0, "Error in GmIntersection::edgeEdgeIntersection() ... Coordinates outside the supported range.\n"},
    {"vertex through a face beyond 2^500", false,
     {{big / 4, big / 4, big}, o, {big, 0, 0}, {0, big, 0}, {big / 4, big / 4, -big}, o, {big, 0, 0}, {0, big, 0}}, -1, {},
     {-1, 0, 0}, 0, "Error in GmIntersection::pointFaceIntersection() ... Coordinates outside the supported range.\n"},
};

void expectMotion(const Motion& m, const Frame& f, double tol, const std::string& where) {
    Vec v[8];
    for (int i = 0; i < 8; ++i) v[i] = f(m.v[i]);
    CerrCapture cap;
    const Contact c = ccd(m.ee, v);
    EXPECT_EQ(cap.buf.str(), m.message) << where;
    if (m.time < 0.0) {
        EXPECT_FALSE(c.hit) << where;
        EXPECT_EQ(c.time, -7.0) << where << ": outputs written";
        return;
    }
    ASSERT_TRUE(c.hit) << where;
    EXPECT_NEAR(c.time, m.time, tol) << where;
    if (m.normal.lengthSquared() > 0.0) {
        const Vec n = f.dir(m.normal);
        EXPECT_NEAR(m.anySign ? std::fabs(c.normal.dot(n)) : c.normal.dot(n), 1.0, tol) << where << ": " << c.normal;
    }
    if (m.param.x >= 0.0) {
        EXPECT_LT(((m.ee ? Vec(c.s, c.t, 0) : c.bary) - m.param).length(), tol) << where;
    }
    expectTouching(m.ee, v, c, 4.0 * tol * f.scale + 1e-14 * f.o.length(), where);
    if (c.time > 0.0 && f.o.lengthSquared() == 0.0) {
        CerrCapture quiet;
        EXPECT_FALSE(ccd(m.ee, v, c.time).hit) << where << ": contact at the time bound kept";
    }
}

TEST(CcdMotions, HandMadeCasesAtEveryScaleAndOrientation) {
    std::mt19937 rng(31);
    for (const Motion& m : kMotions) {
        expectMotion(m, Frame(), 1e-9, m.what);
        if (m.frames & kScaled)
            for (const int k : {-60, -20, 20, 40}) {
                Frame f;
                f.scale = std::ldexp(1.0, k);
                expectMotion(m, f, 1e-9, std::string(m.what) + " at 2^" + std::to_string(k));
            }
        if (m.frames & kRotated)
            for (int n = 0; n < 100; ++n) expectMotion(m, randomRigid(rng), 1e-6, std::string(m.what) + " moved " + std::to_string(n));
    }
}

TEST(CcdMotions, ExtremeInputNeverThrowsNorGivesNaN) {
    // All points at one place; collinear; 1e-300 apart; 1e150 apart; a vertex resting in the face.
    const std::vector<std::vector<Vec>> cases = {std::vector<Vec>(8, Vec(0, 0, 0)), std::vector<Vec>(8, Vec(1, 1, 1)),
        {{0, 0, 0}, {1, 0, 0}, {2, 0, 0}, {3, 0, 0}, {0, 0, 0}, {1, 0, 0}, {2, 0, 0}, {3, 0, 0}},
        {{0, 0, 0}, {1e-300, 0, 0}, {0, 1e-300, 0}, {0, 0, 1e-300}, {0, 0, 0}, {0, 0, 0}, {0, 0, 0}, {0, 0, 0}},
        {{1e150, 0, 0}, {0, 1e150, 0}, {0, 0, 1e150}, {-1e150, 0, 0}, {0, 0, 1e150}, {1e150, 0, 0}, {0, 1e150, 0}, {0, 0, -1e150}},
        {{0.5, 0.5, 0}, {0, 0, 0}, {1, 0, 0}, {0, 1, 0}, {0.5, 0.5, 0}, {0, 0, 0}, {1, 0, 0}, {0, 1, 0}}};
    CerrCapture cap;
    for (const auto& v : cases)
        for (const bool ee : {false, true}) {
            Contact c;
            EXPECT_NO_THROW(c = ccd(ee, v.data()));
            if (c.hit) {
                EXPECT_TRUE(std::isfinite(c.time + c.s + c.t + c.normal.length() + c.point.length() + c.bary.length()));
                EXPECT_NEAR(c.normal.length(), 1.0, 1e-12);
            }
        }
    std::istringstream lines(cap.buf.str());
    for (std::string line; std::getline(lines, line);)
        EXPECT_TRUE(line + "\n" == kNoNormalVF || line + "\n" == kNoNormalEE) << line;
}

// Features that meet at `time` by construction (on a dyadic grid, so every construction is exact):
// edges crossing, parallel edges passing through each other, collinear edges meeting end to end,
// edges or a vertex and a face moving inside one plane, a vertex through a face's interior, edge or
// corner, a face collapsing to a segment at the contact.
struct Constructed {
    const char* family;
    bool ee, transversal;  // transversal: meeting at an angle, so rounding noise cannot part them
    double time;
    Vec v[8];
};

std::vector<Constructed> constructedContacts() {
    std::mt19937 rng(3);
    std::uniform_int_distribution<int> g(-128, 128);
    auto d = [&](double range = 8.0) { return Vec(g(rng), g(rng), g(rng)) * (range / 128.0); };
    auto flat = [&](double range = 8.0) { return Vec(g(rng), g(rng), 0) * (range / 128.0); };
    std::vector<Constructed> out;
    for (int n = 0; n < 100; ++n) {
        const double t = (const double[]){0.0, 1.0, 0.5, 0.25, 0.75}[n % 5];
        // The points stand at `at` at time t and move with velocities `vel`.
        auto add = [&](const char* family, bool ee, bool transversal, std::array<Vec, 4> at, std::array<Vec, 4> vel) {
            Constructed q{family, ee, transversal, t, {}};
            for (std::size_t i = 0; i < 4; ++i) q.v[i] = at[i] - vel[i] * t, q.v[i + 4] = at[i] + vel[i] * (1.0 - t);
            out.push_back(q);
        };
        const Vec x = d(), u = d(2), w = d(2), v1 = d(), v2 = d(), a = flat(), b = flat(), c = flat(), f = flat();
        add("edges crossing", true, true, {x - u, x + u * 0.5, x - w * 0.5, x + w}, {d(), d(), d(), d()});
        add("parallel edges passing", true, false, {x, x + u, x + u * 0.5, x + u * 1.5}, {v1, v1, v2, v2});
        add("collinear end to end", true, false, {x - u, x, x, x + u}, {v1, v1, Vec(), Vec()});
        add("edges in one plane", true, false, {a, b, (a + b) * 0.5, (a + b) * 0.5 + flat(2)}, {Vec(), Vec(), f, f});
        const Vec p = d(), q = d(), r = d();
        add("vertex through face interior", false, true, {p * 0.25 + q * 0.25 + r * 0.5, p, q, r}, {d(), d(), d(), d()});
        add("vertex through face edge", false, false, {(p + q) * 0.5, p, q, r}, {d(), d(), d(), d()});
        add("vertex through face corner", false, false, {r, p, q, r}, {d(), d(), d(), d()});
        add("face collapsing at contact", false, false, {x + u * 0.25, x, x + u, x + u * 0.5}, {d(), d(), d(), d()});
        add("vertex and face in one plane", false, false, {(a + b) * 0.5, a, b, c}, {flat(), flat(), flat(), flat()});
    }
    return out;
}

std::string describe(const char* family, double time, const Vec* v) {
    std::ostringstream s;
    s.precision(17);
    s << family << " at t = " << time << ":";
    for (int i = 0; i < 8; ++i) s << (i == 4 ? " -> " : " ") << v[i];
    return s.str();
}

// Each construction checked in exact rational arithmetic, then scaled by powers of two (feature
// sizes 1e-12 to 1e12, coordinates up to 1e15), with rounding noise of 1e-16 relative where it
// cannot part the features: none is missed, none found later than constructed, each one real.
TEST(CcdHardCases, NoConstructedContactIsMissedAtAnyScale) {
    std::mt19937 rng(7);
    std::uniform_real_distribution<double> unit(-1.0, 1.0);
    const std::pair<int, double> frames[] = {{0, 0.0}, {-40, 0.0}, {-20, 0.0}, {20, 0.0}, {36, 0.0}, {20, 0x1p49}, {-40, 0x1p-30}};
    for (const Constructed& q : constructedContacts()) {
        qgtest::Exact p[4];
        for (int i = 0; i < 4; ++i) p[i] = qgtest::lerp(qgtest::exact(q.v[i]), qgtest::exact(q.v[i + 4]), mpq_class(q.time));
        ASSERT_TRUE(q.ee ? qgtest::exactTrianglesMeet(p[0], p[1], p[1], p[2], p[3], p[3])
                         : qgtest::exactTrianglesMeet(p[0], p[0], p[0], p[1], p[2], p[3]))
            << describe(q.family, q.time, q.v);
        for (const auto& [exponent, offset] : frames)
            for (int noisy = 0; noisy < (q.transversal && q.time > 0.0 && q.time < 1.0 ? 2 : 1); ++noisy) {
                const double sc = std::ldexp(1.0, exponent);
                Vec v[8];
                for (int i = 0; i < 8; ++i) {
                    v[i] = q.v[i] * sc + Vec(offset, -offset, offset);
                    for (int k = 0; k < 3 && noisy; ++k) v[i][k] *= 1.0 + 1e-16 * unit(rng);
                }
                const std::string what = describe(q.family, q.time, v) + (noisy ? " (noisy)" : "");
                const Contact c = ccd(q.ee, v);
                ASSERT_TRUE(c.hit) << what;
                if (!noisy) {
                    EXPECT_LE(c.time, q.time + 1e-6) << what;
                }
                // (For a face collapsing at the contact the reported point can currently be 1e-4
                // relative off the vertex.)
                const bool collapsing = std::string(q.family) == "face collapsing at contact";
                expectTouching(q.ee, v, c, collapsing ? INFINITY : 1e-9 * sc + 1e-14 * offset, what);
            }
    }
}

// One query at one scale: the primitive's contact is consistent, and the filter keeps every
// contact. Returns whether the filter rejected it.
bool check(bool ee, const Vec* v, bool truth, const std::string& what, int& hits) {
    const Contact c = ccd(ee, v);
    hits += c.hit;
    EXPECT_FALSE(truth && !c.hit) << "missed contact: " << what;
    if (c.hit) {
        EXPECT_TRUE(c.time >= 0.0 && c.time <= 1.0) << what << " time " << c.time;
        EXPECT_NEAR(c.normal.length(), 1.0, 1e-12) << what;
    }
    const bool rejected = filterRejects(ee, v);
    EXPECT_FALSE(rejected && c.hit) << "filter rejects a contact the primitive reports: " << what;
    EXPECT_FALSE(rejected && truth) << "filter rejects a true contact: " << what;
    return rejected;
}

// The ground-truth sample queries (ccd-queries/<set>/{vertex-face,edge-edge}/*.csv), each also
// scaled by powers of two: no contact of the ground truth is missed, and the swept separation
// filter never rejects a query that the primitives report as a contact or the truth calls one.
TEST(CcdSampleQueries, NoContactIsMissedNorRejectedByTheFilter) {
    const std::filesystem::path root = std::filesystem::path(qgtools::dataDir()) / "ccd-queries";
    if (!std::filesystem::is_directory(root)) GTEST_SKIP() << "no ccd-queries folder under " << qgtools::dataDir();
    int positives = 0, negatives = 0, hits = 0;
    for (const auto& entry : std::filesystem::recursive_directory_iterator(root)) {
        if (!entry.is_regular_file() || entry.path().extension() != ".csv") continue;
        const bool ee = entry.path().parent_path().filename() == "edge-edge";
        int index = 0;
        for (const qgtools::CcdQuery& q : qgtools::readCcdQueries(entry.path().string())) {
            (q.truth ? positives : negatives)++;
            const std::string what = entry.path().string() + " #" + std::to_string(index++);
            for (const double scale : {1.0, 0x1p-10, 0x1p12}) {  // exact
                Vec v[8];
                for (int k = 0; k < 8; ++k) v[k] = q.v[k] * scale;
                check(ee, v, q.truth, what + " scaled " + std::to_string(scale), hits);
            }
        }
    }
    EXPECT_GT(positives, 0);
    EXPECT_GT(negatives, 0);
}

// Random, coplanar and nearly coplanar motion, parallel edges and degenerate faces, grazing
// touches at the end of the step, rounding noise, scales and offsets by powers of two: checked
// against the primitives. (Constructed contacts: the tests above check the filter on each.)
TEST(SweptSeparation, KeepsGeneratedContactsAndRejectsSeparatedOnes) {
    std::mt19937_64 rng(0x9e3779b97f4a7c15ULL);
    std::uniform_real_distribution<double> u(-1.0, 1.0);
    auto vec = [&] { return Vec(u(rng), u(rng), u(rng)); };
    int hits = 0, rejected = 0, total = 0;
    for (int iter = 0; iter < 4000; ++iter) {
        for (const bool ee : {false, true}) {
            const int kind = iter % 7;
            Vec v[8];
            for (Vec& x : v) x = vec();  // kind 0: random motion
            if (kind == 1) {  // all in one plane throughout, with rounding noise
                for (Vec& x : v) x.z = 1e-17 * u(rng);
            } else if (kind == 2) {  // nearly coplanar
                for (Vec& x : v) x.z = 0.25 + 1e-9 * u(rng);
            } else if (kind == 3) {  // parallel edges / a degenerate face
                for (int s = 0; s < 2; ++s) {
                    v[4 * s + 3] = v[4 * s + 1] + (v[4 * s + 2] - v[4 * s + 1]) * 2.0;
                    if (ee) v[4 * s + 1] = v[4 * s + 0] + (v[4 * s + 3] - v[4 * s + 2]);
                }
            } else if (kind == 4) {  // a grazing touch at the end of the step, nearly at rest before
                for (int k = 0; k < 4; ++k) v[k] = v[k + 4] + vec() * 1e-3;
                v[4].z = v[5].z = v[6].z = v[7].z = 0.5;
            } else if (kind == 5) {  // small motion, the first point (edge) well above the others
                for (int k = 0; k < 4; ++k) v[k + 4] = v[k] + vec() * 0.1;
                for (const int k : {0, 4, 1, 5})
                    if (ee || k == 0 || k == 4) v[k].z += 3.0;
            } else if (kind == 6) {  // the face (second edge) at rest in z = 0.5, the vertex (first
                // edge) coming down onto that plane beside its last edge by 0, 0.5 or 2 tolerances
                for (Vec& x : v) x.z = 0.5;
                const double away[3] = {0.0, 0.5e-6, 2e-6};
                const Vec e = v[7] - v[6];
                Vec w = e.cross(Vec(0.0, 0.0, 1.0));
                w = w / w.length();
                if (!ee && w.dot(v[5] - v[6]) > 0.0) w = -w;  // away from the face
                const double len = ee ? e.length() : std::max({e.length(), (v[6] - v[5]).length(), (v[7] - v[5]).length()});
                v[4] = v[6] + e * 0.5 + w * (len * away[iter / 7 % 3]);
                if (ee) v[5] = v[4] + w * (0.5 * len);
                for (int k = 0; k < 4; ++k) v[k] = v[k + 4] + Vec(0.0, 0.0, k == 0 || (ee && k == 1) ? 0.1 : 0.0);
            }
            for (const double sc : {0x1p-20, 1.0, 0x1p20})
                for (const double off : {0.0, 0x1p10}) {
                    Vec s[8];
                    for (int k = 0; k < 8; ++k) s[k] = v[k] * sc + Vec(off, -off, off);
                    ++total;
                    rejected += check(ee, s, false, "kind " + std::to_string(kind) + " case " + std::to_string(iter), hits);
                }
        }
    }
    // Both outcomes occur: the generator produces contacts, and the filter is not a no-op.
    EXPECT_GT(hits, total / 20);
    EXPECT_GT(rejected, total / 20);
}

}  // namespace

// Continuous-time strand contacts: the pair kernels (the library's continuous-time primitives
// plus conservative advancement for the separation) and the visitors.

#include <quarrygeom/curves/GmCurveContinuous.h>

#include <algorithm>
#include <cfloat>
#include <cmath>
#include <tuple>

#include <quarrygeom/bvh/GmBoundingVolumeHierarchy.h>
#include <quarrygeom/core/GmParallel.h>
#include <quarrygeom/curves/GmGenericBoundingTree.h>
#include <quarrygeom/mesh/GmTriangleMesh.h>
#include <quarrygeom/primitives/GmIntersection.h>
#include <quarrygeom/primitives/GmSegmentDistance.h>

#include "../core/GmDiagnostics.h"

namespace {

typedef GmTVector<double> Vec;

constexpr int kMaxSteps = 256;          // conservative advancement: steps before a stall is reported
constexpr double kTouch = 1e-6;         // touching tolerance, relative to the features' size and motion
constexpr double kNoise = 64.0 * DBL_EPSILON;

inline Vec lerp(const Vec& a, const Vec& b, double t) { return a + (b - a) * t; }
inline double maxAbs(const Vec& v) { return std::max({std::fabs(v.x), std::fabs(v.y), std::fabs(v.z)}); }

// A time in [0, end] at which dist(t) <= sep + tol and no later than the first time at which
// dist(t) <= sep, for a distance of Lipschitz constant `speed` in t: steps by (d - sep) / speed,
// which never passes that first time, and converges onto it, so the tolerance ends the walk.
// Returns 0 when there is none, 1 with the time, 2 with the time reached when kMaxSteps steps
// did not settle it.
template <class Dist>
int advance(double sep, double tol, double speed, double end, Dist&& dist, double& time) {
    double t = 0.0;
    for (int k = 0; k < kMaxSteps; ++k) {
        const double d = dist(t);
        if (d <= sep + tol) {
            time = t;
            return 1;
        }
        if (!(speed > 0.0)) return 0;
        const double next = t + (d - sep) / speed;
        if (next > end) return 0;
        if (next == t) break;
        t = next;
    }
    time = t;
    return 2;
}

// A unit direction from the second feature towards the first: `close` at the contact, else
// `touching` (face normal or cross product), else the start offset, else against the relative
// motion; oriented by the start offset (else against the motion). False when none exists.
bool contactNormal(Vec close, const Vec& touching, const Vec& start, const Vec& motion, double scale, Vec& n) {
    const double noise = kNoise * scale + DBL_MIN;
    const Vec options[4] = {close, touching, start, -motion};
    bool found = false;
    for (const Vec& o : options) {
        const double len = o.length();
        if (len > noise) {
            n = o / len;
            found = true;
            break;
        }
    }
    if (!found) {
        GmDiagnostics::report(GmDiagnostics::Kind::CurveContinuousNormal,
                              "Error in GmCurveContinuous ... Unable to compute collision normal.");
        return false;
    }
    double side = n.dot(start);
    if (side == 0.0) side = -n.dot(motion);
    if (side < 0.0) n = -n;
    return true;
}

inline double bound() { return std::nextafter(1.0, 2.0); }

// A lower bound on the distance between segments a-b and c-d, cheaper than the distance: their
// gap along the line through their midpoints (0 when they overlap along it). Its rounding error
// is a few ulps of the coordinates, far below the kernels' tolerance.
inline double gapBound(const Vec& a, const Vec& b, const Vec& c, const Vec& d) {
    const Vec n = (a + b) - (c + d);
    const double len = n.length();
    const double gap = std::min(n.dot(a), n.dot(b)) - std::max(n.dot(c), n.dot(d));
    return gap > 0.0 && len > 0.0 ? gap / len : 0.0;
}

}  // namespace

bool GmCurveContinuousInfo::operator<(const GmCurveContinuousInfo& o) const {
    return std::make_tuple(index1, index2, static_cast<int>(type), index3) <
           std::make_tuple(o.index1, o.index2, static_cast<int>(o.type), o.index3);
}

namespace GmCurveContinuous {

void sortRecords(std::vector<GmCurveContinuousInfo>& records) { std::sort(records.begin(), records.end()); }

bool segmentSegment(const Vec& a0, const Vec& b0, const Vec& c0, const Vec& d0, const Vec& a1, const Vec& b1,
                    const Vec& c1, const Vec& d1, double separation, GmCurveContinuousInfo& out) {
    const Vec va = a1 - a0, vb = b1 - b0, vc = c1 - c0, vd = d1 - d0;
    const double speed = std::max({(va - vc).length(), (va - vd).length(), (vb - vc).length(), (vb - vd).length()});
    const double size = std::max((b0 - a0).length(), (d0 - c0).length());
    const double scale = std::max({maxAbs(a0), maxAbs(b0), maxAbs(c0), maxAbs(d0), maxAbs(a1), maxAbs(b1),
                                   maxAbs(c1), maxAbs(d1)});
    const double tol = kTouch * (size + speed) + kNoise * scale;
    double s = 0.0, u = 0.0;
    auto dist = [&](double t) {
        return std::sqrt(GmSegmentDistance::segmentSegmentDistanceSquared(lerp(a0, a1, t), lerp(b0, b1, t),
                                                                           lerp(c0, c1, t), lerp(d0, d1, t), s, u));
    };
    // The distance cannot fall below (d(0) + d(1) - speed) / 2 during the step; the same with
    // lower bounds of d(0) and d(1) first.
    const double limit = separation + 2.0 * tol;
    if (0.5 * (gapBound(a0, b0, c0, d0) + gapBound(a1, b1, c1, d1) - speed) > limit) return false;
    if (0.5 * (dist(0.0) + dist(1.0) - speed) > limit) return false;

    double tc = 0.0, sc = 0.0, uc = 0.0;
    Vec nc;
    const bool touch = GmIntersection::edgeEdgeIntersection(a0, b0, c0, d0, a1, b1, c1, d1, bound(), tc, sc, uc, nc);
    double ta = 0.0;
    // A stalled advance stands for the contact only when the primitive found none.
    const int found = advance(separation, tol, speed, touch ? tc : 1.0, dist, ta);
    if (found == 1 ? !(touch && ta >= tc) : (found == 2 && !touch)) {
        const double d = dist(ta);
        const Vec a = lerp(a0, a1, ta), b = lerp(b0, b1, ta), c = lerp(c0, c1, ta), e = lerp(d0, d1, ta);
        const Vec p = a + (b - a) * s, q = c + (e - c) * u;
        const Vec start = (a0 + (b0 - a0) * s) - (c0 + (d0 - c0) * u);
        const Vec end = (a1 + (b1 - a1) * s) - (c1 + (d1 - c1) * u);
        Vec n;
        if (!contactNormal(p - q, (b - a).cross(e - c), start, end - start, scale, n)) return false;
        out.time = ta;
        out.parameter1 = s;
        out.parameter2 = u;
        out.distance = d;
        out.normal = n;
        return true;
    }
    if (!touch) return false;
    out.time = tc;
    out.parameter1 = sc;
    out.parameter2 = uc;
    out.distance = 0.0;
    out.normal = nc;
    return true;
}

bool vertexFace(const Vec& p0, const Vec& a0, const Vec& b0, const Vec& c0, const Vec& p1, const Vec& a1,
                const Vec& b1, const Vec& c1, double separation, GmCurveContinuousInfo& out) {
    const Vec vp = p1 - p0, va = a1 - a0, vb = b1 - b0, vc = c1 - c0;
    const double speed = std::max({(vp - va).length(), (vp - vb).length(), (vp - vc).length()});
    const double size = std::max({(b0 - a0).length(), (c0 - a0).length(), (c0 - b0).length()});
    const double scale =
        std::max({maxAbs(p0), maxAbs(a0), maxAbs(b0), maxAbs(c0), maxAbs(p1), maxAbs(a1), maxAbs(b1), maxAbs(c1)});
    const double tol = kTouch * (size + speed) + kNoise * scale;
    Vec w;
    auto dist = [&](double t) {
        return std::sqrt(GmSegmentDistance::pointTriangleDistanceSquared(lerp(p0, p1, t), lerp(a0, a1, t),
                                                                          lerp(b0, b1, t), lerp(c0, c1, t), w));
    };
    if (0.5 * (dist(0.0) + dist(1.0) - speed) > separation + 2.0 * tol) return false;

    double tc = 0.0;
    Vec point, bc, nc;
    const bool touch = GmIntersection::pointFaceIntersection(p0, a0, b0, c0, p1, a1, b1, c1, bound(), tc, point, bc, nc);
    double ta = 0.0;
    // A stalled advance stands for the contact only when the primitive found none.
    const int found = advance(separation, tol, speed, touch ? tc : 1.0, dist, ta);
    if (found == 1 ? !(touch && ta >= tc) : (found == 2 && !touch)) {
        const double d = dist(ta);
        const Vec p = lerp(p0, p1, ta), a = lerp(a0, a1, ta), b = lerp(b0, b1, ta), c = lerp(c0, c1, ta);
        const Vec start = p0 - (a0 * w.x + b0 * w.y + c0 * w.z);
        const Vec end = p1 - (a1 * w.x + b1 * w.y + c1 * w.z);
        Vec n;
        if (!contactNormal(p - (a * w.x + b * w.y + c * w.z), (b - a).cross(c - a), start, end - start, scale, n))
            return false;
        out.time = ta;
        out.distance = d;
        out.normal = n;
        out.barycentric = w;
        return true;
    }
    if (!touch) return false;
    out.time = tc;
    out.distance = 0.0;
    out.normal = nc;
    out.barycentric = bc;
    return true;
}

}  // namespace GmCurveContinuous

// ---- Strand pairs -------------------------------------------------------------------------

GmSegmentContinuousIntersector::GmSegmentContinuousIntersector(std::vector<Record>& out, const GmCurves& c,
                                                               const Positions& s, const Positions& e,
                                                               const std::vector<double>* r)
    : results(&out), curves(&c), p0(&s), p1(&e), radii(r), otherCurves(&c), q0(&s), q1(&e), otherRadii(r) {}

GmSegmentContinuousIntersector::~GmSegmentContinuousIntersector() = default;

void GmSegmentContinuousIntersector::setOther(const GmCurves& c, const Positions& s, const Positions& e,
                                              const std::vector<double>* r) {
    otherCurves = &c;
    q0 = &s;
    q1 = &e;
    otherRadii = r;
}

bool GmSegmentContinuousIntersector::test(const GmCurveSegment& a, const GmCurveSegment& b, Record& out) const {
    const double ra = radii != nullptr ? std::min((*radii)[a.vertex0], (*radii)[a.vertex1]) : 0.0;
    const double rb = otherRadii != nullptr ? std::min((*otherRadii)[b.vertex0], (*otherRadii)[b.vertex1]) : 0.0;
    if (!GmCurveContinuous::segmentSegment((*p0)[a.vertex0], (*p0)[a.vertex1], (*q0)[b.vertex0], (*q0)[b.vertex1],
                                           (*p1)[a.vertex0], (*p1)[a.vertex1], (*q1)[b.vertex0], (*q1)[b.vertex1],
                                           ra + rb, out))
        return false;
    out.type = Record::SEGMENT_SEGMENT;
    out.index1 = static_cast<std::int64_t>(a.index);
    out.index2 = static_cast<std::int64_t>(b.index);
    out.index3 = -1;
    out.barycentric = Vec();
    return true;
}

// ---- Strands against a mesh ---------------------------------------------------------------

GmSegmentMeshContinuousIntersector::GmSegmentMeshContinuousIntersector(std::vector<Record>& out, const GmCurves& c,
                                                                       const Positions& s, const Positions& e,
                                                                       const GmTriangleMesh& m, const Positions& me,
                                                                       const std::vector<double>* r)
    : results(&out), curves(&c), p0(&s), p1(&e), mesh(&m), meshEnd(&me), radii(r) {}

void GmSegmentMeshContinuousIntersector::operator()(const GmCurveSegment& segment, const GmTriangleFace& face) {
    const std::int64_t s = static_cast<std::int64_t>(segment.index);
    candidates.push_back({s, face.index, 0});
    const std::uint64_t curve = segment.curve;
    if (curves->getSegment(segment.index) + 1 == curves->getStopSegment(curve)) candidates.push_back({s, face.index, 1});
    for (int k = 0; k < 3; ++k) {
        int f1 = -1, f2 = -1;
        mesh->getEdgeFaces(face.edges[k], f1, f2);
        const int owner = f2 < 0 ? f1 : (f1 < 0 ? f2 : std::min(f1, f2));
        if (owner == face.index) candidates.push_back({s, face.index, 2 + k});
    }
}

bool GmSegmentMeshContinuousIntersector::_test(const Candidate& c, Record& out) const {
    const GmCurveSegment& seg = *curves->getPrimitive(static_cast<std::uint64_t>(c.segment));
    const GmTriangleFace& face = mesh->getFace(c.face);
    const std::vector<Vec>& v0 = mesh->getVertices();
    const std::vector<Vec>& v1 = *meshEnd;
    const Positions& P0 = *p0;
    const Positions& P1 = *p1;
    if (c.feature < 2) {
        const std::uint64_t v = c.feature == 0 ? seg.vertex0 : seg.vertex1;
        const std::size_t i = static_cast<std::size_t>(face.vertices[0]), j = static_cast<std::size_t>(face.vertices[1]),
                          k = static_cast<std::size_t>(face.vertices[2]);
        const double r = radii != nullptr ? (*radii)[v] : 0.0;
        if (!GmCurveContinuous::vertexFace(P0[v], v0[i], v0[j], v0[k], P1[v], v1[i], v1[j], v1[k], r, out)) return false;
        out.type = Record::VERTEX_FACE;
        out.index3 = static_cast<std::int64_t>(v);
        out.parameter1 = c.feature == 0 ? 0.0 : 1.0;
        out.parameter2 = 0.0;
    } else {
        const int e = face.edges[c.feature - 2];
        int a = -1, b = -1;
        mesh->getEdgeVertices(e, a, b);
        const std::size_t ia = static_cast<std::size_t>(a), ib = static_cast<std::size_t>(b);
        const double r = radii != nullptr ? std::min((*radii)[seg.vertex0], (*radii)[seg.vertex1]) : 0.0;
        if (!GmCurveContinuous::segmentSegment(P0[seg.vertex0], P0[seg.vertex1], v0[ia], v0[ib], P1[seg.vertex0],
                                               P1[seg.vertex1], v1[ia], v1[ib], r, out))
            return false;
        out.type = Record::SEGMENT_EDGE;
        out.index3 = e;
        out.barycentric = Vec();
    }
    out.index1 = c.segment;
    out.index2 = c.face;
    return true;
}

void GmSegmentMeshContinuousIntersector::intersect(const GmGenericBoundingTree<GmCurves>& tree,
                                                   const GmBoundingVolumeHierarchy& faces) {
    candidates.clear();
    tree.intersect(faces, *this);
    numberTests = candidates.size();
    const std::size_t first = results->size();
    const int n = static_cast<int>(candidates.size());
    auto serial = [&] {
        Record r;
        for (const Candidate& c : candidates)
            if (_test(c, r)) results->push_back(r);
    };
    auto parallel = [&] {
        GmParallel::ThreadResults<Record> local(*results);
        GmParallel::parallelForRanges(0, n, [&](int lo, int hi) {
            std::vector<Record>& out = local.records();
            Record r;
            for (int k = lo; k < hi; ++k)
                if (_test(candidates[static_cast<std::size_t>(k)], r)) out.push_back(r);
        });
        GmBVHMetrics unused;
        local.mergeInto(*results, unused);
    };
    GmParallel::dispatch(serial, parallel);
    std::sort(results->begin() + static_cast<std::ptrdiff_t>(first), results->end());
}

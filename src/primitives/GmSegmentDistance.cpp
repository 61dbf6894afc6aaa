#include <quarrygeom/primitives/GmSegmentDistance.h>

#include <algorithm>
#include <cmath>

#include <quarrygeom/primitives/GmPredicates.h>

namespace GmSegmentDistance {

namespace {

inline double clamp01(double v) { return v < 0.0 ? 0.0 : (v > 1.0 ? 1.0 : v); }

// Sign of a 2D orientation of three points projected by dropping axis `drop`.
inline int orient2dDrop(const GmTVector<double>& a, const GmTVector<double>& b, const GmTVector<double>& c,
                        int drop) {
    const int i = drop == 0 ? 1 : 0;
    const int j = drop == 2 ? 1 : 2;
    const double pa[2] = {a[i], a[j]};
    const double pb[2] = {b[i], b[j]};
    const double pc[2] = {c[i], c[j]};
    const double o = GmPredicates::orient2d(pa, pb, pc);
    return o > 0.0 ? 1 : (o < 0.0 ? -1 : 0);
}

// Exactly: do the three points lie on one line?
bool collinear(const GmTVector<double>& a, const GmTVector<double>& b, const GmTVector<double>& c) {
    return orient2dDrop(a, b, c, 0) == 0 && orient2dDrop(a, b, c, 1) == 0 && orient2dDrop(a, b, c, 2) == 0;
}

// Axis along which the (collinear) points spread the most.
int dominantAxis(const GmTVector<double>& d) {
    const double ax = std::fabs(d.x), ay = std::fabs(d.y), az = std::fabs(d.z);
    return ax >= ay ? (ax >= az ? 0 : 2) : (ay >= az ? 1 : 2);
}

bool intervalsOverlap(double a0, double a1, double b0, double b1) {
    return std::max(std::min(a0, a1), std::min(b0, b1)) <= std::min(std::max(a0, a1), std::max(b0, b1));
}

// Exact: p lies on the closed segment a-b (a may equal b).
bool pointOnSegment(const GmTVector<double>& p, const GmTVector<double>& a, const GmTVector<double>& b) {
    if (a == b) return p == a;
    if (!collinear(a, b, p)) return false;
    const int k = dominantAxis(b - a);
    return std::min(a[k], b[k]) <= p[k] && p[k] <= std::max(a[k], b[k]);
}

// Exact intersection test of two closed segments.
bool segmentsIntersect(const GmTVector<double>& p0, const GmTVector<double>& p1, const GmTVector<double>& q0,
                       const GmTVector<double>& q1) {
    if (p0 == p1) return pointOnSegment(p0, q0, q1);
    if (q0 == q1) return pointOnSegment(q0, p0, p1);
    if (GmPredicates::orient3d(&p0.x, &p1.x, &q0.x, &q1.x) != 0.0) return false;
    // Coplanar: drop the axis along which the plane's normal is largest. If all four points lie on
    // one line the normal vanishes and every projection keeps them collinear.
    const GmTVector<double> d1 = p1 - p0;
    GmTVector<double> n = d1.cross(q0 - p0);
    const GmTVector<double> n2 = d1.cross(q1 - p0);
    if (n2.lengthSquared() > n.lengthSquared()) n = n2;
    const GmTVector<double> n3 = (q1 - q0).cross(p0 - q0);
    if (n3.lengthSquared() > n.lengthSquared()) n = n3;
    const int drop = dominantAxis(n);
    const int o1 = orient2dDrop(p0, p1, q0, drop);
    const int o2 = orient2dDrop(p0, p1, q1, drop);
    const int o3 = orient2dDrop(q0, q1, p0, drop);
    const int o4 = orient2dDrop(q0, q1, p1, drop);
    if (o1 == 0 && o2 == 0 && o3 == 0 && o4 == 0) {
        if (!collinear(p0, p1, q0) || !collinear(p0, p1, q1)) {
            // The projection flattened a genuine plane (normal estimate too crude): use the others.
            for (int axis = 0; axis < 3; ++axis) {
                if (axis == drop) continue;
                const int r1 = orient2dDrop(p0, p1, q0, axis), r2 = orient2dDrop(p0, p1, q1, axis);
                const int r3 = orient2dDrop(q0, q1, p0, axis), r4 = orient2dDrop(q0, q1, p1, axis);
                if (r1 == 0 && r2 == 0 && r3 == 0 && r4 == 0) continue;
                return r1 * r2 <= 0 && r3 * r4 <= 0;
            }
        }
        const int k = dominantAxis(d1);
        return intervalsOverlap(p0[k], p1[k], q0[k], q1[k]);
    }
    return o1 * o2 <= 0 && o3 * o4 <= 0;
}

}  // namespace

double pointSegmentDistanceSquared(const GmTVector<double>& p, const GmTVector<double>& a,
                                   const GmTVector<double>& b, double& t) {
    const GmTVector<double> ab = b - a;
    const GmTVector<double> ap = p - a;
    const double l2 = ab.lengthSquared();
    t = l2 > 0.0 ? clamp01(ap.dot(ab) / l2) : 0.0;
    return (ap - ab * t).lengthSquared();
}

double segmentSegmentDistanceSquared(const GmTVector<double>& p0, const GmTVector<double>& p1,
                                     const GmTVector<double>& q0, const GmTVector<double>& q1, double& s,
                                     double& t) {
    const GmTVector<double> d1 = p1 - p0;
    const GmTVector<double> d2 = q1 - q0;
    const GmTVector<double> r = p0 - q0;
    const double a = d1.dot(d1);
    const double e = d2.dot(d2);
    double best = 0.0;
    bool have = false;
    // Interior stationary point of the two lines, when they are not (nearly) parallel.
    if (a > 0.0 && e > 0.0) {
        const double b = d1.dot(d2);
        const double c = d1.dot(r);
        const double f = d2.dot(r);
        const double denom = a * e - b * b;
        if (denom > 1e-14 * a * e) {
            const double ss = (b * f - c * e) / denom;
            const double tt = (a * f - b * c) / denom;
            if (ss >= 0.0 && ss <= 1.0 && tt >= 0.0 && tt <= 1.0) {
                best = ((p0 + d1 * ss) - (q0 + d2 * tt)).lengthSquared();
                s = ss;
                t = tt;
                have = true;
            }
        }
    }
    // Otherwise (and as a guard against cancellation) the minimum over the four end points.
    double u;
    double dd = pointSegmentDistanceSquared(p0, q0, q1, u);
    if (!have || dd < best) { best = dd; s = 0.0; t = u; have = true; }
    dd = pointSegmentDistanceSquared(p1, q0, q1, u);
    if (dd < best) { best = dd; s = 1.0; t = u; }
    dd = pointSegmentDistanceSquared(q0, p0, p1, u);
    if (dd < best) { best = dd; s = u; t = 0.0; }
    dd = pointSegmentDistanceSquared(q1, p0, p1, u);
    if (dd < best) { best = dd; s = u; t = 1.0; }
    return best;
}

SegmentSegmentResult segmentSegment(const GmTVector<double>& p0, const GmTVector<double>& p1,
                                    const GmTVector<double>& q0, const GmTVector<double>& q1) {
    SegmentSegmentResult res;
    res.distanceSquared = segmentSegmentDistanceSquared(p0, p1, q0, q1, res.s, res.t);
    res.intersect = segmentsIntersect(p0, p1, q0, q1);
    if (res.intersect) res.distanceSquared = 0.0;
    return res;
}

double pointTriangleDistanceSquared(const GmTVector<double>& p, const GmTVector<double>& a,
                                    const GmTVector<double>& b, const GmTVector<double>& c,
                                    GmTVector<double>& barycentric) {
    const GmTVector<double> ab = b - a, ac = c - a;
    const GmTVector<double> n = ab.cross(ac);
    const double n2 = n.lengthSquared();
    const double scale2 = std::max(ab.lengthSquared(), ac.lengthSquared());
    if (n2 > 1e-28 * scale2 * scale2) {
        // Barycentric weights of the projection of p onto the plane.
        const double wa = n.dot((b - p).cross(c - p)) / n2;
        const double wb = n.dot((c - p).cross(a - p)) / n2;
        const double wc = 1.0 - wa - wb;
        if (wa >= 0.0 && wb >= 0.0 && wc >= 0.0) {
            barycentric.set(wa, wb, wc);
            const double h = n.dot(p - a);
            return h * h / n2;
        }
    }
    // Outside the face (or a degenerate face): the closest point lies on an edge.
    double t;
    double best = pointSegmentDistanceSquared(p, a, b, t);
    barycentric.set(1.0 - t, t, 0.0);
    double d = pointSegmentDistanceSquared(p, b, c, t);
    if (d < best) { best = d; barycentric.set(0.0, 1.0 - t, t); }
    d = pointSegmentDistanceSquared(p, c, a, t);
    if (d < best) { best = d; barycentric.set(t, 0.0, 1.0 - t); }
    return best;
}

}  // namespace GmSegmentDistance

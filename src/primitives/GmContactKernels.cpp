#include <quarrygeom/primitives/GmContactKernels.h>

#include <algorithm>
#include <cmath>

#include <quarrygeom/core/GmBVHMetrics.h>
#include <quarrygeom/mesh/GmAdjacentOrphanSet.h>
#include <quarrygeom/mesh/GmTriangleMesh.h>
#include <quarrygeom/primitives/GmPredicates.h>
#include <quarrygeom/primitives/GmProximityCheck.h>
#include <quarrygeom/primitives/GmSweptSeparation.h>

#include "../pinch/GmPinchFlags.h"

namespace GmContactKernels {

namespace {

using Vec = GmTVector<double>;

constexpr double kBaryTol = 2.220446049250313e-14;
constexpr double kDegenerateLength = 2.220446049250313e-16;
// Relative padding of the per-feature box filter (the in-plane contact tolerance).
constexpr double kFilterPad = 1e-6;

// One triangle of a kernel call: corner indices, edge indices, start and end corner positions.
struct Tri {
    int face;
    int v[3];
    int e[3];
    Vec p0[3];
    Vec p1[3];
};

// Positions of the triangle's corners; the end positions only for a swept (continuous) call.
Tri loadTri(const GmTriangleMesh& mesh, const Positions* end, int face) {
    Tri t;
    t.face = face;
    const GmTriangleFace& f = mesh.getFace(face);
    const std::vector<Vec>& start = mesh.getVertices();
    for (int k = 0; k < 3; ++k) {
        t.v[k] = f.vertices[k];
        t.e[k] = f.edges[k];
        t.p0[k] = start[std::size_t(t.v[k])];
        if (end) t.p1[k] = (*end)[std::size_t(t.v[k])];
    }
    return t;
}

// Axis-aligned box of a few points, for the per-feature filter. Coordinates that are NaN
// leave a side unchanged.
struct Box {
    double lo[3] = {1e300, 1e300, 1e300};
    double hi[3] = {-1e300, -1e300, -1e300};
    void add(const Vec& p) {
        lo[0] = std::min(lo[0], p.x);
        lo[1] = std::min(lo[1], p.y);
        lo[2] = std::min(lo[2], p.z);
        hi[0] = std::max(hi[0], p.x);
        hi[1] = std::max(hi[1], p.y);
        hi[2] = std::max(hi[2], p.z);
    }
    void add(const Box& b) {
        for (int k = 0; k < 3; ++k) {
            lo[k] = std::min(lo[k], b.lo[k]);
            hi[k] = std::max(hi[k], b.hi[k]);
        }
    }
    double extent() const { return std::max({hi[0] - lo[0], hi[1] - lo[1], hi[2] - lo[2]}); }
};

// Evaluates all six comparisons: the outcome is a coin toss for the branch predictor.
inline bool boxesApart(const Box& a, const Box& b, double pad) {
    return ((a.lo[0] > b.hi[0] + pad) | (b.lo[0] > a.hi[0] + pad)) |
           ((a.lo[1] > b.hi[1] + pad) | (b.lo[1] > a.hi[1] + pad)) |
           ((a.lo[2] > b.hi[2] + pad) | (b.lo[2] > a.hi[2] + pad));
}

// Boxes of one triangle's features: each corner (over the step when swept), each edge (corners
// k and k + 1) and the whole face.
struct FeatureBoxes {
    Box corner[3];
    Box edge[3];
    Box face;
    FeatureBoxes(const Tri& t, bool swept) {
        for (int k = 0; k < 3; ++k) {
            corner[k].add(t.p0[k]);
            if (swept) corner[k].add(t.p1[k]);
        }
        for (int k = 0; k < 3; ++k) {
            edge[k] = corner[k];
            edge[k].add(corner[k == 2 ? 0 : k + 1]);
            face.add(corner[k]);
        }
    }
};

GmGeometry::PointOnTriType vertexType(int k) { return GmGeometry::PointOnTriType(GmGeometry::ON_VERTEX_1 + k); }
GmGeometry::PointOnTriType edgeType(int k) { return GmGeometry::PointOnTriType(GmGeometry::ON_EDGE_1 + k); }

// The face's edge named by an ON_EDGE_k type, else -1.
int edgeOfType(const Tri& t, GmGeometry::PointOnTriType type) {
    return (type >= GmGeometry::ON_EDGE_1 && type <= GmGeometry::ON_EDGE_3) ? t.e[type - GmGeometry::ON_EDGE_1] : -1;
}

// Mesh normal at the element of `t` named by type, turned to agree with n; n when it vanishes.
Vec meshNormalAt(const GmTriangleMesh& mesh, const Tri& t, GmGeometry::PointOnTriType type, const Vec& n) {
    Vec m;
    if (type >= GmGeometry::ON_VERTEX_1 && type <= GmGeometry::ON_VERTEX_3)
        m = mesh.getVertexNormal(t.v[type - GmGeometry::ON_VERTEX_1]);
    else if (type >= GmGeometry::ON_EDGE_1 && type <= GmGeometry::ON_EDGE_3)
        m = mesh.getEdgeNormal(t.e[type - GmGeometry::ON_EDGE_1]);
    else
        m = mesh.getFaceNormal(t.face);
    const double len = m.length();
    if (!(len > kDegenerateLength)) return n;
    m /= len;
    return m.dot(n) < 0.0 ? -m : m;
}

bool sharesVertex(const Tri& t, int v) { return t.v[0] == v || t.v[1] == v || t.v[2] == v; }
bool sharesAnyVertex(const Tri& a, const Tri& b) {
    return sharesVertex(b, a.v[0]) || sharesVertex(b, a.v[1]) || sharesVertex(b, a.v[2]);
}

// Which role the kernel plays; decides the shared-feature skips and the normal rule.
enum class Role { Self, Orphan, Mesh };

struct Context {
    const GmTriangleMesh* mesh1;
    const GmTriangleMesh* mesh2;
    Role role;
    int objectIndex1;
    int objectIndex2;
    bool separation = false;                  // swept separation filter before each primitive
    const FeatureOwnership* owner = nullptr;  // each feature pair once: asked about the tests...
    std::uint32_t owned = ~0u;                // ...not among these
};

void fillCommon(GmTriangleInterferenceInfo& r, const Context& ctx, const Tri& t1, const Tri& t2) {
    r.objectIndex1 = ctx.objectIndex1;
    r.objectIndex2 = ctx.objectIndex2;
    r.triangleIndex1 = t1.face;
    r.triangleIndex2 = t2.face;
}

// Applies the shared-face normal rule of self and orphan pairs.
Vec orientForSharedFace(const Context& ctx, const Tri& t1, GmGeometry::PointOnTriType type1, const Tri& t2,
                        GmGeometry::PointOnTriType type2, const Tri& faceSide, GmGeometry::PointOnTriType faceType,
                        const Vec& n) {
    if (ctx.role == Role::Mesh) return n;
    // Without a common vertex no face holds an edge of each triangle, nor the inside of one
    // and a feature of the other: the look-up can only say no.
    const bool edges = type1 >= GmGeometry::ON_EDGE_1 && type1 <= GmGeometry::ON_EDGE_3 &&
                       type2 >= GmGeometry::ON_EDGE_1 && type2 <= GmGeometry::ON_EDGE_3;
    if ((edges || type1 == GmGeometry::INSIDE || type2 == GmGeometry::INSIDE) && !sharesAnyVertex(t1, t2)) return n;
    if (!ctx.mesh1->shareFace(t1.face, type1, t2.face, type2, nullptr)) return n;
    return meshNormalAt(*ctx.mesh1, faceSide, faceType, n);
}

// ---- Generic per-pair driver -----------------------------------------------------------------
// Primitive policies: Continuous and Proximity provide vertexFace / edgeEdge running on a Tri
// pair and filling a record; the driver does the bit walk, the skips, the filter and metrics.

// What a primitive reports besides the normal and the feature weights.
struct Contact {
    double time = 0.0;
    double distance = 0.0;
    double falloff = 0.0;
    Vec point;
};

struct ContinuousPolicy {
    using Record = GmContinuousTimeIntersectionInfo;
    static constexpr bool kSwept = true;
    double timeBound;
    double pad(const Box& a, const Box& b) const { return kFilterPad * std::max(a.extent(), b.extent()); }

    // The swept separation filters: coplanarity ruled out, else one feature beside the other.
    bool vertexFaceApart(const Tri& tv, int k, const Tri& tf) const {
        const Vec &p0 = tv.p0[k], &p1 = tv.p1[k];
        return GmSweptSeparation::vertexFaceApart(p0, tf.p0[0], tf.p0[1], tf.p0[2], p1, tf.p1[0], tf.p1[1], tf.p1[2]) ||
               GmSweptSeparation::vertexFaceBeside(p0, tf.p0[0], tf.p0[1], tf.p0[2], p1, tf.p1[0], tf.p1[1], tf.p1[2]);
    }
    bool edgeEdgeApart(const Tri& t1, int i, const Tri& t2, int j) const {
        const int i1 = (i + 1) % 3, j1 = (j + 1) % 3;
        const Vec &a0 = t1.p0[i], &b0 = t1.p0[i1], &c0 = t2.p0[j], &d0 = t2.p0[j1];
        const Vec &a1 = t1.p1[i], &b1 = t1.p1[i1], &c1 = t2.p1[j], &d1 = t2.p1[j1];
        return GmSweptSeparation::edgeEdgeApart(a0, b0, c0, d0, a1, b1, c1, d1) ||
               GmSweptSeparation::edgeEdgeBeside(a0, b0, c0, d0, a1, b1, c1, d1);
    }

    // Vertex k of tv against the face tf; normal from the face towards the vertex.
    bool vertexFace(const Tri& tv, int k, const Tri& tf, Contact& c, Vec& bary, Vec& n) const {
        double time;
        Vec point;
        if (!GmIntersection::pointFaceIntersection(tv.p0[k], tf.p0[0], tf.p0[1], tf.p0[2], tv.p1[k], tf.p1[0],
                                                   tf.p1[1], tf.p1[2], timeBound, time, point, bary, n))
            return false;
        c.time = time;
        c.distance = 0.0;
        c.falloff = 1.0 - time;
        c.point = point;
        return true;
    }
    // Edge i of t1 against edge j of t2; normal from edge j towards edge i.
    bool edgeEdge(const Tri& t1, int i, const Tri& t2, int j, Contact& c, double& s, double& t, Vec& n) const {
        const int i1 = (i + 1) % 3, j1 = (j + 1) % 3;
        double time;
        if (!GmIntersection::edgeEdgeIntersection(t1.p0[i], t1.p0[i1], t2.p0[j], t2.p0[j1], t1.p1[i], t1.p1[i1],
                                                  t2.p1[j], t2.p1[j1], timeBound, time, s, t, n))
            return false;
        const Vec a = t1.p0[i] + (t1.p1[i] - t1.p0[i]) * time, b = t1.p0[i1] + (t1.p1[i1] - t1.p0[i1]) * time;
        const Vec cc = t2.p0[j] + (t2.p1[j] - t2.p0[j]) * time, d = t2.p0[j1] + (t2.p1[j1] - t2.p0[j1]) * time;
        c.time = time;
        c.distance = 0.0;
        c.falloff = 1.0 - time;
        c.point = ((a + (b - a) * s) + (cc + (d - cc) * t)) * 0.5;
        return true;
    }
};

struct ProximityPolicy {
    using Record = GmProximityCheckInfo;
    static constexpr bool kSwept = false;
    double bound;
    double pad(const Box&, const Box&) const { return bound; }
    bool vertexFaceApart(const Tri&, int, const Tri&) const { return false; }
    bool edgeEdgeApart(const Tri&, int, const Tri&, int) const { return false; }

    bool vertexFace(const Tri& tv, int k, const Tri& tf, Contact& c, Vec& bary, Vec& n) const {
        double dist = bound;
        Vec q;
        double wa, wb, wc;
        if (!GmProximityCheck::pointFaceProximity(tv.p0[k], tf.p0[0], tf.p0[1], tf.p0[2], dist, n, q, wa, wb, wc))
            return false;
        bary.set(wa, wb, wc);
        c.time = 0.0;
        c.distance = dist;
        c.falloff = bound > 0.0 ? 1.0 - dist / bound : 1.0;
        c.point = (tv.p0[k] + q) * 0.5;
        return true;
    }
    bool edgeEdge(const Tri& t1, int i, const Tri& t2, int j, Contact& c, double& s, double& t, Vec& n) const {
        const int i1 = (i + 1) % 3, j1 = (j + 1) % 3;
        double dist = bound;
        if (!GmProximityCheck::edgeEdgeProximity(t1.p0[i], t1.p0[i1], t2.p0[j], t2.p0[j1], dist, n, s, t))
            return false;
        const Vec pa = t1.p0[i] + (t1.p0[i1] - t1.p0[i]) * s;
        const Vec pc = t2.p0[j] + (t2.p0[j1] - t2.p0[j]) * t;
        c.time = 0.0;
        c.distance = dist;
        c.falloff = bound > 0.0 ? 1.0 - dist / bound : 1.0;
        c.point = (pa + pc) * 0.5;
        return true;
    }
};

inline void fillContact(GmTriangleInterferenceInfo& r, const Contact& c) {
    r.time = c.time;
    r.distance = c.distance;
    r.falloff = c.falloff;
    r.point = c.point;
}

template <class Policy>
bool runPair(const Policy& policy, const Context& ctx, const Tri& t1, const Tri& t2, const ComponentTests& tests,
             GmBVHMetrics& metrics, std::vector<typename Policy::Record>& out) {
    using Record = typename Policy::Record;
    const std::size_t before = out.size();
    const std::uint32_t bits = tests.bits();
    if (bits == 0) return false;
    const bool skipShared = ctx.role == Role::Orphan;
    const FeatureBoxes boxes1(t1, Policy::kSwept), boxes2(t2, Policy::kSwept);

    // Vertex-face tests: bits 0-2 (vertices of t1 against t2), 3-5 (vertices of t2 against t1).
    if (bits & 0x3fu) {
        for (int side = 0; side < 2; ++side) {
            const Tri& tv = side == 0 ? t1 : t2;
            const Tri& tf = side == 0 ? t2 : t1;
            const FeatureBoxes& vboxes = side == 0 ? boxes1 : boxes2;
            const Box& fbox = side == 0 ? boxes2.face : boxes1.face;
            for (int k = 0; k < 3; ++k) {
                if (!((bits >> (3 * side + k)) & 1u)) continue;
                metrics.addVertexFaceCandidate();
                if (skipShared && sharesVertex(tf, tv.v[k])) continue;
                const Box& vbox = vboxes.corner[k];
                if (boxesApart(vbox, fbox, policy.pad(vbox, fbox))) continue;
                if (!((ctx.owned >> (3 * side + k)) & 1u) &&
                    !ctx.owner->vertexFace(tv.face, k, tf.face, !boxesApart(vbox, fbox, 0.0)))
                    continue;
                if (ctx.separation && policy.vertexFaceApart(tv, k, tf)) continue;
                metrics.addVertexFaceTest();
                Contact c;
                Vec bary, n;
                if (!policy.vertexFace(tv, k, tf, c, bary, n)) continue;
                metrics.addVertexFaceSuccess();
                Record& r = out.emplace_back();
                fillCommon(r, ctx, t1, t2);
                fillContact(r, c);
                const GmGeometry::PointOnTriType type = classifyBarycentric(bary);
                r.pointType = type;
                if (side == 0) {
                    r.type = GmInterferenceType::VERTEX_FACE;
                    r.barycentric2 = bary;
                    r.vertexIndices[0] = tv.v[k];
                    for (int c3 = 0; c3 < 3; ++c3) r.vertexIndices[c3 + 1] = tf.v[c3];
                    r.edgeIndices[1] = edgeOfType(tf, type);
                    r.normal = orientForSharedFace(ctx, t1, vertexType(k), t2, type, t2, type, n);
                } else {
                    r.type = GmInterferenceType::FACE_VERTEX;
                    r.barycentric1 = bary;
                    for (int c3 = 0; c3 < 3; ++c3) r.vertexIndices[c3] = tf.v[c3];
                    r.vertexIndices[3] = tv.v[k];
                    r.edgeIndices[0] = edgeOfType(tf, type);
                    // The primitive's normal points towards the vertex, i.e. towards triangle 2.
                    r.normal = orientForSharedFace(ctx, t1, type, t2, vertexType(k), t1, type, -n);
                }
                r.feature1 = tv.v[k];
                r.feature2 = tf.face;
            }
        }
    }

    // Edge-edge tests: bit 6 + 3 i + j.
    if (bits & 0x7fc0u) {
        for (int i = 0; i < 3; ++i) {
            if (!((bits >> (6 + 3 * i)) & 0x7u)) continue;
            const Box& b1 = boxes1.edge[i];
            for (int j = 0; j < 3; ++j) {
                if (!((bits >> (6 + 3 * i + j)) & 1u)) continue;
                metrics.addEdgeEdgeCandidate();
                const int i1 = (i + 1) % 3, j1 = (j + 1) % 3;
                if (skipShared && (t1.v[i] == t2.v[j] || t1.v[i] == t2.v[j1] || t1.v[i1] == t2.v[j] ||
                                   t1.v[i1] == t2.v[j1]))
                    continue;
                const Box& b2 = boxes2.edge[j];
                if (boxesApart(b1, b2, policy.pad(b1, b2))) continue;
                if (!((ctx.owned >> (6 + 3 * i + j)) & 1u) &&
                    !ctx.owner->edgeEdge(t1.face, i, t2.face, j, !boxesApart(b1, b2, 0.0)))
                    continue;
                if (ctx.separation && policy.edgeEdgeApart(t1, i, t2, j)) continue;
                metrics.addEdgeEdgeTest();
                Contact c;
                double s, t;
                Vec n;
                if (!policy.edgeEdge(t1, i, t2, j, c, s, t, n)) continue;
                metrics.addEdgeEdgeSuccess();
                Record& r = out.emplace_back();
                fillCommon(r, ctx, t1, t2);
                fillContact(r, c);
                r.type = GmInterferenceType::EDGE_EDGE;
                r.feature1 = t1.e[i];
                r.feature2 = t2.e[j];
                r.edgeIndices[0] = t1.e[i];
                r.edgeIndices[1] = t2.e[j];
                r.vertexIndices[0] = t1.v[i];
                r.vertexIndices[1] = t1.v[i1];
                r.vertexIndices[2] = t2.v[j];
                r.vertexIndices[3] = t2.v[j1];
                Vec w1, w2;
                w1[i] = 1.0 - s;
                w1[i1] = s;
                w2[j] = 1.0 - t;
                w2[j1] = t;
                r.barycentric1 = w1;
                r.barycentric2 = w2;
                r.pointType = edgeType(j);
                r.normal = orientForSharedFace(ctx, t1, edgeType(i), t2, edgeType(j), t2, edgeType(j), n);
            }
        }
    }
    return out.size() > before;
}

// ---- Static triangle-triangle intersection ---------------------------------------------------

inline int sgn(double v) { return v > 0.0 ? 1 : (v < 0.0 ? -1 : 0); }

inline int orient3(const Vec& a, const Vec& b, const Vec& c, const Vec& d) {
    return sgn(GmPredicates::orient3d(&a.x, &b.x, &c.x, &d.x));
}

// 2D orientation after dropping axis `drop` (exact sign).
inline int orient2(const Vec& a, const Vec& b, const Vec& c, int drop) {
    const int i = drop == 0 ? 1 : 0, j = drop == 2 ? 1 : 2;
    const double pa[2] = {a[i], a[j]}, pb[2] = {b[i], b[j]}, pc[2] = {c[i], c[j]};
    return sgn(GmPredicates::orient2d(pa, pb, pc));
}

// Side of points against the plane of triangle (b0, b1, b2): the sign of
// orient3d(b0, b1, b2, p), exact. The cross product of the triangle's edges is computed once;
// each point costs a dot product and an error bound, and only points that the bound cannot
// separate from the plane go to the adaptive predicate.
//
// det = (p - b0) . ((b1 - b0) x (b2 - b0)) = -orient3d(b0, b1, b2, p). Every one of its six
// monomials (a rounded difference times a product of two) passes through at most eight
// roundings, so |error| <= gamma_8 * P with P the sum of the monomials' magnitudes; P itself
// is computed with a relative error of the same order. kPlaneBound = 9u covers both with room.
class PlaneSide {
public:
    PlaneSide(const Vec& b0, const Vec& b1, const Vec& b2) : _b0(b0), _b1(b1), _b2(b2) {
        const double bx = b1.x - b0.x, by = b1.y - b0.y, bz = b1.z - b0.z;
        const double cx = b2.x - b0.x, cy = b2.y - b0.y, cz = b2.z - b0.z;
        const double byz = by * cz, bzy = bz * cy, bzx = bz * cx, bxz = bx * cz, bxy = bx * cy, byx = by * cx;
        _nx = byz - bzy;
        _ny = bzx - bxz;
        _nz = bxy - byx;
        _px = std::fabs(byz) + std::fabs(bzy);
        _py = std::fabs(bzx) + std::fabs(bxz);
        _pz = std::fabs(bxy) + std::fabs(byx);
    }
    [[gnu::always_inline]] inline int operator()(const Vec& p) const {
        const double ax = p.x - _b0.x, ay = p.y - _b0.y, az = p.z - _b0.z;
        const double det = ax * _nx + ay * _ny + az * _nz;
        const double permanent = std::fabs(ax) * _px + std::fabs(ay) * _py + std::fabs(az) * _pz;
        const double bound = kPlaneBound * permanent;
        // The bound is meaningless once products underflow; those go to the exact predicate.
        if (permanent > kPlaneTiny) {
            if (det > bound) return -1;
            if (-det > bound) return 1;
        }
        return sgn(GmPredicates::orient3d(&_b0.x, &_b1.x, &_b2.x, &p.x));
    }

private:
    static constexpr double kPlaneBound = 9.0 * 1.1102230246251565e-16;
    static constexpr double kPlaneTiny = 1e-250;
    const Vec& _b0;
    const Vec& _b1;
    const Vec& _b2;
    double _nx, _ny, _nz, _px, _py, _pz;
};

void addPoint(std::vector<Vec>& pts, const Vec& p) {
    for (const Vec& q : pts)
        if (q == p) return;
    pts.push_back(p);
}

// Point p inside or on the triangle t, projected along `drop` (t not degenerate there).
bool inTriangle2(const Vec& p, const Vec* t, int drop) {
    const int o0 = orient2(t[0], t[1], p, drop), o1 = orient2(t[1], t[2], p, drop), o2 = orient2(t[2], t[0], p, drop);
    const bool hasPos = o0 > 0 || o1 > 0 || o2 > 0, hasNeg = o0 < 0 || o1 < 0 || o2 < 0;
    return !(hasPos && hasNeg);
}

// x within the box of a and b (decides for collinear points).
inline bool withinBox(const Vec& x, const Vec& a, const Vec& b) {
    for (int k = 0; k < 3; ++k)
        if (x[k] < std::min(a[k], b[k]) || x[k] > std::max(a[k], b[k])) return false;
    return true;
}

// The overlap of collinear segments p-q and r-s: its end points are end points of the two.
void collinearOverlap(const Vec& p, const Vec& q, const Vec& r, const Vec& s, std::vector<Vec>& pts) {
    if (withinBox(r, p, q)) addPoint(pts, r);
    if (withinBox(s, p, q)) addPoint(pts, s);
    if (withinBox(p, r, s)) addPoint(pts, p);
    if (withinBox(q, r, s)) addPoint(pts, q);
}

// Common points of coplanar segments p-q and r-s, projected along `drop`, which must keep
// their plane's geometry (exact decision, interpolated crossing point).
void segmentCrossing2(const Vec& p, const Vec& q, const Vec& r, const Vec& s, int drop, std::vector<Vec>& pts) {
    const int o1 = orient2(p, q, r, drop), o2 = orient2(p, q, s, drop);
    if (o1 * o2 > 0) return;
    const int o3 = orient2(r, s, p, drop), o4 = orient2(r, s, q, drop);
    if (o3 * o4 > 0) return;
    if ((o1 == 0 && o2 == 0) || (o3 == 0 && o4 == 0)) {
        // All four on one line (a segment reduced to a point off the other's line has been
        // rejected above: its two signs are equal and non-zero).
        if (o1 == 0 && o2 == 0 && o3 == 0 && o4 == 0) collinearOverlap(p, q, r, s, pts);
        return;
    }
    if (o1 == 0) { addPoint(pts, r); return; }
    if (o2 == 0) { addPoint(pts, s); return; }
    if (o3 == 0) { addPoint(pts, p); return; }
    if (o4 == 0) { addPoint(pts, q); return; }
    // Proper crossing: parameter along r-s from the 2D areas.
    const int i = drop == 0 ? 1 : 0, j = drop == 2 ? 1 : 2;
    const double a1 = (q[i] - p[i]) * (r[j] - p[j]) - (q[j] - p[j]) * (r[i] - p[i]);
    const double a2 = (q[i] - p[i]) * (s[j] - p[j]) - (q[j] - p[j]) * (s[i] - p[i]);
    const double u = a1 / (a1 - a2);
    addPoint(pts, r + (s - r) * (u >= 0.0 ? std::min(u, 1.0) : 0.0));
}

// The part of segment p-q (lying in the plane of triangle t) that is inside t, projected along
// t's own axis `drop`.
void clipSegment2(const Vec& p, const Vec& q, const Vec* t, int drop, std::vector<Vec>& pts) {
    if (inTriangle2(p, t, drop)) addPoint(pts, p);
    if (inTriangle2(q, t, drop)) addPoint(pts, q);
    for (int k = 0; k < 3; ++k) segmentCrossing2(p, q, t[k], t[(k + 1) % 3], drop, pts);
}

// An axis along which the projection of triangle t keeps its area (exactly), or -1 when its
// corners are collinear. The dominant component of the normal is tried first.
int projectionAxis(const Vec* t) {
    const Vec n = (t[1] - t[0]).cross(t[2] - t[0]);
    const double ax = std::fabs(n.x), ay = std::fabs(n.y), az = std::fabs(n.z);
    const int first = ax >= ay ? (ax >= az ? 0 : 2) : (ay >= az ? 1 : 2);
    if (orient2(t[0], t[1], t[2], first) != 0) return first;
    for (int k = 0; k < 3; ++k)
        if (k != first && orient2(t[0], t[1], t[2], k) != 0) return k;
    return -1;
}

// Segment p-q against the non-degenerate triangle t; sp, sq are the exact sides of p and q
// against t's plane. drop is t's projection axis, found on first use when negative.
void segmentAgainstTriangle(const Vec& p, const Vec& q, int sp, int sq, const Vec* t, int& drop,
                            std::vector<Vec>& pts) {
    if (sp * sq > 0) return;
    if (sp == 0 && sq == 0) {
        if (drop < 0) drop = projectionAxis(t);
        clipSegment2(p, q, t, drop, pts);
        return;
    }
    // The line p-q meets t's plane at one point; it is inside t when the line passes on the same
    // side of t's three edges.
    const int s0 = orient3(p, q, t[0], t[1]), s1 = orient3(p, q, t[1], t[2]), s2 = orient3(p, q, t[2], t[0]);
    const bool hasPos = s0 > 0 || s1 > 0 || s2 > 0, hasNeg = s0 < 0 || s1 < 0 || s2 < 0;
    if (hasPos && hasNeg) return;
    if (sp == 0) {
        addPoint(pts, p);
    } else if (sq == 0) {
        addPoint(pts, q);
    } else {
        const double hp = GmPredicates::orient3d(&t[0].x, &t[1].x, &t[2].x, &p.x);
        const double hq = GmPredicates::orient3d(&t[0].x, &t[1].x, &t[2].x, &q.x);
        const double u = hp / (hp - hq);
        addPoint(pts, p + (q - p) * (u >= 0.0 ? std::min(u, 1.0) : 0.0));
    }
}

// Segments p-q and r-s in space (either may be a point).
void segmentAgainstSegment(const Vec& p, const Vec& q, const Vec& r, const Vec& s, std::vector<Vec>& pts) {
    if (orient3(p, q, r, s) != 0) return;
    // Coplanar: project along an axis that keeps a non-degenerate triple of the four points.
    const Vec tri[4][3] = {{p, q, r}, {p, q, s}, {r, s, p}, {r, s, q}};
    for (const auto& t : tri) {
        const int k = projectionAxis(t);
        if (k >= 0) {
            segmentCrossing2(p, q, r, s, k, pts);
            return;
        }
    }
    collinearOverlap(p, q, r, s, pts);
}

inline bool finite3(const Vec& v) { return std::isfinite(v.x) && std::isfinite(v.y) && std::isfinite(v.z); }

bool staticPair(const GmTriangleMesh& mesh1, const GmTriangleMesh& mesh2, int face1, int face2,
                std::vector<GmIntersectionInfo>& out) {
    const GmTriangleFace& f1 = mesh1.getFace(face1);
    const GmTriangleFace& f2 = mesh2.getFace(face2);
    const std::vector<Vec>& v1 = mesh1.getVertices();
    const std::vector<Vec>& v2 = mesh2.getVertices();
    GmIntersectionInfo info;
    if (!triangleTriangleIntersection(v1[std::size_t(f1.vertices[0])], v1[std::size_t(f1.vertices[1])],
                                      v1[std::size_t(f1.vertices[2])], v2[std::size_t(f2.vertices[0])],
                                      v2[std::size_t(f2.vertices[1])], v2[std::size_t(f2.vertices[2])], info.points))
        return false;
    info.triangleIndex1 = face1;
    info.triangleIndex2 = face2;
    out.push_back(std::move(info));
    return true;
}

}  // namespace

GmGeometry::PointOnTriType classifyBarycentric(const Vec& w) {
    const bool z0 = std::fabs(w.x) <= kBaryTol, z1 = std::fabs(w.y) <= kBaryTol, z2 = std::fabs(w.z) <= kBaryTol;
    const int zeros = int(z0) + int(z1) + int(z2);
    if (zeros >= 2) {
        if (!z0) return GmGeometry::ON_VERTEX_1;
        if (!z1) return GmGeometry::ON_VERTEX_2;
        if (!z2) return GmGeometry::ON_VERTEX_3;
        return GmGeometry::INVALID;
    }
    if (zeros == 1) return z2 ? GmGeometry::ON_EDGE_1 : (z0 ? GmGeometry::ON_EDGE_2 : GmGeometry::ON_EDGE_3);
    return GmGeometry::INSIDE;
}

bool triangleTriangleIntersection(const Vec& a0, const Vec& a1, const Vec& a2, const Vec& b0, const Vec& b1,
                                  const Vec& b2, std::vector<Vec>& points) {
    points.clear();
    int da[3], db[3];
    const PlaneSide sideOfB(b0, b1, b2);
    da[0] = sideOfB(a0);
    da[1] = sideOfB(a1);
    da[2] = sideOfB(a2);
    if (da[0] == da[1] && da[1] == da[2] && da[0] != 0) return false;
    const PlaneSide sideOfA(a0, a1, a2);
    db[0] = sideOfA(b0);
    db[1] = sideOfA(b1);
    db[2] = sideOfA(b2);
    if (db[0] == db[1] && db[1] == db[2] && db[0] != 0) return false;
    // A coordinate that is not finite makes some side 0 (the exact predicate gives NaN).
    if (da[0] * da[1] * da[2] * db[0] * db[1] * db[2] == 0 &&
        !(finite3(a0) && finite3(a1) && finite3(a2) && finite3(b0) && finite3(b1) && finite3(b2)))
        return false;
    const Vec a[3] = {a0, a1, a2};
    const Vec b[3] = {b0, b1, b2};
    // A point strictly off a triangle's plane proves that the triangle has area.
    const bool bSpans = (da[0] | da[1] | da[2]) != 0, aSpans = (db[0] | db[1] | db[2]) != 0;
    if (aSpans && bSpans) {
        // Each triangle's edges against the other, an edge in the other's plane clipped in that
        // triangle's own projection.
        int ka = -1, kb = -1;
        for (int k = 0; k < 3; ++k) segmentAgainstTriangle(a[k], a[(k + 1) % 3], da[k], da[(k + 1) % 3], b, kb, points);
        for (int k = 0; k < 3; ++k) segmentAgainstTriangle(b[k], b[(k + 1) % 3], db[k], db[(k + 1) % 3], a, ka, points);
        return !points.empty();
    }
    int ka = projectionAxis(a), kb = projectionAxis(b);
    if (ka >= 0 && kb >= 0) {
        // Coplanar: the overlap polygon's corners.
        for (int k = 0; k < 3; ++k)
            if (inTriangle2(a[k], b, ka)) addPoint(points, a[k]);
        for (int k = 0; k < 3; ++k)
            if (inTriangle2(b[k], a, ka)) addPoint(points, b[k]);
        for (int i = 0; i < 3; ++i)
            for (int j = 0; j < 3; ++j) segmentCrossing2(a[i], a[(i + 1) % 3], b[j], b[(j + 1) % 3], ka, points);
        return !points.empty();
    }
    // A zero-area triangle is the union of its edges.
    if (ka >= 0) {
        for (int k = 0; k < 3; ++k) segmentAgainstTriangle(b[k], b[(k + 1) % 3], db[k], db[(k + 1) % 3], a, ka, points);
    } else if (kb >= 0) {
        for (int k = 0; k < 3; ++k) segmentAgainstTriangle(a[k], a[(k + 1) % 3], da[k], da[(k + 1) % 3], b, kb, points);
    } else {
        for (int i = 0; i < 3; ++i)
            for (int j = 0; j < 3; ++j) segmentAgainstSegment(a[i], a[(i + 1) % 3], b[j], b[(j + 1) % 3], points);
    }
    return !points.empty();
}

ComponentTests orphanComponentTests(const GmTriangleMesh& mesh, const GmOrphanTest& test) {
    ComponentTests ct;
    if (test.firstFace < 0 || test.secondFace < 0) return ct;
    if (test.featureBits & GmOrphanTest::kVertexBits) {
        for (int k = 0; k < 3; ++k)
            if (test.featureBits & (1u << k)) return ComponentTests(1u << k);
        return ct;
    }
    const GmTriangleFace& f1 = mesh.getFace(test.firstFace);
    const GmTriangleFace& f2 = mesh.getFace(test.secondFace);
    int i = -1, j = -1;
    for (int k = 0; k < 3; ++k) {
        if (f1.edges[k] == test.firstFeature) i = k;
        if (f2.edges[k] == test.secondFeature) j = k;
    }
    if (i < 0 || j < 0) return ct;
    return ComponentTests(1u << ComponentTests::edgeEdgeBit(i, j));
}

bool continuousSelf(const GmTriangleMesh& mesh, const Positions& end, int face1, int face2,
                    const ComponentTests& tests, GmBVHMetrics& metrics, double timeBound,
                    const SelfIntersectionInfo* info, int objectIndex,
                    std::vector<GmContinuousTimeIntersectionInfo>& out) {
    const Context ctx{&mesh, &mesh, Role::Self, objectIndex, objectIndex};
    const std::size_t before = out.size();
    const bool found = runPair(ContinuousPolicy{timeBound}, ctx, loadTri(mesh, &end, face1),
                               loadTri(mesh, &end, face2), tests, metrics, out);
    GmPinchFlags::mark(info, info, mesh, mesh, out, before);
    return found;
}

bool continuousOrphan(const GmTriangleMesh& mesh, const Positions& end, int face1, int face2,
                      const ComponentTests& tests, GmBVHMetrics& metrics, double timeBound,
                      const SelfIntersectionInfo* info, int objectIndex,
                      std::vector<GmContinuousTimeIntersectionInfo>& out) {
    const Context ctx{&mesh, &mesh, Role::Orphan, objectIndex, objectIndex};
    const std::size_t before = out.size();
    const bool found = runPair(ContinuousPolicy{timeBound}, ctx, loadTri(mesh, &end, face1),
                               loadTri(mesh, &end, face2), tests, metrics, out);
    GmPinchFlags::mark(info, info, mesh, mesh, out, before);
    return found;
}

bool continuousSelfFiltered(const GmTriangleMesh& mesh, const Positions& end, int face1, int face2,
                            const ComponentTests& tests, GmBVHMetrics& metrics, double timeBound,
                            const SelfIntersectionInfo* /*info*/, int objectIndex,
                            std::vector<GmContinuousTimeIntersectionInfo>& out, const FeatureOwnership* owner) {
    Context ctx{&mesh, &mesh, Role::Self, objectIndex, objectIndex, true};
    if (owner != nullptr) {
        ctx.owner = owner;
        ctx.owned = owner->surelyOwned(face1, face2);
    }
    return runPair(ContinuousPolicy{timeBound}, ctx, loadTri(mesh, &end, face1), loadTri(mesh, &end, face2), tests,
                   metrics, out);
}

bool continuousOrphanFiltered(const GmTriangleMesh& mesh, const Positions& end, int face1, int face2,
                              const ComponentTests& tests, GmBVHMetrics& metrics, double timeBound,
                              const SelfIntersectionInfo* /*info*/, int objectIndex,
                              std::vector<GmContinuousTimeIntersectionInfo>& out) {
    const Context ctx{&mesh, &mesh, Role::Orphan, objectIndex, objectIndex, true};
    return runPair(ContinuousPolicy{timeBound}, ctx, loadTri(mesh, &end, face1), loadTri(mesh, &end, face2), tests,
                   metrics, out);
}

bool continuousMesh(const GmTriangleMesh& mesh1, const Positions& end1, const GmTriangleMesh& mesh2,
                    const Positions& end2, int face1, int face2, const ComponentTests& tests, GmBVHMetrics& metrics,
                    double timeBound, const SelfIntersectionInfo* info1, const SelfIntersectionInfo* info2,
                    int objectIndex1, int objectIndex2, std::vector<GmContinuousTimeIntersectionInfo>& out) {
    const Context ctx{&mesh1, &mesh2, Role::Mesh, objectIndex1, objectIndex2};
    const std::size_t before = out.size();
    const bool found = runPair(ContinuousPolicy{timeBound}, ctx, loadTri(mesh1, &end1, face1),
                               loadTri(mesh2, &end2, face2), tests, metrics, out);
    GmPinchFlags::mark(info1, info2, mesh1, mesh2, out, before);
    return found;
}

bool proximitySelf(const GmTriangleMesh& mesh, int face1, int face2, double distance, const ComponentTests& tests,
                   GmBVHMetrics& metrics, const SelfIntersectionInfo* info, int objectIndex,
                   std::vector<GmProximityCheckInfo>& out) {
    const Context ctx{&mesh, &mesh, Role::Self, objectIndex, objectIndex};
    const std::size_t before = out.size();
    const bool found = runPair(ProximityPolicy{distance}, ctx, loadTri(mesh, nullptr, face1),
                               loadTri(mesh, nullptr, face2), tests, metrics, out);
    GmPinchFlags::mark(info, mesh, mesh, out, before);
    return found;
}

bool proximityOrphan(const GmTriangleMesh& mesh, int face1, int face2, double distance, const ComponentTests& tests,
                     GmBVHMetrics& metrics, const SelfIntersectionInfo* info, int objectIndex,
                     std::vector<GmProximityCheckInfo>& out) {
    const Context ctx{&mesh, &mesh, Role::Orphan, objectIndex, objectIndex};
    const std::size_t before = out.size();
    const bool found = runPair(ProximityPolicy{distance}, ctx, loadTri(mesh, nullptr, face1),
                               loadTri(mesh, nullptr, face2), tests, metrics, out);
    GmPinchFlags::mark(info, mesh, mesh, out, before);
    return found;
}

bool proximityMesh(const GmTriangleMesh& mesh1, const GmTriangleMesh& mesh2, int face1, int face2, double distance,
                   const ComponentTests& tests, GmBVHMetrics& metrics, const SelfIntersectionInfo* info,
                   int objectIndex1, int objectIndex2, std::vector<GmProximityCheckInfo>& out) {
    const Context ctx{&mesh1, &mesh2, Role::Mesh, objectIndex1, objectIndex2};
    const std::size_t before = out.size();
    const bool found = runPair(ProximityPolicy{distance}, ctx, loadTri(mesh1, nullptr, face1),
                               loadTri(mesh2, nullptr, face2), tests, metrics, out);
    GmPinchFlags::mark(info, mesh1, mesh2, out, before);
    return found;
}

bool staticSelf(const GmTriangleMesh& mesh, int face1, int face2, GmBVHMetrics& /*metrics*/,
                std::vector<GmIntersectionInfo>& out) {
    return staticPair(mesh, mesh, face1, face2, out);
}

bool staticMesh(const GmTriangleMesh& mesh1, const GmTriangleMesh& mesh2, int face1, int face2,
                GmBVHMetrics& /*metrics*/, std::vector<GmIntersectionInfo>& out) {
    return staticPair(mesh1, mesh2, face1, face2, out);
}

}  // namespace GmContactKernels

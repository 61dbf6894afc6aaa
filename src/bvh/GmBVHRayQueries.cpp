// Ray queries of the face hierarchy (general and axis rays), and the seeding of the
// closest-point search by the six axis rays.

#include <cfloat>
#include <cmath>

#include <quarrygeom/bvh/GmBoundingVolumeHierarchy.h>
#include <quarrygeom/mesh/GmTriangleMesh.h>
#include <quarrygeom/primitives/GmGeometry.h>

#include "GmBVHInternal.h"

using namespace GmBVHDetail;

namespace {

typedef GmBoundingVolumeHierarchy::Node Node;

constexpr double kAxisTol = 1e-8;
constexpr double kAxisOne = 1.00000001;

// Box and triangle tests of one ray kind. test() gives the hit point and the weights of the
// face's vertices 1, 2, 3.
template <class Ray>
struct RayTests;

template <>
struct RayTests<GmRay> {
    const GmRay& ray;
    explicit RayTests(const GmRay& r) : ray(r) {}

    bool valid() const {
        const GmTVector<double>& d = ray.getDirection();
        return finite(ray.getOrigin()) && finite(d) && d.length() > DBL_EPSILON;
    }
    bool box(const GmAxisAlignedBox& b) const { return GmGeometry::intersectRayBox(b, ray); }
    bool triangle(const GmTVector<double>& v1, const GmTVector<double>& v2, const GmTVector<double>& v3,
                  GmTVector<double>& point, GmTVector<double>& weights) const {
        double t, u, v;
        if (!GmGeometry::intersectRayTri(ray.getOrigin(), ray.getDirection(), v1, v2, v3, point, t, u, v))
            return false;
        weights.set(1.0 - u - v, u, v);
        return true;
    }
};

template <int X, int Y, int Z>
struct RayTests<GmRayAxis<X, Y, Z>> {
    static constexpr int A = GmRayAxis<X, Y, Z>::kAxis;  // ray axis
    static constexpr int S = GmRayAxis<X, Y, Z>::kSign;
    static constexpr int B = (A + 1) % 3;  // transverse axes
    static constexpr int C = (A + 2) % 3;

    GmTVector<double> o;
    GmTVector<float> of;

    explicit RayTests(const GmRayAxis<X, Y, Z>& r)
        : o(r.getOrigin()),
          of(static_cast<float>(o.x), static_cast<float>(o.y), static_cast<float>(o.z)) {}

    bool valid() const { return finite(o); }
    bool box(const GmAxisAlignedBox& b) const {
        const GmTVector<float> mn = b.getMin(), mx = b.getMax();
        if (mn[B] > of[B] || of[B] > mx[B] || mn[C] > of[C] || of[C] > mx[C]) return false;
        return S < 0 ? !(mn[A] > of[A]) : !(mx[A] < of[A]);
    }
    bool triangle(const GmTVector<double>& v1, const GmTVector<double>& v2, const GmTVector<double>& v3,
                  GmTVector<double>& point, GmTVector<double>& weights) const {
        const double det = (v3[C] - v1[C]) * (v2[B] - v1[B]) - (v3[B] - v1[B]) * (v2[C] - v1[C]);
        if (std::fabs(det) <= kAxisTol) return false;
        const double dx = o[B] - v1[B], dy = o[C] - v1[C];
        const double u = (dx * (v3[C] - v1[C]) - dy * (v3[B] - v1[B])) / det;
        if (u < -kAxisTol || u > kAxisOne) return false;
        const double v = -(dx * (v2[C] - v1[C]) - dy * (v2[B] - v1[B])) / det;
        if (v < -kAxisTol || u + v > kAxisOne) return false;
        const double w = 1.0 - u - v;
        point = v1 * w + v2 * u + v3 * v;
        if (S < 0 ? point[A] > o[A] + kAxisTol : point[A] < o[A] - kAxisTol) return false;
        weights.set(w, u, v);
        return true;
    }
};

// Depth-first walk, left child first; hit(face, point, weights) for every face the ray meets.
template <class Ray, class Hit>
void walkRay(const std::vector<Node>& nodes, const GmTriangleMesh& mesh, const RayTests<Ray>& tests,
             bool includeDisabled, Hit&& hit) {
    if (nodes.empty()) return;
    const std::vector<GmTVector<double>>& v = mesh.getVertices();
    int stack[64];
    int top = 0;
    int i = 0;
    for (;;) {
        const Node& node = nodes[static_cast<size_t>(i)];
        if ((includeDisabled || !node.disabled) && tests.box(node.box)) {
            if (!node.isLeaf()) {
                stack[top++] = 2 * i + 2;
                i = 2 * i + 1;
                continue;
            }
            const GmTriangleFace& f = *node.primitive;
            mesh.getFaceArea(f.index);  // keeps the face data current, as every face visit does
            GmTVector<double> point, weights;
            if (tests.triangle(v[static_cast<size_t>(f.vertices[0])], v[static_cast<size_t>(f.vertices[1])],
                               v[static_cast<size_t>(f.vertices[2])], point, weights))
                hit(f.index, point, weights);
        }
        if (top == 0) break;
        i = stack[--top];
    }
}

}  // namespace

template <class Ray>
bool GmBoundingVolumeHierarchy::intersectRay(const Ray& ray, std::vector<GmPointIntersectionInfo>& hits, bool append,
                                             bool includeDisabled) const {
    if (!append) hits.clear();
    const RayTests<Ray> tests(ray);
    if (_mesh == nullptr || _nodes.empty() || !tests.valid()) return !hits.empty();
    walkRay(_nodes, *_mesh, tests, includeDisabled,
            [&](int face, const GmTVector<double>& point, const GmTVector<double>& weights) {
                GmPointIntersectionInfo info;
                info.objectIndex = -1;
                info.triangleIndex = face;
                info.point = point;
                info.barycentric = weights;
                hits.push_back(info);
            });
    return !hits.empty();
}

bool GmBoundingVolumeHierarchy::intersect(const GmRay& ray, std::vector<GmPointIntersectionInfo>& hits, bool append,
                                          bool includeDisabled) const {
    return intersectRay(ray, hits, append, includeDisabled);
}
bool GmBoundingVolumeHierarchy::intersect(const GmRayAxis<1, 0, 0>& ray, std::vector<GmPointIntersectionInfo>& hits,
                                          bool append, bool includeDisabled) const {
    return intersectRay(ray, hits, append, includeDisabled);
}
bool GmBoundingVolumeHierarchy::intersect(const GmRayAxis<-1, 0, 0>& ray, std::vector<GmPointIntersectionInfo>& hits,
                                          bool append, bool includeDisabled) const {
    return intersectRay(ray, hits, append, includeDisabled);
}
bool GmBoundingVolumeHierarchy::intersect(const GmRayAxis<0, 1, 0>& ray, std::vector<GmPointIntersectionInfo>& hits,
                                          bool append, bool includeDisabled) const {
    return intersectRay(ray, hits, append, includeDisabled);
}
bool GmBoundingVolumeHierarchy::intersect(const GmRayAxis<0, -1, 0>& ray, std::vector<GmPointIntersectionInfo>& hits,
                                          bool append, bool includeDisabled) const {
    return intersectRay(ray, hits, append, includeDisabled);
}
bool GmBoundingVolumeHierarchy::intersect(const GmRayAxis<0, 0, 1>& ray, std::vector<GmPointIntersectionInfo>& hits,
                                          bool append, bool includeDisabled) const {
    return intersectRay(ray, hits, append, includeDisabled);
}
bool GmBoundingVolumeHierarchy::intersect(const GmRayAxis<0, 0, -1>& ray, std::vector<GmPointIntersectionInfo>& hits,
                                          bool append, bool includeDisabled) const {
    return intersectRay(ray, hits, append, includeDisabled);
}

// ---- Seeding of the closest-point search ------------------------------------------------

namespace {

struct NearestHit {
    int face = -1;
    double distanceSquared = DBL_MAX;
    GmTVector<double> point, weights;
};

template <class Ray>
NearestHit nearestAxisHit(const std::vector<Node>& nodes, const GmTriangleMesh& mesh, const GmTVector<double>& p,
                          bool includeDisabled) {
    NearestHit best;
    const RayTests<Ray> tests{Ray(p)};
    walkRay(nodes, mesh, tests, includeDisabled,
            [&](int face, const GmTVector<double>& point, const GmTVector<double>& weights) {
                const double d2 = (point - p).lengthSquared();
                if (best.face < 0 || d2 < best.distanceSquared) {
                    best.face = face;
                    best.distanceSquared = d2;
                    best.point = point;
                    best.weights = weights;
                }
            });
    return best;
}

}  // namespace

bool GmBoundingVolumeHierarchy::initializeClosestPointInfo(const GmTVector<double>& p, ClosestPointInfo& info,
                                                           bool checkInside, bool includeDisabled) const {
    info = ClosestPointInfo();
    info.face = -1;
    info.type = GmGeometry::INVALID;
    info.distanceSquared = DBL_MAX;
    if (_mesh == nullptr || _nodes.empty()) return false;
    const bool closed = checkInside && isMeshClosed(includeDisabled);

    typedef NearestHit (*Caster)(const std::vector<Node>&, const GmTriangleMesh&, const GmTVector<double>&, bool);
    static const Caster casters[6] = {&nearestAxisHit<GmRayAxis<1, 0, 0>>, &nearestAxisHit<GmRayAxis<0, 1, 0>>,
                                      &nearestAxisHit<GmRayAxis<0, 0, 1>>, &nearestAxisHit<GmRayAxis<-1, 0, 0>>,
                                      &nearestAxisHit<GmRayAxis<0, -1, 0>>, &nearestAxisHit<GmRayAxis<0, 0, -1>>};
    bool any = false;
    for (const Caster cast : casters) {
        const NearestHit hit = cast(_nodes, *_mesh, p, includeDisabled);
        if (hit.face < 0) {
            if (closed) {
                // A ray that leaves a closed mesh without meeting it starts outside.
                info = ClosestPointInfo();
                info.face = -1;
                info.type = GmGeometry::INVALID;
                info.distanceSquared = DBL_MAX;
                return false;
            }
            continue;
        }
        if (!any || hit.distanceSquared < info.distanceSquared) {
            any = true;
            info.face = hit.face;
            info.distanceSquared = hit.distanceSquared;
            info.point = hit.point;
            info.s = hit.weights.y;
            info.t = hit.weights.z;
            info.type = classifyWeights(hit.weights.x, hit.weights.y, hit.weights.z);
        }
    }
    return any;
}

// Ray queries of the face hierarchy (general and axis rays), and the seeding of the
// closest-point search by the six axis rays.

#include <cfloat>
#include <cstddef>
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
    // Slab test with the reciprocal direction, when every direction component lies within
    // [1e-300, 1e300] in magnitude (so that the reciprocal is a normal number):
    // per axis the entry and exit parameters t = (bound - o) / d, computed with three roundings
    // each, so within a relative 3.1 * 2^-53 of the exact values with their exact signs. The
    // box is missed when the exit lies behind the origin or the latest entry comes after the
    // earliest exit by more than the rounding can explain (2^-49 relative, 1e-300 absolute for
    // underflow). NaN bounds never reject.
    bool slabs;
    double o[3], inv[3];
    std::size_t enter[3], exit[3];  // per axis the offset in a box of the bound where the ray enters / leaves

    explicit RayTests(const GmRay& r) : ray(r), slabs(true) {
        const GmTVector<double>& d = ray.getDirection();
        for (int a = 0; a < 3; ++a) {
            o[a] = ray.getOrigin()[a];
            slabs = slabs && std::fabs(d[a]) >= 1e-300 && std::fabs(d[a]) <= 1e300;
            inv[a] = slabs ? 1.0 / d[a] : 0.0;
            const std::size_t low = offsetof(GmAxisAlignedBox, minX) + sizeof(float) * static_cast<std::size_t>(a);
            const std::size_t high = offsetof(GmAxisAlignedBox, maxX) + sizeof(float) * static_cast<std::size_t>(a);
            enter[a] = d[a] > 0.0 ? low : high;
            exit[a] = d[a] > 0.0 ? high : low;
        }
    }

    bool valid() const {
        const GmTVector<double>& d = ray.getDirection();
        return finite(ray.getOrigin()) && finite(d) && d.length() > DBL_EPSILON;
    }
    bool box(const GmAxisAlignedBox& b) const {
        if (!slabs) return GmGeometry::intersectRayBox(b, ray);
        const char* const p = reinterpret_cast<const char*>(&b);
        const auto bound = [p](std::size_t offset) {
            return static_cast<double>(*reinterpret_cast<const float*>(p + offset));
        };
        const double e0 = (bound(enter[0]) - o[0]) * inv[0];
        const double e1 = (bound(enter[1]) - o[1]) * inv[1];
        const double e2 = (bound(enter[2]) - o[2]) * inv[2];
        const double x0 = (bound(exit[0]) - o[0]) * inv[0];
        const double x1 = (bound(exit[1]) - o[1]) * inv[1];
        const double x2 = (bound(exit[2]) - o[2]) * inv[2];
        const double first = std::max(std::max(e0, e1), e2);
        const double last = std::min(std::min(x0, x1), x2);
        constexpr double kSlack = 1.0 + 0x1p-49;
        return !((last < 0.0) | (first > last * kSlack + 1e-300));
    }
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
// Both children of a node are tested together (they share a cache line or two), and the
// children of those that pass are fetched ahead while the walk goes on.
template <class Ray, class Hit>
void walkRay(const std::vector<Node>& nodes, const GmTriangleMesh& mesh, const RayTests<Ray>& tests,
             bool includeDisabled, Hit&& hit) {
    if (nodes.empty()) return;
    const Node* const base = nodes.data();
    const int count = static_cast<int>(nodes.size());
    const std::vector<GmTVector<double>>& v = mesh.getVertices();
    const GmTriangleFace* const faces = mesh.getFaces().data();
    // A leaf that passes is visited: its face data is made current right away (every face visit
    // does this), which also starts fetching the face's cache slot early.
    const auto enter = [&](const Node& leaf) {
        __builtin_prefetch(leaf.primitive);
        mesh.getFaceArea(static_cast<int>(leaf.primitive - faces));
    };
    const auto passes = [&](const Node& node) { return (includeDisabled || !node.disabled) && tests.box(node.box); };
    const auto fetchChildren = [&](long long i) {
        const long long c = 2 * i + 1;
        if (c < count) {
            const char* p = reinterpret_cast<const char*>(base + c);
            __builtin_prefetch(p);
            __builtin_prefetch(p + 2 * sizeof(Node) - 1);
        }
    };
    if (!passes(base[0])) return;
    if (base[0].isLeaf()) enter(base[0]);
    int stack[64];
    int top = 0;
    int i = 0;
    for (;;) {
        const Node& node = base[i];
        if (!node.isLeaf()) {
            const int l = 2 * i + 1, r = l + 1;
            const bool left = passes(base[l]), right = passes(base[r]);
            if (left) {
                if (base[l].isLeaf()) enter(base[l]);
                fetchChildren(l);
                fetchChildren(2LL * l + 1);
                fetchChildren(2LL * l + 2);
            }
            if (right) {
                if (base[r].isLeaf()) enter(base[r]);
                fetchChildren(r);
                stack[top++] = r;
            }
            if (left) {
                i = l;
                continue;
            }
        } else {
            const GmTriangleFace& f = *node.primitive;
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

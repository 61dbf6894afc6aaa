// Ray queries of the face hierarchy (general and axis rays, every hit or the first), and the
// seeding of the closest-point search by the six axis rays.

#include <cfloat>
#include <cstddef>
#include <cmath>
#include <limits>
#include <type_traits>

#include <quarrygeom/bvh/GmBoundingVolumeHierarchy.h>
#include <quarrygeom/mesh/GmTriangleMesh.h>
#include <quarrygeom/primitives/GmGeometry.h>

#include "../primitives/GmRayTriangle.h"
#include "GmBVHInternal.h"
#include "GmBVHRayTree.h"

#if defined(__SSE2__)
#include <xmmintrin.h>
#endif

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
    // Slab test with the reciprocal direction, when every direction component is zero or lies
    // within [1e-300, 1e300] in magnitude (so that the reciprocal is a normal number):
    // per axis the entry and exit parameters t = (bound - o) / d, computed with three roundings
    // each, so within a relative 3.1 * 2^-53 of the exact values with their exact signs. The
    // box is missed when the exit lies behind the origin or the latest entry comes after the
    // earliest exit by more than the rounding can explain (2^-49 relative, 1e-300 absolute for
    // underflow). NaN bounds never reject. An axis along which the ray does not move is met
    // exactly when the origin lies between the box's bounds on it.
    bool slabs;
    bool flat[3];
    bool anyFlat;
    double o[3], inv[3];
    std::size_t enter[3], exit[3];  // per axis the offset in a box of the bound where the ray enters / leaves
    GmGeometry::RayTri::Ray tri;    // the triangle test's per-ray values

    explicit RayTests(const GmRay& r)
        : ray(r), slabs(true), anyFlat(false), tri(r.getOrigin(), r.getDirection()) {
        const GmTVector<double>& d = ray.getDirection();
        for (int a = 0; a < 3; ++a) {
            o[a] = ray.getOrigin()[a];
            flat[a] = d[a] == 0.0;
            anyFlat = anyFlat || flat[a];
            slabs = slabs && (flat[a] || (std::fabs(d[a]) >= 1e-300 && std::fabs(d[a]) <= 1e300));
            inv[a] = slabs && !flat[a] ? 1.0 / d[a] : 0.0;
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
        if (anyFlat)
            for (int a = 0; a < 3; ++a)
                // d == 0: enter names the upper bound, exit the lower one.
                if (flat[a] && (bound(exit[a]) > o[a] || bound(enter[a]) < o[a])) return false;
        // A flat axis gives 0 * finite = 0 for both parameters: it never decides below.
        const double e0 = flat[0] ? -HUGE_VAL : (bound(enter[0]) - o[0]) * inv[0];
        const double e1 = flat[1] ? -HUGE_VAL : (bound(enter[1]) - o[1]) * inv[1];
        const double e2 = flat[2] ? -HUGE_VAL : (bound(enter[2]) - o[2]) * inv[2];
        const double x0 = flat[0] ? HUGE_VAL : (bound(exit[0]) - o[0]) * inv[0];
        const double x1 = flat[1] ? HUGE_VAL : (bound(exit[1]) - o[1]) * inv[1];
        const double x2 = flat[2] ? HUGE_VAL : (bound(exit[2]) - o[2]) * inv[2];
        const double first = std::max(std::max(e0, e1), e2);
        const double last = std::min(std::min(x0, x1), x2);
        constexpr double kSlack = 1.0 + 0x1p-49;
        return !((last < 0.0) | (first > last * kSlack + 1e-300));
    }
    bool triangle(const GmTVector<double>& v1, const GmTVector<double>& v2, const GmTVector<double>& v3,
                  GmTVector<double>& point, GmTVector<double>& weights) const {
        double t, u, v;
        if (!GmGeometry::RayTri::intersect(tri, v1, v2, v3, point, t, u, v)) return false;
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
        return test<false>(v1, v2, v3, point, weights);
    }
    // Relative: the determinant's tolerance relative to its products, the one behind the origin
    // relative to the face's extent along the ray and to the origin's coordinate.
    template <bool Relative>
    bool test(const GmTVector<double>& v1, const GmTVector<double>& v2, const GmTVector<double>& v3,
              GmTVector<double>& point, GmTVector<double>& weights) const {
        const double p1 = (v3[C] - v1[C]) * (v2[B] - v1[B]), p2 = (v3[B] - v1[B]) * (v2[C] - v1[C]);
        const double det = p1 - p2;
        if (!(std::fabs(det) > (Relative ? kAxisTol * (std::fabs(p1) + std::fabs(p2)) : kAxisTol))) return false;
        const double dx = o[B] - v1[B], dy = o[C] - v1[C];
        const double u = (dx * (v3[C] - v1[C]) - dy * (v3[B] - v1[B])) / det;
        if (u < -kAxisTol || u > kAxisOne) return false;
        const double v = -(dx * (v2[C] - v1[C]) - dy * (v2[B] - v1[B])) / det;
        if (v < -kAxisTol || u + v > kAxisOne) return false;
        const double w = 1.0 - u - v;
        point = v1 * w + v2 * u + v3 * v;
        const double behind =
            Relative ? kAxisTol * (std::fabs(v2[A] - v1[A]) + std::fabs(v3[A] - v1[A])) + 0x1p-48 * std::fabs(o[A])
                     : kAxisTol;
        if (S < 0 ? point[A] > o[A] + behind : point[A] < o[A] - behind) return false;
        weights.set(w, u, v);
        return true;
    }
};

// Depth-first walk, left child first; hit(face, point, weights) for every face the ray meets.
// Both children of a node are tested together (they share a cache line or two), and the
// children of those that pass are fetched ahead while the walk goes on.
template <class Tests, class Hit>
void walkRay(const std::vector<Node>& nodes, const GmTriangleMesh& mesh, const Tests& tests, bool includeDisabled,
             Hit&& hit) {
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

// ---- Walk over the four-wide copy ---------------------------------------------------------

// A general ray set up for testing four float boxes at once. Parameters are measured along
// d / m, m the largest direction component, so that every reciprocal lies in [1, 2^60] (an
// exactly zero component gives +inf). The origin is replaced per axis by the two floats around
// it: the one that makes the entry parameter smaller and the one that makes the exit parameter
// larger. Each parameter then comes out within three float roundings of the exact one for a
// box enclosing the box widened by the origin's rounding, with its exact sign, so a box that
// the ray meets always passes with the slack kUp: a superset of what the exact slab test
// accepts. A NaN parameter (0 * inf: the origin on a bound, the ray parallel to it) never
// decides. Rays with a component below 2^-60 of the largest one, or an origin beyond 2^60,
// use the binary walk.
struct WideRay {
    static constexpr float kUp = 1.0f + 0x1p-18f;
    static constexpr float kAbs = 0x1p-100f;

    bool usable = false;
    double scale = 1.0;  // m
    int nearIsHi[3] = {0, 0, 0};
    std::size_t nearOffset[3] = {0, 0, 0}, farOffset[3] = {0, 0, 0};  // bytes into a RayNode
#if defined(__SSE2__)
    __m128 near[3], far[3], inv[3];
#else
    float near[3], far[3], inv[3];
#endif

    explicit WideRay(const GmRay& ray) {
        const GmTVector<double>& o = ray.getOrigin();
        const GmTVector<double>& d = ray.getDirection();
        const double m = std::max(std::fabs(d.x), std::max(std::fabs(d.y), std::fabs(d.z)));
        // The rays the binary walk accepts (and no others): finite, longer than DBL_EPSILON.
        if (!finite(d) || !(d.length() > DBL_EPSILON)) return;
        scale = m;
        for (int a = 0; a < 3; ++a) {
            if (!(std::fabs(o[a]) <= 0x1p60)) return;
            const double dn = d[a] / m;
            float r;
            if (dn == 0.0) {
                r = std::numeric_limits<float>::infinity();
            } else {
                if (std::fabs(dn) < 0x1p-60) return;
                r = static_cast<float>(1.0 / dn);
            }
            const bool negative = dn < 0.0;
            nearIsHi[a] = negative ? 1 : 0;
            const std::size_t lo = offsetof(RayNode, lo) + 16 * static_cast<std::size_t>(a);
            const std::size_t hi = offsetof(RayNode, hi) + 16 * static_cast<std::size_t>(a);
            nearOffset[a] = negative ? hi : lo;
            farOffset[a] = negative ? lo : hi;
            const float up = floatUp(o[a]), down = floatDown(o[a]);
            const float n = negative ? down : up, f = negative ? up : down;
#if defined(__SSE2__)
            near[a] = _mm_set1_ps(n);
            far[a] = _mm_set1_ps(f);
            inv[a] = _mm_set1_ps(r);
#else
            near[a] = n;
            far[a] = f;
            inv[a] = r;
#endif
        }
        usable = true;
    }

    // Float bound of a parameter t along the given direction: at or above t * m.
    float limit(double t) const { return floatUp(t * scale); }

    // Lanes of the node whose boxes the ray meets between 0 and tMax; their entry parameters
    // in entry[] when asked.
    QG_BVH_ALWAYS_INLINE unsigned test(const RayNode& node, float tMax, float* entry) const {
#if defined(__SSE2__)
        __m128 tNear = _mm_setzero_ps(), tFar = _mm_set1_ps(tMax);
        for (int a = 0; a < 3; ++a) {
            const char* const base = reinterpret_cast<const char*>(&node);
            const __m128 nb = _mm_load_ps(reinterpret_cast<const float*>(base + nearOffset[a]));
            const __m128 fb = _mm_load_ps(reinterpret_cast<const float*>(base + farOffset[a]));
            // max/min return their second operand when either is NaN: a NaN parameter is dropped.
            tNear = _mm_max_ps(_mm_mul_ps(_mm_sub_ps(nb, near[a]), inv[a]), tNear);
            tFar = _mm_min_ps(_mm_mul_ps(_mm_sub_ps(fb, far[a]), inv[a]), tFar);
        }
        const __m128 reach = _mm_add_ps(_mm_mul_ps(tFar, _mm_set1_ps(kUp)), _mm_set1_ps(kAbs));
        if (entry != nullptr) _mm_storeu_ps(entry, tNear);
        return static_cast<unsigned>(_mm_movemask_ps(_mm_cmple_ps(tNear, reach)));
#else
        unsigned mask = 0;
        for (int j = 0; j < 4; ++j) {
            float tNear = 0.0f, tFar = tMax;
            for (int a = 0; a < 3; ++a) {
                const float nb = nearIsHi[a] ? node.hi[a][j] : node.lo[a][j];
                const float fb = nearIsHi[a] ? node.lo[a][j] : node.hi[a][j];
                const float te = (nb - near[a]) * inv[a], tx = (fb - far[a]) * inv[a];
                if (te > tNear) tNear = te;
                if (tx < tFar) tFar = tx;
            }
            if (entry != nullptr) entry[j] = tNear;
            if (tNear <= tFar * kUp + kAbs) mask |= 1u << j;
        }
        return mask;
#endif
    }
};

// Leaf-table entry k's face against the ray; hit(face, point, t, weights).
struct LeafTriangle {
    const GmBoundingVolumeHierarchy::LeafFace* leaves;
    const GmTVector<double>* vertices;
    const GmGeometry::RayTri::Ray& ray;

    // Start loading the face's vertices (reads the entry).
    QG_BVH_ALWAYS_INLINE void fetch(int k) const { prefetchFaceVertices(vertices, leaves[k]); }
    template <class Hit>
    QG_BVH_ALWAYS_INLINE void operator()(int k, Hit&& hit) const {
        const GmBoundingVolumeHierarchy::LeafFace& e = leaves[k];
        GmTVector<double> point;
        double t, u, v;
        if (GmGeometry::RayTri::intersect(ray, vertices[e.vertices[0]], vertices[e.vertices[1]],
                                          vertices[e.vertices[2]], point, t, u, v))
            hit(e.face, point, t, GmTVector<double>(1.0 - u - v, u, v));
    }
};

QG_BVH_ALWAYS_INLINE void fetchWide(const RayNode* nodes, int w) { prefetchBytes<sizeof(RayNode)>(nodes + w); }

// Every face the ray meets, in the binary walk's order: lanes are taken left to right.
template <class Hit>
void walkWideAll(const RayTree& tree, const WideRay& ray, const LeafTriangle& leaf, bool includeDisabled, Hit&& hit) {
    const RayNode* const nodes = tree.nodes();
    const float tMax = std::numeric_limits<float>::infinity();
    int stack[4 * 32];
    int top = 0;
    int current = 0;
    for (;;) {
        if (current >= 0) {
            const RayNode& node = nodes[current];
            unsigned mask = ray.test(node, tMax, nullptr);
            if (!includeDisabled) mask &= ~node.disabled;
            if (mask != 0) {
                const int first = __builtin_ctz(mask);
                for (unsigned rest = mask & (mask - 1); rest != 0;) {
                    const int j = 31 - __builtin_clz(rest);
                    rest &= ~(1u << j);
                    const int c = node.child[j];
                    if (c >= 0)
                        fetchWide(nodes, c);
                    else
                        leaf.fetch(~c);
                    stack[top++] = c;
                }
                current = node.child[first];
                continue;
            }
        } else {
            leaf(~current, hit);
        }
        if (top == 0) break;
        current = stack[--top];
    }
}

// The nearest hit: lanes nearest entry first, subtrees entered only while their entry is not
// beyond the best parameter found (with the ray's slack, so equal parameters are all seen).
template <class Hit>
void walkWideFirst(const RayTree& tree, const WideRay& ray, const LeafTriangle& leaf, bool includeDisabled,
                   float& tMax, Hit&& hit) {
    const RayNode* const nodes = tree.nodes();
    struct Entry {
        float t;
        int code;
    };
    Entry stack[4 * 32];
    int top = 0;
    int current = 0;
    float currentT = 0.0f;
    for (;;) {
        if (currentT <= tMax * WideRay::kUp + WideRay::kAbs) {
            if (current >= 0) {
                const RayNode& node = nodes[current];
                float entry[4];
                unsigned mask = ray.test(node, tMax, entry);
                if (!includeDisabled) mask &= ~node.disabled;
                if (mask != 0) {
                    Entry found[4];
                    int k = 0;
                    for (unsigned m = mask; m != 0; m &= m - 1) {
                        const int j = __builtin_ctz(m);
                        Entry e{entry[j], node.child[j]};
                        int p = k++;
                        for (; p > 0 && found[p - 1].t > e.t; --p) found[p] = found[p - 1];
                        found[p] = e;
                    }
                    for (int j = k - 1; j > 0; --j) {
                        const int c = found[j].code;
                        if (c >= 0)
                            fetchWide(nodes, c);
                        else
                            leaf.fetch(~c);
                        stack[top++] = found[j];
                    }
                    current = found[0].code;
                    currentT = found[0].t;
                    continue;
                }
            } else {
                leaf(~current, hit);
            }
        }
        if (top == 0) break;
        --top;
        current = stack[top].code;
        currentT = stack[top].t;
    }
}

}  // namespace

// ---- Queries ----------------------------------------------------------------------------

GmBoundingVolumeHierarchy::RayCache::RayCache() : _cache(new RayTreeCache) {}
GmBoundingVolumeHierarchy::RayCache::RayCache(const RayCache&) : _cache(new RayTreeCache) {}
GmBoundingVolumeHierarchy::RayCache& GmBoundingVolumeHierarchy::RayCache::operator=(const RayCache& other) {
    if (this != &other) _cache->reset(false);
    return *this;
}
GmBoundingVolumeHierarchy::RayCache::~RayCache() { delete _cache; }

const RayTree* GmBoundingVolumeHierarchy::_rayTree() const { return _rayCache.get().use(_nodes); }

bool GmBoundingVolumeHierarchy::prepareRayQueries() const {
    if (_mesh == nullptr || _nodes.empty()) return false;
    return _rayCache.get().make(_nodes, true) != nullptr;
}

template <class Ray>
bool GmBoundingVolumeHierarchy::intersectRay(const Ray& ray, std::vector<GmPointIntersectionInfo>& hits, bool append,
                                             bool includeDisabled) const {
    if (!append) hits.clear();
    if (_mesh == nullptr || _nodes.empty()) return !hits.empty();
    const auto record = [&](int face, const GmTVector<double>& point, const GmTVector<double>& weights) {
        GmPointIntersectionInfo info;
        info.objectIndex = -1;
        info.triangleIndex = face;
        info.point = point;
        info.barycentric = weights;
        hits.push_back(info);
    };
    if constexpr (std::is_same<Ray, GmRay>::value) {
        const RayTree* wide = _rayTree();
        const WideRay wray(ray);
        if (wide != nullptr && wray.usable) {  // finite origin and direction, not zero
            if (!includeDisabled && _nodes[0].disabled) return !hits.empty();
            const GmGeometry::RayTri::Ray tri(ray.getOrigin(), ray.getDirection());
            const LeafTriangle leaf{_leafFaces.data(), _mesh->getVertices().data(), tri};
            walkWideAll(*wide, wray, leaf, includeDisabled,
                        [&](int face, const GmTVector<double>& point, double, const GmTVector<double>& weights) {
                            record(face, point, weights);
                        });
            return !hits.empty();
        }
    }
    const RayTests<Ray> tests(ray);
    if (tests.valid()) walkRay(_nodes, *_mesh, tests, includeDisabled, record);
    return !hits.empty();
}

bool GmBoundingVolumeHierarchy::intersectFirst(const GmRay& ray, GmPointIntersectionInfo& hit, double& t,
                                               bool includeDisabled) const {
    hit = GmPointIntersectionInfo();
    t = DBL_MAX;
    if (_mesh == nullptr || _nodes.empty()) return false;
    if (!includeDisabled && _nodes[0].disabled) return false;
    bool found = false;
    const auto keep = [&](int face, const GmTVector<double>& point, double tt, const GmTVector<double>& weights) {
        if (found && !(tt < t || (tt == t && face < hit.triangleIndex))) return;
        found = true;
        t = tt;
        hit.objectIndex = -1;
        hit.triangleIndex = face;
        hit.point = point;
        hit.barycentric = weights;
    };
    const RayTree* wide = _rayTree();
    const WideRay wray(ray);
    if (wide != nullptr && wray.usable) {
        const GmGeometry::RayTri::Ray tri(ray.getOrigin(), ray.getDirection());
        float tMax = std::numeric_limits<float>::infinity();
        const LeafTriangle leaf{_leafFaces.data(), _mesh->getVertices().data(), tri};
        walkWideFirst(*wide, wray, leaf, includeDisabled, tMax,
                      [&](int face, const GmTVector<double>& point, double tt, const GmTVector<double>& weights) {
                          keep(face, point, tt, weights);
                          tMax = wray.limit(t);
                      });
        return found;
    }
    // The binary walk reports every hit; the nearest is kept. Its parameter comes from the
    // same triangle test.
    const RayTests<GmRay> tests(ray);
    if (!tests.valid()) return false;
    const GmTVector<double>* const vertices = _mesh->getVertices().data();
    walkRay(_nodes, *_mesh, tests, includeDisabled,
            [&](int face, const GmTVector<double>&, const GmTVector<double>&) {
                const GmTriangleFace& f = _mesh->getFaces()[static_cast<size_t>(face)];
                GmTVector<double> point;
                double tt, u, v;
                if (GmGeometry::RayTri::intersect(tests.tri, vertices[f.vertices[0]], vertices[f.vertices[1]],
                                                  vertices[f.vertices[2]], point, tt, u, v))
                    keep(face, point, tt, GmTVector<double>(1.0 - u - v, u, v));
            });
    return found;
}

bool GmBoundingVolumeHierarchy::intersectFirst(const GmRay& ray, GmPointIntersectionInfo& hit,
                                               bool includeDisabled) const {
    double t;
    return intersectFirst(ray, hit, t, includeDisabled);
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

// The axis-ray test with tolerances relative to the face's size (and, behind the origin, to the
// coordinates), for the seeding only: its "no face met on a closed mesh" means outside, which an
// absolute 1e-8 on the determinant would conclude for every point of a mesh of small faces.
template <class Ray>
struct SeedTests : RayTests<Ray> {
    using Base = RayTests<Ray>;
    using Base::Base;
    bool triangle(const GmTVector<double>& v1, const GmTVector<double>& v2, const GmTVector<double>& v3,
                  GmTVector<double>& point, GmTVector<double>& weights) const {
        return this->template test<true>(v1, v2, v3, point, weights);
    }
};

template <class Ray>
NearestHit nearestAxisHit(const std::vector<Node>& nodes, const GmTriangleMesh& mesh, const GmTVector<double>& p,
                          bool includeDisabled) {
    NearestHit best;
    const SeedTests<Ray> tests{Ray(p)};
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
        }
    }
    if (any) {
        // The seed is the closest point of the face met nearest: a hit point of a face seen
        // nearly edge-on carries the rounding of a small determinant, and a bound below the
        // true distance would let the search pass over the nearest face.
        const GmTriangleFace& f = _mesh->getFace(info.face);
        const std::vector<GmTVector<double>>& V = _mesh->getVertices();
        const GmTVector<double>& v1 = V[static_cast<size_t>(f.vertices[0])];
        const GmTVector<double>& v2 = V[static_cast<size_t>(f.vertices[1])];
        const GmTVector<double>& v3 = V[static_cast<size_t>(f.vertices[2])];
        double s = 0.0, t = 0.0;
        info.distanceSquared = GmGeometry::closestParametricPointOnTriangle(p, v1, v2, v3, s, t);
        info.s = s;
        info.t = t;
        info.point = v1 * (1.0 - s - t) + v2 * s + v3 * t;
        info.type = classifyWeights(1.0 - s - t, s, t);
    }
    return any;
}

#pragma once

// Inside test by ray parity: exact crossing test of an axis ray with a triangle, the ray walk
// through the hierarchy, and the check that a mesh allows it (not installed).

#include <cmath>
#include <vector>

#include <quarrygeom/bvh/GmBoundingVolumeHierarchy.h>
#include <quarrygeom/mesh/GmTriangleMesh.h>
#include <quarrygeom/primitives/GmGeometry.h>
#include <quarrygeom/primitives/GmPredicates.h>

#include "GmBVHInternal.h"
#include "../primitives/GmOrient3dFilter.h"

namespace GmBVHInside {

typedef GmTVector<double> V3;
typedef GmBoundingVolumeHierarchy::Node Node;

// ---- Exact signs --------------------------------------------------------------------------

// The first, floating-point stage of the adaptive predicates, inline: it settles almost every
// call; the library predicate decides the rest. The bounds are those of the predicates.
constexpr double kEpsilon = 1.1102230246251565e-16;  // 2^-53
constexpr double kCcwBoundA = (3.0 + 16.0 * kEpsilon) * kEpsilon;

inline int sign(double v) { return v > 0.0 ? 1 : (v < 0.0 ? -1 : 0); }

// Sign of orient2d on (x, y) pairs. The inline stage decides only while the products are
// finite and far from underflow; the library predicate (exact for every finite input) decides
// the rest.
inline int orient2(const double* pa, const double* pb, const double* pc) {
    const double detleft = (pa[0] - pc[0]) * (pb[1] - pc[1]);
    const double detright = (pa[1] - pc[1]) * (pb[0] - pc[0]);
    const double det = detleft - detright;
    const double detsum = std::fabs(detleft) + std::fabs(detright);
    if (detsum >= 0x1p-900 && detsum <= 1.7976931348623157e308) {
        if ((detleft > 0.0 && detright <= 0.0) || (detleft < 0.0 && detright >= 0.0)) return sign(det);
        const double bound = kCcwBoundA * detsum;
        if (det >= bound || -det >= bound) return sign(det);
    }
    return sign(GmPredicates::orient2d(pa, pb, pc));
}

// Sign of orient3d: positive when d lies on the side of plane abc from which abc appears clockwise.
inline int orient3(const V3& a, const V3& b, const V3& c, const V3& d) {
    double det, permanent;
    if (GmOrient3dFilter::stageA(&a.x, &b.x, &c.x, &d.x, det, permanent)) return sign(det);
    return sign(GmPredicates::orient3d(&a.x, &b.x, &c.x, &d.x));
}

// Sign of orient2d of the projections onto the coordinate plane that leaves out axis `drop`
// (the two remaining axes in cyclic order, so that the sign is that of the normal's
// component along `drop`).
inline int orient2Dropped(const V3& a, const V3& b, const V3& c, int drop) {
    const int i = (drop + 1) % 3, j = (drop + 2) % 3;
    const double pa[2] = {a[i], a[j]}, pb[2] = {b[i], b[j]}, pc[2] = {c[i], c[j]};
    return orient2(pa, pb, pc);
}

// ---- Axis ray against one triangle --------------------------------------------------------

// The ray from p along axis A in sense S (+1 or -1) against triangle abc, exactly: 1 when it
// crosses the triangle's interior transversally ahead of p, 0 when it misses the closed
// triangle, -1 when the decision is degenerate (the ray meets an edge or a vertex, lies in the
// triangle's plane, or starts on the triangle).
template <int A, int S>
inline int axisRayCrossing(const V3& a, const V3& b, const V3& c, const V3& p) {
    constexpr int B = (A + 1) % 3, C = (A + 2) % 3;
    const double pa[2] = {a[B], a[C]}, pb[2] = {b[B], b[C]}, pc[2] = {c[B], c[C]}, pp[2] = {p[B], p[C]};
    const int o1 = orient2(pa, pb, pp);
    const int o2 = orient2(pb, pc, pp);
    if (o1 * o2 < 0) return 0;
    const int o3 = orient2(pc, pa, pp);
    if (o1 * o3 < 0 || o2 * o3 < 0) return 0;
    if (o1 == 0 || o2 == 0 || o3 == 0) return -1;
    // p's projection is strictly inside: o1 is the sign of the normal's A component. The face
    // lies ahead when p is below its plane (orient3d > 0) and the normal points along the ray,
    // or above it and the normal points against the ray.
    const int h = orient3(a, b, c, p);
    if (h == 0) return -1;
    return h * o1 * S > 0 ? 1 : 0;
}

// ---- Ray walk -----------------------------------------------------------------------------

enum RayOutcome {
    kRayDecided,      // every face met was decided; cross() saw the crossed ones
    kRayDegenerate,   // a face met the ray degenerately: try another ray
    kRayNearSurface,  // a face lies within delta of p
};

// Trees above this many nodes (2.6 MB) are walked with prefetching.
constexpr int kPrefetchNodes = 1 << 16;

inline void prefetchLine(const void* address) {
#if defined(__GNUC__) || defined(__clang__)
    __builtin_prefetch(address);
#else
    (void)address;
#endif
}

template <int K>
inline float boxMin(const GmAxisAlignedBox& b) {
    return K == 0 ? b.minX : (K == 1 ? b.minY : b.minZ);
}
template <int K>
inline float boxMax(const GmAxisAlignedBox& b) {
    return K == 0 ? b.maxX : (K == 1 ? b.maxY : b.maxZ);
}

// Walks the ray from p along axis A in sense S through the tree (boxes widened by delta, so
// that every box within delta of p is visited too) and calls cross(face) for every face that
// it crosses, skipping faces for which skip(face) holds. With delta > 0, a face within delta of
// p ends the walk with kRayNearSurface. Disabled flags are not consulted.
template <int A, int S, class Skip, class Cross>
RayOutcome castAxisRay(const Node* nodes, int numberNodes, const GmTriangleMesh& mesh, const V3& p, double delta,
                       Skip&& skip, Cross&& cross) {
    constexpr int B = (A + 1) % 3, C = (A + 2) % 3;
    using GmBVHDetail::floatDown;
    using GmBVHDetail::floatUp;
    const float aLo = floatDown(p[A] - delta), aHi = floatUp(p[A] + delta);
    const float bLo = floatDown(p[B] - delta), bHi = floatUp(p[B] + delta);
    const float cLo = floatDown(p[C] - delta), cHi = floatUp(p[C] + delta);
    const double delta2 = delta * delta;
    const V3* v = mesh.getVertices().data();
    // One branch per box: the five comparisons are combined without short-circuit.
    const auto passes = [&](const GmAxisAlignedBox& box) {
        return static_cast<bool>((S > 0 ? boxMax<A>(box) >= aLo : boxMin<A>(box) <= aHi) & (boxMin<B>(box) <= bHi) &
                                 (boxMax<B>(box) >= bLo) & (boxMin<C>(box) <= cHi) & (boxMax<C>(box) >= cLo));
    };
    if (!passes(nodes[0].box)) return kRayDecided;
    const bool prefetch = numberNodes > kPrefetchNodes;
    int stack[64];
    int top = 0;
    int i = 0;
    for (;;) {
        const Node& node = nodes[i];
        if (!node.isLeaf()) {
            // Children are tested before they are entered: a passing one is entered, the other
            // kept on the stack when it passes too.
            const int left = 2 * i + 1, right = left + 1;
            // The four grandchildren are contiguous: on a tree larger than the caches, fetch them
            // while the children are tested.
            if (prefetch && 4 * i + 6 < numberNodes) {
                const char* g = reinterpret_cast<const char*>(nodes + 4 * i + 3);
                prefetchLine(g);
                prefetchLine(g + 64);
                prefetchLine(g + 128);
            }
            const bool inLeft = passes(nodes[left].box), inRight = passes(nodes[right].box);
            if (inLeft) {
                if (inRight) stack[top++] = right;
                i = left;
                continue;
            }
            if (inRight) {
                i = right;
                continue;
            }
        } else {
            const GmTriangleFace& f = *node.primitive;
            if (!skip(f.index)) {
                const GmAxisAlignedBox& box = node.box;
                const V3& a = v[f.vertices[0]];
                const V3& b = v[f.vertices[1]];
                const V3& c = v[f.vertices[2]];
                if (delta > 0.0 && boxMin<A>(box) <= aHi && boxMax<A>(box) >= aLo) {
                    double s, t;
                    const double d2 = GmGeometry::closestParametricPointOnTriangle(p, a, b, c, s, t);
                    if (!(d2 > delta2)) return kRayNearSurface;
                }
                const int x = axisRayCrossing<A, S>(a, b, c, p);
                if (x < 0) return kRayDegenerate;
                if (x > 0) cross(f.index);
            }
        }
        if (top == 0) break;
        i = stack[--top];
    }
    return kRayDecided;
}

// The same with the ray chosen at run time: direction d in 0..5 is axis d % 3, sense + for
// d < 3 and - otherwise.
template <class Skip, class Cross>
RayOutcome castAxisRay(int d, const Node* nodes, int numberNodes, const GmTriangleMesh& mesh, const V3& p,
                       double delta, Skip&& skip, Cross&& cross) {
    switch (d) {
        case 0: return castAxisRay<0, 1>(nodes, numberNodes, mesh, p, delta, skip, cross);
        case 1: return castAxisRay<1, 1>(nodes, numberNodes, mesh, p, delta, skip, cross);
        case 2: return castAxisRay<2, 1>(nodes, numberNodes, mesh, p, delta, skip, cross);
        case 3: return castAxisRay<0, -1>(nodes, numberNodes, mesh, p, delta, skip, cross);
        case 4: return castAxisRay<1, -1>(nodes, numberNodes, mesh, p, delta, skip, cross);
        default: return castAxisRay<2, -1>(nodes, numberNodes, mesh, p, delta, skip, cross);
    }
}

// ---- Certificate --------------------------------------------------------------------------

// What the check found on a mesh that allows the ray-parity test.
struct Certificate {
    double delta = 0.0;            // points nearer than this to a face keep the search path
    bool anyNodeDisabled = false;  // a node carried the disabled flag when the check ran
};

// Runs the check on the tree's mesh at its current positions (the tree must be current):
// closed, edge- and vertex-manifold, consistently oriented, no zero-area face, no two faces
// meeting outside their shared vertices and edges, every connected part of positive volume
// and none inside another. Returns false as soon as one condition fails.
bool certifyRayParity(const GmBoundingVolumeHierarchy& tree, Certificate& out);

}  // namespace GmBVHInside

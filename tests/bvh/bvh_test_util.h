#pragma once

// Shared fixture of the hierarchy tests: one table of meshes, a reference build and refit written
// from the tree's rules with their own outward float rounding, and brute-force scans.

#include <algorithm>
#include <cfloat>
#include <cmath>
#include <numeric>
#include <random>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include <quarrygeom/bvh/bvh.h>
#include <quarrygeom/core/GmBVHMetrics.h>
#include <quarrygeom/mesh/mesh.h>
#include <quarrygeom/primitives/GmGeometry.h>

#include "qgtools/data_dir.h"
#include "qgtools/mesh_io.h"
#include "qgtools/shapes.h"
#include "../support/threading.h"

namespace bvhtest {

typedef GmTVector<double> V3;

inline GmTriangleMesh loadSpot() { return qgtools::loadObjMesh(qgtools::dataDir() + "/meshes/spot.obj"); }

// Appends the triangle (a, b, c) as three new vertices.
inline void addTriangle(qgtools::PolygonSoup& s, const V3& a, const V3& b, const V3& c) {
    const int i = s.numVertices();
    s.positions.insert(s.positions.end(), {a, b, c});
    s.triangles.push_back({i, i + 1, i + 2});
}

// n random triangles in the unit cube (a soup: no shared vertices).
inline GmTriangleMesh randomSoup(int n, unsigned seed) {
    std::mt19937 rng(seed);
    std::uniform_real_distribution<double> u(0.0, 1.0);
    qgtools::PolygonSoup s;
    for (int i = 0; i < n; ++i) {
        const V3 c(u(rng), u(rng), u(rng));
        auto corner = [&] { return c + V3(u(rng) - 0.5, u(rng) - 0.5, u(rng) - 0.5) * 0.2; };
        const V3 a = corner(), b = corner();
        addTriangle(s, a, b, corner());
    }
    return qgtools::meshFromSoup(s);
}

inline GmTriangleMesh transformed(GmTriangleMesh mesh, const V3& offset, double scale) {
    std::vector<V3> p = mesh.getVertices();
    for (V3& v : p) v = (v + offset) * scale;
    mesh.setVertices(p);
    return mesh;
}

inline std::vector<V3> jitteredPositions(const GmTriangleMesh& mesh, double amount, unsigned seed) {
    std::mt19937 rng(seed);
    std::uniform_real_distribution<double> u(-amount, amount);
    std::vector<V3> p = mesh.getVertices();
    for (V3& v : p) v += V3(u(rng), u(rng), u(rng));
    return p;
}

// A flat sheet (exact coordinates, equal split keys) next to upright strips, needles and slivers
// of height 1e-7: the split axes change from one subtree to the next.
inline GmTriangleMesh mixedMesh() {
    qgtools::PolygonSoup s = qgtools::clothGridSoup(24, 16);
    for (int i = 0; i < 48; ++i) {
        const double x = 0.6 + (i % 12) * 0.02, y = 0.1 + (i % 12) * 0.03, z = (i / 12) * 0.05, w = 0.02 * (i % 40);
        addTriangle(s, V3(x, 0.5, z), V3(x + 0.02, 0.5, z), V3(x, 0.5, z + 0.05));
        addTriangle(s, V3(0.2, y, z), V3(0.2, y + 0.03, z), V3(0.2, y, z + 0.05));
        if (i < 20) addTriangle(s, V3(0.9, 0.9, w), V3(0.9001, 0.9, w + 0.1), V3(0.9, 0.9001, w));
        if (i < 20) addTriangle(s, V3(w, 0.95, 0), V3(w + 0.1, 0.95, 0), V3(w, 0.95 + 1e-7, 0));
    }
    return qgtools::meshFromSoup(s);
}

struct NamedMesh {
    std::string name;
    GmTriangleMesh mesh;
};

// The table every behaviour is checked on: a soup, closed meshes, flat and degenerate faces, and
// a sphere scaled by powers of two off the origin.
inline std::vector<NamedMesh> testMeshes() {
    return {{"soup", randomSoup(300, 5)},
            {"icosphere", qgtools::makeIcosphere(3)},
            {"torus", qgtools::makeTorus(30, 12)},
            {"cube", qgtools::makeCube()},
            {"spot", loadSpot()},
            {"grid", qgtools::makeClothGrid(20, 13)},
            {"mixed", mixedMesh()},
            {"sphere 2^-12", transformed(qgtools::makeIcosphere(2), V3(3, -1, 0.5), 0x1p-12)},
            {"sphere 2^20", transformed(qgtools::makeIcosphere(2), V3(3, -1, 0.5), 0x1p20)}};
}

struct RefNode {
    GmAxisAlignedBox box;
    int face = -1;
    bool disabled = false, frozen = false;
};

// The largest float at least pad below v, and the smallest at least pad above.
inline float floatBelow(double v, double pad) {
    const double t = v - pad;
    float f = t > FLT_MAX ? HUGE_VALF : t < -FLT_MAX ? -HUGE_VALF : static_cast<float>(t);
    while (static_cast<double>(f) > t || v - static_cast<double>(f) < pad) f = std::nextafter(f, -HUGE_VALF);
    return f;
}
inline float floatAbove(double v, double pad) { return -floatBelow(-v, pad); }

// Leaf boxes and flags by face. mode 0 plain, 1 swept to positions, 2 thickened.
inline std::vector<RefNode> refLeaves(const GmTriangleMesh& mesh, int mode, const std::vector<V3>* positions,
                                      double thickness, const GmDisabledData* disabled = nullptr,
                                      const GmFrozenData* frozen = nullptr) {
    std::vector<RefNode> leaves(static_cast<size_t>(mesh.getNumberFaces()));
    for (int f = 0; f < mesh.getNumberFaces(); ++f) {
        std::vector<V3> pts;
        for (const int v : mesh.getFace(f).vertices) {
            pts.push_back(mesh.getVertex(v));
            if (mode == 1) pts.push_back((*positions)[static_cast<size_t>(v)]);
        }
        const double pad = mode == 2 ? thickness + 1e-8 : 1e-8;
        float lo[3], hi[3];
        for (int a = 0; a < 3; ++a) {
            double mn = DBL_MAX, mx = -DBL_MAX;
            for (const V3& p : pts) mn = std::min(mn, p[a]), mx = std::max(mx, p[a]);
            lo[a] = floatBelow(mn, pad);
            hi[a] = floatAbove(mx, pad);
        }
        leaves[static_cast<size_t>(f)] = {GmAxisAlignedBox(lo[0], lo[1], lo[2], hi[0], hi[1], hi[2]), f,
                                          disabled && disabled->getCount() != 0 && disabled->isFaceDisabled(f),
                                          frozen && frozen->getCount() != 0 && frozen->isFaceFrozen(f)};
    }
    return leaves;
}

inline RefNode joinedNode(const RefNode& a, const RefNode& b) {
    RefNode n{a.box, -1, a.disabled && b.disabled, a.frozen && b.frozen};
    n.box.expand(b.box);
    return n;
}

// Straight from the rules: full sort of the node's items by (centre on the axis of the largest
// box extent, face index), left count from the largest power of two not above k/2.
inline void refBuildNode(const GmTriangleMesh& mesh, const std::vector<RefNode>& leaves, std::vector<int> items,
                         size_t i, std::vector<RefNode>& nodes) {
    const int k = static_cast<int>(items.size());
    if (k == 1) return void(nodes[i] = leaves[static_cast<size_t>(items[0])]);
    int m = 1;
    if (k > 2) {
        GmAxisAlignedBox box;
        for (int f : items) box.expand(leaves[static_cast<size_t>(f)].box);
        int p = 1;
        while (2 * p <= k / 2) p *= 2;
        m = std::min(k - p, 2 * p);
        const float ext[3] = {box.maxX - box.minX, box.maxY - box.minY, box.maxZ - box.minZ};
        const int axis = ext[2] > std::max(ext[0], ext[1]) ? 2 : ext[1] > ext[0] ? 1 : 0;
        std::sort(items.begin(), items.end(), [&](int a, int b) {
            const double ka = mesh.getFaceCenter(a)[axis], kb = mesh.getFaceCenter(b)[axis];
            return ka < kb || (ka == kb && a < b);
        });
    }
    refBuildNode(mesh, leaves, std::vector<int>(items.begin(), items.begin() + m), 2 * i + 1, nodes);
    refBuildNode(mesh, leaves, std::vector<int>(items.begin() + m, items.end()), 2 * i + 2, nodes);
    nodes[i] = joinedNode(nodes[2 * i + 1], nodes[2 * i + 2]);
}

inline std::vector<RefNode> referenceBuild(const GmTriangleMesh& mesh, const std::vector<RefNode>& leaves) {
    const int n = mesh.getNumberFaces();
    std::vector<RefNode> nodes(static_cast<size_t>(n > 0 ? 2 * n - 1 : 0));
    std::vector<int> items(static_cast<size_t>(n));
    std::iota(items.begin(), items.end(), 0);
    if (n > 0) refBuildNode(mesh, leaves, items, 0, nodes);
    return nodes;
}

// What a refit must give the tree's present shape: leaves by face, internal nodes joined bottom-up.
inline std::vector<RefNode> referenceRefit(const GmBoundingVolumeHierarchy& h, const std::vector<RefNode>& leaves) {
    std::vector<RefNode> nodes(static_cast<size_t>(h.getNumberNodes()));
    for (int i = h.getNumberNodes() - 1; i >= 0; --i)
        nodes[static_cast<size_t>(i)] = h.getNode(i).isLeaf()
                                            ? leaves[static_cast<size_t>(h.getFaceIndex(h.getNode(i)))]
                                            : joinedNode(nodes[static_cast<size_t>(2 * i + 1)], nodes[static_cast<size_t>(2 * i + 2)]);
    return nodes;
}

inline bool sameBox(const GmAxisAlignedBox& a, const GmAxisAlignedBox& b) {
    return a.minX == b.minX && a.minY == b.minY && a.minZ == b.minZ && a.maxX == b.maxX && a.maxY == b.maxY &&
           a.maxZ == b.maxZ;
}

// Index of the first node that differs (leaf-table entries included), -1 when equal node for node.
inline int firstDifference(const GmBoundingVolumeHierarchy& h, const std::vector<RefNode>& ref) {
    if (static_cast<size_t>(h.getNumberNodes()) != ref.size()) return -2;
    if (h.getLeafFaces().size() != static_cast<size_t>(h.getNumberLeafNodes())) return -3;
    for (int i = 0; i < h.getNumberNodes(); ++i) {
        const auto& n = h.getNode(i);
        const RefNode& r = ref[static_cast<size_t>(i)];
        if (!sameBox(n.box, r.box) || h.getFaceIndex(n) != r.face || n.disabled != r.disabled || n.frozen != r.frozen)
            return i;
        if (r.face < 0) continue;  // a leaf: its entry in the leaf table names the face and its vertices
        const auto& e = h.getLeafFaces()[static_cast<size_t>(i - h.getNumberInternalNodes())];
        const int* v = h.getTriangleMesh()->getFace(r.face).vertices;
        if (e.face != r.face || e.vertices[0] != v[0] || e.vertices[1] != v[1] || e.vertices[2] != v[2]) return i;
    }
    return -1;
}

// Closest face among those `keep` admits: smallest squared distance, ties to the smallest index.
struct FaceAnswer {
    int face = -1;
    double d2 = DBL_MAX, s = 0.0, t = 0.0;
    double distance() const { return face < 0 ? DBL_MAX : std::sqrt(d2); }
};
template <class Keep>
FaceAnswer scanFaces(const GmTriangleMesh& mesh, const V3& p, Keep keep) {
    FaceAnswer best;
    for (int f = 0; f < mesh.getNumberFaces(); ++f) {
        double s, t;
        const double d2 = GmGeometry::closestParametricPointOnTriangle(p, mesh.getFaceVertex1(f), mesh.getFaceVertex2(f),
                                                                       mesh.getFaceVertex3(f), s, t);
        if (d2 < best.d2 && keep(f, s, t)) best = FaceAnswer{f, d2, s, t};
    }
    return best;
}
inline double bruteDistance(const GmTriangleMesh& mesh, const V3& p) {
    return scanFaces(mesh, p, [](int, double, double) { return true; }).distance();
}

// Nearest vertex of the faces `keep` admits; ties to the smallest index.
template <class Keep>
int scanVertices(const GmTriangleMesh& mesh, const V3& p, Keep keep) {
    int best = -1;
    double bestD2 = DBL_MAX;
    for (int f = 0; f < mesh.getNumberFaces(); ++f) {
        if (!keep(f)) continue;
        for (const int v : mesh.getFace(f).vertices) {
            const double d2 = (mesh.getVertex(v) - p).lengthSquared();
            if (d2 < bestD2 || (d2 == bestD2 && v < best)) best = v, bestD2 = d2;
        }
    }
    return best;
}

// Every face the ray meets by the triangle test alone, by face, with that test's outputs; `ts`
// gets the ray parameters.
template <class Keep>
std::vector<GmPointIntersectionInfo> bruteRay(const GmTriangleMesh& mesh, const V3& o, const V3& d, Keep keep,
                                              std::vector<double>* ts = nullptr) {
    std::vector<GmPointIntersectionInfo> hits;
    for (int f = 0; f < mesh.getNumberFaces(); ++f) {
        GmPointIntersectionInfo r;
        double t, u, v;
        if (!keep(f) || !GmGeometry::intersectRayTri(o, d, mesh.getFaceVertex1(f), mesh.getFaceVertex2(f),
                                                     mesh.getFaceVertex3(f), r.point, t, u, v))
            continue;
        r.triangleIndex = f;
        r.barycentric = V3(1 - u - v, u, v);
        hits.push_back(r);
        if (ts) ts->push_back(t);
    }
    return hits;
}

// Ray records equal field for field, in order.
inline void expectSameRecords(const std::vector<GmPointIntersectionInfo>& a,
                              const std::vector<GmPointIntersectionInfo>& b, const std::string& what) {
    ASSERT_EQ(a.size(), b.size()) << what;
    for (size_t i = 0; i < a.size(); ++i)
        EXPECT_TRUE(a[i].triangleIndex == b[i].triangleIndex && a[i].objectIndex == b[i].objectIndex &&
                    a[i].point == b[i].point && a[i].barycentric == b[i].barycentric)
            << what << " record " << i << ": face " << a[i].triangleIndex << " vs " << b[i].triangleIndex;
}

// Generalised winding number: 1 inside a closed outward mesh, 0 outside.
inline double windingNumber(const GmTriangleMesh& mesh, const V3& p) {
    double sum = 0.0;
    for (int f = 0; f < mesh.getNumberFaces(); ++f) {
        const V3 a = mesh.getFaceVertex1(f) - p, b = mesh.getFaceVertex2(f) - p, c = mesh.getFaceVertex3(f) - p;
        const double la = a.length(), lb = b.length(), lc = c.length();
        const double den = la * lb * lc + a.dot(b) * lc + b.dot(c) * la + c.dot(a) * lb;
        sum += 2.0 * std::atan2(a.dot(b.cross(c)), den);
    }
    return sum / (4.0 * 3.14159265358979323846);
}

inline GmAxisAlignedBox meshBounds(const GmTriangleMesh& mesh) {
    GmAxisAlignedBox b;
    for (const V3& v : mesh.getVertices()) b.expand(v);
    return b;
}

// Uniform random point in the mesh's bounds grown by margin (relative to the diagonal).
inline V3 randomPointAround(const GmTriangleMesh& mesh, std::mt19937& rng, double margin) {
    const GmAxisAlignedBox b = meshBounds(mesh);
    const V3 mn(b.minX, b.minY, b.minZ), mx(b.maxX, b.maxY, b.maxZ);
    const V3 pad = V3(1, 1, 1) * ((mx - mn).length() * margin);
    std::uniform_real_distribution<double> u(0.0, 1.0);
    const V3 lo = mn - pad, size = mx - mn + pad * 2.0;
    return V3(lo.x + size.x * u(rng), lo.y + size.y * u(rng), lo.z + size.z * u(rng));
}

// Random points around the mesh; points exactly on faces, edges and vertices; midpoints of the
// diagonals v1-v3 (a grid cell's centre); points outside the root box within a few hundred units
// (where equal distances still go to the smallest face index), and its corners.
inline std::vector<V3> queryPoints(const GmTriangleMesh& mesh, int count, unsigned seed) {
    std::mt19937 rng(seed);
    std::uniform_real_distribution<double> u(0.0, 1.0);
    std::vector<V3> pts;
    for (int i = 0; i < count; ++i) pts.push_back(randomPointAround(mesh, rng, 0.3));
    for (int i = 0; i < count / 4; ++i) {
        const int f = static_cast<int>(rng() % static_cast<unsigned>(mesh.getNumberFaces()));
        const V3 &a = mesh.getFaceVertex1(f), &b = mesh.getFaceVertex2(f), &c = mesh.getFaceVertex3(f);
        double s = u(rng), t = u(rng);
        if (s + t > 1) s = 1 - s, t = 1 - t;
        pts.insert(pts.end(), {a * (1 - s - t) + b * s + c * t, a * (1 - s) + b * s, c, (a + c) * 0.5});
    }
    const GmAxisAlignedBox b = meshBounds(mesh);
    const V3 mn(b.minX, b.minY, b.minZ), mx(b.maxX, b.maxY, b.maxZ), size = mx - mn;
    const double reach = std::max({size.x, size.y, size.z});
    for (const V3& dir : {V3(1, 0, 0), V3(0, -1, 0), V3(0, 0, 1), V3(-1, 1, -1)})
        for (const double k : {0.5, 3.0, 100.0})
            if (k * reach < 500.0) pts.push_back((mn + mx) * 0.5 + dir * (k * reach));
    for (int corner = 0; corner < 8; ++corner)
        pts.push_back(V3(corner & 1 ? mx.x : mn.x, corner & 2 ? mx.y : mn.y, corner & 4 ? mx.z : mn.z));
    return pts;
}

}  // namespace bvhtest

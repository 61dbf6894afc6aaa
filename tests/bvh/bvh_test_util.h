#pragma once

// Shared helpers of the hierarchy tests: meshes, a plain reference build of the tree written
// from its rules, brute-force references.

#include <algorithm>
#include <array>
#include <cfloat>
#include <cmath>
#include <random>
#include <string>
#include <vector>

#include <quarrygeom/bvh/bvh.h>
#include <quarrygeom/core/GmBVHMetrics.h>
#include <quarrygeom/core/tarnCollision.h>
#include <quarrygeom/mesh/mesh.h>
#include <quarrygeom/primitives/GmGeometry.h>

#include "qgtools/data_dir.h"
#include "qgtools/mesh_io.h"
#include "qgtools/shapes.h"
#include "../support/threading.h"

namespace bvhtest {

typedef GmTVector<double> V3;


inline GmTriangleMesh loadData(const std::string& name) {
    return qgtools::loadObjMesh(qgtools::dataDir() + "/meshes/" + name);
}

// n random triangles in the unit cube (a soup: no shared vertices).
inline GmTriangleMesh randomSoup(int n, unsigned seed) {
    std::mt19937 rng(seed);
    std::uniform_real_distribution<double> u(0.0, 1.0);
    qgtools::PolygonSoup s;
    for (int i = 0; i < n; ++i) {
        const V3 c(u(rng), u(rng), u(rng));
        for (int k = 0; k < 3; ++k) s.positions.push_back(c + V3(u(rng) - 0.5, u(rng) - 0.5, u(rng) - 0.5) * 0.2);
        s.triangles.push_back({3 * i, 3 * i + 1, 3 * i + 2});
    }
    return qgtools::meshFromSoup(s);
}

inline std::vector<V3> jitteredPositions(const GmTriangleMesh& mesh, double amount, unsigned seed) {
    std::mt19937 rng(seed);
    std::uniform_real_distribution<double> u(-amount, amount);
    std::vector<V3> p = mesh.getVertices();
    for (V3& v : p) v += V3(u(rng), u(rng), u(rng));
    return p;
}

// ---- Reference build ----------------------------------------------------------------------

struct RefNode {
    GmAxisAlignedBox box;
    int face = -1;
    bool disabled = false;
    bool frozen = false;
};

// The padded bounds of a face's points, rounded outwards to floats.
inline GmAxisAlignedBox refLeafBox(const std::vector<V3>& pts, double pad) {
    double mn[3] = {DBL_MAX, DBL_MAX, DBL_MAX}, mx[3] = {-DBL_MAX, -DBL_MAX, -DBL_MAX};
    for (const V3& p : pts)
        for (int a = 0; a < 3; ++a) {
            mn[a] = std::min(mn[a], p[a]);
            mx[a] = std::max(mx[a], p[a]);
        }
    GmAxisAlignedBox b;
    b.minX = GmAxisAlignedBox::padDown(mn[0], pad);
    b.minY = GmAxisAlignedBox::padDown(mn[1], pad);
    b.minZ = GmAxisAlignedBox::padDown(mn[2], pad);
    b.maxX = GmAxisAlignedBox::padUp(mx[0], pad);
    b.maxY = GmAxisAlignedBox::padUp(mx[1], pad);
    b.maxZ = GmAxisAlignedBox::padUp(mx[2], pad);
    return b;
}

// mode 0 plain, 1 swept (positions), 2 thickened (thickness).
inline GmAxisAlignedBox refFaceBox(const GmTriangleMesh& mesh, int f, int mode, const std::vector<V3>* positions,
                                   double thickness) {
    std::vector<V3> pts;
    for (int k = 0; k < 3; ++k) pts.push_back(mesh.getVertex(mesh.getFace(f).vertices[k]));
    if (mode == 1)
        for (int k = 0; k < 3; ++k) pts.push_back((*positions)[static_cast<size_t>(mesh.getFace(f).vertices[k])]);
    return refLeafBox(pts, mode == 2 ? thickness + 1e-8 : 1e-8);
}

// Straight from the rules: full sort of the node's items by (centre on the axis of the
// largest box extent, face index), left count from the largest power of two not above k/2.
inline void refBuildNode(const GmTriangleMesh& mesh, const std::vector<RefNode>& leaves, std::vector<int> items,
                         int i, std::vector<RefNode>& nodes) {
    const int k = static_cast<int>(items.size());
    if (k == 1) {
        nodes[static_cast<size_t>(i)] = leaves[static_cast<size_t>(items[0])];
        return;
    }
    RefNode node;
    node.disabled = node.frozen = true;
    for (int f : items) {
        const RefNode& l = leaves[static_cast<size_t>(f)];
        node.box.expand(l.box);
        node.disabled = node.disabled && l.disabled;
        node.frozen = node.frozen && l.frozen;
    }
    nodes[static_cast<size_t>(i)] = node;
    int m = 1;
    if (k > 2) {
        int p = 1;
        while (2 * p <= k / 2) p *= 2;
        m = std::min(k - p, 2 * p);
        const float ext[3] = {node.box.maxX - node.box.minX, node.box.maxY - node.box.minY,
                              node.box.maxZ - node.box.minZ};
        int axis = 0;
        if (ext[1] > ext[axis]) axis = 1;
        if (ext[2] > ext[axis]) axis = 2;
        std::sort(items.begin(), items.end(), [&](int a, int b) {
            const double ka = mesh.getFaceCenter(a)[axis], kb = mesh.getFaceCenter(b)[axis];
            return ka < kb || (ka == kb && a < b);
        });
    }
    refBuildNode(mesh, leaves, std::vector<int>(items.begin(), items.begin() + m), 2 * i + 1, nodes);
    refBuildNode(mesh, leaves, std::vector<int>(items.begin() + m, items.end()), 2 * i + 2, nodes);
}

inline std::vector<RefNode> referenceBuild(const GmTriangleMesh& mesh, int mode, const std::vector<V3>* positions,
                                           double thickness, const GmDisabledData* disabled = nullptr,
                                           const GmFrozenData* frozen = nullptr) {
    const int n = mesh.getNumberFaces();
    std::vector<RefNode> leaves(static_cast<size_t>(n));
    for (int f = 0; f < n; ++f) {
        leaves[static_cast<size_t>(f)].box = refFaceBox(mesh, f, mode, positions, thickness);
        leaves[static_cast<size_t>(f)].face = f;
        leaves[static_cast<size_t>(f)].disabled = disabled != nullptr && disabled->getCount() != 0 && disabled->isFaceDisabled(f);
        leaves[static_cast<size_t>(f)].frozen = frozen != nullptr && frozen->getCount() != 0 && frozen->isFaceFrozen(f);
    }
    std::vector<RefNode> nodes(static_cast<size_t>(n > 0 ? 2 * n - 1 : 0));
    if (n == 0) return nodes;
    std::vector<int> items(static_cast<size_t>(n));
    for (int f = 0; f < n; ++f) items[static_cast<size_t>(f)] = f;
    refBuildNode(mesh, leaves, items, 0, nodes);
    return nodes;
}

inline bool sameBox(const GmAxisAlignedBox& a, const GmAxisAlignedBox& b) {
    return a.minX == b.minX && a.minY == b.minY && a.minZ == b.minZ && a.maxX == b.maxX && a.maxY == b.maxY &&
           a.maxZ == b.maxZ;
}

// Whether leaf node i's entry in the leaf table names face `face` and that face's vertices.
inline bool leafEntryMatches(const GmBoundingVolumeHierarchy& h, int i, int face) {
    const std::size_t k = static_cast<std::size_t>(i - h.getNumberInternalNodes());
    if (k >= h.getLeafFaces().size()) return false;
    const GmBoundingVolumeHierarchy::LeafFace& e = h.getLeafFaces()[k];
    const GmTriangleFace& f = h.getTriangleMesh()->getFace(face);
    return e.face == face && e.vertices[0] == f.vertices[0] && e.vertices[1] == f.vertices[1] &&
           e.vertices[2] == f.vertices[2];
}

// Index of the first node that differs (leaf-table entries included), -1 when the trees are
// equal node for node.
inline int firstDifference(const GmBoundingVolumeHierarchy& h, const std::vector<RefNode>& ref) {
    if (static_cast<size_t>(h.getNumberNodes()) != ref.size()) return -2;
    if (h.getLeafFaces().size() != static_cast<size_t>(h.getNumberLeafNodes())) return -3;
    for (int i = 0; i < h.getNumberNodes(); ++i) {
        const auto& n = h.getNode(i);
        const RefNode& r = ref[static_cast<size_t>(i)];
        if (!sameBox(n.box, r.box) || h.getFaceIndex(n) != r.face || n.disabled != r.disabled || n.frozen != r.frozen)
            return i;
        if (r.face >= 0 && !leafEntryMatches(h, i, r.face)) return i;
    }
    return -1;
}

inline int firstDifference(const GmBoundingVolumeHierarchy& a, const GmBoundingVolumeHierarchy& b) {
    if (a.getNumberNodes() != b.getNumberNodes()) return -2;
    for (int i = 0; i < a.getNumberNodes(); ++i) {
        const auto& x = a.getNode(i);
        const auto& y = b.getNode(i);
        if (!sameBox(x.box, y.box) || x.primitive != y.primitive || x.disabled != y.disabled || x.frozen != y.frozen)
            return i;
        if (x.primitive != nullptr && (!leafEntryMatches(a, i, x.primitive->index) ||
                                       !leafEntryMatches(b, i, y.primitive->index)))
            return i;
    }
    return -1;
}

// ---- Brute-force references ---------------------------------------------------------------

// Smallest distance from p to any face (optionally skipping faces for which skip(f) holds).
template <class Skip>
inline double bruteDistance(const GmTriangleMesh& mesh, const V3& p, Skip skip, int* faceOut = nullptr) {
    double best = DBL_MAX;
    for (int f = 0; f < mesh.getNumberFaces(); ++f) {
        if (skip(f)) continue;
        double s, t;
        const double d2 = GmGeometry::closestParametricPointOnTriangle(p, mesh.getFaceVertex1(f), mesh.getFaceVertex2(f),
                                                                       mesh.getFaceVertex3(f), s, t);
        if (d2 < best) {
            best = d2;
            if (faceOut) *faceOut = f;
        }
    }
    return best == DBL_MAX ? DBL_MAX : std::sqrt(best);
}
inline double bruteDistance(const GmTriangleMesh& mesh, const V3& p) {
    return bruteDistance(mesh, p, [](int) { return false; });
}

// Generalised winding number (sum of signed solid angles / 4 pi); 1 inside a closed outward
// mesh, 0 outside.
inline double windingNumber(const GmTriangleMesh& mesh, const V3& p) {
    double sum = 0.0;
    for (int f = 0; f < mesh.getNumberFaces(); ++f) {
        const V3 a = mesh.getFaceVertex1(f) - p, b = mesh.getFaceVertex2(f) - p, c = mesh.getFaceVertex3(f) - p;
        const double la = a.length(), lb = b.length(), lc = c.length();
        const double num = a.dot(b.cross(c));
        const double den = la * lb * lc + a.dot(b) * lc + b.dot(c) * la + c.dot(a) * lb;
        sum += 2.0 * std::atan2(num, den);
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
    const double pad = (mx - mn).length() * margin;
    std::uniform_real_distribution<double> u(0.0, 1.0);
    return V3(mn.x - pad + (mx.x - mn.x + 2 * pad) * u(rng), mn.y - pad + (mx.y - mn.y + 2 * pad) * u(rng),
              mn.z - pad + (mx.z - mn.z + 2 * pad) * u(rng));
}

}  // namespace bvhtest

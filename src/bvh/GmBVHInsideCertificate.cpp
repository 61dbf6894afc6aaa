// The check that lets the inside test count ray crossings instead of deciding at the closest
// feature.
//
// On a closed, edge- and vertex-manifold, consistently oriented mesh whose faces meet only in
// their shared vertices and edges, and whose connected parts all have positive volume with none
// inside another, the winding number is 1 inside the solid and 0 outside. There the decision by
// the angle-weighted pseudo-normal at the closest feature and the parity of the crossings of
// any ray agree. Every test below uses exact signs.

#include <algorithm>
#include <atomic>
#include <cfloat>
#include <cmath>
#include <cstdint>
#include <numeric>
#include <utility>
#include <vector>

#include <quarrygeom/core/GmParallel.h>
#include <quarrygeom/mesh/GmTriangleMesh.h>
#include <quarrygeom/primitives/GmContactKernels.h>

#include "GmBVHInsideTest.h"

namespace GmBVHInside {
namespace {

// Axis to leave out when projecting a triangle: one whose projection is not degenerate;
// -1 when the triangle is degenerate (its three points are collinear).
int projectionAxis(const V3& a, const V3& b, const V3& c) {
    for (int k = 0; k < 3; ++k)
        if (orient2Dropped(a, b, c, k) != 0) return k;
    return -1;
}

// ---- Topology -----------------------------------------------------------------------------

// Every edge used by exactly two faces in opposite directions; every vertex's faces form one
// fan; no face repeats a vertex.
bool manifoldAndOriented(const GmTriangleMesh& mesh) {
    const int numFaces = mesh.getNumberFaces();
    const int numEdges = mesh.getNumberEdges();
    const int numVertices = mesh.getNumberVertices();
    if (static_cast<int>(mesh.getVertexToFacesLists().size()) != numVertices) return false;
    std::vector<unsigned char> forward(static_cast<size_t>(numEdges), 0), backward(static_cast<size_t>(numEdges), 0);
    for (int f = 0; f < numFaces; ++f) {
        const GmTriangleFace& face = mesh.getFace(f);
        for (int k = 0; k < 3; ++k) {
            const int u = face.vertices[k], w = face.vertices[(k + 1) % 3], e = face.edges[k];
            if (u < 0 || u >= numVertices || u == w || e < 0 || e >= numEdges) return false;
            const GmTriangleEdge& edge = mesh.getEdge(e);
            unsigned char* use;
            if (edge.from == u && edge.to == w)
                use = &forward[static_cast<size_t>(e)];
            else if (edge.from == w && edge.to == u)
                use = &backward[static_cast<size_t>(e)];
            else
                return false;
            if (++*use > 1) return false;
        }
    }
    for (int e = 0; e < numEdges; ++e) {
        const GmTriangleEdge& edge = mesh.getEdge(e);
        if (forward[static_cast<size_t>(e)] != 1 || backward[static_cast<size_t>(e)] != 1) return false;
        if (edge.firstFace < 0 || edge.secondFace < 0 || edge.firstFace == edge.secondFace) return false;
    }
    // Around each vertex: leave every face by its edge out of the vertex and enter the face on
    // the other side; a single fan comes back to the start after visiting every face once.
    for (int v = 0; v < numVertices; ++v) {
        const GmIndexList around = mesh.getNeighborFacesToVertex(v);
        if (around.empty()) continue;
        const int start = around[0];
        int f = start;
        size_t steps = 0;
        do {
            const GmTriangleFace& face = mesh.getFace(f);
            const int slot = face.vertexSlot(v);
            if (slot < 0) return false;
            f = mesh.getOtherFace(f, face.edges[slot]);
            ++steps;
        } while (f != start && steps <= around.size());
        if (f != start || steps != around.size()) return false;
    }
    return true;
}

// ---- Adjacent faces -----------------------------------------------------------------------

// Faces (u, v, w1) and (v, u, w2) sharing the edge u-v meet elsewhere only when w2 lies in the
// plane of the first face on the same side of the edge as w1.
bool edgeNeighboursOverlap(const V3& u, const V3& v, const V3& w1, const V3& w2) {
    if (orient3(u, v, w1, w2) != 0) return false;
    const int k = projectionAxis(u, v, w1);
    if (k < 0) return true;
    return orient2Dropped(u, v, w1, k) * orient2Dropped(u, v, w2, k) >= 0;
}

// Closed segments p-q and r-s meet, all four points in one plane, projected leaving out `drop`.
bool segmentsMeet2(const V3& p, const V3& q, const V3& r, const V3& s, int drop) {
    const int d1 = orient2Dropped(p, q, r, drop), d2 = orient2Dropped(p, q, s, drop);
    if (d1 * d2 > 0) return false;
    const int d3 = orient2Dropped(r, s, p, drop), d4 = orient2Dropped(r, s, q, drop);
    if (d3 * d4 > 0) return false;
    if (d1 != 0 || d2 != 0 || d3 != 0 || d4 != 0) return true;
    // Collinear: they meet when their extents overlap on every axis.
    for (int k = 0; k < 3; ++k)
        if (std::max(p[k], q[k]) < std::min(r[k], s[k]) || std::max(r[k], s[k]) < std::min(p[k], q[k])) return false;
    return true;
}

// Closed segment p-q meets the closed, non-degenerate triangle abc.
bool segmentMeetsTriangle(const V3& p, const V3& q, const V3& a, const V3& b, const V3& c) {
    const int hp = orient3(a, b, c, p), hq = orient3(a, b, c, q);
    if (hp * hq > 0) return false;
    if (hp == 0 && hq == 0) {
        const int k = projectionAxis(a, b, c);
        if (k < 0) return true;
        for (const V3* x : {&p, &q}) {
            const int o1 = orient2Dropped(a, b, *x, k), o2 = orient2Dropped(b, c, *x, k),
                      o3 = orient2Dropped(c, a, *x, k);
            if (o1 * o2 >= 0 && o2 * o3 >= 0 && o1 * o3 >= 0) return true;
        }
        return segmentsMeet2(p, q, a, b, k) || segmentsMeet2(p, q, b, c, k) || segmentsMeet2(p, q, c, a, k);
    }
    // The segment's line meets the plane once, inside the segment; it is in the triangle when
    // the line passes no edge on the outer side.
    const int s0 = orient3(p, q, a, b), s1 = orient3(p, q, b, c), s2 = orient3(p, q, c, a);
    return !(s0 * s1 < 0 || s1 * s2 < 0 || s0 * s2 < 0);
}

// Faces (v, a1, b1) and (v, a2, b2) sharing only the vertex v meet elsewhere exactly when the
// edge opposite v of one meets the other face. Their intersection is convex and contains v; if
// it holds another point it holds a segment from v, which leaves one of the faces through that
// face's opposite edge, or ends at a far vertex lying in the other face: either way an
// opposite edge meets the other face. (This covers an edge from v that runs into the other
// face's plane and sector, coplanar or not.)
bool vertexNeighboursOverlap(const V3& v, const V3& a1, const V3& b1, const V3& a2, const V3& b2) {
    // Usually the second face lies on one side of the first one's plane and meets it only in v.
    if (orient3(v, a1, b1, a2) * orient3(v, a1, b1, b2) > 0) return false;
    return segmentMeetsTriangle(a1, b1, v, a2, b2) || segmentMeetsTriangle(a2, b2, v, a1, b1);
}

// The pairs of faces around vertex v that have v as their smallest common vertex.
bool adjacentFacesOverlapAt(const GmTriangleMesh& mesh, int v) {
    const std::vector<V3>& V = mesh.getVertices();
    const GmIndexList around = mesh.getNeighborFacesToVertex(v);
    for (size_t i = 0; i < around.size(); ++i) {
        const GmTriangleFace& f = mesh.getFace(around[i]);
        const int sf = f.vertexSlot(v);
        for (size_t j = i + 1; j < around.size(); ++j) {
            const GmTriangleFace& g = mesh.getFace(around[j]);
            int shared = 0, smallest = v;
            for (const int w : f.vertices)
                if (g.hasVertex(w)) {
                    ++shared;
                    smallest = std::min(smallest, w);
                }
            if (smallest != v) continue;
            if (shared == 3) return true;
            const int sg = g.vertexSlot(v);
            if (shared == 2) {
                // The shared edge runs v -> u in one face and u -> v in the other.
                const GmTriangleFace& first = f.hasVertex(g.vertices[(sg + 1) % 3]) ? g : f;
                const GmTriangleFace& second = &first == &f ? g : f;
                const int s = first.vertexSlot(v);
                const int u = first.vertices[(s + 1) % 3], w1 = first.vertices[(s + 2) % 3];
                int w2 = -1;
                for (const int w : second.vertices)
                    if (w != u && w != v) w2 = w;
                if (edgeNeighboursOverlap(V[static_cast<size_t>(v)], V[static_cast<size_t>(u)],
                                          V[static_cast<size_t>(w1)], V[static_cast<size_t>(w2)]))
                    return true;
                continue;
            }
            if (vertexNeighboursOverlap(V[static_cast<size_t>(v)], V[static_cast<size_t>(f.vertices[(sf + 1) % 3])],
                                        V[static_cast<size_t>(f.vertices[(sf + 2) % 3])],
                                        V[static_cast<size_t>(g.vertices[(sg + 1) % 3])],
                                        V[static_cast<size_t>(g.vertices[(sg + 2) % 3])]))
                return true;
        }
    }
    return false;
}

// Every pair of faces sharing a vertex, taken once at the smallest shared vertex.
bool adjacentFacesOverlap(const GmTriangleMesh& mesh) {
    std::atomic<bool> met{false};
    GmParallel::dispatch(
        [&] {
            for (int v = 0; v < mesh.getNumberVertices() && !met.load(std::memory_order_relaxed); ++v)
                if (adjacentFacesOverlapAt(mesh, v)) met.store(true, std::memory_order_relaxed);
        },
        [&] {
            GmParallel::parallelFor(0, mesh.getNumberVertices(), [&](int v) {
                if (!met.load(std::memory_order_relaxed) && adjacentFacesOverlapAt(mesh, v))
                    met.store(true, std::memory_order_relaxed);
            });
        });
    return met.load(std::memory_order_relaxed);
}

// ---- Faces without a shared vertex ----------------------------------------------------------

inline bool sharesVertex(const GmTriangleFace& f, const GmTriangleFace& g) {
    return f.hasVertex(g.vertices[0]) || f.hasVertex(g.vertices[1]) || f.hasVertex(g.vertices[2]);
}

// Two faces without a common vertex that touch or cross, one in each subtree of internal node i
// (every leaf pair with overlapping boxes, tested exactly).
bool separateFacesMeetBelow(const GmBoundingVolumeHierarchy& tree, int i) {
    const GmTriangleMesh& mesh = *tree.getTriangleMesh();
    const std::vector<V3>& V = mesh.getVertices();
    const std::vector<Node>& nodes = tree.getNodes();
    static thread_local std::vector<std::pair<int, int>> stack;
    static thread_local std::vector<V3> points;
    stack.clear();
    stack.emplace_back(2 * i + 1, 2 * i + 2);
    while (!stack.empty()) {
        const std::pair<int, int> pr = stack.back();
        stack.pop_back();
        const Node& a = nodes[static_cast<size_t>(pr.first)];
        const Node& b = nodes[static_cast<size_t>(pr.second)];
        if (!a.box.overlaps(b.box)) continue;
        if (a.isLeaf() && b.isLeaf()) {
            const GmTriangleFace& f = *a.primitive;
            const GmTriangleFace& g = *b.primitive;
            if (sharesVertex(f, g)) continue;
            if (GmContactKernels::triangleTriangleIntersection(
                    V[static_cast<size_t>(f.vertices[0])], V[static_cast<size_t>(f.vertices[1])],
                    V[static_cast<size_t>(f.vertices[2])], V[static_cast<size_t>(g.vertices[0])],
                    V[static_cast<size_t>(g.vertices[1])], V[static_cast<size_t>(g.vertices[2])], points)) {
                stack.clear();
                return true;
            }
        } else if (a.isLeaf()) {
            stack.emplace_back(pr.first, 2 * pr.second + 1);
            stack.emplace_back(pr.first, 2 * pr.second + 2);
        } else if (b.isLeaf()) {
            stack.emplace_back(2 * pr.first + 1, pr.second);
            stack.emplace_back(2 * pr.first + 2, pr.second);
        } else {
            stack.emplace_back(2 * pr.first + 1, 2 * pr.second + 1);
            stack.emplace_back(2 * pr.first + 1, 2 * pr.second + 2);
            stack.emplace_back(2 * pr.first + 2, 2 * pr.second + 1);
            stack.emplace_back(2 * pr.first + 2, 2 * pr.second + 2);
        }
    }
    return false;
}

// Any two faces without a common vertex that touch or cross: the pairs below every internal
// node, which together are all pairs of leaves.
bool separateFacesMeet(const GmBoundingVolumeHierarchy& tree) {
    std::atomic<bool> met{false};
    const int internal = tree.getNumberInternalNodes();
    GmParallel::dispatch(
        [&] {
            for (int i = 0; i < internal && !met.load(std::memory_order_relaxed); ++i)
                if (separateFacesMeetBelow(tree, i)) met.store(true, std::memory_order_relaxed);
        },
        [&] {
            GmParallel::parallelFor(0, internal, [&](int i) {
                if (!met.load(std::memory_order_relaxed) && separateFacesMeetBelow(tree, i))
                    met.store(true, std::memory_order_relaxed);
            });
        });
    return met.load(std::memory_order_relaxed);
}

// ---- Parts: orientation and nesting -------------------------------------------------------

// Connected parts of the face graph (faces joined by their edges): part index per face.
int labelParts(const GmTriangleMesh& mesh, std::vector<int>& part) {
    const int n = mesh.getNumberFaces();
    std::vector<int> parent(static_cast<size_t>(n));
    std::iota(parent.begin(), parent.end(), 0);
    auto root = [&](int x) {
        while (parent[static_cast<size_t>(x)] != x) {
            parent[static_cast<size_t>(x)] = parent[static_cast<size_t>(parent[static_cast<size_t>(x)])];
            x = parent[static_cast<size_t>(x)];
        }
        return x;
    };
    for (const GmTriangleEdge& e : mesh.getEdges()) {
        const int a = root(e.firstFace), b = root(e.secondFace);
        if (a != b) parent[static_cast<size_t>(std::max(a, b))] = std::min(a, b);
    }
    part.assign(static_cast<size_t>(n), -1);
    int parts = 0;
    for (int f = 0; f < n; ++f) {
        const int r = root(f);
        if (part[static_cast<size_t>(r)] < 0) part[static_cast<size_t>(r)] = parts++;
        part[static_cast<size_t>(f)] = part[static_cast<size_t>(r)];
    }
    return parts;
}

// Every part encloses a positive volume: the sum of the signed volumes of the tetrahedra from
// a vertex of the part to its faces, accepted only when it exceeds its rounding error bound.
bool partsOutward(const GmTriangleMesh& mesh, const std::vector<int>& part, int parts) {
    const std::vector<V3>& V = mesh.getVertices();
    std::vector<int> reference(static_cast<size_t>(parts), -1);
    std::vector<double> volume(static_cast<size_t>(parts), 0.0), permanent(static_cast<size_t>(parts), 0.0);
    std::vector<double> count(static_cast<size_t>(parts), 0.0);
    for (int f = 0; f < mesh.getNumberFaces(); ++f) {
        const GmTriangleFace& face = mesh.getFace(f);
        const size_t c = static_cast<size_t>(part[static_cast<size_t>(f)]);
        if (reference[c] < 0) reference[c] = face.vertices[0];
        const V3& r = V[static_cast<size_t>(reference[c])];
        const V3 a = V[static_cast<size_t>(face.vertices[0])] - r;
        const V3 b = V[static_cast<size_t>(face.vertices[1])] - r;
        const V3 d = V[static_cast<size_t>(face.vertices[2])] - r;
        const double bycz = b.y * d.z, bzcy = b.z * d.y, bzcx = b.z * d.x, bxcz = b.x * d.z, bxcy = b.x * d.y,
                     bycx = b.y * d.x;
        volume[c] += a.x * (bycz - bzcy) + a.y * (bzcx - bxcz) + a.z * (bxcy - bycx);
        permanent[c] += std::fabs(a.x) * (std::fabs(bycz) + std::fabs(bzcy)) +
                        std::fabs(a.y) * (std::fabs(bzcx) + std::fabs(bxcz)) +
                        std::fabs(a.z) * (std::fabs(bxcy) + std::fabs(bycx));
        count[c] += 1.0;
    }
    for (size_t c = 0; c < static_cast<size_t>(parts); ++c) {
        // Rounding of the differences and of each determinant (a few units each) and of the
        // running sum (one unit per term), all relative to the sum of the permanents.
        const double bound = (16.0 + 2.0 * count[c]) * kEpsilon * permanent[c];
        if (!(volume[c] > bound)) return false;
    }
    return true;
}

// No part lies inside another: from a vertex of each part, an axis ray crosses every other
// part an even number of times (the parts do not meet, so a part is wholly inside or outside
// another).
bool partsNested(const GmBoundingVolumeHierarchy& tree, const std::vector<int>& part, int parts) {
    if (parts < 2) return false;
    const GmTriangleMesh& mesh = *tree.getTriangleMesh();
    const Node* nodes = tree.getNodes().data();
    std::vector<int> firstFace(static_cast<size_t>(parts), -1);
    for (int f = mesh.getNumberFaces() - 1; f >= 0; --f)
        firstFace[static_cast<size_t>(part[static_cast<size_t>(f)])] = f;
    std::vector<unsigned char> odd(static_cast<size_t>(parts), 0);
    std::vector<int> touched;
    for (int c = 0; c < parts; ++c) {
        const GmTriangleFace& face = mesh.getFace(firstFace[static_cast<size_t>(c)]);
        bool decided = false;
        for (int k = 0; k < 3 && !decided; ++k) {
            const V3& origin = mesh.getVertex(face.vertices[k]);
            for (int d = 0; d < 6 && !decided; ++d) {
                for (const int t : touched) odd[static_cast<size_t>(t)] = 0;
                touched.clear();
                const RayOutcome r = castAxisRay(
                    d, nodes, tree.getNumberNodes(), mesh, origin, 0.0, [&](int f) { return part[static_cast<size_t>(f)] == c; },
                    [&](int f) {
                        const int q = part[static_cast<size_t>(f)];
                        if (odd[static_cast<size_t>(q)] == 0) touched.push_back(q);
                        odd[static_cast<size_t>(q)] ^= 1;
                    });
                decided = r == kRayDecided;
            }
        }
        if (!decided) return true;  // no clean ray: treat as nested
        for (const int t : touched)
            if (odd[static_cast<size_t>(t)] != 0) return true;
    }
    return false;
}

}  // namespace

bool certifyRayParity(const GmBoundingVolumeHierarchy& tree, Certificate& out) {
    const GmTriangleMesh* mesh = tree.getTriangleMesh();
    if (mesh == nullptr || tree.empty() || !mesh->isClosed()) return false;
    const int n = mesh->getNumberFaces();
    if (n < 4 || n != tree.getNumberLeafNodes()) return false;
    const std::vector<Node>& nodes = tree.getNodes();
    int firstLeaf, lastLeaf;
    tree.getLeafRange(firstLeaf, lastLeaf);
    for (int i = firstLeaf; i < lastLeaf; ++i)
        if (nodes[static_cast<size_t>(i)].primitive == nullptr) return false;

    if (!manifoldAndOriented(*mesh)) return false;
    const std::vector<V3>& V = mesh->getVertices();
    for (const GmTriangleFace& f : mesh->getFaces())
        if (projectionAxis(V[static_cast<size_t>(f.vertices[0])], V[static_cast<size_t>(f.vertices[1])],
                           V[static_cast<size_t>(f.vertices[2])]) < 0)
            return false;
    if (adjacentFacesOverlap(*mesh)) return false;
    if (separateFacesMeet(tree)) return false;
    std::vector<int> part;
    const int parts = labelParts(*mesh, part);
    if (!partsOutward(*mesh, part, parts)) return false;
    if (partsNested(tree, part, parts)) return false;

    // The band around the surface is relative to the mesh's own extent (the tree's boxes carry
    // an absolute padding that would dominate on a small mesh).
    double lo[3] = {DBL_MAX, DBL_MAX, DBL_MAX}, hi[3] = {-DBL_MAX, -DBL_MAX, -DBL_MAX};
    for (const V3& x : V)
        for (int k = 0; k < 3; ++k) {
            lo[k] = std::min(lo[k], x[k]);
            hi[k] = std::max(hi[k], x[k]);
        }
    double diagonal2 = 0.0, largest = 0.0;
    for (int k = 0; k < 3; ++k) {
        diagonal2 += (hi[k] - lo[k]) * (hi[k] - lo[k]);
        largest = std::max(largest, std::max(std::fabs(lo[k]), std::fabs(hi[k])));
    }
    out.delta = 1e-7 * (std::sqrt(diagonal2) + largest);
    out.anyNodeDisabled = false;
    for (const Node& node : nodes) out.anyNodeDisabled = out.anyNodeDisabled || node.disabled;
    return std::isfinite(out.delta);
}

}  // namespace GmBVHInside

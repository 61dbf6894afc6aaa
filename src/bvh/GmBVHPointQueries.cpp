// Closest-point, closest-vertex and inside-mesh queries of the face hierarchy.

#include <algorithm>
#include <cfloat>
#include <cmath>
#include <vector>

#include <quarrygeom/bvh/GmBoundingVolumeHierarchy.h>
#include <quarrygeom/core/GmBVHMetrics.h>
#include <quarrygeom/mesh/GmDisabledData.h>
#include <quarrygeom/mesh/GmTriangleMesh.h>
#include <quarrygeom/pinch/SelfIntersectionInfo.h>
#include <quarrygeom/primitives/GmGeometry.h>

#include "GmBVHInternal.h"
#include "GmBVHSearchBoxes.h"

using namespace GmBVHDetail;

namespace {

typedef GmBoundingVolumeHierarchy::Node Node;
typedef GmBoundingVolumeHierarchy::LeafFace LeafFace;

// Slack of the tests of unit directions (dimensionless), and of the nearest-face walk's
// comparisons relative to the lengths compared.
constexpr double kSlack = 1e-8;
constexpr double kWeightTol = 2.220446049250313e-14;  // 100 * DBL_EPSILON
constexpr double kPi = 3.14159265358979323846;

inline const GmTVector<double>& vertexOf(const GmTriangleMesh& mesh, const GmTriangleFace& f, int k) {
    return mesh.getVertices()[static_cast<size_t>(f.vertices[k])];
}

// Edge index named by an ON_EDGE_k type, vertex index named by ON_VERTEX_k.
inline int edgeOfType(const GmTriangleFace& f, GmGeometry::PointOnTriType type) {
    return f.edges[static_cast<int>(type) - static_cast<int>(GmGeometry::ON_EDGE_1)];
}
inline int vertexOfType(const GmTriangleFace& f, GmGeometry::PointOnTriType type) {
    return f.vertices[static_cast<int>(type) - static_cast<int>(GmGeometry::ON_VERTEX_1)];
}
inline bool isEdgeType(GmGeometry::PointOnTriType t) {
    return t == GmGeometry::ON_EDGE_1 || t == GmGeometry::ON_EDGE_2 || t == GmGeometry::ON_EDGE_3;
}
inline bool isVertexType(GmGeometry::PointOnTriType t) {
    return t == GmGeometry::ON_VERTEX_1 || t == GmGeometry::ON_VERTEX_2 || t == GmGeometry::ON_VERTEX_3;
}

// walkNearestFirst on the box copy when there is one, else on the node boxes.
template <class Leaf, class LeafHint>
void walkNearest(const SearchBoxes* boxes, const std::vector<Node>& nodes, const LeafFace* leafFaces,
                 const GmTVector<double>& p, bool includeDisabled, double bound, const Leaf& leaf,
                 const LeafHint& leafHint) {
    if (boxes != nullptr)
        walkNearestFirst(nodes, GridBoxSource(*boxes, p), leafFaces, p, includeDisabled, bound, leaf, leafHint);
    else
        walkNearestFirst(nodes, NodeBoxSource<Node>(nodes.data(), p), leafFaces, p, includeDisabled, bound, leaf,
                         leafHint);
}

}  // namespace

// ---- Classification ---------------------------------------------------------------------

GmGeometry::PointOnTriType GmBoundingVolumeHierarchy::classifyWeights(double w1, double w2, double w3) {
    if (!(std::fabs(w1 + w2 + w3 - 1.0) <= kWeightTol)) return GmGeometry::INVALID;
    const bool z1 = std::fabs(w1) <= kWeightTol, z2 = std::fabs(w2) <= kWeightTol, z3 = std::fabs(w3) <= kWeightTol;
    if (!z3) {
        if (!z1 && !z2) return GmGeometry::INSIDE;
        if (z1 && z2) return GmGeometry::ON_VERTEX_3;
        return z2 ? GmGeometry::ON_EDGE_3 : GmGeometry::ON_EDGE_2;
    }
    if (z2) return GmGeometry::ON_VERTEX_1;
    if (z1) return GmGeometry::ON_VERTEX_2;
    return GmGeometry::ON_EDGE_1;
}

// ---- Closest point ----------------------------------------------------------------------

void GmBoundingVolumeHierarchy::findClosestPointBase(const GmTVector<double>& p, ClosestPointInfo& info,
                                                     const GmNormalTests* tests, bool includeDisabled) const {
    if (_mesh == nullptr || _nodes.empty()) return;
    const GmTriangleMesh& mesh = *_mesh;
    const GmTVector<double>* V = mesh.getVertices().data();
    const bool directionTest = tests != nullptr && tests->directionWeight != 0.0;
    const bool sideTest = tests != nullptr && tests->sideMode != 0;

    const LeafFace* leafFaces = _leafFaces.data();
    const int firstLeaf = getNumberInternalNodes();
    int foundFace = -1;
    const LeafFace* foundLeaf = nullptr;
    double foundKey = DBL_MAX, foundS = 0.0, foundT = 0.0;
    auto testFace = [&](int node, double best) {
        const LeafFace& f = leafFaces[node - firstLeaf];
        if (directionTest && !(mesh.getFaceNormal(f.face).dot(tests->direction) > kSlack)) return best;
        const GmTVector<double>& v1 = V[f.vertices[0]];
        const GmTVector<double>& v2 = V[f.vertices[1]];
        const GmTVector<double>& v3 = V[f.vertices[2]];
        double s = 0.0, t = 0.0;
        const double d2 = GmGeometry::closestParametricPointOnTriangle(p, v1, v2, v3, s, t);
        if (!(d2 <= best + best * kSearchSlack)) return best;  // also drops NaN
        if (sideTest) {
            const GmTVector<double> c = v1 * (1.0 - s - t) + v2 * s + v3 * t;
            const bool front = (c - p).dot(mesh.getFaceNormal(f.face)) > 0.0;
            if (tests->sideMode < 0 ? front : !front) return best;
        }
        // Equal distances go to the smaller face index, whatever the visiting order.
        if (foundFace < 0 || d2 < foundKey || (d2 == foundKey && f.face < foundFace)) {
            foundFace = f.face;
            foundLeaf = &f;
            foundKey = d2;
            foundS = s;
            foundT = t;
        }
        return d2 < best ? d2 : best;
    };
    // A qualifying leaf starts loading its vertices and the face's cached normal (read by the
    // callers once the walk ends).
    auto leafHint = [&](int node) QG_BVH_INLINE_LAMBDA {
        const LeafFace& f = leafFaces[node - firstLeaf];
        prefetchFaceVertices(V, f);
        mesh.prefetchFaceData(f.face);
    };
    walkNearest(finite(p) ? _searchBoxes() : nullptr, _nodes, leafFaces, p, includeDisabled,
                info.face >= 0 ? info.distanceSquared : DBL_MAX, testFace, leafHint);

    if (foundFace >= 0) {
        const LeafFace& f = *foundLeaf;  // the face's vertices without reading its record
        const double w1 = 1.0 - foundS - foundT;
        info.face = foundFace;
        info.s = foundS;
        info.t = foundT;
        info.point = V[f.vertices[0]] * w1 + V[f.vertices[1]] * foundS + V[f.vertices[2]] * foundT;
        info.type = classifyWeights(w1, foundS, foundT);
        info.distanceSquared = foundKey;
    }
}

double GmBoundingVolumeHierarchy::findClosestPoint(const GmTVector<double>& p, GmTVector<double>& closest,
                                                   GmTVector<double>& normal, int& face, double& s, double& t,
                                                   GmNormalTests* tests, bool includeDisabled) const {
    face = -1;
    if (_mesh == nullptr || _nodes.empty() || !finite(p)) return DBL_MAX;
    ClosestPointInfo info;
    findClosestPointBase(p, info, tests, includeDisabled);
    if (info.face < 0) return DBL_MAX;
    face = info.face;
    s = info.s;
    t = info.t;
    closest = info.point;
    normal = _mesh->getFaceNormal(face);
    const double d = std::sqrt(info.distanceSquared);
    return (closest - p).dot(normal) > 0.0 ? -d : d;
}

void GmBoundingVolumeHierarchy::walkClosestPoint(const GmTVector<double>& p, ClosestPointInfo& info, int hint,
                                                 bool includeDisabled) const {
    const GmTriangleMesh& mesh = *_mesh;
    const std::vector<GmTVector<double>>& V = mesh.getVertices();
    int f = hint, previous = -1;
    // Each move lowers the distance in all but degenerate cases; the bound guards against cycles.
    for (int step = 0, limit = mesh.getNumberFaces() + 1; step < limit; ++step) {
        const GmTriangleFace& face = mesh.getFace(f);
        const GmTVector<double>& v1 = V[static_cast<size_t>(face.vertices[0])];
        const GmTVector<double>& v2 = V[static_cast<size_t>(face.vertices[1])];
        const GmTVector<double>& v3 = V[static_cast<size_t>(face.vertices[2])];
        double s = 0.0, t = 0.0;
        const double d2 = GmGeometry::closestParametricPointOnTriangle(p, v1, v2, v3, s, t);
        const double w1 = 1.0 - s - t;
        info.face = f;
        info.s = s;
        info.t = t;
        info.point = v1 * w1 + v2 * s + v3 * t;
        info.type = classifyWeights(w1, s, t);
        info.distanceSquared = d2;
        const GmTVector<double> diff = p - info.point;
        const double diffLength = diff.length();
        if (!(diffLength > 0.0)) break;  // p lies on the face
        const GmTVector<double> u = diff / diffLength;

        int next = -1;
        if (isEdgeType(info.type)) {
            const int e = edgeOfType(face, info.type);
            const int g = mesh.getOtherFace(f, e);
            if (g < 0 || g == f || _faceDisabled(g, includeDisabled)) break;
            const int w = mesh.getOtherVertex(g, e);
            if (w < 0) break;
            const GmTVector<double> towards = info.point - V[static_cast<size_t>(w)];
            if (towards.dot(u) < -kSlack * towards.length() && g != previous) next = g;
        } else if (isVertexType(info.type)) {
            const int vtx = vertexOfType(face, info.type);
            int chosen = -1;
            for (const int e : mesh.getNeighborEdgesToVertex(vtx)) {
                if (face.hasEdge(e)) continue;
                const GmTriangleEdge& edge = mesh.getEdge(e);
                if (!includeDisabled && (edge.firstFace < 0 || _faceDisabled(edge.firstFace, false)) &&
                    (edge.secondFace < 0 || _faceDisabled(edge.secondFace, false)))
                    continue;  // every face of the edge is disabled
                const int other = edge.getOtherVertex(vtx);
                const GmTVector<double> along = V[static_cast<size_t>(vtx)] - V[static_cast<size_t>(other)];
                if (along.dot(u) < -kSlack * along.length()) {
                    chosen = e;
                    break;
                }
            }
            if (chosen < 0) break;
            const GmTriangleEdge& edge = mesh.getEdge(chosen);
            const int g = edge.firstFace == f ? edge.secondFace : edge.firstFace;
            if (g < 0 || g == previous) break;
            next = g;
        }
        if (next < 0) break;
        previous = f;
        f = next;
    }
}

double GmBoundingVolumeHierarchy::_closestPointSigned(const GmTVector<double>& p, ClosestPointInfo& info,
                                                      bool checkInside, bool includeDisabled, int hint,
                                                      const SelfIntersectionInfo* pinch, int pinchSide,
                                                      bool* pinched) const {
    info = ClosestPointInfo();
    if (pinched != nullptr) *pinched = false;
    if (_mesh == nullptr || _nodes.empty() || !finite(p)) return DBL_MAX;
    if (hint >= 0 && hint < _mesh->getNumberFaces()) {
        walkClosestPoint(p, info, hint, includeDisabled);
    } else {
        if (checkInside && !isInside(p)) return DBL_MAX;  // outside the root box: not inside
        const bool seeded = initializeClosestPointInfo(p, info, checkInside, includeDisabled);
        if (!seeded && checkInside) {
            // A failed seed that still names a face leaves the decision to the pinch
            // classification at that face; otherwise the point is outside.
            if (pinch == nullptr || info.face < 0 || info.type == GmGeometry::INVALID) {
                info = ClosestPointInfo();
                return DBL_MAX;
            }
        } else {
            findClosestPointBase(p, info, nullptr, includeDisabled);
        }
    }
    if (info.face < 0 || info.distanceSquared == DBL_MAX) {
        info = ClosestPointInfo();
        return DBL_MAX;
    }
    // A point on the surface counts as inside, except on an open boundary.
    const bool onSurface = info.distanceSquared == 0.0 && info.type != GmGeometry::INVALID &&
                           !isBoundaryPoint(info.face, info.type, includeDisabled);
    bool inside = pointInsideFaces(p, info.point, info.face, info.type, includeDisabled) || onSurface;
    if (pinch != nullptr) {
        bool onBuriedSide = false;
        inside = pinch->insideAt(info.face, info.point, inside, pinchSide, onBuriedSide) || onSurface;
        if (inside && isBoundaryPoint(info.face, info.type, includeDisabled)) inside = false;
        if (pinched != nullptr) *pinched = onBuriedSide;
    }
    const double d = std::sqrt(info.distanceSquared);
    if (inside) return -d;
    if (!checkInside) return d;
    info = ClosestPointInfo();
    return DBL_MAX;
}

double GmBoundingVolumeHierarchy::findClosestPointWithHint(const GmTVector<double>& p, GmTVector<double>& closest,
                                                           int& face, GmTVector<double>& normal,
                                                           GmGeometry::PointOnTriType& type, bool& pinched,
                                                           bool checkInside, bool includeDisabled,
                                                           const SelfIntersectionInfo* info, int pinchSide,
                                                           int hint) const {
    pinched = false;
    ClosestPointInfo found;
    const SelfIntersectionInfo* pinch = info != nullptr && info->mesh == _mesh ? info : nullptr;
    const double d = _closestPointSigned(p, found, checkInside, includeDisabled, hint, pinch, pinchSide, &pinched);
    face = found.face;
    type = found.type;
    if (found.face >= 0) {
        closest = found.point;
        normal = _mesh->getFaceNormal(found.face);
    } else {
        pinched = false;
    }
    return d;
}

double GmBoundingVolumeHierarchy::findClosestPoint(const GmTVector<double>& p, GmTVector<double>& closest, int& face,
                                                   GmTVector<double>& normal, bool& pinched, bool checkInside,
                                                   bool includeDisabled, const SelfIntersectionInfo* info,
                                                   int pinchSide) const {
    face = -1;
    GmGeometry::PointOnTriType type = GmGeometry::INVALID;
    return findClosestPointWithHint(p, closest, face, normal, type, pinched, checkInside, includeDisabled, info,
                                    pinchSide, -1);
}

double GmBoundingVolumeHierarchy::findClosestPointBruteForce(const GmTVector<double>& p, GmTVector<double>& closest,
                                                             int& face, GmTVector<double>& normal,
                                                             bool includeDisabled) const {
    face = -1;
    if (_mesh == nullptr || !finite(p)) return DBL_MAX;
    const GmTriangleMesh& mesh = *_mesh;
    ClosestPointInfo best;
    best.distanceSquared = DBL_MAX;
    const int n = std::min(mesh.getNumberFaces(), _numberFaces);
    for (int f = 0; f < n; ++f) {
        if (_faceDisabled(f, includeDisabled)) continue;
        const GmTriangleFace& fc = mesh.getFace(f);
        double s = 0.0, t = 0.0;
        const double d2 = GmGeometry::closestParametricPointOnTriangle(p, vertexOf(mesh, fc, 0), vertexOf(mesh, fc, 1),
                                                                       vertexOf(mesh, fc, 2), s, t);
        if (d2 < best.distanceSquared) {
            best.face = f;
            best.s = s;
            best.t = t;
            best.distanceSquared = d2;
        }
    }
    if (best.face < 0) return DBL_MAX;
    const GmTriangleFace& fc = mesh.getFace(best.face);
    const double w1 = 1.0 - best.s - best.t;
    best.point = vertexOf(mesh, fc, 0) * w1 + vertexOf(mesh, fc, 1) * best.s + vertexOf(mesh, fc, 2) * best.t;
    best.type = classifyWeights(w1, best.s, best.t);
    face = best.face;
    closest = best.point;
    normal = mesh.getFaceNormal(best.face);
    const bool inside = pointInsideFaces(p, best.point, best.face, best.type, includeDisabled) ||
                        (best.distanceSquared == 0.0 && best.type != GmGeometry::INVALID &&
                         !isBoundaryPoint(best.face, best.type, includeDisabled));
    const double d = std::sqrt(best.distanceSquared);
    return inside ? -d : d;
}

// ---- Closest vertex ---------------------------------------------------------------------

void GmBoundingVolumeHierarchy::initializeClosestVertexInfo(const GmTVector<double>& p, int& vertex,
                                                            double& distanceSquared, bool includeDisabled) const {
    // Candidates: the vertices of the faces met first by the six axis rays (+x, +y, +z, -x,
    // -y, -z); a later candidate replaces the current one only when strictly nearer.
    vertex = -1;
    distanceSquared = DBL_MAX;
    const std::vector<GmTVector<double>>& V = _mesh->getVertices();
    auto consider = [&](const std::vector<GmPointIntersectionInfo>& hits) {
        int face = -1;
        double nearest = DBL_MAX;
        for (const GmPointIntersectionInfo& h : hits) {
            const double d2 = (h.point - p).lengthSquared();
            if (face < 0 || d2 < nearest) {
                face = h.triangleIndex;
                nearest = d2;
            }
        }
        if (face < 0) return;
        for (const int v : _mesh->getFace(face).vertices) {
            const double d2 = (V[static_cast<size_t>(v)] - p).lengthSquared();
            if (vertex < 0 || d2 < distanceSquared) {
                vertex = v;
                distanceSquared = d2;
            }
        }
    };
    std::vector<GmPointIntersectionInfo> hits;
    intersect(GmRayAxis<1, 0, 0>(p), hits, false, includeDisabled);
    consider(hits);
    intersect(GmRayAxis<0, 1, 0>(p), hits, false, includeDisabled);
    consider(hits);
    intersect(GmRayAxis<0, 0, 1>(p), hits, false, includeDisabled);
    consider(hits);
    intersect(GmRayAxis<-1, 0, 0>(p), hits, false, includeDisabled);
    consider(hits);
    intersect(GmRayAxis<0, -1, 0>(p), hits, false, includeDisabled);
    consider(hits);
    intersect(GmRayAxis<0, 0, -1>(p), hits, false, includeDisabled);
    consider(hits);
}

void GmBoundingVolumeHierarchy::findClosestVertexBase(const GmTVector<double>& p, int& vertex,
                                                      double& distanceSquared, bool includeDisabled) const {
    const GmTVector<double>* V = _mesh->getVertices().data();
    double best = vertex >= 0 ? distanceSquared : DBL_MAX;
    const LeafFace* leafFaces = _leafFaces.data();
    const int firstLeaf = getNumberInternalNodes();
    auto testVertices = [&](int node, double) {
        for (const int v : leafFaces[node - firstLeaf].vertices) {
            const double d2 = (V[v] - p).lengthSquared();
            if (d2 < best || (d2 == best && v < vertex)) {
                best = d2;
                vertex = v;
            }
        }
        return best;
    };
    walkNearest(finite(p) ? _searchBoxes() : nullptr, _nodes, leafFaces, p, includeDisabled, best, testVertices,
                [&](int node) QG_BVH_INLINE_LAMBDA { prefetchFaceVertices(V, leafFaces[node - firstLeaf]); });
    distanceSquared = best;
}

double GmBoundingVolumeHierarchy::findClosestVertex(const GmTVector<double>& p, int& vertex,
                                                    bool includeDisabled) const {
    vertex = -1;
    if (_mesh == nullptr || _nodes.empty() || !finite(p)) return DBL_MAX;
    double d2 = DBL_MAX;
    initializeClosestVertexInfo(p, vertex, d2, includeDisabled);
    findClosestVertexBase(p, vertex, d2, includeDisabled);
    return vertex >= 0 ? std::sqrt(d2) : DBL_MAX;
}

// ---- Inside -----------------------------------------------------------------------------

bool GmBoundingVolumeHierarchy::isInsideMesh(const GmTVector<double>& p, bool includeDisabled) const {
    // Away from the surface of a checked mesh the parity of ray crossings gives the same answer.
    const int byRays = insideByRayParity(p, includeDisabled);
    if (byRays >= 0) return byRays != 0;
    ClosestPointInfo info;
    return _closestPointInside(p, info, includeDisabled) <= 0.0;
}

bool GmBoundingVolumeHierarchy::isMeshClosed(bool includeDisabled) const {
    if (_mesh == nullptr) return false;
    return _mesh->isClosed(includeDisabled ? nullptr : _disabledData);
}

bool GmBoundingVolumeHierarchy::isBoundaryEdge(int edge, bool includeDisabled) const {
    if (_mesh == nullptr || isMeshClosed(includeDisabled)) return false;
    const GmDisabledData* mask = !includeDisabled && GmDisabledData::isActive(_disabledData) ? _disabledData : nullptr;
    return _mesh->isBoundaryEdge(edge, mask);
}

bool GmBoundingVolumeHierarchy::isBoundaryVertex(int vertex, bool includeDisabled) const {
    if (_mesh == nullptr || isMeshClosed(includeDisabled)) return false;
    const GmDisabledData* mask = !includeDisabled && GmDisabledData::isActive(_disabledData) ? _disabledData : nullptr;
    return _mesh->isBoundaryVertex(vertex, mask);
}

bool GmBoundingVolumeHierarchy::isBoundaryPoint(int face, GmGeometry::PointOnTriType type,
                                                bool includeDisabled) const {
    if (_mesh == nullptr || isMeshClosed(includeDisabled)) return false;
    const GmDisabledData* mask = !includeDisabled && GmDisabledData::isActive(_disabledData) ? _disabledData : nullptr;
    return _mesh->isBoundaryPoint(face, type, mask);
}

int GmBoundingVolumeHierarchy::getClosestFaceSet(int face, GmGeometry::PointOnTriType type,
                                                 std::vector<int>& faces) const {
    if (_mesh == nullptr || face < 0) return 0;
    const GmTriangleFace& f = _mesh->getFace(face);
    if (type == GmGeometry::INSIDE) {
        faces.push_back(face);
        return 1;
    }
    if (isEdgeType(type)) {
        const GmTriangleEdge& e = _mesh->getEdge(edgeOfType(f, type));
        int count = 0;
        for (const int g : {e.firstFace, e.secondFace})
            if (g >= 0) {
                faces.push_back(g);
                ++count;
            }
        return count;
    }
    if (isVertexType(type)) {
        faces = _mesh->getNeighborFacesToVertex(vertexOfType(f, type));
        return static_cast<int>(faces.size());
    }
    return 0;
}

bool GmBoundingVolumeHierarchy::pointInsideFaces(const GmTVector<double>& p, const GmTVector<double>& closest,
                                                 int face, GmGeometry::PointOnTriType type,
                                                 bool includeDisabled) const {
    const GmTVector<double> d = closest - p;
    const GmTriangleFace& f = _mesh->getFace(face);
    if (type == GmGeometry::INSIDE) return pointInsideFace(d, face, includeDisabled);
    if (isEdgeType(type)) return pointInsideEdge(d, face, edgeOfType(f, type), includeDisabled);
    if (isVertexType(type)) return pointInsideVertex(d, vertexOfType(f, type), includeDisabled);
    return false;
}

bool GmBoundingVolumeHierarchy::pointInsideFace(const GmTVector<double>& d, int face, bool includeDisabled) const {
    if (_faceDisabled(face, includeDisabled)) return false;
    return _mesh->getFaceNormal(face).dot(d) > 0.0;
}

bool GmBoundingVolumeHierarchy::pointInsideEdge(const GmTVector<double>& d, int /*face*/, int edge,
                                                bool includeDisabled) const {
    if (isBoundaryEdge(edge, includeDisabled)) return false;
    // The faces of the edge; two give the angle-weighted pseudo-normal (each face weighted by pi).
    const GmTriangleEdge& e = _mesh->getEdge(edge);
    if (e.firstFace >= 0 && e.secondFace >= 0)
        return ((_mesh->getFaceNormal(e.firstFace) + _mesh->getFaceNormal(e.secondFace)) * kPi).dot(d) > 0.0;
    const int g = e.firstFace >= 0 ? e.firstFace : e.secondFace;
    return g >= 0 && _mesh->getFaceNormal(g).dot(d) > 0.0;
}

bool GmBoundingVolumeHierarchy::pointInsideVertex(const GmTVector<double>& d, int vertex,
                                                  bool includeDisabled) const {
    if (isBoundaryVertex(vertex, includeDisabled)) return false;
    return _mesh->getVertexAngleWeightedNormal(vertex).dot(d) > 0.0;
}

// ---- Vertices of other meshes inside this one --------------------------------------------

bool GmBoundingVolumeHierarchy::pointsInsideMesh(const GmBoundingVolumeHierarchy& other,
                                                 std::vector<GmInsideInfo>& results, bool append,
                                                 bool includeDisabled, int objectIndex1, int objectIndex2,
                                                 const SelfIntersectionInfo* pinchInfo) const {
    if (!append) results.clear();
    const size_t before = results.size();
    if (_mesh == nullptr || _nodes.empty() || other._mesh == nullptr) return false;
    const SelfIntersectionInfo* pinch = pinchInfo != nullptr && pinchInfo->mesh == _mesh ? pinchInfo : nullptr;
    const std::vector<GmTVector<double>>& V = other._mesh->getVertices();
    for (int v = 0; v < static_cast<int>(V.size()); ++v) {
        ClosestPointInfo info;
        bool pinched = false;
        double d;
        if (pinch == nullptr) {
            // The decision of isInsideMesh: ray parity where it is certain (vertices it puts
            // outside need no search), the search's sign otherwise; inside ones need the record.
            const int byRays = insideByRayParity(V[static_cast<size_t>(v)], includeDisabled);
            if (byRays == 0) continue;
            // Inside for certain: only the record's closest point is searched for.
            d = byRays > 0 ? -std::fabs(_closestPointSigned(V[static_cast<size_t>(v)], info, false, includeDisabled, -1))
                           : _closestPointInside(V[static_cast<size_t>(v)], info, includeDisabled);
        } else {
            d = _closestPointSigned(V[static_cast<size_t>(v)], info, true, includeDisabled, -1, pinch, 0, &pinched);
        }
        if (info.face < 0 || !(d <= 0.0)) continue;
        GmInsideInfo rec;
        rec.vertex = v;
        rec.closestPoint = info.point;
        rec.distance = -d;
        rec.closestFace = info.face;
        rec.barycentric = GmTVector<double>(1.0 - info.s - info.t, info.s, info.t);
        rec.pinched = pinched;
        rec.objectIndex1 = objectIndex1;
        rec.objectIndex2 = objectIndex2;
        rec.weight = 1.0;
        results.push_back(rec);
    }
    return results.size() > before;
}

bool GmBoundingVolumeHierarchy::pointsInsideMeshes(const std::vector<const GmBoundingVolumeHierarchy*>& others,
                                                   const std::vector<const SelfIntersectionInfo*>& infos,
                                                   int objectIndex, const std::vector<int>& objectIndices,
                                                   std::vector<GmInsideInfo>& results, bool append,
                                                   bool includeDisabled, GmBVHMetrics& metrics) const {
    if (!append) results.clear();
    const size_t before = results.size();
    if (_mesh == nullptr) return false;
    const unsigned vertices = static_cast<unsigned>(_mesh->getNumberVertices());
    for (size_t k = 0; k < others.size(); ++k) {
        const GmBoundingVolumeHierarchy* tree = others[k];
        if (tree == nullptr || tree == this) continue;
        const size_t mark = results.size();
        tree->pointsInsideMesh(*this, results, true, includeDisabled, objectIndex,
                               k < objectIndices.size() ? objectIndices[k] : -1,
                               k < infos.size() ? infos[k] : nullptr);
        metrics.addNarrowPhaseCandidates(vertices);
        metrics.addNarrowPhaseTests(vertices);
        metrics.addNarrowPhaseSuccesses(static_cast<unsigned>(results.size() - mark));
    }
    return results.size() > before;
}

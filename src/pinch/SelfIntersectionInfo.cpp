// Pinch classification: crossing pieces per face, seeds, flood fill, vote and diagnostics.

#include <quarrygeom/pinch/SelfIntersectionInfo.h>

#include <cmath>
#include <deque>
#include <iostream>
#include <sstream>
#include <string>

#include <quarrygeom/bvh/GmBoundingTree.h>
#include <quarrygeom/bvh/GmBoundingVolumeHierarchy.h>
#include <quarrygeom/core/GmRay.h>
#include <quarrygeom/mesh/GmTriangleMesh.h>
#include <quarrygeom/primitives/GmContactKernels.h>

namespace {

using Vec = GmTVector<double>;

constexpr int kListLimit = 12;
const char* const kBuildHeader[2] = {"WARNING in Pinch Classification: SelfIntersectionInfo::build():\n",
                                     "ERROR in Pinch Classification: SelfIntersectionInfo::build():\n"};
const char* const kMailingList = "  PLEASE SEND LINK TO SCENE THAT CAUSED THIS ERROR TO quorndev MAILING LIST.\n";

// " i j k" for up to 12 items, then " ..." when more follow; a newline at the end.
void writeList(std::ostream& os, const std::vector<int>& items) {
    for (size_t i = 0; i < items.size(); ++i) {
        if (static_cast<int>(i) == kListLimit) {
            os << " ...";
            break;
        }
        os << ' ' << items[i];
    }
    os << "\n";
}

// One message, written to the error stream in one piece.
void emit(const std::ostringstream& os) { std::cerr << os.str() << std::flush; }

const std::string& nameOf(const GmTriangleMesh* mesh) {
    static const std::string empty;
    return mesh != nullptr ? mesh->getName() : empty;
}

struct P2 {
    double u, v;
};

// Coordinate plane that drops the largest component of n.
inline int dropAxis(const Vec& n) {
    const double ax = std::fabs(n.x), ay = std::fabs(n.y), az = std::fabs(n.z);
    if (ax >= ay && ax >= az) return 0;
    if (ax < ay && ay >= az) return 1;
    return 2;
}

inline P2 project(const Vec& p, int drop) {
    if (drop == 0) return {p.y, p.z};
    if (drop == 1) return {p.z, p.x};
    return {p.x, p.y};
}

// Orientation of c with respect to the directed line a -> b.
inline double orient2(const P2& a, const P2& b, const P2& c) {
    return (b.u - a.u) * (c.v - a.v) - (b.v - a.v) * (c.u - a.u);
}

inline bool opposite(double a, double b) { return (a > 0.0 && b < 0.0) || (a < 0.0 && b > 0.0); }

inline Vec faceCentre(const Vec& p1, const Vec& p2, const Vec& p3) {
    return Vec((p1.x + p2.x + p3.x) / 3.0, (p1.y + p2.y + p3.y) / 3.0, (p1.z + p2.z + p3.z) / 3.0);
}

inline bool isSide(std::int32_t t) { return t == SelfIntersectionInfo::SIDE_1 || t == SelfIntersectionInfo::SIDE_2; }
inline std::int32_t otherSide(std::int32_t t) { return t == SelfIntersectionInfo::SIDE_1 ? 2 : 1; }

}  // namespace

// ---- Construction -------------------------------------------------------------------------

SelfIntersectionInfo::SelfIntersectionInfo()
    : mesh(nullptr), uniform(true), uniformType(SIDE_1), boundaryWarned(false), outsideType(SIDE_1) {}

SelfIntersectionInfo::SelfIntersectionInfo(const SelfIntersectionInfo& other) : SelfIntersectionInfo() {
    _copyFrom(other);
}

SelfIntersectionInfo& SelfIntersectionInfo::operator=(const SelfIntersectionInfo& other) {
    if (this != &other) _copyFrom(other);
    return *this;
}

SelfIntersectionInfo::SelfIntersectionInfo(SelfIntersectionInfo&&) noexcept = default;
SelfIntersectionInfo& SelfIntersectionInfo::operator=(SelfIntersectionInfo&&) noexcept = default;
SelfIntersectionInfo::~SelfIntersectionInfo() = default;

void SelfIntersectionInfo::_copyFrom(const SelfIntersectionInfo& other) {
    mesh = other.mesh;
    uniform = other.uniform;
    uniformType = other.uniformType;
    vertexTypes = other.vertexTypes;
    faceTypes = other.faceTypes;
    faceCrossings.clear();
    faceCrossings.resize(other.faceCrossings.size());
    for (size_t f = 0; f < other.faceCrossings.size(); ++f)
        if (other.faceCrossings[f]) faceCrossings[f].reset(new std::vector<Vec>(*other.faceCrossings[f]));
    boundaryWarned = other.boundaryWarned;
    outsideType = other.outsideType;
    _unknownVertices = other._unknownVertices;
    _unknownFaces = other._unknownFaces;
}

// ---- Crossing test and parity ---------------------------------------------------------------

bool SelfIntersectionInfo::pathCrossesPiece(const Vec& r, const Vec& q, const Vec& a, const Vec& b, const Vec& n) {
    const int drop = dropAxis(n);
    const P2 R = project(r, drop), Q = project(q, drop), A = project(a, drop), B = project(b, drop);
    const double d1 = orient2(R, Q, A), d2 = orient2(R, Q, B);
    if (!(opposite(d1, d2) || (d1 == 0.0 && d2 == 0.0))) return false;
    const double e1 = orient2(A, B, R), e2 = orient2(A, B, Q);
    return opposite(e1, e2) || (e1 == 0.0 && e2 == 0.0);
}

bool SelfIntersectionInfo::crossingParity(int face, const Vec& r, const Vec& q) const {
    if (face < 0 || static_cast<size_t>(face) >= faceCrossings.size() || !faceCrossings[face] || mesh == nullptr)
        return false;
    const std::vector<Vec>& pieces = *faceCrossings[face];
    const GmTriangleFace& f = mesh->getFace(face);
    const std::vector<Vec>& V = mesh->getVertices();
    const Vec& p1 = V[static_cast<size_t>(f.vertices[0])];
    const Vec& p2 = V[static_cast<size_t>(f.vertices[1])];
    const Vec& p3 = V[static_cast<size_t>(f.vertices[2])];
    const Vec n = (p2 - p1).cross(p3 - p2);
    bool odd = false;
    for (size_t k = 0; k + 1 < pieces.size(); k += 2)
        if (pathCrossesPiece(r, q, pieces[k], pieces[k + 1], n)) odd = !odd;
    return odd;
}

// ---- Point queries --------------------------------------------------------------------------

int SelfIntersectionInfo::facePointType(int face, const Vec& point) const {
    if (uniform) return uniformType;
    if (mesh == nullptr || face < 0 || static_cast<size_t>(face) >= faceTypes.size()) return SIDE_1;
    const GmTriangleFace& f = mesh->getFace(face);
    const std::vector<Vec>& V = mesh->getVertices();
    Vec reference;
    std::int32_t referenceType = faceTypes[static_cast<size_t>(face)];
    if (isSide(referenceType)) {
        reference = faceCentre(V[static_cast<size_t>(f.vertices[0])], V[static_cast<size_t>(f.vertices[1])],
                               V[static_cast<size_t>(f.vertices[2])]);
    } else {
        int k = 0;
        while (k < 2 && !isSide(vertexTypes[static_cast<size_t>(f.vertices[k])])) ++k;
        referenceType = vertexTypes[static_cast<size_t>(f.vertices[k])];
        if (!isSide(referenceType)) {
            std::ostringstream os;
            os << "ERROR in Pinch Classification: SelfIntersectionInfo::facePointType():\n"
               << "  All vertices in collision mesh face '" << nameOf(mesh) << ".f[" << face
               << "]' are LOOP or UNKNOWN.\n"
               << kMailingList;
            emit(os);
            return SIDE_1;
        }
        reference = V[static_cast<size_t>(f.vertices[k])];
    }
    return crossingParity(face, reference, point) ? otherSide(referenceType) : referenceType;
}

bool SelfIntersectionInfo::insideAt(int face, const Vec& q, bool plainInside, int pinchSide, bool& pinched) const {
    const std::int32_t outside = isSide(pinchSide) ? pinchSide : outsideType;
    if (facePointType(face, q) == outside) {
        pinched = false;
        return outside == SIDE_1 ? plainInside : !plainInside;
    }
    pinched = true;
    return true;
}

bool SelfIntersectionInfo::pinchedAt(int face, const Vec& q) const { return facePointType(face, q) != outsideType; }

bool SelfIntersectionInfo::pinchedVertex(int vertex) const {
    if (uniform) return uniformType != outsideType;
    if (vertex < 0 || static_cast<size_t>(vertex) >= vertexTypes.size()) return false;
    const std::int32_t t = vertexTypes[static_cast<size_t>(vertex)];
    return t == LOOP || (isSide(t) && t != outsideType);
}

int SelfIntersectionInfo::numberCrossingFaces() const {
    int n = 0;
    for (const auto& c : faceCrossings) n += c ? 1 : 0;
    return n;
}

int SelfIntersectionInfo::numberLoopVertices() const {
    int n = 0;
    for (const std::int32_t t : vertexTypes) n += t == LOOP ? 1 : 0;
    return n;
}

// ---- Build ----------------------------------------------------------------------------------

// Flood fill state of one build.
struct SelfIntersectionInfo::Builder {
    SelfIntersectionInfo& info;
    const GmTriangleMesh& mesh;
    const GmBoundingVolumeHierarchy& tree;
    const std::vector<const GmBoundingVolumeHierarchy*>& others;
    const std::vector<Vec>& V;
    std::vector<char> nearCrossing;  // per vertex: a face around it carries crossings
    std::deque<int> queues[2];       // faces of type 1, faces of any other type
    std::vector<int> reached;        // vertices classified in the current region

    Vec centre(int f) const {
        const GmTriangleFace& fc = mesh.getFace(f);
        return faceCentre(V[static_cast<size_t>(fc.vertices[0])], V[static_cast<size_t>(fc.vertices[1])],
                          V[static_cast<size_t>(fc.vertices[2])]);
    }

    // Face classification from vertex v; true when the face was newly classified.
    bool classifyFace(int f, int v, int pass, bool& success) {
        std::int32_t& type = info.faceTypes[static_cast<size_t>(f)];
        const std::int32_t old = type;
        const std::int32_t vt = info.vertexTypes[static_cast<size_t>(v)];
        std::int32_t next;
        if (info.faceCrossings[static_cast<size_t>(f)]) {
            if (pass > 0) {
                success = false;
                return false;
            }
            next = 1 + (info.crossingParity(f, V[static_cast<size_t>(v)], centre(f)) ? 1 : 0);
            if (vt == SIDE_2) next = otherSide(next);
        } else {
            next = vt;
        }
        if (old == UNKNOWN) {
            type = next;
            success = true;
            return true;
        }
        success = old == next;
        return false;
    }

    void floodVertex(int v, int pass) {
        for (const int f : mesh.getNeighborFacesToVertex(v)) {
            bool success = false;
            if (classifyFace(f, v, pass, success))
                queues[info.faceTypes[static_cast<size_t>(f)] == SIDE_1 ? 0 : 1].push_back(f);
        }
    }

    // Faces hand their sides to their unclassified vertices, which flood on.
    void drain(int pass) {
        for (;;) {
            std::deque<int>& q = !queues[0].empty() ? queues[0] : queues[1];
            if (q.empty()) return;
            const int f = q.front();
            q.pop_front();
            const std::int32_t ft = info.faceTypes[static_cast<size_t>(f)];
            const GmTriangleFace& fc = mesh.getFace(f);
            const bool crossed = static_cast<bool>(info.faceCrossings[static_cast<size_t>(f)]);
            for (int k = 0; k < 3; ++k) {
                const int u = fc.vertices[k];
                if (info.vertexTypes[static_cast<size_t>(u)] != UNKNOWN) continue;
                std::int32_t t = ft;
                if (crossed && info.crossingParity(f, centre(f), V[static_cast<size_t>(u)])) t = otherSide(ft);
                info.vertexTypes[static_cast<size_t>(u)] = t;
                reached.push_back(u);
                floodVertex(u, pass);
            }
        }
    }

    // The region of a classified vertex: first without entering faces that carry crossings,
    // then across them by parity.
    void floodRegion(int v) {
        reached.assign(1, v);
        floodVertex(v, 1);
        drain(1);
        const size_t firstPass = reached.size();
        for (size_t i = 0; i < firstPass; ++i) {
            if (!nearCrossing[static_cast<size_t>(reached[i])]) continue;  // nothing left to classify
            floodVertex(reached[i], 0);
            drain(0);
        }
    }

    // Signed closest point <= 0 against any other collision object.
    bool insideOthers(const Vec& p) const {
        for (const GmBoundingVolumeHierarchy* h : others) {
            if (h == nullptr || h == &tree || h->getTriangleMesh() == &mesh) continue;
            Vec closest, normal;
            int face = -1;
            bool pinched = false;
            const double d = h->findClosestPoint(p, closest, face, normal, pinched, false, true);
            if (face >= 0 && d <= 0.0) return true;
        }
        return false;
    }

    // Winding number of the mesh just in front of vertex v, by the crossings of a ray along its
    // normal (its own faces left out). False when every direction tried meets an edge or passes
    // through another surface at v.
    bool windingInFront(int v, const Vec& n, int& winding) const {
        const Vec a = std::fabs(n.x) < 0.9 ? Vec(1, 0, 0) : Vec(0, 1, 0);
        const Vec t1 = n.cross(a).safeNormalized();
        const Vec t2 = n.cross(t1);
        const Vec directions[5] = {n, n + t1 * 0.173, n - t2 * 0.219, n - t1 * 0.291 + t2 * 0.137,
                                   n + t1 * 0.311 + t2 * 0.257};
        const Vec& origin = V[static_cast<size_t>(v)];
        std::vector<GmPointIntersectionInfo> hits;
        for (const Vec& d : directions) {
            hits.clear();
            tree.intersect(GmRay(origin, d), hits, false, true);
            int w = 0;
            bool clean = true;
            const double scale = d.length();
            for (const GmPointIntersectionInfo& h : hits) {
                const GmTriangleFace& f = mesh.getFace(h.triangleIndex);
                if (f.vertices[0] == v || f.vertices[1] == v || f.vertices[2] == v) continue;
                const Vec& b = h.barycentric;
                const double along = (h.point - origin).dot(d) / scale;
                const Vec& m = mesh.getFaceNormal(h.triangleIndex);
                const double c = m.dot(d) / scale;
                if (b.x < 1e-9 || b.y < 1e-9 || b.z < 1e-9 || !(along > 1e-12) || std::fabs(c) < 1e-9) {
                    clean = false;
                    break;
                }
                w += c > 0.0 ? 1 : -1;
            }
            if (clean) {
                winding = w;
                return true;
            }
        }
        return false;
    }

    // Side of a seed vertex; 0 when it cannot be decided.
    std::int32_t seedType(int v, bool closed) const {
        std::int32_t type = info.outsideType;
        if (closed && !mesh.isBoundaryVertex(v)) {
            const Vec n = mesh.getVertexAngleWeightedNormal(v);
            if (!(n.length() > 0.5)) return UNKNOWN;
            int w = 0;
            if (!windingInFront(v, n, w)) return UNKNOWN;
            type = w == 0 ? SIDE_1 : (w == -1 ? SIDE_2 : otherSide(info.outsideType));
        }
        if (insideOthers(V[static_cast<size_t>(v)])) type = otherSide(info.outsideType);
        return type;
    }
};

void SelfIntersectionInfo::build(const GmBoundingVolumeHierarchy& tree, const std::vector<GmIntersectionInfo>& records,
                                 const std::vector<const GmBoundingVolumeHierarchy*>& others) {
    _build(tree, records, others);
}

void SelfIntersectionInfo::build(const GmBoundingVolumeHierarchy& tree,
                                 const std::vector<GmIntersectionCandidate>& pairs,
                                 const std::vector<const GmBoundingVolumeHierarchy*>& others) {
    std::vector<GmIntersectionInfo> records;
    const GmTriangleMesh* m = tree.getTriangleMesh();
    if (m != nullptr) {
        const int nf = m->getNumberFaces();
        const std::vector<Vec>& V = m->getVertices();
        for (const GmIntersectionCandidate& c : pairs) {
            if (c.first < 0 || c.second < 0 || c.first >= nf || c.second >= nf || c.first == c.second) continue;
            const GmTriangleFace& a = m->getFace(c.first);
            const GmTriangleFace& b = m->getFace(c.second);
            GmIntersectionInfo rec;
            rec.triangleIndex1 = c.first;
            rec.triangleIndex2 = c.second;
            if (GmContactKernels::triangleTriangleIntersection(
                    V[static_cast<size_t>(a.vertices[0])], V[static_cast<size_t>(a.vertices[1])],
                    V[static_cast<size_t>(a.vertices[2])], V[static_cast<size_t>(b.vertices[0])],
                    V[static_cast<size_t>(b.vertices[1])], V[static_cast<size_t>(b.vertices[2])], rec.points))
                records.push_back(std::move(rec));
        }
    }
    _build(tree, records, others);
}

namespace {
std::vector<const GmBoundingVolumeHierarchy*> hierarchiesOf(const std::vector<const GmBoundingTree*>& trees) {
    std::vector<const GmBoundingVolumeHierarchy*> out;
    for (const GmBoundingTree* t : trees)
        if (t != nullptr) out.push_back(t->getHierarchy());
    return out;
}
}  // namespace

void SelfIntersectionInfo::build(const GmBoundingTree& tree, const std::vector<GmIntersectionInfo>& records,
                                 const std::vector<const GmBoundingTree*>& others) {
    if (tree.getHierarchy() != nullptr) build(*tree.getHierarchy(), records, hierarchiesOf(others));
}

void SelfIntersectionInfo::build(const GmBoundingTree& tree, const std::vector<GmIntersectionCandidate>& pairs,
                                 const std::vector<const GmBoundingTree*>& others) {
    if (tree.getHierarchy() != nullptr) build(*tree.getHierarchy(), pairs, hierarchiesOf(others));
}

void SelfIntersectionInfo::_build(const GmBoundingVolumeHierarchy& tree, const std::vector<GmIntersectionInfo>& records,
                                  const std::vector<const GmBoundingVolumeHierarchy*>& others) {
    mesh = tree.getTriangleMesh();
    uniform = true;
    uniformType = SIDE_1;
    outsideType = SIDE_1;
    vertexTypes.clear();
    faceTypes.clear();
    faceCrossings.clear();
    _unknownVertices = _unknownFaces = 0;
    if (mesh == nullptr) return;
    const GmTriangleMesh& M = *mesh;
    const int nv = M.getNumberVertices(), nf = M.getNumberFaces();
    const std::vector<Vec>& V = M.getVertices();

    // 1. Everything unknown.
    vertexTypes.assign(static_cast<size_t>(nv), UNKNOWN);
    faceTypes.assign(static_cast<size_t>(nf), UNKNOWN);
    faceCrossings.resize(static_cast<size_t>(nf));
    int named = -1;
    outsideType = M.isRightSideOut(&named) ? SIDE_1 : SIDE_2;

    // 2. Crossing pieces per face; vertices shared by an intersecting pair are LOOP.
    for (const GmIntersectionInfo& rec : records) {
        const std::vector<Vec>& pts = rec.points;
        if (pts.size() < 2) continue;
        const int f[2] = {rec.triangleIndex1, rec.triangleIndex2};
        const bool valid[2] = {f[0] >= 0 && f[0] < nf, f[1] >= 0 && f[1] < nf};
        if (f[0] == -1 && f[1] == -1) continue;
        if (!valid[0] && !valid[1]) continue;
        uniform = false;
        int shared = 0;
        if (valid[0] && valid[1]) {
            const GmTriangleFace& a = M.getFace(f[0]);
            const GmTriangleFace& b = M.getFace(f[1]);
            for (int i = 0; i < 3; ++i)
                for (int j = 0; j < 3; ++j)
                    if (a.vertices[i] == b.vertices[j]) {
                        vertexTypes[static_cast<size_t>(a.vertices[i])] = LOOP;
                        ++shared;
                    }
        }
        if (shared >= 2) continue;  // the pair meets along its common edge
        size_t ia = 0, ib = 1;
        if (pts.size() > 2) {
            double best = -1.0;
            for (size_t i = 0; i < pts.size(); ++i)
                for (size_t j = i + 1; j < pts.size(); ++j) {
                    const double d = (pts[i] - pts[j]).lengthSquared();
                    if (d > best) best = d, ia = i, ib = j;
                }
        }
        if (pts[ia] == pts[ib]) continue;
        for (int k = 0; k < 2; ++k) {
            if (!valid[k]) continue;
            auto& list = faceCrossings[static_cast<size_t>(f[k])];
            if (!list) list.reset(new std::vector<Vec>());
            list->push_back(pts[ia]);
            list->push_back(pts[ib]);
        }
    }

    Builder b{*this, M, tree, others, V, std::vector<char>(static_cast<size_t>(nv), 0), {}, {}};

    // 3. Uniform: one side for everything.
    if (uniform) {
        std::int32_t type = outsideType;
        if (named >= 0 && named < nv && b.insideOthers(V[static_cast<size_t>(named)])) type = otherSide(type);
        uniformType = type;
        for (std::int32_t& t : vertexTypes)
            if (t == UNKNOWN) t = type;
        for (std::int32_t& t : faceTypes)
            if (t == UNKNOWN) t = type;
        return;
    }

    // 4. Pinches that reach open boundary edges.
    std::vector<int> nearBoundary;
    for (int f = 0; f < nf; ++f) {
        if (!faceCrossings[static_cast<size_t>(f)]) continue;
        const GmTriangleFace& fc = M.getFace(f);
        if (M.isBoundaryEdge(fc.edges[0]) || M.isBoundaryEdge(fc.edges[1]) || M.isBoundaryEdge(fc.edges[2]))
            nearBoundary.push_back(f);
    }
    if (!nearBoundary.empty() && !boundaryWarned) {
        boundaryWarned = true;
        std::ostringstream os;
        os << kBuildHeader[0] << "  Collision mesh '" << M.getName() << "' has pinch regions\n"
           << "  (which may be ill-defined) near open boundary edges:\n    ";
        writeList(os, nearBoundary);
        emit(os);
    }

    // 5. Seeds, each flooding its region; vertices away from the crossings are tried first.
    std::vector<char>& nearCrossing = b.nearCrossing;
    for (int f = 0; f < nf; ++f)
        if (faceCrossings[static_cast<size_t>(f)])
            for (const int v : M.getFace(f).vertices) nearCrossing[static_cast<size_t>(v)] = 1;
    const bool closed = M.isClosed();
    bool seeded = false;
    for (int round = 0; round < 2; ++round)
        for (int v = 0; v < nv; ++v) {
            if (nearCrossing[static_cast<size_t>(v)] != round || vertexTypes[static_cast<size_t>(v)] != UNKNOWN)
                continue;
            const std::int32_t t = b.seedType(v, closed);
            if (t == UNKNOWN) continue;
            seeded = true;
            vertexTypes[static_cast<size_t>(v)] = t;
            b.floodRegion(v);
        }

    // 6. No seed: vertex 0 on side 1.
    if (!seeded && nv > 0) {
        std::ostringstream os;
        os << kBuildHeader[1] << "  Unable to classify initial vertices in collision mesh '" << M.getName() << "'.\n"
           << kMailingList;
        emit(os);
        vertexTypes[0] = SIDE_1;
        b.reached.assign(1, 0);
        b.floodVertex(0, 0);
        b.drain(0);
    }

    // 7. Vote of the faces around each vertex left over.
    std::vector<int> unknownVertices;
    for (int v = 0; v < nv; ++v) {
        if (vertexTypes[static_cast<size_t>(v)] != UNKNOWN) continue;
        int votes1 = 0, votes2 = 0;
        for (const int f : M.getNeighborFacesToVertex(v)) {
            const std::int32_t ft = faceTypes[static_cast<size_t>(f)];
            if (ft == UNKNOWN) continue;
            const bool odd = crossingParity(f, b.centre(f), V[static_cast<size_t>(v)]);
            if ((ft == SIDE_2 && !odd) || (ft != SIDE_2 && odd))
                ++votes2;
            else
                ++votes1;
        }
        if (votes1 > votes2) {
            vertexTypes[static_cast<size_t>(v)] = SIDE_1;
        } else if (votes1 < votes2) {
            vertexTypes[static_cast<size_t>(v)] = SIDE_2;
        } else {
            vertexTypes[static_cast<size_t>(v)] = LOOP;
            unknownVertices.push_back(v);
        }
    }
    _unknownVertices = static_cast<int>(unknownVertices.size());
    if (!unknownVertices.empty()) {
        std::ostringstream os;
        os << kBuildHeader[0] << "  Collision mesh '" << M.getName() << "' has " << unknownVertices.size()
           << " unknown " << (unknownVertices.size() == 1 ? "vertex" : "vertices") << ":\n    ";
        writeList(os, unknownVertices);
        emit(os);
    }

    // 8. Face centres left over.
    std::vector<int> unknownFaces;
    for (int f = 0; f < nf; ++f)
        if (faceTypes[static_cast<size_t>(f)] == UNKNOWN) unknownFaces.push_back(f);
    _unknownFaces = static_cast<int>(unknownFaces.size());
    if (!unknownFaces.empty()) {
        std::ostringstream os;
        os << kBuildHeader[0] << "  Collision mesh '" << M.getName() << "' has " << unknownFaces.size()
           << " unknown face " << (unknownFaces.size() == 1 ? "center" : "centers") << ":\n    ";
        writeList(os, unknownFaces);
        emit(os);
    }
}

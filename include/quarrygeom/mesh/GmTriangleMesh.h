#pragma once

#include <atomic>
#include <cassert>
#include <cfloat>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include <quarrygeom/core/GmExport.h>
#include <quarrygeom/core/GmPointOnTriType.h>
#include <quarrygeom/core/GmTVector.h>
#include <quarrygeom/mesh/GmIndexList.h>

class GmMatrix;

namespace GmMeshDetail {
// Allocator that leaves value-initialised elements uninitialised (for cache slots
// that are always written before they are read).
template <class T>
struct NoInitAllocator : std::allocator<T> {
    template <class U>
    struct rebind {
        using other = NoInitAllocator<U>;
    };
    NoInitAllocator() = default;
    template <class U>
    NoInitAllocator(const NoInitAllocator<U>&) noexcept {}
    template <class U>
    void construct(U*) noexcept {}
    template <class U, class A0, class... A>
    void construct(U* p, A0&& a0, A&&... a) {
        ::new (static_cast<void*>(p)) U(std::forward<A0>(a0), std::forward<A>(a)...);
    }
};

// State of one lazily filled cache slot. Readers load it with acquire; the one thread that
// claims a missing slot (missing -> busy) computes the value and publishes it with release;
// a reader that finds the slot busy waits for it. Copyable so that the slots can live in a
// std::vector (a copy takes the source's state as it stands).
class CacheSlot {
public:
    static constexpr unsigned char kMissing = 0, kBusy = 1, kReady = 2;
    CacheSlot() = default;
    CacheSlot(const CacheSlot& o) noexcept : _state(o._state.load(std::memory_order_relaxed)) {}
    CacheSlot& operator=(const CacheSlot& o) noexcept {
        _state.store(o._state.load(std::memory_order_relaxed), std::memory_order_relaxed);
        return *this;
    }
    bool ready() const { return _state.load(std::memory_order_acquire) == kReady; }
    void reset() { _state.store(kMissing, std::memory_order_relaxed); }
    // Claims a missing slot for filling; false when it is ready or another thread fills it.
    bool claim() const {
        unsigned char expected = kMissing;
        return _state.compare_exchange_strong(expected, kBusy, std::memory_order_acquire,
                                              std::memory_order_relaxed);
    }
    void publish() const { _state.store(kReady, std::memory_order_release); }

private:
    mutable std::atomic<unsigned char> _state{kMissing};
};
static_assert(sizeof(CacheSlot) == 1, "one byte per cache slot");

}  // namespace GmMeshDetail
class GmDisabledData;
class GmAdjacentOrphanSet;

// One edge of a triangle mesh: an unordered vertex pair. "from" and "to" follow
// the direction in which the first face that used the edge traversed it.
// A missing face is -1.
class GmTriangleEdge {
public:
    int firstFace = -1;
    int secondFace = -1;
    int from = -1;
    int to = -1;

    GmTriangleEdge() = default;
    GmTriangleEdge(int face1, int face2, int vertexFrom, int vertexTo)
        : firstFace(face1), secondFace(face2), from(vertexFrom), to(vertexTo) {}

    int getFirstFace() const { return firstFace; }
    int getSecondFace() const { return secondFace; }
    int getVertexIndexFrom() const { return from; }
    int getVertexIndexTo() const { return to; }

    bool hasVertex(int v) const { return from == v || to == v; }
    bool hasFace(int f) const { return firstFace == f || secondFace == f; }
    // The endpoint that is not v (to when v is neither endpoint).
    int getOtherVertex(int v) const { return from == v ? to : from; }

    bool operator==(const GmTriangleEdge& o) const {
        return firstFace == o.firstFace && secondFace == o.secondFace && from == o.from && to == o.to;
    }
    bool operator!=(const GmTriangleEdge& o) const { return !(*this == o); }
};

// One face: vertices 1, 2, 3 (their order fixes the orientation), the face's own
// index, edges 1, 2, 3 (edge 1 joins vertices 1-2, edge 2 joins 2-3, edge 3 joins 3-1)
// and a reserved word that is always 0. Arrays are indexed 0..2 for 1..3.
class GmTriangleFace {
public:
    int vertices[3] = {-1, -1, -1};
    int index = -1;
    int edges[3] = {-1, -1, -1};
    int reserved = 0;

    GmTriangleFace() = default;
    GmTriangleFace(int v1, int v2, int v3, int faceIndex, int e1, int e2, int e3)
        : vertices{v1, v2, v3}, index(faceIndex), edges{e1, e2, e3}, reserved(0) {}

    int getIndex() const { return index; }
    int getVertexIndex1() const { return vertices[0]; }
    int getVertexIndex2() const { return vertices[1]; }
    int getVertexIndex3() const { return vertices[2]; }
    int getEdgeIndex1() const { return edges[0]; }
    int getEdgeIndex2() const { return edges[1]; }
    int getEdgeIndex3() const { return edges[2]; }

    bool hasVertex(int v) const { return vertices[0] == v || vertices[1] == v || vertices[2] == v; }
    bool hasEdge(int e) const { return edges[0] == e || edges[1] == e || edges[2] == e; }
    // 0, 1 or 2 for the slot of vertex v (resp. edge e); -1 when absent.
    int vertexSlot(int v) const {
        return vertices[0] == v ? 0 : (vertices[1] == v ? 1 : (vertices[2] == v ? 2 : -1));
    }
    int edgeSlot(int e) const { return edges[0] == e ? 0 : (edges[1] == e ? 1 : (edges[2] == e ? 2 : -1)); }

    bool operator==(const GmTriangleFace& o) const {
        return vertices[0] == o.vertices[0] && vertices[1] == o.vertices[1] && vertices[2] == o.vertices[2] &&
               index == o.index && edges[0] == o.edges[0] && edges[1] == o.edges[1] && edges[2] == o.edges[2] &&
               reserved == o.reserved;
    }
    bool operator!=(const GmTriangleFace& o) const { return !(*this == o); }
};

static_assert(sizeof(GmTriangleEdge) == 4 * sizeof(int), "GmTriangleEdge is four ints");
static_assert(sizeof(GmTriangleFace) == 8 * sizeof(int), "GmTriangleFace is eight ints");

// Indexed triangle mesh with full adjacency and lazily computed local geometry.
//
// Build it in two phases: add vertices and faces (edges are created on the fly,
// one per unordered vertex pair), then call finishConstruction(), which builds
// every adjacency list. Positions may change afterwards; topology may not (unless
// faces are added and finishConstruction() is called again).
//
// Derived data (face normals, areas, centres, unit edges, vertex normals) is cached
// per element and recomputed on first read after any position change. The const
// accessors may be called from any number of threads at once: each slot is filled by
// exactly one of them (per-slot state with acquire/release; a reader that meets a slot
// being filled waits for it), without a lock on the read path. Position changes and
// setDirty() must not run while other threads read.
//
// Invalid input: addFace() rejects a negative vertex index and finishConstruction()
// one at or above the vertex count, with std::invalid_argument naming the face and the
// index, before anything is built. isConstructionFinished() tells whether the adjacency
// and caches match the current elements (hierarchies refuse a mesh for which it is
// false). Element accessors (getVertex, getFaceNormal, ...) and addNormalOffset() do not
// check their indices or sizes in release builds, for speed (debug builds assert).
class QUARRYGEOM_API GmTriangleMesh {
public:
    static constexpr int kInvalidIndex = -1;
    // Marks a cache slot that has not been computed (the largest finite double).
    static constexpr double UninitializedDouble = DBL_MAX;
    static const GmTVector<double> UninitializedVector;

    // ---- Construction -------------------------------------------------------
    // Empty mesh with room reserved for numVertices vertices, numFaces faces and
    // 2 * numFaces edges.
    explicit GmTriangleMesh(int numVertices = 0, int numFaces = 0);
    explicit GmTriangleMesh(const std::string& name);
    // Copies everything except the orphan set, which the copy rebuilds on demand.
    GmTriangleMesh(const GmTriangleMesh& other);
    GmTriangleMesh(GmTriangleMesh&& other) noexcept;
    // Discards this mesh's orphan set (also on self-assignment), then copies.
    GmTriangleMesh& operator=(const GmTriangleMesh& other);
    GmTriangleMesh& operator=(GmTriangleMesh&& other) noexcept;
    virtual ~GmTriangleMesh();

    const std::string& getName() const { return _name; }
    void setName(const std::string& name) { _name = name; }

    // Appends p unconditionally.
    int addVertex(const GmTVector<double>& p);
    // Merging variant: returns an earlier vertex whose components all lie within
    // 1e-8 of p's (as found by the tolerant ordered lookup), else appends p.
    int addVertex(const GmTVector<double>& p, bool& existed);

    // Appends a face with vertices a, b, c (in this orientation) and creates or
    // updates its three edges. A negative index throws std::invalid_argument; indices
    // above the vertex count are caught by finishConstruction().
    int addFace(int a, int b, int c);
    // Returns the existing face with the same three vertices (any order), else adds one.
    int addFace(int a, int b, int c, bool& existed);
    // Appends the three positions as new vertices and the face over them.
    int addFace(const GmTVector<double>& p1, const GmTVector<double>& p2, const GmTVector<double>& p3);
    // Merging variant: merges the positions with existing vertices, then the face
    // with an existing face; existed reports only the face.
    int addFace(const GmTVector<double>& p1, const GmTVector<double>& p2, const GmTVector<double>& p3,
                bool& existed);
    // Creates the edge (from, to) for face, or records face on the existing edge.
    // An edge used by three or more faces keeps its first face and the last one added.
    int addEdge(int from, int to, int face);

    // Builds the adjacency lists and the closed flag and sizes the caches. Runs the
    // five list builders concurrently above 1000 vertices when multithreading is on.
    // Throws std::invalid_argument, leaving the mesh as it was, when a face refers to a
    // vertex index at or above the vertex count.
    void finishConstruction();
    // True after finishConstruction() until the next addVertex/addFace/addEdge.
    bool isConstructionFinished() const { return _finished; }

    // Reserves storage ahead of a large build.
    void reserve(int numVertices, int numFaces);

    // ---- Positions ----------------------------------------------------------
    void setVertex(int i, const GmTVector<double>& p);
    void setVertex(int i, double x, double y, double z);
    void setVertices(const std::vector<GmTVector<double>>& v);
    void swapVertices(std::vector<GmTVector<double>>& v);
    const std::vector<GmTVector<double>>& getVertices() const { return _vertices; }
    // Writing through this reference requires a setDirty() afterwards.
    std::vector<GmTVector<double>>& getWritableVertices() { return _vertices; }
    // New array of 3 * vertex count doubles (x, y, z per vertex); free with delete[].
    double* copyVertices() const;
    void copyVertices(std::vector<GmTVector<double>>& out) const;
    // Moves every vertex by d along its vertex normal (normals taken before any move).
    void addNormalOffset(double d);
    // Moves vertex i by d[i] along its vertex normal; d has one entry per vertex.
    void addNormalOffset(const std::vector<double>& d);
    // Marks every cached value missing.
    void setDirty();
    // Computes every missing cache slot now (in parallel for large meshes). Optional:
    // the accessors fill missing slots themselves, also from several threads.
    void fillCaches() const;
    // Cache state, for diagnostics: whether a slot holds a computed value, and
    // whether a kind's reset flag is set (every slot of it known to be missing).
    bool isFaceDataCached(int f) const { return _faceState[static_cast<std::size_t>(_checkFace(f))].ready(); }
    bool isUnitEdgeCached(int e) const { return _unitEdgeState[static_cast<std::size_t>(_checkEdge(e))].ready(); }
    bool isVertexNormalCached(int v) const {
        return _vertexNormalState[static_cast<std::size_t>(_checkVertex(v))].ready();
    }
    bool isFaceDataReset() const { return _faceDataReset.load(std::memory_order_relaxed); }
    bool isVertexNormalsReset() const { return _vertexNormalsReset.load(std::memory_order_relaxed); }
    bool isUnitEdgesReset() const { return _unitEdgesReset.load(std::memory_order_relaxed); }

    // ---- Element access -----------------------------------------------------
    int getNumberVertices() const { return static_cast<int>(_vertices.size()); }
    int getNumberFaces() const { return static_cast<int>(_faces.size()); }
    int getNumberEdges() const { return static_cast<int>(_edges.size()); }

    const GmTVector<double>& getVertex(int i) const { return _vertices[_checkVertex(i)]; }
    const GmTriangleEdge& getEdge(int e) const { return _edges[_checkEdge(e)]; }
    const std::vector<GmTriangleEdge>& getEdges() const { return _edges; }
    const GmTriangleFace& getFace(int f) const { return _faces[_checkFace(f)]; }
    const std::vector<GmTriangleFace>& getFaces() const { return _faces; }

    void getEdgeFaces(int e, int& f1, int& f2) const {
        const GmTriangleEdge& ed = getEdge(e);
        f1 = ed.firstFace;
        f2 = ed.secondFace;
    }
    int getEdgeVertexIndexFrom(int e) const { return getEdge(e).from; }
    int getEdgeVertexIndexTo(int e) const { return getEdge(e).to; }
    const GmTVector<double>& getEdgeVertexFrom(int e) const { return getVertex(getEdge(e).from); }
    const GmTVector<double>& getEdgeVertexTo(int e) const { return getVertex(getEdge(e).to); }
    void getEdgeVertices(int e, int& a, int& b) const {
        const GmTriangleEdge& ed = getEdge(e);
        a = ed.from;
        b = ed.to;
    }
    void getEdgeVertices(int e, GmTVector<double>& a, GmTVector<double>& b) const {
        const GmTriangleEdge& ed = getEdge(e);
        a = getVertex(ed.from);
        b = getVertex(ed.to);
    }
    void getEdgeVertices(int e, int* const out) const {
        const GmTriangleEdge& ed = getEdge(e);
        out[0] = ed.from;
        out[1] = ed.to;
    }

    int getFaceVertexIndex1(int f) const { return getFace(f).vertices[0]; }
    int getFaceVertexIndex2(int f) const { return getFace(f).vertices[1]; }
    int getFaceVertexIndex3(int f) const { return getFace(f).vertices[2]; }
    const GmTVector<double>& getFaceVertex1(int f) const { return getVertex(getFace(f).vertices[0]); }
    const GmTVector<double>& getFaceVertex2(int f) const { return getVertex(getFace(f).vertices[1]); }
    const GmTVector<double>& getFaceVertex3(int f) const { return getVertex(getFace(f).vertices[2]); }
    void getFaceVertices(int f, int& a, int& b, int& c) const {
        const GmTriangleFace& fc = getFace(f);
        a = fc.vertices[0];
        b = fc.vertices[1];
        c = fc.vertices[2];
    }
    void getFaceVertices(int f, GmTVector<double>& a, GmTVector<double>& b, GmTVector<double>& c) const {
        const GmTriangleFace& fc = getFace(f);
        a = getVertex(fc.vertices[0]);
        b = getVertex(fc.vertices[1]);
        c = getVertex(fc.vertices[2]);
    }
    void getFaceVertices(int f, int* const out) const {
        const GmTriangleFace& fc = getFace(f);
        out[0] = fc.vertices[0];
        out[1] = fc.vertices[1];
        out[2] = fc.vertices[2];
    }

    int getFaceEdgeIndex1(int f) const { return getFace(f).edges[0]; }
    int getFaceEdgeIndex2(int f) const { return getFace(f).edges[1]; }
    int getFaceEdgeIndex3(int f) const { return getFace(f).edges[2]; }
    const GmTriangleEdge& getFaceEdge1(int f) const { return getEdge(getFace(f).edges[0]); }
    const GmTriangleEdge& getFaceEdge2(int f) const { return getEdge(getFace(f).edges[1]); }
    const GmTriangleEdge& getFaceEdge3(int f) const { return getEdge(getFace(f).edges[2]); }
    void getFaceEdges(int f, int& e1, int& e2, int& e3) const {
        const GmTriangleFace& fc = getFace(f);
        e1 = fc.edges[0];
        e2 = fc.edges[1];
        e3 = fc.edges[2];
    }
    void getFaceEdges(int f, int* const out) const {
        const GmTriangleFace& fc = getFace(f);
        out[0] = fc.edges[0];
        out[1] = fc.edges[1];
        out[2] = fc.edges[2];
    }

    // ---- Adjacency (valid after finishConstruction; every list sorted ascending) ----
    // Lists are read-only views into contiguous storage (see GmIndexList); they read
    // like a const std::vector<int> and convert to one.
    GmIndexList getNeighborFacesToVertex(int v) const { return _vertexToFaces[static_cast<std::size_t>(_checkVertex(v))]; }
    unsigned int getNeighborFacesToVertexCount(int v) const {
        return static_cast<unsigned int>(getNeighborFacesToVertex(v).size());
    }
    GmIndexList getNeighborEdgesToVertex(int v) const { return _vertexToEdges[static_cast<std::size_t>(_checkVertex(v))]; }
    GmIndexList getNeighborVerticesToVertex(int v) const {
        return _vertexToVertices[static_cast<std::size_t>(_checkVertex(v))];
    }
    // Faces sharing an edge with f (edges with two recorded faces only).
    GmIndexList getNeighborFacesToFace(int f) const { return _faceToFaces[static_cast<std::size_t>(_checkFace(f))]; }
    // The recorded faces of e: first face, second face, the missing ones left out.
    GmIndexList getNeighborFacesToEdge(int e) const { return _edgeToFaces[static_cast<std::size_t>(_checkEdge(e))]; }

    const GmAdjacencyLists& getVertexToFacesLists() const { return _vertexToFaces; }
    const GmAdjacencyLists& getVertexToEdgesLists() const { return _vertexToEdges; }
    const GmAdjacencyLists& getVertexToVerticesLists() const { return _vertexToVertices; }
    const GmAdjacencyLists& getFaceToFacesLists() const { return _faceToFaces; }
    const GmAdjacencyLists& getEdgeToFacesLists() const { return _edgeToFaces; }

    // ---- Cached local geometry ----------------------------------------------
    double getFaceArea(int f) const {
        _readyFace(f);
        return _faceAreas[static_cast<std::size_t>(f)];
    }
    // Unit normal of (p2 - p1) x (p3 - p2); zero for a degenerate face.
    const GmTVector<double>& getFaceNormal(int f) const {
        _readyFace(f);
        return _faceNormals[static_cast<std::size_t>(f)];
    }
    const GmTVector<double>& getFaceCenter(int f) const {
        _readyFace(f);
        return _faceCenters[static_cast<std::size_t>(f)];
    }
    // (to - from) / max(|to - from|, DBL_EPSILON).
    const GmTVector<double>& getUnitEdge(int e) const {
        if (!_unitEdgeState[static_cast<std::size_t>(_checkEdge(e))].ready()) calculateUnitEdge(e);
        return _unitEdges[static_cast<std::size_t>(e)];
    }
    // Angle-weighted vertex normal (cached).
    const GmTVector<double>& getVertexNormal(int v) const {
        if (!_vertexNormalState[static_cast<std::size_t>(_checkVertex(v))].ready()) calculateVertexNormal(v);
        return _vertexNormals[static_cast<std::size_t>(v)];
    }
    GmTVector<double> getVertexAngleWeightedNormal(int v) const { return getVertexNormal(v); }
    // Area-weighted vertex normal, computed afresh on every call.
    GmTVector<double> getVertexAreaWeightedNormal(int v) const { return calculateVertexAreaWeightedNormal(v); }

    // Hint that face f's cached area and normal are read soon: starts loading them, changes
    // nothing (f is not checked; an index outside the faces is ignored).
    void prefetchFaceData(int f) const {
#if defined(__GNUC__)
        if (f >= 0 && static_cast<std::size_t>(f) < _faceNormals.size()) {
            __builtin_prefetch(_faceState.data() + f);
            __builtin_prefetch(_faceNormals.data() + f);
        }
#else
        (void)f;
#endif
    }

    // Fill one cache slot if it is missing (normally called by the accessors above);
    // a slot that holds a value is left as it is.
    void calculateFaceData(int f) const;
    void calculateUnitEdge(int e) const;
    void calculateVertexNormal(int v) const;
    GmTVector<double> calculateVertexAngleWeightedNormal(int v) const;
    GmTVector<double> calculateVertexAreaWeightedNormal(int v) const;

    // Orphaned adjacent feature pairs of the whole mesh (no mask); built on the
    // first call, owned by the mesh. The first call is not synchronised.
    const GmAdjacentOrphanSet* getOrphanSet() const;

    // ---- Incidence and sharing ----------------------------------------------
    // The edge's second face if its first face is `face`, else its first face.
    int getOtherFace(int face, int edge) const {
        const GmTriangleEdge& ed = getEdge(edge);
        return ed.firstFace == face ? ed.secondFace : ed.firstFace;
    }
    // First vertex of face (in order 1, 2, 3) that is not an endpoint of edge; -1 if none.
    int getOtherVertex(int face, int edge) const;
    // First edge of face (in order 1, 2, 3) that does not touch vertex; -1 if none.
    int getOtherEdge(int face, int vertex) const;
    // First edge of f1 (in order 1, 2, 3) that is also an edge of f2; -1 if none.
    int getSharedEdge(int f1, int f2) const;
    // First vertex of f1 (in order 1, 2, 3) that is also a vertex of f2; -1 if none.
    int getSharedVertex(int f1, int f2) const;
    // True when the edges have an endpoint in common (an edge is incident to itself).
    bool incidentEdges(int e1, int e2) const;
    bool shareEdge(int f1, int f2) const;
    bool shareVertex(int f1, int f2) const;
    // Whether the elements named by (f1, t1) and (f2, t2) lie on one common face
    // that the mask does not disable. The faces of a point are: its own face, plus
    // for a vertex type every face around that vertex, for an edge type the
    // recorded faces of that edge. INVALID (or any unknown value) shares nothing.
    bool shareFace(int f1, GmGeometry::PointOnTriType t1, int f2, GmGeometry::PointOnTriType t2,
                   const GmDisabledData* mask = nullptr) const;
    // The element that t names on face: the face (INSIDE), vertex k or edge k; -1 otherwise.
    int triComponentIndex(int face, GmGeometry::PointOnTriType t) const;
    // Whether the element that t names on face belongs to other.
    bool isOnFace(int face, GmGeometry::PointOnTriType t, int other) const;

    // ---- Boundary tests (a disabled face counts as missing) -----------------
    bool isBoundaryEdge(int e, const GmDisabledData* mask = nullptr) const;
    bool isBoundaryEdge(const GmTriangleEdge& e, const GmDisabledData* mask = nullptr) const;
    bool isBoundaryEdge(const GmTriangleEdge* e, const GmDisabledData* mask = nullptr) const;
    bool isBoundaryVertex(int v, const GmDisabledData* mask = nullptr) const;
    bool isBoundaryPoint(int face, GmGeometry::PointOnTriType t, const GmDisabledData* mask = nullptr) const;
    bool isClosed(const GmDisabledData* mask = nullptr) const;
    bool hasBoundaryEdges(const GmDisabledData* mask = nullptr) const;

    // ---- Face-local geometry ------------------------------------------------
    // Signed distance of p from the plane of f: dot(p - centre, normal).
    double GetDistanceToPlaneOfFace(int f, const GmTVector<double>& p) const;
    GmTVector<double> ProjectOnPlaneOfFace(int f, const GmTVector<double>& p) const;
    // (h, w1, w2): height over the plane and the barycentric weights of vertices 1
    // and 2 of the projection; weights are 0 for a face of (near) zero area.
    GmTVector<double> WorldToFace(int f, const GmTVector<double>& p) const;
    GmTVector<double> FaceToWorld(int f, const GmTVector<double>& q) const;
    // b0 * p1 + b1 * p2 + b2 * p3, weights as given.
    GmTVector<double> getFacePoint(int f, const GmTVector<double>& b) const;
    // Interpolated vertex normals; deliberately not normalised.
    GmTVector<double> getBarycentricFaceNormal(int f, const GmTVector<double>& b) const;
    GmTVector<double> getBarycentricEdgeNormal(int e, const GmTVector<double>& b) const;
    // Sum of the normals of the edge's faces; not normalised.
    GmTVector<double> getEdgeNormal(int e) const;
    // Second moment of face f about ref, with vertex positions taken from positions.
    GmMatrix getCovarianceMatrix(int f, const std::vector<GmTVector<double>>& positions,
                                 const GmTVector<double>& ref) const;
    // Orientation test of a closed mesh at its leftmost vertex (written to *vertex
    // when not null). Open and empty meshes count as right side out.
    bool isRightSideOut(int* vertex = nullptr) const;

    // Construction-time lookups (vertex, edge, face); defined in the implementation.
    struct Lookups;

private:
    static bool isuninitialized(double d) { return d == UninitializedDouble; }
    void _readyFace(int f) const {
        if (!_faceState[static_cast<std::size_t>(_checkFace(f))].ready()) calculateFaceData(f);
    }
    void _checkFaceIndices(int a, int b, int c) const;

#ifndef NDEBUG
    int _checkVertex(int v) const {
        assert(v >= 0 && v < static_cast<int>(_vertices.size()) && "vertex index out of range");
        return v;
    }
    int _checkFace(int f) const {
        assert(f >= 0 && f < static_cast<int>(_faces.size()) && "face index out of range");
        return f;
    }
    int _checkEdge(int e) const {
        assert(e >= 0 && e < static_cast<int>(_edges.size()) && "edge index out of range");
        return e;
    }
#else
    static int _checkVertex(int v) { return v; }
    static int _checkFace(int f) { return f; }
    static int _checkEdge(int e) { return e; }
#endif

    void _copyFrom(const GmTriangleMesh& other);
    void _moveFrom(GmTriangleMesh& other) noexcept;
    void _discardOrphanSet() const;
    void _constructionVertexToFaces();
    void _constructionVertexToEdges();
    void _constructionVertexToVertexNeighbors();
    void _constructionFaceToFaceNeighbors();
    void _constructionEdgeToFaces();
    void _runConstructionTask(int code);
    friend class TriMeshConstructTask;

    std::string _name;
    std::vector<GmTVector<double>> _vertices;
    std::vector<GmTriangleEdge> _edges;
    std::vector<GmTriangleFace> _faces;
    mutable std::atomic<GmAdjacentOrphanSet*> _orphanSet{nullptr};
    // Cached values are read only once their slot is ready: left uninitialised until then.
    template <class T>
    using CacheValues = std::vector<T, GmMeshDetail::NoInitAllocator<T>>;
    mutable CacheValues<double> _faceAreas;
    mutable CacheValues<GmTVector<double>> _faceNormals;
    mutable CacheValues<GmTVector<double>> _faceCenters;
    mutable CacheValues<GmTVector<double>> _vertexNormals;
    mutable CacheValues<GmTVector<double>> _unitEdges;
    // One slot state per face (area, normal and centre together), vertex normal and unit edge.
    std::vector<GmMeshDetail::CacheSlot> _faceState;
    std::vector<GmMeshDetail::CacheSlot> _vertexNormalState;
    std::vector<GmMeshDetail::CacheSlot> _unitEdgeState;
    std::unique_ptr<Lookups> _lookups;
    // Adjacency lists, each kind stored contiguously.
    GmAdjacencyLists _vertexToFaces;
    GmAdjacencyLists _vertexToEdges;
    GmAdjacencyLists _vertexToVertices;
    GmAdjacencyLists _faceToFaces;
    GmAdjacencyLists _edgeToFaces;
    bool _closed = true;
    bool _finished = false;
    // Reset flags: set while every slot of the kind is known to be missing. Atomic
    // only so that concurrent lazy readers may clear them without a data race.
    mutable std::atomic<bool> _faceDataReset{false};
    mutable std::atomic<bool> _vertexNormalsReset{false};
    mutable std::atomic<bool> _unitEdgesReset{false};
};

#include <quarrygeom/mesh/GmTriangleMesh.h>

#include <algorithm>
#include <array>
#include <cmath>
#include <cstdint>
#include <map>
#include <stdexcept>
#include <string>
#include <thread>
#include <unordered_map>
#include <utility>

#include <quarrygeom/mesh/GmAdjacentOrphanSet.h>
#include <quarrygeom/mesh/GmDisabledData.h>

#include <tbb/parallel_invoke.h>

#include <quarrygeom/core/GmParallel.h>

#include <quarrygeom/core/GmMatrix.h>

const GmTVector<double> GmTriangleMesh::UninitializedVector(GmTriangleMesh::UninitializedDouble,
                                                            GmTriangleMesh::UninitializedDouble,
                                                            GmTriangleMesh::UninitializedDouble);

namespace {

constexpr double kEps = DBL_EPSILON;
constexpr double kMergeTolerance = 1e-8;
constexpr double kDegenerateCorner = 0.9999999999999998;
constexpr int kParallelVertexThreshold = 1000;

// Lexicographic order with a per-component tolerance: components within 1e-8 of
// each other compare equal. Not a strict weak ordering (equality is not
// transitive); merging is defined by what the ordered lookup finds.
struct TolerantLess {
    bool operator()(const GmTVector<double>& a, const GmTVector<double>& b) const {
        double d = a.x - b.x;
        if (std::fabs(d) > kMergeTolerance) return d < 0.0;
        d = a.y - b.y;
        if (std::fabs(d) > kMergeTolerance) return d < 0.0;
        d = a.z - b.z;
        if (std::fabs(d) > kMergeTolerance) return d < 0.0;
        return false;
    }
};

struct EdgeKeyHash {
    std::size_t operator()(std::uint64_t k) const {
        k ^= k >> 33;
        k *= 0xff51afd7ed558ccdull;
        k ^= k >> 33;
        return static_cast<std::size_t>(k);
    }
};

inline std::uint64_t edgeKey(int lo, int hi) {
    return (static_cast<std::uint64_t>(static_cast<std::uint32_t>(lo)) << 32) | static_cast<std::uint32_t>(hi);
}

}  // namespace

// The three construction lookups.
//
// The edge lookup maps (smaller, larger) vertex index to an edge index. Edges are
// kept in one chain per smaller endpoint (head per vertex, next per edge), which
// stays cache-friendly for meshes built in spatial order. A vertex whose chain
// grows long (a high-valence fan) moves its edges into a hash map so that lookups
// stay O(1) there too.
struct GmTriangleMesh::Lookups {
    static constexpr int kHeavy = -2;
    static constexpr int kMaxChain = 24;

    std::map<GmTVector<double>, int, TolerantLess> vertices;
    std::vector<int> edgeHead;
    std::vector<int> edgeNext;
    std::unordered_map<std::uint64_t, int, EdgeKeyHash> heavyEdges;
    // Face lookup, threaded through the edge lookup: a face entered under the sorted
    // triple (k0, k1, k2) hangs in the chain of edge (k0, k1) (faceHead per edge,
    // faceNext per face), so a lookup costs one edge lookup and a short chain walk.
    std::vector<int> faceHead;
    std::vector<int> faceNext;

    static int larger(const GmTriangleEdge& e) { return e.from > e.to ? e.from : e.to; }

    // Edge index of (lo, hi), or -1.
    int findEdge(int lo, int hi, const std::vector<GmTriangleEdge>& edges) {
        if (static_cast<std::size_t>(lo) >= edgeHead.size()) return -1;
        int e = edgeHead[static_cast<std::size_t>(lo)];
        if (e == kHeavy) {
            auto it = heavyEdges.find(edgeKey(lo, hi));
            return it == heavyEdges.end() ? -1 : it->second;
        }
        int steps = 0;
        while (e >= 0) {
            if (larger(edges[static_cast<std::size_t>(e)]) == hi) return e;
            e = edgeNext[static_cast<std::size_t>(e)];
            ++steps;
        }
        if (steps > kMaxChain) makeHeavy(lo, edges);
        return -1;
    }

    // Records edge e = (lo, hi); e is the next edge index.
    void insertEdge(int lo, int hi, int e, std::size_t vertexCountHint) {
        const std::size_t l = static_cast<std::size_t>(lo);
        if (l >= edgeHead.size()) edgeHead.resize(std::max(l + 1, std::max(vertexCountHint, edgeHead.size() * 2)), -1);
        if (edgeHead[l] == kHeavy) {
            heavyEdges.emplace(edgeKey(lo, hi), e);
            edgeNext.push_back(-1);
        } else {
            edgeNext.push_back(edgeHead[l]);
            edgeHead[l] = e;
        }
    }

    void makeHeavy(int lo, const std::vector<GmTriangleEdge>& edges) {
        int e = edgeHead[static_cast<std::size_t>(lo)];
        while (e >= 0) {
            heavyEdges.emplace(edgeKey(lo, larger(edges[static_cast<std::size_t>(e)])), e);
            const int n = edgeNext[static_cast<std::size_t>(e)];
            edgeNext[static_cast<std::size_t>(e)] = -1;
            e = n;
        }
        edgeHead[static_cast<std::size_t>(lo)] = kHeavy;
    }
};

// One list builder of finishConstruction (1 vertex-to-faces, 2 vertex-to-edges,
// 3 vertex-to-vertex, 4 face-to-face, 5 edge-to-faces).
namespace {

// Explicit hand-over around a parallel section. The system's TBB library is not
// instrumented for ThreadSanitizer, so the ordering that its spawn and join provide
// is invisible to it; a release/acquire pair per task makes the same ordering
// visible. Two uncontended atomic operations per task or chunk.
class HandOver {
public:
    // Calling thread, before the parallel part: everything written so far is published.
    void publish() { _start.store(1, std::memory_order_release); }
    // Worker, at the start of a task.
    void enter() const { (void)_start.load(std::memory_order_acquire); }
    // Worker, at the end of a task.
    void leave() { _done.fetch_add(1, std::memory_order_release); }
    // Calling thread, after the parallel part: every task's writes are visible.
    void collect() const { (void)_done.load(std::memory_order_acquire); }

private:
    std::atomic<int> _start{0};
    std::atomic<int> _done{0};
};

}  // namespace

class TriMeshConstructTask {
public:
    TriMeshConstructTask(GmTriangleMesh* mesh, int code, HandOver* handOver)
        : _mesh(mesh), _code(code), _handOver(handOver) {}
    void operator()() const {
        GmParallel::handOverAcquire();  // the task object itself was built by the calling thread
        _handOver->enter();
        _mesh->_runConstructionTask(_code);
        _handOver->leave();
    }

private:
    GmTriangleMesh* _mesh;
    int _code;
    HandOver* _handOver;
};

namespace {

// Counting-sort build of n lists: emit(put) is called twice, first to count the
// entries of every list, then to store them; entries keep their emission order.
template <class Emit>
void buildLists(GmAdjacencyLists& lists, std::size_t n, Emit&& emit) {
    std::vector<std::uint32_t>& off = lists.offsets();
    std::vector<int>& idx = lists.indices();
    off.assign(n + 1, 0);
    emit([&off](int list, int) { ++off[static_cast<std::size_t>(list) + 1]; });
    for (std::size_t i = 1; i <= n; ++i) off[i] += off[i - 1];
    idx.resize(off[n]);
    // off[list] serves as the write cursor of `list`; afterwards it holds the end
    // of the list, i.e. the start of the next one, so shift back by one.
    int* out = idx.data();
    emit([&off, out](int list, int value) { out[off[static_cast<std::size_t>(list)]++] = value; });
    for (std::size_t i = n; i > 0; --i) off[i] = off[i - 1];
    off[0] = 0;
}

inline void sortSmall(int* first, int* last) {
    const std::ptrdiff_t n = last - first;
    if (n < 2) return;
    if (n <= 16) {
        for (int* i = first + 1; i < last; ++i) {
            const int x = *i;
            int* j = i;
            while (j > first && *(j - 1) > x) {
                *j = *(j - 1);
                --j;
            }
            *j = x;
        }
    } else {
        std::sort(first, last);
    }
}

// Sorts every list; with `dedup`, also removes repeated entries and compacts the storage.
void sortLists(GmAdjacencyLists& lists, bool dedup) {
    std::vector<std::uint32_t>& off = lists.offsets();
    std::vector<int>& idx = lists.indices();
    const std::size_t n = lists.size();
    int* data = idx.data();
    if (!dedup) {
        for (std::size_t i = 0; i < n; ++i) sortSmall(data + off[i], data + off[i + 1]);
        return;
    }
    std::size_t w = 0;
    std::size_t b = n > 0 ? off[0] : 0;
    for (std::size_t i = 0; i < n; ++i) {
        const std::size_t e = off[i + 1];
        sortSmall(data + b, data + e);
        int* last = std::unique(data + b, data + e);
        const std::size_t len = static_cast<std::size_t>(last - (data + b));
        if (w != b) std::copy(data + b, data + b + len, data + w);
        off[i] = static_cast<std::uint32_t>(w);
        w += len;
        b = e;
    }
    if (n > 0) off[n] = static_cast<std::uint32_t>(w);
    idx.resize(w);
}

}  // namespace

// ---------------------------------------------------------------------------
// Construction, copy, destruction

GmTriangleMesh::GmTriangleMesh(int numVertices, int numFaces) {
    reserve(numVertices, numFaces);
}

GmTriangleMesh::GmTriangleMesh(const std::string& name) : _name(name) {}

GmTriangleMesh::GmTriangleMesh(const GmTriangleMesh& other) { _copyFrom(other); }

GmTriangleMesh::GmTriangleMesh(GmTriangleMesh&& other) noexcept { _moveFrom(other); }

GmTriangleMesh& GmTriangleMesh::operator=(const GmTriangleMesh& other) {
    _discardOrphanSet();
    if (this != &other) _copyFrom(other);
    return *this;
}

GmTriangleMesh& GmTriangleMesh::operator=(GmTriangleMesh&& other) noexcept {
    _discardOrphanSet();
    if (this != &other) _moveFrom(other);
    return *this;
}

GmTriangleMesh::~GmTriangleMesh() { _discardOrphanSet(); }

void GmTriangleMesh::_discardOrphanSet() const {
    delete _orphanSet.exchange(nullptr, std::memory_order_acq_rel);
}

void GmTriangleMesh::_copyFrom(const GmTriangleMesh& o) {
    _name = o._name;
    _vertices = o._vertices;
    _edges = o._edges;
    _faces = o._faces;
    _faceAreas = o._faceAreas;
    _faceNormals = o._faceNormals;
    _faceCenters = o._faceCenters;
    _vertexNormals = o._vertexNormals;
    _unitEdges = o._unitEdges;
    _faceState = o._faceState;
    _vertexNormalState = o._vertexNormalState;
    _unitEdgeState = o._unitEdgeState;
    _lookups = o._lookups ? std::make_unique<Lookups>(*o._lookups) : nullptr;
    _vertexToFaces = o._vertexToFaces;
    _vertexToEdges = o._vertexToEdges;
    _vertexToVertices = o._vertexToVertices;
    _faceToFaces = o._faceToFaces;
    _edgeToFaces = o._edgeToFaces;
    _closed = o._closed;
    _finished = o._finished;
    _faceDataReset.store(o._faceDataReset.load(std::memory_order_relaxed), std::memory_order_relaxed);
    _vertexNormalsReset.store(o._vertexNormalsReset.load(std::memory_order_relaxed), std::memory_order_relaxed);
    _unitEdgesReset.store(o._unitEdgesReset.load(std::memory_order_relaxed), std::memory_order_relaxed);
}

void GmTriangleMesh::_moveFrom(GmTriangleMesh& o) noexcept {
    // The source's orphan set points at the source: drop it rather than adopt it.
    o._discardOrphanSet();
    _name = std::move(o._name);
    _vertices = std::move(o._vertices);
    _edges = std::move(o._edges);
    _faces = std::move(o._faces);
    _faceAreas = std::move(o._faceAreas);
    _faceNormals = std::move(o._faceNormals);
    _faceCenters = std::move(o._faceCenters);
    _vertexNormals = std::move(o._vertexNormals);
    _unitEdges = std::move(o._unitEdges);
    _faceState = std::move(o._faceState);
    _vertexNormalState = std::move(o._vertexNormalState);
    _unitEdgeState = std::move(o._unitEdgeState);
    _lookups = std::move(o._lookups);
    _vertexToFaces = std::move(o._vertexToFaces);
    _vertexToEdges = std::move(o._vertexToEdges);
    _vertexToVertices = std::move(o._vertexToVertices);
    _faceToFaces = std::move(o._faceToFaces);
    _edgeToFaces = std::move(o._edgeToFaces);
    _closed = o._closed;
    _finished = o._finished;
    _faceDataReset.store(o._faceDataReset.load(std::memory_order_relaxed), std::memory_order_relaxed);
    _vertexNormalsReset.store(o._vertexNormalsReset.load(std::memory_order_relaxed), std::memory_order_relaxed);
    _unitEdgesReset.store(o._unitEdgesReset.load(std::memory_order_relaxed), std::memory_order_relaxed);
    // Leave the source a valid empty mesh.
    o._name.clear();
    o._vertices.clear();
    o._edges.clear();
    o._faces.clear();
    o._faceAreas.clear();
    o._faceNormals.clear();
    o._faceCenters.clear();
    o._vertexNormals.clear();
    o._unitEdges.clear();
    o._faceState.clear();
    o._vertexNormalState.clear();
    o._unitEdgeState.clear();
    o._vertexToFaces.clear();
    o._vertexToEdges.clear();
    o._vertexToVertices.clear();
    o._faceToFaces.clear();
    o._edgeToFaces.clear();
    o._closed = true;
    o._finished = false;
    o._faceDataReset.store(false, std::memory_order_relaxed);
    o._vertexNormalsReset.store(false, std::memory_order_relaxed);
    o._unitEdgesReset.store(false, std::memory_order_relaxed);
}

void GmTriangleMesh::reserve(int numVertices, int numFaces) {
    if (numVertices > 0) _vertices.reserve(static_cast<std::size_t>(numVertices));
    if (numFaces > 0) {
        _faces.reserve(static_cast<std::size_t>(numFaces));
        _edges.reserve(2 * static_cast<std::size_t>(numFaces));
    }
}

// ---------------------------------------------------------------------------
// Adding elements

int GmTriangleMesh::addVertex(const GmTVector<double>& p) {
    _finished = false;
    const int index = static_cast<int>(_vertices.size());
    _vertices.push_back(p);
    return index;
}

int GmTriangleMesh::addVertex(const GmTVector<double>& p, bool& existed) {
    if (!_lookups) _lookups = std::make_unique<Lookups>();
    auto& map = _lookups->vertices;
    // One descent: lower_bound finds the equal key if the lookup holds one.
    auto it = map.lower_bound(p);
    if (it != map.end() && !map.key_comp()(p, it->first)) {
        existed = true;
        return it->second;
    }
    _finished = false;
    const int index = static_cast<int>(_vertices.size());
    _vertices.push_back(p);
    map.emplace_hint(it, p, index);
    existed = false;
    return index;
}

void GmTriangleMesh::_checkFaceIndices(int a, int b, int c) const {
    const int v[3] = {a, b, c};
    for (int k = 0; k < 3; ++k)
        if (v[k] < 0)
            throw std::invalid_argument("GmTriangleMesh::addFace: vertex index " + std::to_string(v[k]) +
                                        " of face " + std::to_string(_faces.size()) + " is negative");
}

int GmTriangleMesh::addFace(int a, int b, int c) {
    _checkFaceIndices(a, b, c);
    const int f = static_cast<int>(_faces.size());
    const int e1 = addEdge(a, b, f);
    const int e2 = addEdge(b, c, f);
    const int e3 = addEdge(c, a, f);
    _faces.emplace_back(a, b, c, f, e1, e2, e3);
    return f;
}

int GmTriangleMesh::addFace(int a, int b, int c, bool& existed) {
    _checkFaceIndices(a, b, c);
    if (!_lookups) _lookups = std::make_unique<Lookups>();
    Lookups& lk = *_lookups;
    int k0 = a, k1 = b, k2 = c;
    if (k0 > k1) std::swap(k0, k1);
    if (k1 > k2) std::swap(k1, k2);
    if (k0 > k1) std::swap(k0, k1);
    // A face with this triple uses edge (k0, k1): no edge, no face.
    const int key = lk.findEdge(k0, k1, _edges);
    if (key >= 0 && static_cast<std::size_t>(key) < lk.faceHead.size()) {
        for (int g = lk.faceHead[static_cast<std::size_t>(key)]; g >= 0; g = lk.faceNext[static_cast<std::size_t>(g)]) {
            const int* v = _faces[static_cast<std::size_t>(g)].vertices;
            int g0 = v[0], g1 = v[1], g2 = v[2];
            if (g0 > g1) std::swap(g0, g1);
            if (g1 > g2) std::swap(g1, g2);
            if (g0 > g1) std::swap(g0, g1);
            if (g0 == k0 && g1 == k1 && g2 == k2) {
                existed = true;
                return g;
            }
        }
    }
    const int f = addFace(a, b, c);
    const GmTriangleFace& face = _faces.back();
    int e = face.edges[0];
    for (int k = 0; k < 3; ++k) {
        const GmTriangleEdge& ed = _edges[static_cast<std::size_t>(face.edges[k])];
        if ((ed.from == k0 && ed.to == k1) || (ed.from == k1 && ed.to == k0)) {
            e = face.edges[k];
            break;
        }
    }
    if (lk.faceHead.size() < _edges.size()) lk.faceHead.resize(std::max(_edges.size(), 2 * lk.faceHead.size()), -1);
    if (lk.faceNext.size() < _faces.size()) lk.faceNext.resize(std::max(_faces.size(), 2 * lk.faceNext.size()), -1);
    lk.faceNext[static_cast<std::size_t>(f)] = lk.faceHead[static_cast<std::size_t>(e)];
    lk.faceHead[static_cast<std::size_t>(e)] = f;
    existed = false;
    return f;
}

int GmTriangleMesh::addFace(const GmTVector<double>& p1, const GmTVector<double>& p2, const GmTVector<double>& p3) {
    const int a = addVertex(p1);
    const int b = addVertex(p2);
    const int c = addVertex(p3);
    return addFace(a, b, c);
}

int GmTriangleMesh::addFace(const GmTVector<double>& p1, const GmTVector<double>& p2, const GmTVector<double>& p3,
                            bool& existed) {
    bool vertexExisted = false;
    const int a = addVertex(p1, vertexExisted);
    const int b = addVertex(p2, vertexExisted);
    const int c = addVertex(p3, vertexExisted);
    return addFace(a, b, c, existed);
}

int GmTriangleMesh::addEdge(int from, int to, int face) {
    if (from < 0 || to < 0)
        throw std::invalid_argument("GmTriangleMesh::addEdge: vertex index " + std::to_string(from < 0 ? from : to) +
                                    " is negative");
    _finished = false;
    if (!_lookups) _lookups = std::make_unique<Lookups>();
    const int lo = from < to ? from : to;
    const int hi = from < to ? to : from;
    const int found = _lookups->findEdge(lo, hi, _edges);
    if (found >= 0) {
        GmTriangleEdge& ed = _edges[static_cast<std::size_t>(found)];
        if (ed.from == from && ed.firstFace < 0) {
            ed.firstFace = face;
            ed.from = from;
            ed.to = to;
        } else {
            ed.secondFace = face;
        }
        return found;
    }
    const int e = static_cast<int>(_edges.size());
    _lookups->insertEdge(lo, hi, e, _vertices.size());
    _edges.emplace_back(face, -1, from, to);
    return e;
}

// ---------------------------------------------------------------------------
// finishConstruction

void GmTriangleMesh::_constructionVertexToFaces() {
    const std::vector<GmTriangleFace>& faces = _faces;
    // Faces are visited in index order, so every list comes out sorted.
    buildLists(_vertexToFaces, _vertices.size(), [&faces](auto&& put) {
        for (const GmTriangleFace& f : faces) {
            put(f.vertices[0], f.index);
            put(f.vertices[1], f.index);
            put(f.vertices[2], f.index);
        }
    });
}

void GmTriangleMesh::_constructionVertexToEdges() {
    const std::vector<GmTriangleEdge>& edges = _edges;
    // Edges are visited in index order, so every list comes out sorted.
    buildLists(_vertexToEdges, _vertices.size(), [&edges](auto&& put) {
        const int n = static_cast<int>(edges.size());
        for (int e = 0; e < n; ++e) {
            put(edges[static_cast<std::size_t>(e)].from, e);
            put(edges[static_cast<std::size_t>(e)].to, e);
        }
    });
}

void GmTriangleMesh::_constructionVertexToVertexNeighbors() {
    const std::vector<GmTriangleEdge>& edges = _edges;
    buildLists(_vertexToVertices, _vertices.size(), [&edges](auto&& put) {
        for (const GmTriangleEdge& ed : edges) {
            put(ed.from, ed.to);
            put(ed.to, ed.from);
        }
    });
    sortLists(_vertexToVertices, false);
}

void GmTriangleMesh::_constructionFaceToFaceNeighbors() {
    const std::vector<GmTriangleEdge>& edges = _edges;
    buildLists(_faceToFaces, _faces.size(), [&edges](auto&& put) {
        for (const GmTriangleEdge& ed : edges) {
            if (ed.firstFace >= 0 && ed.secondFace >= 0) {
                put(ed.firstFace, ed.secondFace);
                put(ed.secondFace, ed.firstFace);
            }
        }
    });
    // Two faces that share two edges would otherwise appear twice.
    sortLists(_faceToFaces, true);
}

void GmTriangleMesh::_constructionEdgeToFaces() {
    const std::size_t n = _edges.size();
    std::vector<std::uint32_t>& off = _edgeToFaces.offsets();
    std::vector<int>& idx = _edgeToFaces.indices();
    off.resize(n + 1);
    std::uint32_t total = 0;
    for (std::size_t e = 0; e < n; ++e) {
        off[e] = total;
        total += static_cast<std::uint32_t>(_edges[e].firstFace >= 0) + static_cast<std::uint32_t>(_edges[e].secondFace >= 0);
    }
    off[n] = total;
    idx.resize(total);
    int* out = idx.data();
    for (const GmTriangleEdge& ed : _edges) {
        const int a = ed.firstFace, b = ed.secondFace;
        if (a >= 0 && b >= 0) {
            *out++ = a < b ? a : b;
            *out++ = a < b ? b : a;
        } else if (a >= 0) {
            *out++ = a;
        } else if (b >= 0) {
            *out++ = b;
        }
    }
}

void GmTriangleMesh::_runConstructionTask(int code) {
    switch (code) {
        case 1: _constructionVertexToFaces(); break;
        case 2: _constructionVertexToEdges(); break;
        case 3: _constructionVertexToVertexNeighbors(); break;
        case 4: _constructionFaceToFaceNeighbors(); break;
        case 5: _constructionEdgeToFaces(); break;
        default: break;
    }
}

void GmTriangleMesh::finishConstruction() {
    // Adjacency offsets are 32-bit.
    assert(3 * _faces.size() < (std::size_t(1) << 32) && 2 * _edges.size() < (std::size_t(1) << 32));
    // One pass over the faces, before anything is built: the builders index by these.
    const unsigned nv = static_cast<unsigned>(_vertices.size());
    for (const GmTriangleFace& f : _faces) {
        if (static_cast<unsigned>(f.vertices[0]) < nv && static_cast<unsigned>(f.vertices[1]) < nv &&
            static_cast<unsigned>(f.vertices[2]) < nv)
            continue;
        for (int k = 0; k < 3; ++k)
            if (static_cast<unsigned>(f.vertices[k]) >= nv)
                throw std::invalid_argument("GmTriangleMesh::finishConstruction: face " + std::to_string(f.index) +
                                            " refers to vertex " + std::to_string(f.vertices[k]) +
                                            ", but the mesh has " + std::to_string(nv) + " vertices");
    }
    // The closed flag and the cache slots depend on the element counts only; in the
    // parallel form they are set up beside the five list builders.
    auto flagAndCaches = [this]() {
        _closed = true;
        for (const GmTriangleEdge& ed : _edges) {
            if (ed.firstFace < 0 || ed.secondFace < 0) {
                _closed = false;
                break;
            }
        }
        // Every slot starts out missing, including the slots of a rebuilt mesh.
        _faceAreas.resize(_faces.size());
        _faceNormals.resize(_faces.size());
        _faceCenters.resize(_faces.size());
        _vertexNormals.resize(_vertices.size());
        _unitEdges.resize(_edges.size());
        _faceState.assign(_faces.size(), GmMeshDetail::CacheSlot());
        _vertexNormalState.assign(_vertices.size(), GmMeshDetail::CacheSlot());
        _unitEdgeState.assign(_edges.size(), GmMeshDetail::CacheSlot());
    };
    auto serial = [&]() {
        for (int code = 1; code <= 5; ++code) _runConstructionTask(code);
        flagAndCaches();
    };
    if (_vertices.size() > static_cast<std::size_t>(kParallelVertexThreshold)) {
        GmParallel::dispatch(serial, [&]() {
            HandOver h;
            const TriMeshConstructTask t1(this, 1, &h), t2(this, 2, &h), t3(this, 3, &h), t4(this, 4, &h),
                t5(this, 5, &h);
            h.publish();
            GmParallel::handOverRelease();
            tbb::parallel_invoke(t1, t2, t3, t4, t5, [&]() {
                                     GmParallel::handOverAcquire();
                                     h.enter();
                                     flagAndCaches();
                                     h.leave();
                                 });
            h.collect();
        });
    } else {
        serial();
    }
    _faceDataReset.store(true, std::memory_order_relaxed);
    _vertexNormalsReset.store(true, std::memory_order_relaxed);
    _unitEdgesReset.store(true, std::memory_order_relaxed);
    _finished = true;
}

// ---------------------------------------------------------------------------
// Positions and caches

void GmTriangleMesh::setVertex(int i, const GmTVector<double>& p) {
    _vertices[static_cast<std::size_t>(_checkVertex(i))] = p;
    setDirty();
}

void GmTriangleMesh::setVertex(int i, double x, double y, double z) {
    setVertex(i, GmTVector<double>(x, y, z));
}

void GmTriangleMesh::setVertices(const std::vector<GmTVector<double>>& v) {
    if (&v != &_vertices) _vertices = v;
    setDirty();
}

void GmTriangleMesh::swapVertices(std::vector<GmTVector<double>>& v) {
    if (&v != &_vertices) _vertices.swap(v);
    setDirty();
}

double* GmTriangleMesh::copyVertices() const {
    double* out = new double[3 * _vertices.size()];
    double* p = out;
    for (const GmTVector<double>& v : _vertices) {
        *p++ = v.x;
        *p++ = v.y;
        *p++ = v.z;
    }
    return out;
}

void GmTriangleMesh::copyVertices(std::vector<GmTVector<double>>& out) const { out = _vertices; }

void GmTriangleMesh::addNormalOffset(double d) {
    if (d == 0.0) return;
    std::vector<GmTVector<double>> moved(_vertices);
    const int n = getNumberVertices();
    for (int i = 0; i < n; ++i) moved[static_cast<std::size_t>(i)] += getVertexNormal(i) * d;
    _vertices.swap(moved);
    setDirty();
}

void GmTriangleMesh::addNormalOffset(const std::vector<double>& d) {
    std::vector<GmTVector<double>> moved(_vertices);
    bool any = false;
    const int n = getNumberVertices();
    for (int i = 0; i < n; ++i) {
        const double di = d[static_cast<std::size_t>(i)];
        if (di == 0.0) continue;
        moved[static_cast<std::size_t>(i)] += getVertexNormal(i) * di;
        any = true;
    }
    if (!any) return;
    _vertices.swap(moved);
    setDirty();
}

namespace {
void resetSlots(std::vector<GmMeshDetail::CacheSlot>& slots, std::atomic<bool>& flag) {
    if (flag.load(std::memory_order_relaxed)) return;
    for (GmMeshDetail::CacheSlot& s : slots) s.reset();
    flag.store(true, std::memory_order_relaxed);
}

// Runs fill() if this thread claims the slot; otherwise waits until the thread that did
// has published it (a fill takes well under a microsecond).
template <class Fill>
void fillSlot(const GmMeshDetail::CacheSlot& slot, Fill&& fill) {
    if (slot.claim()) {
        fill();
        slot.publish();
        return;
    }
    while (!slot.ready()) std::this_thread::yield();
}
}  // namespace

void GmTriangleMesh::setDirty() {
    resetSlots(_faceState, _faceDataReset);
    resetSlots(_vertexNormalState, _vertexNormalsReset);
    resetSlots(_unitEdgeState, _unitEdgesReset);
}

namespace {
inline void clearFlag(std::atomic<bool>& flag) {
    if (flag.load(std::memory_order_relaxed)) flag.store(false, std::memory_order_relaxed);
}
}  // namespace

void GmTriangleMesh::calculateFaceData(int f) const {
    fillSlot(_faceState[static_cast<std::size_t>(_checkFace(f))], [this, f]() {
        const GmTriangleFace& fc = _faces[static_cast<std::size_t>(f)];
        const GmTVector<double>& p1 = _vertices[static_cast<std::size_t>(fc.vertices[0])];
        const GmTVector<double>& p2 = _vertices[static_cast<std::size_t>(fc.vertices[1])];
        const GmTVector<double>& p3 = _vertices[static_cast<std::size_t>(fc.vertices[2])];
        const GmTVector<double> c = (p2 - p1).cross(p3 - p2);
        const double len = c.length();
        const double div = len > kEps ? len : kEps;
        clearFlag(_faceDataReset);
        _faceNormals[static_cast<std::size_t>(f)] = GmTVector<double>(c.x / div, c.y / div, c.z / div);
        _faceCenters[static_cast<std::size_t>(f)] =
            GmTVector<double>((p1.x + p2.x + p3.x) / 3.0, (p1.y + p2.y + p3.y) / 3.0, (p1.z + p2.z + p3.z) / 3.0);
        _faceAreas[static_cast<std::size_t>(f)] = 0.5 * len;
    });
}

void GmTriangleMesh::calculateUnitEdge(int e) const {
    fillSlot(_unitEdgeState[static_cast<std::size_t>(_checkEdge(e))], [this, e]() {
        const GmTriangleEdge& ed = _edges[static_cast<std::size_t>(e)];
        const GmTVector<double> d =
            _vertices[static_cast<std::size_t>(ed.to)] - _vertices[static_cast<std::size_t>(ed.from)];
        const double len = d.length();
        const double div = len > kEps ? len : kEps;
        clearFlag(_unitEdgesReset);
        _unitEdges[static_cast<std::size_t>(e)] = GmTVector<double>(d.x / div, d.y / div, d.z / div);
    });
}

void GmTriangleMesh::calculateVertexNormal(int v) const {
    fillSlot(_vertexNormalState[static_cast<std::size_t>(_checkVertex(v))], [this, v]() {
        const GmTVector<double> n = calculateVertexAngleWeightedNormal(v);
        clearFlag(_vertexNormalsReset);
        _vertexNormals[static_cast<std::size_t>(v)] = n;
    });
}

GmTVector<double> GmTriangleMesh::calculateVertexAngleWeightedNormal(int v) const {
    GmTVector<double> s(0.0, 0.0, 0.0);
    for (int f : _vertexToFaces[static_cast<std::size_t>(_checkVertex(v))]) {
        const GmTriangleFace& fc = _faces[static_cast<std::size_t>(f)];
        GmTVector<double> dirs[2];
        int count = 0;
        for (int k = 0; k < 3 && count < 2; ++k) {
            const int e = fc.edges[k];
            const GmTriangleEdge& ed = _edges[static_cast<std::size_t>(e)];
            if (ed.from == v)
                dirs[count++] = getUnitEdge(e);
            else if (ed.to == v)
                dirs[count++] = -getUnitEdge(e);
        }
        if (count < 2) continue;
        const double d = dirs[0].dot(dirs[1]);
        if (!(std::fabs(d) < kDegenerateCorner)) continue;  // degenerate corner (or NaN)
        s += getFaceNormal(f) * std::acos(d);
    }
    const double len = s.length();
    const double div = len > kEps ? len : kEps;
    return GmTVector<double>(s.x / div, s.y / div, s.z / div);
}

GmTVector<double> GmTriangleMesh::calculateVertexAreaWeightedNormal(int v) const {
    GmTVector<double> s(0.0, 0.0, 0.0);
    for (int f : _vertexToFaces[static_cast<std::size_t>(_checkVertex(v))]) s += getFaceNormal(f) * getFaceArea(f);
    const double len = s.length();
    const double div = len > kEps ? len : kEps;
    return GmTVector<double>(s.x / div, s.y / div, s.z / div);
}

void GmTriangleMesh::fillCaches() const {
    const int nf = static_cast<int>(_faceState.size());
    const int ne = static_cast<int>(_unitEdgeState.size());
    const int nv = static_cast<int>(_vertexNormalState.size());
    auto face = [this](int f) { _readyFace(f); };
    auto edge = [this](int e) { getUnitEdge(e); };
    auto vertex = [this](int v) { getVertexNormal(v); };
    // Clear the reset flags up front so that the workers never write them; face data
    // and unit edges come first, so that the vertex normals only read them.
    if (nf > 0) clearFlag(_faceDataReset);
    if (ne > 0) clearFlag(_unitEdgesReset);
    if (nv > 0) clearFlag(_vertexNormalsReset);
    auto serial = [&]() {
        for (int f = 0; f < nf; ++f) face(f);
        for (int e = 0; e < ne; ++e) edge(e);
        for (int v = 0; v < nv; ++v) vertex(v);
    };
    if (nv <= kParallelVertexThreshold) {
        serial();
        return;
    }
    GmParallel::dispatch(serial, [&]() {
        GmParallel::parallelFor(0, nf, face);
        GmParallel::parallelFor(0, ne, edge);
        GmParallel::parallelFor(0, nv, vertex);
    });
}

const GmAdjacentOrphanSet* GmTriangleMesh::getOrphanSet() const {
    GmAdjacentOrphanSet* set = _orphanSet.load(std::memory_order_acquire);
    if (set) return set;
    GmAdjacentOrphanSet* built = new GmAdjacentOrphanSet(this, nullptr);
    GmAdjacentOrphanSet* expected = nullptr;
    if (_orphanSet.compare_exchange_strong(expected, built, std::memory_order_acq_rel)) return built;
    delete built;  // another thread won the race
    return expected;
}

// ---------------------------------------------------------------------------
// Incidence and sharing

int GmTriangleMesh::getOtherVertex(int face, int edge) const {
    const GmTriangleFace& fc = getFace(face);
    const GmTriangleEdge& ed = getEdge(edge);
    for (int k = 0; k < 3; ++k)
        if (fc.vertices[k] != ed.from && fc.vertices[k] != ed.to) return fc.vertices[k];
    return kInvalidIndex;
}

int GmTriangleMesh::getOtherEdge(int face, int vertex) const {
    const GmTriangleFace& fc = getFace(face);
    for (int k = 0; k < 3; ++k)
        if (!getEdge(fc.edges[k]).hasVertex(vertex)) return fc.edges[k];
    return kInvalidIndex;
}

int GmTriangleMesh::getSharedEdge(int f1, int f2) const {
    const GmTriangleFace& a = getFace(f1);
    const GmTriangleFace& b = getFace(f2);
    for (int k = 0; k < 3; ++k)
        if (b.hasEdge(a.edges[k])) return a.edges[k];
    return kInvalidIndex;
}

int GmTriangleMesh::getSharedVertex(int f1, int f2) const {
    const GmTriangleFace& a = getFace(f1);
    const GmTriangleFace& b = getFace(f2);
    for (int k = 0; k < 3; ++k)
        if (b.hasVertex(a.vertices[k])) return a.vertices[k];
    return kInvalidIndex;
}

bool GmTriangleMesh::incidentEdges(int e1, int e2) const {
    const GmTriangleEdge& a = getEdge(e1);
    const GmTriangleEdge& b = getEdge(e2);
    return a.from == b.from || a.from == b.to || a.to == b.from || a.to == b.to;
}

bool GmTriangleMesh::shareEdge(int f1, int f2) const {
    const GmTriangleFace& a = getFace(f1);
    const GmTriangleFace& b = getFace(f2);
    return b.hasEdge(a.edges[0]) || b.hasEdge(a.edges[1]) || b.hasEdge(a.edges[2]);
}

bool GmTriangleMesh::shareVertex(int f1, int f2) const {
    const GmTriangleFace& a = getFace(f1);
    const GmTriangleFace& b = getFace(f2);
    return b.hasVertex(a.vertices[0]) || b.hasVertex(a.vertices[1]) || b.hasVertex(a.vertices[2]);
}

int GmTriangleMesh::triComponentIndex(int face, GmGeometry::PointOnTriType t) const {
    const GmTriangleFace& fc = getFace(face);
    switch (t) {
        case GmGeometry::INSIDE: return face;
        case GmGeometry::ON_VERTEX_1:
        case GmGeometry::ON_VERTEX_2:
        case GmGeometry::ON_VERTEX_3: return fc.vertices[t - GmGeometry::ON_VERTEX_1];
        case GmGeometry::ON_EDGE_1:
        case GmGeometry::ON_EDGE_2:
        case GmGeometry::ON_EDGE_3: return fc.edges[t - GmGeometry::ON_EDGE_1];
        default: return kInvalidIndex;
    }
}

bool GmTriangleMesh::isOnFace(int face, GmGeometry::PointOnTriType t, int other) const {
    switch (t) {
        case GmGeometry::INSIDE: return face == other;
        case GmGeometry::ON_VERTEX_1:
        case GmGeometry::ON_VERTEX_2:
        case GmGeometry::ON_VERTEX_3:
            return getFace(other).hasVertex(getFace(face).vertices[t - GmGeometry::ON_VERTEX_1]);
        case GmGeometry::ON_EDGE_1:
        case GmGeometry::ON_EDGE_2:
        case GmGeometry::ON_EDGE_3: return getFace(other).hasEdge(getFace(face).edges[t - GmGeometry::ON_EDGE_1]);
        default: return false;
    }
}

namespace {

// The faces that carry the point (face, t) besides `face` itself: every face around
// the named vertex, or the recorded faces of the named edge (an edge of three or
// more faces does not record the ones in between, hence `face` is always added).
// Returns false for an unknown type.
bool facesOfPoint(const GmTriangleMesh& m, int face, GmGeometry::PointOnTriType t, GmIndexList& list) {
    switch (t) {
        case GmGeometry::INSIDE: list = GmIndexList(); return true;
        case GmGeometry::ON_VERTEX_1:
        case GmGeometry::ON_VERTEX_2:
        case GmGeometry::ON_VERTEX_3:
            list = m.getNeighborFacesToVertex(m.getFace(face).vertices[t - GmGeometry::ON_VERTEX_1]);
            return true;
        case GmGeometry::ON_EDGE_1:
        case GmGeometry::ON_EDGE_2:
        case GmGeometry::ON_EDGE_3:
            list = m.getNeighborFacesToEdge(m.getFace(face).edges[t - GmGeometry::ON_EDGE_1]);
            return true;
        default: return false;
    }
}

inline bool contains(const GmIndexList& list, int own, int f) { return f == own || list.contains(f); }

}  // namespace

bool GmTriangleMesh::shareFace(int f1, GmGeometry::PointOnTriType t1, int f2, GmGeometry::PointOnTriType t2,
                               const GmDisabledData* mask) const {
    GmIndexList l1, l2;
    if (!facesOfPoint(*this, f1, t1, l1) || !facesOfPoint(*this, f2, t2, l2)) return false;
    const bool active = GmDisabledData::isActive(mask);
    auto usable = [&](int f) { return !active || !mask->isFaceDisabled(f); };
    // Candidates from the first point's faces, checked against the second's.
    if (usable(f1) && contains(l2, f2, f1)) return true;
    for (int f : l1)
        if (usable(f) && contains(l2, f2, f)) return true;
    return false;
}

// ---------------------------------------------------------------------------
// Boundary tests

bool GmTriangleMesh::isBoundaryEdge(const GmTriangleEdge& ed, const GmDisabledData* mask) const {
    const bool active = GmDisabledData::isActive(mask);
    if (!active && _closed) return false;
    if (ed.firstFace < 0 || ed.secondFace < 0) return true;
    if (!active) return false;
    return mask->isFaceDisabled(ed.firstFace) || mask->isFaceDisabled(ed.secondFace);
}

bool GmTriangleMesh::isBoundaryEdge(int e, const GmDisabledData* mask) const {
    if (!GmDisabledData::isActive(mask) && _closed) return false;
    return isBoundaryEdge(getEdge(e), mask);
}

bool GmTriangleMesh::isBoundaryEdge(const GmTriangleEdge* e, const GmDisabledData* mask) const {
    if (!GmDisabledData::isActive(mask) && _closed) return false;
    return isBoundaryEdge(*e, mask);
}

bool GmTriangleMesh::isBoundaryVertex(int v, const GmDisabledData* mask) const {
    if (!GmDisabledData::isActive(mask) && _closed) return false;
    for (int e : getNeighborEdgesToVertex(v))
        if (isBoundaryEdge(_edges[static_cast<std::size_t>(e)], mask)) return true;
    return false;
}

bool GmTriangleMesh::isBoundaryPoint(int face, GmGeometry::PointOnTriType t, const GmDisabledData* mask) const {
    const bool active = GmDisabledData::isActive(mask);
    if (!active && _closed) return false;
    switch (t) {
        case GmGeometry::ON_VERTEX_1:
        case GmGeometry::ON_VERTEX_2:
        case GmGeometry::ON_VERTEX_3:
            return isBoundaryVertex(getFace(face).vertices[t - GmGeometry::ON_VERTEX_1], mask);
        case GmGeometry::ON_EDGE_1:
        case GmGeometry::ON_EDGE_2:
        case GmGeometry::ON_EDGE_3:
            return isBoundaryEdge(_edges[static_cast<std::size_t>(getFace(face).edges[t - GmGeometry::ON_EDGE_1])],
                                  mask);
        default: return active && mask->isFaceDisabled(face);
    }
}

bool GmTriangleMesh::isClosed(const GmDisabledData* mask) const {
    return GmDisabledData::isActive(mask) ? false : _closed;
}

bool GmTriangleMesh::hasBoundaryEdges(const GmDisabledData* mask) const {
    return GmDisabledData::isActive(mask) ? true : !_closed;
}

// ---------------------------------------------------------------------------
// Face-local geometry

double GmTriangleMesh::GetDistanceToPlaneOfFace(int f, const GmTVector<double>& p) const {
    return (p - getFaceCenter(f)).dot(getFaceNormal(f));
}

GmTVector<double> GmTriangleMesh::ProjectOnPlaneOfFace(int f, const GmTVector<double>& p) const {
    const double h = GetDistanceToPlaneOfFace(f, p);
    return p - getFaceNormal(f) * h;
}

GmTVector<double> GmTriangleMesh::WorldToFace(int f, const GmTVector<double>& p) const {
    const double h = GetDistanceToPlaneOfFace(f, p);
    const GmTVector<double>& n = getFaceNormal(f);
    const GmTVector<double> q = p - n * h;
    const GmTVector<double>& p1 = getFaceVertex1(f);
    const GmTVector<double>& p2 = getFaceVertex2(f);
    const GmTVector<double>& p3 = getFaceVertex3(f);
    const double a1 = n.dot((p3 - p2).cross(q - p2));
    const double a2 = n.dot((p1 - p3).cross(q - p3));
    const double a3 = n.dot((p2 - p1).cross(q - p1));
    const double s = a1 + a2 + a3;
    if (!(s >= 1e-10)) return GmTVector<double>(h, 0.0, 0.0);
    return GmTVector<double>(h, a1 / s, a2 / s);
}

GmTVector<double> GmTriangleMesh::FaceToWorld(int f, const GmTVector<double>& q) const {
    const double h = q.x, w1 = q.y, w2 = q.z;
    return getFaceVertex1(f) * w1 + getFaceVertex2(f) * w2 + getFaceVertex3(f) * (1.0 - w1 - w2) +
           getFaceNormal(f) * h;
}

GmTVector<double> GmTriangleMesh::getFacePoint(int f, const GmTVector<double>& b) const {
    return getFaceVertex1(f) * b.x + getFaceVertex2(f) * b.y + getFaceVertex3(f) * b.z;
}

GmTVector<double> GmTriangleMesh::getBarycentricFaceNormal(int f, const GmTVector<double>& b) const {
    const GmTriangleFace& fc = getFace(f);
    return getVertexNormal(fc.vertices[0]) * b.x + getVertexNormal(fc.vertices[1]) * b.y +
           getVertexNormal(fc.vertices[2]) * b.z;
}

GmTVector<double> GmTriangleMesh::getBarycentricEdgeNormal(int e, const GmTVector<double>& b) const {
    const GmTriangleEdge& ed = getEdge(e);
    return getVertexNormal(ed.from) * b.x + getVertexNormal(ed.to) * b.y;
}

GmTVector<double> GmTriangleMesh::getEdgeNormal(int e) const {
    const GmTriangleEdge& ed = getEdge(e);
    GmTVector<double> n(0.0, 0.0, 0.0);
    if (ed.firstFace >= 0) n += getFaceNormal(ed.firstFace);
    if (ed.secondFace >= 0) n += getFaceNormal(ed.secondFace);
    return n;
}

GmMatrix GmTriangleMesh::getCovarianceMatrix(int f, const std::vector<GmTVector<double>>& positions,
                                             const GmTVector<double>& ref) const {
    const GmTriangleFace& fc = getFace(f);
    const double area = getFaceArea(f);
    const GmTVector<double> d[3] = {positions[static_cast<std::size_t>(fc.vertices[0])] - ref,
                                    positions[static_cast<std::size_t>(fc.vertices[1])] - ref,
                                    positions[static_cast<std::size_t>(fc.vertices[2])] - ref};
    double m[3][3];
    if (std::fabs(area) <= 1e-8) {
        for (int r = 0; r < 3; ++r)
            for (int s = r; s < 3; ++s)
                m[r][s] = m[s][r] = (d[0][r] * d[0][s] + d[1][r] * d[1][s] + d[2][r] * d[2][s]) / 3.0;
    } else {
        const GmTVector<double> S = d[0] + d[1] + d[2];
        const double k = area / 24.0;
        for (int r = 0; r < 3; ++r)
            for (int s = r; s < 3; ++s)
                m[r][s] = m[s][r] = k * (S[r] * S[s] + d[0][r] * d[0][s] + d[1][r] * d[1][s] + d[2][r] * d[2][s]);
    }
    return GmMatrix(m[0][0], m[0][1], m[0][2], m[1][0], m[1][1], m[1][2], m[2][0], m[2][1], m[2][2]);
}

bool GmTriangleMesh::isRightSideOut(int* vertex) const {
    const int n = getNumberVertices();
    if (n == 0) {
        if (vertex) *vertex = -1;
        return true;
    }
    if (!_closed) {
        if (vertex) *vertex = 0;
        return true;
    }
    int best = 0;
    for (int i = 1; i < n; ++i)
        if (_vertices[static_cast<std::size_t>(i)].x < _vertices[static_cast<std::size_t>(best)].x) best = i;
    if (vertex) *vertex = best;
    return getVertexNormal(best).x < 0.0;
}

#include <quarrygeom/bvh/GmBoundingVolumeHierarchy.h>

#include <algorithm>
#include <cmath>
#include <cstdint>

#include <tbb/parallel_invoke.h>
#include <tbb/task_group.h>

#include <quarrygeom/core/GmParallel.h>
#include <quarrygeom/mesh/GmDisabledData.h>
#include <quarrygeom/mesh/GmMeshTests.h>
#include <quarrygeom/mesh/GmTriangleMesh.h>

#include "GmBVHInternal.h"

using namespace GmBVHDetail;

namespace {

// 2^0 .. 2^31.
constexpr std::int64_t kPowersOfTwo[32] = {
    1LL,         2LL,         4LL,         8LL,         16LL,        32LL,         64LL,         128LL,
    256LL,       512LL,       1024LL,      2048LL,      4096LL,      8192LL,      16384LL,      32768LL,
    65536LL,     131072LL,    262144LL,    524288LL,    1048576LL,   2097152LL,    4194304LL,    8388608LL,
    16777216LL,  33554432LL,  67108864LL,  134217728LL, 268435456LL, 536870912LL, 1073741824LL, 2147483648LL};

// Subtrees are refitted in parallel below this level; the top levels are built as tasks.
constexpr int kParallelLevel = 7;
constexpr int kParallelBuildNodes = 127;  // nodes of the top seven levels

// Address through which the parallel build and refit announce their hand-overs to ThreadSanitizer.
char kHandOff = 0;

// ceil(log2 n) from the highest set bit among bits 0..30; -1 for n <= 0.
int computeDepth(int n) {
    if (n <= 0) return -1;
    int high = 0;
    for (int b = 0; b <= 30; ++b)
        if (n & (1 << b)) high = b;
    return (n & (n - 1)) == 0 ? high : high + 1;
}

// Items on the left of a node of k > 2 items: keeps the heap complete.
inline int leftCount(int k) {
    if (k <= 2) return 1;
    int p = 1;
    while (p * 2 <= k / 2) p *= 2;
    return std::min(k - p, 2 * p);
}

// Strict total order on (key, face): keys ascending (NaN after every number), ties by face.
inline bool itemLess(const GmBoundingVolumeHierarchy::FaceData& a, const GmBoundingVolumeHierarchy::FaceData& b) {
    const bool na = std::isnan(a.key), nb = std::isnan(b.key);
    if (na != nb) return nb;
    if (!na) {
        if (a.key < b.key) return true;
        if (b.key < a.key) return false;
    }
    return a.face < b.face;
}

// Leaf box of one face in mode N (0 plain, 1 swept, 2 thickened).
template <int N>
inline GmAxisAlignedBox leafBox(const std::vector<GmTVector<double>>& v, const GmTriangleFace& f,
                                const std::vector<GmTVector<double>>* positions, double thickness) {
    const GmTVector<double>& a = v[static_cast<size_t>(f.vertices[0])];
    const GmTVector<double>& b = v[static_cast<size_t>(f.vertices[1])];
    const GmTVector<double>& c = v[static_cast<size_t>(f.vertices[2])];
    double mn[3], mx[3];
    for (int k = 0; k < 3; ++k) {
        mn[k] = std::min(a[k], std::min(b[k], c[k]));
        mx[k] = std::max(a[k], std::max(b[k], c[k]));
    }
    if (N == 1) {
        const std::vector<GmTVector<double>>& p = *positions;
        const GmTVector<double>& d = p[static_cast<size_t>(f.vertices[0])];
        const GmTVector<double>& e = p[static_cast<size_t>(f.vertices[1])];
        const GmTVector<double>& g = p[static_cast<size_t>(f.vertices[2])];
        for (int k = 0; k < 3; ++k) {
            mn[k] = std::min(mn[k], std::min(d[k], std::min(e[k], g[k])));
            mx[k] = std::max(mx[k], std::max(d[k], std::max(e[k], g[k])));
        }
    }
    // Rounded outwards to floats, so the box always encloses the padded face.
    const double pad = N == 2 ? thickness + kPad : kPad;
    return GmAxisAlignedBox(floatDown(mn[0] - pad), floatDown(mn[1] - pad), floatDown(mn[2] - pad),
                            floatUp(mx[0] + pad), floatUp(mx[1] + pad), floatUp(mx[2] + pad));
}

inline void unionInto(GmAxisAlignedBox& box, const GmAxisAlignedBox& b) {
    box.minX = std::min(box.minX, b.minX);
    box.minY = std::min(box.minY, b.minY);
    box.minZ = std::min(box.minZ, b.minZ);
    box.maxX = std::max(box.maxX, b.maxX);
    box.maxY = std::max(box.maxY, b.maxY);
    box.maxZ = std::max(box.maxZ, b.maxZ);
}

typedef GmBoundingVolumeHierarchy::Node Node;
typedef GmBoundingVolumeHierarchy::FaceData FaceData;

// Per-face initialisation of the build: leaf box, flags (bit 0 disabled, bit 1 frozen) and centre.
template <int N>
struct BuildInitializeBody {
    const GmTriangleMesh* mesh;
    const std::vector<GmTVector<double>>* positions;
    double thickness;
    const GmDisabledData* disabled;
    const GmFrozenData* frozen;
    GmAxisAlignedBox* boxes;
    unsigned char* flags;
    FaceData* items;
    GmTVector<double>* centres;

    void operator()(int f) const {
        QG_BVH_ACQUIRE(&kHandOff);
        const GmTriangleFace& face = mesh->getFaces()[static_cast<size_t>(f)];
        boxes[f] = leafBox<N>(mesh->getVertices(), face, positions, thickness);
        flags[f] = static_cast<unsigned char>((faceDisabled(disabled, f) ? 1 : 0) | (faceFrozen(frozen, f) ? 2 : 0));
        items[f].face = f;
        items[f].key = 0.0;
        centres[f] = mesh->getFaceCenter(f);
        QG_BVH_RELEASE(&kHandOff);
    }
};

// Top-down assignment of items to the subtree rooted at node i.
struct BuildTask {
    Node* nodes;
    const GmTriangleFace* faces;
    const GmAxisAlignedBox* boxes;
    const unsigned char* flags;
    FaceData* items;
    const GmTVector<double>* centres;
    bool parallel;

    void run(int i, int lo, int hi) const {
        const int k = hi - lo;
        Node& node = nodes[i];
        if (k == 1) {
            const int f = items[lo].face;
            node.box = boxes[f];
            node.primitive = faces + f;
            node.disabled = (flags[f] & 1) != 0;
            node.frozen = (flags[f] & 2) != 0;
            return;
        }
        GmAxisAlignedBox box;
        unsigned char all = 3;
        for (int j = lo; j < hi; ++j) {
            const int f = items[j].face;
            unionInto(box, boxes[f]);
            all &= flags[f];
        }
        node.box = box;
        node.primitive = nullptr;
        node.disabled = (all & 1) != 0;
        node.frozen = (all & 2) != 0;

        const int m = leftCount(k);
        if (k > 2) {
            int order[3];
            box.getExtent().getIndexOrdering(order);
            const int axis = order[0];
            for (int j = lo; j < hi; ++j) items[j].key = centres[items[j].face][axis];
            // The left child takes the m smallest items by (key, face): a selection gives the
            // same sets as a full sort. Children of two items keep the sorted order.
            std::nth_element(items + lo, items + lo + m, items + hi, itemLess);
            if (m == 2 && itemLess(items[lo + 1], items[lo])) std::swap(items[lo], items[lo + 1]);
            if (k - m == 2 && itemLess(items[lo + m + 1], items[lo + m])) std::swap(items[lo + m], items[lo + m + 1]);
        }
        const int left = 2 * i + 1, right = 2 * i + 2;
        if (parallel && i < kParallelBuildNodes) {
            // Both subtrees as child tasks. The tasks refer to these closures, which are
            // complete before the hand-over is released.
            const auto buildRight = [=] {
                QG_BVH_ACQUIRE(&kHandOff);
                run(right, lo + m, hi);
                QG_BVH_RELEASE(&kHandOff);
            };
            const auto buildLeft = [=] {
                QG_BVH_ACQUIRE(&kHandOff);
                run(left, lo, lo + m);
                QG_BVH_RELEASE(&kHandOff);
            };
            QG_BVH_RELEASE(&kHandOff);
            tbb::parallel_invoke(buildRight, buildLeft);
            QG_BVH_ACQUIRE(&kHandOff);
        } else {
            run(left, lo, lo + m);
            run(right, lo + m, hi);
        }
    }
};

}  // namespace

// ---- Construction -----------------------------------------------------------------------

void GmBoundingVolumeHierarchy::_initialize() {
    _disabledData = nullptr;
    _ignoreFrozen = false;
    _frozenData = nullptr;
    _meshTests = new GmIntersection::MeshTests();
    _numberFaces = _mesh != nullptr ? _mesh->getNumberFaces() : 0;
    _depth = computeDepth(_numberFaces);
    _nodes.resize(static_cast<size_t>(std::max(getNumberNodes(), 0)));
}

GmBoundingVolumeHierarchy::GmBoundingVolumeHierarchy(GmTriangleMesh* mesh,
                                                     const std::vector<GmTVector<double>>& positions,
                                                     const GmDisabledData* disabled, const GmFrozenData* frozen)
    : _mesh(mesh) {
    _initialize();
    build(positions, disabled, frozen);
}

GmBoundingVolumeHierarchy::GmBoundingVolumeHierarchy(GmTriangleMesh* mesh, double thickness,
                                                     const GmDisabledData* disabled, const GmFrozenData* frozen)
    : _mesh(mesh) {
    _initialize();
    build(thickness, disabled, frozen);
}

GmBoundingVolumeHierarchy::GmBoundingVolumeHierarchy(GmTriangleMesh* mesh, const GmDisabledData* disabled,
                                                     const GmFrozenData* frozen)
    : _mesh(mesh) {
    _initialize();
    build(disabled, frozen);
}

GmBoundingVolumeHierarchy::GmBoundingVolumeHierarchy(const GmBoundingVolumeHierarchy& other)
    : _mesh(other._mesh),
      _disabledData(other._disabledData),
      _ignoreFrozen(other._ignoreFrozen),
      _frozenData(other._frozenData),
      _meshTests(new GmIntersection::MeshTests(*other._meshTests)),
      _depth(other._depth),
      _nodes(other._nodes),
      _numberFaces(other._numberFaces) {}

GmBoundingVolumeHierarchy& GmBoundingVolumeHierarchy::operator=(const GmBoundingVolumeHierarchy& other) {
    if (this == &other) return *this;
    _mesh = other._mesh;
    _disabledData = other._disabledData;
    _ignoreFrozen = other._ignoreFrozen;
    _frozenData = other._frozenData;
    *_meshTests = *other._meshTests;
    _depth = other._depth;
    _nodes = other._nodes;
    _numberFaces = other._numberFaces;
    _insideCache.reset();
    return *this;
}

GmBoundingVolumeHierarchy::~GmBoundingVolumeHierarchy() { delete _meshTests; }

// ---- Layout -----------------------------------------------------------------------------

void GmBoundingVolumeHierarchy::getLeafRange(int& first, int& last) const {
    first = getNumberInternalNodes();
    last = first + getNumberLeafNodes();
}

void GmBoundingVolumeHierarchy::getRange(int level, int& first, int& last) const {
    if (level < 0 || level > 30) {
        first = last = 0;
        return;
    }
    first = static_cast<int>(kPowersOfTwo[level] - 1);
    last = static_cast<int>(std::min<std::int64_t>(getNumberNodes(), kPowersOfTwo[level + 1] - 1));
    if (last < first) last = first;
}

int GmBoundingVolumeHierarchy::getFaceIndex(const Node& node) const {
    return node.primitive != nullptr ? node.primitive->index : -1;
}

// ---- Accessors --------------------------------------------------------------------------

const GmIntersection::MeshTests& GmBoundingVolumeHierarchy::getMeshTests() const { return *_meshTests; }
GmIntersection::MeshTests& GmBoundingVolumeHierarchy::getMeshTests() { return *_meshTests; }
void GmBoundingVolumeHierarchy::setMeshTests(const GmIntersection::MeshTests& tests) { *_meshTests = tests; }

void GmBoundingVolumeHierarchy::setDisabledData(const GmDisabledData* disabled) {
    _insideCache.reset();
    _disabledData = disabled;
    _refreshFlags(true);
}

void GmBoundingVolumeHierarchy::setFrozenData(const GmFrozenData* frozen) {
    _frozenData = frozen;
    _refreshFlags(false);
}

void GmBoundingVolumeHierarchy::_refreshFlags(bool disabledFlags) {
    const bool active = disabledFlags ? GmDisabledData::isActive(_disabledData) : GmFrozenData::isActive(_frozenData);
    if (!active) {
        for (Node& node : _nodes) (disabledFlags ? node.disabled : node.frozen) = false;
        return;
    }
    for (int level = _depth; level >= 0; --level) {
        int first, last;
        getRange(level, first, last);
        for (int i = first; i < last; ++i) {
            Node& node = _nodes[static_cast<size_t>(i)];
            bool flag;
            if (node.isLeaf()) {
                const int f = node.primitive->index;
                flag = disabledFlags ? _disabledData->isDisabled(f) : _frozenData->isFrozen(f);
            } else {
                const Node& l = _nodes[static_cast<size_t>(2 * i + 1)];
                const Node& r = _nodes[static_cast<size_t>(2 * i + 2)];
                flag = disabledFlags ? (l.disabled && r.disabled) : (l.frozen && r.frozen);
            }
            (disabledFlags ? node.disabled : node.frozen) = flag;
        }
    }
}

bool GmBoundingVolumeHierarchy::_faceDisabled(int face, bool includeDisabled) const {
    return !includeDisabled && GmDisabledData::isDisabled(_disabledData, face);
}

// ---- Build ------------------------------------------------------------------------------

void GmBoundingVolumeHierarchy::build(const std::vector<GmTVector<double>>& positions,
                                      const GmDisabledData* disabled, const GmFrozenData* frozen) {
    _build<1>(&positions, 0.0, disabled, frozen);
}

void GmBoundingVolumeHierarchy::build(double thickness, const GmDisabledData* disabled, const GmFrozenData* frozen) {
    _build<2>(nullptr, thickness, disabled, frozen);
}

void GmBoundingVolumeHierarchy::build(const GmDisabledData* disabled, const GmFrozenData* frozen) {
    _build<0>(nullptr, 0.0, disabled, frozen);
}

template <int N>
void GmBoundingVolumeHierarchy::_build(const std::vector<GmTVector<double>>* positions, double thickness,
                                       const GmDisabledData* disabled, const GmFrozenData* frozen) {
    _insideCache.reset();
    _disabledData = disabled;
    _frozenData = frozen;
    const int n = _mesh != nullptr ? std::min(_mesh->getNumberFaces(), _numberFaces) : 0;
    if (n <= 0 || _nodes.empty()) return;

    std::vector<GmAxisAlignedBox> boxes(static_cast<size_t>(n));
    std::vector<unsigned char> flags(static_cast<size_t>(n));
    std::vector<FaceData> items(static_cast<size_t>(n));
    std::vector<GmTVector<double>> centres(static_cast<size_t>(n));
    const BuildInitializeBody<N> init{_mesh,        positions,    thickness,    disabled,      frozen,
                                      boxes.data(), flags.data(), items.data(), centres.data()};
    BuildTask task{_nodes.data(), _mesh->getFaces().data(), boxes.data(), flags.data(), items.data(), centres.data(),
                   false};

    GmParallel::dispatch(
        [&] {
            for (int f = 0; f < n; ++f) init(f);
            task.run(0, 0, n);
        },
        [&] {
            task.parallel = true;
            QG_BVH_RELEASE(&kHandOff);
            GmParallel::parallelFor(0, n, init);
            QG_BVH_ACQUIRE(&kHandOff);
            task.run(0, 0, n);
        });
}

// ---- Refit ------------------------------------------------------------------------------

namespace {

template <int N>
struct RefitNode {
    Node* nodes;
    const std::vector<GmTVector<double>>* vertices;
    const std::vector<GmTVector<double>>* positions;
    double thickness;
    const GmDisabledData* disabled;
    const GmFrozenData* frozen;

    void operator()(int i) const {
        Node& node = nodes[i];
        if (node.isLeaf()) {
            node.box = leafBox<N>(*vertices, *node.primitive, positions, thickness);
            const int f = node.primitive->index;
            node.disabled = faceDisabled(disabled, f);
            node.frozen = faceFrozen(frozen, f);
        } else {
            const Node& l = nodes[2 * i + 1];
            const Node& r = nodes[2 * i + 2];
            node.box = l.box;
            unionInto(node.box, r.box);
            node.disabled = l.disabled && r.disabled;
            node.frozen = l.frozen && r.frozen;
        }
    }
};

// Refit of the subtree rooted at level-7 node 127 + j, deepest level first.
template <int N>
struct RefitSubtreeBody {
    RefitNode<N> refit;
    int depth;
    int numberNodes;

    void operator()(int j) const {
        QG_BVH_ACQUIRE(&kHandOff);
        const std::int64_t r = kPowersOfTwo[kParallelLevel] - 1 + j;
        for (int l = depth; l >= kParallelLevel; --l) {
            const std::int64_t span = kPowersOfTwo[l - kParallelLevel];
            const std::int64_t first = span * (r + 1) - 1;
            const std::int64_t last = std::min<std::int64_t>(first + span, numberNodes);
            for (std::int64_t i = first; i < last; ++i) refit(static_cast<int>(i));
        }
        QG_BVH_RELEASE(&kHandOff);
    }
};

}  // namespace

void GmBoundingVolumeHierarchy::refit(const std::vector<GmTVector<double>>& positions,
                                      const GmDisabledData* disabled, const GmFrozenData* frozen) {
    _refit<1>(&positions, 0.0, disabled, frozen);
}

void GmBoundingVolumeHierarchy::refit(double thickness, const GmDisabledData* disabled, const GmFrozenData* frozen) {
    _refit<2>(nullptr, thickness, disabled, frozen);
}

void GmBoundingVolumeHierarchy::refit(const GmDisabledData* disabled, const GmFrozenData* frozen) {
    _refit<0>(nullptr, 0.0, disabled, frozen);
}

template <int N>
void GmBoundingVolumeHierarchy::_refit(const std::vector<GmTVector<double>>* positions, double thickness,
                                       const GmDisabledData* disabled, const GmFrozenData* frozen) {
    _insideCache.reset();
    _disabledData = disabled;
    _frozenData = frozen;
    if (_nodes.empty() || _mesh == nullptr) return;
    const RefitNode<N> refitNode{_nodes.data(), &_mesh->getVertices(), positions, thickness, disabled, frozen};
    const int numberNodes = getNumberNodes();
    auto levels = [&](int from, int to) {
        for (int l = from; l >= to; --l) {
            int first, last;
            getRange(l, first, last);
            for (int i = first; i < last; ++i) refitNode(i);
        }
    };
    if (_depth < kParallelLevel) {
        levels(_depth, 0);
        return;
    }
    GmParallel::dispatch([&] { levels(_depth, 0); },
                         [&] {
                             const RefitSubtreeBody<N> body{refitNode, _depth, numberNodes};
                             QG_BVH_RELEASE(&kHandOff);
                             GmParallel::parallelFor(0, 1 << kParallelLevel, body);
                             QG_BVH_ACQUIRE(&kHandOff);
                             levels(kParallelLevel - 1, 0);
                         });
}

// ---- Root box queries -------------------------------------------------------------------

bool GmBoundingVolumeHierarchy::isInside(const GmTVector<double>& p) const {
    if (_nodes.empty()) return false;
    const GmAxisAlignedBox& b = _nodes[0].box;
    return b.minX <= p.x && p.x <= b.maxX && b.minY <= p.y && p.y <= b.maxY && b.minZ <= p.z && p.z <= b.maxZ;
}

bool GmBoundingVolumeHierarchy::isInside(const GmBoundingVolumeHierarchy& other) const {
    if (_nodes.empty() || other._nodes.empty()) return false;
    const GmAxisAlignedBox& b = _nodes[0].box;
    const GmAxisAlignedBox& o = other._nodes[0].box;
    return b.minX <= o.minX && o.maxX <= b.maxX && b.minY <= o.minY && o.maxY <= b.maxY && b.minZ <= o.minZ &&
           o.maxZ <= b.maxZ;
}

bool GmBoundingVolumeHierarchy::intersect(const GmAxisAlignedBox& box) const {
    if (_nodes.empty()) return false;
    const GmAxisAlignedBox& r = _nodes[0].box;
    return r.maxX >= box.minX && box.maxX >= r.minX && r.maxY >= box.minY && box.maxY >= r.minY &&
           r.maxZ >= box.minZ && box.maxZ >= r.minZ;
}

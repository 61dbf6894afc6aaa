#include <quarrygeom/bvh/GmBoundingVolumeHierarchy.h>

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <cstring>
#include <limits>
#include <memory>
#include <vector>

#if defined(__SSE2__)
#include <emmintrin.h>
#include <xmmintrin.h>
#endif

#include <tbb/parallel_invoke.h>
#include <tbb/task_group.h>

#include <quarrygeom/core/GmParallel.h>
#include <quarrygeom/mesh/GmDisabledData.h>
#include <quarrygeom/mesh/GmMeshTests.h>
#include <quarrygeom/mesh/GmTriangleMesh.h>

#include "GmBVHInternal.h"
#include "GmBVHRayTree.h"
#include "../core/GmHugePages.h"
#include "GmBVHArgumentChecks.h"

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
    const int p = 1 << (31 - __builtin_clz(static_cast<unsigned>(k / 2)));  // largest power of two <= k / 2
    return std::min(k - p, 2 * p);
}

// Image of a sort key as an unsigned integer in the same order: both zeros share one value,
// NaN takes the largest (the build orders NaN keys after every number).
inline std::uint64_t monotoneKey(double x) {
    if (std::isnan(x)) return ~std::uint64_t(0);
    if (x == 0.0) return std::uint64_t(1) << 63;
    std::uint64_t u;
    std::memcpy(&u, &x, sizeof u);
    return (u >> 63) != 0 ? ~u : (u | (std::uint64_t(1) << 63));
}

#if defined(__SSE2__)
// The next float towards -inf of each lane (finite lanes; a zero of either sign gives the
// smallest negative subnormal), as std::nextafter(f, -inf).
inline __m128 floatStepDown4(__m128 f) {
    const __m128i bits = _mm_castps_si128(f);
    const __m128i sign = _mm_set1_epi32(static_cast<int>(0x80000000u));
    const __m128i z = _mm_or_si128(bits, _mm_and_si128(_mm_cmpeq_epi32(bits, _mm_setzero_si128()), sign));
    const __m128i negative = _mm_srai_epi32(z, 31);
    // +1 on the bits of a negative value, -1 on those of a positive one.
    const __m128i delta = _mm_or_si128(_mm_sub_epi32(_mm_setzero_si128(), negative),
                                       _mm_andnot_si128(negative, _mm_set1_epi32(-1)));
    return _mm_castsi128_ps(_mm_add_epi32(z, delta));
}

inline __m128 select4(__m128 mask, __m128 yes, __m128 no) {
    return _mm_or_ps(_mm_andnot_ps(mask, no), _mm_and_ps(mask, yes));
}

// Two double lane masks (a's two lanes, then b's) as one float lane mask.
inline __m128 doubleMask4(__m128d a, __m128d b) {
    return _mm_shuffle_ps(_mm_castpd_ps(a), _mm_castpd_ps(b), _MM_SHUFFLE(2, 0, 2, 0));
}

// GmAxisAlignedBox::roundDown of four doubles at once (a's two, then b's two), bit for bit.
inline __m128 roundFloatDown4(__m128d a, __m128d b) {
    const __m128 f = _mm_movelh_ps(_mm_cvtpd_ps(a), _mm_cvtpd_ps(b));
    const __m128d fa = _mm_cvtps_pd(f), fb = _mm_cvtps_pd(_mm_movehl_ps(f, f));
    // Lanes where the nearest float lies above the value.
    const __m128 above = doubleMask4(_mm_cmpgt_pd(fa, a), _mm_cmpgt_pd(fb, b));
    return select4(above, floatStepDown4(f), f);
}

// The second step of GmAxisAlignedBox::padDown on four lanes, bit for bit: where the value
// (a's two, then b's two) minus its rounded padded bound f is below the pad, f moves one float
// down. For an upper bound in negated form (value -v, bound -f) the difference is the same
// number, so the same step moves the bound one float up.
inline __m128 padLostDown4(__m128 f, __m128d a, __m128d b, __m128d pad) {
    const __m128d fa = _mm_cvtps_pd(f), fb = _mm_cvtps_pd(_mm_movehl_ps(f, f));
    const __m128 lost = doubleMask4(_mm_cmplt_pd(_mm_sub_pd(a, fa), pad), _mm_cmplt_pd(_mm_sub_pd(b, fb), pad));
    if (_mm_movemask_ps(lost) == 0) return f;
    return select4(lost, floatStepDown4(f), f);
}
#endif

// Leaf box of the face with vertex indices idx in mode N (0 plain, 1 swept, 2 thickened),
// written to box.
template <int N>
__attribute__((always_inline)) inline void leafBoxAt(const GmTVector<double>* v, const int* idx,
                                                     const GmTVector<double>* positions, double thickness,
                                                     GmAxisAlignedBox& box) {
    const GmTVector<double>& a = v[idx[0]];
    const GmTVector<double>& b = v[idx[1]];
    const GmTVector<double>& c = v[idx[2]];
    const double pad = N == 2 ? thickness + kPad : kPad;
#if defined(__SSE2__)
    // The scalar rule below, two axes per register; the minima and maxima keep std::min's and
    // std::max's operand order, and the upper bounds are rounded down negated.
    const auto xy = [](const GmTVector<double>& p) { return _mm_loadu_pd(&p.x); };
    const auto zz = [](const GmTVector<double>& p) { return _mm_set1_pd(p.z); };
    __m128d mnXY = _mm_min_pd(_mm_min_pd(xy(c), xy(b)), xy(a));
    __m128d mxXY = _mm_max_pd(_mm_max_pd(xy(c), xy(b)), xy(a));
    __m128d mnZ = _mm_min_pd(_mm_min_pd(zz(c), zz(b)), zz(a));
    __m128d mxZ = _mm_max_pd(_mm_max_pd(zz(c), zz(b)), zz(a));
    if (N == 1) {
        const GmTVector<double>& d = positions[idx[0]];
        const GmTVector<double>& e = positions[idx[1]];
        const GmTVector<double>& g = positions[idx[2]];
        mnXY = _mm_min_pd(_mm_min_pd(_mm_min_pd(xy(g), xy(e)), xy(d)), mnXY);
        mxXY = _mm_max_pd(_mm_max_pd(_mm_max_pd(xy(g), xy(e)), xy(d)), mxXY);
        mnZ = _mm_min_pd(_mm_min_pd(_mm_min_pd(zz(g), zz(e)), zz(d)), mnZ);
        mxZ = _mm_max_pd(_mm_max_pd(_mm_max_pd(zz(g), zz(e)), zz(d)), mxZ);
    }
    const __m128d p = _mm_set1_pd(pad), zero = _mm_setzero_pd();
    const __m128d negMxXY = _mm_sub_pd(zero, mxXY), negMxZ = _mm_sub_pd(zero, mxZ);
    const __m128d loXY = _mm_sub_pd(mnXY, p), loZ = _mm_sub_pd(mnZ, p);
    const __m128d negHiXY = _mm_sub_pd(negMxXY, p), negHiZ = _mm_sub_pd(negMxZ, p);
    // (min x, min y, min z, -max x), (-max y, -max z, ., .); then, where the pad was lost in the
    // subtraction (coordinates of about 1e8 and more), one more float outwards.
    const __m128d v0b = _mm_unpacklo_pd(mnZ, negMxXY), v1a = _mm_unpackhi_pd(negMxXY, negMxZ);
    const __m128 r0 = padLostDown4(roundFloatDown4(loXY, _mm_unpacklo_pd(loZ, negHiXY)), mnXY, v0b, p);
    const __m128 r1 = padLostDown4(roundFloatDown4(_mm_unpackhi_pd(negHiXY, negHiZ), negHiZ), v1a, negMxZ, p);
    const __m128 flip0 = _mm_castsi128_ps(_mm_set_epi32(static_cast<int>(0x80000000u), 0, 0, 0));
    const __m128 flip1 = _mm_castsi128_ps(_mm_set_epi32(0, 0, static_cast<int>(0x80000000u), static_cast<int>(0x80000000u)));
    float out[8];
    _mm_storeu_ps(out, _mm_xor_ps(r0, flip0));
    _mm_storeu_ps(out + 4, _mm_xor_ps(r1, flip1));
    box = GmAxisAlignedBox(out[0], out[1], out[2], out[3], out[4], out[5]);
#else
    double mn[3], mx[3];
    for (int k = 0; k < 3; ++k) {
        mn[k] = std::min(a[k], std::min(b[k], c[k]));
        mx[k] = std::max(a[k], std::max(b[k], c[k]));
    }
    if (N == 1) {
        const GmTVector<double>& d = positions[idx[0]];
        const GmTVector<double>& e = positions[idx[1]];
        const GmTVector<double>& g = positions[idx[2]];
        for (int k = 0; k < 3; ++k) {
            mn[k] = std::min(mn[k], std::min(d[k], std::min(e[k], g[k])));
            mx[k] = std::max(mx[k], std::max(d[k], std::max(e[k], g[k])));
        }
    }
    // Rounded outwards to floats, so the box always encloses the padded face.
    box = GmAxisAlignedBox(GmAxisAlignedBox::padDown(mn[0], pad), GmAxisAlignedBox::padDown(mn[1], pad),
                           GmAxisAlignedBox::padDown(mn[2], pad), GmAxisAlignedBox::padUp(mx[0], pad),
                           GmAxisAlignedBox::padUp(mx[1], pad), GmAxisAlignedBox::padUp(mx[2], pad));
#endif
}

template <int N>
__attribute__((always_inline)) inline GmAxisAlignedBox leafBox(const std::vector<GmTVector<double>>& v,
                                                               const GmTriangleFace& f,
                                                               const std::vector<GmTVector<double>>* positions,
                                                               double thickness) {
    GmAxisAlignedBox box;
    leafBoxAt<N>(v.data(), f.vertices, N == 1 ? positions->data() : nullptr, thickness, box);
    return box;
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
typedef GmBoundingVolumeHierarchy::LeafFace LeafFace;

// What the build keeps of one face: its leaf box, flags (bit 0 disabled, bit 1 frozen) and the
// largest of its box's three extents (-inf when an extent is NaN). Plain data, so that an array
// of them is not initialised before the build fills it. Laid out as two groups of four floats:
// minimum x, y, z and the largest extent, maximum x, y, z and the flags' bits.
struct alignas(32) LeafRecord {
    float v[8];

    unsigned flags() const {
        unsigned f;
        std::memcpy(&f, &v[7], sizeof f);
        return f;
    }
    GmAxisAlignedBox box() const { return GmAxisAlignedBox(v[0], v[1], v[2], v[4], v[5], v[6]); }
    void set(const GmAxisAlignedBox& b, unsigned f) {
        v[0] = b.minX;
        v[1] = b.minY;
        v[2] = b.minZ;
        v[4] = b.maxX;
        v[5] = b.maxY;
        v[6] = b.maxZ;
        std::memcpy(&v[7], &f, sizeof f);
        const GmTVector<float> e = b.getExtent();
        v[3] = std::isnan(e.x) || std::isnan(e.y) || std::isnan(e.z)
                   ? -std::numeric_limits<float>::infinity()
                   : std::max(e.x, std::max(e.y, e.z));
    }
};

// What a node's parent finds out about the node's faces: their box, the AND of their flags and
// the least of their largest extents (the floor). An axis on which the node's extent is below the
// floor is never split on below the node: any node below contains a face whose largest extent
// reaches the floor, so lies on another axis, and on that axis the node below is wider than on
// this one. The build stops keeping that axis' list in order there.
struct Bound {
    GmAxisAlignedBox box;
    unsigned flags = 3u;
    float floor = std::numeric_limits<float>::infinity();

    void add(const Bound& b) {
        unionInto(box, b.box);
        flags &= b.flags;
        floor = std::min(floor, b.floor);
    }
    // Whether the list of each axis is still needed below.
    void liveAxes(bool live[3]) const {
        const GmTVector<float> e = box.getExtent();
        for (int a = 0; a < 3; ++a) live[a] = !(e[a] < floor);
    }
};

// Uninitialised array of a trivially constructible type (filled by the build's first pass).
template <class T>
std::unique_ptr<T[]> rawArray(std::size_t n) {
    return std::unique_ptr<T[]>(new T[n]);
}

// Per-face initialisation of the build: leaf record, and the face centre made current.
template <int N>
struct BuildInitializeBody {
    const GmTriangleMesh* mesh;
    const std::vector<GmTVector<double>>* positions;
    double thickness;
    const GmDisabledData* disabled;
    const GmFrozenData* frozen;
    LeafRecord* leaves;

    void operator()(int f) const {
        GmParallel::handOverAcquire();
        const GmTriangleFace& face = mesh->getFaces()[static_cast<size_t>(f)];
        leaves[f].set(leafBox<N>(mesh->getVertices(), face, positions, thickness),
                      (faceDisabled(disabled, f) ? 1u : 0u) | (faceFrozen(frozen, f) ? 2u : 0u));
        mesh->getFaceCenter(f);
        GmParallel::handOverRelease();
    }
};

// Sort item: the exact key, the face and a coarse monotone image of the key (22 bits).
struct SortItem {
    std::uint64_t key;
    std::uint32_t face;
    std::uint32_t coarse;
};

// Chunks of the per-face passes: enough for the workers to share, few enough to stay cheap.
inline int chunkCount(int n) { return std::max(1, std::min(64, n / 16384)); }
inline int chunkBegin(int n, int chunks, int c) {
    return static_cast<int>(static_cast<std::int64_t>(n) * c / chunks);
}

// Runs body(c) for every chunk c in [0, chunks): on the calling thread, or as a parallel loop
// inside the build's arena.
struct ChunkLoop {
    bool parallel;

    // Chunks of a per-face pass over n faces: one on the calling thread.
    int chunks(int n) const { return parallel ? chunkCount(n) : 1; }

    template <class Body>
    void operator()(int chunks, const Body& body) const {
        if (parallel)
            GmParallel::parallelFor(0, chunks, body);
        else
            for (int c = 0; c < chunks; ++c) body(c);
    }
};

// The faces ordered by (centre on one axis, face index), NaN last. A stable two-pass radix
// sort on the coarse keys (the centre's place in [lo, hi] in 2^22 steps) starting from face
// order, each chunk of the input keeping its own counts; runs of equal coarse keys are then
// put in the order of the exact keys. tmp holds 2n items.
void sortAxis(const GmTriangleMesh& mesh, int n, int axis, double lo, double hi, SortItem* tmp, int* out,
              const ChunkLoop& loop) {
    constexpr int kBits = 11, kBuckets = 1 << kBits;
    constexpr std::uint32_t kTop = (1u << (2 * kBits)) - 1u;
    const double scale = static_cast<double>(kTop + 1u) / (hi - lo);
    const bool scaled = std::isfinite(scale) && scale > 0.0;
    const int chunks = loop.chunks(n);
    std::vector<std::uint32_t> counts(static_cast<size_t>(chunks) * kBuckets);
    // With a single chunk the pack pass counts the second digit as well.
    std::vector<std::uint32_t> high(chunks == 1 ? kBuckets : 0);
    SortItem* src = tmp;
    SortItem* dst = tmp + n;

    loop(chunks, [&](int c) {
        std::uint32_t* count = counts.data() + static_cast<size_t>(c) * kBuckets;
        std::fill(count, count + kBuckets, 0u);
        std::uint32_t* countHigh = chunks == 1 ? high.data() : nullptr;
        for (int f = chunkBegin(n, chunks, c), end = chunkBegin(n, chunks, c + 1); f < end; ++f) {
            const double x = mesh.getFaceCenter(f)[axis];
            SortItem& it = src[f];
            it.key = monotoneKey(x);
            it.face = static_cast<std::uint32_t>(f);
            if (!scaled)
                it.coarse = static_cast<std::uint32_t>(it.key >> (64 - 2 * kBits));
            else if (std::isnan(x))
                it.coarse = kTop;
            else
                it.coarse = static_cast<std::uint32_t>(std::min(std::max((x - lo) * scale, 0.0), double(kTop)));
            ++count[it.coarse & (kBuckets - 1)];
            if (countHigh != nullptr) ++countHigh[it.coarse >> kBits];
        }
    });
    for (int pass = 0; pass < 2; ++pass) {
        const int shift = pass * kBits;
        if (pass > 0 && chunks == 1)
            counts.swap(high);
        else if (pass > 0)
            loop(chunks, [&](int c) {
                std::uint32_t* count = counts.data() + static_cast<size_t>(c) * kBuckets;
                std::fill(count, count + kBuckets, 0u);
                for (int j = chunkBegin(n, chunks, c), end = chunkBegin(n, chunks, c + 1); j < end; ++j)
                    ++count[(src[j].coarse >> shift) & (kBuckets - 1)];
            });
        // Start of every (bucket, chunk) in the output; a pass whose digit never varies is skipped.
        std::uint32_t sum = 0;
        bool trivial = false;
        for (int b = 0; b < kBuckets; ++b) {
            const std::uint32_t start = sum;
            for (int c = 0; c < chunks; ++c) {
                std::uint32_t& count = counts[static_cast<size_t>(c) * kBuckets + b];
                const std::uint32_t t = count;
                count = sum;
                sum += t;
            }
            trivial |= sum - start == static_cast<std::uint32_t>(n);
        }
        if (trivial) continue;
        loop(chunks, [&](int c) {
            std::uint32_t* next = counts.data() + static_cast<size_t>(c) * kBuckets;
            for (int j = chunkBegin(n, chunks, c), end = chunkBegin(n, chunks, c + 1); j < end; ++j)
                dst[next[(src[j].coarse >> shift) & (kBuckets - 1)]++] = src[j];
        });
        std::swap(src, dst);
    }
    // Within a run of equal coarse keys the faces ascend: a stable sort by the exact key
    // completes the order. Runs are short and mostly in order already. A chunk takes the runs
    // that start in it, which end before the next chunk's first run.
    std::vector<int> starts(static_cast<size_t>(chunks) + 1);
    for (int c = 0; c <= chunks; ++c) {
        int j = chunkBegin(n, chunks, c);
        while (j > 0 && j < n && src[j].coarse == src[j - 1].coarse) ++j;
        starts[static_cast<size_t>(c)] = j;
    }
    loop(chunks, [&](int c) {
        SortItem* const sorted = src;
        int j = starts[static_cast<size_t>(c)];
        const int end = starts[static_cast<size_t>(c) + 1];
        while (j < end) {
            int e = j + 1;
            bool ordered = true;
            while (e < end && sorted[e].coarse == sorted[j].coarse) {
                ordered &= sorted[e - 1].key <= sorted[e].key;
                ++e;
            }
            if (!ordered && e - j <= 32) {
                for (int q = j + 1; q < e; ++q) {  // stable insertion
                    const SortItem item = sorted[q];
                    int p = q;
                    for (; p > j && item.key < sorted[p - 1].key; --p) sorted[p] = sorted[p - 1];
                    sorted[p] = item;
                }
            } else if (!ordered) {
                std::stable_sort(sorted + j, sorted + e,
                                 [](const SortItem& a, const SortItem& b) { return a.key < b.key; });
            }
            for (int q = j; q < e; ++q) out[q] = static_cast<int>(sorted[q].face);
            j = e;
        }
    });
}

// Top-down assignment of faces to nodes. lists[a] holds the faces sorted by their centre on
// axis a; a node of the item range [lo, hi) finds its faces in that range of all three lists,
// each in its own axis order. Splitting on axis a leaves lists[a] as it is (the left child takes
// the first m) and partitions the other two stably, so every child again finds its faces sorted
// on all three axes. A node's box and flags come from its parent, which gathers both children's
// in one pass over the faces.
struct BuildTask {
    Node* nodes;
    LeafFace* leafFaces;  // per leaf, from node firstLeaf on
    int firstLeaf;
    const GmTriangleFace* faces;
    const LeafRecord* leaves;
    int* lists[3];
    int* scratch;         // n entries; a node uses [lo, hi)
    unsigned char* side;  // per face: 0 left, 1 right of the current split
    bool parallel;

    __attribute__((always_inline)) void setLeaf(int i, int f) const {
        Node& node = nodes[i];
        const LeafRecord& r = leaves[f];
        node.box = r.box();
        node.primitive = faces + f;
        LeafFace& lf = leafFaces[i - firstLeaf];
        lf.face = f;
        for (int k = 0; k < 3; ++k) lf.vertices[k] = faces[f].vertices[k];
        const unsigned flags = r.flags();
        node.disabled = (flags & 1u) != 0;
        node.frozen = (flags & 2u) != 0;
    }
    void setInternal(int i, const Bound& b) const {
        Node& node = nodes[i];
        node.box = b.box;
        node.primitive = nullptr;
        node.disabled = (b.flags & 1u) != 0;
        node.frozen = (b.flags & 2u) != 0;
    }

    // Adds the faces list[from, to) to b, marking their side (mark >= 0).
    void gather(const int* list, int from, int to, Bound& b, int mark) const {
        gather([list](int j) { return list[j]; }, from, to, b, mark);
    }
    // The same for the faces face(j), j in [from, to).
    template <class Face>
    void gather(const Face& face, int from, int to, Bound& b, int mark) const {
        const LeafRecord* const records = leaves;
        unsigned char* const sides = side;
        unsigned all = b.flags;
        const unsigned char value = static_cast<unsigned char>(mark);
#if defined(__SSE2__)
        // Four lanes at once; minps / maxps keep the accumulated value unless the record's is
        // smaller / larger, as std::min / std::max do (the flags' lane is ignored).
        __m128 lo = _mm_setr_ps(b.box.minX, b.box.minY, b.box.minZ, b.floor);
        __m128 hi = _mm_setr_ps(b.box.maxX, b.box.maxY, b.box.maxZ, 0.0f);
        for (int j = from; j < to; ++j) {
            const unsigned f = static_cast<unsigned>(face(j));
            const LeafRecord& r = records[f];
            lo = _mm_min_ps(_mm_load_ps(r.v), lo);
            hi = _mm_max_ps(_mm_load_ps(r.v + 4), hi);
            all &= r.flags();
            if (mark >= 0) sides[f] = value;
        }
        alignas(16) float l[4], h[4];
        _mm_store_ps(l, lo);
        _mm_store_ps(h, hi);
        b.box = GmAxisAlignedBox(l[0], l[1], l[2], h[0], h[1], h[2]);
        b.floor = l[3];
#else
        float x0 = b.box.minX, y0 = b.box.minY, z0 = b.box.minZ, x1 = b.box.maxX, y1 = b.box.maxY, z1 = b.box.maxZ;
        float floor = b.floor;
        for (int j = from; j < to; ++j) {
            const int f = face(j);
            const LeafRecord& r = records[f];
            x0 = std::min(x0, r.v[0]);
            y0 = std::min(y0, r.v[1]);
            z0 = std::min(z0, r.v[2]);
            floor = std::min(floor, r.v[3]);
            x1 = std::max(x1, r.v[4]);
            y1 = std::max(y1, r.v[5]);
            z1 = std::max(z1, r.v[6]);
            all &= r.flags();
            if (mark >= 0) sides[f] = value;
        }
        b.box = GmAxisAlignedBox(x0, y0, z0, x1, y1, z1);
        b.floor = floor;
#endif
        b.flags = all;
    }

    // Stable partition of list[lo, hi) by side: the m left faces first. Left faces move down in
    // place, right ones go to the scratch range and are copied back after.
    void partition(int* list, int lo, int hi, int m) const {
        int* const in = list + lo;
        int* const right = scratch + lo;
        const unsigned char* const sides = side;
        const std::size_t k = static_cast<std::size_t>(hi - lo);
        std::size_t r = 0;  // right faces so far; the left ones number j - r
        for (std::size_t j = 0; j < k; ++j) {
            const unsigned f = static_cast<unsigned>(in[j]);
            in[j - r] = static_cast<int>(f);
            right[r] = static_cast<int>(f);
            r += sides[f];
        }
        int* const out = in + m;
        if (r > 32)
            std::memcpy(out, right, r * sizeof(int));
        else
            for (std::size_t j = 0; j < r; ++j) out[j] = right[j];
    }

    // The same split of the root's faces as gather and partition do it, in chunks shared by the
    // workers; partial bounds are combined in chunk order, which is the faces' order.
    void splitInChunks(int axis, const bool live[3], int n, int m, Bound& left, Bound& right) const {
        const ChunkLoop loop{true};
        const int chunks = chunkCount(n);
        std::vector<Bound> parts(2 * static_cast<size_t>(chunks));
        std::vector<int> lefts(static_cast<size_t>(chunks));
        const int* sorted = lists[axis];
        loop(chunks, [&](int c) {
            const int begin = chunkBegin(n, chunks, c), end = chunkBegin(n, chunks, c + 1);
            gather(sorted, begin, std::max(begin, std::min(end, m)), parts[2 * static_cast<size_t>(c)], 0);
            gather(sorted, std::min(end, std::max(begin, m)), end, parts[2 * static_cast<size_t>(c) + 1], 1);
        });
        for (int c = 0; c < chunks; ++c) {
            left.add(parts[2 * static_cast<size_t>(c)]);
            right.add(parts[2 * static_cast<size_t>(c) + 1]);
        }
        for (int a = 0; a < 3; ++a) {
            if (a == axis || !live[a]) continue;
            int* const list = lists[a];
            loop(chunks, [&](int c) {
                const int begin = chunkBegin(n, chunks, c), end = chunkBegin(n, chunks, c + 1);
                int count = 0;
                for (int j = begin; j < end; ++j) {
                    scratch[j] = list[j];
                    count += 1 - side[list[j]];
                }
                lefts[static_cast<size_t>(c)] = count;
            });
            std::vector<int> leftStart(static_cast<size_t>(chunks)), rightStart(static_cast<size_t>(chunks));
            for (int c = 0, l = 0, r = m; c < chunks; ++c) {
                leftStart[static_cast<size_t>(c)] = l;
                rightStart[static_cast<size_t>(c)] = r;
                const int size = chunkBegin(n, chunks, c + 1) - chunkBegin(n, chunks, c);
                l += lefts[static_cast<size_t>(c)];
                r += size - lefts[static_cast<size_t>(c)];
            }
            loop(chunks, [&](int c) {
                int l = leftStart[static_cast<size_t>(c)], r = rightStart[static_cast<size_t>(c)];
                for (int j = chunkBegin(n, chunks, c), end = chunkBegin(n, chunks, c + 1); j < end; ++j) {
                    const int f = scratch[j];
                    const int s = side[f];
                    list[l + ((r - l) & -s)] = f;
                    l += 1 - s;
                    r += s;
                }
            });
        }
    }

    // Node i of the range [lo, hi); order is the parent's split list (a node of two keeps it).
    void child(int i, int lo, int hi, const int* order, const Bound& b) const {
        const int k = hi - lo;
        if (k == 1) {
            setLeaf(i, order[lo]);
        } else if (k == 2) {
            setInternal(i, b);
            setLeaf(2 * i + 1, order[lo]);
            setLeaf(2 * i + 2, order[lo + 1]);
        } else {
            run(i, lo, hi, b);
        }
    }

    // Node i with k = hi - lo > 2 faces, whose bound is known.
    void run(int i, int lo, int hi, const Bound& b) const {
        const int k = hi - lo;
        setInternal(i, b);
        int order[3];
        b.box.getExtent().getIndexOrdering(order);
        const int axis = order[0];
        const int m = leftCount(k);
        const int* sorted = lists[axis];
        bool live[3];
        b.liveAxes(live);

        Bound leftBound, rightBound;
        // Children of one or two faces take their faces from the sorted list alone.
        const bool split = m > 2 || k - m > 2;
        if (parallel && i == 0 && chunkCount(k) > 1) {
            splitInChunks(axis, live, k, m, leftBound, rightBound);
        } else {
            gather(sorted, lo, lo + m, leftBound, split ? 0 : -1);
            gather(sorted, lo + m, hi, rightBound, split ? 1 : -1);
            if (split)
                for (int a = 0; a < 3; ++a)
                    if (a != axis && live[a]) partition(lists[a], lo, hi, m);
        }

        const int left = 2 * i + 1, right = 2 * i + 2;
        if (parallel && i < kParallelBuildNodes) {
            // Both subtrees as child tasks. The tasks refer to these closures, which are
            // complete before the hand-over is released.
            const auto buildRight = [=] {
                GmParallel::handOverAcquire();
                child(right, lo + m, hi, sorted, rightBound);
                GmParallel::handOverRelease();
            };
            const auto buildLeft = [=] {
                GmParallel::handOverAcquire();
                child(left, lo, lo + m, sorted, leftBound);
                GmParallel::handOverRelease();
            };
            GmParallel::handOverRelease();
            tbb::parallel_invoke(buildRight, buildLeft);
            GmParallel::handOverAcquire();
        } else {
            child(left, lo, lo + m, sorted, leftBound);
            child(right, lo + m, hi, sorted, rightBound);
        }
    }

    // The whole tree over n faces, whose bound is given.
    void root(int n, const Bound& b) const {
        if (n == 1) {
            setLeaf(0, 0);
        } else if (n == 2) {  // two faces keep their order
            setInternal(0, b);
            setLeaf(1, 0);
            setLeaf(2, 1);
        } else {
            run(0, 0, n, b);
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
    GmHugePages::resize(_nodes, static_cast<size_t>(std::max(getNumberNodes(), 0)));
    GmHugePages::resize(_leafFaces, static_cast<size_t>(std::max(_numberFaces, 0)));
}

GmBoundingVolumeHierarchy::GmBoundingVolumeHierarchy(GmTriangleMesh* mesh,
                                                     const std::vector<GmTVector<double>>& positions,
                                                     const GmDisabledData* disabled, const GmFrozenData* frozen)
    : _mesh(mesh) {
    _initialize();
    try {
        build(positions, disabled, frozen);
    } catch (...) {  // invalid input: the destructor does not run
        delete _meshTests;
        throw;
    }
}

GmBoundingVolumeHierarchy::GmBoundingVolumeHierarchy(GmTriangleMesh* mesh, double thickness,
                                                     const GmDisabledData* disabled, const GmFrozenData* frozen)
    : _mesh(mesh) {
    _initialize();
    try {
        build(thickness, disabled, frozen);
    } catch (...) {  // invalid input: the destructor does not run
        delete _meshTests;
        throw;
    }
}

GmBoundingVolumeHierarchy::GmBoundingVolumeHierarchy(GmTriangleMesh* mesh, const GmDisabledData* disabled,
                                                     const GmFrozenData* frozen)
    : _mesh(mesh) {
    _initialize();
    try {
        build(disabled, frozen);
    } catch (...) {  // invalid input: the destructor does not run
        delete _meshTests;
        throw;
    }
}

GmBoundingVolumeHierarchy::GmBoundingVolumeHierarchy(const GmBoundingVolumeHierarchy& other)
    : _mesh(other._mesh),
      _disabledData(other._disabledData),
      _ignoreFrozen(other._ignoreFrozen),
      _frozenData(other._frozenData),
      _meshTests(new GmIntersection::MeshTests(*other._meshTests)),
      _depth(other._depth),
      _numberFaces(other._numberFaces) {
    GmHugePages::copy(_nodes, other._nodes);
    GmHugePages::copy(_leafFaces, other._leafFaces);
    _selfContactRecords = other._selfContactRecords;
}

GmBoundingVolumeHierarchy& GmBoundingVolumeHierarchy::operator=(const GmBoundingVolumeHierarchy& other) {
    if (this == &other) return *this;
    _mesh = other._mesh;
    _disabledData = other._disabledData;
    _ignoreFrozen = other._ignoreFrozen;
    _selfContactRecords = other._selfContactRecords;
    _frozenData = other._frozenData;
    *_meshTests = *other._meshTests;
    _depth = other._depth;
    GmHugePages::copy(_nodes, other._nodes);
    GmHugePages::copy(_leafFaces, other._leafFaces);
    _numberFaces = other._numberFaces;
    _queryCache.reset();
    _rayCache.get().reset(false);
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
    _queryCache.reset();
    _rayCache.get().reset(true);
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
    GmBVHChecks::swept("build", _mesh, _numberFaces, positions);
    _build<1>(&positions, 0.0, disabled, frozen);
}

void GmBoundingVolumeHierarchy::build(double thickness, const GmDisabledData* disabled, const GmFrozenData* frozen) {
    GmBVHChecks::thickened("build", _mesh, _numberFaces, thickness);
    _build<2>(nullptr, thickness, disabled, frozen);
}

void GmBoundingVolumeHierarchy::build(const GmDisabledData* disabled, const GmFrozenData* frozen) {
    GmBVHChecks::plain("build", _mesh, _numberFaces);
    _build<0>(nullptr, 0.0, disabled, frozen);
}

template <int N>
void GmBoundingVolumeHierarchy::_build(const std::vector<GmTVector<double>>* positions, double thickness,
                                       const GmDisabledData* disabled, const GmFrozenData* frozen) {
    _queryCache.reset();
    _rayCache.get().reset(false);
    _disabledData = disabled;
    _frozenData = frozen;
    const int n = _mesh != nullptr ? std::min(_mesh->getNumberFaces(), _numberFaces) : 0;
    if (n <= 0 || _nodes.empty()) return;

    const size_t count = static_cast<size_t>(n);
    const std::unique_ptr<LeafRecord[]> leaves = rawArray<LeafRecord>(count);
    const std::unique_ptr<int[]> lists = rawArray<int>(3 * count);
    const BuildInitializeBody<N> init{_mesh, positions, thickness, disabled, frozen, leaves.get()};
    BuildTask task{_nodes.data(), _leafFaces.data(), n - 1, _mesh->getFaces().data(), leaves.get(),
                   {lists.get(), lists.get() + n, lists.get() + 2 * n}, nullptr, nullptr, false};
    Bound bound;
    // The sort's buffers serve the partitions afterwards.
    std::unique_ptr<SortItem[]> tmp;
    const auto prepare = [&](const ChunkLoop& loop) {
        // Leaf records, then the root's bound combined in face order.
        const int chunks = loop.chunks(n);
        std::vector<Bound> parts(static_cast<size_t>(chunks));
        loop(chunks, [&](int c) {
            const int begin = chunkBegin(n, chunks, c), end = chunkBegin(n, chunks, c + 1);
            const GmTriangleFace* const faces = _mesh->getFaces().data();
            const GmTVector<double>* const vertices = _mesh->getVertices().data();
            constexpr int kAhead = 8;  // vertex positions are fetched that many faces ahead
            for (int f = begin; f < end; ++f) {
                if (f + kAhead < end)
                    for (int k = 0; k < 3; ++k) __builtin_prefetch(vertices + faces[f + kAhead].vertices[k]);
                init(f);
            }
            task.gather([](int j) { return j; }, begin, end, parts[static_cast<size_t>(c)], -1);
        });
        for (const Bound& part : parts) bound.add(part);
        tmp = rawArray<SortItem>(2 * count);
        const GmAxisAlignedBox& box = bound.box;
        const double lo[3] = {box.minX, box.minY, box.minZ}, hi[3] = {box.maxX, box.maxY, box.maxZ};
        bool live[3];
        bound.liveAxes(live);
        for (int a = 0; a < 3; ++a)
            if (live[a]) sortAxis(*_mesh, n, a, lo[a], hi[a], tmp.get(), task.lists[a], loop);
        task.scratch = reinterpret_cast<int*>(tmp.get());
        task.side = reinterpret_cast<unsigned char*>(tmp.get() + count);
    };

    GmParallel::dispatch(
        [&] {
            prepare(ChunkLoop{false});
            task.root(n, bound);
        },
        [&] {
            task.parallel = true;
            prepare(ChunkLoop{true});
            task.root(n, bound);
        });
}

// ---- Refit ------------------------------------------------------------------------------

namespace {

// Below this many faces the refit stays on the calling thread even when multithreading is on:
// starting the arena's workers costs more than the second core saves (a 69K-face mesh refits
// in about 0.7 ms serially and took 7 to 16 % longer on two workers; 327K faces gained 1.7x).
constexpr int kParallelRefitFaces = 1 << 17;
// Levels of the blocks that the refit finishes before moving on (2^12 leaves: their nodes,
// about 320 KB, are still in the core's cache when their parents read them).
constexpr int kRefitBlockLevels = 12;

// Refit of nodes in heap order. Leaves take their vertices from the leaf table (read in
// order); inner nodes the union of their children's boxes and the AND of their flags.
template <int N>
struct RefitKernel {
    Node* nodes;
    const LeafFace* leaves;
    const GmTVector<double>* vertices;
    const GmTVector<double>* positions;
    double thickness;
    const GmDisabledData* disabled;
    const GmFrozenData* frozen;
    std::int64_t firstLeaf;
    std::int64_t numberNodes;

    QG_BVH_ALWAYS_INLINE void leaf(std::int64_t i) const {
        const LeafFace& e = leaves[i - firstLeaf];
        Node& node = nodes[i];
        leafBoxAt<N>(vertices, e.vertices, positions, thickness, node.box);
        node.disabled = faceDisabled(disabled, e.face);
        node.frozen = faceFrozen(frozen, e.face);
    }
    QG_BVH_ALWAYS_INLINE void inner(std::int64_t i) const {
        Node& node = nodes[i];
        const Node& l = nodes[2 * i + 1];
        const Node& r = nodes[2 * i + 2];
        node.box = l.box;
        unionInto(node.box, r.box);
        node.disabled = l.disabled && r.disabled;
        node.frozen = l.frozen && r.frozen;
    }
    // Nodes [first, last) of one level.
    void range(std::int64_t first, std::int64_t last) const {
        const std::int64_t split = std::min(std::max(first, firstLeaf), last);
        for (std::int64_t i = first; i < split; ++i) inner(i);
        constexpr std::int64_t kAhead = 8;  // vertices are fetched that many leaves ahead
        for (std::int64_t i = split; i < last; ++i) {
            if (i + kAhead < last) {
                const LeafFace& e = leaves[i + kAhead - firstLeaf];
                for (int k = 0; k < 3; ++k) {
                    __builtin_prefetch(vertices + e.vertices[k]);
                    if (N == 1) __builtin_prefetch(positions + e.vertices[k]);
                }
            }
            leaf(i);
        }
    }
    // The subtree of node r on level `level`, deepest level first.
    void subtree(std::int64_t r, int level, int depth) const {
        for (int l = depth; l >= level; --l) {
            const std::int64_t span = kPowersOfTwo[l - level];
            const std::int64_t first = span * (r + 1) - 1;
            range(first, std::min(first + span, numberNodes));
        }
    }
    // Levels from..to (from >= to) whole, deepest first.
    void levels(int from, int to) const {
        for (int l = from; l >= to; --l) range(kPowersOfTwo[l] - 1, std::min(kPowersOfTwo[l + 1] - 1, numberNodes));
    }
};

// Refit of a whole tree of the given depth: the blocks below one level, in heap order (on the
// calling thread, or spread over the arena's workers), then the levels above them.
template <int N>
void refitTree(const RefitKernel<N>& kernel, int depth, bool parallel) {
    const int blockLevel = std::max(0, std::min(depth - 1, depth - kRefitBlockLevels));
    const int blockLevelParallel = std::max(blockLevel, std::min(depth - 1, kParallelLevel));
    if (!parallel || depth < 1) {
        for (std::int64_t r = kPowersOfTwo[blockLevel] - 1; r < kPowersOfTwo[blockLevel + 1] - 1; ++r)
            kernel.subtree(r, blockLevel, depth);
        if (blockLevel > 0) kernel.levels(blockLevel - 1, 0);
        return;
    }
    const int level = blockLevelParallel;
    const int first = static_cast<int>(kPowersOfTwo[level] - 1);
    GmParallel::parallelForRanges(0, static_cast<int>(kPowersOfTwo[level]), [&](int begin, int end) {
        for (int j = begin; j < end; ++j) kernel.subtree(first + j, level, depth);
    });
    if (level > 0) kernel.levels(level - 1, 0);
}

}  // namespace

void GmBoundingVolumeHierarchy::refit(const std::vector<GmTVector<double>>& positions,
                                      const GmDisabledData* disabled, const GmFrozenData* frozen) {
    GmBVHChecks::swept("refit", _mesh, _numberFaces, positions);
    _refit<1>(&positions, 0.0, disabled, frozen);
}

void GmBoundingVolumeHierarchy::refit(double thickness, const GmDisabledData* disabled, const GmFrozenData* frozen) {
    GmBVHChecks::thickened("refit", _mesh, _numberFaces, thickness);
    _refit<2>(nullptr, thickness, disabled, frozen);
}

void GmBoundingVolumeHierarchy::refit(const GmDisabledData* disabled, const GmFrozenData* frozen) {
    GmBVHChecks::plain("refit", _mesh, _numberFaces);
    _refit<0>(nullptr, 0.0, disabled, frozen);
}

template <int N>
void GmBoundingVolumeHierarchy::_refit(const std::vector<GmTVector<double>>* positions, double thickness,
                                       const GmDisabledData* disabled, const GmFrozenData* frozen) {
    _queryCache.reset();
    _rayCache.get().reset(true);
    _disabledData = disabled;
    _frozenData = frozen;
    if (_nodes.empty() || _mesh == nullptr) return;
    const RefitKernel<N> kernel{_nodes.data(),
                                _leafFaces.data(),
                                _mesh->getVertices().data(),
                                N == 1 ? positions->data() : nullptr,
                                thickness,
                                GmDisabledData::isActive(disabled) ? disabled : nullptr,
                                GmFrozenData::isActive(frozen) ? frozen : nullptr,
                                getNumberInternalNodes(),
                                getNumberNodes()};
    if (_numberFaces < kParallelRefitFaces) {
        refitTree(kernel, _depth, false);
        return;
    }
    GmParallel::dispatch([&] { refitTree(kernel, _depth, false); }, [&] { refitTree(kernel, _depth, true); });
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

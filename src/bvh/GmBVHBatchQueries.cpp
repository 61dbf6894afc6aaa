#include <quarrygeom/bvh/GmBatchQueries.h>

#include <algorithm>
#include <cfloat>
#include <limits>

#include <quarrygeom/bvh/GmBoundingVolumeHierarchy.h>
#include <quarrygeom/core/GmParallel.h>
#include <quarrygeom/core/GmRay.h>
#include <quarrygeom/mesh/GmTriangleMesh.h>

namespace GmBatchQueries {

namespace {

typedef GmTVector<double> V3;

// Inputs per parallel work item: one item is a range of queries, so that the arena's split
// overhead stays small next to the searches.
constexpr std::size_t kItemQueries = 64;

bool runsSerially(std::size_t n) { return n <= kSerialBatch || !GmParallel::isParallel(); }

// query(i) for i in [0, n), on the parallel frame for large batches. query(i) writes only entry
// i of the outputs. The mesh's lazily filled caches are filled first on the parallel path (unless
// the caller has done so), so that the workers only read them.
template <class Query>
void forEach(const GmBoundingVolumeHierarchy& tree, std::size_t n, bool fillMeshCaches, const Query& query) {
    if (runsSerially(n)) {
        for (std::size_t i = 0; i < n; ++i) query(i);
        return;
    }
    if (const GmTriangleMesh* mesh = tree.getTriangleMesh(); mesh != nullptr && fillMeshCaches) mesh->fillCaches();
    const int items = static_cast<int>((n + kItemQueries - 1) / kItemQueries);
    GmParallel::runInArena([&] {
        GmParallel::parallelFor(0, items, [&](int item) {
            const std::size_t first = static_cast<std::size_t>(item) * kItemQueries;
            const std::size_t last = std::min(n, first + kItemQueries);
            for (std::size_t i = first; i < last; ++i) query(i);
        });
    });
}

}  // namespace

void findClosestPoints(const GmBoundingVolumeHierarchy& tree, const V3* points, std::size_t n,
                       const ClosestPointOutputs& out, bool includeDisabled, bool fillMeshCaches) {
    forEach(tree, n, fillMeshCaches, [&](std::size_t i) {
        V3 closest, normal;
        int face = -1;
        double s = 0.0, t = 0.0;
        const double d = tree.findClosestPoint(points[i], closest, normal, face, s, t, nullptr, includeDisabled);
        if (out.distance) out.distance[i] = d;
        if (out.point) out.point[i] = closest;
        if (out.normal) out.normal[i] = normal;
        if (out.face) out.face[i] = face;
        if (out.s) out.s[i] = s;
        if (out.t) out.t[i] = t;
    });
}

void findClosestVertices(const GmBoundingVolumeHierarchy& tree, const V3* points, std::size_t n, int* vertex,
                         double* distance, bool includeDisabled, bool fillMeshCaches) {
    forEach(tree, n, fillMeshCaches, [&](std::size_t i) {
        int v = -1;
        const double d = tree.findClosestVertex(points[i], v, includeDisabled);
        if (vertex) vertex[i] = v;
        if (distance) distance[i] = d;
    });
}

void isInsideMesh(const GmBoundingVolumeHierarchy& tree, const V3* points, std::size_t n, bool* inside,
                  bool includeDisabled, bool fillMeshCaches) {
    if (inside == nullptr) return;
    forEach(tree, n, fillMeshCaches, [&](std::size_t i) { inside[i] = tree.isInsideMesh(points[i], includeDisabled); });
}

void signedDistances(const GmBoundingVolumeHierarchy& tree, const V3* points, std::size_t n, double* distance,
                     int* face, V3* closest, bool includeDisabled, bool fillMeshCaches) {
    forEach(tree, n, fillMeshCaches, [&](std::size_t i) {
        V3 c, normal;
        int f = -1;
        bool pinched = false;
        const double d = tree.findClosestPoint(points[i], c, f, normal, pinched, false, includeDisabled);
        if (distance) distance[i] = d;
        if (face) face[i] = f;
        if (closest) closest[i] = c;
    });
}

void intersectFirst(const GmBoundingVolumeHierarchy& tree, const V3* origins, const V3* directions, std::size_t n,
                    const FirstHitOutputs& out, bool includeDisabled, bool fillMeshCaches) {
    const double nan = std::numeric_limits<double>::quiet_NaN();
    forEach(tree, n, fillMeshCaches, [&](std::size_t i) {
        GmPointIntersectionInfo hit;
        double t = std::numeric_limits<double>::infinity();
        const bool found = tree.intersectFirst(GmRay(origins[i], directions[i]), hit, t, includeDisabled);
        if (out.face) out.face[i] = found ? hit.triangleIndex : -1;
        if (out.t) out.t[i] = found ? t : std::numeric_limits<double>::infinity();
        if (out.point) out.point[i] = found ? hit.point : V3(nan, nan, nan);
        if (out.barycentric) out.barycentric[i] = found ? hit.barycentric : V3(nan, nan, nan);
    });
}

std::size_t intersectAll(const GmBoundingVolumeHierarchy& tree, const V3* origins, const V3* directions,
                         std::size_t n, std::vector<GmPointIntersectionInfo>& hits, std::vector<std::size_t>& offsets,
                         bool includeDisabled, bool fillMeshCaches) {
    // One record vector per block of rays, so that the concatenation keeps the ray order.
    const std::size_t blocks = (n + kItemQueries - 1) / kItemQueries;
    std::vector<std::vector<GmPointIntersectionInfo>> blockHits(blocks);
    offsets.assign(n + 1, 0);
    auto runBlock = [&](std::size_t b) {
        std::vector<GmPointIntersectionInfo>& v = blockHits[b];
        const std::size_t first = b * kItemQueries, last = std::min(n, first + kItemQueries);
        for (std::size_t i = first; i < last; ++i) {
            tree.intersect(GmRay(origins[i], directions[i]), v, true, includeDisabled);
            offsets[i + 1] = v.size();  // within the block for now
        }
    };
    if (runsSerially(n)) {
        for (std::size_t b = 0; b < blocks; ++b) runBlock(b);
    } else {
        if (const GmTriangleMesh* mesh = tree.getTriangleMesh(); mesh != nullptr && fillMeshCaches)
            mesh->fillCaches();
        GmParallel::runInArena(
            [&] { GmParallel::parallelFor(0, static_cast<int>(blocks), [&](int b) { runBlock(std::size_t(b)); }); });
    }
    std::size_t total = 0;
    for (std::size_t b = 0; b < blocks; ++b) {
        const std::size_t first = b * kItemQueries, last = std::min(n, first + kItemQueries);
        for (std::size_t i = first; i < last; ++i) offsets[i + 1] += total;
        total += blockHits[b].size();
    }
    hits.clear();
    hits.reserve(total);
    for (std::vector<GmPointIntersectionInfo>& v : blockHits) hits.insert(hits.end(), v.begin(), v.end());
    return total;
}

}  // namespace GmBatchQueries

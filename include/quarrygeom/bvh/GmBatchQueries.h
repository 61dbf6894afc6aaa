#pragma once

#include <cstddef>
#include <vector>

#include <quarrygeom/core/GmExport.h>
#include <quarrygeom/core/GmTVector.h>
#include <quarrygeom/primitives/GmInterferenceInfo.h>

class GmBoundingVolumeHierarchy;

// Point and ray queries over many inputs at once.
//
// Each function answers n queries against one hierarchy; entry i of every output is exactly
// what the single query of GmBoundingVolumeHierarchy gives for input i (named below). The
// inputs and outputs are plain arrays, so that a host can hand over its own storage (a
// std::vector's data(), a NumPy array) without a copy: GmTVector<double> is three packed
// doubles, so an array of n points is 3n doubles, x y z per point.
//
// An output pointer may be null when that result is not wanted; every other output must have
// room for n entries. Outputs must not overlap the inputs.
//
// Threads: with multithreading on and more than a handful of inputs the queries are spread over
// the parallel frame (GmParallel: a task arena of the configured worker count). The host must not
// move the mesh during the call. Small batches run on the calling thread. The results do not
// depend on the path taken.
//
// fillMeshCaches: the workers only read the mesh's lazily filled caches (normals, areas), so a
// parallel batch first fills the missing ones (GmTriangleMesh::fillCaches), a pass over the whole
// mesh (a few milliseconds for a million faces). A host that has called fillCaches() since it
// last moved the mesh may pass false to skip that pass.
namespace GmBatchQueries {

// Batches of at most this many inputs run on the calling thread.
constexpr std::size_t kSerialBatch = 16;

// Outputs of findClosestPoints; each may be null.
struct ClosestPointOutputs {
    double* distance = nullptr;           // returned distance (negative when p lies behind the face)
    GmTVector<double>* point = nullptr;   // closest point
    GmTVector<double>* normal = nullptr;  // unit normal of the face found
    int* face = nullptr;                  // face found, -1 when no face qualifies
    double* s = nullptr;                  // parameters of the closest point on the face
    double* t = nullptr;
};

// tree.findClosestPoint(p, closest, normal, face, s, t, nullptr, includeDisabled) for every p.
// With no qualifying face: distance DBL_MAX, face -1 (point, normal, s, t as the single call
// leaves them: zero).
QUARRYGEOM_API void findClosestPoints(const GmBoundingVolumeHierarchy& tree, const GmTVector<double>* points,
                                      std::size_t n, const ClosestPointOutputs& out, bool includeDisabled,
                                      bool fillMeshCaches = true);

// tree.findClosestVertex(p, vertex, includeDisabled) for every p: the vertex (-1 when none) and
// its distance (DBL_MAX when none).
QUARRYGEOM_API void findClosestVertices(const GmBoundingVolumeHierarchy& tree, const GmTVector<double>* points,
                                        std::size_t n, int* vertex, double* distance, bool includeDisabled,
                                        bool fillMeshCaches = true);

// tree.isInsideMesh(p, includeDisabled) for every p (a point on the surface is inside).
QUARRYGEOM_API void isInsideMesh(const GmBoundingVolumeHierarchy& tree, const GmTVector<double>* points,
                                 std::size_t n, bool* inside, bool includeDisabled, bool fillMeshCaches = true);

// Signed distance, negative inside: tree.findClosestPoint(p, closest, face, normal, pinched,
// false, includeDisabled) for every p. Without a face: DBL_MAX and face -1.
QUARRYGEOM_API void signedDistances(const GmBoundingVolumeHierarchy& tree, const GmTVector<double>* points,
                                    std::size_t n, double* distance, int* face, GmTVector<double>* closest,
                                    bool includeDisabled, bool fillMeshCaches = true);

// Outputs of intersectFirst; each may be null.
struct FirstHitOutputs {
    int* face = nullptr;                       // face hit, -1 for a miss
    double* t = nullptr;                       // ray parameter (hit = origin + t * direction); +inf for a miss
    GmTVector<double>* point = nullptr;        // hit point; NaN for a miss
    GmTVector<double>* barycentric = nullptr;  // weights of the face's vertices 1, 2, 3; NaN for a miss
};

// Nearest hit of each ray (origins[i], directions[i]), as GmRay: tree.intersectFirst for each
// ray (of the records that tree.intersect gives, the one with the smallest ray parameter, ties
// going to the smallest face index).
QUARRYGEOM_API void intersectFirst(const GmBoundingVolumeHierarchy& tree, const GmTVector<double>* origins,
                                   const GmTVector<double>* directions, std::size_t n, const FirstHitOutputs& out,
                                   bool includeDisabled, bool fillMeshCaches = true);

// Every hit of every ray: hits holds, ray after ray, the records of
// tree.intersect(ray_i, ..., includeDisabled) in their own order, and offsets (n + 1 entries)
// where each ray's records start: ray i owns hits[offsets[i] .. offsets[i + 1]). Both vectors are
// replaced. Returns the number of hits.
QUARRYGEOM_API std::size_t intersectAll(const GmBoundingVolumeHierarchy& tree, const GmTVector<double>* origins,
                                        const GmTVector<double>* directions, std::size_t n,
                                        std::vector<GmPointIntersectionInfo>& hits, std::vector<std::size_t>& offsets,
                                        bool includeDisabled, bool fillMeshCaches = true);

}  // namespace GmBatchQueries

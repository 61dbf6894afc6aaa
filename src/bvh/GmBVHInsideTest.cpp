// Inside test by ray parity: the lazily built check of the mesh, the rule that decides when to
// build it, and the query that counts the crossings of one axis ray. Also home of the point
// queries' lazily built state, which holds the searches' box copy too.

#include <algorithm>
#include <atomic>
#include <cfloat>
#include <chrono>
#include <cmath>
#include <cstdint>
#include <mutex>

#include <quarrygeom/bvh/GmBoundingVolumeHierarchy.h>
#include <quarrygeom/mesh/GmDisabledData.h>
#include <quarrygeom/mesh/GmTriangleMesh.h>

#include "GmBVHInsideTest.h"
#include "GmBVHSearchBoxes.h"

using namespace GmBVHInside;

namespace {

enum InsideStatus { kUnchecked = 0, kCertified = 1, kRefused = 2 };

// Before a check has run on a hierarchy its cost is estimated from the face count (about the
// serial cost per face measured on the benchmark meshes); afterwards the measured cost is used.
constexpr std::int64_t kEstimatedCheckNanosPerFace = 1000;
constexpr std::int64_t kMinSearchesPerCheck = 8;

std::int64_t nanosSince(std::chrono::steady_clock::time_point start) {
    return std::chrono::duration_cast<std::chrono::nanoseconds>(std::chrono::steady_clock::now() - start).count();
}

}  // namespace

struct GmBoundingVolumeHierarchy::QueryCache::State {
    std::mutex mutex;  // held while the check runs
    std::atomic<int> status{kUnchecked};
    // Nanoseconds spent in closest-point searches of inside queries since the last reset.
    std::atomic<std::int64_t> spent{0};
    // Nanoseconds the last check took (-1: none ran yet); kept over resets.
    std::atomic<std::int64_t> checkCost{-1};
    // Written before the status turns kCertified (release), read after seeing it (acquire).
    Certificate certificate;
    GmBVHDetail::SearchBoxCache search;

    // Runs the check unless it has run since the last reset. Without wait, gives up when another
    // thread is running it.
    void check(const GmBoundingVolumeHierarchy& tree, bool wait) {
        const std::unique_lock<std::mutex> lock = GmBVHDetail::lockCache(mutex, wait);
        if (!lock.owns_lock()) return;
        if (status.load(std::memory_order_relaxed) != kUnchecked) return;
        const std::chrono::steady_clock::time_point start = std::chrono::steady_clock::now();
        Certificate found;
        const bool ok = certifyRayParity(tree, found);
        checkCost.store(nanosSince(start), std::memory_order_relaxed);
        if (ok) certificate = found;
        status.store(ok ? kCertified : kRefused, std::memory_order_release);
    }
};

GmBoundingVolumeHierarchy::QueryCache::QueryCache() : _state(new State) {}
GmBoundingVolumeHierarchy::QueryCache::QueryCache(const QueryCache&) : _state(new State) {}
GmBoundingVolumeHierarchy::QueryCache& GmBoundingVolumeHierarchy::QueryCache::operator=(const QueryCache& other) {
    if (this != &other) reset();
    return *this;
}
GmBoundingVolumeHierarchy::QueryCache::~QueryCache() { delete _state; }

void GmBoundingVolumeHierarchy::QueryCache::reset() {
    std::lock_guard<std::mutex> lock(_state->mutex);
    _state->status.store(kUnchecked, std::memory_order_relaxed);
    _state->spent.store(0, std::memory_order_relaxed);
    _state->search.reset();
}

const GmBVHDetail::SearchBoxes* GmBoundingVolumeHierarchy::_searchBoxes() const {
    return _queryCache.state().search.use(_nodes);
}

bool GmBoundingVolumeHierarchy::preparePointSearches() const {
    return _queryCache.state().search.make(_nodes, true) != nullptr;
}

// ---- Queries ----------------------------------------------------------------------------

bool GmBoundingVolumeHierarchy::insideQueriesPrepared(bool includeDisabled) const {
    const QueryCache::State& state = _queryCache.state();
    if (state.status.load(std::memory_order_acquire) != kCertified) return false;
    return includeDisabled || (!state.certificate.anyNodeDisabled && !GmDisabledData::isActive(_disabledData));
}

bool GmBoundingVolumeHierarchy::prepareInsideQueries(bool includeDisabled) const {
    if (_mesh == nullptr || _nodes.empty()) return false;
    QueryCache::State& state = _queryCache.state();
    if (state.status.load(std::memory_order_acquire) == kUnchecked) state.check(*this, true);
    return insideQueriesPrepared(includeDisabled);
}

namespace {

// Whether p lies exactly on the closed triangle abc (of positive area): in its plane, and inside
// or on the boundary of its projection along an axis in which the projection has area.
bool exactlyOnTriangle(const V3& a, const V3& b, const V3& c, const V3& p) {
    if (orient3(a, b, c, p) != 0) return false;
    for (int drop = 0; drop < 3; ++drop) {
        if (orient2Dropped(a, b, c, drop) == 0) continue;
        const int o1 = orient2Dropped(a, b, p, drop), o2 = orient2Dropped(b, c, p, drop),
                  o3 = orient2Dropped(c, a, p, drop);
        return !((o1 < 0 || o2 < 0 || o3 < 0) && (o1 > 0 || o2 > 0 || o3 > 0));
    }
    return false;
}

// Whether p lies exactly on a face of the mesh: the faces whose boxes hold p are those an axis
// ray from p reaches first, so one ray's walk visits them all.
bool exactlyOnSurface(const GmBoundingVolumeHierarchy::Node* nodes, int numberNodes, const GmTriangleMesh& mesh,
                      const V3& p) {
    const V3* v = mesh.getVertices().data();
    bool on = false;
    castAxisRay(0, nodes, numberNodes, mesh, p, 0.0, [&](int face) {
        const GmTriangleFace& f = mesh.getFace(face);
        on = on || exactlyOnTriangle(v[f.vertices[0]], v[f.vertices[1]], v[f.vertices[2]], p);
        return true;
    }, [](int) {});
    return on;
}

}  // namespace

int GmBoundingVolumeHierarchy::insideByRayParity(const GmTVector<double>& p, bool includeDisabled) const {
    // Outside the root box (or not finite): never inside. (isInside, without the call.)
    if (_nodes.empty()) return 0;
    const GmAxisAlignedBox& root = _nodes[0].box;
    if (!(root.minX <= p.x && p.x <= root.maxX && root.minY <= p.y && p.y <= root.maxY && root.minZ <= p.z &&
          p.z <= root.maxZ))
        return 0;
    const QueryCache::State& state = _queryCache.state();
    if (state.status.load(std::memory_order_acquire) != kCertified) return -1;
    const Certificate& certificate = state.certificate;
    if (!includeDisabled && (certificate.anyNodeDisabled || GmDisabledData::isActive(_disabledData))) return -1;

    // The ray towards the nearest face of the root box first: it meets the fewest boxes.
    const double room[6] = {root.maxX - p.x, root.maxY - p.y, root.maxZ - p.z,
                            p.x - root.minX, p.y - root.minY, p.z - root.minZ};
    int first = 0;
    for (int d = 1; d < 6; ++d)
        if (room[d] < room[first]) first = d;
    // Away from the surface (beyond the certificate's delta) the first ray that meets no edge
    // or vertex decides; near it, the same exact crossings without the distance test.
    double delta = certificate.delta;
    for (int pass = 0; pass < 2; ++pass, delta = 0.0) {
        bool near = false;
        for (int k = 0; k < 6 && !near; ++k) {
            const int d = k == 0 ? first : (k <= first ? k - 1 : k);
            bool odd = false;
            const RayOutcome r = castAxisRay(
                d, _nodes.data(), static_cast<int>(_nodes.size()), *_mesh, p, delta, [](int) { return false; },
                [&odd](int) { odd = !odd; });
            near = r == kRayNearSurface;
            if (r == kRayDecided) return odd ? 1 : 0;
        }
        if (!near) break;
    }
    // Every axis ray met an edge or a vertex, or started on a face: on the surface counts as inside.
    return exactlyOnSurface(_nodes.data(), static_cast<int>(_nodes.size()), *_mesh, p) ? 1 : -1;
}

namespace {

// True when one of the six axis rays from p meets no face of the closed mesh at all (exactly,
// a touch counting as a meeting): then p is outside.
bool exactRayMissesAll(const GmBoundingVolumeHierarchy::Node* nodes, int numberNodes, const GmTriangleMesh& mesh,
                       const GmTVector<double>& p) {
    for (int d = 0; d < 6; ++d) {
        bool met = false;
        const RayOutcome r = castAxisRay(
            d, nodes, numberNodes, mesh, p, 0.0, [](int) { return false; }, [&met](int) { met = true; });
        if (r == kRayDecided && !met) return true;
    }
    return false;
}

}  // namespace

double GmBoundingVolumeHierarchy::_closestPointInside(const GmTVector<double>& p, ClosestPointInfo& info,
                                                      bool includeDisabled) const {
    QueryCache::State& state = _queryCache.state();
    // Count only searches that a check could spare: on a closed mesh without a check yet, with
    // every face taking part, for points in the root box.
    const bool count = state.status.load(std::memory_order_relaxed) == kUnchecked &&
                       (includeDisabled || !GmDisabledData::isActive(_disabledData)) && isMeshClosed(true) &&
                       isInside(p);
    if (!count) return _closestPointSigned(p, info, true, includeDisabled, -1);

    const std::chrono::steady_clock::time_point start = std::chrono::steady_clock::now();
    const double d = _closestPointSigned(p, info, true, includeDisabled, -1);
    // Near the surface (within 1e-7 of the root box's size and position) the search's sign rests
    // on rounded distances and normals; and where its axis-ray seeding finds no face, "outside"
    // holds only if an exact axis ray confirms it. In both cases the exact crossing count
    // settles the answer, checking the mesh now.
    const GmAxisAlignedBox& root = _nodes[0].box;
    const double reach = 1e-7 * (double(root.maxX) - double(root.minX) + double(root.maxY) - double(root.minY) +
                                 double(root.maxZ) - double(root.minZ) + std::fabs(p.x) + std::fabs(p.y) +
                                 std::fabs(p.z));
    if (std::fabs(d) <= reach ||
        (d > 0.0 && !exactRayMissesAll(_nodes.data(), static_cast<int>(_nodes.size()), *_mesh, p))) {
        state.check(*this, true);
        const int byRays = insideByRayParity(p, includeDisabled);
        if (byRays == 1 && !(d <= 0.0)) {
            const double inside = _closestPointSigned(p, info, false, includeDisabled, -1);
            return info.face >= 0 ? -std::fabs(inside) : -0.0;
        }
        if (byRays == 0 && d <= 0.0) return d == 0.0 ? DBL_MIN : -d;
    }
    std::int64_t budget = state.checkCost.load(std::memory_order_relaxed);
    if (budget < 0) budget = kEstimatedCheckNanosPerFace * _numberFaces;
    // One search counts for at most an eighth of the check (a thread descheduled in the middle
    // of it does not buy the check), so fewer than eight searches per refit never run it.
    const std::int64_t spent = std::min(nanosSince(start), budget / kMinSearchesPerCheck);
    const std::int64_t total = state.spent.fetch_add(spent, std::memory_order_relaxed) + spent;
    if (total >= budget) state.check(*this, false);
    return d;
}

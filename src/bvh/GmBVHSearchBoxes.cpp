// Compact box copy of the nearest-first point searches: rounding the node boxes onto the grid,
// and the rule that decides when the copy is made.

#include <algorithm>
#include <cmath>

#include "../core/GmHugePages.h"
#include "GmBVHSearchBoxes.h"

namespace GmBVHDetail {

namespace {

// Making the copy costs about 10-70 ns per face (the most the first time, when its storage is
// faulted in) and saves 0.1-0.3 us per search: it pays after about one search per 8 faces.
constexpr long long kMinSearches = 64;
constexpr long long kFacesPerSearch = 8;

}  // namespace

bool SearchBoxes::assign(const std::vector<GmBoundingVolumeHierarchy::Node>& nodes) {
    if (round(nodes)) return true;
    _lines.clear();
    return false;
}

bool SearchBoxes::round(const std::vector<GmBoundingVolumeHierarchy::Node>& nodes) {
    if (nodes.empty()) return false;
    const GmAxisAlignedBox& root = nodes[0].box;
    const double lo[3] = {root.minX, root.minY, root.minZ};
    const double hi[3] = {root.maxX, root.maxY, root.maxZ};
    double widest = 0.0;
    for (int a = 0; a < 3; ++a) {
        if (!(std::isfinite(lo[a]) && std::isfinite(hi[a]) && lo[a] <= hi[a])) return false;
        widest = std::max(widest, hi[a] - lo[a]);
    }
    for (int a = 0; a < 3; ++a) {
        // A flat axis gets the widest axis's step, so that its boxes stay thin.
        const double extent = hi[a] - lo[a] > 0.0 ? hi[a] - lo[a] : widest;
        _origin[a] = lo[a];
        _step[a] = extent > 0.0 ? extent / kSteps : 1.0;
        _inverseStep[a] = 1.0 / _step[a];
        if (!(std::isfinite(_step[a]) && std::isfinite(_inverseStep[a]) && _inverseStep[a] > 0.0)) return false;
    }

    const size_t count = nodes.size();
    GmHugePages::resize(_lines, (count + 1 + 3) / 4);  // the same size after a refit: no fill
    for (size_t j = 0; j < count; ++j) {
        const GmBoundingVolumeHierarchy::Node& node = nodes[j];
        SearchLine& line = _lines[(j + 1) >> 2];
        const size_t lane = (j + 1) & 3;
        const double mn[3] = {node.box.minX, node.box.minY, node.box.minZ};
        const double mx[3] = {node.box.maxX, node.box.maxY, node.box.maxZ};
        for (int a = 0; a < 3; ++a) {
            // NaN fails both tests; infinite bounds cannot lie inside a finite root box.
            if (!(mn[a] <= mx[a] && mn[a] >= lo[a] && mx[a] <= hi[a])) return false;
            // Grid coordinates are not negative here, so truncation rounds down; the upper
            // bound takes one step more than its ceiling would.
            const int l = static_cast<int>((mn[a] - _origin[a]) * _inverseStep[a]) - 1;
            const int h = static_cast<int>((mx[a] - _origin[a]) * _inverseStep[a]) + 2;
            line.lo[a][lane] = static_cast<std::uint16_t>(std::max(l, 0));
            line.hi[a][lane] = static_cast<std::uint16_t>(std::min(h, kTop));
        }
        line.disabled[lane] = node.disabled ? 1 : 0;
    }
    // The lanes before node 0 and after the last node are never read.
    return true;
}

const SearchBoxes* SearchBoxCache::use(const std::vector<GmBoundingVolumeHierarchy::Node>& nodes) {
    const int status = _status.load(std::memory_order_acquire);
    if (status == kReady) return &_boxes;
    if (status == kRefused) return nullptr;
    const long long faces = static_cast<long long>(nodes.size() + 1) / 2;
    const long long searches = _searches.fetch_add(1, std::memory_order_relaxed) + 1;
    if (searches < std::max(kMinSearches, faces / kFacesPerSearch)) return nullptr;
    return make(nodes, false);
}

const SearchBoxes* SearchBoxCache::make(const std::vector<GmBoundingVolumeHierarchy::Node>& nodes, bool wait) {
    const std::unique_lock<std::mutex> lock = lockCache(_mutex, wait);
    if (!lock.owns_lock()) return nullptr;
    int status = _status.load(std::memory_order_relaxed);
    if (status == kAbsent) {
        status = _boxes.assign(nodes) ? kReady : kRefused;
        _status.store(status, std::memory_order_release);
    }
    return status == kReady ? &_boxes : nullptr;
}

void SearchBoxCache::reset() {
    std::lock_guard<std::mutex> lock(_mutex);
    _status.store(kAbsent, std::memory_order_relaxed);
    _searches.store(0, std::memory_order_relaxed);
}

}  // namespace GmBVHDetail

#pragma once

// Compact copy of a face hierarchy's boxes for the nearest-first point searches (not installed).
//
// Every box is rounded outwards onto a 16-bit grid over the root box, and four nodes share one
// 64-byte line: node j is lane (j + 1) % 4 of line (j + 1) / 4. The grandchildren 4i + 3 ...
// 4i + 6 of node i then fill line i + 1, and the two children of a node share a line, so a
// search step reads one line where the node array costs three, and a 1M-face tree's boxes take
// 32 MB instead of 80. A distance measured on the grid is never larger than the node box's, so a
// search enters every subtree that it would enter on the node boxes.

#include <atomic>
#include <cmath>
#include <cstdint>
#include <mutex>
#include <vector>

#if defined(__SSE2__)
#include <emmintrin.h>
#endif

#include "GmBVHInternal.h"

namespace GmBVHDetail {

struct alignas(64) SearchLine {
    std::uint16_t lo[3][4];  // per axis, per lane
    std::uint16_t hi[3][4];
    std::uint8_t disabled[4];
};

class SearchBoxes {
public:
    // Grid steps over the root box; a box's bounds are moved out by one more step, so that the
    // rounding of a query's grid coordinates cannot make a distance too large.
    static constexpr double kSteps = 65533.0;
    static constexpr int kTop = 65535;

    // Rounds the node boxes onto the grid. False (and left empty) when a box is not finite or
    // is inverted: then the searches keep to the node boxes.
    bool assign(const std::vector<GmBoundingVolumeHierarchy::Node>& nodes);

    const SearchLine* lines() const { return _lines.data(); }
    const double* origin() const { return _origin; }
    const double* step() const { return _step; }
    const double* inverseStep() const { return _inverseStep; }

private:
    bool round(const std::vector<GmBoundingVolumeHierarchy::Node>& nodes);

    std::vector<SearchLine> _lines;
    double _origin[3] = {0.0, 0.0, 0.0};
    double _step[3] = {1.0, 1.0, 1.0};
    double _inverseStep[3] = {1.0, 1.0, 1.0};
};

// The box copy of one hierarchy, made once enough searches have run since the last reset to pay
// for it, or when asked.
class SearchBoxCache {
public:
    // The copy, or null while it does not pay yet, while another thread makes it, or when the
    // boxes cannot be rounded. Counts one search.
    const SearchBoxes* use(const std::vector<GmBoundingVolumeHierarchy::Node>& nodes);
    // The copy, made now unless it exists (null when the boxes cannot be rounded, or without
    // wait while another thread makes it).
    const SearchBoxes* make(const std::vector<GmBoundingVolumeHierarchy::Node>& nodes, bool wait);
    // Forget the copy (after a build, a refit or a mask change); not concurrent with use().
    void reset();

private:
    enum Status { kAbsent = 0, kReady = 1, kRefused = 2 };
    std::mutex _mutex;  // held while the copy is made
    std::atomic<int> _status{kAbsent};
    std::atomic<long long> _searches{0};
    SearchBoxes _boxes;  // written before _status turns kReady (release)
};

// Box source of walkNearestFirst over a SearchBoxes copy: per axis the query's grid cell (as
// integers, clamped to the grid) and its distance outside the grid in steps.
class GridBoxSource {
public:
    GridBoxSource(const SearchBoxes& boxes, const GmTVector<double>& p) : _lines(boxes.lines()) {
        for (int a = 0; a < 3; ++a) {
            const double u = (p[a] - boxes.origin()[a]) * boxes.inverseStep()[a];
            const double inside = std::min(std::max(u, 0.0), static_cast<double>(SearchBoxes::kTop));
            _outside[a] = u < 0.0 ? -u : (u > SearchBoxes::kTop ? u - SearchBoxes::kTop : 0.0);
            _step[a] = boxes.step()[a];
#if defined(__SSE2__)
            _floor[a] = _mm_set1_epi16(static_cast<short>(static_cast<std::uint16_t>(std::floor(inside))));
            _ceil[a] = _mm_set1_epi16(static_cast<short>(static_cast<std::uint16_t>(std::ceil(inside))));
#else
            _floor[a] = static_cast<int>(std::floor(inside));
            _ceil[a] = static_cast<int>(std::ceil(inside));
#endif
        }
    }

    bool disabled(long long node) const { return line(node).disabled[lane(node)] != 0; }

    template <int Count>
    QG_BVH_ALWAYS_INLINE void prefetch(long long first, int /*numberNodes*/) const {
        prefetchBytes<sizeof(SearchLine)>(&line(first));
    }

    // Squared distances of nodes first ... first + Count - 1 (Count 2 or 4, all in one line).
    template <int Count>
    QG_BVH_ALWAYS_INLINE void measure(long long first, double* d) const {
        const SearchLine& l = line(first);
        const int lane0 = Count == 4 ? 0 : lane(first);
        double all[4];
#if defined(__SSE2__)
        // All four lanes at once, whatever Count.
        __m128d sum01 = _mm_setzero_pd(), sum23 = _mm_setzero_pd();
        for (int a = 0; a < 3; ++a) {
            const __m128i lo = _mm_loadl_epi64(reinterpret_cast<const __m128i*>(l.lo[a]));
            const __m128i hi = _mm_loadl_epi64(reinterpret_cast<const __m128i*>(l.hi[a]));
            // Steps between the query's cell and the box: at most one of the two is not zero.
            const __m128i gap = _mm_or_si128(_mm_subs_epu16(lo, _ceil[a]), _mm_subs_epu16(_floor[a], hi));
            const __m128i gap32 = _mm_unpacklo_epi16(gap, _mm_setzero_si128());
            const __m128d outside = _mm_set1_pd(_outside[a]), step = _mm_set1_pd(_step[a]);
            const __m128d g01 = _mm_mul_pd(_mm_add_pd(_mm_cvtepi32_pd(gap32), outside), step);
            const __m128d g23 = _mm_mul_pd(_mm_add_pd(_mm_cvtepi32_pd(_mm_shuffle_epi32(gap32, 0x4e)), outside), step);
            sum01 = _mm_add_pd(sum01, _mm_mul_pd(g01, g01));
            sum23 = _mm_add_pd(sum23, _mm_mul_pd(g23, g23));
        }
        _mm_storeu_pd(all, sum01);
        _mm_storeu_pd(all + 2, sum23);
#else
        for (int j = 0; j < 4; ++j) {
            double sum = 0.0;
            for (int a = 0; a < 3; ++a) {
                const int lo = l.lo[a][j], hi = l.hi[a][j];
                const int gap = lo > _ceil[a] ? lo - _ceil[a] : (_floor[a] > hi ? _floor[a] - hi : 0);
                const double g = (gap + _outside[a]) * _step[a];
                sum += g * g;
            }
            all[j] = sum;
        }
#endif
        for (int j = 0; j < Count; ++j) d[j] = all[lane0 + j];
    }

private:
    static int lane(long long node) { return static_cast<int>((node + 1) & 3); }
    const SearchLine& line(long long node) const { return _lines[(node + 1) >> 2]; }

    const SearchLine* _lines;
#if defined(__SSE2__)
    __m128i _floor[3], _ceil[3];
#else
    int _floor[3], _ceil[3];
#endif
    double _outside[3];
    double _step[3];
};

}  // namespace GmBVHDetail

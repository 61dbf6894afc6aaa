#pragma once

#include <cstddef>
#include <cstdint>
#include <cstring>
#include <vector>

#if defined(__SSE2__)
#include <emmintrin.h>
#endif

#include <quarrygeom/core/GmTVector.h>

class GmTriangleMesh;

// Argument checks at the entry of the hierarchy's public operations. Each costs O(1), except
// the finiteness scans of build and refit, which read the positions once more (they are read
// by the operation right after, so the scan mostly warms them). A failed check throws
// std::invalid_argument naming the operation and the offending index or value.
namespace GmBVHChecks {

// The mesh must have finished construction, and have the face count the hierarchy was made for.
void mesh(const char* op, const GmTriangleMesh* mesh, int treeFaces);

// Position vectors: at least one entry per mesh vertex.
void positionCount(const char* op, const char* what, const std::vector<GmTVector<double>>& positions,
                   const GmTriangleMesh& mesh);

// Thickness and proximity distance: >= 0 (NaN is rejected, +inf accepted).
void distance(const char* op, const char* what, double value);

[[noreturn]] void throwNonFinite(const char* op, const char* what, const GmTVector<double>* p, std::size_t n);

static_assert(sizeof(GmTVector<double>) == 3 * sizeof(double), "positions are packed triples");

// True when every coordinate of p[0 .. n) is finite. A double is not finite exactly when its
// exponent bits are all set, i.e. when adding one to the exponent field carries into the sign
// bit. Integer and/add/or over independent lanes (two doubles per SSE2 register) keep the scan
// at about half a cycle per coordinate.
inline bool allFinite(const GmTVector<double>* p, std::size_t n) {
    constexpr std::uint64_t kExp = 0x7ff0000000000000ull, kOne = 0x0010000000000000ull;
    const unsigned char* bytes = reinterpret_cast<const unsigned char*>(p);
    const std::size_t count = 3 * n;
    std::size_t i = 0;
    std::uint64_t acc = 0;
#if defined(__SSE2__)
    const __m128i exp = _mm_set1_epi64x(static_cast<long long>(kExp));
    const __m128i one = _mm_set1_epi64x(static_cast<long long>(kOne));
    __m128i a0 = _mm_setzero_si128(), a1 = a0, a2 = a0, a3 = a0;
    for (; i + 8 <= count; i += 8) {
        const __m128i* q = reinterpret_cast<const __m128i*>(bytes + 8 * i);
        a0 = _mm_or_si128(a0, _mm_add_epi64(_mm_and_si128(_mm_loadu_si128(q), exp), one));
        a1 = _mm_or_si128(a1, _mm_add_epi64(_mm_and_si128(_mm_loadu_si128(q + 1), exp), one));
        a2 = _mm_or_si128(a2, _mm_add_epi64(_mm_and_si128(_mm_loadu_si128(q + 2), exp), one));
        a3 = _mm_or_si128(a3, _mm_add_epi64(_mm_and_si128(_mm_loadu_si128(q + 3), exp), one));
    }
    // Sign bits of the 32-bit lanes: bits 1 and 3 are the sign bits of the two 64-bit lanes.
    if (_mm_movemask_ps(_mm_castsi128_ps(_mm_or_si128(_mm_or_si128(a0, a1), _mm_or_si128(a2, a3)))) & 0xa)
        return false;
#endif
    for (; i < count; ++i) {
        std::uint64_t u;
        std::memcpy(&u, bytes + 8 * i, sizeof u);
        acc |= (u & kExp) + kOne;
    }
    return (acc >> 63) == 0;
}

// The first n positions finite, else throws naming the first offending index and its value.
inline void finite(const char* op, const char* what, const std::vector<GmTVector<double>>& positions,
                   std::size_t n) {
    if (!allFinite(positions.data(), n)) throwNonFinite(op, what, positions.data(), n);
}

}  // namespace GmBVHChecks

namespace GmBVHChecks {

// The checks of build and refit in each bounding mode.
void plain(const char* op, const GmTriangleMesh* mesh, int treeFaces);
void swept(const char* op, const GmTriangleMesh* mesh, int treeFaces, const std::vector<GmTVector<double>>& positions);
void thickened(const char* op, const GmTriangleMesh* mesh, int treeFaces, double thickness);

// The O(1) checks of a query: the mesh (as above) and, for continuous-time queries, the size of
// the end positions (their values are left to the kernels, which report nothing for non-finite
// input).
void query(const char* op, const GmTriangleMesh* mesh, int treeFaces,
           const std::vector<GmTVector<double>>* positions = nullptr);

}  // namespace GmBVHChecks

#pragma once

#include <cstddef>
#include <cstdint>
#include <cstring>
#include <vector>

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
// bit; four independent lanes of integer and/add/or keep the scan at memory speed.
inline bool allFinite(const GmTVector<double>* p, std::size_t n) {
    constexpr std::uint64_t kExp = 0x7ff0000000000000ull, kOne = 0x0010000000000000ull;
    const unsigned char* bytes = reinterpret_cast<const unsigned char*>(p);
    const std::size_t count = 3 * n;
    std::uint64_t a0 = 0, a1 = 0, a2 = 0, a3 = 0;
    std::size_t i = 0;
    for (; i + 4 <= count; i += 4) {
        std::uint64_t u[4];
        std::memcpy(u, bytes + 8 * i, sizeof u);
        a0 |= (u[0] & kExp) + kOne;
        a1 |= (u[1] & kExp) + kOne;
        a2 |= (u[2] & kExp) + kOne;
        a3 |= (u[3] & kExp) + kOne;
    }
    for (; i < count; ++i) {
        std::uint64_t u;
        std::memcpy(&u, bytes + 8 * i, sizeof u);
        a0 |= (u & kExp) + kOne;
    }
    return ((a0 | a1 | a2 | a3) >> 63) == 0;
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

#pragma once

// Shared helpers of the hierarchy's sources (not installed).

#include <cfloat>
#include <cmath>
#include <cstdint>
#include <cstring>

#include <quarrygeom/bvh/GmBoundingVolumeHierarchy.h>
#include <quarrygeom/mesh/GmDisabledData.h>
#include <quarrygeom/mesh/GmTriangleMesh.h>

// ThreadSanitizer does not see the synchronisation inside the (uninstrumented) TBB library:
// the parallel build and refit state their hand-overs of work between threads explicitly.
#if defined(__SANITIZE_THREAD__)
extern "C" void __tsan_acquire(void* addr);
extern "C" void __tsan_release(void* addr);
#define QG_BVH_ACQUIRE(addr) __tsan_acquire(const_cast<void*>(static_cast<const void*>(addr)))
#define QG_BVH_RELEASE(addr) __tsan_release(const_cast<void*>(static_cast<const void*>(addr)))
#else
#define QG_BVH_ACQUIRE(addr) ((void)(addr))
#define QG_BVH_RELEASE(addr) ((void)(addr))
#endif

namespace GmBVHDetail {

// Box padding and search slack.
constexpr double kPad = 1e-8;

// Nearest float at or below / at or above a double (the same values as
// GmAxisAlignedBox::roundDown / roundUp, without the library call per bound).
inline float floatDown(double v) {
    float f = static_cast<float>(v);
    if (static_cast<double>(f) > v) {
        std::uint32_t b;
        std::memcpy(&b, &f, sizeof b);
        b = f > 0.0f ? b - 1u : (f < 0.0f ? b + 1u : 0x80000001u);
        std::memcpy(&f, &b, sizeof f);
    }
    return f;
}
inline float floatUp(double v) {
    float f = static_cast<float>(v);
    if (static_cast<double>(f) < v) {
        std::uint32_t b;
        std::memcpy(&b, &f, sizeof b);
        b = f > 0.0f ? b + 1u : (f < 0.0f ? b - 1u : 0x00000001u);
        std::memcpy(&f, &b, sizeof f);
    }
    return f;
}

inline bool faceDisabled(const GmDisabledData* mask, int face) { return GmDisabledData::isDisabled(mask, face); }
inline bool faceFrozen(const GmFrozenData* mask, int face) { return mask != nullptr && mask->isFrozen(face); }

inline bool finite(const GmTVector<double>& p) {
    return std::isfinite(p.x) && std::isfinite(p.y) && std::isfinite(p.z);
}

// Squared distance from p to a float box widened to double; 0 inside.
inline double boxDistanceSquared(const GmAxisAlignedBox& b, const GmTVector<double>& p) {
    double d2 = 0.0;
    const double mn[3] = {b.minX, b.minY, b.minZ};
    const double mx[3] = {b.maxX, b.maxY, b.maxZ};
    for (int a = 0; a < 3; ++a) {
        const double c = p[a];
        if (c < mn[a]) {
            const double d = mn[a] - c;
            d2 += d * d;
        } else if (c > mx[a]) {
            const double d = c - mx[a];
            d2 += d * d;
        }
    }
    return d2;
}

}  // namespace GmBVHDetail

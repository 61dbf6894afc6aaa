#pragma once

// Large arrays that queries read at random places (the hierarchy's nodes and leaf table): on
// Linux they are advised onto transparent huge pages, so that a walk over tens of megabytes
// need not also miss the translation cache at most steps. Pages are chosen when first touched,
// so the advice is given on fresh storage before it is written. Arrays below a few megabytes
// and other systems are left as they are. Not installed.

#include <cstddef>
#include <cstdint>
#include <vector>

#if defined(__linux__)
#include <sys/mman.h>
#endif

namespace GmHugePages {

constexpr std::size_t kPageBytes = std::size_t(2) << 20;
constexpr std::size_t kMinBytes = 2 * kPageBytes;

// Advises the whole huge pages inside [p, p + bytes).
inline void advise(const void* p, std::size_t bytes) {
#if defined(__linux__) && defined(MADV_HUGEPAGE)
    if (bytes < kMinBytes) return;
    const std::uintptr_t begin = reinterpret_cast<std::uintptr_t>(p);
    const std::uintptr_t first = (begin + kPageBytes - 1) & ~(kPageBytes - 1);
    const std::uintptr_t last = (begin + bytes) & ~(kPageBytes - 1);
    if (first < last) madvise(reinterpret_cast<void*>(first), last - first, MADV_HUGEPAGE);
#else
    (void)p;
    (void)bytes;
#endif
}

// Gives v fresh, advised storage for n elements when it is large and its storage too small
// (v's elements are dropped).
template <class V>
void reserveFresh(V& v, std::size_t n) {
    if (n * sizeof(typename V::value_type) < kMinBytes || n <= v.capacity()) return;
    V().swap(v);
    v.reserve(n);
    advise(v.data(), n * sizeof(typename V::value_type));
}

// v.resize(n) / v = source, on advised storage when large.
template <class V>
void resize(V& v, std::size_t n) {
    reserveFresh(v, n);
    v.resize(n);
}
template <class V>
void copy(V& v, const V& source) {
    if (&v == &source) return;
    reserveFresh(v, source.size());
    v.assign(source.begin(), source.end());
}

}  // namespace GmHugePages

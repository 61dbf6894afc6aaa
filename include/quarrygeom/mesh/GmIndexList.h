#pragma once

#include <algorithm>
#include <cassert>
#include <cstddef>
#include <cstdint>
#include <vector>

// Read-only view of one adjacency list (a sorted run of indices) held by a
// GmAdjacencyLists. Behaves like a const std::vector<int> for reading: iteration,
// size, indexing, comparison, and conversion to a std::vector<int> copy.
// Valid until the owning mesh rebuilds its adjacency or is destroyed.
class GmIndexList {
public:
    using value_type = int;
    using size_type = std::size_t;
    using const_iterator = const int*;
    using iterator = const int*;
    using const_reference = const int&;
    using reference = const int&;

    GmIndexList() = default;
    GmIndexList(const int* first, const int* last) : _first(first), _last(last) {}

    const int* begin() const { return _first; }
    const int* end() const { return _last; }
    const int* cbegin() const { return _first; }
    const int* cend() const { return _last; }
    const int* data() const { return _first; }
    std::size_t size() const { return static_cast<std::size_t>(_last - _first); }
    bool empty() const { return _first == _last; }
    const int& operator[](std::size_t i) const {
        assert(i < size() && "adjacency list index out of range");
        return _first[i];
    }
    const int& front() const { return *_first; }
    const int& back() const { return *(_last - 1); }

    // Whether x is in the (sorted) list.
    bool contains(int x) const { return std::binary_search(_first, _last, x); }

    std::vector<int> toVector() const { return std::vector<int>(_first, _last); }
    operator std::vector<int>() const { return toVector(); }

private:
    const int* _first = nullptr;
    const int* _last = nullptr;
};

inline bool operator==(const GmIndexList& a, const GmIndexList& b) {
    return a.size() == b.size() && std::equal(a.begin(), a.end(), b.begin());
}
inline bool operator!=(const GmIndexList& a, const GmIndexList& b) { return !(a == b); }
inline bool operator==(const GmIndexList& a, const std::vector<int>& b) {
    return a.size() == b.size() && std::equal(a.begin(), a.end(), b.begin());
}
inline bool operator==(const std::vector<int>& a, const GmIndexList& b) { return b == a; }
inline bool operator!=(const GmIndexList& a, const std::vector<int>& b) { return !(a == b); }
inline bool operator!=(const std::vector<int>& a, const GmIndexList& b) { return !(b == a); }

// A list of index lists stored contiguously (offsets plus one index array), as
// the mesh keeps its adjacency: one allocation per kind instead of one per element.
// Offsets are 32-bit: a kind holds fewer than 2^32 entries in all (the mesh's
// largest kind has three entries per face).
class GmAdjacencyLists {
public:
    GmAdjacencyLists() = default;

    // Number of lists.
    std::size_t size() const { return _offsets.empty() ? 0 : _offsets.size() - 1; }
    bool empty() const { return size() == 0; }
    GmIndexList operator[](std::size_t i) const {
        assert(i < size() && "adjacency list index out of range");
        const int* base = _indices.data();
        return GmIndexList(base + _offsets[i], base + _offsets[i + 1]);
    }
    // Total number of entries over all lists.
    std::size_t totalSize() const { return _indices.size(); }

    std::vector<std::vector<int>> toVectors() const {
        std::vector<std::vector<int>> out(size());
        for (std::size_t i = 0; i < out.size(); ++i) out[i] = (*this)[i].toVector();
        return out;
    }

    void clear() {
        _offsets.clear();
        _indices.clear();
    }

    // Raw storage, for builders: list i is indices[offsets[i] .. offsets[i + 1]).
    std::vector<std::uint32_t>& offsets() { return _offsets; }
    std::vector<int>& indices() { return _indices; }
    const std::vector<std::uint32_t>& offsets() const { return _offsets; }
    const std::vector<int>& indices() const { return _indices; }

private:
    std::vector<std::uint32_t> _offsets;
    std::vector<int> _indices;
};

inline bool operator==(const GmAdjacencyLists& a, const std::vector<std::vector<int>>& b) {
    if (a.size() != b.size()) return false;
    for (std::size_t i = 0; i < b.size(); ++i)
        if (a[i] != b[i]) return false;
    return true;
}
inline bool operator==(const std::vector<std::vector<int>>& a, const GmAdjacencyLists& b) { return b == a; }
inline bool operator==(const GmAdjacencyLists& a, const GmAdjacencyLists& b) {
    if (a.size() != b.size()) return false;
    for (std::size_t i = 0; i < a.size(); ++i)
        if (a[i] != b[i]) return false;
    return true;
}
inline bool operator!=(const GmAdjacencyLists& a, const GmAdjacencyLists& b) { return !(a == b); }

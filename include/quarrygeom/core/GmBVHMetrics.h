#pragma once

#include <cstdint>
#include <ostream>

#include <quarrygeom/core/GmExport.h>

// Counters filled by the hierarchy traversals and the contact kernels: for each of four
// groups (broad phase, narrow phase, vertex-face, edge-edge) the candidates examined, the
// tests performed and the tests that succeeded.
//
// A plain value: copy, move and compare freely. Counters are unsigned 32-bit and wrap
// modulo 2^32. Not thread-safe: every thread counts into its own record and the records
// are summed with += afterwards.
class QUARRYGEOM_API GmBVHMetrics {
public:
    GmBVHMetrics() { reset(); }

    void reset() {
        for (std::uint32_t& c : _c) c = 0;
    }

    // Adds every counter of other to the same counter of this record (other may be *this).
    GmBVHMetrics& operator+=(const GmBVHMetrics& other) {
        const GmBVHMetrics copy = other;  // adding a record to itself doubles it
        for (int i = 0; i < kCount; ++i) _c[i] += copy._c[i];
        return *this;
    }

    bool operator==(const GmBVHMetrics& o) const {
        for (int i = 0; i < kCount; ++i)
            if (_c[i] != o._c[i]) return false;
        return true;
    }
    bool operator!=(const GmBVHMetrics& o) const { return !(*this == o); }

    // Increment by one.
    void addBroadPhaseCandidate() { ++_c[kBroadCandidates]; }
    void addBroadPhaseTest() { ++_c[kBroadTests]; }
    void addBroadPhaseSuccess() { ++_c[kBroadSuccesses]; }
    void addNarrowPhaseCandidate() { ++_c[kNarrowCandidates]; }
    void addNarrowPhaseTest() { ++_c[kNarrowTests]; }
    void addNarrowPhaseSuccess() { ++_c[kNarrowSuccesses]; }
    void addVertexFaceCandidate() { ++_c[kVertexFaceCandidates]; }
    void addVertexFaceTest() { ++_c[kVertexFaceTests]; }
    void addVertexFaceSuccess() { ++_c[kVertexFaceSuccesses]; }
    void addEdgeEdgeCandidate() { ++_c[kEdgeEdgeCandidates]; }
    void addEdgeEdgeTest() { ++_c[kEdgeEdgeTests]; }
    void addEdgeEdgeSuccess() { ++_c[kEdgeEdgeSuccesses]; }

    // Increment by n.
    void addBroadPhaseCandidates(std::uint32_t n) { _c[kBroadCandidates] += n; }
    void addBroadPhaseTests(std::uint32_t n) { _c[kBroadTests] += n; }
    void addBroadPhaseSuccesses(std::uint32_t n) { _c[kBroadSuccesses] += n; }
    void addNarrowPhaseCandidates(std::uint32_t n) { _c[kNarrowCandidates] += n; }
    void addNarrowPhaseTests(std::uint32_t n) { _c[kNarrowTests] += n; }
    void addNarrowPhaseSuccesses(std::uint32_t n) { _c[kNarrowSuccesses] += n; }
    void addVertexFaceCandidates(std::uint32_t n) { _c[kVertexFaceCandidates] += n; }
    void addVertexFaceTests(std::uint32_t n) { _c[kVertexFaceTests] += n; }
    void addVertexFaceSuccesses(std::uint32_t n) { _c[kVertexFaceSuccesses] += n; }
    void addEdgeEdgeCandidates(std::uint32_t n) { _c[kEdgeEdgeCandidates] += n; }
    void addEdgeEdgeTests(std::uint32_t n) { _c[kEdgeEdgeTests] += n; }
    void addEdgeEdgeSuccesses(std::uint32_t n) { _c[kEdgeEdgeSuccesses] += n; }

    // Counter values.
    std::uint32_t broadPhaseCandidates() const { return _c[kBroadCandidates]; }
    std::uint32_t broadPhaseTests() const { return _c[kBroadTests]; }
    std::uint32_t broadPhaseSuccesses() const { return _c[kBroadSuccesses]; }
    std::uint32_t narrowPhaseCandidates() const { return _c[kNarrowCandidates]; }
    std::uint32_t narrowPhaseTests() const { return _c[kNarrowTests]; }
    std::uint32_t narrowPhaseSuccesses() const { return _c[kNarrowSuccesses]; }
    std::uint32_t vertexFaceCandidates() const { return _c[kVertexFaceCandidates]; }
    std::uint32_t vertexFaceTests() const { return _c[kVertexFaceTests]; }
    std::uint32_t vertexFaceSuccesses() const { return _c[kVertexFaceSuccesses]; }
    std::uint32_t edgeEdgeCandidates() const { return _c[kEdgeEdgeCandidates]; }
    std::uint32_t edgeEdgeTests() const { return _c[kEdgeEdgeTests]; }
    std::uint32_t edgeEdgeSuccesses() const { return _c[kEdgeEdgeSuccesses]; }

    // Share of the examined candidates that did not end in a success, in percent
    // (the tests counters take no part).
    double broadPhasePruneRate() const { return pruneRate(_c[kBroadCandidates], _c[kBroadSuccesses]); }
    double narrowPhasePruneRate() const { return pruneRate(_c[kNarrowCandidates], _c[kNarrowSuccesses]); }
    double vertexFacePruneRate() const { return pruneRate(_c[kVertexFaceCandidates], _c[kVertexFaceSuccesses]); }
    double edgeEdgePruneRate() const { return pruneRate(_c[kEdgeEdgeCandidates], _c[kEdgeEdgeSuccesses]); }

    // 100 when there are no candidates, otherwise (1 - successes / candidates) * 100.
    static double pruneRate(std::uint32_t candidates, std::uint32_t successes) {
        if (candidates == 0) return 100.0;
        return (1.0 - static_cast<double>(successes) / static_cast<double>(candidates)) * 100.0;
    }

    // Writes the "BVH Metrics" report (16 lines after the title: per group candidates, tests,
    // successes and prune rate) and leaves the stream's format state as it was.
    std::ostream& print(std::ostream& os) const;

private:
    enum Index {
        kBroadCandidates, kBroadTests, kBroadSuccesses,
        kNarrowCandidates, kNarrowTests, kNarrowSuccesses,
        kVertexFaceCandidates, kVertexFaceTests, kVertexFaceSuccesses,
        kEdgeEdgeCandidates, kEdgeEdgeTests, kEdgeEdgeSuccesses,
        kCount
    };
    std::uint32_t _c[kCount];
};

// Same as metrics.print(os).
QUARRYGEOM_API std::ostream& operator<<(std::ostream& os, const GmBVHMetrics& metrics);

#include <gtest/gtest.h>
#include <cstdint>
#include <cstdio>
#include <iomanip>
#include <sstream>
#include <string>
#include <vector>
#include <quarrygeom/core/GmBVHMetrics.h>

namespace {

struct Counter {
    std::uint32_t (GmBVHMetrics::*get)() const;
    void (GmBVHMetrics::*addOne)();
    void (GmBVHMetrics::*addN)(std::uint32_t);
};

#define QG_COUNTER(name, one, many) {&GmBVHMetrics::name, &GmBVHMetrics::add##one, &GmBVHMetrics::add##many}
// The twelve counters in their report order.
const Counter kCounters[12] = {
    QG_COUNTER(broadPhaseCandidates, BroadPhaseCandidate, BroadPhaseCandidates),
    QG_COUNTER(broadPhaseTests, BroadPhaseTest, BroadPhaseTests),
    QG_COUNTER(broadPhaseSuccesses, BroadPhaseSuccess, BroadPhaseSuccesses),
    QG_COUNTER(narrowPhaseCandidates, NarrowPhaseCandidate, NarrowPhaseCandidates),
    QG_COUNTER(narrowPhaseTests, NarrowPhaseTest, NarrowPhaseTests),
    QG_COUNTER(narrowPhaseSuccesses, NarrowPhaseSuccess, NarrowPhaseSuccesses),
    QG_COUNTER(vertexFaceCandidates, VertexFaceCandidate, VertexFaceCandidates),
    QG_COUNTER(vertexFaceTests, VertexFaceTest, VertexFaceTests),
    QG_COUNTER(vertexFaceSuccesses, VertexFaceSuccess, VertexFaceSuccesses),
    QG_COUNTER(edgeEdgeCandidates, EdgeEdgeCandidate, EdgeEdgeCandidates),
    QG_COUNTER(edgeEdgeTests, EdgeEdgeTest, EdgeEdgeTests),
    QG_COUNTER(edgeEdgeSuccesses, EdgeEdgeSuccess, EdgeEdgeSuccesses),
};
#undef QG_COUNTER

GmBVHMetrics filled(const std::uint32_t v[12]) {
    GmBVHMetrics m;
    for (int k = 0; k < 12; ++k) (m.*kCounters[k].addN)(v[k]);
    return m;
}

// Each increment touches only its counter; sums are element-wise and wrap; reset and
// value semantics.
TEST(BVHMetrics, CountersAddAndWrap) {
    for (int k = 0; k < 12; ++k) {
        GmBVHMetrics m;
        (m.*kCounters[k].addOne)();
        (m.*kCounters[k].addOne)();
        (m.*kCounters[k].addN)(40);
        for (int j = 0; j < 12; ++j) EXPECT_EQ((m.*kCounters[j].get)(), j == k ? 42u : 0u) << k << ' ' << j;
    }
    std::uint32_t a[12], b[12];
    for (std::uint32_t k = 0; k < 12; ++k) a[k] = 0xFFFFFFF0u + k, b[k] = 0x20u + 1000u * k;
    GmBVHMetrics sum = filled(a), self = filled(b);
    sum += filled(b);
    self += self;
    for (int k = 0; k < 12; ++k) {
        EXPECT_EQ((sum.*kCounters[k].get)(), a[k] + b[k]) << k;  // modulo 2^32
        EXPECT_EQ((self.*kCounters[k].get)(), 2u * b[k]) << k;
    }
    GmBVHMetrics moved = std::move(self);
    EXPECT_TRUE(moved == (filled(b) += filled(b)) && moved != sum);
    moved.reset();
    EXPECT_EQ(moved, GmBVHMetrics());
    for (const Counter& c : kCounters) EXPECT_EQ((moved.*c.get)(), 0u);
}

// Each group's prune rate uses its candidates and successes, never its tests.
TEST(BVHMetrics, PruneRates) {
    EXPECT_TRUE(GmBVHMetrics::pruneRate(0, 0) == 100.0 && GmBVHMetrics::pruneRate(0, 5) == 100.0);
    EXPECT_TRUE(GmBVHMetrics::pruneRate(4, 1) == 75.0 && GmBVHMetrics::pruneRate(4, 4) == 0.0);
    EXPECT_DOUBLE_EQ(GmBVHMetrics::pruneRate(0xFFFFFFFFu, 1), (1.0 - 1.0 / 4294967295.0) * 100.0);
    const std::uint32_t v[12] = {10, 1000, 1, 8, 0, 2, 5, 3, 5, 0, 9, 2};
    const GmBVHMetrics m = filled(v);
    EXPECT_EQ(std::vector<double>({m.broadPhasePruneRate(), m.narrowPhasePruneRate(), m.vertexFacePruneRate(), m.edgeEdgePruneRate()}),
              std::vector<double>({90.0, 75.0, 0.0, 100.0}));
}

// The report against one written out with printf-style formatting; print leaves the
// stream's state as it was and is not affected by it.
TEST(BVHMetrics, ReportText) {
    static const char* labels[4] = {"Broad-Phase", "Narrow-Phase", "Vertex-Face", "Edge-Edge"};
    const std::uint32_t zeros[12] = {}, v[12] = {4000000000u, 123456, 1234567, 3, 3, 1, 7, 6, 5, 0, 99, 0};
    for (const std::uint32_t* values : {zeros, v}) {
        const GmBVHMetrics m = filled(values);
        std::string expected = "BVH Metrics\n";
        char buf[128];
        for (int g = 0; g < 4; ++g) {
            const std::string indent = g < 2 ? "  " : "    ";
            const char* what[3] = {"Candidates Examined:", "Tests Performed:", "Tests that Succeeded:"};
            for (int k = 0; k < 3; ++k) {
                const std::string label = indent + "Number of " + labels[g] + " " + what[k];
                std::snprintf(buf, sizeof buf, "%-48s%16u\n", label.c_str(), static_cast<unsigned>(values[3 * g + k]));
                expected += buf;
            }
            const double c = values[3 * g], s = values[3 * g + 2];
            const std::string label = indent + labels[g] + " Prune Rate:";
            std::snprintf(buf, sizeof buf, "%-48s%16.4f%%\n", label.c_str(), c == 0 ? 100.0 : (1.0 - s / c) * 100.0);
            expected += buf;
        }
        std::ostringstream os, viaOperator;
        os << std::scientific << std::showpos << std::uppercase << std::hex << std::left << std::setprecision(9)
           << std::setfill('*');
        const std::ios_base::fmtflags before = os.flags();
        EXPECT_EQ(&m.print(os), &os);
        EXPECT_EQ(os.str(), expected);
        EXPECT_TRUE(os.flags() == before && os.precision() == 9 && os.fill() == '*');
        viaOperator << m << 0.5;
        EXPECT_EQ(viaOperator.str(), expected + "0.5");
    }
}

}  // namespace

#include <gtest/gtest.h>

#include <cstdint>
#include <cstdio>
#include <sstream>
#include <string>

#include <quarrygeom/core/GmBVHMetrics.h>

namespace {

using Getter = std::uint32_t (GmBVHMetrics::*)() const;
using AddOne = void (GmBVHMetrics::*)();
using AddN = void (GmBVHMetrics::*)(std::uint32_t);

struct Counter {
    Getter get;
    AddOne addOne;
    AddN addN;
};

// The twelve counters in their documented order.
const Counter kCounters[12] = {
    {&GmBVHMetrics::broadPhaseCandidates, &GmBVHMetrics::addBroadPhaseCandidate, &GmBVHMetrics::addBroadPhaseCandidates},
    {&GmBVHMetrics::broadPhaseTests, &GmBVHMetrics::addBroadPhaseTest, &GmBVHMetrics::addBroadPhaseTests},
    {&GmBVHMetrics::broadPhaseSuccesses, &GmBVHMetrics::addBroadPhaseSuccess, &GmBVHMetrics::addBroadPhaseSuccesses},
    {&GmBVHMetrics::narrowPhaseCandidates, &GmBVHMetrics::addNarrowPhaseCandidate, &GmBVHMetrics::addNarrowPhaseCandidates},
    {&GmBVHMetrics::narrowPhaseTests, &GmBVHMetrics::addNarrowPhaseTest, &GmBVHMetrics::addNarrowPhaseTests},
    {&GmBVHMetrics::narrowPhaseSuccesses, &GmBVHMetrics::addNarrowPhaseSuccess, &GmBVHMetrics::addNarrowPhaseSuccesses},
    {&GmBVHMetrics::vertexFaceCandidates, &GmBVHMetrics::addVertexFaceCandidate, &GmBVHMetrics::addVertexFaceCandidates},
    {&GmBVHMetrics::vertexFaceTests, &GmBVHMetrics::addVertexFaceTest, &GmBVHMetrics::addVertexFaceTests},
    {&GmBVHMetrics::vertexFaceSuccesses, &GmBVHMetrics::addVertexFaceSuccess, &GmBVHMetrics::addVertexFaceSuccesses},
    {&GmBVHMetrics::edgeEdgeCandidates, &GmBVHMetrics::addEdgeEdgeCandidate, &GmBVHMetrics::addEdgeEdgeCandidates},
    {&GmBVHMetrics::edgeEdgeTests, &GmBVHMetrics::addEdgeEdgeTest, &GmBVHMetrics::addEdgeEdgeTests},
    {&GmBVHMetrics::edgeEdgeSuccesses, &GmBVHMetrics::addEdgeEdgeSuccess, &GmBVHMetrics::addEdgeEdgeSuccesses},
};

// A record whose counter k holds base + k.
GmBVHMetrics filled(std::uint32_t base) {
    GmBVHMetrics m;
    for (int k = 0; k < 12; ++k) (m.*kCounters[k].addN)(base + static_cast<std::uint32_t>(k));
    return m;
}

TEST(BVHMetrics, FreshAndResetRecordsAreZero) {
    GmBVHMetrics m;
    for (const Counter& c : kCounters) EXPECT_EQ((m.*c.get)(), 0u);
    m = filled(7);
    m.reset();
    for (const Counter& c : kCounters) EXPECT_EQ((m.*c.get)(), 0u);
    EXPECT_EQ(m, GmBVHMetrics());
}

TEST(BVHMetrics, EachIncrementTouchesOnlyItsCounter) {
    for (int k = 0; k < 12; ++k) {
        GmBVHMetrics m;
        (m.*kCounters[k].addOne)();
        (m.*kCounters[k].addOne)();
        (m.*kCounters[k].addN)(40);
        for (int j = 0; j < 12; ++j) EXPECT_EQ((m.*kCounters[j].get)(), j == k ? 42u : 0u) << k << ' ' << j;
    }
}

TEST(BVHMetrics, SumIsElementWiseAndWraps) {
    GmBVHMetrics a = filled(100), b = filled(1000);
    a += b;
    for (int k = 0; k < 12; ++k) EXPECT_EQ((a.*kCounters[k].get)(), 1100u + 2u * k);

    GmBVHMetrics self = filled(5);
    self += self;
    for (int k = 0; k < 12; ++k) EXPECT_EQ((self.*kCounters[k].get)(), 2u * (5u + k));

    GmBVHMetrics w;
    w.addEdgeEdgeSuccesses(0xFFFFFFFFu);
    w.addEdgeEdgeSuccess();
    EXPECT_EQ(w.edgeEdgeSuccesses(), 0u);
    GmBVHMetrics big = filled(0xFFFFFFF0u);
    big += filled(0x20u);
    EXPECT_EQ(big.broadPhaseCandidates(), 0x10u);
    EXPECT_EQ(big.edgeEdgeSuccesses(), 0x10u + 22u);

    // Plain value semantics.
    GmBVHMetrics copy = a;
    GmBVHMetrics moved = std::move(copy);
    EXPECT_EQ(moved, a);
    EXPECT_NE(moved, b);
}

TEST(BVHMetrics, PruneRates) {
    EXPECT_EQ(GmBVHMetrics::pruneRate(0, 0), 100.0);
    EXPECT_EQ(GmBVHMetrics::pruneRate(0, 5), 100.0);
    EXPECT_EQ(GmBVHMetrics::pruneRate(4, 1), 75.0);
    EXPECT_EQ(GmBVHMetrics::pruneRate(4, 4), 0.0);
    EXPECT_DOUBLE_EQ(GmBVHMetrics::pruneRate(3, 1), 100.0 * (2.0 / 3.0));
    EXPECT_DOUBLE_EQ(GmBVHMetrics::pruneRate(0xFFFFFFFFu, 1), (1.0 - 1.0 / 4294967295.0) * 100.0);

    // Each group's rate uses its candidates and successes, never its tests.
    GmBVHMetrics m;
    m.addBroadPhaseCandidates(10); m.addBroadPhaseTests(1000); m.addBroadPhaseSuccesses(1);
    m.addNarrowPhaseCandidates(8); m.addNarrowPhaseSuccesses(2);
    m.addVertexFaceCandidates(5); m.addVertexFaceTests(3); m.addVertexFaceSuccesses(5);
    m.addEdgeEdgeTests(9); m.addEdgeEdgeSuccesses(2);
    EXPECT_DOUBLE_EQ(m.broadPhasePruneRate(), 90.0);
    EXPECT_DOUBLE_EQ(m.narrowPhasePruneRate(), 75.0);
    EXPECT_DOUBLE_EQ(m.vertexFacePruneRate(), 0.0);
    EXPECT_DOUBLE_EQ(m.edgeEdgePruneRate(), 100.0);
}

// The report, written out independently with printf-style formatting.
std::string expectedReport(const std::uint32_t v[12], const double rate[4]) {
    static const char* labels[16] = {
        "  Number of Broad-Phase Candidates Examined:", "  Number of Broad-Phase Tests Performed:",
        "  Number of Broad-Phase Tests that Succeeded:", "  Broad-Phase Prune Rate:",
        "  Number of Narrow-Phase Candidates Examined:", "  Number of Narrow-Phase Tests Performed:",
        "  Number of Narrow-Phase Tests that Succeeded:", "  Narrow-Phase Prune Rate:",
        "    Number of Vertex-Face Candidates Examined:", "    Number of Vertex-Face Tests Performed:",
        "    Number of Vertex-Face Tests that Succeeded:", "    Vertex-Face Prune Rate:",
        "    Number of Edge-Edge Candidates Examined:", "    Number of Edge-Edge Tests Performed:",
        "    Number of Edge-Edge Tests that Succeeded:", "    Edge-Edge Prune Rate:"};
    std::string out = "BVH Metrics\n";
    char buf[128];
    for (int g = 0; g < 4; ++g) {
        for (int k = 0; k < 3; ++k) {
            std::snprintf(buf, sizeof buf, "%-48s%16u\n", labels[4 * g + k], static_cast<unsigned>(v[3 * g + k]));
            out += buf;
        }
        std::snprintf(buf, sizeof buf, "%-48s%16.4f%%\n", labels[4 * g + 3], rate[g]);
        out += buf;
    }
    return out;
}

TEST(BVHMetrics, ReportOfAFreshRecord) {
    const std::uint32_t zeros[12] = {};
    const double rates[4] = {100.0, 100.0, 100.0, 100.0};
    std::ostringstream os;
    GmBVHMetrics().print(os);
    EXPECT_EQ(os.str(), expectedReport(zeros, rates));
    // Spot-check one line character by character.
    EXPECT_NE(os.str().find("  Broad-Phase Prune Rate:                               100.0000%\n"), std::string::npos);
}

TEST(BVHMetrics, ReportOfAFilledRecord) {
    const std::uint32_t v[12] = {4000000000u, 123456, 1234567, 3, 3, 1, 7, 6, 5, 0, 99, 0};
    GmBVHMetrics m;
    for (int k = 0; k < 12; ++k) (m.*kCounters[k].addN)(v[k]);
    const double rates[4] = {(1.0 - 1234567.0 / 4000000000.0) * 100.0, 100.0 * 2.0 / 3.0, 100.0 * 2.0 / 7.0, 100.0};
    std::ostringstream os;
    std::ostream& ret = m.print(os);
    EXPECT_EQ(&ret, &os);
    EXPECT_EQ(os.str(), expectedReport(v, rates));
    std::ostringstream viaOperator;
    viaOperator << m;
    EXPECT_EQ(viaOperator.str(), os.str());
}

TEST(BVHMetrics, PrintRestoresTheStreamState) {
    GmBVHMetrics m = filled(3);
    std::ostringstream plain;
    m.print(plain);

    std::ostringstream os;
    os.setf(std::ios_base::scientific | std::ios_base::showpos | std::ios_base::uppercase);
    os.setf(std::ios_base::hex, std::ios_base::basefield);
    os.setf(std::ios_base::left, std::ios_base::adjustfield);
    os.precision(9);
    os.fill('*');
    const std::ios_base::fmtflags before = os.flags();
    m.print(os);
    EXPECT_EQ(os.flags(), before);
    EXPECT_EQ(os.precision(), 9);
    EXPECT_EQ(os.fill(), '*');
    // The caller's settings do not leak into the report.
    EXPECT_EQ(os.str(), plain.str());

    // And the default state comes back as well.
    std::ostringstream d;
    const std::ios_base::fmtflags defaultFlags = d.flags();
    const std::streamsize defaultPrecision = d.precision();
    m.print(d);
    EXPECT_EQ(d.flags(), defaultFlags);
    EXPECT_EQ(d.precision(), defaultPrecision);
    d << 0.5;
    EXPECT_EQ(d.str().substr(d.str().size() - 3), "0.5");
}

}  // namespace

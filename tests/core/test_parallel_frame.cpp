#include <gtest/gtest.h>
#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <iomanip>
#include <memory>
#include <sstream>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>
#include <tbb/global_control.h>
#include <tbb/info.h>
#include <tbb/task_arena.h>
#include <quarrygeom/core/GmParallel.h>
#include <quarrygeom/core/tarnCollision.h>
#include "../support/threading.h"

namespace {

TEST(ParallelFrame, SwitchDefaultsToParallelAndSelectsThePath) {
    EXPECT_TRUE(tarnCollision::isMultiThreading());
    EXPECT_TRUE(GmParallel::isParallel());
    for (bool on : {false, true}) {
        ScopedThreading threads(on);
        EXPECT_EQ(GmParallel::isParallel(), on);
        int which = 0, width = 0;
        std::thread::id ranOn;
        GmParallel::dispatch([&] { which = 1, ranOn = std::this_thread::get_id(); },
                             [&] { which = 2, width = tbb::this_task_arena::max_concurrency(); });
        EXPECT_EQ(which, on ? 2 : 1);
        EXPECT_TRUE(on || ranOn == std::this_thread::get_id());
        EXPECT_TRUE(!on || GmParallel::workerCount() < 1 || width == GmParallel::workerCount()) << width;
    }
}

TEST(ParallelFrame, WorkerCountComesFromTheHardwareWithoutTheVariable) {
    if (std::getenv("KORV_THREAD_COUNT")) GTEST_SKIP() << "KORV_THREAD_COUNT is set";
    EXPECT_EQ(GmParallel::workerCount(), static_cast<int>(std::thread::hardware_concurrency()));
}

TEST(ParallelFrame, LoopsVisitEveryIndexOnce) {
    std::vector<std::atomic<int>> hits(5000), ranged(5000);
    int calls = 0;
    GmParallel::runInArena([&] {
        GmParallel::parallelFor(-3, 4997, [&](int i) { hits[static_cast<std::size_t>(i + 3)].fetch_add(1); });
        GmParallel::parallelForRanges(0, 5000, [&](int first, int last) {
            EXPECT_LT(first, last);
            for (int i = first; i < last; ++i) ranged[static_cast<std::size_t>(i)].fetch_add(1);
        });
        GmParallel::parallelFor(5, 5, [&](int) { ++calls; });  // empty and reversed ranges do nothing
        GmParallel::parallelFor(5, 2, [&](int) { ++calls; });
        GmParallel::parallelForRanges(5, 2, [&](int, int) { ++calls; });
    });
    for (std::size_t i = 0; i < hits.size(); ++i) ASSERT_EQ(hits[i].load() * 10 + ranged[i].load(), 11) << i;
    EXPECT_EQ(calls, 0);
}

// One merge: `out` starts with `prefix`; the calling thread appends `caller` records (straight
// into `out` when direct, and one more after the workers); each worker appends its count,
// flushing every `flush` (0: never), all workers alive at once (ids of finished threads may be
// reused). The result: the prefix, the caller's direct records in place, then every thread's
// block whole and in its own order, blocks in any order; `swapped`: a single block swapped in.
struct MergeCase {
    const char* name;
    std::vector<int> prefix;
    bool direct;
    int caller;
    std::vector<int> workers;
    int flush;
    bool swapped;
};

class Merge : public ::testing::TestWithParam<MergeCase> {};

TEST_P(Merge, KeepsEveryThreadsRecordsInOrder) {
    const MergeCase& c = GetParam();
    std::vector<int> out = c.prefix, blocks = c.workers;
    blocks.insert(blocks.begin(), c.direct ? 0 : c.caller);  // block 0: the caller's, unless direct
    std::uint32_t records = 1 + static_cast<std::uint32_t>(c.caller);
    for (int n : c.workers) records += static_cast<std::uint32_t>(n);
    out.reserve(out.size() + records);
    const int* const before = out.data();
    const int* swappedData = nullptr;
    GmBVHMetrics total;
    total.addBroadPhaseTests(1);
    {
        auto results = c.direct ? std::make_unique<GmParallel::ThreadResults<int>>(out) : std::make_unique<GmParallel::ThreadResults<int>>();
        for (int i = 0; i < c.caller; ++i) results->records().push_back(i), results->metrics().addBroadPhaseTest();
        EXPECT_EQ(&results->records() == &out, c.direct);
        std::atomic<int> arrived{0};
        std::vector<std::thread> threads;
        for (int t = 1; t < static_cast<int>(blocks.size()); ++t)
            threads.emplace_back([&, t] {
                GmParallel::ThreadResults<int>::Local& mine = results->local();
                EXPECT_NE(&mine.records(), &out);
                for (int i = 0; i < blocks[static_cast<std::size_t>(t)]; ++i, c.flush > 0 && i % c.flush == 0 ? mine.flush() : void())
                    mine.records().push_back(t * 10000000 + i);
                if (c.swapped && !mine.records().empty()) swappedData = mine.records().data();
                results->metrics().addBroadPhaseTests(static_cast<std::uint32_t>(blocks[static_cast<std::size_t>(t)]));
                for (arrived.fetch_add(1); arrived.load() < static_cast<int>(blocks.size()) - 1;) std::this_thread::yield();
            });
        for (std::thread& t : threads) t.join();
        if (c.direct) results->records().push_back(c.caller);
        EXPECT_EQ(results->recordThreadCount(), blocks.size());
        results->mergeInto(out, total);
    }
    std::size_t at = 0;
    for (int p : c.prefix) ASSERT_EQ(out[at++], p);
    for (int i = 0; c.direct && i <= c.caller; ++i) ASSERT_EQ(out[at++], i);  // in place
    while (at < out.size()) {
        const std::size_t t = static_cast<std::size_t>(out[at] / 10000000);
        ASSERT_TRUE(t < blocks.size() && blocks[t] > 0) << "block " << t << " unknown or twice";
        for (int i = 0; i < blocks[t]; ++i) ASSERT_EQ(out[at++], static_cast<int>(t) * 10000000 + i);
        blocks[t] = 0;
    }
    EXPECT_EQ(blocks, std::vector<int>(blocks.size(), 0)) << "records missing";
    EXPECT_EQ(total.broadPhaseTests(), records);
    EXPECT_EQ(out.data(), c.direct ? before : c.swapped ? swappedData : out.data());  // no reallocation, no copy
}

INSTANTIATE_TEST_SUITE_P(
    ParallelFrame, Merge,
    ::testing::Values(MergeCase{"single", {}, false, 0, {100}, 0, true}, MergeCase{"afterEarlierContent", {1, 2}, false, 0, {2}, 0, false},
                      MergeCase{"idleThreadsStillSwap", {}, false, 0, {3, 0, 0}, 0, true},
                      MergeCase{"nothingRecorded", {1, 2}, false, 0, {0, 0}, 0, false},
                      MergeCase{"several", {1}, false, 4, {5, 3, 0}, 0, false}, MergeCase{"direct", {1, 2}, true, 2, {3, 1}, 2, false},
                      MergeCase{"manyChunks", {-1}, false, 0, {400000, 400000}, 13, false}),
    [](const auto& info) { return std::string(info.param.name); });

// A merge that did not happen (an exception left the parallel part) leaves the output as it
// was; exceptions from either path propagate and the frame stays usable.
TEST(ParallelFrame, ExceptionsLeaveTheArena) {
    ScopedThreading on(true);
    std::vector<int> out = {5, 6};
    GmBVHMetrics metrics;
    for (bool direct : {false, true}) {
        auto work = [&] {
            auto results = direct ? std::make_unique<GmParallel::ThreadResults<int>>(out) : std::make_unique<GmParallel::ThreadResults<int>>();
            GmParallel::parallelFor(0, 200, [&](int i) { results->records().push_back(i > 150 ? throw std::runtime_error("body") : i); });
            results->mergeInto(out, metrics);
        };
        EXPECT_THROW(GmParallel::dispatch([] {}, work), std::runtime_error);
    }
    EXPECT_EQ(out, (std::vector<int>{5, 6}));
    EXPECT_EQ(metrics, GmBVHMetrics());
    ScopedThreading off(false);
    EXPECT_THROW(GmParallel::dispatch([] { throw std::logic_error("serial"); }, [] {}), std::logic_error);
    EXPECT_THROW(GmParallel::runInArena([] { throw std::logic_error("direct"); }), std::logic_error);
    std::atomic<int> count{0};
    GmParallel::runInArena([&] { GmParallel::parallelFor(0, 50, [&](int) { ++count; }); });
    EXPECT_EQ(count.load(), 50);
}

using Pair = std::pair<int, int>;

// All pairs (i, j), i < j < 400, with i + j divisible by 7, through the frame's serial and
// parallel paths after earlier content: the same set and the same counters as brute force.
TEST(ParallelFrame, SerialAndParallelPathsGiveTheSameResultSet) {
    const int n = 400;
    std::vector<Pair> expected;
    for (int i = 0; i < n; ++i)
        for (int j = i + 1; j < n; ++j)
            if ((i + j) % 7 == 0) expected.emplace_back(i, j);
    auto test = [](int i, int j, std::vector<Pair>& records, GmBVHMetrics& m) {
        m.addNarrowPhaseTest();
        if ((i + j) % 7 == 0) m.addNarrowPhaseSuccess(), records.emplace_back(i, j);
    };
    for (bool on : {false, true}) {
        ScopedThreading threads(on);
        std::vector<Pair> out = {{-1, -1}};
        GmBVHMetrics metrics;
        GmParallel::dispatch(
            [&] {
                for (int i = 0; i < n; ++i)
                    for (int j = i + 1; j < n; ++j) test(i, j, out, metrics);
            },
            [&] {
                GmParallel::ThreadResults<Pair> results(out);
                GmParallel::parallelForRanges(0, n, [&](int first, int last) {
                    auto& mine = results.local();
                    for (int i = first; i < last; ++i, mine.flush())
                        for (int j = i + 1; j < n; ++j) test(i, j, mine.records(), results.metrics());
                });
                results.mergeInto(out, metrics);
            });
        ASSERT_TRUE(!out.empty() && out.front() == Pair(-1, -1));  // earlier content stays first
        std::sort(out.begin() + 1, out.end());
        EXPECT_TRUE(std::equal(out.begin() + 1, out.end(), expected.begin(), expected.end()));
        EXPECT_TRUE(metrics.narrowPhaseTests() == n * (n - 1) / 2 && metrics.narrowPhaseSuccesses() == expected.size());
    }
}

// Largest number of threads seen at once inside the work of an arena of the given width
// (0: the frame's own arena), and whether a thread other than the caller ran any of it. Every
// item blocks for a while, so idle threads are free to join; the global limit is lifted so
// that only the arena can cap the count.
std::pair<int, bool> peakConcurrency(int width) {
    tbb::global_control lift(tbb::global_control::max_allowed_parallelism, 16);
    std::atomic<int> active{0}, peak{0};
    std::atomic<bool> foreign{false};
    const std::thread::id caller = std::this_thread::get_id();
    auto body = [&](int) {
        const int now = active.fetch_add(1) + 1;
        for (int seen = peak.load(); now > seen && !peak.compare_exchange_weak(seen, now);) {
        }
        if (std::this_thread::get_id() != caller) foreign = true;
        std::this_thread::sleep_for(std::chrono::milliseconds(4));
        active.fetch_sub(1);
    };
    if (width == 0) GmParallel::runInArena([&] { GmParallel::parallelFor(0, 400, body); });
    if (width > 0) tbb::task_arena(width, 1).execute([&] { GmParallel::parallelFor(0, 400, body); });
    return {peak.load(), foreign.load()};
}

// Control for the capped runs below: without a cap of 3, more than 3 threads do run.
TEST(ParallelFrame, PeakConcurrencyMeasurementSeesWideArenas) { EXPECT_GT(peakConcurrency(8).first, 3); }

// Runs with KORV_THREAD_COUNT set by CTest (see tests.cmake); QG_TEST_EXPECTED_WORKERS holds
// the width the library must have read from it. A width below one reaches the arena
// unchanged, and oneTBB takes it as its default width.
TEST(ParallelFrameEnvironment, ArenaIsCappedByTheVariable) {
    const char* expected = std::getenv("QG_TEST_EXPECTED_WORKERS");
    if (!expected) GTEST_SKIP() << "run through CTest with KORV_THREAD_COUNT set";
    const int width = std::stoi(expected);
    EXPECT_EQ(GmParallel::workerCount(), width);
    int ran = 0;
    GmParallel::runInArena([&] { ran = tbb::this_task_arena::max_concurrency(); });
    EXPECT_EQ(ran, width >= 1 ? width : tbb::info::default_concurrency());
    if (width < 1) return;
    const std::pair<int, bool> peak = peakConcurrency(0);
    EXPECT_TRUE(peak.first >= 1 && peak.first <= width) << peak.first;
    EXPECT_TRUE(width > 1 || !peak.second);  // width 1: only the calling thread runs the work
}

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
        ((m.*kCounters[k].addOne)(), (m.*kCounters[k].addOne)(), (m.*kCounters[k].addN)(40));
        for (int j = 0; j < 12; ++j) EXPECT_EQ((m.*kCounters[j].get)(), j == k ? 42u : 0u) << k << ' ' << j;
    }
    std::uint32_t a[12], b[12];
    for (std::uint32_t k = 0; k < 12; ++k) a[k] = 0xFFFFFFF0u + k, b[k] = 0x20u + 1000u * k;
    GmBVHMetrics sum = filled(a), self = filled(b);
    sum += filled(b);
    self += self;
    for (int k = 0; k < 12; ++k)  // modulo 2^32
        EXPECT_TRUE((sum.*kCounters[k].get)() == a[k] + b[k] && (self.*kCounters[k].get)() == 2u * b[k]) << k;
    GmBVHMetrics moved = std::move(self);
    EXPECT_TRUE(moved == (filled(b) += filled(b)) && moved != sum);
    moved.reset();
    for (const Counter& c : kCounters) EXPECT_TRUE((moved.*c.get)() == 0u && moved == GmBVHMetrics());
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

#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdlib>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#include <tbb/global_control.h>
#include <tbb/task_arena.h>

#include <quarrygeom/core/GmParallel.h>
#include <quarrygeom/core/tarnCollision.h>
#include "../support/threading.h"

namespace {


TEST(ParallelFrame, SwitchDefaultsToParallelAndSelectsThePath) {
    EXPECT_TRUE(tarnCollision::isMultiThreading());
    EXPECT_TRUE(GmParallel::isParallel());
    const std::thread::id caller = std::this_thread::get_id();
    {
        ScopedThreading serial(false);
        EXPECT_FALSE(GmParallel::isParallel());
        int which = 0;
        std::thread::id ranOn;
        GmParallel::dispatch([&] { which = 1; ranOn = std::this_thread::get_id(); }, [&] { which = 2; });
        EXPECT_EQ(which, 1);
        EXPECT_EQ(ranOn, caller);
    }
    {
        ScopedThreading parallel(true);
        int which = 0;
        int arenaWidth = 0;
        GmParallel::dispatch([&] { which = 1; },
                             [&] {
                                 which = 2;
                                 arenaWidth = tbb::this_task_arena::max_concurrency();
                             });
        EXPECT_EQ(which, 2);
        if (GmParallel::workerCount() >= 1) {
            EXPECT_EQ(arenaWidth, GmParallel::workerCount());
        }
    }
}

TEST(ParallelFrame, WorkerCountComesFromTheHardwareWithoutTheVariable) {
    if (std::getenv("KORV_THREAD_COUNT")) GTEST_SKIP() << "KORV_THREAD_COUNT is set";
    EXPECT_EQ(GmParallel::workerCount(), static_cast<int>(std::thread::hardware_concurrency()));
}

TEST(ParallelFrame, ParallelForVisitsEveryIndexOnce) {
    std::vector<std::atomic<int>> hits(1000);
    GmParallel::runInArena([&] { GmParallel::parallelFor(-3, 997, [&](int i) { hits[i + 3].fetch_add(1); }); });
    for (const auto& h : hits) EXPECT_EQ(h.load(), 1);
    // Empty and reversed ranges do nothing.
    int calls = 0;
    GmParallel::runInArena([&] {
        GmParallel::parallelFor(5, 5, [&](int) { ++calls; });
        GmParallel::parallelFor(5, 2, [&](int) { ++calls; });
    });
    EXPECT_EQ(calls, 0);
}

TEST(ParallelFrame, SingleContributorIsSwappedInWithoutACopy) {
    GmParallel::ThreadResults<int> results;
    std::vector<int>& local = results.records();
    for (int i = 0; i < 100; ++i) local.push_back(i * i);
    results.metrics().addNarrowPhaseCandidates(100);
    const int* data = local.data();

    std::vector<int> out;
    GmBVHMetrics total;
    total.addNarrowPhaseCandidates(1);
    results.mergeInto(out, total);
    ASSERT_EQ(out.size(), 100u);
    EXPECT_EQ(out.data(), data);  // the thread's buffer itself
    EXPECT_EQ(out[99], 99 * 99);
    EXPECT_EQ(total.narrowPhaseCandidates(), 101u);
}

TEST(ParallelFrame, RecordsFollowWhatTheOutputAlreadyHeld) {
    GmParallel::ThreadResults<std::string> results;
    results.records() = {"c", "d"};
    std::vector<std::string> out = {"a", "b"};
    GmBVHMetrics total;
    results.mergeInto(out, total);
    EXPECT_EQ(out, (std::vector<std::string>{"a", "b", "c", "d"}));
}

TEST(ParallelFrame, SeveralContributorsAreConcatenatedInOrder) {
    // Two threads with records and one that touched its vector but added nothing. They
    // stay alive together (thread ids of finished threads may be reused by the next one).
    GmParallel::ThreadResults<int> results;
    std::atomic<int> arrived{0};
    auto together = [&arrived] {
        arrived.fetch_add(1);
        while (arrived.load() < 3) std::this_thread::yield();
    };
    std::thread a([&] {
        for (int i = 0; i < 5; ++i) results.records().push_back(100 + i);
        results.metrics().addBroadPhaseTests(5);
        together();
    });
    std::thread b([&] {
        for (int i = 0; i < 3; ++i) results.records().push_back(200 + i);
        results.metrics().addBroadPhaseTests(3);
        together();
    });
    std::thread c([&] {
        results.records();
        results.metrics();
        together();
    });
    a.join();
    b.join();
    c.join();
    EXPECT_EQ(results.recordThreadCount(), 3u);

    std::vector<int> out = {1};
    GmBVHMetrics total;
    results.mergeInto(out, total);
    ASSERT_EQ(out.size(), 9u);
    EXPECT_EQ(out[0], 1);
    // Each thread's block keeps its own order; the blocks may come in either order.
    const bool aFirst = out[1] == 100;
    const std::vector<int> expected = aFirst ? std::vector<int>{1, 100, 101, 102, 103, 104, 200, 201, 202}
                                             : std::vector<int>{1, 200, 201, 202, 100, 101, 102, 103, 104};
    EXPECT_EQ(out, expected);
    EXPECT_EQ(total.broadPhaseTests(), 8u);
}

TEST(ParallelFrame, EmptyThreadVectorsDoNotPreventTheSwap) {
    GmParallel::ThreadResults<int> results;
    results.records().assign({7, 8, 9});
    std::thread idle([&] { results.records().reserve(4); });  // a second thread, its vector stays empty
    idle.join();
    EXPECT_EQ(results.recordThreadCount(), 2u);
    const int* data = results.records().data();
    std::vector<int> out;
    GmBVHMetrics total;
    results.mergeInto(out, total);
    EXPECT_EQ(out, (std::vector<int>{7, 8, 9}));
    EXPECT_EQ(out.data(), data);

    // Nothing recorded at all: the output is untouched.
    GmParallel::ThreadResults<int> none;
    std::vector<int> keep = {1, 2};
    none.mergeInto(keep, total);
    EXPECT_EQ(keep, (std::vector<int>{1, 2}));
    EXPECT_EQ(total, GmBVHMetrics());
}

TEST(ParallelFrame, CallingThreadRecordsLandInTheOutputInPlace) {
    std::vector<int> out = {1, 2};
    out.reserve(64);
    const int* data = out.data();
    GmBVHMetrics total;
    {
        GmParallel::ThreadResults<int> results(out);
        EXPECT_EQ(&results.records(), &out);  // the calling thread appends to the output itself
        results.records().push_back(3);
        results.metrics().addEdgeEdgeTests(1);
        std::thread worker([&] {
            GmParallel::ThreadResults<int>::Local& mine = results.local();
            EXPECT_NE(&mine.records(), &out);
            for (int i = 4; i <= 6; ++i) {
                mine.records().push_back(i);
                mine.flush();
            }
            mine.records().push_back(7);  // left in the staging vector
            results.metrics().addEdgeEdgeTests(4);
        });
        worker.join();
        results.records().push_back(8);  // the caller goes on after the worker
        results.mergeInto(out, total);
    }
    EXPECT_EQ(out, (std::vector<int>{1, 2, 3, 8, 4, 5, 6, 7}));
    EXPECT_EQ(out.data(), data);  // nothing was reallocated
    EXPECT_EQ(total.edgeEdgeTests(), 5u);
}

TEST(ParallelFrame, FlushedRecordsSpanningManyChunksKeepTheirOrder) {
    // Enough ints for several chunks per thread, flushed in uneven batches.
    const int n = 400000;
    GmParallel::ThreadResults<int> results;
    std::atomic<int> arrived{0};
    auto fill = [&](int base) {
        GmParallel::ThreadResults<int>::Local& mine = results.local();
        for (int i = 0; i < n; ++i) {
            mine.records().push_back(base + i);
            if (i % 13 == 0) mine.flush();
        }
        arrived.fetch_add(1);
        while (arrived.load() < 2) std::this_thread::yield();  // distinct threads
    };
    std::thread a(fill, 0), b(fill, 10000000);
    a.join();
    b.join();
    std::vector<int> out = {-1};
    GmBVHMetrics total;
    results.mergeInto(out, total);
    ASSERT_EQ(out.size(), 1u + 2u * n);
    EXPECT_EQ(out[0], -1);
    const int firstBase = out[1];
    ASSERT_TRUE(firstBase == 0 || firstBase == 10000000);
    const int secondBase = firstBase == 0 ? 10000000 : 0;
    for (int i = 0; i < n; ++i) {
        ASSERT_EQ(out[1 + i], firstBase + i);
        ASSERT_EQ(out[1 + n + i], secondBase + i);
    }
}

TEST(ParallelFrame, UnmergedDirectResultsLeaveTheOutputAsItWas) {
    ScopedThreading g(true);
    std::vector<int> out = {5, 6};
    {
        GmParallel::ThreadResults<int> results(out);
        for (int i = 0; i < 100; ++i) results.records().push_back(i);
    }
    EXPECT_EQ(out, (std::vector<int>{5, 6}));

    GmBVHMetrics metrics;
    EXPECT_THROW(GmParallel::dispatch([] {},
                                      [&] {
                                          GmParallel::ThreadResults<int> results(out);
                                          GmParallel::parallelFor(0, 200, [&](int i) {
                                              results.records().push_back(i);
                                              if (i == 150) throw std::runtime_error("body failed");
                                          });
                                          results.mergeInto(out, metrics);
                                      }),
                 std::runtime_error);
    EXPECT_EQ(out, (std::vector<int>{5, 6}));
    EXPECT_EQ(metrics, GmBVHMetrics());
}

TEST(ParallelFrame, RangesCoverTheIndicesOnce) {
    std::vector<std::atomic<int>> hits(5000);
    std::atomic<int> ranges{0};
    GmParallel::runInArena([&] {
        GmParallel::parallelForRanges(0, 5000, [&](int first, int last) {
            EXPECT_LT(first, last);
            ranges.fetch_add(1);
            for (int i = first; i < last; ++i) hits[i].fetch_add(1);
        });
    });
    for (const auto& h : hits) EXPECT_EQ(h.load(), 1);
    EXPECT_GE(ranges.load(), 1);
}

// All pairs (i, j), i < j, of n values whose sum is divisible by 7, computed through the frame.
struct Pair {
    int i, j;
    bool operator<(const Pair& o) const { return i != o.i ? i < o.i : j < o.j; }
    bool operator==(const Pair& o) const { return i == o.i && j == o.j; }
};

std::vector<Pair> pairsThroughTheFrame(int n, std::vector<Pair> out, GmBVHMetrics& metrics) {
    auto test = [](int i, int j, std::vector<Pair>& records, GmBVHMetrics& m) {
        m.addNarrowPhaseTest();
        if ((i + j) % 7 == 0) {
            m.addNarrowPhaseSuccess();
            records.push_back({i, j});
        }
    };
    GmParallel::dispatch(
        [&] {
            for (int i = 0; i < n; ++i)
                for (int j = i + 1; j < n; ++j) test(i, j, out, metrics);
        },
        [&] {
            GmParallel::ThreadResults<Pair> results(out);
            GmParallel::parallelForRanges(0, n, [&](int first, int last) {
                GmParallel::ThreadResults<Pair>::Local& mine = results.local();
                for (int i = first; i < last; ++i) {
                    for (int j = i + 1; j < n; ++j) test(i, j, mine.records(), results.metrics());
                    mine.flush();
                }
            });
            results.mergeInto(out, metrics);
        });
    return out;
}

TEST(ParallelFrame, SerialAndParallelPathsGiveTheSameResultSet) {
    const int n = 400;
    std::vector<Pair> expected;
    for (int i = 0; i < n; ++i)
        for (int j = i + 1; j < n; ++j)
            if ((i + j) % 7 == 0) expected.push_back({i, j});

    const std::vector<Pair> prefix = {{-1, -1}};
    GmBVHMetrics serialMetrics, parallelMetrics;
    std::vector<Pair> serial, parallel;
    {
        ScopedThreading g(false);
        serial = pairsThroughTheFrame(n, prefix, serialMetrics);
    }
    {
        ScopedThreading g(true);
        parallel = pairsThroughTheFrame(n, prefix, parallelMetrics);
    }
    for (std::vector<Pair>* v : {&serial, &parallel}) {
        ASSERT_FALSE(v->empty());
        EXPECT_EQ(v->front(), prefix.front());  // earlier content stays first
        std::vector<Pair> tail(v->begin() + 1, v->end());
        std::sort(tail.begin(), tail.end());
        EXPECT_EQ(tail, expected);
    }
    EXPECT_EQ(serialMetrics, parallelMetrics);
    EXPECT_EQ(serialMetrics.narrowPhaseTests(), static_cast<std::uint32_t>(n * (n - 1) / 2));
    EXPECT_EQ(serialMetrics.narrowPhaseSuccesses(), expected.size());
}

TEST(ParallelFrame, ExceptionsLeaveTheArena) {
    ScopedThreading g(true);
    std::vector<int> out = {5};
    GmBVHMetrics metrics;
    EXPECT_THROW(
        GmParallel::dispatch([] {},
                             [&] {
                                 GmParallel::ThreadResults<int> results;
                                 GmParallel::parallelFor(0, 100, [&](int i) {
                                     results.records().push_back(i);
                                     if (i == 37) throw std::runtime_error("body failed");
                                 });
                                 results.mergeInto(out, metrics);
                             }),
        std::runtime_error);
    EXPECT_EQ(out, std::vector<int>{5});  // no merge happened
    // A throwing serial path propagates as well, and the frame stays usable.
    {
        ScopedThreading s(false);
        EXPECT_THROW(GmParallel::dispatch([] { throw std::logic_error("serial"); }, [] {}), std::logic_error);
    }
    try {
        GmParallel::runInArena([] { throw std::runtime_error("direct"); });
        FAIL() << "no exception";
    } catch (const std::runtime_error& e) {
        EXPECT_STREQ(e.what(), "direct");
    }
    std::atomic<int> count{0};
    GmParallel::runInArena([&] { GmParallel::parallelFor(0, 50, [&](int) { ++count; }); });
    EXPECT_EQ(count.load(), 50);
}

// Largest number of threads seen at once inside the work of an arena of the given width
// (width 0: the frame's own arena). Every item blocks for a while, so idle threads are
// free to join; the global limit is lifted so that only the arena can cap the count.
int peakConcurrency(int width) {
    tbb::global_control lift(tbb::global_control::max_allowed_parallelism, 16);
    std::atomic<int> active{0}, peak{0};
    auto body = [&](int) {
        const int now = active.fetch_add(1) + 1;
        int seen = peak.load();
        while (now > seen && !peak.compare_exchange_weak(seen, now)) {
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(4));
        active.fetch_sub(1);
    };
    if (width == 0) {
        GmParallel::runInArena([&] { GmParallel::parallelFor(0, 400, body); });
    } else {
        tbb::task_arena wide(width, 1);
        wide.execute([&] { GmParallel::parallelFor(0, 400, body); });
    }
    return peak.load();
}

TEST(ParallelFrame, PeakConcurrencyMeasurementSeesWideArenas) {
    // Control for the capped runs below: without a cap of 3, more than 3 threads do run.
    EXPECT_GT(peakConcurrency(8), 3);
}

// Runs with KORV_THREAD_COUNT set by CTest (see tests.cmake); QG_TEST_EXPECTED_WORKERS holds
// the width the library must have read from it.
TEST(ParallelFrameEnvironment, ArenaIsCappedByTheVariable) {
    const char* expected = std::getenv("QG_TEST_EXPECTED_WORKERS");
    if (!expected) GTEST_SKIP() << "run through CTest with KORV_THREAD_COUNT set";
    const int width = std::stoi(expected);
    EXPECT_EQ(GmParallel::workerCount(), width);
    if (width >= 1) {
        const int peak = peakConcurrency(0);
        EXPECT_LE(peak, width);
        EXPECT_GE(peak, 1);
        if (width == 1) {
            // Only the calling thread runs the work.
            const std::thread::id caller = std::this_thread::get_id();
            std::atomic<int> foreign{0};
            GmParallel::runInArena([&] {
                GmParallel::parallelFor(0, 200, [&](int) {
                    if (std::this_thread::get_id() != caller) ++foreign;
                    std::this_thread::sleep_for(std::chrono::microseconds(200));
                });
            });
            EXPECT_EQ(foreign.load(), 0);
        }
    } else {
        // The value reaches the arena unchanged; oneTBB takes it as its default width.
        int ran = 0;
        GmParallel::runInArena([&] { ran = tbb::this_task_arena::max_concurrency(); });
        EXPECT_GE(ran, 1);
    }
}

}  // namespace

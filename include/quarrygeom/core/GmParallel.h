#pragma once

#include <cstddef>
#include <iterator>
#include <utility>
#include <vector>

#include <tbb/blocked_range.h>
#include <tbb/cache_aligned_allocator.h>
#include <tbb/enumerable_thread_specific.h>
#include <tbb/parallel_for.h>
#include <tbb/partitioner.h>
#include <tbb/task_arena.h>

#include <quarrygeom/core/GmBVHMetrics.h>
#include <quarrygeom/core/GmExport.h>

// The execution frame shared by every parallel-capable operation (hierarchy build and
// refit, collision traversals, mesh adjacency):
//
//   GmParallel::dispatch(
//       [&] { serialForm(); },                        // tarnCollision::isMultiThreading() == false
//       [&] { GmParallel::parallelFor(0, n, body); }); // inside an arena of workerCount() threads
//
// Work that produces records gives each thread its own vector and counters through
// ThreadResults and merges them on the calling thread once the parallel part is over.
namespace GmParallel {

// Width of the task arenas: atoi(KORV_THREAD_COUNT) when that variable is set (a
// non-numeric value gives 0, negative values are kept), otherwise
// std::thread::hardware_concurrency(). Read once when the library is loaded; the value
// is passed to tbb::task_arena unchanged (oneTBB treats a value below 1 as "automatic").
QUARRYGEOM_API int workerCount();

// True when operations take their parallel path: the value of tarnCollision::isMultiThreading().
QUARRYGEOM_API bool isParallel();

// Runs work() inside a fresh tbb::task_arena(workerCount(), 1) (one slot reserved for the
// calling thread), so that the work uses at most workerCount() threads whatever the host's
// own TBB settings. The arena is terminated when the work returns or throws; an exception
// propagates to the caller.
// ThreadSanitizer cannot see the synchronisation inside an uninstrumented TBB. The frame states
// its hand-overs itself: the calling thread releases before work is handed to workers and
// acquires after it returns; every parallel body acquires on entry and releases on exit.
// Both are no-ops in other builds.
#if defined(__SANITIZE_THREAD__)
extern "C" void __tsan_acquire(void* addr);
extern "C" void __tsan_release(void* addr);
inline char handOverToken;
inline void handOverRelease() { __tsan_release(&handOverToken); }
inline void handOverAcquire() { __tsan_acquire(&handOverToken); }
#else
inline void handOverRelease() {}
inline void handOverAcquire() {}
#endif

template <class F>
void runInArena(F&& work) {
    tbb::task_arena arena(workerCount(), 1);
    arena.initialize();
    struct Terminate {
        tbb::task_arena& a;
        ~Terminate() { a.terminate(); }
    } terminate{arena};
    struct Collect {
        ~Collect() { handOverAcquire(); }
    } collect;
    handOverRelease();
    arena.execute([&work]() { work(); });
}

// serial() on the calling thread when !isParallel(), otherwise parallel() inside runInArena.
template <class S, class P>
void dispatch(S&& serial, P&& parallel) {
    if (!isParallel()) {
        serial();
        return;
    }
    runInArena(std::forward<P>(parallel));
}

// body(i) for every i in [begin, end): tbb::parallel_for over blocked_range<int>(begin, end, 1)
// with the auto_partitioner. Meant to be called inside runInArena / dispatch's parallel part.
template <class Body>
void parallelFor(int begin, int end, Body&& body) {
    if (end <= begin) return;
    struct Collect {
        ~Collect() { handOverAcquire(); }
    } collect;
    handOverRelease();
    tbb::parallel_for(
        tbb::blocked_range<int>(begin, end, 1),
        [&body](const tbb::blocked_range<int>& r) {
            handOverAcquire();
            struct Release {
                ~Release() { handOverRelease(); }
            } release;  // also when the body throws
            for (int i = r.begin(); i != r.end(); ++i) body(i);
        },
        tbb::auto_partitioner());
}

// Per-thread results of one operation: a vector of records and a GmBVHMetrics per thread,
// created on first use by that thread, written without locks. Create one per operation.
template <class Record>
class ThreadResults {
public:
    // The calling thread's own vector / counters.
    std::vector<Record>& records() { return _records.local(); }
    GmBVHMetrics& metrics() { return _metrics.local(); }

    // Call on the calling thread after the parallel part has finished.
    // Metrics: every thread's counters are added to `metrics` in enumeration order.
    // Records: thread-local vectors that stayed empty are ignored. When `out` is empty and
    // a single thread-local vector holds records, it is swapped into `out` (no copy);
    // otherwise the non-empty thread-local vectors are moved, in enumeration order and each
    // in its own order, to the end of `out` after what it already holds. The thread-local
    // vectors are left empty or hold out's previous (empty) buffer.
    void mergeInto(std::vector<Record>& out, GmBVHMetrics& metrics) {
        for (const GmBVHMetrics& m : _metrics) metrics += m;

        std::size_t total = 0, nonEmpty = 0;
        std::vector<Record>* single = nullptr;
        for (std::vector<Record>& v : _records) {
            if (v.empty()) continue;
            total += v.size();
            ++nonEmpty;
            single = &v;
        }
        if (nonEmpty == 0) return;
        if (out.empty() && nonEmpty == 1) {
            out.swap(*single);
            return;
        }
        out.reserve(out.size() + total);
        for (std::vector<Record>& v : _records) {
            out.insert(out.end(), std::make_move_iterator(v.begin()), std::make_move_iterator(v.end()));
            v.clear();
        }
    }

    // Number of threads that asked for their vector / counters so far.
    std::size_t recordThreadCount() const { return _records.size(); }
    std::size_t metricsThreadCount() const { return _metrics.size(); }

private:
    template <class T>
    using PerThread = tbb::enumerable_thread_specific<T, tbb::cache_aligned_allocator<T>, tbb::ets_key_per_instance>;

    PerThread<std::vector<Record>> _records;
    PerThread<GmBVHMetrics> _metrics;
};

}  // namespace GmParallel

#pragma once

#include <algorithm>
#include <cassert>
#include <cstddef>
#include <iterator>
#include <type_traits>
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
// acquires after it returns; every parallel body acquires on entry and releases on exit, and
// so does every copy TBB makes of a body for a task. Every hand-over of the library goes through
// the one address: TBB recycles a task's memory for tasks of other loops and other operations,
// and one address orders them all. Both are no-ops in other builds.
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
    arena.execute([&work]() {
        // Usually the calling thread itself; a worker when the arena has to delegate the work.
        handOverAcquire();
        struct Release {
            ~Release() { handOverRelease(); }
        } release;
        work();
    });
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

namespace detail {

// What tbb::parallel_for runs on every sub-range. TBB copies it into each task it splits off,
// on whichever thread splits, after the caller's release and before the thread that runs the
// task acquires: the copy states its own hand-over (acquire, copy, release), so the task's copy
// is published before it is spawned, and the memory TBB recycles for it was handed over by its
// previous user.
template <class Body>
class RangeTask {
public:
    explicit RangeTask(Body& body) : _body(&body) {}
    RangeTask(const RangeTask& other) : _body(acquired(other)) { handOverRelease(); }
    RangeTask& operator=(const RangeTask&) = delete;

    void operator()(const tbb::blocked_range<int>& r) const {
        handOverAcquire();  // before anything of the task is read
        struct Release {
            ~Release() { handOverRelease(); }
        } release;  // also when the body throws
        (*_body)(r.begin(), r.end());
    }

private:
    // other's body pointer, read after the acquire (the copy writes nothing before it).
    static Body* acquired(const RangeTask& other) {
        handOverAcquire();
        return other._body;
    }

    Body* _body;
};

}  // namespace detail

// body(first, last) for consecutive sub-ranges that together cover [begin, end) once:
// tbb::parallel_for over blocked_range<int>(begin, end, 1) with the auto_partitioner. Lets a
// body look up its thread's results once per sub-range. Meant to be called inside runInArena /
// dispatch's parallel part.
template <class Body>
void parallelForRanges(int begin, int end, Body&& body) {
    if (end <= begin) return;  // no task: nothing to hand over
    using Task = detail::RangeTask<std::remove_reference_t<Body>>;
    struct Collect {
        ~Collect() { handOverAcquire(); }
    } collect;
    const Task task(body);
    handOverRelease();
    tbb::parallel_for(tbb::blocked_range<int>(begin, end, 1), task, tbb::auto_partitioner());
}

// body(i) for every i in [begin, end), through parallelForRanges.
template <class Body>
void parallelFor(int begin, int end, Body&& body) {
    parallelForRanges(begin, end, [&body](int first, int last) {
        for (int i = first; i != last; ++i) body(i);
    });
}

// Per-thread results of one operation: the records and a GmBVHMetrics per thread, created on
// first use by that thread, written without locks. Create one per operation.
//
// A thread appends to the vector that records() returns. A worker's vector is a small staging
// buffer: flush() moves its records on into chunks taken from TBB's allocator, so that the
// records are never copied by vector growth and the chunk memory is reused from one operation
// to the next instead of being faulted in afresh. Records left in the staging vector are
// collected by the merge all the same.
//
// Constructed with the caller's output vector (on the calling thread), the calling thread's
// records() is that vector itself: its records land in place, and only the other threads'
// records are copied by the merge. The calling thread's entry is the first of the container,
// so the merge's result is the same as if it had been a thread-local vector of its own.
template <class Record>
class ThreadResults {
    using Chunk = std::vector<Record, tbb::cache_aligned_allocator<Record>>;
    // Chunk sizes double from 64 KiB to 2 MiB (at least 16 records): little memory for small
    // results, few large blocks (which TBB's allocator keeps for reuse) for large ones.
    static constexpr std::size_t records(std::size_t bytes) {
        return bytes / sizeof(Record) > 16 ? bytes / sizeof(Record) : 16;
    }
    static constexpr std::size_t kFirstChunkRecords = records(std::size_t(1) << 16);
    static constexpr std::size_t kMaxChunkRecords = records(std::size_t(1) << 21);

public:
    class Local {
    public:
        // The vector this thread appends its records to.
        std::vector<Record>& records() { return _direct != nullptr ? *_direct : _staging; }
        // Moves the records appended since the last flush into the chunks (order kept).
        void flush() {
            if (_staging.empty()) return;
            auto it = _staging.begin();
            const auto end = _staging.end();
            while (it != end) {
                if (_chunks.empty() || _chunks.back().size() == _chunks.back().capacity()) {
                    const std::size_t capacity = _chunks.empty()
                                                     ? kFirstChunkRecords
                                                     : std::min(2 * _chunks.back().capacity(), kMaxChunkRecords);
                    _chunks.emplace_back();
                    _chunks.back().reserve(capacity);
                }
                Chunk& chunk = _chunks.back();
                const std::ptrdiff_t room = static_cast<std::ptrdiff_t>(chunk.capacity() - chunk.size());
                const std::ptrdiff_t n = std::min(room, end - it);
                chunk.insert(chunk.end(), std::make_move_iterator(it), std::make_move_iterator(it + n));
                it += n;
            }
            _chunked += _staging.size();
            _staging.clear();
        }

    private:
        friend class ThreadResults;
        std::size_t size() const { return _chunked + _staging.size(); }

        std::vector<Record>* _direct = nullptr;  // the caller's output (calling thread only)
        std::vector<Record> _staging;
        std::vector<Chunk> _chunks;
        std::size_t _chunked = 0;  // records in _chunks
    };

    ThreadResults() = default;

    // The calling thread appends straight to `out`; construct on the calling thread and merge
    // into the same vector. Destroyed without a merge (an exception left the parallel part),
    // `out` is cut back to what it held at construction.
    explicit ThreadResults(std::vector<Record>& out) : _target(&out), _targetSize(out.size()) {
        _records.local()._direct = &out;
    }

    ~ThreadResults() {
        if (_target != nullptr)
            _target->erase(_target->begin() + static_cast<std::ptrdiff_t>(_targetSize), _target->end());
    }

    ThreadResults(const ThreadResults&) = delete;
    ThreadResults& operator=(const ThreadResults&) = delete;

    // The calling thread's own entry / record vector / counters.
    Local& local() { return _records.local(); }
    std::vector<Record>& records() { return _records.local().records(); }
    GmBVHMetrics& metrics() { return _metrics.local(); }

    // Call on the calling thread after the parallel part has finished.
    // Metrics: every thread's counters are added to `metrics` in enumeration order.
    // Records: threads that recorded nothing are ignored. When `out` is empty and a single
    // thread holds records, its vector is swapped into `out` (no copy) if they are all still
    // there; otherwise every thread's records are moved, in enumeration order and each in its
    // own order, to the end of `out` after what it already holds.
    void mergeInto(std::vector<Record>& out, GmBVHMetrics& metrics) {
        assert(_target == nullptr || _target == &out);
        for (const GmBVHMetrics& m : _metrics) metrics += m;
        mergeRecords(out);
        _target = nullptr;  // merged: out keeps what it holds
    }

    // Number of threads that asked for their records / counters so far.
    std::size_t recordThreadCount() const { return _records.size(); }
    std::size_t metricsThreadCount() const { return _metrics.size(); }

private:
    template <class T>
    using PerThread = tbb::enumerable_thread_specific<T, tbb::cache_aligned_allocator<T>, tbb::ets_key_per_instance>;

    void mergeRecords(std::vector<Record>& out) {
        std::size_t total = 0, nonEmpty = 0;
        Local* single = nullptr;
        for (Local& l : _records) {
            if (l._direct != nullptr || l.size() == 0) continue;
            total += l.size();
            ++nonEmpty;
            single = &l;
        }
        if (nonEmpty == 0) return;
        if (out.empty() && nonEmpty == 1 && single->_chunks.empty()) {
            out.swap(single->_staging);
            return;
        }
        out.reserve(out.size() + total);
        auto append = [&out](auto& v) {
            out.insert(out.end(), std::make_move_iterator(v.begin()), std::make_move_iterator(v.end()));
        };
        for (Local& l : _records) {
            if (l._direct != nullptr) continue;
            for (Chunk& c : l._chunks) append(c);
            append(l._staging);
            l._chunks.clear();
            l._staging.clear();
            l._chunked = 0;
        }
    }

    PerThread<Local> _records;
    PerThread<GmBVHMetrics> _metrics;
    std::vector<Record>* _target = nullptr;  // caller's output until merged
    std::size_t _targetSize = 0;
};

}  // namespace GmParallel

// ThreadSanitizer cannot see the synchronisation inside the system's TBB library (it is not
// instrumented), so it reports TBB's own task bookkeeping (range splitting, partitioner nodes,
// wait counters, stack memory reused after a parallel loop) as races. These suppressions match
// only reports whose innermost frame is TBB code, a standard atomic used by TBB, or the parallel
// frame's loop wrapper reading the loop body that the calling thread built (handed over by TBB);
// a race with the innermost frame in the traversal, the kernels or the test is still reported. The
// traversal itself states its synchronisation to ThreadSanitizer (GmBVHCollisionWalk.h).
#if defined(__SANITIZE_THREAD__)
extern "C" __attribute__((visibility("default"))) const char* __tsan_default_suppressions() {
    return "race_top:oneapi/tbb/\n"
           "race_top:tbb::detail::\n"
           "race_top:bits/atomic_base.h\n"
           "race_top:work_balance\n"
           "race_top:core/GmParallel.h\n";
}
#endif

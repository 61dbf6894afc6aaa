// ThreadSanitizer cannot see the synchronisation inside the system's TBB library (it is not
// instrumented), so it reports TBB's own task bookkeeping (range splitting, partitioner nodes,
// wait counters, stack memory reused after a parallel loop) as races. These suppressions match
// only reports whose innermost frame is oneTBB's own code, or that have in either stack one of
// the named oneTBB functions, which touch only TBB's own objects; a race in the library (the
// parallel frame and its merge included), the kernels or the test is still reported. The
// library states its own hand-overs to ThreadSanitizer (GmParallel.h, GmBVHCollisionWalk.h).
// The tsan preset keeps the longest access history (history_size=7): without it the earlier
// access of a report on reused stack memory is often lost, and no name can match it.
#if defined(__SANITIZE_THREAD__)
extern "C" __attribute__((visibility("default"))) const char* __tsan_default_suppressions() {
    return "race_top:oneapi/tbb/\n"
           "race_top:tbb::detail::\n"
           // TBB's own atomics, inlined from <atomic> (so the top frame is atomic_base.h), named by
           // the TBB function that holds them. None of these calls library code (fold_tree would
           // call a reduction's join, and the library runs no parallel_reduce), so a report with
           // one of them in either stack is TBB's bookkeeping (or TBB's stack objects reused by the
           // calling thread after a parallel loop).
           "race:check_being_stolen\n"
           "race:tbb::detail::d1::node::node\n"
           "race:tbb::detail::d1::wait_context::wait_context\n"
           "race:tbb::detail::d1::wait_context::add_reference\n"
           "race:tbb::detail::d1::invoke_subroot_task<*>::execute\n"
           "race:tbb::detail::d1::invoke_subroot_task<*>::release\n"
           "race:tbb::detail::d1::fold_tree\n";
}
#endif

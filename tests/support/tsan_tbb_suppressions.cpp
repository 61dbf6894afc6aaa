// ThreadSanitizer cannot see the synchronisation inside the system's TBB (not instrumented) and
// reports TBB's own bookkeeping as races. These suppressions match only reports whose innermost
// frame is oneTBB's, or with one of the named oneTBB functions (which touch only TBB's objects)
// in either stack: races in the library and the tests are still reported. The library states
// its own hand-overs (GmParallel.h, GmBVHCollisionWalk.h).
#if defined(__SANITIZE_THREAD__)
extern "C" __attribute__((visibility("default"))) const char* __tsan_default_suppressions() {
    return "race_top:oneapi/tbb/\n"
           "race_top:tbb::detail::\n"
           // TBB's atomics inlined from <atomic>, named by the TBB function holding them.
           "race:check_being_stolen\n"
           "race:tbb::detail::d1::node::node\n"
           "race:tbb::detail::d1::wait_context::wait_context\n"
           "race:tbb::detail::d1::wait_context::add_reference\n"
           "race:tbb::detail::d1::invoke_subroot_task<*>::execute\n"
           "race:tbb::detail::d1::invoke_subroot_task<*>::release\n"
           "race:tbb::detail::d1::fold_tree\n";
}
#endif

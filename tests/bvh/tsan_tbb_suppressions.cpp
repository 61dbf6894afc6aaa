// ThreadSanitizer cannot see the synchronisation inside the system's TBB library (it is not
// instrumented) and reports TBB's own task bookkeeping as races. Only reports whose innermost
// frame is TBB code, a standard atomic used by TBB or the parallel frame's loop wrapper are
// suppressed; a race whose innermost frame is in the hierarchy or in the tests is still reported.
#if defined(__SANITIZE_THREAD__)
extern "C" __attribute__((visibility("default"))) const char* __tsan_default_suppressions() {
    return "race_top:oneapi/tbb/\n"
           "race_top:tbb::detail::\n"
           "race_top:bits/atomic_base.h\n"
           "race_top:work_balance\n"
           "race_top:core/GmParallel.h\n";
}
#endif

// The system's TBB library is not built for ThreadSanitizer, so its internal task
// bookkeeping shows up as races. Suppress only reports whose innermost frame lies in
// TBB itself (or in a standard atomic that TBB uses); a race whose top frame is mesh
// code or test code is still reported.
#if defined(__SANITIZE_THREAD__)
extern "C" __attribute__((visibility("default"))) const char* __tsan_default_suppressions() {
    return "race_top:oneapi/tbb/\n"
           "race_top:tbb::detail::\n"
           "race_top:bits/atomic_base.h\n";
}
#endif

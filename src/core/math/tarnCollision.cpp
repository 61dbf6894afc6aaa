#include <quarrygeom/core/tarnCollision.h>

#include <atomic>

namespace {
std::atomic<bool> g_multiThreading{true};
}  // namespace

namespace tarnCollision {

bool isMultiThreading() { return g_multiThreading.load(std::memory_order_relaxed); }

void setMultiThreading(bool enabled) { g_multiThreading.store(enabled, std::memory_order_relaxed); }

}  // namespace tarnCollision

// Helpers shared by the benchmarks.
#pragma once

#include <map>
#include <string>

#include <quarrygeom/core/tarnCollision.h>

#ifdef QG_HAVE_EMBREE
#include <embree3/rtcore.h>
#endif

namespace qgbench {

// Serial or parallel library paths for one scope; the previous setting comes back after it.
class Threading {
public:
    explicit Threading(bool on) : _old(tarnCollision::isMultiThreading()) { tarnCollision::setMultiThreading(on); }
    ~Threading() { tarnCollision::setMultiThreading(_old); }
    Threading(const Threading&) = delete;
    Threading& operator=(const Threading&) = delete;

private:
    bool _old;
};

#ifdef QG_HAVE_EMBREE
// One Embree device per thread count, created once (its start-up is not part of any figure).
inline RTCDevice embreeDevice(int threads) {
    static std::map<int, RTCDevice> devices;
    RTCDevice& d = devices[threads];
    if (d == nullptr) d = rtcNewDevice(("threads=" + std::to_string(threads)).c_str());
    return d;
}
#endif

}  // namespace qgbench

#include <quarrygeom/core/GmParallel.h>
#include <quarrygeom/core/tarnCollision.h>

#include <cstdlib>
#include <thread>

namespace {

int readWorkerCount() {
    if (const char* value = std::getenv("KORV_THREAD_COUNT")) return std::atoi(value);
    return static_cast<int>(std::thread::hardware_concurrency());
}

// Function-local so that static initialisers of other translation units see the value too.
int storedWorkerCount() {
    static const int count = readWorkerCount();
    return count;
}

// Read when the library is loaded.
const int g_workerCountAtLoad = storedWorkerCount();

}  // namespace

namespace GmParallel {

int workerCount() { return storedWorkerCount(); }

bool isParallel() { return tarnCollision::isMultiThreading(); }

}  // namespace GmParallel

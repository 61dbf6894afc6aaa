#pragma once

#include <quarrygeom/core/GmExport.h>

// Process-wide switch between parallel and serial execution of the library's expensive
// operations (hierarchy build and refit, collision traversals, mesh adjacency).
namespace tarnCollision {

// True (the default) lets operations run on worker threads; false keeps them on the
// calling thread. Read at the start of every parallel-capable operation.
QUARRYMATH_API bool isMultiThreading();

// Sets the switch; takes effect for operations started afterwards. Safe to call from any
// thread, but switching while an operation runs does not affect that operation.
QUARRYMATH_API void setMultiThreading(bool enabled);

}  // namespace tarnCollision

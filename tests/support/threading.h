#pragma once

#include <quarrygeom/core/tarnCollision.h>

// Switches multithreading for the lifetime of the object.
class ScopedThreading {
public:
    explicit ScopedThreading(bool on) : _old(tarnCollision::isMultiThreading()) { tarnCollision::setMultiThreading(on); }
    ~ScopedThreading() { tarnCollision::setMultiThreading(_old); }

private:
    bool _old;
};

// Restores the multithreading switch when a test ends; set() may change it meanwhile.
class ThreadingSwitch : ScopedThreading {
public:
    ThreadingSwitch() : ScopedThreading(tarnCollision::isMultiThreading()) {}
    void set(bool on) { tarnCollision::setMultiThreading(on); }
};

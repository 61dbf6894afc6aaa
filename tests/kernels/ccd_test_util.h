#pragma once

// Shared by the kernel tests: one call for either continuous-time primitive, and std::cerr capture.

#include <cfloat>
#include <iostream>
#include <sstream>
#include <string>

#include <quarrygeom/primitives/GmIntersection.h>

namespace qgtest {

using Vec = GmTVector<double>;
constexpr double kNoBound = DBL_MAX;

// Captures std::cerr for the lifetime of the object.
class CerrCapture {
public:
    CerrCapture() : _old(std::cerr.rdbuf(_buf.rdbuf())) {}
    ~CerrCapture() { std::cerr.rdbuf(_old); }
    std::string text() const { return _buf.str(); }

private:
    std::ostringstream _buf;
    std::streambuf* _old;
};

// What a primitive reports; `time` keeps its sentinel unless the primitive writes it.
struct Contact {
    bool hit = false;
    double time = -7.0, s = 0, t = 0;
    Vec point, bary, normal;
};

// v: start positions of the four points, then their end positions (vertex-face p, a, b, c;
// edge-edge a, b, c, d).
inline Contact ccd(bool edgeEdge, const Vec* v, double bound = kNoBound) {
    Contact c;
    c.hit = edgeEdge ? GmIntersection::edgeEdgeIntersection(v[0], v[1], v[2], v[3], v[4], v[5], v[6], v[7], bound,
                                                            c.time, c.s, c.t, c.normal)
                     : GmIntersection::pointFaceIntersection(v[0], v[1], v[2], v[3], v[4], v[5], v[6], v[7], bound,
                                                             c.time, c.point, c.bary, c.normal);
    return c;
}

}  // namespace qgtest

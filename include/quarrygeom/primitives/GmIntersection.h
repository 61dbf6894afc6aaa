#pragma once

#include <cstdint>

#include <quarrygeom/core/GmExport.h>
#include <quarrygeom/core/GmTVector.h>

// Continuous-time (swept) contact primitives and the feature-test set of a triangle pair.
namespace GmIntersection {

// A vertex p moving linearly from p0 to p1 against a face a-b-c moving from (a0, b0, c0) to
// (a1, b1, c1) over the step t in [0, 1]. On contact returns true with the first contact time
// (below timeBound), the contact point, the barycentric weights of a, b, c at the point and the
// face's unit normal at that time, oriented towards the side the vertex started on.
// A face with zero area at the contact time takes the direction from the face to the vertex at
// the start of the step, else the one against the vertex's motion relative to the face; only a
// vertex that stays on a zero-area face throughout has no normal: a message goes to std::cerr
// and the result is false. Contacts at t = 0 and t = 1 count.
QUARRYGEOM_API bool pointFaceIntersection(const GmTVector<double>& p0, const GmTVector<double>& a0,
                                          const GmTVector<double>& b0, const GmTVector<double>& c0,
                                          const GmTVector<double>& p1, const GmTVector<double>& a1,
                                          const GmTVector<double>& b1, const GmTVector<double>& c1,
                                          double timeBound, double& time, GmTVector<double>& point,
                                          GmTVector<double>& barycentric, GmTVector<double>& normal);

// Edge a-b against edge c-d, both moving linearly over the step. On contact returns true with
// the first contact time (below timeBound), the parameters s along a-b and t along c-d of the
// contact and a unit normal pointing from edge c-d towards edge a-b as they stood at the start.
// The normal is the closest-point direction while it stands above its rounding noise (judged
// relative to the edges' length and the sine of their angle, so the same at every power-of-two
// scale), else the cross product of the edge directions; parallel edges in contact take the direction between the edges at
// the start of the step, else the one against the motion of a-b relative to c-d. Only edges
// that coincide throughout have no normal: a message goes to std::cerr and the result is false.
// Both primitives: every tolerance is relative to the features' size, so a scene scaled by a
// power of two gives the same answer; coordinate differences above 2^500 are refused with
// "Coordinates outside the supported range." on std::cerr; input that is not finite never
// gives a contact.
QUARRYGEOM_API bool edgeEdgeIntersection(const GmTVector<double>& a0, const GmTVector<double>& b0,
                                         const GmTVector<double>& c0, const GmTVector<double>& d0,
                                         const GmTVector<double>& a1, const GmTVector<double>& b1,
                                         const GmTVector<double>& c1, const GmTVector<double>& d1,
                                         double timeBound, double& time, double& s, double& t,
                                         GmTVector<double>& normal);

namespace detail {
// Quick rejection of cubics c0 + c1 t + c2 t^2 + c3 t^3 without a root in [0, 1] (true: reject).
QUARRYGEOM_API bool cubicRootPreCheckRejects(double c0, double c1, double c2, double c3);
// Newton refinement of a root estimate: at most four steps, stopping once |p(t)| < 1e-12.
QUARRYGEOM_API double refineCubicRoot(double c0, double c1, double c2, double c3, double t);
// The times, ascending and within [0, 1], at which the contact primitives test for a contact on
// the coplanarity cubic c0 + c1 t + c2 t^2 + c3 t^3: after the gate on |p(1)| and the pre-check,
// the refined roots of the walk (roots below -1e-6 skipped, the first above 1.000001 ending it,
// times not after the previous one passed over, 1.000001 clamped to 1), plus the extrema of the
// cubic that touch zero within rounding and t = 0 when p(0) vanishes within rounding.
// Coefficients are expected scaled so that the features' coordinates are of order one.
QUARRYGEOM_API int rootWalkTimes(double c0, double c1, double c2, double c3, double times[8]);
// The coplanarity cubic of a vertex-face (p, a, b, c) or edge-edge (a, b, c, d) query as the
// primitives build it (coordinates scaled by a power of two to the order of one). Returns false
// when the coordinates are not finite or all points coincide throughout.
QUARRYGEOM_API bool vertexFaceCubic(const GmTVector<double>& p0, const GmTVector<double>& a0,
                                    const GmTVector<double>& b0, const GmTVector<double>& c0,
                                    const GmTVector<double>& p1, const GmTVector<double>& a1,
                                    const GmTVector<double>& b1, const GmTVector<double>& c1, double coeffs[4]);
QUARRYGEOM_API bool edgeEdgeCubic(const GmTVector<double>& a0, const GmTVector<double>& b0,
                                  const GmTVector<double>& c0, const GmTVector<double>& d0,
                                  const GmTVector<double>& a1, const GmTVector<double>& b1,
                                  const GmTVector<double>& c1, const GmTVector<double>& d1, double coeffs[4]);
}  // namespace detail

// The fifteen feature tests of a triangle pair, as a fixed-size bit set:
//   bits 0-2   vertex k+1 of the first face against the second face (VERTEX_FACE)
//   bits 3-5   vertex k-2 of the second face against the first face (FACE_VERTEX)
//   bits 6-14  edge i of the first face against edge j of the second face, bit 6 + 3 i + j
//              (edges numbered 0-2 as the face's edges 1-3: v1-v2, v2-v3, v3-v1)
// Positions of 15 or more throw std::out_of_range("invalid bitset position").
class QUARRYGEOM_API ComponentTests {
public:
    static constexpr unsigned kSize = 15;
    static constexpr std::uint32_t kAllBits = 0x7fffu;

    ComponentTests() = default;
    constexpr explicit ComponentTests(std::uint32_t bits) : _bits(bits & kAllBits) {}

    constexpr std::uint32_t to_ulong() const { return _bits; }
    constexpr std::uint32_t bits() const { return _bits; }
    constexpr unsigned size() const { return kSize; }

    bool test(unsigned pos) const;
    ComponentTests& set(unsigned pos, bool value = true);
    ComponentTests& reset(unsigned pos);
    ComponentTests& set() { _bits = kAllBits; return *this; }
    ComponentTests& reset() { _bits = 0; return *this; }
    // Unchecked access for the kernels' inner loops (pos < 15).
    constexpr bool operator[](unsigned pos) const { return ((_bits >> pos) & 1u) != 0; }

    constexpr bool any() const { return _bits != 0; }
    constexpr bool none() const { return _bits == 0; }
    constexpr bool all() const { return _bits == kAllBits; }
    unsigned count() const;

    constexpr bool operator==(const ComponentTests& o) const { return _bits == o._bits; }
    constexpr bool operator!=(const ComponentTests& o) const { return _bits != o._bits; }
    constexpr ComponentTests operator&(const ComponentTests& o) const { return ComponentTests(_bits & o._bits); }
    constexpr ComponentTests operator|(const ComponentTests& o) const { return ComponentTests(_bits | o._bits); }
    constexpr ComponentTests operator~() const { return ComponentTests(~_bits); }
    ComponentTests& operator&=(const ComponentTests& o) { _bits &= o._bits; return *this; }
    ComponentTests& operator|=(const ComponentTests& o) { _bits |= o._bits; return *this; }

    // Bit positions of the individual tests.
    static constexpr unsigned vertexFaceBit(int vertex) { return unsigned(vertex); }          // 0..2
    static constexpr unsigned faceVertexBit(int vertex) { return 3u + unsigned(vertex); }     // 0..2
    static constexpr unsigned edgeEdgeBit(int edge1, int edge2) { return 6u + 3u * unsigned(edge1) + unsigned(edge2); }

private:
    std::uint32_t _bits = 0;
};

// The four fixed test sets.
inline constexpr ComponentTests kVertexFaceTests{0x7u};
inline constexpr ComponentTests kFaceVertexTests{0x38u};
inline constexpr ComponentTests kEdgeEdgeTests{0x7fc0u};
inline constexpr ComponentTests kAllTests{0x7fffu};

}  // namespace GmIntersection

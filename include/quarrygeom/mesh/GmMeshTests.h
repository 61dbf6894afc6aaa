#pragma once

#include <cstdint>
#include <memory>
#include <vector>

#include <quarrygeom/core/GmExport.h>
#include <quarrygeom/core/GmTVector.h>

namespace GmIntersection {

// Optional per-pair tests that a collision candidate must pass before its narrow phase.
// Bit 0 is the vertex-radius test: the two triangles, placed at host-given reference positions,
// must lie within the mean radius of their six vertices of each other.
//
// Copies share the reference positions (held weakly: the host keeps them alive while the test
// is on) and the radii. Read-only during queries; safe to read from several threads.
class QUARRYGEOM_API MeshTests {
public:
    static constexpr std::uint32_t kVertexRadiusTest = 1u;

    MeshTests() = default;

    bool hasAnyTests() const { return _tests != 0; }
    bool doVertexRadiusTest() const { return (_tests & kVertexRadiusTest) != 0; }
    std::uint32_t getTests() const { return _tests; }

    // Turns the vertex-radius test on with one radius per reference position (radius, times
    // radii[i] when radii is given; radii must then hold that many entries). A null position
    // vector or a negative radius turns the test off instead. A radius of 0 is accepted.
    void setVertexRadiusTest(const std::shared_ptr<std::vector<GmTVector<double>>>& refPositions, double radius,
                             const float* radii = nullptr);
    // Clears bit 0 and releases both references.
    void clearVertexRadiusTest();

    // The reference positions; empty once the host has released them.
    std::shared_ptr<std::vector<GmTVector<double>>> getVertexRadiusRefPos() const { return _refPositions.lock(); }
    // Radius of vertex i (the test must be on and i in range).
    float getVertexRadius(int i) const { return (*_radii)[static_cast<std::size_t>(i)]; }
    // Number of radii (0 when the test is off).
    std::size_t getNumberVertexRadii() const { return _radii ? _radii->size() : 0; }

    // Vertex-radius test of two triangles of one mesh, given by their vertex indices: true when
    // the pair passes (always when the test is off, or when the reference positions have been
    // released).
    bool vertexRadiusTest(const int* vertices1, const int* vertices2) const;
    // The same for a triangle of this mesh against one of another mesh, whose reference
    // positions and radii come from `other`. Passes when either side has no test or no positions.
    bool vertexRadiusTest(const int* vertices1, const MeshTests& other, const int* vertices2) const;

private:
    std::uint32_t _tests = 0;
    std::weak_ptr<std::vector<GmTVector<double>>> _refPositions;
    std::shared_ptr<std::vector<float>> _radii;
};

// The distance test of the vertex-radius test on explicit triangles: true when triangles
// (a0, a1, a2) and (b0, b1, b2) lie within distance r of each other (see MeshTests).
QUARRYGEOM_API bool trianglesWithinDistance(const GmTVector<double>& a0, const GmTVector<double>& a1,
                                            const GmTVector<double>& a2, const GmTVector<double>& b0,
                                            const GmTVector<double>& b1, const GmTVector<double>& b2, double r);

}  // namespace GmIntersection

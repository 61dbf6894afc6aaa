#pragma once

#include <ostream>
#include <vector>

#include <quarrygeom/core/GmExport.h>

class GmTriangleMesh;
class GmDisabledData;

// One orphaned feature pair: a vertex and a face, or two edges, that no pair of
// non-adjacent faces brings together.
//
// Vertex-face test: firstFeature is the vertex, firstFace the first enabled face
// around it, secondFeature == secondFace the face; bit k (0..2) of featureBits says
// the vertex is vertex k + 1 of firstFace.
// Edge-edge test: firstFeature / secondFeature are the edges, firstFace /
// secondFace an enabled face of each (the first recorded one), bit 3 + k says the
// first edge is edge k + 1 of firstFace.
class GmOrphanTest {
public:
    int firstFace = -1;
    int secondFace = -1;
    int firstFeature = -1;
    int secondFeature = -1;
    unsigned int featureBits = 0;

    static constexpr unsigned int kVertexBits = 0x7u;
    static constexpr unsigned int kEdgeBits = 0x38u;

    GmOrphanTest() = default;
    GmOrphanTest(int face1, int face2, int feature1, int feature2, unsigned int bits)
        : firstFace(face1), secondFace(face2), firstFeature(feature1), secondFeature(feature2), featureBits(bits) {}

    bool isVertexFaceTest() const { return (featureBits & kVertexBits) != 0; }
    bool isEdgeEdgeTest() const { return !isVertexFaceTest(); }
    // Slot 0..2 of the first feature in firstFace (vertex or edge); -1 if no bit.
    int firstFeatureSlot() const {
        for (int k = 0; k < 3; ++k)
            if (featureBits & ((1u << k) | (8u << k))) return k;
        return -1;
    }

    bool operator==(const GmOrphanTest& o) const {
        return firstFace == o.firstFace && secondFace == o.secondFace && firstFeature == o.firstFeature &&
               secondFeature == o.secondFeature && featureBits == o.featureBits;
    }
    bool operator!=(const GmOrphanTest& o) const { return !(*this == o); }
};

static_assert(sizeof(GmOrphanTest) == 20, "GmOrphanTest is five 32-bit fields");

// The vertex-face and edge-edge pairs of a mesh that the collision traversal's
// "skip faces that share a vertex" rule never reaches, in the order found: every
// vertex in index order, then every edge in index order. Depends on topology only.
class QUARRYGEOM_API GmAdjacentOrphanSet {
public:
    // Builds the set; faces disabled by mask (may be null) take no part.
    GmAdjacentOrphanSet(const GmTriangleMesh* mesh, const GmDisabledData* mask = nullptr);

    const GmTriangleMesh* getMesh() const { return _mesh; }
    int getNumberTests() const { return static_cast<int>(_tests.size()); }
    std::size_t size() const { return _tests.size(); }
    bool empty() const { return _tests.empty(); }
    const GmOrphanTest& getTest(int i) const { return _tests[static_cast<std::size_t>(i)]; }
    const std::vector<GmOrphanTest>& getTests() const { return _tests; }
    std::vector<GmOrphanTest>::const_iterator begin() const { return _tests.begin(); }
    std::vector<GmOrphanTest>::const_iterator end() const { return _tests.end(); }

    int getNumberVertexFaceTests() const;
    int getNumberEdgeEdgeTests() const;

    // "Orphan Data:" report, one line per test.
    std::ostream& print(std::ostream& os) const;

private:
    const GmTriangleMesh* _mesh;
    std::vector<GmOrphanTest> _tests;
};

QUARRYGEOM_API std::ostream& operator<<(std::ostream& os, const GmAdjacentOrphanSet& set);

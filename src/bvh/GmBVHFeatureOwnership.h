#pragma once

// Representative features of a continuous-time self query that tests each feature pair once
// (GmSelfContactRecords::EachFeaturePairOnce; not installed).
//
// The walk hands a vertex-face pair (v, g) to the kernel once for every face f around v that it
// pairs with g, and an edge pair (e, e') once for every pair of their faces. Of these, the pair
// that owns the test runs it:
//   - (v, g): the first face f in v's vertex-to-faces list that the walk pairs with g;
//   - (e, e'), e < e': the first pair (f, g), f over e's faces, g over e''s faces (first face,
//     then second face), that the walk pairs.
// The walk pairs f and g when they share no vertex, neither is pruned by the disabled mask, they
// are not both frozen (unless frozen faces are kept), their leaf boxes overlap and they pass the
// mesh tests: exactly the pairs whose narrow phase it runs, so the owner is one of them whatever
// order the walk takes, and the rule depends on the tree only (serial and parallel runs agree).
// Pairs without any such face pair are the orphan set's, which the orphan pass tests once.
//
// A pair that holds the first face around a vertex (or the first faces of both edges) owns that
// test whatever else holds (surelyOwned, from one byte per face). The kernel asks about each
// other test once its feature boxes meet; it usually decides after one check of the first face
// (pair), against a compact per-face copy of the leaf box, flags and corners, and needs no leaf
// box when the features' own swept boxes overlap.

#include <cstdint>
#include <utility>
#include <vector>

#include <quarrygeom/bvh/GmBoundingVolumeHierarchy.h>
#include <quarrygeom/mesh/GmIndexList.h>
#include <quarrygeom/mesh/GmTriangleMesh.h>
#include <quarrygeom/primitives/GmContactKernels.h>

#include "GmBVHCollisionWalk.h"

namespace GmBVHCollision {

class FeatureOwners final : public GmContactKernels::FeatureOwnership {
public:
    FeatureOwners(const GmBoundingVolumeHierarchy& tree, const WalkSetup& setup)
        : _setup(setup), _vertexFaces(tree.getTriangleMesh()->getVertexToFacesLists()) {
        const GmTriangleMesh& mesh = *tree.getTriangleMesh();
        const GmTriangleFace* faces = mesh.getFaces().data();
        const GmTriangleEdge* edges = mesh.getEdges().data();
        const std::size_t numFaces = static_cast<std::size_t>(mesh.getNumberFaces());
        _records.assign(numFaces, FaceRecord());
        _first.assign(numFaces, 0);
        for (std::size_t f = 0; f < numFaces; ++f) {
            FaceRecord& r = _records[f];
            std::uint8_t bits = 0;
            for (int c = 0; c < 3; ++c) {
                r.vertices[c] = faces[f].vertices[c];
                const GmIndexList around = _vertexFaces[static_cast<std::size_t>(r.vertices[c])];
                r.cornerFirst[c] = around.begin() != around.end() ? *around.begin() : -1;
                const GmTriangleEdge& e = edges[faces[f].edges[c]];
                r.edge[c] = faces[f].edges[c];
                r.edgeFaces[c][0] = e.firstFace;
                r.edgeFaces[c][1] = e.secondFace;
                if (r.cornerFirst[c] == static_cast<int>(f)) bits |= 1u << c;
                if (e.firstFace == static_cast<int>(f)) bits |= 8u << c;
            }
            _first[f] = bits;
        }
        // Leaf boxes and flags.
        const std::vector<GmBoundingVolumeHierarchy::LeafFace>& leaves = tree.getLeafFaces();
        const int internal = tree.getNumberInternalNodes();
        for (std::size_t k = 0; k < leaves.size(); ++k) {
            const int f = leaves[k].face;
            if (f < 0 || static_cast<std::size_t>(f) >= numFaces) continue;
            const Node& n = tree.getNode(internal + static_cast<int>(k));
            FaceRecord& r = _records[static_cast<std::size_t>(f)];
            r.box = n.box;
            r.disabled = n.disabled;
            r.frozen = n.frozen;
            r.inTree = 1;
        }
        // Left-to-right order of the leaves: a depth-first walk, left child first.
        _leafOrder.assign(numFaces, 0);
        if (!leaves.empty()) {
            const std::vector<Node>& nodes = tree.getNodes();
            std::vector<int> stack{0};
            int next = 0;
            while (!stack.empty()) {
                const int i = stack.back();
                stack.pop_back();
                const Node& n = nodes[static_cast<std::size_t>(i)];
                if (n.isLeaf()) {
                    const int f = n.primitive->index;
                    if (f >= 0 && static_cast<std::size_t>(f) < numFaces) _leafOrder[static_cast<std::size_t>(f)] = next++;
                } else if (2 * i + 2 < static_cast<int>(nodes.size())) {
                    stack.push_back(2 * i + 2);
                    stack.push_back(2 * i + 1);
                }
            }
        }
    }

    // Whether the tree's own walk hands the leaves of faces f and g over as (g, f): g's leaf
    // lies left of f's (in the left subtree of their lowest common ancestor).
    bool treeSwaps(int f, int g) const {
        return _leafOrder[static_cast<std::size_t>(g)] < _leafOrder[static_cast<std::size_t>(f)];
    }

    std::uint32_t surelyOwned(int face1, int face2) const override {
        const std::uint32_t a = _first[static_cast<std::size_t>(face1)], b = _first[static_cast<std::size_t>(face2)];
        std::uint32_t bits = (a & 7u) | ((b & 7u) << 3);
        const std::uint32_t edges2 = (b >> 3) & 7u;
        for (int i = 0; i < 3; ++i)
            if ((a >> (3 + i)) & 1u) bits |= edges2 << (6 + 3 * i);
        return bits;
    }

    bool vertexFace(int vertexFace, int corner, int face, bool boxesMeet) const override {
        const FaceRecord& r = _records[static_cast<std::size_t>(vertexFace)];
        const int first = r.cornerFirst[corner];
        if (first == vertexFace) return true;
        if (first >= 0 && walkPairs(first, face, boxesMeet)) return false;
        for (const int f : _vertexFaces[static_cast<std::size_t>(r.vertices[corner])]) {
            if (f == first) continue;
            if (f == vertexFace) return true;
            if (walkPairs(f, face, boxesMeet)) return false;
        }
        return true;  // not in the list (inconsistent adjacency): test rather than lose it
    }

    bool edgeEdge(int face1, int slot1, int face2, int slot2, bool boxesMeet) const override {
        const FaceRecord& r1 = _records[static_cast<std::size_t>(face1)];
        const FaceRecord& r2 = _records[static_cast<std::size_t>(face2)];
        // The lower edge index's faces first.
        const bool swap = r2.edge[slot2] < r1.edge[slot1];
        const int* fa = swap ? r2.edgeFaces[slot2] : r1.edgeFaces[slot1];
        const int* fb = swap ? r1.edgeFaces[slot1] : r2.edgeFaces[slot2];
        const int f1 = swap ? face2 : face1, f2 = swap ? face1 : face2;
        for (int p = 0; p < 2; ++p) {
            if (fa[p] < 0) continue;
            for (int q = 0; q < 2; ++q) {
                if (fb[q] < 0) continue;
                if (fa[p] == f1 && fb[q] == f2) return true;
                if (walkPairs(fa[p], fb[q], boxesMeet)) return false;
            }
        }
        return true;  // a face beyond the edge's two (non-manifold): test rather than lose it
    }

private:
    // What the checks read of a face, in one place: its leaf's box and flags, its corners with
    // the first face around each, its edges with their two faces.
    struct FaceRecord {
        GmAxisAlignedBox box;
        int vertices[3] = {-1, -1, -1};
        int cornerFirst[3] = {-1, -1, -1};
        int edge[3] = {-1, -1, -1};
        int edgeFaces[3][2] = {{-1, -1}, {-1, -1}, {-1, -1}};
        std::uint8_t disabled = 0, frozen = 0, inTree = 0;
    };

    // Whether the walk hands the pair (f, g) to the kernel; `boxesMeet` stands for the leaf box
    // overlap (the features' own boxes meet, and every leaf box holding a feature contains them).
    bool walkPairs(int f, int g, bool boxesMeet) const {
        const FaceRecord& rf = _records[static_cast<std::size_t>(f)];
        const FaceRecord& rg = _records[static_cast<std::size_t>(g)];
        if (!(rf.inTree & rg.inTree)) return false;
        if (_setup.skipAdjacent && sharesCorner(rf.vertices, rg.vertices)) return false;
        if (_setup.pruneDisabled && (rf.disabled | rg.disabled)) return false;
        if (_setup.pruneFrozen && (rf.frozen & rg.frozen)) return false;
        if (!boxesMeet && !rf.box.overlaps(rg.box)) return false;
        if (_setup.tests1 != nullptr && !_setup.tests1->vertexRadiusTest(rf.vertices, rg.vertices)) return false;
        return true;
    }
    static bool sharesCorner(const int* f, const int* g) {
        return ((f[0] == g[0]) | (f[0] == g[1]) | (f[0] == g[2])) | ((f[1] == g[0]) | (f[1] == g[1]) | (f[1] == g[2])) |
               ((f[2] == g[0]) | (f[2] == g[1]) | (f[2] == g[2]));
    }

    const WalkSetup& _setup;
    const GmAdjacencyLists& _vertexFaces;
    std::vector<FaceRecord> _records;
    std::vector<std::uint8_t> _first;
    std::vector<int> _leafOrder;  // per face: its leaf's place from the left
};

}  // namespace GmBVHCollision

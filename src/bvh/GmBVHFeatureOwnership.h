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
// order the walk takes. Pairs without any such face pair are the orphan set's, which the orphan
// pass tests once. The rule depends on the tree only, so serial and parallel runs agree.
//
// In the common case the owner is found after one check: the first face around the vertex (or
// the first face pair) either is the current pair or is paired by the walk. The leaf boxes need
// no look-up when the features' own swept boxes overlap: every leaf box holding a feature
// contains that feature's box.

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
        : _setup(setup),
          _faces(tree.getTriangleMesh()->getFaces().data()),
          _edges(tree.getTriangleMesh()->getEdges().data()),
          _vertexFaces(tree.getTriangleMesh()->getVertexToFacesLists()),
          _nodes(tree.getNodes().data()) {
        const std::vector<GmBoundingVolumeHierarchy::LeafFace>& leaves = tree.getLeafFaces();
        const int internal = tree.getNumberInternalNodes();
        _leafOf.assign(static_cast<std::size_t>(tree.getTriangleMesh()->getNumberFaces()), -1);
        for (std::size_t k = 0; k < leaves.size(); ++k)
            if (leaves[k].face >= 0 && static_cast<std::size_t>(leaves[k].face) < _leafOf.size())
                _leafOf[static_cast<std::size_t>(leaves[k].face)] = internal + static_cast<int>(k);
    }

    bool vertexFace(int vertexFace, int corner, int face, bool boxesMeet) const override {
        const int v = _faces[vertexFace].vertices[corner];
        for (const int f : _vertexFaces[static_cast<std::size_t>(v)]) {
            if (f == vertexFace) return true;
            if (walkPairs(f, face, boxesMeet)) return false;
        }
        return true;  // not in the list (inconsistent adjacency): test rather than lose it
    }

    bool edgeEdge(int face1, int slot1, int face2, int slot2, bool boxesMeet) const override {
        int e1 = _faces[face1].edges[slot1], e2 = _faces[face2].edges[slot2];
        int f1 = face1, f2 = face2;
        if (e2 < e1) {
            std::swap(e1, e2);
            std::swap(f1, f2);
        }
        const GmTriangleEdge& a = _edges[e1];
        const GmTriangleEdge& b = _edges[e2];
        const int fa[2] = {a.firstFace, a.secondFace}, fb[2] = {b.firstFace, b.secondFace};
        for (const int f : fa) {
            if (f < 0) continue;
            for (const int g : fb) {
                if (g < 0) continue;
                if (f == f1 && g == f2) return true;
                if (walkPairs(f, g, boxesMeet)) return false;
            }
        }
        return true;  // a face beyond the edge's two (non-manifold): test rather than lose it
    }

private:
    // Whether the walk hands the pair (f, g) to the kernel; `boxesMeet` stands for the leaf box
    // overlap.
    bool walkPairs(int f, int g, bool boxesMeet) const {
        const GmTriangleFace& ff = _faces[f];
        const GmTriangleFace& fg = _faces[g];
        if (_setup.skipAdjacent && sharesVertex(ff, fg)) return false;
        const int lf = _leafOf[static_cast<std::size_t>(f)], lg = _leafOf[static_cast<std::size_t>(g)];
        if (lf < 0 || lg < 0) return false;
        const Node& nf = _nodes[lf];
        const Node& ng = _nodes[lg];
        if (_setup.pruneDisabled && (nf.disabled || ng.disabled)) return false;
        if (_setup.pruneFrozen && nf.frozen && ng.frozen) return false;
        if (!boxesMeet && !nf.box.overlaps(ng.box)) return false;
        if (_setup.tests1 != nullptr && !_setup.tests1->vertexRadiusTest(ff.vertices, fg.vertices)) return false;
        return true;
    }

    const WalkSetup& _setup;
    const GmTriangleFace* _faces;
    const GmTriangleEdge* _edges;
    const GmAdjacencyLists& _vertexFaces;
    const Node* _nodes;
    std::vector<int> _leafOf;  // leaf node of each face
};

}  // namespace GmBVHCollision

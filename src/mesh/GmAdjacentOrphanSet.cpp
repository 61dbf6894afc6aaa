#include <quarrygeom/mesh/GmAdjacentOrphanSet.h>

#include <algorithm>
#include <utility>

#include <quarrygeom/mesh/GmDisabledData.h>
#include <quarrygeom/mesh/GmTriangleMesh.h>

namespace {

// Sorted, duplicate-free list (the "ordered set" of the passes).
void sortUnique(std::vector<int>& v) {
    std::sort(v.begin(), v.end());
    v.erase(std::unique(v.begin(), v.end()), v.end());
}


}  // namespace

GmAdjacentOrphanSet::GmAdjacentOrphanSet(const GmTriangleMesh* mesh, const GmDisabledData* mask) : _mesh(mesh) {
    if (!mesh) return;
    const GmTriangleMesh& m = *mesh;
    const int nv = m.getNumberVertices();
    const int ne = m.getNumberEdges();
    // Adjacency must be built (finishConstruction) before the set can be.
    if (static_cast<int>(m.getVertexToFacesLists().size()) != nv ||
        static_cast<int>(m.getEdgeToFacesLists().size()) != ne)
        return;

    const bool active = GmDisabledData::isActive(mask);
    auto enabled = [&](int f) { return !active || !mask->isFaceDisabled(f); };

    std::vector<int> candidates;
    std::vector<int> enabledOwn;

    // Faces around the vertices of the enabled faces in `own`, not in `own`, enabled.
    auto collectCandidateFaces = [&](const GmIndexList& own) {
        candidates.clear();
        enabledOwn.clear();
        for (int f : own) {
            if (!enabled(f)) continue;
            enabledOwn.push_back(f);
            const GmTriangleFace& fc = m.getFace(f);
            for (int k = 0; k < 3; ++k)
                for (int g : m.getNeighborFacesToVertex(fc.vertices[k]))
                    if (enabled(g) && !own.contains(g)) candidates.push_back(g);
        }
        sortUnique(candidates);
    };

    // Vertex pass.
    for (int v = 0; v < nv; ++v) {
        const GmIndexList around = m.getNeighborFacesToVertex(v);
        collectCandidateFaces(around);
        if (candidates.empty()) continue;
        const int firstFace = enabledOwn.front();
        const int slot = m.getFace(firstFace).vertexSlot(v);
        if (slot < 0) return;  // inconsistent adjacency: give up
        for (int g : candidates) {
            bool covered = false;
            for (int f : enabledOwn) {
                if (!m.shareVertex(f, g)) {
                    covered = true;
                    break;
                }
            }
            if (!covered) _tests.emplace_back(firstFace, g, v, g, 1u << slot);
        }
    }

    // Edge pass.
    std::vector<std::pair<int, int>> candidateEdges;  // (edge, candidate face that brought it)
    for (int e = 0; e < ne; ++e) {
        const GmIndexList faces = m.getNeighborFacesToEdge(e);
        collectCandidateFaces(faces);
        if (candidates.empty()) continue;
        const GmTriangleEdge& ed = m.getEdge(e);
        candidateEdges.clear();
        for (int g : candidates) {
            const GmTriangleFace& gc = m.getFace(g);
            for (int k = 0; k < 3; ++k) {
                const int e2 = gc.edges[k];
                if (e2 <= e) continue;
                const GmTriangleEdge& ed2 = m.getEdge(e2);
                if (ed2.hasVertex(ed.from) || ed2.hasVertex(ed.to)) continue;
                candidateEdges.emplace_back(e2, g);
            }
        }
        // Ascending edge order; for a repeated edge keep the smallest bringing face.
        std::sort(candidateEdges.begin(), candidateEdges.end());
        candidateEdges.erase(std::unique(candidateEdges.begin(), candidateEdges.end(),
                                         [](const std::pair<int, int>& a, const std::pair<int, int>& b) {
                                             return a.first == b.first;
                                         }),
                             candidateEdges.end());
        const int firstFace = enabledOwn.front();
        const int slot = m.getFace(firstFace).edgeSlot(e);
        if (slot < 0) return;
        for (const std::pair<int, int>& ce : candidateEdges) {
            const int e2 = ce.first;
            int secondFace = -1;
            bool covered = false;
            for (int g : m.getNeighborFacesToEdge(e2)) {
                if (!enabled(g)) continue;
                if (secondFace < 0) secondFace = g;
                for (int f : enabledOwn) {
                    if (!m.shareVertex(f, g)) {
                        covered = true;
                        break;
                    }
                }
                if (covered) break;
            }
            if (covered) continue;
            if (secondFace < 0) secondFace = ce.second;
            _tests.emplace_back(firstFace, secondFace, e, e2, 8u << slot);
        }
    }
}

int GmAdjacentOrphanSet::getNumberVertexFaceTests() const {
    return static_cast<int>(
        std::count_if(_tests.begin(), _tests.end(), [](const GmOrphanTest& t) { return t.isVertexFaceTest(); }));
}

int GmAdjacentOrphanSet::getNumberEdgeEdgeTests() const {
    return static_cast<int>(_tests.size()) - getNumberVertexFaceTests();
}

std::ostream& GmAdjacentOrphanSet::print(std::ostream& os) const {
    os << "Orphan Data:\n";
    os << "  Number of Tests: " << _tests.size() << "\n";
    for (const GmOrphanTest& t : _tests) {
        if (t.isVertexFaceTest())
            os << "  Vertex[" << t.firstFeature << "]-Face[" << t.secondFeature << "]\n";
        else
            os << "  Edge[" << t.firstFeature << "]-Edge[" << t.secondFeature << "]\n";
    }
    return os;
}

std::ostream& operator<<(std::ostream& os, const GmAdjacentOrphanSet& set) { return set.print(os); }

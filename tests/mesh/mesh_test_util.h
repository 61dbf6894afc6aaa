#pragma once

// Reference implementations for the mesh tests: straightforward versions of the
// construction rules built on std::map, compared with the library's results.

#include <algorithm>
#include <array>
#include <map>
#include <set>
#include <utility>
#include <vector>

#include <quarrygeom/mesh/GmTriangleMesh.h>

#include "qgtools/mesh_io.h"

namespace meshtest {

struct RefMesh {
    std::vector<GmTriangleEdge> edges;
    std::vector<GmTriangleFace> faces;
    std::vector<std::vector<int>> v2f, v2e, v2v, f2f, e2f;
    bool closed = true;
};

inline RefMesh referenceBuild(int numVertices, const std::vector<std::array<int, 3>>& tris) {
    RefMesh r;
    std::map<std::pair<int, int>, int> lookup;
    auto addEdge = [&](int from, int to, int face) {
        const auto key = std::make_pair(std::min(from, to), std::max(from, to));
        auto it = lookup.find(key);
        if (it != lookup.end()) {
            GmTriangleEdge& e = r.edges[static_cast<std::size_t>(it->second)];
            if (e.from == from && e.firstFace < 0) {
                e.firstFace = face;
                e.from = from;
                e.to = to;
            } else {
                e.secondFace = face;
            }
            return it->second;
        }
        const int idx = static_cast<int>(r.edges.size());
        lookup[key] = idx;
        r.edges.emplace_back(face, -1, from, to);
        return idx;
    };
    for (const auto& t : tris) {
        const int f = static_cast<int>(r.faces.size());
        const int e1 = addEdge(t[0], t[1], f);
        const int e2 = addEdge(t[1], t[2], f);
        const int e3 = addEdge(t[2], t[0], f);
        r.faces.emplace_back(t[0], t[1], t[2], f, e1, e2, e3);
    }
    const std::size_t nv = static_cast<std::size_t>(numVertices);
    r.v2f.assign(nv, {});
    r.v2e.assign(nv, {});
    r.v2v.assign(nv, {});
    r.f2f.assign(r.faces.size(), {});
    r.e2f.assign(r.edges.size(), {});
    for (const auto& f : r.faces)
        for (int k = 0; k < 3; ++k) r.v2f[static_cast<std::size_t>(f.vertices[k])].push_back(f.index);
    for (std::size_t e = 0; e < r.edges.size(); ++e) {
        const GmTriangleEdge& ed = r.edges[e];
        r.v2e[static_cast<std::size_t>(ed.from)].push_back(static_cast<int>(e));
        r.v2e[static_cast<std::size_t>(ed.to)].push_back(static_cast<int>(e));
        r.v2v[static_cast<std::size_t>(ed.from)].push_back(ed.to);
        r.v2v[static_cast<std::size_t>(ed.to)].push_back(ed.from);
        if (ed.firstFace >= 0 && ed.secondFace >= 0) {
            r.f2f[static_cast<std::size_t>(ed.firstFace)].push_back(ed.secondFace);
            r.f2f[static_cast<std::size_t>(ed.secondFace)].push_back(ed.firstFace);
        }
        if (ed.firstFace >= 0) r.e2f[e].push_back(ed.firstFace);
        if (ed.secondFace >= 0) r.e2f[e].push_back(ed.secondFace);
        if (ed.firstFace < 0 || ed.secondFace < 0) r.closed = false;
    }
    for (auto* lists : {&r.v2f, &r.v2e, &r.v2v, &r.f2f, &r.e2f})
        for (auto& l : *lists) std::sort(l.begin(), l.end());
    for (auto& l : r.f2f) l.erase(std::unique(l.begin(), l.end()), l.end());
    return r;
}

inline RefMesh referenceBuild(const qgtools::PolygonSoup& soup) {
    return referenceBuild(soup.numVertices(), soup.triangles);
}

}  // namespace meshtest

#pragma once

// Shared references for the mesh tests: a table of meshes covering every construction
// case, and a plain std::map construction of edges, faces and adjacency lists.

#include <algorithm>
#include <array>
#include <cmath>
#include <cstdint>
#include <map>
#include <string>
#include <utility>
#include <vector>
#include <quarrygeom/mesh/mesh.h>
#include "../support/threading.h"
#include "qgtools/data_dir.h"
#include "qgtools/mesh_io.h"
#include "qgtools/shapes.h"

namespace meshtest {

using V = GmTVector<double>;

struct Case {
    std::string name;
    qgtools::PolygonSoup soup;
};

inline qgtools::PolygonSoup soupOf(std::vector<V> positions, std::vector<std::array<int, 3>> tris) {
    return qgtools::PolygonSoup{std::move(positions), std::move(tris)};
}

// Closed, open, non-manifold, with isolated vertices, degenerate faces, a high-valence fan,
// faces in random order and orientation, and one mesh above the parallel-build threshold.
inline const std::vector<Case>& meshTable() {
    static const std::vector<Case> table = [] {
        std::vector<Case> t = {
            {"tetrahedron", soupOf({V(1, 1, 1), V(1, -1, -1), V(-1, 1, -1), V(-1, -1, 1)}, {{0, 1, 2}, {0, 3, 1}, {1, 3, 2}, {0, 2, 3}})},
            {"cube", qgtools::cubeSoup()}, {"icosphere", qgtools::icosphereSoup(2, 2.0, V(0.5, -1, 2))}, {"torus", qgtools::torusSoup(9, 7)},
            {"grid", qgtools::clothGridSoup(7, 5)}, {"folded", qgtools::foldedGridSoup(12, 3)}, {"largegrid", qgtools::clothGridSoup(40, 30)}};
        // Three faces on edge (0,1), an isolated vertex (5) and a separate triangle.
        t.push_back({"nonmanifold", soupOf({V(0, 0, 0), V(1, 0, 0), V(0.5, 1, 0), V(0.5, -1, 0), V(0.5, 0, 1),
                                            V(9, 9, 9), V(3, 0, 0), V(4, 0, 0), V(3, 1, 0)},
                                           {{0, 1, 2}, {1, 0, 3}, {0, 1, 4}, {6, 7, 8}})});
        // Collinear corners, two equal positions, a repeated index, a sliver whose corners
        // are straight to double precision, and good faces.
        t.push_back({"degenerate", soupOf({V(0, 0, 0), V(1, 0, 0), V(2, 0, 0), V(1, 1, 0), V(1, 1, 0),
                                           V(2, 1e-9, 0), V(1, 0, 1)},
                                          {{0, 1, 2}, {0, 3, 4}, {1, 1, 3}, {0, 1, 3}, {0, 1, 5}, {1, 0, 6}})});
        qgtools::PolygonSoup fan;  // a disc and a cone on one rim: two vertices of valence 300
        const int n = 300;
        fan.positions.emplace_back(0, 0, 0);
        for (int i = 0; i < n; ++i) fan.positions.emplace_back(std::cos(i * 0.02), std::sin(i * 0.02), 0.1 * (i % 3));
        fan.positions.emplace_back(0, 0, 1);
        for (int i = 1; i < n; ++i) fan.triangles.push_back({0, i, i + 1});
        fan.triangles.push_back({0, n, 1});
        for (int i = 1; i < n; ++i) fan.triangles.push_back({n + 1, i + 1, i});
        t.push_back({"fan", fan});
        qgtools::PolygonSoup scrambled = qgtools::icosphereSoup(3);
        std::uint32_t state = 12345;
        auto next = [&state] { return (state = state * 1664525u + 1013904223u) >> 8; };
        for (std::size_t i = scrambled.triangles.size(); i > 1; --i) {
            std::swap(scrambled.triangles[i - 1], scrambled.triangles[next() % i]);
            if (next() % 2) std::swap(scrambled.triangles[i - 1][0], scrambled.triangles[i - 1][1]);
        }
        t.push_back({"scrambled", scrambled});
        qgtools::PolygonSoup spot;
        qgtools::loadObjSoup(qgtools::dataDir() + "/meshes/spot.obj", spot);
        t.push_back({"spot", spot});
        return t;
    }();
    return table;
}

inline std::vector<std::string> tableNames() {
    std::vector<std::string> out;
    for (const Case& c : meshTable()) out.push_back(c.name);
    return out;
}

inline const qgtools::PolygonSoup& soupNamed(const std::string& name) {
    return std::find_if(meshTable().begin(), meshTable().end(), [&](const Case& c) { return c.name == name; })->soup;
}

inline GmTriangleMesh build(const qgtools::PolygonSoup& soup, bool parallel = true) {
    ScopedThreading threads(parallel);
    return qgtools::meshFromSoup(soup);
}

struct RefMesh {
    std::vector<GmTriangleEdge> edges;
    std::vector<GmTriangleFace> faces;
    std::vector<std::vector<int>> v2f, v2e, v2v, f2f, e2f;
    bool closed = true;
};

// Edges in creation order; an edge's first face is the first one to use it from `from`
// to `to`, any later face becomes its second face.
inline RefMesh referenceBuild(const qgtools::PolygonSoup& soup) {
    RefMesh r;
    std::map<std::pair<int, int>, int> lookup;
    auto addEdge = [&](int from, int to, int face) {
        const auto key = std::make_pair(std::min(from, to), std::max(from, to));
        auto it = lookup.find(key);
        if (it == lookup.end()) {
            lookup[key] = static_cast<int>(r.edges.size());
            r.edges.emplace_back(face, -1, from, to);
            return static_cast<int>(r.edges.size()) - 1;
        }
        GmTriangleEdge& e = r.edges[static_cast<std::size_t>(it->second)];
        if (e.from == from && e.firstFace < 0)
            e.firstFace = face;
        else
            e.secondFace = face;
        return it->second;
    };
    for (const auto& t : soup.triangles) {
        const int f = static_cast<int>(r.faces.size());
        const int e1 = addEdge(t[0], t[1], f), e2 = addEdge(t[1], t[2], f), e3 = addEdge(t[2], t[0], f);
        r.faces.emplace_back(t[0], t[1], t[2], f, e1, e2, e3);
    }
    r.v2f = r.v2e = r.v2v = std::vector<std::vector<int>>(soup.positions.size());
    r.f2f.resize(r.faces.size());
    r.e2f.resize(r.edges.size());
    for (const auto& f : r.faces)
        for (int k = 0; k < 3; ++k) r.v2f[static_cast<std::size_t>(f.vertices[k])].push_back(f.index);
    for (std::size_t e = 0; e < r.edges.size(); ++e) {
        const GmTriangleEdge& ed = r.edges[e];
        const auto from = static_cast<std::size_t>(ed.from), to = static_cast<std::size_t>(ed.to);
        r.v2e[from].push_back(static_cast<int>(e));
        r.v2e[to].push_back(static_cast<int>(e));
        r.v2v[from].push_back(ed.to);
        r.v2v[to].push_back(ed.from);
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

}  // namespace meshtest

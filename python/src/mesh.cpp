// quarrygeom.Mesh, DisabledMask, FrozenMask.

#include "common.h"

#include <limits>

namespace qgpy {

namespace {

MeshPtr makeMesh(const py::handle& verticesObj, const py::handle& facesObj, const std::string& name) {
    auto vertices = points3(verticesObj, "vertices", false);
    py::array facesAny = py::array::ensure(facesObj);
    if (!facesAny) throw py::type_error("faces must be an array-like of integers");
    requireInteger(facesAny, "faces");
    if (facesAny.ndim() != 2 || facesAny.shape(1) != 3) throw py::value_error("faces must have shape (m, 3)");
    auto faces = py::array_t<long long, py::array::c_style | py::array::forcecast>::ensure(facesAny);
    const std::size_t nv = rows(vertices), nf = rows(faces);
    if (nv > static_cast<std::size_t>(std::numeric_limits<int>::max() / 2) ||
        nf > static_cast<std::size_t>(std::numeric_limits<int>::max() / 4))
        throw py::value_error("mesh too large for 32-bit indices");
    const long long* f = faces.data();
    for (std::size_t i = 0; i < nf; ++i) {
        const long long a = f[3 * i], b = f[3 * i + 1], c = f[3 * i + 2];
        for (long long v : {a, b, c})
            if (v < 0 || v >= static_cast<long long>(nv))
                throw py::index_error("face " + std::to_string(i) + " has vertex index " + std::to_string(v) +
                                      " out of range [0, " + std::to_string(nv) + ")");
        if (a == b || b == c || a == c)
            throw py::value_error("face " + std::to_string(i) + " repeats a vertex");
    }
    auto m = std::make_shared<Mesh>();
    m->mesh.setName(name);
    const V3* p = asV3(vertices);
    {
        py::gil_scoped_release release;
        m->mesh.reserve(static_cast<int>(nv), static_cast<int>(nf));
        for (std::size_t i = 0; i < nv; ++i) m->mesh.addVertex(p[i]);
        for (std::size_t i = 0; i < nf; ++i)
            m->mesh.addFace(static_cast<int>(f[3 * i]), static_cast<int>(f[3 * i + 1]), static_cast<int>(f[3 * i + 2]));
        m->mesh.finishConstruction();
    }
    return m;
}

// Copy of a per-element vector quantity.
template <class Get>
py::array_t<double> vectors(const Mesh& m, int n, Get get) {
    auto out = newVectors(static_cast<std::size_t>(n));
    V3* o = mutableV3(out);
    WriteGuard guard(m);  // fills the mesh's caches
    for (int i = 0; i < n; ++i) o[i] = get(i);
    return out;
}

py::tuple adjacency(const GmAdjacencyLists& lists) {
    auto offsets = newArray<long long>(lists.size() + 1);
    auto indices = newArray<int>(lists.totalSize());
    long long* o = offsets.mutable_data();
    o[0] = 0;
    for (std::size_t i = 0; i < lists.size(); ++i) o[i + 1] = lists.offsets()[i + 1];
    std::copy(lists.indices().begin(), lists.indices().end(), indices.mutable_data());
    return py::make_tuple(offsets, indices);
}

py::array_t<int> intRows(std::size_t n, int width) {
    return py::array_t<int>({static_cast<py::ssize_t>(n), static_cast<py::ssize_t>(width)});
}

}  // namespace

void registerMesh(py::module_& m) {
    py::class_<Mesh, MeshPtr>(m, "Mesh", R"doc(
Indexed triangle mesh with full adjacency.

Mesh(vertices, faces, name="") takes a (V, 3) array of real numbers (copied into the mesh as
float64) and an (F, 3) integer array of vertex indices; the order of a face's vertices fixes its
orientation. Raises TypeError for a wrong dtype, ValueError for a wrong shape, a non-finite
coordinate or a face that repeats a vertex, IndexError for an index outside [0, V).

Array results are copies: they do not change when the mesh moves.)doc")
        .def(py::init(&makeMesh), py::arg("vertices"), py::arg("faces"), py::arg("name") = "")
        .def_property_readonly("name", [](const Mesh& s) { return s.mesh.getName(); })
        .def_property_readonly("vertex_count", [](const Mesh& s) { return s.mesh.getNumberVertices(); })
        .def_property_readonly("face_count", [](const Mesh& s) { return s.mesh.getNumberFaces(); })
        .def_property_readonly("edge_count", [](const Mesh& s) { return s.mesh.getNumberEdges(); })
        .def_property_readonly("positions", [](const Mesh& s) {
            const auto& v = s.mesh.getVertices();
            auto out = newVectors(v.size());
            std::copy(v.begin(), v.end(), mutableV3(out));
            return out;
        }, "(V, 3) float64 copy of the vertex positions.")
        .def("set_positions", [](Mesh& s, const py::handle& positions) {
            std::vector<V3> p = positionsVector(positions, s.mesh.getNumberVertices(), "positions");
            WriteGuard guard(s);
            s.mesh.swapVertices(p);
            s.cachesReady.store(false);
        }, py::arg("positions"), "Moves every vertex ((V, 3) array); trees follow at their next refit.")
        .def_property_readonly("faces", [](const Mesh& s) {
            auto out = intRows(s.mesh.getFaces().size(), 3);
            int* o = out.mutable_data();
            for (const GmTriangleFace& f : s.mesh.getFaces())
                for (int k = 0; k < 3; ++k) *o++ = f.vertices[k];
            return out;
        }, "(F, 3) int32 vertex indices.")
        .def_property_readonly("face_edges", [](const Mesh& s) {
            auto out = intRows(s.mesh.getFaces().size(), 3);
            int* o = out.mutable_data();
            for (const GmTriangleFace& f : s.mesh.getFaces())
                for (int k = 0; k < 3; ++k) *o++ = f.edges[k];
            return out;
        }, "(F, 3) int32 edge indices (edge k joins vertices k and k + 1 of the face).")
        .def_property_readonly("edges", [](const Mesh& s) {
            auto out = intRows(s.mesh.getEdges().size(), 2);
            int* o = out.mutable_data();
            for (const GmTriangleEdge& e : s.mesh.getEdges()) *o++ = e.from, *o++ = e.to;
            return out;
        }, "(E, 2) int32 end vertices.")
        .def_property_readonly("edge_faces", [](const Mesh& s) {
            auto out = intRows(s.mesh.getEdges().size(), 2);
            int* o = out.mutable_data();
            for (const GmTriangleEdge& e : s.mesh.getEdges()) *o++ = e.firstFace, *o++ = e.secondFace;
            return out;
        }, "(E, 2) int32 faces of each edge, -1 where there is none.")
        .def_property_readonly("face_normals", [](const Mesh& s) {
            return vectors(s, s.mesh.getNumberFaces(), [&](int f) { return s.mesh.getFaceNormal(f); });
        }, "(F, 3) unit face normals (zero for a degenerate face).")
        .def_property_readonly("vertex_normals", [](const Mesh& s) {
            return vectors(s, s.mesh.getNumberVertices(), [&](int v) { return s.mesh.getVertexNormal(v); });
        }, "(V, 3) angle-weighted vertex normals.")
        .def_property_readonly("face_centers", [](const Mesh& s) {
            return vectors(s, s.mesh.getNumberFaces(), [&](int f) { return s.mesh.getFaceCenter(f); });
        })
        .def_property_readonly("face_areas", [](const Mesh& s) {
            auto out = newArray<double>(static_cast<std::size_t>(s.mesh.getNumberFaces()));
            WriteGuard guard(s);
            for (int f = 0; f < s.mesh.getNumberFaces(); ++f) out.mutable_data()[f] = s.mesh.getFaceArea(f);
            return out;
        })
        .def("adjacency", [](const Mesh& s, const std::string& kind) {
            const GmTriangleMesh& g = s.mesh;
            if (kind == "vertex_faces") return adjacency(g.getVertexToFacesLists());
            if (kind == "vertex_edges") return adjacency(g.getVertexToEdgesLists());
            if (kind == "vertex_vertices") return adjacency(g.getVertexToVerticesLists());
            if (kind == "face_faces") return adjacency(g.getFaceToFacesLists());
            if (kind == "edge_faces") return adjacency(g.getEdgeToFacesLists());
            throw py::value_error("kind must be one of vertex_faces, vertex_edges, vertex_vertices, face_faces, "
                                  "edge_faces");
        }, py::arg("kind"), R"doc(
Adjacency lists in compressed form: (offsets, indices), list i is indices[offsets[i]:offsets[i + 1]]
(offsets int64 of length n + 1, indices int32, each list sorted ascending).)doc")
        .def("is_closed", [](const Mesh& s, const DisabledMask* mask) {
            return s.mesh.isClosed(mask ? &mask->data : nullptr);
        }, py::arg("disabled") = nullptr, "Whether every edge has two (enabled) faces.")
        .def("__repr__", [](const Mesh& s) {
            return "<quarrygeom.Mesh '" + s.mesh.getName() + "' " + std::to_string(s.mesh.getNumberVertices()) +
                   " vertices, " + std::to_string(s.mesh.getNumberFaces()) + " faces>";
        });

    py::class_<DisabledMask, std::shared_ptr<DisabledMask>>(m, "DisabledMask", R"doc(
Faces switched off for the trees built with this mask (queries with include_disabled=False skip
them). DisabledMask(mesh, faces=None): faces is a boolean array of one entry per face or an
array of face indices. Trees read the mask when they are built or refitted.)doc")
        .def(py::init([](const MeshPtr& mesh, const py::object& faces) {
                 auto d = std::make_shared<DisabledMask>();
                 d->owner = mesh;
                 d->data.setMesh(&mesh->mesh);
                 if (!faces.is_none()) d->data.disableFaces(faceSelection(faces, mesh->mesh.getNumberFaces()));
                 return d;
             }),
             py::arg("mesh"), py::arg("faces") = py::none())
        .def("disable", [](DisabledMask& d, const py::handle& faces) {
            std::vector<int> f = faceSelection(faces, d.owner->mesh.getNumberFaces());
            WriteGuard guard(*d.owner);
            d.data.disableFaces(f);
        }, py::arg("faces"))
        .def("enable", [](DisabledMask& d, const py::handle& faces) {
            std::vector<int> f = faceSelection(faces, d.owner->mesh.getNumberFaces());
            WriteGuard guard(*d.owner);
            d.data.enableFaces(f);
        }, py::arg("faces"))
        .def("clear", [](DisabledMask& d) {
            WriteGuard guard(*d.owner);
            d.data.clear();
        })
        .def_property_readonly("count", [](const DisabledMask& d) { return d.data.getDisabledCount(); })
        .def_property_readonly("faces", [](const DisabledMask& d) {
            const int n = d.owner->mesh.getNumberFaces();
            auto out = newArray<bool>(static_cast<std::size_t>(n));
            for (int f = 0; f < n; ++f) out.mutable_data()[f] = d.data.isDisabled(f);
            return out;
        }, "Boolean array, True for each disabled face.");

    py::class_<FrozenMask, std::shared_ptr<FrozenMask>>(m, "FrozenMask", R"doc(
Faces that do not move (pairs of frozen faces are skipped by the collision queries).
FrozenMask(mesh, faces=None) with faces as for DisabledMask.)doc")
        .def(py::init([](const MeshPtr& mesh, const py::object& faces) {
                 auto d = std::make_shared<FrozenMask>();
                 d->owner = mesh;
                 d->data.resize(mesh->mesh.getNumberFaces());
                 if (!faces.is_none()) d->data.freezeFaces(faceSelection(faces, mesh->mesh.getNumberFaces()));
                 return d;
             }),
             py::arg("mesh"), py::arg("faces") = py::none())
        .def("freeze", [](FrozenMask& d, const py::handle& faces) {
            std::vector<int> f = faceSelection(faces, d.owner->mesh.getNumberFaces());
            WriteGuard guard(*d.owner);
            d.data.freezeFaces(f);
        }, py::arg("faces"))
        .def("clear", [](FrozenMask& d) {
            WriteGuard guard(*d.owner);
            d.data.clear();
        })
        .def_property_readonly("count", [](const FrozenMask& d) { return d.data.getFrozenCount(); })
        .def_property_readonly("faces", [](const FrozenMask& d) {
            const int n = d.owner->mesh.getNumberFaces();
            auto out = newArray<bool>(static_cast<std::size_t>(n));
            for (int f = 0; f < n; ++f) out.mutable_data()[f] = d.data.isFrozen(f);
            return out;
        }, "Boolean array, True for each frozen face.");
}

}  // namespace qgpy

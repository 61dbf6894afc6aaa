// quarrygeom.Tree: build, refit and the batched point and ray queries.

#include "tree.h"

namespace qgpy {

namespace {

void checkMask(const MeshPtr& mesh, const MeshPtr& owner, const char* what) {
    if (owner != mesh) throw py::value_error(std::string(what) + " belongs to another mesh");
}

TreePtr makeTree(Tree::Mode mode, const MeshPtr& mesh, const py::handle& end, double thickness,
                 const std::shared_ptr<DisabledMask>& disabled, const std::shared_ptr<FrozenMask>& frozen) {
    if (mesh->mesh.getNumberFaces() == 0) throw py::value_error("a tree needs a mesh with at least one face");
    if (disabled) checkMask(mesh, disabled->owner, "the disabled mask");
    if (frozen) checkMask(mesh, frozen->owner, "the frozen mask");
    if (mode == Tree::kThickened && !(std::isfinite(thickness) && thickness >= 0.0))
        throw py::value_error("thickness must be finite and not negative");
    auto t = std::make_shared<Tree>();
    t->mesh = mesh;
    t->disabled = disabled;
    t->frozen = frozen;
    t->mode = mode;
    t->thickness = thickness;
    if (mode == Tree::kSwept) t->end = positionsVector(end, mesh->mesh.getNumberVertices(), "end_positions");
    WriteGuard guard(*mesh);
    GmTriangleMesh* m = &mesh->mesh;
    if (mode == Tree::kSwept)
        t->h.reset(new GmBoundingVolumeHierarchy(m, t->end, t->disabledData(), t->frozenData()));
    else if (mode == Tree::kThickened)
        t->h.reset(new GmBoundingVolumeHierarchy(m, thickness, t->disabledData(), t->frozenData()));
    else
        t->h.reset(new GmBoundingVolumeHierarchy(m, t->disabledData(), t->frozenData()));
    return t;
}

// Refit (or rebuild) in the tree's own mode; positions, when given, move the mesh first (plain and
// thickened) or become the end positions (swept).
void update(Tree& t, const py::object& positions, const py::object& thickness, bool rebuild) {
    const int nv = t.mesh->mesh.getNumberVertices();
    std::vector<V3> p;
    const bool move = !positions.is_none();
    if (move) p = positionsVector(positions, nv, t.mode == Tree::kSwept ? "end_positions" : "positions");
    if (!thickness.is_none()) {
        if (t.mode != Tree::kThickened) throw py::value_error("only a thickened tree has a thickness");
        const double th = thickness.cast<double>();
        if (!(std::isfinite(th) && th >= 0.0)) throw py::value_error("thickness must be finite and not negative");
        t.thickness = th;
    }
    WriteGuard guard(*t.mesh);
    GmBoundingVolumeHierarchy& h = *t.h;
    if (t.mode == Tree::kSwept) {
        if (move) t.end.swap(p);
        rebuild ? h.build(t.end, t.disabledData(), t.frozenData()) : h.refit(t.end, t.disabledData(), t.frozenData());
        return;
    }
    if (move) {
        t.mesh->mesh.swapVertices(p);
        t.mesh->cachesReady.store(false);
    }
    if (t.mode == Tree::kThickened)
        rebuild ? h.build(t.thickness, t.disabledData(), t.frozenData())
                : h.refit(t.thickness, t.disabledData(), t.frozenData());
    else
        rebuild ? h.build(t.disabledData(), t.frozenData()) : h.refit(t.disabledData(), t.frozenData());
}

struct ResultTypes {
    ResultType closest{"quarrygeom.ClosestPoints", {"distance", "point", "face", "s", "t", "normal"}};
    ResultType vertices{"quarrygeom.ClosestVertices", {"vertex", "distance"}};
    ResultType signedDistance{"quarrygeom.SignedDistance", {"distance", "face", "point"}};
    ResultType firstHit{"quarrygeom.FirstHits", {"face", "t", "point", "barycentric"}};
    ResultType allHits{"quarrygeom.AllHits", {"hits", "offsets"}};
    py::object hitDtype = recordDtype<GmPointIntersectionInfo>(
        {{"object", "<i4", offsetof(GmPointIntersectionInfo, objectIndex)},
         {"face", "<i4", offsetof(GmPointIntersectionInfo, triangleIndex)},
         {"point", "(3,)<f8", offsetof(GmPointIntersectionInfo, point)},
         {"barycentric", "(3,)<f8", offsetof(GmPointIntersectionInfo, barycentric)}});
};
ResultTypes& types() {
    static ResultTypes* t = new ResultTypes;  // lives as long as the interpreter
    return *t;
}

}  // namespace

TreeClass registerTrees(py::module_& m) {
    types();
    return TreeClass(m, "Tree", R"doc(
Bounding volume hierarchy over the faces of a mesh, and the queries that walk it.

Tree(mesh, disabled=None, frozen=None) builds a plain tree; Tree.swept(mesh, end_positions, ...)
a swept one (boxes enclose each face at the mesh's positions and at end_positions, for the
continuous-time queries); Tree.thickened(mesh, thickness, ...) one whose boxes are padded by
thickness (for proximity queries).

Batched queries take an (n, 3) array of points (a single point of shape (3,) is taken as n = 1);
it is read in place when it is C-contiguous float64, and converted (copied) otherwise. Results
are new arrays written directly by the library. The GIL is released while they run, and the
work is spread over the library's worker threads for large batches.

include_disabled=False skips the faces of the tree's disabled mask.)doc")
        .def(py::init([](const MeshPtr& mesh, const std::shared_ptr<DisabledMask>& d,
                         const std::shared_ptr<FrozenMask>& f) {
                 return makeTree(Tree::kPlain, mesh, py::none(), 0.0, d, f);
             }),
             py::arg("mesh"), py::arg("disabled") = nullptr, py::arg("frozen") = nullptr)
        .def_static("swept", [](const MeshPtr& mesh, const py::object& end, const std::shared_ptr<DisabledMask>& d,
                                const std::shared_ptr<FrozenMask>& f) {
            return makeTree(Tree::kSwept, mesh, end, 0.0, d, f);
        }, py::arg("mesh"), py::arg("end_positions"), py::arg("disabled") = nullptr, py::arg("frozen") = nullptr)
        .def_static("thickened", [](const MeshPtr& mesh, double thickness, const std::shared_ptr<DisabledMask>& d,
                                    const std::shared_ptr<FrozenMask>& f) {
            return makeTree(Tree::kThickened, mesh, py::none(), thickness, d, f);
        }, py::arg("mesh"), py::arg("thickness"), py::arg("disabled") = nullptr, py::arg("frozen") = nullptr)
        .def_property_readonly("mode", [](const Tree& t) {
            return t.mode == Tree::kSwept ? "swept" : t.mode == Tree::kThickened ? "thickened" : "plain";
        })
        .def_property_readonly("mesh", [](const Tree& t) { return t.mesh; })
        .def_property_readonly("thickness", [](const Tree& t) { return t.thickness; })
        .def_property_readonly("end_positions", [](const Tree& t) -> py::object {
            if (t.mode != Tree::kSwept) return py::none();
            auto out = newVectors(t.end.size());
            std::copy(t.end.begin(), t.end.end(), mutableV3(out));
            return std::move(out);
        }, "Swept trees: copy of the end positions; None otherwise.")
        .def("refit", [](Tree& t, const py::object& positions, const py::object& thickness) {
            update(t, positions, thickness, false);
        }, py::arg("positions") = py::none(), py::arg("thickness") = py::none(), R"doc(
Refits the boxes bottom-up, keeping the tree's shape. positions ((V, 3)), when given, first become
the mesh's positions (plain and thickened trees) or the end positions (swept trees); thickness
changes a thickened tree's padding. Also picks up changes of the masks.)doc")
        .def("build", [](Tree& t, const py::object& positions, const py::object& thickness) {
            update(t, positions, thickness, true);
        }, py::arg("positions") = py::none(), py::arg("thickness") = py::none(),
           "As refit, but rebuilds the tree (faces reassigned to leaves).")
        .def_property_readonly("node_count", [](const Tree& t) { return t.h->getNumberNodes(); })
        .def_property_readonly("depth", [](const Tree& t) { return t.h->getDepth(); })
        .def_property_readonly("root_box", [](const Tree& t) {
            const GmAxisAlignedBox& b = t.h->getRootBoundingVolume();
            auto out = py::array_t<double>({2, 3});
            double* o = out.mutable_data();
            o[0] = b.minX, o[1] = b.minY, o[2] = b.minZ, o[3] = b.maxX, o[4] = b.maxY, o[5] = b.maxZ;
            return out;
        }, "(2, 3): minimum and maximum corner of the root box.")
        .def("closest_points", [](const Tree& t, const py::handle& points, bool inc) {
            auto p = points3(points, "points");
            const std::size_t n = rows(p);
            auto dist = newArray<double>(n), s = newArray<double>(n), tt = newArray<double>(n);
            auto point = newVectors(n), normal = newVectors(n);
            auto face = newArray<int>(n);
            GmBatchQueries::ClosestPointOutputs out{dist.mutable_data(), mutableV3(point), mutableV3(normal),
                                                    face.mutable_data(), s.mutable_data(), tt.mutable_data()};
            prepareReads(*t.mesh);
            {
                ReadGuard guard(*t.mesh, nullptr, n > GmBatchQueries::kSerialBatch);
                GmBatchQueries::findClosestPoints(*t.h, asV3(p), n, out, inc, false);
            }
            return types().closest(dist, point, face, s, tt, normal);
        }, py::arg("points"), py::arg("include_disabled") = true, R"doc(
Closest point of the mesh to each point: ClosestPoints(distance, point, face, s, t, normal) with
distance (n,) (negative when the point lies behind the face found), point (n, 3), face (n,) int32
(-1 when no face qualifies, distance then DBL_MAX), s and t the parameters on the face, normal the
face's unit normal.)doc")
        .def("closest_vertices", [](const Tree& t, const py::handle& points, bool inc) {
            auto p = points3(points, "points");
            const std::size_t n = rows(p);
            auto vertex = newArray<int>(n);
            auto dist = newArray<double>(n);
            prepareReads(*t.mesh);
            {
                ReadGuard guard(*t.mesh, nullptr, n > GmBatchQueries::kSerialBatch);
                GmBatchQueries::findClosestVertices(*t.h, asV3(p), n, vertex.mutable_data(), dist.mutable_data(), inc,
                                                    false);
            }
            return types().vertices(vertex, dist);
        }, py::arg("points"), py::arg("include_disabled") = true,
           "Nearest vertex: ClosestVertices(vertex (n,) int32, -1 for none; distance (n,)).")
        .def("inside", [](const Tree& t, const py::handle& points, bool inc) {
            auto p = points3(points, "points");
            const std::size_t n = rows(p);
            auto inside = newArray<bool>(n);
            prepareReads(*t.mesh);
            {
                ReadGuard guard(*t.mesh, nullptr, n > GmBatchQueries::kSerialBatch);
                GmBatchQueries::isInsideMesh(*t.h, asV3(p), n, inside.mutable_data(), inc, false);
            }
            return inside;
        }, py::arg("points"), py::arg("include_disabled") = true,
           "(n,) bool: inside the mesh or on its surface.")
        .def("signed_distance", [](const Tree& t, const py::handle& points, bool inc) {
            auto p = points3(points, "points");
            const std::size_t n = rows(p);
            auto dist = newArray<double>(n);
            auto face = newArray<int>(n);
            auto point = newVectors(n);
            prepareReads(*t.mesh);
            {
                ReadGuard guard(*t.mesh, nullptr, n > GmBatchQueries::kSerialBatch);
                GmBatchQueries::signedDistances(*t.h, asV3(p), n, dist.mutable_data(), face.mutable_data(),
                                                mutableV3(point), inc, false);
            }
            return types().signedDistance(dist, face, point);
        }, py::arg("points"), py::arg("include_disabled") = true, R"doc(
Signed distance, negative inside: SignedDistance(distance (n,), face (n,) int32, point (n, 3) the
closest point). On an open mesh a point whose closest feature lies on the boundary is outside.)doc")
        .def("first_hit", [](const Tree& t, const py::handle& origins, const py::handle& directions, bool inc) {
            auto o = points3(origins, "origins");
            auto d = points3(directions, "directions");
            const std::size_t n = rows(o);
            if (rows(d) != n) throw py::value_error("origins and directions must have the same number of rows");
            auto face = newArray<int>(n);
            auto tt = newArray<double>(n);
            auto point = newVectors(n), bary = newVectors(n);
            GmBatchQueries::FirstHitOutputs out{face.mutable_data(), tt.mutable_data(), mutableV3(point),
                                                mutableV3(bary)};
            prepareReads(*t.mesh);
            {
                ReadGuard guard(*t.mesh, nullptr, n > GmBatchQueries::kSerialBatch);
                GmBatchQueries::intersectFirst(*t.h, asV3(o), asV3(d), n, out, inc, false);
            }
            return types().firstHit(face, tt, point, bary);
        }, py::arg("origins"), py::arg("directions"), py::arg("include_disabled") = true, R"doc(
Nearest hit of each ray origin + t * direction, t >= 0 (faces hit from either side):
FirstHits(face (n,) int32, -1 for a miss; t (n,), inf for a miss; point (n, 3); barycentric (n, 3)
the weights of the face's three vertices; NaN rows for a miss). Ties go to the smallest face index.)doc")
        .def("all_hits", [](const Tree& t, const py::handle& origins, const py::handle& directions, bool inc) {
            auto o = points3(origins, "origins");
            auto d = points3(directions, "directions");
            const std::size_t n = rows(o);
            if (rows(d) != n) throw py::value_error("origins and directions must have the same number of rows");
            std::vector<GmPointIntersectionInfo> hits;
            std::vector<std::size_t> offsets;
            prepareReads(*t.mesh);
            {
                ReadGuard guard(*t.mesh, nullptr, n > GmBatchQueries::kSerialBatch);
                GmBatchQueries::intersectAll(*t.h, asV3(o), asV3(d), n, hits, offsets, inc, false);
            }
            auto off = newArray<long long>(n + 1);
            std::copy(offsets.begin(), offsets.end(), off.mutable_data());
            // The records are handed over as they are: the array owns the vector, no copy.
            auto* owned = new std::vector<GmPointIntersectionInfo>(std::move(hits));
            py::capsule base(owned, [](void* v) { delete static_cast<std::vector<GmPointIntersectionInfo>*>(v); });
            py::array records(py::dtype::from_args(types().hitDtype), {static_cast<py::ssize_t>(owned->size())}, {},
                              owned->data(), base);
            return types().allHits(records, off);
        }, py::arg("origins"), py::arg("directions"), py::arg("include_disabled") = true, R"doc(
Every face each ray meets: AllHits(hits, offsets). hits is a structured array with fields object
(int32, -1), face (int32), point (3 float64) and barycentric (3 float64), ray after ray, each
ray's in the order of the walk; the hits of ray i are hits[offsets[i]:offsets[i + 1]] (offsets
int64, n + 1 entries; np.repeat(np.arange(n), np.diff(offsets)) gives each hit's ray).)doc")
        .def("__repr__", [](const Tree& t) {
            return std::string("<quarrygeom.Tree ") +
                   (t.mode == Tree::kSwept ? "swept" : t.mode == Tree::kThickened ? "thickened" : "plain") + " over " +
                   std::to_string(t.mesh->mesh.getNumberFaces()) + " faces>";
        });
}

}  // namespace qgpy

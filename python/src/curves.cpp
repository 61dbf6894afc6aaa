// Strands (quarrygeom.Curves), their segment tree (quarrygeom.CurveTree) and its queries, with the
// contact records as NumPy structured arrays.

#include <algorithm>
#include <chrono>
#include <functional>

#include <pybind11/stl.h>

#include "tree.h"

namespace qgpy {

namespace {

typedef std::vector<V3> Positions;
typedef GmPrimitiveInterferenceInfo<GmCurveSegment, GmCurveSegment> SegmentRecord;
static_assert(sizeof(SegmentRecord) == sizeof(GmSegmentFaceInfo), "both record kinds share one dtype");

// A segment tree over a shared set, owning the positions and radii it reads. Queries share the
// lock, builds and refits take it alone; both with the GIL released.
struct CurveTree {
    std::shared_ptr<const GmCurves> curves;
    Positions positions;
    std::vector<double> radii;
    bool hasRadii = false;
    double offset = 0.0;
    GmCurveBoundingTree tree;
    mutable std::shared_mutex lock;

    const std::vector<double>* radiiPtr() const { return hasRadii ? &radii : nullptr; }
};
typedef std::shared_ptr<CurveTree> CurveTreePtr;

class CurveReadGuard {
public:
    CurveReadGuard(const CurveTree& a, const CurveTree* b = nullptr) {
        const CurveTree* first = &a;
        const CurveTree* second = b != nullptr && b != &a ? b : nullptr;
        if (second != nullptr && second < first) std::swap(first, second);
        _a = std::shared_lock<std::shared_mutex>(first->lock);
        if (second != nullptr) _b = std::shared_lock<std::shared_mutex>(second->lock);
    }

private:
    py::gil_scoped_release _release;
    std::shared_lock<std::shared_mutex> _a, _b;
};

py::object& contactDtype() {
    static py::object* d = nullptr;  // lives as long as the interpreter
    if (d == nullptr) {
#define QG_CFIELD(name, fmt, member) Field{name, fmt, offsetof(SegmentRecord, member)}
        d = new py::object(recordDtype<SegmentRecord>(
            {QG_CFIELD("index1", "<i8", index1), QG_CFIELD("index2", "<i8", index2),
             QG_CFIELD("index3", "<i8", index3), QG_CFIELD("distance", "<f8", distance),
             QG_CFIELD("parameter1", "<f8", parameter1), QG_CFIELD("parameter2", "<f8", parameter2),
             QG_CFIELD("radius1", "<f8", radius1), QG_CFIELD("radius2", "<f8", radius2),
             QG_CFIELD("point1", "(3,)<f8", point1), QG_CFIELD("point2", "(3,)<f8", point2),
             QG_CFIELD("normal", "(3,)<f8", normal), QG_CFIELD("barycentric", "(3,)<f8", barycentric)}));
#undef QG_CFIELD
    }
    return *d;
}

// The record vector handed over to the array, which owns it (no copy).
template <class Record>
py::array records(std::vector<Record>&& r) {
    static_assert(sizeof(Record) == sizeof(SegmentRecord) && std::is_trivially_copyable<Record>::value,
                  "the dtype is laid over the records");
    auto* owned = new std::vector<Record>(std::move(r));
    py::capsule owner(owned, [](void* p) { delete static_cast<std::vector<Record>*>(p); });
    return py::array(contactDtype(), {static_cast<py::ssize_t>(owned->size())}, {}, owned->data(), owner);
}

// A 1-D array of non-negative integers.
std::vector<std::size_t> counts(const py::handle& obj, const char* what) {
    py::array a = py::array::ensure(obj);
    if (!a) throw py::type_error(std::string(what) + " must be an array-like of integers");
    if (a.ndim() != 1) throw py::value_error(std::string(what) + " must be one-dimensional");
    if (a.size() > 0) requireInteger(a, what);
    auto i = py::array_t<long long, py::array::c_style | py::array::forcecast>::ensure(a);
    std::vector<std::size_t> out(static_cast<std::size_t>(a.shape(0)));
    for (std::size_t k = 0; k < out.size(); ++k) {
        if (i.data()[k] < 0) throw py::value_error(std::string(what) + " must not be negative");
        out[k] = static_cast<std::size_t>(i.data()[k]);
    }
    return out;
}

Positions curvePositions(const GmCurves& c, const py::handle& obj) {
    auto a = points3(obj, "positions", false);
    if (rows(a) != c.getNumberVertices())
        throw py::value_error("positions must have one row per vertex (" + std::to_string(c.getNumberVertices()) +
                              "), not " + std::to_string(rows(a)));
    const V3* p = asV3(a);
    return Positions(p, p + rows(a));
}

std::vector<double> curveRadii(const GmCurves& c, const py::handle& obj) {
    py::array a = py::array::ensure(obj);
    if (!a) throw py::type_error("radii must be an array-like of numbers");
    requireReal(a, "radii");
    if (a.ndim() != 1 || static_cast<std::uint64_t>(a.shape(0)) != c.getNumberVertices())
        throw py::value_error("radii must have shape (" + std::to_string(c.getNumberVertices()) + ",)");
    auto d = py::array_t<double, py::array::c_style | py::array::forcecast>::ensure(a);
    std::vector<double> out(d.data(), d.data() + d.shape(0));
    for (double r : out)
        if (!std::isfinite(r) || r < 0) throw py::value_error("radii must be finite and >= 0");
    return out;
}

double checkedOffset(double offset) {
    if (!std::isfinite(offset) || offset < 0) throw py::value_error("offset must be finite and >= 0");
    return offset;
}

py::array_t<std::int64_t> uintArray(std::size_t n, const std::function<std::uint64_t(std::size_t)>& f) {
    auto out = newArray<std::int64_t>(n);
    for (std::size_t i = 0; i < n; ++i) out.mutable_data()[i] = static_cast<std::int64_t>(f(i));
    return out;
}

template <int N>
std::vector<SegmentRecord> selfContacts(const CurveTree& t, bool adjacent) {
    std::vector<SegmentRecord> r;
    GmSegmentSelfIntersector<N> x(r, *t.curves, t.positions, t.radiiPtr());
    x.setIntersectAdjacent(adjacent);
    t.tree.selfIntersect(x);
    return r;
}

// Per strand, the hit that a one-strand tree keeps against the faces (index1 -1 without a hit).
std::vector<GmSegmentFaceInfo> firstCrossings(const CurveTree& t, const Tree& faces, bool inc) {
    const GmCurves& c = *t.curves;
    std::vector<GmSegmentFaceInfo> out(c.getNumberCurves());
    for (std::uint64_t k = 0; k < c.getNumberCurves(); ++k) {
        const std::uint64_t start = c.getStartSegment(k), stop = c.getStopSegment(k);
        if (stop <= start) continue;
        const std::uint64_t first = c.getPrimitiveIndex(k, start);
        const std::uint64_t v0 = c.getPrimitive(first)->vertex0;
        const Positions p(t.positions.begin() + v0, t.positions.begin() + v0 + (stop - start) + 1);
        const GmCurves one(p.size());
        const GmCurveBoundingTree strand(one, p, 0.0, nullptr);
        GmFirstSegmentIntersection x(p, faces.mesh->mesh);
        x.setIntersectDisabled(inc);
        strand.intersect(*faces.h, x);
        if (x.getResult() != nullptr) {
            out[k] = *x.getResult();
            out[k].index1 += static_cast<std::int64_t>(first);
        }
    }
    return out;
}

}  // namespace

void registerCurves(py::module_& m) {
    m.attr("curve_contact_dtype") = contactDtype();
    // Timing hook for bench/python: seconds of each run of the self query made from C++ alone.
    m.def("_time_native_curve_self", [](const CurveTree& t, int adjacency, int repeats) {
        std::vector<double> seconds;
        CurveReadGuard guard(t);
        for (int r = 0; r < repeats; ++r) {
            const auto start = std::chrono::steady_clock::now();
            const std::size_t n = adjacency == 1 ? selfContacts<1>(t, false).size() : selfContacts<3>(t, false).size();
            seconds.push_back(std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count());
            if (n == std::size_t(-1)) seconds.clear();  // keeps the result alive
        }
        return seconds;
    });

    py::class_<GmCurves, std::shared_ptr<GmCurves>>(m, "Curves", R"doc(
Topology of a set of strands (polylines): curve i has segment_counts[i] segments and
segment_counts[i] + 1 vertices; vertices are numbered consecutively, curve after curve. Positions
are kept by the CurveTree, not here. Curves.single(n) is one strand of n vertices;
Curves.ranges(logical, start, stop) takes segments start[i] .. stop[i] - 1 of caller strand
logical[i] (curves with stop <= start add nothing). Segments are numbered in curve order.)doc")
        .def(py::init([](const py::handle& segmentCounts) {
                 return std::make_shared<GmCurves>(counts(segmentCounts, "segment_counts"));
             }),
             py::arg("segment_counts"))
        .def_static("single", [](long long vertices) {
            if (vertices < 0) throw py::value_error("vertex_count must not be negative");
            return std::make_shared<GmCurves>(static_cast<std::size_t>(vertices));
        }, py::arg("vertex_count"), "One strand of vertex_count vertices (0 or 1 give an empty set).")
        .def_static("ranges", [](const py::handle& logical, const py::handle& start, const py::handle& stop) {
            auto l = counts(logical, "logical"), a = counts(start, "start"), b = counts(stop, "stop");
            if (l.size() != a.size() || a.size() != b.size())
                throw py::value_error("logical, start and stop must have the same length");
            return std::make_shared<GmCurves>(l, a, b);
        }, py::arg("logical"), py::arg("start"), py::arg("stop"))
        .def_property_readonly("curve_count", &GmCurves::getNumberCurves)
        .def_property_readonly("segment_count", &GmCurves::getNumberPrimitives)
        .def_property_readonly("vertex_count", &GmCurves::getNumberVertices)
        .def_property_readonly("segment_vertices", [](const GmCurves& c) {
            auto out = py::array_t<std::int64_t>({static_cast<py::ssize_t>(c.getNumberPrimitives()), py::ssize_t(2)});
            for (std::uint64_t i = 0; i < c.getNumberPrimitives(); ++i) {
                out.mutable_data()[2 * i] = static_cast<std::int64_t>(c.getPrimitive(i)->vertex0);
                out.mutable_data()[2 * i + 1] = static_cast<std::int64_t>(c.getPrimitive(i)->vertex1);
            }
            return out;
        }, "(S, 2) the two vertices of each segment.")
        .def_property_readonly("segment_curves", [](const GmCurves& c) {
            return uintArray(c.getNumberPrimitives(), [&](std::size_t i) { return c.getPrimitive(i)->curve; });
        }, "(S,) the curve of each segment.")
        .def_property_readonly("segment_numbers", [](const GmCurves& c) {
            return uintArray(c.getNumberPrimitives(), [&](std::size_t i) { return c.getSegment(i); });
        }, "(S,) each segment's number within its caller strand.")
        .def_property_readonly("logical_indices", [](const GmCurves& c) {
            return uintArray(c.getNumberCurves(), [&](std::size_t i) { return c.getCurveLogicalIndex(i); });
        })
        .def("__len__", &GmCurves::getNumberCurves);

    py::class_<CurveTree, CurveTreePtr>(m, "CurveTree", R"doc(
Bounding-box tree over the segments of a Curves set at (V, 3) float64 positions, with optional
per-vertex radii (V,) (a segment's radius varies linearly between its vertices) and an extra box
padding offset. Positions and radii are copied into the tree; refit(positions, radii) moves it.
Queries return structured arrays of curve_contact_dtype: index1, index2, index3 (int64),
distance, parameter1, parameter2, radius1, radius2, point1 (3), point2 (3), normal (3),
barycentric (3); see each query for what the indices name. They run with the GIL released.)doc")
        .def(py::init([](const std::shared_ptr<GmCurves>& curves, const py::handle& positions,
                         const py::object& radii, double offset) {
                 auto t = std::make_shared<CurveTree>();
                 t->curves = curves;
                 t->positions = curvePositions(*curves, positions);
                 t->hasRadii = !radii.is_none();
                 if (t->hasRadii) t->radii = curveRadii(*curves, radii);
                 t->offset = checkedOffset(offset);
                 py::gil_scoped_release release;
                 t->tree.build(*t->curves, t->positions, t->offset, t->radiiPtr());
                 return t;
             }),
             py::arg("curves"), py::arg("positions"), py::arg("radii") = py::none(), py::arg("offset") = 0.0)
        .def("refit", [](CurveTree& t, const py::handle& positions, const py::object& radii) {
            Positions p = curvePositions(*t.curves, positions);
            std::vector<double> r;
            if (!radii.is_none()) {
                if (!t.hasRadii) throw py::value_error("this tree was built without radii");
                r = curveRadii(*t.curves, radii);
            }
            py::gil_scoped_release release;
            std::unique_lock<std::shared_mutex> l(t.lock);
            t.positions.swap(p);
            if (!radii.is_none()) t.radii.swap(r);
            t.tree.refit(t.positions, t.offset, t.radiiPtr());
        }, py::arg("positions"), py::arg("radii") = py::none(),
           "New positions (and radii, for a tree built with them) for the same curves; the boxes follow.")
        .def_property_readonly("curves", [](const CurveTree& t) { return std::const_pointer_cast<GmCurves>(t.curves); })
        .def_property_readonly("positions", [](const CurveTree& t) {
            std::shared_lock<std::shared_mutex> l(t.lock);
            auto out = newVectors(t.positions.size());
            std::copy(t.positions.begin(), t.positions.end(), mutableV3(out));
            return out;
        })
        .def_property_readonly("radii", [](const CurveTree& t) -> py::object {
            std::shared_lock<std::shared_mutex> l(t.lock);
            if (!t.hasRadii) return py::none();
            auto out = newArray<double>(t.radii.size());
            std::copy(t.radii.begin(), t.radii.end(), out.mutable_data());
            return std::move(out);
        })
        .def_property_readonly("node_count", [](const CurveTree& t) { return t.tree.getNumberNodes(); })
        .def("self_proximity", [](const CurveTree& t, int adjacency, bool includeAdjacent) {
            if (adjacency != 1 && adjacency != 3) throw py::value_error("adjacency must be 1 or 3");
            std::vector<SegmentRecord> r;
            {
                CurveReadGuard guard(t);
                r = adjacency == 1 ? selfContacts<1>(t, includeAdjacent) : selfContacts<3>(t, includeAdjacent);
            }
            return records(std::move(r));
        }, py::arg("adjacency") = 1, py::arg("include_adjacent") = false, R"doc(
Segment pairs of the set that touch: the distance between their closest points is at most the
sum of the radii there, or they cross. index1 and index2 are segment indices, index3 -1;
parameter1/2 locate point1/2 along the segments, normal points from point2 towards point1.
Adjacent pairs are left out unless include_adjacent: with adjacency=1 any two segments of one
strand, with adjacency=3 segments of one strand whose numbers differ by at most 2. Each pair is
reported once, in no particular order.)doc")
        .def("intersections", [](const CurveTree& t, const CurveTree& other) {
            std::vector<SegmentRecord> r;
            {
                CurveReadGuard guard(t, &other);
                GmSegmentIntersector x(r, *t.curves, *other.curves, t.positions, other.positions, t.radiiPtr(),
                                       other.radiiPtr());
                t.tree.intersect(other.tree, x);
            }
            return records(std::move(r));
        }, py::arg("other"), R"doc(
Segment pairs of this set (index1) and other's (index2) that touch, as in self_proximity (no
pairs are left out). In no particular order.)doc")
        .def("mesh_crossings", [](const CurveTree& t, const Tree& faces, bool inc) {
            std::vector<GmSegmentFaceInfo> r;
            {
                ReadGuard meshGuard(*faces.mesh);
                std::shared_lock<std::shared_mutex> l(t.lock);
                GmSegmentMeshIntersector x(r, *t.curves, t.positions, faces.mesh->mesh);
                x.setIntersectDisabled(inc);
                t.tree.intersect(*faces.h, x);
            }
            return records(std::move(r));
        }, py::arg("tree"), py::arg("include_disabled") = true, R"doc(
Every segment that passes through a face of the mesh tree's mesh (both sides): index1 the
segment, index2 the face, index3 -1, parameter1 the hit's parameter along the segment (0 at its
first vertex, 1 at its second), point1 = point2 the hit, normal the face's unit normal,
barycentric the weights of the face's corners, distance 0. include_disabled=False skips faces
masked out by the tree's DisabledMask.)doc")
        .def("first_mesh_crossings", [](const CurveTree& t, const Tree& faces, bool inc) {
            std::vector<GmSegmentFaceInfo> r;
            {
                ReadGuard meshGuard(*faces.mesh);
                std::shared_lock<std::shared_mutex> l(t.lock);
                r = firstCrossings(t, faces, inc);
            }
            return records(std::move(r));
        }, py::arg("tree"), py::arg("include_disabled") = true, R"doc(
One crossing per strand (one row per curve, index1 -1 for a strand that crosses no face), as
mesh_crossings. The kept crossing is the first along the strand: its lowest-numbered segment
that crosses a face, at that segment's smallest parameter.)doc");
}

}  // namespace qgpy

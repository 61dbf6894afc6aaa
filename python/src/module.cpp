// The quarrygeom extension module: meshes, masks, trees and their queries over NumPy arrays.

#include <array>
#include <sstream>

#include "tree.h"

namespace qgpy {

namespace {

// Predicate over rows of equally long (n, dim) arrays (a single row of shape (dim,) gives a float).
template <int Dim, int Args, class F>
py::object predicate(const std::array<py::handle, Args>& in, F f) {
    std::array<py::array_t<double, py::array::c_style | py::array::forcecast>, Args> a;
    bool single = false;
    py::ssize_t n = -1;
    for (int k = 0; k < Args; ++k) {
        py::array any = py::array::ensure(in[k]);
        if (!any) throw py::type_error("points must be array-likes of numbers");
        requireReal(any, "points");
        single = any.ndim() == 1;
        if (single) any = any.reshape({py::ssize_t(1), any.shape(0)});
        if (any.ndim() != 2 || any.shape(1) != Dim)
            throw py::value_error("points must have shape (" + std::to_string(Dim) + ",) or (n, " +
                                  std::to_string(Dim) + ")");
        if (n >= 0 && any.shape(0) != n) throw py::value_error("all point arrays must have the same number of rows");
        n = any.shape(0);
        a[k] = py::array_t<double, py::array::c_style | py::array::forcecast>::ensure(any);
        for (py::ssize_t i = 0; i < n * Dim; ++i)
            if (!std::isfinite(a[k].data()[i])) throw py::value_error("points must be finite");
    }
    auto out = newArray<double>(static_cast<std::size_t>(n));
    for (py::ssize_t i = 0; i < n; ++i) {
        const double* p[Args];
        for (int k = 0; k < Args; ++k) p[k] = a[k].data() + i * Dim;
        out.mutable_data()[i] = f(p);
    }
    if (single && n == 1) return py::float_(out.data()[0]);
    return std::move(out);
}

}  // namespace

void registerCore(py::module_& m) {
    m.def("set_multithreading", &tarnCollision::setMultiThreading, py::arg("enabled"),
          "Lets the library's operations run on its worker threads (True, the default) or on the calling thread.");
    m.def("multithreading", &tarnCollision::isMultiThreading);
    m.def("worker_count", &GmParallel::workerCount,
          "Worker threads per operation, fixed when the library is loaded (KORV_THREAD_COUNT or the core count).");

    py::class_<GmBVHMetrics>(m, "Metrics", R"doc(
Counters of the collision queries: for the broad phase, the narrow phase, the vertex-face and the
edge-edge tests, the candidates examined, the tests performed and the tests that succeeded. Pass
one as metrics= to a query to add its counts. str() gives the library's text report.)doc")
        .def(py::init<>())
        .def("reset", &GmBVHMetrics::reset)
        .def("__iadd__", [](py::object self, const GmBVHMetrics& b) {
            self.cast<GmBVHMetrics&>() += b;
            return self;
        })
        .def("__eq__", [](const GmBVHMetrics& a, const GmBVHMetrics& b) { return a == b; })
        .def("as_dict", [](const GmBVHMetrics& x) {
            py::dict d;
            d["broad_phase_candidates"] = x.broadPhaseCandidates();
            d["broad_phase_tests"] = x.broadPhaseTests();
            d["broad_phase_successes"] = x.broadPhaseSuccesses();
            d["narrow_phase_candidates"] = x.narrowPhaseCandidates();
            d["narrow_phase_tests"] = x.narrowPhaseTests();
            d["narrow_phase_successes"] = x.narrowPhaseSuccesses();
            d["vertex_face_candidates"] = x.vertexFaceCandidates();
            d["vertex_face_tests"] = x.vertexFaceTests();
            d["vertex_face_successes"] = x.vertexFaceSuccesses();
            d["edge_edge_candidates"] = x.edgeEdgeCandidates();
            d["edge_edge_tests"] = x.edgeEdgeTests();
            d["edge_edge_successes"] = x.edgeEdgeSuccesses();
            d["broad_phase_prune_rate"] = x.broadPhasePruneRate();
            d["narrow_phase_prune_rate"] = x.narrowPhasePruneRate();
            d["vertex_face_prune_rate"] = x.vertexFacePruneRate();
            d["edge_edge_prune_rate"] = x.edgeEdgePruneRate();
            return d;
        }, "The twelve counters and the four prune rates (percent) by name.")
        .def("__str__", [](const GmBVHMetrics& x) {
            std::ostringstream os;
            x.print(os);
            return os.str();
        });

    m.def("orient2d", [](const py::handle& a, const py::handle& b, const py::handle& c) {
        return predicate<2, 3>({a, b, c},
                               [](const double* const* p) { return GmPredicates::orient2d(p[0], p[1], p[2]); });
    }, py::arg("a"), py::arg("b"), py::arg("c"), R"doc(
Exact orientation of 2-D points: positive when a, b, c turn counter-clockwise, negative when
clockwise, zero exactly when collinear (the sign is exact; the value approximates twice the
signed area). Points of shape (2,) give a float, (n, 2) arrays an (n,) array.)doc");
    m.def("orient3d", [](const py::handle& a, const py::handle& b, const py::handle& c, const py::handle& d) {
        return predicate<3, 4>({a, b, c, d},
                               [](const double* const* p) { return GmPredicates::orient3d(p[0], p[1], p[2], p[3]); });
    }, py::arg("a"), py::arg("b"), py::arg("c"), py::arg("d"), R"doc(
Exact orientation of d against the plane of a, b, c: positive when d lies below it (a, b, c appear
counter-clockwise from above), negative above, zero exactly when coplanar; the value approximates
six times the signed volume. Points of shape (3,) give a float, (n, 3) arrays an (n,) array.)doc");
}

}  // namespace qgpy

PYBIND11_MODULE(_quarrygeom, m) {
    m.doc() = "QuarryGeom over NumPy arrays (the compiled part of the quarrygeom package).";
    qgpy::registerCore(m);
    qgpy::registerMesh(m);
    qgpy::TreeClass tree = qgpy::registerTrees(m);
    qgpy::registerCollision(m, tree);
    qgpy::registerTiming(m);
    qgpy::registerCurves(m);
}

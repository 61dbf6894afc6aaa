// Timing hook for bench/python: runs the library's batched or single queries from C++ on copies
// of the inputs, so that the Python benchmark can set the binding's cost against the library's
// own in the same process and run. Not part of the package's documented interface.

#include <chrono>

#include <pybind11/stl.h>

#include "tree.h"

namespace qgpy {

void registerTiming(py::module_& m) {
    m.def("_time_native", [](const Tree& t, const std::string& query, const py::handle& points,
                             const py::object& directions, int repeats) {
        auto p = points3(points, "points");
        const std::vector<V3> in(asV3(p), asV3(p) + rows(p));
        std::vector<V3> dirs;
        if (!directions.is_none()) {
            auto d = points3(directions, "directions");
            dirs.assign(asV3(d), asV3(d) + rows(d));
            if (dirs.size() != in.size()) throw py::value_error("one direction per point");
        }
        const std::size_t n = in.size();
        std::vector<double> dist(n), s(n), tt(n);
        std::vector<V3> point(n), normal(n), bary(n);
        std::vector<int> face(n);
        std::vector<GmPointIntersectionInfo> hits;
        std::vector<std::size_t> offsets;
        std::vector<double> seconds;
        prepareReads(*t.mesh);
        ReadGuard guard(*t.mesh);
        for (int r = 0; r < repeats; ++r) {
            const auto start = std::chrono::steady_clock::now();
            if (query == "closest_points") {
                GmBatchQueries::findClosestPoints(*t.h, in.data(), n, {dist.data(), point.data(), normal.data(),
                                                                        face.data(), s.data(), tt.data()}, true, false);
            } else if (query == "closest_point_single") {  // one single-query call per point
                for (std::size_t i = 0; i < n; ++i)
                    dist[i] = t.h->findClosestPoint(in[i], point[i], normal[i], face[i], s[i], tt[i], nullptr, true);
            } else if (query == "signed_distance") {
                GmBatchQueries::signedDistances(*t.h, in.data(), n, dist.data(), face.data(), point.data(), true,
                                                false);
            } else if (query == "first_hit" && dirs.size() == n) {
                GmBatchQueries::intersectFirst(*t.h, in.data(), dirs.data(), n,
                                               {face.data(), tt.data(), point.data(), bary.data()}, true, false);
            } else if (query == "all_hits" && dirs.size() == n) {
                GmBatchQueries::intersectAll(*t.h, in.data(), dirs.data(), n, hits, offsets, true, false);
            } else {
                throw std::invalid_argument("unknown query or missing directions: " + query);
            }
            seconds.push_back(std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count());
        }
        return seconds;
    }, py::arg("tree"), py::arg("query"), py::arg("points"), py::arg("directions") = py::none(),
       py::arg("repeats") = 1);
}

}  // namespace qgpy

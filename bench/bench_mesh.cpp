// Building a GmTriangleMesh with its adjacency from a polygon soup, against building
// CGAL's Surface_mesh from the same soup.
//
//   bench_mesh --benchmark_counters_tabular=true
//
// Counter "faces/s": input triangles processed per second of wall time.

#include <benchmark/benchmark.h>

#include <array>
#include <cstdio>
#include <string>
#include <vector>

#include <quarrygeom/core/tarnCollision.h>
#include <quarrygeom/mesh/mesh.h>

#include "qgtools/data_dir.h"
#include "qgtools/mesh_io.h"
#include "qgtools/shapes.h"

#ifdef QG_HAVE_CGAL
#include <CGAL/Polygon_mesh_processing/polygon_soup_to_polygon_mesh.h>
#include <CGAL/Polygon_mesh_processing/repair_polygon_soup.h>
#include <CGAL/Simple_cartesian.h>
#include <CGAL/Surface_mesh.h>
#endif

namespace {

// 707 x 707 quads: 999,698 triangles, 501,264 vertices.
const qgtools::PolygonSoup& gridSoup() {
    static const qgtools::PolygonSoup soup = qgtools::clothGridSoup(707, 707, 1.0, 1.0);
    return soup;
}

const qgtools::PolygonSoup& bunnySoup() {
    static const qgtools::PolygonSoup soup = [] {
        qgtools::PolygonSoup s;
        std::string err;
        if (!qgtools::loadObjSoup(qgtools::dataDir() + "/meshes/stanford-bunny.obj", s, &err))
            std::fprintf(stderr, "bench_mesh: %s\n", err.c_str());
        return s;
    }();
    return soup;
}

const qgtools::PolygonSoup& soupFor(int which) { return which == 0 ? gridSoup() : bunnySoup(); }
const char* soupName(int which) { return which == 0 ? "grid1M" : "bunny"; }

void addElements(GmTriangleMesh& mesh, const qgtools::PolygonSoup& soup, bool merge) {
    if (!merge) {
        for (const GmTVector<double>& p : soup.positions) mesh.addVertex(p);
        for (const std::array<int, 3>& t : soup.triangles) mesh.addFace(t[0], t[1], t[2]);
        return;
    }
    std::vector<int> remap(soup.positions.size());
    bool existed = false;
    for (std::size_t i = 0; i < soup.positions.size(); ++i) remap[i] = mesh.addVertex(soup.positions[i], existed);
    for (const std::array<int, 3>& t : soup.triangles)
        mesh.addFace(remap[static_cast<std::size_t>(t[0])], remap[static_cast<std::size_t>(t[1])],
                     remap[static_cast<std::size_t>(t[2])], existed);
}

void setRate(benchmark::State& state, const qgtools::PolygonSoup& soup) {
    state.counters["faces/s"] =
        benchmark::Counter(static_cast<double>(soup.numTriangles()), benchmark::Counter::kIsIterationInvariantRate);
    state.counters["faces"] = static_cast<double>(soup.numTriangles());
}

// Args: soup (0 grid, 1 bunny), merge (0/1), parallel (0/1).
void BM_QG_Build(benchmark::State& state) {
    const qgtools::PolygonSoup& soup = soupFor(static_cast<int>(state.range(0)));
    const bool merge = state.range(1) != 0;
    tarnCollision::setMultiThreading(state.range(2) != 0);
    for (auto _ : state) {
        GmTriangleMesh mesh(soup.numVertices(), soup.numTriangles());
        addElements(mesh, soup, merge);
        mesh.finishConstruction();
        benchmark::DoNotOptimize(mesh.getNeighborFacesToFace(0).data());
        state.PauseTiming();  // destruction is not construction
        { GmTriangleMesh gone(std::move(mesh)); }
        state.ResumeTiming();
    }
    tarnCollision::setMultiThreading(true);
    state.SetLabel(std::string(soupName(static_cast<int>(state.range(0)))) + (merge ? " merge" : " plain") +
                   (state.range(2) ? " parallel" : " serial"));
    setRate(state, soup);
}

// The adding phase alone (addVertex / addFace).
void BM_QG_Add(benchmark::State& state) {
    const qgtools::PolygonSoup& soup = soupFor(static_cast<int>(state.range(0)));
    const bool merge = state.range(1) != 0;
    for (auto _ : state) {
        GmTriangleMesh mesh(soup.numVertices(), soup.numTriangles());
        addElements(mesh, soup, merge);
        benchmark::DoNotOptimize(mesh.getFaces().data());
        state.PauseTiming();
        { GmTriangleMesh gone(std::move(mesh)); }
        state.ResumeTiming();
    }
    state.SetLabel(std::string(soupName(static_cast<int>(state.range(0)))) + (merge ? " merge" : " plain"));
    setRate(state, soup);
}

// finishConstruction alone.
void BM_QG_Finish(benchmark::State& state) {
    const qgtools::PolygonSoup& soup = soupFor(static_cast<int>(state.range(0)));
    tarnCollision::setMultiThreading(state.range(1) != 0);
    GmTriangleMesh mesh(soup.numVertices(), soup.numTriangles());
    addElements(mesh, soup, false);
    for (auto _ : state) {
        mesh.finishConstruction();
        benchmark::DoNotOptimize(mesh.getNeighborFacesToFace(0).data());
    }
    tarnCollision::setMultiThreading(true);
    state.SetLabel(std::string(soupName(static_cast<int>(state.range(0)))) +
                   (state.range(1) ? " parallel" : " serial"));
    setRate(state, soup);
}

#ifdef QG_HAVE_CGAL
using Kernel = CGAL::Simple_cartesian<double>;
using Point = Kernel::Point_3;
using SurfaceMesh = CGAL::Surface_mesh<Point>;

struct CgalSoup {
    std::vector<Point> points;
    std::vector<std::array<std::size_t, 3>> polygons;
};

const CgalSoup& cgalSoupFor(int which) {
    static CgalSoup soups[2];
    CgalSoup& s = soups[which];
    if (s.points.empty()) {
        const qgtools::PolygonSoup& src = soupFor(which);
        for (const GmTVector<double>& p : src.positions) s.points.emplace_back(p.x, p.y, p.z);
        for (const std::array<int, 3>& t : src.triangles)
            s.polygons.push_back({static_cast<std::size_t>(t[0]), static_cast<std::size_t>(t[1]),
                                  static_cast<std::size_t>(t[2])});
    }
    return s;
}

// Args: soup; variant 0 polygon_soup_to_polygon_mesh, 1 add_vertex/add_face,
// 2 merge_duplicate_points_in_polygon_soup then polygon_soup_to_polygon_mesh.
void BM_CGAL_SurfaceMesh(benchmark::State& state) {
    const int which = static_cast<int>(state.range(0));
    const int variant = static_cast<int>(state.range(1));
    const CgalSoup& soup = cgalSoupFor(which);
    for (auto _ : state) {
        SurfaceMesh sm;
        if (variant == 0) {
            CGAL::Polygon_mesh_processing::polygon_soup_to_polygon_mesh(soup.points, soup.polygons, sm);
        } else if (variant == 1) {
            sm.reserve(soup.points.size(), soup.points.size() + soup.polygons.size(), soup.polygons.size());
            for (const Point& p : soup.points) sm.add_vertex(p);
            for (const auto& t : soup.polygons)
                sm.add_face(SurfaceMesh::Vertex_index(static_cast<SurfaceMesh::size_type>(t[0])),
                            SurfaceMesh::Vertex_index(static_cast<SurfaceMesh::size_type>(t[1])),
                            SurfaceMesh::Vertex_index(static_cast<SurfaceMesh::size_type>(t[2])));
        } else {
            state.PauseTiming();
            std::vector<Point> points = soup.points;
            std::vector<std::array<std::size_t, 3>> polygons = soup.polygons;
            state.ResumeTiming();
            CGAL::Polygon_mesh_processing::merge_duplicate_points_in_polygon_soup(points, polygons);
            CGAL::Polygon_mesh_processing::polygon_soup_to_polygon_mesh(points, polygons, sm);
        }
        benchmark::DoNotOptimize(sm.number_of_faces());
        state.PauseTiming();
        { SurfaceMesh gone(std::move(sm)); }
        state.ResumeTiming();
    }
    static const char* names[] = {" soup_to_mesh", " add_face", " merge+soup_to_mesh"};
    state.SetLabel(std::string(soupName(which)) + names[variant]);
    setRate(state, soupFor(which));
}
#endif

}  // namespace

BENCHMARK(BM_QG_Build)
    ->ArgsProduct({{0, 1}, {0, 1}, {0, 1}})
    ->Unit(benchmark::kMillisecond)
    ->UseRealTime()
    ->MinTime(1.0);
BENCHMARK(BM_QG_Add)->ArgsProduct({{0, 1}, {0, 1}})->Unit(benchmark::kMillisecond)->UseRealTime()->MinTime(1.0);
BENCHMARK(BM_QG_Finish)->ArgsProduct({{0, 1}, {0, 1}})->Unit(benchmark::kMillisecond)->UseRealTime()->MinTime(1.0);
#ifdef QG_HAVE_CGAL
BENCHMARK(BM_CGAL_SurfaceMesh)
    ->ArgsProduct({{0, 1}, {0, 1, 2}})
    ->Unit(benchmark::kMillisecond)
    ->UseRealTime()
    ->MinTime(1.0);
#endif

BENCHMARK_MAIN();

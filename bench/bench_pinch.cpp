// Pinch classification on two large self-intersecting meshes: two overlapping icospheres of
// 327,680 faces each merged into one mesh, and a strip of 1M faces bent through itself.
//
//   QueryThenBuild     the static self query (selfIntersect, the records build reads) and build
//                      from its records, timed alternately in each iteration; counters query_ms,
//                      build_ms and build_per_query (goal: at most 0.5)
//   FacePointType      side of random points on faces that carry crossings (items/s)
//   ClosestPoint       signed closest point of the same points with and without the pinch
//                      information, alternately; counters plain_ns, pinch_ns, pinch_per_plain
//                      (goal: at most 1.3)
//   UnionGrid128       (spheres, once) the inside decision with the classification against the
//                      union of the two convex solids on a 128^3 grid, points within 1e-6 of the
//                      surface left out; counters compared, wrong_pinch, wrong_plain

#include <benchmark/benchmark.h>

#include <chrono>
#include <cmath>
#include <memory>
#include <random>
#include <vector>

#include <quarrygeom/quarrygeom.h>

#include "qgtools/mesh_io.h"
#include "qgtools/pinch_scenes.h"
#include "qgtools/shapes.h"

namespace {

using Vec = GmTVector<double>;
using Clock = std::chrono::steady_clock;

double msSince(Clock::time_point t0) { return std::chrono::duration<double, std::milli>(Clock::now() - t0).count(); }

struct Scene {
    qgtools::PolygonSoup soup;
    GmTriangleMesh mesh;
    std::unique_ptr<GmBoundingTree> tree;
    std::vector<GmIntersectionInfo> records;
    SelfIntersectionInfo info;
    Vec lo, hi;  // box of the query points
    qgtools::ConvexSolid a, b;

    void finish(const std::string& name) {
        mesh = qgtools::meshFromSoup(soup, false, name);
        tree.reset(new GmBoundingTree(&mesh));
        GmBVHMetrics m;
        tree->selfIntersect(records, false, false, true, m);
        info.build(*tree, records);
    }
};

Scene& spheres() {
    static Scene* s = [] {
        auto* sc = new Scene;
        const Vec c1(0, 0, 0), c2(0.83, 0.11, 0.07);
        sc->soup = qgtools::overlappingSpheresSoup(7, c1, 1.0, c2, 0.9);
        const int half = sc->soup.numTriangles() / 2;
        sc->a = qgtools::ConvexSolid(sc->soup, 0, half, c1);
        sc->b = qgtools::ConvexSolid(sc->soup, half, half, c2);
        sc->finish("spheres");
        sc->lo = Vec(-1.3, -1.3, -1.3);
        sc->hi = Vec(2.0, 1.3, 1.3);
        return sc;
    }();
    return *s;
}

Scene& folded() {
    static Scene* s = [] {
        auto* sc = new Scene;
        sc->soup = qgtools::foldedGridSoup(1000, 500, 1.0, 1.0);
        sc->finish("folded");
        sc->lo = Vec(-1.1, -0.1, -1.4);
        sc->hi = Vec(1.2, 1.1, 1.7);
        return sc;
    }();
    return *s;
}

Scene& scene(int which) { return which == 0 ? spheres() : folded(); }
const char* sceneName(int which) { return which == 0 ? "spheres" : "folded"; }

void QueryThenBuild(benchmark::State& state) {
    Scene& s = scene(static_cast<int>(state.range(0)));
    state.SetLabel(sceneName(static_cast<int>(state.range(0))));
    double query = 0, build = 0;
    std::vector<GmIntersectionInfo> records;
    for (auto _ : state) {
        GmBVHMetrics m;
        auto t0 = Clock::now();
        s.tree->selfIntersect(records, false, false, true, m);
        query += msSince(t0);
        SelfIntersectionInfo info;
        info.boundaryWarned = true;  // the folded strip's warning once is enough
        t0 = Clock::now();
        info.build(*s.tree, records);
        build += msSince(t0);
        benchmark::DoNotOptimize(info.faceTypes.data());
    }
    const double n = static_cast<double>(state.iterations());
    state.counters["faces"] = s.mesh.getNumberFaces();
    state.counters["records"] = static_cast<double>(records.size());
    state.counters["crossing_faces"] = s.info.numberCrossingFaces();
    state.counters["query_ms"] = query / n;
    state.counters["build_ms"] = build / n;
    state.counters["build_per_query"] = build / query;
}

std::vector<std::pair<int, Vec>> pointsOnCrossingFaces(const Scene& s, int count) {
    std::vector<int> faces;
    for (int f = 0; f < s.mesh.getNumberFaces(); ++f)
        if (s.info.faceCrossings[static_cast<size_t>(f)]) faces.push_back(f);
    std::mt19937 rng(3);
    std::uniform_real_distribution<double> u(0, 1);
    std::vector<std::pair<int, Vec>> pts;
    for (int k = 0; k < count; ++k) {
        const int f = faces[static_cast<size_t>(k) % faces.size()];
        double w1 = u(rng), w2 = u(rng);
        if (w1 + w2 > 1) w1 = 1 - w1, w2 = 1 - w2;
        pts.emplace_back(f, s.mesh.getFacePoint(f, Vec(1 - w1 - w2, w1, w2)));
    }
    return pts;
}

void FacePointType(benchmark::State& state) {
    Scene& s = scene(static_cast<int>(state.range(0)));
    state.SetLabel(sceneName(static_cast<int>(state.range(0))));
    const auto pts = pointsOnCrossingFaces(s, 1 << 16);
    long long side2 = 0;
    for (auto _ : state)
        for (const auto& p : pts) side2 += s.info.facePointType(p.first, p.second) == 2;
    benchmark::DoNotOptimize(side2);
    state.SetItemsProcessed(state.iterations() * static_cast<long long>(pts.size()));
}

void ClosestPoint(benchmark::State& state) {
    Scene& s = scene(static_cast<int>(state.range(0)));
    state.SetLabel(sceneName(static_cast<int>(state.range(0))));
    std::mt19937 rng(5);
    std::uniform_real_distribution<double> ux(s.lo.x, s.hi.x), uy(s.lo.y, s.hi.y), uz(s.lo.z, s.hi.z);
    std::vector<Vec> pts(1 << 14);
    for (Vec& p : pts) p = Vec(ux(rng), uy(rng), uz(rng));
    s.tree->preparePointSearches();
    double plain = 0, pinch = 0, sum = 0;
    for (auto _ : state) {
        for (int pass = 0; pass < 2; ++pass) {
            const SelfIntersectionInfo* info = pass == 0 ? nullptr : &s.info;
            const auto t0 = Clock::now();
            for (const Vec& p : pts) {
                Vec closest, normal;
                int face = -1;
                bool pinched = false;
                sum += s.tree->findClosestPoint(p, closest, face, normal, pinched, false, true, info);
            }
            (pass == 0 ? plain : pinch) += msSince(t0);
        }
    }
    benchmark::DoNotOptimize(sum);
    const double queries = static_cast<double>(state.iterations()) * static_cast<double>(pts.size());
    state.counters["plain_ns"] = plain * 1e6 / queries;
    state.counters["pinch_ns"] = pinch * 1e6 / queries;
    state.counters["pinch_per_plain"] = pinch / plain;
}

void UnionGrid128(benchmark::State& state) {
    Scene& s = spheres();
    const int n = 128;
    long long compared = 0, wrongPinch = 0, wrongPlain = 0;
    for (auto _ : state) {
        compared = wrongPinch = wrongPlain = 0;
        for (int i = 0; i < n; ++i)
            for (int j = 0; j < n; ++j)
                for (int k = 0; k < n; ++k) {
                    const Vec p(s.lo.x + (s.hi.x - s.lo.x) * (i + 0.5) / n, s.lo.y + (s.hi.y - s.lo.y) * (j + 0.5) / n,
                                s.lo.z + (s.hi.z - s.lo.z) * (k + 0.5) / n);
                    Vec closest, normal;
                    int face = -1;
                    bool pinched = false;
                    const double plain = s.tree->findClosestPoint(p, closest, face, normal, pinched, false, true);
                    if (std::fabs(plain) <= 1e-6) continue;
                    const double aware =
                        s.tree->findClosestPoint(p, closest, face, normal, pinched, false, true, &s.info);
                    const bool inside = s.a.contains(p) || s.b.contains(p);
                    wrongPinch += (aware <= 0.0) != inside;
                    wrongPlain += (plain <= 0.0) != inside;
                    ++compared;
                }
    }
    state.counters["compared"] = static_cast<double>(compared);
    state.counters["wrong_pinch"] = static_cast<double>(wrongPinch);
    state.counters["wrong_plain"] = static_cast<double>(wrongPlain);
}

BENCHMARK(QueryThenBuild)->Arg(0)->Arg(1)->Unit(benchmark::kMillisecond)->Iterations(5);
BENCHMARK(FacePointType)->Arg(0)->Arg(1)->Unit(benchmark::kMillisecond);
BENCHMARK(ClosestPoint)->Arg(0)->Arg(1)->Unit(benchmark::kMillisecond);
BENCHMARK(UnionGrid128)->Unit(benchmark::kSecond)->Iterations(1);

}  // namespace

BENCHMARK_MAIN();

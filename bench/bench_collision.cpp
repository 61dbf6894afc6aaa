// Collision traversals: one simulation step of self collision on folded cloth (continuous-time,
// proximity, static), serial (1 thread) and parallel (the arena's workers), and mesh-mesh static
// intersection; CGAL self_intersections, CGAL box intersection and FCL collide for comparison.
//
// Counters: contacts (records), broad = broad-phase prune rate %, narrow = narrow-phase prune
// rate %, tests = narrow-phase tests (triangle pairs handed to a kernel).

#include <benchmark/benchmark.h>

#include <cmath>
#include <cstdint>
#include <map>
#include <memory>
#include <set>
#include <tuple>
#include <vector>

#include <quarrygeom/quarrygeom.h>

#include "qgtools/data_dir.h"
#include "qgtools/mesh_io.h"
#include "qgtools/shapes.h"

#ifdef QG_HAVE_CGAL
// TBB is linked through QuarryGeom; CGAL's parallel paths only need the macro.
#if !defined(CGAL_LINKED_WITH_TBB) && __has_include(<tbb/parallel_for.h>)
#define CGAL_LINKED_WITH_TBB
#endif
#include <CGAL/Exact_predicates_inexact_constructions_kernel.h>
#include <CGAL/Polygon_mesh_processing/self_intersections.h>
#include <CGAL/Surface_mesh.h>
#include <CGAL/box_intersection_d.h>
#endif

#ifdef QG_HAVE_FCL
#include <fcl/fcl.h>
#endif

namespace {

using Vec = GmTVector<double>;
using Positions = std::vector<Vec>;

// ---- Scenes ---------------------------------------------------------------------------------

std::uint32_t hash(std::uint32_t i) {
    i ^= i >> 16;
    i *= 0x7feb352dU;
    i ^= i >> 15;
    i *= 0x846ca68bU;
    i ^= i >> 16;
    return i;
}
double noise(std::uint32_t i) { return hash(i) / 4294967295.0 * 2.0 - 1.0; }

// A unit cloth of n x n quads folded about x = 0.5: over the step the right half closes from
// 0.06 rad short of lying flat on the left half to 0.02 rad short, with a per-vertex noise of 0.2
// grid spacings, so that the two layers meet in a band along the fold (about ten columns wide).
struct FoldedCloth {
    GmTriangleMesh mesh;  // start positions
    Positions end;
    double spacing;
    std::unique_ptr<GmBoundingVolumeHierarchy> swept, thick, plain;
    GmTriangleMesh endMesh;  // end positions, for the static query
    double proximity;

    explicit FoldedCloth(int n) : mesh(qgtools::makeClothGrid(n, n)), spacing(1.0 / n) {
        const Positions flat = mesh.getVertices();
        Positions start = flat;
        end = flat;
        const double a0 = M_PI - 0.06, a1 = M_PI - 0.02;
        for (std::size_t i = 0; i < flat.size(); ++i) {
            const double d = flat[i].x - 0.5;
            if (d > 0) {
                start[i] = Vec(0.5 + d * std::cos(a0), flat[i].y, d * std::sin(a0));
                end[i] = Vec(0.5 + d * std::cos(a1), flat[i].y, d * std::sin(a1));
            }
            end[i].z += 0.2 * spacing * noise(static_cast<std::uint32_t>(i));
        }
        mesh.setVertices(start);
        endMesh = mesh;
        endMesh.setVertices(end);
        proximity = 0.5 * spacing;
        swept = std::make_unique<GmBoundingVolumeHierarchy>(&mesh, end);
        thick = std::make_unique<GmBoundingVolumeHierarchy>(&endMesh, proximity);
        plain = std::make_unique<GmBoundingVolumeHierarchy>(&endMesh);
    }
};

// n for 64K and 1M faces (2 n^2 faces).
int gridFor(long faces) { return faces >= 1000000 ? 708 : 180; }

FoldedCloth& cloth(long faces) {
    static std::map<long, std::unique_ptr<FoldedCloth>> cache;
    auto& c = cache[faces];
    if (!c) c = std::make_unique<FoldedCloth>(gridFor(faces));
    return *c;
}

// The bunny and a copy turned by 0.3 rad about its up axis and moved by a tenth of its size.
struct BunnyPair {
    GmTriangleMesh a, b;
    std::unique_ptr<GmBoundingVolumeHierarchy> ta, tb;
    BunnyPair() : a(qgtools::loadObjMesh(qgtools::dataDir() + "/meshes/stanford-bunny.obj")), b(a) {
        Positions p = a.getVertices();
        const double c = std::cos(0.3), s = std::sin(0.3);
        for (Vec& v : p) v = Vec(c * v.x + s * v.z, v.y, -s * v.x + c * v.z) + Vec(0.015, 0.005, 0.01);
        b.setVertices(p);
        ta = std::make_unique<GmBoundingVolumeHierarchy>(&a);
        tb = std::make_unique<GmBoundingVolumeHierarchy>(&b);
    }
};

BunnyPair& bunnies() {
    static BunnyPair pair;
    return pair;
}

// 1: the serial path; 2: the parallel path (arena of the configured workers).
void setThreads(benchmark::State& state, int threads) {
    tarnCollision::setMultiThreading(threads > 1);
    state.counters["threads"] = threads > 1 ? GmParallel::workerCount() : 1;
}

void report(benchmark::State& state, std::size_t contacts, const GmBVHMetrics& m) {
    state.counters["contacts"] = static_cast<double>(contacts);
    state.counters["broad"] = m.broadPhasePruneRate();
    state.counters["narrow"] = m.narrowPhasePruneRate();
    state.counters["tests"] = m.narrowPhaseTests();
}

// ---- QuarryGeom self queries ------------------------------------------------------------------
//
// stepsLikeASimulation: a host queries every step with the same result vector. Each case runs
// kWarmUpSteps untimed queries first, so that the timed ones see that steady state (the mesh's
// orphan set built, the result vector's capacity and the allocator's record chunks in place)
// rather than charging the one-time costs to whichever case happens to run first. One warm-up
// query is not enough for the parallel path with many records: on the 64K proximity scene (some
// 180 MB of records) its second query still took 15 % longer than the third and later ones.
constexpr int kWarmUpSteps = 3;

void BM_ContinuousSelf(benchmark::State& state) {
    FoldedCloth& c = cloth(state.range(0));
    setThreads(state, static_cast<int>(state.range(1)));
    std::vector<GmContinuousTimeIntersectionInfo> r;
    GmBVHMetrics m;
    auto step = [&] {
        m.reset();
        c.swept->refit(c.end);
        c.swept->continuousTimeSelfIntersect(r, c.end, GmIntersection::kAllTests, false, false, 0, m);
    };
    for (int i = 0; i < kWarmUpSteps; ++i) step();  // see stepsLikeASimulation
    for (auto _ : state) {
        step();
        benchmark::DoNotOptimize(r.data());
    }
    report(state, r.size(), m);
}

void BM_ProximitySelf(benchmark::State& state) {
    FoldedCloth& c = cloth(state.range(0));
    setThreads(state, static_cast<int>(state.range(1)));
    std::vector<GmProximityCheckInfo> r;
    GmBVHMetrics m;
    auto step = [&] {
        m.reset();
        c.thick->refit(c.proximity);
        c.thick->selfProximityCheck(r, c.proximity, GmIntersection::kAllTests, false, false, 0, 0.0, m);
    };
    for (int i = 0; i < kWarmUpSteps; ++i) step();  // see stepsLikeASimulation
    for (auto _ : state) {
        step();
        benchmark::DoNotOptimize(r.data());
    }
    report(state, r.size(), m);
}

void BM_StaticSelf(benchmark::State& state) {
    FoldedCloth& c = cloth(state.range(0));
    setThreads(state, static_cast<int>(state.range(1)));
    std::vector<GmIntersectionInfo> r;
    GmBVHMetrics m;
    auto step = [&] {
        m.reset();
        c.plain->selfIntersect(r, false, false, false, m);
    };
    for (int i = 0; i < kWarmUpSteps; ++i) step();  // see stepsLikeASimulation
    for (auto _ : state) {
        step();
        benchmark::DoNotOptimize(r.data());
    }
    report(state, r.size(), m);
}

void BM_MeshMesh(benchmark::State& state) {
    BunnyPair& p = bunnies();
    setThreads(state, static_cast<int>(state.range(0)));
    std::vector<GmIntersectionInfo> r;
    GmBVHMetrics m;
    for (auto _ : state) {
        m.reset();
        p.ta->meshMeshIntersect(r, *p.tb, false, false, m);
        benchmark::DoNotOptimize(r.data());
    }
    report(state, r.size(), m);
}

// ---- Continuous-time self query: every triangle pair's records against each feature pair once --
//
// Three steps of one thread or the parallel path, both record modes measured in the same run:
//   scene 0 (sparse): the 64K folded cloth above (contacts in a band along the fold);
//   scene 1 (dense):  a 64K cloth whose right half is pushed through the left one over the step
//                     (from 0.05 rad short of lying flat on it to 0.05 rad beyond), vertex noise
//                     of 0.5 grid spacings;
//   scene 2 (dense):  an 80K-face icosphere whose upper half turns inside out through the lower
//                     half: each vertex above z = 0 ends at -(1.25 + 0.2 u) z (u a per-vertex
//                     noise in [-1, 1]), below the lower half.
// Counters: distinct = distinct (vertex, face) and (edge, edge) contacts; records; tests =
// vertex-face and edge-edge primitives run; tests/contact and records/contact per distinct one;
// visits = node pairs the walk examined, pairs = triangle pairs handed to the kernel.
struct SweptScene {
    GmTriangleMesh mesh;
    Positions end;
    std::unique_ptr<GmBoundingVolumeHierarchy> tree;
    void finish() { tree = std::make_unique<GmBoundingVolumeHierarchy>(&mesh, end); }
};

SweptScene& sweptScene(int which) {
    static std::map<int, std::unique_ptr<SweptScene>> cache;
    auto& sc = cache[which];
    if (sc) return *sc;
    sc = std::make_unique<SweptScene>();
    if (which == 1) {
        const int n = gridFor(64000);
        sc->mesh = qgtools::makeClothGrid(n, n);
        const Positions flat = sc->mesh.getVertices();
        Positions start = flat;
        sc->end = flat;
        const double a0 = M_PI - 0.05, a1 = M_PI + 0.05, spacing = 1.0 / n;
        for (std::size_t i = 0; i < flat.size(); ++i) {
            const double d = flat[i].x - 0.5;
            if (d > 0) {
                start[i] = Vec(0.5 + d * std::cos(a0), flat[i].y, d * std::sin(a0));
                sc->end[i] = Vec(0.5 + d * std::cos(a1), flat[i].y, d * std::sin(a1));
            }
            sc->end[i].z += 0.5 * spacing * noise(static_cast<std::uint32_t>(i));
        }
        sc->mesh.setVertices(start);
    } else {
        sc->mesh = qgtools::makeIcosphere(6);
        sc->end = sc->mesh.getVertices();
        for (std::size_t i = 0; i < sc->end.size(); ++i) {
            Vec& p = sc->end[i];
            if (p.z > 0.0) p.z *= -(1.25 + 0.2 * noise(static_cast<std::uint32_t>(3 * i)));
        }
    }
    sc->finish();
    return *sc;
}

void BM_ContinuousSelfRecords(benchmark::State& state) {
    const int which = static_cast<int>(state.range(0));
    GmBoundingVolumeHierarchy* tree;
    const Positions* end;
    if (which == 0) {
        FoldedCloth& c = cloth(64000);
        tree = c.swept.get();
        end = &c.end;
    } else {
        SweptScene& sc = sweptScene(which);
        tree = sc.tree.get();
        end = &sc.end;
    }
    const auto mode = state.range(1) == 0 ? GmSelfContactRecords::EveryTrianglePair
                                          : GmSelfContactRecords::EachFeaturePairOnce;
    setThreads(state, static_cast<int>(state.range(2)));
    tree->setSelfContactRecords(mode);
    std::vector<GmContinuousTimeIntersectionInfo> r;
    GmBVHMetrics m;
    auto step = [&] {
        m.reset();
        tree->refit(*end);
        tree->continuousTimeSelfIntersect(r, *end, GmIntersection::kAllTests, false, false, 0, m);
    };
    for (int i = 0; i < kWarmUpSteps; ++i) step();  // see stepsLikeASimulation
    for (auto _ : state) {
        step();
        benchmark::DoNotOptimize(r.data());
    }
    tree->setSelfContactRecords(GmSelfContactRecords::EveryTrianglePair);
    std::set<std::tuple<int, int, int>> distinct;
    for (const GmContinuousTimeIntersectionInfo& x : r) {
        if (x.type == GmInterferenceType::EDGE_EDGE)
            distinct.insert({1, std::min(x.feature1, x.feature2), std::max(x.feature1, x.feature2)});
        else
            distinct.insert({0, x.feature1, x.feature2});
    }
    const double d = std::max<double>(1.0, static_cast<double>(distinct.size()));
    const double tests = static_cast<double>(m.vertexFaceTests()) + static_cast<double>(m.edgeEdgeTests());
    state.counters["distinct"] = static_cast<double>(distinct.size());
    state.counters["records"] = static_cast<double>(r.size());
    state.counters["tests"] = tests;
    state.counters["tests/contact"] = tests / d;
    state.counters["records/contact"] = static_cast<double>(r.size()) / d;
    state.counters["visits"] = static_cast<double>(m.broadPhaseCandidates());
    state.counters["pairs"] = static_cast<double>(m.narrowPhaseTests());
}
BENCHMARK(BM_ContinuousSelfRecords)
    ->ArgNames({"scene", "once", "threads"})
    ->ArgsProduct({{0, 1, 2}, {0, 1}, {1, 2}})
    ->Unit(benchmark::kMillisecond)
    ->UseRealTime()
    ->Iterations(3);

void selfArgs(benchmark::internal::Benchmark* b) {
    b->ArgNames({"faces", "threads"})->Unit(benchmark::kMillisecond)->UseRealTime();
    for (int t : {1, 2}) b->Args({64000, t});
    for (int t : {1, 2}) b->Args({1000000, t});
}

BENCHMARK(BM_ContinuousSelf)->Apply(selfArgs)->Iterations(3);
BENCHMARK(BM_ProximitySelf)->Apply(selfArgs)->Iterations(3);
BENCHMARK(BM_StaticSelf)->Apply(selfArgs)->Iterations(3);
BENCHMARK(BM_MeshMesh)->ArgName("threads")->Arg(1)->Arg(2)->Unit(benchmark::kMillisecond)->UseRealTime();

// ---- CGAL ---------------------------------------------------------------------------------------

#ifdef QG_HAVE_CGAL
using K = CGAL::Exact_predicates_inexact_constructions_kernel;
using SurfaceMesh = CGAL::Surface_mesh<K::Point_3>;
using FaceIndex = SurfaceMesh::Face_index;

std::unique_ptr<SurfaceMesh> toSurfaceMesh(const GmTriangleMesh& m) {
    auto sm = std::make_unique<SurfaceMesh>();
    std::vector<SurfaceMesh::Vertex_index> v;
    v.reserve(static_cast<std::size_t>(m.getNumberVertices()));
    for (const Vec& p : m.getVertices()) v.push_back(sm->add_vertex(K::Point_3(p.x, p.y, p.z)));
    for (const GmTriangleFace& f : m.getFaces()) sm->add_face(v[f.vertices[0]], v[f.vertices[1]], v[f.vertices[2]]);
    return sm;
}

SurfaceMesh& cgalCloth(long faces) {
    static std::map<long, std::unique_ptr<SurfaceMesh>> cache;
    auto& s = cache[faces];
    if (!s) s = toSurfaceMesh(cloth(faces).endMesh);
    return *s;
}

template <class Tag>
void BM_CgalSelfIntersections(benchmark::State& state) {
    SurfaceMesh& sm = cgalCloth(state.range(0));
    std::vector<std::pair<FaceIndex, FaceIndex>> out;
    for (auto _ : state) {
        out.clear();
        CGAL::Polygon_mesh_processing::self_intersections<Tag>(sm, std::back_inserter(out));
        benchmark::DoNotOptimize(out.data());
    }
    state.counters["contacts"] = static_cast<double>(out.size());
}
BENCHMARK_TEMPLATE(BM_CgalSelfIntersections, CGAL::Sequential_tag)
    ->ArgName("faces")->Arg(64000)->Arg(1000000)->Iterations(1)->Unit(benchmark::kMillisecond)->UseRealTime();
#ifdef CGAL_LINKED_WITH_TBB
BENCHMARK_TEMPLATE(BM_CgalSelfIntersections, CGAL::Parallel_tag)
    ->ArgName("faces")->Arg(64000)->Arg(1000000)->Iterations(1)->Unit(benchmark::kMillisecond)->UseRealTime();
#endif

// Boxes of both meshes through box_intersection_d, then CGAL's triangle-triangle predicate.
void BM_CgalBoxIntersection(benchmark::State& state) {
    BunnyPair& p = bunnies();
    using Triangle = K::Triangle_3;
    using Box = CGAL::Box_intersection_d::Box_with_handle_d<double, 3, const Triangle*>;
    auto triangles = [](const GmTriangleMesh& m) {
        std::vector<Triangle> t;
        for (const GmTriangleFace& f : m.getFaces()) {
            const Vec& a = m.getVertex(f.vertices[0]);
            const Vec& b = m.getVertex(f.vertices[1]);
            const Vec& c = m.getVertex(f.vertices[2]);
            t.emplace_back(K::Point_3(a.x, a.y, a.z), K::Point_3(b.x, b.y, b.z), K::Point_3(c.x, c.y, c.z));
        }
        return t;
    };
    const std::vector<Triangle> ta = triangles(p.a), tb = triangles(p.b);
    std::size_t count = 0;
    for (auto _ : state) {
        std::vector<Box> ba, bb;
        ba.reserve(ta.size());
        bb.reserve(tb.size());
        for (const Triangle& t : ta) ba.emplace_back(t.bbox(), &t);
        for (const Triangle& t : tb) bb.emplace_back(t.bbox(), &t);
        count = 0;
        CGAL::box_intersection_d(ba.begin(), ba.end(), bb.begin(), bb.end(), [&](const Box& x, const Box& y) {
            if (CGAL::do_intersect(*x.handle(), *y.handle())) ++count;
        });
        benchmark::DoNotOptimize(count);
    }
    state.counters["contacts"] = static_cast<double>(count);
}
BENCHMARK(BM_CgalBoxIntersection)->Unit(benchmark::kMillisecond)->UseRealTime();
#endif

// ---- FCL ------------------------------------------------------------------------------------------

#ifdef QG_HAVE_FCL
template <class BV>
std::shared_ptr<fcl::BVHModel<BV>> fclModel(const GmTriangleMesh& m) {
    std::vector<fcl::Vector3d> v;
    std::vector<fcl::Triangle> t;
    for (const Vec& p : m.getVertices()) v.emplace_back(p.x, p.y, p.z);
    for (const GmTriangleFace& f : m.getFaces()) t.emplace_back(f.vertices[0], f.vertices[1], f.vertices[2]);
    auto model = std::make_shared<fcl::BVHModel<BV>>();
    model->beginModel();
    model->addSubModel(v, t);
    model->endModel();
    return model;
}

template <class BV>
void BM_FclCollide(benchmark::State& state) {
    BunnyPair& p = bunnies();
    fcl::CollisionObjectd oa(fclModel<BV>(p.a), fcl::Transform3d::Identity());
    fcl::CollisionObjectd ob(fclModel<BV>(p.b), fcl::Transform3d::Identity());
    // All contacts, with their contact points.
    fcl::CollisionRequestd request(100000000, true);
    std::size_t contacts = 0;
    for (auto _ : state) {
        fcl::CollisionResultd result;
        fcl::collide(&oa, &ob, request, result);
        contacts = result.numContacts();
        benchmark::DoNotOptimize(contacts);
    }
    state.counters["contacts"] = static_cast<double>(contacts);
}
BENCHMARK_TEMPLATE(BM_FclCollide, fcl::OBBRSSd)->Unit(benchmark::kMillisecond)->UseRealTime();
BENCHMARK_TEMPLATE(BM_FclCollide, fcl::AABBd)->Unit(benchmark::kMillisecond)->UseRealTime();
#endif

}  // namespace

BENCHMARK_MAIN();

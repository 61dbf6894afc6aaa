// Continuous-time strand contacts over one step: our swept curve tree and self walk against
// Embree 3 rtcCollide on the same swept segment boxes (user geometry), both handing each
// candidate pair to the same kernel (GmCurveContinuous::segmentSegment on the edge-edge
// primitive), neighbours within two segments of one strand left out on both sides.
//
// Scenes: the hair of examples/hair_drop (3000 strands of 20-40 segments on the unit sphere,
// combed out along its normals) moving by one step of a fall (the velocity after 0.25 s of
// free fall plus noise), and random-walk strands (100k segments; 1M with QG_BENCH_LARGE=1) with
// random drifts. Threads: 1 (multithreading off / an Embree device of one thread) and 2. The CPU
// column is the process's CPU time (all threads: Embree's device works on threads of its own).

#include <benchmark/benchmark.h>
#include <tbb/task_arena.h>

#include <algorithm>
#include <atomic>
#include <cmath>
#include <cstdlib>
#include <map>
#include <memory>
#include <random>
#include <string>
#include <vector>

#include <quarrygeom/quarrygeom.h>

#include "bench_common.h"
#include "qgtools/shapes.h"

#ifdef QG_HAVE_EMBREE
#include <embree3/rtcore.h>
#endif

namespace {

using Vec = GmTVector<double>;
using Positions = std::vector<Vec>;

struct Scene {
    std::vector<std::size_t> segments;
    Positions start, end;
    std::unique_ptr<GmCurves> curves;
};

// The example's hair: roots on the upper part of a sphere of radius 0.5, strands of 20-40
// segments of 0.015 along the normal, one step of 1/200 s at 2.45 m/s downwards plus noise.
Scene hairScene() {
    Scene s;
    std::mt19937 rng(7);
    std::uniform_real_distribution<double> u(0.0, 1.0);
    std::normal_distribution<double> g;
    std::uniform_int_distribution<int> len(20, 40);
    for (int k = 0; k < 3000; ++k) {
        Vec n;
        do n = Vec(g(rng), g(rng), g(rng)).safeNormalized();
        while (n.z < 0.25);
        const int m = len(rng);
        s.segments.push_back(std::size_t(m));
        for (int j = 0; j <= m; ++j) {
            const Vec p = n * (0.504 + 0.015 * j);
            s.start.push_back(p);
            s.end.push_back(p + (j == 0 ? Vec() : Vec(g(rng) * 0.002, g(rng) * 0.002, -2.45 / 200.0 * j / m)));
        }
    }
    s.curves = std::make_unique<GmCurves>(s.segments);
    return s;
}

// Random-walk strands: `strands` strands of 40 segments of 0.01 at 100,000 segments per unit
// volume (2500 strands in a unit cube), drifting by up to one segment length over the step.
Scene walkScene(int strands) {
    Scene s;
    std::mt19937 rng(11);
    std::uniform_real_distribution<double> u(0.0, 1.0);
    std::normal_distribution<double> g;
    const double side = std::cbrt(strands / 2500.0);
    for (int k = 0; k < strands; ++k) {
        s.segments.push_back(40);
        Vec p(side * u(rng), side * u(rng), side * u(rng));
        const Vec drift = Vec(g(rng), g(rng), g(rng)) * 0.005;
        for (int j = 0; j <= 40; ++j) {
            s.start.push_back(p);
            s.end.push_back(p + drift + Vec(g(rng), g(rng), g(rng)) * 0.001);
            p += Vec(g(rng), g(rng), g(rng)).safeNormalized() * 0.01;
        }
    }
    s.curves = std::make_unique<GmCurves>(s.segments);
    return s;
}

Scene& scene(int which) {
    static std::map<int, Scene> scenes;
    auto it = scenes.find(which);
    if (it == scenes.end()) it = scenes.emplace(which, which == 0 ? hairScene() : walkScene(which == 1 ? 2500 : 25000)).first;
    return it->second;
}

const char* sceneName(int which) { return which == 0 ? "example hair" : which == 1 ? "random walks" : "random walks 1M"; }

void label(benchmark::State& state, int threads) {
    state.SetLabel(std::string(sceneName(int(state.range(0)))) + ", " + std::to_string(threads) +
                   (threads == 1 ? " thread" : " threads"));
}

void BM_Ours_StrandCCD(benchmark::State& state) {
    Scene& s = scene(int(state.range(0)));
    const bool parallel = state.range(1) != 0;
    qgbench::Threading threading(parallel);
    GmCurveBoundingTree tree;
    tree.buildSwept(*s.curves, s.start, s.end);
    std::vector<GmCurveContinuousInfo> out;
    std::uint64_t tests = 0;
    for (auto _ : state) {
        out.clear();
        GmSegmentContinuousIntersector v(out, *s.curves, s.start, s.end);
        tree.selfIntersect(v);
        tests = v.getNumberTests();
        benchmark::DoNotOptimize(out.data());
    }
    state.counters["contacts"] = double(out.size());
    state.counters["tests"] = double(tests);
    label(state, parallel ? 2 : 1);
}

void BM_Ours_SweptRefit(benchmark::State& state) {
    Scene& s = scene(int(state.range(0)));
    GmCurveBoundingTree tree;
    tree.buildSwept(*s.curves, s.start, s.end);
    for (auto _ : state) {
        tree.refitSwept(s.start, s.end);
        benchmark::DoNotOptimize(tree.getRoot());
    }
    label(state, 1);
}

#ifdef QG_HAVE_EMBREE
using qgbench::embreeDevice;

// Swept segment boxes (both positions, 1e-8 pad, rounded outwards: the boxes of our tree).
struct SweptBoxes {
    const Scene* s;
    static void bounds(const RTCBoundsFunctionArguments* args) {
        const Scene& s = *static_cast<const SweptBoxes*>(args->geometryUserPtr)->s;
        const GmCurveSegment& seg = *s.curves->getPrimitive(args->primID);
        double lo[3], hi[3];
        for (int k = 0; k < 3; ++k) {
            lo[k] = std::min({s.start[seg.vertex0][k], s.start[seg.vertex1][k], s.end[seg.vertex0][k], s.end[seg.vertex1][k]}) - 1e-8;
            hi[k] = std::max({s.start[seg.vertex0][k], s.start[seg.vertex1][k], s.end[seg.vertex0][k], s.end[seg.vertex1][k]}) + 1e-8;
        }
        RTCBounds* o = args->bounds_o;
        o->lower_x = GmAxisAlignedBox::roundDown(lo[0]);
        o->lower_y = GmAxisAlignedBox::roundDown(lo[1]);
        o->lower_z = GmAxisAlignedBox::roundDown(lo[2]);
        o->upper_x = GmAxisAlignedBox::roundUp(hi[0]);
        o->upper_y = GmAxisAlignedBox::roundUp(hi[1]);
        o->upper_z = GmAxisAlignedBox::roundUp(hi[2]);
    }
};

struct Collide {
    const Scene* s;
    std::atomic<std::uint64_t> contacts{0}, tests{0};
};

void collide(void* user, RTCCollision* c, unsigned n) {
    Collide& d = *static_cast<Collide*>(user);
    const GmCurves& curves = *d.s->curves;
    std::uint64_t hits = 0, tests = 0;
    GmCurveContinuousInfo r;
    for (unsigned k = 0; k < n; ++k) {
        const unsigned a = c[k].primID0, b = c[k].primID1;
        if (a >= b) continue;  // the self collision reports each pair in both orders
        const GmCurveSegment& sa = *curves.getPrimitive(a);
        const GmCurveSegment& sb = *curves.getPrimitive(b);
        if (sa.curve == sb.curve && b - a <= 2) continue;
        ++tests;
        const Positions& p = d.s->start;
        const Positions& q = d.s->end;
        hits += GmCurveContinuous::segmentSegment(p[sa.vertex0], p[sa.vertex1], p[sb.vertex0], p[sb.vertex1], q[sa.vertex0],
                                                  q[sa.vertex1], q[sb.vertex0], q[sb.vertex1], 0.0, r)
                    ? 1
                    : 0;
    }
    d.contacts.fetch_add(hits, std::memory_order_relaxed);
    d.tests.fetch_add(tests, std::memory_order_relaxed);
}

void BM_Embree_StrandCCD(benchmark::State& state) {
    Scene& s = scene(int(state.range(0)));
    const int threads = state.range(1) ? 2 : 1;
    SweptBoxes boxes{&s};
    RTCScene es = rtcNewScene(embreeDevice(threads));
    RTCGeometry g = rtcNewGeometry(embreeDevice(threads), RTC_GEOMETRY_TYPE_USER);
    rtcSetGeometryUserPrimitiveCount(g, unsigned(s.curves->getNumberPrimitives()));
    rtcSetGeometryUserData(g, &boxes);
    rtcSetGeometryBoundsFunction(g, &SweptBoxes::bounds, nullptr);
    rtcCommitGeometry(g);
    rtcAttachGeometry(es, g);
    rtcCommitScene(es);
    Collide d{&s};
    // rtcCollide runs on the TBB scheduler whatever the device's thread count: as many slots.
    tbb::task_arena arena(threads);
    for (auto _ : state) {
        d.contacts = 0;
        d.tests = 0;
        arena.execute([&] { rtcCollide(es, es, collide, &d); });
        benchmark::DoNotOptimize(d.contacts.load());
    }
    state.counters["contacts"] = double(d.contacts.load());
    state.counters["tests"] = double(d.tests.load());
    rtcReleaseGeometry(g);
    rtcReleaseScene(es);
    label(state, threads);
}
#endif

// Scenes 0 and 1; scene 2 (random walks, 1M segments) only with QG_BENCH_LARGE=1 in the
// environment.
void args(benchmark::internal::Benchmark* b) {
    const char* large = std::getenv("QG_BENCH_LARGE");
    const int scenes = large != nullptr && std::string(large) == "1" ? 3 : 2;
    for (int sc = 0; sc < scenes; ++sc)
        for (int t : {0, 1}) b->Args({sc, t});
}

}  // namespace

BENCHMARK(BM_Ours_StrandCCD)->Apply(args)->Unit(benchmark::kMillisecond)->MeasureProcessCPUTime()->UseRealTime();
#ifdef QG_HAVE_EMBREE
BENCHMARK(BM_Embree_StrandCCD)->Apply(args)->Unit(benchmark::kMillisecond)->MeasureProcessCPUTime()->UseRealTime();
#endif
BENCHMARK(BM_Ours_SweptRefit)->Args({0, 0})->Args({1, 0})->Unit(benchmark::kMillisecond)->UseRealTime();

BENCHMARK_MAIN();

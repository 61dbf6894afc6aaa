// Curve segment tree: build, refit, self proximity and strands against a body, side by side with
// Embree 3 (user geometry of segment boxes, rtcCollide, segment rays), FCL (capsules in a
// DynamicAABBTreeCollisionManager) and CGAL (box_self_intersection_d) where available. Every
// peer applies the same segment distance test (GmSegmentKernels::segmentSegment) to its
// candidates, so all methods report the same pairs; the counts are printed as counters.
//
// Scenes (first argument): 0 = random-walk strands in a box, 100K segments; 1 = the same with
// 1M segments; 2 = strands of 30 segments rooted on the Stanford bunny. Radii are about a tenth
// of a segment. The second argument of our cases is the multithreading switch (0 serial, 1 the
// KORV_THREAD_COUNT workers); Embree cases take 1 or 2 threads from it. FCL and CGAL are serial.
// The self proximity cases report the process's CPU time (all threads) in the CPU column.

#include <benchmark/benchmark.h>
#include <tbb/task_arena.h>

#include <cmath>
#include <map>
#include <memory>
#include <random>
#include <vector>

#include <quarrygeom/bvh/bvh.h>
#include <quarrygeom/core/tarnCollision.h>
#include <quarrygeom/curves/curves.h>
#include <quarrygeom/mesh/mesh.h>

#include "bench_common.h"
#include "qgtools/data_dir.h"
#include "qgtools/mesh_io.h"

#ifdef QG_HAVE_CGAL
#include <CGAL/box_intersection_d.h>
#endif
#ifdef QG_HAVE_EMBREE
#include <embree3/rtcore.h>
#endif
#ifdef QG_HAVE_FCL
#include <fcl/fcl.h>
#endif

namespace {

typedef GmTVector<double> V3;

// ---- Scenes -------------------------------------------------------------------------------------

struct HairScene {
    std::vector<std::size_t> segments;  // per strand
    std::vector<V3> positions, moved;
    std::vector<double> radii;
    std::unique_ptr<GmCurves> curves;
    std::unique_ptr<GmTriangleMesh> body;  // scene 2 only
    std::vector<std::unique_ptr<GmCurves>> strands;  // one set per strand (scene 2)
    std::vector<std::vector<V3>> strandPositions;
};

// Random walk from a root: steps of length `step`, each turning a little from the last.
void walk(std::mt19937& rng, V3 p, V3 dir, int n, double step, HairScene& s) {
    std::normal_distribution<double> g;
    std::uniform_real_distribution<double> u(0.8, 1.2);
    s.segments.push_back(static_cast<std::size_t>(n));
    for (int k = 0; k <= n; ++k) {
        s.positions.push_back(p);
        s.radii.push_back(0.1 * step * u(rng));
        dir = (dir + V3(g(rng), g(rng), g(rng)) * 0.5).safeNormalized();
        p += dir * step;
    }
}

HairScene* makeWalks(std::size_t total, unsigned seed) {
    auto* s = new HairScene;
    std::mt19937 rng(seed);
    std::uniform_real_distribution<double> u(0.0, 1.0);
    std::normal_distribution<double> g;
    const int perStrand = 30;
    const double side = 0.5 * std::cbrt(static_cast<double>(total));  // about 8 segments per unit cube
    for (std::size_t c = 0; c < total / perStrand; ++c)
        walk(rng, V3(side * u(rng), side * u(rng), side * u(rng)), V3(g(rng), g(rng), g(rng)).safeNormalized(),
             perStrand, 1.0, *s);
    return s;
}

HairScene* makeBunnyHair() {
    auto* s = new HairScene;
    s->body.reset(new GmTriangleMesh(qgtools::loadObjMesh(qgtools::dataDir() + "/meshes/stanford-bunny.obj")));
    const GmTriangleMesh& m = *s->body;
    GmAxisAlignedBox b;
    for (const V3& v : m.getVertices()) b.expand(v);
    const double diag = (V3(b.maxX, b.maxY, b.maxZ) - V3(b.minX, b.minY, b.minZ)).length();
    std::mt19937 rng(5);
    // One strand per 4th vertex, leaving along the vertex normal and curling, so that some
    // strands pass back through the body.
    for (int v = 0; v < m.getNumberVertices(); v += 4) {
        const V3 n = m.getVertexNormal(v);
        walk(rng, m.getVertex(v) + n * (1e-4 * diag), n, 30, 0.004 * diag, *s);
    }
    std::size_t base = 0;
    for (std::size_t c = 0; c < s->segments.size(); ++c) {
        s->strands.emplace_back(new GmCurves(std::size_t(31)));
        s->strandPositions.emplace_back(s->positions.begin() + base, s->positions.begin() + base + 31);
        base += 31;
    }
    return s;
}

HairScene& scene(int which) {
    static std::map<int, std::unique_ptr<HairScene>> scenes;
    std::unique_ptr<HairScene>& s = scenes[which];
    if (!s) {
        s.reset(which == 0 ? makeWalks(100000, 1) : which == 1 ? makeWalks(1000000, 2) : makeBunnyHair());
        s->curves.reset(new GmCurves(s->segments));
        std::mt19937 rng(9);
        std::normal_distribution<double> g;
        s->moved = s->positions;
        for (V3& p : s->moved) p += V3(g(rng), g(rng), g(rng)) * 0.01;
    }
    return *s;
}

const char* sceneName(int which) { return which == 0 ? "walk100K" : which == 1 ? "walk1M" : "bunnyHair"; }

using qgbench::Threading;

void label(benchmark::State& state, const char* what) {
    state.SetLabel(std::string(sceneName(static_cast<int>(state.range(0)))) + " " + what);
}

// The pair test shared by every method: not within two segments on one strand, then the segment
// distance against the radii.
struct PairTest {
    const HairScene* s;
    GmSegmentSelfIntersector<3> adjacency;
    std::vector<GmSegmentSegmentInfo> unused;
    explicit PairTest(const HairScene& scene)
        : s(&scene), adjacency(unused, *scene.curves, scene.positions, &scene.radii) {}
    bool operator()(unsigned a, unsigned b) const {
        const GmCurveSegment& x = *s->curves->getPrimitive(a);
        const GmCurveSegment& y = *s->curves->getPrimitive(b);
        if (adjacency.isAdjacent(x, y)) return false;
        GmSegmentSegmentInfo r;
        return adjacency.test(x, y, r);
    }
};

// ---- Ours ---------------------------------------------------------------------------------------

void BM_Ours_Build(benchmark::State& state) {
    HairScene& s = scene(static_cast<int>(state.range(0)));
    for (auto _ : state) {
        GmCurveBoundingTree tree(*s.curves, s.positions, 0.0, &s.radii);
        benchmark::DoNotOptimize(tree.getRoot().box.minX);
    }
    label(state, "serial");
}

void BM_Ours_Refit(benchmark::State& state) {
    HairScene& s = scene(static_cast<int>(state.range(0)));
    GmCurveBoundingTree tree(*s.curves, s.positions, 0.0, &s.radii);
    bool flip = false;
    for (auto _ : state) {
        tree.refit(flip ? s.positions : s.moved, 0.0, &s.radii);
        flip = !flip;
        benchmark::DoNotOptimize(tree.getRoot().box.minX);
    }
    label(state, "serial");
}

void BM_Ours_SelfProximity(benchmark::State& state) {
    HairScene& s = scene(static_cast<int>(state.range(0)));
    Threading t(state.range(1) != 0);
    const GmCurveBoundingTree tree(*s.curves, s.positions, 0.0, &s.radii);
    std::vector<GmSegmentSegmentInfo> results;
    std::uint64_t tests = 0;
    for (auto _ : state) {
        results.clear();
        GmSegmentSelfIntersector<3> visitor(results, *s.curves, s.positions, &s.radii);
        tree.selfIntersect(visitor);
        tests = visitor.getNumberTests();
        benchmark::DoNotOptimize(results.data());
    }
    state.counters["pairs"] = static_cast<double>(results.size());
    state.counters["tests"] = static_cast<double>(tests);
    label(state, state.range(1) ? "parallel" : "serial");
}

// Every segment-face crossing of all strands against the body. The body's wide copy (what the
// segment walks descend) is made with the hierarchy, as Embree's scene is committed before its
// loop.
void BM_Ours_StrandsBodyAll(benchmark::State& state) {
    HairScene& s = scene(2);
    const GmCurveBoundingTree tree(*s.curves, s.positions, 0.0, nullptr);
    const GmBoundingVolumeHierarchy body(s.body.get());
    body.prepareRayQueries();
    std::vector<GmSegmentFaceInfo> results;
    std::uint64_t tests = 0;
    for (auto _ : state) {
        results.clear();
        GmSegmentMeshIntersector visitor(results, *s.curves, s.positions, *s.body);
        tree.intersect(body, visitor);
        tests = visitor.getNumberTests();
        benchmark::DoNotOptimize(results.data());
    }
    state.counters["pairs"] = static_cast<double>(results.size());
    state.counters["tests"] = static_cast<double>(tests);
    state.SetLabel("bunnyHair all crossings");
}

// The first crossing of each strand, one tree per strand (built once).
void BM_Ours_StrandsBodyFirst(benchmark::State& state) {
    HairScene& s = scene(2);
    const GmBoundingVolumeHierarchy body(s.body.get());
    body.prepareRayQueries();
    std::vector<GmCurveBoundingTree> trees;
    for (std::size_t c = 0; c < s.strands.size(); ++c) trees.emplace_back(*s.strands[c], s.strandPositions[c], 0.0, nullptr);
    std::size_t hit = 0;
    std::uint64_t tests = 0;
    for (auto _ : state) {
        hit = 0;
        tests = 0;
        for (std::size_t c = 0; c < trees.size(); ++c) {
            GmFirstSegmentIntersection first(s.strandPositions[c], *s.body);
            trees[c].intersect(body, first);
            hit += first.getResult() != nullptr;
            tests += first.getNumberTests();
        }
        benchmark::DoNotOptimize(hit);
    }
    state.counters["strands hit"] = static_cast<double>(hit);
    state.counters["tests"] = static_cast<double>(tests);
    state.SetLabel("bunnyHair first crossing per strand");
}

// ---- Embree -------------------------------------------------------------------------------------

#ifdef QG_HAVE_EMBREE
using qgbench::embreeDevice;

// Segment boxes as an Embree user geometry (the same boxes as ours: radii, rounded outwards).
struct SegmentBoxes {
    const HairScene* s;
    const std::vector<V3>* positions;
    static void bounds(const RTCBoundsFunctionArguments* args) {
        const SegmentBoxes& b = *static_cast<const SegmentBoxes*>(args->geometryUserPtr);
        const GmCurveSegment& seg = *b.s->curves->getPrimitive(args->primID);
        const V3& p = (*b.positions)[seg.vertex0];
        const V3& q = (*b.positions)[seg.vertex1];
        const double ra = b.s->radii[seg.vertex0] + 1e-8, rb = b.s->radii[seg.vertex1] + 1e-8;
        RTCBounds* o = args->bounds_o;
        o->lower_x = GmAxisAlignedBox::roundDown(std::min(p.x - ra, q.x - rb));
        o->lower_y = GmAxisAlignedBox::roundDown(std::min(p.y - ra, q.y - rb));
        o->lower_z = GmAxisAlignedBox::roundDown(std::min(p.z - ra, q.z - rb));
        o->upper_x = GmAxisAlignedBox::roundUp(std::max(p.x + ra, q.x + rb));
        o->upper_y = GmAxisAlignedBox::roundUp(std::max(p.y + ra, q.y + rb));
        o->upper_z = GmAxisAlignedBox::roundUp(std::max(p.z + ra, q.z + rb));
    }
};

struct EmbreeBoxes {
    RTCScene scene = nullptr;
    RTCGeometry geometry = nullptr;
    SegmentBoxes boxes;
    EmbreeBoxes(const HairScene& s, const std::vector<V3>& positions, int threads, RTCBuildQuality quality) {
        boxes = {&s, &positions};
        scene = rtcNewScene(embreeDevice(threads));
        rtcSetSceneBuildQuality(scene, RTC_BUILD_QUALITY_MEDIUM);
        if (quality == RTC_BUILD_QUALITY_REFIT) rtcSetSceneFlags(scene, RTC_SCENE_FLAG_DYNAMIC);
        geometry = rtcNewGeometry(embreeDevice(threads), RTC_GEOMETRY_TYPE_USER);
        rtcSetGeometryUserPrimitiveCount(geometry, static_cast<unsigned>(s.curves->getNumberPrimitives()));
        rtcSetGeometryUserData(geometry, &boxes);
        rtcSetGeometryBoundsFunction(geometry, &SegmentBoxes::bounds, nullptr);
        rtcSetGeometryBuildQuality(geometry, quality);
        rtcCommitGeometry(geometry);
        rtcAttachGeometry(scene, geometry);
    }
    ~EmbreeBoxes() {
        rtcReleaseGeometry(geometry);
        rtcReleaseScene(scene);
    }
};

void BM_Embree_Build(benchmark::State& state) {
    HairScene& s = scene(static_cast<int>(state.range(0)));
    for (auto _ : state) {
        EmbreeBoxes e(s, s.positions, state.range(1) ? 2 : 1, RTC_BUILD_QUALITY_MEDIUM);
        rtcCommitScene(e.scene);
        benchmark::DoNotOptimize(e.scene);
    }
    label(state, state.range(1) ? "2 threads" : "1 thread");
}

void BM_Embree_Refit(benchmark::State& state) {
    HairScene& s = scene(static_cast<int>(state.range(0)));
    std::vector<V3> current = s.positions;
    EmbreeBoxes e(s, current, state.range(1) ? 2 : 1, RTC_BUILD_QUALITY_REFIT);
    rtcCommitScene(e.scene);
    bool flip = false;
    for (auto _ : state) {
        state.PauseTiming();
        current = flip ? s.positions : s.moved;  // the host's new positions (not timed)
        state.ResumeTiming();
        rtcCommitGeometry(e.geometry);
        rtcCommitScene(e.scene);
        flip = !flip;
    }
    label(state, state.range(1) ? "2 threads" : "1 thread");
}

struct CollideData {
    const PairTest* test;
    std::vector<std::size_t>* perThread;  // unused with one thread
    std::size_t pairs = 0;
    std::size_t reported = 0;
};

void collideCallback(void* user, RTCCollision* c, unsigned n) {
    CollideData& d = *static_cast<CollideData*>(user);
    for (unsigned k = 0; k < n; ++k) {
        const unsigned a = c[k].primID0, b = c[k].primID1;
        ++d.reported;
        if (a < b && (*d.test)(a, b)) ++d.pairs;  // self collision reports each pair in both orders
    }
}

void BM_Embree_SelfProximity(benchmark::State& state) {
    HairScene& s = scene(static_cast<int>(state.range(0)));
    const PairTest test(s);
    EmbreeBoxes e(s, s.positions, 1, RTC_BUILD_QUALITY_MEDIUM);
    rtcCommitScene(e.scene);
    CollideData d{&test, nullptr};
    tbb::task_arena oneThread(1);
    for (auto _ : state) {
        d.pairs = d.reported = 0;
        // rtcCollide runs on the TBB scheduler whatever the device's thread count: one slot.
        oneThread.execute([&] { rtcCollide(e.scene, e.scene, collideCallback, &d); });
        benchmark::DoNotOptimize(d.pairs);
    }
    state.counters["pairs"] = static_cast<double>(d.pairs);
    state.counters["reported"] = static_cast<double>(d.reported);
    label(state, "1 thread");
}

// Each segment as a ray with tfar = 1 against the bunny's triangles.
struct EmbreeBody {
    RTCScene scene;
    EmbreeBody(const GmTriangleMesh& m, bool contextFilter) {
        RTCDevice dev = embreeDevice(1);
        scene = rtcNewScene(dev);
        if (contextFilter) rtcSetSceneFlags(scene, RTC_SCENE_FLAG_CONTEXT_FILTER_FUNCTION);
        RTCGeometry g = rtcNewGeometry(dev, RTC_GEOMETRY_TYPE_TRIANGLE);
        float* v = static_cast<float*>(rtcSetNewGeometryBuffer(g, RTC_BUFFER_TYPE_VERTEX, 0, RTC_FORMAT_FLOAT3,
                                                               3 * sizeof(float), m.getNumberVertices()));
        for (const V3& p : m.getVertices()) {
            *v++ = static_cast<float>(p.x);
            *v++ = static_cast<float>(p.y);
            *v++ = static_cast<float>(p.z);
        }
        unsigned* idx = static_cast<unsigned*>(
            rtcSetNewGeometryBuffer(g, RTC_BUFFER_TYPE_INDEX, 0, RTC_FORMAT_UINT3, 3 * sizeof(unsigned), m.getNumberFaces()));
        for (const GmTriangleFace& f : m.getFaces())
            for (int k = 0; k < 3; ++k) *idx++ = static_cast<unsigned>(f.vertices[k]);
        rtcCommitGeometry(g);
        rtcAttachGeometry(scene, g);
        rtcReleaseGeometry(g);
        rtcCommitScene(scene);
    }
    ~EmbreeBody() { rtcReleaseScene(scene); }
};

RTCRayHit segmentRay(const V3& p, const V3& q) {
    RTCRayHit rh;
    rh.ray.org_x = static_cast<float>(p.x);
    rh.ray.org_y = static_cast<float>(p.y);
    rh.ray.org_z = static_cast<float>(p.z);
    rh.ray.dir_x = static_cast<float>(q.x - p.x);
    rh.ray.dir_y = static_cast<float>(q.y - p.y);
    rh.ray.dir_z = static_cast<float>(q.z - p.z);
    rh.ray.tnear = 0.f;
    rh.ray.tfar = 1.f;
    rh.ray.mask = ~0u;
    rh.ray.flags = 0;
    rh.ray.time = 0.f;
    rh.hit.geomID = RTC_INVALID_GEOMETRY_ID;
    return rh;
}

// All crossings: a filter that records each hit and lets the ray go on.
struct AllHitsContext {
    RTCIntersectContext context;
    std::size_t hits;
};
void countAll(const RTCFilterFunctionNArguments* args) {
    reinterpret_cast<AllHitsContext*>(args->context)->hits++;
    args->valid[0] = 0;
}

void BM_Embree_StrandsBodyAll(benchmark::State& state) {
    HairScene& s = scene(2);
    const EmbreeBody body(*s.body, true);
    std::size_t pairs = 0;
    for (auto _ : state) {
        AllHitsContext ctx;
        rtcInitIntersectContext(&ctx.context);
        ctx.context.filter = countAll;
        ctx.hits = 0;
        for (const GmCurveSegment* seg : s.curves->getPrimitives()) {
            RTCRayHit rh = segmentRay(s.positions[seg->vertex0], s.positions[seg->vertex1]);
            rtcIntersect1(body.scene, &ctx.context, &rh);
        }
        pairs = ctx.hits;
        benchmark::DoNotOptimize(pairs);
    }
    state.counters["pairs"] = static_cast<double>(pairs);
    state.SetLabel("bunnyHair all crossings");
}

void BM_Embree_StrandsBodyFirst(benchmark::State& state) {
    HairScene& s = scene(2);
    const EmbreeBody body(*s.body, false);
    std::size_t hit = 0;
    for (auto _ : state) {
        hit = 0;
        RTCIntersectContext ctx;
        rtcInitIntersectContext(&ctx);
        for (std::size_t c = 0; c < s.strandPositions.size(); ++c) {
            const std::vector<V3>& p = s.strandPositions[c];
            for (std::size_t k = 0; k + 1 < p.size(); ++k) {
                RTCRayHit rh = segmentRay(p[k], p[k + 1]);
                rtcIntersect1(body.scene, &ctx, &rh);
                if (rh.hit.geomID != RTC_INVALID_GEOMETRY_ID) {
                    ++hit;
                    break;
                }
            }
        }
        benchmark::DoNotOptimize(hit);
    }
    state.counters["strands hit"] = static_cast<double>(hit);
    state.SetLabel("bunnyHair first crossing per strand");
}
#endif

// ---- FCL ----------------------------------------------------------------------------------------

#ifdef QG_HAVE_FCL
// Capsules (radius: the larger end radius) placed along each segment; the manager's candidates
// go through the same pair test.
void BM_FCL_SelfProximity(benchmark::State& state) {
    HairScene& s = scene(static_cast<int>(state.range(0)));
    const PairTest test(s);
    std::vector<std::unique_ptr<fcl::CollisionObjectd>> objects;
    std::vector<fcl::CollisionObjectd*> raw;
    for (const GmCurveSegment* seg : s.curves->getPrimitives()) {
        const V3& p = s.positions[seg->vertex0];
        const V3& q = s.positions[seg->vertex1];
        const V3 d = q - p;
        const double len = d.length();
        const double r = std::max(s.radii[seg->vertex0], s.radii[seg->vertex1]);
        auto capsule = std::make_shared<fcl::Capsuled>(r, len);
        // The capsule's axis is its local z; turn z onto the segment.
        const Eigen::Vector3d dir = len > 0 ? Eigen::Vector3d(d.x, d.y, d.z) / len : Eigen::Vector3d(0, 0, 1);
        fcl::Transform3d tf = fcl::Transform3d::Identity();
        tf.linear() = Eigen::Quaterniond::FromTwoVectors(Eigen::Vector3d(0, 0, 1), dir).toRotationMatrix();
        const V3 mid = (p + q) * 0.5;
        tf.translation() = Eigen::Vector3d(mid.x, mid.y, mid.z);
        objects.emplace_back(new fcl::CollisionObjectd(capsule, tf));
        objects.back()->setUserData(reinterpret_cast<void*>(static_cast<std::uintptr_t>(seg->index)));
        objects.back()->computeAABB();
        raw.push_back(objects.back().get());
    }
    fcl::DynamicAABBTreeCollisionManagerd manager;
    manager.registerObjects(raw);
    manager.setup();
    struct Data {
        const PairTest* test;
        std::size_t pairs;
    } data{&test, 0};
    for (auto _ : state) {
        data.pairs = 0;
        manager.collide(&data, [](fcl::CollisionObjectd* a, fcl::CollisionObjectd* b, void* user) {
            Data& d = *static_cast<Data*>(user);
            const auto i = static_cast<unsigned>(reinterpret_cast<std::uintptr_t>(a->getUserData()));
            const auto j = static_cast<unsigned>(reinterpret_cast<std::uintptr_t>(b->getUserData()));
            if ((*d.test)(std::min(i, j), std::max(i, j))) ++d.pairs;
            return false;
        });
        benchmark::DoNotOptimize(data.pairs);
    }
    state.counters["pairs"] = static_cast<double>(data.pairs);
    label(state, "serial");
}
#endif

// ---- CGAL ---------------------------------------------------------------------------------------

#ifdef QG_HAVE_CGAL
void BM_CGAL_SelfProximity(benchmark::State& state) {
    HairScene& s = scene(static_cast<int>(state.range(0)));
    const PairTest test(s);
    using Box = CGAL::Box_intersection_d::Box_with_info_d<double, 3, unsigned>;
    std::vector<Box> boxes;
    for (const GmCurveSegment* seg : s.curves->getPrimitives()) {
        const V3& p = s.positions[seg->vertex0];
        const V3& q = s.positions[seg->vertex1];
        const double ra = s.radii[seg->vertex0] + 1e-8, rb = s.radii[seg->vertex1] + 1e-8;
        double lo[3] = {std::min(p.x - ra, q.x - rb), std::min(p.y - ra, q.y - rb), std::min(p.z - ra, q.z - rb)};
        double hi[3] = {std::max(p.x + ra, q.x + rb), std::max(p.y + ra, q.y + rb), std::max(p.z + ra, q.z + rb)};
        boxes.emplace_back(lo, hi, static_cast<unsigned>(seg->index));
    }
    std::size_t pairs = 0;
    for (auto _ : state) {
        pairs = 0;
        std::vector<Box> work = boxes;  // the algorithm reorders its input
        CGAL::box_self_intersection_d(work.begin(), work.end(), [&](const Box& a, const Box& b) {
            const unsigned i = a.info(), j = b.info();
            if (test(std::min(i, j), std::max(i, j))) ++pairs;
        });
        benchmark::DoNotOptimize(pairs);
    }
    state.counters["pairs"] = static_cast<double>(pairs);
    label(state, "serial");
}
#endif

void sceneArgs(benchmark::internal::Benchmark* b) {
    for (int m = 0; m < 3; ++m) b->Args({m, 0});
}
void threadArgs(benchmark::internal::Benchmark* b) {
    for (int m = 0; m < 3; ++m)
        for (int t = 0; t < 2; ++t) b->Args({m, t});
}

}  // namespace

BENCHMARK(BM_Ours_Build)->Apply(sceneArgs)->Unit(benchmark::kMillisecond)->UseRealTime();
BENCHMARK(BM_Ours_Refit)->Apply(sceneArgs)->Unit(benchmark::kMillisecond)->UseRealTime();
#ifdef QG_HAVE_EMBREE
BENCHMARK(BM_Embree_Build)->Apply(sceneArgs)->Unit(benchmark::kMillisecond)->UseRealTime();
BENCHMARK(BM_Embree_Refit)->Apply(sceneArgs)->Unit(benchmark::kMillisecond)->UseRealTime();
#endif
BENCHMARK(BM_Ours_SelfProximity)->Apply(threadArgs)->Unit(benchmark::kMillisecond)->MeasureProcessCPUTime()->UseRealTime();
#ifdef QG_HAVE_EMBREE
BENCHMARK(BM_Embree_SelfProximity)->Apply(sceneArgs)->Unit(benchmark::kMillisecond)->MeasureProcessCPUTime()->UseRealTime();
#endif
#ifdef QG_HAVE_FCL
BENCHMARK(BM_FCL_SelfProximity)->Apply(sceneArgs)->Unit(benchmark::kMillisecond)->MeasureProcessCPUTime()->UseRealTime();
#endif
#ifdef QG_HAVE_CGAL
BENCHMARK(BM_CGAL_SelfProximity)->Apply(sceneArgs)->Unit(benchmark::kMillisecond)->MeasureProcessCPUTime()->UseRealTime();
#endif
BENCHMARK(BM_Ours_StrandsBodyAll)->Unit(benchmark::kMillisecond)->UseRealTime();
BENCHMARK(BM_Ours_StrandsBodyFirst)->Unit(benchmark::kMillisecond)->UseRealTime();
#ifdef QG_HAVE_EMBREE
BENCHMARK(BM_Embree_StrandsBodyAll)->Unit(benchmark::kMillisecond)->UseRealTime();
BENCHMARK(BM_Embree_StrandsBodyFirst)->Unit(benchmark::kMillisecond)->UseRealTime();
#endif

BENCHMARK_MAIN();

// Face hierarchy: build, refit, closest point, inside, all-hits and first-hit ray queries, side
// by side with CGAL's AABB_tree, FCL's BVHModel<AABB> and Embree 3 where they are available, and
// a plain memory copy of the bytes a refit touches.
//
// Meshes (first argument): 0 = cloth grid of 1,002,528 faces, 1 = icosphere of 327,680 faces,
// 2 = Stanford bunny (69,451 faces), 3 = spot (5,856 faces, closed; inside, ray and refit
// cases). The second argument of our build and refit cases is the multithreading switch (0 serial, 1 parallel with the KORV_THREAD_COUNT workers); Embree cases
// take their thread count from it the same way (1 or 2 threads). CGAL and FCL are serial.

#include <benchmark/benchmark.h>

#include <cfloat>
#include <cmath>
#include <cstring>
#include <map>
#include <memory>
#include <random>
#include <vector>

#include <quarrygeom/bvh/bvh.h>
#include <quarrygeom/core/tarnCollision.h>
#include <quarrygeom/mesh/mesh.h>
#include <quarrygeom/primitives/GmGeometry.h>

#include "bench_common.h"
#include "qgtools/data_dir.h"
#include "qgtools/mesh_io.h"
#include "qgtools/shapes.h"

#ifdef QG_HAVE_CGAL
#include <CGAL/AABB_face_graph_triangle_primitive.h>
#include <CGAL/AABB_traits.h>
#include <CGAL/AABB_tree.h>
#include <CGAL/Side_of_triangle_mesh.h>
#include <CGAL/Simple_cartesian.h>
#include <CGAL/Surface_mesh.h>
#endif
#ifdef QG_HAVE_EMBREE
#include <embree3/rtcore.h>
#endif
#ifdef QG_HAVE_FCL
#include <fcl/fcl.h>
#endif

namespace {

typedef GmTVector<double> V3;

// ---- Data ---------------------------------------------------------------------------------

struct Scene {
    GmTriangleMesh mesh;
    std::vector<V3> moved;             // every vertex displaced, for the refit cases
    std::vector<V3> points;            // closest-point and inside queries
    std::vector<std::pair<V3, V3>> rays;  // origin, direction
};

Scene makeScene(GmTriangleMesh mesh, unsigned seed) {
    Scene s;
    s.mesh = std::move(mesh);
    GmAxisAlignedBox b;
    for (const V3& v : s.mesh.getVertices()) b.expand(v);
    const V3 mn(b.minX, b.minY, b.minZ), mx(b.maxX, b.maxY, b.maxZ);
    const double diag = (mx - mn).length();
    std::mt19937 rng(seed);
    std::uniform_real_distribution<double> u(0.0, 1.0);
    std::normal_distribution<double> g;
    s.moved = s.mesh.getVertices();
    for (V3& v : s.moved) v += V3(g(rng), g(rng), g(rng)) * (diag * 1e-3);
    auto inBox = [&] {
        const double pad = 0.05 * diag;
        return V3(mn.x - pad + (mx.x - mn.x + 2 * pad) * u(rng), mn.y - pad + (mx.y - mn.y + 2 * pad) * u(rng),
                  mn.z - pad + (mx.z - mn.z + 2 * pad) * u(rng));
    };
    for (int i = 0; i < 4096; ++i) s.points.push_back(inBox());
    for (int i = 0; i < 1024; ++i) s.rays.emplace_back(inBox(), V3(g(rng), g(rng), g(rng)));
    return s;
}

Scene& scene(int which) {
    static std::map<int, std::unique_ptr<Scene>> scenes;
    std::unique_ptr<Scene>& s = scenes[which];
    if (!s) {
        if (which == 0)
            s.reset(new Scene(makeScene(qgtools::makeClothGrid(708, 708), 1)));
        else if (which == 1)
            s.reset(new Scene(makeScene(qgtools::makeIcosphere(7), 2)));
        else if (which == 2)
            s.reset(new Scene(makeScene(qgtools::loadObjMesh(qgtools::dataDir() + "/meshes/stanford-bunny.obj"), 3)));
        else
            s.reset(new Scene(makeScene(qgtools::loadObjMesh(qgtools::dataDir() + "/meshes/spot.obj"), 4)));
    }
    return *s;
}

const char* sceneName(int which) {
    return which == 0 ? "grid1M" : which == 1 ? "icosphere327k" : which == 2 ? "bunny69k" : "spot5.8k";
}

using qgbench::Threading;

void label(benchmark::State& state, int which, const char* what) {
    state.SetLabel(std::string(sceneName(which)) + " " + what);
}

// ---- Ours ---------------------------------------------------------------------------------

void BM_Ours_Build(benchmark::State& state) {
    Scene& s = scene(static_cast<int>(state.range(0)));
    Threading t(state.range(1) != 0);
    s.mesh.getFaceCenter(0);  // warm the mesh's face data once
    for (auto _ : state) {
        GmBoundingVolumeHierarchy h(&s.mesh);
        benchmark::DoNotOptimize(h.getRoot().box.minX);
    }
    label(state, static_cast<int>(state.range(0)), state.range(1) ? "parallel" : "serial");
}

void BM_Ours_Refit(benchmark::State& state) {
    Scene& s = scene(static_cast<int>(state.range(0)));
    Threading t(state.range(1) != 0);
    GmBoundingVolumeHierarchy h(&s.mesh);
    std::vector<V3> other = s.moved;
    for (auto _ : state) {
        s.mesh.swapVertices(other);  // move every vertex
        h.refit();
        benchmark::DoNotOptimize(h.getRoot().box.minX);
    }
    if (state.iterations() % 2) s.mesh.swapVertices(other);
    label(state, static_cast<int>(state.range(0)), state.range(1) ? "parallel" : "serial");
}

// Second argument 1: steady state, the searches' box copy made before the timed loop (its cost is
// BM_Ours_PointSearchPrepare); 0: a fresh hierarchy per run, the copy made when it pays, inside
// the timed loop.
void BM_Ours_ClosestPoint(benchmark::State& state) {
    Scene& s = scene(static_cast<int>(state.range(0)));
    GmBoundingVolumeHierarchy h(&s.mesh);
    if (state.range(1) != 0) h.preparePointSearches();
    for (auto _ : state) {
        double sum = 0.0;
        for (const V3& p : s.points) {
            V3 c, n;
            int face;
            double u, v;
            sum += h.findClosestPoint(p, c, n, face, u, v, nullptr, true);
        }
        benchmark::DoNotOptimize(sum);
    }
    state.SetItemsProcessed(state.iterations() * static_cast<int64_t>(s.points.size()));
    label(state, static_cast<int>(state.range(0)), state.range(1) ? "prepared" : "on demand");
}

// Making the searches' box copy: on a fresh hierarchy (second argument 0: the copy's storage is
// new) or after a refit (1: the storage is reused, as in a host's step). Build and refit are not
// timed.
void BM_Ours_PointSearchPrepare(benchmark::State& state) {
    Scene& s = scene(static_cast<int>(state.range(0)));
    std::unique_ptr<GmBoundingVolumeHierarchy> h(new GmBoundingVolumeHierarchy(&s.mesh));
    const bool afterRefit = state.range(1) != 0;
    bool prepared = false;
    for (auto _ : state) {
        state.PauseTiming();
        if (afterRefit)
            h->refit();
        else
            h.reset(new GmBoundingVolumeHierarchy(&s.mesh));
        state.ResumeTiming();
        prepared = h->preparePointSearches();
    }
    label(state, static_cast<int>(state.range(0)),
          (std::string(afterRefit ? "after refit" : "fresh") + (prepared ? "" : " refused")).c_str());
}

// Steady state: the ray-parity check is built before the timed loop (its cost is
// BM_Ours_InsidePrepare). The counter "inside" is the number of points found inside, to be
// compared with BM_CGAL_Inside's.
void BM_Ours_Inside(benchmark::State& state) {
    Scene& s = scene(static_cast<int>(state.range(0)));
    GmBoundingVolumeHierarchy h(&s.mesh);
    const bool prepared = h.prepareInsideQueries(true);
    int inside = 0;
    for (auto _ : state) {
        inside = 0;
        for (const V3& p : s.points) inside += h.isInsideMesh(p, true);
        benchmark::DoNotOptimize(inside);
    }
    state.counters["inside"] = inside;
    state.SetItemsProcessed(state.iterations() * static_cast<int64_t>(s.points.size()));
    label(state, static_cast<int>(state.range(0)), prepared ? "ray parity" : "closest point");
}

// The closest-point decision that isInsideMesh makes without the ray test: the signed distance
// of the search with the inside check (what isInsideMesh cost before the ray test).
void BM_Ours_InsideBySearch(benchmark::State& state) {
    Scene& s = scene(static_cast<int>(state.range(0)));
    GmBoundingVolumeHierarchy h(&s.mesh);
    int inside = 0;
    for (auto _ : state) {
        inside = 0;
        for (const V3& p : s.points) {
            V3 closest, normal;
            int face;
            bool pinched;
            inside += h.findClosestPoint(p, closest, face, normal, pinched, true, true) <= 0.0;
        }
        benchmark::DoNotOptimize(inside);
    }
    state.counters["inside"] = inside;
    state.SetItemsProcessed(state.iterations() * static_cast<int64_t>(s.points.size()));
    label(state, static_cast<int>(state.range(0)), "");
}

// Building the ray-parity check on a fresh hierarchy (the hierarchy build is not timed). The
// second argument is the multithreading switch, as for the build.
void BM_Ours_InsidePrepare(benchmark::State& state) {
    Scene& s = scene(static_cast<int>(state.range(0)));
    std::unique_ptr<GmBoundingVolumeHierarchy> h;
    Threading t(state.range(1) != 0);
    bool prepared = false;
    for (auto _ : state) {
        state.PauseTiming();
        h.reset(new GmBoundingVolumeHierarchy(&s.mesh));
        state.ResumeTiming();
        prepared = h->prepareInsideQueries(true);
    }
    label(state, static_cast<int>(state.range(0)),
          (std::string(state.range(1) ? "parallel " : "serial ") + (prepared ? "certified" : "refused")).c_str());
}

// The first round of queries on a fresh hierarchy: closest-point searches until they have cost
// about as much as the check, the check, then ray parity (the hierarchy build is not timed).
void BM_Ours_InsideFirstRound(benchmark::State& state) {
    Scene& s = scene(static_cast<int>(state.range(0)));
    std::unique_ptr<GmBoundingVolumeHierarchy> h;
    int inside = 0;
    for (auto _ : state) {
        state.PauseTiming();
        h.reset(new GmBoundingVolumeHierarchy(&s.mesh));
        state.ResumeTiming();
        inside = 0;
        for (const V3& p : s.points) inside += h->isInsideMesh(p, true);
        benchmark::DoNotOptimize(inside);
    }
    state.counters["inside"] = inside;
    state.SetItemsProcessed(state.iterations() * static_cast<int64_t>(s.points.size()));
    label(state, static_cast<int>(state.range(0)), h->insideQueriesPrepared(true) ? "checked" : "not checked");
}

// Second argument 1: the rays' wide copy made before the timed loop (its cost is
// BM_Ours_RayPrepare), as Embree's scene is committed before its loop; 0: a fresh hierarchy, the
// copy made once it pays, inside the timed loop. The counter "hits" is the number of records of
// one pass over the rays, to be compared with the peers'.
void BM_Ours_RayAllHits(benchmark::State& state) {
    Scene& s = scene(static_cast<int>(state.range(0)));
    std::unique_ptr<GmBoundingVolumeHierarchy> h(new GmBoundingVolumeHierarchy(&s.mesh));
    const bool prepared = state.range(1) != 0;
    if (prepared) h->prepareRayQueries();
    std::vector<GmPointIntersectionInfo> hits;
    size_t total = 0;
    for (auto _ : state) {
        if (!prepared) {
            state.PauseTiming();
            h.reset(new GmBoundingVolumeHierarchy(&s.mesh));
            state.ResumeTiming();
        }
        total = 0;
        for (const auto& r : s.rays) {
            h->intersect(GmRay(r.first, r.second), hits, false, true);
            total += hits.size();
        }
        benchmark::DoNotOptimize(total);
    }
    state.counters["hits"] = static_cast<double>(total);
    state.SetItemsProcessed(state.iterations() * static_cast<int64_t>(s.rays.size()));
    label(state, static_cast<int>(state.range(0)), prepared ? "prepared" : "on demand");
}

// Nearest hit per ray (the wide copy made before the loop). Counter "hits": rays that hit.
void BM_Ours_RayFirstHit(benchmark::State& state) {
    Scene& s = scene(static_cast<int>(state.range(0)));
    GmBoundingVolumeHierarchy h(&s.mesh);
    h.prepareRayQueries();
    size_t found = 0;
    for (auto _ : state) {
        found = 0;
        double sum = 0.0;
        for (const auto& r : s.rays) {
            GmPointIntersectionInfo hit;
            double t;
            if (h.intersectFirst(GmRay(r.first, r.second), hit, t, true)) {
                ++found;
                sum += t;
            }
        }
        benchmark::DoNotOptimize(sum);
    }
    state.counters["hits"] = static_cast<double>(found);
    state.SetItemsProcessed(state.iterations() * static_cast<int64_t>(s.rays.size()));
    label(state, static_cast<int>(state.range(0)), "");
}

// Making the rays' wide copy: on a fresh hierarchy (second argument 0) or after a refit (1: the
// shape is kept and only the boxes are copied). Build and refit are not timed.
void BM_Ours_RayPrepare(benchmark::State& state) {
    Scene& s = scene(static_cast<int>(state.range(0)));
    std::unique_ptr<GmBoundingVolumeHierarchy> h(new GmBoundingVolumeHierarchy(&s.mesh));
    h->prepareRayQueries();
    const bool afterRefit = state.range(1) != 0;
    bool prepared = false;
    for (auto _ : state) {
        state.PauseTiming();
        if (afterRefit)
            h->refit();
        else
            h.reset(new GmBoundingVolumeHierarchy(&s.mesh));
        state.ResumeTiming();
        prepared = h->prepareRayQueries();
    }
    label(state, static_cast<int>(state.range(0)),
          (std::string(afterRefit ? "after refit" : "fresh") + (prepared ? "" : " refused")).c_str());
}

// A plain copy of as many bytes as a plain refit reads and writes at the least: the vertex
// positions and the leaf table read, the node array read and written.
void BM_Memcpy_RefitBytes(benchmark::State& state) {
    Scene& s = scene(static_cast<int>(state.range(0)));
    const size_t faces = static_cast<size_t>(s.mesh.getNumberFaces());
    const size_t bytes = s.mesh.getVertices().size() * sizeof(V3) +
                         faces * sizeof(GmBoundingVolumeHierarchy::LeafFace) +
                         (2 * faces - 1) * sizeof(GmBoundingVolumeHierarchy::Node);
    std::vector<char> from(bytes, 1), to(bytes, 2);
    for (auto _ : state) {
        std::memcpy(to.data(), from.data(), bytes);
        benchmark::ClobberMemory();
    }
    state.counters["MB"] = static_cast<double>(bytes) / 1e6;
    state.SetBytesProcessed(state.iterations() * static_cast<int64_t>(bytes));
    label(state, static_cast<int>(state.range(0)), "");
}

// ---- CGAL ---------------------------------------------------------------------------------

#ifdef QG_HAVE_CGAL
typedef CGAL::Simple_cartesian<double> K;
typedef CGAL::Surface_mesh<K::Point_3> SurfaceMesh;
typedef CGAL::AABB_face_graph_triangle_primitive<SurfaceMesh> Primitive;
typedef CGAL::AABB_traits<K, Primitive> Traits;
typedef CGAL::AABB_tree<Traits> CgalTree;

SurfaceMesh& cgalMesh(int which) {
    static std::map<int, std::unique_ptr<SurfaceMesh>> meshes;
    std::unique_ptr<SurfaceMesh>& m = meshes[which];
    if (!m) {
        m.reset(new SurfaceMesh());
        const GmTriangleMesh& mesh = scene(which).mesh;
        std::vector<SurfaceMesh::Vertex_index> vi;
        for (const V3& v : mesh.getVertices()) vi.push_back(m->add_vertex(K::Point_3(v.x, v.y, v.z)));
        for (const GmTriangleFace& f : mesh.getFaces())
            m->add_face(vi[static_cast<size_t>(f.vertices[0])], vi[static_cast<size_t>(f.vertices[1])],
                        vi[static_cast<size_t>(f.vertices[2])]);
    }
    return *m;
}

CgalTree& cgalTree(int which) {
    static std::map<int, std::unique_ptr<CgalTree>> trees;
    std::unique_ptr<CgalTree>& t = trees[which];
    if (!t) {
        SurfaceMesh& m = cgalMesh(which);
        t.reset(new CgalTree(faces(m).first, faces(m).second, m));
        t->build();
        t->accelerate_distance_queries();
        t->closest_point(K::Point_3(0, 0, 0));  // builds the search structure
    }
    return *t;
}

void BM_CGAL_Build(benchmark::State& state) {
    const int which = static_cast<int>(state.range(0));
    SurfaceMesh& m = cgalMesh(which);
    for (auto _ : state) {
        CgalTree tree(faces(m).first, faces(m).second, m);
        tree.build();
        benchmark::DoNotOptimize(tree.bbox());
    }
    label(state, which, "serial");
}

void BM_CGAL_ClosestPoint(benchmark::State& state) {
    const int which = static_cast<int>(state.range(0));
    CgalTree& tree = cgalTree(which);
    const Scene& s = scene(which);
    for (auto _ : state) {
        double sum = 0.0;
        for (const V3& p : s.points) sum += tree.closest_point(K::Point_3(p.x, p.y, p.z)).x();
        benchmark::DoNotOptimize(sum);
    }
    state.SetItemsProcessed(state.iterations() * static_cast<int64_t>(s.points.size()));
    label(state, which, "");
}

void BM_CGAL_Inside(benchmark::State& state) {
    const int which = static_cast<int>(state.range(0));
    SurfaceMesh& m = cgalMesh(which);
    const Scene& s = scene(which);
    CGAL::Side_of_triangle_mesh<SurfaceMesh, K> side(m);
    side(K::Point_3(0, 0, 0));  // builds its tree
    int inside = 0;
    for (auto _ : state) {
        inside = 0;
        for (const V3& p : s.points) inside += side(K::Point_3(p.x, p.y, p.z)) != CGAL::ON_UNBOUNDED_SIDE;
        benchmark::DoNotOptimize(inside);
    }
    state.counters["inside"] = inside;
    state.SetItemsProcessed(state.iterations() * static_cast<int64_t>(s.points.size()));
    label(state, which, "");
}

void BM_CGAL_RayAllHits(benchmark::State& state) {
    const int which = static_cast<int>(state.range(0));
    CgalTree& tree = cgalTree(which);
    const Scene& s = scene(which);
    typedef boost::optional<CgalTree::Intersection_and_primitive_id<K::Ray_3>::Type> Hit;
    std::vector<Hit> hits;
    for (auto _ : state) {
        size_t total = 0;
        for (const auto& r : s.rays) {
            hits.clear();
            const K::Point_3 o(r.first.x, r.first.y, r.first.z);
            tree.all_intersections(K::Ray_3(o, K::Vector_3(r.second.x, r.second.y, r.second.z)),
                                   std::back_inserter(hits));
            total += hits.size();
        }
        benchmark::DoNotOptimize(total);
    }
    state.SetItemsProcessed(state.iterations() * static_cast<int64_t>(s.rays.size()));
    label(state, which, "");
}
#endif

// ---- FCL ----------------------------------------------------------------------------------

#ifdef QG_HAVE_FCL
void fclInput(const GmTriangleMesh& mesh, const std::vector<V3>& positions, std::vector<fcl::Vector3d>& verts,
              std::vector<fcl::Triangle>& tris) {
    verts.clear();
    for (const V3& v : positions) verts.emplace_back(v.x, v.y, v.z);
    tris.clear();
    for (const GmTriangleFace& f : mesh.getFaces())
        tris.emplace_back(static_cast<size_t>(f.vertices[0]), static_cast<size_t>(f.vertices[1]),
                          static_cast<size_t>(f.vertices[2]));
}

void BM_FCL_Build(benchmark::State& state) {
    const int which = static_cast<int>(state.range(0));
    const Scene& s = scene(which);
    std::vector<fcl::Vector3d> verts;
    std::vector<fcl::Triangle> tris;
    fclInput(s.mesh, s.mesh.getVertices(), verts, tris);
    for (auto _ : state) {
        fcl::BVHModel<fcl::AABBd> model;
        model.beginModel(static_cast<int>(tris.size()), static_cast<int>(verts.size()));
        model.addSubModel(verts, tris);
        model.endModel();
        benchmark::DoNotOptimize(model.getNumBVs());
    }
    label(state, which, "serial");
}

void BM_FCL_Refit(benchmark::State& state) {
    const int which = static_cast<int>(state.range(0));
    const Scene& s = scene(which);
    std::vector<fcl::Vector3d> verts, moved;
    std::vector<fcl::Triangle> tris;
    fclInput(s.mesh, s.moved, moved, tris);
    fclInput(s.mesh, s.mesh.getVertices(), verts, tris);
    fcl::BVHModel<fcl::AABBd> model;
    model.beginModel(static_cast<int>(tris.size()), static_cast<int>(verts.size()));
    model.addSubModel(verts, tris);
    model.endModel();
    bool flip = false;
    for (auto _ : state) {
        model.beginUpdateModel();
        model.updateSubModel(flip ? verts : moved);
        model.endUpdateModel(true, true);
        flip = !flip;
        benchmark::DoNotOptimize(model.getNumBVs());
    }
    label(state, which, "serial");
}
#endif

// ---- Embree -------------------------------------------------------------------------------

#ifdef QG_HAVE_EMBREE
struct EmbreeScene {
    RTCDevice device = nullptr;
    RTCScene scene = nullptr;
    RTCGeometry geometry = nullptr;
    float* vertices = nullptr;

    EmbreeScene(const GmTriangleMesh& mesh, int threads, RTCBuildQuality quality,
                RTCFilterFunctionN filter = nullptr) {
        device = qgbench::embreeDevice(threads);
        scene = rtcNewScene(device);
        rtcSetSceneBuildQuality(scene, RTC_BUILD_QUALITY_MEDIUM);
        if (quality == RTC_BUILD_QUALITY_REFIT) rtcSetSceneFlags(scene, RTC_SCENE_FLAG_DYNAMIC);
        geometry = rtcNewGeometry(device, RTC_GEOMETRY_TYPE_TRIANGLE);
        vertices = static_cast<float*>(rtcSetNewGeometryBuffer(geometry, RTC_BUFFER_TYPE_VERTEX, 0, RTC_FORMAT_FLOAT3,
                                                               3 * sizeof(float), mesh.getNumberVertices()));
        setVertices(mesh.getVertices());
        unsigned* idx = static_cast<unsigned*>(rtcSetNewGeometryBuffer(
            geometry, RTC_BUFFER_TYPE_INDEX, 0, RTC_FORMAT_UINT3, 3 * sizeof(unsigned), mesh.getNumberFaces()));
        for (const GmTriangleFace& f : mesh.getFaces())
            for (int k = 0; k < 3; ++k) *idx++ = static_cast<unsigned>(f.vertices[k]);
        rtcSetGeometryBuildQuality(geometry, quality);
        if (filter != nullptr) rtcSetGeometryIntersectFilterFunction(geometry, filter);
        rtcCommitGeometry(geometry);
        rtcAttachGeometry(scene, geometry);
    }
    void setVertices(const std::vector<V3>& v) {
        for (size_t i = 0; i < v.size(); ++i) {
            vertices[3 * i] = static_cast<float>(v[i].x);
            vertices[3 * i + 1] = static_cast<float>(v[i].y);
            vertices[3 * i + 2] = static_cast<float>(v[i].z);
        }
    }
    ~EmbreeScene() {
        rtcReleaseGeometry(geometry);
        rtcReleaseScene(scene);
    }
};

void BM_Embree_Build(benchmark::State& state) {
    const int which = static_cast<int>(state.range(0));
    const Scene& s = scene(which);
    const int threads = state.range(1) ? 2 : 1;
    for (auto _ : state) {
        EmbreeScene e(s.mesh, threads, RTC_BUILD_QUALITY_MEDIUM);
        rtcCommitScene(e.scene);
        benchmark::DoNotOptimize(e.scene);
    }
    label(state, which, state.range(1) ? "2 threads" : "1 thread");
}

void BM_Embree_Refit(benchmark::State& state) {
    const int which = static_cast<int>(state.range(0));
    const Scene& s = scene(which);
    EmbreeScene e(s.mesh, state.range(1) ? 2 : 1, RTC_BUILD_QUALITY_REFIT);
    rtcCommitScene(e.scene);
    bool flip = false;
    for (auto _ : state) {
        e.setVertices(flip ? s.mesh.getVertices() : s.moved);
        rtcUpdateGeometryBuffer(e.geometry, RTC_BUFFER_TYPE_VERTEX, 0);
        rtcCommitGeometry(e.geometry);
        rtcCommitScene(e.scene);
        flip = !flip;
    }
    label(state, which, state.range(1) ? "2 threads" : "1 thread");
}

// Every hit of a ray through a filter callback that records the hit and rejects it, so that
// the traversal goes on; the first hit by a plain rtcIntersect1.
struct EmbreeHit {
    unsigned face;
    float t, u, v;
};
struct RecordingContext {
    RTCIntersectContext context;  // first member: the callback casts back
    std::vector<EmbreeHit>* hits;
};

void recordEveryHit(const RTCFilterFunctionNArguments* args) {
    const RecordingContext* c = reinterpret_cast<const RecordingContext*>(args->context);
    c->hits->push_back(EmbreeHit{RTCHitN_primID(args->hit, args->N, 0), RTCRayN_tfar(args->ray, args->N, 0),
                                 RTCHitN_u(args->hit, args->N, 0), RTCHitN_v(args->hit, args->N, 0)});
    args->valid[0] = 0;
}

RTCRayHit embreeRay(const std::pair<V3, V3>& r) {
    RTCRayHit rh;
    rh.ray.org_x = static_cast<float>(r.first.x);
    rh.ray.org_y = static_cast<float>(r.first.y);
    rh.ray.org_z = static_cast<float>(r.first.z);
    rh.ray.dir_x = static_cast<float>(r.second.x);
    rh.ray.dir_y = static_cast<float>(r.second.y);
    rh.ray.dir_z = static_cast<float>(r.second.z);
    rh.ray.tnear = 0.0f;
    rh.ray.tfar = std::numeric_limits<float>::infinity();
    rh.ray.time = 0.0f;
    rh.ray.mask = 0xffffffffu;
    rh.ray.id = 0;
    rh.ray.flags = 0;
    rh.hit.geomID = RTC_INVALID_GEOMETRY_ID;
    rh.hit.primID = RTC_INVALID_GEOMETRY_ID;
    rh.hit.instID[0] = RTC_INVALID_GEOMETRY_ID;
    return rh;
}

void BM_Embree_RayAllHits(benchmark::State& state) {
    const int which = static_cast<int>(state.range(0));
    const Scene& s = scene(which);
    EmbreeScene e(s.mesh, 1, RTC_BUILD_QUALITY_MEDIUM, &recordEveryHit);
    rtcCommitScene(e.scene);
    std::vector<EmbreeHit> hits;
    size_t total = 0;
    for (auto _ : state) {
        total = 0;
        for (const auto& r : s.rays) {
            hits.clear();
            RecordingContext c;
            rtcInitIntersectContext(&c.context);
            c.hits = &hits;
            RTCRayHit rh = embreeRay(r);
            rtcIntersect1(e.scene, &c.context, &rh);
            total += hits.size();
        }
        benchmark::DoNotOptimize(total);
    }
    state.counters["hits"] = static_cast<double>(total);
    state.SetItemsProcessed(state.iterations() * static_cast<int64_t>(s.rays.size()));
    label(state, which, "");
}

void BM_Embree_RayFirstHit(benchmark::State& state) {
    const int which = static_cast<int>(state.range(0));
    const Scene& s = scene(which);
    EmbreeScene e(s.mesh, 1, RTC_BUILD_QUALITY_MEDIUM);
    rtcCommitScene(e.scene);
    size_t found = 0;
    for (auto _ : state) {
        found = 0;
        double sum = 0.0;
        for (const auto& r : s.rays) {
            RTCIntersectContext c;
            rtcInitIntersectContext(&c);
            RTCRayHit rh = embreeRay(r);
            rtcIntersect1(e.scene, &c, &rh);
            if (rh.hit.geomID != RTC_INVALID_GEOMETRY_ID) {
                ++found;
                sum += rh.ray.tfar;
            }
        }
        benchmark::DoNotOptimize(sum);
    }
    state.counters["hits"] = static_cast<double>(found);
    state.SetItemsProcessed(state.iterations() * static_cast<int64_t>(s.rays.size()));
    label(state, which, "");
}

struct PointQueryData {
    const GmTriangleMesh* mesh;
    double best;
};

bool closestCallback(RTCPointQueryFunctionArguments* args) {
    PointQueryData* d = static_cast<PointQueryData*>(args->userPtr);
    const int f = static_cast<int>(args->primID);
    const V3 p(args->query->x, args->query->y, args->query->z);
    double s, t;
    const double d2 = GmGeometry::closestParametricPointOnTriangle(p, d->mesh->getFaceVertex1(f),
                                                                   d->mesh->getFaceVertex2(f),
                                                                   d->mesh->getFaceVertex3(f), s, t);
    const double dist = std::sqrt(d2);
    if (dist < args->query->radius) {
        args->query->radius = static_cast<float>(dist);
        d->best = dist;
        return true;
    }
    return false;
}

void BM_Embree_ClosestPoint(benchmark::State& state) {
    const int which = static_cast<int>(state.range(0));
    const Scene& s = scene(which);
    EmbreeScene e(s.mesh, 1, RTC_BUILD_QUALITY_MEDIUM);
    rtcCommitScene(e.scene);
    for (auto _ : state) {
        double sum = 0.0;
        for (const V3& p : s.points) {
            RTCPointQuery q;
            q.x = static_cast<float>(p.x);
            q.y = static_cast<float>(p.y);
            q.z = static_cast<float>(p.z);
            q.time = 0.0f;
            q.radius = std::numeric_limits<float>::infinity();
            RTCPointQueryContext ctx;
            rtcInitPointQueryContext(&ctx);
            PointQueryData data{&s.mesh, DBL_MAX};
            rtcPointQuery(e.scene, &q, &ctx, closestCallback, &data);
            sum += data.best;
        }
        benchmark::DoNotOptimize(sum);
    }
    state.SetItemsProcessed(state.iterations() * static_cast<int64_t>(s.points.size()));
    label(state, which, "");
}
#endif

// ---- Registration -------------------------------------------------------------------------

void buildArgs(benchmark::internal::Benchmark* b) {
    for (int m = 0; m < 3; ++m)
        for (int par = 0; par < 2; ++par) b->Args({m, par});
    b->Unit(benchmark::kMillisecond)->Iterations(3)->UseRealTime();
}
void serialBuildArgs(benchmark::internal::Benchmark* b) {
    for (int m = 0; m < 3; ++m) b->Args({m, 0});
    b->Unit(benchmark::kMillisecond)->Iterations(3)->UseRealTime();
}
void refitArgs(benchmark::internal::Benchmark* b) {
    for (int m = 0; m < 4; ++m)
        for (int par = 0; par < 2; ++par) b->Args({m, par});
    b->Unit(benchmark::kMillisecond)->MinTime(0.3)->UseRealTime();
}
void queryArgs(benchmark::internal::Benchmark* b) {
    for (int m = 0; m < 3; ++m) b->Args({m});
    b->Unit(benchmark::kMillisecond)->MinTime(0.3);
}
// Ray cases: all four meshes (spot included), one thread, wall-clock.
void rayArgs(benchmark::internal::Benchmark* b) {
    for (int m = 0; m < 4; ++m) b->Args({m});
    b->Unit(benchmark::kMillisecond)->MinTime(0.3)->UseRealTime();
}
void closedArgs(benchmark::internal::Benchmark* b) {
    b->Args({1});  // the closed meshes: icosphere and spot
    b->Args({3});
    b->Unit(benchmark::kMillisecond)->MinTime(0.3);
}

}  // namespace

BENCHMARK(BM_Ours_Build)->Apply(buildArgs);
BENCHMARK(BM_Ours_Refit)->Apply(refitArgs);
BENCHMARK(BM_Ours_ClosestPoint)->Apply([](benchmark::internal::Benchmark* b) {
    for (int m = 0; m < 3; ++m)
        for (int prepared = 1; prepared >= 0; --prepared) b->Args({m, prepared});
    b->Unit(benchmark::kMillisecond)->MinTime(0.3);
});
BENCHMARK(BM_Ours_PointSearchPrepare)->Apply([](benchmark::internal::Benchmark* b) {
    for (int m = 0; m < 3; ++m)
        for (int afterRefit = 0; afterRefit < 2; ++afterRefit) b->Args({m, afterRefit});
    b->Unit(benchmark::kMillisecond)->Iterations(5)->UseRealTime();
});
BENCHMARK(BM_Ours_Inside)->Apply(closedArgs);
BENCHMARK(BM_Ours_InsideBySearch)->Apply(closedArgs);
BENCHMARK(BM_Ours_InsidePrepare)->Apply([](benchmark::internal::Benchmark* b) {
    for (int m : {1, 3})
        for (int t = 0; t < 2; ++t) b->Args({m, t});
    b->Unit(benchmark::kMillisecond)->MinTime(0.3)->UseRealTime();
});
BENCHMARK(BM_Ours_InsideFirstRound)->Apply(closedArgs);
BENCHMARK(BM_Ours_RayAllHits)->Apply([](benchmark::internal::Benchmark* b) {
    for (int m = 0; m < 4; ++m)
        for (int prepared = 1; prepared >= 0; --prepared) b->Args({m, prepared});
    b->Unit(benchmark::kMillisecond)->MinTime(0.3)->UseRealTime();
});
BENCHMARK(BM_Ours_RayFirstHit)->Apply(rayArgs);
BENCHMARK(BM_Ours_RayPrepare)->Apply([](benchmark::internal::Benchmark* b) {
    for (int m = 0; m < 4; ++m)
        for (int afterRefit = 0; afterRefit < 2; ++afterRefit) b->Args({m, afterRefit});
    b->Unit(benchmark::kMillisecond)->Iterations(5)->UseRealTime();
});
BENCHMARK(BM_Memcpy_RefitBytes)->Apply([](benchmark::internal::Benchmark* b) {
    for (int m = 0; m < 4; ++m) b->Args({m});
    b->Unit(benchmark::kMillisecond)->MinTime(0.3)->UseRealTime();
});
#ifdef QG_HAVE_CGAL
BENCHMARK(BM_CGAL_Build)->Apply(serialBuildArgs);
BENCHMARK(BM_CGAL_ClosestPoint)->Apply(queryArgs);
BENCHMARK(BM_CGAL_Inside)->Apply(closedArgs);
BENCHMARK(BM_CGAL_RayAllHits)->Apply(queryArgs);
#endif
#ifdef QG_HAVE_FCL
BENCHMARK(BM_FCL_Build)->Apply(serialBuildArgs);
BENCHMARK(BM_FCL_Refit)->Apply([](benchmark::internal::Benchmark* b) {
    for (int m = 0; m < 3; ++m) b->Args({m, 0});
    b->Unit(benchmark::kMillisecond)->MinTime(0.3)->UseRealTime();
});
#endif
#ifdef QG_HAVE_EMBREE
BENCHMARK(BM_Embree_Build)->Apply(buildArgs);
BENCHMARK(BM_Embree_Refit)->Apply(refitArgs);
BENCHMARK(BM_Embree_ClosestPoint)->Apply(queryArgs);
BENCHMARK(BM_Embree_RayAllHits)->Apply(rayArgs);
BENCHMARK(BM_Embree_RayFirstHit)->Apply(rayArgs);
#endif

BENCHMARK_MAIN();

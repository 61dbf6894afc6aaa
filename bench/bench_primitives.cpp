// Throughput of the single-triangle tests and the orientation predicates.
// Inputs are generated before timing; each iteration processes one input of a fixed pool.

#include <benchmark/benchmark.h>

#include <cmath>
#include <random>
#include <vector>

#include <quarrygeom/primitives/GmGeometry.h>
#include <quarrygeom/primitives/GmPredicates.h>

#ifdef QG_HAVE_CGAL
#include <CGAL/Exact_predicates_inexact_constructions_kernel.h>
#endif

namespace {

using V = GmTVector<double>;
constexpr std::size_t kPool = 4096;  // power of two, fits in L2 with room to spare

V randomPoint(std::mt19937_64& rng, double r) {
    std::uniform_real_distribution<double> u(-r, r);
    return V(u(rng), u(rng), u(rng));
}

struct Tri {
    V p, v0, v1, v2;
};

const std::vector<Tri>& closestPointInputs() {
    static const std::vector<Tri> inputs = [] {
        std::mt19937_64 rng(1);
        std::vector<Tri> v(kPool);
        for (Tri& t : v) t = Tri{randomPoint(rng, 2), randomPoint(rng, 1), randomPoint(rng, 1), randomPoint(rng, 1)};
        return v;
    }();
    return inputs;
}

void BM_ClosestPointOnTriangle(benchmark::State& state) {
    const std::vector<Tri>& in = closestPointInputs();
    std::size_t i = 0;
    for (auto _ : state) {
        const Tri& t = in[i++ & (kPool - 1)];
        double s, u;
        const double d2 = GmGeometry::closestParametricPointOnTriangle(t.p, t.v0, t.v1, t.v2, s, u);
        benchmark::DoNotOptimize(d2);
        benchmark::DoNotOptimize(s);
        benchmark::DoNotOptimize(u);
    }
    state.SetItemsProcessed(state.iterations());
}
BENCHMARK(BM_ClosestPointOnTriangle);

// Zero-area and sliver triangles: the region solution is checked against the three edges.
const std::vector<Tri>& sliverInputs() {
    static const std::vector<Tri> inputs = [] {
        std::mt19937_64 rng(5);
        std::vector<Tri> v(kPool);
        for (Tri& t : v) {
            const V a = randomPoint(rng, 1), b = randomPoint(rng, 1);
            t = Tri{randomPoint(rng, 2), a, b, a + (b - a) * 0.3 + randomPoint(rng, 1e-12)};
        }
        return v;
    }();
    return inputs;
}

void BM_ClosestPointOnSliver(benchmark::State& state) {
    const std::vector<Tri>& in = sliverInputs();
    std::size_t i = 0;
    for (auto _ : state) {
        const Tri& t = in[i++ & (kPool - 1)];
        double s, u;
        const double d2 = GmGeometry::closestParametricPointOnTriangle(t.p, t.v0, t.v1, t.v2, s, u);
        benchmark::DoNotOptimize(d2);
        benchmark::DoNotOptimize(s);
        benchmark::DoNotOptimize(u);
    }
    state.SetItemsProcessed(state.iterations());
}
BENCHMARK(BM_ClosestPointOnSliver);

struct RayTri {
    V origin, dir, v0, v1, v2;
};

// About half of the rays hit their triangle.
const std::vector<RayTri>& rayTriInputs() {
    static const std::vector<RayTri> inputs = [] {
        std::mt19937_64 rng(2);
        std::uniform_real_distribution<double> u(0, 1);
        std::vector<RayTri> v(kPool);
        for (RayTri& r : v) {
            r.v0 = randomPoint(rng, 1);
            r.v1 = randomPoint(rng, 1);
            r.v2 = randomPoint(rng, 1);
            const double a = u(rng), b = u(rng);
            const V target = r.v0 + (r.v1 - r.v0) * a + (r.v2 - r.v0) * b;
            r.origin = randomPoint(rng, 3);
            r.dir = target - r.origin;
        }
        return v;
    }();
    return inputs;
}

void BM_IntersectRayTri(benchmark::State& state) {
    const std::vector<RayTri>& in = rayTriInputs();
    std::size_t i = 0;
    for (auto _ : state) {
        const RayTri& r = in[i++ & (kPool - 1)];
        V point;
        double t, u, v;
        const bool hit = GmGeometry::intersectRayTri(r.origin, r.dir, r.v0, r.v1, r.v2, point, t, u, v);
        benchmark::DoNotOptimize(hit);
        benchmark::DoNotOptimize(point);
    }
    state.SetItemsProcessed(state.iterations());
}
BENCHMARK(BM_IntersectRayTri);

struct RayBox {
    GmRay ray;
    GmAxisAlignedBox box;
};

// Rays from a shell around the unit cube towards random points, boxes of varied size; about
// a third of the pairs meet.
const std::vector<RayBox>& rayBoxInputs() {
    static const std::vector<RayBox> inputs = [] {
        std::mt19937_64 rng(3);
        std::uniform_real_distribution<float> uf(-1.0f, 1.0f), ext(0.05f, 0.6f);
        std::vector<RayBox> v(kPool);
        for (RayBox& rb : v) {
            const float cx = uf(rng), cy = uf(rng), cz = uf(rng), e = ext(rng);
            rb.box = GmAxisAlignedBox(cx - e, cy - e, cz - e, cx + e, cy + e, cz + e);
            const V o = randomPoint(rng, 4);
            rb.ray = GmRay(o, randomPoint(rng, 1) - o);
        }
        return v;
    }();
    return inputs;
}

void BM_IntersectRayBox(benchmark::State& state) {
    const std::vector<RayBox>& in = rayBoxInputs();
    std::size_t i = 0;
    for (auto _ : state) {
        const RayBox& rb = in[i++ & (kPool - 1)];
        benchmark::DoNotOptimize(GmGeometry::intersectRayBox(rb.box, rb.ray));
    }
    state.SetItemsProcessed(state.iterations());
}
BENCHMARK(BM_IntersectRayBox);

struct Quad {
    double a[3], b[3], c[3], d[3];
};

enum class Orient3dInput { kRandom, kNearlyCoplanar, kExactlyCoplanar };

// kRandom: the fast stage decides. kNearlyCoplanar: the fourth point is rounded onto the plane,
// the adaptive stages decide. kExactlyCoplanar: points (x, y, x + y) at different binary scales,
// so the coordinate differences round and only the exact stage can return zero.
std::vector<Quad> makeOrient3dInputs(Orient3dInput kind) {
    std::mt19937_64 rng(4 + static_cast<int>(kind));
    std::uniform_real_distribution<double> u(-1, 1);
    std::uniform_int_distribution<long long> mant(1 << 19, (1 << 20) - 1);
    std::uniform_int_distribution<int> expo(-40, 0);
    std::vector<Quad> v(kPool);
    for (Quad& q : v) {
        double* pts[4] = {q.a, q.b, q.c, q.d};
        switch (kind) {
            case Orient3dInput::kRandom:
                for (double* p : pts)
                    for (int j = 0; j < 3; ++j) p[j] = u(rng);
                break;
            case Orient3dInput::kNearlyCoplanar: {
                for (int k = 0; k < 3; ++k)
                    for (int j = 0; j < 3; ++j) pts[k][j] = u(rng);
                const double s = u(rng), t = u(rng);
                for (int j = 0; j < 3; ++j) q.d[j] = q.a[j] + s * (q.b[j] - q.a[j]) + t * (q.c[j] - q.a[j]);
                break;
            }
            case Orient3dInput::kExactlyCoplanar:
                for (double* p : pts) {
                    const int e = expo(rng);
                    p[0] = std::ldexp(double(mant(rng)), e);
                    p[1] = std::ldexp(double(mant(rng)), e);
                    p[2] = p[0] + p[1];
                }
                break;
        }
    }
    return v;
}

void BM_Orient3d(benchmark::State& state, Orient3dInput kind) {
    const std::vector<Quad> in = makeOrient3dInputs(kind);
    std::size_t i = 0;
    for (auto _ : state) {
        const Quad& q = in[i++ & (kPool - 1)];
        benchmark::DoNotOptimize(GmPredicates::orient3d(q.a, q.b, q.c, q.d));
    }
    state.SetItemsProcessed(state.iterations());
}
BENCHMARK_CAPTURE(BM_Orient3d, random_fast_stage, Orient3dInput::kRandom);
BENCHMARK_CAPTURE(BM_Orient3d, nearly_coplanar_adaptive, Orient3dInput::kNearlyCoplanar);
BENCHMARK_CAPTURE(BM_Orient3d, exactly_coplanar_exact_stage, Orient3dInput::kExactlyCoplanar);

void BM_Orient2d(benchmark::State& state, Orient3dInput kind) {
    const std::vector<Quad> in = makeOrient3dInputs(kind);
    std::size_t i = 0;
    for (auto _ : state) {
        const Quad& q = in[i++ & (kPool - 1)];
        benchmark::DoNotOptimize(GmPredicates::orient2d(q.a, q.b, q.d));
    }
    state.SetItemsProcessed(state.iterations());
}
BENCHMARK_CAPTURE(BM_Orient2d, random_fast_stage, Orient3dInput::kRandom);

#ifdef QG_HAVE_CGAL
// Peer: CGAL's filtered exact orientation on the same inputs.
void BM_CgalOrientation(benchmark::State& state, Orient3dInput kind) {
    using K = CGAL::Exact_predicates_inexact_constructions_kernel;
    const std::vector<Quad> raw = makeOrient3dInputs(kind);
    std::vector<K::Point_3> pts;
    pts.reserve(4 * raw.size());
    for (const Quad& q : raw) {
        pts.emplace_back(q.a[0], q.a[1], q.a[2]);
        pts.emplace_back(q.b[0], q.b[1], q.b[2]);
        pts.emplace_back(q.c[0], q.c[1], q.c[2]);
        pts.emplace_back(q.d[0], q.d[1], q.d[2]);
    }
    std::size_t i = 0;
    for (auto _ : state) {
        const std::size_t k = 4 * (i++ & (kPool - 1));
        benchmark::DoNotOptimize(CGAL::orientation(pts[k], pts[k + 1], pts[k + 2], pts[k + 3]));
    }
    state.SetItemsProcessed(state.iterations());
}
BENCHMARK_CAPTURE(BM_CgalOrientation, random_fast_stage, Orient3dInput::kRandom);
BENCHMARK_CAPTURE(BM_CgalOrientation, nearly_coplanar_adaptive, Orient3dInput::kNearlyCoplanar);
BENCHMARK_CAPTURE(BM_CgalOrientation, exactly_coplanar_exact_stage, Orient3dInput::kExactlyCoplanar);
#endif

}  // namespace

BENCHMARK_MAIN();

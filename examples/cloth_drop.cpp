// cloth_drop: a host simulation on top of QuarryGeom.
//
// A square cloth falls onto a body (a sphere, or the Stanford bunny), drapes over it and folds
// onto itself as it hangs. The dynamics are deliberately simple (position-based: gravity, edge
// and bending length constraints, an analytic sphere as a first guess for sliding). What keeps
// the cloth from passing through itself and through the body is the library:
//
//   each step   refit the swept hierarchies of the motion from the current to the proposed
//               positions, ask for every continuous-time contact of the cloth with itself
//               (continuousTimeSelfIntersect) and with the body (continuousTimeIntersect), and
//               stop the vertices of each contact before the time of impact; repeat until no
//               contact is left;
//   at the end  a static selfIntersect of the final cloth must find no intersecting pair, and
//               no cloth vertex may lie inside the body (isInsideMesh).
//
// Usage: cloth_drop [--size N] [--steps S] [--body sphere|bunny|pinched] [--frames DIR] [--every K]
//   --size N     cloth of N x N quads (default 128)
//   --steps S    time steps of 1/200 s (default 200)
//   --body       what the cloth falls on (default sphere); pinched: two overlapping spheres
//                merged into one mesh that intersects itself, classified once
//                (SelfIntersectionInfo) and queried with that classification
//   --frames DIR write the cloth as OBJ every K steps (default 10) and the body once
//   --png DIR    write a picture of the scene (PNG) every K steps
//   --level L    draw the boxes of level L of the cloth's hierarchy on the pictures
//   --contacts   colour the cloth's vertices in contacts of the step on the pictures
//   --final FILE picture of the final state (default cloth_drop_final.png in the build folder)

#include <algorithm>
#include <chrono>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <iostream>
#include <string>
#include <vector>

#include <quarrygeom/quarrygeom.h>

#include "qgtools/data_dir.h"
#include "qgtools/mesh_io.h"
#include "qgtools/pinch_scenes.h"
#include "qgtools/shapes.h"
#include "qgrender/scene_renderer.h"

using Vec = GmTVector<double>;
using Positions = std::vector<Vec>;
using Clock = std::chrono::steady_clock;

namespace {

// ---- Scene parameters -----------------------------------------------------------------------

constexpr double kDt = 1.0 / 200.0;
const Vec kGravity(0.0, 0.0, -9.81);
constexpr double kSphereRadius = 0.5;
constexpr double kClothSize = 2.4;       // side of the square cloth
constexpr double kClothHeight = 0.62;    // where it starts, flat
constexpr double kGap = 2e-3;            // distance kept from the analytic sphere
constexpr int kConstraintIterations = 20;
constexpr double kDamping = 0.995;
constexpr int kPartialRewinds = 4;       // contact rounds before vertices are stopped outright
constexpr double kStopShort = 2e-3;      // how far short of an impact a vertex stops
constexpr int kMaxContactIterations = 25;

struct Options {
    int size = 128;
    int steps = 200;
    std::string body = "sphere";
    std::string framesDir;
    int every = 10;
    std::string pngDir, finalPng = QG_EXAMPLE_OUTPUT_DIR "/cloth_drop_final.png";
    int level = -1;
    bool contacts = false;
};

bool parse(int argc, char** argv, Options& o) {
    for (int i = 1; i < argc; ++i) {
        const std::string a = argv[i];
        const bool hasValue = i + 1 < argc;
        if (a == "--size" && hasValue) o.size = std::atoi(argv[++i]);
        else if (a == "--steps" && hasValue) o.steps = std::atoi(argv[++i]);
        else if (a == "--body" && hasValue) o.body = argv[++i];
        else if (a == "--frames" && hasValue) o.framesDir = argv[++i];
        else if (a == "--every" && hasValue) o.every = std::max(1, std::atoi(argv[++i]));
        else if (a == "--png" && hasValue) o.pngDir = argv[++i];
        else if (a == "--level" && hasValue) o.level = std::atoi(argv[++i]);
        else if (a == "--contacts") o.contacts = true;
        else if (a == "--final" && hasValue) o.finalPng = argv[++i];
        else return false;
    }
    return o.size >= 2 && o.steps >= 0 && (o.body == "sphere" || o.body == "bunny" || o.body == "pinched");
}

// ---- Cloth dynamics (host side) -------------------------------------------------------------

// Keeps two vertices at their rest distance.
struct Constraint {
    int a, b;
    double rest;
    double stiffness;
};

// Edges of the mesh (stretch and shear) plus every second vertex along rows and columns (bending).
std::vector<Constraint> makeConstraints(const GmTriangleMesh& cloth, int n) {
    std::vector<Constraint> c;
    const Positions& x = cloth.getVertices();
    for (const GmTriangleEdge& e : cloth.getEdges()) c.push_back({e.from, e.to, (x[e.from] - x[e.to]).length(), 1.0});
    auto id = [n](int i, int j) { return j * (n + 1) + i; };
    for (int j = 0; j <= n; ++j)
        for (int i = 0; i + 2 <= n; ++i) {
            c.push_back({id(i, j), id(i + 2, j), (x[id(i, j)] - x[id(i + 2, j)]).length(), 0.3});
            c.push_back({id(j, i), id(j, i + 2), (x[id(j, i)] - x[id(j, i + 2)]).length(), 0.3});
        }
    return c;
}

// Gauss-Seidel projection of the constraints on the proposed positions.
void solveConstraints(const std::vector<Constraint>& constraints, Positions& p) {
    for (int it = 0; it < kConstraintIterations; ++it)
        for (const Constraint& c : constraints) {
            const Vec d = p[c.b] - p[c.a];
            const double len = d.length();
            if (len < 1e-12) continue;
            const Vec corr = d * (0.5 * c.stiffness * (len - c.rest) / len);
            p[c.a] += corr;
            p[c.b] -= corr;
        }
}

// The sphere's analytic surface: a cheap first guess that lets the cloth slide over it. The
// collision queries below are what guarantees the result (and all there is for the bunny).
void pushOutOfSphere(Positions& p, const Vec& centre = Vec(), double radius = kSphereRadius) {
    for (Vec& v : p) {
        const double r = (v - centre).length();
        if (r < radius + kGap && r > 0) v = centre + (v - centre) * ((radius + kGap) / r);
    }
}

// The pinched body: two overlapping spheres, kept whole (each keeps its part inside the other).
const Vec kPinchedCentres[2] = {Vec(-0.17, 0.0, 0.0), Vec(0.2, 0.04, 0.07)};
const double kPinchedRadii[2] = {0.42, 0.36};

bool insidePinchedUnion(const Vec& p) {
    return (p - kPinchedCentres[0]).length() < kPinchedRadii[0] || (p - kPinchedCentres[1]).length() < kPinchedRadii[1];
}

// ---- Collision handling through the library --------------------------------------------------

struct StepStats {
    int selfContacts = 0;   // records found over all iterations of the step
    int bodyContacts = 0;
    int iterations = 0;     // query rounds
    bool resolved = true;
    double seconds = 0.0;   // time spent in refit and queries
};

// Stops each cloth vertex of a contact short of the time of impact: kStopShort before the point
// of impact along its path (at its start position when it is closer than that), and after a few
// rounds at its start position together with its neighbours, so that a pile of contacts settles
// quickly. The new path of a vertex is a part of its old one that ends before the contact, so
// the contact cannot recur; stopping short keeps features from creeping into touching distance,
// and a stopped vertex keeps its start position, which is free of contacts.
void rewind(const GmTriangleMesh& cloth, Positions& end, const std::vector<double>& firstTime, int iteration) {
    const Positions& start = cloth.getVertices();
    std::vector<char> stop(end.size(), 0);
    for (std::size_t v = 0; v < end.size(); ++v) {
        if (firstTime[v] > 1.0) continue;
        if (iteration < kPartialRewinds) {
            const double length = (end[v] - start[v]).length();
            const double s = length > 0 ? std::max(0.0, firstTime[v] - kStopShort / length) : 0.0;
            end[v] = start[v] + (end[v] - start[v]) * s;
            continue;
        }
        stop[v] = 1;
        for (int u : cloth.getNeighborVerticesToVertex(static_cast<int>(v))) stop[u] = 1;
    }
    for (std::size_t v = 0; v < end.size(); ++v)
        if (stop[v]) end[v] = start[v];
}

StepStats resolveContacts(GmTriangleMesh& cloth, Positions& end, GmBoundingTree& clothTree,
                          const GmBoundingTree& bodyTree, const Positions& bodyPositions,
                          const SelfIntersectionInfo* bodyPinch, GmBVHMetrics& metrics,
                          std::vector<char>& touched) {
    StepStats st;
    std::vector<GmContinuousTimeIntersectionInfo> selfContacts, bodyContacts;
    std::vector<double> firstTime(end.size());
    const auto t0 = Clock::now();
    for (;;) {
        clothTree.refit(end);
        // All fifteen feature tests (false), no append, disabled faces excluded; cloth is object 0.
        clothTree.continuousTimeSelfIntersect(selfContacts, end, false, false, false, 0, metrics);
        clothTree.continuousTimeIntersect(bodyContacts, end, bodyTree, bodyPositions, nullptr, bodyPinch, false,
                                          false, false, false, 0, 1, metrics);
        ++st.iterations;
        st.selfContacts += static_cast<int>(selfContacts.size());
        st.bodyContacts += static_cast<int>(bodyContacts.size());
        if (selfContacts.empty() && bodyContacts.empty()) break;
        if (st.iterations >= kMaxContactIterations) {
            // Give up on this step's motion: the start positions are free of contacts.
            end = cloth.getVertices();
            st.resolved = false;
            break;
        }

        std::fill(firstTime.begin(), firstTime.end(), 2.0);
        auto mark = [&](int v, double t) {
            if (v < 0) return;
            firstTime[v] = std::min(firstTime[v], t);
            touched[v] = 1;
        };
        for (const auto& c : selfContacts)
            for (int v : c.vertexIndices) mark(v, c.time);
        // Body contacts: only the cloth's side moves (object 0 is triangle 1).
        for (const auto& c : bodyContacts) {
            if (c.type == GmInterferenceType::VERTEX_FACE) mark(c.vertexIndices[0], c.time);
            if (c.type == GmInterferenceType::FACE_VERTEX)
                for (int k = 0; k < 3; ++k) mark(c.vertexIndices[k], c.time);
            if (c.type == GmInterferenceType::EDGE_EDGE)
                for (int k = 0; k < 2; ++k) mark(c.vertexIndices[k], c.time);
        }
        rewind(cloth, end, firstTime, st.iterations - 1);
    }
    st.seconds = std::chrono::duration<double>(Clock::now() - t0).count();
    return st;
}

// ---- Scene set-up -----------------------------------------------------------------------------

GmTriangleMesh makeBody(const std::string& which) {
    if (which == "sphere") return qgtools::makeIcosphere(4, kSphereRadius);
    if (which == "pinched")
        return qgtools::meshFromSoup(qgtools::overlappingSpheresSoup(4, kPinchedCentres[0], kPinchedRadii[0],
                                                                     kPinchedCentres[1], kPinchedRadii[1]),
                                     false, "pinchedBody");
    // The bunny, scaled to about one unit across, under the cloth.
    GmTriangleMesh bunny = qgtools::loadObjMesh(qgtools::dataDir() + "/meshes/stanford-bunny.obj", true);
    Positions p = bunny.getVertices();
    Vec lo(1e30, 1e30, 1e30), hi(-1e30, -1e30, -1e30);
    for (const Vec& v : p)
        for (int a = 0; a < 3; ++a) {
            lo[a] = std::min(lo[a], v[a]);
            hi[a] = std::max(hi[a], v[a]);
        }
    const double scale = 1.0 / std::max({hi.x - lo.x, hi.y - lo.y, hi.z - lo.z});
    for (Vec& v : p) {
        // The scan's up axis is y: turn it to z.
        const Vec c = (v - (lo + hi) * 0.5) * scale;
        v = Vec(c.x, -c.z, c.y + 0.5 * (hi.y - lo.y) * scale - 0.5);
    }
    bunny.setVertices(p);
    return bunny;
}

void writeFrame(const Options& o, const char* name, int index, const GmTriangleMesh& mesh) {
    if (o.framesDir.empty()) return;
    char file[64];
    if (index >= 0) std::snprintf(file, sizeof file, "/%s_%04d.obj", name, index);
    else std::snprintf(file, sizeof file, "/%s.obj", name);
    if (!qgtools::writeObj(o.framesDir + file, mesh)) std::fprintf(stderr, "cannot write %s%s\n", o.framesDir.c_str(), file);
}

// Pictures of the scene, rendered offscreen (frames from one fixed camera, the final picture fitted
// to the final state): the body, the cloth (vertices in contacts of the step in red with
// --contacts) and with --level the boxes of one level of the cloth's swept hierarchy as the
// library draws them.
struct Pictures {
    qgrender::SceneRenderer renderer;
    qgrender::Camera frames;  // the same view for every frame: the scene at the start and below it
    std::string error;
    bool ok = false;

    Pictures(const GmTriangleMesh& cloth, const GmTriangleMesh& body) {
        ok = renderer.create(640, 480, 2, &error);
        Vec lo, hi;
        bounds(cloth, body, lo, hi);
        lo.z -= 0.25 * (hi.x - lo.x);  // room for the hanging cloth
        frames = qgrender::Camera::framing(lo, hi, 30, 18, 26);
    }

    static void bounds(const GmTriangleMesh& cloth, const GmTriangleMesh& body, Vec& lo, Vec& hi) {
        lo = Vec(1e30, 1e30, 1e30);
        hi = -lo;
        for (const GmTriangleMesh* m : {&cloth, &body})
            for (const Vec& v : m->getVertices())
                for (int a = 0; a < 3; ++a) {
                    lo[a] = std::min(lo[a], v[a]);
                    hi[a] = std::max(hi[a], v[a]);
                }
    }

    // The view fitted to the scene as it is (the final picture), boxes included when drawn.
    static qgrender::Camera fitted(const GmTriangleMesh& cloth, const GmTriangleMesh& body, const GmBoundingTree& tree,
                                   bool boxes) {
        Positions points = cloth.getVertices();
        points.insert(points.end(), body.getVertices().begin(), body.getVertices().end());
        const GmAxisAlignedBox& root = tree.getHierarchy()->getRoot().box;
        for (int k = 0; boxes && k < 8; ++k)
            points.emplace_back(k & 1 ? root.maxX : root.minX, k & 2 ? root.maxY : root.minY, k & 4 ? root.maxZ : root.minZ);
        return qgrender::Camera::framing(points, 30, 18, 26);
    }

    bool write(const std::string& path, const qgrender::Camera& camera, const Options& o, const GmTriangleMesh& cloth,
               const GmTriangleMesh& body, const GmBoundingTree& clothTree, const std::vector<char>& touched) {
        if (!ok) return false;
        const qgrender::Rgb clothColour{0.4f, 0.58f, 0.82f}, contactColour{0.9f, 0.12f, 0.08f};
        renderer.begin(camera, {1.0f, 1.0f, 1.0f});
        renderer.drawMesh(body, {0.78f, 0.76f, 0.72f});
        std::vector<qgrender::Rgb> colours;
        if (o.contacts)
            for (char t : touched) colours.push_back(t ? contactColour : clothColour);
        renderer.drawMesh(cloth, clothColour, &colours);
        if (o.level >= 0) renderer.drawTreeLevel(clothTree, o.level, {0.05f, 0.35f, 0.1f});
        if (renderer.savePng(path, &error)) return true;
        std::fprintf(stderr, "%s\n", error.c_str());
        return false;
    }
};

}  // namespace

int main(int argc, char** argv) {
    Options opt;
    if (!parse(argc, argv, opt)) {
        std::fprintf(stderr,
                     "usage: %s [--size N] [--steps S] [--body sphere|bunny|pinched] [--frames DIR] [--every K]\n"
                     "       [--png DIR] [--level L] [--contacts] [--final FILE]\n", argv[0]);
        return 2;
    }
    const bool sphere = opt.body == "sphere";
    const bool pinchedBody = opt.body == "pinched";

    // The cloth, slightly off-centre so that it does not fold symmetrically.
    const int n = opt.size;
    GmTriangleMesh cloth = qgtools::makeClothGrid(n, n, kClothSize, kClothSize,
                                                  Vec(-0.5 * kClothSize + 0.13, -0.5 * kClothSize + 0.07, kClothHeight));
    GmTriangleMesh body = makeBody(opt.body);
    const Positions bodyPositions = body.getVertices();
    const std::vector<Constraint> constraints = makeConstraints(cloth, n);
    Positions velocity(cloth.getNumberVertices());

    // Swept hierarchies: the cloth's is refitted to each proposed motion; the body does not move.
    Positions end = cloth.getVertices();
    GmBoundingTree clothTree(&cloth, end);
    GmBoundingTree bodyTree(&body, bodyPositions);
    // Each (vertex, face) and (edge, edge) contact of the self query tested and reported once.
    clothTree.setSelfContactRecords(GmSelfContactRecords::EachFeaturePairOnce);

    std::printf("cloth %d x %d quads (%d faces), body %s (%d faces), %d steps of %.4f s, %d worker threads\n", n, n,
                cloth.getNumberFaces(), opt.body.c_str(), body.getNumberFaces(), opt.steps, kDt,
                GmParallel::workerCount());
    // A body that intersects itself is classified once; its queries take the classification.
    SelfIntersectionInfo bodyPinch;
    const SelfIntersectionInfo* bodyInfo = nullptr;
    if (pinchedBody) {
        std::vector<GmIntersectionInfo> bodyCrossings;
        GmBVHMetrics m;
        bodyTree.selfIntersect(bodyCrossings, false, false, true, m);
        bodyPinch.build(bodyTree, bodyCrossings);
        bodyInfo = &bodyPinch;
        std::printf("pinch classification of the body: %zu intersecting face pairs, %d faces with crossings, "
                    "%d LOOP vertices, %d unknown vertices, %d unknown face centres\n",
                    bodyCrossings.size(), bodyPinch.numberCrossingFaces(), bodyPinch.numberLoopVertices(),
                    bodyPinch.numberUnknownVertices(), bodyPinch.numberUnknownFaces());
    }
    writeFrame(opt, "body", -1, body);
    writeFrame(opt, "cloth", 0, cloth);
    Pictures pictures(cloth, body);
    std::vector<char> touched(end.size(), 0);  // cloth vertices in contacts of the step
    auto picture = [&](int step) {
        char name[32];
        std::snprintf(name, sizeof name, "/cloth_%04d.png", step);
        return pictures.write(opt.pngDir + name, pictures.frames, opt, cloth, body, clothTree, touched);
    };
    if (!opt.pngDir.empty()) {
        std::error_code ec;
        std::filesystem::create_directories(opt.pngDir, ec);
        if (!pictures.ok || !picture(0)) {
            std::fprintf(stderr, "cannot write pictures to %s: %s\n", opt.pngDir.c_str(), pictures.error.c_str());
            return 2;
        }
    }

    GmBVHMetrics total, batch;
    long long selfTotal = 0, bodyTotal = 0, iterationsTotal = 0;
    int unresolvedSteps = 0;
    double collisionSeconds = 0.0, batchSeconds = 0.0;
    int batchSelf = 0, batchBody = 0, batchIterations = 0;
    const auto start = Clock::now();

    for (int step = 1; step <= opt.steps; ++step) {
        // 1. Proposed positions from gravity and the constraints.
        const Positions& x = cloth.getVertices();
        for (std::size_t i = 0; i < end.size(); ++i) {
            velocity[i] = (velocity[i] + kGravity * kDt) * kDamping;
            end[i] = x[i] + velocity[i] * kDt;
        }
        solveConstraints(constraints, end);
        if (sphere) pushOutOfSphere(end);
        if (pinchedBody)
            for (int k = 0; k < 2; ++k) pushOutOfSphere(end, kPinchedCentres[k], kPinchedRadii[k]);

        // 2. Continuous-time collision with itself and the body, until the motion is free.
        GmBVHMetrics metrics;
        const StepStats st =
            resolveContacts(cloth, end, clothTree, bodyTree, bodyPositions, bodyInfo, metrics, touched);
        if (!st.resolved) ++unresolvedSteps;

        // 3. Accept the motion.
        for (std::size_t i = 0; i < end.size(); ++i) velocity[i] = (end[i] - x[i]) / kDt;
        cloth.setVertices(end);

        total += metrics;
        batch += metrics;
        selfTotal += st.selfContacts;
        bodyTotal += st.bodyContacts;
        iterationsTotal += st.iterations;
        collisionSeconds += st.seconds;
        batchSeconds += st.seconds;
        batchSelf += st.selfContacts;
        batchBody += st.bodyContacts;
        batchIterations += st.iterations;

        if (step % opt.every == 0 || step == opt.steps) {
            std::printf("step %4d  t %.3f s  contacts self %6d body %5d  rounds %3d  collision %7.1f ms  "
                        "broad %9u/%9u  narrow %8u/%8u  vf %8u  ee %8u\n",
                        step, step * kDt, batchSelf, batchBody, batchIterations, 1000.0 * batchSeconds,
                        batch.broadPhaseSuccesses(), batch.broadPhaseCandidates(), batch.narrowPhaseSuccesses(),
                        batch.narrowPhaseTests(), batch.vertexFaceSuccesses(), batch.edgeEdgeSuccesses());
            std::fflush(stdout);
            writeFrame(opt, "cloth", step, cloth);
            if (!opt.pngDir.empty()) picture(step);
            batch.reset();
            batchSeconds = 0.0;
            batchSelf = batchBody = batchIterations = 0;
        }
    }
    const double wall = std::chrono::duration<double>(Clock::now() - start).count();

    // What the library guarantees, checked on the final state.
    GmBoundingTree finalTree(&cloth);
    std::vector<GmIntersectionInfo> crossings;
    GmBVHMetrics checkMetrics;
    finalTree.selfIntersect(crossings, false, false, false, checkMetrics);
    int inside = 0;
    double closestToBody = 1e30;
    const GmBoundingVolumeHierarchy& bodyHierarchy = *bodyTree.getHierarchy();
    int insideUnion = 0;
    for (const Vec& p : cloth.getVertices()) {
        if (bodyInfo == nullptr) {
            if (bodyHierarchy.isInsideMesh(p, true)) ++inside;
        } else {
            // The plain inside test is wrong near the buried surface; the classification decides.
            Vec closest, normal;
            int face = -1;
            bool pinched = false;
            bodyHierarchy.findClosestPoint(p, closest, face, normal, pinched, true, true, bodyInfo);
            if (face >= 0) ++inside;
            if (insidePinchedUnion(p)) ++insideUnion;
        }
        if (sphere) closestToBody = std::min(closestToBody, p.length() - kSphereRadius);
    }

    std::printf("\nsummary\n");
    std::printf("  steps %d in %.1f s (collision handling %.1f s), %lld query rounds (%.2f per step)\n", opt.steps,
                wall, collisionSeconds, iterationsTotal, opt.steps > 0 ? double(iterationsTotal) / opt.steps : 0.0);
    std::printf("  continuous-time contacts found: self %lld, body %lld; steps whose motion was dropped: %d\n",
                selfTotal, bodyTotal, unresolvedSteps);
    std::printf("  broad-phase prune rate %.4f%%, narrow-phase prune rate %.4f%%\n", total.broadPhasePruneRate(),
                total.narrowPhasePruneRate());
    std::printf("  final cloth: %zu intersecting triangle pairs (static selfIntersect)\n", crossings.size());
    std::printf("  final cloth: %d vertices inside the body (%s)", inside,
                bodyInfo != nullptr ? "closest point with the pinch classification" : "isInsideMesh");
    if (sphere) std::printf(", closest vertex %.3g above the sphere surface", closestToBody);
    if (pinchedBody) std::printf(", %d inside the union of the two spheres (analytic)", insideUnion);
    std::printf("\n\n");
    total.print(std::cout);
    const qgrender::Camera finalView = Pictures::fitted(cloth, body, clothTree, opt.level >= 0);
    if (!opt.finalPng.empty() && pictures.write(opt.finalPng, finalView, opt, cloth, body, clothTree, touched))
        std::printf("\nfinal picture: %s\n", opt.finalPng.c_str());
    else if (!opt.finalPng.empty())
        std::fprintf(stderr, "\nno final picture: %s\n", pictures.error.c_str());
    return crossings.empty() && inside == 0 && insideUnion == 0 ? 0 : 1;
}

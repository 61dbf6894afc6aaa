// hair_drop: strands on a body, a host simulation on top of QuarryGeom's curve services.
//
// A few thousand strands of 20 to 40 segments, rooted on a body (a sphere, or the Stanford
// bunny) and combed out along its normals, fall under gravity and settle over it. The dynamics
// are simple position-based ones (gravity, segment lengths, fixed roots). What keeps the strands
// apart and out of the body is the library:
//
//   each step   proximity: refit the strands' curve tree at the proposed positions with the
//               strand radii and push apart every pair of non-neighbouring segments closer than
//               the sum of their radii (GmSegmentSelfIntersector<3>);
//               continuous time: refit the swept curve tree from the current to the proposed
//               positions, find every segment pair that meets during the step
//               (GmSegmentContinuousIntersector, neighbours left out) and every strand vertex or
//               segment that meets the body's faces or edges (GmSegmentMeshContinuousIntersector),
//               and stop the vertices of each contact short of its time; repeat until the motion
//               is free of contacts;
//   at the end  no segment may cross the body (GmSegmentMeshIntersector), no two
//               non-neighbouring segments may meet, and the closest distance between them is
//               reported against the sum of their radii.
//
// Usage: hair_drop [--strands N] [--steps S] [--body sphere|bunny] [--frames DIR] [--every K]
//                  [--png DIR] [--level L] [--final FILE]
//   --strands N  number of strands (default 2000)
//   --steps S    time steps of 1/200 s (default 200)
//   --body       what the strands grow on (default sphere)
//   --frames DIR write the strands as OBJ polylines every K steps (default 10) and the body once
//   --png DIR    write a picture of the scene (PNG) every K steps
//   --level L    draw the boxes of level L of the strands' swept curve tree on the pictures
//   --final FILE picture of the final state (default hair_drop_final.png in the build folder)

#include <algorithm>
#include <chrono>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <random>
#include <string>
#include <vector>

#include <quarrygeom/quarrygeom.h>

#include "qgtools/data_dir.h"
#include "qgtools/mesh_io.h"
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
constexpr double kSegmentLength = 0.015;
constexpr double kRadius = 0.002;         // strand radius (per vertex)
constexpr double kRootLift = 0.004;       // roots sit this far out along the body's normal
constexpr double kGap = 0.002;            // kept from the analytic sphere beyond the radius
constexpr int kConstraintIterations = 12;
constexpr int kProximityRounds = 2;
constexpr double kDamping = 0.99;
constexpr int kPartialRewinds = 4;        // contact rounds before vertices are stopped outright
constexpr double kStopShort = 1e-3;       // how far short of an impact a vertex stops
constexpr int kMaxContactRounds = 20;

struct Options {
    int strands = 2000;
    int steps = 200;
    std::string body = "sphere";
    std::string framesDir;
    int every = 10;
    std::string pngDir, finalPng = QG_EXAMPLE_OUTPUT_DIR "/hair_drop_final.png";
    int level = -1;
};

bool parse(int argc, char** argv, Options& o) {
    for (int i = 1; i < argc; ++i) {
        const std::string a = argv[i];
        const bool hasValue = i + 1 < argc;
        if (a == "--strands" && hasValue) o.strands = std::atoi(argv[++i]);
        else if (a == "--steps" && hasValue) o.steps = std::atoi(argv[++i]);
        else if (a == "--body" && hasValue) o.body = argv[++i];
        else if (a == "--frames" && hasValue) o.framesDir = argv[++i];
        else if (a == "--every" && hasValue) o.every = std::max(1, std::atoi(argv[++i]));
        else if (a == "--png" && hasValue) o.pngDir = argv[++i];
        else if (a == "--level" && hasValue) o.level = std::atoi(argv[++i]);
        else if (a == "--final" && hasValue) o.finalPng = argv[++i];
        else return false;
    }
    return o.strands >= 1 && o.steps >= 0 && (o.body == "sphere" || o.body == "bunny");
}

GmTriangleMesh makeBody(const std::string& which) {
    if (which == "sphere") return qgtools::makeIcosphere(4, kSphereRadius);
    // The bunny, scaled to about one unit across, up axis turned to z.
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
        const Vec c = (v - (lo + hi) * 0.5) * scale;
        v = Vec(c.x, -c.z, c.y);
    }
    bunny.setVertices(p);
    return bunny;
}

// ---- Strands (host side) ----------------------------------------------------------------------

struct Hair {
    std::vector<std::size_t> segments;  // per strand
    std::vector<std::size_t> first;     // first vertex of each strand
    Positions x;                        // current positions
    Positions v;                        // velocities
    std::vector<double> radii;
    std::vector<char> root;             // fixed vertices
};

// Roots on upward-facing faces (area-weighted), strands straight out along the face normal.
Hair grow(const GmTriangleMesh& body, int count, unsigned seed) {
    std::mt19937 rng(seed);
    std::uniform_real_distribution<double> u(0.0, 1.0);
    std::uniform_int_distribution<int> len(20, 40);
    const Positions& p = body.getVertices();
    std::vector<int> faces;
    std::vector<double> cumulative;
    double total = 0.0;
    for (int f = 0; f < body.getNumberFaces(); ++f) {
        const GmTriangleFace& face = body.getFace(f);
        const Vec a = p[face.vertices[0]], b = p[face.vertices[1]], c = p[face.vertices[2]];
        const Vec n = (b - a).cross(c - a);
        if (n.length() <= 0 || n.z / n.length() < 0.25) continue;
        total += 0.5 * n.length();
        faces.push_back(f);
        cumulative.push_back(total);
    }
    Hair h;
    for (int s = 0; s < count; ++s) {
        const std::size_t k = std::size_t(std::lower_bound(cumulative.begin(), cumulative.end(), u(rng) * total) -
                                          cumulative.begin());
        const GmTriangleFace& face = body.getFace(faces[std::min(k, faces.size() - 1)]);
        const Vec a = p[face.vertices[0]], b = p[face.vertices[1]], c = p[face.vertices[2]];
        double r1 = u(rng), r2 = u(rng);
        if (r1 + r2 > 1) r1 = 1 - r1, r2 = 1 - r2;
        const Vec n = (b - a).cross(c - a).safeNormalized();
        const Vec base = a + (b - a) * r1 + (c - a) * r2 + n * kRootLift;
        const int m = len(rng);
        h.segments.push_back(std::size_t(m));
        h.first.push_back(h.x.size());
        for (int j = 0; j <= m; ++j) {
            h.x.push_back(base + n * (kSegmentLength * j));
            h.radii.push_back(kRadius);
            h.root.push_back(j == 0 ? 1 : 0);
        }
    }
    h.v.assign(h.x.size(), Vec());
    return h;
}

// Drops the strands that cross the body or come within the sum of the radii of another strand
// (strands combed out along the normals of a concave part): the start must be free of contacts.
Hair keepFree(const Hair& grown, const GmTriangleMesh& body) {
    const GmCurves curves(grown.segments);
    GmCurveBoundingTree tree(curves, grown.x, 0.0, &grown.radii);
    GmTriangleMesh copy = body;
    GmBoundingVolumeHierarchy faces(&copy);
    std::vector<GmSegmentFaceInfo> crossings;
    GmSegmentMeshIntersector through(crossings, curves, grown.x, copy);
    tree.intersect(faces, through);
    std::vector<GmSegmentSegmentInfo> close;
    GmSegmentSelfIntersector<1> pairs(close, curves, grown.x, &grown.radii);
    tree.selfIntersect(pairs);
    std::vector<char> drop(grown.segments.size(), 0);
    for (const GmSegmentFaceInfo& c : crossings) drop[curves.getPrimitive(std::uint64_t(c.index1))->curve] = 1;
    for (const GmSegmentSegmentInfo& c : close)
        drop[std::max(curves.getPrimitive(std::uint64_t(c.index1))->curve,
                      curves.getPrimitive(std::uint64_t(c.index2))->curve)] = 1;
    Hair h;
    for (std::size_t s = 0; s < grown.segments.size(); ++s) {
        if (drop[s]) continue;
        h.segments.push_back(grown.segments[s]);
        h.first.push_back(h.x.size());
        for (std::size_t j = 0; j <= grown.segments[s]; ++j) {
            const std::size_t v = grown.first[s] + j;
            h.x.push_back(grown.x[v]);
            h.radii.push_back(grown.radii[v]);
            h.root.push_back(grown.root[v]);
        }
    }
    h.v.assign(h.x.size(), Vec());
    return h;
}

// Keeps consecutive vertices at the segment length, roots fixed (Gauss-Seidel from the root).
void solveLengths(const Hair& h, Positions& p) {
    for (int it = 0; it < kConstraintIterations; ++it)
        for (std::size_t s = 0; s < h.segments.size(); ++s)
            for (std::size_t j = 0; j < h.segments[s]; ++j) {
                const std::size_t a = h.first[s] + j, b = a + 1;
                const Vec d = p[b] - p[a];
                const double l = d.length();
                if (l < 1e-12) continue;
                const Vec corr = d * ((l - kSegmentLength) / l);
                if (h.root[a]) p[b] -= corr;
                else {
                    p[a] += corr * 0.5;
                    p[b] -= corr * 0.5;
                }
            }
}

void pushOutOfSphere(const Hair& h, Positions& p) {
    const double r = kSphereRadius + kRadius + kGap;
    for (std::size_t i = 0; i < p.size(); ++i) {
        const double l = p[i].length();
        if (!h.root[i] && l < r && l > 0) p[i] *= r / l;
    }
}

// Moves the two segments of each proximity record apart to the sum of their radii (half each),
// split over the vertices by the closest points' parameters; roots do not move.
void separate(const Hair& h, const GmCurves& curves, const std::vector<GmSegmentSegmentInfo>& records, Positions& p) {
    for (const GmSegmentSegmentInfo& r : records) {
        const double depth = r.radius1 + r.radius2 - r.distance;
        if (!(depth > 0)) continue;
        const GmCurveSegment& a = *curves.getPrimitive(std::uint64_t(r.index1));
        const GmCurveSegment& b = *curves.getPrimitive(std::uint64_t(r.index2));
        const Vec push = r.normal * (0.5 * depth);
        const std::uint64_t va[2] = {a.vertex0, a.vertex1}, vb[2] = {b.vertex0, b.vertex1};
        // Vertex moves w_k d / (w_0^2 + w_1^2) move the closest point by d.
        const double wa[2] = {1 - r.parameter1, r.parameter1}, wb[2] = {1 - r.parameter2, r.parameter2};
        const double na = wa[0] * wa[0] + wa[1] * wa[1], nb = wb[0] * wb[0] + wb[1] * wb[1];
        for (int k = 0; k < 2; ++k) {
            if (!h.root[va[k]]) p[va[k]] += push * (wa[k] / na);
            if (!h.root[vb[k]]) p[vb[k]] -= push * (wb[k] / nb);
        }
    }
}

// ---- Continuous-time contacts ---------------------------------------------------------------

struct StepStats {
    int proximity = 0, strandContacts = 0, bodyContacts = 0, rounds = 0;
    bool resolved = true;
    double refit = 0, proximitySeconds = 0, ccd = 0, resolution = 0;
};

double seconds(Clock::time_point a, Clock::time_point b) { return std::chrono::duration<double>(b - a).count(); }

// Stops each vertex of a contact kStopShort before the point of impact along its path (after a
// few rounds: at its start, with its strand neighbours). The new path is part of the old one
// ending before the contact, so the contact cannot recur; a stopped vertex keeps its start
// position, which is free of contacts.
void rewind(const Hair& h, Positions& end, const std::vector<double>& firstTime, int round) {
    std::vector<char> stop(end.size(), 0);
    for (std::size_t v = 0; v < end.size(); ++v) {
        if (firstTime[v] > 1.0) continue;
        if (round < kPartialRewinds) {
            const double length = (end[v] - h.x[v]).length();
            const double s = length > 0 ? std::max(0.0, firstTime[v] - kStopShort / length) : 0.0;
            end[v] = h.x[v] + (end[v] - h.x[v]) * s;
            continue;
        }
        stop[v] = 1;
        if (v > 0) stop[v - 1] = 1;
        if (v + 1 < end.size()) stop[v + 1] = 1;
    }
    for (std::size_t v = 0; v < end.size(); ++v)
        if (stop[v]) end[v] = h.x[v];
}

void writeFrame(const Options& o, int index, const Hair& h) {
    if (o.framesDir.empty()) return;
    char file[64];
    std::snprintf(file, sizeof file, "/hair_%04d.obj", index);
    std::ofstream out(o.framesDir + file);
    if (!out) {
        std::fprintf(stderr, "cannot write %s%s\n", o.framesDir.c_str(), file);
        return;
    }
    for (const Vec& p : h.x) out << "v " << p.x << ' ' << p.y << ' ' << p.z << '\n';
    for (std::size_t s = 0; s < h.segments.size(); ++s) {
        out << 'l';
        for (std::size_t j = 0; j <= h.segments[s]; ++j) out << ' ' << h.first[s] + j + 1;
        out << '\n';
    }
}

// Pictures of the scene, rendered offscreen (frames from one fixed camera, the final picture fitted
// to the final state): the body shaded, the strands as lines and with --level the boxes of one
// level of the strands' swept curve tree as the library draws them.
struct Pictures {
    qgrender::SceneRenderer renderer;
    qgrender::Camera frames;  // the same view for every frame: the scene at the start and below it
    std::vector<int> counts;  // points per strand
    std::string error;
    bool ok = false;

    Pictures(const Hair& h, const GmTriangleMesh& body) {
        ok = renderer.create(640, 480, 2, &error);
        for (std::size_t n : h.segments) counts.push_back(int(n) + 1);
        Positions points = scene(h, body);
        Vec lo(1e30, 1e30, 1e30), hi = -lo;
        for (const Vec& v : points)
            for (int a = 0; a < 3; ++a) {
                lo[a] = std::min(lo[a], v[a]);
                hi[a] = std::max(hi[a], v[a]);
            }
        lo.z -= 0.25 * (hi.x - lo.x);  // room for the hanging strands
        frames = qgrender::Camera::framing(lo, hi, 30, 18, 26);
    }

    static Positions scene(const Hair& h, const GmTriangleMesh& body) {
        Positions points = h.x;
        points.insert(points.end(), body.getVertices().begin(), body.getVertices().end());
        return points;
    }

    // The view fitted to the scene as it is (the final picture), boxes included when drawn.
    static qgrender::Camera fitted(const Hair& h, const GmTriangleMesh& body, const GmCurveBoundingTree& tree,
                                   bool boxes) {
        Positions points = scene(h, body);
        const GmAxisAlignedBox& root = tree.getBoundingVolume();
        for (int k = 0; boxes && k < 8; ++k)
            points.emplace_back(k & 1 ? root.maxX : root.minX, k & 2 ? root.maxY : root.minY, k & 4 ? root.maxZ : root.minZ);
        return qgrender::Camera::framing(points, 30, 18, 26);
    }

    bool write(const std::string& path, const qgrender::Camera& camera, const Options& o, const Hair& h,
               const GmTriangleMesh& body, const GmCurveBoundingTree& tree) {
        if (!ok) return false;
        renderer.begin(camera, {1.0f, 1.0f, 1.0f});
        renderer.drawMesh(body, {0.78f, 0.76f, 0.72f});
        renderer.drawPolylines(h.x, counts, {0.45f, 0.27f, 0.12f});
        if (o.level >= 0) renderer.drawTreeLevel(tree, o.level, {0.05f, 0.35f, 0.1f});
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
                     "usage: %s [--strands N] [--steps S] [--body sphere|bunny] [--frames DIR] [--every K]\n"
                     "       [--png DIR] [--level L] [--final FILE]\n", argv[0]);
        return 2;
    }
    const bool sphere = opt.body == "sphere";
    GmTriangleMesh body = makeBody(opt.body);
    const Positions bodyPositions = body.getVertices();
    const Hair grown = grow(body, opt.strands, 7);
    Hair hair = keepFree(grown, body);
    if (hair.segments.size() < grown.segments.size())
        std::printf("%zu of %zu strands dropped: crossing the body or too close to another at the start\n",
                    grown.segments.size() - hair.segments.size(), grown.segments.size());
    const GmCurves curves(hair.segments);

    // Trees: plain (proximity, with the radii) and swept (continuous time, touching); the body
    // does not move, so its swept hierarchy has the same start and end.
    Positions end = hair.x;
    GmCurveBoundingTree proximityTree(curves, end, 0.0, &hair.radii);
    GmCurveBoundingTree sweptTree;
    sweptTree.buildSwept(curves, hair.x, end);
    GmBoundingVolumeHierarchy bodySwept(&body, bodyPositions);

    std::size_t segmentCount = curves.getNumberPrimitives();
    std::printf("hair %zu strands (%zu segments, %zu vertices), body %s (%d faces), %d steps of %.4f s, "
                "%d worker threads\n",
                hair.segments.size(), segmentCount, hair.x.size(), opt.body.c_str(), body.getNumberFaces(), opt.steps,
                kDt, GmParallel::workerCount());
    if (!opt.framesDir.empty()) qgtools::writeObj(opt.framesDir + "/body.obj", body);
    writeFrame(opt, 0, hair);
    Pictures pictures(hair, body);
    auto picture = [&](int step) {
        char name[32];
        std::snprintf(name, sizeof name, "/hair_%04d.png", step);
        return pictures.write(opt.pngDir + name, pictures.frames, opt, hair, body, sweptTree);
    };
    if (!opt.pngDir.empty()) {
        std::error_code ec;
        std::filesystem::create_directories(opt.pngDir, ec);
        if (!pictures.ok || !picture(0)) {
            std::fprintf(stderr, "cannot write pictures to %s: %s\n", opt.pngDir.c_str(), pictures.error.c_str());
            return 2;
        }
    }

    StepStats total, batch;
    int unresolvedSteps = 0;
    std::vector<GmSegmentSegmentInfo> proximity;
    std::vector<GmCurveContinuousInfo> strandContacts, bodyContacts;
    std::vector<double> firstTime(hair.x.size());
    const auto start = Clock::now();

    for (int step = 1; step <= opt.steps; ++step) {
        StepStats st;
        auto t0 = Clock::now();
        // 1. Proposed positions: gravity, lengths, the analytic sphere.
        for (std::size_t i = 0; i < end.size(); ++i) {
            if (hair.root[i]) {
                end[i] = hair.x[i];
                continue;
            }
            hair.v[i] = (hair.v[i] + kGravity * kDt) * kDamping;
            end[i] = hair.x[i] + hair.v[i] * kDt;
        }
        solveLengths(hair, end);
        if (sphere) pushOutOfSphere(hair, end);
        auto t1 = Clock::now();
        st.resolution += seconds(t0, t1);

        // 2. Proximity with the radii at the proposed positions.
        for (int k = 0; k < kProximityRounds; ++k) {
            t0 = Clock::now();
            proximityTree.refit(end, 0.0, &hair.radii);
            t1 = Clock::now();
            proximity.clear();
            GmSegmentSelfIntersector<3> near(proximity, curves, end, &hair.radii);
            proximityTree.selfIntersect(near);
            const auto t2 = Clock::now();
            separate(hair, curves, proximity, end);
            solveLengths(hair, end);
            if (sphere) pushOutOfSphere(hair, end);
            const auto t3 = Clock::now();
            st.refit += seconds(t0, t1);
            st.proximitySeconds += seconds(t1, t2);
            st.resolution += seconds(t2, t3);
            st.proximity += int(proximity.size());
        }

        // 3. Continuous time from the current to the proposed positions, until the motion is free.
        for (;;) {
            t0 = Clock::now();
            sweptTree.refitSwept(hair.x, end);
            t1 = Clock::now();
            strandContacts.clear();
            bodyContacts.clear();
            GmSegmentContinuousIntersector strands(strandContacts, curves, hair.x, end);
            sweptTree.selfIntersect(strands);
            GmSegmentMeshContinuousIntersector onBody(bodyContacts, curves, hair.x, end, body, bodyPositions);
            onBody.intersect(sweptTree, bodySwept);
            const auto t2 = Clock::now();
            st.refit += seconds(t0, t1);
            st.ccd += seconds(t1, t2);
            ++st.rounds;
            st.strandContacts += int(strandContacts.size());
            st.bodyContacts += int(bodyContacts.size());
            if (strandContacts.empty() && bodyContacts.empty()) break;
            if (st.rounds >= kMaxContactRounds) {
                end = hair.x;  // the start positions are free of contacts
                st.resolved = false;
                break;
            }
            std::fill(firstTime.begin(), firstTime.end(), 2.0);
            auto mark = [&](std::uint64_t v, double t) { firstTime[v] = std::min(firstTime[v], t); };
            for (const GmCurveContinuousInfo& c : strandContacts)
                for (std::int64_t s : {c.index1, c.index2}) {
                    const GmCurveSegment& seg = *curves.getPrimitive(std::uint64_t(s));
                    mark(seg.vertex0, c.time);
                    mark(seg.vertex1, c.time);
                }
            for (const GmCurveContinuousInfo& c : bodyContacts) {
                if (c.type == GmCurveContinuousInfo::VERTEX_FACE) {
                    mark(std::uint64_t(c.index3), c.time);
                    continue;
                }
                const GmCurveSegment& seg = *curves.getPrimitive(std::uint64_t(c.index1));
                mark(seg.vertex0, c.time);
                mark(seg.vertex1, c.time);
            }
            rewind(hair, end, firstTime, st.rounds - 1);
            st.resolution += seconds(t2, Clock::now());
        }
        if (!st.resolved) ++unresolvedSteps;

        // 4. Accept the motion.
        for (std::size_t i = 0; i < end.size(); ++i) hair.v[i] = (end[i] - hair.x[i]) / kDt;
        hair.x = end;

        for (StepStats* s : {&total, &batch}) {
            s->proximity += st.proximity;
            s->strandContacts += st.strandContacts;
            s->bodyContacts += st.bodyContacts;
            s->rounds += st.rounds;
            s->refit += st.refit;
            s->proximitySeconds += st.proximitySeconds;
            s->ccd += st.ccd;
            s->resolution += st.resolution;
        }
        if (step % opt.every == 0) {
            writeFrame(opt, step / opt.every, hair);
            if (!opt.pngDir.empty()) picture(step);
        }
        if (step % 10 == 0 || step == opt.steps) {
            const int n = step % 10 == 0 ? 10 : step % 10;
            std::printf("step %4d  t %.3f s  contacts proximity %6d strand %5d body %5d  rounds %5.2f  "
                        "refit %6.1f  proximity %6.1f  ccd %6.1f  resolution %6.1f ms/step\n",
                        step, step * kDt, batch.proximity, batch.strandContacts, batch.bodyContacts,
                        double(batch.rounds) / n, 1e3 * batch.refit / n, 1e3 * batch.proximitySeconds / n,
                        1e3 * batch.ccd / n, 1e3 * batch.resolution / n);
            std::fflush(stdout);
            batch = StepStats();
        }
    }
    const double wall = seconds(start, Clock::now());

    // Final check: no segment crosses the body; no two non-neighbouring segments meet; the
    // closest of them against the sum of their radii.
    GmCurveBoundingTree finalTree(curves, hair.x, 0.0, &hair.radii);
    GmBoundingVolumeHierarchy bodyTree(&body);
    std::vector<GmSegmentFaceInfo> crossings;
    GmSegmentMeshIntersector through(crossings, curves, hair.x, body);
    finalTree.intersect(bodyTree, through);
    std::vector<GmSegmentSegmentInfo> close;
    GmSegmentSelfIntersector<3> pairs(close, curves, hair.x, &hair.radii);
    finalTree.selfIntersect(pairs);
    int meeting = 0, within = 0;
    double ratio = 1.0, closest = -1.0;
    for (const GmSegmentSegmentInfo& r : close) {
        if (r.distance == 0.0) ++meeting;
        if (r.distance < r.radius1 + r.radius2) ++within;
        const double q = r.distance / (r.radius1 + r.radius2);
        if (q < ratio) {
            ratio = q;
            closest = r.distance;
        }
    }
    const int steps = std::max(1, opt.steps);
    std::printf("\nsummary\n");
    std::printf("  steps %d in %.1f s; per step: refit %.1f ms, proximity %.1f ms, continuous time %.1f ms, "
                "resolution %.1f ms; %.2f continuous-time rounds per step\n",
                opt.steps, wall, 1e3 * total.refit / steps, 1e3 * total.proximitySeconds / steps,
                1e3 * total.ccd / steps, 1e3 * total.resolution / steps, double(total.rounds) / steps);
    std::printf("  contacts found: proximity %d, continuous-time strand %d, body %d; steps whose motion was dropped: %d\n",
                total.proximity, total.strandContacts, total.bodyContacts, unresolvedSteps);
    std::printf("  final hair: %zu segments crossing the body, %d non-neighbouring segment pairs meeting\n",
                crossings.size(), meeting);
    if (closest >= 0)
        std::printf("  final hair: closest non-neighbouring segments %.3g apart = %.3f x the sum of their radii "
                    "(%d pairs closer than the sum)\n",
                    closest, ratio, within);
    else
        std::printf("  final hair: every non-neighbouring segment pair is farther apart than the sum of its radii\n");
    const bool ok = crossings.empty() && meeting == 0;
    std::printf("  final check: %s\n", ok ? "passed" : "FAILED");
    const qgrender::Camera finalView = Pictures::fitted(hair, body, sweptTree, opt.level >= 0);
    if (!opt.finalPng.empty() && pictures.write(opt.finalPng, finalView, opt, hair, body, sweptTree))
        std::printf("\nfinal picture: %s\n", opt.finalPng.c_str());
    else if (!opt.finalPng.empty())
        std::fprintf(stderr, "\nno final picture: %s\n", pictures.error.c_str());
    return ok ? 0 : 1;
}

#pragma once

// Scenes, brute-force references and record comparison for the collision traversal tests.

#include <algorithm>
#include <cfloat>
#include <cmath>
#include <cstdint>
#include <functional>
#include <iostream>
#include <map>
#include <mutex>
#include <memory>
#include <set>
#include <sstream>
#include <string>
#include <utility>
#include <vector>

#include <gtest/gtest.h>

#include <quarrygeom/bvh/GmBoundingTree.h>
#include <quarrygeom/bvh/GmBoundingVolumeHierarchy.h>
#include <quarrygeom/core/GmBVHMetrics.h>
#include <quarrygeom/core/tarnCollision.h>
#include <quarrygeom/mesh/GmAdjacentOrphanSet.h>
#include <quarrygeom/mesh/GmDisabledData.h>
#include <quarrygeom/mesh/GmMeshTests.h>
#include <quarrygeom/mesh/GmTriangleMesh.h>
#include <quarrygeom/primitives/GmContactKernels.h>
#include <quarrygeom/primitives/GmInterferenceInfo.h>

#include "qgtools/data_dir.h"
#include "qgtools/mesh_io.h"
#include "qgtools/shapes.h"
#include "../support/threading.h"

namespace collisiontest {

using Vec = GmTVector<double>;
using Positions = std::vector<Vec>;
using FacePair = std::pair<int, int>;


// Meshes and trees are built serially; the queries under test switch the parallel path on
// (serialAndParallel, ThreadingSwitch).
class SerialByDefault : public ::testing::Environment {
public:
    void SetUp() override { tarnCollision::setMultiThreading(false); }
};

// Deterministic pseudo-random value in [-1, 1] from an integer.
inline double jitter(std::uint32_t i) {
    i ^= i >> 16;
    i *= 0x7feb352dU;
    i ^= i >> 15;
    i *= 0x846ca68bU;
    i ^= i >> 16;
    return (static_cast<double>(i) / 4294967295.0) * 2.0 - 1.0;
}

// Rotates the part of a unit cloth grid beyond the hinge line x = 0.5 by `angle` (radians)
// about that line; every vertex is jittered by up to `noise` in z so that nothing is exactly
// coplanar.
inline Positions foldPositions(const GmTriangleMesh& grid, double angle, double noise = 1e-3) {
    Positions out = grid.getVertices();
    for (std::size_t i = 0; i < out.size(); ++i) {
        Vec& p = out[i];
        const double d = p.x - 0.5;
        if (d > 0) {
            p.x = 0.5 + d * std::cos(angle);
            p.z = p.z + d * std::sin(angle);
        }
        p.z += noise * jitter(static_cast<std::uint32_t>(i));
    }
    return out;
}

// A cloth grid whose right half is folded from `angleStart` to `angleEnd` over the step: the
// mesh holds the start positions, `end` the end positions.
struct FoldScene {
    GmTriangleMesh mesh;
    Positions end;
};

inline std::unique_ptr<FoldScene> makeFoldScene(int n, double angleStart, double angleEnd) {
    auto s = std::make_unique<FoldScene>();
    s->mesh = qgtools::makeClothGrid(n, n, 1.0, 1.0);
    const GmTriangleMesh flat = s->mesh;
    Positions start = foldPositions(flat, angleStart);
    s->end = foldPositions(flat, angleEnd);
    s->mesh.setVertices(start);
    return s;
}

inline std::string spotPath() { return qgtools::dataDir() + "/meshes/spot.obj"; }

// Folds a surface onto itself about the horizontal plane through its centroid: both halves are
// mirrored below that plane and compressed by `factor`, so the top and the bottom pass through
// each other.
inline Positions foldZ(const Positions& p, double factor) {
    double cz = 0;
    for (const Vec& v : p) cz += v.z;
    cz /= static_cast<double>(p.size());
    Positions out = p;
    for (Vec& v : out) {
        const double h = v.z - cz;
        // Slightly different on the two sides (and tilted) so that the two layers do not end up
        // parallel and in exact contact. On its way the upper half passes through a flat sheet
        // (at t = 1 / (1 + factor)), where edges that lie on one line touch: parallel edges in
        // contact have no normal, and their tests report the degenerate-normal message.
        v.z = h > 0 ? cz - factor * h + 0.01 * std::sin(5.0 * v.x) : cz + 1.1 * factor * h;
    }
    return out;
}

// Collects what is written to std::cerr while alive. Parallel queries write from several
// threads at once: the buffer takes a lock per write (pieces of different messages may still
// interleave, as they do on the real stream).
class CerrCapture {
public:
    CerrCapture() : _old(std::cerr.rdbuf(&_buf)) {}
    ~CerrCapture() { std::cerr.rdbuf(_old); }
    CerrCapture(const CerrCapture&) = delete;
    CerrCapture& operator=(const CerrCapture&) = delete;
    std::string text() {
        std::lock_guard<std::mutex> lock(_buf.mutex);
        return _buf.text;
    }

private:
    struct LockedBuffer : std::streambuf {
        std::mutex mutex;
        std::string text;
        int_type overflow(int_type c) override {
            if (traits_type::eq_int_type(c, traits_type::eof())) return traits_type::not_eof(c);
            std::lock_guard<std::mutex> lock(mutex);
            text.push_back(traits_type::to_char_type(c));
            return c;
        }
        std::streamsize xsputn(const char* s, std::streamsize n) override {
            std::lock_guard<std::mutex> lock(mutex);
            text.append(s, static_cast<std::size_t>(n));
            return n;
        }
    };
    LockedBuffer _buf;
    std::streambuf* _old;
};

// Number of occurrences of `piece` in `text`, each removed from it.
inline std::size_t takeAll(std::string& text, const std::string& piece) {
    std::size_t n = 0;
    for (std::size_t at = text.find(piece); at != std::string::npos; at = text.find(piece, at)) {
        text.erase(at, piece.size());
        ++n;
    }
    return n;
}

// Rotation about z by `angle` followed by a shift.
inline Positions rotateShift(const Positions& p, double angle, const Vec& shift) {
    Positions out = p;
    const double c = std::cos(angle), s = std::sin(angle);
    for (Vec& v : out) {
        const double x = c * v.x - s * v.y, y = s * v.x + c * v.y;
        v = Vec(x, y, v.z) + shift;
    }
    return out;
}

// ---- Record keys ---------------------------------------------------------------------------

inline std::string key(const GmTriangleInterferenceInfo& r) {
    std::ostringstream os;
    os.precision(17);
    os << r.objectIndex1 << ' ' << r.objectIndex2 << ' ' << r.triangleIndex1 << ' ' << r.triangleIndex2 << ' '
       << r.time << ' ' << r.distance << ' ' << r.falloff << ' ' << r.normal.x << ' ' << r.normal.y << ' '
       << r.normal.z << ' ' << static_cast<int>(r.type) << ' ' << r.feature1 << ' ' << r.feature2 << ' '
       << r.point.x << ' ' << r.point.y << ' ' << r.point.z << ' ' << static_cast<int>(r.pointType) << ' '
       << r.barycentric1.x << ' ' << r.barycentric1.y << ' ' << r.barycentric1.z << ' ' << r.barycentric2.x << ' '
       << r.barycentric2.y << ' ' << r.barycentric2.z << ' ' << r.vertexIndices[0] << ' ' << r.vertexIndices[1]
       << ' ' << r.vertexIndices[2] << ' ' << r.vertexIndices[3] << ' ' << r.edgeIndices[0] << ' '
       << r.edgeIndices[1];
    return os.str();
}
inline std::string key(const GmContinuousTimeIntersectionInfo& r) {
    return key(static_cast<const GmTriangleInterferenceInfo&>(r)) + (r.pinched0 ? " p" : " -") +
           (r.pinched1 ? "p" : "-");
}
inline std::string key(const GmProximityCheckInfo& r) {
    return key(static_cast<const GmTriangleInterferenceInfo&>(r)) + (r.pinched ? " p" : " -");
}
inline std::string key(const GmIntersectionInfo& r) {
    std::ostringstream os;
    os.precision(17);
    os << r.triangleIndex1 << ' ' << r.triangleIndex2;
    for (const Vec& p : r.points) os << " (" << p.x << ' ' << p.y << ' ' << p.z << ')';
    return os.str();
}

template <class Record>
std::vector<std::string> sortedKeys(const std::vector<Record>& records) {
    std::vector<std::string> keys;
    keys.reserve(records.size());
    for (const Record& r : records) keys.push_back(key(r));
    std::sort(keys.begin(), keys.end());
    return keys;
}

template <class Record>
FacePair facesOf(const Record& r) {
    return {r.triangleIndex1, r.triangleIndex2};
}

// Records grouped by their ordered face pair.
template <class Record>
std::map<FacePair, std::vector<std::string>> groupByPair(const std::vector<Record>& records) {
    std::map<FacePair, std::vector<std::string>> g;
    for (const Record& r : records) g[facesOf(r)].push_back(key(r));
    for (auto& kv : g) std::sort(kv.second.begin(), kv.second.end());
    return g;
}

// ---- Brute force ---------------------------------------------------------------------------

// Double-precision box of a face over several position sets, padded generously: a reference
// prefilter that is strictly more inclusive than the hierarchy's boxes.
struct Box {
    double lo[3], hi[3];
    bool overlaps(const Box& o) const {
        for (int a = 0; a < 3; ++a)
            if (lo[a] > o.hi[a] || o.lo[a] > hi[a]) return false;
        return true;
    }
};

inline std::vector<Box> faceBoxes(const GmTriangleMesh& mesh, const std::vector<const Positions*>& sets, double pad) {
    std::vector<Box> boxes(static_cast<std::size_t>(mesh.getNumberFaces()));
    for (int f = 0; f < mesh.getNumberFaces(); ++f) {
        Box& b = boxes[static_cast<std::size_t>(f)];
        for (int a = 0; a < 3; ++a) {
            b.lo[a] = 1e300;
            b.hi[a] = -1e300;
        }
        for (const Positions* ps : sets)
            for (int k = 0; k < 3; ++k) {
                const Vec& p = (*ps)[static_cast<std::size_t>(mesh.getFace(f).vertices[k])];
                for (int a = 0; a < 3; ++a) {
                    b.lo[a] = std::min(b.lo[a], p[a] - pad);
                    b.hi[a] = std::max(b.hi[a], p[a] + pad);
                }
            }
    }
    return boxes;
}

inline bool shareVertex(const GmTriangleMesh& m, int f, int g) { return m.shareVertex(f, g); }

// Calls `kernel(i, j, out)` for every pair of faces of one mesh that share no vertex and whose
// reference boxes overlap, in both orders; reports the pairs (i < j) found by both orders
// (`must`), by either (`may`) and, per ordered pair, the records of that call.
template <class Record>
struct BruteForce {
    std::set<FacePair> must, may;
    std::map<FacePair, std::vector<std::string>> byOrderedPair;
};

template <class Record, class Kernel>
BruteForce<Record> bruteForceSelf(const GmTriangleMesh& mesh, const std::vector<Box>& boxes, Kernel&& kernel,
                                  const std::function<bool(int, int)>& keep = nullptr) {
    BruteForce<Record> bf;
    const int n = mesh.getNumberFaces();
    std::vector<Record> out;
    for (int i = 0; i < n; ++i)
        for (int j = i + 1; j < n; ++j) {
            if (!boxes[static_cast<std::size_t>(i)].overlaps(boxes[static_cast<std::size_t>(j)])) continue;
            if (mesh.shareVertex(i, j)) continue;
            if (keep && !keep(i, j)) continue;
            out.clear();
            const bool ij = kernel(i, j, out);
            for (const Record& r : out) bf.byOrderedPair[{i, j}].push_back(key(r));
            out.clear();
            const bool ji = kernel(j, i, out);
            for (const Record& r : out) bf.byOrderedPair[{j, i}].push_back(key(r));
            if (ij && ji) bf.must.insert({i, j});
            if (ij || ji) bf.may.insert({i, j});
        }
    for (auto& kv : bf.byOrderedPair) std::sort(kv.second.begin(), kv.second.end());
    return bf;
}

// Same over the faces of two meshes (face i of the first, j of the second; one order only).
template <class Record, class Kernel>
BruteForce<Record> bruteForcePair(const std::vector<Box>& boxes1, const std::vector<Box>& boxes2, Kernel&& kernel) {
    BruteForce<Record> bf;
    std::vector<Record> out;
    for (int i = 0; i < static_cast<int>(boxes1.size()); ++i)
        for (int j = 0; j < static_cast<int>(boxes2.size()); ++j) {
            if (!boxes1[static_cast<std::size_t>(i)].overlaps(boxes2[static_cast<std::size_t>(j)])) continue;
            out.clear();
            if (kernel(i, j, out)) {
                bf.must.insert({i, j});
                bf.may.insert({i, j});
            }
            for (const Record& r : out) bf.byOrderedPair[{i, j}].push_back(key(r));
        }
    for (auto& kv : bf.byOrderedPair) std::sort(kv.second.begin(), kv.second.end());
    return bf;
}

// Checks a self traversal's records that come from the tree walk (faces sharing no vertex)
// against the brute force: every pair that the kernel reports in both orders is found, nothing
// outside the pairs reported in some order is found, and each found pair's records are exactly
// the kernel's records for that call.
template <class Record>
void expectMatchesBruteForce(const GmTriangleMesh* mesh, const std::vector<Record>& found,
                             const BruteForce<Record>& bf) {
    std::map<FacePair, std::vector<std::string>> walk;
    std::set<FacePair> foundPairs;
    std::vector<Record> fromWalk;
    for (const Record& r : found) {
        if (mesh != nullptr && mesh->shareVertex(r.triangleIndex1, r.triangleIndex2)) continue;
        fromWalk.push_back(r);
        const int a = r.triangleIndex1, b = r.triangleIndex2;
        foundPairs.insert(mesh != nullptr ? FacePair(std::min(a, b), std::max(a, b)) : FacePair(a, b));
    }
    walk = groupByPair(fromWalk);
    for (const FacePair& p : bf.must) EXPECT_TRUE(foundPairs.count(p)) << "missed pair " << p.first << ' ' << p.second;
    for (const FacePair& p : foundPairs)
        EXPECT_TRUE(bf.may.count(p)) << "pair not reported by the kernel " << p.first << ' ' << p.second;
    for (const auto& kv : walk) {
        auto it = bf.byOrderedPair.find(kv.first);
        ASSERT_TRUE(it != bf.byOrderedPair.end()) << "records for an unexpected call " << kv.first.first << ' '
                                                  << kv.first.second;
        EXPECT_EQ(kv.second, it->second) << "records of pair " << kv.first.first << ' ' << kv.first.second;
    }
}

// The leaf pairs of a self query that the walk must examine: faces that share no vertex and
// whose leaf boxes overlap (the hierarchy's own float boxes).
inline std::uint32_t overlappingLeafPairs(const GmBoundingVolumeHierarchy& tree, bool skipDisabled = false) {
    int first = 0, last = 0;
    tree.getLeafRange(first, last);
    const GmTriangleMesh& mesh = *tree.getTriangleMesh();
    std::uint32_t count = 0;
    for (int a = first; a < last; ++a)
        for (int b = a + 1; b < last; ++b) {
            const auto& na = tree.getNode(a);
            const auto& nb = tree.getNode(b);
            if (skipDisabled && (na.disabled || nb.disabled)) continue;
            if (mesh.shareVertex(na.primitive->index, nb.primitive->index)) continue;
            if (na.box.overlaps(nb.box)) ++count;
        }
    return count;
}

// Runs `query(results, metrics)` serially and in parallel; expects identical record sets and
// counters and returns the serial results and counters.
template <class Record, class Query>
std::pair<std::vector<Record>, GmBVHMetrics> serialAndParallel(Query&& query) {
    ThreadingSwitch sw;
    std::vector<Record> serial, parallel;
    GmBVHMetrics ms, mp;
    sw.set(false);
    const bool rs = query(serial, ms);
    sw.set(true);
    const bool rp = query(parallel, mp);
    EXPECT_EQ(rs, !serial.empty());
    EXPECT_EQ(rp, !parallel.empty());
    EXPECT_EQ(serial.size(), parallel.size());
    EXPECT_TRUE(sortedKeys(serial) == sortedKeys(parallel)) << "serial and parallel record sets differ";
    EXPECT_TRUE(ms == mp) << "serial and parallel counters differ:\n" << ms << mp;
    return {std::move(serial), ms};
}

}  // namespace collisiontest

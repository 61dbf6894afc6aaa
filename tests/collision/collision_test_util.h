#pragma once

// Scenes, brute-force references and record comparison for the collision traversal tests.

#include <algorithm>
#include <cfloat>
#include <cmath>
#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <set>
#include <sstream>
#include <string>
#include <utility>
#include <vector>

#include <gtest/gtest.h>

#include <quarrygeom/quarrygeom.h>

#include "qgtools/data_dir.h"
#include "qgtools/mesh_io.h"
#include "qgtools/shapes.h"
#include "../support/threading.h"

namespace collisiontest {

using Vec = GmTVector<double>;
using Positions = std::vector<Vec>;
using FacePair = std::pair<int, int>;
using GmIntersection::ComponentTests;

// Deterministic pseudo-random value in [-1, 1] from an integer.
inline double jitter(std::uint32_t i) {
    i ^= i >> 16;
    i *= 0x7feb352dU;
    i ^= i >> 15;
    i *= 0x846ca68bU;
    i ^= i >> 16;
    return (static_cast<double>(i) / 4294967295.0) * 2.0 - 1.0;
}

// A unit cloth grid whose right half (x > 0.5) turns about the hinge x = 0.5 from `angleStart`
// to `angleEnd` over the step; every vertex is jittered by up to 1e-3 in z so that nothing is
// exactly coplanar. Returns the mesh at the start and the end positions.
inline std::pair<GmTriangleMesh, Positions> fold(int n, double angleStart, double angleEnd) {
    std::pair<GmTriangleMesh, Positions> s{qgtools::makeClothGrid(n, n, 1.0, 1.0), {}};
    auto turned = [&](double angle) {
        Positions out = s.first.getVertices();
        for (std::size_t i = 0; i < out.size(); ++i) {
            const double d = out[i].x - 0.5;
            if (d > 0) out[i] = Vec(0.5 + d * std::cos(angle), out[i].y, out[i].z + d * std::sin(angle));
            out[i].z += 1e-3 * jitter(static_cast<std::uint32_t>(i));
        }
        return out;
    };
    s.second = turned(angleEnd);
    s.first.setVertices(turned(angleStart));
    return s;
}

inline GmTriangleMesh loadSpot() { return qgtools::loadObjMesh(qgtools::dataDir() + "/meshes/spot.obj"); }

// Folds a surface onto itself about the horizontal plane through its centroid: the upper half
// is mirrored below it (tilted, so the layers are not parallel), the lower half compressed, so
// top and bottom pass through each other. On its way the upper half passes a flat sheet, where
// edges on one line touch: parallel edges in contact.
inline Positions foldZ(const Positions& p, double factor) {
    double cz = 0;
    for (const Vec& v : p) cz += v.z;
    cz /= static_cast<double>(p.size());
    Positions out = p;
    for (Vec& v : out) {
        const double h = v.z - cz;
        v.z = h > 0 ? cz - factor * h + 0.01 * std::sin(5.0 * v.x) : cz + 1.1 * factor * h;
    }
    return out;
}

inline std::string key(const GmTriangleInterferenceInfo& r) {
    std::ostringstream os;
    os.precision(17);
    os << r.objectIndex1 << ' ' << r.objectIndex2 << ' ' << r.triangleIndex1 << ' ' << r.triangleIndex2 << ' '
       << r.time << ' ' << r.distance << ' ' << r.falloff << ' ' << r.normal << ' ' << int(r.type) << ' '
       << r.feature1 << ' ' << r.feature2 << ' ' << r.point << ' ' << int(r.pointType) << ' ' << r.barycentric1
       << ' ' << r.barycentric2;
    for (int v : r.vertexIndices) os << ' ' << v;
    for (int e : r.edgeIndices) os << ' ' << e;
    return os.str();
}
inline std::string key(const GmContinuousTimeIntersectionInfo& r) {
    return key(static_cast<const GmTriangleInterferenceInfo&>(r)) + (r.pinched0 ? " p" : " -") + (r.pinched1 ? "p" : "-");
}
inline std::string key(const GmProximityCheckInfo& r) {
    return key(static_cast<const GmTriangleInterferenceInfo&>(r)) + (r.pinched ? " p" : " -");
}
inline std::string key(const GmIntersectionInfo& r) {
    std::ostringstream os;
    os.precision(17);
    os << r.triangleIndex1 << ' ' << r.triangleIndex2;
    for (const Vec& p : r.points) os << " (" << p << ')';
    return os.str();
}

template <class Record>
std::vector<std::string> sortedKeys(const std::vector<Record>& records) {
    std::vector<std::string> keys;
    for (const Record& r : records) keys.push_back(key(r));
    std::sort(keys.begin(), keys.end());
    return keys;
}

// Double-precision box of a face over several position sets, padded: a reference prefilter
// strictly more inclusive than the hierarchy's boxes.
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
        Box& b = boxes[std::size_t(f)];
        std::fill(b.lo, b.lo + 3, 1e300);
        std::fill(b.hi, b.hi + 3, -1e300);
        for (const Positions* ps : sets)
            for (int v : mesh.getFace(f).vertices)
                for (int a = 0; a < 3; ++a) {
                    b.lo[a] = std::min(b.lo[a], (*ps)[std::size_t(v)][a] - pad);
                    b.hi[a] = std::max(b.hi[a], (*ps)[std::size_t(v)][a] + pad);
                }
    }
    return boxes;
}

// Pairs the kernel reports for every face pair whose reference boxes overlap: for one mesh
// (`self`: pairs sharing no vertex, both call orders) or two (face of the first, face of the
// second). `must`: reported in every order; `may`: in some order; per ordered call its records.
struct BruteForce {
    std::set<FacePair> must, may;
    std::map<FacePair, std::vector<std::string>> byCall;
};

template <class Record, class Kernel>
BruteForce bruteForce(const GmTriangleMesh* self, const std::vector<Box>& boxes1, const std::vector<Box>& boxes2,
                      Kernel&& kernel) {
    BruteForce bf;
    std::vector<Record> out;
    auto call = [&](int i, int j) {
        out.clear();
        const bool hit = kernel(i, j, out);
        for (const Record& r : out) bf.byCall[{i, j}].push_back(key(r));
        return hit;
    };
    for (int i = 0; i < int(boxes1.size()); ++i)
        for (int j = self ? i + 1 : 0; j < int(boxes2.size()); ++j) {
            if (!boxes1[std::size_t(i)].overlaps(boxes2[std::size_t(j)])) continue;
            if (self && self->shareVertex(i, j)) continue;
            const bool ij = call(i, j), ji = self ? call(j, i) : ij;
            if (ij && ji) bf.must.insert({i, j});
            if (ij || ji) bf.may.insert({i, j});
        }
    for (auto& kv : bf.byCall) std::sort(kv.second.begin(), kv.second.end());
    return bf;
}

// The walk's records of faces sharing no vertex against the brute force: every pair reported
// in every order is found, nothing the kernel never reports, and each pair's records are
// exactly those of the kernel call for that order.
template <class Record>
void expectMatchesBruteForce(const GmTriangleMesh* self, const std::vector<Record>& found, const BruteForce& bf) {
    std::map<FacePair, std::vector<std::string>> walk;
    std::set<FacePair> pairs;
    for (const Record& r : found) {
        const int a = r.triangleIndex1, b = r.triangleIndex2;
        if (self != nullptr && self->shareVertex(a, b)) continue;
        walk[{a, b}].push_back(key(r));
        pairs.insert(self != nullptr ? FacePair(std::min(a, b), std::max(a, b)) : FacePair(a, b));
    }
    for (const FacePair& p : bf.must) EXPECT_TRUE(pairs.count(p)) << "missed pair " << p.first << ' ' << p.second;
    for (const FacePair& p : pairs) EXPECT_TRUE(bf.may.count(p)) << "pair never reported " << p.first << ' ' << p.second;
    for (auto& kv : walk) {
        std::sort(kv.second.begin(), kv.second.end());
        auto it = bf.byCall.find(kv.first);
        ASSERT_TRUE(it != bf.byCall.end()) << "unexpected call " << kv.first.first << ' ' << kv.first.second;
        EXPECT_EQ(kv.second, it->second) << "records of pair " << kv.first.first << ' ' << kv.first.second;
    }
}

// Leaf pairs a self walk must examine: faces sharing no vertex whose float leaf boxes overlap.
inline std::uint32_t overlappingLeafPairs(const GmBoundingVolumeHierarchy& tree, bool skipDisabled = false) {
    int first = 0, last = 0;
    tree.getLeafRange(first, last);
    const GmTriangleMesh& mesh = *tree.getTriangleMesh();
    std::uint32_t count = 0;
    for (int a = first; a < last; ++a)
        for (int b = a + 1; b < last; ++b) {
            const auto &na = tree.getNode(a), &nb = tree.getNode(b);
            if (skipDisabled && (na.disabled || nb.disabled)) continue;
            if (!mesh.shareVertex(na.primitive->index, nb.primitive->index) && na.box.overlaps(nb.box)) ++count;
        }
    return count;
}

// Runs `query(results, metrics)` serially and in parallel; expects the return value to say
// whether records were found, identical record sets and identical counters. Returns the serial run.
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
    EXPECT_EQ(sortedKeys(serial), sortedKeys(parallel)) << "serial and parallel record sets differ";
    EXPECT_TRUE(ms == mp) << "serial and parallel counters differ:\n" << ms << mp;
    return {std::move(serial), ms};
}

}  // namespace collisiontest

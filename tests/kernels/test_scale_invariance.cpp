// One scene, a cloth falling onto a sphere over a few steps, run at scales 2^k: the same records
// (indices, features, times, normals) and the same inside answers at every scale. And inside answers for points on and near the surface of
// convex meshes at every scale, against exact rational signs.

#include <gtest/gtest.h>

#include "exact_reference.h"

#include <algorithm>
#include <cmath>
#include <sstream>
#include <string>
#include <tuple>
#include <vector>

#include <qgtools/shapes.h>
#include <quarrygeom/quarrygeom.h>

namespace {

using Vec = GmTVector<double>;
using Positions = std::vector<Vec>;

// Powers of two from features of 1e-15 to 1e14 (coordinates up to 4e14); the supported range is
// 2^-36 (gaps of 1e-12) to 2^41 (edges of 1e12).
constexpr int kScales[] = {-48, -36, -20, 8, 30, 41, 48};
// The records hold up to 2^20: beyond it the boxes' fixed 1e-8 pad is below the kernels'
// relative tolerance, and pairs that come within that tolerance without touching are pruned.
constexpr int kRecordScales[] = {-48, -36, -20, -8, 8, 20};

// The cloth's positions at step n (of a 1.6 x 1.6 sheet, 24 x 24 cells): falling by 0.15 per
// step and draped over the unit sphere once it reaches it; the border flaps fold inwards.
Positions clothAt(const GmTriangleMesh& flat, int n) {
    Positions p = flat.getVertices();
    for (Vec& v : p) {
        const double r2 = v.x * v.x + v.y * v.y;
        const double drop = 1.3 - 0.15 * n;
        const double top = r2 < 1.0 ? std::sqrt(1.0 - r2) + 0.01 : -1e9;
        v.z = std::max(drop, top);
        if (r2 > 0.7 && drop < top + 0.2) v.z -= 0.3 * (r2 - 0.7) * n;  // the flaps hang down
        const double pull = 1.0 - 0.02 * n * r2;
        v.x *= pull;
        v.y *= pull;
    }
    return p;
}

// Everything the queries report, with times and normals as they are (compared exactly).
struct Snapshot {
    std::vector<std::string> records;
    std::vector<char> inside;
};

template <class R>
std::string key(const R& r) {
    std::ostringstream s;
    s.precision(17);
    s << int(r.type) << ' ' << r.triangleIndex1 << ' ' << r.triangleIndex2 << ' ' << r.feature1 << ' ' << r.feature2
      << ' ' << r.time << ' ' << r.normal.x << ' ' << r.normal.y << ' ' << r.normal.z << ' ' << int(r.pointType);
    return s.str();
}

Snapshot run(int k, int steps) {
    const double sc = std::ldexp(1.0, k);
    GmTriangleMesh flat = qgtools::makeClothGrid(24, 24, 1.6, 1.6, Vec(-0.8, -0.8, 0.0));
    GmTriangleMesh cloth = flat;
    GmTriangleMesh sphere = qgtools::makeIcosphere(3, 1.0);
    Positions sp = sphere.getVertices();
    for (Vec& v : sp) v *= sc;
    sphere.setVertices(sp);
    GmBoundingTree sphereTree(&sphere, sp);
    Snapshot out;
    for (int n = 0; n < steps; ++n) {
        Positions start = clothAt(flat, n), end = clothAt(flat, n + 1);
        for (Vec& v : start) v *= sc;
        for (Vec& v : end) v *= sc;
        cloth.setVertices(start);
        GmBoundingTree clothTree(&cloth, end);
        GmBVHMetrics m;
        std::vector<GmContinuousTimeIntersectionInfo> ccd, self;
        clothTree.continuousTimeIntersect(ccd, end, sphereTree, sp, nullptr, nullptr, GmIntersection::kAllTests, false,
                                          false, false, 0, 1, m);
        clothTree.continuousTimeSelfIntersect(self, end, GmIntersection::kAllTests, false, false, 0, m);
        std::vector<std::string> keys;
        for (const auto& r : ccd) keys.push_back("mesh " + key(r));
        for (const auto& r : self) keys.push_back("self " + key(r));
        std::sort(keys.begin(), keys.end());
        out.records.insert(out.records.end(), keys.begin(), keys.end());
        out.records.push_back("step " + std::to_string(n) + " " + std::to_string(ccd.size()) + " " +
                              std::to_string(self.size()));
        for (const Vec& v : end) out.inside.push_back(sphereTree.isInsideMesh(v, true));
    }
    return out;
}

}  // namespace

TEST(ScaleInvariance, ClothOnSphereGivesTheSameRecordsAtEveryScale) {
    const int steps = 6;
    const Snapshot unit = run(0, steps);
    std::size_t contacts = 0, inside = 0;
    for (const std::string& r : unit.records) contacts += r.rfind("step", 0) != 0;
    for (char c : unit.inside) inside += c != 0;
    ASSERT_GT(contacts, 50u);
    ASSERT_GT(inside, 10u);
    ASSERT_LT(inside, unit.inside.size());
    for (const int k : kRecordScales) {
        const Snapshot s = run(k, steps);
        const std::size_t n = std::min(s.records.size(), unit.records.size());
        std::size_t first = 0;
        while (first < n && s.records[first] == unit.records[first]) ++first;
        EXPECT_EQ(first, unit.records.size()) << "2^" << k << ": "
                                              << (first < s.records.size() ? s.records[first] : "(end)") << " instead of "
                                              << (first < unit.records.size() ? unit.records[first] : "(end)");
        EXPECT_EQ(s.inside, unit.inside) << "2^" << k;
    }
}

namespace {

// Sign of det(b - a, c - a, p - a): in double where the value stands far above its rounding
// (the classic bound is 8e-16 of the permanent), else with exact rationals.
int orientSign(const Vec& a, const Vec& b, const Vec& c, const Vec& p) {
    const Vec u = b - a, v = c - a, w = p - a;
    const double det = u.x * (v.y * w.z - v.z * w.y) - u.y * (v.x * w.z - v.z * w.x) + u.z * (v.x * w.y - v.y * w.x);
    const double perm = std::fabs(u.x) * (std::fabs(v.y * w.z) + std::fabs(v.z * w.y)) +
                        std::fabs(u.y) * (std::fabs(v.x * w.z) + std::fabs(v.z * w.x)) +
                        std::fabs(u.z) * (std::fabs(v.x * w.y) + std::fabs(v.y * w.x));
    if (std::fabs(det) > 1e-13 * perm) return det > 0 ? 1 : -1;
    const qgtest::Exact A = qgtest::exact(a), B = qgtest::exact(b), C = qgtest::exact(c), P = qgtest::exact(p);
    mpq_class m[3][3];
    for (std::size_t k = 0; k < 3; ++k) {
        m[0][k] = B[k] - A[k];
        m[1][k] = C[k] - A[k];
        m[2][k] = P[k] - A[k];
    }
    const mpq_class d = m[0][0] * (m[1][1] * m[2][2] - m[1][2] * m[2][1]) -
                        m[0][1] * (m[1][0] * m[2][2] - m[1][2] * m[2][0]) +
                        m[0][2] * (m[1][0] * m[2][1] - m[1][1] * m[2][0]);
    return sgn(d);
}

Vec corner(const GmTriangleMesh& mesh, int f, int k) { return mesh.getVertices()[std::size_t(mesh.getFace(f).vertices[k])]; }

// Inside or on the surface of a convex closed mesh around `centre`, exactly: on no face's far side.
bool exactInsideConvex(const GmTriangleMesh& mesh, const Vec& centre, const Vec& p) {
    for (int f = 0; f < mesh.getNumberFaces(); ++f) {
        const Vec a = corner(mesh, f, 0), b = corner(mesh, f, 1), c = corner(mesh, f, 2);
        const int s = orientSign(a, b, c, p);
        if (s != 0 && s != orientSign(a, b, c, centre)) return false;
    }
    return true;
}

// Points exactly on the surface (vertices, edge midpoints, for the cube points of its faces and
// edges) and points off each face by 1e-7, 1e-10 and 1e-13 of the mesh's size on either side.
std::vector<Vec> probes(const GmTriangleMesh& mesh, bool axisAligned) {
    std::vector<Vec> out = mesh.getVertices();
    for (int f = 0; f < mesh.getNumberFaces(); f += axisAligned ? 1 : 3) {
        const Vec a = corner(mesh, f, 0), b = corner(mesh, f, 1), c = corner(mesh, f, 2);
        out.push_back((a + b) * 0.5);
        Vec n = (b - a).cross(c - a);
        n /= n.length();
        const Vec q = a * 0.3 + b * 0.3 + c * 0.4;
        if (axisAligned) {
            for (int k = 0; k < 3; ++k)  // exactly on the face's plane
                if (a[k] == b[k] && b[k] == c[k]) {
                    Vec on = q, edge = (a + b) * 0.5;
                    on[k] = a[k];
                    edge[k] = a[k];
                    out.push_back(on);
                    out.push_back(edge * 0.75 + a * 0.25);
                }
        }
        for (const double off : {1e-7, 1e-10, 1e-13})
            for (const double side : {-1.0, 1.0}) out.push_back(q + n * (side * off));
    }
    return out;
}

}  // namespace

TEST(ScaleInvariance, InsideAnswersOnAndNearTheSurfaceAreExactAtEveryScale) {
    struct Case {
        GmTriangleMesh mesh;
        Vec centre;
        bool axisAligned;
    };
    std::vector<Case> cases;
    cases.push_back({qgtools::makeIcosphere(3, 1.0), Vec(0, 0, 0), false});
    cases.push_back({qgtools::makeCube(Vec(-0.5, -0.25, 0.0), Vec(0.75, 0.5, 1.0)), Vec(0.125, 0.125, 0.5), true});
    for (Case& c : cases) {
        const GmTriangleMesh& mesh = c.mesh;
        // Convex: no face's neighbour across an edge reaches the face's far side.
        for (int f = 0; f < mesh.getNumberFaces(); ++f)
            for (const int e : mesh.getFace(f).edges) {
                const int g = mesh.getOtherFace(f, e);
                ASSERT_TRUE(g >= 0 && orientSign(corner(mesh, f, 0), corner(mesh, f, 1), corner(mesh, f, 2),
                                                 mesh.getVertices()[std::size_t(mesh.getOtherVertex(g, e))]) *
                                              orientSign(corner(mesh, f, 0), corner(mesh, f, 1), corner(mesh, f, 2), c.centre) >= 0);
            }
        const std::vector<Vec> points = probes(mesh, c.axisAligned);
        std::vector<char> expected;
        std::size_t inside = 0;
        for (const Vec& p : points) {
            expected.push_back(exactInsideConvex(mesh, c.centre, p));
            inside += expected.back() != 0;
        }
        ASSERT_GT(inside, points.size() / 3);
        ASSERT_LT(inside, points.size());
        for (const int k : kScales) {
            const double sc = std::ldexp(1.0, k);
            GmTriangleMesh scaled = mesh;
            Positions v = mesh.getVertices();
            for (Vec& x : v) x *= sc;
            scaled.setVertices(v);
            for (const bool prepared : {false, true}) {
                GmBoundingTree tree(&scaled);
                if (prepared) {
                    ASSERT_TRUE(tree.prepareInsideQueries(true));
                }
                std::size_t wrong = 0, first = points.size();
                for (std::size_t i = 0; i < points.size(); ++i) {
                    if (tree.isInsideMesh(points[i] * sc, true) != (expected[i] != 0) && wrong++ == 0) first = i;
                }
                EXPECT_EQ(wrong, 0u) << "2^" << k << (prepared ? " prepared" : "") << ", first at point " << first
                                     << " of " << points.size();
            }
        }
    }
}

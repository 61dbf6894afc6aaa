// One scene, a cloth falling onto a sphere over a few steps, run at scales 2^-40 to 2^20: the
// same records (indices, features, times, normals) and the same inside answers at every scale.
// (Far above unit scale the hierarchy's fixed box padding of 1e-8 no longer covers pairs that
// the kernels accept within their relative in-plane tolerance, and such pairs drop out.)

#include <gtest/gtest.h>

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
    for (const int k : {-40, -20, -8, 8, 20}) {
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

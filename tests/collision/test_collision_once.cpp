// Continuous-time self queries that test each feature pair once: the distinct contacts and
// earliest times of a brute force over all feature pairs, each recorded once, serial and
// parallel alike, with records of the query that records every triangle pair.

#include "collision_test_util.h"

#include <tuple>

#include <quarrygeom/primitives/GmIntersection.h>

using namespace collisiontest;
using Record = GmContinuousTimeIntersectionInfo;

namespace {

// A distinct contact: ('V', vertex, face) or ('E', lower edge, higher edge), and its earliest time.
using Contact = std::tuple<char, int, int>;
using Contacts = std::map<Contact, double>;

// Distinct contacts of the records; `repeats` counts records beyond the first of each.
Contacts distinct(const std::vector<Record>& records, std::size_t& repeats) {
    Contacts out;
    repeats = 0;
    for (const Record& r : records) {
        const Contact c = r.type == GmInterferenceType::EDGE_EDGE
                              ? Contact{'E', std::min(r.feature1, r.feature2), std::max(r.feature1, r.feature2)}
                              : Contact{'V', r.feature1, r.feature2};
        auto [it, fresh] = out.emplace(c, r.time);
        if (!fresh) ++repeats, it->second = std::min(it->second, r.time);
    }
    return out;
}

void expectSameContacts(const Contacts& expected, const Contacts& found) {
    auto name = [](const Contact& c) {
        return std::string(1, std::get<0>(c)) + ' ' + std::to_string(std::get<1>(c)) + ' ' + std::to_string(std::get<2>(c));
    };
    for (const auto& [c, t] : expected) {
        auto it = found.find(c);
        if (it == found.end()) ADD_FAILURE() << "missed " << name(c);
        else EXPECT_NEAR(it->second, t, 1e-9) << "time of " << name(c);
    }
    for (const auto& kv : found) EXPECT_TRUE(expected.count(kv.first)) << "extra " << name(kv.first);
}

// The upper part of a closed mesh (z above `cut`) moves down by `drop` through the lower part.
std::pair<GmTriangleMesh, Positions> halvesThrough(GmTriangleMesh mesh, double cut, double drop) {
    Positions end = mesh.getVertices();
    for (std::size_t i = 0; i < end.size(); ++i)
        if (end[i].z > cut) end[i] += Vec(0.013 * jitter(std::uint32_t(i)), 0.0, -drop);
    return {std::move(mesh), std::move(end)};
}

// Every vertex against every face without it, every pair of edges without a common vertex,
// through the continuous tests directly.
Contacts bruteForceContacts(const GmTriangleMesh& mesh, const Positions& end) {
    const Positions& p0 = mesh.getVertices();
    auto at = [](const Positions& ps, int i) { return ps[std::size_t(i)]; };
    Contacts expected;
    double t, s, u;
    Vec p, b, n;
    for (int v = 0; v < mesh.getNumberVertices(); ++v)
        for (int f = 0; f < mesh.getNumberFaces(); ++f) {
            const int* c = mesh.getFace(f).vertices;
            if (c[0] != v && c[1] != v && c[2] != v &&
                GmIntersection::pointFaceIntersection(at(p0, v), at(p0, c[0]), at(p0, c[1]), at(p0, c[2]), at(end, v),
                                                      at(end, c[0]), at(end, c[1]), at(end, c[2]), DBL_MAX, t, p, b, n))
                expected[{'V', v, f}] = t;
        }
    for (int e = 0; e < mesh.getNumberEdges(); ++e)
        for (int g = e + 1; g < mesh.getNumberEdges(); ++g) {
            const GmTriangleEdge &x = mesh.getEdge(e), &y = mesh.getEdge(g);
            if (!x.hasVertex(y.from) && !x.hasVertex(y.to) &&
                GmIntersection::edgeEdgeIntersection(at(p0, x.from), at(p0, x.to), at(p0, y.from), at(p0, y.to),
                                                     at(end, x.from), at(end, x.to), at(end, y.from), at(end, y.to),
                                                     DBL_MAX, t, s, u, n))
                expected[{'E', e, g}] = t;
        }
    return expected;
}

}  // namespace

// Each scene against the brute force; the records kept are records of the mode that records
// every triangle pair (the owning pair's), with fewer feature tests than that mode.
TEST(EachFeaturePairOnce, MatchesBruteForceOverAllFeaturePairs) {
    const std::vector<std::pair<std::string, std::function<std::pair<GmTriangleMesh, Positions>()>>> scenes = {
        {"fold through itself", [] { return fold(10, M_PI - 0.25, M_PI + 0.25); }},
        {"hinge folded flat", [] { return fold(6, M_PI - 0.4, M_PI + 0.05); }},
        {"sphere halves", [] { return halvesThrough(qgtools::makeIcosphere(2), 0.1, 0.9); }},
        {"torus halves", [] { return halvesThrough(qgtools::makeTorus(24, 10), 0.0, 0.45); }},
        {"cube halves", [] { return halvesThrough(qgtools::makeCube(), 0.5, 1.3); }},
        {"tetrahedron",
         [] {
             GmTriangleMesh m = qgtools::makeTetrahedron();
             Positions end = m.getVertices();
             end[0] = (end[1] + end[2] + end[3]) * 0.5 - end[0] * 0.5;  // through the opposite face
             return std::make_pair(std::move(m), std::move(end));
         }},
    };
    for (const auto& [name, make] : scenes) {
        SCOPED_TRACE(name);
        auto [mesh, end] = make();
        const Contacts expected = bruteForceContacts(mesh, end);
        EXPECT_FALSE(expected.empty());
        // The mode is set through the facade and travels with a copy of its hierarchy.
        GmBoundingTree facade(&mesh, end);
        EXPECT_EQ(facade.getSelfContactRecords(), GmSelfContactRecords::EveryTrianglePair);
        std::vector<Record> every;
        GmBVHMetrics mEvery;
        facade.getHierarchy()->continuousTimeSelfIntersect(every, end, GmIntersection::kAllTests, false, false, 0,
                                                           mEvery);
        facade.setSelfContactRecords(GmSelfContactRecords::EachFeaturePairOnce);
        const GmBoundingVolumeHierarchy tree(*facade.getHierarchy());
        auto [once, mOnce] = serialAndParallel<Record>([&](std::vector<Record>& r, GmBVHMetrics& m) {
            return tree.continuousTimeSelfIntersect(r, end, GmIntersection::kAllTests, false, false, 0, m);
        });
        std::size_t repeatsEvery = 0, repeatsOnce = 0;
        expectSameContacts(expected, distinct(every, repeatsEvery));
        expectSameContacts(expected, distinct(once, repeatsOnce));
        EXPECT_EQ(repeatsOnce, 0u);
        if (repeatsEvery > 0) {
            EXPECT_LT(mOnce.vertexFaceTests() + mOnce.edgeEdgeTests(),
                      mEvery.vertexFaceTests() + mEvery.edgeEdgeTests());
        }
        const std::vector<std::string> all = sortedKeys(every);
        for (const Record& r : once) EXPECT_TRUE(std::binary_search(all.begin(), all.end(), key(r))) << key(r);

        // A third of the faces disabled and every other one frozen: the contacts of the other mode.
        GmDisabledData disabled(&mesh);
        GmFrozenData frozen(mesh.getNumberFaces());
        std::vector<int> off;
        for (int f = 0; f < mesh.getNumberFaces(); ++f) {
            if (f % 3 == 0) off.push_back(f);
            if (f % 2 == 1) frozen.setFaceFrozen(f);
        }
        disabled.disableFaces(off);
        GmBoundingVolumeHierarchy masked(&mesh, end, &disabled, &frozen);
        auto run = [&](std::vector<Record>& r, GmBVHMetrics& m) {
            return masked.continuousTimeSelfIntersect(r, end, GmIntersection::kAllTests, false, false, 0, m);
        };
        const Contacts everyMasked = distinct(serialAndParallel<Record>(run).first, repeatsEvery);
        masked.setSelfContactRecords(GmSelfContactRecords::EachFeaturePairOnce);
        expectSameContacts(everyMasked, distinct(serialAndParallel<Record>(run).first, repeatsOnce));
        EXPECT_EQ(repeatsOnce, 0u);
    }
}

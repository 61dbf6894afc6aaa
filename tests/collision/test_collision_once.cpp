// Continuous-time self queries that test each feature pair once: the same distinct contacts and
// earliest times as the query that records every triangle pair, each recorded once, serial and
// parallel alike; and the same contacts as a brute force over all feature pairs.

#include "collision_test_util.h"

#include <tuple>

#include <quarrygeom/primitives/GmIntersection.h>

using namespace collisiontest;
using GmIntersection::ComponentTests;
using Record = GmContinuousTimeIntersectionInfo;

namespace {

// A distinct contact: ('V', vertex, face) or ('E', lower edge, higher edge).
using Contact = std::tuple<char, int, int>;

Contact contactOf(const Record& r) {
    if (r.type == GmInterferenceType::EDGE_EDGE)
        return {'E', std::min(r.feature1, r.feature2), std::max(r.feature1, r.feature2)};
    return {'V', r.feature1, r.feature2};
}

// Earliest time of each distinct contact; `repeats` counts records beyond the first.
std::map<Contact, double> distinct(const std::vector<Record>& records, std::size_t* repeats = nullptr) {
    std::map<Contact, double> out;
    std::size_t extra = 0;
    for (const Record& r : records) {
        auto [it, fresh] = out.emplace(contactOf(r), r.time);
        if (!fresh) {
            ++extra;
            it->second = std::min(it->second, r.time);
        }
    }
    if (repeats) *repeats = extra;
    return out;
}

void expectSameContacts(const std::map<Contact, double>& expected, const std::map<Contact, double>& found,
                        const std::string& what) {
    for (const auto& [c, t] : expected) {
        auto it = found.find(c);
        if (it == found.end()) {
            ADD_FAILURE() << what << ": missed " << std::get<0>(c) << ' ' << std::get<1>(c) << ' ' << std::get<2>(c);
            continue;
        }
        EXPECT_NEAR(it->second, t, 1e-9) << what << ": time of " << std::get<0>(c) << ' ' << std::get<1>(c) << ' '
                                         << std::get<2>(c);
    }
    for (const auto& kv : found)
        EXPECT_TRUE(expected.count(kv.first)) << what << ": extra " << std::get<0>(kv.first) << ' '
                                              << std::get<1>(kv.first) << ' ' << std::get<2>(kv.first);
}

// Masks and mesh tests a scene may switch on.
enum Extra { None = 0, Disabled = 1, Frozen = 2, RadiusTest = 4 };

struct Scene {
    std::string name;
    std::function<std::pair<GmTriangleMesh, Positions>()> make;
    int extras;
};

// The upper half of a closed mesh (z above `cut`) moves down by `drop` through the lower half.
std::pair<GmTriangleMesh, Positions> halvesThrough(GmTriangleMesh mesh, double cut, double drop) {
    Positions end = mesh.getVertices();
    for (std::size_t i = 0; i < end.size(); ++i)
        if (end[i].z > cut) end[i] += Vec(0.013 * jitter(std::uint32_t(i)), 0.0, -drop);
    return {std::move(mesh), std::move(end)};
}

std::pair<GmTriangleMesh, Positions> fold(int n, double a0, double a1) {
    auto s = makeFoldScene(n, a0, a1);
    return {s->mesh, s->end};
}

const std::vector<Scene>& scenes() {
    static const std::vector<Scene> list = {
        {"fold through itself", [] { return fold(14, M_PI - 0.25, M_PI + 0.25); }, None},
        {"hinge folded flat", [] { return fold(6, M_PI - 0.4, M_PI + 0.05); }, None},
        {"sphere halves through each other",
         [] { return halvesThrough(qgtools::makeIcosphere(3), 0.1, 0.9); }, None},
        {"torus halves through each other", [] { return halvesThrough(qgtools::makeTorus(24, 10), 0.0, 0.45); }, None},
        {"fold with disabled faces", [] { return fold(10, M_PI - 0.25, M_PI + 0.25); }, Disabled},
        {"fold with frozen faces", [] { return fold(10, M_PI - 0.25, M_PI + 0.25); }, Frozen},
        {"sphere with the vertex-radius test",
         [] { return halvesThrough(qgtools::makeIcosphere(2), -0.2, 0.8); }, RadiusTest},
    };
    return list;
}

// Runs the query in one mode; the tree carries the scene's masks and mesh tests.
struct Query {
    GmTriangleMesh mesh;
    Positions end;
    std::unique_ptr<GmDisabledData> disabled;
    std::unique_ptr<GmFrozenData> frozen;
    std::shared_ptr<std::vector<Vec>> refPositions;
    std::unique_ptr<GmBoundingVolumeHierarchy> tree;

    explicit Query(const Scene& s) {
        std::tie(mesh, end) = s.make();
        disabled = std::make_unique<GmDisabledData>(&mesh);
        frozen = std::make_unique<GmFrozenData>(&mesh);
        for (int f = 0; f < mesh.getNumberFaces(); ++f) {
            if ((s.extras & Disabled) && f % 7 == 3) disabled->setFaceDisabled(f);
            if ((s.extras & Frozen) && f % 3 != 0) frozen->setFaceFrozen(f);
        }
        tree = std::make_unique<GmBoundingVolumeHierarchy>(&mesh, end, disabled.get(), frozen.get());
        if (s.extras & RadiusTest) {
            refPositions = std::make_shared<std::vector<Vec>>(mesh.getVertices());
            GmIntersection::MeshTests tests;
            tests.setVertexRadiusTest(refPositions, 0.5, nullptr);
            tree->setMeshTests(tests);
        }
        mesh.getOrphanSet();
        disabled->getOrphanSet();  // built before the parallel runs
    }
    bool run(GmSelfContactRecords mode, std::vector<Record>& r, GmBVHMetrics& m) {
        tree->setSelfContactRecords(mode);
        return tree->continuousTimeSelfIntersect(r, end, GmIntersection::kAllTests, false, false, 0, m);
    }
};

}  // namespace

TEST(EachFeaturePairOnce, SameContactsAsEveryTrianglePairEachRecordedOnce) {
    for (const Scene& s : scenes()) {
        SCOPED_TRACE(s.name);
        Query q(s);
        std::vector<Record> every;
        GmBVHMetrics mEvery;
        q.run(GmSelfContactRecords::EveryTrianglePair, every, mEvery);
        auto [once, mOnce] = serialAndParallel<Record>(
            [&](std::vector<Record>& r, GmBVHMetrics& m) { return q.run(GmSelfContactRecords::EachFeaturePairOnce, r, m); });
        std::size_t repeatsEvery = 0, repeatsOnce = 0;
        const auto expected = distinct(every, &repeatsEvery);
        const auto found = distinct(once, &repeatsOnce);
        EXPECT_FALSE(expected.empty());
        EXPECT_GT(repeatsEvery, 0u) << "the scene should test some feature pairs more than once";
        EXPECT_EQ(repeatsOnce, 0u);
        expectSameContacts(expected, found, s.name);
        EXPECT_LT(mOnce.vertexFaceTests() + mOnce.edgeEdgeTests(), mEvery.vertexFaceTests() + mEvery.edgeEdgeTests());
        // The records that remain are records of the other mode (the owning pair's).
        const std::vector<std::string> all = sortedKeys(every);
        for (const Record& r : once)
            EXPECT_TRUE(std::binary_search(all.begin(), all.end(), key(r))) << "record not given by the other mode";
    }
}

// Small meshes: every vertex against every face without it, every pair of edges without a
// common vertex, through the continuous tests directly.
TEST(EachFeaturePairOnce, MatchesBruteForceOverAllFeaturePairs) {
    const std::vector<std::function<std::pair<GmTriangleMesh, Positions>()>> small = {
        [] { return fold(5, M_PI - 0.3, M_PI + 0.3); },
        [] { return halvesThrough(qgtools::makeIcosphere(1), 0.0, 0.7); },
        [] { return halvesThrough(qgtools::makeCube(), 0.5, 1.3); },
        [] {
            GmTriangleMesh m = qgtools::makeTetrahedron();
            Positions end = m.getVertices();
            end[0] = (end[1] + end[2] + end[3]) * (1.0 / 3.0) * 1.5 - end[0] * 0.5;  // through the opposite face
            return std::make_pair(std::move(m), std::move(end));
        },
    };
    for (std::size_t k = 0; k < small.size(); ++k) {
        SCOPED_TRACE("mesh " + std::to_string(k));
        auto [mesh, end] = small[k]();
        const Positions& start = mesh.getVertices();
        std::map<Contact, double> expected;
        for (int v = 0; v < mesh.getNumberVertices(); ++v)
            for (int f = 0; f < mesh.getNumberFaces(); ++f) {
                const int* c = mesh.getFace(f).vertices;
                if (c[0] == v || c[1] == v || c[2] == v) continue;
                double t;
                Vec p, b, n;
                auto at = [&](const Positions& ps, int i) { return ps[std::size_t(i)]; };
                if (GmIntersection::pointFaceIntersection(at(start, v), at(start, c[0]), at(start, c[1]), at(start, c[2]),
                                                          at(end, v), at(end, c[0]), at(end, c[1]), at(end, c[2]),
                                                          DBL_MAX, t, p, b, n))
                    expected[{'V', v, f}] = t;
            }
        for (int e = 0; e < mesh.getNumberEdges(); ++e)
            for (int g = e + 1; g < mesh.getNumberEdges(); ++g) {
                const GmTriangleEdge &a = mesh.getEdge(e), &b = mesh.getEdge(g);
                if (a.hasVertex(b.from) || a.hasVertex(b.to)) continue;
                double t, s, u;
                Vec n;
                auto at = [&](const Positions& ps, int i) { return ps[std::size_t(i)]; };
                if (GmIntersection::edgeEdgeIntersection(at(start, a.from), at(start, a.to), at(start, b.from),
                                                         at(start, b.to), at(end, a.from), at(end, a.to),
                                                         at(end, b.from), at(end, b.to), DBL_MAX, t, s, u, n))
                    expected[{'E', e, g}] = t;
            }
        GmBoundingVolumeHierarchy tree(&mesh, end);
        tree.setSelfContactRecords(GmSelfContactRecords::EachFeaturePairOnce);
        std::vector<Record> once;
        GmBVHMetrics m;
        tree.continuousTimeSelfIntersect(once, end, GmIntersection::kAllTests, false, false, 0, m);
        std::size_t repeats = 0;
        const auto found = distinct(once, &repeats);
        EXPECT_FALSE(expected.empty());
        EXPECT_EQ(repeats, 0u);
        expectSameContacts(expected, found, "brute force");
    }
}

// The mode travels with copies of the tree and through the facade; the default records every
// triangle pair.
TEST(EachFeaturePairOnce, ModeIsKeptByCopiesAndTheFacade) {
    auto [mesh, end] = fold(4, M_PI - 0.3, M_PI + 0.3);
    GmBoundingVolumeHierarchy tree(&mesh, end);
    EXPECT_EQ(tree.getSelfContactRecords(), GmSelfContactRecords::EveryTrianglePair);
    tree.setSelfContactRecords(GmSelfContactRecords::EachFeaturePairOnce);
    GmBoundingVolumeHierarchy copy(tree), assigned(&mesh, end);
    assigned = tree;
    EXPECT_EQ(copy.getSelfContactRecords(), GmSelfContactRecords::EachFeaturePairOnce);
    EXPECT_EQ(assigned.getSelfContactRecords(), GmSelfContactRecords::EachFeaturePairOnce);
    GmBoundingTree facade(&mesh, end);
    EXPECT_EQ(facade.getSelfContactRecords(), GmSelfContactRecords::EveryTrianglePair);
    facade.setSelfContactRecords(GmSelfContactRecords::EachFeaturePairOnce);
    EXPECT_EQ(facade.getHierarchy()->getSelfContactRecords(), GmSelfContactRecords::EachFeaturePairOnce);
}

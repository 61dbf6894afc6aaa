// Pinch classification: crossing rule, scenes with known sides, pinch-aware queries, messages.

#include <algorithm>
#include <cfloat>
#include <cmath>
#include <memory>
#include <random>
#include <sstream>
#include <string>
#include <tuple>
#include <vector>

#include <gtest/gtest.h>

#include <quarrygeom/quarrygeom.h>

#include "qgtools/mesh_io.h"
#include "qgtools/pinch_scenes.h"
#include "qgtools/shapes.h"
#include "../support/threading.h"

namespace {

using Vec = GmTVector<double>;
using qgtools::ConvexSolid;

std::vector<GmIntersectionInfo> selfRecords(const GmBoundingTree& tree) {
    std::vector<GmIntersectionInfo> records;
    GmBVHMetrics metrics;
    tree.selfIntersect(records, false, false, true, metrics);
    return records;
}

// Classifies and returns what went to the error stream.
std::string buildCapturing(SelfIntersectionInfo& info, const GmBoundingTree& tree,
                           const std::vector<GmIntersectionInfo>& records,
                           const std::vector<const GmBoundingTree*>& others = {}) {
    testing::internal::CaptureStderr();
    info.build(tree, records, others);
    return testing::internal::GetCapturedStderr();
}

// Two overlapping icospheres merged into one mesh, with their convex solids as reference.
struct SpheresScene {
    qgtools::PolygonSoup soup;
    GmTriangleMesh mesh;
    std::unique_ptr<GmBoundingTree> tree;
    ConvexSolid a, b;
    SelfIntersectionInfo info;

    explicit SpheresScene(int level) {
        const Vec c1(0, 0, 0), c2(0.83, 0.11, 0.07);
        soup = qgtools::overlappingSpheresSoup(level, c1, 1.0, c2, 0.9);
        mesh = qgtools::meshFromSoup(soup, false, "pinchedBody");
        tree.reset(new GmBoundingTree(&mesh));
        const int half = soup.numTriangles() / 2;
        a = ConvexSolid(soup, 0, half, c1);
        b = ConvexSolid(soup, half, half, c2);
        info.build(*tree, selfRecords(*tree));
    }
    bool unionContains(const Vec& p) const { return a.contains(p) || b.contains(p); }
};

// ---- Crossing rule -------------------------------------------------------------------------

TEST(PinchCrossing, PathAgainstOnePieceFollowsTheOrientationRule) {
    const Vec n(0, 0, 1);
    struct Case {
        const char* what;
        Vec r, q, a, b;
        bool crosses;
    };
    const Case cases[] = {
        {"proper crossing", {0, 0, 0}, {2, 0, 0}, {1, -1, 0}, {1, 1, 0}, true},
        {"piece beside the path", {0, 0, 0}, {2, 0, 0}, {3, -1, 0}, {3, 1, 0}, false},
        {"piece on one side", {0, 0, 0}, {2, 0, 0}, {1, 0.5, 0}, {1, 1, 0}, false},
        {"piece end on the path line", {0, 0, 0}, {2, 0, 0}, {1, 0, 0}, {1, 1, 0}, false},
        {"path end on the piece", {0, 0, 0}, {1, 0, 0}, {1, -1, 0}, {1, 1, 0}, false},
        {"path start on the piece", {1, 0, 0}, {2, 0, 0}, {1, -1, 0}, {1, 1, 0}, false},
        {"collinear and overlapping", {0, 0, 0}, {2, 0, 0}, {1, 0, 0}, {3, 0, 0}, true},
        {"collinear and apart", {0, 0, 0}, {1, 0, 0}, {2, 0, 0}, {3, 0, 0}, true},
        {"projection drops x", {0, 0, 0}, {0, 2, 0}, {0, 1, -1}, {5, 1, 1}, true},
    };
    for (const Case& c : cases) {
        const Vec normal = std::string(c.what) == "projection drops x" ? Vec(1, 0, 0) : n;
        EXPECT_EQ(SelfIntersectionInfo::pathCrossesPiece(c.r, c.q, c.a, c.b, normal), c.crosses) << c.what;
        // Scaled by powers of two the decision stays the same.
        for (const double s : {0x1p-30, 0x1p20})
            EXPECT_EQ(SelfIntersectionInfo::pathCrossesPiece(c.r * s, c.q * s, c.a * s, c.b * s, normal), c.crosses)
                << c.what << " scaled " << s;
    }
}

// One triangle with hand-set pieces: one crossed piece gives the other side, two the same.
TEST(PinchCrossing, ParityOfPiecesDecidesTheSideOnAFace) {
    GmTriangleMesh mesh("tri");
    mesh.addFace(Vec(0, 0, 0), Vec(4, 0, 0), Vec(0, 4, 0));
    mesh.finishConstruction();
    SelfIntersectionInfo info;
    info.mesh = &mesh;
    info.uniform = false;
    info.vertexTypes = {1, 1, 1};
    info.faceTypes = {2};
    info.faceCrossings.resize(1);
    const Vec centre(4.0 / 3, 4.0 / 3, 0);
    const Vec beyondOne(0.3, 0.3, 0), beyondTwo(0.05, 0.05, 0);
    EXPECT_EQ(info.facePointType(0, beyondOne), 2);  // no pieces: the reference type
    info.faceCrossings[0].reset(new std::vector<Vec>{{1, 0, 0}, {0, 1, 0}});
    EXPECT_EQ(info.facePointType(0, beyondOne), 1);
    EXPECT_EQ(info.facePointType(0, centre), 2);
    info.faceCrossings[0]->insert(info.faceCrossings[0]->end(), {Vec(0.2, 0, 0), Vec(0, 0.2, 0)});
    EXPECT_EQ(info.facePointType(0, beyondTwo), 2);
    EXPECT_EQ(info.facePointType(0, beyondOne), 1);

    // Reference from the first vertex of side 1 or 2 when the centre is unclassified.
    info.faceTypes = {0};
    info.vertexTypes = {3, 2, 1};
    EXPECT_EQ(info.facePointType(0, Vec(3.5, 0.2, 0)), 2);
    EXPECT_EQ(info.facePointType(0, beyondOne), 1);

    // Uniform: one type everywhere.
    info.uniform = true;
    info.uniformType = 2;
    EXPECT_EQ(info.facePointType(0, beyondTwo), 2);
}

// ---- Scenes with known sides ---------------------------------------------------------------

TEST(PinchScenes, UniformMeshTakesItsOrientationAndOtherObjects) {
    struct Case {
        bool flipped;
        bool insideOther;
        int expected;
    };
    const qgtools::PolygonSoup big = qgtools::icosphereSoup(2, 3.0);
    GmTriangleMesh bigMesh = qgtools::meshFromSoup(big, false, "big");
    GmBoundingTree bigTree(&bigMesh);
    for (const Case c : {Case{false, false, 1}, Case{true, false, 2}, Case{false, true, 2}, Case{true, true, 1}}) {
        qgtools::PolygonSoup s = qgtools::icosphereSoup(2, 1.0);
        if (c.flipped) s.flip();
        GmTriangleMesh mesh = qgtools::meshFromSoup(s, false, "ball");
        GmBoundingTree tree(&mesh);
        SelfIntersectionInfo info;
        std::vector<const GmBoundingTree*> others;
        if (c.insideOther) others.push_back(&bigTree);
        EXPECT_EQ(buildCapturing(info, tree, selfRecords(tree), others), "");
        EXPECT_TRUE(info.uniform);
        EXPECT_EQ(info.uniformType, c.expected);
        EXPECT_EQ(info.facePointType(7, mesh.getFaceCenter(7)), c.expected);
        EXPECT_TRUE(std::all_of(info.faceTypes.begin(), info.faceTypes.end(), [&](int t) { return t == c.expected; }));
        // Inside where the solid is: an inside-out ball still holds its inside; a ball buried
        // in another object is inside from both sides of its surface.
        for (const Vec p : {Vec(0.2, 0.1, 0), Vec(1.5, 0.3, 0.2), Vec(0.3, -1.4, 0.1)}) {
            Vec closest, normal;
            int face = -1;
            bool pinched = false;
            const double d = tree.findClosestPoint(p, closest, face, normal, pinched, false, true, &info);
            const bool expectInside = c.insideOther || p.length() < 0.9;
            EXPECT_EQ(d <= 0.0, expectInside) << p;
            EXPECT_EQ(pinched, c.insideOther);
        }
    }
}

TEST(PinchScenes, OverlappingSpheresSplitIntoOuterAndBuriedSurface) {
    const SpheresScene s(3);
    EXPECT_FALSE(s.info.uniform);
    EXPECT_EQ(s.info.outsideType, 1);
    EXPECT_GT(s.info.numberCrossingFaces(), 0);
    EXPECT_EQ(s.info.numberUnknownVertices(), 0);
    EXPECT_EQ(s.info.numberUnknownFaces(), 0);
    const int half = s.mesh.getNumberFaces() / 2;
    int checked = 0;
    for (int f = 0; f < s.mesh.getNumberFaces(); ++f) {
        if (s.info.faceCrossings[static_cast<size_t>(f)]) continue;
        const Vec c = s.mesh.getFaceCenter(f);
        const ConvexSolid& other = f < half ? s.b : s.a;
        EXPECT_EQ(s.info.faceTypes[static_cast<size_t>(f)], other.contains(c) ? 2 : 1) << "face " << f;
        ++checked;
    }
    EXPECT_GT(checked, half);
    // Points on faces that carry crossings: the side of the other solid they lie in.
    std::mt19937 rng(7);
    std::uniform_real_distribution<double> u(0.0, 1.0);
    for (int f = 0; f < s.mesh.getNumberFaces(); ++f) {
        if (!s.info.faceCrossings[static_cast<size_t>(f)]) continue;
        const ConvexSolid& other = f < half ? s.b : s.a;
        for (int k = 0; k < 8; ++k) {
            double w1 = u(rng), w2 = u(rng);
            if (w1 + w2 > 1) w1 = 1 - w1, w2 = 1 - w2;
            const Vec p = s.mesh.getFacePoint(f, Vec(1 - w1 - w2, w1, w2));
            if (std::fabs(other.planeDepth(p)) < 1e-9) continue;
            EXPECT_EQ(s.info.facePointType(f, p), other.contains(p) ? 2 : 1) << "face " << f;
        }
    }
}

// The pinch-aware inside decision agrees with the union of the two solids on a grid (the full
// 128^3 grid runs in the benchmark); the plain decision does not.
TEST(PinchScenes, PinchAwareInsideMatchesTheUnionOfOverlappingSolids) {
    const SpheresScene s(3);
    const int n = 40;
    int compared = 0, wrongPinch = 0, wrongPlain = 0;
    for (int i = 0; i < n; ++i)
        for (int j = 0; j < n; ++j)
            for (int k = 0; k < n; ++k) {
                const Vec p(-1.3 + 3.3 * (i + 0.5) / n, -1.3 + 2.6 * (j + 0.5) / n, -1.3 + 2.6 * (k + 0.5) / n);
                Vec closest, normal;
                int face = -1;
                bool pinched = false;
                const double plain = s.tree->findClosestPoint(p, closest, face, normal, pinched, false, true);
                if (std::fabs(plain) <= 1e-6) continue;
                const double aware = s.tree->findClosestPoint(p, closest, face, normal, pinched, false, true, &s.info);
                EXPECT_EQ(std::fabs(aware), std::fabs(plain));
                const bool inside = s.unionContains(p);
                wrongPinch += (aware <= 0.0) != inside;
                wrongPlain += (plain <= 0.0) != inside;
                ++compared;
            }
    EXPECT_EQ(wrongPinch, 0) << "of " << compared;
    EXPECT_GT(wrongPlain, 0);
    std::cout << "[ grid " << n << "^3 ] compared " << compared << ", wrong without pinch information "
              << wrongPlain << ", with it " << wrongPinch << "\n";
}

TEST(PinchScenes, FlapPushedThroughASheetIsOnTheOtherSideBeyondTheSheet) {
    GmTriangleMesh mesh = qgtools::makeFlapSheet();
    GmBoundingTree tree(&mesh);
    SelfIntersectionInfo info;
    const std::string err = buildCapturing(info, tree, selfRecords(tree));
    // The crossing runs across the whole tongue, so it meets the tongue's open edges.
    EXPECT_NE(err.find("has pinch regions\n  (which may be ill-defined) near open boundary edges:\n    "),
              std::string::npos);
    EXPECT_EQ(err.find("unknown"), std::string::npos) << err;
    const int sheetFaces = 800;
    const int columns = 8;  // quads across the tongue
    for (int f = 0; f < mesh.getNumberFaces(); ++f) {
        if (info.faceCrossings[static_cast<size_t>(f)]) continue;
        const int segment = f < sheetFaces ? -1 : (f - sheetFaces) / (2 * columns);
        EXPECT_EQ(info.faceTypes[static_cast<size_t>(f)], segment > qgtools::kFlapDive ? 2 : 1) << "face " << f;
    }
    // The dive's faces are cut by the sheet: above it side 1, below it side 2.
    for (int f = sheetFaces + qgtools::kFlapDive * 2 * columns; f < sheetFaces + (qgtools::kFlapDive + 1) * 2 * columns;
         ++f) {
        ASSERT_TRUE(info.faceCrossings[static_cast<size_t>(f)]);
        const GmTriangleFace& fc = mesh.getFace(f);
        for (int k = 0; k < 3; ++k) {
            const Vec v = mesh.getVertex(fc.vertices[k]);
            const Vec p = v + (mesh.getFaceCenter(f) - v) * 0.05;
            EXPECT_EQ(info.facePointType(f, p), p.z > 0 ? 1 : 2) << "face " << f;
        }
    }
}

TEST(PinchScenes, FoldReachingTheOpenBoundary) {
    GmTriangleMesh mesh = qgtools::makeFoldedGrid(40, 6, 1.0, 0.6);
    GmBoundingTree tree(&mesh);
    SelfIntersectionInfo info;
    const std::string err = buildCapturing(info, tree, selfRecords(tree));
    EXPECT_EQ(err.rfind("WARNING in Pinch Classification: SelfIntersectionInfo::build():\n  Collision mesh 'folded' has "
                        "pinch regions\n  (which may be ill-defined) near open boundary edges:\n    ",
                        0),
              0u)
        << err;
    EXPECT_EQ(buildCapturing(info, tree, selfRecords(tree)), "");  // once per object
    for (int f = 0; f < mesh.getNumberFaces(); ++f) {
        if (info.faceCrossings[static_cast<size_t>(f)]) continue;
        const Vec c = mesh.getFaceCenter(f);
        const double t = c.z / c.x;  // the strip's curve parameter
        EXPECT_EQ(info.faceTypes[static_cast<size_t>(f)], std::fabs(t) < 1 ? 2 : 1) << "face " << f << " t " << t;
    }
    // Closest points on the buried side count inside, except on the open boundary.
    struct Probe {
        Vec p;
        bool inside;
    };
    const double tm = 0.3, x = tm * tm - 1, z = tm * tm * tm - tm;
    const Vec n = Vec(-(3 * tm * tm - 1), 0, 2 * tm).safeNormalized();
    for (const Probe& pr : {Probe{Vec(x, 0.3, z) + n * 0.02, true}, Probe{Vec(x, 0.3, z) - n * 0.02, true},
                            Probe{Vec(x, -0.05, z) + n * 0.001, false}, Probe{Vec(x, 0.65, z) - n * 0.001, false}}) {
        Vec closest, normal;
        int face = -1;
        bool pinched = false;
        const double d = tree.findClosestPoint(pr.p, closest, face, normal, pinched, false, true, &info);
        EXPECT_EQ(d <= 0.0, pr.inside) << pr.p;
        EXPECT_TRUE(pinched);
    }
}

// ---- Messages ------------------------------------------------------------------------------

TEST(PinchMessages, SeedFailureUnknownVerticesAndFacesAndFacePointType) {
    // A tetrahedron whose pairs of faces are all reported as meeting (every vertex LOOP), and
    // 13 vertices that no face uses.
    qgtools::PolygonSoup soup = qgtools::tetrahedronSoup();
    for (int k = 0; k < 13; ++k) soup.positions.emplace_back(5 + k, 0, 0);
    GmTriangleMesh mesh = qgtools::meshFromSoup(soup, false, "tet");
    GmBoundingTree tree(&mesh);
    auto edgeRecord = [&](int f1, int f2) {
        GmIntersectionInfo r;
        r.triangleIndex1 = f1;
        r.triangleIndex2 = f2;
        const int e = mesh.getSharedEdge(f1, f2);
        r.points = {mesh.getEdgeVertexFrom(e), mesh.getEdgeVertexTo(e)};
        return r;
    };
    SelfIntersectionInfo info;
    const std::string err = buildCapturing(info, tree, {edgeRecord(0, 1), edgeRecord(2, 3)});
    int opposite = -1;  // the face without vertex 0
    for (int f = 0; f < 4; ++f)
        if (!mesh.getFace(f).hasVertex(0)) opposite = f;
    const std::string expected =
        "ERROR in Pinch Classification: SelfIntersectionInfo::build():\n"
        "  Unable to classify initial vertices in collision mesh 'tet'.\n"
        "  PLEASE SEND LINK TO SCENE THAT CAUSED THIS ERROR TO quorndev MAILING LIST.\n"
        "WARNING in Pinch Classification: SelfIntersectionInfo::build():\n"
        "  Collision mesh 'tet' has 13 unknown vertices:\n"
        "     4 5 6 7 8 9 10 11 12 13 14 15 ...\n"
        "WARNING in Pinch Classification: SelfIntersectionInfo::build():\n"
        "  Collision mesh 'tet' has 1 unknown face center:\n"
        "     " +
        std::to_string(opposite) + "\n";
    EXPECT_EQ(err, expected);
    EXPECT_EQ(info.vertexTypes[0], 1);
    EXPECT_EQ(info.vertexTypes[4], 3);

    testing::internal::CaptureStderr();
    EXPECT_EQ(info.facePointType(opposite, mesh.getFaceCenter(opposite)), 1);
    EXPECT_EQ(testing::internal::GetCapturedStderr(),
              "ERROR in Pinch Classification: SelfIntersectionInfo::facePointType():\n"
              "  All vertices in collision mesh face 'tet.f[" +
                  std::to_string(opposite) +
                  "]' are LOOP or UNKNOWN.\n"
                  "  PLEASE SEND LINK TO SCENE THAT CAUSED THIS ERROR TO quorndev MAILING LIST.\n");
}

TEST(PinchMessages, OpenBoundaryListStopsAfterTwelveAndPrintsOncePerObject) {
    GmTriangleMesh mesh = qgtools::makeClothGrid(14, 1);
    mesh.setName("strip");
    GmBoundingTree tree(&mesh);
    std::vector<GmIntersectionInfo> records;
    for (int f = 0; f < mesh.getNumberFaces(); f += 2) {  // one piece across each quad's first face
        GmIntersectionInfo r;
        r.triangleIndex1 = f;
        r.triangleIndex2 = -1;
        const Vec c = mesh.getFaceCenter(f);
        r.points = {c + Vec(0.01, 0.4, 0), c - Vec(0.01, 0.4, 0)};
        records.push_back(r);
    }
    const std::string expected =
        "WARNING in Pinch Classification: SelfIntersectionInfo::build():\n"
        "  Collision mesh 'strip' has pinch regions\n"
        "  (which may be ill-defined) near open boundary edges:\n"
        "     0 2 4 6 8 10 12 14 16 18 20 22 ...\n";
    SelfIntersectionInfo info;
    EXPECT_EQ(buildCapturing(info, tree, records), expected);
    EXPECT_EQ(buildCapturing(info, tree, records), "");
    SelfIntersectionInfo copy(info);
    EXPECT_EQ(buildCapturing(copy, tree, records), "");
    SelfIntersectionInfo fresh;
    EXPECT_EQ(buildCapturing(fresh, tree, records), expected);
}

// ---- Queries with pinch information ---------------------------------------------------------

// A cloth moving down through the overlapping spheres: the flags of the two-mesh records say
// whether the body's feature lies inside the other sphere, and serial and parallel runs agree.
TEST(PinchQueries, ContactFlagsMarkBuriedFeaturesAndMatchAcrossThreads) {
    const SpheresScene s(3);
    GmTriangleMesh cloth = qgtools::makeClothGrid(24, 24, 2.6, 2.6, Vec(-1.1, -1.3, 0.35));
    std::vector<Vec> end = cloth.getVertices();
    for (Vec& v : end) v.z -= 0.5;
    GmBoundingTree clothTree(&cloth, end);
    const std::vector<Vec> bodyEnd = s.mesh.getVertices();
    GmBoundingTree bodyTree(const_cast<GmTriangleMesh*>(&s.mesh), bodyEnd);
    const int half = s.mesh.getNumberFaces() / 2;

    auto run = [&](bool parallel, bool withInfo) {
        ScopedThreading threading(parallel);
        std::vector<GmContinuousTimeIntersectionInfo> ct;
        std::vector<GmProximityCheckInfo> px;
        GmBVHMetrics m;
        clothTree.continuousTimeIntersect(ct, end, bodyTree, bodyEnd, nullptr, withInfo ? &s.info : nullptr,
                                          GmIntersection::kAllTests, false, false, true, 0, 1, m);
        clothTree.proximityCheck(px, 0.05, bodyTree, withInfo ? &s.info : nullptr, GmIntersection::kAllTests, false,
                                 true, 0, 1, 0.0, m);
        std::vector<std::string> keys;
        for (const auto& r : ct) {
            std::ostringstream os;
            os << r << r.pinched0 << r.pinched1;
            keys.push_back(os.str());
        }
        for (const auto& r : px) {
            std::ostringstream os;
            os << r << r.pinched;
            keys.push_back(os.str());
        }
        std::sort(keys.begin(), keys.end());
        return std::make_tuple(ct, px, keys);
    };
    const auto serial = run(false, true);
    const auto parallel = run(true, true);
    EXPECT_EQ(std::get<2>(serial), std::get<2>(parallel));

    const auto& ct = std::get<0>(serial);
    ASSERT_FALSE(ct.empty());
    int buried = 0, agreed = 0, considered = 0;
    for (const auto& r : ct) {
        EXPECT_FALSE(r.pinched0);  // the cloth has no classification
        const Vec& w = r.type == GmInterferenceType::FACE_VERTEX ? Vec(0, 0, 0) : r.barycentric2;
        const Vec q = r.type == GmInterferenceType::FACE_VERTEX ? s.mesh.getVertex(r.vertexIndices[3])
                                                                : s.mesh.getFacePoint(r.triangleIndex2, w);
        const ConvexSolid& other = r.triangleIndex2 < half ? s.b : s.a;
        if (std::fabs(other.planeDepth(q)) < 1e-3) continue;  // too near the crossing
        ++considered;
        buried += other.contains(q);
        agreed += r.pinched1 == other.contains(q);
    }
    EXPECT_EQ(agreed, considered);
    EXPECT_GT(buried, 0);
    EXPECT_LT(buried, considered);
    // Without information the records are those of the plain query, flags off.
    const auto plain = run(false, false);
    ASSERT_EQ(std::get<0>(plain).size(), ct.size());
    for (const auto& r : std::get<0>(plain)) EXPECT_FALSE(r.pinched1);
    for (const auto& r : std::get<1>(plain)) EXPECT_FALSE(r.pinched);
    EXPECT_GT(std::count_if(std::get<1>(serial).begin(), std::get<1>(serial).end(),
                            [](const GmProximityCheckInfo& r) { return r.pinched; }),
              0);
}

// Multi-object inside query: vertices inside the union are reported, those near buried
// surface flagged.
TEST(PinchQueries, MultiObjectInsideQueryUsesEachObjectsInformation) {
    const SpheresScene s(3);
    MultiIntersectionInfo multi;
    multi.build(*s.tree, selfRecords(*s.tree));
    GmTriangleMesh probe = qgtools::makeClothGrid(30, 30, 3.2, 2.4, Vec(-1.25, -1.2, 0.05));
    GmBoundingTree probeTree(&probe);
    std::vector<int> objects = {1};
    GmBVHMetrics metrics;
    for (const bool withInfo : {true, false}) {
        std::vector<GmInsideInfo> inside;
        probeTree.intersect({s.tree.get()}, {withInfo ? &multi : nullptr}, 0, objects, inside, false, true, metrics);
        std::vector<char> reported(static_cast<size_t>(probe.getNumberVertices()), 0);
        for (const GmInsideInfo& r : inside) {
            reported[static_cast<size_t>(r.vertex)] = 1;
            EXPECT_EQ(r.objectIndex2, 1);
            if (!withInfo) {
                EXPECT_FALSE(r.pinched);
            }
        }
        int wrong = 0, pinched = 0;
        for (int v = 0; v < probe.getNumberVertices(); ++v)
            wrong += (reported[static_cast<size_t>(v)] != 0) != s.unionContains(probe.getVertex(v));
        for (const GmInsideInfo& r : inside) pinched += r.pinched;
        if (withInfo) {
            EXPECT_EQ(wrong, 0);
            EXPECT_GT(pinched, 0);
        } else {
            EXPECT_GT(wrong, 0);
        }
    }
}

}  // namespace

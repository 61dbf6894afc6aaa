// Pinch classification: crossing rule, scenes with known sides, pinch-aware queries, messages.

#include <algorithm>
#include <cmath>
#include <memory>
#include <random>
#include <sstream>
#include <string>
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

// Signed closest distance with or without pinch information; `pinched` as reported.
double signedDistance(const GmBoundingTree& tree, const Vec& p, const SelfIntersectionInfo* info, bool* pinched = nullptr) {
    Vec closest, normal;
    int face = -1;
    bool flag = false;
    const double d = tree.findClosestPoint(p, closest, face, normal, flag, false, true, info);
    if (pinched) *pinched = flag;
    return d;
}

// Two overlapping icospheres merged into one mesh, with their convex solids as reference.
struct SpheresScene {
    qgtools::PolygonSoup soup;
    GmTriangleMesh mesh;
    std::unique_ptr<GmBoundingTree> tree;
    ConvexSolid a, b;
    SelfIntersectionInfo info;
    int half;

    SpheresScene() {
        const Vec c1(0, 0, 0), c2(0.83, 0.11, 0.07);
        soup = qgtools::overlappingSpheresSoup(3, c1, 1.0, c2, 0.9);
        mesh = qgtools::meshFromSoup(soup, false, "pinchedBody");
        tree.reset(new GmBoundingTree(&mesh));
        half = soup.numTriangles() / 2;
        a = ConvexSolid(soup, 0, half, c1);
        b = ConvexSolid(soup, half, half, c2);
        info.build(*tree, selfRecords(*tree));
    }
    bool unionContains(const Vec& p) const { return a.contains(p) || b.contains(p); }
    const ConvexSolid& otherSolid(int face) const { return face < half ? b : a; }
};

const SpheresScene& spheres() {
    static const SpheresScene s;
    return s;
}

TEST(PinchCrossing, PathAgainstOnePieceFollowsTheOrientationRule) {
    struct Case {
        const char* what;
        Vec r, q, a, b, normal;
        bool crosses;
    };
    const Vec z(0, 0, 1);
    const Case cases[] = {
        {"proper crossing", {0, 0, 0}, {2, 0, 0}, {1, -1, 0}, {1, 1, 0}, z, true},
        {"piece beside the path", {0, 0, 0}, {2, 0, 0}, {3, -1, 0}, {3, 1, 0}, z, false},
        {"piece on one side", {0, 0, 0}, {2, 0, 0}, {1, 0.5, 0}, {1, 1, 0}, z, false},
        {"piece end on the path line", {0, 0, 0}, {2, 0, 0}, {1, 0, 0}, {1, 1, 0}, z, false},
        {"path end on the piece", {0, 0, 0}, {1, 0, 0}, {1, -1, 0}, {1, 1, 0}, z, false},
        {"path start on the piece", {1, 0, 0}, {2, 0, 0}, {1, -1, 0}, {1, 1, 0}, z, false},
        {"collinear and overlapping", {0, 0, 0}, {2, 0, 0}, {1, 0, 0}, {3, 0, 0}, z, true},
        {"collinear and apart", {0, 0, 0}, {1, 0, 0}, {2, 0, 0}, {3, 0, 0}, z, true},
        {"projection drops x", {0, 0, 0}, {0, 2, 0}, {0, 1, -1}, {5, 1, 1}, {1, 0, 0}, true},
    };
    for (const Case& c : cases)
        for (const double s : {1.0, 0x1p-30, 0x1p20})  // scaled by powers of two: the same decision
            EXPECT_EQ(SelfIntersectionInfo::pathCrossesPiece(c.r * s, c.q * s, c.a * s, c.b * s, c.normal), c.crosses)
                << c.what << " scaled " << s;
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
    const Vec centre(4.0 / 3, 4.0 / 3, 0), beyondOne(0.3, 0.3, 0), beyondTwo(0.05, 0.05, 0);
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
    info.uniform = true;  // one type everywhere
    info.uniformType = 2;
    EXPECT_EQ(info.facePointType(0, beyondTwo), 2);
}

TEST(PinchScenes, UniformMeshTakesItsOrientationAndOtherObjects) {
    struct Case {
        bool flipped, insideOther;
        int expected;
    };
    GmTriangleMesh bigMesh = qgtools::meshFromSoup(qgtools::icosphereSoup(2, 3.0), false, "big");
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
        // An inside-out ball still holds its inside; a ball buried in another object is inside
        // from both sides of its surface.
        for (const Vec p : {Vec(0.2, 0.1, 0), Vec(1.5, 0.3, 0.2), Vec(0.3, -1.4, 0.1)}) {
            bool pinched = false;
            EXPECT_EQ(signedDistance(tree, p, &info, &pinched) <= 0.0, c.insideOther || p.length() < 0.9) << p;
            EXPECT_EQ(pinched, c.insideOther);
        }
    }
}

// Faces without crossings take the side of the other solid their centre lies in, points on
// faces with crossings likewise.
TEST(PinchScenes, OverlappingSpheresSplitIntoOuterAndBuriedSurface) {
    const SpheresScene& s = spheres();
    EXPECT_FALSE(s.info.uniform);
    EXPECT_EQ(s.info.outsideType, 1);
    EXPECT_GT(s.info.numberCrossingFaces(), 0);
    EXPECT_EQ(s.info.numberUnknownVertices(), 0);
    EXPECT_EQ(s.info.numberUnknownFaces(), 0);
    std::mt19937 rng(7);
    std::uniform_real_distribution<double> u(0.0, 1.0);
    int whole = 0;
    for (int f = 0; f < s.mesh.getNumberFaces(); ++f) {
        const ConvexSolid& other = s.otherSolid(f);
        if (!s.info.faceCrossings[std::size_t(f)]) {
            EXPECT_EQ(s.info.faceTypes[std::size_t(f)], other.contains(s.mesh.getFaceCenter(f)) ? 2 : 1) << "face " << f;
            ++whole;
            continue;
        }
        for (int k = 0; k < 8; ++k) {
            double w1 = u(rng), w2 = u(rng);
            if (w1 + w2 > 1) w1 = 1 - w1, w2 = 1 - w2;
            const Vec p = s.mesh.getFacePoint(f, Vec(1 - w1 - w2, w1, w2));
            if (std::fabs(other.planeDepth(p)) >= 1e-9) {
                EXPECT_EQ(s.info.facePointType(f, p), other.contains(p) ? 2 : 1) << "face " << f;
            }
        }
    }
    EXPECT_GT(whole, s.half);
}

TEST(PinchScenes, FlapPushedThroughASheetIsOnTheOtherSideBeyondTheSheet) {
    GmTriangleMesh mesh = qgtools::makeFlapSheet();
    GmBoundingTree tree(&mesh);
    SelfIntersectionInfo info;
    // The crossing runs across the whole tongue, so it meets the tongue's open edges; nothing unknown.
    const std::string err = buildCapturing(info, tree, selfRecords(tree));
    EXPECT_NE(err.find("near open boundary edges"), std::string::npos) << err;
    EXPECT_EQ(err.find("unknown"), std::string::npos) << err;
    const int sheetFaces = 800, columns = 8;  // quads across the tongue
    const int dive = sheetFaces + qgtools::kFlapDive * 2 * columns;
    for (int f = 0; f < mesh.getNumberFaces(); ++f) {
        if (!info.faceCrossings[std::size_t(f)]) {
            const int segment = f < sheetFaces ? -1 : (f - sheetFaces) / (2 * columns);
            EXPECT_EQ(info.faceTypes[std::size_t(f)], segment > qgtools::kFlapDive ? 2 : 1) << "face " << f;
            continue;
        }
        if (f < dive || f >= dive + 2 * columns) continue;
        // The dive's faces are cut by the sheet: above it side 1, below it side 2.
        for (int v : mesh.getFace(f).vertices) {
            const Vec p = mesh.getVertex(v) + (mesh.getFaceCenter(f) - mesh.getVertex(v)) * 0.05;
            EXPECT_EQ(info.facePointType(f, p), p.z > 0 ? 1 : 2) << "face " << f;
        }
    }
    for (int f = dive; f < dive + 2 * columns; ++f) EXPECT_TRUE(info.faceCrossings[std::size_t(f)]) << f;
}

TEST(PinchScenes, FoldReachingTheOpenBoundary) {
    GmTriangleMesh mesh = qgtools::makeFoldedGrid(40, 6, 1.0, 0.6);
    GmBoundingTree tree(&mesh);
    SelfIntersectionInfo info;
    EXPECT_NE(buildCapturing(info, tree, selfRecords(tree)).find("'folded' has pinch regions"), std::string::npos);
    for (int f = 0; f < mesh.getNumberFaces(); ++f) {
        const Vec c = mesh.getFaceCenter(f);
        const double t = c.z / c.x;  // the strip's curve parameter
        EXPECT_TRUE(info.faceCrossings[std::size_t(f)] || info.faceTypes[std::size_t(f)] == (std::fabs(t) < 1 ? 2 : 1))
            << "face " << f << " t " << t;
    }
    // Closest points on the buried side count inside, except on the open boundary.
    const double tm = 0.3, x = tm * tm - 1, z = tm * tm * tm - tm;
    const Vec n = Vec(-(3 * tm * tm - 1), 0, 2 * tm).safeNormalized();
    for (const auto& [p, inside] : {std::make_pair(Vec(x, 0.3, z) + n * 0.02, true), std::make_pair(Vec(x, 0.3, z) - n * 0.02, true),
                                    std::make_pair(Vec(x, -0.05, z) + n * 0.001, false),
                                    std::make_pair(Vec(x, 0.65, z) - n * 0.001, false)}) {
        bool pinched = false;
        EXPECT_EQ(signedDistance(tree, p, &info, &pinched) <= 0.0, inside) << p;
        EXPECT_TRUE(pinched);
    }
}

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
    EXPECT_EQ(err,
              "ERROR in Pinch Classification: SelfIntersectionInfo::build():\n"
              "  Unable to classify initial vertices in collision mesh 'tet'.\n"
              "  PLEASE SEND LINK TO SCENE THAT CAUSED THIS ERROR TO quorndev MAILING LIST.\n"
              "WARNING in Pinch Classification: SelfIntersectionInfo::build():\n"
              "  Collision mesh 'tet' has 13 unknown vertices:\n"
              "     4 5 6 7 8 9 10 11 12 13 14 15 ...\n"
              "WARNING in Pinch Classification: SelfIntersectionInfo::build():\n"
              "  Collision mesh 'tet' has 1 unknown face center:\n"
              "     " + std::to_string(opposite) + "\n");
    EXPECT_EQ(info.vertexTypes[0], 1);
    EXPECT_EQ(info.vertexTypes[4], 3);

    testing::internal::CaptureStderr();
    EXPECT_EQ(info.facePointType(opposite, mesh.getFaceCenter(opposite)), 1);
    EXPECT_EQ(testing::internal::GetCapturedStderr(),
              "ERROR in Pinch Classification: SelfIntersectionInfo::facePointType():\n"
              "  All vertices in collision mesh face 'tet.f[" + std::to_string(opposite) + "]' are LOOP or UNKNOWN.\n"
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
    SelfIntersectionInfo info, fresh;
    EXPECT_EQ(buildCapturing(info, tree, records), expected);
    EXPECT_EQ(buildCapturing(info, tree, records), "");
    SelfIntersectionInfo copy(info);
    EXPECT_EQ(buildCapturing(copy, tree, records), "");
    EXPECT_EQ(buildCapturing(fresh, tree, records), expected);
}

// A cloth moving down through the overlapping spheres: the flags of the two-mesh records say
// whether the body's feature lies inside the other sphere, serial and parallel alike; without
// information the same records, flags off.
TEST(PinchQueries, ContactFlagsMarkBuriedFeaturesAndMatchAcrossThreads) {
    const SpheresScene& s = spheres();
    GmTriangleMesh cloth = qgtools::makeClothGrid(24, 24, 2.6, 2.6, Vec(-1.1, -1.3, 0.35));
    std::vector<Vec> end = cloth.getVertices();
    for (Vec& v : end) v.z -= 0.5;
    GmBoundingTree clothTree(&cloth, end);
    const std::vector<Vec> bodyEnd = s.mesh.getVertices();
    GmBoundingTree bodyTree(const_cast<GmTriangleMesh*>(&s.mesh), bodyEnd);
    struct Run {
        std::vector<GmContinuousTimeIntersectionInfo> ct;
        std::vector<GmProximityCheckInfo> px;
        std::vector<std::string> keys;
    };
    auto run = [&](bool parallel, const SelfIntersectionInfo* info) {
        ScopedThreading threading(parallel);
        Run out;
        GmBVHMetrics m;
        clothTree.continuousTimeIntersect(out.ct, end, bodyTree, bodyEnd, nullptr, info, GmIntersection::kAllTests,
                                          false, false, true, 0, 1, m);
        clothTree.proximityCheck(out.px, 0.05, bodyTree, info, GmIntersection::kAllTests, false, true, 0, 1, 0.0, m);
        for (const auto& r : out.ct) out.keys.push_back((std::ostringstream() << r << r.pinched0 << r.pinched1).str());
        for (const auto& r : out.px) out.keys.push_back((std::ostringstream() << r << r.pinched).str());
        std::sort(out.keys.begin(), out.keys.end());
        return out;
    };
    const Run serial = run(false, &s.info), plain = run(false, nullptr);
    EXPECT_EQ(serial.keys, run(true, &s.info).keys);
    ASSERT_FALSE(serial.ct.empty());
    int buried = 0, considered = 0;
    for (const auto& r : serial.ct) {
        EXPECT_FALSE(r.pinched0);  // the cloth has no classification
        const Vec q = r.type == GmInterferenceType::FACE_VERTEX ? s.mesh.getVertex(r.vertexIndices[3])
                                                                : s.mesh.getFacePoint(r.triangleIndex2, r.barycentric2);
        const ConvexSolid& other = s.otherSolid(r.triangleIndex2);
        if (std::fabs(other.planeDepth(q)) < 1e-3) continue;  // too near the crossing
        ++considered;
        buried += other.contains(q);
        EXPECT_EQ(r.pinched1, other.contains(q)) << r;
    }
    EXPECT_GT(buried, 0);
    EXPECT_LT(buried, considered);
    EXPECT_TRUE(std::any_of(serial.px.begin(), serial.px.end(), [](const GmProximityCheckInfo& r) { return r.pinched; }));
    ASSERT_EQ(plain.ct.size(), serial.ct.size());
    for (const auto& r : plain.ct) EXPECT_FALSE(r.pinched1);
    for (const auto& r : plain.px) EXPECT_FALSE(r.pinched);
}

// Points on layers through both spheres: the pinch-aware inside decisions (closest point with
// information, multi-object inside query) agree with the union of the solids; the plain ones
// do not (the full 128^3 grid runs in the benchmark). Multi-object results near buried surface
// are flagged only with information.
TEST(PinchQueries, PinchAwareInsideMatchesTheUnionOfOverlappingSolids) {
    const SpheresScene& s = spheres();
    MultiIntersectionInfo multi;
    multi.build(*s.tree, selfRecords(*s.tree));
    std::vector<int> objects = {1};
    GmBVHMetrics metrics;
    for (const double z : {-0.7, 0.05, 0.4}) {
        GmTriangleMesh probe = qgtools::makeClothGrid(30, 30, 3.2, 2.4, Vec(-1.25, -1.2, z));
        GmBoundingTree probeTree(&probe);
        for (const bool withInfo : {true, false}) {
            std::vector<GmInsideInfo> inside;
            probeTree.intersect({s.tree.get()}, {withInfo ? &multi : nullptr}, 0, objects, inside, false, true,
                                metrics);
            std::vector<char> reported(std::size_t(probe.getNumberVertices()), 0);
            int wrong = 0, wrongClosest = 0, pinched = 0;
            for (const GmInsideInfo& r : inside) {
                reported[std::size_t(r.vertex)] = 1;
                pinched += r.pinched;
                EXPECT_EQ(r.objectIndex2, 1);
            }
            for (int v = 0; v < probe.getNumberVertices(); ++v) {
                const Vec p = probe.getVertex(v);
                wrong += (reported[std::size_t(v)] != 0) != s.unionContains(p);
                const double plain = signedDistance(*s.tree, p, nullptr);
                if (std::fabs(plain) <= 1e-6) continue;
                const double d = withInfo ? signedDistance(*s.tree, p, &s.info) : plain;
                EXPECT_EQ(std::fabs(d), std::fabs(plain));
                wrongClosest += (d <= 0.0) != s.unionContains(p);
            }
            EXPECT_EQ(wrong == 0, withInfo) << z;
            EXPECT_EQ(wrongClosest == 0, withInfo) << z;
            EXPECT_EQ(pinched > 0, withInfo) << z;
        }
    }
}

}  // namespace

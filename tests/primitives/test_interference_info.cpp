// Interference records: defaults, the exact long and compact texts, the feature
// decoder, the other record types' texts and the time-index order.

#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>
#include <sstream>
#include <string>
#include <vector>

#include <quarrygeom/primitives/GmInterferenceInfo.h>

namespace {

template <typename T>
std::string text(const T& r) {
    std::ostringstream os;
    os << r;
    return os.str();
}
std::string compact(const GmTriangleInterferenceInfo& r) {
    std::ostringstream os;
    r.printCompact(os);
    return os.str();
}

// A stored classification outside the enumerators, written as raw bits.
void setRawPointType(GmTriangleInterferenceInfo& r, int value) { std::memcpy(&r.pointType, &value, sizeof value); }

template <typename Record>
Record sampleRecord(GmInterferenceType type) {
    Record r;
    r.objectIndex1 = 2, r.objectIndex2 = 4, r.triangleIndex1 = 3, r.triangleIndex2 = 7;
    r.time = 0.25, r.distance = 0.5, r.falloff = 1.5;
    r.normal = GmTVector<double>(0, 0, 1);
    r.type = type;
    r.feature1 = 11, r.feature2 = 12;
    r.point = GmTVector<double>(1, 2, 3);
    r.pointType = GmGeometry::ON_EDGE_2;
    r.barycentric2 = GmTVector<double>(0.5, 0.5, 0);
    r.barycentric1 = GmTVector<double>(0.25, 0.75, 0);
    for (int i = 0; i < 4; ++i) r.vertexIndices[i] = 20 + i;
    r.edgeIndices[0] = 30, r.edgeIndices[1] = 31;
    return r;
}

TEST(InterferenceInfo, DefaultsAndHeaderWording) {
    // Defaults: no object, invalid kind and classification, no pinch.
    const GmContinuousTimeIntersectionInfo d;
    EXPECT_TRUE(d.objectIndex1 == -1 && d.type == GmInterferenceType::INVALID && d.pointType == GmGeometry::INVALID);
    EXPECT_FALSE(d.pinched0 || d.pinched1);
    const struct { int object1, object2; const char* text; } cases[] = {
        {-1, -1, "Interference between triangles 3 and 7 of type INVALID.\n"},
        {2, 2, "Interference between object 2 triangles 3 and 7 of type INVALID.\n"},
        {2, 4, "Interference between object 2 triangle 3 and object 4 triangle 7 of type INVALID.\n"},
        // Only the first index is tested against -1.
        {-1, 5, "Interference between object -1 triangle 3 and object 5 triangle 7 of type INVALID.\n"},
        {5, -1, "Interference between object 5 triangle 3 and object -1 triangle 7 of type INVALID.\n"},
    };
    for (const auto& c : cases) {
        GmTriangleInterferenceInfo r;
        r.triangleIndex1 = 3, r.triangleIndex2 = 7, r.objectIndex1 = c.object1, r.objectIndex2 = c.object2;
        EXPECT_EQ(text(r), c.text);
    }
}

// Long forms: the wording of each kind and record type, the caller's stream settings, only the
// header for a kind outside the enumeration, UNKNOWN for such a classification.
TEST(InterferenceInfo, LongForms) {
    auto vf = sampleRecord<GmContinuousTimeIntersectionInfo>(GmInterferenceType::VERTEX_FACE);
    vf.pinched1 = true;
    EXPECT_EQ(text(vf),
              "Continuous-Time Intersection between object 2 triangle 3 and object 4 triangle 7 of type VERTEX-FACE:\n"
              "\ttime 0.25; distance 0.5; falloff 1.5\n"
              "\tnormal (0, 0, 1); pinched0 false; pinched1 true\n"
              "\tvertex 11; face 12\n"
              "\tpoint (1, 2, 3); pointType ON_EDGE_2\n"
              "\tbarycentric2 (0.5, 0.5, 0)\n"
              "\tvertexIndices {20, 21, 22, 23}\n"
              "\tedgeIndices {30, 31}\n");
    auto fv = sampleRecord<GmProximityCheckInfo>(GmInterferenceType::FACE_VERTEX);  // the face first
    fv.objectIndex2 = 2, fv.pinched = true, fv.pointType = GmGeometry::INSIDE;
    EXPECT_EQ(text(fv),
              "Proximity between object 2 triangles 3 and 7 of type FACE-VERTEX:\n"
              "\ttime 0.25; distance 0.5; falloff 1.5\n"
              "\tnormal (0, 0, 1); pinched true\n"
              "\tface 12; vertex 11\n"
              "\tpoint (1, 2, 3); pointType INSIDE\n"
              "\tbarycentric1 (0.25, 0.75, 0)\n"
              "\tvertexIndices {20, 21, 22, 23}\n"
              "\tedgeIndices {30, 31}\n");
    auto ee = sampleRecord<GmTriangleInterferenceInfo>(GmInterferenceType::EDGE_EDGE);  // both barycentrics
    ee.objectIndex1 = ee.objectIndex2 = -1, ee.normal = GmTVector<double>(-0.6, 0.8, 0), ee.pointType = GmGeometry::INVALID;
    EXPECT_EQ(text(ee),
              "Interference between triangles 3 and 7 of type EDGE-EDGE:\n"
              "\ttime 0.25; distance 0.5; falloff 1.5\n"
              "\tnormal (-0.6, 0.8, 0)\n"
              "\tedge1 11; edge2 12\n"
              "\tpoint (1, 2, 3); pointType INVALID\n"
              "\tbarycentric1 (0.25, 0.75, 0)\n"
              "\tbarycentric2 (0.5, 0.5, 0)\n"
              "\tvertexIndices {20, 21, 22, 23}\n"
              "\tedgeIndices {30, 31}\n");
    ee.time = 1.0 / 3.0;
    std::ostringstream os;
    os.precision(3);
    os << ee;
    EXPECT_NE(os.str().find("\ttime 0.333; distance 0.5; falloff 1.5\n"), std::string::npos) << os.str();
    setRawPointType(ee, 9);
    EXPECT_NE(text(ee).find("\tpoint (1, 2, 3); pointType UNKNOWN\n"), std::string::npos) << text(ee);
    for (const int kind : {4, 7}) {
        auto r = sampleRecord<GmProximityCheckInfo>(static_cast<GmInterferenceType>(kind));
        EXPECT_EQ(text(r), "Proximity between object 2 triangle 3 and object 4 triangle 7");
    }
}

TEST(InterferenceInfo, FeatureDecoderForEveryKindAndPointType) {
    struct Expect { GmInterferenceType type; int pointType, k1, i1, k2, i2; };
    // vertexIndices 20..23, edgeIndices 30, 31, triangles 3 and 7.
    const Expect cases[] = {
        {GmInterferenceType::VERTEX_FACE, GmGeometry::INSIDE, kFeatureVertex, 20, kFeatureFace, 7},
        {GmInterferenceType::VERTEX_FACE, GmGeometry::ON_VERTEX_1, kFeatureVertex, 20, kFeatureVertex, 21},
        {GmInterferenceType::VERTEX_FACE, GmGeometry::ON_VERTEX_2, kFeatureVertex, 20, kFeatureVertex, 22},
        {GmInterferenceType::VERTEX_FACE, GmGeometry::ON_VERTEX_3, kFeatureVertex, 20, kFeatureVertex, 23},
        {GmInterferenceType::VERTEX_FACE, GmGeometry::ON_EDGE_1, kFeatureVertex, 20, kFeatureEdge, 31},
        {GmInterferenceType::VERTEX_FACE, GmGeometry::ON_EDGE_3, kFeatureVertex, 20, kFeatureEdge, 31},
        {GmInterferenceType::VERTEX_FACE, GmGeometry::INVALID, kFeatureVertex, 20, kFeatureFace, 7},
        {GmInterferenceType::VERTEX_FACE, 9, kFeatureVertex, 20, kFeatureFace, 7},  // neither corner nor edge
        {GmInterferenceType::FACE_VERTEX, GmGeometry::INSIDE, kFeatureFace, 3, kFeatureVertex, 23},
        {GmInterferenceType::FACE_VERTEX, GmGeometry::ON_VERTEX_1, kFeatureVertex, 20, kFeatureVertex, 23},
        {GmInterferenceType::FACE_VERTEX, GmGeometry::ON_VERTEX_2, kFeatureVertex, 21, kFeatureVertex, 23},
        {GmInterferenceType::FACE_VERTEX, GmGeometry::ON_VERTEX_3, kFeatureVertex, 22, kFeatureVertex, 23},
        {GmInterferenceType::FACE_VERTEX, GmGeometry::ON_EDGE_2, kFeatureEdge, 30, kFeatureVertex, 23},
        {GmInterferenceType::FACE_VERTEX, GmGeometry::INVALID, kFeatureFace, 3, kFeatureVertex, 23},
        {GmInterferenceType::EDGE_EDGE, GmGeometry::ON_VERTEX_1, kFeatureEdge, 30, kFeatureEdge, 31},
        {GmInterferenceType::INVALID, GmGeometry::INSIDE, kFeatureInvalid, -1, kFeatureInvalid, -1},
        {static_cast<GmInterferenceType>(9), GmGeometry::INSIDE, kFeatureInvalid, -1, kFeatureInvalid, -1},
    };
    for (const Expect& e : cases) {
        auto r = sampleRecord<GmTriangleInterferenceInfo>(e.type);
        setRawPointType(r, e.pointType);
        int k[4] = {-7, -7, -7, -7};
        r.getFeatures(k[0], k[1], k[2], k[3]);
        EXPECT_EQ(std::vector<int>(k, k + 4), (std::vector<int>{e.k1, e.i1, e.k2, e.i2})) << int(e.type) << " " << e.pointType;
    }
}

TEST(InterferenceInfo, CompactForm) {
    auto r = sampleRecord<GmTriangleInterferenceInfo>(GmInterferenceType::VERTEX_FACE);
    r.pointType = GmGeometry::INSIDE, r.objectIndex2 = 2;
    EXPECT_EQ(compact(r), "V-F obj 2 vtx 20 self face 7 time 0.25 dist 0.5 P 1 2 3 N 0 0 1");
    r.objectIndex2 = 4, r.pointType = GmGeometry::ON_EDGE_1;
    EXPECT_EQ(compact(r), "V-E obj 2 vtx 20 obj 4 edge 31 time 0.25 dist 0.5 P 1 2 3 N 0 0 1");
    // A face-vertex contact landing on the second corner of triangle 1 decodes to a vertex.
    r.type = GmInterferenceType::FACE_VERTEX, r.pointType = GmGeometry::ON_VERTEX_2;
    EXPECT_EQ(compact(r), "V-V obj 2 vtx 21 obj 4 vtx 23 time 0.25 dist 0.5 P 1 2 3 N 0 0 1");
    r.pointType = GmGeometry::INSIDE;
    EXPECT_EQ(compact(r), "F-V obj 2 face 3 obj 4 vtx 23 time 0.25 dist 0.5 P 1 2 3 N 0 0 1");
    r.type = GmInterferenceType::EDGE_EDGE, r.normal = GmTVector<double>(0.5, -0.25, 0);
    EXPECT_EQ(compact(r), "E-E obj 2 edge 30 obj 4 edge 31 time 0.25 dist 0.5 P 1 2 3 N 0.5 -0.25 0");
    r.type = GmInterferenceType::INVALID;
    EXPECT_EQ(compact(r), "INVALID");
    r.type = static_cast<GmInterferenceType>(5);
    EXPECT_EQ(compact(r), "X-X obj 2 invalid -1 obj 4 invalid -1 time 0.25 dist 0.5 P 1 2 3 N 0.5 -0.25 0");
    // Derived records print compactly as well, with no newline.
    auto c = sampleRecord<GmContinuousTimeIntersectionInfo>(GmInterferenceType::EDGE_EDGE);
    c.objectIndex1 = c.objectIndex2 = -1;
    EXPECT_EQ(compact(c), "E-E obj -1 edge 30 self edge 31 time 0.25 dist 0.5 P 1 2 3 N 0 0 1");
}

TEST(InterferenceInfo, OtherRecordForms) {
    GmInsideInfo r;
    EXPECT_EQ(text(r), "Inside Vertex INVALID");
    r.vertex = 5, r.closestPoint = GmTVector<double>(1, 0.5, -2), r.distance = 0.125, r.closestFace = 9;
    r.barycentric = GmTVector<double>(0.25, 0.25, 0.5), r.pinched = true, r.objectIndex1 = 0, r.objectIndex2 = 3, r.weight = 2;
    EXPECT_EQ(text(r),
              "Inside Vertex 5 { closestPoint (1, 0.5, -2), distance 0.125, closestFace 9, barycentric (0.25, 0.25, "
              "0.5), pinched true, objectIndex1 0, objectIndex2 3, weight 2 }");
    r.vertex = -3;
    EXPECT_EQ(text(r), "Inside Vertex INVALID");
    GmPointIntersectionInfo p;
    p.objectIndex = -1, p.triangleIndex = 42, p.point = GmTVector<double>(0.5, 1, 0), p.barycentric = GmTVector<double>(0.5, 0.25, 0.25);
    EXPECT_EQ(text(p), "Inside Point { objectIndex -1, triangleIndex 42, point (0.5, 1, 0), barycentric (0.5, 0.25, 0.25) }");
    GmIntersectionInfo s;
    s.triangleIndex1 = 1, s.triangleIndex2 = 8;
    EXPECT_EQ(text(s), "Intersection between triangles 1 and 8:\n\tpoints {  }\n");
    s.points.push_back(GmTVector<double>(0, 1, 2));
    EXPECT_EQ(text(s), "Intersection between triangles 1 and 8:\n\tpoints { (0, 1, 2) }\n");
    s.points.push_back(GmTVector<double>(3, 4, 5.5));
    EXPECT_EQ(text(s), "Intersection between triangles 1 and 8:\n\tpoints { (0, 1, 2), (3, 4, 5.5) }\n");
    EXPECT_EQ(text(GmIntersectionCandidate(4, 17)), "Intersection Candidate (4, 17)\n");
    EXPECT_EQ(text(GmTimeIndex(3, 0.5)), "(time, index) = (0.5, 3)");
    // Time indices order by time, then index.
    std::vector<GmTimeIndex> v = {GmTimeIndex(2, 0.5), GmTimeIndex(0, 0.75), GmTimeIndex(1, 0.5), GmTimeIndex(3, 0.1)};
    std::sort(v.begin(), v.end());
    std::vector<int> order;
    for (const GmTimeIndex& x : v) order.push_back(x.index);
    EXPECT_EQ(order, (std::vector<int>{3, 1, 2, 0}));
}

}  // namespace

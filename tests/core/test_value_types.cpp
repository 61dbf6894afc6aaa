#include <gtest/gtest.h>

#include <sstream>

#include <quarrygeom/quarrygeom.h>

TEST(PointOnTriType, NamesAndUnknownValues) {
    EXPECT_STREQ(GmGeometry::pointOnTriTypeName(GmGeometry::INSIDE), "INSIDE");
    EXPECT_STREQ(GmGeometry::pointOnTriTypeName(GmGeometry::ON_VERTEX_3), "ON_VERTEX_3");
    EXPECT_STREQ(GmGeometry::pointOnTriTypeName(GmGeometry::ON_EDGE_2), "ON_EDGE_2");
    EXPECT_STREQ(GmGeometry::pointOnTriTypeName(GmGeometry::INVALID), "INVALID");
    EXPECT_STREQ(GmGeometry::pointOnTriTypeName(8), "UNKNOWN");
    EXPECT_STREQ(GmGeometry::pointOnTriTypeName(-1), "UNKNOWN");
}

TEST(AxisAlignedBox, TextFormHasCornersCentreAndHalfExtent) {
    GmAxisAlignedBox box(0.f, 0.f, 0.f, 2.f, 4.f, 6.f);
    std::ostringstream os;
    os << box;
    std::ostringstream expected;
    expected << "AABB (" << GmTVector<float>(0, 0, 0) << ", " << GmTVector<float>(2, 4, 6) << ") ("
             << GmTVector<float>(1, 2, 3) << ", " << GmTVector<float>(1, 2, 3) << ")";
    EXPECT_EQ(os.str(), expected.str());
}

TEST(AxisAlignedBox, DoublePointsAreEnclosedAfterRounding) {
    GmAxisAlignedBox box;
    EXPECT_TRUE(box.isEmpty());
    const GmTVector<double> p(0.1, -1.0 / 3.0, 1e10 + 0.5);
    box.expand(p);
    EXPECT_FALSE(box.isEmpty());
    EXPECT_TRUE(box.contains(p));
    EXPECT_LE(double(box.minX), p.x);
    EXPECT_GE(double(box.maxX), p.x);
    EXPECT_LE(double(box.minY), p.y);
    EXPECT_GE(double(box.maxY), p.y);
}

TEST(Ray, OctantClassFollowsDirectionSigns) {
    EXPECT_EQ(GmRay({0, 0, 0}, {-1, -1, -1}).getClassification(), 0);
    EXPECT_EQ(GmRay({0, 0, 0}, {1, 1, 1}).getClassification(), 7);
    EXPECT_EQ(GmRay({0, 0, 0}, {1, -1, -1}).getClassification(), 4);
    EXPECT_EQ(GmRay({0, 0, 0}, {-1, 1, -1}).getClassification(), 2);
    EXPECT_EQ(GmRay({0, 0, 0}, {-1, -1, 1}).getClassification(), 1);
    EXPECT_EQ((GmRayAxis<0, 0, -1>::kAxis), 2);
    EXPECT_EQ((GmRayAxis<0, 0, -1>::kSign), -1);
}

#include <gtest/gtest.h>
#include <sstream>
#include <quarrygeom/quarrygeom.h>

TEST(ValueTypes, PointTypeNamesAndRayOctants) {
    const char* names[] = {"INSIDE", "ON_VERTEX_1", "ON_VERTEX_2", "ON_VERTEX_3", "ON_EDGE_1", "ON_EDGE_2", "ON_EDGE_3", "INVALID"};
    for (int t = GmGeometry::INSIDE; t <= GmGeometry::INVALID; ++t) EXPECT_STREQ(GmGeometry::pointOnTriTypeName(t), names[t]);
    EXPECT_STREQ(GmGeometry::pointOnTriTypeName(8), "UNKNOWN");
    EXPECT_STREQ(GmGeometry::pointOnTriTypeName(-1), "UNKNOWN");
    // Octant class: bit 2 for +x, bit 1 for +y, bit 0 for +z.
    for (int c = 0; c < 8; ++c)
        EXPECT_EQ(GmRay({0, 0, 0}, {c & 4 ? 1.0 : -1.0, c & 2 ? 1.0 : -1.0, c & 1 ? 1.0 : -1.0}).getClassification(), c);
    EXPECT_EQ((GmRayAxis<0, 0, -1>::kAxis), 2);
    EXPECT_EQ((GmRayAxis<0, 0, -1>::kSign), -1);
}

TEST(AxisAlignedBox, TextAndDoublePointsEnclosedAfterRounding) {
    std::ostringstream os, expected;
    os << GmAxisAlignedBox(0.f, 0.f, 0.f, 2.f, 4.f, 6.f);
    expected << "AABB (" << GmTVector<float>(0, 0, 0) << ", " << GmTVector<float>(2, 4, 6) << ") ("
             << GmTVector<float>(1, 2, 3) << ", " << GmTVector<float>(1, 2, 3) << ")";  // corners, centre, half extent
    EXPECT_EQ(os.str(), expected.str());
    GmAxisAlignedBox box;
    EXPECT_TRUE(box.isEmpty());
    const GmTVector<double> p(0.1, -1.0 / 3.0, 1e10 + 0.5);
    box.expand(p);
    EXPECT_FALSE(box.isEmpty());
    EXPECT_TRUE(box.contains(p));
    EXPECT_TRUE(box.minX <= p.x && box.maxX >= p.x && box.minY <= p.y && box.maxY >= p.y && box.minZ <= p.z && box.maxZ >= p.z);
}

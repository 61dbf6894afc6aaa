#include <gtest/gtest.h>
#include <algorithm>
#include <cfloat>
#include <cmath>
#include <random>
#include <sstream>
#include <string>
#include <quarrygeom/quarrygeom.h>

namespace {

using V = GmTVector<double>;

GmMatrix diag(double a, double b, double c) { return GmMatrix(a, 0, 0, 0, b, 0, 0, 0, c); }

// Products, sums, transposes, determinants and point maps against plain index loops over
// random matrices (3x3 and 4x4), and the element order of every constructor and accessor.
TEST(Matrix, ArithmeticMatchesIndexLoops) {
    std::mt19937_64 rng(11);
    std::uniform_real_distribution<double> u(-2.0, 2.0);
    for (int trial = 0; trial < 200; ++trial) {
        double a[3][3], b[3][3], out[3][3];
        for (int i = 0; i < 9; ++i) a[i / 3][i % 3] = u(rng), b[i / 3][i % 3] = u(rng);
        const GmMatrix A(a), M(b), AB = A * M, sum = A + M, diff = A - M, t = A.transpose(), s = A * 3.0;
        ASSERT_EQ(A, GmMatrix(a[0][0], a[0][1], a[0][2], a[1][0], a[1][1], a[1][2], a[2][0], a[2][1], a[2][2]));
        const V v(u(rng), u(rng), u(rng)), Av = A * v;
        A.get(out);
        for (int r = 0; r < 3; ++r) {
            double row = 0.0;
            for (int c = 0; c < 3; ++c) {
                double dot = 0.0;
                for (int k = 0; k < 3; ++k) dot += a[r][k] * b[k][c];
                EXPECT_NEAR(AB(r, c), dot, 1e-14);
                EXPECT_TRUE(out[r][c] == a[r][c] && sum(r, c) == a[r][c] + b[r][c] && diff(r, c) == a[r][c] - b[r][c] &&
                            t(r, c) == a[c][r] && s(r, c) == 3.0 * a[r][c]) << r << c;
                row += a[r][c] * v[c];
            }
            EXPECT_NEAR(Av[r], row, 1e-14);
        }
        double det = 0.0;  // Leibniz
        for (int i = 0; i < 3; ++i) det += a[0][i] * (a[1][(i + 1) % 3] * a[2][(i + 2) % 3] - a[1][(i + 2) % 3] * a[2][(i + 1) % 3]);
        EXPECT_NEAR(A.determinant(), det, 1e-13);
        EXPECT_EQ(A.trace(), a[0][0] + a[1][1] + a[2][2]);
        double m4[4][4], n4[4][4], got[4][4];
        for (int i = 0; i < 16; ++i) m4[i / 4][i % 4] = u(rng), n4[i / 4][i % 4] = u(rng);
        const GmTransformMatrix T(m4), N(n4), TN = T * N;
        ASSERT_EQ(T, GmTransformMatrix(m4[0][0], m4[0][1], m4[0][2], m4[0][3], m4[1][0], m4[1][1], m4[1][2], m4[1][3],
                                       m4[2][0], m4[2][1], m4[2][2], m4[2][3], m4[3][0], m4[3][1], m4[3][2], m4[3][3]));
        T.get(got);
        const double p[4] = {v.x, v.y, v.z, 1.0};
        double h[4] = {0, 0, 0, 0};
        for (int r = 0; r < 4; ++r)
            for (int c = 0; c < 4; ++c) {
                double dot = 0.0;
                for (int k = 0; k < 4; ++k) dot += m4[r][k] * n4[k][c];
                EXPECT_TRUE(std::fabs(TN(r, c) - dot) <= 1e-14 && got[r][c] == m4[r][c]) << r << c;
                h[r] += m4[r][c] * p[c];
            }
        const V Tp = T * v, Tv = T.transformVector(v);  // a point is divided by w; a direction has no translation
        for (int r = 0; r < 3; ++r) {
            EXPECT_NEAR(Tp[r], h[r] / h[3], 1e-12 * (1.0 + std::fabs(h[r] / h[3])));
            EXPECT_NEAR(Tv[r], m4[r][0] * v.x + m4[r][1] * v.y + m4[r][2] * v.z, 1e-14);
        }
    }
    EXPECT_TRUE(GmMatrix() == diag(1, 1, 1) && GmTransformMatrix() == GmTransformMatrix::identity());
    EXPECT_EQ(GmTransformMatrix::translation(V(1, 2, 3)) * V(1, 1, 1), V(2, 3, 4));
}

// A v = lambda v, descending values, an orthonormal right-handed frame, trace and determinant.
void expectEigenSystem(const GmMatrix& a, const double values[3], const V vectors[3], double relTol) {
    double scale = DBL_MIN;
    for (int r = 0; r < 3; ++r)
        for (int c = 0; c < 3; ++c) scale = std::max(scale, std::fabs(a(r, c)));
    EXPECT_TRUE(values[0] >= values[1] && values[1] >= values[2]);
    for (int k = 0; k < 3; ++k) {
        EXPECT_LE((a * vectors[k] - vectors[k] * values[k]).length(), relTol * scale) << k;
        EXPECT_NEAR(vectors[k].length(), 1.0, 1e-14);
        for (int j = k + 1; j < 3; ++j) EXPECT_NEAR(vectors[k].dot(vectors[j]), 0.0, 1e-14);
    }
    EXPECT_NEAR(vectors[0].cross(vectors[1]).dot(vectors[2]), 1.0, 1e-14);
    EXPECT_NEAR(values[0] + values[1] + values[2], a.trace(), relTol * 3 * scale);
    EXPECT_NEAR(values[0] / scale * values[1] / scale * values[2] / scale, a.determinant() / scale / scale / scale, 1e-13);
}

// Random symmetric matrices over 200 orders of magnitude, and Q D Q^T with repeated
// eigenvalues (two or three equal) for random rotations Q.
TEST(MatrixEigen, RandomAndRepeatedEigenvalues) {
    std::mt19937_64 rng(5);
    std::uniform_real_distribution<double> u(-1.0, 1.0);
    std::normal_distribution<double> n;
    double values[3];
    V vectors[3];
    for (int trial = 0; trial < 6000; ++trial) {
        GmMatrix m;
        double expected[3] = {NAN, NAN, NAN};
        if (trial % 2 == 0) {
            const double s = std::pow(10.0, 100.0 * u(rng));
            const double a = u(rng) * s, b = u(rng) * s, c = u(rng) * s, d = u(rng) * s, e = u(rng) * s, f = u(rng) * s;
            m = GmMatrix(a, b, c, b, d, e, c, e, f);
        } else {
            double w = n(rng), x = n(rng), y = n(rng), z = n(rng), l = w * w + x * x + y * y + z * z;  // a unit quaternion
            const GmMatrix q = GmMatrix() - GmMatrix(y * y + z * z, -x * y + w * z, -x * z - w * y, -x * y - w * z, x * x + z * z,
                                                     -y * z + w * x, -x * z + w * y, -y * z - w * x, x * x + y * y) * (2 / l);
            const double l1 = 3.0 * u(rng), l2 = trial % 3 == 0 ? l1 : 3.0 * u(rng);
            const GmMatrix d = trial % 4 == 1 ? diag(l1, l1, l2) : diag(l2, l1, l1);
            m = q * d * q.transpose();
            expected[0] = d(0, 0), expected[1] = d(1, 1), expected[2] = d(2, 2);
            std::sort(expected, expected + 3, [](double p, double r) { return p > r; });
        }
        ASSERT_EQ(m.getEigenSystem(values, vectors), 0);
        expectEigenSystem(m, values, vectors, 1e-14);
        for (int k = 0; k < 3 && trial % 2; ++k) EXPECT_NEAR(values[k], expected[k], 1e-14 * 3.0 * 4.0);
    }
}

TEST(MatrixEigen, SpecialMatrices) {
    double values[3];
    V vectors[3];
    // Diagonal, unsorted, negative entries.
    ASSERT_EQ(diag(-2, 5, 0.5).getEigenSystem(values, vectors), 0);
    EXPECT_EQ(std::vector<double>(values, values + 3), std::vector<double>({5.0, 0.5, -2.0}));
    EXPECT_TRUE(std::fabs(vectors[0].y) == 1.0 && std::fabs(vectors[2].x) == 1.0);
    for (double s : {7.0, 0.0}) {  // multiples of the identity
        ASSERT_EQ(diag(s, s, s).getEigenSystem(values, vectors), 0);
        EXPECT_EQ(std::vector<double>(values, values + 3), std::vector<double>(3, s));
        expectEigenSystem(diag(s, s, s), values, vectors, 0.0);
    }
    // Rank one d d^T: eigenvalue |d|^2 along d, the rest zero.
    ASSERT_EQ(GmMatrix(1, 2, 3, 2, 4, 6, 3, 6, 9).getEigenSystem(values, vectors), 0);
    for (int k = 0; k < 3; ++k) EXPECT_NEAR(values[k], k == 0 ? 14.0 : 0.0, 1e-13);
    EXPECT_NEAR(std::fabs(vectors[0].dot(V(1, 2, 3))) / std::sqrt(14.0), 1.0, 1e-14);
    // Only the symmetric part counts.
    double v2[3];
    V e2[3];
    GmMatrix(2, 1, 0, 1, 3, 1, 0, 1, 4).getEigenSystem(values, vectors);
    GmMatrix(2, 6, -1, -4, 3, 3, 1, -1, 4).getEigenSystem(v2, e2);  // plus a skew-symmetric part
    for (int k = 0; k < 3; ++k) EXPECT_NEAR(values[k], v2[k], 1e-14);
    // Non-finite entries.
    EXPECT_EQ(GmMatrix(NAN, 0, 0, 0, 1, 0, 0, 0, 1).getEigenSystem(values, vectors), -1);
    EXPECT_TRUE(std::isnan(values[0]) && vectors[1] == V(0, 1, 0));
}

void expectNearIdentity(const GmTransformMatrix& m, double tol) {
    for (int r = 0; r < 4; ++r)
        for (int c = 0; c < 4; ++c) EXPECT_NEAR(m(r, c), r == c ? 1.0 : 0.0, tol) << r << ',' << c;
}

TEST(TransformMatrix, InverseRoundTrips) {
    std::mt19937_64 rng(3);
    std::uniform_real_distribution<double> u(-1.0, 1.0);
    for (int trial = 0; trial < 2000; ++trial) {
        const V axis = V(u(rng), u(rng), u(rng)).safeNormalized();
        const GmTransformMatrix m = GmTransformMatrix::translation(V(10 * u(rng), 10 * u(rng), 10 * u(rng))) *
                                    GmTransformMatrix::rotation(axis, 3.0 * u(rng)) *
                                    GmTransformMatrix::scaling(0.1 + std::fabs(u(rng)), 0.1 + std::fabs(u(rng)), -0.1 - std::fabs(u(rng)));
        const GmTransformMatrix inv = m.inverse();
        expectNearIdentity(m * inv, 1e-12);
        expectNearIdentity(inv * m, 1e-12);
        const V p(5 * u(rng), 5 * u(rng), 5 * u(rng));
        EXPECT_NEAR((inv * (m * p) - p).length(), 0.0, 1e-12);
        double raw[4][4];  // a general, well-conditioned projective matrix
        for (int i = 0; i < 16; ++i) raw[i / 4][i % 4] = u(rng) + (i % 5 == 0 ? 3.0 : 0.0);
        ASSERT_FALSE(GmTransformMatrix(raw).isAffine());
        expectNearIdentity(GmTransformMatrix(raw) * GmTransformMatrix(raw).inverse(), 1e-13);
    }
    // Tiny uniform scale with a large translation is still invertible.
    const GmTransformMatrix tiny = GmTransformMatrix::translation(V(1, 2, 3)) * GmTransformMatrix::scaling(1e-20, 1e-20, 1e-20);
    GmTransformMatrix tinyInv;
    ASSERT_TRUE(tiny.getInverse(tinyInv));
    EXPECT_TRUE(std::fabs(tinyInv(0, 0) - 1e20) <= 1e5 && std::fabs(tinyInv(2, 3) + 3e20) <= 1e6);
    expectNearIdentity(tiny * tinyInv, 1e-12);
}

// Singular (also only up to rounding, or projective): no inverse, the output untouched, and
// inverse() all NaN; an invertible projective matrix has one.
TEST(TransformMatrix, SingularMatricesHaveNoInverse) {
    const GmTransformMatrix start = GmTransformMatrix::translation(V(9, 9, 9));
    for (const GmTransformMatrix& m : {GmTransformMatrix::scaling(1, 0, 1), GmTransformMatrix(1, 2, 3, 0, 4, 5, 6, 0, 5, 7, 9, 0, 0, 0, 0, 1),
                                       GmTransformMatrix(1, 0, 0, 0, 0, 1, 0, 0, 0, 0, 1, 0, 1, 1, 1, 1e-300)}) {
        GmTransformMatrix out = start;
        EXPECT_FALSE(m.getInverse(out));
        EXPECT_EQ(out, start);
    }
    const GmTransformMatrix nanInv = GmTransformMatrix::scaling(1, 0, 1).inverse();
    for (int r = 0; r < 16; ++r) EXPECT_TRUE(std::isnan(nanInv(r / 4, r % 4)));
    GmTransformMatrix out;
    EXPECT_TRUE(GmTransformMatrix(1, 0, 0, 0, 0, 1, 0, 0, 0, 0, 1, 1, 0, 0, 1, 0).getInverse(out));
}

TEST(Exception, ZeroNormalisationThrowsWithItsMessage) {
    V tiny(1e-17, 0, 0), v(3, 0, 4);
    try {
        tiny.normalize();
        FAIL() << "no exception";
    } catch (const GmException& e) {
        std::ostringstream os;
        os << e;
        EXPECT_EQ(e.getMessage(), "GmTVector::normalize() ... Zero magnitude");
        EXPECT_NE(os.str().find(e.getMessage()), std::string::npos);
    }
    EXPECT_EQ(tiny, V(1e-17, 0, 0));  // unchanged
    v.normalize();
    EXPECT_EQ(v, V(3.0 / 5.0, 0, 4.0 / 5.0));
    EXPECT_THROW(GmTVector<float>(0, 0, 0).normalize(), GmException);
}

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

}  // namespace

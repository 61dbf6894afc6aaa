#include <gtest/gtest.h>

#include <algorithm>
#include <cfloat>
#include <cmath>
#include <random>
#include <sstream>
#include <string>

#include <quarrygeom/core/GmException.h>
#include <quarrygeom/core/GmMatrix.h>
#include <quarrygeom/core/GmTransformMatrix.h>
#include <quarrygeom/core/GmTVector.h>

namespace {

using V = GmTVector<double>;

double maxAbs(const GmMatrix& m) {
    double s = 0.0;
    for (int r = 0; r < 3; ++r)
        for (int c = 0; c < 3; ++c) s = std::max(s, std::fabs(m(r, c)));
    return s;
}

// A random rotation (unit quaternion).
GmMatrix randomRotation(std::mt19937_64& rng) {
    std::normal_distribution<double> n;
    double w = n(rng), x = n(rng), y = n(rng), z = n(rng);
    const double len = std::sqrt(w * w + x * x + y * y + z * z);
    w /= len; x /= len; y /= len; z /= len;
    return GmMatrix(1 - 2 * (y * y + z * z), 2 * (x * y - w * z), 2 * (x * z + w * y),
                    2 * (x * y + w * z), 1 - 2 * (x * x + z * z), 2 * (y * z - w * x),
                    2 * (x * z - w * y), 2 * (y * z + w * x), 1 - 2 * (x * x + y * y));
}

GmMatrix diag(double a, double b, double c) { return GmMatrix(a, 0, 0, 0, b, 0, 0, 0, c); }

// Checks A v = lambda v, descending order, an orthonormal right-handed frame, and the
// invariants trace and determinant.
void expectEigenSystem(const GmMatrix& a, const double values[3], const V vectors[3], double relTol,
                       const std::string& what) {
    const double scale = std::max(maxAbs(a), DBL_MIN);
    EXPECT_GE(values[0], values[1]) << what;
    EXPECT_GE(values[1], values[2]) << what;
    for (int k = 0; k < 3; ++k) {
        const V residual = a * vectors[k] - vectors[k] * values[k];
        EXPECT_LE(residual.length(), relTol * scale) << what << " vector " << k;
        EXPECT_NEAR(vectors[k].length(), 1.0, 1e-14) << what;
        for (int j = k + 1; j < 3; ++j) EXPECT_NEAR(vectors[k].dot(vectors[j]), 0.0, 1e-14) << what;
    }
    EXPECT_NEAR(vectors[0].cross(vectors[1]).dot(vectors[2]), 1.0, 1e-14) << what;
    EXPECT_NEAR(values[0] + values[1] + values[2], a.trace(), relTol * 3 * scale) << what;
}

TEST(Matrix, ConstructionAccessAndArithmetic) {
    const GmMatrix m(1, 2, 3, 4, 5, 6, 7, 8, 10);
    EXPECT_EQ(m(0, 2), 3.0);
    EXPECT_EQ(m(2, 0), 7.0);
    double raw[3][3];
    m.get(raw);
    EXPECT_EQ(raw[1][2], 6.0);
    EXPECT_EQ(GmMatrix(raw), m);
    EXPECT_EQ(GmMatrix(), diag(1, 1, 1));
    EXPECT_EQ(m.transpose()(0, 2), 7.0);
    EXPECT_DOUBLE_EQ(m.determinant(), -3.0);
    const V p = m * V(1, 0, -1);
    EXPECT_EQ(p, V(-2, -2, -3));
    EXPECT_EQ((m * GmMatrix::identity()), m);
    EXPECT_EQ((m - m), GmMatrix::zero());
    EXPECT_EQ((m + m), m * 2.0);
}

TEST(MatrixEigen, RandomSymmetricMatrices) {
    std::mt19937_64 rng(5);
    std::uniform_real_distribution<double> u(-1.0, 1.0);
    for (int trial = 0; trial < 5000; ++trial) {
        const double s = std::pow(10.0, 100.0 * u(rng));
        const double a = u(rng) * s, b = u(rng) * s, c = u(rng) * s, d = u(rng) * s, e = u(rng) * s, f = u(rng) * s;
        const GmMatrix m(a, b, c, b, d, e, c, e, f);
        double values[3];
        V vectors[3];
        ASSERT_EQ(m.getEigenSystem(values, vectors), 0);
        expectEigenSystem(m, values, vectors, 1e-14, "random");
        // Determinant as the product of the eigenvalues.
        EXPECT_NEAR(values[0] * values[1] * values[2] / (s * s * s), m.determinant() / (s * s * s), 1e-13);
    }
}

TEST(MatrixEigen, RepeatedEigenvalues) {
    std::mt19937_64 rng(17);
    std::uniform_real_distribution<double> u(-1.0, 1.0);
    for (int trial = 0; trial < 3000; ++trial) {
        const GmMatrix q = randomRotation(rng);
        const double l1 = 3.0 * u(rng), l2 = 3.0 * u(rng);
        const int kind = trial % 3;
        const GmMatrix d = kind == 0 ? diag(l1, l1, l2) : kind == 1 ? diag(l2, l1, l1) : diag(l1, l1, l1);
        const GmMatrix m = q * d * q.transpose();
        double values[3];
        V vectors[3];
        ASSERT_EQ(m.getEigenSystem(values, vectors), 0);
        expectEigenSystem(m, values, vectors, 1e-14, "repeated");
        double expected[3] = {d(0, 0), d(1, 1), d(2, 2)};
        std::sort(expected, expected + 3, [](double x, double y) { return x > y; });
        for (int k = 0; k < 3; ++k) EXPECT_NEAR(values[k], expected[k], 1e-14 * 3.0 * 4.0);
    }
}

TEST(MatrixEigen, SpecialMatrices) {
    double values[3];
    V vectors[3];
    // Diagonal, unsorted, negative entries.
    ASSERT_EQ(diag(-2, 5, 0.5).getEigenSystem(values, vectors), 0);
    EXPECT_EQ(values[0], 5.0);
    EXPECT_EQ(values[1], 0.5);
    EXPECT_EQ(values[2], -2.0);
    EXPECT_EQ(std::fabs(vectors[0].y), 1.0);
    EXPECT_EQ(std::fabs(vectors[2].x), 1.0);
    // Exact multiple of the identity and the zero matrix.
    ASSERT_EQ(diag(7, 7, 7).getEigenSystem(values, vectors), 0);
    for (double v : values) EXPECT_EQ(v, 7.0);
    expectEigenSystem(diag(7, 7, 7), values, vectors, 0.0, "identity");
    ASSERT_EQ(GmMatrix::zero().getEigenSystem(values, vectors), 0);
    for (double v : values) EXPECT_EQ(v, 0.0);
    // Rank one d d^T: eigenvalue |d|^2 along d, the rest zero.
    const V dv(1, 2, 3);
    const GmMatrix r1(1, 2, 3, 2, 4, 6, 3, 6, 9);
    ASSERT_EQ(r1.getEigenSystem(values, vectors), 0);
    EXPECT_NEAR(values[0], 14.0, 1e-13);
    EXPECT_NEAR(values[1], 0.0, 1e-13);
    EXPECT_NEAR(values[2], 0.0, 1e-13);
    EXPECT_NEAR(std::fabs(vectors[0].dot(dv)) / dv.length(), 1.0, 1e-14);
    // Only the symmetric part counts.
    const GmMatrix sym(2, 1, 0, 1, 3, 1, 0, 1, 4), skew(0, 5, -1, -5, 0, 2, 1, -2, 0);
    double v1[3], v2[3];
    V e1[3], e2[3];
    sym.getEigenSystem(v1, e1);
    (sym + skew).getEigenSystem(v2, e2);
    for (int k = 0; k < 3; ++k) EXPECT_NEAR(v1[k], v2[k], 1e-14);
    // Non-finite entries.
    EXPECT_EQ(GmMatrix(NAN, 0, 0, 0, 1, 0, 0, 0, 1).getEigenSystem(values, vectors), -1);
    EXPECT_TRUE(std::isnan(values[0]));
    EXPECT_EQ(vectors[1], V(0, 1, 0));
}

GmTransformMatrix randomAffine(std::mt19937_64& rng) {
    std::uniform_real_distribution<double> u(-1.0, 1.0);
    V axis(u(rng), u(rng), u(rng));
    axis = axis.safeNormalized();
    if (axis.length() < 0.5) axis = V(0, 0, 1);
    return GmTransformMatrix::translation(V(10 * u(rng), 10 * u(rng), 10 * u(rng))) *
           GmTransformMatrix::rotation(axis, 3.0 * u(rng)) *
           GmTransformMatrix::scaling(0.1 + std::fabs(u(rng)), 0.1 + std::fabs(u(rng)), -0.1 - std::fabs(u(rng)));
}

void expectNearIdentity(const GmTransformMatrix& m, double tol) {
    for (int r = 0; r < 4; ++r)
        for (int c = 0; c < 4; ++c) EXPECT_NEAR(m(r, c), r == c ? 1.0 : 0.0, tol) << r << ',' << c;
}

TEST(TransformMatrix, ElementOrderAndPointApplication) {
    const GmTransformMatrix m(1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11, 12, 0, 0, 0, 1);
    double raw[4][4];
    m.get(raw);
    EXPECT_EQ(raw[0][3], 4.0);
    EXPECT_EQ(raw[2][1], 10.0);
    GmTransformMatrix s;
    EXPECT_EQ(s, GmTransformMatrix::identity());
    s.set(raw);
    EXPECT_EQ(s, m);
    GmTransformMatrix t;
    t.set(1, 0, 0, 0, 0, 1, 0, 0, 0, 0, 1, 0, 0, 0, 0, 1);
    t = m;  // assignment
    EXPECT_EQ(t, m);
    const GmTransformMatrix copy(t);
    EXPECT_EQ(copy(1, 3), 8.0);
    // A point gets the translation, a direction does not.
    EXPECT_EQ(m * V(1, 0, 0), V(1 + 4, 5 + 8, 9 + 12));
    EXPECT_EQ(m.transformVector(V(1, 0, 0)), V(1, 5, 9));
    EXPECT_EQ(GmTransformMatrix::translation(V(1, 2, 3)) * V(1, 1, 1), V(2, 3, 4));
    // Projective: divided by the homogeneous coordinate.
    const GmTransformMatrix proj(1, 0, 0, 0, 0, 1, 0, 0, 0, 0, 1, 0, 0, 0, 1, 0);
    EXPECT_EQ(proj * V(2, 4, 2), V(1, 2, 1));
}

TEST(TransformMatrix, InverseRoundTrips) {
    std::mt19937_64 rng(3);
    std::uniform_real_distribution<double> u(-1.0, 1.0);
    for (int trial = 0; trial < 2000; ++trial) {
        const GmTransformMatrix m = randomAffine(rng);
        const GmTransformMatrix inv = m.inverse();
        expectNearIdentity(m * inv, 1e-12);
        expectNearIdentity(inv * m, 1e-12);
        const V p(5 * u(rng), 5 * u(rng), 5 * u(rng));
        const V back = inv * (m * p);
        EXPECT_NEAR((back - p).length(), 0.0, 1e-12);
    }
    // A general projective matrix.
    for (int trial = 0; trial < 500; ++trial) {
        double raw[4][4];
        for (auto& row : raw)
            for (double& x : row) x = u(rng);
        for (int i = 0; i < 4; ++i) raw[i][i] += 3.0;  // well conditioned
        const GmTransformMatrix m(raw);
        ASSERT_FALSE(m.isAffine());
        expectNearIdentity(m * m.inverse(), 1e-13);
    }
    // Tiny uniform scale with a large translation is still invertible.
    const GmTransformMatrix tiny = GmTransformMatrix::translation(V(1, 2, 3)) * GmTransformMatrix::scaling(1e-20, 1e-20, 1e-20);
    GmTransformMatrix tinyInv;
    ASSERT_TRUE(tiny.getInverse(tinyInv));
    EXPECT_NEAR(tinyInv(0, 0), 1e20, 1e5);
    EXPECT_NEAR(tinyInv(2, 3), -3e20, 1e6);
    expectNearIdentity(tiny * tinyInv, 1e-12);
    EXPECT_EQ(tinyInv * V(1.0, 2.0, 3.0), V(0, 0, 0));
}

TEST(TransformMatrix, SingularMatricesHaveNoInverse) {
    GmTransformMatrix out = GmTransformMatrix::translation(V(9, 9, 9));
    const GmTransformMatrix flat = GmTransformMatrix::scaling(1, 0, 1);
    EXPECT_FALSE(flat.getInverse(out));
    EXPECT_EQ(out, GmTransformMatrix::translation(V(9, 9, 9)));  // untouched
    const GmTransformMatrix nanInv = flat.inverse();
    for (int r = 0; r < 4; ++r)
        for (int c = 0; c < 4; ++c) EXPECT_TRUE(std::isnan(nanInv(r, c)));
    // Rows that are dependent only up to rounding.
    const GmTransformMatrix dependent(1, 2, 3, 0, 4, 5, 6, 0, 5, 7, 9, 0, 0, 0, 0, 1);
    EXPECT_FALSE(dependent.getInverse(out));
    const GmTransformMatrix zeroProj(1, 0, 0, 0, 0, 1, 0, 0, 0, 0, 1, 1, 0, 0, 1, 0);
    EXPECT_TRUE(zeroProj.getInverse(out));  // projective, invertible
    const GmTransformMatrix singularProj(1, 0, 0, 0, 0, 1, 0, 0, 0, 0, 1, 0, 1, 1, 1, 1e-300);
    GmTransformMatrix spInv;
    EXPECT_EQ(singularProj.getInverse(spInv), false);
}

TEST(Exception, MessageCopyAndStream) {
    const GmException a("first");
    const GmException b(std::string("second"));
    GmException c(a);
    EXPECT_EQ(c.getMessage(), "first");
    c = b;
    EXPECT_EQ(c.getMessage(), "second");
    std::ostringstream os;
    os << a;
    EXPECT_NE(os.str().find("first"), std::string::npos);
    // Polymorphic destruction through the base.
    const GmException* heap = new GmException("heap");
    delete heap;
}

TEST(Exception, NormalizeOfAZeroVectorThrows) {
    V tiny(1e-17, 0, 0);
    try {
        tiny.normalize();
        FAIL() << "no exception";
    } catch (const GmException& e) {
        EXPECT_EQ(e.getMessage(), "GmTVector::normalize() ... Zero magnitude");
    }
    EXPECT_EQ(tiny, V(1e-17, 0, 0));  // unchanged
    V v(3, 0, 4);
    v.normalize();
    EXPECT_DOUBLE_EQ(v.x, 0.6);
    EXPECT_EQ(v.y, 0.0);
    EXPECT_DOUBLE_EQ(v.z, 0.8);
    GmTVector<float> f(0, 0, 0);
    EXPECT_THROW(f.normalize(), GmException);
}

}  // namespace

#pragma once

#include <ostream>

#include <quarrygeom/core/GmExport.h>
#include <quarrygeom/core/GmTVector.h>

// 4x4 matrix of doubles for (affine) transforms, stored by rows and applied to column
// vectors: a point p maps to M * (p, 1), so the translation is the last column
// (elements (0,3), (1,3), (2,3)) and an affine transform has (0, 0, 0, 1) as its last row.
// The sixteen-value constructor and set() take the elements row by row.
// A default-constructed transform is the identity.
class QUARRYMATH_API GmTransformMatrix {
public:
    GmTransformMatrix();
    GmTransformMatrix(double m00, double m01, double m02, double m03, double m10, double m11, double m12,
                      double m13, double m20, double m21, double m22, double m23, double m30, double m31,
                      double m32, double m33);
    explicit GmTransformMatrix(const double m[4][4]);
    GmTransformMatrix(const GmTransformMatrix& other);
    GmTransformMatrix& operator=(const GmTransformMatrix& other);
    ~GmTransformMatrix();

    static GmTransformMatrix identity() { return GmTransformMatrix(); }
    static GmTransformMatrix translation(const GmTVector<double>& t);
    static GmTransformMatrix scaling(double sx, double sy, double sz);
    // Rotation by angle (radians) about a unit axis through the origin, right-handed.
    static GmTransformMatrix rotation(const GmTVector<double>& unitAxis, double angle);

    void set(double m00, double m01, double m02, double m03, double m10, double m11, double m12, double m13,
             double m20, double m21, double m22, double m23, double m30, double m31, double m32, double m33);
    void set(const double m[4][4]);
    void get(double m[4][4]) const;
    double& operator()(int r, int c) { return _m[r][c]; }
    double operator()(int r, int c) const { return _m[r][c]; }

    bool isAffine() const { return _m[3][0] == 0.0 && _m[3][1] == 0.0 && _m[3][2] == 0.0 && _m[3][3] == 1.0; }

    // Inverse transform. When the matrix is singular (numerically: its linear part, or the
    // whole matrix for a projective one, is rank-deficient to within rounding) every element
    // of the result is NaN; use getInverse() to be told instead.
    GmTransformMatrix inverse() const;
    // Writes the inverse and returns true, or returns false (result untouched) when singular.
    bool getInverse(GmTransformMatrix& result) const;

    // Composition: (A * B) applies B first, then A.
    GmTransformMatrix operator*(const GmTransformMatrix& o) const;
    // Applies the transform to a point (homogeneous coordinate 1). For a projective matrix
    // the result is divided by its homogeneous coordinate when that is neither 0 nor 1.
    GmTVector<double> operator*(const GmTVector<double>& p) const;
    // Applies the linear part only (directions: no translation).
    GmTVector<double> transformVector(const GmTVector<double>& v) const;

    bool operator==(const GmTransformMatrix& o) const;
    bool operator!=(const GmTransformMatrix& o) const { return !(*this == o); }

private:
    double _m[4][4];
};

// Rows in brackets, each row written as "(a, b, c, d)".
QUARRYMATH_API std::ostream& operator<<(std::ostream& os, const GmTransformMatrix& m);
